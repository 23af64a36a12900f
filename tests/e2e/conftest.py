import pytest

import sandbox as sandbox_lib


@pytest.fixture
def sandbox():
    """A fresh Sandbox (see sandbox.py); its report is printed for failed
    tests, and everything is removed afterwards."""
    try:
        sb = sandbox_lib.Sandbox()
    except sandbox_lib.SandboxError as e:
        if "needs root" in str(e):
            pytest.skip(str(e))
        raise
    try:
        yield sb
        print(sb.report())
    finally:
        sb.close()

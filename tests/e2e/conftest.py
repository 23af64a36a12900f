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


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="also run the long tests (the 10-minute soak)")


def pytest_configure(config):
    config.addinivalue_line("markers", "long: a long test, run only with --long")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--long"):
        return
    skip = pytest.mark.skip(reason="long test: runs only with --long (scripts/test --long)")
    for item in items:
        if "long" in item.keywords:
            item.add_marker(skip)

import pytest

import sandbox as sandbox_lib


@pytest.fixture
def sandbox(request):
    """A fresh Sandbox (see sandbox.py); its report is printed for failed
    tests, and everything is removed afterwards. Indirect parameters are
    Sandbox's keyword arguments."""
    try:
        sb = sandbox_lib.Sandbox(**getattr(request, "param", {}))
    except sandbox_lib.SandboxError as e:
        if "needs root" in str(e):
            pytest.skip(str(e))
        raise
    try:
        yield sb
        print(sb.report())
        reports = sb.sanitizer_reports()
        if reports:
            pytest.fail("the daemon's sanitizer report:\n" + reports[-4000:])
    finally:
        sb.close()


def pytest_addoption(parser):
    parser.addoption("--long", action="store_true", help="also run the long tests (the 10-minute soak)")


def pytest_configure(config):
    config.addinivalue_line("markers", "long: a long test, run only with --long")
    config.addinivalue_line("markers", "target: also runs on a target build under qemu-user (CLIENTMGR_QEMU)")


def pytest_collection_modifyitems(config, items):
    if sandbox_lib.QEMU:  # a target build through qemu-user: the tests marked for it
        config.hook.pytest_deselected(items=[i for i in items if "target" not in i.keywords])
        items[:] = [i for i in items if "target" in i.keywords]
    if config.getoption("--long"):
        return
    skip = pytest.mark.skip(reason="long test: runs only with --long (scripts/test --long)")
    for item in items:
        if "long" in item.keywords:
            item.add_marker(skip)

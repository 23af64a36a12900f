"""Start-up of the daemon and the robustness of its loop."""
import os
import re
import stat
from pathlib import Path

import pytest

from helpers_clients import lines_of

PIPES = ("/etc/iwevent_pipe", "/etc/event_pipe", "/etc/client_table_pipe")
CLIENT_FILES = ("/etc/clientip", "/etc/clientip_assoc", "/etc/client_accu_stat")


@pytest.mark.target
def test_startup_restarts_iwevent_prepares_files_and_watches_links(sandbox):
    for path in CLIENT_FILES:
        sandbox.write(path, "stale\n")
    sandbox.write("/etc/event_pipe", "a regular file in the way\n")
    sandbox.add_interface("ath1", "02:11:22:33:44:01")
    sandbox.start()

    assert sandbox.commands() == ["killall iwevent", "killall -9 iwevent", "iwevent"]
    assert [(c.stdout, c.append) for c in sandbox.calls("iwevent")] == [("/etc/iwevent_pipe", True)]  # >> the pipe
    for path in PIPES:
        mode = os.stat(sandbox.host_path(path)).st_mode
        assert stat.S_ISFIFO(mode) and stat.S_IMODE(mode) == 0o777, path
    for path in CLIENT_FILES:
        assert not sandbox.exists(path), path

    sandbox.run_in_ns(["ip", "link", "del", "ath1"])
    sandbox.wait_idle()  # the kernel queued the message before ip returned
    assert "dellink" in sandbox.stdout().splitlines()


@pytest.mark.parametrize("pipe", PIPES)
def test_pipe_that_cannot_be_opened_ends_the_daemon(sandbox, pipe):
    os.mkdir(sandbox.host_path(pipe))
    sandbox.start(wait=False)
    assert sandbox.wait_exit() == 1 and "Cannot open pipe" in sandbox.stderr()


def test_junk_empty_writes_cut_lines_and_lines_without_mac(sandbox):
    sandbox.start()
    for pipe in PIPES:
        sandbox.write_fifo(pipe, bytes(range(256)) * 8 + b"\n")
        sandbox.wait_idle()
        sandbox.write_fifo(pipe, b"")
        sandbox.wait_idle()
    mark = len(sandbox.stdout())
    sandbox.write_fifo("/etc/client_table_pipe", "garbage line\n\n00-11-22-33-44-55 10.0.0.5 ath0\n00:11:22:33:44:5\n"
                       "00:1A:2B:3C:4D:5E 10.0.0.5 ath0\nno newline, kept")
    sandbox.wait_idle()
    assert sandbox.stdout()[mark:].count("event from client_pipe") == 1
    # The piece without newline is joined with the next write: 1049
    # characters, dropped whole (neither head nor tail is a line).
    sandbox.write_fifo("/etc/client_table_pipe", "x" * 1030 + "\n")
    sandbox.wait_idle()
    assert lines_of(sandbox, "no mac", mark) == [
        "no mac!!! ###garbage line###", "no mac!!! ######", "no mac!!! ###00-11-22-33-44-55 10.0.0.5 ath0###",
        "no mac!!! ###00:11:22:33:44:5###"]


@pytest.mark.parametrize("args", [["--help"], ["-v", "x"], [""]])
def test_any_argument_prints_usage_and_version_and_touches_nothing(sandbox, args):
    version = re.search(r"project\(clientmgr VERSION ([0-9.]+)",
                        (Path(__file__).parents[2] / "CMakeLists.txt").read_text()).group(1)
    for path in CLIENT_FILES:
        sandbox.write(path, "stale\n")
    # The recorders first on PATH: a start-up step would show in commands().
    result = sandbox.run_in_ns(["env", f"PATH={sandbox.root}/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                str(sandbox.daemon_path), *args], check=False)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith("usage: clientmgr\n") and f"clientmgr {version}:" in result.stderr
    assert sandbox.commands() == [] and sandbox.syslog() == []
    for path in PIPES:
        assert not sandbox.exists(path), path
    for path in CLIENT_FILES:
        assert sandbox.read(path) == "stale\n", path

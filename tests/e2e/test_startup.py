"""Start-up of the daemon and the robustness of its loop."""
import os
import stat

import pytest

PIPES = ("/etc/iwevent_pipe", "/etc/event_pipe", "/etc/client_table_pipe")
CLIENT_FILES = ("/etc/clientip", "/etc/clientip_assoc", "/etc/client_accu_stat")


def test_startup_restarts_iwevent_and_prepares_files(sandbox):
    for path in CLIENT_FILES:
        sandbox.write(path, "stale\n")
    sandbox.write("/etc/event_pipe", "a regular file in the way\n")
    sandbox.start()

    assert sandbox.commands() == ["killall iwevent", "killall -9 iwevent", "iwevent"]
    iwevent = sandbox.calls("iwevent")[0]
    assert (iwevent.stdout, iwevent.append) == ("/etc/iwevent_pipe", True)
    for path in PIPES:
        mode = os.stat(sandbox.host_path(path)).st_mode
        assert stat.S_ISFIFO(mode) and stat.S_IMODE(mode) == 0o777, path
    for path in CLIENT_FILES:
        assert not sandbox.exists(path), path


@pytest.mark.parametrize("config, expected", [
    ({}, ["== trap enable: 0", "== trap ip: ", "== trap port: 162", "== trap community: defcom"]),
    ({"SNMP_TRAP1_STATUS": "enable later", "SNMP_TRAP1_IPADDR": "127.0.0.1", "SNMP_TRAP1_PORT": "1162",
      "SNMP_TRAP1_NAME": "private"},
     ["== trap enable: 1", "== trap ip: 127.0.0.1", "== trap port: 1162", "== trap community: private"]),
])
def test_startup_prints_trap_settings(sandbox, config, expected):
    sandbox.write_config("/etc/masterconfig.apply", config)
    sandbox.start()
    assert [l for l in sandbox.stdout().splitlines() if l.startswith("== trap")] == expected


@pytest.mark.parametrize("pipe", PIPES)
def test_pipe_that_cannot_be_opened_ends_the_daemon(sandbox, pipe):
    os.mkdir(sandbox.host_path(pipe))
    sandbox.start(wait=False)
    assert sandbox.wait_exit() == 1
    assert "Cannot open pipe" in sandbox.stderr()


def test_client_lines_without_mac_are_reported_and_skipped(sandbox):
    sandbox.start()
    sandbox.write_fifo("/etc/client_table_pipe",
                       "garbage line\n"
                       "00-11-22-33-44-55 10.0.0.5 ath0\n"
                       "00:11:22:33:44:5\n"
                       "00:1A:2B:3C:4D:5E 10.0.0.5 ath0\n"
                       "no newline, dropped")
    sandbox.wait_idle()
    assert sandbox.stdout().count("event from client_pipe") == 1
    assert [l for l in sandbox.stdout().splitlines() if l.startswith("no mac")] == [
        "no mac!!! ###garbage line###",
        "no mac!!! ###00-11-22-33-44-55 10.0.0.5 ath0###",
        "no mac!!! ###00:11:22:33:44:5###",
    ]


def test_link_removal_is_reported(sandbox):
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.add_interface("ath1", "02:11:22:33:44:01")
    sandbox.start()
    sandbox.run_in_ns(["ip", "link", "del", "ath1"])
    sandbox.wait_for_stdout("^dellink$")
    sandbox.wait_idle()


def test_pipes_survive_junk_empty_writes_and_cut_lines(sandbox):
    sandbox.start()
    junk = bytes(range(256)) * 8
    for pipe in PIPES:
        sandbox.write_fifo(pipe, junk)
        sandbox.wait_idle()
        sandbox.write_fifo(pipe, b"")
        sandbox.wait_idle()
    # 1031 bytes: the first read takes 1023 without a newline (dropped),
    # the next one sees the last seven characters as a line of their own
    sandbox.write_fifo("/etc/client_table_pipe", "x" * 1030 + "\n")
    sandbox.wait_idle()
    assert sandbox.stdout().splitlines()[-1] == "no mac!!! ###xxxxxxx###"
    assert "x" * 8 not in sandbox.stdout()

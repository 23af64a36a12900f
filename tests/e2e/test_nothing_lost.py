"""Nothing a user relies on is lost: lines written in pieces or cut by a
read, a full /etc for a while, the client files' modes, the departure from a
VAP that is gone, rates changed after a reload, a client line without its
interface."""
import errno
import os

import pytest

from helpers_clients import STAMP, STATION, client_list, iwevent, macs, new_records, send, two_vaps

CLIENT_PIPE = "/etc/client_table_pipe"
CLIENT_FILES = ("/etc/clientip", "/etc/clientip_assoc", "/etc/client_accu_stat")
LEFT = "00:11:22:33:44:55"


def client(i):
    return f"02:00:00:00:00:{i:02x} 10.0.0.{i + 1} ath0"


@pytest.mark.parametrize("pipe, line", [
    ("/etc/client_table_pipe", f"{STATION} 10.0.0.5 ath0"),
    ("/etc/iwevent_pipe", f"{STAMP} ath0     Registered node:{STATION}"),
    ("/etc/event_pipe", f"bus ath0 Halcyon.Netfilter.ARP {STATION} [10.0.0.5]")])
def test_a_line_written_in_two_writes_arrives_whole(sandbox, pipe, line):
    sandbox.start()
    cut = line.index(STATION) + 8
    for piece in (line[:cut], line[cut:] + "\n"):
        sandbox.write_fifo(pipe, piece)
        sandbox.wait_idle()  # the daemon has read the first piece alone
    assert [r[0] for r in new_records(sandbox)] == [STATION]


def fill(sandbox, path):
    """Writes to path until the file system is full."""
    with open(sandbox.host_path(path), "wb", buffering=0) as f:
        try:
            while True:
                f.write(b"\0" * 4096)
        except OSError as e:
            assert e.errno == errno.ENOSPC


@pytest.mark.parametrize("sandbox", [{"etc_size": "1m"}], indirect=True)
def test_full_etc_then_freed_the_next_line_rewrites_and_expires_again(sandbox):
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered", LEFT)
    sandbox.advance_time(1)
    iwevent(sandbox, "ath0", "Expired", LEFT)
    send(sandbox, client(0), pipe=CLIENT_PIPE)
    assert macs(sandbox) == [LEFT, client(0)[:17]]
    assert [os.stat(sandbox.host_path(p)).st_mode & 0o7777 for p in CLIENT_FILES] == [0o600] * 3
    before = {p: sandbox.read(p) for p in CLIENT_FILES}

    # /etc full for 30 lines: every rewrite fails and the old files stay.
    fill(sandbox, "/etc/filler")
    for i in range(1, 31):
        send(sandbox, client(i), pipe=CLIENT_PIPE)
    assert {p: sandbox.read(p) for p in CLIENT_FILES} == before

    # Freed: the next line lands with all of them, and the station that left
    # more than 1800 s ago expires (1801 moved seconds: the real ones the test
    # took may not cross a second boundary).
    os.unlink(sandbox.host_path("/etc/filler"))
    sandbox.advance_time(1801)
    send(sandbox, client(31), pipe=CLIENT_PIPE)
    assert macs(sandbox) == [client(i)[:17] for i in range(32)]
    assert f"expired, clear_record(0) ath0:{LEFT}" in sandbox.stdout()
    assert [os.stat(sandbox.host_path(p)).st_mode & 0o7777 for p in CLIENT_FILES] == [0o600] * 3


def test_departure_from_a_deleted_vap_is_reported_with_an_empty_bssid(sandbox):
    two_vaps(sandbox, {"WLAN2_SSID": "lab"})
    sandbox.start()
    iwevent(sandbox, "ath1", "Registered")
    sandbox.run_in_ns(["ip", "link", "del", "ath1"])
    sandbox.advance_time(181)
    iwevent(sandbox, "ath1", "Expired")
    calls = sandbox.calls("tavo_client")
    assert [c.argv[1:4] for c in calls] == [["-E", "21", "001122334455 021122334401 [6C6162]"],
                                             ["-E", "22", "001122334455  [6C6162]"]]
    assert abs(int(calls[1].argv[4]) - sandbox.now()) <= 2


def test_rate_change_after_a_reload_runs_the_commands_it_ran_before(sandbox):
    two_vaps(sandbox, {"WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
                       "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"})
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")

    def change(up, down):
        start = len(sandbox.commands())
        send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw {up} {down}")
        return sandbox.commands()[start:]

    before = change(256, 2048)
    change(512, 1024)
    sandbox.write("/tmp/last_applyconf_uptime", "100\n")
    sandbox.poke()
    assert "== trap ip: " in sandbox.stdout().split("Changing bandwidth")[-1]  # reloaded
    assert change(256, 2048) == before
    assert "tc class add dev wifi0 parent 2:1fe0 classid 2:30 htb rate 2kbit ceil 2048kbit burst 15k" in before


def test_client_line_without_interface_takes_the_first_empty_interface_entry(sandbox):
    sandbox.set_lan_interfaces(["ath0", "ath1"])
    sandbox.start()
    send(sandbox, f"{STATION} 10.0.0.5", pipe=CLIENT_PIPE)
    assert [row[:3] for row in client_list(sandbox)] == [("ath2", STATION, "10.0.0.5")]

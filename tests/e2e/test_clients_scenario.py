"""A station's life in the client table, end to end: association, addresses
and portal routes, rate and VLAN changes, roaming between two VAPs, its
traffic report, leaving and expiry; then a full table and its readers."""
import threading

import pytest

from helpers_clients import (STATION, client_list, iwevent, lines_of, macs, new_records, parse_client_list, send,
                             two_vaps)


class Recorder:
    """What the stubs recorded since the last look."""

    def __init__(self, sandbox):
        self.sandbox, self.seen = sandbox, len(sandbox.calls())

    def new(self):
        calls = self.sandbox.calls()
        fresh, self.seen = calls[self.seen:], len(calls)
        return [c.text for c in fresh]


@pytest.mark.target
def test_station_lifecycle_across_two_vaps(sandbox):
    two_vaps(sandbox, config={"AP_MODE": "bridge", "WLAN1_VLANID": "10", "WLAN2_VLANID": "20", "WLAN2_PORTAL": "enable",
                              "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
                              "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"})
    sandbox.write("/etc/masterconfig.applied", "")  # start-up applies the VLAN settings
    sandbox.set_uptime(5000)
    sandbox.start()
    rec = Recorder(sandbox)

    # Association on ath0: the driver's upper-case MAC is lowered everywhere.
    iwevent(sandbox, "ath0", "Registered", STATION.upper())
    assert new_records(sandbox) == [(STATION, 0, 1)]
    up = client_list(sandbox)[0][3]
    line = f"ath0:{STATION} 0.0.0.0 {up} 0 1 0 {up}\n"
    assert 4999 <= up <= sandbox.uptime() + 1 and sandbox.read("/etc/clientip") == sandbox.read("/etc/clientip_assoc") == line
    assert [(r.priority, r.message) for r in sandbox.syslog()] == [
        (6, f"__TOVELLOG__Client {STATION} associated to SSID Office")]
    shaping = [c for c in rec.new() if not c.startswith("tavo_client")]
    assert any("ceil 512kbit" in c for c in shaping) and any("ceil 1024kbit" in c for c in shaping)

    # Addresses on a VAP without portal: the old route goes, none is added.
    send(sandbox, f"{STATION} 10.0.0.5 ath0", pipe="/etc/client_table_pipe")
    assert rec.new() == ["ip ro del 0.0.0.0 dev br10 table rt_portal"]
    send(sandbox, f"12:00:01 ath0 Halcyon.Netfilter.ARP {STATION} [10.0.0.6]")
    assert rec.new() == ["ip ro del 10.0.0.5 dev br10 table rt_portal"]
    assert sandbox.read("/etc/clientip") == f"ath0:{STATION} 10.0.0.6 {up} 0 1 0 {up}\n"

    # New rates: every rule of the old ones is withdrawn, then the new ones
    # applied; the same rates again change nothing; -1 -1 restores the
    # configured ones.
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw 256 2048")
    changed = rec.new()
    first_add = next(i for i, c in enumerate(changed) if " add " in c or " -A " in c or "init_per_client" in c)
    assert sorted(changed[:first_add]) == sorted(c.replace(" add ", " del ").replace(" -A ", " -D ")
                                                 for c in shaping if "init_per_client" not in c)
    assert changed[first_add:] == [c.replace("ceil 512kbit", "ceil 256kbit").replace("ceil 1024kbit", "ceil 2048kbit")
                                   for c in shaping]
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw 256 2048")
    assert rec.new() == []
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw -1 -1")
    assert rec.new()[first_add:] == shaping
    assert lines_of(sandbox, "Changing bandwidth") == [
        f"Changing bandwidth {way} rate for {STATION} from {old} to {new}"
        for way, old, new in (("up", 512, 256), ("down", 1024, 2048), ("up", 256, 512), ("down", 2048, 1024))]

    # A station VLAN in bridge mode: the rule store and the broute inserts
    # (run in the background, so in either order).
    send(sandbox, f"[STA_VLAN] ath0 {STATION} vlan 30")
    rules = sandbox.read(f"/tmp/ebt_ctm/{STATION}").splitlines()
    assert rules == [f"-p ! 0x888e -i ath0 -s {STATION} -j svlan --setvlan 30 --setvlan-target ACCEPT",
                     f"-p ! 0x888e -i eth1 -d {STATION} -j svlan --setvlan 10 --setvlan-target DROP"]
    assert sorted(rec.new()) == sorted("/sbin/ebtables -t broute -I BROUTING " + r.replace("!", "'!'") for r in rules)

    # Roaming to ath1 before the driver reports the leave from ath0: only the
    # new VAP's record is current.
    sandbox.advance_time(2)
    iwevent(sandbox, "ath1", "Registered")
    up1 = client_list(sandbox)[1][3]
    roamed = f"ath1:{STATION} 0.0.0.0 {up1} 0 1 0 {up1}\n"
    assert up1 >= up and sandbox.read("/etc/clientip") == f"ath0:{STATION} 10.0.0.6 {up} 0 1 0 {up}\n" + roamed
    assert sandbox.read("/etc/clientip_assoc") == roamed
    assert sandbox.syslog()[-1].message == f"__TOVELLOG__Client {STATION} associated to SSID Guest"
    assert [c.split()[0] for c in rec.new()] == ["tavo_client"]  # no rates configured on WLAN 2

    # Addresses on the portal VAP: the old route is deleted before the new one
    # is added; the same address again changes nothing.
    for ip in ("10.0.1.7", "10.0.1.8", "10.0.1.8"):
        send(sandbox, f"{STATION} {ip} ath1", pipe="/etc/client_table_pipe")
    assert rec.new() == ["ip ro del 0.0.0.0 dev br20 table rt_portal", "ip ro add 10.0.1.7 dev br20 table rt_portal",
                         "ip ro del 10.0.1.7 dev br20 table rt_portal", "ip ro add 10.0.1.8 dev br20 table rt_portal"]

    # Leaving ath1 100 s later: route and VLAN rules withdrawn, no longer associated.
    sandbox.advance_time(100)
    before = sandbox.uptime()
    iwevent(sandbox, "ath1", "Expired")
    left = rec.new()
    assert left[0] == "ip ro del 10.0.1.8 dev br20 table rt_portal"
    assert sorted(left[1:]) == sorted("/sbin/ebtables -t broute -D BROUTING " + r.replace("!", "'!'") for r in rules)
    assert not sandbox.exists(f"/tmp/ebt_ctm/{STATION}")
    gone = client_list(sandbox)[1]
    down = gone[4]
    # (slow runs, under emulation say, let real seconds pass in between)
    assert gone == ("ath1", STATION, "0.0.0.0", up1, down, 1, 1, up1) and down - up1 >= 99
    assert before - 1 <= down <= sandbox.uptime() + 1
    assert sandbox.read("/etc/clientip_assoc") == ""
    assert sandbox.syslog()[-1].message == f"__TOVELLOG__Client {STATION} disassociated from SSID Guest"

    # Its traffic reports add up (64-bit byte counters), TX before RX, and
    # touch neither routes nor shaping.
    send(sandbox, f"12:00:02 ath1 Halcyon.Stats.NodeLeave {STATION} [RX:100bytes,2pkts TX:300bytes,4pkts]",
         f"12:00:03 ath1 Halcyon.Stats.NodeLeave {STATION} [RX:1bytes,1pkts TX:5000000000bytes,6pkts]")
    assert sandbox.read("/etc/client_accu_stat") == (f"ath0:{STATION} 0 0 0 0 0 0 0 0 0\n"
                                                     f"ath1:{STATION} 5000000300 101 10 3 0 0 0 0 0\n")
    assert rec.new() == []

    # Expiry (more than 1800 s after leaving: ClientTableTest) at a refresh;
    # the record that never left stays, and the freed slot is taken again.
    sandbox.set_uptime(down + 1700)
    send(sandbox, "[REFRESH_CLIENT_FILE]")
    assert lines_of(sandbox, "check_expired") == [] and len(client_list(sandbox)) == 2
    sandbox.set_uptime(down + 1900)
    send(sandbox, "[REFRESH_CLIENT_FILE]")
    assert lines_of(sandbox, "check_expired") == [f"check_expired: expired, clear_record(1) ath1:{STATION}"]
    assert sandbox.read("/etc/clientip") == f"ath0:{STATION} 10.0.0.6 {up} 0 1 0 {up}\n"
    assert sandbox.read("/etc/client_accu_stat") == f"ath0:{STATION} 0 0 0 0 0 0 0 0 0\n" and rec.new() == []
    iwevent(sandbox, "ath1", "Registered", "00:11:22:33:44:66")
    assert new_records(sandbox)[-1] == ("00:11:22:33:44:66", 1, 2)


def client_line(i):
    return f"02:00:00:00:{i >> 8:02x}:{i & 255:02x} 10.1.{i >> 8}.{i & 255} ath0"


def test_full_table_evicts_the_oldest_record_and_readers_see_whole_files(sandbox):
    two_vaps(sandbox, config={"WLAN1_VLANID": "10"})
    sandbox.start()
    add = lambda *numbers: send(sandbox, *map(client_line, numbers), pipe="/etc/client_table_pipe")

    # A reader polls /etc/clientip while the table fills up.
    seen, problems, done = [], [], threading.Event()

    def reader():
        path = sandbox.host_path("/etc/clientip")
        while not done.is_set():
            try:
                seen.append(len(parse_client_list(path.read_text())))
            except FileNotFoundError:
                pass
            except AssertionError as e:
                problems.append(str(e))

    thread = threading.Thread(target=reader)
    thread.start()
    try:
        # Station 0, then 1 a second later, then the rest: station 1 is the
        # only record of the oldest second once station 0 is refreshed.
        add(0)
        sandbox.advance_time(1)
        add(1)
        sandbox.advance_time(1)
        for first in range(2, 256, 28):  # 28 lines fit one 1023-byte read
            add(*range(first, min(first + 28, 256)))
    finally:
        done.set()
        thread.join()
    assert problems == [] and len(seen) > 10 and seen == sorted(seen) and seen[-1] == 256
    assert macs(sandbox) == [client_line(i).split()[0] for i in range(256)] and sandbox.commands("ip") == []

    sandbox.advance_time(5)
    add(0)  # same address: only its stamp
    sandbox.advance_time(1)
    add(256)
    assert new_records(sandbox)[-1] == ("02:00:00:00:01:00", 1, 256)
    # The evicted station's route is released with it.
    assert sandbox.commands("ip") == ["ip ro del 10.1.0.1 dev br10 table rt_portal"]
    rows = client_list(sandbox)
    assert len(rows) == 256 and rows[1] == ("ath0", "02:00:00:00:01:00", "10.1.1.0", 0, 0, 0, 0, 0)
    assert "02:00:00:00:00:01" not in macs(sandbox)

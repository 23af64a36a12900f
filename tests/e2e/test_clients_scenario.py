"""A station's life in the client table, end to end: association, addresses
and portal routes, rate and VLAN changes, roaming between two VAPs, its
traffic report, leaving and expiry; then a full table and its readers."""
import threading

from helpers_clients import (STATION, Recorder, client_list, iwevent, lines_of, parse_client_list, send,
                             set_uptime_exactly, two_vaps)

WLAN1_RATES = {"WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
               "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"}


def swap_verb(command):
    return command.replace(" add ", " del ").replace(" -A ", " -D ")


def test_station_lifecycle_across_two_vaps(sandbox):
    two_vaps(sandbox, config={"AP_MODE": "bridge", "WLAN1_VLANID": "10", "WLAN2_VLANID": "20",
                              "WLAN2_PORTAL": "enable", **WLAN1_RATES})
    sandbox.write("/etc/masterconfig.applied", "")  # start-up applies the VLAN settings
    sandbox.set_uptime(5000)
    sandbox.start()
    rec = Recorder(sandbox)
    rec.new()

    # Association on ath0: the driver's upper-case MAC is lowered everywhere.
    iwevent(sandbox, "ath0", "Registered", STATION.upper())
    assert lines_of(sandbox, "new record") == [
        f"new record: {STATION}, index: 0, i: 0, interface: 0, client_table_cnt: 1 status:11"]
    [(_, _, _, up, *_)] = client_list(sandbox)
    assert abs(up - 5000) <= 2
    line = f"ath0:{STATION} 0.0.0.0 {up} 0 1 0 {up}\n"
    assert sandbox.read("/etc/clientip") == sandbox.read("/etc/clientip_assoc") == line
    assert sandbox.read("/etc/client_accu_stat") == f"ath0:{STATION} 0 0 0 0 0 0 0 0 0\n"
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

    # New rates: every rule of the old ones is withdrawn, then the new ones applied.
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw 256 2048")
    changed = rec.new()
    first_add = next(i for i, c in enumerate(changed) if " add " in c or " -A " in c or "init_per_client" in c)
    removed, applied = changed[:first_add], changed[first_add:]
    assert sorted(removed) == sorted(swap_verb(c) for c in shaping if "init_per_client" not in c)
    assert applied == [c.replace("ceil 512kbit", "ceil 256kbit").replace("ceil 1024kbit", "ceil 2048kbit")
                       for c in shaping]
    assert lines_of(sandbox, "Changing bandwidth") == [
        f"Changing bandwidth up rate for {STATION} from 512 to 256",
        f"Changing bandwidth down rate for {STATION} from 1024 to 2048"]
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw 256 2048")
    assert rec.new() == [] and len(lines_of(sandbox, "Changing bandwidth")) == 2
    # -1 -1: back to the configured rates.
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath0 {STATION} bw -1 -1")
    assert rec.new()[first_add:] == shaping
    assert lines_of(sandbox, "Changing bandwidth")[2:] == [
        f"Changing bandwidth up rate for {STATION} from 256 to 512",
        f"Changing bandwidth down rate for {STATION} from 2048 to 1024"]

    # A station VLAN in bridge mode: the rule store and the broute inserts
    # (run in the background, so in either order).
    send(sandbox, f"[STA_VLAN] ath0 {STATION} vlan 30")
    rules = sandbox.read(f"/tmp/ebt_ctm/{STATION}").splitlines()
    assert rules == [
        f"-p ! 0x888e -i ath0 -s {STATION} -j svlan --setvlan 30 --setvlan-target ACCEPT",
        f"-p ! 0x888e -i eth1 -d {STATION} -j svlan --setvlan 10 --setvlan-target DROP"]
    inserted = sorted(c.argv for c in sandbox.calls("ebtables") if "BROUTING" in c.argv)
    assert inserted == sorted(["/sbin/ebtables", "-t", "broute", "-I", "BROUTING", *r.split()] for r in rules)
    rec.new()

    # Roaming to ath1 before the driver reports the leave from ath0: only the
    # new VAP's record is current.
    sandbox.advance_time(2)
    iwevent(sandbox, "ath1", "Registered")
    (_, _, _, up0, *_), (_, _, _, up1, *_) = client_list(sandbox)
    assert up0 == up and up1 >= up
    roamed = f"ath1:{STATION} 0.0.0.0 {up1} 0 1 0 {up1}\n"
    assert sandbox.read("/etc/clientip") == f"ath0:{STATION} 10.0.0.6 {up} 0 1 0 {up}\n" + roamed
    assert sandbox.read("/etc/clientip_assoc") == roamed
    assert sandbox.syslog()[-1].message == f"__TOVELLOG__Client {STATION} associated to SSID Guest"
    assert [c.split()[0] for c in rec.new()] == ["tavo_client"]  # no rates configured on WLAN 2

    # Addresses on the portal VAP: the old route is deleted before the new one
    # is added; the same address again changes nothing.
    for ip in ("10.0.1.7", "10.0.1.8", "10.0.1.8"):
        send(sandbox, f"{STATION} {ip} ath1", pipe="/etc/client_table_pipe")
    assert rec.new() == ["ip ro del 0.0.0.0 dev br20 table rt_portal",
                         "ip ro add 10.0.1.7 dev br20 table rt_portal",
                         "ip ro del 10.0.1.7 dev br20 table rt_portal",
                         "ip ro add 10.0.1.8 dev br20 table rt_portal"]

    # Leaving ath1 100 s later: route and VLAN rules withdrawn, no longer associated.
    sandbox.advance_time(100)
    iwevent(sandbox, "ath1", "Expired")
    left = rec.new()
    assert left[0] == "ip ro del 10.0.1.8 dev br20 table rt_portal"
    assert sorted(left[1:]) == sorted("/sbin/ebtables -t broute -D BROUTING " + r.replace("!", "'!'")
                                      for r in rules)
    assert not sandbox.exists(f"/tmp/ebt_ctm/{STATION}")
    gone = client_list(sandbox)[1]
    down = gone[4]
    assert gone == ("ath1", STATION, "0.0.0.0", up1, down, 1, 1, up1) and 99 <= down - up1 <= 101
    assert sandbox.read("/etc/clientip_assoc") == ""
    assert sandbox.syslog()[-1].message == f"__TOVELLOG__Client {STATION} disassociated from SSID Guest"

    # Its traffic reports add up (64-bit byte counters), TX before RX, and
    # touch neither routes nor shaping.
    send(sandbox, f"12:00:02 ath1 Halcyon.Stats.NodeLeave {STATION} [RX:100bytes,2pkts TX:300bytes,4pkts]",
         f"12:00:03 ath1 Halcyon.Stats.NodeLeave {STATION} [RX:1bytes,1pkts TX:5000000000bytes,6pkts]")
    assert sandbox.read("/etc/client_accu_stat") == (f"ath0:{STATION} 0 0 0 0 0 0 0 0 0\n"
                                                     f"ath1:{STATION} 5000000300 101 10 3 0 0 0 0 0\n")
    assert rec.new() == []

    # Expiry: kept 1800 s after leaving, cleared at 1801; the record that
    # never left stays.
    set_uptime_exactly(sandbox, down + 1800)
    send(sandbox, "[REFRESH_CLIENT_FILE]")
    assert lines_of(sandbox, "check_expired") == [] and len(client_list(sandbox)) == 2
    set_uptime_exactly(sandbox, down + 1801)
    send(sandbox, "[REFRESH_CLIENT_FILE]")
    assert lines_of(sandbox, "check_expired") == [f"check_expired: expired, clear_record(1) ath1:{STATION}"]
    assert sandbox.read("/etc/clientip") == f"ath0:{STATION} 10.0.0.6 {up} 0 1 0 {up}\n"
    assert sandbox.read("/etc/client_accu_stat") == f"ath0:{STATION} 0 0 0 0 0 0 0 0 0\n"
    assert rec.new() == []


def station(i):
    return f"02:00:00:00:{i >> 8:02x}:{i & 255:02x}"


def client_line(i):
    return f"{station(i)} 10.1.{i >> 8}.{i & 255} ath0"


def test_full_table_evicts_the_oldest_record_and_readers_see_whole_files(sandbox):
    two_vaps(sandbox, config={"WLAN1_VLANID": "10"})
    sandbox.start()
    rec = Recorder(sandbox)
    rec.new()

    # A reader polls /etc/clientip while the table fills up.
    seen, problems, done = [], [], threading.Event()

    def reader():
        path = sandbox.host_path("/etc/clientip")
        while not done.is_set():
            try:
                text = path.read_text()
            except FileNotFoundError:
                continue
            try:
                seen.append(len(parse_client_list(text)))
            except AssertionError as e:
                problems.append(str(e))

    thread = threading.Thread(target=reader)
    thread.start()
    try:
        # Station 0, then 1 a second later, then the rest: station 1 is the
        # only record of the oldest second once station 0 is refreshed.
        send(sandbox, client_line(0), pipe="/etc/client_table_pipe")
        sandbox.advance_time(1)
        send(sandbox, client_line(1), pipe="/etc/client_table_pipe")
        sandbox.advance_time(1)
        for first in range(2, 256, 28):  # 28 lines fit one 1023-byte read
            send(sandbox, *map(client_line, range(first, min(first + 28, 256))), pipe="/etc/client_table_pipe")
    finally:
        done.set()
        thread.join()
    assert problems == []
    assert len(seen) > 10 and seen == sorted(seen) and seen[-1] == 256
    assert [r[1] for r in client_list(sandbox)] == [station(i) for i in range(256)]
    assert rec.new() == []

    sandbox.advance_time(5)
    send(sandbox, client_line(0), pipe="/etc/client_table_pipe")  # same address: only its stamp
    sandbox.advance_time(1)
    send(sandbox, client_line(256), pipe="/etc/client_table_pipe")
    assert lines_of(sandbox, "new record")[-1] == (
        f"new record: {station(256)}, index: 1, i: 256, interface: 0, client_table_cnt: 256 status:10")
    # The evicted station's route is released with it.
    assert rec.new() == ["ip ro del 10.1.0.1 dev br10 table rt_portal"]
    rows = client_list(sandbox)
    assert len(rows) == 256 and rows[1] == ("ath0", station(256), "10.1.1.0", 0, 0, 0, 0, 0)
    assert station(1) not in [r[1] for r in rows]

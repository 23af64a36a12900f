"""Notifier reports (minimum age and hold-off, client limits with hostile SSIDs) and
SNMP traps: the receiver from the configuration, and every trap that the
daemon raises received by a real snmptrapd."""
import os
import shutil
import time

import pytest

from helpers_clients import BSSID0, BSSID1, STATION, driver, iwevent, lines_of, two_vaps

OTHER = "00:11:22:33:44:66"
B0, B1 = BSSID0.replace(":", ""), BSSID1.replace(":", "")
# SSIDs as other programs may configure them, or neighbours broadcast them.
SPACED = "Cafe Bar"
HOSTILE = "$(touch /tmp/pwned) `id` 'q\" \\ and a tail beyond 33 characters"
AIR_SSID = "$(touch${IFS}/tmp/pwned)`id`'q\"z"      # no blanks: an event field is one word
PREFIX = ".1.3.6.1.4.1.9991.100.7.14.17"
PREFIX_QX417 = ".1.3.6.1.4.1.9991.100.7.16.17"


def hexed(text):
    return "".join(f"{ord(c):02X}" for c in text)


def reports(sandbox):
    """tavo_client runs as (event, message, time)."""
    return [(c.argv[2], c.argv[3], int(c.argv[4])) for c in sandbox.calls("tavo_client")]


def go_through(sandbox, *walls):
    """Moves the daemon's clock to each wall time in turn (maybe a second
    later) and runs its timed work; the number of reports at each."""
    counts = []
    for wall in walls:
        sandbox.advance_time(wall - sandbox.now())
        sandbox.poke()
        counts.append(len(reports(sandbox)))
    return counts


def around(t, first, last):
    """t lies between two readings of the daemon's clock, give or take the
    second that this machine's wall clock may step back between processes."""
    return first - 1 <= t <= last + 1


@pytest.mark.target
def test_held_reports_wait_for_min_age_and_holdoff(sandbox):
    """Roaming with a held report: NotifierQueue unit tests."""
    two_vaps(sandbox)
    sandbox.start()
    message = f"001122334455 {B0} [{hexed('Office')}]"
    now = sandbox.now()
    iwevent(sandbox, "ath0", "Registered")
    [(code, text, t0)] = reports(sandbox)
    assert (code, text) == ("21", message) and around(t0, now, sandbox.now())
    # It leaves and comes back 30 s after that report: held, the newest code
    # waits (the leave is never reported). 60 s after the report the minimum
    # age is reached, but the hold-off of the association report (190 s) is not over.
    sandbox.advance_time(10)
    iwevent(sandbox, "ath0", "Expired")
    sandbox.advance_time(20)
    back = sandbox.now()
    iwevent(sandbox, "ath0", "Registered")
    assert go_through(sandbox, t0 + 62, t0 + 187, t0 + 192) == [1, 1, 2]
    assert reports(sandbox)[1][:2] == ("21", message) and around(reports(sandbox)[1][2], back, back + 1)
    d0, d1 = t0 + 192, sandbox.now()  # when the daemon stamped that report: about d0, exactly d1

    # A leave 10 s after that delivery: its minimum age (180 s since the
    # report) comes before the end of the hold-off (190 s), and is not enough.
    sandbox.advance_time(10)
    gone = sandbox.now()
    iwevent(sandbox, "ath0", "Expired")
    assert go_through(sandbox, d1 + 182, d0 + 187, d1 + 192, d1 + 600) == [2, 2, 3, 3]
    assert reports(sandbox)[2][:2] == ("22", message) and around(reports(sandbox)[2][2], gone, gone + 1)


def test_client_limits_with_hostile_ssids(sandbox):
    two_vaps(sandbox, config={"WLAN1_SSID": SPACED, "WLAN2_SSID": HOSTILE, "WLAN1_CLIENT_LIMIT": "3",
                              "WLAN2_CLIENT_LIMIT": "5"})
    sandbox.write("/etc/ath1_client_limit", "-1\n")  # the file wins over the configuration
    sandbox.set_stations("ath0", 2)
    sandbox.start()

    # The configured limit of ath0 (3) is not reached with two stations.
    iwevent(sandbox, "ath0", "Registered", OTHER)
    assert sandbox.commands("logger") == []
    assert [r[:2] for r in reports(sandbox)] == [("21", f"001122334466 {B0} [{hexed(SPACED)}]")]

    # At the limit: the alert, and event 23 ahead of the association.
    sandbox.set_stations("ath0", 3)
    iwevent(sandbox, "ath0", "Registered")
    assert [c.argv for c in sandbox.calls("logger")] == [
        ["logger", "-t", "ALERT", f"[{SPACED}] reached maximum (3) no. of associated clients"]]
    cmd = lines_of(sandbox, "cmd: ")[-1]
    assert cmd.startswith("cmd: tavo_client  -E 23 ") and "&tavo_client  -E 21 " in cmd
    assert sorted(r[:2] for r in reports(sandbox)[1:]) == [
        ("21", f"001122334455 {B0} [{hexed(SPACED)}]"), ("23", f"3 {B0} [{hexed(SPACED)}]")]

    # A limit of -1 is always reached, even on a VAP the driver reports
    # empty; the 8-bit flag reads 255. The SSID reaches logger, tavo_client
    # and the system log as plain data.
    iwevent(sandbox, "ath1", "Registered")
    assert sandbox.calls("logger")[-1].argv == [
        "logger", "-t", "ALERT", f"[{HOSTILE}] reached maximum (-1) no. of associated clients"]
    assert sorted(r[:2] for r in reports(sandbox)[3:]) == [
        ("21", f"001122334455 {B1} [{hexed(HOSTILE)}]"), ("23", f"255 {B1} [{hexed(HOSTILE)}]")]
    assert not sandbox.exists("/tmp/pwned")


@pytest.mark.target
def test_trap_receiver_and_prefix_follow_the_configuration(sandbox):
    sandbox.write("/etc/hardware_qx417", "")
    sandbox.write("/proc/wifi0/neighbor_ap", "02:aa:bb:cc:dd:ee 1 2 3 4 5 6 7 8 9 10 [x]\n")
    sandbox.start()
    rogue = lambda: driver(sandbox, "wifi0    New Access Point/Cell address:02:AA:BB:CC:DD:EE")
    rogue()
    assert sandbox.calls("snmptrap") == []

    # A receiver appears: the changed file is read at the next event.
    sandbox.write_config("/etc/masterconfig.apply", {"SNMP_TRAP1_IPADDR": "127.0.0.2"})
    rogue()
    assert [c.argv[:10] for c in sandbox.calls("snmptrap")] == [[
        "/usr/sbin/snmptrap", "-v", "2c", "-c", "defcom", "127.0.0.2", "", PREFIX_QX417 + ".1.1",
        PREFIX_QX417 + ".1.2.1", "s"]]

    # It goes with the file: no more traps.
    os.unlink(sandbox.host_path("/etc/masterconfig.apply"))
    rogue()
    assert len(sandbox.calls("snmptrap")) == 1


def wait_for(what, check):
    deadline = time.monotonic() + 30
    while not check():
        assert time.monotonic() < deadline, what
        time.sleep(0.02)


def received(log, count):
    """The first count traps as (security info, trap OID, [(oid, type, value), ...]), strings unquoted."""
    wait_for(log.read_text(), lambda: log.read_text().count("TRAP ") >= count)
    traps = []
    for line in [l for l in log.read_text().splitlines() if l.startswith("TRAP ")]:
        security, *items = line[len("TRAP "):].split("\t")
        binds = []
        for oid, _, typed in (item.partition(" = ") for item in items):
            kind, _, value = typed.partition(": ")
            if kind == "STRING":
                value = value[1:-1].replace('\\"', '"').replace("\\\\", "\\")
            binds.append((oid, kind, value))
        assert binds[1][:2] == (".1.3.6.1.6.3.1.1.4.1.0", "OID")
        traps.append((security, binds[1][2], binds[2:]))
    return traps


def seen_at(now, seconds_ago):
    return {time.strftime("%H:%M %m-%d", time.localtime(t - seconds_ago)) for t in (now, now + 1)}


@pytest.mark.skipif(not shutil.which("snmptrapd") or not shutil.which("snmptrap"),
                    reason="net-snmp's snmptrap and snmptrapd are needed")
def test_every_trap_reaches_a_real_snmptrapd(sandbox):
    two_vaps(sandbox, config={"SNMP_TRAP1_IPADDR": "127.0.0.1", "SNMP_COMM1_NAME": "e2e", "R0_AP_CLIENT_LIMIT": "2"},
             status={"WIFI0_RADIO_CONF_PREFIX": "R0_", "WIFI0_ATH_LIST": "0 1", "WIFI0_RADIO_POLICY": "na"})
    rogue1, rogue2 = "02:AA:BB:CC:DD:01", "02:AA:BB:CC:DD:02"
    sandbox.write("/proc/wifi0/neighbor_ap", f"02:AA:BB:CC:DD:00 1 2 3 4 5 6 7 8 9 10 [Other]\n"
                  f"{rogue1.lower()} 11 12 13 14 15 6000 17 18 19 20 [{SPACED}]\n"
                  f"{rogue2} 21 22 23 24 25 100 27 28 29 30 [{HOSTILE}]\n")
    sandbox.use_real("/usr/sbin/snmptrap")
    # snmptrapd logs every trap as one line with numeric OIDs; net-snmp keeps
    # its state in the sandbox.
    sandbox.write("/tmp/snmptrapd.conf", "disableAuthorization yes\n")
    sandbox.write("/etc/snmp/snmp.conf", "mibs :\npersistentDir /tmp/snmp\nnoPersistentSave yes\n")
    sandbox.spawn_in_ns(["env", "SNMP_PERSISTENT_DIR=/tmp/snmp", "snmptrapd", "-f", "-C", "-c", "/tmp/snmptrapd.conf",
                         "-On", "-Lf", "/tmp/traps.log", "-F", "TRAP %P\t%v\n", "udp:127.0.0.1:162"])
    log = sandbox.host_path("/tmp/traps.log")
    wait_for("snmptrapd did not start", lambda: log.exists() and "NET-SNMP" in log.read_text())
    sandbox.set_stations("ath0", 1)
    sandbox.set_stations("ath1", 1)
    sandbox.start()

    now = sandbox.now()
    driver(sandbox, *(f"wifi0    New Access Point/Cell address:{r}" for r in (rogue1, rogue2)))
    iwevent(sandbox, "ath0", "Registered")  # two stations on the radio: its limit
    driver(sandbox, f"ath0     Custom: ACL-EVENT.discard sta={OTHER} bssid={BSSID0} ssid={AIR_SSID}",
           f"ath0     Custom driver event:BEACON-EVENT.stuck addr={BSSID1}")

    p = PREFIX
    traps = received(log, 5)
    assert [(t[0].split(", ")[1:], t[1]) for t in traps] == [
        (["SNMP v2c", "community e2e"], p + oid) for oid in (".1.1", ".1.1", ".2.1", ".3.1", ".4.1")]
    [r1, r2, m, a, b] = [t[2] for t in traps]
    assert r1[:8] == [(p + ".1.2.1", "STRING", rogue1), (p + ".1.2.2", "STRING", SPACED)] + [
        (p + f".1.2.{n}", "INTEGER", v) for n, v in zip(range(3, 9), ("18", "1", "11", "12", "14", "20"))]
    assert r1[8][:2] == (p + ".1.2.9", "STRING") and r1[8][2] in seen_at(now, 60) and len(r1) == 9
    # A neighbour's SSID goes out as its first 33 characters.
    assert r2[1] == (p + ".1.2.2", "STRING", HOSTILE[:33]) and r2[2] == (p + ".1.2.3", "INTEGER", "28")
    assert r2[8][2] in seen_at(now, 1)
    assert m == [(p + ".2.2.1", "STRING", STATION), (p + ".2.2.2", "INTEGER", "1")]
    # The SSID arrives under .3.2.2 like the BSSID.
    assert a == [(p + ".3.2.1", "STRING", OTHER), (p + ".3.2.2", "STRING", BSSID0),
                 (p + ".3.2.2", "STRING", AIR_SSID)]
    assert b == [(p + ".4.2.1", "STRING", BSSID1)]
    assert not sandbox.exists("/tmp/pwned")

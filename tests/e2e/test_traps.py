"""SNMP traps: the event configuration, the OID scheme and the senders'
command lines, recorded by the stub and received by a real snmptrapd."""
import re
import shutil
import time

import pytest

PREFIX = ".1.3.6.1.4.1.9991.100.7.14.17"
PREFIX_QX417 = ".1.3.6.1.4.1.9991.100.7.16.17"
ROGUE = "02:AA:BB:CC:DD:EE"
BSSID = "02:11:22:33:44:00"
STATION = "00:11:22:33:44:66"
# An SSID that a neighbour may well broadcast.
NASTY_SSID = "my $(touch /tmp/pwned) `touch /tmp/pwned2` 'x\" net"


def configure(sandbox, receiver="127.0.0.1", **extra):
    config = {"SNMP_COMM1_NAME": "public", "WLAN1_SSID": "Office", "R0_AP_CLIENT_LIMIT": "5"}
    if receiver:
        config["SNMP_TRAP1_IPADDR"] = receiver
    config.update(extra)
    sandbox.write_config("/etc/masterconfig.apply", config)
    sandbox.write_config("/var/run/wireless.status",
                         {"WIFI_COUNT": "1", "WIFI0_RADIO_CONF_PREFIX": "R0_", "WIFI0_RADIO_POLICY": "na",
                          "WIFI0_ATH_LIST": "0", "ATH0_RADIO": "0"})
    sandbox.write("/proc/wifi0/neighbor_ap", f"{ROGUE} 1 2 3 4 500 6 7 8 9 10 [{NASTY_SSID}]\n")


def event(sandbox, text, pipe="/etc/iwevent_pipe"):
    sandbox.write_fifo(pipe, f"12:00:00.000000   {text}\n")
    sandbox.wait_idle()


def rogue_ap(sandbox):
    event(sandbox, f"wifi0    New Access Point/Cell address:{ROGUE}")


def snmptrap_argv(sandbox):
    return [c.argv for c in sandbox.calls("snmptrap")]


def test_senders_command_lines(sandbox):
    configure(sandbox, SNMP_COMM1_NAME="")
    sandbox.start()

    rogue_ap(sandbox)
    event(sandbox, f"ath0     Custom driver event:BEACON-EVENT.stuck addr={BSSID}")
    event(sandbox, f"ath0     Custom: ACL-EVENT.discard sta={STATION} bssid={BSSID} ssid=Off$(id)")

    head = ["/usr/sbin/snmptrap", "-v", "2c", "-c", "defcom", "127.0.0.1", ""]
    rogue, beacon, acl = snmptrap_argv(sandbox)
    p = PREFIX
    assert rogue[:20] == head + [p + ".1.1", p + ".1.2.1", "s", ROGUE, p + ".1.2.2", "s",
                                 NASTY_SSID[:33], p + ".1.2.3", "i", "8", p + ".1.2.4", "i", "1"]
    assert rogue[20:-3] == [p + ".1.2.5", "i", "1", p + ".1.2.6", "i", "2", p + ".1.2.7", "i", "4",
                            p + ".1.2.8", "i", "10"]
    assert rogue[-3:-1] == [p + ".1.2.9", "s"] and re.fullmatch(r"\d\d:\d\d \d\d-\d\d", rogue[-1])
    assert beacon == head + [p + ".4.1", p + ".4.2.1", "s", BSSID]
    # The SSID goes out under .3.2.2 a second time.
    assert acl == head + [p + ".3.1", p + ".3.2.1", "s", STATION, p + ".3.2.2", "s", BSSID,
                          p + ".3.2.2", "s", "Off$(id)"]
    assert not sandbox.exists("/tmp/pwned") and not sandbox.exists("/tmp/pwned2")


def test_hardware_qx417_selects_the_other_prefix(sandbox):
    configure(sandbox)
    sandbox.write("/etc/hardware_qx417", "")
    sandbox.start()
    event(sandbox, f"ath0     Custom driver event:BEACON-EVENT.stuck addr={BSSID}")
    assert snmptrap_argv(sandbox)[0][7:9] == [PREFIX_QX417 + ".4.1", PREFIX_QX417 + ".4.2.1"]


def test_event_configuration_follows_the_master_configuration(sandbox):
    configure(sandbox, receiver="")
    sandbox.start()
    rogue_ap(sandbox)
    assert snmptrap_argv(sandbox) == []

    # A receiver appears: the changed file is read at the next check.
    configure(sandbox, receiver="127.0.0.2")
    rogue_ap(sandbox)
    assert [a[5] for a in snmptrap_argv(sandbox)] == ["127.0.0.2"]

    # The next change removes it again: no more traps. The stamp has whole
    # seconds, so the change must fall into a later second.
    second = int(time.time())
    while int(time.time()) == second:
        time.sleep(0.01)
    configure(sandbox, receiver="")
    rogue_ap(sandbox)
    assert len(snmptrap_argv(sandbox)) == 1


@pytest.mark.skipif(not shutil.which("snmptrapd") or not shutil.which("snmptrap"),
                    reason="net-snmp's snmptrap and snmptrapd are needed")
def test_traps_reach_a_real_snmptrapd(sandbox):
    configure(sandbox)
    sandbox.write("/etc/hardware_qx417", "")
    sandbox.write("/tmp/snmptrapd.conf", "disableAuthorization yes\n")
    # net-snmp keeps its state in the sandbox, not in the host's /var/lib/snmp.
    sandbox.write("/etc/snmp/snmp.conf", "mibs :\npersistentDir /tmp/snmp\nnoPersistentSave yes\n")
    sandbox.use_real("/usr/sbin/snmptrap")
    sandbox.spawn_in_ns(["env", "SNMP_PERSISTENT_DIR=/tmp/snmp", "snmptrapd", "-f", "-C",
                         "-c", "/tmp/snmptrapd.conf", "-On", "-Lf", "/tmp/traps.log",
                         "-F", "TRAP %v\n", "udp:127.0.0.1:162"])
    log = sandbox.host_path("/tmp/traps.log")
    deadline = time.monotonic() + 5
    while not (log.exists() and "NET-SNMP" in log.read_text()) and time.monotonic() < deadline:
        time.sleep(0.02)
    sandbox.start()

    rogue_ap(sandbox)
    event(sandbox, f"ath0     Custom: ACL-EVENT.discard sta={STATION} bssid={BSSID} ssid=Office")

    deadline = time.monotonic() + 5
    while log.read_text().count("TRAP ") < 2 and time.monotonic() < deadline:
        time.sleep(0.02)
    traps = [l for l in log.read_text().splitlines() if l.startswith("TRAP ")]
    assert len(traps) == 2, log.read_text()
    p = PREFIX_QX417
    assert f"OID: {p}.1.1" in traps[0]
    assert f'{p}.1.2.2 = STRING: "{NASTY_SSID[:33]}"' in traps[0]
    assert f"{p}.1.2.3 = INTEGER: 8" in traps[0]
    assert f"OID: {p}.3.1" in traps[1]
    assert f'{p}.3.2.1 = STRING: "{STATION}"' in traps[1]
    assert traps[1].count(f"{p}.3.2.2 = STRING:") == 2
    assert not sandbox.exists("/tmp/pwned") and not sandbox.exists("/tmp/pwned2")

"""Hostile values on their way into commands: a NUL byte inside an event
field, and configuration or status values that a tool would read as an
option. No recorded command carries them."""
import pytest

from helpers_clients import BSSID0, STATION, driver, iwevent, send, two_vaps

TRAPS = {"SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "5"}
PREFIX_STATUS = {"WIFI0_RADIO_CONF_PREFIX": "R0_"}
SHELL = "$(touch${IFS}/tmp/pwned)"


def acl_discard(sta, bssid, ssid):
    return f"ath0     Custom: ACL-EVENT.discard sta={sta} bssid={bssid} ssid={ssid}"


def test_nul_byte_ends_the_event_line(sandbox):
    two_vaps(sandbox, TRAPS, PREFIX_STATUS)
    sandbox.start()
    # Once the closing quote of a value was lost at the NUL, the next value's
    # $(...) ran as root. Now the line ends there: no BSSID, no trap.
    driver(sandbox, acl_discard(f"{STATION}\0'", SHELL, SHELL),
           acl_discard(STATION, f"{BSSID0}\0'", f"x{SHELL}"),
           acl_discard(STATION, BSSID0, f"Office\0' {SHELL}"),
           acl_discard(STATION, BSSID0, "Lobby"))
    assert not sandbox.exists("/tmp/pwned")
    # The lines after a NUL are read as usual; a value ends at its NUL.
    sent = [(c.argv[-7], c.argv[-4], c.argv[-1]) for c in sandbox.calls("snmptrap")]
    assert sent == [(STATION, BSSID0, "Office"), (STATION, BSSID0, "Lobby")]
    # A client-table line is cut at its NUL the same way.
    send(sandbox, f"{STATION}\0 10.0.0.9 ath0", pipe="/etc/client_table_pipe")
    assert not sandbox.exists("/tmp/pwned")


HOSTILE = ("-Lf/tmp/pwnlog", "-hostile", "-xhostile")


@pytest.mark.parametrize("config,status,wan", [
    # The trap receiver and community: the real snmptrap created a file with -Lf.
    ({"SNMP_TRAP1_IPADDR": "-Lf/tmp/pwnlog", "R0_AP_CLIENT_LIMIT": "5"}, PREFIX_STATUS, None),
    ({**TRAPS, "SNMP_COMM1_NAME": "-Lf/tmp/pwnlog"}, PREFIX_STATUS, None),
    # RADIUS hosts and secrets (the default servers; a WLAN's own ones go to
    # the same radclient command: MacAuthInit and MacAuthText unit tests).
    ({"AP_MODE": "bridge", "WLAN1_ACL_MODE": "3", "WLAN1_RADIUS": "disable", "RADIUS1_HOST": "-hostile",
      "RADIUS1_SECRET": "s", "RADIUS1_AUTHPORT": "1812", "RADIUS2_HOST": "127.0.0.1", "RADIUS2_SECRET": "-xhostile",
      "RADIUS2_AUTHPORT": "1812"}, {}, None),
    # Device names from the status files reach tc.
    ({"WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
      "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"}, {"WIFI0_DEV": "-xhostile"}, "-hostile"),
], ids=["receiver", "community", "radius", "devices"])
def test_option_looking_values_never_become_options(sandbox, config, status, wan):
    two_vaps(sandbox, config, status)
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2", **({"interface": wan} if wan else {})})
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered")
    driver(sandbox, acl_discard(STATION, BSSID0, "Office"))
    send(sandbox, f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {STATION}",
         # An ARP topic whose "MAC" is an option: no station query runs it.
         "bus ath-1 Halcyon.Netfilter.ARP -h:11:22:33:44:55 [10.0.0.9]")
    sandbox.wait_idle(timeout=20)
    assert not sandbox.exists("/tmp/pwnlog")
    assert [c.text for c in sandbox.calls() if any(v in a for a in c.argv for v in HOSTILE)] == []
    assert sandbox.calls("create_client_table") == []
    # A refused value refuses its command; what could be built still runs
    # (the station's mark rules).
    if "SNMP_TRAP1_IPADDR" in config:
        assert sandbox.calls("snmptrap") == []
    if "WLAN1_ACL_MODE" in config:
        assert sandbox.calls("radclient") == []
    if wan:
        assert sandbox.calls("tc") == [] and len(sandbox.calls("ebtables")) >= 2


def test_extreme_numbers_are_no_numbers(sandbox):
    """Overflowed before (the ASan+UBSan build aborted; 8 GB for WIFI_COUNT)."""
    two_vaps(sandbox, {"WLAN1_L2TP_PROFILE": "2147483647", "AP_L2TP2147483647_TUNNEL": "enable",
                       "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "99999999999"},
             {"WIFI_COUNT": "2000000000", "ATH1_WLANID": "-2147483648"})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.start()
    driver(sandbox, f"ath2147483647     Registered node:{STATION}")
    send(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath2147483647 {STATION} bw 2147483647 -2147483648",
         f"[STA_VLAN] ath-2147483648 {STATION} vlan 99999999999", "[REMOVE_VAP] 99999999999",
         "[L2TP_IF_UPDATE] bcp-2147483648 up", "[L2TP_IF_UPDATE] bcp2147483647 down",
         f"bus ath2147483648 Halcyon.Netfilter.ARP {STATION} [10.0.0.9]")
    iwevent(sandbox, "ath1", "Registered", "00:11:22:33:44:66")
    # Still serving; no tunnel device or overflowed number reached tc.
    assert not [c for c in sandbox.commands("tc") if "bcp" in c or "2147483" in c]

"""Configuration reload: the apply-uptime file reloads the master
configuration, a newer /etc/masterconfig.applied re-initialises the VLAN
pool and MAC authentication, and the loop polls fast in between."""
import os
import time

from helpers_clients import STATION, iwevent, lines_of, send

UPTIME_FILE = "/tmp/last_applyconf_uptime"
APPLIED = "/etc/masterconfig.applied"
T0 = 1_700_000_000  # mtimes given to the applied marker


def trap_settings(sandbox):
    """The "== trap" blocks printed so far, one tuple per load."""
    values = [l.split(":", 1)[1].strip() for l in lines_of(sandbox, "== trap")]
    return [tuple(values[i:i + 4]) for i in range(0, len(values), 4)]


def config(ip, port="162", name="defcom", status="enable", up="512", down="1024"):
    return {"SNMP_TRAP1_STATUS": status, "SNMP_TRAP1_IPADDR": ip, "SNMP_TRAP1_PORT": port, "SNMP_TRAP1_NAME": name,
            "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": up,
            "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": down}


def applied_at(sandbox, mtime):
    os.utime(sandbox.host_path(APPLIED), (mtime, mtime))


def forward_rules(sandbox):
    return [c.text for c in sandbox.calls("ebtables") if "FORWARD" in c.argv]


def test_apply_uptime_reloads_only_when_it_grows(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", config("10.0.0.1"))
    sandbox.start()
    ceilings = lambda: [c.argv[13] for c in sandbox.calls("tc") if c.argv[1:3] == ["class", "add"]]
    iwevent(sandbox, "ath0", "Registered")
    assert trap_settings(sandbox) == [("1", "10.0.0.1", "162", "defcom")]
    assert ceilings() == ["512kbit", "512kbit", "1024kbit"]

    # After the reload the station's rates come from the new configuration.
    sandbox.write_config("/etc/masterconfig.apply", config("10.0.0.2", "1162", "private", "disable", "256", "2048"))
    sandbox.write(UPTIME_FILE, "120\n")
    sandbox.poke()
    assert trap_settings(sandbox)[1:] == [("0", "10.0.0.2", "1162", "private")]
    iwevent(sandbox, "ath0", "Registered")
    assert ceilings()[3:] == ["256kbit", "256kbit", "2048kbit"]

    # Smaller, equal, unreadable or missing values change nothing.
    sandbox.write_config("/etc/masterconfig.apply", config("10.0.0.3"))
    for value in ("100\n", "120\n", "x130\n", ""):
        sandbox.write(UPTIME_FILE, value)
        sandbox.poke()
    os.unlink(sandbox.host_path(UPTIME_FILE))
    sandbox.poke()
    assert len(trap_settings(sandbox)) == 2

    # Only the leading number counts; the client-table pipe checks before it reads.
    sandbox.write(UPTIME_FILE, "121 seconds\n")
    send(sandbox, f"{STATION} 10.0.0.5 ath0", pipe="/etc/client_table_pipe")
    assert trap_settings(sandbox)[2:] == [("1", "10.0.0.3", "162", "defcom")]
    assert sandbox.stdout().rindex("== trap community") < sandbox.stdout().index("event from client_pipe")

    # A configuration that cannot be read reloads as an empty one.
    os.unlink(sandbox.host_path("/etc/masterconfig.apply"))
    sandbox.write(UPTIME_FILE, "200\n")
    sandbox.poke()
    assert trap_settings(sandbox)[3:] == [("0", "", "162", "defcom")]


def wakeups(sandbox):
    """The daemon's voluntary context switches: one per wake from select."""
    with open(f"/proc/{sandbox.pid}/status") as f:
        return next(int(l.split()[1]) for l in f if l.startswith("voluntary_ctxt_switches"))


def next_wakeup(sandbox, timeout):
    """Waits for the idle daemon's next wake; returns its (monotonic) time."""
    before, deadline = wakeups(sandbox), time.monotonic() + timeout
    while wakeups(sandbox) == before:
        assert time.monotonic() < deadline, f"no wake-up within {timeout} s"
        time.sleep(0.01)
    return time.monotonic()


def test_applied_marker_reinitialises_vlan_pool_and_mac_auth_fast_poll_slow(sandbox):
    """Needs real seconds (about 7): the 2-second select time-out between a
    reload and the applied marker cannot be moved by the shim clock."""
    settings = {"AP_MODE": "bridge", "WLAN1_SSID": "Office", "WLAN1_VLANID": "10", "WLAN1_VLANPOOL": "enable",
                "WLAN1_VLANPOOL_LIST": "100"}
    sandbox.write_config("/etc/masterconfig.apply", settings)
    sandbox.write_config("/var/run/wireless.status", {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0"})
    sandbox.write(APPLIED, "")
    applied_at(sandbox, T0)
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.stub_output("radclient", "Received response ID 1, code 2, length = 20\n")
    sandbox.start()
    first = forward_rules(sandbox)  # their text: test_shaping_kernel
    assert len(first) == 2 and all("-o eth1.10 " in r for r in first)
    pool_rules = lambda: [c for c in sandbox.calls("ebtables") if "BROUTING" in c.argv]
    ask = lambda: send(sandbox, f"w ath0 Halcyon.Wlan.Controller.Mgmt.auth {STATION}")

    # Reloaded with another WLAN VLAN and MAC authentication, not yet
    # applied; then a marker older than (or as old as) the one acted on:
    # neither the pool nor MAC auth changes, and new stations get no pool VLAN.
    settings.update({"WLAN1_VLANID": "20", "WLAN1_ACL_MODE": "3", "WLAN1_RADIUS": "disable",
                     "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret", "RADIUS1_AUTHPORT": "1812"})
    sandbox.write_config("/etc/masterconfig.apply", settings)
    sandbox.write(UPTIME_FILE, "300\n")
    for mtime in (T0, T0 - 100):
        applied_at(sandbox, mtime)
        sandbox.poke()
        ask()
    iwevent(sandbox, "ath0", "Registered", "00:11:22:33:44:01")
    assert forward_rules(sandbox) == first and sandbox.commands("radclient") == [] and pool_rules() == []

    # Meanwhile the loop wakes every 2 s by itself (the first wait may be
    # shorter) and sees a newer marker without any input.
    start = next_wakeup(sandbox, 3.2)
    applied_at(sandbox, T0 + 100)
    assert 1.8 <= next_wakeup(sandbox, 2.5) - start <= 2.3
    sandbox.wait_idle()
    assert forward_rules(sandbox)[2:] == [r.replace("eth1.10", "eth1.20") for r in first]
    ask()
    assert sandbox.commands("radclient") == ["radclient -x -r 1 127.0.0.1:1812 auth s3cret -f /tmp/radc-001122334455-0"]
    assert sandbox.commands("iwpriv") == [f"iwpriv ath0 oem_priv wr:authresp={STATION},0"]
    iwevent(sandbox, "ath0", "Registered", "00:11:22:33:44:02")
    assert len(pool_rules()) == 2

    # Applied: back to the long wait, where a newer marker waits for the next pass.
    applied_at(sandbox, T0 + 200)
    before = wakeups(sandbox)
    time.sleep(2.2)
    assert wakeups(sandbox) == before and len(forward_rules(sandbox)) == 4
    sandbox.poke()
    assert len(forward_rules(sandbox)) == 6

    # The radio's own ACL mode overrides the WLAN's; the radio's key prefix
    # is the first 7 characters of its status value ("RADIO0_" of "RADIO0_CONF").
    sandbox.write_config("/var/run/wireless.status", {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0",
                                                      "WIFI0_RADIO_CONF_PREFIX": "RADIO0_CONF"})
    settings.update({"RADIO0_AP_ACL_MODE": "1", "RADIO0_CONFAP_ACL_MODE": "3"})
    sandbox.write_config("/etc/masterconfig.apply", settings)
    sandbox.write(UPTIME_FILE, "400\n")
    applied_at(sandbox, T0 + 300)
    sandbox.poke()
    ask()
    assert len(sandbox.commands("radclient")) == 1 and len(sandbox.commands("iwpriv")) == 1

"""Configuration reload: the apply-uptime file reloads the master
configuration, a newer /etc/masterconfig.applied re-initialises the VLAN
pool and MAC authentication, and the loop polls fast in between."""
import os
import time

UPTIME_FILE = "/tmp/last_applyconf_uptime"
APPLIED = "/etc/masterconfig.applied"
STATION = "00:11:22:33:44:55"
T0 = 1_700_000_000  # mtimes given to the applied marker


def trap_settings(sandbox):
    """The "== trap" blocks printed so far, one tuple per load."""
    lines = [l for l in sandbox.stdout().splitlines() if l.startswith("== trap")]
    assert len(lines) % 4 == 0, lines
    return [tuple(l.split(": ", 1)[1] if ": " in l else "" for l in lines[i:i + 4]) for i in range(0, len(lines), 4)]


def snmp_config(ip, port="162", name="defcom", status="enable"):
    return {"SNMP_TRAP1_STATUS": status, "SNMP_TRAP1_IPADDR": ip, "SNMP_TRAP1_PORT": port, "SNMP_TRAP1_NAME": name}


def applied_at(sandbox, mtime):
    os.utime(sandbox.host_path(APPLIED), (mtime, mtime))


def forward_rules(sandbox):
    return [" ".join(c.argv) for c in sandbox.calls("ebtables") if "FORWARD" in c.argv]


def test_apply_uptime_reloads_only_when_it_grows(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", snmp_config("10.0.0.1"))
    sandbox.start()
    assert trap_settings(sandbox) == [("1", "10.0.0.1", "162", "defcom")]

    sandbox.write_config("/etc/masterconfig.apply", snmp_config("10.0.0.2", "1162", "private", "disable"))
    sandbox.write(UPTIME_FILE, "120\n")
    sandbox.poke()
    assert trap_settings(sandbox)[1:] == [("0", "10.0.0.2", "1162", "private")]

    # Smaller, equal, unreadable or missing values change nothing.
    sandbox.write_config("/etc/masterconfig.apply", snmp_config("10.0.0.3"))
    for value in ("100\n", "120\n", "x130\n", "", None):
        if value is None:
            os.unlink(sandbox.host_path(UPTIME_FILE))
        else:
            sandbox.write(UPTIME_FILE, value)
        sandbox.poke()
    assert len(trap_settings(sandbox)) == 2

    # Only the leading number counts; the client-table pipe checks before it reads.
    sandbox.write(UPTIME_FILE, "121 seconds\n")
    sandbox.write_fifo("/etc/client_table_pipe", f"{STATION} 10.0.0.5 ath0\n")
    sandbox.wait_idle()
    assert trap_settings(sandbox)[2:] == [("1", "10.0.0.3", "162", "defcom")]
    out = sandbox.stdout()
    assert out.rindex("== trap community") < out.index("event from client_pipe")

    # A configuration that cannot be read reloads as an empty one.
    os.unlink(sandbox.host_path("/etc/masterconfig.apply"))
    sandbox.write(UPTIME_FILE, "200\n")
    sandbox.write_fifo("/etc/iwevent_pipe", f"t ath0 Registered node:{STATION}\n")
    sandbox.wait_idle()
    sandbox.poke()
    assert trap_settings(sandbox)[3:] == [("0", "", "162", "defcom")]
    sandbox.write_fifo("/etc/iwevent_pipe", f"t ath0 Expired node:{STATION}\n")
    sandbox.wait_idle()
    assert [r.message for r in sandbox.syslog()][-1] == f"__TOVELLOG__Client {STATION} disassociated from SSID "


def test_reload_rebuilds_client_shaping_from_the_new_rates(sandbox):
    rates = lambda up, down: {"WLAN1_SSID": "Office", "WLAN1_BANDWIDTH_CONTROL": "enable",
                              "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": up, "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": down}
    ceilings = lambda: [c.argv[13] for c in sandbox.calls("tc") if c.argv[1:3] == ["class", "add"]]
    sandbox.write_config("/etc/masterconfig.apply", rates("512", "1024"))
    sandbox.start()
    register = lambda: (sandbox.write_fifo("/etc/iwevent_pipe", f"t ath0 Registered node:{STATION}\n"),
                        sandbox.wait_idle())
    register()
    assert ceilings() == ["512kbit", "512kbit", "1024kbit"]

    # New rates in the file alone: a new association keeps the old ones.
    sandbox.write_config("/etc/masterconfig.apply", rates("256", "2048"))
    register()
    assert ceilings()[3:] == ["512kbit", "512kbit", "1024kbit"]
    # After the reload the station's rates come from the new configuration.
    sandbox.write(UPTIME_FILE, "50\n")
    sandbox.poke()
    register()
    assert ceilings()[6:] == ["256kbit", "256kbit", "2048kbit"]


def test_applied_marker_reinitialises_vlan_pool_and_mac_auth(sandbox):
    config = {"AP_MODE": "bridge", "WLAN1_SSID": "Office", "WLAN1_VLANID": "10",
              "WLAN1_VLANPOOL": "enable", "WLAN1_VLANPOOL_LIST": "100-103"}
    sandbox.write_config("/etc/masterconfig.apply", config)
    sandbox.write_config("/var/run/wireless.status", {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0"})
    sandbox.write(APPLIED, "")
    applied_at(sandbox, T0)
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.stub_output("radclient", "Received response ID 1, code 2, length = 20\n")
    sandbox.start()
    first = ["/sbin/ebtables -t filter -D FORWARD -p ! 802_1Q -i ath0 -o eth1.10 -j DROP",
             "/sbin/ebtables -t filter -I FORWARD -p ! 802_1Q -i ath0 -o eth1.10 -j DROP"]
    assert forward_rules(sandbox) == first

    # The new configuration: another WLAN VLAN and MAC authentication.
    config.update({"WLAN1_VLANID": "20", "WLAN1_ACL_MODE": "3", "WLAN1_RADIUS": "disable",
                   "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret", "RADIUS1_AUTHPORT": "1812"})
    sandbox.write_config("/etc/masterconfig.apply", config)
    sandbox.write(UPTIME_FILE, "300\n")
    sandbox.poke()
    ask = lambda: (sandbox.write_fifo("/etc/event_pipe", f"w ath0 Halcyon.Wlan.Controller.Mgmt.auth {STATION}\n"),
                   sandbox.wait_idle())
    # Reloaded, not yet applied: neither the pool nor MAC auth has changed.
    ask()
    assert forward_rules(sandbox) == first and sandbox.commands("radclient") == []

    # A marker older than (or as old as) the one acted on does nothing.
    for mtime in (T0 - 100, T0):
        applied_at(sandbox, mtime)
        sandbox.poke()
    ask()
    assert forward_rules(sandbox) == first and sandbox.commands("radclient") == []

    applied_at(sandbox, T0 + 100)
    sandbox.poke()
    assert forward_rules(sandbox)[2:] == [r.replace("eth1.10", "eth1.20") for r in first]
    ask()
    assert sandbox.commands("radclient") == ["radclient -x -r 1 127.0.0.1:1812 auth s3cret -f /tmp/radc-001122334455-0"]
    assert sandbox.commands("iwpriv") == [f"iwpriv ath0 oem_priv wr:authresp={STATION},0"]


def voluntary_switches(pid):
    with open(f"/proc/{pid}/status") as f:
        return next(int(l.split()[1]) for l in f if l.startswith("voluntary_ctxt_switches"))


def wakeups_during(sandbox, seconds):
    """How often the idle daemon woke up (each wake ends a sleep in select)."""
    before = voluntary_switches(sandbox.pid)
    time.sleep(seconds)
    return voluntary_switches(sandbox.pid) - before


def next_wakeup(sandbox, timeout):
    """Waits for the idle daemon's next wake; returns its (monotonic) time."""
    before = voluntary_switches(sandbox.pid)
    deadline = time.monotonic() + timeout
    while voluntary_switches(sandbox.pid) == before:
        assert time.monotonic() < deadline, f"no wake-up within {timeout} s"
        time.sleep(0.01)
    return time.monotonic()


def test_fast_poll_until_applied_slow(sandbox):
    """Needs real seconds (about 9): the 2-second select time-out between a
    reload and the applied marker cannot be moved by the shim clock."""
    sandbox.write_config("/etc/masterconfig.apply", {"AP_MODE": "bridge", "WLAN1_VLANPOOL": "enable",
                                                     "WLAN1_VLANPOOL_LIST": "100"})
    sandbox.write_config("/var/run/wireless.status", {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0"})
    sandbox.write(APPLIED, "")
    applied_at(sandbox, T0)
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.start()
    assert len(forward_rules(sandbox)) == 2
    pool_rules = lambda: [c for c in sandbox.calls("ebtables") if "BROUTING" in c.argv]

    # Steady: a newer marker waits for the next pass (30 s away).
    applied_at(sandbox, T0 + 1)
    assert wakeups_during(sandbox, 2.2) == 0
    sandbox.poke()
    assert len(forward_rules(sandbox)) == 4

    # Reloaded: the loop wakes every 2 s by itself (the first wait also
    # keeps the microseconds that the interrupted one left) ...
    sandbox.write(UPTIME_FILE, "10\n")
    sandbox.poke()
    # (Meanwhile new stations get no pool VLAN.)
    sandbox.write_fifo("/etc/iwevent_pipe", "t ath0 Registered node:00:11:22:33:44:01\n")
    sandbox.wait_idle()
    assert pool_rules() == []
    first = next_wakeup(sandbox, 3.2)
    assert 1.8 <= next_wakeup(sandbox, 2.5) - first <= 2.3
    # ... and sees the applied marker without any input.
    applied_at(sandbox, T0 + 2)
    next_wakeup(sandbox, 2.3)
    sandbox.wait_idle()
    assert len(forward_rules(sandbox)) == 6
    # Applied: pool VLANs again, and back to the long wait.
    sandbox.write_fifo("/etc/iwevent_pipe", "t ath0 Registered node:00:11:22:33:44:02\n")
    sandbox.wait_idle()
    assert len(pool_rules()) == 2
    assert wakeups_during(sandbox, 1) == 0

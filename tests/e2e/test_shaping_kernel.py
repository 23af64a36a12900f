"""Per-client shaping and pool VLAN rules against the real kernel.

The daemon runs with recorder stubs; the tc classes and ebtables rules it
ran are then replayed with the real tools inside the sandbox's network
namespace, so the kernel (an HTB hierarchy made the way the bandwidth init
script makes it, and the ebtables filter table) must accept them. SFQ
queues and fw filters are not available in this kernel, and nf_tables
ebtables has no broute table: those are checked as recorded text only.
"""
import shutil

import pytest

STATION = "00:11:22:33:44:55"
BSSID = "02:11:22:33:44:00"
# The real tool under the sandbox's /usr/sbin, where the stub takes its name.
REAL_EBTABLES = "/usr/sbin/.host/ebtables"

pytestmark = pytest.mark.skipif(not shutil.which("tc") or not shutil.which("ebtables"),
                                reason="tc (iproute2) and ebtables are needed")


def iwevent(sandbox, word):
    sandbox.write_fifo("/etc/iwevent_pipe", f"12:00:00.000000   ath0     {word} node:{STATION}\n")
    sandbox.wait_idle()


def configure(sandbox, **extra):
    config = {"AP_MODE": "bridge", "WLAN1_SSID": "Office",
              "WLAN1_BANDWIDTH_CONTROL": "enable",
              "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
              "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"}
    config.update(extra)
    sandbox.write_config("/etc/masterconfig.apply", config)
    sandbox.write_config("/var/run/wireless.status",
                         {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0", "ATH0_WLANID": "1",
                          "ATH0_RADIO": "0", "WIFI0_DEV": "wifi0"})
    sandbox.add_interface("ath0", BSSID)


def make_htb_roots(sandbox):
    """What the init script sets up: a root HTB on the radio (major 2) and on
    the WAN device (major 1), each with the WLAN's parent class 0x1fe0."""
    for dev, major in (("wifi0", 2), ("eth1", 1)):
        sandbox.run_in_ns(["ip", "link", "add", dev, "type", "veth", "peer", "name", dev + "p"])
        sandbox.run_in_ns(["ip", "link", "set", dev, "up"])
        sandbox.run_in_ns(["tc", "qdisc", "add", "dev", dev, "root", "handle", f"{major}:", "htb"])
        sandbox.run_in_ns(["tc", "class", "add", "dev", dev, "parent", f"{major}:",
                           "classid", f"{major}:1fe0", "htb", "rate", "100mbit"])


def replay(sandbox, calls, tool):
    for call in calls:
        result = sandbox.run_in_ns([tool, *call.argv[1:]], check=False)
        assert result.returncode == 0, f"{call.text}: {result.stderr}"


def classes(sandbox, dev):
    return sandbox.run_in_ns(["tc", "class", "show", "dev", dev]).stdout


def test_station_classes_enter_and_leave_a_real_htb_tree(sandbox):
    configure(sandbox)
    make_htb_roots(sandbox)
    sandbox.start()

    iwevent(sandbox, "Registered")
    assert sandbox.commands("bandwidth_mgnt") == [
        "/etc/rc.d/init.d/bandwidth_mgnt init_per_client wifi0 0 1 1"]
    tc = sandbox.calls("tc")
    assert [c.text for c in tc if c.argv[1] != "class"] == [
        "tc qdisc add dev eth1 parent 1:20 handle 0x2020: sfq perturb 10",
        "tc qdisc add dev wifi0 parent 2:20 handle 0x4020: sfq perturb 10",
        "tc qdisc add dev wifi0 parent 2:30 handle 0x4030: sfq perturb 10",
        "tc filter add dev eth1 prio 0x20 protocol all parent 1:0 handle 0x20 fw flowid 1:20",
        "tc filter add dev wifi0 prio 0x20 protocol all parent 2:0 handle 0x20 fw flowid 2:20",
        "tc filter add dev wifi0 prio 0x30 protocol all parent 2:0 handle 0x30 fw flowid 2:30",
    ]
    added = [c for c in tc if c.argv[1] == "class"]
    assert len(added) == 3
    replay(sandbox, added, "tc")
    assert "class htb 1:20 parent 1:1fe0 prio 0 rate 2Kbit ceil 512Kbit" in classes(sandbox, "eth1")
    radio = classes(sandbox, "wifi0")
    assert "class htb 2:20 parent 2:1fe0 prio 0 rate 2Kbit ceil 512Kbit" in radio
    assert "class htb 2:30 parent 2:1fe0 prio 0 rate 2Kbit ceil 1024Kbit" in radio

    iwevent(sandbox, "Expired")
    tc = sandbox.calls("tc")[len(tc):]
    assert [c.argv[1] for c in tc] == ["filter"] * 3 + ["qdisc"] * 3 + ["class"] * 3
    replay(sandbox, [c for c in tc if c.argv[1] == "class"], "tc")
    assert ":20 " not in classes(sandbox, "eth1")
    radio = classes(sandbox, "wifi0")
    assert ":20 " not in radio and ":30 " not in radio


def test_mark_rules_are_accepted_by_the_filter_table(sandbox):
    configure(sandbox)
    sandbox.write("/etc/wlan/bandwidth_mgnt/per_client_set_0", "")
    for chain in ("ATH0_BANDWIDTH_UP", "ATH0_BANDWIDTH_DOWN"):
        sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-N", chain])
    sandbox.start()

    iwevent(sandbox, "Registered")
    assert sandbox.commands("bandwidth_mgnt") == []
    marks = [c for c in sandbox.calls("ebtables") if "mark" in c.argv]
    assert [c.text for c in marks] == [
        f"/sbin/ebtables -A ATH0_BANDWIDTH_UP -s {STATION} -j mark --set-mark 0x20 --mark-target CONTINUE",
        f"/sbin/ebtables -A ATH0_BANDWIDTH_DOWN -d {STATION} -j mark --set-mark 0x30 --mark-target CONTINUE",
    ]
    replay(sandbox, marks, REAL_EBTABLES)
    listing = sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-L"]).stdout
    assert f"-s {STATION} -j mark --mark-set 0x20 --mark-target CONTINUE" in listing
    assert f"-d {STATION} -j mark --mark-set 0x30 --mark-target CONTINUE" in listing

    iwevent(sandbox, "Expired")
    removed = [c for c in sandbox.calls("ebtables") if "mark" in c.argv][len(marks):]
    assert [c.argv[1] for c in removed] == ["-D", "-D"]
    replay(sandbox, removed, REAL_EBTABLES)
    listing = sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-L"]).stdout
    assert STATION not in listing


def test_pool_forward_rules_and_station_rule_store(sandbox):
    configure(sandbox, WLAN1_VLANID="10", WLAN1_VLANPOOL="enable",
              WLAN1_VLANPOOL_LIST="100-103", WLAN1_CLIENT_BANDWIDTH_UPSTREAM="0",
              WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM="0")
    sandbox.write("/etc/ebt_mod_ok", "")
    # The applied marker makes start-up apply the VLAN settings.
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.start()

    forward = [c for c in sandbox.calls("ebtables") if "FORWARD" in c.argv]
    assert [c.text for c in forward] == [
        "/sbin/ebtables -t filter -D FORWARD -p '!' 802_1Q -i ath0 -o eth1.10 -j DROP",
        "/sbin/ebtables -t filter -I FORWARD -p '!' 802_1Q -i ath0 -o eth1.10 -j DROP",
    ]
    replay(sandbox, forward[1:], REAL_EBTABLES)
    listing = sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-L", "FORWARD"]).stdout
    assert "-p ! 802_1Q -i ath0 -o eth1.10 -j DROP" in listing
    replay(sandbox, forward[:1], REAL_EBTABLES)
    listing = sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-L", "FORWARD"]).stdout
    assert "ath0" not in listing

    # The digits of the last three octets (33:44:55) sum to 12 * 16 + 12 = 204:
    # index 204 % 4 = 0, VLAN 100.
    before = len(sandbox.calls("ebtables"))
    iwevent(sandbox, "Registered")
    upstream = f"-p ! 0x888e -i ath0 -s {STATION} -j svlan --setvlan 100 --setvlan-target ACCEPT"
    downstream = f"-p ! 0x888e -i eth1 -d {STATION} -j svlan --setvlan 10 --setvlan-target DROP"
    assert sandbox.read(f"/tmp/ebt_ctm/{STATION}") == upstream + "\n" + downstream + "\n"
    # Both inserts run in the background: their order is not fixed.
    inserted = sorted(c.argv[1:] for c in sandbox.calls("ebtables")[before:])
    assert inserted == sorted(["-t", "broute", "-I", "BROUTING", *rule.split()]
                              for rule in (upstream, downstream))

    before = len(sandbox.calls("ebtables"))
    iwevent(sandbox, "Expired")
    assert not sandbox.exists(f"/tmp/ebt_ctm/{STATION}")
    deleted = sorted(c.argv[1:] for c in sandbox.calls("ebtables")[before:])
    assert deleted == sorted(["-t", "broute", "-D", "BROUTING", *rule.split()]
                             for rule in (upstream, downstream))

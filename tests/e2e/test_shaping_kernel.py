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

from helpers_clients import STATION, iwevent, two_vaps

# The real tool under the sandbox's /usr/sbin, where the stub takes its name.
REAL_EBTABLES = "/usr/sbin/.host/ebtables"
RATES = {"AP_MODE": "bridge", "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
         "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"}

pytestmark = pytest.mark.skipif(not shutil.which("tc") or not shutil.which("ebtables"),
                                reason="tc (iproute2) and ebtables are needed")


def replay(sandbox, calls, tool):
    for call in calls:
        result = sandbox.run_in_ns([tool, *call.argv[1:]], check=False)
        assert result.returncode == 0, f"{call.text}: {result.stderr}"


def show(sandbox, *argv):
    return sandbox.run_in_ns(list(argv)).stdout


def test_station_classes_and_mark_rules_enter_and_leave_the_kernel(sandbox):
    two_vaps(sandbox, config=RATES)
    # What the init script sets up: a root HTB on the radio (major 2) and on
    # the WAN device (major 1), each with the WLAN's parent class 0x1fe0; the
    # mark chains in the filter table.
    for dev, major in (("wifi0", 2), ("eth1", 1)):
        sandbox.run_in_ns(["ip", "link", "add", dev, "type", "veth", "peer", "name", dev + "p"])
        sandbox.run_in_ns(["ip", "link", "set", dev, "up"])
        sandbox.run_in_ns(["tc", "qdisc", "add", "dev", dev, "root", "handle", f"{major}:", "htb"])
        sandbox.run_in_ns(["tc", "class", "add", "dev", dev, "parent", f"{major}:", "classid", f"{major}:1fe0",
                           "htb", "rate", "100mbit"])
    for chain in ("ATH0_BANDWIDTH_UP", "ATH0_BANDWIDTH_DOWN"):
        sandbox.run_in_ns([REAL_EBTABLES, "-t", "filter", "-N", chain])
    sandbox.start()

    iwevent(sandbox, "ath0", "Registered")
    assert sandbox.commands("bandwidth_mgnt") == ["/etc/rc.d/init.d/bandwidth_mgnt init_per_client wifi0 0 1 1"]
    tc = sandbox.calls("tc")
    assert [c.text for c in tc if c.argv[1] != "class"] == [
        "tc qdisc add dev eth1 parent 1:20 handle 0x2020: sfq perturb 10",
        "tc qdisc add dev wifi0 parent 2:20 handle 0x4020: sfq perturb 10",
        "tc qdisc add dev wifi0 parent 2:30 handle 0x4030: sfq perturb 10",
        "tc filter add dev eth1 prio 0x20 protocol all parent 1:0 handle 0x20 fw flowid 1:20",
        "tc filter add dev wifi0 prio 0x20 protocol all parent 2:0 handle 0x20 fw flowid 2:20",
        "tc filter add dev wifi0 prio 0x30 protocol all parent 2:0 handle 0x30 fw flowid 2:30"]
    replay(sandbox, [c for c in tc if c.argv[1] == "class"], "tc")
    wan, radio = (show(sandbox, "tc", "class", "show", "dev", dev) for dev in ("eth1", "wifi0"))
    assert "class htb 1:20 parent 1:1fe0 prio 0 rate 2Kbit ceil 512Kbit" in wan
    assert "class htb 2:20 parent 2:1fe0 prio 0 rate 2Kbit ceil 512Kbit" in radio and (
        "class htb 2:30 parent 2:1fe0 prio 0 rate 2Kbit ceil 1024Kbit" in radio)
    marks = [c for c in sandbox.calls("ebtables") if "mark" in c.argv]
    assert [c.text for c in marks] == [
        f"/sbin/ebtables -A ATH0_BANDWIDTH_UP -s {STATION} -j mark --set-mark 0x20 --mark-target CONTINUE",
        f"/sbin/ebtables -A ATH0_BANDWIDTH_DOWN -d {STATION} -j mark --set-mark 0x30 --mark-target CONTINUE"]
    replay(sandbox, marks, REAL_EBTABLES)
    listing = show(sandbox, REAL_EBTABLES, "-t", "filter", "-L")
    assert f"-s {STATION} -j mark --mark-set 0x20 --mark-target CONTINUE" in listing
    assert f"-d {STATION} -j mark --mark-set 0x30 --mark-target CONTINUE" in listing

    iwevent(sandbox, "ath0", "Expired")
    tc = sandbox.calls("tc")[len(tc):]
    assert [c.argv[1] for c in tc] == ["filter"] * 3 + ["qdisc"] * 3 + ["class"] * 3
    replay(sandbox, tc[6:], "tc")
    wan, radio = (show(sandbox, "tc", "class", "show", "dev", dev) for dev in ("eth1", "wifi0"))
    assert ":20 " not in wan and ":20 " not in radio and ":30 " not in radio
    removed = [c for c in sandbox.calls("ebtables") if "mark" in c.argv][2:]
    assert [c.argv[1] for c in removed] == ["-D", "-D"]
    replay(sandbox, removed, REAL_EBTABLES)
    assert STATION not in show(sandbox, REAL_EBTABLES, "-t", "filter", "-L")

    # Once the init script has made the radio's per-client tree, it is not run again.
    sandbox.write("/etc/wlan/bandwidth_mgnt/per_client_set_0", "")
    iwevent(sandbox, "ath0", "Registered")
    assert len(sandbox.commands("bandwidth_mgnt")) == 1


def test_pool_forward_rules_and_pool_vlan(sandbox):
    two_vaps(sandbox, config={"AP_MODE": "bridge", "WLAN1_VLANID": "10", "WLAN1_VLANPOOL": "enable",
                              "WLAN1_VLANPOOL_LIST": "100-103"})
    sandbox.write("/etc/ebt_mod_ok", "")
    sandbox.write("/etc/masterconfig.applied", "")  # start-up applies the VLAN settings
    sandbox.start()

    forward = [c for c in sandbox.calls("ebtables") if "FORWARD" in c.argv]
    assert [c.text for c in forward] == [
        "/sbin/ebtables -t filter -D FORWARD -p '!' 802_1Q -i ath0 -o eth1.10 -j DROP",
        "/sbin/ebtables -t filter -I FORWARD -p '!' 802_1Q -i ath0 -o eth1.10 -j DROP"]
    replay(sandbox, forward[1:], REAL_EBTABLES)
    assert "-p ! 802_1Q -i ath0 -o eth1.10 -j DROP" in show(sandbox, REAL_EBTABLES, "-t", "filter", "-L", "FORWARD")
    replay(sandbox, forward[:1], REAL_EBTABLES)
    assert "ath0" not in show(sandbox, REAL_EBTABLES, "-t", "filter", "-L", "FORWARD")

    # The digits of the last three octets (33:44:55) sum to 12 * 16 + 12 = 204:
    # index 204 % 4 = 0, VLAN 100.
    iwevent(sandbox, "ath0", "Registered")
    assert sandbox.read(f"/tmp/ebt_ctm/{STATION}") == (
        f"-p ! 0x888e -i ath0 -s {STATION} -j svlan --setvlan 100 --setvlan-target ACCEPT\n"
        f"-p ! 0x888e -i eth1 -d {STATION} -j svlan --setvlan 10 --setvlan-target DROP\n")

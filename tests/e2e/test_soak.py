"""Soak: the whole daemon for ten minutes under a steady mix of every input,
watching its memory and descriptors. Runs only with --long.

CLIENTMGR_SOAK_SECONDS shortens the run (for trying the test itself)."""
import os
import random
import shutil
import time

import pytest

from helpers_clients import BSSID0, STAMP, two_vaps

pytestmark = pytest.mark.long

DURATION = int(os.environ.get("CLIENTMGR_SOAK_SECONDS", "600"))
WARM_UP = min(60, DURATION // 3)
SAMPLE_EVERY = 10
# More stations than the table's 256 slots, so that records are evicted too.
STATIONS = [f"00:5e:00:00:{i >> 8:02x}:{i & 255:02x}" for i in range(320)]
ROGUE, T0 = "02:AA:BB:CC:DD:EE", 1_700_000_000
ACCEPT = ("Received response ID 1, code 2, length = 44\n"
          "Tunnel-Type:0 = VLAN\nTunnel-Medium-Type:0 = IEEE-802\nTunnel-Private-Group-Id:0 = \"12\"\n")
REJECT = "Received response ID 1, code 3, length = 20\n"


def configuration(variant):
    """Two configurations that the reloads alternate between."""
    return {"AP_MODE": "bridge", "AP_NAME": "soak", "SNMP_TRAP1_STATUS": "enable", "SNMP_TRAP1_IPADDR": "127.0.0.1",
            "R0_AP_CLIENT_LIMIT": "200", "ACL_CACHE_PERIOD": "20", "WLAN1_SSID": "Office", "WLAN2_SSID": "Guest",
            "WLAN1_VLANID": str(10 + variant), "WLAN1_PORTAL": "enable", "WLAN1_VLANPOOL": "enable",
            "WLAN1_VLANPOOL_LIST": "100-103,200", "WLAN1_ACL_MODE": "3", "WLAN1_DYNAMIC_VLAN": "optional",
            "WLAN1_RADIUS": "disable", "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret",
            "RADIUS1_AUTHPORT": "1812", "WLAN2_L2TP_PROFILE": "2", "AP_L2TP2_TUNNEL": "enable",
            "WLAN2_BANDWIDTH_CONTROL": "enable", "WLAN2_CLIENT_BANDWIDTH_UPSTREAM": str(512 * (variant + 1)),
            "WLAN2_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"}


def usage(pid):
    """(VmRSS in KiB, open descriptors) of the daemon."""
    with open(f"/proc/{pid}/status") as f:
        return next(int(l.split()[1]) for l in f if l.startswith("VmRSS:")), len(os.listdir(f"/proc/{pid}/fd"))


def batch(sb, rng, k):
    """Batch k: lines on every pipe (the rarer kinds every so many batches), with reloads and clock
    jumps along the way. Associations walk through all stations, each of them in 64 batches."""
    n, pick = rng.randint, rng.choice
    station, ath = lambda: pick(STATIONS), lambda: f"ath{n(0, 1)}"
    iw = [f"{STAMP}   {line}" for every, line in (
        *((1, f"{ath()}     Registered node:{STATIONS[(5 * k + i) % len(STATIONS)]}") for i in range(5)),
        (1, f"{ath()}     Expired node:{station()}"),
        (20, f"wifi0    New Access Point/Cell address:{ROGUE}"),
        (25, f"ath0     Custom: ACL-EVENT.discard sta={station()} bssid={BSSID0} ssid=Office"),
        (30, f"ath0     Custom driver event:BEACON-EVENT.stuck addr={BSSID0}")) if k % every == 0]
    ev = [line for every, line in (
        (1, f"bus {ath()} Halcyon.Netfilter.ARP {station()} [10.0.{n(0, 255)}.{n(1, 254)}]"),
        (1, f"[BANDWIDTH_RATE_UPDATE] ath1 {station().upper()} bw {pick([-1, 0, 64, 512])} {pick([-1, 128, 2048])}"),
        (1, f"[STA_VLAN] ath0 {station()} vlan {n(0, 4100)}"),
        (1, f"bus {ath()} Halcyon.Stats.NodeLeave {station()} [RX:{n(0, 10**9)}bytes,9pkts TX:{n(0, 10**9)}bytes,5pkts]"),
        (3, f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {station()}"),
        (10, "[REFRESH_CLIENT_FILE]"),
        (40, f"[L2TP_IF_UPDATE] bcp52 {pick(['up', 'down'])}"),
        (45, "x" * 1500 + " Registered node:" + station()),  # too long: dropped whole
        (50, f"[REMOVE_VAP] {n(0, 1)}")) if k % every == 0]
    table = [f"{station()} 10.2.{n(0, 255)}.{n(1, 254)} {ath()}"]
    if k % 100 == 50:
        sb.stub_output("radclient", pick([ACCEPT, REJECT, ""]))
    if k % 60 == 0:  # a reload, applied 5 batches later
        sb.write_config("/etc/masterconfig.apply", configuration(k // 60 % 2))
        sb.write("/tmp/last_applyconf_uptime", f"{100 + k}\n")
    if k % 60 == 5:
        os.utime(sb.host_path("/etc/masterconfig.applied"), (T0 + k, T0 + k))
    for pipe, lines in (("/etc/iwevent_pipe", iw), ("/etc/event_pipe", ev), ("/etc/client_table_pipe", table)):
        sb.write_fifo(pipe, "".join(l + "\n" for l in lines))
    if k % 8 == 7:  # hold-offs run out, stations expire; one more pass for the timed work
        sb.advance_time(pick([5, 61, 200, 1900]))
        sb.write_fifo("/etc/event_pipe", "\n")
    sb.wait_idle(timeout=60)  # a command storm ([REMOVE_VAP], [L2TP_IF_UPDATE]) takes seconds


def test_soak_whole_daemon(sandbox, capsys):
    sb = sandbox
    two_vaps(sb, configuration(0), {"WIFI0_RADIO_CONF_PREFIX": "R0_", "WIFI0_RADIO_POLICY": "na"})
    sb.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
    sb.write("/etc/masterconfig.applied", "")
    os.utime(sb.host_path("/etc/masterconfig.applied"), (T0, T0))
    sb.write("/etc/ath1_client_limit", "40\n")
    sb.write("/etc/wlan/bandwidth_mgnt/per_client_set_1", "")
    sb.write("/proc/wifi0/neighbor_ap", f"{ROGUE.lower()} 6 -50 0 1 2 300 0 11 0 9 [Neighbour]\n")
    sb.set_stations("ath0", 30)
    sb.set_stations("ath1", 45)
    sb.stub_output("radclient", ACCEPT)
    # The kernel tools fail quickly on the sandbox's network; stubs would
    # spend most of the run starting Python.
    for tool in ("tc", "ip", "ebtables", "/sbin/ebtables"):
        if shutil.which(os.path.basename(tool)):
            sb.use_real(tool)
    sb.start()

    rng, k, samples = random.Random(20240601), 0, []  # samples: (seconds, VmRSS KiB, descriptors)
    start = time.monotonic()
    while (elapsed := time.monotonic() - start) < DURATION:
        if elapsed >= len(samples) * SAMPLE_EVERY:
            samples.append((round(elapsed), *usage(sb.pid)))
        batch(sb, rng, k)
        k += 1
    samples.append((round(elapsed), *usage(sb.pid)))
    with capsys.disabled():
        print(f"\nsoak: {k} batches in {DURATION} s; (s, VmRSS KiB, descriptors): {samples}")

    # Still alive and answering.
    mark = len(sb.stdout())
    sb.write_fifo("/etc/iwevent_pipe", f"{STAMP}   ath0     Registered node:00:5e:00:00:ff:ff\n")
    sb.wait_idle(timeout=30)
    assert "new record: 00:5e:00:00:ff:ff" in sb.stdout()[mark:] and "00:5e:00:00:ff:ff" in sb.read("/etc/clientip")

    later = samples[next(i for i, x in enumerate(samples) if x[0] >= WARM_UP):]
    limit = later[0][1] + max(later[0][1] // 10, 512)
    assert max(x[1] for x in later) <= limit, f"VmRSS grew beyond {limit} KiB after the warm-up"
    assert {x[2] for x in later} == {later[0][2]}, "open descriptors changed after the warm-up"
    assert 5 * k >= len(STATIONS), "not every station associated"

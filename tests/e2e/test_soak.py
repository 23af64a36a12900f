"""Soak: the whole daemon for ten minutes under a steady mix of every input,
watching its memory and descriptors. Runs only with --long.

CLIENTMGR_SOAK_SECONDS shortens the run (for trying the test itself)."""
import os
import random
import shutil
import time

import pytest

pytestmark = pytest.mark.long

DURATION = int(os.environ.get("CLIENTMGR_SOAK_SECONDS", "600"))
WARM_UP = min(60, DURATION // 3)
SAMPLE_EVERY = 10
# More stations than the table's 256 slots, so that records are evicted too.
STATIONS = [f"00:5e:00:00:{i >> 8:02x}:{i & 255:02x}" for i in range(320)]
ROGUE = "02:aa:bb:cc:dd:ee"
ACCEPT = ("Received response ID 1, code 2, length = 44\n"
          "Tunnel-Type:0 = VLAN\nTunnel-Medium-Type:0 = IEEE-802\nTunnel-Private-Group-Id:0 = \"12\"\n")
REJECT = "Received response ID 1, code 3, length = 20\n"


def configuration(variant):
    """Two configurations that the reloads alternate between."""
    return {
        "AP_MODE": "bridge", "AP_NAME": "soak", "SNMP_TRAP1_STATUS": "enable", "SNMP_TRAP1_IPADDR": "127.0.0.1",
        "R0_AP_CLIENT_LIMIT": "200", "ACL_CACHE_PERIOD": "20",
        "WLAN1_SSID": "Office", "WLAN1_VLANID": str(10 + variant), "WLAN1_PORTAL": "enable",
        "WLAN1_VLANPOOL": "enable", "WLAN1_VLANPOOL_LIST": "100-103,200",
        "WLAN1_ACL_MODE": "3", "WLAN1_DYNAMIC_VLAN": "optional", "WLAN1_RADIUS": "disable",
        "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret", "RADIUS1_AUTHPORT": "1812",
        "WLAN2_SSID": "Guest", "WLAN2_L2TP_PROFILE": "2", "AP_L2TP2_TUNNEL": "enable",
        "WLAN2_BANDWIDTH_CONTROL": "enable", "WLAN2_CLIENT_BANDWIDTH_UPSTREAM": str(512 * (variant + 1)),
        "WLAN2_CLIENT_BANDWIDTH_DOWNSTREAM": "1024",
    }


def daemon_usage(pid):
    """(VmRSS in KiB, open descriptors) of the daemon."""
    with open(f"/proc/{pid}/status") as f:
        rss = next(int(l.split()[1]) for l in f if l.startswith("VmRSS:"))
    return rss, len(os.listdir(f"/proc/{pid}/fd"))


class Traffic:
    """One batch of input after another, on every pipe, with the clocks and
    reloads moving along."""

    def __init__(self, sandbox):
        self.sb = sandbox
        self.rng = random.Random(20240601)
        self.batch = 0
        self.next_station = 0
        self.apply_uptime = 100
        self.applied_mtime = 1_700_000_000
        self.lines = 0

    def station(self):
        return self.rng.choice(STATIONS)

    def send(self, pipe, lines):
        if lines:
            self.sb.write_fifo(pipe, "".join(l + "\n" for l in lines))
            self.lines += len(lines)

    def run_batch(self):
        sb, rng, k = self.sb, self.rng, self.batch
        self.batch += 1
        iw = []
        # Associations walking through all stations, faster until the table is full.
        for _ in range(3 if self.next_station > len(STATIONS) else 6):
            mac = STATIONS[self.next_station % len(STATIONS)]
            self.next_station += 1
            iw.append(f"12:00:00.000000   ath{rng.randint(0, 1)}     Registered node:{mac}")
        iw.append(f"12:00:00.000000   ath{rng.randint(0, 1)}     Expired node:{self.station()}")
        if k % 20 == 0:
            iw.append(f"12:00:00.000000   wifi0    New Access Point/Cell address:{ROGUE.upper()}")
        if k % 25 == 0:
            iw.append(f"12:00:00.000000   ath0     Custom: ACL-EVENT.discard sta={self.station()} "
                      f"bssid=02:11:22:33:44:00 ssid=Office")
        if k % 30 == 0:
            iw.append("12:00:00.000000   ath0     Custom driver event:BEACON-EVENT.stuck addr=02:11:22:33:44:00")

        ath = rng.randint(0, 1)
        ev = [f"bus ath{ath} Halcyon.Netfilter.ARP {self.station()} [10.{ath}.{rng.randint(0, 255)}.{rng.randint(1, 254)}]",
              f"[BANDWIDTH_RATE_UPDATE] ath1 {self.station().upper()} bw {rng.choice([-1, 0, 64, 512])} {rng.choice([-1, 128, 2048])}",
              f"[STA_VLAN] ath0 {self.station()} vlan {rng.randint(0, 4100)}",
              f"bus ath{ath} Halcyon.Stats.NodeLeave {self.station()} "
              f"[RX:{rng.randint(0, 10**9)}bytes,{rng.randint(0, 10**6)}pkts TX:{rng.randint(0, 10**9)}bytes,5pkts]"]
        if k % 3 == 0:
            ev.append(f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {self.station()}")
        if k % 10 == 0:
            ev.append("[REFRESH_CLIENT_FILE]")
        if k % 40 == 0:
            ev.append(f"[L2TP_IF_UPDATE] bcp52 {rng.choice(['up', 'down'])}")
        if k % 50 == 49:
            ev.append(f"[REMOVE_VAP] {rng.randint(0, 1)}")
        if k % 45 == 0:
            ev.append("x" * 1500 + " Registered node:" + self.station())  # cut by the read

        table = [f"{self.station()} 10.2.{rng.randint(0, 255)}.{rng.randint(1, 254)} ath{rng.randint(0, 1)}"]

        if k % 100 == 50:
            sb.stub_output("radclient", rng.choice([ACCEPT, REJECT, ""]))
        if k % 60 == 0:  # a reload, applied a few batches later
            self.apply_uptime += 1
            sb.write_config("/etc/masterconfig.apply", configuration(k // 60 % 2))
            sb.write("/tmp/last_applyconf_uptime", f"{self.apply_uptime}\n")
        if k % 60 == 5:
            self.applied_mtime += 1
            os.utime(sb.host_path("/etc/masterconfig.applied"), (self.applied_mtime, self.applied_mtime))

        self.send("/etc/iwevent_pipe", iw)
        self.send("/etc/event_pipe", ev)
        self.send("/etc/client_table_pipe", table)
        if k % 8 == 7:  # hold-offs run out, stations expire
            sb.advance_time(rng.choice([5, 61, 200, 1900]))
            self.send("/etc/event_pipe", [""])  # one more pass, for the timed work
        # A command storm ([REMOVE_VAP], [L2TP_IF_UPDATE]) takes seconds.
        sb.wait_idle(timeout=60)


def test_soak_whole_daemon(sandbox, capsys):
    sb = sandbox
    sb.write_config("/etc/masterconfig.apply", configuration(0))
    sb.write_config("/var/run/wireless.status", {
        "WIFI_COUNT": "1", "WIFI0_DEV": "wifi0", "WIFI0_RADIO_CONF_PREFIX": "R0_", "WIFI0_RADIO_POLICY": "na",
        "WLAN1_ATH_LIST": "0", "WLAN2_ATH_LIST": "1", "ATH0_RADIO": "0", "ATH1_RADIO": "0"})
    sb.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
    sb.write("/etc/masterconfig.applied", "")
    os.utime(sb.host_path("/etc/masterconfig.applied"), (1_700_000_000, 1_700_000_000))
    sb.write("/etc/ath1_client_limit", "40\n")
    sb.write("/etc/wlan/bandwidth_mgnt/per_client_set_1", "")
    sb.write("/proc/wifi0/neighbor_ap", f"{ROGUE} 6 -50 0 1 2 300 0 11 0 9 [Neighbour]\n")
    sb.add_interface("ath0", "02:11:22:33:44:00")
    sb.add_interface("ath1", "02:11:22:33:44:01")
    sb.set_stations("ath0", 30)
    sb.set_stations("ath1", 45)
    sb.stub_output("radclient", ACCEPT)
    # The kernel tools fail quickly on the sandbox's network; stubs would
    # spend most of the run starting Python.
    for tool in ("tc", "ip", "ebtables", "/sbin/ebtables"):
        if shutil.which(os.path.basename(tool)):
            sb.use_real(tool)
    sb.start()

    traffic = Traffic(sb)
    samples = []  # (seconds, VmRSS KiB, descriptors, batches)
    start = time.monotonic()
    next_sample = start
    while True:
        now = time.monotonic()
        if now >= next_sample:
            samples.append((round(now - start), *daemon_usage(sb.pid), traffic.batch))
            next_sample += SAMPLE_EVERY
        if now - start >= DURATION:
            break
        traffic.run_batch()

    # Still alive and answering.
    mark = len(sb.stdout())
    sb.write_fifo("/etc/iwevent_pipe", "12:00:00.000000   ath0     Registered node:00:5e:00:00:ff:ff\n")
    sb.wait_idle(timeout=30)
    assert "new record: 00:5e:00:00:ff:ff" in sb.stdout()[mark:]
    assert "00:5e:00:00:ff:ff" in sb.read("/etc/clientip")

    with capsys.disabled():
        print(f"\nsoak: {traffic.batch} batches, {traffic.lines} lines in {DURATION} s")
        print("  s  VmRSS KiB  fds  batches")
        for s, rss, fds, batches in samples:
            print(f"{s:4d} {rss:9d} {fds:4d} {batches:8d}")
    base = next(x for x in samples if x[0] >= WARM_UP)
    later = [x for x in samples if x[0] >= base[0]]
    limit = base[1] + max(base[1] // 10, 512)
    assert max(x[1] for x in later) <= limit, f"VmRSS grew beyond {limit} KiB after the warm-up"
    assert {x[2] for x in later} == {base[2]}, "open descriptors changed after the warm-up"
    assert traffic.next_station > len(STATIONS), "the table was never filled"

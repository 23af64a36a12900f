"""Shared set-up and readers for the client-tracking, notifier and trap
end-to-end tests: two VAPs on one radio, the driver's and the bus's lines,
and parsers for the client files."""
import re
import time

STATION = "00:11:22:33:44:55"
BSSID0 = "02:11:22:33:44:00"
BSSID1 = "02:11:22:33:44:01"

LIST_LINE = re.compile(r"(ath\d+):([0-9a-f:]{17}) (\d+\.\d+\.\d+\.\d+) (-?\d+) (-?\d+) (\d+) (\d+) (\d+)\n")


def hexed(text):
    """The notifier's hex escaping of an ASCII SSID."""
    return "".join(f"{ord(c):02X}" for c in text)


def two_vaps(sandbox, config=None, status=None):
    """ath0 (WLAN 1) and ath1 (WLAN 2) on radio wifi0, real links with the
    BSSIDs above; the master configuration and wireless status get the
    given extra keys."""
    values = {"WLAN1_SSID": "Office", "WLAN2_SSID": "Guest"}
    values.update(config or {})
    sandbox.write_config("/etc/masterconfig.apply", values)
    st = {"WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0", "WLAN2_ATH_LIST": "1", "ATH0_WLANID": "1",
          "ATH1_WLANID": "2", "ATH0_RADIO": "0", "ATH1_RADIO": "0", "WIFI0_DEV": "wifi0"}
    st.update(status or {})
    sandbox.write_config("/var/run/wireless.status", st)
    sandbox.set_lan_interfaces(["ath0", "ath1"])
    sandbox.add_interface("ath0", BSSID0)
    sandbox.add_interface("ath1", BSSID1)


def iwevent(sandbox, ath, word, station=STATION):
    """A driver event as iwevent prints it ("Registered", "Expired")."""
    sandbox.write_fifo("/etc/iwevent_pipe", f"12:00:00.000000   {ath}     {word} node:{station}\n")
    sandbox.wait_idle()


def send(sandbox, *lines, pipe="/etc/event_pipe"):
    sandbox.write_fifo(pipe, "".join(line + "\n" for line in lines))
    sandbox.wait_idle()


def client_list(sandbox, path="/etc/clientip"):
    """The lines of a client list as tuples (ifname, mac, ip, assoc uptime,
    disassoc uptime, assoc count, disassoc count, first assoc uptime); every
    line must be whole and well formed."""
    text = sandbox.read(path)
    return parse_client_list(text)


def parse_client_list(text):
    rows = []
    for line in text.splitlines(keepends=True):
        m = LIST_LINE.fullmatch(line)
        assert m, f"malformed client line {line!r}"
        rows.append((m[1], m[2], m[3], *map(int, m.groups()[3:])))
    return rows


def lines_of(sandbox, prefix):
    return [l for l in sandbox.stdout().splitlines() if l.startswith(prefix)]


class Recorder:
    """What the stubs recorded since the last look."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.seen = 0

    def new(self, tool=None):
        calls = self.sandbox.calls()
        fresh, self.seen = calls[self.seen:], len(calls)
        return [c.text for c in fresh if tool is None or c.tool == tool]


def set_uptime_exactly(sandbox, seconds):
    """set_uptime() early in a second of the real uptime, so that the daemon
    sees exactly this value during the next few hundred milliseconds (the
    sandbox's uptime is otherwise right to about a second)."""
    while True:
        with open("/proc/uptime") as f:
            fraction = float(f.read().split()[0]) % 1
        if 0.05 <= fraction <= 0.75:
            break
        time.sleep((1.06 - fraction) % 1)
    sandbox.set_uptime(seconds)

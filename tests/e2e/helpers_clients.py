"""Shared inputs and readers of the end-to-end tests: two VAPs on one radio,
lines into the daemon's pipes, and its client lists."""
import re

STATION = "00:11:22:33:44:55"
BSSID0 = "02:11:22:33:44:00"
BSSID1 = "02:11:22:33:44:01"
STAMP = "12:00:00.000000"
# interface:MAC IP, assoc and disassoc uptime, assoc and disassoc count, first assoc uptime
LIST_LINE = re.compile(r"([^:\n]*):(.{17}) (\S+) (-?\d+) (-?\d+) (\d+) (\d+) (\d+)\n")


def two_vaps(sandbox, config=None, status=None):
    """ath0 (WLAN 1 "Office") and ath1 (WLAN 2 "Guest") on radio wifi0, real
    links with the BSSIDs above; config and status add or replace keys."""
    sandbox.write_config("/etc/masterconfig.apply", {"WLAN1_SSID": "Office", "WLAN2_SSID": "Guest", **(config or {})})
    sandbox.write_config("/var/run/wireless.status", {
        "WIFI_COUNT": "1", "WLAN1_ATH_LIST": "0", "WLAN2_ATH_LIST": "1", "ATH0_WLANID": "1", "ATH1_WLANID": "2",
        "ATH0_RADIO": "0", "ATH1_RADIO": "0", "WIFI0_DEV": "wifi0", **(status or {})})
    sandbox.set_lan_interfaces(["ath0", "ath1"])
    sandbox.add_interface("ath0", BSSID0)
    sandbox.add_interface("ath1", BSSID1)


def send(sandbox, *lines, pipe="/etc/event_pipe"):
    """Lines into a pipe in one write; returns once the daemon is idle."""
    sandbox.write_fifo(pipe, "".join(line + "\n" for line in lines))
    sandbox.wait_idle()


def driver(sandbox, *lines):
    """Driver lines as iwevent prints them ("ath0     Registered node:...")."""
    send(sandbox, *(f"{STAMP}   {line}" for line in lines), pipe="/etc/iwevent_pipe")


def iwevent(sandbox, ath, word, station=STATION):
    driver(sandbox, f"{ath}     {word} node:{station}")


def lines_of(sandbox, prefix, since=0):
    """stdout lines starting with prefix, from character offset since."""
    return [l for l in sandbox.stdout()[since:].splitlines() if l.startswith(prefix)]


def new_records(sandbox):
    """(mac, slot, count after) of every "new record" line."""
    found = re.findall(r"^new record: (.*), index: (\d+), i: -?\d+, interface: -?\d+, client_table_cnt: (\d+) ",
                       sandbox.stdout(), re.M)
    return [(mac, int(slot), int(count)) for mac, slot, count in found]


def parse_client_list(text):
    """Tuples (ifname, mac, ip, five numbers); every line whole and well formed."""
    rows = []
    for line in text.splitlines(keepends=True):
        m = LIST_LINE.fullmatch(line)
        assert m, f"malformed client line {line!r}"
        rows.append((m[1], m[2], m[3], *map(int, m.groups()[3:])))
    return rows


def client_list(sandbox, path="/etc/clientip"):
    return parse_client_list(sandbox.read(path))


def macs(sandbox, path="/etc/clientip"):
    return [row[1] for row in client_list(sandbox, path)]


def macauth_wlan1(sandbox, servers, secret, extra=None):
    """two_vaps with external MAC authentication on WLAN 1 (ath0) against its
    own servers [(host, port)], which share the secret; bridge mode with
    optional dynamic VLANs; extra adds or replaces keys. The applied marker
    makes start-up apply the VLAN and MAC-auth settings; the WAN address is
    the NAS-IP-Address (radclient refuses a request with one that is none)."""
    config = {"AP_MODE": "bridge", "WLAN1_ACL_MODE": "3", "WLAN1_DYNAMIC_VLAN": "optional", "WLAN1_RADIUS": "enable"}
    for n, (host, port) in enumerate(servers, 1):
        config.update({f"WLAN1_RADIUS{n}_HOST": host, f"WLAN1_RADIUS{n}_SECRET": secret,
                       f"WLAN1_RADIUS{n}_AUTHPORT": str(port)})
    two_vaps(sandbox, {**config, **(extra or {})})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})


def auth_request(sandbox, mac):
    """The driver's MAC-auth request on ath0; once the worker has ended, every iwpriv call so far."""
    sandbox.write_fifo("/etc/event_pipe", f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {mac}\n")
    sandbox.wait_idle(timeout=60)
    return sandbox.commands("iwpriv")

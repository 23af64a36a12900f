"""The event interpreter: driver events on /etc/iwevent_pipe, control
commands and bus topics on /etc/event_pipe, and what bad input does."""
import ctypes
import os
import re
import struct

STAMP = "12:00:00.000000"
A = "00:11:22:33:44:aa"
B = "00:11:22:33:44:bb"
C = "00:11:22:33:44:cc"
D = "00:11:22:33:44:dd"
E = "00:11:22:33:44:ee"
ROGUE = "02:AA:BB:CC:DD:EE"


def iwevent(sandbox, *lines):
    """Driver lines as iwevent prints them, all in one write."""
    sandbox.write_fifo("/etc/iwevent_pipe", "".join(f"{STAMP}   {l}\n" for l in lines))
    sandbox.wait_idle()


def command(sandbox, *lines):
    sandbox.write_fifo("/etc/event_pipe", "".join(l + "\n" for l in lines))
    sandbox.wait_idle()


def register(sandbox, ath, mac):
    iwevent(sandbox, f"ath{ath}     Registered node:{mac}")


def runs(sandbox, tool):
    """The tool's recorded runs, arguments joined by blanks."""
    return [" ".join(c.argv) for c in sandbox.calls(tool)]


def out_lines(sandbox, prefix, since=0):
    return [l for l in sandbox.stdout()[since:].splitlines() if l.startswith(prefix)]


def new_records(sandbox, since=0):
    """(mac, slot, count after) of every "new record" line."""
    found = re.findall(r"^new record: (.*), index: (\d+), i: -?\d+, interface: -?\d+, client_table_cnt: (\d+) ",
                       sandbox.stdout()[since:], re.M)
    return [(mac, int(slot), int(count)) for mac, slot, count in found]


def client_list(sandbox, path="/etc/clientip"):
    """{mac: (interface, ip, [numbers])} of a client list file."""
    rows = {}
    for line in sandbox.read(path).splitlines():
        head, ip, *numbers = line.rsplit(" ", 6)
        ifname, mac = head.split(":", 1)
        rows[mac] = (ifname, ip, [int(n) for n in numbers])
    return rows


class Renames:
    """Counts files renamed into a directory (inotify IN_MOVED_TO)."""
    IN_MOVED_TO = 0x80

    def __init__(self, directory):
        libc = ctypes.CDLL(None, use_errno=True)
        self.fd = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self.fd >= 0 and libc.inotify_add_watch(self.fd, str(directory).encode(), self.IN_MOVED_TO) >= 0

    def names(self):
        names = []
        try:
            data = os.read(self.fd, 65536)
        except BlockingIOError:
            return names
        while data:
            _wd, _mask, _cookie, size = struct.unpack_from("iIII", data)
            names.append(data[16:16 + size].rstrip(b"\0").decode())
            data = data[16 + size:]
        return names

    def close(self):
        os.close(self.fd)


def test_registration_and_expiry(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {"WLAN1_SSID": "Office", "WLAN2_SSID": "Guest"})
    sandbox.set_uptime(1000)
    sandbox.start()

    # One chunk, two lines: both are handled, in order; the MAC is lowered.
    iwevent(sandbox, f"ath0     Registered node:{A.upper()}", f"ath1     Registered node:{B}")
    assert new_records(sandbox) == [(A, 0, 1), (B, 1, 2)]
    sandbox.advance_time(100)
    iwevent(sandbox, f"ath0     Expired node:{A}")
    assert new_records(sandbox) == [(A, 0, 1), (B, 1, 2)]

    assert [(r.priority, r.message) for r in sandbox.syslog()] == [
        (6, f"__TOVELLOG__Client {A} associated to SSID Office"),
        (6, f"__TOVELLOG__Client {B} associated to SSID Guest"),
        (6, f"__TOVELLOG__Client {A} disassociated from SSID Office"),
    ]
    rows = client_list(sandbox)
    assert list(rows) == [A, B]
    (ifa, ipa, (assoc_a, disassoc_a, na, da, first_a)), (ifb, ipb, (assoc_b, disassoc_b, nb, db, _)) = rows.values()
    assert (ifa, ipa, na, da, ifb, ipb, nb, db, disassoc_b) == ("ath0", "0.0.0.0", 1, 1, "ath1", "0.0.0.0", 1, 0, 0)
    assert abs(assoc_a - 1000) <= 2 and assoc_a == first_a and 99 <= disassoc_a - assoc_a <= 101
    assert list(client_list(sandbox, "/etc/clientip_assoc")) == [B]
    assert sandbox.read("/etc/client_accu_stat") == f"ath0:{A} 0 0 0 0 0 0 0 0 0\nath1:{B} 0 0 0 0 0 0 0 0 0\n"

    # The client leaves and comes back: same slot, counters go on.
    register(sandbox, 0, A)
    assert client_list(sandbox)[A][2][2:4] == [2, 1]
    sandbox.advance_time(10)  # a leave in the second of the association does not count as one
    iwevent(sandbox, f"ath0     Expired node:{A}")

    # [REFRESH_CLIENT_FILE] runs the expiry check: 1801 s after leaving.
    sandbox.advance_time(1700)
    command(sandbox, "[REFRESH_CLIENT_FILE]")
    assert out_lines(sandbox, "check_expired") == []
    sandbox.advance_time(101)
    command(sandbox, "[REFRESH_CLIENT_FILE]")
    assert out_lines(sandbox, "check_expired") == [f"check_expired: expired, clear_record(0) ath0:{A}"]
    assert list(client_list(sandbox)) == [B]
    # The freed slot is taken again.
    register(sandbox, 0, C)
    assert new_records(sandbox)[-1] == (C, 0, 2)


def test_mac_auth_request_reaches_radclient_and_the_driver(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {
        "WLAN1_ACL_MODE": "3", "WLAN1_SSID": "Office", "WLAN1_RADIUS": "disable",
        "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret", "RADIUS1_AUTHPORT": "1812"})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.stub_output("radclient", "Sending Access-Request of id 1 to 127.0.0.1 port 1812\n"
                                     "Received response ID 1, code 2, length = 20\n")
    sandbox.start()

    command(sandbox, f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {A.upper()}")
    assert sandbox.commands("radclient") == [
        "radclient -x -r 1 127.0.0.1:1812 auth s3cret -f /tmp/radc-0011223344aa-0"]
    assert sandbox.commands("iwpriv") == [f"iwpriv ath0 oem_priv wr:authresp={A},0"]
    # A request is no association: no record, no files.
    assert new_records(sandbox) == [] and not sandbox.exists("/etc/clientip")
    # Not a MAC after the topic: nothing asked.
    command(sandbox, "wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth 00:11:22:33:44",
            "wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth")
    assert len(sandbox.commands("radclient")) == 1


def test_remove_vap(sandbox):
    sandbox.start()
    for ath, mac in ((1, A), (0, B), (1, C), (0, D), (1, E)):
        register(sandbox, ath, mac)
    assert [r[1:] for r in new_records(sandbox)] == [(0, 1), (1, 2), (2, 3), (3, 4), (4, 5)]
    renames = Renames(sandbox.host_path("/etc"))
    try:
        mark = len(sandbox.stdout())
        for nothing in ("[REMOVE_VAP] -1", "[REMOVE_VAP]", "[REMOVE_VAP] ", "[REMOVE_VAP] x1"):
            command(sandbox, nothing)
        assert out_lines(sandbox, "clear:", mark) == [] and renames.names() == []

        command(sandbox, "[REMOVE_VAP] 1")
        assert out_lines(sandbox, "clear:", mark) == [f"clear: 0 {A}", f"clear: 2 {C}", f"clear: 4 {E}"]
        assert sorted(renames.names()) == ["client_accu_stat", "clientip", "clientip_assoc"]
    finally:
        renames.close()
    # The count went from 5 to 2: slot 3 (D, still in use) lies beyond it and
    # is neither listed nor safe from being taken by a new record.
    assert list(client_list(sandbox)) == [B]
    mark = len(sandbox.stdout())
    for mac in ("00:00:00:00:00:01", "00:00:00:00:00:02", "00:00:00:00:00:03"):
        register(sandbox, 1, mac)
    assert [r[1:] for r in new_records(sandbox, mark)] == [(0, 2), (2, 3), (3, 4)]
    assert list(client_list(sandbox)) == ["00:00:00:00:00:01", B, "00:00:00:00:00:02", "00:00:00:00:00:03"]
    # D is gone with its slot: its return makes a new record.
    register(sandbox, 0, D)
    assert new_records(sandbox)[-1] == (D, 4, 5)


def test_rates_vlan_address_and_leave(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {
        "AP_MODE": "bridge", "WLAN1_SSID": "Office", "WLAN1_VLANID": "10", "WLAN1_PORTAL": "enable"})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.add_interface("ath2", "02:11:22:33:44:02")
    sandbox.start()
    register(sandbox, 2, A)
    register(sandbox, 0, B)
    assert sandbox.commands("tc") == []

    # Rates: upper-case MAC, ath2 read after "ath", the two numbers after "bw ".
    command(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath2 {A.upper()} bw 512 1024")
    assert out_lines(sandbox, "Changing bandwidth") == [
        f"Changing bandwidth up rate for {A} from 0 to 512",
        f"Changing bandwidth down rate for {A} from 0 to 1024"]
    assert sandbox.commands("bandwidth_mgnt") == ["/etc/rc.d/init.d/bandwidth_mgnt init_per_client wifi0 2 1 1"]
    marks = [c for c in sandbox.commands("ebtables") if "mark" in c]
    assert marks == [
        f"/sbin/ebtables -A ATH2_BANDWIDTH_UP -s {A} -j mark --set-mark 0x22 --mark-target CONTINUE",
        f"/sbin/ebtables -A ATH2_BANDWIDTH_DOWN -d {A} -j mark --set-mark 0x32 --mark-target CONTINUE"]
    classes = [c for c in sandbox.commands("tc") if c.startswith("tc class add")]
    assert [c.split()[4] + " " + c.split()[13] for c in classes] == ["eth1 512kbit", "wifi0 512kbit", "wifi0 1024kbit"]
    # The same rates again, one number, an unknown station: nothing.
    command(sandbox, f"[BANDWIDTH_RATE_UPDATE] ath2 {A} bw 512 1024", f"[BANDWIDTH_RATE_UPDATE] ath2 {A} bw 64",
            f"[BANDWIDTH_RATE_UPDATE] ath2 {C} bw 1 2", f"[BANDWIDTH_RATE_UPDATE] ath2 {A[:-1]} bw 1 2")
    assert len(out_lines(sandbox, "Changing bandwidth")) == 2 and new_records(sandbox)[-1][0] == B
    assert len(sandbox.commands("tc")) == 9

    # Station VLAN 20 for B on ath0 (bridge mode): the two broute rules (run
    # in the background, in either order).
    command(sandbox, f"[STA_VLAN] ath0 {B.upper()} vlan 20")
    broute = sorted(c for c in runs(sandbox, "ebtables") if "broute" in c)
    assert broute == [
        f"/sbin/ebtables -t broute -I BROUTING -p ! 0x888e -i ath0 -s {B} -j svlan --setvlan 20 --setvlan-target ACCEPT",
        f"/sbin/ebtables -t broute -I BROUTING -p ! 0x888e -i eth1 -d {B} -j svlan --setvlan 10 --setvlan-target DROP"]
    assert sandbox.read(f"/tmp/ebt_ctm/{B}").count("\n") == 2
    # VLAN 0 and a missing number change nothing; an unknown station gets a record.
    command(sandbox, f"[STA_VLAN] ath0 {B} vlan 0", f"[STA_VLAN] ath0 {B} vlan", f"[STA_VLAN] ath0 {C.upper()} vlan 30")
    assert len([c for c in runs(sandbox, "ebtables") if "broute" in c]) == 2 + 2
    assert new_records(sandbox)[-1] == (C, 2, 3)

    # An address learned on the bus: the list shows it, the portal route is added.
    command(sandbox, f"bus ath0 Halcyon.Netfilter.ARP {B} [10.0.0.7]")
    assert client_list(sandbox)[B][:2] == ("ath0", "10.0.0.7")
    routes = ["ip ro del 0.0.0.0 dev br10 table rt_portal", "ip ro add 10.0.0.7 dev br10 table rt_portal"]
    assert sandbox.commands("ip") == routes

    # The leave report: traffic counted, no longer associated, route kept.
    command(sandbox, f"bus ath0 Halcyon.Stats.NodeLeave {B} [RX:1000bytes,10pkts TX:2000bytes,20pkts]")
    command(sandbox, f"bus ath0 Halcyon.Stats.NodeLeave {B} [RX:1bytes,1pkts TX:2bytes,2pkts]")
    stats = dict(l.split(" ", 1) for l in sandbox.read("/etc/client_accu_stat").splitlines())
    assert stats[f"ath0:{B}"] == "2002 1001 22 11 0 0 0 0 0"
    assert client_list(sandbox)[B][:2] == ("ath0", "0.0.0.0")
    assert B not in client_list(sandbox, "/etc/clientip_assoc")
    assert sandbox.commands("ip") == routes


def test_l2tp_update_moves_shaping_to_the_tunnel(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {
        "WLAN1_SSID": "Office", "WLAN1_L2TP_PROFILE": "2", "AP_L2TP2_TUNNEL": "enable",
        "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512",
        "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024", "WLAN2_SSID": "Plain"})
    sandbox.start()
    register(sandbox, 0, A)
    register(sandbox, 1, B)

    def tc_after(*lines):
        before = len(sandbox.commands("tc"))
        command(sandbox, *lines)
        return [c for c in sandbox.commands("tc")[before:]]

    # Profile 0 (not a bcpN name) and a missing state word touch nothing.
    assert tc_after("[L2TP_IF_UPDATE] eth0 up", "[L2TP_IF_UPDATE] bcp52", "[L2TP_IF_UPDATE] bcp53 up") == []
    up = tc_after("[L2TP_IF_UPDATE] bcp52 up")
    # First the station's classes leave the WAN side, then they are added
    # again with the tunnel device bcp52 (major 0x82) as the upstream side.
    dels = [c for c in up if " del " in c]
    adds = [c for c in up if " add " in c]
    assert up == dels + adds and len(dels) == len(adds) == 9
    assert {c.split()[4] for c in dels} == {"eth1", "wifi0"}
    assert {c.split()[4] for c in adds} == {"bcp52", "wifi0"}
    assert "tc class add dev bcp52 parent 82:1fe0 classid 82:20 htb rate 2kbit ceil 512kbit burst 15k" in adds
    assert "tc filter add dev bcp52 prio 0x20 protocol all parent 82:0 handle 0x20 fw flowid 82:20" in adds
    # Down: the tunnel's classes are deleted; the WLAN 2 station is never touched.
    down = tc_after("[L2TP_IF_UPDATE] bcp52 down")
    assert len(down) == 9 and all(" del " in c for c in down)
    assert {c.split()[4] for c in down} == {"bcp52", "wifi0"}
    assert not [c for c in sandbox.commands() if B in c]


def test_keyword_precedence(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {"SNMP_TRAP1_IPADDR": "127.0.0.1", "WLAN1_SSID": "Office"})
    sandbox.write("/proc/wifi0/neighbor_ap", f"{ROGUE.lower()} 1 2 3 4 500 6 7 8 9 10 [Rogue]\n")
    sandbox.start()
    register(sandbox, 1, B)

    # Registration first: the [REMOVE_VAP] of the same line is not carried out.
    iwevent(sandbox, f"ath0     Registered node:{A} [REMOVE_VAP] 1")
    assert out_lines(sandbox, "clear:") == [] and new_records(sandbox)[-1] == (A, 1, 2)
    # A neighbour event and a registration on one line: both happen.
    iwevent(sandbox, f"wifi0    New Access Point/Cell address:{ROGUE} Registered node:{C}")
    assert len(sandbox.commands("snmptrap")) == 1
    assert new_records(sandbox)[-1] == (C, 2, 3)
    # "Registered" before "Expired" decides; the command chain is not reached.
    iwevent(sandbox, f"ath0     Expired Registered node:{D} [REFRESH_CLIENT_FILE]")
    assert new_records(sandbox)[-1][0] == D and out_lines(sandbox, "new record")[-1].endswith("status:11")
    # Of two commands the first in the table wins, wherever it stands.
    command(sandbox, f"[STA_VLAN] ath0 {E} vlan 5 [REMOVE_VAP] 1")
    assert out_lines(sandbox, "clear:") == [f"clear: 0 {B}"] and new_records(sandbox)[-1][0] == D


def test_long_cut_and_stray_lines(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {"SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "5"})
    sandbox.write_config("/var/run/wireless.status", {"WIFI0_RADIO_CONF_PREFIX": "R0_"})
    sandbox.start()

    # A line of 1023 bytes with its newline fills one read exactly: seen.
    iwevent_raw = lambda data: (sandbox.write_fifo("/etc/iwevent_pipe", data), sandbox.wait_idle())
    iwevent_raw(f"{STAMP} ath0 Registered node:{A}".ljust(1022) + "\n")
    # One byte more: the read ends before the newline, the piece is dropped,
    # and the next read holds an empty line.
    iwevent_raw(f"{STAMP} ath0 Registered node:{B}".ljust(1023) + "\n")
    assert [r[0] for r in new_records(sandbox)] == [A]

    # A long line between two good ones: the first read ends inside it; what
    # follows the 1023rd byte is a line of its own.
    before = f"{STAMP} ath0 Registered node:{C}\n"
    head = f"{STAMP} ath0 Registered node:{D} ".ljust(1023 - len(before), "x")
    tail = f" t1 ath1 Registered node:{E}\n"
    after = f"{STAMP} ath0 Expired node:{C}\n"
    iwevent_raw(before + head + tail + after)
    assert [r[0] for r in new_records(sandbox)] == [A, C, E]
    assert client_list(sandbox)[E][0] == "ath1" and client_list(sandbox)[C][2][3] == 1

    # A piece without newline at the end of a write is dropped, even when
    # its newline follows in the next write.
    iwevent_raw(f"{STAMP} ath0 Registered node:{B}")
    iwevent_raw("\n")
    assert B not in client_list(sandbox)

    # Keywords inside longer words and lines are found.
    mark = len(sandbox.stdout())
    iwevent(sandbox, f"ath1     UnRegisteredish node:{B}")
    command(sandbox, "noise[REMOVE_VAP] 1 and more")
    assert new_records(sandbox, mark) == [(B, 3, 4)]
    assert out_lines(sandbox, "clear:", mark) == [f"clear: 2 {E}", f"clear: 3 {B}"]

    # Events that lack what they need do nothing: no neighbour file for the
    # radio, no radio at all, an ACL discard or stuck beacon without its keys,
    # a registration without MAC or interface.
    iwevent(sandbox, f"wifi3    New Access Point/Cell address:{ROGUE}",
            f"New Access Point/Cell address:{ROGUE}",
            f"ath0     Custom: ACL-EVENT.discard sta={A} bssid={ROGUE}",
            f"ath0     Custom: ACL-EVENT.discard sta={A} ssid=Office",
            "ath0     Custom driver event:BEACON-EVENT.stuck",
            "ath0     Registered node:00:11:22:33:44", "ath0     Registered node:", "Registered")
    assert sandbox.commands("snmptrap") == []
    # ... while the complete ones right after them are served.
    iwevent(sandbox, f"ath0     Custom: ACL-EVENT.discard sta={A} bssid={ROGUE} ssid=Office",
            f"ath0     Custom driver event:BEACON-EVENT.stuck addr={ROGUE}")
    assert len(sandbox.commands("snmptrap")) == 2
    assert len(new_records(sandbox)) == 4


def test_format_and_shell_text_in_every_field(sandbox):
    nasty = "%s%n%x $(touch /tmp/pwned) `touch /tmp/pwned` 'q\" ;touch /tmp/pwned"
    sandbox.write_config("/etc/masterconfig.apply", {
        "AP_MODE": "bridge", "WLAN1_SSID": nasty.replace('"', ""), "WLAN1_PORTAL": "enable", "WLAN1_VLANID": "7",
        "SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "5"})
    sandbox.write_config("/var/run/wireless.status", {"WIFI0_RADIO_CONF_PREFIX": "R0_"})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.start()
    # 17-character "MACs" that the bus topics copy without a check.
    bogus1, bogus2 = "$(touch /tmp/pw1)", "`touch /tmp/pw2`x"

    iwevent(sandbox, f"ath0$(touch${{IFS}}/tmp/pwned) Registered node:{A}",
            f"ath0     Registered node:%s%n%n%n%n%n%n%n%n%n%n",
            f"ath0     Custom: ACL-EVENT.discard sta=%n%n%n%n bssid=%s%s%s%s ssid=%x$(touch${{IFS}}/tmp/pwned)",
            "ath0     Custom driver event:BEACON-EVENT.stuck addr=`touch${IFS}/tmp/pwned`;%n",
            f"wifi0    New Access Point/Cell address:$(touch${{IFS}}/tmp/pwned)")
    command(sandbox,
            "wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth $(touch /tmp/pwned)",
            f"[BANDWIDTH_RATE_UPDATE] ath0 {A} bw 64 128;touch /tmp/pwned",
            f"[BANDWIDTH_RATE_UPDATE] ath0 {A} bw `touch /tmp/pwned` 5",
            f"[STA_VLAN] ath0 {A} vlan 20$(touch /tmp/pwned)",
            f"[STA_VLAN] ath0 {A};touch /tmp/pwned vlan 21",
            f"bus ath0 Halcyon.Netfilter.ARP {A} [$(touch /tmp/pwned)]",
            f"bus ath-1 Halcyon.Netfilter.ARP {bogus1} [10.0.0.9]",
            f"bus ath0 Halcyon.Stats.NodeLeave {bogus2} [%n%s RX:1bytes,1pkts TX:1bytes,1pkts]",
            f"bus ath0 Halcyon.Stats.NodeLeave {A} [RX:%n%nbytes;touch /tmp/pwned]",
            "[L2TP_IF_UPDATE] bcp52;touch${IFS}/tmp/pwned up",
            "[REMOVE_VAP] 5;touch /tmp/pwned",
            f"ath0 after the storm Registered node:{B}")

    for name in ("pwned", "pw1", "pw2"):
        assert not sandbox.exists(f"/tmp/{name}"), name
    assert [r[:2] for r in new_records(sandbox)] == [(A, 0), (bogus1, 1), (bogus2, 2), (B, 3)]
    # The texts reach the log, the tools and the files as they are.
    assert [r.message for r in sandbox.syslog()] == [
        f"__TOVELLOG__Client {A} associated to SSID {nasty.replace(chr(34), '')}",
        f"__TOVELLOG__Client {B} associated to SSID {nasty.replace(chr(34), '')}"]
    acl, beacon = [c.argv[8:] for c in sandbox.calls("snmptrap")]
    assert [acl[2], acl[5], acl[8]] == ["%n%n%n%n", "%s%s%s%s", "%x$(touch${IFS}/tmp/pwned)"]
    assert beacon[2] == "`touch${IFS}/tmp/pwned`;%n"
    assert [c.argv for c in sandbox.calls("create_client_table")] == [["create_client_table", bogus1]]
    assert out_lines(sandbox, "Changing bandwidth") == [
        f"Changing bandwidth up rate for {A} from 0 to 64", f"Changing bandwidth down rate for {A} from 0 to 128"]
    # The MAC is the first 17 characters of its field: both VLAN lines apply.
    upstream = [c.split() for c in runs(sandbox, "ebtables") if "svlan" in c and " -s " in c]
    assert sorted((c[3], c[-3]) for c in upstream) == [("-D", "20"), ("-D", "21"), ("-I", "20"), ("-I", "21")]
    # inet_addr of a text that is no address reads as 255.255.255.255.
    assert sandbox.commands("ip") == ["ip ro del 0.0.0.0 dev br7 table rt_portal",
                                      "ip ro add 255.255.255.255 dev br7 table rt_portal"]
    assert list(client_list(sandbox)) == [A, bogus1, bogus2, B]
    assert sandbox.commands("radclient") == [] and sandbox.commands("iwpriv") == []

"""The event interpreter: driver events on /etc/iwevent_pipe, control
commands and bus topics on /etc/event_pipe; incomplete, cut, mixed and
hostile lines."""
import ctypes
import os
import select
import struct

from helpers_clients import STAMP, client_list, driver, iwevent, lines_of, macs, new_records, send

A, B, C, D, E, F, G, H = (f"00:11:22:33:44:{x}" for x in ("aa", "bb", "cc", "dd", "ee", "f1", "f2", "f3"))
ROGUE = "02:AA:BB:CC:DD:EE"
PREFIX = ".1.3.6.1.4.1.9991.100.7.14.17"
AUTH = "wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth"


def renamed_into(directory, action):
    """Names of the files that action renames into directory (inotify IN_MOVED_TO)."""
    libc = ctypes.CDLL(None)
    fd = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
    assert fd >= 0 and libc.inotify_add_watch(fd, str(directory).encode(), 0x80) >= 0
    action()
    names, data = [], os.read(fd, 65536) if select.select([fd], [], [], 0)[0] else b""
    os.close(fd)
    while data:
        size = struct.unpack_from("iIII", data)[3]
        names.append(data[16:16 + size].rstrip(b"\0").decode())
        data = data[16 + size:]
    return sorted(names)


def test_remove_vap_lowers_the_count_and_rewrites_the_files_once(sandbox):
    sandbox.start()
    for ath, mac in ((1, A), (0, B), (1, C), (0, D), (1, E)):
        iwevent(sandbox, f"ath{ath}", "Registered", mac)
    etc = sandbox.host_path("/etc")
    nothing = ("[REMOVE_VAP] -1", "[REMOVE_VAP]", "[REMOVE_VAP] ", "[REMOVE_VAP] x1")
    assert renamed_into(etc, lambda: send(sandbox, *nothing)) == [] and lines_of(sandbox, "clear:") == []
    assert renamed_into(etc, lambda: send(sandbox, "[REMOVE_VAP] 1")) == [
        "client_accu_stat", "clientip", "clientip_assoc"]
    assert lines_of(sandbox, "clear:") == [f"clear: 0 {A}", f"clear: 2 {C}", f"clear: 4 {E}"]
    # The count went from 5 to 2: slot 3 (D, still in use) lies beyond it and
    # is no longer listed; a new record takes the first free slot.
    assert macs(sandbox) == [B]
    iwevent(sandbox, "ath1", "Registered", F)
    assert new_records(sandbox)[-1] == (F, 0, 2) and macs(sandbox) == [F, B]


def test_l2tp_update_moves_shaping_to_the_tunnel_of_its_profile(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {
        "WLAN1_L2TP_PROFILE": "2", "AP_L2TP2_TUNNEL": "enable", "WLAN1_BANDWIDTH_CONTROL": "enable",
        "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "512", "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "1024"})
    sandbox.start()
    iwevent(sandbox, "ath0", "Registered", A)
    iwevent(sandbox, "ath1", "Registered", B)

    def tc_after(*lines):
        before = len(sandbox.commands("tc"))
        send(sandbox, *lines)
        return sandbox.commands("tc")[before:]

    # Not a bcpN name, no state word, another profile: nothing.
    assert tc_after("[L2TP_IF_UPDATE] eth0 up", "[L2TP_IF_UPDATE] bcp52", "[L2TP_IF_UPDATE] bcp53 up") == []
    # Up: the station's classes leave the WAN side, then come back with the
    # tunnel device bcp52 (major 0x82) as the upstream side.
    up = tc_after("[L2TP_IF_UPDATE] bcp52 up")
    assert [" del " in c for c in up] == [True] * 9 + [False] * 9
    assert {c.split()[4] for c in up[:9]} == {"eth1", "wifi0"} and {c.split()[4] for c in up[9:]} == {"bcp52", "wifi0"}
    assert "tc class add dev bcp52 parent 82:1fe0 classid 82:20 htb rate 2kbit ceil 512kbit burst 15k" in up
    # Down: the tunnel's classes go; the WLAN 2 station is never touched.
    down = tc_after("[L2TP_IF_UPDATE] bcp52 down")
    assert len(down) == 9 and all(" del " in c for c in down) and {c.split()[4] for c in down} == {"bcp52", "wifi0"}
    assert not [c for c in sandbox.commands() if B in c]


def test_long_cut_incomplete_and_mixed_lines(sandbox):
    sandbox.write_config("/etc/masterconfig.apply", {"SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "5",
                                                     "AP_MODE": "bridge", "WLAN1_VLANID": "10"})
    sandbox.write_config("/var/run/wireless.status", {"WIFI0_RADIO_CONF_PREFIX": "R0_"})
    sandbox.write("/proc/wifi0/neighbor_ap", f"{ROGUE.lower()} 1 2 3 4 500 6 7 8 9 10 [Rogue]\n")
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.start()
    raw = lambda data: (sandbox.write_fifo("/etc/iwevent_pipe", data), sandbox.wait_idle())

    # A line of 1022 bytes and its newline fill one read: seen. At 1023 the
    # newline comes with the next read and the line is joined: seen again.
    # A line of 1024 is dropped whole.
    raw(f"{STAMP} ath0 Registered node:{A}".ljust(1022) + "\n")
    raw(f"{STAMP} ath0 Registered node:{A}".ljust(1023) + "\n")
    raw(f"{STAMP} ath0 Registered node:{B}".ljust(1024) + "\n")
    assert [r[0] for r in new_records(sandbox)] == [A] and sum(A in r.message for r in sandbox.syslog()) == 2
    # A long line between two good ones, cut by the read: neither its head
    # nor its tail is a line. A line whose newline comes in the next write is
    # joined.
    before = f"{STAMP} ath0 Registered node:{C}\n"
    head = f"{STAMP} ath0 Registered node:{D} ".ljust(1023, "x")
    raw(before + head + f" t1 ath1 Registered node:{B}\n{STAMP} ath0 Expired node:{C}\n")
    raw(f"{STAMP} ath1 Registered node:{E}")
    raw("\n")
    assert [r[0] for r in new_records(sandbox)] == [A, C, E]
    rows = {r[1]: r for r in client_list(sandbox)}
    assert rows[E][0] == "ath1" and rows[C][6] == 1 and B not in rows

    # Rows that lack what they need do nothing: no neighbour file for the
    # radio, no radio at all, an ACL discard or stuck beacon without its keys,
    # a registration without MAC or interface, rates with one number or for an
    # unknown or cut MAC, VLAN 0 or none.
    driver(sandbox, f"wifi3    New Access Point/Cell address:{ROGUE}", f"New Access Point/Cell address:{ROGUE}",
           f"ath0     Custom: ACL-EVENT.discard sta={A} bssid={ROGUE}",
           f"ath0     Custom: ACL-EVENT.discard sta={A} ssid=Office", "ath0     Custom driver event:BEACON-EVENT.stuck",
           "ath0     Registered node:00:11:22:33:44", "ath0     Registered node:", "Registered")
    rate = "[BANDWIDTH_RATE_UPDATE] ath0"
    send(sandbox, f"{rate} {A} bw 64", f"{rate} {D} bw 1 2", f"{rate} {A[:-1]} bw 1 2", f"[STA_VLAN] ath0 {A} vlan 0",
         f"[STA_VLAN] ath0 {A} vlan")
    assert sandbox.commands("snmptrap") == [] and len(new_records(sandbox)) == 3 and lines_of(sandbox, "Changing") == []
    assert not [c for c in sandbox.commands("ebtables") if "BROUTING" in c]
    # The complete ones are served; a returning station keeps its record and
    # counts on; a station VLAN for an unknown station makes a record.
    driver(sandbox, f"ath0     Custom: ACL-EVENT.discard sta={A} bssid={ROGUE} ssid=Office",
           f"ath0     Custom driver event:BEACON-EVENT.stuck addr={ROGUE}", f"ath0     Registered node:{C}")
    send(sandbox, f"[STA_VLAN] ath0 {D} vlan 30")
    assert [c.argv[7] for c in sandbox.calls("snmptrap")] == [PREFIX + ".3.1", PREFIX + ".4.1"]
    assert [r[0] for r in new_records(sandbox)[3:]] == [D]
    assert [r[5:7] for r in client_list(sandbox) if r[1] == C] == [(2, 1)]

    # Precedence. Registration first: the [REMOVE_VAP] of the same line is not carried out.
    driver(sandbox, f"ath0     Registered node:{F} [REMOVE_VAP] 1")
    assert lines_of(sandbox, "clear:") == [] and new_records(sandbox)[-1][0] == F
    # A neighbour event and a registration on one line: both happen.
    driver(sandbox, f"wifi0    New Access Point/Cell address:{ROGUE} Registered node:{G}")
    assert sandbox.calls("snmptrap")[-1].argv[7] == PREFIX + ".1.1" and new_records(sandbox)[-1][0] == G
    # "Registered" before "Expired" decides; the command chain is not reached.
    driver(sandbox, f"ath0     Expired Registered node:{H} [REFRESH_CLIENT_FILE]")
    assert new_records(sandbox)[-1][0] == H and lines_of(sandbox, "new record")[-1].endswith("status:11")
    # Of two commands the first in the table wins, wherever it stands.
    send(sandbox, f"[STA_VLAN] ath0 {B} vlan 5 [REMOVE_VAP] 1")
    assert lines_of(sandbox, "clear:") == [f"clear: 2 {E}"] and new_records(sandbox)[-1][0] == H


def test_format_and_shell_text_in_every_field(sandbox):
    nasty = "%s%n%x $(touch /tmp/pwned) `touch /tmp/pwned` 'q ;touch /tmp/pwned"
    sandbox.write_config("/etc/masterconfig.apply", {
        "AP_MODE": "bridge", "WLAN1_SSID": nasty, "WLAN1_PORTAL": "enable", "WLAN1_VLANID": "7",
        "SNMP_TRAP1_IPADDR": "127.0.0.1", "R0_AP_CLIENT_LIMIT": "5"})
    sandbox.write_config("/var/run/wireless.status", {"WIFI0_RADIO_CONF_PREFIX": "R0_"})
    sandbox.write("/etc/masterconfig.applied", "")
    sandbox.add_interface("ath0", "02:11:22:33:44:00")
    sandbox.start()
    # 17-character "MACs" that the bus topics copy without a check.
    bogus1, bogus2 = "$(touch /tmp/pw1)", "`touch /tmp/pw2`x"

    driver(sandbox, f"ath0$(touch${{IFS}}/tmp/pwned) Registered node:{A}",
           "ath0     Registered node:%s%n%n%n%n%n%n%n%n%n%n",
           "ath0     Custom: ACL-EVENT.discard sta=%n%n%n%n bssid=%s%s%s%s ssid=%x$(touch${IFS}/tmp/pwned)",
           "ath0     Custom driver event:BEACON-EVENT.stuck addr=`touch${IFS}/tmp/pwned`;%n",
           "wifi0    New Access Point/Cell address:$(touch${IFS}/tmp/pwned)")
    send(sandbox, f"{AUTH} $(touch /tmp/pwned)",
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

    assert not [name for name in ("pwned", "pw1", "pw2") if sandbox.exists(f"/tmp/{name}")]
    assert [r[:2] for r in new_records(sandbox)] == [(A, 0), (bogus1, 1), (bogus2, 2), (B, 3)]
    # The texts reach the log, the tools and the files as they are.
    assert [r.message for r in sandbox.syslog()] == [
        f"__TOVELLOG__Client {m} associated to SSID {nasty}" for m in (A, B)]
    acl, beacon = [c.argv[8:] for c in sandbox.calls("snmptrap")]
    assert [acl[2], acl[5], acl[8], beacon[2]] == [
        "%n%n%n%n", "%s%s%s%s", "%x$(touch${IFS}/tmp/pwned)", "`touch${IFS}/tmp/pwned`;%n"]
    # A "MAC" that is none never reaches create_client_table.
    assert sandbox.calls("create_client_table") == []
    assert lines_of(sandbox, "Changing bandwidth") == [
        f"Changing bandwidth up rate for {A} from 0 to 64", f"Changing bandwidth down rate for {A} from 0 to 128"]
    # The MAC is the first 17 characters of its field: both VLAN lines apply.
    upstream = [c.argv for c in sandbox.calls("ebtables") if "svlan" in c.argv and "-s" in c.argv]
    assert sorted((c[3], c[-3]) for c in upstream) == [("-D", "20"), ("-D", "21"), ("-I", "20"), ("-I", "21")]
    # inet_addr of a text that is no address reads as 255.255.255.255.
    assert sandbox.commands("ip") == ["ip ro del 0.0.0.0 dev br7 table rt_portal",
                                      "ip ro add 255.255.255.255 dev br7 table rt_portal"]
    # A's leave report, garbled as it is, ends its association.
    assert macs(sandbox) == [A, bogus1, bogus2, B] and macs(sandbox, "/etc/clientip_assoc") == [B]
    assert sandbox.commands("radclient") == [] and sandbox.commands("iwpriv") == []

#!/usr/bin/python3
"""Watch clientmgr run a simulated access point, step by step.

The real daemon runs in the end-to-end sandbox (tests/e2e/sandbox.py) with two
VAPs, ath0 "Office" and ath1 "Guest". A scenario is played into its pipes on a
fast clock; after each step the client table (clientmgrctl list), the commands the
daemon ran, and the traps and syslog lines it raised are printed.

    scripts/demo [--fast] [--stubs]

--fast drops the pauses between steps; --stubs uses the recorders with canned
answers even when FreeRADIUS and snmptrapd are installed.
"""
import os
import shutil
import textwrap
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests/e2e"))
import radius_server  # noqa: E402
import sandbox as sandbox_lib  # noqa: E402

CTL = Path(os.environ.get("CLIENTMGR_BUILD", REPO / "build")) / "clientmgrctl"

OFFICE_BSSID, GUEST_BSSID = "00:0e:8e:5a:10:00", "00:0e:8e:5a:10:01"
LAPTOP, PHONE, TABLET = "3c:22:fb:1a:2b:3c", "a4:83:e7:44:55:66", "f0:18:98:77:88:99"
VISITOR, INTRUDER = "8c:85:90:12:34:56", "00:e0:4c:de:ad:01"
ROGUE = "00:1d:7e:aa:bb:cc"

CONFIG = {
    "AP_NAME": "demo-ap", "AP_MODE": "bridge", "WLAN1_SSID": "Office", "WLAN1_VLANID": "10",
    "WLAN1_BANDWIDTH_CONTROL": "enable", "WLAN1_CLIENT_BANDWIDTH_UPSTREAM": "1024",
    "WLAN1_CLIENT_BANDWIDTH_DOWNSTREAM": "4096",
    "WLAN2_SSID": "Guest", "WLAN2_VLANID": "20", "WLAN2_ACL_MODE": "3", "WLAN2_RADIUS": "enable",
    "WLAN2_DYNAMIC_VLAN": "optional", "WLAN2_RADIUS1_HOST": "127.0.0.1",
    "WLAN2_RADIUS1_SECRET": radius_server.SECRET, "WLAN2_RADIUS1_AUTHPORT": str(radius_server.AUTH_PORT),
    "SNMP_TRAP1_STATUS": "enable", "SNMP_TRAP1_IPADDR": "127.0.0.1", "SNMP_TRAP1_NAME": "public",
    "SNMP_COMM1_NAME": "public",
}
WIRELESS = {"WIFI_COUNT": "1", "WIFI0_DEV": "wifi0", "WIFI0_RADIO_POLICY": "ng",
            "WLAN1_ATH_LIST": "0", "WLAN2_ATH_LIST": "1", "ATH0_WLANID": "1", "ATH1_WLANID": "2",
            "ATH0_RADIO": "0", "ATH1_RADIO": "0"}
# The visitor is let in with VLAN 20; every other station is refused.
RADIUS_USERS = radius_server.user_entry(
    VISITOR.replace(":", ""), VISITOR.replace(":", ""),
    ["Tunnel-Type = VLAN", "Tunnel-Medium-Type = IEEE-802", 'Tunnel-Private-Group-Id = "20"']
) + radius_server.REJECT_OTHERS
CANNED_ACCEPT = ("Received Access-Accept Id 1 from 127.0.0.1:1812 to 127.0.0.1:40000 length 44\n"
                 "\tTunnel-Type:0 = VLAN\n\tTunnel-Medium-Type:0 = IEEE-802\n"
                 '\tTunnel-Private-Group-Id:0 = "20"\n')
CANNED_REJECT = "Received Access-Reject Id 2 from 127.0.0.1:1812 to 127.0.0.1:40000 length 20\n"

# Lets the daemon run an installed tool while its runs are still logged with
# the recorders' ones.
RECORDING_WRAPPER = """#!/usr/bin/python3 -IS
import json, os, sys
line = json.dumps({{"argv": [{name!r}] + sys.argv[1:], "stdout": "", "append": False}})
fd = os.open(os.environ["CLIENTMGR_SANDBOX"] + "/commands.log", os.O_WRONLY | os.O_APPEND)
os.write(fd, (line + "\\n").encode())
os.close(fd)
os.execve({real!r}, [{real!r}] + sys.argv[1:], dict(os.environ, SNMP_PERSISTENT_DIR={state!r}, MIBS=""))
"""

TTY = sys.stdout.isatty()
WIDTH = 80  # every line fits an 80-column terminal; longer texts wrap


def paint(code, text):
    return f"\033[{code}m{text}\033[0m" if TTY else text


def emit(label, text, color="", indent=None):
    """Prints label + text wrapped at WIDTH columns, later lines indented
    under the text (or by indent); only the label is painted."""
    pad = " " * (len(label) if indent is None else indent)
    lines = textwrap.wrap(text, WIDTH, initial_indent=label, subsequent_indent=pad,
                          break_long_words=True, break_on_hyphens=False) or [label]
    lines[0] = (paint(color, label) if color else label) + lines[0][len(label):]
    print("\n".join(lines))


TRAPS = {".1.1": "rogue AP", ".2.1": "client limit", ".3.1": "ACL mismatch", ".4.1": "no beacon"}


def trap_text(oid, values):
    name = next((n for suffix, n in TRAPS.items() if oid.endswith(suffix)), "VLAN failure")
    return f"{name} trap: " + " ".join(values)


def hms(seconds):
    seconds = int(seconds)
    return f"{seconds // 3600}:{seconds % 3600 // 60:02d}:{seconds % 60:02d}"


def why(call):
    """Why the daemon ran this command, when that is not plain from the
    command itself; None otherwise."""
    a, t = call.argv, call.text
    if call.tool == "killall":
        return "start-up: an iwevent left from an earlier run is ended (then with -9)"
    if call.tool == "iwevent":
        return f"start-up: iwevent is started again, its output appended to {call.stdout}"
    if call.tool == "ebtables" and a[1:2] == ["-V"]:
        return ("VLAN rules will be needed (MAC auth with dynamic VLANs on Guest): "
                "running ebtables makes sure its kernel module is loaded")
    if call.tool == "bandwidth_mgnt":
        return (f"ath{a[3]} has rate limits but no shaping tree yet (no /etc/wlan/bandwidth_mgnt/"
                f"per_client_set_{a[3]}): the init script builds it (a recorder here; the demo "
                "then makes that file as the script would)")
    if call.tool == "ebtables" and "mark" in a:
        return ("rate limit: the station's frames get a mark per direction, which the tc "
                "filters send to its classes" if a[1] == "-A" else
                "rate limit removed or about to change: the station's marks go first")
    if call.tool == "tc" and a[1] == "class":
        return ("rate limit: one HTB class per direction, ceil = kbit/s (upstream on the "
                "uplink eth1, downstream on the radio wifi0)" if a[2] == "add" else
                "the station's old classes are deleted")
    if call.tool == "tavo_client":
        event = {"21": "association", "22": "departure", "23": "client limit"}.get(a[2], a[2])
        return f"the notifier is told: event {a[2]} = {event} (station, BSSID, hex SSID, time)"
    if call.tool == "ip" and "rt_portal" in a:
        if a[3] == "0.0.0.0":
            return ("a new address: the captive-portal route of the old one is deleted first "
                    "(0.0.0.0: there was none); no portal on this WLAN, so none is added")
        return "the station left: the portal route of its address is deleted (if there was one)"
    if call.tool == "radclient":
        return "MAC authentication: the daemon asks the RADIUS server about the station"
    if call.tool == "iwpriv":
        code = t.rsplit(",", 1)[-1]
        return f"the driver gets the answer: {code} = " + ("accept" if code == "0" else "reject")
    if call.tool == "ebtables" and "svlan" in a:
        return ("the station's VLAN: broute rules tag what it sends and match what it "
                "receives" if "-I" in a else "the station's previous VLAN rules are removed")
    if call.tool == "snmptrap":
        return "an SNMP trap to the receiver in SNMP_TRAP1_IPADDR"
    return None


class Demo:
    def __init__(self, sb, pause, radius, traps_log):
        self.sb, self.pause, self.radius, self.traps_log = sb, pause, radius, traps_log
        self.step_no = 0
        self.seen = {"calls": 0, "syslog": 0, "stdout": 0, "traps": 0, "logins": 0}

    def send(self, pipe, line):
        emit(f"   {pipe} <- ", line, "2", indent=6)
        self.sb.write_fifo(pipe, line + "\n")
        self.sb.wait_idle(timeout=30)

    def iwevent(self, ifname, text):
        self.send("/etc/iwevent_pipe", f"{time.strftime('%H:%M:%S', time.localtime(self.sb.now()))}.000000"
                                       f"   {ifname}     {text}")

    def step(self, caption, minutes=2):
        self.step_no += 1
        if self.step_no > 1:
            self.sb.advance_time(minutes * 60)
        print()
        emit(f"[{self.step_no:2d}] ", f"uptime {hms(self.sb.uptime())}  {caption}", "1;36")

    def _new(self, key, items):
        new = items[self.seen[key]:]
        self.seen[key] = len(items)
        return new

    def commands(self, calls):
        """Each command whole (wrapped), under a line that says why it ran
        when that is not plain; one such line for a run of the same reason."""
        # Long lists: the queues and filters that go with each tc class are left out.
        routine = [c for c in calls if c.tool == "tc" and c.argv[1] in ("qdisc", "filter")]
        said = set()
        for call in calls if len(calls) <= 16 else [c for c in calls if c not in routine]:
            reason = why(call)
            if reason and reason not in said:
                emit("   # ", reason, "2")
                said.add(reason)
            emit("   $ ", call.text, "33", indent=7)
            if call.tool == "bandwidth_mgnt":
                self.sb.write(f"/etc/wlan/bandwidth_mgnt/per_client_set_{call.argv[3]}", "")
        if len(calls) > 16:
            emit("   $ ", f"... and {len(routine)} tc qdisc/filter commands for those classes", "33")

    def show(self, with_table=True):
        calls = self._new("calls", self.sb.calls())
        self.commands(calls)
        canned = self.sb.root / "stub-out/radclient"
        if self.radius is None and any(c.tool == "radclient" for c in calls):
            emit("   radclient (recorder) answered: ", canned.read_text().split()[1], "34")
        if self.radius is not None:
            for line in self._new("logins", self.radius.logins()):
                emit("   freeradius: ", line.split("Auth: ", 1)[-1].split(" (from")[0], "34")
        for line in self._new("stdout", self.sb.stdout().splitlines()):
            if line.startswith(("new record", "Changing", "check_expired", "clear:")):
                emit("   daemon: ", line, "32", indent=6)
        for rec in self._new("syslog", self.sb.syslog()):
            emit("   syslog: ", f"{rec.tag}: {rec.message}".strip(), "35", indent=6)
        if self.traps_log is not None:
            for line in self._new("traps", [l for l in self.traps_log.read_text(errors="replace").splitlines()
                                            if l.startswith("TRAP")]):
                binds = [b.split(" = ", 1)[1].split(": ", 1)[-1] for b in line.split("| ")[1:]]
                emit("   snmptrapd received: ", trap_text(binds[0], binds[1:]), "31", indent=6)
        else:
            for call in calls:
                if call.tool == "snmptrap":
                    values = [f'"{v}"' if t == "s" else v for t, v in zip(call.argv[9::3], call.argv[10::3])]
                    emit("   trap (recorded, not sent): ", trap_text(call.argv[7], values), "31", indent=6)
        if with_table:
            self.table()
            time.sleep(self.pause)

    def table(self):
        """The client table as `clientmgrctl list` shows it, run in the sandbox on the daemon's clock."""
        ctl = self.sb.root / "host" / "clientmgrctl"
        if not ctl.exists():
            shutil.copy2(CTL, ctl)
        out = self.sb.run_in_ns(["env", f"LD_PRELOAD={self.sb.shim_path}", f"CLIENTMGR_SANDBOX={self.sb.root}",
                                 str(ctl), "list"]).stdout.splitlines()
        print(paint("1", "   $ clientmgrctl list"))
        print(paint("1", "   " + out[0]))
        for line in out[1:] or ["(empty)"]:
            print("   " + line)


def start_trap_receiver(sb):
    """snmptrapd on the sandbox's 127.0.0.1:162, logging every trap to a file."""
    d = sb.root / "snmptrapd"
    d.mkdir()
    (d / "snmptrapd.conf").write_text("disableAuthorization yes\n")
    log = d / "traps.log"
    sb.spawn_in_ns(["env", f"SNMP_PERSISTENT_DIR={d}", "MIBS=", "snmptrapd", "-f", "-C", "-On",
                    "-c", str(d / "snmptrapd.conf"), "-Lf", str(log), "-F", "TRAP from %B: %V| %v\n",
                    "udp:127.0.0.1:162"],
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 10
    while not (log.exists() and "NET-SNMP" in log.read_text(errors="replace")):
        if time.monotonic() > deadline:
            raise sandbox_lib.SandboxError("snmptrapd did not start")
        time.sleep(0.05)
    return log


def record_real(sb, link, name, real):
    link.unlink()
    link.write_text(RECORDING_WRAPPER.format(name=name, real=real, state=str(sb.root / "snmptrapd")))
    link.chmod(0o755)


def prepare(sb, stubs):
    """Configuration, VAPs, and the RADIUS server and trap receiver (real or recorded)."""
    sb.write_config("/etc/masterconfig.apply", CONFIG)
    sb.write("/etc/masterconfig.applied", "")  # start-up then sets up MAC authentication
    sb.write_config("/var/run/wireless.status", WIRELESS)
    sb.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
    sb.set_lan_interfaces(["ath0", "ath1"])
    sb.add_interface("ath0", OFFICE_BSSID)
    sb.add_interface("ath1", GUEST_BSSID)
    sb.set_uptime(2 * 3600)
    radius = None
    if not stubs and radius_server.available() is None:
        radius = radius_server.RadiusServer(sb, RADIUS_USERS)
        radius.start()
        record_real(sb, sb.root / "bin/radclient", "radclient", shutil.which("radclient"))
        emit("RADIUS: ", "a private FreeRADIUS on 127.0.0.1:1812 (accepts the visitor with VLAN 20, "
                     "refuses the rest)")
    else:
        why = "--stubs" if stubs else "FreeRADIUS is not installed"
        emit("RADIUS: ", f"radclient is a recorder with canned answers ({why})")
    traps_log = None
    if not stubs and shutil.which("snmptrapd") and shutil.which("snmptrap"):
        traps_log = start_trap_receiver(sb)
        record_real(sb, sb.root / "shadow/usr-sbin/snmptrap", "/usr/sbin/snmptrap", shutil.which("snmptrap"))
        emit("SNMP:   ", "snmptrapd listens on 127.0.0.1:162; the daemon's traps go to it")
    else:
        why = "--stubs" if stubs else "snmptrapd is not installed"
        emit("SNMP:   ", f"snmptrap is a recorder, the traps are only shown ({why})")
    emit("Tools:  ", "tc, ebtables, ip, iwpriv, tavo_client and logger are recorders: their runs "
                     "are listed ($), with a line (#) that says why when that is not plain.")
    emit("Table:  ", "clientmgrctl list: /etc/clientip joined with /etc/clientip_assoc and "
                     "/etc/client_accu_stat. ON = associated now; JOINED, LEFT = time since the last "
                     "association and departure; JOIN/LEFT = how often; TX, RX = bytes.")
    return radius, traps_log


def scenario(demo, sb):
    demo.step("clientmgr starts: Office (ath0, bandwidth limits) and Guest (ath1, RADIUS MAC auth)")
    sb.start()
    demo.show()
    demo.step("A laptop and a phone join Office, a tablet joins Guest")
    sb.set_stations("ath0", 2)
    sb.set_stations("ath1", 1)
    for ifname, mac in (("ath0", LAPTOP), ("ath0", PHONE), ("ath1", TABLET)):
        demo.iwevent(ifname, f"Registered node {mac}")
    demo.show()
    demo.step("DHCP gives them addresses; the client table pipe reports them")
    for mac, ip, ifname in ((LAPTOP, "10.0.10.21", "ath0"), (PHONE, "10.0.10.22", "ath0"),
                            (TABLET, "10.0.20.31", "ath1")):
        demo.send("/etc/client_table_pipe", f"{mac} {ip} {ifname}")
    demo.show()
    demo.step("The phone roams from Office (ath0) to Guest (ath1): it registers on ath1, then ath0 "
              "reports its departure; DHCP gives it a Guest address")
    sb.set_stations("ath1", 2)
    demo.iwevent("ath1", f"Registered node {PHONE}")
    demo.show(with_table=False)
    sb.set_stations("ath0", 1)
    demo.iwevent("ath0", f"Expired node {PHONE}")
    demo.show(with_table=False)
    demo.send("/etc/client_table_pipe", f"{PHONE} 10.0.20.32 ath1")
    demo.show()
    demo.step("The controller sets the laptop's rate to 512 kbit/s up, 2048 down")
    demo.send("/etc/event_pipe", f"[BANDWIDTH_RATE_UPDATE] ath0 {LAPTOP} bw 512 2048")
    demo.show()
    demo.step("The laptop is moved into VLAN 30")
    demo.send("/etc/event_pipe", f"[STA_VLAN] ath0 {LAPTOP} vlan 30")
    demo.show()
    demo.step("A visitor asks to join Guest: the daemon asks RADIUS, which accepts (VLAN 20)")
    sb.stub_output("radclient", CANNED_ACCEPT)
    demo.send("/etc/event_pipe", f"{sb.now()} ath1 Halcyon.Wlan.Controller.Mgmt.auth {VISITOR}")
    demo.show(with_table=False)
    demo.iwevent("ath1", f"Registered node {VISITOR}")
    demo.show()
    demo.step("An unknown device asks to join Guest: RADIUS refuses it (authresp code 13)")
    sb.stub_output("radclient", CANNED_REJECT)
    demo.send("/etc/event_pipe", f"{sb.now()} ath1 Halcyon.Wlan.Controller.Mgmt.auth {INTRUDER}")
    demo.show()
    demo.step("The radio hears a new access point, \"FreeWiFi\": the daemon reports a rogue AP")
    sb.write("/proc/wifi0/neighbor_ap", f"{OFFICE_BSSID} 6 -40 0 11 0 100 0 1 0 54 [Office]\n"
                                        f"{ROGUE} 6 -62 0 11 0 1500 0 1 0 54 [FreeWiFi]\n")
    demo.iwevent("wifi0", f"New Access Point/Cell address: {ROGUE}")
    demo.show()
    demo.step("The tablet leaves Guest")
    sb.set_stations("ath1", 1)
    demo.iwevent("ath1", f"Expired node {TABLET}")
    demo.show()
    demo.step("31 minutes later a client-file refresh sweeps out the records of stations gone for "
              "30 minutes: the tablet's and the phone's old row on ath0", minutes=31)
    demo.send("/etc/event_pipe", "[REFRESH_CLIENT_FILE]")
    emit("   # ", "clearing the phone's old ath0 record releases its shaping once more "
                  "(the departure already did; the commands then find nothing to delete)", "2")
    demo.show(with_table=False)
    demo.table()


def main():
    args = sys.argv[1:]
    if set(args) - {"--fast", "--stubs"}:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    pause = 0 if "--fast" in args else 5.5
    emit("", "clientmgr demo: the real daemon in a private namespace, a simulated access point", "1")
    try:
        sb = sandbox_lib.Sandbox()
    except sandbox_lib.SandboxError as e:
        print(f"demo: {e}", file=sys.stderr)
        return 1
    radius = None
    try:
        radius, traps_log = prepare(sb, "--stubs" in args)
        time.sleep(pause / 2)
        scenario(Demo(sb, pause, radius, traps_log), sb)
        print()
        emit("", f"Done: {len(sb.calls())} commands run, {len(sb.syslog())} syslog lines; "
                 "the sandbox is removed now.", "1")
        return 0
    except (sandbox_lib.SandboxError, AssertionError) as e:
        print(f"demo: {e}\n{sb.report()}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    finally:
        if radius is not None:
            radius.stop()
        sb.close()


if __name__ == "__main__":
    sys.exit(main())

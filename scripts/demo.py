#!/usr/bin/python3
"""Watch clientmgr run a simulated access point, step by step.

The real daemon runs in the end-to-end sandbox (tests/e2e/sandbox.py) with two
VAPs, ath0 "Office" and ath1 "Guest". A scenario is played into its pipes on a
fast clock; after each step the client table (/etc/clientip), the commands the
daemon ran, and the traps and syslog lines it raised are printed.

    scripts/demo [--fast] [--stubs]

--fast drops the pauses between steps; --stubs uses the recorders with canned
answers even when FreeRADIUS and snmptrapd are installed.
"""
import shutil
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests/e2e"))
import radius_server  # noqa: E402
import sandbox as sandbox_lib  # noqa: E402

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


def paint(code, text):
    return f"\033[{code}m{text}\033[0m" if TTY else text


def short(text, width=110):
    return text if len(text) <= width else text[:width - 3] + "..."


TRAPS = {".1.1": "rogue AP", ".2.1": "client limit", ".3.1": "ACL mismatch", ".4.1": "no beacon"}


def trap_text(oid, values):
    name = next((n for suffix, n in TRAPS.items() if oid.endswith(suffix)), "VLAN failure")
    return short(f"{name} trap: " + " ".join(values))


def hms(seconds):
    seconds = int(seconds)
    return f"{seconds // 3600}:{seconds % 3600 // 60:02d}:{seconds % 60:02d}"


class Demo:
    def __init__(self, sb, pause, radius, traps_log):
        self.sb, self.pause, self.radius, self.traps_log = sb, pause, radius, traps_log
        self.step_no = 0
        self.seen = {"calls": 0, "syslog": 0, "stdout": 0, "traps": 0, "logins": 0}

    def send(self, pipe, line):
        print(paint("2", f"   {pipe} <- {line}"))
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
        print(paint("1;36", f"[{self.step_no:2d}] uptime {hms(self.sb.uptime())}  {caption}"))

    def _new(self, key, items):
        new = items[self.seen[key]:]
        self.seen[key] = len(items)
        return new

    def show(self, with_table=True):
        calls = self._new("calls", self.sb.calls())
        # Long lists: the queues and filters that go with each tc class are left out.
        routine = [c for c in calls if c.tool == "tc" and c.argv[1] in ("qdisc", "filter")]
        for call in calls if len(calls) <= 16 else [c for c in calls if c not in routine]:
            print(paint("33", "   $ ") + short(call.text))
        if len(calls) > 16:
            print(paint("33", f"   $ ... and {len(routine)} tc qdisc/filter commands for those classes"))
        canned = self.sb.root / "stub-out/radclient"
        if self.radius is None and any(c.tool == "radclient" for c in calls):
            print(paint("34", "   radclient (recorder) answered: ") + canned.read_text().split()[1])
        if self.radius is not None:
            for line in self._new("logins", self.radius.logins()):
                print(paint("34", "   freeradius: ") + line.split("Auth: ", 1)[-1].split(" (from")[0])
        for line in self._new("stdout", self.sb.stdout().splitlines()):
            if line.startswith(("new record", "Changing", "check_expired", "clear:")):
                print(paint("32", "   daemon: ") + line)
        for rec in self._new("syslog", self.sb.syslog()):
            print(paint("35", "   syslog: ") + f"{rec.tag}: {rec.message}".strip())
        if self.traps_log is not None:
            for line in self._new("traps", [l for l in self.traps_log.read_text(errors="replace").splitlines()
                                            if l.startswith("TRAP")]):
                binds = [b.split(" = ", 1)[1].split(": ", 1)[-1] for b in line.split("| ")[1:]]
                print(paint("31", "   snmptrapd received: ") + trap_text(binds[0], binds[1:]))
        else:
            for call in calls:
                if call.tool == "snmptrap":
                    values = [f'"{v}"' if t == "s" else v for t, v in zip(call.argv[9::3], call.argv[10::3])]
                    print(paint("31", "   trap (recorded, not sent): ") + trap_text(call.argv[7], values))
        if with_table:
            self.table()
            time.sleep(self.pause)

    def table(self):
        text = self.sb.read("/etc/clientip") if self.sb.exists("/etc/clientip") else ""
        assoc = self.sb.read("/etc/clientip_assoc") if self.sb.exists("/etc/clientip_assoc") else ""
        print(paint("1", "   /etc/clientip:  VAP   MAC                IP              here  assoc at  left at   #in #out"))
        if not text.strip():
            print("                   (empty)")
        for line in text.splitlines():
            f = line.split()
            vap, mac = f[0].split(":", 1)
            here = "yes" if line.split()[0] in assoc else "-"
            left = hms(int(f[3])) if int(f[3]) else "-"
            print(f"                   {vap:<5} {mac}  {f[1]:<15} {here:<5} {hms(int(f[2])):<9} {left:<9}"
                  f" {f[4]:>3} {f[5]:>4}")


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
        print("RADIUS: a private FreeRADIUS on 127.0.0.1:1812 (accepts the visitor with VLAN 20, refuses the rest)")
    else:
        why = "--stubs" if stubs else "FreeRADIUS is not installed"
        print(f"RADIUS: radclient is a recorder with canned answers ({why})")
    traps_log = None
    if not stubs and shutil.which("snmptrapd") and shutil.which("snmptrap"):
        traps_log = start_trap_receiver(sb)
        record_real(sb, sb.root / "shadow/usr-sbin/snmptrap", "/usr/sbin/snmptrap", shutil.which("snmptrap"))
        print("SNMP:   snmptrapd listens on 127.0.0.1:162; the daemon's traps go to it")
    else:
        why = "--stubs" if stubs else "snmptrapd is not installed"
        print(f"SNMP:   snmptrap is a recorder, the traps are only shown ({why})")
    print("Other tools (tc, ebtables, ip, iwpriv, tavo_client, logger) are recorders: their runs are listed.")
    print("Client table: 'here' = in /etc/clientip_assoc (associated now); 'assoc at', 'left at' = uptime of\n"
          "the last association and departure; #in, #out = how often it associated and left.")
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
    demo.step("The phone roams from Office (ath0) to Guest (ath1) and gets a Guest address")
    sb.set_stations("ath0", 1)
    sb.set_stations("ath1", 2)
    demo.iwevent("ath1", f"Registered node {PHONE}")
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
    demo.step("31 minutes later a client-file refresh sweeps out the tablet's record", minutes=31)
    demo.send("/etc/event_pipe", "[REFRESH_CLIENT_FILE]")
    demo.show(with_table=False)
    demo.table()


def main():
    args = sys.argv[1:]
    if set(args) - {"--fast", "--stubs"}:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    pause = 0 if "--fast" in args else 5.5
    print(paint("1", "clientmgr demo: the real daemon in a private namespace, a simulated access point"))
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
        print(paint("1", f"\nDone: {len(sb.calls())} commands run, {len(sb.syslog())} syslog lines; "
                         "the sandbox is removed now."))
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

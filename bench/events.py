#!/usr/bin/python3
"""What one event costs the real daemon, and how much memory it keeps.

Drives build/clientmgr inside the end-to-end sandbox (tests/e2e/sandbox.py,
run as root) and prints every figure as a ratio against its floor or its
1-client value:

  instructions  own instructions (callgrind, children not traced) of one
                association, a re-association and [REFRESH_CLIENT_FILE] with
                255 clients in the table vs 1
  burst         256 stations associating as fast as the pipe takes them vs
                running the same command texts through /bin/sh -c one after
                another in the same sandbox (wall clock, median of --runs)
  single        one association, "Registered" line in to the station in
                /etc/clientip_assoc, vs the same floor (median of 30 x --runs
                ratios, each run beside its own floor, the median of five
                spawns; the daemon has handled one association before, as a
                running one has, and the first association after start-up is
                printed alongside; /dev/log is read between runs, and
                tavo_client is a small C recorder, bench/notifier_stub.c)
  memory        Private_Dirty (smaps) idle and with 256 clients, without the
                pages of the sandbox's preloaded shim, stdbuf library and
                clock-count file (printed apart)
  macauth       VmSize and Private_Dirty before and after 100 MAC-auth
                requests (stubbed radclient)

  /usr/bin/python3 bench/events.py [--build DIR] [--runs N] [--etc-overlay | --etc-on-disk] [FIGURE ...]

The daemon rewrites its client files in /etc on every event, so an access
point keeps /etc in RAM: here /etc is a tmpfs too, holding a copy of this
machine's /etc. The end-to-end tests' /etc is an overlay over the machine's
instead, where creating and renaming a file go through both layers (about
20 us more per replaced file); --etc-overlay measures on that overlay with its
writable layer on a tmpfs, --etc-on-disk with it on this machine's disk, where
(ext4 mounted with discard) each replaced file costs a synchronous discard.

Timings are medians; instruction counts are what to trust on a loaded
machine. Speed and memory are never asserted in the tests.
"""
import argparse
import ctypes
import glob
import os
import re
import select
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "tests" / "e2e"))

import sandbox as sandbox_lib  # noqa: E402
from helpers_clients import STAMP, two_vaps  # noqa: E402

CHUNK = 1023  # the daemon reads its pipes 1023 bytes at a time
# mapped into the daemon by the sandbox only: its preloaded shim, stdbuf's
# library and the shim's count of clock changes
SANDBOX_MAPPINGS = ("/clientmgr_shim.so", "/libstdbuf.so", "/shim.gen")
ACCEPT = "Received response ID 1, code 2, length = 20\n"
ETC_SIZE = "16m"  # the size of the tmpfs /etc is (or its writable layer is); None: on disk
ETC_COPY = True   # /etc is that tmpfs, a copy of this machine's; False: an overlay over it


def station(i):
    return f"00:5e:00:00:{i >> 8:02x}:{i & 255:02x}"


def registered(i, ath="ath0"):
    return f"{STAMP}   {ath}     Registered node:{station(i)}\n"


def auth_request(i):
    return f"wlan ath0 Halcyon.Wlan.Controller.Mgmt.auth {station(i)}\n"


def chunks(lines):
    """Whole lines grouped into writes the daemon reads in one piece."""
    out, cur = [], ""
    for line in lines:
        if len(cur) + len(line) > CHUNK:
            out.append(cur)
            cur = ""
        cur += line
    return out + [cur] if cur else out


class Bench(sandbox_lib.Sandbox):
    """A sandbox whose daemon may run under a wrapper (valgrind)."""

    def __init__(self):
        super().__init__(etc_size=ETC_SIZE, etc_copy=ETC_COPY)
        # Pages of a freshly copied binary count as dirty until written back.
        for path in (self.daemon_path, self.shim_path):
            fd = os.open(path, os.O_RDONLY)
            os.fsync(fd)
            os.close(fd)

    def pause_syslog(self):
        """Stops the sandbox's Python reader of /dev/log: each record woke it,
        and it could take the daemon's CPU in the middle of a timed event (a
        device's syslogd is a small C program). Records then wait in the
        socket until drain_syslog()."""
        self._syslog.pause()

    def drain_syslog(self):
        self._syslog.records()

    def start_wrapped(self, prefix, comm, timeout=5):
        env = {"PATH": f"{self.root}/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
               "LD_PRELOAD": str(self.shim_path), "CLIENTMGR_SANDBOX": str(self.root), "HOME": "/root",
               "LANG": "C"}
        with open(self.root / "stdout", "wb") as out, open(self.root / "stderr", "wb") as err:
            self._proc = subprocess.Popen(self._nsenter + ["--", "stdbuf", "-oL", *prefix, str(self.daemon_path)],
                                          stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=env, umask=0o022)
        self.pid = None
        deadline = time.monotonic() + 30
        while self._proc.poll() is None and time.monotonic() < deadline and self.pid is None:
            kids = sandbox_lib._children(self._proc.pid)
            if kids and sandbox_lib._read(f"/proc/{kids[0]}/comm").strip().startswith(comm):
                self.pid = kids[0]
            time.sleep(0.01)
        self.wait_idle(timeout)

    def stop(self):
        if self._proc is not None and self._proc.poll() is None:
            os.kill(self.pid, signal.SIGTERM)
            self._proc.wait(30)
        self._proc = None

    def restart(self):
        self.stop()
        self.start()

    def ns_env(self):
        return {"PATH": f"{self.root}/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LD_PRELOAD": str(self.shim_path),
                "CLIENTMGR_SANDBOX": str(self.root), "HOME": "/root", "LANG": "C"}

    def command_count(self):
        with open(self.root / "commands.log") as f:
            return sum(1 for _ in f)

    def feed(self, pipe, lines, timeout=5):
        """Writes the lines in whole-line pieces, each as soon as the pipe is
        empty again, then waits until the daemon is idle."""
        path = f"/proc/{self.pid}/root{pipe}"
        for piece in chunks(lines):
            while sandbox_lib._fifo_pending(path):
                time.sleep(0.0002)
            self.write_fifo(pipe, piece)
        self.wait_idle(timeout)

    def lines_in(self, path):
        try:
            return self.host_path(path).read_text().count("\n")
        except FileNotFoundError:
            return 0

    def private(self):
        """(Private_Dirty of the daemon's own mappings, Private_Clean +
        Private_Dirty of them, VmSize, Private_Dirty of the sandbox's own
        libraries) in KiB. The test shim and stdbuf's library are preloaded
        by the sandbox only (a device has neither), so their pages are
        counted apart."""
        dirty = clean = sandbox = 0
        name = ""
        for line in Path(f"/proc/{self.pid}/smaps").read_text().splitlines():
            head = re.match(r"^[0-9a-f]+-[0-9a-f]+ \S+ \S+ \S+ \S+\s*(.*)$", line)
            if head:
                name = head.group(1)
                continue
            field = re.match(r"^(Private_Dirty|Private_Clean):\s+(\d+) kB", line)
            if not field:
                continue
            kib = int(field.group(2))
            if name.endswith(SANDBOX_MAPPINGS):
                sandbox += kib if field.group(1) == "Private_Dirty" else 0
            elif field.group(1) == "Private_Dirty":
                dirty += kib
            else:
                clean += kib
        status = dict(re.findall(r"^(\w+):\s+(\d+) kB", Path(f"/proc/{self.pid}/status").read_text(), re.M))
        return dirty, dirty + clean, int(status["VmSize"]), sandbox


def new_bench():
    sb = Bench()
    two_vaps(sb)
    return sb


# ----- floor: the same command texts through /bin/sh -c, one after another

FLOOR_DRIVER = r'''
import os, sys, time
texts = open(sys.argv[1]).read().split("\0")[:-1]
log, expected, runs = sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
env = {k: v for k, v in (a.split("=", 1) for a in sys.argv[5:])}
def logged():
    with open(log) as f:
        return sum(1 for _ in f)
times = []
for _ in range(runs):
    while logged() < expected:
        time.sleep(0.001)
    expected += len(texts) if sys.argv[3] != "0" else 0
    t0 = time.monotonic()
    for t in texts:
        pid = os.posix_spawn("/bin/sh", ["sh", "-c", t], env)
        os.waitpid(pid, 0)
    if sys.argv[3] != "0":
        while logged() < expected:
            time.sleep(0.0005)
    times.append(time.monotonic() - t0)
    if sys.argv[3] == "0":
        time.sleep(0.05)
print(" ".join(map(str, times)))
'''


def floor_times(sb, texts, runs, wait_for_stubs):
    """Seconds to run the texts through /bin/sh -c in the sandbox, runs times."""
    (sb.root / "floor.py").write_text(FLOOR_DRIVER)
    (sb.root / "floor.txt").write_text("".join(t + "\0" for t in texts))
    expected = sb.command_count() if wait_for_stubs else 0
    # The daemon's own environment, which its shells inherit: in the sandbox
    # it preloads the shim and stdbuf's library too.
    environ = Path(f"/proc/{sb.pid}/environ").read_bytes().split(b"\0")
    env = [v.decode() for v in environ if b"=" in v]
    out = sb.run_in_ns(["/usr/bin/python3", str(sb.root / "floor.py"), str(sb.root / "floor.txt"),
                        str(sb.root / "commands.log"), str(expected), str(runs), *env], timeout=600).stdout
    return [float(x) for x in out.split()]


def command_texts(sb, since):
    """The texts the daemon ran, as it prints them ("cmd: ...")."""
    return [l[len("cmd: "):] for l in sb.stdout()[since:].splitlines() if l.startswith("cmd: ")]


# ----- figures

def callgrind_totals(pattern):
    totals = {}
    for f in glob.glob(pattern):
        text = Path(f).read_text(errors="replace")
        m = re.search(r"^(?:summary|totals):\s+(\d+)", text, re.M)
        totals[f] = int(m[1]) if m else 0
    return totals


def interpreter_symbol(daemon):
    """The full demangled name of the event interpreter in the binary."""
    names = subprocess.run(["nm", "-C", str(daemon)], capture_output=True, text=True, check=True).stdout
    for line in names.splitlines():
        name = line.split(" ", 2)[-1]
        if name.startswith("daemon_core::interpret_events(") and "[clone" not in name:
            return name
    raise RuntimeError(f"no daemon_core::interpret_events in {daemon}")


def instructions(args):
    """Own instructions of one interpreter call per event, 255 clients vs 1."""
    results = {}
    for clients in (1, 255):
        sb = new_bench()
        try:
            out = sb.root / "cg.out"
            sb.start_wrapped(["valgrind", "--tool=callgrind", "--collect-atstart=no",
                              "--toggle-collect=daemon_core::interpret_events*",
                              # a dump after every interpreter call (wildcards do not work here)
                              f"--dump-after={interpreter_symbol(sb.daemon_path)}",
                              f"--callgrind-out-file={out}.%p"], "callgrind", timeout=120)
            sb.feed("/etc/iwevent_pipe", [registered(i) for i in range(1, clients)], timeout=600)

            def one(pipe, text):
                before = callgrind_totals(f"{out}.*")
                sb.write_fifo(pipe, text)
                sb.wait_idle(120)
                after = callgrind_totals(f"{out}.*")
                return sum(v for k, v in after.items() if k not in before)

            row = {"association": one("/etc/iwevent_pipe", registered(0)),
                   "re-association": one("/etc/iwevent_pipe", registered(1 if clients > 1 else 0)),
                   "[REFRESH_CLIENT_FILE]": one("/etc/event_pipe", "[REFRESH_CLIENT_FILE]\n")}
            assert sb.lines_in("/etc/clientip") == clients, sb.read("/etc/clientip")
            results[clients] = row
        finally:
            sb.close()
    for event in results[1]:
        a, b = results[255][event], results[1][event]
        print(f"instructions {event:24s} 255 clients {a / 1e3:9.1f} k / 1 client {b / 1e3:7.1f} k"
              f" = {a / b:5.2f}x   (target <= 1.5x)")


def burst(args):
    """256 stations as fast as the pipe takes them vs the /bin/sh -c floor."""
    sb = new_bench()
    try:
        daemon, floor = [], []
        for _ in range(args.runs):
            sb.restart()
            since, base = len(sb.stdout()), sb.command_count()
            lines = [registered(i) for i in range(256)]
            path = f"/proc/{sb.pid}/root/etc/iwevent_pipe"
            t0 = time.monotonic()
            for piece in chunks(lines):
                while sandbox_lib._fifo_pending(path):
                    time.sleep(0.0002)
                sb.write_fifo("/etc/iwevent_pipe", piece)
            while sb.command_count() < base + 256 or sb.lines_in("/etc/clientip_assoc") < 256:
                time.sleep(0.0005)
            daemon.append(time.monotonic() - t0)
            sb.wait_idle(30)
            texts = command_texts(sb, since)
            assert len(texts) == 256, len(texts)
            floor += floor_times(sb, texts, 1, True)
        d, f = statistics.median(daemon), statistics.median(floor)
        print(f"burst        256 stations {d * 1e3:8.1f} ms / floor {f * 1e3:8.1f} ms = {d / f:5.2f}x"
              f"   (target <= 1.2x; {args.runs} runs)")
    finally:
        sb.close()


class FileWatch:
    """Wakes when a file of the sandbox is replaced by a rename (inotify: on
    the file itself, whose link count the rename drops, or on its directory
    while it does not exist yet): the moment a rewrite lands is seen without
    polling, which would take CPU from the daemon, and without waking for the
    daemon's other files."""

    IN_MODIFY, IN_ATTRIB, IN_MOVED_TO, IN_DELETE_SELF = 0x2, 0x4, 0x80, 0x400
    IN_CLOEXEC = 0o2000000

    def __init__(self, sb, path):
        libc = ctypes.CDLL(None, use_errno=True)
        self.path = sb.host_path(path)
        self.fd = libc.inotify_init1(self.IN_CLOEXEC)
        target, mask = self.path, self.IN_MODIFY | self.IN_ATTRIB | self.IN_DELETE_SELF
        if not self.path.exists():
            target, mask = self.path.parent, self.IN_MOVED_TO
        if self.fd < 0 or libc.inotify_add_watch(self.fd, str(target).encode(), mask) < 0:
            raise OSError(ctypes.get_errno(), f"inotify on {target}")

    def wait_for(self, text, timeout=10):
        """time.monotonic() when the change that put text into the file was
        seen (reading and checking the file come after that moment)."""
        deadline = time.monotonic() + timeout
        while True:
            if not select.select([self.fd], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError(f"{text!r} not in {self.path}")
            seen = time.monotonic()
            os.read(self.fd, 65536)
            try:
                if text in self.path.read_text():
                    return seen
            except FileNotFoundError:
                pass

    def close(self):
        os.close(self.fd)


def timed_association(sb, i):
    """Seconds from the "Registered" line for station i to the station in
    /etc/clientip_assoc."""
    watch = FileWatch(sb, "/etc/clientip_assoc")
    fifo = os.open(f"/proc/{sb.pid}/root/etc/iwevent_pipe", os.O_WRONLY | os.O_NONBLOCK)
    try:
        line = registered(i).encode()
        t0 = time.monotonic()
        os.write(fifo, line)
        return watch.wait_for(station(i)) - t0
    finally:
        os.close(fifo)
        watch.close()


def use_c_notifier(sb):
    """Puts the C stand-in for tavo_client (bench/notifier_stub.c) into the
    sandbox in place of the Python recorder. False when there is no C
    compiler; the Python recorder stays then."""
    binary = sb.root / "notifier_stub"
    built = subprocess.run(["cc", "-O2", "-o", str(binary), str(REPO / "bench" / "notifier_stub.c")],
                           capture_output=True)
    if built.returncode != 0:
        return False
    link = sb.root / "bin" / "tavo_client"
    link.unlink()
    link.symlink_to(binary)
    return True


def single(args):
    """One association: line in to the station in /etc/clientip_assoc."""
    sb = new_bench()
    try:
        first, daemon, floor = [], [], []
        runs = 30 * args.runs
        notifier = "C" if use_c_notifier(sb) else "Python (no C compiler)"
        sb.pause_syslog()
        # What earlier figures wrote (the burst's logs) is written back now,
        # not during the timed runs.
        os.sync()
        time.sleep(1)
        for _ in range(runs):
            sb.restart()
            first.append(timed_association(sb, 1))
            sb.wait_idle()
            since = len(sb.stdout())
            daemon.append(timed_association(sb, 0))
            sb.wait_idle()
            sb.drain_syslog()
            # Its floor right after it, as the median of five runs: the
            # machine's speed drifts, and one spawn of the same text varies by
            # up to 2x here. The driver's first spawn warms it up and is not
            # counted.
            floor.append(statistics.median(floor_times(sb, command_texts(sb, since), 6, False)[1:]))
        ratio = statistics.median(d / f for d, f in zip(daemon, floor))
        first_ratio = statistics.median(c / f for c, f in zip(first, floor))
        d, f, c = statistics.median(daemon), statistics.median(floor), statistics.median(first)
        print(f"single       one association {d * 1e3:6.2f} ms / floor {f * 1e3:6.2f} ms: {ratio:5.2f}x"
              f"   (target <= 1.2x; median of {runs} side-by-side ratios; the first association"
              f" after start-up {c * 1e3:.2f} ms: {first_ratio:4.2f}x; {notifier} stand-in for tavo_client)")
    finally:
        sb.close()


def memory(args):
    """Private memory idle and with 256 clients."""
    sb = new_bench()
    try:
        sb.start()
        time.sleep(0.2)
        idle = sb.private()
        sb.feed("/etc/iwevent_pipe", [registered(i) for i in range(256)], timeout=60)
        full = sb.private()
        assert sb.lines_in("/etc/clientip_assoc") == 256
        print(f"memory       Private_Dirty idle {idle[0]} KiB / 256 clients {full[0]} KiB"
              f" = {idle[0] / 256:4.2f}x / {full[0] / 256:4.2f}x of 256 KiB   (target <= 1x;"
              f" private in all {idle[1]} / {full[1]} KiB; the sandbox's shim, stdbuf and clock count"
              f" {idle[3]} / {full[3]} KiB more)")
    finally:
        sb.close()


def macauth(args):
    """VmSize and Private_Dirty before and after 100 MAC-auth requests."""
    sb = Bench()
    try:
        config = {"AP_MODE": "bridge", "WLAN1_ACL_MODE": "3", "WLAN1_RADIUS": "disable",
                  "RADIUS1_HOST": "127.0.0.1", "RADIUS1_SECRET": "s3cret", "RADIUS1_AUTHPORT": "1812"}
        two_vaps(sb, config)
        sb.write("/etc/masterconfig.applied", "")
        sb.write_config("/etc/net/wan.status", {"ipaddr": "192.168.1.2"})
        sb.stub_output("radclient", ACCEPT)
        sb.start()
        time.sleep(0.2)
        before = sb.private()
        sb.feed("/etc/event_pipe", [auth_request(i) for i in range(100)], timeout=300)
        answered = len(sb.commands("iwpriv"))  # at most 8 workers at a time: the rest are refused
        sb.poke()  # one more loop pass, as the 30-second select time-out would give
        time.sleep(0.2)
        after = sb.private()
        print(f"macauth      100 requests ({answered} answered): VmSize {before[2]} -> {after[2]} KiB,"
              f" Private_Dirty {before[0]} -> {after[0]} KiB ({after[0] - before[0]:+d} KiB;"
              f" target within 64 KiB)")
    finally:
        sb.close()


FIGURES = {"instructions": instructions, "burst": burst, "single": single, "memory": memory, "macauth": macauth}


def main():
    global ETC_SIZE, ETC_COPY
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=str(REPO / "build"), help="build directory (default: build)")
    parser.add_argument("--runs", type=int, default=5, help="timing repeats (default 5)")
    etc = parser.add_mutually_exclusive_group()
    etc.add_argument("--etc-overlay", action="store_true",
                     help="/etc as in the end-to-end tests: an overlay over this machine's, writable layer on a tmpfs")
    etc.add_argument("--etc-on-disk", action="store_true",
                     help="the same overlay with its writable layer on this machine's disk")
    parser.add_argument("figures", nargs="*", help=f"any of {', '.join(FIGURES)} (default: all)")
    args = parser.parse_args()
    for name in args.figures:
        if name not in FIGURES:
            parser.error(f"unknown figure {name}")
    os.environ["CLIENTMGR_BUILD"] = args.build
    if args.etc_overlay or args.etc_on_disk:
        ETC_COPY = False
    if args.etc_on_disk:
        ETC_SIZE = None
    for name in args.figures or FIGURES:
        FIGURES[name](args)
        sys.stdout.flush()


if __name__ == "__main__":
    main()

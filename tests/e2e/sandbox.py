"""Runs the real daemon inside private mount, network and pid namespaces:
its fixed paths hold the sandbox's files (nsinit.sh), the external tools are
recorders (stub.py), and a preloaded shim (shim/shim.cpp) moves the clocks and
answers the driver's station request. See README.md."""
import contextlib
import fcntl
import json
import math
import os
import re
import select
import shlex
import shutil
import socket
import stat
import struct
import subprocess
import tempfile
import termios
import threading
import time
from collections import namedtuple
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
REPO = HERE.parent.parent

# Tools the daemon runs by name through the shell (found on PATH) and by path.
PATH_TOOLS = ("killall", "iwevent", "iwpriv", "radclient", "create_client_table",
              "tc", "ip", "ebtables", "logger", "tavo_client")
SBIN_TOOLS = ("/usr/sbin/snmptrap", "/sbin/ebtables")
INIT_SCRIPT = "/etc/rc.d/init.d/bandwidth_mgnt"
PIPES = ("/etc/iwevent_pipe", "/etc/event_pipe", "/etc/client_table_pipe")

# Syscalls in which the daemon's main thread waits for its sources.
SELECT_SYSCALLS = {"x86_64": {"23", "270"}, "aarch64": {"72"}}.get(os.uname().machine, set())
# A target build's daemon runs through qemu-user when this names it with its
# library root ("qemu-mips -L /usr/mips-linux-gnu"); the shim of that build
# is the target's and is preloaded into the guest. qemu-user keeps one thread
# of its own besides the daemon's.
QEMU = shlex.split(os.environ.get("CLIENTMGR_QEMU", ""))
IDLE_THREADS = 2 if QEMU else 1
SLOWDOWN = 2 if QEMU else 1  # emulated, every command the daemon starts takes longer


class SandboxError(Exception):
    pass


def needs_user_namespace():
    """False as root, True when an unprivileged user namespace will do; else raises."""
    if os.geteuid() == 0:
        return False
    probe = subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "--net", "--pid",
                            "--fork", "true"], capture_output=True)
    if probe.returncode != 0:
        raise SandboxError("the e2e sandbox needs root or unprivileged user namespaces: "
                           + probe.stderr.decode().strip())
    return True


@dataclass
class Call:
    """One recorded run of a stubbed tool."""
    argv: list
    stdout: str      # where its standard output went (path as seen in the sandbox)
    append: bool     # standard output opened with O_APPEND (">>")

    @property
    def tool(self):
        return os.path.basename(self.argv[0])

    @property
    def text(self):
        return shlex.join(self.argv)


# priority 0..7 (6 = LOG_INFO), tag without "[pid]"
SyslogRecord = namedtuple("SyslogRecord", "priority tag message")


def _syslog_record(data):
    text = data.decode(errors="replace")
    m = re.match(r"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^:\[]*)(?:\[\d+\])?: (.*)$", text, re.S)
    return SyslogRecord(int(m[1]) & 7, m[2], m[3]) if m else SyslogRecord(-1, "", text)


class _SyslogCollector:
    """Receives the datagrams sent to /dev/log (it must keep reading: a full
    queue would block the daemon in syslog())."""

    def __init__(self, path):
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._sock.bind(str(path))
        os.chmod(path, 0o666)
        self._sock.setblocking(False)
        self._records = []
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop.is_set():
            select.select([self._sock], [], [], 0.05)
            self.records()

    def records(self):
        with self._lock:
            while True:
                try:
                    self._records.append(_syslog_record(self._sock.recv(65536)))
                except BlockingIOError:
                    return list(self._records)

    def pause(self):
        """Stops reading until records() is called (a benchmark's timed
        event should not share the CPU with this thread); the records wait
        in the socket meanwhile."""
        self._stop.set()
        self._thread.join()

    def close(self):
        self.pause()
        self._sock.close()


class Sandbox:
    """One private world for one daemon run, created with everything stubbed,
    no interfaces and an empty master configuration; close() removes it.
    etc_size (tmpfs size, e.g. "1m") puts what is written to /etc on a
    file system of that size, which a test can fill. With etc_copy that
    tmpfs is /etc itself, a copy of the host's (a benchmark's /etc in RAM);
    otherwise /etc is an overlay over the host's."""

    def __init__(self, etc_size=None, etc_copy=False):
        build = Path(os.environ.get("CLIENTMGR_BUILD", REPO / "build"))
        self.daemon_path, self.shim_path = build / "clientmgr", build / "clientmgr_shim.so"
        for f in (self.daemon_path, self.shim_path):
            if not f.exists():
                raise SandboxError(f"{f} missing: build the targets clientmgr and e2e_shim")
        self.userns = needs_user_namespace()
        base = os.environ.get("CLIENTMGR_E2E_TMPDIR", "/var/tmp")
        if re.match(r"/(tmp|run|var/run|etc|proc|dev)(/|$)", os.path.realpath(base)):
            raise SandboxError(f"{base} is hidden inside the sandbox; choose another CLIENTMGR_E2E_TMPDIR")
        self.root = Path(tempfile.mkdtemp(prefix="clientmgr-e2e-", dir=base))
        os.chmod(self.root, 0o755)  # tools that drop privileges reach /dev/log through it
        self._proc = self.pid = None   # nsenter running the daemon; the daemon's pid on the host
        self._time_offset = self._uptime_offset = self._ifaces = self._shim_generation = 0
        self._stations = {}
        self._syslog = self._init = self._init_pid = None  # _init: unshare, parent of the sandbox's pid 1
        self._peers = []           # processes of spawn_in_ns
        try:
            self._prepare()
            if etc_size:
                (self.root / "etc-rw").mkdir()
                (self.root / "etc-size").write_text(etc_size)
                if etc_copy:
                    (self.root / "etc-copy").write_text("")
            self._start_namespace()
        except BaseException:
            self.close()
            raise

    # ----- set-up -----

    def _prepare(self):
        r = self.root
        for d in ("etc-upper/rc.d/init.d", "etc-work", "tmp", "run", "bin", "stub-out",
                  "mnt/proc", "mnt/dev", "mnt/usr-sbin", "shadow/dev", "shadow/usr-sbin",
                  *(f"shadow/proc/wifi{n}" for n in range(4))):
            (r / d).mkdir(parents=True)
        os.chmod(r / "tmp", 0o1777)
        # The checkout may sit under /tmp or /run, which the sandbox covers:
        # everything used inside it is copied into the sandbox directory.
        (r / "host").mkdir()
        for src in (self.daemon_path, self.shim_path, HERE / "stub.py", HERE / "nsinit.sh"):
            shutil.copy2(src, r / "host" / src.name)
        self.daemon_path = r / "host" / self.daemon_path.name
        self.shim_path = r / "host" / self.shim_path.name
        stub = str(r / "host" / "stub.py")
        for tool in PATH_TOOLS:
            os.symlink(stub, r / "bin" / tool)
        for path in SBIN_TOOLS:
            os.symlink(stub, r / "shadow/usr-sbin" / os.path.basename(path))
        os.symlink(stub, r / "etc-upper" / INIT_SCRIPT[len("/etc/"):])
        for f in ("commands.log", "stdout", "stderr"):
            (r / f).touch()
        self._write_shim_conf()
        self._syslog = _SyslogCollector(r / "shadow/dev/log")

    def _start_namespace(self):
        user = ["--user", "--map-root-user"] if self.userns else []
        with open(self.root / "nsinit.log", "wb") as log:
            self._init = subprocess.Popen(
                ["unshare", *user, "--mount", "--net", "--pid", "--kill-child", "--propagation",
                 "private", "/bin/sh", str(self.root / "host" / "nsinit.sh"), str(self.root)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log)
        if self._init.stdout.readline() != b"ready\n":
            self._init.wait(5)
            log = (self.root / "nsinit.log").read_text()
            if "propagation" in log:
                log += ("(in a chroot, / must be a mount point for a private mount namespace:"
                        " bind-mount the chroot's directory onto itself first, as container"
                        " runtimes and schroot do)\n")
            raise SandboxError("namespace set-up failed:\n" + log)
        self._init_pid = _children(self._init.pid)[0]
        # -r: the root directory of the sandbox's pid 1, which differs from the
        # mount namespace's own root when the tests run inside a chroot.
        self._nsenter = ["nsenter", "-t", str(self._init_pid), "-m", "-n", "-p", "-r"]
        if self.userns:
            self._nsenter[1:1] = ["-U", "--preserve-credentials"]

    def close(self):
        """Kills every process of the sandbox, then removes its directory
        (kept when CLIENTMGR_E2E_KEEP is set)."""
        if self._init is not None:
            self._init.stdin.close()  # pid 1 exits, the kernel kills the rest
            try:
                self._init.wait(5)
            except subprocess.TimeoutExpired:
                self._init.kill()
                self._init.wait()
            self._init.stdout.close()
            self._init = None
        for proc in filter(None, [*self._peers, self._proc]):
            proc.wait(5)
        self._peers, self._proc = [], None
        if self._syslog is not None:
            self._syslog.close()
            self._syslog = None
        if not os.environ.get("CLIENTMGR_E2E_KEEP") and self.root.exists():
            shutil.rmtree(self.root, onerror=_force_remove)

    # ----- files -----

    def host_path(self, path):
        """Where a path of the sandbox is reached from the host (/etc through
        the namespace: its overlay must not change under its feet)."""
        path = str(path)
        for prefix, target in (("/tmp", "tmp"), ("/var/run", "run"), ("/run", "run"),
                               ("/proc", "shadow/proc")):
            if path == prefix or path.startswith(prefix + "/"):
                return self.root / target / path[len(prefix) + 1:]
        return Path(f"/proc/{self._init_pid}/root{path}")

    def write(self, path, data):
        p = self.host_path(path)
        p.parent.mkdir(parents=True, exist_ok=True)
        p.write_bytes(data.encode() if isinstance(data, str) else data)

    def write_config(self, path, values):
        """Writes a KEY="value" file (the master configuration, status files)."""
        self.write(path, "".join(f'{k}="{v}"\n' for k, v in values.items()))

    def read(self, path):
        return self.host_path(path).read_text()

    def exists(self, path):
        return os.path.lexists(self.host_path(path))

    def set_lan_interfaces(self, names):
        self.write("/etc/dev_lan_if", "".join(n + "\n" for n in names))

    # ----- network -----

    def add_interface(self, name, mac):
        """A veth link named like a VAP, up, with the given MAC (the BSSID)."""
        peer = f"sbpeer{self._ifaces}"
        self._ifaces += 1
        self.run_in_ns(["ip", "-batch", "-"], input=f"link add {name} address {mac} type veth peer name {peer}\n"
                                                   f"link set {peer} up\nlink set {name} up\n")

    def run_in_ns(self, argv, check=True, input=None, timeout=60):
        """Runs argv inside the sandbox's namespaces."""
        result = subprocess.run(self._nsenter + ["--", *argv], input=input, capture_output=True, text=True,
                                timeout=timeout)
        if check and result.returncode != 0:
            raise SandboxError(f"{argv} failed ({result.returncode}): {result.stderr}")
        return result

    def spawn_in_ns(self, argv, **popen_args):
        """Starts a long-running peer (snmptrapd, freeradius) inside the
        namespaces; it dies with the sandbox at the latest."""
        self._peers.append(subprocess.Popen(self._nsenter + ["--", *argv], **popen_args))
        return self._peers[-1]

    # ----- tools -----

    def stub_output(self, tool, text):
        """What the stub of tool (its name, e.g. "radclient") prints from now on."""
        (self.root / "stub-out" / os.path.basename(tool)).write_text(text)

    def use_real(self, tool):
        """Lets the daemon run the installed tool: a name of PATH_TOOLS or a path of SBIN_TOOLS."""
        name = os.path.basename(tool)
        if tool not in PATH_TOOLS + SBIN_TOOLS or not shutil.which(name):
            raise SandboxError(f"{tool} is not installed or not a tool of the sandbox")
        if tool in PATH_TOOLS:
            return os.unlink(self.root / "bin" / tool)
        link = self.root / "shadow/usr-sbin" / name
        os.unlink(link)
        os.symlink(f"/usr/sbin/.host/{name}" if os.path.exists(f"/usr/sbin/{name}") else shutil.which(name), link)

    def calls(self, tool=None):
        """Recorded runs of stubbed tools, in order; tool filters by name
        ("ebtables" matches "/sbin/ebtables" too)."""
        with open(self.root / "commands.log") as log:
            calls = [Call(**json.loads(line)) for line in log]
        return [c for c in calls if tool is None or c.tool == os.path.basename(tool)]

    def commands(self, tool=None):
        """Recorded runs as shell-like text ("killall -9 iwevent")."""
        return [c.text for c in self.calls(tool)]

    # ----- clocks and driver -----

    def _write_shim_conf(self):
        lines = [f"time_offset {self._time_offset}", f"uptime_offset {self._uptime_offset}"]
        lines += [f"stations {name} {count}" for name, count in self._stations.items()]
        tmp = self.root / "shim.conf.new"
        tmp.write_text("\n".join(lines) + "\n")
        os.replace(tmp, self.root / "shim.conf")
        # The shim reads shim.conf again when this count moves (it maps the
        # file: no system call per clock read).
        self._shim_generation += 1
        fd = os.open(self.root / "shim.gen", os.O_RDWR | os.O_CREAT, 0o644)
        try:
            os.pwrite(fd, (self._shim_generation & 0xffffffff).to_bytes(4, "little").ljust(4096, b"\0"), 0)
        finally:
            os.close(fd)

    def advance_time(self, seconds):
        """Moves the daemon's wall clock and uptime forward; it notices at its next loop pass: poke() it."""
        self._time_offset += int(seconds)
        self._uptime_offset += int(seconds)
        self._write_shim_conf()

    def set_uptime(self, seconds):
        """The uptime that sysinfo() reports from now on (to about a second)."""
        self._uptime_offset = int(seconds) - _real_uptime()
        self._write_shim_conf()

    def now(self):
        """The daemon's wall clock, seconds since the epoch."""
        return int(time.time()) + self._time_offset

    def uptime(self):
        return _real_uptime() + self._uptime_offset

    def set_stations(self, ifname, count):
        """Stations the driver reports for ifname; -1 makes the request fail."""
        self._stations[ifname] = count
        self._write_shim_conf()

    # ----- the daemon -----

    def start(self, wait=True):
        """Starts the daemon (stdout and stderr files are started afresh);
        with wait, returns once it sits idle in its loop."""
        if self._proc is not None and self._proc.poll() is None:
            raise SandboxError("daemon already running")
        env = {"PATH": f"{self.root}/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
               "LD_PRELOAD": str(self.shim_path), "CLIENTMGR_SANDBOX": str(self.root), "HOME": "/root", "LANG": "C"}
        argv, comm = ["stdbuf", "-oL", str(self.daemon_path)], self.daemon_path.name
        if QEMU:
            # In the guest the shim line-buffers stdout and keeps itself from
            # the host programs the daemon starts.
            del env["LD_PRELOAD"]
            argv = [*QEMU, "-E", f"LD_PRELOAD={self.shim_path}", "-E", "CLIENTMGR_SHIM_GUEST=1", str(self.daemon_path)]
            comm = os.path.basename(QEMU[0])
        # A sanitizer build of the daemon (it carries its runtime itself, so
        # the preloaded shim may come first) reports into files of the
        # sandbox, kept across restarts: see sanitizer_reports().
        for var in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            if var in os.environ:
                env[var] = f"{os.environ[var]}:log_path={self.root}/sanitizer"
        with open(self.root / "stdout", "wb") as out, open(self.root / "stderr", "wb") as err:
            self._proc = subprocess.Popen(self._nsenter + ["--", *argv],
                                          stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=env, umask=0o022)
        self.pid = None
        deadline = time.monotonic() + 5
        while self._proc.poll() is None and time.monotonic() < deadline:
            kids = _children(self._proc.pid)  # nsenter's child execs stdbuf, then the daemon
            if kids and _read(f"/proc/{kids[0]}/comm").strip() == comm[:15]:
                self.pid = kids[0]
                break
            time.sleep(0.002)
        if wait:
            self.wait_idle()

    def wait_exit(self, timeout=5):
        """The daemon's exit status, or -N when killed by signal N."""
        return self._proc.wait(timeout)

    def _check_running(self):
        if self._proc is None:
            raise SandboxError("daemon not started")
        if self._proc.poll() is not None:
            raise SandboxError(f"daemon exited with {self._proc.returncode}; stderr:\n{self.stderr()}"
                               f"stdout tail:\n{self.stdout()[-2000:]}")

    def _busy(self):
        """Why the daemon is not idle, or None when it is."""
        pid = self.pid
        try:
            if len(os.listdir(f"/proc/{pid}/task")) != IDLE_THREADS:
                return "worker threads running"
            call = _read(f"/proc/{pid}/syscall").split()[0]
            if call not in SELECT_SYSCALLS:
                return f"main thread in syscall {call}, not waiting in select"
            if _live_children(pid) or _live_children(self._init_pid):
                return "child processes running"
            for path in PIPES:
                pending = _fifo_pending(f"/proc/{pid}/root{path}")
                if pending:
                    return f"{pending} unread bytes in {path}"
            if _netlink_pending(pid):
                return "unread netlink messages"
        except (OSError, IndexError) as e:
            return f"cannot inspect: {e}"
        return None

    def wait_idle(self, timeout=30):
        """Waits until the daemon waits in select with no thread or child
        process running and nothing unread in its pipes and netlink socket
        (twice in a row, 20 ms apart). The time-out is generous: on a loaded
        machine a burst of shell commands keeps the daemon busy for seconds."""
        timeout *= SLOWDOWN
        deadline = time.monotonic() + timeout
        calm = 0
        while True:
            self._check_running()
            busy = "daemon pid not known" if self.pid is None else self._busy()
            calm = calm + 1 if busy is None else 0
            if calm == 2:
                return
            if time.monotonic() > deadline:
                raise AssertionError(f"daemon not idle after {timeout}s: {busy}")
            time.sleep(0.02 if busy is None else 0.005)

    def write_fifo(self, path, data):
        """Writes into one of the daemon's pipes ("/etc/event_pipe")."""
        self._check_running()
        fd = os.open(f"/proc/{self.pid}/root{path}", os.O_WRONLY | os.O_NONBLOCK)
        try:
            view = memoryview(data.encode() if isinstance(data, str) else data)
            while view:
                try:
                    view = view[os.write(fd, view):]
                except BlockingIOError:
                    time.sleep(0.005)
        finally:
            os.close(fd)

    def poke(self):
        """Makes the daemon run one loop pass now (an empty line on the event
        pipe is ignored, but the timed work and reload checks follow it)."""
        self.write_fifo("/etc/event_pipe", "\n")
        self.wait_idle()

    # ----- output -----

    def stdout(self):
        return (self.root / "stdout").read_text(errors="replace")

    def stderr(self):
        return (self.root / "stderr").read_text(errors="replace")

    def syslog(self):
        """Every record sent to /dev/log so far."""
        return self._syslog.records()

    def sanitizer_reports(self):
        """What AddressSanitizer or UndefinedBehaviorSanitizer reported about
        the daemon (with ASAN_OPTIONS / UBSAN_OPTIONS set), "" when nothing."""
        return "".join(p.read_text(errors="replace") for p in sorted(self.root.glob("sanitizer.*")))

    def report(self):
        """A summary for a failed test."""
        if not self.root.exists():
            return ""
        tail = lambda text: "\n".join(text.splitlines()[-40:])
        return (f"--- daemon status {self._proc and self._proc.poll()}\n--- stdout\n{tail(self.stdout())}\n"
                f"--- stderr\n{tail(self.stderr())}\n--- commands\n{tail(chr(10).join(self.commands()))}\n"
                f"--- syslog\n{tail(chr(10).join(map(str, self.syslog())))}")


def _read(path):
    """The file's text; "" once it is gone (a process that ended)."""
    try:
        with open(path) as f:
            return f.read()
    except FileNotFoundError:
        return ""


def _children(pid):
    return [int(kid) for tid in os.listdir(f"/proc/{pid}/task")
            for kid in _read(f"/proc/{pid}/task/{tid}/children").split()]


def _live_children(pid):
    # the state follows the command name in /proc/PID/stat
    states = [_read(f"/proc/{kid}/stat").rpartition(")")[2].split()[:1] for kid in _children(pid)]
    return [s for s in states if s and s != ["Z"]]


def _fifo_pending(path):
    try:
        if not stat.S_ISFIFO(os.stat(path).st_mode):
            return 0
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    except FileNotFoundError:
        return 0
    try:
        return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, b"\0\0\0\0"))[0]
    finally:
        os.close(fd)


def _netlink_pending(pid):
    links = set()
    for fd in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            links.add(os.readlink(f"/proc/{pid}/fd/{fd}"))
    rows = [row.split() for row in _read(f"/proc/{pid}/net/netlink").splitlines()[1:]]
    return any(f"socket:[{cols[-1]}]" in links and int(cols[4]) > 0 for cols in rows)  # inode, receive queue


def _real_uptime():
    # sysinfo() rounds the boot time up to whole seconds
    return math.ceil(float(_read("/proc/uptime").split()[0]))


def _force_remove(func, path, _exc):
    # the overlay leaves a work directory of mode 000
    os.chmod(os.path.dirname(path), 0o700)
    if os.path.isdir(path) and not os.path.islink(path):
        os.chmod(path, 0o700)
        shutil.rmtree(path, onerror=_force_remove)
    else:
        func(path)

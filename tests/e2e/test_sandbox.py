"""Self-tests of the harness: the shim and the clean-up."""
import os
import shutil
import subprocess

import pytest

import sandbox as sandbox_lib

# Asks, with the daemon's environment, for time(), the sysinfo() uptime and
# the station counts of ath0 and ath1 (-1 for a failed request).
PROBE = r"""
import ctypes, socket, struct
libc = ctypes.CDLL(None)
info = ctypes.create_string_buffer(128)
libc.sysinfo(info)
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
counts = []
for name in (b"ath0", b"ath1"):
    req = ctypes.create_string_buffer(name, 32)
    ok = libc.ioctl(sock.fileno(), ctypes.c_ulong(0x89F6), req) == 0
    counts.append(struct.unpack_from("H", req.raw, 24)[0] // 520 if ok else -1)
print(libc.time(None), struct.unpack_from("l", info.raw)[0], *counts)
"""


def probe(sb):
    return [int(v) for v in sb.run_in_ns(["/usr/bin/python3", "-c", PROBE], daemon_env=True).stdout.split()]


def test_shim_moves_clocks_and_answers_station_requests(sandbox):
    sandbox.set_uptime(1000)
    sandbox.set_stations("ath0", 3)
    sandbox.set_stations("ath1", -1)
    now, uptime, ath0, ath1 = probe(sandbox)
    assert abs(now - sandbox.now()) <= 1 and abs(uptime - 1000) <= 1
    assert (ath0, ath1) == (3, -1)

    sandbox.advance_time(3600)
    sandbox.set_stations("ath1", 2)
    later, later_uptime, _, ath1 = probe(sandbox)
    assert 3600 <= later - now <= 3601 and 3600 <= later_uptime - uptime <= 3601
    assert ath1 == 2


def test_fixed_paths_and_syslog_inside_the_namespace(sandbox):
    files = {"/etc/dev_lan_if": "ath0\n", "/tmp/last_applyconf_uptime": "120\n",
             "/var/run/wireless.status": 'X="1"\n', "/proc/wifi0/neighbor_ap": "ap\n"}
    for path, text in files.items():
        sandbox.write(path, text)
    shown = sandbox.run_in_ns(["cat", *files]).stdout
    assert shown == "".join(files.values())
    sandbox.run_in_ns(["/usr/bin/python3", "-c", "import syslog; syslog.openlog('probe', syslog.LOG_PID);"
                       "syslog.syslog(syslog.LOG_INFO, 'hello there')"])
    assert sandbox.syslog() == [sandbox_lib.SyslogRecord(6, 1, "probe", "hello there")]


@pytest.mark.skipif(not shutil.which("nm"), reason="nm (binutils) not installed")
def test_daemon_reaches_clocks_and_ioctl_through_the_preload():
    # A static or inlined call would bypass the shim.
    daemon = sandbox_lib.build_dir() / "clientmgr"
    imported = subprocess.run(["nm", "-D", "--undefined-only", daemon], capture_output=True, text=True).stdout
    names = {line.split()[-1].split("@")[0] for line in imported.splitlines()}
    assert {"time", "sysinfo", "ioctl"} <= names


def test_close_leaves_nothing_behind(sandbox):
    sb = sandbox
    sb.add_interface("ath0", "02:11:22:33:44:00")
    sb.start()
    peer = sb.spawn_in_ns(["sleep", "1000"])
    pids = [sb.pid, sb._init_pid]
    sb.close()
    assert peer.returncode is not None
    assert not sb.root.exists()
    for pid in pids:
        assert not os.path.exists(f"/proc/{pid}")
    assert "ath0" not in subprocess.run(["ip", "-br", "link"], capture_output=True, text=True).stdout
    with open("/proc/self/mountinfo") as mounts:
        assert str(sb.root) not in mounts.read()

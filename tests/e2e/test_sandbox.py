"""Self-test of the harness: closing a sandbox leaves nothing behind."""
import os
import subprocess


def test_close_leaves_nothing_behind(sandbox):
    sb = sandbox
    sb.add_interface("ath0", "02:11:22:33:44:00")
    sb.start()
    peer = sb.spawn_in_ns(["sleep", "1000"])
    pids = [sb.pid, sb._init_pid]
    sb.close()
    assert peer.returncode is not None and not sb.root.exists()
    for pid in pids:
        assert not os.path.exists(f"/proc/{pid}")
    assert "ath0" not in subprocess.run(["ip", "-br", "link"], capture_output=True, text=True).stdout
    with open("/proc/self/mountinfo") as mounts:
        assert str(sb.root) not in mounts.read()

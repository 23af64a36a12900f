"""A real FreeRADIUS 3 server (Debian package freeradius) inside a sandbox's
network namespace, for tests of MAC authentication.

The server runs from a private copy of /etc/freeradius/3.0 under the
sandbox directory, with our own clients and users files, as root, logging
and keeping its run files in that copy; it listens on the namespace's
127.0.0.1 (authentication on 1812). It is started with Sandbox.spawn_in_ns,
as a child of this process rather than of the sandbox's pid 1, so
Sandbox.wait_idle() does not take it for a child of the daemon.

    server = RadiusServer(sandbox, users=user_entry(...) + REJECT_OTHERS)
    server.start()
"""
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

SYSTEM_CONFIG = Path("/etc/freeradius/3.0")
SECRET = "testing123"
AUTH_PORT = 1812


def available():
    """Why the server cannot run here, or None."""
    if not shutil.which("freeradius") or not shutil.which("radclient"):
        return "freeradius / radclient not installed (Debian: freeradius, freeradius-utils)"
    if not os.access(SYSTEM_CONFIG / "radiusd.conf", os.R_OK):
        return f"{SYSTEM_CONFIG} is not readable"
    return None


def user_entry(name, password, reply=()):
    """One users-file entry: the check item and the reply attributes."""
    lines = [f'{name} Cleartext-Password := "{password}"']
    if reply:
        lines += [f"\t{attr}{',' if i < len(reply) - 1 else ''}" for i, attr in enumerate(reply)]
    return "\n".join(lines) + "\n\n"


REJECT_OTHERS = "DEFAULT Auth-Type := Reject\n"


class RadiusServer:
    def __init__(self, sandbox, users):
        """users: the text of the users file; the one client is 127.0.0.1 with SECRET."""
        self.sandbox = sandbox
        self.dir = Path(sandbox.root) / "freeradius"
        self.log = self.dir / "radius.log"
        self._proc = None
        self._prepare(users)

    def _prepare(self, users):
        shutil.copytree(SYSTEM_CONFIG, self.dir, symlinks=True)
        conf = self.dir / "radiusd.conf"
        text = conf.read_text()
        # Run as root from this copy: no switch to the freerad user, logs and
        # run files kept here.
        text = re.sub(r"^\s*(user|group)\s*=.*$", "", text, flags=re.M)
        text = re.sub(r"^logdir\s*=.*$", f"logdir = {self.dir}/log", text, flags=re.M)
        text = re.sub(r"^run_dir\s*=.*$", f"run_dir = {self.dir}/run", text, flags=re.M)
        # Every answer leaves a "Login OK" / "Login incorrect" line in the log.
        text = re.sub(r"^(\s*)auth\s*=\s*no\s*$", r"\1auth = yes", text, flags=re.M)
        conf.write_text(text)
        for d in ("log", "run"):
            (self.dir / d).mkdir(exist_ok=True)
        (self.dir / "clients.conf").write_text(f"client local {{\n\tipaddr = 127.0.0.1\n\tsecret = {SECRET}\n}}\n")
        authorize = self.dir / "mods-config/files/authorize"
        if authorize.is_symlink():
            authorize.unlink()
        authorize.write_text(users)

    def start(self, timeout=60):
        """Starts radiusd -f and waits until it serves requests."""
        self.log.write_text("")
        self._proc = self.sandbox.spawn_in_ns(
            ["freeradius", "-f", "-d", str(self.dir), "-l", str(self.log)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        deadline = time.monotonic() + timeout
        while "Ready to process requests" not in self.log.read_text(errors="replace"):
            if self._proc.poll() is not None or time.monotonic() > deadline:
                err = self._proc.stderr.read().decode(errors="replace") if self._proc.poll() is not None else ""
                self.stop()
                raise RuntimeError(f"freeradius did not start:\n{err}\n{self.log.read_text(errors='replace')}")
            time.sleep(0.05)

    def logins(self):
        """The log's "Login OK" and "Login incorrect" lines so far: one per
        request answered."""
        return [l for l in self.log.read_text(errors="replace").splitlines()
                if "Login OK" in l or "Login incorrect" in l]

    def stop(self):
        """Ends the server (closing the sandbox would too)."""
        if self._proc is not None:
            self._proc.terminate()  # nothing when it has ended
            self._proc.wait(5)
            self._proc.stderr.close()
            self._proc = None

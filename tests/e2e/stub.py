#!/usr/bin/python3 -IS
"""Recorder standing in for an external tool inside a sandbox.

Appends one JSON object per call to $CLIENTMGR_SANDBOX/commands.log:
  {"argv": [...], "stdout": "<where fd 1 points>", "append": <fd 1 has O_APPEND>}
argv[0] is the tool's name when the shell found it on PATH (the sandbox's
bin directory) and the path as called otherwise ("/sbin/ebtables").
Then prints $CLIENTMGR_SANDBOX/stub-out/<name>, if that file exists, and
exits 0.
"""
import json
import os
import sys

sandbox = os.environ["CLIENTMGR_SANDBOX"]
called = sys.argv[0]
name = os.path.basename(called)
if os.path.dirname(called) == os.path.join(sandbox, "bin"):
    called = name


def stdout_target():
    try:
        target = os.readlink("/proc/self/fd/1")
        with open("/proc/self/fdinfo/1") as info:
            flags = next(int(l.split()[1], 8) for l in info if l.startswith("flags:"))
        return target, bool(flags & os.O_APPEND)
    except (OSError, StopIteration):
        return "", False


target, append = stdout_target()
line = json.dumps({"argv": [called] + sys.argv[1:], "stdout": target, "append": append})
fd = os.open(os.path.join(sandbox, "commands.log"), os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
os.write(fd, (line + "\n").encode())  # one write: whole lines even from concurrent calls
os.close(fd)

try:
    with open(os.path.join(sandbox, "stub-out", name), "rb") as canned:
        sys.stdout.buffer.write(canned.read())
except FileNotFoundError:
    pass

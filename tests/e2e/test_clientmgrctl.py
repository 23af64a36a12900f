"""clientmgrctl against the real daemon: list and watch follow the client
files (driven partly by clientmgrctl's own client, arp and refresh lines),
and bad arguments or a pipe without a reader leave the pipes untouched. The
text of each steering line is the unit tests' table."""
import json
import os
import re
import select
import shutil
import subprocess
import threading
import time
from pathlib import Path

import sandbox as sandbox_lib
from helpers_clients import STATION, driver, iwevent, parse_client_list, send, two_vaps

CTL = Path(os.environ.get("CLIENTMGR_BUILD", sandbox_lib.REPO / "build")) / "clientmgrctl"
OTHER = "00:11:22:33:44:66"
ROW = re.compile(r"(\S+) +(\S+) +(\S+) +(yes|no) +(\S+) +(\S+) +(\S+) +(\S+) +(\S+)")


def ctl_argv(sandbox, *args):
    """argv that runs clientmgrctl inside the sandbox, on the daemon's clocks."""
    path = sandbox.root / "host" / "clientmgrctl"
    if not path.exists():
        shutil.copy2(CTL, path)
    return ["env", f"LD_PRELOAD={sandbox.shim_path}", f"CLIENTMGR_SANDBOX={sandbox.root}", str(path), *args]


def ctl(sandbox, *args):
    result = sandbox.run_in_ns(ctl_argv(sandbox, *args), check=False)
    if sandbox.pid:
        sandbox.wait_idle()
    return result


def table_rows(text):
    lines = text.splitlines()
    assert lines[0].split() == ["VAP", "MAC", "IP", "ON", "JOINED", "LEFT", "JOIN/LEFT", "TX", "RX"]
    assert all(len(line) <= 80 for line in lines)
    return [ROW.fullmatch(line).groups() for line in lines[1:]]


def check_list_agrees(sandbox):
    """list and list --json against the three files, as read after the run."""
    read = lambda path: sandbox.read(path) if sandbox.exists(path) else ""  # none before the first write
    listed = parse_client_list(read("/etc/clientip"))
    assoc = {r[:2] for r in parse_client_list(read("/etc/clientip_assoc"))}
    stats = {tuple(l.split()[0].split(":", 1)): list(map(int, l.split()[1:5]))
             for l in read("/etc/client_accu_stat").splitlines()}
    doc = json.loads(ctl(sandbox, "list", "--json").stdout)
    assert abs(doc["uptime"] - sandbox.uptime()) <= 2
    want = [{"vap": vap, "mac": mac, "ip": ip, "associated": (vap, mac) in assoc, "assoc_uptime": up,
             "assoc_age": doc["uptime"] - up if up else None, "disassoc_uptime": down,
             "disassoc_age": doc["uptime"] - down if down else None, "first_assoc_uptime": first,
             "assoc_count": ac, "disassoc_count": dc,
             **dict(zip(("tx_bytes", "rx_bytes", "tx_packets", "rx_packets"), stats[vap, mac]))}
            for vap, mac, ip, up, down, ac, dc, first in listed]
    assert doc["stations"] == want
    rows = table_rows(ctl(sandbox, "list").stdout)
    assert [r[:4] + (r[6],) for r in rows] == [(s["vap"], s["mac"], s["ip"], "yes" if s["associated"] else "no",
                                                f"{s['assoc_count']}/{s['disassoc_count']}") for s in want]
    assert [r[4] == "-" for r in rows] == [s["assoc_age"] is None for s in want]
    assert [r[5] == "-" for r in rows] == [s["disassoc_age"] is None for s in want]
    assert [(s["vap"], s["mac"]) for s in json.loads(ctl(sandbox, "list", "--json", "--associated").stdout)[
        "stations"]] == [(s["vap"], s["mac"]) for s in want if s["associated"]]
    assert [r[1] for r in table_rows(ctl(sandbox, "list", "--vap", "ath1").stdout)] == [
        s["mac"] for s in want if s["vap"] == "ath1"]
    return want


def test_list_follows_the_client_files(sandbox):
    two_vaps(sandbox)
    sandbox.set_uptime(5000)
    sandbox.start()
    assert check_list_agrees(sandbox) == []
    iwevent(sandbox, "ath0", "Registered")                               # association
    iwevent(sandbox, "ath0", "Registered", OTHER)
    assert [s["associated"] for s in check_list_agrees(sandbox)] == [True, True]
    assert ctl(sandbox, "client", STATION, "10.0.0.5", "ath0").returncode == 0  # address
    assert check_list_agrees(sandbox)[0]["ip"] == "10.0.0.5"
    assert ctl(sandbox, "arp", STATION, "10.0.0.6", "ath0").returncode == 0  # address from the ARP topic
    assert check_list_agrees(sandbox)[0]["ip"] == "10.0.0.6"
    sandbox.advance_time(2)
    iwevent(sandbox, "ath1", "Registered")                               # roaming
    assert [(s["vap"], s["associated"]) for s in check_list_agrees(sandbox)] == [
        ("ath0", False), ("ath0", True), ("ath1", True)]
    sandbox.advance_time(100)
    iwevent(sandbox, "ath1", "Expired")                                  # departure, then its report
    send(sandbox, f"12:00:02 ath1 Halcyon.Stats.NodeLeave {STATION} [RX:100bytes,2pkts TX:5000000000bytes,4pkts]")
    gone = check_list_agrees(sandbox)[2]
    assert (gone["associated"], gone["disassoc_count"], gone["tx_bytes"]) == (False, 1, 5000000000)
    assert "4.6G" in ctl(sandbox, "list", "--vap", "ath1").stdout
    sandbox.set_uptime(gone["disassoc_uptime"] + 1900)                  # expiry
    assert ctl(sandbox, "refresh").returncode == 0
    assert [s["mac"] for s in check_list_agrees(sandbox)] == [STATION, OTHER]  # ath0's record never left


class Lines:
    """Lines of a child's output as they come (unbuffered, so select() tells the truth)."""

    def __init__(self, stream):
        self.fd, self.buffer = stream.fileno(), b""

    def next(self, timeout):
        while b"\n" not in self.buffer:
            if not select.select([self.fd], [], [], timeout)[0]:
                return None
            chunk = os.read(self.fd, 4096)
            if not chunk:
                return None
            self.buffer += chunk
        line, _, self.buffer = self.buffer.partition(b"\n")
        return line.decode()


def test_watch_prints_join_roam_and_leave_in_order(sandbox):
    two_vaps(sandbox)
    sandbox.start()
    watch = sandbox.spawn_in_ns(ctl_argv(sandbox, "watch"), stdout=subprocess.PIPE)
    lines = Lines(watch.stdout)
    # Addresses for another station until the watcher reports one: it is ready.
    for n in range(1, 50):
        send(sandbox, f"{OTHER} 10.0.9.{n} ath0", pipe="/etc/client_table_pipe")
        if lines.next(0.1):
            break
    while (line := lines.next(0.3)) is not None:
        assert line.startswith(f"address ath0 {OTHER} 10.0.9.")
    iwevent(sandbox, "ath0", "Registered")
    sandbox.advance_time(2)
    iwevent(sandbox, "ath1", "Registered")
    sandbox.advance_time(2)
    iwevent(sandbox, "ath1", "Expired")
    got = [lines.next(5) for _ in range(3)]
    assert got == [f"joined ath0 {STATION}", f"roamed ath1 {STATION} from ath0", f"left ath1 {STATION}"]
    watch.kill()


def test_bad_arguments_write_nothing_and_a_pipe_without_reader_fails_fast(sandbox):
    for pipe in ("/etc/event_pipe", "/etc/client_table_pipe"):
        sandbox.run_in_ns(["mkfifo", pipe])
    readers = {p: os.open(sandbox.host_path(p), os.O_RDONLY | os.O_NONBLOCK)
               for p in ("/etc/event_pipe", "/etc/client_table_pipe")}

    def pending():
        out = {}
        for path, fd in readers.items():
            try:
                out[path] = os.read(fd, 4096).decode()
            except BlockingIOError:  # a writer has it open
                pass
        return {path: text for path, text in out.items() if text}

    # Each argument's checks are the unit tests' table; here: one refusal per
    # kind of check and per pipe, and that none of them writes a byte.
    bad = [  # (arguments, the argument the message names)
        (["rate", "ath0", STATION, "1"], "usage"), (["vlan", "ath0", f"{STATION}\n", "5"], "MAC"),
        (["remove-vap", "1\n[REFRESH_CLIENT_FILE]"], "N"), (["l2tp", "--x", "up"], "IFNAME"),
        (["client", STATION, "10.0.0.5", "ath0 x"], "VAP"), (["reboot"], "unknown command"),
        (["list", "--vap", "br0"], "VAP"),
    ]
    for args, named in bad:
        result = ctl(sandbox, *args)
        assert result.returncode == 2 and named in result.stderr, (args, result.stderr)
    assert pending() == {}
    assert ctl(sandbox, "client", "AA:BB:CC:DD:EE:0F", "10.0.0.5", "ath7").returncode == 0
    assert ctl(sandbox, "remove-vap", "3").returncode == 0
    assert pending() == {"/etc/client_table_pipe": "aa:bb:cc:dd:ee:0f 10.0.0.5 ath7\n",
                         "/etc/event_pipe": "[REMOVE_VAP] 3\n"}

    for fd in readers.values():
        os.close(fd)
    started = time.monotonic()
    result = ctl(sandbox, "refresh")
    assert (result.returncode, time.monotonic() - started < 5) == (1, True)
    assert "no daemon is reading /etc/event_pipe" in result.stderr
    sandbox.run_in_ns(["sh", "-c", "rm /etc/event_pipe && echo keep > /etc/event_pipe"])
    result = ctl(sandbox, "refresh")
    assert result.returncode == 1 and "not a FIFO" in result.stderr and sandbox.read("/etc/event_pipe") == "keep\n"


def test_list_never_shows_a_rewrite_half_done(sandbox):
    """Readings taken while stations keep joining: each is whole JSON, every
    station listed is associated and has its counters (the daemon writes
    the three files one after the other), and the table only grows."""
    two_vaps(sandbox)
    sandbox.start()
    counts, problems, done = [], [], threading.Event()

    def reader():
        while not done.is_set():
            out = sandbox.run_in_ns(ctl_argv(sandbox, "list", "--json"), check=False).stdout
            try:
                stations = json.loads(out)["stations"]
            except ValueError:
                problems.append(out)
                continue
            if not all(s["associated"] and s["tx_bytes"] == 0 for s in stations):
                problems.append(out)
            counts.append(len(stations))

    thread = threading.Thread(target=reader)
    thread.start()
    try:
        for first in range(0, 48, 4):
            driver(sandbox, *(f"ath0     Registered node:02:00:00:00:00:{n:02x}" for n in range(first, first + 4)))
    finally:
        done.set()
        thread.join()
    assert problems == [] and len(counts) > 3 and counts == sorted(counts)

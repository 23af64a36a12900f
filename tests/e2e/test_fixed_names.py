"""Fixed names under /tmp that another user got to first: a FIFO, a symbolic
link, a file or a directory of theirs at /tmp/last_applyconf_uptime,
/tmp/ebt_ctm, /tmp/ebt_ctm/<mac> and /tmp/radc-<hex>-<n>. The daemon never
blocks on them, never writes through a link, moves them out of the way with
one line on stdout, and the feature behind the name keeps working."""
import os
import time

import pytest

from helpers_clients import STATION, auth_request, iwevent, lines_of, macauth_wlan1, send

NOBODY = 65534
VICTIM = "/tmp/victim"          # a planted link points here (a file) ...
VICTIM_DIR = "/tmp/victim.d"    # ... or here (a directory)
UPTIME = "/tmp/last_applyconf_uptime"
STORE = "/tmp/ebt_ctm"
RULES = f"{STORE}/{STATION}"
REQUEST = "/tmp/radc-001122334455-0"
ACCEPT = "Received Access-Accept Id 7 from 127.0.0.1:1812 to 0.0.0.0:0 length 20\n"


def plant(sandbox, path, kind):
    """What user nobody could leave at path before the daemon gets there."""
    p = sandbox.host_path(path)
    if kind == "fifo":
        os.mkfifo(p, 0o666)
    elif kind == "link":
        os.symlink(VICTIM_DIR if path == STORE else VICTIM, p)
    elif kind == "dir":
        p.mkdir()
        (p / "theirs").write_text("x")
        os.chmod(p, 0o777)
    else:
        p.write_text("planted\n")
    os.lchown(p, NOBODY, NOBODY)


def bridge_with_macauth(sandbox):
    """Bridge mode with a VLAN on WLAN 1 (ath0), MAC authentication against
    the radclient stub, which accepts."""
    macauth_wlan1(sandbox, [("127.0.0.1", 1812)], "s3cret", {"WLAN1_VLANID": "10"})
    sandbox.stub_output("radclient", ACCEPT)
    sandbox.write(VICTIM, "999\n")
    sandbox.host_path(VICTIM_DIR).mkdir()


def reload_still_works(sandbox):
    loads = len(lines_of(sandbox, "== trap enable"))
    sandbox.write(UPTIME, "120\n")
    sandbox.poke()
    assert len(lines_of(sandbox, "== trap enable")) == loads + 1


def vlan_rules_still_work(sandbox):
    iwevent(sandbox, "ath0", "Registered")
    send(sandbox, f"[STA_VLAN] ath0 {STATION} vlan 30")
    st = os.lstat(sandbox.host_path(STORE))
    assert st.st_uid == 0 and oct(st.st_mode) == oct(0o40700)
    rules = sandbox.read(RULES).splitlines()
    assert [r.split(" -j ")[0] for r in rules] == [f"-p ! 0x888e -i ath0 -s {STATION}",
                                                   f"-p ! 0x888e -i eth1 -d {STATION}"]
    assert sorted(c for c in sandbox.commands("ebtables") if "BROUTING" in c) == sorted(
        "/sbin/ebtables -t broute -I BROUTING " + r.replace("!", "'!'") for r in rules)


def macauth_still_answers(sandbox):
    assert auth_request(sandbox, STATION) == [f"iwpriv ath0 oem_priv wr:authresp={STATION},0"]
    [asked] = sandbox.commands("radclient")
    assert asked.endswith(f" -f {REQUEST}")
    assert not sandbox.exists(REQUEST)  # the request file is gone again


# (fixed name, what is planted, planted before start-up, the feature behind the name)
CASES = [(UPTIME, kind, True, reload_still_works) for kind in ("fifo", "link", "dir")]
# The store directory is never opened: a FIFO there takes the same way as a
# file (removed), which the other names' FIFO cases cover for opening.
CASES += [(STORE, kind, True, vlan_rules_still_work) for kind in ("link", "file", "dir")]
CASES += [(RULES, kind, False, vlan_rules_still_work) for kind in ("fifo", "link", "dir")]
CASES += [(REQUEST, kind, False, macauth_still_answers) for kind in ("dir", "fifo", "link")]


@pytest.mark.parametrize("path,kind,early,feature", CASES,
                         ids=[f"{os.path.basename(c[0])}-{c[1]}" for c in CASES])
def test_planted_name_is_moved_aside_and_the_daemon_keeps_serving(sandbox, path, kind, early, feature):
    bridge_with_macauth(sandbox)
    if early:
        plant(sandbox, path, kind)
    sandbox.start()
    if not early:
        plant(sandbox, path, kind)
    if path == UPTIME:
        sandbox.poke()  # the loop pass looks at the name

    feature(sandbox)

    # Said once on stdout, what was there and where it went; a directory is
    # kept beside the name with its content.
    said = lines_of(sandbox, f"{path} held ")
    what = {"fifo": "a FIFO", "link": "a symbolic link", "dir": "a directory", "file": "a file"}[kind]
    assert len(said) == 1 and said[0].startswith(f"{path} held {what} of uid {NOBODY}: "), said
    if kind == "dir":
        aside = said[0].split(": moved to ")[1]
        assert aside.startswith(f"{path}.planted.") and sandbox.read(f"{aside}/theirs") == "x"
    # Nothing was written through a link.
    assert sandbox.read(VICTIM) == "999\n" and not os.listdir(sandbox.host_path(VICTIM_DIR))

    # The loop keeps serving: a client line lands in /etc/clientip at once.
    sandbox.write_fifo("/etc/client_table_pipe", "00:11:22:33:44:66 10.0.0.9 ath1\n")
    deadline = time.monotonic() + 5
    while not sandbox.exists("/etc/clientip") or "00:11:22:33:44:66 10.0.0.9" not in sandbox.read("/etc/clientip"):
        assert time.monotonic() < deadline, "client line not served"
        time.sleep(0.05)

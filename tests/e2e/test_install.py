"""What gets shipped: the installed tree, the packages, the init scripts and
the man pages. Runs on the configured build tree ($CLIENTMGR_BUILD); needs no
root and no sandbox."""
import os
import re
import shutil
import subprocess
import tarfile
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("CLIENTMGR_BUILD", REPO / "build"))
SYSV = REPO / "packaging/sysv/clientmgr"
PROCD = REPO / "packaging/openwrt/clientmgr/files/clientmgr.init"
SHELL_SCRIPTS = [SYSV, PROCD]
DAEMON_FILES = {"usr/sbin/clientmgr", "usr/share/man/man8/clientmgr.8", "usr/share/doc/clientmgr/README.md",
                "usr/share/doc/clientmgr/deviations.md",
                "usr/share/doc/clientmgr/examples/init.d/clientmgr",
                "usr/share/doc/clientmgr/examples/openwrt/clientmgr.init",
                "usr/share/doc/clientmgr/examples/openwrt/Makefile"}


def need(*tools):
    missing = [t for t in tools if not shutil.which(t)]
    if missing:
        pytest.skip(f"needs {', '.join(missing)}")


def run(argv, **kw):
    return subprocess.run(argv, capture_output=True, text=True, timeout=120, **kw)


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """cpack's .deb and .tar.gz of the build tree, made in a temporary directory."""
    need("cpack", "dpkg-deb")
    if not (BUILD / "CPackConfig.cmake").exists():
        pytest.skip(f"{BUILD} is not a configured build tree")
    out = tmp_path_factory.mktemp("cpack")
    r = run(["cpack", "--config", str(BUILD / "CPackConfig.cmake"), "-G", "DEB;TGZ", "-B", str(out)])
    assert r.returncode == 0, r.stdout + r.stderr
    debs, tgzs = sorted(out.glob("*.deb")), sorted(out.glob("*.tar.gz"))
    assert len(debs) == 1 and len(tgzs) == 1, list(out.iterdir())
    return debs[0], tgzs[0]


def deb_files(deb):
    listing = run(["dpkg-deb", "-c", str(deb)]).stdout.splitlines()
    return {line.split()[-1].removeprefix("./") for line in listing if not line.startswith("d")}


def test_install_into_destdir_gives_the_documented_tree(tmp_path):
    need("cmake")
    r = run(["cmake", "--install", str(BUILD), "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(tmp_path)})
    assert r.returncode == 0, r.stdout + r.stderr
    files = {str(p.relative_to(tmp_path)) for p in tmp_path.rglob("*") if not p.is_dir()}
    assert DAEMON_FILES <= files, DAEMON_FILES - files
    # Tests, the shim and the benchmarks stay in the build tree.
    assert not any("test" in f or "shim" in f or "bench" in f for f in files), files
    for f in ("usr/sbin/clientmgr", "usr/share/doc/clientmgr/examples/init.d/clientmgr"):
        assert os.access(tmp_path / f, os.X_OK), f
    # The installed daemon only prints its usage when given an argument.
    r = run([str(tmp_path / "usr/sbin/clientmgr"), "--version"])
    assert r.returncode == 2 and re.search(r"^clientmgr \d+\.\d+\.\d+:", r.stderr, re.M), r.stderr


def test_deb_and_tarball_hold_the_stripped_daemon_and_the_files_the_readme_lists(packages):
    deb, tgz = packages
    files = deb_files(deb)
    assert DAEMON_FILES <= files, DAEMON_FILES - files
    with tarfile.open(tgz) as tar:
        assert {m.name for m in tar.getmembers() if m.isfile()} == files
    info = run(["dpkg-deb", "-f", str(deb), "Package", "Version", "Architecture", "Depends"]).stdout
    assert "Package: clientmgr" in info and "libc6" in info, info
    # The README's list of installed files is the package's.
    readme = (REPO / "README.md").read_text()
    listed = set(re.findall(r"^\| `/(usr/[^`]+)` \|", readme, re.M))
    assert listed == files, f"README lists {sorted(listed - files)} not packaged, misses {sorted(files - listed)}"
    # Packaged binaries carry no debug information.
    need("readelf")
    extracted = Path(str(deb) + ".x")
    assert run(["dpkg-deb", "-x", str(deb), str(extracted)]).returncode == 0
    for f in files:
        if f.startswith("usr/sbin/") or f.startswith("usr/bin/"):
            sections = run(["readelf", "-S", str(extracted / f)]).stdout
            assert ".debug_info" not in sections and ".symtab" not in sections, f
            # Every shared library a binary needs is one the package depends on.
            needed = set(re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]",
                                    run(["readelf", "-d", str(extracted / f)]).stdout))
            needed = {n for n in needed if not n.startswith("ld-")}  # the loader is libc6's
            assert needed <= {"libc.so.6", "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6"}, needed
            assert "libstdc++6" in info or "libstdc++.so.6" not in needed, (f, needed, info)


def test_init_scripts_pass_sh_n_and_shellcheck():
    need("shellcheck")
    for script in SHELL_SCRIPTS:
        assert run(["sh", "-n", str(script)]).returncode == 0, script
        r = run(["shellcheck", "-s", "sh", str(script)])
        assert r.returncode == 0, r.stdout
    for script in (REPO / "scripts/test", REPO / "scripts/demo"):
        r = run(["shellcheck", str(script)])
        assert r.returncode == 0, r.stdout
    procd = PROCD.read_text()
    for line in ("USE_PROCD=1", "procd_set_param command /usr/sbin/clientmgr", "procd_set_param respawn 3600 5 5"):
        assert line in procd, line
    start = int(re.search(r"^START=(\d+)", procd, re.M).group(1))
    assert start > 20, "starts after the network (START=20)"


def test_sysv_script_starts_reports_and_stops_by_pid(tmp_path):
    """The script with its paths moved into tmp_path and a stand-in daemon
    named clientmgr (the real one would act on this machine)."""
    daemon = tmp_path / "clientmgr"
    daemon.write_text("#!/bin/sh\nwhile :; do sleep 1; done\n")
    daemon.chmod(0o755)
    pidfile = tmp_path / "clientmgr.pid"
    script = tmp_path / "init"
    script.write_text(SYSV.read_text().replace("DAEMON=/usr/sbin/clientmgr", f"DAEMON={daemon}")
                      .replace("PIDFILE=/var/run/clientmgr.pid", f"PIDFILE={pidfile}"))

    def init(action):
        return run(["sh", str(script), action])

    assert init("status").returncode == 3
    assert init("start").returncode == 0
    pid = int(pidfile.read_text())
    assert Path(f"/proc/{pid}").exists()
    r = init("status")
    assert r.returncode == 0 and f"running (pid {pid})" in r.stdout
    assert "already running" in init("start").stdout and int(pidfile.read_text()) == pid
    assert init("restart").returncode == 0
    new_pid = int(pidfile.read_text())
    assert new_pid != pid and not _alive(pid)
    assert init("stop").returncode == 0 and not pidfile.exists()
    assert init("status").returncode == 3
    # A stale pid file of a process that is gone.
    pidfile.write_text("999999\n")
    assert init("status").returncode == 1
    assert init("bogus").returncode == 2


def _alive(pid):
    try:
        return not Path(f"/proc/{pid}/stat").read_text().split(") ")[1].startswith("Z")
    except OSError:
        return False


@pytest.mark.parametrize("page", sorted(p.name for p in (REPO / "docs").glob("*.8")))
def test_man_pages_render_without_warnings(page):
    need("man")
    r = run(["man", "--warnings", "-l", str(REPO / "docs" / page)], env={**os.environ, "MANWIDTH": "80"})
    assert r.returncode == 0 and r.stderr == "", r.stderr
    assert "NAME" in r.stdout and "SYNOPSIS" in r.stdout

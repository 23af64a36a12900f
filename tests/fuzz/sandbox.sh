#!/bin/sh
# Runs a command (a fuzz target) in a private mount namespace in which the
# daemon's fixed paths are the sandbox's own: /tmp and /run are empty
# tmpfs, /etc is an overlay whose changes vanish at the end, /proc gets
# writable wifi0/ and wifi1/ directories (for neighbor_ap), and /dev/log
# leads nowhere. Nothing the target writes reaches the host.
#
#   tests/fuzz/sandbox.sh build-fuzz/tests/fuzz/interpreter_fuzzer CORPUS_DIR ...
#
# Paths given to the command must not lie under /tmp (it is replaced).
# As root it uses mount and pid namespaces; otherwise a user namespace too.
set -eu
if [ "${CLIENTMGR_FUZZ_NS:-}" != 1 ]; then
	export CLIENTMGR_FUZZ_NS=1
	if [ "$(id -u)" = 0 ]; then
		exec unshare --mount --pid --fork --kill-child --propagation private "$0" "$@"
	fi
	exec unshare --map-root-user --mount --pid --fork --kill-child --propagation private "$0" "$@"
fi
unset CLIENTMGR_FUZZ_NS

mount -t tmpfs -o mode=1777 fuzz-tmp /tmp
mkdir -p /tmp/.sb/etc-upper /tmp/.sb/etc-work /tmp/.sb/proc
mount -t overlay overlay -o lowerdir=/etc,upperdir=/tmp/.sb/etc-upper,workdir=/tmp/.sb/etc-work /etc
mount -t tmpfs -o mode=755 fuzz-run /run
[ -L /var/run ] || mount -t tmpfs -o mode=755 fuzz-var-run /var/run

# /proc: a tmpfs of links into this pid namespace's own proc (kept at
# /proc/.host), plus the radios' directories. The first pids are linked
# ahead (LeakSanitizer reads /proc/<pid>/task; the target is pid 1).
mount -t tmpfs -o mode=755 fuzz-proc /tmp/.sb/proc
mkdir /tmp/.sb/proc/.host
mount -t proc proc /tmp/.sb/proc/.host
for e in $(ls -A /tmp/.sb/proc/.host); do
	case $e in *[!0-9]*) ln -s ".host/$e" "/tmp/.sb/proc/$e" ;; esac
done
(cd /tmp/.sb/proc && ln -s $(seq -f .host/%g 1 1024) .)
rm -f /tmp/.sb/proc/wifi0 /tmp/.sb/proc/wifi1
mkdir /tmp/.sb/proc/wifi0 /tmp/.sb/proc/wifi1
mount --move /tmp/.sb/proc /proc

# syslog(3) finds no socket: the daemon code's log lines go nowhere.
if [ -S /dev/log ]; then mount --bind /dev/null /dev/log; fi

: >/tmp/.clientmgr-fuzz-sandbox
exec "$@"

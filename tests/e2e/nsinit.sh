#!/bin/sh
# Pid 1 of a sandbox: started by sandbox.py through
#   unshare --mount --net --pid --kill-child nsinit.sh SANDBOX_DIR
# It puts the sandbox's files at the daemon's fixed paths, says "ready" and
# then waits for the end of its stdin. When it exits, the kernel kills every
# process of the pid namespace, and the mounts and links go with the last of
# them: nothing stays on the host.
set -eu
sb=$1

# shadow DIR NAME: cover DIR with a tmpfs holding relative links to every
# entry of the old DIR (kept reachable as DIR/.host) and absolute links to
# the entries of $sb/shadow/NAME, which take precedence. Links keep working
# per process: /proc/self -> .host/self. Pid directories of /proc are not
# linked (they come and go); /proc/self and /proc/thread-self cover the
# daemon's own needs.
shadow() {
	dir=$1 mnt=$sb/mnt/$2 extra=$sb/shadow/$2
	mount -t tmpfs -o mode=755 sandbox "$mnt"
	mkdir "$mnt/.host"
	if [ "$dir" = /proc ]; then
		mount -t proc proc "$mnt/.host"
	else
		mount --rbind "$dir" "$mnt/.host"
	fi
	links=
	for e in $(ls -A "$mnt/.host"); do
		case $e in *[!0-9]*) ;; *) continue ;; esac
		[ -e "$extra/$e" ] || [ -L "$extra/$e" ] || links="$links .host/$e"
	done
	(cd "$mnt" && ln -s -t . $links)
	for e in $(ls -A "$extra"); do
		ln -s "$extra/$e" "$mnt/$e"
	done
	mount --move "$mnt" "$dir"
}

upper=$sb/etc-upper work=$sb/etc-work
if [ -f "$sb/etc-size" ]; then
	# what is written to /etc goes to a tmpfs of that size, which a test can fill
	mount -t tmpfs -o "size=$(cat "$sb/etc-size")" sandbox "$sb/etc-rw"
fi
if [ -f "$sb/etc-copy" ]; then
	# /etc is that tmpfs itself, holding a copy of the host's /etc and the
	# sandbox's files: no overlay, as on a device whose /etc is in RAM
	cp -a /etc/. "$upper/." "$sb/etc-rw/"
	mount --bind "$sb/etc-rw" /etc
else
	if [ -f "$sb/etc-size" ]; then
		cp -a "$upper" "$sb/etc-rw/upper" && mkdir "$sb/etc-rw/work"
		upper=$sb/etc-rw/upper work=$sb/etc-rw/work
	fi
	mount -t overlay overlay -o "lowerdir=/etc,upperdir=$upper,workdir=$work" /etc
fi
mount --bind "$sb/tmp" /tmp
mount --bind "$sb/run" /run
[ -L /var/run ] || mount --bind "$sb/run" /var/run
shadow /proc proc        # /proc/wifiN
shadow /dev dev          # /dev/log
shadow "$(realpath /usr/sbin)" usr-sbin   # /usr/sbin/snmptrap, /sbin/ebtables
ip link set lo up

echo ready
exec cat >/dev/null

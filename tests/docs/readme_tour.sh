#!/bin/bash
# The README's tour of keladm runs as written: every command of each block marked with
# the line "<!-- tour -->" just above it, in order, on one host that is both controller
# and node, with keld running from the start (as on every host) and an uplink eth0. A
# command fails the tour when it exits non-zero or writes to stderr (a warning in a tour
# is a fault of the tour).
#
# Rules for the README's lines, kept few so that what runs is what an operator reads:
# - a command whose text holds " ... " elides what a real run needs (a VM's disk): it is
#   shown, not run;
# - /etc/kel is $KEL_ROOT/etc/kel here, as the library itself reads it: a mount over
#   /etc/kel would need the directory made in the machine's own /etc;
# - an ssh:// URI (the node's controller, the controller's way to a host) is unix://:
#   every host of the tour is this one, whose keld answers on its own socket.
#
# Everything runs in namespaces of its own (mount, network, pid): guest namespaces the
# tour names under /run/netns are private to it, and keld ends with it, however it ends.
# Usage: readme_tour.sh README KELADM KELD. Exit 77 (skipped) when it cannot run here.
skip() { echo "SKIPPED: $*"; exit 77; }

if [ -z "$KEL_TOUR_ROOT" ]; then
	[ $# = 3 ] || { echo "usage: $0 README KELADM KELD" >&2; exit 2; }
	[ "$(id -u)" = 0 ] || skip "needs root"
	for tool in unshare ip mount; do command -v $tool >/dev/null || skip "$tool is not installed"; done
	unshare --mount --net --pid --fork true 2>/dev/null || skip "namespaces cannot be made here"
	root=$(mktemp -d /tmp/kel-tour-XXXXXX)
	trap 'rm -rf "$root"' EXIT
	mkdir -p "$root/bin"
	ln -s "$(readlink -f "$2")" "$root/bin/keladm"
	ln -s "$(readlink -f "$3")" "$root/bin/keld"
	KEL_TOUR_ROOT=$root unshare --mount --net --pid --fork --kill-child --mount-proc \
		bash "$(readlink -f "$0")" "$(readlink -f "$1")"
	exit
fi

# Inside: the host.
readme=$1
at=$(basename "$readme")
export KEL_ROOT=$KEL_TOUR_ROOT/root PATH=$KEL_TOUR_ROOT/bin:$PATH
mkdir -p "$KEL_ROOT" /run/netns
if ! mount -t tmpfs tour-netns /run/netns || ! mount -t sysfs sysfs /sys; then
	skip "a private /run/netns and /sys cannot be mounted here"
fi
ip link set lo up
ip link add eth0 type veth peer name eth0-peer 2>/dev/null || skip "veth links cannot be made here"
ip addr add 10.0.0.1/24 dev eth0	# in the tour's vxlan-addr: this host's VXLAN endpoint
ip link set eth0-peer up && ip link set eth0 up
keld 2>"$KEL_TOUR_ROOT/keld.log" &
for _ in $(seq 100); do [ -S "$KEL_ROOT/run/kel/keld.sock" ] && break; sleep 0.05; done
[ -S "$KEL_ROOT/run/kel/keld.sock" ] || { echo "FAILED: keld did not start"; cat "$KEL_TOUR_ROOT/keld.log"; exit 1; }

# The marked blocks' commands, one a line: "LINE<tab>COMMAND", a command continued with
# a trailing backslash joined into one.
commands() {
	awk '/^<!-- tour -->$/ { mark = NR; next }
	     /^```sh$/ && mark == NR - 1 { inside = 1; next }
	     /^```/ { inside = 0; next }
	     inside && cmd == "" { at = NR }
	     inside { cmd = cmd $0; if (sub(/\\$/, "", cmd)) next; print at "\t" cmd; cmd = "" }' "$1"
}

fail=0
ran=0
while IFS=$'\t' read -r line cmd; do
	[[ $cmd =~ ^[[:space:]]*(#|$) ]] && continue
	[[ $cmd == *" ... "* ]] && { echo "shown, not run: $at:$line: $cmd"; continue; }
	run=$(sed "s|/etc/kel|$KEL_ROOT/etc/kel|g; s|ssh://[^ ]*|unix://|g" <<<"$cmd")
	echo "\$ $cmd"
	bash -c "$run" </dev/null 2>"$KEL_TOUR_ROOT/stderr"
	rc=$?
	cat "$KEL_TOUR_ROOT/stderr"
	ran=$((ran + 1))
	if [ $rc != 0 ] || [ -s "$KEL_TOUR_ROOT/stderr" ]; then
		echo "FAILED (status $rc): $at:$line: $cmd"
		fail=1
	fi
done < <(commands "$readme")
[ $ran -gt 0 ] || { echo "FAILED: no command of the tour found in $readme"; fail=1; }
if [ $fail = 0 ]; then
	echo "ok: the tour's $ran commands ran as written"
else
	echo "keld's log:"
	cat "$KEL_TOUR_ROOT/keld.log"
fi
exit $fail

#!/bin/bash
# Hosts joining VXLAN kels that have no multicast group, one after another: each host's
# first VNIC on a kel makes its link there, and the controller then gives every host of
# the kel the others' endpoints as its flood list. A fabric of a controller and H hosts,
# each a network namespace with its own sshd and keld (tests/e2e/fabric_lib.sh). The
# hosts join kel "web" one by one, each join with the first calls between the host and
# the controller, then kel "db", every connection standing. Prints, as JSON lines: each
# join's time (its create-vnic, timed inside the joining host) and the CPU time the
# controller's and the hosts' daemons (keld, sshd, ssh) used for it, the ssh logins and
# sessions the controller opened on the hosts after each kel, and how many of the hosts'
# flood lists hold every other host.
# Usage: join_bench.sh KELADM KELD [H]   (default H: 16). Needs root; exits 77 otherwise.
set -u
keladm_bin=$(realpath "$1")
keld=$(realpath "$2")
hosts=${3:-16}
here=$(dirname "$(realpath "$0")")
. "$here/../tests/e2e/fabric_lib.sh"
. "$here/bench_lib.sh"

# Connections stay up for the whole run: the second kel's joins find them all standing.
export KEL_SSH_PERSIST=600
fabric_nodes="ctl $(for ((i = 0; i < hosts; i++)); do printf 'h%d ' "$i"; done)"
fabric_guests=
fabric_require || { echo "SKIPPED: $fabric_skip" >&2; exit 77; }
fabric_up || { echo "SKIPPED: $fabric_skip" >&2; exit 77; }
[ -n "${KEEP:-}" ] && echo "kept: $fabric_root (tag $fabric_tag)" >&2 || trap fabric_down EXIT

fabric_configure
keladm_on ctl set-controlprop vxlan-mgroup= >/dev/null
subnet=61
for kel in web db; do
	keladm_on ctl create-kel -p l2-type=vxlan "$kel" >/dev/null
	keladm_on ctl add-ipnet -p subnet=10.$((subnet++)).0.0/16 "$kel/$kel-net" >/dev/null
	for ((i = 0; i < hosts; i++)); do keladm_on ctl add-vport "$kel/p$i" >/dev/null; done
done

# What the controller opened on the hosts' sshd so far: logins, then sessions.
opened() {
	local logins=0 sessions=0 i
	for ((i = 0; i < hosts; i++)); do
		logins=$((logins + $(grep -c "Accepted publickey for root from 10.77.0.1 " "$fabric_root/h$i/sshd.log")))
		sessions=$((sessions + $(grep -c "Starting session: .* for root from 10.77.0.1 " "$fabric_root/h$i/sshd.log")))
	done
	echo "$logins $sessions"
}

# CPU time (ms) used so far by the processes of the namespace named, among those that
# stood when the phase began (keld, sshd and its connections, ssh's shared connections):
# one reading of their counters, so that measuring costs no process per daemon.
cpu_pids() {
	local ns
	for ns in "$@"; do ip netns pids "$ns"; done | sed 's|.*|/proc/&/stat|'
}
cpu_ms() { cat "$@" 2>/dev/null | awk -v hz="$(getconf CLK_TCK)" '{ t += $14 + $15 } END { print int(t * 1000 / hz) }'; }
host_namespaces=$(for ((i = 0; i < hosts; i++)); do host_ns "h$i"; done)

# The hosts join "web" one by one, each with its first call to the controller and the
# controller's first to it; then "db", every connection standing.
for kel in web db; do
	# shellcheck disable=SC2086
	ctl_stats=$(cpu_pids "$(host_ns ctl)") host_stats=$(cpu_pids $host_namespaces)
	for ((i = 0; i < hosts; i++)); do
		# shellcheck disable=SC2086
		ctl_before=$(cpu_ms $ctl_stats) hosts_before=$(cpu_ms $host_stats)
		us=$(on "h$i" bash -c '. "$1"; t0=$(now_us); "$2" create-vnic "$3/p$4" "$3$4" >/dev/null || exit 1
			echo $(($(now_us) - t0))' _ "$here/bench_lib.sh" "$keladm_bin" "$kel" "$i") ||
			{ echo "join_bench: the join of h$i to $kel failed" >&2; cat "$fabric_root/ctl/keld.log" >&2; exit 1; }
		# shellcheck disable=SC2086
		ctl_cpu=$(($(cpu_ms $ctl_stats) - ctl_before)) hosts_cpu=$(($(cpu_ms $host_stats) - hosts_before))
		echo "{\"hosts\": $hosts, \"op\": \"join $kel\", \"already\": $i, \"ms\": $(ms_text "$us"), \"cpu_ms_controller\": $ctl_cpu, \"cpu_ms_hosts\": $hosts_cpu}"
	done
	read -r logins sessions <<<"$(opened)"
	echo "{\"hosts\": $hosts, \"op\": \"ssh the controller opened on the hosts, after joining $kel\", \"logins\": $logins, \"sessions\": $sessions}"
done

complete=0
for ((i = 0; i < hosts; i++)); do
	for kel in web db; do
		link=kel-vxlan$(keladm_on ctl show-kel -p -o id "$kel")
		entries=$(ip netns exec "$(host_ns "h$i")" bridge fdb show dev "$link" | grep -c '^00:00:00:00:00:00 dst')
		[ "$entries" = $((hosts - 1)) ] && complete=$((complete + 1))
	done
done
echo "{\"hosts\": $hosts, \"op\": \"flood lists holding every other host\", \"count\": $complete, \"of\": $((2 * hosts))}"

#!/bin/bash
# The controller tier losing machines under load. The store is a PostgreSQL pair under
# Patroni over three etcd members, with synchronous replication; two controllers' keld
# serve it; two hosts, each naming both controllers, bind and release ports in a steady
# stream while an operator adds ports and kels on the first controller. The database's
# primary is killed (-9), then the first controller's keld. Afterwards: every step that
# was acknowledged is in the store, no VLAN ID, VNI, address or MAC address is held twice,
# the store keeps its allocation invariants, and the stream resumed within a bound
# (printed: how long each loss stopped it).
# Usage: failover.sh KELADM KELD BIND_STREAM. Exit 77 (skipped) when it cannot run here.
set -u
keladm=$(readlink -f "$1")
keld=$(readlink -f "$2")
bind_stream=$(readlink -f "$3")
here=$(dirname "$(readlink -f "$0")")
. "$here/ha_cluster.sh"

ha_require || { echo "SKIPPED: $ha_skip"; exit 77; }
[ "$(id -u)" = 0 ] || { echo "SKIPPED: needs root"; exit 77; }

# How long a loss may stop the stream: the database's failover (its leader key lapses
# after 10 s) and the node's pauses between rounds, with room for a slow machine.
resume_bound_ms=45000

fail=0
check() {
	local what=$1
	shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}
is() { [ "$1" = "$2" ] || { echo "  got '$1', want '$2'"; return 1; }; }

dir=$(mktemp -d /tmp/kel-failover-XXXXXX)
chmod 755 "$dir"
pids=()
cleanup() {
	for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null; done
	wait 2>/dev/null
	ha_down
	rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

on() { local root=$1; shift; KEL_ROOT=$dir/$root "$@"; }
adm() { local root=$1; shift; KEL_ROOT=$dir/$root "$keladm" "$@"; }

ha_up "$dir/ha" || { echo "FAILED: the database cluster did not start"; exit 1; }
leader=$(ha_leader)
# Nothing acknowledged may be lost with the primary: each commit waits for the standby.
check "the primary streams to the other member as its synchronous standby" \
	is "$(ha_sql_on "$leader" "SELECT application_name, sync_state FROM pg_stat_replication")" "$(ha_other "$leader")|sync"
check "a commit through the controllers' connection string waits for the standby" \
	is "$(ha_psql "SELECT current_setting('synchronous_commit'), current_setting('synchronous_standby_names')")" \
	"on|$(ha_other "$leader")"

# Two controllers of one database, each with its own keld and socket.
for c in c1 c2; do
	mkdir -p "$dir/$c/etc/kel"
	check "$c's store is the database" adm $c set-store "$ha_conninfo"
done
check "the first controller makes the schema" adm c1 create-store
check "the second finds it made" adm c2 create-store
for prop in vlan-range=100-4000 vxlan-range=5000-9000 uplink-port=eth0; do
	check "the fabric's $prop" adm c1 set-controlprop $prop
done
check "a VXLAN kel" adm c1 create-kel -p l2-type=vxlan web
check "its network" adm c1 add-ipnet -p subnet=10.60.0.0/16 web/net
for h in 1 2; do
	for i in $(seq 0 7); do adm c1 add-vport web/h${h}p$i >/dev/null || fail=1; done
done
check "each host's ports" is "$(adm c2 show-vport -p -o name | wc -l)" 16
[ $fail = 0 ] || exit 1
for c in c1 c2; do
	(cd / && KEL_ROOT=$dir/$c exec "$keld" >"$dir/$c.log" 2>&1) &
	pids+=($!)
	eval "keld_$c=$!"
done
for c in c1 c2; do
	for _ in $(seq 200); do [ -S "$dir/$c/run/kel/keld.sock" ] && break; sleep 0.05; done
	check "$c's keld serves" test -S "$dir/$c/run/kel/keld.sock"
done
controllers="unix://localhost$dir/c1/run/kel/keld.sock,unix://localhost$dir/c2/run/kel/keld.sock"
for h in 1 2; do
	mkdir -p "$dir/h$h/etc/kel"
	check "host h$h names both controllers" adm h$h set-clientprop "controller=$controllers"
done

# The streams: each host binds and releases its eight ports in turn; the operator adds a
# port, and every fifth step a VLAN kel and a VXLAN kel (each draws an ID). A step the
# operator is not told the outcome of is made again: "object already exists" then means
# the first went through.
stop=$dir/stop
for h in 1 2; do
	on h$h "$bind_stream" web host$h h${h}p 8 "$stop" >"$dir/stream-h$h" 2>&1 &
	pids+=($!)
done
operator() {
	local i=0 name out
	start=${EPOCHREALTIME/[.,]/}
	while [ ! -e "$stop" ]; do
		for step in "add-vport web/o$i" "create-kel -p l2-type=vlan kv$i" "create-kel -p l2-type=vxlan kx$i"; do
			case $step in create-kel*) [ $((i % 5)) = 0 ] || continue ;; esac
			name=${step##*[ /]}
			while :; do
				# shellcheck disable=SC2086
				if out=$(adm c1 $step 2>&1) || [[ $out == *"object already exists"* ]]; then
					echo "$(((${EPOCHREALTIME/[.,]/} - start) / 1000)) ok $name"
					break
				fi
				echo "$(((${EPOCHREALTIME/[.,]/} - start) / 1000)) error $name $out"
				[ ! -e "$stop" ] || return 1
				sleep 0.2
			done
		done
		i=$((i + 1))
	done
}
operator >"$dir/stream-op" 2>&1 &
pids+=($!)

acked() { cat "$dir/stream-h1" "$dir/stream-h2" | awk -v step="$1" '$2 == step { n++ } END { print n + 0 }'; }
sleep 5
before=$(acked bind)
check "binds flow before any loss" test "$before" -gt 10

lost=$(ha_kill_leader) || { echo "FAILED: the database's primary could not be killed"; exit 1; }
echo "killed the database's primary, $lost"
secs=$(ha_wait_leader "$lost" 60) || { echo "FAILED: no database took over"; exit 1; }
echo "database failover: $(ha_leader) took writes after $secs s"
sleep 5
# shellcheck disable=SC2154
kill -9 "$keld_c1"
wait "$keld_c1" 2>/dev/null
echo "killed the first controller's keld"
sleep 8
touch "$stop"
for p in "${pids[@]:2}"; do wait "$p" 2>/dev/null; done
after=$(acked bind)
check "binds went on after both losses" test "$after" -gt "$((before + 10))"

# The longest pause between two acknowledged steps of each stream.
gap() { awk '$2 != "error" { if (last != "" && $1 - last > g) g = $1 - last; last = $1 } END { print g + 0 }' "$1"; }
for s in h1 h2 op; do
	g=$(gap "$dir/stream-$s")
	echo "stream $s: longest pause $g ms, $(grep -c ' error ' "$dir/stream-$s") failed attempts"
	awk '$2 == "error" { $1 = $3 = $4 = ""; print }' "$dir/stream-$s" | sort | uniq -c | sed 's/^/  /'
	check "stream $s resumed within $((resume_bound_ms / 1000)) s" test "$g" -le "$resume_bound_ms"
done

# Everything acknowledged is there, as it was acknowledged.
ports=$(adm c2 show-vport -p -o name,status,ipaddr,macaddr)
for name in $(awk '$2 == "ok" && $3 ~ /^o/ { print $3 }' "$dir/stream-op"); do
	grep -q "^$name:" <<<"$ports" || { echo "  port $name is missing"; fail=1; }
done
kels=$(adm c2 show-kel -p -o name,id)
for name in $(awk '$2 == "ok" && $3 ~ /^k/ { print $3 }' "$dir/stream-op"); do
	grep -q "^$name:" <<<"$kels" || { echo "  kel $name is missing"; fail=1; }
done
check "every port and kel the operator was told of is in the store" test $fail = 0
check "each host released what it bound last" is "$(grep -c ':used:' <<<"$ports")" 0
wrong=$(awk '$2 == "bind" { print $3, $4, $5 }' "$dir/stream-h1" "$dir/stream-h2" | sort -u |
	while read -r port ip mac; do
		grep -qF "$port:free:$ip:${mac//:/\\:}" <<<"$ports" || echo "$port $ip $mac"
	done)
check "each bind answered with its port's own address and MAC address" is "$wrong" ""

# Nothing held twice, and the store's own invariants.
check "no address is held twice" is "$(cut -d: -f3 <<<"$ports" | grep -v '^$' | sort | uniq -d)" ""
check "no MAC address is held twice" is "$(sed 's/\\:/-/g' <<<"$ports" | cut -d: -f4 | sort | uniq -d)" ""
check "no VLAN ID or VNI is held twice" is "$(cut -d: -f2 <<<"$kels" | sort | uniq -d)" ""
check "the store keeps its invariants" adm c2 check-store
echo "bound $after times, operator's steps: $(grep -c ' ok ' "$dir/stream-op")"
[ $fail = 0 ] || for f in "$dir"/stream-* "$dir"/c*.log; do echo "== $f"; tail -n 5 "$f"; done
exit $fail

#!/bin/bash
# The VM harness of vm_lib.sh on its own: a real guest under qemu on a macvtap link takes
# its address, router and MTU from a DHCP server, reaches it, then moves live to another
# host's macvtap on the same L2 while that server pings it every 20 ms.
#   A (kva) eth0 ─┐               ┌─ eth0 (kvc) C
#   macvtap: VM   └─ pa ─ br0 ─ pc ┘   macvtap: VM after the move
#                  B (kvb): 10.79.0.1, udhcpd
# The move goes over the underlay, from A's 10.79.0.2 to C's 10.79.0.3.
# Usage: vm_boot.sh [IMAGE_DIR] (default: vm-image in the current directory; the kernel
# and initramfs are made there once). Exit 77 (skipped) when it cannot run here.
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
. "$here/vm_lib.sh"
image_dir=${1:-vm-image}

skip() { echo "SKIPPED: $*"; exit 77; }
fail=0
check() {
	local what=$1
	shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

vm_require || skip "$vm_skip"
command -v bridge >/dev/null || skip "bridge is not installed"
command -v ping >/dev/null || skip "ping is not installed"

tag=$$
A=kva-$tag B=kvb-$tag C=kvc-$tag
mac=02:6b:65:6c:00:01
pinger=
down() {
	[ -n "$pinger" ] && kill "$pinger" 2>/dev/null
	vm_cleanup
	local ns
	for ns in $A $B $C; do
		ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null || true
		ip netns del "$ns" 2>/dev/null || true
	done
	rm -rf "${work:-}"
}
trap down EXIT
work=$(mktemp -d /tmp/kel-vmboot-XXXXXX)

t0=$SECONDS
vm_image "$image_dir" || skip "no guest image: $vm_skip"
echo "guest image ready in $((SECONDS - t0))s ($vm_kernel_pkg), accel $vm_accel"

ip netns add "$B" 2>/dev/null || skip "network namespaces cannot be made here"
ip netns add "$A"
ip netns add "$C"
for ns in $A $B $C; do
	ip -n "$ns" link set lo up
	ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
done
ip -n "$B" link add br0 type bridge || skip "no bridge links"
ip -n "$B" addr add 10.79.0.1/24 dev br0
ip -n "$B" link set br0 up
n=2
for side in "$A:pa" "$C:pc"; do
	ns=${side%%:*} port=${side#*:}
	ip link add eth0 netns "$ns" type veth peer name "$port" netns "$B" || skip "no veth links"
	ip -n "$B" link set "$port" master br0 up
	ip -n "$ns" addr add "10.79.0.$((n++))/24" dev eth0
	ip -n "$ns" link set eth0 up
	ip -n "$ns" link add link eth0 name mvt0 type macvtap mode bridge 2>/dev/null ||
		skip "this kernel has no macvtap links"
done

cat >"$work/udhcpd.conf" <<CONF
interface br0
start 10.79.0.100
end 10.79.0.120
lease_file $work/leases
pidfile $work/udhcpd.pid
option subnet 255.255.255.0
option router 10.79.0.1
option mtu 1400
option lease 3600
CONF
touch "$work/leases"
ip netns exec "$B" "$vm_busybox" udhcpd -f "$work/udhcpd.conf" >"$work/udhcpd.log" 2>&1 &

t0=$SECONDS
vm_start vm "$A" mvt0 "$mac" vm.ip=dhcp
vm_wait_boot vm 120
booted=$((SECONDS - t0))
addr=
for _ in $(seq 40); do
	addr=$(vm_run vm "ip -o -4 addr show dev eth0" | awk '{ print $4 }') || true
	[ -n "$addr" ] && break
	sleep 0.5
done
echo "guest booted in ${booted}s, with address ${addr:-none} in $((SECONDS - t0))s"
[ -n "$addr" ] || { vm_run vm "cat /run/lease; ip -o link" || true; }
# udhcpd writes its leases down when told to.
kill -USR1 "$(cat "$work/udhcpd.pid")"
sleep 0.3
leased=$("$vm_busybox" dumpleases -f "$work/leases" | awk -v mac="$mac" 'tolower($1) == mac { print $2 }')
check "the guest's address is the one leased to its MAC ($leased), with the subnet's prefix" \
	test -n "$leased" -a "$addr" = "$leased/24"
ip=${addr%/*}
route=$(vm_run vm "ip route" | grep '^default') || true
check "its default router is the one handed out ($route)" \
	bash -c "[[ '$route' =~ ^'default via 10.79.0.1 dev eth0'\ *$ ]]"
check "its MTU is the one handed out" test "$(vm_run vm 'cat /sys/class/net/eth0/mtu')" = 1400
check "a full-size unfragmented packet gets through" vm_run vm "ping -q -c 2 -W 5 -M do -s 1372 10.79.0.1"
too_big=$(vm_run vm "ping -c 1 -W 2 -M do -s 1373 10.79.0.1") && too_big="(it went through) $too_big"
check "a packet over the MTU is refused, not fragmented" grep -q "message too long, mtu=1400" <<<"$too_big"
check "the server reaches the guest" ip netns exec "$B" ping -q -c 2 -W 5 "$ip"

# The move, with a ping every 20 ms running across it.
ip netns exec "$B" ping -i 0.02 -W 1 "$ip" >"$work/ping.log" 2>&1 &
pinger=$!
sleep 1
vm_migrate vm "$C" mvt0 10.79.0.3 47000
sleep 1
kill -INT "$pinger"
wait "$pinger" || true
pinger=
sent=$(sed -n 's/^\([0-9]*\) packets transmitted.*/\1/p' "$work/ping.log")
got=$(sed -n 's/.* \([0-9]*\) received.*/\1/p' "$work/ping.log")
lost=$((${sent:-0} - ${got:-0}))
echo "migration: ${vm_migrate_ms} ms (downtime ${vm_downtime_ms} ms); pings every 20 ms: $sent sent, $lost lost"
check "pings were sent across the move" test "${sent:-0}" -gt 50
check "fewer than 100 pings were lost in the move" test "$lost" -lt 100
check "the guest runs on in C" vm_run vm "ip -o -4 addr show dev eth0 | grep -q ' $ip/24 '"
check "the switch has learnt the guest's new port" \
	bash -c "bridge -n $B fdb show br br0 | grep -q '^$mac dev pc '"
check "the server reaches the moved guest" ip netns exec "$B" ping -q -c 3 -i 0.2 -W 5 "$ip"
check "the moved guest reaches the server" vm_run vm "ping -q -c 2 -W 5 10.79.0.1"
check "the source's qemu is gone" bash -c "! ip netns pids $A | grep -q ."
exit $fail

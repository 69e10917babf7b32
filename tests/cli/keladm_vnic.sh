#!/bin/bash
# keladm on a host: VNICs made in guest namespaces over a VXLAN kel's link, with their
# ports' addresses, reaching each other; a live property change reaching a VNIC inside a
# namespace; failures that undo what they did; and the teardown. Controller and host
# share one network namespace and talk over unix://.
# Usage: keladm_vnic.sh KELADM KELD. Exit 77 (skipped) when it cannot run here.
keld=$(readlink -f "$2")
. "$(dirname "$0")/lib.sh" "$(readlink -f "$1")"
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
command -v ping >/dev/null || skip "ping is not installed"

host=kelvh-$$
g1=kelvg1-$$
g2=kelvg2-$$
keld_pid=
holder=
cleanup() {
	[ -n "$holder" ] && kill "$holder" 2>/dev/null
	[ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null && wait "$keld_pid" 2>/dev/null
	for ns in "$g1" "$g2" "$host" "kel-ns-op$$"; do ip netns del "$ns" 2>/dev/null; done
	rm -rf "$root"
}
trap cleanup EXIT
host_node "$host" 10.84.0.1 || skip "network namespaces and veth links cannot be made here"
ip netns add "$g1" && ip netns add "$g2"

"$keladm" create-kel -p l2-type=vxlan,vni=5100 web >/dev/null
"$keladm" add-ipnet -p subnet=10.85.0.0/24 web/front >/dev/null
# The ports keep the kel's default protection: mac-nospoof and ip-nospoof.
"$keladm" add-vport -p ipaddr=10.85.0.11,maxbw=20M web/vm1 >/dev/null
"$keladm" add-vport -p ipaddr=10.85.0.12 web/vm2 >/dev/null
"$keladm" add-vport -p ipaddr=10.85.0.13 web/vm3 >/dev/null
"$keladm" add-vport -p ipaddr=10.85.0.14 web/vm4 >/dev/null
ip netns exec "$host" "$keld" 2>"$root/keld.log" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done

mac1=$("$keladm" show-vport -p -o macaddr web/vm1 | sed 's/\\:/:/g')
expect "a VNIC is made in a guest namespace over the kel's VXLAN link" \
	"created VNIC $g1/eth0 on web/vm1 over kel-vxlan5100 ($mac1, 10.85.0.11/24, MTU 1450)" \
	create-vnic --address web/vm1 "$g1/eth0"
status "a second one, as a macvtap" 0 create-vnic --address --macvtap web/vm2 "$g2/eth0"
expect "--may-exist: the VNIC there, bound to the kel's port, is success, echoed" "$g1/eth0:vm1:kel-vxlan5100" \
	create-vnic --may-exist --parseable -o vnic,vport,lower web "$g1/eth0"
expect "but not when it is another port's" \
	"keladm: cannot make VNIC '$g1/eth0': datalink error: datalink already exists" \
	create-vnic --may-exist web/vm2 "$g1/eth0"
check "it carries the port's MAC address" \
	bash -c "ip -n '$g1' link show eth0 | grep -qi 'link/ether 02:08:20'"
check "and the port's address, with the network's router" \
	bash -c "ip -n '$g1' addr show eth0 | grep -q 'inet 10.85.0.11/24' && ip -n '$g1' route | grep -q 'default via 10.85.0.1'"
check "and the port's link properties" bash -c "tc -n '$g1' qdisc show dev eth0 | grep -q 'tbf.*rate 20Mbit'"
check "the guests reach each other, their protection letting replies in" ip netns exec "$g1" ping -c 1 -W 2 10.85.0.12

# What a guest sends is guarded in the host's namespace, on the link its VNIC is made
# over, where the guest cannot remove it.
guard() { for c in egress ingress guard_ip4; do ip netns exec "$host" nft list chain netdev kel "$g1/eth0.$c"; done 2>&1; }
check "the guard of a VNIC in a guest namespace sits on its lower link in the host's" bash -c \
	"$(declare -f guard); host='$host' g1='$g1'; guard | grep -q 'hook egress device \"kel-vxlan5100\"' &&
	 guard | grep -q 'hook ingress device \"kel-vxlan5100\"'"
check "with a copy on the VNIC's own egress in the guest's, for its broadcasts to neighbours" bash -c \
	"ip netns exec '$g1' nft list chain netdev kel eth0.egress | grep -q 'hook egress device \"eth0\"'"
ip -n "$g1" addr add 10.85.0.99/24 dev eth0
ip netns exec "$g1" nft flush ruleset	# a guest that may lifts its own copy: the host's stays
check "a guest sending from an address not its port's is dropped" \
	bash -c "! ip netns exec '$g1' ping -c 2 -i 0.2 -W 1 -I 10.85.0.99 10.85.0.12 >/dev/null 2>&1"
check "and counted by the rule that dropped it" bash -c \
	"$(declare -f guard); host='$host' g1='$g1'; guard | grep -qE 'ip saddr != @[^ ]*allowed4 counter packets [1-9]'"
check "while its port's own address still gets through" ip netns exec "$g1" ping -c 1 -W 2 -I 10.85.0.11 10.85.0.12
ip -n "$g1" addr del 10.85.0.99/24 dev eth0

# A VM's macvtap stays in the host's namespace: guarded on its own transmit path.
expect "a macvtap in the host's namespace, echoed as JSON" \
	'[{"vnic": "vt0", "vport": "vm3", "lower": "kel-vxlan5100", "ipackets": null}]' \
	create-vnic --macvtap --json -o vnic,vport,lower,ipackets web/vm3 vt0
ip -n "$host" addr add 10.85.0.13/24 dev vt0
ip -n "$host" addr add 10.85.0.98/24 dev vt0
check "is guarded on its own egress" bash -c \
	"ip netns exec '$host' nft list chain netdev kel vt0.egress | grep -q 'hook egress device \"vt0\"'"
check "which drops what it sends from another address" \
	bash -c "! ip netns exec '$host' ping -c 2 -i 0.2 -W 1 -I 10.85.0.98 10.85.0.12 >/dev/null 2>&1"
check "and passes what it sends from its own" ip netns exec "$host" ping -c 1 -W 2 -I 10.85.0.13 10.85.0.12
status "it goes" 0 delete-vnic vt0
check "with its guard" bash -c "! ip netns exec '$host' nft list chain netdev kel vt0.egress 2>/dev/null"

# A namespace with no name, given by its path as container runtimes give it.
ip netns exec "$host" unshare -n sleep 300 &
holder=$!
for _ in $(seq 50); do [ "$(readlink "/proc/$holder/ns/net")" != "$(ip netns exec "$host" readlink /proc/self/ns/net)" ] && break; sleep 0.05; done
nsfile=/proc/$holder/ns/net
# "ip netns exec" gives each command a mount namespace of its own, where the name keladm
# makes under /run/netns would stay: these commands enter the host's network namespace
# alone, as keladm runs on a real host.
in_host_netns() { nsenter --net="/run/netns/$host" "$keladm_bin" "$@"; }
keladm=in_host_netns
status "a VNIC is made in a namespace given by its path" 0 create-vnic --address web/vm3 "$nsfile/eth0"
named=$("$keladm" show-vport -p -o vnic web/vm3)
check "which is named under /run/netns for the fabric ($named)" bash -c \
	"[[ '$named' == kel-ns-*/eth0 ]] && ip -n '${named%/eth0}' addr show eth0 | grep -q 'inet 10.85.0.13/24'"
expect "link properties given with the binding are checked like set-vportprop's" \
	"keladm: cannot bind a port of kel 'web' to VNIC '${named%/eth0}/eth1': invalid property specified" \
	create-vnic -p ipaddr=10.85.0.99 web/vm4 "$nsfile/eth1"
status "a second VNIC with its address in a namespace that has a default route" 0 \
	create-vnic --address -p maxbw=5M,containerid=c0ffee web/vm4 "$nsfile/eth1"
check "takes the link properties given with its binding, kept on its port" bash -c \
	"tc -n '${named%/eth0}' qdisc show dev eth1 | grep -q 'tbf.*rate 5Mbit' &&
	 [ \"\$(ip netns exec '$host' '$keladm_bin' show-vportprop -p -P maxbw -o value web/vm4)\" = 5M ]"
expect "show-vnic lists it with its container" "${named%/eth0}/eth1:c0ffee" show-vnic -p -o vnic,container "${named%/eth0}/eth1"
status "a live change reaches a VNIC in a namespace named for the fabric" 0 set-vportprop -p maxbw=7M web/vm4
check "through the name keld opens it by" bash -c "tc -n '${named%/eth0}' qdisc show dev eth1 | grep -q 'tbf.*rate 7Mbit'"
check "keeps the route it has" bash -c \
	"[ \"\$(ip -n '${named%/eth0}' route show default | wc -l)\" = 1 ] &&
	 ip -n '${named%/eth0}' route show default | grep -q 'dev eth0' &&
	 ip -n '${named%/eth0}' addr show eth1 | grep -q 'inet 10.85.0.14/24'"
status "the path names the VNIC to delete too" 0 delete-vnic "$nsfile/eth0"
status "and by its name" 0 delete-vnic "${named%/eth0}/eth1"
check "the namespace's name goes with its last VNIC, the namespace stays its owner's" bash -c \
	"[ ! -e '/run/netns/${named%/eth0}' ] && [ -e '$nsfile' ] &&
	 ! ip netns exec '$host' '$keladm_bin' show-vport -p -o name,status web | grep -qE '^vm[34]:bound'"
kill "$holder"
holder=
keladm=keladm
ip netns add "kel-ns-op$$"	# an operator's namespace that happens to look like one of the fabric's
"$keladm" create-vnic web/vm3 "kel-ns-op$$/eth0" >/dev/null && "$keladm" delete-vnic "kel-ns-op$$/eth0" >/dev/null
check "a namespace the fabric did not name keeps its name" test -e "/run/netns/kel-ns-op$$"
ip netns del "kel-ns-op$$"
check "the controller shows the binding" \
	bash -c "[ \"\$(ip netns exec '$host' '$keladm_bin' show-vport -p -o status,vnic web/vm1)\" = 'bound:$g1/eth0' ]"
check "show-vnic lists this host's VNICs with their ports, lower link and MTU, and the kel's responder link" \
	test "$("$keladm" show-vnic -p -o vnic,kel,vport,ipaddr,lower,mtu | sed 's/^kel-dhcp[0-9a-f]*:web:sys-vport[0-9]*:[^:]*:/responder:/' | sort)" = \
	"$g1/eth0:web:vm1:10.85.0.11/24:kel-vxlan5100:1450
$g2/eth0:web:vm2:10.85.0.12/24:kel-vxlan5100:1450
responder:kel-vxlan5100:1450"
check "with the kernel's counters, through keld" bash -c \
	"[ \"\$(ip netns exec '$host' '$keladm_bin' show-vnic -p -o opackets '$g1/eth0')\" -ge 1 ]"
expect "one that is not bound here is named" \
	"keladm: no VNIC 'nosuch0' is bound on this host: vport not found" show-vnic nosuch0
status "a live change reaches the VNIC inside its namespace" 0 set-vportprop -p maxbw=10M web/vm1
check "as a qdisc on the guest's link" bash -c "tc -n '$g1' qdisc show dev eth0 | grep -q 'tbf.*rate 10Mbit'"

# Failures undo what they did.
before=$("$keladm" show-vport -p -o name,status,vnic web | grep -v '^sys-vport')
expect "a port in use is refused" \
	"keladm: cannot bind a port of kel 'web' to VNIC '$g1/eth1': vport in use" \
	create-vnic web/vm1 "$g1/eth1"
expect "a VNIC name that is taken is refused" \
	"keladm: cannot make VNIC '$g2/eth0': datalink error: datalink already exists" \
	create-vnic web "$g2/eth0"
check "and leaves no port bound and no link behind" \
	bash -c "[ \"\$(ip netns exec '$host' '$keladm_bin' show-vport -p -o name,status,vnic web | grep -v '^sys-vport')\" = \"$before\" ] && ! ip -n '$g1' link show eth1 2>/dev/null"
status "a guest namespace that does not exist fails" 1 create-vnic web/vm1 nosuchns-$$/eth0
expect "delete-vnic --if-exists: nothing there is success" "" delete-vnic --if-exists nosuch0
status "without it, a failure" 1 delete-vnic nosuch0

status "the first VNIC goes" 0 delete-vnic "$g1/eth0"
check "with its guard in the host's namespace" bash -c "! ip netns exec '$host' nft list chain netdev kel '$g1/eth0.egress' 2>/dev/null"
check "its port is free, the shared link stays" \
	bash -c "[ \"\$(ip netns exec '$host' '$keladm_bin' show-vport -p -o status web/vm1)\" = free ] && ip -n '$host' link show kel-vxlan5100 >/dev/null"
status "the last VNIC goes" 0 delete-vnic "$g2/eth0"
check "and the VXLAN link with it" bash -c "! ip -n '$host' link show kel-vxlan5100 2>/dev/null"
check "every port is free" bash -c "! ip netns exec '$host' '$keladm_bin' show-vport -p -o status web | grep -q bound"

# Operators at once on one VXLAN link: each succeeds. The last two VNICs of the VNI go
# together; VNICs come and go in loops side by side.
together=0
for round in 1 2 3; do
	"$keladm" create-vnic web/vm1 "$g1/eth0" >/dev/null && "$keladm" create-vnic web/vm2 "$g2/eth0" >/dev/null || together=1
	"$keladm" delete-vnic "$g1/eth0" & one=$!
	"$keladm" delete-vnic "$g2/eth0" & two=$!
	wait $one || together=1
	wait $two || together=1
done
check "the last two VNICs deleted at once both succeed" test $together = 0
check "and the link goes with them" bash -c "! ip -n '$host' link show kel-vxlan5100 2>/dev/null"
loop() { # VNIC: made and deleted six times; prints the failures
	local n=0
	for _ in 1 2 3 4 5 6; do
		"$keladm" create-vnic web "$1" >/dev/null 2>>"$root/loops.err" || n=$((n + 1))
		"$keladm" delete-vnic "$1" >/dev/null 2>>"$root/loops.err" || n=$((n + 1))
	done
	echo $n
}
pids=()
for i in 1 2 3 4; do loop "cv$i" >"$root/loop$i" & pids+=($!); done
wait "${pids[@]}"	# keld runs in the background too
failures=$(awk '{ s += $1 } END { print s + 0 }' "$root"/loop?)
check "four loops of creates and deletes side by side all succeed ($failures failed: $(head -c 300 "$root/loops.err"))" \
	test "$failures" = 0
check "and leave no port bound, no link behind" bash -c \
	"! ip netns exec '$host' '$keladm_bin' show-vport -p -o status web | grep -q bound && ! ip -n '$host' link show kel-vxlan5100 2>/dev/null"
exit $fail

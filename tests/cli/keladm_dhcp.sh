#!/bin/bash
# The host's address responder, against real DHCP clients in guest namespaces: busybox's
# udhcpc and ISC dhclient get their ports' addresses, router, MTU and name servers; a
# request for another port's MAC address gets nothing; a bound guest still renews while
# the controller is away; the responder's link goes with the kel's last guest on the host,
# and an operator can turn the responder off per kel. Controller and host share one
# network namespace and talk over unix://.
# Usage: keladm_dhcp.sh KELADM KELD FRAME. Exit 77 (skipped) when it cannot run here.
keld=$(readlink -f "$2")
frame=$(readlink -f "$3")
. "$(dirname "$0")/lib.sh" "$(readlink -f "$1")"
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
command -v busybox >/dev/null || skip "busybox (udhcpc) is not installed"
command -v dhclient >/dev/null || skip "dhclient is not installed"

host=keldh-$$
g1=keldg1-$$
g2=keldg2-$$
g3=keldg3-$$
g4=keldg4-$$
keld_pid=
cleanup() {
	for pid in "$root"/g*.pid; do [ -f "$pid" ] && kill "$(cat "$pid")" 2>/dev/null; done
	[ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null && wait "$keld_pid" 2>/dev/null
	for ns in "$g1" "$g2" "$g3" "$g4" "$host"; do ip netns del "$ns" 2>/dev/null; done
	rm -rf "$root"
}
trap cleanup EXIT
host_node "$host" 10.86.0.1 || skip "network namespaces and veth links cannot be made here"
for g in "$g1" "$g2" "$g3" "$g4"; do ip netns add "$g"; done

"$keladm" create-kel -p l2-type=vxlan,vni=5200,dhcp:dns=10.87.0.53,10.87.0.54 web >/dev/null
"$keladm" add-ipnet -p subnet=10.87.0.0/24 web/front >/dev/null
for i in 1 2 3; do "$keladm" add-vport -p ipaddr=10.87.0.1$i web/vm$i >/dev/null; done
start_keld() {
	ip netns exec "$host" "$keld" 2>>"$root/keld.log" &
	keld_pid=$!
	for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
}
start_keld

# udhcpc's script writes down what it was handed, and takes the address.
cat >"$root/udhcpc.sh" <<'EOF'
#!/bin/sh
echo "$1 ip=$ip subnet=$subnet router=$router mtu=$mtu dns=$dns" >>"$LOG"
case $1 in bound|renew) ip addr replace "$ip/$mask" dev "$interface";; esac
EOF
chmod +x "$root/udhcpc.sh"
udhcpc() { # NAMESPACE [ARGS...]: one lease, in the foreground
	local ns=$1; shift
	LOG=$root/$ns.log ip netns exec "$ns" busybox udhcpc -i eth0 -f -q -n -t 5 -T 1 -s "$root/udhcpc.sh" "$@" >/dev/null 2>&1
}

for i in 1 2 3; do "$keladm" create-vnic "web/vm$i" "$(eval echo \$g$i)/eth0" >/dev/null; done
responder=$(on_host ip -o link show | grep -o 'kel-dhcp[0-9a-f]*' | head -1)
check "the first guest of the kel on the host brings the kel's responder link" test -n "$responder"
check "which is bound to a system port of the kel of its own" bash -c \
	"ip netns exec '$host' '$keladm_bin' show-vnic -p -o vnic,kel,vport | grep -q '^$responder:web:sys-vport[0-9]*$'"
server=$(keladm show-vnic -p -o ipaddr "$responder" | cut -d/ -f1)
check "and takes nothing into the host's network stack" bash -c \
	"ip netns exec '$host' nft list table netdev 'kel-sealed_$responder' | grep -q 'hook ingress'"

udhcpc "$g1"
check "udhcpc gets its port's address, the router, the VNIC's MTU and the name servers" \
	grep -qx "bound ip=10.87.0.11 subnet=255.255.255.0 router=10.87.0.1 mtu=1450 dns=10.87.0.53 10.87.0.54" "$root/$g1.log"
check "from the host's responder, which answers ARP for its address to the kel's guests" \
	ip netns exec "$g1" busybox arping -q -c 1 -w 2 -I eth0 "$server"

ip netns exec "$g2" dhclient -1 -sf /bin/true -lf "$root/g2.leases" -pf "$root/g2.pid" eth0 >/dev/null 2>&1
check "dhclient gets its port's address and MTU" bash -c \
	"grep -q 'fixed-address 10.87.0.12;' '$root/g2.leases' && grep -q 'option interface-mtu 1450;' '$root/g2.leases'"

# An IPv6 kel: the responder advertises the prefix as on the link, with addresses from
# DHCPv6, and answers dhclient -6 with the port's address and the name server.
"$keladm" create-kel -p l2-type=vxlan,vni=5201,dhcp:dns=2001:db8:53::1 web6 >/dev/null
"$keladm" add-ipnet -p subnet=2001:db8:87::/64 web6/front6 >/dev/null
"$keladm" add-vport -p ipaddr=2001:db8:87::11 web6/vm1 >/dev/null
"$keladm" create-vnic web6/vm1 "$g4/eth0" >/dev/null
for _ in $(seq 50); do
	[ -z "$(ip -n "$g4" -6 addr show dev eth0 tentative)" ] && ip -n "$g4" -6 addr show dev eth0 | grep -q fe80 && break
	sleep 0.1
done
ip netns exec "$g4" timeout 20 dhclient -6 -1 -sf /bin/true -lf "$root/g4.leases" -pf "$root/g4.pid" eth0 >/dev/null 2>&1
check "dhclient -6 gets its port's address and the name server" bash -c \
	"grep -q 'iaaddr 2001:db8:87::11 ' '$root/g4.leases' && grep -q 'option dhcp6.name-servers 2001:db8:53::1;' '$root/g4.leases'"
# The prefix's route comes from the advertisement alone, with its lifetime.
check "and the guest learns the prefix is on the link, from the responder's advertisement" bash -c \
	"ip -n '$g4' -6 route show 2001:db8:87::/64 | grep -q expires"
check "whose port carries no guest's guard" bash -c \
	"ip netns exec '$host' '$keladm_bin' show-vportprop -P protection -o vport,value web6 | grep -qx 'web6/sys-vport0 *none'"
keladm delete-vnic "$g4/eth0" >/dev/null

mac1=$(keladm show-vnic -p -o macaddr "$g1/eth0")
check "a request for another port's MAC address gets nothing" bash -c \
	"ip netns exec '$g3' '$frame' eth0 dhcp chaddr=$mac1 listen=2 | grep -qx unanswered"
check "while the guest's own is answered" bash -c \
	"ip netns exec '$g3' '$frame' eth0 dhcp listen=3 | grep -qx 'answered offer 10.87.0.13'"
check "and a request for an address not its port's is refused" bash -c \
	"ip netns exec '$g3' '$frame' eth0 dhcp type=request requested=10.87.0.11 listen=3 | grep -qx 'answered nak 0.0.0.0'"

# A guest's own DHCP server: dropped on its way out under dhcp-nospoof, in the host's
# guard of its VNIC, where the guest cannot lift it.
"$keladm" set-vportprop -p protection=mac-nospoof,ip-nospoof,dhcp-nospoof web/vm3 >/dev/null
ip netns exec "$g3" nft flush ruleset	# the guest's own copy of its filters, lifted
ip netns exec "$g3" "$frame" eth0 udp4 sip=0.0.0.0 sport=67 dport=68 count=3
check "a guest's own DHCP offer is dropped (dhcp-nospoof)" bash -c \
	"ip netns exec '$host' nft list chain netdev kel '$g3/eth0.guard' | grep -qE 'udp sport 67 counter packets [1-9].*kel:dhcp-nospoof'"

# The controller goes: what the host recorded with the binding still answers.
kill "$keld_pid" && wait "$keld_pid" 2>/dev/null
mv "$root/etc/kel/kel.db" "$root/etc/kel/kel.db.away"
start_keld
: >"$root/$g1.log"
udhcpc "$g1"
check "with the controller away, a bound guest still renews" \
	grep -q "^bound ip=10.87.0.11 " "$root/$g1.log"
mv "$root/etc/kel/kel.db.away" "$root/etc/kel/kel.db"

status "the responder stays while a guest of the kel is on the host" 0 delete-vnic "$g1/eth0"
check "so" bash -c "ip -n '$host' link show '$responder' >/dev/null 2>&1"
keladm delete-vnic "$g2/eth0" >/dev/null
keladm delete-vnic "$g3/eth0" >/dev/null
check "and goes with the last, with its port and its seal" bash -c \
	"! ip -n '$host' link show '$responder' >/dev/null 2>&1 &&
	 ! ip netns exec '$host' nft list table netdev 'kel-sealed_$responder' >/dev/null 2>&1 &&
	 [ -z \"\$(ip netns exec '$host' '$keladm_bin' show-vport -p -o name,status web | grep -v ':free$')\" ]"

# A kel whose physical network has a server of its own: no responder.
keladm set-kelprop -p dhcp:server=off web >/dev/null
keladm create-vnic web/vm1 "$g1/eth0" >/dev/null
check "an operator turns the responder off per kel" bash -c \
	"! ip -n '$host' -o link show | grep -q kel-dhcp"
: >"$root/$g1.log"
udhcpc "$g1"
check "and the guest is not answered" bash -c "! grep -q '^bound' '$root/$g1.log'"
keladm delete-vnic "$g1/eth0" >/dev/null
exit $fail

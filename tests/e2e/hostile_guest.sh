#!/bin/bash
# What a hostile guest and a hostile member of group kel can do to the fabric: a
# controller and two hosts (fabric_lib.sh), guests on a VXLAN kel and a flat kel, all
# with the default protection (mac-nospoof, ip-nospoof). Guests are root in their own
# namespaces and send hand-made frames; what reaches the victim guests on the other host
# (and on the same one) is read from their kernels' counters and neighbour tables.
# Usage: hostile_guest.sh KELADM KELD NUQ_CALL FRAME. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
call=$(readlink -f "$3")
frame=$(readlink -f "$4")
. "$(dirname "$(readlink -f "$0")")/fabric_lib.sh"

fabric_require || exit 77
command -v setpriv >/dev/null || { echo "SKIPPED: setpriv is not installed"; exit 77; }
fabric_kel_group=yes
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap fabric_down EXIT
# A member of group kel who is not root must reach the hosts' sockets.
chmod 755 "$fabric_root"

fabric_configure
quiet ctl create-kel -p l2-type=vxlan web
quiet ctl add-ipnet -p subnet=10.91.0.0/24 web/front
for p in a:11 b:12 c:13 d:14; do quiet ctl add-vport -p ipaddr=10.91.0.${p#*:} "web/${p%:*}"; done
quiet ha create-vnic --address web/a "$(guest a1)/eth0"
quiet hb create-vnic --address web/b "$(guest b1)/eth0"
quiet ha create-vnic --address web/c "$(guest a2)/eth0"
quiet ctl create-kel -p l2-type=flat lan
quiet ctl add-ipnet -p subnet=10.93.0.0/24 lan/office
quiet ctl add-vport -p ipaddr=10.93.0.11 lan/a
quiet ctl add-vport -p ipaddr=10.93.0.12 lan/b
quiet ha create-vnic --address lan/a "$(guest a3)/eth0"
quiet hb create-vnic --address lan/b "$(guest b3)/eth0"

in_guest() { local g=$1; shift; ip netns exec "$(guest "$g")" "$@"; }
# FRAME KIND ARGS... from guest G's eth0; the tool fails when the guest's own filters
# refuse the frame, which is no failure here.
send() { local g=$1; shift; in_guest "$g" "$frame" eth0 "$@" count=3 >/dev/null 2>&1 || true; }
mac_of() { in_guest "$1" cat /sys/class/net/eth0/address; }
# A counter of guest G's kernel: snmp NAME COLUMN, or snmp6 NAME.
snmp() { in_guest "$1" awk -v col="$3" -v key="$2:" '$1 == key { if (++n == 2) print $(col) }' /proc/net/snmp; }
snmp6() { in_guest "$1" awk -v key="$2" '$1 == key { print $2 }' /proc/net/snmp6; }
noports() { snmp "$1" Udp 3; }
# How much a victim's counter moved once the frames (three of each) are sent: "reaches
# COUNTER-CMD -- SEND-ARGS" when it moved, "stopped COUNTER-CMD -- SEND-ARGS" when it
# moved by less than three, for a victim's kernel also counts what its neighbours send
# of their own accord meanwhile (a solicitation, a report), while a filter lets all
# three of a kind through or none.
moved() {
	local probe=() before after
	while [ "$1" != -- ]; do probe+=("$1"); shift; done
	shift
	before=$("${probe[@]}")
	send "$@"
	sleep 0.3
	after=$("${probe[@]}")
	echo $((${after:-0} - ${before:-0}))
}
reaches() { [ "$(moved "$@")" -ge 1 ]; }
stopped() { [ "$(moved "$@")" -lt 3 ]; }
silently() { "$@" >/dev/null 2>&1; }

a1=$(mac_of a1) b1=$(mac_of b1) a2=$(mac_of a2) b3=$(mac_of b3)

echo "== A guest's IPv4 and ARP, tagged and not"
check "a datagram from the guest's own address reaches the guest on the other host" \
	reaches noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.11 dip=10.91.0.12
check "from another address it does not" stopped noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.99 dip=10.91.0.12
check "nor in a priority tag (VLAN ID 0)" \
	stopped noports b1 -- a1 udp4 dst="$b1" vlan=0 sip=10.91.0.99 dip=10.91.0.12
check "nor to a guest on the same host" \
	stopped noports a2 -- a1 udp4 dst="$a2" vlan=0 sip=10.91.0.99 dip=10.91.0.13
# Frames under another tag, which no guest here would take anyway, are counted by the
# host's copy of the guest's filters, once the guest lifted its own.
tagged() { ip netns exec "$(host_ns ha)" nft list chain netdev kel "$(guest a1)/eth0.guard" |
	sed -n 's/.*counter packets \([0-9]*\).*kel:tagged.*/\1/p' | awk '{ n += $1 } END { print n + 0 }'; }
in_guest a1 nft flush ruleset
for tag in "vlan=7" "qinq=5 vlan=0" "qinq=5 vlan=7"; do
	check "a frame tagged $tag does not leave its host" reaches tagged -- a1 udp4 dst="$b1" $tag sip=10.91.0.11 dip=10.91.0.12
done
quiet ctl set-vportprop -p protection=ip-nospoof,mac-nospoof web/a	# the guest's copy again
neigh() { in_guest "$1" ip neigh show "$2" dev eth0 | grep -o 'lladdr [0-9a-f:]*' | cut -d' ' -f2; }
send a1 arp vlan=0 spa=10.91.0.14 tpa=10.91.0.12
check "a tagged ARP request does not teach the other guest another's address ($(neigh b1 10.91.0.14))" \
	test -z "$(neigh b1 10.91.0.14)"
send a1 arp sha=02:66:00:00:00:01 spa=10.91.0.11 tpa=10.91.0.12
check "nor one whose sender MAC is not the port's ($(neigh b1 10.91.0.11))" test "$(neigh b1 10.91.0.11)" != 02:66:00:00:00:01
send a1 arp spa=10.91.0.11 tpa=10.91.0.12
check "while the port's own does ($(neigh b1 10.91.0.11))" test "$(neigh b1 10.91.0.11)" = "$a1"

echo "== Address configuration passes"
check "a DHCP client's DISCOVER from 0.0.0.0 reaches the network" \
	reaches snmp b1 Udp 9 -- a1 udp4 sip=0.0.0.0 dip=255.255.255.255 sport=68 dport=67
check "but nothing else from 0.0.0.0" stopped snmp b1 Udp 9 -- a1 udp4 sip=0.0.0.0 dip=255.255.255.255 sport=68 dport=99

echo "== IPv6: the port's own link-local address, neighbour discovery, no router"
for g in a1 b1; do in_guest "$g" sysctl -qw net.ipv6.conf.eth0.disable_ipv6=0; done
for _ in $(seq 40); do in_guest b1 ip -6 addr show dev eth0 scope link | grep -q tentative || break; sleep 0.1; done
ll() { in_guest "$1" ip -6 addr show dev eth0 scope link | sed -n 's/.*inet6 \(fe80[^/]*\).*/\1/p'; }
a1_ll=$(ll a1) b1_ll=$(ll b1)
check "the guests configured their link-local addresses ($a1_ll, $b1_ll)" test -n "$a1_ll" -a -n "$b1_ll"
check "a datagram from the guest's own link-local address passes" \
	reaches snmp6 b1 Udp6NoPorts -- a1 udp6 dst="$b1" sip="$a1_ll" dip="$b1_ll"
check "from another (a router's) it does not" \
	stopped snmp6 b1 Udp6NoPorts -- a1 udp6 dst="$b1" sip=fe80::1 dip="$b1_ll"
check "a router advertisement does not" \
	stopped snmp6 b1 Icmp6InRouterAdvertisements -- a1 ra sip="$a1_ll"
redirect6=(redirect6 dst="$b1" sip="$a1_ll" dip="$b1_ll")
redirect4=(redirect4 dst="$b1" sip=10.91.0.11 dip=10.91.0.12)
check "a redirect does not" stopped snmp6 b1 Icmp6InRedirects -- a1 "${redirect6[@]}"
check "nor an IPv4 redirect from its own address" stopped snmp b1 Icmp 9 -- a1 "${redirect4[@]}"
quiet ctl set-vportprop -p protection=none web/a
in_guest a1 nft flush ruleset
check "a redirect reaches the other guest once the port's protection is lifted" \
	reaches snmp6 b1 Icmp6InRedirects -- a1 "${redirect6[@]}"
check "and so does an IPv4 one" reaches snmp b1 Icmp 9 -- a1 "${redirect4[@]}"
quiet ctl set-vportprop -p protection=ip-nospoof,mac-nospoof web/a
check "an advertisement of another's address does not" \
	stopped snmp6 b1 Icmp6InNeighborAdvertisements -- a1 na sip="$a1_ll" target="$b1_ll" lladdr="$a1"
check "nor one of its own with another's MAC" \
	stopped snmp6 b1 Icmp6InNeighborAdvertisements -- a1 na sip="$a1_ll" target="$a1_ll" lladdr=02:66:00:00:00:01
check "one of its own, with its MAC, does" \
	reaches snmp6 b1 Icmp6InNeighborAdvertisements -- a1 na sip="$a1_ll" target="$a1_ll" lladdr="$a1"
check "duplicate address detection of its own address passes" \
	reaches snmp6 b1 Icmp6InNeighborSolicits -- a1 ns sip=:: target="$a1_ll" nonce=yes
check "of another's does not" stopped snmp6 b1 Icmp6InNeighborSolicits -- a1 ns sip=:: target="$b1_ll" nonce=yes

echo "== A guest that lifts its own filters and changes its MAC"
for g in a1 a3; do in_guest "$g" nft flush ruleset; done
check "is still held to its address by its host" \
	stopped noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.99 dip=10.91.0.12
in_guest a1 ip link set eth0 address 02:66:00:00:00:01
in_guest a3 ip link set eth0 address 02:66:00:00:00:03
check "and sends nothing beyond its host with another MAC, over VXLAN" \
	stopped noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.99 dip=10.91.0.12
check "or over the uplink of a flat kel" \
	stopped noports b3 -- a3 udp4 dst="$b3" sip=10.93.0.99 dip=10.93.0.12
check "not even from its own address" \
	stopped noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.11 dip=10.91.0.12
in_guest a1 ip link set eth0 address "$a1"
in_guest a3 ip link set eth0 address "$(keladm_on ctl show-vport -p -o macaddr lan/a)"
check "with its own MAC back it reaches the other guest again" \
	reaches noports b1 -- a1 udp4 dst="$b1" sip=10.91.0.11 dip=10.91.0.12

echo "== A member of group kel who is not root, through keld"
member_on() { local host=$1; shift; on "$host" setpriv --reuid=65534 --regid=65534 --groups="$fabric_kel_gid" "$call" unix:// "$@" 2>&1; }
member() { member_on ha harl.Datalink "$@"; }
stranger() { on ha setpriv --reuid=65534 --regid=65534 --clear-groups "$call" unix:// harl.Datalink "$@" 2>&1; }
prop() { echo "{\"text\": \"$1\", \"flags\": 32769}"; }
got=$(member setProperty "name=$(guest a1)/eth0" "$(prop maxbw=900M)")
check "may change a VNIC the fabric made ($got)" test "$got" = "{}"
member setProperty "name=$(guest a1)/eth0" "$(prop maxbw=)" >/dev/null
ip netns exec "$(host_ns ha)" nft add table inet host_firewall
for target in eth0 lo "$(guest a1)/lo"; do
	for text in maxbw=8K protection=mac-nospoof; do
		got=$(member setProperty "name=$target" "$(prop "$text")")
		check "but not the host's own link $target ($text: $got)" grep -q '"dde_err":26' <<<"$got"
	done
done
got=$(member setFlood name=eth0 '{"remotes": [], "only_add": false}')
check "nor a flood list of a link the fabric did not make ($got)" grep -q '"dde_err":26' <<<"$got"
check "and eth0 was left as it was" bash -c "! tc -n $(host_ns ha) qdisc show dev eth0 | grep -q tbf &&
	! ip netns exec $(host_ns ha) nft list chain netdev kel eth0.guard >/dev/null 2>&1"
injection='allowed-ips=10.0.0.1/32 }; }; }; flush ruleset; table netdev kel_lo { set allowed4 { type ipv4_addr; flags interval; elements = { 10.0.0.2/32'
got=$(member setProperty "name=$(guest a1)/eth0" "$(prop "$injection")")
check "a value cannot carry nftables commands ($got)" grep -q '"dde_err":7' <<<"$got"
listed() { ip netns exec "$(host_ns ha)" nft list "$@" >/dev/null; }
check "the host's own rules are all still there" listed table inet host_firewall
check "and so are the guest's filters" listed chain netdev kel "$(guest a1)/eth0.guard"
got=$(stranger getStat "name=$(guest a1)/eth0")
check "a local user outside group kel is refused ($got)" grep -q '^error' <<<"$got"

echo "== What a command killed half way leaves behind"
clean=$(keladm_on ctl verify 2>&1)
check "the fabric has nothing to report ($clean)" test -z "$clean"
quiet hb create-vnic --address web/d "$(guest b2)/eth0"
records=$fabric_root/hb/run/kel
# Killed once the VNIC went: its port bound, its record and its host-side table left.
ip -n "$(guest b2)" link del eth0
# Killed before the last VNIC's link went: a link made for VNICs, with none over it.
ip -n "$(host_ns hb)" link add kel-vxlan5999 type vxlan id 5999 dstport 4789
echo "ifindex=$(ip -n "$(host_ns hb)" -o link show kel-vxlan5999 | cut -d: -f1)" >"$records/lowers/kel-vxlan5999"
# A link of a fabric name made by hand is the host's own, never a leftover.
ip -n "$(host_ns hb)" link add kel-vxlan5998 type vxlan id 5998 dstport 4789
found=$(keladm_on ctl verify -p -o object,host,what,found 2>&1)
check "a VNIC bound a moment ago is still being made: its port is reported, its record not ($found)" \
	test "$found" = "sys-global/web/d:kel-hb:vnic:no such link
kel-vxlan5999:kel-hb:leftover:link\: made for VNICs, with none over it
$(guest b2)/eth0:kel-hb:leftover:filters\: the filters of $(guest b2)/eth0, which is gone"
got=$(member_on hb kel.Daemon removeLeftover host=kel-hb "{\"kind\": \"vnic\", \"name\": \"$(guest b2)/eth0\"}")
check "a member of kel cannot take apart a VNIC still being made ($got)" grep -q '^error' <<<"$got"
check "and its record stays" test -e "$records/vnics/$(guest b2)/eth0"
got=$(member_on hb harl.Datalink setFlood name=kel-vxlan5998 '{"remotes": [], "only_add": false}')
check "nor can a member change a link of a fabric name made by hand ($got)" grep -q '"dde_err":26' <<<"$got"
touch -d '-2 minutes' "$records/vnics/$(guest b2)/eth0"
check "verify says so with its status" fails silently keladm_on ctl verify
check "a verify of one kel leaves the hosts' leftovers out" test "$(keladm_on ctl verify -p -o what web 2>&1)" = vnic
repaired=$(keladm_on ctl verify --repair -p -o object,what,repaired 2>&1)
check "--repair releases the port and removes what was left ($repaired)" test "$repaired" = "sys-global/web/d:vnic:yes
kel-vxlan5999:leftover:yes
$(guest b2)/eth0:leftover:yes"
check "the port is free" test "$(keladm_on ctl show-vport -p -o status web/d)" = free
check "the record, the link and the table are gone" bash -c "! ls '$records/vnics/$(guest b2)' 2>/dev/null | grep -q . &&
	! ip -n $(host_ns hb) link show kel-vxlan5999 2>/dev/null && ! ip netns exec $(host_ns hb) nft list chain netdev kel '$(guest b2)/eth0.guard' 2>/dev/null"
check "the link made by hand stays" silently ip -n "$(host_ns hb)" link show kel-vxlan5998
clean=$(keladm_on ctl verify 2>&1)
check "and verify finds nothing more ($clean)" test -z "$clean"
exit $fail

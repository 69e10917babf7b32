#!/bin/bash
# A fabric of three hosts built with keladm alone: a controller and two nodes, each a
# network namespace with its own host name (a UTS namespace per process) and a hosts
# file that knows the three, joined by an underlay bridge, each running keld and sshd.
# Nodes reach the controller, and the controller the nodes, over ssh://, logging in as a
# user in group kel, as the README sets it up: never as root. Guests are namespaces of
# their own holding the VNICs the nodes make, and really exchange traffic.
# Usage: fabric.sh KELADM KELD NUQ_CALL. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
call=$(readlink -f "$3")
. "$(dirname "$(readlink -f "$0")")/fabric_lib.sh"

fabric_require || exit 77
fabric_login=kelop
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap fabric_down EXIT

pings() { ip netns exec "$(guest "$1")" ping -c 2 -i 0.2 -W 2 "$2" >/dev/null; }
# The migrating VM's VNIC keeps its name, vm42, from host to host: it sits in the host's
# own namespace, which stands in for the VM.
vm_pings() { ip netns exec "$(host_ns "$1")" ping -I vm42 -c 2 -i 0.2 -W 2 "$2" >/dev/null; }

# The controller's fabric: a VXLAN kel with a multicast group, one without (the group
# is unset before its VNICs come), a flat kel on the same uplink. The VXLAN kels keep
# the default protection (mac-nospoof, ip-nospoof); the flat one goes without.
fabric_configure
quiet ctl create-kel -p l2-type=vxlan web
quiet ctl add-ipnet -p subnet=10.91.0.0/24 web/front
quiet ctl add-vport -p ipaddr=10.91.0.11 web/a
quiet ctl add-vport -p ipaddr=10.91.0.12 web/b
quiet ha create-vnic --address web/a "$(guest a1)/eth0"
quiet hb create-vnic --address web/b "$(guest b1)/eth0"
check "guests on two hosts reach each other over the VXLAN kel with a group" pings a1 10.91.0.12
check "its links carry the group" bash -c "ip -n $(host_ns ha) -d link show kel-vxlan5000 | grep -q 'group 239.7.7.7'"

quiet ctl set-controlprop vxlan-mgroup=
quiet ctl create-kel -p l2-type=vxlan db
quiet ctl add-ipnet -p subnet=10.92.0.0/24 db/back
quiet ctl add-vport -p ipaddr=10.92.0.11 db/a
quiet ctl add-vport -p ipaddr=10.92.0.12 db/b
quiet ha create-vnic --address -p vmid=vm-42 db/a vm42
quiet hb create-vnic --address db/b "$(guest b2)/eth0"
quiet ctl add-vport -p ipaddr=10.92.0.13 db/c
quiet ha create-vnic --address db/c "$(guest a2)/eth0"
check "and over the VXLAN kel without a group" pings a2 10.92.0.12
check "as does a VM's VNIC in the host's own namespace" vm_pings ha 10.92.0.12
check "whose links flood to each other's endpoint" bash -c \
	"bridge -n $(host_ns ha) fdb show dev kel-vxlan5001 | grep -q '00:00:00:00:00:00 dst 10.77.0.3' &&
	 bridge -n $(host_ns hb) fdb show dev kel-vxlan5001 | grep -q '00:00:00:00:00:00 dst 10.77.0.2'"

quiet ctl create-kel -p l2-type=flat,protection=none lan
quiet ctl add-ipnet -p subnet=10.93.0.0/24 lan/office
quiet ctl add-vport -p ipaddr=10.93.0.11 lan/a
quiet ctl add-vport -p ipaddr=10.93.0.12 lan/b
quiet ha create-vnic --address lan/a "$(guest a3)/eth0"
quiet hb create-vnic --address lan/b "$(guest b3)/eth0"
check "and over the flat kel on the underlay" pings a3 10.93.0.12
check "which carries its frames on the uplink itself" \
	test "$(keladm_on ha show-vnic -p -o lower "$(guest a3)/eth0")" = eth0
# A VLAN kel is fabric_vlan.sh's part, skipped on kernels without VLAN links.

# What the controller and the hosts show.
check "show-vport on the controller shows the bindings with their hosts and VNICs" test \
	"$(keladm_on ctl show-vport -p -o name,status,host,vnic db | grep -v '^sys-vport')" = \
	"a:bound:kel-ha:vm42
b:bound:kel-hb:$(guest b2)/eth0
c:bound:kel-ha:$(guest a2)/eth0"
check "show-vnic on each host shows its own" test \
	"$(keladm_on ha show-vnic -p -o vnic,kel,vport,lower | grep -v '^kel-dhcp' | sort)" = \
	"$(guest a1)/eth0:web:a:kel-vxlan5000
$(guest a2)/eth0:db:c:kel-vxlan5001
$(guest a3)/eth0:lan:a:eth0
vm42:db:a:kel-vxlan5001"

# A live bandwidth change from the controller caps what the guest sends: 300 pings of
# 1400 bytes (about 3.5 Mbit) take 0.6 s when free to go, and over 2.5 s at 1 Mbit/s
# (the sender is held back rather than dropped).
took_ms() { ip netns exec "$(guest a1)" ping -q -c 300 -i 0.002 -s 1400 -W 1 10.91.0.12 | sed -n 's/.*time \([0-9]*\)ms.*/\1/p'; }
quiet ctl set-vportprop -p maxbw=1M web/a
check "set-vportprop maxbw reaches the VNIC's qdisc on its host" bash -c \
	"tc -n $(guest a1) qdisc show dev eth0 | grep -q 'tbf.*rate 1Mbit'"
capped=$(took_ms)
quiet ctl set-vportprop -p maxbw= web/a
free=$(took_ms)
check "and really caps a transfer (${capped}ms capped, ${free}ms without)" \
	test "${capped:-0}" -ge 2500 -a "${free:-99999}" -le 1500

# ip-nospoof: what a guest sends from an address that is not its port's is dropped and
# counted, first by the copy of the filters on its VNIC in its own namespace, and, once
# the guest has lifted that copy, on its host, in the host's namespace.
spoof() { ip netns exec "$(guest a1)" ping -c 3 -i 0.2 -W 1 -I 10.91.0.99 10.91.0.12 >/dev/null 2>&1; }
# dropped NS LINK: what LINK's filters in namespace NS dropped for its source address.
dropped() { ip netns exec "$1" nft list chain netdev kel "$2.guard_ip4" | sed -n 's/.*ip saddr != @[^ ]* counter packets \([0-9]*\).*/\1/p'; }
ip -n "$(guest a1)" addr add 10.91.0.99/24 dev eth0
check "ip-nospoof drops a guest's datagrams from an address not its port's" fails spoof
drops=$(dropped "$(guest a1)" eth0)
check "and the drop counter shows them ($drops)" test "${drops:-0}" -ge 3
ip netns exec "$(guest a1)" nft flush ruleset
check "a guest that lifts its own copy is still dropped" fails spoof
drops=$(dropped "$(host_ns ha)" "$(guest a1)/eth0")
check "by its host, whose counter shows it ($drops)" test "${drops:-0}" -ge 3
ip -n "$(guest a1)" addr del 10.91.0.99/24 dev eth0

# Counters: the host's keld and the controller (over ssh) read what the kernel counts.
kernel_tx() { ip netns exec "$(guest a1)" cat /sys/class/net/eth0/statistics/tx_packets; }
before=$(kernel_tx)
from_host=$(keladm_on ha show-vnic -p -o opackets "$(guest a1)/eth0")
from_ctl=$(on ctl "$call" "ssh://$fabric_login@kel-ha" harl.Datalink getStat "name=$(guest a1)/eth0" |
	sed -n 's/.*"dls_opackets": *\([0-9]*\).*/\1/p')
after=$(kernel_tx)
check "counters from the host ($from_host) and the controller ($from_ctl) are the kernel's ($before)" \
	test "$before" -ge 4 -a "$from_host" -ge "$before" -a "$from_host" -le "$after" \
	-a "${from_ctl:-0}" -ge "$before" -a "${from_ctl:-0}" -le "$after"

# Drift: what a host has in force is compared with what the store says. A cap removed by
# hand, a VNIC's filters flushed (a VM's in the host's namespace, a guest's in the host's
# for its namespace), a flood entry deleted are found, and put back. (The kel web's links
# kept the group they were made with, which the fabric no longer has: verify says so, and
# leaves it to the operator; only db and lan are looked at here.)
quiet ctl set-vportprop -p maxbw=20M db/a
verify() { keladm_on ctl verify "$@" db; keladm_on ctl verify "$@" lan; }
silently() { "$@" >/dev/null 2>&1; }
clean=$(verify 2>&1)
check "a fabric as the store says has nothing to report ($clean)" test -z "$clean"
tc -n "$(host_ns ha)" qdisc del dev vm42 root
ip netns exec "$(host_ns ha)" nft flush chain netdev kel vm42.guard
ip netns exec "$(host_ns hb)" nft flush chain netdev kel "$(guest b2)/eth0.guard"
bridge -n "$(host_ns ha)" fdb del 00:00:00:00:00:00 dev kel-vxlan5001 dst 10.77.0.3
drift=$(verify -p -o object,host,what,store,found)
check "verify finds the cap taken away" grep -qx 'sys-global/db/a:kel-ha:maxbw:20M (20000000 bit/s):none' <<<"$drift"
check "and the filters flushed" grep -qx 'sys-global/db/a:kel-ha:protection:ip-nospoof,mac-nospoof:none' <<<"$drift"
check "also of a guest's VNIC" grep -qx 'sys-global/db/b:kel-hb:protection:ip-nospoof,mac-nospoof:none' <<<"$drift"
check "and the flood entry deleted" grep -qx 'sys-global/db:kel-ha:flood:floods to 10.77.0.3:floods to nobody' <<<"$drift"
check "and nothing else ($drift)" test "$(wc -l <<<"$drift")" -eq 4
check "it exits 1 when it finds any" fails silently keladm_on ctl verify db
repaired=$(keladm_on ctl verify --repair -p -o object,what,repaired db)
check "--repair puts them all back ($repaired)" test "$repaired" = "sys-global/db/a:maxbw:yes
sys-global/db/a:protection:yes
sys-global/db/b:protection:yes
sys-global/db:flood:yes"
check "the cap is there again" bash -c "tc -n $(host_ns ha) qdisc show dev vm42 | grep -q 'tbf.*rate 20Mbit'"
clean=$(verify 2>&1)
check "and verify finds nothing more ($clean)" test -z "$clean"
web=$(keladm_on ctl verify -p -o object,what web)
check "the kel whose links kept an old group is reported, not repaired ($web)" \
	grep -q '^sys-global/web/a:lower$' <<<"$web"
quiet ctl set-vportprop -p maxbw= db/a
# A kel property change that a host missed, its keld down, is the first thing verify
# finds once the host is back, and --repair applies it there.
hb_sock=$fabric_root/hb/run/kel/keld.sock
kill -TERM "$(cat "$fabric_root/hb/run/kel/keld.pid")"
for _ in $(seq 100); do [ -S "$hb_sock" ] || break; sleep 0.05; done
partial=$(keladm_on ctl set-kelprop -p priority=high db 2>&1)
check "a change host B misses is stored, and said to be partial ($partial)" grep -q 'some hosts missed it' <<<"$partial"
on hb "$keld" 2>>"$fabric_root/hb/keld.log" &
for _ in $(seq 100); do [ -S "$hb_sock" ] && break; sleep 0.05; done
# The kel's address responder link on host B is bound to a port of the kel like a guest's.
missed=$(keladm_on ctl verify -p -o object,host,what,store,found db)
check "verify finds what host B missed ($missed)" test "$(grep -v /sys-vport <<<"$missed")" = "sys-global/db/b:kel-hb:priority:high:medium"
check "on its responder link too" grep -q "^sys-global/db/sys-vport[0-9]*:kel-hb:priority:high:medium$" <<<"$missed"
repaired=$(keladm_on ctl verify --repair -p -o what,repaired db | sort -u)
check "and --repair applies it there ($repaired)" test "$repaired" = "priority:yes"
clean=$(keladm_on ctl verify db 2>&1)
check "after which host B has it ($clean)" test -z "$clean"
quiet ctl set-kelprop -p priority= db
usage=$(keladm_on ctl show-usage -p -o resource,owner,total,used | grep -E '^(vxlan-range|pool)')
# Each pool also gave an address to the kel's responder link on each host with a guest.
check "show-usage counts the two VNIs and the addresses each pool gave out ($usage)" test "$usage" = "vxlan-range::1000:2
pool:sys-global/web/front:253:4
pool:sys-global/db/back:253:5
pool:sys-global/lan/office:253:4"

# Migration: db/a, bound on host A with a vmid, is bound on host B by the same vmid; A
# letting its VNIC go completes the move.
quiet hb create-vnic --address -p vmid=vm-42 db/a vm42
check "the port is migrating to host B" test \
	"$(keladm_on ctl show-vport -p -o host db/a)" = kel-ha
on_a=$(keladm_on ha show-vnic -p -o opackets vm42)
quiet ha delete-vnic vm42
moved=$(keladm_on ctl show-vport -p -o status,host,vnic db/a)
check "removing the VNIC on host A hands the port to host B ($moved)" test "$moved" = "bound:kel-hb:vm42"
check "the migrated VM reaches the other guests again, on its new host and on the old" \
	bash -c "$(declare -f vm_pings host_ns); fabric_tag=$fabric_tag; vm_pings hb 10.92.0.12 && vm_pings hb 10.92.0.13"
# Its counters survive the move: host A's went to the controller with the port, and the
# port's total is those plus what host B's VNIC counts now.
gone=$(keladm_on ctl show-vportprop -p -o value -P kel:counters_gone db/a | cut -d/ -f3)
b_before=$(keladm_on hb show-vnic -p -o opackets vm42)
total=$(keladm_on ctl show-vport -p -o opackets db/a)
b_after=$(keladm_on hb show-vnic -p -o opackets vm42)
check "host A's counters stayed with the port ($gone sent there, $on_a seen before it went)" \
	test "${gone:-0}" -ge "${on_a:-1}" -a "$on_a" -ge 2
check "the port's total is host A's plus host B's ($total = $gone + $b_before..$b_after)" \
	test "${total:-0}" -ge $((gone + b_before)) -a "${total:-0}" -le $((gone + b_after)) -a "$b_before" -ge 2
quiet ha delete-vnic "$(guest a2)/eth0"
check "host A's last VNIC of the VNI took its VXLAN link along" \
	bash -c "! ip -n $(host_ns ha) link show kel-vxlan5001 2>/dev/null"
check "and host B floods to nobody now" bash -c \
	"! bridge -n $(host_ns hb) fdb show dev kel-vxlan5001 | grep -q '^00:00:00:00:00:00'"

# Teardown through keladm: every port free, every made link gone.
for v in "hb vm42" "hb $(guest b2)/eth0" "ha $(guest a1)/eth0" "hb $(guest b1)/eth0" \
	"ha $(guest a3)/eth0" "hb $(guest b3)/eth0"; do
	set -- $v
	quiet "$1" delete-vnic "$2"
done
left=$(keladm_on ctl show-vport -p -o name,kel,status,vnic | grep -v ':free:')
check "every port is free again ($left)" test -z "$left"
check "no VXLAN link remains on either host" bash -c \
	"! ip -n $(host_ns ha) -o link show type vxlan | grep -q . && ! ip -n $(host_ns hb) -o link show type vxlan | grep -q ."

logins=$(sed -n 's/.*Accepted publickey for \([^ ]*\) .*/\1/p' "$fabric_root"/*/sshd.log | sort -u)
check "every ssh login between the hosts was $fabric_login's ($logins)" test "$logins" = "$fabric_login"

# Nothing of the fabric stays behind.
root=$fabric_root
fabric_down
trap - EXIT
left=$(ip netns list | grep -- "-$fabric_tag"; pgrep -af "$root"; ls -d "$root" /etc/netns/*-"$fabric_tag" 2>/dev/null)
check "no namespace, process, link or file remains" test -z "$left"
exit $fail

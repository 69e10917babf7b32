#!/bin/bash
# The fabric's VLAN part: a VLAN kel across the two hosts of fabric_lib.sh, each VNIC
# over a tagged link the first VNIC of the ID makes on the host's uplink and the last
# one removes. Kept apart from fabric.sh so that a kernel without VLAN links skips just
# this part, and says so.
# Usage: fabric_vlan.sh KELADM KELD. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
. "$(dirname "$(readlink -f "$0")")/fabric_lib.sh"

fabric_require || { echo "SKIPPED: $fabric_skip"; exit 77; }
probe=kfprobe-$$
ip netns add "$probe" 2>/dev/null || { echo "SKIPPED: network namespaces cannot be made here"; exit 77; }
ip -n "$probe" link add p0 type veth peer name p1 &&
	ip -n "$probe" link add link p0 name p0.9 type vlan id 9 2>/dev/null
vlan=$?
ip netns del "$probe"
[ "$vlan" = 0 ] || { echo "SKIPPED: this kernel has no VLAN links"; exit 77; }
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap fabric_down EXIT

fabric_configure
quiet ctl create-kel -p l2-type=vlan,vlanid=150 vl
quiet ctl add-ipnet -p subnet=10.94.0.0/24 vl/net
quiet ctl add-vport -p ipaddr=10.94.0.11 vl/a
quiet ctl add-vport -p ipaddr=10.94.0.12 vl/b
quiet ha create-vnic --address vl/a "$(guest a1)/eth0"
quiet hb create-vnic --address vl/b "$(guest b1)/eth0"
check "each host tags the kel's ID on its uplink" bash -c \
	"ip -n $(host_ns ha) -d link show kel-vlan150 | grep -q 'vlan protocol 802.1Q id 150' &&
	 ip -n $(host_ns hb) -d link show kel-vlan150 | grep -q 'vlan protocol 802.1Q id 150'"
check "guests on two hosts reach each other over the VLAN kel" \
	ip netns exec "$(guest a1)" ping -c 2 -i 0.2 -W 2 10.94.0.12
quiet ha delete-vnic "$(guest a1)/eth0"
quiet hb delete-vnic "$(guest b1)/eth0"
check "the last VNIC of the ID on a host takes its tagged link along" bash -c \
	"! ip -n $(host_ns ha) link show kel-vlan150 2>/dev/null && ! ip -n $(host_ns hb) link show kel-vlan150 2>/dev/null"
exit $fail

#!/bin/bash
# Containers on kels through the network plugin, run the way a container runtime runs it
# (the command, container and namespace in the environment, the network configuration on
# standard input), on the fabric of three hosts: a container on host A and one on host B
# join a VXLAN kel and reach each other; CHECK holds, then finds the address removed by
# hand; DEL twice, and after the namespace is gone, releases the port; a wrong
# configuration gets the error object; a container with two networks gets two interfaces
# and one default route; a live property change and show-vnic reach a container's VNIC;
# and a container's spoofed frames are dropped.
# Usage: cni.sh KELADM KELD PLUGIN. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
plugin=$(readlink -f "$3")
here=$(dirname "$(readlink -f "$0")")
. "$here/fabric_lib.sh"

fabric_require || { echo "SKIPPED: $fabric_skip"; exit 77; }
command -v jq >/dev/null || { echo "SKIPPED: jq is not installed"; exit 77; }
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap fabric_down EXIT

fabric_configure
quiet ctl set-controlprop vxlan-mgroup=
quiet ctl create-kel -p l2-type=vxlan,dhcp:dns=10.96.0.53 apps
quiet ctl add-ipnet -p subnet=10.96.0.0/24 apps/front
quiet ctl create-kel -p l2-type=vxlan mgmt
quiet ctl add-ipnet -p subnet=10.97.0.0/24 mgmt/back

# cni NODE COMMAND CONTAINER NETNS IFNAME [CONFIG]: the plugin as a runtime runs it; the
# configuration defaults to the apps network's.
apps='{"cniVersion": "1.0.0", "name": "apps", "type": "kel", "kel": "apps", "properties": {"maxbw": "50M"}}'
cni() {
	on "$1" env CNI_COMMAND="$2" CNI_CONTAINERID="$3" CNI_NETNS="$4" CNI_IFNAME="$5" CNI_PATH=/usr/lib/cni \
		"$plugin" <<<"${6:-$apps}"
}
with_prev() { jq -c --argjson prev "$2" '. + {prevResult: $prev}' <<<"$1"; }

c1=/run/netns/$(guest a1)
c2=/var/run/netns/$(guest b1)	# any path to the namespace file will do
r1=$(cni ha ADD c1 "$c1" eth0)
check "ADD on host A prints the result: the interface in its sandbox, the port's address, router and name server" \
	test "$(jq -c '[.cniVersion, .interfaces[0].name, .interfaces[0].sandbox, .ips[0].address, .ips[0].gateway,
		.ips[0].interface, .routes, .dns.nameservers]' <<<"$r1")" = \
	"[\"1.0.0\",\"eth0\",\"$c1\",\"10.96.0.2/24\",\"10.96.0.1\",0,[{\"dst\":\"0.0.0.0/0\",\"gw\":\"10.96.0.1\"}],[\"10.96.0.53\"]]"
check "with the port's MAC address" test "$(jq -r '.interfaces[0].mac' <<<"$r1")" = \
	"$(ip -n "$(guest a1)" -o link show eth0 | grep -o 'link/ether [0-9a-f:]*' | cut -d' ' -f2)"
r2=$(cni hb ADD c2 "$c2" eth0)
a2=$(jq -r '.ips[0].address' <<<"$r2")
check "the containers on hosts A and B reach each other over the VXLAN kel" \
	ip netns exec "$(guest a1)" ping -c 2 -W 2 "${a2%/*}"
check "the container's MTU is the kel's link's" test "$(ip -n "$(guest a1)" -o link show eth0 | grep -o 'mtu [0-9]*')" = "mtu 1450"
check "the port took the properties of the configuration" \
	bash -c "tc -n '$(guest a1)' qdisc show dev eth0 | grep -q 'tbf.*rate 50Mbit'"
check "show-vnic lists the container's VNIC with its container ID" \
	test "$(keladm_on ha show-vnic -p -o vnic,kel,container "$(guest a1)/eth0")" = "$(guest a1)/eth0:apps:c1"
vport=$(keladm_on ctl show-vport -p -o name,vnic apps | sed -n "s|^\(.*\):$(guest a1)/eth0\$|\1|p")
quiet ctl set-vportprop -p maxbw=20M "apps/$vport"
check "a live property change from the controller reaches it" \
	bash -c "tc -n '$(guest a1)' qdisc show dev eth0 | grep -q 'tbf.*rate 20Mbit'"

check "CHECK with the result of ADD holds" cni ha CHECK c1 "$c1" eth0 "$(with_prev "$apps" "$r1")"
ip -n "$(guest a1)" addr flush dev eth0
out=$(cni ha CHECK c1 "$c1" eth0 "$(with_prev "$apps" "$r1")")
check "and fails once the address is removed by hand, saying so ($(jq -r .msg <<<"$out"))" \
	test "$(jq -c '[.code, .details]' <<<"$out")" = '[101,"10.96.0.2/24"]'

check "DEL releases the port" cni ha DEL c1 "$c1" eth0 "$(with_prev "$apps" "$r1")"
check "DEL again is success" cni ha DEL c1 "$c1" eth0
gone() { ! ip -n "$(guest a1)" link show eth0 2>/dev/null && ! keladm_on ctl show-vport -p -o vnic apps | grep -q "$(guest a1)"; }
check "the container's system port is gone, its VNIC too" gone
ip netns del "$(guest b1)"
check "DEL after the namespace is gone still releases the port" cni hb DEL c2 "$c2" eth0
check "no port of the kel is bound any more" \
	test -z "$(keladm_on ctl show-vport -p -o status apps | grep -v free)"

out=$(cni ha ADD c9 "$c1" eth0 '{"cniVersion": "1.0.0", "name": "x", "type": "kel"}')
check "a configuration without its kel gets the error object, code 7" \
	test "$(jq -c '[.cniVersion, .code, .msg]' <<<"$out")" = '["1.0.0",7,"\"kel\" is missing: the kel to join"]'
out=$(cni ha ADD c9 "$c1" eth0 '{"cniVersion": "1.0.0", "name": "x", "type": "kel", "kel": "apps", "ipam": {"type": "host-local"}}')
check "a field it does not take, code 2" test "$(jq .code <<<"$out")" = 2
out=$(cni ha ADD c9 "$c1" eth0 '{"cniVersion": "9.9.9", "name": "x", "type": "kel", "kel": "apps"}')
check "a version it does not speak, code 1" test "$(jq .code <<<"$out")" = 1
out=$(cni ha ADD c9 "$c1" eth0 "{\"cniVersion\": \"1.0.0\", \"name\": \"x\", \"type\": \"kel\", \"kel\": \"apps\",
	\"properties\": {\"maxbw\": \"1M,vmid=stolen\"}}")
check "a property value that would carry more than itself, code 7" test "$(jq .code <<<"$out")" = 7
check "and nothing is left bound" test -z "$(keladm_on ctl show-vport -p -o status apps | grep -v free)"
check "VERSION lists the versions it speaks" test \
	"$(cni ha VERSION "" "" "" '{"cniVersion": "0.4.0"}' | jq -c .)" = \
	'{"cniVersion":"0.4.0","supportedVersions":["0.3.0","0.3.1","0.4.0","1.0.0"]}'

# One container, two networks: two interfaces, one default route (the first network's).
c3=/run/netns/$(guest a2)
r3=$(cni ha ADD c3 "$c3" eth0)
mgmt='{"cniVersion": "0.4.0", "name": "mgmt", "type": "kel", "kel": "mgmt"}'
r4=$(cni ha ADD c3 "$c3" eth1 "$mgmt")
check "a second network gives the container a second interface, in the configuration's version" \
	test "$(jq -c '[.cniVersion, .interfaces[0].name, .ips[0].version, .routes]' <<<"$r4")" = '["0.4.0","eth1","4",null]'
check "and the container keeps one default route" \
	test "$(ip -n "$(guest a2)" route show default)" = "default via 10.96.0.1 dev eth0 proto static "

# A container is guarded as a VM is: what it sends from an address not its port's is
# dropped, even once it lifts its own copy of the filters.
ip -n "$(guest a2)" addr add 10.96.0.99/24 dev eth0
ip netns exec "$(guest a2)" nft flush ruleset
quiet hb create-vnic --address apps "$(guest b2)/eth0"
peer=$(keladm_on hb show-vnic -p -o ipaddr "$(guest b2)/eth0")
check "the container reaches its peer from its own address" ip netns exec "$(guest a2)" ping -c 1 -W 2 "${peer%/*}"
check "but not from another" fails ip netns exec "$(guest a2)" ping -c 2 -i 0.2 -W 1 -I 10.96.0.99 "${peer%/*}"
both() { cni ha DEL c3 "$c3" eth0 && cni ha DEL c3 "$c3" eth1 "$mgmt"; }
check "DEL of each network releases its port" both
check "leaving the peer's alone" test "$(keladm_on ctl show-vport -p -o vnic,status | grep ':bound$' | grep -v '^kel-dhcp')" = \
	"$(guest b2)/eth0:bound"
exit $fail

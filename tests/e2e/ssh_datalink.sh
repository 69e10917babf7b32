#!/bin/bash
# Two hosts in network namespaces joined by veth: "ctl" reaches the keld of "node" over
# ssh (a real sshd with throwaway keys) and sets link properties on a VNIC the fabric
# bound on the node (a macvlan over the node's end of the link). They must be in the
# node's kernel (tc, nftables), and spoofed datagrams the VNIC sends must be dropped
# while good ones reach ctl's UDP layer. The node's own link is left alone.
# Usage: ssh_datalink.sh KELD NUQ_CALL. Exit 77 (skipped) when it cannot run here.
set -u
keld=$(readlink -f "$1")
call=$(readlink -f "$2")
. "$(dirname "$0")/ssh_lib.sh"
ssh_require tc nft
ssh_up

# The guest's VNIC on the node, with the record the node keeps of a VNIC it bound, in a
# subnet of its own that ctl also has.
ip -n "$ctl" addr add 10.78.1.1/24 dev kc
ip -n "$node" link add vn address 02:00:00:00:00:42 link kn type macvlan mode bridge
ip -n "$node" addr add 10.78.1.2/24 dev vn
ip -n "$node" addr add 10.78.1.99/24 dev vn
ip -n "$node" link set vn up
mkdir -p "$root/node/run/kel/vnics"
printf 'mac=02:00:00:00:00:42\nlower=kn\n' >"$root/node/run/kel/vnics/vn"

remote() { ip netns exec "$ctl" "$call" "$uri" harl.Datalink "$@"; }
setprop() { remote setProperty name=vn "{\"text\": \"$1\", \"flags\": 32769}"; }

check "getStat over ssh" bash -c "$(declare -f remote); uri='$uri' call='$call' ctl='$ctl'; remote getStat name=vn | grep -q dls_opackets"
check "a missing link is not found" bash -c "$(declare -f remote); uri='$uri' call='$call' ctl='$ctl'; remote getStat name=nope0 | grep -q '^error 2:'"
check "the node's own link is not the fabric's to change" bash -c \
	"$(declare -f remote); uri='$uri' call='$call' ctl='$ctl'; remote setProperty name=kn '{\"text\": \"maxbw=8K\", \"flags\": 32769}' | grep -q '\"dde_err\":26'"
check "maxbw over ssh" setprop "maxbw=50M"
check "the node has the tbf qdisc" bash -c "ip netns exec '$node' tc qdisc show dev vn | grep -q 'tbf.*rate 50Mbit'"
check "and none on its own link" bash -c "! ip netns exec '$node' tc qdisc show dev kn | grep -q tbf"
check "priority over ssh" setprop "priority=high"
check "allowed-ips over ssh" setprop "allowed-ips=10.78.1.2"
check "protection over ssh" setprop "protection=ip-nospoof"
check "the node has the rules" bash -c "ip netns exec '$node' nft list table netdev kel | grep -q 'ip saddr != @vn.allowed4' && ip netns exec '$node' nft list chain netdev kel vn.guard | grep -q 'meta priority set'"
check "a bad value comes back as a datalink error" bash -c \
	"$(declare -f remote setprop); uri='$uri' call='$call' ctl='$ctl'; setprop maxbw=fast | grep -q '\"dde_err\":7'"

# Traffic: datagrams from the guest to a closed port of ctl. Good ones reach its UDP
# layer (and count as NoPorts); spoofed ones are dropped on the VNIC's way out.
noports() { ip netns exec "$ctl" awk '/^Udp:/ { if (++n == 2) print $3 }' /proc/net/snmp; }
send() { # count
	for _ in $(seq "$1"); do ip netns exec "$node" bash -c 'echo x > /dev/udp/10.78.1.1/9' 2>/dev/null; sleep 0.05; done
}
ip -n "$node" route replace 10.78.1.0/24 dev vn src 10.78.1.2
before=$(noports)
send 3
after_good=$(noports)
check "good datagrams pass" test $((after_good - before)) -ge 3
ip -n "$node" route replace 10.78.1.0/24 dev vn src 10.78.1.99
send 3
after_spoofed=$(noports)
check "spoofed datagrams are dropped" test "$after_spoofed" -eq "$after_good"
check "and counted by the rule that dropped them" bash -c \
	"ip netns exec '$node' nft list chain netdev kel vn.guard_ip4 | grep -E 'ip saddr != @vn.allowed4 counter packets [1-9]'"

check "clearing protection over ssh" setprop "protection="
send 3
check "then they pass again" test $(($(noports) - after_spoofed)) -ge 3
# Every call above went over the one connection the first call opened.
check "the calls shared one ssh connection" test "$(grep -c 'Accepted publickey' "$root/sshd.log")" -eq 1
check "through a socket only its owner may use" bash -c \
	"[ \"\$(stat -c %a '$root/ctl/run/kel/ssh-0')\" = 700 ] && ls '$root/ctl/run/kel/ssh-0' | grep -q ."
[ "$fail" = 0 ] || { echo "--- sshd log"; cat "$root/sshd.log"; }
exit $fail

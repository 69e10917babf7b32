#!/bin/bash
# Two hosts in network namespaces joined by veth: "ctl" reaches the keld of "node" over
# ssh (a real sshd with throwaway keys) and sets link properties on the node's end of
# the link. They must be in the node's kernel (tc, nftables), and spoofed datagrams
# from ctl must be dropped while good ones reach the node's UDP layer.
# Usage: ssh_datalink.sh KELD NUQ_CALL. Exit 77 (skipped) when it cannot run here.
set -u
keld=$(readlink -f "$1")
call=$(readlink -f "$2")
. "$(dirname "$0")/ssh_lib.sh"
ssh_require tc nft
ssh_up

remote() { ip netns exec "$ctl" "$call" "$uri" harl.Datalink "$@"; }
setprop() { remote setProperty name=kn "{\"text\": \"$1\", \"flags\": 32769}"; }

check "getStat over ssh" bash -c "$(declare -f remote); uri='$uri' call='$call' ctl='$ctl'; remote getStat name=kn | grep -q dls_opackets"
check "a missing link is not found" bash -c "$(declare -f remote); uri='$uri' call='$call' ctl='$ctl'; remote getStat name=nope0 | grep -q '^error 2:'"
check "maxbw over ssh" setprop "maxbw=50M"
check "the node has the tbf qdisc" bash -c "ip -n '$node' -o link show kn >/dev/null && ip netns exec '$node' tc qdisc show dev kn | grep -q 'tbf.*rate 50Mbit'"
check "priority over ssh" setprop "priority=high"
check "allowed-ips over ssh" setprop "allowed-ips=10.78.0.1"
check "protection over ssh" setprop "protection=ip-nospoof"
check "the node has the rules" bash -c "ip netns exec '$node' nft list table netdev kel_kn | grep -q 'ip saddr != @allowed4' && ip netns exec '$node' nft list table netdev kel_kn | grep -q 'meta priority set'"
check "a bad value comes back as a datalink error" bash -c \
	"$(declare -f remote setprop); uri='$uri' call='$call' ctl='$ctl'; setprop maxbw=fast | grep -q '\"dde_err\":7'"

# Traffic: datagrams to a closed port of the node. Good ones reach its UDP layer (and
# count as NoPorts); spoofed ones are dropped on the link's ingress.
noports() { ip netns exec "$node" awk '/^Udp:/ { if (++n == 2) print $3 }' /proc/net/snmp; }
send() { # count
	for _ in $(seq "$1"); do ip netns exec "$ctl" bash -c 'echo x > /dev/udp/10.78.0.2/9' 2>/dev/null; sleep 0.05; done
}
before=$(noports)
send 3
after_good=$(noports)
check "good datagrams pass" test $((after_good - before)) -ge 3
ip -n "$ctl" route replace 10.78.0.0/24 dev kc src 10.78.0.99
send 3
after_spoofed=$(noports)
check "spoofed datagrams are dropped" test "$after_spoofed" -eq "$after_good"
check "and counted by the rule that dropped them" bash -c \
	"ip netns exec '$node' nft list table netdev kel_kn | grep -E 'ip saddr != @allowed4 counter packets [1-9]'"

# Back to the real source: the protection would drop the ssh session from .99 too.
ip -n "$ctl" route replace 10.78.0.0/24 dev kc src 10.78.0.1
check "clearing protection over ssh" setprop "protection="
ip -n "$ctl" route replace 10.78.0.0/24 dev kc src 10.78.0.99
send 3
check "then they pass again" test $(($(noports) - after_spoofed)) -ge 3
# Every call above went over the one connection the first call opened.
check "the calls shared one ssh connection" test "$(grep -c 'Accepted publickey' "$root/sshd.log")" -eq 1
check "through a socket only its owner may use" bash -c \
	"[ \"\$(stat -c %a '$root/ctl/run/kel/ssh-0')\" = 700 ] && ls '$root/ctl/run/kel/ssh-0' | grep -q ."
[ "$fail" = 0 ] || { echo "--- sshd log"; cat "$root/sshd.log"; }
exit $fail

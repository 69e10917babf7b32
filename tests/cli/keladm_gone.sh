#!/bin/bash
# What a host tells when things go away under it: its controller (show-vnic from the
# host's own records, delete-vnic naming what to run later), a guest's namespace (the
# listing fails and names the fix; verify finds what is left and --repair removes it,
# the kel's responder and VXLAN link included); and a host added before any port is
# bound there, which show-host and verify ask. Controller and host share one namespace.
# Usage: keladm_gone.sh KELADM KELD. Exit 77 (skipped) when it cannot run here.
keld=$(readlink -f "$2")
. "$(dirname "$0")/lib.sh" "$(readlink -f "$1")"
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"

host=kelgh-$$ g1=kelgg1-$$ g2=kelgg2-$$ keld_pid=
stop_keld() { [ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null && wait "$keld_pid" 2>/dev/null; keld_pid=; }
start_keld() {
	ip netns exec "$host" "$keld" 2>>"$root/keld.log" &
	keld_pid=$!
	for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
}
cleanup() {
	stop_keld
	for ns in "$g1" "$g2" "$host"; do ip netns del "$ns" 2>/dev/null; done
	rm -rf "$root"
}
trap cleanup EXIT
quiet() { "$keladm" "$@" >/dev/null 2>&1; }
host_node "$host" 10.90.0.1 || skip "network namespaces and veth links cannot be made here"
ip netns add "$g1" && ip netns add "$g2"
"$keladm" create-kel -p l2-type=vxlan,vni=5200 web >/dev/null
"$keladm" add-ipnet -p subnet=10.91.0.0/24 web/front >/dev/null
"$keladm" add-vport -p ipaddr=10.91.0.11 web/vm1 >/dev/null
"$keladm" add-vport -p ipaddr=10.91.0.12 web/vm2 >/dev/null
start_keld
"$keladm" create-vnic web/vm1 "$g1/eth0" >/dev/null
"$keladm" create-vnic web/vm2 "$g2/eth0" >/dev/null

# The controller (here: this host's keld) does not answer.
stop_keld
got=$("$keladm" show-vnic -p -o vnic,vport,ipaddr 2>"$root/err")
check "show-vnic without its controller lists the host's own records, and succeeds" \
	grep -qx "$g1/eth0::10.91.0.11/24" <<<"$got"
check "with a warning that says so" grep -q "warning: showing what this host's own records hold" "$root/err"
expect "delete-vnic without its controller removes the VNIC and says what to run later" \
	"keladm: removed VNIC '$g1/eth0', but its port is still bound: failed connecting to KEL controller
keladm: this host's controller is 'unix://' (keladm set-clientprop controller=URI)
keladm: once the controller answers, run keladm delete-vnic $g1/eth0 here again to release the port (or keladm verify --repair on the controller)" \
	delete-vnic "$g1/eth0"
start_keld
"$keladm" show-vnic >/dev/null 2>"$root/err"
check "show-vnic then fails" test $? = 1
check "naming the VNIC that is gone and its port" grep -qxF \
	"keladm: VNIC $g1/eth0 is gone from this host, but its port web/vm1 is still bound: keladm delete-vnic $g1/eth0 releases it" \
	"$root/err"
check "delete-vnic again releases the port" quiet delete-vnic "$g1/eth0"
expect "which is free" "free" show-vport -p -o status web/vm1

# The last guest's namespace is deleted by hand, and its port reset: what the host made
# for the kel (its responder, the VXLAN link) has no user left.
ip netns del "$g2"
check "reset-vport frees the port of a VNIC that is gone" quiet reset-vport web/vm2
got=$("$keladm" verify -p -o what,found)
check "verify finds the VNIC's record" grep -q "^leftover:vnic\\\\: bound over kel-vxlan5200, but its namespace $g2 is gone" <<<"$got"
check "and the kel's responder with no guest left" grep -q "^leftover:responder\\\\: " <<<"$got"
status "and fails" 1 verify
check "verify --repair removes them" quiet verify --repair
check "the VXLAN link went with its last user" bash -c "! ip -n '$host' link show kel-vxlan5200 2>/dev/null"
expect "and the responder's system port with it" "$(printf 'vm1\nvm2')" show-vport -o name -p web
status "verify is quiet then" 0 verify

# A host added before any port is bound there is asked too (here every host is reached
# through this one's socket, so it answers).
check "add-host makes a host known" quiet add-host node9
status "once" 1 add-host node9
status "or with --may-exist" 0 add-host --may-exist node9
check "show-host asks it" grep -qx 'node9:yes' <<<"$("$keladm" show-host -p -o host,answers)"
check "remove-host forgets it" quiet remove-host node9
check "show-host asks it no more" bash -c "! grep -q '^node9:' <<<'$("$keladm" show-host -p -o host,answers)'"
status "a host not added cannot be removed" 1 remove-host node9
status "unless --if-exists" 0 remove-host --if-exists node9
exit $fail

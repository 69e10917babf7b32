#!/bin/bash
# A C99 program built only against what `cmake --install` puts down (headers, libkel.so,
# libkel.pc) attaches a VNIC to a VXLAN kel and detaches it again, with the installed
# keld serving as controller in a network namespace.
# Usage: installed_attach.sh BUILD_DIR ATTACH_C. Exit 77 (skipped) when it cannot run here.
set -u
build=$(readlink -f "$1")
source=$(readlink -f "$2")
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
for tool in ip cc pkg-config; do
	command -v "$tool" >/dev/null || skip "$tool is not installed"
done

tmp=$(mktemp -d /tmp/kel-install-XXXXXX)
ns=kelcapi-$$
keld_pid=
cleanup() {
	[ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null && wait "$keld_pid" 2>/dev/null
	ip netns del "$ns" 2>/dev/null
	rm -rf "$tmp"
}
trap cleanup EXIT

fail=0
check() {
	local what=$1; shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

DESTDIR=$tmp/dest cmake --install "$build" >/dev/null || { echo "FAILED: cmake --install"; exit 1; }
pc=$(find "$tmp/dest" -name libkel.pc | head -1)
prefix=$(sed -n 's/^prefix=//p' "$pc")
root=$tmp/dest$prefix
export PKG_CONFIG_PATH=$(dirname "$pc")
flags=$(pkg-config --define-variable=prefix="$root" --cflags --libs libkel_node)
check "the program builds against the installed headers alone" \
	cc -std=c99 -Wall -Wextra -pedantic -Werror -o "$tmp/attach" "$source" $flags
libdir=$(pkg-config --define-variable=prefix="$root" --variable=libdir libkel)
export LD_LIBRARY_PATH=$libdir
keld=$(find "$root" -name keld -type f -perm -u+x | head -1)
keladm=$(find "$root" -name keladm -type f -perm -u+x | head -1)

ip netns add "$ns" 2>/dev/null || skip "network namespaces cannot be made here"
ip -n "$ns" link set lo up
ip -n "$ns" link add ep0 type veth peer name ep0p || skip "no veth links"
ip -n "$ns" addr add 10.82.0.1/24 dev ep0
ip -n "$ns" link set ep0p up
ip -n "$ns" link set ep0 up

export KEL_ROOT=$tmp/root
mkdir -p "$KEL_ROOT/etc/kel"
adm() { ip netns exec "$ns" "$keladm" "$@"; }
adm create-store >/dev/null
adm set-clientprop controller=unix:// >/dev/null
adm set-controlprop vxlan-range=6000-6099 >/dev/null
# The fabric's endpoint subnet: each host sends from its own address in it.
adm set-controlprop vxlan-addr=10.82.0.0/24 >/dev/null
adm create-kel -p l2-type=vxlan,vni=6042 web >/dev/null
adm add-ipnet -p subnet=10.83.0.0/24 web/front >/dev/null
adm add-vport web/vm1 >/dev/null
ip netns exec "$ns" "$keld" 2>"$tmp/keld.log" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$KEL_ROOT/run/kel/keld.sock" ] && break; sleep 0.05; done

out=$(ip netns exec "$ns" "$tmp/attach" web vm1 vnic0 2>&1)
echo "$out"
check "attach and detach succeed" test "$(echo "$out" | tail -1)" = released
check "the host's endpoint is its address in the fabric's subnet" \
	grep -q "^local 10.82.0.1$" <<<"$out"
check "the port is bound over the VXLAN link of its VNI, with its underlay's MTU less 50" \
	grep -q "^bound vm1 of web, lower link kel-vxlan6042, MTU 1450$" <<<"$out"
check "the VNIC has the port's MAC address" grep -q "^the port's MAC address$" <<<"$out"
check "the controller lists the binding" grep -q "^controller: 1 port(s), vm1 on " <<<"$out"
check "the VXLAN link goes with its last VNIC" \
	bash -c "! ip -n '$ns' link show kel-vxlan6042 >/dev/null 2>&1"
check "the port is free again" bash -c "[ \"\$(ip netns exec '$ns' '$keladm' show-vport -p -o status web/vm1)\" = free ]"
exit $fail

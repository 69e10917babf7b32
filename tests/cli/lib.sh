# Shared by the CLI scenarios: a scratch KEL_ROOT, and checks that count failures.
# Usage in a scenario: . "$(dirname "$0")/lib.sh" KELADM
keladm=$1
root=$(mktemp -d /tmp/kel-cli-XXXXXX)
trap 'rm -rf "$root"' EXIT
export KEL_ROOT=$root
fail=0

# check DESCRIPTION COMMAND...: the command must succeed.
check() {
	local what=$1; shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

# expect DESCRIPTION WANTED-OUTPUT KELADM-ARGS...: keladm's stdout and stderr together
# must be exactly WANTED-OUTPUT.
expect() {
	local what=$1 want=$2; shift 2
	local got
	got=$("$keladm" "$@" 2>&1)
	if [ "$got" = "$want" ]; then
		echo "ok: $what"
	else
		printf 'FAILED: %s\n--- wanted\n%s\n--- got\n%s\n' "$what" "$want" "$got"
		fail=1
	fi
}

# status DESCRIPTION WANTED-STATUS KELADM-ARGS...
status() {
	local what=$1 want=$2; shift 2
	"$keladm" "$@" >/dev/null 2>&1
	local got=$?
	if [ "$got" -eq "$want" ]; then echo "ok: $what"; else echo "FAILED: $what (status $got, wanted $want)"; fail=1; fi
}

# A store with VLAN IDs 100-102 and VNIs 5000-5999 free.
make_store() {
	mkdir -p "$root/etc/kel"
	"$keladm" create-store || exit 1
	"$keladm" set-controlprop vlan-range=100-102 || exit 1
	"$keladm" set-controlprop vxlan-range=5000-5999 || exit 1
}

# host_node HOST ADDRESS: a host in network namespace HOST (made here; false when it
# cannot be), with its VXLAN endpoint ADDRESS/24 on a veth link ep0, its own
# controller and a store with the VXLAN endpoints of ADDRESS's subnet. keladm runs inside
# it from then on ($keladm_bin is the binary); on_host runs any command there.
host_node() {
	host=$1
	ip netns add "$host" 2>/dev/null || return 1
	ip -n "$host" link set lo up
	ip -n "$host" link add ep0 type veth peer name ep0p || return 1
	ip -n "$host" addr add "$2/24" dev ep0
	ip -n "$host" link set ep0p up
	ip -n "$host" link set ep0 up
	on_host() { ip netns exec "$host" "$@"; }
	keladm_bin=$keladm
	keladm() { on_host "$keladm_bin" "$@"; }
	keladm=keladm
	make_store
	"$keladm" set-clientprop controller=unix:// >/dev/null
	"$keladm" set-controlprop uri-template=unix:// >/dev/null
	"$keladm" set-controlprop vxlan-addr="${2%.*}.0/24" >/dev/null
}

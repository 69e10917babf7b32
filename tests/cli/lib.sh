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

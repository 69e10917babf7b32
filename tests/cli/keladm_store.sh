#!/bin/bash
# keladm create-store and help, as an operator uses them. Usage: keladm_store.sh KELADM
set -u
keladm=$1
root=$(mktemp -d /tmp/kel-cli-XXXXXX)
trap 'rm -rf "$root"' EXIT
export KEL_ROOT=$root
fail=0
check() { # description, command...
	local what=$1; shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

out=$("$keladm" create-store 2>&1); rc=$?
check "create-store without /etc/kel fails with status 1" test $rc -eq 1
check "and says why" test "$out" = \
	"keladm: cannot create the configuration store: system error: No such file or directory"

mkdir -p "$root/etc/kel"
check "create-store succeeds" "$keladm" create-store
check "store files exist" test -f "$root/etc/kel/kel.db" -a -f "$root/etc/kel/kel.lock"
check "create-store again leaves the store alone" "$keladm" create-store

"$keladm" create-store extra 2>/dev/null; rc=$?
check "an operand is a usage error (status 2)" test $rc -eq 2
"$keladm" no-such-thing 2>/dev/null; rc=$?
check "an unknown subcommand is a usage error" test $rc -eq 2
check "help lists create-store" bash -c "'$keladm' help | grep -q '^  create-store'"
check "help for one subcommand" bash -c "'$keladm' help create-store | grep -q '^usage: keladm create-store'"
exit $fail

#!/bin/bash
# keladm create-store and help, as an operator uses them. Usage: keladm_store.sh KELADM
. "$(dirname "$0")/lib.sh" "$1"

expect "create-store without /etc/kel says why" \
	"keladm: cannot create the configuration store: system error: No such file or directory" \
	create-store
status "and fails with status 1" 1 create-store

mkdir -p "$root/etc/kel"
check "create-store succeeds" "$keladm" create-store
check "store files exist" test -f "$root/etc/kel/kel.db" -a -f "$root/etc/kel/kel.lock"
check "create-store again leaves the store alone" "$keladm" create-store
status "an operand is a usage error (status 2)" 2 create-store extra
status "an unknown subcommand is a usage error" 2 no-such-thing
check "help lists every subcommand" bash -c \
	"[ \$('$keladm' help | grep -cE '^  (create-store|create-kel|delete-kel|show-kel|add-ipnet|remove-ipnet|show-ipnet|set-clientprop|show-clientprop|set-controlprop|show-controlprop|upgrade-store) ') -eq 12 ]"
check "help for one subcommand" bash -c "'$keladm' help create-store | grep -q '^usage: keladm create-store'"
exit $fail

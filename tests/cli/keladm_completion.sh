#!/bin/bash
# Bash completion of keladm: subcommands, options, property names, fields and the store's
# objects, each read from keladm itself. Usage: keladm_completion.sh KELADM COMPLETION-FILE
. "$(dirname "$0")/lib.sh" "$1"
# shellcheck source=/dev/null
. "$2"
make_store
"$keladm" create-kel -T acme web >/dev/null
"$keladm" create-kel web >/dev/null
"$keladm" create-kel wax >/dev/null
"$keladm" set-controlprop uplink-port=eth0 >/dev/null
"$keladm" set-controlprop -h host-a uplink-port=eth1 >/dev/null
"$keladm" add-ipnet -p subnet=10.0.0.0/24 web/n >/dev/null
"$keladm" add-vport web/p1 >/dev/null
"$keladm" add-vport web/q1 >/dev/null

# completes LINE WANTED: what completing the end of LINE offers, in order, space-joined.
completes() {
	COMP_LINE="$keladm $1"
	COMP_POINT=${#COMP_LINE}
	_keladm
	local got="${COMPREPLY[*]}"
	if [ "$got" = "$2" ]; then echo "ok: '$1'"; else echo "FAILED: '$1' offers '$got', wanted '$2'"; fail=1; fi
}

completes "show-v" "show-vport show-vportprop show-vnic"
completes "--v" "--version"
completes "show-vport -" "-T -o -p --parseable --json --help"
completes "create-kel --m" "--may-exist"
completes "delete-kel --" "--if-exists --help"
completes "help add-v" "add-vport"
completes "delete-kel w" "web wax"
completes "delete-kel -T acme w" "web"
completes "show-kel -p w" "web wax"
completes "show-vport web/" "web/p1 web/q1"
completes "remove-ipnet w" "web/n"
completes "show-kel -o name,t" "name,tenant"
completes "set-vportprop -p ma" "maxbw="
completes "set-vportprop -p maxbw=5M,pri" "5M,priority="
completes "show-kelprop -P maxbw,pr" "maxbw,priority maxbw,protection"
completes "set-controlprop -h host" "host-a"
completes "set-controlprop -h host-a upl" "uplink-port="
completes "verify w" "web/p1 web/q1 web wax"
completes "no-such-thing x" ""
exit $fail

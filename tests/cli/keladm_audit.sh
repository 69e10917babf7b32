#!/bin/bash
# The audit trail: each change is one record on the journal's socket (here a stand-in
# below KEL_ROOT), with who asked, what and how it ended; a remote bind names the user
# the call came in as and the host it named; reads leave no record.
# Usage: keladm_audit.sh KELADM KELD KELRPC.PY. Exit 77 (skipped) when it cannot run here.
keld=$(readlink -f "$2") kelrpc=$(readlink -f "$3")
. "$(dirname "$0")/lib.sh" "$1"
command -v python3 >/dev/null || { echo "SKIPPED: python3 is not installed"; exit 77; }

# The stand-in journal: each datagram it gets, fields one a line, records apart by "--".
mkdir -p "$root/run/systemd/journal"
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
out = open(sys.argv[2], "ab", buffering=0)
while True:
    out.write(s.recv(65536) + b"--\n")
' "$root/run/systemd/journal/socket" "$root/journal" &
journal=$!
keld_pid=
trap 'kill $journal $keld_pid 2>/dev/null; wait 2>/dev/null; rm -rf "$root"' EXIT
for _ in $(seq 100); do [ -S "$root/run/systemd/journal/socket" ] && break; sleep 0.05; done

# has DESCRIPTION COUNT FIELD=VALUE...: COUNT records hold every one of these lines.
has() {
	local what=$1 want=$2 got
	shift 2
	got=$(records "$@")
	if [ "$got" = "$want" ]; then echo "ok: $what"; else echo "FAILED: $what ($got records, wanted $want)"; fail=1; fi
}
# The last record, its fields one a line.
last() { sleep 0.1; awk '/^--$/ { if (more) last = rec; rec = ""; more = 0; next } { rec = rec $0 "\n"; more = 1 } END { printf "%s", last }' "$root/journal"; }
records() {
	local IFS=$'\t'
	sleep 0.1
	awk -v want="$*" 'BEGIN { n = split(want, w, "\t") }
		/^--$/ { hit = 1; for (i = 1; i <= n; i++) if (!(w[i] in seen)) hit = 0; count += hit; delete seen; next }
		{ seen[$0] = 1 }
		END { print count + 0 }' "$root/journal"
}
me=$(id -un)

make_store >/dev/null
"$keladm" create-kel web >/dev/null
has "a change is one record: action, object, user, outcome, notice priority" 1 \
	KEL_ACTION=create-kel KEL_OBJECT=sys-global/web KEL_USER=$me KEL_OUTCOME=ok PRIORITY=5 SYSLOG_IDENTIFIER=kel-audit
"$keladm" create-kel web 2>/dev/null
has "a refused one too, as a warning with its error" 1 \
	KEL_ACTION=create-kel KEL_OUTCOME=failed PRIORITY=4 "KEL_ERROR=object already exists"
"$keladm" add-ipnet -p subnet=10.1.0.0/24 web/front >/dev/null
"$keladm" add-vport web/vm1 >/dev/null
"$keladm" set-vportprop -p maxbw=10M,cos=3 web/vm1
has "each property of a change, with the setting asked for" 2 KEL_ACTION=set-vportprop KEL_OBJECT=sys-global/web/vm1
"$keladm" set-controlprop uplink-port=eth9
has "a controller property" 1 KEL_ACTION=set-controlprop KEL_DETAIL=uplink-port=eth9 KEL_OBJECT=fabric
before=$(grep -c '^--$' "$root/journal")
"$keladm" show-kel >/dev/null; "$keladm" show-vport >/dev/null; "$keladm" verify >/dev/null 2>&1
sleep 0.1
check "reads and a verify without repair leave no record" test "$(grep -c '^--$' "$root/journal")" = "$before"

# A remote bind, as a host's node side makes it through keld: the user the call came in
# as, and the host it named.
"$keld" 2>"$root/keld.log" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
python3 "$kelrpc" assignVPort tenant=sys-global kel=web vportname=vm1 vnicname=vm1 hostname=node7 >/dev/null
has "a remote bind names the host and the user it came in as" 1 \
	KEL_ACTION=bind KEL_OBJECT=sys-global/web/vm1 KEL_USER=$me KEL_REMOTE_HOST=node7 "KEL_DETAIL=VNIC vm1 on node7"
"$keladm" set-kelprop -p priority=high web 2>/dev/null
has "a kel property the bound port's host missed: a record naming that host" 1 \
	KEL_ACTION=set-kelprop KEL_MISSED_HOST=node7 PRIORITY=4
python3 "$kelrpc" unAssignVPort tenant=sys-global kel=web vnicname=vm1 hostname=node7 >/dev/null
has "and its release" 1 KEL_ACTION=release KEL_REMOTE_HOST=node7 "KEL_OBJECT=VNIC vm1 on node7"
"$keladm" remove-vport web/vm1
has "a local change after it is the local user's again" 1 KEL_ACTION=remove-vport KEL_USER=$me
check "with no remote host" bash -c "! grep -q KEL_REMOTE_HOST <<<'$(last)'"

# Without the journal, the classic log socket gets the line with its fields.
kill $journal; wait $journal 2>/dev/null; rm -f "$root/run/systemd/journal/socket"
mkdir -p "$root/dev"
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
open(sys.argv[2], "wb").write(s.recv(65536))
' "$root/dev/log" "$root/syslog" &
journal=$!
for _ in $(seq 100); do [ -S "$root/dev/log" ] && break; sleep 0.05; done
"$keladm" delete-kel web
wait $journal
check "without the journal, /dev/log gets a classic line with the fields" grep -Eq \
	"^<29>[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} kel-audit\[[0-9]+\]: delete-kel sys-global/web by $me: ok KEL_ACTION=\"delete-kel\" " \
	"$root/syslog"
exit $fail

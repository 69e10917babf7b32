#!/bin/bash
# Many calls at once from one host to another over ssh, against an sshd that lets only
# three new logins wait at a time (MaxStartups 3): every call succeeds, all of them share
# one connection (one login), and ssh has nothing to say to any caller of its
# connections: none reset by the sshd, no session refused, no control socket found taken.
# Usage: ssh_concurrent.sh KELD NUQ_CALL. Exit 77 (skipped) when it cannot run here.
set -u
keld=$(readlink -f "$1")
call=$(readlink -f "$2")
. "$(dirname "$0")/ssh_lib.sh"
ssh_require
ssh_up "MaxStartups 3" "MaxSessions 4"
# A machine under load starts sessions slowly: the point is that no call fails, not how
# soon the last one is answered.
export KEL_NUQ_TIMEOUT_MS=90000

calls=20
ssh_words='ControlSocket|multiplexing|kex_exchange_identification|Connection (reset|closed)|session request failed|refused'
out=$root/calls
mkdir -p "$out"
# From nothing, when every call finds no connection to share and they race to make it;
# then again while it stands, when they may be more than one connection's sessions.
for round in first second; do
	pids=
	for i in $(seq "$calls"); do
		ip netns exec "$ctl" "$call" "$uri" kel.Daemon info >"$out/$round.$i" 2>"$out/$round.$i.err" &
		pids="$pids $!"
	done
	# shellcheck disable=SC2086
	wait $pids
	echo "$round round: $SECONDS s since the start"
	check "$round round: all $calls calls were answered" \
		test "$(cat "$out/$round".[0-9]* | grep -c "\"version\"")" -eq "$calls"
	# What the remote shell says (its start-up files) may come through; ssh's own words
	# about its connections may not.
	check "$round round: ssh said nothing of its connections" bash -c \
		"! cat '$out/$round'.*.err | grep -E '$ssh_words'"
done
check "the calls shared one login" test "$(grep -c 'Accepted publickey' "$root/sshd.log")" -eq 1
if [ "$fail" != 0 ]; then
	echo "--- calls not answered"
	grep -L "\"version\"" "$out"/*[0-9] | while read -r f; do echo "$f: $(cat "$f")"; done
	echo "--- what the callers were told"
	cat "$out"/*.err | sort | uniq -c
	echo "--- sshd log"
	cat "$root/sshd.log"
fi
exit $fail

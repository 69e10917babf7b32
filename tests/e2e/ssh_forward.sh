#!/bin/bash
# Later calls over ssh without a session each: once a call is answered on the shared
# connection, the connection forwards a socket of the caller's to the host's keld, and
# later calls, from new processes, go that way with no session (no remote shell, no
# bridge). A host whose sshd refuses socket forwarding is still reached, by a session per
# call, and is not asked to forward again.
# Usage: ssh_forward.sh KELD NUQ_CALL. Exit 77 (skipped) when it cannot run here.
set -u
keld=$(readlink -f "$1")
call=$(readlink -f "$2")
. "$(dirname "$0")/ssh_lib.sh"
ssh_require
ssh_up "LogLevel VERBOSE"

share=$root/ctl/run/kel/ssh-0
sessions() { grep -c 'Starting session' "$root/sshd.log"; }
answered() { ip netns exec "$ctl" "$call" "$uri" kel.Daemon info 2>"$root/call.err" | grep -q '"version"'; }
not_answered() { ! answered; }

check "the first call is answered" answered
check "and leaves a forward to the host's keld, for its owner alone" bash -c \
	"[ \"\$(stat -c %a '$share'/*.keld)\" = 600 ]"
first=$(sessions)
for i in 1 2 3 4 5; do check "later call $i is answered" answered; done
check "later calls start no session (sessions: $first, then $(sessions))" test "$(sessions)" -eq "$first"
check "and ssh said nothing" test ! -s "$root/call.err"

# The host's keld goes away: its socket is gone, the forward leads nowhere, and a call
# says so rather than hang; back again, the same forward reaches it.
kill "$keld_pid"
wait "$keld_pid" 2>/dev/null
check "a call to a host whose keld is down fails" not_answered
KEL_ROOT=$root/node ip netns exec "$node" "$keld" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
check "and once it is back, calls are answered again" answered

# The host turns socket forwarding off; the shared connection ends.
echo "AllowStreamLocalForwarding no" >>"$root/sshd_config"
kill -HUP "$sshd_pid"
sleep 0.5
ip netns pids "$ctl" | xargs -r kill 2>/dev/null
sleep 0.2
check "a call to a host that refuses forwards is answered" answered
check "which is remembered" bash -c "ls '$share'/*.refused >/dev/null"
before=$(sessions)
for i in 1 2 3; do check "later call $i to it is answered" answered; done
check "each on a session of its own" test "$(sessions)" -eq $((before + 3))
check "and ssh said nothing" test ! -s "$root/call.err"
[ "$fail" = 0 ] || { echo "--- sshd log"; cat "$root/sshd.log"; }
exit $fail

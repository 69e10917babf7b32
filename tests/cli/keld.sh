#!/bin/bash
# keld as the service manager runs it: start, serve, reload on SIGHUP, relay through
# "keld bridge", refuse a second instance, stop cleanly on SIGTERM.
# Usage: keld.sh KELD NUQ_CALL KELADM
keld=$1
call=$2
. "$(dirname "$0")/lib.sh" "$3"
mkdir -p "$root/etc/kel"
sock=$root/run/kel/keld.sock

"$keld" &
pid=$!
# Whatever happens below, the daemon does not outlive the scenario.
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -rf "$root"' EXIT
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
check "the socket appears" test -S "$sock"
check "the pid file names the daemon" bash -c "[ \"\$(cat '$root/run/kel/keld.pid')\" = $pid ]"

info() { "$call" unix:// kel.Daemon info; }
version=$("$keld" --version | sed -n 's/^keld //p')
check "keld --version is the version the daemon reports" bash -c \
	"[ -n '$version' ] && '$call' unix:// kel.Daemon info | grep -q '\"version\":\"$version\"'"
check "it answers over unix://" bash -c "'$call' unix:// kel.Daemon info | grep -q '\"reloads\":1'"
check "set-clientprop refreshes it" "$keladm" set-clientprop controller=ssh://ctl.example
for _ in $(seq 100); do info | grep -q '"reloads":2' && break; sleep 0.05; done
check "SIGHUP re-read the configuration" bash -c "'$call' unix:// kel.Daemon info | grep -q '\"controller\":\"ssh://ctl.example\"'"

req='{"jsonrpc":"2.0","id":7,"method":"lookup","params":{"interface":"kel.Daemon","keys":{},"strict":false}}'
check "keld bridge relays a request" bash -c "echo '$req' | '$keld' bridge | grep -q '\"id\":7,\"jsonrpc\":\"2.0\",\"result\"'"
check "bridge to a named socket" bash -c "echo '$req' | '$keld' bridge '$sock' | grep -q result"
check "a lookup of another host's object fails" bash -c "'$call' unix:// kel.Daemon info host=elsewhere | grep -q '^error 2:'"

"$keld" >/dev/null 2>&1; rc=$?
check "a second keld refuses to start" test $rc -eq 1

kill -TERM $pid
wait $pid; rc=$?
check "SIGTERM stops it with status 0" test $rc -eq 0
check "and removes its socket and pid file" test ! -e "$sock" -a ! -e "$root/run/kel/keld.pid"
check "bridge without a daemon fails" bash -c "! echo x | '$keld' bridge 2>/dev/null"
exit $fail

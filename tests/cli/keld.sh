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

# show-host: this host's keld, then every host the controller knows, each asked whether
# it reaches its controller.
me=$(uname -n)
expect "show-host on a node, its controller unreachable" "$me:yes:$version:ssh\://ctl.example:no" \
	show-host -p -o host,answers,version,controller,reaches
status "which is a failure" 1 show-host
"$keladm" set-clientprop controller=unix:// >/dev/null
for _ in $(seq 100); do info | grep -q '"controller":"unix://"' && break; sleep 0.05; done
expect "no store here: unix:// is no controller" 'no:controller\: remote call failed\: remote object not found' \
	show-host -p -o reaches,problem
"$keladm" create-store
"$keladm" set-controlprop uri-template=unix:// >/dev/null
"$keladm" set-controlprop -h near uplink-port=eth1 >/dev/null
"$keladm" set-controlprop -h far uplink-port=eth1 >/dev/null
"$keladm" set-controlprop -h far uri-template=ssh:// >/dev/null
printf 'Host *\n  ProxyCommand /bin/false\n' >"$root/ssh_config"
export KEL_SSH_CONFIG=$root/ssh_config KEL_SSH_PERSIST=0
check "the controller asks every host it knows" bash -c \
	"[ \"\$('$keladm' show-host -p -o host,answers,reaches 2>/dev/null)\" = '$me:yes:yes
far:no:
near:yes:yes' ]"
check "and says why one does not answer" bash -c \
	"'$keladm' show-host -p -o problem far 2>/dev/null | grep -qx 'KEL controller failed connecting to a host'"
check "ssh's own words come named with their host" bash -c \
	"'$keladm' show-host far 2>&1 >/dev/null | grep -v '^ssh to far: ' | { ! grep -q .; }"
# Its uptime is whole seconds since keld started: 0 or more on a busy machine.
check "one host, as JSON" bash -c "'$keladm' show-host --json -o host,answers,uptime,reaches near 2>&1 |
	grep -qx '\[{\"host\": \"near\", \"answers\": true, \"uptime\": [0-9]*, \"reaches\": true}\]'"

"$keld" >/dev/null 2>&1; rc=$?
check "a second keld refuses to start" test $rc -eq 1

kill -TERM $pid
wait $pid; rc=$?
check "SIGTERM stops it with status 0" test $rc -eq 0
check "and removes its socket and pid file" test ! -e "$sock" -a ! -e "$root/run/kel/keld.pid"
check "bridge without a daemon fails" bash -c "! echo x | '$keld' bridge 2>/dev/null"
exit $fail

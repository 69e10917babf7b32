# A highly available PostgreSQL 15 for the failover scenarios: two servers, pg1 and pg2,
# kept by Patroni over a three-member etcd cluster (e1 e2 e3), all on 127.0.0.1 and all
# run by the unprivileged "postgres" account. Source it (bash); then:
#   ha_require        checks what it needs (a reason in $ha_skip; the caller exits 77)
#   ha_up DIR         starts everything, its files and logs in DIR (an absolute path, made
#                     if missing and given to postgres; its parents must let postgres
#                     through). Returns once one member leads and the other is its
#                     synchronous standby, so that every commit is on both; database "kel"
#                     then belongs to role "kel" (not a superuser), and $ha_conninfo is a
#                     libpq string that finds whichever member takes writes. Call it in
#                     the caller's own shell, not in $(...): it sets variables.
#   ha_leader         prints the member that leads now (pg1 or pg2); nonzero when none does
#   ha_kill_leader    kills the leader's Patroni and its server with every backend, all at
#                     once and with SIGKILL (the machine is lost); prints the member's name
#   ha_wait_leader OLD SECONDS
#                     waits until a member other than OLD leads and a session through
#                     $ha_conninfo finds a server out of recovery; prints how long that
#                     took, in seconds with one decimal; nonzero after SECONDS
#   ha_psql SQL       runs SQL through $ha_conninfo; prints the rows (psql -Atq)
#   ha_sql_on NAME SQL  runs SQL as the superuser "postgres" on member NAME's server
#   ha_pg_port NAME   the PostgreSQL port of member NAME
#   ha_down           kills everything ha_up started and removes DIR; harmless when
#                     nothing is up or when called again (fit for an EXIT trap)
# Ports: $ha_base to $ha_base+9, a block in 24000-24999 chosen from the shell's PID and
# passed over while one of its ports answers; HA_PORT_BASE imposes a block. Logs:
# DIR/e1.log... (etcd) and DIR/pg1.log... (Patroni, with its server's output). Should the
# caller die without running ha_down (a SIGKILL from a test runner's timeout), a watcher
# of ha_up's takes the cluster down within a second or two.

ha_skip=
ha_dir=
ha_base=
ha_conninfo=
ha_bin=/usr/lib/postgresql/15/bin
ha_members="pg1 pg2"
ha_lib=$(readlink -f "${BASH_SOURCE[0]}")

ha_etcd_port() { echo $((ha_base + ${1#e} - 1)); }
ha_peer_port() { echo $((ha_base + ${1#e} + 2)); }
ha_rest_port() { echo $((ha_base + ${1#pg} + 5)); }
ha_pg_port() { echo $((ha_base + ${1#pg} + 7)); }
ha_other() { if [ "$1" = pg1 ]; then echo pg2; else echo pg1; fi; }

ha_require() {
	[ "$(id -u)" = 0 ] || { ha_skip="needs root (to run the servers as postgres)"; return 1; }
	id postgres >/dev/null 2>&1 || { ha_skip="no postgres account (apt-get install postgresql-15)"; return 1; }
	local tool
	for tool in etcd etcdctl patroni /usr/bin/python3 setsid setpriv "$ha_bin/postgres" "$ha_bin/initdb" \
		"$ha_bin/pg_basebackup" "$ha_bin/psql"; do
		command -v "$tool" >/dev/null || { ha_skip="$tool is not installed"; return 1; }
	done
	# Debian's Python, the one Patroni runs on, whichever python3 comes first in PATH.
	/usr/bin/python3 -c 'import etcd, psycopg2, yaml, urllib3' 2>/dev/null ||
		{ ha_skip="Patroni's Python modules are missing (python3-etcd, python3-psycopg2)"; return 1; }
}

# SECONDS CMD...: runs CMD until it succeeds; nonzero when it has not within SECONDS.
ha_wait() {
	local end=$((SECONDS + $1))
	shift
	until "$@"; do
		[ "$SECONDS" -lt "$end" ] || return 1
		sleep 0.2
	done
}

# MESSAGE NAME...: MESSAGE, then the end of each NAME's log, on stderr.
ha_fail() {
	local name
	echo "ha_up: $1" >&2
	shift
	for name; do
		echo "--- $ha_dir/$name.log" >&2
		tail -n 15 "$ha_dir/$name.log" >&2 2>/dev/null || true
	done
	return 1
}

ha_port_busy() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

ha_pick_base() {
	local b=${HA_PORT_BASE:-$((24000 + 10 * ($$ % 100)))} tries=0 p
	while [ $tries -lt 100 ]; do
		for ((p = b; p < b + 10; p++)); do ha_port_busy $p && break; done
		[ $p -eq $((b + 10)) ] && { ha_base=$b; return 0; }
		[ -n "${HA_PORT_BASE:-}" ] && return 1
		b=$((24000 + (b - 24000 + 10) % 1000))
		tries=$((tries + 1))
	done
	return 1
}

ha_as_pg() { setpriv --reuid=postgres --regid=postgres --init-groups -- "$@"; }

# NAME CMD...: CMD as postgres, in a session of its own so that one kill reaches all it
# starts; with a clean environment (a proxy named there must not catch loopback traffic);
# its output in DIR/NAME.log, its PID (which is its process group's) in DIR/NAME.pid.
ha_spawn() {
	local name=$1
	shift
	setsid /bin/sh -c 'echo $$ >"$0" && exec "$@"' "$ha_dir/$name.pid" \
		env -i PATH=/usr/bin:/bin HOME="$ha_dir" LANG=C.UTF-8 \
		setpriv --reuid=postgres --regid=postgres --init-groups -- "$@" \
		>"$ha_dir/$name.log" 2>&1 </dev/null &
	# Out of the job table: bash would otherwise report each SIGKILL of ha_down.
	disown $!
	ha_wait 5 test -s "$ha_dir/$name.pid"
}

# PORT PATH [cluster]: GET PATH from the Patroni REST API at PORT; nonzero unless the
# answer is 200. Prints the body, or with "cluster" a line "NAME ROLE STATE" a member.
ha_get() {
	/usr/bin/python3 -c '
import json, sys, urllib.request
# Straight to the loopback: never through a proxy the environment may name.
opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
try:
    body = opener.open("http://127.0.0.1:%s%s" % (sys.argv[1], sys.argv[2]), timeout=2).read().decode()
except Exception:
    sys.exit(1)
if len(sys.argv) > 3:
    for m in json.loads(body).get("members", []):
        print(m.get("name"), m.get("role"), m.get("state"))
else:
    sys.stdout.write(body)
' "$@"
}

# MEMBER SQL: SQL as the superuser on MEMBER's server, database postgres.
ha_sql_on() {
	"$ha_bin/psql" -X -Atq -v ON_ERROR_STOP=1 \
		-d "host=127.0.0.1 port=$(ha_pg_port "$1") dbname=postgres user=postgres connect_timeout=2" -c "$2"
}

ha_psql() { "$ha_bin/psql" -X -Atq -v ON_ERROR_STOP=1 -d "$ha_conninfo" -c "$1"; }

ha_leader() {
	local m
	for m in $ha_members; do
		ha_get "$(ha_rest_port $m)" /primary >/dev/null && { echo $m; return 0; }
	done
	return 1
}

# Whether the cluster is one a failover keeps every commit of: the leader's server has
# the other member streaming as its synchronous standby, and Patroni has recorded that
# member as the one it may promote (it promotes no other in synchronous mode).
ha_synced() {
	local leader other
	leader=$(ha_leader) || return 1
	other=$(ha_other "$leader")
	ha_get "$(ha_rest_port "$leader")" /cluster cluster | grep -q "^$other sync_standby " || return 1
	[ "$(ha_sql_on "$leader" "SELECT count(*) FROM pg_stat_replication
		WHERE application_name = '$other' AND state = 'streaming' AND sync_state = 'sync'" 2>/dev/null)" = 1 ]
}

# Member NAME's Patroni configuration; HOSTS: etcd's client addresses.
ha_config() {
	local m=$1 hosts=$2
	cat <<EOF
scope: kel-ha
name: $m
log:
  level: INFO
restapi:
  listen: 127.0.0.1:$(ha_rest_port "$m")
  connect_address: 127.0.0.1:$(ha_rest_port "$m")
etcd3:
  hosts: $hosts
bootstrap:
  dcs:
    # A dead leader's key lapses after ttl seconds, and the survivor looks every
    # loop_wait; a leader cut off from etcd for retry_timeout steps down. Patroni wants
    # loop_wait + 2 * retry_timeout <= ttl. Smaller still would make a busy machine's
    # slow loop pass for a dead leader.
    ttl: 10
    loop_wait: 2
    retry_timeout: 4
    # Patroni's own default, 1 MiB: the standby is synchronous, so it never lags by
    # more than commits in flight, and this only bars a standby that stopped streaming.
    maximum_lag_on_failover: 1048576
    # A commit returns once the standby has written it too, so the member that takes over
    # has every acknowledged write. Not strict: with two servers, losing the primary
    # leaves no standby, and strict mode would have the survivor refuse every write until
    # one comes back. The price: after a failover, commits are on one server only.
    synchronous_mode: true
    synchronous_mode_strict: false
    postgresql:
      use_slots: true
  initdb:
  - encoding: UTF8
  - locale: C
  - no-sync
postgresql:
  listen: 127.0.0.1:$(ha_pg_port "$m")
  connect_address: 127.0.0.1:$(ha_pg_port "$m")
  data_dir: $ha_dir/$m
  bin_dir: $ha_bin
  pgpass: $ha_dir/$m.pgpass
  authentication:
    superuser:
      username: postgres
    replication:
      username: replicator
  pg_hba:
  - host all all 127.0.0.1/32 trust
  - host replication all 127.0.0.1/32 trust
  parameters:
    # TCP on the loopback only: no socket file whose path could outgrow its limit.
    unix_socket_directories: ''
    # The failures played are killed processes, not lost power: the kernel keeps what
    # was written, and the disk of a shared test machine is spared.
    fsync: 'off'
    shared_buffers: 16MB
  basebackup:
  - checkpoint: fast
watchdog:
  mode: 'off'
EOF
}

# Takes the cluster down once the caller's shell is gone without having done it. It is in
# a session of its own: a runner that kills the test's process group spares it.
ha_guard() {
	setsid bash -c '. "$0"; ha_dir=$1
		echo $$ >"$ha_dir/guard.pid"
		while kill -0 "$2" 2>/dev/null && [ -d "$ha_dir" ]; do sleep 1; done
		[ -d "$ha_dir" ] && ha_down' "$ha_lib" "$ha_dir" $$ >/dev/null 2>&1 </dev/null &
	disown $!
}

ha_up() {
	local dir=$1 n m hosts='' peers='' endpoints='' leader
	case $dir in
	'' | /*[!A-Za-z0-9_./-]* | [!/]*) echo "ha_up: $dir: an absolute path of letters, digits and ._-/ please" >&2; return 1 ;;
	esac
	[ -z "$ha_dir" ] || { echo "ha_up: a cluster is up already, in $ha_dir" >&2; return 1; }
	ha_dir=$dir
	ha_conninfo=
	mkdir -p "$ha_dir" && chown postgres:postgres "$ha_dir" && chmod 755 "$ha_dir" || return 1
	ha_as_pg test -w "$ha_dir" -a -x "$ha_dir" ||
		{ echo "ha_up: postgres cannot write in $ha_dir (is a parent closed to it?)" >&2; return 1; }
	ha_pick_base || { echo "ha_up: no free block of ten ports in 24000-24999" >&2; return 1; }
	ha_guard

	for n in 1 2 3; do
		peers=$peers${peers:+,}e$n=http://127.0.0.1:$(ha_peer_port e$n)
		hosts=$hosts${hosts:+,}127.0.0.1:$(ha_etcd_port e$n)
		endpoints=$endpoints${endpoints:+,}http://127.0.0.1:$(ha_etcd_port e$n)
	done
	for n in 1 2 3; do
		ha_spawn e$n etcd --name e$n --data-dir "$ha_dir/e$n" --logger zap --log-outputs stderr \
			--listen-client-urls "http://127.0.0.1:$(ha_etcd_port e$n)" \
			--advertise-client-urls "http://127.0.0.1:$(ha_etcd_port e$n)" \
			--listen-peer-urls "http://127.0.0.1:$(ha_peer_port e$n)" \
			--initial-advertise-peer-urls "http://127.0.0.1:$(ha_peer_port e$n)" \
			--initial-cluster "$peers" --initial-cluster-token "kel-ha-$ha_base" \
			--initial-cluster-state new || return 1
	done
	ha_wait 30 etcdctl --endpoints="$endpoints" --dial-timeout=1s --command-timeout=2s \
		endpoint health >/dev/null 2>&1 || { ha_fail "etcd did not come up" e1 e2 e3; return 1; }

	# Both at once: the first to take etcd's initialize key makes the database, the
	# other copies it from that one.
	for m in $ha_members; do
		ha_config $m "$hosts" >"$ha_dir/$m.yml"
		ha_spawn $m patroni "$ha_dir/$m.yml" || return 1
	done
	ha_wait 90 ha_synced || { ha_fail "no leader with a synchronous standby" $ha_members; return 1; }
	leader=$(ha_leader) || { ha_fail "the leader went away" $ha_members; return 1; }
	# The owner of a database owns its schema public, where the store makes its tables.
	ha_sql_on "$leader" "CREATE ROLE kel LOGIN" >/dev/null &&
		ha_sql_on "$leader" "CREATE DATABASE kel OWNER kel" >/dev/null ||
		{ ha_fail "could not make database kel on $leader" $ha_members; return 1; }
	ha_conninfo="host=127.0.0.1,127.0.0.1 port=$(ha_pg_port pg1),$(ha_pg_port pg2) dbname=kel user=kel"
	ha_conninfo="$ha_conninfo target_session_attrs=read-write connect_timeout=2"
}

# The process groups with a live process among them (a zombie is not one: it only
# waits for whoever adopted it to collect it).
ha_live_groups() {
	local f s a g
	for f in /proc/[0-9]*/stat; do
		read -r s 2>/dev/null <"$f" || continue
		read -r -a a <<<"${s##*) }"
		[ "${a[0]}" = Z ] && continue
		for g; do [ "${a[2]}" = "$g" ] && echo "$g"; done
	done
	return 0
}

# The process groups of member NAME's running server: the postmaster's, and each of its
# children's, since every child begins a session of its own. The postmaster is found by
# its command line, not by postmaster.pid, which a server just started may not have
# written yet. Patroni starts it through a helper that begins a session and exits, so
# its group is the helper's, not its own.
ha_server_groups() {
	local f args s a pm=' '
	for f in /proc/[0-9]*/cmdline; do
		mapfile -d "" -t args 2>/dev/null <"$f" || continue
		[ "${args[0]:-}" = "$ha_bin/postgres" ] && [ "${args[1]:-}" = -D ] &&
			[ "${args[2]:-}" = "$ha_dir/$1" ] || continue
		read -r s 2>/dev/null <"${f%cmdline}stat" || continue
		read -r -a a <<<"${s##*) }"
		echo "${a[2]}"
		f=${f#/proc/}
		pm="$pm${f%/cmdline} "
	done
	[ "$pm" != ' ' ] || return 0
	for f in /proc/[0-9]*/stat; do
		read -r s 2>/dev/null <"$f" || continue
		read -r -a a <<<"${s##*) }"
		[[ $pm == *" ${a[1]} "* ]] && echo "${a[2]}"
	done
	return 0
}

# NAME...: the process groups of what ha_spawn started as NAME.
ha_groups() {
	local name pid
	for name; do
		[ -s "$ha_dir/$name.pid" ] && read -r pid <"$ha_dir/$name.pid" && echo "$pid"
	done
	return 0
}

ha_gone() { [ -z "$(ha_live_groups "$@")" ]; }
ha_kill() {
	local g
	for g; do kill -KILL -- "-$g" 2>/dev/null || true; done
	return 0
}

ha_kill_leader() {
	local m groups
	m=$(ha_leader) || { echo "ha_kill_leader: no member leads" >&2; return 1; }
	groups="$(ha_groups $m) $(ha_server_groups $m)"
	ha_kill $groups
	ha_wait 10 ha_gone $groups || { echo "ha_kill_leader: $m outlived SIGKILL" >&2; return 1; }
	echo $m
}

ha_wait_leader() {
	local old=$1 end=$((SECONDS + $2)) start=${EPOCHREALTIME/[.,]/} m ms
	until m=$(ha_leader) && [ "$m" != "$old" ] && [ "$(ha_psql 'SELECT pg_is_in_recovery()' 2>/dev/null)" = f ]; do
		[ "$SECONDS" -lt "$end" ] || { echo "ha_wait_leader: no other leader taking writes after $2 s" >&2; return 1; }
		sleep 0.2
	done
	ms=$(((${EPOCHREALTIME/[.,]/} - start) / 1000))
	printf '%d.%d\n' $((ms / 1000)) $((ms % 1000 / 100))
}

ha_down() {
	[ -n "$ha_dir" ] || return 0
	local guard='' m groups _
	# The watcher first (unless this is the watcher): it must not take down a later
	# cluster in the same place.
	read -r guard 2>/dev/null <"$ha_dir/guard.pid" || true
	if [ -n "$guard" ] && [ "$guard" != "${BASHPID:-}" ]; then ha_kill "$guard"; fi
	# Twice: a Patroni killed while starting a server may leave one behind that the
	# first look missed.
	for _ in 1 2; do
		groups="$(ha_groups pg1 pg2 e1 e2 e3)"
		for m in $ha_members; do groups="$groups $(ha_server_groups $m)"; done
		[ -n "${groups// /}" ] || break
		ha_kill $groups
		ha_wait 10 ha_gone $groups || echo "ha_down: processes of groups $groups outlived SIGKILL" >&2
		sleep 0.2
	done
	rm -rf "$ha_dir"
	ha_dir=
	ha_conninfo=
}

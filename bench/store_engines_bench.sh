#!/bin/bash
# The store on PostgreSQL against the store file, in one run (engine_bench): a PostgreSQL 15
# server of its own for the run, as durable as the file (fsync and synchronous_commit on,
# every other setting the server's default), run by the unprivileged "postgres" account and
# reachable only through a unix socket in a scratch directory; stopped, and the directory
# removed, however the run ends.
# Usage: store_engines_bench.sh ENGINE_BENCH [ROUNDS] [N...]  (default 300 rounds, 1000 100000)
# Exit status 77 when PostgreSQL 15 or the postgres account is not installed.
set -eu
bench=${1:?usage: $0 ENGINE_BENCH [ROUNDS] [N...]}
shift
rounds=${1:-300}
[ $# -gt 0 ] && shift
bin=/usr/lib/postgresql/15/bin
if [ ! -x "$bin/initdb" ] || ! id postgres >/dev/null 2>&1; then
	echo "$0: PostgreSQL 15 is not installed (apt-get install postgresql-15)" >&2
	exit 77
fi
[ "$(id -u)" -eq 0 ] || { echo "$0: needs root, to run the server as postgres" >&2; exit 77; }

# On the same file system as the file stores engine_bench makes under /tmp, so both
# engines' syncs reach the same disk.
dir=$(mktemp -d /tmp/kel-pgbench-XXXXXX)
as_pg() { runuser -u postgres -- "$@"; }
stop() {
	if [ -f "$dir/data/postmaster.pid" ]; then
		as_pg "$bin/pg_ctl" -D "$dir/data" -m fast -w stop >/dev/null 2>&1 || true
	fi
	rm -rf "$dir"
}
trap stop EXIT
trap 'exit 130' INT TERM
chown postgres "$dir"
chmod 700 "$dir"
as_pg "$bin/initdb" -D "$dir/data" -A trust -U kel --locale=C -E UTF8 >"$dir/initdb.log" 2>&1 || {
	cat "$dir/initdb.log" >&2
	exit 1
}
as_pg "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
	-o "-c listen_addresses='' -c unix_socket_directories='$dir' -c fsync=on -c synchronous_commit=on" \
	start >/dev/null || {
	cat "$dir/server.log" >&2
	exit 1
}
"$bench" --pg "host=$dir dbname=postgres user=kel" --rounds "$rounds" "$@"

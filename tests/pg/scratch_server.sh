#!/bin/sh
# A scratch PostgreSQL server for tests: its own cluster in DIR, run by the unprivileged
# "postgres" account, reachable only through a unix socket in DIR (no TCP), trusting
# whoever can reach that socket (DIR is the test's own). fsync is off: the tests check
# what the library asks of the server, not the disk under it.
# Usage: scratch_server.sh start DIR   prints the libpq connection string of database "kel"
#        scratch_server.sh stop DIR    stops the server and removes DIR
# Exit status 77 when PostgreSQL 15 or the account is not installed (the caller skips).
set -eu
cmd=${1:-}
dir=${2:-}
[ -n "$cmd" ] && [ -n "$dir" ] || { echo "usage: $0 start|stop DIR" >&2; exit 2; }
bin=/usr/lib/postgresql/15/bin
as_pg() { runuser -u postgres -- "$@"; }

case $cmd in
start)
	if [ ! -x "$bin/initdb" ] || ! id postgres >/dev/null 2>&1; then
		echo "$0: PostgreSQL 15 is not installed (apt-get install postgresql-15)" >&2
		exit 77
	fi
	mkdir -p "$dir"
	chown postgres "$dir"
	chmod 700 "$dir"
	as_pg "$bin/initdb" -D "$dir/data" -A trust -U kel --locale=C -E UTF8 >"$dir/initdb.log" 2>&1
	as_pg "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
		-o "-c listen_addresses='' -c unix_socket_directories='$dir' -c fsync=off -c synchronous_commit=off -c max_connections=200" \
		start >/dev/null
	as_pg "$bin/createdb" -h "$dir" -U kel kel
	echo "host=$dir dbname=kel user=kel"
	;;
stop)
	if [ -d "$dir/data" ]; then
		as_pg "$bin/pg_ctl" -D "$dir/data" -m immediate -w stop >/dev/null 2>&1 || true
	fi
	rm -rf "$dir"
	;;
*)
	echo "usage: $0 start|stop DIR" >&2
	exit 2
	;;
esac

#!/bin/bash
# A bind and an unbind through the controller's keld over its local socket against the
# same in process, on a store of N ports (default 1,000 and 100,000), in one run each.
# Usage: keld_call_bench.sh KELD KELADM STORE_FILL CALL_BENCH [ROUNDS] [N...]
set -eu
keld=$(readlink -f "$1")
keladm=$(readlink -f "$2")
store_fill=$(readlink -f "$3")
call_bench=$(readlink -f "$4")
rounds=${5:-200}
sizes=("${@:6}")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 100000)
. "$(dirname "$0")/bench_lib.sh"
for n in "${sizes[@]}"; do
	scratch_store "$keladm" callbench
	"$store_fill" web "$n"
	"$keladm" set-clientprop controller=unix:// >/dev/null
	"$keld" 2>/dev/null &
	pid=$!
	for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
	"$call_bench" "$rounds" "$n"
	kill "$pid"
	wait "$pid" 2>/dev/null || true
	rm -rf "$root"
done

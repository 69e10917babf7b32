#!/bin/bash
# keladm as operators run it, one process per command. In a scratch store with one flat
# kel and a /8 network, adds N ports with `keladm add-vport` and prints the mean cost of
# the first and of the last 100 adds, then the fixed cost of starting keladm (`keladm
# help`) against a bare process (/bin/true), all as JSON lines. Every add has its address
# drawn and durable when keladm returns.
# The machine's speed drifts between runs, so each size also gets the median raw durable
# SQLite commit (vport_bench --raw-commit, beside keladm in the build tree) measured just
# before and just after its adds, and the end cost as a multiple of it (end_ratio): that
# ratio is the figure that holds from one run to the next.
# Usage: keladm_bench.sh KELADM [N...]   (default N: 1000 5000)
set -euo pipefail
keladm=$(realpath "$1")
shift
sizes=("$@")
raw_bench=$(dirname "$keladm")/../../bench/vport_bench
[ ${#sizes[@]} -eq 0 ] && sizes=(1000 5000)

. "$(dirname "$0")/bench_lib.sh"

# mean_us N COMMAND...: the mean cost of running COMMAND N times.
mean_us() {
	local n=$1 t0 i
	shift
	t0=$(now_us)
	for ((i = 0; i < n; i++)); do "$@" >/dev/null; done
	echo $((($(now_us) - t0) / n))
}

# raw_us: the median raw durable commit, in whole microseconds.
raw_us() {
	"$raw_bench" --raw-commit | sed -E 's/.*"median_us": ([0-9]+).*/\1/'
}

for n in "${sizes[@]}"; do
	scratch_store "$keladm" keladm-bench
	raw_before=$(raw_us)
	batch=$((n < 100 ? n : 100))
	t0=$(now_us)
	for ((i = 0; i < n; i++)); do
		[ $i -eq $((n - batch)) ] && t_end=$(now_us)
		"$keladm" add-vport "web/p$i" >/dev/null
		[ $i -eq $((batch - 1)) ] && start=$((($(now_us) - t0) / batch))
	done
	end=$((($(now_us) - t_end) / batch))
	raw=$((($(raw_us) + raw_before) / 2))
	echo "{\"ports\": $n, \"op\": \"keladm add-vport\", \"start_us\": $start, \"end_us\": $end," \
		"\"raw_commit_us\": $raw, \"end_ratio\": $(ms_text $((end * 1000 / raw)))}"
	rm -rf "$root"
done
bare=$(mean_us 300 /bin/true)
help=$(mean_us 300 "$keladm" help)
echo "{\"op\": \"start\", \"bare_us\": $bare, \"keladm_help_us\": $help, \"fixed_us\": $((help - bare))}"

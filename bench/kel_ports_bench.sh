#!/bin/bash
# What a kel's own work costs as its free ports grow: `keladm set-kelprop`, `sync-flood`
# and `verify KEL` on a VXLAN kel holding N unbound ports (default 0 and 100,000), one
# process per command as operators run them. Prints, as JSON lines, each command's median
# time over ROUNDS runs and its largest resident size, then each command's time and size at
# the largest N as a multiple of those at the smallest: the figures that hold from one run
# to the next on a noisy machine.
# Usage: kel_ports_bench.sh KELADM STORE_FILL [ROUNDS] [N...]
set -euo pipefail
keladm=$(realpath "$1")
store_fill=$(realpath "$2")
rounds=${3:-9}
sizes=("${@:4}")
[ ${#sizes[@]} -gt 0 ] || sizes=(0 100000)
. "$(dirname "$0")/bench_lib.sh"

# median COMMAND...: sets $us to the median wall time of ROUNDS runs and $rss to the
# largest resident size (KiB) of one.
median() {
	local times=() t0 kib
	rss=0
	for ((i = 0; i < rounds; i++)); do
		t0=$(now_us)
		/usr/bin/time -o "$root/rss" -f %M "$@" >/dev/null 2>&1 || true
		times+=($(($(now_us) - t0)))
		kib=$(tail -1 "$root/rss")
		[ "$kib" -gt "$rss" ] && rss=$kib
	done
	us=$(printf '%s\n' "${times[@]}" | sort -n | sed -n "$((rounds / 2 + 1))p")
}

declare -A first_us first_rss
for n in "${sizes[@]}"; do
	scratch_store "$keladm" kel-ports
	"$keladm" set-controlprop vxlan-range=5000-5100 >/dev/null
	"$keladm" create-kel -p l2-type=vxlan vx >/dev/null
	"$keladm" add-ipnet -p subnet=172.16.0.0/12 vx/vn >/dev/null
	[ "$n" -gt 0 ] && "$store_fill" vx "$n" >/dev/null
	# The first write after a change from outside the library checks the whole store once
	# (store_open_bench measures that): paid here, before anything is timed.
	"$keladm" set-kelprop -p maxbw=10M vx >/dev/null
	for op in set-kelprop sync-flood verify; do
		case $op in
		set-kelprop) cmd=("$keladm" set-kelprop -p maxbw=10M vx) ;;
		sync-flood) cmd=("$keladm" sync-flood vx) ;;
		verify) cmd=("$keladm" verify vx) ;;
		esac
		median "${cmd[@]}"
		echo "{\"free_ports\": $n, \"op\": \"$op\", \"median_ms\": $(ms_text "$us"), \"max_rss_kib\": $rss}"
		if [ -z "${first_us[$op]:-}" ]; then
			first_us[$op]=$us first_rss[$op]=$rss
		elif [ "$n" = "${sizes[-1]}" ]; then
			echo "{\"op\": \"$op\", \"time_ratio\": $(awk "BEGIN { printf \"%.2f\", $us / ${first_us[$op]} }"), \"rss_ratio\": $(awk "BEGIN { printf \"%.2f\", $rss / ${first_rss[$op]} }")}"
		fi
	done
	rm -rf "$root"
done

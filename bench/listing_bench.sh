#!/bin/bash
# keladm's listings at scale: a scratch store with one flat kel "web" and a /8 network,
# filled with N ports by store_fill (and 20 small kels beside it), then each listing run
# once untimed (to warm the page cache) and three times timed. Prints, per listing, the
# best wall time and the peak resident memory (GNU time's %M) as JSON lines, then the
# store's size on disk per port.
# Usage: listing_bench.sh KELADM STORE_FILL [N...]   (default N: 100000)
set -euo pipefail
keladm=$(realpath "$1")
fill=$(realpath "$2")
shift 2
sizes=("$@")
[ ${#sizes[@]} -eq 0 ] && sizes=(100000)
[ -x /usr/bin/time ] || { echo "listing_bench: needs GNU time (apt-get install time)" >&2; exit 77; }

. "$(dirname "$0")/bench_lib.sh"

# measure LABEL ARGS...: the best wall time of three runs of keladm ARGS (output thrown
# away), and the peak resident memory of a fourth run under GNU time.
measure() {
	local label=$1 best_us=999999999 i t0 us kib
	shift
	"$keladm" "$@" >/dev/null
	for i in 1 2 3; do
		t0=$(now_us)
		"$keladm" "$@" >/dev/null
		us=$(($(now_us) - t0))
		((us < best_us)) && best_us=$us
	done
	kib=$( { /usr/bin/time -f '%M' "$keladm" "$@" >/dev/null; } 2>&1)
	echo "{\"ports\": $n, \"op\": \"$label\", \"ms\": $(ms_text $best_us), \"peak_kib\": $kib}"
}

for n in "${sizes[@]}"; do
	scratch_store "$keladm" listing-bench
	for i in $(seq 1 20); do "$keladm" create-kel -p l2-type=flat "k$i" >/dev/null; done
	before=$(stat -c %s "$root/etc/kel/kel.db")
	"$fill" web "$n"
	after=$(stat -c %s "$root/etc/kel/kel.db")
	measure "show-vport" show-vport
	measure "show-vport -o name,ipaddr -p" show-vport -o name,ipaddr -p
	measure "show-kel" show-kel
	measure "show-kel -o name,id" show-kel -o name,id
	measure "show-kelprop web" show-kelprop web
	echo "{\"ports\": $n, \"op\": \"store size\", \"bytes_per_port\": $(((after - before) / n))}"
	rm -rf "$root"
done

#!/bin/bash
# How the work of a caller's long text grows with it: callgrind's count of the
# instructions that filter_bench's work_once takes (a filtered port list, or reading a
# property text; nothing else), for N and 4N names, in each of filter_bench's shapes. A cost that grows linearly gives a ratio
# near 4; one that grows with the square, near 16. Prints one JSON object per shape.
# Usage: filter_cost.sh FILTER_BENCH [N]   (N = 5000 by default)
# With --check before FILTER_BENCH, exits 1 when a ratio is above 6 (and 77 without
# valgrind), so that the count can stand as a test.
check=0
if [ "$1" = "--check" ]; then check=1; shift; fi
bench=$1
n=${2:-5000}
command -v valgrind >/dev/null || { echo "skipped: valgrind is not installed"; exit 77; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# instructions SHAPE N: the instructions of one call.
instructions() {
	valgrind --tool=callgrind --collect-atstart=no --toggle-collect='*work_once*' \
		--callgrind-out-file="$out/cg" "$bench" --shape "$1" "$2" >/dev/null 2>&1 || return 1
	sed -nE 's/^summary: ([0-9]+).*/\1/p' "$out/cg"
}

fail=0
for shape in alternatives keys properties; do
	small=$(instructions "$shape" "$n") && large=$(instructions "$shape" $((4 * n)))
	if [ -z "$small" ] || [ -z "$large" ]; then
		echo "FAILED: callgrind did not count the $shape shape"
		exit 1
	fi
	ratio=$(awk -v a="$small" -v b="$large" 'BEGIN { printf "%.2f", b / a }')
	echo "{\"shape\": \"$shape\", \"names\": $n, \"instructions\": $small, \"names_4x\": $((4 * n)), \"instructions_4x\": $large, \"ratio\": $ratio}"
	awk -v r="$ratio" 'BEGIN { exit !(r > 6) }' && fail=1
done
[ $check -eq 1 ] && exit $fail
exit 0

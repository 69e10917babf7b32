#!/bin/bash
# keld(8) lists every metric family keld writes, read from the table keld writes them
# from, and no family keld does not write.
# Usage: metrics_listed.sh [SOURCE-DIR]
src=${1:-$(cd "$(dirname "$0")/../.." && pwd)}
fail=0
written=$(grep -oE '\{"kel_[a-z_]+", "(counter|gauge|histogram)"' "$src/cmd/keld/metrics.cc" |
	sed -E 's/\{"([a-z_]+)".*/\1/' | sort -u)
# Fewer would mean the table is written some other way now, which this must follow.
[ "$(wc -l <<<"$written")" -ge 20 ] || { echo "FAILED: cannot read the families from cmd/keld/metrics.cc"; exit 1; }
documented=$(sed -n '/^\.SH METRICS/,/^\.SH /p' "$src/docs/keld.8" | grep -oE '(\\fB|^\.B )kel_[a-z_]+' |
	sed -E 's/^(\\fB|\.B )//' | sort -u)
for name in $(comm -23 <(echo "$written") <(echo "$documented")); do
	echo "FAILED: keld(8) does not describe $name"
	fail=1
done
for name in $(comm -13 <(echo "$written") <(echo "$documented")); do
	echo "FAILED: keld(8) describes $name, which keld does not write"
	fail=1
done
[ $fail = 0 ] && echo "ok: keld(8) describes the $(wc -l <<<"$written") families keld writes"
exit $fail

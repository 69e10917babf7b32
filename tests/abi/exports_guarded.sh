#!/bin/sh
# No exception leaves an exported function: each is defined noexcept, and its body runs
# through a boundary helper (kel::c_boundary and its kin, or kel::audit::logged, which
# runs the body through c_boundary and records the change), or hands the call on whole to
# another export, or stands in plain_exports.txt, which says why it cannot throw.
# Usage: exports_guarded.sh SOURCE_ROOT PLAIN_LIST MAP...
set -eu
root=$1
plain=$2
shift 2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

sed -n '/global:/,/local:/p' "$@" | grep -E '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' | tr -d ' \t;' \
	| sort -u >"$tmp/exports"
cd "$root"
find base common platform -name '*.cc' | sort >"$tmp/sources"

# One line per exported definition found: NAME NOEXCEPT(yes|no) HOW(boundary|delegates|plain) FILE
xargs awk -v exports="$tmp/exports" '
	BEGIN { while ((getline n < exports) > 0) wanted[n] = 1 }
	FNR == 1 { state = 0 }
	state == 0 && /^[A-Za-z_]/ && !/;[[:space:]]*$/ {
		if (match($0, /[A-Za-z_][A-Za-z0-9_]*\(/)) {
			# The first name followed by "(" on a line that starts a declaration: the
			# function defined, unless it is the return type of a pointer to one.
			name = substr($0, RSTART, RLENGTH - 1)
			if (name in wanted) { state = 1; sig = ""; body = ""; file = FILENAME }
		}
	}
	state == 1 { sig = sig " " $0; if ($0 ~ /^\{/) { state = 2; next } }
	state == 2 {
		if ($0 ~ /^\}/) {
			noexc = sig ~ /noexcept/ ? "yes" : "no"
			how = "plain"
			if (body ~ /(_boundary[a-z_]*|audit::logged)(<[^>]*>)?\(/)
				how = "boundary"
			else {
				one = body; gsub(/[\t\n ]+/, " ", one)
				if (one ~ /^ ?return [A-Za-z_][A-Za-z0-9_]*\([^;]*\); ?$/) {
					callee = one; sub(/^ ?return /, "", callee); sub(/\(.*/, "", callee)
					if (callee in wanted) how = "delegates"
				}
			}
			print name, noexc, how, file
			state = 0
		} else
			body = body "\n" $0
	}
' <"$tmp/sources" | sort -u >"$tmp/found"

# The plain list: NAME or a shell pattern, then why.
grep -v '^[[:space:]]*\(#\|$\)' "$plain" | awk '{ print $1 }' >"$tmp/plain"
is_plain() {
	while read -r pattern; do
		# shellcheck disable=SC2254
		case $1 in $pattern) return 0 ;; esac
	done <"$tmp/plain"
	return 1
}

status=0
while read -r name; do
	line=$(awk -v n="$name" '$1 == n' "$tmp/found" | head -n 1)
	if [ -z "$line" ]; then
		is_plain "$name" || { echo "$name: no definition found, and not in the plain list"; status=1; }
		continue
	fi
	set -- $line
	if [ "$2" != yes ]; then
		echo "$name ($4): exported but not defined noexcept"
		status=1
	elif [ "$3" = plain ] && ! is_plain "$name"; then
		echo "$name ($4): neither goes through a boundary helper nor is in the plain list"
		status=1
	fi
done <"$tmp/exports"
# A stale entry hides nothing, but says something false.
while read -r pattern; do
	grep -q "^$(printf '%s' "$pattern" | sed 's/\*/.*/g')\$" "$tmp/exports" \
		|| { echo "plain list entry $pattern names no export"; status=1; }
done <"$tmp/plain"
[ $status -eq 0 ] && echo "every export guarded: $(wc -l <"$tmp/exports") symbols"
exit $status

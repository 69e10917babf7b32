#!/bin/sh
# The shared object exports exactly the symbols its version script lists, each under
# QARNprivate_1.1, and has its SONAME. Usage: exported_symbols.sh LIB.so LIB.map SONAME
set -eu
lib=$1
map=$2
soname=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Names listed under "global:" in the map.
sed -n '/global:/,/local:/p' "$map" | grep -E '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' \
	| tr -d ' \t;' | sort >"$tmp/wanted"
# Defined dynamic symbols with their versions, the version node itself left out.
nm -D --defined-only --with-symbol-versions "$lib" | awk '$2 != "A" { print $3 }' \
	| sort >"$tmp/exported"

status=0
if grep -v '@@QARNprivate_1.1$' "$tmp/exported" >"$tmp/unversioned"; then
	echo "exported without version QARNprivate_1.1:"; cat "$tmp/unversioned"; status=1
fi
sed 's/@.*//' "$tmp/exported" | sort >"$tmp/names"
if ! diff -u "$tmp/wanted" "$tmp/names"; then
	echo "exports differ from $map (- listed but missing, + exported but not listed)"
	status=1
fi
readelf -d "$lib" | grep SONAME | grep -qF "[$soname]" || { echo "SONAME is not $soname"; status=1; }
[ $status -eq 0 ] && echo "exports match $map: $(wc -l <"$tmp/wanted") symbols"
exit $status

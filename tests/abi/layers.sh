#!/bin/sh
# Calls run one way: down the layers. Each argument is a layer, bottom first, as
# NAME=OBJECT:OBJECT:...; a symbol an object needs may be defined in its own layer or
# in one under it, never in one above. Usage: layers.sh LAYER...
set -eu
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

: >"$tmp/below"
status=0
for layer in "$@"; do
	name=${layer%%=*}
	echo "${layer#*=}" | tr ':' '\n' | grep . >"$tmp/$name.objects"
	# What the layer defines, and what it needs from elsewhere.
	xargs nm --defined-only <"$tmp/$name.objects" | awk 'NF == 3 && $2 !~ /^[aNnU]$/ { print $3 }' \
		| sort -u >"$tmp/$name.defined"
	xargs nm --undefined-only <"$tmp/$name.objects" | awk '$1 == "U" { print $2 }' \
		| sort -u >"$tmp/$name.needed"
	echo "$name" >>"$tmp/order"
done

# A symbol counts as from above when a higher layer defines it and neither this layer nor
# one under it does (inline functions and templates are defined in every layer using them).
: >"$tmp/here_and_below"
for name in $(cat "$tmp/order"); do
	sort -u "$tmp/here_and_below" "$tmp/$name.defined" -o "$tmp/here_and_below"
	: >"$tmp/above"
	seen=no
	for upper in $(cat "$tmp/order"); do
		[ "$seen" = yes ] && cat "$tmp/$upper.defined" >>"$tmp/above"
		[ "$upper" = "$name" ] && seen=yes
	done
	sort -u "$tmp/above" -o "$tmp/above"
	comm -12 "$tmp/$name.needed" "$tmp/above" | comm -23 - "$tmp/here_and_below" >"$tmp/up"
	if [ -s "$tmp/up" ]; then
		echo "$name calls up the layers:"
		for sym in $(cat "$tmp/up"); do
			for upper in $(cat "$tmp/order"); do
				grep -qxF "$sym" "$tmp/$upper.defined" && echo "  $(echo "$sym" | c++filt) (in $upper)" && break
			done
		done
		status=1
	fi
done
[ $status -eq 0 ] && echo "calls run down: $(tr '\n' ' ' <"$tmp/order")"
exit $status

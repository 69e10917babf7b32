#!/bin/sh
# The programs are callers of the shared objects: each needs libkel.so.1 and carries none
# of the library's own code (a store call defined inside would mean it linked the
# objects statically). keld needs libkel_node.so.1 too; keladm needs neither it nor what
# only the node side uses, so that its commands start fast.
# Usage: links_shared.sh KELADM KELD
set -eu
keladm=$1
keld=$2
status=0
needs() { readelf -d "$1" | grep -q "NEEDED.*\[$2"; }
for prog in "$keladm" "$keld"; do
	name=$(basename "$prog")
	needs "$prog" 'libkel\.so\.1\]' || { echo "$name does not link libkel.so.1"; status=1; }
	for sym in kel_db_open kel_db_add_vport wexo_open; do
		if nm --defined-only "$prog" | grep -qw "$sym"; then
			echo "$name defines $sym itself"; status=1
		fi
	done
done
needs "$keld" 'libkel_node\.so\.1\]' || { echo "keld does not link libkel_node.so.1"; status=1; }
for lib in libkel_node libnl libnftables libxml2; do
	if needs "$keladm" "$lib"; then
		echo "keladm loads $lib at start"; status=1
	fi
done
[ $status -eq 0 ] && echo "keladm and keld link the shared objects, keladm nothing of the node side"
exit $status

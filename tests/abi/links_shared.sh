#!/bin/sh
# The programs are callers of the shared object: each needs libkel.so.1 and carries none
# of the library's own code (a store call defined inside would mean it linked the
# objects statically). Usage: links_shared.sh PROGRAM...
set -eu
status=0
for prog in "$@"; do
	name=$(basename "$prog")
	if ! readelf -d "$prog" | grep -q 'NEEDED.*\[libkel\.so\.1\]'; then
		echo "$name does not link libkel.so.1"; status=1
	fi
	for sym in kel_db_open kel_db_add_vport wexo_open; do
		if nm --defined-only "$prog" | grep -qw "$sym"; then
			echo "$name defines $sym itself"; status=1
		fi
	done
done
[ $status -eq 0 ] && echo "each links libkel.so.1 and defines none of its calls"
exit $status

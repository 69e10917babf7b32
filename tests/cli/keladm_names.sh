#!/bin/bash
# Caller texts never widen a filter: every command given a tenant or name that is not
# one name (a list, an extra key, an empty name) refuses it and leaves the store as it
# was, although another tenant has objects of the same names.
. "$(dirname "$0")/lib.sh" "$1"
make_store
for t in sys-global acme; do
	net=10.0.0.0/24
	[ $t = acme ] && net=10.1.0.0/24
	"$keladm" create-kel -T $t db >/dev/null || exit 1
	"$keladm" add-ipnet -T $t -p subnet=$net db/n >/dev/null || exit 1
	"$keladm" add-vport -T $t db/p >/dev/null || exit 1
done
dump() { sqlite3 "$root/etc/kel/kel.db" .dump; }
before=$(dump)

for bad in 'nosuch,acme' 'sys-global,acme' 'nosuch,kel=db' 'a=b' '%'; do
	for args in "delete-kel -T $bad db" "set-kelprop -T $bad -p maxbw=5M db" \
		"set-vportprop -T $bad -p maxbw=5M db/p" "set-ipnetprop -T $bad -p pool=10.1.0.9 db/n" \
		"remove-vport -T $bad -f db/p" "reset-vport -T $bad -f db/p" "remove-ipnet -T $bad db/n" \
		"add-vport -T $bad db/q" "add-ipnet -T $bad -p subnet=10.9.0.0/24 db/m" \
		"create-kel -T $bad web" "show-kel -T $bad" "show-ipnet -T $bad" "show-vport -T $bad" \
		"show-kelprop -T $bad" "show-vportprop -T $bad" "show-ipnetprop -T $bad" \
		"delete-kel $bad" "set-kelprop -p maxbw=5M $bad" "show-kel $bad" "show-kel db $bad" \
		"show-vport $bad" "show-vport db/$bad" "remove-vport -f db/$bad" "set-vportprop -p cos=1 db/$bad" \
		"show-kelprop $bad" "show-ipnetprop db/$bad" "remove-ipnet db/$bad"; do
		# Word splitting is wanted: none of these texts holds a blank.
		# shellcheck disable=SC2086
		out=$("$keladm" $args 2>&1)
		rc=$?
		if [ $rc -eq 0 ] || [ "$(dump)" != "$before" ] || [[ $out == *acme* && $bad != *acme* ]]; then
			echo "FAILED: keladm $args (status $rc): $out"
			fail=1
		fi
	done
done
check "the store is as it was" test "$(dump)" = "$before"
expect "a tenant list is a usage error" \
	"keladm: 'nosuch,acme' is not a tenant name
usage: keladm delete-kel [-T tenant] [--if-exists] NAME" delete-kel -T nosuch,acme db
exit $fail

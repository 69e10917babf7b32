#!/bin/bash
# The store's owner and group are the user and group the sysusers rule names, and every
# write keeps them. Usage: store_owner.sh KELADM SYSUSERS-FILE
. "$(dirname "$0")/lib.sh" "$1"
rules=$(realpath "$2")
command -v systemd-sysusers >/dev/null || { echo "skipped: no systemd-sysusers here"; exit 77; }
make_store
db=$root/etc/kel/kel.db
"$keladm" set-controlprop uplink-port=net0 >/dev/null
"$keladm" create-kel -p l2-type=flat web >/dev/null
"$keladm" add-ipnet -p subnet=10.0.0.0/24 web/n >/dev/null
"$keladm" add-vport web/p >/dev/null
"$keladm" upgrade-store >/dev/null
"$keladm" check-store --repair >/dev/null
check "the store keeps the owner and group it was made with" \
	test "$(stat -c %u:%g "$db")" = "$(stat -c %u:%g "$root/etc/kel/kel.lock")"

# The rule applied to an empty system: the user and group it makes own the store.
sys=$root/sys
mkdir -p "$sys/etc"
systemd-sysusers --root="$sys" "$rules" 2>/dev/null
check "the rule names the store's owner" \
	test "$(awk -F: '$1 == "kel" { print $3 }' "$sys/etc/passwd")" = "$(stat -c %u "$db")"
check "and its group, the group keld admits" \
	test "$(awk -F: '$1 == "kel" { print $3 }' "$sys/etc/group")" = "$(stat -c %g "$db")"
exit $fail

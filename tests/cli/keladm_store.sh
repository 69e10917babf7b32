#!/bin/bash
# keladm create-store and help, as an operator uses them. Usage: keladm_store.sh KELADM
. "$(dirname "$0")/lib.sh" "$1"

expect "create-store without /etc/kel says why, and names it" \
	"keladm: cannot create the configuration store: system error: No such file or directory
keladm: $root/etc/kel does not exist: make it first (mkdir -p $root/etc/kel)" \
	create-store
status "and fails with status 1" 1 create-store

mkdir -p "$root/etc/kel"
expect "a command without a store says where it looked" \
	"keladm: no configuration store at $root/etc/kel/kel.db: this host is not the controller, or keladm create-store has not made it yet" \
	show-kel
check "create-store succeeds" "$keladm" create-store
check "store files exist" test -f "$root/etc/kel/kel.db" -a -f "$root/etc/kel/kel.lock"
check "create-store again leaves the store alone" "$keladm" create-store
# A store kept in a database that does not answer is reported so, and the file serves
# again once the setting is gone.
check "set-store names a database" "$keladm" set-store "host=$root/no-server dbname=kel connect_timeout=2"
expect "which is what commands then open" \
	"keladm: cannot open the configuration store in the database keladm set-store named: error while handling SQL: unable to open database file" show-kel
check "set-store without one goes back to the file" "$keladm" set-store
check "and the file's store serves again" "$keladm" show-kel
status "two operands are a usage error" 2 set-store a b
expect "copy-store from where no store is says so" \
	"keladm: cannot copy the configuration store: there is no store at the source: object not found" \
	copy-store "host=$root/no-server dbname=kel connect_timeout=2" file
status "copy-store of a store onto itself is a usage error" 2 copy-store file file
status "copy-store wants two operands" 2 copy-store file
status "an operand is a usage error (status 2)" 2 create-store extra
status "an unknown subcommand is a usage error" 2 no-such-thing
check "help lists every subcommand" bash -c \
	"[ \$('$keladm' help | grep -cE '^  (create-store|create-kel|delete-kel|show-kel|add-ipnet|remove-ipnet|show-ipnet|set-clientprop|show-clientprop|set-controlprop|show-controlprop|upgrade-store) ') -eq 12 ]"
check "help for one subcommand" bash -c "'$keladm' help create-store | grep -q '^usage: keladm create-store'"

# A user who may not open the store is told so, with the store's path.
chmod 755 "$root"
got=$(setpriv --reuid=65534 --regid=65534 --clear-groups "$keladm" show-kel 2>&1)
check "a user who may not is told so" test "$got" = \
	"keladm: cannot open the configuration store $root/etc/kel/kel.db: permission denied: run keladm as root"

# check-store: silent on a sound store, names each problem, repairs what leaked.
"$keladm" set-controlprop vlan-range=100-109 >/dev/null
"$keladm" create-kel web >/dev/null
expect "a sound store" "" check-store
db=$root/etc/kel/kel.db
sqlite3 "$db" "UPDATE ctrl_tbl SET ctrl_pval = '104-109' WHERE ctrl_pname = 'vlan-range-avail'"
expect "leaked IDs are found" "vlan-range: VLAN IDs neither free nor held by a kel: 101-103" check-store
status "which fails with status 1" 1 check-store
expect "and repaired" "repaired: vlan-range: VLAN IDs neither free nor held by a kel: 101-103" \
	check-store --repair
expect "the store is sound again" "" check-store
sqlite3 "$db" "INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) VALUES ('u', 'x', 'acme', 'l2-type=vlan,vlanid=100')"
expect "what needs an operator stays" \
	"not repaired: vlan-range: VLAN IDs 100 held by more than one kel: sys-global/web, acme/x" \
	check-store --repair
status "and fails the repair" 1 check-store --repair
status "another operand is a usage error" 2 check-store --fix

# A store that may not be written is refused by name to every command that would change
# it, and left exactly as it is; commands that only read still read it.
refused() {
	local what=$1 why=$2
	cp "$db" "$root/before.db"
	expect "$what is refused to writers" \
		"keladm: cannot open the configuration store $db: it $why" create-kel db
	status "which fails with status 1" 1 create-kel db
	status "check-store --repair too" 1 check-store --repair
	check "and it is left as it was" cmp -s "$db" "$root/before.db"
}
sqlite3 "$db" "UPDATE misc_tbl SET misc_value = '99' WHERE misc_name = 'db-version'"
refused "a newer store" \
	"holds a newer schema than this keladm writes (DB version is greater than the library version)"
expect "show-kel still reads it" "web" show-kel -p -o name web
sqlite3 "$db" "DELETE FROM misc_tbl WHERE misc_name = 'db-version'"
damaged="is damaged, or is not a configuration store (error while handling SQL: database disk image is malformed)"
refused "a store without a version" "$damaged"
sqlite3 "$db" "INSERT INTO misc_tbl (misc_name, misc_value) VALUES ('db-version', '3')"
status "with its version back it is written again" 0 create-kel --may-exist db
# Bytes overwritten in a page that creating a kel would not read.
page=$(sqlite3 "$db" "SELECT rootpage FROM sqlite_master WHERE name = 'vport_mackey_idx'")
size=$(sqlite3 "$db" "PRAGMA page_size")
printf '\377%.0s' $(seq 16) | dd of="$db" bs=1 seek=$(((page - 1) * size)) conv=notrunc 2>/dev/null
refused "a store with bytes overwritten" "$damaged"
exit $fail

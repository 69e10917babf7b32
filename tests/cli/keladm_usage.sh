#!/bin/bash
# keladm as people who script other network tools expect it: help for every subcommand,
# options anywhere, typed JSON, what was made echoed, idempotent create and delete.
. "$(dirname "$0")/lib.sh" "$1"
make_store

# has TEXT PATTERN: TEXT holds a line matching the extended regular expression PATTERN.
has() { grep -qE -- "$2" <<<"$1"; }

check "keladm --version" bash -c "'$keladm' --version | grep -qxE 'keladm [0-9]+\.[0-9]+\.[0-9]+'"
check "keladm -V is --version" bash -c "[ \"\$('$keladm' -V)\" = \"\$('$keladm' --version)\" ]"

# Help: the same text both ways, with every section a reader looks for, and the fields it
# names are the ones the command itself accepts.
subcommands=$("$keladm" help | sed -nE 's/^  ([a-z-]+) .*/\1/p')
check "the overview lists the subcommands" test "$(wc -l <<<"$subcommands")" -ge 28
for cmd in $subcommands; do
	text=$("$keladm" help "$cmd")
	if [ "$text" != "$("$keladm" "$cmd" --help)" ] || ! has "$text" "^usage: keladm $cmd" ||
		! has "$text" '^options:' || ! has "$text" '^  --help ' || ! has "$text" '^example:'; then
		echo "FAILED: help for $cmd"
		fail=1
	fi
	fields=$(sed -n 's/^fields (-o): //p' <<<"$text")
	[ -z "$fields" ] && continue
	known=$("$keladm" "$cmd" -o nosuch 2>&1 | sed -n 's/.*fields are: //p')
	[ "$fields" = "$known" ] || { echo "FAILED: $cmd's help names fields '$fields', it takes '$known'"; fail=1; }
done
status "help for an unknown subcommand" 2 help nosuch

# Every property a set-*prop may change is in its help (the catalogue and the help text
# must not drift apart), and so is every controller property.
"$keladm" create-kel -p l2-type=flat web >/dev/null
"$keladm" add-ipnet -p subnet=10.1.0.0/24 web/n >/dev/null
"$keladm" add-vport -p macaddr=aa:0:0:0:0:1 web/p1 >/dev/null
for kind in kel vport ipnet; do
	object=web
	[ $kind = vport ] && object=web/p1
	[ $kind = ipnet ] && object=web/n
	text=$("$keladm" help "set-${kind}prop")
	for p in $("$keladm" "show-${kind}prop" -p -o property,permission "$object" | sed -n 's/:rw$//p'); do
		has "$text" "^  $p=" || { echo "FAILED: set-${kind}prop's help leaves out $p"; fail=1; }
	done
done
text=$("$keladm" help set-controlprop)
for p in $("$keladm" show-controlprop -p -o property,permission | sed -n 's/:rw$//p' | sort -u); do
	has "$text" "^  $p[= ]" || { echo "FAILED: set-controlprop's help leaves out $p"; fail=1; }
done

# Options may follow operands; a word that begins with '-' is an option, never a name,
# unless it follows "--".
expect "options after the operand" '[{"name": "p1"}]' show-vport web/p1 --json -o name
expect "an unknown option is refused" "keladm: unknown option -x
usage: keladm create-kel [-T tenant] [-p prop=value,...] [--may-exist] [NAME]" create-kel -x
expect "and no kel came of it" "web" show-kel -p -o name
status "an unknown long option too" 2 delete-kel --force web
expect "after --, a name" "keladm: cannot list kels: kel not found" show-kel -- -web

# Two ways to print at once are refused, not resolved.
expect "-p and --json" "keladm: choose one of -p and --json
usage: keladm show-kel [-T tenant] [-o field,...] [-p | --json] [NAME...]" show-kel -p --json
status "--parseable and --json on an add" 2 add-vport --parseable --json web/p9
status "which added nothing" 1 show-vport web/p9

# Typed JSON: numbers, lists, flags and absent values.
"$keladm" create-kel -p l2-type=vxlan db >/dev/null
"$keladm" set-controlprop uplink-port=net0,flat=yes >/dev/null
"$keladm" set-controlprop -h host-b uplink-port=net1,flat=no >/dev/null
expect "an ID is a number, none is null, ports a list" \
	'[{"name": "web", "id": null, "vports": ["p1"]}, {"name": "db", "id": 5000, "vports": []}]' \
	show-kel --json -o name,id,vports
expect "whether an uplink carries flat kels is true or false" \
	'[{"host": null, "flat": true}, {"host": "host-b", "flat": false}]' show-controlprop --json -o host,flat uplink-port
expect "possible values are a list" '[{"possible": ["low", "medium", "high"]}]' \
	show-kelprop --json -o possible -P priority web
# Bytes that are not UTF-8 (the store holds whatever was written to it) still give valid
# UTF-8: each such byte becomes U+FFFD, and well-formed characters pass as they are.
db=$root/etc/kel/kel.db
props=$(sqlite3 "$db" "SELECT vport_props FROM vport_tbl WHERE vport_name = 'p1'")
sqlite3 "$db" "UPDATE vport_tbl SET vport_props = 'ipaddr=' || CAST(X'31FF32C3A9C0AF' AS TEXT) WHERE vport_name = 'p1'"
json=$("$keladm" show-vport --json -o ipaddr web/p1)
check "JSON is valid UTF-8 whatever the store holds" bash -c "iconv -f UTF-8 -t UTF-8 <<<'$json' >/dev/null"
check "bad bytes become U+FFFD" test "$json" = '[{"ipaddr": "1\ufffd2é\ufffd\ufffd"}]'
sqlite3 "$db" "UPDATE vport_tbl SET vport_props = 'ipaddr=' || CAST(X'311B5B326A0A32' AS TEXT) WHERE vport_name = 'p1'"
expect "control characters never reach a terminal" "1?[2j?2" show-vport -p -o ipaddr web/p1
expect "and are escaped in JSON" '[{"ipaddr": "1\u001b[2j\u000a2"}]' show-vport --json -o ipaddr web/p1
sqlite3 "$db" "UPDATE vport_tbl SET vport_props = '$props' WHERE vport_name = 'p1'"

# -p escapes ':' only where it separates fields.
expect "one field as it is" "aa:0:0:0:0:1" show-vport -p -o macaddr web/p1
expect "two fields escaped" 'p1:aa\:0\:0\:0\:0\:1' show-vport -p -o name,macaddr web/p1

# Create and add echo what they assigned, in the fields of the matching listing.
expect "add-vport --parseable" '10.1.0.3/24:aa\:0\:0\:0\:0\:5' \
	add-vport --parseable -o ipaddr,macaddr -p macaddr=aa:0:0:0:0:5 web/p2
expect "create-kel --json" '[{"name": "app", "l2type": "vxlan", "id": 5001}]' \
	create-kel --json -o name,l2type,id -p l2-type=vxlan app
expect "add-ipnet -o, as a table" "NAME  SUBNET       AVAILABLE
m     10.2.0.0/24  10.2.0.2-10.2.0.254" add-ipnet -o name,subnet,available -p subnet=10.2.0.0/24 app/m
expect "a plain add still says it in words" "added vport app/q (10.2.0.2/24, aa:0:0:0:0:7)" \
	add-vport -p macaddr=aa:0:0:0:0:7 app/q

# --may-exist: the one there is success, echoed as it is, and nothing more is drawn.
avail=$("$keladm" show-ipnet -p -o available web/n)
expect "add-vport --may-exist" "10.1.0.3/24" add-vport --may-exist --parseable -o ipaddr web/p2
check "drew nothing" test "$("$keladm" show-ipnet -p -o available web/n)" = "$avail"
expect "create-kel --may-exist" '[{"name": "db", "id": 5000}]' create-kel --may-exist --json -o name,id db
check "add-ipnet --may-exist" "$keladm" add-ipnet --may-exist -p subnet=10.1.0.0/24 web/n
expect "silent without an echo" "" create-kel --may-exist db
expect "without it, an error" "keladm: cannot create kel 'db': object already exists
keladm: tenant sys-global has kel 'db' already (vxlan 5000)" create-kel db
expect "--may-exist forgives nothing else" "keladm: cannot add vport 'web/p3': MAC address in use
keladm: MAC address aa:0:0:0:0:1 is in use by vport web/p1 (tenant sys-global)" \
	add-vport --may-exist -p macaddr=aa:0:0:0:0:1 web/p3

# --if-exists: no such object is success; an object that cannot go still fails.
for args in "delete-kel nosuch" "remove-vport web/nosuch" "remove-vport nosuch/p" "remove-ipnet db/nosuch"; do
	# shellcheck disable=SC2086
	expect "--if-exists: $args" "" $args --if-exists
	# shellcheck disable=SC2086
	status "without it: $args" 1 $args
done
sqlite3 "$db" \
	"UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h1', vport_vnicname = 'vn0' WHERE vport_name = 'p1'"
status "a bound port stays" 1 remove-vport --if-exists web/p1
status "--if-exists is for delete and remove" 2 reset-vport --if-exists web/p1
exit $fail

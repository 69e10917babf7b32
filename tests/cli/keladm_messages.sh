#!/bin/bash
# What keladm says when it refuses: the form a value takes, the nearest word to a slip,
# and what is in the way, named with its tenant.
. "$(dirname "$0")/lib.sh" "$1"

# wants DESCRIPTION LINE KELADM-ARGS...: the command fails and LINE is one line of what
# it says.
wants() {
	local what=$1 line=$2; shift 2
	local got
	if got=$("$keladm" "$@" 2>&1); then
		echo "FAILED: $what (it succeeded)"; fail=1
	elif grep -qxF -- "$line" <<<"$got"; then
		echo "ok: $what"
	else
		printf 'FAILED: %s\n--- wanted the line\n%s\n--- got\n%s\n' "$what" "$line" "$got"; fail=1
	fi
}

make_store
"$keladm" create-kel web >/dev/null
"$keladm" create-kel -T acme db >/dev/null
"$keladm" create-kel bare >/dev/null
"$keladm" add-ipnet -p subnet=10.1.0.0/24 web/front >/dev/null
"$keladm" add-vport -p macaddr=2:8:20:1:2:3 web/vm1 >/dev/null

form='invalid maxbw: expected a number with an optional K, M or G, e.g. 10M'
for bw in '10 M' 10MB 10Mbit; do
	wants "maxbw=$bw: the form a bandwidth takes" "keladm: cannot set 'maxbw=$bw' on vport 'web/vm1': $form" \
		set-vportprop -p "maxbw=$bw" web/vm1
done
wants "a misspelt protection: the valid words" \
	"keladm: cannot set 'protection=mac-nospof' on vport 'web/vm1': invalid protection: expected mac-nospoof, ip-nospoof, dhcp-nospoof or restricted (several joined by ','), or none" \
	set-vportprop -p protection=mac-nospof web/vm1
wants "host bits set: the network it would be" "keladm: 10.2.0.5/24 has host bits set: its network is 10.2.0.0/24" \
	add-ipnet -p subnet=10.2.0.5/24 bare/net

# Several properties are set in turn; a refused one says what was set and what was not.
check "set-vportprop takes several properties" "$keladm" set-vportprop -p maxbw=10M,protection=mac-nospoof,ip-nospoof,cos=3 web/vm1
expect "each was set" "$(printf 'mac-nospoof,ip-nospoof\n10M\n3')" \
	show-vportprop -p -o value -P cos,maxbw,protection web/vm1
wants "the first refused stops the rest" "keladm: set before it: maxbw=20M; not tried: priority=high" \
	set-vportprop -p maxbw=20M,cos=9,priority=high web/vm1
expect "and what was not tried is as before" "" show-vportprop -p -o value -P priority web/vm1

wants "a mistyped subcommand: the nearest" "keladm: unknown subcommand 'creat-kel': did you mean 'create-kel'?" creat-kel x
wants "a mistyped property: the nearest" \
	"keladm: set-vportprop takes no property 'maxbx': did you mean 'maxbw'? (keladm help set-vportprop lists them)" \
	set-vportprop -p maxbx=1 web/vm1

wants "a port taken: the port there" \
	"keladm: vport web/vm1 (tenant sys-global) is there already (10.1.0.2/24, 2:8:20:1:2:3)" add-vport web/vm1
wants "an address in use: its port" "keladm: address 10.1.0.2 is in use by vport web/vm1 (tenant sys-global)" \
	add-vport -p ipaddr=10.1.0.2 web/vm2
wants "an ipnet in use: its ports" "keladm: kel 'web' still has vports: vm1 (keladm remove-vport web/NAME)" \
	remove-ipnet web/front
wants "ranges beside an uplink are its share: set the fabric's first" \
	"keladm: beside uplink-port, vlan-range and vxlan-range are the IDs that uplink carries, taken from the fabric's ranges; set those first, one a command (keladm set-controlprop vlan-range=RANGE)" \
	set-controlprop vlan-range=200-300,uplink-port=eth0
for cmd in show-kel show-vport show-ipnet "delete-kel web"; do
	wants "$cmd -T nosuch: no such tenant" \
		"keladm: there is no tenant 'nosuch': no kel is in it (keladm show-kel -T all -o name,tenant)" $cmd -T nosuch
done
status "an empty listing of a tenant that has kels is no error" 0 show-vport -T acme

# A directory the user cannot enter hides the store: that is a permission, not a store
# that is not there.
if command -v setpriv >/dev/null && [ "$(id -u)" = 0 ]; then
	chmod 700 "$root/etc/kel"
	got=$(setpriv --reuid=65534 --regid=65534 --clear-groups "$keladm" show-kel 2>&1)
	chmod 755 "$root/etc/kel"
	check "a store out of reach is a permission denied" \
		grep -qF "keladm: cannot open the configuration store $root/etc/kel/kel.db: permission denied" <<<"$got"
fi
exit $fail

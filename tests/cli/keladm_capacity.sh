#!/bin/bash
# show-usage: exact counts of what is used and free, from ranges with holes, hosts' shares
# and pools of IPv4 and IPv6, counted on their intervals (a /8 pool and every VNI cost
# nothing more), flagged above a threshold.
. "$(dirname "$0")/lib.sh" "$1"
mkdir -p "$root/etc/kel"
"$keladm" create-store
"$keladm" set-controlprop vlan-range=100-109,200-209 >/dev/null
"$keladm" set-controlprop vxlan-range=0-16777215 >/dev/null
"$keladm" set-controlprop -h ha uplink-port=eth1,vlan-range=100-104 >/dev/null 2>&1
"$keladm" set-controlprop -h ha uplink-port=eth2,vlan-range=105-109,200-209 >/dev/null 2>&1
"$keladm" set-controlprop uplink-port=eth0 >/dev/null
for k in k1 k2 k3; do "$keladm" create-kel $k >/dev/null; done	# VLAN IDs 100, 101, 102
"$keladm" create-kel -p vlanid=205 k4 >/dev/null
"$keladm" delete-kel k2	# a hole: 101 is free again
"$keladm" create-kel -p l2-type=vxlan x1 >/dev/null
"$keladm" create-kel -p l2-type=flat f >/dev/null
"$keladm" add-ipnet -p subnet=10.0.0.0/8 f/big >/dev/null
"$keladm" add-vport f/a >/dev/null
"$keladm" add-vport -p ipaddr=10.0.0.9 f/b >/dev/null
"$keladm" create-kel -T acme -p l2-type=flat g >/dev/null
"$keladm" add-ipnet -T acme -p subnet=fd00::/64,pool=fd00::10-fd00::1f,fd00::30 g/v6 >/dev/null
for p in p1 p2 p3; do "$keladm" add-vport -T acme g/$p >/dev/null; done
"$keladm" create-kel -T acme -p l2-type=flat h >/dev/null
"$keladm" add-ipnet -T acme -p subnet=fd01::/64 h/w6 >/dev/null
"$keladm" add-vport -T acme h/q >/dev/null

# same DESCRIPTION WANTED TEXT: TEXT must be WANTED.
same() {
	if [ "$3" = "$2" ]; then echo "ok: $1"; else printf 'FAILED: %s\n--- wanted\n%s\n--- got\n%s\n' "$1" "$2" "$3"; fail=1; fi
}
# usage ARGS...: show-usage's parseable lines with ':' unescaped, for reading.
usage() { "$keladm" show-usage -p "$@" | sed 's/\\:/:/g'; }

same "every range, share and pool, exactly" \
	"vlan-range::100-109,200-209:20:3:17:15.0:no
vlan-range:host ha uplink-port eth1:100-104:5:2:3:40.0:no
vlan-range:host ha uplink-port eth2:105-109,200-209:15:1:14:6.7:no
vxlan-range::0-16777215:16777216:1:16777215:0.0:no
pool:sys-global/f/big:10.0.0.2-10.255.255.254:16777213:2:16777211:0.0:no
pool:acme/g/v6:fd00::10-fd00::1f,fd00::30:17:3:14:17.6:no
pool:acme/h/w6:fd01::2-fd01::ffff:ffff:ffff:ffff:18446744073709551614:1:18446744073709551613:0.0:no" \
	"$(usage -T all)"
same "one tenant's pools" "acme/g/v6
acme/h/w6" "$(usage -T acme -o resource,owner | sed -n 's/^pool://p')"
same "flagged from the threshold given" "host ha uplink-port eth1:yes
acme/g/v6:no" "$(usage -T all -o owner,high --threshold 17.7 | grep -E 'eth1|g/v6')"
same "as JSON, numbers beyond 64 bits stay exact" \
	'{"owner": "acme/h/w6", "total": 18446744073709551614, "percent": 0.0, "high": false}]' \
	"$("$keladm" show-usage -T acme --json -o owner,total,percent,high | sed 's/}, {/}\n{/g' | grep w6)"
"$keladm" set-ipnetprop -T acme -p pool= g/v6
same "an empty pool is the span but the router" "acme/g/v6:fd00::2-fd00::ffff:ffff:ffff:ffff:18446744073709551614:3" \
	"$(usage -T acme -o owner,range,total,used | grep g/v6)"
status "a threshold that is no percentage" 2 show-usage --threshold 120
exit $fail

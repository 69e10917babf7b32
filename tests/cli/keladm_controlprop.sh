#!/bin/bash
# Controller properties from the command line: set-controlprop, show-controlprop, and
# upgrade-store.
. "$(dirname "$0")/lib.sh" "$1"
make_store
"$keladm" create-kel web >/dev/null

expect "ranges and what is left of them" "vlan-range:100-102
vlan-range-avail:101-102" show-controlprop -p -o property,value vlan-range,vlan-range-avail
"$keladm" create-kel -T acme -p vlanid=102 app >/dev/null
"$keladm" create-kel -p l2-type=vxlan db >/dev/null
expect "a range must keep the IDs in use, and says which" \
	"keladm: cannot set 'vlan-range=101-102': range doesn't contain all allocated resource
keladm: VLAN IDs in use outside 101-102: 100 (kel sys-global/web)" \
	set-controlprop vlan-range=101-102
expect "in every tenant" \
	"keladm: cannot set 'vlan-range=101,103-110': range doesn't contain all allocated resource
keladm: VLAN IDs in use outside 101,103-110: 100 (kel sys-global/web), 102 (kel acme/app)" \
	set-controlprop vlan-range=101,103-110
expect "VNIs too" \
	"keladm: cannot set 'vxlan-range=5001-5999': range doesn't contain all allocated resource
keladm: VNIs in use outside 5001-5999: 5000 (kel sys-global/db)" \
	set-controlprop vxlan-range=5001-5999
"$keladm" delete-kel -T acme app
"$keladm" delete-kel db
check "widening it" "$keladm" set-controlprop vlan-range=100-110
expect "avail follows" "101-110" show-controlprop -p -o value vlan-range-avail
expect "read-only properties" "keladm: cannot set 'vlan-range-avail=1': property is read-only" \
	set-controlprop vlan-range-avail=1
expect "fabric-wide properties have no host rows" \
	"keladm: cannot set 'l2-type=flat' for host-a: invalid controller property specified" \
	set-controlprop -h host-a l2-type=flat
check "a host's uplink with part of the range" "$keladm" set-controlprop -h host-a uplink-port=eth1,vlan-range=100-105
expect "a second port whose share overlaps" \
	"keladm: cannot set 'uplink-port=eth2,vlan-range=105-110' for host-a: provided value range overlaps with existing set of ranges" \
	set-controlprop -h host-a uplink-port=eth2,vlan-range=105-110
expect "a share that leaves part uncovered warns, and is stored" \
	"keladm: warning: set 'uplink-port=eth2,vlan-range=106-108' for host-a: provided value range is a subset of the complete range. Ensure to provide the remaining value range on a different uplink-port or vxlan-addr" \
	set-controlprop -h host-a uplink-port=eth2,vlan-range=106-108
expect "the host's ports" "PROPERTY     VALUE  VLAN-RANGE
uplink-port  eth1   100-105
uplink-port  eth2   106-108" show-controlprop -h host-a -o property,value,vlan-range
expect "range changes with host shares warn" \
	"keladm: warning: set 'vlan-range=100-120': you may have to manually update the v(x)lan-range of uplink-port or vxlan-addr" \
	set-controlprop vlan-range=100-120
expect "multicast group out of range" \
	"keladm: cannot set 'vxlan-mgroup=240.0.0.1': invalid multicast group address" \
	set-controlprop vxlan-mgroup=240.0.0.1
check "a URI template for one host" "$keladm" set-controlprop -h host-b uri-template=ssh://ops@
expect "a template names no host" \
	"keladm: cannot set 'uri-template=ssh://ctl': invalid host URI template specified (should be of the form unix://[username@] or ssh://[username@])" \
	set-controlprop uri-template=ssh://ctl
check "resetting a property" "$keladm" set-controlprop l2-type=
expect "is back at its default" "l2-type:vlan:vlan" show-controlprop -p -o property,value,default l2-type
check "create-store gave the controller an identity" bash -c \
	"'$keladm' show-controlprop -p -o property,permission,value uuid | grep -qE '^uuid:r-:[0-9a-f-]{36}$'"
uuid=$("$keladm" show-controlprop -p -o value uuid)
"$keladm" create-store
expect "which a second create-store keeps" "$uuid" show-controlprop -p -o value uuid
check "the full listing ends with it" bash -c "'$keladm' show-controlprop -p -o property | tail -1 | grep -qx uuid"
expect "an unknown name" "keladm: cannot list controller properties: invalid controller property specified" \
	show-controlprop colour

check "upgrade-store on a current store changes nothing" "$keladm" upgrade-store
sqlite3 "$root/etc/kel/kel.db" "UPDATE misc_tbl SET misc_value = '4'"
expect "a newer store is refused, by name" \
	"keladm: cannot upgrade the configuration store: DB version is greater than the library version
keladm: the configuration store $root/etc/kel/kel.db holds a newer schema than this keladm writes" upgrade-store
exit $fail

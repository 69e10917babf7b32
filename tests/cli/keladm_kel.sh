#!/bin/bash
# Switches from the command line: create-kel, show-kel, delete-kel.
. "$(dirname "$0")/lib.sh" "$1"
make_store

expect "a VLAN kel takes the lowest free ID" "created kel web (vlan 100)" create-kel web
expect "a VXLAN kel takes a VNI" "created kel db (vxlan 5000)" create-kel -p l2-type=vxlan db
expect "a flat kel of another tenant" "created kel lan-1 (flat --)" create-kel -T acme -p l2-type=flat lan-1
expect "a requested VLAN ID" "created kel app (vlan 102)" create-kel -p vlanid=102 app
expect "a taken VLAN ID is refused" \
	"keladm: cannot create kel 'x': VLAN ID is not available" create-kel -p vlanid=102 x
expect "a duplicate name is refused, naming the kel there" "keladm: cannot create kel 'web': object already exists
keladm: tenant sys-global has kel 'web' already (vlan 100)" create-kel web
expect "a bad property is refused, and named" "keladm: cannot create kel 'x': invalid property specified
keladm: create-kel takes no property 'cos' (keladm help create-kel lists them)" create-kel -p cos=1 x
expect "show-kel -p with chosen fields" "web:vlan:100:idle
db:vxlan:5000:idle
app:vlan:102:idle" show-kel -p -o name,l2type,id,status
expect "another tenant's kels" "NAME   L2TYPE  ID
lan-1  flat    --" show-kel -T acme -o name,l2type,id
expect "one kel as JSON, its ID a number" '[{"name": "db", "id": 5000}]' show-kel --json -o name,id db
expect "an unknown field" "keladm: unknown field 'colour'; fields are: name tenant l2type id status uuid vports" \
	show-kel -o colour
status "which is a usage error" 2 show-kel -o colour

check "delete-kel" "$keladm" delete-kel web
expect "the freed ID is drawn again" "created kel web2 (vlan 100)" create-kel web2
expect "the last free ID" "created kel more (vlan 101)" create-kel more
expect "VLAN IDs run out" "keladm: cannot create kel 'most': no available VLAN ID" create-kel most
expect "deleting a missing kel" "keladm: cannot delete kel 'web': kel not found" delete-kel web
status "fails with status 1" 1 delete-kel web
status "delete-kel needs a name" 2 delete-kel
expect "showing a missing kel" "keladm: cannot list kels: kel not found" show-kel nosuch
exit $fail

#!/bin/bash
# Object properties from the command line: set-*prop and show-*prop.
. "$(dirname "$0")/lib.sh" "$1"
make_store
"$keladm" create-kel -p l2-type=flat,maxbw=100M web >/dev/null
"$keladm" create-kel -T acme -p l2-type=flat web >/dev/null
"$keladm" add-ipnet -p subnet=10.1.0.0/24,pool=10.1.0.10-10.1.0.20 web/n >/dev/null
"$keladm" add-vport -p cos=3 web/p1 >/dev/null
"$keladm" add-vport web/p2 >/dev/null

expect "every visible switch property, parseable" "web:protection:rw::mac-nospoof,ip-nospoof
web:maxbw:rw:100M:
web:priority:rw::medium
web:l2-type:r-:flat:
web:vlanid:r-::
web:vni:r-::" \
	show-kelprop -p -o kel,property,permission,value,default -P vni,vlanid,l2-type,priority,maxbw,protection web
check "the tenant's own switch" bash -c "'$keladm' show-kelprop -T acme -p -o value -P tenant web | grep -qx acme"
expect "named properties of every port" "VPORT   PROPERTY  VALUE
web/p1  cos       3
web/p2  cos" \
	show-vportprop -o vport,property,value -P cos
check "set-vportprop" "$keladm" set-vportprop -p priority=high web/p2
expect "the new value" '[{"vport": "web/p2", "value": "high"}]' show-vportprop --json -o vport,value -P priority web/p2
check "clearing it" "$keladm" set-vportprop -p priority= web/p2
expect "no value" "web/p2:" show-vportprop -p -o vport,value -P priority web/p2
expect "a read-only property" "keladm: cannot set 'vlanid=5' on kel 'web': property is read-only" \
	set-kelprop -p vlanid=5 web
status "-p is required" 2 set-kelprop web
status "a port is KEL/VPORT" 2 set-vportprop -p cos=1 p1

# p1 and p2 hold .10 and .11: a pool without them is refused, one with them is taken.
expect "a pool that drops addresses in use, and which" \
	"keladm: cannot set 'pool=10.1.0.12-10.1.0.30' on ipnet 'web/n': range doesn't contain all allocated resource
keladm: addresses in use outside 10.1.0.12-10.1.0.30: 10.1.0.10 (vport p1), 10.1.0.11 (vport p2)" \
	set-ipnetprop -p pool=10.1.0.12-10.1.0.30 web/n
expect "one of them" \
	"keladm: cannot set 'pool=10.1.0.11-10.1.0.30' on ipnet 'web/n': range doesn't contain all allocated resource
keladm: addresses in use outside 10.1.0.11-10.1.0.30: 10.1.0.10 (vport p1)" \
	set-ipnetprop -p pool=10.1.0.11-10.1.0.30 web/n
check "a wider pool" "$keladm" set-ipnetprop -p pool=10.1.0.10-10.1.0.30 web/n
expect "the new pool" "10.1.0.10-10.1.0.30" show-ipnet -p -o pool web/n
check "what is left of it" bash -c \
	"[ \"\$(sqlite3 '$root/etc/kel/kel.db' 'SELECT ipnet_avail_pool_range FROM ipnet_tbl')\" = 10.1.0.12-10.1.0.30 ]"
expect "a switch's property on a network" "keladm: cannot set 'maxbw=1M' on ipnet 'web/n': invalid property specified
keladm: set-ipnetprop takes no property 'maxbw' (keladm help set-ipnetprop lists them)" \
	set-ipnetprop -p maxbw=1M web/n
expect "an unknown switch" "keladm: cannot list kel properties: kel not found" show-kelprop nope
# Live changes whose hosts do not answer name them. Hosts are reached through this
# host's socket, where no keld listens.
"$keladm" set-controlprop uri-template=unix:// >/dev/null
sqlite3 "$root/etc/kel/kel.db" "UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h' || substr(vport_name, 2),
	vport_vnicname = 'vn' || substr(vport_name, 2) WHERE vport_name IN ('p1', 'p2')"
expect "a port's host" "keladm: cannot set 'maxbw=5M' on vport 'web/p1': KEL controller failed connecting to a host
keladm: host that did not answer: h1; set the property again once it is back" set-vportprop -p maxbw=5M web/p1
expect "a kel's hosts" "keladm: set 'maxbw=5M' on kel 'web' (stored; some hosts missed it): could not set kel property on all vports
keladm: hosts that did not answer: h1, h2; set the property again once they are back" set-kelprop -p maxbw=5M web
expect "a kel with bound ports says which, and where" "keladm: cannot delete kel 'web': vport in use
keladm: its bound vports: p1 (VNIC vn1 on h1), p2 (VNIC vn2 on h2); delete their VNICs first" delete-kel web
"$keladm" set-controlprop vxlan-range=5000-5009 >/dev/null
"$keladm" create-kel -p l2-type=vxlan vx >/dev/null
"$keladm" add-ipnet -p subnet=10.9.0.0/24 vx/n9 >/dev/null
"$keladm" add-vport vx/a >/dev/null
sqlite3 "$root/etc/kel/kel.db" "UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h3', vport_vnicname = 'vn3'
	WHERE vport_name = 'a'"
expect "sync-flood names the hosts it could not reach" "keladm: cannot join every host of kel 'vx': KEL controller failed connecting to a host
keladm: host that did not answer: h3; run sync-flood again once it is back" sync-flood vx
expect "verify names the ports whose host does not answer" "sys-global/web/p1:h1:host:the host did not answer
sys-global/web/p2:h2:host:the host did not answer" verify -p -o object,host,what,found web
status "and fails" 1 verify web
"$keladm" create-kel -p l2-type=flat v6 >/dev/null
"$keladm" add-ipnet -p subnet=fd00::/120 v6/n6 >/dev/null
"$keladm" add-vport v6/a >/dev/null
"$keladm" add-vport v6/b >/dev/null
expect "an IPv6 pool that drops an address in use" \
	"keladm: cannot set 'pool=fd00::3-fd00::ff' on ipnet 'v6/n6': range doesn't contain all allocated resource
keladm: addresses in use outside fd00::3-fd00::ff: fd00::2 (vport a)" \
	set-ipnetprop -p pool=fd00::3-fd00::ff v6/n6
exit $fail

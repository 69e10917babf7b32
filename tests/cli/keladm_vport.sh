#!/bin/bash
# Ports from the command line: add-vport, show-vport, remove-vport, reset-vport.
. "$(dirname "$0")/lib.sh" "$1"
make_store
"$keladm" create-kel -p l2-type=flat web >/dev/null
"$keladm" create-kel -p l2-type=flat bare >/dev/null
"$keladm" add-ipnet -p subnet=10.1.0.0/24,pool=10.1.0.2-10.1.0.4 web/n >/dev/null

expect "the lowest pool address" "added vport web/p1 (10.1.0.2/24, aa:0:0:0:0:1)" \
	add-vport -p macaddr=aa:0:0:0:0:1 web/p1
expect "the router, given" "added vport web/gw (10.1.0.1/24, aa:0:0:0:0:2)" \
	add-vport -p ipaddr=10.1.0.1,macaddr=aa:0:0:0:0:2 web/gw
expect "the router only once, naming its port" "keladm: cannot add vport 'web/x': IP address in use
keladm: address 10.1.0.1 is in use by vport web/gw (tenant sys-global)" \
	add-vport -p ipaddr=10.1.0.1 web/x
expect "a MAC address only once, naming its port" "keladm: cannot add vport 'web/x': MAC address in use
keladm: MAC address aa:0:0:0:0:1 is in use by vport web/p1 (tenant sys-global)" \
	add-vport -p macaddr=aa:0:0:0:0:1 web/x
expect "a kel without an ipnet says it needs one" "keladm: cannot add vport 'bare/x': ipnet not found
keladm: kel 'bare' has no ipnet to give the port an address: add one first (keladm add-ipnet -p subnet=ADDRESS/PREFIX bare/NAME)" \
	add-vport bare/x
status "the name must be KEL/VPORT" 2 add-vport p1
check "a generated MAC address" bash -c "'$keladm' add-vport web/p2 | grep -Eq '^added vport web/p2 \(10\.1\.0\.3/24, 2:8:20(:[0-9a-f]{1,2}){3}\)$'"
"$keladm" add-vport web/p3 >/dev/null
expect "an exhausted pool" "keladm: cannot add vport 'web/p4': insufficient resource" add-vport web/p4

expect "show-vport" "NAME  KEL  STATUS  IPADDR
p1    web  free    10.1.0.2/24
gw    web  free    10.1.0.1/24
p2    web  free    10.1.0.3/24
p3    web  free    10.1.0.4/24" \
	show-vport -o name,kel,status,ipaddr web
expect "show-kel lists a kel's ports" "web:p1,gw,p2,p3" show-kel -p -o name,vports web

# A port bound on a host that is not there: removing it needs -f; resetting asks the host.
sqlite3 "$root/etc/kel/kel.db" \
	"UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h1', vport_vnicname = 'vn0' WHERE vport_name = 'p1'"
expect "a bound port, parseable" "p1:bound:h1:vn0" show-vport -p -o name,status,host,vnic web/p1
expect "removing a bound port says where it is bound, and the ways out" \
	"keladm: cannot remove vport 'web/p1': vport in use
keladm: it is bound to VNIC vn0 on host h1: delete the VNIC there (keladm delete-vnic vn0) or give -f; if the VNIC is gone, keladm reset-vport web/p1 frees the port" \
	remove-vport web/p1
expect "reset -f frees it without asking, and says so" \
	"freed vport web/p1, bound to VNIC vn0 on host h1, without asking the host (-f)" reset-vport -f web/p1
expect "a free port" "vport web/p1 was free already" reset-vport web/p1
# Hosts are reached through this host's socket, where no keld listens: h1 does not answer.
"$keladm" set-controlprop uri-template=unix:// >/dev/null
sqlite3 "$root/etc/kel/kel.db" \
	"UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h1', vport_vnicname = 'vn0' WHERE vport_name = 'p1'"
expect "a reset whose host does not answer says what it did" \
	"keladm: warning: freed vport 'web/p1' without asking host h1, which did not answer; if VNIC vn0 is still there, delete it there: KEL controller failed connecting to a host" \
	reset-vport web/p1
expect "it is free, on no host" '[{"name": "p1", "status": "free", "host": null}]' show-vport --json -o name,status,host web/p1
check "remove-vport" "$keladm" remove-vport web/p1
expect "the address is back" "added vport web/p5 (10.1.0.2/24, aa:0:0:0:0:9)" add-vport -p macaddr=aa:0:0:0:0:9 web/p5
expect "removing it again" "keladm: cannot remove vport 'web/p1': vport not found" remove-vport web/p1
# A port's counters are what its VNICs that are gone carried (kept by the controller) plus
# its VNIC's now: a free port has only the first. They are shown only when asked for.
sqlite3 "$root/etc/kel/kel.db" \
	"UPDATE vport_tbl SET vport_props = vport_props || ',kel:counters_gone=1/200/3/400' WHERE vport_name = 'p5'"
expect "a free port's counters" "p5:1:200:3:400" show-vport -p -o name,ipackets,rbytes,opackets,obytes web/p5
expect "as numbers" '[{"ipackets": 1, "obytes": 400}]' show-vport --json -o ipackets,obytes web/p5
check "and not unless asked" bash -c "! '$keladm' show-vport web/p5 | grep -q 400"
sqlite3 "$root/etc/kel/kel.db" \
	"UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h1', vport_vnicname = 'vn5' WHERE vport_name = 'p5'"
expect "a bound port whose host does not answer has none, and says why" \
	"keladm: warning: no counters for web/p5 (KEL controller failed connecting to a host)
p5:" show-vport -p -o name,ipackets web/p5
status "-f is for remove and reset" 2 add-vport -f web/p6
exit $fail

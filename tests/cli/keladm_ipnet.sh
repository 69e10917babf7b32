#!/bin/bash
# IP networks from the command line: add-ipnet, show-ipnet, remove-ipnet.
. "$(dirname "$0")/lib.sh" "$1"
make_store
"$keladm" create-kel -p l2-type=flat web >/dev/null
"$keladm" create-kel -p l2-type=flat db >/dev/null
"$keladm" create-kel -T acme -p l2-type=flat web >/dev/null

expect "defaults: router and pool" \
	"added ipnet web/front (10.1.0.0/24, router 10.1.0.1, pool 10.1.0.2-10.1.0.254)" \
	add-ipnet -p subnet=10.1.0.0/24 web/front
expect "a given router and pool" \
	"added ipnet db/back (10.2.0.0/24, router 10.2.0.254, pool 10.2.0.10-10.2.0.20)" \
	add-ipnet -p subnet=10.2.0.0/24,defrouter=10.2.0.254,pool=10.2.0.10-10.2.0.20 db/back
expect "overlaps are refused across tenants, naming the ipnet and its tenant" \
	"keladm: cannot add ipnet 'web/x': ipnet overlaps with existing ipnet(s)
keladm: 10.1.0.0/16 overlaps ipnet web/front (10.1.0.0/24, tenant sys-global)" \
	add-ipnet -T acme -p subnet=10.1.0.0/16 web/x
expect "one ipnet per kel, naming it" "keladm: cannot add ipnet 'web/y': cannot add more than one ipnet
keladm: kel 'web' has ipnet web/front (10.1.0.0/24)" \
	add-ipnet -p subnet=10.9.0.0/24 web/y
expect "a pool holding the router" "keladm: cannot add ipnet 'web/z': pool range includes defrouter address" \
	add-ipnet -T acme -p subnet=10.3.0.0/24,pool=10.3.0.1-10.3.0.5 web/z
status "a subnet is required" 2 add-ipnet web/z
status "the name must be KEL/IPNET" 2 add-ipnet -p subnet=10.4.0.0/24 front
expect "show-ipnet" "NAME   KEL  SUBNET       DEFROUTER   POOL                 AVAILABLE
front  web  10.1.0.0/24  10.1.0.1    10.1.0.2-10.1.0.254  10.1.0.2-10.1.0.254
back   db   10.2.0.0/24  10.2.0.254  10.2.0.10-10.2.0.20  10.2.0.1-10.2.0.253" \
	show-ipnet -o name,kel,subnet,defrouter,pool,available
expect "one kel's ipnet, parseable" "back:10.2.0.0/24" show-ipnet -p -o name,subnet db
expect "one ipnet as JSON" '[{"name": "front", "tenant": "sys-global"}]' show-ipnet --json -o name,tenant web/front

check "remove-ipnet" "$keladm" remove-ipnet web/front
expect "it is gone" "back" show-ipnet -p -o name
expect "removing it again" "keladm: cannot remove ipnet 'web/front': ipnet not found" remove-ipnet web/front
exit $fail

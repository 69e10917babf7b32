#!/bin/bash
# Across tenants: -T all lists every tenant's objects with their tenant, and a name that
# is not in the tenant given is said to be where it is.
. "$(dirname "$0")/lib.sh" "$1"
make_store
"$keladm" set-controlprop uplink-port=net0 >/dev/null
for t in sys-global acme; do
	"$keladm" create-kel -T $t -p l2-type=flat web >/dev/null
	"$keladm" add-ipnet -T $t -p subnet=10.$((${#t} % 9)).0.0/24 web/n-$t >/dev/null
	"$keladm" add-vport -T $t -p macaddr=aa:0:0:0:${#t}:1 web/p >/dev/null
done
"$keladm" create-kel -T acme -p l2-type=flat db >/dev/null
"$keladm" create-kel -T beta -p l2-type=flat db >/dev/null
"$keladm" add-ipnet -T acme -p subnet=10.7.0.0/24 db/n >/dev/null
"$keladm" add-vport -T acme db/only >/dev/null
"$keladm" add-vport -T acme web/q >/dev/null

expect "show-kel -T all" "web:sys-global
web:acme
db:acme
db:beta" show-kel -T all -p -o name,tenant
expect "show-vport -T all" "web:p:sys-global
web:p:acme
db:only:acme
web:q:acme" show-vport -T all -p -o kel,name,tenant
expect "show-ipnet -T all, one kel" "n-sys-global:sys-global
n-acme:acme" show-ipnet -T all -p -o name,tenant web
expect "a property listing gains a tenant column" "KEL  TENANT      PROPERTY  PERMISSION  VALUE  DEFAULT  POSSIBLE
web  sys-global  maxbw     rw
web  acme        maxbw     rw
db   acme        maxbw     rw
db   beta        maxbw     rw" show-kelprop -T all -P maxbw
expect "and only then" "KEL  PROPERTY  VALUE
web  maxbw" show-kelprop -o kel,property,value -P maxbw
expect "show-vportprop -T all" "web/p:sys-global:aa\:0\:0\:0\:10\:1
web/p:acme:aa\:0\:0\:0\:4\:1" show-vportprop -T all -p -o vport,tenant,value -P macaddr web/p

expect "a kel in another tenant" "keladm: cannot list kels: kel not found
keladm: kel 'db' is in tenants acme, beta: give -T TENANT" show-kel db
expect "a port in another tenant" "keladm: cannot set 'maxbw=5M' on vport 'db/only': kel not found
keladm: kel 'db' is in tenants acme, beta: give -T TENANT" set-vportprop -p maxbw=5M db/only
expect "a port of a kel both have" "keladm: cannot remove vport 'web/q': vport not found
keladm: vport 'web/q' is in tenant acme: give -T acme" remove-vport web/q
expect "a network" "keladm: cannot list ipnets: ipnet not found
keladm: ipnet 'web/n-acme' is in tenant acme: give -T acme" show-ipnet web/n-acme
expect "nowhere at all: nothing more" "keladm: cannot delete kel 'nosuch': kel not found" delete-kel nosuch
status "-T all makes nothing" 2 create-kel -T all x
status "and deletes nothing" 2 delete-kel -T all web
exit $fail

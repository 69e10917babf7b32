#!/bin/bash
# This host's client settings from the command line: set-clientprop, show-clientprop.
. "$(dirname "$0")/lib.sh" "$1"

expect "nothing is configured at first" "PROPERTY  PERMISSION  VALUE  DEFAULT" show-clientprop
check "set the controller" "$keladm" set-clientprop controller=ssh://ops@ctl.example
expect "show it" "PROPERTY    PERMISSION  VALUE                  DEFAULT
controller  rw          ssh://ops@ctl.example" show-clientprop
expect "parseable, by name" "controller:ssh\\://ops@ctl.example" show-clientprop -p -o property,value controller
expect "JSON" '[{"property": "controller", "value": "ssh://ops@ctl.example"}]' \
	show-clientprop --json -o property,value
check "the setting lives in the service configuration" \
	grep -q '^controller astring = ssh://ops@ctl.example$' "$root/etc/kel/svc/network/kel/default.conf"
expect "other schemes are refused" \
	"keladm: cannot set 'controller=http://ctl': invalid URI (unix:// or ssh://[USER@]HOST[:PORT][/SOCKET])" set-clientprop controller=http://ctl
expect "an ssh controller without a host is refused" \
	"keladm: cannot set 'controller=ssh://': invalid URI (unix:// or ssh://[USER@]HOST[:PORT][/SOCKET])" set-clientprop controller=ssh://
expect "and the setting is as it was" "controller:ssh\\://ops@ctl.example" show-clientprop -p -o property,value
expect "unknown settings are refused" \
	"keladm: cannot set 'colour=blue': invalid property specified" set-clientprop colour=blue
expect "listing an unknown name" \
	"keladm: cannot list client properties: invalid property specified" show-clientprop colour
check "an empty value clears it" "$keladm" set-clientprop controller=
expect "cleared" "controller:" show-clientprop -p -o property,value
status "set-clientprop needs name=value" 2 set-clientprop
expect "a host without a controller is told where to set one" \
	"keladm: cannot release the port of VNIC 'nosuch': failed connecting to KEL controller
keladm: this host's controller is not set (keladm set-clientprop controller=URI)" delete-vnic nosuch
"$keladm" set-clientprop controller=unix://
expect "and which one it could not reach" \
	"keladm: cannot release the port of VNIC 'nosuch': failed connecting to KEL controller
keladm: this host's controller is 'unix://' (keladm set-clientprop controller=URI)" delete-vnic nosuch
exit $fail

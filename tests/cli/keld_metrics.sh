#!/bin/bash
# keld's metrics, read back through the real node exporter on loopback: each VNIC's
# counters with its kel, tenant, port and host, the drops of each of its protections,
# its cap; the address responder's answers and refusals; keld's requests; and, keld
# holding the store, the tenants' objects, the ranges' and pools' use, the bindings and
# which hosts answered the last call to many. promtool must find the file sound.
# Controller and host share one network namespace and talk over unix://.
# Usage: keld_metrics.sh KELADM KELD FRAME NUQ_CALL. Exit 77 (skipped) when it cannot run here.
keld=$(readlink -f "$2")
frame=$(readlink -f "$3")
call=$(readlink -f "$4")
. "$(dirname "$0")/lib.sh" "$(readlink -f "$1")"
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
exporter=/usr/bin/prometheus-node-exporter
[ -x "$exporter" ] || skip "prometheus-node-exporter is not installed"
command -v promtool >/dev/null || skip "promtool (package prometheus) is not installed"

host=keldm-$$
g1=keldmg1-$$
g2=keldmg2-$$
keld_pid=
cleanup() {
	# Whatever runs in the namespaces (ip netns exec need not be the process itself).
	for ns in "$g1" "$g2" "$host"; do ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null; done
	wait 2>/dev/null
	for ns in "$g1" "$g2" "$host"; do ip netns del "$ns" 2>/dev/null; done
	rm -rf "$root"
}
trap cleanup EXIT
host_node "$host" 10.88.0.1 || skip "network namespaces and veth links cannot be made here"
for g in "$g1" "$g2"; do ip netns add "$g"; done

# Where Debian's exporter looks, below the scratch root: keld writes there unasked.
textdir=$root/var/lib/prometheus/node-exporter
mkdir -p "$textdir"
start_keld() {
	ip netns exec "$host" "$keld" --metrics-interval 1 2>>"$root/keld.log" &
	keld_pid=$!
	for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
}
stop_keld() { kill "$keld_pid" && wait "$keld_pid"; keld_pid=; }
# Waits for keld's next write, then for the one after: what was done before is in it.
fresh() {
	local before
	before=$(stat -c %Y.%i "$textdir/kel.prom" 2>/dev/null)
	for _ in $(seq 60); do
		[ "$(stat -c %Y.%i "$textdir/kel.prom" 2>/dev/null)" != "$before" ] && break
		sleep 0.1
	done
	sleep 1.2
}
start_keld

"$keladm" create-kel -p l2-type=vxlan,vni=5300 web >/dev/null
"$keladm" add-ipnet -p subnet=10.89.0.0/24 web/front >/dev/null
"$keladm" add-vport -p ipaddr=10.89.0.11,maxbw=10M web/vm1 >/dev/null
"$keladm" add-vport -p ipaddr=10.89.0.12 web/vm2 >/dev/null
"$keladm" add-vport -p ipaddr=10.89.0.13 web/spare >/dev/null
"$keladm" create-kel -T blue -p l2-type=vxlan,vni=5301 lab >/dev/null
"$keladm" create-vnic web/vm1 "$g1/eth0" >/dev/null
"$keladm" create-vnic web/vm2 "$g2/eth0" >/dev/null
mac1=$(keladm show-vnic -p -o macaddr "$g1/eth0")
mac2=$(keladm show-vnic -p -o macaddr "$g2/eth0")
# Labels come in the order of their names.
vnic() { echo "host=\"$(hostname)\",kel=\"web\",port=\"$1\",${2:+rule=\"$2\",}tenant=\"sys-global\",vnic=\"$3/eth0\""; }

in_guest() { local g=$1; shift; ip netns exec "$g" "$@"; }
in_guest "$g1" "$frame" eth0 udp4 dst="$mac2" sip=10.89.0.11 dip=10.89.0.12 count=5 >/dev/null
# A hostile guest lifts the filters it can reach; the host's copy still drops and counts.
in_guest "$g1" nft flush ruleset
in_guest "$g1" "$frame" eth0 udp4 dst="$mac2" sip=10.89.0.99 dip=10.89.0.12 count=3 >/dev/null
in_guest "$g1" "$frame" eth0 udp4 vlan=7 dst="$mac2" sip=10.89.0.11 dip=10.89.0.12 count=4 >/dev/null
# To a guest of another host: out through the link under the VNICs.
in_guest "$g1" "$frame" eth0 udp4 src=02:66:00:00:00:01 dst=02:77:00:00:00:01 sip=10.89.0.11 dip=10.89.0.14 count=2 >/dev/null
# The responder takes up its link within a second of its making: until then a request
# meets nobody, and is neither answered nor refused.
for _ in 1 2 3; do in_guest "$g1" "$frame" eth0 dhcp listen=2 | grep -q '^answered' && break; done
in_guest "$g1" "$frame" eth0 dhcp type=request requested=10.89.0.12 listen=3 >/dev/null
in_guest "$g2" "$frame" eth0 dhcp chaddr="$mac1" listen=1 >/dev/null
"$keladm" verify >/dev/null
"$keladm" create-vnic web/nosuch "$g2/eth1" >/dev/null 2>&1
fresh

in_host() { ip netns exec "$host" "$@"; }
in_host "$exporter" --web.listen-address=127.0.0.1:9100 --collector.disable-defaults --collector.textfile \
	--collector.textfile.directory="$textdir" 2>>"$root/exporter.log" &
for _ in $(seq 100); do in_host curl -sf http://127.0.0.1:9100/metrics >"$root/scrape" 2>/dev/null && break; sleep 0.1; done
# value NAME LABELS: the value of the line of NAME whose labels hold LABELS ("" for a
# line without labels).
value() {
	awk -v n="$1" -v l="$2" 'l == "" && $1 == n { print $2; exit }
		l != "" && index($0, n "{") == 1 && index($0, l) { print $NF; exit }' "$root/scrape"
}
at_least() { local v; v=$(value "$1" "$2"); [ -n "$v" ] && awk -v v="$v" -v m="$3" 'BEGIN { exit !(v >= m) }'; }
# The exporter writes large values with an exponent: compared as numbers.
is() { local v; v=$(value "$1" "$2"); [ -n "$v" ] && awk -v v="$v" -v w="$3" 'BEGIN { exit !(v == w) }'; }

check "the exporter serves keld's file with no error reading it" is node_textfile_scrape_error "" 0
check "the VNIC's sent packets, labelled with its host, kel, port, tenant and name" \
	at_least kel_vnic_transmit_packets_total "$(vnic vm1 "" "$g1")" 5
check "the other VNIC's received ones" \
	at_least kel_vnic_receive_packets_total "port=\"vm2\",tenant=\"sys-global\"" 5
check "what ip-nospoof dropped, alone" is kel_vnic_filter_drops_total "$(vnic vm1 ip-nospoof "$g1")" 3
check "what the drop of tagged frames took, alone, with its bytes" bash -c \
	"[ '$(value kel_vnic_filter_drops_total "$(vnic vm1 tagged "$g1")")' = 4 ] &&
	 [ '$(value kel_vnic_filter_dropped_bytes_total "$(vnic vm1 tagged "$g1")")' -gt 0 ]"
check "a forged source address, dropped by the guard of the link under the VNICs" \
	is kel_lower_foreign_mac_drops_total "host=\"$(hostname)\",link=\"kel-vxlan5300\"" 2
check "the cap, in bytes a second" is kel_vnic_maxbw_bytes_per_second "$(vnic vm1 "" "$g1")" 1250000
check "no cap line for the port without one" test -z "$(value kel_vnic_maxbw_bytes_per_second "port=\"vm2\"")"
check "the responder's offer, counted as answered" \
	is kel_dhcp_replies_total 'family="ipv4",kel="web",tenant="sys-global"' 1
for reason in wrong_address forged_source; do
	check "a request refused as $reason" \
		is kel_dhcp_refused_total "family=\"ipv4\",kel=\"web\",reason=\"$reason\",tenant=\"sys-global\"" 1
done
check "the bindings keld served, by method" \
	at_least kel_keld_requests_total 'interface="kelcntl.KEL",method="assignVPort"' 2
check "with their latency" \
	at_least kel_keld_request_duration_seconds_count 'interface="kelcntl.KEL",method="assignVPort"' 2
check "and the one refused, as an error" \
	is kel_keld_request_errors_total 'interface="kelcntl.KEL",method="assignVPort"' 1
check "the controller's successful bindings" at_least kel_controller_binds_total 'outcome="success"' 2
check "and the failed one" is kel_controller_binds_total 'outcome="failure"' 1
check "timed" at_least kel_controller_bind_duration_seconds_count "" 2
check "each tenant's kels" bash -c "[ '$(value kel_tenant_kels 'tenant="sys-global"')' = 1 ] &&
	[ '$(value kel_tenant_kels 'tenant="blue"')' = 1 ]"
check "ports, and those bound" bash -c "[ '$(value kel_tenant_ports 'tenant="sys-global"')' -ge 3 ] &&
	[ '$(value kel_tenant_bound_ports 'tenant="sys-global"')' -ge 2 ]"
check "pools" is kel_tenant_pools 'tenant="sys-global"' 1
check "the VNI range as show-usage counts it" bash -c \
	"[ '$(value kel_range_values 'owner="",resource="vxlan-range"')' = 1000 ] &&
	 [ '$(value kel_range_used_values 'owner="",resource="vxlan-range"')' = 2 ]"
check "and the pool's use" \
	is kel_range_used_values 'owner="sys-global/web/front",resource="pool"' \
	"$(keladm show-usage -p -o owner,used | awk -F: '$1 == "sys-global/web/front" { print $2 }')"
check "the host answered the last verify" \
	is kel_fan_out_host_answered "host=\"$(hostname)\",operation=\"verify\"" 1
check "promtool finds keld's file sound" promtool check metrics <"$textdir/kel.prom"
check "and the exporter's whole page" promtool check metrics <"$root/scrape"
check "every family has its help, also one with no line yet" grep -qx \
	'# HELP kel_controller_migrations_total Bindings that started the move of a port to another host, by outcome.' "$textdir/kel.prom"

# A kel's cap reaches the hosts of the ports that take it, all at once.
"$keladm" set-kelprop -p maxbw=20M web >/dev/null
fresh
cp "$textdir/kel.prom" "$root/scrape"
check "the kel's cap is what its other VNIC has" is kel_vnic_maxbw_bytes_per_second "$(vnic vm2 "" "$g2")" 2500000
check "and the last call to many hosts is the property's" \
	is kel_fan_out_host_answered "host=\"$(hostname)\",operation=\"property\"" 1

# A release, and a VM's port bound on a second host while its first still holds it: the
# move starts (the hosts here are names the controller reaches on this same keld).
"$keladm" delete-vnic "$g2/eth0" >/dev/null
bind() { in_host "$call" unix:// kelcntl.KEL assignVPort name=web \
	"{\"vnicname\": \"mig0\", \"hostname\": \"$1\", \"vportname\": \"spare\", \"extra\": \"vmid=42\"}" >/dev/null; }
bind kel-src && bind kel-dst
fresh
cp "$textdir/kel.prom" "$root/scrape"
check "the release, counted and timed" bash -c \
	"[ '$(value kel_controller_releases_total 'outcome="success"')' = 1 ] &&
	 [ '$(value kel_controller_release_duration_seconds_count '')' = 1 ]"
check "the move, counted as a migration and not as a bind" bash -c \
	"[ '$(value kel_controller_migrations_total 'outcome="success"')' = 1 ] &&
	 [ '$(value kel_controller_migration_duration_seconds_count '')' = 1 ]"

stop_keld
check "a stopped keld leaves no metrics behind" test ! -e "$textdir/kel.prom"
"$keladm" verify >/dev/null 2>&1
start_keld
fresh
cp "$textdir/kel.prom" "$root/scrape"
check "a host that did not answer the last call reads 0" \
	is kel_fan_out_host_answered "host=\"$(hostname)\",operation=\"verify\"" 0
# A host without the exporter: no folder, no file, not a word of it.
stop_keld
rm -rf "$textdir"
start_keld
sleep 2
check "no metrics are written where the exporter's folder is not, silently" bash -c \
	"[ ! -e '$textdir' ] && ! grep -q 'cannot write metrics' '$root/keld.log'"
exit $fail

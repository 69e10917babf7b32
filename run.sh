#!/bin/bash
# Build, demo and test driver. Run as root on Debian 12:
#   ./run.sh demo      install what is missing, build, and build a fabric of three hosts in
#                      namespaces, step by step (the controller alone where it cannot)
#   ./run.sh test      install what is missing, build, run the whole test suite
#   ./run.sh sanitize  the unit tests built with AddressSanitizer and UBSan
#   ./run.sh fuzz [SECONDS]  each fuzz target for SECONDS (default 10) on its corpus
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(g++ cmake ninja-build pkg-config binutils libsqlite3-dev uuid-dev libxml2-dev
	nlohmann-json3-dev libnl-route-3-dev libnftables-dev libnftnl-dev libmnl-dev iproute2 nftables openssh-client
	openssh-server libgtest-dev sqlite3 iputils-ping procps groff-base valgrind busybox-static isc-dhcp-client jq podman containernetworking-plugins
	qemu-system-x86 cpio libvirt-daemon libvirt-daemon-driver-qemu libvirt-clients clang-format
	libpq-dev postgresql-15 etcd-server etcd-client patroni python3-etcd prometheus-node-exporter prometheus curl)
FUZZ_PACKAGES=(clang libclang-rt-14-dev)
JOBS=$(nproc)

install_missing() {
	local missing=()
	for p in "${PACKAGES[@]}" "$@"; do
		dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
			missing+=("$p")
	done
	[ ${#missing[@]} -eq 0 ] && return
	echo "installing: ${missing[*]}"
	export DEBIAN_FRONTEND=noninteractive
	apt-get update -qq
	apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build DIR [cmake options...]
# build DIR [CMAKE OPTIONS...] [-- TARGETS...]
build() {
	local dir=$1
	shift
	local opts=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo) targets=()
	[ "${CI:-}" = true ] && opts+=(-DKEL_WERROR=ON)
	while [ $# -gt 0 ]; do
		[ "$1" = -- ] && { shift; targets=("$@"); break; }
		opts+=("$1")
		shift
	done
	cmake -S . -B "$dir" "${opts[@]}" >/dev/null
	cmake --build "$dir" -j "$JOBS" ${targets[@]:+--target "${targets[@]}"}
}

# The fabric: a controller and two hosts in network namespaces, guests on them, each
# keladm step shown with its output. Where namespaces cannot be made, the controller
# alone in a scratch tree.
demo() {
	build build
	keladm_bin=$PWD/build/cmd/keladm/keladm
	keld=$PWD/build/cmd/keld/keld
	. tests/e2e/fabric_lib.sh
	if ! fabric_require; then
		echo "No fabric here ($fabric_skip): a tour of the controller alone."
		controller_tour
		return
	fi
	if ! fabric_up; then
		echo "No fabric here ($fabric_skip): a tour of the controller alone."
		fabric_down
		controller_tour
		return
	fi
	trap 'vm_cleanup 2>/dev/null; fabric_down' EXIT
	fabric_tour
}

# NODE ARGS...: one keladm step on a host, shown as an operator there would see it.
on_step() {
	local node=$1
	shift
	echo
	echo "[kel-$node]\$ keladm $*"
	on "$node" "$keladm_bin" "$@"
}

fabric_tour() {
	echo "Three hosts in network namespaces: kel-ctl (the controller), kel-ha and kel-hb,"
	echo "on an underlay 10.77.0.0/24, each running keld and sshd. Guests are namespaces of"
	echo "their own. Hosts and controller reach each other over ssh://."
	echo
	echo "== The controller: ranges, uplinks and endpoints first, then the kels"
	on_step ctl create-store
	on_step ctl set-controlprop vlan-range=100-199
	on_step ctl set-controlprop vxlan-range=5000-5999
	on_step ctl set-controlprop uri-template=ssh://root@
	on_step ctl set-controlprop uplink-port=eth0,flat=yes
	on_step ctl set-controlprop vxlan-addr=10.77.0.0/24
	on_step ctl set-clientprop controller=unix://
	on_step ctl create-kel -p l2-type=vxlan web
	on_step ctl add-ipnet -p subnet=10.91.0.0/24 web/front
	on_step ctl add-vport web/a
	on_step ctl add-vport web/b
	on_step ctl create-kel -p l2-type=flat,protection=none lan
	on_step ctl add-ipnet -p subnet=10.93.0.0/24 lan/office
	on_step ctl add-vport lan/a
	on_step ctl add-vport lan/b
	on_step ctl show-kel
	on_step ctl show-vport -o name,kel,status,ipaddr,macaddr
	echo
	echo "== The hosts: where the controller is, then a VNIC for each guest"
	on_step ha set-clientprop controller=ssh://root@kel-ctl
	on_step hb set-clientprop controller=ssh://root@kel-ctl
	on_step ha create-vnic --address web/a "$(guest a1)/eth0"
	on_step hb create-vnic --address web/b "$(guest b1)/eth0"
	on_step ha create-vnic --address lan/a "$(guest a3)/eth0"
	on_step hb create-vnic --address lan/b "$(guest b3)/eth0"
	on_step ha show-vnic
	on_step hb show-vnic -o vnic,kel,vport,ipaddr,lower
	on_step ctl show-vport -o name,kel,status,host,vnic,ipaddr
	echo
	echo "== The VXLAN kel has no multicast group: each host's link floods to the other"
	echo "[kel-ha]\$ bridge fdb show dev kel-vxlan5000 | grep 00:00:00:00:00:00"
	bridge -n "$(host_ns ha)" fdb show dev kel-vxlan5000 | grep 00:00:00:00:00:00
	echo
	echo "== A guest on kel-ha pings the guest on kel-hb, over VXLAN and over the flat kel"
	local b_web b_lan
	b_web=$(on ctl "$keladm_bin" show-vport -p -o ipaddr web/b | cut -d/ -f1)
	b_lan=$(on ctl "$keladm_bin" show-vport -p -o ipaddr lan/b | cut -d/ -f1)
	echo "[guest a1]\$ ping -c 3 $b_web"
	ip netns exec "$(guest a1)" ping -c 3 -i 0.3 "$b_web"
	echo "[guest a3]\$ ping -c 3 $b_lan"
	ip netns exec "$(guest a3)" ping -c 3 -i 0.3 "$b_lan"
	echo
	echo "== A live bandwidth change from the controller, on the VNIC of web/a on kel-ha"
	local burst="ping -q -c 300 -i 0.002 -s 1400 $b_web"
	echo "[guest a1]\$ $burst"
	ip netns exec "$(guest a1)" $burst | tail -2
	on_step ctl set-vportprop -p maxbw=1M web/a
	echo "[guest a1]\$ tc qdisc show dev eth0"
	tc -n "$(guest a1)" qdisc show dev eth0
	echo "[guest a1]\$ $burst     # the same 420 KB now take over 3 s"
	ip netns exec "$(guest a1)" $burst | tail -2
	on_step ha show-vnic -o vnic,kel,ipackets,rbytes,opackets,obytes
	echo
	echo "== Drift: the cap taken off by hand on kel-ha; verify finds it, --repair puts it back"
	echo "[kel-ha]\$ tc qdisc del dev eth0 root     # in guest a1"
	tc -n "$(guest a1)" qdisc del dev eth0 root
	on_step ctl verify -o object,host,what,store,found web/a || true
	on_step ctl verify --repair web/a || true
	on_step ctl verify web/a
	on_step ctl set-vportprop -p maxbw= web/a
	echo
	echo "== Capacity: how full each range, host share and pool is"
	on_step ctl show-usage -T all
	vm_tour "$b_web"
	echo
	echo "== Counters that survive their VNIC: web/b's guest sends, its VNIC goes, the port keeps them"
	echo "[guest b1]\$ ping -c 3 $(on ctl "$keladm_bin" show-vport -p -o ipaddr web/a | cut -d/ -f1)"
	ip netns exec "$(guest b1)" ping -q -c 3 -i 0.2 "$(on ctl "$keladm_bin" show-vport -p -o ipaddr web/a | cut -d/ -f1)" | tail -1
	on_step ctl show-vport -o name,host,ipackets,opackets web/b
	on_step hb delete-vnic "$(guest b1)/eth0"
	on_step ctl show-vport -o name,status,ipackets,opackets web/b
	on_step ha show-host
	on_step ctl show-host
	echo
	echo "== Tearing down: the last VNIC of the VNI on a host takes its VXLAN link along"
	on_step ha delete-vnic "$(guest a1)/eth0"
	on_step ha delete-vnic "$(guest a3)/eth0"
	on_step hb delete-vnic "$(guest b3)/eth0"
	on_step ctl show-vport -o name,kel,status,host,vnic
	echo
	echo "Every namespace, process and file of the demonstration goes now."
}

# A real VM on web: booted under qemu on kel-ha, its address from the fabric by DHCP, then
# moved live to kel-hb while guest b1 pings it. GUEST_B is b1's address.
vm_tour() {
	local b_web=$1 mac pinger
	. tests/e2e/vm_lib.sh
	echo
	if ! vm_require || ! vm_image build/vm-image; then
		echo "== No virtual machine here ($vm_skip): the tour goes on without one"
		return
	fi
	echo "== A virtual machine on web: its macvtap on kel-ha, qemu on its tap ($vm_accel)"
	on_step ctl add-vport web/vm
	on_step ha create-vnic --macvtap -p vmid=demo-vm web/vm vmtap0
	mac=$(on ha cat /sys/class/net/vmtap0/address)
	echo "[kel-ha]\$ qemu-system-x86_64 ... -netdev tap,fd=3 3<>/dev/tap\$(cat /sys/class/net/vmtap0/ifindex) -device virtio-net-pci,mac=$mac"
	vm_start vm "$(host_ns ha)" vmtap0 "$mac" && vm_wait_boot vm 120 || { echo "(the VM did not boot)"; return; }
	echo "[vm]\$ udhcpc -i eth0 ...; cat /run/lease     # what its DHCP client was given"
	vm_run vm 'for i in $(seq 40); do [ -s /run/lease ] && break; sleep 0.5; done; cat /run/lease' 40
	echo "[vm]\$ ping -c 3 -M do -s 1422 $b_web     # a full-size frame to guest b1 on kel-hb"
	vm_run vm "ping -c 3 -i 0.3 -M do -s 1422 $b_web" 20
	echo
	echo "== The VM moves live to kel-hb while guest b1 pings it every 20 ms"
	on_step hb create-vnic --macvtap -p vmid=demo-vm web/vm vmtap0
	ip netns exec "$(guest b1)" ping -q -i 0.02 -W 1 "$(on ctl "$keladm_bin" show-vport -p -o ipaddr web/vm | cut -d/ -f1)" \
		>"$fabric_root/pings" 2>&1 &
	pinger=$!
	sleep 1
	echo "[kel-hb]\$ qemu-system-x86_64 ... -incoming tcp:10.77.0.3:47000; [kel-ha] (monitor) migrate tcp:10.77.0.3:47000"
	vm_migrate vm "$(host_ns hb)" vmtap0 10.77.0.3 && echo "moved in ${vm_migrate_ms} ms, the VM standing still for ${vm_downtime_ms} ms"
	echo "[kel-hb]\$ ip link set vmtap0 up"
	ip -n "$(host_ns hb)" link set vmtap0 up
	on_step ha delete-vnic vmtap0
	sleep 1
	kill -INT "$pinger"
	wait "$pinger" 2>/dev/null
	echo "[guest b1]\$ ping -i 0.02 ...     # throughout the move"
	grep -E 'transmitted' "$fabric_root/pings"
	on_step ctl show-vport -o name,status,host,vnic web/vm
	echo "[vm]\$ kill -USR1 \$(cat /run/udhcpc.pid)     # it renews, now from kel-hb's responder"
	vm_run vm 'old=$(cat /run/lease); kill -USR1 $(cat /run/udhcpc.pid)
		for i in $(seq 60); do [ "$(cat /run/lease)" != "$old" ] && break; sleep 0.5; done
		grep -E "^(ip|serverid)=" /run/lease' 40
	vm_stop vm
	on_step hb delete-vnic vmtap0
}

controller_tour() {
	root=$(mktemp -d /tmp/kel-demo-XXXXXX)
	trap 'rm -rf "$root"' EXIT
	mkdir -p "$root/etc/kel"
	export KEL_ROOT=$root
	local keladm=build/cmd/keladm/keladm
	step() { echo; echo "\$ keladm $*"; "$keladm" "$@"; }
	echo "A scratch fabric under KEL_ROOT=$root"
	step create-store
	step set-controlprop vlan-range=100-199
	step set-controlprop vxlan-range=5000-5999
	step set-controlprop uplink-port=net0
	step set-controlprop -h host-a uplink-port=eth1,vlan-range=100-149
	step set-controlprop -h host-a uplink-port=eth2,vlan-range=150-199,flat=yes
	step set-controlprop vxlan-mgroup=239.1.1.1
	step set-clientprop controller=unix://
	step create-kel web
	step create-kel -p l2-type=vxlan,maxbw=100M db
	step create-kel -p vlanid=150 app
	step create-kel -T acme -p l2-type=flat lan
	step add-ipnet -p subnet=10.1.0.0/24 web/front
	step add-ipnet -p subnet=10.2.0.0/24,defrouter=10.2.0.254,pool=10.2.0.10-10.2.0.99 db/back
	step add-ipnet -T acme -p subnet=192.168.7.0/24 lan/office
	step add-ipnet -p subnet=10.1.0.0/16 app/wide || true
	step add-vport web/vm1
	step add-vport -p ipaddr=10.1.0.1,macaddr=2:8:20:0:0:1 web/router
	step add-vport -p maxbw=10M,cos=3 db/cache
	step show-vport -o name,kel,status,ipaddr,macaddr
	step set-vportprop -p priority=high web/vm1
	step show-vportprop -P priority,maxbw,cos web
	step set-kelprop -p maxbw=50M web
	step show-kelprop -o kel,property,value web
	step show-kel
	step show-kel -T acme -o name,l2type,id
	step show-ipnet
	step show-ipnet --json db
	step delete-kel app
	step show-kel -p -o name,id
	step show-controlprop -o property,host,value,vlan-range,vxlan-range,flat \
		l2-type,vlan-range,vlan-range-avail,vxlan-range-avail,uplink-port,vxlan-mgroup
	step show-controlprop -h host-a -o property,value,vlan-range,flat
	step show-clientprop
}

run_tests() {
	build build
	ctest --test-dir build --output-on-failure -j "$JOBS" --timeout 120
}

# The sanitizers' and the fuzzers' trees are built at -O1 with line tables only: what they
# find is the same, and they build in little more than half the time of -O2 with full
# debug information (6.6 against 12 minutes on two cores), which keeps CI within its
# half hour.
LIGHT_FLAGS=(-DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG")

sanitize() {
	# The unit tests are what runs under the sanitizers: build them (and keld, which they start) only.
	build build-sanitize -DKEL_SANITIZE=ON "${LIGHT_FLAGS[@]}" -- kel_unit_tests
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --test-dir build-sanitize --output-on-failure -j "$JOBS" --timeout 300 -L unit
}

# New inputs a run finds go to a scratch corpus; crash inputs stay in build-fuzz for
# adding to tests/fuzz/corpus as regression cases.
fuzz() {
	local seconds=${1:-10}
	local targets=(attrset ipnet link_addr bandwidth range filter dispatch link_args link_filter responder)
	# Only the fuzzers themselves: the rest of the tree is built and tested by the other jobs.
	CC=clang CXX=clang++ build build-fuzz -DKEL_FUZZ=ON -DKEL_TESTS=OFF "${LIGHT_FLAGS[@]}" -- "${targets[@]/#/fuzz_}"
	local target work
	for target in "${targets[@]}"; do
		work=$(mktemp -d)
		cp tests/fuzz/corpus/$target/* "$work/"
		# Requests are longer than the texts the other targets read.
		local max_len=256
		case $target in dispatch | link_filter) max_len=4096 ;; responder) max_len=1024 ;; esac
		echo "== fuzz_$target for ${seconds}s"
		(cd build-fuzz && ./tests/fuzz/fuzz_$target -max_total_time="$seconds" \
			-max_len="$max_len" -print_final_stats=1 "$work" 2>&1 |
			grep -E 'number_of_executed_units|new_units_added|ERROR|invariant|SUMMARY')
		rm -rf "$work"
	done
}

case "${1:-}" in
demo) install_missing; demo ;;
test) install_missing; run_tests ;;
sanitize) install_missing; sanitize ;;
fuzz) install_missing "${FUZZ_PACKAGES[@]}"; fuzz "${2:-}" ;;
*) echo "usage: $0 demo|test|sanitize|fuzz [SECONDS]" >&2; exit 2 ;;
esac

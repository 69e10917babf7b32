#!/bin/bash
# A VM on a kel the way a libvirt host runs it: libvirtd on host A (in host A's network
# namespace, with a mount namespace of its own for its state and configuration) calls the
# product's hook, which binds the port named in the domain's metadata to a macvtap VNIC
# before qemu starts; qemu opens that macvtap (type ethernet, managed='no'); the guest
# takes its port's address by DHCP and reaches a guest on host B; destroying the domain
# releases the port. A domain whose metadata names a port badly does not start.
# Usage: libvirt.sh KELADM KELD HOOK IMAGE_DIR. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
hook=$(readlink -f "$3")
image_dir=$4
here=$(dirname "$(readlink -f "$0")")
. "$here/fabric_lib.sh"
. "$here/vm_lib.sh"

fabric_require || { echo "SKIPPED: $fabric_skip"; exit 77; }
vm_require || { echo "SKIPPED: $vm_skip"; exit 77; }
for tool in libvirtd virsh nsenter; do
	command -v "$tool" >/dev/null || { echo "SKIPPED: $tool is not installed (libvirt-daemon-driver-qemu, libvirt-clients)"; exit 77; }
done
t_all=$SECONDS
vm_image "$image_dir" || { echo "SKIPPED: no guest image: $vm_skip"; exit 77; }

lv=
declare -A lv_pid=()
down() {
	local node
	for node in "${!lv_pid[@]}"; do
		lv_virsh "$node" destroy kelvm >/dev/null 2>&1
		kill "${lv_pid[$node]}" 2>/dev/null
	done
	[ -n "$pinger" ] && kill "$pinger" 2>/dev/null
	vm_cleanup
	[ -f "$lv/taps" ] && while read -r t; do rm -f "$t"; done <"$lv/taps"
	fabric_down
	[ -n "$lv" ] && rm -rf "$lv"
}
pinger=
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap down EXIT
lv=$(mktemp -d /tmp/kel-libvirt-XXXXXX)

fabric_configure
quiet ctl set-controlprop vxlan-mgroup=
quiet ctl create-kel -p l2-type=vxlan kv
quiet ctl add-ipnet -p subnet=10.95.0.0/24 kv/net
IFS=: read -r _ mac <<<"$(keladm_on ctl add-vport -p ipaddr=10.95.0.21 --parseable -o ipaddr,macaddr kv/vm | sed 's/\\:/-/g')"
mac=$(IFS=-; set -- $mac; printf '%02x:%02x:%02x:%02x:%02x:%02x' "0x$1" "0x$2" "0x$3" "0x$4" "0x$5" "0x$6")
quiet ctl add-vport -p ipaddr=10.95.0.12 kv/b
quiet hb create-vnic --address kv/b "$(guest b1)/eth0"

# Debian's libvirtd wants its qemu user to exist before it reads qemu.conf, which runs
# qemu as root here: a passwd and group of its own name it.
(cat /etc/passwd; echo "libvirt-qemu:x:64055:64055::/var/lib/libvirt:/usr/sbin/nologin") >"$lv/passwd"
(cat /etc/group; echo "libvirt-qemu:x:64055:") >"$lv/group"

# lv_start NODE: libvirtd on host NODE, in its network namespace and with its host name,
# listening for its peer's migrations on the underlay.
lv_start() {
	local node=$1 d=$lv/$1
	mkdir -p "$d/bin" "$d/etc/hooks/qemu.d"
	# What libvirtd's hooks run is keladm from its PATH: here the build's, on this host's
	# tree. libvirtd passes its hooks no KEL_ROOT, so this stand-in sets it (and the
	# fabric's ssh settings); it also makes the macvtap's /dev/tapN where no devtmpfs does
	# (udev's job on a real host), and notes each call.
	cat >"$d/bin/keladm" <<EOF
#!/bin/sh
echo "\$*" >>"$d/keladm-calls"
KEL_ROOT=$fabric_root/$node KEL_SSH_CONFIG=$fabric_root/ssh_config "$keladm_bin" "\$@" || exit
[ "\$1" = create-vnic ] || exit 0
for v; do :; done
n=\$(cat "/sys/class/net/\$v/ifindex") && dev=\$(cat /sys/class/net/"\$v"/macvtap/tap*/dev) || exit 0
[ -c "/dev/tap\$n" ] || { mknod "/dev/tap\$n" c "\${dev%%:*}" "\${dev#*:}" && echo "/dev/tap\$n" >>"$lv/taps"; }
exit 0
EOF
	chmod 755 "$d/bin/keladm"
	ln -s "$hook" "$d/etc/hooks/qemu.d/kel"
	# A daemon in a container: no cgroups, no machine registration, no labels, qemu as
	# root, its output to files rather than to a log daemon.
	cat >"$d/etc/qemu.conf" <<EOF
user = "root"
group = "root"
dynamic_ownership = 0
remember_owner = 0
security_driver = "none"
cgroup_controllers = [ ]
namespaces = [ ]
stdio_handler = "file"
EOF
	# Both daemons run on one machine: each its own host UUID, or the migration is refused
	# as one to the same host.
	cat >"$d/etc/libvirtd.conf" <<EOF
auth_unix_rw = "none"
auth_unix_ro = "none"
listen_tls = 0
listen_tcp = 1
listen_addr = "$(node_addr "$node")"
auth_tcp = "none"
host_uuid = "$(cat /proc/sys/kernel/random/uuid)"
log_outputs = "3:file:$d/libvirtd.log"
EOF
	: >"$d/etc/libvirt.conf"
	# Its state, caches and sockets on tmpfs in its own mount namespace; /etc/libvirt is
	# the scratch tree.
	on "$node" unshare --mount --propagation private sh -c '
		for d in /run /var/lib /var/cache /var/log; do mount -t tmpfs tmpfs "$d" || exit 1; done
		mount --bind "$1/etc" /etc/libvirt || exit 1
		if ! getent passwd libvirt-qemu >/dev/null; then
			mount --bind "$2/passwd" /etc/passwd && mount --bind "$2/group" /etc/group || exit 1
		fi
		echo $$ >"$1/pid"
		exec env PATH="$1/bin:/usr/sbin:/usr/bin:/sbin:/bin" libvirtd --listen' sh "$d" "$lv" >"$d/libvirtd.out" 2>&1 &
}
lv_virsh() {
	local node=$1
	shift
	nsenter -t "${lv_pid[$node]}" -m -n -u virsh -q -c qemu:///system "$@"
}
# lv_ready NODE: waits for the daemon on NODE to answer.
lv_ready() {
	local node=$1 d=$lv/$1 t0=$SECONDS
	for _ in $(seq 100); do [ -s "$d/pid" ] && break; sleep 0.1; done
	lv_pid[$node]=$(cat "$d/pid" 2>/dev/null)
	[ -n "${lv_pid[$node]}" ] || { echo "SKIPPED: libvirtd did not start on $node: $(tail -3 "$d/libvirtd.out")"; exit 77; }
	until lv_virsh "$node" version >/dev/null 2>&1; do
		if ! kill -0 "${lv_pid[$node]}" 2>/dev/null || [ $((SECONDS - t0)) -gt 30 ]; then
			echo "SKIPPED: libvirtd on $node does not answer: $(cat "$d/libvirtd.out"; grep -v -e dnsmasq -e DBus -e dmidecode -e DMI -e /dev/mem "$d/libvirtd.log" | tail -3)"
			exit 77
		fi
		sleep 0.2
	done
}
t0=$SECONDS
lv_start ha
lv_start hb
lv_ready ha
lv_ready hb
echo "both libvirtds answer in $((SECONDS - t0))s"

# The guest's two serial ports as vm_lib.sh's qemu has them: the kernel's messages to a
# file, the command loop on a pipe pair; a directory vm_run knows, one for each host the
# machine runs on.
vm_root=$(mktemp -d /tmp/kel-vm-XXXXXX)
mkdir "$vm_root/i1" "$vm_root/i2" && ln -s i1 "$vm_root/vm"
mkfifo "$vm_root/i1/ctl.in" "$vm_root/i1/ctl.out" "$vm_root/i2/ctl.in" "$vm_root/i2/ctl.out"
uuid=$(cat /proc/sys/kernel/random/uuid)
dtype=qemu cpu=
if [ "$vm_accel" = kvm ]; then dtype=kvm cpu="<cpu mode='host-passthrough'/>"; fi
# domain_xml VNIC [INSTANCE]
domain_xml() {
	local vnic=$1 inst=$vm_root/${2:-i1}
	cat <<EOF
<domain type='$dtype'>
  <name>kelvm</name>
  <uuid>$uuid</uuid>
  <metadata>
    <kel:ports xmlns:kel="https://libkel.invalid/xmlns/vm/1">
      <kel:port kel="kv" vport="vm" vnic="$vnic"/>
    </kel:ports>
  </metadata>
  <memory unit='MiB'>$vm_mem</memory>
  <vcpu>1</vcpu>
  $cpu
  <os>
    <type arch='x86_64' machine='pc'>hvm</type>
    <kernel>$vm_kernel</kernel>
    <initrd>$vm_initrd</initrd>
    <cmdline>console=ttyS0 panic=-1 quiet</cmdline>
  </os>
  <on_reboot>destroy</on_reboot>
  <on_crash>destroy</on_crash>
  <devices>
    <emulator>$(command -v qemu-system-x86_64)</emulator>
    <interface type='ethernet'>
      <mac address='$mac'/>
      <target dev='$vnic' managed='no'/>
      <model type='virtio'/>
      <rom enabled='no'/>
    </interface>
    <serial type='file'><source path='$inst/console.log'/><target port='0'/></serial>
    <serial type='pipe'><source path='$inst/ctl'/><target port='1'/></serial>
    <controller type='usb' model='none'/>
    <memballoon model='none'/>
  </devices>
</domain>
EOF
}

# A name that would reach a shell unchecked: the hook refuses it and the domain stays
# off, its port free.
domain_xml 'vm;x' >"$lv/bad.xml"
lv_virsh ha define "$lv/bad.xml" >/dev/null
out=$(lv_virsh ha start kelvm 2>&1)
check "a domain whose port names the VNIC 'vm;x' does not start (the hook refuses it)" \
	grep -q 'no valid link name' <<<"$out"
check "and its port stays free" test "$(keladm_on ctl show-vport -p -o status kv/vm)" = free
lv_virsh ha undefine kelvm >/dev/null

# qemu's pid, as the daemon on NODE keeps it, for vm_run to know the machine runs.
lv_qemu_pid() { nsenter -t "${lv_pid[$1]}" -m cat /run/libvirt/qemu/kelvm.pid 2>/dev/null; }

domain_xml vmtap0 >"$lv/vm.xml"
check "the domain is defined" lv_virsh ha define "$lv/vm.xml"
t0=$SECONDS
out=$(lv_virsh ha start kelvm 2>&1)
rc=$?
[ "$rc" = 0 ] || echo "$out"
check "virsh start runs it" test "$rc" = 0
check "the hook bound the port to its VNIC on host A with the domain's UUID as vmid" \
	grep -qx "create-vnic --macvtap --may-exist -p vmid=$uuid kv/vm vmtap0" "$lv/ha/keladm-calls"
check "the port is bound to host A's vmtap0" \
	test "$(keladm_on ctl show-vport -p -o status,host,vnic kv/vm)" = "bound:kel-ha:vmtap0"
check "vmtap0 is a macvtap with the port's MAC, and up" test \
	"$(ip -n "$(host_ns ha)" -d -o link show vmtap0 | grep -o 'macvtap\|link/ether [0-9a-f:]*\|,UP' | tr '\n' ' ')" = \
	",UP link/ether $mac macvtap "
lv_qemu_pid ha >"$vm_root/i1/pid"
if vm_wait_boot vm 120; then
	lease=$(vm_run vm 'for i in $(seq 40); do [ -s /run/lease ] && break; sleep 0.5; done; sort /run/lease' 40)
	echo "the VM booted and took its lease in $((SECONDS - t0))s"
	check "the VM's DHCP client takes its port's address from host A's responder" \
		grep -qx "ip=10.95.0.21" <<<"$lease"
else
	check "the VM boots under libvirt" false
fi
pings_ok() { ip netns exec "$(guest b1)" ping -q -c 2 -W 2 "$1" >/dev/null; }
check "host B's guest reaches the VM at its port's address" pings_ok 10.95.0.21
check "and the VM host B's guest" vm_run vm 'ping -q -c 1 -W 2 10.95.0.12 >/dev/null' 20

# The live move to host B's libvirtd: its hook makes host B's vmtap0 (down until the
# machine runs there), and host A's release lets the port go to it. The destination's
# XML differs only in where its serial ports go.
domain_xml vmtap0 i2 >"$lv/vm-b.xml"
ip netns exec "$(guest b1)" ping -q -i 0.02 -W 1 10.95.0.21 >"$lv/pings" 2>&1 &
pinger=$!
sleep 1
t0=$SECONDS
out=$(lv_virsh ha migrate --live --xml "$lv/vm-b.xml" kelvm qemu+tcp://10.77.0.3/system tcp://10.77.0.3 2>&1)
rc=$?
echo "virsh migrate took $((SECONDS - t0))s"
[ "$rc" = 0 ] || echo "$out"
sleep 1
kill -INT "$pinger"
wait "$pinger" 2>/dev/null
pinger=
check "virsh migrate --live moves it to host B" test "$rc" = 0
check "host B's hook bound its vmtap0 with the same vmid" \
	grep -qx "create-vnic --macvtap --may-exist -p vmid=$uuid kv/vm vmtap0" "$lv/hb/keladm-calls"
check "host A's released its own" grep -qx "delete-vnic --if-exists vmtap0" "$lv/ha/keladm-calls"
check "the port went to host B" \
	test "$(keladm_on ctl show-vport -p -o status,host,vnic kv/vm)" = "bound:kel-hb:vmtap0"
check "host B's vmtap0 is up" test -n "$(ip -n "$(host_ns hb)" -o link show vmtap0 up)"
sent=$(sed -n 's/^\([0-9]*\) packets transmitted.*/\1/p' "$lv/pings")
got=$(sed -n 's/.* \([0-9]*\) received.*/\1/p' "$lv/pings")
lost=$((${sent:-0} - ${got:-0}))
check "the VM kept talking through the move ($lost of ${sent:-0} pings lost)" \
	test "${sent:-0}" -ge 50 -a "$lost" -le 25
ln -sfn i2 "$vm_root/vm"
lv_qemu_pid hb >"$vm_root/i2/pid"
check "from host B it reaches host B's guest" vm_run vm 'ping -q -c 1 -W 2 10.95.0.12 >/dev/null' 20

lv_virsh hb destroy kelvm >/dev/null
check "virsh destroy on host B has its hook release the port: it is free" \
	test "$(keladm_on ctl show-vport -p -o status kv/vm)" = free
check "vmtap0 is gone from both hosts" \
	fails sh -c "ip -n $(host_ns ha) link show vmtap0 || ip -n $(host_ns hb) link show vmtap0" 2>/dev/null

echo "libvirt scenario done in $((SECONDS - t_all))s"
exit $fail

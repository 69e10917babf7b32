# Real virtual machines for the end-to-end scenarios: a small Linux guest under qemu on a
# macvtap link, commands run inside it, and live migration to another macvtap. Source it;
# then:
#   vm_require            checks what it needs (a reason in $vm_skip)
#   vm_image DIR          the guest's kernel and initramfs, made once into DIR from Debian's
#                         packages (kept there too) and reused after that; sets $vm_kernel,
#                         $vm_initrd, $vm_kernel_pkg and $vm_busybox (a static busybox the
#                         host may run as a test peer)
#   vm_start NAME NETNS LINK MAC [KARG...]
#                         boots VM NAME in namespace NETNS on macvtap LINK, whose address
#                         becomes MAC too (a macvtap passes on only the frames sent to
#                         its own); KARGs go on the guest's kernel command line:
#                           vm.ip=dhcp (the default) or vm.ip=ADDR/PREFIX, vm.gw=ADDR,
#                           vm.mtu=N
#   vm_wait_boot NAME [SECONDS]  waits until the guest's command loop answers
#   vm_run NAME CMD [SECONDS]    runs CMD (sh) in the guest; prints its output, returns
#                         its status (124 when it did not finish in time, 125 when the
#                         VM is gone). One at a time for a VM: the guest takes commands in
#                         turn, and a command still running after its time delays the next.
#                         `ping` there is the full one (-M do); what CMD starts in the
#                         background should write to a file, not to its output.
#   vm_migrate NAME NETNS LINK ADDR [PORT]
#                         moves running VM NAME live into namespace NETNS on macvtap
#                         LINK, over tcp ADDR:PORT (ADDR in NETNS); NAME then names the
#                         moved VM; $vm_migrate_ms and $vm_downtime_ms tell how long the
#                         move took and how long the guest stood still. A move that fails
#                         leaves the VM running where it was.
#   vm_qmp NAME JSON      one qemu QMP command ('{"execute":...}'); prints the reply line
#   vm_stop NAME          ends VM NAME
#   vm_cleanup            ends every VM and removes every file of this library (for the
#                         caller's trap)
# The guest runs on KVM where /dev/kvm opens and runs a guest (unless KEL_VM_ACCEL=tcg),
# else on qemu's own emulation (TCG).
# vm_accel tells which. Every VM of the script shares one scratch tree, $vm_root; in
# $vm_root/NAME are its kernel's messages (console.log) and qemu's (qemu.log).

vm_skip=
vm_root=
vm_kernel=
vm_initrd=
vm_busybox=
vm_kernel_pkg=
vm_accel=
vm_migrate_ms=
vm_downtime_ms=
vm_mem=${vm_mem:-128}
vm_seq=0

vm_require() {
	[ "$(id -u)" = 0 ] || { vm_skip="needs root"; return 1; }
	local tool kvm
	for tool in qemu-system-x86_64 ip ss cpio gzip dpkg dpkg-deb apt-get apt-cache ldd base64 flock mkfifo mknod; do
		command -v "$tool" >/dev/null || { vm_skip="$tool is not installed"; return 1; }
	done
	# KEL_VM_ACCEL=tcg forces the emulation, for a host whose KVM does not run guests.
	vm_accel=tcg
	if [ "${KEL_VM_ACCEL:-}" != tcg ] && [ -c /dev/kvm ] && { exec {kvm}<>/dev/kvm; } 2>/dev/null; then
		exec {kvm}>&-
		vm_kvm_runs && vm_accel=kvm
	fi
	return 0
}

# Some hosts open /dev/kvm yet cannot run a guest on it (a nested hypervisor that refuses
# a CPU register qemu sets at reset: qemu aborts at once). A stopped machine (-S) shows
# it: one that works stays up until the timeout, a broken one dies in milliseconds. Such
# a host runs the guests on emulation, and says so.
vm_kvm_runs() {
	local out rc=0
	out=$(timeout 2 qemu-system-x86_64 -accel kvm -cpu host -machine pc -m 64 -S -nodefaults \
		-display none -monitor none -serial none 2>&1) || rc=$?
	[ "$rc" = 124 ] && return 0
	echo "vm: this host's KVM does not run a guest, so the guests run on emulation (qemu said: ${out%%$'\n'*})" >&2
	return 1
}

# The guest's /init: the virtio network card's modules, eth0 configured from the kernel
# command line, then the command loop on the second serial port (the first one carries
# the kernel's messages).
vm_init_script() {
	cat <<'INIT'
#!/bin/sh
export PATH=/usr/local/bin:/bin:/sbin:/usr/bin:/usr/sbin
/bin/busybox --install -s
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /run /tmp
mount -t devpts devpts /dev/pts
while read -r m; do insmod "/lib/modules/$m.ko" || echo "init: cannot load $m"; done </modules
ip=dhcp gw= mtu=
for a in $(cat /proc/cmdline); do
	case $a in
	vm.ip=*) ip=${a#vm.ip=} ;;
	vm.gw=*) gw=${a#vm.gw=} ;;
	vm.mtu=*) mtu=${a#vm.mtu=} ;;
	esac
done
ip link set lo up
ip link set eth0 up
if [ "$ip" = dhcp ]; then
	# Back to the command loop after ten tries at most; the client keeps asking then.
	udhcpc -i eth0 -s /udhcpc.sh -O mtu -t 10 -T 1 -A 1 -b -p /run/udhcpc.pid
else
	ip addr add "$ip" dev eth0
	[ -n "$mtu" ] && ip link set eth0 mtu "$mtu"
	[ -n "$gw" ] && ip route add default via "$gw"
fi
tty=/dev/ttyS1
stty -F $tty raw -echo
exec <$tty >$tty 2>&1
# This busybox runs its own applets before anything on PATH: the fuller ping is put
# first by name.
ping() { /usr/local/bin/ping "$@"; }
echo "@@vm-ready"
# One command a line: "ID BASE64"; its output comes between the two markers.
while IFS= read -r line; do
	id=${line%% *}
	cmd=$(echo "${line#* }" | base64 -d)
	echo "@@vm-begin $id"
	(eval "$cmd") </dev/null 2>&1
	echo "@@vm-end $id $?"
done
echo "init: command loop ended" >/dev/console
exec sleep 1000000
INIT
}

# What udhcpc runs on each event: address, prefix, first router and MTU (option 26)
# from the lease.
vm_udhcpc_script() {
	cat <<'SCRIPT'
#!/bin/sh
case $1 in
deconfig)
	ip addr flush dev "$interface"
	ip link set "$interface" up
	;;
bound | renew)
	[ -n "$mtu" ] && ip link set "$interface" mtu "$mtu"
	if [ "$1" = bound ]; then ip addr flush dev "$interface"; fi
	ip addr replace "$ip/${mask:-24}" dev "$interface"
	if [ -n "$router" ]; then
		set -- $router
		ip route replace default via "$1" dev "$interface"
	fi
	env | grep -E '^(ip|mask|subnet|router|dns|mtu|lease|serverid)=' >/run/lease
	;;
esac
exit 0
SCRIPT
}

# Modules that NAMES need, dependencies first, from the modules' own "depends=" fields
# under module tree DIR (the package ships no modules.dep).
vm_module_order() {
	local dir=$1 seen=" " name
	shift
	_vm_mod_visit() {
		local m=$1 file deps d
		case $seen in *" $m "*) return 0 ;; esac
		seen="$seen$m "
		file=$(find "$dir" -name "$m.ko" -print -quit)
		[ -z "$file" ] && file=$(find "$dir" -name "${m//_/-}.ko" -print -quit)
		[ -n "$file" ] || { echo "no module $m" >&2; return 1; }
		deps=$(tr '\0' '\n' <"$file" | sed -n 's/^depends=//p' | head -1)
		for d in ${deps//,/ }; do _vm_mod_visit "$d" || return 1; done
		echo "${file#"$dir"/}"
	}
	for name in "$@"; do _vm_mod_visit "$name" || return 1; done
}

# A dynamically linked host program and the libraries it loads, into tree ROOT.
vm_copy_program() {
	local root=$1 prog=$2 dest=$3 lib
	install -D -m 755 "$prog" "$root$dest" || return 1
	for lib in $(ldd "$prog" | grep -o '/[^ ]*'); do
		install -D -m 755 "$(readlink -f "$lib")" "$root$lib" || return 1
	done
}

# What makes the image out of the packages: when it changes, the image is made anew
# from the packages kept in the image directory.
vm_recipe() {
	{ vm_init_script; vm_udhcpc_script; declare -f vm_assemble vm_module_order vm_copy_program; } |
		sha256sum | cut -c1-16
}

vm_image() {
	local dir=$1 lock rc=0 recipe stamp=
	mkdir -p "$dir" && dir=$(readlink -f "$dir") || return 1
	recipe=$(vm_recipe)
	[ -f "$dir/ready" ] && read -r stamp _ <"$dir/ready"
	if [ "$stamp" != "$recipe" ]; then
		# Two scenarios that start together make it once.
		exec {lock}>"$dir/lock"
		flock "$lock"
		[ -f "$dir/ready" ] && read -r stamp _ <"$dir/ready"
		[ "$stamp" = "$recipe" ] || vm_build_image "$dir" "$recipe" || rc=$?
		exec {lock}>&-
		[ "$rc" = 0 ] || return "$rc"
	fi
	read -r _ vm_kernel_pkg _ <"$dir/ready"
	vm_kernel=$dir/vmlinuz
	vm_initrd=$dir/initrd.gz
	vm_busybox=$dir/busybox
}

# The kernel package of the day and busybox-static into DIR; sets kpkg.
vm_download() {
	local debs=$1
	# linux-image-amd64 only names the kernel of the day: the versioned package it depends
	# on holds it.
	kpkg=$(apt-cache depends linux-image-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -1)
	[ -n "$kpkg" ] || return 1
	(cd "$debs" && apt-get download -q -o APT::Sandbox::User=root "$kpkg" busybox-static)
}

# DIR RECIPE. Callers test vm_image's status, which turns errexit off in here: every step
# is checked by hand, and a failed build leaves no image that looks ready.
vm_build_image() {
	local dir=$1 recipe=$2 work kpkg= debs root
	# What a build that was killed left behind.
	rm -rf "$dir"/build-* "$dir/ready"
	work=$(mktemp -d "$dir/build-XXXXXX") || return 1
	debs=$dir/debs root=$work/root
	mkdir -p "$root" || return 1
	if ls "$debs"/linux-image-*.deb "$debs"/busybox-static_*.deb >/dev/null 2>&1; then
		kpkg=$(dpkg-deb -f "$(ls "$debs"/linux-image-*.deb | head -1)" Package)
	else
		rm -rf "$debs"
		mkdir -p "$work/debs" || return 1
		# Package lists that are missing or older than the archive name nothing to download.
		if ! vm_download "$work/debs" >"$work/download.log" 2>&1; then
			apt-get update -qq >>"$work/download.log" 2>&1 || true
			rm -f "$work/debs"/*
			if ! vm_download "$work/debs" >>"$work/download.log" 2>&1; then
				vm_skip="cannot download the kernel (${kpkg:-linux-image-amd64 names none}) and busybox-static: $(grep -E '^(E|W):' "$work/download.log" | tail -1)"
				rm -rf "$work"
				return 1
			fi
		fi
		mv "$work/debs" "$debs" || return 1
	fi
	if vm_assemble "$work" "$debs" "$root"; then
		mv "$work/vmlinuz" "$work/initrd.gz" "$work/busybox" "$dir/" &&
			echo "$recipe $kpkg" >"$dir/ready" && rm -rf "$work" && return 0
	fi
	vm_skip="the guest image could not be made: ${vm_skip:-see above}"
	rm -rf "$work"
	return 1
}

# WORK DEBS ROOT: the unpacked packages' kernel, modules and busybox, with the init and
# udhcpc scripts, into WORK/vmlinuz, WORK/initrd.gz and WORK/busybox.
vm_assemble() {
	local work=$1 debs=$2 root=$3 kver moddir mod m want=()
	dpkg -x "$debs"/linux-image-*.deb "$work/kernel" || return 1
	dpkg -x "$debs"/busybox-static_*.deb "$work/bb" || return 1
	kver=$(ls "$work/kernel/lib/modules") && [ -f "$work/kernel/boot/vmlinuz-$kver" ] ||
		{ vm_skip="no kernel in the package"; return 1; }
	moddir=$work/kernel/lib/modules/$kver/kernel
	mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,usr/local/bin,lib/modules,proc,sys,dev,run,tmp,etc} &&
		install -m 755 "$work/bb/bin/busybox" "$root/bin/busybox" &&
		ln -s busybox "$root/bin/sh" || return 1
	# Whatever of the virtio PCI transport and network card this kernel has as modules
	# (the rest is built in, and needs nothing here).
	for m in VIRTIO:virtio VIRTIO_RING:virtio_ring VIRTIO_PCI:virtio_pci VIRTIO_NET:virtio_net; do
		if grep -q "^CONFIG_${m%%:*}=m" "$work/kernel/boot/config-$kver"; then want+=("${m#*:}"); fi
	done
	: >"$work/order"
	if [ ${#want[@]} -gt 0 ]; then
		vm_module_order "$moddir" "${want[@]}" >"$work/order" ||
			{ vm_skip="kernel $kver lacks virtio modules"; return 1; }
	fi
	: >"$root/modules"
	while read -r mod; do
		install -D -m 644 "$moddir/$mod" "$root/lib/modules/$(basename "$mod")" || return 1
		basename "$mod" .ko >>"$root/modules"
	done <"$work/order"
	# The host's ping: busybox's cannot forbid fragmenting (-M do), which path MTU checks
	# need.
	vm_copy_program "$root" "$(command -v ping)" /usr/local/bin/ping || return 1
	vm_init_script >"$root/init" && vm_udhcpc_script >"$root/udhcpc.sh" &&
		chmod 755 "$root/init" "$root/udhcpc.sh" || return 1
	(cd "$root" && find . | cpio -o -H newc --quiet | gzip -6) >"$work/initrd.gz" || return 1
	cp "$work/kernel/boot/vmlinuz-$kver" "$work/vmlinuz" &&
		install -m 755 "$work/bb/bin/busybox" "$work/busybox"
}

# The files of VM NAME: $vm_root/NAME points to the qemu instance that runs it now.
vm_dir() { readlink -f "$vm_root/$1"; }

# NETNS LINK MAC DIR: a device node for macvtap LINK's tap in DIR. Without udev in the
# namespace nobody makes /dev/tapN, and the numbers show only in the namespace's /sys.
vm_tap_node() {
	local ns=$1 link=$2 mac=$3 dir=$4 dev cur
	ip -n "$ns" link show "$link" >/dev/null 2>&1 || { echo "vm: no link $link in $ns" >&2; return 1; }
	# macvtap hands a frame to its tap only when it is addressed to the link's own MAC.
	cur=$(ip netns exec "$ns" cat "/sys/class/net/$link/address")
	[ "$cur" = "$mac" ] || ip -n "$ns" link set "$link" address "$mac" || return 1
	ip -n "$ns" link set "$link" up || return 1
	dev=$(ip netns exec "$ns" sh -c 'cat /sys/class/net/"$1"/macvtap/tap*/dev' sh "$link") ||
		{ echo "vm: $link in $ns is no macvtap" >&2; return 1; }
	mknod "$dir/tap" c "${dev%%:*}" "${dev#*:}" || return 1
	local fd
	{ exec {fd}<>"$dir/tap"; } 2>/dev/null || {
		echo "vm: cannot open the tap of $link through $dir/tap (a file system mounted nodev?)" >&2
		return 1
	}
	exec {fd}>&-
}

# Starts a qemu in namespace NETNS for instance directory DIR, on the tap node in DIR,
# with the machine of $DIR/args and any further qemu options.
vm_qemu() {
	local ns=$1 dir=$2
	shift 2
	local args=()
	mapfile -t args <"$dir/args"
	mkfifo "$dir/ctl.in" "$dir/ctl.out" "$dir/qmp.in" "$dir/qmp.out"
	ip netns exec "$ns" qemu-system-x86_64 "${args[@]}" \
		-chardev "file,id=con,path=$dir/console.log" -serial chardev:con \
		-chardev "pipe,id=ctl,path=$dir/ctl" -serial chardev:ctl \
		-chardev "pipe,id=qmp,path=$dir/qmp" -mon chardev=qmp,mode=control \
		-pidfile "$dir/pid" -daemonize "$@" 3<>"$dir/tap" 2>"$dir/qemu.log" || {
		echo "vm: qemu did not start: $(tail -3 "$dir/qemu.log")" >&2
		return 1
	}
	echo "$ns" >"$dir/netns"
	vm_qmp_dir "$dir" '{"execute":"qmp_capabilities"}' >/dev/null
}

vm_start() {
	local name=$1 ns=$2 link=$3 mac=$4
	shift 4
	[ -n "$vm_accel" ] || vm_require || return 1
	[ -n "$vm_kernel" ] || { echo "vm: vm_image first" >&2; return 1; }
	[ -n "$vm_root" ] || vm_root=$(mktemp -d /tmp/kel-vm-XXXXXX)
	[ -e "$vm_root/$name" ] && { echo "vm: $name runs already" >&2; return 1; }
	local dir=$vm_root/i$((++vm_seq))
	mkdir "$dir"
	vm_tap_node "$ns" "$link" "$mac" "$dir" || return 1
	local cpu=()
	[ "$vm_accel" = kvm ] && cpu=(-cpu host)
	# One argument a line: the destination of a migration starts the same machine.
	printf '%s\n' -accel "$vm_accel" -machine pc "${cpu[@]}" -m "$vm_mem" -smp 1 \
		-display none -nodefaults -no-reboot -no-user-config \
		-kernel "$vm_kernel" -initrd "$vm_initrd" \
		-append "console=ttyS0 panic=-1 quiet $*" \
		-netdev tap,id=n0,fd=3 -device "virtio-net-pci,netdev=n0,mac=$mac,romfile=" >"$dir/args"
	ln -s "$(basename "$dir")" "$vm_root/$name"
	vm_qemu "$ns" "$dir"
}

# Whether the qemu of instance DIR still runs.
vm_alive_dir() {
	local pid
	pid=$(cat "$1/pid" 2>/dev/null) && [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null
}

# Reads a line from fd FD into vm_line within the deadline (in SECONDS), while the qemu
# of instance DIR runs; a line that arrives in pieces is put together.
vm_read_line() {
	local fd=$1 deadline=$2 dir=$3 part
	vm_line=
	while [ "$SECONDS" -le "$deadline" ]; do
		if IFS= read -r -t 1 part <&"$fd"; then
			vm_line=${vm_line}${part%$'\r'}
			return 0
		fi
		vm_line=$vm_line$part
		vm_alive_dir "$dir" || return 1
	done
	return 1
}

# DIR JSON: one QMP command to the qemu of instance DIR; prints its reply.
vm_qmp_seq=0
vm_qmp_dir() {
	local dir=$1 cmd=$2 id in out deadline rc=1
	id=q$$-$((++vm_qmp_seq))
	exec {in}<>"$dir/qmp.in" {out}<>"$dir/qmp.out"
	printf '%s\n' "${cmd%\}},\"id\":\"$id\"}" >&"$in"
	deadline=$((SECONDS + 30))
	while vm_read_line "$out" "$deadline" "$dir"; do
		# Events and the greeting come on the same channel: only the reply counts.
		if [[ $vm_line == *"\"id\": \"$id\""* ]]; then
			echo "$vm_line"
			[[ $vm_line == *'"return"'* ]] && rc=0
			break
		fi
	done
	exec {in}>&- {out}>&-
	return "$rc"
}

vm_qmp() { vm_qmp_dir "$(vm_dir "$1")" "$2"; }

vm_wait_boot() {
	local name=$1 limit=${2:-120} dir out deadline
	dir=$(vm_dir "$name")
	exec {out}<>"$dir/ctl.out"
	deadline=$((SECONDS + limit))
	while :; do
		if ! vm_alive_dir "$dir"; then
			echo "vm: $name stopped while booting; its console:" >&2
			tail -20 "$dir/console.log" >&2
			break
		fi
		vm_read_line "$out" "$deadline" "$dir" || {
			echo "vm: $name did not boot in ${limit}s; its console:" >&2
			tail -20 "$dir/console.log" >&2
			break
		}
		if [ "$vm_line" = "@@vm-ready" ]; then
			exec {out}>&-
			return 0
		fi
	done
	exec {out}>&-
	return 1
}

vm_run_seq=0
vm_run() {
	local name=$1 cmd=$2 limit=${3:-60} dir id in out deadline begun= rc=124
	dir=$(vm_dir "$name")
	vm_alive_dir "$dir" || { echo "vm: $name is not running" >&2; return 125; }
	id=r$$-$((++vm_run_seq))
	exec {in}<>"$dir/ctl.in" {out}<>"$dir/ctl.out"
	printf '%s %s\n' "$id" "$(printf '%s' "$cmd" | base64 -w0)" >&"$in"
	deadline=$((SECONDS + limit))
	while :; do
		if ! vm_read_line "$out" "$deadline" "$dir"; then
			vm_alive_dir "$dir" || rc=125
			break
		fi
		# Whatever came before this command's begin marker belongs to an earlier one.
		if [ -z "$begun" ]; then
			[ "$vm_line" = "@@vm-begin $id" ] && begun=yes
			continue
		fi
		if [[ $vm_line == "@@vm-end $id "* ]]; then
			rc=${vm_line##* }
			break
		fi
		printf '%s\n' "$vm_line"
	done
	exec {in}>&- {out}>&-
	[ "$rc" = 124 ] && echo "vm: '$cmd' did not finish in ${limit}s on $name" >&2
	return "$rc"
}

vm_stop_dir() {
	local dir=$1 pid
	pid=$(cat "$dir/pid" 2>/dev/null) || return 0
	[ -n "$pid" ] || return 0
	kill "$pid" 2>/dev/null || return 0
	for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
	kill -9 "$pid" 2>/dev/null || true
}

vm_stop() {
	local dir
	dir=$(vm_dir "$1")
	vm_stop_dir "$dir"
	rm -f "$vm_root/$1"
}

vm_migrate() {
	local name=$1 ns=$2 link=$3 addr=$4 port=${5:-47000} src dst mac
	src=$(vm_dir "$name")
	vm_alive_dir "$src" || { echo "vm: $name is not running" >&2; return 1; }
	mac=$(grep -o 'mac=[0-9a-f:]*' "$src/args" | cut -d= -f2)
	dst=$vm_root/i$((++vm_seq))
	mkdir "$dst" && cp "$src/args" "$dst/args" || return 1
	if ! vm_tap_node "$ns" "$link" "$mac" "$dst" || ! vm_move "$name" "$src" "$dst" "$ns" "$addr" "$port"; then
		# The guest goes on where it was.
		vm_stop_dir "$dst"
		return 1
	fi
	ln -sfn "$(basename "$dst")" "$vm_root/$name"
	vm_stop_dir "$src"
}

# NAME SRC DST NETNS ADDR PORT: the move itself, from instance SRC to a new one, DST.
vm_move() {
	local name=$1 src=$2 dst=$3 ns=$4 addr=$5 port=$6 reply status deadline
	vm_qemu "$ns" "$dst" -incoming "tcp:$addr:$port" || return 1
	deadline=$((SECONDS + 10))
	until ip netns exec "$ns" ss -Hltn | grep -q " $addr:$port "; do
		[ "$SECONDS" -le "$deadline" ] || { echo "vm: nothing listens on $addr:$port in $ns" >&2; return 1; }
		sleep 0.1
	done
	# qemu's own cap on migration bandwidth is made for busy production links.
	vm_qmp_dir "$src" '{"execute":"migrate-set-parameters","arguments":{"max-bandwidth":4294967296}}' >/dev/null || return 1
	vm_qmp_dir "$src" "{\"execute\":\"migrate\",\"arguments\":{\"uri\":\"tcp:$addr:$port\"}}" >/dev/null || return 1
	deadline=$((SECONDS + 120))
	while :; do
		reply=$(vm_qmp_dir "$src" '{"execute":"query-migrate"}') || return 1
		status=$(echo "$reply" | grep -o '"status": "[a-z-]*"' | head -1 | cut -d'"' -f4)
		case $status in
		completed) break ;;
		failed | cancelled)
			echo "vm: migration of $name $status: $reply" >&2
			return 1 ;;
		esac
		if [ "$SECONDS" -gt "$deadline" ]; then
			echo "vm: migration of $name not done in 120s: $reply" >&2
			vm_qmp_dir "$src" '{"execute":"migrate_cancel"}' >/dev/null
			return 1
		fi
		sleep 0.1
	done
	vm_migrate_ms=$(echo "$reply" | grep -o '"total-time": [0-9]*' | grep -o '[0-9]*$')
	vm_downtime_ms=$(echo "$reply" | grep -o '"downtime": [0-9]*' | grep -o '[0-9]*$')
	deadline=$((SECONDS + 30))
	until vm_qmp_dir "$dst" '{"execute":"query-status"}' | grep -q '"status": "running"'; do
		[ "$SECONDS" -le "$deadline" ] || { echo "vm: $name does not run after its migration" >&2; return 1; }
		sleep 0.1
	done
}

vm_cleanup() {
	local dir
	[ -n "$vm_root" ] || return 0
	for dir in "$vm_root"/i*; do
		[ -d "$dir" ] && vm_stop_dir "$dir"
	done
	rm -rf "$vm_root"
	vm_root=
}

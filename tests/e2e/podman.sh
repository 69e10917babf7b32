#!/bin/bash
# A real container runtime puts a container on a kel: podman, with its CNI network
# backend, starts a container from a local root file system (a static busybox, no image
# to download) on host A of the fabric, on a kel network made of one configuration file
# naming the plugin. The container takes its port's address and reaches a guest on host
# B; `podman rm` releases the port.
# Usage: podman.sh KELADM KELD PLUGIN. Exit 77 (skipped) when it cannot run here.
set -u
keladm_bin=$(readlink -f "$1")
keld=$(readlink -f "$2")
plugin=$(readlink -f "$3")
here=$(dirname "$(readlink -f "$0")")
. "$here/fabric_lib.sh"

fabric_require || { echo "SKIPPED: $fabric_skip"; exit 77; }
command -v podman >/dev/null || { echo "SKIPPED: podman is not installed"; exit 77; }
[ -x /usr/lib/cni/loopback ] || { echo "SKIPPED: the distribution's container network plugins are not installed"; exit 77; }
busybox=$(command -v busybox) && ! ldd "$busybox" >/dev/null 2>&1 ||
	{ echo "SKIPPED: no static busybox (busybox-static) for the container's root file system"; exit 77; }
holder=
down() {
	[ -n "$holder" ] && {
		pod rm -af -t 0 >/dev/null 2>&1
		kill "$holder"
	}
	fabric_down
}
fabric_up || { echo "SKIPPED: $fabric_skip"; exit 77; }
trap down EXIT

fabric_configure
quiet ctl set-controlprop vxlan-mgroup=
quiet ctl create-kel -p l2-type=vxlan apps
quiet ctl add-ipnet -p subnet=10.98.0.0/24 apps/front
quiet hb create-vnic --address apps "$(guest b1)/eth0"
peer=$(keladm_on hb show-vnic -p -o ipaddr "$(guest b1)/eth0")

# Host A's keld and podman share one mount namespace, as on a real host: the namespace
# podman makes for the container under /run/netns must be there for keld too.
ns_a=$(host_ns ha)
# The fabric's keld there goes first, and is waited for: a second keld refuses to start
# while the first still holds its pid file.
for pid in $(ip netns pids "$ns_a"); do
	[ "$(cat "/proc/$pid/comm")" = keld ] || continue
	kill "$pid"
	for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
done
# A machine whose cgroups mix both versions, with controllers on the unified hierarchy,
# is one the container runtime refuses: that namespace does without the unified one.
nsenter --net="/run/netns/$ns_a" unshare --mount --uts --propagation slave sh -c \
	"mount --bind /etc/netns/$ns_a/hosts /etc/hosts && hostname kel-ha &&
	 { ! mountpoint -q /sys/fs/cgroup/unified || umount /sys/fs/cgroup/unified; } && exec sleep infinity" &
holder=$!
in_a() { nsenter -t "$holder" -m -u -n env KEL_ROOT="$fabric_root/ha" KEL_SSH_CONFIG="$fabric_root/ssh_config" "$@"; }
for _ in $(seq 50); do [ "$(in_a hostname 2>/dev/null)" = kel-ha ] && break; sleep 0.1; done
rm -f "$fabric_root/ha/run/kel/keld.sock"
in_a "$keld" 2>>"$fabric_root/ha/keld.log" &
for _ in $(seq 100); do [ -S "$fabric_root/ha/run/kel/keld.sock" ] && break; sleep 0.05; done

# podman's own folders, its CNI backend over the plugin's folder and the distribution's,
# and the network: one file.
p=$fabric_root/podman
mkdir -p "$p/net.d" "$p/rootfs/bin"
# podman runs DEL from its clean-up process, which does not carry podman's environment:
# the plugin it finds sets the host's KEL_ROOT, as /etc/kel would be on a real host.
mkdir -p "$p/plugins"
cat >"$p/plugins/kel" <<WRAP
#!/bin/sh
KEL_ROOT=$fabric_root/ha KEL_SSH_CONFIG=$fabric_root/ssh_config exec $plugin
WRAP
chmod +x "$p/plugins/kel"
cat >"$p/containers.conf" <<CONF
[network]
network_backend = "cni"
cni_plugin_dirs = ["$p/plugins", "/usr/lib/cni"]
network_config_dir = "$p/net.d"
CONF
cat >"$p/net.d/apps.conflist" <<'CONF'
{"cniVersion": "1.0.0", "name": "apps", "plugins": [{"type": "kel", "kel": "apps"}]}
CONF
install -m 755 "$busybox" "$p/rootfs/bin/busybox"
ln -s busybox "$p/rootfs/bin/sh"
podman_opts=(--root "$p/storage" --runroot "$p/run" --storage-driver vfs --cgroup-manager cgroupfs
	--events-backend none)
pod() { in_a env CONTAINERS_CONF="$p/containers.conf" podman "${podman_opts[@]}" "$@"; }
# The limits podman would raise for the container are lowered: raising them needs a
# capability the test's machine may not grant.
check "podman starts a container from a local root file system on the kel network" \
	pod run -d --name c1 --network apps --ulimit nofile=1024:1024 --ulimit nproc=1024:1024 \
	--rootfs "$p/rootfs" /bin/busybox sleep 600
id=$(pod inspect -f '{{.Id}}' c1)
IFS=: read -r vnic port_ip <<<"$(keladm_on ctl show-vport -p -o vnic,ipaddr apps | grep '^netns-')"
check "its port is bound to its interface in the namespace podman made ($vnic, $port_ip)" \
	test "${vnic#*/}" = eth0
has_address() { pod exec c1 /bin/busybox ip -o addr show eth0 | grep -q "inet $port_ip "; }
check "the container has its port's address" has_address
check "and reaches the guest on host B" pod exec c1 /bin/busybox ping -c 1 -w 10 "${peer%/*}"
check "show-vnic on host A lists its VNIC with podman's container ID" \
	test "$(in_a "$keladm_bin" show-vnic -p -o vnic,mtu,container "$vnic")" = "$vnic:1450:$id"
check "and its counters, read by keld" test "$(in_a "$keladm_bin" show-vnic -p -o opackets "$vnic")" -ge 1
check "podman rm releases the port" pod rm -f -t 0 c1
check "and nothing of the container is left bound" \
	test -z "$(keladm_on ctl show-vport -p -o vnic,status apps | grep '^netns-')"
exit $fail

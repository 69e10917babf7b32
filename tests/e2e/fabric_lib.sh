# A fabric of three hosts in network namespaces, for the end-to-end scenario and the
# demonstration. Source it with keladm_bin and keld set; then:
#   fabric_require     checks what it needs (a reason in $fabric_skip)
#   fabric_up          makes the hosts, the underlay, the guests; starts sshd and keld
#   fabric_configure   the controller's store and every host's controller setting
#   on NODE CMD...     runs CMD on ctl, ha or hb: in its namespace, with its host name,
#                      hosts file and KEL_ROOT
#   guest NAME         the namespace of guest NAME (a1 b1 a2 b2 a3 b3)
#   fabric_down        stops everything and removes every namespace and file
#   check WHAT CMD...  a scenario's check: "ok: WHAT" or "FAILED: WHAT" (then fail=1);
#                      "check WHAT fails CMD..." wants CMD to fail
#   quiet NODE ARGS... a keladm step on NODE whose output is not the point
#   keladm_on NODE ARGS...  keladm on NODE
# Host names are kel-ctl, kel-ha and kel-hb, at 10.77.0.1-3 on the underlay; a caller
# that sets fabric_nodes to ctl and h0, h1... first has hosts kel-h0... at 10.77.0.10 and
# up (and fabric_guests to the guests it wants). sshd logs each session. With
# fabric_kel_group set before fabric_up, every host has a group "kel" (whose members
# keld serves), its ID in $fabric_kel_gid. With fabric_login set to a user name, hosts
# log in to each other as that user, in group kel, and never as root; the user and the
# group exist in the hosts' own passwd and group files alone (ip netns exec puts
# /etc/netns/NS/* over /etc/*), so that nothing of the machine's is added or changed.
# fabric_keld_args, when set, are options every host's keld is started with.

fabric_tag=$$
fabric_root=
fabric_skip=
fabric_nodes="ctl ha hb"
fabric_guests="a1 b1 a2 b2 a3 b3"
fabric_made_netns_dir=
fabric_login=root

fail=0
check() {
	local what=$1
	shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}
fails() { ! "$@"; }
keladm_on() {
	local node=$1
	shift
	on "$node" "$keladm_bin" "$@"
}
quiet() {
	keladm_on "$@" >/dev/null || { echo "FAILED: keladm ${*:2} on $1"; fail=1; }
}

host_ns() { echo "kf$1-$fabric_tag"; }
guest() { echo "kfg$1-$fabric_tag"; }
node_addr() { case $1 in ctl) echo 10.77.0.1 ;; ha) echo 10.77.0.2 ;; hb) echo 10.77.0.3 ;; h*) echo "10.77.0.$((10 + ${1#h}))" ;; esac; }

on() {
	local node=$1
	shift
	KEL_ROOT=$fabric_root/$node KEL_SSH_CONFIG=$fabric_root/ssh_config \
		ip netns exec "$(host_ns "$node")" unshare --uts sh -c 'hostname "$0" && exec "$@"' "kel-$node" "$@"
}

fabric_require() {
	[ "$(id -u)" = 0 ] || { fabric_skip="needs root"; return 1; }
	local tool
	for tool in ip bridge tc nft ssh ssh-keygen /usr/sbin/sshd unshare ping sysctl pgrep; do
		command -v "$tool" >/dev/null || { fabric_skip="$tool is not installed"; return 1; }
	done
}

# The hosts' group file: the machine's, with a group "kel" when it has none.
fabric_kel_gid=
fabric_group_file() {
	fabric_kel_gid=$(awk -F: '$1 == "kel" { print $3 }' /etc/group)
	cat /etc/group
	if [ -z "$fabric_kel_gid" ]; then
		fabric_kel_gid=64977
		while getent group "$fabric_kel_gid" >/dev/null; do fabric_kel_gid=$((fabric_kel_gid + 1)); done
		echo "kel:x:$fabric_kel_gid:"
	fi
}

# The hosts' passwd file: the machine's, where fabric_login is a throwaway user of its own
# (whatever the machine may hold by that name) whose group is kel and whose home is in
# the scratch tree. Its UID is one the machine does not use.
fabric_login_uid=
fabric_passwd_file() {
	fabric_login_uid=64977
	while getent passwd "$fabric_login_uid" >/dev/null; do fabric_login_uid=$((fabric_login_uid + 1)); done
	awk -F: -v user="$fabric_login" '$1 != user' /etc/passwd
	echo "$fabric_login:x:$fabric_login_uid:$fabric_kel_gid::$fabric_root/home:/bin/sh"
}

fabric_up() {
	fabric_root=$(mktemp -d /tmp/kel-fabric-XXXXXX)
	local node g ns n
	[ "$fabric_login" = root ] || fabric_kel_group=yes
	[ -d /etc/netns ] || fabric_made_netns_dir=yes
	ip netns add "kfnet-$fabric_tag" 2>/dev/null || { fabric_skip="network namespaces cannot be made here"; return 1; }
	ip -n "kfnet-$fabric_tag" link add br0 type bridge mcast_snooping 0 ||
		{ fabric_skip="no bridge links"; return 1; }
	ip -n "kfnet-$fabric_tag" link set br0 up
	for node in $fabric_nodes; do
		ns=$(host_ns "$node")
		ip netns add "$ns"
		# ip netns exec mounts these over /etc/hosts for the host's processes only.
		mkdir -p "/etc/netns/$ns"
		{
			echo "127.0.0.1 localhost"
			for n in $fabric_nodes; do echo "$(node_addr "$n") kel-$n"; done
		} >"/etc/netns/$ns/hosts"
		[ -n "${fabric_kel_group:-}" ] && fabric_group_file >"/etc/netns/$ns/group"
		[ "$fabric_login" = root ] || fabric_passwd_file >"/etc/netns/$ns/passwd"
		ip -n "$ns" link set lo up
		ip link add eth0 netns "$ns" type veth peer name "$node" netns "kfnet-$fabric_tag" ||
			{ fabric_skip="no veth links"; return 1; }
		ip -n "kfnet-$fabric_tag" link set "$node" master br0 up
		ip -n "$ns" addr add "$(node_addr "$node")/24" dev eth0
		ip -n "$ns" link set eth0 up
		mkdir -p "$fabric_root/$node/etc/kel"
	done
	for g in $fabric_guests; do
		ns=$(guest "$g")
		ip netns add "$ns"
		ip -n "$ns" link set lo up
		# Quiet guests: no IPv6 chatter in the counters.
		ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
	done
	fabric_start_daemons
}

# sshd on every host with throwaway keys (fabric_login may log in with the one client
# key); then keld. A session runs keld by the path it is installed at, as clients name it,
# the build's keld standing in for it, with the host's KEL_ROOT; anything else is refused,
# keld by name included, which a login's PATH would not find on a real host.
fabric_start_daemons() {
	local node ns sock permit_root=prohibit-password keld_umask
	keld_umask=$(umask)
	if [ "$fabric_login" != root ]; then
		permit_root=no
		# keld under its unit's umask: what the login may use of its files is then down
		# to the modes keld gives them, as on a real host.
		keld_umask=077
		# The login reaches its home and the hosts' sockets in the scratch tree.
		chmod 755 "$fabric_root"
		mkdir -m 755 "$fabric_root/home"
		chown "$fabric_login_uid:$fabric_kel_gid" "$fabric_root/home"
	fi
	mkdir -p /run/sshd
	ssh-keygen -q -t ed25519 -N '' -f "$fabric_root/hostkey"
	ssh-keygen -q -t ed25519 -N '' -f "$fabric_root/clientkey"
	cp "$fabric_root/clientkey.pub" "$fabric_root/authorized_keys"
	: >"$fabric_root/empty_rc"
	cat >"$fabric_root/ssh_config" <<CONF
Host *
  IdentityFile $fabric_root/clientkey
  StrictHostKeyChecking no
  UserKnownHostsFile /dev/null
  LogLevel ERROR
  ConnectTimeout 10
CONF
	for node in $fabric_nodes; do
		cat >"$fabric_root/$node/sshd_config" <<CONF
ListenAddress $(node_addr "$node")
HostKey $fabric_root/hostkey
AuthorizedKeysFile $fabric_root/authorized_keys
PermitRootLogin $permit_root
PasswordAuthentication no
StrictModes no
UsePAM no
PidFile $fabric_root/$node/sshd.pid
LogLevel VERBOSE
ForceCommand export KEL_ROOT=$fabric_root/$node; set -f; set -- \$SSH_ORIGINAL_COMMAND; case \$1 in /*/keld) shift; exec $keld "\$@" ;; esac; exit 127
CONF
		# In the foreground (it is stopped with its namespace), so that its log reaches
		# the file. Its sessions run root's shell, which may read start-up files of the
		# machine's own (~/.bashrc): they see an empty one, in sshd's mount namespace alone.
		on "$node" sh -c 'mount --bind "$0" "$HOME/.bashrc" 2>/dev/null; exec "$@"' "$fabric_root/empty_rc" \
			/usr/sbin/sshd -D -e -f "$fabric_root/$node/sshd_config" 2>>"$fabric_root/$node/sshd.log" &
		# shellcheck disable=SC2086 # the options are words
		on "$node" sh -c 'umask "$0" && exec "$@"' "$keld_umask" "$keld" ${fabric_keld_args:-} \
			2>>"$fabric_root/$node/keld.log" &
	done
	for node in $fabric_nodes; do
		ns=$(host_ns "$node")
		sock=$fabric_root/$node/run/kel/keld.sock
		for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
		for _ in $(seq 100); do ip netns exec "$ns" ss -ltn | grep -q ":22 " && break; sleep 0.05; done
	done
}

fabric_configure() {
	local node prop
	on ctl "$keladm_bin" create-store
	for prop in vlan-range=100-199 vxlan-range=5000-5999 uri-template=ssh://$fabric_login@ \
		uplink-port=eth0,flat=yes vxlan-addr=10.77.0.0/24 vxlan-mgroup=239.7.7.7; do
		on ctl "$keladm_bin" set-controlprop "$prop" >/dev/null
	done
	on ctl "$keladm_bin" set-clientprop controller=unix:// >/dev/null
	for node in $fabric_nodes; do
		[ "$node" = ctl ] || on "$node" "$keladm_bin" set-clientprop controller=ssh://$fabric_login@kel-ctl >/dev/null
	done
}

fabric_down() {
	local ns
	[ -n "$fabric_root" ] || return 0
	for ns in $(for n in $fabric_nodes net; do host_ns "$n"; done) $(for g in $fabric_guests; do guest "$g"; done); do
		ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null || true
	done
	wait 2>/dev/null || true
	for ns in $(for n in $fabric_nodes net; do host_ns "$n"; done) $(for g in $fabric_guests; do guest "$g"; done); do
		ip netns del "$ns" 2>/dev/null || true
		rm -rf "/etc/netns/$ns"
	done
	if [ -n "$fabric_made_netns_dir" ]; then rmdir /etc/netns 2>/dev/null || true; fi
	rm -rf "$fabric_root"
	fabric_root=
}

# Two hosts in network namespaces joined by veth, for the ssh scenarios: "ctl" (10.78.0.1)
# reaches the keld of "node" (10.78.0.2) over ssh, through a real sshd with throwaway
# keys. Source it with keld set to the build's keld; then:
#   ssh_require [TOOL...] skips the scenario (exit 77) when it cannot run here, or
#                         a TOOL it needs besides ip and ssh's is missing
#   ssh_up [LINE...]      makes the hosts, starts keld and sshd on the node (LINEs are
#                         added to sshd's configuration) and sets, for the controller's
#                         side, KEL_SSH_CONFIG and KEL_ROOT (where its control sockets go)
#   check WHAT CMD...     a scenario's check: "ok: WHAT" or "FAILED: WHAT" (then fail=1)
# After ssh_up: $ctl and $node name the namespaces, $root the scratch tree, $sock the
# node's keld socket, $uri the ssh:// URI of that keld, and $root/sshd.log is sshd's log.
# Everything goes when the script exits.

ssh_tag=$$
ctl=kele2e-ctl-$ssh_tag
node=kele2e-node-$ssh_tag
root=
sshd_pid=
keld_pid=

fail=0
check() {
	local what=$1
	shift
	if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; fail=1; fi
}

skip() { echo "SKIPPED: $*"; exit 77; }

ssh_require() {
	[ "$(id -u)" = 0 ] || skip "needs root"
	local tool
	for tool in ip ssh ssh-keygen /usr/sbin/sshd "$@"; do
		command -v "$tool" >/dev/null || skip "$tool is not installed"
	done
}

ssh_down() {
	# The controller's shared ssh connections outlive their calls: they go first.
	ip netns pids "$ctl" 2>/dev/null | xargs -r kill 2>/dev/null
	[ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null
	[ -n "$sshd_pid" ] && kill "$sshd_pid" 2>/dev/null
	wait 2>/dev/null
	ip netns del "$ctl" 2>/dev/null
	ip netns del "$node" 2>/dev/null
	[ -n "$root" ] && rm -rf "$root"
}

ssh_up() {
	root=$(mktemp -d /tmp/kel-e2e-XXXXXX)
	trap ssh_down EXIT
	ip netns add "$ctl" 2>/dev/null || skip "network namespaces cannot be made here"
	ip netns add "$node" || skip "network namespaces cannot be made here"
	ip link add kc netns "$ctl" type veth peer name kn netns "$node" || skip "no veth links"
	ip -n "$ctl" addr add 10.78.0.1/24 dev kc
	ip -n "$ctl" addr add 10.78.0.99/24 dev kc
	ip -n "$node" addr add 10.78.0.2/24 dev kn
	local ns
	for ns in "$ctl" "$node"; do ip -n "$ns" link set lo up; done
	ip -n "$ctl" link set kc up
	ip -n "$node" link set kn up

	# The node: keld under its own KEL_ROOT, and sshd with a throwaway host key that lets
	# root in with a throwaway client key. Sessions run keld by the path it is installed
	# at ("<sbindir>/keld bridge PATH"), the build's keld standing in for it, and nothing
	# else.
	mkdir -p "$root/node/etc/kel" /run/sshd
	ssh-keygen -q -t ed25519 -N '' -f "$root/hostkey"
	ssh-keygen -q -t ed25519 -N '' -f "$root/clientkey"
	cp "$root/clientkey.pub" "$root/authorized_keys"
	cat >"$root/sshd_config" <<CONF
ListenAddress 10.78.0.2
HostKey $root/hostkey
AuthorizedKeysFile $root/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
StrictModes no
UsePAM no
PidFile $root/sshd.pid
ForceCommand set -f; set -- \$SSH_ORIGINAL_COMMAND; case \$1 in /*/keld) shift; exec $keld "\$@" ;; esac; exit 127
CONF
	local line
	for line in "$@"; do echo "$line" >>"$root/sshd_config"; done
	KEL_ROOT=$root/node ip netns exec "$node" "$keld" &
	keld_pid=$!
	ip netns exec "$node" /usr/sbin/sshd -D -e -f "$root/sshd_config" 2>"$root/sshd.log" &
	sshd_pid=$!
	sock=$root/node/run/kel/keld.sock
	local _
	for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
	for _ in $(seq 100); do ip netns exec "$node" ss -ltn 2>/dev/null | grep -q 10.78.0.2:22 && break; sleep 0.05; done

	# The controller's side: its ssh settings through KEL_SSH_CONFIG.
	cat >"$root/ssh_config" <<CONF
Host *
  IdentityFile $root/clientkey
  StrictHostKeyChecking no
  UserKnownHostsFile /dev/null
  LogLevel ERROR
  ConnectTimeout 10
CONF
	export KEL_SSH_CONFIG=$root/ssh_config
	export KEL_ROOT=$root/ctl	# where the controller keeps its ssh control sockets
	uri=ssh://root@10.78.0.2$sock
}

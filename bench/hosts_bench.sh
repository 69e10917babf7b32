#!/bin/bash
# The controller reaching its hosts over ssh. One network namespace plays H hosts: an
# sshd listening on H ports (one per simulated host, so each has a connection of its
# own), a keld, and a veth link per host for its VNIC. The controller, in a second
# namespace, has a kel "one" with a port bound on one host and a kel "web" with a port
# bound on each of the H hosts. Prints, as JSON lines (times in ms):
#   - a port property change on one host: first call (a new ssh connection), second call
#     within a minute (the shared connection);
#   - one call without keladm and the store, five rounds of: through the shared
#     connection's forward, on a session of the shared connection (the forward refused),
#     and on the host itself over keld's socket;
#   - a kel property change reaching 1 host and reaching H hosts, with connections not
#     shared (KEL_SSH_PERSIST=0: every host pays its ssh set-up, in parallel), and
#     then shared.
# Usage: hosts_bench.sh KELD KELADM NUQ_CALL [H]   (default H: 50). Needs root; exits
# 77 otherwise.
set -u
keld=$(realpath "$1")
keladm=$(realpath "$2")
nuq_call=$(realpath "$3")
hosts=${4:-50}
skip() { echo "SKIPPED: $*" >&2; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
for tool in ip ssh ssh-keygen /usr/sbin/sshd sqlite3; do
	command -v "$tool" >/dev/null || skip "$tool is not installed"
done

tag=$$
ctl=kelbench-ctl-$tag
node=kelbench-node-$tag
root=$(mktemp -d /tmp/kel-hosts-bench-XXXXXX)
cleanup() {
	for ns in "$ctl" "$node"; do ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null; done
	wait 2>/dev/null
	ip netns del "$ctl" 2>/dev/null
	ip netns del "$node" 2>/dev/null
	rm -rf "$root"
}
[ -n "${KEEP:-}" ] || trap cleanup EXIT
ip netns add "$ctl" 2>/dev/null || skip "network namespaces cannot be made here"
ip netns add "$node" || skip "network namespaces cannot be made here"
ip link add kc netns "$ctl" type veth peer name kn netns "$node" || skip "no veth links"
ip -n "$ctl" addr add 10.79.0.1/24 dev kc
ip -n "$node" addr add 10.79.0.2/24 dev kn
for ns in "$ctl" "$node"; do ip -n "$ns" link set lo up; done
ip -n "$ctl" link set kc up
ip -n "$node" link set kn up
# Each host's VNIC, recorded as a node's attach records it: keld acts on no other link.
mkdir -p "$root/node/run/kel/vnics"
for ((i = 0; i < hosts; i++)); do
	ip -n "$node" link add "b$i" link kn type macvlan mode bridge
	printf 'mac=02:00:00:00:%02x:%02x\nlower=kn\n' $((i / 256)) $((i % 256)) >"$root/node/run/kel/vnics/b$i"
done

mkdir -p "$root/node/etc/kel" "$root/ctl/etc/kel" /run/sshd
ssh-keygen -q -t ed25519 -N '' -f "$root/hostkey"
ssh-keygen -q -t ed25519 -N '' -f "$root/clientkey"
cp "$root/clientkey.pub" "$root/authorized_keys"
# sshd listens on at most 16 ports: one sshd per 16 simulated hosts.
for ((first = 0; first < hosts; first += 16)); do
	{
		# Ports first: a ListenAddress listens on the ports named before it.
		for ((i = first; i < hosts && i < first + 16; i++)); do echo "Port $((20000 + i))"; done
		echo "ListenAddress 10.79.0.2"
		cat <<CONF
HostKey $root/hostkey
AuthorizedKeysFile $root/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
StrictModes no
UsePAM no
MaxStartups 200
PidFile $root/sshd-$first.pid
ForceCommand export KEL_ROOT=$root/node; set -f; set -- \$SSH_ORIGINAL_COMMAND; case \$1 in /*/keld) shift; exec $keld "\$@" ;; esac; exit 127
CONF
	} >"$root/sshd-$first.config"
done
{
	for ((i = 0; i < hosts; i++)); do printf 'Host h%d\n  Port %d\n' "$i" $((20000 + i)); done
	cat <<CONF
Host *
  HostName 10.79.0.2
  IdentityFile $root/clientkey
  StrictHostKeyChecking no
  UserKnownHostsFile /dev/null
  LogLevel ERROR
  ConnectTimeout 10
CONF
} >"$root/ssh_config"
KEL_ROOT=$root/node ip netns exec "$node" "$keld" 2>"$root/keld.log" &
# Each session runs root's shell, which may read start-up files of the machine's own
# (~/.bashrc); they are not the fabric's cost, so the node's sshd sees an empty one.
: >"$root/empty_rc"
for ((first = 0; first < hosts; first += 16)); do
	ip netns exec "$node" unshare -m sh -c "mount --bind '$root/empty_rc' \"\$HOME/.bashrc\" 2>/dev/null;
		exec /usr/sbin/sshd -e -f '$root/sshd-$first.config'" 2>>"$root/sshd.log"
done
for _ in $(seq 100); do [ -S "$root/node/run/kel/keld.sock" ] && break; sleep 0.05; done
for _ in $(seq 100); do ip netns exec "$node" ss -ltn | grep -q ":$((20000 + hosts - 1)) " && break; sleep 0.05; done

export KEL_ROOT=$root/ctl KEL_SSH_CONFIG=$root/ssh_config
adm() { ip netns exec "$ctl" "$keladm" "$@"; }
adm create-store >/dev/null
adm set-controlprop uplink-port=net0 >/dev/null
adm set-controlprop uri-template=ssh://root@ >/dev/null
adm create-kel -p l2-type=flat one >/dev/null
adm add-ipnet -p subnet=10.80.0.0/16 one/n1 >/dev/null
adm create-kel -p l2-type=flat web >/dev/null
adm add-ipnet -p subnet=10.81.0.0/16 web/n2 >/dev/null
adm add-vport one/p0 >/dev/null
for ((i = 0; i < hosts; i++)); do adm add-vport "web/p$i" >/dev/null; done
# The bindings as a node's attach would write them.
sqlite3 "$root/ctl/etc/kel/kel.db" \
	"UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h' || substr(vport_name, 2),
	 vport_vnicname = 'b' || substr(vport_name, 2)"

. "$(dirname "$0")/bench_lib.sh"
# ms LABEL ARGS...: one keladm call, timed; a failed call stops the bench.
ms() {
	local label=$1 t0 us
	shift
	t0=$(now_us)
	adm "$@" >/dev/null || { echo "hosts_bench: keladm $* failed" >&2; cat "$root/keld.log" "$root/sshd.log" >&2; exit 1; }
	us=$(($(now_us) - t0))
	echo "{\"hosts\": $hosts, \"op\": \"$label\", \"ms\": $(ms_text $us)}"
}

ms "vport property, first call to its host" set-vportprop -p maxbw=11M one/p0
ms "vport property, second call within a minute" set-vportprop -p maxbw=12M one/p0
ms "vport property, third call" set-vportprop -p maxbw=13M one/p0
# The call alone, without keladm and the store: a datalink's statistics. Forwarded (the
# shared connection relays it to keld's socket), on a session of the shared connection
# (ssh, a remote shell and "keld bridge" started for it: what calls do where the host
# refuses forwards, as the marker file says here), on the host over keld's socket, and
# the calling process alone. All from one shell in the controller's namespace: entering
# a namespace costs more than a call.
share_dir=$root/ctl/run/kel/ssh-0
remote="ssh://root@h0$root/node/run/kel/keld.sock"
ip netns exec "$ctl" "$nuq_call" "$remote" harl.Datalink getStat name=b0 >/dev/null
ls "$share_dir"/*.keld >/dev/null 2>&1 || { echo "hosts_bench: the shared connection forwards nothing" >&2; exit 1; }
refused=$(ls "$share_dir"/*.setup)
refused=${refused%.setup}.refused
ip netns exec "$ctl" bash -c '
	. "$1"
	for round in 1 2 3 4 5; do
		for way in forwarded session local "process alone"; do
			uri=$3
			[ "$way" = local ] && uri=unix://$4
			rm -f "$5"
			[ "$way" = session ] && : >"$5"
			t0=$(now_us)
			if [ "$way" = "process alone" ]; then "$2" 2>/dev/null; else "$2" "$uri" harl.Datalink getStat name=b0 >/dev/null; fi
			us=$(($(now_us) - t0))
			echo "{\"hosts\": $6, \"op\": \"one call, $way\", \"round\": $round, \"ms\": $(ms_text $us)}"
		done
	done
	rm -f "$5"' _ "$(dirname "$0")/bench_lib.sh" "$nuq_call" "$remote" "$root/node/run/kel/keld.sock" "$refused" "$hosts"

# The fan-out, to one host and to every host: each host pays its ssh set-up (in
# parallel), then shares its standing connection.
ip netns pids "$ctl" | xargs -r kill 2>/dev/null	# no connection left to share
KEL_SSH_PERSIST=0 ms "kel property, 1 host, not shared" set-kelprop -p priority=high one
KEL_SSH_PERSIST=0 ms "kel property, $hosts hosts, not shared" set-kelprop -p priority=high web
ms "kel property, $hosts hosts, opening shared connections" set-kelprop -p priority=low web
ms "kel property, 1 host, shared" set-kelprop -p priority=low one
ms "kel property, $hosts hosts, shared" set-kelprop -p priority=medium web

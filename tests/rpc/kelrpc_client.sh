#!/bin/bash
# The Python client of keld's wire (dist/python/kelrpc.py) against a real keld: each
# interface answers through it what keladm shows of the same store and links; keld's
# errors come back as the module's exceptions with their codes; ssh through "keld
# bridge"; a caller keld turns away; a restarted keld; replies no keld would send.
# Usage: kelrpc_client.sh [KELD [KELADM]]; exit 77 (skipped) when it cannot run here.
src=$(cd "$(dirname "$0")/../.." && pwd)
keld=$(readlink -f "${1:-$src/build/cmd/keld/keld}")
keladm_path=$(readlink -f "${2:-$src/build/cmd/keladm/keladm}")
skip() { echo "SKIPPED: $*"; exit 77; }
command -v python3 >/dev/null || skip "python3 is not installed"
python3 -c 'import sys; sys.exit(sys.version_info < (3, 6))' || skip "python3 is older than 3.6"
[ "$(id -u)" = 0 ] || skip "needs root: keld serves root and the group kel"
[ -x "$keld" ] && [ -x "$keladm_path" ] || skip "no keld or keladm built"
. "$src/tests/cli/lib.sh" "$keladm_path"
export PYTHONPATH=$src/dist/python

host=kelrpc-h$$
guest=kelrpc-g$$
keld_pid=
cleanup() {
	# The keld started last is no child of this shell: it is waited for by its pid.
	if [ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null; then
		wait "$keld_pid" 2>/dev/null
		for _ in $(seq 100); do kill -0 "$keld_pid" 2>/dev/null || break; sleep 0.05; done
	fi
	for ns in "$guest" "$host"; do ip netns del "$ns" 2>/dev/null; done
	rm -rf "$root"
}
trap cleanup EXIT

# py CODE [ARG...]: CODE runs with `k`, a client of keld's socket, and the ARGs in
# sys.argv[1:]; a failed assertion (or any exception) fails the check.
py() { python3 -c "import sys, kelrpc; k = kelrpc.connect(); $1" "${@:2}"; }
# raises EXCEPTION CODE CALL CONDITION [ARG...]: CALL must raise kelrpc.EXCEPTION with
# .code CODE, and CONDITION hold of it (`e`).
raises() {
	local exc=$1 code=$2 call=$3 extra=$4
	shift 4
	py "
try:
    $call
except kelrpc.$exc as e:
    assert e.code == $code and ($extra), (e.code, str(e))
else:
    raise AssertionError('no $exc')" "$@"
}
# A code of the library's headers, so that a renumbering cannot leave this test behind.
code_of() { sed -nE "s/^#define $1 +([0-9]+).*/\1/p" "$src"/include/kel/libkel*.h; }

# keld serves the datalinks of its network namespace: a host of its own, when one can be
# made, lets the fabric make a VNIC for it to serve. Else the datalink checks that need
# no VNIC run alone.
if host_node "$host" 10.87.0.1; then
	vnics=1
else
	ip netns del "$host" 2>/dev/null
	vnics=0
	on_host() { "$@"; }
	make_store
	"$keladm" set-clientprop controller=unix:// >/dev/null
	"$keladm" set-controlprop uri-template=unix:// >/dev/null
fi
# setup KELADM-ARGS...: what the checks build on; nothing to check without it.
setup() { "$keladm" "$@" >/dev/null || { echo "FAILED: keladm $*"; exit 1; }; }
setup create-kel -p l2-type=flat web
setup add-ipnet -p subnet=10.1.0.0/24,pool=10.1.0.2-10.1.0.9 web/n
setup add-vport -p macaddr=aa:0:0:0:0:1 web/p1
setup create-kel -T acme -p l2-type=vxlan blue
setup set-controlprop -h h1 uplink-port=eth1

keld_cmd=("$keld")
[ $vnics = 1 ] && keld_cmd=(ip netns exec "$host" "$keld")
"${keld_cmd[@]}" 2>>"$root/keld.log" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done

# --- kel.Daemon: the daemon is the one keladm asks.
check "info names this keld, its host and version, and reaches its controller" py '
i = k.info(check=True)
assert (i["host"], i["version"], i["pid"], i["controller"], i["controller_rc"]) == \
    (sys.argv[1], sys.argv[2], int(sys.argv[3]), "unix://", 0), i' \
	"$(uname -n)" "$("$keld" --version | sed -n 's/^keld //p')" "$keld_pid"
check "show-host reports what info answers" py '
i = k.info()
assert sys.argv[1] == "%s:%s:%s" % (i["host"], i["version"], i["reloads"]), (sys.argv[1], i)' \
	"$("$keladm" show-host -p -o host,version,reloads "$(uname -n)")"

# --- kelcntl.KEL and kelcntl.KELController: the store keladm made.
uuid=$("$keladm" show-kel -p -o uuid web | sed 's/\\:/:/g')
check "a kel made with keladm is found by name and by UUID, another tenant's by its tenant" py '
assert k.lookup("kelcntl.KEL", {"name": "web"}, strict=False) == {"name": "web", "tenant": "sys-global"}
assert k.lookup("kelcntl.KEL", {"name": sys.argv[1]}, strict=False)["tenant"] == "sys-global"
assert k.lookup("kelcntl.KEL", {"name": "blue", "tenant": "acme"}) == {"name": "blue", "tenant": "acme"}
try:
    k.lookup("kelcntl.KEL", {"name": "blue"}, strict=False)
    raise AssertionError("blue found in sys-global")
except kelrpc.ObjectNotFound:
    pass' "$uuid"

check "assignVPort binds the port keladm shows bound, with the host's uplink" py '
r = k.assign_vport("web", "vn0", "h1", vportname="p1")
port = r["ekelii_kelinfo"]["ekeli_vports"]
assert [(p["evpi_name"], p["evpi_hostname"], p["evpi_vnicname"], p["evpi_status"]) for p in port] == \
    [("p1", "h1", "vn0", 1)], port
assert r["ekelii_uplink_port"] == "eth1" and r["ekelii_kelinfo"]["ekeli_ipnets"][0]["eipi_name"] == "n", r'
expect "keladm sees the binding" "p1:bound:h1:vn0" show-vport -p -o name,status,host,vnic web/p1
check "getVPortInfo lists it by host, with the address keladm shows" py '
ports = k.get_vport_info("host=h1")
assert [p["evpi_name"] for p in ports] == ["p1"], ports
props = {p["epnv_name"]: p["epnv_value"] for p in ports[0]["evpi_props"]}
assert props["ipaddr"] == sys.argv[1], props
assert k.get_vport_info("host=nowhere") == []' "$("$keladm" show-vport -p -o ipaddr web/p1 | sed 's/\\:/:/g')"
check "unAssignVPort releases it, keeping the VNIC's counters with the port" py '
assert k.unassign_vport("web", "vn0", "h1", counters={"ipackets": 1, "rbytes": 2, "opackets": 3, "obytes": 4}) == {}'
expect "keladm sees it free, with those counters" "p1:free:::1:2:3:4" \
	show-vport -p -o name,status,host,vnic,ipackets,rbytes,opackets,obytes web/p1

# --- errors, as the module's exceptions with keld's codes.
check "a method's error record is a KelError carrying the library's code" \
	raises KelError -32001 'k.unassign_vport("web", "vn0", "h1")' \
	"e.err == int(sys.argv[1]) and e.errmsg == 'vport not found'" "$(code_of KEL_E_VPORT_NOTFOUND)"
check "arguments that do not fit are InvalidArguments" raises InvalidArguments -32602 'k.get_leftovers(grace=-1)' True
check "an unknown method is MethodNotFound" raises MethodNotFound -32601 'k.call("kel.Daemon", "frob")' True
check "an unknown interface is NoSuchInterface" raises NoSuchInterface -32006 'k.call("kel.Nothing", "info", keys={})' True
check "a link that is not there is ObjectNotFound" raises ObjectNotFound -32002 'k.get_stat("kelrpc-none0")' True
check "a link the fabric did not make is refused with a DatalinkError" \
	raises DatalinkError -32001 'k.get_stat("lo")' "e.err == int(sys.argv[1])" "$(code_of WEXO_STATUS_NOTFABRIC)"

# --- harl.Datalink on a VNIC the fabric made, and the controller joining its kel's hosts.
if [ $vnics = 1 ] && ip netns add "$guest"; then
	setup create-kel -p l2-type=vxlan,vni=5200 vx
	setup add-ipnet -p subnet=10.88.0.0/24 vx/vn
	setup add-vport vx/vm1
	setup create-vnic vx/vm1 "$guest/eth0"
	check "getState answers the VNIC's address and lower link, as show-vnic has them" py '
s = k.get_state(sys.argv[1])
mac, lower = sys.argv[2].replace("\\:", "\0").split(":")
octets = lambda m: [int(x, 16) for x in m.replace("\0", ":").split(":")]
assert octets(s["mac"]) == octets(mac) and s["lower"] == lower, (s, sys.argv[2])
assert (s["lower_kind"], s["lower_id"], s["local"]) == ("vxlan", 5200, "10.87.0.1"), s' \
		"$guest/eth0" "$("$keladm" show-vnic -p -o macaddr,lower "$guest/eth0")"
	check "setProperty caps the VNIC, getState reads the cap back, getStat counts" py '
link = sys.argv[1]
assert k.set_property(link, "maxbw=20M") == {}
assert k.get_state(link)["maxbw"] == 20000000
st = k.get_stat(link)
assert sorted(st) == sorted("dls_" + n for n in ("ipackets", "rbytes", "idrops", "idropbytes", "obytes",
    "opackets", "odrops", "odropbytes")) and all(type(v) is int and v >= 0 for v in st.values()), st' \
		"$guest/eth0"
	check "setFlood sets the kel link's flood list, and syncFlood puts back what the store says" py '
link = "kel-vxlan5200"
assert k.get_flood(link) == {"local": "10.87.0.1", "remotes": []}
k.set_flood(link, ["10.87.0.9"])
assert k.get_flood(link)["remotes"] == ["10.87.0.9"]
try:
    k.set_flood(link, ["127.0.0.1"])
    raise AssertionError("a loopback remote taken")
except kelrpc.DatalinkError as e:
    assert e.err == int(sys.argv[1]), e
k.sync_flood("vx")
assert k.get_flood(link)["remotes"] == []' "$(code_of WEXO_STATUS_BADVAL)"
	# Its namespace gone, the VNIC can never come back: a leftover at once, however young.
	ip netns del "$guest"
	check "getLeftovers lists the VNIC whose namespace went, and removeLeftover takes it apart" py '
found = [l for l in k.get_leftovers()["leftovers"] if l["kind"] == "vnic"]
assert [l["name"] for l in found] == [sys.argv[1]] and found[0]["age"] >= 60, found
k.remove_leftover("vnic", sys.argv[1])
assert not [l for l in k.get_leftovers()["leftovers"] if l["kind"] == "vnic"], "still listed"' "$guest/eth0"
else
	echo "skipped: the datalink checks on a VNIC (no network namespaces here)"
fi

# --- the transport.
stub=$root/stub
mkdir -p "$stub"
# ssh, standing in: runs the remote command here, as the host would.
cat >"$stub/ssh" <<EOF
#!/bin/bash
while [ \$# -gt 0 ] && [ "\$1" != "--" ]; do shift; done
shift 2
case \$1 in /*/keld) shift; exec "$keld" "\$@" ;; esac
exit 127
EOF
chmod +x "$stub/ssh"
check "over ssh through keld bridge: calls, and a socket that is not there is a ConnectError" \
	env PATH="$stub:$PATH" python3 -c '
import sys, kelrpc
with kelrpc.connect(ssh="root@node1") as k:
    assert k.info()["pid"] == int(sys.argv[1])
    assert k.get_vport_info("vport=p1")[0]["evpi_status"] == 0
try:
    kelrpc.connect(ssh="node1", remote_path="/nonexistent/keld.sock")
    raise AssertionError("connected")
except kelrpc.ConnectError as e:
    assert "cannot connect to /nonexistent/keld.sock" in str(e), e' "$keld_pid"

# A caller neither root nor in the group kel is answered before keld reads its request.
py_nobody=
for p in "$(command -v python3)" /usr/bin/python3; do
	setpriv --reuid=65534 --regid=65534 --clear-groups "$p" -c '' 2>/dev/null && py_nobody=$p && break
done
if [ -n "$py_nobody" ] && ! getent group kel | grep -qE '[:,]nobody(,|$)'; then
	chmod 0755 "$root"
	check "a caller keld turns away gets PermissionDenied" setpriv --reuid=65534 --regid=65534 --clear-groups \
		"$py_nobody" -c '
import sys; sys.path.insert(0, sys.argv[1]); import kelrpc
try:
    kelrpc.connect().info()
    raise AssertionError("served")
except kelrpc.PermissionDenied as e:
    assert e.code == -32003, e' "$PYTHONPATH"
else
	echo "skipped: the refused caller (no python3 the user nobody can run)"
fi

# keld closes a connection it no longer serves; the client's next call makes a new one.
check "a client outlives a keld restart" python3 -c '
import os, signal, subprocess, sys, time, kelrpc
k = kelrpc.connect()
old, sock = int(sys.argv[1]), sys.argv[2]
assert k.info()["pid"] == old
os.kill(old, signal.SIGTERM)
while os.path.exists(sock):
    time.sleep(0.05)
with open(sys.argv[3], "a") as log:
    subprocess.Popen(sys.argv[4:], stderr=log)
for _ in range(100):
    if os.path.exists(sock):
        break
    time.sleep(0.05)
assert k.info()["pid"] not in (old, None)' "$keld_pid" "$root/run/kel/keld.sock" "$root/keld.log" "${keld_cmd[@]}"
wait "$keld_pid" 2>/dev/null
keld_pid=$(cat "$root/run/kel/keld.pid" 2>/dev/null)

# What a hostile peer may send instead of keld's replies: every one refused, none parsed
# past its bounds, none taken for another request's answer.
check "replies no keld sends are ProtocolErrors, or a closed connection" python3 -c '
import os, socket, sys, threading, kelrpc
replies = [b"x" * (70 * 1024) + b"\n", b"[" * 100000 + b"]" * 100000 + b"\n", b"{\"id\":1,\"result\":NaN}\n",
    b"{\"id\":2,\"result\":{}}\n", b"{\"id\":true,\"result\":{}}\n", b"{\"id\":1,\"result\":\"\xff\"}\n",
    b"{\"id\":1,\"error\":{\"code\":\"-32002\"}}\n", b"{\"id\":1,\"result\":" + b"9" * 5000 + b"}\n",
    b"{\"id\":1,\"result\":{}"]
path = sys.argv[1]
server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(len(replies))
def serve():
    for r in replies:
        c, _ = server.accept()
        c.recv(4096)
        try:
            c.sendall(r)
        except OSError:
            pass
        c.close()
threading.Thread(target=serve, daemon=True).start()
for r in replies:
    try:
        kelrpc.Client(path, timeout=5, max_reply=64 * 1024).ping()
        raise AssertionError("taken: %r" % r[:40])
    except (kelrpc.ProtocolError, kelrpc.ConnectionClosed):
        pass' "$root/hostile.sock"

exit $fail

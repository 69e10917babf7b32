#!/bin/bash
# What making and removing a VNIC costs as a host's VNICs grow: `keladm create-vnic` and
# `delete-vnic` of a VNIC in a guest namespace over a flat kel's uplink, with the default
# protection (mac-nospoof, ip-nospoof), when the host already has few VNICs and when it
# has N-10 to N (default N: 400). Beside each, the kernel floor: the same link, address
# and nftables tables made by hand for one more guest, with one `ip` and one `nft` per
# namespace (the rules are the product's own, listed from the last VNIC made). Prints
# JSON lines: the medians over 10 VNICs at each end (ms), then the ratios that hold on a
# noisy machine: the cost at N against the cost at 10, and each against its floor.
# The host is a network namespace with its own keld and store (controller=unix://).
# Usage: vnic_growth_bench.sh KELADM KELD [N]. Needs root; exits 77 otherwise.
set -u
keladm_bin=$(realpath "$1")
keld=$(realpath "$2")
n=${3:-400}
skip() { echo "SKIPPED: $*" >&2; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root"
. "$(dirname "$0")/bench_lib.sh"

tag=$$
host=kelvb-$tag
root=$(mktemp -d /tmp/kel-vnic-bench-XXXXXX)
export KEL_ROOT=$root
keld_pid=
guest() { echo "kvb$1-$tag"; }
floor_ns() { echo "kvf$1-$tag"; }
cleanup() {
	[ -n "$keld_pid" ] && kill "$keld_pid" 2>/dev/null && wait "$keld_pid" 2>/dev/null
	for ns in $(ip netns list | awk '{print $1}' | grep -E -- "-$tag\$"); do ip netns del "$ns"; done
	rm -rf "$root"
}
trap cleanup EXIT
ip netns add "$host" || skip "network namespaces cannot be made here"
on_host() { ip netns exec "$host" "$@"; }
keladm() { on_host "$keladm_bin" "$@"; }
on_host ip link set lo up
on_host ip link add ep0 type veth peer name ep0p || skip "veth links cannot be made here"
on_host ip link set ep0p up && on_host ip link set ep0 up
mkdir -p "$root/etc/kel"
keladm create-store >/dev/null
keladm set-clientprop controller=unix:// >/dev/null
keladm set-controlprop uri-template=unix:// >/dev/null
keladm set-controlprop uplink-port=ep0 >/dev/null
keladm create-kel -p l2-type=flat lan >/dev/null
keladm add-ipnet -p subnet=10.0.0.0/16 lan/net >/dev/null
for ((i = 0; i < n; i++)); do keladm add-vport "lan/p$i" >/dev/null; done
# Not through on_host: a function run in the background is a subshell, and $! its pid.
ip netns exec "$host" "$keld" 2>"$root/keld.log" &
keld_pid=$!
for _ in $(seq 100); do [ -S "$root/run/kel/keld.sock" ] && break; sleep 0.05; done
for ((i = 0; i < n; i++)); do ip netns add "$(guest $i)"; done

# timed_us COMMAND...: the wall time of one run, failing the bench when it fails.
timed_us() {
	local t0=$(now_us)
	"$@" >/dev/null 2>"$root/last.err" || { echo "failed: $* ($(cat "$root/last.err"))" >&2; exit 1; }
	echo $(($(now_us) - t0))
}
median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

# floor_us I J: the floor for a guest I of its own, made like the product's VNIC J (its
# rules, listed), with one ip and one nft per namespace.
floor_us() {
	local i=$1 like=$(guest "$2") ns=$(floor_ns "$1")
	ip netns add "$ns" || exit 1
	local outside inside mac
	# The host's side: VNIC J's chains and sets of the shared table, renamed, in a table
	# of the floor's own; the guest's side: the guest's whole table.
	outside=$(on_host nft list table netdev kel |
		awk -v k="$like/eth0." '/^\t(set|chain) / { on = index($2, k) == 1 } on { print } /^\t}/ { on = 0 }' |
		sed "s#$like/eth0\.#f$i.#g")
	inside=$(ip netns exec "$like" nft list table netdev kel)
	grep -q "chain f$i.egress" <<<"$outside" && [ -n "$inside" ] || exit 1
	outside=$(printf 'table netdev floor_%s {\n%s\n}\n' "$i" "$outside")
	mac=$(printf '02:99:%02x:%02x:00:01' $((i / 256)) $((i % 256)))
	local t0=$(now_us)
	printf 'link add link ep0 name fv%s address %s type macvlan mode bridge\nlink set fv%s netns %s\n' "$i" "$mac" "$i" "$ns" |
		on_host ip -batch - &&
		printf 'link set fv%s name eth0\naddr add 10.1.%s.%s/16 dev eth0\nlink set eth0 up\n' "$i" $((i / 250)) $((i % 250 + 1)) |
		ip -n "$ns" -batch - &&
		on_host nft -f - <<<"$outside" && ip netns exec "$ns" nft -f - <<<"$inside" || exit 1
	echo $(($(now_us) - t0))
}

create() { timed_us keladm create-vnic --address "lan/p$1" "$(guest $1)/eth0"; }
delete() { timed_us keladm delete-vnic "$(guest $1)/eth0"; }

low=() high=() floor_low=() floor_high=()
for ((i = 0; i < n; i++)); do
	us=$(create $i) || exit 1
	[ $i -lt 10 ] && low+=("$us")
	[ $i -ge $((n - 10)) ] && high+=("$us")
	if [ $i -lt 10 ]; then floor_low+=("$(floor_us $((n + i)) $i)") || exit 1; fi
done
for ((i = 0; i < 10; i++)); do floor_high+=("$(floor_us $((n + 10 + i)) $((n - 1)))") || exit 1; done
# The floor's own go before the product's deletes are timed.
for ((i = n; i < n + 20; i++)); do on_host nft delete table netdev "floor_$i"; ip netns del "$(floor_ns $i)"; done
del_high=() del_low=()
for ((i = n - 1; i >= 0; i--)); do
	us=$(delete $i) || exit 1
	[ $i -ge $((n - 10)) ] && del_high+=("$us")
	[ $i -lt 10 ] && del_low+=("$us")
done
c_low=$(median "${low[@]}") c_high=$(median "${high[@]}")
d_low=$(median "${del_low[@]}") d_high=$(median "${del_high[@]}")
f_low=$(median "${floor_low[@]}") f_high=$(median "${floor_high[@]}")
ratio() { awk "BEGIN { printf \"%.2f\", $1 / $2 }"; }
echo "{\"vnics\": \"0-9\", \"create_ms\": $(ms_text "$c_low"), \"delete_ms\": $(ms_text "$d_low"), \"floor_ms\": $(ms_text "$f_low")}"
echo "{\"vnics\": \"$((n - 10))-$((n - 1))\", \"create_ms\": $(ms_text "$c_high"), \"delete_ms\": $(ms_text "$d_high"), \"floor_ms\": $(ms_text "$f_high")}"
echo "{\"create_growth\": $(ratio "$c_high" "$c_low"), \"delete_growth\": $(ratio "$d_high" "$d_low"), \"create_over_floor_low\": $(ratio "$c_low" "$f_low"), \"create_over_floor_high\": $(ratio "$c_high" "$f_high")}"

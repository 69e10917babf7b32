#!/bin/bash
# kel-rpc(7) and the Python client know every method keld serves, read from the sources
# that register them: each interface's methods are described under that interface in the
# page, and nothing else is; the protocol's own methods are described; kelrpc.METHODS
# names each method with its interface, and a Client method that calls it.
# Usage: rpc_methods.sh [SOURCE-DIR]
src=${1:-$(cd "$(dirname "$0")/../.." && pwd)}
page=$src/docs/kel-rpc.7
fail=0
bad() { echo "FAILED: $*"; fail=1; }

# "INTERFACE METHOD", for each method keld's modules register.
registered=$(awk '
	match($0, /iface\.name = "[^"]+"/) { iface = substr($0, RSTART + 14, RLENGTH - 15) }
	match($0, /iface\.methods\["[^"]+"\]/) { print iface, substr($0, RSTART + 15, RLENGTH - 17) }
' "$src"/cmd/keld/*.cc)
protocol=$(grep -oE 'req\.method [!=]= "[a-z]+"' "$src/platform/nuq/server.cc" | sed -E 's/.*"(.*)"/\1/' | sort -u)
# Fewer would mean the sources register them some other way now, which this must follow.
[ "$(wc -l <<<"$registered")" -ge 12 ] && [ "$(wc -w <<<"$protocol")" -eq 3 ] ||
	bad "cannot read the methods from cmd/keld and platform/nuq/server.cc"

# "SECTION NAME" for each tagged paragraph (.TP, then .B NAME) of the page: methods sit
# under their interface's .SS, the protocol's under its .SH.
documented=$(awk '
	/^\.SH / { section = ($0 ~ /PROTOCOL/) ? "protocol" : "" }
	/^\.SS / { section = $2; gsub(/\\%/, "", section) }
	previous == ".TP" && /^\.B / { name = $2; gsub(/\\%/, "", name); print section, name }
	{ previous = $0 }
' "$page")

while read -r iface method; do
	grep -qxF "$iface $method" <<<"$documented" || bad "kel-rpc(7) does not describe $iface $method"
done <<<"$registered"
for method in $protocol; do
	grep -qxF "protocol $method" <<<"$documented" || bad "kel-rpc(7) does not describe the protocol's $method"
done
interfaces=$(cut -d' ' -f1 <<<"$registered" | sort -u)
while read -r section name; do
	grep -qxF "$section" <<<"$interfaces" && ! grep -qxF "$section $name" <<<"$registered" &&
		bad "kel-rpc(7) describes $section $name, which keld does not serve"
done <<<"$documented"

if command -v python3 >/dev/null; then
	# shellcheck disable=SC2086 # the pairs go as separate arguments
	python3 -c '
import sys
sys.path.insert(0, sys.argv[1])
import kelrpc
served = dict(zip(sys.argv[3::2], sys.argv[2::2]))
wrong = ["has no %s %s with a Client method" % (iface, method) for method, iface in sorted(served.items())
         if kelrpc.METHODS.get(method, ("",))[0] != iface
         or not callable(getattr(kelrpc.Client, kelrpc.METHODS[method][1], None))]
wrong += ["names %s, which keld does not serve" % m for m in sorted(set(kelrpc.METHODS) - set(served))]
for w in wrong:
    print("FAILED: kelrpc.METHODS " + w)
sys.exit(1 if wrong else 0)' "$src/dist/python" $registered || fail=1
else
	echo "skipped: the Python client's methods (no python3)"
fi
[ $fail -eq 0 ] && echo "ok: kel-rpc(7) and kelrpc.py cover every method keld serves"
exit $fail

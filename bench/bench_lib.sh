# What the benchmark scripts share; sourced, not run.

# Microseconds since the epoch, from bash itself: no process per reading.
now_us() { echo $((${EPOCHREALTIME/./})); }

# ms_text US: microseconds as milliseconds with three decimals.
ms_text() { echo "$(($1 / 1000)).$(printf %03d $(($1 % 1000)))"; }

# scratch_store KELADM NAME: a fresh store under a new KEL_ROOT (exported; its path in
# $root) with one flat kel "web" whose network "n" is 10.0.0.0/8.
scratch_store() {
	root=$(mktemp -d "/tmp/kel-$2-XXXXXX")
	export KEL_ROOT=$root
	mkdir -p "$root/etc/kel"
	"$1" create-store >/dev/null
	"$1" set-controlprop uplink-port=net0 >/dev/null
	"$1" create-kel -p l2-type=flat web >/dev/null
	"$1" add-ipnet -p subnet=10.0.0.0/8 web/n >/dev/null
}

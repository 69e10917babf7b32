#!/bin/bash
# The man pages: each renders without a warning, libkel(3) covers every exported
# function, and keladm(8) every subcommand and option keladm's own help names.
# Usage: man_pages.sh DOCS-DIR KELADM LIBKEL-MAP LIBKEL-NODE-MAP
docs=$1
keladm=$2
shift 2
maps=("$@")
fail=0
command -v groff >/dev/null || { echo "skipped: groff is not installed"; exit 77; }
bad() { echo "FAILED: $*"; fail=1; }

for page in "$docs"/*.[3578]; do
	warnings=$(LC_ALL=C.UTF-8 groff -t -man -Tutf8 -ww -z "$page" 2>&1)
	[ -z "$warnings" ] || bad "$(basename "$page") renders with warnings: $warnings"
done

# Every symbol the libraries export is described.
for sym in $(sed -nE 's/^[[:space:]]+([a-z_0-9]+);$/\1/p' "${maps[@]}" | sort -u); do
	grep -qw -- "$sym" "$docs/libkel.3" || bad "libkel(3) does not describe $sym"
done

# Every subcommand, and every option its help lists, is in keladm(8).
page=$docs/keladm.8
text=$(LC_ALL=C.UTF-8 MANWIDTH=200 groff -t -man -Tutf8 "$page" 2>/dev/null | sed 's/.\x08//g')
for cmd in $("$keladm" help | sed -nE 's/^  ([a-z-]+) .*/\1/p'); do
	grep -qE "^ +$cmd( |$)" <<<"$text" || bad "keladm(8) does not describe $cmd"
	for opt in $("$keladm" help "$cmd" | sed -nE 's/^  (-[^ ,]+)(, (--[a-z-]+))? .*/\1 \3/p'); do
		grep -qF -- "$opt" <<<"$text" || bad "keladm(8) does not name $cmd's option $opt"
	done
done
for word in "--version" "-T all" "to come"; do
	found=$(grep -cF -- "$word" <<<"$text")
	if [ "$word" = "to come" ]; then [ "$found" -eq 0 ] || bad "keladm(8) still says '$word'"
	else [ "$found" -gt 0 ] || bad "keladm(8) does not name $word"; fi
done
for ref in "keld(8)" "kel-svc(5)" "libkel(3)"; do
	sed -n '/^SEE ALSO/,$p' <<<"$text" | grep -qF "$ref" || bad "keladm(8) does not refer to $ref"
done
[ $fail -eq 0 ] && echo "ok: the man pages"
exit $fail

#!/bin/sh
# Checks that the C and C++ sources of a libkel checkout are laid out as its
# .clang-format says. Usage: clang_format.sh REPO_ROOT
# Exit status: 0 all files conform; 1 some files differ (listed on stdout);
# 2 usage or setup error; 77 clang-format is not installed, or REPO_ROOT is not a git
# checkout (the files to check are the ones git tracks): a skip, said why.
# CLANG_FORMAT may name the binary to use (default: clang-format). The layout
# was tuned for clang-format 14; other versions can disagree on a few lines.

root=${1:-}
if [ -z "$root" ] || [ ! -d "$root" ]; then
	echo "usage: $0 REPO_ROOT" >&2
	exit 2
fi
cf=${CLANG_FORMAT:-clang-format}
if ! command -v "$cf" >/dev/null 2>&1; then
	echo "$0: $cf not found: skipping the format check" >&2
	exit 77
fi
cd "$root" || exit 2
if [ ! -f .clang-format ]; then
	echo "$0: no .clang-format in $root" >&2
	exit 2
fi
ver=$("$cf" --version 2>/dev/null | sed -n 's/.*version \([0-9][0-9]*\)\..*/\1/p')
if [ "$ver" != 14 ]; then
	echo "$0: note: $cf is version ${ver:-unknown}, the layout was tuned with 14" >&2
fi

list=$(mktemp) || exit 2
trap 'rm -f "$list"' EXIT
trap 'exit 2' HUP INT TERM

git ls-files -- \
	':(glob)base/**/*.c' ':(glob)base/**/*.cc' ':(glob)base/**/*.h' \
	':(glob)common/**/*.c' ':(glob)common/**/*.cc' ':(glob)common/**/*.h' \
	':(glob)include/**/*.c' ':(glob)include/**/*.cc' ':(glob)include/**/*.h' \
	':(glob)platform/**/*.c' ':(glob)platform/**/*.cc' ':(glob)platform/**/*.h' \
	':(glob)cmd/**/*.c' ':(glob)cmd/**/*.cc' ':(glob)cmd/**/*.h' \
	':(glob)dist/**/*.c' ':(glob)dist/**/*.cc' ':(glob)dist/**/*.h' \
	':(glob)tests/**/*.c' ':(glob)tests/**/*.cc' ':(glob)tests/**/*.h' \
	':(glob)bench/**/*.c' ':(glob)bench/**/*.cc' ':(glob)bench/**/*.h' \
	':(exclude,glob)**/build*/**' ':(exclude)tests/fuzz/corpus' >"$list" 2>/dev/null || {
	echo "$0: $root is not a git checkout: skipping the format check" >&2
	exit 77
}

# One clang-format run per batch of files; --Werror makes each differing file
# report "FILE:LINE:COL: error: code should be clang-formatted".
checked=$(grep -c . "$list")
out=$(tr '\n' '\0' <"$list" | xargs -0 "$cf" --style=file --dry-run --Werror 2>&1 >/dev/null)
status=$?
diffs=$(printf '%s\n' "$out" | sed -n 's/^\(.*\):[0-9][0-9]*:[0-9][0-9]*: error: code should be clang-formatted.*/\1/p' | sort -u)
if [ -n "$diffs" ]; then
	printf '%s\n' "$diffs"
	bad=$(printf '%s\n' "$diffs" | grep -c .)
elif [ "$status" -ne 0 ]; then
	printf '%s\n' "$out" >&2
	echo "$0: $cf failed" >&2
	exit 2
else
	bad=0
fi

if [ "$bad" -ne 0 ]; then
	echo "$0: $bad of $checked files differ from .clang-format; run: clang-format -i FILE..." >&2
	exit 1
fi
echo "$0: $checked files conform" >&2
exit 0

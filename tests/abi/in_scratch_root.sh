#!/bin/sh
# Runs a program with KEL_ROOT set to a fresh scratch tree (etc/kel made), and removes
# the tree afterwards. Usage: in_scratch_root.sh PROGRAM [ARGS...]
root=$(mktemp -d /tmp/kel-abi-XXXXXX) || exit 1
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/etc/kel"
KEL_ROOT=$root "$@"

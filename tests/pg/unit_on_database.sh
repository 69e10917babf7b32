#!/bin/sh
# Runs the unit tests of everything that keeps a store (store, settings, fabric, fleet
# and the cross-cutting suites) with every test's store in a scratch PostgreSQL database
# instead of the SQLite file. Usage: unit_on_database.sh UNIT_TEST_BINARY
# Exit status: the test binary's; 77 when PostgreSQL is not installed.
set -u
unit=${1:?usage: $0 UNIT_TEST_BINARY}
here=$(dirname "$0")
dir=$(mktemp -d /tmp/kel-pg-XXXXXX)
rmdir "$dir"
conninfo=$("$here/scratch_server.sh" start "$dir") || { st=$?; rm -rf "$dir"; exit $st; }
trap '"$here/scratch_server.sh" stop "$dir"' EXIT INT TERM
# The suites whose tests open a store run on the database. Left out: the suites of the
# store file's own format (its files, modes, lock file, damage, old schemas, crashes).
suites='PgStore.*:AllocationConcurrency.*:Bindings.*:BoundPropUpdate.*:CallerNames.*:Connections*:Controller.*'
suites=$suites':CtrlProps.*:Filter*:InheritedLinkProps.*:Ipnets.*:KelLifecycle.*:KelcntlRecords.*:MacInUse.*'
suites=$suites':NodeSide*:OutOfMemory.*:PropList.*:PropUpdate.*:RecordingHost.*:Records.*:StoreCheck.*:Vnics.*:Vports.*'
file_only='Controller.WithoutAStoreThereIsNothingToFind'
KEL_TEST_PG=$conninfo "$unit" --gtest_brief=1 --gtest_filter="$suites-$file_only"

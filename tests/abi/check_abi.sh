#!/usr/bin/env bash
# The ABI of the library just built is the committed one: abidiff between
# the committed dump of this ABI (tests/abi/<abi>.abi) and the library's
# own dump fails on any change it reports, and its report names the
# function, variable, record or field that changed.  A change that is meant
# is committed with its dump: scripts/abi-dump (docs/abis.md).
#
#     check_abi.sh <librvn_datamngr.so> <committed dump>
set -euo pipefail
lib=$1
committed=$2
here=$(dirname "$0")
if [ ! -f "$committed" ]; then
    echo "no committed dump $committed: scripts/abi-dump writes it"
    exit 1
fi
built=$(mktemp)
trap 'rm -f "$built"' EXIT
"$here/dump_abi.sh" "$lib" >"$built"
# --harmless: a change libabigail deems harmless (an enumerator added, a
# typedef or a union member renamed) is still a change of the interface.
status=0
abidiff --harmless --no-show-locs "$committed" "$built" || status=$?
if [ $status -ne 0 ]; then
    echo
    echo "The ABI of $lib differs from $committed (abidiff status $status)."
    echo "If the change is meant: scripts/abi-dump, and commit the dump with it."
    exit 1
fi
echo "abi: $(basename "$committed"): no change"

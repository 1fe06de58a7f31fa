#!/usr/bin/env bash
# The device build file is well-formed Blueprint and formatted as bpfmt
# formats it: bpfmt's diff is empty.
set -euo pipefail
bpfmt=${1:?bpfmt}
bp=${2:?Android.bp}
command -v "$bpfmt" >/dev/null || { echo "bpfmt not found: run scripts/deps (blueprint-tools)"; exit 1; }
diff=$("$bpfmt" -d "$bp")
if [ -n "$diff" ]; then
    echo "$bp is not formatted as bpfmt formats it:"
    echo "$diff"
    exit 1
fi
echo "$bp: well-formed and formatted"

#!/usr/bin/env bash
# The device build compiles the library as CMake does: Android.bp's cflags and
# cppflags are the options of dm_core (the checks' instrumentation aside), and
# its cpp_std is CMake's C++ standard.
set -euo pipefail
bp=${1:?Android.bp} cmake_flags=${2:?dm_core options} instrumentation=${3?} std=${4:?standard}
bp_list() { sed -n "/^    $1: \[/,/^    \]/p" "$bp" | grep -o '"[^"]*"' | tr -d '"'; }
device=$( (bp_list cflags && bp_list cppflags) | sort -u)
cmake=$(tr ' ' '\n' <<<"$cmake_flags" | grep -vxF -f <(tr ' ' '\n' <<<"$instrumentation") | sort -u)
bp_std=$(sed -n 's/^    cpp_std: "\(.*\)",$/\1/p' "$bp")
if [ "$device" != "$cmake" ] || [ "$bp_std" != "c++$std" ]; then
    echo "$bp and CMake's dm_core compile the library differently (< Android.bp, > CMake):"
    diff <(echo "$device"; echo "std $bp_std") <(echo "$cmake"; echo "std c++$std") || true
    exit 1
fi
echo "$bp: the library's flags and standard are CMake's"

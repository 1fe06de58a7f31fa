#!/usr/bin/env bash
# The shared library exports exactly the entity's entry points listed in
# exports.txt: nothing of the host runtime, no C++ internals, none missing.
set -euo pipefail
lib=$1
nm=${2:-nm}  # the toolchain's nm: a cross-built library is read with its own
list=$(dirname "$0")/exports.txt
# Symbols a sanitizer build adds on its own (ODR indicators, instrumentation
# hooks) are not the library's.
actual=$("$nm" -D --defined-only "$lib" | awk '{print $3}' |
         grep -v -E '^(__odr_asan|__asan_|__ubsan_|__tsan_|__sanitizer_|__sancov_)' | sort -u)
expected=$(grep -v '^#' "$list" | sed '/^$/d' | sort -u)
extra=$(comm -23 <(echo "$actual") <(echo "$expected"))
missing=$(comm -13 <(echo "$actual") <(echo "$expected"))
status=0
if [ -n "$extra" ]; then echo "exported but not listed:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "listed but not exported:"; echo "$missing"; status=1; fi
[ $status -eq 0 ] && echo "exports: $(echo "$actual" | wc -l) symbols, as listed"
exit $status

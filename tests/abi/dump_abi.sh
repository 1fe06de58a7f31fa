#!/usr/bin/env bash
# Writes the ABI of a built librvn_datamngr.so to stdout, as libabigail's XML
# (abidw): every exported function and variable with its type, every type
# reachable from them (records with their size, fields, field types and
# offsets), the exported ELF symbols and their aliases.  The library must be
# built with debug information (-g: RelWithDebInfo, Debug).
#
# The same text comes out of every build of the same source, wherever it was
# built: no locations (a comment added to a header is no change of the
# ABI), no build folder, and the source files of the translation units named
# from the top of the tree.  Type ids are hashes of the types, so that an
# intended change shows in the committed dump as the lines it touches.
set -euo pipefail
lib=$1
root=$(cd "$(dirname "$0")/../.." && pwd -P)
if ! readelf -S -W "$lib" | grep -q '\.debug_info'; then
    echo "$lib has no debug information: build it with -g (RelWithDebInfo)" >&2
    exit 1
fi
root_re=$(printf '%s' "$root/" | sed 's/[][\.*^$|]/\\&/g')
abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs \
      --type-id-style hash "$lib" | sed "s|path='$root_re|path='|"

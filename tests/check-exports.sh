#!/bin/sh
# libpelyx.so exports exactly the functions declared in its public header, all as functions.
# Usage: check-exports.sh LIBRARY HEADER
set -eu
declared=$(sed -e 's://.*$::' -e '/^[[:space:]]*#/d' "$2" | tr '\n' ' ' | sed 's:/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/::g' |
    grep -oE '[A-Za-z_][A-Za-z0-9_]*[[:space:]]*\([^()]*\)[[:space:]]*;' | sed 's/[[:space:]]*(.*//' | sort -u)
exported=$(nm -D --defined-only "$1" | awk '{print $2, $3}' | sort -k2)
[ "$(echo "$declared" | wc -l)" -ge 12 ] || { echo "too few declarations found in $2"; exit 1; }
bad=$(echo "$exported" | awk '$1 != "T" {print "not a function: " $2}')
list=$(echo "$exported" | awk '{print $2}')
extra=$(echo "$list" | grep -vxF "$declared" | sed 's/^/exported but not declared: /' || true)
missing=$(echo "$declared" | grep -vxF "$list" | sed 's/^/declared but not exported: /' || true)
out=$(printf '%s\n%s\n%s\n' "$bad" "$extra" "$missing" | sed '/^$/d')
[ -z "$out" ] || { echo "$out"; exit 1; }

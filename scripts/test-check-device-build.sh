#!/usr/bin/env bash
# Shows that scripts/check-device-build.sh can fail: on scratch copies of the tree (the tree itself
# is never changed) it must pass as is, and fail when a source is missing from either build or a
# seam call is misspelt.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The tree's sources, copied once: in a git checkout its tracked and new files; in a plain copy
# (no .git) everything but build output.
mkdir -p "$scratch/pristine"
if [ "$(git -C "$root" rev-parse --show-toplevel 2>/dev/null)" = "$root" ]; then
  (cd "$root" && git ls-files -co --exclude-standard -z | xargs -0 cp --parents -t "$scratch/pristine")
else
  tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$scratch/pristine" -xf -
fi
fresh() {
  rm -rf "$scratch/tree" && cp -a "$scratch/pristine" "$scratch/tree"
}
# expect OUTCOME WHAT PATTERN: runs the check on the scratch tree.
expect() {
  local want=$1 what=$2 pattern=$3 rc=0
  "$root/scripts/check-device-build.sh" "$scratch/tree" >"$scratch/out" 2>&1 || rc=$?
  if { [ "$want" = pass ] && [ $rc -ne 0 ]; } || { [ "$want" = fail ] && [ $rc -eq 0 ]; } ||
     ! grep -q -- "$pattern" "$scratch/out"; then
    cat "$scratch/out"
    echo "FAILED: $what: expected the check to $want with '$pattern' (exit $rc)"
    exit 1
  fi
  echo "ok: $what"
}

fresh
expect pass "the tree as it is" "modules agree"

fresh
sed -i '\|"src/layers/LayerInfo.cpp",|d' "$scratch/tree/Android.bp"
expect fail "a source missing from Android.bp" \
  "libpelyx: src/layers/LayerInfo.cpp is built by CMake but not listed in Android.bp"

fresh
printf 'namespace android {}\n' >"$scratch/tree/src/layers/LayerExtra.cpp"
expect fail "a source CMake builds and Android.bp does not list" \
  "src/layers/LayerExtra.cpp is built by CMake but not listed"

fresh
sed -i 's|"src/gfr/GFRMonitor.cpp",|&\n        "src/gfr/GFRMonitorExtra.cpp",|' "$scratch/tree/Android.bp"
expect fail "a source Android.bp lists and CMake does not build" \
  "src/gfr/GFRMonitorExtra.cpp is listed in Android.bp but not built by CMake"

fresh
sed -i 's/android::base::GetBoolProperty/android::base::GetBoolPropety/' \
  "$scratch/tree/src/platform/android/Properties.cpp"
expect fail "a misspelt seam call" "Properties.cpp does not compile"

echo "device-build check: every case came out as expected"

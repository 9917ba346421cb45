#!/usr/bin/env bash
# What this host can check of the device build:
#  1. Android.bp and CMake build the same sources (a file added to one and not the other fails);
#  2. every device seam that needs only libbase, libcutils, liblog, libutils and libbinder
#     compiles against Android's own headers as Debian packages them.
# Usage: scripts/check-device-build.sh [TREE]   (default: this tree). Exit 0 when both hold.
set -euo pipefail
root=$(cd "${1:-$(dirname "$0")/..}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== Android.bp against CMake"
cmake -S "$root" -B "$work/cmake" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$work/cmake.log" 2>&1 ||
  { cat "$work/cmake.log"; echo "check-device-build: cmake could not configure $root" >&2; exit 1; }
python3 - "$root" "$work/cmake/compile_commands.json" <<'PY'
import collections, json, os, re, sys

root, commands = sys.argv[1], sys.argv[2]

# CMake: the sources of each target, from the compile commands' object paths.
cmake = collections.defaultdict(set)
for entry in json.load(open(commands)):
    out = entry.get("output") or re.search(r"-o (\S+)", entry["command"]).group(1)
    target = re.search(r"CMakeFiles/([^/]+)\.dir/", out).group(1)
    cmake[target].add(os.path.relpath(os.path.join(entry["directory"], entry["file"]), root))

# Android.bp: each module's name and srcs (the file keeps one module per block, lists spelt out).
bp = {}
text = re.sub(r"//[^\n]*", "", open(os.path.join(root, "Android.bp")).read())
for block in re.finditer(r"^(\w+)\s*\{(.*?)^\}", text, re.S | re.M):
    name = re.search(r'\bname:\s*"([^"]+)"', block.group(2))
    srcs = re.search(r"\bsrcs:\s*\[(.*?)\]", block.group(2), re.S)
    if name and srcs:
        bp[name.group(1)] = (block.group(1), set(re.findall(r'"([^"]+)"', srcs.group(1))))

def listed(directory):
    path = os.path.join(root, directory)
    return {os.path.join(directory, f) for f in os.listdir(path) if f.endswith(".cpp")}

# Module in Android.bp -> what CMake (or, for the device platform, the tree) builds for it.
pairs = {
    "libpelyx": cmake["pelyx_core"] | cmake["pelyx"],
    "libpelyx_core_host": cmake["pelyx_core"],
    "libpelyx_platform": listed("src/platform/common") | listed("src/platform/android"),
    "libpelyx_platform_host": cmake["pelyx_platform"],
    "libtvo-perfd-client_system": cmake["perfd_stub"],
}
# Tests that stay CMake-only: the simulator's, and those that need a variant of the stand-in
# client on their library path or the built library's own path.
cmake_only = {"api_export_test", "layer_manager_test", "perf_proxy_no_callback_test",
              "perf_proxy_no_halver_test", "perf_proxy_no_hint_test",
              "perf_proxy_no_library_test"}
for target, sources in cmake.items():
    if target.endswith("_test") and target not in cmake_only and not target.startswith("sim_"):
        pairs[target] = sources
for module, (kind, _) in bp.items():
    if kind == "cc_test_host" and module not in pairs:
        pairs[module] = set()  # a test module CMake does not build

problems = []
for module, want in sorted(pairs.items()):
    if module not in bp:
        problems.append(f"{module}: missing from Android.bp (CMake builds {len(want)} sources)")
        continue
    have = bp[module][1]
    for f in sorted(want - have):
        problems.append(f"{module}: {f} is built by CMake but not listed in Android.bp")
    for f in sorted(have - want):
        problems.append(f"{module}: {f} is listed in Android.bp but not built by CMake")
    for f in sorted(have):
        if not os.path.exists(os.path.join(root, f)):
            problems.append(f"{module}: {f} does not exist")
for p in problems:
    print("check-device-build: " + p, file=sys.stderr)
if problems:
    sys.exit(1)
print(f"   {len(pairs)} modules agree")
PY

echo "== device seams against Android's headers"
cxx=${CXX:-clang++}
# Not checkable here: their headers are not packaged for a host.
unverifiable=(
  "src/platform/android/PowerBoost.cpp: libgui (SurfaceComposerClient::notifyPowerBoost)"
  "src/platform/android/PropertyWatch.cpp: bionic's property area (__system_property_wait)"
  "src/perf/TFPSCallback.cpp on a device: the vendor's NDK binder callback (vendor.tvo.hardware.perf2-V1-ndk)"
)
failed=0
for f in "$root"/src/platform/common/*.cpp "$root"/src/platform/android/*.cpp; do
  rel=${f#"$root"/}
  skip=0
  for u in "${unverifiable[@]}"; do [ "${u%%:*}" = "$rel" ] && skip=1; done
  [ $skip -eq 1 ] && continue
  # libbase's device view (WaitForProperty) needs __BIONIC__; the Android 10 binder headers then
  # want bionic's fdsan, so files that include binder compile with the plain view.
  view=(-D__BIONIC__)
  grep -q '#include <binder/' "$f" && view=()
  # Older binder headers use std::unique_ptr and numeric_limits without including them.
  if "$cxx" -fsyntax-only -std=c++17 -Wall -Wextra -Werror "${view[@]}" -include memory -include limits \
       -I"$root/src" -isystem /usr/include/android "$f" 2>"$work/err"; then
    echo "   ok  $rel"
  else
    cat "$work/err" >&2
    echo "check-device-build: $rel does not compile against Android's headers" >&2
    failed=1
  fi
done
echo "   not checkable on this host:"
for u in "${unverifiable[@]}"; do echo "     $u"; done
exit $failed

#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing; with arguments, those
# packages instead (what an opt-in check needs beyond the build). `browser` stands for the
# headless browser of `make browser-check`, so that `make test` stays without one.
set -eu
if [ $# -gt 0 ]; then
  pkgs=()
  for a in "$@"; do
    if [ "$a" = browser ]; then pkgs+=(chromium fonts-dejavu-core); else pkgs+=("$a"); fi
  done
else
  pkgs=(cmake ninja-build make pkg-config clang llvm libclang-rt-dev g++
        android-libutils-dev android-liblog-dev android-libbase-dev android-libcutils-dev
        android-platform-frameworks-native-headers
        libjsoncpp-dev libre2-dev libgtest-dev libgmock-dev googletest libbenchmark-dev binutils
        python3 python3-matplotlib python3-clang)
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "deps: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "deps: these Debian packages are missing and installing them needs root:" >&2
  echo "  apt-get install ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

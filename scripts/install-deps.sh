#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent: does nothing when everything is already there. mandoc checks
# the manual pages. `install-deps.sh --screenshots` adds two fonts so that
# Chromium draws the page's CJK and emoji texts instead of empty boxes; the
# tests compare the texts themselves and need no fonts.
set -euo pipefail

# --- cross build (make cross, make bench only) -------------------------------
# `install-deps.sh --cross` installs the 32-bit ARM toolchain, the armhf
# libraries kelpd and its unit tests link against (multiarch), and qemu-user
# to run those tests here. Never part of `make check`.
cross_deps() {
  local arch=armhf
  local cpkgs=(g++-arm-linux-gnueabihf qemu-user-static
               libmxml-dev:$arch libmbedtls-dev:$arch libgtest-dev:$arch libgmock-dev:$arch)
  local want=()
  for p in "${cpkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || want+=("$p")
  done
  [ ${#want[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing cross packages and not root: install them: ${want[*]}" >&2
    exit 1
  fi
  echo "installing (cross): ${want[*]}"
  export DEBIAN_FRONTEND=noninteractive
  dpkg --print-foreign-architectures | grep -qx $arch || dpkg --add-architecture $arch
  # A mirror caught mid-sync fails one index; what is already known may do.
  apt-get update -qq || echo "apt-get update reported errors; trying with the indexes at hand" >&2
  apt-get install -y -qq --no-install-recommends "${want[@]}"
}
if [ "${1:-}" = "--cross" ]; then
  cross_deps
  exit 0
fi
# -----------------------------------------------------------------------------

pkgs=(cmake ninja-build g++ pkg-config libmxml-dev libmbedtls-dev
      googletest libgtest-dev libgmock-dev libbenchmark-dev valgrind
      python3 python3-pytest iproute2 util-linux curl nginx-light strace
      openssl ca-certificates clang libclang-rt-14-dev
      libmicrohttpd-dev chromium chromium-driver python3-selenium mandoc)
if [ "${1:-}" = "--screenshots" ]; then
  pkgs+=(fonts-wqy-microhei fonts-noto-color-emoji)
fi
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages and not root: run as root or install them: ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# nginx must not start a host-wide service: the tests start their own. A
# policy the machine already has (containers often ship one) is put back after.
policy=/usr/sbin/policy-rc.d
if [ -e "$policy" ]; then
  mv "$policy" "$policy.kelp-saved"
  trap 'mv -f "$policy.kelp-saved" "$policy"' EXIT
else
  trap 'rm -f "$policy"' EXIT
fi
printf '#!/bin/sh\nexit 101\n' > "$policy"; chmod +x "$policy"
apt-get install -y -qq --no-install-recommends "${missing[@]}"

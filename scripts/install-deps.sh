#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent: does nothing when everything is already there. mandoc checks
# the manual pages. `install-deps.sh --screenshots` adds two fonts so that
# Chromium draws the page's CJK and emoji texts instead of empty boxes; the
# tests compare the texts themselves and need no fonts.
set -euo pipefail

# --- cross builds (make cross, make check's armhf build, make bench) --------
# `install-deps.sh --cross ARCH` installs one target's cross compiler, its
# Mini-XML, mbedTLS, GoogleTest and libmicrohttpd packages beside the native
# ones (multiarch) and qemu-user, then checks that every file the cross build
# needs is there. Whatever is still missing stops it with one line naming the
# file and the package that provides it. libmicrohttpd is wanted only for the
# kelp-web program, which the cross build leaves out without it (saying so):
# its absence is reported, never fatal. Idempotent: nothing is installed when
# everything is there.
cross_triple() {
  case "$1" in
    armhf) echo arm-linux-gnueabihf ;;
    arm64) echo aarch64-linux-gnu ;;
    mipsel) echo mipsel-linux-gnu ;;
    s390x) echo s390x-linux-gnu ;;
    *) return 1 ;;
  esac
}

# "file|package" pairs: what the cross build of ARCH uses, and where it
# comes from; with "optional", the one it can do without.
cross_needs() {
  local arch=$1 triple=$2 lib=/usr/lib/$2 qemu
  if [ "${3:-}" = optional ]; then
    echo "$lib/pkgconfig/libmicrohttpd.pc|libmicrohttpd-dev:$arch"
    return
  fi
  case "$arch" in armhf) qemu=arm ;; arm64) qemu=aarch64 ;; *) qemu=$arch ;; esac
  echo "$(command -v "$triple-g++" || echo "$triple-g++")|g++-$triple"
  echo "$(command -v "qemu-$qemu-static" || echo "qemu-$qemu-static")|qemu-user-static"
  echo "$lib/libmxml.a|libmxml-dev:$arch"
  echo "$lib/libmbedtls.a|libmbedtls-dev:$arch"
  echo "$lib/libgtest.a|libgtest-dev:$arch"
  echo "$lib/libgmock.a|libgmock-dev:$arch"
}

# cross_missing ARCH TRIPLE [optional]: prints "package|file (package P)"
# for every file not there.
cross_missing() {
  while IFS='|' read -r file pkg; do
    [ -e "$file" ] || echo "$pkg|${file##*/} (package $pkg)"
  done < <(cross_needs "$@")
}

cross_deps() {
  local arch=${1:-armhf} triple missing optional
  triple=$(cross_triple "$arch") || {
    echo "make cross: unknown ARCH '$arch' (one of armhf, arm64, mipsel, s390x)" >&2; exit 1; }
  missing=$(cross_missing "$arch" "$triple")
  optional=$(cross_missing "$arch" "$triple" optional)
  # The optional package is tried only along with the others, so that a
  # source lacking it does not cost an index update on every run.
  if [ -n "$missing" ] && [ "$(id -u)" -eq 0 ]; then
    cross_install "$arch" $(printf '%s\n' "$missing" "$optional" | cut -d'|' -f1)
    missing=$(cross_missing "$arch" "$triple")
    optional=$(cross_missing "$arch" "$triple" optional)
  fi
  if [ -n "$missing" ]; then
    echo "make cross ARCH=$arch: missing $(cut -d'|' -f2 <<<"$missing" | paste -sd, | sed 's/,/, /g')" >&2
    exit 1
  fi
  [ -z "$optional" ] || echo "make cross ARCH=$arch: kelp-web left out, no $(cut -d'|' -f2 <<<"$optional")" >&2
}

cross_install() {
  local arch=$1 log
  shift
  echo "installing (cross $arch): $*"
  export DEBIAN_FRONTEND=noninteractive
  log=$(mktemp /tmp/kelp-cross-apt.XXXXXX)
  dpkg --print-foreign-architectures | grep -qx "$arch" || dpkg --add-architecture "$arch"
  # A mirror caught mid-sync fails one index; what is already known may do.
  apt-get update -qq >"$log" 2>&1 || echo "apt-get update reported errors; trying with the indexes at hand" >&2
  # One by one when the lot fails, so that one package the sources cannot
  # install does not keep the others out; what is still missing is named.
  apt-get install -y -qq --no-install-recommends "$@" >>"$log" 2>&1 ||
    for p in "$@"; do apt-get install -y -qq --no-install-recommends "$p" >>"$log" 2>&1 || true; done
  rm -f "$log"
}
if [ "${1:-}" = "--cross" ]; then
  cross_deps "${2:-armhf}"
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

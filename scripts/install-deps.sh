#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demo need.
# Idempotent: does nothing when everything is already there.
set -euo pipefail
pkgs=(cmake ninja-build g++ pkg-config libmxml-dev
      googletest libgtest-dev libgmock-dev libbenchmark-dev
      python3 python3-pytest iproute2 util-linux curl nginx-light valgrind)
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
# nginx must not start a host-wide service: the tests start their own.
printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d; chmod +x /usr/sbin/policy-rc.d
trap 'rm -f /usr/sbin/policy-rc.d' EXIT
apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# cross.sh ARCH [build-only]: one target's cross build and emulated test run,
# as `make cross ARCH=...` does it (`make check` uses build-only for armhf).
#   1. installs the target's packages (install-deps.sh --cross ARCH);
#   2. builds kelpd with -Os in build-cross-ARCH (linked dynamically, as it
#      ships) and reports its stripped size;
#   3. builds every program and test statically in build-cross-test-ARCH;
#   4. runs the unit tests and the fuzz corpus replays there under qemu-user
#      and prints one summary line; build-cross-test-ARCH/cross-result.txt
#      keeps it.
# The tests qemu-user cannot run are named in the run, with the reason.
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:?usage: cross.sh armhf|arm64|mipsel|s390x [build-only]}
mode=${2:-run}
scripts/install-deps.sh --cross "$arch"
toolchain=cmake/$arch-toolchain.cmake
size_tree=build-cross-$arch
test_tree=build-cross-test-$arch
triple=$(sed -n 's/^set(KELP_CROSS_TRIPLE \(.*\))$/\1/p' "$toolchain")
jobs=${CTEST_J:-2}
started=$(date +%s)

# Unit tests that cannot run under qemu-user: "targets|test|reason".
untestable=(
  "armhf mipsel s390x|DsldstatDeathTest.EachCallReadsTheCurrentDefaultRoutes|qemu-user converts the IPv6 route ioctl's struct in6_rtmsg as an IPv4 struct rtentry, which scrambles it for a 32-bit or big-endian program, and the kernel refuses it"
)

configure() {
  local tree=$1
  shift
  cmake -S . -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_TOOLCHAIN_FILE="$toolchain" "$@"
}

configure "$test_tree" -DKELP_CROSS_STATIC=ON
cmake --build "$test_tree"
if [ "$mode" = build-only ]; then
  echo "cross $arch: every program and test built in $test_tree ($(($(date +%s) - started))s), not run"
  exit 0
fi

configure "$size_tree"
cmake --build "$size_tree" --target kelpd kelp-fetch
# kelp-web, where the target's libmicrohttpd is installed (dynamic tree only).
if [ -e "/usr/lib/$triple/pkgconfig/libmicrohttpd.pc" ]; then
  cmake --build "$size_tree" --target kelp-web
fi
"$triple-strip" -o "$size_tree/kelpd.stripped" "$size_tree/bin/kelpd"
"$triple-strip" -o "$size_tree/kelp-fetch.stripped" "$size_tree/bin/kelp-fetch"
size=$(stat -c %s "$size_tree/kelpd.stripped")
fetch_size=$(stat -c %s "$size_tree/kelp-fetch.stripped")
built=$(date +%s)

filter=
notrun=0
for t in "${untestable[@]}"; do
  IFS='|' read -r targets test reason <<<"$t"
  [[ " $targets " == *" $arch "* ]] || continue
  echo "cross $arch: not run under qemu-user: $test ($reason)"
  filter=$filter:$test
  notrun=$((notrun + 1))
done
echo "cross $arch: not checked under qemu-user: fuzz_hostile_replay's resident-set bounds (/proc reports the emulator's memory, not the parse's); its outcomes are checked"
echo "cross $arch: not run here: the system tests (system_*: real programs in network namespaces, run natively by make check)"
rm -rf "$test_tree/gtest-xml"
env=(KELP_UNDER_QEMU=1 "GTEST_OUTPUT=xml:$PWD/$test_tree/gtest-xml/")
[ -z "$filter" ] || env+=("GTEST_FILTER=-${filter#:}")
status=0
(cd "$test_tree" && env "${env[@]}" ctest --output-on-failure -j"$jobs" -E '^system_') || status=$?

summary=$(python3 scripts/cross_summary.py "$test_tree" fuzz/corpus "$notrun")
line="cross $arch: kelpd $size bytes stripped (-Os), kelp-fetch $fetch_size; $summary; build $((built - started))s, tests $(($(date +%s) - built))s"
echo "$line"
printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$arch" "$triple" "$size" "$summary" "$(date -u +%F)" "$fetch_size" > "$test_tree/cross-result.txt"
exit $status

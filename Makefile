# The two commands: `make check` runs every test (plain, then under ASan+UBSan,
# then the HTTP tests against a build without TLS); `make demo` runs the main
# job. Both install missing Debian packages first. `make bench` runs the
# benchmarks (bench/README.md), `make fuzz` the fuzzers (fuzz/README.md).
.PHONY: check demo bench deps build build-asan build-notls build-bench test test-asan test-notls fuzz clean

BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_NOTLS ?= build-notls
BUILD_BENCH ?= build-bench
BENCH_REPS ?= 5

BUILD_FUZZ ?= build-fuzz
CTEST_J    ?= 2

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD)

build-asan: deps
	cmake -S . -B $(BUILD_ASAN) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=ON
	cmake --build $(BUILD_ASAN)

# KELP_TLS=OFF: kelpd and the HTTP tools with no TLS library linked; only the
# HTTP system tests run there, proving plain HTTP unchanged.
build-notls: deps
	cmake -S . -B $(BUILD_NOTLS) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_TLS=OFF
	cmake --build $(BUILD_NOTLS) --target kelpd kelp-httpget kelp-feedcheck

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(CTEST_J)

test-asan: build-asan
	cd $(BUILD_ASAN) && ctest --output-on-failure -j$(CTEST_J)

test-notls: build-notls
	@if ldd $(BUILD_NOTLS)/bin/kelpd $(BUILD_NOTLS)/bin/kelp-httpget | grep -q mbed; then \
	  echo "KELP_TLS=OFF build links a TLS library" >&2; exit 1; fi
	cd $(BUILD_NOTLS) && ctest --output-on-failure -j$(CTEST_J) -R '^system_test_http'

# Calls go down: no product source includes a layer above its own, and no
# static library links one (docs/architecture.md, "Layers").
.PHONY: check-layers
check-layers:
	scripts/check-layers.py

check: check-layers
check: test test-asan test-notls

# Benchmarks, not tests: an optimised tree, then every bench/suite_* through
# bench/run.py, which prints one table and writes bench/results.json. -O2:
# GCC 12 at -O3 raises a false -Wrestrict warning on std::string
# concatenation in kelpctl, an error under -Werror.
build-bench: deps
	cmake -S . -B $(BUILD_BENCH) -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG"
	cmake --build $(BUILD_BENCH)

bench: build-bench
	BENCH_REPS=$(BENCH_REPS) python3 bench/run.py --build $(BUILD_BENCH)

# `make fuzz`: the libFuzzer programs in a clang tree, each run one after the
# other from its committed corpus for FUZZ_TIME seconds (default 60) or
# FUZZ_RUNS executions; what adds coverage is merged into fuzz/corpus/<target>.
FUZZ_TARGETS ?= $(basename $(notdir $(wildcard fuzz/fuzz_*.cpp)))

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELP_FUZZ=ON
	cmake --build $(BUILD_FUZZ) --target $(FUZZ_TARGETS)
	FUZZ_TIME='$(FUZZ_TIME)' FUZZ_RUNS='$(FUZZ_RUNS)' FUZZ_ARGS='$(FUZZ_ARGS)' \
	  fuzz/run.sh $(BUILD_FUZZ) $(FUZZ_TARGETS)

demo: build
	@scripts/demo.sh $(BUILD)

# kelp-web in headless Chromium at 1280x800 and 390x844, light and dark, as
# PNG files in $(BUILD)/screenshots, for people to look at (not a test).
.PHONY: screenshots
screenshots: build
	/usr/bin/python3 tests/system/web_screenshots.py $(BUILD)/bin $(BUILD)/screenshots

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_NOTLS) $(BUILD_BENCH) $(BUILD_FUZZ) $(BUILD_CROSS) $(BUILD_CROSS_TEST)

# --- 32-bit ARM cross build ---------------------------------------------------
# `make cross` installs the armhf toolchain and libraries (multiarch) and
# qemu-user, builds kelpd with -Os (build-cross, linked dynamically: the
# binary whose size bench/suite_size reports), and builds every program and
# unit test linked statically (build-cross-test) to run the unit tests under
# qemu-user: 32-bit time_t and long, and ARM alignment. Not part of `check`.
BUILD_CROSS      ?= build-cross
BUILD_CROSS_TEST ?= build-cross-test
CROSS_TOOLCHAIN  := cmake/armhf-toolchain.cmake
# qemu-user passes an IPv6 route ioctl (struct in6_rtmsg) on as an IPv4
# struct rtentry and fails it, so this one test cannot run emulated.
CROSS_QEMU_UNTESTABLE := DsldstatDeathTest.EachCallReadsTheCurrentDefaultRoutes
.PHONY: cross cross-deps

cross-deps:
	@scripts/install-deps.sh --cross

cross: cross-deps
	cmake -S . -B $(BUILD_CROSS) -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_TOOLCHAIN_FILE=$(CROSS_TOOLCHAIN)
	cmake --build $(BUILD_CROSS) --target kelpd
	cmake -S . -B $(BUILD_CROSS_TEST) -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DKELP_CROSS_STATIC=ON \
	      -DCMAKE_TOOLCHAIN_FILE=$(CROSS_TOOLCHAIN)
	cmake --build $(BUILD_CROSS_TEST)
	cd $(BUILD_CROSS_TEST) && GTEST_FILTER=-$(CROSS_QEMU_UNTESTABLE) ctest --output-on-failure -j$(CTEST_J) -E '^system_'
# ------------------------------------------------------------------------------

	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_NOTLS) $(BUILD_FUZZ)

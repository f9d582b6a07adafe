# The two commands: `make check` lints the manual pages, runs every test
# (plain, then under ASan+UBSan, then the HTTP tests against a build without
# TLS) and builds the armhf cross tree; `make demo` runs the main job. Both
# install missing Debian packages first. `make bench` runs the benchmarks
# (bench/README.md), `make fuzz` the fuzzers (fuzz/README.md), `make cross`
# the cross builds under qemu-user.
.PHONY: check demo bench deps build build-asan build-notls build-bench test test-asan test-notls lint-man fuzz clean

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
	cmake --build $(BUILD_NOTLS) --target kelpd kelp-fetch kelp-httpget kelp-feedcheck

# kelpd itself holds no internet-facing code: TLS is kelp-fetch's alone.
# Symbols rather than ldd, since mbedTLS is linked statically by default.
test: build
	@if nm $(BUILD)/bin/kelpd | grep -q ' mbedtls_'; then echo "kelpd links a TLS library" >&2; exit 1; fi
	cd $(BUILD) && ctest --output-on-failure -j$(CTEST_J)

test-asan: build-asan
	cd $(BUILD_ASAN) && ctest --output-on-failure -j$(CTEST_J)

test-notls: build-notls
	@if nm $(BUILD_NOTLS)/bin/kelpd $(BUILD_NOTLS)/bin/kelp-fetch $(BUILD_NOTLS)/bin/kelp-httpget | grep -q ' mbedtls_'; then \
	  echo "KELP_TLS=OFF build links a TLS library" >&2; exit 1; fi
	cd $(BUILD_NOTLS) && ctest --output-on-failure -j$(CTEST_J) -R '^system_test_http'

# The manual pages fail the check on any mandoc message of level WARNING or
# above. STYLE is below the line: its "referenced manual not found" depends
# on which manuals the machine has installed, and these pages, never
# installed, refer to each other.
lint-man: deps
	mandoc -T lint -W warning docs/man/*.[18]

# Calls go down: no product source includes a layer above its own, and no
# static library links one (docs/architecture.md, "Layers").
.PHONY: check-layers
check-layers:
	scripts/check-layers.py

# Last, the armhf cross tree is built (not run): the emulated runs are `make cross`.
check: lint-man check-layers test test-asan test-notls cross-build-armhf

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
	@scripts/install-deps.sh --screenshots
	/usr/bin/python3 tests/system/web_screenshots.py $(BUILD)/bin $(BUILD)/screenshots

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_NOTLS) $(BUILD_BENCH) $(BUILD_FUZZ) build-cross build-cross-* build-size

# --- cross builds -------------------------------------------------------------
# `make cross ARCH=<arch>` for armhf (32-bit ARM), arm64, mipsel (32-bit
# little-endian MIPS) and s390x (big-endian): installs that target's
# toolchain, libraries (multiarch) and qemu-user, builds kelpd with -Os and
# reports its stripped size (build-cross-<arch>), builds every program and
# test statically (build-cross-test-<arch>) and runs the unit tests and the
# fuzz corpus replays there under qemu-user (scripts/cross.sh). Without ARCH,
# all four, one after the other. The emulated runs are not part of `check`;
# building armhf is (cross-build-armhf), so that the cross trees cannot
# break unseen.
CROSS_ARCHS := armhf arm64 mipsel s390x
ARCH ?=
.PHONY: cross cross-build-armhf

cross:
	@failed=; for a in $(or $(ARCH),$(CROSS_ARCHS)); do \
	  CTEST_J=$(CTEST_J) nice scripts/cross.sh $$a || failed="$$failed $$a"; done; \
	if [ -n "$$failed" ]; then echo "make cross: failed for$$failed" >&2; exit 1; fi

cross-build-armhf:
	@nice scripts/cross.sh armhf build-only
# ------------------------------------------------------------------------------

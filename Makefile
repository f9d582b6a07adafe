# The two commands: `make check` runs every test (plain, then under ASan+UBSan,
# then the HTTP tests against a build without TLS); `make demo` runs the main
# job. Both install missing Debian packages first.
.PHONY: check demo deps build build-asan build-notls test test-asan test-notls fuzz clean

BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_NOTLS ?= build-notls
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

check: test test-asan test-notls

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

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_NOTLS) $(BUILD_FUZZ)

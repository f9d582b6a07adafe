# The two commands: `make check` runs every test (plain, then under ASan+UBSan);
# `make demo` runs the main job. Both install missing Debian packages first.
.PHONY: check demo deps build build-asan test test-asan clean

BUILD      ?= build
BUILD_ASAN ?= build-asan
CTEST_J    ?= 2

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD)

build-asan: deps
	cmake -S . -B $(BUILD_ASAN) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELP_SANITIZE=ON
	cmake --build $(BUILD_ASAN)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(CTEST_J)

test-asan: build-asan
	cd $(BUILD_ASAN) && ctest --output-on-failure -j$(CTEST_J)

check: test test-asan

demo: build
	@scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD_ASAN)

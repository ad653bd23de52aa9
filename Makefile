# The two commands of the README. Both run the set-up first, so a fresh
# machine needs nothing else.
BUILD := build
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60

.PHONY: all setup build build64 build32 package test fuzz bench demo clean

all: build

setup:
	@sh scripts/setup.sh

build32: setup
	cmake -S . -B $(BUILD)/x86 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw32.cmake -DKORVANE_BUILD_TESTS=OFF >/dev/null
	cmake --build $(BUILD)/x86 -j $(JOBS)

build64: setup build32
	cmake -S . -B $(BUILD)/x64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw64.cmake \
	      -DKORVANE_DLL32=$(abspath $(BUILD)/x86/bin/korvane32.dll) -DKORVANE_PACKAGE_DIR=$(abspath $(BUILD)) >/dev/null
	cmake --build $(BUILD)/x64 -j $(JOBS)

build: build64

# build/korvane-<version>-x64.msi and -x86.msi (the build makes them).
package: build
	@ls $(BUILD)/korvane-*.msi

# The fuzz targets (tests/fuzz) run natively, a few seconds each here, so
# they keep building and every input that ever failed is tried again.
test: build
	sh scripts/run-tests.sh $(BUILD)/x64
	JOBS=$(JOBS) sh tests/fuzz/run.sh $(BUILD)/fuzz 2

# Every fuzz target for FUZZ_SECONDS, one after the other at low priority.
fuzz: setup
	JOBS=$(JOBS) sh tests/fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

# Timings of the item export against plain copies; see docs/performance.md.
bench: build
	WINEPREFIX=$(abspath $(BUILD)/x64/wineprefix) WINEDEBUG=-all WINEDLLOVERRIDES="mapi32=" \
	    wine $(BUILD)/x64/bin/bench_items.exe
	WINEPREFIX=$(abspath $(BUILD)/x64/wineprefix) WINEDEBUG=-all WINEDLLOVERRIDES="mapi32=" \
	    wine $(BUILD)/x64/bin/bench_filedrop.exe
	WINEPREFIX=$(abspath $(BUILD)/x64/wineprefix) WINEDEBUG=-all wine $(BUILD)/x64/bin/bench_hooks.exe
	sh scripts/demo.sh $(BUILD)/x64 bench

# The README's main job, end to end: the Outlook stand-in drags and pastes
# through the registered add-in into a drop target, under a virtual display.
demo: build
	sh scripts/demo.sh $(BUILD)/x64 demo

clean:
	rm -rf $(BUILD)

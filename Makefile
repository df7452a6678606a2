# The front door: make (build), make dev, make test, make demo, make sandbox, make bench,
# make fuzz, make install, make uninstall, make clean.
BUILD   ?= build
PREFIX  ?= /usr/local
CMAKE_FLAGS ?=
JOBS    ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
SYSTEM  := $(shell uname)

.PHONY: all deps configure build dev test unit e2e demo sandbox sandbox-stop bench bench-cli bench-deps bench-build fuzz fuzz-build fuzz-targets fuzz-test fuzz-short install uninstall clean format libcxx-test macos-check toolchain dist dist-check

all: build

deps:
	@scripts/ensure-deps.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

configure: $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) --target vorn -j $(JOBS)

# A debug build at .build/debug/vorn: where the vorn shim of an editor checkout that holds this
# project at cli/native looks for it. The shim counts the build stale when a source is newer,
# so a successful build marks it current even when nothing needed relinking.
DEV_BUILD := .build/debug
dev:
	cmake -S . -B $(DEV_BUILD) $(if $(shell command -v ninja),-G Ninja) -DCMAKE_BUILD_TYPE=Debug -DVORN_TESTS=OFF
	cmake --build $(DEV_BUILD) --target vorn -j $(JOBS)
	touch $(DEV_BUILD)/vorn

test: deps configure tests/node_modules/.installed
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) --no-print-directory libcxx-test macos-check dist-check fuzz-short

# The program and every test again, built with clang and LLVM's libc++ (the C++ library of
# macOS), GoogleTest rebuilt for it: the unit tests and the end-to-end suite run against that
# binary. On a Mac the native build already is one.
LIBCXX_BUILD ?= $(BUILD)-libcxx
GTEST_SOURCE ?= /usr/src/googletest

$(LIBCXX_BUILD)/build.ninja:
	cmake -S . -B $(LIBCXX_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-stdlib=libc++ \
	  -DVORN_GTEST_SOURCE=$(GTEST_SOURCE) -DVORN_SANITIZED_TESTS=OFF

libcxx-test: tests/node_modules/.installed
ifeq ($(SYSTEM),Darwin)
	@echo "libcxx-test: skipped: the native build uses libc++ already"
else
	@$(MAKE) --no-print-directory $(LIBCXX_BUILD)/build.ninja
	cmake --build $(LIBCXX_BUILD) -j $(JOBS)
	cd $(LIBCXX_BUILD) && ctest --output-on-failure -j $(JOBS)
endif

# Cross-compiles and links vorn and its unit tests for Apple silicon and Intel Macs with Zig
# (from toolchain/, npm), and checks the binaries and the availability of what they call.
toolchain: toolchain/node_modules/.installed

toolchain/node_modules/.installed: toolchain/package.json toolchain/package-lock.json
	cd toolchain && npm ci --no-audit --no-fund
	touch $@

macos-check:
ifeq ($(SYSTEM),Darwin)
	@echo "macos-check: skipped: on a Mac the native build is the macOS build"
else
	@$(MAKE) --no-print-directory toolchain configure
	cmake --build $(BUILD) --target vorn_generated -j $(JOBS)
	JOBS=$(JOBS) scripts/macos-build.sh $(BUILD)
endif

tests/node_modules/.installed: tests/package.json tests/package-lock.json
	cd tests && npm ci --no-audit --no-fund
	touch $@

demo: deps build tests/node_modules/.installed
	@scripts/demo.sh $(BUILD)/vorn

# Three simulated hosts left running to try vorn by hand; prints the lines to paste into a shell.
# Running it again replaces the sandbox; make sandbox-stop ends the hosts and removes it.
sandbox: deps build tests/node_modules/.installed
	@scripts/sandbox.sh start $(BUILD)/vorn

sandbox-stop:
	@scripts/sandbox.sh stop

# Every benchmark beside its yardstick; rewrites the Benchmarks section of bench/RESULTS.md.
bench: deps bench-build tests/node_modules/.installed
	@bench/bench.sh $(BUILD)-bench

# Only the whole-command timings, printed.
bench-cli: deps bench-build tests/node_modules/.installed
	@bench/bench.sh $(BUILD)-bench --cli-only

$(BUILD)-bench/build.ninja:
	cmake -S . -B $(BUILD)-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVORN_TESTS=OFF -DVORN_BENCH=ON

# The peer JSON libraries the benchmarks compare against (benchmark-only).
bench-deps:
	@scripts/ensure-bench-deps.sh

# Configured once (after deps, hence the inner make), built every time.
bench-build: deps bench-deps
	@$(MAKE) --no-print-directory $(BUILD)-bench/build.ninja
	cmake --build $(BUILD)-bench -j $(JOBS)

# libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer) in a tree of their
# own; `make fuzz` runs each for FUZZ_SECONDS, or FUZZ_RUNS executions when that is set.
FUZZ_BUILD   ?= $(BUILD)-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= json http_reply flags file_target query
FUZZ_CXX     ?= clang++

$(FUZZ_BUILD)/build.ninja:
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) \
	  -DVORN_TESTS=OFF -DVORN_FUZZ=ON

# The targets, without the dependency check: fuzz-build and fuzz-test run it first (after deps,
# hence the inner make), and make test has run it already.
fuzz-targets: $(FUZZ_BUILD)/build.ninja
	cmake --build $(FUZZ_BUILD) --target fuzz_targets -j $(JOBS)

fuzz-build: deps
	@$(MAKE) --no-print-directory fuzz-targets

# The short run of every target that `make test` includes (about a minute), the targets side by
# side. A compiler without libFuzzer (Apple's clang) skips it with a notice; FUZZ_CXX names
# another one. fuzz-short is the same without the dependency check.
fuzz-test: deps
	@$(MAKE) --no-print-directory fuzz-short

fuzz-short:
	@if scripts/fuzz.sh --can-build $(FUZZ_CXX); then \
	  $(MAKE) --no-print-directory fuzz-targets && cd $(FUZZ_BUILD) && ctest --output-on-failure -j $(JOBS); \
	else echo "fuzz: skipped: $(FUZZ_CXX) cannot build libFuzzer targets (set FUZZ_CXX)"; fi

fuzz: fuzz-build
	@for t in $(FUZZ_TARGETS); do FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_RUNS=$(FUZZ_RUNS) scripts/fuzz.sh $(FUZZ_BUILD) $$t || exit 1; done

# What ships, in dist/: a universal macOS binary and static Linux ones (x86_64, aarch64), each
# in a tarball laid out like make install, and SHA256SUMS. Built with Zig from toolchain/; the
# same commit gives byte-identical archives. dist-check checks them (make test runs it).
DIST ?= dist

dist: deps
	@$(MAKE) --no-print-directory toolchain configure
	cmake --build $(BUILD) --target vorn_generated -j $(JOBS)
	JOBS=$(JOBS) scripts/dist.sh $(BUILD) $(DIST)

dist-check: tests/node_modules/.installed
ifeq ($(SYSTEM),Darwin)
	@echo "dist-check: skipped: the release is built and checked on Linux"
else
	@$(MAKE) --no-print-directory dist
	JOBS=$(JOBS) scripts/dist-check.sh $(BUILD) $(DIST)
endif

# The binary, the completion scripts and the manual page, by the build's install rules (the
# same as cmake --install); DESTDIR is honoured. The list of what went where is kept in
# $(BUILD)/install_manifest.txt, and make uninstall (with the same DESTDIR) removes exactly that.
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)

uninstall:
	@DESTDIR=$(DESTDIR) scripts/uninstall.sh $(BUILD)/install_manifest.txt

format:
	clang-format -i $$(git ls-files 'cli/*.cpp' 'cli/*.h' 'bench/*.cpp')

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(FUZZ_BUILD) $(LIBCXX_BUILD) $(BUILD)-macos-aarch64 $(BUILD)-macos-x86_64 \
	  $(BUILD)-linux-x86_64 $(BUILD)-linux-aarch64 $(DIST)

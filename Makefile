# The front door: make (build), make test, make demo, make bench, make fuzz, make install,
# make clean.
BUILD   ?= build
PREFIX  ?= /usr/local
CMAKE_FLAGS ?=
JOBS    ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test unit e2e demo bench bench-cli fuzz fuzz-build fuzz-test install clean format

all: build

deps:
	@scripts/ensure-deps.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

configure: $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) --target vorn -j $(JOBS)

test: deps configure tests/node_modules/.installed
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) fuzz-test

tests/node_modules/.installed: tests/package.json tests/package-lock.json
	cd tests && npm ci --no-audit --no-fund
	touch $@

demo: deps build tests/node_modules/.installed
	@scripts/demo.sh $(BUILD)/vorn

bench: deps
	cmake -S . -B $(BUILD)-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVORN_TESTS=OFF -DVORN_BENCH=ON
	cmake --build $(BUILD)-bench -j $(JOBS)
	@for b in $(BUILD)-bench/*_bench; do echo "== $$b"; $$b; done

bench-cli: deps build tests/node_modules/.installed
	@bench/cli_bench.sh $(BUILD)/vorn

# libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer) in a tree of their
# own; `make fuzz` runs each for FUZZ_SECONDS, or FUZZ_RUNS executions when that is set.
FUZZ_BUILD   ?= $(BUILD)-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= json http_reply flags file_target query
FUZZ_CXX     ?= clang++

fuzz-build: deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) \
	  -DVORN_TESTS=OFF -DVORN_FUZZ=ON
	cmake --build $(FUZZ_BUILD) --target fuzz_targets -j $(JOBS)

# The short run of every target that `make test` includes (about a minute). A compiler without
# libFuzzer (Apple's clang) skips it with a notice; FUZZ_CXX names another one.
fuzz-test:
	@if scripts/fuzz.sh --can-build $(FUZZ_CXX); then \
	  $(MAKE) fuzz-build && cd $(FUZZ_BUILD) && ctest --output-on-failure; \
	else echo "fuzz: skipped: $(FUZZ_CXX) cannot build libFuzzer targets (set FUZZ_CXX)"; fi

fuzz: fuzz-build
	@for t in $(FUZZ_TARGETS); do FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_RUNS=$(FUZZ_RUNS) scripts/fuzz.sh $(FUZZ_BUILD) $$t || exit 1; done

install: build
	install -d $(DESTDIR)$(PREFIX)/bin
	install -m 0755 $(BUILD)/vorn $(DESTDIR)$(PREFIX)/bin/vorn

format:
	clang-format -i $$(git ls-files 'cli/*.cpp' 'cli/*.h' 'bench/*.cpp')

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(FUZZ_BUILD)

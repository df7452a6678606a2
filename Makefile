# The front door: make (build), make test, make demo, make bench, make install, make clean.
BUILD   ?= build
PREFIX  ?= /usr/local
CMAKE_FLAGS ?=
JOBS    ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test unit e2e demo bench bench-cli install clean format

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

tests/node_modules/.installed: tests/package.json tests/package-lock.json
	cd tests && npm ci --no-audit --no-fund
	touch $@

demo: deps build tests/node_modules/.installed
	@scripts/demo.sh $(BUILD)/vorn

# Every benchmark beside its yardstick; rewrites the Benchmarks section of bench/RESULTS.md.
bench: deps bench-build tests/node_modules/.installed
	@bench/bench.sh $(BUILD)-bench

# Only the whole-command timings, printed.
bench-cli: deps bench-build tests/node_modules/.installed
	@bench/bench.sh $(BUILD)-bench --cli-only

bench-build: deps
	cmake -S . -B $(BUILD)-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVORN_TESTS=OFF -DVORN_BENCH=ON
	cmake --build $(BUILD)-bench -j $(JOBS)

install: build
	install -d $(DESTDIR)$(PREFIX)/bin
	install -m 0755 $(BUILD)/vorn $(DESTDIR)$(PREFIX)/bin/vorn

format:
	clang-format -i $$(git ls-files 'cli/*.cpp' 'cli/*.h' 'bench/*.cpp')

clean:
	rm -rf $(BUILD) $(BUILD)-bench

# The front door. Every target installs what it needs first (scripts/install-deps.sh
# is idempotent and returns at once when everything is present).

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 30
DEPS := scripts/install-deps.sh

.PHONY: all deps build test test-load demo test-asan test-tsan bench fuzz fuzz-smoke install clean

all: build

deps:
	@bash $(DEPS)

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

test: build
	ctest --preset default -j $(JOBS)

# The 10,000-request load test, once, on the default build (the test presets leave it out).
test-load: build
	ctest --test-dir build/default -L load --output-on-failure

demo: build
	./build/default/examples/krcommon-demo

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" setarch $$(uname -m) -R ctest --preset tsan -j $(JOBS)

bench: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bash scripts/run-benchmarks.sh build/bench

fuzz: deps
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)

fuzz-smoke: fuzz
	bash scripts/fuzz-smoke.sh build/fuzz $(FUZZ_SECONDS)

install: build
	cmake --install build/default --prefix $(or $(PREFIX),/usr/local)

clean:
	rm -rf build

# Debian packages (libkrcommon1 and libkrcommon-dev) in build/package, from a release
# build for /usr with the logger's build-time debug switch off.
.PHONY: package
package: deps
	cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DKRCOMMON_DEBUG_LOG=OFF -DKRCOMMON_BUILD_TESTS=OFF -DKRCOMMON_BUILD_EXAMPLES=OFF
	cmake --build build/package -j $(JOBS)
	cd build/package && cpack -G DEB

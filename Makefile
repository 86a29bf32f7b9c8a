# The README's commands. Each first installs what the build needs (scripts/install-deps).
JOBS ?= $(shell nproc)

.PHONY: all deps build demo test asan-test slow-test aarch64-test bench ci clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

# A narrated tour of the library through the tavikm tool, in a throwaway device directory.
demo: build
	build/default/tools/tavikm demo

test: build
	ctest --preset default -j $(JOBS)

asan-test: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# Long-running known-answer tests (e.g. scrypt's 1 GiB vector), left out of `make test`.
slow-test: build
	ctest --test-dir build/default -L slow --output-on-failure

# Cross build for AArch64; the tests run under qemu-aarch64.
aarch64-test:
	@scripts/install-deps --aarch64
	cmake --preset aarch64
	cmake --build --preset aarch64 -j $(JOBS)
	ctest --preset aarch64 -j $(JOBS)

bench:
	@scripts/install-deps --bench
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	build/bench/bench/scrypt_bench
	build/bench/bench/e2e_bench

# Everything CI runs.
ci: test asan-test slow-test aarch64-test

clean:
	rm -rf build

# The README's commands. Each first installs what the build needs (scripts/install-deps).
JOBS ?= $(shell nproc)

.PHONY: all deps build test asan-test ci clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

test: build
	ctest --preset default -j $(JOBS)

asan-test: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# Everything CI runs.
ci: test asan-test

clean:
	rm -rf build

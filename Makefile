# SPDX-License-Identifier: Apache-2.0
# The README's commands. Each first installs what the build needs (scripts/install-deps).
JOBS ?= $(shell nproc)

.PHONY: all deps build demo test asan-test slow-test aarch64-test bench ci clean install deb

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

# A narrated tour of the library through the tavikm tool, in a throwaway device directory. It
# builds only what the tool needs (library, host platform, tool); `make test` builds the rest.
demo: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target tavikm_tool
	build/default/tools/tavikm demo

# Then what this machine could not run, with the reasons (CTest shows only failures' output).
test: build
	ctest --preset default -j $(JOBS); status=$$?; scripts/show-skips build/default; exit $$status

asan-test: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

# The libraries, headers, pkg-config files, CMake package, tool, man page and completion under
# PREFIX (staged under DESTDIR when given).
PREFIX ?= /usr/local
install: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target tavikm tavikm_host tavikm_tool
	DESTDIR=$(DESTDIR) cmake --install build/default --prefix $(PREFIX)

# The Debian packages (libtavikm1, libtavikm-host1, libtavikm-dev, tavikm) into build/deb/,
# checked by lintian.
deb:
	@scripts/install-deps --deb
	scripts/build-deb build/deb

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

.PHONY: openssl-test fuzz fuzz-ci fuzz-seeds valgrind-test coverage format format-check check-layers \
  android-bp faults tool-docs

# The library and its tests against the system OpenSSL 3 instead of BoringSSL.
openssl-test:
	@scripts/install-deps --openssl
	cmake --preset openssl
	cmake --build --preset openssl -j $(JOBS)
	ctest --preset openssl -j $(JOBS)

# Every fuzz target for FUZZ_SECONDS over its seeds (fuzz/corpus/); any finding fails.
FUZZ_SECONDS ?= 60
fuzz:
	@scripts/install-deps --fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	scripts/run-fuzzers build/fuzz $(FUZZ_SECONDS) $(JOBS)

fuzz-ci:
	$(MAKE) fuzz FUZZ_SECONDS=60

# Rewrites the seed corpora from records and keys the library and the host Keymaster make.
fuzz-seeds:
	@scripts/install-deps --fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	build/fuzz/fuzz/make_fuzz_seeds fuzz/corpus

# The unit and integration tests under valgrind memcheck; any error or leak fails.
valgrind-test:
	@scripts/install-deps --valgrind
	cmake --preset valgrind
	cmake --build --preset valgrind -j $(JOBS)
	ctest --preset valgrind -j $(JOBS)

# Line and branch coverage of the library's own code by the default suites: a summary at the
# end, the browsable report in build/coverage/html/index.html.
COVERAGE_DIRS = common crypto keymaster mdfpp metadata
coverage:
	@scripts/install-deps --coverage
	cmake --preset coverage
	cmake --build --preset coverage -j $(JOBS)
	find build/coverage -name '*.gcda' -delete
	ctest --preset coverage -j $(JOBS)
	mkdir -p build/coverage/html
	gcovr --root . --object-directory build/coverage $(addprefix --filter ,$(addsuffix /,$(COVERAGE_DIRS))) \
	  --exclude-unreachable-branches --exclude-throw-branches \
	  --html-details build/coverage/html/index.html --print-summary

# clang-format over every C/C++ file the repository tracks (format rewrites, format-check fails
# on any difference).
FORMAT_FILES = $(shell git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.inc' ':!:tests/vectors/*')
format:
	@scripts/install-deps --format
	clang-format-14 -i $(FORMAT_FILES)

format-check:
	@scripts/install-deps --format
	@clang-format-14 --dry-run --Werror $(FORMAT_FILES)
	@echo "format-check: all $(words $(FORMAT_FILES)) C/C++ files match .clang-format"

# Plants each fault of scripts/faults.txt into the product code in turn and runs the non-slow
# suites; every fault must fail one (about a minute per fault on 2 cores; not part of ci).
faults:
	scripts/plant-faults

# Android.bp's srcs written anew from cmake/library_sources.txt (android_bp_test checks them).
android-bp:
	scripts/gen-android-bp

# The bash completion and the man page's synopsis, options and commands written anew from the
# tool's command table (tools/tavikm/command_table.cpp; tool_docs_test checks them).
tool-docs:
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target tavikm_docs
	build/default/tools/tavikm_docs .

# The library's folders use only those below them (scripts/check-layers); run after a build.
check-layers: build
	scripts/check-layers build/default

# The README's two commands in a minimal Debian 12 root, as root and as a user, from a fresh clone
# of HEAD (uncommitted changes are not tested); the root is kept in .fresh-root/.
.PHONY: fresh-test
fresh-test:
	@scripts/install-deps --fresh
	scripts/fresh-test

# Everything CI runs, one step after another (scripts/ci stops at the first failure and prints
# each step's time). Compiles are cached in build/ccache, so a preset with the same flags as
# another (valgrind's and default's) compiles nothing again.
CI_STEPS = test check-layers format-check asan-test slow-test aarch64-test openssl-test \
  valgrind-test fuzz-ci fresh-test
ci:
	@scripts/install-deps --ci
	scripts/ci $(CI_STEPS)

clean:
	rm -rf build

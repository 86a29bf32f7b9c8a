#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a staging prefix, then builds examples/storage_service.c against that
# prefix twice, through pkg-config and through the CMake package, and runs both on a fresh
# device directory. Also checks that the installed tool loads the installed library.
# Usage: install_example_test.sh BUILD_DIR SOURCE_DIR WORK_DIR [RUNNER...]
#   TAVIKM_VERSION, TAVIKM_LIBDIR (relative to the prefix), CC, CFLAGS, LDFLAGS and
#   CMAKE_TOOLCHAIN_FILE (optional) come from the build's configuration;
#   RUNNER (a cross build's emulator) starts the programs; CHECKER (valgrind), when set, runs
#   the find_package build of the example under it.
set -euo pipefail
build=$1 source=$2 work=$3
shift 3
runner=("$@")

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

lib=$prefix/${TAVIKM_LIBDIR:-lib}
for f in "$lib"/libtavikm.so.1 "$lib"/libtavikm.so "$lib"/libtavikm_host.so.1 \
  "$prefix"/include/tavikm.h "$prefix"/include/tavikm/host/hardware/hardware.h \
  "$prefix"/bin/tavikm "$prefix"/share/man/man8/tavikm.8 \
  "$prefix"/share/bash-completion/completions/tavikm; do
  [ -e "$f" ] || { echo "not installed: $f"; exit 1; }
done
# The platform headers stay in their own folder: nothing may shadow a system one.
for d in hardware cutils android hidl keymasterV4_0; do
  [ ! -e "$prefix/include/$d" ] || { echo "installed into a system folder: include/$d"; exit 1; }
done

# The installed tool finds the installed library, not the build tree's.
# Both versions are the project's; `version` says the same as `--version`.
version=$("${runner[@]}" "$prefix"/bin/tavikm --version)
echo "$version"
want="tavikm $TAVIKM_VERSION
libtavikm $TAVIKM_VERSION ($lib/libtavikm.so.$TAVIKM_VERSION)"
[ "$version" = "$want" ] || { echo "tavikm --version should print: $want"; exit 1; }
[ "$("${runner[@]}" "$prefix"/bin/tavikm version)" = "$want" ] || { echo "tavikm version differs"; exit 1; }

run_example() {
  local name=$1 program=$2
  mkdir "$work/device-$name"
  echo "== $name"
  TAVIKM_DEVICE_DIR=$work/device-$name "${runner[@]}" "$program" 2>"$work/$name.log" || {
    echo "the example built through $name failed; its log:"
    cat "$work/$name.log"
    exit 1
  }
}

# Only the staging prefix's pkg-config files, never a system-wide libtavikm.
export PKG_CONFIG_LIBDIR=$lib/pkgconfig
read -r -a pc_flags <<<"$(pkg-config --cflags --libs libtavikm libtavikm-host)"
read -r -a cflags <<<"${CFLAGS:-}"
read -r -a ldflags <<<"${LDFLAGS:-}"
# Each public header compiles on its own with nothing but pkg-config's flags: none may need a
# header the install does not carry.
for h in tavikm.h tavikm_keymaster.h tavikm_kmstore.h; do
  echo "#include <$h>" | "${CC:-cc}" -x c -fsyntax-only -Wall -Wextra -Werror "${pc_flags[@]}" - ||
    { echo "$h does not compile with only pkg-config's flags"; exit 1; }
done
"${CC:-cc}" -Wall -Wextra -Werror "${cflags[@]}" "$source/examples/storage_service.c" \
  "${pc_flags[@]}" "${ldflags[@]}" -Wl,-rpath,"$lib" -o "$work/storage_service_pc"
run_example pkg-config "$work/storage_service_pc"

cmake_args=(-S "$source/examples" -B "$work/example-build" -DCMAKE_PREFIX_PATH="$prefix"
  -DCMAKE_C_COMPILER="${CC:-cc}" -DCMAKE_C_FLAGS="${CFLAGS:-}"
  -DCMAKE_EXE_LINKER_FLAGS="${LDFLAGS:-}")
[ -z "${CMAKE_TOOLCHAIN_FILE:-}" ] || cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$CMAKE_TOOLCHAIN_FILE")
cmake "${cmake_args[@]}" >"$work/example-configure.log" || {
  cat "$work/example-configure.log"
  exit 1
}
cmake --build "$work/example-build" >"$work/example-build.log" || {
  cat "$work/example-build.log"
  exit 1
}
if [ -n "${CHECKER:-}" ]; then
  read -r -a checker <<<"$CHECKER"
  runner=("${checker[@]}" "${runner[@]}")
fi
run_example find_package "$work/example-build/storage_service"
echo "the example ran built both ways"

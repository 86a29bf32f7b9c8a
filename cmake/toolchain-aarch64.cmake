# SPDX-License-Identifier: Apache-2.0
# Cross build for AArch64 Linux with Debian's cross compiler and the arm64 packages installed
# through dpkg multiarch (scripts/install-deps --aarch64). Test programs run under qemu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch: arm64 libraries sit in /usr/lib/aarch64-linux-gnu (Dependencies.cmake takes the
# Android ones from its android/ folder), and the arm64 GTest package's CMake files are found
# there instead of the host's.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# The cross toolchain's loader and libc live under /usr/aarch64-linux-gnu. The arm64 packages
# bring a second libc (libc6:arm64) that the loader would otherwise find first; a loader and
# libc from different builds break fork() in the child, so the library path keeps them paired.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu
    -E LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib)

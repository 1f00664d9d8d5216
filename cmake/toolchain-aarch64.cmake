# Cross-builds the tree for AArch64 Linux with Debian's g++-aarch64-linux-gnu
# against an arm64 Debian 12 root (scripts/aarch64-root.sh makes one):
#   cmake -S . -B build-aarch64 \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake -DAARCH64_SYSROOT=<root>
# (or the environment variable AARCH64_SYSROOT). OpenCV, GoogleTest and Google
# Benchmark are found in the root only, never on this machine. Test programs
# run under qemu-aarch64-static with the root as its library prefix, so ctest
# runs the suite under emulation, and gtest_discover_tests lists each
# program's tests under it too.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT AARCH64_SYSROOT AND DEFINED ENV{AARCH64_SYSROOT})
  set(AARCH64_SYSROOT "$ENV{AARCH64_SYSROOT}")
endif()
if(NOT AARCH64_SYSROOT OR NOT EXISTS "${AARCH64_SYSROOT}/usr/include")
  message(FATAL_ERROR "AARCH64_SYSROOT must name an arm64 Debian 12 root "
    "(scripts/aarch64-root.sh makes one), got '${AARCH64_SYSROOT}'")
endif()
get_filename_component(AARCH64_SYSROOT "${AARCH64_SYSROOT}" REALPATH)
# try_compile projects read this file again: hand them the root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AARCH64_SYSROOT)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_SYSROOT "${AARCH64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${AARCH64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config, where a find module uses it, reads the root's .pc files.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${AARCH64_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${AARCH64_SYSROOT}/usr/share/pkgconfig")

# The linker follows the libraries' own dependencies (OpenCV's BLAS, image
# codecs) inside the root.
string(CONCAT _aarch64_rpath_link
  "-Wl,-rpath-link,${AARCH64_SYSROOT}/lib/aarch64-linux-gnu"
  " -Wl,-rpath-link,${AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_aarch64_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_aarch64_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_aarch64_rpath_link}")

find_program(AARCH64_QEMU qemu-aarch64-static)
if(NOT AARCH64_QEMU)
  message(FATAL_ERROR "qemu-aarch64-static not found (scripts/install-deps.sh cross)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${AARCH64_QEMU};-L;${AARCH64_SYSROOT}")

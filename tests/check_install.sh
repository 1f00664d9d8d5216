#!/usr/bin/env bash
# check_install.sh <build dir> <scratch dir>
# Installs the build into a scratch prefix, then builds and runs a host
# program against it twice: through find_package(binocular) and through
# pkg-config. Fails when a file is missing from the install, when the package
# configuration or the .pc file points anywhere else than the prefix, or when
# the installed library cannot be loaded (libdpu.so beside it).
set -euo pipefail
build="$1"
work="$2"
here="$(cd "$(dirname "$0")" && pwd)"
rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

cmake -S "$here/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/configure.log"
cmake --build "$work/cmake" >"$work/build.log"
"$work/cmake/consumer"

pcdir="$(dirname "$(find "$prefix" -name binocular.pc)")"
export PKG_CONFIG_PATH="$pcdir"
cc "$here/consumer/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs binocular) \
  -Wl,-rpath,"$(pkg-config --variable=libdir binocular)"
"$work/consumer-pc"

# The tools and the example configuration are installed too.
for f in bin/binocular-camsim bin/binocular-viewer bin/binocular-host share/doc/binocular/examples/binocular.ini; do
  [ -e "$prefix/$f" ] || { echo "missing from the install: $f" >&2; exit 1; }
done
echo "install checks passed"

#!/bin/sh
# Builds the library and its tests for a 32-bit target with Debian's cross
# compiler and runs the test suite there: i386 natively, 32-bit MIPS (o32,
# the device's ABI) under qemu-user. The device database emulator and
# redis-server stay on the build machine; the tests reach them over the same
# unix sockets.
#   scripts/test-cross.sh i686-linux-gnu|mipsel-linux-gnu [CTEST-ARG...]
# BUILD_DIR (default build-<target>) and BUILD_TYPE (default Release) choose
# the build. DEVDB names a tqredis-devdb built for this machine; by default
# the one in ${NATIVE_BUILD_DIR:-build}, built there when missing. Installs
# what is missing first. Run as root, like the tests.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "$#" -lt 1 ]; then
  echo "usage: $0 i686-linux-gnu|mipsel-linux-gnu [CTEST-ARG...]" >&2
  exit 2
fi
target=$1
shift
toolchain=$root/cmake/toolchains/$target.cmake
if [ ! -f "$toolchain" ]; then
  echo "no toolchain file $toolchain" >&2
  exit 2
fi
"$root/scripts/install-deps.sh"
build_dir=${BUILD_DIR:-$root/build-$target}
native_dir=${NATIVE_BUILD_DIR:-$root/build}
devdb=${DEVDB:-$native_dir/tools/devdb/tqredis-devdb}
if [ ! -x "$devdb" ]; then
  cmake -S "$root" -B "$native_dir" -G Ninja \
    -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" -DTQREDIS_WERROR=ON
  cmake --build "$native_dir" --target tqredis-devdb
fi
# The tools are the build machine's: only the library, the examples and the
# tests are built for the target.
cmake -S "$root" -B "$build_dir" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" \
  -DTQREDIS_WERROR=ON \
  -DTQREDIS_BUILD_TOOLS=OFF \
  -DTQREDIS_BUILD_BENCHMARKS=OFF \
  -DTQREDIS_DEVDB="$devdb"
cmake --build "$build_dir"
cd "$build_dir"
# In a PID namespace of its own: a test cut short (interrupted, timed out)
# leaves no emulator, server or qemu behind.
exec "$root/scripts/lib/pid-ns.sh" \
  ctest --output-on-failure -j "${TEST_JOBS:-2}" "$@"

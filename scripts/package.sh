#!/bin/sh
# Builds the Debian packages libtqredis0, libtqredis-dev and tqredis-tools
# for this machine or for a cross target, and checks them with lintian.
#   scripts/package.sh                   amd64 (this machine), from build/
#   scripts/package.sh i686-linux-gnu    i386, from build-i686-linux-gnu/
#   scripts/package.sh mipsel-linux-gnu  32-bit MIPS, from build-mipsel-linux-gnu/
# BUILD_DIR chooses the build tree; the packages land in OUT_DIR, by default
# the tree's packages/ (build/packages, build-<target>/packages). A tree that
# exists (the test scripts' own) is reused: it is reconfigured for /usr
# (CMAKE_INSTALL_PREFIX, CMAKE_INSTALL_LIBDIR=lib/<multiarch>) with the tools
# on, and only what the packages hold is built. A missing one is
# configured with the library and the tools alone.
# Installs what is missing first (lintian included). Run as root.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:-}
if [ "$#" -gt 1 ]; then
  echo "usage: $0 [i686-linux-gnu|mipsel-linux-gnu]" >&2
  exit 2
fi
toolchain=""
if [ -n "$target" ]; then
  toolchain=$root/cmake/toolchains/$target.cmake
  if [ ! -f "$toolchain" ]; then
    echo "no toolchain file $toolchain" >&2
    exit 2
  fi
  build_dir=${BUILD_DIR:-$root/build-$target}
  "$root/scripts/install-deps.sh"
else
  build_dir=${BUILD_DIR:-$root/build}
  TQREDIS_NATIVE_ONLY=1 "$root/scripts/install-deps.sh"
fi
out_dir=${OUT_DIR:-$build_dir/packages}
# The library goes to lib/<multiarch>, where packages of several
# architectures sit side by side (CMake picks it by itself only natively).
if [ -n "$target" ]; then
  multiarch=$(dpkg-architecture -t"$target" -qDEB_HOST_MULTIARCH 2>/dev/null)
else
  multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
fi

# lintian only checks the packages: installed here, not with the build's
# dependencies.
if ! dpkg-query -W -f='${Status}' lintian 2>/dev/null | grep -q "ok installed"; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "installing: lintian"
  $sudo apt-get update -q || echo "apt-get update reported a failure; installing anyway"
  DEBIAN_FRONTEND=noninteractive \
    $sudo apt-get install -y -q --no-install-recommends lintian
fi

if [ -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build_dir" -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" -DTQREDIS_BUILD_TOOLS=ON >/dev/null
else
  set -- -DTQREDIS_BUILD_TESTS=OFF -DTQREDIS_BUILD_EXAMPLES=OFF \
    -DTQREDIS_BUILD_BENCHMARKS=OFF
  [ -n "$toolchain" ] && set -- "$@" -DCMAKE_TOOLCHAIN_FILE="$toolchain"
  cmake -S "$root" -B "$build_dir" -G Ninja \
    -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" -DTQREDIS_WERROR=ON \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" "$@" \
    >/dev/null
fi
cmake --build "$build_dir" --target tqredis tqredis-devdb tqredis-stat \
  tqredis_man tqredis_deb_docs

# CPack works in the build tree; the packages go to a fresh folder first, so
# that only this run's are checked, then beside the others.
mkdir -p "$out_dir"
work=$(mktemp -d "$out_dir/.cpack.XXXXXX")
trap 'rm -rf "$work"' EXIT
(cd "$build_dir" &&
  cpack -G DEB -D CPACK_OUTPUT_FILE_PREFIX="$work" >"$work/cpack.log" 2>&1) || {
  cat "$work/cpack.log"
  exit 1
}
set -- "$work"/*.deb
if [ "$#" -ne 3 ]; then
  echo "expected 3 packages, cpack made $#" >&2
  cat "$work/cpack.log"
  exit 1
fi
# Errors fail the build; warnings and notes are shown.
lintian --fail-on error --display-info "$@"
mv -f "$@" "$out_dir/"
for deb in "$@"; do
  echo "$out_dir/$(basename "$deb")"
done

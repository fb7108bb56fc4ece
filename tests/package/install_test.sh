#!/bin/sh
# Installs the build tree into a fresh prefix and builds the host program in
# host/ against that prefix only, then runs it and checks that it loaded the
# installed library.
#   install_test.sh pkgconfig|cmake BUILD_DIR CC CMAKE GENERATOR MAKE_PROGRAM [CFLAGS]
set -eu
mode=$1 build=$2 cc=$3 cmake=$4 generator=$5 make_program=$6 cflags=${7:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/tqredis-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log"
# The library with its SONAME link, the header, both package descriptions.
for f in include/tqredis.h; do
  [ -f "$prefix/$f" ] || { echo "not installed: $f"; exit 1; }
done
lib=$(find "$prefix" -name 'libtqredis.so.*.*.*' | head -n 1)
[ -n "$lib" ] || { echo "not installed: libtqredis.so.<version>"; exit 1; }
libdir=$(dirname "$lib")
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" {print $2}')
[ -L "$libdir/$soname" ] || { echo "no SONAME link $soname"; exit 1; }
[ -L "$libdir/libtqredis.so" ] || { echo "no development link"; exit 1; }
[ -f "$libdir/pkgconfig/tqredis.pc" ] || { echo "no pkg-config file"; exit 1; }
[ -f "$libdir/cmake/tqredis/tqredisConfig.cmake" ] || {
  echo "no CMake package"; exit 1; }
# The viewer finds the installed library from its own place.
usage=$(env -u LD_LIBRARY_PATH "$prefix/bin/tqredis-stat" --help | head -n 1)
case $usage in
"usage: tqredis-stat "*) ;;
*) echo "installed tqredis-stat does not run: $usage"; exit 1 ;;
esac

case $mode in
pkgconfig)
  # The prefix is found from the file's own place, wherever it was installed.
  PKG_CONFIG_PATH=$libdir/pkgconfig
  export PKG_CONFIG_PATH
  flags=$(pkg-config --cflags --libs tqredis)
  echo "pkg-config: $flags"
  # hiredis's -D_FILE_OFFSET_BITS=64 would change the host's own off_t.
  case $flags in
  *_FILE_OFFSET_BITS*) echo "the flags change the host's off_t"; exit 1 ;;
  esac
  # shellcheck disable=SC2086
  "$cc" $cflags -o "$work/tqhost" "$here/host/host.c" $flags -ldl
  LD_LIBRARY_PATH=$libdir "$work/tqhost" >"$work/out"
  ;;
cmake)
  "$cmake" -S "$here/host" -B "$work/host-build" -G "$generator" \
    -DCMAKE_MAKE_PROGRAM="$make_program" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="$cflags" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
  "$cmake" --build "$work/host-build" >"$work/build.log" ||
    { cat "$work/build.log"; exit 1; }
  # The build tree's run path points into the prefix: no LD_LIBRARY_PATH.
  "$work/host-build/tqhost" >"$work/out"
  ;;
*)
  echo "unknown mode $mode"; exit 2 ;;
esac

cat "$work/out"
expected="library: $libdir/$soname
databases: redis_de_global redis_ce_global redis_host
redis_host exists: 1
initialised: 0"
if [ "$(cat "$work/out")" != "$expected" ]; then
  echo "expected:"; echo "$expected"; exit 1
fi
echo "the host program ran against $prefix"

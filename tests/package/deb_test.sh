#!/bin/sh
# Installs this machine's Debian packages (libtqredis0, libtqredis-dev,
# tqredis-tools, as scripts/package.sh makes them) into a fresh root with
# dpkg -x, which touches nothing else on the machine; builds a C and a C++
# host program with pkg-config pointed into that root alone; and runs them,
# and the packaged tqredis-stat, against the device database emulator of the
# packaged tools, started from the root by "tqredis-devdb run --". The
# emulator serves the device's fixed sockets in /tmp/redis: run it in a
# private mount namespace (tests/support/private_ns.sh).
#   deb_test.sh PACKAGE_DIR VERSION CC CXX
# Exits 77 (skipped) when PACKAGE_DIR holds no packages of VERSION, or 1
# with TQREDIS_REQUIRE_PACKAGES=1 (CI, right after building them).
set -eu
pkg_dir=$1 version=$2 cc=$3 cxx=$4
here=$(cd "$(dirname "$0")" && pwd)
arch=$(dpkg --print-architecture)
lib_package=libtqredis${version%%.*}
for p in "$lib_package" libtqredis-dev tqredis-tools; do
  if [ ! -f "$pkg_dir/${p}_${version}_$arch.deb" ]; then
    echo "no ${p}_${version}_$arch.deb in $pkg_dir: run scripts/package.sh first"
    [ "${TQREDIS_REQUIRE_PACKAGES:-0}" = 1 ] && exit 1
    exit 77
  fi
done
work=$(mktemp -d /tmp/tqredis-deb.XXXXXX)
trap 'rm -rf "$work"' EXIT
root=$work/root
fail() {
  echo "FAIL: $*"
  exit 1
}

# What each package promises its users.
needs() {
  deps=$(dpkg-deb -f "$pkg_dir/${1}_${version}_$arch.deb" Depends)
  case ", $deps, " in
  *", $2"[,\ ]*) ;;
  *) fail "$1 does not depend on $2: $deps" ;;
  esac
}
needs libtqredis-dev "$lib_package (= $version)"
needs libtqredis-dev libhiredis-dev
needs tqredis-tools "$lib_package (= $version)"
needs tqredis-tools redis-server
needs "$lib_package" libhiredis0.14

for p in "$lib_package" libtqredis-dev tqredis-tools; do
  dpkg -x "$pkg_dir/${p}_${version}_$arch.deb" "$root"
  [ -f "$root/usr/share/doc/$p/copyright" ] || fail "$p has no copyright file"
done
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=$root/usr/lib/$multiarch
for f in usr/include/tqredis.h "usr/lib/$multiarch/libtqredis.so" \
  "usr/lib/$multiarch/libtqredis.so.${version%%.*}" \
  "usr/lib/$multiarch/libtqredis.so.$version" \
  "usr/lib/$multiarch/pkgconfig/tqredis.pc" \
  "usr/lib/$multiarch/cmake/tqredis/tqredisConfig.cmake" \
  usr/bin/tqredis-devdb usr/bin/tqredis-stat \
  usr/share/man/man1/tqredis-devdb.1.gz usr/share/man/man1/tqredis-stat.1.gz; do
  [ -e "$root/$f" ] || fail "not installed: /$f"
done
soname=$(objdump -p "$libdir/libtqredis.so.$version" | awk '$1 == "SONAME" {print $2}')
[ "$soname" = "libtqredis.so.${version%%.*}" ] || fail "SONAME $soname"

# pkg-config sees the root's files only. The .pc finds its prefix from its
# own place, so PKG_CONFIG_SYSROOT_DIR is not needed.
PKG_CONFIG_LIBDIR=$libdir/pkgconfig
PKG_CONFIG_PATH=
export PKG_CONFIG_LIBDIR PKG_CONFIG_PATH
flags=$(pkg-config --cflags --libs tqredis)
echo "pkg-config: $flags"
case $flags in
*_FILE_OFFSET_BITS*) fail "the flags change the host's off_t: $flags" ;;
esac
[ "$(cd "$(pkg-config --variable=libdir tqredis)" && pwd -P)" = "$libdir" ] ||
  fail "libdir $(pkg-config --variable=libdir tqredis)"
# The C host finds the library through LD_LIBRARY_PATH, the C++ one through
# its run path: the two ways the README gives. The C++ one is written on the
# installed C++ header.
# shellcheck disable=SC2086
"$cc" -std=c99 -Wall -Wextra -Werror -o "$work/debhost_c" \
  "$here/host/deb_host.c" $flags -ldl
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror -o "$work/debhost_cpp" \
  "$here/host/deb_host.cc" $flags -Wl,-rpath,"$libdir" -ldl

# Without either, the loader does not look in the root, unless a libtqredis0
# is installed on this machine too.
if ! /sbin/ldconfig -p | grep -q "libtqredis.so.${version%%.*} "; then
  if env -u LD_LIBRARY_PATH "$work/debhost_c" >"$work/out" 2>&1; then
    fail "ran without finding its library: $(cat "$work/out")"
  fi
  grep -q "libtqredis.so.${version%%.*}: cannot open shared object file" \
    "$work/out" || fail "unexpected loader error: $(cat "$work/out")"
fi

devdb=$root/usr/bin/tqredis-devdb
# The hosts leave their statistics; the packaged viewer, which finds its
# library from its own place, shows them.
# shellcheck disable=SC2016 # expanded by the inner shell
LD_LIBRARY_PATH=$libdir "$devdb" run -- sh -c \
  '"$1" && env -u LD_LIBRARY_PATH "$2" && env -u LD_LIBRARY_PATH "$3"' sh \
  "$work/debhost_c" "$work/debhost_cpp" "$root/usr/bin/tqredis-stat" \
  >"$work/out" || { cat "$work/out"; fail "the run failed"; }
cat "$work/out"
expected="library: $libdir/libtqredis.so.${version%%.*}
value: hello from C
own read connection online: 1
library: $libdir/libtqredis.so.${version%%.*}
value: hello from C++
own read connection online: 1"
[ "$(head -n 6 "$work/out")" = "$expected" ] ||
  { echo "expected:"; echo "$expected"; fail "the host programs' output"; }
# Time statistics are off: no peak. The SET and the GET are each one
# outbound operation.
stat_expected="PROCESS      DIR       TOTAL  PEAK TOOK      TID  PEAK AT
debhost_c    in            0          -        -  -
             out           2          -        -  -
debhost_cpp  in            0          -        -  -
             out           2          -        -  -"
[ "$(tail -n +7 "$work/out")" = "$stat_expected" ] ||
  { echo "expected:"; echo "$stat_expected"; fail "tqredis-stat's table"; }
[ -z "$(ls -A /tmp/redis)" ] || fail "the emulator left $(ls -A /tmp/redis)"
echo "the packages built and ran both host programs from $root"

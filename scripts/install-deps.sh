#!/bin/sh
# Installs, from Debian's packages, what this machine lacks for the named
# groups; needs root (or sudo) only when something is missing.
#   scripts/install-deps.sh [main|test|cross]...
#   main   the native build of the library, the example and the tools, and
#          redis-server behind the device database emulator
#   test   main, and the tests', benchmarks' and memcheck's packages
#   cross  the 32-bit builds: i386 run natively, 32-bit MIPS (the device's
#          ABI) under qemu-user; Debian's cross compilers, the target's
#          libraries through multiarch (g++-multilib would conflict with the
#          cross compilers)
# Without a group: test and cross; TQREDIS_NATIVE_ONLY=1 leaves cross out.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
main_packages="build-essential cmake ninja-build pkg-config libhiredis-dev
redis-server"
test_packages="$main_packages redis-tools libgtest-dev libgmock-dev
libbenchmark-dev binutils valgrind"
cross_packages="g++-i686-linux-gnu g++-mipsel-linux-gnu qemu-user
libhiredis-dev:i386 libhiredis-dev:mipsel libgtest-dev:i386 libgtest-dev:mipsel
libstdc++6:i386 libstdc++6:mipsel"

if [ "$#" -eq 0 ]; then
  set -- test
  [ "${TQREDIS_NATIVE_ONLY:-0}" = 1 ] || set -- test cross
fi
packages=""
for group in "$@"; do
  case "$group" in
    main) packages="$packages $main_packages" ;;
    test) packages="$packages $test_packages" ;;
    cross) packages="$packages $cross_packages" ;;
    *) echo "usage: $0 [main|test|cross]..." >&2; exit 2 ;;
  esac
done
# shellcheck disable=SC2086
exec "$root/scripts/lib/ensure-packages.sh" $packages

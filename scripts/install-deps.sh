#!/bin/sh
# Installs, from Debian's packages, whatever the build, the tests and the
# examples need and this machine lacks. Needs root (or sudo) only when
# something is missing.
set -eu
packages="build-essential cmake ninja-build pkg-config libhiredis-dev redis-server
redis-tools libgtest-dev libgmock-dev libbenchmark-dev binutils valgrind"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" \
    || missing="$missing $p"
done
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
if [ -n "$missing" ]; then
  echo "installing:$missing"
  # An index that fails to refresh must not stop the install: what matters is
  # that the packages install, which the next command checks.
  $sudo apt-get update -q || echo "apt-get update reported a failure; installing anyway"
  # shellcheck disable=SC2086
  $sudo apt-get install -y -q --no-install-recommends $missing
fi

# The 32-bit builds: i386 run natively, 32-bit MIPS (the device's ABI) run
# under qemu-user. Debian's cross compilers, the target's libraries through
# multiarch (g++-multilib would conflict with the cross compilers).
# TQREDIS_NATIVE_ONLY=1 leaves them out.
[ "${TQREDIS_NATIVE_ONLY:-0}" = 1 ] && exit 0
cross_archs="i386 mipsel"
cross_packages="g++-i686-linux-gnu g++-mipsel-linux-gnu qemu-user
libhiredis-dev:i386 libhiredis-dev:mipsel libgtest-dev:i386 libgtest-dev:mipsel
libstdc++6:i386 libstdc++6:mipsel"
cross_missing() {
  for p in $cross_packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" \
      || printf ' %s' "$p"
  done
}
missing=$(cross_missing)
[ -z "$missing" ] && exit 0
for arch in $cross_archs; do
  dpkg --print-foreign-architectures | grep -qx "$arch" \
    || $sudo dpkg --add-architecture "$arch"
done
echo "installing:$missing"
# With foreign architectures one index (say i386 of the security suite) may
# fail to refresh while the rest install fine; a failed install is tried
# again after a fresh update, in case the mirror was mid-sync. What counts is
# that every package ends up installed, checked at the end.
for attempt in 1 2 3; do
  $sudo apt-get update -q || echo "apt-get update reported a failure; installing anyway"
  # shellcheck disable=SC2086
  $sudo apt-get install -y -q --no-install-recommends $missing && break
  echo "install attempt $attempt failed"
  sleep $((attempt * 20))
done
missing=$(cross_missing)
if [ -n "$missing" ]; then
  echo "not installed:$missing" >&2
  exit 1
fi

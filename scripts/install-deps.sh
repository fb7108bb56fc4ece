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
[ -z "$missing" ] && exit 0
echo "installing:$missing"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# An index that fails to refresh must not stop the install: what matters is
# that the packages install, which the next command checks.
$sudo apt-get update -q || echo "apt-get update reported a failure; installing anyway"
# shellcheck disable=SC2086
$sudo apt-get install -y -q --no-install-recommends $missing

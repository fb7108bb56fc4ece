#!/bin/sh
# Installs, from Debian's packages, those of the named packages this machine
# lacks; prints nothing and touches nothing when every one is installed.
#   scripts/lib/ensure-packages.sh PACKAGE[:ARCH]...
# A name without an architecture means this machine's own (or an "all"
# package); a name with one adds that foreign architecture to dpkg first.
# Needs root (or sudo) only when something is missing. Exits non-zero when a
# package is still missing after three attempts.
set -eu
if [ "$#" -eq 0 ]; then
  echo "usage: $0 PACKAGE[:ARCH]..." >&2
  exit 2
fi
native=$(dpkg --print-architecture)

# dpkg-query matches an unqualified name in every architecture, so an i386
# copy alone would pass for the native one: the architecture is checked too.
installed() {
  case "$1" in
    *:*) want=${1#*:} ;;
    *) want=$native ;;
  esac
  dpkg-query -W -f='${Status} ${Architecture}\n' "$1" 2>/dev/null |
    grep -Eq "^install ok installed ($want|all)\$"
}
# Each missing package once, in the order given.
missing() {
  seen=" "
  for p in "$@"; do
    case "$seen" in *" $p "*) continue ;; esac
    seen="$seen$p "
    installed "$p" || printf ' %s' "$p"
  done
}

need=$(missing "$@")
[ -z "$need" ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
for p in $need; do
  case "$p" in
    *:*) arch=${p#*:} ;;
    *) continue ;;
  esac
  [ "$arch" = "$native" ] && continue
  dpkg --print-foreign-architectures | grep -qx "$arch" ||
    $sudo dpkg --add-architecture "$arch"
done

echo "installing:$need"
# An index that fails to refresh (with foreign architectures, say i386 of the
# security suite) must not stop the install; a failed install is tried again
# after a fresh update, in case the mirror was mid-sync. What counts is that
# every package ends up installed, checked at the end.
for attempt in 1 2 3; do
  $sudo apt-get update -q ||
    echo "apt-get update reported a failure; installing anyway"
  # shellcheck disable=SC2086
  $sudo apt-get install -y -q --no-install-recommends $need && break
  echo "install attempt $attempt failed"
  if [ "$attempt" -lt 3 ]; then sleep $((attempt * 20)); fi
done
# shellcheck disable=SC2086
need=$(missing $need)
if [ -n "$need" ]; then
  echo "not installed:$need" >&2
  exit 1
fi

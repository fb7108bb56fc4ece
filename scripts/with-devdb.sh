#!/bin/sh
# Runs a command with the device database emulator serving the device's
# sockets in /tmp/redis, then stops the emulator, also when the command fails
# or is interrupted, and exits with the command's status.
#   scripts/with-devdb.sh COMMAND [ARG...]
# DEVDB names the emulator program; by default the one built in
# ${BUILD_DIR:-build}, else tqredis-devdb on the PATH. An emulator already
# serving /tmp/redis is used as it is and left running.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
devdb=${DEVDB:-$build_dir/tools/devdb/tqredis-devdb}
[ -x "$devdb" ] || devdb=tqredis-devdb
dir=/tmp/redis
if [ "$#" -eq 0 ]; then
  echo "usage: $0 COMMAND [ARG...]" >&2
  exit 2
fi
mkdir -p "$dir"
if ! "$devdb" status --dir "$dir" >/dev/null; then
  "$devdb" start --dir "$dir"
  trap '"$devdb" stop --dir "$dir" >/dev/null' EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
fi
status=0
"$@" || status=$?
exit "$status"

#!/bin/sh
# Runs a command with the device database emulator serving the device's
# sockets in /tmp/redis, then stops the emulator, also when the command fails
# or this script is interrupted (INT, TERM: the command is stopped too), and
# exits with the command's status.
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
started=0
child=""
# Stops what this script started: the command, if a signal cut it short, and
# the emulator, unless it was already running.
finish() {
  if [ -n "$child" ]; then
    kill "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null || true
  fi
  if [ "$started" = 1 ]; then
    "$devdb" stop --dir "$dir" >/dev/null || true
  fi
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
if ! "$devdb" status --dir "$dir" >/dev/null; then
  started=1
  "$devdb" start --dir "$dir"
fi
# The command runs in the background, with this script's standard input, so
# that a signal sent to this script alone is acted on at once: a shell runs
# its traps only after a foreground command ends.
exec 3<&0
"$@" <&3 3<&- &
child=$!
status=0
wait "$child" || status=$?
child=""
exit "$status"

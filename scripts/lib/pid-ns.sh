#!/bin/sh
# Runs a command in a PID namespace of its own (with its own /proc) and exits
# with the command's status. Whatever the command starts ends with it, also
# daemons that left its session (the device database emulator a test starts
# outlives a test that is killed): when the namespace's first process ends,
# the kernel kills every process left in it. INT or TERM to this script ends
# the namespace at once. Needs root.
#   scripts/lib/pid-ns.sh COMMAND [ARG...]
set -eu
if [ "$#" -eq 0 ]; then
  echo "usage: $0 COMMAND [ARG...]" >&2
  exit 2
fi
ns=""
# unshare waits for its child with INT and TERM blocked; killed, it takes its
# child, the namespace's first process, with it (--kill-child).
# shellcheck disable=SC2317 # called by the EXIT trap
finish() {
  if [ -n "$ns" ]; then
    kill -KILL "$ns" 2>/dev/null || true
    wait "$ns" 2>/dev/null || true
  fi
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
# The first process of a namespace ignores the signals it has no handler
# for, so a shell is that process and the command its child, which takes its
# signals as usual. In the background, with this script's standard input, so
# that a signal sent to this script alone is acted on at once.
exec 3<&0
unshare --pid --fork --kill-child --mount-proc \
  sh -c '"$@"; exit $?' sh "$@" <&3 3<&- &
ns=$!
status=0
wait "$ns" || status=$?
ns=""
exit "$status"

#!/bin/sh
# Runs a command in a private mount namespace whose /tmp/redis, /tmp/tqredis
# and /var/tmp/coredump are empty folders of its own, so that tests on the
# device's fixed socket and log paths can run side by side without touching
# each other or a server a developer may have running. Needs root.
set -eu
exec unshare --mount --propagation private sh -c '
  for dir in /tmp/redis /tmp/tqredis /var/tmp/coredump; do
    mkdir -p "$dir" && mount -t tmpfs -o mode=1777 tmpfs "$dir"
  done
  exec "$@"' sh "$@"

#!/bin/sh
# The test command: installs what is missing, builds (Release, warnings as
# errors) and runs every test, each in its own process. Same variables as
# build.sh. Run as root: the tests write the configuration folder
# /data/tqredis/ and the log folder /tmp/tqredis/.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build_dir=${BUILD_DIR:-$root/build}
cd "$build_dir"
# In a PID namespace of its own: a test cut short (interrupted, timed out)
# leaves no emulator or server behind.
exec "$root/scripts/lib/pid-ns.sh" ctest --output-on-failure -j "${TEST_JOBS:-2}"

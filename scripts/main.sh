#!/bin/sh
# The main job: installs what is missing for it alone (the native build,
# redis-server; no test framework, no cross toolchain), builds the library,
# the example and the tools without the tests and benchmarks, starts the
# device database emulator on the device's socket paths, runs the example
# host process with every safety switch on (--safe, as "safe=1" in its .dbg
# file would) and the statistics viewer on what it left in redis_host, and
# stops the emulator afterwards. scripts/build.sh (or scripts/test.sh) on the
# same BUILD_DIR brings the tests back.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" main
TQREDIS_BUILD_TESTS=OFF TQREDIS_BUILD_BENCHMARKS=OFF "$root/scripts/build.sh"
build_dir=${BUILD_DIR:-$root/build}
# The example process, then its statistics as the viewer shows them; exec,
# so that a signal to this script reaches the wrapper that stops the emulator.
BUILD_DIR="$build_dir" exec "$root/scripts/with-devdb.sh" sh -c '
  "$1/examples/tqexample" --safe && echo &&
  echo "== tqredis-stat" && "$1/tools/stat/tqredis-stat" && echo &&
  echo "== tqredis-stat tqexample" && "$1/tools/stat/tqredis-stat" tqexample' \
  sh "$build_dir"

#!/bin/sh
# The main job: installs what is missing, builds, starts the device database
# emulator on the device's socket paths, runs the example host process, and
# stops the emulator afterwards.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build_dir=${BUILD_DIR:-$root/build}
BUILD_DIR="$build_dir" "$root/scripts/with-devdb.sh" "$build_dir/examples/tqexample"

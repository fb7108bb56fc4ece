#!/bin/sh
# The main job: installs what is missing, builds, and runs the example host
# process.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build_dir=${BUILD_DIR:-$root/build}
"$build_dir/examples/tqexample"

#!/bin/sh
# Configures and builds the project. BUILD_DIR (default build), BUILD_TYPE
# (default Release) and TQREDIS_SANITIZE (e.g. address,undefined) choose the
# build; warnings are errors.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" \
  -DTQREDIS_WERROR=ON \
  -DTQREDIS_SANITIZE="${TQREDIS_SANITIZE:-}"
cmake --build "$build_dir"

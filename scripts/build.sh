#!/bin/sh
# Configures and builds the project. BUILD_DIR (default build), BUILD_TYPE
# (default Release) and TQREDIS_SANITIZE (e.g. address,undefined) choose the
# build; TQREDIS_BUILD_TESTS and TQREDIS_BUILD_BENCHMARKS (ON or OFF, default
# ON) whether the tests and benchmarks are in it. Warnings are errors.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
# Both options are always passed: CMake's cache keeps the last value, and a
# build directory configured without its tests (say by scripts/main.sh) must
# get them back from the next plain build.
cmake -S "$root" -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" \
  -DTQREDIS_WERROR=ON \
  -DTQREDIS_SANITIZE="${TQREDIS_SANITIZE:-}" \
  -DTQREDIS_BUILD_TESTS="${TQREDIS_BUILD_TESTS:-ON}" \
  -DTQREDIS_BUILD_BENCHMARKS="${TQREDIS_BUILD_BENCHMARKS:-ON}"
cmake --build "$build_dir"

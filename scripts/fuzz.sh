#!/bin/sh
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and runs each for FUZZ_SECONDS (default 60)
# from a copy of its starting corpus in fuzz/corpus/<target>/. BUILD_DIR defaults
# to build-fuzz. Exits non-zero when a target finds a crash, a leak or a
# sanitizer report; the input that did it is left in BUILD_DIR/artifacts/.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-fuzz}
seconds=${FUZZ_SECONDS:-60}
targets="fuzz_reply fuzz_pmsg fuzz_config fuzz_status fuzz_format"

"$root/scripts/lib/ensure-packages.sh" clang libclang-rt-14-dev

# Only the fuzz targets are built: they link the library's objects, and the
# shared library itself cannot link clang's sanitizer runtime.
CC=clang CXX=clang++ cmake -S "$root" -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQREDIS_WERROR=ON \
  -DTQREDIS_SANITIZE=address,undefined -DTQREDIS_BUILD_FUZZERS=ON \
  -DTQREDIS_BUILD_TESTS=OFF -DTQREDIS_BUILD_EXAMPLES=OFF \
  -DTQREDIS_BUILD_TOOLS=OFF -DTQREDIS_BUILD_BENCHMARKS=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build "$build_dir" --target $targets

mkdir -p "$build_dir/artifacts"
status=0
for target in $targets; do
  name=${target#fuzz_}
  work="$build_dir/corpus/$name"
  rm -rf "$work"
  mkdir -p "$work"
  cp "$root/fuzz/corpus/$name/"* "$work/"
  echo "== fuzzing $target for ${seconds}s"
  if ! "$build_dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 \
      -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
      -artifact_prefix="$build_dir/artifacts/$target-" \
      "$work" >"$build_dir/$target.log" 2>&1; then
    status=1
    tail -n 60 "$build_dir/$target.log"
    echo "$target FAILED"
  fi
  grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' \
    "$build_dir/$target.log" | sed "s/^/$target /"
done
exit $status

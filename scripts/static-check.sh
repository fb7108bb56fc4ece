#!/bin/sh
# clang-tidy (checks in .clang-tidy) over the library's sources, and cppcheck
# (suppressions in .cppcheck-suppressions) over the library and the fuzz
# targets. Every finding is an error. BUILD_DIR (default build-tidy) holds
# the compilation database.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-tidy}

"$root/scripts/lib/ensure-packages.sh" clang-tidy cppcheck

cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DTQREDIS_BUILD_TESTS=OFF -DTQREDIS_BUILD_TOOLS=OFF \
  -DTQREDIS_BUILD_EXAMPLES=OFF -DTQREDIS_BUILD_BENCHMARKS=OFF >/dev/null

echo "== clang-tidy"
run-clang-tidy -p "$build_dir" -quiet -j "${TIDY_JOBS:-2}" "$root/src/" \
  >"$build_dir/clang-tidy.log" 2>&1 || {
  grep -E 'warning:|error:' "$build_dir/clang-tidy.log" || tail -n 40 "$build_dir/clang-tidy.log"
  echo "clang-tidy: findings above"
  exit 1
}
echo "clang-tidy: clean"

echo "== cppcheck"
cd "$root"
cppcheck --std=c++17 --language=c++ --enable=warning,performance,portability \
  --library=posix --inline-suppr --suppressions-list=.cppcheck-suppressions \
  -D__GNUC__ -I include -I src -I /usr/include/hiredis \
  --quiet --error-exitcode=1 \
  --template='{file}:{line}: {severity} ({id}): {message}' src fuzz
echo "cppcheck: clean"

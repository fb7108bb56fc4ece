#!/bin/sh
# Runs every test of the library's test binaries in BUILD_DIR (default build,
# as left by scripts/test.sh) under valgrind's memcheck, one process per
# test, each in a private mount namespace (tests/support/private_ns.sh, as
# root). Fails on any invalid access or definitely lost block. The fatal
# exit path runs in the children of death tests, which are not checked
# (--child-silent-after-fork); the slow tests are left out. What the design
# keeps for the process's lifetime is suppressed in tests/valgrind.supp.
# On an architecture valgrind does not cover here (see below) it prints
# "memcheck: NOT RUN: ..." and exits 0.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
jobs=${TEST_JOBS:-2}
# Left out: the slow tests, and the C header check (not a GoogleTest binary).
skip="reconnect_test pumpslow_test c_api_test"

# Valgrind's name for this machine's platform. On an architecture that has
# none here the run is left out with a note and exit status 0: the sanitizer
# runs of CI still check memory there, and a check that cannot run is not a
# failure of the code.
arch=$(dpkg --print-architecture)
case "$arch" in
  amd64) platform=amd64-linux ;;
  i386) platform=x86-linux ;;
  arm64) platform=arm64-linux ;;
  armhf) platform=arm-linux ;;
  mipsel) platform=mips32-linux ;;
  mips64el) platform=mips64-linux ;;
  ppc64el) platform=ppc64le-linux ;;
  s390x) platform=s390x-linux ;;
  *)
    echo "memcheck: NOT RUN: no valgrind memcheck for architecture $arch" \
      "(handled: amd64 i386 arm64 armhf mipsel mips64el ppc64el s390x)"
    exit 0 ;;
esac
"$root/scripts/lib/ensure-packages.sh" valgrind

out="$build_dir/memcheck"
rm -rf "$out"
mkdir -p "$out"
list="$out/tests"
: >"$list"
# MEMCHECK_ONLY: a space-separated list of binaries, for a quicker look.
for bin in "$build_dir"/tests/*_test; do
  name=$(basename "$bin")
  if [ -n "${MEMCHECK_ONLY:-}" ]; then
    case " $MEMCHECK_ONLY " in *" $name "*) ;; *) continue ;; esac
  fi
  case " $skip " in *" $name "*) continue ;; esac
  # "Suite." lines, then "  Test" lines under them.
  "$bin" --gtest_list_tests | awk -v bin="$bin" '
    /^[^ ]/ { suite = $1; next }
    /^  / { print bin " " suite $1 }' >>"$list"
done
# The fatal tests: those whose body holds a death test. Their child leaves
# through exit() with its connections open, by design.
fatal="$out/fatal"
awk '
  /^TEST(_F)?\(.*,$/ { line = $0; getline; $0 = line " " $0 }
  /^TEST(_F)?\(/ { sub(/^TEST(_F)?\(/, ""); sub(/\).*/, ""); sub(/, */, ".");
                    test = $0 }
  /EXPECT_EXIT|ASSERT_EXIT|EXPECT_DEATH|ASSERT_DEATH/ { print test }
' "$root"/tests/*/*.cc | sort -u >"$fatal"
# Matched on the test name alone (second field).
awk 'NR == FNR { fatal[$1] = 1; next } !($2 in fatal)' "$fatal" "$list" >"$list.kept"
mv "$list.kept" "$list"
echo "memcheck: $(wc -l <"$list") tests ($(wc -l <"$fatal") fatal ones left out)"

# The library takes its process name from /proc/self/comm, and many tests
# check it; run through "valgrind" the name would be the tool's. So the tool
# is started directly, through a link named after each test binary, which
# the kernel then takes as the process name.
tool_dir=""
for dir in /usr/libexec/valgrind /usr/lib/*/valgrind /usr/lib/valgrind; do
  [ -x "$dir/memcheck-$platform" ] && tool_dir=$dir && break
done
[ -n "$tool_dir" ] || { echo "memcheck: no memcheck-$platform found"; exit 1; }
for bin in $(cut -d' ' -f1 "$list" | sort -u); do
  name=$(basename "$bin")
  mkdir -p "$out/names/$name"
  ln -s "$tool_dir/memcheck-$platform" "$out/names/$name/$name"
done

# As Debian's valgrind wrapper does: the C++ library frees what it caches.
export GLIBCXX_FORCE_NEW=1 VALGRIND_LIB="$tool_dir"
export VALGRIND_LAUNCHER="$(command -v valgrind)"
export ROOT="$root" OUT="$out"
# Each line: binary and test name; the log is named after both. In a PID
# namespace of its own, so that a test cut short leaves no emulator behind.
"$root/scripts/lib/pid-ns.sh" xargs -P "$jobs" -L 1 sh -c '
  name=$(basename "$0")
  log="$OUT/$name.$(echo "$1" | tr / _).log"
  timeout -k 10 300 \
    "$ROOT/tests/support/private_ns.sh" "$OUT/names/$name/$name" -q \
      --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
      --errors-for-leak-kinds=definite --child-silent-after-fork=yes \
      --suppressions="$ROOT/tests/valgrind.supp" \
      "$0" --gtest_filter="$1" >"$log" 2>&1 && rc=0 || rc=$?
  # 99: memcheck found an error. A death by signal shows as a report of its
  # own in the log. Any other failure (124: over five minutes) is a test
  # that does not hold under valgrind itself (its own operator new, its own
  # descriptor limit, waits timed in real time at its pace): the other runs
  # judge those; here it is listed, not counted.
  if [ "$rc" -eq 99 ] || grep -q "Process terminating with default action" "$log"; then
    echo "FAIL $1 (see $log)" >>"$OUT/results"
  elif [ "$rc" -ne 0 ]; then
    echo "note $1 (failed under valgrind, no memory error; see $log)" >>"$OUT/results"
  else
    echo "ok   $1" >>"$OUT/results"
  fi' <"$list"

grep '^note' "$out/results" || true
failed=$(grep -c '^FAIL' "$out/results" || true)
passed=$(grep -c '^ok' "$out/results" || true)
if [ "$failed" -ne 0 ]; then
  grep '^FAIL' "$out/results"
  for log in $(grep '^FAIL' "$out/results" | sed 's/.*(see \(.*\))/\1/'); do
    echo "---- $log"
    tail -n 40 "$log"
  done
fi
echo "memcheck: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

#!/bin/sh
# Runs every benchmark and prints one table: each side-by-side figure for
# bare hiredis, for tqredis and their ratio, then the library's own pieces.
#   bench/run.sh [--no-callgrind] [--rounds R]
# Needs root: the servers live on the device's socket paths, inside a
# private mount namespace of this run (its own empty /tmp/redis and
# /tmp/tqredis). Servers, feeder and the benchmark in progress are stopped
# when it ends, also on a failure or an interruption (INT, TERM). Client,
# servers and feeder are pinned to one CPU (BENCH_CPU, default 0): unpinned on
# two cores the figures swing tenfold. BUILD_DIR names a Release build (default build/; built when
# its programs are missing).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
cpu=${BENCH_CPU:-0}

if [ "${TQBENCH_IN_NS:-}" != 1 ]; then
  "$root/scripts/install-deps.sh" test >&2
  if [ ! -x "$build_dir/bench/side/tqbench" ] ||
     [ ! -x "$build_dir/bench/micro/tqbench_micro" ]; then
    BUILD_DIR="$build_dir" "$root/scripts/build.sh" >&2
  fi
  export TQBENCH_IN_NS=1 BUILD_DIR="$build_dir"
  exec unshare --mount --propagation private sh -c '
    for dir in /tmp/redis /tmp/tqredis; do
      mkdir -p "$dir" && mount -t tmpfs -o mode=1777 tmpfs "$dir"
    done
    exec "$@"' sh "$0" "$@"
fi

callgrind=1
rounds=7
while [ "$#" -gt 0 ]; do
  case "$1" in
    --no-callgrind) callgrind=0 ;;
    --rounds) rounds=$2; shift ;;
    *) echo "usage: $0 [--no-callgrind] [--rounds R]" >&2; exit 2 ;;
  esac
  shift
done

bench="$build_dir/bench/side/tqbench"
work=$(mktemp -d)
# Every process this run started and that may still run: the servers and the
# feeder, and the one step in progress. Each pid is the program's own (taskset
# execs it); a backgrounded shell function would be a subshell, whose death
# leaves the program running.
pids=""
step=""
stop() {
  for pid in $pids $step; do kill "$pid" 2>/dev/null || true; done
  for pid in $pids $step; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap stop EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Runs one step pinned, in the background so that a signal is handled at once
# (a shell runs its traps only after a foreground command ends); its status is
# the step's.
pin() {
  taskset -c "$cpu" "$@" &
  step=$!
  wait "$step"
  step=""
}

for db in redis_host redis_ce_global; do
  taskset -c "$cpu" redis-server --port 0 --unixsocket "/tmp/redis/$db.sock" \
    --unixsocketperm 777 --save "" --appendonly no \
    --notify-keyspace-events "" --loglevel warning >"$work/$db.log" 2>&1 &
  pids="$pids $!"
done
taskset -c "$cpu" "$build_dir/bench/side/tqbench_feeder" \
  /tmp/redis/redis_de_global.sock &
pids="$pids $!"
for sock in redis_host redis_ce_global redis_de_global; do
  tries=0
  until [ -S "/tmp/redis/$sock.sock" ]; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || { echo "no server on $sock" >&2; exit 1; }
    sleep 0.1
  done
done
sleep 0.2

rows="$work/rows"
: >"$rows"
# label|unit|bare|tqredis|ratio|target
row() { printf '%s|%s|%s|%s|%s|%s\n' "$@" >>"$rows"; }

# Side-by-side runs: "row NAME UNIT BARE SPREAD TQ SPREAD" lines.
side() {
  test=$1
  shift
  echo "running $test ($rounds rounds)" >&2
  pin "$bench" "$test" --rounds "$rounds" "$@" >"$work/$test.out"
  awk -v targets="$targets" '
    BEGIN { n = split(targets, t, ";"); for (i = 1; i <= n; i += 3) {
              label[t[i]] = t[i + 1]; target[t[i]] = t[i + 2] } }
    $1 == "row" {
      printf "%s|%s|%.4g ±%.1f%%|%.4g ±%.1f%%|%.3f|%s\n", label[$2], $3,
        $4, $5, $6, $7, $6 / $4, target[$2] }
    $1 == "allocs" {
      printf "%s: heap allocations by tqredis|per op|%.2f|%.2f|%+.2f|0\n",
        $2, $3, $4, $4 - $3 + 0 }' "$work/$test.out" >>"$rows"
}
targets="read;synchronous read (GET);>= 0.97;write_replies;pipelined write, replies=1, vs hiredis reading every reply;>= 0.95;write;pipelined write (SET, threshold 32), server-confirmed;>= 0.95;notify_cpu;notification delivery, client CPU;<= 2.0x;notify_rate;notification delivery, 1,000,000 as fast as the socket takes;tqredis >= 600,000/s;scan;scan replay (kind 0) vs SCAN + GET;>= 0.95"
side get
side set
side setreplies
side notify
side scan

# Client instructions per operation under callgrind (the measured loop only).
instructions() {
  test=$1 n=$2 label=$3 target=$4
  echo "callgrind $test" >&2
  for s in bare tq; do
    pin valgrind --tool=callgrind --collect-atstart=no \
      --callgrind-out-file="$work/cg.$test.$s" \
      "$bench" "$test" --side "$s" --n "$n" >/dev/null 2>"$work/cg.$test.$s.err"
    awk '$1 == "totals:" || $1 == "summary:" { print $2; exit }' \
      "$work/cg.$test.$s" >"$work/ir.$test.$s"
  done
  bare=$(cat "$work/ir.$test.bare")
  tq=$(cat "$work/ir.$test.tq")
  awk -v b="$bare" -v t="$tq" -v n="$n" -v l="$label" -v g="$target" 'BEGIN {
    printf "%s|instructions/op|%.0f|%.0f|%.3fx|%s\n", l, b / n, t / n,
      t / b, g }' >>"$rows"
}
if [ "$callgrind" = 1 ]; then
  instructions get 20000 "synchronous read (GET), callgrind" "<= 1.05x"
  instructions set 100000 "pipelined write (SET), callgrind" "<= 1.10x"
  instructions notify 100000 "notification delivery, callgrind" "<= 2.0x"
fi

# The library's own pieces: no bare side.
echo "micro-benchmarks" >&2
pin "$build_dir/bench/micro/tqbench_micro" --benchmark_format=csv \
  --benchmark_min_time=0.2 2>/dev/null >"$work/micro.csv"
awk -F, 'NR > 1 && $1 ~ /^"/ {
  name = $1; gsub(/"/, "", name)
  printf "%s|ns/op|-|%.1f|-|%s\n", name, $4, "" }' "$work/micro.csv" |
  while IFS='|' read -r name unit b t r g; do
    case "$name" in
      LogSiteOff*) g="< 5" ;;
      LogFileLine*) g="<= 1,000" ;;
      OpRecordTimeStatOff*) g="<= 300" ;;
      OpRecordTimeStatOn*) g="<= 500" ;;
    esac
    row "$name" "$unit" "$b" "$t" "$r" "$g"
  done

{
  echo "| figure | unit | bare hiredis | tqredis | ratio | target |"
  echo "|---|---|---|---|---|---|"
  awk -F'|' '{ printf "| %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6 }' \
    "$rows"
}
echo
echo "CPU $cpu of $(nproc), $(uname -r), $rounds rounds, median ±half the range"

#!/bin/sh
# Runs every benchmark and prints one table: each side-by-side figure for
# bare hiredis, for tqredis and their ratio, then the library's own pieces,
# each with its target and its verdict; and draws the ratios as an SVG chart.
#   bench/run.sh [--no-callgrind] [--rounds R] [--svg FILE] [--docs]
# --svg FILE writes the chart to FILE; --docs writes it to docs/performance.svg
# and puts the table in docs/performance.md, between its bench:table marks.
#
# A figure's spread is half the range of its rounds in percent of their
# median; a ratio is taken round by round (the two sides of a round take
# turns, slice by slice) and its median kept. Verdicts: "met" when the whole
# of ratio ±spread is on the target's side, "missed" when the whole of it is
# on the other, "unresolved" when the target lies within it or the spread is
# over 5 %:
# such a figure cannot tell a pass from a miss, whatever its median says.
# A figure without a target gets no verdict, or "unresolved" past 5 %.
#
# Needs root: the servers live on the device's socket paths, inside a
# private mount namespace of this run (its own empty /tmp/redis and
# /tmp/tqredis). Servers, feeder and the benchmark in progress are stopped
# when it ends, also on a failure or an interruption (INT, TERM, HUP).
# Client, servers and feeder are pinned to one CPU (BENCH_CPU, default 0):
# unpinned on two cores the figures swing tenfold. BUILD_DIR names a Release
# build (default build/; built when its programs are missing).
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
rounds=11
svg=""
docs=0
while [ "$#" -gt 0 ]; do
  case "$1" in
    --no-callgrind) callgrind=0 ;;
    --rounds) rounds=$2; shift ;;
    --svg) svg=$2; shift ;;
    --docs) docs=1; svg=$root/docs/performance.svg ;;
    *) echo "usage: $0 [--no-callgrind] [--rounds R] [--svg FILE] [--docs]" >&2
       exit 2 ;;
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
trap 'exit 129' HUP

# Runs one step pinned, in the background so that a signal is handled at once
# (a shell runs its traps only after a foreground command ends); its status is
# the step's.
pin() {
  taskset -c "$cpu" "$@" &
  step=$!
  wait "$step"
  step=""
}

load() { cut -d' ' -f1 /proc/loadavg; }
load_start=$(load)

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

# One line per figure, fields split by '|':
#   label|unit|bare|tqredis|value|spread|op|target|target text|shown|chart
# `value` is what the target is about (a ratio, a difference or a time),
# `spread` its spread in percent (0: exact), `op` ge, le or lt. `shown` is
# how the value is written in the table, `chart` 1 when it is a ratio drawn
# in the chart.
rows="$work/rows"
: >"$rows"

# Side-by-side runs. Per figure: name, label, op, target, target text.
targets="read|synchronous read (GET)|ge|0.98|>= 0.98
write|pipelined write (SET, threshold 32), server-confirmed|ge|0.97|>= 0.97
write_replies|pipelined write, replies=1, vs hiredis reading every reply|ge|0.95|>= 0.95
notify_cpu|notification delivery, client CPU|le|1.3|<= 1.3x
notify_rate|notification delivery, as fast as the socket takes|ge|0.85|>= 0.85
scan|scan replay (kind 0) vs SCAN + GET|ge|0.97|>= 0.97"
printf '%s\n' "$targets" >"$work/targets"
side() {
  test=$1
  echo "running $test ($rounds rounds)" >&2
  pin "$bench" "$test" --rounds "$rounds" >"$work/$test.out"
  awk -F'|' 'NR == FNR { label[$1] = $2; op[$1] = $3; target[$1] = $4
                         text[$1] = $5; next }
    {
      split($0, f, " ")
      if (f[1] == "row") {
        printf "%s|%s|%.4g ±%.1f%%|%.4g ±%.1f%%|%.4f|%.2f|%s|%s|%s|%.3f ±%.1f%%|1\n",
          label[f[2]], f[3], f[4], f[5], f[6], f[7], f[8], f[9], op[f[2]],
          target[f[2]], text[f[2]], f[8], f[9]
      } else if (f[1] == "allocs") {
        printf "%s: heap allocations|per op|%.2f|%.2f|%.4f|0|le|0|tqredis - bare <= 0|%+.2f|0\n",
          f[2], f[3], f[4], f[4] - f[3], f[4] - f[3]
      }
    }' "$work/targets" "$work/$test.out" >>"$rows"
}
side get
side set
side setreplies
side notify
side scan

# Client instructions per operation under callgrind (the measured loop only):
# exact, so their spread is 0.
instructions() {
  test=$1 n=$2 label=$3 op=$4 target=$5 text=$6
  echo "callgrind $test" >&2
  for s in bare tq; do
    pin valgrind --tool=callgrind --collect-atstart=no \
      --callgrind-out-file="$work/cg.$test.$s" \
      "$bench" "$test" --side "$s" --n "$n" >/dev/null 2>"$work/cg.$test.$s.err"
    awk '$1 == "totals:" || $1 == "summary:" { print $2; exit }' \
      "$work/cg.$test.$s" >"$work/ir.$test.$s"
  done
  awk -v b="$(cat "$work/ir.$test.bare")" -v t="$(cat "$work/ir.$test.tq")" \
    -v n="$n" -v l="$label" -v op="$op" -v g="$target" -v x="$text" 'BEGIN {
    printf "%s|instructions/op|%.0f|%.0f|%.4f|0|%s|%s|%s|%.3fx|0\n", l, b / n,
      t / n, t / b, op, g, x, t / b }' >>"$rows"
}
if [ "$callgrind" = 1 ]; then
  instructions get 20000 "synchronous read (GET), callgrind" le 1.05 "<= 1.05x"
  instructions set 100000 "pipelined write (SET), callgrind" le 1.10 "<= 1.10x"
  instructions notify 100000 "notification delivery, callgrind" le 2.0 \
    "<= 2.0x"
fi

# The library's own pieces: no bare side. Each repeated back to back, half a
# second a repetition, which keeps nanosecond figures within a few percent
# (interleaved, each would run after a different neighbour and its caches and
# branch history, and move by up to a tenth); then the log line and its floor
# interleaved, so that the two share each round and their ratio is taken
# round by round.
echo "micro-benchmarks" >&2
pair='^(LogFileLine|FileLineStdioOnly)$'
pin "$build_dir/bench/micro/tqbench_micro" --benchmark_list_tests \
  >"$work/micro.list"
pin "$build_dir/bench/micro/tqbench_micro" --benchmark_format=csv \
  --benchmark_filter="-$pair" \
  --benchmark_min_time=0.5 --benchmark_repetitions="$rounds" \
  2>/dev/null >"$work/micro.csv"
pin "$build_dir/bench/micro/tqbench_micro" --benchmark_format=csv \
  --benchmark_filter="$pair" \
  --benchmark_min_time=0.2 --benchmark_repetitions="$rounds" \
  --benchmark_enable_random_interleaving=true 2>/dev/null >>"$work/micro.csv"
awk -F, '
  function median(a, n,    i, j, t) {
    for (i = 2; i <= n; ++i)
      for (j = i; j > 1 && a[j - 1] > a[j]; --j) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  function spread(a, n, m,    i, lo, hi) {
    lo = hi = a[1]
    for (i = 2; i <= n; ++i) { if (a[i] < lo) lo = a[i]; if (a[i] > hi) hi = a[i] }
    return m > 0 ? (hi - lo) / 2 / m * 100 : 0
  }
  # The names in the order the benchmarks are declared; then their rows, in
  # the order they ran.
  NR == FNR { order[++names] = $0; next }
  FNR > 1 && $1 ~ /^"/ {
    name = $1; gsub(/"/, "", name)
    if (name ~ /_(mean|median|stddev|cv)$/) next
    # ns per item for a benchmark that counts several items an iteration
    # (cpu_time, and items_per_second from it), else per iteration.
    t[name, ++count[name]] = $7 > 0 ? 1e9 / $7 : $4
  }
  END {
    for (k = 1; k <= names; ++k) {
      name = order[k]; n = count[name]
      if (n == 0) continue
      for (i = 1; i <= n; ++i) v[i] = t[name, i]
      m = median(v, n); s = spread(v, n, m)
      op = ""; g = ""; x = ""
      if (name ~ /^LogSiteOff/) { op = "lt"; g = 5; x = "< 5" }
      if (name ~ /^OpRecordTimeStatOff/) { op = "le"; g = 300; x = "<= 300" }
      if (name ~ /^OpRecordTimeStatOn/) { op = "le"; g = 500; x = "<= 500" }
      printf "%s|ns/op|-|%.1f ±%.1f%%|%.4f|%.2f|%s|%s|%s|%s|0\n", name, m, s, m,
        s, op, g, x, op == "" ? "-" : sprintf("%.1f ±%.1f%%", m, s)
    }
    # A log file line against its floor, repetition by repetition.
    a = "LogFileLine"; b = "FileLineStdioOnly"
    if (count[a] > 0 && count[a] == count[b]) {
      n = count[a]
      for (i = 1; i <= n; ++i) r[i] = t[a, i] / t[b, i]
      m = median(r, n); s = spread(r, n, m)
      printf "log file line / its floor (%s / %s)|ratio|-|-|%.4f|%.2f|le|1.2|<= 1.2x|%.3fx ±%.1f%%|1\n",
        a, b, m, s, m, s
    }
  }' "$work/micro.list" "$work/micro.csv" >>"$rows"

load_end=$(load)
footer="CPU $cpu of $(nproc), $(uname -r), $rounds rounds, median ±half the range; load average $load_start at the start, $load_end at the end"

# The verdict of each row, appended as its last field.
awk -F'|' -v OFS='|' '{
  v = $5; s = $6; op = $7; g = $8
  # A figure without a target still says when it cannot be trusted.
  if (op == "") { verdict = s > 5 ? "unresolved" : "" }
  else {
    lo = v - v * s / 100; hi = v + v * s / 100
    if (s > 5) verdict = "unresolved"
    else if (op == "ge") verdict = lo >= g ? "met" : hi < g ? "missed" : "unresolved"
    else if (op == "le") verdict = hi <= g ? "met" : lo > g ? "missed" : "unresolved"
    else verdict = hi < g ? "met" : lo >= g ? "missed" : "unresolved"
  }
  print $0, verdict
}' "$rows" >"$work/judged"

table() {
  echo "| figure | unit | bare hiredis | tqredis | figure vs target | target | verdict |"
  echo "|---|---|---|---|---|---|---|"
  awk -F'|' '{ printf "| %s | %s | %s | %s | %s | %s | %s |\n", $1, $2, $3,
    $4, $10, $9, $12 }' "$work/judged"
  echo
  echo "$footer"
}
table

# The chart: one line per measured ratio (the instruction counts are exact
# and have no spread to draw), its median as a dot, its spread as a bar, its
# target as a tick, coloured by verdict.
chart() {
  awk -F'|' -v footer="$footer" '
    function x(v) { if (v < lo) v = lo; if (v > hi) v = hi
                    return left + (v - lo) / (hi - lo) * width }
    function esc(t) { gsub(/&/, "\\&amp;", t); gsub(/</, "\\&lt;", t)
                      gsub(/>/, "\\&gt;", t); return t }
    $11 == 1 { n++; label[n] = $1; v[n] = $5; s[n] = $6; g[n] = $8
               text[n] = $9; verdict[n] = $12 }
    END {
      # The scale: from 0.8 to 1.2 at least, widened in steps of 0.05 to
      # hold every bar and every target.
      lo = 0.8; hi = 1.2
      for (i = 1; i <= n; ++i) {
        d = v[i] * s[i] / 100
        while (v[i] - d < lo || g[i] < lo) lo -= 0.05
        while (v[i] + d > hi || g[i] > hi) hi += 0.05
      }
      left = 390; width = 440; top = 40; step = 30
      h = top + n * step + 62; w = left + width + 330
      colour["met"] = "#2e7d32"; colour["missed"] = "#c62828"
      colour["unresolved"] = "#ef6c00"
      printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" font-family=\"sans-serif\" font-size=\"12\">\n", w, h
      printf "<rect width=\"%d\" height=\"%d\" fill=\"white\"/>\n", w, h
      printf "<text x=\"10\" y=\"20\" font-size=\"14\">tqredis / bare hiredis: median (dot), spread (bar), target (tick)</text>\n"
      for (k = 0; lo + k * 0.05 <= hi + 1e-9; ++k) {
        t = lo + k * 0.05
        one = t > 0.999 && t < 1.001
        printf "<line x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\" stroke=\"%s\"/>\n",
          x(t), top - 5, x(t), top + n * step, one ? "#888" : "#e4e4e4"
        if (k % 2 == 0 || one)
          printf "<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\" fill=\"#555\">%.2f</text>\n",
            x(t), top + n * step + 15, t
      }
      for (i = 1; i <= n; ++i) {
        y = top + (i - 0.5) * step
        c = colour[verdict[i]]
        printf "<text x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%s</text>\n",
          left - 10, y + 4, esc(label[i])
        d = v[i] * s[i] / 100
        printf "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"8\" stroke-opacity=\"0.35\"/>\n",
          x(v[i] - d), y, x(v[i] + d), y, c
        printf "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"black\" stroke-width=\"2\"/>\n",
          x(g[i]), y - 10, x(g[i]), y + 10
        printf "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"%s\"/>\n", x(v[i]), y, c
        printf "<text x=\"%d\" y=\"%.1f\" fill=\"%s\">%.3f ±%.1f%% (target %s): %s</text>\n",
          left + width + 10, y + 4, c, v[i], s[i], esc(text[i]), verdict[i]
      }
      printf "<text x=\"10\" y=\"%d\" fill=\"#555\">met: green; missed: red; unresolved (target within the bar, or spread over 5%%): orange</text>\n",
        top + n * step + 36
      printf "<text x=\"10\" y=\"%d\" fill=\"#555\" font-size=\"10\">%s</text>\n",
        top + n * step + 54, esc(footer)
      print "</svg>"
    }' "$work/judged"
}
if [ -n "$svg" ]; then
  chart >"$svg"
  echo "chart: $svg" >&2
fi

# The table into the documentation, between its marks.
if [ "$docs" = 1 ]; then
  doc=$root/docs/performance.md
  table >"$work/table.md"
  awk -v table="$work/table.md" '
    /<!-- bench:table -->/ { print; while ((getline line < table) > 0) print line
                             skip = 1; next }
    /<!-- \/bench:table -->/ { skip = 0 }
    !skip' "$doc" >"$work/doc.md"
  if ! grep -q '<!-- bench:table -->' "$doc"; then
    echo "no bench:table marks in $doc" >&2
    exit 1
  fi
  cat "$work/doc.md" >"$doc"
  echo "table: $doc" >&2
fi

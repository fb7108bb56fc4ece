#!/bin/sh
# Soak of reconnecting in place: the soak host (tests/soak/soak_host.cc,
# reconnect=1 by safe=1, the lock on, a pumping thread, two writers and a
# reader on all three databases, every kind of connection in use) runs
# against the device database emulator while this script closes its
# connections CLOSES times (default 1000) at random moments: a random
# database and kind of connection each time, 0-50 ms apart, and now and then
# with connecting refused for a while. Then the host is told to stop writing
# and to report what its hooks saw, and the script checks:
#   - the host process is alive;
#   - CLIENT LIST on each database's server shows exactly one connection of
#     each kind the host uses (tqsoak-read, -write, -pubsub), the pubsub one
#     with both its patterns;
#   - PUBSUB NUMPAT on each server shows both registered patterns;
#   - the last value the hooks saw for each key equals the server's, and
#     every key on the server was seen;
#   - every close was seen as one loss and one restore, in order, and no
#     read received another command's reply;
#   - the host ends with status 0 when told to.
# Prints the figures and exits 0 only if all hold.
#   scripts/soak-reconnect.sh [CLOSES]
# BUILD_DIR names a build (default build/; built when its programs are
# missing). SOAK_SEED fixes the random schedule. Needs root: it runs in a
# PID namespace of its own, so that everything it started ends with it,
# also on Ctrl-C; the emulator serves a temporary folder
# (TQREDIS_SOCKET_DIR), removed at the end unless a check failed (then kept
# with the logs).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
closes=${1:-1000}
case "$closes" in
  '' | *[!0-9]*) echo "usage: $0 [CLOSES]" >&2; exit 2 ;;
esac

devdb="$build_dir/tools/devdb/tqredis-devdb"
host="$build_dir/tests/tqsoak"
if [ "${TQSOAK_IN_NS:-}" != 1 ]; then
  "$root/scripts/install-deps.sh" test >&2
  if [ ! -x "$host" ] || [ ! -x "$devdb" ]; then
    BUILD_DIR="$build_dir" "$root/scripts/build.sh" >&2
  fi
  # The run itself goes on in the namespace; this part removes its folder
  # afterwards, also when Ctrl-C or TERM cut it short (the namespace, and
  # every process in it, then ends at once).
  work=$(mktemp -d /tmp/tqsoak.XXXXXX)
  ns=""
  # shellcheck disable=SC2317 # called by the EXIT trap
  finish() {
    if [ -n "$ns" ]; then
      kill "$ns" 2>/dev/null || true
      wait "$ns" 2>/dev/null || true
    fi
    if [ -e "$work/keep" ]; then
      echo "soak: logs kept in $work" >&2
    else
      rm -rf "$work"
    fi
  }
  trap finish EXIT
  trap 'echo "soak: interrupted" >&2; exit 130' INT
  trap 'echo "soak: interrupted" >&2; exit 143' TERM
  # In the background, with this script's standard input, so that a signal
  # sent to this script alone is acted on at once.
  exec 3<&0
  TQSOAK_IN_NS=1 TQSOAK_WORK="$work" BUILD_DIR="$build_dir" \
    "$root/scripts/lib/pid-ns.sh" "$0" "$@" <&3 3<&- &
  ns=$!
  status=0
  wait "$ns" || status=$?
  ns=""
  exit "$status"
fi

# Ctrl-C is the outer part's to act on: here, and in the host and the
# emulator, it is ignored, so that nothing ends half-way on its own.
trap '' INT
seed=${SOAK_SEED:-$(date +%s)}
work=$TQSOAK_WORK
dir="$work/redis"
mkdir "$dir"
host_pid=""
# Stops what this script started, the host and the emulator, when it ends
# by itself; cut short, the namespace takes them with it.
stop() {
  if [ -n "$host_pid" ]; then
    kill "$host_pid" 2>/dev/null || true
    wait "$host_pid" 2>/dev/null || true
    host_pid=""
  fi
  "$devdb" stop --dir "$dir" >/dev/null 2>&1 || true
}
trap stop EXIT

# Keeps the folder and its logs for a look.
fail() {
  echo "soak: FAILED: $*" >&2
  : >"$work/keep"
  exit 1
}

alive() { [ -n "$host_pid" ] && kill -0 "$host_pid" 2>/dev/null; }

ctl() { "$devdb" ctl --dir "$dir" "$@"; }
# Waits for the host to make FILE, at most TENTHS tenths of a second, while
# it lives; WHAT names the state FILE tells of.
wait_for() {
  tries=0
  until [ -f "$1" ]; do
    alive || fail "the host ended before it was $3 (see host.log)"
    tries=$((tries + 1))
    [ "$tries" -lt "$2" ] || fail "the host was not $3 within $(($2 / 10)) s"
    sleep 0.1
  done
}

"$devdb" start --dir "$dir" --log "$work/devdb.log" ||
  fail "the emulator did not start"
# In the background, with this script's standard input, so that a signal
# sent to this script alone is acted on at once.
TQREDIS_SOCKET_DIR="$dir" "$host" --ready "$work/ready" --dump "$work/dump" \
  >"$work/host.log" 2>&1 &
host_pid=$!
wait_for "$work/ready" 300 "ready"

# The schedule: database, kind, gap in ms, one line per attempt. A close
# finds nothing when that connection is already lost and not yet used
# again, hence more lines than closes.
dbs="redis_de_global redis_ce_global redis_host"
awk -v n="$((closes * 4 + 100))" -v seed="$seed" 'BEGIN {
  srand(seed)
  split("redis_de_global redis_ce_global redis_host", db, " ")
  split("read write pubsub", kind, " ")
  for (i = 0; i < n; i++) {
    d = int(rand() * 3) + 1
    k = int(rand() * 3) + 1
    if (d == 3 && k == 2) k = 1  # redis_host has no write connection
    printf "%s %s %d\n", db[d], kind[k], int(rand() * 51)
  }
}' >"$work/schedule"

echo "soak: $closes closes, seed $seed, folder $dir"
done_closes=0
attempts=0
refusals=0
start=$(date +%s)
while read -r db kind gap; do
  [ "$done_closes" -lt "$closes" ] || break
  alive || fail "the host ended after $done_closes closes (see host.log)"
  attempts=$((attempts + 1))
  # Every hundredth close meets a refusal: the restore waits it out.
  if [ $((done_closes % 100)) -eq 99 ] && [ "$refusals" -lt $((done_closes / 100 + 1)) ]; then
    ctl refuse "$db" "$((300 + gap * 10))" </dev/null >/dev/null ||
      fail "ctl refuse"
    refusals=$((refusals + 1))
  fi
  n=$(ctl close "$db" "$kind" </dev/null) || fail "ctl close $db $kind"
  done_closes=$((done_closes + n))
  sleep "$(printf '0.%03d' "$gap")"
done <"$work/schedule"
[ "$done_closes" -ge "$closes" ] ||
  fail "only $done_closes closes in $attempts attempts"
echo "soak: $done_closes closes in $attempts attempts ($refusals with" \
  "connecting refused for a while), $(($(date +%s) - start)) s"

alive || fail "the host ended after the closes (see host.log)"
kill -USR1 "$host_pid"
wait_for "$work/dump" 1200 "settled"

figure() { awk -v name="$1" '$1 == "figure" && $2 == name { print $3 }' "$work/dump"; }
echo "soak: the host saw $(figure losses) losses, $(figure restores) restores" \
  "(read $(figure restores_read), write $(figure restores_write)," \
  "pubsub $(figure restores_pubsub))," \
  "$(figure notifications) notifications, $(figure replayed) replayed keys;" \
  "data checks: de $(figure datachecks_redis_de_global)," \
  "ce $(figure datachecks_redis_ce_global), host $(figure datachecks_redis_host);" \
  "$(figure writes) writes, $(figure reads) reads" \
  "($(figure failed_reads) failed, $(figure wrong_replies) wrong replies)"

checks=$(($(figure datachecks_redis_de_global) + $(figure datachecks_redis_ce_global) + $(figure datachecks_redis_host)))
echo "soak: data checks $checks: 3 at the start, then one per subscription" \
  "connection restored ($(figure restores_pubsub)) but for those lost again" \
  "before their patterns were made"

failures=0
check() {
  if [ "$1" = ok ]; then
    echo "soak: ok   $2"
  else
    echo "soak: FAIL $2"
    failures=$((failures + 1))
  fi
}

if alive; then check ok "the host is alive"; else check no "the host is alive"; fi

db_id=0
for db in $dbs; do
  server="$dir/tqredis-devdb.d/$db.sock"
  want="tqsoak-pubsub tqsoak-read"
  [ "$db" = redis_host ] || want="tqsoak-pubsub tqsoak-read tqsoak-write"
  list=$(redis-cli -s "$server" CLIENT LIST </dev/null)
  names=$(echo "$list" | sed -n 's/.* name=\(tqsoak-[^ ]*\) .*/\1/p' | sort |
    tr '\n' ' ' | sed 's/ $//')
  psub=$(echo "$list" | sed -n 's/.* name=tqsoak-pubsub .* psub=\([0-9]*\) .*/\1/p')
  if [ "$names" = "$want" ] && [ "$psub" = 2 ]; then
    check ok "$db: CLIENT LIST shows $names, psub=2"
  else
    check no "$db: CLIENT LIST shows [$names] psub=[$psub], wanted [$want] psub=2"
  fi
  numpat=$(redis-cli -s "$server" PUBSUB NUMPAT </dev/null)
  if [ "$numpat" = 2 ]; then
    check ok "$db: PUBSUB NUMPAT 2"
  else
    check no "$db: PUBSUB NUMPAT $numpat, wanted 2"
  fi
  # What the server holds, as the dump writes it.
  redis-cli -s "$server" --scan --pattern 'soak:[wr]:*' </dev/null | sort |
    while read -r key; do
      printf 'key %s %s %s\n' "$db_id" "$key" \
        "$(redis-cli -s "$server" --raw GET "$key" </dev/null)"
    done >>"$work/server"
  db_id=$((db_id + 1))
done
sort "$work/server" >"$work/server.sorted"
grep '^key ' "$work/dump" | sort >"$work/seen.sorted"
keys=$(wc -l <"$work/server.sorted")
if [ "$keys" -gt 0 ] && cmp -s "$work/server.sorted" "$work/seen.sorted"; then
  check ok "the last value seen equals the server's for all $keys keys"
else
  check no "the values seen differ from the server's ($keys keys on the servers):"
  diff "$work/server.sorted" "$work/seen.sorted" | head -20
fi

if [ "$(figure losses)" = "$done_closes" ] &&
   [ "$(figure restores)" = "$done_closes" ] && [ "$(figure broken)" = 0 ]; then
  check ok "each close seen as one loss then one restore"
else
  check no "closes $done_closes, losses $(figure losses), restores $(figure restores), out of order $(figure broken)"
fi
if [ "$(figure wrong_replies)" = 0 ]; then
  check ok "no read received another command's reply"
else
  check no "$(figure wrong_replies) reads received another command's reply"
fi

kill -TERM "$host_pid"
status=0
wait "$host_pid" || status=$?
host_pid=""
if [ "$status" = 0 ]; then
  check ok "the host ended with status 0"
else
  check no "the host ended with status $status"
fi

if [ "$failures" -ne 0 ]; then
  : >"$work/keep"
  echo "soak: $failures checks failed"
  exit 1
fi
echo "soak: all checks passed"

#!/bin/sh
# misuse_test.sh COMPILER INCLUDE_DIR SOURCE CASE: compiles case CASE of
# SOURCE (see misuse.cc) and passes when the compiler refuses it for the
# expected reason; case 0 must compile.
set -eu
cxx=$1
include=$2
source=$3
case=$4
case $case in
  0) expect= ;;
  1) expect='deleted.*Reply' ;;
  2) expect='deleted.*Str' ;;
  7) expect='deleted.*Notification' ;;
  8) expect='deleted.*Subscriptions' ;;
  9) expect='deleted.*view' ;;
  3 | 4) expect="passes its arguments through C's" ;;
  5) expect="expects argument of type 'int'|specifies type 'int'" ;;
  6) expect='is called with \(const tqredis::Notification &\)' ;;
  *) echo "no case $case"; exit 2 ;;
esac
# Plain ASCII quotes in the messages.
export LC_ALL=C
status=0
out=$("$cxx" -std=c++17 -fsyntax-only -Wall -Wextra -Werror -I"$include" \
  -DTQ_MISUSE="$case" "$source" 2>&1) || status=$?
if [ -z "$expect" ]; then
  [ $status -eq 0 ] && exit 0
  echo "correct code did not compile:"; echo "$out"; exit 1
fi
if [ $status -eq 0 ]; then
  echo "case $case compiled"; exit 1
fi
if ! printf '%s\n' "$out" | grep -Eq "$expect"; then
  echo "case $case refused, but not with /$expect/:"; echo "$out"; exit 1
fi
echo "case $case refused: $(printf '%s\n' "$out" | grep -E "$expect" | head -n 1)"

#!/bin/sh
# Compares the dynamic symbols a library defines with the list of names it
# must export: a missing name or an extra one fails, and so does any exported
# name outside the library's prefixes. With the public header as a third
# argument, the list must also name exactly what the header declares with
# TQREDIS_API, so a function or global of the interface that is declared but
# neither listed nor defined fails too.
set -eu
lib=$1
list=$2
header=${3:-}
# The linker's own markers and AddressSanitizer's per-global twins are not
# names of ours.
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' \
  | grep -vE '^(_init|_fini|_edata|_end|__bss_start|__odr_asan\..*)$' | sort -u)
expected=$(grep -vE '^(#|$)' "$list" | sort -u)
status=0
missing=$(printf '%s\n' "$expected" | grep -vxF "$actual" || true)
extra=$(printf '%s\n' "$actual" | grep -vxF "$expected" || true)
if [ -n "$missing" ]; then echo "missing from $lib:"; echo "$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not listed:"; echo "$extra"; status=1; fi
stray=$(printf '%s\n' "$actual" | grep -vE '^(tqredis_|g_tqredis_|select_sleep$|check_reply$)' || true)
if [ -n "$stray" ]; then echo "exported without the prefix:"; echo "$stray"; status=1; fi
if [ -n "$header" ]; then
  # Every declaration carries TQREDIS_API and its name on one line: the name
  # is the identifier right before the first "(", "[" or ";".
  declared=$(grep -v '^#' "$header" \
    | sed -n 's/.*TQREDIS_API[^(;[]*[^A-Za-z0-9_(;[]\([A-Za-z_][A-Za-z0-9_]*\)[[:space:]]*[(;[].*/\1/p' \
    | sort -u)
  unlisted=$(printf '%s\n' "$declared" | grep -vxF "$expected" || true)
  undeclared=$(printf '%s\n' "$expected" | grep -vxF "$declared" || true)
  if [ -n "$unlisted" ]; then echo "declared in $header but not listed:"; echo "$unlisted"; status=1; fi
  if [ -n "$undeclared" ]; then echo "listed but not declared in $header:"; echo "$undeclared"; status=1; fi
fi
[ $status -eq 0 ] && echo "$(printf '%s\n' "$actual" | wc -l) names exported as listed"
exit $status

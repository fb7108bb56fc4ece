#!/bin/sh
# Compares the dynamic symbols a library defines with the list of names it
# must export: a missing name or an extra one fails, and so does any exported
# name outside the library's prefixes.
set -eu
lib=$1
list=$2
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
[ $status -eq 0 ] && echo "$(printf '%s\n' "$actual" | wc -l) names exported as listed"
exit $status

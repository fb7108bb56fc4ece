#!/bin/sh
# Checks that the C and C++ files under the given paths (default: src and
# the C++ header) are formatted as .clang-format at the root says; changes
# nothing. The C header include/tqredis.h is left out by default: it is the
# interface's documentation, its comments and banners aligned by hand.
#   scripts/format-check.sh [PATH...]
# Prints where each file differs and exits non-zero when a file would change.
# CLANG_FORMAT names the program (default clang-format).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
clang_format=${CLANG_FORMAT:-clang-format}
[ -n "${CLANG_FORMAT:-}" ] || "$root/scripts/lib/ensure-packages.sh" clang-format
[ "$#" -gt 0 ] || set -- src include/tqredis.hpp

files=$(find "$@" -type f \( -name '*.h' -o -name '*.c' -o -name '*.cc' \) |
  sort)
if [ -z "$files" ]; then
  echo "format-check: no C or C++ files under $*" >&2
  exit 2
fi
# Each file's first violations, with their context; the rest counted.
bad=0
count=0
for f in $files; do
  count=$((count + 1))
  if out=$("$clang_format" --style=file --dry-run -Werror "$f" 2>&1); then
    continue
  fi
  bad=$((bad + 1))
  printf '%s\n' "$out" | head -n 12
  n=$(printf '%s\n' "$out" | grep -c 'error:' || true)
  echo "$f: $n places differ from clang-format's layout"
done
if [ "$bad" -ne 0 ]; then
  echo "format-check: $bad of $count files are not formatted" \
    "(clang-format -i FILE fixes one)"
  exit 1
fi
echo "format-check: $count files formatted"

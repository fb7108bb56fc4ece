#!/bin/sh
# Checks that the folders of src/ depend on each other one way only.
#   scripts/check-layout.sh BUILD_DIR
# Each folder under src/ is a node, and so is each file directly in src/
# (src/init.cc is the node "init"). The graph is drawn twice:
#  - includes: a quoted #include in a file of one node that resolves to a
#    file of another node is an edge from the first to the second;
#  - objects: an undefined symbol of one of the library's objects in BUILD_DIR
#    (CMakeFiles/tqredis_obj.dir/src/...) that another node's object defines
#    is an edge to that node. This also sees calls made through the public
#    header, which the include lines hide.
# Prints both graphs, each edge with an example, then every cycle of each and
# every object edge that has no include edge beside it (a call whose header is
# not included: the include lines must show every arrow). Exits 1 when there
# is either, 2 on a usage or build problem, 0 otherwise. NM names the nm
# program (default nm).
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "$#" -ne 1 ]; then
  echo "usage: $0 BUILD_DIR" >&2
  exit 2
fi
if [ ! -d "$1" ]; then
  echo "check-layout: no build directory $1" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
obj_dir=$build_dir/CMakeFiles/tqredis_obj.dir
nm=${NM:-nm}
if [ ! -d "$obj_dir/src" ]; then
  echo "check-layout: no objects in $obj_dir/src; build $build_dir first" >&2
  exit 2
fi
[ -n "${NM:-}" ] || "$root/scripts/lib/ensure-packages.sh" binutils

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
cd "$root"

# One stream of tagged lines for the one awk program below:
#   F path                 a file of the library (relative to the root)
#   I path line included   a quoted include
#   S path symbol          path's object defines symbol (strong)
#   W path symbol          path's object defines symbol (weak)
#   U path symbol          path's object needs symbol
find src -type f \( -name '*.h' -o -name '*.c' -o -name '*.cc' \) | sort \
  >"$work/files"
if [ ! -s "$work/files" ]; then
  echo "check-layout: no C or C++ files under src/" >&2
  exit 2
fi
sed 's/^/F /' "$work/files" >"$work/stream"
# shellcheck disable=SC2046
awk '/^[ \t]*#[ \t]*include[ \t]*"/ {
  inc = $0; sub(/^[^"]*"/, "", inc); sub(/".*/, "", inc)
  print "I", FILENAME, FNR, inc }' $(cat "$work/files") >>"$work/stream"

missing=""
while read -r f; do
  case "$f" in *.c | *.cc) ;; *) continue ;; esac
  obj="$obj_dir/$f.o"
  if [ ! -f "$obj" ]; then
    missing="$missing $f"
    continue
  fi
  # nm -P: "name type [value size]". Weak definitions (W, V) are the inline
  # functions, templates and inline variables of headers, emitted by every
  # object that uses them; whose they are, only the includes tell.
  "$nm" -P -g --defined-only "$obj" | awk -v f="$f" '
    $2 ~ /^[WVwv]$/ { print "W", f, $1; next }
    $2 != "U" { print "S", f, $1 }'
  "$nm" -P -u "$obj" | awk -v f="$f" '{ print "U", f, $1 }'
done <"$work/files" >>"$work/stream"
if [ -n "$missing" ]; then
  echo "check-layout: no object in $obj_dir for:$missing; build first" >&2
  exit 2
fi
stale=$(cd "$obj_dir" && find src -name '*.o' | while read -r o; do
  [ -f "$root/${o%.o}" ] || printf ' %s' "$o"
done)

awk -v stale="$stale" -v build="$1" '
# The node of a path under src/: its first folder, or a top-level file name
# without its extension.
function node(p) {
  sub(/^src\//, "", p)
  if (index(p, "/")) { sub(/\/.*/, "", p); return p }
  sub(/\.[^.]*$/, "", p)
  return p
}
# Folds "." and ".." out of a relative path.
function normal(p,   n, i, k, part, out) {
  n = split(p, part, "/")
  k = 0
  for (i = 1; i <= n; i++) {
    if (part[i] == "." || part[i] == "") continue
    if (part[i] == ".." && k > 0 && out[k] != "..") { k--; continue }
    out[++k] = part[i]
  }
  p = ""
  for (i = 1; i <= k; i++) p = p (i > 1 ? "/" : "") out[i]
  return p
}
function dirname(p) { if (!sub(/\/[^\/]*$/, "", p)) p = "."; return p }
function addnode(v) { if (!(v in isnode)) { isnode[v] = 1; nodes[++n] = v } }

# Every elementary cycle once: from each node s in order, paths through nodes
# after s only that come back to s. Capped, so a dense graph still ends.
function cycles(kind,   s) {
  found = 0
  for (s = 1; s <= n; s++) { start = s; walk(kind, s, 0) }
  return found
}
function walk(kind, v, depth,   w, i, line) {
  path[depth] = v
  onpath[v] = 1
  for (w = start; w <= n && found < cap; w++) {
    if (!((kind, nodes[v], nodes[w]) in edge)) continue
    if (w == start) {
      line = ""
      for (i = 0; i <= depth; i++) line = line nodes[path[i]] " -> "
      found++
      if (found <= show) print "  " line nodes[start]
    } else if (!onpath[w]) {
      walk(kind, w, depth + 1)
    }
  }
  onpath[v] = 0
}
function graph(kind, title,   i, j, a, b, k, count) {
  count = 0
  for (i = 1; i <= n; i++) for (j = 1; j <= n; j++)
    if ((kind, nodes[i], nodes[j]) in edge) count++
  printf "== %s: %d edges\n", title, count
  for (i = 1; i <= n; i++) for (j = 1; j <= n; j++) {
    a = nodes[i]; b = nodes[j]; k = kind SUBSEP a SUBSEP b
    if (!(k in edge)) continue
    printf "  %-20s %s", a " -> " b, example[k]
    if (more[k] > 1)
      printf " (%d %s)", more[k], kind == "inc" ? "include lines" : "symbols"
    printf "\n"
  }
}

$1 == "F" { isfile[$2] = 1; addnode(node($2)); next }
$1 == "I" { inc[++ninc] = $0; next }
$1 == "S" { if (!($3 in strong)) strong[$3] = $2; next }
$1 == "W" { next }
$1 == "U" { und[++nund] = $0; next }

END {
  cap = 100000
  show = 200
  # Nodes in name order, which is also the order cycles start from.
  for (i = 2; i <= n; i++) {
    v = nodes[i]
    for (j = i - 1; j >= 1 && nodes[j] > v; j--) nodes[j + 1] = nodes[j]
    nodes[j + 1] = v
  }

  # A quoted include looks beside the including file first, then in src/
  # (the private include folder); the public header and the system headers
  # are in neither and draw no edge.
  for (i = 1; i <= ninc; i++) {
    split(inc[i], f, " ")
    file = f[2]; target = normal(dirname(file) "/" f[4])
    if (!(target in isfile)) target = normal("src/" f[4])
    if (!(target in isfile)) continue
    a = node(file); b = node(target)
    if (a == b) continue
    k = "inc" SUBSEP a SUBSEP b
    if (!(k in edge)) {
      edge[k] = 1
      example[k] = file ":" f[3] " includes \"" f[4] "\""
    }
    more[k]++
  }

  # Symbols defined by no object of the library (the C and C++ libraries,
  # hiredis) draw no edge; nor does a symbol defined in the needing node.
  for (i = 1; i <= nund; i++) {
    split(und[i], f, " ")
    file = f[2]; sym = f[3]
    if (!(sym in strong)) continue
    a = node(file); b = node(strong[sym])
    if (a == b) continue
    k = "obj" SUBSEP a SUBSEP b
    if (!((k, sym) in seen)) { seen[k, sym] = 1; more[k]++ }
    if (!(k in edge)) {
      edge[k] = 1
      example[k] = sym " (" file ".o needs it, " strong[sym] ".o defines it)"
    }
  }

  line = ""
  for (i = 1; i <= n; i++) line = line " " nodes[i]
  print "nodes:" line
  if (stale != "")
    print "objects of no current source, left out:" stale
  graph("inc", "include graph (quoted #include lines of src/)")
  graph("obj", "object graph (undefined symbols of " build \
    "/CMakeFiles/tqredis_obj.dir against the objects defining them)")

  print "== cycles in the include graph"
  ci = cycles("inc")
  print "  " (ci >= cap ? "at least " : "") ci " cycles"
  print "== cycles in the object graph"
  co = cycles("obj")
  print "  " (co >= cap ? "at least " : "") co " cycles"

  print "== object edges without an include edge" \
    " (a call whose header is not included)"
  missing = 0
  for (i = 1; i <= n; i++) for (j = 1; j <= n; j++) {
    a = nodes[i]; b = nodes[j]
    if (!(("obj", a, b) in edge) || (("inc", a, b) in edge)) continue
    missing++
    printf "  %-20s %s\n", a " -> " b, example["obj" SUBSEP a SUBSEP b]
  }
  print "  " missing " edges"

  if (ci + co + missing == 0) {
    print "layout: no cycle, and the include lines show every call"
    exit 0
  }
  printf "layout: FAILED: %d include cycles, %d object cycles, ", ci, co
  printf "%d calls whose header is not included\n", missing
  exit 1
}' "$work/stream" >"$work/report" && status=0 || status=$?
# Symbols are matched as the objects name them, and shown demangled.
if command -v c++filt >/dev/null 2>&1; then
  c++filt <"$work/report"
else
  cat "$work/report"
fi
exit "$status"

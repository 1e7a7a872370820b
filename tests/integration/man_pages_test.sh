#!/usr/bin/env bash
# The manual pages in man/: each renders without a warning (groff -ww), and
# tolkvaskd(8) names every environment variable the daemon's code reads, so
# that a variable added to the code cannot stay undocumented. Exits 77 with
# a SKIP line without groff.
# Usage: man_pages_test.sh SOURCE_DIR
set -euo pipefail
src=${1:?usage: man_pages_test.sh SOURCE_DIR}
command -v groff >/dev/null 2>&1 || { echo "SKIP: groff is not installed"; exit 77; }
fail() { echo "FAIL: $*"; exit 1; }
pages=(tolkvaskd.8 veltd.8 srcctl.8 veltctl.8 veltnam.1 AggregateIP.cfg.5 libveltnam.3)
for page in "${pages[@]}"; do
  [ -f "$src/man/$page" ] || fail "man/$page is missing"
  said=$(groff -man -ww -z "$src/man/$page" 2>&1) || fail "groff failed on $page: $said"
  [ -z "$said" ] || fail "groff warns about $page: $said"
  text=$(groff -man -Tutf8 "$src/man/$page" 2>/dev/null)
  [ "$(wc -l <<<"$text")" -gt 20 ] || fail "$page renders to almost nothing"
done
echo "ok: ${#pages[@]} pages render without a warning"
missing=
for var in $(grep -rhoE 'getenv\("[A-Z_0-9]+"\)|kSocketEnv = "[A-Z_0-9]+"' \
               "$src"/globalAM "$src"/platform "$src"/msg | grep -oE '"[A-Z_0-9]+"' | tr -d '"' | sort -u); do
  grep -q "^\.B $var\$" "$src/man/tolkvaskd.8" || missing="$missing $var"
done
[ -z "$missing" ] || fail "tolkvaskd(8) does not name:$missing"
echo "ok: tolkvaskd(8) names every variable the daemon reads"
echo "PASS"

#!/usr/bin/env bash
# --version on every tool and daemon but tolkvaskd: "NAME (velt) VERSION"
# with the project's version and exit 0; tolkvaskd, whose one argument is
# its name, takes "--version" as that name's wrong spelling no more than any
# other second word: with two arguments it prints its usage and exits 255.
# Usage: version_test.sh VERSION TOLKVASKD PROGRAM...
set -euo pipefail
version=${1:?usage: version_test.sh VERSION TOLKVASKD PROGRAM...}
tolkvaskd=${2:?usage: version_test.sh VERSION TOLKVASKD PROGRAM...}
shift 2
fail() { echo "FAIL: $*"; exit 1; }
for program in "$@"; do
  name=$(basename "$program")
  set +e
  out=$("$program" --version 2>&1)
  rc=$?
  set -e
  [ "$rc" -eq 0 ] || fail "$name --version: exit $rc: $out"
  [ "$out" = "$name (velt) $version" ] || fail "$name --version said \"$out\", not \"$name (velt) $version\""
  echo "ok: $out"
done
set +e
out=$("$tolkvaskd" tolkvaskd --version 2>&1)
rc=$?
set -e
[ "$rc" -eq 255 ] || fail "tolkvaskd with a second argument: exit $rc, not 255: $out"
case $out in *Usage:*) ;; *) fail "tolkvaskd with a second argument printed no usage: $out" ;; esac
echo "ok: tolkvaskd keeps its designed arguments"
echo "PASS"

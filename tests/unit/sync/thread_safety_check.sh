#!/usr/bin/env bash
# Compiles thread_safety_cases.cc with clang's thread-safety analysis and
# all warnings as errors, and checks the outcome.
#   thread_safety_check.sh CLANGXX SOURCE CASE EXPECTED INCLUDE_DIR...
# CASE "none" compiles the file as it is, which must succeed. Any other
# CASE defines that macro, and the compile must fail with EXPECTED in the
# analysis' diagnostics: a failure for another reason does not count.
# Exits 77 (a skip) when there is no clang to ask.
set -uo pipefail
clangxx=$1 source=$2 case=$3 expected=$4
shift 4
if [[ -z "$clangxx" || "$clangxx" == *NOTFOUND ]] || ! command -v "$clangxx" >/dev/null; then
  echo "SKIP: no clang++ on this machine, so the thread-safety analysis cannot be checked"
  exit 77
fi
args=(-std=c++17 -fsyntax-only -Wall -Wextra -Werror -Wthread-safety)
for dir in "$@"; do args+=(-I "$dir"); done
[[ "$case" != none ]] && args+=("-D$case")
out=$("$clangxx" "${args[@]}" "$source" 2>&1)
rc=$?
printf '%s\n' "$out"
if [[ "$case" == none ]]; then
  if ((rc != 0)); then
    echo "FAIL: the correct uses do not compile (exit $rc)"
    exit 1
  fi
  echo "PASS: the correct uses compile"
  exit 0
fi
if ((rc == 0)); then
  echo "FAIL: $case compiled; the analysis did not refuse it"
  exit 1
fi
if ! grep -q -- "-Wthread-safety" <<<"$out" || ! grep -qF -- "$expected" <<<"$out"; then
  echo "FAIL: $case was refused, but not by the analysis with: $expected"
  exit 1
fi
echo "PASS: $case refused: $expected"

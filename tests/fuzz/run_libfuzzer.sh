#!/usr/bin/env bash
# Runs one libFuzzer binary for a bounded time over a scratch copy of its
# seed corpus (the tree is never written), as a CTest test: any crash,
# leak, sanitizer report, time-out or memory blow-up makes it fail, and the
# input that did it is kept in ARTIFACT_DIR.
# Usage: run_libfuzzer.sh BINARY CORPUS_DIR SECONDS ARTIFACT_DIR
set -uo pipefail
if [ $# -ne 4 ]; then
  echo "usage: $0 BINARY CORPUS_DIR SECONDS ARTIFACT_DIR" >&2
  exit 2
fi
binary=$1 corpus=$2 seconds=$3 artifacts=$4

scratch=$(mktemp -d "${TMPDIR:-/tmp}/velt-fuzz-XXXXXX") || exit 1
trap 'rm -rf "$scratch"' EXIT
cp -r "$corpus"/. "$scratch"/ || exit 1
mkdir -p "$artifacts" || exit 1

# Undefined behaviour ends the run like a crash, whether or not the build
# made its checks unrecoverable.
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}

"$binary" "$scratch" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -malloc_limit_mb=1024 -print_final_stats=1 -artifact_prefix="$artifacts/"
rc=$?
if [ $rc -ne 0 ]; then
  echo "$(basename "$binary"): finding (exit $rc); the input is kept in $artifacts/" >&2
fi
exit $rc

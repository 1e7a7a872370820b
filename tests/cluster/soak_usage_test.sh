#!/usr/bin/env bash
# scripts/soak refuses bad options with exit 2 and a clear message, before
# it needs root or touches anything; -h prints the usage.
set -u
soak=$1
failed=0
# Should an option be taken that ought to be refused, the run ends at once
# for want of a build instead of bringing a cluster up.
export VELT_BUILD_DIR=/nonexistent

expect() {   # expect STATUS TEXT ARGS...
  local want=$1 text=$2 out status
  shift 2
  out=$("$soak" "$@" 2>&1)
  status=$?
  if [ "$status" -ne "$want" ] || [[ $out != *"$text"* ]]; then
    echo "FAIL: scripts/soak $*: exit $status (want $want), output:"
    echo "$out"
    failed=1
  else
    echo "ok: scripts/soak $*"
  fi
}

expect 0 "usage: scripts/soak" --help
expect 2 "--nodes \"2\" is not a number from 3 to 16" --nodes 2
expect 2 "--nodes \"17\" is not a number from 3 to 16" --nodes 17
expect 2 "--minutes \"0\" is not a number from 1 to 1440" --minutes 0
expect 2 "--minutes \"two\" is not a number from 1 to 1440" --minutes two
expect 2 "--seed \"-1\" is not a number from 0 to 2147483647" --seed -1
expect 2 "--seed \"99999999999\" is not a number from 0 to 2147483647" --seed 99999999999
expect 2 "--converge-seconds \"4\" is not a number from 5 to 600" --converge-seconds 4
expect 2 "--max-rss-mib \"0\" is not a number from 1 to 65536" --max-rss-mib 0
expect 2 "--minutes needs a value" --minutes
expect 2 "unknown argument \"--fast\"" --fast
exit $failed

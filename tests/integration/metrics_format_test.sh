#!/usr/bin/env bash
# veltctl metrics against a real agent (veltd --standalone in a private
# directory): the output parses as the Prometheus text format, with a real
# parser (Debian's python3-prometheus-client, through /usr/bin/python3)
# where it is installed, and always with a strict check of our own: every
# family has HELP and TYPE before its samples and appears once, names and
# labels are well formed, counters end in _total, values are numbers. The
# figures say what a lone agent is: a view of 1, its bus traffic counted.
# Usage: metrics_format_test.sh VELTD VELTCTL
set -euo pipefail
veltd=${1:?usage: metrics_format_test.sh VELTD VELTCTL}
veltctl=${2:?usage: metrics_format_test.sh VELTD VELTCTL}
dir=$(mktemp -d /tmp/velt-metrics-XXXXXX)
agent=
cleanup() {
  [ -z "$agent" ] || { kill -KILL "$agent" && wait "$agent"; } 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; [ ! -f "$dir/metrics.txt" ] || cat "$dir/metrics.txt"; exit 1; }

"$veltd" --standalone --socket "$dir/agent.sock" --state-dir "$dir/state" --log "$dir/veltd.log" </dev/null &
agent=$!
for _ in $(seq 1 50); do
  "$veltctl" --socket "$dir/agent.sock" status >/dev/null 2>&1 && break
  sleep 0.1
done
"$veltctl" --socket "$dir/agent.sock" metrics >"$dir/metrics.txt" || fail "veltctl metrics: exit $?"

# Our own strict check.
awk '
  function bad(why) { printf "line %d: %s: %s\n", NR, why, $0; failed = 1 }
  /^# HELP / { if (!($3 ~ /^[a-zA-Z_:][a-zA-Z0-9_:]*$/)) bad("bad name in HELP"); help[$3] = 1; next }
  /^# TYPE / {
    name = $3
    if (!(name in help)) bad("TYPE before HELP")
    if (name in typed) bad("family given twice")
    if ($4 != "gauge" && $4 != "counter") bad("unknown type")
    if ($4 == "counter" && name !~ /_total$/) bad("a counter without _total")
    typed[name] = $4; current = name; next
  }
  /^#/ { bad("unknown comment"); next }
  /^$/ { bad("empty line"); next }
  {
    if (!match($0, /^[a-zA-Z_:][a-zA-Z0-9_:]*/)) { bad("no metric name"); next }
    name = substr($0, 1, RLENGTH); rest = substr($0, RLENGTH + 1)
    if (name != current) bad("sample outside its family")
    if (substr(rest, 1, 1) == "{") {
      if (!match(rest, /^\{([a-zA-Z_][a-zA-Z0-9_]*="([^"\\]|\\.)*"(,[a-zA-Z_][a-zA-Z0-9_]*="([^"\\]|\\.)*")*)?\}/)) { bad("bad labels"); next }
      rest = substr(rest, RLENGTH + 1)
    }
    if (rest !~ /^ [0-9]+(\.[0-9]+)?$/) bad("bad value")
    samples++
  }
  END { if (samples == 0) { print "no samples"; failed = 1 } exit failed }
' "$dir/metrics.txt" || fail "the strict check refused the output"
echo "ok: the strict check takes it"

if /usr/bin/python3 -c 'import prometheus_client.parser' 2>/dev/null; then
  /usr/bin/python3 - "$dir/metrics.txt" <<'PY' || fail "the Prometheus parser refused the output"
import sys
from prometheus_client.parser import text_string_to_metric_families
families = {f.name: f for f in text_string_to_metric_families(open(sys.argv[1]).read())}
value = lambda name: families[name].samples[0].value
assert value("velt_view_nodes") == 1, families["velt_view_nodes"]
assert value("velt_nodelist_nodes") == 1
assert value("velt_health_problems") == 0
# counters lose their _total in the family's name
assert families["velt_bus_messages_sent"].type == "counter"
assert value("velt_bus_messages_received") >= 1, "the agent's own messages come back to it"
assert value("velt_bus_bytes_received") >= value("velt_bus_messages_received")
assert value("velt_agent_client_sessions") >= 1, "this veltctl at least"
print("ok: the Prometheus parser reads %d families" % len(families))
PY
else
  echo "note: python3-prometheus-client is not installed; the strict check alone was made"
fi
echo "PASS"

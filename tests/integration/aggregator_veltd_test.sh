#!/usr/bin/env bash
# The aggregator against a real agent, on one node in a private network
# namespace: `veltd --standalone --interfaces sxn0,sxn1` and the test build of
# tolkvaskd that registers the aggregate device ml0 over sxn0 and sxn1, in
# domain type QUIL with an aggregate configuration that puts this node's
# two adapters into ml0.
#  1. The aggregate provider joins "ml0Membership" as an alias of the base
#     group: both cooked groups hold this node, so the lower, sxnMembership.
#  2. sxn0 goes down, sxnMembership empties: after the flip delay the alias
#     moves to sxn1Membership without a leave.
#  3. A configuration that masks this node out of both adapters: every base
#     group is empty after masking, and the provider leaves with
#     " No source groups exist. Leave the agg_group.".
# Needs root and `ip netns`; exits 77 with a SKIP line otherwise.
# Usage: aggregator_veltd_test.sh BUILD_DIR
set -euo pipefail
bin=${1:?usage: aggregator_veltd_test.sh BUILD_DIR}

if [ "$(id -u)" -ne 0 ]; then
  echo "SKIP: needs root (it makes a network namespace)"
  exit 77
fi
ns=velt-aggt-$$
if ! ip netns add "$ns" 2>/dev/null; then
  echo "SKIP: cannot make a network namespace (ip netns add)"
  exit 77
fi
run=$(mktemp -d /tmp/velt-aggt-XXXXXX)
cleanup() {
  for p in ${pid:-} ${agent:-}; do { kill -KILL "$p" && wait "$p"; } 2>/dev/null || true; done
  ip netns del "$ns" 2>/dev/null || true
  rm -rf "$run"
}
trap cleanup EXIT
inns() { ip netns exec "$ns" "$@"; }

fail() {
  echo "FAIL: $*"
  echo "== veltctl members ml0Membership"
  inns "$veltctl" members ml0Membership || true
  echo "== the trace log, aggregator lines"
  grep 'Aggregator\[\|AggSub\[\|AggMediator' "$SW_HERDLET_LOGFILE" | tail -n 40 || true
  exit 1
}

wait_for() {  # wait_for WHAT SECONDS COMMAND...: polls every 0.2 s up to SECONDS
  local what=$1 secs=$2; shift 2
  local i
  for i in $(seq 1 $((secs * 5))); do
    if "$@" >/dev/null 2>&1; then return 0; fi
    sleep 0.2
  done
  fail "gave up waiting ${secs}s for $what"
}

inns ip link set lo up
addr=0
for ifname in sxn0 sxn1; do
  if ! inns ip link add "$ifname" type dummy 2>/dev/null; then
    inns ip link add "$ifname" type veth peer name "${ifname}p"
    inns ip link set "${ifname}p" up
  fi
  inns ip addr add "10.71.$addr.1/24" dev "$ifname"
  inns ip link set "$ifname" up
  addr=$((addr + 1))
done

export HA_DOMAIN_TYPE=QUIL
export SW_HERDLET_REFRESH_CMD=$bin/tools/tolkvask-refresh/tolkvask-refresh
export SW_HERDLET_RUN_DIR=$run
export SW_HERDLET_NODE_NUMBER=1
export SW_HERDLET_INCARNATION_NUMBER=1
export SW_HERDLET_TID_DIR=$run/tolkvaskd.excl
export SW_HERDLET_LOGFILE=$run/tolkvaskd.log
export SW_HERDLET_AGGIP_CFG=$run/AggregateIP.cfg
export VELT_SRC_DIR=$run/src
export VELT_AGENT_SOCKET=$run/agent.sock
export VELT_FFDC_LOG=$run/ffdc.jsonl
printf '+CFGID: 0x1\n1 ml0 sxn0,sxn1\n' >"$SW_HERDLET_AGGIP_CFG"
veltctl=$bin/tools/veltctl/veltctl
srcctl=$bin/tools/srcctl/srcctl

# True when group $1 has a provider of node 1.
has_member() { inns "$veltctl" members "$1" 2>/dev/null | grep -qE '^ *[0-9]+ +1( |$)'; }
has_no_member() { ! has_member "$1"; }
in_log() { grep -qF -- "$1" "$SW_HERDLET_LOGFILE"; }
status_says() { inns "$srcctl" -s tolkvaskd request 999 2>/dev/null | grep -qF -- "$1"; }

ip netns exec "$ns" "$bin/agent/veltd" --standalone --interfaces sxn0,sxn1 --socket "$VELT_AGENT_SOCKET" \
  --state-dir "$run/veltd" --log "$run/veltd.log" </dev/null &
agent=$!
wait_for "the agent" 10 inns "$veltctl" status
ip netns exec "$ns" "$bin/tests/integration/tolkvaskd_aggregators" tolkvaskd </dev/null >"$run/stdout" 2>&1 &
pid=$!

echo "== 1. both cooked groups hold this node: ml0Membership follows sxnMembership"
wait_for "sxnMembership" 30 has_member sxnMembership
wait_for "sxn1Membership" 10 has_member sxn1Membership
wait_for "a member of ml0Membership" 30 has_member ml0Membership
wait_for "the join as an alias" 10 in_log " Joining ml0Membership as alias to sxnMembership"
wait_for "the status line of the alias" 10 status_says "AggAdapter0_AliasGroup: sxnMembership"
status_says "AggAdapter0_Joined: Yes" || fail "the status does not say joined"
echo "ok: joined ml0Membership as an alias of sxnMembership"

echo "== 2. sxn0 goes down: the alias moves to sxn1Membership after the flip delay, without a leave"
inns ip link set sxn0 down
wait_for "sxnMembership to empty" 20 has_no_member sxnMembership
start=$(date +%s%N)
wait_for "the alias to move" 20 in_log " AggGroup ml0Membership is now aliased to sxn1Membership"
moved_ms=$(( ($(date +%s%N) - start) / 1000000 ))
# The alias moved when the flip delay ran out quietly (a time-out of the
# aggregator's 3-second wait), not at the change itself.
in_log "waitrc = 110, event which wakeup the ml0 thread: evt = 0, alias_group_index=0, Now the alias_group_index" ||
  fail "the alias did not move at the end of a flip delay"
in_log "Leave ml0membership" && fail "the alias moved by leaving"
in_log "goodbyeGroup() returns" && fail "the aggregate provider said goodbye"
has_member ml0Membership || fail "ml0Membership lost this node"
wait_for "the status line of the new alias" 10 status_says "AggAdapter0_AliasGroup: sxn1Membership"
echo "ok: aliased to sxn1Membership ${moved_ms} ms after sxnMembership emptied, still a member"

echo "== 3. a configuration that masks this node out: no source group, the provider leaves"
printf '+CFGID: 0x2\n2 ml0 sxn0,sxn1\n' >"$SW_HERDLET_AGGIP_CFG"
inns "$srcctl" -s tolkvaskd refresh >/dev/null
wait_for "the leave" 30 in_log " No source groups exist. Leave the agg_group."
wait_for "ml0Membership to lose this node" 10 has_no_member ml0Membership
status_says "AggAdapter0_Joined: No" || fail "the status still says joined"
echo "ok: left ml0Membership once every base group was empty after masking"

inns "$srcctl" -s tolkvaskd stop >/dev/null || true
wait "$pid" || true
pid=
kill -TERM "$agent"
wait "$agent" || true
agent=
echo "PASS"

#!/usr/bin/env bash
# The systemd units of deploy/ as systemd itself reads them: both pass
# `systemd-analyze verify` without a word (in a scratch root with stand-ins
# for the programs they start), tolkvaskd's unit is rated less exposed by
# `systemd-analyze security` than corosync's, and tolkvaskd.env names every
# environment variable the daemon's code reads. Exits 77 with a SKIP line
# where systemd-analyze is missing.
# Usage: units_verify_test.sh SOURCE_DIR
set -euo pipefail
src=${1:?usage: units_verify_test.sh SOURCE_DIR}

if ! command -v systemd-analyze >/dev/null 2>&1; then
  echo "SKIP: systemd-analyze is not installed"
  exit 77
fi
root=$(mktemp -d /tmp/velt-units-XXXXXX)
trap 'rm -rf "$root"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

mkdir -p "$root/usr/sbin" "$root/usr/bin" "$root/bin" "$root/etc/velt" "$root/etc/systemd/system" \
         "$root/lib/systemd/system"
# systemd's own units (the targets every unit is ordered against) and
# corosync's, then ours and stand-ins for the programs they run.
cp -a /lib/systemd/system/. "$root/lib/systemd/system/"
if [ ! -f "$root/lib/systemd/system/corosync.service" ]; then
  printf '[Unit]\nDescription=stand-in for corosync\n[Service]\nExecStart=/bin/true\n' \
    >"$root/lib/systemd/system/corosync.service"
fi
for b in usr/sbin/veltd usr/sbin/tolkvaskd usr/bin/srcctl usr/bin/veltctl; do
  printf '#!/bin/sh\n' >"$root/$b"
  chmod +x "$root/$b"
done
cp /bin/sh "$root/bin/sh"
cp "$src"/deploy/veltd.env "$src"/deploy/tolkvaskd.env "$root/etc/velt/"
cp "$src"/deploy/veltd.service "$src"/deploy/tolkvaskd.service "$src"/deploy/veltctl-metrics.service \
   "$src"/deploy/veltctl-metrics.timer "$root/etc/systemd/system/"

for unit in veltd.service tolkvaskd.service veltctl-metrics.service veltctl-metrics.timer; do
  set +e
  said=$(systemd-analyze verify --man=no --root="$root" "$root/etc/systemd/system/$unit" 2>&1)
  rc=$?
  set -e
  [ "$rc" -eq 0 ] || fail "systemd-analyze verify $unit: exit $rc: $said"
  [ -z "$said" ] || fail "systemd-analyze verify $unit said: $said"
  echo "ok: $unit verifies"
done

exposure() {
  systemd-analyze security --offline=yes --root="$root" "$1" 2>/dev/null |
    sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p'
}
ours=$(exposure "$root/etc/systemd/system/tolkvaskd.service")
if [ -f /lib/systemd/system/corosync.service ]; then
  theirs=$(exposure "$root/lib/systemd/system/corosync.service")
  [ -n "$ours" ] && [ -n "$theirs" ] || fail "no exposure figures (tolkvaskd \"$ours\", corosync \"$theirs\")"
  awk -v a="$ours" -v b="$theirs" 'BEGIN { exit !(a < b) }' ||
    fail "tolkvaskd.service is rated $ours, not below corosync.service's $theirs"
  echo "ok: exposure of tolkvaskd.service $ours, corosync.service $theirs"
else
  echo "note: corosync is not installed here; tolkvaskd.service is rated $ours"
fi

# Every variable the daemon's code reads is in its environment file.
missing=
for var in $(grep -rhoE 'getenv\("[A-Z_0-9]+"\)|kSocketEnv = "[A-Z_0-9]+"' \
               "$src"/globalAM "$src"/platform "$src"/msg | grep -oE '"[A-Z_0-9]+"' | tr -d '"' | sort -u); do
  case $var in LANG) continue ;; esac  # only logged
  grep -qE "^#?$var=" "$src/deploy/tolkvaskd.env" || missing="$missing $var"
done
[ -z "$missing" ] || fail "deploy/tolkvaskd.env does not name:$missing"
echo "ok: deploy/tolkvaskd.env names every variable the daemon reads"
echo "PASS"

#!/usr/bin/env bash
# The .deb as an operator gets it: CPack makes it from this build, dpkg-deb
# says what it holds and depends on, and it is unpacked into a scratch root
# (dpkg -x) where its programs run and a program is built against
# libveltnam as C and as C++ through its pkg-config file. Exits 77 with a
# SKIP line without dpkg-deb or cpack.
# Usage: package_test.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: package_test.sh BUILD_DIR}
for tool in dpkg-deb cpack pkg-config cc c++ readelf objdump; do
  command -v "$tool" >/dev/null 2>&1 || { echo "SKIP: $tool is not installed"; exit 77; }
done
work=$(mktemp -d /tmp/velt-package-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$work"/cpack/*.deb)
echo "ok: $(basename "$deb") built"

# What it depends on and what it keeps as configuration.
info=$(dpkg-deb -I "$deb")
for dep in corosync libcfg7 libcmap4 libcpg4 libprotobuf32; do
  grep -q "^ Depends:.*$dep" <<<"$info" || fail "the package does not depend on $dep: $info"
done
conffiles=$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)
for f in /etc/velt/veltd.env /etc/velt/tolkvaskd.env /etc/logrotate.d/velt; do
  grep -qx "$f" <<<"$conffiles" || fail "$f is not a conffile"
done
echo "ok: depends on corosync and its libraries; the environment files are conffiles"

# Every file it must hold, and nothing of the tests or benchmarks.
dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' | grep -v '/$' | sort >"$work/files"
for f in /usr/sbin/tolkvaskd /usr/sbin/veltd /usr/bin/srcctl /usr/bin/veltctl /usr/bin/veltnam \
         /usr/bin/tolkvask-refresh /usr/lib/libveltnam.so.1.0.0 /usr/lib/libveltnam.so.1 /usr/lib/libveltnam.so \
         /usr/include/velt/velt_nam.h /usr/include/velt/velt_nam_api.h /usr/lib/pkgconfig/veltnam.pc \
         /usr/lib/systemd/system/veltd.service /usr/lib/systemd/system/tolkvaskd.service \
         /usr/lib/systemd/system/veltctl-metrics.service /usr/lib/systemd/system/veltctl-metrics.timer \
         /etc/velt/veltd.env /etc/velt/tolkvaskd.env /etc/logrotate.d/velt /usr/share/doc/velt/README.md \
         /usr/share/man/man8/tolkvaskd.8 /usr/share/man/man8/veltd.8 /usr/share/man/man8/srcctl.8 \
         /usr/share/man/man8/veltctl.8 /usr/share/man/man1/veltnam.1 /usr/share/man/man5/AggregateIP.cfg.5 \
         /usr/share/man/man3/libveltnam.3 /usr/lib/libvx_gscl.so.1 /usr/lib/libvx_mc.so.1 /usr/include/velt/gscl.h \
         /usr/include/velt/vx_mc.h /usr/lib/pkgconfig/vx_gscl.pc /usr/lib/pkgconfig/vx_mc.pc; do
  grep -qx "$f" "$work/files" || fail "the package lacks $f"
done
if grep -E 'test|bench|fuzz' "$work/files"; then fail "the package holds test or benchmark files"; fi
echo "ok: $(wc -l <"$work/files") files, every one expected among them"

root=$work/root
dpkg -x "$deb" "$root"
if readelf -S "$root/usr/sbin/veltd" | grep -q '\.symtab'; then fail "veltd is not stripped"; fi
objdump -p "$root/usr/lib/libveltnam.so.1.0.0" | grep -q "SONAME *libveltnam.so.1" || fail "libveltnam has no SONAME libveltnam.so.1"
"$root/usr/sbin/veltd" --help | grep -q "usage: veltd" || fail "the unpacked veltd does not run --help"
"$root/usr/sbin/veltd" --version | grep -qx "veltd (velt) [0-9.]*" || fail "the unpacked veltd does not run --version"
"$root/usr/bin/veltctl" --help | grep -q "usage: veltctl" || fail "the unpacked veltctl does not run --help"
"$root/usr/bin/tolkvask-refresh" --help | grep -q -- "--check FILE" || fail "the unpacked tolkvask-refresh does not run"
echo "ok: the unpacked veltd, veltctl and tolkvask-refresh run"

# A program of somebody else's, against the installed header and library.
cat >"$work/client.c" <<'C'
#include <velt_nam_api.h>
#include <stdio.h>
int main(void) {
  velt_nam_handle_t h;
  int rc = velt_nam_init("/nonexistent/velt.sock", 100, &h);
  printf("%d %s\n", rc, velt_nam_rc_text(rc));
  return rc == VELT_NAM_OK ? 1 : 0;
}
C
export PKG_CONFIG_PATH=$root/usr/lib/pkgconfig
cflags=$(pkg-config --cflags veltnam)
libs=$(pkg-config --libs veltnam)
cc -std=c99 -Wall -Werror $cflags "$work/client.c" -o "$work/client-c" $libs || fail "the header does not compile as C"
cp "$work/client.c" "$work/client.cc"
c++ -std=c++17 -Wall -Werror $cflags "$work/client.cc" -o "$work/client-cc" $libs || fail "the header does not compile as C++"
for prog in client-c client-cc; do
  out=$(LD_LIBRARY_PATH=$root/usr/lib "$work/$prog") || fail "$prog: $out"
  [ -n "$out" ] || fail "$prog said nothing"
done
echo "ok: built against libveltnam as C and C++ and run: $out"

# A group services client and a KOR client, against the installed headers
# and shared libraries.
cat >"$work/gs_client.cc" <<'CC'
#include <gscl.h>
#include <vx_mc.h>
#include <stdio.h>
#include <stdlib.h>
int main() {
  setenv("VELT_AGENT_SOCKET", "/nonexistent/agent.sock", 1);
  velt_gscl_V1::GSController controller(0x30014);
  tk_gs_rc_t rc = controller.initialize();
  mc_sess_hndl_t session;
  int mc = mc_start_session(nullptr, 0, 0, &session);
  printf("gscl %s, vx_mc %d\n", gscl_rc_name(rc), mc);
  return rc == TK_GS_OK || mc == 0 ? 1 : 0;
}
CC
c++ -std=c++17 -Wall -Werror $(pkg-config --cflags vx_gscl vx_mc) "$work/gs_client.cc" -o "$work/gs-client" \
  $(pkg-config --libs vx_gscl vx_mc) || fail "a client of libvx_gscl and libvx_mc does not build"
out=$(LD_LIBRARY_PATH=$root/usr/lib "$work/gs-client" 2>/dev/null) || fail "gs-client: $out"
echo "ok: built against libvx_gscl and libvx_mc and run: $out"
echo "PASS"

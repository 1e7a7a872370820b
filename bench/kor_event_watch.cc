// kor_event_watch: a KOR resource event watcher for bench/kor_event_bench.
// It registers for the resource event "ConfigChanged" of a class (with the
// attributes Name and IPAddress) through libvx_mc on this node's agent and
// prints every event as one line, led by the wall clock in microseconds
// (CLOCK_REALTIME, read in the callback), so that the benchmark can time
// when a change made on another node reached a client here.
//
// usage: kor_event_watch [CLASS]   (default Zel.NetworkInterface; the agent
// socket from VELT_AGENT_SOCKET). Runs until its standard input ends.
// Output lines:
//   <us> ready reg=ID
//   <us> event HANDLE flags=FLAGS seq=SEQ ip=IP mono=<us>
// mono is CLOCK_MONOTONIC at the same moment, for comparison with tools
// that cannot use the wall clock (perf's probe records).
//   <us> end RC TEXT     (the agent connection ended, or a call failed)
// Exit status 0 when the input ended, 1 when the agent failed us.
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "vx_cu.h"
#include "vx_mc.h"

namespace {

long long nowUs(clockid_t clock = CLOCK_REALTIME) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void onEvent(mc_sess_hndl_t, const mc_event_t* e, void*) {
  const long long us = nowUs();
  const long long mono = nowUs(CLOCK_MONOTONIC);
  const char* ip = "";
  for (uint32_t i = 0; i < e->attr_count; ++i) {
    if (strcmp(e->attrs[i].name, "IPAddress") == 0 && e->attrs[i].type == VX_CHAR_PTR) ip = e->attrs[i].value.string;
  }
  printf("%lld event %s flags=%u seq=%llu ip=%s mono=%lld\n", us, e->rsrc_handle, e->mc_event_flags,
         static_cast<unsigned long long>(e->sequence), ip, mono);
  fflush(stdout);
}

int fail(const char* what) {
  printf("%lld end %d %s: %s\n", nowUs(), cu_get_error(), what, cu_get_errmsg());
  fflush(stdout);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* cls = argc > 1 ? argv[1] : KOR_CLASS_NETWORK_INTERFACE;
  mc_sess_hndl_t session = 0;
  if (mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &session) != MC_OK) {
    return fail("mc_start_session");
  }
  const char* attrs[] = {"Name", "IPAddress"};
  mc_reg_rsp_t* rsp = nullptr;
  if (mc_reg_event_bp(session, &rsp, 0, cls, nullptr, attrs, 2, KOR_CONDITION_CONFIG_CHANGED, onEvent, nullptr) !=
          MC_OK ||
      rsp == nullptr || rsp->mc_errnum != MC_OK) {
    mc_free_response(rsp);
    return fail("mc_reg_event_bp");
  }
  printf("%lld ready reg=%d\n", nowUs(), static_cast<int>(rsp->reg_id));
  fflush(stdout);
  mc_free_response(rsp);
  int fd = -1;
  if (mc_get_descriptor(session, &fd) != MC_OK) return fail("mc_get_descriptor");
  struct pollfd p[2] = {{fd, POLLIN, 0}, {0, POLLIN, 0}};
  for (;;) {
    if (poll(p, 2, -1) < 0) continue;
    if (p[0].revents != 0 && mc_dispatch(session, MC_DISPATCH_OPTS_NO_WAIT) != MC_OK) return fail("mc_dispatch");
    if (p[1].revents != 0) {
      char buf[256];
      if (read(0, buf, sizeof buf) <= 0) break;
    }
  }
  mc_end_session(session);
  return 0;
}

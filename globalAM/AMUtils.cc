#include "AMUtils.h"

#include "TraceStream.h"
#include "ha_assert.h"
#include "vx_cu.h"

namespace {

time_t monotonicSeconds() {
  struct timespec ts = {0, 0};
  cu_get_monotonic_time(&ts);
  return ts.tv_sec;
}

}  // namespace

bool AMIntervalHitter::hit() {
  if (_interval == 0) {
    AMtracef(0x10000000, "AMIntervalHitter::hit always ok (interval=0)\n");
    return true;
  }
  time_t now = monotonicSeconds();
  if (_start != 0 && now < _start + _interval) return false;
  AMtracef(0x10000000, _start == 0 ? "AMIntervalHitter::hit1 at %d\n" : "AMIntervalHitter::hit2 at %d\n",
           static_cast<int>(now));
  _start = now;
  return true;
}

int AMIntervalHitter::remaining_secs_to_hit() {
  if (_interval == 0 || _start == 0) return 0;
  time_t left = _interval - (monotonicSeconds() - _start);
  return left > 0 ? static_cast<int>(left) : 0;
}

int MONO_GETTIMEOFDAY(struct timeval* tv) {
  struct timespec ts = {0, 0};
  int rc = cu_get_monotonic_time(&ts);
  tv->tv_sec = ts.tv_sec;
  tv->tv_usec = ts.tv_nsec / 1000;
  return rc;
}

int MONO_GETTIMEOFDAY_IN_HALFSECS(struct timeval* tv) {
  int rc = MONO_GETTIMEOFDAY(tv);
  tv->tv_usec = tv->tv_usec >= 500000 ? 500000 : 0;
  return rc;
}

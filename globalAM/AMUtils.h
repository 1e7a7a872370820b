// Timing helpers shared by the daemon's threads.
#ifndef VELT_GLOBALAM_AMUTILS_H_
#define VELT_GLOBALAM_AMUTILS_H_

#include <sys/time.h>
#include <time.h>

// A rate limiter on the monotonic clock: hit() succeeds at once, then at
// most once per interval. Owned by one thread (no lock).
class AMIntervalHitter {
 public:
  explicit AMIntervalHitter(int interval) : _interval(interval), _start(0) {}
  void interval(int seconds) { _interval = seconds; }
  void reset() { _start = 0; }
  bool hit();
  int remaining_secs_to_hit();

 private:
  time_t _interval;
  time_t _start;
};

// The monotonic clock as a timeval; returns the clock's result.
int MONO_GETTIMEOFDAY(struct timeval* tv);
// The same, rounded down to half seconds.
int MONO_GETTIMEOFDAY_IN_HALFSECS(struct timeval* tv);

#endif  // VELT_GLOBALAM_AMUTILS_H_

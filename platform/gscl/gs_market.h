// GSMarket: a blocking producer/consumer queue of GSObject pointers that can
// be stopped (consumers are released, producers refused) and resumed.
// Thread-safe. The market does not own what it carries until consumed; a
// stopped market's queued objects stay queued (and are deleted with it).
#ifndef VELT_PLATFORM_GSCL_GS_MARKET_H_
#define VELT_PLATFORM_GSCL_GS_MARKET_H_

#include <pthread.h>
#include <time.h>

#include <deque>

#include "gs_utils.h"
#include "velt_mutex.h"

namespace velt_gscl_V1 {

class GSMarket : public GSObject {
 public:
  GSMarket();
  ~GSMarket() override;   // deletes objects still queued
  GSMarket(const GSMarket&) = delete;
  GSMarket& operator=(const GSMarket&) = delete;

  // Stops the market: consumers waiting return null at once, produce is
  // refused. Returns 0.
  virtual int stopMarket();
  // Runs the market again. Returns 0.
  virtual int resumeMarket();
  // Queues obj and wakes one consumer. Returns 0, or -1 when the market is
  // stopped or obj is null (a queued null would read as "stopped" to the
  // consumer); obj then stays the caller's.
  virtual int produce(GSObject* obj);
  // Takes the oldest object. Waits until one comes, the market stops, or
  // the absolute CLOCK_MONOTONIC time *deadline passes (null: no limit).
  // Returns null on stop or time-out. Even when stopped, an object is
  // returned if deadline points at a time already past and one is queued
  // (so that draining can empty a stopped market). A deadline whose
  // nanoseconds are out of range is read with them carried into seconds.
  virtual GSObject* consume(const struct timespec* deadline);

  // Takes the oldest object without waiting, whatever the market's state;
  // null when empty.
  GSObject* tryConsume();
  bool isRunning() const;
  int queueCount() const;
  // Consumers blocked in consume(), so that tests can wait for that state.
  int waitingConsumersForTesting() const;

 private:
  mutable velt::Mutex mu_;
  velt::CondVar cv_;   // something queued, or the market stopped
  int waitingConsumers_ GUARDED_BY(mu_) = 0;
  std::deque<GSObject*> queue_ GUARDED_BY(mu_);
  bool running_ GUARDED_BY(mu_) = true;
};

}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_GS_MARKET_H_

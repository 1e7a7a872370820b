// GSMarket: a blocking producer/consumer queue with stop and resume.
#include "gs_market.h"

#include <errno.h>

#include "internal/gs_internal.h"

namespace velt_gscl_V1 {

using internal::gsCheck;
using internal::GSMutexHold;

namespace {

// pthread_cond_timedwait refuses nanoseconds outside [0, 1e9) with EINVAL,
// which would turn a consumer's wait into a spin; carry them instead.
struct timespec normalised(const struct timespec& t) {
  struct timespec n = t;
  n.tv_sec += n.tv_nsec / 1000000000L;
  n.tv_nsec %= 1000000000L;
  if (n.tv_nsec < 0) {
    n.tv_nsec += 1000000000L;
    n.tv_sec -= 1;
  }
  return n;
}

}  // namespace

GSMarket::GSMarket() {
  gsCheck(pthread_mutex_init(&mu_, nullptr), "pthread_mutex_init");
  internal::gsInitMonotonicCond(&cv_);
}

GSMarket::~GSMarket() {
  for (GSObject* obj : queue_) delete obj;
  queue_.clear();
  pthread_cond_destroy(&cv_);
  pthread_mutex_destroy(&mu_);
}

int GSMarket::stopMarket() {
  GSMutexHold hold(&mu_);
  running_ = false;
  pthread_cond_broadcast(&cv_);
  return 0;
}

int GSMarket::resumeMarket() {
  GSMutexHold hold(&mu_);
  running_ = true;
  // Objects left queued while stopped are there for the consumers again.
  if (!queue_.empty()) pthread_cond_broadcast(&cv_);
  return 0;
}

int GSMarket::produce(GSObject* obj) {
  if (obj == nullptr) return -1;
  GSMutexHold hold(&mu_);
  if (!running_) return -1;
  queue_.push_back(obj);
  pthread_cond_signal(&cv_);
  return 0;
}

GSObject* GSMarket::consume(const struct timespec* deadline) {
  struct timespec limit = {0, 0};
  if (deadline != nullptr) limit = normalised(*deadline);
  GSMutexHold hold(&mu_);
  while (true) {
    if (!running_) {
      // Draining a stopped market: only a caller that asks not to wait
      // (a deadline already past) still gets what is queued.
      if (deadline != nullptr && !queue_.empty() &&
          internal::gsTimeNotAfter(limit, internal::gsMonotonicNow())) {
        break;
      }
      return nullptr;
    }
    if (!queue_.empty()) break;
    ++waitingConsumers_;
    int w = deadline == nullptr ? pthread_cond_wait(&cv_, &mu_)
                                : pthread_cond_timedwait(&cv_, &mu_, &limit);
    --waitingConsumers_;
    if (w == ETIMEDOUT) {
      // Something produced just as the time ran out is still taken.
      if (running_ && !queue_.empty()) break;
      return nullptr;
    }
    gsCheck(w, "pthread_cond_wait");
  }
  GSObject* obj = queue_.front();
  queue_.pop_front();
  return obj;
}

GSObject* GSMarket::tryConsume() {
  GSMutexHold hold(&mu_);
  if (queue_.empty()) return nullptr;
  GSObject* obj = queue_.front();
  queue_.pop_front();
  return obj;
}

bool GSMarket::isRunning() const {
  GSMutexHold hold(&mu_);
  return running_;
}

int GSMarket::queueCount() const {
  GSMutexHold hold(&mu_);
  return static_cast<int>(queue_.size());
}

int GSMarket::waitingConsumersForTesting() const {
  GSMutexHold hold(&mu_);
  return waitingConsumers_;
}

}  // namespace velt_gscl_V1

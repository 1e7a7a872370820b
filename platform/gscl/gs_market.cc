// GSMarket: a blocking producer/consumer queue with stop and resume.
#include "gs_market.h"

#include <algorithm>
#include <chrono>

namespace velt_gscl_V1 {

namespace {

// The absolute CLOCK_MONOTONIC time t as a time of the steady clock, which
// counts on CLOCK_MONOTONIC. Nanoseconds outside [0, 1e9) are carried into
// seconds, and a time beyond the steady clock's range (some 290 years
// either way) is cut to what it can hold: so far off, it makes no
// difference.
std::chrono::steady_clock::time_point steadyTime(const struct timespec& t) {
  constexpr long long kLimitSecs = 9000000000LL;
  long long secs = static_cast<long long>(t.tv_sec) + t.tv_nsec / 1000000000L;
  long long nsecs = t.tv_nsec % 1000000000L;
  if (nsecs < 0) {
    nsecs += 1000000000L;
    secs -= 1;
  }
  secs = std::max(-kLimitSecs, std::min(secs, kLimitSecs));
  return std::chrono::steady_clock::time_point(std::chrono::seconds(secs) + std::chrono::nanoseconds(nsecs));
}

}  // namespace

GSMarket::GSMarket() = default;

GSMarket::~GSMarket() {
  for (GSObject* obj : queue_) delete obj;
  queue_.clear();
}

int GSMarket::stopMarket() {
  velt::MutexLock hold(mu_);
  running_ = false;
  cv_.notifyAll();
  return 0;
}

int GSMarket::resumeMarket() {
  velt::MutexLock hold(mu_);
  running_ = true;
  // Objects left queued while stopped are there for the consumers again.
  if (!queue_.empty()) cv_.notifyAll();
  return 0;
}

int GSMarket::produce(GSObject* obj) {
  if (obj == nullptr) return -1;
  velt::MutexLock hold(mu_);
  if (!running_) return -1;
  queue_.push_back(obj);
  cv_.notifyOne();
  return 0;
}

GSObject* GSMarket::consume(const struct timespec* deadline) {
  std::chrono::steady_clock::time_point limit;
  if (deadline != nullptr) limit = steadyTime(*deadline);
  velt::MutexLock hold(mu_);
  while (true) {
    if (!running_) {
      // Draining a stopped market: only a caller that asks not to wait
      // (a deadline already past) still gets what is queued.
      if (deadline != nullptr && !queue_.empty() && limit <= std::chrono::steady_clock::now()) break;
      return nullptr;
    }
    if (!queue_.empty()) break;
    ++waitingConsumers_;
    bool woken = true;
    if (deadline == nullptr) {
      cv_.wait(mu_);
    } else {
      woken = cv_.waitUntil(mu_, limit);
    }
    --waitingConsumers_;
    if (!woken) {
      // Something produced just as the time ran out is still taken.
      if (running_ && !queue_.empty()) break;
      return nullptr;
    }
  }
  GSObject* obj = queue_.front();
  queue_.pop_front();
  return obj;
}

GSObject* GSMarket::tryConsume() {
  velt::MutexLock hold(mu_);
  if (queue_.empty()) return nullptr;
  GSObject* obj = queue_.front();
  queue_.pop_front();
  return obj;
}

bool GSMarket::isRunning() const {
  velt::MutexLock hold(mu_);
  return running_;
}

int GSMarket::queueCount() const {
  velt::MutexLock hold(mu_);
  return static_cast<int>(queue_.size());
}

int GSMarket::waitingConsumersForTesting() const {
  velt::MutexLock hold(mu_);
  return waitingConsumers_;
}

}  // namespace velt_gscl_V1

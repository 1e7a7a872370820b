// Mutexes, their scoped lock and a condition variable that clang's
// -Wthread-safety understands: members marked GUARDED_BY(mu_) are checked
// to be used only under MutexLock(mu_), and functions marked REQUIRES(mu_)
// to be called only with it held. Thread-safe.
#ifndef VELT_PLATFORM_SYNC_VELT_MUTEX_H_
#define VELT_PLATFORM_SYNC_VELT_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "thread_annotations.h"

namespace velt {

class CondVar;

// A mutex over the standard one M: Mutex is plain, RecursiveMutex may be
// taken again by the thread that holds it (each lock matched by one
// unlock; to the analysis a second hold in the same function is still an
// error, as it follows one hold per function).
template <typename M>
class CAPABILITY("mutex") BasicMutex {
 public:
  BasicMutex() = default;
  BasicMutex(const BasicMutex&) = delete;
  BasicMutex& operator=(const BasicMutex&) = delete;

  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }

 private:
  friend class CondVar;
  M mu_;
};
using Mutex = BasicMutex<std::mutex>;
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds a mutex (Mutex or RecursiveMutex) from its construction until its
// destruction or unlock(), whichever comes first. Owned by the thread that
// made it.
template <typename M>
class SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(M& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~ScopedLock() RELEASE() {
    if (held_) mu_.unlock();
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  // Gives the mutex back before the end of the scope.
  void unlock() RELEASE() {
    held_ = false;
    mu_.unlock();
  }
  // Takes it again after unlock().
  void lock() ACQUIRE() {
    mu_.lock();
    held_ = true;
  }

 private:
  M& mu_;
  bool held_ = true;
};
using MutexLock = ScopedLock<Mutex>;
using RecursiveMutexLock = ScopedLock<RecursiveMutex>;

// A condition variable for waits under a Mutex. Every wait may also end
// without a notification, so callers wait in a loop on their condition.
// Time limits are measured on the monotonic clock, so that a change of the
// wall clock neither stretches nor cuts them. Thread-safe.
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // Releases mu while waiting and holds it again on return.
  void wait(Mutex& mu) REQUIRES(mu) {
    std::unique_lock<std::mutex> lk(mu.mu_, std::adopt_lock);
    cv_.wait(lk);
    lk.release();   // the caller's hold goes on
  }
  // As wait, until the deadline at the latest. False when it has passed.
  bool waitUntil(Mutex& mu, std::chrono::steady_clock::time_point deadline) REQUIRES(mu) {
    std::unique_lock<std::mutex> lk(mu.mu_, std::adopt_lock);
    std::cv_status status = cv_.wait_until(lk, deadline);
    lk.release();
    return status == std::cv_status::no_timeout;
  }
  // As wait, for at most d. False when the time ran out.
  template <typename Rep, typename Period>
  bool waitFor(Mutex& mu, const std::chrono::duration<Rep, Period>& d) REQUIRES(mu) {
    return waitUntil(mu, std::chrono::steady_clock::now() + d);
  }

  void notifyOne() { cv_.notify_one(); }
  void notifyAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace velt

#endif  // VELT_PLATFORM_SYNC_VELT_MUTEX_H_

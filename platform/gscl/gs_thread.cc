// GSThread: a pthread with a queue of integer sync events.
#include "gs_thread.h"

#include <errno.h>

#include <algorithm>
#include <chrono>

namespace velt_gscl_V1 {

namespace {

// The GSThread whose run() is on this thread. ~GSThread clears it when
// run() deletes its own object, so that the trampoline then leaves the
// freed object alone.
thread_local const GSThread* tlsRunning = nullptr;

}  // namespace

GSThread::GSThread() = default;

GSThread::~GSThread() {
  bool mustJoin;
  {
    velt::MutexLock hold(mu_);
    mustJoin = started_ && joinState_ == kNotJoined;
  }
  if (mustJoin) {
    if (tlsRunning == this) {
      // The thread deletes its own object: it cannot join itself, so its
      // resources go back to the system when it ends.
      pthread_detach(pthread_self());
      tlsRunning = nullptr;
    } else {
      join();
    }
  }
}

void* GSThread::trampoline(void* self) {
  GSThread* t = static_cast<GSThread*>(self);
  tlsRunning = t;
  void* result = t->run(t->arg_);
  if (tlsRunning != t) return result;   // run() deleted its own object
  tlsRunning = nullptr;
  velt::MutexLock hold(t->mu_);
  t->state_ = GS_THREAD_STOPPED;
  // Whoever waits on this thread's events learns that no answer will come.
  t->cv_.notifyAll();
  return result;
}

int GSThread::start(void* arg) {
  velt::MutexLock hold(mu_);
  if (started_ || state_ != GS_THREAD_IDLE) return EINVAL;
  arg_ = arg;
  // RUNNING before the thread exists, so that a stop() right after start()
  // is not overwritten by the new thread.
  state_ = GS_THREAD_RUNNING;
  pthread_attr_t attr;
  int rc = pthread_attr_init(&attr);
  if (rc == 0) {
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    rc = pthread_create(&thread_, &attr, &GSThread::trampoline, this);
    pthread_attr_destroy(&attr);
  }
  if (rc != 0) {
    state_ = GS_THREAD_IDLE;
    return rc;
  }
  started_ = true;
  return 0;
}

int GSThread::stop() {
  velt::MutexLock hold(mu_);
  stopAsked_ = true;
  if (state_ != GS_THREAD_STOPPED) state_ = GS_THREAD_STOPPING;
  cv_.notifyAll();
  return 0;
}

int GSThread::join() {
  {
    velt::MutexLock hold(mu_);
    if (!started_) return EINVAL;
    if (tlsRunning == this) return EDEADLK;
    if (joinState_ != kNotJoined) {
      while (joinState_ != kJoined) cv_.wait(mu_);
      return 0;
    }
    joinState_ = kJoining;
  }
  int rc = pthread_join(thread_, nullptr);
  velt::MutexLock hold(mu_);
  joinState_ = rc == 0 ? kJoined : kNotJoined;
  cv_.notifyAll();
  return rc;
}

GSThreadState GSThread::getThreadState() const {
  velt::MutexLock hold(mu_);
  return state_;
}

int GSThread::pendingSyncEvents() const {
  velt::MutexLock hold(mu_);
  return static_cast<int>(events_.size());
}

int GSThread::waitersForTesting() const {
  velt::MutexLock hold(mu_);
  return waiters_;
}

int GSThread::postSyncEvent(int event) {
  velt::MutexLock hold(mu_);
  events_.push_back(event);
  // Each event needs one taker; a waiter that finds the queue empty again
  // goes back to sleep. Broadcast because join() waiters share the variable.
  cv_.notifyAll();
  return 0;
}

int GSThread::pushSyncEvent(int event) { return postSyncEvent(event); }

int GSThread::popSyncEvent(int* event) {
  velt::MutexLock hold(mu_);
  if (events_.empty()) return -1;
  if (event != nullptr) *event = events_.front();
  events_.pop_front();
  return 0;
}

int GSThread::waitSyncEvent(int* event, int secs) { return waitSyncEvent(event, secs, 0); }

int GSThread::waitSyncEvent(int* event, int secs, int usecs) {
  const bool limited = secs >= 0;
  std::chrono::steady_clock::time_point deadline;
  if (limited) {
    deadline = std::chrono::steady_clock::now() + std::chrono::seconds(secs) +
               std::chrono::microseconds(std::max(usecs, 0));
  }
  velt::MutexLock hold(mu_);
  ++waiters_;
  int rc;
  while (true) {
    if (!events_.empty()) {
      if (event != nullptr) *event = events_.front();
      events_.pop_front();
      rc = 0;
      break;
    }
    if (stopAsked_) {
      rc = -1;
      break;
    }
    if (!limited) {
      cv_.wait(mu_);
      continue;
    }
    if (!cv_.waitUntil(mu_, deadline)) {
      // An event that came with the time-out still counts.
      if (!events_.empty()) continue;
      rc = GS_WAIT_TIMEDOUT;
      break;
    }
  }
  --waiters_;
  return rc;
}

}  // namespace velt_gscl_V1

// GSThread: a real thread with a queue of integer sync events, the way the
// daemon's workers wake each other. Thread-safe: any thread may post; the
// thread itself (or whoever starts it) waits.
//
// Lifetime: run() is a virtual of the derived class, so the owner must make
// run() return (stop(), or an event run() understands) and join() before the
// derived object is destroyed; ~GSThread joins only as a last resort. A
// thread may also delete its own object as the last thing run() does (it
// is then detached instead of joined).
#ifndef VELT_PLATFORM_GSCL_GS_THREAD_H_
#define VELT_PLATFORM_GSCL_GS_THREAD_H_

#include <pthread.h>

#include <deque>

#include "gs_utils.h"
#include "velt_mutex.h"

namespace velt_gscl_V1 {

enum GSThreadState {
  GS_THREAD_IDLE = 0,       // constructed, not started
  GS_THREAD_RUNNING = 1,    // started, stop not asked
  GS_THREAD_STOPPING = 2,   // stop asked; run() should return
  GS_THREAD_STOPPED = 3,    // run() returned
};

// Returned by waitSyncEvent when its time limit ran out (ETIMEDOUT).
constexpr int GS_WAIT_TIMEDOUT = 110;

class GSThread : public GSObject {
 public:
  GSThread();
  ~GSThread() override;   // joins the thread when it was started and not joined
  GSThread(const GSThread&) = delete;
  GSThread& operator=(const GSThread&) = delete;

  // The thread body; its result is the thread's result.
  virtual void* run(void* arg) = 0;

  // Appends an event and wakes a waiter. Returns 0.
  virtual int postSyncEvent(int event);
  // Waits without limit for the next event (secs < 0) or at most secs
  // seconds (0: returns at once). The event is stored in *event when event
  // is not null. Returns 0 when an event was taken, GS_WAIT_TIMEDOUT (110)
  // when the time ran out, -1 when stop() was asked and no event is queued
  // (*event untouched). Queued events are still handed out after stop(), and
  // once stop() was asked a wait no longer blocks, so a stop that comes just
  // before the wait is never lost.
  virtual int waitSyncEvent(int* event, int secs);
  // As above with a limit of secs seconds plus usecs microseconds; secs < 0
  // waits without limit.
  virtual int waitSyncEvent(int* event, int secs, int usecs);
  // Takes the next event without waiting. Returns 0, or -1 when none.
  virtual int popSyncEvent(int* event);
  // Appends an event at the end of the queue (as post, used to put back
  // events taken by popSyncEvent). Returns 0.
  virtual int pushSyncEvent(int event);

  // Starts the thread (joinable) running run(arg). Returns 0, EINVAL when
  // the thread was started (or stopped) before, or pthread_create's error.
  int start(void* arg);
  // Asks the thread to stop: a running thread's state becomes
  // GS_THREAD_STOPPING (a thread never started also becomes STOPPING and can
  // no longer start; a STOPPED one stays STOPPED) and waiters are woken
  // (with no event). Returns 0.
  int stop();
  // Waits for run() to return. Returns 0 (also when already joined), EINVAL
  // when never started, EDEADLK when called by the thread itself.
  int join();
  GSThreadState getThreadState() const;
  // Number of events queued.
  int pendingSyncEvents() const;
  pthread_t getPthread() const { return thread_; }
  // Threads blocked in waitSyncEvent, so that tests can wait for that state.
  int waitersForTesting() const;

 private:
  static void* trampoline(void* self);

  // A second joiner waits for the first instead of returning before run()
  // ended.
  enum JoinState { kNotJoined, kJoining, kJoined };

  mutable velt::Mutex mu_;
  velt::CondVar cv_;   // an event, a stop, the end of run() or of a join
  std::deque<int> events_ GUARDED_BY(mu_);
  GSThreadState state_ GUARDED_BY(mu_) = GS_THREAD_IDLE;
  bool stopAsked_ GUARDED_BY(mu_) = false;
  int waiters_ GUARDED_BY(mu_) = 0;
  bool started_ GUARDED_BY(mu_) = false;
  JoinState joinState_ GUARDED_BY(mu_) = kNotJoined;
  void* arg_ = nullptr;             // written before the thread starts
  pthread_t thread_{};              // written before the thread starts
};

}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_GS_THREAD_H_

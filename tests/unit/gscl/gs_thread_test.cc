// Tests of GSThread: start and state, the sync-event queue, time limits and
// stop.
#include "gs_thread.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "gscl_test_util.h"

using namespace velt_gscl_V1;
using gscl_test::kBound;
using gscl_test::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

// Records the events it is woken with until stop() releases it or it gets
// event kQuit; returns its argument.
class RecordingThread : public GSThread {
 public:
  static constexpr int kQuit = 99;
  // The owner's duty: run() returns before the object goes away.
  ~RecordingThread() override {
    stop();
    join();
  }

  void* run(void* arg) override {
    ranOn_ = GSThreadSelfId();
    while (true) {
      int event = -12345;
      int rc = waitSyncEvent(&event, -1);
      if (rc != 0) {
        lastRc_ = rc;
        break;
      }
      if (event == kQuit) break;
      std::lock_guard<std::mutex> g(mu_);
      events_.push_back(event);
    }
    finished_ = true;
    return arg;
  }

  std::vector<int> events() {
    std::lock_guard<std::mutex> g(mu_);
    return events_;
  }

  std::atomic<bool> finished_{false};
  std::atomic<int> lastRc_{0};
  std::atomic<unsigned long> ranOn_{0};

 private:
  std::mutex mu_;
  std::vector<int> events_;
};

// A thread object used only for its queue; its body returns at once.
class QueueOnly : public GSThread {
 public:
  void* run(void*) override { return nullptr; }
};

// Sets a flag when its body returns, after waiting for one event.
class FlagThread : public GSThread {
 public:
  explicit FlagThread(std::atomic<bool>* done) : done_(done) {}
  void* run(void*) override {
    waitSyncEvent(nullptr, -1);
    *done_ = true;
    return nullptr;
  }
 private:
  std::atomic<bool>* done_;
};

}  // namespace

TEST(GSThreadLifecycle, RunsOnItsOwnThreadAndEndsStopped) {
  RecordingThread t;
  EXPECT_EQ(GS_THREAD_IDLE, t.getThreadState());
  int arg = 7;
  ASSERT_EQ(0, t.start(&arg));
  EXPECT_EQ(GS_THREAD_RUNNING, t.getThreadState());
  ASSERT_TRUE(waitUntil([&] { return t.ranOn_.load() != 0; }));
  EXPECT_NE(GSThreadSelfId(), t.ranOn_.load());
  EXPECT_EQ(0, t.postSyncEvent(RecordingThread::kQuit));
  EXPECT_EQ(0, t.join());
  EXPECT_TRUE(t.finished_);
  EXPECT_EQ(GS_THREAD_STOPPED, t.getThreadState());
  EXPECT_EQ(0, t.join());   // a second join has nothing left to wait for
}

TEST(GSThreadLifecycle, StartsOnlyOnce) {
  RecordingThread t;
  ASSERT_EQ(0, t.start(nullptr));
  EXPECT_EQ(EINVAL, t.start(nullptr));
  t.stop();
  EXPECT_EQ(0, t.join());
  EXPECT_EQ(EINVAL, t.start(nullptr));
}

TEST(GSThreadLifecycle, JoinBeforeStartIsRefused) {
  QueueOnly t;
  EXPECT_EQ(EINVAL, t.join());
}

TEST(GSThreadLifecycle, StopMakesTheRunningThreadReturn) {
  RecordingThread t;
  ASSERT_EQ(0, t.start(nullptr));
  ASSERT_TRUE(waitUntil([&] { return t.waitersForTesting() == 1; }));
  EXPECT_EQ(0, t.stop());
  ASSERT_TRUE(waitUntil([&] { return t.getThreadState() == GS_THREAD_STOPPED; }));
  EXPECT_EQ(0, t.join());
  EXPECT_EQ(-1, t.lastRc_.load());
  EXPECT_TRUE(t.events().empty());
}

TEST(GSThreadLifecycle, StopBeforeStartPreventsStarting) {
  QueueOnly t;
  EXPECT_EQ(0, t.stop());
  EXPECT_EQ(GS_THREAD_STOPPING, t.getThreadState());
  EXPECT_EQ(EINVAL, t.start(nullptr));
}

TEST(GSThreadLifecycle, DestructorJoinsAThreadWhoseRunReturned) {
  // The owner's duty: run() has returned before the object goes away (the
  // derived part of the object dies first). The destructor then only has
  // the join left to do.
  std::atomic<bool> done{false};
  auto destroyed = std::async(std::launch::async, [&] {
    FlagThread t(&done);
    EXPECT_EQ(0, t.start(nullptr));
    t.postSyncEvent(1);
    EXPECT_TRUE(waitUntil([&] { return t.getThreadState() == GS_THREAD_STOPPED; }));
  });
  ASSERT_EQ(std::future_status::ready, destroyed.wait_for(kBound));
  destroyed.get();
  EXPECT_TRUE(done);
}

TEST(GSThreadLifecycle, DestructorAfterJoinDoesNotJoinAgain) {
  std::atomic<bool> done{false};
  auto destroyed = std::async(std::launch::async, [&] {
    FlagThread t(&done);
    EXPECT_EQ(0, t.start(nullptr));
    t.postSyncEvent(1);
    EXPECT_EQ(0, t.join());
  });
  ASSERT_EQ(std::future_status::ready, destroyed.wait_for(kBound));
  destroyed.get();
  EXPECT_TRUE(done);
}

namespace {

// Deletes its own object as the last thing its body does.
class SelfDeletingThread : public GSThread {
 public:
  SelfDeletingThread(std::atomic<unsigned long>* tid, std::atomic<bool>* deleted)
      : tid_(tid), deleted_(deleted) {}
  ~SelfDeletingThread() override { *deleted_ = true; }
  void* run(void*) override {
    *tid_ = GSThreadSelfId();
    waitSyncEvent(nullptr, -1);
    delete this;
    return nullptr;
  }
 private:
  std::atomic<unsigned long>* tid_;
  std::atomic<bool>* deleted_;
};

bool threadGone(unsigned long tid) {
  std::string path = "/proc/self/task/" + std::to_string(tid);
  return access(path.c_str(), F_OK) != 0;
}

}  // namespace

TEST(GSThreadLifecycle, RunMayDeleteItsOwnObject) {
  std::atomic<unsigned long> tid{0};
  std::atomic<bool> deleted{false};
  SelfDeletingThread* t = new SelfDeletingThread(&tid, &deleted);
  ASSERT_EQ(0, t->start(nullptr));
  ASSERT_TRUE(waitUntil([&] { return tid.load() != 0; }));
  t->postSyncEvent(1);
  ASSERT_TRUE(waitUntil([&] { return deleted.load(); }));
  // The thread ends on its own (detached) without touching the freed
  // object; a sanitizer build reports it if it does.
  EXPECT_TRUE(waitUntil([&] { return threadGone(tid.load()); }));
}

TEST(GSThreadLifecycle, ConcurrentJoinersBothWaitForRunToReturn) {
  std::atomic<bool> done{false};
  FlagThread t(&done);
  ASSERT_EQ(0, t.start(nullptr));
  auto first = std::async(std::launch::async, [&] { return t.join(); });
  auto second = std::async(std::launch::async, [&] {
    int rc = t.join();
    return rc == 0 && done.load();   // run() must have returned by now
  });
  ASSERT_TRUE(waitUntil([&] { return t.waitersForTesting() == 1; }));
  t.postSyncEvent(1);
  ASSERT_EQ(std::future_status::ready, first.wait_for(kBound));
  ASSERT_EQ(std::future_status::ready, second.wait_for(kBound));
  EXPECT_EQ(0, first.get());
  EXPECT_TRUE(second.get());
}

TEST(GSThreadEvents, ArePassedInPostingOrder) {
  RecordingThread t;
  ASSERT_EQ(0, t.start(nullptr));
  for (int e = 1; e <= 50; ++e) ASSERT_EQ(0, t.postSyncEvent(e));
  ASSERT_EQ(0, t.postSyncEvent(RecordingThread::kQuit));
  ASSERT_EQ(0, t.join());
  std::vector<int> expected;
  for (int e = 1; e <= 50; ++e) expected.push_back(e);
  EXPECT_EQ(expected, t.events());
}

TEST(GSThreadEvents, QueuedEventIsTakenWithoutWaiting) {
  QueueOnly t;
  t.postSyncEvent(4);
  t.postSyncEvent(5);
  EXPECT_EQ(2, t.pendingSyncEvents());
  int e = 0;
  auto before = Clock::now();
  EXPECT_EQ(0, t.waitSyncEvent(&e, 10));
  EXPECT_EQ(4, e);
  EXPECT_EQ(0, t.waitSyncEvent(&e, -1));
  EXPECT_EQ(5, e);
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(1));
  EXPECT_EQ(0, t.pendingSyncEvents());
}

TEST(GSThreadEvents, NullEventPointerStillTakesTheEvent) {
  QueueOnly t;
  t.postSyncEvent(1);
  EXPECT_EQ(0, t.waitSyncEvent(nullptr, 0));
  EXPECT_EQ(0, t.pendingSyncEvents());
}

TEST(GSThreadEvents, PostFromAnotherThreadWakesTheWaiter) {
  QueueOnly t;
  auto poster = std::async(std::launch::async, [&] {
    EXPECT_TRUE(waitUntil([&] { return t.waitersForTesting() == 1; }));
    t.postSyncEvent(42);
  });
  int e = 0;
  EXPECT_EQ(0, t.waitSyncEvent(&e, 30));
  EXPECT_EQ(42, e);
  poster.get();
}

TEST(GSThreadEvents, PopAndPushKeepQueueOrder) {
  QueueOnly t;
  int e = -7;
  EXPECT_EQ(-1, t.popSyncEvent(&e));
  EXPECT_EQ(-7, e);
  t.postSyncEvent(1);
  t.postSyncEvent(2);
  t.postSyncEvent(3);
  EXPECT_EQ(0, t.popSyncEvent(&e));
  EXPECT_EQ(1, e);
  // Put the taken event back: it goes to the end.
  EXPECT_EQ(0, t.pushSyncEvent(e));
  std::vector<int> order;
  while (t.popSyncEvent(&e) == 0) order.push_back(e);
  EXPECT_EQ((std::vector<int>{2, 3, 1}), order);
  EXPECT_EQ(0, t.pendingSyncEvents());
}

TEST(GSThreadTimeLimit, ZeroLimitReturnsAtOnce) {
  QueueOnly t;
  int e = -3;
  auto before = Clock::now();
  EXPECT_EQ(GS_WAIT_TIMEDOUT, t.waitSyncEvent(&e, 0));
  EXPECT_EQ(GS_WAIT_TIMEDOUT, t.waitSyncEvent(&e, 0, 0));
  EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(500));
  EXPECT_EQ(-3, e);   // untouched
}

TEST(GSThreadTimeLimit, ReturnsTimedOutAfterTheLimit) {
  QueueOnly t;
  int e = -3;
  auto before = Clock::now();
  EXPECT_EQ(110, t.waitSyncEvent(&e, 0, 200000));
  auto took = Clock::now() - before;
  EXPECT_GE(took, std::chrono::milliseconds(195));
  EXPECT_LT(took, std::chrono::seconds(3));
  EXPECT_EQ(-3, e);
}

TEST(GSThreadTimeLimit, WholeSecondsCount) {
  QueueOnly t;
  auto before = Clock::now();
  EXPECT_EQ(GS_WAIT_TIMEDOUT, t.waitSyncEvent(nullptr, 1));
  auto took = Clock::now() - before;
  EXPECT_GE(took, std::chrono::milliseconds(990));
  EXPECT_LT(took, std::chrono::seconds(4));
}

TEST(GSThreadTimeLimit, MicrosecondsAboveOneSecondCarry) {
  QueueOnly t;
  auto before = Clock::now();
  EXPECT_EQ(GS_WAIT_TIMEDOUT, t.waitSyncEvent(nullptr, 0, 1100000));
  auto took = Clock::now() - before;
  EXPECT_GE(took, std::chrono::milliseconds(1090));
  EXPECT_LT(took, std::chrono::seconds(4));
}

TEST(GSThreadStop, ReleasesAWaiterWithoutLimit) {
  QueueOnly t;
  int e = -5;
  auto waiter = std::async(std::launch::async, [&] { return t.waitSyncEvent(&e, -1); });
  gscl_test::OnScopeExit release([&] { t.stop(); });
  ASSERT_TRUE(waitUntil([&] { return t.waitersForTesting() == 1; }));
  t.stop();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(kBound));
  EXPECT_EQ(-1, waiter.get());
  EXPECT_EQ(-5, e);
}

TEST(GSThreadStop, ReleasesAWaiterWithALimitBeforeItRunsOut) {
  QueueOnly t;
  auto before = Clock::now();
  auto waiter = std::async(std::launch::async, [&] { return t.waitSyncEvent(nullptr, 60); });
  gscl_test::OnScopeExit release([&] { t.stop(); });
  ASSERT_TRUE(waitUntil([&] { return t.waitersForTesting() == 1; }));
  t.stop();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(kBound));
  EXPECT_EQ(-1, waiter.get());
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(30));
}

TEST(GSThreadStop, LaterWaitsDoNotBlockButQueuedEventsStillCome) {
  QueueOnly t;
  t.postSyncEvent(8);
  t.stop();
  int e = 0;
  EXPECT_EQ(0, t.waitSyncEvent(&e, -1));
  EXPECT_EQ(8, e);
  auto before = Clock::now();
  EXPECT_EQ(-1, t.waitSyncEvent(&e, -1));
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(1));
}

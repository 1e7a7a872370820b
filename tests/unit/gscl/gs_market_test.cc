// Tests of GSMarket: order, blocking, time limits, stop and resume.
#include "gs_market.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include "gscl_test_util.h"

using namespace velt_gscl_V1;
using gscl_test::kBound;
using gscl_test::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

class Item : public GSObject {
 public:
  explicit Item(int v, std::atomic<int>* deleted = nullptr) : value(v), deleted_(deleted) {}
  ~Item() override {
    if (deleted_ != nullptr) ++*deleted_;
  }
  int value;
 private:
  std::atomic<int>* deleted_;
};

struct timespec monotonicIn(std::chrono::milliseconds d) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  long long ns = static_cast<long long>(t.tv_nsec) + d.count() * 1000000LL;
  t.tv_sec += ns / 1000000000LL;
  t.tv_nsec = ns % 1000000000LL;
  return t;
}

struct timespec monotonicPast() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec -= 1;
  return t;
}

int valueOf(GSObject* obj) {
  std::unique_ptr<GSObject> owned(obj);
  Item* item = dynamic_cast<Item*>(obj);
  return item != nullptr ? item->value : -1;
}

}  // namespace

TEST(GSMarketOrder, ConsumesInProducingOrder) {
  GSMarket m;
  EXPECT_TRUE(m.isRunning());
  for (int i = 0; i < 5; ++i) ASSERT_EQ(0, m.produce(new Item(i)));
  EXPECT_EQ(5, m.queueCount());
  struct timespec past = monotonicPast();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(i, valueOf(m.consume(&past)));
  EXPECT_EQ(0, m.queueCount());
  EXPECT_EQ(nullptr, m.consume(&past));
}

TEST(GSMarketOrder, ProducedAcrossThreadsArriveCompleteAndInOrder) {
  GSMarket m;
  constexpr int kItems = 2000;
  auto producer = std::async(std::launch::async, [&] {
    for (int i = 0; i < kItems; ++i) EXPECT_EQ(0, m.produce(new Item(i)));
  });
  std::vector<int> got;
  while (static_cast<int>(got.size()) < kItems) {
    struct timespec deadline = monotonicIn(kBound);
    GSObject* obj = m.consume(&deadline);
    ASSERT_NE(nullptr, obj) << "after " << got.size() << " items";
    got.push_back(valueOf(obj));
  }
  producer.get();
  for (int i = 0; i < kItems; ++i) ASSERT_EQ(i, got[i]);
}

TEST(GSMarketOrder, ManyConsumersShareTheWorkWithoutLossOrDuplicates) {
  GSMarket m;
  constexpr int kItems = 3000, kConsumers = 3;
  std::vector<std::future<std::vector<int>>> consumers;
  for (int c = 0; c < kConsumers; ++c) {
    consumers.push_back(std::async(std::launch::async, [&] {
      std::vector<int> mine;
      while (GSObject* obj = m.consume(nullptr)) mine.push_back(valueOf(obj));
      return mine;   // null: the market was stopped
    }));
  }
  gscl_test::OnScopeExit release([&] { m.stopMarket(); });
  for (int i = 0; i < kItems; ++i) ASSERT_EQ(0, m.produce(new Item(i)));
  ASSERT_TRUE(waitUntil([&] { return m.queueCount() == 0; }));
  m.stopMarket();
  std::vector<int> seen(kItems, 0);
  for (auto& f : consumers) {
    ASSERT_EQ(std::future_status::ready, f.wait_for(kBound));
    std::vector<int> mine = f.get();
    for (size_t k = 1; k < mine.size(); ++k) EXPECT_LT(mine[k - 1], mine[k]);
    for (int v : mine) ++seen[v];
  }
  for (int i = 0; i < kItems; ++i) ASSERT_EQ(1, seen[i]) << i;
}

TEST(GSMarketWait, BlockedConsumerGetsTheNextProducedObject) {
  GSMarket m;
  auto consumer = std::async(std::launch::async, [&] { return valueOf(m.consume(nullptr)); });
  gscl_test::OnScopeExit release([&] { m.stopMarket(); });
  ASSERT_TRUE(waitUntil([&] { return m.waitingConsumersForTesting() == 1; }));
  ASSERT_EQ(0, m.produce(new Item(17)));
  ASSERT_EQ(std::future_status::ready, consumer.wait_for(kBound));
  EXPECT_EQ(17, consumer.get());
}

TEST(GSMarketWait, DeadlineEndsTheWait) {
  GSMarket m;
  auto before = Clock::now();
  struct timespec deadline = monotonicIn(std::chrono::milliseconds(150));
  EXPECT_EQ(nullptr, m.consume(&deadline));
  auto took = Clock::now() - before;
  EXPECT_GE(took, std::chrono::milliseconds(145));
  EXPECT_LT(took, std::chrono::seconds(3));
}

TEST(GSMarketWait, DeadlineWithNanosecondsOutOfRangeIsCarried) {
  GSMarket m;
  // 150 ms from now, written as one second less and 1.15 s of nanoseconds.
  struct timespec deadline = monotonicIn(std::chrono::milliseconds(0));
  deadline.tv_sec -= 1;
  deadline.tv_nsec += 1150000000L;
  auto before = Clock::now();
  EXPECT_EQ(nullptr, m.consume(&deadline));
  auto took = Clock::now() - before;
  EXPECT_GE(took, std::chrono::milliseconds(145));
  EXPECT_LT(took, std::chrono::seconds(3));
}

TEST(GSMarketWait, TryConsumeNeverWaits) {
  GSMarket m;
  EXPECT_EQ(nullptr, m.tryConsume());
  m.produce(new Item(1));
  EXPECT_EQ(1, valueOf(m.tryConsume()));
}

TEST(GSMarketStop, ReleasesABlockedConsumer) {
  GSMarket m;
  auto consumer = std::async(std::launch::async, [&] { return m.consume(nullptr); });
  gscl_test::OnScopeExit release([&] { m.stopMarket(); });
  ASSERT_TRUE(waitUntil([&] { return m.waitingConsumersForTesting() == 1; }));
  EXPECT_EQ(0, m.stopMarket());
  ASSERT_EQ(std::future_status::ready, consumer.wait_for(kBound));
  EXPECT_EQ(nullptr, consumer.get());
  EXPECT_FALSE(m.isRunning());
}

TEST(GSMarketStop, ReleasesAConsumerWithAFarDeadline) {
  GSMarket m;
  struct timespec deadline = monotonicIn(std::chrono::seconds(60));
  auto consumer = std::async(std::launch::async, [&] { return m.consume(&deadline); });
  gscl_test::OnScopeExit release([&] { m.stopMarket(); });
  ASSERT_TRUE(waitUntil([&] { return m.waitingConsumersForTesting() == 1; }));
  m.stopMarket();
  ASSERT_EQ(std::future_status::ready, consumer.wait_for(kBound));
  EXPECT_EQ(nullptr, consumer.get());
}

TEST(GSMarketStop, RefusesProducersAndTheObjectStaysTheirs) {
  GSMarket m;
  std::atomic<int> deleted{0};
  m.stopMarket();
  Item* item = new Item(3, &deleted);
  EXPECT_EQ(-1, m.produce(item));
  EXPECT_EQ(0, m.queueCount());
  EXPECT_EQ(0, deleted.load());
  delete item;
  EXPECT_EQ(1, deleted.load());
  EXPECT_EQ(-1, m.produce(nullptr));
}

TEST(GSMarketStop, QueuedObjectsWaitForADrainOrAResume) {
  GSMarket m;
  m.produce(new Item(1));
  m.produce(new Item(2));
  m.stopMarket();
  // A waiting consume gets nothing from a stopped market...
  EXPECT_EQ(nullptr, m.consume(nullptr));
  struct timespec future = monotonicIn(std::chrono::seconds(10));
  EXPECT_EQ(nullptr, m.consume(&future));
  EXPECT_EQ(2, m.queueCount());
  // ...a draining one (deadline already past) does.
  struct timespec past = monotonicPast();
  EXPECT_EQ(1, valueOf(m.consume(&past)));
  EXPECT_EQ(1, m.queueCount());
  // Resumed, the rest is handed out as usual.
  EXPECT_EQ(0, m.resumeMarket());
  EXPECT_TRUE(m.isRunning());
  EXPECT_EQ(2, valueOf(m.consume(nullptr)));
  EXPECT_EQ(0, m.produce(new Item(3)));
  EXPECT_EQ(3, valueOf(m.consume(&past)));
}

TEST(GSMarketStop, ResumedMarketBlocksConsumersAgain) {
  GSMarket m;
  m.stopMarket();
  m.resumeMarket();
  auto consumer = std::async(std::launch::async, [&] { return valueOf(m.consume(nullptr)); });
  gscl_test::OnScopeExit release([&] { m.stopMarket(); });
  ASSERT_TRUE(waitUntil([&] { return m.waitingConsumersForTesting() == 1; }));
  m.produce(new Item(9));
  ASSERT_EQ(std::future_status::ready, consumer.wait_for(kBound));
  EXPECT_EQ(9, consumer.get());
}

TEST(GSMarketLifetime, DestructorDeletesWhatIsStillQueued) {
  std::atomic<int> deleted{0};
  {
    GSMarket m;
    m.produce(new Item(1, &deleted));
    m.produce(new Item(2, &deleted));
    m.stopMarket();
  }
  EXPECT_EQ(2, deleted.load());
}

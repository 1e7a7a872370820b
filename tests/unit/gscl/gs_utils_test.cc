// Tests of the client library's utility classes and return-code names.
#include "gs_utils.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "gs_types.h"
#include "gscl_test_util.h"

using namespace velt_gscl_V1;
using gscl_test::kBound;
using gscl_test::waitUntil;

namespace {

// A negative check ("this has not happened") can only look for a while;
// long enough that a broken lock would usually show itself.
constexpr std::chrono::milliseconds kStillBlocked{50};

// The lock tests below take holds that the locks allow and clang's
// analysis cannot follow: nested in one function, kept across a check that
// may end the test, or left to a death. The test bodies take them through
// these calls, which the analysis leaves alone.
template <typename Lock>
void takeRead(Lock& l) NO_THREAD_SAFETY_ANALYSIS {
  l.readLock();
}
template <typename Lock>
void takeWrite(Lock& l) NO_THREAD_SAFETY_ANALYSIS {
  l.writeLock();
}
template <typename Lock>
void giveBack(Lock& l) NO_THREAD_SAFETY_ANALYSIS {
  l.unlock();
}

}  // namespace

// ---- return-code names ----

TEST(GsclRcName, KnownCodesHaveTheirEnumName) {
  EXPECT_STREQ("TK_GS_OK", gscl_rc_name(TK_GS_OK));
  EXPECT_STREQ("TK_GS_NOT_OK", gscl_rc_name(TK_GS_NOT_OK));
  EXPECT_STREQ("TK_GS_NOT_CONNECTED", gscl_rc_name(TK_GS_NOT_CONNECTED));
  EXPECT_STREQ("TK_GS_GS_HAS_DIED", gscl_rc_name(TK_GS_GS_HAS_DIED));
  EXPECT_STREQ("TK_GS_NO_NOTIFICATION", gscl_rc_name(TK_GS_NO_NOTIFICATION));
  EXPECT_STREQ("TK_GS_NOT_SUPPORTED", gscl_rc_name(TK_GS_NOT_SUPPORTED));
  EXPECT_STREQ("TK_GS_BACKLEVEL_PROVIDERS", gscl_rc_name(TK_GS_BACKLEVEL_PROVIDERS));
}

TEST(GsclRcName, EveryCodeOfTheEnumIsNamed) {
  for (int rc = TK_GS_OK; rc <= TK_GS_BACKLEVEL_PROVIDERS; ++rc) {
    std::string name = gscl_rc_name(rc);
    EXPECT_EQ(0u, name.rfind("TK_GS_", 0)) << rc;
    EXPECT_EQ(std::string::npos, name.find("UNKNOWN_RC")) << rc;
  }
}

TEST(GsclRcName, UnknownCodesShowTheirNumber) {
  EXPECT_STREQ("TK_GS_UNKNOWN_RC(27)", gscl_rc_name(27));
  EXPECT_STREQ("TK_GS_UNKNOWN_RC(-1)", gscl_rc_name(-1));
  EXPECT_STREQ("TK_GS_UNKNOWN_RC(-2147483648)", gscl_rc_name(INT32_MIN));
}

TEST(GsclRcName, UnknownTextIsPerThread) {
  const char* mine = gscl_rc_name(1000);
  std::string other;
  std::thread t([&] { other = gscl_rc_name(2000); });
  t.join();
  EXPECT_STREQ("TK_GS_UNKNOWN_RC(1000)", mine);
  EXPECT_EQ("TK_GS_UNKNOWN_RC(2000)", other);
}

// ---- thread ids ----

TEST(GSThreadSelfId, IsTheKernelThreadId) {
  EXPECT_EQ(static_cast<unsigned long>(syscall(SYS_gettid)), GSThreadSelfId());
  unsigned long other = 0;
  std::thread t([&] { other = GSThreadSelfId(); });
  t.join();
  EXPECT_NE(0u, other);
  EXPECT_NE(GSThreadSelfId(), other);
}

// ---- GSRWLock ----

TEST(GSRWLock, ReadersShareWritersExclude) {
  GSRWLock lock;
  takeRead(lock);
  // A second reader gets in while the first holds.
  auto reader = std::async(std::launch::async, [&] { lock.readLock(); lock.unlock(); });
  ASSERT_EQ(std::future_status::ready, reader.wait_for(kBound));
  // A writer does not.
  std::atomic<bool> wrote{false};
  auto writer = std::async(std::launch::async, [&] {
    lock.writeLock();
    wrote = true;
    lock.unlock();
  });
  EXPECT_EQ(std::future_status::timeout, writer.wait_for(kStillBlocked));
  EXPECT_FALSE(wrote);
  giveBack(lock);
  ASSERT_EQ(std::future_status::ready, writer.wait_for(kBound));
  EXPECT_TRUE(wrote);
}

// ---- GSLockableObject ----

TEST(GSLockableObject, WriterMayNestWriteAndReadHolds) {
  GSLockableObject lock;
  EXPECT_FALSE(lock.isWriteLockedByMe());
  takeWrite(lock);
  takeWrite(lock);
  takeRead(lock);
  EXPECT_TRUE(lock.isWriteLockedByMe());
  giveBack(lock);
  EXPECT_TRUE(lock.isWriteLockedByMe());
  giveBack(lock);
  EXPECT_TRUE(lock.isWriteLockedByMe());
  // Another thread cannot read while one hold is left.
  std::atomic<bool> read{false};
  auto reader = std::async(std::launch::async, [&] {
    lock.readLock();
    read = true;
    lock.unlock();
  });
  EXPECT_EQ(std::future_status::timeout, reader.wait_for(kStillBlocked));
  EXPECT_FALSE(read);
  giveBack(lock);
  EXPECT_FALSE(lock.isWriteLockedByMe());
  ASSERT_EQ(std::future_status::ready, reader.wait_for(kBound));
  EXPECT_TRUE(read);
}

TEST(GSLockableObject, WriteLockIsNotSeenAsMineByOtherThreads) {
  GSLockableObject lock;
  GSWriteGuard hold(lock);
  bool otherSees = true;
  std::thread t([&] { otherSees = lock.isWriteLockedByMe(); });
  t.join();
  EXPECT_FALSE(otherSees);
  EXPECT_TRUE(lock.isWriteLockedByMe());
}

TEST(GSLockableObject, ReadersShare) {
  GSLockableObject lock;
  GSReadGuard hold(lock);
  auto reader = std::async(std::launch::async, [&] { GSReadGuard h(lock); });
  EXPECT_EQ(std::future_status::ready, reader.wait_for(kBound));
}

TEST(GSLockableObject, WaitingWriterGoesBeforeNewReaders) {
  GSLockableObject lock;
  std::mutex orderMu;
  std::vector<std::string> order;
  auto note = [&](const char* who) {
    std::lock_guard<std::mutex> g(orderMu);
    order.push_back(who);
  };

  takeRead(lock);
  auto writer = std::async(std::launch::async, [&] {
    lock.writeLock();
    note("writer");
    lock.unlock();
  });
  ASSERT_TRUE(waitUntil([&] { return lock.waitingWritersForTesting() == 1; }));
  auto lateReader = std::async(std::launch::async, [&] {
    lock.readLock();
    note("reader");
    lock.unlock();
  });
  // The late reader queues behind the writer instead of joining our hold.
  EXPECT_EQ(std::future_status::timeout, lateReader.wait_for(kStillBlocked));
  giveBack(lock);
  ASSERT_EQ(std::future_status::ready, writer.wait_for(kBound));
  ASSERT_EQ(std::future_status::ready, lateReader.wait_for(kBound));
  ASSERT_EQ(2u, order.size());
  EXPECT_EQ("writer", order[0]);
  EXPECT_EQ("reader", order[1]);
}

TEST(GSLockableObject, NestedReadIsGrantedWhileAWriterWaits) {
  GSLockableObject lock;
  takeRead(lock);
  auto writer = std::async(std::launch::async, [&] { GSWriteGuard h(lock); });
  ASSERT_TRUE(waitUntil([&] { return lock.waitingWritersForTesting() == 1; }));
  // Waiting here would deadlock: the writer waits for our first hold.
  takeRead(lock);
  giveBack(lock);
  EXPECT_EQ(std::future_status::timeout, writer.wait_for(std::chrono::milliseconds(0)));
  giveBack(lock);
  EXPECT_EQ(std::future_status::ready, writer.wait_for(kBound));
}

TEST(GSLockableObjectDeathTest, UpgradingAReadHoldEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        GSLockableObject lock;
        takeRead(lock);
        takeWrite(lock);
      },
      "holds a read lock");
}

TEST(GSLockableObjectDeathTest, UnlockWithoutHoldEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        GSLockableObject lock;
        giveBack(lock);
      },
      "holds no lock");
}

TEST(GSLockableObject, ConcurrentReadersAndWritersKeepTheInvariant) {
  // Writers move one unit between two counters in two steps; a reader that
  // ever sees a half-done move, or a writer that meets anybody inside,
  // means the lock let two parties in at once.
  GSLockableObject lock;
  long left = 1000000, right = 0;
  std::atomic<int> readersIn{0}, writersIn{0};
  std::atomic<int> violations{0};
  std::atomic<long> reads{0};
  constexpr int kWriters = 3, kReaders = 4, kMovesPerWriter = 3000, kReadsPerReader = 6000;

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    // Nested holds on purpose: the analysis knows one hold per function.
    threads.emplace_back([&]() NO_THREAD_SAFETY_ANALYSIS {
      for (int i = 0; i < kMovesPerWriter; ++i) {
        GSWriteGuard outer(lock);
        if (writersIn.fetch_add(1) != 0 || readersIn.load() != 0) ++violations;
        --left;
        {
          GSWriteGuard nested(lock);   // re-entrant write inside the move
          GSReadGuard nestedRead(lock);
          ++right;
        }
        writersIn.fetch_sub(1);
      }
    });
  }
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&]() NO_THREAD_SAFETY_ANALYSIS {
      for (int i = 0; i < kReadsPerReader; ++i) {
        GSReadGuard hold(lock);
        readersIn.fetch_add(1);
        if (writersIn.load() != 0 || left + right != 1000000) ++violations;
        if (i % 7 == 0) {
          GSReadGuard nested(lock);
          if (left + right != 1000000) ++violations;
        }
        ++reads;
        readersIn.fetch_sub(1);
      }
    });
  }
  for (std::thread& t : threads) t.join();

  EXPECT_EQ(0, violations.load());
  EXPECT_EQ(kWriters * kMovesPerWriter, right);
  EXPECT_EQ(1000000 - kWriters * kMovesPerWriter, left);
  EXPECT_EQ(static_cast<long>(kReaders) * kReadsPerReader, reads.load());
  EXPECT_EQ(0, lock.waitingWritersForTesting());
}

// ---- GSSafeInteger, GSLocalVar ----

TEST(GSSafeInteger, CountsFromManyThreads) {
  GSSafeInteger n(5);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) n.inc();
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(40005, n.get());
  EXPECT_EQ(40004, n.dec());
  EXPECT_EQ(40014, n.add(10));
  n = 1;
  EXPECT_EQ(1, static_cast<int>(n));
}

TEST(GSLocalVar, IsZeroFilledAndSized) {
  GSLocalVar<int> buf(16);
  ASSERT_NE(nullptr, buf.ptr());
  EXPECT_EQ(16u, buf.count());
  for (size_t i = 0; i < buf.count(); ++i) EXPECT_EQ(0, buf.ptr()[i]);
  GSLocalVar<char> none(0);
  EXPECT_EQ(nullptr, none.ptr());
}

// ---- GSString ----

TEST(GSString, FormatReplacesTheText) {
  GSString s("old");
  EXPECT_EQ(8, s.format("%s=%d", "count", 42));
  EXPECT_STREQ("count=42", s.c_str());
  EXPECT_EQ(8u, s.length());
  EXPECT_TRUE(s == "count=42");
}

TEST(GSString, FormatsTextLongerThanItsFirstBuffer) {
  GSString s;
  std::string big(1000, 'x');
  EXPECT_EQ(1003, s.format("<%s>!", big.c_str()));
  EXPECT_EQ("<" + big + ">!", std::string(s.c_str()));
}

TEST(GSString, NullCountsAsEmpty) {
  GSString s(nullptr);
  EXPECT_TRUE(s.empty());
  EXPECT_TRUE(s == nullptr);
  s = "a";
  s.append(nullptr);
  s.append("b");
  EXPECT_STREQ("ab", s);
  EXPECT_TRUE(s != "a");
  EXPECT_TRUE(s == GSString("ab"));
}

// ---- GSBitSet ----

TEST(GSBitSet, SetClearTestAndCount) {
  GSBitSet b(130);
  EXPECT_EQ(130u, b.size());
  EXPECT_EQ(0u, b.count());
  b.set(0);
  b.set(63);
  b.set(64);
  b.set(129);
  b.set(130);     // out of range: ignored
  b.set(100000);  // likewise
  EXPECT_TRUE(b.test(0));
  EXPECT_TRUE(b.test(63));
  EXPECT_TRUE(b.test(64));
  EXPECT_TRUE(b.test(129));
  EXPECT_FALSE(b.test(1));
  EXPECT_FALSE(b.test(130));
  EXPECT_EQ(4u, b.count());
  b.clear(63);
  b.clear(5000);
  EXPECT_FALSE(b.test(63));
  EXPECT_EQ(3u, b.count());
  b.clearAll();
  EXPECT_EQ(0u, b.count());
  EXPECT_EQ(130u, b.size());
}

TEST(GSBitSet, NextSetWalksTheSetBits) {
  GSBitSet b(200);
  for (size_t i : {3u, 64u, 65u, 199u}) b.set(i);
  std::vector<long> seen;
  for (long i = b.nextSet(0); i >= 0; i = b.nextSet(static_cast<size_t>(i) + 1)) seen.push_back(i);
  EXPECT_EQ((std::vector<long>{3, 64, 65, 199}), seen);
  EXPECT_EQ(64, b.nextSet(4));
  EXPECT_EQ(199, b.nextSet(199));
  EXPECT_EQ(-1, b.nextSet(200));
  EXPECT_EQ(-1, GSBitSet(0).nextSet(0));
  EXPECT_EQ(-1, GSBitSet(10).nextSet(0));
}

TEST(GSBitSet, ShrinkingForgetsTheBitsThatNoLongerFit) {
  GSBitSet b(128);
  b.set(5);
  b.set(70);
  b.set(127);
  b.resize(70);
  EXPECT_EQ(70u, b.size());
  EXPECT_EQ(1u, b.count());
  EXPECT_EQ(-1, b.nextSet(6));
  b.resize(128);   // growing again brings nothing back
  EXPECT_TRUE(b.test(5));
  EXPECT_FALSE(b.test(70));
  EXPECT_FALSE(b.test(127));
  EXPECT_EQ(1u, b.count());
  b.set(127);
  EXPECT_EQ(127, b.nextSet(6));
}

// ---- GSMembershipList ----

TEST(GSMembershipList, KeepsOrderAndRefusesDuplicates) {
  GSMembershipList l;
  EXPECT_TRUE(l.add(gsMakeProvider(3, 0)));
  EXPECT_TRUE(l.add(gsMakeProvider(1, 2)));
  EXPECT_TRUE(l.add(gsMakeProvider(2, 0)));
  EXPECT_FALSE(l.add(gsMakeProvider(1, 2)));
  ASSERT_EQ(3u, l.count());
  EXPECT_EQ(3, l[0].gs_provider_fields.gs_node_number);
  EXPECT_EQ(1, l[1].gs_provider_fields.gs_node_number);
  EXPECT_EQ(2, l[1].gs_provider_fields.gs_instance_number);
  EXPECT_EQ(2, l[2].gs_provider_fields.gs_node_number);
  EXPECT_EQ(1, l.indexOf(gsMakeProvider(1, 2)));
  EXPECT_EQ(-1, l.indexOf(gsMakeProvider(1, 3)));
  EXPECT_TRUE(l.contains(gsMakeProvider(2, 0)));
  EXPECT_FALSE(l.contains(gsMakeProvider(0, 2)));

  EXPECT_TRUE(l.remove(gsMakeProvider(1, 2)));
  EXPECT_FALSE(l.remove(gsMakeProvider(1, 2)));
  ASSERT_EQ(2u, l.count());
  EXPECT_EQ(3, l[0].gs_provider_fields.gs_node_number);
  EXPECT_EQ(2, l[1].gs_provider_fields.gs_node_number);
  EXPECT_EQ(1, l.indexOf(gsMakeProvider(2, 0)));
  // A removed provider may come back, at the end.
  EXPECT_TRUE(l.add(gsMakeProvider(1, 2)));
  EXPECT_EQ(2, l.indexOf(gsMakeProvider(1, 2)));
  l.clear();
  EXPECT_EQ(0u, l.count());
  EXPECT_TRUE(l.add(gsMakeProvider(3, 0)));
}

TEST(GSMembershipList, ProviderWordHoldsInstanceHighAndNodeLow) {
  EXPECT_EQ(0x00070005u, gsMakeProvider(5, 7).gs_provider_id);
}

TEST(GSMembershipList, AssignDropsDuplicatesAndViewMatches) {
  tk_gs_provider_t raw[] = {gsMakeProvider(1, 0), gsMakeProvider(2, 0), gsMakeProvider(1, 0),
                            gsMakeProvider(3, 1)};
  tk_gs_membership_t m = {4, raw};
  GSMembershipList l(m);
  ASSERT_EQ(3u, l.count());
  tk_gs_membership_t view = l.asMembership();
  ASSERT_EQ(3u, view.gs_count);
  EXPECT_EQ(raw[0].gs_provider_id, view.gs_providers[0].gs_provider_id);
  EXPECT_EQ(raw[1].gs_provider_id, view.gs_providers[1].gs_provider_id);
  EXPECT_EQ(raw[3].gs_provider_id, view.gs_providers[2].gs_provider_id);

  // Assigning a list its own view leaves it as it was.
  l.assign(view);
  ASSERT_EQ(3u, l.count());
  EXPECT_EQ(raw[3].gs_provider_id, l[2].gs_provider_id);

  tk_gs_membership_t noProviders = {5, nullptr};
  l.assign(noProviders);
  EXPECT_EQ(0u, l.count());
  tk_gs_membership_t emptyView = l.asMembership();
  EXPECT_EQ(0u, emptyView.gs_count);
  EXPECT_EQ(nullptr, emptyView.gs_providers);
}

TEST(GSMembershipList, LargeGroupsFillQuickly) {
  // One provider per adapter of every node of a full domain.
  GSMembershipList l;
  for (uint16_t node = 0; node < 2049; ++node) {
    for (uint16_t adapter = 0; adapter < 48; ++adapter) l.add(gsMakeProvider(node, adapter));
  }
  EXPECT_EQ(2049u * 48u, l.count());
  EXPECT_FALSE(l.add(gsMakeProvider(2048, 47)));
  EXPECT_EQ(static_cast<long>(2049 * 48 - 1), l.indexOf(gsMakeProvider(2048, 47)));
}

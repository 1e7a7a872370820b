// Configuration identity, the rate limiter, the monotonic clock wrappers,
// text conversions, membership counting and the trace output operators.
// Time comes from the replaceable monotonic clock, never from waiting.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "AMNetIf.h"
#include "AMUtils.h"
#include "trace_test_support.h"
#include "vx_cu.h"

namespace {

// ---------------------------------------------------------------------------
// Helpers

// A state value over bytes the test owns.
struct OwnedStateValue {
  std::vector<char> bytes;
  tk_gs_state_value_t sv;
  explicit OwnedStateValue(std::vector<char> b) : bytes(std::move(b)) {
    sv.gs_length = static_cast<int>(bytes.size());
    sv.gs_state = bytes.empty() ? nullptr : bytes.data();
  }
};

// The three words in the host's byte order, cut to length bytes.
std::vector<char> stateBytes(uint32_t id1, int32_t version, uint32_t id2, size_t length) {
  char all[12];
  memcpy(all, &id1, 4);
  memcpy(all + 4, &version, 4);
  memcpy(all + 8, &id2, 4);
  return std::vector<char>(all, all + length);
}

// Sets a record to the given ids and version through a full state value.
void setRecord(AMCfgInfo& info, uint32_t id1, int32_t version, uint32_t id2) {
  OwnedStateValue v(stateBytes(id1, version, id2, 12));
  ASSERT_TRUE(info.obtain_from_state_value(&v.sv));
}

// The monotonic clock the tests set.
std::atomic<long> fakeMonoSec{0};
std::atomic<long> fakeMonoNsec{0};
std::atomic<int> fakeMonoResult{0};

int fakeMono(struct timespec* ts) {
  ts->tv_sec = fakeMonoSec.load();
  ts->tv_nsec = fakeMonoNsec.load();
  return fakeMonoResult.load();
}

class FakeMonotonicClock : public ::testing::Test {
 protected:
  void SetUp() override {
    setClock(0, 0);
    fakeMonoResult = 0;
    cu_set_clocks_ForTesting(nullptr, fakeMono);
  }
  void TearDown() override { cu_set_clocks_ForTesting(nullptr, nullptr); }
  static void setClock(long sec, long nsec = 0) {
    fakeMonoSec = sec;
    fakeMonoNsec = nsec;
  }
};

// A trace log with the debug and library levels on as well, so that the
// lines of the helpers can be read back.
class TracedHelpers : public trace_test::TraceLogFixture {
 protected:
  void SetUp() override {
    trace_test::TraceLogFixture::SetUp();
    _traceStream.SetGlobalTraceLevel(TraceLevel(trace_test::kDefaultLevel | TRACE_DEBUG | TRACE_GSCL));
  }
  // The texts of every line logged so far.
  std::vector<std::string> texts() {
    drain();
    std::vector<std::string> out;
    for (const auto& line : logLines()) out.push_back(trace_test::lineText(line));
    return out;
  }
  bool logged(const std::string& text) {
    for (const auto& t : texts()) {
      if (t.find(text) != std::string::npos) return true;
    }
    return false;
  }
  // Traces one line made by the given insertions and returns its text.
  template <typename T>
  std::string traceOf(const T& value) {
    AM_TRACE(TRACE_FYI) << "<" << value << ">" << endl;
    auto all = texts();
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      size_t open = it->find('<');
      size_t close = it->rfind('>');
      if (open != std::string::npos && close != std::string::npos && close > open) {
        return it->substr(open + 1, close - open - 1);
      }
    }
    return "<no line>";
  }
};

tk_gs_membership_t membershipOf(std::vector<tk_gs_provider_t>& providers) {
  tk_gs_membership_t m;
  m.gs_count = static_cast<unsigned>(providers.size());
  m.gs_providers = providers.empty() ? nullptr : providers.data();
  return m;
}

// ---------------------------------------------------------------------------
// AMCfgInfo: text and erasure

TEST(CfgIdText, ErasedRecordPrintsAllOnes) {
  AMCfgInfo info;
  EXPECT_EQ(info.getCfgIdStr(), "4294967295");
  EXPECT_EQ(info.getCfgId1(), 0xFFFFFFFFu);
  EXPECT_EQ(info.getCfgId2(), 0u);
  EXPECT_EQ(info.getFmtVersion(), 1);
}

TEST(CfgIdText, VersionTwoPrintsBothIdsVersionOneOnlyTheFirst) {
  AMCfgInfo v2;
  setRecord(v2, 7, 2, 9);
  EXPECT_EQ(v2.getCfgIdStr(), "7:9");
  AMCfgInfo v1;
  setRecord(v1, 7, 1, 9);
  EXPECT_EQ(v1.getCfgIdStr(), "7");
}

TEST(CfgIdText, EraseRestoresTheErasedValues) {
  AMCfgInfo info;
  setRecord(info, 7, 2, 9);
  info.erase();
  EXPECT_EQ(info.getCfgId1(), 0xFFFFFFFFu);
  EXPECT_EQ(info.getCfgId2(), 0u);
  EXPECT_EQ(info.getFmtVersion(), 1);
  EXPECT_EQ(info.getCfgIdStr(), "4294967295");
}

TEST(CfgIdText, SetFromTextLeavesTheVersionAlone) {
  AMCfgInfo info;
  setRecord(info, 1, 3, 2);
  EXPECT_TRUE(info.setCfgIdStr("0x1A"));
  EXPECT_TRUE(info.setCfgId2Str("42"));
  EXPECT_EQ(info.getCfgId1(), 26u);
  EXPECT_EQ(info.getCfgId2(), 42u);
  EXPECT_EQ(info.getFmtVersion(), 3);
  EXPECT_EQ(info.getCfgIdStr(), "26:42");
}

// ---------------------------------------------------------------------------
// Hexadecimal conversions

TEST(HexText, PrefixMeansHexOtherwiseDecimal) {
  EXPECT_EQ(cvHexStrToLong("0x1A"), 26);
  EXPECT_EQ(cvHexStrToLong("0X1a"), 26);
  EXPECT_EQ(cvHexStrToLong("1A"), 1);
  EXPECT_EQ(cvHexStrToLong("26"), 26);
}

TEST(HexText, UnparsableTextGivesZero) {
  EXPECT_EQ(cvHexStrToLong("zz"), 0);
  EXPECT_EQ(cvHexStrToLong("0xzz"), 0);
  EXPECT_EQ(cvHexStrToLong(""), 0);
  EXPECT_EQ(cvHexStrToLong(nullptr), 0);
}

TEST(HexText, NumbersAreWrittenWithThePrefix) {
  char out[kHexStrBufferLength];
  EXPECT_EQ(cvLongToHexStr(26, out), out);
  EXPECT_STREQ(out, "0x1a");
  EXPECT_STREQ(cvLongLongToHexStr(0x1234567890abLL, out), "0x1234567890ab");
  EXPECT_STREQ(cvLongLongToHexStr(-1, out), "0xffffffffffffffff");
  EXPECT_EQ(cvHexStrToLong(cvLongToHexStr(4096, out)), 4096);
}

// ---------------------------------------------------------------------------
// State values

TEST(CfgStateValue, FourBytesSetTheIdAndAnswerFalse) {
  AMCfgInfo info;
  setRecord(info, 1, 2, 77);
  OwnedStateValue v(stateBytes(5, 0, 0, 4));
  EXPECT_FALSE(info.obtain_from_state_value(&v.sv));
  EXPECT_EQ(info.getCfgId1(), 5u);
  EXPECT_EQ(info.getFmtVersion(), 0);
  EXPECT_EQ(info.getCfgId2(), 77u) << "a 4-byte value leaves the second id alone";
}

TEST(CfgStateValue, EightBytesSetIdAndVersionAndClearTheSecondId) {
  AMCfgInfo info;
  setRecord(info, 1, 2, 77);
  OwnedStateValue v(stateBytes(8, 2, 99, 8));
  EXPECT_TRUE(info.obtain_from_state_value(&v.sv));
  EXPECT_EQ(info.getCfgId1(), 8u);
  EXPECT_EQ(info.getFmtVersion(), 2);
  EXPECT_EQ(info.getCfgId2(), 0u);
}

TEST(CfgStateValue, NineBytesOrMoreCarryTheSecondId) {
  AMCfgInfo info;
  OwnedStateValue longer(stateBytes(3, 2, 4, 12));
  longer.bytes.resize(20, '\x7f');
  longer.sv.gs_length = 20;
  longer.sv.gs_state = longer.bytes.data();
  EXPECT_TRUE(info.obtain_from_state_value(&longer.sv));
  EXPECT_EQ(info.getCfgId1(), 3u);
  EXPECT_EQ(info.getFmtVersion(), 2);
  EXPECT_EQ(info.getCfgId2(), 4u);
}

TEST(CfgStateValue, ShortOrMissingValuesChangeNothing) {
  AMCfgInfo info;
  setRecord(info, 10, 2, 20);
  EXPECT_FALSE(info.obtain_from_state_value(nullptr));
  OwnedStateValue three(stateBytes(5, 0, 0, 3));
  EXPECT_FALSE(info.obtain_from_state_value(&three.sv));
  tk_gs_state_value_t negative = {-1, three.bytes.data()};
  EXPECT_FALSE(info.obtain_from_state_value(&negative));
  EXPECT_EQ(info.getCfgId1(), 10u);
  EXPECT_EQ(info.getFmtVersion(), 2);
  EXPECT_EQ(info.getCfgId2(), 20u);
}

TEST(CfgStateValue, OddLengthReadsOnlyTheBytesWritten) {
  // Five bytes: the id and the first byte of the version word; the rest of
  // that word counts as zero and nothing past the value is read.
  std::vector<char> five = stateBytes(6, 0, 0, 4);
  five.push_back('\x03');
  OwnedStateValue v(five);
  AMCfgInfo info;
  EXPECT_TRUE(info.obtain_from_state_value(&v.sv));
  const char versionBytes[4] = {3, 0, 0, 0};
  int32_t expected;
  memcpy(&expected, versionBytes, 4);
  EXPECT_EQ(info.getCfgId1(), 6u);
  EXPECT_EQ(info.getFmtVersion(), expected);
  EXPECT_EQ(info.getCfgId2(), 0u);
}

TEST(CfgStateValue, ConstructWritesTwelveBytesInHostOrder) {
  AMCfgInfo info;
  setRecord(info, 0xA1B2C3D4u, 2, 0x01020304u);
  tk_gs_state_value_t sv = {0, nullptr};
  char* buffer = reinterpret_cast<char*>(1);
  ASSERT_TRUE(info.construct_state_value(&sv, buffer));
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(sv.gs_state, buffer);
  EXPECT_EQ(sv.gs_length, 12);
  EXPECT_EQ(std::vector<char>(buffer, buffer + 12), stateBytes(0xA1B2C3D4u, 2, 0x01020304u, 12));

  AMCfgInfo back;
  EXPECT_TRUE(back.obtain_from_state_value(&sv));
  EXPECT_TRUE(back.isSame(info));
  EXPECT_EQ(back.getCfgIdStr(), info.getCfgIdStr());
  delete[] buffer;
}

TEST(CfgStateValue, ConstructWithoutAStateValueFails) {
  AMCfgInfo info;
  char* buffer = reinterpret_cast<char*>(1);
  EXPECT_FALSE(info.construct_state_value(nullptr, buffer));
  EXPECT_EQ(buffer, nullptr);
}

TEST(CfgStateValue, FourByteValueOfAnOldNodeStillComparesOnTheId) {
  AMCfgInfo mine;
  setRecord(mine, 12, 2, 34);
  AMCfgInfo old;
  OwnedStateValue v(stateBytes(12, 0, 0, 4));
  EXPECT_FALSE(old.obtain_from_state_value(&v.sv));
  EXPECT_TRUE(mine.isSame(old));
  EXPECT_TRUE(old.isSame(mine));
}

// ---------------------------------------------------------------------------
// Comparison and copies

TEST(CfgIdCompare, SecondIdCountsOnlyWhenBothAreVersionTwo) {
  AMCfgInfo a, b, c;
  setRecord(a, 7, 2, 9);
  setRecord(b, 7, 2, 10);
  setRecord(c, 7, 1, 10);
  EXPECT_FALSE(a.isSame(b));
  EXPECT_TRUE(a.isSame(c));
  EXPECT_TRUE(c.isSame(a));
  EXPECT_TRUE(a.isSame(a));
  AMCfgInfo d;
  setRecord(d, 8, 1, 9);
  EXPECT_FALSE(a.isSame(d));
}

TEST(CfgIdCopy, CopyFromTakesAllThreeFields) {
  AMCfgInfo src, dst;
  setRecord(src, 7, 2, 9);
  EXPECT_TRUE(dst.copyFrom(src));
  EXPECT_EQ(dst.getCfgId1(), 7u);
  EXPECT_EQ(dst.getFmtVersion(), 2);
  EXPECT_EQ(dst.getCfgId2(), 9u);
  EXPECT_TRUE(dst.copyFrom(dst));
  EXPECT_EQ(dst.getCfgIdStr(), "7:9");
  AMCfgInfo copied(src);
  EXPECT_EQ(copied.getCfgIdStr(), "7:9");
  EXPECT_TRUE(copied.isSame(src));
}

TEST(CfgIdCopy, OppositeCopiesOnTwoThreadsFinish) {
  AMCfgInfo a, b;
  setRecord(a, 1, 2, 1);
  setRecord(b, 2, 2, 2);
  auto copier = [](AMCfgInfo* to, AMCfgInfo* from) {
    for (int i = 0; i < 20000; ++i) {
      to->copyFrom(*from);
      to->isSame(*from);
    }
  };
  auto done = std::async(std::launch::async, [&] {
    std::thread t1(copier, &a, &b);
    std::thread t2(copier, &b, &a);
    t1.join();
    t2.join();
  });
  if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    // The copiers are stuck on each other's locks; they cannot be joined.
    fprintf(stderr, "opposite copies did not finish within 20 s\n");
    _exit(1);
  }
  // Whatever the interleaving, each record ends as one of the two values.
  EXPECT_TRUE(a.getCfgId1() == 1 || a.getCfgId1() == 2);
  EXPECT_EQ(a.getCfgId1(), a.getCfgId2());
  EXPECT_EQ(b.getCfgId1(), b.getCfgId2());
}

// ---------------------------------------------------------------------------
// The rate limiter, on the replaced monotonic clock

using IntervalHitter = FakeMonotonicClock;

TEST_F(IntervalHitter, RefusesWithinTheIntervalAndAcceptsAtItsEnd) {
  AMIntervalHitter hitter(30);
  setClock(100);
  EXPECT_TRUE(hitter.hit());
  setClock(120);
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 10);
  setClock(129);
  EXPECT_FALSE(hitter.hit());
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 1);
  setClock(130);
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 0);
  EXPECT_TRUE(hitter.hit());
  setClock(159);
  EXPECT_FALSE(hitter.hit());
}

TEST_F(IntervalHitter, RefusalDoesNotMoveTheStart) {
  AMIntervalHitter hitter(30);
  setClock(100);
  ASSERT_TRUE(hitter.hit());
  setClock(125);
  ASSERT_FALSE(hitter.hit());
  setClock(130);
  EXPECT_TRUE(hitter.hit());
}

TEST_F(IntervalHitter, FirstHitSucceedsAndResetAllowsTheNextAtOnce) {
  AMIntervalHitter hitter(3600);
  setClock(500);
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 0);
  EXPECT_TRUE(hitter.hit());
  setClock(501);
  EXPECT_FALSE(hitter.hit());
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 3599);
  hitter.reset();
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 0);
  EXPECT_TRUE(hitter.hit());
}

TEST_F(IntervalHitter, ZeroIntervalAlwaysHits) {
  AMIntervalHitter hitter(0);
  setClock(100);
  EXPECT_TRUE(hitter.hit());
  EXPECT_TRUE(hitter.hit());
  EXPECT_EQ(hitter.remaining_secs_to_hit(), 0);
}

TEST_F(IntervalHitter, IntervalChangeKeepsTheLastHit) {
  AMIntervalHitter hitter(30);
  setClock(100);
  ASSERT_TRUE(hitter.hit());
  hitter.interval(5);
  setClock(104);
  EXPECT_FALSE(hitter.hit());
  setClock(105);
  EXPECT_TRUE(hitter.hit());
}

// ---------------------------------------------------------------------------
// Monotonic clock wrappers

using MonoClock = FakeMonotonicClock;

TEST_F(MonoClock, TimevalComesFromTheMonotonicClock) {
  setClock(1234, 567891000);
  struct timeval tv = {0, 0};
  EXPECT_EQ(MONO_GETTIMEOFDAY(&tv), 0);
  EXPECT_EQ(tv.tv_sec, 1234);
  EXPECT_EQ(tv.tv_usec, 567891);
}

TEST_F(MonoClock, HalfSecondsRoundDown) {
  struct timeval tv = {0, 0};
  setClock(10, 499999999);
  MONO_GETTIMEOFDAY_IN_HALFSECS(&tv);
  EXPECT_EQ(tv.tv_sec, 10);
  EXPECT_EQ(tv.tv_usec, 0);
  setClock(10, 500000000);
  MONO_GETTIMEOFDAY_IN_HALFSECS(&tv);
  EXPECT_EQ(tv.tv_usec, 500000);
  setClock(11, 999999999);
  MONO_GETTIMEOFDAY_IN_HALFSECS(&tv);
  EXPECT_EQ(tv.tv_sec, 11);
  EXPECT_EQ(tv.tv_usec, 500000);
}

TEST_F(MonoClock, ResultOfTheClockIsPassedOn) {
  fakeMonoResult = -1;
  struct timeval tv = {0, 0};
  EXPECT_EQ(MONO_GETTIMEOFDAY(&tv), -1);
  EXPECT_EQ(MONO_GETTIMEOFDAY_IN_HALFSECS(&tv), -1);
}

// ---------------------------------------------------------------------------
// Membership helpers

TEST(MembershipCount, ProvidersOnANodeAndDistinctNodes) {
  GSMembershipList members;
  members.add(gsMakeProvider(1, 0));
  members.add(gsMakeProvider(1, 1));
  members.add(gsMakeProvider(3, 0));
  members.add(gsMakeProvider(65535, 2));
  members.add(gsMakeProvider(1, 7));
  EXPECT_EQ(numberOfproviders_on_node(members, 1), 3);
  EXPECT_EQ(numberOfproviders_on_node(members, 3), 1);
  EXPECT_EQ(numberOfproviders_on_node(members, 65535), 1);
  EXPECT_EQ(numberOfproviders_on_node(members, 2), 0);
  EXPECT_EQ(numberOfNodes_in_group(members), 3);
  EXPECT_EQ(numberOfNodes_in_group(GSMembershipList()), 0);
}

TEST(MembershipCount, ProviderNameIsInstanceThenNode) {
  tk_gs_provider_t p;
  p.gs_provider_id = (5u << 16) | 7u;  // instance in the high half
  EXPECT_EQ(gscl_providerId_name(p, 1), "[5/7]");
  EXPECT_EQ(gscl_providerId_name(p, 0), "5/7");
  EXPECT_EQ(gscl_providerId_name(gsMakeProvider(2048, 47), 1), "[47/2048]");
}

// ---------------------------------------------------------------------------
// Trace output

TEST_F(TracedHelpers, ConfigurationIdPrintsItsText) {
  AMCfgInfo erased;
  EXPECT_EQ(traceOf(erased), "4294967295");
  AMCfgInfo v2;
  setRecord(v2, 7, 2, 9);
  EXPECT_EQ(traceOf(v2), "7:9");
}

TEST_F(TracedHelpers, MembershipPrintsCountAndBracketedProviders) {
  std::vector<tk_gs_provider_t> providers = {gsMakeProvider(1, 0), gsMakeProvider(3, 2)};
  tk_gs_membership_t m = membershipOf(providers);
  EXPECT_EQ(traceOf(&m), "(N=2):[0/1][2/3]");
  const tk_gs_membership_t* none = nullptr;
  EXPECT_EQ(traceOf(none), "(N=0):");
}

TEST_F(TracedHelpers, StateValuePrintsLengthAndBytes) {
  char bytes[3] = {0x01, static_cast<char>(0xab), 0x00};
  tk_gs_state_value_t sv = {3, bytes};
  EXPECT_EQ(traceOf(&sv), "[L=3,S=0x01ab00]");
  const tk_gs_state_value_t* none = nullptr;
  EXPECT_EQ(traceOf(none), "");
}

TEST_F(TracedHelpers, AdapterRowPrintsNodeAddressAndName) {
  AMAdapterItem item;
  item.nodenumber = 5;
  ASSERT_EQ(inet_pton(AF_INET, "10.1.0.1", &item.ipaddr), 1);
  strcpy(item.interfacename, "sxn0");
  EXPECT_EQ(traceOf(item), "[Node 5][10.1.0.1][sxn0]");
}

TEST_F(TracedHelpers, SettingAnIdTracesWhatWasRead) {
  AMCfgInfo info;
  info.setCfgIdStr("0x1A");
  EXPECT_TRUE(logged("AMCfgInfo::setCfg(0x1A) --> 26[0x1a]"));
}

TEST_F(TracedHelpers, HitterTracesFirstAndLaterHits) {
  cu_set_clocks_ForTesting(nullptr, fakeMono);
  fakeMonoResult = 0;
  fakeMonoNsec = 0;
  AMIntervalHitter hitter(30);
  fakeMonoSec = 100;
  ASSERT_TRUE(hitter.hit());
  fakeMonoSec = 130;
  ASSERT_TRUE(hitter.hit());
  AMIntervalHitter always(0);
  ASSERT_TRUE(always.hit());
  cu_set_clocks_ForTesting(nullptr, nullptr);
  EXPECT_TRUE(logged("AMIntervalHitter::hit1 at 100"));
  EXPECT_TRUE(logged("AMIntervalHitter::hit2 at 130"));
  EXPECT_TRUE(logged("AMIntervalHitter::hit always ok (interval=0)"));
}

}  // namespace

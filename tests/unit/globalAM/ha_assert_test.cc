// Assertions, error-log entries and AMtracef.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TraceStream.h"
#include "ha_assert.h"
#include "trace_test_support.h"
#include "vx_ffdc.h"

namespace trace_test {
namespace {

// ------------------------------------------------------------ ha_assert

// The death test's child is a new process whose thread id differs from the
// parent's, so each child makes its own client first.
class HaAssert : public TraceLogFixture {};

TEST_F(HaAssert, TrueConditionDoesNothing) {
  int evaluated = 0;
  HA_ASSERT(++evaluated == 1);
  EXPECT_EQ(evaluated, 1);
  drain();
  EXPECT_TRUE(logLines().empty());
}

TEST_F(HaAssert, FailureLogsOneLineAndAnEntryThenAborts) {
  EXPECT_DEATH(
      {
        TraceClient child(TraceStream::traceMarket, 0);
        HA_ASSERT(1 + 1 == 3);
      },
               "void ha_assert\\(char\\*, char\\*, int, char\\*, char\\*\\): Assertion .1 \\+ 1 == 3. failed");
  auto lines = logLines();
  ASSERT_EQ(countContaining(lines, "Failed assertion"), 1);
  EXPECT_EQ(countContaining(lines, " TRACE_EMERG : [T="), 1);
  EXPECT_EQ(lineText(lines.back()), "Failed assertion: 1 + 1 == 3.");
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_NE(entries[0].find("\"label\":\"GS_ASSERT_EM\""), std::string::npos) << entries[0];
  EXPECT_NE(entries[0].find("\"text\":\"Failed assertion: 1 + 1 == 3.\""), std::string::npos);
  EXPECT_NE(entries[0].find("\"file\":\"" __FILE__ "\""), std::string::npos);
  EXPECT_NE(entries[0].find("\"program\":\"tolkavskd\""), std::string::npos);
  EXPECT_NE(entries[0].find("\"component\":\"VELT\""), std::string::npos);
}

TEST_F(HaAssert, PendingLinesAreDrainedBeforeTheEnd) {
  EXPECT_DEATH(
      {
        TraceClient child(TraceStream::traceMarket, 0);
        AM_TRACE(TRACE_FYI) << "queued before the failure" << endl;
        AM_TRACE(TRACE_FYI) << "half a line";
        HA_ASSERT_FAIL("SW_HERDLET_TID_DIR not specified.");
      },
      "SW_HERDLET_TID_DIR not specified.");
  auto lines = logLines();
  EXPECT_EQ(countContaining(lines, "] queued before the failure"), 1);
  EXPECT_EQ(countContaining(lines, "Failed assertion: SW_HERDLET_TID_DIR not specified.."), 1);
}

// The copy of a line to the SRC reply fails a second assertion while the
// first one is writing its own line.
void failAgain(const char* /*text*/) { HA_ASSERT_FAIL("nested failure"); }

TEST_F(HaAssert, SecondFailureDuringTheFirstWritesNoFurtherLine) {
  EXPECT_DEATH(
      {
        TraceClient child(TraceStream::traceMarket, 0);
        setTraceSRCOutputRoutine(failAgain);
        _traceStream.StartSRCOutput();
        HA_ASSERT_FAIL("first failure");
      },
      "Assertion .nested failure. failed");
  auto lines = logLines();
  EXPECT_EQ(countContaining(lines, "Failed assertion"), 1);
  EXPECT_EQ(countContaining(lines, "Failed assertion: first failure."), 1);
  EXPECT_EQ(countContaining(errorLogLines(), "GS_ASSERT_EM"), 1);
}

// ------------------------------------------------------------ tolk_ffdclog

class TolkFfdclog : public TraceLogFixture {
 protected:
  int log(const std::string& text, fc_eid_t id, const char* ref = nullptr) {
    return tolk_ffdclog(1, 5, id, ref, "source.cc", "1.2", 77, text.c_str(), static_cast<int>(text.size()));
  }
};

TEST_F(TolkFfdclog, HundredCharactersAreLoggedWhole) {
  std::string text(100, 'C');
  fc_eid_t id = {0};
  EXPECT_EQ(log(text, id), 0);
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(jsonText(entries[0], "text"), text);
  EXPECT_EQ(strlen(id), 42u);
  EXPECT_NE(entries[0].find(std::string("\"id\":\"") + id + "\""), std::string::npos);
}

TEST_F(TolkFfdclog, HundredAndOneCharactersAreCutToNinetyFourAndDots) {
  std::string text = std::string(94, 'A') + std::string(7, 'B');
  fc_eid_t id = {0};
  EXPECT_EQ(log(text, id), 0);
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(jsonText(entries[0], "text"), std::string(94, 'A') + ".....");
}

TEST_F(TolkFfdclog, EntryCarriesTemplatePositionAndReference) {
  fc_eid_t first = {0};
  ASSERT_EQ(log("first entry", first), 0);
  fc_eid_t second = {0};
  ASSERT_EQ(log("second entry", second, first), 0);
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_NE(entries[1].find(std::string("\"ref\":\"") + first + "\""), std::string::npos) << entries[1];
  EXPECT_NE(entries[1].find("\"label\":\"GS_MESSAGE_ST\""), std::string::npos);
  EXPECT_NE(entries[1].find("\"file\":\"source.cc\""), std::string::npos);
  EXPECT_NE(entries[1].find("\"version\":\"1.2\""), std::string::npos);
  EXPECT_NE(entries[1].find("\"line\":77"), std::string::npos);
  EXPECT_NE(entries[1].find("\"type\":\"ERROR\""), std::string::npos);
}

TEST_F(TolkFfdclog, EmptyReferenceIsNotPassedOn) {
  fc_eid_t empty = {0};
  fc_eid_t id = {0};
  ASSERT_EQ(log("no reference", id, empty), 0);
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_NE(entries[0].find("\"ref\":\"\""), std::string::npos) << entries[0];
}

TEST_F(TolkFfdclog, FailureIsReportedOnTheLogStream) {
  fc_eid_t id = {0};
  int rc = tolk_ffdclog(3, 5, id, nullptr, "odd.cc", "1.0", 9, "bad type", 8);
  EXPECT_NE(rc, 0);
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], " FFDCLOG: fc_log_error() at file odd.cc, line 9 returned " + std::to_string(rc));
}

TEST_F(TolkFfdclog, LabelBeyondTheTableIsRefusedAndReported) {
  fc_eid_t id = {0};
  EXPECT_EQ(tolk_ffdclog(1, 21, id, nullptr, "odd.cc", "1.0", 10, "no row", 6), FC_INVALID_ARGUMENT);
  EXPECT_EQ(countContaining(logLines(), " FFDCLOG: fc_log_error() at file odd.cc, line 10 returned 2"), 1);
  EXPECT_TRUE(errorLogLines().empty());
}

// ------------------------------------------------------------ AMtracef

class AMtracefLines : public TraceLogFixture {
 protected:
  std::unique_ptr<TraceMessage> takeQueued() {
    auto* obj = TraceStream::traceMarket->tryConsumeAny();
    auto* msg = dynamic_cast<TraceMessage*>(obj);
    if (msg == nullptr) delete obj;
    return std::unique_ptr<TraceMessage>(msg);
  }
};

TEST_F(AMtracefLines, TrailingNewlinesAreRemoved) {
  AMtracef(0x10, "tracef %d\n\n", 7);
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lineText(lines[0]), " tracef 7");
  EXPECT_NE(lines[0].find(" TRACE_FYI : [T="), std::string::npos);
}

TEST_F(AMtracefLines, FlagsChooseTheLevel) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI | TRACE_DEBUG | TRACE_GSCL));
  AMtracef(AM_TRACEF_GSCL | 0x10, "library");
  AMtracef(AM_TRACEF_DEBUG, "debug");
  AMtracef(0, "default");
  AMtracef(0x10, "fyi");
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_NE(lines[0].find(" TRACE_GSCL : "), std::string::npos);
  EXPECT_NE(lines[1].find(" TRACE_DEBUG : "), std::string::npos);
  EXPECT_NE(lines[2].find(" TRACE_DEBUG : "), std::string::npos);
  EXPECT_NE(lines[3].find(" TRACE_FYI : "), std::string::npos);
}

TEST_F(AMtracefLines, UntracedLevelWritesNothing) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI));
  int before = queued();
  AMtracef(AM_TRACEF_DEBUG, "not traced %s", "at all");
  EXPECT_EQ(queued(), before);
}

TEST_F(AMtracefLines, LengthKeptInEightBitsMissesNewlinesOfLongTexts) {
  // 301 characters: the walk starts at index 301 mod 256 - 1 = 44, which is
  // no newline, so the trailing newline stays.
  std::string text(300, 'x');
  AMtracef(0x10, "%s\n", text.c_str());
  auto msg = takeQueued();
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->message, " " + text + "\n");
}

TEST_F(AMtracefLines, FormatIsBoundedByItsBuffer) {
  std::string text(5000, 'y');
  AMtracef(0x10, "%s", text.c_str());
  auto msg = takeQueued();
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->message.size(), 1u + 2047u);
}

}  // namespace
}  // namespace trace_test

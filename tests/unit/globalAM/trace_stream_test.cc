// The trace stream: filtering, the log line, error-log labels, sizes,
// rotation, lost lines, function blocks, draining, SRC output and the
// writer thread.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "TraceStream.h"
#include "trace_test_support.h"
#include "vx_cu.h"

namespace trace_test {
namespace {

// Waits up to limit for cond, checking every 10 ms.
template <typename Cond>
bool waitFor(Cond cond, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// ------------------------------------------------------------ filtering

class TraceFiltering : public TraceLogFixture {};

TEST_F(TraceFiltering, LevelZeroLineQueuesNothing) {
  int before = queued();
  AM_TRACE(0) << "never seen" << 12L << endl;
  EXPECT_EQ(queued(), before);
  EXPECT_EQ(client_->msg_exist, 0);
  EXPECT_TRUE(client_->message.empty());
}

TEST_F(TraceFiltering, LevelSharingNoBitWithGlobalQueuesNothing) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI));
  int before = queued();
  AM_TRACE(TRACE_DEBUG) << "debug only" << endl;
  EXPECT_EQ(queued(), before);
  AM_TRACE(TRACE_FYI) << "fyi" << endl;
  EXPECT_EQ(queued(), before + 1);
}

TEST_F(TraceFiltering, EachPieceIsFilteredByTheLevelWhenInserted) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI));
  _traceStream << TraceLevel(TRACE_DEBUG) << "hidden " << TraceLevel(TRACE_FYI) << "shown" << endl;
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lineText(lines[0]), "shown");
}

TEST_F(TraceFiltering, ThreadWithoutClientTracesNothing) {
  int before = queued();
  std::thread([] { AM_TRACE(TRACE_FYI) << "no client here" << endl; }).join();
  EXPECT_EQ(queued(), before);
}

TEST_F(TraceFiltering, ExitRoutineSilencesTracing) {
  traceStreamExitRoutine();
  EXPECT_EQ(_traceStream.GetGlobalTraceLevel().level, 0u);
  EXPECT_FALSE(TRACEABLE(TRACE_EMERG));
  int before = queued();
  AM_TRACE(TRACE_EMERG) << "after exit" << endl;
  EXPECT_EQ(queued(), before);
}

// ------------------------------------------------------------ line format

class LogLineFormat : public TraceLogFixture {
 protected:
  static constexpr time_t kFixedTime = 1700000000;
  static int fixedWallClock(struct timeval* tv) {
    tv->tv_sec = kFixedTime;
    tv->tv_usec = 0;
    return 0;
  }
  void TearDown() override {
    cu_set_clocks_ForTesting(nullptr, nullptr);
    TraceLogFixture::TearDown();
  }
};

TEST_F(LogLineFormat, ReadsStampLevelThreadAndText) {
  AM_TRACE(TRACE_FYI) << "text of the line" << endl;
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  std::regex shape(R"(^[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} TRACE_FYI : \[T=([0-9]+)\] text of the line$)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, shape)) << lines[0];
  EXPECT_EQ(std::stoul(m[1].str()), velt_gscl_V1::GSThreadSelfId());
}

TEST_F(LogLineFormat, StampIsMonthDayAndTimeOfTheMessageClock) {
  cu_set_clocks_ForTesting(fixedWallClock, nullptr);
  AM_TRACE(TRACE_FYI) << "stamped" << endl;
  drain();
  time_t t = kFixedTime;
  char text[32];
  ASSERT_NE(ctime_r(&t, text), nullptr);
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].substr(0, 16), std::string(text + 4, 15) + " ");
}

TEST_F(LogLineFormat, LevelNamesInOrderWithGsclBeforeDebug) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(0xFFFFFFFFu));
  AM_TRACE(TRACE_DEBUG | TRACE_GSCL | TRACE_WARNING | TRACE_FSM_FYI) << TraceLabel(-1) << "many" << endl;
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].substr(15),
            " TRACE_WARNING TRACE_FSM_FYI TRACE_GSCL TRACE_DEBUG : [T=" +
                std::to_string(velt_gscl_V1::GSThreadSelfId()) + "] many");
}

TEST_F(LogLineFormat, NumbersAndPointersFormatLikePrintf) {
  const void* p = reinterpret_cast<const void*>(static_cast<uintptr_t>(0xabc));
  AM_TRACE(TRACE_FYI) << -5L << " " << 42UL << " " << 'x' << " " << p << " " << std::string("str") << " "
                      << -7 << " " << 8u << " " << static_cast<uint16_t>(9) << endl;
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lineText(lines[0]), "-5 42 x abc str -7 8 9");
}

TEST_F(LogLineFormat, LevelReadsBackFromTheStream) {
  _traceStream << TraceLevel(TRACE_EVENT);
  TraceLevel back;
  _traceStream >> back;
  EXPECT_EQ(back.level, TRACE_EVENT);
}

// ------------------------------------------------------------ sizes

class LogSizes : public TraceLogFixture {};

TEST_F(LogSizes, SizeBelowFloorGivesFloor) {
  determineLogFileNameAndSize("100", logPath_.c_str());
  EXPECT_EQ(GetLogFileLength(), 30000);
  EXPECT_EQ(GetWorkLogFileLength(), 30000);
}

TEST_F(LogSizes, SizeIsReadAndTraced) {
  determineLogFileNameAndSize("40000", logPath_.c_str());
  EXPECT_EQ(GetLogFileLength(), 40000);
  EXPECT_EQ(GetWorkLogFileLength(), 40000);
  drain();
  auto lines = logLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lineText(lines[0]), "logBaseSize: 40000 lines.");
}

TEST_F(LogSizes, UnparsableSizeKeepsOldValue) {
  determineLogFileNameAndSize("45000", logPath_.c_str());
  determineLogFileNameAndSize("lines", logPath_.c_str());
  EXPECT_EQ(GetLogFileLength(), 45000);
  determineLogFileNameAndSize("99999999999999999999", logPath_.c_str());
  EXPECT_EQ(GetLogFileLength(), 45000);
}

TEST_F(LogSizes, ChangeLogFileLengthMultipliesAndReturnsOldBase) {
  ASSERT_EQ(GetLogFileLength(), 30000);
  EXPECT_EQ(ChangeLogFileLength(40000, 3), 30000);
  EXPECT_EQ(GetLogFileLength(), 40000);
  EXPECT_EQ(GetWorkLogFileLength(), 120000);
}

TEST_F(LogSizes, MultiplierZeroOrLessCountsAsOne) {
  ChangeLogFileLength(40000, 0);
  EXPECT_EQ(GetWorkLogFileLength(), 40000);
  EXPECT_EQ(ChangeLogFileLength(50000, -3), 40000);
  EXPECT_EQ(GetWorkLogFileLength(), 50000);
}

TEST_F(LogSizes, BaseBelowFloorIsRaised) {
  ChangeLogFileLength(10, 2);
  EXPECT_EQ(GetLogFileLength(), 30000);
  EXPECT_EQ(GetWorkLogFileLength(), 60000);
}

TEST_F(LogSizes, ErrorLogGoesBesideTheTraceLog) {
  AM_TRACE(TRACE_ERROR) << "beside the log" << endl;
  drain();
  EXPECT_EQ(countContaining(errorLogLines(), "\"text\":\"beside the log\""), 1);
}

// ------------------------------------------------------------ labels

class ErrorLogLabels : public TraceLogFixture {
 protected:
  // Takes the one queued line off the market.
  std::unique_ptr<TraceMessage> takeQueued() {
    auto* obj = TraceStream::traceMarket->tryConsumeAny();
    auto* msg = dynamic_cast<TraceMessage*>(obj);
    if (msg == nullptr) delete obj;
    return std::unique_ptr<TraceMessage>(msg);
  }
};

TEST_F(ErrorLogLabels, WeirdLineGetsLabelFiveButNoEntry) {
  AM_TRACE(TRACE_WEIRD) << "weird line" << endl;
  auto msg = takeQueued();
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->label.label, 5);
  server_->WriteLogOutput(*msg);
  EXPECT_EQ(countContaining(logLines(), "TRACE_WEIRD : [T="), 1);
  EXPECT_EQ(countContaining(errorLogLines(), "weird line"), 0);
}

TEST_F(ErrorLogLabels, WarningLineGetsLabelFiveAndAWarningEntry) {
  AM_TRACE(TRACE_WARNING) << "warning line" << endl;
  auto msg = takeQueued();
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(msg->label.label, 5);
  server_->WriteLogOutput(*msg);
  auto entries = errorLogLines();
  ASSERT_EQ(countContaining(entries, "warning line"), 1);
  EXPECT_EQ(countContaining(entries, "\"label\":\"GS_MESSAGE_ST\""), 1);
  EXPECT_EQ(countContaining(entries, "\"type\":\"WARNING\""), 1);
}

TEST_F(ErrorLogLabels, ErrorAndEmergencyLinesDefaultToSixteen) {
  AM_TRACE(TRACE_ERROR) << "error line" << endl;
  auto err = takeQueued();
  ASSERT_NE(err, nullptr);
  EXPECT_EQ(err->label.label, 16);
  AM_TRACE(TRACE_EMERG) << "emergency line" << endl;
  auto emerg = takeQueued();
  ASSERT_NE(emerg, nullptr);
  EXPECT_EQ(emerg->label.label, 16);
  server_->WriteLogOutput(*err);
  server_->WriteLogOutput(*emerg);
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_NE(entries[0].find("\"label\":\"GS_VASK_ERROR_ER\""), std::string::npos);
  EXPECT_NE(entries[0].find("\"type\":\"ERROR\""), std::string::npos);
  EXPECT_NE(entries[1].find("\"type\":\"EMERGENCY\""), std::string::npos);
}

TEST_F(ErrorLogLabels, FyiLineMakesEntryOnlyWithExplicitLabel) {
  AM_TRACE(TRACE_FYI) << "plain fyi" << endl;
  AM_TRACE(TRACE_FYI) << TraceLabel(14) << "labelled fyi" << endl;
  drain();
  auto entries = errorLogLines();
  EXPECT_EQ(countContaining(entries, "plain fyi"), 0);
  ASSERT_EQ(countContaining(entries, "labelled fyi"), 1);
  EXPECT_EQ(countContaining(entries, "\"label\":\"GS_VASK_START_ST\""), 1);
  EXPECT_EQ(countContaining(entries, "\"type\":\"INFO\""), 1);
  EXPECT_EQ(countContaining(logLines(), "fyi"), 2);
}

TEST_F(ErrorLogLabels, LabelMinusOneNeverMakesAnEntry) {
  AM_TRACE(TRACE_ERROR) << TraceLabel(-1) << "quiet error" << endl;
  drain();
  EXPECT_EQ(countContaining(logLines(), "quiet error"), 1);
  EXPECT_EQ(countContaining(errorLogLines(), "quiet error"), 0);
}

TEST_F(ErrorLogLabels, LabelLastsOneLine) {
  AM_TRACE(TRACE_FYI) << TraceLabel(14) << "first" << endl;
  AM_TRACE(TRACE_FYI) << "second" << endl;
  drain();
  auto entries = errorLogLines();
  EXPECT_EQ(countContaining(entries, "\"text\":\"first\""), 1);
  EXPECT_EQ(countContaining(entries, "\"text\":\"second\""), 0);
}

TEST_F(ErrorLogLabels, ReferenceGoesWithTheEntry) {
  const char* ref = "0123456789ABCDEFGHJKMNPQRSTVWXYZ0123456789";
  AM_TRACE(TRACE_FYI) << TraceLabel(15, ref) << "exit with reference" << endl;
  drain();
  auto entries = errorLogLines();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_NE(entries[0].find(std::string("\"ref\":\"") + ref + "\""), std::string::npos) << entries[0];
  EXPECT_FALSE(server_->last_ffdc_id.IsEmpty());
}

TEST_F(ErrorLogLabels, FfdcIdCopiesAtMostFortyTwoCharacters) {
  FFDCID id;
  EXPECT_TRUE(id.IsEmpty());
  id.set("short");
  EXPECT_STREQ(static_cast<const char*>(id), "short");
  id.set(std::string(60, 'Q').c_str());
  EXPECT_EQ(std::string(id), std::string(42, 'Q'));
  id.set(static_cast<const char*>(nullptr));
  EXPECT_TRUE(id.IsEmpty());
  EXPECT_TRUE(is_ffdc_id_empty(nullptr));
}

// ------------------------------------------------------------ rotation

class LogRotation : public TraceLogFixture {
 protected:
  void traceLines(int from, int count) {
    for (int i = from; i < from + count; ++i) AM_TRACE(TRACE_FYI) << "line " << i << endl;
    drain();
  }
  std::string backupPath() const { return logPath_ + ".bak"; }
};

TEST_F(LogRotation, LineAfterTheLimitRotatesOnceWritten) {
  setLogWorkSizeForTesting(3);
  traceLines(1, 3);
  EXPECT_EQ(logLines().size(), 3u);
  EXPECT_FALSE(std::filesystem::exists(backupPath()));

  traceLines(4, 1);
  auto backup = readLines(backupPath());
  ASSERT_EQ(backup.size(), 4u);
  EXPECT_EQ(lineText(backup[3]), "line 4");
  EXPECT_TRUE(std::filesystem::exists(logPath_));
  EXPECT_TRUE(logLines().empty());

  traceLines(5, 1);
  ASSERT_EQ(logLines().size(), 1u);
  EXPECT_EQ(lineText(logLines()[0]), "line 5");
}

TEST_F(LogRotation, RotationReplacesAnEarlierBackup) {
  {
    std::ofstream old(backupPath());
    old << "an earlier backup\n";
  }
  setLogWorkSizeForTesting(2);
  traceLines(1, 3);
  auto backup = readLines(backupPath());
  ASSERT_EQ(backup.size(), 3u);
  EXPECT_EQ(lineText(backup[0]), "line 1");

  traceLines(4, 3);
  backup = readLines(backupPath());
  ASSERT_EQ(backup.size(), 3u);
  EXPECT_EQ(lineText(backup[0]), "line 4");
  EXPECT_EQ(countContaining(backup, "earlier"), 0);
}

TEST_F(LogRotation, DefaultSizeKeepsThirtyThousandLines) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI));
  for (int i = 0; i < 30000; ++i) {
    AM_TRACE(TRACE_FYI) << "x" << endl;
    if (i % 1000 == 999) drain();
  }
  drain();
  EXPECT_FALSE(std::filesystem::exists(backupPath()));
  AM_TRACE(TRACE_FYI) << "line 30001" << endl;
  drain();
  EXPECT_EQ(readLines(backupPath()).size(), 30001u);
  EXPECT_TRUE(logLines().empty());
}

// ------------------------------------------------------------ lost lines

class LostLines : public TraceLogFixture {};

// The log is a symbolic link to a device that refuses every write; rotation
// then replaces the link by a real file, where writing works again.
TEST_F(LostLines, FailuresReportedOnceAndRecoveryReported) {
  std::string linkPath = dir_ + "/full.log";
  ASSERT_EQ(symlink("/dev/full", linkPath.c_str()), 0);
  _traceStream.SetGlobalTraceLevel(TraceLevel(0));
  redirectCout(nullptr, linkPath.c_str());
  fc_set_log_file(errLogPath_.c_str());
  _traceStream.SetGlobalTraceLevel(TraceLevel(kDefaultLevel));
  setLogWorkSizeForTesting(2);

  for (int i = 1; i <= 3; ++i) AM_TRACE(TRACE_FYI) << "lost " << i << endl;
  drain();
  auto entries = errorLogLines();
  // Only the first failure is reported (the text is long enough to be cut).
  EXPECT_EQ(countContaining(entries, "\"text\":\"ERROR writing to log " + linkPath + " (rdstate="), 1);
  EXPECT_EQ(countContaining(entries, "ERROR writing to log"), 1);
  ASSERT_FALSE(std::filesystem::is_symlink(linkPath));

  AM_TRACE(TRACE_FYI) << "written again" << endl;
  drain();
  entries = errorLogLines();
  EXPECT_EQ(countContaining(entries, "Lost 3 lines to log file " + linkPath + ".  Writing to log now."), 1);
  auto lines = readLines(linkPath);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lineText(lines[0]), "written again");
}

// ------------------------------------------------------------ blocks

class TraceBlocks : public TraceLogFixture {
 protected:
  void SetUp() override {
    TraceLogFixture::SetUp();
    _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_BLOCK | TRACE_FYI));
  }
  std::vector<std::string> texts() {
    drain();
    std::vector<std::string> out;
    for (const auto& l : logLines()) out.push_back(lineText(l));
    return out;
  }
};

TEST_F(TraceBlocks, NestedBlocksIndentOneBlankPerLevel) {
  {
    TraceBlock outer(TraceLevel(TRACE_BLOCK), "outer");
    TraceBlock inner(TraceLevel(TRACE_BLOCK), "inner");
  }
  EXPECT_EQ(texts(), (std::vector<std::string>{"Entering: outer", " Entering: inner", " Exiting:  inner",
                                               "Exiting:  outer"}));
}

TEST_F(TraceBlocks, IndentIsCappedAtSeventyNineBlanks) {
  std::vector<std::unique_ptr<TraceBlock>> blocks;
  std::vector<std::string> names;
  for (int i = 0; i < 85; ++i) names.push_back("f" + std::to_string(i));
  for (int i = 0; i < 85; ++i) blocks.push_back(std::make_unique<TraceBlock>(TraceLevel(TRACE_BLOCK), names[i].c_str()));
  while (!blocks.empty()) blocks.pop_back();
  auto t = texts();
  ASSERT_EQ(t.size(), 170u);
  EXPECT_EQ(t[78], std::string(78, ' ') + "Entering: f78");
  EXPECT_EQ(t[79], std::string(79, ' ') + "Entering: f79");
  EXPECT_EQ(t[84], std::string(79, ' ') + "Entering: f84");
  EXPECT_EQ(t[85], std::string(79, ' ') + "Exiting:  f84");
  EXPECT_EQ(t[169], "Exiting:  f0");
}

TEST_F(TraceBlocks, SameNamePointerWritesRecursiveCall) {
  static const char kName[] = "recurse";
  {
    TraceBlock first(TraceLevel(TRACE_BLOCK), kName);
    TraceBlock again(TraceLevel(TRACE_BLOCK), kName);
  }
  EXPECT_EQ(texts(), (std::vector<std::string>{"Entering: recurse", " Entering: recurse",
                                               ".. Recursive call to recurse", " Exiting:  recurse",
                                               "Exiting:  recurse"}));
}

TEST_F(TraceBlocks, SameTextAtAnotherAddressIsNoRecursion) {
  std::string a = "same";
  std::string b = "same";
  {
    TraceBlock first(TraceLevel(TRACE_BLOCK), a.c_str());
    TraceBlock second(TraceLevel(TRACE_BLOCK), b.c_str());
  }
  EXPECT_EQ(countContaining(texts(), "Recursive"), 0);
}

TEST_F(TraceBlocks, BlockRestoresTheThreadsLevel) {
  _traceStream << TraceLevel(TRACE_EVENT);
  { TraceBlock b(TraceLevel(TRACE_BLOCK), "scoped"); }
  TraceLevel after;
  _traceStream >> after;
  EXPECT_EQ(after.level, TRACE_EVENT);
}

TEST_F(TraceBlocks, OneArgumentBlockTakesTheCurrentLevel) {
  _traceStream << TraceLevel(TRACE_DEBUG);
  { TraceBlock quiet("quiet"); }
  _traceStream << TraceLevel(TRACE_FYI);
  { TraceBlock loud("loud"); }
  EXPECT_EQ(texts(), (std::vector<std::string>{"Entering: loud", "Exiting:  loud"}));
}

TEST_F(TraceBlocks, NullBlockPrintsAsMain) {
  TraceBlock named(TraceLevel(TRACE_BLOCK), "named");
  AM_TRACE(TRACE_FYI) << static_cast<const TraceBlock*>(nullptr) << " " << &named << endl;
  EXPECT_EQ(texts().back(), "main named");
}

// ------------------------------------------------------------ draining

class Draining : public TraceLogFixture {};

TEST_F(Draining, ProduceRefusedWhileDraining) {
  TraceStream::traceMarket->setBeingDrainedForTesting(true);
  auto* msg = new TraceMessage(TraceLevel(TRACE_FYI), TraceLabel(), 1, TRACE_HERE, "refused");
  int rc = TraceStream::traceMarket->produce(msg);
  EXPECT_EQ(rc, -2);
  if (rc != 0) delete msg;  // a queued message belongs to the market
}

TEST_F(Draining, EndlWhileDrainingKeepsTheLinePending) {
  int before = queued();
  TraceStream::traceMarket->setBeingDrainedForTesting(true);
  AM_TRACE(TRACE_FYI) << "pending" << endl;
  EXPECT_EQ(queued(), before);
  EXPECT_EQ(client_->message, "pending");
  TraceStream::traceMarket->setBeingDrainedForTesting(false);
  _traceStream << " line" << endl;
  EXPECT_EQ(queued(), before + 1);
  drain();
  ASSERT_EQ(logLines().size(), 1u);
  EXPECT_EQ(lineText(logLines()[0]), "pending line");
}

TEST_F(Draining, CommitsThePendingLineOfEveryClient) {
  std::mutex mu;
  std::condition_variable cv;
  bool started = false;
  bool drained = false;
  std::thread other([&] {
    TraceClient mine(TraceStream::traceMarket, 0);
    AM_TRACE(TRACE_FYI) << "half a line";
    std::unique_lock<std::mutex> lock(mu);
    started = true;
    cv.notify_all();
    cv.wait_for(lock, std::chrono::seconds(10), [&] { return drained; });
  });
  {
    std::unique_lock<std::mutex> lock(mu);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return started; }));
  }
  drain();
  {
    std::lock_guard<std::mutex> lock(mu);
    drained = true;
    cv.notify_all();
  }
  other.join();
  EXPECT_EQ(countContaining(logLines(), "] half a line"), 1);
}

TEST_F(Draining, StoppedMarketStillTakesLinesForTheDrain) {
  TraceStream::traceMarket->stopMarket();
  AM_TRACE(TRACE_FYI) << "after stop" << endl;
  EXPECT_EQ(queued(), 1);
  drain();
  EXPECT_EQ(countContaining(logLines(), "] after stop"), 1);
}

// ------------------------------------------------------------ SRC output

class SRCOutput : public TraceLogFixture {
 protected:
  static std::vector<std::string>& received() {
    static std::vector<std::string> texts;
    return texts;
  }
  static void collect(const char* text) { received().push_back(text); }
  void SetUp() override {
    TraceLogFixture::SetUp();
    received().clear();
    setTraceSRCOutputRoutine(collect);
  }
};

TEST_F(SRCOutput, LinesGoToTheRoutineOnlyWhileOn) {
  AM_TRACE(TRACE_FYI) << "before" << endl;
  _traceStream.StartSRCOutput();
  AM_TRACE(TRACE_FYI) << "during " << 1L << endl;
  _traceStream.StopSRCOutput();
  AM_TRACE(TRACE_FYI) << "after" << endl;
  EXPECT_EQ(received(), std::vector<std::string>{"during 1"});
  drain();
  EXPECT_EQ(logLines().size(), 3u);
}

TEST_F(SRCOutput, BlockLinesAreOffDuringSRCOutputAndBackAfter) {
  _traceStream.SetGlobalTraceLevel(TraceLevel(TRACE_FYI | TRACE_BLOCK));
  _traceStream.StartSRCOutput();
  EXPECT_EQ(_traceStream.GetGlobalTraceLevel().level, TRACE_FYI);
  { TraceBlock b(TraceLevel(TRACE_BLOCK), "hidden block"); }
  EXPECT_TRUE(received().empty());
  _traceStream.StopSRCOutput();
  EXPECT_EQ(_traceStream.GetGlobalTraceLevel().level, TRACE_FYI | TRACE_BLOCK);
}

// ------------------------------------------------------------ writer thread

class TraceWriter : public TraceLogFixture {};

TEST_F(TraceWriter, ThreadWritesLinesAndGoesIdleWhenMarketStops) {
  ASSERT_EQ(server_->start(nullptr), 0);
  AM_TRACE(TRACE_FYI) << "through the writer" << endl;
  EXPECT_TRUE(waitFor([&] { return countContaining(logLines(), "] through the writer") == 1; }));
  EXPECT_FALSE(server_->isIdle());

  TraceStream::traceMarket->stopMarket();
  EXPECT_TRUE(waitFor([] { return TraceStream::traceMarket->isAllServerIdle(); }));
  server_->releaseForTesting();
  EXPECT_EQ(server_->join(), 0);
  TraceStream::traceMarket->resumeMarket();
}

// ------------------------------------------------------------ log set-up

class LogSetUp : public TraceLogFixture {};

TEST_F(LogSetUp, UnopenableLogEndsTheProcessWithStatusOne) {
  std::string bad = dir_ + "/missing/dir/trace.log";
  EXPECT_EXIT(redirectCout(nullptr, bad.c_str()), ::testing::ExitedWithCode(1),
              "ERROR [0-9a-f]+ We \\([0-9]+\\.[0-9]+\\) could not open logfile: .*missing/dir/trace.log");
}

TEST_F(LogSetUp, NullLogNameIsAFailedAssertion) {
  EXPECT_DEATH(determineLogFileNameAndSize(nullptr, nullptr), "NULL != logFileName");
}

TEST_F(LogSetUp, RedirectTruncatesAnEarlierLog) {
  AM_TRACE(TRACE_FYI) << "old run" << endl;
  drain();
  ASSERT_EQ(logLines().size(), 1u);
  _traceStream.SetGlobalTraceLevel(TraceLevel(0));
  redirectCout("30000", logPath_.c_str());
  EXPECT_TRUE(logLines().empty());
}

}  // namespace
}  // namespace trace_test

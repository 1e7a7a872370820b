// The daemon frame in-process: stop-code names, the controller's registries,
// callbacks and main-thread wait, the connection loop and process exit.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "AMController.h"
#include "TraceStream.h"
#include "brel_signal.h"
#include "tolkbrel.h"
#include "vx_cu.h"

namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

double secondsSince(const timespec& t0) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - t0.tv_sec) + (now.tv_nsec - t0.tv_nsec) / 1e9;
}

// A process with the trace stream writing to a private log file and one
// controller, as start-up leaves them (without SRC: interactive).
class Frame : public ::testing::Test {
 protected:
  void SetUp() override {
    // A death test's child may run this again in a fresh process; it
    // inherits the directory through the environment so that the parent
    // reads what the child logged.
    const char* inherited = getenv("VELT_FRAME_TEST_DIR");
    if (inherited) {
      dir_ = inherited;
    } else {
      char tmpl[] = "/tmp/velt-frame-XXXXXX";
      dir_ = mkdtemp(tmpl);
      setenv("VELT_FRAME_TEST_DIR", dir_.c_str(), 1);
    }
    logFile_ = dir_ + "/tolkvaskd.log";
    setenv("VELT_AGENT_SOCKET", (dir_ + "/no-agent.sock").c_str(), 1);
    traceMarket = TraceStream::traceMarket;
    client_ = new TraceClient(traceMarket, 0);
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x61F));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    server_ = new TraceServer(traceMarket);
    traceServer = server_;
    ctl_ = new AMController();
  }
  // Everything traced so far, as written to the log.
  void TearDown() override {
    if (getenv("VELT_FRAME_TEST_DIR") && dir_.rfind("/tmp/velt-frame-", 0) == 0) {
      std::string cmd = "rm -rf '" + dir_ + "'";
      if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
    }
  }
  std::string log() {
    traceMarket->drainAllLogs();
    return readAll(logFile_);
  }
  std::string dir_;
  std::string logFile_;
  TraceClient* client_ = nullptr;
  TraceServer* server_ = nullptr;
  AMController* ctl_ = nullptr;
};

}  // namespace

TEST(StopCodeNames, KnownAndUnknownCodes) {
  char b[128];
  EXPECT_STREQ("(Cancel)", getStopCodeStr(-3, b));
  EXPECT_STREQ("(ForcedStop)", getStopCodeStr(-2, b));
  EXPECT_STREQ("(NormalStop)", getStopCodeStr(-1, b));
  EXPECT_STREQ("StopCode(0)", getStopCodeStr(0, b));
  EXPECT_STREQ("VASKStop(1)", getStopCodeStr(1, b));
  EXPECT_STREQ("VASKAbort(2)", getStopCodeStr(2, b));
  EXPECT_STREQ("VASKAbrupt(3)", getStopCodeStr(3, b));
  EXPECT_STREQ("VASKBySignal(4)", getStopCodeStr(4, b));
  EXPECT_STREQ("TOLKDied(5)", getStopCodeStr(5, b));
  EXPECT_STREQ("VoteWrong(6)", getStopCodeStr(6, b));
  EXPECT_STREQ("DupInst(7)", getStopCodeStr(7, b));
  EXPECT_STREQ("UnableExit(8)", getStopCodeStr(8, b));
  EXPECT_STREQ("RestartForOldNode(9)", getStopCodeStr(9, b));
  EXPECT_STREQ("StopCode(10)", getStopCodeStr(10, b));
  EXPECT_STREQ("StopCode(-4)", getStopCodeStr(-4, b));
}

TEST(Registry, FifthEntryGrowsFourSlotsToEight) {
  AMRegistry<int> r;
  int items[5] = {1, 2, 3, 4, 5};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(i + 1, r.append(&items[i]));
  EXPECT_EQ(4, r.slots());
  EXPECT_EQ(5, r.append(&items[4]));
  EXPECT_EQ(8, r.slots());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(&items[i], r[i]);
}

TEST_F(Frame, MediatorsAreFoundByRawGroupNameAndWoken) {
  // The controller made the first mediator itself, on the all-adapter group.
  ASSERT_EQ(1, ctl_->numberOfMediators());
  AMMediator* first = ctl_->mediators[0];
  EXPECT_EQ(first, ctl_->getMediator("allAdapterMembership"));
  EXPECT_EQ(ctl_->allAdaptGroup, first->getRawSubscriber());
  AMMediator b("otherRaw", nullptr, 0);
  for (int i = 0; i < 3; ++i) ctl_->appendMediator(i == 1 ? &b : first);
  EXPECT_EQ(4, ctl_->mediatorSlots());
  EXPECT_EQ(5, ctl_->appendMediator(&b));
  EXPECT_EQ(8, ctl_->mediatorSlots());
  EXPECT_EQ(&b, ctl_->getMediator("otherRaw"));
  EXPECT_EQ(nullptr, ctl_->getMediator("nothing"));
  ctl_->allowReadyToRoll();
  EXPECT_EQ(1, ctl_->readyToRoll.get());
  // Every registry entry is woken once: a wake-up is one queued event.
  EXPECT_EQ(3, first->pendingSyncEvents());
  EXPECT_EQ(2, b.pendingSyncEvents());
}

TEST_F(Frame, DomainControlOtherThanVersionChangesNothing) {
  tk_gs_domain_control_notification_t n;
  memset(&n, 0, sizeof(n));
  n.gs_domain_ctrl_event = TK_GS_DOMAIN_DISSOLVE;
  n.gs_velt_version = {2, 4, 5, 0, 0x02040500};
  veltActiveVersion = {0, 0, 0, 0, 0};
  EXPECT_EQ(TK_GS_CALLBACK_OK, ctl_->domainControlCb(&n));
  EXPECT_EQ(0u, veltActiveVersion.quick_version);
  tk_gs_velt_version_t v;
  EXPECT_NE(TK_GS_OK, ctl_->get_velt_active_version(&v));
  EXPECT_EQ(std::string::npos, log().find("Got domainControlCB"));

  n.gs_domain_ctrl_event = TK_GS_DOMAIN_VERSION;
  EXPECT_EQ(TK_GS_CALLBACK_OK, ctl_->domainControlCb(&n));
  EXPECT_EQ(0x02040500u, veltActiveVersion.quick_version);
  EXPECT_NE(std::string::npos, log().find("Got domainControlCB: TK_GS_DOMAIN_VERSION. veltActiveVersion is now"));
}

TEST_F(Frame, WithoutSrcTheWaitSleepsItsTimeLimit) {
  timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  EXPECT_EQ(0, ctl_->select_and_doSRCreq(5));
  double waited = secondsSince(t0);
  EXPECT_GE(waited, 4.9);
  EXPECT_LT(waited, 8.0);
}

static void ignoreSignal(int) {}

TEST_F(Frame, WithoutSrcAnEndlessWaitEndsOnASignal) {
  struct sigaction act = {};
  act.sa_handler = ignoreSignal;
  sigaction(SIGUSR2, &act, nullptr);
  pthread_t self = pthread_self();
  std::thread poker([self] {
    usleep(300 * 1000);
    pthread_kill(self, SIGUSR2);
  });
  timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  int rc = ctl_->select_and_doSRCreq(-1);
  poker.join();
  EXPECT_LT(rc, 0);  // interrupted
  EXPECT_GE(secondsSince(t0), 0.25);
}

TEST_F(Frame, AStopCodeMakesTheControllerExiting) {
  EXPECT_FALSE(ctl_->AmIExiting());
  ctl_->SRCDriver::setStopCode(-1, "STOP NORMAL request from SRC");
  EXPECT_TRUE(ctl_->AmIExiting());
  // The connection loop gives up at once.
  int before = AMController::initTries;
  gs_connect_loop(ctl_);
  EXPECT_EQ(before, AMController::initTries);
}

// The monotonic clock for the connection loop: every reading is five
// seconds after the last, as if each retry waited its pause; past the
// limit the daemon is asked to exit.
static time_t fakeSeconds = 1000;
static time_t fakeLimit = 0;
static int fakeMono(struct timespec* ts) {
  fakeSeconds += 5;
  if (fakeSeconds > fakeLimit) AMController::_exiting = 1;
  ts->tv_sec = fakeSeconds;
  ts->tv_nsec = 0;
  return 0;
}

TEST_F(Frame, AbsentGroupServicesIsReportedOncePerHour) {
  fakeSeconds = 1000;
  fakeLimit = 1000 + 3 * 3600 + 600;  // three hours and ten minutes
  gs_connect_retry_secs = 0;
  cu_set_clocks_ForTesting(nullptr, fakeMono);
  gs_connect_loop(ctl_);
  cu_set_clocks_ForTesting(nullptr, nullptr);
  std::string text = log();
  std::vector<std::string> lines;
  size_t pos = 0;
  while ((pos = text.find("Cannot initialize after [", pos)) != std::string::npos) {
    size_t end = text.find('\n', pos);
    lines.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  ASSERT_EQ(4u, lines.size()) << text;
  EXPECT_EQ("Cannot initialize after [0] minutes.  Continuing.", lines[0]);
  EXPECT_EQ("Cannot initialize after [60] minutes.  Continuing.", lines[1]);
  EXPECT_EQ("Cannot initialize after [120] minutes.  Continuing.", lines[2]);
  EXPECT_EQ("Cannot initialize after [180] minutes.  Continuing.", lines[3]);
  // Every attempt was counted: one per five-second pause.
  EXPECT_GT(AMController::initTries, 2000);
}

// The dying process must trace from a thread with its own trace client: a
// plain fork would leave the child's thread without one, so the child runs
// the test afresh.
TEST_F(Frame, ExitWithCodeZeroAndNoStopCodeEndsWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitTheProcess(0, ""), ::testing::ExitedWithCode(1), "");
  EXPECT_NE(std::string::npos, readAll(logFile_).find("TOLKVASK is exiting ExitCode=VASKStop(1)"))
      << readAll(logFile_);
}

TEST_F(Frame, ExitUsesThePendingStopCode) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ctl_->SRCDriver::setStopCode(-2, "STOP FORCED request from SRC");
  EXPECT_EXIT(ExitTheProcess(0, nullptr), ::testing::ExitedWithCode(254), "");
  EXPECT_NE(std::string::npos, readAll(logFile_).find("STOP FORCED request from SRC ExitCode=(ForcedStop)"));
}

TEST_F(Frame, SignalTablesIgnoreUnhandledAndBadNumbers) {
  struct sigaction before, after;
  sigaction(SIGKILL, nullptr, &before);
  set_handled_signals(9, ignoreSignal);
  sigaction(SIGKILL, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  set_handled_signals(70, ignoreSignal);
  EXPECT_NE(std::string::npos, log().find("In set_handled_signals and given bad value [70]"));
  set_handled_signals(SIGUSR1, ignoreSignal);
  sigaction(SIGUSR1, nullptr, &after);
  EXPECT_EQ(ignoreSignal, after.sa_handler);
  EXPECT_EQ(0, after.sa_flags & SA_RESETHAND);
  EXPECT_EQ(1, SIGNAL_TO_EXIT(SIGTERM));
  EXPECT_EQ(0, SIGNAL_TO_EXIT(SIGUSR1));
  EXPECT_STREQ("SIGPWR", signalName(30));
  EXPECT_STREQ("SIG_NONEXIST", signalName(31));
  EXPECT_STREQ("SIG_NONEXIST", signalName(0));
}

TEST_F(Frame, AsynchronousSetHoldsSighupButTheCatchSetDoesNot) {
  sigset_t catchSet, asyncSet, syncSet;
  get_all_catch_sigmask(&catchSet);
  get_all_async_sigmask(&asyncSet);
  get_only_sync_sigmask(&syncSet);
  EXPECT_FALSE(sigismember(&catchSet, SIGHUP));
  EXPECT_TRUE(sigismember(&asyncSet, SIGHUP));
  EXPECT_FALSE(sigismember(&asyncSet, SIGTERM));
  EXPECT_TRUE(sigismember(&catchSet, SIGUSR1));
  EXPECT_TRUE(sigismember(&syncSet, SIGSEGV));
  std::thread worker([] {
    block_thread_allsig_except_syncsig();
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_TRUE(sigismember(&mask, SIGHUP));
    EXPECT_TRUE(sigismember(&mask, SIGCHLD));
    EXPECT_FALSE(sigismember(&mask, SIGTERM));
    EXPECT_FALSE(sigismember(&mask, SIGILL));
  });
  worker.join();
}

// The daemon frame seen from outside: the real tolkvaskd started with a
// prepared environment and driven with srcctl and signals.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>
#include <thread>

#include "daemon_harness.h"
#include "internal/src_wire.h"

using velt_test::CommandResult;
using velt_test::Daemon;
using velt_test::TempDir;
using velt_test::validEnvironment;

namespace {

// A daemon in SRC mode with a valid environment, started and serving its
// request socket.
class RunningDaemon : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = validEnvironment(dir_.path());
  }
  void startDaemon() {
    daemon_.reset(new Daemon(dir_.path(), env_));
    ASSERT_TRUE(daemon_->start());
    ASSERT_TRUE(daemon_->waitForSocket(20)) << daemon_->out() << daemon_->err();
    // Signal handling is in place once the start line is out.
    ASSERT_TRUE(daemon_->waitForLog("Group Services VASK daemon started.", 20)) << daemon_->log();
  }
  // Without an agent: waits until the first connection attempt has failed.
  void startConnectingDaemon() {
    startDaemon();
    ASSERT_TRUE(daemon_->waitForLog("Cannot initialize after [0] minutes.  Continuing.", 20)) << daemon_->log();
  }
  TempDir dir_;
  std::map<std::string, std::string> env_;
  std::unique_ptr<Daemon> daemon_;
};

// Runs the daemon with a broken environment and expects the fatal path: the
// message in its output and the assertion ending the process.
void expectFatal(std::map<std::string, std::string> env, const std::string& dir, const std::string& message,
                 const std::string& assertion) {
  env.erase("SW_HERDLET_LOGFILE");  // fatal checks come before the log file
  Daemon d(dir, env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitExit(30));
  EXPECT_TRUE(d.signaled()) << "status " << d.exitStatus();
  EXPECT_EQ(SIGABRT, d.termSignal());
  EXPECT_NE(std::string::npos, d.out().find(message)) << d.out();
  EXPECT_NE(std::string::npos, d.out().find("Failed assertion: " + assertion + ".")) << d.out();
  EXPECT_NE(std::string::npos, d.err().find(assertion)) << d.err();
}

}  // namespace

TEST(StartUp, NoArgumentGivesUsageAndStatus255) {
  TempDir dir;
  Daemon d(dir.path(), validEnvironment(dir.path()));
  ASSERT_TRUE(d.start({}));
  ASSERT_TRUE(d.waitExit(10));
  EXPECT_FALSE(d.signaled());
  EXPECT_EQ(255, d.exitStatus());
  EXPECT_EQ("Usage: " + velt_test::tolkvaskdPath() + " <daemon_name>\n", d.err());
  EXPECT_EQ("", d.out());
  EXPECT_EQ("", velt_test::readFile(dir.file("tolkvaskd.log")));
}

TEST(StartUp, TwoArgumentsGiveUsageAndStatus255) {
  TempDir dir;
  Daemon d(dir.path(), validEnvironment(dir.path()));
  ASSERT_TRUE(d.start({"tolkvaskd", "extra"}));
  ASSERT_TRUE(d.waitExit(10));
  EXPECT_EQ(255, d.exitStatus());
  EXPECT_EQ("Usage: " + velt_test::tolkvaskdPath() + " <daemon_name>\n", d.err());
}

TEST(StartUp, UnsetDomainTypeIsRejectedAsUndefined) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("HA_DOMAIN_TYPE");
  expectFatal(env, dir.path(), "Domain type ( Undefined) is not correctly specified",
              "HA_DOMAIN_TYPE not correctly specified");
}

TEST(StartUp, WrongDomainTypeIsFatal) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env["HA_DOMAIN_TYPE"] = "quil";
  expectFatal(env, dir.path(), "Domain type ( quil) is not correctly specified",
              "HA_DOMAIN_TYPE not correctly specified");
}

TEST(StartUp, MissingRefreshCommandIsFatal) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_REFRESH_CMD");
  expectFatal(env, dir.path(), "Refresh cmd name(SW_HERDLET_REFRESH_CMD) is not specified",
              "SW_HERDLET_REFRESH_CMD not specified");
}

TEST(StartUp, MissingRunDirectoryWithoutConfigPathIsFatal) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_RUN_DIR");
  expectFatal(env, dir.path(), "SW_HERDLET_RUN_DIR is not specified", "SW_HERDLET_RUN_DIR not specified");
}

TEST(StartUp, MissingNodeNumberIsFatal) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_NODE_NUMBER");
  expectFatal(env, dir.path(), "Node number is not specified", "SW_HERDLET_NODE_NUMBER not specified.");
}

TEST(StartUp, MissingIncarnationIsFatal) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_INCARNATION_NUMBER");
  expectFatal(env, dir.path(), "Incarnation number is not specified",
              "SW_HERDLET_INCARNATION_NUMBER not specified.");
}

TEST(StartUp, MissingExclusiveFileIsFatalInSrcMode) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_TID_DIR");
  expectFatal(env, dir.path(), "SW_HERDLET_TID_DIR not specified.", "SW_HERDLET_TID_DIR not specified.");
}

TEST(StartUp, ConfigPathWithoutRunDirectoryFailsAtSrcSetUp) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_RUN_DIR");
  env["SW_HERDLET_AGGIP_CFG"] = dir.file("AggregateIP.cfg");
  env.erase("SW_HERDLET_LOGFILE");
  Daemon d(dir.path(), env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitExit(30));
  EXPECT_EQ(SIGABRT, d.termSignal());
  // The start-up checks passed: the SRC set-up was reached.
  EXPECT_NE(std::string::npos, d.out().find("Attempting to initialize the SRC.")) << d.out();
  EXPECT_NE(std::string::npos, d.err().find("SW_HERDLET_RUN_DIR not specified.")) << d.err();
}

// Starts the daemon on an SRC directory prepared by prepare and expects
// the SRC set-up to fail with SRC_DIR_UNSAFE as exit status, naming the
// directory and why.
void expectUnsafeSrcDirectory(const std::function<void(const std::string& srcDir)>& prepare,
                              const std::string& why) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_LOGFILE");
  prepare(env["VELT_SRC_DIR"]);
  Daemon d(dir.path(), env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitExit(30));
  EXPECT_FALSE(d.signaled()) << d.out();
  EXPECT_EQ(6, d.exitStatus()) << d.out();
  EXPECT_NE(std::string::npos, d.out().find("the request socket directory is not private: " + env["VELT_SRC_DIR"] + " " + why)) << d.out();
  EXPECT_EQ(std::string::npos, d.out().find("Running as daemon.")) << d.out();
}

TEST(StartUp, SrcDirectoryOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "SKIP: needs root to give the SRC directory to uid 65534";
  expectUnsafeSrcDirectory(
      [](const std::string& d) {
        ASSERT_EQ(0, mkdir(d.c_str(), 0700));
        ASSERT_EQ(0, chown(d.c_str(), 65534, 65534));
      },
      "belongs to uid 65534, not to root or uid 0");
}

TEST(StartUp, WritableSrcDirectoryIsRefused) {
  expectUnsafeSrcDirectory(
      [](const std::string& d) {
        ASSERT_EQ(0, mkdir(d.c_str(), 0700));
        ASSERT_EQ(0, chmod(d.c_str(), 0777));
      },
      "is writable by others (mode 0777)");
}

TEST(StartUp, SymbolicLinkSrcDirectoryIsRefused) {
  expectUnsafeSrcDirectory(
      [](const std::string& d) {
        std::string real = d + ".real";
        ASSERT_EQ(0, mkdir(real.c_str(), 0700));
        ASSERT_EQ(0, symlink(real.c_str(), d.c_str()));
      },
      "is a symbolic link; a real directory is required");
}

TEST(StartUp, InteractiveRunsWithoutRunDirectoryOrSrc) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env.erase("SW_HERDLET_RUN_DIR");
  env.erase("SW_HERDLET_TID_DIR");
  env["SW_HERDLET_AGGIP_CFG"] = dir.file("AggregateIP.cfg");
  env["SW_HERDLET_INTERACTIVE"] = "1";
  Daemon d(dir.path(), env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitForLog("Running interactively, did not initialize SRC connections.", 20)) << d.log();
  ASSERT_TRUE(d.waitForLog("Group Services VASK daemon started.", 20)) << d.log();
  EXPECT_TRUE(d.running());
  kill(d.pid(), SIGTERM);
  ASSERT_TRUE(d.waitExit(20));
  EXPECT_EQ(4, d.exitStatus());
}

TEST(StartUp, EnvironmentValuesAreReadAsDesigned) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env["SW_HERDLET_NODE_NUMBER"] = "70000";
  env["SW_HERDLET_INCARNATION_NUMBER"] = "65537";
  env["VASK_DEVICE_CHECK_INTERVAL"] = "0";
  env["VASK_MLX_CHECK_INTERVAL"] = "-5";
  env["SW_HERDLET_DOWN_DELAY_SECS"] = "-1";
  env["SW_HERDLET_WAIT_TIME"] = "120";
  Daemon d(dir.path(), env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitForLog("VASK_MLX_CHECK_INTERVAL = ", 20)) << d.log();
  std::string log = d.log();
  EXPECT_NE(std::string::npos, log.find("Our node number is[4464] incarnation[1] PID=" + std::to_string(d.pid()) +
                                        " DomainType=1"))
      << log;
  EXPECT_NE(std::string::npos, log.find("SW_HERDLET_WAIT_TIME period = 120, DownDelayTime(uSecs)=16000000"));
  EXPECT_NE(std::string::npos, log.find("VASK_DEVICE_CHECK_INTERVAL period = 30, VASK_MLX_CHECK_INTERVAL = 60"));
  kill(d.pid(), SIGTERM);
  ASSERT_TRUE(d.waitExit(20));
}

TEST(StartUp, DownDelayOfZeroMeansNoDelay) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  env["SW_HERDLET_DOWN_DELAY_SECS"] = "0";
  Daemon d(dir.path(), env);
  ASSERT_TRUE(d.start());
  ASSERT_TRUE(d.waitForLog("DownDelayTime(uSecs)=0\n", 20)) << d.log();
  kill(d.pid(), SIGTERM);
  ASSERT_TRUE(d.waitExit(20));
}

TEST(StartUp, SecondInstanceOnTheSameExclusiveFileFails) {
  TempDir dir;
  auto env = validEnvironment(dir.path());
  Daemon first(dir.path(), env);
  ASSERT_TRUE(first.start());
  ASSERT_TRUE(first.waitForSocket(20));
  TempDir other;
  auto env2 = env;
  env2["SW_HERDLET_LOGFILE"] = other.file("second.log");
  env2["VELT_SRC_DIR"] = other.file("src");
  Daemon second(other.path(), env2);
  ASSERT_TRUE(second.start());
  ASSERT_TRUE(second.waitExit(20));
  EXPECT_FALSE(second.signaled());
  EXPECT_NE(0, second.exitStatus());
  EXPECT_NE(std::string::npos, second.out().find("VASK semaphore key=0x")) << second.out();
  EXPECT_TRUE(first.running());
  kill(first.pid(), SIGTERM);
  ASSERT_TRUE(first.waitExit(20));
}

TEST_F(RunningDaemon, TraceLinesHaveTheLogFormat) {
  startDaemon();
  ASSERT_TRUE(daemon_->waitForLog("Group Services VASK daemon started. Log file is", 20));
  std::regex line(R"((^|\n)[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} TRACE_FYI : \[T=[0-9]+\] )"
                  R"(Group Services VASK daemon started\. Log file is [^\n]*tolkvaskd\.log\.\n)");
  EXPECT_TRUE(std::regex_search(daemon_->log(), line)) << daemon_->log();
}

TEST_F(RunningDaemon, SigtermBeforeConnectionEndsWithStatus4) {
  startDaemon();
  kill(daemon_->pid(), SIGTERM);
  ASSERT_TRUE(daemon_->waitExit(20));
  EXPECT_FALSE(daemon_->signaled());
  EXPECT_EQ(4, daemon_->exitStatus());
  EXPECT_NE(std::string::npos,
            daemon_->log().find("Received signal[SIGTERM]. Not yet connected to tolk. Exit immediately. "
                                "ExitCode=VASKBySignal(4)"))
      << daemon_->log();
}

TEST_F(RunningDaemon, SrcStopNormalEndsWith255) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"stop"});
  EXPECT_EQ(0, r.status) << r.out << r.err;
  ASSERT_TRUE(daemon_->waitExit(20));
  EXPECT_EQ(255, daemon_->exitStatus());
  EXPECT_NE(std::string::npos, daemon_->log().find("STOP NORMAL request from SRC ExitCode=(NormalStop)"))
      << daemon_->log();
}

TEST_F(RunningDaemon, SrcStopForcedEndsWith254) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"stop", "-f"});
  EXPECT_EQ(0, r.status) << r.out << r.err;
  ASSERT_TRUE(daemon_->waitExit(20));
  EXPECT_EQ(254, daemon_->exitStatus());
  EXPECT_NE(std::string::npos, daemon_->log().find("STOP FORCED request from SRC ExitCode=(ForcedStop)"));
}

TEST_F(RunningDaemon, SrcStopCancelEndsWith253) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"stop", "-c"});
  EXPECT_EQ(0, r.status) << r.out << r.err;
  ASSERT_TRUE(daemon_->waitExit(20));
  EXPECT_EQ(253, daemon_->exitStatus());
  std::string log = daemon_->log();
  EXPECT_NE(std::string::npos, log.find("STOP CANCEL request from SRC, stop_requested was."));
  EXPECT_NE(std::string::npos, log.find("STOP CANCEL request from SRC ExitCode=(Cancel)"));
}

TEST_F(RunningDaemon, LongStatusWhileConnectingCountsTries) {
  startConnectingDaemon();
  CommandResult first = daemon_->srcctl({"status", "-l"});
  EXPECT_EQ(0, first.status) << first.err;
  // The connection state comes first; the mediator's and the
  // configuration's lines follow.
  EXPECT_EQ(0u, first.out.rfind("Status information for subsystem tolkvaskd:\n"
                                "Not yet connected to Group Services after 1 connect try\n",
                                0))
      << first.out;
  EXPECT_NE(std::string::npos, first.out.find("\nAggregate Adapter Configuration\n")) << first.out;
  // The next attempt comes after the 5-second pause.
  CommandResult later;
  for (int i = 0; i < 40; ++i) {
    later = daemon_->srcctl({"status", "-l"});
    if (later.out.find("tries") != std::string::npos) break;
    usleep(250 * 1000);
  }
  EXPECT_NE(std::string::npos, later.out.find("Not yet connected to Group Services after 2 connect tries\n"))
      << later.out;
}

TEST_F(RunningDaemon, ShortStatusShowsTheSubsystemActive) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"status"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("tolkvaskd")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find(std::to_string(daemon_->pid()))) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("active")) << r.out;
}

TEST_F(RunningDaemon, TraceMaskRequest787) {
  startDaemon();
  CommandResult show = daemon_->srcctl({"request", "787"});
  EXPECT_EQ("The current TraceMask is 0x61f\n", show.out) << show.err;
  CommandResult set = daemon_->srcctl({"request", "787", "10"});
  EXPECT_EQ("The current TraceMask is 0x61f. The new TraceMask will be 0x1f.\n", set.out);
  CommandResult after = daemon_->srcctl({"request", "787"});
  EXPECT_EQ("The current TraceMask is 0x1f\n", after.out);
  daemon_->srcctl({"request", "787", "0"});
  CommandResult zero = daemon_->srcctl({"request", "787"});
  EXPECT_EQ("The current TraceMask is 0xf\n", zero.out);
}

TEST_F(RunningDaemon, LogLengthRequest786) {
  startDaemon();
  CommandResult show = daemon_->srcctl({"request", "786", "0"});
  EXPECT_EQ("The current logfile length is 30000.\n", show.out) << show.err;
  CommandResult none = daemon_->srcctl({"request", "786"});
  EXPECT_EQ("The current logfile length is 30000.\n", none.out);
  CommandResult set = daemon_->srcctl({"request", "786", "f000"});  // 61440 lines
  EXPECT_EQ("The current logfile length is 30000. The new logfile length will be 61440.\n", set.out);
  CommandResult again = daemon_->srcctl({"request", "786"});
  EXPECT_EQ("The current logfile length is 61440.\n", again.out);
}

TEST_F(RunningDaemon, CanonicalStatusRequests998And999) {
  startConnectingDaemon();
  // The try count may move on while the test runs; compare the rest.
  auto anyCount = [](const std::string& text) { return std::regex_replace(text, std::regex("[0-9]+"), "N"); };
  CommandResult canonical = daemon_->srcctl({"request", "999"});
  EXPECT_EQ(0, canonical.status) << canonical.err;
  // The request's own trace lines are copied to the reply too, the
  // adapter listing among them (no switch adapters on this host).
  EXPECT_EQ("Canonical LongStatus request from SRC.\n"
            "Status information for subsystem tolkvaskd:\n"
            "Not yet connected to Group Services.\nN time connection tried.\n"
            "Aggregate Adapter Configuration\n The current configuration id is N.\n"
            "Adapter information of N networks\n",
            anyCount(canonical.out));
  CommandResult inC = daemon_->srcctl({"request", "998", "C"});
  EXPECT_EQ(anyCount(canonical.out), anyCount(inC.out));
  CommandResult noLocale = daemon_->srcctl({"request", "998"});
  EXPECT_EQ(anyCount(canonical.out), anyCount(noLocale.out));
  CommandResult localized = daemon_->srcctl({"request", "998", "de_DE"});
  EXPECT_TRUE(std::regex_match(localized.out,
                               std::regex("Status information for subsystem tolkvaskd:\n"
                                          "Not yet connected to Group Services after [0-9]+ connect tr(y|ies)\n"
                                          "sxnMembership .*\n"
                                          "Aggregate Adapter Configuration\n"
                                          " The current configuration id is [0-9]+\\.\n"
                                          "Adapter information of 0 networks\n")))
      << localized.out;
}

TEST_F(RunningDaemon, UnknownRequestIsAnsweredWithMessage15) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"request", "4711"});
  EXPECT_NE(0, r.status);
  EXPECT_EQ("", r.out);
  EXPECT_EQ("tolkvaskd: Invalid request 4711.\n", r.err);
  EXPECT_TRUE(daemon_->running());
  // The log writer thread writes the line a moment after the reply.
  EXPECT_TRUE(daemon_->waitForLog("OTHER Request From SRC, Request:[(4711)Invalid request] "
                                  "Parm1:[0] Parm2:[0] Parm3(len/val):[0/ ]",
                                  10))
      << daemon_->log();
}

TEST_F(RunningDaemon, TraceOnAndOff) {
  startDaemon();
  CommandResult on = daemon_->srcctl({"trace", "on", "-l"});
  EXPECT_EQ("tolkvaskd: TRACE BEGIN request from SRC, trace was: 61F will set to: FFFFFFFF.\n", on.out) << on.err;
  EXPECT_TRUE(daemon_->waitForLog("The log file length during the TRACE will be 150000.", 10));
  CommandResult off = daemon_->srcctl({"trace", "off"});
  EXPECT_EQ("tolkvaskd: TRACE END request from SRC, trace was: FFFFFFFF setting to: 1F.\n", off.out);
  EXPECT_TRUE(daemon_->waitForLog("The log file length is back to 30000.", 10));
  CommandResult mask = daemon_->srcctl({"request", "787"});
  EXPECT_EQ("The current TraceMask is 0x1f\n", mask.out);
  CommandResult shortOn = daemon_->srcctl({"trace", "on"});
  EXPECT_EQ("tolkvaskd: TRACE BEGIN request from SRC, trace was: 1F will set to: 61F.\n", shortOn.out);
}

TEST_F(RunningDaemon, RefreshIsAcknowledged) {
  startDaemon();
  CommandResult r = daemon_->srcctl({"refresh"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("tolkvaskd: REFRESH request from SRC\n", r.out);
  EXPECT_TRUE(daemon_->waitForLog("REFRESH request from SRC.", 10));
}

TEST_F(RunningDaemon, SigusrOneIsLoggedAndIgnored) {
  startDaemon();
  kill(daemon_->pid(), SIGUSR1);
  EXPECT_TRUE(daemon_->waitForLog("Received signal [SIGUSR1 (10)]", 10)) << daemon_->log();
  EXPECT_TRUE(daemon_->running());
  EXPECT_EQ(0, daemon_->srcctl({"status", "-l"}).status);
}

TEST_F(RunningDaemon, SighupStaysPendingWithoutEffect) {
  startDaemon();
  kill(daemon_->pid(), SIGHUP);
  // The signal is blocked in every thread and waited for by none: it stays
  // pending on the process.
  std::string status;
  for (int i = 0; i < 50; ++i) {
    status = velt_test::readFile("/proc/" + std::to_string(daemon_->pid()) + "/status");
    if (status.find("ShdPnd:\t0000000000000001") != std::string::npos) break;
    usleep(20 * 1000);
  }
  EXPECT_NE(std::string::npos, status.find("ShdPnd:\t0000000000000001")) << status;
  EXPECT_TRUE(daemon_->running());
  EXPECT_EQ(std::string::npos, daemon_->log().find("SIGHUP"));
  EXPECT_EQ(0, daemon_->srcctl({"status", "-l"}).status);
}

TEST_F(RunningDaemon, MalformedRequestDatagramsNeverStopTheDaemon) {
  startDaemon();
  int s = socket(AF_UNIX, SOCK_DGRAM, 0);
  ASSERT_GE(s, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  std::string path = env_["VELT_SRC_DIR"] + "/tolkvaskd";
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(0, connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  unsigned seed = 42;
  std::string big(70000, 'x');
  for (int i = 0; i < 300; ++i) {
    std::string junk;
    size_t len = (i == 0) ? 0 : (i == 1 ? big.size() : rand_r(&seed) % 600);
    junk.resize(len);
    for (auto& c : junk) c = static_cast<char>(rand_r(&seed));
    if (i == 1) junk = big;
    ssize_t rc = send(s, junk.data(), junk.size(), 0);
    (void)rc;  // an oversized datagram may be refused by the kernel itself
  }
  close(s);
  CommandResult r = daemon_->srcctl({"status", "-l"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Status information for subsystem tolkvaskd:")) << r.out;
  EXPECT_TRUE(daemon_->running());
}

TEST_F(RunningDaemon, RequesterThatNeverReadsDoesNotHoldOtherOperators) {
  startDaemon();
  int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(s, 0);
  struct sockaddr_un self = {};
  self.sun_family = AF_UNIX;
  ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&self), sizeof(sa_family_t)));
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  std::string path = env_["VELT_SRC_DIR"] + "/tolkvaskd";
  strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  velt_src::Request longStatus;
  longStatus.action = velt_src::ACT_STATUS;
  longStatus.flags = 1;
  std::string request, why;
  ASSERT_EQ(0, velt_src::encodeRequest(longStatus, &request, &why)) << why;
  // Far more long status requests than this socket's queue holds replies
  // for, none of them read; a full daemon queue is waited out (bounded).
  int sent = 0;
  for (int tries = 0; sent < 200 && tries < 2000; ++tries) {
    if (sendto(s, request.data(), request.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
               sizeof addr) == static_cast<ssize_t>(request.size())) {
      ++sent;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  EXPECT_EQ(200, sent);
  CommandResult r = daemon_->srcctl({"--timeout", "1", "status", "-l"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Status information for subsystem tolkvaskd:")) << r.out;
  EXPECT_TRUE(daemon_->waitForLog("] dropped: the requester does not read its replies (no room to send). "
                                  "SRC replies dropped so far: ",
                                  10))
      << daemon_->log();
  close(s);
  EXPECT_TRUE(daemon_->running());
}

TEST_F(RunningDaemon, LostGroupServicesEndsWithStopCode5) {
  velt_test::Agent agent(dir_.path(), env_["VELT_AGENT_SOCKET"]);
  ASSERT_TRUE(agent.start()) << agent.log();
  startDaemon();
  ASSERT_TRUE(daemon_->waitForLog("TOLKVASK is now ready to roll. ", 30)) << daemon_->log();
  // The agent announces its version (2.5.0.0 or newer), which lets the
  // status show the daemon's start time.
  ASSERT_TRUE(daemon_->waitForLog("Got domainControlCB: TK_GS_DOMAIN_VERSION. veltActiveVersion is now", 30))
      << daemon_->log();
  // Once the configuration group is joined and the first configuration
  // committed, the protocols roll and the status says the daemon is
  // connected; the canonical form then has no connection line.
  ASSERT_TRUE(daemon_->waitForLog("Start to roll the protocols..", 30)) << daemon_->log();
  auto startsWith = [](const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; };
  CommandResult status = daemon_->srcctl({"status", "-l"});
  EXPECT_TRUE(startsWith(status.out,
                         "Status information for subsystem tolkvaskd:\nConnected to Group Services.\n"
                         "tolkvaskd started time: "))
      << status.out;
  CommandResult canonical = daemon_->srcctl({"request", "999"});
  EXPECT_TRUE(startsWith(canonical.out,
                         "Canonical LongStatus request from SRC.\n"
                         "Status information for subsystem tolkvaskd:\ntolkvaskd started time: "))
      << canonical.out;
  agent.kill9();
  ASSERT_TRUE(daemon_->waitExit(30));
  EXPECT_EQ(5, daemon_->exitStatus());
  std::string log = daemon_->log();
  EXPECT_NE(std::string::npos, log.find("tk_gs_dispatch() returns rc=TK_GS_GS_HAS_DIED errno=")) << log;
  EXPECT_NE(std::string::npos, log.find("stopcode=5. ExitCode=TOLKDied(5)")) << log;
}

TEST_F(RunningDaemon, WithoutAnAggregateFileTheDaemonStillRollsWithAnEmptyConfiguration) {
  // A site without aggregate devices has no AggregateIP.cfg: the shipped
  // refresh command fails on it, and the adapter membership must work all
  // the same.
  env_["SW_HERDLET_REFRESH_CMD"] = velt_test::refreshCommandPath();
  env_["SW_HERDLET_AGGIP_CFG"] = dir_.file("AggregateIP.cfg");
  velt_test::Agent agent(dir_.path(), env_["VELT_AGENT_SOCKET"]);
  ASSERT_TRUE(agent.start()) << agent.log();
  startDaemon();
  ASSERT_TRUE(daemon_->waitForLog("Start to roll the protocols..", 30)) << daemon_->log();
  std::string log = daemon_->log();
  EXPECT_NE(std::string::npos, log.find("Refresh process returns an error status.")) << log;
  EXPECT_NE(std::string::npos, log.find("refresh ended with status=256, starting with the aggregate configuration as "
                                        "it reads now"))
      << log;
  EXPECT_NE(std::string::npos, log.find("Error on opening agg_cfg file " + dir_.file("AggregateIP.cfg"))) << log;
  CommandResult status = daemon_->srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, status.out.find("Connected to Group Services.\n")) << status.out;
  EXPECT_NE(std::string::npos, status.out.find(" The current configuration id is 4294967295.\n")) << status.out;
}

TEST_F(RunningDaemon, RequestsFromOtherUsersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "SKIP: needs root to send as another user";
  startDaemon();
  // The socket directory is private to the daemon's user; open it so that
  // the refusal comes from the daemon's own check.
  std::string srcDir = env_["VELT_SRC_DIR"];
  ASSERT_EQ(0, chmod(srcDir.c_str(), 0755));
  ASSERT_EQ(0, chmod((srcDir + "/tolkvaskd").c_str(), 0777));
  ASSERT_EQ(0, chmod(dir_.path().c_str(), 0755));
  CommandResult r = velt_test::runCommand(
      {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", velt_test::srcctlPath(), "-s",
       "tolkvaskd", "status", "-l"},
      {{"VELT_SRC_DIR", srcDir}}, 30);
  EXPECT_NE(0, r.status);
  EXPECT_NE(std::string::npos, r.err.find("permission denied")) << r.out << r.err;
  EXPECT_EQ(std::string::npos, r.out.find("Status information")) << r.out;
  EXPECT_TRUE(daemon_->running());
}

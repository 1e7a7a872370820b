// Tests of GSController's connection against a stand-in agent (a
// SOCK_SEQPACKET listener in a temporary directory that speaks the agent
// protocol) and of the library's debug hooks.
#include "gs_controller.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "fake_agent.h"
#include "gscl_test_util.h"
#include "internal/gs_internal.h"

using namespace velt_gscl_V1;
using gscl_test::FakeAgent;
using gscl_test::kBound;
using gscl_test::TempDir;
using gscl_test::waitUntil;

namespace {

constexpr int kDaemonInterfaceWord = 0x30014;

// What the registered debug and trace routines received.
struct Report {
  bool debugRoute;
  int trclvl;
  std::string text;
};
std::mutex reportsMu;
std::vector<Report> reports;

void debugRoutine(int trclvl, char* text) {
  std::lock_guard<std::mutex> g(reportsMu);
  reports.push_back(Report{true, trclvl, text});
}
void traceRoutine(int trclvl, char* text) {
  std::lock_guard<std::mutex> g(reportsMu);
  reports.push_back(Report{false, trclvl, text});
}

std::vector<Report> takeReports() {
  std::lock_guard<std::mutex> g(reportsMu);
  std::vector<Report> r;
  r.swap(reports);
  return r;
}

bool anyReportContains(const std::vector<Report>& rs, const std::string& piece) {
  for (const Report& r : rs) {
    if (r.text.find(piece) != std::string::npos) return true;
  }
  return false;
}

// Makes an API enum field hold a value outside its range, as a C caller
// can (written as bytes: C++ itself may not form such a value).
template <typename E>
void storeIntIntoEnum(E* field, int v) {
  static_assert(sizeof *field == sizeof v, "API enums are int-sized");
  memcpy(field, &v, sizeof v);
}

// Connects c to agent (the agent answers the hello on another thread) and
// dispatches the domain control that follows the answer, so that the
// controller's queue is empty afterwards.
::testing::AssertionResult connectAndSettle(GSController& c, FakeAgent& agent) {
  auto served = std::async(std::launch::async, [&] { return agent.handshake(); });
  tk_gs_rc_t rc = c.initialize();
  bool handshook = served.get();
  if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "initialize returned " << gscl_rc_name(rc);
  if (!handshook) return ::testing::AssertionFailure() << "the stand-in agent's handshake failed";
  rc = c.dispatch(TK_GS_BLOCKING);
  if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch of the domain control returned " << gscl_rc_name(rc);
  return ::testing::AssertionSuccess();
}

// Each test runs with the agent socket path pointing into its own
// temporary directory and with the routines capturing reports.
class ControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty()) << "mkdtemp failed: " << strerror(errno);
    socketPath_ = dir_.path() + "/agent.sock";
    const char* old = getenv("VELT_AGENT_SOCKET");
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
    setenv("VELT_AGENT_SOCKET", socketPath_.c_str(), 1);
    GSSetDebugRtn(debugRoutine);
    GSSetTraceRtn(traceRoutine);
    oldLevel_ = GSDebugLevel();
    takeReports();
  }
  void TearDown() override {
    GSSetDebugRtn(nullptr);
    GSSetTraceRtn(nullptr);
    GSSetDebugLevel(oldLevel_);
    if (hadOld_) {
      setenv("VELT_AGENT_SOCKET", old_.c_str(), 1);
    } else {
      unsetenv("VELT_AGENT_SOCKET");
    }
  }

  TempDir dir_;
  std::string socketPath_;
  bool hadOld_ = false;
  std::string old_;
  int oldLevel_ = 0;
};

class GSControllerConnect : public ControllerTest {};
class GSControllerDispatch : public ControllerTest {};
class GSControllerQuit : public ControllerTest {};

}  // namespace

// ---- initialize ----

TEST_F(GSControllerConnect, NoAgentGivesNotConnectedAndReportsIt) {
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(kDaemonInterfaceWord, c.interfaceWord());
  EXPECT_EQ(TK_GS_NOT_CONNECTED, c.initialize());
  EXPECT_FALSE(c.isConnected());
  std::vector<Report> rs = takeReports();
  ASSERT_FALSE(rs.empty());
  EXPECT_FALSE(rs[0].debugRoute);
  EXPECT_NE(std::string::npos, rs[0].text.find(socketPath_)) << rs[0].text;
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, c.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, c.dispatch(TK_GS_NON_BLOCKING));
}

TEST_F(GSControllerConnect, StaleSocketFileGivesNotConnected) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  agent.stopListening();
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_NOT_CONNECTED, c.initialize());
}

TEST_F(GSControllerConnect, ListenerOfAnotherSocketTypeGivesNotConnected) {
  FakeAgent agent(socketPath_, SOCK_STREAM);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_NOT_CONNECTED, c.initialize());
}

TEST_F(GSControllerConnect, TooLongPathIsABadParameter) {
  std::string longPath = dir_.path() + "/" + std::string(200, 'a');
  setenv("VELT_AGENT_SOCKET", longPath.c_str(), 1);
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.initialize());
  EXPECT_TRUE(anyReportContains(takeReports(), "at most 107"));
}

TEST_F(GSControllerConnect, EmptyPathIsABadParameter) {
  setenv("VELT_AGENT_SOCKET", "", 1);
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.initialize());
  EXPECT_TRUE(anyReportContains(takeReports(), "empty"));
}

TEST_F(GSControllerConnect, UnreadableSocketGivesPermissionDenied) {
  if (geteuid() == 0) GTEST_SKIP() << "root is never refused by file permissions";
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  ASSERT_EQ(0, chmod(socketPath_.c_str(), 0));
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_PERMISSION_DENIED, c.initialize());
}

TEST_F(GSControllerConnect, AgentOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a listener as another user";
  // The directory must let the other user create its socket.
  ASSERT_EQ(0, chmod(dir_.path().c_str(), 0777));
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  int release[2];
  ASSERT_EQ(0, pipe(release));
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(ready[0]);
    close(release[1]);
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    FakeAgent impostor(socketPath_);
    if (impostor.error() != 0) _exit(3);
    char c = 'r';
    if (write(ready[1], &c, 1) != 1) _exit(4);
    // Serve until the test closes the pipe (or dies).
    ssize_t n = read(release[0], &c, 1);
    (void)n;
    _exit(0);
  }
  close(ready[1]);
  close(release[0]);
  struct pollfd p = {ready[0], POLLIN, 0};
  char c = 0;
  bool listening = poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kBound).count())) == 1 &&
                   read(ready[0], &c, 1) == 1;

  GSController ctl(kDaemonInterfaceWord);
  tk_gs_rc_t rc = listening ? ctl.initialize() : TK_GS_NOT_OK;

  close(release[1]);
  close(ready[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(listening) << "the other user's listener did not start, child status " << status;
  EXPECT_EQ(TK_GS_PERMISSION_DENIED, rc);
  EXPECT_FALSE(ctl.isConnected());
  EXPECT_TRUE(anyReportContains(takeReports(), "uid 65534"));
}

TEST_F(GSControllerConnect, ConnectsToTheAgentOnce) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  EXPECT_TRUE(c.isConnected());
  EXPECT_EQ(TK_GS_ALREADY_INITIALIZED, c.initialize());
  EXPECT_TRUE(c.isConnected());
}

TEST_F(GSControllerConnect, DefaultPathIsUsedWithoutTheVariable) {
  unsetenv("VELT_AGENT_SOCKET");
  struct stat st;
  if (stat(kDefaultAgentSocket, &st) == 0) GTEST_SKIP() << "an agent socket exists on this host";
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(TK_GS_NOT_CONNECTED, c.initialize());
  EXPECT_TRUE(anyReportContains(takeReports(), kDefaultAgentSocket));
}

TEST_F(GSControllerConnect, ReconnectsAfterQuit) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  c.quit();
  EXPECT_FALSE(c.isConnected());
  EXPECT_TRUE(agent.peerClosed());
  ASSERT_TRUE(connectAndSettle(c, agent));
  EXPECT_TRUE(c.isConnected());
}

// ---- dispatch ----

TEST_F(GSControllerDispatch, AgentClosingTheConnectionMeansGroupServicesDied) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  auto blocked = std::async(std::launch::async, [&] { return c.dispatch(TK_GS_BLOCKING); });
  gscl_test::OnScopeExit release([&] { c.quit(); });
  ASSERT_TRUE(waitUntil([&] { return c.dispatchersWaitingForTesting() == 1; }));
  agent.closeConnection();
  ASSERT_EQ(std::future_status::ready, blocked.wait_for(kBound));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, blocked.get());
  EXPECT_FALSE(c.isConnected());
  EXPECT_TRUE(anyReportContains(takeReports(), "lost the connection"));
  // It stays dead until the connection is dropped and made again.
  EXPECT_EQ(TK_GS_GS_HAS_DIED, c.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, c.dispatch(TK_GS_NON_BLOCKING));
  EXPECT_EQ(TK_GS_ALREADY_INITIALIZED, c.initialize());
  c.quit();
  EXPECT_TRUE(connectAndSettle(c, agent));
  EXPECT_TRUE(c.isConnected());
}

TEST_F(GSControllerDispatch, OneNotificationPerCall) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  EXPECT_EQ(TK_GS_NO_NOTIFICATION, c.dispatch(TK_GS_NON_BLOCKING));
  ASSERT_TRUE(agent.ping(1, 10));
  ASSERT_TRUE(agent.ping(2, 10));
  EXPECT_EQ(TK_GS_OK, c.dispatch(TK_GS_BLOCKING));
  ASSERT_TRUE(waitUntil([&] { return c.dispatch(TK_GS_NON_BLOCKING) == TK_GS_OK; }));
  EXPECT_EQ(TK_GS_NO_NOTIFICATION, c.dispatch(TK_GS_NON_BLOCKING));
  EXPECT_TRUE(c.isConnected());
}

TEST_F(GSControllerDispatch, OversizedPacketLosesTheConnection) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  takeReports();
  std::string packet = "VF";
  packet.push_back(1);
  packet.push_back(0);
  packet.append(70000, 'x');
  ASSERT_TRUE(agent.sendRaw(packet));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, c.dispatch(TK_GS_BLOCKING));
  EXPECT_FALSE(c.isConnected());
  EXPECT_TRUE(anyReportContains(takeReports(), "packet of 70004 bytes"));
}

// ---- quit ----

TEST_F(GSControllerQuit, ReleasesABlockedDispatch) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  auto blocked = std::async(std::launch::async, [&] { return c.dispatch(TK_GS_BLOCKING); });
  gscl_test::OnScopeExit release([&] { c.quit(); });
  ASSERT_TRUE(waitUntil([&] { return c.dispatchersWaitingForTesting() == 1; }));
  c.quit();
  ASSERT_EQ(std::future_status::ready, blocked.wait_for(kBound));
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, blocked.get());
  EXPECT_FALSE(c.isConnected());
  EXPECT_TRUE(agent.peerClosed());
}

TEST_F(GSControllerQuit, LeavesNoWakeUpForTheNextConnection) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  ASSERT_TRUE(connectAndSettle(c, agent));
  auto blocked = std::async(std::launch::async, [&] { return c.dispatch(TK_GS_BLOCKING); });
  gscl_test::OnScopeExit release([&] { c.quit(); });
  ASSERT_TRUE(waitUntil([&] { return c.dispatchersWaitingForTesting() == 1; }));
  c.quit();
  ASSERT_EQ(std::future_status::ready, blocked.wait_for(kBound));
  ASSERT_TRUE(connectAndSettle(c, agent));
  EXPECT_EQ(TK_GS_NO_NOTIFICATION, c.dispatch(TK_GS_NON_BLOCKING));
  // A new blocking dispatch waits for the agent, not for the old wake-up.
  auto next = std::async(std::launch::async, [&] { return c.dispatch(TK_GS_BLOCKING); });
  gscl_test::OnScopeExit releaseNext([&] { c.quit(); });
  ASSERT_TRUE(waitUntil([&] { return c.dispatchersWaitingForTesting() == 1; }));
  ASSERT_TRUE(agent.ping(7, 10));
  ASSERT_EQ(std::future_status::ready, next.wait_for(kBound));
  EXPECT_EQ(TK_GS_OK, next.get());
}

TEST_F(GSControllerQuit, IsIdempotent) {
  FakeAgent agent(socketPath_);
  ASSERT_EQ(0, agent.error());
  GSController c(kDaemonInterfaceWord);
  c.quit();   // never connected
  ASSERT_TRUE(connectAndSettle(c, agent));
  c.quit();
  c.quit();
  EXPECT_FALSE(c.isConnected());
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, c.dispatch(TK_GS_NON_BLOCKING));
}

// ---- callbacks and settings ----

namespace {

// Exposes the notification path's version recording.
class VersionedController : public GSController {
 public:
  VersionedController() : GSController(kDaemonInterfaceWord) {}
  using GSController::setActiveVersion;
};

tk_gs_velt_version_t version(uint16_t v, uint16_t r, uint16_t m, uint16_t f) {
  tk_gs_velt_version_t out;
  out.gs_version = v;
  out.gs_release = r;
  out.gs_modification = m;
  out.gs_fix = f;
  out.quick_version = static_cast<uint32_t>(v) << 24 | static_cast<uint32_t>(r) << 16 |
                      static_cast<uint32_t>(m) << 8 | f;
  return out;
}

}  // namespace

TEST(GSControllerCallbacks, BaseCallbacksAnswerOk) {
  GSController c(kDaemonInterfaceWord);
  tk_gs_responsiveness_notification_t ping = {0, 10};
  EXPECT_EQ(TK_GS_CALLBACK_OK, c.responsivenessCb(&ping));
  tk_gs_query_notification_t q = {0, 0};
  EXPECT_EQ(TK_GS_CALLBACK_OK, c.queryCb(&q));
  EXPECT_EQ(TK_GS_CALLBACK_NOT_OK, c.responsivenessCb(nullptr));
  EXPECT_EQ(TK_GS_CALLBACK_NOT_OK, c.queryCb(nullptr));
  EXPECT_EQ(TK_GS_CALLBACK_NOT_OK, c.domainControlCb(nullptr));
}

TEST(GSControllerCallbacks, DomainVersionEventSetsTheActiveVersion) {
  GSController c(kDaemonInterfaceWord);
  tk_gs_velt_version_t v;
  memset(&v, 0xff, sizeof v);
  EXPECT_EQ(TK_GS_NOT_OK, c.get_velt_active_version(&v));
  EXPECT_EQ(0, v.gs_version);
  EXPECT_EQ(0u, v.quick_version);

  tk_gs_domain_control_notification_t n;
  memset(&n, 0, sizeof n);
  n.gs_domain_ctrl_event = TK_GS_DOMAIN_MERGE;
  n.gs_velt_version = version(9, 9, 9, 9);
  EXPECT_EQ(TK_GS_CALLBACK_OK, c.domainControlCb(&n));
  EXPECT_EQ(TK_GS_NOT_OK, c.get_velt_active_version(&v));

  n.gs_domain_ctrl_event = TK_GS_DOMAIN_VERSION;
  n.gs_velt_version = version(3, 2, 1, 4);
  EXPECT_EQ(TK_GS_CALLBACK_OK, c.domainControlCb(&n));
  ASSERT_EQ(TK_GS_OK, c.get_velt_active_version(&v));
  EXPECT_EQ(3, v.gs_version);
  EXPECT_EQ(2, v.gs_release);
  EXPECT_EQ(1, v.gs_modification);
  EXPECT_EQ(4, v.gs_fix);
  EXPECT_EQ(0x03020104u, v.quick_version);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.get_velt_active_version(nullptr));
}

TEST(GSControllerCallbacks, SetActiveVersionReplacesTheLastOne) {
  VersionedController c;
  c.setActiveVersion(version(1, 0, 0, 0));
  c.setActiveVersion(version(2, 1, 0, 0));
  tk_gs_velt_version_t v;
  ASSERT_EQ(TK_GS_OK, c.get_velt_active_version(&v));
  EXPECT_EQ(2, v.gs_version);
  EXPECT_EQ(1, v.gs_release);
}

TEST(GSControllerSettings, ResponsivenessIsCheckedAndKept) {
  GSController c(kDaemonInterfaceWord);
  tk_gs_responsiveness_t r = {TK_GS_PING_RESPONSIVENESS, 3610, 10, nullptr, 0};
  EXPECT_EQ(TK_GS_OK, c.setResponsiveness(r));
  EXPECT_EQ(TK_GS_PING_RESPONSIVENESS, c.responsiveness().gs_responsiveness_type);
  EXPECT_EQ(3610, c.responsiveness().gs_responsiveness_interval);
  EXPECT_EQ(10, c.responsiveness().gs_responsiveness_response_time_limit);

  tk_gs_responsiveness_t bad = r;
  bad.gs_responsiveness_interval = -1;
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setResponsiveness(bad));
  bad = r;
  bad.gs_responsiveness_response_time_limit = -5;
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setResponsiveness(bad));
  bad = r;
  storeIntIntoEnum(&bad.gs_responsiveness_type, 9);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setResponsiveness(bad));
  bad = r;
  bad.gs_responsiveness_type = TK_GS_COUNTER_RESPONSIVENESS;   // without a counter
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setResponsiveness(bad));
  EXPECT_EQ(3610, c.responsiveness().gs_responsiveness_interval);   // unchanged

  int counter = 0;
  tk_gs_responsiveness_t counted = {TK_GS_COUNTER_RESPONSIVENESS, 5, 2, &counter, sizeof counter};
  EXPECT_EQ(TK_GS_OK, c.changeResponsiveness(&counted));
  EXPECT_EQ(TK_GS_COUNTER_RESPONSIVENESS, c.responsiveness().gs_responsiveness_type);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.changeResponsiveness(nullptr));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.changeResponsiveness(&bad));
}

TEST(GSControllerSettings, OnlyKnownSocketOptionsAreTaken) {
  GSController c(kDaemonInterfaceWord);
  EXPECT_FALSE(c.isSocketOptionSet(TK_GS_ENABLE_ADAPTER_INFO));
  EXPECT_EQ(TK_GS_OK, c.setSocketOption(TK_GS_ENABLE_ADAPTER_INFO));
  EXPECT_TRUE(c.isSocketOptionSet(TK_GS_ENABLE_ADAPTER_INFO));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setSocketOption(0));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setSocketOption(2));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setSocketOption(-1));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.setSocketOption(40));
  EXPECT_FALSE(c.isSocketOptionSet(2));
}

TEST(GSControllerSettings, NoFfdcIdBeforeAFailureAndNoDissolve) {
  GSController c(kDaemonInterfaceWord);
  EXPECT_EQ(nullptr, c.get_ffdc_id());
  EXPECT_EQ(TK_GS_NOT_SUPPORTED, c.dissolveDomain());
}

// ---- debug hooks ----

class GSDebugHooks : public ::testing::Test {
 protected:
  void SetUp() override {
    oldLevel_ = GSDebugLevel();
    takeReports();
  }
  void TearDown() override {
    GSSetDebugRtn(nullptr);
    GSSetTraceRtn(nullptr);
    GSSetDebugLevel(oldLevel_);
  }
  int oldLevel_ = 0;
};

TEST_F(GSDebugHooks, TextIsRoutedByTheDebugBit) {
  GSSetDebugRtn(debugRoutine);
  GSSetTraceRtn(traceRoutine);
  GSDebugPrintf(0x8000, "trace %d", 1);
  GSDebugPrintf(0x10000000 | 0x4, "debug %s", "two");
  std::vector<Report> rs = takeReports();
  ASSERT_EQ(2u, rs.size());
  EXPECT_FALSE(rs[0].debugRoute);
  EXPECT_EQ(0x8000, rs[0].trclvl);
  EXPECT_EQ("trace 1", rs[0].text);
  EXPECT_TRUE(rs[1].debugRoute);
  EXPECT_EQ(0x10000004, rs[1].trclvl);
  EXPECT_EQ("debug two", rs[1].text);
}

TEST_F(GSDebugHooks, NothingHappensWithoutARoutine) {
  GSSetTraceRtn(traceRoutine);   // only the trace routine
  GSDebugPrintf(0x10000000, "lost");
  EXPECT_TRUE(takeReports().empty());
  GSSetTraceRtn(nullptr);
  GSSetDebugRtn(debugRoutine);
  GSDebugPrintf(0, "lost too");
  EXPECT_TRUE(takeReports().empty());
}

TEST_F(GSDebugHooks, LongTextIsCutToTheBound) {
  GSSetTraceRtn(traceRoutine);
  std::string big(5000, 'y');
  GSDebugPrintf(0, "%s", big.c_str());
  std::vector<Report> rs = takeReports();
  ASSERT_EQ(1u, rs.size());
  EXPECT_EQ(1023u, rs[0].text.size());
}

TEST_F(GSDebugHooks, LevelAndNameAreKept) {
  EXPECT_STREQ("gscl", GSTraceDebugName());
  GSSetDebugLevel(0x80000005);
  EXPECT_EQ(static_cast<int>(0x80000005u), GSDebugLevel());
  GSSetDebugLevel(0);
  EXPECT_EQ(0, GSDebugLevel());
}

TEST(GSDebugLevelText, ParsesAsStrtolBaseZero) {
  int v = -1;
  EXPECT_EQ(0, internal::gsParseDebugLevel("12", &v));
  EXPECT_EQ(12, v);
  EXPECT_EQ(0, internal::gsParseDebugLevel("0x10", &v));
  EXPECT_EQ(16, v);
  EXPECT_EQ(0, internal::gsParseDebugLevel("010", &v));
  EXPECT_EQ(8, v);
  EXPECT_EQ(0, internal::gsParseDebugLevel("0x80000000", &v));
  EXPECT_EQ(static_cast<int>(0x80000000u), v);
  EXPECT_EQ(0, internal::gsParseDebugLevel("-3", &v));
  EXPECT_EQ(-3, v);
  v = 77;
  EXPECT_EQ(-1, internal::gsParseDebugLevel(nullptr, &v));
  EXPECT_EQ(-1, internal::gsParseDebugLevel("", &v));
  EXPECT_EQ(-1, internal::gsParseDebugLevel("12abc", &v));
  EXPECT_EQ(-1, internal::gsParseDebugLevel("verbose", &v));
  EXPECT_EQ(-1, internal::gsParseDebugLevel("0x100000000", &v));
  EXPECT_EQ(-1, internal::gsParseDebugLevel("99999999999999999999999", &v));
  EXPECT_EQ(77, v);
}

TEST(GSDebugLevelDeathTest, InitialLevelComesFromTheEnvironment) {
  // The level is read once per process, so a fresh process (the death
  // test's child runs the test program anew) shows it.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("VELT_GSCL_DEBUG_LEVEL", "0x80000010", 1);
  EXPECT_EXIT(exit(GSDebugLevel() == static_cast<int>(0x80000010u) ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
  setenv("VELT_GSCL_DEBUG_LEVEL", "loud", 1);
  EXPECT_EXIT(exit(GSDebugLevel() == 0 ? 0 : 1), ::testing::ExitedWithCode(0), "");
  unsetenv("VELT_GSCL_DEBUG_LEVEL");
}

// The configuration monitor against a real agent (`veltd --standalone`)
// through the real libvx_mc: the initial harvests fill the adapter table
// with the agent's own interfaces, the leader keeps an event session with
// its five registrations, a killed agent makes it drop them and retry the
// session every 5 s until the agent is back, a node that is not the leader
// opens no event session until it becomes one, and an interface that
// appears or goes away in the agent's network namespace reaches the table
// through the resource events. The agent is killed at the end of every
// test, also a failing one.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AMCfgMonitor.h"
#include "AMController.h"
#include "AMPropagate.h"
#include "TraceStream.h"
#include "agent_harness.h"
#include "sw_adapter_info.h"
#include "table_test_support.h"
#include "vx_mc.h"

namespace {

using velt_test::AgentProcess;
using velt_test::CommandResult;
using velt_test::TempDir;

// Everything here answers within milliseconds; the bound only ends a test
// that would otherwise hang.
constexpr std::chrono::milliseconds kBound{10000};

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds bound = kBound) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

// The traced text of a trace log line: what follows the thread id.
std::string traceText(const std::string& line) {
  size_t at = line.find("] ");
  return at == std::string::npos ? line : line.substr(at + 2);
}

// Lines whose traced text contains needle.
int countOf(const std::string& log, const std::string& needle) {
  int n = 0;
  for (const std::string& line : linesOf(log)) n += traceText(line).find(needle) != std::string::npos ? 1 : 0;
  return n;
}

// Position of the first line at or after from whose traced text contains
// needle; npos when none.
size_t lineIndexOf(const std::string& log, const std::string& needle, size_t from = 0) {
  std::vector<std::string> lines = linesOf(log);
  for (size_t i = from; i < lines.size(); ++i)
    if (traceText(lines[i]).find(needle) != std::string::npos) return i;
  return std::string::npos;
}

// The IPv4 address of interface name in this thread's network namespace,
// in network byte order; 0 when it has none.
uint32_t ipv4Of(const std::string& name) {
  struct ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return 0;
  uint32_t found = 0;
  for (struct ifaddrs* a = all; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_INET || name != a->ifa_name) continue;
    found = reinterpret_cast<struct sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr;
    break;
  }
  freeifaddrs(all);
  return found;
}

std::string dotted(uint32_t addr) {
  char text[INET_ADDRSTRLEN] = "";
  struct in_addr a;
  a.s_addr = addr;
  inet_ntop(AF_INET, &a, text, sizeof text);
  return text;
}

// The connections of this process that the agent's log shows accepted
// ("connected") and not closed since, by the agent that started last;
// *accepted counts every one that agent accepted.
int openConnectionsOfThisProcess(const std::string& agentLog, int* accepted = nullptr) {
  const std::string ours = "(pid " + std::to_string(getpid()) + ",";
  std::set<std::string> open;
  int seen = 0;
  for (const std::string& line : linesOf(agentLog)) {
    // "veltd V on node N serving SOCKET (...)": an agent started.
    if (line.find(": info: veltd ") != std::string::npos && line.find(" serving ") != std::string::npos) {
      open.clear();
      seen = 0;
      continue;
    }
    if (line.find(ours) == std::string::npos) continue;
    size_t at = line.find("client ");
    if (at == std::string::npos) continue;
    at += strlen("client ");
    std::string id = line.substr(at, line.find(' ', at) - at);
    if (line.find(") connected") != std::string::npos) {
      open.insert(id);
      ++seen;
    } else if (line.find(") closed: ") != std::string::npos) {
      open.erase(id);
    }
  }
  if (accepted != nullptr) *accepted = seen;
  return static_cast<int>(open.size());
}

// The propagator as far as the monitor sees it: the leader question is
// answered with `leader`; the harvest requests of the callbacks are only
// counted (pendingNetInterfaceEvents), never acted on. Thread-safe.
class LeaderSwitchPropagator : public AMPropagator {
 public:
  void* run(void*) override { return nullptr; }
  int postSyncEvent(_AMProEventType) override { return 0; }
  pid_t refreshPid() const override { return -1; }
  void clearRefreshPid() override {}
  void refreshCompleted(int) override {}
  void refreshRequested() override {}
  bool isCfgProviderActive() const override { return false; }
  void doLongStatus() override {}
  void doCanonicalLongStatus() override {}
  int postDelayedDownEvent() override { return 1; }
  int isGL() const override { return leader.load(); }

  std::atomic<int> leader{0};
};

// Each test: the adapter-table fixture (a controller in the cluster domain
// type with a fresh table, node 1, the replaced monotonic clock and local
// interface list), the trace log in a private directory, the stand-in
// propagator, and a standalone agent in the same directory that publishes
// every interface it has; the monitor reaches it through
// VELT_AGENT_SOCKET.
class CfgMonitorAgent : public table_test::TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_FALSE(dir_.path().empty()) << "no private directory";
    logFile_ = dir_.file("tolkvaskd.log");
    traceMarket = TraceStream::traceMarket;
    traceMarket->resumeMarket();
    client_ = std::make_unique<TraceClient>(traceMarket, 0);
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x7FFF & ~TRACE_BLOCK));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    static TraceServer* server = new TraceServer(traceMarket);
    traceServer = server;
    writer_ = server;

    hasML0OnTheNode.store(false);
    AMController::_exiting = 0;
    prop_ = new LeaderSwitchPropagator();
    AMController::propagator = prop_;
    monitor_ = ctl_->cfgMonitor;
    ASSERT_NE(monitor_, nullptr);
    agent_ = std::make_unique<AgentProcess>(dir_.path());
    setenv("VELT_AGENT_SOCKET", agent_->socketPath().c_str(), 1);
  }

  void TearDown() override {
    // The agent goes first: a monitor inside mc_dispatch comes back when
    // the connection breaks.
    killAgent();
    stopMonitor();
    unsetenv("VELT_AGENT_SOCKET");
    if (HasFailure()) {
      std::cerr << "---- monitor log ----\n" << tail(log()) << "---- agent log ----\n"
                << tail(agent_ ? agent_->log() : std::string()) << std::endl;
    }
    agent_.reset();
    if (ctl_ != nullptr) {
      ctl_->cfgMonitor = nullptr;
      delete monitor_;
    }
    monitor_ = nullptr;
    AMController::propagator = nullptr;
    delete prop_;
    prop_ = nullptr;
    hasML0OnTheNode.store(false);
    isIBenv.store(false);
    traceMarket->drainAllLogs();
    client_.reset();
    TableFixture::TearDown();
  }

  static std::string tail(const std::string& text) {
    return text.size() > 12000 ? text.substr(text.size() - 12000) : text;
  }

  // Every line traced so far. Only finished lines are written: the
  // market's own drain would end the lines other threads are still
  // assembling (and, while it runs, keep their endl from ending them).
  std::string log() {
    writer_->drainAllLogs();
    return readFile(logFile_);
  }

  ::testing::AssertionResult waitForTrace(const std::string& needle, int count = 1,
                                          std::chrono::milliseconds bound = kBound) {
    if (waitUntil([&] { return countOf(log(), needle) >= count; }, bound)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << needle << "\" was not traced " << count << " time(s); log:\n"
                                         << tail(log());
  }

  // The agent that publishes every interface of its network namespace.
  ::testing::AssertionResult startAgent() {
    if (!agent_->startReady({"--interfaces", "*"}))
      return ::testing::AssertionFailure() << "veltd did not start:\n" << agent_->log() << agent_->err();
    return ::testing::AssertionSuccess();
  }

  void killAgent() {
    if (agent_ == nullptr || !agent_->running()) return;
    agent_->signal(SIGKILL);
    if (!agent_->waitExit(static_cast<int>(kBound.count()))) ADD_FAILURE() << "veltd did not end after SIGKILL";
  }

  // A new agent on the same socket and state directory.
  ::testing::AssertionResult restartAgent() {
    agent_ = std::make_unique<AgentProcess>(dir_.path());
    return startAgent();
  }

  // The agent's own node id, as it keeps it in its state directory.
  uint64_t agentNodeId() { return strtoull(readFile(agent_->stateDir() + "/node-id").c_str(), nullptr, 16); }

  void startMonitor() {
    ASSERT_EQ(0, monitor_->start(nullptr));
    started_ = true;
  }

  // The thread waits for a wake-up with nothing queued.
  bool monitorIdle() { return monitor_->waitersForTesting() == 1 && monitor_->pendingSyncEvents() == 0; }

  // The leader came through the registrations to its dispatch: n times
  // " Now registered ..." and, after the last of them, "mc_dispatch"
  // traced with the thread out of its wait (in or at mc_dispatch).
  ::testing::AssertionResult waitDispatching(int n) {
    bool ok = waitUntil([&] {
      std::string text = log();
      if (countOf(text, " Now registered to NetworkInterface for event handle with KOR deamon") < n) return false;
      std::vector<std::string> lines = linesOf(text);
      size_t last = 0;
      for (size_t i = 0; i < lines.size(); ++i)
        if (traceText(lines[i]).find(" Now registered to NetworkInterface") != std::string::npos) last = i;
      for (size_t i = last; i < lines.size(); ++i)
        if (traceText(lines[i]) == "mc_dispatch") return monitor_->waitersForTesting() == 0;
      return false;
    });
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the monitor did not reach mc_dispatch after registration " << n
                                         << "; log:\n"
                                         << tail(log());
  }

  // Ends the monitor's wait as its time-out would: the monotonic clock the
  // retry counting reads moves on by the wait's length, and the thread is
  // woken.
  ::testing::AssertionResult elapseWait() {
    int secs = monitor_->waitSecsForTesting();
    if (secs < 0) return ::testing::AssertionFailure() << "the monitor waits without a time-out";
    table_test::advanceSeconds(secs);
    monitor_->postSyncEvent(0);
    return ::testing::AssertionSuccess();
  }

  void stopMonitor() {
    if (!started_) return;
    monitor_->stop();
    if (!waitUntil([&] { return monitor_->getThreadState() == GS_THREAD_STOPPED; })) {
      // Joining would hang the run until ctest's time-out; the agent is
      // gone already, so nothing is left behind.
      std::cerr << "the monitor thread did not stop; log:\n" << tail(log()) << std::endl;
      abort();
    }
    monitor_->join();
    started_ = false;
  }

  AMAdapterItem* row(int node, const char* name) {
    GSReadGuard hold(*table_);
    return table_->locateAdapterItem(node, _idxFromInterfaceName(name));
  }
  bool configured(int node, const char* name) {
    AMAdapterItem* r = row(node, name);
    GSReadGuard hold(*table_);
    return r != nullptr && r->isConfiged;
  }
  uint32_t rowAddress(int node, const char* name) {
    AMAdapterItem* r = row(node, name);
    GSReadGuard hold(*table_);
    return r != nullptr ? r->ipaddr : 0;
  }

  TempDir dir_;
  std::string logFile_;
  std::unique_ptr<TraceClient> client_;
  TraceServer* writer_ = nullptr;  // not started: log() writes from the test thread
  std::unique_ptr<AgentProcess> agent_;
  LeaderSwitchPropagator* prop_ = nullptr;
  AMCfgMonitor* monitor_ = nullptr;
  bool started_ = false;
};

TEST_F(CfgMonitorAgent, TheLeaderHarvestsTheAgentsInterfacesThenRegistersAndDispatches) {
  const uint32_t eth0 = ipv4Of("eth0");
  ASSERT_NE(0u, eth0) << "this test expects the machine's eth0 with an IPv4 address";
  // The local scan says eth0 is 10.0.0.1; only the agent can say otherwise.
  ASSERT_NE(dotted(eth0), "10.0.0.1");
  ASSERT_TRUE(startAgent());
  prop_->leader = 1;
  startMonitor();
  ASSERT_TRUE(waitDispatching(1));

  // Node 1 is known by the id the agent keeps, and its eth0 is the row
  // KOR described.
  const uint64_t nodeId = agentNodeId();
  ASSERT_NE(0u, nodeId);
  EXPECT_EQ(1, getNodeNumFromNodeId(nodeId));
  EXPECT_TRUE(configured(1, "eth0"));
  EXPECT_EQ(dotted(eth0), dotted(rowAddress(1, "eth0")));
  {
    GSReadGuard hold(*table_);
    EXPECT_EQ(1, table_->isHarvested());
  }

  std::string text = log();
  size_t a = lineIndexOf(text, "Initial harvest of PeerNodes");
  size_t b = lineIndexOf(text, "Initial harvest of harvestGblPeerNodes");
  size_t c = lineIndexOf(text, "Initial harvest of NetworkInterfaces");
  size_t d = lineIndexOf(text, "There may be some changes: NetChanges =");
  size_t e = lineIndexOf(text, " Starting KOR Session");
  size_t f = lineIndexOf(text, " Connected to KOR deamon");
  size_t g = lineIndexOf(text, " Now registered to NetworkInterface for event handle with KOR deamon");
  ASSERT_NE(std::string::npos, a) << text;
  ASSERT_NE(std::string::npos, b) << text;
  ASSERT_NE(std::string::npos, c) << text;
  ASSERT_NE(std::string::npos, d) << text;
  ASSERT_NE(std::string::npos, e) << text;
  ASSERT_NE(std::string::npos, f) << text;
  ASSERT_NE(std::string::npos, g) << text;
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);
  EXPECT_LT(d, e);
  EXPECT_LT(e, f);
  EXPECT_LT(f, g);
  EXPECT_EQ(0, countOf(text, "harvestGblPeers: mc_"));
  EXPECT_EQ(0, countOf(text, "harvestGblNI: mc_"));
  // The agent took all five registrations.
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode(ResourceDefined) rc=0, regid="));
  EXPECT_EQ(1, countOf(text, "Registering Zel.PeerNode(ResourceUndefined) rc=0, regid="));
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface(ResourceDefined) rc=0, regid="));
  EXPECT_EQ(1, countOf(text, "Registering Zel.NetworkInterface(ResourceUndefined) rc=0, regid="));
  EXPECT_EQ(1, countOf(text, "Zel.NetworkInterface/Resource rc=0, errnum=0, regid=")) << text;
  EXPECT_TRUE(monitor_->isRegisteredToAll());
  EXPECT_NE(0u, monitor_->session_handle);
  // Of this process's connections only the event session stays open; the
  // harvests' private sessions were ended.
  int accepted = 0;
  EXPECT_TRUE(waitUntil([&] { return openConnectionsOfThisProcess(agent_->log(), &accepted) == 1; }))
      << agent_->log();
  EXPECT_GE(accepted, 4);  // three harvests and the event session
}

TEST_F(CfgMonitorAgent, AKilledAgentIsLeftAndTheSessionRetriedUntilItIsBack) {
  ASSERT_TRUE(startAgent());
  prop_->leader = 1;
  startMonitor();
  ASSERT_TRUE(waitDispatching(1));
  const mc_sess_hndl_t first = monitor_->session_handle;

  killAgent();
  ASSERT_TRUE(waitForTrace(" startKORSession failed. rc="));
  ASSERT_TRUE(waitUntil([&] { return monitorIdle(); })) << log();
  EXPECT_EQ(AMCfgMonitor::kRetrySecs, monitor_->waitSecsForTesting());
  EXPECT_EQ(0u, monitor_->session_handle);
  EXPECT_FALSE(monitor_->isRegisteredToAll());
  std::string text = log();
  size_t lost = lineIndexOf(text, "returned from mc_dispatch with korapi.rc=" + std::to_string(MC_ECONNLOST));
  size_t dropped = lineIndexOf(text, "Finishing Zel.NetworkInterface(ConfigChanged) registration", lost);
  size_t finished = lineIndexOf(text, " Finishing KOR Session", lost);
  size_t starting = lineIndexOf(text, " Starting KOR Session", lost);
  size_t failed = lineIndexOf(text, " startKORSession failed. rc=" + std::to_string(MC_ENOAGENT) + ", Retry after 5 secs");
  ASSERT_NE(std::string::npos, lost) << text;
  ASSERT_NE(std::string::npos, dropped) << text;
  ASSERT_NE(std::string::npos, finished) << text;
  ASSERT_NE(std::string::npos, starting) << text;
  ASSERT_NE(std::string::npos, failed) << text;
  EXPECT_LT(dropped, finished);
  EXPECT_LT(finished, starting);
  EXPECT_LT(starting, failed);
  EXPECT_EQ(1, countOf(text, " startKORSession failed."));
  // Straight from the lost dispatch to a new session: nothing was tried on
  // the dead one.
  EXPECT_EQ(0, countOf(text, " not able to register NI events")) << text;
  EXPECT_EQ(1, countOf(text, " Finishing KOR Session"));

  // While the agent is away every retry fails and waits 5 s again.
  ASSERT_TRUE(elapseWait());
  ASSERT_TRUE(waitForTrace(" startKORSession failed.", 2));
  ASSERT_TRUE(waitUntil([&] { return monitorIdle(); })) << log();
  EXPECT_EQ(AMCfgMonitor::kRetrySecs, monitor_->waitSecsForTesting());

  // Back on the same socket and state directory: the next retry connects
  // and registers again.
  ASSERT_TRUE(restartAgent());
  ASSERT_TRUE(elapseWait());
  ASSERT_TRUE(waitDispatching(2));
  text = log();
  EXPECT_EQ(2, countOf(text, " Connected to KOR deamon")) << text;
  EXPECT_EQ(2, countOf(text, " startKORSession failed."));
  EXPECT_TRUE(monitor_->isRegisteredToAll());
  EXPECT_NE(0u, monitor_->session_handle);
  EXPECT_NE(first, monitor_->session_handle);
  EXPECT_TRUE(waitUntil([&] { return openConnectionsOfThisProcess(agent_->log()) == 1; })) << agent_->log();
  // The initial harvests are not repeated.
  EXPECT_EQ(1, countOf(text, "Initial harvest of NetworkInterfaces"));
}

TEST_F(CfgMonitorAgent, TheRetryTimeOutAloneBringsTheSessionBack) {
  // No wake-up from the test: the monitor's own 5 s wait ends the retry.
  ASSERT_TRUE(startAgent());
  prop_->leader = 1;
  startMonitor();
  ASSERT_TRUE(waitDispatching(1));
  killAgent();
  ASSERT_TRUE(waitForTrace(" startKORSession failed. rc="));
  const auto failedAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(restartAgent());
  ASSERT_TRUE(waitForTrace(" Connected to KOR deamon", 2,
                           std::chrono::seconds(AMCfgMonitor::kRetrySecs) + kBound));
  const auto connectedAt = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitDispatching(2));
  // Not sooner than the retry delay, less the little it took to see the
  // failure traced.
  EXPECT_GE(connectedAt - failedAt, std::chrono::milliseconds(AMCfgMonitor::kRetrySecs * 1000 - 500));
  // Every failure waited the first period's 5 s.
  std::string text = log();
  const int failures = countOf(text, " startKORSession failed.");
  EXPECT_GE(failures, 1);
  EXPECT_EQ(failures, countOf(text, ", Retry after 5 secs")) << text;
}

TEST_F(CfgMonitorAgent, ANonLeaderOpensNoEventSessionUntilItLeads) {
  ASSERT_TRUE(startAgent());
  prop_->leader = 0;
  startMonitor();
  ASSERT_TRUE(waitForTrace("I'm not a GL, ..Sleep again"));
  ASSERT_TRUE(waitUntil([&] { return monitorIdle(); })) << log();
  EXPECT_EQ(-1, monitor_->waitSecsForTesting());
  EXPECT_EQ(0u, monitor_->session_handle);
  EXPECT_FALSE(monitor_->isRegisteredToAll());
  // The harvests happened...
  EXPECT_TRUE(configured(1, "eth0"));
  EXPECT_EQ(getNodeNumFromNodeId(agentNodeId()), 1);
  // ...through private sessions that are all ended again, and no event
  // session was asked for.
  int accepted = 0;
  EXPECT_TRUE(waitUntil([&] { return openConnectionsOfThisProcess(agent_->log(), &accepted) == 0; }))
      << agent_->log();
  EXPECT_GE(accepted, 3);
  std::string text = log();
  EXPECT_EQ(0, countOf(text, " Starting KOR Session")) << text;
  EXPECT_EQ(0, countOf(text, "Registering "));

  // Leadership: the propagator wakes the monitor through the controller.
  prop_->leader = 1;
  ctl_->wakeupCfgMonitor(0);
  ASSERT_TRUE(waitDispatching(1));
  text = log();
  EXPECT_EQ(1, countOf(text, " Starting KOR Session"));
  EXPECT_EQ(1, countOf(text, " Connected to KOR deamon"));
  EXPECT_LT(lineIndexOf(text, "I'm not a GL, ..Sleep again"), lineIndexOf(text, " Starting KOR Session"));
  EXPECT_TRUE(monitor_->isRegisteredToAll());
  EXPECT_NE(0u, monitor_->session_handle);
  EXPECT_TRUE(waitUntil([&] { return openConnectionsOfThisProcess(agent_->log()) == 1; })) << agent_->log();
  // The harvests were not repeated for the leader.
  EXPECT_EQ(1, countOf(text, "Initial harvest of PeerNodes"));
  EXPECT_EQ(1, countOf(text, "Initial harvest of NetworkInterfaces"));
}

// ---------------------------------------------------------------- events

std::string ipTool() {
  for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

// The same, with the test thread (and so the agent it starts) in a network
// namespace of its own, where the test adds and removes interfaces. Needs
// root; skipped with a visible "SKIP:" line otherwise.
class CfgMonitorAgentEvents : public CfgMonitorAgent {
 protected:
  void SetUp() override {
    std::string why;
    if (geteuid() != 0) {
      why = "needs root for a private network namespace";
    } else if (ipTool().empty()) {
      why = "no ip(8) tool here";
    } else {
      savedNetns_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
      if (savedNetns_ < 0) {
        why = std::string("cannot keep this thread's network namespace: ") + strerror(errno);
      } else if (unshare(CLONE_NEWNET) != 0) {
        why = std::string("cannot make a private network namespace: ") + strerror(errno);
      }
    }
    if (!why.empty()) {
      fprintf(stderr, "SKIP: %s\n", why.c_str());
      GTEST_SKIP() << "SKIP: " << why;
    }
    fixtureSetUp_ = true;
    CfgMonitorAgent::SetUp();
  }

  void TearDown() override {
    if (fixtureSetUp_) CfgMonitorAgent::TearDown();
    // Back to where the next test expects to be; the private namespace
    // and its interfaces go away with the last user.
    if (savedNetns_ >= 0) {
      if (setns(savedNetns_, CLONE_NEWNET) != 0) {
        fprintf(stderr, "cannot return to the test's network namespace: %s\n", strerror(errno));
        abort();
      }
      close(savedNetns_);
    }
  }

  ::testing::AssertionResult ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ipTool()};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandResult r = velt_test::runCommand(argv, {}, velt_test::kPromptMs);
    if (r.status == 0) return ::testing::AssertionSuccess();
    std::string line;
    for (const std::string& a : args) line += " " + a;
    return ::testing::AssertionFailure() << "ip" << line << " failed: " << r.err;
  }

  // An interface with address/24, up: a dummy where the kernel has them,
  // otherwise one end of a veth pair (the other end has no address, so the
  // agent publishes only this one).
  ::testing::AssertionResult addInterface(const std::string& name, const std::string& address) {
    if (!ip({"link", "add", name, "type", "dummy"})) {
      ::testing::AssertionResult veth = ip({"link", "add", name, "type", "veth", "peer", "name", name + "p"});
      if (!veth) return veth;
    }
    ::testing::AssertionResult r = ip({"addr", "add", address + "/24", "dev", name});
    if (r) r = ip({"link", "set", name, "up"});
    return r;
  }

  int savedNetns_ = -1;
  bool fixtureSetUp_ = false;
};

TEST_F(CfgMonitorAgentEvents, AnInterfaceThatComesAndGoesReachesTheTableThroughEvents) {
  ASSERT_TRUE(addInterface("kmon0", "10.77.0.1"));
  ASSERT_TRUE(startAgent());
  prop_->leader = 1;
  startMonitor();
  ASSERT_TRUE(waitDispatching(1));
  // The harvest saw the interface there was; the new one is not known yet.
  EXPECT_TRUE(configured(1, "kmon0"));
  EXPECT_EQ(nullptr, row(1, "kmon1"));
  EXPECT_EQ(0, countOf(log(), "NIClsEventCallback"));
  const int postsBefore = prop_->pendingNetInterfaceEvents();

  ASSERT_TRUE(addInterface("kmon1", "10.77.1.1"));
  ASSERT_TRUE(waitUntil([&] { return configured(1, "kmon1"); })) << log() << agent_->log();
  EXPECT_EQ("10.77.1.1", dotted(rowAddress(1, "kmon1")));
  ASSERT_TRUE(waitForTrace("NIClsEventCallback"));
  std::string text = log();
  EXPECT_GE(countOf(text, "In setAdapterDefinedWithLock(), Call setAdapterDefinedWithoutLock()"), 1) << text;
  // The propagator was asked for a harvest.
  EXPECT_GT(prop_->pendingNetInterfaceEvents(), postsBefore);
  // The event session stayed: events end in a normal return, not a new
  // session.
  EXPECT_EQ(1, countOf(text, " Starting KOR Session"));

  const int classEvents = countOf(text, "NIClsEventCallback");
  ASSERT_TRUE(ip({"link", "del", "kmon1"}));
  ASSERT_TRUE(waitUntil([&] { return !configured(1, "kmon1"); })) << log() << agent_->log();
  EXPECT_NE(nullptr, row(1, "kmon1"));  // the row stays, undefined
  ASSERT_TRUE(waitForTrace("NIClsEventCallback", classEvents + 1));
  EXPECT_TRUE(configured(1, "kmon0"));
  text = log();
  EXPECT_GE(countOf(text, "In setAdapterUndefinedWithoutLock(), Call accumulate_NAM_changes()"), 1) << text;
  EXPECT_EQ(1, countOf(text, " Starting KOR Session"));
  EXPECT_EQ(0, countOf(text, "returned from mc_dispatch with korapi.rc="));
}

}  // namespace

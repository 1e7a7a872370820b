// Shared set-up of the configuration monitor tests: the adapter-table
// fixture (a controller in the cluster domain type with a fresh table, the
// replaced monotonic clock and interface list), KOR in memory (fake_vx_mc),
// a propagator stand-in that records what it is told and answers the
// leader question as the test says, the trace log in a private file, and
// helpers that build KOR resources and drive the monitor thread.
#ifndef VELT_TESTS_UNIT_GLOBALAM_MONITOR_TEST_SUPPORT_H_
#define VELT_TESTS_UNIT_GLOBALAM_MONITOR_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AMCfgMonitor.h"
#include "AMController.h"
#include "TraceStream.h"
#include "fake_vx_mc.h"
#include "sw_adapter_info.h"
#include "table_test_support.h"
#include "vx_cu.h"

namespace monitor_test {

using fake_mc::Attr;
using fake_mc::Resource;
using table_test::kMyNode;

constexpr std::chrono::milliseconds kBound{10000};

inline bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds bound = kBound) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline int countOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++n;
  return n;
}

// The traced texts of the lines that contain needle, in order.
inline std::vector<std::string> linesWith(const std::string& text, const std::string& needle) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line))
    if (line.find(needle) != std::string::npos) out.push_back(line);
  return out;
}

// ------------------------------------------------------------ resources

// A "Zel.PeerNode" as KOR reports it.
inline Resource peerNode(uint32_t number, uint64_t nodeId) {
  Resource r;
  r.handle = "node/" + std::to_string(number);
  r.attrs.push_back(Attr::Uint64Array("NodeIDs", {nodeId}));
  r.attrs.push_back(Attr::Uint32Array("NodeList", {number}));
  return r;
}

// The node id KOR gives node n in these tests.
inline uint64_t idOfNode(int n) { return 0xC0DE000000000000ULL + static_cast<uint64_t>(n); }

// A "Zel.NetworkInterface" with every attribute the daemon asks for.
inline Resource networkInterface(const std::string& name, uint64_t nodeId, const std::string& ip,
                                 uint32_t networkId = 3, int32_t lid = 17) {
  Resource r;
  r.handle = "if/" + name;
  r.attrs.push_back(Attr::Text("Name", name));
  r.attrs.push_back(Attr::Uint64Array("NodeIDs", {nodeId}));
  r.attrs.push_back(Attr::Text("DeviceName", "dev_" + name));
  r.attrs.push_back(Attr::Text("IPAddress", ip));
  r.attrs.push_back(Attr::Uint32("DeviceSubType", 5));
  r.attrs.push_back(Attr::Int32("LogicalID", lid));
  r.attrs.push_back(Attr::Uint32("NetworkID", networkId));
  r.attrs.push_back(Attr::Uint64("NetworkID64", 0xABCD0000ULL + networkId));
  r.attrs.push_back(Attr::Uint32("PortID", 2));
  r.attrs.push_back(Attr::Text("HardwareAddress", "00:11:22:33:44:55"));
  r.attrs.push_back(Attr::Text("DevicePathName", "/dev/" + name));
  return r;
}

// Replaces (or adds) one attribute of a resource.
inline Resource& withAttr(Resource& r, const Attr& attr) {
  for (Attr& a : r.attrs) {
    if (a.name == attr.name) {
      a = attr;
      return r;
    }
  }
  r.attrs.push_back(attr);
  return r;
}

inline Resource& withoutAttr(Resource& r, const std::string& name) {
  r.attrs.erase(std::remove_if(r.attrs.begin(), r.attrs.end(), [&](const Attr& a) { return a.name == name; }),
                r.attrs.end());
  return r;
}

// ------------------------------------------------------------ propagator

// Records the events posted to it and answers the leader question with
// `leader`.
class RecordingPropagator : public AMPropagator {
 public:
  void* run(void*) override { return nullptr; }
  int postSyncEvent(_AMProEventType event) override {
    std::lock_guard<std::mutex> hold(mu_);
    events_.push_back(event);
    return 0;
  }
  pid_t refreshPid() const override { return -1; }
  void clearRefreshPid() override {}
  void refreshCompleted(int) override {}
  void refreshRequested() override {}
  bool isCfgProviderActive() const override { return false; }
  void doLongStatus() override {}
  void doCanonicalLongStatus() override {}
  int postDelayedDownEvent() override { return 1; }
  int isGL() const override { return leader.load(); }

  int count(_AMProEventType event) {
    std::lock_guard<std::mutex> hold(mu_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), event));
  }
  void forget() {
    std::lock_guard<std::mutex> hold(mu_);
    events_.clear();
  }

  std::atomic<int> leader{0};

 private:
  std::mutex mu_;
  std::vector<_AMProEventType> events_;
};

// ---------------------------------------------------------------- fixture

// The table fixture plus KOR in memory, the recording propagator and the
// trace log (every level but the block lines). The controller's own
// monitor is the one under test; it is started only by the tests that say
// so and stopped again in TearDown.
class MonitorFixture : public table_test::TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    if (HasFatalFailure()) return;
    dir_ = table_test::inheritedTestDir("VELT_MONITOR_TEST_DIR", "monitor");
    ASSERT_FALSE(dir_.empty()) << "no directory for the test";
    logFile_ = dir_ + "/tolkvaskd.log";
    traceMarket = TraceStream::traceMarket;
    traceMarket->resumeMarket();
    client_ = std::make_unique<TraceClient>(traceMarket, 0);
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x7FFF & ~TRACE_BLOCK));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    static TraceServer* server = new TraceServer(traceMarket);
    traceServer = server;

    fake_mc::resetForTesting();
    hasML0OnTheNode.store(false);
    AMController::_exiting = 0;
    prop_ = new RecordingPropagator();
    AMController::propagator = prop_;
    monitor_ = ctl_->cfgMonitor;
    ASSERT_NE(monitor_, nullptr);
    mediator_ = ctl_->mediators[0];
  }

  void TearDown() override {
    stopMonitor();
    fake_mc::resetForTesting();
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
    unsetenv("VELT_MONITOR_TEST_DIR");
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }

  // Every line traced so far. Only finished lines are written: the
  // market's own drain would end the lines the monitor thread is still
  // assembling (and, while it runs, keep that thread's endl from ending
  // them, so that two lines come out as one).
  std::string log() {
    traceServer->drainAllLogs();
    return readFile(logFile_);
  }

  // Maps node numbers to their ids as the PeerNode harvest would.
  void knowNodes(std::initializer_list<int> nodes) {
    for (int n : nodes) setNodeIdMap(n, idOfNode(n));
  }

  void setPeerNodes(std::initializer_list<int> nodes) {
    std::vector<Resource> rs;
    for (int n : nodes) rs.push_back(peerNode(static_cast<uint32_t>(n), idOfNode(n)));
    fake_mc::setResourcesForTesting(KOR_CLASS_PEER_NODE, rs);
  }

  // The row of an adapter; null when there is none.
  AMAdapterItem* row(int node, const char* name) {
    GSReadGuard hold(*table_);
    return table_->locateAdapterItem(node, _idxFromInterfaceName(name));
  }
  bool configured(int node, const char* name) {
    AMAdapterItem* r = row(node, name);
    GSReadGuard hold(*table_);
    return r != nullptr && r->isConfiged;
  }
  int harvested() {
    GSReadGuard hold(*table_);
    return table_->isHarvested();
  }

  // ------------------------------------------------------ the thread

  void startMonitor() {
    ASSERT_EQ(0, monitor_->start(nullptr));
    started_ = true;
  }

  // The thread waits for a wake-up with nothing queued.
  bool monitorIdle() { return monitor_->waitersForTesting() == 1 && monitor_->pendingSyncEvents() == 0; }
  // The thread waits inside mc_dispatch of its event session.
  bool monitorInDispatch() { return fake_mc::dispatchWaitersForTesting() == 1; }

  // Waits until the thread made a pass after `passes` and rests again
  // (idle or in dispatch); returns the time-out it now waits with.
  ::testing::AssertionResult settledAfter(int passes) {
    bool ok = waitUntil([&] {
      return monitor_->passesForTesting() > passes && (monitorIdle() || monitorInDispatch());
    });
    if (!ok) return ::testing::AssertionFailure() << "the monitor did not come to rest; log:\n" << log();
    return ::testing::AssertionSuccess();
  }

  ::testing::AssertionResult startAndSettle() {
    if (monitor_->start(nullptr) != 0) return ::testing::AssertionFailure() << "start failed";
    started_ = true;
    return settledAfter(0);
  }

  // Ends the wait the thread is in as its time-out would: the clock moves
  // by the wait's length and the thread is woken.
  ::testing::AssertionResult elapseWait() {
    int passes = monitor_->passesForTesting();
    int secs = monitor_->waitSecsForTesting();
    if (secs < 0) return ::testing::AssertionFailure() << "the monitor waits without a time-out";
    table_test::advanceSeconds(secs);
    monitor_->postSyncEvent(0);
    return settledAfter(passes);
  }

  ::testing::AssertionResult wake() {
    int passes = monitor_->passesForTesting();
    monitor_->postSyncEvent(0);
    return settledAfter(passes);
  }

  void stopMonitor() {
    if (!started_) return;
    monitor_->stop();
    // A monitor inside a waiting dispatch comes back with a failure.
    bool stopped = waitUntil([&] {
      if (monitorInDispatch()) fake_mc::failDispatchForTesting(MC_ECONNLOST);
      return monitor_->getThreadState() == GS_THREAD_STOPPED;
    });
    if (!stopped) ADD_FAILURE() << "the monitor thread did not stop";
    monitor_->join();
    started_ = false;
  }

  std::string dir_;
  std::string logFile_;
  std::unique_ptr<TraceClient> client_;
  RecordingPropagator* prop_ = nullptr;
  AMCfgMonitor* monitor_ = nullptr;
  AMMediator* mediator_ = nullptr;
  bool started_ = false;
};

}  // namespace monitor_test

#endif  // VELT_TESTS_UNIT_GLOBALAM_MONITOR_TEST_SUPPORT_H_

// Shared set-up of the membership tests: the adapter-table fixture (a
// controller with its own mediator, the replaced monotonic clock and
// interface list) plus a replaced wall clock, adapter information by
// address, a recorder of what reaches the adapter table, the trace log in
// a private file and, for tests that talk to group services, a stand-in
// agent at the client library's socket.
#ifndef VELT_TESTS_UNIT_GLOBALAM_MEDIATOR_TEST_SUPPORT_H_
#define VELT_TESTS_UNIT_GLOBALAM_MEDIATOR_TEST_SUPPORT_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "AMController.h"
#include "AMMediator.h"
#include "TraceStream.h"
#include "fake_agent.h"
#include "sw_adapter_info.h"
#include "table_test_support.h"
#include "vx_cu.h"

namespace mediator_test {

using table_test::kMyNode;

// ------------------------------------------------------------ wall clock

inline std::atomic<int64_t>& fakeWallSecs() {
  static std::atomic<int64_t> secs{1700000000};
  return secs;
}

inline int fakeWallClock(struct timeval* tv) {
  tv->tv_sec = static_cast<time_t>(fakeWallSecs().load());
  tv->tv_usec = 0;
  return 0;
}

// Moves both clocks.
inline void advanceClocks(int seconds) {
  table_test::advanceSeconds(seconds);
  fakeWallSecs().fetch_add(seconds);
}

// ---------------------------------------------------------- addresses

inline tk_gs_ip_addr mappedIp(const char* dotted) {
  tk_gs_ip_addr a;
  memset(&a, 0, sizeof a);
  a.gs_bytes[10] = 0xff;
  a.gs_bytes[11] = 0xff;
  inet_pton(AF_INET, dotted, a.gs_bytes + 12);
  return a;
}

inline std::string ipKey(const tk_gs_ip_addr& a) {
  return std::string(reinterpret_cast<const char*>(a.gs_bytes), sizeof a.gs_bytes);
}

// Adapter information by address, as the client library keeps it from the
// information that notifications carry.
inline std::mutex& infoMu() {
  static std::mutex mu;
  return mu;
}
inline std::map<std::string, tk_gs_adapter_info_t>& infoByIp() {
  static std::map<std::string, tk_gs_adapter_info_t> m;
  return m;
}

inline void knowAdapter(const char* dotted, const char* ifname, int node) {
  tk_gs_adapter_info_t info;
  memset(&info, 0, sizeof info);
  info.gs_ip_addr = mappedIp(dotted);
  snprintf(info.gs_interface_name, sizeof info.gs_interface_name, "%s", ifname);
  info.gs_node_number = static_cast<uint16_t>(node);
  snprintf(info.gs_group_name, sizeof info.gs_group_name, "%s", "allAdapterMembership");
  std::lock_guard<std::mutex> hold(infoMu());
  infoByIp()[ipKey(info.gs_ip_addr)] = info;
}

inline tk_gs_rc_t lookupKnownAdapter(const tk_gs_ip_addr* ip, tk_gs_adapter_info_t* info) {
  std::lock_guard<std::mutex> hold(infoMu());
  auto it = infoByIp().find(ipKey(*ip));
  if (it == infoByIp().end()) return TK_GS_ADDRESS_UNKNOWN;
  *info = it->second;
  return TK_GS_OK;
}

// ------------------------------------------------- hand-over to the table

struct TableUpdate {
  int isUp;
  std::vector<tk_gs_provider_t> providers;
};

inline std::mutex& updatesMu() {
  static std::mutex mu;
  return mu;
}
inline std::vector<TableUpdate>& tableUpdates() {
  static std::vector<TableUpdate> v;
  return v;
}

inline void recordTableUpdate(int isUp, const tk_gs_membership_t* providers) {
  TableUpdate u;
  u.isUp = isUp;
  for (unsigned i = 0; providers && i < providers->gs_count; ++i) u.providers.push_back(providers->gs_providers[i]);
  std::lock_guard<std::mutex> hold(updatesMu());
  tableUpdates().push_back(u);
}

inline std::vector<TableUpdate> takeTableUpdates() {
  std::lock_guard<std::mutex> hold(updatesMu());
  std::vector<TableUpdate> v;
  v.swap(tableUpdates());
  return v;
}

// A notification's IP list that owns its addresses.
class IpList {
 public:
  IpList(std::initializer_list<const char*> dotted) {
    for (const char* d : dotted) addrs_.push_back(mappedIp(d));
    list_.gs_count = static_cast<unsigned>(addrs_.size());
    list_.gs_ip_addrs = addrs_.empty() ? nullptr : addrs_.data();
  }
  tk_gs_adapter_ip_membership_t* get() { return &list_; }

 private:
  std::vector<tk_gs_ip_addr> addrs_;
  tk_gs_adapter_ip_membership_t list_;
};

inline tk_gs_subscription_notification_t rawNotification(unsigned type, tk_gs_adapter_ip_membership_t* full,
                                                        tk_gs_adapter_ip_membership_t* changing) {
  static tk_gs_membership_t none = {0, nullptr};
  tk_gs_subscription_notification_t n;
  memset(&n, 0, sizeof n);
  n.gs_notification_type = TK_GS_SUBSCRIPTION_NOTIFICATION;
  n.gs_group_name = "allAdapterMembership";
  n.gs_subscription_type = type;
  n.gs_full_membership = &none;
  n.gs_changing_membership = &none;
  n.gs_full_ip_membership = full;
  n.gs_changing_ip_membership = changing;
  return n;
}

// ------------------------------------------------------------- fixture

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

// The adapter-table fixture with the controller ready to roll outside the
// cluster domain type, every hook above installed and the trace log
// written to a private file.
class MediatorFixture : public table_test::TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    if (HasFatalFailure()) return;
    dir_ = table_test::inheritedTestDir("VELT_MEDIATOR_TEST_DIR", "mediator");
    ASSERT_FALSE(dir_.empty()) << "no directory for the test";
    logFile_ = dir_ + "/tolkvaskd.log";
    setenv("VELT_AGENT_SOCKET", (dir_ + "/agent.sock").c_str(), 1);
    traceMarket = TraceStream::traceMarket;
    traceMarket->resumeMarket();
    client_ = std::make_unique<TraceClient>(traceMarket, 0);
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x7FFF & ~TRACE_BLOCK));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    static TraceServer* server = new TraceServer(traceMarket);
    traceServer = server;

    cu_set_clocks_ForTesting(fakeWallClock, table_test::fakeMonoClock);
    AMRawSubscriber::setAdapterInfoLookupForTesting(lookupKnownAdapter);
    AMRawSubscriber::setTableUpdateObserverForTesting(recordTableUpdate);
    takeTableUpdates();
    {
      std::lock_guard<std::mutex> hold(infoMu());
      infoByIp().clear();
    }
    savedNetworks_ = currentNumbersOfNetworks.load();
    savedLocalView_ = AMController::has_NAM_LocalView_Adapters;
    savedInterval_ = AMController::vask_device_check_interval;
    AMController::domainType = kQUIL;
    AMCookedProvider::resetJoinTraceThrottleForTesting();
    mediator_ = ctl_->mediators[0];
    raw_ = mediator_->getRawSubscriber();
  }

  void TearDown() override {
    if (agent_) {
      ctl_->quit();
      agent_.reset();
    }
    AMRawSubscriber::setAdapterInfoLookupForTesting(nullptr);
    AMRawSubscriber::setTableUpdateObserverForTesting(nullptr);
    currentNumbersOfNetworks.store(savedNetworks_);
    AMController::has_NAM_LocalView_Adapters = savedLocalView_;
    AMController::vask_device_check_interval = savedInterval_;
    traceMarket->drainAllLogs();
    client_.reset();
    TableFixture::TearDown();
    unsetenv("VELT_AGENT_SOCKET");
    unsetenv("VELT_MEDIATOR_TEST_DIR");
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }

  // Everything traced so far.
  std::string log() {
    traceMarket->drainAllLogs();
    return readFile(logFile_);
  }

  // A local switch adapter defined in the adapter table on network netid.
  void defineLocal(const char* name, const char* ip, unsigned netid) {
    table_->setAdapterDefinedWithLock(table_test::makeInterface(kMyNode, name, ip, 0x100, netid));
  }

  // Connects the controller to a stand-in agent (node kMyNode).
  ::testing::AssertionResult connectToFakeAgent() {
    agent_ = std::make_unique<gscl_test::FakeAgent>(dir_ + "/agent.sock");
    if (agent_->error() != 0) return ::testing::AssertionFailure() << "no stand-in agent";
    auto served = std::async(std::launch::async, [&] { return agent_->handshake(kMyNode); });
    tk_gs_rc_t rc = ctl_->initialize();
    bool ok = served.get();
    if (rc != TK_GS_OK || !ok) return ::testing::AssertionFailure() << "initialize: " << gscl_rc_name(rc);
    // The domain control that follows the hello.
    rc = ctl_->dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    return ::testing::AssertionSuccess();
  }

  // Runs call on another thread while the stand-in agent answers every
  // request it makes with the next code of answers (seen gets the
  // requests); returns what call returned.
  template <typename T, typename F>
  T answered(F call, const std::vector<int32_t>& answers, std::vector<velt::proto::Request>* seen = nullptr) {
    // The call's thread traces too, so that its lines reach the log.
    auto running = std::async(std::launch::async, [&] {
      TraceClient threadClient(traceMarket, 0);
      return call();
    });
    for (int32_t rc : answers) {
      velt::proto::Request r;
      bool ok = agent_->answerNext(rc, &r);
      EXPECT_TRUE(ok) << "the stand-in agent saw no request";
      if (!ok) {
        ctl_->quit();
        break;
      }
      if (seen) seen->push_back(r);
    }
    return running.get();
  }

  // True when the stand-in agent gets no request within a short while.
  bool agentStaysQuiet() {
    velt::proto::Request r;
    return !agent_->readRequest(&r, std::chrono::milliseconds(200));
  }

  // Subscribes the raw group through the stand-in agent and delivers a
  // full membership with the given local switch adapters up.
  ::testing::AssertionResult subscribeRaw(const std::vector<std::pair<const char*, const char*>>& local) {
    std::vector<velt::proto::Request> seen;
    tk_gs_rc_t rc = answered<tk_gs_rc_t>([&] { return raw_->subscribeGroup(); }, {TK_GS_OK}, &seen);
    if (rc != TK_GS_OK || seen.size() != 1) return ::testing::AssertionFailure() << "subscribe failed";
    velt::proto::Notification n;
    n.set_kind(velt::proto::Notification::SUBSCRIPTION);
    n.set_group("allAdapterMembership");
    n.set_for_subscriber(true);
    n.set_subscriber(seen[0].subscribe().subscriber());
    n.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
    for (size_t i = 0; i < local.size(); ++i) {
      *n.add_current() = gscl_test::providerId(static_cast<uint32_t>(i), kMyNode);
      knowAdapter(local[i].second, local[i].first, kMyNode);
      tk_gs_ip_addr ip = mappedIp(local[i].second);
      velt::proto::AdapterInfo* a = n.add_full_ip();
      a->set_ip(std::string(reinterpret_cast<const char*>(ip.gs_bytes + 12), 4));
      a->set_interface_name(local[i].first);
      a->set_node(kMyNode);
    }
    if (!agent_->notify(n)) return ::testing::AssertionFailure() << "notify failed";
    rc = ctl_->dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    if (raw_->getClientState() != GS_IAM_SUBSCRIBED) return ::testing::AssertionFailure() << "not subscribed";
    rawNumber_ = seen[0].subscribe().subscriber();
    return ::testing::AssertionSuccess();
  }

  // A notification of the raw subscription.
  velt::proto::Notification rawNotice(unsigned type) {
    velt::proto::Notification n;
    n.set_kind(velt::proto::Notification::SUBSCRIPTION);
    n.set_group("allAdapterMembership");
    n.set_for_subscriber(true);
    n.set_subscriber(rawNumber_);
    n.set_subscription_type(type);
    return n;
  }

  // The stand-in agent approves p's pending join.
  ::testing::AssertionResult approveJoin(GSProvider* p) {
    velt::proto::Notification n;
    n.set_kind(velt::proto::Notification::APPROVED);
    n.set_group(p->getGroupName());
    n.set_instance(static_cast<uint32_t>(p->getInstanceNumber()));
    n.set_protocol_type(TK_GS_JOIN);
    n.set_proposal_changes(TK_GS_PROPOSED_MEMBERSHIP);
    *n.add_changing() = gscl_test::providerId(static_cast<uint32_t>(p->getInstanceNumber()), kMyNode);
    *n.add_current() = gscl_test::providerId(static_cast<uint32_t>(p->getInstanceNumber()), kMyNode);
    if (!agent_->notify(n)) return ::testing::AssertionFailure() << "notify failed";
    tk_gs_rc_t rc = ctl_->dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    if (p->getClientState() != GS_IAM_JOINED) return ::testing::AssertionFailure() << "not joined";
    return ::testing::AssertionSuccess();
  }

  uint32_t rawNumber_ = 0;

  std::string dir_;
  std::string logFile_;
  std::unique_ptr<TraceClient> client_;
  std::unique_ptr<gscl_test::FakeAgent> agent_;
  AMMediator* mediator_ = nullptr;
  AMRawSubscriber* raw_ = nullptr;
  int savedNetworks_ = 0;
  int savedLocalView_ = 0;
  int savedInterval_ = 30;
};

}  // namespace mediator_test

#endif  // VELT_TESTS_UNIT_GLOBALAM_MEDIATOR_TEST_SUPPORT_H_

// Tests of the client library's side of the agent protocol against a
// scripted stand-in agent: the hello, request/answer correlation,
// notifications and the callbacks and client states they drive, pings,
// domain control, broken frames, the death of the connection and adapter
// information carried by subscriptions.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fake_agent.h"
#include "gs_client.h"
#include "gs_controller.h"
#include "gscl_test_util.h"
#include "vx_ffdc.h"

using namespace velt_gscl_V1;
using gscl_test::FakeAgent;
using gscl_test::kBound;
using gscl_test::providerId;
using gscl_test::TempDir;
using gscl_test::waitUntil;
namespace proto = velt::proto;

namespace {

constexpr int kDaemonInterfaceWord = 0x30014;
constexpr uint32_t kNode = 3;

// What the library reported through the trace routine.
std::mutex reportsMu;
std::vector<std::string> reports;
void traceRoutine(int, char* text) {
  std::lock_guard<std::mutex> g(reportsMu);
  reports.push_back(text);
}
bool reported(const std::string& piece) {
  std::lock_guard<std::mutex> g(reportsMu);
  for (const std::string& r : reports) {
    if (r.find(piece) != std::string::npos) return true;
  }
  return false;
}

// Error-log entries go to this list instead of the system log.
std::mutex syslogMu;
std::vector<std::string> syslogLines;
void captureSyslog(int, const char* msg) {
  std::lock_guard<std::mutex> g(syslogMu);
  syslogLines.push_back(msg);
}

// One callback as a test client saw it.
struct Seen {
  std::string what;        // "nPhase", "approved", ...
  GSClientState state;     // the client's state while the callback ran
  std::string group;
  int protocolType = 0;
  unsigned int summary = 0;
  unsigned int subscriptionType = 0;
  int delayedRc = 0;
  int requestType = 0;
  std::vector<uint32_t> current;    // provider ids
  std::vector<uint32_t> changing;
  bool hasChanging = false;
  std::string currentValue;
  std::string proposedValue;
  std::string message;
  bool hasFullIp = false;
  std::vector<std::string> fullIp;  // 16-byte addresses
  std::vector<std::string> changingIp;
  int adapterInfoRc = -1;           // get_adapter_info of the first full address, from inside the callback
  std::string adapterInterface;
};

std::vector<uint32_t> ids(const tk_gs_membership_t* m) {
  std::vector<uint32_t> out;
  if (m == nullptr) return out;
  for (unsigned int i = 0; i < m->gs_count; ++i) out.push_back(m->gs_providers[i].gs_provider_id);
  return out;
}

uint32_t idOf(uint32_t instance, uint32_t node) { return instance << 16 | node; }

class TestProvider : public GSProvider {
 public:
  TestProvider(const char* group, int instance) : GSProvider(group, instance, "TestClient") {}
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    Seen s = base("delayedError", n->gs_group_name);
    s.delayedRc = n->gs_delayed_return_code;
    s.requestType = n->gs_request_type;
    return record(s);
  }
  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override {
    tk_gs_callback_rc_t rc = record(protocol("nPhase", n));
    if (voteInCallback_ != TK_GS_NO_VOTE) voteRc_ = vote(voteInCallback_, nullptr, nullptr, TK_GS_NO_VOTE);
    return rc;
  }
  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override {
    return record(protocol("approved", n));
  }
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override {
    return record(protocol("rejected", n));
  }
  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override {
    Seen s = base("announcement", n->gs_group_name);
    s.summary = n->gs_summary_code;
    s.current = ids(n->gs_current_providers);
    return record(s);
  }
  tk_gs_callback_rc_t mergeCb(const tk_gs_merge_notification_t* n) override {
    Seen s = base("merge", n->gs_group_name);
    s.summary = n->gs_summary_code;
    return record(s);
  }

  std::vector<Seen> seen() {
    std::lock_guard<std::mutex> g(mu_);
    return seen_;
  }
  // Makes nPhaseCb vote from inside the callback, as the daemon does.
  void voteInCallback(tk_gs_vote_t v) { voteInCallback_ = v; }
  tk_gs_rc_t voteRc() const { return voteRc_; }

 private:
  Seen base(const char* what, const char* group) {
    Seen s;
    s.what = what;
    s.state = getClientState();
    s.group = group != nullptr ? group : "";
    return s;
  }
  Seen protocol(const char* what, const tk_gs_protocol_notification_t* n) {
    Seen s = base(what, n->gs_group_name);
    s.protocolType = n->gs_protocol_type;
    s.summary = n->gs_summary_code;
    const tk_gs_proposal_t* p = n->gs_proposal;
    s.current = ids(p->gs_current_providers);
    s.hasChanging = p->gs_changing_providers != nullptr;
    s.changing = ids(p->gs_changing_providers);
    if (p->gs_current_state_value != nullptr) {
      s.currentValue.assign(p->gs_current_state_value->gs_state, p->gs_current_state_value->gs_length);
    }
    if (p->gs_proposed_state_value != nullptr) {
      s.proposedValue.assign(p->gs_proposed_state_value->gs_state, p->gs_proposed_state_value->gs_length);
    }
    if (p->gs_provider_message != nullptr) {
      s.message.assign(p->gs_provider_message->gs_message, p->gs_provider_message->gs_length);
    }
    return s;
  }
  tk_gs_callback_rc_t record(const Seen& s) {
    std::lock_guard<std::mutex> g(mu_);
    seen_.push_back(s);
    return TK_GS_CALLBACK_OK;
  }
  std::mutex mu_;
  std::vector<Seen> seen_;
  tk_gs_vote_t voteInCallback_ = TK_GS_NO_VOTE;
  tk_gs_rc_t voteRc_ = TK_GS_NOT_OK;
};

class TestSubscriber : public GSSubscriber {
 public:
  TestSubscriber(const char* group, GSController* controller)
      : GSSubscriber(group, TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE),
        controller_(controller) {}
  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override {
    Seen s;
    s.what = "subscription";
    s.state = getClientState();
    s.group = n->gs_group_name;
    s.subscriptionType = n->gs_subscription_type;
    s.current = ids(n->gs_full_membership);
    s.hasChanging = n->gs_changing_membership != nullptr;
    s.changing = ids(n->gs_changing_membership);
    s.hasFullIp = n->gs_full_ip_membership != nullptr;
    if (n->gs_full_ip_membership != nullptr) {
      for (unsigned int i = 0; i < n->gs_full_ip_membership->gs_count; ++i) {
        s.fullIp.emplace_back(reinterpret_cast<const char*>(n->gs_full_ip_membership->gs_ip_addrs[i].gs_bytes), 16);
      }
      if (n->gs_full_ip_membership->gs_count > 0) {
        // As the daemon does: resolve the addresses while the callback runs.
        tk_gs_adapter_info_t info;
        s.adapterInfoRc = controller_->get_adapter_info(&n->gs_full_ip_membership->gs_ip_addrs[0], &info);
        if (s.adapterInfoRc == TK_GS_OK) s.adapterInterface = info.gs_interface_name;
      }
    }
    if (n->gs_changing_ip_membership != nullptr) {
      for (unsigned int i = 0; i < n->gs_changing_ip_membership->gs_count; ++i) {
        s.changingIp.emplace_back(
            reinterpret_cast<const char*>(n->gs_changing_ip_membership->gs_ip_addrs[i].gs_bytes), 16);
      }
    }
    std::lock_guard<std::mutex> g(mu_);
    seen_.push_back(s);
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    Seen s;
    s.what = "delayedError";
    s.state = getClientState();
    s.group = n->gs_group_name;
    s.delayedRc = n->gs_delayed_return_code;
    s.requestType = n->gs_request_type;
    std::lock_guard<std::mutex> g(mu_);
    seen_.push_back(s);
    return TK_GS_CALLBACK_OK;
  }
  std::vector<Seen> seen() {
    std::lock_guard<std::mutex> g(mu_);
    return seen_;
  }

 private:
  GSController* controller_;
  std::mutex mu_;
  std::vector<Seen> seen_;
};

// Records the controller-level callbacks.
class TestController : public GSController {
 public:
  TestController() : GSController(kDaemonInterfaceWord) {}
  tk_gs_callback_rc_t responsivenessCb(const tk_gs_responsiveness_notification_t* n) override {
    pingLimits.push_back(n->gs_time_limit);
    if (answerPings) return GSController::responsivenessCb(n);
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t domainControlCb(const tk_gs_domain_control_notification_t* n) override {
    domainEvents.push_back(static_cast<int>(n->gs_domain_ctrl_event));
    domainVersions.push_back(n->gs_velt_version.quick_version);
    return GSController::domainControlCb(n);
  }
  bool answerPings = true;
  std::vector<int> pingLimits;        // dispatch thread only
  std::vector<int> domainEvents;
  std::vector<uint32_t> domainVersions;
};

proto::Notification notification(proto::Notification::Kind kind, const std::string& group, uint32_t instance) {
  proto::Notification n;
  n.set_kind(kind);
  n.set_group(group);
  n.set_instance(instance);
  return n;
}

proto::Notification forSubscriber(proto::Notification::Kind kind, const std::string& group, uint32_t number) {
  proto::Notification n;
  n.set_kind(kind);
  n.set_group(group);
  n.set_for_subscriber(true);
  n.set_subscriber(number);
  return n;
}

proto::AdapterInfo adapter(const std::string& ip, const char* ifname, uint32_t node, uint32_t instance) {
  proto::AdapterInfo a;
  a.set_ip(ip);
  a.set_interface_name(ifname);
  a.set_node(node);
  a.set_network_name("sxn0net");
  a.set_network_type("sxn");
  a.set_instance(instance);
  return a;
}

std::string ipv4(const char* dotted) {
  struct in_addr a;
  inet_pton(AF_INET, dotted, &a);
  return std::string(reinterpret_cast<const char*>(&a), 4);
}

tk_gs_ip_addr mapped(const char* dotted) {
  tk_gs_ip_addr ip;
  memset(&ip, 0, sizeof ip);
  ip.gs_bytes[10] = 0xff;
  ip.gs_bytes[11] = 0xff;
  inet_pton(AF_INET, dotted, ip.gs_bytes + 12);
  return ip;
}

// Every test has its own socket path, captured reports and error-log lines.
class ProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    socketPath_ = dir_.path() + "/agent.sock";
    setenv("VELT_AGENT_SOCKET", socketPath_.c_str(), 1);
    GSSetTraceRtn(traceRoutine);
    fc_set_syslog_ForTesting(captureSyslog);
    {
      std::lock_guard<std::mutex> g(reportsMu);
      reports.clear();
    }
    {
      std::lock_guard<std::mutex> g(syslogMu);
      syslogLines.clear();
    }
    agent_.reset(new FakeAgent(socketPath_));
    ASSERT_EQ(0, agent_->error());
  }
  void TearDown() override {
    controller_.quit();
    agent_.reset();
    GSSetTraceRtn(nullptr);
    fc_set_syslog_ForTesting(nullptr);
    unsetenv("VELT_AGENT_SOCKET");
  }

  // Connects and dispatches the domain control that follows the hello.
  ::testing::AssertionResult connect() {
    auto served = std::async(std::launch::async, [&] { return agent_->handshake(kNode); });
    tk_gs_rc_t rc = controller_.initialize();
    bool ok = served.get();
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "initialize: " << gscl_rc_name(rc);
    if (!ok) return ::testing::AssertionFailure() << "handshake of the stand-in agent failed";
    rc = controller_.dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "first dispatch: " << gscl_rc_name(rc);
    return ::testing::AssertionSuccess();
  }

  // Runs request on another thread while the agent answers it with rc;
  // returns what the request returned. The request is kept in *seen.
  template <typename F>
  tk_gs_rc_t answered(F request, int32_t rc, proto::Request* seen = nullptr) {
    auto call = std::async(std::launch::async, request);
    bool ok = agent_->answerNext(rc, seen);
    EXPECT_TRUE(ok) << "the stand-in agent saw no request";
    if (!ok) controller_.quit();   // releases the caller
    return call.get();
  }

  // Joins p: the agent accepts the join and approves it; dispatches it.
  ::testing::AssertionResult join(TestProvider& p) {
    proto::Request r;
    tk_gs_rc_t rc = answered([&] { return p.joinGroup(); }, TK_GS_OK, &r);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "join: " << gscl_rc_name(rc);
    proto::Notification n = notification(proto::Notification::APPROVED, p.getGroupName(),
                                          static_cast<uint32_t>(p.getInstanceNumber()));
    n.set_protocol_type(TK_GS_JOIN);
    n.set_proposal_changes(TK_GS_PROPOSED_MEMBERSHIP);
    *n.add_changing() = providerId(static_cast<uint32_t>(p.getInstanceNumber()), kNode);
    *n.add_current() = providerId(static_cast<uint32_t>(p.getInstanceNumber()), kNode);
    if (!agent_->notify(n)) return ::testing::AssertionFailure() << "notify failed";
    rc = controller_.dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    if (p.getClientState() != GS_IAM_JOINED) return ::testing::AssertionFailure() << "not joined";
    return ::testing::AssertionSuccess();
  }

  // Subscribes s; the agent accepts and sends the full membership.
  ::testing::AssertionResult subscribe(TestSubscriber& s, uint32_t* number) {
    proto::Request r;
    tk_gs_rc_t rc = answered([&] { return s.subscribeGroup(); }, TK_GS_OK, &r);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "subscribe: " << gscl_rc_name(rc);
    *number = r.subscribe().subscriber();
    proto::Notification n = forSubscriber(proto::Notification::SUBSCRIPTION, s.getGroupName(), *number);
    n.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
    *n.add_current() = providerId(1, 1);
    if (!agent_->notify(n)) return ::testing::AssertionFailure() << "notify failed";
    rc = controller_.dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    return ::testing::AssertionSuccess();
  }

  TempDir dir_;
  std::string socketPath_;
  std::unique_ptr<FakeAgent> agent_;
  TestController controller_;
};

class GSHandshake : public ProtocolTest {};
class GSRequestAnswers : public ProtocolTest {};
class GSProviderNotifications : public ProtocolTest {};
class GSSubscriberNotifications : public ProtocolTest {};
class GSControllerNotifications : public ProtocolTest {};
class GSConnectionLoss : public ProtocolTest {};
class GSAdapterInfo : public ProtocolTest {};

}  // namespace

// ---- hello ----

TEST_F(GSHandshake, SaysWhoWeAreAndTakesTheAgentsAnswer) {
  tk_gs_responsiveness_t r = {TK_GS_PING_RESPONSIVENESS, 3610, 10, nullptr, 0};
  ASSERT_EQ(TK_GS_OK, controller_.setResponsiveness(r));
  ASSERT_EQ(TK_GS_OK, controller_.setSocketOption(TK_GS_ENABLE_ADAPTER_INFO));
  EXPECT_EQ(-1, controller_.getNodeNumber());
  ASSERT_TRUE(connect());
  const proto::Hello& h = agent_->hello();
  EXPECT_EQ(static_cast<uint32_t>(kDaemonInterfaceWord), h.interface_word());
  EXPECT_EQ(static_cast<uint32_t>(getpid()), h.pid());
  EXPECT_EQ(std::string(program_invocation_short_name), h.program());
  EXPECT_EQ(1u, h.responsiveness().type());
  EXPECT_EQ(3610u, h.responsiveness().interval());
  EXPECT_EQ(10u, h.responsiveness().response_time_limit());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_ENABLE_ADAPTER_INFO), h.socket_options());
  EXPECT_TRUE(h.grouped_notifications());
  EXPECT_TRUE(controller_.isConnected());
  EXPECT_EQ(static_cast<int>(kNode), controller_.getNodeNumber());
  EXPECT_EQ(gscl_test::kAgentVersion, controller_.agentVersion());
  tk_gs_velt_version_t v;
  ASSERT_EQ(TK_GS_OK, controller_.get_velt_active_version(&v));
  EXPECT_EQ(2, v.gs_version);
  EXPECT_EQ(5, v.gs_release);
  EXPECT_EQ(0x02050000u, v.quick_version);
}

TEST_F(GSHandshake, RefusalReturnsTheAgentsCode) {
  auto served = std::async(std::launch::async, [&] {
    if (!agent_->acceptOne()) return false;
    proto::ClientFrame f;
    if (!agent_->readFrame(&f) || !f.has_hello()) return false;
    proto::AgentFrame a;
    a.set_version(1);
    a.mutable_hello_reply()->set_rc(TK_GS_PERMISSION_DENIED);
    a.mutable_hello_reply()->set_text("uid 4242 is not allowed");
    bool sent = agent_->send(a);
    agent_->closeConnection();
    return sent;
  });
  EXPECT_EQ(TK_GS_PERMISSION_DENIED, controller_.initialize());
  EXPECT_TRUE(served.get());
  EXPECT_FALSE(controller_.isConnected());
  EXPECT_TRUE(reported("uid 4242 is not allowed"));
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, controller_.dispatch(TK_GS_NON_BLOCKING));
  // The caller may simply try again.
  EXPECT_TRUE(connect());
}

TEST_F(GSHandshake, SilentAgentTimesOut) {
  controller_.setHandshakeTimeoutForTesting(std::chrono::milliseconds(200));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(TK_GS_TIMEOUT, controller_.initialize());
  EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);
  EXPECT_FALSE(controller_.isConnected());
  EXPECT_TRUE(reported("no answer to hello"));
}

TEST_F(GSHandshake, AgentHangingUpBeforeTheAnswerIsNotConnected) {
  auto served = std::async(std::launch::async, [&] {
    bool ok = agent_->acceptOne();
    agent_->closeConnection();
    return ok;
  });
  EXPECT_EQ(TK_GS_NOT_CONNECTED, controller_.initialize());
  EXPECT_TRUE(served.get());
}

TEST_F(GSHandshake, AnswerOfAnotherWireVersionIsRefused) {
  auto served = std::async(std::launch::async, [&] {
    if (!agent_->acceptOne()) return false;
    proto::ClientFrame f;
    if (!agent_->readFrame(&f)) return false;
    proto::AgentFrame a;
    a.set_version(2);
    a.mutable_hello_reply()->set_rc(0);
    return agent_->send(a);
  });
  EXPECT_EQ(TK_GS_VERSION_MISMATCH, controller_.initialize());
  EXPECT_TRUE(served.get());
}

TEST_F(GSHandshake, GarbageInsteadOfTheAnswerIsABadFrame) {
  auto served = std::async(std::launch::async, [&] {
    if (!agent_->acceptOne()) return false;
    proto::ClientFrame f;
    if (!agent_->readFrame(&f)) return false;
    return agent_->sendRaw("this is not a frame");
  });
  EXPECT_EQ(TK_GS_BAD_FRAME, controller_.initialize());
  EXPECT_TRUE(served.get());
}

// ---- requests and their answers ----

TEST_F(GSRequestAnswers, WithoutAConnectionRequestsAreRefused) {
  TestProvider p("lonely", 1);
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, p.joinGroup());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  TestSubscriber s("lonely", &controller_);
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, s.subscribeGroup());
  EXPECT_EQ(GS_IAM_IDLE, s.getClientState());
}

TEST_F(GSRequestAnswers, ConcurrentCallersEachGetTheirOwnAnswer) {
  ASSERT_TRUE(connect());
  constexpr int kCallers = 8;
  std::vector<std::unique_ptr<TestProvider>> providers;
  for (int i = 0; i < kCallers; ++i) {
    providers.emplace_back(new TestProvider(("group" + std::to_string(i)).c_str(), i));
  }
  std::vector<std::future<tk_gs_rc_t>> calls;
  for (int i = 0; i < kCallers; ++i) {
    calls.push_back(std::async(std::launch::async, [&, i] { return providers[i]->joinGroup(); }));
  }
  gscl_test::OnScopeExit release([&] { controller_.quit(); });
  // Collect every request first, then answer them in reverse order: each
  // caller must get the answer to its own request.
  std::vector<proto::Request> requests(kCallers);
  for (int i = 0; i < kCallers; ++i) ASSERT_TRUE(agent_->readRequest(&requests[i]));
  std::map<uint64_t, int> idsSeen;
  for (int i = kCallers - 1; i >= 0; --i) {
    const proto::Request& r = requests[i];
    ASSERT_TRUE(r.has_join());
    idsSeen[r.id()]++;
    // Even instances are accepted, odd ones refused as duplicates.
    int32_t rc = r.join().instance() % 2 == 0 ? TK_GS_OK : TK_GS_DUPLICATE_INSTANCE_NUMBER;
    ASSERT_TRUE(agent_->reply(r.id(), rc));
  }
  EXPECT_EQ(static_cast<size_t>(kCallers), idsSeen.size()) << "request ids are not unique";
  for (int i = 0; i < kCallers; ++i) {
    ASSERT_EQ(std::future_status::ready, calls[i].wait_for(kBound));
    tk_gs_rc_t rc = calls[i].get();
    EXPECT_EQ(i % 2 == 0 ? TK_GS_OK : TK_GS_DUPLICATE_INSTANCE_NUMBER, rc) << "caller " << i;
    EXPECT_EQ(i % 2 == 0 ? GS_IAM_JOINING : GS_IAM_IDLE, providers[i]->getClientState()) << "caller " << i;
  }
}

TEST_F(GSRequestAnswers, JoinCarriesTheProvidersAttributes) {
  ASSERT_TRUE(connect());
  TestProvider p("sxnMembership", 2);
  tk_gs_group_attributes_t a;
  memset(&a, 0, sizeof a);
  a.gs_version = 2;
  a.gs_sizeof_group_attributes = 44;
  a.gs_client_version = 2259;
  a.gs_batch_control = TK_GS_BATCH_BOTH;
  a.gs_num_phases = TK_GS_1_PHASE;
  a.gs_source_reflection_num_phases = TK_GS_1_PHASE;
  a.gs_group_default_vote = TK_GS_VOTE_APPROVE;
  a.gs_merge_control = TK_GS_DISSOLVE_MERGE;
  a.gs_group_name = "sxnMembership";
  a.gs_source_group_name = "sxnRawMembership";
  ASSERT_EQ(TK_GS_OK, p.setGroupAttributes(&a));
  proto::Request r;
  EXPECT_EQ(TK_GS_OK, answered([&] { return p.joinGroup(); }, TK_GS_OK, &r));
  ASSERT_TRUE(r.has_join());
  EXPECT_EQ("sxnMembership", r.join().group());
  EXPECT_EQ(2u, r.join().instance());
  EXPECT_EQ("TestClient", r.join().client_name());
  EXPECT_EQ(2259u, r.join().attributes().client_version());
  EXPECT_EQ(3u, r.join().attributes().batch_control());
  EXPECT_EQ(1u, r.join().attributes().default_vote());
  EXPECT_EQ("sxnRawMembership", r.join().attributes().source_group_name());
  // A second join while joining is refused here, without a request.
  EXPECT_EQ(TK_GS_ALREADY_JOINED, p.joinGroup());

  TestProvider other("sxnMembership", 3);
  a.gs_group_name = "anotherGroup";
  EXPECT_EQ(TK_GS_BAD_PARAMETER, other.setGroupAttributes(&a));
  a.gs_group_name = nullptr;
  a.gs_num_phases = static_cast<tk_gs_num_phases_t>(7);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, other.setGroupAttributes(&a));
}

TEST_F(GSRequestAnswers, UnansweredRequestTimesOutAndUndoesTheJoin) {
  ASSERT_TRUE(connect());
  controller_.setRequestTimeoutForTesting(std::chrono::milliseconds(200));
  TestProvider p("slow", 1);
  EXPECT_EQ(TK_GS_TIMEOUT, p.joinGroup());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  proto::Request r;
  ASSERT_TRUE(agent_->readRequest(&r));
  // A late answer is dropped without harm.
  ASSERT_TRUE(agent_->reply(r.id(), 0));
  EXPECT_TRUE(controller_.isConnected());
}

TEST_F(GSRequestAnswers, ArgumentsOutOfRangeAreRefusedLocally) {
  ASSERT_TRUE(connect());
  TestProvider badInstance("g", 70000);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, badInstance.joinGroup());
  std::string longName(TK_GS_MAX_GROUP_NAME_LENGTH + 1, 'n');
  TestProvider badName(longName.c_str(), 1);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, badName.joinGroup());
  EXPECT_EQ(TK_GS_BAD_PARAMETER, badName.setGroupName(""));
  EXPECT_EQ(TK_GS_OK, badName.setGroupName("shortName"));
  EXPECT_STREQ("shortName", badName.getGroupName());
  TestProvider p("g", 1);
  ASSERT_TRUE(join(p));
  std::string big(TK_GS_MAX_STATE_VALUE_LENGTH + 1, 'v');
  tk_gs_state_value_t sv = {static_cast<int>(big.size()), &big[0]};
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, p.changeStateValue(&sv, TK_GS_N_PHASE, 10));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, p.changeStateValue(nullptr, TK_GS_N_PHASE, 10));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, p.leaveGroup(1, static_cast<tk_gs_num_phases_t>(9), 10));
  // Nothing was sent for any of them.
  proto::Request r;
  EXPECT_FALSE(agent_->readRequest(&r, std::chrono::milliseconds(100)));
}

// ---- provider notifications ----

TEST_F(GSProviderNotifications, ApprovalOfOurJoinMakesUsJoined) {
  ASSERT_TRUE(connect());
  TestProvider p("cooked", 4);
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  ASSERT_TRUE(join(p));
  std::vector<Seen> seen = p.seen();
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ("approved", seen[0].what);
  EXPECT_EQ(GS_IAM_JOINED, seen[0].state) << "the state changes before the callback runs";
  EXPECT_EQ(TK_GS_JOIN, seen[0].protocolType);
  EXPECT_EQ(std::vector<uint32_t>{idOf(4, kNode)}, seen[0].changing);
  GSMembershipList members;
  ASSERT_EQ(TK_GS_OK, p.getMembers(&members));
  ASSERT_EQ(1u, members.count());
  EXPECT_EQ(idOf(4, kNode), members[0].gs_provider_id);
  EXPECT_EQ(idOf(4, kNode), p.getProviderId().gs_provider_id);
}

TEST_F(GSProviderNotifications, OneNotificationForSeveralOfOurProvidersReachesEachOfThem) {
  ASSERT_TRUE(connect());
  TestProvider first("shared", 4);
  TestProvider second("shared", 5);
  TestProvider other("shared", 6);   // not named: hears nothing
  for (TestProvider* p : {&first, &second, &other}) {
    proto::Request r;
    ASSERT_EQ(TK_GS_OK, answered([&] { return p->joinGroup(); }, TK_GS_OK, &r));
  }
  proto::Notification n = notification(proto::Notification::APPROVED, "shared", 4);
  n.add_more_instances(5);
  n.set_protocol_type(TK_GS_JOIN);
  n.set_proposal_changes(TK_GS_PROPOSED_MEMBERSHIP);
  *n.add_changing() = providerId(4, kNode);
  *n.add_changing() = providerId(5, kNode);
  *n.add_current() = providerId(4, kNode);
  *n.add_current() = providerId(5, kNode);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  for (TestProvider* p : {&first, &second}) {
    std::vector<Seen> seen = p->seen();
    ASSERT_EQ(1u, seen.size()) << p->getInstanceNumber();
    EXPECT_EQ("approved", seen[0].what);
    EXPECT_EQ(GS_IAM_JOINED, p->getClientState());
    EXPECT_EQ((std::vector<uint32_t>{idOf(4, kNode), idOf(5, kNode)}), seen[0].changing);
  }
  EXPECT_TRUE(other.seen().empty());
  EXPECT_NE(GS_IAM_JOINED, other.getClientState());
}

TEST_F(GSProviderNotifications, CallbacksRunInOrderWithWhatTheAgentSaid) {
  ASSERT_TRUE(connect());
  TestProvider p("cfg", 0);
  ASSERT_TRUE(join(p));

  proto::Notification nphase = notification(proto::Notification::N_PHASE, "cfg", 0);
  nphase.set_protocol(41);
  nphase.set_phase(1);
  nphase.set_protocol_type(TK_GS_CHANGE_STATE_VALUE);
  nphase.set_proposal_changes(TK_GS_PROPOSED_STATE_VALUE);
  nphase.set_has_current_state_value(true);
  nphase.set_current_state_value("old");
  nphase.set_has_proposed_state_value(true);
  nphase.set_proposed_state_value(std::string("n\0ew", 4));
  *nphase.add_current() = providerId(0, kNode);
  proto::Notification approved = nphase;
  approved.set_kind(proto::Notification::APPROVED);
  proto::Notification message = notification(proto::Notification::APPROVED, "cfg", 0);
  message.set_protocol_type(TK_GS_PROVIDER_MESSAGE);
  message.set_proposal_changes(TK_GS_PROVIDER_MESSAGE_PRESENT);
  message.set_message("harvest now");
  proto::Notification rejected = notification(proto::Notification::REJECTED, "cfg", 0);
  rejected.set_protocol_type(TK_GS_CHANGE_STATE_VALUE);
  rejected.set_summary_code(TK_GS_VOTE_REJECTED);
  proto::Notification delayed = notification(proto::Notification::DELAYED_ERROR, "cfg", 0);
  delayed.set_delayed_rc(TK_GS_COLLIDED_PROTOCOL);
  delayed.set_request_type(TK_GS_PROVIDER_MESSAGE);
  proto::Notification merge = notification(proto::Notification::MERGE, "cfg", 0);
  merge.set_summary_code(0);
  for (const proto::Notification* n : {&nphase, &approved, &message, &rejected, &delayed, &merge}) {
    ASSERT_TRUE(agent_->notify(*n));
  }
  for (int i = 0; i < 6; ++i) ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));

  std::vector<Seen> seen = p.seen();
  ASSERT_EQ(7u, seen.size());
  EXPECT_EQ("nPhase", seen[1].what);
  EXPECT_EQ("old", seen[1].currentValue);
  EXPECT_EQ(std::string("n\0ew", 4), seen[1].proposedValue);
  EXPECT_EQ(TK_GS_CHANGE_STATE_VALUE, seen[1].protocolType);
  EXPECT_EQ("approved", seen[2].what);
  EXPECT_EQ("approved", seen[3].what);
  EXPECT_EQ("harvest now", seen[3].message);
  EXPECT_EQ("rejected", seen[4].what);
  EXPECT_EQ(static_cast<unsigned>(TK_GS_VOTE_REJECTED), seen[4].summary);
  EXPECT_EQ("delayedError", seen[5].what);
  EXPECT_EQ(TK_GS_COLLIDED_PROTOCOL, seen[5].delayedRc);
  EXPECT_EQ(TK_GS_PROVIDER_MESSAGE, seen[5].requestType);
  EXPECT_EQ("merge", seen[6].what);
  for (const Seen& s : seen) EXPECT_EQ(GS_IAM_JOINED, s.state) << s.what;
  // The approved state value is the group's now.
  std::string value;
  ASSERT_EQ(TK_GS_OK, p.getStateValue(&value));
  EXPECT_EQ(std::string("n\0ew", 4), value);
}

TEST_F(GSProviderNotifications, VoteAnswersThePhaseWeWereAskedAbout) {
  ASSERT_TRUE(connect());
  TestProvider p("cfg", 0);
  ASSERT_TRUE(join(p));
  EXPECT_EQ(TK_GS_INVALID_STATE, p.vote(TK_GS_VOTE_APPROVE, nullptr, nullptr, TK_GS_NO_VOTE));
  proto::Notification n = notification(proto::Notification::N_PHASE, "cfg", 0);
  n.set_protocol(77);
  n.set_phase(2);
  n.set_protocol_type(TK_GS_CHANGE_STATE_VALUE);
  ASSERT_TRUE(agent_->notify(n));
  // The daemon votes from inside nPhaseCb, on the dispatch thread.
  p.voteInCallback(TK_GS_VOTE_APPROVE);
  auto dispatched = std::async(std::launch::async, [&] { return controller_.dispatch(TK_GS_BLOCKING); });
  proto::Request r;
  ASSERT_TRUE(agent_->answerNext(TK_GS_OK, &r));
  ASSERT_EQ(std::future_status::ready, dispatched.wait_for(kBound));
  EXPECT_EQ(TK_GS_OK, dispatched.get());
  EXPECT_EQ(TK_GS_OK, p.voteRc());
  ASSERT_TRUE(r.has_vote());
  EXPECT_EQ(77u, r.vote().protocol());
  EXPECT_EQ(2u, r.vote().phase());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_VOTE_APPROVE), r.vote().vote());
  EXPECT_FALSE(r.vote().has_state_value());
  // One vote per phase.
  EXPECT_EQ(TK_GS_INVALID_STATE, p.vote(TK_GS_VOTE_REJECT, nullptr, nullptr, TK_GS_NO_VOTE));
}

TEST_F(GSProviderNotifications, OurLeaveFailureOrExpelMakesUsIdle) {
  ASSERT_TRUE(connect());
  for (int type : {TK_GS_LEAVE, TK_GS_FAILURE_LEAVE, TK_GS_EXPEL}) {
    TestProvider p("leaving", 5);
    ASSERT_TRUE(join(p));
    if (type == TK_GS_LEAVE) {
      proto::Request r;
      EXPECT_EQ(TK_GS_OK, answered([&] { return p.leaveGroup(1, TK_GS_1_PHASE, 300); }, TK_GS_OK, &r));
      ASSERT_TRUE(r.has_leave());
      EXPECT_EQ(300u, r.leave().time_limit());
      EXPECT_EQ(GS_IAM_JOINED, p.getClientState()) << "the leave is done when it is approved";
    }
    proto::Notification n = notification(proto::Notification::APPROVED, "leaving", 5);
    n.set_protocol_type(static_cast<uint32_t>(type));
    n.set_proposal_changes(TK_GS_PROPOSED_MEMBERSHIP);
    *n.add_changing() = providerId(5, kNode);
    *n.add_current() = providerId(9, 1);
    ASSERT_TRUE(agent_->notify(n));
    ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
    EXPECT_EQ(GS_IAM_IDLE, p.getClientState()) << gscl_request_name(type);
    std::vector<Seen> seen = p.seen();
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(GS_IAM_IDLE, seen[1].state);
    GSMembershipList members;
    EXPECT_EQ(TK_GS_NOT_OK, p.getMembers(&members));
  }
}

TEST_F(GSProviderNotifications, OthersLeavingKeepUsJoined) {
  ASSERT_TRUE(connect());
  TestProvider p("shared", 5);
  ASSERT_TRUE(join(p));
  proto::Notification n = notification(proto::Notification::APPROVED, "shared", 5);
  n.set_protocol_type(TK_GS_FAILURE_LEAVE);
  n.set_summary_code(TK_GS_PROVIDER_FAILED);
  n.set_proposal_changes(TK_GS_PROPOSED_MEMBERSHIP);
  *n.add_changing() = providerId(5, kNode + 1);   // same instance, another node
  *n.add_current() = providerId(5, kNode);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_JOINED, p.getClientState());
  EXPECT_EQ(static_cast<unsigned>(TK_GS_PROVIDER_FAILED), p.seen().back().summary);
}

TEST_F(GSProviderNotifications, RejectedOrFailedJoinMakesUsIdle) {
  ASSERT_TRUE(connect());
  TestProvider p("picky", 6);
  EXPECT_EQ(TK_GS_OK, answered([&] { return p.joinGroup(); }, TK_GS_OK));
  EXPECT_EQ(GS_IAM_JOINING, p.getClientState());
  proto::Notification n = notification(proto::Notification::REJECTED, "picky", 6);
  n.set_protocol_type(TK_GS_JOIN);
  *n.add_changing() = providerId(6, kNode);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());

  EXPECT_EQ(TK_GS_OK, answered([&] { return p.joinGroup(); }, TK_GS_OK));
  proto::Notification d = notification(proto::Notification::DELAYED_ERROR, "picky", 6);
  d.set_request_type(TK_GS_JOIN);
  d.set_delayed_rc(TK_GS_DUPLICATE_INSTANCE_NUMBER);
  ASSERT_TRUE(agent_->notify(d));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  EXPECT_EQ(TK_GS_DUPLICATE_INSTANCE_NUMBER, p.seen().back().delayedRc);
}

TEST_F(GSProviderNotifications, DissolutionMakesUsIdle) {
  ASSERT_TRUE(connect());
  TestProvider p("merged", 1);
  ASSERT_TRUE(join(p));
  proto::Notification n = notification(proto::Notification::ANNOUNCEMENT, "merged", 1);
  n.set_summary_code(TK_GS_GROUP_DISSOLVED);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  EXPECT_EQ("announcement", p.seen().back().what);
}

TEST_F(GSProviderNotifications, DissolutionForgetsTheGroupsStateValue) {
  ASSERT_TRUE(connect());
  TestProvider p("merged", 1);
  ASSERT_TRUE(join(p));
  proto::Notification changed = notification(proto::Notification::APPROVED, "merged", 1);
  changed.set_protocol_type(TK_GS_CHANGE_STATE_VALUE);
  changed.set_proposal_changes(TK_GS_PROPOSED_STATE_VALUE);
  changed.set_has_proposed_state_value(true);
  changed.set_proposed_state_value("v1");
  *changed.add_current() = providerId(1, kNode);
  ASSERT_TRUE(agent_->notify(changed));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  std::string value;
  ASSERT_EQ(TK_GS_OK, p.getStateValue(&value));
  EXPECT_EQ("v1", value);
  // The group that partitions merge into starts empty: a value kept from
  // the old one would tell the daemon the new group holds it.
  proto::Notification dissolved = notification(proto::Notification::ANNOUNCEMENT, "merged", 1);
  dissolved.set_summary_code(TK_GS_GROUP_DISSOLVED);
  ASSERT_TRUE(agent_->notify(dissolved));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(TK_GS_NOT_OK, p.getStateValue(&value));
}

TEST_F(GSProviderNotifications, GoodbyeMakesUsIdleAtOnceAndAnOlderApprovalCannotUndoIt) {
  ASSERT_TRUE(connect());
  TestProvider p("bye", 2);
  EXPECT_EQ(TK_GS_OK, answered([&] { return p.joinGroup(); }, TK_GS_OK));
  // The approval arrives but is not dispatched before the goodbye's answer.
  proto::Notification n = notification(proto::Notification::APPROVED, "bye", 2);
  n.set_protocol_type(TK_GS_JOIN);
  *n.add_changing() = providerId(2, kNode);
  *n.add_current() = providerId(2, kNode);
  ASSERT_TRUE(agent_->notify(n));
  proto::Request r;
  EXPECT_EQ(TK_GS_OK, answered([&] { return p.goodbyeGroup(); }, TK_GS_OK, &r));
  ASSERT_TRUE(r.has_goodbye());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  EXPECT_EQ(TK_GS_NOT_JOINED, p.goodbyeGroup());
}

TEST_F(GSProviderNotifications, RefusedGoodbyeKeepsUsJoined) {
  ASSERT_TRUE(connect());
  TestProvider p("old", 2);
  ASSERT_TRUE(join(p));
  EXPECT_EQ(TK_GS_BACKLEVEL_PROVIDERS, answered([&] { return p.goodbyeGroup(); }, TK_GS_BACKLEVEL_PROVIDERS));
  EXPECT_EQ(GS_IAM_JOINED, p.getClientState());
}

// ---- subscriber notifications ----

TEST_F(GSSubscriberNotifications, UnknownGroupStaysPendingUntilTheGroupAppears) {
  ASSERT_TRUE(connect());
  TestSubscriber s("later", &controller_);
  proto::Request r;
  EXPECT_EQ(TK_GS_OK, answered([&] { return s.subscribeGroup(); }, TK_GS_OK, &r));
  ASSERT_TRUE(r.has_subscribe());
  EXPECT_EQ("later", r.subscribe().group());
  EXPECT_EQ(6u, r.subscribe().type());
  uint32_t number = r.subscribe().subscriber();
  EXPECT_NE(0u, number);
  EXPECT_EQ(GS_IAM_SUBSCRIBING, s.getClientState());
  EXPECT_EQ(TK_GS_ALREADY_SUBSCRIBED, s.subscribeGroup());

  proto::Notification d = forSubscriber(proto::Notification::DELAYED_ERROR, "later", number);
  d.set_delayed_rc(TK_GS_UNKNOWN_GROUP);
  d.set_request_type(TK_GS_SUBSCRIBE);
  ASSERT_TRUE(agent_->notify(d));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_SUBSCRIBING, s.getClientState());

  proto::Notification full = forSubscriber(proto::Notification::SUBSCRIPTION, "later", number);
  full.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
  *full.add_current() = providerId(0, 1);
  *full.add_current() = providerId(0, 2);
  ASSERT_TRUE(agent_->notify(full));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_SUBSCRIBED, s.getClientState());

  proto::Notification join = forSubscriber(proto::Notification::SUBSCRIPTION, "later", number);
  join.set_subscription_type(TK_GS_SUBSCRIPTION_DELTA_JOIN);
  *join.add_changing() = providerId(0, 3);
  for (uint32_t node : {1, 2, 3}) *join.add_current() = providerId(0, node);
  ASSERT_TRUE(agent_->notify(join));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));

  std::vector<Seen> seen = s.seen();
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("delayedError", seen[0].what);
  EXPECT_EQ(TK_GS_UNKNOWN_GROUP, seen[0].delayedRc);
  EXPECT_EQ("subscription", seen[1].what);
  EXPECT_EQ(GS_IAM_SUBSCRIBED, seen[1].state);
  EXPECT_EQ((std::vector<uint32_t>{idOf(0, 1), idOf(0, 2)}), seen[1].current);
  EXPECT_FALSE(seen[1].hasChanging);
  EXPECT_EQ(static_cast<unsigned>(TK_GS_SUBSCRIPTION_DELTA_JOIN), seen[2].subscriptionType);
  EXPECT_EQ(std::vector<uint32_t>{idOf(0, 3)}, seen[2].changing);
  GSMembershipList members;
  ASSERT_EQ(TK_GS_OK, s.getMembers(&members));
  EXPECT_EQ(3u, members.count());

  EXPECT_EQ(TK_GS_OK, answered([&] { return s.unsubscribeGroup(); }, TK_GS_OK, &r));
  ASSERT_TRUE(r.has_unsubscribe());
  EXPECT_EQ(number, r.unsubscribe().subscriber());
  EXPECT_EQ(GS_IAM_IDLE, s.getClientState());
  EXPECT_EQ(TK_GS_NOT_SUBSCRIBED, s.unsubscribeGroup());
}

TEST_F(GSSubscriberNotifications, DissolvedGroupEndsTheSubscriptionOnBothSides) {
  ASSERT_TRUE(connect());
  TestSubscriber s("fragile", &controller_);
  uint32_t number = 0;
  ASSERT_TRUE(subscribe(s, &number));
  EXPECT_EQ(GS_IAM_SUBSCRIBED, s.getClientState());
  proto::Notification n = forSubscriber(proto::Notification::SUBSCRIPTION, "fragile", number);
  n.set_subscription_type(TK_GS_SUBSCRIPTION_DISSOLVED);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, s.getClientState());
  EXPECT_EQ(GS_IAM_IDLE, s.seen().back().state);
  proto::Request r;
  ASSERT_TRUE(agent_->readRequest(&r));
  ASSERT_TRUE(r.has_unsubscribe());
  EXPECT_EQ(number, r.unsubscribe().subscriber());
  // A late notification of the old subscription reaches nobody.
  proto::Notification late = forSubscriber(proto::Notification::SUBSCRIPTION, "fragile", number);
  late.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
  ASSERT_TRUE(agent_->notify(late));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_IDLE, s.getClientState());
  EXPECT_EQ(2u, s.seen().size());
}

// ---- controller notifications ----

TEST_F(GSControllerNotifications, PingIsAnsweredFromTheResponsivenessCallback) {
  ASSERT_TRUE(connect());
  ASSERT_TRUE(agent_->ping(99, 10));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(std::vector<int>{10}, controller_.pingLimits);
  proto::ClientFrame f;
  ASSERT_TRUE(agent_->readFrame(&f));
  ASSERT_TRUE(f.has_ping_reply());
  EXPECT_EQ(99u, f.ping_reply().seq());
  EXPECT_EQ(1u, f.version());
}

TEST_F(GSControllerNotifications, PingIsNotAnsweredWhenTheBaseHandlerIsSkipped) {
  ASSERT_TRUE(connect());
  controller_.answerPings = false;
  ASSERT_TRUE(agent_->ping(5, 10));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  proto::ClientFrame f;
  EXPECT_FALSE(agent_->readFrame(&f, std::chrono::milliseconds(200)));
}

TEST_F(GSControllerNotifications, DomainControlSetsTheActiveVersion) {
  ASSERT_TRUE(connect());
  ASSERT_EQ(1u, controller_.domainEvents.size());   // the one after the hello
  proto::AgentFrame a;
  a.set_version(1);
  a.mutable_domain_control()->set_event(TK_GS_DOMAIN_VERSION);
  a.mutable_domain_control()->set_active_version(0x02040000);
  ASSERT_TRUE(agent_->send(a));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ((std::vector<int>{TK_GS_DOMAIN_VERSION, TK_GS_DOMAIN_VERSION}), controller_.domainEvents);
  tk_gs_velt_version_t v;
  ASSERT_EQ(TK_GS_OK, controller_.get_velt_active_version(&v));
  EXPECT_EQ(0x02040000u, v.quick_version);
  EXPECT_EQ(4, v.gs_release);
  // An event this library does not know is dropped, not handed on.
  a.mutable_domain_control()->set_event(42);
  ASSERT_TRUE(agent_->send(a));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(2u, controller_.domainEvents.size());
}

TEST_F(GSControllerNotifications, ChangedResponsivenessIsSentToTheAgent) {
  ASSERT_TRUE(connect());
  tk_gs_responsiveness_t r = {TK_GS_PING_RESPONSIVENESS, 20, 5, nullptr, 0};
  proto::Request seen;
  EXPECT_EQ(TK_GS_OK, answered([&] { return controller_.changeResponsiveness(&r); }, TK_GS_OK, &seen));
  ASSERT_TRUE(seen.has_change_responsiveness());
  EXPECT_EQ(20u, seen.change_responsiveness().responsiveness().interval());
  EXPECT_EQ(5u, seen.change_responsiveness().responsiveness().response_time_limit());
}

// ---- losing the connection ----

TEST_F(GSConnectionLoss, AgentDropTellsEveryProviderAndSubscriber) {
  ASSERT_TRUE(connect());
  TestProvider joined("a", 1);
  TestProvider idle("b", 2);
  TestSubscriber s1("a", &controller_);
  TestSubscriber s2("c", &controller_);
  ASSERT_TRUE(join(joined));
  uint32_t number = 0;
  ASSERT_TRUE(subscribe(s1, &number));
  agent_->closeConnection();
  ASSERT_EQ(TK_GS_GS_HAS_DIED, controller_.dispatch(TK_GS_BLOCKING));
  for (TestProvider* p : {&joined, &idle}) {
    std::vector<Seen> seen = p->seen();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("announcement", seen.back().what);
    EXPECT_EQ(static_cast<unsigned>(TK_GS_GROUP_SERVICES_HAS_DIED), seen.back().summary);
    EXPECT_EQ(GS_IAM_IDLE, seen.back().state);
    EXPECT_EQ(GS_IAM_IDLE, p->getClientState());
  }
  for (TestSubscriber* s : {&s1, &s2}) {
    std::vector<Seen> seen = s->seen();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(static_cast<unsigned>(TK_GS_SUBSCRIPTION_GS_HAS_DIED), seen.back().subscriptionType);
    EXPECT_EQ(GS_IAM_IDLE, s->getClientState());
  }
  EXPECT_EQ(TK_GS_GS_HAS_DIED, controller_.dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, controller_.dispatch(TK_GS_NON_BLOCKING));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, idle.joinGroup());
  EXPECT_EQ(2u, joined.seen().size()) << "the approval, then one announcement";
  // An error-log entry tells why; its id is offered for the exit report.
  ASSERT_NE(nullptr, controller_.get_ffdc_id());
  EXPECT_EQ(42u, strlen(controller_.get_ffdc_id()));
  std::lock_guard<std::mutex> g(syslogMu);
  ASSERT_FALSE(syslogLines.empty());
  EXPECT_NE(std::string::npos, syslogLines.back().find("closed by the agent")) << syslogLines.back();
}

TEST_F(GSConnectionLoss, WaitingRequestIsReleased) {
  ASSERT_TRUE(connect());
  TestProvider p("waiting", 1);
  auto call = std::async(std::launch::async, [&] { return p.joinGroup(); });
  proto::Request r;
  ASSERT_TRUE(agent_->readRequest(&r));
  agent_->closeConnection();
  ASSERT_EQ(std::future_status::ready, call.wait_for(kBound));
  EXPECT_EQ(TK_GS_GS_HAS_DIED, call.get());
}

TEST_F(GSConnectionLoss, QuitReleasesAWaitingRequest) {
  ASSERT_TRUE(connect());
  TestProvider p("waiting", 1);
  auto call = std::async(std::launch::async, [&] { return p.joinGroup(); });
  proto::Request r;
  ASSERT_TRUE(agent_->readRequest(&r));
  controller_.quit();
  ASSERT_EQ(std::future_status::ready, call.wait_for(kBound));
  EXPECT_EQ(TK_GS_NOT_INITIALIZED, call.get());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  EXPECT_TRUE(p.seen().empty()) << "quit runs no callbacks";
}

TEST_F(GSConnectionLoss, MalformedFramesLoseTheConnection) {
  proto::AgentFrame wrongVersion;
  wrongVersion.set_version(7);
  wrongVersion.mutable_ping()->set_seq(1);
  std::string wrongVersionBytes;
  wrongVersion.SerializeToString(&wrongVersionBytes);
  proto::AgentFrame badProvider;
  badProvider.set_version(1);
  proto::Notification* n = badProvider.mutable_notification();
  n->set_kind(proto::Notification::APPROVED);
  n->set_group("g");
  *n->add_current() = providerId(70000, 1);
  std::string badProviderBytes;
  badProvider.SerializeToString(&badProviderBytes);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"bad marker", "XY\x01\x00garbage"},
      {"unparsable", FakeAgent::packetsOf("\xff\xff\xff\xff not protobuf")},
      {"wrong version", FakeAgent::packetsOf(wrongVersionBytes)},
      {"provider out of range", FakeAgent::packetsOf(badProviderBytes)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    controller_.quit();
    {
      std::lock_guard<std::mutex> g(reportsMu);
      reports.clear();
    }
    ASSERT_TRUE(connect());
    TestProvider p("g", 1);
    ASSERT_TRUE(agent_->sendRaw(c.second));
    EXPECT_EQ(TK_GS_GS_HAS_DIED, controller_.dispatch(TK_GS_BLOCKING));
    EXPECT_FALSE(controller_.isConnected());
    EXPECT_EQ(static_cast<unsigned>(TK_GS_GROUP_SERVICES_HAS_DIED), p.seen().back().summary);
    EXPECT_TRUE(reported("malformed frame from the agent"));
  }
}

// ---- adapter information ----

TEST_F(GSAdapterInfo, UnknownAddressUntilTopologyCarriesIt) {
  ASSERT_TRUE(connect());
  tk_gs_ip_addr ip = mapped("10.1.0.3");
  tk_gs_adapter_info_t info;
  EXPECT_EQ(TK_GS_ADDRESS_UNKNOWN, controller_.get_adapter_info(&ip, &info));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, controller_.get_adapter_info(nullptr, &info));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, controller_.get_adapter_info(&ip, nullptr));
}

TEST_F(GSAdapterInfo, CarriedInformationIsAnsweredLocally) {
  ASSERT_TRUE(connect());
  TestSubscriber raw("allAdapterMembership", &controller_);
  proto::Request r;
  EXPECT_EQ(TK_GS_OK, answered([&] { return raw.subscribeGroup(); }, TK_GS_OK, &r));
  uint32_t number = r.subscribe().subscriber();
  std::string v6(16, '\0');
  v6[0] = static_cast<char>(0xfe);
  v6[1] = static_cast<char>(0x80);
  v6[15] = 7;
  proto::Notification full = forSubscriber(proto::Notification::SUBSCRIPTION, "allAdapterMembership", number);
  full.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
  *full.add_current() = providerId(0, 3);
  *full.add_current() = providerId(1, 4);
  *full.add_full_ip() = adapter(ipv4("10.1.0.3"), "sxn0", 3, 0);
  *full.add_full_ip() = adapter(v6, "ib0", 4, 1);
  ASSERT_TRUE(agent_->notify(full));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));

  std::vector<Seen> seen = raw.seen();
  ASSERT_EQ(1u, seen.size());
  ASSERT_TRUE(seen[0].hasFullIp);
  ASSERT_EQ(2u, seen[0].fullIp.size());
  tk_gs_ip_addr ip4 = mapped("10.1.0.3");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(ip4.gs_bytes), 16), seen[0].fullIp[0]);
  EXPECT_EQ(v6, seen[0].fullIp[1]);
  EXPECT_EQ(TK_GS_OK, seen[0].adapterInfoRc) << "known while the callback runs";
  EXPECT_EQ("sxn0", seen[0].adapterInterface);

  tk_gs_adapter_info_t info;
  ASSERT_EQ(TK_GS_OK, controller_.get_adapter_info(&ip4, &info));
  EXPECT_STREQ("sxn0", info.gs_interface_name);
  EXPECT_EQ(3, info.gs_node_number);
  EXPECT_EQ(0, info.gs_instance_number);
  EXPECT_STREQ("allAdapterMembership", info.gs_group_name);
  EXPECT_STREQ("sxn0net", info.gs_network_name);
  EXPECT_STREQ("sxn", info.gs_network_type);
  tk_gs_ip_addr ip6;
  memcpy(ip6.gs_bytes, v6.data(), 16);
  ASSERT_EQ(TK_GS_OK, controller_.get_adapter_info(&ip6, &info));
  EXPECT_STREQ("ib0", info.gs_interface_name);
  EXPECT_EQ(4, info.gs_node_number);

  // A leaving adapter is still known, so that its leave can be resolved.
  proto::Notification leave = forSubscriber(proto::Notification::SUBSCRIPTION, "allAdapterMembership", number);
  leave.set_subscription_type(TK_GS_SUBSCRIPTION_DELTA_LEAVE);
  *leave.add_changing() = providerId(0, 3);
  *leave.add_current() = providerId(1, 4);
  *leave.add_changing_ip() = adapter(ipv4("10.1.0.3"), "sxn0", 3, 0);
  ASSERT_TRUE(agent_->notify(leave));
  ASSERT_EQ(TK_GS_OK, controller_.dispatch(TK_GS_BLOCKING));
  seen = raw.seen();
  ASSERT_EQ(2u, seen.size());
  EXPECT_FALSE(seen[1].hasFullIp);
  ASSERT_EQ(1u, seen[1].changingIp.size());
  EXPECT_EQ(TK_GS_OK, controller_.get_adapter_info(&ip4, &info));
}

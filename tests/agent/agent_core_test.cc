// AgentCore in-process: one core per node of a SimCluster, clients in
// memory that record every frame, a clock the test moves by hand and a
// topology fed with interface facts. What the process layer would do
// (report a closed connection, call in after the bus delivered) the
// harness does in settle().
#include "agent_core.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "agent_test_util.h"
#include "gs_types.h"
#include "sim_bus.h"
#include "topology.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

using N = proto::Notification;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A clock that only moves when the test says so. Its timers fire from
// advance(), in the order they fall due.
class FakeClock : public TimerSource {
 public:
  std::unique_ptr<Timer> newTimer() override { return std::make_unique<FakeTimer>(this); }

  // Moves the clock on by d, firing whatever falls due on the way.
  void advance(milliseconds d) {
    milliseconds target = now_ + d;
    for (;;) {
      FakeTimer* next = nullptr;
      for (FakeTimer* t : timers_) {
        if (!t->armed_ || t->due_ > target) continue;
        if (next == nullptr || std::tie(t->due_, t->order_) < std::tie(next->due_, next->order_)) {
          next = t;
        }
      }
      if (next == nullptr) break;
      now_ = next->due_;
      next->armed_ = false;
      // The callback may destroy its own timer: it runs from a copy.
      std::function<void()> fired = std::move(next->fired_);
      fired();
    }
    now_ = target;
  }

  // Timers started and not yet fired or cancelled.
  size_t armed() const {
    return static_cast<size_t>(
        std::count_if(timers_.begin(), timers_.end(), [](const FakeTimer* t) { return t->armed_; }));
  }

 private:
  class FakeTimer : public Timer {
   public:
    explicit FakeTimer(FakeClock* clock) : clock_(clock) { clock_->timers_.insert(this); }
    ~FakeTimer() override { clock_->timers_.erase(this); }
    void start(milliseconds after, std::function<void()> fired) override {
      armed_ = true;
      due_ = clock_->now_ + after;
      order_ = ++clock_->started_;
      fired_ = std::move(fired);
    }
    void cancel() override {
      armed_ = false;
      fired_ = nullptr;
    }

    FakeClock* clock_;
    bool armed_ = false;
    milliseconds due_{0};
    uint64_t order_ = 0;
    std::function<void()> fired_;
  };

  milliseconds now_{0};
  uint64_t started_ = 0;
  std::set<FakeTimer*> timers_;
};

// A client connection in memory: it records what the core sends it. A
// close is queued for the harness, which tells the core later, as the
// process layer does.
struct Closing {
  uint64_t id;
  std::string why;
  bool wasAccepted;
};

class FakeClient : public ClientPort {
 public:
  FakeClient(uint64_t id, std::vector<Closing>* closings) : id_(id), closings_(closings) {}

  uint64_t id() const override { return id_; }
  const Peer& peer() const override { return peer_; }
  const std::string& program() const override { return program_; }
  void setProgram(const std::string& program) override { program_ = program; }
  void accept(const proto::AgentFrame& helloReply) override {
    if (state_ != State::kNew) return;
    state_ = State::kAccepted;
    frames.push_back(helloReply);
  }
  void refuse(const proto::AgentFrame& frame, const std::string& why) override {
    if (state_ != State::kNew) return;
    state_ = State::kRefused;
    frames.push_back(frame);
    closings_->push_back(Closing{id_, why, false});
  }
  void send(const proto::AgentFrame& frame) override {
    if (state_ == State::kClosed || state_ == State::kRefused) return;
    EXPECT_EQ(static_cast<uint32_t>(proto::WIRE_VERSION_1), frame.version());
    frames.push_back(frame);
  }
  void sendFrames(std::unique_ptr<FrameSource> source) override {
    std::string bytes;
    size_t from = 0;
    while (state_ != State::kClosed && state_ != State::kRefused && source->next(&bytes, &from)) {
      proto::AgentFrame frame;
      EXPECT_TRUE(frame.ParseFromArray(bytes.data() + from, static_cast<int>(bytes.size() - from)));
      send(frame);
    }
  }
  void close(const std::string& why) override {
    if (state_ == State::kClosed) return;
    bool wasAccepted = state_ == State::kAccepted;
    state_ = State::kClosed;
    closings_->push_back(Closing{id_, why, wasAccepted});
  }
  void setResponsiveness(uint32_t intervalSeconds, uint32_t limitSeconds) override {
    pingInterval = intervalSeconds;
    pingLimit = limitSeconds;
  }
  bool accepted() const override { return state_ == State::kAccepted; }
  bool closed() const override { return state_ == State::kClosed; }
  bool refused() const { return state_ == State::kRefused; }

  // The replies to request id.
  std::vector<proto::Reply> replies(uint64_t id) const {
    std::vector<proto::Reply> out;
    for (const proto::AgentFrame& f : frames) {
      if (f.has_reply() && f.reply().id() == id) out.push_back(f.reply());
    }
    return out;
  }
  // The single reply's rc; -1000 when there is none, -2000 when several.
  int rcOf(uint64_t id) const {
    std::vector<proto::Reply> r = replies(id);
    if (r.empty()) return -1000;
    return r.size() == 1 ? r.front().rc() : -2000;
  }
  std::string textOf(uint64_t id) const {
    std::vector<proto::Reply> r = replies(id);
    return r.empty() ? std::string() : r.front().text();
  }
  std::vector<N> notes(N::Kind kind) const {
    std::vector<N> out;
    for (const proto::AgentFrame& f : frames) {
      if (f.has_notification() && f.notification().kind() == kind) out.push_back(f.notification());
    }
    return out;
  }
  N last(N::Kind kind) const {
    std::vector<N> v = notes(kind);
    return v.empty() ? N() : v.back();
  }

  std::vector<proto::AgentFrame> frames;
  uint32_t pingInterval = 0;
  uint32_t pingLimit = 0;

 private:
  enum class State { kNew, kAccepted, kRefused, kClosed };
  uint64_t id_;
  std::vector<Closing>* closings_;
  Peer peer_;
  std::string program_;
  State state_ = State::kNew;
};

// This node's interfaces as the kernel would report them, through the
// real tracker that turns them into adapters.
class FakeTopology : public NodeTopology {
 public:
  explicit FakeTopology(uint32_t node) : tracker_(node, InterfaceFilter()) {}
  bool ready() const override { return ready_; }
  std::vector<proto::AdapterUpdate> updatesFrom(
      const std::map<uint32_t, proto::AdapterImage>& known) const override {
    return tracker_.updatesFrom(known);
  }
  void setView(uint32_t self, const std::vector<uint32_t>& members) override {
    tracker_.setNode(self);
    tracker_.setAlone(members.size() <= 1);
    ++views;
  }

  // The KOR facts of the interfaces this node publishes (node left 0: the
  // core fills it in).
  std::vector<proto::InterfaceResource> interfaces() const override {
    ++interfaceReads;
    return published;
  }

  void setReady() { ready_ = true; }
  void interface(int ifindex, const std::string& name, bool running, const std::string& ip) {
    tracker_.linkChanged(ifindex, name, IFF_UP | (running ? IFF_RUNNING : 0));
    tracker_.addressAdded(ifindex, ip, false);
  }

  int views = 0;
  std::vector<proto::InterfaceResource> published;
  mutable int interfaceReads = 0;

 private:
  AdapterTracker tracker_;
  bool ready_ = false;
};

class AgentCoreTest : public ::testing::Test {
 protected:
  struct Node {
    std::unique_ptr<AgentCore> core;
    std::vector<std::string> log;
    std::map<uint64_t, std::unique_ptr<FakeClient>> clients;
  };

  // Starts cores on nodes 1..n and lets them join and sync; beforeJoin
  // (when given) sees each core before its node joins.
  void start(size_t n, const std::function<void(uint32_t, AgentCore&)>& beforeJoin = nullptr) {
    std::vector<uint32_t> ids;
    for (uint32_t i = 1; i <= n; ++i) ids.push_back(i);
    cluster_ = std::make_unique<SimCluster>(ids, 11);
    for (uint32_t i : ids) {
      Node& node = nodes_[i];
      node.core = std::make_unique<AgentCore>(
          cluster_->bus(i), &clock_, AgentCore::Settings(),
          [&node](const std::string& line) { node.log.push_back(line); });
      if (beforeJoin) beforeJoin(i, *node.core);
      ASSERT_EQ(0, cluster_->bus(i)->join());
    }
    settle();
    for (uint32_t i : ids) ASSERT_TRUE(core(i).replica().isSynced()) << "node " << i;
  }

  AgentCore& core(uint32_t n) { return *nodes_.at(n).core; }

  // What the loop would do until nothing moves: deliver the bus, tell the
  // cores of closed connections and let them send what the bus held back.
  void settle() {
    for (int round = 0; round < 100; ++round) {
      cluster_->deliverAll();
      bool closed = false;
      for (auto& e : nodes_) {
        std::vector<Closing> now;
        now.swap(closings_[e.first]);
        for (const Closing& c : now) {
          e.second.core->clientClosed(*e.second.clients.at(c.id), c.why, c.wasAccepted);
          closed = true;
        }
        e.second.core->busDispatched();
      }
      if (!closed && cluster_->quiet()) return;
    }
    FAIL() << "the cluster does not settle";
  }

  // A connection on node n that the core lets in, before its hello.
  FakeClient& connect(uint32_t n) {
    uint64_t id = nextClient_++;
    auto client = std::make_unique<FakeClient>(id, &closings_[n]);
    FakeClient& c = *client;
    nodes_.at(n).clients[id] = std::move(client);
    core(n).clientConnected(&c);
    return c;
  }
  // A client on node n whose hello (without pings) was accepted.
  FakeClient& client(uint32_t n) {
    FakeClient& c = connect(n);
    proto::Hello h;
    h.set_program("agent_core_test");
    core(n).hello(c, h);
    EXPECT_TRUE(c.accepted());
    return c;
  }
  // Sends a request with a fresh id (returned) and settles.
  uint64_t send(uint32_t n, FakeClient& c, proto::Request r) {
    uint64_t id = nextRequest_++;
    r.set_id(id);
    core(n).request(c, r);
    settle();
    return id;
  }
  // Closes a client's connection (the client went away).
  void drop(FakeClient& c, const std::string& why) {
    c.close(why);
    settle();
  }
  std::string members(uint32_t n, const std::string& group) {
    return ids(core(n).replica().members(group));
  }

  static proto::Request subscribeReq(const std::string& group, uint32_t subscriber) {
    proto::Request r;
    r.mutable_subscribe()->set_group(group);
    r.mutable_subscribe()->set_subscriber(subscriber);
    r.mutable_subscribe()->set_type(TK_GS_SUBSCRIPTION_DELTA_JOIN |
                                    TK_GS_SUBSCRIPTION_DELTA_LEAVE);
    return r;
  }

  FakeClock clock_;
  std::unique_ptr<SimCluster> cluster_;
  std::map<uint32_t, Node> nodes_;
  std::map<uint32_t, std::vector<Closing>> closings_;
  uint64_t nextClient_ = 1;
  uint64_t nextRequest_ = 1;
};

// ------------------------------------------------------------ clients

using AgentCoreClients = AgentCoreTest;

TEST_F(AgentCoreClients, HelloIsAcceptedWithTheNodeAndTheActiveVersion) {
  start(2);
  FakeClient& c = connect(2);
  proto::Hello h;
  h.set_program("prog");
  h.mutable_responsiveness()->set_type(TK_GS_PING_RESPONSIVENESS);
  h.mutable_responsiveness()->set_interval(5);
  h.mutable_responsiveness()->set_response_time_limit(2);
  core(2).hello(c, h);
  ASSERT_TRUE(c.accepted());
  ASSERT_EQ(2u, c.frames.size());
  ASSERT_TRUE(c.frames[0].has_hello_reply());
  EXPECT_EQ(TK_GS_OK, c.frames[0].hello_reply().rc());
  EXPECT_EQ(2u, c.frames[0].hello_reply().node());
  EXPECT_EQ(kAgentVersion, c.frames[0].hello_reply().agent_version());
  EXPECT_EQ(kAgentVersion, c.frames[0].hello_reply().active_version());
  ASSERT_TRUE(c.frames[1].has_domain_control());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_DOMAIN_VERSION), c.frames[1].domain_control().event());
  EXPECT_EQ(5u, c.pingInterval);
  EXPECT_EQ(2u, c.pingLimit);
  EXPECT_EQ("prog", c.program());
}

TEST_F(AgentCoreClients, HelloAskingForCounterResponsivenessIsRefused) {
  start(1);
  FakeClient& c = connect(1);
  proto::Hello h;
  h.mutable_responsiveness()->set_type(TK_GS_COUNTER_RESPONSIVENESS);
  core(1).hello(c, h);
  EXPECT_TRUE(c.refused());
  ASSERT_EQ(1u, c.frames.size());
  EXPECT_EQ(TK_GS_NOT_SUPPORTED, c.frames[0].hello_reply().rc());
  EXPECT_NE(std::string::npos, c.frames[0].hello_reply().text().find("ping"));
  settle();
  EXPECT_EQ(0u, core(1).clientCount());
}

TEST_F(AgentCoreClients, RequestWithoutAnOperationIsABadParameter) {
  start(1);
  FakeClient& c = client(1);
  uint64_t empty = send(1, c, proto::Request());
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.rcOf(empty));
  EXPECT_NE(std::string::npos, c.textOf(empty).find("without an operation"));
  // A newer client's operation this agent cannot parse arrives without one.
  proto::Request known;
  known.set_id(nextRequest_++);
  std::string bytes = known.SerializeAsString();
  bytes += std::string{'\x9a', '\x06', 1, 'x'};  // field 99, length-delimited: 1 byte
  proto::Request unknown;
  ASSERT_TRUE(unknown.ParseFromString(bytes));
  ASSERT_EQ(proto::Request::OP_NOT_SET, unknown.op_case());
  core(1).request(c, unknown);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, c.rcOf(known.id()));
  EXPECT_FALSE(c.closed());
}

TEST_F(AgentCoreClients, KorRequestsAreAnsweredHereWithoutReachingTheBus) {
  start(2);
  FakeClient& c = client(1);
  proto::Request query;
  query.mutable_kor_query()->set_class_name("Zel.PeerNode");
  proto::Request reg;
  reg.mutable_kor_register()->set_kind(proto::KorRegister::CLASS_EVENT);
  reg.mutable_kor_register()->set_class_name("Zel.NetworkInterface");
  reg.mutable_kor_register()->set_event("ResourceDefined");
  proto::Request badClass;
  badClass.mutable_kor_query()->set_class_name("Zel.Nothing");
  std::string before = core(1).replica().digest();
  for (const proto::Request& r : {query, reg, badClass}) {
    proto::Request asked = r;
    asked.set_id(nextRequest_++);
    core(1).request(c, asked);
    EXPECT_EQ(0u, cluster_->pending(1));
    EXPECT_EQ(0u, cluster_->pending(2));
    int want = r.has_kor_query() && r.kor_query().class_name() == "Zel.Nothing" ? TK_GS_UNKNOWN_GROUP
                                                                                : TK_GS_OK;
    EXPECT_EQ(want, c.rcOf(asked.id())) << asked.ShortDebugString() << " " << c.textOf(asked.id());
  }
  settle();
  EXPECT_EQ(before, core(1).replica().digest());
  // The connection goes on serving.
  uint64_t join = send(1, c, joinReq("g", 1));
  EXPECT_EQ(TK_GS_OK, c.rcOf(join));
}

TEST_F(AgentCoreClients, QueryAnswersWithTheGroupsAndTheSubscribersHere) {
  start(2);
  FakeClient& a = client(1);
  FakeClient& s = client(2);
  send(1, a, joinReq("g", 1));
  send(2, s, subscribeReq("g", 4));
  proto::Request q;
  q.mutable_query()->set_kind(proto::Query::MEMBERS);
  q.mutable_query()->set_group("g");
  uint64_t id = send(2, s, q);
  ASSERT_EQ(TK_GS_OK, s.rcOf(id));
  proto::QueryAnswer answer = s.replies(id).front().answer();
  EXPECT_EQ(2u, answer.node());
  ASSERT_EQ(1, answer.groups_size());
  EXPECT_EQ("1/1", ids(answer.groups(0).providers()));
  EXPECT_EQ(1u, answer.groups(0).subscribers_here());
  q.mutable_query()->set_group("nothing");
  EXPECT_EQ(TK_GS_UNKNOWN_GROUP, s.rcOf(send(2, s, q)));
}

// ------------------------------------------------------------ groups

using AgentCoreGroups = AgentCoreTest;

TEST_F(AgentCoreGroups, JoinOnOneNodeIsSeenBySubscriberOnAnother) {
  start(2);
  FakeClient& a = client(1);
  FakeClient& s = client(2);
  uint64_t join = send(1, a, joinReq("g", 1));
  EXPECT_EQ(TK_GS_OK, a.rcOf(join));
  EXPECT_EQ("1/1", ids(a.last(N::APPROVED).current()));

  uint64_t sub = send(2, s, subscribeReq("g", 7));
  EXPECT_EQ(TK_GS_OK, s.rcOf(sub));
  ASSERT_EQ(1u, s.notes(N::SUBSCRIPTION).size());
  N full = s.last(N::SUBSCRIPTION);
  EXPECT_TRUE(full.for_subscriber());
  EXPECT_EQ(7u, full.subscriber());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_MEMBERSHIP), full.subscription_type());
  EXPECT_EQ("1/1", ids(full.current()));

  FakeClient& b = client(1);
  send(1, b, joinReq("g", 2));
  ASSERT_EQ(2u, s.notes(N::SUBSCRIPTION).size());
  N delta = s.last(N::SUBSCRIPTION);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_DELTA_JOIN), delta.subscription_type());
  EXPECT_EQ("2/1", ids(delta.changing()));
  EXPECT_EQ("1/1 2/1", ids(delta.current()));
  EXPECT_EQ(core(1).replica().digest(), core(2).replica().digest());
}

TEST_F(AgentCoreGroups, SubscriptionToAGroupNotThereYetGetsTheDelayedErrorThenTheGroup) {
  start(2);
  FakeClient& s = client(2);
  uint64_t sub = send(2, s, subscribeReq("later", 3));
  EXPECT_EQ(TK_GS_OK, s.rcOf(sub));
  N error = s.last(N::DELAYED_ERROR);
  EXPECT_EQ(TK_GS_UNKNOWN_GROUP, error.delayed_rc());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIBE), error.request_type());
  EXPECT_EQ(sub, error.request_id());
  EXPECT_EQ(3u, error.subscriber());
  EXPECT_TRUE(s.notes(N::SUBSCRIPTION).empty());

  FakeClient& a = client(1);
  send(1, a, joinReq("later", 5));
  ASSERT_EQ(1u, s.notes(N::SUBSCRIPTION).size());
  N full = s.last(N::SUBSCRIPTION);
  EXPECT_EQ("later", full.group());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_MEMBERSHIP), full.subscription_type());
  EXPECT_EQ("5/1", ids(full.current()));
  EXPECT_EQ(1u, s.notes(N::DELAYED_ERROR).size());
}

TEST_F(AgentCoreGroups, ClosedClientsProvidersLeaveByFailure) {
  start(2);
  FakeClient& a = client(1);
  FakeClient& b = client(2);
  FakeClient& s = client(2);
  send(1, a, joinReq("g", 1));
  send(2, b, joinReq("g", 2));
  send(2, s, subscribeReq("g", 1));
  ASSERT_EQ("1/1 2/2", members(2, "g"));

  drop(a, "the client closed the connection");
  EXPECT_EQ("2/2", members(1, "g"));
  EXPECT_EQ("2/2", members(2, "g"));
  N leave = b.last(N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_FAILURE_LEAVE), leave.protocol_type());
  EXPECT_EQ("1/1", ids(leave.changing()));
  EXPECT_NE(0u, leave.summary_code() & TK_GS_PROVIDER_FAILED);
  N delta = s.last(N::SUBSCRIPTION);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_DELTA_LEAVE), delta.subscription_type());
  EXPECT_EQ("1/1", ids(delta.changing()));
  EXPECT_EQ(0u, core(1).clientCount());
  EXPECT_EQ(2u, core(2).clientCount());
}

TEST_F(AgentCoreGroups, DepartureTheBusRefusesIsSentFromTheBacklogOnTheTimer) {
  start(2);
  FakeClient& a = client(1);
  FakeClient& b = client(2);
  send(1, a, joinReq("g", 1));
  send(2, b, joinReq("g", 2));
  cluster_->failMulticastsForTesting = EAGAIN;
  drop(a, "the client stopped answering");
  clock_.advance(milliseconds(500));
  settle();
  EXPECT_EQ("1/1 2/2", members(2, "g"));   // still waiting for the bus
  cluster_->failMulticastsForTesting = 0;
  clock_.advance(milliseconds(100));
  settle();
  EXPECT_EQ("2/2", members(2, "g"));
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_FAILURE_LEAVE), b.last(N::APPROVED).protocol_type());
}

TEST_F(AgentCoreGroups, ClosedSubscriberIsToldNothingMore) {
  start(2);
  FakeClient& s = client(2);
  send(2, s, subscribeReq("g", 1));
  EXPECT_EQ(1u, core(2).subscriptionCount());
  drop(s, "gone");
  EXPECT_EQ(0u, core(2).subscriptionCount());
  size_t frames = s.frames.size();
  FakeClient& a = client(1);
  send(1, a, joinReq("g", 1));
  EXPECT_EQ(frames, s.frames.size());
}

// ------------------------------------------------------------ deadlines

using AgentCoreDeadlines = AgentCoreTest;

TEST_F(AgentCoreDeadlines, MissingVotesTakeTheDefaultWhenTheTimerFires) {
  start(2);
  FakeClient& a = client(1);
  FakeClient& b = client(2);
  send(1, a, joinReq("v", 1, attrs(1, TK_GS_VOTE_REJECT)));
  send(2, b, joinReq("v", 2));
  uint64_t change = send(2, b, valueReq("v", 2, "new", 2, 5));
  EXPECT_EQ(TK_GS_OK, b.rcOf(change));
  N phase = b.last(N::N_PHASE);
  ASSERT_EQ(1u, phase.phase());
  EXPECT_EQ(5u, phase.time_limit());
  send(2, b, voteReq("v", 2, phase.protocol(), 1, TK_GS_VOTE_APPROVE));
  // Only the lowest node of the view watches the deadline.
  EXPECT_EQ(1u, clock_.armed());

  clock_.advance(milliseconds(4999));
  settle();
  EXPECT_TRUE(b.notes(N::REJECTED).empty());
  EXPECT_EQ(1u, b.notes(N::APPROVED).size());   // its own join

  // a never votes: at the limit its vote is the group's default, reject.
  clock_.advance(milliseconds(1));
  settle();
  for (FakeClient* c : {&a, &b}) {
    N rejected = c->last(N::REJECTED);
    EXPECT_EQ(phase.protocol(), rejected.protocol());
    EXPECT_NE(0u, rejected.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED);
  }
  EXPECT_EQ(0u, clock_.armed());
  proto::Request q;
  q.mutable_query()->set_kind(proto::Query::MEMBERS);
  q.mutable_query()->set_group("v");
  uint64_t id = send(1, a, q);
  ASSERT_EQ(TK_GS_OK, a.rcOf(id));
  EXPECT_EQ("", a.replies(id).front().answer().groups(0).state_value());
}

TEST_F(AgentCoreDeadlines, ProtocolThatEndsFirstLeavesNoTimerBehind) {
  start(1);
  FakeClient& a = client(1);
  send(1, a, joinReq("v", 1));
  send(1, a, valueReq("v", 1, "yes", 2, 30));
  EXPECT_EQ(1u, clock_.armed());
  N phase = a.last(N::N_PHASE);
  send(1, a, voteReq("v", 1, phase.protocol(), 1, TK_GS_VOTE_APPROVE));
  EXPECT_EQ(0u, clock_.armed());
  EXPECT_EQ("yes", a.last(N::APPROVED).current_state_value());
  clock_.advance(seconds(60));
  settle();
  EXPECT_TRUE(a.notes(N::REJECTED).empty());
}

TEST_F(AgentCoreDeadlines, TimeOutTheBusRefusesIsAskedAgain) {
  start(1);
  FakeClient& a = client(1);
  send(1, a, joinReq("v", 1));
  send(1, a, valueReq("v", 1, "late", 2, 2));
  cluster_->failMulticastsForTesting = EAGAIN;
  clock_.advance(seconds(2));
  settle();
  EXPECT_EQ(1u, a.notes(N::APPROVED).size());   // the join only
  cluster_->failMulticastsForTesting = 0;
  clock_.advance(seconds(1));
  settle();
  N done = a.last(N::APPROVED);
  EXPECT_EQ("late", done.current_state_value());     // the default vote approves
  EXPECT_NE(0u, done.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED);
}

TEST_F(AgentCoreDeadlines, StoppedCoreFiresNothing) {
  start(1);
  FakeClient& a = client(1);
  send(1, a, joinReq("v", 1));
  send(1, a, valueReq("v", 1, "x", 2, 1));
  core(1).stop();
  clock_.advance(seconds(5));
  settle();
  EXPECT_TRUE(a.notes(N::REJECTED).empty());
  EXPECT_EQ(1u, a.notes(N::APPROVED).size());
}

// ------------------------------------------------------------ adapters

using AgentCoreAdapters = AgentCoreTest;

TEST_F(AgentCoreAdapters, ThisNodesAdaptersAreReportedOnceTheTopologyIsReady) {
  start(2);
  FakeTopology topo(1);
  topo.interface(3, "sxn0", true, std::string{10, 0, 0, 1});
  core(1).setTopology(&topo);
  core(1).topologyChanged();
  settle();
  EXPECT_EQ("", members(2, kRawAdapterGroup));   // the first picture is not complete

  FakeClient& s = client(2);
  send(2, s, subscribeReq(kRawAdapterGroup, 1));
  topo.setReady();
  core(1).topologyChanged();
  settle();
  EXPECT_EQ("0/1", members(2, kRawAdapterGroup));
  N joined = s.last(N::SUBSCRIPTION);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_DELTA_JOIN), joined.subscription_type());
  ASSERT_EQ(1, joined.changing_ip_size());
  EXPECT_EQ("sxn0", joined.changing_ip(0).interface_name());
  EXPECT_EQ(std::string({10, 0, 0, 1}), joined.changing_ip(0).ip());

  topo.interface(3, "sxn0", false, std::string{10, 0, 0, 1});
  core(1).topologyChanged();
  settle();
  EXPECT_EQ("", members(2, kRawAdapterGroup));
  EXPECT_EQ(1u, core(2).replica().adaptersOf(1).size());
}

TEST_F(AgentCoreAdapters, ReportTheBusRefusesIsSentAgainOnTheTimer) {
  start(2);
  FakeTopology topo(2);
  topo.setReady();
  topo.interface(4, "sxn1", true, std::string{10, 1, 0, 2});
  core(2).setTopology(&topo);
  cluster_->failMulticastsForTesting = EAGAIN;
  core(2).topologyChanged();
  settle();
  EXPECT_EQ("", members(1, kRawAdapterGroup));
  cluster_->failMulticastsForTesting = 0;
  clock_.advance(milliseconds(100));
  settle();
  EXPECT_EQ("0/2", members(1, kRawAdapterGroup));
}

TEST_F(AgentCoreAdapters, RestartedAgentReportsItsAdaptersAgainAfterItsFirstSync) {
  start(2);
  FakeTopology topo(2);
  topo.setReady();
  topo.interface(4, "sxn1", true, std::string{10, 1, 0, 2});
  core(2).setTopology(&topo);
  core(2).topologyChanged();
  settle();
  ASSERT_EQ("0/2", members(1, kRawAdapterGroup));
  EXPECT_EQ(0, topo.views);   // handed over after the first sync

  cluster_->crash(2);
  settle();
  EXPECT_EQ("", members(1, kRawAdapterGroup));
  // A fresh agent brings no adapters into the merge: after its sync it
  // finds the cluster without them and reports what its topology sees.
  cluster_->revive(2);
  nodes_[2].core = std::make_unique<AgentCore>(cluster_->bus(2), &clock_, AgentCore::Settings(),
                                               nullptr);
  core(2).setTopology(&topo);
  ASSERT_EQ(0, cluster_->bus(2)->join());
  settle();
  ASSERT_TRUE(core(2).replica().isSynced());
  EXPECT_EQ(1, topo.views);
  EXPECT_EQ("0/2", members(1, kRawAdapterGroup));
  EXPECT_EQ(core(1).replica().digest(), core(2).replica().digest());
}

// ------------------------------------------------------------ KOR

// KOR through the cores: what each node publishes reaches every replica,
// and the clients' registrations hear it. The bus is watched from node 1
// (every message of its views passes there), counted by kind.
class AgentCoreKor : public AgentCoreTest {
 protected:
  void start(size_t n, const std::function<void(uint32_t, AgentCore&)>& beforeJoin = nullptr) {
    AgentCoreTest::start(n, beforeJoin);
    cluster_->beforeDeliverForTesting = [this](uint32_t node, const SimCluster::Event& e) {
      if (node != 1 || e.isView) return;
      proto::BusMessage m;
      ASSERT_TRUE(m.ParseFromString(e.bytes));
      ++onBus_[m.body_case()];
      ++busTotal_;
    };
  }

  // Lets the cores' immediate KOR work run (it waits for one turn of the
  // loop) and the bus deliver, until neither has anything left.
  void settleKor() {
    for (int round = 0; round < 20; ++round) {
      clock_.advance(milliseconds(0));
      settle();
    }
  }
  // Moves the clock on in steps, settling after each.
  void pass(milliseconds d, milliseconds step = milliseconds(50)) {
    for (milliseconds done(0); done < d; done += step) {
      clock_.advance(step);
      settleKor();
    }
  }

  static std::vector<proto::NodeEntry> nodeList(const std::vector<uint32_t>& nodes) {
    std::vector<proto::NodeEntry> out;
    for (uint32_t n : nodes) {
      proto::NodeEntry e;
      e.set_node(n);
      e.set_name("node" + std::to_string(n));
      out.push_back(e);
    }
    return out;
  }
  static proto::InterfaceResource itf(const std::string& name, const std::string& ip) {
    proto::InterfaceResource r;
    r.set_name(name);
    r.set_device_name(name);
    r.set_ip_address(ip);
    r.set_device_sub_type(1);
    r.set_logical_id(3);
    r.set_network_id(networkIdOf(name));
    r.set_hardware_address("52:54:00:00:00:01");
    r.set_device_path_name(name);
    return r;
  }
  static uint32_t networkIdOf(const std::string& name) {
    return static_cast<uint32_t>(name.back() - '0');
  }

  // Every live node holds the same replicated state, KOR included.
  void expectSameEverywhere(const std::vector<uint32_t>& nodes) {
    for (uint32_t n : nodes) {
      ASSERT_TRUE(core(n).replica().isSynced()) << "node " << n;
      EXPECT_EQ(core(nodes.front()).replica().digest(), core(n).replica().digest())
          << "node " << n;
      EXPECT_EQ(core(nodes.front()).replica().kor().digest(), core(n).replica().kor().digest())
          << "node " << n;
    }
  }

  uint64_t registerReq(uint32_t n, FakeClient& c, proto::KorRegister::Kind kind,
                       const std::string& cls, const std::string& event,
                       const std::vector<std::string>& attributes = {}) {
    proto::Request r;
    r.mutable_kor_register()->set_kind(kind);
    r.mutable_kor_register()->set_class_name(cls);
    r.mutable_kor_register()->set_event(event);
    for (const std::string& a : attributes) r.mutable_kor_register()->add_attributes(a);
    uint64_t id = send(n, c, r);
    std::vector<proto::Reply> replies = c.replies(id);
    EXPECT_EQ(1u, replies.size());
    if (replies.empty()) return 0;
    EXPECT_EQ(TK_GS_OK, replies[0].rc()) << replies[0].text();
    EXPECT_NE(0u, replies[0].kor().registration());
    return replies[0].kor().registration();
  }
  // The KOR events a client got, "event handle [flags]", in order.
  static std::vector<std::string> korEvents(const FakeClient& c) {
    std::vector<std::string> out;
    for (const proto::AgentFrame& f : c.frames) {
      if (!f.has_kor_event()) continue;
      std::string s = f.kor_event().event() + " " + f.kor_event().resource().handle();
      if (f.kor_event().flags() != 0) s += " " + std::to_string(f.kor_event().flags());
      out.push_back(s);
    }
    return out;
  }
  static std::vector<proto::KorEvent> korEventFrames(const FakeClient& c) {
    std::vector<proto::KorEvent> out;
    for (const proto::AgentFrame& f : c.frames) {
      if (f.has_kor_event()) out.push_back(f.kor_event());
    }
    return out;
  }

  size_t onBus(proto::BusMessage::BodyCase kind) const {
    auto it = onBus_.find(kind);
    return it == onBus_.end() ? 0 : it->second;
  }

  std::map<proto::BusMessage::BodyCase, size_t> onBus_;
  size_t busTotal_ = 0;
};

TEST_F(AgentCoreKor, NodeListSetOnEveryNodeIsReportedOnceAndHeldEverywhere) {
  start(3);
  const std::vector<proto::NodeEntry> list = nodeList({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    core(n).setNodeList(list);
    settleKor();
    expectSameEverywhere({1, 2, 3});
  }
  // The first report made the list the cluster's; the others found it held.
  EXPECT_EQ(1u, onBus(proto::BusMessage::kNodeListUpdate));
  for (uint32_t n : {1u, 2u, 3u}) {
    const KorResources& kor = core(n).replica().kor();
    EXPECT_TRUE(kor.hasNodeList()) << n;
    ASSERT_EQ(3u, kor.nodeCount()) << n;
    std::vector<proto::NodeEntry> held = kor.nodeEntries();
    for (size_t i = 0; i < held.size(); ++i) {
      EXPECT_EQ(list[i].SerializeAsString(), held[i].SerializeAsString()) << n << "/" << i;
    }
    EXPECT_EQ(3u, kor.query(KOR_CLASS_PEER_NODE, {}).size());
  }
  // Nothing more travels once it settled.
  size_t before = busTotal_;
  pass(seconds(5));
  EXPECT_EQ(before, busTotal_);
  expectSameEverywhere({1, 2, 3});
}

TEST_F(AgentCoreKor, NodeListsReportedAtOnceSettleWithoutReportingForever) {
  start(3);
  for (uint32_t n : {1u, 2u, 3u}) core(n).setNodeList(nodeList({1, 2, 3}));
  settleKor();
  EXPECT_GE(onBus(proto::BusMessage::kNodeListUpdate), 1u);
  EXPECT_LE(onBus(proto::BusMessage::kNodeListUpdate), 3u);
  size_t before = busTotal_;
  pass(seconds(5));
  EXPECT_EQ(before, busTotal_);
  for (uint32_t n : {1u, 2u, 3u}) EXPECT_EQ(3u, core(n).replica().kor().nodeCount());
  expectSameEverywhere({1, 2, 3});
}

TEST_F(AgentCoreKor, NodeIdsReachEveryReplica) {
  start(3);
  for (uint32_t n : {1u, 2u, 3u}) core(n).setNodeId(0xabc000 + n);
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t holder : {1u, 2u, 3u}) {
    const KorResources& kor = core(holder).replica().kor();
    for (uint32_t n : {1u, 2u, 3u}) EXPECT_EQ(0xabc000u + n, kor.nodeIdOf(n)) << holder << "/" << n;
  }
  // Once with a nodelist too: the ids stay, the names come.
  core(1).setNodeList(nodeList({1, 2, 3}));
  settleKor();
  expectSameEverywhere({1, 2, 3});
  std::vector<proto::KorResource> nodes =
      core(3).replica().kor().query(KOR_CLASS_PEER_NODE, {kKorAttrNodeIds, kKorAttrName});
  ASSERT_EQ(3u, nodes.size());
  EXPECT_EQ(0xabc002u, nodes[1].attributes(0).value().uint_array(0));
  EXPECT_EQ("node2", nodes[1].attributes(1).value().text());
  size_t before = busTotal_;
  pass(seconds(2));
  EXPECT_EQ(before, busTotal_);
}

TEST_F(AgentCoreKor, PublishedInterfacesReachEveryReplicaAndARegisteredClientInOrder) {
  start(3);
  FakeClient& c = client(3);
  registerReq(3, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_EVENT_DEFINED);
  registerReq(3, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_EVENT_UNDEFINED);
  registerReq(3, c, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_CONDITION_CONFIG_CHANGED, {kKorAttrName, kKorAttrIpAddress});

  FakeTopology topo(1);
  topo.published = {itf("sxn0", "10.0.1.1"), itf("sxn1", "10.0.2.1")};
  core(1).setTopology(&topo);
  core(1).topologyChanged();
  settleKor();
  EXPECT_TRUE(korEvents(c).empty());   // the topology is not ready yet

  topo.setReady();
  core(1).topologyChanged();
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    std::vector<proto::InterfaceResource> held = core(n).replica().kor().interfacesOf(1);
    ASSERT_EQ(2u, held.size()) << n;
    for (size_t i = 0; i < 2; ++i) {
      proto::InterfaceResource want = topo.published[i];
      want.set_node(1);
      EXPECT_EQ(want.SerializeAsString(), held[i].SerializeAsString()) << n << "/" << i;
    }
  }
  EXPECT_EQ(korEvents(c), (std::vector<std::string>{
                              "ResourceDefined node/1/sxn0", "ConfigChanged node/1/sxn0",
                              "ResourceDefined node/1/sxn1", "ConfigChanged node/1/sxn1"}));
  std::vector<proto::KorEvent> events = korEventFrames(c);
  ASSERT_EQ(4u, events.size());
  EXPECT_EQ(proto::KorRegister::CLASS_EVENT, events[0].kind());
  EXPECT_EQ(proto::KorRegister::RESOURCE_EVENT, events[1].kind());
  ASSERT_EQ(2, events[1].resource().attributes_size());
  EXPECT_EQ("sxn0", events[1].resource().attributes(0).value().text());
  EXPECT_EQ("10.0.1.1", events[1].resource().attributes(1).value().text());
  for (size_t i = 1; i < events.size(); ++i) {
    EXPECT_GT(events[i].sequence(), events[i - 1].sequence());
  }
  EXPECT_EQ(2u, onBus(proto::BusMessage::kInterfaceUpdate));

  // A changed address: ConfigChanged alone.
  c.frames.clear();
  topo.published[1].set_ip_address("10.0.2.9");
  core(1).topologyChanged();
  settleKor();
  EXPECT_EQ(korEvents(c), (std::vector<std::string>{"ConfigChanged node/1/sxn1"}));
  expectSameEverywhere({1, 2, 3});

  // Withdrawn: undefined, and ConfigChanged with the unassign flags.
  c.frames.clear();
  topo.published.pop_back();
  core(1).topologyChanged();
  settleKor();
  EXPECT_EQ(korEvents(c), (std::vector<std::string>{"ResourceUndefined node/1/sxn1",
                                                    "ConfigChanged node/1/sxn1 96"}));
  events = korEventFrames(c);
  ASSERT_EQ(2u, events.size());
  EXPECT_EQ(static_cast<uint32_t>(MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF), events[1].flags());
  EXPECT_EQ("10.0.2.9", events[1].resource().attributes(1).value().text());
  for (uint32_t n : {1u, 2u, 3u}) EXPECT_EQ(1u, core(n).replica().kor().interfacesOf(1).size());
  expectSameEverywhere({1, 2, 3});

  size_t before = busTotal_;
  pass(seconds(2));
  EXPECT_EQ(before, busTotal_);
}

TEST_F(AgentCoreKor, ReportsSettleWhenTheLoopRunsBetweenDeliveries) {
  // The loop's turns fall between single deliveries here, so that a core
  // sees its own reports applied one at a time.
  start(3);
  FakeTopology topos[3] = {FakeTopology(1), FakeTopology(2), FakeTopology(3)};
  for (uint32_t n : {1u, 2u, 3u}) {
    FakeTopology& t = topos[n - 1];
    t.setReady();
    for (int i = 0; i < 4; ++i) {
      t.published.push_back(itf("sxn" + std::to_string(i),
                                "10.0." + std::to_string(i) + "." + std::to_string(n)));
    }
    core(n).setTopology(&t);
    core(n).setNodeList(nodeList({1, 2, 3}));
    core(n).setNodeId(0x500 + n);
    core(n).topologyChanged();
  }
  for (int step = 0; step < 10000; ++step) {
    clock_.advance(milliseconds(0));
    if (!cluster_->deliverRandom()) {
      clock_.advance(milliseconds(0));
      if (cluster_->quiet()) break;
    }
    for (uint32_t n : {1u, 2u, 3u}) core(n).busDispatched();
  }
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    EXPECT_EQ(12u, core(n).replica().kor().interfaceCount()) << n;
    EXPECT_EQ(0x502u, core(n).replica().kor().nodeIdOf(2)) << n;
  }
  // Each report went at most twice (once more when this node itself became
  // defined while it travelled), not once more for every report of its own
  // that came back before it.
  EXPECT_LE(onBus(proto::BusMessage::kInterfaceUpdate), 24u);
  EXPECT_LE(onBus(proto::BusMessage::kNodeListUpdate), 3u);
  size_t before = busTotal_;
  pass(seconds(3));
  EXPECT_EQ(before, busTotal_);
}

TEST_F(AgentCoreKor, ReportTheBusRefusesIsSentOnTheRetryTimer) {
  start(2);
  FakeTopology topo(2);
  topo.setReady();
  topo.published = {itf("sxn0", "10.0.1.2")};
  core(2).setTopology(&topo);
  cluster_->failMulticastsForTesting = EAGAIN;
  core(2).setNodeId(0x22);
  core(2).topologyChanged();
  settleKor();
  EXPECT_EQ(0u, core(1).replica().kor().interfaceCount());
  EXPECT_EQ(0u, core(1).replica().kor().nodeIdOf(2));
  cluster_->failMulticastsForTesting = 0;
  pass(milliseconds(100));
  EXPECT_EQ(1u, core(1).replica().kor().interfacesOf(2).size());
  EXPECT_EQ(0x22u, core(1).replica().kor().nodeIdOf(2));
  expectSameEverywhere({1, 2});
}

class AgentCoreKorCluster : public AgentCoreKor {
 protected:
  // Three nodes with a nodelist and ids; node 2 publishes one interface.
  void startPublishing() {
    start(3);
    for (uint32_t n : {1u, 2u, 3u}) {
      core(n).setNodeList(nodeList({1, 2, 3}));
      core(n).setNodeId(0x100 + n);
    }
    topo2_.setReady();
    topo2_.published = {itf("sxn0", "10.0.1.2")};
    core(2).setTopology(&topo2_);
    core(2).topologyChanged();
    settleKor();
    expectSameEverywhere({1, 2, 3});
    ASSERT_EQ(1u, core(1).replica().kor().interfacesOf(2).size());
  }
  void expectNode2Held(uint32_t on) {
    const KorResources& kor = core(on).replica().kor();
    EXPECT_TRUE(kor.hasNode(2)) << "on node " << on;
    EXPECT_EQ(0x102u, kor.nodeIdOf(2)) << "on node " << on;
    EXPECT_EQ(1u, kor.interfacesOf(2).size()) << "on node " << on;
  }
  FakeTopology topo2_{2};
};

TEST_F(AgentCoreKorCluster, CrashedNodeKeepsItsResourcesOnTheOthers) {
  startPublishing();
  FakeClient& c = client(1);
  registerReq(1, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_EVENT_UNDEFINED);
  registerReq(1, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED);
  cluster_->crash(2);
  settleKor();
  expectSameEverywhere({1, 3});
  expectNode2Held(1);
  expectNode2Held(3);
  EXPECT_TRUE(korEvents(c).empty());
}

TEST_F(AgentCoreKorCluster, PartitionedNodeKeepsItsResourcesOnBothSidesAndAfterTheHeal) {
  startPublishing();
  cluster_->partition({{1, 3}, {2}});
  settleKor();
  expectSameEverywhere({1, 3});
  expectNode2Held(1);
  expectNode2Held(3);
  expectNode2Held(2);
  // Node 2 changes its interface while apart; the heal takes its newer picture.
  topo2_.published[0].set_ip_address("10.0.1.22");
  core(2).topologyChanged();
  settleKor();
  cluster_->heal();
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    std::vector<proto::InterfaceResource> held = core(n).replica().kor().interfacesOf(2);
    ASSERT_EQ(1u, held.size()) << n;
    EXPECT_EQ("10.0.1.22", held[0].ip_address()) << n;
  }
}

TEST_F(AgentCoreKorCluster, NodeListWithoutADownNodeUndefinesItsResources) {
  startPublishing();
  FakeClient& c = client(3);
  registerReq(3, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_EVENT_UNDEFINED);
  registerReq(3, c, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED);
  registerReq(3, c, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
              KOR_CONDITION_CONFIG_CHANGED, {kKorAttrName});
  cluster_->crash(2);
  settleKor();
  for (uint32_t n : {1u, 3u}) core(n).setNodeList(nodeList({1, 3}));
  settleKor();
  expectSameEverywhere({1, 3});
  for (uint32_t n : {1u, 3u}) {
    const KorResources& kor = core(n).replica().kor();
    EXPECT_FALSE(kor.hasNode(2)) << n;
    EXPECT_TRUE(kor.interfacesOf(2).empty()) << n;
    EXPECT_EQ(2u, kor.nodeCount()) << n;
  }
  // The node's interfaces go before the node.
  EXPECT_EQ(korEvents(c),
            (std::vector<std::string>{"ResourceUndefined node/2/sxn0",
                                      "ConfigChanged node/2/sxn0 96", "ResourceUndefined node/2"}));
}

TEST_F(AgentCoreKorCluster, NodeListWithoutARunningNodeUndefinesItAndItStaysOut) {
  startPublishing();
  // A reload that every node sees.
  for (uint32_t n : {1u, 2u, 3u}) core(n).setNodeList(nodeList({1, 3}));
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    EXPECT_FALSE(core(n).replica().kor().hasNode(2)) << n;
    EXPECT_EQ(0u, core(n).replica().kor().interfacesOf(2).size()) << n;
  }
  size_t before = busTotal_;
  pass(seconds(3));
  EXPECT_EQ(before, busTotal_);
  EXPECT_FALSE(core(1).replica().kor().hasNode(2));
}

TEST_F(AgentCoreKor, SaverGetsTheResourcesHalfASecondAfterABurstOfChanges) {
  start(3);
  std::vector<proto::KorImage> saved;
  core(1).setKorSaver([&saved](const proto::KorImage& image) { saved.push_back(image); });
  core(1).setNodeList(nodeList({1, 2, 3}));
  core(2).setNodeId(0x202);
  core(3).setNodeId(0x303);
  settleKor();
  EXPECT_TRUE(saved.empty());
  clock_.advance(milliseconds(499));
  settleKor();
  EXPECT_TRUE(saved.empty());
  clock_.advance(milliseconds(1));
  settleKor();
  ASSERT_EQ(1u, saved.size());
  EXPECT_EQ(core(1).replica().kor().image().SerializeAsString(), saved[0].SerializeAsString());
  EXPECT_EQ(3, saved[0].nodes_size());
  EXPECT_TRUE(saved[0].has_node_list());
  // Quiet: nothing more is written.
  pass(seconds(2));
  EXPECT_EQ(1u, saved.size());
  // Another node's interface is a change here too.
  FakeTopology topo(3);
  topo.setReady();
  topo.published = {itf("sxn0", "10.0.1.3")};
  core(3).setTopology(&topo);
  core(3).topologyChanged();
  settleKor();
  pass(milliseconds(600));
  ASSERT_EQ(2u, saved.size());
  EXPECT_EQ(1, saved[1].interfaces_size());
  EXPECT_EQ(3u, saved[1].interfaces(0).node());
  // A sync writes them too.
  cluster_->crash(2);
  settleKor();
  pass(milliseconds(600));
  EXPECT_EQ(3u, saved.size());
  EXPECT_EQ(core(1).replica().kor().image().SerializeAsString(), saved.back().SerializeAsString());
}

TEST_F(AgentCoreKor, SeededResourcesOfADownNodeReachEveryNodeOnAWholeClusterRestart) {
  // What node 1 kept from the last run: four nodes, node 4 with an
  // interface, and node 4 does not come back.
  proto::KorImage kept;
  kept.set_has_node_list(true);
  for (uint32_t n : {1u, 2u, 3u, 4u}) {
    proto::KorNodeImage* node = kept.add_nodes();
    node->set_node(n);
    node->set_name("node" + std::to_string(n));
    node->set_node_id(0x400 + n);
    node->set_generation(n == 4 ? 3 : 0);
  }
  proto::InterfaceResource four = itf("sxn0", "10.0.1.4");
  four.set_node(4);
  *kept.add_interfaces() = four;
  std::string why;
  ASSERT_TRUE(KorResources::validImage(kept, &why)) << why;

  start(3, [&kept](uint32_t n, AgentCore& c) {
    if (n == 1) c.seedKor(kept);
  });
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    const KorResources& kor = core(n).replica().kor();
    EXPECT_TRUE(kor.hasNodeList()) << n;
    EXPECT_EQ(4u, kor.nodeCount()) << n;
    EXPECT_EQ(0x404u, kor.nodeIdOf(4)) << n;
    std::vector<proto::InterfaceResource> held = kor.interfacesOf(4);
    ASSERT_EQ(1u, held.size()) << n;
    EXPECT_EQ(four.SerializeAsString(), held[0].SerializeAsString()) << n;
  }
  // The nodes that did come back publish what they have now; node 4's stay.
  for (uint32_t n : {1u, 2u, 3u}) {
    core(n).setNodeList(nodeList({1, 2, 3, 4}));
    core(n).setNodeId(0x900 + n);
  }
  settleKor();
  expectSameEverywhere({1, 2, 3});
  for (uint32_t n : {1u, 2u, 3u}) {
    EXPECT_EQ(1u, core(n).replica().kor().interfacesOf(4).size()) << n;
    EXPECT_EQ(0x902u, core(n).replica().kor().nodeIdOf(2)) << n;
  }
}

TEST_F(AgentCoreKor, ClosedConnectionsRegistrationsEndWithIt) {
  start(1);
  // The agent holds at most 4096 registrations: 64 connections of 64.
  std::vector<FakeClient*> clients;
  for (int i = 0; i < 64; ++i) {
    FakeClient& c = client(1);
    clients.push_back(&c);
    for (int j = 0; j < 64; ++j) {
      proto::Request r;
      r.set_id(nextRequest_++);
      r.mutable_kor_register()->set_kind(proto::KorRegister::CLASS_EVENT);
      r.mutable_kor_register()->set_class_name(KOR_CLASS_PEER_NODE);
      r.mutable_kor_register()->set_event(KOR_EVENT_DEFINED);
      core(1).request(c, r);
      ASSERT_EQ(TK_GS_OK, c.rcOf(r.id())) << c.textOf(r.id());
    }
  }
  FakeClient& late = client(1);
  proto::Request r;
  r.mutable_kor_register()->set_kind(proto::KorRegister::CLASS_EVENT);
  r.mutable_kor_register()->set_class_name(KOR_CLASS_PEER_NODE);
  r.mutable_kor_register()->set_event(KOR_EVENT_DEFINED);
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, late.rcOf(send(1, late, r)));
  drop(*clients[5], "the client closed the connection");
  EXPECT_EQ(TK_GS_OK, late.rcOf(send(1, late, r)));
  // The others still hear their events, once per registration.
  core(1).setNodeId(0x11);
  settleKor();
  EXPECT_EQ(korEvents(*clients[6]), std::vector<std::string>(64, "ResourceDefined node/1"));
  EXPECT_EQ(korEvents(late), (std::vector<std::string>{"ResourceDefined node/1"}));
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

// Group services through a real `veltd --standalone`: joins, leaves,
// failure leaves of lost and unresponsive clients, subscriptions, protocol
// time-outs, the claimed version, the bound on what a client leaves unread,
// and what veltctl shows of it all.
#include <signal.h>
#include <time.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent_harness.h"
#include "gs_types.h"
#include "sanitized.h"

namespace velt_test {
namespace {

using velt::proto::AgentFrame;
using velt::proto::HelloReply;
using velt::proto::Notification;
using velt::proto::ProviderId;
using velt::proto::Query;
using velt::proto::Reply;
using velt::proto::Request;

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::vector<uint32_t> instances(const google::protobuf::RepeatedPtrField<ProviderId>& ids) {
  std::vector<uint32_t> out;
  for (const ProviderId& p : ids) out.push_back(p.instance());
  return out;
}

// A protocol's outcome for a provider: kind, protocol type and who changed.
std::function<bool(const Notification&)> outcome(Notification::Kind kind, uint32_t type,
                                                 std::vector<uint32_t> changing) {
  return [=](const Notification& n) {
    return !n.for_subscriber() && n.kind() == kind && n.protocol_type() == type &&
           instances(n.changing()) == changing;
  };
}

std::function<bool(const Notification&)> subscription(uint32_t type) {
  return [=](const Notification& n) {
    return n.for_subscriber() && n.kind() == Notification::SUBSCRIPTION &&
           n.subscription_type() == type;
  };
}

Request leaveRequest(const std::string& group, uint32_t instance) {
  Request r;
  r.mutable_leave()->set_group(group);
  r.mutable_leave()->set_instance(instance);
  r.mutable_leave()->set_num_phases(TK_GS_1_PHASE);
  return r;
}

Request valueRequest(const std::string& group, uint32_t instance, const std::string& value,
                     uint32_t phases, uint32_t timeLimit) {
  Request r;
  auto* c = r.mutable_change_state_value();
  c->set_group(group);
  c->set_instance(instance);
  c->set_value(value);
  c->set_num_phases(phases);
  c->set_time_limit(timeLimit);
  return r;
}

class GroupsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(agent_.stopCleanly()) << "exit status " << agent_.exitStatus() << "\n"
                                      << agent_.err();
  }
  void startAgent(const std::vector<std::string>& args = {}) {
    ASSERT_TRUE(agent_.startReady(args)) << agent_.err() << agent_.log();
  }
  std::unique_ptr<TestClient> connected(uint32_t pingInterval = 0, uint32_t pingLimit = 0) {
    auto c = std::make_unique<TestClient>();
    EXPECT_EQ(c->connect(agent_.socketPath()), 0);
    HelloReply r;
    EXPECT_TRUE(c->hello(&r, pingInterval, pingLimit));
    EXPECT_EQ(r.rc(), 0) << r.text();
    return c;
  }
  // Sends the request and expects the reply rc.
  void expectReply(TestClient* c, const Request& request, int rc) {
    uint64_t id = c->request(request);
    Reply r;
    ASSERT_TRUE(c->waitReply(id, &r)) << request.ShortDebugString();
    EXPECT_EQ(r.rc(), rc) << r.text();
  }
  // Joins instance of group and waits for the joiner's approval.
  void join(TestClient* c, const std::string& group, uint32_t instance) {
    expectReply(c, joinRequest(group, instance), TK_GS_OK);
    Notification n;
    ASSERT_TRUE(c->waitNotification(outcome(Notification::APPROVED, TK_GS_JOIN, {instance}), &n));
  }

  TempDir dir_;
  AgentProcess agent_{dir_.path()};
};

// ------------------------------------------------------------ membership

using VeltdMembership = GroupsTest;

TEST_F(VeltdMembership, JoinAndLeaveOfTwoClientsAreSeenByBoth) {
  startAgent();
  auto a = connected();
  auto b = connected();
  join(a.get(), "g", 1);

  expectReply(b.get(), joinRequest("g", 2), TK_GS_OK);
  for (TestClient* c : {a.get(), b.get()}) {
    Notification n;
    ASSERT_TRUE(c->waitNotification(outcome(Notification::APPROVED, TK_GS_JOIN, {2}), &n));
    EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(n.current(1).node(), 1u);
    EXPECT_NE(n.proposal_changes() & TK_GS_PROPOSED_MEMBERSHIP, 0u);
  }

  expectReply(b.get(), leaveRequest("g", 2), TK_GS_OK);
  for (TestClient* c : {a.get(), b.get()}) {
    Notification n;
    ASSERT_TRUE(c->waitNotification(outcome(Notification::APPROVED, TK_GS_LEAVE, {2}), &n));
    EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{1}));
  }
  // The same instance twice on one node is refused.
  expectReply(b.get(), joinRequest("g", 1), TK_GS_DUPLICATE_INSTANCE_NUMBER);
}

TEST_F(VeltdMembership, LostConnectionIsAFailureLeave) {
  startAgent();
  auto a = connected();
  auto b = connected();
  join(a.get(), "g", 1);
  join(b.get(), "g", 2);
  a->close();
  Notification n;
  ASSERT_TRUE(b->waitNotification(outcome(Notification::APPROVED, TK_GS_FAILURE_LEAVE, {1}), &n));
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{2}));
  EXPECT_NE(n.summary_code() & TK_GS_PROVIDER_FAILED, 0u);
}

TEST_F(VeltdMembership, ProviderThatStopsAnsweringPingsLeavesByFailure) {
  startAgent();
  int64_t start = nowMs();
  auto stuck = connected(1, 1);   // never answers
  auto b = connected();
  join(stuck.get(), "g", 1);
  join(b.get(), "g", 2);
  Notification n;
  ASSERT_TRUE(b->waitNotification(outcome(Notification::APPROVED, TK_GS_FAILURE_LEAVE, {1}), &n,
                                  6000));
  // Pinged after a second, then given a second to answer.
  EXPECT_GE(nowMs() - start, 1800);
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{2}));
  EXPECT_TRUE(stuck->waitClosed());
  EXPECT_TRUE(agent_.waitForLog("did not answer ping 1 within 1 s"));
}

// ----------------------------------------------------------- subscribers

using VeltdSubscribers = GroupsTest;

TEST_F(VeltdSubscribers, SubscriberSeesTheGroupAppearChangeAndGo) {
  startAgent();
  auto watcher = connected();
  auto a = connected();
  auto b = connected();
  Request sub;
  sub.mutable_subscribe()->set_group("g");
  sub.mutable_subscribe()->set_subscriber(5);
  sub.mutable_subscribe()->set_type(TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE);
  uint64_t subId = watcher->request(sub);
  Reply reply;
  ASSERT_TRUE(watcher->waitReply(subId, &reply));
  EXPECT_EQ(reply.rc(), 0);
  Notification n;
  ASSERT_TRUE(watcher->waitNotification(
      [](const Notification& x) { return x.kind() == Notification::DELAYED_ERROR; }, &n));
  EXPECT_EQ(n.delayed_rc(), TK_GS_UNKNOWN_GROUP);
  EXPECT_EQ(n.request_type(), static_cast<uint32_t>(TK_GS_SUBSCRIBE));
  EXPECT_EQ(n.request_id(), subId);
  EXPECT_EQ(n.subscriber(), 5u);

  join(a.get(), "g", 1);
  ASSERT_TRUE(watcher->waitNotification(subscription(TK_GS_SUBSCRIPTION_MEMBERSHIP), &n));
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{1}));
  EXPECT_EQ(n.group(), "g");

  join(b.get(), "g", 2);
  ASSERT_TRUE(watcher->waitNotification(subscription(TK_GS_SUBSCRIPTION_DELTA_JOIN), &n));
  EXPECT_EQ(instances(n.changing()), (std::vector<uint32_t>{2}));
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{1, 2}));

  expectReply(b.get(), leaveRequest("g", 2), TK_GS_OK);
  ASSERT_TRUE(watcher->waitNotification(subscription(TK_GS_SUBSCRIPTION_DELTA_LEAVE), &n));
  EXPECT_EQ(instances(n.changing()), (std::vector<uint32_t>{2}));
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{1}));

  // The last provider leaves: the group ceases to exist.
  expectReply(a.get(), leaveRequest("g", 1), TK_GS_OK);
  ASSERT_TRUE(watcher->waitNotification(subscription(TK_GS_SUBSCRIPTION_DISSOLVED), &n));

  // The subscription ended with the group: subscribing again waits anew.
  uint64_t again = watcher->request(sub);
  ASSERT_TRUE(watcher->waitReply(again, &reply));
  EXPECT_EQ(reply.rc(), 0);
}

TEST_F(VeltdSubscribers, SubscribingToAnExistingGroupGivesItsMembersAtOnce) {
  startAgent();
  auto a = connected();
  auto watcher = connected();
  join(a.get(), "g", 3);
  Request sub;
  sub.mutable_subscribe()->set_group("g");
  sub.mutable_subscribe()->set_subscriber(1);
  sub.mutable_subscribe()->set_type(6);
  uint64_t id = watcher->request(sub);
  Reply reply;
  ASSERT_TRUE(watcher->waitReply(id, &reply));
  EXPECT_EQ(reply.rc(), 0);
  Notification n;
  ASSERT_TRUE(watcher->waitNotification(subscription(TK_GS_SUBSCRIPTION_MEMBERSHIP), &n));
  EXPECT_EQ(instances(n.current()), (std::vector<uint32_t>{3}));
  // A second subscription under the same number is refused.
  id = watcher->request(sub);
  ASSERT_TRUE(watcher->waitReply(id, &reply));
  EXPECT_EQ(reply.rc(), TK_GS_ALREADY_SUBSCRIBED);
  Request unsub;
  unsub.mutable_unsubscribe()->set_group("g");
  unsub.mutable_unsubscribe()->set_subscriber(1);
  expectReply(watcher.get(), unsub, TK_GS_OK);
  expectReply(watcher.get(), unsub, TK_GS_NOT_SUBSCRIBED);
}

// -------------------------------------------------------------- protocols

using VeltdProtocolDeadline = GroupsTest;

TEST_F(VeltdProtocolDeadline, MissingVoteTakesTheDefaultWhenTheTimeLimitPasses) {
  startAgent();
  auto a = connected();
  auto b = connected();
  join(a.get(), "g", 1);   // default vote approve
  join(b.get(), "g", 2);
  int64_t start = nowMs();
  expectReply(a.get(), valueRequest("g", 1, "v2", TK_GS_N_PHASE, 1), TK_GS_OK);
  Notification phase;
  ASSERT_TRUE(a->waitNotification(
      [](const Notification& n) { return n.kind() == Notification::N_PHASE; }, &phase));
  EXPECT_EQ(phase.protocol_type(), static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE));
  EXPECT_EQ(phase.proposed_state_value(), "v2");
  Request vote;
  auto* v = vote.mutable_vote();
  v->set_group("g");
  v->set_instance(1);
  v->set_protocol(phase.protocol());
  v->set_phase(phase.phase());
  v->set_vote(TK_GS_VOTE_APPROVE);
  expectReply(a.get(), vote, TK_GS_OK);
  // b never votes: after the time limit its vote is the group's default.
  for (TestClient* c : {a.get(), b.get()}) {
    Notification n;
    ASSERT_TRUE(c->waitNotification(
        [](const Notification& x) {
          return x.kind() == Notification::APPROVED &&
                 x.protocol_type() == static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE);
        },
        &n, 4000));
    EXPECT_EQ(n.current_state_value(), "v2");
  }
  EXPECT_GE(nowMs() - start, 900);
}

// ---------------------------------------------------------------- version

using VeltdClaimedVersion = GroupsTest;

TEST_F(VeltdClaimedVersion, BackLevelAgentRefusesGoodbye) {
  startAgent({"--claim-version", "2.4.0.0"});
  auto a = connected();
  join(a.get(), "g", 1);
  Request bye;
  bye.mutable_goodbye()->set_group("g");
  bye.mutable_goodbye()->set_instance(1);
  expectReply(a.get(), bye, TK_GS_BACKLEVEL_PROVIDERS);
}

TEST_F(VeltdClaimedVersion, CurrentAgentTakesGoodbye) {
  startAgent();
  auto a = connected();
  join(a.get(), "g", 1);
  Request bye;
  bye.mutable_goodbye()->set_group("g");
  bye.mutable_goodbye()->set_instance(1);
  expectReply(a.get(), bye, TK_GS_OK);
  CommandResult r = agent_.veltctl({"groups"});
  EXPECT_EQ(r.out, "no groups\n") << r.err;
}

// ------------------------------------------------------------ slow reader

using VeltdSlowReader = GroupsTest;

TEST_F(VeltdSlowReader, ClientThatNeverReadsIsCutOffAtTheBound) {
  startAgent();
  auto a = connected();
  join(a.get(), "big", 1);
  // A 60 KiB state value makes every answer about it 60 KiB.
  expectReply(a.get(), valueRequest("big", 1, std::string(60 * 1024, 'v'), TK_GS_1_PHASE, 0),
              TK_GS_OK);
  ASSERT_TRUE(a->waitNotification(
      [](const Notification& n) { return n.kind() == Notification::APPROVED && n.protocol_type() == 4; },
      nullptr));

  auto reader = connected();
  // Asks and asks and never reads: 64 MiB of answers are about 1100 of them.
  int sent = 0;
  for (; sent < 3000; ++sent) {
    Request q = queryRequest(Query::MEMBERS, "big");
    q.set_id(static_cast<uint64_t>(sent) + 1);
    velt::proto::ClientFrame f;
    f.set_version(1);
    *f.mutable_request() = q;
    if (reader->send(f) != 0) break;   // the agent has hung up
    if (sent % 100 == 99 && agent_.log().find("the client stopped reading") != std::string::npos) {
      break;
    }
  }
  EXPECT_GT(sent, 1000) << "cut off before the bound";
  ASSERT_TRUE(agent_.waitForLog("the client stopped reading"));
  EXPECT_TRUE(reader->waitClosed(10000));
  // The agent held at most the bound for it, not everything it was asked
  // (3000 answers would be 180 MiB); not measured under a sanitizer.
  if (!velt_test::kSanitized) {
    long rss = agent_.residentKb();
    EXPECT_GT(rss, 0);
    EXPECT_LT(rss, 200 * 1024) << "resident KiB";
  }
  // Everyone else is still served.
  uint64_t id = a->request(queryRequest(Query::STATUS));
  Reply r;
  EXPECT_TRUE(a->waitReply(id, &r));
}

// ---------------------------------------------------------------- veltctl

using VeltctlGroups = GroupsTest;

TEST_F(VeltctlGroups, GroupsAndMembersInTextAndJson) {
  startAgent();
  auto a = connected();
  auto b = connected();
  auto watcher = connected();
  join(a.get(), "alpha", 1);
  join(b.get(), "alpha", 7);
  expectReply(a.get(), valueRequest("alpha", 1, "hello", TK_GS_1_PHASE, 0), TK_GS_OK);
  ASSERT_TRUE(a->waitNotification(
      [](const Notification& n) { return n.kind() == Notification::APPROVED && n.protocol_type() == 4; },
      nullptr));
  Request sub;
  sub.mutable_subscribe()->set_group("alpha");
  sub.mutable_subscribe()->set_subscriber(1);
  sub.mutable_subscribe()->set_type(6);
  expectReply(watcher.get(), sub, TK_GS_OK);

  CommandResult r = agent_.veltctl({"groups"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "GROUP  PROVIDERS  SUBSCRIBERS  PROTOCOL\n"
            "alpha          2            1  idle\n");
  r = agent_.veltctl({"--json", "groups"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"schema_version\":1,\"groups\":[{\"name\":\"alpha\",\"providers\":2,\"subscribers_here\":1,"
            "\"protocol_in_flight\":false}]}\n");

  r = agent_.veltctl({"members", "alpha"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "group:        alpha\n"
            "providers:    2\n"
            "state value:  5 bytes \"hello\"\n"
            "protocol:     idle\n"
            "subscribers:  1 on this node\n"
            "INSTANCE   NODE\n"
            "       1      1\n"
            "       7      1\n");
  r = agent_.veltctl({"members", "alpha", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"schema_version\":1,\"group\":\"alpha\",\"providers\":[{\"instance\":1,\"node\":1},"
            "{\"instance\":7,\"node\":1}],\"state_value_bytes\":5,\"state_value_hex\":\"68656c6c6f\","
            "\"protocol_in_flight\":false,\"subscribers_here\":1}\n");

  r = agent_.veltctl({"status"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("groups:         1\n"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace velt_test

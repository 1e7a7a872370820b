// Views, state transfer and merges: fresh agents learn the state, messages
// that arrive during a sync wait for it, interrupted syncs restart, groups
// that went their own ways on two sides of a partition are dissolved when
// the sides merge, and node departures, deadlines and the active version
// follow the view.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cluster_harness.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

using N = proto::Notification;

size_t countKind(const std::vector<GroupChange>& v, GroupChange::Kind k) {
  size_t n = 0;
  for (const GroupChange& c : v) n += c.kind == k ? 1 : 0;
  return n;
}

class StateTransfer : public ClusterHarness {};

TEST_F(StateTransfer, AFreshNodeLearnsEveryGroupAndItsSubscribersHearOfThem) {
  start(3, ReplicaLimits(), {}, 2);
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g", {a, b});
  submit(a, valueReq("g", a.instance, "v1", TK_GS_1_PHASE, 0));
  submit(b, valueReq("g", b.instance, "v2"));  // still in flight when node 3 comes
  ASSERT_EQ(0, node(3).join());
  settle();
  ASSERT_TRUE(node(3).replica().isSynced());
  expectSameState();
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
  std::vector<GroupChange> seen = node(3).changesOf("g");
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(GroupChange::JOINED, seen[0].kind);
  EXPECT_EQ(a.name() + " " + b.name(), ids(seen[0].current));
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), node(3).replica().view().members);
  // The newcomer takes part: its provider joins behind the running protocol.
  uint64_t id = submit(c, joinReq("g", c.instance));
  EXPECT_EQ(TK_GS_OK, rc(c, id));
  N np = last(a, N::N_PHASE);
  for (const Actor& x : {a, b})
    submit(x, voteReq("g", x.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  EXPECT_EQ(a.name() + " " + b.name() + " " + c.name(), membersEverywhere("g"));
  EXPECT_EQ("v2", last(c, N::APPROVED).current_state_value());
  expectSameState();
}

TEST_F(StateTransfer, MessagesDeliveredBeforeTheSnapshotsWaitForThem) {
  start(3, ReplicaLimits(), {}, 2);
  Actor a = actor(0);
  ASSERT_EQ(0, node(3).join());
  // Node 1 has not seen the new view yet: its request goes ahead of every
  // snapshot in the new view's order.
  uint64_t id = submitNoWait(a, joinReq("g", a.instance));
  ASSERT_TRUE(cluster_->deliverOne(2));  // the view change
  ASSERT_TRUE(cluster_->deliverOne(2));  // the request, held back
  EXPECT_FALSE(node(2).replica().isSynced());
  EXPECT_FALSE(node(2).replica().groupExists("g"));
  settle();
  EXPECT_EQ(TK_GS_OK, rc(a, id));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  expectSameState();
}

TEST_F(StateTransfer, ARequestHeldByAnInterruptedSyncIsSentAgainAndAnsweredOnce) {
  start(3);
  Actor b = actor(1);
  ASSERT_EQ(2u, b.node->node());
  cluster_->partition({{1, 2}, {3}});
  ASSERT_TRUE(cluster_->deliverOne(2));  // node 2 enters {1,2}; node 1 has not
  uint64_t id = submitNoWait(b, joinReq("g", b.instance));
  ASSERT_TRUE(cluster_->deliverOne(2));  // held: no snapshot yet
  EXPECT_FALSE(node(2).replica().isSynced());
  cluster_->heal();  // interrupts the sync of {1,2}
  settle();
  EXPECT_EQ(TK_GS_OK, rc(b, id)) << "one reply, rc 0";
  EXPECT_EQ(b.name(), membersEverywhere("g"));
  EXPECT_EQ(1u, notes(b, N::APPROVED).size());
  expectSameState();
}

TEST_F(StateTransfer, ARestartedAgentComesBackFresh) {
  start(3);
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  cluster_->crash(2);
  settle();
  EXPECT_EQ(a.name(), ids(node(1).replica().members("g")));
  EXPECT_EQ(a.name(), ids(node(3).replica().members("g")));
  node(2).restart();
  ASSERT_EQ(0, node(2).join());
  settle();
  EXPECT_TRUE(node(2).replica().isSynced());
  expectSameState();
  EXPECT_EQ(a.name(), ids(node(2).replica().members("g")));
  // Its clients start over with fresh requests.
  EXPECT_EQ(TK_GS_OK, rc(b, submit(b, joinReq("g", b.instance))));
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
}

class NodeDeparture : public ClusterHarness {};

TEST_F(NodeDeparture, ProvidersOfACrashedNodeLeaveByFailure) {
  start(3);
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  cluster_->crash(2);
  settle();
  N n = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_FAILURE_LEAVE), n.protocol_type());
  EXPECT_NE(0u, n.summary_code() & TK_GS_NODE_FAILED);
  EXPECT_EQ(b.name(), ids(n.changing()));
  for (uint32_t x : {1u, 3u}) {
    GroupChange c = node(x).changesOf("g").back();
    EXPECT_EQ(GroupChange::LEFT, c.kind);
    EXPECT_EQ(b.name(), ids(c.changing));
    EXPECT_EQ(a.name(), ids(node(x).replica().members("g")));
  }
  expectSameState({1, 3});
}

TEST_F(NodeDeparture, ANewLowestNodeTakesOverTheDeadlines) {
  start(3);
  Actor b = actor(1), c = actor(2);
  joinAll("g", {b, c});
  submit(b, valueReq("g", b.instance, "v", TK_GS_N_PHASE, 30));
  ASSERT_EQ(1u, node(1).deadlines().size());
  EXPECT_TRUE(node(2).deadlines().empty());
  Deadline d = node(1).deadlines()[0];
  // Only the lowest node fires.
  EXPECT_EQ(0, node(3).replica().fireTimeout(d));
  settle();
  EXPECT_TRUE(notes(b, N::APPROVED).size() == 2u);
  cluster_->crash(1);
  settle();
  ASSERT_EQ(1u, node(2).deadlines().size());
  EXPECT_EQ(d.protocol, node(2).deadlines()[0].protocol);
  EXPECT_EQ(30u, node(2).deadlines()[0].seconds);
  ASSERT_EQ(0, node(2).replica().fireTimeout(node(2).deadlines()[0]));
  settle();
  EXPECT_EQ("v", last(c, N::APPROVED).current_state_value());
  EXPECT_TRUE(node(2).deadlines().empty());
  expectSameState({2, 3});
}

TEST_F(NodeDeparture, TheActiveVersionIsTheLowestLevelInTheView) {
  start(3, ReplicaLimits(), {{2, kOldVersion}});
  for (uint32_t x : {1u, 2u, 3u}) {
    EXPECT_EQ(kOldVersion, node(x).replica().activeVersion());
    ASSERT_FALSE(node(x).versions().empty());
    EXPECT_EQ(kOldVersion, node(x).versions().back());
  }
  cluster_->crash(2);
  settle();
  for (uint32_t x : {1u, 3u}) {
    EXPECT_EQ(kDefaultVersion, node(x).replica().activeVersion());
    EXPECT_EQ(kDefaultVersion, node(x).versions().back());
    proto::QueryAnswer q = node(x).replica().describe();
    EXPECT_EQ(kDefaultVersion, q.active_version());
    EXPECT_EQ(2, q.view_size());
  }
}

class Merge : public ClusterHarness {};

TEST_F(Merge, AGroupWithMembersOnBothSidesIsDissolved) {
  start(3);
  Actor a = actor(0), c = actor(2);
  Actor b = actor(1);
  joinAll("g", {a, c});
  joinAll("other", {b});
  cluster_->partition({{1, 2}, {3}});
  settle();
  EXPECT_EQ(a.name(), ids(node(1).replica().members("g")));
  EXPECT_EQ(c.name(), ids(node(3).replica().members("g")));
  cluster_->heal();
  settle();
  for (uint32_t x : {1u, 2u, 3u}) {
    EXPECT_FALSE(node(x).replica().groupExists("g")) << "node " << x;
    EXPECT_EQ(GroupChange::DISSOLVED, node(x).changesOf("g").back().kind) << "node " << x;
    EXPECT_TRUE(node(x).replica().groupExists("other"));
  }
  for (const Actor& x : {a, c}) {
    N n = last(x, N::ANNOUNCEMENT);
    EXPECT_EQ("g", n.group());
    EXPECT_NE(0u, n.summary_code() & TK_GS_GROUP_DISSOLVED);
  }
  EXPECT_TRUE(notes(b, N::ANNOUNCEMENT).empty());
  expectSameState();
  // The group starts empty: its first joiner makes it anew.
  EXPECT_EQ(TK_GS_OK, rc(c, submit(c, joinReq("g", c.instance))));
  EXPECT_EQ(c.name(), membersEverywhere("g"));
}

TEST_F(Merge, AGroupOfOneSideGoesOnAndTheOtherSideHearsOfIt) {
  start(3);
  Actor a = actor(0);
  cluster_->partition({{1, 2}, {3}});
  settle();
  joinAll("g", {a});
  EXPECT_FALSE(node(3).replica().groupExists("g"));
  cluster_->heal();
  settle();
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  std::vector<GroupChange> seen = node(3).changesOf("g");
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(GroupChange::JOINED, seen[0].kind);
  EXPECT_EQ(a.name(), ids(seen[0].current));
  EXPECT_EQ(1u, node(1).changesOf("g").size());  // nothing new on a's side
  EXPECT_TRUE(notes(a, N::ANNOUNCEMENT).empty());
  expectSameState();
}

TEST_F(Merge, AGroupNeitherSideTouchedIsNotDissolved) {
  start(3);
  Actor a = actor(0), c = actor(2);
  joinAll("g", {a, c});
  // Split and heal before either side could sync: both sides still hold
  // the group as it was.
  cluster_->partition({{1, 2}, {3}});
  cluster_->heal();
  settle();
  EXPECT_EQ(a.name() + " " + c.name(), membersEverywhere("g"));
  for (uint32_t x : {1u, 2u, 3u}) {
    EXPECT_EQ(0u, countKind(node(x).changesOf("g"), GroupChange::DISSOLVED));
  }
  EXPECT_TRUE(notes(a, N::ANNOUNCEMENT).empty());
  expectSameState();
}

TEST_F(Merge, RequestsOfADissolvedGroupEndInADelayedError) {
  start(3);
  Actor a = actor(0), c = actor(2);
  Actor a2 = actor(3);  // node 1, waits to join behind a protocol
  joinAll("g", {a, c});
  cluster_->partition({{1, 2}, {3}});
  settle();
  submit(a, valueReq("g", a.instance, "v"));
  uint64_t id = submit(a2, joinReq("g", a2.instance));
  EXPECT_EQ(TK_GS_OK, rc(a2, id));
  cluster_->heal();
  settle();
  N err = last(a2, N::DELAYED_ERROR);
  EXPECT_EQ(TK_GS_COLLIDED_PROTOCOL, err.delayed_rc());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_JOIN), err.request_type());
  EXPECT_EQ(id, err.request_id());
  EXPECT_FALSE(node(1).replica().groupExists("g"));
  expectSameState();
}

class BusBackPressure : public ClusterHarness {
 protected:
  void flushEverywhere() {
    for (auto& e : nodes_) EXPECT_EQ(0, e.second->replica().flushPending()) << "node " << e.first;
  }
};

TEST_F(BusBackPressure, ASnapshotTheBusRefusedIsSentWhenTheAgentFlushes) {
  start(3, ReplicaLimits(), {}, 2);
  ASSERT_EQ(0, node(3).join());
  cluster_->failMulticastsForTesting = EAGAIN;
  settle();
  EXPECT_FALSE(node(1).replica().isSynced());
  EXPECT_FALSE(node(3).replica().isSynced());
  EXPECT_EQ(EAGAIN, node(1).replica().flushPending());
  cluster_->failMulticastsForTesting = 0;
  flushEverywhere();
  settle();
  for (uint32_t x : {1u, 2u, 3u}) EXPECT_TRUE(node(x).replica().isSynced()) << "node " << x;
  expectSameState();
}

TEST_F(BusBackPressure, ARequestTheBusRefusedIsNeverSentLater) {
  start(1);
  Actor a = actor(0);
  cluster_->failMulticastsForTesting = EAGAIN;
  uint64_t id = submitNoWait(a, joinReq("g", a.instance));
  EXPECT_EQ(-EAGAIN, rc(a, id)) << "the agent answers it";
  cluster_->failMulticastsForTesting = 0;
  EXPECT_EQ(0, node(1).replica().flushPending());
  settle();
  EXPECT_FALSE(node(1).replica().groupExists("g"));
  EXPECT_EQ(1u, a.node->replies(a.client, id).size());
  EXPECT_EQ(TK_GS_OK, rc(a, submit(a, joinReq("g", a.instance))));
}

TEST_F(BusBackPressure, RequestsWaitingBehindARefusedOneKeepTheirOrder) {
  start(3);
  Actor b = actor(1);
  cluster_->partition({{1, 2}, {3}});
  ASSERT_TRUE(cluster_->deliverOne(2));
  uint64_t join = submitNoWait(b, joinReq("g", b.instance));
  ASSERT_TRUE(cluster_->deliverOne(2));  // held by the sync of {1,2}
  cluster_->failMulticastsForTesting = EAGAIN;
  cluster_->heal();
  settle();  // node 2 cannot send the join again
  uint64_t value = submitNoWait(b, valueReq("g", b.instance, "v", TK_GS_1_PHASE, 0));
  EXPECT_TRUE(b.node->replies(b.client, value).empty()) << "queued behind the join";
  cluster_->failMulticastsForTesting = 0;
  flushEverywhere();
  settle();
  EXPECT_EQ(TK_GS_OK, rc(b, join));
  EXPECT_EQ(TK_GS_OK, rc(b, value)) << text(b, value);
  EXPECT_EQ("v", node(3).replica().describe().groups(0).state_value());
  expectSameState();
}

// A bus driven by hand, for views SimCluster does not make: the test is the
// total order (every message goes to every replica in the order sent).
class HandBus : public Bus {
 public:
  explicit HandBus(uint32_t node) : node_(node) {}
  void setHandler(BusHandler* h) override { handler = h; }
  int join() override { return 0; }
  uint32_t selfNode() const override { return node_; }
  int multicast(const std::string& bytes) override {
    sent.push_back(bytes);
    return 0;
  }
  BusHandler* handler = nullptr;
  std::vector<std::string> sent;

 private:
  uint32_t node_;
};

void deliverAllByHand(const std::vector<HandBus*>& buses) {
  for (bool more = true; more;) {
    more = false;
    for (HandBus* from : buses) {
      std::vector<std::string> out;
      out.swap(from->sent);
      for (const std::string& m : out) {
        more = true;
        for (HandBus* to : buses) to->handler->onMessage(from->selfNode(), m);
      }
    }
  }
}

TEST(RestartedPeer, ANodeReportedAsLeftAndJoinedInOneViewChangeStartsFresh) {
  HandBus bus1(1), bus2(2);
  struct Sink : ReplicaSink {
    void toClient(uint64_t, const proto::AgentFrame&) override {}
    void groupChanged(const GroupChange&) override {}
    void deadlinesChanged(const std::vector<Deadline>&) override {}
    void activeVersionChanged(uint32_t) override {}
  } sink;
  Replica r1(&bus1, &sink, kDefaultVersion);
  auto r2 = std::make_unique<Replica>(&bus2, &sink, kDefaultVersion);
  View v1{1, {1, 2}, {}, {1, 2}};
  r1.onView(v1);
  r2->onView(v1);
  deliverAllByHand({&bus1, &bus2});
  ASSERT_TRUE(r1.isSynced());
  ASSERT_EQ(0, r2->submit(2001, joinReq("g", 1)));
  deliverAllByHand({&bus1, &bus2});
  ASSERT_EQ("1/2", ids(r1.members("g")));

  // Node 2's agent restarted so fast that the bus reports it as gone and
  // back in one change: its old providers must not come back with it.
  r2 = std::make_unique<Replica>(&bus2, &sink, kDefaultVersion);
  View v2{2, {1, 2}, {2}, {2}};
  r1.onView(v2);
  r2->onView(v2);
  deliverAllByHand({&bus1, &bus2});
  ASSERT_TRUE(r1.isSynced());
  ASSERT_TRUE(r2->isSynced());
  EXPECT_FALSE(r1.groupExists("g"));
  EXPECT_EQ(r1.digest(), r2->digest());
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

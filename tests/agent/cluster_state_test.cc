// ClusterState on its own: its image carries everything (a state adopted
// from its own image has the same digest), origins' numbered messages apply
// once and in order, and the merge rule of snapshots.
#include "cluster_state.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "agent_test_util.h"
#include "gs_types.h"
#include "sanitized.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

// Records what a state tells its agent.
class Recorder : public ReplicaSink {
 public:
  void toClient(uint64_t client, const proto::AgentFrame& f) override {
    splitGroupedNotification(f, [this, client](const proto::AgentFrame& one) {
      frames.push_back({client, one});
      return true;
    });
  }
  void groupChanged(const GroupChange& c) override { changes.push_back(c); }
  void deadlinesChanged(const std::vector<Deadline>&) override {}
  void activeVersionChanged(uint32_t) override {}
  std::vector<std::pair<uint64_t, proto::AgentFrame>> frames;
  std::vector<GroupChange> changes;
};

proto::ClientRequest from(uint64_t client, uint64_t id, proto::Request r) {
  proto::ClientRequest cr;
  cr.set_client(client);
  r.set_id(id);
  *cr.mutable_request() = r;
  return cr;
}

proto::Snapshot snapshotOf(const ClusterState& s, const std::vector<uint32_t>& covers) {
  proto::Snapshot snap;
  snap.set_view_id(1);
  for (uint32_t n : covers) snap.add_covers(n);
  *snap.mutable_state() = s.image();
  return snap;
}

class ClusterStateImage : public ::testing::Test {};

TEST_F(ClusterStateImage, AStateAdoptedFromItsImageIsTheSameState) {
  Recorder rec;
  ClusterState a(1, kDefaultVersion, ReplicaLimits(), &rec);
  a.applyRequest(1, from(1001, 1, joinReq("g", 1, attrs(1, TK_GS_VOTE_REJECT, 30, 0))));
  a.applyRequest(1, from(1002, 2, joinReq("g", 2)));
  a.applyRequest(1, from(1001, 3, valueReq("g", 1, "v1")));  // in flight
  a.applyRequest(1, from(1003, 4, joinReq("g", 3)));         // queued
  a.applyRequest(1, from(1001, 5, joinReq("h", 7)));
  ASSERT_TRUE(a.groupExists("g"));
  ASSERT_EQ(1u, a.deadlines().size());

  ClusterState b(1, kDefaultVersion, ReplicaLimits(), nullptr);
  EXPECT_NE(a.digest(), b.digest());
  b.adopt({snapshotOf(a, {1})});
  EXPECT_EQ(a.digest(), b.digest());
  EXPECT_EQ("1/1 2/1", ids(b.members("g")));
  ASSERT_EQ(1u, b.deadlines().size());
  EXPECT_EQ(a.deadlines()[0].protocol, b.deadlines()[0].protocol);
  // Both go on alike.
  proto::ProtocolTimeout t;
  t.set_group("g");
  t.set_protocol(a.deadlines()[0].protocol);
  t.set_phase(1);
  a.applyTimeout(t);
  b.applyTimeout(t);
  EXPECT_EQ(a.digest(), b.digest());
  // Rejected by the default vote; then the queued join had its turn.
  EXPECT_EQ("1/1 2/1 3/1", ids(b.members("g")));
  EXPECT_FALSE(b.protocolWaiting("g", t.protocol(), 1));
}

TEST_F(ClusterStateImage, NumberedMessagesApplyOnceAndInOrder) {
  ClusterState s(1, kDefaultVersion, ReplicaLimits(), nullptr);
  EXPECT_TRUE(s.acceptSequence(1, 1));
  EXPECT_FALSE(s.acceptSequence(1, 1)) << "a repeat";
  EXPECT_FALSE(s.acceptSequence(1, 3)) << "one is missing before it";
  EXPECT_TRUE(s.acceptSequence(1, 2));
  EXPECT_TRUE(s.acceptSequence(1, 3));
  EXPECT_TRUE(s.acceptSequence(1, 0)) << "unnumbered";
  EXPECT_FALSE(s.acceptSequence(9, 1)) << "an agent the state does not know";
}

class SnapshotMerge : public ::testing::Test {
 protected:
  // Node n's state holding group g with the given providers (instance, node).
  std::unique_ptr<ClusterState> side(uint32_t n,
                                     const std::vector<std::pair<uint32_t, uint32_t>>& members,
                                     const std::string& value = "", ReplicaSink* sink = nullptr) {
    auto s = std::make_unique<ClusterState>(n, kDefaultVersion, ReplicaLimits(), sink);
    // Providers of other nodes come in through an image, as after a sync.
    proto::ClusterStateImage img = s->image();
    proto::GroupImage* g = img.add_groups();
    g->set_name("g");
    *g->mutable_attributes() = attrs();
    for (const auto& m : members) {
      proto::ProviderImage* p = g->add_providers();
      p->mutable_id()->set_instance(m.first);
      p->mutable_id()->set_node(m.second);
      p->set_client(m.second * 1000);
    }
    g->set_has_state_value(!value.empty());
    g->set_state_value(value);
    proto::Snapshot snap;
    snap.set_view_id(1);
    for (const auto& m : members) snap.add_covers(m.second);
    snap.add_covers(n);
    *snap.mutable_state() = img;
    s->adopt({snap});
    return s;
  }
};

TEST_F(SnapshotMerge, DifferentGroupsOnTwoSidesAreDissolved) {
  Recorder rec;
  auto a = side(1, {{1, 1}, {1, 2}}, "", &rec);
  auto b = side(2, {{1, 1}, {1, 2}}, "changed");
  rec.frames.clear();
  a->adopt({snapshotOf(*a, {1}), snapshotOf(*b, {2})});
  EXPECT_FALSE(a->groupExists("g"));
  ASSERT_FALSE(rec.changes.empty());
  EXPECT_EQ(GroupChange::DISSOLVED, rec.changes.back().kind);
  // Its provider on this node hears why.
  ASSERT_EQ(1u, rec.frames.size());
  EXPECT_EQ(1000u, rec.frames[0].first);
  EXPECT_EQ(proto::Notification::ANNOUNCEMENT, rec.frames[0].second.notification().kind());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_GROUP_DISSOLVED),
            rec.frames[0].second.notification().summary_code());
}

TEST_F(SnapshotMerge, TheSameGroupOnTwoSidesGoesOn) {
  auto a = side(1, {{1, 1}, {1, 2}}, "same");
  auto b = side(2, {{1, 1}, {1, 2}}, "same");
  ClusterState s(1, kDefaultVersion, ReplicaLimits(), nullptr);
  s.adopt({snapshotOf(*a, {1}), snapshotOf(*b, {2})});
  EXPECT_EQ("1/1 1/2", ids(s.members("g")));
}

TEST_F(SnapshotMerge, ASideSpeaksOnlyForProvidersOnItsOwnNodes) {
  // Side 1 still lists a provider of node 2 that side 2 (which speaks for
  // node 2) no longer has: it leaves by failure, and nothing is dissolved.
  Recorder rec;
  auto a = side(1, {{1, 1}, {1, 2}}, "", &rec);
  ClusterState fresh2(2, kOldVersion, ReplicaLimits(), nullptr);
  rec.changes.clear();
  a->adopt({snapshotOf(*a, {1}), snapshotOf(fresh2, {2})});
  EXPECT_EQ("1/1", ids(a->members("g")));
  ASSERT_EQ(1u, rec.changes.size());
  EXPECT_EQ(GroupChange::LEFT, rec.changes[0].kind);
  EXPECT_EQ("1/2", ids(rec.changes[0].changing));
  // The agents are those of the covered nodes, each from its own side.
  EXPECT_EQ(kOldVersion, a->activeVersion());
}

// ------------------------------------------------------------ cost

// Counts what a state tells its agent without keeping it: frames, and the
// provider ids their notifications carry (what the agent serialises and
// sends). Remembers the last protocol that asked for votes.
class Counter : public ReplicaSink {
 public:
  void toClient(uint64_t, const proto::AgentFrame& f) override {
    ++frames;
    if (!f.has_notification()) return;
    const proto::Notification& n = f.notification();
    ids += static_cast<uint64_t>(n.current_size() + n.changing_size() + n.more_instances_size());
    if (n.kind() == proto::Notification::N_PHASE) votingProtocol = n.protocol();
    if (n.kind() == proto::Notification::APPROVED) ++approvals;
  }
  void groupChanged(const GroupChange&) override {}
  void deadlinesChanged(const std::vector<Deadline>&) override {}
  void activeVersionChanged(uint32_t) override {}
  uint64_t frames = 0;
  uint64_t ids = 0;
  uint64_t approvals = 0;
  uint64_t votingProtocol = 0;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One client that holds every provider of a large group: each protocol
// costs the group's size once, not once per provider.
class GroupProtocolCost : public ::testing::Test {
 protected:
  // Under a sanitizer a quarter as many: a quadratic cost still stays far
  // below a cubic one there, and the loop runs tens of times slower.
  static constexpr uint32_t kProviders = velt_test::kSanitized ? 500 : 2000;
  static constexpr uint64_t kClient = 7;
  // Far above what the state needs, far below what a cubic or quadratic
  // step would take; only a loop that was cut short for taking too long
  // reaches it.
  static constexpr double kBudgetSeconds = 20;

  // Joins kProviders instances of kClient to "big", one request each, as
  // a client that pipelines its joins; stops early when the cost runs away.
  void joinAll(ClusterState* s, Counter* sink, uint64_t idBound) {
    auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 1; i <= kProviders; ++i) {
      s->applyRequest(1, from(kClient, i, joinReq("big", i, attrs(1, TK_GS_VOTE_APPROVE, 0, 0))));
      if (sink->ids > idBound || secondsSince(start) > kBudgetSeconds) {
        ADD_FAILURE() << "stopped after " << i << " joins: " << sink->ids << " ids in "
                      << secondsSince(start) << " s";
        return;
      }
    }
  }
};

TEST_F(GroupProtocolCost, PipelinedJoinsNameTheGroupOncePerJoin) {
  Counter sink;
  ClusterState s(1, kDefaultVersion, ReplicaLimits(), &sink);
  // Join i's approval names the i members and the joiner once, with the
  // client's i instances: about 1.5 n^2 ids in all. One frame per provider
  // would be about n^3 / 3.
  const uint64_t bound = 2ull * kProviders * kProviders;
  joinAll(&s, &sink, bound);
  EXPECT_EQ(kProviders, s.members("big").size());
  EXPECT_LE(sink.ids, bound);
  // A reply and one approval per join.
  EXPECT_EQ(2ull * kProviders, sink.frames);
  EXPECT_EQ(uint64_t{kProviders}, sink.approvals);
}

TEST_F(GroupProtocolCost, EveryProviderVotingInALargeGroupIsCheap) {
  // The group comes from a snapshot, which costs its size once: large
  // enough that a vote costing the group's size squared runs for minutes.
  constexpr uint32_t kVoters = 10000;
  Counter sink;
  ClusterState s(1, kDefaultVersion, ReplicaLimits(), &sink);
  proto::Snapshot snap;
  snap.set_view_id(1);
  snap.add_covers(1);
  proto::AgentImage* agent = snap.mutable_state()->add_agents();
  agent->set_node(1);
  agent->set_agent_version(kDefaultVersion);
  proto::GroupImage* big = snap.mutable_state()->add_groups();
  big->set_name("big");
  *big->mutable_attributes() = attrs(1, TK_GS_VOTE_APPROVE, 0, 0);
  big->mutable_attributes()->set_group_name("big");
  for (uint32_t i = 1; i <= kVoters; ++i) {
    proto::ProviderImage* p = big->add_providers();
    p->mutable_id()->set_instance(i);
    p->mutable_id()->set_node(1);
    p->set_client(kClient);
  }
  s.adopt({snap});
  ASSERT_EQ(kVoters, s.members("big").size());
  s.applyRequest(1, from(kClient, 1, valueReq("big", 1, "new", TK_GS_N_PHASE, 30)));
  ASSERT_NE(0u, sink.votingProtocol);
  uint64_t protocol = sink.votingProtocol;
  uint64_t approvalsBefore = sink.approvals;
  auto start = std::chrono::steady_clock::now();
  for (uint32_t i = 1; i <= kVoters; ++i) {
    s.applyRequest(1, from(kClient, 1 + i, voteReq("big", i, protocol, 1, TK_GS_VOTE_APPROVE)));
    ASSERT_LT(secondsSince(start), kBudgetSeconds) << "stopped after " << i << " votes";
  }
  // The last vote concluded the change: one approval for the client.
  EXPECT_EQ(approvalsBefore + 1, sink.approvals);
  EXPECT_TRUE(s.deadlines().empty());
}

TEST_F(GroupProtocolCost, ClientWithEveryProviderLeavingIsOneDeparture) {
  Counter sink;
  ClusterState s(1, kDefaultVersion, ReplicaLimits(), &sink);
  joinAll(&s, &sink, 2ull * kProviders * kProviders);
  proto::ClientGone gone;
  gone.set_client(kClient);
  s.applyClientGone(1, gone);
  EXPECT_FALSE(s.groupExists("big"));
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

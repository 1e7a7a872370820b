// ClusterState on its own: its image carries everything (a state adopted
// from its own image has the same digest), origins' numbered messages apply
// once and in order, and the merge rule of snapshots.
#include "cluster_state.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_test_util.h"
#include "gs_types.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

// Records what a state tells its agent.
class Recorder : public ReplicaSink {
 public:
  void toClient(uint64_t client, const proto::AgentFrame& f) override {
    frames.push_back({client, f});
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

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

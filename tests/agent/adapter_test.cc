// The raw adapter group "allAdapterMembership" in the replicated state:
// adapters reported by their node become its providers while alive, every
// change reaches subscribers with the adapters' addresses, a node's
// adapters leave with it, a joining agent learns them, and a partition that
// heals keeps each node's own latest report instead of dissolving the group.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adapter_updates.h"
#include "cluster_harness.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

// "ip-last-byte/interface" of each adapter, in order: "1/sxn0 2/sxn1".
std::string adapters(const std::vector<proto::AdapterInfo>& v) {
  std::string out;
  for (const proto::AdapterInfo& a : v) {
    if (!out.empty()) out += " ";
    out += std::to_string(static_cast<uint8_t>(a.ip().back())) + "/" + a.interface_name();
  }
  return out;
}

class RawAdapterGroup : public ClusterHarness {
 protected:
  void report(uint32_t n, const proto::AdapterUpdate& u) {
    ASSERT_EQ(0, node(n).replica().reportAdapter(u));
    settle();
  }
  // The raw group's members as every node sees them (they must agree).
  std::string raw() { return membersEverywhere(kRawAdapterGroup); }
  std::vector<GroupChange> rawChanges(uint32_t n) { return node(n).changesOf(kRawAdapterGroup); }
};

TEST_F(RawAdapterGroup, ExistsWhileEmptyAndIsListedOnlyWithMembers) {
  start(2);
  for (uint32_t n : {1u, 2u}) {
    EXPECT_TRUE(node(n).replica().groupExists(kRawAdapterGroup));
    EXPECT_TRUE(node(n).replica().members(kRawAdapterGroup).empty());
    EXPECT_EQ(0, node(n).replica().describe().groups_size());
  }
  report(2, update(2, 0, true));
  proto::QueryAnswer q = node(1).replica().describe();
  ASSERT_EQ(1, q.groups_size());
  EXPECT_EQ(kRawAdapterGroup, q.groups(0).name());
  ASSERT_EQ(1, q.groups(0).adapters_size());
  EXPECT_EQ("sxn0", q.groups(0).adapters(0).interface_name());
  EXPECT_EQ(ids(q.groups(0).providers()), "0/2");
}

TEST_F(RawAdapterGroup, LiveAdaptersAreProvidersOnEveryNodeAndSubscribersLearnTheirAddresses) {
  start(3);
  report(1, update(1, 0, true));
  report(2, update(2, 0, true));
  report(2, update(2, 1, true));
  EXPECT_EQ("0/1 0/2 1/2", raw());
  expectSameState();
  // Node 3 has no adapter of its own and still tells its subscribers.
  std::vector<GroupChange> seen = rawChanges(3);
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ(GroupChange::JOINED, seen[2].kind);
  EXPECT_EQ("1/2", ids(seen[2].changing));
  EXPECT_EQ("2/sxn1", adapters(seen[2].changingAdapters));
  EXPECT_EQ("0/1 0/2 1/2", ids(seen[2].current));
  EXPECT_EQ("1/sxn0 2/sxn0 2/sxn1", adapters(seen[2].currentAdapters));
  EXPECT_EQ(kRawAdapterGroup, seen[2].attributes.group_name());
  EXPECT_EQ("1/sxn0 2/sxn0 2/sxn1", adapters(node(3).replica().liveAdapters()));
}

TEST_F(RawAdapterGroup, DeadAdapterLeavesWithItsAddressAndComesBack) {
  start(2);
  report(1, update(1, 0, true));
  report(1, update(1, 1, true));
  node(2).clearRecords();
  report(1, update(1, 1, false));
  EXPECT_EQ("0/1", raw());
  std::vector<GroupChange> seen = rawChanges(2);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(GroupChange::LEFT, seen[0].kind);
  EXPECT_EQ("1/1", ids(seen[0].changing));
  EXPECT_EQ("1/sxn1", adapters(seen[0].changingAdapters));
  EXPECT_EQ("1/sxn0", adapters(seen[0].currentAdapters));
  // The dead adapter is still known, only not a member.
  std::vector<proto::AdapterImage> held = node(2).replica().adaptersOf(1);
  ASSERT_EQ(2u, held.size());
  EXPECT_FALSE(held[1].alive());
  report(1, update(1, 1, true));
  EXPECT_EQ("0/1 1/1", raw());
  EXPECT_EQ(GroupChange::JOINED, rawChanges(2).back().kind);
  // A repeated report changes nothing and tells nobody.
  size_t before = rawChanges(2).size();
  report(1, update(1, 1, true));
  EXPECT_EQ(before, rawChanges(2).size());
  expectSameState();
}

TEST_F(RawAdapterGroup, NewAddressLeavesWithTheOldAndJoinsWithTheNew) {
  start(2);
  report(1, update(1, 0, true));
  node(2).clearRecords();
  report(1, update(1, 0, true, false, std::string{10, 0, 0, 99}));
  std::vector<GroupChange> seen = rawChanges(2);
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(GroupChange::LEFT, seen[0].kind);
  EXPECT_EQ("1/sxn0", adapters(seen[0].changingAdapters));
  EXPECT_EQ(GroupChange::JOINED, seen[1].kind);
  EXPECT_EQ("99/sxn0", adapters(seen[1].changingAdapters));
  EXPECT_EQ("0/1", raw());
}

TEST_F(RawAdapterGroup, RemovedAdapterLeavesAndIsForgotten) {
  start(2);
  report(2, update(2, 3, true));
  report(2, update(2, 3, false, true));
  EXPECT_EQ("", raw());
  EXPECT_TRUE(node(1).replica().adaptersOf(2).empty());
  EXPECT_EQ(GroupChange::LEFT, rawChanges(1).back().kind);
  // The group stays: it never ceases to exist, so subscriptions go on.
  for (const GroupChange& c : rawChanges(1)) EXPECT_NE(GroupChange::GONE, c.kind);
  EXPECT_TRUE(node(1).replica().groupExists(kRawAdapterGroup));
}

TEST_F(RawAdapterGroup, ClientsMayNotJoinIt) {
  start(1);
  Actor a = actor(0);
  uint64_t id = submit(a, joinReq(kRawAdapterGroup, 1));
  EXPECT_EQ(TK_GS_INVALID_GROUP, rc(a, id));
  EXPECT_NE(std::string::npos, text(a, id).find("only subscribe")) << text(a, id);
  EXPECT_EQ("", raw());
}

TEST_F(RawAdapterGroup, AdaptersOfACrashedNodeLeaveWithIt) {
  start(3);
  report(1, update(1, 0, true));
  report(3, update(3, 0, true));
  report(3, update(3, 1, true));
  node(1).clearRecords();
  cluster_->crash(3);
  settle();
  for (uint32_t n : {1u, 2u}) {
    EXPECT_EQ("0/1", ids(node(n).replica().members(kRawAdapterGroup))) << "node " << n;
  }
  expectSameState({1, 2});
  std::vector<GroupChange> seen = rawChanges(1);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(GroupChange::LEFT, seen[0].kind);
  EXPECT_EQ("3/sxn0 3/sxn1", adapters(seen[0].changingAdapters));
  EXPECT_EQ("1/sxn0", adapters(seen[0].currentAdapters));
}

TEST_F(RawAdapterGroup, RestartedAgentStartsWithoutItsOldAdapters) {
  start(2);
  report(2, update(2, 0, true));
  cluster_->crash(2);
  settle();
  cluster_->revive(2);
  node(2).restart();
  ASSERT_EQ(0, node(2).join());
  settle();
  EXPECT_EQ("", raw());
  report(2, update(2, 0, true));
  EXPECT_EQ("0/2", raw());
  expectSameState();
}

TEST_F(RawAdapterGroup, AJoiningAgentLearnsTheAdaptersAndTellsItsSubscribers) {
  start(3, ReplicaLimits(), {}, 2);
  report(1, update(1, 0, true));
  report(2, update(2, 0, true));
  report(2, update(2, 1, false));
  ASSERT_EQ(0, node(3).join());
  settle();
  ASSERT_TRUE(node(3).replica().isSynced());
  expectSameState();
  EXPECT_EQ("0/1 0/2", raw());
  EXPECT_EQ(2u, node(3).replica().adaptersOf(2).size());
  std::vector<GroupChange> seen = rawChanges(3);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(GroupChange::JOINED, seen[0].kind);
  EXPECT_EQ("1/sxn0 2/sxn0", adapters(seen[0].changingAdapters));
  EXPECT_EQ("1/sxn0 2/sxn0", adapters(seen[0].currentAdapters));
  // Its own adapters join the others'.
  report(3, update(3, 0, true));
  EXPECT_EQ("0/1 0/2 0/3", raw());
}

TEST_F(RawAdapterGroup, PartitionAndMergeKeepEachNodesLatestReportWithoutDissolving) {
  start(3);
  report(1, update(1, 0, true));
  report(2, update(2, 0, true));
  report(3, update(3, 0, true));
  cluster_->partition({{1}, {2, 3}});
  settle();
  // Each side lost the other's adapters.
  EXPECT_EQ("0/1", ids(node(1).replica().members(kRawAdapterGroup)));
  EXPECT_EQ("0/2 0/3", ids(node(2).replica().members(kRawAdapterGroup)));
  // Both sides change their own adapters meanwhile.
  report(1, update(1, 0, false));
  report(1, update(1, 1, true));
  report(3, update(3, 2, true));
  report(2, update(2, 0, false, true));
  for (auto& e : nodes_) e.second->clearRecords();
  cluster_->heal();
  settle();
  expectSameState();
  EXPECT_EQ("1/1 0/3 2/3", raw());
  for (uint32_t n : {1u, 2u, 3u}) {
    for (const GroupChange& c : rawChanges(n)) {
      EXPECT_NE(GroupChange::DISSOLVED, c.kind) << "node " << n;
      EXPECT_NE(GroupChange::GONE, c.kind) << "node " << n;
    }
  }
  // Node 1 hears of the other side's adapters, node 2 of node 1's.
  std::vector<GroupChange> seen = rawChanges(1);
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(GroupChange::JOINED, seen.back().kind);
  EXPECT_EQ("3/sxn0 3/sxn2", adapters(seen.back().changingAdapters));
  seen = rawChanges(2);
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ("1/sxn1", adapters(seen.back().changingAdapters));
}

TEST_F(RawAdapterGroup, ReportSentDuringAnInterruptedSyncIsAppliedOnce) {
  start(3);
  cluster_->partition({{1, 2}, {3}});
  ASSERT_TRUE(cluster_->deliverOne(2));  // node 2 enters {1,2}; node 1 has not
  ASSERT_EQ(0, node(2).replica().reportAdapter(update(2, 0, true)));
  ASSERT_TRUE(cluster_->deliverOne(2));  // held: no snapshot yet
  cluster_->heal();                      // the sync starts over
  settle();
  EXPECT_EQ("0/2", raw());
  expectSameState();
  size_t joins = 0;
  for (const GroupChange& c : rawChanges(1)) joins += c.kind == GroupChange::JOINED ? 1 : 0;
  EXPECT_EQ(1u, joins);
}

TEST_F(RawAdapterGroup, AdaptersBeyondTheLimitPerNodeAreIgnoredByEveryNode) {
  ReplicaLimits limits;
  limits.maxAdaptersPerNode = 2;
  start(2, limits);
  for (uint32_t i = 0; i < 3; ++i) report(1, update(1, i, true));
  EXPECT_EQ("0/1 1/1", raw());
  // An index it holds may still change.
  report(1, update(1, 1, false));
  EXPECT_EQ("0/1", raw());
  expectSameState();
}

// ------------------------------------------------------------ outside input

// Reports are applied by every agent from the bus: what a peer could not
// have sent must change nothing, on every agent alike.
class AdapterUpdateInput : public ::testing::Test {
 protected:
  AdapterUpdateInput() : state_(1, 0x02050000, ReplicaLimits(), nullptr) {
    proto::Snapshot s;
    s.set_view_id(1);
    s.add_covers(1);
    s.add_covers(2);
    proto::AgentImage* a = s.mutable_state()->add_agents();
    a->set_node(1);
    a->set_agent_version(0x02050000);
    a = s.mutable_state()->add_agents();
    a->set_node(2);
    a->set_agent_version(0x02050000);
    state_.adopt({s});
  }
  ClusterState state_;
};

TEST_F(AdapterUpdateInput, ReportAboutAnotherNodesAdapterIsIgnored) {
  state_.applyAdapterUpdate(2, update(1, 0, true));
  EXPECT_TRUE(state_.liveAdapters().empty());
  state_.applyAdapterUpdate(2, update(2, 0, true));
  EXPECT_EQ(1u, state_.liveAdapters().size());
  // Nor may it remove another node's.
  state_.applyAdapterUpdate(1, update(1, 0, true));
  state_.applyAdapterUpdate(2, update(1, 0, false, true));
  EXPECT_EQ(2u, state_.liveAdapters().size());
}

TEST_F(AdapterUpdateInput, FieldsTheClientLibraryCannotHoldAreRefused) {
  proto::AdapterUpdate u = update(2, 0, true);
  u.mutable_adapter()->set_interface_name(std::string(32, 'x'));
  state_.applyAdapterUpdate(2, u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_network_name(std::string(64, 'x'));
  state_.applyAdapterUpdate(2, u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_network_type(std::string(32, 'x'));
  state_.applyAdapterUpdate(2, u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_ip("abc");
  state_.applyAdapterUpdate(2, u);
  u = update(2, 0x10000, true);
  state_.applyAdapterUpdate(2, u);
  EXPECT_TRUE(state_.adaptersOf(2).empty());
  // At the bounds it is taken.
  u = update(2, 0xffff, true);
  u.mutable_adapter()->set_interface_name(std::string(31, 'x'));
  u.mutable_adapter()->set_ip(std::string(16, '\1'));
  state_.applyAdapterUpdate(2, u);
  EXPECT_EQ(1u, state_.adaptersOf(2).size());
}

TEST_F(AdapterUpdateInput, ReportOfAnUnknownAgentIsIgnored) {
  state_.applyAdapterUpdate(5, update(5, 0, true));
  EXPECT_TRUE(state_.liveAdapters().empty());
}

TEST_F(AdapterUpdateInput, SnapshotAdaptersOutsideTheirCoverOrOutOfRangeAreDropped) {
  proto::Snapshot s;
  s.set_view_id(2);
  s.add_covers(1);
  proto::AgentImage* a = s.mutable_state()->add_agents();
  a->set_node(1);
  auto add = [&](const proto::AdapterUpdate& u) {
    proto::AdapterImage* img = s.mutable_state()->add_adapters();
    *img->mutable_adapter() = u.adapter();
    img->set_alive(true);
  };
  add(update(1, 0, true));
  add(update(1, 0, true, false, std::string{10, 0, 0, 42}));  // listed twice: the first counts
  add(update(2, 0, true));  // node 2 is not covered by this snapshot
  proto::AdapterUpdate bad = update(1, 1, true);
  bad.mutable_adapter()->set_ip("");
  add(bad);
  proto::GroupImage* g = s.mutable_state()->add_groups();  // never a group of clients
  g->set_name(kRawAdapterGroup);
  g->add_providers()->mutable_id()->set_node(1);
  state_.adopt({s});
  std::vector<proto::AdapterInfo> live = state_.liveAdapters();
  ASSERT_EQ(1u, live.size());
  EXPECT_EQ(ipOf(1, 0), live[0].ip());
  EXPECT_EQ(1u, state_.members(kRawAdapterGroup).size());
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

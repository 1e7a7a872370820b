// AdapterTable on its own: what a node's report may change, what the raw
// group's subscribers hear of each change, and how a merge takes each
// node's adapters from the snapshot that speaks for it. (The raw group on
// the bus, between agents, is in adapter_test.cc.)
#include "adapter_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adapter_updates.h"
#include "gs_types.h"

namespace velt {
namespace agent {
namespace {

using testing::ipOf;
using testing::update;

// "index/node" of each provider: "0/1 1/2".
std::string ids(const std::vector<proto::ProviderId>& v) {
  std::string out;
  for (const proto::ProviderId& p : v) {
    if (!out.empty()) out += " ";
    out += std::to_string(p.instance()) + "/" + std::to_string(p.node());
  }
  return out;
}

// "ip-last-byte/interface" of each adapter: "1/sxn0 2/sxn1".
std::string adapters(const std::vector<proto::AdapterInfo>& v) {
  std::string out;
  for (const proto::AdapterInfo& a : v) {
    if (!out.empty()) out += " ";
    out += std::to_string(static_cast<uint8_t>(a.ip().back())) + "/" + a.interface_name();
  }
  return out;
}

class AdapterTableTest : public ::testing::Test {
 protected:
  // Applies a report of its own node and returns what subscribers hear.
  std::vector<GroupChange> report(const proto::AdapterUpdate& u) {
    std::vector<GroupChange> changes;
    table_.apply(u.adapter().node(), u, &changes);
    return changes;
  }
  AdapterTable table_{3};
};

using AdapterTableReports = AdapterTableTest;

TEST_F(AdapterTableReports, LiveAdaptersAreTheMembersByNodeThenIndex) {
  report(update(2, 1, true));
  report(update(1, 4, true));
  report(update(2, 0, true));
  report(update(1, 2, false));
  EXPECT_EQ("4/1 0/2 1/2", ids(table_.liveMembers()));
  EXPECT_EQ("1/sxn4 2/sxn0 2/sxn1", adapters(table_.liveAdapters()));
  // A dead adapter is held, only not a member.
  std::vector<proto::AdapterImage> of1 = table_.adaptersOf(1);
  ASSERT_EQ(2u, of1.size());
  EXPECT_EQ(2u, of1[0].adapter().instance());
  EXPECT_FALSE(of1[0].alive());
  EXPECT_EQ(4u, of1[1].adapter().instance());
  EXPECT_TRUE(of1[1].alive());
  EXPECT_TRUE(table_.adaptersOf(3).empty());
}

TEST_F(AdapterTableReports, ReportAboutAnotherNodesAdapterChangesNothing) {
  std::vector<GroupChange> changes;
  table_.apply(2, update(1, 0, true), &changes);
  EXPECT_EQ(0u, table_.size());
  EXPECT_TRUE(changes.empty());
  report(update(1, 0, true));
  // Nor may another node remove it.
  table_.apply(2, update(1, 0, false, true), &changes);
  EXPECT_EQ("0/1", ids(table_.liveMembers()));
  EXPECT_TRUE(changes.empty());
}

TEST_F(AdapterTableReports, FieldsTheClientLibraryCannotHoldAreRefused) {
  proto::AdapterUpdate u = update(2, 0, true);
  u.mutable_adapter()->set_interface_name(std::string(TK_GS_MAX_INTERFACE_NAME_LENGTH + 1, 'x'));
  EXPECT_FALSE(AdapterTable::valid(u.adapter(), 2));
  report(u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_network_name(std::string(TK_GS_MAX_NETWORK_NAME_LENGTH + 1, 'x'));
  report(u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_network_type(std::string(TK_GS_MAX_NETWORK_TYPE_LENGTH + 1, 'x'));
  report(u);
  u = update(2, 0, true);
  u.mutable_adapter()->set_ip("abc");
  report(u);
  report(update(2, kMaxProviderField + 1, true));
  report(update(kMaxProviderField + 1, 0, true));
  EXPECT_EQ(0u, table_.size());
  // At the bounds it is taken.
  u = update(2, kMaxProviderField, true);
  u.mutable_adapter()->set_interface_name(std::string(TK_GS_MAX_INTERFACE_NAME_LENGTH, 'x'));
  u.mutable_adapter()->set_ip(std::string(16, '\1'));
  EXPECT_TRUE(AdapterTable::valid(u.adapter(), 2));
  EXPECT_FALSE(AdapterTable::valid(u.adapter(), 3));
  report(u);
  EXPECT_EQ(1u, table_.adaptersOf(2).size());
}

TEST_F(AdapterTableReports, NewAdaptersBeyondTheLimitPerNodeAreDroppedKnownOnesStillChange) {
  for (uint32_t i = 0; i < 5; ++i) report(update(1, i, true));
  report(update(2, 0, true));
  EXPECT_EQ("0/1 1/1 2/1 0/2", ids(table_.liveMembers()));
  report(update(1, 1, false));
  EXPECT_EQ("0/1 2/1 0/2", ids(table_.liveMembers()));
  // A removal makes room.
  report(update(1, 2, false, true));
  report(update(1, 4, true));
  EXPECT_EQ("0/1 4/1 0/2", ids(table_.liveMembers()));
}

using AdapterTableChanges = AdapterTableTest;

TEST_F(AdapterTableChanges, JoinAndLeaveCarryTheAdaptersAndTheWholeMembership) {
  report(update(1, 0, true));
  std::vector<GroupChange> c = report(update(2, 1, true));
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(GroupChange::JOINED, c[0].kind);
  EXPECT_EQ(kRawAdapterGroup, c[0].group);
  EXPECT_EQ(kRawAdapterGroup, c[0].attributes.group_name());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_1_PHASE), c[0].attributes.num_phases());
  EXPECT_EQ("1/2", ids(c[0].changing));
  EXPECT_EQ("2/sxn1", adapters(c[0].changingAdapters));
  EXPECT_EQ("0/1 1/2", ids(c[0].current));
  EXPECT_EQ("1/sxn0 2/sxn1", adapters(c[0].currentAdapters));

  c = report(update(1, 0, false));
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(GroupChange::LEFT, c[0].kind);
  EXPECT_EQ("0/1", ids(c[0].changing));
  EXPECT_EQ("1/sxn0", adapters(c[0].changingAdapters));
  EXPECT_EQ("1/2", ids(c[0].current));
}

TEST_F(AdapterTableChanges, RepeatsDeadAdaptersAndUnknownRemovalsTellNobody) {
  report(update(1, 0, true));
  EXPECT_TRUE(report(update(1, 0, true)).empty());
  EXPECT_TRUE(report(update(1, 1, false)).empty());
  EXPECT_TRUE(report(update(1, 1, false, true)).empty());
  EXPECT_TRUE(report(update(1, 7, false, true)).empty());
  EXPECT_EQ(1u, table_.size());
}

TEST_F(AdapterTableChanges, NewAddressLeavesWithTheOldAndJoinsWithTheNew) {
  report(update(1, 0, true));
  report(update(1, 1, true));
  std::vector<GroupChange> c = report(update(1, 0, true, false, std::string{10, 0, 0, 99}));
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(GroupChange::LEFT, c[0].kind);
  EXPECT_EQ("1/sxn0", adapters(c[0].changingAdapters));
  EXPECT_EQ("1/sxn1", adapters(c[0].currentAdapters));
  EXPECT_EQ(GroupChange::JOINED, c[1].kind);
  EXPECT_EQ("99/sxn0", adapters(c[1].changingAdapters));
  EXPECT_EQ("99/sxn0 1/sxn1", adapters(c[1].currentAdapters));
}

TEST_F(AdapterTableChanges, WithoutAListenerTheReportIsStillApplied) {
  table_.apply(1, update(1, 0, true), nullptr);
  EXPECT_EQ("0/1", ids(table_.liveMembers()));
}

using AdapterTableTransfer = AdapterTableTest;

TEST_F(AdapterTableTransfer, ImageCarriesEveryAdapterAndIsTakenBackWhole) {
  report(update(1, 0, true));
  report(update(1, 1, false));
  report(update(3, 2, true));
  proto::ClusterStateImage image;
  table_.toImage(&image);
  ASSERT_EQ(3, image.adapters_size());
  EXPECT_FALSE(image.adapters(1).alive());
  AdapterTable copy(3);
  copy.takeFromImage(image, {1, 3});
  proto::ClusterStateImage again;
  copy.toImage(&again);
  EXPECT_EQ(image.SerializeAsString(), again.SerializeAsString());
}

TEST_F(AdapterTableTransfer, TakesOnlyTheNamedNodesValidAdaptersAndTheFirstOfRepeats) {
  proto::ClusterStateImage image;
  auto add = [&](const proto::AdapterUpdate& u) {
    proto::AdapterImage* img = image.add_adapters();
    *img->mutable_adapter() = u.adapter();
    img->set_alive(u.alive());
  };
  add(update(1, 0, true));
  add(update(1, 0, true, false, std::string{10, 0, 0, 42}));  // a repeat
  add(update(2, 0, true));                                    // not named
  proto::AdapterUpdate bad = update(1, 1, true);
  bad.mutable_adapter()->set_ip("");
  add(bad);
  proto::AdapterUpdate elsewhere = update(1, 2, true);
  elsewhere.mutable_adapter()->set_node(5);                   // not its node's
  add(elsewhere);
  for (uint32_t i = 3; i < 8; ++i) add(update(1, i, true));  // beyond the limit
  AdapterTable t(3);
  t.takeFromImage(image, {1});
  EXPECT_EQ("1/sxn0 1/sxn3 1/sxn4", adapters(t.liveAdapters()));
}

TEST_F(AdapterTableTransfer, ChangesSinceTellWhoLeftThenWhoJoined) {
  report(update(1, 0, true));
  report(update(2, 0, true));
  report(update(3, 0, true));
  AdapterTable merged(3);
  proto::ClusterStateImage image;
  table_.toImage(&image);
  // Node 2's side took node 2 away; node 3 changed its address; node 4 is
  // new.
  image.mutable_adapters(2)->mutable_adapter()->set_ip(std::string{10, 0, 0, 33});
  proto::AdapterImage* four = image.add_adapters();
  *four->mutable_adapter() = update(4, 1, true).adapter();
  four->set_alive(true);
  merged.takeFromImage(image, {1, 3, 4});
  std::vector<GroupChange> c = merged.changesSince(table_);
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(GroupChange::LEFT, c[0].kind);
  EXPECT_EQ("0/2 0/3", ids(c[0].changing));
  EXPECT_EQ("0/1", ids(c[0].current));
  EXPECT_EQ(GroupChange::JOINED, c[1].kind);
  EXPECT_EQ("0/3 1/4", ids(c[1].changing));
  EXPECT_EQ("33/sxn0 4/sxn1", adapters(c[1].changingAdapters));
  EXPECT_EQ("0/1 0/3 1/4", ids(c[1].current));
  EXPECT_TRUE(merged.changesSince(merged).empty());
}

}  // namespace
}  // namespace agent
}  // namespace velt

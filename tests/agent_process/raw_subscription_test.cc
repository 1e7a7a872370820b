// Subscriptions to the raw adapter group: every notification carries the
// adapters behind the members (the full IP membership) and, for deltas,
// the adapters that join or leave, so that the client library answers
// adapter information from its own copy.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gs_types.h"
#include "local_subscriptions.h"

namespace velt {
namespace agent {
namespace {

proto::AdapterInfo adapter(uint32_t node, uint32_t index, const std::string& name) {
  proto::AdapterInfo a;
  a.set_ip(std::string{10, static_cast<char>(index), 0, static_cast<char>(node)});
  a.set_interface_name(name);
  a.set_node(node);
  a.set_network_name(name);
  a.set_network_type("switch");
  a.set_instance(index);
  return a;
}

proto::ProviderId idOf(const proto::AdapterInfo& a) {
  proto::ProviderId p;
  p.set_instance(a.instance());
  p.set_node(a.node());
  return p;
}

proto::Subscribe subscribeTo(uint32_t subscriber, uint32_t type) {
  proto::Subscribe s;
  s.set_group(kRawAdapterGroup);
  s.set_subscriber(subscriber);
  s.set_type(type);
  return s;
}

GroupChange rawChange(GroupChange::Kind kind, const std::vector<proto::AdapterInfo>& changing,
                      const std::vector<proto::AdapterInfo>& current) {
  GroupChange c;
  c.kind = kind;
  c.group = kRawAdapterGroup;
  c.attributes.set_group_name(kRawAdapterGroup);
  for (const proto::AdapterInfo& a : changing) {
    c.changing.push_back(idOf(a));
    c.changingAdapters.push_back(a);
  }
  for (const proto::AdapterInfo& a : current) {
    c.current.push_back(idOf(a));
    c.currentAdapters.push_back(a);
  }
  return c;
}

std::string names(const google::protobuf::RepeatedPtrField<proto::AdapterInfo>& v) {
  std::string out;
  for (const proto::AdapterInfo& a : v) out += (out.empty() ? "" : " ") + a.interface_name();
  return out;
}

class RawSubscription : public ::testing::Test {
 protected:
  RawSubscription()
      : sxn0_(adapter(1, 0, "sxn0")), sxn1_(adapter(1, 1, "sxn1")), other_(adapter(2, 0, "sxn0")) {}

  void subscribe(uint32_t type = TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE) {
    LocalSubscriptions::GroupNow now;
    for (const proto::AdapterInfo& a : {sxn0_, sxn1_}) {
      now.members.push_back(idOf(a));
      now.adapters.push_back(a);
    }
    now.attributes.set_group_name(kRawAdapterGroup);
    ASSERT_EQ(TK_GS_OK, subs_.subscribe(5, 1, subscribeTo(3, type), &now, &out_, &why_)) << why_;
  }

  proto::AdapterInfo sxn0_, sxn1_, other_;
  LocalSubscriptions subs_{4, 8};
  std::vector<LocalSubscriptions::Outgoing> out_;
  std::string why_;
};

TEST_F(RawSubscription, SubscribingGivesTheFullIpMembership) {
  subscribe();
  ASSERT_EQ(1u, out_.size());
  const proto::Notification& n = out_[0].notification;
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_MEMBERSHIP), n.subscription_type());
  EXPECT_EQ(2, n.current_size());
  EXPECT_EQ("sxn0 sxn1", names(n.full_ip()));
  EXPECT_EQ(sxn1_.ip(), n.full_ip(1).ip());
  EXPECT_EQ(0, n.changing_ip_size());
}

TEST_F(RawSubscription, EmptyGroupStillGivesAFullMembership) {
  LocalSubscriptions::GroupNow now;
  now.attributes.set_group_name(kRawAdapterGroup);
  ASSERT_EQ(TK_GS_OK, subs_.subscribe(5, 1, subscribeTo(3, 6), &now, &out_, &why_));
  ASSERT_EQ(1u, out_.size());
  EXPECT_EQ(proto::Notification::SUBSCRIPTION, out_[0].notification.kind());
  EXPECT_EQ(0, out_[0].notification.full_ip_size());
}

TEST_F(RawSubscription, LeaveCarriesTheLeavingAddressAndTheRest) {
  subscribe();
  out_.clear();
  subs_.groupChanged(rawChange(GroupChange::LEFT, {sxn1_}, {sxn0_}), &out_);
  ASSERT_EQ(1u, out_.size());
  const proto::Notification& n = out_[0].notification;
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_DELTA_LEAVE), n.subscription_type());
  EXPECT_EQ("sxn1", names(n.changing_ip()));
  EXPECT_EQ(sxn1_.ip(), n.changing_ip(0).ip());
  EXPECT_EQ("sxn0", names(n.full_ip()));
}

TEST_F(RawSubscription, JoinCarriesTheJoiningAddressAndEveryMember) {
  subscribe();
  out_.clear();
  subs_.groupChanged(rawChange(GroupChange::JOINED, {other_}, {sxn0_, sxn1_, other_}), &out_);
  ASSERT_EQ(1u, out_.size());
  const proto::Notification& n = out_[0].notification;
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_SUBSCRIPTION_DELTA_JOIN), n.subscription_type());
  ASSERT_EQ(1, n.changing_ip_size());
  EXPECT_EQ(2u, n.changing_ip(0).node());
  EXPECT_EQ(3, n.full_ip_size());
}

TEST_F(RawSubscription, DeltasNotAskedForAreNotSent) {
  subscribe(TK_GS_SUBSCRIPTION_DELTA_JOIN);
  out_.clear();
  subs_.groupChanged(rawChange(GroupChange::LEFT, {sxn1_}, {sxn0_}), &out_);
  EXPECT_TRUE(out_.empty());
}

}  // namespace
}  // namespace agent
}  // namespace velt

#include "local_subscriptions.h"

#include <gtest/gtest.h>

#include "gs_types.h"

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

proto::ProviderId provider(uint32_t instance, uint32_t node) {
  proto::ProviderId p;
  p.set_instance(instance);
  p.set_node(node);
  return p;
}

proto::Subscribe subscribeTo(const std::string& group, uint32_t subscriber, uint32_t type = 6) {
  proto::Subscribe s;
  s.set_group(group);
  s.set_subscriber(subscriber);
  s.set_type(type);
  return s;
}

GroupChange change(GroupChange::Kind kind, const std::string& group,
                   std::vector<proto::ProviderId> changing, std::vector<proto::ProviderId> current) {
  GroupChange c;
  c.kind = kind;
  c.group = group;
  c.changing = std::move(changing);
  c.current = std::move(current);
  c.attributes.set_group_name(group);
  return c;
}

class LocalSubscriptionsTest : public ::testing::Test {
 protected:
  LocalSubscriptions subs_{4, 8};
  std::vector<LocalSubscriptions::Outgoing> out_;
  std::string why_;
};

TEST_F(LocalSubscriptionsTest, ExistingGroupGivesTheFullMembership) {
  LocalSubscriptions::GroupNow now;
  now.members = {provider(1, 1), provider(2, 1)};
  now.attributes.set_group_name("g");
  ASSERT_EQ(subs_.subscribe(5, 11, subscribeTo("g", 3), &now, &out_, &why_), 0);
  ASSERT_EQ(out_.size(), 1u);
  const proto::Notification& n = out_[0].notification;
  EXPECT_EQ(out_[0].client, 5u);
  EXPECT_EQ(n.kind(), proto::Notification::SUBSCRIPTION);
  EXPECT_TRUE(n.for_subscriber());
  EXPECT_EQ(n.subscriber(), 3u);
  EXPECT_EQ(n.group(), "g");
  EXPECT_EQ(n.subscription_type(), TK_GS_SUBSCRIPTION_MEMBERSHIP);
  ASSERT_EQ(n.current_size(), 2);
  EXPECT_EQ(n.current(1).instance(), 2u);
  EXPECT_EQ(n.attributes().group_name(), "g");
  EXPECT_EQ(subs_.countFor("g"), 1u);
}

TEST_F(LocalSubscriptionsTest, MissingGroupGivesUnknownGroupThenTheMembershipWhenItAppears) {
  ASSERT_EQ(subs_.subscribe(5, 11, subscribeTo("later", 3), nullptr, &out_, &why_), 0);
  ASSERT_EQ(out_.size(), 1u);
  EXPECT_EQ(out_[0].notification.kind(), proto::Notification::DELAYED_ERROR);
  EXPECT_EQ(out_[0].notification.delayed_rc(), 10);   // TK_GS_UNKNOWN_GROUP
  EXPECT_EQ(out_[0].notification.request_id(), 11u);
  EXPECT_EQ(out_[0].notification.request_type(), 10u);   // TK_GS_SUBSCRIBE
  out_.clear();

  subs_.groupChanged(change(GroupChange::JOINED, "later", {provider(1, 1)}, {provider(1, 1)}), &out_);
  ASSERT_EQ(out_.size(), 1u);
  EXPECT_EQ(out_[0].notification.subscription_type(), TK_GS_SUBSCRIPTION_MEMBERSHIP);
  EXPECT_EQ(out_[0].notification.current_size(), 1);
  out_.clear();

  // From now on deltas.
  subs_.groupChanged(change(GroupChange::JOINED, "later", {provider(2, 1)},
                            {provider(1, 1), provider(2, 1)}),
                     &out_);
  ASSERT_EQ(out_.size(), 1u);
  EXPECT_EQ(out_[0].notification.subscription_type(), TK_GS_SUBSCRIPTION_DELTA_JOIN);
  ASSERT_EQ(out_[0].notification.changing_size(), 1);
  EXPECT_EQ(out_[0].notification.changing(0).instance(), 2u);
  EXPECT_EQ(out_[0].notification.current_size(), 2);
}

TEST_F(LocalSubscriptionsTest, DeltasFollowTheRequestedType) {
  LocalSubscriptions::GroupNow now;
  now.members = {provider(1, 1)};
  ASSERT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1, TK_GS_SUBSCRIPTION_DELTA_JOIN), &now, &out_, &why_), 0);
  ASSERT_EQ(subs_.subscribe(6, 1, subscribeTo("g", 1, 6), &now, &out_, &why_), 0);
  out_.clear();
  subs_.groupChanged(change(GroupChange::LEFT, "g", {provider(1, 1)}, {}), &out_);
  ASSERT_EQ(out_.size(), 1u) << "only the subscriber that asked for leaves hears of one";
  EXPECT_EQ(out_[0].client, 6u);
  EXPECT_EQ(out_[0].notification.subscription_type(), TK_GS_SUBSCRIPTION_DELTA_LEAVE);
}

TEST_F(LocalSubscriptionsTest, DissolutionEndsTheSubscription) {
  LocalSubscriptions::GroupNow now;
  now.members = {provider(1, 1)};
  ASSERT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1), &now, &out_, &why_), 0);
  out_.clear();
  subs_.groupChanged(change(GroupChange::DISSOLVED, "g", {provider(1, 1)}, {}), &out_);
  ASSERT_EQ(out_.size(), 1u);
  EXPECT_EQ(out_[0].notification.subscription_type(), TK_GS_SUBSCRIPTION_DISSOLVED);
  EXPECT_EQ(subs_.countFor("g"), 0u);
  out_.clear();
  // The subscriber is idle again and may subscribe anew.
  EXPECT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1), nullptr, &out_, &why_), 0);
}

TEST_F(LocalSubscriptionsTest, GroupGoneEndsActiveSubscriptionsWaitingOnesStay) {
  LocalSubscriptions::GroupNow now;
  now.members = {provider(1, 1)};
  ASSERT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1), &now, &out_, &why_), 0);
  ASSERT_EQ(subs_.subscribe(5, 2, subscribeTo("g", 2), nullptr, &out_, &why_), 0);
  out_.clear();
  subs_.groupChanged(change(GroupChange::GONE, "g", {provider(1, 1)}, {}), &out_);
  ASSERT_EQ(out_.size(), 1u);
  EXPECT_EQ(out_[0].notification.subscriber(), 1u);
  EXPECT_EQ(out_[0].notification.subscription_type(), TK_GS_SUBSCRIPTION_DISSOLVED);
  EXPECT_EQ(subs_.countFor("g"), 1u);
}

TEST_F(LocalSubscriptionsTest, RefusalsCarryTheirReturnCodes) {
  ASSERT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1), nullptr, &out_, &why_), 0);
  EXPECT_EQ(subs_.subscribe(5, 1, subscribeTo("h", 1), nullptr, &out_, &why_), 23);
  EXPECT_NE(why_.find("already subscribed"), std::string::npos);
  EXPECT_EQ(subs_.subscribe(5, 2, subscribeTo("", 2), nullptr, &out_, &why_), 6);
  EXPECT_EQ(subs_.subscribe(5, 2, subscribeTo(std::string(65, 'x'), 2), nullptr, &out_, &why_), 14);
  proto::Unsubscribe u;
  u.set_group("h");
  u.set_subscriber(1);
  EXPECT_EQ(subs_.unsubscribe(5, u, &why_), 20) << "subscribed to g, not h";
  u.set_group("g");
  EXPECT_EQ(subs_.unsubscribe(5, u, &why_), 0);
  EXPECT_EQ(subs_.unsubscribe(5, u, &why_), 20);
  EXPECT_EQ(subs_.size(), 0u);
}

TEST_F(LocalSubscriptionsTest, LimitsPerConnectionAndInTotal) {
  for (uint32_t i = 0; i < 4; ++i) {
    ASSERT_EQ(subs_.subscribe(1, i, subscribeTo("g", i), nullptr, &out_, &why_), 0);
  }
  EXPECT_EQ(subs_.subscribe(1, 99, subscribeTo("g", 99), nullptr, &out_, &why_), 14);
  for (uint32_t i = 0; i < 4; ++i) {
    ASSERT_EQ(subs_.subscribe(2, i, subscribeTo("g", i), nullptr, &out_, &why_), 0);
  }
  EXPECT_EQ(subs_.subscribe(3, 0, subscribeTo("g", 0), nullptr, &out_, &why_), 14);
  EXPECT_NE(why_.find("agent"), std::string::npos);
  subs_.dropClient(1);
  EXPECT_EQ(subs_.size(), 4u);
  EXPECT_EQ(subs_.subscribe(3, 0, subscribeTo("g", 0), nullptr, &out_, &why_), 0);
}

TEST_F(LocalSubscriptionsTest, DroppedClientHearsNothingMore) {
  LocalSubscriptions::GroupNow now;
  now.members = {provider(1, 1)};
  ASSERT_EQ(subs_.subscribe(5, 1, subscribeTo("g", 1), &now, &out_, &why_), 0);
  subs_.dropClient(5);
  out_.clear();
  subs_.groupChanged(change(GroupChange::JOINED, "g", {provider(2, 1)}, {provider(1, 1), provider(2, 1)}),
                     &out_);
  EXPECT_TRUE(out_.empty());
  EXPECT_EQ(subs_.countFor("g"), 0u);
}

}  // namespace
}  // namespace agent
}  // namespace velt

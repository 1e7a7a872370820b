// The raw adapter group: group names, network ids, the local adapter list,
// and how raw IP membership reaches the adapter list, the mediator's cooked
// providers and the adapter table.
#include <gtest/gtest.h>

#include "mediator_test_support.h"

using namespace mediator_test;

namespace {

class SwitchGroupNames : public ::testing::Test {};
class NetworkIds : public ::testing::Test {};
class SwitchNetworkIds : public MediatorFixture {};
class AdapterStateList : public ::testing::Test {};
class RawMembership : public MediatorFixture {};
class RawMembershipThroughTheLibrary : public MediatorFixture {};

AMAdapterState stateOf(const char* name, const char* ip, int node, int up) {
  AMAdapterState s;
  s.interfacename = name;
  inet_pton(AF_INET, ip, &s.ipaddr);
  s.nodenumber = static_cast<int16_t>(node);
  s.isUp = up;
  return s;
}

TEST(SwitchGroupNames, OutOfRangeIsNullAndTheFirstTwoAreFixedNames) {
  EXPECT_EQ(nullptr, GET_SW_MEMBERSHIP_GROUP(9));
  EXPECT_EQ(nullptr, GET_SW_MEMBERSHIP_GROUP(-1));
  EXPECT_STREQ("sxnMembership", GET_SW_MEMBERSHIP_GROUP(0));
  EXPECT_STREQ("sxn1Membership", GET_SW_MEMBERSHIP_GROUP(1));
  EXPECT_STREQ("sxn2Membership", GET_SW_MEMBERSHIP_GROUP(2));
  EXPECT_STREQ("sxn8Membership", GET_SW_MEMBERSHIP_GROUP(8));
  // The stored text, not a new one per call.
  EXPECT_EQ(GET_SW_MEMBERSHIP_GROUP(3), GET_SW_MEMBERSHIP_GROUP(3));
}

TEST(NetworkIds, TheNetworkCountItselfIsValid) {
  const int saved = currentNumbersOfNetworks.exchange(3);
  EXPECT_TRUE(IsValidNetworkID(0));
  EXPECT_TRUE(IsValidNetworkID(3));
  EXPECT_FALSE(IsValidNetworkID(4));
  EXPECT_FALSE(IsValidNetworkID(-1));
  currentNumbersOfNetworks.store(0);
  EXPECT_TRUE(IsValidNetworkID(0));
  EXPECT_FALSE(IsValidNetworkID(1));
  currentNumbersOfNetworks.store(saved);
}

TEST_F(SwitchNetworkIds, TheSecondSwitchNetworkIsValidOnceTheTableKnowsIt) {
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn0", "10.0.0.1", 0);
  EXPECT_TRUE(IsValidNetworkID(0));
  EXPECT_FALSE(IsValidNetworkID(1));
  defineLocal("sxn1", "10.0.1.1", 1);
  EXPECT_TRUE(IsValidNetworkID(0));
  EXPECT_TRUE(IsValidNetworkID(1));
  EXPECT_FALSE(IsValidNetworkID(2));
  EXPECT_FALSE(IsValidNetworkID(-1));
}

TEST_F(SwitchNetworkIds, TheLocalScanNumbersTheNetworksByInterfaceName) {
  currentNumbersOfNetworks.store(0);
  table_test::setLocalInterfaces({{"lo", "127.0.0.1"}, {"sxn0", "10.0.0.1"}, {"sxn1", "10.0.1.1"}});
  EXPECT_FALSE(IsValidNetworkID(1));
  EXPECT_EQ(2, table_->refreshLocalTable(0));
  EXPECT_TRUE(IsValidNetworkID(1));
  EXPECT_FALSE(IsValidNetworkID(2));
}

TEST_F(SwitchNetworkIds, TheLargerOfTheInfiniBandCountAndTheSwitchNetworksBounds) {
  defineLocal("sxn1", "10.0.1.1", 1);
  currentNumbersOfNetworks.store(3);
  EXPECT_TRUE(IsValidNetworkID(3));
  EXPECT_FALSE(IsValidNetworkID(4));
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn5", "10.0.5.1", 5);
  EXPECT_TRUE(IsValidNetworkID(5));
  EXPECT_FALSE(IsValidNetworkID(6));
}

TEST_F(SwitchNetworkIds, AnUndefinedSwitchRowNoLongerCounts) {
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.1.1", 1);
  ASSERT_TRUE(IsValidNetworkID(1));
  {
    GSWriteGuard hold(*table_);
    table_->setAdapterUndefinedWithoutLock(kMyNode, "sxn1");
  }
  EXPECT_FALSE(IsValidNetworkID(1));
  EXPECT_TRUE(IsValidNetworkID(0));
}

TEST_F(SwitchNetworkIds, TheCheckNestsUnderAWriteHoldOfTheTable) {
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn1", "10.0.1.1", 1);
  GSWriteGuard hold(*table_);
  EXPECT_TRUE(IsValidNetworkID(1));
  EXPECT_FALSE(IsValidNetworkID(2));
}

TEST(AdapterStateList, TwoLocalAdaptersWithOneNameOnOneNodeCountOnce) {
  AMAdapterStateList list;
  list.putIntoList(stateOf("sxn0", "10.0.0.1", 1, 1));
  list.putIntoList(stateOf("sxn0", "10.0.0.2", 1, 1));
  list.putIntoList(stateOf("sxn0", "10.0.0.3", 2, 1));
  list.putIntoList(stateOf("sxn0", "10.0.0.4", 3, 0));   // down: not counted
  list.putIntoList(stateOf("sxn1", "10.0.1.1", 4, 1));
  EXPECT_EQ(5, list.numberOfEntries());
  EXPECT_EQ(2, list.count("sxn0"));
  EXPECT_EQ(1, list.count("sxn0", 1));
  EXPECT_EQ(0, list.count("sxn0", 3));
  EXPECT_EQ(1, list.isUp(1, "sxn0"));
  EXPECT_EQ(0, list.isUp(3, "sxn0"));
  EXPECT_EQ(0, list.isUp(4, "sxn0"));
}

TEST(AdapterStateList, SameAddressOverwritesAndTheListGrowsPastSixteen) {
  AMAdapterStateList list;
  for (int i = 0; i < 20; ++i) {
    std::string ip = "10.0.0." + std::to_string(i + 1);
    EXPECT_EQ(i, list.putIntoList(stateOf("sxn0", ip.c_str(), i, 1)));
  }
  EXPECT_EQ(5, list.putIntoList(stateOf("sxn0", "10.0.0.6", 5, 0)));
  EXPECT_EQ(20, list.numberOfEntries());
  EXPECT_EQ(0, list.entry(5).isUp);
  EXPECT_EQ(19, list.count("sxn0"));
  list.reset();
  EXPECT_EQ(0, list.numberOfEntries());
  EXPECT_EQ(0, list.count("sxn0"));
}

TEST_F(RawMembership, ALeaveKeepsTheLocalEntryDownAndALaterJoinOverwritesIt) {
  AMController::has_NAM_LocalView_Adapters = 1;
  defineLocal("sxn0", "10.0.0.1", 0);
  knowAdapter("10.0.0.1", "sxn0", kMyNode);
  IpList changing{"10.0.0.1"};
  auto leave = rawNotification(TK_GS_SUBSCRIPTION_DELTA_LEAVE, nullptr, changing.get());
  const int eventsBefore = mediator_->pendingSyncEvents();
  raw_->subscribeCb(&leave);
  EXPECT_EQ(eventsBefore + 1, mediator_->pendingSyncEvents());  // the mediator is woken
  ASSERT_EQ(1, mediator_->listOfAdapter.numberOfEntries());
  AMAdapterState s = mediator_->listOfAdapter.entry(0);
  EXPECT_STREQ("sxn0", s.interfacename.c_str());
  EXPECT_EQ(0, s.isUp);
  EXPECT_EQ(kMyNode, s.nodenumber);
  EXPECT_EQ(0, mediator_->listOfAdapter.isUp(kMyNode, "sxn0"));
  // The adapter got its cooked providers.
  ASSERT_NE(nullptr, mediator_->getCookedProvider("sxn0"));

  auto join = rawNotification(TK_GS_SUBSCRIPTION_DELTA_JOIN, nullptr, changing.get());
  raw_->subscribeCb(&join);
  ASSERT_EQ(1, mediator_->listOfAdapter.numberOfEntries());
  EXPECT_EQ(1, mediator_->listOfAdapter.entry(0).isUp);
  EXPECT_EQ(1, mediator_->listOfAdapter.isUp(kMyNode, "sxn0"));
  EXPECT_EQ(1, mediator_->getNumOfCookedProviders());

  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(2u, updates.size());
  EXPECT_EQ(0, updates[0].isUp);
  EXPECT_EQ(1, updates[1].isUp);
  ASSERT_EQ(1u, updates[1].providers.size());
  EXPECT_EQ(kMyNode, updates[1].providers[0].gs_provider_fields.gs_node_number);
  EXPECT_EQ(0, updates[1].providers[0].gs_provider_fields.gs_instance_number);  // network 0 of sxn0
}

TEST_F(RawMembership, AnUpLocalAdapterThatLeavesKeepsItsEntryDownAndRejoinsIntoTheSameEntry) {
  AMController::has_NAM_LocalView_Adapters = 1;
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.1.1", 1);
  knowAdapter("10.0.0.1", "sxn0", kMyNode);
  knowAdapter("10.0.1.1", "sxn1", kMyNode);
  IpList full{"10.0.0.1", "10.0.1.1"};
  auto all = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP, full.get(), nullptr);
  raw_->subscribeCb(&all);
  ASSERT_EQ(2, mediator_->listOfAdapter.numberOfEntries());
  ASSERT_STREQ("sxn1", mediator_->listOfAdapter.entry(1).interfacename.c_str());
  EXPECT_EQ(1, mediator_->listOfAdapter.entry(1).isUp);

  IpList changing{"10.0.1.1"};
  auto leave = rawNotification(TK_GS_SUBSCRIPTION_DELTA_LEAVE, nullptr, changing.get());
  raw_->subscribeCb(&leave);
  ASSERT_EQ(2, mediator_->listOfAdapter.numberOfEntries());
  AMAdapterState down = mediator_->listOfAdapter.entry(1);
  EXPECT_STREQ("sxn1", down.interfacename.c_str());
  EXPECT_EQ(0, down.isUp);
  EXPECT_EQ(kMyNode, down.nodenumber);
  char dotted[INET_ADDRSTRLEN];
  ASSERT_NE(nullptr, inet_ntop(AF_INET, &down.ipaddr, dotted, sizeof dotted));
  EXPECT_STREQ("10.0.1.1", dotted);
  EXPECT_EQ(0, mediator_->listOfAdapter.count("sxn1"));
  EXPECT_EQ(1, mediator_->listOfAdapter.isUp(kMyNode, "sxn0"));   // the other adapter is untouched

  auto join = rawNotification(TK_GS_SUBSCRIPTION_DELTA_JOIN, nullptr, changing.get());
  raw_->subscribeCb(&join);
  ASSERT_EQ(2, mediator_->listOfAdapter.numberOfEntries());
  EXPECT_STREQ("sxn1", mediator_->listOfAdapter.entry(1).interfacename.c_str());
  EXPECT_EQ(1, mediator_->listOfAdapter.entry(1).isUp);
  EXPECT_EQ(1, mediator_->listOfAdapter.count("sxn1"));
  EXPECT_EQ(2, mediator_->getNumOfCookedProviders());
}

TEST_F(RawMembership, AnEmptyFullMembershipStillReachesTheTableAsUp) {
  IpList none{};
  auto full = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP, none.get(), nullptr);
  raw_->subscribeCb(&full);
  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ(1, updates[0].isUp);
  EXPECT_TRUE(updates[0].providers.empty());
  EXPECT_EQ(0u, raw_->numberOfIpMembers());
}

TEST_F(RawMembership, AnAddressWithoutInformationIsSkippedAndTheOthersAreKept) {
  AMController::has_NAM_LocalView_Adapters = 1;
  knowAdapter("10.0.0.2", "sxn0", 2);
  knowAdapter("10.0.0.3", "sxn1", 3);
  IpList full{"10.0.0.2", "10.0.9.9", "10.0.0.3"};
  auto n = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP, full.get(), nullptr);
  raw_->subscribeCb(&n);
  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(1u, updates.size());
  ASSERT_EQ(2u, updates[0].providers.size());
  EXPECT_EQ(2, updates[0].providers[0].gs_provider_fields.gs_node_number);
  EXPECT_EQ(3, updates[0].providers[1].gs_provider_fields.gs_node_number);
  EXPECT_EQ(1, updates[0].providers[1].gs_provider_fields.gs_instance_number);
  EXPECT_EQ(3u, raw_->numberOfIpMembers());
  std::string text = log();
  EXPECT_NE(std::string::npos,
            text.find(" Error in tk_gs_get_adapter_info, ip=10.0.9.9, rc=TK_GS_ADDRESS_UNKNOWN and ignored"))
      << text;
  // Remote adapters make no local entries.
  EXPECT_EQ(0, mediator_->listOfAdapter.numberOfEntries());
}

TEST_F(RawMembership, FullAndDeltaBitsTogetherAreProcessedAsFull) {
  knowAdapter("10.0.0.2", "eth0", 2);
  IpList full{"10.0.0.2"};
  IpList changing{"10.0.0.2"};
  auto n = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP | TK_GS_SUBSCRIPTION_DELTA_LEAVE, full.get(),
                           changing.get());
  raw_->subscribeCb(&n);
  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ(1, updates[0].isUp);   // a leave would have been a down
  // A non-switch adapter is handed over by its interface index.
  ASSERT_EQ(1u, updates[0].providers.size());
  EXPECT_EQ(_idxFromInterfaceName("eth0"), updates[0].providers[0].gs_provider_fields.gs_instance_number);
}

TEST_F(RawMembership, SwitchAdaptersReachTheTableOnlyInTheLocalView) {
  AMController::has_NAM_LocalView_Adapters = 0;
  knowAdapter("10.0.0.2", "sxn0", 2);
  IpList full{"10.0.0.2"};
  auto n = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP, full.get(), nullptr);
  raw_->subscribeCb(&n);
  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(1u, updates.size());
  EXPECT_TRUE(updates[0].providers.empty());
}

TEST_F(RawMembership, ReprocessingOneNodeReplaysTheStoredMembershipForItOnly) {
  AMController::has_NAM_LocalView_Adapters = 1;
  knowAdapter("10.0.0.2", "sxn0", 2);
  knowAdapter("10.0.0.3", "sxn0", 3);
  IpList full{"10.0.0.2", "10.0.0.3"};
  auto n = rawNotification(TK_GS_SUBSCRIPTION_MEMBERSHIP, full.get(), nullptr);
  raw_->subscribeCb(&n);
  takeTableUpdates();
  raw_->ReprocessAdaptersOnNode(3);
  std::vector<TableUpdate> updates = takeTableUpdates();
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ(1, updates[0].isUp);
  ASSERT_EQ(1u, updates[0].providers.size());
  EXPECT_EQ(3, updates[0].providers[0].gs_provider_fields.gs_node_number);
}

TEST_F(RawMembership, AnUnknownCommandIsIgnored) {
  knowAdapter("10.0.0.2", "sxn0", 2);
  IpList list{"10.0.0.2"};
  raw_->ProcessAdapterInfo(list.get(), TK_GS_SUBSCRIPTION_DISSOLVED, -1);
  EXPECT_TRUE(takeTableUpdates().empty());
  EXPECT_NE(std::string::npos, log().find("ProcessAdapterInfo Unknown command-type 128 will be ignored"));
}

TEST_F(RawMembership, ADelayedUnknownGroupIsNeverSevere) {
  tk_gs_delayed_error_notification_t d;
  memset(&d, 0, sizeof d);
  d.gs_notification_type = TK_GS_DELAYED_ERROR_NOTIFICATION;
  d.gs_group_name = "allAdapterMembership";
  d.gs_request_type = TK_GS_SUBSCRIBE;
  d.gs_delayed_return_code = TK_GS_UNKNOWN_GROUP;
  raw_->delayedErrorCb(&d);
  d.gs_delayed_return_code = TK_GS_PERMISSION_DENIED;
  raw_->delayedErrorCb(&d);
  raw_->delayedErrorCb(&d);   // the second within the hour is not severe again
  std::string text = log();
  EXPECT_EQ(0, countOf(text, "Delayed error on subscription allAdapterMembership, error=TK_GS_UNKNOWN_GROUP"));
  EXPECT_EQ(1, countOf(text, "Delayed error on subscription allAdapterMembership, error=TK_GS_PERMISSION_DENIED"))
      << text;
}

// The adapter information travels with the notification through the client
// library, which answers the address look-ups from it.
TEST_F(RawMembershipThroughTheLibrary, AFullMembershipFromTheAgentMarksTheLocalAdapterUp) {
  AMRawSubscriber::setAdapterInfoLookupForTesting(nullptr);
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  std::vector<velt::proto::Request> seen;
  ASSERT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return raw_->subscribeGroup(); }, {TK_GS_OK}, &seen));
  ASSERT_EQ(1u, seen.size());
  ASSERT_TRUE(seen[0].has_subscribe());
  velt::proto::Notification n;
  n.set_kind(velt::proto::Notification::SUBSCRIPTION);
  n.set_group("allAdapterMembership");
  n.set_for_subscriber(true);
  n.set_subscriber(seen[0].subscribe().subscriber());
  n.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
  *n.add_current() = gscl_test::providerId(0, kMyNode);
  velt::proto::AdapterInfo* a = n.add_full_ip();
  const char v4[4] = {10, 0, 0, 1};
  a->set_ip(std::string(v4, 4));
  a->set_interface_name("sxn0");
  a->set_node(kMyNode);
  a->set_instance(0);
  ASSERT_TRUE(agent_->notify(n));
  ASSERT_EQ(TK_GS_OK, ctl_->dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(GS_IAM_SUBSCRIBED, raw_->getClientState());
  EXPECT_EQ(1u, raw_->numberOfIpMembers());
  EXPECT_EQ(1, mediator_->listOfAdapter.isUp(kMyNode, "sxn0"));
  ASSERT_NE(nullptr, mediator_->getCookedProvider("sxn0"));
  EXPECT_STREQ("sxnMembership", mediator_->getCookedProvider("sxn0")->getGroupName());
  ASSERT_NE(nullptr, mediator_->getCookedSXNAllProvider(0));
  EXPECT_STREQ("sxnAllMembership", mediator_->getCookedSXNAllProvider(0)->getGroupName());
}

}  // namespace

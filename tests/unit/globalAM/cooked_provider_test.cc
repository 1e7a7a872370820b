// The cooked provider: its group attributes, the join rate and the cap on
// traces of refused joins, the choice of its group name, and how it follows
// its adapter to another network.
#include <gtest/gtest.h>

#include "mediator_test_support.h"

using namespace mediator_test;

namespace {

class CookedJoin : public MediatorFixture {};
class CookedNetworkChange : public MediatorFixture {};

constexpr const char* kInvalidTrace = "JoinGroup[sxn1Membership] returns sync_rc=TK_GS_INVALID_GROUP";

TEST_F(CookedJoin, ASecondJoinWithinThreeSecondsNeverReachesGroupServices) {
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  std::vector<velt::proto::Request> seen;
  // Group services refuse the first join, so the provider is idle again.
  EXPECT_EQ(TK_GS_INVALID_GROUP,
            answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}, &seen));
  ASSERT_EQ(1u, seen.size());
  ASSERT_TRUE(seen[0].has_join());
  EXPECT_EQ("sxn1Membership", seen[0].join().group());
  EXPECT_EQ("TolkBrel", seen[0].join().client_name());
  EXPECT_EQ(2259u, seen[0].join().attributes().client_version());
  EXPECT_EQ(3u, seen[0].join().attributes().batch_control());
  EXPECT_EQ("sxnRawMembership", seen[0].join().attributes().source_group_name());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());

  advanceClocks(2);
  EXPECT_EQ(TK_GS_NOT_OK, p.joinGroup());
  EXPECT_TRUE(agentStaysQuiet());
  advanceClocks(1);
  EXPECT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_OK}));
}

TEST_F(CookedJoin, TheHundredAndFirstInvalidGroupTraceOfAPeriodIsDropped) {
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  for (int i = 0; i < 101; ++i) {
    ASSERT_EQ(TK_GS_INVALID_GROUP, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}));
    advanceClocks(3);   // 303 s in all: one period
  }
  EXPECT_EQ(100, countOf(log(), kInvalidTrace));
  EXPECT_EQ(100, AMCookedProvider::joinTracePrintCountForTesting());
  // Other results are always traced.
  ASSERT_EQ(TK_GS_DUPLICATE_INSTANCE_NUMBER,
            answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_DUPLICATE_INSTANCE_NUMBER}));
  EXPECT_EQ(1, countOf(log(), "JoinGroup[sxn1Membership] returns sync_rc=TK_GS_DUPLICATE_INSTANCE_NUMBER"));
  // More than 600 s after the period opened, the first join closes it and
  // opens a new one.
  advanceClocks(600);
  ASSERT_EQ(TK_GS_INVALID_GROUP, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}));
  EXPECT_EQ(101, countOf(log(), kInvalidTrace));
  EXPECT_EQ(1, AMCookedProvider::joinTracePrintCountForTesting());
}

TEST_F(CookedNetworkChange, WithAnInfiniBandMapANonAllProviderKeepsItsGroupName) {
  isIBenv.store(true);
  resetIBGroupNamesForTesting();
  const int before = currentNumbersOfNetworks.load();
  createIBGroupName(table_test::makeInterface(kMyNode, "ib0", "10.0.0.1", 0x5, 0));
  ASSERT_EQ(before + 1, currentNumbersOfNetworks.load());
  AMCookedProvider ib(mediator_, "IBNet.5", 0, 0, "ib0", 0, 0x5);
  AMCookedProvider all(mediator_, "ibAllMembership", -1, 1, "ib0", 0, 0);
  EXPECT_STREQ("IBNet.5", ib.getCookedMembershipName());
  EXPECT_STREQ("ibAllMembership", all.getCookedMembershipName());
  EXPECT_EQ(TK_GS_OK, ib.changeAttachedNetwork(1));
  EXPECT_EQ(1, ib.getAttachedNetworkNum());
  EXPECT_STREQ("IBNet.5", ib.getGroupName());
  isIBenv.store(false);
  resetIBGroupNamesForTesting();
}

TEST_F(CookedNetworkChange, WithoutAMapTheProviderMovesToTheSwitchGroupOfTheNewNetwork) {
  resetIBGroupNamesForTesting();
  ASSERT_EQ(0, currentNumbersOfNetworks.load());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn0", 0, 0);
  AMCookedProvider all(mediator_, "sxnAllMembership", -1, 1, "sxn0", 0, 0);
  EXPECT_STREQ("sxnAllMembership", all.getCookedMembershipName());
  EXPECT_STREQ("sxn1Membership", p.getCookedMembershipName());
  // With no network counted, only network 0 is valid: a move to 2 is
  // traced and ignored.
  p.changeAttachedNetwork(2);
  EXPECT_EQ(1, p.getAttachedNetworkNum());
  EXPECT_NE(std::string::npos, log().find(" NetworkId 2 is not valid "));
  EXPECT_EQ(TK_GS_OK, p.changeAttachedNetwork(0));
  EXPECT_EQ(0, p.getAttachedNetworkNum());
  EXPECT_STREQ("sxnMembership", p.getGroupName());
}

}  // namespace

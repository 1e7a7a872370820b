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

// The period is 600 s from its first join: a refusal at exactly 600 s still
// falls in the full period and is dropped; the next one after that opens a
// new period and is traced again.
TEST_F(CookedJoin, ThePeriodOfRefusedJoinTracesLastsExactly600Seconds) {
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(TK_GS_INVALID_GROUP, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}));
    advanceClocks(3);
  }
  // 300 s after the period opened, its 100 traces are used up.
  ASSERT_EQ(100, countOf(log(), kInvalidTrace));
  advanceClocks(300);
  ASSERT_EQ(TK_GS_INVALID_GROUP, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}));
  EXPECT_EQ(100, countOf(log(), kInvalidTrace));
  EXPECT_EQ(100, AMCookedProvider::joinTracePrintCountForTesting());
  advanceClocks(3);   // 603 s: the period is over
  ASSERT_EQ(TK_GS_INVALID_GROUP, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_INVALID_GROUP}));
  EXPECT_EQ(101, countOf(log(), kInvalidTrace));
  EXPECT_EQ(1, AMCookedProvider::joinTracePrintCountForTesting());
}

class CookedBackLevelLeave : public MediatorFixture {};

// A cluster with a back-level provider refuses goodbye. Only network 0 may
// restart the daemon; sxn1Membership leaves by a one-phase protocol with
// 300 s to complete, whatever else is joined.
TEST_F(CookedBackLevelLeave, Sxn1LeavesByAOnePhaseProtocolOf300Seconds) {
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  ASSERT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_OK}));
  ASSERT_TRUE(approveJoin(&p));
  ASSERT_EQ(0, mediator_->getNumOfCookedProviders());   // nothing else of this mediator is joined
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p.LeaveOrGoodbyeGroup(); },
                                           {TK_GS_BACKLEVEL_PROVIDERS, TK_GS_OK}, &seen));
  ASSERT_EQ(2u, seen.size());
  ASSERT_TRUE(seen[0].has_goodbye());
  EXPECT_EQ("sxn1Membership", seen[0].goodbye().group());
  ASSERT_TRUE(seen[1].has_leave());
  EXPECT_EQ("sxn1Membership", seen[1].leave().group());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_1_PHASE), seen[1].leave().num_phases());
  EXPECT_EQ(300u, seen[1].leave().time_limit());
  // A restart would have ended this process through the stop code.
  EXPECT_EQ(0, ctl_->AmIExiting());
  EXPECT_EQ(std::string::npos, log().find("tolkvask will be restarted"));
}

TEST_F(CookedBackLevelLeave, GoodbyeNotSupportedAlsoFallsBackToTheLeaveProtocol) {
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  ASSERT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p.joinGroup(); }, {TK_GS_OK}));
  ASSERT_TRUE(approveJoin(&p));
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p.LeaveOrGoodbyeGroup(); },
                                           {TK_GS_NOT_SUPPORTED, TK_GS_OK}, &seen));
  ASSERT_EQ(2u, seen.size());
  ASSERT_TRUE(seen[1].has_leave());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_1_PHASE), seen[1].leave().num_phases());
  EXPECT_EQ(300u, seen[1].leave().time_limit());
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

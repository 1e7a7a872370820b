// The mediator when a local adapter changes network: the adapter keeps its
// one provider, which follows it into the switch group of the new network
// (saying goodbye to the old group first when it was joined there).
#include <gtest/gtest.h>

#include "mediator_test_support.h"

using namespace mediator_test;

namespace {

class AdapterOnANewNetwork : public MediatorFixture {
 protected:
  // Moves sxn0's row of the adapter table to network netid without the
  // table's own notice to the mediators, so that appendMember itself must
  // notice the change.
  void moveSxn0To(int netid) {
    GSWriteGuard hold(*table_);
    AMAdapterItem* row = table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn0"));
    ASSERT_NE(nullptr, row);
    table_->setRowNetworkForTesting(row, netid);
  }
};

TEST_F(AdapterOnANewNetwork, TheProviderMovesToTheNewSwitchGroupInsteadOfASecondOne) {
  // A switch-only cluster: no InfiniBand group names, so the group follows
  // the network number.
  resetIBGroupNamesForTesting();
  ASSERT_EQ(0, currentNumbersOfNetworks.load());
  defineLocal("sxn0", "10.0.0.1", 0);
  AMCookedProvider* p = mediator_->appendMember("sxn0");
  ASSERT_NE(nullptr, p);
  ASSERT_STREQ("sxnMembership", p->getGroupName());
  moveSxn0To(3);
  EXPECT_EQ(p, mediator_->appendMember("sxn0"));
  EXPECT_EQ(3, p->getAttachedNetworkNum());
  EXPECT_STREQ("sxn3Membership", p->getGroupName());
  EXPECT_STREQ("sxn3Membership", p->getCookedMembershipName());
  EXPECT_EQ(1, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(1, mediator_->getNumOfSXNAllCookedProviders());
  // The all-group provider stays where it is.
  EXPECT_STREQ("sxnAllMembership", mediator_->getCookedSXNAllProvider(0)->getGroupName());
}

TEST_F(AdapterOnANewNetwork, AJoinedProviderSaysGoodbyeToTheOldGroupBeforeItMoves) {
  resetIBGroupNamesForTesting();
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  AMCookedProvider* p = mediator_->appendMember("sxn0");
  ASSERT_NE(nullptr, p);
  ASSERT_EQ(TK_GS_OK, answered<tk_gs_rc_t>([&] { return p->joinGroup(); }, {TK_GS_OK}));
  ASSERT_TRUE(approveJoin(p));
  moveSxn0To(2);
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(p, answered<AMCookedProvider*>([&] { return mediator_->appendMember("sxn0"); }, {TK_GS_OK}, &seen));
  ASSERT_EQ(1u, seen.size());
  ASSERT_TRUE(seen[0].has_goodbye());
  EXPECT_EQ("sxnMembership", seen[0].goodbye().group());
  EXPECT_EQ(GS_IAM_IDLE, p->getClientState());
  EXPECT_STREQ("sxn2Membership", p->getGroupName());
  EXPECT_EQ(1, mediator_->getNumOfCookedProviders());
  // Nothing else is asked of group services: the mediator joins the new
  // group on its next pass.
  EXPECT_TRUE(agentStaysQuiet());
}

}  // namespace

// The aggregator: which base group the aggregate group follows (masks, the
// tie rules), the flip delay, joining and leaving the aggregate group, the
// pseudo-device, how mediators and cooked providers wire themselves to its
// listeners, its status lines, and the test build's way to register one.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "AMAggregator.h"
#include "mediator_test_support.h"
#include "srcctl_support.h"

using namespace mediator_test;

namespace {

constexpr int kOtherNode = 2;
constexpr int kThirdNode = 3;

// Members of a cooked group as (node, instance) pairs.
using Members = std::vector<std::pair<int, int>>;

// A file that stands in for the pseudo-device.
void writeFileForTest(const std::string& path) { std::ofstream(path) << "device\n"; }

class Aggregator : public MediatorFixture {
 protected:
  void SetUp() override {
    MediatorFixture::SetUp();
    if (HasFatalFailure()) return;
    ctl_->readyToRoll = 1;
    AMAggregator::setPseudoDevicePathForTesting((dir_ + "/no-such-device").c_str());
  }

  void TearDown() override {
    aggregator_.reset();
    AMAggregator::setPseudoDevicePathForTesting(nullptr);
    setML0ForIBSupportedForTesting(false);
    isIBenv.store(false);
    unsetenv("SXNPDD_NO_MAJOR_IOCTL");
    MediatorFixture::TearDown();
  }

  // An aggregator for ml0 whose masks let the given nodes take part on
  // networks 0 and 1, with listeners on both networks' cooked groups.
  // device: the local interface that stands for the aggregate device.
  AMAggregator* makeAggregator(const std::vector<int>& net0Nodes, const std::vector<int>& net1Nodes,
                               const char* device = "ml0") {
    AMAggCfg cfg("ml0");
    for (int n : net0Nodes) cfg.getMask(0)->set(static_cast<size_t>(n));
    for (int n : net1Nodes) cfg.getMask(1)->set(static_cast<size_t>(n));
    aggregator_ = std::make_unique<AMAggregator>(device, device, "ml0Membership", 0, &cfg);
    aggregator_->createListener(0, nullptr, "sxnMembership");
    aggregator_->createListener(1, nullptr, "sxn1Membership");
    return aggregator_.get();
  }

  // Subscribes a group services subscriber through the stand-in agent and
  // delivers the given membership.
  ::testing::AssertionResult subscribed(GSSubscriber* s, const Members& members) {
    advanceClocks(3);  // the subscription's request rate
    std::vector<velt::proto::Request> seen;
    tk_gs_rc_t rc = answered<tk_gs_rc_t>([&] { return s->subscribeGroup(); }, {TK_GS_OK}, &seen);
    if (rc != TK_GS_OK || seen.size() != 1) return ::testing::AssertionFailure() << "subscribe failed";
    numbers_[s] = seen[0].subscribe().subscriber();
    return notified(s, TK_GS_SUBSCRIPTION_MEMBERSHIP, members, {});
  }

  // A notification of s's subscription: the group now has members, and
  // changing is what joined or left.
  ::testing::AssertionResult notified(GSSubscriber* s, unsigned type, const Members& members,
                                      const Members& changing) {
    velt::proto::Notification n;
    n.set_kind(velt::proto::Notification::SUBSCRIPTION);
    n.set_group(s->getGroupName());
    n.set_for_subscriber(true);
    n.set_subscriber(numbers_[s]);
    n.set_subscription_type(type);
    for (const auto& m : members) *n.add_current() = gscl_test::providerId(m.second, m.first);
    for (const auto& m : changing) *n.add_changing() = gscl_test::providerId(m.second, m.first);
    if (!agent_->notify(n)) return ::testing::AssertionFailure() << "notify failed";
    tk_gs_rc_t rc = ctl_->dispatch(TK_GS_BLOCKING);
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "dispatch: " << gscl_rc_name(rc);
    if (s->getClientState() != GS_IAM_SUBSCRIBED) return ::testing::AssertionFailure() << "not subscribed";
    return ::testing::AssertionSuccess();
  }

  int largest(int* equivCount = nullptr, std::vector<int>* equiv = nullptr) {
    int count = 0;
    std::vector<int> list(static_cast<size_t>(aggregator_->getNumRelatedGroups()) + 5, -1);
    int best = aggregator_->determineTheLargestBaseGroup(count, list.data());
    if (equivCount) *equivCount = count;
    if (equiv) *equiv = std::vector<int>(list.begin(), list.begin() + count);
    return best;
  }

  std::unique_ptr<AMAggregator> aggregator_;
  std::map<GSSubscriber*, uint32_t> numbers_;
};

// ------------------------------------------------------------ construction

TEST_F(Aggregator, ConstructionNamesTheDeviceAndItsGroupAndTracesTheMissingPseudoDevice) {
  AMAggregator::setPseudoDevicePathForTesting((dir_ + "/no-such-device").c_str());
  AMAggregator a("ml0", "ml0", "ml0Membership", 0, nullptr);
  EXPECT_STREQ("ml0", a.getRepName());
  EXPECT_STREQ("ml0Membership", a.getAggMembershipName());
  EXPECT_STREQ("ml0Membership", a.getAggProvider()->getGroupName());
  EXPECT_STREQ("ml0Membership", a.getAggSubscriber()->getGroupName());
  EXPECT_EQ(-1, a.getAliasGroupIndex());
  // The switch pseudo-device does not exist here: no error, only a trace.
  EXPECT_EQ(0, a.pseudoDeviceExists());
  EXPECT_FALSE(a.isPseudoDeviceOpen());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("AMAggregator is created for dev=ml0 AggMbr=ml0Membership")) << text;
  EXPECT_NE(std::string::npos, text.find("Opening /dev/sxnpd0...FD=-1, exists=0, eno=2")) << text;
}

TEST_F(Aggregator, APseudoDeviceThatExistsIsOpenedAndReopenedWhenTheConfigurationChanges) {
  std::string device = dir_ + "/sxnpd0";
  writeFileForTest(device);
  AMAggregator::setPseudoDevicePathForTesting(device.c_str());
  AMAggregator a("ml0", "ml0", "ml0Membership", 0, nullptr);
  EXPECT_EQ(1, a.pseudoDeviceExists());
  ASSERT_TRUE(a.isPseudoDeviceOpen());
  const int first = a.open_sxnpdd(0);
  EXPECT_GE(first, 0);
  // Opening again without reopen keeps the descriptor.
  EXPECT_EQ(first, a.open_sxnpdd(0));
  a.close_sxnpdd();
  EXPECT_FALSE(a.isPseudoDeviceOpen());
  EXPECT_GE(a.open_sxnpdd(1), 0);
}

TEST_F(Aggregator, SxnpddNoMajorIoctlKeepsThePseudoDeviceClosed) {
  std::string device = dir_ + "/sxnpd0";
  writeFileForTest(device);
  AMAggregator::setPseudoDevicePathForTesting(device.c_str());
  setenv("SXNPDD_NO_MAJOR_IOCTL", "1", 1);
  AMAggregator a("ml0", "ml0", "ml0Membership", 0, nullptr);
  EXPECT_EQ(1, a.isMajorIoctlDisabled());
  EXPECT_FALSE(a.isPseudoDeviceOpen());
  EXPECT_EQ(-1, a.open_sxnpdd(1));
  a.wakeup(1);
  EXPECT_FALSE(a.isPseudoDeviceOpen());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("SXNPDD_MAJOR_IOCTL will be disabled"));
  EXPECT_EQ(std::string::npos, text.find("Opening /dev/sxnpd0"));
}

TEST_F(Aggregator, SxnpddNoMajorIoctlOfZeroLeavesThePseudoDeviceAlone) {
  std::string device = dir_ + "/sxnpd0";
  writeFileForTest(device);
  AMAggregator::setPseudoDevicePathForTesting(device.c_str());
  setenv("SXNPDD_NO_MAJOR_IOCTL", "0", 1);
  AMAggregator a("ml0", "ml0", "ml0Membership", 0, nullptr);
  EXPECT_EQ(0, a.isMajorIoctlDisabled());
  EXPECT_TRUE(a.isPseudoDeviceOpen());
}

// ------------------------------------------------------------ listeners

TEST_F(Aggregator, AListenerIsMadeOncePerGroupAndFoundByNetworkAndName) {
  AMAggregator* a = makeAggregator({}, {});
  EXPECT_EQ(2, a->getNumRelatedGroups());
  AMCookedSubscriber* again = a->createListener(0, nullptr, "sxnMembership");
  EXPECT_EQ(a->getListener(0), again);
  EXPECT_EQ(2, a->getNumRelatedGroups());
  EXPECT_EQ(1, a->getNetworkNumIndex("sxn1Membership"));
  EXPECT_EQ(-1, a->getNetworkNumIndex("sxn2Membership"));
  EXPECT_EQ(a->getListener(1), a->getCookedSubByNetworkID(1));
  EXPECT_EQ(nullptr, a->getCookedSubByNetworkID(5));
  EXPECT_STREQ("AggSub[sxn1Membership,T=1]", a->getListener(1)->getTraceId());
  EXPECT_NE(std::string::npos, log().find("CreateListener: netId=1, grpName=sxn1Membership,  numRelatedIndex=1"));
}

TEST_F(Aggregator, ASubscriberOfAnotherAggregatorHasNoIndex) {
  AMAggregator* a = makeAggregator({}, {});
  AMAggregator other("ml1", "ml1", "ml1Membership", 0, nullptr);
  AMCookedSubscriber* foreign = other.createListener(0, nullptr, "sxnMembership");
  AMCookedProvider p(mediator_, "sxnMembership", 0, 0, "sxn0", 0, 0);
  EXPECT_EQ(-1, a->setRelatedProviderForSubscriber(foreign, &p));
  EXPECT_EQ(nullptr, foreign->getSrcProvider());
  EXPECT_EQ(0, a->setRelatedProviderForSubscriber(a->getListener(0), &p));
  EXPECT_EQ(&p, a->getListener(0)->getSrcProvider());
  EXPECT_EQ(&p, a->getRelatedProvider(0));
  EXPECT_NE(std::string::npos,
            log().find("setRelatedProviderForSubscriber[ml0] prov=sxnMembership subs=sxnMembership index=0"));
}

// ------------------------------------------------------- the base group

TEST_F(Aggregator, EqualSwitchGroupsWithTheSameNodesKeepTheLowerIndex) {
  AMAggregator* a = makeAggregator({kMyNode, kOtherNode}, {kMyNode, kOtherNode});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 0}}));
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}, {kOtherNode, 1}}));
  int equivCount = 0;
  std::vector<int> equiv;
  EXPECT_EQ(0, largest(&equivCount, &equiv));
  EXPECT_EQ(2, equivCount);
  EXPECT_EQ((std::vector<int>{0, 1}), equiv);
  std::string text = log();
  EXPECT_NE(std::string::npos,
            text.find(" - the largest base group is sxnMembership, and its size after masking is 2, grp_idx=0"));
  EXPECT_NE(std::string::npos, text.find(" Its equivalence groups are sxnMembership sxn1Membership"));
}

TEST_F(Aggregator, EqualInfiniBandGroupsPreferTheSmallestNetworkId) {
  setML0ForIBSupportedForTesting(true);
  isIBenv.store(true);
  AMAggregator* a = makeAggregator({kMyNode, kOtherNode}, {kMyNode, kOtherNode});
  a->getListener(0)->setNetworkId64(0x0000000200000001ull);
  a->getListener(1)->setNetworkId64(0x0000000100000005ull);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 0}}));
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}, {kOtherNode, 1}}));
  EXPECT_EQ(1, largest());
  // The high word decides first: a larger low word does not matter.
  a->getListener(1)->setNetworkId64(0x00000002000000FFull);
  EXPECT_EQ(0, largest());
}

TEST_F(Aggregator, EqualSizeWithDifferentNodesKeepsTheFirstGroup) {
  AMAggregator* a = makeAggregator({kMyNode, kOtherNode, kThirdNode}, {kMyNode, kOtherNode, kThirdNode});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 0}}));
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}, {kThirdNode, 1}}));
  int equivCount = 0;
  EXPECT_EQ(0, largest(&equivCount));
  EXPECT_EQ(1, equivCount);
  // Also the other way round: the first of the two stays the choice.
  ASSERT_TRUE(notified(a->getListener(0), TK_GS_SUBSCRIPTION_DELTA_JOIN, {{kMyNode, 0}, {kThirdNode, 0}},
                       {{kThirdNode, 0}}));
  ASSERT_TRUE(notified(a->getListener(1), TK_GS_SUBSCRIPTION_DELTA_JOIN, {{kMyNode, 1}, {kOtherNode, 1}},
                       {{kOtherNode, 1}}));
  EXPECT_EQ(0, largest());
}

TEST_F(Aggregator, MasksDecideWhichMembersCountOutsideTheClusterDomainType) {
  // Network 0 has three members but the mask admits one; network 1 has two
  // admitted members.
  AMAggregator* a = makeAggregator({kMyNode}, {kMyNode, kOtherNode});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 0}, {kThirdNode, 0}}));
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}, {kOtherNode, 1}}));
  EXPECT_EQ(1, largest());
  // In the cluster domain type every member counts.
  AMController::domainType = kCLUSTER;
  EXPECT_EQ(0, largest());
}

TEST_F(Aggregator, AMemberWhoseAdapterHasNoMaskIsNotCountedAndTraced) {
  AMAggregator* a = makeAggregator({kMyNode}, {});
  ASSERT_TRUE(connectToFakeAgent());
  // Instance 60 is beyond any adapter a node has: it has no mask.
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 60}}));
  int equivCount = 0;
  EXPECT_EQ(0, largest(&equivCount));
  EXPECT_NE(std::string::npos, log().find("SRCGRP to SXN60 is not associated with a device"));
}

TEST_F(Aggregator, AllGroupsEmptyAfterMaskingHaveNoBaseGroup) {
  AMAggregator* a = makeAggregator({kThirdNode}, {kThirdNode});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(0), {{kMyNode, 0}, {kOtherNode, 0}}));
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}}));
  int equivCount = 7;
  EXPECT_EQ(-1, largest(&equivCount));
  EXPECT_EQ(0, equivCount);
}

TEST_F(Aggregator, AListenerThatIsNotSubscribedIsNotABaseGroup) {
  AMAggregator* a = makeAggregator({kMyNode, kOtherNode}, {kMyNode});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribed(a->getListener(1), {{kMyNode, 1}}));
  EXPECT_EQ(1, largest());
}

// ------------------------------------------------------- the thread body

class AggregatorPass : public Aggregator {
 protected:
  // An aggregator over both networks, both listeners subscribed with the
  // given members, everything this node's.
  ::testing::AssertionResult ready(const Members& net0, const Members& net1, const char* device = "ml0") {
    makeAggregator({kMyNode, kOtherNode, kThirdNode}, {kMyNode, kOtherNode, kThirdNode}, device);
    ::testing::AssertionResult ok = connectToFakeAgent();
    if (!ok) return ok;
    ok = subscribed(aggregator_->getListener(0), net0);
    if (!ok) return ok;
    return subscribed(aggregator_->getListener(1), net1);
  }

  // One pass that is expected to ask group services for exactly one thing.
  int passAnswered(int evt, int waitrc, std::vector<velt::proto::Request>* seen) {
    return answered<int>([&] { return aggregator_->processOnePass(evt, waitrc); }, {TK_GS_OK}, seen);
  }

  // Joins the aggregate group as an alias of the base group the pass
  // computes.
  ::testing::AssertionResult joinedAggregate() {
    std::vector<velt::proto::Request> seen;
    passAnswered(kAggEvtWakeup, 0, &seen);
    if (seen.size() != 1 || !seen[0].has_join()) return ::testing::AssertionFailure() << "no join request";
    if (seen[0].join().group() != "ml0Membership") return ::testing::AssertionFailure() << "joined elsewhere";
    return approveJoin(aggregator_->getAggProvider());
  }
};

TEST_F(AggregatorPass, NothingHappensBeforeTheControllerIsReadyToRoll) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {{kMyNode, 1}}));
  ctl_->readyToRoll = 0;
  EXPECT_EQ(-1, aggregator_->processOnePass(kAggEvtWakeup, 0));
  EXPECT_TRUE(agentStaysQuiet());
  EXPECT_EQ(-1, aggregator_->getAliasGroupIndex());
  EXPECT_NE(std::string::npos, log().find(" It is not ready to roll...wait more"));
}

TEST_F(AggregatorPass, TheClusterTypeWaitsForTheFirstHarvest) {
  makeAggregator({kMyNode}, {kMyNode});
  AMController::domainType = kCLUSTER;
  EXPECT_EQ(-1, aggregator_->processOnePass(kAggEvtWakeup, 0));
  EXPECT_EQ(-1, aggregator_->getAliasGroupIndex());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("The initial harvest is not done yet...Wait more")) << text;
}

TEST_F(AggregatorPass, AWakeUpJoinsTheAggregateGroupAsAnAliasOfTheLargestGroup) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {{kMyNode, 1}, {kOtherNode, 1}}));
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(-1, passAnswered(kAggEvtWakeup, 0, &seen));
  ASSERT_EQ(1u, seen.size());
  ASSERT_TRUE(seen[0].has_join());
  EXPECT_EQ("ml0Membership", seen[0].join().group());
  EXPECT_EQ(1, aggregator_->getAliasGroupIndex());
  EXPECT_EQ(GS_IAM_JOINING, aggregator_->getAggProvider()->getClientState());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find(" Joining ml0Membership as alias to sxn1Membership")) << text;
  EXPECT_NE(std::string::npos, text.find("Now the alias_group_index is assigned with the newly calculated largest "
                                         "group Index1"));
}

TEST_F(AggregatorPass, AMembershipChangeWaitsForTheFlipDelayBeforeTheAliasMoves) {
  ASSERT_TRUE(ready({{kMyNode, 0}, {kOtherNode, 0}}, {{kMyNode, 1}}));
  ASSERT_TRUE(joinedAggregate());
  EXPECT_EQ(0, aggregator_->getAliasGroupIndex());
  // Network 0 loses a node, network 1 gains two: the listener's callback
  // posts the membership event.
  ASSERT_TRUE(notified(aggregator_->getListener(0), TK_GS_SUBSCRIPTION_DELTA_LEAVE, {{kMyNode, 0}},
                       {{kOtherNode, 0}}));
  ASSERT_TRUE(notified(aggregator_->getListener(1), TK_GS_SUBSCRIPTION_DELTA_JOIN,
                       {{kMyNode, 1}, {kOtherNode, 1}, {kThirdNode, 1}}, {{kOtherNode, 1}, {kThirdNode, 1}}));
  int evt = -1;
  ASSERT_EQ(0, aggregator_->waitSyncEvent(&evt, 0));
  EXPECT_EQ(kAggEvtMembership, evt);
  // The change starts the flip delay: nothing moves yet.
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, aggregator_->processOnePass(kAggEvtMembership, 0));
  EXPECT_EQ(1, aggregator_->getFlipWaitCount());
  EXPECT_EQ(0, aggregator_->getAliasGroupIndex());
  // Another kind of event while waiting extends the delay.
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, aggregator_->processOnePass(kAggEvtWakeup, 0));
  EXPECT_EQ(2, aggregator_->getFlipWaitCount());
  EXPECT_EQ(0, aggregator_->getAliasGroupIndex());
  // A quiet flip delay ends it: the alias moves without a leave (and the
  // pass, begun while the delay ran, still waits its 3 seconds).
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, aggregator_->processOnePass(kAggEvtWakeup, GS_WAIT_TIMEDOUT));
  EXPECT_EQ(0, aggregator_->getFlipWaitCount());
  EXPECT_EQ(1, aggregator_->getAliasGroupIndex());
  EXPECT_EQ(GS_IAM_JOINED, aggregator_->getAggProvider()->getClientState());
  EXPECT_TRUE(agentStaysQuiet());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find(" AggGroup ml0Membership is now aliased to sxn1Membership")) << text;
  EXPECT_NE(std::string::npos, text.find(" Don't flip largest group and wait for another 3 secs. "
                                         "alias_group_index = 0"));
  EXPECT_NE(std::string::npos, text.find("An non-switchMembership event occurred while waiting for "
                                         "flip-delay-timeout. Wait more...."));
}

TEST_F(AggregatorPass, ASteadyStreamOfChangesRecomputesAfterTheHundredAndFirstExtension) {
  ASSERT_TRUE(ready({{kMyNode, 0}, {kOtherNode, 0}}, {{kMyNode, 1}}));
  ASSERT_TRUE(joinedAggregate());
  ASSERT_TRUE(notified(aggregator_->getListener(1), TK_GS_SUBSCRIPTION_DELTA_JOIN,
                       {{kMyNode, 1}, {kOtherNode, 1}, {kThirdNode, 1}}, {{kOtherNode, 1}, {kThirdNode, 1}}));
  for (int extension = 1; extension <= AMAggregator::kMaxFlipExtensions + 1; ++extension) {
    ASSERT_EQ(AMAggregator::kFlipDelaySecs, aggregator_->processOnePass(kAggEvtMembership, 0));
    ASSERT_EQ(extension, aggregator_->getFlipWaitCount());
    ASSERT_EQ(0, aggregator_->getAliasGroupIndex()) << "moved at extension " << extension;
  }
  // The next change forces the recompute.
  aggregator_->processOnePass(kAggEvtMembership, 0);
  EXPECT_EQ(0, aggregator_->getFlipWaitCount());
  EXPECT_EQ(1, aggregator_->getAliasGroupIndex());
}

TEST_F(AggregatorPass, WithEveryBaseGroupEmptyTheProviderLeaves) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {{kMyNode, 1}}));
  ASSERT_TRUE(joinedAggregate());
  // Both groups lose this node: nothing is left after masking.
  ASSERT_TRUE(notified(aggregator_->getListener(0), TK_GS_SUBSCRIPTION_DELTA_LEAVE, {}, {{kMyNode, 0}}));
  ASSERT_TRUE(notified(aggregator_->getListener(1), TK_GS_SUBSCRIPTION_DELTA_LEAVE, {}, {{kMyNode, 1}}));
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, aggregator_->processOnePass(kAggEvtMembership, 0));
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, passAnswered(kAggEvtWakeup, GS_WAIT_TIMEDOUT, &seen));
  ASSERT_EQ(1u, seen.size());
  EXPECT_TRUE(seen[0].has_goodbye());
  EXPECT_EQ(GS_IAM_IDLE, aggregator_->getAggProvider()->getClientState());
  EXPECT_EQ(-1, aggregator_->getAliasGroupIndex());
  EXPECT_NE(std::string::npos, log().find(" No source groups exist. Leave the agg_group."));
}

TEST_F(AggregatorPass, ANodeOutsideTheNewBaseGroupLeavesTheAggregateGroup) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {{kOtherNode, 1}}));
  ASSERT_TRUE(joinedAggregate());
  ASSERT_TRUE(notified(aggregator_->getListener(1), TK_GS_SUBSCRIPTION_DELTA_JOIN,
                       {{kOtherNode, 1}, {kThirdNode, 1}}, {{kThirdNode, 1}}));
  aggregator_->processOnePass(kAggEvtMembership, 0);
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(AMAggregator::kFlipDelaySecs, passAnswered(kAggEvtWakeup, GS_WAIT_TIMEDOUT, &seen));
  ASSERT_EQ(1u, seen.size());
  EXPECT_TRUE(seen[0].has_goodbye());
  EXPECT_EQ(1, aggregator_->getAliasGroupIndex());
  EXPECT_NE(std::string::npos,
            log().find(" Leave ml0membership, because this node does not join or ml0 is down sxn1Membership"));
}

TEST_F(AggregatorPass, ABackLevelClusterThatRefusesGoodbyeGetsAOnePhaseLeave) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {}));
  ASSERT_TRUE(joinedAggregate());
  std::vector<velt::proto::Request> seen;
  tk_gs_rc_t rc = answered<tk_gs_rc_t>([&] { return aggregator_->getAggProvider()->LeaveOrGoodbyeGroup(); },
                                       {TK_GS_BACKLEVEL_PROVIDERS, TK_GS_OK}, &seen);
  EXPECT_EQ(TK_GS_OK, rc);
  ASSERT_EQ(2u, seen.size());
  EXPECT_TRUE(seen[0].has_goodbye());
  ASSERT_TRUE(seen[1].has_leave());
  EXPECT_EQ(300u, seen[1].leave().time_limit());
  // The aggregate group never restarts the daemon.
  EXPECT_EQ(0, ctl_->AmIExiting());
}

TEST_F(AggregatorPass, TheAggregateGroupIsSubscribedOnlyWithTheRawGroupAndAJoinedAllGroup) {
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.0.2", 1);
  makeAggregator({kMyNode}, {kMyNode});
  ASSERT_TRUE(connectToFakeAgent());
  // Without the raw subscription nothing is asked for.
  aggregator_->processOnePass(kAggEvtWakeup, 0);
  EXPECT_TRUE(agentStaysQuiet());
  EXPECT_NE(std::string::npos, log().find(" rawSub not subscribed"));
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  // The raw group is subscribed: both listeners subscribe (their networks
  // are in the configuration), the aggregate group not yet, since no
  // all-group provider is joined.
  advanceClocks(3);
  std::vector<velt::proto::Request> seen;
  answered<int>([&] { return aggregator_->processOnePass(kAggEvtWakeup, 0); }, {TK_GS_OK, TK_GS_OK}, &seen);
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("sxnMembership", seen[0].subscribe().group());
  EXPECT_EQ("sxn1Membership", seen[1].subscribe().group());
  EXPECT_NE(std::string::npos, log().find("need_sub = 0 don't subscribe to ML0 group."));
  EXPECT_NE(std::string::npos, log().find("trySubscribe sxn1Membership tried."));
}

TEST_F(AggregatorPass, AListenerOfANetworkOutsideTheConfigurationDoesNotSubscribe) {
  defineLocal("sxn0", "10.0.0.1", 0);
  makeAggregator({kMyNode}, {});
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  EXPECT_EQ(3, aggregator_->getListener(1)->trySubscribeGroup());
  advanceClocks(3);
  EXPECT_EQ(1, answered<int>([&] { return aggregator_->getListener(0)->trySubscribeGroup(); }, {TK_GS_OK}));
  EXPECT_EQ(2, aggregator_->getListener(0)->trySubscribeGroup());
}

TEST_F(AggregatorPass, WithoutALocalSwitchNoListenerSubscribes) {
  makeAggregator({kMyNode}, {kMyNode});
  EXPECT_EQ(3, aggregator_->getListener(0)->trySubscribeGroup());
  EXPECT_NE(std::string::npos, log().find("No switches are locally defined."));
}

TEST_F(AggregatorPass, AConfigurationCommittedBeforeTheProtocolsRollIsFetchedOnceTheyDo) {
  makeAggregator({kMyNode}, {kMyNode});
  ctl_->readyToRoll = 0;
  aggregator_->processOnePass(kAggEvtRefreshed, 0);
  EXPECT_TRUE(aggregator_->configuredOnNetwork(0)) << "fetched before the protocols roll";
  ctl_->readyToRoll = 1;
  aggregator_->processOnePass(kAggEvtWakeup, 0);
  // The propagator holds nothing for ml0: what was fetched is the empty
  // configuration.
  EXPECT_FALSE(aggregator_->configuredOnNetwork(0));
  EXPECT_NE(std::string::npos, log().find(" Aggregate_Evt_refreshed"));
}

TEST_F(AggregatorPass, AMissingPseudoDeviceIsTracedOnceNotOnEveryPass) {
  makeAggregator({kMyNode}, {kMyNode});
  for (int i = 0; i < 5; ++i) aggregator_->processOnePass(kAggEvtWakeup, 0);
  std::istringstream lines(log());
  int loud = 0;
  int quiet = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("Opening /dev/sxnpd0") == std::string::npos) continue;
    if (line.find("TRACE_FYI") != std::string::npos) ++loud;
    if (line.find("TRACE_DEBUG") != std::string::npos) ++quiet;
  }
  EXPECT_EQ(1, loud) << "the first attempt only";
  EXPECT_EQ(5, quiet) << "one attempt per pass";
}

TEST_F(AggregatorPass, ARefreshFetchesTheDevicesConfigurationFromThePropagator) {
  makeAggregator({kMyNode}, {kMyNode});
  // The propagator holds no configuration for ml0: the masks are erased.
  aggregator_->processOnePass(kAggEvtRefreshed, 0);
  EXPECT_FALSE(aggregator_->configuredOnNetwork(0));
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find(" Aggregate_Evt_refreshed"));
  EXPECT_NE(std::string::npos, text.find(" Configuration is still same."));
}

// In the cluster domain type the local aggregate interface must be up and
// running, and is watched while this node is in the base group.
class AggregatorInClusterDomain : public AggregatorPass {
 protected:
  ::testing::AssertionResult clusterReady(const Members& net0, const Members& net1, const char* device) {
    ::testing::AssertionResult ok = ready(net0, net1, device);
    if (!ok) return ok;
    // The first harvest (outside the cluster domain type it needs no KOR).
    table_->harvestGblNetworkInterfaces(0);
    AMController::domainType = kCLUSTER;
    AMController::vask_mlX_check_interval = 7;
    return ::testing::AssertionSuccess();
  }
  void TearDown() override {
    AMController::vask_mlX_check_interval = 60;
    AggregatorPass::TearDown();
  }
};

TEST_F(AggregatorInClusterDomain, AnInterfaceThatIsUpJoinsAndIsWatchedAtTheCheckInterval) {
  // The loopback interface stands for an aggregate interface that is up.
  ASSERT_TRUE(clusterReady({{kMyNode, 0}}, {}, "lo"));
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(7, passAnswered(kAggEvtWakeup, 0, &seen));
  ASSERT_EQ(1u, seen.size());
  EXPECT_TRUE(seen[0].has_join());
  EXPECT_EQ(1, aggregator_->isMonitoringMlX());
  ASSERT_TRUE(approveJoin(aggregator_->getAggProvider()));
  // A check that finds the interface as it was.
  advanceClocks(7);
  EXPECT_EQ(7, aggregator_->processOnePass(kAggEvtWakeup, GS_WAIT_TIMEDOUT));
  EXPECT_EQ(GS_IAM_JOINED, aggregator_->getAggProvider()->getClientState());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("Start monitoring the interface lo")) << text;
  EXPECT_NE(std::string::npos, text.find("Checking the interface lo.. IsUpAndRunning=1"));
  // This node leaves the base group: the watch stops.
  ASSERT_TRUE(notified(aggregator_->getListener(0), TK_GS_SUBSCRIPTION_DELTA_LEAVE, {{kOtherNode, 0}},
                       {{kMyNode, 0}}));
  aggregator_->processOnePass(kAggEvtMembership, 0);
  passAnswered(kAggEvtWakeup, GS_WAIT_TIMEDOUT, &seen);
  EXPECT_EQ(0, aggregator_->isMonitoringMlX());
  EXPECT_NE(std::string::npos, log().find("Stop monitoring the interface lo"));
}

TEST_F(AggregatorInClusterDomain, AnInterfaceThatIsNotUpKeepsTheNodeOutAndSaysSoOnceLoudly) {
  ASSERT_TRUE(clusterReady({{kMyNode, 0}}, {}, "ml0"));
  aggregator_->processOnePass(kAggEvtWakeup, 0);
  EXPECT_EQ(GS_IAM_IDLE, aggregator_->getAggProvider()->getClientState());
  aggregator_->processOnePass(kAggEvtWakeup, GS_WAIT_TIMEDOUT);
  EXPECT_TRUE(agentStaysQuiet());
  std::string text = log();
  const std::string line = " Interface ml0 is configured but it is not up/running. It will not join ml0Membership";
  EXPECT_EQ(2, countOf(text, line)) << text;
  EXPECT_EQ(1, countOf(text, "TRACE_EMERG : [T=")) << "only the first is written at every trace level";
}

// ------------------------------------------------------------ stopping

TEST_F(AggregatorPass, AThreadAskedToEndEndsTheProcessWithCode8) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  AMAggregator::setStopGraceForTesting(0);
  EXPECT_EXIT(
      {
        makeAggregator({kMyNode}, {kMyNode});
        // Registered, so that the exit request wakes it wherever its thread
        // is (before its first wait or inside it).
        ctl_->appendAggregator(aggregator_.get());
        aggregator_->start(nullptr);
        ctl_->RequestToExit();
        aggregator_->join();
        _exit(90);  // not reached: the thread ends the process
      },
      ::testing::ExitedWithCode(8), "");
  AMAggregator::setStopGraceForTesting(-1);
}

// ------------------------------------------------------------ wiring

TEST_F(AggregatorPass, ACookedProviderTellsItsListenerAndTheMediatorRelinksIt) {
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.0.2", 1);
  // A mediator that feeds an aggregator, as a test build makes it.
  makeAggregator({kMyNode}, {kMyNode});
  AMMediator fed("allAdapterMembership", aggregator_.get(), 0);
  AMCookedProvider* p0 = fed.appendMember("sxn0");
  AMCookedProvider* p1 = fed.appendMember("sxn1");
  ASSERT_NE(nullptr, p0);
  ASSERT_NE(nullptr, p1);
  EXPECT_EQ(p0, aggregator_->getRelatedProvider(0));
  EXPECT_EQ(p1, aggregator_->getRelatedProvider(1));
  EXPECT_EQ(aggregator_->getListener(1), p1->get_dst_subscriber());
  // A provider's callback resets the listener's request rate and wakes the
  // aggregator.
  ASSERT_TRUE(aggregator_->getListener(1)->at_sub_rate.hit());
  p1->rejectedCb(nullptr);
  EXPECT_TRUE(aggregator_->getListener(1)->at_sub_rate.hit());
  int evt = -1;
  ASSERT_EQ(0, aggregator_->waitSyncEvent(&evt, 0));
  EXPECT_EQ(kAggEvtWakeup, evt);
  // The mediator's own pass ends by waking the aggregator.
  fed.processOnePass();
  ASSERT_EQ(0, aggregator_->waitSyncEvent(&evt, 0));
  EXPECT_EQ(kAggEvtWakeup, evt);
  // sxn0's provider moves to network 1: the listener of network 1 now
  // follows it.
  EXPECT_EQ(TK_GS_OK, fed.changeAttachedNetwork(p0, 1));
  EXPECT_EQ(p0, aggregator_->getRelatedProvider(1));
}

TEST_F(AggregatorPass, TheControllerWakesRegisteredAggregatorsOnly) {
  EXPECT_EQ(0, ctl_->isMultiLinkEnabled());
  makeAggregator({kMyNode}, {kMyNode});
  ctl_->wakeupAllAggregators(1);
  EXPECT_EQ(0, aggregator_->pendingSyncEvents());
  ctl_->appendAggregator(aggregator_.get());
  EXPECT_EQ(1, ctl_->isMultiLinkEnabled());
  EXPECT_EQ(aggregator_.get(), ctl_->getAggregator("ml0"));
  ctl_->wakeupAllAggregators(1);
  int evt = -1;
  ASSERT_EQ(0, aggregator_->waitSyncEvent(&evt, 0));
  EXPECT_EQ(kAggEvtRefreshed, evt);
  AMCfgInfo info;
  ctl_->set_configuration_has_changed(info);
  ASSERT_EQ(0, aggregator_->waitSyncEvent(&evt, 0));
  EXPECT_EQ(kAggEvtRefreshed, evt);
}

// ------------------------------------------------------------ status

TEST_F(AggregatorPass, StatusShowsTheAggregateGroupItsMembersAndItsAlias) {
  ASSERT_TRUE(ready({{kMyNode, 0}}, {{kMyNode, 1}, {kOtherNode, 1}}));
  ctl_->appendAggregator(aggregator_.get());
  ASSERT_TRUE(joinedAggregate());
  // A request socket of our own, and the propagator whose status brings
  // the aggregators' lines.
  std::string srcDir = dir_ + "/src";
  ASSERT_EQ(0, mkdir(srcDir.c_str(), 0700));
  setenv("VELT_SRC_DIR", srcDir.c_str(), 1);
  ASSERT_EQ(0, ctl_->SRCDriver::InitSRC(1, (dir_ + "/tolkvaskd.excl").c_str(), 88, nullptr));
  AMPropagator propagator;
  AMController::propagator = &propagator;
  std::string text = srcctl_test::srcctlServed(ctl_, {"request", "999"}, std::chrono::seconds(5));
  EXPECT_NE(std::string::npos, text.find("AggAdapter0: ml0\n")) << text;
  EXPECT_NE(std::string::npos, text.find("AggAdapter0_Group: ml0Membership\n"));
  EXPECT_NE(std::string::npos, text.find("AggAdapter0_Joined: Yes\n"));
  EXPECT_NE(std::string::npos, text.find("AggAdapter0_Mbrs: 1\n"));
  EXPECT_NE(std::string::npos, text.find("AggAdapter0_AliasGroup: sxn1Membership\n"));
  EXPECT_NE(std::string::npos, text.find("Aggregate_Configuration_Id: "));
  text = srcctl_test::srcctlServed(ctl_, {"status", "-l"}, std::chrono::seconds(5));
  EXPECT_NE(std::string::npos, text.find(" ml0 group name is ml0Membership.\n")) << text;
  EXPECT_NE(std::string::npos, text.find(" ml0Membership group is joined, and aliased to sxn1Membership.\n"));
  EXPECT_NE(std::string::npos, text.find(" The size of ml0Membership group is 1.\n"));
  AMController::propagator = nullptr;
  unsetenv("VELT_SRC_DIR");
}

// ------------------------------------------------------- the test build

AMAggregator* madeBySetup = nullptr;
AMAggregator* createForSetup(AMController* ctl) {
  madeBySetup = new AMAggregator("ml0", "ml0", "ml0Membership", 0, nullptr);
  ctl->appendAggregator(madeBySetup);
  return madeBySetup;
}
const AMAggregatorSetup kSetup = {createForSetup, nullptr};

class AggregatorSetup : public MediatorFixture {
 protected:
  void SetUp() override {
    AMController::setAggregatorSetupForTesting(&kSetup);
    MediatorFixture::SetUp();
  }
  void TearDown() override {
    AMController::setAggregatorSetupForTesting(nullptr);
    MediatorFixture::TearDown();
    delete madeBySetup;
    madeBySetup = nullptr;
  }
};

TEST_F(AggregatorSetup, AControllerOfATestBuildFeedsItsAggregatorFromTheFirstMediator) {
  ASSERT_NE(nullptr, madeBySetup);
  EXPECT_EQ(madeBySetup, ctl_->mediators[0]->getAggregator());
  EXPECT_EQ(1, ctl_->isMultiLinkEnabled());
  AMCookedSubscriber* listener = ctl_->createAggListener(madeBySetup, 1);
  ASSERT_NE(nullptr, listener);
  EXPECT_STREQ("sxn1Membership", listener->getGroupName());
  EXPECT_EQ(nullptr, ctl_->createAggListener(madeBySetup, 9));
}

TEST(AggregatorShipped, TheShippedDaemonHasNoAggregatorSetup) {
  EXPECT_EQ(nullptr, AMController::aggregatorSetup());
}

}  // namespace

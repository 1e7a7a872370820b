// The mediator: one pass of its state machine at a time (the raw
// subscription's patience, the device check, joins of local adapters),
// and how it makes the cooked providers of a local adapter.
#include <gtest/gtest.h>

#include <thread>

#include "mediator_test_support.h"

using namespace mediator_test;

namespace {

class MediatorPass : public MediatorFixture {
 protected:
  void SetUp() override {
    MediatorFixture::SetUp();
    if (HasFatalFailure()) return;
    ctl_->readyToRoll = 1;
  }
};

class AppendMember : public MediatorFixture {};

TEST_F(MediatorPass, NothingHappensBeforeTheControllerIsReadyToRoll) {
  ctl_->readyToRoll = 0;
  EXPECT_EQ(-1, mediator_->processOnePass());
  EXPECT_EQ(GS_IAM_IDLE, raw_->getClientState());
  EXPECT_NE(std::string::npos, log().find(" It is not ready to roll...wait more"));
}

TEST_F(MediatorPass, TheClusterTypeWaitsForTheFirstHarvest) {
  AMController::domainType = kCLUSTER;
  EXPECT_EQ(-1, mediator_->processOnePass());
  EXPECT_EQ(0, raw_->getTimeSubscribing());
  EXPECT_NE(std::string::npos, log().find("The initial harvest is not done yet...Wait more"));
}

TEST_F(MediatorPass, WithoutALocalDeviceTheSubscriptionIsStillRequestedEveryPass) {
  AMController::vask_device_check_interval = 7;
  // No agent: the request fails, and the pass sleeps the check interval.
  EXPECT_EQ(7, mediator_->processOnePass());
  const time_t first = raw_->getTimeSubscribing();
  EXPECT_EQ(fakeWallSecs().load(), first);
  advanceClocks(3);
  EXPECT_EQ(7, mediator_->processOnePass());
  EXPECT_EQ(first + 3, raw_->getTimeSubscribing());
  std::string text = log();
  EXPECT_EQ(2, countOf(text, ": Any local device is not found. Re-check after 7 seconds")) << text;
  EXPECT_EQ(2, countOf(text, "AMRawSubscriber::subscribeGroup()Mediator[allAdapterMembership] subscribeGroup "
                             "returns sync_rc=TK_GS_NOT_INITIALIZED"));
  // Within the 3-second rate nothing is requested.
  EXPECT_EQ(3, mediator_->processOnePass());
  EXPECT_EQ(first + 3, raw_->getTimeSubscribing());
}

TEST_F(MediatorPass, ASubscriptionWaitingExactly180SecondsIsKeptAnd181IsCancelled) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  // The subscription request is accepted: a successful request sleeps 300 s.
  EXPECT_EQ(300, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK}));
  ASSERT_EQ(GS_IAM_SUBSCRIBING, raw_->getClientState());
  advanceClocks(180);
  EXPECT_EQ(-1, mediator_->processOnePass());
  EXPECT_EQ(GS_IAM_SUBSCRIBING, raw_->getClientState());
  EXPECT_TRUE(agentStaysQuiet());
  advanceClocks(1);
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(2, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK}, &seen));
  ASSERT_EQ(1u, seen.size());
  EXPECT_TRUE(seen[0].has_unsubscribe());
  EXPECT_EQ(GS_IAM_IDLE, raw_->getClientState());
  EXPECT_NE(std::string::npos,
            log().find(" I waited too much..Unsubscribe the rawGroupso that I can resubscribe it again"));
  // The next pass may subscribe again at once.
  EXPECT_EQ(300, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK}));
}

TEST_F(MediatorPass, AnUpLocalAdapterJoinsItsNetworkGroupAndTheAllGroup) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  ASSERT_EQ(1, mediator_->getNumOfCookedProviders());
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(-1, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}, &seen));
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("sxnMembership", seen[0].join().group());
  EXPECT_EQ("sxnAllMembership", seen[1].join().group());
  EXPECT_EQ(GS_IAM_JOINING, mediator_->getCookedProvider(0)->getClientState());
  EXPECT_NE(std::string::npos, log().find(": My rawAdapter (sxn0) is UP and time to JOIN group sxnMembership "
                                          "sync_rc = TK_GS_OK"));
}

TEST_F(MediatorPass, ARefusedAllGroupJoinWithNothingLeftToWaitReturnsAtOnce) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  auto pass = std::async(std::launch::async, [&] {
    TraceClient threadClient(traceMarket, 0);
    return mediator_->processOnePass();
  });
  velt::proto::Request cooked;
  ASSERT_TRUE(agent_->readRequest(&cooked));
  ASSERT_TRUE(agent_->reply(cooked.id(), TK_GS_INVALID_GROUP));
  velt::proto::Request all;
  ASSERT_TRUE(agent_->readRequest(&all));
  EXPECT_EQ("sxnAllMembership", all.join().group());
  // The join rate's 3 seconds pass while group services think it over.
  advanceClocks(3);
  ASSERT_TRUE(agent_->reply(all.id(), TK_GS_INVALID_GROUP));
  const int wait = pass.get();
  EXPECT_EQ(0, wait);
  int event = -1;
  struct timespec t0, t1;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  mediator_->waitSyncEvent(&event, wait);
  clock_gettime(CLOCK_MONOTONIC, &t1);
  EXPECT_LT(t1.tv_sec - t0.tv_sec, 1);
}

TEST_F(MediatorPass, ARefusedNetworkGroupJoinWaitsForTheJoinRate) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  // The all-group join is accepted; the network group's is refused.
  EXPECT_EQ(3, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_INVALID_GROUP, TK_GS_OK}));
  advanceClocks(1);
  // The refused one is not asked again within the rate, and the wait is
  // what is left of it.
  EXPECT_EQ(2, mediator_->processOnePass());
  EXPECT_TRUE(agentStaysQuiet());
}

TEST_F(MediatorPass, AnAdapterThatGoesDownLeavesItsGroupsAndADissolvedRawGroupLeavesAll) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  ASSERT_EQ(-1, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}));
  AMCookedProvider* cooked = mediator_->getCookedProvider(0);
  AMCookedProvider* all = mediator_->getCookedSXNAllProvider(0);
  ASSERT_TRUE(approveJoin(cooked));
  ASSERT_TRUE(approveJoin(all));

  // The adapter leaves the raw group: the pass says goodbye to both groups.
  velt::proto::Notification down = rawNotice(TK_GS_SUBSCRIPTION_DELTA_LEAVE);
  velt::proto::AdapterInfo* a = down.add_changing_ip();
  const char v4[4] = {10, 0, 0, 1};
  a->set_ip(std::string(v4, 4));
  a->set_interface_name("sxn0");
  a->set_node(kMyNode);
  ASSERT_TRUE(agent_->notify(down));
  ASSERT_EQ(TK_GS_OK, ctl_->dispatch(TK_GS_BLOCKING));
  EXPECT_EQ(0, mediator_->listOfAdapter.isUp(kMyNode, "sxn0"));
  std::vector<velt::proto::Request> seen;
  EXPECT_EQ(3, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}, &seen));
  ASSERT_EQ(2u, seen.size());
  EXPECT_TRUE(seen[0].has_goodbye());
  EXPECT_TRUE(seen[1].has_goodbye());
  EXPECT_EQ(GS_IAM_IDLE, cooked->getClientState());
  EXPECT_EQ(GS_IAM_IDLE, all->getClientState());
  EXPECT_NE(std::string::npos,
            log().find(": Adapter is DOWN and time to LEAVE group sxnMembership got sync_rc=TK_GS_OK"));

  // Up again and joined again; then the raw group is dissolved.
  velt::proto::Notification up = rawNotice(TK_GS_SUBSCRIPTION_DELTA_JOIN);
  *up.add_changing_ip() = *a;
  ASSERT_TRUE(agent_->notify(up));
  ASSERT_EQ(TK_GS_OK, ctl_->dispatch(TK_GS_BLOCKING));
  advanceClocks(3);
  ASSERT_EQ(-1, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}));
  ASSERT_TRUE(approveJoin(cooked));
  ASSERT_TRUE(approveJoin(all));
  ASSERT_TRUE(agent_->notify(rawNotice(TK_GS_SUBSCRIPTION_DISSOLVED)));
  ASSERT_EQ(TK_GS_OK, ctl_->dispatch(TK_GS_BLOCKING));
  ASSERT_EQ(GS_IAM_IDLE, raw_->getClientState());
  // The library ends the dissolved subscription on the agent's side.
  velt::proto::Request unsubscribe;
  ASSERT_TRUE(agent_->readRequest(&unsubscribe));
  EXPECT_TRUE(unsubscribe.has_unsubscribe());
  // The idle pass leaves both groups, then asks for the raw group again.
  seen.clear();
  EXPECT_EQ(300, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK, TK_GS_OK}, &seen));
  ASSERT_EQ(3u, seen.size());
  EXPECT_TRUE(seen[0].has_goodbye());
  EXPECT_TRUE(seen[1].has_goodbye());
  EXPECT_TRUE(seen[2].has_subscribe());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("Mediator[allAdapterMembership]: allAdapterMembership is dissolved"));
  EXPECT_NE(std::string::npos, text.find("Mediator[allAdapterMembership]: No local adapter is alive, and time to "
                                         "leave sxnAllMembership got sync_rc=TK_GS_OK"));
}

TEST_F(AppendMember, AKnownAdapterOnANewNetworkMovesItsProvider) {
  currentNumbersOfNetworks.store(4);
  defineLocal("sxn0", "10.0.0.1", 0);
  AMCookedProvider* p = mediator_->appendMember("sxn0");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0, p->getAttachedNetworkNum());
  ASSERT_EQ(1, mediator_->getNumOfSXNAllCookedProviders());
  EXPECT_EQ(1, mediator_->getCookedSXNAllProvider(0)->isSxnAllMember());
  {
    // The row changes network without the table's own notice to the
    // mediators, so that appendMember itself must notice.
    GSWriteGuard hold(*table_);
    table_->setRowNetworkForTesting(table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn0")), 3);
  }
  EXPECT_EQ(p, mediator_->appendMember("sxn0"));
  EXPECT_EQ(3, p->getAttachedNetworkNum());
  EXPECT_EQ(1, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(1, mediator_->getNumOfSXNAllCookedProviders());
  EXPECT_EQ(p, mediator_->getCookedProvider("sxn0"));
  EXPECT_EQ(nullptr, mediator_->getCookedProvider("sxn1"));
}

TEST_F(AppendMember, AnAdapterWhoseRowIsNotConfiguredMakesNoProvider) {
  // sxn2 is not among the local interfaces, so a rescan does not define it.
  EXPECT_EQ(nullptr, mediator_->appendMember("sxn2"));
  EXPECT_EQ(0, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(0, mediator_->getNumOfSXNAllCookedProviders());
  EXPECT_NE(std::string::npos,
            log().find("adapter->isConfiged=0,IsValidNetworkID(adapter->networkid)=1 Weired Case, "
                       "AMMediator::appendMember cannot resolve interface name[sxn2] network id, just ignore "
                       "appendmember action"));
}

TEST_F(AppendMember, TheSecondSwitchInterfaceOfTheScanGetsItsOwnGroup) {
  // A switch-only cluster: no InfiniBand group names, networks 0 and 1 by
  // interface name.
  currentNumbersOfNetworks.store(0);
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.1"}, {"sxn1", "10.0.1.1"}});
  AMCookedProvider* p = mediator_->appendMember("sxn1");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(1, p->getAttachedNetworkNum());
  EXPECT_STREQ("sxn1Membership", p->getCookedMembershipName());
  EXPECT_EQ(std::string::npos, log().find("cannot resolve interface name[sxn1]"));
  AMCookedProvider* first = mediator_->appendMember("sxn0");
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("sxnMembership", first->getCookedMembershipName());
  EXPECT_EQ(2, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(2, mediator_->getNumOfSXNAllCookedProviders());  // one per adapter
}

TEST_F(AppendMember, AnAdapterOnASwitchNetworkWithoutAGroupNameGetsNoProvider) {
  // Only networks 0 to 8 have a membership group; a row that says network
  // 12 (a valid network: the table knows it) must not make a provider for
  // a group without a name.
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn0", "10.0.0.1", 0);
  {
    GSWriteGuard hold(*table_);
    table_->setRowNetworkForTesting(table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn0")), 12);
  }
  ASSERT_TRUE(IsValidNetworkID(12));
  EXPECT_EQ(nullptr, mediator_->appendMember("sxn0"));
  EXPECT_EQ(0, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(0, mediator_->getNumOfSXNAllCookedProviders());
  EXPECT_NE(std::string::npos, log().find("AMMediator::appendMember(): interface[sxn0] is on network 12, which has "
                                          "no membership group name; no provider is made for it"))
      << log();
}

TEST_F(AppendMember, InterfacesScannedOutOfOrderStillGetTheirOwnNetworksGroup) {
  // sxn1 was configured first on this node, so the scan meets it first.
  currentNumbersOfNetworks.store(0);
  resetInterfaceIndexMapForTesting();
  table_test::setLocalInterfaces({{"sxn1", "10.0.1.1"}, {"sxn0", "10.0.0.1"}});
  AMCookedProvider* first = mediator_->appendMember("sxn0");
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(0, first->getAttachedNetworkNum());
  EXPECT_STREQ("sxnMembership", first->getCookedMembershipName());
  AMCookedProvider* second = mediator_->appendMember("sxn1");
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(1, second->getAttachedNetworkNum());
  EXPECT_STREQ("sxn1Membership", second->getCookedMembershipName());
}

TEST_F(AppendMember, ProviderArraysGrowByFourSlots) {
  currentNumbersOfNetworks.store(8);
  const char* names[] = {"sxn0", "sxn1", "sxn2", "sxn3", "sxn4"};
  for (int i = 0; i < 5; ++i) {
    std::string ip = "10.0.0." + std::to_string(i + 1);
    defineLocal(names[i], ip.c_str(), static_cast<unsigned>(i));
    ASSERT_NE(nullptr, mediator_->appendMember(names[i]));
  }
  EXPECT_EQ(5, mediator_->getNumOfCookedProviders());
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(names[i], mediator_->getCookedProvider(i)->getRepName());
}

}  // namespace

namespace {

class MediatorThread : public MediatorFixture {};

TEST_F(MediatorThread, AnExitRequestEndsTheProcessWithCode8AfterThreeSeconds) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        // Real clocks: the thread waits for real.
        cu_set_clocks_ForTesting(nullptr, nullptr);
        ctl_->readyToRoll = 1;
        mediator_->start(nullptr);
        mediator_->wakeup(0);
        // The woken thread makes one pass and waits again.
        for (int i = 0; i < 500 && mediator_->waitersForTesting() == 0; ++i) usleep(10000);
        ctl_->RequestToExit();
        sleep(10);
        _exit(1);   // not reached: the mediator ends the process first
      },
      ::testing::ExitedWithCode(8), "");
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("Mediator[allAdapterMembership] Thread started.")) << text;
  EXPECT_NE(std::string::npos, text.find("Mediator[allAdapterMembership] Got a syncEvent..."));
  EXPECT_NE(std::string::npos, text.find("Mediator[allAdapterMembership] - Prepare to exit"));
  EXPECT_NE(std::string::npos, text.find("AMMediator can not stop ExitCode=UnableExit(8)"));
}

}  // namespace

namespace {

class AppendWhileReading : public MediatorFixture {};

// The raw subscriber's callback appends providers on the dispatch thread
// while the mediator thread walks the lists: a reader only ever sees
// complete providers, whatever the arrays do meanwhile.
TEST_F(AppendWhileReading, ReadersSeeOnlyCompleteProviders) {
  currentNumbersOfNetworks.store(MaxAdaptersOnNode);
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) {
    names.push_back("sxn" + std::to_string(i));
    std::string ip = "10.0." + std::to_string(i) + ".1";
    // Forty adapters over the nine switch networks that have a group.
    defineLocal(names.back().c_str(), ip.c_str(), static_cast<unsigned>(i % 9));
  }
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::thread reader([&] {
    while (!done.load()) {
      int n = mediator_->getNumOfCookedProviders();
      for (int i = 0; i < n; ++i) {
        AMCookedProvider* p = mediator_->getCookedProvider(i);
        if (p == nullptr || names[static_cast<size_t>(i)] != p->getRepName()) bad.fetch_add(1);
      }
      int m = mediator_->getNumOfSXNAllCookedProviders();
      for (int i = 0; i < m; ++i) {
        if (mediator_->getCookedSXNAllProvider(i) == nullptr) bad.fetch_add(1);
      }
      // Leaves the processor to the appending thread now and then; under
      // valgrind, which runs one thread at a time, a spinning reader could
      // otherwise starve it.
      std::this_thread::yield();
    }
  });
  int refused = 0;
  for (const std::string& name : names) {
    if (mediator_->appendMember(name.c_str()) == nullptr) ++refused;
  }
  done.store(true);
  reader.join();
  EXPECT_EQ(0, refused);
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ(40, mediator_->getNumOfCookedProviders());
  EXPECT_EQ(40, mediator_->getNumOfSXNAllCookedProviders());
}

}  // namespace

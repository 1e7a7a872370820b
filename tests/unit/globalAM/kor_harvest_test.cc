// The adapter table's KOR harvests: the node-id map from "Zel.PeerNode"
// (changes counted, numbers no longer reported reset, failures traced and
// harmless) and the adapter rows from "Zel.NetworkInterface" (the local
// rescan when no local adapter is known, definitions, undefinitions of
// rows no longer reported by their position, publishing, the harvested
// mark and the wake-ups; failures leave the table as it was).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include "monitor_test_support.h"

namespace {

using namespace monitor_test;  // NOLINT: test helpers

class PeerNodeHarvest : public MonitorFixture {};

TEST_F(PeerNodeHarvest, InAnotherDomainTypeNothingIsAsked) {
  AMController::domainType = kQUIL;
  setPeerNodes({1, 2});
  EXPECT_EQ(0, table_->harvestGblPeerNodes(1));
  EXPECT_EQ(0, fake_mc::sessionsStartedForTesting());
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(1)));
  EXPECT_EQ(0, countOf(log(), "harvestGblPeers begins"));
}

TEST_F(PeerNodeHarvest, MapsEveryNodeThroughAPrivateSessionAndCountsTheChanges) {
  setPeerNodes({1, 2, 3});
  EXPECT_EQ(3, table_->harvestGblPeerNodes(1));
  for (int n : {1, 2, 3}) EXPECT_EQ(n, getNodeNumFromNodeId(idOfNode(n)));
  std::vector<fake_mc::SessionStart> starts = fake_mc::sessionStartsForTesting();
  ASSERT_EQ(1u, starts.size());
  EXPECT_TRUE(starts[0].contactNull);
  EXPECT_EQ(0u, starts[0].options);
  EXPECT_EQ(2, starts[0].mode);
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(0, fake_mc::responsesOutstandingForTesting());
  EXPECT_EQ(0, fake_mc::badFreesForTesting());
  EXPECT_EQ((std::vector<std::string>{"NodeIDs", "NodeList"}), fake_mc::lastQueryAttrsForTesting(KOR_CLASS_PEER_NODE));
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "harvestGblPeers begins")) << text;
  EXPECT_EQ(1, countOf(text, "harvestGblPeers finished with nchanges=3"));

  // The same answer again changes nothing; without tracing nothing is said.
  EXPECT_EQ(0, table_->harvestGblPeerNodes(0));
  text = log();
  EXPECT_EQ(1, countOf(text, "harvestGblPeers begins"));
  EXPECT_EQ(0, countOf(text, "harvestGblPeers finished with nchanges=0"));
  // Changes are told even without tracing.
  setPeerNodes({1, 2, 3, 4});
  EXPECT_EQ(1, table_->harvestGblPeerNodes(0));
  EXPECT_EQ(1, countOf(log(), "harvestGblPeers finished with nchanges=1"));
}

TEST_F(PeerNodeHarvest, NumbersNotSeenBelowTheHighestAreResetAndTheirAdaptersUndefined) {
  setPeerNodes({1, 2, 3});
  ASSERT_EQ(3, table_->harvestGblPeerNodes(0));
  table_->setAdapterDefinedWithLock(table_test::makeInterface(2, "sxn0", "10.0.0.2", 0x100));
  ASSERT_TRUE(configured(2, "sxn0"));
  setPeerNodes({1, 3});
  EXPECT_EQ(1, table_->harvestGblPeerNodes(0));
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(2)));
  EXPECT_EQ(1, getNodeNumFromNodeId(idOfNode(1)));
  EXPECT_FALSE(configured(2, "sxn0"));
  EXPECT_EQ(1, countOf(log(), "OPS UNDEF PeerNode node=2"));
}

TEST_F(PeerNodeHarvest, NumbersAboveTheHighestSeenAreLeftAlone) {
  setPeerNodes({1, 5});
  ASSERT_EQ(2, table_->harvestGblPeerNodes(0));
  setPeerNodes({1, 3});
  // Node 3 is new; 2 was never mapped; 5 lies above the highest seen.
  EXPECT_EQ(1, table_->harvestGblPeerNodes(0));
  EXPECT_EQ(5, getNodeNumFromNodeId(idOfNode(5)));
  EXPECT_EQ(3, getNodeNumFromNodeId(idOfNode(3)));
}

TEST_F(PeerNodeHarvest, NodesWithoutANumberOrAnIdAreNotSeen) {
  setPeerNodes({0, 1, 2});
  ASSERT_EQ(3, table_->harvestGblPeerNodes(0));
  Resource noNumber = peerNode(0, idOfNode(0));
  withoutAttr(noNumber, "NodeList");
  Resource noId = peerNode(1, idOfNode(1));
  withoutAttr(noId, "NodeIDs");
  Resource emptyEntry;
  emptyEntry.handle = "node/9";
  emptyEntry.errnum = MC_ENOATTR;
  fake_mc::setResourcesForTesting(KOR_CLASS_PEER_NODE, {noNumber, noId, emptyEntry, peerNode(2, idOfNode(2))});
  // Node 0's id without a number leaves its old slot, node 1 without an id
  // is cleared; neither counts as seen, and both end up without a node.
  EXPECT_EQ(2, table_->harvestGblPeerNodes(0));
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(0)));
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(1)));
  EXPECT_EQ(2, getNodeNumFromNodeId(idOfNode(2)));
}

TEST_F(PeerNodeHarvest, AnIdMovedToAnotherNumberCountsAsAChange) {
  setPeerNodes({1});
  ASSERT_EQ(1, table_->harvestGblPeerNodes(0));
  fake_mc::setResourcesForTesting(KOR_CLASS_PEER_NODE, {peerNode(7, idOfNode(1))});
  // The old number lost the id and the new one got it; number 1 lies below
  // the highest seen (7) and was not seen, but holds nothing any more.
  EXPECT_EQ(1, table_->harvestGblPeerNodes(0));
  EXPECT_EQ(7, getNodeNumFromNodeId(idOfNode(1)));
  EXPECT_EQ(1, countOf(log(), "OPS UNDEF(1) PeerNode node=1"));
}

TEST_F(PeerNodeHarvest, AFailedSessionStartIsTracedAndChangesNothing) {
  setPeerNodes({1});
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  EXPECT_EQ(-1, table_->harvestGblPeerNodes(1));
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(1)));
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "harvestGblPeers: mc_start_session fails (2: fake libvx_mc: mc_start_session failed "
                             "with 2)"))
      << text;
  EXPECT_EQ(0, countOf(text, "harvestGblPeers finished"));
}

TEST_F(PeerNodeHarvest, AFailedQueryEndsTheSessionAndChangesNothing) {
  setPeerNodes({1});
  fake_mc::failQueryForTesting(KOR_CLASS_PEER_NODE, 1, MC_ECONNLOST);
  EXPECT_EQ(-1, table_->harvestGblPeerNodes(1));
  EXPECT_EQ(-1, getNodeNumFromNodeId(idOfNode(1)));
  EXPECT_EQ(1, fake_mc::sessionsStartedForTesting());
  EXPECT_EQ(1, fake_mc::sessionsEndedForTesting());
  EXPECT_EQ(1, countOf(log(), "harvestGblPeers: mc_query_p_select_bp fails (3: fake libvx_mc: mc_query_p_select_bp "
                              "failed with 3)"));
}

// ------------------------------------------------------------ interfaces

class InterfaceHarvest : public MonitorFixture {
 protected:
  void SetUp() override {
    MonitorFixture::SetUp();
    if (HasFatalFailure()) return;
    client_ = new table_test::FakeNamClient(50);
    ctl_->insertNamClient(client_);
  }
  void TearDown() override {
    MonitorFixture::TearDown();
    delete client_;
  }

  void setInterfaces(std::vector<Resource> rs) {
    fake_mc::setResourcesForTesting(KOR_CLASS_NETWORK_INTERFACE, std::move(rs));
  }

  table_test::FakeNamClient* client_ = nullptr;
};

TEST_F(InterfaceHarvest, InAnotherDomainTypeItOnlyMarksTheTableHarvested) {
  AMController::domainType = kQUIL;
  knowNodes({2});
  setInterfaces({networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  EXPECT_EQ(0, harvested());
  EXPECT_EQ(0, table_->harvestGblNetworkInterfaces(1));
  EXPECT_EQ(1, harvested());
  EXPECT_EQ(0, fake_mc::sessionsStartedForTesting());
  EXPECT_EQ(nullptr, row(2, "sxn0"));
  EXPECT_EQ(0, prop_->count(PEVT_NO_EVENT));
  EXPECT_EQ(0, mediator_->pendingSyncEvents());
}

TEST_F(InterfaceHarvest, DefinesEveryReportedInterfacePublishesAndWakesTheWorkers) {
  knowNodes({2, 3});
  setInterfaces({networkInterface("sxn0", idOfNode(2), "10.0.0.2"), networkInterface("sxn0", idOfNode(3), "10.0.0.3")});
  EXPECT_EQ(2, table_->harvestGblNetworkInterfaces(1));
  EXPECT_TRUE(configured(2, "sxn0"));
  EXPECT_TRUE(configured(3, "sxn0"));
  EXPECT_EQ(1, harvested());
  // Published to the clients once.
  ASSERT_EQ(1u, client_->batches().size());
  EXPECT_EQ(2u, client_->batches()[0].records.size());
  // Mediators and the propagator are woken.
  EXPECT_EQ(1, mediator_->pendingSyncEvents());
  EXPECT_EQ(1, prop_->count(PEVT_NO_EVENT));
  // A private session that is gone again, the answer given back.
  EXPECT_EQ(1, fake_mc::sessionsStartedForTesting());
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(0, fake_mc::responsesOutstandingForTesting());
  std::vector<std::string> asked = fake_mc::lastQueryAttrsForTesting(KOR_CLASS_NETWORK_INTERFACE);
  ASSERT_EQ(11u, asked.size());
  for (int i = 0; i < 11; ++i) EXPECT_EQ(NI_RetResAttrs[i], asked[i]);
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "harvestGblNetworkInterfaces begins")) << text;
  EXPECT_EQ(1, countOf(text, "harvestGblNetworkInterfaces() leaving nchanges=2"));
  EXPECT_EQ(2, countOf(text, "In harvestGblNetworkInterface(), Call setAdapterDefinedWithoutLock(), ofs="));
  EXPECT_EQ(1, countOf(text, "In harvestGblNetworkInterface(), Call setAdapterDefinedWithoutLock(), ofs=" +
                                 std::to_string(2 * MaxAdaptersOnNode + _idxFromInterfaceName("sxn0"))));

  // The same answer again changes nothing, is not traced without tracing,
  // and still marks, publishes and wakes.
  EXPECT_EQ(0, table_->harvestGblNetworkInterfaces(0));
  EXPECT_EQ(1, countOf(log(), "harvestGblNetworkInterfaces() leaving"));
  EXPECT_EQ(2, prop_->count(PEVT_NO_EVENT));
  EXPECT_EQ(2, mediator_->pendingSyncEvents());
}

TEST_F(InterfaceHarvest, NoLocalAdapterConfiguredMakesItRescanTheLocalInterfacesFirst) {
  table_test::setLocalInterfaces({{"lo", "127.0.0.1"}, {"sxn0", "10.0.0.1"}});
  EXPECT_EQ(1, table_->harvestGblNetworkInterfaces(1));
  EXPECT_TRUE(configured(kMyNode, "sxn0"));
  EXPECT_EQ(1, countOf(log(), "Collecting the local adapters"));
  // A local adapter is known now: the next harvest does not rescan, so a
  // new local interface waits for KOR.
  table_test::setLocalInterfaces({{"lo", "127.0.0.1"}, {"sxn0", "10.0.0.1"}, {"sxn1", "10.0.1.1"}});
  EXPECT_EQ(0, table_->harvestGblNetworkInterfaces(1));
  EXPECT_EQ(1, countOf(log(), "Collecting the local adapters"));
  EXPECT_FALSE(configured(kMyNode, "sxn1"));
}

TEST_F(InterfaceHarvest, RowsConfiguredBeforeButNoLongerReportedAreUndefined) {
  // Node 0's rows have keys 0, 1, 2: the positions the harvest compares.
  knowNodes({0});
  resetInterfaceIndexMapForTesting();
  setInterfaces({networkInterface("sxn0", idOfNode(0), "10.0.0.10"), networkInterface("sxn1", idOfNode(0), "10.0.1.10"),
                 networkInterface("sxn2", idOfNode(0), "10.0.2.10")});
  ASSERT_EQ(3, table_->harvestGblNetworkInterfaces(0));
  ASSERT_EQ(3, table_->getAdapterItemCount());
  setInterfaces(
      {networkInterface("sxn0", idOfNode(0), "10.0.0.10"), networkInterface("sxn2", idOfNode(0), "10.0.2.10")});
  EXPECT_EQ(1, table_->harvestGblNetworkInterfaces(1));
  EXPECT_TRUE(configured(0, "sxn0"));
  EXPECT_FALSE(configured(0, "sxn1"));
  EXPECT_TRUE(configured(0, "sxn2"));
  std::string text = log();
  EXPECT_EQ(1, countOf(text, "In harvestGblNetworkInterface(), i =1 set isConfiged")) << text;
  EXPECT_EQ(1, countOf(text, "harvestGblNetworkInterfaces() leaving nchanges=1"));
  // The clients were told of the undefinition.
  std::vector<table_test::SeenBatch> batches = client_->batches();
  ASSERT_FALSE(batches.empty());
  bool toldUndefined = false;
  for (const table_test::SeenRecord& r : batches.back().records)
    toldUndefined = toldUndefined || (r.node == 0 && r.name == "sxn1" && r.status == VELT_NAM_CONNECT_UNCONFIG);
  EXPECT_TRUE(toldUndefined);
}

TEST_F(InterfaceHarvest, OnlyRowsWhoseKeyIsBelowTheRowCountAreCompared) {
  // Node 2's row has key 2 x 48 + index, far above the row count (1): the
  // harvest compares positions, so it is never undefined here.
  knowNodes({2});
  setInterfaces({networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  ASSERT_EQ(1, table_->harvestGblNetworkInterfaces(0));
  setInterfaces({});
  EXPECT_EQ(0, table_->harvestGblNetworkInterfaces(0));
  EXPECT_TRUE(configured(2, "sxn0"));
}

TEST_F(InterfaceHarvest, AnInterfaceOfAnUnknownNodeHarvestsThePeerNodesOnce) {
  setPeerNodes({5});
  setInterfaces({networkInterface("sxn0", idOfNode(5), "10.0.0.5")});
  EXPECT_EQ(1, table_->harvestGblNetworkInterfaces(0));
  EXPECT_TRUE(configured(5, "sxn0"));
  EXPECT_EQ(1, fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
}

TEST_F(InterfaceHarvest, EmptyEntriesDefineNothing) {
  knowNodes({2});
  Resource empty;
  empty.handle = "if/gone";
  empty.errnum = MC_ENOATTR;
  setInterfaces({empty, networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  int rowsBefore = table_->getAdapterItemCount();
  EXPECT_EQ(1, table_->harvestGblNetworkInterfaces(0));
  EXPECT_EQ(rowsBefore + 1, table_->getAdapterItemCount());
}

TEST_F(InterfaceHarvest, AFailedSessionStartLeavesTheTableAsItWas) {
  knowNodes({2});
  setInterfaces({networkInterface("sxn0", idOfNode(2), "10.0.0.2")});
  fake_mc::failStartSessionForTesting(1, MC_ENOAGENT);
  EXPECT_EQ(-1, table_->harvestGblNetworkInterfaces(1));
  EXPECT_EQ(nullptr, row(2, "sxn0"));
  EXPECT_EQ(0, harvested());
  EXPECT_EQ(0, prop_->count(PEVT_NO_EVENT));
  EXPECT_EQ(0, mediator_->pendingSyncEvents());
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_EQ(1,
            countOf(log(), "harvestGblNI: mc_start_session fails (2: fake libvx_mc: mc_start_session failed with 2)"));
}

TEST_F(InterfaceHarvest, AFailedQueryEndsTheSessionAndLeavesTheTableAsItWas) {
  knowNodes({0});
  setInterfaces({networkInterface("sxn0", idOfNode(0), "10.0.0.10")});
  ASSERT_EQ(1, table_->harvestGblNetworkInterfaces(0));
  setInterfaces({});
  fake_mc::failQueryForTesting(KOR_CLASS_NETWORK_INTERFACE, 1, MC_ECONNLOST);
  EXPECT_EQ(-1, table_->harvestGblNetworkInterfaces(1));
  // Not reported this time, but the query failed: nothing is undefined.
  EXPECT_TRUE(configured(0, "sxn0"));
  EXPECT_EQ(0, fake_mc::sessionsOpenForTesting());
  EXPECT_EQ(2, fake_mc::sessionsEndedForTesting());
  EXPECT_EQ(1, countOf(log(), "harvestGblNI: mc_query_p_select_bp fails (3: fake libvx_mc: mc_query_p_select_bp failed "
                              "with 3)"));
}

}  // namespace

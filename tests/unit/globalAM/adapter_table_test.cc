// The global adapter table: rows, definition, membership, the delayed-down
// timer (on the replaced clock), node stops, the local rescan and the
// node-id map.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "sw_NAM_calls.h"
#include "sw_adapter_info.h"
#include "table_test_support.h"
#include "trace_test_support.h"

namespace {

using table_test::advanceSeconds;
using table_test::deltaRecordCount;
using table_test::deltaStatus;
using table_test::FakeNamClient;
using table_test::FakePropagator;
using table_test::kMyNode;
using table_test::makeInterface;
using table_test::Members;
using table_test::TableFixture;

constexpr uint64_t kNet = 0x100;

// Row statuses as clients see them, by what every record in the batches
// said about one adapter.
std::vector<int> statusesSeen(FakeNamClient& client, int node, const std::string& name) {
  std::vector<int> seen;
  for (const auto& batch : client.batches()) {
    for (const auto& rec : batch.records) {
      if (rec.node == static_cast<uint32_t>(node) && rec.name == name) seen.push_back(rec.status);
    }
  }
  return seen;
}

// ------------------------------------------------------------------- rows

TEST(AdapterItem, ClearedRowHasNoNameNoNodeAndNoFlags) {
  AMAdapterItem row;
  EXPECT_EQ(std::string(), row.interfacename);
  EXPECT_EQ(std::string(), row.devicename.c_str());
  EXPECT_EQ(0u, row.ipaddr);
  EXPECT_EQ(-1, row.nodenumber);
  EXPECT_EQ(0, row.networkid);
  EXPECT_EQ(-1, row.LID);
  EXPECT_EQ(0u, row.isConfiged);
  EXPECT_EQ(0u, row.isUp);
  EXPECT_EQ(0u, row.isNodeStopped);
  EXPECT_EQ(0u, row.isPending);
  EXPECT_EQ(0, row.when_happen.tv_sec);
  EXPECT_EQ(0u, row.networkId64);
  EXPECT_EQ(0u, row.adapterType);
  EXPECT_EQ(0u, row.spigot_id);
  EXPECT_EQ(std::string(), row.hardwareAddress);
  EXPECT_EQ(std::string(), row.devicePathName);
}

TEST(AdapterItem, UpdateWithCopiesConfigurationAndKeepsFlags) {
  AMAdapterItem row;
  row.isUp = 1;
  row.when_happen.tv_sec = 42;
  AMNetInterface obj = makeInterface(3, "sxn2", "10.1.2.3", 0xabc, 2);
  strcpy(obj.hardwareAddress, "00:11:22");
  obj.adapterType = 32;
  obj.spigot_id = 9;
  obj.up_running = 1;
  row.updateWith(obj);
  EXPECT_STREQ("sxn2", row.interfacename);
  EXPECT_STREQ("dev_sxn2", row.devicename.c_str());
  EXPECT_EQ(obj.ipaddr, row.ipaddr);
  EXPECT_EQ(3, row.nodenumber);
  EXPECT_EQ(7, row.LID);
  EXPECT_EQ(2, row.networkid);
  EXPECT_EQ(0xabcu, row.networkId64);
  EXPECT_EQ(32u, row.adapterType);
  EXPECT_EQ(9u, row.spigot_id);
  EXPECT_STREQ("00:11:22", row.hardwareAddress);
  EXPECT_STREQ("/dev/sxn2", row.devicePathName);
  EXPECT_EQ(1u, row.isUp);
  EXPECT_EQ(0u, row.isConfiged);
  EXPECT_EQ(42, row.when_happen.tv_sec);
}

TEST(AdapterItem, UpdateWithCutsAnUnterminatedNameAtItsLastByte) {
  AMAdapterItem row;
  AMNetInterface obj = makeInterface(1, "x", "10.0.0.1", 1);
  memset(obj.ifrName, 'a', sizeof obj.ifrName);            // no NUL within 16
  memset(obj.devicePathName, 'p', sizeof obj.devicePathName);
  row.updateWith(obj);
  EXPECT_EQ(std::string(15, 'a'), row.interfacename);
  EXPECT_EQ('\0', row.interfacename[15]);
  EXPECT_EQ(std::string(15, 'p'), row.devicePathName);
}

class TableRows : public TableFixture {};

TEST_F(TableRows, RowsAreMadeOnFirstMentionWithTheirNodeNumber) {
  GSWriteGuard hold(*table_);
  EXPECT_EQ(nullptr, table_->locateAdapterItem(4, 2));
  AMAdapterItem* row = table_->getOrNewAdapterItem(4, 2);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(4, row->nodenumber);
  EXPECT_EQ(0u, row->isConfiged);
  EXPECT_EQ(row, table_->getOrNewAdapterItem(4, 2));
  EXPECT_EQ(row, table_->locateAdapterItem(4, 2));
  EXPECT_EQ(row, table_->locateAdapterItemByIndex(4 * MaxAdaptersOnNode + 2));
  EXPECT_EQ(1, table_->getAdapterItemCount());
}

TEST_F(TableRows, IndexFortyEightOfANodeIsIndexZeroOfTheNext) {
  EXPECT_EQ(AMGlobalAdapterTable::offsetOfAdapterItem(6, 48), AMGlobalAdapterTable::offsetOfAdapterItem(7, 0));
  GSWriteGuard hold(*table_);
  AMAdapterItem* row = table_->getOrNewAdapterItem(6, 48);
  EXPECT_EQ(row, table_->locateAdapterItem(7, 0));
  // The row keeps the node it was first made for.
  EXPECT_EQ(6, table_->getOrNewAdapterItem(7, 0)->nodenumber);
}

TEST_F(TableRows, TheSwitchDeviceNumberIsNeverLookedUp) { EXPECT_EQ(-1, table_->getSXNDeviceNum("sxn0")); }

TEST_F(TableRows, TheTableHoldsEveryAdapterOfTheLargestCluster) {
  GSWriteGuard hold(*table_);
  for (int node = 0; node < MaxNodesInDomain; ++node)
    for (int idx = 0; idx < MaxAdaptersOnNode; ++idx) table_->getOrNewAdapterItem(node, idx);
  EXPECT_EQ(MaxNodesInDomain * MaxAdaptersOnNode, table_->getAdapterItemCount());
  AMAdapterItem* last = table_->locateAdapterItem(MaxNodesInDomain - 1, MaxAdaptersOnNode - 1);
  ASSERT_NE(nullptr, last);
  EXPECT_EQ(MaxNodesInDomain - 1, last->nodenumber);
}

// ------------------------------------------------- highest switch network

class HighestSwitchNetwork : public TableFixture {
 protected:
  // What a walk over every row finds: the highest network of a configured
  // switch row, or -1.
  int highestByWalk() {
    GSReadGuard hold(*table_);
    int highest = -1;
    for (auto& entry : table_->getAdapterItemList()) {
      const AMAdapterItem* row = entry.second;
      if (row->isConfiged && isSwitchAdapter(row->interfacename) && row->networkid > highest) {
        highest = row->networkid;
      }
    }
    return highest;
  }
};

TEST_F(HighestSwitchNetwork, NoSwitchRowIsMinusOne) {
  EXPECT_EQ(-1, table_->highestSwitchNetworkWithLock());
  table_->setAdapterDefinedWithLock(makeInterface(2, "ib0", "10.0.0.2", kNet, 5));
  EXPECT_EQ(-1, table_->highestSwitchNetworkWithLock());
}

TEST_F(HighestSwitchNetwork, UndefiningTheLastRowOfTheHighestNetworkLowersIt) {
  table_->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", kNet, 1));
  table_->setAdapterDefinedWithLock(makeInterface(3, "sxn1", "10.0.1.3", kNet, 6));
  table_->setAdapterDefinedWithLock(makeInterface(4, "sxn1", "10.0.1.4", kNet, 6));
  EXPECT_EQ(6, table_->highestSwitchNetworkWithLock());
  table_->setAllAdapterUndefinedOnNodeWithLock(3);
  EXPECT_EQ(6, table_->highestSwitchNetworkWithLock());
  {
    GSWriteGuard hold(*table_);
    table_->setAdapterUndefinedWithoutLock(4, "sxn1");
  }
  EXPECT_EQ(1, table_->highestSwitchNetworkWithLock());
  // Defined again on a lower network: the row no longer counts where it was.
  table_->setAdapterDefinedWithLock(makeInterface(4, "sxn1", "10.0.1.4", kNet, 9));
  EXPECT_EQ(9, table_->highestSwitchNetworkWithLock());
  table_->setAdapterDefinedWithLock(makeInterface(4, "sxn1", "10.0.1.4", kNet, 0));
  EXPECT_EQ(1, table_->highestSwitchNetworkWithLock());
}

TEST_F(HighestSwitchNetwork, FollowsEveryPathThatDefinesOrUndefinesARow) {
  // Random definitions (switch and other names, networks up and down),
  // undefinitions one by one and by node, node stops, node-id moves and
  // memberships that make unnamed rows, each followed by the answer a walk
  // over the rows gives.
  const char* names[] = {"sxn0", "sxn1", "sxn5", "sn2", "ib0", "eth3"};
  std::vector<int> indexes;
  for (const char* name : names) indexes.push_back(_idxFromInterfaceName(name));
  std::mt19937 rng(4242);
  std::set<int> answers;
  for (int step = 0; step < 4000; ++step) {
    const int node = 2 + static_cast<int>(rng() % 4);
    const char* name = names[rng() % 6];
    switch (rng() % 8) {
      case 0:
      case 1:
      case 2: {
        std::string ip = "10.1." + std::to_string(node) + ".1";
        table_->setAdapterDefinedWithLock(makeInterface(node, name, ip.c_str(), kNet, rng() % 16));
        break;
      }
      case 3: {
        GSWriteGuard hold(*table_);
        table_->setAdapterUndefinedWithoutLock(node, name);
        break;
      }
      case 4:
        table_->setAllAdapterUndefinedOnNodeWithLock(node);
        break;
      case 5:
        table_->setAllAdapterStoppedOnNodeWithLock(node);
        break;
      case 6:
        // An id that moves to another node number undefines the old one's
        // adapters.
        setNodeIdMap(node, 0x1000 + rng() % 4);
        break;
      default:
        table_->updateAdapterStateWithLock(rng() % 2, Members().add(node, indexes[rng() % 6]).add(node, 40).get(),
                                           rng() % 2);
        break;
    }
    const int highest = table_->highestSwitchNetworkWithLock();
    ASSERT_EQ(highestByWalk(), highest) << "after step " << step;
    answers.insert(highest);
  }
  reflect_NAM_changes();
  // The walk went up and down through most answers, -1 included.
  EXPECT_GE(answers.size(), 10u);
  EXPECT_EQ(1u, answers.count(-1));
}

// ------------------------------------------------------------- definition

class Definition : public TableFixture {};

TEST_F(Definition, DefiningAnAdapterAnnouncesItAsDown) {
  EXPECT_EQ(1, table_->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", kNet)));
  uint64_t net = 0;
  EXPECT_EQ(VELT_NAM_CONNECT_DOWN, deltaStatus(2, "sxn0", &net));
  EXPECT_EQ(kNet, net);
  GSReadGuard hold(*table_);
  AMAdapterItem* row = table_->locateAdapterItem(2, _idxFromInterfaceName("sxn0"));
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(1u, row->isConfiged);
  EXPECT_EQ(0u, row->isUp);
}

TEST_F(Definition, IdenticalAttributesAreNoChange) {
  AMNetInterface obj = makeInterface(2, "sxn0", "10.0.0.2", kNet);
  defineAndSettle(obj);
  EXPECT_EQ(1, table_->getAdapterItemCount());
  EXPECT_EQ(0, table_->setAdapterDefinedWithLock(obj));
  EXPECT_EQ(0u, deltaRecordCount());
}

TEST_F(Definition, AHardwareAddressChangeAloneIsAnUpdate) {
  AMNetInterface obj = makeInterface(2, "sxn0", "10.0.0.2", kNet);
  defineAndSettle(obj);
  strcpy(obj.hardwareAddress, "00:11:22:33");
  EXPECT_EQ(1, table_->setAdapterDefinedWithLock(obj));
  EXPECT_EQ(VELT_NAM_CONNECT_DOWN, deltaStatus(2, "sxn0"));
}

TEST_F(Definition, EveryAttributeTakesPartInTheComparison) {
  AMNetInterface base = makeInterface(2, "sxn0", "10.0.0.2", kNet, 0);
  defineAndSettle(base);
  std::vector<void (*)(AMNetInterface&)> changes = {
      [](AMNetInterface& o) { o.ipaddr ^= 1; },
      [](AMNetInterface& o) { o.adapterLID += 1; },
      [](AMNetInterface& o) { strcpy(o.deviceName, "other"); },
      [](AMNetInterface& o) { o.adapterNetworkID += 1; },
      [](AMNetInterface& o) { o.networkId64 += 1; },
      [](AMNetInterface& o) { o.adapterType += 1; },
      [](AMNetInterface& o) { o.spigot_id += 1; },
      [](AMNetInterface& o) { strcpy(o.devicePathName, "/dev/x"); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    AMNetInterface changed = base;
    changes[i](changed);
    EXPECT_EQ(1, table_->setAdapterDefinedWithLock(changed)) << "change " << i;
    EXPECT_EQ(1, table_->setAdapterDefinedWithLock(base)) << "back from change " << i;
    EXPECT_EQ(0, table_->setAdapterDefinedWithLock(base)) << "again after change " << i;
  }
  // family and up_running are not part of the adapter's configuration.
  AMNetInterface other = base;
  other.family = AF_INET6;
  other.up_running = 1;
  EXPECT_EQ(0, table_->setAdapterDefinedWithLock(other));
}

TEST_F(Definition, AnUnterminatedNameIsStoredCutAndComparesEqualNextTime) {
  AMNetInterface obj = makeInterface(2, "x", "10.0.0.2", kNet);
  memset(obj.ifrName, 's', sizeof obj.ifrName);
  EXPECT_EQ(1, table_->setAdapterDefinedWithLock(obj));
  EXPECT_EQ(0, table_->setAdapterDefinedWithLock(obj));
}

TEST_F(Definition, DefinitionLeavesMembershipAlone) {
  AMNetInterface obj = makeInterface(2, "sxn0", "10.0.0.2", kNet);
  defineAndSettle(obj);
  table_->updateAdapterStateWithLock(1, Members().add(2, _idxFromInterfaceName("sxn0")).get(), 1);
  obj.adapterLID = 99;
  EXPECT_EQ(1, table_->setAdapterDefinedWithLock(obj));
  EXPECT_EQ(VELT_NAM_CONNECT_UP, deltaStatus(2, "sxn0"));
}

TEST_F(Definition, UndefiningAConfiguredAdapterAnnouncesItOnce) {
  defineAndSettle(makeInterface(2, "sxn0", "10.0.0.2", kNet));
  GSWriteGuard hold(*table_);
  EXPECT_EQ(1, table_->setAdapterUndefinedWithoutLock(2, "sxn0"));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, deltaStatus(2, "sxn0"));
  EXPECT_EQ(0, table_->setAdapterUndefinedWithoutLock(2, "sxn0"));
}

TEST_F(Definition, UndefiningAnUnknownAdapterMakesAnEmptyRow) {
  GSWriteGuard hold(*table_);
  EXPECT_EQ(0, table_->setAdapterUndefinedWithoutLock(9, "sxn5"));
  AMAdapterItem* row = table_->locateAdapterItem(9, _idxFromInterfaceName("sxn5"));
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(0u, row->isConfiged);
  EXPECT_EQ(0, table_->setAdapterUndefinedWithoutLock(9, nullptr));
  EXPECT_EQ(0u, deltaRecordCount());
}

TEST_F(Definition, ConfiguredOnNetworkMatchesTheNumberOrInInfiniBandTheWideId) {
  defineAndSettle(makeInterface(2, "sxn0", "10.0.0.2", 0x5000, 3));
  EXPECT_EQ(gkTRUE, table_->AdapterConfiguredOnNetwork(3, 0));
  EXPECT_EQ(gkFALSE, table_->AdapterConfiguredOnNetwork(4, 0x5000));
  isIBenv.store(true);
  EXPECT_EQ(gkTRUE, table_->AdapterConfiguredOnNetwork(0, 0x5000));
  EXPECT_EQ(gkFALSE, table_->AdapterConfiguredOnNetwork(3, 0x5001));
  isIBenv.store(false);
  GSWriteGuard hold(*table_);
  table_->setAdapterUndefinedWithoutLock(2, "sxn0");
  EXPECT_EQ(gkFALSE, table_->AdapterConfiguredOnNetwork(3, 0));
}

TEST_F(Definition, ALocalSwitchAdapterOnANewNetworkMovesItsCookedProvider) {
  // The controller's own mediator, with the cooked provider of sxn0.
  AMMediator* mediator = ctl_->mediators[0];
  const int savedNetworks = currentNumbersOfNetworks.exchange(8);
  table_->setAdapterDefinedWithLock(makeInterface(kMyNode, "sxn0", "10.0.0.1", kNet, 0));
  AMCookedProvider* provider = mediator->appendMember("sxn0");
  ASSERT_NE(nullptr, provider);
  EXPECT_EQ(0, provider->getAttachedNetworkNum());
  table_->setAdapterDefinedWithLock(makeInterface(kMyNode, "sxn0", "10.0.0.1", kNet, 4));
  EXPECT_EQ(4, provider->getAttachedNetworkNum());
  // Another node's adapter, or a change that keeps the network, moves
  // nothing.
  table_->setAdapterDefinedWithLock(makeInterface(kMyNode + 1, "sxn0", "10.0.0.9", kNet, 6));
  AMNetInterface sameNet = makeInterface(kMyNode, "sxn0", "10.0.0.1", kNet, 4);
  sameNet.adapterLID = 55;
  table_->setAdapterDefinedWithLock(sameNet);
  EXPECT_EQ(4, provider->getAttachedNetworkNum());
  EXPECT_EQ(1, mediator->getNumOfCookedProviders());
  currentNumbersOfNetworks.store(savedNetworks);
  GSReadGuard hold(*table_);
  EXPECT_EQ(4, table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn0"))->networkid);
}

TEST_F(Definition, TheLocalCheckFindsAConfiguredAdapterOfThisNode) {
  EXPECT_EQ(2, table_->checkRawDevices());
  table_->setAdapterDefinedWithLock(makeInterface(kMyNode + 1, "sxn0", "10.0.0.2", kNet));
  EXPECT_EQ(2, table_->checkRawDevices());
  table_->setAdapterDefinedWithLock(makeInterface(kMyNode, "sxn3", "10.0.0.1", kNet));
  EXPECT_EQ(0, table_->checkRawDevices());
}

// ------------------------------------------------------------- membership

class Membership : public TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    client_ = std::make_unique<FakeNamClient>(11);
    ctl_->insertNamClient(client_.get());
    defineAndSettle(makeInterface(2, "sxn0", "10.0.0.2", kNet));
    idx_ = _idxFromInterfaceName("sxn0");
    client_->forget();
  }
  const AMAdapterItem& row() {
    GSReadGuard hold(*table_);
    return *table_->locateAdapterItem(2, idx_);
  }
  std::unique_ptr<FakeNamClient> client_;
  int idx_ = 0;
};

TEST_F(Membership, AnUpIsAnnouncedAndPublished) {
  EXPECT_EQ(1, table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 1));
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UP}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_EQ(std::vector<int>{VELT_NAM_UPDATE_EVENT}, client_->wakeups());
  EXPECT_EQ(1u, row().isUp);
}

TEST_F(Membership, AnEmptyListChangesNothingAndPublishesNothing) {
  // A change waits in the delta table; an empty list must not publish it.
  table_->setAdapterDefinedWithLock(makeInterface(3, "sxn0", "10.0.0.3", kNet));
  EXPECT_EQ(0, table_->updateAdapterStateWithLock(1, Members().get(), 1));
  EXPECT_EQ(0, table_->updateAdapterStateWithLock(0, Members().get(), 1));
  EXPECT_EQ(0, table_->updateAdapterStateWithLock(1, nullptr, 1));
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_TRUE(client_->wakeups().empty());
  EXPECT_EQ(VELT_NAM_CONNECT_DOWN, deltaStatus(3, "sxn0"));
}

TEST_F(Membership, WithoutReflectTheChangeWaitsInTheDeltaTable) {
  table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 0);
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_EQ(VELT_NAM_CONNECT_UP, deltaStatus(2, "sxn0"));
}

TEST_F(Membership, AnUpForAnUnknownProviderMakesAnUnconfiguredRow) {
  table_->updateAdapterStateWithLock(1, Members().add(40, 5).get(), 1);
  GSReadGuard hold(*table_);
  AMAdapterItem* row = table_->locateAdapterItem(40, 5);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(1u, row->isUp);
  EXPECT_EQ(0u, row->isConfiged);
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UNCONFIG}, statusesSeen(*client_, 40, ""));
}

// ------------------------------------------------------------ delayed downs

class DelayedDown : public Membership {
 protected:
  void SetUp() override {
    Membership::SetUp();
    AMController::propagator = &propagator_;
    table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 1);
    client_->forget();
  }
  void down() { table_->updateAdapterStateWithLock(0, Members().add(2, idx_).get(), 1); }
  FakePropagator propagator_;
};

TEST_F(DelayedDown, ADownIsHeldBackAndTheAdapterStillLooksUp) {
  down();
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_EQ(0u, deltaRecordCount());
  EXPECT_TRUE(table_->IsThereADelayedDownEvent());
  EXPECT_EQ(1u, row().isPending);
  EXPECT_EQ(0u, row().isUp);
  EXPECT_EQ(1, propagator_.delayedDownPosts.load());
}

TEST_F(DelayedDown, UpWithinTheDelayAnnouncesNothingForTheDown) {
  down();
  advanceSeconds(10);
  EXPECT_EQ(1, table_->processDelayedDownEvents());
  table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 1);
  EXPECT_EQ(0u, row().isPending);
  advanceSeconds(30);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_FALSE(table_->IsThereADelayedDownEvent());
  // Clients only ever saw the adapter up.
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UP}, statusesSeen(*client_, 2, "sxn0"));
}

TEST_F(DelayedDown, AfterTheDelayTheDownIsAnnouncedOnceAndPublished) {
  down();
  advanceSeconds(15.5);
  EXPECT_EQ(1, table_->processDelayedDownEvents());
  EXPECT_TRUE(client_->batches().empty());
  advanceSeconds(0.5);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_EQ(std::vector<int>{VELT_NAM_UPDATE_EVENT}, client_->wakeups());
  EXPECT_EQ(0u, row().isPending);
  advanceSeconds(20);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ(1u, client_->batches().size());
}

TEST_F(DelayedDown, TheWaitCountsDownFromTheEarliestHeldBackDown) {
  struct timeval wait = {-1, -1};
  EXPECT_EQ(0, table_->computeNextWaitTime(&wait));
  down();
  ASSERT_EQ(1, table_->computeNextWaitTime(&wait));
  EXPECT_EQ(16, wait.tv_sec);
  EXPECT_EQ(0, wait.tv_usec);
  advanceSeconds(10.5);
  ASSERT_EQ(1, table_->computeNextWaitTime(&wait));
  EXPECT_EQ(5, wait.tv_sec);
  EXPECT_EQ(500000, wait.tv_usec);
  advanceSeconds(60);
  ASSERT_EQ(1, table_->computeNextWaitTime(&wait));
  EXPECT_EQ(0, wait.tv_sec);
  EXPECT_EQ(0, wait.tv_usec);
}

TEST_F(DelayedDown, APassKeepsTheYoungerDownsAndRetimesToTheOldestOfThem) {
  table_->setAdapterDefinedWithLock(makeInterface(3, "sxn0", "10.0.0.3", kNet));
  table_->updateAdapterStateWithLock(1, Members().add(3, idx_).get(), 1);
  client_->forget();
  down();                // node 2 at t
  advanceSeconds(6);
  table_->updateAdapterStateWithLock(0, Members().add(3, idx_).get(), 1);  // node 3 at t+6
  advanceSeconds(10);    // t+16: node 2's delay has run out
  int postsBefore = propagator_.delayedDownPosts.load();
  EXPECT_EQ(1, table_->processDelayedDownEvents());
  EXPECT_EQ(postsBefore + 1, propagator_.delayedDownPosts.load());  // wait once more
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_TRUE(statusesSeen(*client_, 3, "sxn0").empty());
  struct timeval wait;
  ASSERT_EQ(1, table_->computeNextWaitTime(&wait));
  EXPECT_EQ(6, wait.tv_sec);
  advanceSeconds(6);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ(postsBefore + 1, propagator_.delayedDownPosts.load());
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 3, "sxn0"));
}

// Down, up and down again before any pass: one down, announced once, its
// delay counted from the second.
TEST_F(DelayedDown, AFlapWithinTheDelayIsOneDownCountedFromItsLastChange) {
  down();
  advanceSeconds(5);
  table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 1);
  advanceSeconds(5);
  down();
  advanceSeconds(15);  // 20 s after the first down, 15 after the second
  EXPECT_EQ(1, table_->processDelayedDownEvents());
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UP}, statusesSeen(*client_, 2, "sxn0"));
  advanceSeconds(1);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ((std::vector<int>{VELT_NAM_CONNECT_UP, VELT_NAM_CONNECT_DOWN}), statusesSeen(*client_, 2, "sxn0"));
  advanceSeconds(20);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ((std::vector<int>{VELT_NAM_CONNECT_UP, VELT_NAM_CONNECT_DOWN}), statusesSeen(*client_, 2, "sxn0"));
  EXPECT_FALSE(table_->IsThereADelayedDownEvent());
}

TEST_F(DelayedDown, ADelayOfZeroAnnouncesEveryDownOnTheNextPass) {
  // What start-up leaves for SW_HERDLET_DOWN_DELAY_SECS=0.
  WAIT_PENDING_DELAYED_DOWN_USECS = 0;
  down();
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 2, "sxn0"));
}

TEST_F(DelayedDown, TheDefaultDelayIsSixteenSeconds) {
  // What start-up leaves for a negative SW_HERDLET_DOWN_DELAY_SECS.
  EXPECT_EQ(16000000, WAIT_PENDING_DELAYED_DOWN_USECS);
  down();
  advanceSeconds(15.5);
  EXPECT_EQ(1, table_->processDelayedDownEvents());
  advanceSeconds(0.5);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
}

TEST_F(DelayedDown, TimesAreKeptInHalfSeconds) {
  table_test::fakeMonoUsecs().fetch_add(400000);  // x.4 s reads as x.0 s
  down();
  advanceSeconds(15.7);                            // x.4 + 15.7 = x+16.1 -> x+16.0
  EXPECT_EQ(0, table_->processDelayedDownEvents());
}

TEST_F(DelayedDown, ASecondDownOfAHeldBackAdapterAnnouncesItAtOnce) {
  down();
  down();
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_EQ(0u, row().isPending);
}

TEST_F(DelayedDown, TheWriteLockIsTakenAgainUnderTheHolder) {
  // updateAdapterStateWithLock holds the write lock while the held-back down
  // takes it again; a plain lock would hang here.
  GSWriteGuard hold(*table_);
  down();
  EXPECT_TRUE(table_->isWriteLockedByMe());
  EXPECT_TRUE(table_->IsThereADelayedDownEvent());
}

// -------------------------------------------------------------- node stop

class NodeStop : public DelayedDown {};

TEST_F(NodeStop, AStoppedNodeIsAnnouncedAndItsDownIsRecordedSilently) {
  EXPECT_EQ(1, table_->setAllAdapterStoppedOnNodeWithLock(2));
  reflect_NAM_changes();
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UNCONFIG}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_EQ(1u, row().isUp);  // the stopped bit alone makes it STOPPED
  client_->forget();
  down();
  EXPECT_TRUE(client_->batches().empty());
  EXPECT_EQ(0u, deltaRecordCount());
  EXPECT_EQ(0u, row().isUp);
  EXPECT_EQ(0u, row().isPending);
  EXPECT_FALSE(table_->IsThereADelayedDownEvent());
}

TEST_F(NodeStop, AnUpClearsTheStoppedBit) {
  table_->setAllAdapterStoppedOnNodeWithLock(2);
  down();
  EXPECT_EQ(1u, row().isNodeStopped);
  table_->updateAdapterStateWithLock(1, Members().add(2, idx_).get(), 1);
  EXPECT_EQ(0u, row().isNodeStopped);
  EXPECT_EQ(1u, row().isUp);
  EXPECT_EQ(VELT_NAM_CONNECT_UP, statusesSeen(*client_, 2, "sxn0").back());
}

TEST_F(NodeStop, AHeldBackDownOfANodeThatStopsIsNotAnnouncedAgain) {
  down();
  table_->setAllAdapterStoppedOnNodeWithLock(2);  // announces STOPPED, clears the hold
  reflect_NAM_changes();
  client_->forget();
  advanceSeconds(20);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_TRUE(client_->batches().empty());
}

TEST_F(NodeStop, RemovingANodeUndefinesItsAdapters) {
  EXPECT_EQ(1, table_->setAllAdapterUndefinedOnNodeWithLock(2));
  EXPECT_EQ(0u, row().isConfiged);
  EXPECT_EQ(1u, row().isNodeStopped);
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, deltaStatus(2, "sxn0"));
  EXPECT_EQ(0, table_->setAllAdapterUndefinedOnNodeWithLock(2));  // nothing configured left
  EXPECT_EQ(0, table_->setAllAdapterStoppedOnNodeWithLock(77));
}

TEST_F(NodeStop, ANodeComingBackAnnouncesItsConfiguredAdapters) {
  table_->setAllAdapterStoppedOnNodeWithLock(2);
  reflect_NAM_changes();
  EXPECT_EQ(0, table_->resetIsNodeStoppedBit(2));
  EXPECT_EQ(0u, row().isNodeStopped);
  EXPECT_EQ(VELT_NAM_CONNECT_UP, deltaStatus(2, "sxn0"));
}

TEST_F(NodeStop, RepopulatingAnnouncesEveryRunningAdapterAndPublishes) {
  table_->setAdapterDefinedWithLock(makeInterface(3, "sxn0", "10.0.0.3", kNet));
  table_->setAdapterDefinedWithLock(makeInterface(4, "sxn0", "10.0.0.4", kNet));
  table_->setAllAdapterStoppedOnNodeWithLock(4);
  reflect_NAM_changes();
  client_->forget();
  EXPECT_EQ(1, table_->repopulateAllNAMInfoWithLock());
  ASSERT_EQ(1u, client_->batches().size());
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_UP}, statusesSeen(*client_, 2, "sxn0"));
  EXPECT_EQ(std::vector<int>{VELT_NAM_CONNECT_DOWN}, statusesSeen(*client_, 3, "sxn0"));
  EXPECT_TRUE(statusesSeen(*client_, 4, "sxn0").empty());
}

// ---------------------------------------------------------- local rescan

class LocalRescan : public TableFixture {};

TEST_F(LocalRescan, SwitchInterfacesOfThisNodeAreDefined) {
  table_test::setLocalInterfaces({{"lo", "127.0.0.1"}, {"sxn0", "10.0.0.1"}, {"sxn1", "10.1.0.1"}});
  EXPECT_FALSE(table_->hasSwitchOnTheNode);
  EXPECT_EQ(2, table_->refreshLocalTable(0));
  EXPECT_TRUE(table_->hasSwitchOnTheNode);
  GSReadGuard hold(*table_);
  AMAdapterItem* sxn1 = table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn1"));
  ASSERT_NE(nullptr, sxn1);
  EXPECT_EQ(1u, sxn1->isConfiged);
  EXPECT_EQ(1, sxn1->networkid);
  EXPECT_EQ(kMyNode, sxn1->nodenumber);
  EXPECT_EQ(2, table_->getAdapterItemCount());  // lo is not a switch adapter
}

TEST_F(LocalRescan, AVanishedInterfaceKeepsItsRowAndIsNoChange) {
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.1"}, {"sxn1", "10.1.0.1"}});
  EXPECT_EQ(2, table_->refreshLocalTable(1));
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.1"}});
  EXPECT_EQ(0, table_->refreshLocalTable(1));
  EXPECT_EQ(0u, deltaRecordCount());
  GSReadGuard hold(*table_);
  AMAdapterItem* sxn1 = table_->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn1"));
  ASSERT_NE(nullptr, sxn1);
  EXPECT_EQ(1u, sxn1->isConfiged);
}

TEST_F(LocalRescan, AutoReflectPublishesTheRescan) {
  FakeNamClient client(5);
  ctl_->insertNamClient(&client);
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.1"}});
  table_->refreshLocalTable(0);
  EXPECT_TRUE(client.batches().empty());
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.7"}});
  EXPECT_EQ(1, table_->refreshLocalTable(1));
  EXPECT_EQ(1u, client.batches().size());
  EXPECT_EQ(0u, deltaRecordCount());
}

TEST_F(LocalRescan, TheControllerMakesTheTableAndFillsItsLocalPart) {
  table_test::setLocalInterfaces({{"sxn0", "10.0.0.1"}});
  AMController* second = new AMController();
  AMGlobalAdapterTable* made = AMController::pGAdapterCfgTbl;
  ASSERT_NE(nullptr, made);
  EXPECT_NE(table_, made);
  {
    GSReadGuard hold(*made);
    AMAdapterItem* row = made->locateAdapterItem(kMyNode, _idxFromInterfaceName("sxn0"));
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(1u, row->isConfiged);
    EXPECT_TRUE(made->hasSwitchOnTheNode);
  }
  delete second;
  delete made;
  AMController::pGAdapterCfgTbl = table_;
}

// ----------------------------------------------------------- node-id map

class NodeIdMap : public TableFixture {};

TEST_F(NodeIdMap, TheMapGrowsAHundredBeyondTheNode) {
  EXPECT_EQ(0, nodeIdMapCapacityForTesting());
  EXPECT_EQ(1, setNodeIdMap(5, 0x55));
  EXPECT_EQ(105, nodeIdMapCapacityForTesting());
  EXPECT_EQ(5, getNodeNumFromNodeId(0x55));
  EXPECT_EQ(0, setNodeIdMap(5, 0x55));  // the same id again
  EXPECT_EQ(1, setNodeIdMap(104, 0x66));
  EXPECT_EQ(105, nodeIdMapCapacityForTesting());
  EXPECT_EQ(1, setNodeIdMap(105, 0x77));
  EXPECT_EQ(205, nodeIdMapCapacityForTesting());
  EXPECT_EQ(5, getNodeNumFromNodeId(0x55));
}

TEST_F(NodeIdMap, NodesAbove32000AreRefused) {
  EXPECT_EQ(0, setNodeIdMap(32001, 0x99));
  EXPECT_EQ(0, nodeIdMapCapacityForTesting());
  EXPECT_EQ(-1, getNodeNumFromNodeId(0x99));
  EXPECT_EQ(1, setNodeIdMap(32000, 0x99));
  EXPECT_EQ(32000, getNodeNumFromNodeId(0x99));
}

TEST_F(NodeIdMap, IdZeroIsNoNode) {
  EXPECT_EQ(-1, getNodeNumFromNodeId(0));
  setNodeIdMap(3, 0x33);
  EXPECT_EQ(-1, getNodeNumFromNodeId(0));
  EXPECT_EQ(-1, getNodeNumFromNodeId(0x34));
}

TEST_F(NodeIdMap, AnIdMovingToAnotherNodeUndefinesTheOldNodesAdaptersFirst) {
  setNodeIdMap(3, 0xabc);
  defineAndSettle(makeInterface(3, "sxn0", "10.0.0.3", kNet));
  defineAndSettle(makeInterface(3, "sxn1", "10.1.0.3", kNet + 1));
  EXPECT_EQ(1, setNodeIdMap(7, 0xabc));
  EXPECT_EQ(7, getNodeNumFromNodeId(0xabc));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, deltaStatus(3, "sxn0"));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, deltaStatus(3, "sxn1"));
  GSReadGuard hold(*table_);
  EXPECT_EQ(0u, table_->locateAdapterItem(3, _idxFromInterfaceName("sxn0"))->isConfiged);
}

TEST_F(NodeIdMap, ResettingANodeUndefinesItsAdapters) {
  setNodeIdMap(3, 0xabc);
  defineAndSettle(makeInterface(3, "sxn0", "10.0.0.3", kNet));
  EXPECT_EQ(1, resetNodeIdMap(3));
  EXPECT_EQ(-1, getNodeNumFromNodeId(0xabc));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, deltaStatus(3, "sxn0"));
  EXPECT_EQ(0, resetNodeIdMap(3));
}

TEST_F(NodeIdMap, ANegativeNodeOnlyClearsTheIdElsewhere) {
  setNodeIdMap(3, 0xabc);
  EXPECT_EQ(1, setNodeIdMap(-1, 0xabc));
  EXPECT_EQ(-1, getNodeNumFromNodeId(0xabc));
  EXPECT_EQ(0, setNodeIdMap(-1, 0xdef));
}

TEST_F(NodeIdMap, ClearingKeepsTheCapacity) {
  setNodeIdMap(10, 0x10);
  clearNodeIdMappings();
  EXPECT_EQ(-1, getNodeNumFromNodeId(0x10));
  EXPECT_EQ(110, nodeIdMapCapacityForTesting());
}

// ------------------------------------------------------------ construction

class TableConstruction : public trace_test::TraceLogFixture {};

TEST_F(TableConstruction, AMissingNamDeviceIsTracedAndTolerated) {
  AMGlobalAdapterTable table;
  EXPECT_EQ(0, table.getAdapterItemCount());
  EXPECT_FALSE(table.hasSwitchOnTheNode);
  EXPECT_EQ(0, table.isHarvested());
  EXPECT_FALSE(table.IsThereADelayedDownEvent());
  drain();
  EXPECT_EQ(1, trace_test::countContaining(logLines(), "/dev/nampd0 is not opened or found"));
}

}  // namespace

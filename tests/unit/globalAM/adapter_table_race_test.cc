// Concurrent use of the adapter table in the lock order AMNetIf.h writes
// down (node-id map, table, delta table, client list, a session's queue):
// membership writers, definitions, node-id moves and node stops, readers of
// the full table, client sessions coming and going, and the propagator's
// delayed-down pass on the replaced clock. The test checks that nothing
// deadlocks (bounded wait), that every batch a session packs has counts that
// match its records, and that after a final pass every adapter's last
// published record is what its row says. scripts/tsan-check runs it under
// ThreadSanitizer.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "sw_NAM_calls.h"
#include "sw_adapter_info.h"
#include "table_test_support.h"

namespace {

using table_test::FakeNamClient;
using table_test::FakePropagator;
using table_test::makeInterface;
using table_test::Members;
using table_test::TableFixture;

constexpr int kNodes = 48;
constexpr int kAdaptersPerNode = 4;
constexpr uint64_t kNetworks[2] = {0x1000, 0x2000};
constexpr int kIterations = 1500;
// Far beyond what the work needs even under a sanitizer: only a deadlock
// gets here.
constexpr auto kDeadline = std::chrono::seconds(240);

std::string adapterName(int idx) { return "sxn" + std::to_string(idx); }

AMNetInterface adapterOf(int node, int idx, int net, int lid) {
  std::string ip = "10." + std::to_string(idx) + "." + std::to_string(node / 250) + "." + std::to_string(node % 250);
  AMNetInterface obj = makeInterface(node, adapterName(idx).c_str(), ip.c_str(), kNetworks[net]);
  obj.adapterLID = lid;
  return obj;
}

class TableRace : public TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    AMController::propagator = &propagator_;
    ctl_->insertNamClient(&steady_);
    for (int idx = 0; idx < kAdaptersPerNode; ++idx) _idxFromInterfaceName(adapterName(idx).c_str());
    for (int node = 0; node < kNodes; ++node)
      for (int idx = 0; idx < kAdaptersPerNode; ++idx)
        table_->setAdapterDefinedWithLock(adapterOf(node, idx, idx % 2, 1));
    reflect_NAM_changes();
  }
  void TearDown() override {
    ctl_->removeNamClient(&steady_);
    TableFixture::TearDown();
  }

  FakePropagator propagator_;
  FakeNamClient steady_{50};
};

TEST_F(TableRace, ConcurrentWritersReadersAndTheDelayedDownPassStayConsistent) {
  std::atomic<int> violations{0};
  std::vector<std::string> violationTexts;
  std::mutex violationMu;
  auto violation = [&](const std::string& text) {
    violations.fetch_add(1);
    std::lock_guard<std::mutex> hold(violationMu);
    if (violationTexts.size() < 10) violationTexts.push_back(text);
  };

  // Membership of overlapping halves of the cluster.
  auto membership = [&](int seed, int firstNode, int lastNode) {
    std::mt19937 rng(seed);
    for (int i = 0; i < kIterations; ++i) {
      Members members;
      for (int k = 0; k < 12; ++k) {
        int node = firstNode + static_cast<int>(rng() % (lastNode - firstNode + 1));
        members.add(node, static_cast<int>(rng() % kAdaptersPerNode));
      }
      table_->updateAdapterStateWithLock(static_cast<int>(rng() % 2), members.get(), static_cast<int>(rng() % 2));
    }
  };

  // Definitions that change attributes and networks, and undefinitions.
  auto definitions = [&]() {
    std::mt19937 rng(7);
    for (int i = 0; i < kIterations; ++i) {
      int node = static_cast<int>(rng() % kNodes);
      int idx = static_cast<int>(rng() % kAdaptersPerNode);
      if (rng() % 4 == 0) {
        GSWriteGuard hold(*table_);
        table_->setAdapterUndefinedWithoutLock(node, adapterName(idx).c_str());
      } else {
        int net = static_cast<int>(rng() % 2);
        table_->setAdapterDefinedWithLock(adapterOf(node, idx, net, static_cast<int>(rng() % 3)));
      }
      if (rng() % 8 == 0) reflect_NAM_changes();
    }
  };

  // Node ids that move between node numbers (node-id map, then table), and
  // nodes that stop and come back.
  auto nodes = [&]() {
    std::mt19937 rng(11);
    for (int i = 0; i < kIterations; ++i) {
      int node = static_cast<int>(rng() % kNodes);
      switch (rng() % 4) {
        case 0:
          setNodeIdMap(node, 0x100 + rng() % 8);
          break;
        case 1:
          getNodeNumFromNodeId(0x100 + rng() % 8);
          break;
        case 2:
          table_->setAllAdapterStoppedOnNodeWithLock(node);
          break;
        default:
          table_->resetIsNodeStoppedBit(node);
          break;
      }
    }
  };

  // The propagator: the delayed-down pass on a clock that moves a second per
  // round, so that downs both expire and stay held back.
  auto propagator = [&]() {
    for (int i = 0; i < kIterations; ++i) {
      table_->processDelayedDownEvents();
      struct timeval wait;
      if (table_->computeNextWaitTime(&wait) && (wait.tv_sec < 0 || wait.tv_sec > 16)) {
        violation("wait time out of range: " + std::to_string(wait.tv_sec));
      }
      table_test::advanceSeconds(1);
      std::this_thread::yield();
    }
  };

  // Readers of the whole table, and a full re-announcement now and then.
  auto readers = [&]() {
    std::mt19937 rng(13);
    for (int i = 0; i < kIterations; ++i) {
      veltnamNetInfoList full;
      ctl_->obtainAdapterInfoFromGlobalTable(full, static_cast<int>(rng() % 2));
      std::string mismatch = table_test::countMismatch(full);
      if (!mismatch.empty()) violation("full table: " + mismatch);
      clear_net_adapter_table(full);
      {
        GSReadGuard hold(*table_);
        for (auto& entry : table_->getAdapterItemList()) {
          if (entry.second->isPending && entry.second->isUp) violation("a held-back down that is up");
        }
      }
      table_->checkRawDevices();
      table_->AdapterConfiguredOnNetwork(0, kNetworks[1]);
      if (rng() % 16 == 0) table_->repopulateAllNAMInfoWithLock();
    }
  };

  // Sessions that come and go while batches are published.
  auto sessions = [&]() {
    for (int i = 0; i < kIterations; ++i) {
      FakeNamClient passing(60 + i % 4);
      ctl_->insertNamClient(&passing);
      reflect_NAM_changes();
      ctl_->findNamClient(60 + i % 4);
      ctl_->wakeupAllNamClients(VELT_NAM_NO_EVENT);
      ctl_->removeNamClient(&passing);
      for (const std::string& m : passing.mismatches()) violation("passing session: " + m);
    }
  };

  // Every thread starts its work at the same moment, so that they overlap.
  // Plain mutex and condition-variable hand-offs, which thread checkers see
  // through (futures hide theirs in futex calls that helgrind cannot follow).
  std::mutex gateMu;
  std::condition_variable gateCv;
  bool opened = false;
  int finished = 0;
  std::vector<std::thread> running;
  auto launch = [&](std::function<void()> work) {
    running.emplace_back([&, work]() {
      {
        std::unique_lock<std::mutex> hold(gateMu);
        gateCv.wait(hold, [&] { return opened; });
      }
      work();
      std::lock_guard<std::mutex> hold(gateMu);
      ++finished;
      gateCv.notify_all();
    });
  };
  launch([&] { membership(1, 0, kNodes * 2 / 3); });
  launch([&] { membership(2, kNodes / 3, kNodes - 1); });
  launch(definitions);
  launch(nodes);
  launch(propagator);
  launch(readers);
  launch(sessions);
  {
    std::unique_lock<std::mutex> hold(gateMu);
    opened = true;
    gateCv.notify_all();
    const int total = static_cast<int>(running.size());
    if (!gateCv.wait_for(hold, kDeadline, [&] { return finished == total; })) {
      // Threads stuck on each other's locks cannot be joined; say so and end.
      ADD_FAILURE() << "the table's users did not finish: a deadlock";
      fprintf(stderr, "deadlock: the adapter table's users did not finish within the deadline\n");
      std::_Exit(3);
    }
  }
  for (std::thread& t : running) t.join();

  // Every held-back down runs out and is published.
  table_test::advanceSeconds(20);
  EXPECT_EQ(0, table_->processDelayedDownEvents());
  EXPECT_FALSE(table_->IsThereADelayedDownEvent());
  reflect_NAM_changes();

  EXPECT_EQ(0, violations.load()) << (violationTexts.empty() ? "" : violationTexts[0]);
  EXPECT_TRUE(steady_.mismatches().empty()) << steady_.mismatches()[0];
  EXPECT_GT(propagator_.delayedDownPosts.load(), 0);

  // The last record the steady session saw of each adapter is what the row
  // now says.
  std::map<std::pair<uint32_t, std::string>, std::pair<uint64_t, uint8_t>> lastSeen;
  auto batches = steady_.batches();
  EXPECT_GT(batches.size(), 10u);
  for (const auto& batch : batches)
    for (const auto& rec : batch.records) lastSeen[{rec.node, rec.name}] = {rec.network, rec.status};
  GSReadGuard hold(*table_);
  int checked = 0;
  for (auto& entry : table_->getAdapterItemList()) {
    const AMAdapterItem& row = *entry.second;
    EXPECT_EQ(0u, row.isPending);
    auto seen = lastSeen.find({static_cast<uint32_t>(row.nodenumber), std::string(row.interfacename)});
    ASSERT_NE(seen, lastSeen.end()) << "node " << row.nodenumber << " " << row.interfacename;
    EXPECT_EQ(row.networkId64, seen->second.first) << "node " << row.nodenumber << " " << row.interfacename;
    EXPECT_EQ(velt_nam_status_of(row), seen->second.second) << "node " << row.nodenumber << " " << row.interfacename;
    ++checked;
  }
  EXPECT_EQ(kNodes * kAdaptersPerNode, checked);
}

}  // namespace

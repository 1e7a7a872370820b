// SimCluster keeps CPG's promises: agreed order within a view, virtual
// synchrony across view changes, a view change for every member of the new
// view, messages delivered only in the view they were sent in.
#include <errno.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sim_bus.h"

namespace velt {
namespace agent {
namespace {

// What one member delivered, view by view.
class Recorder : public BusHandler {
 public:
  struct Delivered {
    uint64_t view;  // the view it was delivered in
    uint32_t from;
    std::string bytes;
  };
  void onView(const View& v) override { views.push_back(v); }
  void onMessage(uint32_t from, const std::string& bytes) override {
    messages.push_back(Delivered{views.empty() ? 0 : views.back().id, from, bytes});
  }
  std::vector<std::string> in(uint64_t view) const {
    std::vector<std::string> out;
    for (const Delivered& d : messages) {
      if (d.view == view) out.push_back(d.bytes);
    }
    return out;
  }
  std::vector<View> views;
  std::vector<Delivered> messages;
};

class SimClusterTest : public ::testing::Test {
 protected:
  void start(const std::vector<uint32_t>& nodes, uint64_t seed = 1) {
    cluster_ = std::make_unique<SimCluster>(nodes, seed);
    for (uint32_t n : nodes) {
      rec_[n] = std::make_unique<Recorder>();
      cluster_->bus(n)->setHandler(rec_[n].get());
      ASSERT_EQ(0, cluster_->bus(n)->join());
    }
  }
  // A message that names its sender and the view the sender was in.
  int send(uint32_t node, int k) {
    return cluster_->bus(node)->multicast(std::to_string(cluster_->installedViewId(node)) + ":" +
                                          std::to_string(node) + ":" + std::to_string(k));
  }
  std::unique_ptr<SimCluster> cluster_;
  std::map<uint32_t, std::unique_ptr<Recorder>> rec_;
};

using SimClusterOrder = SimClusterTest;

TEST_F(SimClusterOrder, EveryMemberOfAViewDeliversTheSameSequence) {
  start({1, 2, 3});
  cluster_->deliverAll();
  uint64_t v = rec_[1]->views.back().id;
  for (int k = 0; k < 30; ++k) {
    ASSERT_EQ(0, send(static_cast<uint32_t>(k % 3) + 1, k));
    if (k % 4 == 0) cluster_->deliverRandom();
  }
  cluster_->deliverAll();
  ASSERT_EQ(30u, rec_[1]->in(v).size());
  EXPECT_EQ(rec_[1]->in(v), rec_[2]->in(v));
  EXPECT_EQ(rec_[1]->in(v), rec_[3]->in(v));
}

TEST_F(SimClusterOrder, JoinersSeeOneGrowingViewAndNothingBeforeIt) {
  auto cluster2 = std::make_unique<SimCluster>(std::vector<uint32_t>{1, 2}, 3);
  Recorder a, b;
  cluster2->bus(1)->setHandler(&a);
  cluster2->bus(2)->setHandler(&b);
  EXPECT_EQ(ENOTCONN, cluster2->bus(2)->multicast("early"));
  ASSERT_EQ(0, cluster2->bus(1)->join());
  cluster2->deliverAll();
  ASSERT_EQ(0, cluster2->bus(1)->multicast("before"));
  ASSERT_EQ(0, cluster2->bus(2)->join());
  cluster2->deliverAll();
  ASSERT_EQ(2u, a.views.size());
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), a.views[1].members);
  EXPECT_EQ((std::vector<uint32_t>{2}), a.views[1].joined);
  ASSERT_EQ(1u, b.views.size());
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), b.views[0].members);
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), b.views[0].joined);
  // "before" was sent in the old view: node 1 got it there, node 2 never.
  ASSERT_EQ(1u, a.messages.size());
  EXPECT_EQ(a.views[0].id, a.messages[0].view);
  EXPECT_TRUE(b.messages.empty());
  EXPECT_EQ(EALREADY, cluster2->bus(2)->join());
}

using SimClusterFaults = SimClusterTest;

TEST_F(SimClusterFaults, ACrashedNodeLeavesTheViewOfTheOthers) {
  start({1, 2, 3});
  cluster_->deliverAll();
  for (int k = 0; k < 10; ++k) ASSERT_EQ(0, send(2, k));
  uint64_t old = rec_[1]->views.back().id;
  cluster_->crash(2);
  EXPECT_EQ(ENOTCONN, send(2, 99));
  size_t seenBy2 = rec_[2]->messages.size();
  cluster_->deliverAll();
  EXPECT_EQ(seenBy2, rec_[2]->messages.size());
  for (uint32_t n : {1u, 3u}) {
    const View& v = rec_[n]->views.back();
    EXPECT_EQ((std::vector<uint32_t>{1, 3}), v.members);
    EXPECT_EQ((std::vector<uint32_t>{2}), v.left);
  }
  // Whatever of node 2's messages survived, both delivered the same.
  EXPECT_EQ(rec_[1]->in(old), rec_[3]->in(old));
  // A restarted node joins again as a new member.
  cluster_->revive(2);
  Recorder again;
  cluster_->bus(2)->setHandler(&again);
  ASSERT_EQ(0, cluster_->bus(2)->join());
  cluster_->deliverAll();
  ASSERT_EQ(1u, again.views.size());
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), again.views[0].members);
}

TEST_F(SimClusterFaults, APartitionKeepsEverySendersOwnMessagesOnItsSide) {
  start({1, 2, 3, 4});
  cluster_->deliverAll();
  uint64_t old = rec_[1]->views.back().id;
  for (int k = 0; k < 8; ++k) {
    ASSERT_EQ(0, send(1, k));
    ASSERT_EQ(0, send(4, k));
  }
  cluster_->partition({{1, 2}, {3, 4}});
  cluster_->deliverAll();
  auto fromSender = [](const std::vector<std::string>& v, const std::string& sender) {
    size_t n = 0;
    for (const std::string& s : v) {
      if (s.find(":" + sender + ":") != std::string::npos) ++n;
    }
    return n;
  };
  EXPECT_EQ(8u, fromSender(rec_[1]->in(old), "1"));
  EXPECT_EQ(8u, fromSender(rec_[2]->in(old), "1"));
  EXPECT_EQ(8u, fromSender(rec_[3]->in(old), "4"));
  EXPECT_EQ(rec_[1]->in(old), rec_[2]->in(old));
  EXPECT_EQ(rec_[3]->in(old), rec_[4]->in(old));
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), rec_[2]->views.back().members);
  EXPECT_EQ((std::vector<uint32_t>{3, 4}), rec_[2]->views.back().left);
  cluster_->heal();
  cluster_->deliverAll();
  for (auto& r : rec_)
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 4}), r.second->views.back().members);
  EXPECT_EQ((std::vector<uint32_t>{3, 4}), rec_[1]->views.back().joined);
}

TEST_F(SimClusterFaults, ALaggingMemberWorksThroughEveryViewInOrder) {
  start({1, 2, 3});
  while (cluster_->deliverOne(1) || cluster_->deliverOne(2)) {
  }
  ASSERT_EQ(0, send(1, 0));
  cluster_->partition({{1, 3}, {2}});
  ASSERT_EQ(0, send(3, 1));
  cluster_->heal();
  ASSERT_EQ(0, send(2, 2));
  while (cluster_->deliverOne(1) || cluster_->deliverOne(2)) {
  }
  EXPECT_TRUE(rec_[3]->views.empty());
  EXPECT_GT(cluster_->pending(3), 0u);
  cluster_->deliverAll();
  // Node 3 saw every view it was in (node 1 saw two more before node 3
  // joined), and each message in its own view.
  ASSERT_EQ(3u, rec_[3]->views.size());
  ASSERT_EQ(5u, rec_[1]->views.size());
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(rec_[1]->views[i + 2].id, rec_[3]->views[i].id);
  EXPECT_EQ((std::vector<uint32_t>{1, 3}), rec_[3]->views[1].members);
  for (const Recorder::Delivered& d : rec_[3]->messages) {
    EXPECT_EQ(std::to_string(d.view), d.bytes.substr(0, d.bytes.find(':')));
  }
  for (const View& v : rec_[1]->views) EXPECT_EQ(rec_[1]->in(v.id), rec_[3]->in(v.id));
}

// Random histories of multicasts, deliveries, crashes, partitions and heals;
// then the promises are checked on what every member recorded.
using SimClusterPromises = SimClusterTest;

TEST_F(SimClusterPromises, HoldOnRandomHistories) {
  for (uint64_t seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    rec_.clear();
    std::vector<uint32_t> nodes = {1, 2, 3, 4, 5};
    start(nodes, seed);
    // Restarted members record into new recorders; keep every life.
    std::vector<std::unique_ptr<Recorder>> lives;
    std::mt19937_64 rng(seed * 7919);
    int k = 0;
    for (int step = 0; step < 150; ++step) {
      uint32_t n = nodes[rng() % nodes.size()];
      switch (rng() % 12) {
        case 0:
          if (cluster_->alive(n)) cluster_->crash(n);
          break;
        case 1:
          if (!cluster_->alive(n)) {
            cluster_->revive(n);
            lives.push_back(std::move(rec_[n]));
            rec_[n] = std::make_unique<Recorder>();
            cluster_->bus(n)->setHandler(rec_[n].get());
            ASSERT_EQ(0, cluster_->bus(n)->join());
          }
          break;
        case 2: {
          std::vector<uint32_t> side;
          for (uint32_t m : nodes) {
            if (rng() % 2) side.push_back(m);
          }
          cluster_->partition({side});
          break;
        }
        case 3:
          cluster_->heal();
          break;
        case 4:
        case 5:
        case 6:
          if (cluster_->alive(n)) {
            ASSERT_EQ(0, send(n, k++));
          }
          break;
        default:
          cluster_->deliverRandom();
          break;
      }
    }
    cluster_->heal();
    cluster_->deliverAll();
    for (auto& r : rec_) lives.push_back(std::move(r.second));

    // Per view: who delivered it and what, in which order; the next view of
    // each member.
    struct Seen {
      std::vector<std::string> messages;
      uint64_t next = 0;
    };
    std::map<uint64_t, std::map<const Recorder*, Seen>> byView;
    for (const auto& life : lives) {
      const Recorder* r = life.get();
      for (size_t i = 0; i < r->views.size(); ++i) {
        Seen& s = byView[r->views[i].id][r];
        s.messages = r->in(r->views[i].id);
        s.next = i + 1 < r->views.size() ? r->views[i + 1].id : 0;
      }
      for (const Recorder::Delivered& d : r->messages) {
        // Delivered in the view it was sent in.
        ASSERT_EQ(std::to_string(d.view), d.bytes.substr(0, d.bytes.find(':')));
      }
    }
    for (const auto& v : byView) {
      for (const auto& p : v.second) {
        for (const auto& q : v.second) {
          // Agreed order: what both delivered, they delivered in one order.
          std::vector<std::string> common;
          for (const std::string& m : p.second.messages) {
            if (std::find(q.second.messages.begin(), q.second.messages.end(), m) !=
                q.second.messages.end()) {
              common.push_back(m);
            }
          }
          std::vector<std::string> qCommon;
          for (const std::string& m : q.second.messages) {
            if (std::find(common.begin(), common.end(), m) != common.end()) qCommon.push_back(m);
          }
          ASSERT_EQ(common, qCommon) << "view " << v.first;
          // Virtual synchrony: moving on together means the same messages.
          if (p.second.next != 0 && p.second.next == q.second.next) {
            ASSERT_EQ(p.second.messages, q.second.messages) << "view " << v.first;
          }
        }
      }
    }
    // Every live member ends in the one view of everybody alive.
    std::vector<std::vector<uint32_t>> views = cluster_->views();
    ASSERT_LE(views.size(), 1u);
  }
}

}  // namespace
}  // namespace agent
}  // namespace velt

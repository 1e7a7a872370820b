// A gtest base for the agent's tests: a SimCluster of N nodes, each running a
// Replica (TestNode), and actors (one client connection and one instance
// number each) placed round-robin on the nodes.
#ifndef VELT_TESTS_AGENT_CLUSTER_HARNESS_H_
#define VELT_TESTS_AGENT_CLUSTER_HARNESS_H_

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent_test_util.h"
#include "gs_types.h"

namespace velt {
namespace agent {
namespace testing {

class ClusterHarness : public ::testing::Test {
 protected:
  // A client of one node holding one instance number.
  struct Actor {
    TestNode* node = nullptr;
    uint64_t client = 0;
    uint32_t instance = 0;
    proto::ProviderId id() const {
      proto::ProviderId p;
      p.set_instance(instance);
      p.set_node(node->node());
      return p;
    }
    std::string name() const {
      return std::to_string(instance) + "/" + std::to_string(node->node());
    }
  };

  // Starts n nodes (1..n), lets the first `joined` of them (all when 0)
  // join and waits for their first sync.
  void start(size_t n, const ReplicaLimits& limits = ReplicaLimits(),
             const std::map<uint32_t, uint32_t>& versions = {}, size_t joined = 0) {
    std::vector<uint32_t> ids;
    for (uint32_t i = 1; i <= n; ++i) ids.push_back(i);
    cluster_ = std::make_unique<SimCluster>(ids, 7);
    for (uint32_t i : ids) {
      auto v = versions.find(i);
      nodes_[i] = std::make_unique<TestNode>(
          cluster_.get(), i, v == versions.end() ? kDefaultVersion : v->second, limits);
      if (joined == 0 || i <= joined) {
        ASSERT_EQ(0, nodes_[i]->join());
      }
    }
    settle();
    for (auto& e : nodes_) {
      if (joined == 0 || e.first <= joined) {
        ASSERT_TRUE(e.second->replica().isSynced()) << "node " << e.first;
      }
    }
  }

  void TearDown() override {
    // A replica answers and notifies only the clients of its own node.
    for (auto& e : nodes_) {
      for (const TestNode::Frame& f : e.second->frames()) {
        EXPECT_EQ(e.first, f.client / 1000) << "node " << e.first << " sent to client " << f.client;
      }
    }
  }

  void settle() { cluster_->deliverAll(); }

  TestNode& node(uint32_t n) { return *nodes_.at(n); }
  size_t size() const { return nodes_.size(); }

  // Actor i lives on node (i mod n) + 1, with client number node*1000+i and
  // instance i+1.
  Actor actor(int i) {
    Actor a;
    a.node = nodes_.at(static_cast<uint32_t>(i % nodes_.size()) + 1).get();
    a.client = a.node->node() * 1000 + static_cast<uint64_t>(i);
    a.instance = static_cast<uint32_t>(i) + 1;
    return a;
  }
  // Another connection of the same node as a, with a's instance number.
  Actor sibling(const Actor& a) {
    Actor b = a;
    b.client = a.client + 500;
    return b;
  }

  uint64_t submitNoWait(const Actor& a, const proto::Request& r) {
    return a.node->submit(a.client, r);
  }
  uint64_t submit(const Actor& a, const proto::Request& r) {
    uint64_t id = submitNoWait(a, r);
    settle();
    return id;
  }
  int rc(const Actor& a, uint64_t id) { return a.node->rcOf(a.client, id); }
  std::string text(const Actor& a, uint64_t id) {
    std::vector<proto::Reply> r = a.node->replies(a.client, id);
    return r.empty() ? std::string() : r.front().text();
  }
  std::vector<proto::Notification> notes(const Actor& a, proto::Notification::Kind kind) {
    std::vector<proto::Notification> out;
    for (const proto::Notification& n : a.node->notes(a.client, kind)) {
      if (n.instance() == a.instance) out.push_back(n);
    }
    return out;
  }
  // The last notification of a kind (a default one when there is none).
  proto::Notification last(const Actor& a, proto::Notification::Kind kind) {
    std::vector<proto::Notification> v = notes(a, kind);
    return v.empty() ? proto::Notification() : v.back();
  }
  void joinAll(const std::string& group, const std::vector<Actor>& actors,
               const proto::GroupAttributes& a = attrs()) {
    for (const Actor& x : actors) {
      uint64_t id = submit(x, joinReq(group, x.instance, a));
      ASSERT_EQ(0, rc(x, id)) << text(x, id);
    }
  }
  // Every node (of the given ones, all by default) holds the same state.
  void expectSameState(std::vector<uint32_t> which = {}) {
    if (which.empty()) {
      for (auto& e : nodes_) which.push_back(e.first);
    }
    std::string first = node(which.front()).replica().digest();
    for (uint32_t n : which) {
      EXPECT_EQ(first, node(n).replica().digest()) << "node " << n << " differs";
    }
  }
  // Membership as every node sees it (they must agree).
  std::string membersEverywhere(const std::string& group) {
    std::string first = ids(nodes_.begin()->second->replica().members(group));
    for (auto& e : nodes_) {
      EXPECT_EQ(first, ids(e.second->replica().members(group))) << "node " << e.first;
    }
    return first;
  }
  // The node whose timers fire: the lowest of the view.
  TestNode& lowest() { return *nodes_.begin()->second; }
  // Fires every deadline the lowest node watches, then settles.
  void fireDeadlines() {
    std::vector<Deadline> d = lowest().deadlines();
    for (const Deadline& x : d) ASSERT_EQ(0, lowest().replica().fireTimeout(x));
    settle();
  }

  std::unique_ptr<SimCluster> cluster_;
  std::map<uint32_t, std::unique_ptr<TestNode>> nodes_;
};

}  // namespace testing
}  // namespace agent
}  // namespace velt

#endif  // VELT_TESTS_AGENT_CLUSTER_HARNESS_H_

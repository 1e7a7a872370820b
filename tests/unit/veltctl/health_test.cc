// What veltctl health judges from the agent's answers: nodes of the
// nodelist outside the view, published adapters that are not alive, knet
// links of this node that reach nobody; and what it leaves alone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "health.h"

namespace {

using velt::tools::assessHealth;
using velt::tools::HealthReport;
using velt::tools::KnetLink;

velt::proto::QueryAnswer statusOf(uint32_t self, std::vector<uint32_t> view) {
  velt::proto::QueryAnswer a;
  a.set_node(self);
  for (uint32_t n : view) a.add_view(n);
  return a;
}

std::vector<velt::proto::KorResource> peersOf(std::vector<uint32_t> nodes) {
  std::vector<velt::proto::KorResource> out;
  for (uint32_t n : nodes) {
    velt::proto::KorResource r;
    r.set_class_name("Zel.PeerNode");
    r.set_handle("node/" + std::to_string(n));
    out.push_back(r);
  }
  return out;
}

velt::proto::KorResource interfaceOf(uint32_t node, const std::string& name, const std::string& address) {
  velt::proto::KorResource r;
  r.set_class_name("Zel.NetworkInterface");
  r.set_handle("node/" + std::to_string(node) + "/" + name);
  velt::proto::KorAttribute* a = r.add_attributes();
  a->set_name("IPAddress");
  a->mutable_value()->set_text(address);
  return r;
}

velt::proto::GroupSummary aliveOf(std::vector<std::pair<uint32_t, std::string>> adapters) {
  velt::proto::GroupSummary g;
  g.set_name("allAdapterMembership");
  for (const auto& a : adapters) {
    velt::proto::AdapterInfo* info = g.add_adapters();
    info->set_node(a.first);
    info->set_interface_name(a.second);
  }
  return g;
}

std::vector<velt::proto::KorResource> twoNodesTwoAdapters() {
  return {interfaceOf(2, "sxn1", "10.11.0.2"), interfaceOf(1, "sxn0", "10.10.0.1"), interfaceOf(1, "sxn1", "10.11.0.1"),
          interfaceOf(2, "sxn0", "10.10.0.2")};
}

TEST(Health, EverythingUpIsHealthy) {
  std::vector<KnetLink> links = {{1, "10.10.0.1", true}, {0, "10.9.0.1", true}};
  HealthReport h = assessHealth(statusOf(1, {2, 1}), aliveOf({{1, "sxn0"}, {1, "sxn1"}, {2, "sxn0"}, {2, "sxn1"}}),
                                peersOf({1, 2}), twoNodesTwoAdapters(), &links, "");
  EXPECT_TRUE(h.problems.empty());
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), h.view);
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), h.nodelist);
  ASSERT_EQ(4u, h.adapters.size());
  EXPECT_EQ(1u, h.adapters[0].node);
  EXPECT_EQ("sxn0", h.adapters[0].interface);
  EXPECT_EQ("sxn1", h.adapters[3].interface);
  ASSERT_EQ(2u, h.links.size());
  EXPECT_EQ(0u, h.links[0].link) << "links in order";
}

TEST(Health, ADownAdapterIsShownAndIsAProblem) {
  HealthReport h = assessHealth(statusOf(1, {1, 2}), aliveOf({{1, "sxn0"}, {1, "sxn1"}, {2, "sxn0"}}), peersOf({1, 2}),
                                twoNodesTwoAdapters(), nullptr, "no corosync");
  ASSERT_EQ(1u, h.problems.size());
  EXPECT_EQ("node 2 adapter sxn1 (10.11.0.2) is DOWN", h.problems[0]);
  ASSERT_EQ(4u, h.adapters.size());
  EXPECT_FALSE(h.adapters[3].up) << "a down adapter is listed, not left out";
  EXPECT_FALSE(h.linksKnown);
  EXPECT_EQ("no corosync", h.linksWhy);
}

TEST(Health, ANodeOutsideTheViewIsOneProblemNotOnePerAdapter) {
  HealthReport h = assessHealth(statusOf(1, {1}), aliveOf({{1, "sxn0"}, {1, "sxn1"}}), peersOf({1, 2}),
                                twoNodesTwoAdapters(), nullptr, "");
  ASSERT_EQ(1u, h.problems.size());
  EXPECT_EQ("node 2 is not in the view", h.problems[0]);
  EXPECT_FALSE(h.adapters[2].nodeInView);
}

TEST(Health, AKnetLinkThatReachesNobodyIsAProblemUnlessTheNodeIsAlone) {
  std::vector<KnetLink> links = {{0, "10.9.0.1", false}, {1, "", true}};
  HealthReport h = assessHealth(statusOf(1, {1, 2}), aliveOf({{1, "sxn0"}, {1, "sxn1"}, {2, "sxn0"}, {2, "sxn1"}}),
                                peersOf({1, 2}), twoNodesTwoAdapters(), &links, "");
  ASSERT_EQ(1u, h.problems.size());
  EXPECT_EQ("knet link 0 (10.9.0.1) of this node reaches no other node", h.problems[0]);
  h = assessHealth(statusOf(1, {1}), aliveOf({}), peersOf({1}), {}, &links, "");
  EXPECT_TRUE(h.problems.empty()) << h.problems[0];
}

TEST(Health, ALinkToANodeOfTheViewThatIsDownIsNamedWithItsNetwork) {
  std::vector<KnetLink> links = {{1, "10.10.0.1", true}, {2, "10.11.0.1", true}};
  std::vector<velt::tools::PeerLink> peerLinks = {{2, 2, "10.11.0.1", "", false}, {2, 1, "10.10.0.1", "", true},
                                                  {3, 2, "10.11.0.1", "", false}};
  HealthReport h = assessHealth(statusOf(1, {1, 2}), aliveOf({{1, "sxn0"}, {1, "sxn1"}, {2, "sxn0"}, {2, "sxn1"}}),
                                peersOf({1, 2}), twoNodesTwoAdapters(), &links, "", peerLinks);
  ASSERT_EQ(1u, h.problems.size()) << "node 3 is not in the view: its links are not judged";
  EXPECT_EQ("knet link 2 (sxn1, 10.11.0.1) to node 2 is DOWN", h.problems[0]);
  ASSERT_EQ(3u, h.peerLinks.size());
  EXPECT_EQ(1u, h.peerLinks[0].link) << "by peer, then link";
  EXPECT_EQ("sxn0", h.peerLinks[0].network);
  EXPECT_EQ("sxn1", h.peerLinks[1].network);
}

TEST(Health, AStandaloneAgentWithoutNodelistIsItsOwnNodelist) {
  HealthReport h = assessHealth(statusOf(7, {7}), aliveOf({{7, "sxn0"}}), {}, {interfaceOf(7, "sxn0", "10.0.0.7")},
                                nullptr, "corosync is not running");
  EXPECT_TRUE(h.problems.empty());
  EXPECT_EQ((std::vector<uint32_t>{7}), h.nodelist);
}

TEST(Health, HandlesThatAreNotOursAreIgnored) {
  std::vector<velt::proto::KorResource> odd = {interfaceOf(0, "sxn0", ""), interfaceOf(1, "", "")};
  odd[0].set_handle("node/0/sxn0");
  odd[1].set_handle("node/1/");
  velt::proto::KorResource other;
  other.set_handle("host/3");
  std::vector<velt::proto::KorResource> peers = {other};
  HealthReport h = assessHealth(statusOf(1, {1}), aliveOf({}), peers, odd, nullptr, "");
  EXPECT_TRUE(h.adapters.empty());
  EXPECT_EQ((std::vector<uint32_t>{1}), h.nodelist);
}

}  // namespace

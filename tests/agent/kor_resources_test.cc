// The KOR part of the replicated state: which PeerNode and NetworkInterface
// resources exist after nodelist reports, id announces, interface updates
// and merged snapshots, the events they give in order, queries, and the
// bounds on what peers may make us hold.
#include "kor_resources.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

constexpr uint32_t kUnassignUndef = MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF;

// Keeps every event, and a mirror of the resources built from the events
// alone (what an agent following the events would know).
class RecordingSink : public KorSink {
 public:
  void korEvent(const KorChange& c) override {
    events.push_back(c);
    const std::string& h = c.resource.handle();
    if (c.event == KOR_EVENT_DEFINED) {
      EXPECT_EQ(mirror.count(h), 0u) << "defined twice: " << h;
      mirror[h] = c.resource;
    } else if (c.event == KOR_EVENT_UNDEFINED) {
      EXPECT_EQ(mirror.count(h), 1u) << "undefined while not defined: " << h;
      mirror.erase(h);
    } else if (c.event == KOR_CONDITION_CONFIG_CHANGED && c.flags == 0) {
      mirror[h] = c.resource;
    }
  }
  // "event handle [flags]" for each event since the last call.
  std::vector<std::string> take() {
    std::vector<std::string> out;
    for (const KorChange& c : events) {
      std::string s = c.event + " " + c.resource.handle();
      if (c.flags != 0) s += " " + std::to_string(c.flags);
      out.push_back(s);
    }
    events.clear();
    return out;
  }
  std::vector<KorChange> events;
  std::map<std::string, proto::KorResource> mirror;
};

proto::NodeListUpdate nodeList(const std::vector<std::pair<uint32_t, std::string>>& nodes) {
  proto::NodeListUpdate u;
  for (const auto& n : nodes) {
    proto::NodeEntry* e = u.add_nodes();
    e->set_node(n.first);
    e->set_name(n.second);
  }
  return u;
}

proto::InterfaceResource facts(uint32_t node, const std::string& name,
                               const std::string& ip = "10.0.0.1") {
  proto::InterfaceResource r;
  r.set_node(node);
  r.set_name(name);
  r.set_device_name("0000:03:00.0");
  r.set_ip_address(ip);
  r.set_device_sub_type(1);
  r.set_logical_id(4);
  r.set_network_id(1);
  r.set_network_id64(0x0a000000);
  r.set_port_id(0);
  r.set_hardware_address("52:54:00:12:34:56");
  r.set_device_path_name("0000:03:00.0");
  return r;
}

proto::InterfaceUpdate publish(const proto::InterfaceResource& r, uint64_t generation) {
  proto::InterfaceUpdate u;
  *u.mutable_resource() = r;
  u.set_generation(generation);
  return u;
}

proto::InterfaceUpdate withdraw(uint32_t node, const std::string& name, uint64_t generation) {
  proto::InterfaceUpdate u;
  u.mutable_resource()->set_node(node);
  u.mutable_resource()->set_name(name);
  u.set_removed(true);
  u.set_generation(generation);
  return u;
}

const proto::KorValue* valueOf(const proto::KorResource& r, const std::string& name) {
  for (const proto::KorAttribute& a : r.attributes()) {
    if (a.name() == name) return &a.value();
  }
  return nullptr;
}

std::vector<std::string> attributeNames(const proto::KorResource& r) {
  std::vector<std::string> out;
  for (const proto::KorAttribute& a : r.attributes()) out.push_back(a.name());
  return out;
}

std::vector<std::string> handles(const std::vector<proto::KorResource>& rs) {
  std::vector<std::string> out;
  for (const proto::KorResource& r : rs) out.push_back(r.handle());
  return out;
}

class KorTest : public ::testing::Test {
 protected:
  KorTest() : kor(&sink) {}
  // Every resource the state answers, by handle: what the mirror must hold.
  std::map<std::string, proto::KorResource> answered() const {
    std::map<std::string, proto::KorResource> out;
    for (const char* cls : {KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE}) {
      for (const proto::KorResource& r : kor.query(cls, {})) out[r.handle()] = r;
    }
    return out;
  }
  void expectMirrorMatches() const {
    const auto want = answered();
    ASSERT_EQ(sink.mirror.size(), want.size());
    for (const auto& e : want) {
      auto it = sink.mirror.find(e.first);
      ASSERT_NE(it, sink.mirror.end()) << e.first;
      EXPECT_EQ(it->second.SerializeAsString(), e.second.SerializeAsString()) << e.first;
    }
  }
  RecordingSink sink;
  KorResources kor;
};

// ------------------------------------------------------------ nodelist

using KorNodeList = KorTest;

TEST_F(KorNodeList, NewNodesAreDefinedInAscendingOrder) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{3, "c"}, {1, "a"}, {2, "b"}})));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ResourceDefined node/1",
                                                   "ResourceDefined node/2",
                                                   "ResourceDefined node/3"}));
  EXPECT_TRUE(kor.hasNodeList());
  auto nodes = kor.query(KOR_CLASS_PEER_NODE, {});
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(valueOf(nodes[1], "Name")->text(), "b");
  EXPECT_EQ(valueOf(nodes[1], "NodeList")->uint_array_size(), 1);
  EXPECT_EQ(valueOf(nodes[1], "NodeList")->uint_array(0), 2u);
  EXPECT_EQ(valueOf(nodes[1], "NodeIDs")->uint_array_size(), 0) << "no id announced yet";
  expectMirrorMatches();
}

TEST_F(KorNodeList, LatestReportHoldsAddingAndRemovingInOneStep) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}, {4, "d"}})));
  sink.take();
  ASSERT_EQ(0, kor.applyNodeList(2, nodeList({{1, "a"}, {3, "c"}, {4, "d"}})));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ResourceUndefined node/2",
                                                   "ResourceDefined node/3"}));
  EXPECT_FALSE(kor.hasNode(2));
  EXPECT_TRUE(kor.hasNode(3));
  expectMirrorMatches();
}

TEST_F(KorNodeList, SameReportAgainTellsNothing) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  sink.take();
  ASSERT_EQ(0, kor.applyNodeList(2, nodeList({{2, "b"}, {1, "a"}})));
  EXPECT_TRUE(sink.take().empty());
}

TEST_F(KorNodeList, RenamedNodeGetsConfigChanged) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  sink.take();
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "bee"}})));
  ASSERT_EQ(sink.events.size(), 1u);
  EXPECT_EQ(sink.events[0].event, KOR_CONDITION_CONFIG_CHANGED);
  EXPECT_EQ(sink.events[0].className, KOR_CLASS_PEER_NODE);
  EXPECT_EQ(sink.events[0].flags, 0u);
  EXPECT_EQ(valueOf(sink.events[0].resource, "Name")->text(), "bee");
  expectMirrorMatches();
}

TEST_F(KorNodeList, RemovedNodeUndefinesItsInterfacesWithUnassignFlags) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  ASSERT_EQ(0, kor.applyNodeId(2, 0xabc));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn1"), 2)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0"), 1)));
  sink.take();
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  const std::string undefFlags = std::to_string(kUnassignUndef);
  ASSERT_EQ(sink.events.size(), 5u);
  // Interfaces by name, each class event then its resource event; the node last.
  EXPECT_EQ(sink.events[0].className, KOR_CLASS_NETWORK_INTERFACE);
  EXPECT_EQ(sink.events[4].className, KOR_CLASS_PEER_NODE);
  // The undefined resources carry what they were, id included.
  EXPECT_EQ(valueOf(sink.events[1].resource, "NodeIDs")->uint_array(0), 0xabcu);
  EXPECT_EQ(valueOf(sink.events[1].resource, "IPAddress")->text(), "10.0.0.1");
  EXPECT_EQ(sink.take(), (std::vector<std::string>{
                             "ResourceUndefined node/2/sxn0",
                             "ConfigChanged node/2/sxn0 " + undefFlags,
                             "ResourceUndefined node/2/sxn1",
                             "ConfigChanged node/2/sxn1 " + undefFlags,
                             "ResourceUndefined node/2",
                         }));
  EXPECT_EQ(kor.interfaceCount(), 0u);
  EXPECT_EQ(kor.nodeIdOf(2), 0u);
  expectMirrorMatches();
}

TEST_F(KorNodeList, LimitsThemselvesAreAccepted) {
  proto::NodeListUpdate u;
  for (uint32_t n = 1; n <= kKorMaxNodes; ++n) {
    proto::NodeEntry* e = u.add_nodes();
    e->set_node(n);
    e->set_name(n == 7 ? std::string(kKorMaxNodeNameBytes, 'x') : "n" + std::to_string(n));
  }
  EXPECT_EQ(0, kor.applyNodeList(1, u));
  EXPECT_EQ(kor.nodeCount(), kKorMaxNodes);
  EXPECT_EQ(sink.events.size(), kKorMaxNodes);
}

TEST_F(KorNodeList, OverLimitOrMalformedReportIsIgnoredWhole) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  const uint64_t before = kor.digest();
  sink.take();

  proto::NodeListUpdate tooMany;
  for (uint32_t n = 1; n <= kKorMaxNodes + 1; ++n) tooMany.add_nodes()->set_node(n);
  std::string why;
  EXPECT_EQ(-1, kor.applyNodeList(1, tooMany, &why));
  EXPECT_NE(why.find("2050 nodes"), std::string::npos) << why;

  const std::vector<proto::NodeListUpdate> refused = {
      nodeList({{1, "a"}, {3, std::string(kKorMaxNodeNameBytes + 1, 'x')}}),
      nodeList({{1, "a"}, {0, "zero"}}),
      nodeList({{1, "a"}, {3, "c"}, {3, "c again"}}),
      nodeList({{1, "a"}, {3, std::string("bad\xff", 4)}}),
      nodeList({{1, "a"}, {3, std::string("nul\0in", 6)}}),
  };
  for (const auto& u : refused) {
    why.clear();
    EXPECT_EQ(-1, kor.applyNodeList(1, u, &why)) << u.ShortDebugString();
    EXPECT_FALSE(why.empty());
  }
  EXPECT_EQ(kor.digest(), before);
  EXPECT_TRUE(sink.take().empty()) << "a refused report tells nothing";
  EXPECT_TRUE(kor.hasNode(2)) << "a refused report removes nothing";
}

// ------------------------------------------------------------ down nodes

using KorDownNode = KorTest;

TEST_F(KorDownNode, InterfacesOfADownNodeStayThroughReportsAndMerges) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  ASSERT_EQ(0, kor.applyNodeId(2, 22));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0"), 1)));
  // Node 2 goes down: the survivors re-report their nodelist, node 1 keeps
  // publishing, and the view change merges node 1's snapshot alone. None of
  // it is about node 2, and nothing drops it.
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  const proto::KorImage survivor = kor.image();
  sink.take();
  EXPECT_EQ(0u, kor.adopt({&survivor}));
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(handles(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})),
            (std::vector<std::string>{"node/1/sxn0", "node/2/sxn0"}));
  EXPECT_EQ(kor.nodeIdOf(2), 22u);
  EXPECT_EQ(kor.generationOf(2), 1u);
}

// ------------------------------------------------------------ node ids

using KorNodeId = KorTest;

TEST_F(KorNodeId, AnnounceUpdatesNodeIdsOfTheNodeAndItsInterfaces) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "ib0"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "eth0"), 2)));
  sink.take();
  ASSERT_EQ(0, kor.applyNodeId(2, 0x1122334455667788ull));
  ASSERT_EQ(sink.events.size(), 3u);
  for (const KorChange& c : sink.events) {
    EXPECT_EQ(c.event, KOR_CONDITION_CONFIG_CHANGED);
    EXPECT_EQ(c.flags, 0u);
    const proto::KorValue* ids = valueOf(c.resource, "NodeIDs");
    ASSERT_NE(ids, nullptr);
    EXPECT_EQ(ids->type(), static_cast<uint32_t>(VX_UINT64_ARRAY));
    ASSERT_EQ(ids->uint_array_size(), 1);
    EXPECT_EQ(ids->uint_array(0), 0x1122334455667788ull);
  }
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ConfigChanged node/2",
                                                   "ConfigChanged node/2/eth0",
                                                   "ConfigChanged node/2/ib0"}));
  // Another id later (the node's state directory was lost): it holds.
  ASSERT_EQ(0, kor.applyNodeId(2, 0x99));
  EXPECT_EQ(sink.take().size(), 3u);
  EXPECT_EQ(kor.nodeIdOf(2), 0x99u);
  expectMirrorMatches();
}

TEST_F(KorNodeId, SameIdAgainOrZeroTellsNothing) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyNodeId(1, 5));
  sink.take();
  EXPECT_EQ(0, kor.applyNodeId(1, 5));
  EXPECT_EQ(-1, kor.applyNodeId(1, 0));
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(kor.nodeIdOf(1), 5u);
}

TEST_F(KorNodeId, NodeOutsideTheNodeListIsIgnored) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  sink.take();
  std::string why;
  EXPECT_EQ(-1, kor.applyNodeId(7, 70, &why));
  EXPECT_NE(why.find("not in the nodelist"), std::string::npos) << why;
  EXPECT_FALSE(kor.hasNode(7));
  EXPECT_TRUE(sink.take().empty());
}

TEST_F(KorNodeId, BeforeAnyNodeListTheAnnouncingNodeBecomesKnown) {
  ASSERT_EQ(0, kor.applyNodeId(4, 44));
  ASSERT_EQ(sink.events.size(), 1u);
  EXPECT_EQ(sink.events[0].event, KOR_EVENT_DEFINED);
  EXPECT_EQ(valueOf(sink.events[0].resource, "NodeIDs")->uint_array(0), 44u);
  EXPECT_EQ(valueOf(sink.events[0].resource, "Name")->text(), "");
  EXPECT_FALSE(kor.hasNodeList());
  // The first nodelist then decides for it like for any other node.
  sink.take();
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{4, "four"}, {5, "five"}})));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ConfigChanged node/4",
                                                   "ResourceDefined node/5"}));
  EXPECT_EQ(kor.nodeIdOf(4), 44u) << "the id stays with the listed node";
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{5, "five"}})));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ResourceUndefined node/4"}));
}

// ------------------------------------------------------------ interfaces

using KorInterfaces = KorTest;

TEST_F(KorInterfaces, NewInterfaceIsDefinedThenConfigChanged) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  sink.take();
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0"), 1)));
  ASSERT_EQ(sink.events.size(), 2u);
  EXPECT_EQ(sink.events[0].className, KOR_CLASS_NETWORK_INTERFACE);
  EXPECT_EQ(sink.events[0].flags, 0u);
  EXPECT_EQ(sink.events[1].flags, 0u);
  EXPECT_EQ(sink.events[1].resource.attributes_size(), 11);
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ResourceDefined node/2/sxn0",
                                                   "ConfigChanged node/2/sxn0"}));
  expectMirrorMatches();
}

TEST_F(KorInterfaces, ChangedAttributesGiveConfigChangedAndSameFactsNothing) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  sink.take();
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 2)));
  EXPECT_TRUE(sink.take().empty()) << "same facts, only a newer generation";
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.0.9"), 3)));
  ASSERT_EQ(sink.events.size(), 1u);
  EXPECT_EQ(valueOf(sink.events[0].resource, "IPAddress")->text(), "10.0.0.9");
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ConfigChanged node/1/sxn0"}));
  expectMirrorMatches();
}

TEST_F(KorInterfaces, WithdrawnInterfaceIsUndefinedWithUnassignFlags) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn1"), 2)));
  sink.take();
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, withdraw(1, "sxn0", 3)));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{
                             "ResourceUndefined node/1/sxn0",
                             "ConfigChanged node/1/sxn0 " + std::to_string(kUnassignUndef)}));
  EXPECT_EQ(handles(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})),
            (std::vector<std::string>{"node/1/sxn1"}));
  EXPECT_EQ(kor.generationOf(1), 3u);
  // Withdrawing what is not there changes nothing but the generation.
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, withdraw(1, "sxn0", 4)));
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(kor.generationOf(1), 4u);
  expectMirrorMatches();
}

TEST_F(KorInterfaces, OnlyTheNodeItselfReportsItsInterfaces) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  sink.take();
  std::string why;
  EXPECT_EQ(-1, kor.applyInterfaceUpdate(1, publish(facts(2, "sxn0"), 1), &why));
  EXPECT_NE(why.find("of node 2"), std::string::npos) << why;
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0"), 1)));
  sink.take();
  EXPECT_EQ(-1, kor.applyInterfaceUpdate(1, withdraw(2, "sxn0", 2)));
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(kor.interfaceCount(), 1u);
}

TEST_F(KorInterfaces, NodeOutsideTheNodeListIsIgnoredOnceOneWasReported) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  sink.take();
  std::string why;
  EXPECT_EQ(-1, kor.applyInterfaceUpdate(9, publish(facts(9, "sxn0"), 1), &why));
  EXPECT_NE(why.find("not in the nodelist"), std::string::npos) << why;
  EXPECT_TRUE(sink.take().empty());
  EXPECT_FALSE(kor.hasNode(9));
}

TEST_F(KorInterfaces, BeforeAnyNodeListTheOriginCountsAsListed) {
  ASSERT_EQ(0, kor.applyInterfaceUpdate(3, publish(facts(3, "sxn0"), 1)));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{"ResourceDefined node/3",
                                                   "ResourceDefined node/3/sxn0",
                                                   "ConfigChanged node/3/sxn0"}));
  EXPECT_FALSE(kor.hasNodeList());
  // A withdrawal does not make a node known.
  EXPECT_EQ(-1, kor.applyInterfaceUpdate(4, withdraw(4, "sxn0", 1)));
  EXPECT_FALSE(kor.hasNode(4));
  // The first nodelist without node 3 undefines it with its interface.
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  EXPECT_EQ(sink.take(), (std::vector<std::string>{
                             "ResourceDefined node/1",
                             "ResourceUndefined node/3/sxn0",
                             "ConfigChanged node/3/sxn0 " + std::to_string(kUnassignUndef),
                             "ResourceUndefined node/3"}))
      << "nodes ascending: node 1 before node 3";
  expectMirrorMatches();
}

TEST_F(KorInterfaces, AtMost64PerNode) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  for (size_t i = 0; i < kKorMaxInterfacesPerNode; ++i) {
    ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "if" + std::to_string(i)), i + 1)));
  }
  sink.take();
  std::string why;
  EXPECT_EQ(-1, kor.applyInterfaceUpdate(1, publish(facts(1, "one-more"), 100), &why));
  EXPECT_NE(why.find("64 interfaces"), std::string::npos) << why;
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(kor.generationOf(1), kKorMaxInterfacesPerNode) << "a refused update raises nothing";
  // Changing one that is there is still fine.
  EXPECT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "if3", "10.9.9.9"), 101)));
  EXPECT_EQ(kor.interfaceCount(), kKorMaxInterfacesPerNode);
}

TEST_F(KorInterfaces, StringBoundsAreRefusedAndTheLimitsAccepted) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  proto::InterfaceResource atLimit = facts(1, std::string(kKorMaxInterfaceNameBytes, 'n'));
  atLimit.set_hardware_address(std::string(kKorMaxHardwareAddressBytes, 'h'));
  atLimit.set_device_name(std::string(kKorMaxDeviceNameBytes, 'd'));
  atLimit.set_device_path_name(std::string(kKorMaxDevicePathBytes, 'p'));
  atLimit.set_ip_address("255.255.255.255");
  EXPECT_EQ(0, kor.applyInterfaceUpdate(1, publish(atLimit, 1)));
  sink.take();

  std::vector<proto::InterfaceResource> refused;
  refused.push_back(facts(1, std::string(kKorMaxInterfaceNameBytes + 1, 'n')));
  refused.push_back(facts(1, ""));
  refused.push_back(facts(1, "a/b"));
  refused.push_back(facts(1, std::string("x\0y", 3)));
  for (const char* ip : {"", "10.0.0", "10.0.0.256", "::1", "10.0.0.1 ", "1.2.3.4.5"}) {
    refused.push_back(facts(1, "ipbad", ip));
  }
  refused.push_back(facts(1, "hw"));
  refused.back().set_hardware_address(std::string(kKorMaxHardwareAddressBytes + 1, 'h'));
  refused.push_back(facts(1, "dev"));
  refused.back().set_device_name(std::string(kKorMaxDeviceNameBytes + 1, 'd'));
  refused.push_back(facts(1, "path"));
  refused.back().set_device_path_name(std::string(kKorMaxDevicePathBytes + 1, 'p'));
  refused.push_back(facts(1, "utf"));
  refused.back().set_device_name("\xc0\x80");  // an overlong NUL
  for (const proto::InterfaceResource& r : refused) {
    std::string why;
    EXPECT_EQ(-1, kor.applyInterfaceUpdate(1, publish(r, 2), &why)) << r.ShortDebugString();
    EXPECT_FALSE(why.empty());
  }
  EXPECT_TRUE(sink.take().empty());
  EXPECT_EQ(kor.interfaceCount(), 1u);
  EXPECT_EQ(kor.generationOf(1), 1u);
}

TEST_F(KorInterfaces, GenerationRisesOnlyWhenLarger) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 7)));
  EXPECT_EQ(kor.generationOf(1), 7u);
  // An older generation still applies (the stream is the node's own order).
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.1.1.1"), 3)));
  EXPECT_EQ(kor.generationOf(1), 7u);
  EXPECT_EQ(valueOf(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})[0], "IPAddress")->text(),
            "10.1.1.1");
}

TEST_F(KorInterfaces, ElevenTypedAttributes) {
  proto::InterfaceResource f;
  f.set_node(5);
  f.set_name("ib0");
  f.set_device_name("mlx5_0");
  f.set_ip_address("192.168.7.5");
  f.set_device_sub_type(32);
  f.set_logical_id(-2);
  f.set_network_id(0);
  f.set_network_id64(0xfe80000000000000ull);
  f.set_port_id(1);
  f.set_hardware_address("80:00:02:08");
  f.set_device_path_name("mlx5_0");
  const proto::KorResource r = KorResources::interfaceResource(f, 0x55);
  EXPECT_EQ(r.class_name(), KOR_CLASS_NETWORK_INTERFACE);
  EXPECT_EQ(r.handle(), "node/5/ib0");
  EXPECT_EQ(attributeNames(r), *KorResources::attributeNamesOf(KOR_CLASS_NETWORK_INTERFACE));
  struct Want {
    const char* name;
    vx_data_type_t type;
  };
  for (const Want& w : {Want{"Name", VX_CHAR_PTR}, Want{"NodeIDs", VX_UINT64_ARRAY},
                        Want{"DeviceName", VX_CHAR_PTR}, Want{"IPAddress", VX_CHAR_PTR},
                        Want{"DeviceSubType", VX_UINT32}, Want{"LogicalID", VX_INT32},
                        Want{"NetworkID", VX_UINT32}, Want{"NetworkID64", VX_UINT64},
                        Want{"PortID", VX_UINT32}, Want{"HardwareAddress", VX_CHAR_PTR},
                        Want{"DevicePathName", VX_CHAR_PTR}}) {
    const proto::KorValue* v = valueOf(r, w.name);
    ASSERT_NE(v, nullptr) << w.name;
    EXPECT_EQ(v->type(), static_cast<uint32_t>(w.type)) << w.name;
  }
  EXPECT_EQ(valueOf(r, "Name")->text(), "ib0");
  EXPECT_EQ(valueOf(r, "NodeIDs")->uint_array(0), 0x55u);
  EXPECT_EQ(valueOf(r, "DeviceName")->text(), "mlx5_0");
  EXPECT_EQ(valueOf(r, "IPAddress")->text(), "192.168.7.5");
  EXPECT_EQ(valueOf(r, "DeviceSubType")->uint_value(), 32u);
  EXPECT_EQ(valueOf(r, "LogicalID")->int_value(), -2);
  EXPECT_EQ(valueOf(r, "NetworkID")->uint_value(), 0u);
  EXPECT_EQ(valueOf(r, "NetworkID64")->uint_value(), 0xfe80000000000000ull);
  EXPECT_EQ(valueOf(r, "PortID")->uint_value(), 1u);
  EXPECT_EQ(valueOf(r, "HardwareAddress")->text(), "80:00:02:08");
  EXPECT_EQ(valueOf(r, "DevicePathName")->text(), "mlx5_0");
  EXPECT_EQ(valueOf(KorResources::interfaceResource(f, 0), "NodeIDs")->uint_array_size(), 0);

  const proto::KorResource n = KorResources::peerNodeResource(5, "five", 0x55);
  EXPECT_EQ(n.handle(), "node/5");
  EXPECT_EQ(attributeNames(n), (std::vector<std::string>{"NodeList", "NodeIDs", "Name"}));
  EXPECT_EQ(valueOf(n, "NodeList")->type(), static_cast<uint32_t>(VX_UINT32_ARRAY));
  EXPECT_EQ(valueOf(n, "NodeIDs")->type(), static_cast<uint32_t>(VX_UINT64_ARRAY));
  EXPECT_EQ(valueOf(n, "Name")->type(), static_cast<uint32_t>(VX_CHAR_PTR));
}

// ------------------------------------------------------------ queries

using KorQuery = KorTest;

TEST_F(KorQuery, ResourcesComeNodesAscendingThenInterfacesByNodeAndName) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{10, "j"}, {2, "b"}, {1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(10, publish(facts(10, "eth0"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn1"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "ib0"), 2)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  EXPECT_EQ(handles(kor.query(KOR_CLASS_PEER_NODE, {})),
            (std::vector<std::string>{"node/1", "node/2", "node/10"}));
  EXPECT_EQ(handles(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})),
            (std::vector<std::string>{"node/1/sxn0", "node/2/ib0", "node/2/sxn1",
                                      "node/10/eth0"}));
}

TEST_F(KorQuery, NamedAttributesComeInTheOrderNamedOnceAndUnknownOnesAreLeftOut) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  auto rs = kor.query(KOR_CLASS_NETWORK_INTERFACE,
                      {"PortID", "NoSuchThing", "Name", "PortID", "IPAddress"});
  ASSERT_EQ(rs.size(), 1u);
  EXPECT_EQ(attributeNames(rs[0]), (std::vector<std::string>{"PortID", "Name", "IPAddress"}));
  EXPECT_EQ(rs[0].handle(), "node/1/sxn0");
  EXPECT_EQ(rs[0].class_name(), KOR_CLASS_NETWORK_INTERFACE);

  rs = kor.query(KOR_CLASS_PEER_NODE, {"NoSuchThing"});
  ASSERT_EQ(rs.size(), 1u);
  EXPECT_EQ(rs[0].attributes_size(), 0) << "only unknown names: the resource, no attribute";
}

TEST_F(KorQuery, EveryAttributeInClassOrderWhenNoneIsNamed) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0"), 1)));
  EXPECT_EQ(attributeNames(kor.query(KOR_CLASS_PEER_NODE, {})[0]),
            *KorResources::attributeNamesOf(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(attributeNames(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})[0]),
            *KorResources::attributeNamesOf(KOR_CLASS_NETWORK_INTERFACE));
}

TEST_F(KorQuery, NamedAttributesAreTheWholeResourceCutDown) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {7, "g"}})));
  ASSERT_EQ(0, kor.applyNodeId(7, 0x77));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.0.1"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(7, publish(facts(7, "ib1", "10.0.0.7"), 1)));
  const std::vector<std::vector<std::string>> asks = {
      {},
      {"Name"},
      {"NodeIDs", "Name", "NodeIDs"},
      {"HardwareAddress", "NoSuchThing", "NetworkID64", "LogicalID", "NodeList"},
      *KorResources::attributeNamesOf(KOR_CLASS_NETWORK_INTERFACE),
      {"DevicePathName", "PortID", "NetworkID", "DeviceSubType", "IPAddress", "DeviceName"},
  };
  for (const char* cls : {KOR_CLASS_PEER_NODE, KOR_CLASS_NETWORK_INTERFACE}) {
    const std::vector<proto::KorResource> whole = kor.query(cls, {});
    for (const std::vector<std::string>& names : asks) {
      const std::vector<proto::KorResource> cut = kor.query(cls, names);
      ASSERT_EQ(cut.size(), whole.size());
      for (size_t i = 0; i < cut.size(); ++i) {
        EXPECT_EQ(cut[i].SerializeAsString(),
                  KorResources::selectAttributes(whole[i], names).SerializeAsString())
            << cls << " " << whole[i].handle() << " with " << names.size() << " names";
      }
    }
  }
}

TEST_F(KorQuery, OneAtATimeUntilTheTakerStops) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  for (const char* name : {"sxn0", "sxn1", "sxn2"}) {
    ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, name), 1)));
  }
  std::vector<proto::KorResource> taken;
  taken.reserve(8);
  EXPECT_EQ(3u, kor.queryInto(KOR_CLASS_NETWORK_INTERFACE, {"Name"}, [&taken]() -> proto::KorResource* {
    taken.emplace_back();
    return &taken.back();
  }));
  ASSERT_EQ(taken.size(), 3u);
  EXPECT_EQ(taken[2].SerializeAsString(), kor.query(KOR_CLASS_NETWORK_INTERFACE, {"Name"})[2].SerializeAsString());
  int asked = 0;
  proto::KorResource scratch;
  EXPECT_EQ(2u, kor.queryInto(KOR_CLASS_NETWORK_INTERFACE, {}, [&]() -> proto::KorResource* {
    if (++asked > 2) return nullptr;
    scratch.Clear();
    return &scratch;
  }));
  EXPECT_EQ(0u, kor.queryInto("Zel.Nothing", {}, [] { return static_cast<proto::KorResource*>(nullptr); }));
}

TEST_F(KorQuery, UnknownClassAnswersNothing) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}})));
  EXPECT_TRUE(kor.query("Zel.Nothing", {}).empty());
  EXPECT_FALSE(KorResources::knownClass("Zel.Nothing"));
  EXPECT_TRUE(KorResources::knownClass(KOR_CLASS_PEER_NODE));
  EXPECT_EQ(KorResources::attributeNamesOf("Zel.Nothing"), nullptr);
}

TEST_F(KorQuery, OneResourceByItsHandle) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {12, "l"}})));
  ASSERT_EQ(0, kor.applyNodeId(12, 0x12));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(12, publish(facts(12, "sxn0", "10.0.0.12"), 1)));
  proto::KorResource r;
  ASSERT_EQ(0, kor.resource("node/12", &r));
  EXPECT_EQ(r.SerializeAsString(), KorResources::peerNodeResource(12, "l", 0x12).SerializeAsString());
  ASSERT_EQ(0, kor.resource("node/12/sxn0", &r));
  EXPECT_EQ(r.SerializeAsString(),
            KorResources::interfaceResource(facts(12, "sxn0", "10.0.0.12"), 0x12).SerializeAsString());
  for (const char* missing : {"", "node/", "node/2", "node/012", "node/+12", "node/12/",
                              "node/12/sxn1", "node/12/sxn0/x", "node/12x", "Node/12",
                              "node/4294967308", "node/99999999999999999999"}) {
    EXPECT_EQ(-1, kor.resource(missing, &r)) << missing;
  }
}

// ------------------------------------------------------------ images

using KorImages = KorTest;

TEST_F(KorImages, ImageIsCanonicalAndAdoptingItGivesAnEqualState) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{3, "c"}, {1, "a"}})));
  ASSERT_EQ(0, kor.applyNodeId(3, 33));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(3, publish(facts(3, "sxn1"), 4)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(3, publish(facts(3, "eth0"), 5)));
  const proto::KorImage img = kor.image();
  ASSERT_EQ(img.nodes_size(), 2);
  EXPECT_EQ(img.nodes(0).node(), 1u);
  EXPECT_EQ(img.nodes(1).node(), 3u);
  EXPECT_EQ(img.nodes(1).node_id(), 33u);
  EXPECT_EQ(img.nodes(1).generation(), 5u);
  ASSERT_EQ(img.interfaces_size(), 2);
  EXPECT_EQ(img.interfaces(0).name(), "eth0");
  EXPECT_TRUE(img.has_node_list());
  std::string why;
  EXPECT_TRUE(KorResources::validImage(img, &why)) << why;

  RecordingSink otherSink;
  KorResources other(&otherSink);
  EXPECT_EQ(0u, other.adopt({&img}));
  EXPECT_TRUE(other == kor);
  EXPECT_EQ(other.digest(), kor.digest());
  // Events from an empty state define everything, as if applied.
  EXPECT_EQ(otherSink.take(), (std::vector<std::string>{
                                  "ResourceDefined node/1",
                                  "ResourceDefined node/3",
                                  "ResourceDefined node/3/eth0",
                                  "ConfigChanged node/3/eth0",
                                  "ResourceDefined node/3/sxn1",
                                  "ConfigChanged node/3/sxn1",
                              }));
}

TEST_F(KorImages, ValidImageRefusesWhatBreaksTheBoundsOrTheOrder) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "a"}, {2, "b"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn1"), 2)));
  const proto::KorImage good = kor.image();
  std::string why;
  ASSERT_TRUE(KorResources::validImage(good, &why)) << why;

  std::vector<std::pair<std::string, proto::KorImage>> bad;
  auto add = [&](const std::string& what) -> proto::KorImage& {
    bad.emplace_back(what, good);
    return bad.back().second;
  };
  add("nodes out of order").mutable_nodes()->SwapElements(0, 1);
  add("node twice").mutable_nodes(1)->set_node(1);
  add("node 0").mutable_nodes(0)->set_node(0);
  add("long name").mutable_nodes(0)->set_name(std::string(256, 'x'));
  add("interfaces out of order").mutable_interfaces()->SwapElements(0, 1);
  add("interface twice").mutable_interfaces(1)->set_name("sxn0");
  add("interface of a node not held").mutable_interfaces(1)->set_node(3);
  add("bad address").mutable_interfaces(0)->set_ip_address("nowhere");
  {
    proto::KorImage& many = add("too many nodes");
    many.clear_interfaces();
    many.clear_nodes();
    for (uint32_t n = 1; n <= kKorMaxNodes + 1; ++n) many.add_nodes()->set_node(n);
  }
  {
    proto::KorImage& many = add("too many interfaces of one node");
    many.clear_interfaces();
    for (size_t i = 0; i <= kKorMaxInterfacesPerNode; ++i) {
      char name[16];
      snprintf(name, sizeof name, "if%03zu", i);
      *many.add_interfaces() = facts(2, name);
    }
  }
  for (const auto& b : bad) {
    why.clear();
    EXPECT_FALSE(KorResources::validImage(b.second, &why)) << b.first;
    EXPECT_FALSE(why.empty()) << b.first;
  }
}

// ------------------------------------------------------------ merges

// An image of nodes 1..3 as one side of a partition saw them.
proto::KorImage sideImage(const std::vector<std::pair<uint32_t, uint64_t>>& generations,
                          const std::string& ipSuffix, bool hasNodeList = true,
                          uint64_t id2 = 0) {
  proto::KorImage img;
  img.set_has_node_list(hasNodeList);
  for (const auto& g : generations) {
    proto::KorNodeImage* n = img.add_nodes();
    n->set_node(g.first);
    n->set_name("n" + std::to_string(g.first));
    n->set_generation(g.second);
    if (g.first == 2) n->set_node_id(id2);
  }
  for (const auto& g : generations) {
    *img.add_interfaces() = facts(g.first, "sxn0", "10.0." + std::to_string(g.first) + "." + ipSuffix);
  }
  return img;
}

std::string ipOf(const KorResources& k, const std::string& handle) {
  for (const auto& r : k.query(KOR_CLASS_NETWORK_INTERFACE, {"IPAddress"})) {
    if (r.handle() == handle) return r.attributes(0).value().text();
  }
  return "";
}

using KorMerge = KorTest;

TEST_F(KorMerge, EachNodesInterfacesComeWholeFromTheHighestGeneration) {
  proto::KorImage left = sideImage({{1, 5}, {2, 1}, {3, 9}}, "1");
  proto::KorImage right = sideImage({{1, 6}, {2, 2}, {3, 8}}, "2");
  // The right side also saw node 2 publish a second interface.
  proto::InterfaceResource extra = facts(2, "sxn1", "10.9.9.9");
  right.mutable_interfaces()->Add(std::move(extra));
  std::sort(right.mutable_interfaces()->begin(), right.mutable_interfaces()->end(),
            [](const proto::InterfaceResource& a, const proto::InterfaceResource& b) {
              return std::make_pair(a.node(), a.name()) < std::make_pair(b.node(), b.name());
            });
  EXPECT_EQ(0u, kor.adopt({&left, &right}));
  EXPECT_EQ(ipOf(kor, "node/1/sxn0"), "10.0.1.2");
  EXPECT_EQ(ipOf(kor, "node/2/sxn0"), "10.0.2.2");
  EXPECT_EQ(ipOf(kor, "node/2/sxn1"), "10.9.9.9");
  EXPECT_EQ(ipOf(kor, "node/3/sxn0"), "10.0.3.1");
  EXPECT_EQ(kor.generationOf(1), 6u);
  EXPECT_EQ(kor.generationOf(3), 9u);
  // Whole, not a union: a newer image of node 2 that lacks sxn1 drops it.
  proto::KorImage left2 = sideImage({{2, 7}}, "1");
  EXPECT_EQ(0u, kor.adopt({&right, &left2}));
  EXPECT_EQ(handles(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})),
            (std::vector<std::string>{"node/1/sxn0", "node/2/sxn0", "node/3/sxn0"}));
  EXPECT_EQ(ipOf(kor, "node/2/sxn0"), "10.0.2.1");
}

TEST_F(KorMerge, EqualGenerationsGoToTheEarliestImage) {
  const proto::KorImage a = sideImage({{1, 4}}, "1");
  const proto::KorImage b = sideImage({{1, 4}}, "2");
  EXPECT_EQ(0u, kor.adopt({&a, &b}));
  EXPECT_EQ(ipOf(kor, "node/1/sxn0"), "10.0.1.1");
  EXPECT_EQ(0u, kor.adopt({&b, &a}));
  EXPECT_EQ(ipOf(kor, "node/1/sxn0"), "10.0.1.2");
}

TEST_F(KorMerge, NodesAreTheUnionOfTheImagesThatHaveANodeList) {
  const proto::KorImage a = sideImage({{1, 1}, {2, 1}}, "1");
  const proto::KorImage b = sideImage({{2, 1}, {3, 1}}, "2");
  const proto::KorImage fresh = sideImage({{7, 1}}, "3", /*hasNodeList=*/false);
  EXPECT_EQ(0u, kor.adopt({&fresh, &a, &b}));
  EXPECT_TRUE(kor.hasNodeList());
  EXPECT_EQ(handles(kor.query(KOR_CLASS_PEER_NODE, {})),
            (std::vector<std::string>{"node/1", "node/2", "node/3"}));
  // Without any nodelist, every node known anywhere.
  const proto::KorImage fresh2 = sideImage({{8, 1}}, "3", /*hasNodeList=*/false);
  EXPECT_EQ(0u, kor.adopt({&fresh, &fresh2}));
  EXPECT_FALSE(kor.hasNodeList());
  EXPECT_EQ(handles(kor.query(KOR_CLASS_PEER_NODE, {})),
            (std::vector<std::string>{"node/7", "node/8"}));
}

TEST_F(KorMerge, NonZeroIdWinsAndConflictingIdsGoByGeneration) {
  const proto::KorImage none = sideImage({{2, 9}}, "1", true, 0);
  const proto::KorImage known = sideImage({{2, 1}}, "2", true, 0x22);
  EXPECT_EQ(0u, kor.adopt({&none, &known}));
  EXPECT_EQ(kor.nodeIdOf(2), 0x22u);
  EXPECT_EQ(ipOf(kor, "node/2/sxn0"), "10.0.2.1") << "interfaces still by generation";

  const proto::KorImage older = sideImage({{2, 3}}, "1", true, 0x33);
  const proto::KorImage newer = sideImage({{2, 4}}, "2", true, 0x44);
  EXPECT_EQ(0u, kor.adopt({&newer, &older}));
  EXPECT_EQ(kor.nodeIdOf(2), 0x44u);
  EXPECT_EQ(0u, kor.adopt({&older, &newer}));
  EXPECT_EQ(kor.nodeIdOf(2), 0x44u);
  const proto::KorImage tie = sideImage({{2, 4}}, "3", true, 0x55);
  EXPECT_EQ(0u, kor.adopt({&tie, &newer}));
  EXPECT_EQ(kor.nodeIdOf(2), 0x55u) << "a tie goes to the earliest image";
}

TEST_F(KorMerge, DigestDoesNotDependOnTheOrderOfTheSnapshots) {
  // Distinct generations per node, plus two equal snapshots: every order
  // of the four gives the same state.
  std::vector<proto::KorImage> images = {
      sideImage({{1, 1}, {2, 5}, {3, 2}}, "1", true, 0x20),
      sideImage({{1, 3}, {2, 4}}, "2", true, 0),
      sideImage({{2, 6}, {3, 1}, {4, 1}}, "3", true, 0x21),
      sideImage({{2, 6}, {3, 1}, {4, 1}}, "3", true, 0x21),
  };
  std::vector<int> order = {0, 1, 2, 3};
  uint64_t first = 0;
  int orders = 0;
  do {
    std::vector<const proto::KorImage*> given;
    for (int i : order) given.push_back(&images[i]);
    KorResources k;
    EXPECT_EQ(0u, k.adopt(given));
    if (orders++ == 0) {
      first = k.digest();
      EXPECT_EQ(k.nodeIdOf(2), 0x21u);
      EXPECT_EQ(ipOf(k, "node/1/sxn0"), "10.0.1.2");
      EXPECT_EQ(ipOf(k, "node/3/sxn0"), "10.0.3.1");
    }
    EXPECT_EQ(k.digest(), first);
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(orders, 24);
}

TEST_F(KorMerge, InvalidImagesAreLeftOutAndSaidSo) {
  const proto::KorImage good = sideImage({{1, 1}}, "1");
  proto::KorImage bad = sideImage({{2, 1}}, "2");
  bad.mutable_interfaces(0)->set_ip_address("nowhere");
  std::string why;
  EXPECT_EQ(1u, kor.adopt({&good, &bad}, &why));
  EXPECT_NE(why.find("IP address"), std::string::npos) << why;
  EXPECT_EQ(handles(kor.query(KOR_CLASS_PEER_NODE, {})),
            (std::vector<std::string>{"node/1"}));
}

TEST_F(KorMerge, AdoptTellsTheDifferencesAsIfApplied) {
  ASSERT_EQ(0, kor.applyNodeList(1, nodeList({{1, "n1"}, {2, "n2"}, {3, "n3"}})));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "sxn0", "10.0.2.1"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(2, publish(facts(2, "gone"), 1)));
  ASSERT_EQ(0, kor.applyInterfaceUpdate(3, publish(facts(3, "sxn0", "10.0.3.1"), 1)));
  sink.take();
  // The other side: node 3 left the nodelist, node 4 joined it, node 2
  // changed its interfaces later and announced its id.
  proto::KorImage other = sideImage({{1, 1}, {2, 2}, {4, 1}}, "1", true, 0x42);
  other.mutable_interfaces(1)->set_ip_address("10.0.2.9");
  EXPECT_EQ(0u, kor.adopt({&other}));
  const std::string undef = std::to_string(kUnassignUndef);
  EXPECT_EQ(sink.take(), (std::vector<std::string>{
                             "ConfigChanged node/2",
                             "ResourceUndefined node/2/gone",
                             "ConfigChanged node/2/gone " + undef,
                             "ConfigChanged node/2/sxn0",
                             "ResourceUndefined node/3/sxn0",
                             "ConfigChanged node/3/sxn0 " + undef,
                             "ResourceUndefined node/3",
                             "ResourceDefined node/4",
                             "ResourceDefined node/4/sxn0",
                             "ConfigChanged node/4/sxn0",
                         }));
  expectMirrorMatches();
}

// ------------------------------------------------------------ histories

// Random streams of every kind of input: the events alone always rebuild
// what a query answers, the state is always a valid image, and two states
// fed the same stream are equal.
using KorHistories = KorTest;

TEST_F(KorHistories, EventsAlwaysRebuildTheQueryAnswer) {
  std::mt19937 rng(4242);
  KorResources twin;
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  const std::vector<std::string> names = {"sxn0", "sxn1", "ib0", "eth0"};
  for (int step = 0; step < 3000; ++step) {
    const uint32_t node = 1 + pick(6);
    switch (pick(5)) {
      case 0: {
        proto::NodeListUpdate u;
        for (uint32_t n = 1; n <= 6; ++n) {
          if (pick(3) != 0) {
            proto::NodeEntry* e = u.add_nodes();
            e->set_node(n);
            e->set_name(pick(4) == 0 ? "renamed" : "n" + std::to_string(n));
          }
        }
        kor.applyNodeList(node, u);
        twin.applyNodeList(node, u);
        break;
      }
      case 1: {
        const uint64_t id = pick(3);
        kor.applyNodeId(node, id);
        twin.applyNodeId(node, id);
        break;
      }
      case 2:
      case 3: {
        proto::InterfaceUpdate u =
            pick(3) == 0 ? withdraw(node, names[pick(4)], pick(20))
                         : publish(facts(node, names[pick(4)], "10.0.0." + std::to_string(pick(3))),
                                   pick(20));
        const uint32_t origin = pick(8) == 0 ? 1 + pick(6) : node;
        kor.applyInterfaceUpdate(origin, u);
        twin.applyInterfaceUpdate(origin, u);
        break;
      }
      default: {
        // A merge with a state that went its own way for a while.
        proto::KorImage mine = kor.image();
        KorResources side;
        side.adopt({&mine});
        side.applyInterfaceUpdate(node, publish(facts(node, "side", "10.1.1.1"), pick(30)));
        side.applyNodeId(node, 100 + pick(2));
        proto::KorImage theirs = side.image();
        std::vector<const proto::KorImage*> both = {&mine, &theirs};
        if (pick(2) == 0) std::swap(both[0], both[1]);
        EXPECT_EQ(0u, kor.adopt(both));
        EXPECT_EQ(0u, twin.adopt(both));
        break;
      }
    }
    std::string why;
    ASSERT_TRUE(KorResources::validImage(kor.image(), &why)) << "step " << step << ": " << why;
    ASSERT_TRUE(kor == twin) << "step " << step;
    ASSERT_NO_FATAL_FAILURE(expectMirrorMatches()) << "step " << step;
  }
}

}  // namespace
}  // namespace agent
}  // namespace velt

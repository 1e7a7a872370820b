// KorService on its own: queries answered from a KorResources fed through
// its apply methods (attribute selection, paging, refused names), the
// clients' registrations and their limits, and the events a change of the
// resources brings each registration.
#include "kor_service.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "gs_types.h"
#include "kor_resources.h"

namespace velt {
namespace agent {
namespace {

constexpr uint32_t kUnassignUndef = MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF;

proto::NodeListUpdate nodeList(const std::vector<std::pair<uint32_t, std::string>>& nodes) {
  proto::NodeListUpdate u;
  for (const auto& n : nodes) {
    proto::NodeEntry* e = u.add_nodes();
    e->set_node(n.first);
    e->set_name(n.second);
  }
  return u;
}

proto::InterfaceResource facts(uint32_t node, const std::string& name, const std::string& ip) {
  proto::InterfaceResource r;
  r.set_node(node);
  r.set_name(name);
  r.set_device_name("0000:03:00." + std::to_string(node));
  r.set_ip_address(ip);
  r.set_device_sub_type(1);
  r.set_logical_id(7);
  r.set_network_id(1);
  r.set_network_id64(0x0a000000);
  r.set_port_id(0);
  r.set_hardware_address("52:54:00:12:34:5" + std::to_string(node));
  r.set_device_path_name("0000:03:00." + std::to_string(node));
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

proto::Request queryReq(uint64_t id, const std::string& className,
                        const std::vector<std::string>& attributes = {}) {
  proto::Request r;
  r.set_id(id);
  r.mutable_kor_query()->set_class_name(className);
  for (const std::string& a : attributes) r.mutable_kor_query()->add_attributes(a);
  return r;
}

proto::Request registerReq(uint64_t id, proto::KorRegister::Kind kind, const std::string& className,
                           const std::string& event,
                           const std::vector<std::string>& attributes = {}) {
  proto::Request r;
  r.set_id(id);
  proto::KorRegister* k = r.mutable_kor_register();
  k->set_kind(kind);
  k->set_class_name(className);
  k->set_event(event);
  for (const std::string& a : attributes) k->add_attributes(a);
  return r;
}

proto::Request unregisterReq(uint64_t id, uint64_t registration) {
  proto::Request r;
  r.set_id(id);
  r.mutable_kor_unregister()->set_registration(registration);
  return r;
}

std::vector<std::string> attributeNames(const proto::KorResource& r) {
  std::vector<std::string> out;
  for (const proto::KorAttribute& a : r.attributes()) out.push_back(a.name());
  return out;
}

const proto::KorValue* valueOf(const proto::KorResource& r, const std::string& name) {
  for (const proto::KorAttribute& a : r.attributes()) {
    if (a.name() == name) return &a.value();
  }
  return nullptr;
}

// Passes every change of the resources on to the service, as the agent's
// core does, and keeps the events it gives.
class ForwardingSink : public KorSink {
 public:
  explicit ForwardingSink(KorService* service) : service_(service) {}
  void korEvent(const KorChange& change) override { service_->changed(change, &out); }
  std::vector<KorService::Outgoing> take() {
    std::vector<KorService::Outgoing> taken;
    taken.swap(out);
    return taken;
  }
  std::vector<KorService::Outgoing> out;

 private:
  KorService* service_;
};

class KorServiceTest : public ::testing::Test {
 protected:
  KorServiceTest() : sink_(&service_), kor_(&sink_) {}

  // Three nodes with ids; node 1 has two interfaces, node 2 one.
  void populate() {
    ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}, {2, "beta"}, {3, "gamma"}})));
    ASSERT_EQ(0, kor_.applyNodeId(1, 0x1111));
    ASSERT_EQ(0, kor_.applyNodeId(2, 0x2222));
    ASSERT_EQ(0, kor_.applyNodeId(3, 0x3333));
    ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
    ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn1", "10.0.2.1"), 2)));
    ASSERT_EQ(0, kor_.applyInterfaceUpdate(2, publish(facts(2, "sxn0", "10.0.1.2"), 1)));
    sink_.take();
  }

  // The single reply of a request that gives one frame.
  proto::Reply serveOne(uint64_t client, const proto::Request& r) {
    std::vector<proto::AgentFrame> frames = service_.serve(client, r, kor_);
    EXPECT_EQ(1u, frames.size()) << r.ShortDebugString();
    if (frames.empty()) return proto::Reply();
    EXPECT_TRUE(frames[0].has_reply());
    EXPECT_EQ(static_cast<uint32_t>(proto::WIRE_VERSION_1), frames[0].version());
    EXPECT_EQ(r.id(), frames[0].reply().id());
    return frames[0].reply();
  }

  // Registers and returns the registration (0 when refused).
  uint64_t registerOk(uint64_t client, proto::KorRegister::Kind kind, const std::string& className,
                      const std::string& event, const std::vector<std::string>& attributes = {}) {
    proto::Reply r = serveOne(client, registerReq(nextId_++, kind, className, event, attributes));
    EXPECT_EQ(TK_GS_OK, r.rc()) << r.text();
    EXPECT_NE(0u, r.kor().registration()) << r.text();
    return r.kor().registration();
  }

  KorService service_;
  ForwardingSink sink_;
  KorResources kor_;
  uint64_t nextId_ = 100;
};

// ------------------------------------------------------------ queries

using KorServiceQuery = KorServiceTest;

TEST_F(KorServiceQuery, PeerNodesComeWithEveryAttributeWhenNoneIsNamed) {
  populate();
  proto::Reply r = serveOne(7, queryReq(1, KOR_CLASS_PEER_NODE));
  ASSERT_EQ(TK_GS_OK, r.rc()) << r.text();
  EXPECT_FALSE(r.kor().more());
  ASSERT_EQ(3, r.kor().resources_size());
  const char* names[] = {"alpha", "beta", "gamma"};
  for (int i = 0; i < 3; ++i) {
    const proto::KorResource& res = r.kor().resources(i);
    EXPECT_EQ(KOR_CLASS_PEER_NODE, res.class_name());
    EXPECT_EQ("node/" + std::to_string(i + 1), res.handle());
    EXPECT_EQ((std::vector<std::string>{kKorAttrNodeList, kKorAttrNodeIds, kKorAttrName}),
              attributeNames(res));
    const proto::KorValue* list = valueOf(res, kKorAttrNodeList);
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(static_cast<uint32_t>(VX_UINT32_ARRAY), list->type());
    ASSERT_EQ(1, list->uint_array_size());
    EXPECT_EQ(static_cast<uint64_t>(i + 1), list->uint_array(0));
    const proto::KorValue* ids = valueOf(res, kKorAttrNodeIds);
    ASSERT_NE(nullptr, ids);
    EXPECT_EQ(static_cast<uint32_t>(VX_UINT64_ARRAY), ids->type());
    ASSERT_EQ(1, ids->uint_array_size());
    EXPECT_EQ(0x1111u * (i + 1), ids->uint_array(0));
    EXPECT_EQ(names[i], valueOf(res, kKorAttrName)->text());
  }
}

TEST_F(KorServiceQuery, PeerNodesWithOnlyTheAttributesNamedInTheOrderNamed) {
  populate();
  proto::Reply r = serveOne(7, queryReq(1, KOR_CLASS_PEER_NODE, {kKorAttrName, kKorAttrNodeIds}));
  ASSERT_EQ(TK_GS_OK, r.rc()) << r.text();
  ASSERT_EQ(3, r.kor().resources_size());
  for (const proto::KorResource& res : r.kor().resources()) {
    EXPECT_EQ((std::vector<std::string>{kKorAttrName, kKorAttrNodeIds}), attributeNames(res));
  }
  EXPECT_EQ("beta", r.kor().resources(1).attributes(0).value().text());
}

TEST_F(KorServiceQuery, InterfacesComeWithEveryAttributeWhenNoneIsNamed) {
  populate();
  proto::Reply r = serveOne(7, queryReq(2, KOR_CLASS_NETWORK_INTERFACE));
  ASSERT_EQ(TK_GS_OK, r.rc()) << r.text();
  EXPECT_FALSE(r.kor().more());
  ASSERT_EQ(3, r.kor().resources_size());
  EXPECT_EQ("node/1/sxn0", r.kor().resources(0).handle());
  EXPECT_EQ("node/1/sxn1", r.kor().resources(1).handle());
  EXPECT_EQ("node/2/sxn0", r.kor().resources(2).handle());
  const std::vector<std::string>* all = KorResources::attributeNamesOf(KOR_CLASS_NETWORK_INTERFACE);
  ASSERT_NE(nullptr, all);
  EXPECT_EQ(11u, all->size());
  for (const proto::KorResource& res : r.kor().resources()) {
    EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, res.class_name());
    EXPECT_EQ(*all, attributeNames(res));
  }
  const proto::KorResource& last = r.kor().resources(2);
  EXPECT_EQ("10.0.1.2", valueOf(last, kKorAttrIpAddress)->text());
  EXPECT_EQ(0x2222u, valueOf(last, kKorAttrNodeIds)->uint_array(0));
  EXPECT_EQ(7, valueOf(last, kKorAttrLogicalId)->int_value());
  EXPECT_EQ(0x0a000000u, valueOf(last, kKorAttrNetworkId64)->uint_value());
}

TEST_F(KorServiceQuery, InterfacesWithOnlyTheAttributesNamedUnknownOnesLeftOut) {
  populate();
  proto::Reply r = serveOne(
      7, queryReq(2, KOR_CLASS_NETWORK_INTERFACE,
                  {kKorAttrIpAddress, "NoSuchAttribute", kKorAttrName, kKorAttrIpAddress}));
  ASSERT_EQ(TK_GS_OK, r.rc()) << r.text();
  ASSERT_EQ(3, r.kor().resources_size());
  for (const proto::KorResource& res : r.kor().resources()) {
    EXPECT_EQ((std::vector<std::string>{kKorAttrIpAddress, kKorAttrName}), attributeNames(res));
  }
  EXPECT_EQ("10.0.2.1", r.kor().resources(1).attributes(0).value().text());
  EXPECT_EQ("sxn1", r.kor().resources(1).attributes(1).value().text());
}

TEST_F(KorServiceQuery, ClassWithoutResourcesGivesAnEmptyAnswer) {
  ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}})));
  proto::Reply r = serveOne(7, queryReq(3, KOR_CLASS_NETWORK_INTERFACE));
  EXPECT_EQ(TK_GS_OK, r.rc());
  EXPECT_TRUE(r.has_kor());
  EXPECT_EQ(0, r.kor().resources_size());
  EXPECT_FALSE(r.kor().more());
}

TEST_F(KorServiceQuery, UnknownClassIsAnUnknownGroup) {
  populate();
  for (const std::string& cls : {std::string("Zel.Nothing"), std::string(""),
                                 std::string("zel.peernode")}) {
    proto::Reply r = serveOne(7, queryReq(4, cls));
    EXPECT_EQ(TK_GS_UNKNOWN_GROUP, r.rc()) << cls;
    EXPECT_EQ(0, r.kor().resources_size());
    EXPECT_NE(std::string::npos, r.text().find("no resource class")) << r.text();
  }
}

TEST_F(KorServiceQuery, TooManyAttributeNamesAreRefused) {
  populate();
  std::vector<std::string> names(64, kKorAttrName);
  EXPECT_EQ(TK_GS_OK, serveOne(7, queryReq(5, KOR_CLASS_PEER_NODE, names)).rc());
  names.push_back(kKorAttrName);
  proto::Reply r = serveOne(7, queryReq(6, KOR_CLASS_PEER_NODE, names));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, r.rc());
  EXPECT_EQ(0, r.kor().resources_size());
  EXPECT_NE(std::string::npos, r.text().find("65 attributes")) << r.text();
}

TEST_F(KorServiceQuery, EmptyOrTooLongAttributeNamesAreRefused) {
  populate();
  proto::Reply empty = serveOne(7, queryReq(7, KOR_CLASS_PEER_NODE, {kKorAttrName, ""}));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, empty.rc());
  EXPECT_EQ(0, empty.kor().resources_size());
  // 64 bytes is a name (of no attribute), 65 is not.
  EXPECT_EQ(TK_GS_OK, serveOne(7, queryReq(8, KOR_CLASS_PEER_NODE, {std::string(64, 'a')})).rc());
  proto::Reply tooLong =
      serveOne(7, queryReq(9, KOR_CLASS_NETWORK_INTERFACE, {std::string(65, 'a')}));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, tooLong.rc());
  EXPECT_NE(std::string::npos, tooLong.text().find("65 bytes")) << tooLong.text();
}

TEST_F(KorServiceQuery, RequestOfAnotherKindIsABadParameter) {
  proto::Request r;
  r.set_id(11);
  r.mutable_query()->set_kind(proto::Query::STATUS);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, serveOne(7, r).rc());
}

// ------------------------------------------------------------ paging

class KorServicePaging : public KorServiceTest {
 protected:
  // Sixty interfaces on node 1 and node 2 each.
  void populateMany() {
    ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}, {2, "beta"}})));
    uint64_t gen = 0;
    for (uint32_t node : {1u, 2u}) {
      for (int i = 0; i < 60; ++i) {
        std::string ip = "10." + std::to_string(node) + ".0." + std::to_string(i + 1);
        ASSERT_EQ(0, kor_.applyInterfaceUpdate(
                         node, publish(facts(node, "eth" + std::to_string(i), ip), ++gen)));
      }
    }
  }
  // The whole answer as one service with the usual page size gives it.
  std::vector<proto::KorResource> unpaged(const proto::Request& r) {
    KorService plain;
    std::vector<proto::AgentFrame> frames = plain.serve(1, r, kor_);
    EXPECT_EQ(1u, frames.size());
    return {frames[0].reply().kor().resources().begin(), frames[0].reply().kor().resources().end()};
  }
};

TEST_F(KorServicePaging, SmallPagesGiveSeveralRepliesThatTogetherAreTheWholeAnswer) {
  populateMany();
  proto::Request q = queryReq(21, KOR_CLASS_NETWORK_INTERFACE);
  std::vector<proto::KorResource> whole = unpaged(q);
  ASSERT_EQ(120u, whole.size());
  const size_t one = whole[0].ByteSizeLong();

  KorService::Limits limits;
  limits.pageBytes = one * 10;   // about ten resources a page
  KorService paged(limits);
  std::vector<proto::AgentFrame> frames = paged.serve(3, q, kor_);
  ASSERT_GE(frames.size(), 10u);
  std::vector<proto::KorResource> joined;
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_TRUE(frames[i].has_reply());
    const proto::Reply& r = frames[i].reply();
    EXPECT_EQ(21u, r.id());
    EXPECT_EQ(TK_GS_OK, r.rc());
    EXPECT_EQ(i + 1 < frames.size(), r.kor().more()) << "page " << i;
    EXPECT_GT(r.kor().resources_size(), 0) << "page " << i;
    size_t bytes = 0;
    for (const proto::KorResource& res : r.kor().resources()) {
      bytes += res.ByteSizeLong();
      joined.push_back(res);
    }
    EXPECT_LE(bytes, limits.pageBytes) << "page " << i;
  }
  ASSERT_EQ(whole.size(), joined.size());
  for (size_t i = 0; i < whole.size(); ++i) {
    EXPECT_EQ(whole[i].SerializeAsString(), joined[i].SerializeAsString()) << i;
  }
}

TEST_F(KorServicePaging, PageSmallerThanOneResourceCarriesOneResourceEach) {
  populateMany();
  KorService::Limits limits;
  limits.pageBytes = 1;
  KorService paged(limits);
  proto::Request q = queryReq(22, KOR_CLASS_NETWORK_INTERFACE, {kKorAttrName, kKorAttrIpAddress});
  std::vector<proto::KorResource> whole = unpaged(q);
  std::vector<proto::AgentFrame> frames = paged.serve(3, q, kor_);
  ASSERT_EQ(whole.size(), frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const proto::Reply& r = frames[i].reply();
    ASSERT_EQ(1, r.kor().resources_size());
    EXPECT_EQ(whole[i].SerializeAsString(), r.kor().resources(0).SerializeAsString());
    EXPECT_EQ(i + 1 < frames.size(), r.kor().more());
  }
}

TEST_F(KorServicePaging, AnswerThatFitsIsOneReplyWithoutMore) {
  populateMany();
  KorService::Limits limits;
  limits.pageBytes = 1;
  KorService paged(limits);
  // Two nodes: two PeerNodes, so two pages; the one refused query stays one.
  EXPECT_EQ(2u, paged.serve(3, queryReq(23, KOR_CLASS_PEER_NODE), kor_).size());
  EXPECT_EQ(1u, paged.serve(3, queryReq(24, "Zel.Nothing"), kor_).size());
  std::vector<proto::AgentFrame> one = service_.serve(3, queryReq(25, KOR_CLASS_PEER_NODE), kor_);
  ASSERT_EQ(1u, one.size());
  EXPECT_FALSE(one[0].reply().kor().more());
  EXPECT_EQ(2, one[0].reply().kor().resources_size());
}

// ------------------------------------------------------------ registrations

using KorServiceRegister = KorServiceTest;

TEST_F(KorServiceRegister, ClassAndResourceEventsOfBothClassesAreTaken) {
  std::vector<uint64_t> regs = {
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED),
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED),
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                 KOR_EVENT_DEFINED),
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                 KOR_EVENT_UNDEFINED),
      registerOk(1, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                 KOR_CONDITION_CONFIG_CHANGED, {kKorAttrName, kKorAttrIpAddress}),
      registerOk(2, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_PEER_NODE,
                 KOR_CONDITION_CONFIG_CHANGED),
  };
  for (size_t i = 1; i < regs.size(); ++i) EXPECT_GT(regs[i], regs[i - 1]);
  EXPECT_EQ(6u, service_.registrationCount());
  EXPECT_EQ(5u, service_.registrationsOf(1));
  EXPECT_EQ(1u, service_.registrationsOf(2));
  EXPECT_EQ(0u, service_.registrationsOf(3));
}

TEST_F(KorServiceRegister, BadEventNamesAndKindsAreRefused) {
  struct Case {
    proto::KorRegister::Kind kind;
    std::string className;
    std::string event;
    int rc;
  };
  const Case cases[] = {
      {proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_CONDITION_CONFIG_CHANGED,
       TK_GS_BAD_PARAMETER},
      {proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, "resourcedefined",
       TK_GS_BAD_PARAMETER},
      {proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE, "", TK_GS_BAD_PARAMETER},
      {proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED,
       TK_GS_BAD_PARAMETER},
      {proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE, "Changed",
       TK_GS_BAD_PARAMETER},
      {proto::KorRegister::KIND_UNSPECIFIED, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED,
       TK_GS_BAD_PARAMETER},
      {static_cast<proto::KorRegister::Kind>(9), KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED,
       TK_GS_BAD_PARAMETER},
      {proto::KorRegister::CLASS_EVENT, "Zel.Nothing", KOR_EVENT_DEFINED, TK_GS_UNKNOWN_GROUP},
      {proto::KorRegister::RESOURCE_EVENT, "", KOR_CONDITION_CONFIG_CHANGED, TK_GS_UNKNOWN_GROUP},
  };
  for (const Case& c : cases) {
    proto::Reply r = serveOne(1, registerReq(nextId_++, c.kind, c.className, c.event));
    EXPECT_EQ(c.rc, r.rc()) << c.className << " " << c.event << ": " << r.text();
    EXPECT_EQ(0u, r.kor().registration());
    EXPECT_FALSE(r.text().empty());
  }
  EXPECT_EQ(0u, service_.registrationCount());
}

TEST_F(KorServiceRegister, UnknownAttributeGivesRegistrationZeroWithoutFailingTheCall) {
  proto::Reply r = serveOne(
      1, registerReq(31, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                     KOR_CONDITION_CONFIG_CHANGED, {kKorAttrName, "Speed"}));
  EXPECT_EQ(TK_GS_OK, r.rc());
  ASSERT_TRUE(r.has_kor());
  EXPECT_EQ(0u, r.kor().registration());
  EXPECT_NE(std::string::npos, r.text().find("\"Speed\"")) << r.text();
  // An attribute of the other class is just as unknown here.
  r = serveOne(1, registerReq(32, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_PEER_NODE,
                              KOR_CONDITION_CONFIG_CHANGED, {kKorAttrIpAddress}));
  EXPECT_EQ(TK_GS_OK, r.rc());
  EXPECT_EQ(0u, r.kor().registration());
  EXPECT_EQ(0u, service_.registrationCount());
}

TEST_F(KorServiceRegister, RefusedAttributeNamesAreRefusedForRegistrationsToo) {
  proto::Reply r = serveOne(
      1, registerReq(33, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                     KOR_CONDITION_CONFIG_CHANGED, {""}));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, r.rc());
  r = serveOne(1, registerReq(34, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                              KOR_CONDITION_CONFIG_CHANGED,
                              std::vector<std::string>(65, kKorAttrName)));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, r.rc());
  EXPECT_EQ(0u, service_.registrationCount());
}

TEST_F(KorServiceRegister, OneConnectionHoldsAtMostSixtyFour) {
  uint64_t first = 0;
  for (int i = 0; i < 64; ++i) {
    uint64_t reg =
        registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
    if (first == 0) first = reg;
  }
  proto::Reply r = serveOne(1, registerReq(nextId_++, proto::KorRegister::CLASS_EVENT,
                                           KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, r.rc());
  EXPECT_EQ(0u, r.kor().registration());
  EXPECT_EQ(64u, service_.registrationsOf(1));
  // Another connection is not held back by it.
  registerOk(2, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
  // One ended makes room for one more.
  EXPECT_EQ(TK_GS_OK, serveOne(1, unregisterReq(nextId_++, first)).rc());
  registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
  EXPECT_EQ(64u, service_.registrationsOf(1));
}

TEST_F(KorServiceRegister, TheAgentHoldsAtMost4096) {
  for (uint64_t client = 1; client <= 64; ++client) {
    for (int i = 0; i < 64; ++i) {
      proto::Reply r = serveOne(client, registerReq(nextId_++, proto::KorRegister::CLASS_EVENT,
                                                    KOR_CLASS_NETWORK_INTERFACE,
                                                    KOR_EVENT_DEFINED));
      ASSERT_EQ(TK_GS_OK, r.rc()) << client << "/" << i << ": " << r.text();
    }
  }
  EXPECT_EQ(4096u, service_.registrationCount());
  proto::Reply r = serveOne(65, registerReq(nextId_++, proto::KorRegister::CLASS_EVENT,
                                            KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, r.rc());
  EXPECT_NE(std::string::npos, r.text().find("4096")) << r.text();
  EXPECT_EQ(0u, service_.registrationsOf(65));
  service_.dropClient(3);
  EXPECT_EQ(4032u, service_.registrationCount());
  registerOk(65, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED);
}

TEST_F(KorServiceRegister, SmallerLimitsAreKeptPerConnectionAndInAll) {
  KorService::Limits limits;
  limits.maxRegistrationsPerClient = 2;
  limits.maxRegistrations = 3;
  KorService small(limits);
  auto reg = [&](uint64_t client) {
    proto::Request r = registerReq(nextId_++, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE,
                                   KOR_EVENT_DEFINED);
    return small.serve(client, r, kor_).at(0).reply().rc();
  };
  EXPECT_EQ(TK_GS_OK, reg(1));
  EXPECT_EQ(TK_GS_OK, reg(1));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, reg(1));
  EXPECT_EQ(TK_GS_OK, reg(2));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, reg(2));   // three in all
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, reg(3));
  EXPECT_EQ(3u, small.registrationCount());
}

TEST_F(KorServiceRegister, UnregisterEndsOwnRegistrationOnce) {
  uint64_t reg =
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
  EXPECT_EQ(TK_GS_OK, serveOne(1, unregisterReq(41, reg)).rc());
  EXPECT_EQ(0u, service_.registrationCount());
  EXPECT_EQ(0u, service_.registrationsOf(1));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, serveOne(1, unregisterReq(42, reg)).rc());
  EXPECT_EQ(TK_GS_BAD_PARAMETER, serveOne(1, unregisterReq(43, 0)).rc());
  EXPECT_EQ(TK_GS_BAD_PARAMETER, serveOne(1, unregisterReq(44, 999)).rc());
}

TEST_F(KorServiceRegister, UnregisterOfAnotherConnectionsRegistrationIsRefused) {
  ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}})));
  sink_.take();
  uint64_t reg =
      registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED);
  proto::Reply r = serveOne(2, unregisterReq(45, reg));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, r.rc());
  EXPECT_NE(std::string::npos, r.text().find(std::to_string(reg))) << r.text();
  EXPECT_EQ(1u, service_.registrationsOf(1));
  // The owner still hears its events.
  ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}, {2, "beta"}})));
  std::vector<KorService::Outgoing> out = sink_.take();
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ(1u, out[0].client);
  EXPECT_EQ(reg, out[0].frame.kor_event().registration());
}

// ------------------------------------------------------------ events

class KorServiceEvents : public KorServiceTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}, {2, "beta"}})));
    ASSERT_EQ(0, kor_.applyNodeId(1, 0xabc));
    sink_.take();
    ifDefined_ = registerOk(1, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                            KOR_EVENT_DEFINED);
    ifUndefined_ = registerOk(2, proto::KorRegister::CLASS_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                              KOR_EVENT_UNDEFINED);
    ifChanged_ = registerOk(3, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                            KOR_CONDITION_CONFIG_CHANGED, {kKorAttrIpAddress, kKorAttrName});
    nodeDefined_ = registerOk(4, proto::KorRegister::CLASS_EVENT, KOR_CLASS_PEER_NODE,
                              KOR_EVENT_DEFINED);
  }
  // "client:registration:event handle [flags]" for each event.
  static std::vector<std::string> summary(const std::vector<KorService::Outgoing>& out) {
    std::vector<std::string> s;
    for (const KorService::Outgoing& o : out) {
      const proto::KorEvent& e = o.frame.kor_event();
      std::string line = std::to_string(o.client) + ":" + std::to_string(e.registration()) + ":" +
                         e.event() + " " + e.resource().handle();
      if (e.flags() != 0) line += " " + std::to_string(e.flags());
      s.push_back(line);
    }
    return s;
  }
  std::string line(uint64_t client, uint64_t reg, const std::string& rest) {
    return std::to_string(client) + ":" + std::to_string(reg) + ":" + rest;
  }

  uint64_t ifDefined_ = 0, ifUndefined_ = 0, ifChanged_ = 0, nodeDefined_ = 0;
};

TEST_F(KorServiceEvents, DefinedInterfaceReachesOnlyTheRegistrationsThatAskedForIt) {
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  std::vector<KorService::Outgoing> out = sink_.take();
  EXPECT_EQ(summary(out),
            (std::vector<std::string>{line(1, ifDefined_, "ResourceDefined node/1/sxn0"),
                                      line(3, ifChanged_, "ConfigChanged node/1/sxn0")}));
  ASSERT_EQ(2u, out.size());
  for (const KorService::Outgoing& o : out) {
    EXPECT_EQ(static_cast<uint32_t>(proto::WIRE_VERSION_1), o.frame.version());
    ASSERT_TRUE(o.frame.has_kor_event());
    EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, o.frame.kor_event().class_name());
    EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, o.frame.kor_event().resource().class_name());
    EXPECT_EQ(0u, o.frame.kor_event().flags());
  }
  // The class event names the resource and carries no attributes.
  const proto::KorEvent& cls = out[0].frame.kor_event();
  EXPECT_EQ(proto::KorRegister::CLASS_EVENT, cls.kind());
  EXPECT_EQ(0, cls.resource().attributes_size());
  // The resource event carries exactly the attributes registered, in order.
  const proto::KorEvent& res = out[1].frame.kor_event();
  EXPECT_EQ(proto::KorRegister::RESOURCE_EVENT, res.kind());
  EXPECT_EQ((std::vector<std::string>{kKorAttrIpAddress, kKorAttrName}),
            attributeNames(res.resource()));
  EXPECT_EQ("10.0.1.1", res.resource().attributes(0).value().text());
  EXPECT_EQ("sxn0", res.resource().attributes(1).value().text());
  EXPECT_LT(cls.sequence(), res.sequence());
}

TEST_F(KorServiceEvents, WithdrawnInterfaceGivesUndefinedAndConfigChangedWithTheUnassignFlags) {
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  std::vector<KorService::Outgoing> before = sink_.take();
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, withdraw(1, "sxn0", 2)));
  std::vector<KorService::Outgoing> out = sink_.take();
  EXPECT_EQ(summary(out),
            (std::vector<std::string>{line(2, ifUndefined_, "ResourceUndefined node/1/sxn0"),
                                      line(3, ifChanged_, "ConfigChanged node/1/sxn0 96")}));
  ASSERT_EQ(2u, out.size());
  EXPECT_EQ(kUnassignUndef, out[1].frame.kor_event().flags());
  EXPECT_EQ(0u, out[0].frame.kor_event().flags());
  // The last attributes the resource had.
  const proto::KorResource& last = out[1].frame.kor_event().resource();
  EXPECT_EQ((std::vector<std::string>{kKorAttrIpAddress, kKorAttrName}), attributeNames(last));
  EXPECT_EQ("10.0.1.1", last.attributes(0).value().text());
  // Sequence numbers go on growing across clients and changes.
  uint64_t seq = 0;
  for (const auto* batch : {&before, &out}) {
    for (const KorService::Outgoing& o : *batch) {
      EXPECT_GT(o.frame.kor_event().sequence(), seq);
      seq = o.frame.kor_event().sequence();
    }
  }
}

TEST_F(KorServiceEvents, ChangedAttributesGiveConfigChangedOnly) {
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  sink_.take();
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.9.9"), 2)));
  std::vector<KorService::Outgoing> out = sink_.take();
  EXPECT_EQ(summary(out),
            (std::vector<std::string>{line(3, ifChanged_, "ConfigChanged node/1/sxn0")}));
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ("10.0.9.9", out[0].frame.kor_event().resource().attributes(0).value().text());
}

TEST_F(KorServiceEvents, ResourceEventWithoutAttributesNamedCarriesEveryAttribute) {
  uint64_t all = registerOk(5, proto::KorRegister::RESOURCE_EVENT, KOR_CLASS_NETWORK_INTERFACE,
                            KOR_CONDITION_CONFIG_CHANGED);
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  std::vector<KorService::Outgoing> out = sink_.take();
  bool seen = false;
  for (const KorService::Outgoing& o : out) {
    if (o.client != 5) continue;
    seen = true;
    EXPECT_EQ(all, o.frame.kor_event().registration());
    EXPECT_EQ(*KorResources::attributeNamesOf(KOR_CLASS_NETWORK_INTERFACE),
              attributeNames(o.frame.kor_event().resource()));
    EXPECT_EQ(0xabcu, valueOf(o.frame.kor_event().resource(), kKorAttrNodeIds)->uint_array(0));
  }
  EXPECT_TRUE(seen);
}

TEST_F(KorServiceEvents, PeerNodeEventsGoToPeerNodeRegistrationsOnly) {
  ASSERT_EQ(0, kor_.applyNodeList(1, nodeList({{1, "alpha"}, {2, "beta"}, {3, "gamma"}})));
  std::vector<KorService::Outgoing> out = sink_.take();
  EXPECT_EQ(summary(out),
            (std::vector<std::string>{line(4, nodeDefined_, "ResourceDefined node/3")}));
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ(KOR_CLASS_PEER_NODE, out[0].frame.kor_event().class_name());
}

TEST_F(KorServiceEvents, DroppedConnectionHearsNothingMoreAndTheOthersGoOn) {
  service_.dropClient(3);
  EXPECT_EQ(0u, service_.registrationsOf(3));
  EXPECT_EQ(3u, service_.registrationCount());
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, withdraw(1, "sxn0", 2)));
  EXPECT_EQ(summary(sink_.take()),
            (std::vector<std::string>{line(1, ifDefined_, "ResourceDefined node/1/sxn0"),
                                      line(2, ifUndefined_, "ResourceUndefined node/1/sxn0")}));
  // Its registration ids are gone for good.
  EXPECT_EQ(TK_GS_BAD_PARAMETER, serveOne(3, unregisterReq(51, ifChanged_)).rc());
  // Dropping a connection that holds none changes nothing.
  service_.dropClient(99);
  EXPECT_EQ(3u, service_.registrationCount());
}

TEST_F(KorServiceEvents, UnregisteredRegistrationHearsNothingMore) {
  EXPECT_EQ(TK_GS_OK, serveOne(1, unregisterReq(52, ifDefined_)).rc());
  ASSERT_EQ(0, kor_.applyInterfaceUpdate(1, publish(facts(1, "sxn0", "10.0.1.1"), 1)));
  EXPECT_EQ(summary(sink_.take()),
            (std::vector<std::string>{line(3, ifChanged_, "ConfigChanged node/1/sxn0")}));
}

}  // namespace
}  // namespace agent
}  // namespace velt

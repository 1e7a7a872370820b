// KorService's answers to queries: a large answer in pages, each made and
// handed over before the next, every page but the last marked "more", and
// no page past the page size unless one resource alone is larger.
#include "kor_service.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

proto::InterfaceResource facts(uint32_t node, const std::string& name) {
  proto::InterfaceResource r;
  r.set_node(node);
  r.set_name(name);
  r.set_device_name("mlx5_0");
  r.set_ip_address("10.0.0." + std::to_string(node));
  r.set_device_sub_type(32);
  r.set_logical_id(static_cast<int32_t>(node));
  r.set_hardware_address("80:00:02:08:fe:80:00:00:00:00:00:00:ec:0d:9a:03:00:00:00:01");
  r.set_device_path_name("mlx5_0");
  return r;
}

class KorServicePages : public ::testing::Test {
 protected:
  void SetUp() override {
    proto::NodeListUpdate list;
    for (uint32_t n = 1; n <= 4; ++n) {
      proto::NodeEntry* e = list.add_nodes();
      e->set_node(n);
      e->set_name("n" + std::to_string(n));
    }
    ASSERT_EQ(0, kor.applyNodeList(1, list));
    for (uint32_t n = 1; n <= 4; ++n) {
      for (int i = 0; i < 6; ++i) {
        proto::InterfaceUpdate u;
        *u.mutable_resource() = facts(n, "sxn" + std::to_string(i));
        u.set_generation(1);
        ASSERT_EQ(0, kor.applyInterfaceUpdate(n, u));
      }
    }
    query.set_id(41);
    query.mutable_kor_query()->set_class_name(KOR_CLASS_NETWORK_INTERFACE);
  }

  KorResources kor;
  proto::Request query;
};

TEST_F(KorServicePages, ALargeAnswerComesInFullPagesInQueryOrder) {
  const std::vector<proto::KorResource> all = kor.query(KOR_CLASS_NETWORK_INTERFACE, {});
  ASSERT_EQ(all.size(), 24u);
  KorService::Limits limits;
  limits.pageBytes = 3 * all[0].ByteSizeLong() + 10;   // three resources a page
  KorService service(limits);
  std::vector<proto::AgentFrame> pages = service.serve(7, query, kor);
  ASSERT_EQ(pages.size(), 8u);
  size_t at = 0;
  for (size_t p = 0; p < pages.size(); ++p) {
    const proto::Reply& r = pages[p].reply();
    EXPECT_EQ(r.id(), 41u);
    EXPECT_EQ(r.rc(), 0);
    EXPECT_EQ(r.kor().more(), p + 1 < pages.size()) << "page " << p;
    size_t bytes = 0;
    for (const proto::KorResource& res : r.kor().resources()) {
      ASSERT_LT(at, all.size());
      EXPECT_EQ(res.SerializeAsString(), all[at++].SerializeAsString());
      bytes += res.ByteSizeLong();
    }
    EXPECT_LE(bytes, limits.pageBytes) << "page " << p;
    if (p + 1 < pages.size()) {
      EXPECT_GT(bytes + pages[p + 1].reply().kor().resources(0).ByteSizeLong(), limits.pageBytes)
          << "page " << p << " had room for the next resource";
    }
  }
  EXPECT_EQ(at, all.size());
}

TEST_F(KorServicePages, PagesOfResourcesOfDifferentSizesHoldExactlyTheAnswer) {
  // Node 2's interfaces are much larger than the others', so the pages
  // hold different numbers of resources and each is written over the
  // one before.
  for (int i = 0; i < 6; ++i) {
    proto::InterfaceUpdate u;
    *u.mutable_resource() = facts(2, "sxn" + std::to_string(i));
    u.mutable_resource()->set_device_path_name(std::string(200, 'p'));
    u.mutable_resource()->set_device_name(std::string(60, 'd'));
    u.set_generation(2);
    ASSERT_EQ(0, kor.applyInterfaceUpdate(2, u));
  }
  for (const std::vector<std::string>& names :
       {std::vector<std::string>{}, std::vector<std::string>{"DevicePathName", "Name", "NodeIDs"}}) {
    query.mutable_kor_query()->clear_attributes();
    for (const std::string& n : names) query.mutable_kor_query()->add_attributes(n);
    const std::vector<proto::KorResource> all = kor.query(KOR_CLASS_NETWORK_INTERFACE, names);
    for (size_t pageBytes : {size_t{200}, size_t{700}, size_t{1500}, size_t{100000}}) {
      KorService::Limits limits;
      limits.pageBytes = pageBytes;
      KorService service(limits);
      std::vector<proto::AgentFrame> pages = service.serve(7, query, kor);
      std::vector<std::string> got;
      for (size_t p = 0; p < pages.size(); ++p) {
        EXPECT_EQ(pages[p].reply().kor().more(), p + 1 < pages.size());
        size_t bytes = 0;
        for (const proto::KorResource& r : pages[p].reply().kor().resources()) {
          got.push_back(r.SerializeAsString());
          bytes += r.ByteSizeLong();
        }
        if (pages[p].reply().kor().resources_size() > 1) {
          EXPECT_LE(bytes, pageBytes);
        }
      }
      std::vector<std::string> want;
      for (const proto::KorResource& r : all) want.push_back(r.SerializeAsString());
      EXPECT_EQ(got, want) << "page size " << pageBytes << ", " << names.size() << " names";
    }
  }
}

TEST_F(KorServicePages, AResourceLargerThanAPageHasAPageOfItsOwn) {
  KorService::Limits limits;
  limits.pageBytes = 8;
  KorService service(limits);
  std::vector<proto::AgentFrame> pages = service.serve(7, query, kor);
  ASSERT_EQ(pages.size(), 24u);
  for (const proto::AgentFrame& f : pages) EXPECT_EQ(f.reply().kor().resources_size(), 1);
}

TEST_F(KorServicePages, NoMorePagesAreMadeOnceTheClientTakesNone) {
  KorService::Limits limits;
  limits.pageBytes = 1;
  KorService service(limits);
  int handed = 0;
  service.serve(7, query, kor, [&handed](const proto::AgentFrame&) { return ++handed < 2; });
  EXPECT_EQ(handed, 2);
}

TEST_F(KorServicePages, AnEmptyAnswerIsOnePage) {
  query.mutable_kor_query()->set_class_name(KOR_CLASS_PEER_NODE);
  KorResources none;
  KorService service;
  std::vector<proto::AgentFrame> pages = service.serve(7, query, none);
  ASSERT_EQ(pages.size(), 1u);
  EXPECT_TRUE(pages[0].reply().has_kor());
  EXPECT_EQ(pages[0].reply().kor().resources_size(), 0);
  EXPECT_FALSE(pages[0].reply().kor().more());
}

}  // namespace
}  // namespace agent
}  // namespace velt

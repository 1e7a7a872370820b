// KorService's answers to queries: a large answer in pages, each made and
// handed over before the next, every page but the last marked "more", and
// no page past the page size unless one resource alone is larger; pages of
// resources or of rows, written as protobuf writes them, from the
// resources as they were when the query came.
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

// Every frame of the pages of request's answer: each must be the bytes
// protobuf writes for the message they hold.
std::vector<proto::AgentFrame> pagesOf(KorService& service, const proto::Request& request,
                                       const KorResources& kor) {
  KorService::Answer a = service.answer(7, request, kor);
  std::vector<proto::AgentFrame> frames;
  if (!a.pages) {
    ADD_FAILURE() << "no pages";
    return frames;
  }
  std::string bytes;
  size_t from = 0;
  while (a.pages->next(&bytes, &from)) {
    const std::string frame = bytes.substr(from);
    proto::AgentFrame f;
    EXPECT_TRUE(f.ParseFromString(frame));
    EXPECT_EQ(f.SerializeAsString(), frame) << "page " << frames.size() << " is not written as protobuf writes it";
    frames.push_back(f);
  }
  return frames;
}

// The resources of pages of rows, as resources.
std::vector<proto::KorResource> resourcesOfRows(const std::vector<proto::AgentFrame>& pages) {
  std::vector<proto::KorResource> out;
  for (const proto::AgentFrame& f : pages) {
    const proto::KorAnswer& k = f.reply().kor();
    EXPECT_EQ(k.resources_size(), 0);
    for (const proto::KorRow& row : k.rows()) {
      proto::KorResource r;
      r.set_class_name(k.class_name());
      r.set_handle(row.handle());
      EXPECT_EQ(row.values_size(), k.columns_size());
      for (int i = 0; i < row.values_size() && i < k.columns_size(); ++i) {
        EXPECT_EQ(row.values(i).type(), 0u) << "the column gives the type";
        proto::KorAttribute* a = r.add_attributes();
        a->set_name(k.columns(i).name());
        *a->mutable_value() = row.values(i);
        a->mutable_value()->set_type(k.columns(i).type());
      }
      out.push_back(std::move(r));
    }
  }
  return out;
}

std::vector<std::string> serialised(const std::vector<proto::KorResource>& resources) {
  std::vector<std::string> out;
  for (const proto::KorResource& r : resources) out.push_back(r.SerializeAsString());
  return out;
}

TEST_F(KorServicePages, PagesOfResourcesAreWrittenAsProtobufWritesThem) {
  for (size_t pageBytes : {size_t{1}, size_t{900}, size_t{1} << 20}) {
    KorService::Limits limits;
    limits.pageBytes = pageBytes;
    KorService service(limits);
    std::vector<proto::AgentFrame> pages = pagesOf(service, query, kor);
    std::vector<proto::KorResource> got;
    for (const proto::AgentFrame& f : pages) {
      for (const proto::KorResource& r : f.reply().kor().resources()) got.push_back(r);
    }
    EXPECT_EQ(serialised(got), serialised(kor.query(KOR_CLASS_NETWORK_INTERFACE, {})));
  }
}

TEST_F(KorServicePages, RowsHoldTheSameAnswerWithTheNamesOncePerPage) {
  query.mutable_kor_query()->set_rows(true);
  for (const std::vector<std::string>& names :
       {std::vector<std::string>{}, std::vector<std::string>{"LogicalID", "Name", "Nope", "NodeIDs", "Name"}}) {
    query.mutable_kor_query()->clear_attributes();
    for (const std::string& n : names) query.mutable_kor_query()->add_attributes(n);
    for (const char* cls : {KOR_CLASS_NETWORK_INTERFACE, KOR_CLASS_PEER_NODE}) {
      query.mutable_kor_query()->set_class_name(cls);
      for (size_t pageBytes : {size_t{1}, size_t{500}, size_t{1} << 20}) {
        KorService::Limits limits;
        limits.pageBytes = pageBytes;
        KorService service(limits);
        std::vector<proto::AgentFrame> pages = pagesOf(service, query, kor);
        ASSERT_FALSE(pages.empty());
        size_t rows = 0;
        for (size_t p = 0; p < pages.size(); ++p) {
          const proto::KorAnswer& k = pages[p].reply().kor();
          EXPECT_EQ(pages[p].reply().id(), 41u);
          EXPECT_EQ(k.more(), p + 1 < pages.size());
          EXPECT_EQ(k.class_name(), cls);
          rows += static_cast<size_t>(k.rows_size());
          size_t bytes = 0;
          for (const proto::KorRow& r : k.rows()) bytes += r.ByteSizeLong();
          if (k.rows_size() > 1) {
            EXPECT_LE(bytes, pageBytes);
          }
        }
        const std::vector<proto::KorResource> want = kor.query(cls, names);
        EXPECT_EQ(rows, want.size());
        EXPECT_EQ(serialised(resourcesOfRows(pages)), serialised(want))
            << cls << ", page size " << pageBytes << ", " << names.size() << " names";
      }
    }
  }
}

TEST_F(KorServicePages, AnAnswerIsTheStateWhenTheQueryCame) {
  for (bool rows : {false, true}) {
    KorResources state;
    state.adopt({});
    proto::KorImage image = kor.image();
    state.adopt({&image});
    query.mutable_kor_query()->set_rows(rows);
    const std::vector<proto::KorResource> then = state.query(KOR_CLASS_NETWORK_INTERFACE, {});
    KorService::Limits limits;
    limits.pageBytes = 1;   // a page per resource
    KorService service(limits);
    KorService::Answer a = service.answer(7, query, state);
    ASSERT_TRUE(a.pages);
    std::vector<proto::AgentFrame> pages;
    std::string bytes;
    size_t from = 0;
    auto nextPage = [&] {
      if (!a.pages->next(&bytes, &from)) return false;
      proto::AgentFrame f;
      EXPECT_TRUE(f.ParseFromString(bytes.substr(from)));
      pages.push_back(f);
      return true;
    };
    ASSERT_TRUE(nextPage());
    // Meanwhile: an interface of node 1 changes, one of node 3 goes, node
    // 4 publishes a new one, node 2 leaves the nodelist, then a merge
    // replaces everything.
    proto::InterfaceUpdate u;
    *u.mutable_resource() = facts(1, "sxn3");
    u.mutable_resource()->set_ip_address("10.1.1.1");
    u.set_generation(5);
    ASSERT_EQ(0, state.applyInterfaceUpdate(1, u));
    *u.mutable_resource() = facts(3, "sxn0");
    u.set_removed(true);
    ASSERT_EQ(0, state.applyInterfaceUpdate(3, u));
    *u.mutable_resource() = facts(4, "sxn9");
    u.set_removed(false);
    ASSERT_EQ(0, state.applyInterfaceUpdate(4, u));
    ASSERT_TRUE(nextPage());
    proto::NodeListUpdate list;
    for (uint32_t n : {1u, 3u, 4u}) {
      proto::NodeEntry* e = list.add_nodes();
      e->set_node(n);
      e->set_name("n" + std::to_string(n));
    }
    ASSERT_EQ(0, state.applyNodeList(1, list));
    ASSERT_NE(state.query(KOR_CLASS_NETWORK_INTERFACE, {}).size(), then.size());
    ASSERT_TRUE(nextPage());
    state.adopt({});
    ASSERT_EQ(state.interfaceCount(), 0u);
    while (nextPage()) {
    }
    std::vector<proto::KorResource> got;
    if (rows) {
      got = resourcesOfRows(pages);
    } else {
      for (const proto::AgentFrame& f : pages) {
        for (const proto::KorResource& r : f.reply().kor().resources()) got.push_back(r);
      }
    }
    EXPECT_EQ(serialised(got), serialised(then)) << (rows ? "rows" : "resources");
    EXPECT_FALSE(pages.back().reply().kor().more());
  }
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

// Reading corosync's nodelist from cmap's keys.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "nodelist_watch.h"

namespace velt {
namespace agent {
namespace {

struct FakeCmap {
  std::map<std::string, uint32_t> numbers;
  std::map<std::string, std::string> texts;

  NodelistSource source() {
    NodelistSource s;
    s.getUint32 = [this](const std::string& key, uint32_t* v) {
      auto it = numbers.find(key);
      if (it == numbers.end()) return false;
      *v = it->second;
      return true;
    };
    s.getString = [this](const std::string& key, std::string* v) {
      auto it = texts.find(key);
      if (it == texts.end()) return false;
      *v = it->second;
      return true;
    };
    return s;
  }
  void node(int index, uint32_t id, const char* name = nullptr, const char* ring0 = nullptr) {
    std::string p = "nodelist.node." + std::to_string(index) + ".";
    numbers[p + "nodeid"] = id;
    if (name) texts[p + "name"] = name;
    if (ring0) texts[p + "ring0_addr"] = ring0;
  }
};

TEST(Nodelist, NodesByIdWithTheirNames) {
  FakeCmap c;
  c.node(0, 3, "velt3", "10.10.0.3");
  c.node(1, 1, nullptr, "10.10.0.1");
  c.node(2, 2);
  auto nodes = readNodelist(c.source());
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(nodes[0].node(), 1u);
  EXPECT_EQ(nodes[0].name(), "10.10.0.1");
  EXPECT_EQ(nodes[1].node(), 2u);
  EXPECT_EQ(nodes[1].name(), "node2");
  EXPECT_EQ(nodes[2].node(), 3u);
  EXPECT_EQ(nodes[2].name(), "velt3");
}

TEST(Nodelist, EndsAtTheFirstEntryWithoutANodeId) {
  FakeCmap c;
  c.node(0, 1, "a");
  c.node(2, 7, "after-the-gap");
  auto nodes = readNodelist(c.source());
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0].node(), 1u);
}

TEST(Nodelist, SkipsNodeIdZeroAndRepeatedIds) {
  FakeCmap c;
  c.node(0, 0, "zero");
  c.node(1, 5, "first");
  c.node(2, 5, "again");
  auto nodes = readNodelist(c.source());
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0].name(), "first");
}

TEST(Nodelist, KeepsAtMostTheBoundAndCutsLongNames) {
  FakeCmap c;
  for (uint32_t i = 0; i < kMaxNodelistNodes + 10; ++i) c.node(static_cast<int>(i), i + 1);
  c.texts["nodelist.node.0.name"] = std::string(1000, 'n');
  auto nodes = readNodelist(c.source());
  ASSERT_EQ(nodes.size(), kMaxNodelistNodes);
  EXPECT_EQ(nodes[0].name().size(), kMaxNodeNameBytes);
}

// The names travel in a protobuf string field, which every agent would
// refuse to read if it were not UTF-8.
TEST(Nodelist, NamesAreAlwaysUtf8) {
  FakeCmap c;
  c.node(0, 1, "latin-1 \xe9t\xe9");
  c.numbers["nodelist.node.1.nodeid"] = 2;
  // 254 bytes and a character of 3: cut before the character, not inside.
  c.texts["nodelist.node.1.name"] = std::string(254, 'n') + "\xe5\x8c\x97";
  auto nodes = readNodelist(c.source());
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].name(), "latin-1 ?t?");
  EXPECT_EQ(nodes[1].name(), std::string(254, 'n'));
  proto::NodeListUpdate sent;
  for (const auto& e : nodes) *sent.add_nodes() = e;
  proto::NodeListUpdate heard;
  ASSERT_TRUE(heard.ParseFromString(sent.SerializeAsString()));
  EXPECT_EQ(heard.nodes_size(), 2);
}

TEST(Nodelist, EmptyWithoutEntries) {
  FakeCmap c;
  EXPECT_TRUE(readNodelist(c.source()).empty());
}

}  // namespace
}  // namespace agent
}  // namespace velt

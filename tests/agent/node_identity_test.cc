// The node's stable id: made once and kept, read back as it was, replaced
// by the command line's, and a damaged file set aside for a new id.
#include "node_identity.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "kor_test_files.h"

namespace velt {
namespace agent {
namespace {

using testing_files::FakeWallClock;
using testing_files::namesStartingWith;
using testing_files::readFile;
using testing_files::TempDir;
using testing_files::writeFile;

TEST(NodeIdOption, HexWithOrWithoutPrefix) {
  uint64_t id = 0;
  EXPECT_EQ(0, parseNodeIdOption("1", &id));
  EXPECT_EQ(id, 1u);
  EXPECT_EQ(0, parseNodeIdOption("0x1A2b", &id));
  EXPECT_EQ(id, 0x1a2bu);
  EXPECT_EQ(0, parseNodeIdOption("0XffFFffFFffFFffFF", &id));
  EXPECT_EQ(id, 0xffffffffffffffffull);
  EXPECT_EQ(0, parseNodeIdOption("0000000000000002", &id));
  EXPECT_EQ(id, 2u);
}

TEST(NodeIdOption, RefusesZeroEmptyTooLongAndNonHex) {
  for (const char* bad : {"", "0", "0x", "0x0", "0000000000000000", "10000000000000000",
                          "0x10000000000000000", "g1", " 1", "1 ", "-1", "+1", "0x-1", "1\n",
                          "0o7"}) {
    uint64_t id = 77;
    EXPECT_EQ(-1, parseNodeIdOption(bad, &id)) << "'" << bad << "'";
    EXPECT_EQ(id, 77u) << "'" << bad << "'";
  }
}

TEST(NodeIdFormat, SixteenLowercaseHexDigitsAndANewline) {
  EXPECT_EQ(formatNodeId(0xab), "00000000000000ab\n");
  EXPECT_EQ(formatNodeId(0xFEDCBA9876543210ull), "fedcba9876543210\n");
}

class NodeIdentity : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir.path().empty()); }
  std::string file() const { return dir / kNodeIdFileName; }
  TempDir dir;
  FakeWallClock clock{1700000000};
};

TEST_F(NodeIdentity, MissingFileGivesANewRandomIdThatIsKept) {
  uint64_t id = 0;
  std::string why;
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0, &id, &why)) << why;
  EXPECT_NE(id, 0u);
  EXPECT_NE(why.find("new node id"), std::string::npos) << why;
  EXPECT_EQ(readFile(file()), formatNodeId(id));

  uint64_t again = 0;
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0, &again, &why)) << why;
  EXPECT_EQ(again, id);
  EXPECT_TRUE(why.empty()) << "a plain read has nothing to say: " << why;

  // Another directory (another node in a container) gets another id.
  TempDir other;
  uint64_t theirs = 0;
  ASSERT_EQ(0, loadOrCreateNodeId(other.path(), 0, &theirs, &why)) << why;
  EXPECT_NE(theirs, id);
}

TEST_F(NodeIdentity, ExistingFileIsReadInEitherCase) {
  writeFile(file(), "00000000000000aB\n");
  uint64_t id = 0;
  std::string why = "stale";
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0, &id, &why)) << why;
  EXPECT_EQ(id, 0xabu);
  EXPECT_TRUE(why.empty()) << why;
  EXPECT_EQ(readFile(file()), "00000000000000aB\n") << "a good file is not rewritten";
}

TEST_F(NodeIdentity, OverrideIsWrittenAndUsed) {
  writeFile(file(), "00000000000000ab\n");
  uint64_t id = 0;
  std::string why;
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0x5eed, &id, &why)) << why;
  EXPECT_EQ(id, 0x5eedu);
  EXPECT_NE(why.find("command line"), std::string::npos) << why;
  EXPECT_EQ(readFile(file()), "0000000000005eed\n");
  // Without the override later, the node keeps it.
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0, &id, &why)) << why;
  EXPECT_EQ(id, 0x5eedu);
  // The same override again has nothing to write.
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0x5eed, &id, &why)) << why;
  EXPECT_TRUE(why.empty()) << why;
}

TEST_F(NodeIdentity, BadFileIsSetAsideAndANewIdMade) {
  const std::vector<std::string> bad = {
      "",
      "00000000000000ab",            // no newline
      "00000000000000ab\n\n",        // more than one line
      "0000000000000000\n",          // zero
      "000000000000000ab\n",         // 17 digits
      "0x000000000000ab\n",          // a prefix
      "zzzzzzzzzzzzzzzz\n",
      std::string(5000, '1'),       // past the bound
  };
  time_t t = 1700000100;
  for (const std::string& content : bad) {
    SCOPED_TRACE("'" + content.substr(0, 20) + "'");
    TempDir one;
    clock.set(t++);
    writeFile(one / kNodeIdFileName, content);
    uint64_t id = 0;
    std::string why;
    ASSERT_EQ(0, loadOrCreateNodeId(one.path(), 0, &id, &why)) << why;
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, 0xabu);
    const std::string aside = "node-id.bad." + std::to_string(t - 1);
    EXPECT_NE(why.find("set aside as " + aside), std::string::npos) << why;
    EXPECT_NE(why.find("new node id"), std::string::npos) << why;
    EXPECT_EQ(readFile(one / aside), content);
    EXPECT_EQ(readFile(one / kNodeIdFileName), formatNodeId(id));
  }
}

TEST_F(NodeIdentity, DirectoryInPlaceOfTheFileIsSetAside) {
  ASSERT_EQ(0, mkdir(file().c_str(), 0755));
  uint64_t id = 0;
  std::string why;
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0, &id, &why)) << why;
  EXPECT_NE(id, 0u);
  EXPECT_TRUE(testing_files::fs::is_directory(dir / "node-id.bad.1700000000"));
  EXPECT_EQ(readFile(file()), formatNodeId(id));
}

TEST_F(NodeIdentity, BadFileWithAnOverrideTakesTheOverride) {
  writeFile(file(), "garbage\n");
  uint64_t id = 0;
  std::string why;
  ASSERT_EQ(0, loadOrCreateNodeId(dir.path(), 0x42, &id, &why)) << why;
  EXPECT_EQ(id, 0x42u);
  EXPECT_NE(why.find("set aside"), std::string::npos) << why;
  EXPECT_EQ(namesStartingWith(dir.path(), "node-id.bad."),
            (std::vector<std::string>{"node-id.bad.1700000000"}));
  EXPECT_EQ(readFile(file()), formatNodeId(0x42));
}

TEST_F(NodeIdentity, IdThatCannotBeKeptIsAnErrorWithTheReason) {
  uint64_t id = 0;
  std::string why;
  EXPECT_EQ(-1, loadOrCreateNodeId(dir / "missing", 0, &id, &why));
  EXPECT_NE(id, 0u) << "the id this start would use";
  EXPECT_NE(why.find("not kept"), std::string::npos) << why;
  EXPECT_EQ(-1, loadOrCreateNodeId(dir / "missing", 0x7, &id, &why));
  EXPECT_EQ(id, 0x7u);
  EXPECT_NE(why.find("not kept"), std::string::npos) << why;
}

}  // namespace
}  // namespace agent
}  // namespace velt

// The KOR resources file in the state directory: what is saved loads back
// the same, every kind of damage is set aside with its reason and never
// trusted, and only the newest set-aside files are kept.
#include "kor_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kor_resources.h"
#include "kor_test_files.h"

namespace velt {
namespace agent {
namespace {

using testing_files::FakeWallClock;
using testing_files::namesStartingWith;
using testing_files::readFile;
using testing_files::TempDir;
using testing_files::writeFile;

proto::KorImage sampleImage() {
  KorResources kor;
  proto::NodeListUpdate list;
  for (uint32_t n : {1u, 2u, 7u}) {
    proto::NodeEntry* e = list.add_nodes();
    e->set_node(n);
    e->set_name("node" + std::to_string(n));
  }
  kor.applyNodeList(1, list);
  kor.applyNodeId(2, 0x1234567890abcdefull);
  proto::InterfaceUpdate u;
  proto::InterfaceResource* r = u.mutable_resource();
  r->set_node(2);
  r->set_name("ib0");
  r->set_device_name("mlx5_0");
  r->set_ip_address("192.168.10.2");
  r->set_device_sub_type(32);
  r->set_logical_id(26);
  r->set_network_id64(0xfe80000000000000ull);
  r->set_port_id(1);
  r->set_hardware_address("80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:f3:a1:b1");
  r->set_device_path_name("mlx5_0");
  u.set_generation(3);
  EXPECT_EQ(0, kor.applyInterfaceUpdate(2, u));
  return kor.image();
}

// Header fields at their offsets, for building damaged files.
std::string withLe(std::string bytes, size_t at, uint64_t v, int width) {
  for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  return bytes;
}

class KorStoreFile : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir.path().empty()); }
  std::string file() const { return dir / kKorStoreFileName; }
  TempDir dir;
  FakeWallClock clock{1700000000};
};

// ------------------------------------------------------------ checksum

TEST(Crc32c, KnownValuesAndContinuation) {
  EXPECT_EQ(crc32c("123456789", 9), 0xE3069283u);
  EXPECT_EQ(crc32c("", 0), 0u);
  const std::string zeros(32, '\0');
  EXPECT_EQ(crc32c(zeros.data(), zeros.size()), 0x8A9136AAu);  // RFC 3720 B.4
  EXPECT_EQ(crc32c("56789", 5, crc32c("1234", 4)), crc32c("123456789", 9));
}

// ------------------------------------------------------------ round trip

TEST_F(KorStoreFile, SavedImageLoadsBackTheSame) {
  const proto::KorImage image = sampleImage();
  std::string why;
  ASSERT_EQ(0, KorStore::save(dir.path(), image, &why)) << why;
  proto::KorImage loaded;
  ASSERT_EQ(KorStore::Load::kLoaded, KorStore::load(dir.path(), &loaded, &why)) << why;
  EXPECT_EQ(loaded.SerializeAsString(), image.SerializeAsString());
  EXPECT_EQ(loaded.nodes_size(), 3);
  EXPECT_EQ(loaded.interfaces(0).name(), "ib0");

  const std::string bytes = readFile(file());
  ASSERT_GE(bytes.size(), kKorStoreHeaderBytes);
  EXPECT_EQ(bytes.substr(0, 8), std::string("VELTKOR\0", 8));
  EXPECT_EQ(bytes.size(), kKorStoreHeaderBytes + image.ByteSizeLong());
  struct stat st;
  ASSERT_EQ(0, stat(file().c_str(), &st));
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_TRUE(namesStartingWith(dir.path(), "kor-resources.tmp.").empty());
}

TEST_F(KorStoreFile, SaveReplacesTheFileWhole) {
  std::string why;
  ASSERT_EQ(0, KorStore::save(dir.path(), sampleImage(), &why)) << why;
  proto::KorImage empty;
  ASSERT_EQ(0, KorStore::save(dir.path(), empty, &why)) << why;
  proto::KorImage loaded = sampleImage();
  ASSERT_EQ(KorStore::Load::kLoaded, KorStore::load(dir.path(), &loaded, &why)) << why;
  EXPECT_EQ(loaded.nodes_size(), 0);
  EXPECT_EQ(readFile(file()).size(), kKorStoreHeaderBytes);
}

TEST_F(KorStoreFile, MissingFileIsAbsent) {
  proto::KorImage loaded = sampleImage();
  std::string why;
  EXPECT_EQ(KorStore::Load::kAbsent, KorStore::load(dir.path(), &loaded, &why));
  EXPECT_EQ(loaded.nodes_size(), 0) << "the image is cleared";
}

TEST_F(KorStoreFile, TemporariesOfAnInterruptedSaveAreRemoved) {
  writeFile(dir / "kor-resources.tmp.Ab12Cd", "half written");
  writeFile(dir / "kor-resources.tmp.notours", "kept: not a temporary's name");
  proto::KorImage loaded;
  std::string why;
  EXPECT_EQ(KorStore::Load::kAbsent, KorStore::load(dir.path(), &loaded, &why));
  EXPECT_EQ(namesStartingWith(dir.path(), "kor-resources.tmp."),
            (std::vector<std::string>{"kor-resources.tmp.notours"}));
}

TEST_F(KorStoreFile, SaveIntoAMissingDirectoryFailsWithTheReason) {
  std::string why;
  EXPECT_EQ(-1, KorStore::save(dir / "nowhere", sampleImage(), &why));
  EXPECT_NE(why.find("nowhere"), std::string::npos) << why;
}

// ------------------------------------------------------------ damage

struct Damage {
  const char* what;
  std::string bytes;
  const char* reason;  // a piece of the text the log gets
};

std::vector<Damage> damagedFiles() {
  const proto::KorImage image = sampleImage();
  const std::string good = KorStore::encode(image);
  const std::string payload = good.substr(kKorStoreHeaderBytes);
  // A payload that checks out but does not parse, and one that parses but
  // breaks the bounds.
  const std::string junk = "\xff\xff\xff\xff\xff\xff";
  std::string junkFile = good.substr(0, kKorStoreHeaderBytes) + junk;
  junkFile = withLe(junkFile, 12, junk.size(), 8);
  junkFile = withLe(junkFile, 20, crc32c(junk.data(), junk.size()), 4);
  proto::KorImage invalid = image;
  invalid.mutable_interfaces(0)->set_ip_address("300.1.1.1");
  std::string bad = good;
  bad[good.size() - 1] ^= 0x01;
  return {
      {"empty", "", "short file"},
      {"short", good.substr(0, kKorStoreHeaderBytes - 1), "short file"},
      {"bad magic", "#!/bin/sh\necho this is some other file\n", "bad magic"},
      {"unknown version", withLe(good, 8, 2, 4), "unknown format version 2"},
      {"length too long", withLe(good, 12, payload.size() + 1, 8), "does not match"},
      {"length too short", withLe(good, 12, payload.size() - 1, 8), "does not match"},
      {"cut short", good.substr(0, good.size() - 3), "does not match"},
      {"bad checksum", bad, "bad checksum"},
      {"payload does not parse", junkFile, "does not parse"},
      {"invalid image", KorStore::encode(invalid), "invalid KOR resources"},
  };
}

TEST_F(KorStoreFile, EachDamagedFileIsSetAsideWithItsReason) {
  time_t t = 1700000100;
  for (const Damage& d : damagedFiles()) {
    SCOPED_TRACE(d.what);
    TempDir one;
    clock.set(t++);
    writeFile(one / kKorStoreFileName, d.bytes);
    proto::KorImage loaded = sampleImage();
    std::string why;
    ASSERT_EQ(KorStore::Load::kSetAside, KorStore::load(one.path(), &loaded, &why));
    EXPECT_NE(why.find(d.reason), std::string::npos) << why;
    const std::string aside = "kor-resources.bad." + std::to_string(t - 1);
    EXPECT_NE(why.find(aside), std::string::npos) << why;
    EXPECT_EQ(loaded.nodes_size(), 0);
    EXPECT_FALSE(testing_files::fs::exists(one / kKorStoreFileName));
    EXPECT_EQ(readFile(one / aside), d.bytes) << "kept as it was, for a look";
    // The next start finds no file and starts empty.
    EXPECT_EQ(KorStore::Load::kAbsent, KorStore::load(one.path(), &loaded, &why));
  }
}

TEST_F(KorStoreFile, DecodeRefusesEachDamageWithoutAFile) {
  for (const Damage& d : damagedFiles()) {
    proto::KorImage image;
    std::string why;
    EXPECT_EQ(-1, KorStore::decode(d.bytes, &image, &why)) << d.what;
    EXPECT_NE(why.find(d.reason), std::string::npos) << d.what << ": " << why;
  }
}

TEST_F(KorStoreFile, FileOfAnotherKindIsSetAside) {
  ASSERT_EQ(0, mkdir(file().c_str(), 0755));
  proto::KorImage loaded;
  std::string why;
  EXPECT_EQ(KorStore::Load::kSetAside, KorStore::load(dir.path(), &loaded, &why));
  EXPECT_NE(why.find("not a regular file"), std::string::npos) << why;
  EXPECT_TRUE(testing_files::fs::is_directory(dir / "kor-resources.bad.1700000000"));

  // A link is not followed, even to a good file.
  clock.set(1700000001);
  ASSERT_EQ(0, KorStore::save(dir.path(), sampleImage(), &why));
  ASSERT_EQ(0, rename(file().c_str(), (dir / "elsewhere").c_str()));
  ASSERT_EQ(0, symlink("elsewhere", file().c_str()));
  EXPECT_EQ(KorStore::Load::kSetAside, KorStore::load(dir.path(), &loaded, &why));
  EXPECT_NE(why.find("not a regular file"), std::string::npos) << why;
  EXPECT_TRUE(testing_files::fs::is_symlink(dir / "kor-resources.bad.1700000001"));
}

TEST_F(KorStoreFile, FileOverTheBoundIsSetAsideUnread) {
  // Sparse: takes no room on disk.
  writeFile(file(), "");
  ASSERT_EQ(0, truncate(file().c_str(), static_cast<off_t>(kKorStoreMaxFileBytes) + 1));
  proto::KorImage loaded;
  std::string why;
  EXPECT_EQ(KorStore::Load::kSetAside, KorStore::load(dir.path(), &loaded, &why));
  EXPECT_NE(why.find("more than"), std::string::npos) << why;
}

TEST_F(KorStoreFile, AtMostThreeSetAsideFilesAreKeptTheNewest) {
  writeFile(dir / "kor-resources.bad.notes", "not ours to remove");
  const std::vector<time_t> times = {1700000010, 1700000020, 1700000020, 1700000030,
                                     1700000040};
  for (time_t t : times) {
    clock.set(t);
    writeFile(file(), "garbage " + std::to_string(t));
    proto::KorImage loaded;
    std::string why;
    ASSERT_EQ(KorStore::Load::kSetAside, KorStore::load(dir.path(), &loaded, &why)) << why;
  }
  EXPECT_EQ(namesStartingWith(dir.path(), "kor-resources.bad."),
            (std::vector<std::string>{"kor-resources.bad.1700000020-1",
                                      "kor-resources.bad.1700000030",
                                      "kor-resources.bad.1700000040",
                                      "kor-resources.bad.notes"}));
  EXPECT_EQ(readFile(dir / "kor-resources.bad.1700000020-1"), "garbage 1700000020");
}

}  // namespace
}  // namespace agent
}  // namespace velt

// Adapter change accumulation: the version gate, client records built from
// rows, the delta table and its counts, publication to client sessions, the
// full table for a new client, the controller's client list and the NAM
// device state.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "NAMClient.h"
#include "sw_NAM_calls.h"
#include "table_test_support.h"
#include "trace_test_support.h"
#include "veltnam_utils.h"
#include "vx_cu.h"

namespace {

using table_test::deltaRecordCount;
using table_test::FakeNamClient;
using table_test::kVersion2500;
using table_test::makeInterface;
using table_test::Members;
using table_test::TableFixture;

constexpr uint64_t kNetA = 0xA0;
constexpr uint64_t kNetB = 0xB0;

// A row as the table would hold it.
AMAdapterItem makeRow(int node, const char* name, uint64_t net64, bool configured, bool up, bool stopped = false) {
  AMAdapterItem row;
  row.updateWith(makeInterface(node, name, "10.9.8.7", net64));
  row.isConfiged = configured ? 1 : 0;
  row.isUp = up ? 1 : 0;
  row.isNodeStopped = stopped ? 1 : 0;
  return row;
}

const veltnamNetAdaptInfo* deltaNetwork(uint64_t id) {
  auto found = veltnamNetInfoListDelta.find(id);
  return found == veltnamNetInfoListDelta.end() ? nullptr : found->second;
}

// ----------------------------------------------------------- version gate

class VersionGate : public ::testing::Test {
 protected:
  void TearDown() override { veltActiveVersion.quick_version = 0; }
};

TEST_F(VersionGate, VersionsCompareByteByByteFromTheMostSignificant) {
  EXPECT_EQ(0, compareVELTVersions(0x02040500, 0x02040500, 0));
  EXPECT_LT(compareVELTVersions(0x020404FF, 0x02040500, 0), 0);
  EXPECT_GT(compareVELTVersions(0x02040A00, 0x02040500, 0), 0);
  EXPECT_LT(compareVELTVersions(0x01FFFFFF, 0x02000000, 0), 0);
  EXPECT_GT(compareVELTVersions(0x03000000, 0x02FFFFFF, 0), 0);
}

TEST_F(VersionGate, ExactlyTwoFourFiveZeroIsSupported) {
  veltActiveVersion.quick_version = 0x02040500;
  EXPECT_TRUE(isVELTNAMInterfaceSupported());
  veltActiveVersion.quick_version = 0x02050000;
  EXPECT_TRUE(isVELTNAMInterfaceSupported());
}

TEST_F(VersionGate, TwoFourFourIsNotSupported) {
  for (uint32_t v : {0x02040400u, 0x020404FFu, 0x02030900u, 0u}) {
    veltActiveVersion.quick_version = v;
    EXPECT_FALSE(isVELTNAMInterfaceSupported()) << std::hex << v;
  }
}

// ---------------------------------------------------------------- records

TEST(ClientRecord, IsBuiltFromTheRowWithThePathNameAsDevice) {
  AMAdapterItem row = makeRow(12, "ib0", kNetA, true, true);
  row.LID = 0x1234;
  row.adapterType = 32;
  row.spigot_id = 2;
  strcpy(row.hardwareAddress, "fe:80:00:01");
  velt_nam_connect rec;
  memset(&rec, 0xee, sizeof rec);
  build_velt_nam_conn_item(row, &rec);
  EXPECT_EQ(12u, rec.node_number);
  EXPECT_EQ(0x1234u, rec.LID);
  EXPECT_EQ(32u, rec.adapter_type);
  EXPECT_EQ(VELT_NAM_IPV4, rec.ip_address.type);
  EXPECT_EQ(row.ipaddr, rec.ip_address.address.ipv4.s_addr);
  EXPECT_EQ(std::string(12, '\0'), std::string(reinterpret_cast<const char*>(&rec.ip_address.address) + 4, 12));
  EXPECT_EQ(std::string("ib0") + std::string(13, '\0'), std::string(rec.interface_name, 16));
  EXPECT_STREQ("/dev/ib0", rec.device_name);  // not devicename ("dev_ib0")
  EXPECT_EQ(4u, rec.valid_length_in_gid);
  EXPECT_EQ(0xfe, rec.gid[0]);
  EXPECT_EQ(0x80, rec.gid[1]);
  EXPECT_EQ(0x00, rec.gid[2]);
  EXPECT_EQ(0x01, rec.gid[3]);
  EXPECT_EQ(0, rec.gid[4]);
  EXPECT_EQ(2u, rec.spigot_id);
  EXPECT_EQ(VELT_NAM_CONNECT_UP, rec.status);
}

TEST(ClientRecord, StatusFollowsConfigurationNodeStopAndMembership) {
  EXPECT_EQ(VELT_NAM_CONNECT_UP, velt_nam_status_of(makeRow(1, "sxn0", 1, true, true)));
  EXPECT_EQ(VELT_NAM_CONNECT_DOWN, velt_nam_status_of(makeRow(1, "sxn0", 1, true, false)));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, velt_nam_status_of(makeRow(1, "sxn0", 1, true, true, true)));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, velt_nam_status_of(makeRow(1, "sxn0", 1, true, false, true)));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, velt_nam_status_of(makeRow(1, "sxn0", 1, false, true)));
}

// A down held back for the down delay has not reached clients yet.
TEST(ClientRecord, AHeldBackDownIsStillUp) {
  AMAdapterItem row = makeRow(1, "sxn0", 1, true, false);
  row.isPending = 1;
  EXPECT_EQ(VELT_NAM_CONNECT_UP, velt_nam_status_of(row));
  velt_nam_connect rec;
  build_velt_nam_conn_item(row, &rec);
  EXPECT_EQ(VELT_NAM_CONNECT_UP, rec.status);
}

TEST(ClientRecord, RecordsOrderByNodeThenNameAndNothingElse) {
  compareAdaptInfo less;
  velt_nam_connect a, b;
  memset(&a, 0, sizeof a);
  memset(&b, 0, sizeof b);
  a.node_number = 1;
  b.node_number = 0x80000000u;  // compared unsigned
  EXPECT_TRUE(less(&a, &b));
  EXPECT_FALSE(less(&b, &a));
  b.node_number = 1;
  strcpy(a.interface_name, "sxn10");
  strcpy(b.interface_name, "sxn2");
  EXPECT_TRUE(less(&a, &b));
  strcpy(b.interface_name, "sxn10");
  b.LID = 5;
  b.status = VELT_NAM_CONNECT_UP;
  EXPECT_FALSE(less(&a, &b));
  EXPECT_FALSE(less(&b, &a));
}

// ------------------------------------------------------------------- GIDs

struct Gid {
  uint8_t bytes[20];
  uint16_t length;
};

Gid gidOf(uint32_t type, const char* text) {
  Gid g;
  memset(&g, 0, sizeof g);
  // The row's field: 60 bytes, NUL-terminated.
  char field[60];
  memset(field, 0, sizeof field);
  strncpy(field, text, sizeof field - 1);
  convert_hardware_address_to_gid(type, g.bytes, field, &g.length);
  return g;
}

TEST(HardwareAddressToGid, ThreeColonSeparatedPairsAreThreeBytes) {
  Gid g = gidOf(32, "0a:1B:ff");
  ASSERT_EQ(3u, g.length);
  EXPECT_EQ(0x0a, g.bytes[0]);
  EXPECT_EQ(0x1b, g.bytes[1]);
  EXPECT_EQ(0xff, g.bytes[2]);
  EXPECT_EQ(0, g.bytes[3]);
}

TEST(HardwareAddressToGid, TheSameDigitsWithoutColonsAreAlsoThreeBytes) {
  Gid g = gidOf(32, "0a1Bff");
  ASSERT_EQ(3u, g.length);
  EXPECT_EQ(0x0a, g.bytes[0]);
  EXPECT_EQ(0x1b, g.bytes[1]);
  EXPECT_EQ(0xff, g.bytes[2]);
}

TEST(HardwareAddressToGid, ALeadingColonGivesAFirstZeroByte) {
  Gid g = gidOf(32, ":12:34");
  ASSERT_EQ(3u, g.length);
  EXPECT_EQ(0x00, g.bytes[0]);
  EXPECT_EQ(0x12, g.bytes[1]);
  EXPECT_EQ(0x34, g.bytes[2]);
}

TEST(HardwareAddressToGid, AdapterTypeZeroHasNoGid) {
  Gid g = gidOf(0, "12:34:56");
  EXPECT_EQ(0u, g.length);
  EXPECT_EQ(0, g.bytes[0]);
}

TEST(HardwareAddressToGid, OnlyTheFirstFortyCharactersAreRead) {
  std::string colons;
  for (int i = 0; i < 19; ++i) colons += "11:";  // 57 characters
  EXPECT_EQ(14u, gidOf(32, colons.c_str()).length);  // pairs starting at 0, 3, ..., 39
  EXPECT_EQ(20u, gidOf(32, std::string(50, '7').c_str()).length);
}

TEST(HardwareAddressToGid, NeverMoreThanTwentyBytes) {
  std::string text = ":" + std::string(39, 'a');
  Gid g = gidOf(32, text.c_str());
  EXPECT_EQ(20u, g.length);
  EXPECT_EQ(0, g.bytes[0]);
  EXPECT_EQ(0xaa, g.bytes[19]);
}

TEST(HardwareAddressToGid, AnOddDigitAtTheEndIsReadAloneAndTheWalkStops) {
  Gid g = gidOf(32, "abc");
  ASSERT_EQ(2u, g.length);
  EXPECT_EQ(0xab, g.bytes[0]);
  EXPECT_EQ(0x0c, g.bytes[1]);
}

TEST(HardwareAddressToGid, TextThatIsNotHexadecimalEndsTheGid) {
  EXPECT_EQ(1u, gidOf(32, "12:zz:34").length);
  EXPECT_EQ(0u, gidOf(32, "").length);
}

// ------------------------------------------------------------- record set

// The set's records, read in its order, are the model's adapters in the
// model's (node, name) order, each with its LID.
void expectRecordsAsModelled(const veltnamConnectSet& set,
                             const std::map<std::pair<uint32_t, std::string>, uint32_t>& model) {
  auto expected = model.begin();
  for (const velt_nam_connect* rec : set) {
    ASSERT_NE(model.end(), expected);
    EXPECT_EQ(expected->first.first, rec->node_number);
    EXPECT_EQ(expected->first.second, std::string(rec->interface_name));
    EXPECT_EQ(expected->second, rec->LID);
    ++expected;
  }
  EXPECT_EQ(model.end(), expected);
}

TEST(ConnectSet, FindsInsertsAndErasesAsAnOrderedSetOfItsAdaptersWould) {
  // Random insertions (in order and out of it), finds and erasures, each
  // answered as a std::map by node and name answers it; every read walks
  // the records in that map's order.
  veltnamConnectSet set;
  std::map<std::pair<uint32_t, std::string>, uint32_t> model;  // adapter -> LID
  std::mt19937 rng(31);
  auto recordOf = [](uint32_t node, const std::string& name, uint32_t lid) {
    velt_nam_connect rec;
    memset(&rec, 0, sizeof rec);
    rec.node_number = node;
    strncpy(rec.interface_name, name.c_str(), sizeof rec.interface_name - 1);
    rec.LID = lid;
    return rec;
  };
  uint32_t ascending = 0;
  for (int step = 0; step < 40000; ++step) {
    const bool inOrder = rng() % 3 == 0;
    const uint32_t node = inOrder ? ascending++ / 4 : static_cast<uint32_t>(rng() % 2000);
    const std::string name = "sxn" + std::to_string(inOrder ? ascending % 4 : rng() % 12);
    const velt_nam_connect probe = recordOf(node, name, static_cast<uint32_t>(step));
    auto held = model.find({node, name});
    velt_nam_connect* found = set.find(probe);
    ASSERT_EQ(held != model.end(), found != nullptr) << "step " << step;
    if (found != nullptr) {
      ASSERT_EQ(held->second, found->LID) << "step " << step;
    }
    if (found != nullptr && rng() % 2 == 0) {
      set.erase(found);
      model.erase(held);
    } else {
      auto placed = set.insert(probe);
      ASSERT_EQ(held == model.end(), placed.second) << "step " << step;
      if (placed.second) model[{node, name}] = probe.LID;
      ASSERT_EQ(placed.second ? probe.LID : held->second, placed.first->LID);
    }
    ASSERT_EQ(model.size(), set.size());
    if (rng() % 4000 == 0 || step == 39999) expectRecordsAsModelled(set, model);
  }
}

TEST(ConnectSet, NodeByNodeWithNamesOutOfOrderAndOneLargeNodeIsStillOneRecordPerAdapter) {
  // Rows come node by node, each node's names in no order ("sxn10" before
  // "sxn2"), one node with far more names than the others. In between,
  // adapters of any node so far are asked for and, when held, inserted
  // again (which must change nothing), and the newest record is now and
  // then erased: none of which puts the nodes out of order.
  veltnamConnectSet set;
  std::map<std::pair<uint32_t, std::string>, uint32_t> model;
  std::mt19937 rng(57);
  uint32_t lid = 0;
  auto recordOf = [&lid](uint32_t node, const std::string& name) {
    velt_nam_connect rec;
    memset(&rec, 0, sizeof rec);
    rec.node_number = node;
    strncpy(rec.interface_name, name.c_str(), sizeof rec.interface_name - 1);
    rec.LID = ++lid;
    return rec;
  };
  int heldAgain = 0;
  for (uint32_t node = 0; node < 300; ++node) {
    std::vector<std::string> names;
    for (int i = 0; i < (node == 150 ? 150 : 12); ++i) names.push_back("sxn" + std::to_string(i));
    std::shuffle(names.begin(), names.end(), rng);
    for (const std::string& name : names) {
      const velt_nam_connect rec = recordOf(node, name);
      ASSERT_EQ(nullptr, set.find(rec));
      auto placed = set.insert(rec);
      ASSERT_TRUE(placed.second);
      model[{node, name}] = rec.LID;
      if (rng() % 25 == 0) {
        set.erase(placed.first);
        model.erase({node, name});
      }
      for (int ask = 0; ask < 2; ++ask) {
        const uint32_t earlier = rng() % 3 == 0 ? 150 : rng() % (node + 1);
        const std::string other = "sxn" + std::to_string(rng() % (earlier == 150 ? 150 : 12));
        const velt_nam_connect probe = recordOf(earlier, other);
        auto held = model.find({earlier, other});
        velt_nam_connect* found = set.find(probe);
        ASSERT_EQ(held != model.end(), found != nullptr) << earlier << " " << other << " at node " << node;
        if (found == nullptr) continue;
        ASSERT_EQ(held->second, found->LID);
        auto again = set.insert(probe);
        ASSERT_FALSE(again.second);
        ASSERT_EQ(found, again.first);
        ++heldAgain;
      }
      ASSERT_EQ(model.size(), set.size());
    }
  }
  EXPECT_GT(heldAgain, 1000);
  expectRecordsAsModelled(set, model);
}

// ------------------------------------------------------------- delta table

class DeltaTable : public TableFixture {
 protected:
  void accumulate(AMAdapterItem row) { accumulate_NAM_change(&row); }
};

TEST_F(DeltaTable, DownUpDownBetweenPublicationsLeavesOneDownRecord) {
  accumulate(makeRow(2, "sxn0", kNetA, true, false));
  accumulate(makeRow(2, "sxn0", kNetA, true, true));
  accumulate(makeRow(2, "sxn0", kNetA, true, false));
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  const veltnamNetAdaptInfo* net = deltaNetwork(kNetA);
  ASSERT_NE(nullptr, net);
  ASSERT_EQ(1u, net->veltnamConnectList.size());
  EXPECT_EQ(VELT_NAM_CONNECT_DOWN, (*net->veltnamConnectList.begin())->status);
  EXPECT_EQ(1u, net->netInfo.num_connect);
  EXPECT_EQ(1u, net->netInfo.num_down);
  EXPECT_EQ(0u, net->netInfo.num_up);
}

TEST_F(DeltaTable, EveryStatusChangeMovesTheCounts) {
  struct State {
    bool configured, up;
    uint8_t status;
  };
  const State states[] = {{true, true, VELT_NAM_CONNECT_UP},
                          {true, false, VELT_NAM_CONNECT_DOWN},
                          {false, false, VELT_NAM_CONNECT_UNCONFIG}};
  for (const State& from : states) {
    for (const State& to : states) {
      table_test::clearDelta();
      accumulate(makeRow(3, "sxn1", kNetA, from.configured, from.up));
      accumulate(makeRow(3, "sxn1", kNetA, to.configured, to.up));
      std::lock_guard<std::mutex> hold(veltnamSyncLock);
      const veltnamNetAdaptInfo* net = deltaNetwork(kNetA);
      ASSERT_NE(nullptr, net);
      SCOPED_TRACE(std::to_string(from.status) + " -> " + std::to_string(to.status));
      EXPECT_EQ(1u, net->netInfo.num_connect);
      EXPECT_EQ(to.status == VELT_NAM_CONNECT_UP ? 1u : 0u, net->netInfo.num_up);
      EXPECT_EQ(to.status == VELT_NAM_CONNECT_DOWN ? 1u : 0u, net->netInfo.num_down);
      ASSERT_EQ(1u, net->veltnamConnectList.size());
      EXPECT_EQ(to.status, (*net->veltnamConnectList.begin())->status);
    }
  }
}

TEST_F(DeltaTable, AnAdapterThatChangesNetworkLeavesTheOldCountsReduced) {
  accumulate(makeRow(2, "sxn0", kNetA, true, true));
  accumulate(makeRow(4, "sxn0", kNetA, true, false));
  accumulate(makeRow(2, "sxn0", kNetB, true, true));
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  const veltnamNetAdaptInfo* oldNet = deltaNetwork(kNetA);
  const veltnamNetAdaptInfo* newNet = deltaNetwork(kNetB);
  ASSERT_NE(nullptr, oldNet);
  ASSERT_NE(nullptr, newNet);
  EXPECT_EQ(1u, oldNet->netInfo.num_connect);
  EXPECT_EQ(0u, oldNet->netInfo.num_up);
  EXPECT_EQ(1u, oldNet->netInfo.num_down);
  ASSERT_EQ(1u, oldNet->veltnamConnectList.size());
  EXPECT_EQ(4u, (*oldNet->veltnamConnectList.begin())->node_number);
  EXPECT_EQ(1u, newNet->netInfo.num_connect);
  EXPECT_EQ(1u, newNet->netInfo.num_up);
  ASSERT_EQ(1u, newNet->veltnamConnectList.size());
  EXPECT_EQ(2u, (*newNet->veltnamConnectList.begin())->node_number);
  EXPECT_EQ("", table_test::countMismatch(veltnamNetInfoListDelta));
}

TEST_F(DeltaTable, AMoveOutOfALowerNetworkIsFoundThere) {
  // The record sits in the lower network; the row now names a higher one.
  accumulate(makeRow(2, "sxn0", kNetA, true, false));
  accumulate(makeRow(2, "sxn0", kNetB, false, false));
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_connect);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_down);
  EXPECT_TRUE(deltaNetwork(kNetA)->veltnamConnectList.empty());
  EXPECT_EQ(1u, deltaNetwork(kNetB)->netInfo.num_connect);
  EXPECT_EQ(0u, deltaNetwork(kNetB)->netInfo.num_down);
}

TEST_F(DeltaTable, ATableChangedBehindTheAccumulatorsBackIsStillSearchedRight) {
  accumulate(makeRow(2, "sxn0", kNetA, true, true));
  {
    // Emptied and refilled without the accumulator.
    std::lock_guard<std::mutex> hold(veltnamSyncLock);
    clear_net_adapter_table(veltnamNetInfoListDelta);
    add_velt_nam_conn_item(veltnamNetInfoListDelta, makeRow(3, "sxn0", kNetA, true, false));
  }
  accumulate(makeRow(2, "sxn0", kNetB, true, true));  // not listed any more: a new record
  accumulate(makeRow(3, "sxn0", kNetB, true, true));  // listed under kNetA: moves
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_connect);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_down);
  EXPECT_EQ(2u, deltaNetwork(kNetB)->netInfo.num_connect);
  EXPECT_EQ(2u, deltaNetwork(kNetB)->netInfo.num_up);
  EXPECT_EQ("", table_test::countMismatch(veltnamNetInfoListDelta));
}

TEST_F(DeltaTable, ManyRandomChangesLeaveExactlyTheLastStateOfEachAdapter) {
  // A model of the delta table: since the last publication, each adapter's
  // last network and status.
  std::map<std::pair<int, std::string>, std::pair<uint64_t, uint8_t>> model;
  std::mt19937 rng(99);
  const uint64_t networks[] = {0x10, 0x20, 0x30, 0x40};
  for (int step = 0; step < 30000; ++step) {
    int node = static_cast<int>(rng() % 700);
    std::string name = "sxn" + std::to_string(rng() % 6);
    uint64_t net = networks[rng() % 4];
    bool configured = rng() % 5 != 0;
    bool up = rng() % 2 == 0;
    AMAdapterItem row = makeRow(node, name.c_str(), net, configured, up);
    accumulate(row);
    model[{node, name}] = {net, static_cast<uint8_t>(velt_nam_status_of(row))};
    if (rng() % 5000 == 0) {
      reflect_NAM_changes();
      model.clear();
    }
  }
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  EXPECT_EQ("", table_test::countMismatch(veltnamNetInfoListDelta));
  size_t records = 0;
  for (const auto& entry : veltnamNetInfoListDelta) {
    for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
      ++records;
      auto expected = model.find({static_cast<int>(rec->node_number), std::string(rec->interface_name)});
      ASSERT_NE(expected, model.end()) << rec->node_number << " " << rec->interface_name;
      EXPECT_EQ(expected->second.first, entry.first);
      EXPECT_EQ(expected->second.second, rec->status);
    }
  }
  EXPECT_EQ(model.size(), records);
}

// A session that keeps the bytes a real session queues for each batch.
class PackingNamClient : public NAMClient {
 public:
  void* run(void*) override { return nullptr; }
  void wakeup(int) override {}
  // Called with veltnamSyncLock held, as a real session packs the batch.
  int queueEvent() override {
    velt_nam_msg_hdr hdr = {0, 0};
    char* body = nullptr;
    NAMClient::packMsg(&hdr, &body, veltnamNetInfoListDelta);
    bodies.emplace_back(body, static_cast<size_t>(hdr.msg_length));
    delete[] body;
    return 0;
  }
  std::vector<std::string> bodies;
};

// The body a batch must be packed into: the numbers of networks and
// records, then each network in ascending order with its counts and its UP,
// DOWN and other records, each group by node and then name, and the 4 zero
// bytes at the end. records holds each adapter's last record by (network,
// node, name); networks every network the batch touched, emptied or not.
std::string expectedBody(const std::set<uint64_t>& networks,
                         const std::map<std::tuple<uint64_t, uint32_t, std::string>, velt_nam_connect>& records) {
  std::string out;
  auto put = [&out](const void* p, size_t n) { out.append(static_cast<const char*>(p), n); };
  velt_nam_daemon_update_msg counts = {static_cast<int32_t>(networks.size()), static_cast<int32_t>(records.size())};
  put(&counts, sizeof counts);
  for (uint64_t network : networks) {
    velt_nam_connect_net_info info;
    memset(&info, 0, sizeof info);
    info.network_id = network;
    std::string groups[3];
    for (const auto& entry : records) {
      if (std::get<0>(entry.first) != network) continue;
      const velt_nam_connect& rec = entry.second;
      ++info.num_connect;
      int group = 2;
      if (rec.status == VELT_NAM_CONNECT_UP) group = 0, ++info.num_up;
      if (rec.status == VELT_NAM_CONNECT_DOWN) group = 1, ++info.num_down;
      groups[group].append(reinterpret_cast<const char*>(&rec), sizeof rec);
    }
    put(&info, sizeof info);
    for (const std::string& g : groups) out += g;
  }
  out.append(4, '\0');
  return out;
}

TEST_F(DeltaTable, EachBatchIsPackedInNetworkStatusNodeAndNameOrderWithEachAdaptersLastRecord) {
  PackingNamClient client;
  ctl_->insertNamClient(&client);
  // Names whose text order is not their number order, and adapters that
  // change network, status and content within a batch, in random order.
  const char* names[] = {"sxn0", "sxn1", "sxn2", "sxn10", "sxn11", "sxn20", "ib0", "ib3"};
  const uint64_t networks[] = {0x30, 0x10, 0x50, 0x20, 0x40};
  std::mt19937 rng(2024);
  std::set<uint64_t> touched;
  std::map<std::pair<uint32_t, std::string>, std::pair<uint64_t, velt_nam_connect>> last;
  std::vector<std::string> expected;
  auto publish = [&]() {
    std::map<std::tuple<uint64_t, uint32_t, std::string>, velt_nam_connect> records;
    for (const auto& entry : last) {
      records[std::make_tuple(entry.second.first, entry.first.first, entry.first.second)] = entry.second.second;
    }
    if (!touched.empty()) expected.push_back(expectedBody(touched, records));
    reflect_NAM_changes();
    touched.clear();
    last.clear();
  };
  for (int step = 0; step < 20000; ++step) {
    const int node = static_cast<int>(rng() % 400);
    const char* name = names[rng() % 8];
    const uint64_t net = networks[rng() % 5];
    AMAdapterItem row = makeRow(node, name, net, rng() % 6 != 0, rng() % 2 == 0, rng() % 9 == 0);
    row.isPending = rng() % 7 == 0 ? 1 : 0;
    row.LID = static_cast<int>(rng() % 100000);
    row.ipaddr = static_cast<uint32_t>(rng());
    row.adapterType = rng() % 3 == 0 ? 0 : 32;
    snprintf(row.hardwareAddress, sizeof row.hardwareAddress, "fe:80:%02x:%02x", node & 0xff, step & 0xff);
    accumulate(row);
    velt_nam_connect rec;
    build_velt_nam_conn_item(row, &rec);
    touched.insert(net);
    last[{static_cast<uint32_t>(node), name}] = {net, rec};
    if (rng() % 3000 == 0) publish();
  }
  publish();
  ctl_->removeNamClient(&client);
  ASSERT_GT(expected.size(), 2u);
  ASSERT_EQ(expected.size(), client.bodies.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].size(), client.bodies[i].size()) << "batch " << i;
    EXPECT_TRUE(expected[i] == client.bodies[i]) << "batch " << i << " differs";
  }
}

TEST_F(DeltaTable, AnUnconfiguredAdapterCountsOnlyAsConnected) {
  accumulate(makeRow(2, "sxn0", kNetA, false, true));
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  EXPECT_EQ(1u, deltaNetwork(kNetA)->netInfo.num_connect);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_up);
  EXPECT_EQ(0u, deltaNetwork(kNetA)->netInfo.num_down);
}

TEST_F(DeltaTable, ANullRowChangesNothing) {
  EXPECT_EQ(0, accumulate_NAM_change(nullptr));
  EXPECT_EQ(0u, deltaRecordCount());
}

TEST_F(DeltaTable, FindReportsAnEmptyTableAndAMissingAdapter) {
  AMAdapterItem row = makeRow(2, "sxn0", kNetA, true, true);
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  EXPECT_FALSE(find_and_update_velt_nam_conn_item(&row));
  insert_velt_nam_conn_item(&row);
  EXPECT_TRUE(find_and_update_velt_nam_conn_item(&row));
  AMAdapterItem other = makeRow(2, "sxn1", kNetA, true, true);
  EXPECT_FALSE(find_and_update_velt_nam_conn_item(&other));
}

TEST_F(DeltaTable, BelowTwoFourFiveNothingIsEverAccumulated) {
  FakeNamClient client(3);
  ctl_->insertNamClient(&client);
  veltActiveVersion.quick_version = 0x02040400;
  table_->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", kNetA));
  table_->updateAdapterStateWithLock(1, Members().add(2, 0).get(), 1);
  table_->updateAdapterStateWithLock(0, Members().add(2, 0).get(), 1);
  table_test::advanceSeconds(20);
  table_->processDelayedDownEvents();
  table_->repopulateAllNAMInfoWithLock();
  accumulate(makeRow(5, "sxn0", kNetA, true, true));
  EXPECT_EQ(0u, deltaRecordCount());
  EXPECT_EQ(0, reflect_NAM_changes());
  EXPECT_TRUE(client.batches().empty());
  EXPECT_TRUE(client.wakeups().empty());
}

TEST_F(DeltaTable, BelowTheGateAPendingBatchIsNotPublished) {
  FakeNamClient client(3);
  ctl_->insertNamClient(&client);
  accumulate(makeRow(2, "sxn0", kNetA, true, true));
  veltActiveVersion.quick_version = 0x02040400;
  reflect_NAM_changes();
  EXPECT_TRUE(client.batches().empty());
  veltActiveVersion.quick_version = kVersion2500;
  reflect_NAM_changes();
  EXPECT_EQ(1u, client.batches().size());
}

// ------------------------------------------------------------- publication

class Publication : public TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    ctl_->insertNamClient(&first_);
    ctl_->insertNamClient(&second_);
  }
  FakeNamClient first_{21};
  FakeNamClient second_{22};
};

TEST_F(Publication, AnEmptyDeltaTableQueuesNothingAndWakesNobody) {
  EXPECT_EQ(0, reflect_NAM_changes());
  EXPECT_TRUE(first_.batches().empty());
  EXPECT_TRUE(second_.batches().empty());
  EXPECT_TRUE(first_.wakeups().empty());
  EXPECT_TRUE(second_.wakeups().empty());
}

TEST_F(Publication, EveryClientGetsTheSameBatchThenTheTableIsClearedAndClientsWoken) {
  AMAdapterItem up = makeRow(2, "sxn0", kNetA, true, true);
  AMAdapterItem down = makeRow(3, "sxn0", kNetB, true, false);
  accumulate_NAM_change(&up);
  accumulate_NAM_change(&down);
  EXPECT_EQ(0, reflect_NAM_changes());
  for (FakeNamClient* c : {&first_, &second_}) {
    auto batches = c->batches();
    ASSERT_EQ(1u, batches.size());
    ASSERT_EQ(2u, batches[0].networks.size());
    EXPECT_EQ(kNetA, batches[0].networks[0].network);
    EXPECT_EQ(1u, batches[0].networks[0].num_up);
    EXPECT_EQ(kNetB, batches[0].networks[1].network);
    EXPECT_EQ(1u, batches[0].networks[1].num_down);
    EXPECT_EQ(std::vector<int>{VELT_NAM_UPDATE_EVENT}, c->wakeups());
  }
  EXPECT_EQ(0u, deltaRecordCount());
  EXPECT_EQ(0, reflect_NAM_changes());
  EXPECT_EQ(1u, first_.batches().size());
}

// -------------------------------------------------------------- full table

class FullTable : public TableFixture {
 protected:
  void SetUp() override {
    TableFixture::SetUp();
    table_->setAdapterDefinedWithLock(makeInterface(5, "sxn0", "10.0.0.5", kNetA));  // index 0
    table_->setAdapterDefinedWithLock(makeInterface(5, "sxn1", "10.1.0.5", kNetB));  // index 1
    table_->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", kNetA));
    table_->setAdapterDefinedWithLock(makeInterface(7, "sxn0", "10.0.0.7", kNetA));
    table_->updateAdapterStateWithLock(1, Members().add(2, 0).add(5, 1).get(), 0);
    table_->setAllAdapterStoppedOnNodeWithLock(7);
    table_->updateAdapterStateWithLock(1, Members().add(9, 3).get(), 0);  // never defined
    reflect_NAM_changes();
  }
  veltnamNetInfoList full_;
  void TearDown() override {
    clear_net_adapter_table(full_);
    TableFixture::TearDown();
  }
};

TEST_F(FullTable, EveryRowIsListedUnderItsNetwork) {
  ASSERT_EQ(0, ctl_->obtainAdapterInfoFromGlobalTable(full_, 0));
  ASSERT_EQ(3u, full_.size());  // kNetA, kNetB and the undefined row's 0
  EXPECT_EQ("", table_test::countMismatch(full_));
  const veltnamNetAdaptInfo* a = full_[kNetA];
  EXPECT_EQ(3u, a->netInfo.num_connect);
  EXPECT_EQ(1u, a->netInfo.num_up);    // node 2
  EXPECT_EQ(1u, a->netInfo.num_down);  // node 5; node 7 is stopped
  std::vector<uint32_t> nodes;
  for (const velt_nam_connect* rec : a->veltnamConnectList) nodes.push_back(rec->node_number);
  EXPECT_EQ((std::vector<uint32_t>{2, 5, 7}), nodes);
  EXPECT_EQ(1u, full_[kNetB]->netInfo.num_up);
  EXPECT_EQ(1u, full_[0]->netInfo.num_connect);
  EXPECT_EQ(0u, deltaRecordCount());  // the delta table is not touched
}

TEST_F(FullTable, ActiveOnlyLeavesOutUndefinedRowsAndStoppedNodes) {
  ASSERT_EQ(0, ctl_->obtainAdapterInfoFromGlobalTable(full_, 1));
  ASSERT_EQ(2u, full_.size());
  EXPECT_EQ(2u, full_[kNetA]->netInfo.num_connect);
  EXPECT_EQ(1u, full_[kNetB]->netInfo.num_connect);
  EXPECT_EQ(0u, full_.count(0));
}

TEST_F(FullTable, WithoutATableThereIsNothingToObtain) {
  AMController::pGAdapterCfgTbl = nullptr;
  EXPECT_EQ(-1, ctl_->obtainAdapterInfoFromGlobalTable(full_, 0));
  AMController::pGAdapterCfgTbl = table_;
  EXPECT_EQ(-1, ctl_->insertAdapterItem(nullptr, full_));
}

TEST_F(FullTable, TwoNamelessRowsOfANodeAreOneAdapter) {
  table_->updateAdapterStateWithLock(1, Members().add(9, 4).get(), 0);
  ASSERT_EQ(0, ctl_->obtainAdapterInfoFromGlobalTable(full_, 0));
  EXPECT_EQ(1u, full_[0]->veltnamConnectList.size());
  EXPECT_EQ(1u, full_[0]->netInfo.num_connect);
  EXPECT_EQ("", table_test::countMismatch(full_));
}

TEST_F(FullTable, ClearingEmptiesTheTable) {
  ctl_->obtainAdapterInfoFromGlobalTable(full_, 0);
  clear_net_adapter_table(full_);
  EXPECT_TRUE(full_.empty());
}

// ------------------------------------------------------------- client list

class ClientList : public TableFixture {};

TEST_F(ClientList, ClientsAreFoundByTheirSocket) {
  FakeNamClient a(30), b(31), c(32);
  EXPECT_EQ(1, ctl_->insertNamClient(&a));
  EXPECT_EQ(2, ctl_->insertNamClient(&b));
  EXPECT_EQ(3, ctl_->insertNamClient(&c));
  EXPECT_EQ(&b, ctl_->findNamClient(31));
  EXPECT_EQ(nullptr, ctl_->findNamClient(40));
  EXPECT_EQ(2, ctl_->removeNamClient(&b));
  EXPECT_EQ(nullptr, ctl_->findNamClient(31));
  EXPECT_EQ(2, ctl_->getNumberOfClients());
}

TEST_F(ClientList, PollEntriesAreOnePerClientUpToTheCapacity) {
  FakeNamClient a(30), b(31), c(32);
  ctl_->insertNamClient(&a);
  ctl_->insertNamClient(&b);
  ctl_->insertNamClient(&c);
  struct pollfd fds[3];
  EXPECT_EQ(2, ctl_->collectAndBuildPollFDs(fds, 2));
  EXPECT_EQ(30, fds[0].fd);
  EXPECT_EQ(31, fds[1].fd);
  EXPECT_EQ(POLLIN, fds[1].events);
  EXPECT_EQ(3, ctl_->collectAndBuildPollFDs(fds, 3));
  EXPECT_EQ(32, fds[2].fd);
}

TEST_F(ClientList, OneClientOrAllAreWoken) {
  FakeNamClient a(30), b(31);
  ctl_->insertNamClient(&a);
  ctl_->insertNamClient(&b);
  ctl_->wakeupTheClient(31, VELT_NAM_DISCONNECT_EVENT);
  EXPECT_TRUE(a.wakeups().empty());
  EXPECT_EQ(std::vector<int>{VELT_NAM_DISCONNECT_EVENT}, b.wakeups());
  ctl_->wakeupAllNamClients(VELT_NAM_SEND_INIT_MSG_EVENT);
  EXPECT_EQ(std::vector<int>{VELT_NAM_SEND_INIT_MSG_EVENT}, a.wakeups());
  EXPECT_EQ(2u, b.wakeups().size());
}

// -------------------------------------------------------- NAM device state

TEST(NamDeviceState, NothingOpensTheDevice) {
  AMGlobalAdapterTable table;  // its construction asks for the device
  EXPECT_EQ(0, already_NAM_registered());
  EXPECT_EQ(-1, register_NAM());
  EXPECT_EQ(-1, namfd);
}

TEST(NamDeviceState, TheInterfaceSwitchAndNodeNumberAreKept) {
  enable_disable_NAM_interface(1);
  EXPECT_EQ(1, namAPIenabled);
  enable_disable_NAM_interface(0);
  EXPECT_EQ(0, namAPIenabled);
  set_NAM_node_number(17);
  EXPECT_EQ(17, namNodeNumber);
}

// ------------------------------------------------------------ update time

int fixedWallClock(struct timeval* tv) {
  tv->tv_sec = 1677906367;  // Sat Mar  4 05:06:07 2023 UTC
  tv->tv_usec = 0;
  return 0;
}

TEST(UpdateTime, IsTheMonthDayAndTimeOfDay) {
  const char* oldTz = getenv("TZ");
  std::string saved = oldTz ? oldTz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  cu_set_clocks_ForTesting(fixedWallClock, nullptr);
  EXPECT_STREQ("Mar  4 05:06:07", writeTimeUpdated());
  EXPECT_EQ('\0', timeOfveltnamNetInfoUpdated[15]);
  cu_set_clocks_ForTesting(nullptr, nullptr);
  if (oldTz) {
    setenv("TZ", saved.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

// ---------------------------------------------------------------- listing

class AdapterListing : public trace_test::TraceLogFixture {};

TEST_F(AdapterListing, EveryNetworkAndRecordIsTraced) {
  veltnamNetInfoList table;
  add_velt_nam_conn_item(table, makeRow(4, "sxn0", kNetA, true, true));
  add_velt_nam_conn_item(table, makeRow(6, "sxn0", kNetA, true, false));
  dump_veltnam_net_adapter_info(table);
  clear_net_adapter_table(table);
  drain();
  auto lines = logLines();
  EXPECT_EQ(1, trace_test::countContaining(lines, "network_id = a0, num_connect = 2, num_up = 1, num_down = 1"));
  EXPECT_EQ(1, trace_test::countContaining(lines, "node=4 ifname=sxn0 device=/dev/sxn0 IP=10.9.8.7"));
  EXPECT_EQ(1, trace_test::countContaining(lines, "node=6 ifname=sxn0"));
}

}  // namespace

// The client's copy of the table against a plain model of what updates
// mean: each record, in the order the update lists it, sets its adapter's
// record and network (a later record of the same adapter wins, an adapter
// listed under another network has moved there, a network without
// adapters is not kept), and an update that would take the table past its
// limits changes nothing. Random updates, cut into random pieces, over a
// small set of adapters so that the same adapters come back, move and
// repeat, into an empty table (the whole-table path) and a full one.
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "internal/nam_table.h"
#include "velt_nam_api.h"

namespace nam_table_test {
namespace {

using velt::nam::internal::AdapterKey;
using velt::nam::internal::AdapterTable;

constexpr uint32_t kMaxNetworks = 3;
constexpr uint32_t kMaxAdapters = 14;

struct Model {
  // (node, name) -> (network, status, LID)
  std::map<std::pair<uint32_t, std::string>, std::tuple<uint64_t, int, uint32_t>> adapters;
};

// One record of a copy, as the model can say it: network, node, name,
// status, LID; in the copy's order (networks ascending, UP then DOWN then
// the others, each by node and name).
typedef std::tuple<uint64_t, uint32_t, std::string, int, uint32_t> Row;

int groupOf(int status) { return status == VELT_NAM_CONNECT_UP ? 0 : status == VELT_NAM_CONNECT_DOWN ? 1 : 2; }

std::vector<Row> rowsOf(const Model& model) {
  std::vector<std::tuple<uint64_t, int, uint32_t, std::string, int, uint32_t>> sorted;
  for (const auto& a : model.adapters) {
    uint64_t net = std::get<0>(a.second);
    int status = std::get<1>(a.second);
    sorted.emplace_back(net, groupOf(status), a.first.first, a.first.second, status, std::get<2>(a.second));
  }
  std::sort(sorted.begin(), sorted.end());
  std::vector<Row> rows;
  for (const auto& s : sorted) {
    rows.emplace_back(std::get<0>(s), std::get<2>(s), std::get<3>(s), std::get<4>(s), std::get<5>(s));
  }
  return rows;
}

std::vector<Row> rowsOf(const AdapterTable& table) {
  std::vector<Row> rows;
  velt_nam_node_adap_info* info = table.copyNodeAdapInfo(VELT_NAM_ALL_NODES);
  if (info == nullptr) return rows;
  const velt_nam_connect* rec = info->adap_info;
  for (int n = 0; n < info->net_info->num_networks; ++n) {
    const velt_nam_connect_net_info& net = info->net_info->connect_info[n];
    for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
      rows.emplace_back(net.network_id, rec->node_number, rec->interface_name, rec->status, rec->LID);
    }
  }
  velt_nam_free_node_adap_info(info);
  return rows;
}

struct Update {
  std::string body;
  uint32_t networks = 0;
  // The records in the update's order: (network, node, name, status, LID).
  std::vector<std::tuple<uint64_t, uint32_t, std::string, int, uint32_t>> records;
};

void appendBytes(std::string* to, const void* from, size_t n) { to->append(static_cast<const char*>(from), n); }

// A random update: some of the networks 1, 2, 4 and 8, in ascending
// order, each with up to six records of nodes 1..4 and four names (so
// records repeat within and across networks), in random order or, for
// some networks, in key order as the daemon sends them.
Update randomUpdate(std::mt19937& rng, uint32_t* lid) {
  static const char* const kNames[] = {"sxn0", "sxn1", "sxn10", "ib0"};
  static const uint64_t kNetworks[] = {1, 2, 4, 8};
  Update u;
  std::string nets;
  int32_t networkCount = 0;
  int32_t adapterCount = 0;
  for (uint64_t id : kNetworks) {
    if (rng() % 2) continue;
    std::vector<velt_nam_connect> recs(rng() % 7);
    for (velt_nam_connect& r : recs) {
      memset(&r, 0, sizeof r);
      r.node_number = 1 + rng() % 4;
      // Bytes after the name's NUL are not part of it.
      memset(r.interface_name, rng() % 2 ? 'x' : 0, sizeof r.interface_name);
      strcpy(r.interface_name, kNames[rng() % 4]);
      r.status = static_cast<uint8_t>(rng() % 3);
      r.LID = ++*lid;
    }
    if (rng() % 2) {
      std::stable_sort(recs.begin(), recs.end(), [](const velt_nam_connect& a, const velt_nam_connect& b) {
        return AdapterKey(a) < AdapterKey(b);
      });
    }
    velt_nam_connect_net_info info;
    memset(&info, 0, sizeof info);
    info.network_id = id;
    info.num_connect = static_cast<uint32_t>(recs.size());
    for (const velt_nam_connect& r : recs) {
      if (r.status == VELT_NAM_CONNECT_UP) ++info.num_up;
      if (r.status == VELT_NAM_CONNECT_DOWN) ++info.num_down;
    }
    appendBytes(&nets, &info, sizeof info);
    for (const velt_nam_connect& r : recs) {
      appendBytes(&nets, &r, sizeof r);
      u.records.emplace_back(id, r.node_number, r.interface_name, r.status, r.LID);
    }
    ++networkCount;
    adapterCount += static_cast<int32_t>(recs.size());
  }
  velt_nam_daemon_update_msg counts = {networkCount, adapterCount};
  appendBytes(&u.body, &counts, sizeof counts);
  u.body += nets;
  u.networks = static_cast<uint32_t>(networkCount);
  u.body.append(4, '\0');
  return u;
}

// What the model makes of u: false (and the model unchanged) when the
// update itself, or the table it would make, passes the limits.
bool applyToModel(Model* model, const Update& u) {
  if (u.networks > kMaxNetworks || u.records.size() > kMaxAdapters) return false;
  Model next = *model;
  for (const auto& r : u.records) {
    next.adapters[{std::get<1>(r), std::get<2>(r)}] = std::make_tuple(std::get<0>(r), std::get<3>(r), std::get<4>(r));
  }
  std::map<uint64_t, int> networks;
  for (const auto& a : next.adapters) ++networks[std::get<0>(a.second)];
  if (networks.size() > kMaxNetworks || next.adapters.size() > kMaxAdapters) return false;
  *model = next;
  return true;
}

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// Gives the table u in random pieces.
int applyInPieces(AdapterTable* table, const Update& u, std::mt19937& rng, std::string* why) {
  int rc = table->beginUpdate(u.body.size(), why);
  size_t at = 0;
  while (rc == VELT_NAM_OK && at < u.body.size()) {
    size_t n = std::min<size_t>(1 + rng() % 200, u.body.size() - at);
    rc = table->takeUpdate(bytes(u.body) + at, n, why);
    at += n;
  }
  return rc == VELT_NAM_OK ? table->finishUpdate(why) : rc;
}

void setLimits(AdapterTable* table) {
  velt_nam_daemon_config config;
  memset(&config, 0, sizeof config);
  config.velt_nam_max_adapter_info = kMaxAdapters;
  config.velt_nam_max_networks = kMaxNetworks;
  std::string why;
  ASSERT_EQ(VELT_NAM_OK, table->applyInit(reinterpret_cast<const uint8_t*>(&config), sizeof config, &why)) << why;
}

TEST(NamTable, UpdatesInPiecesMeanWhatTheModelSays) {
  std::mt19937 rng(20261123);
  int refused = 0;
  int mergeRefused = 0;
  int moved = 0;
  for (int session = 0; session < 200; ++session) {
    AdapterTable table;
    setLimits(&table);
    Model model;
    uint32_t lid = 0;
    int seq = 0;
    for (int n = 0; n < 30; ++n) {
      Update u = randomUpdate(rng, &lid);
      Model before = model;
      bool fits = applyToModel(&model, u);
      std::string why;
      int rc = applyInPieces(&table, u, rng, &why);
      ASSERT_EQ(fits ? VELT_NAM_OK : VELT_NAM_READSOCK_ERROR, rc)
          << "session " << session << " update " << n << ": " << why;
      if (fits) {
        ++seq;
        for (const auto& a : before.adapters) {
          if (std::get<0>(model.adapters.at(a.first)) != std::get<0>(a.second)) ++moved;
        }
      } else {
        ++refused;
        if (why.find("would make the table") != std::string::npos) ++mergeRefused;
        EXPECT_TRUE(why.find("would make the table") != std::string::npos ||
                    why.find("an update has") != std::string::npos)
            << why;
      }
      ASSERT_EQ(rowsOf(model), rowsOf(table)) << "session " << session << " update " << n;
      ASSERT_EQ(model.adapters.size(), table.adapterCount());
      ASSERT_EQ(seq, table.modSeqNum());
    }
  }
  // The runs went where they had to: refusals of the merge and moves both
  // happened.
  EXPECT_GT(mergeRefused, 100);
  EXPECT_GT(refused, mergeRefused);
  EXPECT_GT(moved, 100);
}

TEST(NamTable, AWholeTableWithAnAdapterUnderTwoNetworksKeepsTheLaterOne) {
  AdapterTable table;
  setLimits(&table);
  velt_nam_connect a;
  memset(&a, 0, sizeof a);
  a.node_number = 1;
  strcpy(a.interface_name, "sxn0");
  a.status = VELT_NAM_CONNECT_UP;
  velt_nam_daemon_update_msg counts = {2, 2};
  std::string body;
  appendBytes(&body, &counts, sizeof counts);
  for (uint64_t id : {3u, 7u}) {
    velt_nam_connect_net_info info;
    memset(&info, 0, sizeof info);
    info.network_id = id;
    info.num_connect = info.num_up = 1;
    appendBytes(&body, &info, sizeof info);
    appendBytes(&body, &a, sizeof a);
  }
  body.append(4, '\0');
  std::string why;
  ASSERT_EQ(VELT_NAM_OK, table.applyUpdate(bytes(body), body.size(), &why)) << why;
  EXPECT_EQ((std::vector<Row>{Row{7, 1, "sxn0", VELT_NAM_CONNECT_UP, 0}}), rowsOf(table));
  EXPECT_EQ(1u, table.adapterCount());
}

}  // namespace
}  // namespace nam_table_test

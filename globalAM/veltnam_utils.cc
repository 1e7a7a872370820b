// Building client records from adapter rows and keeping them per network.
#include "veltnam_utils.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "AMNetIf.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "vx_cu.h"

char timeOfveltnamNetInfoUpdated[16] = {0};

namespace {

constexpr int kGidLength = 20;
// A hardware address is read no further than this many characters.
constexpr int kHardwareAddressScan = 40;

// Copies a character field of a row into a record field of the same width:
// up to the NUL, zero-padded, the last byte always NUL.
void copyName(char* dst, const char* src, size_t width) {
  size_t n = strnlen(src, width);
  if (n >= width) n = width - 1;
  memcpy(dst, src, n);
  memset(dst + n, 0, width - n);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

const char* statusName(uint8_t status) {
  switch (status) {
    case VELT_NAM_CONNECT_UP:
      return "UP";
    case VELT_NAM_CONNECT_DOWN:
      return "DOWN";
    default:
      return "UNCONFIG";
  }
}

}  // namespace

size_t hashOfAdapter(uint32_t node, const char (&name)[sizeof(velt_nam_connect::interface_name)]) {
  uint64_t h = 1469598103934665603ull ^ node;  // FNV-1a
  for (char c : name) {
    if (c == '\0') break;
    h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  }
  return static_cast<size_t>(h ^ (h >> 29));
}

// ------------------------------------------------------- veltnamConnectSet

uint32_t veltnamConnectSet::hashOf(const velt_nam_connect& rec) {
  return static_cast<uint32_t>(hashOfAdapter(rec.node_number, rec.interface_name));
}

veltnamConnectSet::const_iterator veltnamConnectSet::begin() const {
  putInOrder();
  return const_iterator(records_.data());
}

veltnamConnectSet::const_iterator veltnamConnectSet::end() const {
  putInOrder();
  return const_iterator(records_.data() + records_.size());
}

void veltnamConnectSet::putInOrder() const {
  if (order_ == Order::kSorted) return;
  // One record per adapter, so no two compare equal and the order is the
  // one a tree of the same records would have.
  std::sort(records_.begin(), records_.end(), [](const velt_nam_connect& a, const velt_nam_connect& b) {
    return compareAdaptInfo()(&a, &b);
  });
  order_ = Order::kSorted;
  std::vector<Slot>().swap(index_);
}

namespace {

bool sameAdapter(const velt_nam_connect& a, const velt_nam_connect& b) {
  return a.node_number == b.node_number && strncmp(a.interface_name, b.interface_name, sizeof a.interface_name) == 0;
}

}  // namespace

velt_nam_connect* veltnamConnectSet::find(const velt_nam_connect& probe) {
  if (records_.empty()) return nullptr;
  compareAdaptInfo less;
  switch (order_) {
    case Order::kSorted: {
      // Outside first..last nothing is looked for: asking every network
      // for an adapter that is in none of them stays cheap.
      if (less(&probe, &records_.front()) || less(&records_.back(), &probe)) return nullptr;
      auto at = std::lower_bound(records_.begin(), records_.end(), probe,
                                 [&less](const velt_nam_connect& a, const velt_nam_connect& b) { return less(&a, &b); });
      return at != records_.end() && !less(&probe, &*at) ? &*at : nullptr;
    }
    case Order::kNodesAscending:
      return findInNode(probe);
    case Order::kNone:
      break;
  }
  return findInIndex(probe);
}

velt_nam_connect* veltnamConnectSet::findInNode(const velt_nam_connect& probe) {
  const uint32_t node = probe.node_number;
  if (node > records_.back().node_number || node < records_.front().node_number) return nullptr;
  // The node's records, newest first: a row's records mostly come one
  // after the other.
  size_t walked = 0;
  if (node == records_.back().node_number) {
    for (size_t i = records_.size(); i-- > 0 && records_[i].node_number == node;) {
      if (++walked > kNodeWalkLimit) break;
      if (sameAdapter(records_[i], probe)) return &records_[i];
    }
  } else {
    auto at = std::lower_bound(records_.begin(), records_.end(), node,
                               [](const velt_nam_connect& a, uint32_t n) { return a.node_number < n; });
    for (; at != records_.end() && at->node_number == node; ++at) {
      if (++walked > kNodeWalkLimit) break;
      if (sameAdapter(*at, probe)) return &*at;
    }
  }
  if (walked <= kNodeWalkLimit) return nullptr;
  order_ = Order::kNone;
  return findInIndex(probe);
}

velt_nam_connect* veltnamConnectSet::findInIndex(const velt_nam_connect& probe) {
  if (index_.empty()) buildIndex(0);
  const uint32_t hash = hashOf(probe);
  const size_t mask = index_.size() - 1;
  for (size_t i = hash & mask; index_[i].position != 0; i = (i + 1) & mask) {
    if (index_[i].hash == hash && sameAdapter(records_[index_[i].position - 1], probe)) {
      return &records_[index_[i].position - 1];
    }
  }
  return nullptr;
}

std::pair<velt_nam_connect*, bool> veltnamConnectSet::insert(const velt_nam_connect& rec) {
  compareAdaptInfo less;
  if (order_ == Order::kNone) {
    // One probe both looks for the adapter and finds the slot for it.
    if (index_.empty() || (records_.size() + 1) * 2 > index_.size()) buildIndex(1);
    const uint32_t hash = hashOf(rec);
    const size_t mask = index_.size() - 1;
    size_t i = hash & mask;
    for (; index_[i].position != 0; i = (i + 1) & mask) {
      velt_nam_connect& held = records_[index_[i].position - 1];
      if (index_[i].hash == hash && sameAdapter(held, rec)) return {&held, false};
    }
    records_.push_back(rec);
    index_[i] = Slot{static_cast<uint32_t>(records_.size()), hash};
    return {&records_.back(), true};
  }
  // Records mostly come in ascending order: then the end is the place. With
  // only the nodes in order, a record of the last node may be held already.
  const bool past = records_.empty() || (order_ == Order::kSorted ? less(&records_.back(), &rec)
                                                                   : rec.node_number > records_.back().node_number);
  if (past) {
    records_.push_back(rec);
    return {&records_.back(), true};
  }
  velt_nam_connect* held = find(rec);
  if (held != nullptr) return {held, false};
  if (order_ == Order::kNone) return insert(rec);  // the walk gave up on a large node
  order_ = rec.node_number >= records_.back().node_number ? Order::kNodesAscending : Order::kNone;
  records_.push_back(rec);
  return {&records_.back(), true};
}

void veltnamConnectSet::erase(velt_nam_connect* rec) {
  const size_t position = static_cast<size_t>(rec - records_.data());
  const size_t last = records_.size() - 1;
  if (position == last) {
    // Whatever order the others were in, they still are.
    if (!index_.empty()) indexRemove(indexSlotOf(static_cast<uint32_t>(position)));
    records_.pop_back();
    return;
  }
  // The last record takes the hole: the order is restored by the next sort,
  // which is cheaper than closing the hole in a large array each time.
  if (order_ != Order::kNone || index_.empty()) {
    order_ = Order::kNone;
    buildIndex(0);
  }
  indexRemove(indexSlotOf(static_cast<uint32_t>(position)));
  indexSlotOf(static_cast<uint32_t>(last))->position = static_cast<uint32_t>(position + 1);
  records_[position] = records_[last];
  records_.pop_back();
}

void veltnamConnectSet::buildIndex(size_t spare) {
  size_t slots = 16;
  while (slots < (records_.size() + spare) * 2 + 2) slots *= 2;
  index_.assign(slots, Slot{0, 0});
  const size_t mask = slots - 1;
  for (size_t p = 0; p < records_.size(); ++p) {
    const uint32_t hash = hashOf(records_[p]);
    size_t i = hash & mask;
    while (index_[i].position != 0) i = (i + 1) & mask;
    index_[i] = Slot{static_cast<uint32_t>(p + 1), hash};
  }
}

veltnamConnectSet::Slot* veltnamConnectSet::indexSlotOf(uint32_t position) {
  const size_t mask = index_.size() - 1;
  size_t i = hashOf(records_[position]) & mask;
  while (index_[i].position != position + 1) i = (i + 1) & mask;
  return &index_[i];
}

void veltnamConnectSet::indexRemove(Slot* slot) {
  // Linear probing without tombstones: the entries after the hole move
  // back into it unless their home lies between the hole and themselves.
  const size_t mask = index_.size() - 1;
  size_t hole = static_cast<size_t>(slot - index_.data());
  for (size_t i = (hole + 1) & mask; index_[i].position != 0; i = (i + 1) & mask) {
    const size_t home = index_[i].hash & mask;
    const bool stays = hole <= i ? (hole < home && home <= i) : (hole < home || home <= i);
    if (stays) continue;
    index_[hole] = index_[i];
    hole = i;
  }
  index_[hole] = Slot{0, 0};
}

// ----------------------------------------------------- veltnamNetAdaptInfo

veltnamNetAdaptInfo::veltnamNetAdaptInfo(uint64_t network_id) {
  memset(&netInfo, 0, sizeof netInfo);
  netInfo.network_id = network_id;
}

veltnamNetAdaptInfo::~veltnamNetAdaptInfo() = default;

velt_nam_connect_status_t velt_nam_status_of(const AMAdapterItem& row) {
  if (!row.isConfiged || row.isNodeStopped) return VELT_NAM_CONNECT_UNCONFIG;
  // A down held back for the down delay has not reached clients yet: a
  // whole table packed meanwhile shows the adapter up, as every client
  // connected before it still sees it.
  return row.isUp || row.isPending ? VELT_NAM_CONNECT_UP : VELT_NAM_CONNECT_DOWN;
}

void build_velt_nam_conn_item(const AMAdapterItem& row, velt_nam_connect* rec) {
  memset(rec, 0, sizeof *rec);
  rec->node_number = static_cast<uint32_t>(row.nodenumber);
  rec->LID = static_cast<uint32_t>(row.LID);
  rec->adapter_type = row.adapterType;
  rec->ip_address.type = VELT_NAM_IPV4;
  rec->ip_address.address.ipv4.s_addr = row.ipaddr;
  copyName(rec->interface_name, row.interfacename, sizeof rec->interface_name);
  // Clients are given the device's path name, not its device name.
  copyName(rec->device_name, row.devicePathName, sizeof rec->device_name);
  convert_hardware_address_to_gid(row.adapterType, rec->gid, row.hardwareAddress, &rec->valid_length_in_gid);
  rec->spigot_id = row.spigot_id;
  rec->status = static_cast<uint8_t>(velt_nam_status_of(row));
}

void convert_hardware_address_to_gid(uint32_t adapterType, uint8_t* gid, const char* hwaddr,
                                     uint16_t* length) {
  *length = 0;
  if (adapterType == 0 || hwaddr == nullptr) return;
  int pos = 0;
  int produced = 0;
  // The byte count is bounded by the GID as well as by the 40 characters: a
  // leading ':' followed by 39 digits would otherwise make 21 bytes.
  while (pos < kHardwareAddressScan && hwaddr[pos] != '\0' && produced < kGidLength) {
    if (pos == 0 && hwaddr[0] == ':') {
      gid[produced++] = 0;
      pos = 1;
      continue;
    }
    unsigned value;
    int hi = hexValue(hwaddr[pos]);
    int lo = hexValue(hwaddr[pos + 1]);
    if (hi >= 0 && lo >= 0) {
      value = static_cast<unsigned>(hi * 16 + lo);
    } else if (sscanf(hwaddr + pos, "%2x", &value) != 1) {
      break;  // not a hexadecimal pair: the address ends here
    }
    gid[produced++] = static_cast<uint8_t>(value);
    // Never step over the terminator of a text that ends after one digit.
    if (hwaddr[pos + 1] == '\0') break;
    pos += hwaddr[pos + 2] == ':' ? 3 : 2;
  }
  *length = static_cast<uint16_t>(produced);
}

void count_velt_nam_status_change(velt_nam_connect_net_info* info, uint8_t old_status, uint8_t new_status) {
  if (old_status == new_status) return;
  if (old_status == VELT_NAM_CONNECT_UP) info->num_up--;
  if (old_status == VELT_NAM_CONNECT_DOWN) info->num_down--;
  if (new_status == VELT_NAM_CONNECT_UP) info->num_up++;
  if (new_status == VELT_NAM_CONNECT_DOWN) info->num_down++;
}

void add_velt_nam_conn_item(veltnamNetInfoList& table, const AMAdapterItem& row) {
  velt_nam_connect rec;
  build_velt_nam_conn_item(row, &rec);
  add_velt_nam_conn_item(table, row.networkId64, rec);
}

void add_velt_nam_conn_item(veltnamNetInfoList& table, uint64_t network_id, const velt_nam_connect& rec) {
  auto found = table.find(network_id);
  veltnamNetAdaptInfo* net;
  if (found != table.end()) {
    net = found->second;
  } else {
    net = new veltnamNetAdaptInfo(network_id);
    table.emplace(network_id, net);
  }
  auto placed = net->veltnamConnectList.insert(rec);
  if (placed.second) {
    net->netInfo.num_connect++;
    count_velt_nam_status_change(&net->netInfo, VELT_NAM_CONNECT_UNCONFIG, rec.status);
    return;
  }
  // The network already lists this adapter (two rows of one node without a
  // name, say): one record per adapter, the newest wins.
  velt_nam_connect* old = placed.first;
  count_velt_nam_status_change(&net->netInfo, old->status, rec.status);
  *old = rec;
}

velt_nam_connect* find_velt_nam_conn_item(veltnamConnectSet& records, const velt_nam_connect* probe) {
  return records.find(*probe);
}

void put_net_adapter_table_in_order(const veltnamNetInfoList& table) {
  for (const auto& entry : table) entry.second->veltnamConnectList.putInOrder();
}

void clear_net_adapter_table(veltnamNetInfoList& table) {
  for (auto& entry : table) delete entry.second;
  table.clear();
}

void dump_veltnam_net_adapter_info(const veltnamNetInfoList& table) {
  if (!TRACEABLE(TRACE_FYI)) return;
  AM_TRACE(TRACE_FYI) << "Adapter information of " << static_cast<unsigned long>(table.size()) << " networks"
                      << endl;
  for (const auto& entry : table) {
    const velt_nam_connect_net_info& ni = entry.second->netInfo;
    AMtracef(TRACE_FYI, "network_id = %llx, num_connect = %u, num_up = %u, num_down = %u\n",
             static_cast<unsigned long long>(ni.network_id), ni.num_connect, ni.num_up, ni.num_down);
    for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
      char ip[INET_ADDRSTRLEN] = "";
      inet_ntop(AF_INET, &rec->ip_address.address.ipv4, ip, sizeof ip);
      char ifname[sizeof rec->interface_name];
      char devname[sizeof rec->device_name];
      copyName(ifname, rec->interface_name, sizeof ifname);
      copyName(devname, rec->device_name, sizeof devname);
      AMtracef(TRACE_FYI, "  node=%u ifname=%s device=%s IP=%s LID=%u type=%u spigot=%u gidlen=%u status=%s\n",
               rec->node_number, ifname, devname, ip, rec->LID, rec->adapter_type, rec->spigot_id,
               rec->valid_length_in_gid, statusName(rec->status));
    }
  }
}

void getTimeUpdated() {
  struct timeval now;
  cu_gettimeofday_1(&now);
  time_t seconds = now.tv_sec;
  char text[32];
  ctime_r(&seconds, text);
  // Month, day and time of day: the 15 characters after the weekday.
  memcpy(timeOfveltnamNetInfoUpdated, text + 4, 15);
  timeOfveltnamNetInfoUpdated[15] = '\0';
}

const char* writeTimeUpdated() {
  getTimeUpdated();
  return timeOfveltnamNetInfoUpdated;
}

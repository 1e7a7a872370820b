#include "internal/nam_table.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <utility>

namespace velt {
namespace nam {
namespace internal {

namespace {

constexpr size_t kCountsLength = sizeof(velt_nam_daemon_update_msg);
// The counts record is followed by 4 bytes that the length counts and
// nothing fills.
constexpr size_t kUpdateSurplus = 4;

bool nulTerminated(const char* text, size_t size) { return memchr(text, '\0', size) != nullptr; }

size_t alignUp(size_t offset, size_t alignment) { return (offset + alignment - 1) / alignment * alignment; }

// A network of a copy: its counts over the records chosen, and those
// records in the order the caller sees them.
struct NetworkCopy {
  velt_nam_connect_net_info info;
  std::vector<const velt_nam_connect*> records;
};

}  // namespace

int refuseMessage(std::string* why, const char* fmt, ...) {
  char text[256];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  *why = text;
  return VELT_NAM_READSOCK_ERROR;
}

uint64_t updateBodyLength(uint64_t networks, uint64_t adapters) {
  return kCountsLength + kUpdateSurplus + networks * sizeof(velt_nam_connect_net_info) +
         adapters * sizeof(velt_nam_connect);
}

uint64_t AdapterTable::maxUpdateBodyLength() const {
  return updateBodyLength(limits_.maxNetworks, limits_.maxAdapters);
}

int AdapterTable::applyInit(const uint8_t* body, size_t length, std::string* why) {
  if (length != sizeof(velt_nam_daemon_config)) {
    return refuseMessage(why, "the daemon's init answer has %zu bytes instead of %zu", length,
                  sizeof(velt_nam_daemon_config));
  }
  velt_nam_daemon_config config;
  memcpy(&config, body, sizeof config);
  if (config.velt_nam_max_networks <= 0 || config.velt_nam_max_adapter_info <= 0) {
    return refuseMessage(why, "the daemon announces limits of %d networks and %d adapters",
                  config.velt_nam_max_networks, config.velt_nam_max_adapter_info);
  }
  config_ = config;
  hasConfig_ = true;
  // A daemon with higher limits than ours is still served, up to ours.
  if (static_cast<uint32_t>(config.velt_nam_max_networks) < limits_.maxNetworks) {
    limits_.maxNetworks = static_cast<uint32_t>(config.velt_nam_max_networks);
  }
  if (static_cast<uint32_t>(config.velt_nam_max_adapter_info) < limits_.maxAdapters) {
    limits_.maxAdapters = static_cast<uint32_t>(config.velt_nam_max_adapter_info);
  }
  return VELT_NAM_OK;
}

int AdapterTable::parseUpdate(const uint8_t* body, size_t length, std::vector<Incoming>* out,
                              std::string* why) const {
  if (length < kCountsLength + kUpdateSurplus) {
    return refuseMessage(why, "an update of %zu bytes is shorter than its counts", length);
  }
  velt_nam_daemon_update_msg counts;
  memcpy(&counts, body, sizeof counts);
  if (counts.num_networks < 0 || counts.num_adapter_info < 0) {
    return refuseMessage(why, "an update counts %d networks and %d adapters", counts.num_networks,
                  counts.num_adapter_info);
  }
  if (static_cast<uint32_t>(counts.num_networks) > limits_.maxNetworks) {
    return refuseMessage(why, "an update has %d networks, at most %u are allowed", counts.num_networks,
                  limits_.maxNetworks);
  }
  if (static_cast<uint32_t>(counts.num_adapter_info) > limits_.maxAdapters) {
    return refuseMessage(why, "an update has %d adapters, at most %u are allowed", counts.num_adapter_info,
                  limits_.maxAdapters);
  }
  uint64_t expected = updateBodyLength(counts.num_networks, counts.num_adapter_info);
  if (length != expected) {
    return refuseMessage(why, "an update of %d networks and %d adapters has %zu bytes instead of %llu",
                  counts.num_networks, counts.num_adapter_info, length,
                  static_cast<unsigned long long>(expected));
  }
  // From here on every read stays inside the body: the networks' records
  // may not add up to more than num_adapter_info, for which length has room.
  out->reserve(counts.num_adapter_info);
  size_t offset = kCountsLength;
  uint32_t adaptersLeft = static_cast<uint32_t>(counts.num_adapter_info);
  uint64_t previousId = 0;
  for (int32_t n = 0; n < counts.num_networks; ++n) {
    velt_nam_connect_net_info net;
    memcpy(&net, body + offset, sizeof net);
    offset += sizeof net;
    if (n > 0 && net.network_id <= previousId) {
      return refuseMessage(why, "network 0x%016llx follows network 0x%016llx; networks come once each, in ascending order",
                    static_cast<unsigned long long>(net.network_id),
                    static_cast<unsigned long long>(previousId));
    }
    previousId = net.network_id;
    if (static_cast<uint64_t>(net.num_up) + net.num_down > net.num_connect) {
      return refuseMessage(why, "network 0x%016llx counts %u up and %u down of %u adapters",
                    static_cast<unsigned long long>(net.network_id), net.num_up, net.num_down,
                    net.num_connect);
    }
    if (net.num_connect > adaptersLeft) {
      return refuseMessage(why, "network 0x%016llx has %u adapters, but only %u of the update's %d are left",
                    static_cast<unsigned long long>(net.network_id), net.num_connect, adaptersLeft,
                    counts.num_adapter_info);
    }
    adaptersLeft -= net.num_connect;
    for (uint32_t a = 0; a < net.num_connect; ++a) {
      Incoming in;
      in.networkId = net.network_id;
      memcpy(&in.record, body + offset, sizeof in.record);
      offset += sizeof in.record;
      const velt_nam_connect& rec = in.record;
      if (rec.status > VELT_NAM_CONNECT_UNCONFIG) {
        return refuseMessage(why, "adapter %u of network 0x%016llx has the unknown status %u", a,
                      static_cast<unsigned long long>(net.network_id), rec.status);
      }
      if (!nulTerminated(rec.interface_name, sizeof rec.interface_name) ||
          !nulTerminated(rec.device_name, sizeof rec.device_name)) {
        return refuseMessage(why, "adapter %u of network 0x%016llx has a name without its terminating NUL", a,
                      static_cast<unsigned long long>(net.network_id));
      }
      out->push_back(in);
    }
  }
  if (adaptersLeft != 0) {
    return refuseMessage(why, "an update counts %d adapters, but its networks hold %u",
                  counts.num_adapter_info, counts.num_adapter_info - adaptersLeft);
  }
  return VELT_NAM_OK;
}

int AdapterTable::checkMergeLimits(const std::vector<Incoming>& incoming, std::string* why) const {
  // Into an empty table (the whole table of a new session) an update
  // cannot bring more networks or adapters than its own counts, which
  // parseUpdate held to the limits already.
  if (networkOf_.empty()) return VELT_NAM_OK;
  // Where each adapter of the update ends up (a later record wins), and
  // how that changes the size of each network.
  std::unordered_map<AdapterKey, uint64_t, AdapterKeyHash> destination;
  destination.reserve(incoming.size());
  for (const Incoming& in : incoming) destination[AdapterKey(in.record)] = in.networkId;
  uint64_t adapters = networkOf_.size();
  std::map<uint64_t, int64_t> growth;
  for (const auto& d : destination) {
    auto now = networkOf_.find(d.first);
    if (now == networkOf_.end()) {
      ++adapters;
      ++growth[d.second];
    } else if (now->second != d.second) {
      --growth[now->second];
      ++growth[d.second];
    }
  }
  int64_t networks = static_cast<int64_t>(networks_.size());
  for (const auto& g : growth) {
    auto net = networks_.find(g.first);
    int64_t before = net == networks_.end() ? 0 : static_cast<int64_t>(net->second.size());
    int64_t after = before + g.second;
    if (before == 0 && after > 0) ++networks;
    if (before > 0 && after == 0) --networks;
  }
  if (static_cast<uint64_t>(networks) > limits_.maxNetworks) {
    return refuseMessage(why, "the update would make the table %lld networks, at most %u are allowed",
                  static_cast<long long>(networks), limits_.maxNetworks);
  }
  if (adapters > limits_.maxAdapters) {
    return refuseMessage(why, "the update would make the table %llu adapters, at most %u are allowed",
                  static_cast<unsigned long long>(adapters), limits_.maxAdapters);
  }
  return VELT_NAM_OK;
}

int AdapterTable::applyUpdate(const uint8_t* body, size_t length, std::string* why) {
  std::vector<Incoming> incoming;
  int rc = parseUpdate(body, length, &incoming, why);
  if (rc == VELT_NAM_OK) rc = checkMergeLimits(incoming, why);
  if (rc != VELT_NAM_OK) return rc;
  if (networkOf_.empty()) networkOf_.reserve(incoming.size());
  // The daemon sends each network's records together, each status in key
  // order, so the place after the last record inserted is usually the
  // right one for the next.
  Records* records = nullptr;
  uint64_t recordsOf = 0;
  Records::iterator hint;
  for (const Incoming& in : incoming) {
    AdapterKey key(in.record);
    auto was = networkOf_.find(key);
    if (was != networkOf_.end() && was->second != in.networkId) {
      auto oldNet = networks_.find(was->second);
      oldNet->second.erase(key);
      if (oldNet->second.empty()) {
        if (records == &oldNet->second) records = nullptr;
        networks_.erase(oldNet);
      }
    }
    if (records == nullptr || recordsOf != in.networkId) {
      records = &networks_[in.networkId];
      recordsOf = in.networkId;
      hint = records->end();
    }
    hint = records->insert_or_assign(hint, key, in.record);
    ++hint;
    if (was == networkOf_.end()) {
      networkOf_.emplace(key, in.networkId);
    } else {
      was->second = in.networkId;
    }
  }
  modSeqNum_ = modSeqNum_ == INT_MAX ? 1 : modSeqNum_ + 1;
  return VELT_NAM_OK;
}

namespace {

// The networks that hold adapters of node (or of every node), each with
// its chosen records: UP, then DOWN, then the others, each group in key
// order.
template <typename Networks>
std::vector<NetworkCopy> chooseRecords(const Networks& networks, int node) {
  std::vector<NetworkCopy> out;
  // One walk over each network, sorting into the three groups; the records
  // of one node are found from its first key on.
  std::vector<const velt_nam_connect*> down;
  std::vector<const velt_nam_connect*> others;
  for (const auto& net : networks) {
    NetworkCopy copy{};
    copy.info.network_id = net.first;
    down.clear();
    others.clear();
    auto r = net.second.begin();
    if (node != VELT_NAM_ALL_NODES) {
      velt_nam_connect first{};
      first.node_number = static_cast<uint32_t>(node);
      r = net.second.lower_bound(AdapterKey(first));
    }
    for (; r != net.second.end(); ++r) {
      const velt_nam_connect& rec = r->second;
      if (node != VELT_NAM_ALL_NODES && rec.node_number != static_cast<uint32_t>(node)) break;
      if (rec.status == VELT_NAM_CONNECT_UP) {
        copy.records.push_back(&rec);
      } else if (rec.status == VELT_NAM_CONNECT_DOWN) {
        down.push_back(&rec);
      } else {
        others.push_back(&rec);
      }
    }
    copy.info.num_up = static_cast<uint32_t>(copy.records.size());
    copy.info.num_down = static_cast<uint32_t>(down.size());
    copy.records.insert(copy.records.end(), down.begin(), down.end());
    copy.records.insert(copy.records.end(), others.begin(), others.end());
    copy.info.num_connect = static_cast<uint32_t>(copy.records.size());
    if (copy.info.num_connect > 0) out.push_back(std::move(copy));
  }
  return out;
}

}  // namespace

velt_nam_net_info* AdapterTable::copyNetInfo() const {
  std::vector<NetworkCopy> nets = chooseRecords(networks_, VELT_NAM_ALL_NODES);
  size_t infosAt = alignUp(sizeof(velt_nam_net_info), alignof(velt_nam_connect_net_info));
  void* block = calloc(1, infosAt + nets.size() * sizeof(velt_nam_connect_net_info));
  if (block == nullptr) return nullptr;
  auto* out = static_cast<velt_nam_net_info*>(block);
  out->num_networks = static_cast<int>(nets.size());
  out->connect_info = reinterpret_cast<velt_nam_connect_net_info*>(static_cast<char*>(block) + infosAt);
  for (size_t i = 0; i < nets.size(); ++i) out->connect_info[i] = nets[i].info;
  return out;
}

velt_nam_node_adap_info* AdapterTable::copyNodeAdapInfo(int node) const {
  std::vector<NetworkCopy> nets = chooseRecords(networks_, node);
  size_t records = 0;
  for (const NetworkCopy& n : nets) records += n.records.size();
  size_t netInfoAt = alignUp(sizeof(velt_nam_node_adap_info), alignof(velt_nam_net_info));
  size_t infosAt = alignUp(netInfoAt + sizeof(velt_nam_net_info), alignof(velt_nam_connect_net_info));
  size_t recordsAt = alignUp(infosAt + nets.size() * sizeof(velt_nam_connect_net_info), alignof(velt_nam_connect));
  void* block = calloc(1, recordsAt + records * sizeof(velt_nam_connect));
  if (block == nullptr) return nullptr;
  char* base = static_cast<char*>(block);
  auto* out = reinterpret_cast<velt_nam_node_adap_info*>(base);
  out->num_entries = static_cast<uint16_t>(records > UINT16_MAX ? UINT16_MAX : records);
  out->mod_seq_num = modSeqNum_;
  out->net_info = reinterpret_cast<velt_nam_net_info*>(base + netInfoAt);
  out->net_info->num_networks = static_cast<int>(nets.size());
  out->net_info->connect_info = reinterpret_cast<velt_nam_connect_net_info*>(base + infosAt);
  out->adap_info = reinterpret_cast<velt_nam_connect*>(base + recordsAt);
  velt_nam_connect* next = out->adap_info;
  for (size_t i = 0; i < nets.size(); ++i) {
    out->net_info->connect_info[i] = nets[i].info;
    for (const velt_nam_connect* rec : nets[i].records) *next++ = *rec;
  }
  return out;
}

}  // namespace internal
}  // namespace nam
}  // namespace velt

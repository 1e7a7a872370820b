#include "internal/nam_table.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
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

namespace {

// The size of each part of an update body as it is read.
size_t partSize(int part) {
  static const size_t kSizes[] = {sizeof(velt_nam_daemon_update_msg), sizeof(velt_nam_connect_net_info),
                                  sizeof(velt_nam_connect), 0};
  return kSizes[part];
}

bool keyLess(const AdapterTable::Entry& a, const AdapterTable::Entry& b) { return a.key < b.key; }

// The entry of key in a network's entries, or null.
template <typename Entries>
auto findEntry(Entries& entries, const AdapterKey& key) -> decltype(entries.data()) {
  auto at = std::lower_bound(entries.begin(), entries.end(), key,
                             [](const AdapterTable::Entry& e, const AdapterKey& k) { return e.key < k; });
  return at != entries.end() && at->key == key ? &*at : nullptr;
}

}  // namespace

int AdapterTable::beginUpdate(size_t length, std::string* why) {
  staged_.clear();
  updateLength_ = length;
  updateHave_ = 0;
  part_ = Part::kCounts;
  fieldHave_ = 0;
  networksLeft_ = 0;
  adaptersLeft_ = 0;
  recordsLeft_ = 0;
  if (length < kCountsLength + kUpdateSurplus) {
    return refuseMessage(why, "an update of %zu bytes is shorter than its counts", length);
  }
  return VELT_NAM_OK;
}

int AdapterTable::takeUpdate(const uint8_t* data, size_t n, std::string* why) {
  if (n > updateLength_ - updateHave_) {
    return dropUpdate(refuseMessage(why, "%zu bytes came for an update that has %zu left", n,
                                    updateLength_ - updateHave_));
  }
  updateHave_ += n;
  while (n > 0 && part_ != Part::kRest) {
    const size_t size = partSize(static_cast<int>(part_));
    const uint8_t* field = data;
    if (fieldHave_ == 0 && n >= size) {
      data += size;
      n -= size;
    } else {
      // A field split between pieces is put together first.
      size_t take = std::min(size - fieldHave_, n);
      memcpy(field_ + fieldHave_, data, take);
      fieldHave_ += take;
      data += take;
      n -= take;
      if (fieldHave_ < size) return VELT_NAM_OK;
      fieldHave_ = 0;
      field = field_;
    }
    int rc = takeField(field, why);
    if (rc != VELT_NAM_OK) return dropUpdate(rc);
  }
  // What follows the last network (the 4 surplus bytes, or records the
  // networks do not hold, which finishUpdate refuses) is not kept.
  return VELT_NAM_OK;
}

int AdapterTable::takeField(const uint8_t* field, std::string* why) {
  switch (part_) {
    case Part::kCounts:
      return takeCounts(field, why);
    case Part::kNetwork:
      return takeNetwork(field, why);
    case Part::kRecord:
      return takeRecord(field, why);
    case Part::kRest:
      break;
  }
  return VELT_NAM_OK;
}

int AdapterTable::takeCounts(const uint8_t* field, std::string* why) {
  velt_nam_daemon_update_msg counts;
  memcpy(&counts, field, sizeof counts);
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
  if (updateLength_ != expected) {
    return refuseMessage(why, "an update of %d networks and %d adapters has %zu bytes instead of %llu",
                         counts.num_networks, counts.num_adapter_info, updateLength_,
                         static_cast<unsigned long long>(expected));
  }
  // From here on the body has room for what the counts promise, and the
  // networks' records may not add up to more than num_adapter_info.
  counts_ = counts;
  networksLeft_ = counts.num_networks;
  adaptersLeft_ = static_cast<uint32_t>(counts.num_adapter_info);
  staged_.reserve(static_cast<size_t>(counts.num_networks));
  part_ = networksLeft_ > 0 ? Part::kNetwork : Part::kRest;
  return VELT_NAM_OK;
}

int AdapterTable::takeNetwork(const uint8_t* field, std::string* why) {
  velt_nam_connect_net_info net;
  memcpy(&net, field, sizeof net);
  if (!staged_.empty() && net.network_id <= staged_.back().id) {
    return refuseMessage(why, "network 0x%016llx follows network 0x%016llx; networks come once each, in ascending order",
                         static_cast<unsigned long long>(net.network_id),
                         static_cast<unsigned long long>(staged_.back().id));
  }
  if (static_cast<uint64_t>(net.num_up) + net.num_down > net.num_connect) {
    return refuseMessage(why, "network 0x%016llx counts %u up and %u down of %u adapters",
                         static_cast<unsigned long long>(net.network_id), net.num_up, net.num_down,
                         net.num_connect);
  }
  if (net.num_connect > adaptersLeft_) {
    return refuseMessage(why, "network 0x%016llx has %u adapters, but only %u of the update's %d are left",
                         static_cast<unsigned long long>(net.network_id), net.num_connect, adaptersLeft_,
                         counts_.num_adapter_info);
  }
  adaptersLeft_ -= net.num_connect;
  --networksLeft_;
  staged_.emplace_back();
  staged_.back().id = net.network_id;
  recordsLeft_ = net.num_connect;
  if (recordsLeft_ > 0) {
    part_ = Part::kRecord;
  } else {
    part_ = networksLeft_ > 0 ? Part::kNetwork : Part::kRest;
  }
  return VELT_NAM_OK;
}

int AdapterTable::takeRecord(const uint8_t* field, std::string* why) {
  StagedNetwork& net = staged_.back();
  const uint32_t index = static_cast<uint32_t>(net.entries.size());
  velt_nam_connect rec;
  memcpy(&rec, field, sizeof rec);
  if (rec.status > VELT_NAM_CONNECT_UNCONFIG) {
    return refuseMessage(why, "adapter %u of network 0x%016llx has the unknown status %u", index,
                         static_cast<unsigned long long>(net.id), rec.status);
  }
  if (!nulTerminated(rec.interface_name, sizeof rec.interface_name) ||
      !nulTerminated(rec.device_name, sizeof rec.device_name)) {
    return refuseMessage(why, "adapter %u of network 0x%016llx has a name without its terminating NUL", index,
                         static_cast<unsigned long long>(net.id));
  }
  // The entries grow with what arrived, not with what the network claims.
  net.entries.push_back(Entry{AdapterKey(rec), rec});
  if (index > 0 && !(net.entries[index - 1].key < net.entries[index].key)) net.ascending = false;
  if (--recordsLeft_ == 0) part_ = networksLeft_ > 0 ? Part::kNetwork : Part::kRest;
  return VELT_NAM_OK;
}

int AdapterTable::dropUpdate(int rc) {
  std::vector<StagedNetwork>().swap(staged_);
  part_ = Part::kRest;
  updateLength_ = updateHave_ = 0;
  return rc;
}

int AdapterTable::finishUpdate(std::string* why) {
  if (updateHave_ != updateLength_ || updateLength_ == 0) {
    return dropUpdate(refuseMessage(why, "an update was finished with %zu of its %zu bytes", updateHave_,
                                    updateLength_));
  }
  // The length matched the counts, so every network came; records counted
  // but held by no network are refused here.
  if (adaptersLeft_ != 0) {
    return dropUpdate(refuseMessage(why, "an update counts %d adapters, but its networks hold %u",
                                    counts_.num_adapter_info, counts_.num_adapter_info - adaptersLeft_));
  }
  if (adapterCount_ == 0 && stagedIsAWholeTable()) {
    // The whole table of a new session: its networks become the table as
    // they came. takeCounts held them to the limits.
    for (StagedNetwork& s : staged_) {
      if (s.entries.empty()) continue;
      adapterCount_ += s.entries.size();
      networks_.push_back(Network{s.id, std::move(s.entries)});
    }
  } else {
    int rc = mergeStaged(why);
    if (rc != VELT_NAM_OK) return dropUpdate(rc);
  }
  dropUpdate(VELT_NAM_OK);
  modSeqNum_ = modSeqNum_ == INT_MAX ? 1 : modSeqNum_ + 1;
  return VELT_NAM_OK;
}

int AdapterTable::applyUpdate(const uint8_t* body, size_t length, std::string* why) {
  int rc = beginUpdate(length, why);
  if (rc == VELT_NAM_OK) rc = takeUpdate(body, length, why);
  if (rc == VELT_NAM_OK) rc = finishUpdate(why);
  return rc;
}

bool AdapterTable::stagedIsAWholeTable() const {
  // Each network's records in ascending keys, and no adapter in two
  // networks: the networks' keys are walked together, smallest first, and
  // two equal keys would meet.
  struct Cursor {
    const Entry* at;
    const Entry* end;
  };
  std::vector<Cursor> heap;
  for (const StagedNetwork& s : staged_) {
    if (!s.ascending) return false;
    if (!s.entries.empty()) heap.push_back({s.entries.data(), s.entries.data() + s.entries.size()});
  }
  if (heap.size() < 2) return true;
  auto later = [](const Cursor& a, const Cursor& b) { return b.at->key < a.at->key; };
  std::make_heap(heap.begin(), heap.end(), later);
  const AdapterKey* previous = nullptr;
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), later);
    Cursor& c = heap.back();
    if (previous != nullptr && !(*previous < c.at->key)) return false;
    previous = &c.at->key;
    if (++c.at == c.end) {
      heap.pop_back();
    } else {
      std::push_heap(heap.begin(), heap.end(), later);
    }
  }
  return true;
}

int AdapterTable::mergeStaged(std::string* why) {
  // Every adapter of the update once, in key order; of records with the
  // same key the later one wins.
  struct Incoming {
    const Entry* entry;
    uint64_t networkId;
  };
  std::vector<Incoming> incoming;
  for (const StagedNetwork& s : staged_) {
    for (const Entry& e : s.entries) incoming.push_back({&e, s.id});
  }
  std::stable_sort(incoming.begin(), incoming.end(),
                   [](const Incoming& a, const Incoming& b) { return a.entry->key < b.entry->key; });
  size_t kept = 0;
  for (size_t i = 0; i < incoming.size(); ++i) {
    if (i + 1 < incoming.size() && incoming[i + 1].entry->key == incoming[i].entry->key) continue;
    incoming[kept++] = incoming[i];
  }
  incoming.resize(kept);

  // Where each goes: over its own entry, or (new, or moved from another
  // network) into its network's entries; the table is not changed before
  // the limits are checked.
  struct Replace {
    Entry* at;
    const Entry* from;
  };
  std::vector<Replace> replaced;
  std::vector<std::vector<size_t>> leaving(networks_.size());
  std::vector<std::pair<uint64_t, const Entry*>> arriving;  // key order within each network
  size_t added = 0;
  for (const Incoming& in : incoming) {
    Entry* now = nullptr;
    size_t nowIn = 0;
    for (; nowIn < networks_.size(); ++nowIn) {
      now = findEntry(networks_[nowIn].entries, in.entry->key);
      if (now != nullptr) break;
    }
    if (now != nullptr && networks_[nowIn].id == in.networkId) {
      replaced.push_back({now, in.entry});
      continue;
    }
    if (now != nullptr) {
      leaving[nowIn].push_back(static_cast<size_t>(now - networks_[nowIn].entries.data()));
    } else {
      ++added;
    }
    arriving.emplace_back(in.networkId, in.entry);
  }
  std::stable_sort(arriving.begin(), arriving.end(),
                   [](const std::pair<uint64_t, const Entry*>& a, const std::pair<uint64_t, const Entry*>& b) {
                     return a.first < b.first;
                   });

  // The sizes the networks would have.
  uint64_t adapters = adapterCount_ + added;
  uint64_t networks = 0;
  size_t a = 0;
  size_t n = 0;
  while (a < arriving.size() || n < networks_.size()) {
    uint64_t id = n < networks_.size() ? networks_[n].id : UINT64_MAX;
    if (a < arriving.size() && arriving[a].first < id) id = arriving[a].first;
    int64_t size = 0;
    if (n < networks_.size() && networks_[n].id == id) {
      size = static_cast<int64_t>(networks_[n].entries.size() - leaving[n].size());
      ++n;
    }
    for (; a < arriving.size() && arriving[a].first == id; ++a) ++size;
    if (size > 0) ++networks;
  }
  if (networks > limits_.maxNetworks) {
    return refuseMessage(why, "the update would make the table %llu networks, at most %u are allowed",
                         static_cast<unsigned long long>(networks), limits_.maxNetworks);
  }
  if (adapters > limits_.maxAdapters) {
    return refuseMessage(why, "the update would make the table %llu adapters, at most %u are allowed",
                         static_cast<unsigned long long>(adapters), limits_.maxAdapters);
  }

  for (const Replace& r : replaced) r.at->record = r.from->record;
  for (size_t i = 0; i < networks_.size(); ++i) {
    std::vector<size_t>& gone = leaving[i];
    if (gone.empty()) continue;
    std::sort(gone.begin(), gone.end());
    std::vector<Entry>& entries = networks_[i].entries;
    size_t out = gone.front();
    for (size_t in = gone.front(), g = 0; in < entries.size(); ++in) {
      if (g < gone.size() && gone[g] == in) {
        ++g;
        continue;
      }
      entries[out++] = entries[in];
    }
    entries.resize(out);
  }
  for (a = 0; a < arriving.size();) {
    const uint64_t id = arriving[a].first;
    auto net = std::lower_bound(networks_.begin(), networks_.end(), id,
                                [](const Network& x, uint64_t want) { return x.id < want; });
    if (net == networks_.end() || net->id != id) net = networks_.insert(net, Network{id, {}});
    std::vector<Entry>& entries = net->entries;
    const size_t middle = entries.size();
    for (; a < arriving.size() && arriving[a].first == id; ++a) entries.push_back(*arriving[a].second);
    std::inplace_merge(entries.begin(), entries.begin() + static_cast<ptrdiff_t>(middle), entries.end(), keyLess);
  }
  networks_.erase(std::remove_if(networks_.begin(), networks_.end(),
                                 [](const Network& net) { return net.entries.empty(); }),
                  networks_.end());
  adapterCount_ = adapters;
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
  for (const AdapterTable::Network& net : networks) {
    NetworkCopy copy{};
    copy.info.network_id = net.id;
    down.clear();
    others.clear();
    auto r = net.entries.begin();
    if (node != VELT_NAM_ALL_NODES) {
      velt_nam_connect first{};
      first.node_number = static_cast<uint32_t>(node);
      r = std::lower_bound(net.entries.begin(), net.entries.end(), AdapterTable::Entry{AdapterKey(first), first},
                           keyLess);
    }
    for (; r != net.entries.end(); ++r) {
      const velt_nam_connect& rec = r->record;
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

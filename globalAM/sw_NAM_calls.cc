// Adapter change accumulation for the local clients: the version gate, the
// delta table, its publication to the client sessions, the controller's
// client list and full-table members, and the NAM device state.
#include "sw_NAM_calls.h"

#include <poll.h>
#include <string.h>

#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "TraceStream.h"
#include "common.h"
#include "ha_assert.h"
#include "vx_cu.h"

veltnamNetInfoList veltnamNetInfoListDelta;
std::mutex veltnamSyncLock;

pthread_mutex_t namSyncLock = PTHREAD_MUTEX_INITIALIZER;
int namRegistered = 0;
int namfd = -1;
int namNodeNumber = 0;
int namAPIenabled = 0;

namespace {

// The oldest cluster version that offers the client interface.
constexpr uint32_t kFirstNAMVersion = 0x02040500;

}  // namespace

int compareVELTVersions(uint32_t a, uint32_t b, int /*flag*/) {
  const uint8_t va[4] = {static_cast<uint8_t>(a >> 24), static_cast<uint8_t>(a >> 16),
                         static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a)};
  const uint8_t vb[4] = {static_cast<uint8_t>(b >> 24), static_cast<uint8_t>(b >> 16),
                         static_cast<uint8_t>(b >> 8), static_cast<uint8_t>(b)};
  return cu_cmp_velt_versions(va, vb);
}

bool isVELTNAMInterfaceSupported() {
  if (compareVELTVersions(getVeltActiveVersion().quick_version, kFirstNAMVersion, 0) >= 0) return true;
  AMtracef(AM_TRACEF_DEBUG, "in accumulate_VELTNAM_table_change(), VELT-NAM interface is not supported.\n");
  return false;
}

// ------------------------------------------------------------ delta table

namespace {

// An adapter as the delta table tells adapters apart: node and name.
struct AdapterKey {
  uint32_t node;
  char name[sizeof(velt_nam_connect::interface_name)];

  AdapterKey() : node(0), name{} {}
  explicit AdapterKey(const velt_nam_connect& rec) : node(rec.node_number) {
    // Records are NUL-padded, so equal names are equal bytes.
    memcpy(name, rec.interface_name, sizeof name);
  }
  bool operator==(const AdapterKey& o) const { return node == o.node && memcmp(name, o.name, sizeof name) == 0; }
};

size_t hashOf(const AdapterKey& k) { return hashOfAdapter(k.node, k.name); }

// The network each adapter of the delta table is listed under. An adapter is
// listed in at most one network (it is taken out of the old one when it
// moves), so this finds its record without asking every network, which
// matters when a whole cluster's list arrives in no particular order. Open
// addressing in one array, so that indexing a batch of a whole cluster
// costs no allocation per adapter. Thread-compatible (GUARDED_BY
// veltnamSyncLock, like the delta table it indexes).
class DeltaIndex {
 public:
  size_t size() const { return used_; }

  const uint64_t* find(const AdapterKey& key) const {
    if (used_ == 0) return nullptr;
    const size_t mask = slots_.size() - 1;
    for (size_t i = hashOf(key) & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.state == kEmpty) return nullptr;
      if (s.state == kFull && s.key == key) return &s.network;
    }
  }

  void set(const AdapterKey& key, uint64_t network) {
    if ((used_ + tombstones_ + 1) * 4 > slots_.size() * 3) rehash();
    const size_t mask = slots_.size() - 1;
    Slot* reuse = nullptr;
    for (size_t i = hashOf(key) & mask;; i = (i + 1) & mask) {
      Slot& s = slots_[i];
      if (s.state == kFull && s.key == key) {
        s.network = network;
        return;
      }
      if (s.state == kDeleted && reuse == nullptr) reuse = &s;
      if (s.state == kEmpty) {
        Slot& target = reuse ? *reuse : s;
        if (reuse) --tombstones_;
        target.key = key;
        target.network = network;
        target.state = kFull;
        ++used_;
        return;
      }
    }
  }

  void erase(const AdapterKey& key) {
    if (used_ == 0) return;
    const size_t mask = slots_.size() - 1;
    for (size_t i = hashOf(key) & mask;; i = (i + 1) & mask) {
      Slot& s = slots_[i];
      if (s.state == kEmpty) return;
      if (s.state == kFull && s.key == key) {
        s.state = kDeleted;
        --used_;
        ++tombstones_;
        return;
      }
    }
  }

  // Back to a small empty array, so that a batch of a whole cluster does not
  // leave every later publication clearing a large one.
  void clear() {
    if (used_ == 0 && tombstones_ == 0) return;
    slots_.assign(kInitialSlots, Slot());
    used_ = 0;
    tombstones_ = 0;
  }

 private:
  static constexpr uint8_t kEmpty = 0;
  static constexpr uint8_t kFull = 1;
  static constexpr uint8_t kDeleted = 2;
  static constexpr size_t kInitialSlots = 64;

  struct Slot {
    AdapterKey key{};
    uint64_t network = 0;
    uint8_t state = kEmpty;
  };

  void rehash() {
    size_t capacity = slots_.empty() ? kInitialSlots : slots_.size();
    while ((used_ + 1) * 2 > capacity) capacity *= 2;  // at most half full after
    std::vector<Slot> old(capacity);
    old.swap(slots_);
    used_ = 0;
    tombstones_ = 0;
    for (const Slot& s : old) {
      if (s.state == kFull) set(s.key, s.network);
    }
  }

  std::vector<Slot> slots_;  // a power of two in size, or empty
  size_t used_ = 0;
  size_t tombstones_ = 0;
};

// GUARDED_BY(veltnamSyncLock). Kept by the functions below; a delta table
// changed behind their back shows by its size and is indexed again.
DeltaIndex veltnamDeltaIndex;

size_t deltaRecordCount() {
  size_t n = 0;
  for (const auto& entry : veltnamNetInfoListDelta) n += entry.second->veltnamConnectList.size();
  return n;
}

void reindexDelta() {
  veltnamDeltaIndex.clear();
  for (const auto& entry : veltnamNetInfoListDelta) {
    for (const velt_nam_connect* rec : entry.second->veltnamConnectList) {
      veltnamDeltaIndex.set(AdapterKey(*rec), entry.first);
    }
  }
}

// find_and_update_velt_nam_conn_item with the row's record already built.
bool findAndUpdate(const AMAdapterItem& row, const velt_nam_connect& fresh) {
  veltnamNetInfoList& delta = veltnamNetInfoListDelta;
  if (delta.empty()) {
    AMtracef(AM_TRACEF_DEBUG, "in find_velt_nam_conn_item(), veltnamNetInfoListDelta is empty.\n");
    veltnamDeltaIndex.clear();
    return false;
  }
  if (veltnamDeltaIndex.size() != deltaRecordCount()) reindexDelta();

  // The one network that lists the adapter, if any: the same answer as
  // asking each network in ascending id order.
  const AdapterKey key(fresh);
  const uint64_t* listed = veltnamDeltaIndex.find(key);
  if (listed == nullptr) return false;
  auto network = delta.find(*listed);
  veltnamNetAdaptInfo* holder = network == delta.end() ? nullptr : network->second;
  velt_nam_connect* old = nullptr;
  if (holder) old = find_velt_nam_conn_item(holder->veltnamConnectList, &fresh);
  if (old == nullptr) {
    // Out of date: ask every network, and index the table again.
    holder = nullptr;
    for (auto& entry : delta) {
      old = find_velt_nam_conn_item(entry.second->veltnamConnectList, &fresh);
      if (old != nullptr) {
        holder = entry.second;
        break;
      }
    }
    reindexDelta();
    if (holder == nullptr) return false;
  }

  if (holder->netInfo.network_id == row.networkId64) {
    count_velt_nam_status_change(&holder->netInfo, old->status, fresh.status);
    // Same node and name, so the record keeps its place in the order.
    *old = fresh;
    return true;
  }
  // The adapter moved to another network: the old one loses it.
  holder->netInfo.num_connect--;
  if (old->status == VELT_NAM_CONNECT_UP) holder->netInfo.num_up--;
  if (old->status == VELT_NAM_CONNECT_DOWN) holder->netInfo.num_down--;
  holder->veltnamConnectList.erase(old);
  veltnamDeltaIndex.erase(key);
  return false;
}

void insertRecord(const AMAdapterItem& row, const velt_nam_connect& fresh) {
  if (veltnamNetInfoListDelta.count(row.networkId64) != 0) {
    AMtracef(AM_TRACEF_DEBUG, "in insert_velt_nam_connect_item(), found netid.\n");
  }
  add_velt_nam_conn_item(veltnamNetInfoListDelta, row.networkId64, fresh);
  veltnamDeltaIndex.set(AdapterKey(fresh), row.networkId64);
}

}  // namespace

bool find_and_update_velt_nam_conn_item(AMAdapterItem* row) {
  velt_nam_connect fresh;
  build_velt_nam_conn_item(*row, &fresh);
  return findAndUpdate(*row, fresh);
}

void insert_velt_nam_conn_item(AMAdapterItem* row) {
  velt_nam_connect fresh;
  build_velt_nam_conn_item(*row, &fresh);
  insertRecord(*row, fresh);
}

int accumulate_NAM_change(AMAdapterItem* row) {
  // The gate traces why nothing is accumulated.
  if (!isVELTNAMInterfaceSupported()) return 0;
  std::lock_guard<std::mutex> hold(veltnamSyncLock);
  if (row == nullptr) {
    AMtracef(AM_TRACEF_DEBUG, "in accumulate_NAM_changes(), input adapter=0.\n");
    return 0;
  }
  // The record is built once for both the search and the insertion.
  velt_nam_connect fresh;
  build_velt_nam_conn_item(*row, &fresh);
  if (findAndUpdate(*row, fresh)) {
    AMtracef(AM_TRACEF_DEBUG, "in accumulate_NAM_changes(), updated the adapter info item.\n");
  } else {
    AMtracef(AM_TRACEF_DEBUG, "in accumulate_NAM_changes(), append_velt_nam_conn_item().\n");
    insertRecord(*row, fresh);
  }
  return 0;
}

int reflect_NAM_changes() {
  if (!isVELTNAMInterfaceSupported()) {
    AMtracef(AM_TRACEF_DEBUG, "in reflect_NAM_changes(), VELT-NAM interface is not supported.\n");
    return 0;
  }
  AMtracef(AM_TRACEF_DEBUG, "in reflect_NAM_changes(), call amController()->queueEventToAllNamClients().\n");
  {
    // Held across packing, clearing and waking, so that every session gets
    // the same batch and no change slips between two of them.
    std::lock_guard<std::mutex> hold(veltnamSyncLock);
    if (veltnamNetInfoListDelta.empty()) {
      AMtracef(AM_TRACEF_DEBUG, "In reflect_NAM_changes(), delta table is empty and no need to queue event.\n");
      return 0;
    }
    // Records that came out of order are sorted once, here, for every
    // session's packing.
    put_net_adapter_table_in_order(veltnamNetInfoListDelta);
    AMController* ctl = amController();
    if (ctl) ctl->queueEventToAllNamClients();
    clear_net_adapter_table(veltnamNetInfoListDelta);
    veltnamDeltaIndex.clear();
    if (ctl) ctl->wakeupAllNamClients(VELT_NAM_UPDATE_EVENT);
  }
  AMtracef(AM_TRACEF_DEBUG, "End reflect_NAM_changes().\n");
  return 0;
}

// ------------------------------------------- controller: adapter records

int AMController::insertAdapterItem(AMAdapterItem* row, veltnamNetInfoList& table) {
  if (row == nullptr) return -1;
  add_velt_nam_conn_item(table, *row);
  return 0;
}

int AMController::obtainAdapterInfoFromGlobalTable(veltnamNetInfoList& table, int activeOnly) {
  AMGlobalAdapterTable* adapters = pGAdapterCfgTbl;
  if (adapters == nullptr) return -1;
  GSReadGuard hold(*adapters);
  for (auto& entry : adapters->getAdapterItemList()) {
    AMAdapterItem* row = entry.second;
    if (activeOnly && (!row->isConfiged || row->isNodeStopped)) continue;
    insertAdapterItem(row, table);
  }
  put_net_adapter_table_in_order(table);
  return 0;
}

void AMController::printAdapterInfo() {
  veltnamNetInfoList table;
  if (obtainAdapterInfoFromGlobalTable(table, 0) == 0) dump_veltnam_net_adapter_info(table);
  clear_net_adapter_table(table);
}

// ----------------------------------------------- controller: client list

int AMController::insertNamClient(NAMClient* client) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  if (client) namClientArray.push_back(client);
  return static_cast<int>(namClientArray.size());
}

int AMController::removeNamClient(NAMClient* client) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  namClientArray.remove(client);
  return static_cast<int>(namClientArray.size());
}

NAMClient* AMController::findNamClient(int sock) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  for (NAMClient* c : namClientArray) {
    if (c && c->sock_fd.load() == sock) return c;
  }
  return nullptr;
}

int AMController::getNumberOfClients() {
  std::lock_guard<std::mutex> hold(namClientLock_);
  return static_cast<int>(namClientArray.size());
}

int AMController::collectAndBuildPollFDs(struct pollfd* fds, int capacity) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  int n = 0;
  for (NAMClient* c : namClientArray) {
    if (n >= capacity) break;
    if (c == nullptr) continue;
    fds[n].fd = c->sock_fd.load();
    fds[n].events = POLLIN;
    fds[n].revents = 0;
    ++n;
  }
  return n;
}

void AMController::wakeupAllNamClients(int event) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  for (NAMClient* c : namClientArray) {
    if (c) c->wakeup(event);
  }
}

void AMController::wakeupTheClient(int sock, int event) {
  std::lock_guard<std::mutex> hold(namClientLock_);
  for (NAMClient* c : namClientArray) {
    if (c && c->sock_fd.load() == sock) {
      c->wakeup(event);
      return;
    }
  }
}

void AMController::queueEventToAllNamClients() {
  AMtracef(AM_TRACEF_DEBUG, "queueToAllNamClients() begin");
  std::lock_guard<std::mutex> hold(namClientLock_);
  int queued = 0;
  for (NAMClient* c : namClientArray) {
    if (c == nullptr) continue;
    c->queueEvent();
    ++queued;
  }
  AMtracef(AM_TRACEF_DEBUG, "queueToAllNamClients() end -%d", queued);
}

// ------------------------------------------------------ NAM device state

int register_NAM() {
  pthread_mutex_lock(&namSyncLock);
  int fd = namfd;
  pthread_mutex_unlock(&namSyncLock);
  return fd;
}

void namSyncCleanup(void* arg) { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(arg)); }

int already_NAM_registered() {
  int registered;
  pthread_mutex_lock(&namSyncLock);
  pthread_cleanup_push(namSyncCleanup, &namSyncLock);
  registered = namRegistered;
  pthread_cleanup_pop(1);
  return registered;
}

void enable_disable_NAM_interface(int enable) {
  pthread_mutex_lock(&namSyncLock);
  namAPIenabled = enable;
  pthread_mutex_unlock(&namSyncLock);
  AMtracef(AM_TRACEF_DEBUG, "NAM API is %s\n", enable ? "enabled" : "disabled");
}

void set_NAM_node_number(int node) {
  pthread_mutex_lock(&namSyncLock);
  namNodeNumber = node;
  pthread_mutex_unlock(&namSyncLock);
}

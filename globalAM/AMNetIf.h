// The global adapter table: the daemon's one picture of every switch and
// InfiniBand adapter of the cluster (which exist, which are up, which nodes
// are stopped, which downs are still held back), with the node-id map that
// turns a node's 64-bit cluster id into its node number.
//
// Lock order, followed by every path of the daemon:
//   1. nodemap_lock (the node-id map below),
//   2. the table's read/write lock (AMGlobalAdapterTable, a GSLockableObject),
//   3. veltnamSyncLock (the delta table of the client interface),
//   4. the controller's client-list lock (namClientLock_),
//   5. a client session's event-queue mutex.
// A thread may skip levels but never takes a lock of a lower number while it
// holds one of a higher number.
#ifndef VELT_GLOBALAM_AMNETIF_H_
#define VELT_GLOBALAM_AMNETIF_H_

#include <stdint.h>
#include <sys/time.h>

#include <atomic>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "common.h"

typedef uint32_t vx_uint32_t;
typedef int32_t vx_int32_t;

// Truth values of the table's yes/no answers.
constexpr int gkFALSE = 0;
constexpr int gkTRUE = 1;

// Widths of the character fields of an adapter.
constexpr int kAMIfNameLength = 16;
constexpr int kAMHardwareAddressLength = 60;

// One adapter as KOR or the local interface scan reports it: an input
// record, copied by value. Thread-compatible.
struct AMNetInterface {
  char ifrName[kAMIfNameLength];      // interface name, NUL-terminated
  char deviceName[kAMIfNameLength];   // device name
  vx_uint32_t ipaddr;                 // IPv4 address, network byte order
  int family;                         // address family
  int nodeNumber;                     // node that holds the adapter
  vx_uint32_t adapterType;            // device subtype ("DeviceSubType")
  vx_int32_t adapterLID;              // switch logical id ("LogicalID")
  vx_uint32_t adapterNetworkID;       // 32-bit network number ("NetworkID")
  int up_running;                     // up and running (local scan only)
  uint64_t networkId64;               // 64-bit network id ("NetworkID64")
  uint8_t spigot_id;                  // port number ("PortID")
  char hardwareAddress[kAMHardwareAddressLength];  // hardware address text
  char devicePathName[kAMIfNameLength];            // device path name
};

// A list of reported adapters. ifList is allocated with new[] by whoever
// fills the list and released by freeNetInterfaceList or the destructor.
// Thread-compatible.
struct AMNetInterfaceList {
  AMNetInterfaceList() = default;
  ~AMNetInterfaceList() { delete[] ifList; }
  AMNetInterfaceList(const AMNetInterfaceList&) = delete;
  AMNetInterfaceList& operator=(const AMNetInterfaceList&) = delete;

  int count = 0;
  AMNetInterface* ifList = nullptr;
};

// One row of the table: an adapter of one node at one adapter index, with
// the four facts that decide what clients see (defined, member of its
// group, node stopped, down held back). Rows belong to the table and are
// read and written under its lock. Thread-compatible.
class AMAdapterItem {
 public:
  AMAdapterItem() { clear(); }

  // Back to the empty row: no name, node -1, LID -1, every flag clear.
  void clear();
  // Copies the adapter's configuration fields; the flags, when_happen,
  // family and up_running are left alone.
  void updateWith(const AMNetInterface& obj);

  char interfacename[kAMIfNameLength];
  GSString devicename;
  vx_uint32_t ipaddr;
  int nodenumber;
  int networkid;
  int LID;
  unsigned isConfiged : 1;     // defined in the cluster configuration
  unsigned isUp : 1;           // member of its membership group
  unsigned isNodeStopped : 1;  // its node's daemon has stopped
  unsigned isPending : 1;      // a down is held back by the delay
  struct timeval when_happen;  // last up/down change, half-second clock
  uint64_t networkId64;
  uint32_t adapterType;
  uint8_t spigot_id;
  char hardwareAddress[kAMHardwareAddressLength];
  char devicePathName[kAMIfNameLength];
};

// Rows by key (node x MaxAdaptersOnNode + adapter index), in key order.
typedef std::map<uint32_t, AMAdapterItem*> AdapterItemCollection;

// The table. Its GSLockableObject base is the one reader/writer lock that
// guards the row map and every row; the write holder may take it again, as
// a held-back down does. Methods ending in WithLock take the lock, those
// ending in WithoutLock (and the lookups) expect the caller to hold it.
// Thread-safe through that lock; created once by the controller and kept
// until the process exits.
class AMGlobalAdapterTable : public GSLockableObject {
 public:
  AMGlobalAdapterTable();
  ~AMGlobalAdapterTable() override;
  AMGlobalAdapterTable(const AMGlobalAdapterTable&) = delete;
  AMGlobalAdapterTable& operator=(const AMGlobalAdapterTable&) = delete;

  // Lookups; the caller holds the lock.
  static int offsetOfAdapterItem(int node, int intf_idx) { return node * MaxAdaptersOnNode + intf_idx; }
  AMAdapterItem* locateAdapterItem(int node, int intf_idx);
  AMAdapterItem* locateAdapterItemByIndex(int ofs);
  // The row, created (cleared, with its node number) on first mention.
  AMAdapterItem* getOrNewAdapterItem(int node, int intf_idx);
  int getAdapterItemCount() const { return static_cast<int>(pAdapterItemList.size()); }
  AdapterItemCollection& getAdapterItemList() { return pAdapterItemList; }
  int isHarvested() const { return is_ever_harvested; }
  // Makes the table one never harvested again; takes the write lock. For
  // tests.
  void forgetHarvestForTesting();
  bool IsThereADelayedDownEvent() const { return n_pending_downs.load() > 0; }
  // The switch device numbers are not looked up: always -1.
  int getSXNDeviceNum(const char* name);
  // gkTRUE when a configured row belongs to the network (by networkId64 in
  // an InfiniBand environment, else by the 32-bit number).
  int AdapterConfiguredOnNetwork(int network, uint64_t network64);
  // The highest network number of a configured switch row, or -1 when no
  // switch adapter is configured. Takes the read lock, which nests under
  // any hold the caller already has. Kept by the table as rows are defined
  // and undefined, so that asking costs no walk over the rows.
  int highestSwitchNetworkWithLock();
  // Puts the row on another network as a change behind the mediators' back
  // would, keeping the table's own count of switch networks true. Requires:
  // the write lock held. For tests.
  void setRowNetworkForTesting(AMAdapterItem* row, int networkid);
  // gkFALSE only when the row is configured and holds exactly obj's
  // attributes.
  int adapterAttributeChanged(const AMNetInterface& obj, AMAdapterItem* item);

  // State setters: 1 when some row changed, else 0. Each change of what a
  // client sees is announced to the change accumulator; publishing it is
  // reflect_NAM_changes, done where a method says so.
  int setAdapterDefinedWithoutLock(const AMNetInterface& obj);
  int setAdapterDefinedWithLock(const AMNetInterface& obj);
  int setAdapterUndefinedWithoutLock(int nodenum, const char* ifname);
  int setAllAdapterUndefinedOrDownOnNodeWithoutLock(int nodenum, int is_undef);
  int setAllAdapterUndefinedOnNodeWithLock(int nodenum);
  int setAllAdapterStoppedOnNodeWithLock(int nodenum);
  // Requires: the write lock held. Always 0.
  int resetIsNodeStoppedBit(int nodenum);
  // Applies an up (isUp 1) or a down for every provider of the list; the
  // provider's instance number is the adapter index. Publishes when reflect
  // is non-zero. 0 for an empty list, else 1.
  int updateAdapterStateWithLock(int isUp, const tk_gs_membership_t* members, int reflect);
  int repopulateAllNAMInfoWithLock();
  // Rescans this node's interfaces and defines or updates its switch
  // adapters; an interface that vanished keeps its row. Returns how many
  // rows changed.
  int refreshLocalTable(int auto_reflect);
  // 0 when some adapter of this node is configured, 2 when none is.
  int checkRawDevices();

  // KOR harvests (cluster domain type only), each through a private
  // session of its own. harvestGblPeerNodes brings the node-id map in step
  // with "Zel.PeerNode"; harvestGblNetworkInterfaces defines every
  // interface of "Zel.NetworkInterface", undefines the rows it no longer
  // reports, publishes, marks the table harvested and wakes the workers.
  // Both return the number of changes, or -1 when KOR failed (the table is
  // then left as it was). tracing asks for the begin and end lines. Take
  // the table lock themselves: call them without it.
  int harvestGblPeerNodes(int tracing);
  int harvestGblNetworkInterfaces(int tracing);

  // Delayed downs: the propagator waits computeNextWaitTime's time-out and
  // then calls processDelayedDownEvents, which announces every down whose
  // delay has run out and returns how many are still held back.
  void postDelalyedDownEventAt(struct timeval* t);
  int computeNextWaitTime(struct timeval* out);
  int processDelayedDownEvents();

  // Set when the local scan found a switch adapter. Written under the
  // write lock; read it under the lock.
  bool hasSwitchOnTheNode;

 private:
  void clear_pAdapterItemList();
  // The count below without the row, or with it as it stands now: called
  // before and after every change of a row's definition, name or network.
  // Requires: the write lock held.
  void forgetSwitchRowWithoutLock(const AMAdapterItem& row);
  void countSwitchRowWithoutLock(const AMAdapterItem& row);

  AdapterItemCollection pAdapterItemList;  // GUARDED_BY(this)
  // The rows whose down was held back, with their keys: a superset of the
  // rows pending (another path may have ended one's wait), so that the
  // delayed downs are found without a walk over every adapter of the
  // cluster.
  std::vector<std::pair<uint32_t, AMAdapterItem*>> heldDownRows_;  // GUARDED_BY(this)
  // The rows again, for lookups without a walk down the map: one block of
  // MaxAdaptersOnNode pointers per MaxAdaptersOnNode keys (a node's row
  // keys) that hold a row. Keys from kIndexedRowKeys on (node numbers past
  // those a membership can name) are looked up in the map alone, so that
  // no input makes the blocks' array larger than 64 Ki entries.
  static constexpr uint32_t kIndexedRowKeys = 65536u * MaxAdaptersOnNode;
  std::vector<std::unique_ptr<AMAdapterItem*[]>> rowBlocks_;  // GUARDED_BY(this)
  // The number of configured switch rows on each network number: its
  // highest key is the highest switch network, which a full membership asks
  // for once per local adapter.
  std::map<int, int> switchRowsByNetwork_;  // GUARDED_BY(this)
  // The two delayed-down counters are written under the write lock but read
  // by computeNextWaitTime without it, so they are atomic; the earliest
  // time is kept in microseconds of the half-second clock.
  std::atomic<int> n_pending_downs;
  std::atomic<int64_t> earliest_down_event_time;
  int is_ever_harvested;  // GUARDED_BY(this)
  [[maybe_unused]] int* pDevNums;  // the switch device numbers: not used; null
};

// Node-id map: node number -> 64-bit cluster node id (0 = no node), guarded
// by nodemap_lock, which is taken before the table lock.
void clearNodeIdMappings();
// Records nodeid for node; an id that moves to another node number first
// undefines every adapter of its old number. Nodes above 32000 are refused.
// Returns 1 when the map changed.
int setNodeIdMap(int node, uint64_t nodeid);
int resetNodeIdMap(int node);
// The node that holds nodeid, or -1 (also for 0).
int getNodeNumFromNodeId(uint64_t nodeid);
// Slots of the map (0 before the first node); for tests.
int nodeIdMapCapacityForTesting();
// Frees the map back to no slots; for tests.
void resetNodeIdMapForTesting();

#endif  // VELT_GLOBALAM_AMNETIF_H_

// The client interface's per-network adapter tables: a map from 64-bit
// network id to the network's record, each holding its counts and the
// adapter records (velt_nam_connect) built from rows of the global adapter
// table. The process-wide delta table of sw_NAM_calls.h and the full table
// a new client receives are both of this shape.
#ifndef VELT_GLOBALAM_VELTNAM_UTILS_H_
#define VELT_GLOBALAM_VELTNAM_UTILS_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "velt_nam.h"

class AMAdapterItem;

// Orders adapter records by node number (unsigned), then by interface name
// (strcmp). Two records with the same node and name are the same adapter;
// nothing else takes part in the key.
struct compareAdaptInfo {
  bool operator()(const velt_nam_connect* a, const velt_nam_connect* b) const {
    if (a->node_number != b->node_number) return a->node_number < b->node_number;
    return strncmp(a->interface_name, b->interface_name, sizeof a->interface_name) < 0;
  }
};

// A hash of an adapter's key (node number and interface name, as far as its
// NUL), for the tables that find records by adapter.
size_t hashOfAdapter(uint32_t node, const char (&name)[sizeof(velt_nam_connect::interface_name)]);

// A network's adapter records, one per adapter, read in compareAdaptInfo's
// order. They are held by value in one array: a record that comes in order
// is appended; one that does not is appended as well and the array is
// sorted once, when it is next read, so that a whole cluster's list in any
// order costs one sort rather than a tree node and an allocation per record.
// Records are found by binary search while the array is in order, by a
// short walk over their node's records while only the nodes are in order
// (rows come node by node, but a node's names, "sxn10" before "sxn2", not
// always in name order), and otherwise through an index of their positions
// (open addressing in one array). Iterating yields pointers to the records,
// valid until the set changes. Thread-compatible; as reading may sort,
// readers serialise with writers (the owner of the table sees to both).
class veltnamConnectSet {
 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = velt_nam_connect*;
    using difference_type = ptrdiff_t;
    using pointer = velt_nam_connect* const*;
    using reference = velt_nam_connect*;

    explicit const_iterator(velt_nam_connect* at = nullptr) : at_(at) {}
    velt_nam_connect* operator*() const { return at_; }
    const_iterator& operator++() {
      ++at_;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator was = *this;
      ++at_;
      return was;
    }
    bool operator==(const const_iterator& o) const { return at_ == o.at_; }
    bool operator!=(const const_iterator& o) const { return at_ != o.at_; }

   private:
    velt_nam_connect* at_;
  };

  size_t size() const { return records_.size(); }
  bool empty() const { return records_.empty(); }
  // Both put the records in order first.
  const_iterator begin() const;
  const_iterator end() const;
  // Sorts the records now, if they are out of order.
  void putInOrder() const;

  // The record of probe's adapter, or null.
  velt_nam_connect* find(const velt_nam_connect& probe);
  // Adds a copy of rec and answers it with true; when the adapter is held
  // already, answers its record with false and adds nothing.
  std::pair<velt_nam_connect*, bool> insert(const velt_nam_connect& rec);
  // Removes a record that find or insert answered.
  void erase(velt_nam_connect* rec);

 private:
  struct Slot {
    uint32_t position;  // in records_, plus one; 0 for a free slot
    uint32_t hash;
  };
  enum class Order {
    kSorted,          // in compareAdaptInfo's order
    kNodesAscending,  // node numbers never fall; names within a node in any order
    kNone,
  };
  // A node with more records than this in one set is not walked: the
  // index finds them instead.
  static constexpr size_t kNodeWalkLimit = 64;

  static uint32_t hashOf(const velt_nam_connect& rec);
  velt_nam_connect* findInNode(const velt_nam_connect& probe);
  velt_nam_connect* findInIndex(const velt_nam_connect& probe);
  // Sizes the index for records_.size() + spare records and fills it.
  void buildIndex(size_t spare);
  Slot* indexSlotOf(uint32_t position);
  void indexRemove(Slot* slot);

  mutable std::vector<velt_nam_connect> records_;
  mutable Order order_ = Order::kSorted;
  // Empty unless order_ is kNone; then a power of two in size and at most
  // half full once built (when a record is first looked for).
  mutable std::vector<Slot> index_;
};

// One network of a table: its counts and its adapter records.
// Thread-compatible: the table that holds it is guarded by its owner.
class veltnamNetAdaptInfo {
 public:
  explicit veltnamNetAdaptInfo(uint64_t network_id);
  virtual ~veltnamNetAdaptInfo();
  veltnamNetAdaptInfo(const veltnamNetAdaptInfo&) = delete;
  veltnamNetAdaptInfo& operator=(const veltnamNetAdaptInfo&) = delete;

  velt_nam_connect_net_info netInfo;
  veltnamConnectSet veltnamConnectList;
};

// Networks by id, ascending; the records are owned.
typedef std::map<uint64_t, veltnamNetAdaptInfo*> veltnamNetInfoList;

// What a client sees of a row: UP when configured, its node running and
// up or its down held back for the down delay; DOWN when configured, its
// node running and down; UNCONFIG otherwise.
velt_nam_connect_status_t velt_nam_status_of(const AMAdapterItem& row);

// Fills rec (all 88 bytes) from a row of the adapter table.
void build_velt_nam_conn_item(const AMAdapterItem& row, velt_nam_connect* rec);

// The InfiniBand GID of a hardware address text: pairs of hexadecimal
// digits, optionally separated by ':' (a ':' as the very first character
// gives a zero byte). Reads at most 40 characters and fills at most 20
// bytes of gid, which the caller has zeroed; *length gets the number of
// bytes produced (0 for adapter type 0).
void convert_hardware_address_to_gid(uint32_t adapterType, uint8_t* gid, const char* hwaddr,
                                     uint16_t* length);

// Moves a network's counts from an adapter's old status to its new one
// (num_connect is not touched).
void count_velt_nam_status_change(velt_nam_connect_net_info* info, uint8_t old_status, uint8_t new_status);

// Adds the row's record under its network (networkId64), creating the
// network when needed: num_connect +1 and num_up or num_down +1 by its
// status. A record for the same adapter already in that network is replaced
// and the counts moved from its status instead, so that the counts always
// describe the records held.
void add_velt_nam_conn_item(veltnamNetInfoList& table, const AMAdapterItem& row);
// The same for a record already built.
void add_velt_nam_conn_item(veltnamNetInfoList& table, uint64_t network_id, const velt_nam_connect& rec);

// The adapter's record in a network's set, or null.
velt_nam_connect* find_velt_nam_conn_item(veltnamConnectSet& records, const velt_nam_connect* probe);

// Sorts every network's records that are out of order, so that the cost is
// paid where the table is made rather than by whoever reads it first.
void put_net_adapter_table_in_order(const veltnamNetInfoList& table);

// Deletes every network (and with it every record) and empties the table.
void clear_net_adapter_table(veltnamNetInfoList& table);

// Traces every network and record of the table at TRACE_FYI.
void dump_veltnam_net_adapter_info(const veltnamNetInfoList& table);

// When the client tables were last changed: month, day and time of day (15
// characters of ctime after the weekday) and a NUL. Callers serialise.
extern char timeOfveltnamNetInfoUpdated[16];
// Refreshes timeOfveltnamNetInfoUpdated from the wall clock.
void getTimeUpdated();
// Refreshes it and returns it.
const char* writeTimeUpdated();

#endif  // VELT_GLOBALAM_VELTNAM_UTILS_H_

// The client interface's per-network adapter tables: a map from 64-bit
// network id to the network's record, each holding its counts and the
// adapter records (velt_nam_connect) built from rows of the global adapter
// table. The process-wide delta table of sw_NAM_calls.h and the full table
// a new client receives are both of this shape.
#ifndef VELT_GLOBALAM_VELTNAM_UTILS_H_
#define VELT_GLOBALAM_VELTNAM_UTILS_H_

#include <stdint.h>
#include <string.h>

#include <map>
#include <set>

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

typedef std::set<velt_nam_connect*, compareAdaptInfo> veltnamConnectSet;

// One network of a table: its counts and its adapter records, which it owns.
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
// The same for a record already built (the table takes it over).
void add_velt_nam_conn_item(veltnamNetInfoList& table, uint64_t network_id, velt_nam_connect* rec);

// The adapter's record in a network's set, or end(). A record outside the
// set's first..last range is not looked for, which makes asking every
// network for an adapter that is in none of them cheap.
veltnamConnectSet::iterator find_velt_nam_conn_item(veltnamConnectSet& records, const velt_nam_connect* probe);

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

// The client's copy of the daemon's adapter table, and the checks every
// message body from the daemon passes before it may change that copy.
#ifndef VELT_NAM_INTERNAL_NAM_TABLE_H_
#define VELT_NAM_INTERNAL_NAM_TABLE_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "velt_nam.h"
#include "velt_nam_api.h"

namespace velt {
namespace nam {
namespace internal {

// The limits the table holds the daemon to: what the daemon announced in
// its init answer, but never more than the library's own ceiling, so that a
// daemon cannot talk us into allocating more than the real limits need.
struct Limits {
  uint32_t maxNetworks = VELT_NAM_MAX_NETWORKS;
  uint32_t maxAdapters = VELT_NAM_MAX_ADAPTER_INFO;
};

// Sets *why and returns VELT_NAM_READSOCK_ERROR, the code for anything
// the daemon should not have sent.
int refuseMessage(std::string* why, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The body length of an update with the given numbers of networks and
// adapter records, the 4 zero bytes that end every update included.
uint64_t updateBodyLength(uint64_t networks, uint64_t adapters);

// An adapter: node number, then interface name. The daemon orders records
// this way (unsigned node numbers, then strcmp of the names), and nothing
// else takes part in an adapter's identity. The name is kept up to its
// first NUL and zero-filled after it, so that comparing all its bytes
// orders keys as strcmp would and a whole cluster's table is keyed without
// a string comparison per step.
struct AdapterKey {
  uint32_t node;
  char name[sizeof(velt_nam_connect{}.interface_name)];
  static_assert(sizeof(velt_nam_connect{}.interface_name) == 16, "names are compared as two 8-byte words");

  AdapterKey() : node(0), name{} {}
  explicit AdapterKey(const velt_nam_connect& rec) : node(rec.node_number) {
    size_t length = strnlen(rec.interface_name, sizeof name);
    memcpy(name, rec.interface_name, length);
    memset(name + length, 0, sizeof name - length);
  }
  bool operator<(const AdapterKey& other) const {
    if (node != other.node) return node < other.node;
    // The name's bytes in order, 8 at a time, as big-endian numbers.
    uint64_t a = nameWord(0), b = other.nameWord(0);
    if (a != b) return a < b;
    return nameWord(1) < other.nameWord(1);
  }
  bool operator==(const AdapterKey& other) const {
    return node == other.node && nameWord(0) == other.nameWord(0) && nameWord(1) == other.nameWord(1);
  }

 private:
  uint64_t nameWord(int i) const {
    uint64_t w;
    memcpy(&w, name + 8 * i, sizeof w);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    return w;
  }
};

// The table a session keeps: networks in ascending id, each with its
// adapter records in AdapterKey order. An adapter belongs to one network at
// a time; when an update lists it under another network, it has moved, and
// a network left without adapters is dropped, as a new session's full table
// would not have it. An update is taken in the pieces the socket delivers:
// each piece is checked and its records staged as it arrives, so that a
// whole cluster's table is mostly read by the time its last byte comes; the
// table itself changes only when the whole update has passed.
// Thread-compatible (the session serialises).
class AdapterTable {
 public:
  // The daemon's init answer. VELT_NAM_OK, or VELT_NAM_READSOCK_ERROR with
  // the reason in *why.
  int applyInit(const uint8_t* body, size_t length, std::string* why);

  // An update body of length bytes (a length its header announced and
  // maxUpdateBodyLength allows) is begun, given in pieces with takeUpdate,
  // and finished when all of it was given. Each returns VELT_NAM_OK, or
  // VELT_NAM_READSOCK_ERROR with the reason in *why, after which the update
  // is dropped. Only finishUpdate changes the table: it works out the merge
  // against the limits, then changes the table and raises mod_seq_num by
  // one. On an error the table is as it was.
  int beginUpdate(size_t length, std::string* why);
  int takeUpdate(const uint8_t* data, size_t n, std::string* why);
  int finishUpdate(std::string* why);
  // The three at once, for a body that is whole.
  int applyUpdate(const uint8_t* body, size_t length, std::string* why);

  bool hasConfig() const { return hasConfig_; }
  const velt_nam_daemon_config& daemonConfig() const { return config_; }
  const Limits& limits() const { return limits_; }
  // The longest update body the limits allow.
  uint64_t maxUpdateBodyLength() const;
  int modSeqNum() const { return modSeqNum_; }
  size_t adapterCount() const { return adapterCount_; }

  // Copies for the caller, each one block from malloc; null when memory
  // runs out. node: a node number or VELT_NAM_ALL_NODES.
  velt_nam_net_info* copyNetInfo() const;
  velt_nam_node_adap_info* copyNodeAdapInfo(int node) const;

  struct Entry {
    AdapterKey key;
    velt_nam_connect record;
  };
  struct Network {
    uint64_t id;
    std::vector<Entry> entries;  // ascending keys, each once
  };

 private:
  // An update's network as it arrived: its records in the update's order.
  struct StagedNetwork {
    uint64_t id;
    std::vector<Entry> entries;
    bool ascending = true;  // each key above the one before it
  };
  enum class Part { kCounts, kNetwork, kRecord, kRest };

  int takeField(const uint8_t* field, std::string* why);
  int takeCounts(const uint8_t* field, std::string* why);
  int takeNetwork(const uint8_t* field, std::string* why);
  int takeRecord(const uint8_t* field, std::string* why);
  int dropUpdate(int rc);
  bool stagedIsAWholeTable() const;
  int mergeStaged(std::string* why);

  bool hasConfig_ = false;
  velt_nam_daemon_config config_{};
  Limits limits_;
  int modSeqNum_ = 0;
  std::vector<Network> networks_;
  size_t adapterCount_ = 0;

  // The update under way.
  size_t updateLength_ = 0;
  size_t updateHave_ = 0;
  Part part_ = Part::kCounts;
  velt_nam_daemon_update_msg counts_{};
  int32_t networksLeft_ = 0;
  uint32_t adaptersLeft_ = 0;
  uint32_t recordsLeft_ = 0;  // of the network under way
  std::vector<StagedNetwork> staged_;
  // A field split between pieces.
  uint8_t field_[sizeof(velt_nam_connect)];
  size_t fieldHave_ = 0;
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_TABLE_H_

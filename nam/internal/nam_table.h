// The client's copy of the daemon's adapter table, and the checks every
// message body from the daemon passes before it may change that copy.
#ifndef VELT_NAM_INTERNAL_NAM_TABLE_H_
#define VELT_NAM_INTERNAL_NAM_TABLE_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <map>
#include <string>
#include <unordered_map>
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

  explicit AdapterKey(const velt_nam_connect& rec) : node(rec.node_number) {
    size_t length = strnlen(rec.interface_name, sizeof name);
    memcpy(name, rec.interface_name, length);
    memset(name + length, 0, sizeof name - length);
  }
  bool operator<(const AdapterKey& other) const {
    if (node != other.node) return node < other.node;
    return memcmp(name, other.name, sizeof name) < 0;
  }
  bool operator==(const AdapterKey& other) const {
    return node == other.node && memcmp(name, other.name, sizeof name) == 0;
  }
};

struct AdapterKeyHash {
  size_t operator()(const AdapterKey& key) const {
    uint64_t h = 1469598103934665603ull ^ key.node;  // FNV-1a
    for (char c : key.name) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    return static_cast<size_t>(h ^ (h >> 29));
  }
};

// The table a session keeps: networks by id, each with its adapter records
// by AdapterKey. An adapter belongs to one network at a time; when an update
// lists it under another network, it has moved, and a network left without
// adapters is dropped, as a new session's full table would not have it.
// Thread-compatible (the session serialises).
class AdapterTable {
 public:
  // The daemon's init answer. VELT_NAM_OK, or VELT_NAM_READSOCK_ERROR with
  // the reason in *why.
  int applyInit(const uint8_t* body, size_t length, std::string* why);

  // One update body. The whole body is checked first, and the merge
  // worked out against the limits; only then is the table changed and
  // mod_seq_num raised by one. On VELT_NAM_READSOCK_ERROR (*why) the table
  // is as it was.
  int applyUpdate(const uint8_t* body, size_t length, std::string* why);

  bool hasConfig() const { return hasConfig_; }
  const velt_nam_daemon_config& daemonConfig() const { return config_; }
  const Limits& limits() const { return limits_; }
  // The longest update body the limits allow.
  uint64_t maxUpdateBodyLength() const;
  int modSeqNum() const { return modSeqNum_; }
  size_t adapterCount() const { return networkOf_.size(); }

  // Copies for the caller, each one block from malloc; null when memory
  // runs out. node: a node number or VELT_NAM_ALL_NODES.
  velt_nam_net_info* copyNetInfo() const;
  velt_nam_node_adap_info* copyNodeAdapInfo(int node) const;

 private:
  typedef std::map<AdapterKey, velt_nam_connect> Records;
  struct Incoming {
    uint64_t networkId;
    velt_nam_connect record;
  };

  int parseUpdate(const uint8_t* body, size_t length, std::vector<Incoming>* out,
                  std::string* why) const;
  int checkMergeLimits(const std::vector<Incoming>& incoming, std::string* why) const;

  bool hasConfig_ = false;
  velt_nam_daemon_config config_{};
  Limits limits_;
  int modSeqNum_ = 0;
  std::map<uint64_t, Records> networks_;
  // Which network each adapter is in; looked up once per record of every
  // update, so hashed.
  std::unordered_map<AdapterKey, uint64_t, AdapterKeyHash> networkOf_;
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_TABLE_H_

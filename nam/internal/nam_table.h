// The client's copy of the daemon's adapter table, and the checks every
// message body from the daemon passes before it may change that copy.
#ifndef VELT_NAM_INTERNAL_NAM_TABLE_H_
#define VELT_NAM_INTERNAL_NAM_TABLE_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <map>
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
// else takes part in an adapter's identity.
struct AdapterKey {
  uint32_t node;
  char name[sizeof(velt_nam_connect{}.interface_name)];

  explicit AdapterKey(const velt_nam_connect& rec) : node(rec.node_number) {
    memcpy(name, rec.interface_name, sizeof name);
  }
  bool operator<(const AdapterKey& other) const {
    if (node != other.node) return node < other.node;
    return strncmp(name, other.name, sizeof name) < 0;
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
  // Which network each adapter is in.
  std::map<AdapterKey, uint64_t> networkOf_;
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_TABLE_H_

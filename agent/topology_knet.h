// KnetLinkMonitor: the state of this node's knet links as corosync sees
// them, for the liveness of the adapters they run over. It asks libcfg for
// the link status of the view's other nodes (a link is connected when it
// reaches at least one of them) and learns each link's local address from
// that status or, for links no peer reports, from cmap's nodelist
// (nodelist.node.X.ringY_addr of this node). Calls are synchronous IPC to
// the local corosync; the owner calls poll() on a timer. Owned by the
// agent's event loop thread.
#ifndef VELT_AGENT_TOPOLOGY_KNET_H_
#define VELT_AGENT_TOPOLOGY_KNET_H_

#include <stdint.h>

#include <array>
#include <string>
#include <vector>

#include "topology.h"

namespace velt {
namespace agent {

// corosync's most links per node (CFG_MAX_LINKS).
constexpr uint32_t kMaxKnetLinks = 8;

// What one peer's status says about each link of this node.
struct PeerLinkStatus {
  bool enabled = false;
  bool connected = false;
  std::string localAddress;  // 4 bytes; empty when the status names none
};
using PeerLinks = std::array<PeerLinkStatus, kMaxKnetLinks>;

// This node's links from its nodelist addresses (4 bytes each, empty when
// unknown) and its peers' status: a link reaches another node when at
// least one peer shows it connected, and a peer's status names the link's
// local address when the nodelist does not. Links without an address are
// left out. Pure.
std::vector<AdapterTracker::LinkState> combineLinkStatus(
    const std::array<std::string, kMaxKnetLinks>& nodelist, const std::vector<PeerLinks>& peers);

class KnetLinkMonitor {
 public:
  static constexpr uint32_t kMaxLinks = kMaxKnetLinks;

  KnetLinkMonitor() = default;
  ~KnetLinkMonitor();
  KnetLinkMonitor(const KnetLinkMonitor&) = delete;
  KnetLinkMonitor& operator=(const KnetLinkMonitor&) = delete;

  // The links of self (the corosync node id) and whether each reaches one
  // of others. Connects to corosync first when not connected. Returns 0,
  // or -1 with *why set (corosync unreachable: the next call tries again).
  int poll(uint32_t self, const std::vector<uint32_t>& others,
           std::vector<AdapterTracker::LinkState>* out, std::string* why);
  // This node's links towards peer, as corosync reports them. Returns 0,
  // 1 when corosync knows no such node (yet), or -1 with *why set.
  int peerLinks(uint32_t self, uint32_t peer, PeerLinks* out, std::string* why);
  bool connected() const { return connected_; }
  void disconnect();

 private:
  int connect(uint32_t self, std::string* why);
  // Reads this node's ring addresses from the nodelist.
  void readNodelist(uint32_t self);

  bool connected_ = false;
  uint64_t cfg_ = 0;   // corosync_cfg_handle_t
  uint64_t cmap_ = 0;  // cmap_handle_t
  // Local address of each link (4 bytes), from the nodelist; empty when
  // unknown or not a numeric IPv4 address.
  std::array<std::string, kMaxLinks> ringAddress_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_TOPOLOGY_KNET_H_

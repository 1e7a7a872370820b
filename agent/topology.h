// The topology of this node: which of its interfaces are adapters (an
// interface with an IPv4 address that the agent watches), their index on
// the node, the networks they are on, and whether each is alive. The
// classes here hold facts and apply the rules; they make no system calls,
// so that tests drive them directly. The kernel's facts come from
// InterfaceWatcher (rtnetlink), the cluster's from KnetLinkMonitor (knet
// link status), both through TopologyWatch.
#ifndef VELT_AGENT_TOPOLOGY_H_
#define VELT_AGENT_TOPOLOGY_H_

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "velt.pb.h"

namespace velt {
namespace agent {

// Which interfaces the agent watches (the --interfaces setting): a
// comma-separated list of names or shell patterns ("sxn0,sxn1", "sxn*,ib*"),
// "none" for no interface at all, or nothing for the default, every
// interface. Loopback interfaces are never adapters, whatever is asked.
// Plain data (thread-compatible).
class InterfaceFilter {
 public:
  // Entries and their length are bounded: the setting comes from outside.
  static constexpr size_t kMaxEntries = 64;
  static constexpr size_t kMaxEntryBytes = 64;

  // The default: every interface.
  InterfaceFilter() = default;
  // Returns false with *error set when text is not a setting we accept.
  static bool parse(const std::string& text, InterfaceFilter* out, std::string* error);

  // Never for a name that is not UTF-8 (it could not travel to the other
  // agents).
  bool matches(const std::string& name) const;
  // For the log: "every interface", "no interface", "sxn0,sxn1".
  std::string describe() const;

 private:
  bool all_ = true;
  std::vector<std::string> patterns_;  // empty with all_ false: none
};

// The network type an adapter's interface name tells: "switch" for sxn*,
// "ib" for ib*, "ethernet" for anything else. The network name is the
// interface name itself: every node's sxn0 is on network "sxn0".
std::string networkTypeOf(const std::string& interfaceName);

// What decides whether one adapter is alive.
struct AdapterFacts {
  bool up = false;             // the interface is administratively up (IFF_UP)
  bool running = false;        // and has its carrier (IFF_RUNNING)
  bool carriesLink = false;    // a knet link runs over this adapter's address
  bool linkConnected = false;  // that link reaches at least one other node of the view
  bool aloneInView = true;     // this node is the only member of its view
};

// The liveness rule. An adapter is alive while its interface is up and
// running and, when it carries a knet link, while that link reaches at
// least one other node of the view; a node alone in its view has nobody to
// reach, so its links count as alive.
bool isAdapterAlive(const AdapterFacts& facts);

// AdapterTracker: this node's adapters from the kernel's interface facts and
// the cluster's link facts, and the updates that bring what the cluster
// holds in line with them. An adapter's index is given the first time its
// interface name is seen and kept while the agent runs, so that an adapter
// that comes and goes keeps its provider id. Thread-compatible (the agent's
// event loop thread drives it).
class AdapterTracker {
 public:
  // A knet link of this node: its local address (4 bytes, network order)
  // and whether it reaches another node of the view.
  struct LinkState {
    uint32_t link = 0;
    std::string localAddress;
    bool connected = false;
  };

  // node: this node's number; at most maxInterfaces interfaces are kept
  // (the rest are ignored, see droppedInterfaces) and at most maxAdapters
  // adapters are indexed.
  AdapterTracker(uint32_t node, InterfaceFilter filter, size_t maxInterfaces = 4096,
                 size_t maxAdapters = 64);

  // ---- the kernel's facts (rtnetlink)
  // An interface appeared or changed (name, IFF_* flags).
  void linkChanged(int ifindex, const std::string& name, unsigned flags);
  void linkRemoved(int ifindex);
  // An IPv4 address (4 bytes, network order) of an interface.
  void addressAdded(int ifindex, const std::string& address, bool secondary);
  void addressRemoved(int ifindex, const std::string& address);
  // A full dump: what the dump does not confirm between begin and end is
  // gone (events lost to an overrun are made good this way).
  void beginLinkDump();
  void endLinkDump();
  void beginAddressDump();
  void endAddressDump();

  // ---- the cluster's facts
  // The node number, when the bus learns it only at its first view.
  void setNode(uint32_t node);
  // The links as a poll of knet saw them. A poll also confirms the links of
  // adapters that came back since the one before (see Interface).
  void setLinks(const std::vector<LinkState>& links);
  void setAlone(bool alone);

  // ---- what follows
  // The adapters now, by index: information and liveness.
  const std::map<uint32_t, proto::AdapterImage>& adapters() const { return adapters_; }
  // The updates that turn known (what the cluster holds of this node's
  // adapters, by index) into adapters(), by index.
  std::vector<proto::AdapterUpdate> updatesFrom(
      const std::map<uint32_t, proto::AdapterImage>& known) const;
  // Whether adapters() changed since the last call.
  bool takeChanged();
  // Interfaces ignored because maxInterfaces were kept, and adapters left
  // out because maxAdapters were indexed (for the log).
  size_t droppedInterfaces() const { return droppedInterfaces_; }
  size_t unindexedAdapters() const { return unindexed_.size(); }
  const InterfaceFilter& filter() const { return filter_; }

 private:
  struct Address {
    std::string ip;
    bool secondary = false;
    bool seen = true;
  };
  struct Interface {
    std::string name;
    unsigned flags = 0;
    bool seen = true;
    std::vector<Address> addresses;  // in the order the kernel gave them
    // The interface came back (up and running again, or a new address)
    // after the last link poll: what that poll said of its link is from
    // before, so the link counts as reaching nobody until a poll taken since
    // says otherwise. Without this a healed adapter would be announced from
    // the old status, withdrawn at the next poll and announced again.
    bool awaitingLinkPoll = true;
  };

  // Recomputes adapters_ from the facts.
  void refresh();
  // The index of an adapter name (given now if it has none); false when
  // every index is taken by a present adapter.
  bool indexFor(const std::string& name, const std::set<std::string>& present, uint32_t* index);

  uint32_t node_;
  InterfaceFilter filter_;
  size_t maxInterfaces_;
  size_t maxAdapters_;
  std::map<int, Interface> interfaces_;
  std::map<std::string, uint32_t> indexByName_;
  std::vector<LinkState> links_;
  bool alone_ = true;
  std::map<uint32_t, proto::AdapterImage> adapters_;
  bool changed_ = false;
  size_t droppedInterfaces_ = 0;
  std::set<std::string> unindexed_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_TOPOLOGY_H_

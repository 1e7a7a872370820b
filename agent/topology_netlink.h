// InterfaceWatcher: this node's interfaces and their IPv4 addresses, from
// rtnetlink through libmnl. At open it asks the kernel for a dump of the
// links, then of the IPv4 addresses; from then on the kernel's events
// (RTMGRP_LINK | RTMGRP_IPV4_IFADDR) keep the AdapterTracker current. The
// socket is non-blocking: the owner's event loop calls receive() whenever
// fd() is readable, nothing polls. Events the kernel dropped because the
// receive buffer overflowed are made good by a new dump. Owned by the
// agent's event loop thread.
#ifndef VELT_AGENT_TOPOLOGY_NETLINK_H_
#define VELT_AGENT_TOPOLOGY_NETLINK_H_

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "topology.h"

struct mnl_socket;
struct nlmsghdr;

namespace velt {
namespace agent {

class InterfaceWatcher {
 public:
  InterfaceWatcher();
  ~InterfaceWatcher();
  InterfaceWatcher(const InterfaceWatcher&) = delete;
  InterfaceWatcher& operator=(const InterfaceWatcher&) = delete;

  // Opens the socket and asks for the first dump; what it brings goes to
  // tracker on the following receive() calls. Returns 0 or an errno value.
  int open(AdapterTracker* tracker);
  void close();
  int fd() const;

  // Reads everything pending and applies it to the tracker given to
  // open(). Returns 0, or an errno value when the socket failed (the owner
  // closes it and opens a new one).
  int receive();

  // The first dump of links and addresses is complete: the tracker holds
  // every interface.
  bool dumped() const { return dumped_; }
  // How often the kernel dropped events (each followed by a new dump).
  size_t overruns() const { return overruns_; }

 private:
  enum class Dump { kNone, kLinks, kAddresses };

  int startDump(Dump what);
  // A dump (or the whole sequence) ended.
  int dumpDone();
  int handle(const nlmsghdr* nlh);
  void handleLink(const nlmsghdr* nlh);
  void handleAddress(const nlmsghdr* nlh);

  mnl_socket* nl_ = nullptr;
  AdapterTracker* tracker_ = nullptr;
  uint32_t seq_ = 0;
  Dump dump_ = Dump::kNone;
  bool again_ = false;  // events were lost during a dump: dump again after it
  bool dumped_ = false;
  size_t overruns_ = 0;
  std::vector<char> buf_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_TOPOLOGY_NETLINK_H_

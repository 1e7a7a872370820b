// CorosyncBus: the bus of a real cluster, CPG through libcpg. One handle,
// the group "velt", agreed order. Messages larger than CPG carries at once
// travel in fragments (cpg_framing.h); views come from CPG's configuration
// changes with ids every member agrees on (cpg_views.h).
//
// The agent does not depend on corosync being there. While corosync is
// away (not started yet, restarting, or the connection failed) the bus
// retries every second and, once it has been in the cluster, acts as a
// cluster of this node alone: a view {self} in which the other nodes left,
// its own multicasts delivered back locally in order, as the node would be
// seen after failing. When corosync answers again the bus joins the group,
// and the replica's state transfer brings the cluster's state.
//
// Everything is driven by the agent's event loop through one descriptor,
// fd(), that stays the same across reconnections (an epoll set holding the
// CPG descriptor, a wake-up eventfd and a timerfd for retries). Owned by
// the agent's event loop thread (not thread-safe).
#ifndef VELT_AGENT_COROSYNC_BUS_H_
#define VELT_AGENT_COROSYNC_BUS_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "bus.h"
#include "cpg_framing.h"
#include "cpg_views.h"
#include "owner_thread.h"

namespace velt {
namespace agent {

// The bus's settings. Plain data (thread-compatible).
struct CorosyncBusOptions {
  std::string group = "velt";
  // How often a missing corosync is asked again.
  std::chrono::milliseconds reconnectInterval{1000};
  // How soon fragments CPG refused (flow control) are offered again.
  std::chrono::milliseconds retryInterval{20};
  // How long a configuration change that came with a ring change waits for
  // the ring before it is delivered anyway.
  std::chrono::milliseconds ringWait{3000};
  // This node's messages waiting to go out or to come back, and the local
  // deliveries while alone. Past it multicast() answers EAGAIN.
  size_t maxQueuedBytes = 64u * 1024 * 1024;
  // One message, and so what one sender's reassembly may hold.
  size_t maxMessageBytes = 64u * 1024 * 1024;
  // Payload per fragment; 0: what CPG carries at once less our header.
  // Tests set a small size to fragment small messages.
  size_t fragmentPayloadForTesting = 0;
};

class CorosyncBus : public Bus {
 public:
  enum class Link {
    kWaiting,   // corosync not reached yet: node number unknown, no view
    kJoining,   // connected; the group's first view is on its way
    kJoined,    // a member of the group
    kAlone,     // corosync lost after having been in the cluster
  };
  // Lines for the agent's log (connection changes, refused fragments; each
  // kind rationed).
  using LogFn = std::function<void(const std::string& line)>;

  CorosyncBus(CorosyncBusOptions options, LogFn log);
  ~CorosyncBus() override;
  CorosyncBus(const CorosyncBus&) = delete;
  CorosyncBus& operator=(const CorosyncBus&) = delete;

  // Sets up the descriptors and asks corosync once. Returns 0 whether or
  // not corosync answered (the bus keeps asking), or an errno value with
  // *why when the agent cannot run: no descriptors, or corosync gives this
  // node an id that cannot be a 16-bit node number.
  int open(std::string* why);

  // Called after the link changed (for the agent's status).
  void setLinkCallback(std::function<void()> callback) { linkCallback_ = std::move(callback); }
  Link link() const { return link_; }
  // One line for service managers and operators: "waiting for corosync",
  // "joined, 3 nodes in view", ...
  std::string linkText() const;

  void setHandler(BusHandler* handler) override { handler_ = handler; }
  int join() override;
  // 0 until corosync has been reached once.
  uint32_t selfNode() const override { return node_; }
  // Before the first view: ENOTCONN. Queued otherwise (0); EAGAIN while the
  // queue is full, EMSGSIZE beyond the bound on one message.
  int multicast(const std::string& bytes) override;
  int fd() const override { return epollFd_; }
  // Returns 0, or an errno value when the agent cannot go on (corosync
  // changed this node's id, or its new id is unusable); the log says why.
  int dispatch() override;

  size_t queuedBytesForTesting() const { return sendQueue_.queuedBytes(); }
  size_t fragmentPayloadForTesting() const { return sendQueue_.fragmentPayload(); }
  uint64_t refusedFragmentsForTesting() const { return refusedFragments_; }
  uint64_t flowControlRefusalsForTesting() const { return tryAgains_; }

 private:
  struct Local {
    bool isView = false;
    View view;
    std::string bytes;
  };
  struct Callbacks;
  friend struct Callbacks;

  // One attempt to reach corosync; 0, or EINVAL when the node id is
  // unusable (with *why).
  int connect(std::string* why);
  int joinGroup();
  void lose(const std::string& why);
  void goAlone();
  void closeHandle();
  void flush();
  void armTimer();
  int wake();
  void setLink(Link link);
  void deliverView(const View& view);
  void finishView();
  void onConfchg(const std::vector<CpgMember>& members, const std::vector<CpgMember>& left,
                 const std::vector<CpgMember>& joined);
  void onRing(uint64_t seq);
  void onDeliver(uint32_t node, uint32_t pid, const char* data, size_t len);
  void logRationed(uint64_t* counter, const std::string& line);

  OwnerThread ownerThread_;
  CorosyncBusOptions options_;
  LogFn log_;
  std::function<void()> linkCallback_;
  BusHandler* handler_ = nullptr;

  int epollFd_ = -1;
  int wakeFd_ = -1;
  int timerFd_ = -1;

  uint64_t handle_ = 0;
  bool haveHandle_ = false;
  int cpgFd_ = -1;
  bool groupJoined_ = false;
  bool joinWanted_ = false;
  bool inCpgDispatch_ = false;
  std::string brokenWhy_;   // set inside CPG's dispatch, acted on after it

  Link link_ = Link::kWaiting;
  uint32_t node_ = 0;
  pid_t pid_;
  int fatal_ = 0;

  CpgViewBuilder views_;
  SendQueue sendQueue_;
  FragmentReassembler reassembler_;
  std::deque<Local> local_;
  size_t localBytes_ = 0;

  using Clock = std::chrono::steady_clock;
  Clock::time_point reconnectDue_;
  Clock::time_point retryDue_;
  bool retryArmed_ = false;
  Clock::time_point ringDue_;
  uint64_t attempts_ = 0;
  uint64_t refusedFragments_ = 0;
  uint64_t strangers_ = 0;
  uint64_t tryAgains_ = 0;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_COROSYNC_BUS_H_

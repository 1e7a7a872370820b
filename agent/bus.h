// The transport between the agents of a cluster: a totally ordered,
// virtually synchronous multicast with views, as CPG gives it. Three
// implementations: CorosyncBus (real clusters), LoopbackBus (one member, no
// corosync: `veltd --standalone`) and SimBus (many members in one process,
// for tests). Owned by the agent's event loop thread.
#ifndef VELT_AGENT_BUS_H_
#define VELT_AGENT_BUS_H_

#include <stdint.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {

// A view: the members that deliver the same messages from now on.
struct View {
  uint64_t id = 0;                    // grows with every configuration change
  std::vector<uint32_t> members;      // node numbers, ascending
  std::vector<uint32_t> left;         // members of the previous view that are gone
  std::vector<uint32_t> joined;       // members that were not in the previous view
};

// Where a bus delivers. Called on the owner's thread.
class BusHandler {
 public:
  virtual ~BusHandler() = default;
  virtual void onView(const View& view) = 0;
  virtual void onMessage(uint32_t from, const std::string& bytes) = 0;
};

class Bus {
 public:
  virtual ~Bus() = default;
  virtual void setHandler(BusHandler* handler) = 0;
  // Starts membership: the first view (with at least this node) follows.
  // Returns 0 or an errno value.
  virtual int join() = 0;
  virtual uint32_t selfNode() const = 0;
  // Sends to every member of the current view, this node included; every
  // member delivers the same messages in the same order. Returns 0 or an
  // errno value (EAGAIN: flow control, try again later).
  virtual int multicast(const std::string& bytes) = 0;
  // For event loops: a descriptor that becomes readable when dispatch()
  // has something to deliver (-1 when the bus delivers otherwise).
  virtual int fd() const { return -1; }
  // Delivers what is pending. Returns 0, or an errno value when the bus
  // failed (the agent then treats itself as a node that left).
  virtual int dispatch() { return 0; }
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_BUS_H_

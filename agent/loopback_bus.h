// LoopbackBus: the bus of a cluster of one (`veltd --standalone`). Its only
// member is this node; the first view is {self}; a multicast comes back to
// this node alone, in order, never from inside multicast() itself: it is
// queued and delivered by dispatch() when the event loop sees fd() readable,
// exactly as the cluster's bus delivers, so that the agent runs the same
// code in both modes. Owned by the agent's event loop thread.
#ifndef VELT_AGENT_LOOPBACK_BUS_H_
#define VELT_AGENT_LOOPBACK_BUS_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <string>

#include "bus.h"
#include "owner_thread.h"

namespace velt {
namespace agent {

class LoopbackBus : public Bus {
 public:
  // Messages waiting for delivery are bounded: past this many bytes
  // multicast() answers EAGAIN, as flow control on a real bus does.
  static constexpr size_t kDefaultMaxPendingBytes = 256u * 1024 * 1024;

  explicit LoopbackBus(uint32_t node, size_t maxPendingBytes = kDefaultMaxPendingBytes);
  ~LoopbackBus() override;
  LoopbackBus(const LoopbackBus&) = delete;
  LoopbackBus& operator=(const LoopbackBus&) = delete;

  // Creates the wake-up descriptor. Returns 0 or an errno value.
  int open();

  void setHandler(BusHandler* handler) override { handler_ = handler; }
  int join() override;
  uint32_t selfNode() const override { return node_; }
  int multicast(const std::string& bytes) override;
  int fd() const override { return wakeFd_; }
  int dispatch() override;

  size_t pendingBytesForTesting() const { return pendingBytes_; }

 private:
  struct Pending {
    bool isView = false;
    View view;
    std::string bytes;
  };
  int wake();

  OwnerThread ownerThread_;
  uint32_t node_;
  size_t maxPendingBytes_;
  BusHandler* handler_ = nullptr;
  int wakeFd_ = -1;
  bool joined_ = false;
  std::deque<Pending> pending_;
  size_t pendingBytes_ = 0;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_LOOPBACK_BUS_H_

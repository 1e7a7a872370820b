// SendBudget: what all client connections together may hold of frames their
// clients have not read yet. Each ClientSession counts its queue in it; the
// one whose frame would pass the limit is cut off. It also counts what was
// released since the agent last gave memory back to the system, and tells
// the agent when that passes a threshold, so that the memory of a burst is
// returned once the burst is over.
// Owned by the agent's event loop thread (sessions and agent share it
// there; not thread-safe).
#ifndef VELT_AGENT_SEND_BUDGET_H_
#define VELT_AGENT_SEND_BUDGET_H_

#include <stddef.h>

#include <functional>
#include <utility>

namespace velt {
namespace agent {

class SendBudget {
 public:
  explicit SendBudget(size_t limit) : limit_(limit) {}

  size_t limit() const { return limit_; }
  size_t used() const { return used_; }
  bool fits(size_t more) const { return more <= limit_ - used_; }
  void take(size_t bytes) { used_ += bytes; }
  void give(size_t bytes) {
    used_ -= bytes;
    released_ += bytes;
    if (released_ >= releaseThreshold_ && releasedCallback_) releasedCallback_();
  }

  // Called (on the loop) whenever what was given back since the last
  // takeReleased() reaches threshold bytes.
  void onReleased(size_t threshold, std::function<void()> callback) {
    releaseThreshold_ = threshold;
    releasedCallback_ = std::move(callback);
  }
  size_t takeReleased() {
    size_t r = released_;
    released_ = 0;
    return r;
  }

 private:
  size_t limit_;
  size_t used_ = 0;
  size_t released_ = 0;
  size_t releaseThreshold_ = 0;
  std::function<void()> releasedCallback_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_SEND_BUDGET_H_

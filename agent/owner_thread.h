// OwnerThread: remembers the thread that created an object so that debug
// builds can check that every call comes from it. The agent's objects
// belong to its event loop thread and take no locks; a call from any other
// thread is a bug that this catches where it happens. Thread-safe (holds
// only what its constructor wrote).
#ifndef VELT_AGENT_OWNER_THREAD_H_
#define VELT_AGENT_OWNER_THREAD_H_

#include <assert.h>

#include <thread>

namespace velt {
namespace agent {

class OwnerThread {
 public:
  OwnerThread() : owner_(std::this_thread::get_id()) {}
  bool isCurrent() const { return std::this_thread::get_id() == owner_; }

 private:
  std::thread::id owner_;
};

}  // namespace agent
}  // namespace velt

// Debug builds only: release builds run the loop without the check.
#define VELT_CHECK_OWNER_THREAD(owner) assert((owner).isCurrent())

#endif  // VELT_AGENT_OWNER_THREAD_H_

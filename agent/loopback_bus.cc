#include "loopback_bus.h"

#include <errno.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace velt {
namespace agent {

LoopbackBus::LoopbackBus(uint32_t node, size_t maxPendingBytes)
    : node_(node), maxPendingBytes_(maxPendingBytes) {}

LoopbackBus::~LoopbackBus() {
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

int LoopbackBus::open() {
  if (wakeFd_ >= 0) return 0;
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return wakeFd_ < 0 ? errno : 0;
}

int LoopbackBus::wake() {
  uint64_t one = 1;
  ssize_t rc;
  do {
    rc = ::write(wakeFd_, &one, sizeof one);
  } while (rc < 0 && errno == EINTR);
  // EAGAIN means the counter is already huge: the loop is woken anyway.
  if (rc < 0 && errno != EAGAIN) return errno;
  return 0;
}

int LoopbackBus::join() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (wakeFd_ < 0) return EBADF;
  if (joined_) return EALREADY;
  joined_ = true;
  Pending p;
  p.isView = true;
  p.view.id = 1;
  p.view.members = {node_};
  p.view.joined = {node_};
  pending_.push_back(std::move(p));
  return wake();
}

int LoopbackBus::multicast(const std::string& bytes) {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  if (wakeFd_ < 0 || !joined_) return ENOTCONN;
  if (pendingBytes_ + bytes.size() > maxPendingBytes_) return EAGAIN;
  Pending p;
  p.bytes = bytes;
  pendingBytes_ += bytes.size();
  pending_.push_back(std::move(p));
  return wake();
}

int LoopbackBus::dispatch() {
  VELT_CHECK_OWNER_THREAD(ownerThread_);
  uint64_t count;
  ssize_t rc;
  do {
    rc = ::read(wakeFd_, &count, sizeof count);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0 && errno != EAGAIN) return errno;
  // Only what was queued before this call is delivered now: what the
  // handler multicasts while it runs waits for the next turn of the loop,
  // so that clients are served in between.
  size_t n = pending_.size();
  for (size_t i = 0; i < n && !pending_.empty(); ++i) {
    Pending p = std::move(pending_.front());
    pending_.pop_front();
    pendingBytes_ -= p.bytes.size();
    if (handler_ == nullptr) continue;
    if (p.isView) {
      handler_->onView(p.view);
    } else {
      handler_->onMessage(node_, p.bytes);
    }
  }
  if (!pending_.empty()) return wake();
  return 0;
}

}  // namespace agent
}  // namespace velt

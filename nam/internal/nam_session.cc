#include "internal/nam_session.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "velt_nam_api.h"

namespace velt {
namespace nam {
namespace internal {

namespace {

std::string errnoText(int err) {
  char buf[128];
  return strerror_r(err, buf, sizeof buf);
}

int64_t monotonicMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// What is left of a wait that began at startMs (-1: a wait without limit).
int remainingMs(int timeoutMs, int64_t startMs) {
  if (timeoutMs < 0) return -1;
  int64_t left = startMs + timeoutMs - monotonicMs();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Waits until fd is ready for events within what is left of the wait.
// VELT_NAM_OK when it is; otherwise the code, and in *why what did not come
// (waitingFor) or why the wait failed.
int waitReady(int fd, short events, int timeoutMs, int64_t startMs, const char* waitingFor, std::string* why) {
  while (true) {
    struct pollfd p = {fd, events, 0};
    int n = poll(&p, 1, remainingMs(timeoutMs, startMs));
    if (n > 0) return VELT_NAM_OK;
    if (n == 0) {
      *why = std::string(waitingFor) + " within " + std::to_string(timeoutMs) + " ms";
      return VELT_NAM_SOCKET_INIT_FAILED;
    }
    if (errno != EINTR) {
      *why = "cannot wait for the daemon's socket: " + errnoText(errno);
      return VELT_NAM_POLL_ERROR;
    }
  }
}

}  // namespace

Session::Session(int fd) : fd_(fd), stream_(&table_), readBuffer_(DaemonStream::kReadChunk) {}

Session::~Session() { close(fd_); }

int Session::open(const std::string& path, int timeoutMs, std::shared_ptr<Session>* out, std::string* why) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    *why = "the socket path must have 1 to " + std::to_string(sizeof addr.sun_path - 1) + " characters";
    return VELT_NAM_INVALID_INPUT_PARAMETER;
  }
  memcpy(addr.sun_path, path.data(), path.size());
  // Non-blocking from the start: a daemon whose backlog is full refuses
  // at once instead of holding the caller.
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    int err = errno;
    *why = "cannot create a socket: " + errnoText(err);
    errno = err;
    return VELT_NAM_CREATE_SOCKET_FAILED;
  }
  std::shared_ptr<Session> session(new Session(fd));
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    int err = errno;
    session.reset();
    if (err == EACCES || err == EPERM) {
      *why = "the daemon's socket " + path + " refuses this caller: " + errnoText(err);
      errno = err;
      return VELT_NAM_NON_ROOT_CALLER;
    }
    *why = "cannot connect to the daemon at " + path + ": " + errnoText(err);
    errno = err;
    return VELT_NAM_SOCKET_CONNECT_FAILED;
  }
  MutexLock lk(session->mu_);
  int64_t startMs = monotonicMs();
  int rc = session->sendInit(timeoutMs, startMs, why);
  if (rc == VELT_NAM_OK) rc = session->awaitConfigLocked(timeoutMs, startMs, why);
  if (rc != VELT_NAM_OK) return rc;
  uint32_t active = session->table_.daemonConfig().velt_active_version.quick_version;
  if (active < VELT_NAM_MIN_ACTIVE_VERSION) {
    char text[160];
    snprintf(text, sizeof text, "the cluster's active version %u.%u.%u.%u does not offer the interface (%u.%u.%u.%u or newer does)",
             active >> 24, (active >> 16) & 0xff, (active >> 8) & 0xff, active & 0xff,
             VELT_NAM_MIN_ACTIVE_VERSION >> 24, (VELT_NAM_MIN_ACTIVE_VERSION >> 16) & 0xff,
             (VELT_NAM_MIN_ACTIVE_VERSION >> 8) & 0xff, VELT_NAM_MIN_ACTIVE_VERSION & 0xff);
    *why = text;
    return VELT_NAM_VERSION_NOT_SUPPORTED;
  }
  *out = std::move(session);
  return VELT_NAM_OK;
}

int Session::sendInit(int timeoutMs, int64_t startMs, std::string* why) {
  struct {
    velt_nam_msg_hdr header;
    velt_nam_init_lib_msg body;
  } msg;
  memset(&msg, 0, sizeof msg);
  msg.header.msg_type = VELT_NAM_LIB_INIT_MSG;
  msg.header.msg_length = sizeof msg.body;
  msg.body.header = msg.header;
  msg.body.lib_version = VELT_NAM_LIB_VERSION;
  msg.body.capability = VELT_NAM_LIB_CAPABILITY;
  msg.body.pid = getpid();
  static_assert(sizeof msg == 28, "the init message is a header and 20 bytes");
  const char* next = reinterpret_cast<const char*>(&msg);
  size_t left = sizeof msg;
  while (left > 0) {
    ssize_t n = send(fd_, next, left, MSG_NOSIGNAL);
    if (n > 0) {
      next += n;
      left -= static_cast<size_t>(n);
      continue;
    }
    int err = errno;
    if (err == EINTR) continue;
    if (err == EAGAIN || err == EWOULDBLOCK) {
      int rc = waitReady(fd_, POLLOUT, timeoutMs, startMs, "the daemon took no init message", why);
      if (rc != VELT_NAM_OK) return rc;
      continue;
    }
    if (err == EPIPE || err == ECONNRESET) {
      *why = "the daemon closed the connection before the init message";
      return VELT_NAM_DAEMON_DISCONNECTED;
    }
    *why = "cannot send the init message: " + errnoText(err);
    return VELT_NAM_WRITESOCK_ERROR;
  }
  return VELT_NAM_OK;
}

int Session::awaitConfigLocked(int timeoutMs, int64_t startMs, std::string* why) {
  while (!table_.hasConfig()) {
    int rc = VELT_NAM_OK;
    int msgType = -1;
    switch (readStepLocked(&rc, &msgType, why)) {
      case Step::kApplied:
      case Step::kPartial:
        break;
      case Step::kFailed:
        return rc;
      case Step::kWouldBlock:
        rc = waitReady(fd_, POLLIN, timeoutMs, startMs, "no answer from the daemon", why);
        if (rc != VELT_NAM_OK) return rc;
        break;
    }
  }
  return VELT_NAM_OK;
}

Session::Step Session::readStepLocked(int* rc, int* msgType, std::string* why) {
  ssize_t n;
  do {
    n = recv(fd_, readBuffer_.data(), stream_.bytesWanted(), MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  if (n > 0) {
    *rc = stream_.take(readBuffer_.data(), static_cast<size_t>(n), msgType, why);
    if (*rc == VELT_NAM_OK) return Step::kApplied;
    return *rc == VELT_NAM_NO_NEW_DATA ? Step::kPartial : Step::kFailed;
  }
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Step::kWouldBlock;
  if (n == 0 || errno == ECONNRESET) {
    *why = stream_.bytesPending() > 0 ? "the daemon closed the connection in the middle of a message"
                                      : "the daemon closed the connection";
    *rc = VELT_NAM_DAEMON_DISCONNECTED;
    return Step::kFailed;
  }
  *why = "cannot read from the daemon: " + errnoText(errno);
  *rc = VELT_NAM_READSOCK_ERROR;
  return Step::kFailed;
}

int Session::update(std::string* why) {
  MutexLock lk(mu_);
  if (brokenRc_ != VELT_NAM_OK) {
    *why = brokenWhy_;
    return brokenRc_;
  }
  int applied = 0;
  while (applied < kMaxMessagesPerUpdate) {
    int rc = VELT_NAM_OK;
    int msgType = -1;
    Step step = readStepLocked(&rc, &msgType, why);
    if (step == Step::kWouldBlock) break;
    if (step == Step::kApplied) ++applied;
    if (step != Step::kFailed) continue;
    brokenRc_ = rc;
    brokenWhy_ = *why;
    // The end of the stream keeps the descriptor readable, so the caller
    // learns of it on the next call; what came before is reported first.
    // Anything else is reported at once.
    if (rc == VELT_NAM_DAEMON_DISCONNECTED && applied > 0) return VELT_NAM_OK;
    return rc;
  }
  return applied > 0 ? VELT_NAM_OK : VELT_NAM_NO_NEW_DATA;
}

void Session::config(velt_nam_config* out) {
  MutexLock lk(mu_);
  const velt_nam_daemon_config& c = table_.daemonConfig();
  out->supported_lib_version = static_cast<int>(c.velt_active_version.quick_version);
  out->velt_nam_max_adapter_info = c.velt_nam_max_adapter_info;
  out->velt_nam_max_networks = c.velt_nam_max_networks;
  out->node_number = c.node_number;
}

velt_nam_net_info* Session::copyNetInfo() {
  MutexLock lk(mu_);
  return table_.copyNetInfo();
}

velt_nam_node_adap_info* Session::copyNodeAdapInfo(int node) {
  MutexLock lk(mu_);
  return table_.copyNodeAdapInfo(node);
}

}  // namespace internal
}  // namespace nam
}  // namespace velt

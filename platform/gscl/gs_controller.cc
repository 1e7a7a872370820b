// GSController: the process's connection to the node agent, and the
// library's debug hooks.
#include "gs_controller.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "internal/gs_internal.h"

namespace velt_gscl_V1 {

// ---- debug hooks ----

namespace internal {

int gsParseDebugLevel(const char* text, int* out) {
  if (text == nullptr || *text == '\0') return -1;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return -1;
  if (v < INT32_MIN || v > static_cast<long long>(UINT32_MAX)) return -1;
  // 0x80000000 and up are bit patterns, not numbers too large for an int.
  *out = static_cast<int>(static_cast<uint32_t>(v));
  return 0;
}

}  // namespace internal

namespace {

std::atomic<int>& debugLevel() {
  // Read from the environment on first use, so that it does not depend on
  // the order in which static objects are built.
  static std::atomic<int> level([] {
    int v = 0;
    if (internal::gsParseDebugLevel(getenv("VELT_GSCL_DEBUG_LEVEL"), &v) != 0) v = 0;
    return v;
  }());
  return level;
}

std::atomic<GSDebugRoutine> debugRtn{nullptr};
std::atomic<GSDebugRoutine> traceRtn{nullptr};

// Longest text handed to a routine; longer texts are cut.
constexpr size_t kMaxDebugText = 1024;

}  // namespace

int GSDebugLevel() { return debugLevel().load(); }
void GSSetDebugLevel(int level) { debugLevel().store(level); }
void GSSetDebugRtn(GSDebugRoutine fn) { debugRtn.store(fn); }
void GSSetTraceRtn(GSDebugRoutine fn) { traceRtn.store(fn); }
const char* GSTraceDebugName() { return "gscl"; }

void GSDebugPrintf(int trclvl, const char* fmt, ...) {
  GSDebugRoutine fn = (trclvl & internal::kGsclDebugRoute) != 0 ? debugRtn.load() : traceRtn.load();
  if (fn == nullptr) return;
  char text[kMaxDebugText];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) return;
  fn(trclvl, text);
}

// ---- GSController ----

namespace {

// Texts from the agent are read into a buffer of this size; the protocol
// bounds its frames well below it. Larger frames are cut and reported.
constexpr size_t kMaxFrameBytes = 4096;

// How long quit() waits for a released dispatch before it says so (and
// then waits again: it must not close a descriptor that is being polled).
constexpr std::chrono::seconds kQuitReportInterval{5};

enum class PollOutcome { kNothing, kFrame, kWake, kDead, kError };

struct PollResult {
  PollOutcome outcome = PollOutcome::kNothing;
  int err = 0;          // errno of kDead (0: the agent closed) and kError
  ssize_t length = 0;   // kFrame: the frame's whole length
};

// Waits for the connection or the wake-up descriptor. Runs without the
// controller's lock; quit() keeps both descriptors open until it returns.
PollResult pollConnection(int fd, int wakeFd, int timeoutMs) {
  PollResult r;
  struct pollfd p[2];
  p[0].fd = fd;
  p[0].events = POLLIN | POLLRDHUP;
  p[1].fd = wakeFd;
  p[1].events = POLLIN;
  int n;
  do {
    p[0].revents = p[1].revents = 0;
    n = poll(p, 2, timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    r.outcome = PollOutcome::kError;
    r.err = errno;
    return r;
  }
  if (n == 0) return r;
  if ((p[1].revents & POLLIN) != 0) {
    r.outcome = PollOutcome::kWake;
    return r;
  }
  if ((p[0].revents & POLLIN) != 0) {
    char buf[kMaxFrameBytes];
    // MSG_TRUNC: the result is the frame's whole length, so that an
    // oversized frame can be told apart; the rest of it is dropped.
    ssize_t len = recv(fd, buf, sizeof buf, MSG_DONTWAIT | MSG_TRUNC);
    if (len > 0) {
      // The agent's protocol is not spoken yet: the frame is read so that
      // it does not stay readable, and dropped. Decoding replies and
      // queueing notifications for their callbacks goes here.
      r.outcome = PollOutcome::kFrame;
      r.length = len;
      return r;
    }
    if (len < 0 && (errno == EAGAIN || errno == EINTR)) return r;
    if (len < 0) {
      r.outcome = PollOutcome::kDead;
      r.err = errno;
      return r;
    }
    // len == 0: end of stream when the peer hung up, else an empty frame.
    if ((p[0].revents & (POLLHUP | POLLRDHUP)) != 0) {
      r.outcome = PollOutcome::kDead;
      return r;
    }
    r.outcome = PollOutcome::kFrame;
    return r;
  }
  if ((p[0].revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0) {
    r.outcome = PollOutcome::kDead;
    return r;
  }
  return r;
}

// The stored bits of an API enum. Callers (C among them) may hand over any
// int; loading it as the enum type when it is out of the enum's range is
// undefined, so it is read as the int it is.
template <typename E>
int enumBits(const E& e) {
  static_assert(sizeof(E) == sizeof(int), "API enums are int-sized");
  int v;
  memcpy(&v, &e, sizeof v);
  return v;
}

bool validResponsiveness(const tk_gs_responsiveness_t& r) {
  switch (enumBits(r.gs_responsiveness_type)) {
    case TK_GS_NO_RESPONSIVENESS:
    case TK_GS_PING_RESPONSIVENESS:
      break;
    case TK_GS_COUNTER_RESPONSIVENESS:
      // The agent reads the counter the client keeps incrementing.
      if (r.gs_counter_location == nullptr || r.gs_counter_length <= 0) return false;
      break;
    default:
      return false;
  }
  return r.gs_responsiveness_interval >= 0 && r.gs_responsiveness_response_time_limit >= 0;
}

bool knownSocketOption(int option) { return option == TK_GS_ENABLE_ADAPTER_INFO; }

}  // namespace

GSController::GSController(int interfaceWord) : interfaceWord_(interfaceWord) {}

GSController::~GSController() {
  quit();
  std::lock_guard<std::mutex> lk(mu_);
  if (wakeFd_ >= 0) close(wakeFd_);
  wakeFd_ = -1;
}

tk_gs_rc_t GSController::initialize() {
  char etext[128];
  int wakeErr = 0;
  {
    std::lock_guard<std::mutex> lk(mu_);
    if (fd_ >= 0) return TK_GS_ALREADY_INITIALIZED;
    if (wakeFd_ < 0) {
      wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      if (wakeFd_ < 0) wakeErr = errno;
    }
  }
  if (wakeErr != 0) {
    GSDebugPrintf(0, "gscl: cannot create the dispatch wake-up descriptor: %s",
                  strerror_r(wakeErr, etext, sizeof etext));
    return TK_GS_NO_MEMORY;
  }

  const char* env = getenv("VELT_AGENT_SOCKET");
  const char* path = env != nullptr ? env : kDefaultAgentSocket;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  size_t pathLen = strlen(path);
  if (pathLen == 0) {
    GSDebugPrintf(0, "gscl: VELT_AGENT_SOCKET is set but empty");
    return TK_GS_BAD_PARAMETER;
  }
  if (pathLen >= sizeof addr.sun_path) {
    GSDebugPrintf(0, "gscl: agent socket path is %zu characters long, at most %zu fit: %.200s",
                  pathLen, sizeof addr.sun_path - 1, path);
    return TK_GS_BAD_PARAMETER;
  }
  memcpy(addr.sun_path, path, pathLen + 1);

  // Non-blocking: a connect to an agent whose backlog is full fails with
  // EAGAIN at once instead of holding up the caller's retry loop.
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    int err = errno;
    GSDebugPrintf(0, "gscl: cannot create a socket for the agent: %s",
                  strerror_r(err, etext, sizeof etext));
    bool exhausted = err == EMFILE || err == ENFILE || err == ENOMEM || err == ENOBUFS;
    return exhausted ? TK_GS_NO_MEMORY : TK_GS_NOT_OK;
  }
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    int err = errno;
    close(fd);
    GSDebugPrintf(0, "gscl: cannot connect to the agent at %s: %s", path,
                  strerror_r(err, etext, sizeof etext));
    if (err == EACCES || err == EPERM) return TK_GS_PERMISSION_DENIED;
    // ENOENT, ECONNREFUSED, EAGAIN, a stale or foreign file at the path:
    // all mean that no agent serves us there now; the caller retries.
    return TK_GS_NOT_CONNECTED;
  }

  // Only root or our own user may serve the agent socket: whoever else
  // managed to bind the path must not feed us group services.
  struct ucred cred;
  socklen_t credLen = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) {
    int err = errno;
    close(fd);
    GSDebugPrintf(0, "gscl: cannot read the credentials of the agent at %s: %s", path,
                  strerror_r(err, etext, sizeof etext));
    return TK_GS_NOT_CONNECTED;
  }
  if (cred.uid != 0 && cred.uid != geteuid()) {
    close(fd);
    GSDebugPrintf(0, "gscl: the agent socket %s is served by uid %u (pid %d), neither root nor us",
                  path, static_cast<unsigned>(cred.uid), static_cast<int>(cred.pid));
    return TK_GS_PERMISSION_DENIED;
  }

  // The agent's handshake goes here, once the protocol exists: send the
  // interface word, the responsiveness settings and the socket options,
  // and take the agent's version and our client identity from its answer.

  {
    std::lock_guard<std::mutex> lk(mu_);
    if (fd_ >= 0) {
      // Another initialize won the race; ours is not needed.
      close(fd);
      return TK_GS_ALREADY_INITIALIZED;
    }
    fd_ = fd;
    dead_ = false;
    socketPath_ = path;
  }
  if (internal::gsDetailWanted(GSDebugLevel())) {
    GSDebugPrintf(internal::kGsclDebugRoute, "gscl: connected to the agent at %s (interface word 0x%x)",
                  path, static_cast<unsigned>(interfaceWord_));
  }
  return TK_GS_OK;
}

void GSController::quit() {
  std::unique_lock<std::mutex> lk(mu_);
  if (fd_ < 0) return;
  quitting_ = true;
  if (inPoll_ > 0) {
    uint64_t one = 1;
    // One write cannot overflow the counter, so it cannot fail in a way
    // that leaves the dispatching thread blocked.
    ssize_t w = write(wakeFd_, &one, sizeof one);
    (void)w;
  }
  // The descriptor is closed only once no dispatch polls it any more, so
  // that a number reused by another open never gets polled or read here.
  long long waitedSecs = 0;
  while (!pollDone_.wait_for(lk, kQuitReportInterval, [this] { return inPoll_ == 0; })) {
    waitedSecs += kQuitReportInterval.count();
    lk.unlock();
    GSDebugPrintf(0, "gscl: quit has waited %lld s for dispatch to let go of the connection",
                  waitedSecs);
    lk.lock();
  }
  close(fd_);
  fd_ = -1;
  dead_ = false;
  quitting_ = false;
  // Drop a wake-up that no dispatch consumed, so that the next connection
  // does not start with a spurious one.
  uint64_t count;
  ssize_t r = read(wakeFd_, &count, sizeof count);
  (void)r;
}

tk_gs_rc_t GSController::dispatch(tk_gs_dispatch_type_t how) {
  const int howBits = enumBits(how);
  if (howBits != TK_GS_BLOCKING && howBits != TK_GS_NON_BLOCKING) return TK_GS_BAD_PARAMETER;
  const int timeoutMs = howBits == TK_GS_BLOCKING ? -1 : 0;
  std::unique_lock<std::mutex> lk(mu_);
  while (true) {
    if (fd_ < 0 || quitting_) return TK_GS_NOT_INITIALIZED;
    if (dead_) return TK_GS_GS_HAS_DIED;
    const int fd = fd_;
    const int wakeFd = wakeFd_;
    ++inPoll_;
    lk.unlock();
    PollResult r = pollConnection(fd, wakeFd, timeoutMs);
    lk.lock();
    if (--inPoll_ == 0) pollDone_.notify_all();

    switch (r.outcome) {
      case PollOutcome::kNothing:
        if (howBits == TK_GS_NON_BLOCKING) return TK_GS_NO_NOTIFICATION;
        continue;
      case PollOutcome::kWake:
        if (!quitting_) {
          // A wake-up meant for an earlier connection: drop it, wait again.
          uint64_t count;
          ssize_t n = read(wakeFd_, &count, sizeof count);
          (void)n;
        }
        continue;   // the state check at the top answers quit()
      case PollOutcome::kFrame: {
        lk.unlock();
        if (internal::gsDetailWanted(GSDebugLevel())) {
          GSDebugPrintf(internal::kGsclDebugRoute,
                        "gscl: dropped a frame of %zd bytes from the agent (protocol not spoken yet)%s",
                        r.length, static_cast<size_t>(r.length) > kMaxFrameBytes ? ", oversized" : "");
        }
        return TK_GS_OK;
      }
      case PollOutcome::kDead: {
        dead_ = true;
        std::string path = socketPath_;
        lk.unlock();
        char etext[128];
        GSDebugPrintf(0, "gscl: lost the connection to the agent at %s: %s", path.c_str(),
                      r.err != 0 ? strerror_r(r.err, etext, sizeof etext) : "closed by the agent");
        return TK_GS_GS_HAS_DIED;
      }
      case PollOutcome::kError: {
        lk.unlock();
        char etext[128];
        GSDebugPrintf(0, "gscl: waiting on the agent connection failed: %s",
                      strerror_r(r.err, etext, sizeof etext));
        return TK_GS_NOT_OK;
      }
    }
  }
}

tk_gs_callback_rc_t GSController::responsivenessCb(const tk_gs_responsiveness_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  // The answer to the agent's ping is sent here once the protocol exists.
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t GSController::queryCb(const tk_gs_query_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t GSController::domainControlCb(const tk_gs_domain_control_notification_t* n) {
  if (n == nullptr) return TK_GS_CALLBACK_NOT_OK;
  if (enumBits(n->gs_domain_ctrl_event) == TK_GS_DOMAIN_VERSION) setActiveVersion(n->gs_velt_version);
  return TK_GS_CALLBACK_OK;
}

tk_gs_rc_t GSController::changeResponsiveness(const tk_gs_responsiveness_t* r) {
  if (r == nullptr || !validResponsiveness(*r)) return TK_GS_BAD_PARAMETER;
  std::lock_guard<std::mutex> lk(mu_);
  // Kept for the next connection; telling a connected agent needs the
  // protocol.
  responsiveness_ = *r;
  return TK_GS_OK;
}

tk_gs_rc_t GSController::dissolveDomain() {
  // The agent dissolves groups by itself when partitions merge; a request
  // from a client needs the protocol and is refused until then.
  return TK_GS_NOT_SUPPORTED;
}

tk_gs_rc_t GSController::setResponsiveness(const tk_gs_responsiveness_t& r) {
  if (!validResponsiveness(r)) return TK_GS_BAD_PARAMETER;
  std::lock_guard<std::mutex> lk(mu_);
  responsiveness_ = r;
  return TK_GS_OK;
}

tk_gs_rc_t GSController::setSocketOption(int option) {
  if (!knownSocketOption(option)) return TK_GS_BAD_PARAMETER;
  std::lock_guard<std::mutex> lk(mu_);
  socketOptions_ |= 1u << option;
  return TK_GS_OK;
}

bool GSController::isSocketOptionSet(int option) const {
  if (!knownSocketOption(option)) return false;
  std::lock_guard<std::mutex> lk(mu_);
  return (socketOptions_ & (1u << option)) != 0;
}

const char* GSController::get_ffdc_id() const {
  // The library makes no error-log entries of its own yet, so this stays
  // null until it does.
  return ffdcId_[0] != '\0' ? ffdcId_ : nullptr;
}

tk_gs_rc_t GSController::get_velt_active_version(tk_gs_velt_version_t* out) const {
  if (out == nullptr) return TK_GS_BAD_PARAMETER;
  std::lock_guard<std::mutex> lk(mu_);
  if (!haveActiveVersion_) {
    memset(out, 0, sizeof *out);
    return TK_GS_NOT_OK;
  }
  *out = activeVersion_;
  return TK_GS_OK;
}

void GSController::setActiveVersion(const tk_gs_velt_version_t& v) {
  std::lock_guard<std::mutex> lk(mu_);
  activeVersion_ = v;
  haveActiveVersion_ = true;
}

bool GSController::isConnected() const {
  std::lock_guard<std::mutex> lk(mu_);
  return fd_ >= 0 && !dead_;
}

int GSController::dispatchersWaitingForTesting() const {
  std::lock_guard<std::mutex> lk(mu_);
  return inPoll_;
}

}  // namespace velt_gscl_V1

#include "src_driver.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <linux/sockios.h>
#include <unistd.h>

#include <algorithm>

#include "internal/src_wire.h"
#include "src_client.h"
#include "vx_cu.h"

using velt_src::Request;

#define SRC_ERROR(code, text) setError((code), (text).c_str(), __FILE__, __func__, __LINE__)

namespace {

std::string errnoText(int err) {
  char buf[128];
  // The GNU strerror_r returns the text, which may or may not be buf.
  return strerror_r(err, buf, sizeof buf);
}

long long monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Requester addresses whose unread replies are remembered at once; beyond
// this the ones below the limit are forgotten first.
constexpr size_t kMaxTrackedRequesters = 1024;

// Creates dir and its missing parents, each mode 0700 whatever the umask.
// Returns 0, or an errno value.
int makeDirectories(const std::string& dir) {
  size_t pos = 1;
  for (;;) {
    size_t slash = dir.find('/', pos);
    std::string prefix = dir.substr(0, slash);
    if (mkdir(prefix.c_str(), 0700) == 0) {
      if (chmod(prefix.c_str(), 0700) != 0) return errno;
    } else if (errno != EEXIST) {
      return errno;
    }
    if (slash == std::string::npos) break;
    pos = slash + 1;
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

const char* stopKindName(int flags) {
  switch (flags) {
    case 1:
      return "normal";
    case 2:
      return "forced";
    default:
      return "cancel";
  }
}

}  // namespace

SRCDriver::SRCDriver(const char* subsystem) : subsystem_(subsystem != nullptr ? subsystem : "") {}

SRCDriver::~SRCDriver() {
  if (fd_ >= 0) {
    close(fd_);
    // Removed while the exclusive lock is still ours, so it is our file.
    if (!path_.empty()) unlink(path_.c_str());
  }
  if (exclFd_ >= 0) close(exclFd_);
}

int SRCDriver::InitSRC(int syscall_restarts, const char* excl_file, int excl_id,
                       void (*sigdanger_handler)(int)) {
  (void)sigdanger_handler;
  if (fd_ >= 0 || exclFd_ >= 0) {
    SRC_ERROR(velt_src::SRC_ALREADY,
              "InitSRC was already called for subsystem " + subsystem_);
    return velt_src::SRC_ALREADY;
  }
  restarts_ = syscall_restarts != 0;
  if (subsystem_.empty()) {
    SRC_ERROR(velt_src::SRC_NO_NAME, std::string("no subsystem name given"));
    return velt_src::SRC_NO_NAME;
  }
  std::string path, why;
  if (velt_src::checkedSocketPath(subsystem_.c_str(), &path, &why) != 0) {
    SRC_ERROR(velt_src::SRC_SOCKET, why);
    return velt_src::SRC_SOCKET;
  }
  if (excl_file == nullptr || excl_file[0] == '\0') {
    SRC_ERROR(velt_src::SRC_EXCL_OPEN, "no exclusive file given for subsystem " + subsystem_);
    return velt_src::SRC_EXCL_OPEN;
  }

  int xfd;
  do {
    xfd = open(excl_file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  } while (xfd < 0 && errno == EINTR);
  if (xfd < 0) {
    int e = errno;
    SRC_ERROR(e, std::string("cannot open the exclusive file ") + excl_file + ": " + errnoText(e));
    return velt_src::SRC_EXCL_OPEN;
  }
  int rc;
  do {
    rc = flock(xfd, LOCK_EX | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    int e = errno;
    close(xfd);
    if (e == EWOULDBLOCK) {
      SRC_ERROR(e, "another instance of " + subsystem_ + " holds the exclusive file " +
                       excl_file + " (" + errnoText(e) + ")");
      return velt_src::SRC_EXCL_LOCKED;
    }
    SRC_ERROR(e, std::string("cannot lock the exclusive file ") + excl_file + ": " + errnoText(e));
    return velt_src::SRC_EXCL_OPEN;
  }
  key_t key = ftok(excl_file, excl_id);
  semKey_ = key == static_cast<key_t>(-1) ? 0u : static_cast<unsigned int>(key);

  // From here on a failure gives the lock back, so that a later attempt (or
  // another instance) can start cleanly.
  auto failSocket = [&](int code, const std::string& text, int line) {
    setError(code, text.c_str(), __FILE__, "InitSRC", line);
    close(xfd);
    return static_cast<int>(velt_src::SRC_SOCKET);
  };
  std::string dir = path.substr(0, path.rfind('/'));
  if (dir.empty()) dir = "/";
  if (int e = makeDirectories(dir)) {
    return failSocket(e, "cannot create the request socket directory " + dir + ": " + errnoText(e),
                      __LINE__);
  }
  char unsafe[512];
  if (cu_check_private_dir(dir.c_str(), geteuid(), unsafe, sizeof unsafe) != 0) {
    int e = errno;
    setError(e, (std::string("the request socket directory is not private: ") + unsafe).c_str(),
             __FILE__, "InitSRC", __LINE__);
    close(xfd);
    return velt_src::SRC_DIR_UNSAFE;
  }
  // We hold the exclusive lock, so a socket file left here belongs to a
  // dead instance; anything that is not a socket is not ours to remove.
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      return failSocket(EEXIST, path + " exists and is not a socket; not removing it", __LINE__);
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      int e = errno;
      return failSocket(e, "cannot remove the stale request socket " + path + ": " + errnoText(e),
                        __LINE__);
    }
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    int e = errno;
    return failSocket(e, "cannot create the request socket: " + errnoText(e), __LINE__);
  }
  // Credentials come with every request so that the sender can be checked.
  int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
    int e = errno;
    close(fd);
    return failSocket(e, "cannot enable credentials on the request socket: " + errnoText(e),
                      __LINE__);
  }
  // Replies are sent without waiting, so a reply must fit the send buffer
  // ahead of its reader: make it large (beyond net.core.wmem_max only for
  // root; the default stays when neither is allowed).
  int sendBuffer = static_cast<int>(velt_src::kReplySendBuffer);
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer, sizeof sendBuffer) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
  }
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    int e = errno;
    close(fd);
    return failSocket(e, "cannot bind the request socket " + path + ": " + errnoText(e), __LINE__);
  }
  if (chmod(path.c_str(), 0600) != 0) {
    int e = errno;
    close(fd);
    unlink(path.c_str());
    return failSocket(e, "cannot set the mode of the request socket " + path + ": " + errnoText(e),
                      __LINE__);
  }
  exclFd_ = xfd;
  fd_ = fd;
  path_ = path;
  error_ = velt_src::SRCError();
  return velt_src::SRC_OK;
}

void SRCDriver::setError(int code, const char* text, const char* file, const char* function,
                         int line) {
  error_.code = code;
  error_.source = "libsrc";
  error_.text = text != nullptr ? text : "";
  error_.file = file != nullptr ? file : "";
  error_.function = function != nullptr ? function : "";
  error_.line = line;
}

void SRCDriver::setStopCode(int code, const char* msg) {
  velt::MutexLock lock(stopMu_);
  stopMsg_ = msg != nullptr ? msg : "";
  stopCode_.store(code);
}

const char* SRCDriver::getStopMsg() const {
  velt::MutexLock lock(stopMu_);
  return stopMsg_.c_str();
}

void SRCDriver::stopNormal() { setStopCode(-1, "STOP NORMAL request from SRC"); }

void SRCDriver::stopForced() { setStopCode(-2, "STOP FORCED request from SRC"); }

void SRCDriver::stopCancel(int dae_signo) {
  (void)dae_signo;
  setStopCode(-3, "STOP CANCEL request from SRC");
}

void SRCDriver::traceBegin(int trace_level) {
  (void)trace_level;
  error_printf("%s: trace requests are not supported\n", subsystem_.c_str());
}

void SRCDriver::traceEnd() {
  error_printf("%s: trace requests are not supported\n", subsystem_.c_str());
}

void SRCDriver::refresh() {
  error_printf("%s: refresh requests are not supported\n", subsystem_.c_str());
}

void SRCDriver::longStatus() {
  error_printf("%s: long status is not supported\n", subsystem_.c_str());
}

int SRCDriver::otherReq(short dae_request, short parm1, short parm2, const void* parm3,
                        int parm3_len) {
  (void)parm1;
  (void)parm2;
  (void)parm3;
  (void)parm3_len;
  error_printf("%s: request %d is not supported\n", subsystem_.c_str(), dae_request);
  return -1;
}

int SRCDriver::doSRCreq() {
  if (fd_ < 0) return -1;
  // A request virtual that loops back here must not start a second reply.
  if (replying_) return 0;

  // One datagram into a bounded buffer; a longer one is detected through
  // MSG_TRUNC and refused, never read in full.
  unsigned char buf[velt_src::kMaxRequestSize];
  struct sockaddr_un from;
  union {
    struct cmsghdr align;
    char space[CMSG_SPACE(sizeof(struct ucred))];
  } control;
  struct iovec iov = {buf, sizeof buf};
  struct msghdr msg;
  ssize_t n;
  for (;;) {
    memset(&from, 0, sizeof from);
    memset(&msg, 0, sizeof msg);
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.space;
    msg.msg_controllen = sizeof control.space;
    n = recvmsg(fd_, &msg, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    if (n >= 0) break;
    int e = errno;
    if (e == EINTR && restarts_) continue;
    if (e == EINTR || e == EAGAIN || e == EWOULDBLOCK) return 0;
    SRC_ERROR(e, "cannot read a request from " + path_ + ": " + errnoText(e));
    return -1;
  }

  // Descriptors are not part of a request; takeCredentials closes any we
  // were sent.
  struct ucred credBuf;
  const struct ucred* cred = velt_src::takeCredentials(&msg, &credBuf) ? &credBuf : nullptr;
  // A sender without an address cannot be answered; its request is dropped.
  if (msg.msg_namelen <= sizeof(sa_family_t) || msg.msg_namelen > sizeof from) return 0;
  beginReply(&from, msg.msg_namelen, cred != nullptr ? cred->pid : 0,
             cred != nullptr ? cred->uid : 0);

  if (cred == nullptr) {
    answerRefusal(subsystem_ + ": permission denied: the request came without credentials\n",
                  velt_src::kRcRefused);
    return 0;
  }
  if (cred->uid != 0 && cred->uid != geteuid()) {
    answerRefusal(subsystem_ +
                      ": permission denied: only root or the daemon's user may send requests\n",
                  velt_src::kRcRefused);
    return 0;
  }
  Request req;
  std::string why;
  if ((msg.msg_flags & MSG_TRUNC) != 0 || static_cast<size_t>(n) > sizeof buf) {
    why = "datagram of " + std::to_string(n) + " bytes exceeds the largest request (" +
          std::to_string(velt_src::kMaxRequestSize) + " bytes)";
  } else {
    velt_src::parseRequest(buf, static_cast<size_t>(n), &req, &why);
  }
  if (!why.empty()) {
    answerRefusal(subsystem_ + ": SRC request rejected: " + why + "\n", velt_src::kRcRejected);
    return 0;
  }

  try {
    int rc = 0;
    switch (req.action) {
      case velt_src::ACT_STATUS:
        if (req.flags == 0) {
          inform_printf("Subsystem         PID     Status\n");
          inform_printf(" %-16s %-7d active\n", subsystem_.c_str(), static_cast<int>(getpid()));
        } else {
          longStatus();
        }
        break;
      case velt_src::ACT_STOP:
        // The stop virtuals may end the process, so the requester gets its
        // complete answer before they run.
        inform_printf("%s: stop %s requested\n", subsystem_.c_str(), stopKindName(req.flags));
        finishReply(0);
        if (req.flags == 1) {
          stopNormal();
        } else if (req.flags == 2) {
          stopForced();
        } else {
          stopCancel(SIGTERM);
        }
        return 1;
      case velt_src::ACT_TRACE_ON:
        traceBegin((req.flags & 1) != 0 ? 1 : 0);
        break;
      case velt_src::ACT_TRACE_OFF:
        traceEnd();
        break;
      case velt_src::ACT_REFRESH:
        refresh();
        break;
      case velt_src::ACT_OTHER:
        rc = otherReq(req.dae_request, req.parm1, req.parm2,
                      req.hasParm3 ? req.parm3.c_str() : nullptr,
                      req.hasParm3 ? static_cast<int>(req.parm3.size()) : 0);
        break;
    }
    finishReply(rc);
  } catch (...) {
    // Leave the driver able to serve the next request.
    replying_ = false;
    informBuf_.clear();
    errorBuf_.clear();
    throw;
  }
  return 1;
}

void SRCDriver::beginReply(const void* addr, size_t addrLen, pid_t pid, uid_t uid) {
  replyAddr_.assign(static_cast<const char*>(addr), addrLen);
  informBuf_.clear();
  errorBuf_.clear();
  replyBroken_ = false;
  replyPid_ = pid;
  replyUid_ = uid;
  replying_ = true;

  // Nothing we sent is left unread: every requester has caught up.
  int unsent = 0;
  if (ioctl(fd_, SIOCOUTQ, &unsent) == 0 && unsent == 0) unreadReplies_.clear();
  int& unread = unreadReplies_[replyAddr_];
  if (unread >= velt_src::kMaxUnreadRepliesPerRequester) {
    dropReply("the requester has " + std::to_string(unread) + " replies unread");
    return;
  }
  ++unread;
  if (unreadReplies_.size() > kMaxTrackedRequesters) {
    for (auto it = unreadReplies_.begin(); it != unreadReplies_.end();) {
      if (it->second < velt_src::kMaxUnreadRepliesPerRequester) {
        it = unreadReplies_.erase(it);
      } else {
        ++it;
      }
    }
    if (unreadReplies_.size() > kMaxTrackedRequesters) unreadReplies_.clear();
  }
}

void SRCDriver::dropReply(const std::string& reason) {
  if (replyBroken_) return;
  replyBroken_ = true;
  long long dropped = ++repliesDropped_;
  if (!dropObserver_) return;
  long long now = monotonicMs();
  if (lastDropToldMs_ >= 0 && now - lastDropToldMs_ < 1000) return;
  lastDropToldMs_ = now;
  velt_src::ReplyDrop drop;
  drop.dropped = dropped;
  drop.pid = replyPid_;
  drop.uid = replyUid_;
  drop.reason = reason;
  dropObserver_(drop);
}

void SRCDriver::answerRefusal(const std::string& text, int rc) {
  errorBuf_ = text;
  finishReply(rc);
}

int SRCDriver::inform_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = appendText(velt_src::kReplyInform, fmt, ap);
  va_end(ap);
  return n;
}

int SRCDriver::vinform_printf(const char* fmt, va_list ap) {
  return appendText(velt_src::kReplyInform, fmt, ap);
}

int SRCDriver::error_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = appendText(velt_src::kReplyError, fmt, ap);
  va_end(ap);
  return n;
}

int SRCDriver::verror_printf(const char* fmt, va_list ap) {
  return appendText(velt_src::kReplyError, fmt, ap);
}

int SRCDriver::appendText(int kind, const char* fmt, va_list ap) {
  if (!replying_ || fmt == nullptr) return 0;
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return -1;
  if (replyBroken_) return n;
  // Text of the other channel goes out first, so that the requester sees
  // inform and error text in the order they were written.
  flushKind(kind == velt_src::kReplyInform ? velt_src::kReplyError : velt_src::kReplyInform);
  std::string& buf = kind == velt_src::kReplyInform ? informBuf_ : errorBuf_;
  size_t len = static_cast<size_t>(n);
  if (len < sizeof small) {
    buf.append(small, len);
  } else {
    size_t old = buf.size();
    buf.resize(old + len + 1);
    vsnprintf(&buf[old], len + 1, fmt, ap);
    buf.resize(old + len);
  }
  // Full chunks leave at once so that the buffer stays within one chunk.
  if (buf.size() >= velt_src::kMaxReplyText) {
    size_t full = buf.size() - buf.size() % velt_src::kMaxReplyText;
    for (size_t off = 0; off < full; off += velt_src::kMaxReplyText) {
      sendChunk(kind, buf.data() + off, velt_src::kMaxReplyText);
    }
    buf.erase(0, full);
  }
  return n;
}

void SRCDriver::flushKind(int kind) {
  std::string& buf = kind == velt_src::kReplyInform ? informBuf_ : errorBuf_;
  for (size_t off = 0; off < buf.size(); off += velt_src::kMaxReplyText) {
    sendChunk(kind, buf.data() + off, std::min(velt_src::kMaxReplyText, buf.size() - off));
  }
  buf.clear();
}

void SRCDriver::inform_flush() {
  if (!replying_) return;
  flushKind(velt_src::kReplyInform);
  flushKind(velt_src::kReplyError);
}

void SRCDriver::sendChunk(int kind, const char* data, size_t len) {
  if (replyBroken_) return;
  sendDatagram(velt_src::encodeReply(static_cast<velt_src::ReplyKind>(kind), 0, data, len));
}

void SRCDriver::finishReply(int rc) {
  inform_flush();
  if (!replyBroken_) sendDatagram(velt_src::encodeReply(velt_src::kReplyEnd, rc, nullptr, 0));
  replying_ = false;
  informBuf_.clear();
  errorBuf_.clear();
  replyAddr_.clear();
}

void SRCDriver::sendDatagram(const std::string& datagram) {
  // Never waits: the main loop that serves requests must not be held by a
  // requester that stops reading.
  const struct sockaddr* to = reinterpret_cast<const struct sockaddr*>(replyAddr_.data());
  socklen_t toLen = static_cast<socklen_t>(replyAddr_.size());
  ssize_t n;
  do {
    n = sendto(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL, to, toLen);
  } while (n < 0 && errno == EINTR);
  if (n >= 0) return;
  int e = errno;
  if (e == EAGAIN || e == EWOULDBLOCK) {
    dropReply("the requester does not read its replies (no room to send)");
  } else if (e == ECONNREFUSED || e == ENOENT) {
    dropReply("the requester is gone");
  } else {
    dropReply("cannot send to the requester: " + errnoText(e));
  }
}

int srcstop(const char* host, const char* subsystem, int stop_type, short* replen,
            struct srcrep* reply, char* cont) {
  (void)cont;
  // Only the local node's subsystems are reachable through their sockets.
  if ((host != nullptr && host[0] != '\0') || subsystem == nullptr || subsystem[0] == '\0' ||
      stop_type < 1 || stop_type > 3) {
    errno = EINVAL;
    return -1;
  }
  constexpr int kStopReplyTimeoutMs = 10000;
  size_t capacity = sizeof(struct srcrep);
  if (replen != nullptr && *replen > 0 && static_cast<size_t>(*replen) < capacity) {
    capacity = static_cast<size_t>(*replen);
  }
  size_t textRoom = capacity > offsetof(struct srcrep, text)
                        ? capacity - offsetof(struct srcrep, text) : 0;
  std::string text;
  velt_src::Request req;
  req.action = velt_src::ACT_STOP;
  req.flags = stop_type;
  std::string err;
  int rc = velt_src::sendRequest(
      subsystem, req, kStopReplyTimeoutMs,
      [&](bool, const std::string& piece) {
        if (textRoom > 0 && text.size() < textRoom - 1) {
          text.append(piece, 0, textRoom - 1 - text.size());
        }
      },
      &err);
  if (rc == -1 && !err.empty()) {
    if (replen != nullptr) *replen = 0;
    return -1;  // errno set by sendRequest
  }
  size_t filled = 0;
  if (reply != nullptr && capacity >= sizeof reply->srcrc) {
    reply->srcrc = rc;
    filled = sizeof reply->srcrc;
    if (textRoom > 0) {
      memcpy(reply->text, text.data(), text.size());
      reply->text[text.size()] = '\0';
      filled = offsetof(struct srcrep, text) + text.size() + 1;
    }
  }
  if (replen != nullptr) *replen = static_cast<short>(filled);
  return 0;
}

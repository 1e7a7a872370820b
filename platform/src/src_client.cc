#include "src_client.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "internal/src_wire.h"
#include "vx_cu.h"

namespace velt_src {
namespace {

// Closes the requester's socket on every way out of sendRequest.
// Thread-compatible; lives on one call's stack.
class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() {
    if (fd_ >= 0) close(fd_);
  }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  int fd_;
};

std::string errnoText(int err) {
  char buf[128];
  // The GNU strerror_r returns the text, which may or may not be buf.
  return strerror_r(err, buf, sizeof buf);
}

// Records why the request failed; errno carries the cause for srcstop.
int fail(std::string* err, int errnum, const std::string& text) {
  if (err != nullptr) *err = text;
  errno = errnum;
  return -1;
}

// Waits for events on fd for at most timeoutMs, restarting after signals
// with the time that is left. Returns 1 when ready, 0 on time-out, -1 on error.
int waitFor(int fd, short events, int timeoutMs) {
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  int left = timeoutMs;
  for (;;) {
    struct pollfd pfd = {fd, events, 0};
    int n = poll(&pfd, 1, left);
    if (n > 0) return 1;
    if (n == 0) return 0;
    if (errno != EINTR) return -1;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long spent = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
    if (spent >= timeoutMs) return 0;
    left = timeoutMs - static_cast<int>(spent);
  }
}

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string secondsText(int ms) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.1f", ms / 1000.0);
  return buf;
}

}  // namespace

bool trustedReplyUid(const std::string& dir, uid_t* owner, std::string* why) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0) {
    *why = "cannot check " + dir + ": " + errnoText(errno);
    return false;
  }
  char text[512];
  if (cu_check_private_dir(dir.c_str(), st.st_uid, text, sizeof text) != 0) {
    *why = text;
    return false;
  }
  char real[PATH_MAX];
  if (realpath(dir.c_str(), real) == nullptr) {
    *why = "cannot resolve " + dir + ": " + errnoText(errno);
    return false;
  }
  std::string up = real;
  while (up != "/") {
    size_t slash = up.rfind('/');
    up = slash == 0 ? "/" : up.substr(0, slash);
    if (cu_check_private_dir(up.c_str(), st.st_uid, text, sizeof text) != 0) {
      *why = text;
      return false;
    }
  }
  *owner = st.st_uid;
  return true;
}

std::string socketPathFor(const char* subsystem) {
  std::string dir = srcDirectory();
  std::string name = subsystem != nullptr ? subsystem : "";
  return dir == "/" ? dir + name : dir + "/" + name;
}

int sendRequest(const char* subsystem, const Request& req, int timeoutMs,
                const std::function<void(bool isError, const std::string& text)>& onText,
                std::string* err, int* daemonPid,
                const std::function<void(const std::string& warning)>& onIgnored) {
  if (err != nullptr) err->clear();
  if (timeoutMs <= 0) return fail(err, EINVAL, "the reply time-out must be positive");
  std::string path, why;
  if (checkedSocketPath(subsystem, &path, &why) != 0) return fail(err, EINVAL, why);
  std::string datagram;
  if (encodeRequest(req, &datagram, &why) != 0) return fail(err, EINVAL, why);

  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    int e = errno;
    return fail(err, e, "cannot create a request socket: " + errnoText(e));
  }
  FdCloser closer(fd);
  // SO_PASSCRED brings the sender's credentials with each reply, so that
  // only the subsystem's answer is taken; the autobind gives the subsystem
  // an address to answer to.
  int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
    int e = errno;
    return fail(err, e, "cannot enable credentials on the request socket: " + errnoText(e));
  }
  struct sockaddr_un self;
  memset(&self, 0, sizeof self);
  self.sun_family = AF_UNIX;
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&self), sizeof(sa_family_t)) != 0) {
    int e = errno;
    return fail(err, e, "cannot bind the request socket: " + errnoText(e));
  }
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    int e = errno;
    if (e == ENOENT) {
      return fail(err, e, std::string("subsystem ") + subsystem +
                              " is not active (no request socket at " + path + ")");
    }
    if (e == ECONNREFUSED) {
      return fail(err, e, std::string("subsystem ") + subsystem +
                              " is not active (nobody serves the request socket at " + path +
                              ")");
    }
    if (e == EACCES || e == EPERM) {
      return fail(err, e, "permission denied to reach subsystem " + std::string(subsystem) +
                              " at " + path + " (only root or the daemon's user may send requests)");
    }
    return fail(err, e, "cannot reach subsystem " + std::string(subsystem) + " at " + path +
                            ": " + errnoText(e));
  }

  for (;;) {
    ssize_t n = send(fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(datagram.size())) break;
    int e = n < 0 ? errno : EMSGSIZE;
    if (e == EINTR) continue;
    if (e == EAGAIN || e == EWOULDBLOCK) {
      int ready = waitFor(fd, POLLOUT, timeoutMs);
      if (ready > 0) continue;
      if (ready == 0) {
        return fail(err, ETIMEDOUT, std::string("subsystem ") + subsystem +
                                        " did not take the request within " +
                                        std::to_string(timeoutMs) + " ms (its queue is full)");
      }
      e = errno;
    }
    if (e == ECONNREFUSED || e == ENOENT) {
      return fail(err, e, std::string("subsystem ") + subsystem + " went away before the request "
                                                                  "could be sent");
    }
    return fail(err, e, "cannot send the request to " + path + ": " + errnoText(e));
  }

  // Who may answer besides root and ourselves.
  uid_t owner = 0;
  std::string ownerWhy;
  std::string dir = path.substr(0, path.rfind('/'));
  bool ownerTrusted = trustedReplyUid(dir.empty() ? "/" : dir, &owner, &ownerWhy);
  pid_t answering = 0;
  long ignored = 0;
  auto ignore = [&](const std::string& why) {
    ++ignored;
    if (onIgnored) onIgnored(why);
  };
  auto ignoredText = [&]() -> std::string {
    if (ignored == 0) return "";
    return " (" + std::to_string(ignored) + " datagram" + (ignored == 1 ? "" : "s") +
           " from untrusted senders ignored)";
  };

  // One reply datagram at a time into a bounded buffer; anything longer is
  // a broken peer, detected through MSG_TRUNC rather than trusted.
  unsigned char buf[kMaxReplySize];
  union {
    struct cmsghdr align;
    char space[CMSG_SPACE(sizeof(struct ucred))];
  } control;
  // Only trusted datagrams move the deadline: a stream of forged ones
  // cannot keep the requester waiting.
  long long deadline = nowMs() + timeoutMs;
  for (;;) {
    long long left = deadline - nowMs();
    int ready = left > 0 ? waitFor(fd, POLLIN, static_cast<int>(left)) : 0;
    if (ready == 0) {
      return fail(err, ETIMEDOUT, std::string("no reply from subsystem ") + subsystem +
                                      " within " + secondsText(timeoutMs) + " s" + ignoredText());
    }
    if (ready < 0) {
      int e = errno;
      return fail(err, e, "waiting for the reply failed: " + errnoText(e));
    }
    struct iovec iov = {buf, sizeof buf};
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.space;
    msg.msg_controllen = sizeof control.space;
    ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    if (n < 0) {
      int e = errno;
      if (e == EINTR || e == EAGAIN || e == EWOULDBLOCK) continue;
      if (e == ECONNREFUSED || e == ECONNRESET) {
        return fail(err, e, std::string("subsystem ") + subsystem +
                                " went away before it finished its reply");
      }
      return fail(err, e, "cannot read the reply: " + errnoText(e));
    }
    struct ucred cred;
    bool hasCred = takeCredentials(&msg, &cred);
    if (!hasCred) {
      ignore("ignored a reply datagram that came without credentials");
      continue;
    }
    std::string from = "pid " + std::to_string(cred.pid) + " uid " + std::to_string(cred.uid);
    if (cred.uid != 0 && cred.uid != geteuid() && !(ownerTrusted && cred.uid == owner)) {
      ignore("ignored a reply datagram from " + from + ": neither root, nor this user, nor " +
             (ownerTrusted ? "the owner of " + dir : "a trusted owner (" + ownerWhy + ")"));
      continue;
    }
    if (answering != 0 && cred.pid != answering) {
      ignore("ignored a reply datagram from " + from + ": the reply is coming from pid " +
             std::to_string(answering));
      continue;
    }
    answering = cred.pid;
    deadline = nowMs() + timeoutMs;
    if (daemonPid != nullptr) *daemonPid = cred.pid;
    if ((msg.msg_flags & MSG_TRUNC) != 0 || static_cast<size_t>(n) > sizeof buf) {
      return fail(err, EPROTO, "malformed reply from subsystem " + std::string(subsystem) +
                                   ": datagram of " + std::to_string(n) +
                                   " bytes exceeds the largest reply");
    }
    Reply reply;
    if (parseReply(buf, static_cast<size_t>(n), &reply, &why) != 0) {
      return fail(err, EPROTO, "malformed reply from subsystem " + std::string(subsystem) + ": " +
                                   why);
    }
    if (reply.kind == kReplyEnd) return reply.rc;
    if (onText && !reply.text.empty()) onText(reply.kind == kReplyError, reply.text);
  }
}

}  // namespace velt_src

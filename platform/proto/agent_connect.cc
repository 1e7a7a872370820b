#include "agent_connect.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "frame_io.h"
#include "velt.pb.h"

namespace velt {
namespace wire {

const char* agentSocketPath() {
  const char* env = getenv("VELT_AGENT_SOCKET");
  return env != nullptr ? env : kDefaultAgentSocketPath;
}

size_t maxAgentSocketPathLength() { return sizeof(sockaddr_un::sun_path) - 1; }

AgentConnection connectToAgent(const char* path, int sendTimeoutSecs) {
  AgentConnection c;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  size_t pathLen = strlen(path);
  if (pathLen == 0) {
    c.step = ConnectStep::kEmptyPath;
    return c;
  }
  if (pathLen >= sizeof addr.sun_path) {
    c.step = ConnectStep::kPathTooLong;
    return c;
  }
  memcpy(addr.sun_path, path, pathLen + 1);

  // Non-blocking: a connect to an agent whose backlog is full fails with
  // EAGAIN at once instead of holding up the caller's retry loop.
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    c.step = ConnectStep::kSocket;
    c.err = errno;
    return c;
  }
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    c.step = ConnectStep::kConnect;
    c.err = errno;
    close(fd);
    return c;
  }

  // Only root or our own user may serve the agent socket: whoever else
  // managed to bind the path must not feed us answers.
  struct ucred cred;
  socklen_t credLen = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) {
    c.step = ConnectStep::kPeerCredentials;
    c.err = errno;
    close(fd);
    return c;
  }
  if (cred.uid != 0 && cred.uid != geteuid()) {
    c.step = ConnectStep::kForeignPeer;
    c.peerUid = cred.uid;
    c.peerPid = cred.pid;
    close(fd);
    return c;
  }
  c.peerUid = cred.uid;
  c.peerPid = cred.pid;

  // From here on sends block, with a bound, so that a message of many
  // packets goes out whole; reads poll.
  int flags = fcntl(fd, F_GETFL);
  struct timeval sendBound = {sendTimeoutSecs, 0};
  if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendBound, sizeof sendBound) != 0) {
    c.step = ConnectStep::kSetup;
    c.err = errno;
    close(fd);
    return c;
  }
  c.fd = fd;
  return c;
}

HelloOutcome exchangeHello(int fd, const std::string& helloBytes, std::chrono::milliseconds bound,
                           proto::AgentFrame* answer) {
  HelloOutcome out;
  int err = sendMessage(fd, helloBytes);
  if (err != 0) {
    out.step = HelloStep::kSendFailed;
    out.err = err;
    return out;
  }

  // The answer, within the bound. Packets are read one at a time, so what
  // follows the answer stays in the socket.
  auto deadline = std::chrono::steady_clock::now() + bound;
  Reassembler reassembler(kDefaultMaxMessage);
  // One byte more than a packet may have, so that a larger one shows.
  std::vector<char> buf(kMaxPacket + 1);
  std::string message;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      out.step = HelloStep::kTimedOut;
      out.why = "no answer to hello within " + std::to_string(bound.count()) + " ms";
      return out;
    }
    struct pollfd p = {fd, POLLIN | POLLRDHUP, 0};
    int n = poll(&p, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) continue;   // the deadline check above decides
    ssize_t len = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (len < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (len <= 0) {
      out.step = len == 0 ? HelloStep::kHungUp : HelloStep::kReadFailed;
      out.err = len == 0 ? 0 : errno;
      out.why = len == 0 ? "the agent hung up before answering hello" : "reading the hello answer failed";
      return out;
    }
    if (static_cast<size_t>(len) > kMaxPacket) {
      out.step = HelloStep::kBadFrame;
      out.why = "packet of " + std::to_string(len) + " bytes";
      return out;
    }
    int r = reassembler.feed(buf.data(), static_cast<size_t>(len), &message, &out.why);
    if (r < 0) {
      out.step = HelloStep::kBadFrame;
      return out;
    }
    if (r > 0) break;
  }
  if (!answer->ParseFromString(message)) {
    out.step = HelloStep::kBadFrame;
    out.why = "the hello answer does not parse";
  } else if (answer->version() != proto::WIRE_VERSION_1) {
    out.step = HelloStep::kWrongVersion;
    out.why = "the agent speaks wire version " + std::to_string(answer->version());
  } else if (answer->body_case() != proto::AgentFrame::kHelloReply) {
    out.step = HelloStep::kBadFrame;
    out.why = "the first frame is not the hello answer";
  }
  return out;
}

}  // namespace wire
}  // namespace velt

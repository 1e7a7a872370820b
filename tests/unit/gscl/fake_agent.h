// A stand-in for the node agent, scripted by each test: a SOCK_SEQPACKET
// listener in a temporary directory that speaks the agent socket's
// protocol (velt.proto frames through frame_io). Owned by the test's thread.
#ifndef VELT_TESTS_UNIT_GSCL_FAKE_AGENT_H_
#define VELT_TESTS_UNIT_GSCL_FAKE_AGENT_H_

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "frame_io.h"
#include "gscl_test_util.h"
#include "velt.pb.h"

namespace gscl_test {

namespace proto = velt::proto;

// A temporary directory, removed with what is left in it.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/gscl-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
  }
  ~TempDir() {
    if (!path_.empty()) {
      std::string cmd = "rm -rf '" + path_ + "'";
      int rc = system(cmd.c_str());
      (void)rc;
    }
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

constexpr uint32_t kAgentVersion = 0x02050000;   // 2.5.0.0

inline proto::ProviderId providerId(uint32_t instance, uint32_t node) {
  proto::ProviderId p;
  p.set_instance(instance);
  p.set_node(node);
  return p;
}

class FakeAgent {
 public:
  explicit FakeAgent(const std::string& path, int type = SOCK_SEQPACKET) {
    listenFd_ = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listenFd_, 4) != 0) {
      error_ = errno;
    }
  }
  ~FakeAgent() {
    closeConnection();
    if (listenFd_ >= 0) close(listenFd_);
  }
  FakeAgent(const FakeAgent&) = delete;
  FakeAgent& operator=(const FakeAgent&) = delete;

  int error() const { return error_; }
  int connectionFd() const { return connFd_; }

  // Accepts the pending connection, waiting at most the bound.
  bool acceptOne() {
    struct pollfd p = {listenFd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kBound).count())) != 1) return false;
    closeConnection();
    connFd_ = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    reassembler_ = velt::wire::Reassembler();
    return connFd_ >= 0;
  }

  // Reads the client's next frame, waiting at most bound. False on time-out,
  // end of stream or a frame that does not parse.
  bool readFrame(proto::ClientFrame* out, std::chrono::milliseconds bound = kBound) {
    auto until = std::chrono::steady_clock::now() + bound;
    std::vector<char> buf(velt::wire::kMaxPacket);
    while (true) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      struct pollfd p = {connFd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) != 1) continue;
      ssize_t len = recv(connFd_, buf.data(), buf.size(), 0);
      if (len <= 0) return false;
      std::string message;
      std::string why;
      int r = reassembler_.feed(buf.data(), static_cast<size_t>(len), &message, &why);
      if (r < 0) return false;
      if (r == 0) continue;
      return out->ParseFromString(message);
    }
  }

  // Reads the next request frame (skipping ping replies into pingReplies_).
  bool readRequest(proto::Request* out, std::chrono::milliseconds bound = kBound) {
    proto::ClientFrame f;
    while (readFrame(&f, bound)) {
      if (f.has_request()) {
        *out = f.request();
        return true;
      }
      if (f.has_ping_reply()) pingReplies_.push_back(f.ping_reply().seq());
    }
    return false;
  }

  bool send(const proto::AgentFrame& f) {
    std::string bytes;
    if (!f.SerializeToString(&bytes)) return false;
    return velt::wire::sendMessage(connFd_, bytes) == 0;
  }
  bool sendRaw(const std::string& packet) {
    return ::send(connFd_, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
  }
  // A frame's bytes as they travel, for tests that corrupt them.
  static std::string packetsOf(const std::string& message) {
    std::string all;
    for (const std::string& p : velt::wire::splitMessage(message)) all += p;
    return all;
  }

  // Accepts the connection, reads the hello (kept in hello()) and answers
  // it the way the agent does: the answer, then the domain control with
  // the active version.
  bool handshake(uint32_t node = 3, uint32_t activeVersion = kAgentVersion) {
    if (!acceptOne()) return false;
    proto::ClientFrame f;
    if (!readFrame(&f) || !f.has_hello()) return false;
    hello_ = f.hello();
    proto::AgentFrame a;
    a.set_version(1);
    proto::HelloReply* r = a.mutable_hello_reply();
    r->set_rc(0);
    r->set_node(node);
    r->set_agent_version(kAgentVersion);
    r->set_active_version(activeVersion);
    if (!send(a)) return false;
    proto::AgentFrame d;
    d.set_version(1);
    d.mutable_domain_control()->set_event(3);
    d.mutable_domain_control()->set_active_version(activeVersion);
    return send(d);
  }

  bool reply(uint64_t id, int32_t rc, const std::string& text = "") {
    proto::AgentFrame a;
    a.set_version(1);
    a.mutable_reply()->set_id(id);
    a.mutable_reply()->set_rc(rc);
    a.mutable_reply()->set_text(text);
    return send(a);
  }

  // Reads the next request and answers it with rc; the request is kept in
  // *out when out is not null.
  bool answerNext(int32_t rc, proto::Request* out = nullptr) {
    proto::Request r;
    if (!readRequest(&r)) return false;
    if (out != nullptr) *out = r;
    return reply(r.id(), rc);
  }

  bool notify(const proto::Notification& n) {
    proto::AgentFrame a;
    a.set_version(1);
    *a.mutable_notification() = n;
    return send(a);
  }

  bool ping(uint64_t seq, uint32_t timeLimit) {
    proto::AgentFrame a;
    a.set_version(1);
    a.mutable_ping()->set_seq(seq);
    a.mutable_ping()->set_time_limit(timeLimit);
    return send(a);
  }

  const proto::Hello& hello() const { return hello_; }
  std::vector<uint64_t>& pingReplies() { return pingReplies_; }

  void closeConnection() {
    if (connFd_ >= 0) close(connFd_);
    connFd_ = -1;
  }
  // Stops listening but leaves the socket file behind, as a crashed agent does.
  void stopListening() {
    if (listenFd_ >= 0) close(listenFd_);
    listenFd_ = -1;
  }
  // Whether our side of the connection saw the client close it (frames it
  // still sent are read and dropped).
  bool peerClosed() {
    auto until = std::chrono::steady_clock::now() + kBound;
    std::vector<char> buf(velt::wire::kMaxPacket);
    while (std::chrono::steady_clock::now() < until) {
      struct pollfd p = {connFd_, POLLIN, 0};
      if (poll(&p, 1, 100) != 1) continue;
      ssize_t len = recv(connFd_, buf.data(), buf.size(), MSG_DONTWAIT);
      if (len == 0) return true;
      if (len < 0 && errno != EAGAIN) return true;
    }
    return false;
  }

 private:
  int listenFd_ = -1;
  int connFd_ = -1;
  int error_ = 0;
  velt::wire::Reassembler reassembler_;
  proto::Hello hello_;
  std::vector<uint64_t> pingReplies_;
};

}  // namespace gscl_test

#endif  // VELT_TESTS_UNIT_GSCL_FAKE_AGENT_H_

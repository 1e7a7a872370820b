// A stand-in for the node agent in libvx_mc's tests: a SOCK_SEQPACKET
// listener in a temporary directory (VELT_AGENT_SOCKET points at it) and a
// thread that accepts one connection, answers its hello and then runs the
// test's script on it. Scripts speak the agent socket's frames through
// AgentConn. The FakeAgent is owned by the test's thread; its AgentConn by
// the agent thread (hangUp() excepted, which any thread may call).
#ifndef VELT_TESTS_UNIT_MC_MC_FAKE_AGENT_H_
#define VELT_TESTS_UNIT_MC_MC_FAKE_AGENT_H_

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frame_io.h"
#include "velt.pb.h"

namespace mc_test {

namespace proto = velt::proto;

// Generous bound for what should happen almost at once; only a broken
// implementation (or a badly overloaded machine) reaches it.
constexpr std::chrono::milliseconds kBound{5000};

// A one-shot flag one thread raises and another waits for, with a bound.
class Signal {
 public:
  void raise() {
    std::lock_guard<std::mutex> lk(mu_);
    raised_ = true;
    cv_.notify_all();
  }
  bool wait(std::chrono::milliseconds bound = kBound) {
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, bound, [this] { return raised_; });
  }
  bool raised() {
    std::lock_guard<std::mutex> lk(mu_);
    return raised_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  bool raised_ = false;
};

// The agent's end of one client connection.
class AgentConn {
 public:
  explicit AgentConn(int fd) : fd_(fd) {}
  ~AgentConn() {
    if (fd_ >= 0) close(fd_);
  }
  AgentConn(const AgentConn&) = delete;
  AgentConn& operator=(const AgentConn&) = delete;

  // The client's next frame within bound; false on time-out, end of stream
  // or a frame that does not parse.
  bool readFrame(proto::ClientFrame* out, std::chrono::milliseconds bound = kBound) {
    auto until = std::chrono::steady_clock::now() + bound;
    std::vector<char> buf(velt::wire::kMaxPacket);
    while (true) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) != 1) continue;
      ssize_t len = recv(fd_, buf.data(), buf.size(), 0);
      if (len <= 0) return false;
      std::string message;
      std::string why;
      int r = reassembler_.feed(buf.data(), static_cast<size_t>(len), &message, &why);
      if (r < 0) return false;
      if (r == 0) continue;
      return out->ParseFromString(message);
    }
  }

  // The next request (ping replies read meanwhile are kept).
  bool readRequest(proto::Request* out, std::chrono::milliseconds bound = kBound) {
    proto::ClientFrame f;
    while (readFrame(&f, bound)) {
      if (f.has_request()) {
        *out = f.request();
        return true;
      }
      if (f.has_ping_reply()) pingReplies.push_back(f.ping_reply().seq());
    }
    return false;
  }

  // Whether the client closed the connection within bound (frames it still
  // sent are read and dropped).
  bool peerClosed(std::chrono::milliseconds bound = kBound) {
    auto until = std::chrono::steady_clock::now() + bound;
    std::vector<char> buf(velt::wire::kMaxPacket);
    while (std::chrono::steady_clock::now() < until) {
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 50) != 1) continue;
      ssize_t len = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
      if (len == 0) return true;
      if (len < 0 && errno != EAGAIN) return true;
    }
    return false;
  }

  bool send(const proto::AgentFrame& f) {
    std::string bytes;
    if (!f.SerializeToString(&bytes)) return false;
    return sendMessage(bytes);
  }
  // A message as it is, framed.
  bool sendMessage(const std::string& bytes) { return velt::wire::sendMessage(fd_, bytes) == 0; }
  // One packet as it is, unframed.
  bool sendRaw(const std::string& packet) {
    return ::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
  }

  bool reply(uint64_t id, int32_t rc, const std::string& text = "", const proto::KorAnswer* kor = nullptr) {
    proto::AgentFrame a;
    a.set_version(1);
    a.mutable_reply()->set_id(id);
    a.mutable_reply()->set_rc(rc);
    a.mutable_reply()->set_text(text);
    if (kor != nullptr) *a.mutable_reply()->mutable_kor() = *kor;
    return send(a);
  }
  bool replyRegistration(uint64_t id, uint64_t registration) {
    proto::KorAnswer kor;
    kor.set_registration(registration);
    return reply(id, 0, "", &kor);
  }
  bool event(const proto::KorEvent& e) {
    proto::AgentFrame a;
    a.set_version(1);
    *a.mutable_kor_event() = e;
    return send(a);
  }
  bool ping(uint64_t seq) {
    proto::AgentFrame a;
    a.set_version(1);
    a.mutable_ping()->set_seq(seq);
    a.mutable_ping()->set_time_limit(5);
    return send(a);
  }

  void shutdownBoth() { shutdown(fd_, SHUT_RDWR); }

  std::vector<uint64_t> pingReplies;

 private:
  int fd_;
  velt::wire::Reassembler reassembler_;
};

class FakeAgent {
 public:
  using Script = std::function<void(AgentConn&)>;

  FakeAgent() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/mc-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) dir_ = buf.data();
    path_ = dir_ + "/agent.sock";
    listenFd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
    if (dir_.empty() || listenFd_ < 0 ||
        bind(listenFd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 || listen(listenFd_, 4) != 0) {
      error_ = errno != 0 ? errno : EINVAL;
    }
    setenv("VELT_AGENT_SOCKET", path_.c_str(), 1);
  }
  ~FakeAgent() {
    hangUp();
    if (thread_.joinable()) thread_.join();
    if (listenFd_ >= 0) close(listenFd_);
    unsetenv("VELT_AGENT_SOCKET");
    if (!path_.empty()) unlink(path_.c_str());
    if (!dir_.empty()) rmdir(dir_.c_str());
  }
  FakeAgent(const FakeAgent&) = delete;
  FakeAgent& operator=(const FakeAgent&) = delete;

  int error() const { return error_; }
  const std::string& path() const { return path_; }

  // Serves the next connection on the agent thread: accepts it, reads the
  // hello (kept in hello()), answers it with helloRc (and text), and when
  // it accepted runs script, after a domain control frame as the real
  // agent sends one (a KOR session has to ignore it).
  void serve(Script script, int32_t helloRc = 0, const std::string& helloText = "") {
    thread_ = std::thread([this, script, helloRc, helloText] {
      struct pollfd p = {listenFd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(kBound.count())) != 1) {
        failures_.push_back("no connection came");
        done_.raise();
        return;
      }
      int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
        failures_.push_back("accept failed");
        done_.raise();
        return;
      }
      AgentConn conn(fd);
      connFd_.store(fd);
      proto::ClientFrame f;
      if (!conn.readFrame(&f) || !f.has_hello()) {
        failures_.push_back("no hello came");
      } else {
        hello_ = f.hello();
        proto::AgentFrame a;
        a.set_version(1);
        a.mutable_hello_reply()->set_rc(helloRc);
        a.mutable_hello_reply()->set_node(3);
        a.mutable_hello_reply()->set_agent_version(0x02050000);
        a.mutable_hello_reply()->set_text(helloText);
        if (!conn.send(a)) failures_.push_back("cannot answer the hello");
        if (helloRc == 0) {
          proto::AgentFrame d;
          d.set_version(1);
          d.mutable_domain_control()->set_event(3);
          d.mutable_domain_control()->set_active_version(0x02050000);
          conn.send(d);
          script(conn);
        }
      }
      connFd_.store(-1);
      done_.raise();
    });
  }

  // Waits for the script to end; false when it did not within bound.
  bool finished(std::chrono::milliseconds bound = kBound) { return done_.wait(bound); }
  // What went wrong on the agent's side before the script ran.
  const std::vector<std::string>& failures() const { return failures_; }
  const proto::Hello& hello() const { return hello_; }

  // Shuts the served connection down from any thread, so that whatever
  // waits on it (the client, the script) ends.
  void hangUp() {
    int fd = connFd_.load();
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
  }

 private:
  std::string dir_;
  std::string path_;
  int listenFd_ = -1;
  int error_ = 0;
  std::thread thread_;
  std::atomic<int> connFd_{-1};
  Signal done_;
  std::vector<std::string> failures_;   // written by the agent thread before done_
  proto::Hello hello_;                  // likewise
};

// Declared after a std::async future whose thread waits on the agent: when
// the scope ends it releases the agent's script and shuts the connection
// down, so that a failed assertion ends the test instead of hanging it in
// the future's destructor.
class OnScopeExitHangUp {
 public:
  OnScopeExitHangUp(FakeAgent& agent, Signal& release) : agent_(agent), release_(release) {}
  ~OnScopeExitHangUp() {
    release_.raise();
    agent_.hangUp();
    // The script may still be inside release_.wait(), which the test
    // declared and is about to destroy: let it leave first.
    agent_.finished();
  }
  OnScopeExitHangUp(const OnScopeExitHangUp&) = delete;
  OnScopeExitHangUp& operator=(const OnScopeExitHangUp&) = delete;

 private:
  FakeAgent& agent_;
  Signal& release_;
};

}  // namespace mc_test

#endif  // VELT_TESTS_UNIT_MC_MC_FAKE_AGENT_H_

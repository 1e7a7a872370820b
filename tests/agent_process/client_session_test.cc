// ClientSession in-process, over a socket pair, with short limits: what the
// process tests cannot reach in seconds (the hello time-out, the budget of
// unfinished messages shared by all connections) and the refusal's order.
#include "client_session.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "frame_io.h"

namespace velt {
namespace agent {
namespace {

// Records what the session hands its owner; accepts every hello.
class RecordingOwner : public ClientSession::Owner {
 public:
  void onHello(ClientSession& session, const proto::Hello& hello) override {
    hellos.push_back(hello);
    proto::AgentFrame reply;
    reply.set_version(1);
    reply.mutable_hello_reply()->set_rc(0);
    session.accept(reply);
  }
  void onRequest(ClientSession&, const proto::Request& request) override {
    requests.push_back(request);
  }
  void onClosed(ClientSession& session, const std::string& why, bool) override {
    closed[session.id()] = why;
  }
  std::vector<proto::Hello> hellos;
  std::vector<proto::Request> requests;
  std::map<uint64_t, std::string> closed;
};

class ClientSessionTest : public ::testing::Test {
 protected:
  // A session on one end of a socket pair; the other end is returned.
  int open(uint64_t id, std::shared_ptr<ClientSession>* out) {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
    peers_.push_back(fds[1]);
    *out = std::make_shared<ClientSession>(io_, fds[0], id, ClientSession::Peer(), limits_, &owner_);
    return fds[1];
  }
  void TearDown() override {
    for (int fd : peers_) ::close(fd);
  }
  // Runs the loop until done() or timeoutMs passed.
  bool runUntil(const std::function<bool()>& done, int timeoutMs = 3000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      io_.run_one_for(std::chrono::milliseconds(10));
      if (io_.stopped()) io_.restart();
    }
    return true;
  }
  static std::string helloBytes(const std::string& program) {
    proto::ClientFrame f;
    f.set_version(1);
    f.mutable_hello()->set_program(program);
    return f.SerializeAsString();
  }
  static int sendPacket(int fd, const std::string& packet) {
    ssize_t n = ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    return n < 0 ? errno : 0;
  }

  asio::io_context io_;
  ClientSession::Limits limits_;
  RecordingOwner owner_;
  std::vector<int> peers_;
};

TEST_F(ClientSessionTest, SilentConnectionIsClosedAfterTheHelloTimeout) {
  limits_.helloTimeout = std::chrono::milliseconds(100);
  std::shared_ptr<ClientSession> s;
  open(1, &s);
  s->start();
  auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(1) != 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(90));
  EXPECT_EQ(owner_.closed[1], "no hello within 100 ms");
}

TEST_F(ClientSessionTest, HelloInTimeKeepsTheConnection) {
  limits_.helloTimeout = std::chrono::milliseconds(100);
  std::shared_ptr<ClientSession> s;
  int peer = open(1, &s);
  s->start();
  ASSERT_EQ(wire::sendMessage(peer, helloBytes("quick")), 0);
  ASSERT_TRUE(runUntil([&] { return owner_.hellos.size() == 1; }));
  EXPECT_FALSE(runUntil([&] { return owner_.closed.count(1) != 0; }, 300));
  EXPECT_TRUE(s->accepted());
}

TEST_F(ClientSessionTest, UnfinishedMessagesOfAllConnectionsShareOneBudget) {
  limits_.partialBytes = std::make_shared<size_t>(0);
  limits_.maxPartialBytes = 150 * 1024;
  std::shared_ptr<ClientSession> a, b;
  int peerA = open(1, &a);
  int peerB = open(2, &b);
  a->start();
  b->start();
  // a: a hello of three packets, all but the last sent (120 KiB held).
  std::vector<std::string> packets = wire::splitMessage(helloBytes(std::string(130 * 1024, 'p')));
  ASSERT_EQ(packets.size(), 3u);
  ASSERT_EQ(sendPacket(peerA, packets[0]), 0);
  ASSERT_EQ(sendPacket(peerA, packets[1]), 0);
  ASSERT_TRUE(runUntil([&] { return *limits_.partialBytes == 2 * wire::kMaxChunk; }));
  // b: one more unfinished packet passes the budget; b goes, a stays.
  ASSERT_EQ(sendPacket(peerB, packets[0]), 0);
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(2) != 0; }));
  EXPECT_NE(owner_.closed[2].find("unfinished messages would pass 153600 bytes"),
            std::string::npos);
  EXPECT_EQ(*limits_.partialBytes, 2 * wire::kMaxChunk) << "b's share is given back";
  ASSERT_EQ(sendPacket(peerA, packets[2]), 0);
  ASSERT_TRUE(runUntil([&] { return owner_.hellos.size() == 1; }));
  EXPECT_EQ(owner_.hellos[0].program().size(), 130u * 1024);
  EXPECT_EQ(*limits_.partialBytes, 0u);
  EXPECT_EQ(owner_.closed.count(1), 0u);
}

TEST_F(ClientSessionTest, ClientThatDoesNotReadIsCutOffAtTheBound) {
  limits_.maxUnsentBytes = 256 * 1024;
  std::shared_ptr<ClientSession> s;
  int peer = open(1, &s);
  s->start();
  ASSERT_EQ(wire::sendMessage(peer, helloBytes("sleepy")), 0);
  ASSERT_TRUE(runUntil([&] { return s->accepted(); }));
  proto::AgentFrame big;
  big.set_version(1);
  big.mutable_notification()->set_message(std::string(10 * 1024, 'm'));
  int sent = 0;
  while (!s->closed() && sent < 10000) {
    s->send(big);
    ++sent;
    EXPECT_LE(s->unsentBytes(), limits_.maxUnsentBytes);
  }
  EXPECT_TRUE(s->closed());
  // The socket's own buffer took some; the queue took the bound.
  EXPECT_GT(sent, 25);
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(1) != 0; }));
  EXPECT_NE(owner_.closed[1].find("the client stopped reading"), std::string::npos);
}

TEST_F(ClientSessionTest, RefusalIsReadEvenWhenTheHelloFollowsIt) {
  std::shared_ptr<ClientSession> s;
  int peer = open(1, &s);
  proto::AgentFrame no;
  no.set_version(1);
  no.mutable_hello_reply()->set_rc(8);
  no.mutable_hello_reply()->set_text("not you");
  // Refused at accept, before the client has said anything.
  s->refuse(no, "refused: test");
  io_.poll();
  // The client's hello still goes through, and it reads the answer.
  ASSERT_EQ(wire::sendMessage(peer, helloBytes("late")), 0);
  io_.poll();
  std::vector<char> buf(wire::kMaxPacket);
  ssize_t n = recv(peer, buf.data(), buf.size(), 0);
  ASSERT_GT(n, 0);
  wire::Reassembler r;
  std::string message, why;
  ASSERT_EQ(r.feed(buf.data(), static_cast<size_t>(n), &message, &why), 1);
  proto::AgentFrame got;
  ASSERT_TRUE(got.ParseFromString(message));
  EXPECT_EQ(got.hello_reply().rc(), 8);
  EXPECT_EQ(recv(peer, buf.data(), buf.size(), 0), 0) << "then end of file";
  EXPECT_TRUE(owner_.hellos.empty());
  EXPECT_EQ(owner_.closed.count(1), 0u) << "it waits for the client to go";
  ::close(peer);
  peers_.clear();
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(1) != 0; }));
  EXPECT_EQ(owner_.closed[1], "refused: test");
}

}  // namespace
}  // namespace agent
}  // namespace velt

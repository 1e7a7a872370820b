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

// Frames of a known size, numbered, counting what it made; it tells when
// it is let go.
class CountingSource : public FrameSource {
 public:
  CountingSource(int frames, size_t bytes, int* made, bool* gone)
      : frames_(frames), bytes_(bytes), made_(made), gone_(gone) {}
  ~CountingSource() override { *gone_ = true; }
  bool next(std::string* frame, size_t* from) override {
    if (*made_ == frames_) return false;
    proto::AgentFrame f;
    f.set_version(1);
    f.mutable_reply()->set_id(static_cast<uint64_t>(++*made_));
    f.mutable_reply()->set_text(std::string(bytes_, 'p'));
    // Behind some bytes that are not the frame's, as a page's room is.
    *frame = std::string(7, 'x') + f.SerializeAsString();
    *from = 7;
    return true;
  }

 private:
  int frames_;
  size_t bytes_;
  int* made_;
  bool* gone_;
};

class FramesFromASource : public ClientSessionTest {
 protected:
  // An accepted session; the client's end is returned.
  int openAccepted(std::shared_ptr<ClientSession>* s) {
    int peer = open(1, s);
    (*s)->start();
    EXPECT_EQ(wire::sendMessage(peer, helloBytes("reader")), 0);
    EXPECT_TRUE(runUntil([&] { return (*s)->accepted(); }));
    EXPECT_TRUE(readFrame(peer).has_hello_reply());
    return peer;
  }
  // The next whole frame from the socket, the loop running meanwhile.
  proto::AgentFrame readFrame(int peer) {
    std::vector<char> buf(wire::kMaxPacket);
    std::string message, why;
    proto::AgentFrame f;
    bool whole = runUntil([&] {
      ssize_t n = recv(peer, buf.data(), buf.size(), MSG_DONTWAIT);
      if (n <= 0) return false;
      int rc = reassembler_.feed(buf.data(), static_cast<size_t>(n), &message, &why);
      EXPECT_GE(rc, 0) << why;
      return rc != 0;
    });
    EXPECT_TRUE(whole);
    EXPECT_TRUE(f.ParseFromString(message));
    return f;
  }

  wire::Reassembler reassembler_;
};

TEST_F(FramesFromASource, ASlowReaderGetsEveryFrameInOrderWithFewMadeAhead) {
  limits_.framesAhead = 200 * 1024;
  std::shared_ptr<ClientSession> s;
  int peer = openAccepted(&s);
  const int kFrames = 40;
  const size_t kBytes = 100 * 1024;
  int made = 0;
  bool gone = false;
  s->sendFrames(std::make_unique<CountingSource>(kFrames, kBytes, &made, &gone));
  // A frame queued after the source goes out after all of its frames.
  proto::AgentFrame after;
  after.set_version(1);
  after.mutable_reply()->set_id(1000);
  s->send(after);
  for (int i = 1; i <= kFrames; ++i) {
    // The client reads one frame, then lets the loop run a while.
    proto::AgentFrame f = readFrame(peer);
    ASSERT_TRUE(f.has_reply());
    EXPECT_EQ(f.reply().id(), static_cast<uint64_t>(i));
    EXPECT_EQ(f.reply().text().size(), kBytes);
    runUntil([] { return false; }, 20);
    // What is made and not read: what the socket holds (a few hundred KiB)
    // and what is queued, at most framesAhead and one frame more.
    EXPECT_LE(s->unsentBytes(), limits_.framesAhead + kBytes + 1024) << "frame " << i;
    EXPECT_LE(made - i, 8) << "frame " << i;
  }
  EXPECT_EQ(made, kFrames);
  EXPECT_EQ(readFrame(peer).reply().id(), 1000u);
  EXPECT_TRUE(gone);
  EXPECT_EQ(s->pendingSources(), 0u);
}

TEST_F(FramesFromASource, AClosedClientStopsTheSource) {
  limits_.framesAhead = 100 * 1024;
  std::shared_ptr<ClientSession> s;
  int peer = openAccepted(&s);
  int made = 0;
  bool gone = false;
  s->sendFrames(std::make_unique<CountingSource>(1000, 50 * 1024, &made, &gone));
  EXPECT_EQ(readFrame(peer).reply().id(), 1u);
  ::close(peer);
  peers_.clear();
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(1) != 0; }));
  EXPECT_TRUE(gone) << "the source is let go with the connection";
  EXPECT_LT(made, 50);
  EXPECT_EQ(owner_.closed[1], "the client closed the connection");
}

TEST_F(FramesFromASource, FramesQueuedBehindASourceCountAgainstTheBound) {
  limits_.framesAhead = 64 * 1024;
  limits_.maxUnsentBytes = 512 * 1024;
  std::shared_ptr<ClientSession> s;
  openAccepted(&s);
  int made = 0;
  bool gone = false;
  s->sendFrames(std::make_unique<CountingSource>(1000, 50 * 1024, &made, &gone));
  proto::AgentFrame big;
  big.set_version(1);
  big.mutable_notification()->set_message(std::string(10 * 1024, 'm'));
  int sent = 0;
  while (!s->closed() && sent < 1000) {
    s->send(big);
    ++sent;
    EXPECT_LE(s->unsentBytes(), limits_.maxUnsentBytes);
  }
  EXPECT_TRUE(s->closed());
  EXPECT_TRUE(gone);
  ASSERT_TRUE(runUntil([&] { return owner_.closed.count(1) != 0; }));
  EXPECT_NE(owner_.closed[1].find("the client stopped reading"), std::string::npos);
}

}  // namespace
}  // namespace agent
}  // namespace velt

// What a client's whole message must be before the session looks at it.
TEST(ClientFrameParsing, TakesAFrameOfOurVersionWithABody) {
  velt::proto::ClientFrame sent;
  sent.set_version(velt::proto::WIRE_VERSION_1);
  sent.mutable_request()->set_id(7);
  velt::proto::ClientFrame frame;
  std::string why;
  ASSERT_TRUE(velt::agent::parseClientFrame(sent.SerializeAsString(), &frame, &why)) << why;
  EXPECT_EQ(frame.request().id(), 7u);
}

TEST(ClientFrameParsing, RefusalsSayWhy) {
  velt::proto::ClientFrame otherVersion;
  otherVersion.set_version(9);
  otherVersion.mutable_ping_reply()->set_seq(1);
  velt::proto::ClientFrame noBody;
  noBody.set_version(velt::proto::WIRE_VERSION_1);
  const std::pair<std::string, std::string> cases[] = {
      {std::string("\x0a\xff", 2), "2 bytes that are no client frame"},
      {otherVersion.SerializeAsString(), "wire version 9 is not supported"},
      {noBody.SerializeAsString(), "a client frame without a body"},
  };
  for (const auto& c : cases) {
    velt::proto::ClientFrame frame;
    std::string why;
    EXPECT_FALSE(velt::agent::parseClientFrame(c.first, &frame, &why));
    EXPECT_NE(why.find(c.second), std::string::npos) << why;
    EXPECT_EQ(why.rfind("malformed frame: ", 0), 0u) << why;
  }
}

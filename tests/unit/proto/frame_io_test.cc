// Framing of the agent socket: messages of any size cross a real
// SOCK_SEQPACKET pair intact, and malformed packets are refused.
#include "frame_io.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "velt.pb.h"

using velt::wire::kMaxChunk;
using velt::wire::PacketQueue;
using velt::wire::Reassembler;

namespace {

class SocketPair : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds_)); }
  void TearDown() override {
    close(fds_[0]);
    close(fds_[1]);
  }
  // Receives packets until one message is complete.
  int receive(Reassembler& r, std::string* out, std::string* why) {
    std::string buf(velt::wire::kMaxPacket + 16, '\0');
    for (;;) {
      ssize_t n = recv(fds_[1], &buf[0], buf.size(), 0);
      if (n <= 0) return -2;
      int rc = r.feed(buf.data(), static_cast<size_t>(n), out, why);
      if (rc != 0) return rc;
    }
  }
  int fds_[2];
};

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 131 + 7);
  return s;
}

}  // namespace

TEST_F(SocketPair, SmallAndEmptyMessagesArriveWhole) {
  Reassembler r;
  std::string out, why;
  ASSERT_EQ(0, velt::wire::sendMessage(fds_[0], "hello"));
  ASSERT_EQ(1, receive(r, &out, &why)) << why;
  EXPECT_EQ("hello", out);
  ASSERT_EQ(0, velt::wire::sendMessage(fds_[0], ""));
  ASSERT_EQ(1, receive(r, &out, &why)) << why;
  EXPECT_EQ("", out);
}

TEST_F(SocketPair, LargeMessageCrossesInManyPackets) {
  std::string big = pattern(5 * kMaxChunk + 123);
  EXPECT_EQ(6u, velt::wire::splitMessage(big).size());
  std::thread sender([&] { EXPECT_EQ(0, velt::wire::sendMessage(fds_[0], big)); });
  Reassembler r;
  std::string out, why;
  EXPECT_EQ(1, receive(r, &out, &why)) << why;
  sender.join();
  EXPECT_EQ(big, out);
}

TEST_F(SocketPair, ExactChunkBoundaryNeedsNoEmptyTail) {
  std::string exact = pattern(2 * kMaxChunk);
  EXPECT_EQ(2u, velt::wire::splitMessage(exact).size());
}

TEST_F(SocketPair, QueueSendsWhatTheSocketTakesAndTheRestLater) {
  int flags = fcntl(fds_[0], F_GETFL);
  fcntl(fds_[0], F_SETFL, flags | O_NONBLOCK);
  PacketQueue q;
  std::string big = pattern(40 * kMaxChunk);
  q.push(big);
  EXPECT_EQ(0, q.flush(fds_[0]));
  EXPECT_FALSE(q.empty());  // the socket's buffer is far smaller
  Reassembler r;
  std::string out, why;
  std::string buf(velt::wire::kMaxPacket, '\0');
  int got = 0;
  while (got == 0) {
    ssize_t n = recv(fds_[1], &buf[0], buf.size(), MSG_DONTWAIT);
    if (n < 0) {
      ASSERT_EQ(0, q.flush(fds_[0]));
      continue;
    }
    got = r.feed(buf.data(), static_cast<size_t>(n), &out, &why);
    ASSERT_GE(got, 0) << why;
  }
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(0u, q.queuedBytes());
  EXPECT_EQ(big, out);
}

TEST(Reassembly, RefusesMalformedPackets) {
  Reassembler r;
  std::string out, why;
  EXPECT_EQ(-1, r.feed("VF", 2, &out, &why));
  EXPECT_NE(std::string::npos, why.find("shorter than its header"));
  EXPECT_EQ(-1, r.feed("XX\x01\x00payload", 11, &out, &why));
  EXPECT_EQ(-1, r.feed("VF\x02\x00payload", 11, &out, &why));
  EXPECT_NE(std::string::npos, why.find("version 2"));
  EXPECT_EQ(-1, r.feed("VF\x01\x80payload", 11, &out, &why));
  std::string huge = std::string("VF\x01\x00", 4) + std::string(kMaxChunk + 1, 'x');
  EXPECT_EQ(-1, r.feed(huge.data(), huge.size(), &out, &why));
  // Still usable afterwards.
  EXPECT_EQ(1, r.feed("VF\x01\x00ok", 6, &out, &why));
  EXPECT_EQ("ok", out);
}

TEST(Reassembly, BoundsTheWholeMessage) {
  Reassembler r(2 * kMaxChunk);
  std::string out, why;
  std::string more = std::string("VF\x01\x01", 4) + std::string(kMaxChunk, 'a');
  EXPECT_EQ(0, r.feed(more.data(), more.size(), &out, &why));
  EXPECT_EQ(0, r.feed(more.data(), more.size(), &out, &why));
  EXPECT_EQ(-1, r.feed(more.data(), more.size(), &out, &why));
  EXPECT_NE(std::string::npos, why.find("larger than"));
}

TEST(WireSchema, FramesRoundTripWithTheirVersion) {
  velt::proto::ClientFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  f.mutable_request()->set_id(42);
  f.mutable_request()->mutable_join()->set_group("sxnMembership");
  f.mutable_request()->mutable_join()->set_instance(3);
  std::string bytes;
  ASSERT_TRUE(f.SerializeToString(&bytes));
  velt::proto::ClientFrame back;
  ASSERT_TRUE(back.ParseFromString(bytes));
  EXPECT_EQ(1u, back.version());
  EXPECT_EQ("sxnMembership", back.request().join().group());
  EXPECT_EQ(3u, back.request().join().instance());
  EXPECT_FALSE(back.ParseFromString(std::string("\xff\xff\xff\xff", 4)));
}

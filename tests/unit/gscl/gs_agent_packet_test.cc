// Tests of readAgentPacket: how the library reads the agent's packets
// (reassembly, parsing, the frame checks), on bytes, without a socket.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame_io.h"
#include "internal/gs_link.h"
#include "velt.pb.h"

using velt_gscl_V1::internal::readAgentPacket;

namespace {

std::string notificationFrame(const std::string& group, uint32_t instance) {
  velt::proto::AgentFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  f.mutable_notification()->set_group(group);
  f.mutable_notification()->set_instance(instance);
  return f.SerializeAsString();
}

TEST(AgentPacket, FrameInSeveralPacketsIsReadWhenComplete) {
  const std::string bytes = notificationFrame("g", 3);
  velt::proto::AgentFrame big;
  big.set_version(velt::proto::WIRE_VERSION_1);
  big.mutable_notification()->set_group("group");
  big.mutable_notification()->set_message(std::string(300 * 1024, 'm'));
  std::vector<std::string> packets = velt::wire::splitMessage(big.SerializeAsString());
  ASSERT_GT(packets.size(), 1u);
  velt::wire::Reassembler r;
  velt::proto::AgentFrame frame;
  size_t size = 0;
  std::string why;
  for (size_t i = 0; i + 1 < packets.size(); ++i) {
    EXPECT_EQ(readAgentPacket(&r, packets[i].data(), packets[i].size(), &frame, &size, &why), 0);
  }
  // The message is larger than the library lets a notification carry.
  EXPECT_EQ(readAgentPacket(&r, packets.back().data(), packets.back().size(), &frame, &size, &why), -1);
  EXPECT_NE(why.find("larger than allowed"), std::string::npos) << why;

  packets = velt::wire::splitMessage(bytes);
  ASSERT_EQ(packets.size(), 1u);
  velt::wire::Reassembler fresh;
  ASSERT_EQ(readAgentPacket(&fresh, packets[0].data(), packets[0].size(), &frame, &size, &why), 1) << why;
  EXPECT_EQ(frame.notification().group(), "g");
  EXPECT_EQ(frame.notification().instance(), 3u);
  EXPECT_EQ(size, bytes.size());
}

TEST(AgentPacket, RefusalsSayWhy) {
  struct Case {
    std::string bytes;
    const char* why;
  };
  velt::proto::AgentFrame otherVersion;
  otherVersion.set_version(7);
  otherVersion.mutable_ping()->set_seq(1);
  const Case cases[] = {
      {notificationFrame("g", 0x10000), "instance 65536"},
      {notificationFrame("", 1), "group name of 0 bytes"},
      {otherVersion.SerializeAsString(), "wire version 7"},
      {std::string("\xff\xff\xff", 3), "does not parse"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> packets = velt::wire::splitMessage(c.bytes);
    velt::wire::Reassembler r;
    velt::proto::AgentFrame frame;
    size_t size = 0;
    std::string why;
    EXPECT_EQ(readAgentPacket(&r, packets[0].data(), packets[0].size(), &frame, &size, &why), -1);
    EXPECT_NE(why.find(c.why), std::string::npos) << why;
    EXPECT_EQ(why.rfind("malformed frame from the agent: ", 0), 0u) << why;
  }
  // A packet longer than any the agent sends.
  std::string huge(velt::wire::kMaxPacket + 1, '\0');
  velt::wire::Reassembler r;
  velt::proto::AgentFrame frame;
  size_t size = 0;
  std::string why;
  EXPECT_EQ(readAgentPacket(&r, huge.data(), huge.size(), &frame, &size, &why), -1);
  EXPECT_NE(why.find("packet of 61445 bytes"), std::string::npos) << why;
}

}  // namespace

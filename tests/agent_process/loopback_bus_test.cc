#include "loopback_bus.h"

#include <errno.h>
#include <poll.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

// Records what the bus delivers; optionally sends something while it
// handles a message.
class RecordingHandler : public BusHandler {
 public:
  explicit RecordingHandler(Bus* bus) : bus_(bus) {}
  void onView(const View& view) override { views.push_back(view); }
  void onMessage(uint32_t from, const std::string& bytes) override {
    messages.push_back(std::to_string(from) + ":" + bytes);
    if (bytes == "echo") sentFromHandler = bus_->multicast("reply");
  }
  std::vector<View> views;
  std::vector<std::string> messages;
  int sentFromHandler = -1;

 private:
  Bus* bus_;
};

bool readable(int fd) {
  struct pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

class LoopbackBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(bus_.open(), 0);
    bus_.setHandler(&handler_);
  }
  LoopbackBus bus_{7};
  RecordingHandler handler_{&bus_};
};

TEST_F(LoopbackBusTest, FirstViewIsThisNodeAloneDeliveredThroughTheLoop) {
  EXPECT_EQ(bus_.selfNode(), 7u);
  EXPECT_FALSE(readable(bus_.fd()));
  ASSERT_EQ(bus_.join(), 0);
  EXPECT_TRUE(handler_.views.empty()) << "join() must not deliver from inside itself";
  EXPECT_TRUE(readable(bus_.fd()));
  ASSERT_EQ(bus_.dispatch(), 0);
  ASSERT_EQ(handler_.views.size(), 1u);
  EXPECT_EQ(handler_.views[0].id, 1u);
  EXPECT_EQ(handler_.views[0].members, std::vector<uint32_t>{7});
  EXPECT_EQ(handler_.views[0].joined, std::vector<uint32_t>{7});
  EXPECT_TRUE(handler_.views[0].left.empty());
  EXPECT_FALSE(readable(bus_.fd()));
  EXPECT_EQ(bus_.join(), EALREADY);
}

TEST_F(LoopbackBusTest, MulticastComesBackLaterInOrder) {
  ASSERT_EQ(bus_.join(), 0);
  ASSERT_EQ(bus_.multicast("a"), 0);
  ASSERT_EQ(bus_.multicast("b"), 0);
  ASSERT_EQ(bus_.multicast("c"), 0);
  EXPECT_TRUE(handler_.messages.empty());
  ASSERT_EQ(bus_.dispatch(), 0);
  EXPECT_EQ(handler_.views.size(), 1u);
  EXPECT_EQ(handler_.messages, (std::vector<std::string>{"7:a", "7:b", "7:c"}));
  EXPECT_EQ(bus_.pendingBytesForTesting(), 0u);
}

TEST_F(LoopbackBusTest, WhatTheHandlerSendsWaitsForTheNextTurn) {
  ASSERT_EQ(bus_.join(), 0);
  ASSERT_EQ(bus_.multicast("echo"), 0);
  ASSERT_EQ(bus_.dispatch(), 0);
  EXPECT_EQ(handler_.sentFromHandler, 0);
  EXPECT_EQ(handler_.messages, (std::vector<std::string>{"7:echo"}));
  EXPECT_TRUE(readable(bus_.fd())) << "the loop must be woken for what is still queued";
  ASSERT_EQ(bus_.dispatch(), 0);
  EXPECT_EQ(handler_.messages, (std::vector<std::string>{"7:echo", "7:reply"}));
  EXPECT_FALSE(readable(bus_.fd()));
}

TEST_F(LoopbackBusTest, MulticastBeforeJoinIsRefused) {
  EXPECT_EQ(bus_.multicast("early"), ENOTCONN);
}

TEST(LoopbackBusBound, PendingBytesAreBounded) {
  LoopbackBus bus(1, 10);
  RecordingHandler handler(&bus);
  ASSERT_EQ(bus.open(), 0);
  bus.setHandler(&handler);
  ASSERT_EQ(bus.join(), 0);
  EXPECT_EQ(bus.multicast("12345678"), 0);
  EXPECT_EQ(bus.multicast("123"), EAGAIN);
  ASSERT_EQ(bus.dispatch(), 0);
  EXPECT_EQ(bus.multicast("123"), 0) << "room again once delivered";
}

}  // namespace
}  // namespace agent
}  // namespace velt

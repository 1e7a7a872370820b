// CorosyncBus against a real corosync of the test's own (single node, knet
// on lo): waiting for corosync, the node id, fragments, flow control,
// losing corosync and coming back. Needs root; skips visibly otherwise.
#include "corosync_bus.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "agent_harness.h"
#include "corosync_harness.h"

namespace velt {
namespace agent {
namespace {

using velt_test::CorosyncConfig;
using velt_test::CorosyncInstance;
using velt_test::TempDir;

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Event {
  bool isView = false;
  View view;
  uint32_t from = 0;
  std::string bytes;
};

// Everything the bus delivers, in order. Used by the test's thread only.
class Recorder : public BusHandler {
 public:
  void onView(const View& view) override {
    Event e;
    e.isView = true;
    e.view = view;
    events.push_back(e);
  }
  void onMessage(uint32_t from, const std::string& bytes) override {
    Event e;
    e.from = from;
    e.bytes = bytes;
    events.push_back(e);
  }
  size_t views() const {
    size_t n = 0;
    for (const Event& e : events) n += e.isView ? 1 : 0;
    return n;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const Event& e : events) {
      if (!e.isView) out.push_back(e.bytes);
    }
    return out;
  }
  const View& lastView() const {
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
      if (it->isView) return it->view;
    }
    static View none;
    return none;
  }
  std::vector<Event> events;
};

std::string body(size_t n, int seed) {
  std::string s = "#" + std::to_string(seed) + ":";
  while (s.size() < n) s += static_cast<char>('a' + (seed + s.size()) % 26);
  s.resize(n);
  return s;
}

class CorosyncBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VELT_REQUIRE_PRIVATE_COROSYNC();
    ASSERT_FALSE(dir_.path().empty());
    corosync_ = std::make_unique<CorosyncInstance>(dir_.path());
  }

  void makeBus(CorosyncBusOptions options = CorosyncBusOptions()) {
    options.reconnectInterval = std::chrono::milliseconds(200);
    bus_ = std::make_unique<CorosyncBus>(options, [this](const std::string& line) {
      log_ += line + "\n";
    });
    bus_->setHandler(&recorder_);
  }

  // Runs the bus as the agent's loop does until done() holds; false when
  // the bound passed first.
  bool pump(const std::function<bool()>& done, int timeoutMs = 10000) {
    int64_t end = nowMs() + timeoutMs;
    for (;;) {
      if (done()) return true;
      int left = static_cast<int>(end - nowMs());
      if (left <= 0) return false;
      struct pollfd p = {bus_->fd(), POLLIN, 0};
      int n = poll(&p, 1, std::min(left, 100));
      if (n > 0) {
        int rc = bus_->dispatch();
        EXPECT_EQ(rc, 0) << log_;
        if (rc != 0) return false;
      }
    }
  }

  bool joinedAlone() {
    if (bus_->open(&why_) != 0) return false;
    if (bus_->join() != 0) return false;
    return pump([&] { return recorder_.views() == 1; });
  }

  TempDir dir_;
  std::unique_ptr<CorosyncInstance> corosync_;
  std::unique_ptr<CorosyncBus> bus_;
  Recorder recorder_;
  std::string log_;
  std::string why_;
};

TEST_F(CorosyncBusTest, WaitsForCorosyncThenJoinsWithCorosyncsNodeId) {
  makeBus();
  ASSERT_EQ(bus_->open(&why_), 0) << why_;
  EXPECT_EQ(bus_->link(), CorosyncBus::Link::kWaiting);
  EXPECT_EQ(bus_->linkText(), "waiting for corosync");
  EXPECT_EQ(bus_->selfNode(), 0u) << "no node number before corosync names one";
  ASSERT_EQ(bus_->join(), 0);
  EXPECT_EQ(bus_->multicast("early"), ENOTCONN);
  EXPECT_NE(log_.find("waiting for corosync"), std::string::npos) << log_;
  // A few retries pass without corosync, each quietly.
  ASSERT_FALSE(pump([] { return false; }, 700));
  EXPECT_EQ(recorder_.views(), 0u);
  size_t lines = 0;
  for (size_t at = log_.find("waiting for corosync"); at != std::string::npos;
       at = log_.find("waiting for corosync", at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 1u) << log_;

  ASSERT_TRUE(corosync_->startReady(CorosyncConfig{42, "knet"})) << corosync_->log();
  ASSERT_TRUE(pump([&] { return recorder_.views() == 1; })) << log_;
  EXPECT_EQ(bus_->selfNode(), 42u);
  const View& v = recorder_.lastView();
  EXPECT_EQ(v.members, std::vector<uint32_t>{42});
  EXPECT_EQ(v.joined, std::vector<uint32_t>{42});
  EXPECT_TRUE(v.left.empty());
  EXPECT_EQ(bus_->link(), CorosyncBus::Link::kJoined);
  EXPECT_EQ(bus_->linkText(), "node 42: joined, 1 node in view");
  EXPECT_NE(log_.find("corosync answers after"), std::string::npos) << log_;
  ASSERT_EQ(bus_->multicast("hello"), 0);
  ASSERT_TRUE(pump([&] { return recorder_.messages().size() == 1; })) << log_;
  EXPECT_EQ(recorder_.events.back().from, 42u);
  EXPECT_EQ(recorder_.events.back().bytes, "hello");
}

TEST_F(CorosyncBusTest, LargeMessagesTravelInFragmentsAndComeBackWhole) {
  ASSERT_TRUE(corosync_->startReady()) << corosync_->log();
  CorosyncBusOptions options;
  options.fragmentPayloadForTesting = 1000;
  makeBus(options);
  ASSERT_TRUE(joinedAlone()) << why_ << log_;
  EXPECT_EQ(bus_->fragmentPayloadForTesting(), 1000u);
  std::vector<std::string> sent;
  for (size_t n : {size_t{0}, size_t{1}, size_t{999}, size_t{1000}, size_t{1001}, size_t{300000},
                   size_t{5}, size_t{64 * 1024}}) {
    sent.push_back(body(n, static_cast<int>(sent.size())));
    ASSERT_EQ(bus_->multicast(sent.back()), 0);
  }
  ASSERT_TRUE(pump([&] { return recorder_.messages().size() >= sent.size(); })) << log_;
  EXPECT_EQ(recorder_.messages(), sent);
  EXPECT_EQ(bus_->queuedBytesForTesting(), 0u) << "every message came back";
  EXPECT_EQ(bus_->refusedFragmentsForTesting(), 0u);
  // Beyond the bound on one message nothing is queued.
  EXPECT_EQ(bus_->multicast(std::string(CorosyncBusOptions().maxMessageBytes + 1, 'x')), EMSGSIZE);
}

TEST_F(CorosyncBusTest, FlowControlNeitherDropsNorReorders) {
  CorosyncConfig slow;
  slow.slowTotem = true;
  ASSERT_TRUE(corosync_->startReady(slow)) << corosync_->log();
  CorosyncBusOptions options;
  options.fragmentPayloadForTesting = 1000;
  makeBus(options);
  ASSERT_TRUE(joinedAlone()) << why_ << log_;
  // Sent in a tight loop without giving the bus's loop a turn until
  // corosync pushes back (CS_ERR_TRY_AGAIN comes when the sender outruns
  // its queue, after about a thousand fragments here), then more behind
  // what it refused: those wait in the bus and go out on its retries.
  std::vector<std::string> messages;
  for (int i = 0; i < 20000; ++i) messages.push_back(body(2000 + i % 1500, i));
  size_t sent = 0;
  size_t afterRefusal = 0;
  while (sent < messages.size() && afterRefusal < 500) {
    ASSERT_EQ(bus_->multicast(messages[sent]), 0) << sent;
    ++sent;
    if (bus_->flowControlRefusalsForTesting() > 0) ++afterRefusal;
  }
  messages.resize(sent);
  EXPECT_GT(bus_->flowControlRefusalsForTesting(), 0u);
  ASSERT_TRUE(pump([&] { return recorder_.messages().size() >= messages.size(); }, 20000))
      << recorder_.messages().size() << " of " << messages.size() << "\n" << log_;
  EXPECT_EQ(recorder_.messages(), messages);
  EXPECT_EQ(bus_->queuedBytesForTesting(), 0u);
}

TEST_F(CorosyncBusTest, LosingCorosyncLeavesThisNodeAloneAndEveryMessageArrivesOnce) {
  ASSERT_TRUE(corosync_->startReady()) << corosync_->log();
  makeBus();
  ASSERT_TRUE(joinedAlone()) << why_ << log_;
  uint64_t firstId = recorder_.lastView().id;
  // Some of these are still on their way when corosync dies.
  std::vector<std::string> sent;
  for (int i = 0; i < 200; ++i) {
    sent.push_back(body(100, i));
    ASSERT_EQ(bus_->multicast(sent.back()), 0);
  }
  ASSERT_TRUE(corosync_->kill(SIGKILL));
  // These find corosync gone: the bus notices at once, and they are
  // delivered here, after the view of this node alone.
  for (int i = 200; i < 250; ++i) {
    sent.push_back(body(100, i));
    ASSERT_EQ(bus_->multicast(sent.back()), 0);
  }
  EXPECT_EQ(bus_->link(), CorosyncBus::Link::kAlone);
  ASSERT_TRUE(pump([&] { return recorder_.views() == 2 && recorder_.messages().size() >= 250; }))
      << recorder_.views() << " views, " << recorder_.messages().size() << " messages\n"
      << log_;
  EXPECT_EQ(recorder_.messages(), sent) << "each exactly once, in order";
  size_t aloneAt = 0;
  while (aloneAt < recorder_.events.size() && recorder_.events[aloneAt].view.id <= firstId) {
    ++aloneAt;
  }
  ASSERT_LT(aloneAt, recorder_.events.size());
  EXPECT_TRUE(recorder_.events[aloneAt].isView);
  size_t lateAt = 0;
  while (lateAt < recorder_.events.size() && recorder_.events[lateAt].bytes != sent[200]) ++lateAt;
  EXPECT_GT(lateAt, aloneAt) << "what was sent after corosync died comes after the view";
  const View& alone = recorder_.lastView();
  EXPECT_EQ(alone.members, std::vector<uint32_t>{7});
  EXPECT_GT(alone.id, firstId);
  EXPECT_EQ(bus_->link(), CorosyncBus::Link::kAlone);
  EXPECT_NE(log_.find("lost corosync"), std::string::npos) << log_;
  // Alone, the node still hears itself.
  ASSERT_EQ(bus_->multicast("alone"), 0);
  ASSERT_TRUE(pump([&] { return recorder_.messages().size() == 251; })) << log_;
  EXPECT_EQ(recorder_.messages().back(), "alone");

  // corosync comes back: the bus joins again by itself.
  ASSERT_TRUE(corosync_->startReady()) << corosync_->log();
  ASSERT_TRUE(pump([&] { return recorder_.views() == 3; })) << log_;
  const View& back = recorder_.lastView();
  EXPECT_EQ(back.members, std::vector<uint32_t>{7});
  EXPECT_EQ(back.joined, std::vector<uint32_t>{7});
  EXPECT_EQ(bus_->link(), CorosyncBus::Link::kJoined);
  ASSERT_EQ(bus_->multicast("back"), 0);
  ASSERT_TRUE(pump([&] { return recorder_.messages().size() == 252; })) << log_;
  EXPECT_EQ(recorder_.messages().back(), "back");
}

TEST_F(CorosyncBusTest, RefusesANodeIdThatCannotBeA16BitNodeNumber) {
  // knet refuses such ids itself; udpu takes them.
  ASSERT_TRUE(corosync_->startReady(CorosyncConfig{70000, "udpu"})) << corosync_->log();
  makeBus();
  EXPECT_EQ(bus_->open(&why_), EINVAL);
  EXPECT_NE(why_.find("70000"), std::string::npos) << why_;
  EXPECT_NE(why_.find("16-bit node number"), std::string::npos) << why_;
}

}  // namespace
}  // namespace agent
}  // namespace velt

// The topology of a real `veltd --standalone` in a private network
// namespace: two switch adapters on veth pairs (sxn0, sxn1) are the raw
// group's members with their addresses; an adapter set down, or losing its
// carrier, leaves within a short bound and joins again when it comes back;
// libvx_gscl answers adapter information for those addresses from what the
// subscription carried. Needs root (a network namespace of its own);
// skipped with a visible "SKIP:" line otherwise.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent_harness.h"
#include "gs_client.h"
#include "gs_controller.h"
#include "gs_types.h"

using velt::proto::AgentFrame;
using velt::proto::Notification;
using velt::proto::Request;
using velt_test::AgentProcess;
using velt_test::CommandResult;
using velt_test::runCommand;
using velt_test::TempDir;
using velt_test::TestClient;

namespace {

// The raw adapter group, by the name clients know it.
constexpr char kRawGroup[] = "allAdapterMembership";

// An adapter change must reach a subscriber well within this (the netlink
// event is immediate; the rest is one turn of the agent's loop).
constexpr int kChangeBoundMs = 2000;

std::string ipTool() {
  for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

std::string bytesOf(const char* dotted) {
  struct in_addr a;
  inet_pton(AF_INET, dotted, &a);
  return std::string(reinterpret_cast<const char*>(&a), 4);
}

bool hasAddress(const google::protobuf::RepeatedPtrField<velt::proto::AdapterInfo>& list,
                const char* dotted) {
  for (const velt::proto::AdapterInfo& a : list) {
    if (a.ip() == bytesOf(dotted)) return true;
  }
  return false;
}

// The raw group's subscriber in libvx_gscl: records what it was told.
// Thread-safe (callbacks run on the dispatch thread).
class RawSubscriber : public velt_gscl_V1::GSSubscriber {
 public:
  RawSubscriber()
      : GSSubscriber(kRawGroup, TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE) {}
  ~RawSubscriber() override { unregister(); }
  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override {
    std::lock_guard<std::mutex> lk(mu_);
    if (n->gs_full_ip_membership != nullptr) fullCount_ = n->gs_full_ip_membership->gs_count;
    ++notes_;
    cv_.notify_all();
    return TK_GS_CALLBACK_OK;
  }
  // Waits until the full IP membership of a notification has count entries.
  bool waitFull(unsigned count) {
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, std::chrono::milliseconds(velt_test::kPromptMs),
                        [&] { return notes_ > 0 && fullCount_ == count; });
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int notes_ = 0;
  unsigned fullCount_ = 0;
};

class VeltdTopology : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (geteuid() != 0) {
      why = "needs root for a private network namespace";
    } else if (ipTool().empty()) {
      why = "no ip(8) tool here";
    } else if (unshare(CLONE_NEWNET) != 0) {
      why = std::string("cannot make a private network namespace: ") + strerror(errno);
    }
    if (!why.empty()) {
      fprintf(stderr, "SKIP: %s\n", why.c_str());
      GTEST_SKIP() << "SKIP: " << why;
    }
    // Everything from here on, veltd included, lives in the new namespace.
    for (const char* n : {"0", "1"}) {
      std::string itf = std::string("sxn") + n;
      ASSERT_TRUE(ip({"link", "add", itf, "type", "veth", "peer", "name", itf + "p"}));
      ASSERT_TRUE(ip(
          {"addr", "add", std::string("10.0.") + (n[0] == '0' ? "1" : "2") + ".1/24", "dev", itf}));
      ASSERT_TRUE(ip({"link", "set", itf, "up"}));
      ASSERT_TRUE(ip({"link", "set", itf + "p", "up"}));
    }
  }

  void TearDown() override {
    if (agent_ && !agent_->stopCleanly())
      ADD_FAILURE() << "veltd did not stop cleanly:\n" << agent_->log();
  }

  ::testing::AssertionResult ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ipTool()};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandResult r = runCommand(argv, {}, velt_test::kPromptMs);
    if (r.status == 0) return ::testing::AssertionSuccess();
    std::string line;
    for (const std::string& a : args) line += " " + a;
    return ::testing::AssertionFailure() << "ip" << line << " failed: " << r.err;
  }

  void startAgent() {
    agent_.reset(new AgentProcess(dir_.path()));
    ASSERT_TRUE(agent_->startReady({"--interfaces", "sxn*"})) << agent_->log();
    // Both adapters are reported once the first dump is through.
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(velt_test::kPromptMs);
    CommandResult r;
    while (std::chrono::steady_clock::now() < until) {
      r = agent_->veltctl({"members", kRawGroup});
      if (r.out.find("10.0.1.1") != std::string::npos &&
          r.out.find("10.0.2.1") != std::string::npos)
        return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    FAIL() << "the adapters never became members:\n" << r.out << r.err << agent_->log();
  }

  // Connects a raw client and subscribes it to the raw group; returns the
  // full membership notification.
  void subscribe(TestClient* c, Notification* full) {
    ASSERT_EQ(0, c->connect(agent_->socketPath()));
    velt::proto::HelloReply hr;
    ASSERT_TRUE(c->hello(&hr));
    ASSERT_EQ(0, hr.rc());
    Request r;
    r.mutable_subscribe()->set_group(kRawGroup);
    r.mutable_subscribe()->set_subscriber(1);
    r.mutable_subscribe()->set_type(TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE);
    velt::proto::Reply reply;
    ASSERT_TRUE(c->waitReply(c->request(r), &reply));
    ASSERT_EQ(0, reply.rc()) << reply.text();
    ASSERT_TRUE(c->waitNotification(
        [](const Notification& n) {
          return n.kind() == Notification::SUBSCRIPTION &&
                 n.subscription_type() == TK_GS_SUBSCRIPTION_MEMBERSHIP;
        },
        full));
  }

  // Waits for a delta of the given kind that names address; returns the
  // milliseconds since began, or -1.
  long waitDelta(TestClient* c, uint32_t bit, const char* address, Notification* got,
                 std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now()) {
    bool ok = c->waitNotification(
        [&](const Notification& n) {
          return n.kind() == Notification::SUBSCRIPTION && n.subscription_type() == bit &&
                 hasAddress(n.changing_ip(), address);
        },
        got, kChangeBoundMs);
    if (!ok) return -1;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - began)
                                 .count());
  }

  TempDir dir_;
  std::unique_ptr<AgentProcess> agent_;
};

TEST_F(VeltdTopology, FullMembershipListsBothAdaptersWithTheirAddresses) {
  startAgent();
  TestClient c;
  Notification full;
  subscribe(&c, &full);
  ASSERT_EQ(2, full.full_ip_size());
  ASSERT_EQ(2, full.current_size());
  EXPECT_TRUE(hasAddress(full.full_ip(), "10.0.1.1"));
  EXPECT_TRUE(hasAddress(full.full_ip(), "10.0.2.1"));
  for (const velt::proto::AdapterInfo& a : full.full_ip()) {
    EXPECT_EQ(1u, a.node());
    EXPECT_EQ("switch", a.network_type());
    EXPECT_EQ(a.interface_name(), a.network_name());
    EXPECT_EQ(a.ip() == bytesOf("10.0.1.1") ? "sxn0" : "sxn1", a.interface_name());
  }
  // veltctl shows each member's address and interface.
  CommandResult r = agent_->veltctl({"members", kRawGroup});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("10.0.1.1         sxn0")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("10.0.2.1         sxn1")) << r.out;
  r = agent_->veltctl({"--json", "members", kRawGroup});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos,
            r.out.find("{\"address\":\"10.0.1.1\",\"interface\":\"sxn0\",\"network\":\"sxn0\","
                       "\"network_type\":\"switch\","))
      << r.out;
  EXPECT_NE(std::string::npos, r.out.find("\"providers\":[{\"instance\":")) << r.out;
}

TEST_F(VeltdTopology, AdapterSetDownLeavesAndJoinsAgainWhenUp) {
  startAgent();
  TestClient c;
  Notification full;
  subscribe(&c, &full);
  auto began = std::chrono::steady_clock::now();
  ASSERT_TRUE(ip({"link", "set", "sxn1", "down"}));
  Notification leave;
  long ms = waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_LEAVE, "10.0.2.1", &leave, began);
  ASSERT_GE(ms, 0) << "no leave for sxn1 within " << kChangeBoundMs << " ms\n" << agent_->log();
  printf("sxn1 down reached the subscriber %ld ms after ip(8) started\n", ms);
  ASSERT_EQ(1, leave.changing_ip_size());
  EXPECT_EQ("sxn1", leave.changing_ip(0).interface_name());
  // What remains is sxn0.
  ASSERT_EQ(1, leave.full_ip_size());
  EXPECT_TRUE(hasAddress(leave.full_ip(), "10.0.1.1"));

  ASSERT_TRUE(ip({"link", "set", "sxn1", "up"}));
  Notification join;
  ms = waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_JOIN, "10.0.2.1", &join);
  ASSERT_GE(ms, 0) << "no join for sxn1 within " << kChangeBoundMs << " ms\n" << agent_->log();
  EXPECT_EQ(2, join.full_ip_size());
  // The adapter keeps its provider id across the flap.
  ASSERT_EQ(1, leave.changing_size());
  ASSERT_EQ(1, join.changing_size());
  EXPECT_EQ(leave.changing(0).instance(), join.changing(0).instance());
}

TEST_F(VeltdTopology, CarrierLossAndAddressRemovalAlsoLeave) {
  startAgent();
  TestClient c;
  Notification full;
  subscribe(&c, &full);
  // The peer end goes down: sxn0 stays up but loses its carrier.
  ASSERT_TRUE(ip({"link", "set", "sxn0p", "down"}));
  Notification n;
  ASSERT_GE(waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_LEAVE, "10.0.1.1", &n), 0) << agent_->log();
  ASSERT_TRUE(ip({"link", "set", "sxn0p", "up"}));
  ASSERT_GE(waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_JOIN, "10.0.1.1", &n), 0) << agent_->log();
  // Without its address sxn1 is no adapter any more; a new address brings
  // it back under that address.
  ASSERT_TRUE(ip({"addr", "del", "10.0.2.1/24", "dev", "sxn1"}));
  ASSERT_GE(waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_LEAVE, "10.0.2.1", &n), 0) << agent_->log();
  ASSERT_TRUE(ip({"addr", "add", "10.0.2.7/24", "dev", "sxn1"}));
  ASSERT_GE(waitDelta(&c, TK_GS_SUBSCRIPTION_DELTA_JOIN, "10.0.2.7", &n), 0) << agent_->log();
  EXPECT_EQ("sxn1", n.changing_ip(0).interface_name());
}

TEST_F(VeltdTopology, ClientLibraryAnswersAdapterInformationByAddress) {
  startAgent();
  setenv("VELT_AGENT_SOCKET", agent_->socketPath().c_str(), 1);
  velt_gscl_V1::GSController controller(0x30014);
  ASSERT_EQ(TK_GS_OK, controller.initialize());
  std::atomic<int> dispatchEnd{-1};
  std::thread dispatcher([&] {
    tk_gs_rc_t d;
    while ((d = controller.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
    }
    dispatchEnd.store(d);
  });
  {
    RawSubscriber sub;
    ASSERT_EQ(TK_GS_OK, sub.subscribeGroup());
    ASSERT_TRUE(sub.waitFull(2));
    // IPv4 addresses are kept as ::ffff:a.b.c.d.
    tk_gs_ip_addr addr;
    memset(&addr, 0, sizeof addr);
    addr.gs_bytes[10] = 0xff;
    addr.gs_bytes[11] = 0xff;
    memcpy(addr.gs_bytes + 12, bytesOf("10.0.2.1").data(), 4);
    tk_gs_adapter_info_t info;
    ASSERT_EQ(TK_GS_OK, controller.get_adapter_info(&addr, &info));
    EXPECT_STREQ("sxn1", info.gs_interface_name);
    EXPECT_EQ(1, info.gs_node_number);
    EXPECT_STREQ("sxn1", info.gs_network_name);
    EXPECT_STREQ("switch", info.gs_network_type);
    EXPECT_STREQ(kRawGroup, info.gs_group_name);
    memcpy(addr.gs_bytes + 12, bytesOf("10.0.9.9").data(), 4);
    EXPECT_EQ(TK_GS_ADDRESS_UNKNOWN, controller.get_adapter_info(&addr, &info));
  }
  controller.quit();
  dispatcher.join();
  unsetenv("VELT_AGENT_SOCKET");
}

}  // namespace

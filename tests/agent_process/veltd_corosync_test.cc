// veltd on the cluster's bus: a real veltd (without --standalone) against a
// corosync of the test's own, in private namespaces. It waits for corosync,
// takes its node id, tells systemd it is ready once it holds the cluster's
// state, keeps serving when corosync dies and joins again when it is back.
// Needs root; skips visibly otherwise.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_harness.h"
#include "corosync_harness.h"
#include "gs_types.h"

namespace velt_test {
namespace {

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The service manager's end of $NOTIFY_SOCKET: collects what the agent
// tells it. Thread-compatible (the test's thread drives it).
class NotifyListener {
 public:
  explicit NotifyListener(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~NotifyListener() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }

  // Waits until a notification carries the line (e.g. "READY=1").
  bool waitFor(const std::string& line, int timeoutMs = kCorosyncStartMs) {
    int64_t end = nowMs() + timeoutMs;
    for (;;) {
      for (const std::string& m : received_) {
        if (("\n" + m + "\n").find("\n" + line + "\n") != std::string::npos) return true;
      }
      int left = static_cast<int>(end - nowMs());
      if (left <= 0) return false;
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, left) <= 0) continue;
      char buf[4096];
      ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) received_.emplace_back(buf, static_cast<size_t>(n));
    }
  }
  std::string all() const {
    std::string out;
    for (const std::string& m : received_) out += "[" + m + "]\n";
    return out;
  }

 private:
  std::string path_;
  int fd_ = -1;
  std::vector<std::string> received_;
};

size_t countOf(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class VeltdOnCorosync : public ::testing::Test {
 protected:
  void SetUp() override {
    VELT_REQUIRE_PRIVATE_COROSYNC();
    ASSERT_FALSE(dir_.path().empty());
  }
  TempDir dir_;
};

TEST_F(VeltdOnCorosync, WaitsJoinsIsReadyRidesOutCorosyncsDeathAndJoinsAgain) {
  CorosyncInstance corosync(dir_.path());
  NotifyListener notify(dir_.file("notify"));
  ASSERT_TRUE(notify.ok());
  AgentProcess agent(dir_.path());
  agent.setEnvironment({{"NOTIFY_SOCKET", dir_.file("notify")}});

  // corosync is not there yet: the agent serves, as a node without a number.
  ASSERT_TRUE(agent.start({}, false));
  ASSERT_TRUE(agent.waitReady()) << agent.log() << agent.err();
  EXPECT_TRUE(notify.waitFor("STATUS=waiting for corosync")) << notify.all();
  EXPECT_TRUE(agent.waitForLog("waiting for corosync")) << agent.log();
  CommandResult r = agent.veltctl({"--json", "status"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"node\":0,"), std::string::npos) << r.out;
  {
    TestClient c;
    ASSERT_EQ(c.connect(agent.socketPath()), 0);
    velt::proto::HelloReply hr;
    ASSERT_TRUE(c.hello(&hr));
    velt::proto::Reply reply;
    ASSERT_TRUE(c.waitReply(c.request(joinRequest("early", 1)), &reply));
    EXPECT_NE(reply.rc(), TK_GS_OK);
    EXPECT_NE(reply.text().find("try again"), std::string::npos) << reply.text();
  }

  // corosync comes: node 7, a view of one, ready.
  ASSERT_TRUE(corosync.startReady()) << corosync.log();
  EXPECT_TRUE(notify.waitFor("READY=1")) << notify.all() << agent.log();
  EXPECT_TRUE(notify.waitFor("STATUS=node 7: joined, 1 node in view")) << notify.all();
  r = agent.veltctl({"--json", "status"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"node\":7,"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"view\":[7]"), std::string::npos) << r.out;
  size_t idAt = r.out.find("\"view_id\":");
  ASSERT_NE(idAt, std::string::npos) << r.out;
  unsigned long long firstViewId = strtoull(r.out.c_str() + idAt + 10, nullptr, 10);

  // A provider of this node.
  TestClient client;
  ASSERT_EQ(client.connect(agent.socketPath()), 0);
  velt::proto::HelloReply hello;
  ASSERT_TRUE(client.hello(&hello));
  EXPECT_EQ(hello.node(), 7u);
  velt::proto::Reply reply;
  ASSERT_TRUE(client.waitReply(client.request(joinRequest("kept", 3)), &reply));
  ASSERT_EQ(reply.rc(), TK_GS_OK) << reply.text();

  // corosync dies: the agent stays, alone, and says so.
  ASSERT_TRUE(corosync.kill(SIGKILL));
  EXPECT_TRUE(agent.waitForLog("lost corosync")) << agent.log();
  EXPECT_TRUE(notify.waitFor("STATUS=node 7: lost corosync, alone; reconnecting")) << notify.all();
  ASSERT_TRUE(agent.running()) << agent.log();
  r = agent.veltctl({"--json", "status"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"view\":[7]"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("\"view_id\":" + std::to_string(firstViewId) + ","), std::string::npos)
      << "losing corosync is a view change: " << r.out;
  r = agent.veltctl({"members", "kept"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  // Its clients can still work, with this node alone.
  ASSERT_TRUE(client.waitReply(client.request(joinRequest("alone", 1)), &reply));
  EXPECT_EQ(reply.rc(), TK_GS_OK) << reply.text();

  // corosync is back: the agent joins again by itself and its state comes
  // through the state transfer.
  ASSERT_TRUE(corosync.startReady()) << corosync.log();
  int64_t end = nowMs() + kCorosyncStartMs;
  while (countOf(agent.log(), "joined the group \"velt\"") < 2 && nowMs() < end) {
    struct timespec ts = {0, 20 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  EXPECT_EQ(countOf(agent.log(), "joined the group \"velt\""), 2u) << agent.log();
  EXPECT_TRUE(agent.waitForLog("corosync answers: this is node 7")) << agent.log();
  r = agent.veltctl({"groups"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("kept"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("alone"), std::string::npos) << r.out;
  EXPECT_EQ(countOf(notify.all(), "READY=1"), 1u) << "ready is told once: " << notify.all();
  ASSERT_TRUE(client.waitReply(client.request(joinRequest("after", 2)), &reply));
  EXPECT_EQ(reply.rc(), TK_GS_OK) << reply.text();

  EXPECT_TRUE(agent.stopCleanly()) << agent.log();
}

TEST_F(VeltdOnCorosync, RefusesToStartWhenCorosyncsNodeIdIsNotA16BitNodeNumber) {
  CorosyncInstance corosync(dir_.path());
  // knet refuses such ids itself; udpu takes them.
  ASSERT_TRUE(corosync.startReady(CorosyncConfig{70000, "udpu"})) << corosync.log();
  AgentProcess agent(dir_.path());
  ASSERT_TRUE(agent.start({}, false));
  ASSERT_TRUE(agent.waitExit(kPromptMs)) << agent.log();
  EXPECT_EQ(agent.exitStatus(), 1);
  EXPECT_NE(agent.err().find("70000"), std::string::npos) << agent.err();
  EXPECT_NE(agent.err().find("cannot be a 16-bit node number"), std::string::npos) << agent.err();
  struct stat st;
  EXPECT_NE(lstat(agent.socketPath().c_str(), &st), 0) << "nothing may be left behind";
}

}  // namespace
}  // namespace velt_test

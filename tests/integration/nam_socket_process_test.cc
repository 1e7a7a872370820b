// The local client socket of the real tolkvaskd, started in the cluster
// domain type against a standalone veltd: a raw client (plain send and
// recv) gets the init answer and the whole table; a daemon killed without
// clean-up leaves its socket file, which the next daemon takes over; without
// "TOLKVASK_SERVER_SOCKET" the daemon runs on and serves no client.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "daemon_harness.h"
#include "velt_nam.h"

using velt_test::Daemon;
using velt_test::TempDir;
using velt_test::validEnvironment;

namespace {

int32_t i32At(const std::string& b, size_t off) {
  int32_t v;
  memcpy(&v, b.data() + off, 4);
  return v;
}

// Connects to path; -1 when nobody answers there.
int connectTo(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Exactly n bytes, or fewer when the stream ended or 20 s passed.
std::string recvBytes(int fd, size_t n) {
  std::string out;
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (out.size() < n && std::chrono::steady_clock::now() < until) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    char buf[8192];
    ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
    if (got <= 0) break;
    out.append(buf, static_cast<size_t>(got));
  }
  return out;
}

std::string recvMessage(int fd) {
  std::string hdr = recvBytes(fd, 8);
  if (hdr.size() != 8 || i32At(hdr, 4) < 0) return std::string();
  return hdr + recvBytes(fd, static_cast<size_t>(i32At(hdr, 4)));
}

class NamSocketDaemon : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = validEnvironment(dir_.path());
    env_["HA_DOMAIN_TYPE"] = "CLUSTER";
    env_["TOLKVASK_SERVER_SOCKET"] = socketPath_;
    agent_.reset(new velt_test::Agent(dir_.path(), env_["VELT_AGENT_SOCKET"]));
    ASSERT_TRUE(agent_->start()) << agent_->log();
  }
  std::unique_ptr<Daemon> startDaemon(const std::map<std::string, std::string>& env) {
    std::unique_ptr<Daemon> d(new Daemon(dir_.path(), env));
    EXPECT_TRUE(d->start());
    EXPECT_TRUE(d->waitForLog("TOLKVASK is now ready to roll. ", 30)) << d->log();
    return d;
  }
  // Waits until the daemon's server answers on its socket.
  int connectWhenServed() {
    for (int i = 0; i < 200; ++i) {
      int fd = connectTo(socketPath_);
      if (fd >= 0) return fd;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return -1;
  }
  // Sends an init message and checks the answer and the whole table.
  void expectServed(int fd) {
    velt_nam_init_lib_msg init;
    memset(&init, 0, sizeof init);
    init.header = {VELT_NAM_LIB_INIT_MSG, static_cast<int32_t>(sizeof init)};
    init.lib_version = 1;
    init.pid = static_cast<int32_t>(getpid());
    velt_nam_msg_hdr hdr = {VELT_NAM_LIB_INIT_MSG, static_cast<int32_t>(sizeof init)};
    std::string bytes(reinterpret_cast<const char*>(&hdr), sizeof hdr);
    bytes.append(reinterpret_cast<const char*>(&init), sizeof init);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));

    std::string answer = recvMessage(fd);
    ASSERT_EQ(32u, answer.size());
    EXPECT_EQ(VELT_NAM_DAEMON_INIT_MSG, i32At(answer, 0));
    EXPECT_EQ(24, i32At(answer, 4));
    uint32_t quick = static_cast<uint32_t>(i32At(answer, 8 + 8));
    EXPECT_GE(quick, 0x02050000u) << std::hex << quick;  // what veltd announces
    EXPECT_EQ(98352, i32At(answer, 8 + 12));
    EXPECT_EQ(14, i32At(answer, 8 + 16));
    EXPECT_EQ(1, i32At(answer, 8 + 20));  // SW_HERDLET_NODE_NUMBER

    std::string table = recvMessage(fd);
    ASSERT_GE(table.size(), 8u + 12u);
    EXPECT_EQ(VELT_NAM_DAEMON_UPDATE_MSG, i32At(table, 0));
    int32_t networks = i32At(table, 8);
    int32_t adapters = i32At(table, 12);
    EXPECT_EQ(12 + 24 * networks + 88 * adapters, i32At(table, 4));
  }

  TempDir dir_;
  std::string socketPath_ = dir_.file("nam.sock");
  std::map<std::string, std::string> env_;
  std::unique_ptr<velt_test::Agent> agent_;
};

}  // namespace

TEST_F(NamSocketDaemon, ALocalClientGetsTheInitAnswerAndTheWholeTable) {
  auto daemon = startDaemon(env_);
  int fd = connectWhenServed();
  ASSERT_GE(fd, 0) << daemon->log();
  expectServed(fd);
  struct stat st;
  ASSERT_EQ(0, lstat(socketPath_.c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777u);
  close(fd);
  // The session ends: noticed by the server's poll, or by the session's own
  // thread when an update it sends meets the closed socket first.
  EXPECT_TRUE(daemon->waitForLog(" - Prepare to client exit", 20)) << daemon->log();
  // A client still connected does not hold up the daemon's stop.
  int other = connectWhenServed();
  ASSERT_GE(other, 0);
  expectServed(other);
  kill(daemon->pid(), SIGTERM);
  ASSERT_TRUE(daemon->waitExit(30));
  EXPECT_EQ(4, daemon->exitStatus()) << daemon->log();
  EXPECT_EQ(std::string::npos, daemon->log().find("NAMServer can not stop")) << daemon->log();
  close(other);
}

TEST_F(NamSocketDaemon, AKilledDaemonsSocketFileIsTakenOverByTheNextOne) {
  {
    auto first = startDaemon(env_);
    int fd = connectWhenServed();
    ASSERT_GE(fd, 0) << first->log();
    close(fd);
    kill(first->pid(), SIGKILL);
    ASSERT_TRUE(first->waitExit(20));
  }
  struct stat st;
  ASSERT_EQ(0, lstat(socketPath_.c_str(), &st)) << "the killed daemon's socket file should still be there";
  ASSERT_EQ(-1, connectTo(socketPath_));
  auto env = env_;
  env["SW_HERDLET_LOGFILE"] = dir_.file("second.log");
  auto second = startDaemon(env);
  int fd = connectWhenServed();
  ASSERT_GE(fd, 0) << second->log();
  expectServed(fd);
  close(fd);
  EXPECT_TRUE(second->waitForLog("Removed the stale client socket " + socketPath_, 20)) << second->log();
  kill(second->pid(), SIGTERM);
  EXPECT_TRUE(second->waitExit(30));
}

TEST_F(NamSocketDaemon, WithoutTheSocketVariableTheDaemonRunsOnAndServesNoClient) {
  env_.erase("TOLKVASK_SERVER_SOCKET");
  auto daemon = startDaemon(env_);
  EXPECT_TRUE(daemon->waitForLog("TOLKVASK_SOCK not specified.", 20)) << daemon->log();
  velt_test::CommandResult status = daemon->srcctl({"status", "-l"});
  EXPECT_EQ(0, status.status) << status.err;
  EXPECT_TRUE(daemon->running());
  struct stat st;
  EXPECT_NE(0, lstat(socketPath_.c_str(), &st));
  kill(daemon->pid(), SIGTERM);
  EXPECT_TRUE(daemon->waitExit(30));
}

TEST_F(NamSocketDaemon, InTheQuilDomainTypeNoClientIsServed) {
  env_["HA_DOMAIN_TYPE"] = "QUIL";
  auto daemon = startDaemon(env_);
  ASSERT_TRUE(daemon->waitForLog("Start to roll the protocols..", 30)) << daemon->log();
  EXPECT_EQ(std::string::npos, daemon->log().find(" NAMServer run thread started.")) << daemon->log();
  struct stat st;
  EXPECT_NE(0, lstat(socketPath_.c_str(), &st));
  kill(daemon->pid(), SIGTERM);
  EXPECT_TRUE(daemon->waitExit(30));
}

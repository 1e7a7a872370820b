// veltnam as a process against the fake daemon: show and watch, text and
// JSON, and its exit codes.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_nam_daemon.h"

namespace nam_test {
namespace {

// A running veltnam with its output on pipes. Owned by the test's thread.
class ToolRun {
 public:
  // Starts veltnam with args; env entries are set in the child (an empty
  // value unsets). asNobody: as uid/gid 65534 (needs root).
  ToolRun(const std::vector<std::string>& args, const std::vector<std::pair<std::string, std::string>>& env = {},
          bool asNobody = false) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) abort();
    pid_ = fork();
    if (pid_ < 0) abort();
    if (pid_ == 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
      for (const auto& e : env) {
        if (e.second.empty()) {
          unsetenv(e.first.c_str());
        } else {
          setenv(e.first.c_str(), e.second.c_str(), 1);
        }
      }
      if (asNobody && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(100);
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(VELTNAM_PATH));
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(VELTNAM_PATH, argv.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~ToolRun() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_);
    close(err_);
  }
  ToolRun(const ToolRun&) = delete;
  ToolRun& operator=(const ToolRun&) = delete;

  // The next line of standard output (without its newline) within kBound;
  // empty when none comes.
  std::string line() {
    auto until = std::chrono::steady_clock::now() + kBound;
    while (true) {
      size_t nl = outBuf_.find('\n');
      if (nl != std::string::npos) {
        std::string l = outBuf_.substr(0, nl);
        outBuf_.erase(0, nl + 1);
        return l;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      struct pollfd p = {out_, POLLIN, 0};
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) return "";
      char buf[4096];
      ssize_t n = read(out_, buf, sizeof buf);
      if (n <= 0) return "";
      outBuf_.append(buf, static_cast<size_t>(n));
    }
  }

  // Waits (kBound) for the end; its exit status, or -1 when it did not end
  // or ended by a signal. The rest of its output is in out() and err().
  int wait() {
    int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidFd < 0) return -1;
    auto until = std::chrono::steady_clock::now() + kBound;
    bool ended = false;
    bool outOpen = true, errOpen = true;
    // Until the child has ended and both pipes are at their end.
    while (!ended || outOpen || errOpen) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      struct pollfd p[3] = {{outOpen ? out_ : -1, POLLIN, 0}, {errOpen ? err_ : -1, POLLIN, 0},
                            {ended ? -1 : pidFd, POLLIN, 0}};
      if (poll(p, 3, static_cast<int>(left.count())) <= 0) continue;
      if (p[0].revents != 0) outOpen = readInto(out_, &outBuf_);
      if (p[1].revents != 0) errOpen = readInto(err_, &errBuf_);
      if (p[2].revents != 0) ended = true;
    }
    close(pidFd);
    int status = 0;
    if (!ended || waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void signal(int sig) { kill(pid_, sig); }
  const std::string& out() const { return outBuf_; }
  const std::string& err() const { return errBuf_; }

 private:
  // Appends what fd holds to buf; false at its end.
  static bool readInto(int fd, std::string* buf) {
    char chunk[4096];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) buf->append(chunk, static_cast<size_t>(n));
    return n > 0 || (n < 0 && errno == EINTR);
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string outBuf_;
  std::string errBuf_;
};

std::string fullTable() {
  WireNetwork sxn = wireNetwork(0x11, {wireAdapter(1, "sxn0", 1, "10.1.0.1"), wireAdapter(2, "sxn0", 1, "10.1.0.2"),
                                       wireAdapter(3, "sxn0", 0, "10.1.0.3")});
  WireNetwork ib =
      wireNetwork(0xfe80000000000022ull, {wireAdapter(1, "ib0", 1, "10.2.0.1"), wireAdapter(2, "ib0", 2, "10.2.0.2")});
  ib.adapters[0].gid = {0xfe, 0x80, 0x00, 0x01};
  ib.adapters[0].lid = 7;
  ib.adapters[0].spigot = 1;
  return wireUpdate({sxn, ib});
}

std::string nodeTwoDown() {
  return wireUpdate({wireNetwork(0x11, {wireAdapter(2, "sxn0", 0, "10.1.0.2")})});
}

const std::regex kTimestamp("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z ");

// The fake daemon's time: the part of a line after its timestamp.
std::string afterTime(const std::string& line) {
  EXPECT_TRUE(std::regex_search(line, kTimestamp)) << line;
  size_t sp = line.find(' ');
  return sp == std::string::npos ? line : line.substr(sp + 1);
}

// The line after its schema version and time, which must come first.
std::string afterJsonTime(const std::string& line) {
  static const std::regex kJsonTime(
      "^\\{\"schema_version\":1,\"time\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z\",");
  std::smatch m;
  EXPECT_TRUE(std::regex_search(line, m, kJsonTime)) << line;
  return m.empty() ? line : "{" + line.substr(static_cast<size_t>(m.length(0)));
}

class VeltnamTool : public ::testing::Test {
 protected:
  // veltnam connected to the fake daemon, which has answered and sent the
  // full table.
  std::unique_ptr<ToolRun> startWithTable(std::vector<std::string> args) {
    daemon_.serveOne(wireInitAnswer(0x02040500, 98352, 14, 4));
    args.insert(args.begin(), {"--socket", daemon_.socketPath()});
    auto run = std::make_unique<ToolRun>(args);
    EXPECT_TRUE(daemon_.waitServed());
    EXPECT_TRUE(daemon_.send(fullTable()));
    return run;
  }

  FakeNamDaemon daemon_;
};

TEST_F(VeltnamTool, ShowPrintsEveryNetworkWithItsCounts) {
  auto run = startWithTable({"show"});
  EXPECT_EQ(run->wait(), 0) << run->err();
  EXPECT_EQ(run->out(),
            "node 4, active version 2.4.5.0, table update 1\n"
            "network 0x0000000000000011: 3 adapters, 2 up, 1 down, 0 other\n"
            "  NODE   INTERFACE        ADDRESS          STATUS\n"
            "  1      sxn0             10.1.0.1         up\n"
            "  2      sxn0             10.1.0.2         up\n"
            "  3      sxn0             10.1.0.3         down\n"
            "network 0xfe80000000000022: 2 adapters, 1 up, 0 down, 1 other\n"
            "  NODE   INTERFACE        ADDRESS          STATUS\n"
            "  1      ib0              10.2.0.1         up\n"
            "  2      ib0              10.2.0.2         unconfigured\n");
  EXPECT_EQ(run->err(), "");
}

TEST_F(VeltnamTool, ShowJsonIsOneObject) {
  auto run = startWithTable({"show", "--json"});
  EXPECT_EQ(run->wait(), 0) << run->err();
  EXPECT_EQ(run->out(),
            "{\"schema_version\":1,\"node_number\":4,\"active_version\":\"2.4.5.0\",\"mod_seq_num\":1,\"networks\":["
            "{\"network_id\":\"0x0000000000000011\",\"num_connect\":3,\"num_up\":2,\"num_down\":1,\"num_other\":0,"
            "\"adapters\":["
            "{\"node\":1,\"interface\":\"sxn0\",\"device\":\"/dev/sxn0\",\"address\":\"10.1.0.1\",\"status\":\"up\","
            "\"lid\":0,\"adapter_type\":0,\"gid\":\"\",\"spigot_id\":0},"
            "{\"node\":2,\"interface\":\"sxn0\",\"device\":\"/dev/sxn0\",\"address\":\"10.1.0.2\",\"status\":\"up\","
            "\"lid\":0,\"adapter_type\":0,\"gid\":\"\",\"spigot_id\":0},"
            "{\"node\":3,\"interface\":\"sxn0\",\"device\":\"/dev/sxn0\",\"address\":\"10.1.0.3\",\"status\":\"down\","
            "\"lid\":0,\"adapter_type\":0,\"gid\":\"\",\"spigot_id\":0}]},"
            "{\"network_id\":\"0xfe80000000000022\",\"num_connect\":2,\"num_up\":1,\"num_down\":0,\"num_other\":1,"
            "\"adapters\":["
            "{\"node\":1,\"interface\":\"ib0\",\"device\":\"/dev/ib0\",\"address\":\"10.2.0.1\",\"status\":\"up\","
            "\"lid\":7,\"adapter_type\":0,\"gid\":\"fe:80:00:01\",\"spigot_id\":1},"
            "{\"node\":2,\"interface\":\"ib0\",\"device\":\"/dev/ib0\",\"address\":\"10.2.0.2\","
            "\"status\":\"unconfigured\",\"lid\":0,\"adapter_type\":0,\"gid\":\"\",\"spigot_id\":0}]}]}\n");
}

TEST_F(VeltnamTool, ShowEscapesNamesItCannotPrint) {
  daemon_.serveOne(wireInitAnswer());
  ToolRun run({"--socket", daemon_.socketPath(), "--json", "show"});
  ASSERT_TRUE(daemon_.waitServed());
  ASSERT_TRUE(daemon_.send(wireUpdate({wireNetwork(1, {wireAdapter(1, "a\"b\\c\x01\xe9", 1)})})));
  EXPECT_EQ(run.wait(), 0) << run.err();
  EXPECT_NE(run.out().find("\"interface\":\"a\\\"b\\\\c\\u0001\\u00e9\""), std::string::npos) << run.out();
}

TEST_F(VeltnamTool, WatchPrintsTheTableThenEachChange) {
  auto run = startWithTable({"watch"});
  std::vector<std::string> initial;
  for (int i = 0; i < 5; ++i) initial.push_back(afterTime(run->line()));
  EXPECT_EQ(initial, (std::vector<std::string>{
                         "initial network 0x0000000000000011 node 1 sxn0 10.1.0.1 up",
                         "initial network 0x0000000000000011 node 2 sxn0 10.1.0.2 up",
                         "initial network 0x0000000000000011 node 3 sxn0 10.1.0.3 down",
                         "initial network 0xfe80000000000022 node 1 ib0 10.2.0.1 up",
                         "initial network 0xfe80000000000022 node 2 ib0 10.2.0.2 unconfigured",
                     }));
  ASSERT_TRUE(daemon_.send(nodeTwoDown()));
  EXPECT_EQ(afterTime(run->line()), "changed network 0x0000000000000011 node 2 sxn0 10.1.0.2 down (was up)");
  // An adapter that moves, one that is new; a record sent again unchanged
  // prints nothing.
  ASSERT_TRUE(daemon_.send(
      wireUpdate({wireNetwork(0x11, {wireAdapter(1, "sxn0", 1, "10.1.0.1"), wireAdapter(4, "sxn0", 1, "10.1.0.4")}),
                  wireNetwork(0x33, {wireAdapter(3, "sxn0", 1, "10.1.0.3")})})));
  EXPECT_EQ(afterTime(run->line()), "added network 0x0000000000000011 node 4 sxn0 10.1.0.4 up");
  EXPECT_EQ(afterTime(run->line()),
            "changed network 0x0000000000000033 node 3 sxn0 10.1.0.3 up (was down) (from network 0x0000000000000011)");
  // The daemon goes away: exit 3, and nothing printed that was not a change.
  daemon_.hangUp();
  EXPECT_EQ(run->wait(), 3);
  EXPECT_EQ(run->out(), "");
  EXPECT_EQ(run->err(), "veltnam: the daemon at " + daemon_.socketPath() + " closed the connection\n");
}

TEST_F(VeltnamTool, WatchJsonIsOneObjectPerChangeAndEndsOnSigterm) {
  auto run = startWithTable({"--json", "watch"});
  for (int i = 0; i < 5; ++i) {
    std::string l = run->line();
    EXPECT_NE(afterJsonTime(l).find("\"event\":\"initial\""), std::string::npos) << l;
  }
  ASSERT_TRUE(daemon_.send(nodeTwoDown()));
  EXPECT_EQ(afterJsonTime(run->line()),
            "{\"event\":\"changed\",\"network_id\":\"0x0000000000000011\",\"node\":2,\"interface\":\"sxn0\","
            "\"device\":\"/dev/sxn0\",\"address\":\"10.1.0.2\",\"status\":\"down\",\"lid\":0,\"adapter_type\":0,"
            "\"gid\":\"\",\"spigot_id\":0,\"previous_status\":\"up\"}");
  run->signal(SIGTERM);
  EXPECT_EQ(run->wait(), 0) << run->err();
  EXPECT_EQ(run->err(), "");
}

TEST_F(VeltnamTool, TheEnvironmentNamesTheSocket) {
  daemon_.serveOne(wireInitAnswer());
  ToolRun run({"show"}, {{"TOLKVASK_SERVER_SOCKET", daemon_.socketPath()}});
  ASSERT_TRUE(daemon_.waitServed());
  ASSERT_TRUE(daemon_.send(fullTable()));
  EXPECT_EQ(run.wait(), 0) << run.err();
}

TEST_F(VeltnamTool, NoDaemonIsExitThree) {
  std::string none = daemon_.dir() + "/none.sock";
  ToolRun missing({"--socket", none, "show"});
  EXPECT_EQ(missing.wait(), 3);
  EXPECT_EQ(missing.err(), "veltnam: no daemon is running at " + none + " (No such file or directory)\n");
  daemon_.stopListening();
  ToolRun refused({"--socket", daemon_.socketPath(), "watch"});
  EXPECT_EQ(refused.wait(), 3);
  EXPECT_NE(refused.err().find("Connection refused"), std::string::npos) << refused.err();
}

TEST_F(VeltnamTool, WithJsonNoDaemonIsAJsonErrorOnStandardOutput) {
  std::string none = daemon_.dir() + "/none.sock";
  ToolRun missing({"--socket", none, "--json", "show"});
  EXPECT_EQ(missing.wait(), 3);
  EXPECT_EQ("{\"schema_version\":1,\"error\":{\"exit_status\":3,\"kind\":\"no_daemon\",\"message\":"
            "\"no daemon is running at " + none + " (No such file or directory)\"}}\n",
            missing.out());
}

TEST_F(VeltnamTool, ACallerTheSocketRefusesIsExitOne) {
  bool asNobody = geteuid() == 0;
  if (!asNobody) {
    ASSERT_EQ(chmod(daemon_.socketPath().c_str(), 0), 0);
  }
  ToolRun run({"--socket", daemon_.socketPath(), "show"}, {}, asNobody);
  EXPECT_EQ(run.wait(), 1);
  EXPECT_NE(run.err().find("refuses this caller"), std::string::npos) << run.err();
}

TEST_F(VeltnamTool, NoTableInTimeIsExitOne) {
  daemon_.serveOne(wireInitAnswer());
  ToolRun run({"--socket", daemon_.socketPath(), "--timeout", "1", "show"});
  ASSERT_TRUE(daemon_.waitServed());
  EXPECT_EQ(run.wait(), 1);
  EXPECT_EQ(run.err(), "veltnam: the daemon sent no adapter table within 1 s\n");
}

TEST_F(VeltnamTool, WhatTheLibraryRefusesIsExitOne) {
  daemon_.serveOne(wireInitAnswer());
  ToolRun run({"--socket", daemon_.socketPath(), "show"});
  ASSERT_TRUE(daemon_.waitServed());
  ASSERT_TRUE(daemon_.send(wireHeader(5, 12) + std::string(12, '\0')));
  EXPECT_EQ(run.wait(), 1);
  EXPECT_NE(run.err().find("unknown type 5"), std::string::npos) << run.err();
}

TEST_F(VeltnamTool, UsageErrorsAreExitTwo) {
  for (std::vector<std::string> args :
       {std::vector<std::string>{}, {"frobnicate"}, {"show", "extra"}, {"--timeout", "0", "show"},
        {"--timeout", "x", "show"}, {"--bogus", "show"}, {"show", "--socket"}, {"--socket", "", "show"},
        {"--socket", std::string(200, 'a'), "show"}}) {
    ToolRun run(args);
    EXPECT_EQ(run.wait(), 2) << testing::PrintToString(args);
    EXPECT_NE(run.err().find("usage: veltnam"), std::string::npos);
    EXPECT_EQ(run.out(), "");
  }
  ToolRun help({"--help"});
  EXPECT_EQ(help.wait(), 0);
  EXPECT_EQ(help.out().rfind("usage: veltnam", 0), 0u);
  EXPECT_NE(help.out().find("TOLKVASK_SERVER_SOCKET"), std::string::npos);
}

}  // namespace
}  // namespace nam_test

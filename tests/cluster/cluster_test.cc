// A real three-node cluster on this machine, through scripts/cluster: the
// harness itself (corosync's links and membership as failures come and
// go), then the agents on corosync (one state on every node, providers seen
// across nodes, a killed agent, a partition and its merge), the raw
// adapter group, and tolkvaskd on every node (its cooked groups as
// adapters fail and heal, a killed daemon, a configuration refresh), and
// tolkvaskd in the cluster domain (its adapter table from KOR through fail
// and heal, a node added and removed, a whole-cluster restart, the KOR event
// session moving with the leadership). Each test brings a fresh cluster up
// and takes it down.
// Needs root and network namespaces; otherwise every test is skipped with a
// "SKIP:" line.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kNodes = 3;
// How long a command of the harness may take (up includes corosync's
// convergence).
constexpr int kHarnessMs = 90000;
constexpr int kQueryMs = 15000;
// knet gives a dead link up within a few seconds (0.5 to 2.5 s in the
// harness, see deploy/corosync.conf.in) and takes a revived one back
// sooner; a corosync membership change takes the token timeout and
// consensus (about 12 s with the harness's token of 5 s); agents follow
// both.
constexpr int kLinkMs = 15000;
constexpr int kViewMs = 30000;
constexpr int kAgentMs = 20000;

const char kVeltdMissing[] = "cannot run on corosync yet";

std::string scriptPath() { return std::string(VELT_SOURCE_DIR) + "/scripts/cluster"; }

bool waitUntil(const std::function<bool()>& condition, int boundMs, int pollMs = 100) {
  auto deadline = Clock::now() + milliseconds(boundMs);
  for (;;) {
    if (condition()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(pollMs));
  }
}

struct Result {
  int status = -1;   // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs argv with our environment; kills its process group after boundMs.
Result run(const std::vector<std::string>& argv, int boundMs) {
  Result r;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return r;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return r;
  }
  pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(out[0]);
    close(err[0]);
    return r;
  }
  auto deadline = Clock::now() + milliseconds(boundMs);
  struct pollfd p[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  bool killed = false;
  while (p[0].fd >= 0 || p[1].fd >= 0) {
    int left = static_cast<int>(
        std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count());
    if (left <= 0) {
      kill(-pid, SIGKILL);
      killed = true;
      break;
    }
    if (poll(p, 2, left) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (p[i].fd < 0 || p[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(p[i].fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? r.out : r.err).append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(p[i].fd);
        p[i].fd = -1;
      }
    }
  }
  for (auto& f : p) {
    if (f.fd >= 0) close(f.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (killed) r.err += "\n(killed after " + std::to_string(boundMs) + " ms)";
  return r;
}

Result cluster(const std::vector<std::string>& args, int boundMs = kQueryMs) {
  std::vector<std::string> argv{scriptPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv, boundMs);
}

Result inNode(int node, const std::vector<std::string>& args, int boundMs = kQueryMs) {
  std::vector<std::string> argv{"exec", std::to_string(node)};
  argv.insert(argv.end(), args.begin(), args.end());
  return cluster(argv, boundMs);
}

std::string describe(const Result& r) {
  return "exit " + std::to_string(r.status) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

// A program inside a node (through `scripts/cluster exec`, which becomes the
// program), with a pipe to its standard input and one from its standard
// output, read line by line. Owned by the test thread.
class NodeProcess {
 public:
  NodeProcess(int node, const std::vector<std::string>& args) {
    std::vector<std::string> argv{scriptPath(), "exec", std::to_string(node)};
    argv.insert(argv.end(), args.begin(), args.end());
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return;
    if (pipe2(out, O_CLOEXEC) != 0) {
      close(in[0]);
      close(in[1]);
      return;
    }
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      std::vector<char*> a;
      for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
      a.push_back(nullptr);
      execv(a[0], a.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    toChild_ = in[1];
    fromChild_ = out[0];
  }
  ~NodeProcess() {
    if (toChild_ >= 0) close(toChild_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fromChild_ >= 0) close(fromChild_);
  }
  NodeProcess(const NodeProcess&) = delete;
  NodeProcess& operator=(const NodeProcess&) = delete;

  bool send(const std::string& line) {
    std::string l = line + "\n";
    return toChild_ >= 0 && write(toChild_, l.data(), l.size()) == static_cast<ssize_t>(l.size());
  }

  // Waits for a line (read since the start) that contains every part;
  // returns it, or "" after boundMs.
  std::string waitLine(const std::vector<std::string>& parts, int boundMs = kAgentMs) {
    auto matches = [&](const std::string& line) {
      for (const std::string& p : parts) {
        if (line.find(p) == std::string::npos) return false;
      }
      return true;
    };
    auto deadline = Clock::now() + milliseconds(boundMs);
    size_t checked = 0;
    for (;;) {
      for (; checked < lines_.size(); ++checked) {
        if (matches(lines_[checked])) return lines_[checked];
      }
      int left = static_cast<int>(
          std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count());
      if (left <= 0 || !readSome(left)) return "";
    }
  }

  // Reads whatever comes for boundMs, then returns every line read so far
  // that contains every part.
  std::vector<std::string> linesAfter(int boundMs, const std::vector<std::string>& parts) {
    auto deadline = Clock::now() + milliseconds(boundMs);
    for (;;) {
      int left = static_cast<int>(
          std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count());
      if (left <= 0 || !readSome(left)) break;
    }
    std::vector<std::string> out;
    for (const std::string& line : lines_) {
      bool all = true;
      for (const std::string& p : parts) all = all && line.find(p) != std::string::npos;
      if (all) out.push_back(line);
    }
    return out;
  }

  std::string transcript() const {
    std::string all;
    for (const std::string& l : lines_) all += l + "\n";
    return all + partial_;
  }

 private:
  bool readSome(int boundMs) {
    if (fromChild_ < 0) return false;
    struct pollfd p = {fromChild_, POLLIN, 0};
    int n = poll(&p, 1, boundMs);
    if (n <= 0) return n == 0 || errno == EINTR;
    char buf[4096];
    ssize_t len = read(fromChild_, buf, sizeof buf);
    if (len <= 0) {
      close(fromChild_);
      fromChild_ = -1;
      return false;
    }
    partial_.append(buf, static_cast<size_t>(len));
    size_t nl;
    while ((nl = partial_.find('\n')) != std::string::npos) {
      lines_.push_back(partial_.substr(0, nl));
      partial_.erase(0, nl + 1);
    }
    return true;
  }

  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::vector<std::string> lines_;
  std::string partial_;
};

// ------------------------------------------------ what the nodes say

// corosync-cfgtool -s of a node as "LINK PEER" -> state.
std::map<std::string, std::string> knetLinks(int node) {
  std::map<std::string, std::string> links;
  Result r = inNode(node, {"corosync-cfgtool", "-s"});
  std::string link;
  std::regex linkRe("^LINK ID ([0-9]+)");
  std::regex peerRe("nodeid:\\s+([0-9]+):\\s+(\\S+)");
  size_t pos = 0;
  while (pos < r.out.size()) {
    size_t nl = r.out.find('\n', pos);
    std::string line = r.out.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
    pos = nl == std::string::npos ? r.out.size() : nl + 1;
    std::smatch m;
    if (std::regex_search(line, m, linkRe)) link = m[1];
    if (!link.empty() && std::regex_search(line, m, peerRe)) links[link + " " + m[1].str()] = m[2];
  }
  return links;
}

// True when every node's knet sees link LINK towards every peer in state
// STATE, except the pairs of `node` with its peers, which are in
// `nodeState`.
bool knetLinksAre(int link, int node, const std::string& nodeState, const std::string& otherState) {
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> links = knetLinks(n);
    for (int peer = 1; peer <= kNodes; ++peer) {
      if (peer == n) continue;
      std::string want = (n == node || peer == node) ? nodeState : otherState;
      auto it = links.find(std::to_string(link) + " " + std::to_string(peer));
      if (it == links.end() || it->second != want) return false;
    }
  }
  return true;
}

// knet's links: the management network first, the cluster's traffic goes
// there while it works; then one link per switch network.
constexpr int kManagementLink = 0;
constexpr int kSxn0Link = 1;
constexpr int kSxn1Link = 2;

bool allKnetLinksConnected() {
  for (int link : {kManagementLink, kSxn0Link, kSxn1Link}) {
    if (!knetLinksAre(link, 0, "connected", "connected")) return false;
  }
  return true;
}

// The node ids of a node's corosync membership.
std::vector<int> corosyncMembers(int node) {
  Result r = inNode(node, {"corosync-cmapctl", "-b", "runtime.members"});
  std::vector<int> members;
  std::regex re("runtime\\.members\\.([0-9]+)\\.status \\(str\\) = joined");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), re), end; it != end; ++it) {
    members.push_back(std::stoi((*it)[1]));
  }
  std::sort(members.begin(), members.end());
  return members;
}

std::string veltctlJson(int node, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"veltctl", "--json", "--timeout", "3"};
  argv.insert(argv.end(), args.begin(), args.end());
  Result r = inNode(node, argv);
  return r.status == 0 ? r.out : "";
}

// The agent's view (node ids), empty when it does not answer.
std::vector<int> agentView(int node) {
  std::string s = veltctlJson(node, {"status"});
  std::smatch m;
  std::vector<int> view;
  if (!std::regex_search(s, m, std::regex("\"view\":\\[([0-9,]*)\\]"))) return view;
  std::string list = m[1];
  std::regex num("[0-9]+");
  for (std::sregex_iterator it(list.begin(), list.end(), num), end; it != end; ++it) {
    view.push_back(std::stoi(it->str()));
  }
  std::sort(view.begin(), view.end());
  return view;
}

std::vector<std::string> groupNames(const std::string& groupsJson) {
  std::vector<std::string> names;
  std::regex re("\"name\":\"((?:[^\"\\\\]|\\\\.)*)\"");
  for (std::sregex_iterator it(groupsJson.begin(), groupsJson.end(), re), end; it != end; ++it) {
    names.push_back((*it)[1]);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> agentGroups(int node) { return groupNames(veltctlJson(node, {"groups"})); }

// A group's providers on a node as "INSTANCE/NODE", sorted; empty when the
// agent does not know the group.
std::vector<std::string> providers(int node, const std::string& group) {
  std::string s = veltctlJson(node, {"members", group});
  std::vector<std::string> out;
  // Adapters of the raw group carry more fields after these two.
  std::regex re("\\{\"instance\":([0-9]+),\"node\":([0-9]+)[,}]");
  for (std::sregex_iterator it(s.begin(), s.end(), re), end; it != end; ++it) {
    out.push_back((*it)[1].str() + "/" + (*it)[2].str());
  }
  std::sort(out.begin(), out.end());
  return out;
}

int providersOfNode(const std::vector<std::string>& ps, int node) {
  std::string suffix = "/" + std::to_string(node);
  return static_cast<int>(std::count_if(ps.begin(), ps.end(), [&](const std::string& p) {
    return p.size() > suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0;
  }));
}

std::string withoutField(std::string json, const std::string& field) {
  return std::regex_replace(json, std::regex(",?\"" + field + "\":[0-9]+"), "");
}

// Everything an agent reports about the cluster that must be the same on
// every node of a view: its status (but its own node number), the groups
// and each group's members and state value (but local subscriber counts).
std::string agentState(int node) {
  std::string status = veltctlJson(node, {"status"});
  std::string groups = veltctlJson(node, {"groups"});
  if (status.empty() || groups.empty()) return "";
  std::string state = withoutField(status, "node") + withoutField(groups, "subscribers_here");
  for (const std::string& g : groupNames(groups)) {
    state += withoutField(veltctlJson(node, {"members", g}), "subscribers_here");
  }
  return state;
}

bool agentsAgree(const std::vector<int>& nodes) {
  std::string first = agentState(nodes.front());
  if (first.empty()) return false;
  for (size_t i = 1; i < nodes.size(); ++i) {
    if (agentState(nodes[i]) != first) return false;
  }
  return true;
}

std::string agentStates(const std::vector<int>& nodes) {
  std::string all;
  for (int n : nodes) all += "node " + std::to_string(n) + ": " + agentState(n) + "\n";
  return all;
}

int countMatches(const std::string& text, const std::string& pattern) {
  std::regex re(pattern);
  return static_cast<int>(std::distance(std::sregex_iterator(text.begin(), text.end(), re),
                                        std::sregex_iterator()));
}

std::string join(const std::vector<std::string>& v) {
  std::string s;
  for (const std::string& x : v) s += (s.empty() ? "" : ",") + x;
  return s;
}

std::string join(const std::vector<int>& v) {
  std::string s;
  for (int x : v) s += (s.empty() ? "" : ",") + std::to_string(x);
  return s;
}

// ---------------------------------------------------------- fixtures

// Brings a fresh three-node cluster up for each test and takes it down
// after. The cluster has names of its own (prefix "vtest", state in
// /run/velt-cluster-test) unless the environment says otherwise, so that a
// cluster someone runs by hand is not disturbed.
class ClusterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why = missingPrerequisite();
    if (!why.empty()) {
      printf("SKIP: %s\n", why.c_str());
      fflush(stdout);
      GTEST_SKIP() << "SKIP: " << why;
    }
    setenv("VELT_CLUSTER_DIR", envOr("VELT_CLUSTER_DIR", "/run/velt-cluster-test").c_str(), 1);
    setenv("VELT_CLUSTER_PREFIX", envOr("VELT_CLUSTER_PREFIX", "vtest").c_str(), 1);
    setenv("VELT_BUILD_DIR", VELT_BINARY_DIR, 1);
    // A cluster left by a test that was killed goes first.
    cluster({"down"}, kHarnessMs);
    Result up = cluster({"up", std::to_string(kNodes)}, kHarnessMs);
    upOutput_ = up.out + up.err;
    ASSERT_EQ(0, up.status) << "scripts/cluster up " << kNodes << " failed:\n" << describe(up);
    started_ = true;
    agentsRun_ = upOutput_.find(kVeltdMissing) == std::string::npos;
  }

  void TearDown() override {
    if (!started_) return;
    if (HasFailure()) {
      Result s = cluster({"status"});
      printf("--- scripts/cluster status at the failure:\n%s%s", s.out.c_str(), s.err.c_str());
      dumpLogs();
    }
    Result down = cluster({"down"}, kHarnessMs);
    EXPECT_EQ(0, down.status) << describe(down);
  }

  // The agents' tests cannot do anything without agents on corosync.
  void requireAgents() {
    ASSERT_TRUE(agentsRun_) << "veltd does not run on corosync in this build (scripts/cluster up "
                               "said: \"corosync transport is not available\"); the agents' "
                               "cluster behaviour cannot be checked until it does.\n"
                            << upOutput_;
  }

  static std::string envOr(const char* name, const char* fallback) {
    const char* v = getenv(name);
    return v != nullptr && v[0] != '\0' ? v : fallback;
  }

  static std::string missingPrerequisite() {
    if (geteuid() != 0) return "the cluster tests need root (network namespaces, bridges, mounts)";
    if (run({"ip", "netns", "list"}, 5000).status != 0) return "`ip netns` does not work here";
    for (const char* tool : {"corosync", "corosync-cfgtool", "nsenter", "unshare"}) {
      if (run({"sh", "-c", std::string("command -v ") + tool}, 5000).status != 0) {
        return std::string(tool) + " is not installed";
      }
    }
    return "";
  }

  void dumpLogs() {
    std::string dir = getenv("VELT_CLUSTER_DIR");
    for (int n = 1; n <= kNodes; ++n) {
      for (const char* log : {"veltd.log", "veltd.out", "corosync.out", "tolkvaskd.out", "tolkvaskd.log"}) {
        Result r = run({"tail", "-n", "25", dir + "/node" + std::to_string(n) + "/run/log/" + log}, 5000);
        if (r.status == 0 && !r.out.empty()) {
          printf("--- node %d %s (last lines)\n%s", n, log, r.out.c_str());
        }
      }
    }
  }

  bool started_ = false;
  bool agentsRun_ = false;
  std::string upOutput_;
};

// The harness and corosync alone: these hold whether or not the agents run.
class ClusterHarness : public ClusterTest {};

TEST_F(ClusterHarness, UpConnectsEveryKnetLinkAndDownLeavesNothing) {
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs)) << "knet links are not all connected";
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_EQ(std::vector<int>({1, 2, 3}), corosyncMembers(n)) << "node " << n;
    Result addrs = inNode(n, {"ip", "-o", "-4", "addr", "show"});
    EXPECT_NE(std::string::npos, addrs.out.find("mgmt    inet 10.9.0." + std::to_string(n) + "/24"))
        << addrs.out;
    EXPECT_NE(std::string::npos, addrs.out.find("sxn0    inet 10.10.0." + std::to_string(n) + "/24"))
        << addrs.out;
    EXPECT_NE(std::string::npos, addrs.out.find("sxn1    inet 10.11.0." + std::to_string(n) + "/24"))
        << addrs.out;
    Result env = inNode(n, {"sh", "-c", "echo $VELT_NODE $VELT_AGENT_SOCKET"});
    EXPECT_EQ(std::to_string(n) + " /run/velt/agent.sock\n", env.out) << describe(env);
  }
  // Each node has its own /run: its corosync's pid file names its own
  // corosync.
  std::set<std::string> pids;
  for (int n = 1; n <= kNodes; ++n) pids.insert(inNode(n, {"cat", "/run/corosync.pid"}).out);
  EXPECT_EQ(3u, pids.size());
  Result status = cluster({"status"});
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_NE(std::string::npos, status.out.find("=== node " + std::to_string(n))) << status.out;
  }
  EXPECT_EQ(3, countMatches(status.out, "corosync: pid [0-9]+")) << status.out;
  EXPECT_EQ(3, countMatches(status.out, "mgmt \\(management network, knet link 0, 10\\.9\\.0\\.[1-3]\\): "
                                        "<[A-Z_,]*UP[A-Z_,]*> on bridge"))
      << status.out;
  EXPECT_EQ(3, countMatches(status.out, "sxn1 \\(switch network, knet link 2, 10\\.11\\.0\\.[1-3]\\)"))
      << status.out;

  Result down = cluster({"down"}, kHarnessMs);
  ASSERT_EQ(0, down.status) << describe(down);
  started_ = false;
  std::string prefix = getenv("VELT_CLUSTER_PREFIX");
  Result netns = run({"ip", "netns", "list"}, 5000);
  EXPECT_EQ(std::string::npos, netns.out.find(prefix + "1")) << netns.out;
  EXPECT_NE(0, run({"ip", "link", "show", prefix + "-mgmt"}, 5000).status);
  EXPECT_NE(0, run({"ip", "link", "show", prefix + "-sxn0"}, 5000).status);
  EXPECT_NE(0, run({"ip", "link", "show", prefix + "-sxn1"}, 5000).status);
  EXPECT_NE(0, access(getenv("VELT_CLUSTER_DIR"), F_OK));
  Result again = cluster({"down"}, kHarnessMs);
  EXPECT_EQ(0, again.status) << "down is not idempotent: " << describe(again);
  Result gone = cluster({"status"});
  EXPECT_NE(0, gone.status);
  EXPECT_NE(std::string::npos, gone.err.find("no cluster is up")) << describe(gone);
}

TEST_F(ClusterHarness, FailedInterfaceShowsInKnetLinkStatusUntilHealed) {
  ASSERT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  Result fail = cluster({"fail", "3", "sxn1"});
  ASSERT_EQ(0, fail.status) << describe(fail);
  Result link = inNode(3, {"ip", "-o", "link", "show", "sxn1"});
  EXPECT_EQ(std::string::npos, link.out.find(",UP")) << link.out;
  EXPECT_TRUE(waitUntil([] { return knetLinksAre(kSxn1Link, 3, "disconnected", "connected"); }, kLinkMs))
      << "knet did not see node 3's sxn1 link go down";
  EXPECT_TRUE(knetLinksAre(kManagementLink, 3, "connected", "connected")) << "the management link should stay up";
  EXPECT_TRUE(knetLinksAre(kSxn0Link, 3, "connected", "connected")) << "the sxn0 link should stay up";
  EXPECT_EQ(std::vector<int>({1, 2, 3}), corosyncMembers(1)) << "one lost link must not cost a node";

  Result heal = cluster({"heal", "3", "sxn1"});
  ASSERT_EQ(0, heal.status) << describe(heal);
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs)) << "knet did not see the link come back";
}

TEST_F(ClusterHarness, CutPathKeepsTheInterfaceUpButKnetSeesTheLinkDown) {
  ASSERT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  Result cut = cluster({"cut", "3", "sxn1"});
  ASSERT_EQ(0, cut.status) << describe(cut);
  EXPECT_TRUE(waitUntil([] { return knetLinksAre(kSxn1Link, 3, "disconnected", "connected"); }, kLinkMs))
      << "knet did not see the silent path failure";
  // Silent: the node itself sees nothing wrong with its interface.
  Result link = inNode(3, {"ip", "-o", "link", "show", "sxn1"});
  EXPECT_NE(std::string::npos, link.out.find(",UP,LOWER_UP")) << link.out;
  EXPECT_EQ(std::vector<int>({1, 2, 3}), corosyncMembers(3));

  Result uncut = cluster({"uncut", "3", "sxn1"});
  ASSERT_EQ(0, uncut.status) << describe(uncut);
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
}

TEST_F(ClusterHarness, PartitionedNodeFormsItsOwnMembershipUntilMerged) {
  ASSERT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  Result part = cluster({"partition", "3"});
  ASSERT_EQ(0, part.status) << describe(part);
  EXPECT_TRUE(waitUntil(
      [] {
        return corosyncMembers(3) == std::vector<int>({3}) &&
               corosyncMembers(1) == std::vector<int>({1, 2}) &&
               corosyncMembers(2) == std::vector<int>({1, 2});
      },
      kViewMs))
      << "members: " << join(corosyncMembers(1)) << " | " << join(corosyncMembers(3));
  Result merge = cluster({"merge", "3"});
  ASSERT_EQ(0, merge.status) << describe(merge);
  EXPECT_TRUE(waitUntil(
      [] {
        for (int n = 1; n <= kNodes; ++n) {
          if (corosyncMembers(n) != std::vector<int>({1, 2, 3})) return false;
        }
        return true;
      },
      kViewMs));
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
}

TEST_F(ClusterHarness, KilledCorosyncRestartsAndRejoins) {
  ASSERT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  Result kill = cluster({"kill", "2", "corosync"});
  ASSERT_EQ(0, kill.status) << describe(kill);
  EXPECT_TRUE(waitUntil(
      [] { return corosyncMembers(1) == std::vector<int>({1, 3}) && corosyncMembers(3) == std::vector<int>({1, 3}); },
      kViewMs));
  Result again = cluster({"kill", "2", "corosync"});
  EXPECT_NE(0, again.status) << "killing a dead corosync should fail";
  Result start = cluster({"start", "2", "corosync"});
  ASSERT_EQ(0, start.status) << describe(start);
  EXPECT_TRUE(waitUntil(
      [] {
        for (int n = 1; n <= kNodes; ++n) {
          if (corosyncMembers(n) != std::vector<int>({1, 2, 3})) return false;
        }
        return true;
      },
      kViewMs));
}

TEST_F(ClusterHarness, BadArgumentsAreRefusedWithUsageErrors) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"fail", "4", "sxn0"},
                                             {"fail", "1", "eth0"},
                                             {"kill", "1", "sshd"},
                                             {"partition"},
                                             {"exec", "0", "true"},
                                             {"frobnicate"}}) {
    Result r = cluster(args);
    EXPECT_EQ(2, r.status) << join(args) << ": " << describe(r);
    EXPECT_FALSE(r.err.empty()) << join(args);
  }
  Result up = cluster({"up", "3"});
  EXPECT_EQ(1, up.status) << "a second up must be refused";
  EXPECT_NE(std::string::npos, up.err.find("already up")) << describe(up);
}

// The agents on corosync: one replicated state on every node.
class ClusterAgents : public ClusterTest {};

TEST_F(ClusterAgents, AllAgentsReportTheSameViewGroupsAndMembers) {
  requireAgents();
  for (int n = 1; n <= kNodes; ++n) EXPECT_EQ(std::vector<int>({1, 2, 3}), agentView(n)) << "node " << n;
  NodeProcess p1(1, {"gscl_test_provider", "sameState", "1"});
  NodeProcess p2(2, {"gscl_test_provider", "sameState", "2"});
  NodeProcess watch(3, {"gscl_watch", "sameState"});
  ASSERT_FALSE(p1.waitLine({"rc initialize TK_GS_OK"}).empty()) << p1.transcript();
  ASSERT_FALSE(p2.waitLine({"rc initialize TK_GS_OK"}).empty()) << p2.transcript();
  p1.send("join");
  ASSERT_FALSE(p1.waitLine({"cb approved", "current=1/1"}).empty()) << p1.transcript();
  p2.send("join");
  ASSERT_FALSE(p2.waitLine({"rc join TK_GS_OK"}).empty()) << p2.transcript();
  EXPECT_FALSE(watch.waitLine({"sub sameState", "full=1/1,2/2"}).empty()) << watch.transcript();
  EXPECT_TRUE(waitUntil([] { return agentsAgree({1, 2, 3}); }, kAgentMs)) << agentStates({1, 2, 3});
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_EQ(std::vector<std::string>({"1/1", "2/2"}), providers(n, "sameState")) << "node " << n;
  }
}

TEST_F(ClusterAgents, ProviderOnNode1IsSeenBySubscriberOnNode3) {
  requireAgents();
  NodeProcess watch(3, {"gscl_watch", "seenAcross"});
  ASSERT_FALSE(watch.waitLine({"rc subscribe seenAcross TK_GS_OK"}).empty()) << watch.transcript();
  NodeProcess provider(1, {"gscl_test_provider", "seenAcross", "7"});
  ASSERT_FALSE(provider.waitLine({"rc initialize TK_GS_OK"}).empty()) << provider.transcript();
  provider.send("join");
  EXPECT_FALSE(watch.waitLine({"sub seenAcross", "full=7/1"}).empty()) << watch.transcript();
  // The subscriber on node 3 may hear of the join before the provider's own
  // approval reaches it; a leave asked for before that would be refused.
  ASSERT_FALSE(provider.waitLine({"cb approved", "current=7/1"}).empty()) << provider.transcript();
  provider.send("leave");
  EXPECT_FALSE(provider.waitLine({"rc leave TK_GS_OK"}).empty()) << provider.transcript();
  EXPECT_FALSE(watch.waitLine({"sub seenAcross", "DELTA_LEAVE", "changing=7/1"}).empty())
      << watch.transcript();
}

TEST_F(ClusterAgents, KilledAgentsProvidersFailureLeaveAndRestartedAgentRejoins) {
  requireAgents();
  NodeProcess p1(1, {"gscl_test_provider", "killGroup", "1"});
  NodeProcess p2(2, {"gscl_test_provider", "killGroup", "2"});
  NodeProcess watch(3, {"gscl_watch", "killGroup"});
  ASSERT_FALSE(p1.waitLine({"rc initialize TK_GS_OK"}).empty()) << p1.transcript();
  ASSERT_FALSE(p2.waitLine({"rc initialize TK_GS_OK"}).empty()) << p2.transcript();
  p1.send("join");
  ASSERT_FALSE(p1.waitLine({"rc join TK_GS_OK"}).empty()) << p1.transcript();
  p2.send("join");
  ASSERT_FALSE(p2.waitLine({"rc join TK_GS_OK"}).empty()) << p2.transcript();
  ASSERT_FALSE(watch.waitLine({"sub killGroup", "full=1/1,2/2"}).empty()) << watch.transcript();
  EXPECT_EQ(2, providersOfNode(providers(1, "allAdapterMembership"), 2))
      << "node 2's two adapters should be in the raw group before the kill";

  Result kill = cluster({"kill", "2", "veltd"});
  ASSERT_EQ(0, kill.status) << describe(kill);
  EXPECT_FALSE(watch.waitLine({"sub killGroup", "DELTA_LEAVE", "changing=2/2"}).empty())
      << watch.transcript();
  for (int n : {1, 3}) {
    EXPECT_TRUE(waitUntil([n] { return agentView(n) == std::vector<int>({1, 3}); }, kViewMs))
        << "node " << n << " view " << join(agentView(n));
    EXPECT_TRUE(waitUntil([n] { return providers(n, "killGroup") == std::vector<std::string>({"1/1"}); },
                          kAgentMs))
        << "node " << n << ": " << join(providers(n, "killGroup"));
    EXPECT_TRUE(waitUntil([n] { return providersOfNode(providers(n, "allAdapterMembership"), 2) == 0; },
                          kAgentMs))
        << "node " << n << ": node 2's adapters are still in the raw group: "
        << join(providers(n, "allAdapterMembership"));
  }

  Result start = cluster({"start", "2", "veltd"}, kHarnessMs);
  ASSERT_EQ(0, start.status) << describe(start);
  EXPECT_TRUE(waitUntil(
      [] {
        for (int n = 1; n <= kNodes; ++n) {
          if (agentView(n) != std::vector<int>({1, 2, 3})) return false;
        }
        return agentsAgree({1, 2, 3});
      },
      kViewMs))
      << agentStates({1, 2, 3});
  EXPECT_EQ(std::vector<std::string>({"1/1"}), providers(2, "killGroup"))
      << "the restarted agent should hold the cluster's state";
  EXPECT_TRUE(waitUntil([] { return providersOfNode(providers(1, "allAdapterMembership"), 2) == 2; },
                        kAgentMs))
      << "node 2's adapters did not rejoin the raw group: " << join(providers(1, "allAdapterMembership"));
}

TEST_F(ClusterAgents, PartitionKeepsBothSidesWorkingAndMergeDissolvesSharedGroups) {
  requireAgents();
  NodeProcess both1(1, {"gscl_test_provider", "bothSides", "1"});
  NodeProcess both3(3, {"gscl_test_provider", "bothSides", "3"});
  NodeProcess left2(2, {"gscl_test_provider", "leftSide", "2"});
  NodeProcess right3(3, {"gscl_test_provider", "rightSide", "3"});
  NodeProcess watch(2, {"gscl_watch", "bothSides"});
  for (NodeProcess* p : {&both1, &both3, &left2, &right3}) {
    ASSERT_FALSE(p->waitLine({"rc initialize TK_GS_OK"}).empty()) << p->transcript();
    p->send("join");
    ASSERT_FALSE(p->waitLine({"rc join TK_GS_OK"}).empty()) << p->transcript();
  }
  ASSERT_TRUE(waitUntil(
      [] { return agentsAgree({1, 2, 3}) && providers(1, "bothSides").size() == 2; }, kAgentMs))
      << agentStates({1, 2, 3});

  Result part = cluster({"partition", "3"});
  ASSERT_EQ(0, part.status) << describe(part);
  EXPECT_TRUE(waitUntil(
      [] {
        return agentView(1) == std::vector<int>({1, 2}) && agentView(2) == std::vector<int>({1, 2}) &&
               agentView(3) == std::vector<int>({3});
      },
      kViewMs))
      << "views: " << join(agentView(1)) << " | " << join(agentView(2)) << " | " << join(agentView(3));
  // Each side carries on with what it has.
  EXPECT_TRUE(waitUntil([] { return providers(1, "bothSides") == std::vector<std::string>({"1/1"}); },
                        kAgentMs));
  EXPECT_TRUE(waitUntil([] { return providers(3, "bothSides") == std::vector<std::string>({"3/3"}); },
                        kAgentMs));
  NodeProcess newLeft(2, {"gscl_test_provider", "joinedLeft", "2"});
  NodeProcess newRight(3, {"gscl_test_provider", "joinedRight", "3"});
  for (NodeProcess* p : {&newLeft, &newRight}) {
    ASSERT_FALSE(p->waitLine({"rc initialize TK_GS_OK"}).empty()) << p->transcript();
    p->send("join");
    EXPECT_FALSE(p->waitLine({"cb approved"}).empty()) << p->transcript();
  }
  EXPECT_TRUE(waitUntil([] { return providers(1, "joinedLeft") == std::vector<std::string>({"2/2"}); },
                        kAgentMs));
  EXPECT_TRUE(waitUntil([] { return agentsAgree({1, 2}); }, kAgentMs)) << agentStates({1, 2});
  EXPECT_EQ(std::vector<std::string>({"3/3"}), providers(3, "joinedRight"));

  Result merge = cluster({"merge", "3"});
  ASSERT_EQ(0, merge.status) << describe(merge);
  EXPECT_TRUE(waitUntil(
      [] {
        for (int n = 1; n <= kNodes; ++n) {
          if (agentView(n) != std::vector<int>({1, 2, 3})) return false;
        }
        return agentsAgree({1, 2, 3});
      },
      kViewMs))
      << agentStates({1, 2, 3});
  // The group that lived on both sides is dissolved; the others survive.
  EXPECT_FALSE(watch.waitLine({"sub bothSides", "DISSOLVED"}).empty()) << watch.transcript();
  for (int n = 1; n <= kNodes; ++n) {
    std::vector<std::string> groups = agentGroups(n);
    EXPECT_EQ(groups.end(), std::find(groups.begin(), groups.end(), "bothSides")) << "node " << n << ": " << join(groups);
    EXPECT_EQ(std::vector<std::string>({"2/2"}), providers(n, "leftSide")) << "node " << n;
    EXPECT_EQ(std::vector<std::string>({"3/3"}), providers(n, "rightSide")) << "node " << n;
    EXPECT_EQ(std::vector<std::string>({"2/2"}), providers(n, "joinedLeft")) << "node " << n;
    EXPECT_EQ(std::vector<std::string>({"3/3"}), providers(n, "joinedRight")) << "node " << n;
  }
}

// The raw adapter group: adapters leave and come back as their interfaces
// fail and heal.
class ClusterTopology : public ClusterTest {};

// veltctl health on node 1: healthy, then degraded by a failed adapter
// (named, exit 1), healthy again after the heal, then degraded by a node
// outside the view after a partition.
TEST_F(ClusterTopology, HealthSaysWhatIsDegradedAndIsHealthyAgainAfterwards) {
  requireAgents();
  if (HasFatalFailure()) return;
  auto health = [] { return inNode(1, {"veltctl", "health"}); };
  EXPECT_TRUE(waitUntil([&] { return health().status == 0; }, kAgentMs)) << describe(health());
  ASSERT_EQ(0, cluster({"fail", "2", "sxn1"}).status);
  EXPECT_TRUE(waitUntil(
      [&] {
        Result r = health();
        return r.status == 1 && r.out.find("problem: node 2 adapter sxn1 (10.11.0.2) is DOWN\n") != std::string::npos;
      },
      kAgentMs))
      << describe(health());
  ASSERT_EQ(0, cluster({"heal", "2", "sxn1"}).status);
  EXPECT_TRUE(waitUntil([&] { return health().status == 0; }, kLinkMs + kAgentMs)) << describe(health());
  ASSERT_EQ(0, cluster({"partition", "3"}, kHarnessMs).status);
  EXPECT_TRUE(waitUntil(
      [&] {
        Result r = health();
        return r.status == 1 && r.out.find("problem: node 3 is not in the view\n") != std::string::npos;
      },
      kViewMs))
      << describe(health());
  Result json = inNode(1, {"veltctl", "--json", "health"});
  EXPECT_EQ(1, json.status);
  EXPECT_EQ(0u, json.out.rfind("{\"schema_version\":1,\"healthy\":false,\"node\":1,\"nodelist\":[1,2,3],", 0))
      << json.out;
}

TEST_F(ClusterTopology, FailedAdapterLeavesRawGroupOnEveryNodeAndHealBringsItBack) {
  requireAgents();
  Result text = inNode(2, {"veltctl", "members", "allAdapterMembership"});
  ASSERT_EQ(0, text.status) << "scripts/cluster exec 2 veltctl members allAdapterMembership: "
                            << describe(text);
  NodeProcess watch1(1, {"gscl_watch", "allAdapterMembership"});
  NodeProcess watch2(2, {"gscl_watch", "allAdapterMembership"});
  for (NodeProcess* w : {&watch1, &watch2}) {
    EXPECT_FALSE(w->waitLine({"sub allAdapterMembership", "10.11.0.3"}).empty()) << w->transcript();
  }
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return providers(n, "allAdapterMembership").size() == 6; }, kAgentMs))
        << "node " << n << ": " << join(providers(n, "allAdapterMembership"));
  }
  // The subscriber learns who the adapter is from the notification itself.
  watch1.send("info 10.11.0.3");
  EXPECT_FALSE(watch1.waitLine({"info 10.11.0.3 rc=TK_GS_OK", "iface=sxn1", "node=3"}).empty())
      << watch1.transcript();

  Result fail = cluster({"fail", "3", "sxn1"});
  ASSERT_EQ(0, fail.status) << describe(fail);
  for (NodeProcess* w : {&watch1, &watch2}) {
    EXPECT_FALSE(w->waitLine({"sub allAdapterMembership", "DELTA_LEAVE", "changing_ip=10.11.0.3"}).empty())
        << w->transcript();
  }
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return providersOfNode(providers(n, "allAdapterMembership"), 3) == 1; },
                          kAgentMs))
        << "node " << n << ": " << join(providers(n, "allAdapterMembership"));
  }

  Result heal = cluster({"heal", "3", "sxn1"});
  ASSERT_EQ(0, heal.status) << describe(heal);
  for (NodeProcess* w : {&watch1, &watch2}) {
    EXPECT_FALSE(w->waitLine({"sub allAdapterMembership", "DELTA_JOIN", "changing_ip=10.11.0.3"}, kLinkMs).empty())
        << w->transcript();
  }
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return providersOfNode(providers(n, "allAdapterMembership"), 3) == 2; },
                          kLinkMs))
        << "node " << n << ": " << join(providers(n, "allAdapterMembership"));
  }
  EXPECT_TRUE(waitUntil([] { return agentsAgree({1, 2, 3}); }, kAgentMs)) << agentStates({1, 2, 3});
}

// The ring corosync on a node formed last, as its log names it ("" before
// the first).
std::string lastRing(int node) {
  Result r = inNode(node, {"sh", "-c",
                           "grep -o 'A new membership ([0-9a-f.]*)' /run/log/corosync.log | tail -n 1"});
  return r.out;
}

// The cluster's own traffic runs on the management network. When that link
// fails on a node, knet moves the node's traffic to a switch link: the ring
// stays as it was (no new membership on any node), and the agents' messages
// go on, so an adapter failure on that node still reaches the others.
TEST_F(ClusterTopology, LostManagementLinkMovesTrafficToASwitchLinkWithoutAMembershipChange) {
  requireAgents();
  ASSERT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs));
  std::vector<std::string> rings;
  for (int n = 1; n <= kNodes; ++n) {
    rings.push_back(lastRing(n));
    ASSERT_FALSE(rings.back().empty()) << "node " << n << " logged no membership";
  }
  NodeProcess watch(1, {"gscl_watch", "allAdapterMembership"});
  ASSERT_FALSE(watch.waitLine({"sub allAdapterMembership", "10.11.0.3"}).empty()) << watch.transcript();

  ASSERT_EQ(0, cluster({"fail", "3", "mgmt"}).status);
  ASSERT_TRUE(waitUntil([] { return knetLinksAre(kManagementLink, 3, "disconnected", "connected"); }, kLinkMs))
      << "knet did not see node 3's management link go down";
  ASSERT_EQ(0, cluster({"fail", "3", "sxn1"}).status);
  EXPECT_FALSE(watch.waitLine({"DELTA_LEAVE", "changing_ip=10.11.0.3"}).empty()) << watch.transcript();
  ASSERT_EQ(0, cluster({"heal", "3", "sxn1"}).status);
  EXPECT_FALSE(watch.waitLine({"DELTA_JOIN", "changing_ip=10.11.0.3"}, kLinkMs).empty()) << watch.transcript();

  ASSERT_EQ(0, cluster({"heal", "3", "mgmt"}).status);
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs)) << "knet did not bring the management link back";
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_EQ(rings[n - 1], lastRing(n)) << "node " << n << ": the membership changed";
    EXPECT_EQ(std::vector<int>({1, 2, 3}), corosyncMembers(n)) << "node " << n;
  }
  EXPECT_TRUE(waitUntil([] { return agentsAgree({1, 2, 3}); }, kAgentMs)) << agentStates({1, 2, 3});
}

// An adapter is alive only while its knet link is connected to another
// node: after an outage long enough for knet to drop the link, bringing the
// interface back up announces the adapter once, when knet has the link
// again, and never as a join that a leave takes back a moment later.
TEST_F(ClusterTopology, HealedAdapterRejoinsOnceItsKnetLinkIsBack) {
  requireAgents();
  NodeProcess watch(1, {"gscl_watch", "allAdapterMembership"});
  ASSERT_FALSE(watch.waitLine({"sub allAdapterMembership", "10.11.0.3"}).empty()) << watch.transcript();
  ASSERT_EQ(0, cluster({"fail", "3", "sxn1"}).status);
  ASSERT_FALSE(watch.waitLine({"DELTA_LEAVE", "changing_ip=10.11.0.3"}).empty()) << watch.transcript();
  ASSERT_TRUE(waitUntil([] { return knetLinksAre(kSxn1Link, 3, "disconnected", "connected"); }, kLinkMs))
      << "knet never dropped the failed link";

  ASSERT_EQ(0, cluster({"heal", "3", "sxn1"}).status);
  EXPECT_TRUE(waitUntil(allKnetLinksConnected, kLinkMs)) << "knet did not bring the link back";
  EXPECT_FALSE(watch.waitLine({"DELTA_JOIN", "changing_ip=10.11.0.3"}, kLinkMs).empty())
      << watch.transcript();
  // Whatever else is coming has come within a few of the agent's link polls.
  std::vector<std::string> changes = watch.linesAfter(2000, {"changing_ip=10.11.0.3"});
  EXPECT_EQ(2u, changes.size()) << "expected one leave at the failure and one join after the heal:\n"
                                << watch.transcript();
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_EQ(2, providersOfNode(providers(n, "allAdapterMembership"), 3)) << "node " << n;
  }
}


// tolkvaskd on every node, in domain type QUIL: the cooked membership
// groups and the aggregate configuration carried to every node.
class ClusterDaemons : public ClusterTest {
 protected:
  // Starts tolkvaskd on every node with the same aggregate configuration
  // and waits until every node's cooked groups hold all three nodes.
  void startDaemons() {
    requireAgents();
    if (HasFatalFailure()) return;
    for (int n = 1; n <= kNodes; ++n) {
      ASSERT_TRUE(writeAggregateConfig(n, kFirstConfig)) << "node " << n;
      Result r = cluster({"start", std::to_string(n), "tolkvaskd"});
      ASSERT_EQ(0, r.status) << describe(r);
    }
    for (int n = 1; n <= kNodes; ++n) {
      for (const char* group : {"sxnMembership", "sxn1Membership"}) {
        EXPECT_TRUE(waitUntil([&] { return cookedNodes(n, group) == std::vector<int>({1, 2, 3}); }, kAgentMs))
            << "node " << n << " " << group << ": " << join(providers(n, group));
      }
      EXPECT_TRUE(waitUntil([&] { return providers(n, "sxnAllMembership").size() == 6; }, kAgentMs))
          << "node " << n << ": " << join(providers(n, "sxnAllMembership"));
    }
  }

  // Writes the node's aggregate configuration file (its private
  // /run/tolkvaskd/AggregateIP.cfg).
  static bool writeAggregateConfig(int node, const std::string& text) {
    Result r = inNode(node, {"sh", "-c", "mkdir -p /run/tolkvaskd && printf '%s' \"$1\" >/run/tolkvaskd/AggregateIP.cfg",
                             "sh", text});
    return r.status == 0;
  }

  // The nodes that have a provider in a group, as a node sees it.
  static std::vector<int> cookedNodes(int node, const std::string& group) {
    std::set<int> nodes;
    for (const std::string& p : providers(node, group)) nodes.insert(std::stoi(p.substr(p.find('/') + 1)));
    return std::vector<int>(nodes.begin(), nodes.end());
  }

  // The configuration id in the node's canonical status, or "" when the
  // daemon does not answer.
  static std::string committedId(int node) {
    Result r = inNode(node, {"srcctl", "-s", "tolkvaskd", "request", "999"});
    std::smatch m;
    if (r.status != 0 || !std::regex_search(r.out, m, std::regex(" The current configuration id is ([0-9]+)\\."))) {
      return "";
    }
    return m[1];
  }

  static constexpr char kFirstConfig[] = "+CFGID: 0x10\n1 ml0 sxn0,sxn1\n2 ml0 sxn0,sxn1\n3 ml0 sxn0,sxn1\n";
};

TEST_F(ClusterDaemons, CookedGroupsHoldTheNodesWhoseAdapterIsUpThroughFailAndHeal) {
  startDaemons();
  if (HasFatalFailure()) return;
  Result fail = cluster({"fail", "3", "sxn1"});
  ASSERT_EQ(0, fail.status) << describe(fail);
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return cookedNodes(n, "sxn1Membership") == std::vector<int>({1, 2}); }, kAgentMs))
        << "node " << n << ": " << join(providers(n, "sxn1Membership"));
    // Node 3 stays in the all-switch group through its sxn0 alone.
    EXPECT_TRUE(waitUntil([n] { return providersOfNode(providers(n, "sxnAllMembership"), 3) == 1; }, kAgentMs))
        << "node " << n << ": " << join(providers(n, "sxnAllMembership"));
    EXPECT_EQ(std::vector<int>({1, 2, 3}), cookedNodes(n, "sxnMembership")) << "node " << n;
    EXPECT_EQ(std::vector<int>({1, 2, 3}), cookedNodes(n, "sxnAllMembership")) << "node " << n;
  }
  Result heal = cluster({"heal", "3", "sxn1"});
  ASSERT_EQ(0, heal.status) << describe(heal);
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return cookedNodes(n, "sxn1Membership") == std::vector<int>({1, 2, 3}); },
                          kLinkMs + kAgentMs))
        << "node " << n << ": " << join(providers(n, "sxn1Membership"));
    EXPECT_TRUE(waitUntil([n] { return providersOfNode(providers(n, "sxnAllMembership"), 3) == 2; }, kAgentMs))
        << "node " << n << ": " << join(providers(n, "sxnAllMembership"));
  }
}

TEST_F(ClusterDaemons, KilledDaemonsProvidersLeaveEveryGroupOnTheOtherNodes) {
  startDaemons();
  if (HasFatalFailure()) return;
  Result kill = cluster({"kill", "2", "tolkvaskd"});
  ASSERT_EQ(0, kill.status) << describe(kill);
  for (int n : {1, 3}) {
    for (const char* group : {"sxnMembership", "sxn1Membership", "sxnAllMembership", "tolkvask_cfg"}) {
      EXPECT_TRUE(waitUntil([&] { return cookedNodes(n, group) == std::vector<int>({1, 3}); }, kAgentMs))
          << "node " << n << " " << group << ": " << join(providers(n, group));
    }
  }
  // Started again, it joins them all again.
  Result start = cluster({"start", "2", "tolkvaskd"});
  ASSERT_EQ(0, start.status) << describe(start);
  for (int n : {1, 3}) {
    for (const char* group : {"sxnMembership", "sxn1Membership", "sxnAllMembership", "tolkvask_cfg"}) {
      EXPECT_TRUE(waitUntil([&] { return cookedNodes(n, group) == std::vector<int>({1, 2, 3}); }, kAgentMs))
          << "node " << n << " " << group << ": " << join(providers(n, group));
    }
  }
}

TEST_F(ClusterDaemons, RefreshOnOneNodeCommitsItsNewConfigurationIdOnEveryNode) {
  startDaemons();
  if (HasFatalFailure()) return;
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return committedId(n) == "16"; }, kAgentMs)) << "node " << n << ": " << committedId(n);
  }
  // Node 1's file changes (a new id, node 3 no longer in ml0); only node 1
  // is refreshed.
  ASSERT_TRUE(writeAggregateConfig(1, "+CFGID: 0x2a\n1 ml0 sxn0,sxn1\n2 ml0 sxn0,sxn1\n"));
  Result refresh = inNode(1, {"srcctl", "-s", "tolkvaskd", "refresh"});
  ASSERT_EQ(0, refresh.status) << describe(refresh);
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return committedId(n) == "42"; }, kAgentMs)) << "node " << n << ": " << committedId(n);
  }
  // Node 1 runs what it read; the group's state value (12 bytes, the id
  // first, in host order) is the new id on every node.
  Result status = inNode(1, {"srcctl", "-s", "tolkvaskd", "request", "999"});
  EXPECT_NE(std::string::npos, status.out.find(" ml0[sxn0] Nodes: 1-2\n")) << status.out;
  for (int n = 1; n <= kNodes; ++n) {
    std::string group = veltctlJson(n, {"members", "tolkvask_cfg"});
    EXPECT_NE(std::string::npos, group.find("\"state_value_bytes\":12,\"state_value_hex\":\"2a000000"))
        << "node " << n << ": " << group;
  }
}

TEST_F(ClusterDaemons, ADaemonRestartedWithAStaleFileDoesNotTakeTheOthersBack) {
  startDaemons();
  if (HasFatalFailure()) return;
  ASSERT_EQ(0, cluster({"kill", "3", "tolkvaskd"}).status);
  // While node 3's daemon is down, the others move on to 0x2a.
  ASSERT_TRUE(writeAggregateConfig(1, "+CFGID: 0x2a\n1 ml0 sxn0,sxn1\n2 ml0 sxn0,sxn1\n"));
  ASSERT_EQ(0, inNode(1, {"srcctl", "-s", "tolkvaskd", "refresh"}).status);
  for (int n : {1, 2}) {
    ASSERT_TRUE(waitUntil([n] { return committedId(n) == "42"; }, kAgentMs)) << "node " << n << ": " << committedId(n);
  }
  // Node 3 comes back with its old file: it runs that, and says so, but the
  // others stay where they are.
  ASSERT_EQ(0, cluster({"start", "3", "tolkvaskd"}).status);
  ASSERT_TRUE(waitUntil([] { return committedId(3) == "16"; }, kAgentMs)) << committedId(3);
  EXPECT_TRUE(waitUntil([] { return cookedNodes(1, "tolkvask_cfg") == std::vector<int>({1, 2, 3}); }, kAgentMs));
  std::this_thread::sleep_for(milliseconds(2000));  // time for a proposal, were one made
  for (int n : {1, 2}) EXPECT_EQ("42", committedId(n)) << "node " << n;
  // Its file brought up to date and refreshed, node 3 runs 0x2a too.
  ASSERT_TRUE(writeAggregateConfig(3, "+CFGID: 0x2a\n1 ml0 sxn0,sxn1\n2 ml0 sxn0,sxn1\n"));
  ASSERT_EQ(0, inNode(3, {"srcctl", "-s", "tolkvaskd", "refresh"}).status);
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return committedId(n) == "42"; }, kAgentMs)) << "node " << n << ": " << committedId(n);
  }
}

TEST_F(ClusterDaemons, AfterAPartitionMergesEveryGroupIsBackAndCarriesTheConfigurationId) {
  startDaemons();
  if (HasFatalFailure()) return;
  ASSERT_EQ(0, cluster({"partition", "3"}, kHarnessMs).status);
  EXPECT_TRUE(waitUntil([] { return cookedNodes(1, "tolkvask_cfg") == std::vector<int>({1, 2}); }, kViewMs))
      << join(providers(1, "tolkvask_cfg"));
  ASSERT_EQ(0, cluster({"merge", "3"}, kHarnessMs).status);
  // The merge dissolves the groups that had members on both sides; every
  // daemon joins them again, and the configuration group gets its id back.
  for (int n = 1; n <= kNodes; ++n) {
    for (const char* group : {"sxnMembership", "sxn1Membership", "tolkvask_cfg"}) {
      EXPECT_TRUE(waitUntil([&] { return cookedNodes(n, group) == std::vector<int>({1, 2, 3}); }, kViewMs))
          << "node " << n << " " << group << ": " << join(providers(n, group));
    }
    EXPECT_TRUE(waitUntil(
        [n] {
          return veltctlJson(n, {"members", "tolkvask_cfg"})
                     .find("\"state_value_bytes\":12,\"state_value_hex\":\"10000000") != std::string::npos;
        },
        kAgentMs))
        << "node " << n << ": " << veltctlJson(n, {"members", "tolkvask_cfg"});
    EXPECT_EQ("16", committedId(n)) << "node " << n;
  }
}

// The test build of tolkvaskd that registers the aggregate device ml0 over
// sxn0 and sxn1 (the shipped daemon registers none), on every node with a
// configuration that puts every node's two adapters into ml0.
class ClusterAggregators : public ClusterDaemons {
 protected:
  void SetUp() override {
    setenv("VELT_CLUSTER_DAEMON", "tests/integration/tolkvaskd_aggregators", 1);
    ClusterDaemons::SetUp();
  }
  void TearDown() override {
    ClusterDaemons::TearDown();
    unsetenv("VELT_CLUSTER_DAEMON");
  }

  // The base group the node's aggregator follows, from its canonical status.
  static std::string aliasGroup(int node) {
    Result r = inNode(node, {"srcctl", "-s", "tolkvaskd", "request", "999"});
    std::smatch m;
    if (r.status != 0 || !std::regex_search(r.out, m, std::regex("AggAdapter0_AliasGroup: (\\S+)\n"))) return "";
    return m[1];
  }

  // Every node's ml0Membership holds exactly the nodes of base group, and
  // every node's aggregator follows that group. Stops at the first node
  // that does not (a fatal failure), so that a broken aggregator costs one
  // bounded wait, not one per check.
  void expectMl0Follows(const std::string& base, const std::vector<int>& nodes) {
    for (int n = 1; n <= kNodes; ++n) {
      ASSERT_TRUE(waitUntil([&] { return cookedNodes(n, base) == nodes; }, kAgentMs))
          << "node " << n << " " << base << ": " << join(providers(n, base));
      // The flip delay (3 s) comes before the alias moves.
      ASSERT_TRUE(waitUntil([&] { return aliasGroup(n) == base; }, kAgentMs))
          << "node " << n << " follows " << aliasGroup(n) << ", not " << base;
      ASSERT_TRUE(waitUntil([&] { return cookedNodes(n, "ml0Membership") == nodes; }, kAgentMs))
          << "node " << n << " ml0Membership: " << join(providers(n, "ml0Membership")) << " (base group " << base
          << ": " << join(providers(n, base)) << ")";
    }
  }
};

TEST_F(ClusterAggregators, Ml0MembershipHoldsTheLargestBaseGroupThroughFailAndHeal) {
  startDaemons();
  if (HasFatalFailure()) return;
  // Both cooked groups hold every node: the lower network is the base.
  expectMl0Follows("sxnMembership", {1, 2, 3});
  if (HasFatalFailure()) return;
  // Node 3 loses sxn0: sxn1Membership is now the largest.
  ASSERT_EQ(0, cluster({"fail", "3", "sxn0"}).status);
  expectMl0Follows("sxn1Membership", {1, 2, 3});
  if (HasFatalFailure()) return;
  // Node 2 loses sxn1 as well: two groups of two with different nodes, the
  // first of them (sxnMembership, nodes 1 and 2) wins and node 3 leaves.
  ASSERT_EQ(0, cluster({"fail", "2", "sxn1"}).status);
  expectMl0Follows("sxnMembership", {1, 2});
  if (HasFatalFailure()) return;
  // Healed, every node is back.
  ASSERT_EQ(0, cluster({"heal", "3", "sxn0"}).status);
  ASSERT_EQ(0, cluster({"heal", "2", "sxn1"}).status);
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return cookedNodes(n, "ml0Membership") == std::vector<int>({1, 2, 3}); },
                          kLinkMs + kAgentMs))
        << "node " << n << " ml0Membership: " << join(providers(n, "ml0Membership"));
  }
}

// tolkvaskd on every node in domain type CLUSTER: its adapter table comes
// from KOR (the nodes and interfaces the agents publish), its liveness from
// the raw group, with a short down delay.
class ClusterDomain : public ClusterTest {
 protected:
  void SetUp() override {
    setenv("VELT_CLUSTER_DOMAIN", "CLUSTER", 1);
    setenv("VELT_CLUSTER_DOWN_DELAY", "2", 1);
    ClusterTest::SetUp();
  }
  void TearDown() override {
    ClusterTest::TearDown();
    unsetenv("VELT_CLUSTER_DOMAIN");
    unsetenv("VELT_CLUSTER_DOWN_DELAY");
  }

  // Starts tolkvaskd on each node and waits until every daemon is in the
  // configuration group.
  void startDaemons(const std::vector<int>& nodes) {
    requireAgents();
    if (HasFatalFailure()) return;
    for (int n : nodes) {
      Result r = cluster({"start", std::to_string(n), "tolkvaskd"});
      ASSERT_EQ(0, r.status) << describe(r);
    }
    for (int n : nodes) {
      ASSERT_TRUE(waitUntil([&] { return nodesOf(providers(n, "tolkvask_cfg")) == nodes; }, kAgentMs))
          << "node " << n << ": tolkvask_cfg " << join(providers(n, "tolkvask_cfg"));
    }
  }

  static std::vector<int> nodesOf(const std::vector<std::string>& ps) {
    std::set<int> nodes;
    for (const std::string& p : ps) nodes.insert(std::stoi(p.substr(p.find('/') + 1)));
    return std::vector<int>(nodes.begin(), nodes.end());
  }

  static std::string logOf(int node, const char* name) {
    std::string path = std::string(getenv("VELT_CLUSTER_DIR")) + "/node" + std::to_string(node) + "/run/log/" + name;
    std::string text;
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return text;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    fclose(f);
    return text;
  }

  // The daemon's adapter table, "NODE/IFNAME" -> UP, DOWN, STOPPED,
  // UNCONFIG..., as its long status traces it (a long status request
  // writes the table to the trace log).
  static std::map<std::string, std::string> adapterTable(int node) {
    std::map<std::string, std::string> rows;
    Result r = inNode(node, {"srcctl", "-s", "tolkvaskd", "status", "-l"});
    if (r.status != 0) return rows;
    std::string log = logOf(node, "tolkvaskd.log");
    size_t from = log.rfind("LongStatus request from SRC.");
    if (from == std::string::npos) return rows;
    std::string tail = log.substr(from);
    std::regex re("node=([0-9]+) ifname=(\\S+) device=\\S* IP=\\S* LID=[0-9]+ type=[0-9]+ spigot=[0-9]+ "
                  "gidlen=[0-9]+ status=(\\S+)");
    for (std::sregex_iterator it(tail.begin(), tail.end(), re), end; it != end; ++it) {
      rows[(*it)[1].str() + "/" + (*it)[2].str()] = (*it)[3];
    }
    return rows;
  }

  static std::string describeTable(const std::map<std::string, std::string>& rows) {
    std::string s;
    for (const auto& e : rows) s += e.first + "=" + e.second + " ";
    return s;
  }

  // Every switch adapter of nodes with the given status (and no others of
  // those nodes in another state).
  static bool rowsAre(const std::map<std::string, std::string>& rows, const std::vector<int>& nodes,
                      const std::string& status) {
    for (int n : nodes) {
      for (const char* i : {"sxn0", "sxn1"}) {
        auto it = rows.find(std::to_string(n) + "/" + i);
        if (it == rows.end() || it->second != status) return false;
      }
    }
    return true;
  }

  static std::string resourcesOf(int node) { return veltctlJson(node, {"resources"}); }

  // The node whose daemon leads the configuration group: the last one that
  // logged becoming the leader.
  static int leader(const std::vector<int>& nodes) {
    for (int n : nodes) {
      std::string log = logOf(n, "tolkvaskd.log");
      size_t became = log.rfind("I become a GL.");
      if (became != std::string::npos && log.find("Propagator[cfg] Thread started.", became) == std::string::npos) {
        return n;
      }
    }
    return 0;
  }
};

TEST_F(ClusterDomain, EveryDaemonJoinsTheConfigurationGroupAndHoldsEveryNodesAdaptersUp) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil([&] { return rowsAre(rows = adapterTable(n), {1, 2, 3}, "UP"); }, kAgentMs))
        << "node " << n << ": " << describeTable(rows);
    EXPECT_EQ(6u, rows.size()) << "node " << n << ": " << describeTable(rows);
  }
  // KOR answers the same on every node: three nodes, six interfaces.
  std::string first = resourcesOf(1);
  EXPECT_EQ(3, countMatches(first, "\"class\":\"Zel.PeerNode\"")) << first;
  EXPECT_EQ(6, countMatches(first, "\"class\":\"Zel.NetworkInterface\"")) << first;
  for (int n = 2; n <= kNodes; ++n) EXPECT_EQ(first, resourcesOf(n)) << "node " << n;
}

TEST_F(ClusterDomain, FailedAdapterTurnsDownEverywhereAfterTheDownDelayAndHealBringsItBack) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  for (int n = 1; n <= kNodes; ++n) {
    ASSERT_TRUE(waitUntil([n] { return rowsAre(adapterTable(n), {1, 2, 3}, "UP"); }, kAgentMs)) << "node " << n;
  }
  ASSERT_EQ(0, cluster({"fail", "3", "sxn1"}).status);
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil([&] { return (rows = adapterTable(n))["3/sxn1"] == "DOWN"; }, kLinkMs + kAgentMs))
        << "node " << n << ": " << describeTable(rows);
    EXPECT_EQ("UP", rows["3/sxn0"]) << "node " << n;
    EXPECT_TRUE(rowsAre(rows, {1, 2}, "UP")) << "node " << n << ": " << describeTable(rows);
  }
  ASSERT_EQ(0, cluster({"heal", "3", "sxn1"}).status);
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil([&] { return rowsAre(rows = adapterTable(n), {1, 2, 3}, "UP"); }, kLinkMs + kAgentMs))
        << "node " << n << ": " << describeTable(rows);
  }
}

TEST_F(ClusterDomain, AddedNodesAdaptersAppearEverywhereAndRemovalUndefinesThem) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  Result add = cluster({"add"}, kHarnessMs);
  ASSERT_EQ(0, add.status) << describe(add);
  Result start = cluster({"start", "4", "tolkvaskd"});
  ASSERT_EQ(0, start.status) << describe(start);
  for (int n = 1; n <= 4; ++n) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil([&] { return rowsAre(rows = adapterTable(n), {1, 2, 3, 4}, "UP"); }, kAgentMs))
        << "node " << n << ": " << describeTable(rows);
  }
  std::string four = resourcesOf(1);
  EXPECT_EQ(4, countMatches(four, "\"class\":\"Zel.PeerNode\"")) << four;
  EXPECT_EQ(8, countMatches(four, "\"class\":\"Zel.NetworkInterface\"")) << four;
  for (int n = 2; n <= 4; ++n) EXPECT_EQ(four, resourcesOf(n)) << "node " << n;

  int lead = leader({1, 2, 3});
  ASSERT_NE(0, lead) << "no daemon logged leading the configuration group";
  Result remove = cluster({"remove", "4"}, kHarnessMs);
  ASSERT_EQ(0, remove.status) << describe(remove);
  // KOR forgets node 4 on every agent.
  for (int n = 1; n <= kNodes; ++n) {
    EXPECT_TRUE(waitUntil([n] { return resourcesOf(n).find("node/4") == std::string::npos; }, kAgentMs))
        << "node " << n << ": " << resourcesOf(n);
  }
  // The leader's event session hears the interfaces undefined and drops
  // the rows; the other daemons' harvests keep rows they do not compare,
  // and show them no longer up.
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> rows;
    if (n == lead) {
      EXPECT_TRUE(waitUntil(
          [&] {
            rows = adapterTable(n);
            return rows.count("4/sxn0") == 0 || rows["4/sxn0"] == "UNCONFIG";
          },
          kAgentMs))
          << "leader " << n << ": " << describeTable(rows);
    } else {
      EXPECT_TRUE(waitUntil([&] { return (rows = adapterTable(n))["4/sxn0"] != "UP"; }, kAgentMs))
          << "node " << n << ": " << describeTable(rows);
    }
    EXPECT_TRUE(rowsAre(rows, {1, 2, 3}, "UP")) << "node " << n << ": " << describeTable(rows);
  }
}

TEST_F(ClusterDomain, WholeClusterRestartKeepsADownNodesRowsDefined) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  for (int n = 1; n <= kNodes; ++n) {
    ASSERT_TRUE(waitUntil([n] { return rowsAre(adapterTable(n), {1, 2, 3}, "UP"); }, kAgentMs)) << "node " << n;
  }
  // Every agent has written what it holds (they do so within a second of a
  // change).
  std::this_thread::sleep_for(milliseconds(1500));
  for (int n = 1; n <= kNodes; ++n) {
    ASSERT_EQ(0, cluster({"kill", std::to_string(n), "tolkvaskd"}).status);
    ASSERT_EQ(0, cluster({"kill", std::to_string(n), "veltd"}).status);
  }
  for (int n : {1, 3}) ASSERT_EQ(0, cluster({"start", std::to_string(n), "veltd"}).status);
  ASSERT_TRUE(waitUntil([] { return agentView(1) == std::vector<int>({1, 3}); }, kViewMs)) << join(agentView(1));
  startDaemons({1, 3});
  if (HasFatalFailure()) return;
  for (int n : {1, 3}) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil(
        [&] {
          rows = adapterTable(n);
          return rowsAre(rows, {1, 3}, "UP") && rowsAre(rows, {2}, "DOWN");
        },
        kAgentMs))
        << "node " << n << ": " << describeTable(rows);
  }
  EXPECT_NE(std::string::npos, resourcesOf(1).find("\"handle\":\"node/2/sxn1\"")) << resourcesOf(1);
}

TEST_F(ClusterDomain, KorEventSessionMovesWithTheConfigurationGroupsLeadership) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  const char kRegistered[] = " Now registered to NetworkInterface for event handle with KOR deamon";
  int lead = 0;
  ASSERT_TRUE(waitUntil(
      [&] {
        lead = leader({1, 2, 3});
        return lead != 0 && logOf(lead, "tolkvaskd.log").find(kRegistered) != std::string::npos;
      },
      kAgentMs))
      << "leader " << lead;
  // Only the leader keeps an event session.
  for (int n = 1; n <= kNodes; ++n) {
    if (n != lead) {
      EXPECT_EQ(std::string::npos, logOf(n, "tolkvaskd.log").find(" Starting KOR Session")) << "node " << n;
    }
  }
  ASSERT_EQ(0, cluster({"kill", std::to_string(lead), "tolkvaskd"}).status);
  int next = 0;
  EXPECT_TRUE(waitUntil(
      [&] {
        std::vector<int> others;
        for (int n = 1; n <= kNodes; ++n) {
          if (n != lead) others.push_back(n);
        }
        next = leader(others);
        if (next == 0) return false;
        std::string log = logOf(next, "tolkvaskd.log");
        size_t start = log.find(" Starting KOR Session");
        return start != std::string::npos && log.find(kRegistered, start) != std::string::npos;
      },
      kAgentMs))
      << "new leader " << next;
}

// ------------------------------------------- the daemon's local clients

// What `veltnam show --json` on a node reports, as "NODE/IFNAME" -> status
// ("up", "down", ...); empty when it fails.
std::map<std::string, std::string> clientTable(int node) {
  std::map<std::string, std::string> rows;
  Result r = inNode(node, {"veltnam", "--json", "show"});
  if (r.status != 0) return rows;
  std::regex re("\"node\":([0-9]+),\"interface\":\"([^\"]+)\"[^}]*\"status\":\"([a-z]+)\"");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), re), end; it != end; ++it) {
    rows[(*it)[1].str() + "/" + (*it)[2].str()] = (*it)[3];
  }
  return rows;
}

bool allClientRowsUp(const std::map<std::string, std::string>& rows) {
  if (rows.size() != 6) return false;
  for (int n = 1; n <= kNodes; ++n) {
    for (const char* i : {"sxn0", "sxn1"}) {
      auto it = rows.find(std::to_string(n) + "/" + i);
      if (it == rows.end() || it->second != "up") return false;
    }
  }
  return true;
}

std::string describeRows(const std::map<std::string, std::string>& rows) {
  std::string s;
  for (const auto& e : rows) s += e.first + "=" + e.second + " ";
  return s;
}

TEST_F(ClusterDomain, EveryNodesLocalClientsReadAllSixAdaptersUp) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  for (int n = 1; n <= kNodes; ++n) {
    std::map<std::string, std::string> rows;
    EXPECT_TRUE(waitUntil([&] { return allClientRowsUp(rows = clientTable(n)); }, kAgentMs))
        << "node " << n << ": " << describeRows(rows) << "\n"
        << describe(inNode(n, {"veltnam", "show"}));
  }
}

TEST_F(ClusterDomain, AWatchingClientSeesAFailedAdapterDownAfterTheDownDelayAndUpAfterHeal) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  ASSERT_TRUE(waitUntil([] { return allClientRowsUp(clientTable(1)); }, kAgentMs));
  NodeProcess watch(1, {"veltnam", "watch"});
  ASSERT_NE("", watch.waitLine({"initial", "node 3 sxn1", " up"})) << watch.transcript();
  auto failed = Clock::now();
  ASSERT_EQ(0, cluster({"fail", "3", "sxn1"}).status);
  std::string down = watch.waitLine({"changed", "node 3 sxn1", "down (was up)"}, kLinkMs + kAgentMs);
  auto seen = Clock::now();
  ASSERT_NE("", down) << watch.transcript();
  // The daemon holds a down back for the down delay (2 s here) from when
  // it learns of it, which is after the failure.
  EXPECT_GE(std::chrono::duration_cast<milliseconds>(seen - failed).count(), 2000) << watch.transcript();
  // Nothing else changed.
  EXPECT_EQ(1u, watch.linesAfter(0, {"changed"}).size()) << watch.transcript();
  ASSERT_EQ(0, cluster({"heal", "3", "sxn1"}).status);
  EXPECT_NE("", watch.waitLine({"changed", "node 3 sxn1", "up (was down)"}, kLinkMs + kAgentMs))
      << watch.transcript();
}

// A client that stops reading is cut off once eleven updates wait for it;
// another client of the same daemon goes on. Each refresh sends every
// client the whole table, so refreshes fill the silent client's socket and
// then its queue.
TEST_F(ClusterDomain, AClientThatStopsReadingIsCutOffWhileAnotherKeepsReceiving) {
  startDaemons({1, 2, 3});
  if (HasFatalFailure()) return;
  ASSERT_TRUE(waitUntil([] { return allClientRowsUp(clientTable(1)); }, kAgentMs));
  NodeProcess watch(1, {"veltnam", "watch"});
  ASSERT_NE("", watch.waitLine({"initial", "node 3 sxn1", " up"})) << watch.transcript();
  NodeProcess silent(1, {"nam_silent_client"});
  ASSERT_NE("", silent.waitLine({"connected node=1"})) << silent.transcript();
  int refreshes = 0;
  std::string cut;
  while (refreshes < 600) {
    Result r = inNode(1, {"srcctl", "-s", "tolkvaskd", "refresh"});
    ASSERT_EQ(0, r.status) << describe(r);
    ++refreshes;
    if (!(cut = silent.waitLine({"cut off"}, 20)).empty()) break;
  }
  if (cut.empty()) cut = silent.waitLine({"cut off"}, kAgentMs);
  ASSERT_NE("", cut) << "after " << refreshes << " refreshes:\n" << silent.transcript();
  printf("the silent client was cut off after %d refreshes\n", refreshes);
  std::string log = logOf(1, "tolkvaskd.log");
  EXPECT_NE(std::string::npos, log.find("eventList.size() > MAX_QUEUED_EVENTS. Wake up the thread and exit."));
  // The watching client is still served.
  ASSERT_EQ(0, cluster({"fail", "3", "sxn1"}).status);
  EXPECT_NE("", watch.waitLine({"changed", "node 3 sxn1", "down (was up)"}, kLinkMs + kAgentMs))
      << watch.transcript();
  ASSERT_EQ(0, cluster({"heal", "3", "sxn1"}).status);
}

}  // namespace

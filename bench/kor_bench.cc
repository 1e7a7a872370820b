// KOR at the size of the largest cluster: 2048 nodes with 48 InfiniBand
// interfaces each (98,304 "Zel.NetworkInterface" resources) in one real
// veltd, asked through the real libvx_mc. Steps:
//   image    a child process builds the resources (nodes 1..2048 with their
//            ids, interfaces sxn0..sxn47 in canonical order) and writes them
//            into a fresh state directory with KorStore::save, the file a
//            veltd keeps them in; veltd seeds its replicated state from it;
//   query    mc_query_p_select_bp of every interface with the 11 attributes
//            the daemon asks for (NI_RetResAttrs order), several rounds,
//            each answer checked in full (count, names, types, values);
//            target: under 300 ms;
//   harvest  the daemon's harvests (globalAM, in this process) into its
//            adapter table: harvestGblPeerNodes (the node-id map), then
//            harvestGblNetworkInterfaces into the empty table and again with
//            nothing changed; the table must end with every interface as a
//            configured row; target: under 1 s;
//   memory   veltd's peak resident memory (VmHWM) after the queries, and this
//            process's (ru_maxrss) after the harvests; target: each under
//            160 MiB. Building the image happens in the child, so this
//            process's figure is the daemon side alone.
// veltd runs `--standalone` as node 2049 with `--interfaces none`: a
// standalone agent publishes its own node's interfaces as it sees them on
// this machine (withdrawing the rest), so its own node stays outside the
// image; KOR then holds 2049 "Zel.PeerNode" resources (the image's 2048 and
// the agent's, which has no interfaces). Tracing is off.
// Exit status 1 when a result is not what it must be or veltd cannot run;
// a missed target is printed as MISSED.
//
// Run: cmake --build build --target kor_bench veltd && build/bench/kor_bench
//      [--nodes N] [--rounds N]   (--nodes below 2048 for a quick or profiled
//      run; the targets are for 2048).
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "AMCfgMonitor.h"
#include "AMController.h"
#include "bench_figures.h"
#include "bench_process.h"
#include "AMNetIf.h"
#include "kor_resources.h"
#include "kor_store.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"
#include "vx_mc.h"

namespace {

using bench::numberArg;
using bench::Spread;
using bench::spreadOf;
using bench::verdict;

using Clock = std::chrono::steady_clock;

constexpr int kFullNodes = 2048;
constexpr int kInterfaces = MaxAdaptersOnNode;  // 48 per node
constexpr int kAgentNode = kFullNodes + 1;
constexpr int kDefaultRounds = 7;

constexpr double kQueryTargetMs = 300;
constexpr double kHarvestTargetMs = 1000;
constexpr double kMemoryTargetMiB = 160;

// Bounds on waits for veltd; only a broken agent reaches them.
constexpr std::chrono::seconds kAgentStartBound{60};
constexpr std::chrono::seconds kAgentSaveBound{20};
constexpr std::chrono::seconds kAgentStopBound{10};

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// This process's processor time so far (user and system), in ms.
double selfCpuMs() {
  struct rusage u;
  getrusage(RUSAGE_SELF, &u);
  return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1000.0 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1000.0;
}

// ---------------------------------------------------------------- the facts

// A node's stable id: splitmix64 of its number (a bijection, so distinct
// and, for these numbers, never 0).
uint64_t nodeIdOf(uint32_t node) {
  uint64_t z = static_cast<uint64_t>(node) + 0x9e3779b97f4a7c15ull;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

std::string nodeNameOf(uint32_t node) {
  char text[32];
  snprintf(text, sizeof text, "f%02un%02u", (node - 1) / 32 + 1, (node - 1) % 32 + 1);
  return text;
}

// The interface names of a node in canonical order: as text, so sxn10
// comes before sxn2.
std::vector<std::string> interfaceNamesInOrder() {
  std::vector<std::string> names;
  for (int i = 0; i < kInterfaces; ++i) names.push_back("sxn" + std::to_string(i));
  std::sort(names.begin(), names.end());
  return names;
}

int indexOfName(const std::string& name) { return atoi(name.c_str() + 3); }

std::string ipOf(uint32_t node, int idx) {
  char text[20];
  snprintf(text, sizeof text, "10.%d.%u.%u", idx, node >> 8, node & 0xff);
  return text;
}

// A port's 20-byte InfiniBand address: flags and QPN, the subnet prefix,
// the port GUID.
std::string hardwareAddressOf(uint32_t node, int idx) {
  char text[64];
  snprintf(text, sizeof text, "80:00:02:08:fe:80:00:00:00:00:00:00:ec:0d:9a:03:00:%02x:%02x:%02x",
           (node >> 8) & 0xff, node & 0xff, idx);
  return text;
}

std::string deviceOf(int idx) { return "mlx5_" + std::to_string(idx); }
int32_t lidOf(uint32_t node, int idx) { return static_cast<int32_t>(node * kInterfaces + idx + 1); }
uint64_t subnetOf(int idx) { return 0xfe80000000000000ull | static_cast<uint64_t>(idx); }

velt::proto::KorImage buildImage(int nodes) {
  velt::proto::KorImage image;
  image.set_has_node_list(false);
  for (int n = 1; n <= nodes; ++n) {
    velt::proto::KorNodeImage* node = image.add_nodes();
    node->set_node(n);
    node->set_name(nodeNameOf(n));
    node->set_node_id(nodeIdOf(n));
    node->set_generation(1);
  }
  const std::vector<std::string> names = interfaceNamesInOrder();
  for (int n = 1; n <= nodes; ++n) {
    for (const std::string& name : names) {
      const int idx = indexOfName(name);
      velt::proto::InterfaceResource* r = image.add_interfaces();
      r->set_node(n);
      r->set_name(name);
      r->set_device_name(deviceOf(idx));
      r->set_ip_address(ipOf(n, idx));
      r->set_device_sub_type(kKorIBDeviceSubType);
      r->set_logical_id(lidOf(n, idx));
      r->set_network_id(idx);
      r->set_network_id64(subnetOf(idx));
      r->set_port_id(1);
      r->set_hardware_address(hardwareAddressOf(n, idx));
      r->set_device_path_name(deviceOf(idx));
    }
  }
  return image;
}

// Builds the image and keeps it in stateDir, in a child process so that
// this process's peak memory is the daemon side's alone. 0, or -1 with *why.
int writeImageInChild(const std::string& stateDir, int nodes, std::string* why) {
  pid_t pid = fork();
  if (pid < 0) {
    *why = std::string("fork: ") + strerror(errno);
    return -1;
  }
  if (pid == 0) {
    velt::proto::KorImage image = buildImage(nodes);
    std::string problem;
    if (!velt::agent::KorResources::validImage(image, &problem)) {
      fprintf(stderr, "kor_bench: the image is not valid: %s\n", problem.c_str());
      _exit(1);
    }
    if (velt::agent::KorStore::save(stateDir, image, &problem) != 0) {
      fprintf(stderr, "kor_bench: cannot keep the image: %s\n", problem.c_str());
      _exit(1);
    }
    fflush(stderr);
    _exit(0);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    *why = "the child that writes the image failed";
    return -1;
  }
  return 0;
}

// ------------------------------------------------------------------- veltd

// One veltd in a private directory. Owned by the main thread.
class AgentProcess {
 public:
  AgentProcess() = default;
  ~AgentProcess() {
    stop();
    if (!dir_.empty()) {
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
    }
  }
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  // Makes the directory (and its state directory). False with *why.
  bool makeDirectory(std::string* why) {
    dir_ = bench::makeAgentDirectory("kor_bench", why);
    if (dir_.empty()) return false;
    socket_ = dir_ + "/agent.sock";
    log_ = dir_ + "/veltd.log";
    if (mkdir(stateDir().c_str(), 0700) != 0) {
      *why = "cannot make " + stateDir() + ": " + strerror(errno);
      return false;
    }
    return true;
  }

  bool start(std::string* why) {
    char nodeId[32];
    snprintf(nodeId, sizeof nodeId, "%llx", static_cast<unsigned long long>(nodeIdOf(kAgentNode)));
    // Everything the child needs is made before fork.
    std::vector<std::string> args = {VELTD_PATH, "--standalone", "--socket", socket_, "--state-dir", stateDir(),
                                     "--log", log_, "--node", std::to_string(kAgentNode), "--node-id", nodeId,
                                     "--interfaces", "none"};
    pid_ = bench::startChild(std::move(args), why);
    return pid_ > 0;
  }

  // Whether veltd has ended; *how says how. Does not wait.
  bool hasEnded(std::string* how) { return bench::childEnded(&pid_, "veltd", how); }

  // SIGTERM, then SIGKILL past the bound. *how says how it ended.
  void stop(std::string* how = nullptr) {
    std::string ended;
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    auto until = Clock::now() + kAgentStopBound;
    while (Clock::now() < until) {
      if (hasEnded(&ended)) {
        if (how != nullptr) *how = ended;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    if (how != nullptr) *how = "veltd did not end on SIGTERM within the bound and was killed";
  }

  // A line of /proc/PID/status ("VmHWM") in KiB; -1 when unreadable.
  long statusKiB(const char* field) const { return statusFieldKiB(pid_, field); }

  static long statusFieldKiB(pid_t pid, const char* field) {
    return pid <= 0 ? -1 : bench::statusFieldKiB(std::to_string(pid), field);
  }


  // The processor time veltd used so far (user and system), in ms; -1
  // when unreadable.
  double cpuMs() const {
    if (pid_ <= 0) return -1;
    std::string path = "/proc/" + std::to_string(pid_) + "/stat";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) return -1;
    char line[1024];
    size_t n = fread(line, 1, sizeof line - 1, f);
    fclose(f);
    line[n] = '\0';
    // Fields after the command name, which ends with the last ')'.
    const char* p = strrchr(line, ')');
    if (p == nullptr) return -1;
    unsigned long long utime = 0, stime = 0;
    if (sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) != 2) return -1;
    return static_cast<double>(utime + stime) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

  std::string logTail() const {
    FILE* f = fopen(log_.c_str(), "r");
    if (f == nullptr) return std::string();
    char text[2048];
    size_t n = 0;
    if (fseek(f, 0, SEEK_END) == 0) {
      long size = ftell(f);
      long from = size > static_cast<long>(sizeof text) ? size - static_cast<long>(sizeof text) : 0;
      if (size >= 0 && fseek(f, from, SEEK_SET) == 0) n = fread(text, 1, sizeof text, f);
    }
    fclose(f);
    return std::string(text, n);
  }

  std::string stateDir() const { return dir_ + "/state"; }
  std::string storeFile() const { return stateDir() + "/" + velt::agent::kKorStoreFileName; }
  const std::string& socketPath() const { return socket_; }

 private:
  std::string dir_;
  std::string socket_;
  std::string log_;
  pid_t pid_ = -1;
};

// ------------------------------------------------------------------ checks

std::string korError() {
  char text[640];
  snprintf(text, sizeof text, "%d: %s", cu_get_error(), cu_get_errmsg());
  return text;
}

// The answer of the interface query, checked in full: every resource in
// canonical order with the 11 attributes in the order asked and the values
// of the image. "" when right, else what is wrong (the first problem).
std::string checkInterfaceAnswer(const mc_query_rsp_t* rsp, uint32_t count, int nodes) {
  const uint32_t expected = static_cast<uint32_t>(nodes) * kInterfaces;
  if (count != expected) return std::to_string(count) + " resources, not " + std::to_string(expected);
  const std::vector<std::string> names = interfaceNamesInOrder();
  uint32_t k = 0;
  for (int n = 1; n <= nodes; ++n) {
    for (const std::string& name : names) {
      const mc_query_rsp_t& e = rsp[k++];
      const int idx = indexOfName(name);
      const std::string handle = "node/" + std::to_string(n) + "/" + name;
      if (e.mc_errnum != MC_OK) return handle + ": mc_errnum " + std::to_string(e.mc_errnum);
      if (e.rsrc_handle == nullptr || handle != e.rsrc_handle) return "resource " + handle + " is not in its place";
      if (e.attr_count != kNINumRetResAttrs) return handle + ": " + std::to_string(e.attr_count) + " attributes";
      for (int a = 0; a < kNINumRetResAttrs; ++a) {
        if (strcmp(e.attrs[a].name, NI_RetResAttrs[a]) != 0) return handle + ": attribute " + std::to_string(a) +
                                                                       " is " + e.attrs[a].name;
      }
      const mc_attribute_t* a = e.attrs;
      auto text = [](const mc_attribute_t& attr, const std::string& want) {
        return attr.type == VX_CHAR_PTR && want == attr.value.string;
      };
      bool ok = text(a[0], name) && a[1].type == VX_UINT64_ARRAY && a[1].value.array->count == 1 &&
                a[1].value.array->elements.uint64s[0] == nodeIdOf(n) && text(a[2], deviceOf(idx)) &&
                text(a[3], ipOf(n, idx)) && a[4].type == VX_UINT32 && a[4].value.uint32 == kKorIBDeviceSubType &&
                a[5].type == VX_INT32 && a[5].value.int32 == lidOf(n, idx) && a[6].type == VX_UINT32 &&
                a[6].value.uint32 == static_cast<uint32_t>(idx) && a[7].type == VX_UINT64 &&
                a[7].value.uint64 == subnetOf(idx) && a[8].type == VX_UINT32 && a[8].value.uint32 == 1 &&
                text(a[9], hardwareAddressOf(n, idx)) && text(a[10], deviceOf(idx));
      if (!ok) return handle + ": an attribute's type or value is not the image's";
    }
  }
  return "";
}

// ----------------------------------------------------------------- figures

void printSpread(const char* what, const std::vector<double>& ms, double targetMs, const std::string& note) {
  Spread s = spreadOf(ms);
  if (targetMs > 0) {
    printf("%-26s min %8.1f  median %8.1f  max %8.1f ms   target < %.0f ms: %s%s\n", what, s.min, s.median, s.max,
           targetMs, verdict(s.max < targetMs), note.c_str());
  } else {
    printf("%-26s min %8.1f  median %8.1f  max %8.1f ms%s\n", what, s.min, s.median, s.max, note.c_str());
  }
}

void printOnce(const char* what, double ms, double targetMs, const std::string& note) {
  if (targetMs > 0) {
    printf("%-26s %8.1f ms   target < %.0f ms: %s%s\n", what, ms, targetMs, verdict(ms < targetMs), note.c_str());
  } else {
    printf("%-26s %8.1f ms%s\n", what, ms, note.c_str());
  }
}

void printMemory(const char* what, double mib) {
  printf("%-26s %8.1f MiB  target < %.0f MiB: %s\n", what, mib, kMemoryTargetMiB,
         verdict(mib >= 0 && mib < kMemoryTargetMiB));
}

int configuredRows(AMGlobalAdapterTable* table, int nodes, std::string* wrong) {
  GSReadGuard hold(*table);
  int n = 0;
  for (auto& entry : table->getAdapterItemList()) {
    const AMAdapterItem* row = entry.second;
    if (!row->isConfiged) continue;
    ++n;
    const int node = static_cast<int>(entry.first) / MaxAdaptersOnNode;
    const int idx = static_cast<int>(entry.first) % MaxAdaptersOnNode;
    if (wrong->empty() && (node < 1 || node > nodes || row->nodenumber != node || row->LID != lidOf(node, idx) ||
                           row->networkId64 != subnetOf(idx))) {
      *wrong = "row " + std::to_string(entry.first) + " (node " + std::to_string(row->nodenumber) + ", " +
               row->interfacename + ") is not the image's";
    }
  }
  return n;
}

int usage() {
  fprintf(stderr, "usage: kor_bench [--nodes 1..%d] [--rounds 1..100]\n", kFullNodes);
  return 2;
}

// The whole run; its exit status. The agent is stopped and its directory
// removed on every way out.
int runBench(int nodes, int rounds) {
  const int total = nodes * kInterfaces;
  printf("KOR: %d nodes x %d interfaces = %d Zel.NetworkInterface resources in one veltd, %d rounds%s\n", nodes,
         kInterfaces, total, rounds, nodes == kFullNodes ? "" : " (the targets are for 2048 nodes)");
  fflush(stdout);
  int failures = 0;

  AgentProcess agent;
  std::string why;
  if (!agent.makeDirectory(&why)) {
    fprintf(stderr, "kor_bench: %s\n", why.c_str());
    return 1;
  }
  auto start = Clock::now();
  if (writeImageInChild(agent.stateDir(), nodes, &why) != 0) {
    fprintf(stderr, "kor_bench: %s\n", why.c_str());
    return 1;
  }
  struct stat written;
  if (stat(agent.storeFile().c_str(), &written) != 0) {
    fprintf(stderr, "kor_bench: %s was not written\n", agent.storeFile().c_str());
    return 1;
  }
  printOnce("image (child, not a target)", msSince(start), 0,
            "   " + std::to_string(written.st_size / 1024) + " KiB kept in " + velt::agent::kKorStoreFileName);

  setenv("VELT_AGENT_SOCKET", agent.socketPath().c_str(), 1);
  start = Clock::now();
  if (!agent.start(&why)) {
    fprintf(stderr, "kor_bench: %s\n", why.c_str());
    return 1;
  }
  // veltd answers once its socket is up and the image is seeded.
  mc_sess_hndl_t session = 0;
  while (mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_QUERY, &session) != MC_OK) {
    std::string how;
    if (agent.hasEnded(&how) || msSince(start) > std::chrono::milliseconds(kAgentStartBound).count()) {
      fprintf(stderr, "kor_bench: veltd does not answer (%s; last: %s)\n%s\n", how.c_str(), korError().c_str(),
              agent.logTail().c_str());
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  printOnce("veltd start (not a target)", msSince(start), 0, "   until a session is accepted");

  // The agent's own node joins KOR after start; that change is kept in the
  // state file half a second later. Both are over before anything is timed.
  start = Clock::now();
  for (;;) {
    mc_query_rsp_t* rsp = nullptr;
    uint32_t count = 0;
    int rc = mc_query_p_select_bp(session, &rsp, &count, KOR_CLASS_PEER_NODE, nullptr, nullptr, 0);
    mc_free_response(rsp);
    if (rc != MC_OK) {
      fprintf(stderr, "kor_bench: the PeerNode query failed: %s\n", korError().c_str());
      return 1;
    }
    if (count == static_cast<uint32_t>(nodes) + 1) break;
    if (msSince(start) > std::chrono::milliseconds(kAgentStartBound).count()) {
      fprintf(stderr, "kor_bench: KOR holds %u nodes, not %d\n", count, nodes + 1);
      return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (;;) {
    struct stat now;
    if (stat(agent.storeFile().c_str(), &now) == 0 && now.st_ino != written.st_ino) break;
    if (msSince(start) > std::chrono::milliseconds(kAgentSaveBound).count()) {
      printf("note: veltd did not keep its state file again within %lld s; timing anyway\n",
             static_cast<long long>(kAgentSaveBound.count()));
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  const long agentSeededKiB = agent.statusKiB("VmHWM");

  // ---- (a) the query
  std::vector<double> queryMs;
  std::vector<double> freeMs;
  double agentCpu = 0;
  double selfCpu = 0;
  for (int r = 0; r < rounds; ++r) {
    const double agentCpuBefore = agent.cpuMs();
    const double selfCpuBefore = selfCpuMs();
    mc_query_rsp_t* rsp = nullptr;
    uint32_t count = 0;
    auto t = Clock::now();
    int rc = mc_query_p_select_bp(session, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, nullptr,
                                  const_cast<const char**>(NI_RetResAttrs), kNINumRetResAttrs);
    double ms = msSince(t);
    if (rc != MC_OK) {
      fprintf(stderr, "kor_bench: round %d: mc_query_p_select_bp failed: %s\n", r + 1, korError().c_str());
      return 1;
    }
    queryMs.push_back(ms);
    agentCpu += agent.cpuMs() - agentCpuBefore;
    selfCpu += selfCpuMs() - selfCpuBefore;
    std::string wrong = checkInterfaceAnswer(rsp, count, nodes);
    if (!wrong.empty()) {
      printf("round %d: the answer is wrong: %s\n", r + 1, wrong.c_str());
      ++failures;
    }
    t = Clock::now();
    mc_free_response(rsp);
    freeMs.push_back(msSince(t));
  }
  mc_end_session(session);
  printSpread("query (a)", queryMs, kQueryTargetMs,
              "   " + std::to_string(total) + " x 11 attributes, each answer checked");
  printf("%-26s veltd %6.1f ms, this process %6.1f ms   processor time per query, on average\n", "  cpu",
         agentCpu / rounds, selfCpu / rounds);
  printSpread("  mc_free_response", freeMs, 0, "");
  const long agentPeakKiB = agent.statusKiB("VmHWM");
  const long agentNowKiB = agent.statusKiB("VmRSS");

  // ---- (b) the daemon's harvests
  veltActiveVersion.quick_version = 0x02050000;
  myNodeNumber = 1;
  AMController::domainType = kCLUSTER;
  new AMController();  // lives until the process ends
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  // The daemon learns its adapter indexes from the names in the order it
  // first meets them; its local scan meets sxn0, sxn1, ... first.
  for (int i = 0; i < kInterfaces; ++i) {
    std::string name = "sxn" + std::to_string(i);
    if (_idxFromInterfaceName(name.c_str()) != i) {
      printf("the adapter index of %s is not %d\n", name.c_str(), i);
      ++failures;
    }
  }

  auto t = Clock::now();
  int changes = table->harvestGblPeerNodes(0);
  double peerFirstMs = msSince(t);
  if (changes < 0) {
    fprintf(stderr, "kor_bench: harvestGblPeerNodes failed: %s\n", korError().c_str());
    return 1;
  }
  int mapped = 0;
  for (int n = 1; n <= nodes; ++n) mapped += getNodeNumFromNodeId(nodeIdOf(n)) == n ? 1 : 0;
  if (mapped != nodes || changes != nodes + 1) {
    printf("harvestGblPeerNodes: %d changes, %d of %d nodes mapped\n", changes, mapped, nodes);
    ++failures;
  }

  t = Clock::now();
  changes = table->harvestGblNetworkInterfaces(0);
  double ifFirstMs = msSince(t);
  if (changes < 0) {
    fprintf(stderr, "kor_bench: harvestGblNetworkInterfaces failed: %s\n", korError().c_str());
    return 1;
  }
  std::string wrong;
  int rows = configuredRows(table, nodes, &wrong);
  if (changes != total || rows != total || !wrong.empty()) {
    printf("first harvest: %d changes, %d configured rows (want %d)%s%s\n", changes, rows, total,
           wrong.empty() ? "" : "; ", wrong.c_str());
    ++failures;
  }

  std::vector<double> peerAgainMs;
  std::vector<double> ifAgainMs;
  for (int r = 0; r < rounds; ++r) {
    t = Clock::now();
    int c = table->harvestGblPeerNodes(0);
    peerAgainMs.push_back(msSince(t));
    t = Clock::now();
    int d = table->harvestGblNetworkInterfaces(0);
    ifAgainMs.push_back(msSince(t));
    if (c != 0 || d != 0) {
      printf("round %d: a harvest with nothing changed made %d and %d changes\n", r + 1, c, d);
      ++failures;
    }
  }
  wrong.clear();
  rows = configuredRows(table, nodes, &wrong);
  if (rows != total || !wrong.empty()) {
    printf("after the harvests: %d configured rows (want %d) %s\n", rows, total, wrong.c_str());
    ++failures;
  }
  printOnce("harvest peer nodes, first", peerFirstMs, 0,
            "   " + std::to_string(mapped) + " nodes mapped (KOR holds " + std::to_string(nodes + 1) + ")");
  printSpread("harvest peer nodes, again", peerAgainMs, 0, "   nothing changed");
  printOnce("harvest interfaces (b)", ifFirstMs, kHarvestTargetMs,
            "   first, into the empty table: " + std::to_string(rows) + " configured rows");
  printSpread("harvest interfaces, again", ifAgainMs, kHarvestTargetMs, "   nothing changed");

  // ---- (c) memory
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  printf("%-26s %8.1f MiB  seeded, before the first query\n", "  veltd peak at start", agentSeededKiB / 1024.0);
  printMemory("veltd peak (VmHWM)", agentPeakKiB < 0 ? -1 : agentPeakKiB / 1024.0);
  printf("%-26s %8.1f MiB  after the queries\n", "  veltd now (VmRSS)", agentNowKiB / 1024.0);
  printMemory("this process peak", usage.ru_maxrss / 1024.0);

  std::string how;
  agent.stop(&how);
  if (how.find("status 0") == std::string::npos) {
    printf("veltd did not end cleanly: %s\n", how.c_str());
    ++failures;
  }
  if (failures) printf("FAILED: %d check(s) gave a wrong result\n", failures);
  return failures ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  int nodes = kFullNodes;
  int rounds = kDefaultRounds;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--nodes" && i + 1 < argc) {
      if (!numberArg(argv[++i], 1, kFullNodes, &nodes)) return usage();
    } else if (a == "--rounds" && i + 1 < argc) {
      if (!numberArg(argv[++i], 1, 100, &rounds)) return usage();
    } else {
      return usage();
    }
  }
  int rc = runBench(nodes, rounds);
  fflush(stdout);
  // The controller and its workers live until the process ends.
  _exit(rc);
}

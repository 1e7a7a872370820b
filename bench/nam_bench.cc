// The client socket at the size of the largest cluster: 2048 nodes with 48
// interfaces each (98,304 adapters, interface sxnI on network I % 12), all
// defined and up, served by the daemon's own client server (NAMServer and
// its NAMClient sessions, in this process, in the cluster domain type) to
// real libveltnam clients, each a child process of its own (this program
// started again with --client), so that this process holds the daemon side
// alone. Steps:
//   table    the controller's adapter table is filled through the table's
//            own calls (setAdapterDefinedWithLock for every adapter, then
//            one updateAdapterStateWithLock up for all of them), and the
//            server is started on a socket in a private directory;
//   full     one client, several rounds, each a new session: from the call
//            of velt_nam_init to the return of the first velt_nam_update
//            that applied the whole table; also the copy a program then
//            takes (velt_nam_get_node_adap_info of every node), reported
//            beside it. Every copy is checked in full afterwards, outside
//            the time. Target: under 50 ms, judged on the rounds that
//            follow a write of the table (the server packs the rows
//            anew); the rounds between them, which are sent the packing
//            of the round before, are printed beside;
//   connect  100 clients connect one after the other, each waiting for its
//            whole table before the next starts (the times are printed, no
//            target);
//   change   with the 100 clients connected, one adapter goes down or up
//            per round, published through the table's path so that
//            accumulate_NAM_change and reflect_NAM_changes run as in the
//            daemon: a down through updateAdapterStateWithLock and then
//            processDelayedDownEvents (the propagator's call) with the down
//            delay set to 0, an up through updateAdapterStateWithLock alone.
//            Time from just before the table call to the moment the last
//            client's velt_nam_update returned having applied it (each
//            client takes CLOCK_MONOTONIC then; the clock is the system's,
//            so the processes agree on it). After each round every client
//            checks, outside the time, that its mod_seq_num advanced by one
//            and the adapter shows the new status. Target: under 5 ms;
//   memory   this process's peak resident memory (VmHWM), which is the
//            daemon side alone (table, server, 100 sessions; the clients
//            are other processes), after every client has its whole table,
//            and again at the end. Target: under 160 MiB. One client's peak
//            is printed beside it.
// Tracing is off (no trace market is set up; the daemon itself runs with
// level 1567 unless told otherwise). The machine's load is printed first:
// the figures share the processors with whatever else runs.
// Exit status 1 when a result is not what it must be or the set-up fails;
// a missed target is printed as MISSED.
//
// Run: cmake --build build --target nam_bench && build/bench/nam_bench
//      [--nodes N] [--clients N] [--rounds N]   (N rounds of each kind; fewer nodes or clients for
//      a quick or profiled run; the targets are for 2048 nodes and 100
//      clients).
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
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
#include "AMNetIf.h"
#include "NAMServer.h"
#include "sw_NAM_calls.h"
#include "sw_adapter_info.h"
#include "velt_nam_api.h"

namespace {

using bench::numberArg;
using bench::Spread;
using bench::spreadOf;
using bench::statusFieldKiB;
using bench::verdict;

constexpr int kFullNodes = 2048;
constexpr int kInterfaces = MaxAdaptersOnNode;  // 48 per node
constexpr int kNetworks = 12;                   // the wire allows 14
constexpr int kFullClients = 100;
constexpr int kDefaultRounds = 11;
constexpr uint16_t kDaemonNode = 1;

constexpr double kFullTableTargetMs = 50;
constexpr double kChangeTargetMs = 5;
constexpr double kMemoryTargetMiB = 160;

// Bounds on waits; only a broken server or client reaches them.
constexpr int kReplyBoundMs = 60000;
constexpr int kInitTimeoutMs = 20000;
constexpr int kServerStartBoundMs = 10000;
constexpr int kChildIdleBoundMs = 600000;

// The control socket a client child is given.
constexpr int kControlFd = 3;

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double msBetween(int64_t fromNs, int64_t toNs) { return static_cast<double>(toNs - fromNs) / 1e6; }

// ---------------------------------------------------------------- the facts

uint64_t networkOf(int idx) { return 0xfe80000000000000ull | static_cast<uint64_t>(idx % kNetworks); }

uint32_t ipOf(int node, int idx) {
  // 10.<interface>.<node high>.<node low>, network byte order.
  uint32_t host = (10u << 24) | (static_cast<uint32_t>(idx) << 16) | (static_cast<uint32_t>(node) & 0xffff);
  return htonl(host);
}

int32_t lidOf(int node, int idx) { return static_cast<int32_t>(node * kInterfaces + idx + 1); }

AMNetInterface interfaceOf(int node, int idx) {
  AMNetInterface obj;
  memset(&obj, 0, sizeof obj);
  snprintf(obj.ifrName, sizeof obj.ifrName, "sxn%d", idx);
  snprintf(obj.deviceName, sizeof obj.deviceName, "mlx5_%d", idx);
  obj.ipaddr = ipOf(node, idx);
  obj.family = AF_INET;
  obj.nodeNumber = node;
  obj.adapterType = kKorIBDeviceSubType;
  obj.adapterLID = lidOf(node, idx);
  obj.adapterNetworkID = static_cast<vx_uint32_t>(idx % kNetworks);
  obj.networkId64 = networkOf(idx);
  obj.spigot_id = 1;
  snprintf(obj.hardwareAddress, sizeof obj.hardwareAddress,
           "80:00:02:08:fe:80:00:00:00:00:00:00:ec:0d:9a:03:00:%02x:%02x:%02x", (node >> 8) & 0xff, node & 0xff,
           idx);
  snprintf(obj.devicePathName, sizeof obj.devicePathName, "mlx5_%d", idx);
  return obj;
}

// ------------------------------------------------------- the control socket

// What the bench and a client child say to each other: one record per
// SOCK_SEQPACKET message.
enum Kind : int32_t {
  kRound = 1,    // open a session, take the whole table and a copy, end it
  kConnect,      // open the session that stays, take the whole table
  kCheck,        // is the adapter (node, idx) in status with mod_seq_num seq?
  kQuit,
  kRoundDone,    // a: init returned, b: table applied, c: copy taken (ns)
  kReady,        // a: table applied, b: start (ns); c: VmHWM in KiB
  kApplied,      // a: when velt_nam_update returned with an update (ns)
  kChecked,
  kFailed,       // text says why
};

struct Message {
  int32_t kind = 0;
  int32_t ok = 0;
  int32_t node = 0;
  int32_t idx = 0;
  int32_t status = 0;
  int32_t seq = 0;
  int32_t nodes = 0;
  int32_t pad = 0;
  int64_t a = 0, b = 0, c = 0;
  char text[200] = {0};
};

bool sendMessage(int fd, const Message& m) {
  return send(fd, &m, sizeof m, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof m);
}

// One message within boundMs; false at the end of the stream, on an error
// or when time runs out (*why says which).
bool recvMessage(int fd, Message* m, int boundMs, std::string* why) {
  struct pollfd p = {fd, POLLIN, 0};
  int n;
  do {
    n = poll(&p, 1, boundMs);
  } while (n < 0 && errno == EINTR);
  if (n == 0) {
    *why = "no answer within " + std::to_string(boundMs) + " ms";
    return false;
  }
  ssize_t got = recv(fd, m, sizeof *m, 0);
  if (got != static_cast<ssize_t>(sizeof *m)) {
    *why = got == 0 ? "the client ended" : "the control socket failed";
    return false;
  }
  return true;
}

// ------------------------------------------------------------- the client

// A client child: sessions on the daemon's socket as the bench asks.
class ClientChild {
 public:
  ClientChild(const std::string& socketPath, int nodes) : path_(socketPath), nodes_(nodes) {}

  int run() {
    for (;;) {
      struct pollfd p[2] = {{kControlFd, POLLIN, 0}, {namFd_, POLLIN, 0}};
      int n = poll(p, session_ ? 2 : 1, kChildIdleBoundMs);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return fail("nothing happened within the bound");
      if (session_ && (p[1].revents & (POLLIN | POLLHUP | POLLERR))) {
        int rc = velt_nam_update(handle_);
        const int64_t now = monotonicNs();
        if (rc == VELT_NAM_OK) {
          Message m;
          m.kind = kApplied;
          m.a = now;
          if (!sendMessage(kControlFd, m)) return 1;
        } else if (rc != VELT_NAM_NO_NEW_DATA) {
          return fail(std::string("velt_nam_update: ") + velt_nam_last_error());
        }
      }
      if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) {
        Message in;
        ssize_t got = recv(kControlFd, &in, sizeof in, 0);
        if (got != static_cast<ssize_t>(sizeof in)) return 0;  // the bench has gone
        int rc = handle(in);
        if (rc >= 0) return rc;
      }
    }
  }

 private:
  // -1 to go on, else the exit status.
  int handle(const Message& in) {
    switch (in.kind) {
      case kRound:
        return round() ? -1 : 1;
      case kConnect:
        return connectToStay() ? -1 : 1;
      case kCheck:
        return check(in) ? -1 : 1;
      case kQuit:
        if (session_) velt_nam_term(handle_);
        session_ = false;
        return 0;
      default:
        return fail("an unknown command");
    }
  }

  int fail(const std::string& why) {
    Message m;
    m.kind = kFailed;
    snprintf(m.text, sizeof m.text, "%s", why.c_str());
    sendMessage(kControlFd, m);
    return 1;
  }

  // Opens a session and waits until an update applied the whole table.
  // *startNs: before velt_nam_init; *initNs: when it returned; *appliedNs:
  // when velt_nam_update returned with the table.
  bool openAndTakeTable(velt_nam_handle_t* h, int64_t* startNs, int64_t* initNs, int64_t* appliedNs) {
    *startNs = monotonicNs();
    int rc = velt_nam_init(path_.c_str(), kInitTimeoutMs, h);
    *initNs = monotonicNs();
    if (rc != VELT_NAM_OK) return fail(std::string("velt_nam_init: ") + velt_nam_last_error()) == 0;
    int fd = -1;
    velt_nam_get_fd(*h, &fd);
    for (;;) {
      struct pollfd p = {fd, POLLIN, 0};
      int n = poll(&p, 1, kInitTimeoutMs);
      if (n < 0 && errno == EINTR) continue;
      if (n == 0) return fail("the whole table did not come within the bound") == 0;
      rc = velt_nam_update(*h);
      if (rc == VELT_NAM_OK) break;
      if (rc != VELT_NAM_NO_NEW_DATA) return fail(std::string("velt_nam_update: ") + velt_nam_last_error()) == 0;
    }
    *appliedNs = monotonicNs();
    return true;
  }

  // The whole copy, record by record, against the facts. "" when right.
  std::string checkCopy(const velt_nam_node_adap_info* info) {
    const size_t total = static_cast<size_t>(nodes_) * kInterfaces;
    if (info->mod_seq_num != 1) return "mod_seq_num is " + std::to_string(info->mod_seq_num) + ", not 1";
    if (info->net_info->num_networks != kNetworks) {
      return std::to_string(info->net_info->num_networks) + " networks, not " + std::to_string(kNetworks);
    }
    const velt_nam_connect* rec = info->adap_info;
    size_t seen = 0;
    for (int n = 0; n < kNetworks; ++n) {
      const velt_nam_connect_net_info& net = info->net_info->connect_info[n];
      if (net.network_id != networkOf(n) || net.num_connect != total / kNetworks || net.num_up != net.num_connect) {
        return "network " + std::to_string(n) + " has " + std::to_string(net.num_connect) + " adapters, " +
               std::to_string(net.num_up) + " up";
      }
      for (uint32_t k = 0; k < net.num_connect; ++k, ++rec, ++seen) {
        int idx = atoi(rec->interface_name + 3);
        int node = static_cast<int>(rec->node_number);
        uint32_t ip;
        memcpy(&ip, &rec->ip_address.address.ipv4, sizeof ip);
        if (strncmp(rec->interface_name, "sxn", 3) != 0 || idx % kNetworks != n || node < 1 || node > nodes_ ||
            rec->LID != static_cast<uint32_t>(lidOf(node, idx)) || ip != ipOf(node, idx) ||
            rec->status != VELT_NAM_CONNECT_UP || rec->spigot_id != 1) {
          return "record " + std::to_string(seen) + " (node " + std::to_string(node) + ", " + rec->interface_name +
                 ") is not the table's";
        }
      }
    }
    const uint16_t entries = static_cast<uint16_t>(std::min<size_t>(total, UINT16_MAX));
    if (seen != total || info->num_entries != entries) {
      return std::to_string(seen) + " records (num_entries " + std::to_string(info->num_entries) + "), not " +
             std::to_string(total);
    }
    return "";
  }

  bool round() {
    velt_nam_handle_t h = 0;
    Message m;
    m.kind = kRoundDone;
    int64_t start = 0, init = 0, applied = 0;
    if (!openAndTakeTable(&h, &start, &init, &applied)) return false;
    velt_nam_node_adap_info* info = nullptr;
    int rc = velt_nam_get_node_adap_info(h, VELT_NAM_ALL_NODES, &info);
    const int64_t copied = monotonicNs();
    if (rc != VELT_NAM_OK) return fail(std::string("velt_nam_get_node_adap_info: ") + velt_nam_last_error()) == 0;
    std::string wrong = checkCopy(info);
    velt_nam_free_node_adap_info(info);
    velt_nam_term(h);
    if (!wrong.empty()) return fail("the copy is wrong: " + wrong) == 0;
    m.ok = 1;
    m.a = init - start;
    m.b = applied - start;
    m.c = copied - applied;
    return sendMessage(kControlFd, m);
  }

  bool connectToStay() {
    int64_t start = 0, init = 0, applied = 0;
    if (session_) return fail("a session is open already") == 0;
    if (!openAndTakeTable(&handle_, &start, &init, &applied)) return false;
    session_ = true;
    velt_nam_get_fd(handle_, &namFd_);
    velt_nam_net_info* nets = nullptr;
    if (velt_nam_get_net_info(handle_, &nets) != VELT_NAM_OK) {
      return fail(std::string("velt_nam_get_net_info: ") + velt_nam_last_error()) == 0;
    }
    uint64_t adapters = 0, up = 0;
    for (int n = 0; n < nets->num_networks; ++n) {
      adapters += nets->connect_info[n].num_connect;
      up += nets->connect_info[n].num_up;
    }
    const int networks = nets->num_networks;
    velt_nam_free_net_info(nets);
    const uint64_t total = static_cast<uint64_t>(nodes_) * kInterfaces;
    if (networks != kNetworks || adapters != total || up != total) {
      return fail("the table has " + std::to_string(networks) + " networks and " + std::to_string(adapters) +
                  " adapters, " + std::to_string(up) + " up") == 0;
    }
    Message m;
    m.kind = kReady;
    m.ok = 1;
    m.a = applied - start;
    m.b = start;
    m.c = statusFieldKiB("self", "VmHWM");
    return sendMessage(kControlFd, m);
  }

  bool check(const Message& in) {
    velt_nam_node_adap_info* info = nullptr;
    if (!session_ || velt_nam_get_node_adap_info(handle_, in.node, &info) != VELT_NAM_OK) {
      return fail(std::string("velt_nam_get_node_adap_info: ") + velt_nam_last_error()) == 0;
    }
    std::string wrong;
    char name[16];
    snprintf(name, sizeof name, "sxn%d", in.idx);
    const velt_nam_connect* found = nullptr;
    for (size_t k = 0; k < static_cast<size_t>(kInterfaces) && k < info->num_entries; ++k) {
      if (strncmp(info->adap_info[k].interface_name, name, sizeof name) == 0) found = &info->adap_info[k];
    }
    if (info->mod_seq_num != in.seq) {
      wrong = "mod_seq_num is " + std::to_string(info->mod_seq_num) + ", not " + std::to_string(in.seq);
    } else if (info->num_entries != kInterfaces) {
      wrong = "node " + std::to_string(in.node) + " has " + std::to_string(info->num_entries) + " adapters";
    } else if (found == nullptr || found->status != in.status) {
      wrong = std::string(name) + " of node " + std::to_string(in.node) + " has status " +
              (found ? std::to_string(found->status) : std::string("(none)")) + ", not " + std::to_string(in.status);
    }
    velt_nam_free_node_adap_info(info);
    if (!wrong.empty()) return fail(wrong) == 0;
    Message m;
    m.kind = kChecked;
    m.ok = 1;
    return sendMessage(kControlFd, m);
  }

  std::string path_;
  int nodes_;
  bool session_ = false;
  velt_nam_handle_t handle_ = 0;
  int namFd_ = -1;
};

// ------------------------------------------------------ the bench's side

// A client child as the bench holds it. Owned by the main thread.
struct Child {
  pid_t pid = -1;
  int control = -1;
};

// Starts this program again as a client child. False with *why.
bool startChild(const std::string& socketPath, int nodes, Child* out, std::string* why) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
    *why = std::string("socketpair: ") + strerror(errno);
    return false;
  }
  std::vector<std::string> args = {"/proc/self/exe", "--client", socketPath, "--nodes", std::to_string(nodes)};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    *why = std::string("fork: ") + strerror(errno);
    close(sv[0]);
    close(sv[1]);
    return false;
  }
  if (pid == 0) {
    // A bench that dies must not leave its clients behind.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(126);
    if (sv[1] == kControlFd) {
      fcntl(kControlFd, F_SETFD, 0);
    } else {
      dup2(sv[1], kControlFd);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(sv[1]);
  out->pid = pid;
  out->control = sv[0];
  return true;
}

void stopChildren(std::vector<Child>* children) {
  Message quit;
  quit.kind = kQuit;
  for (Child& c : *children) {
    if (c.control >= 0) sendMessage(c.control, quit);
  }
  for (Child& c : *children) {
    if (c.pid <= 0) continue;
    // Bounded: a child that does not end on its own is ended.
    bool ended = false;
    for (int i = 0; i < 500 && !ended; ++i) {
      ended = waitpid(c.pid, nullptr, WNOHANG) == c.pid;
      if (!ended) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!ended) {
      kill(c.pid, SIGKILL);
      waitpid(c.pid, nullptr, 0);
    }
    c.pid = -1;
    if (c.control >= 0) close(c.control);
    c.control = -1;
  }
}

// One answer of kind from child, or false with *why (a failure's text
// included).
bool expectAnswer(const Child& child, int32_t kind, Message* m, std::string* why) {
  if (!recvMessage(child.control, m, kReplyBoundMs, why)) return false;
  if (m->kind == kFailed) {
    *why = m->text;
    return false;
  }
  if (m->kind != kind) {
    *why = "an answer of kind " + std::to_string(m->kind) + ", not " + std::to_string(kind);
    return false;
  }
  return true;
}

// ----------------------------------------------------------------- figures

// The target is met when the median is under it; the maximum is printed
// beside it, and a maximum over the target is named.
void printSpread(const char* what, const std::vector<double>& ms, double targetMs, const std::string& note) {
  Spread s = spreadOf(ms);
  if (targetMs > 0) {
    printf("%-30s min %8.2f  median %8.2f  max %8.2f ms   target < %.0f ms: %s%s%s\n", what, s.min, s.median,
           s.max, targetMs, verdict(s.median < targetMs),
           s.median < targetMs && s.max >= targetMs ? " (median; max over)" : "", note.c_str());
  } else {
    printf("%-30s min %8.2f  median %8.2f  max %8.2f ms%s\n", what, s.min, s.median, s.max, note.c_str());
  }
}

void printMemory(const char* what, double mib, const std::string& note) {
  printf("%-30s %8.1f MiB  target < %.0f MiB: %s%s\n", what, mib, kMemoryTargetMiB,
         verdict(mib >= 0 && mib < kMemoryTargetMiB), note.c_str());
}

int usage() {
  fprintf(stderr, "usage: nam_bench [--nodes 1..%d] [--clients 1..%d] [--rounds 1..100]\n", kFullNodes,
          kFullClients);
  return 2;
}

// A private directory with the socket's path; false with *why.
bool makeDirectory(std::string* dir, std::string* why) {
  const char* tmp = getenv("TMPDIR");
  std::string base = tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp";
  std::string pattern = base + "/nam_bench.XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    *why = "cannot make a directory under " + base + ": " + strerror(errno);
    return false;
  }
  *dir = buf.data();
  if ((*dir + "/nam.sock").size() >= sizeof(sockaddr_un{}.sun_path)) {
    *why = "the socket path is too long; set TMPDIR to a shorter directory";
    return false;
  }
  return true;
}

// Fills the table: every adapter defined, then all of them up, published
// with no client connected.
void fillTable(AMGlobalAdapterTable* table, int nodes) {
  for (int node = 1; node <= nodes; ++node) {
    for (int idx = 0; idx < kInterfaces; ++idx) table->setAdapterDefinedWithLock(interfaceOf(node, idx));
  }
  reflect_NAM_changes();
  std::vector<tk_gs_provider_t> providers;
  providers.reserve(static_cast<size_t>(nodes) * kInterfaces);
  for (int node = 1; node <= nodes; ++node) {
    for (int idx = 0; idx < kInterfaces; ++idx) {
      providers.push_back(gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(idx)));
    }
  }
  tk_gs_membership_t members;
  members.gs_count = static_cast<unsigned>(providers.size());
  members.gs_providers = providers.data();
  table->updateAdapterStateWithLock(1, &members, 1);
}

int countUpRows(AMGlobalAdapterTable* table) {
  GSReadGuard hold(*table);
  int up = 0;
  for (auto& entry : table->getAdapterItemList()) {
    const AMAdapterItem* row = entry.second;
    if (row->isConfiged && row->isUp && !row->isPending && !row->isNodeStopped) ++up;
  }
  return up;
}

// The whole run; its exit status. Children and the server are stopped and
// the directory removed on every way out.
int runBench(int nodes, int clients, int rounds) {
  const int total = nodes * kInterfaces;
  printf("client socket: %d nodes x %d adapters = %d on %d networks, %d clients, %d rounds%s\n", nodes,
         kInterfaces, total, kNetworks, clients, rounds,
         nodes == kFullNodes && clients == kFullClients ? "" : " (the targets are for 2048 nodes and 100 clients)");
  printf("load average at start: %s (%ld processors)\n", bench::loadAverages().c_str(), sysconf(_SC_NPROCESSORS_ONLN));
  fflush(stdout);
  int failures = 0;
  std::string why;
  std::string dir;
  if (!makeDirectory(&dir, &why)) {
    fprintf(stderr, "nam_bench: %s\n", why.c_str());
    return 1;
  }
  const std::string socketPath = dir + "/nam.sock";
  std::vector<Child> children;
  AMController* ctl = nullptr;
  bool serverStarted = false;
  auto cleanUp = [&]() {
    stopChildren(&children);
    if (serverStarted) {
      ctl->namServer->requestStop();
      ctl->namServer->join();
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  };
  auto setUpFailed = [&](const std::string& text) {
    fprintf(stderr, "nam_bench: %s\n", text.c_str());
    cleanUp();
    return 1;
  };

  // The children first: they are this program again, and hold nothing of
  // the daemon side. One for the rounds of the whole table, the others stay.
  for (int i = 0; i <= clients; ++i) {
    Child c;
    if (!startChild(socketPath, nodes, &c, &why)) return setUpFailed(why);
    children.push_back(c);
  }

  // ---- the table
  setenv("TOLKVASK_SERVER_SOCKET", socketPath.c_str(), 1);
  veltActiveVersion.gs_version = 2;
  veltActiveVersion.gs_release = 5;
  veltActiveVersion.gs_modification = 0;
  veltActiveVersion.gs_fix = 0;
  veltActiveVersion.quick_version = 0x02050000;
  myNodeNumber = kDaemonNode;
  AMController::domainType = kCLUSTER;
  ctl = new AMController();  // lives until the process ends
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  // The daemon learns its adapter indexes from the names in the order it
  // first meets them; its local scan meets sxn0, sxn1, ... first.
  for (int i = 0; i < kInterfaces; ++i) {
    std::string name = "sxn" + std::to_string(i);
    if (_idxFromInterfaceName(name.c_str()) != i) return setUpFailed("the adapter index of " + name + " is not right");
  }
  int64_t t = monotonicNs();
  fillTable(table, nodes);
  const double fillMs = msBetween(t, monotonicNs());
  const int upRows = countUpRows(table);
  if (upRows != total) return setUpFailed(std::to_string(upRows) + " rows are up, not " + std::to_string(total));
  const long tableHwmKiB = statusFieldKiB("self", "VmHWM");
  printf("%-30s %8.1f ms   %d rows defined and up (not a target)\n", "table filled", fillMs, total);

  if (ctl->namServer == nullptr) return setUpFailed("the controller has no client server");
  if (ctl->namServer->start(nullptr) != 0) return setUpFailed("the client server does not start");
  serverStarted = true;
  for (int waited = 0; !ctl->namServer->isListeningForTesting(); waited += 5) {
    if (waited > kServerStartBoundMs || ctl->namServer->getThreadState() == GS_THREAD_STOPPED) {
      return setUpFailed("the client server does not listen on " + socketPath);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  // ---- (1) the whole table, one client at a time: every other round
  // after a write of the table (a write hold taken and given back, which
  // is what makes the server pack the rows again, whatever was changed),
  // the others right after a round, which are sent that same packing.
  std::vector<double> initMs, appliedMs[2], copyMs, bothMs[2];
  const Child& probe = children[0];
  for (int r = 0; r < 2 * rounds; ++r) {
    const int warm = r % 2;
    if (!warm) {
      table->writeLock();
      table->unlock();
    }
    Message cmd;
    cmd.kind = kRound;
    Message m;
    if (!sendMessage(probe.control, cmd) || !expectAnswer(probe, kRoundDone, &m, &why)) {
      printf("round %d of the whole table: %s\n", r + 1, why.c_str());
      ++failures;
      break;
    }
    initMs.push_back(m.a / 1e6);
    appliedMs[warm].push_back(m.b / 1e6);
    copyMs.push_back(m.c / 1e6);
    bothMs[warm].push_back((m.b + m.c) / 1e6);
  }
  printSpread("  velt_nam_init", initMs, 0, "   until the daemon's answer");
  printSpread("whole table applied (1)", appliedMs[0], kFullTableTargetMs,
              "   init to the first update; table written since the last client");
  printSpread("  the same, not written since", appliedMs[1], kFullTableTargetMs,
              "   the last client's packing sent again");
  printSpread("  copy of every node", copyMs, 0, "   velt_nam_get_node_adap_info, after it");
  printSpread("whole table and its copy", bothMs[0], kFullTableTargetMs, "   table written since the last client");
  fflush(stdout);

  // ---- the clients that stay, one after the other
  std::vector<double> connectMs;
  long clientHwmKiB = 0;
  for (int i = 1; i <= clients && failures == 0; ++i) {
    Message cmd;
    cmd.kind = kConnect;
    Message m;
    if (!sendMessage(children[i].control, cmd) || !expectAnswer(children[i], kReady, &m, &why)) {
      printf("client %d does not connect: %s\n", i, why.c_str());
      ++failures;
      break;
    }
    connectMs.push_back(m.a / 1e6);
    clientHwmKiB = std::max(clientHwmKiB, static_cast<long>(m.c));
  }
  if (failures) {
    cleanUp();
    return 1;
  }
  // Every session has sent its table once its client applied it; the
  // server side's peak is now what 100 connected clients cost.
  const long connectedHwmKiB = statusFieldKiB("self", "VmHWM");
  printSpread("  connect, one after another", connectMs, 0,
              "   " + std::to_string(clients) + " clients, init to the whole table");
  if (ctl->getNumberOfClients() != clients) {
    printf("the server holds %d sessions, not %d\n", ctl->getNumberOfClients(), clients);
    ++failures;
  }

  // ---- (2) one change to every client
  WAIT_PENDING_DELAYED_DOWN_USECS = 0;
  std::vector<double> downMs, upMs, allMs;
  for (int r = 0; r < 2 * rounds && failures == 0; ++r) {
    const bool down = r % 2 == 0;
    // A different adapter each pair of rounds: down, then up again.
    const int node = 1 + (r / 2 * 97) % nodes;
    const int idx = (r / 2 * 7) % kInterfaces;
    std::vector<tk_gs_provider_t> one = {gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(idx))};
    tk_gs_membership_t members;
    members.gs_count = 1;
    members.gs_providers = one.data();

    const int64_t start = monotonicNs();
    table->updateAdapterStateWithLock(down ? 0 : 1, &members, 1);
    if (down) table->processDelayedDownEvents();
    int64_t last = start;
    int applied = 0;
    std::vector<bool> done(children.size(), false);
    while (applied < clients) {
      std::vector<struct pollfd> p;
      std::vector<int> who;
      for (int i = 1; i <= clients; ++i) {
        if (done[i]) continue;
        p.push_back({children[i].control, POLLIN, 0});
        who.push_back(i);
      }
      int n = poll(p.data(), p.size(), kReplyBoundMs);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        printf("round %d: %d of %d clients applied the change within the bound\n", r + 1, applied, clients);
        ++failures;
        break;
      }
      for (size_t k = 0; k < p.size(); ++k) {
        if (!p[k].revents) continue;
        Message m;
        if (!expectAnswer(children[who[k]], kApplied, &m, &why)) {
          printf("round %d, client %d: %s\n", r + 1, who[k], why.c_str());
          ++failures;
          applied = clients;
          break;
        }
        done[who[k]] = true;
        last = std::max(last, static_cast<int64_t>(m.a));
        ++applied;
      }
    }
    if (failures) break;
    const double ms = msBetween(start, last);
    (down ? downMs : upMs).push_back(ms);
    allMs.push_back(ms);
    // Outside the time: each client has this change and only it.
    for (int i = 1; i <= clients && failures == 0; ++i) {
      Message cmd;
      cmd.kind = kCheck;
      cmd.node = node;
      cmd.idx = idx;
      cmd.status = down ? VELT_NAM_CONNECT_DOWN : VELT_NAM_CONNECT_UP;
      cmd.seq = 2 + r;
      Message m;
      if (!sendMessage(children[i].control, cmd) || !expectAnswer(children[i], kChecked, &m, &why)) {
        printf("round %d, client %d: %s\n", r + 1, i, why.c_str());
        ++failures;
      }
    }
  }
  printSpread("one change, up to down (2)", downMs, kChangeTargetMs, "   down delay 0");
  printSpread("one change, down to up (2)", upMs, kChangeTargetMs, "");
  printSpread("one change, either (2)", allMs, kChangeTargetMs,
              "   to the last of " + std::to_string(clients) + " clients");

  // ---- (3) memory
  const long endHwmKiB = statusFieldKiB("self", "VmHWM");
  const long nowKiB = statusFieldKiB("self", "VmRSS");
  printf("%-30s %8.1f MiB  the table alone, before the server started\n", "  daemon side peak", tableHwmKiB / 1024.0);
  printMemory("daemon side peak (3)", connectedHwmKiB / 1024.0,
              "   VmHWM of this process with " + std::to_string(clients) + " clients, each sent the whole table");
  printMemory("daemon side peak at the end", endHwmKiB / 1024.0, "   after the changes");
  printf("%-30s %8.1f MiB  now (VmRSS)\n", "  daemon side", nowKiB / 1024.0);
  printf("%-30s %8.1f MiB  the largest VmHWM of a client process (not a target)\n", "  client peak",
         clientHwmKiB / 1024.0);
  printf("load average at the end: %s\n", bench::loadAverages().c_str());

  cleanUp();
  if (failures) printf("FAILED: %d check(s) gave a wrong result\n", failures);
  return failures ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  int nodes = kFullNodes;
  int clients = kFullClients;
  int rounds = kDefaultRounds;
  std::string clientOf;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--nodes" && i + 1 < argc) {
      if (!numberArg(argv[++i], 1, kFullNodes, &nodes)) return usage();
    } else if (a == "--clients" && i + 1 < argc) {
      if (!numberArg(argv[++i], 1, kFullClients, &clients)) return usage();
    } else if (a == "--rounds" && i + 1 < argc) {
      if (!numberArg(argv[++i], 1, 100, &rounds)) return usage();
    } else if (a == "--client" && i + 1 < argc) {
      clientOf = argv[++i];
    } else {
      return usage();
    }
  }
  if (!clientOf.empty()) return ClientChild(clientOf, nodes).run();
  signal(SIGPIPE, SIG_IGN);
  int rc = runBench(nodes, clients, rounds);
  fflush(stdout);
  // The controller and its workers live until the process ends.
  _exit(rc);
}

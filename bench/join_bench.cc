// The one-phase join round trip on a cluster node beside the raw CPG
// delivery it is built on, measured side by side in one process so that
// both see the same ring and the same load:
//   join   joinGroup() until the joiner's approvedCb runs, through libvx_gscl
//          and this node's agent ($VELT_AGENT_SOCKET), over join/goodbye
//          cycles of one provider in a group another provider keeps alive;
//   cpg    cpg_mcast_joined(CPG_TYPE_AGREED) of a small message until its
//          own delivery comes back, in a CPG group of this process's own.
// The samples alternate one by one, in rounds; each round's medians and
// their ratio are printed, then min/median/p99 over all rounds, the ratio
// of the medians beside its target (at most 2), and the spread of the
// per-round ratios. bench/join_bench runs this inside node 1 of a
// scripts/cluster of its own. Exit status 0 when everything was measured,
// whether or not the target is met; 1 when a step failed; 2 for usage.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <corosync/corotypes.h>
#include <corosync/cpg.h>

#include "bench_figures.h"
#include "gs_bench_client.h"

namespace {

using bench::Clock;
using bench::micros;
using bench::percentile;

constexpr double kTargetRatio = 2.0;
constexpr int kMaxRounds = 1000;
constexpr int kMaxSamples = 100000;
constexpr size_t kMinPingBytes = 8;      // the sequence number
constexpr size_t kMaxPingBytes = 65536;
// How long the agent and corosync may take to take us in, and one ping.
constexpr std::chrono::seconds kConnectBound{10};
constexpr std::chrono::seconds kPingBound{10};

const char* csName(cs_error_t rc) {
  switch (rc) {
    case CS_OK: return "CS_OK";
    case CS_ERR_LIBRARY: return "CS_ERR_LIBRARY";
    case CS_ERR_TRY_AGAIN: return "CS_ERR_TRY_AGAIN";
    case CS_ERR_INVALID_PARAM: return "CS_ERR_INVALID_PARAM";
    case CS_ERR_BAD_HANDLE: return "CS_ERR_BAD_HANDLE";
    case CS_ERR_ACCESS: return "CS_ERR_ACCESS";
    case CS_ERR_NOT_EXIST: return "CS_ERR_NOT_EXIST";
    case CS_ERR_EXIST: return "CS_ERR_EXIST";
    case CS_ERR_TOO_BIG: return "CS_ERR_TOO_BIG";
    default: return "CS error";
  }
}

std::string csText(const char* call, cs_error_t rc) {
  return std::string(call) + ": " + csName(rc) + " (" + std::to_string(static_cast<int>(rc)) + ")";
}

// A CPG group of this process alone (named after its pid) in which it
// times its own agreed multicasts until their delivery comes back. Owned
// by the measuring thread; libcpg's callbacks run on it, inside dispatch.
class CpgPing {
 public:
  explicit CpgPing(size_t bytes) : payload_(bytes, '\0') {}
  ~CpgPing() {
    if (open_) cpg_finalize(handle_);
  }
  CpgPing(const CpgPing&) = delete;
  CpgPing& operator=(const CpgPing&) = delete;

  // Connects to corosync, joins the group and waits until the group's view
  // holds this process. False, with *why, on failure.
  bool open(std::string* why) {
    cpg_callbacks_t callbacks;
    memset(&callbacks, 0, sizeof callbacks);
    callbacks.cpg_deliver_fn = &CpgPing::deliver;
    callbacks.cpg_confchg_fn = &CpgPing::confchg;
    cs_error_t rc = cpg_initialize(&handle_, &callbacks);
    if (rc != CS_OK) return fail(csText("cpg_initialize", rc), why);
    open_ = true;
    if ((rc = cpg_context_set(handle_, this)) != CS_OK) return fail(csText("cpg_context_set", rc), why);
    if ((rc = cpg_local_get(handle_, &node_)) != CS_OK) return fail(csText("cpg_local_get", rc), why);
    if ((rc = cpg_fd_get(handle_, &fd_)) != CS_OK) return fail(csText("cpg_fd_get", rc), why);
    std::string group = "join_bench." + std::to_string(getpid());
    memset(&name_, 0, sizeof name_);
    name_.length = static_cast<uint32_t>(group.size());
    memcpy(name_.value, group.data(), group.size());
    Clock::time_point until = Clock::now() + kConnectBound;
    while ((rc = cpg_join(handle_, &name_)) == CS_ERR_TRY_AGAIN && Clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (rc != CS_OK) return fail(csText("cpg_join", rc), why);
    while (!joined_) {
      if (!dispatchUntil(until, why)) return fail(*why + " (waiting for our own join of " + group + ")", why);
    }
    return true;
  }

  // One agreed multicast until its own delivery: microseconds in *us.
  bool ping(double* us, std::string* why) {
    ++sent_;
    memcpy(&payload_[0], &sent_, sizeof sent_);
    struct iovec iov;
    iov.iov_base = &payload_[0];
    iov.iov_len = payload_.size();
    Clock::time_point start = Clock::now();
    Clock::time_point until = start + kPingBound;
    cs_error_t rc;
    // corosync refuses for a moment while its queue to the ring is full.
    while ((rc = cpg_mcast_joined(handle_, CPG_TYPE_AGREED, &iov, 1)) == CS_ERR_TRY_AGAIN &&
           Clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (rc != CS_OK) return fail(csText("cpg_mcast_joined", rc), why);
    while (delivered_ != sent_) {
      if (!dispatchUntil(until, why)) return false;
    }
    *us = micros(deliveredAt_ - start);
    return true;
  }

  unsigned int node() const { return node_; }

 private:
  static CpgPing* pingOf(cpg_handle_t handle) {
    void* context = nullptr;
    if (cpg_context_get(handle, &context) != CS_OK) return nullptr;
    return static_cast<CpgPing*>(context);
  }

  static void deliver(cpg_handle_t handle, const struct cpg_name*, uint32_t nodeid, uint32_t pid, void* msg,
                      size_t len) {
    Clock::time_point at = Clock::now();
    CpgPing* self = pingOf(handle);
    if (self == nullptr || nodeid != self->node_ || pid != static_cast<uint32_t>(getpid()) ||
        len < sizeof self->delivered_) {
      return;
    }
    memcpy(&self->delivered_, msg, sizeof self->delivered_);
    self->deliveredAt_ = at;
  }

  static void confchg(cpg_handle_t handle, const struct cpg_name*, const struct cpg_address* members,
                      size_t memberCount, const struct cpg_address*, size_t, const struct cpg_address*, size_t) {
    CpgPing* self = pingOf(handle);
    if (self == nullptr) return;
    for (size_t i = 0; i < memberCount; ++i) {
      if (members[i].nodeid == self->node_ && members[i].pid == static_cast<uint32_t>(getpid())) {
        self->joined_ = true;
      }
    }
  }

  // Waits for corosync's descriptor (without spinning) and dispatches what
  // came. False, with *why, when the bound passed or corosync went away.
  bool dispatchUntil(Clock::time_point until, std::string* why) {
    Clock::time_point now = Clock::now();
    if (now >= until) {
      *why = "nothing came back from corosync within " + std::to_string(kPingBound.count()) + " s";
      return false;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count() + 1;
    struct pollfd p = {fd_, POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left));
    if (n < 0 && errno != EINTR) {
      *why = std::string("poll: ") + strerror(errno);
      return false;
    }
    if (n <= 0) return true;
    cs_error_t rc = cpg_dispatch(handle_, CS_DISPATCH_ALL);
    if (rc != CS_OK && rc != CS_ERR_TRY_AGAIN) {
      *why = csText("cpg_dispatch", rc);
      return false;
    }
    return true;
  }

  static bool fail(const std::string& text, std::string* why) {
    *why = text;
    return false;
  }

  std::string payload_;
  cpg_handle_t handle_ = 0;
  bool open_ = false;
  int fd_ = -1;
  unsigned int node_ = 0;
  struct cpg_name name_;
  bool joined_ = false;
  uint64_t sent_ = 0;
  uint64_t delivered_ = 0;
  Clock::time_point deliveredAt_;
};

struct Spread {
  double min, median, p99, max;
};

Spread spreadOf(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return Spread{v.front(), percentile(v, 0.5), percentile(v, 0.99), v.back()};
}

const char kUsage[] =
    "usage: join_bench [--rounds N] [--samples M] [--cpg-bytes B]\n"
    "Inside a cluster node: the one-phase join round trip through this node's\n"
    "agent ($VELT_AGENT_SOCKET) beside a raw CPG agreed delivery, alternated\n"
    "sample by sample in N rounds (default 5) of M samples each (default 200);\n"
    "the CPG message carries B bytes (default 128, 8..65536).\n"
    "exit status: 0 when everything was measured (target met or not), 1 when\n"
    "a step failed, 2 for usage errors.\n";

bool numberArg(const char* text, long lo, long hi, long* out) {
  char* end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

int run(int rounds, int samples, size_t pingBytes) {
  std::string why;
  bench::GsBenchClient client("join_bench");
  if (!client.connect(kConnectBound, [](std::string*) { return false; }, &why)) {
    const char* socket = getenv("VELT_AGENT_SOCKET");
    fprintf(stderr, "join_bench: cannot connect to the agent at %s: %s\n",
            socket != nullptr ? socket : "(the library's default socket)", why.c_str());
    return 1;
  }
  CpgPing cpg(pingBytes);
  if (!cpg.open(&why)) {
    fprintf(stderr, "join_bench: corosync: %s\n", why.c_str());
    return 1;
  }
  bench::JoinRoundTrip join(&client, "join_bench.rtt");
  if (!join.start()) {
    fprintf(stderr, "join_bench: %s\n", client.failure().c_str());
    return 1;
  }
  printf("join_bench: node %u, %d rounds x %d samples of each, CPG message %zu bytes, load %s\n", cpg.node(),
         rounds, samples, pingBytes, bench::loadAverages().c_str());
  printf("%-6s %14s %14s %8s\n", "round", "join median", "cpg median", "ratio");
  fflush(stdout);

  std::vector<double> allJoin, allCpg, ratios;
  for (int r = 1; r <= rounds; ++r) {
    std::vector<double> joinUs, cpgUs;
    for (int i = 0; i < samples; ++i) {
      // Which goes first alternates too, so that neither always follows
      // the other's traffic.
      for (int k = 0; k < 2; ++k) {
        if ((k == 0) == (i % 2 == 0)) {
          if (!join.measure(1, &joinUs)) {
            fprintf(stderr, "join_bench: round %d: %s\n", r, client.failure().c_str());
            return 1;
          }
        } else {
          double us = 0;
          if (!cpg.ping(&us, &why)) {
            fprintf(stderr, "join_bench: round %d: %s\n", r, why.c_str());
            return 1;
          }
          cpgUs.push_back(us);
        }
      }
    }
    Spread j = spreadOf(joinUs);
    Spread c = spreadOf(cpgUs);
    ratios.push_back(j.median / c.median);
    printf("%-6d %11.1f us %11.1f us %8.2f\n", r, j.median, c.median, ratios.back());
    fflush(stdout);
    allJoin.insert(allJoin.end(), joinUs.begin(), joinUs.end());
    allCpg.insert(allCpg.end(), cpgUs.begin(), cpgUs.end());
  }
  if (!join.finish()) {
    fprintf(stderr, "join_bench: %s\n", client.failure().c_str());
    return 1;
  }
  Spread j = spreadOf(allJoin);
  Spread c = spreadOf(allCpg);
  Spread q = spreadOf(ratios);
  double ratio = j.median / c.median;
  printf("\n%-34s %8s %11s %11s %11s\n", "figure (all rounds)", "samples", "min", "median", "p99");
  printf("%-34s %8zu %8.1f us %8.1f us %8.1f us\n", "join round trip (1 phase)", allJoin.size(), j.min, j.median,
         j.p99);
  printf("%-34s %8zu %8.1f us %8.1f us %8.1f us\n", "raw CPG agreed delivery", allCpg.size(), c.min, c.median,
         c.p99);
  printf("ratio of the medians: %.2f   target: <= %.1f   %s\n", ratio, kTargetRatio,
         ratio <= kTargetRatio ? "met" : "MISSED");
  printf("per-round ratio: min %.2f, median %.2f, max %.2f over %d rounds; load %s\n", q.min, q.median, q.max,
         rounds, bench::loadAverages().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  long rounds = 5, samples = 200, pingBytes = 128;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    long* into = nullptr;
    long lo = 1, hi = 0;
    if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    } else if (strcmp(a, "--rounds") == 0) {
      into = &rounds, hi = kMaxRounds;
    } else if (strcmp(a, "--samples") == 0) {
      into = &samples, hi = kMaxSamples;
    } else if (strcmp(a, "--cpg-bytes") == 0) {
      into = &pingBytes, lo = static_cast<long>(kMinPingBytes), hi = static_cast<long>(kMaxPingBytes);
    } else {
      fprintf(stderr, "join_bench: unknown argument \"%s\"\n%s", a, kUsage);
      return 2;
    }
    if (i + 1 >= argc || !numberArg(argv[i + 1], lo, hi, into)) {
      fprintf(stderr, "join_bench: %s takes a number %ld..%ld\n%s", a, lo, hi, kUsage);
      return 2;
    }
    ++i;
  }
  return run(static_cast<int>(rounds), static_cast<int>(samples), static_cast<size_t>(pingBytes));
}

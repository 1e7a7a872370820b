// Group services on one agent, as the client library sees them. Starts its
// own `veltd --standalone` in a private directory, connects this process
// (one GSController, callbacks on one dispatch thread) and measures:
//   joins/s      N providers (one instance number each, in a few groups)
//                join at once from several issuing threads; the time runs
//                until every provider's own join approval is dispatched;
//   join         one-phase join round trip: joinGroup() until the joiner's
//                approvedCb runs, over join/goodbye cycles of one provider
//                in a group that another provider keeps alive;
//   change       n-phase state value change round trip with 2 and with 8
//                providers: changeStateValue() until the initiator's
//                approvedCb runs, every provider voting approve on its
//                nPhaseCb. Votes are cast by one voter thread per
//                provider, so that the providers vote side by side as
//                separate processes would, not one after another on the
//                shared dispatch thread.
// Every sample is checked (return codes, the approved value, the number of
// votes); anything unexpected ends the run with exit status 1, as does an
// agent that cannot be started. --quick uses tiny counts for a smoke run.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_process.h"
#include "gs_bench_client.h"
#include "gs_client.h"
#include "gs_controller.h"

using namespace velt_gscl_V1;
using bench::BenchProvider;
using bench::Clock;
using bench::Events;
using bench::micros;
using bench::percentile;

namespace {

// How much work one run does. Plain data.
struct Counts {
  int joiners;          // providers of the joins/s figure
  int joinGroups;       // the groups they are spread over
  int joinIssuers;      // threads issuing their joins
  int joinCycles;       // join/goodbye cycles of the round trip figure
  int changes;          // state value changes per group size
};

constexpr Counts kFullCounts = {500, 5, 8, 200, 100};
constexpr Counts kQuickCounts = {20, 2, 4, 20, 10};
constexpr int kChangeGroupSizes[] = {2, 8};

// veltd creates its socket within moments; this bounds a start that hangs.
constexpr std::chrono::seconds kAgentStartBound{10};
// The whole joins/s phase (hundreds of joins). Only a broken agent or a
// badly overloaded machine reaches it.
constexpr std::chrono::seconds kPhaseBound{60};
// A state value change whose votes are missing ends after this many
// seconds with the default vote; the round trip bound catches that first.
constexpr int kChangeTimeLimitSeconds = 30;
constexpr std::chrono::seconds kAgentStopBound{5};

// The veltd this benchmark runs against: a child process with its socket,
// state and log in a private directory, which goes again with this object.
// Owned by the main thread.
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

  // Makes the directory and starts veltd. False, with *why, when either
  // cannot be done.
  bool start(std::string* why) {
    dir_ = bench::makeAgentDirectory("gs_bench", why);
    if (dir_.empty()) return false;
    socket_ = dir_ + "/agent.sock";
    log_ = dir_ + "/veltd.log";
    // Everything the child needs is made before fork: it only calls
    // async-signal-safe functions.
    std::vector<std::string> args = {VELTD_PATH, "--standalone", "--socket", socket_,
                                     "--state-dir", dir_ + "/state", "--log", log_};
    pid_ = bench::startChild(std::move(args), why);
    return pid_ > 0;
  }

  // Whether the child has ended; *how says how. Does not wait.
  bool hasEnded(std::string* how) { return bench::childEnded(&pid_, "veltd", how); }

  // SIGTERM, then SIGKILL when it has not ended within the bound.
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    auto until = Clock::now() + kAgentStopBound;
    std::string how;
    while (Clock::now() < until) {
      if (hasEnded(&how)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // The end of veltd's log (at most the last 2 KiB), for error messages.
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

  const std::string& socketPath() const { return socket_; }

 private:
  std::string dir_;
  std::string socket_;
  std::string log_;
  pid_t pid_ = -1;
};

double seconds(const struct timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

// One figure of the table. Plain data.
struct Row {
  std::string what;
  size_t samples = 0;
  std::string median;
  std::string p99;
  std::string note;
};

std::string formatMs(double us) {
  char text[32];
  snprintf(text, sizeof text, "%.3f ms", us / 1000.0);
  return text;
}

// Runs the measurements against one agent. Owned by the main thread; the
// dispatch thread it starts runs the providers' callbacks.
class GsBench {
 public:
  explicit GsBench(const Counts& counts) : counts_(counts), client_("gs_bench"), events_(client_.events()) {}

  // 0 when every figure was measured, 1 otherwise (the reason on stderr).
  int run() {
    std::string why;
    if (!agent_.start(&why) || !connect(&why)) {
      fprintf(stderr, "gs_bench: the agent cannot be started: %s\n", why.c_str());
      std::string tail = agent_.logTail();
      if (!tail.empty()) fprintf(stderr, "gs_bench: the end of veltd's log:\n%s\n", tail.c_str());
      return 1;
    }
    std::vector<Row> rows;
    if (!measureJoinRate(&rows) || !measureJoinRoundTrip(&rows)) return failed();
    for (int size : kChangeGroupSizes) {
      if (!measureStateChange(size, &rows)) return failed();
    }
    // The agent's processor time is known once it has been waited for.
    client_.stop();
    agent_.stop();
    printTable(rows);
    return 0;
  }

 private:
  bool connect(std::string* why) {
    if (setenv("VELT_AGENT_SOCKET", agent_.socketPath().c_str(), 1) != 0) {
      *why = std::string("cannot set VELT_AGENT_SOCKET: ") + strerror(errno);
      return false;
    }
    if (client_.connect(kAgentStartBound, [this](std::string* how) { return agent_.hasEnded(how); }, why)) {
      return true;
    }
    *why += " (" + agent_.socketPath() + ")";
    return false;
  }

  int failed() {
    std::string why = client_.failure();
    std::string how;
    if (agent_.hasEnded(&how)) why += "; " + how;
    fprintf(stderr, "gs_bench: %s\n", why.c_str());
    return 1;
  }

  bool fail(const std::string& why) { return client_.fail(why); }
  bool joinAndWait(BenchProvider* p) { return client_.joinAndWait(p); }
  bool goodbye(BenchProvider* p) { return client_.goodbye(p); }
  bool drain() { return client_.drain(); }

  // Runs work(i) for i in [0, n) on `threads` threads that start together.
  // Returns the time the threads were released.
  Clock::time_point runOnIssuers(int n, int threads, const std::function<void(int)>& work) {
    std::mutex gateMu;
    std::condition_variable gateCv;
    bool open = false;
    std::vector<std::thread> issuers;
    for (int t = 0; t < threads; ++t) {
      issuers.emplace_back([&, t] {
        {
          std::unique_lock<std::mutex> lk(gateMu);
          // The gate is opened right after the threads are made.
          gateCv.wait_for(lk, kPhaseBound, [&] { return open; });
        }
        for (int i = t; i < n; i += threads) work(i);
      });
    }
    Clock::time_point start;
    {
      std::lock_guard<std::mutex> lk(gateMu);
      open = true;
      start = Clock::now();
      gateCv.notify_all();
    }
    for (std::thread& th : issuers) th.join();
    return start;
  }

  bool measureJoinRate(std::vector<Row>* rows) {
    const int n = counts_.joiners;
    std::vector<std::unique_ptr<BenchProvider>> providers;
    for (int i = 0; i < n; ++i) {
      std::string group = "gs_bench.join." + std::to_string(i % counts_.joinGroups);
      providers.emplace_back(new BenchProvider(group, i + 1, &events_));
    }
    events_.clearJoinProtocols();
    uint64_t approvalsBefore = events_.approvals.load();
    uint64_t target = events_.count(Events::kOwnJoin) + static_cast<uint64_t>(n);
    Clock::time_point start = runOnIssuers(n, counts_.joinIssuers, [&](int i) {
      tk_gs_rc_t rc = providers[static_cast<size_t>(i)]->joinGroup();
      if (rc != TK_GS_OK) {
        events_.fail(std::string(providers[static_cast<size_t>(i)]->getTraceIdStr()) + ": join returned " +
                     gscl_rc_name(rc));
      }
    });
    // Every join has its sync answer here; the approvals may still be on
    // their way through the dispatch queue.
    Clock::time_point answered = Clock::now();
    Clock::time_point last;
    if (!events_.waitFor(Events::kOwnJoin, target, kPhaseBound, &last)) {
      uint64_t approved = events_.count(Events::kOwnJoin) + static_cast<uint64_t>(n) - target;
      return fail("only " + std::to_string(approved) + " of " + std::to_string(n) +
                  " joins were approved within " + std::to_string(kPhaseBound.count()) + " s");
    }
    double us = micros(last - start);
    uint64_t approvals = events_.approvals.load() - approvalsBefore;
    size_t protocols = events_.joinProtocols();

    std::atomic<bool> goodbyeFailed{false};
    runOnIssuers(n, counts_.joinIssuers, [&](int i) {
      tk_gs_rc_t rc = providers[static_cast<size_t>(i)]->goodbyeGroup();
      if (rc != TK_GS_OK) {
        goodbyeFailed.store(true);
        events_.fail(std::string(providers[static_cast<size_t>(i)]->getTraceIdStr()) + ": goodbye returned " +
                     gscl_rc_name(rc));
      }
    });
    if (goodbyeFailed.load()) return false;
    providers.clear();
    if (!drain()) return false;

    Row r;
    r.what = "joins/s: " + std::to_string(n) + " providers, " + std::to_string(counts_.joinGroups) + " groups, " +
             std::to_string(counts_.joinIssuers) + " threads";
    r.samples = static_cast<size_t>(n);
    char text[64];
    snprintf(text, sizeof text, "%.0f /s", us > 0 ? n * 1e6 / us : 0.0);
    r.median = text;
    r.p99 = "-";
    snprintf(text, sizeof text, "answered after %.1f ms, all approved after %.1f ms; ",
             micros(answered - start) / 1000.0, us / 1000.0);
    r.note = text + std::to_string(protocols) + " join protocols, " + std::to_string(approvals) +
             " approvals dispatched";
    rows->push_back(r);
    return true;
  }

  bool measureJoinRoundTrip(std::vector<Row>* rows) {
    bench::JoinRoundTrip rtt(&client_, "gs_bench.rtt");
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(counts_.joinCycles));
    if (!rtt.start() || !rtt.measure(counts_.joinCycles, &samples) || !rtt.finish()) return false;
    rows->push_back(summarise("join round trip (1 phase)", &samples, ""));
    return true;
  }

  bool measureStateChange(int size, std::vector<Row>* rows) {
    std::string group = "gs_bench.cfg" + std::to_string(size);
    std::vector<std::unique_ptr<BenchProvider>> providers;
    for (int i = 0; i < size; ++i) {
      providers.emplace_back(new BenchProvider(group, i + 1, &events_, i == 0));
      if (!joinAndWait(providers.back().get())) return false;
    }
    for (auto& p : providers) p->startVoting();
    BenchProvider* initiator = providers.front().get();
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(counts_.changes));
    for (int c = 0; c < counts_.changes; ++c) {
      std::string value = "value " + std::to_string(c) + " of " + group;
      events_.expectValue(value);
      uint64_t initiatorTarget = events_.count(Events::kInitiatorChange) + 1;
      uint64_t allTarget = events_.count(Events::kChangeApproved) + static_cast<uint64_t>(size);
      uint64_t votesBefore = events_.count(Events::kVoteCast);
      tk_gs_state_value_t sv = {static_cast<int>(value.size()), &value[0]};
      Clock::time_point start = Clock::now();
      tk_gs_rc_t rc = initiator->changeStateValue(&sv, TK_GS_N_PHASE, kChangeTimeLimitSeconds);
      if (rc != TK_GS_OK) return fail("changeStateValue returned " + std::string(gscl_rc_name(rc)));
      Clock::time_point approved;
      if (!events_.waitFor(Events::kInitiatorChange, initiatorTarget, bench::kRoundTripBound, &approved)) {
        return fail("the initiator got no approval of state value change " + std::to_string(c) + " within " +
                    std::to_string(bench::kRoundTripBound.count()) + " s");
      }
      samples.push_back(micros(approved - start));
      // The next change starts when every provider has seen this one end.
      if (!events_.waitFor(Events::kChangeApproved, allTarget, bench::kRoundTripBound)) {
        return fail("not every provider got the approval of state value change " + std::to_string(c));
      }
      // Every provider's vote must have been accepted (a vote call may
      // return after the approval it completed was dispatched).
      uint64_t votesTarget = votesBefore + static_cast<uint64_t>(size);
      if (!events_.waitFor(Events::kVoteCast, votesTarget, bench::kRoundTripBound)) {
        uint64_t votes = events_.count(Events::kVoteCast) - votesBefore;
        return fail("state value change " + std::to_string(c) + " was approved, but only " + std::to_string(votes) +
                    " of " + std::to_string(size) + " votes were accepted");
      }
    }
    std::string committed;
    if (initiator->getStateValue(&committed) != TK_GS_OK || !events_.isExpectedValue(committed)) {
      return fail("the committed state value is not the last one approved");
    }
    for (auto& p : providers) {
      if (!goodbye(p.get())) return false;
    }
    providers.clear();
    if (!drain()) return false;
    rows->push_back(summarise("state value change, " + std::to_string(size) + " providers (n phase)", &samples,
                              "every provider votes approve"));
    return true;
  }

  static Row summarise(const std::string& what, std::vector<double>* samples, const std::string& note) {
    std::sort(samples->begin(), samples->end());
    Row r;
    r.what = what;
    r.samples = samples->size();
    r.median = formatMs(percentile(*samples, 0.5));
    r.p99 = formatMs(percentile(*samples, 0.99));
    r.note = note;
    return r;
  }

  void printTable(const std::vector<Row>& rows) {
    cpu_set_t set;
    CPU_ZERO(&set);
    int usable = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : -1;
    long online = sysconf(_SC_NPROCESSORS_ONLN);
    uint32_t v = client_.controller().agentVersion();
    printf("gs_bench: one veltd --standalone (version %u.%u.%u.%u), this process as its only client\n",
           v >> 24, (v >> 16) & 0xff, (v >> 8) & 0xff, v & 0xff);
    struct rusage self;
    struct rusage children;
    getrusage(RUSAGE_SELF, &self);
    getrusage(RUSAGE_CHILDREN, &children);
    printf("cores: %ld online, %d usable by this process\n", online, usable);
    printf("processor time of the whole run: veltd %.2f s, gs_bench %.2f s (user + system)\n\n",
           seconds(children.ru_utime) + seconds(children.ru_stime), seconds(self.ru_utime) + seconds(self.ru_stime));
    printf("%-56s %7s %12s %12s\n", "figure", "samples", "median", "p99");
    for (const Row& r : rows) {
      printf("%-56s %7zu %12s %12s%s%s\n", r.what.c_str(), r.samples, r.median.c_str(), r.p99.c_str(),
             r.note.empty() ? "" : "  ", r.note.c_str());
    }
    fflush(stdout);
  }

  const Counts counts_;
  AgentProcess agent_;
  bench::GsBenchClient client_;
  Events& events_;
};

const char kUsage[] =
    "usage: gs_bench [--quick]\n"
    "Starts its own veltd --standalone and measures group services on it:\n"
    "joins per second, the one-phase join round trip and the n-phase state\n"
    "value change round trip with 2 and 8 providers.\n"
    "  --quick   tiny counts, for a smoke run\n"
    "exit status: 0 when every figure was measured, 1 when the agent cannot be\n"
    "started or a step failed, 2 for usage errors.\n";

}  // namespace

int main(int argc, char** argv) {
  Counts counts = kFullCounts;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--quick") == 0) {
      counts = kQuickCounts;
    } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    } else {
      fprintf(stderr, "gs_bench: unknown argument \"%s\"\n%s", argv[i], kUsage);
      return 2;
    }
  }
  GsBench bench(counts);
  return bench.run();
}

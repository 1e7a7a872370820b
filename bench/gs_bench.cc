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
#include "gs_client.h"
#include "gs_controller.h"

using namespace velt_gscl_V1;

namespace {

using Clock = std::chrono::steady_clock;

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
// The whole joins/s phase (hundreds of joins) and one round trip. Only a
// broken agent or a badly overloaded machine reaches them.
constexpr std::chrono::seconds kPhaseBound{60};
constexpr std::chrono::seconds kRoundTripBound{10};
// A state value change whose votes are missing ends after this many
// seconds with the default vote; the round trip bound catches that first.
constexpr int kChangeTimeLimitSeconds = 30;
constexpr std::chrono::seconds kAgentStopBound{5};
constexpr int kInterfaceWord = 0x30014;

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

// Nearest-rank percentile of sorted samples (q in (0, 1]).
double percentile(const std::vector<double>& sorted, double q) {
  size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(sorted.size())));
  return sorted[std::max<size_t>(rank, 1) - 1];
}

// What happened on the dispatch and voter threads, for the measuring
// thread to wait on. Every kind of event is counted with the time of its
// latest occurrence; a failure wakes every waiter. Thread-safe.
class Events {
 public:
  enum Kind { kOwnJoin, kChangeApproved, kInitiatorChange, kVoteCast, kKinds };

  void note(Kind k, Clock::time_point at) {
    std::lock_guard<std::mutex> lk(mu_);
    ++count_[k];
    last_[k] = at;
    cv_.notify_all();
  }
  // The first failure is kept; later ones are usually its consequences.
  void fail(const std::string& why) {
    std::lock_guard<std::mutex> lk(mu_);
    if (failure_.empty()) failure_ = why;
    cv_.notify_all();
  }
  std::string failure() const {
    std::lock_guard<std::mutex> lk(mu_);
    return failure_;
  }
  uint64_t count(Kind k) const {
    std::lock_guard<std::mutex> lk(mu_);
    return count_[k];
  }
  // Waits until k has been noted target times in all. False when the bound
  // passed or something failed; *lastAt gets the time of the latest k.
  bool waitFor(Kind k, uint64_t target, Clock::duration bound, Clock::time_point* lastAt = nullptr) {
    std::unique_lock<std::mutex> lk(mu_);
    bool reached = cv_.wait_for(lk, bound, [&] { return count_[k] >= target || !failure_.empty(); });
    if (!reached || !failure_.empty()) return false;
    if (lastAt != nullptr) *lastAt = last_[k];
    return true;
  }

  // The join protocols that carried our joins (batching shows as fewer
  // protocols than joins). Bounded by the number of joins.
  void noteJoinProtocol(const std::string& group, uint64_t protocol) {
    std::lock_guard<std::mutex> lk(mu_);
    joinProtocols_.insert({group, protocol});
  }
  size_t joinProtocols() const {
    std::lock_guard<std::mutex> lk(mu_);
    return joinProtocols_.size();
  }
  void clearJoinProtocols() {
    std::lock_guard<std::mutex> lk(mu_);
    joinProtocols_.clear();
  }

  // The value the running state value change proposes.
  void expectValue(const std::string& v) {
    std::lock_guard<std::mutex> lk(mu_);
    expectedValue_ = v;
  }
  bool isExpectedValue(const std::string& v) const {
    std::lock_guard<std::mutex> lk(mu_);
    return v == expectedValue_;
  }

  // Approval notifications of any kind dispatched to our providers.
  std::atomic<uint64_t> approvals{0};

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  uint64_t count_[kKinds] = {};                       // GUARDED_BY(mu_)
  Clock::time_point last_[kKinds];                    // GUARDED_BY(mu_)
  std::string failure_;                               // GUARDED_BY(mu_)
  std::set<std::pair<std::string, uint64_t>> joinProtocols_;   // GUARDED_BY(mu_)
  std::string expectedValue_;                         // GUARDED_BY(mu_)
};

std::string textOf(const tk_gs_state_value_t* v) {
  if (v == nullptr || v->gs_state == nullptr || v->gs_length <= 0) return std::string();
  return std::string(v->gs_state, static_cast<size_t>(v->gs_length));
}

// A provider that reports its approvals to Events and, once voting is
// started, approves every n-phase state value change from a voter thread
// of its own. Thread-safe like GSProvider; callbacks on the dispatch
// thread, votes on the voter thread.
class BenchProvider : public GSProvider {
 public:
  BenchProvider(const std::string& group, int instance, Events* events, bool initiator = false)
      : GSProvider(group.c_str(), instance, "gs_bench"), events_(events), initiator_(initiator) {}

  ~BenchProvider() override {
    // No callback may start while the voter and its queue go.
    unregister();
    {
      std::lock_guard<std::mutex> lk(voterMu_);
      stopVoter_ = true;
      voterCv_.notify_all();
    }
    if (voter_.joinable()) voter_.join();
  }

  void startVoting() {
    std::lock_guard<std::mutex> lk(voterMu_);
    if (!voter_.joinable()) voter_ = std::thread([this] { voteLoop(); });
  }

  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override {
    Clock::time_point at = Clock::now();
    events_->approvals.fetch_add(1, std::memory_order_relaxed);
    const tk_gs_proposal_t* p = n->gs_proposal;
    if (n->gs_protocol_type == TK_GS_JOIN && p != nullptr && isMine(p->gs_changing_providers)) {
      events_->noteJoinProtocol(n->gs_group_name, n->gs_protocol_number);
      events_->note(Events::kOwnJoin, at);
    } else if (n->gs_protocol_type == TK_GS_CHANGE_STATE_VALUE) {
      std::string value = textOf(p != nullptr ? p->gs_proposed_state_value : nullptr);
      if (!events_->isExpectedValue(value)) {
        events_->fail(std::string(getTraceIdStr()) + " got the approval of the state value \"" + value +
                      "\", which no one proposed now");
        return TK_GS_CALLBACK_OK;
      }
      if (initiator_) events_->note(Events::kInitiatorChange, at);
      events_->note(Events::kChangeApproved, at);
    }
    return TK_GS_CALLBACK_OK;
  }

  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override {
    std::lock_guard<std::mutex> lk(voterMu_);
    if (!voter_.joinable() || n->gs_protocol_type != TK_GS_CHANGE_STATE_VALUE) {
      events_->fail(std::string(getTraceIdStr()) + " was asked to vote on " + gscl_request_name(n->gs_protocol_type) +
                    ", which this benchmark never starts");
      return TK_GS_CALLBACK_OK;
    }
    ++votesOwed_;
    voterCv_.notify_all();
    return TK_GS_CALLBACK_OK;
  }

  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override {
    events_->fail(std::string(getTraceIdStr()) + ": " + gscl_request_name(n->gs_protocol_type) +
                  " was rejected (summary " + gscl_summary_code_names(n->gs_summary_code) + ")");
    return TK_GS_CALLBACK_OK;
  }

  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    events_->fail(std::string(getTraceIdStr()) + ": " + gscl_request_name(n->gs_request_type) +
                  " failed later with " + gscl_rc_name(n->gs_delayed_return_code));
    return TK_GS_CALLBACK_OK;
  }

  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override {
    if ((n->gs_summary_code & TK_GS_GROUP_SERVICES_HAS_DIED) != 0) {
      events_->fail("the connection to veltd was lost");
    } else {
      events_->fail(std::string(getTraceIdStr()) + ": unexpected announcement " +
                    gscl_summary_code_names(n->gs_summary_code));
    }
    return TK_GS_CALLBACK_OK;
  }

 private:
  bool isMine(const tk_gs_membership_t* m) const {
    if (m == nullptr) return false;
    uint32_t me = getProviderId().gs_provider_id;
    for (unsigned int i = 0; i < m->gs_count; ++i) {
      if (m->gs_providers[i].gs_provider_id == me) return true;
    }
    return false;
  }

  void voteLoop() {
    std::unique_lock<std::mutex> lk(voterMu_);
    while (true) {
      // The owner always sets stopVoter_ before it joins this thread; the
      // bound only keeps the wait from being open-ended.
      voterCv_.wait_for(lk, std::chrono::seconds(1), [this] { return stopVoter_ || votesOwed_ > 0; });
      if (stopVoter_) return;
      if (votesOwed_ == 0) continue;
      --votesOwed_;
      lk.unlock();
      tk_gs_rc_t rc = vote(TK_GS_VOTE_APPROVE, nullptr, nullptr, TK_GS_NO_VOTE);
      if (rc == TK_GS_OK) {
        events_->note(Events::kVoteCast, Clock::now());
      } else {
        events_->fail(std::string(getTraceIdStr()) + ": vote returned " + gscl_rc_name(rc));
      }
      lk.lock();
    }
  }

  Events* const events_;
  const bool initiator_;

  std::mutex voterMu_;
  std::condition_variable voterCv_;
  std::thread voter_;          // GUARDED_BY(voterMu_) while started; joined by the destructor
  int votesOwed_ = 0;          // GUARDED_BY(voterMu_)
  bool stopVoter_ = false;     // GUARDED_BY(voterMu_)
};

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

void traceToStderr(int, char* text) { fprintf(stderr, "%s\n", text); }

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
  explicit GsBench(const Counts& counts) : counts_(counts), controller_(kInterfaceWord) {}
  ~GsBench() {
    controller_.quit();
    if (dispatcher_.joinable()) dispatcher_.join();
  }

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
    controller_.quit();
    if (dispatcher_.joinable()) dispatcher_.join();
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
    auto until = Clock::now() + kAgentStartBound;
    tk_gs_rc_t rc;
    while (true) {
      rc = controller_.initialize();
      if (rc == TK_GS_OK) break;
      controller_.quit();
      std::string how;
      if (agent_.hasEnded(&how)) {
        *why = how + " before it answered on " + agent_.socketPath();
        return false;
      }
      if (rc != TK_GS_NOT_CONNECTED) {
        *why = std::string("initialize returned ") + gscl_rc_name(rc);
        return false;
      }
      if (Clock::now() >= until) {
        *why = "veltd did not answer on " + agent_.socketPath() + " within " +
               std::to_string(kAgentStartBound.count()) + " s";
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // The library's own diagnostics from here on: the refused attempts
    // while veltd was starting are expected and not worth a line.
    GSSetTraceRtn(traceToStderr);
    dispatcher_ = std::thread([this] {
      tk_gs_rc_t d;
      while ((d = controller_.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
      }
      if (d == TK_GS_GS_HAS_DIED) events_.fail("the connection to veltd was lost");
    });
    return true;
  }

  int failed() {
    std::string why = events_.failure();
    if (why.empty()) why = step_;
    std::string how;
    if (agent_.hasEnded(&how)) why += "; " + how;
    fprintf(stderr, "gs_bench: %s\n", why.c_str());
    return 1;
  }

  // Records why the current step failed (unless a callback already said).
  bool fail(const std::string& why) {
    step_ = why;
    return false;
  }

  // Joins one provider and waits for its own approval.
  bool joinAndWait(BenchProvider* p, Clock::time_point* approvedAt = nullptr) {
    uint64_t target = events_.count(Events::kOwnJoin) + 1;
    tk_gs_rc_t rc = p->joinGroup();
    if (rc != TK_GS_OK) return fail(std::string(p->getTraceIdStr()) + ": join returned " + gscl_rc_name(rc));
    if (!events_.waitFor(Events::kOwnJoin, target, kRoundTripBound, approvedAt)) {
      return fail(std::string(p->getTraceIdStr()) + ": no approval of its join within " +
                  std::to_string(kRoundTripBound.count()) + " s");
    }
    return true;
  }

  bool goodbye(BenchProvider* p) {
    tk_gs_rc_t rc = p->goodbyeGroup();
    if (rc != TK_GS_OK) return fail(std::string(p->getTraceIdStr()) + ": goodbye returned " + gscl_rc_name(rc));
    return true;
  }

  // Waits until every notification the agent sent so far has been
  // dispatched: the agent sends in the order it applies requests, so the
  // approval of a later join comes after all of them.
  bool drain() {
    BenchProvider fence("gs_bench.fence", 1, &events_);
    return joinAndWait(&fence) && goodbye(&fence);
  }

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
    // The group outlives every cycle, so that each join joins an existing
    // group with one member to tell.
    BenchProvider anchor("gs_bench.rtt", 1, &events_);
    BenchProvider joiner("gs_bench.rtt", 2, &events_);
    if (!joinAndWait(&anchor)) return false;
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(counts_.joinCycles));
    for (int c = 0; c < counts_.joinCycles; ++c) {
      Clock::time_point start = Clock::now();
      Clock::time_point approved;
      if (!joinAndWait(&joiner, &approved) || !goodbye(&joiner)) return false;
      samples.push_back(micros(approved - start));
    }
    if (!goodbye(&anchor) || !drain()) return false;
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
      if (!events_.waitFor(Events::kInitiatorChange, initiatorTarget, kRoundTripBound, &approved)) {
        return fail("the initiator got no approval of state value change " + std::to_string(c) + " within " +
                    std::to_string(kRoundTripBound.count()) + " s");
      }
      samples.push_back(micros(approved - start));
      // The next change starts when every provider has seen this one end.
      if (!events_.waitFor(Events::kChangeApproved, allTarget, kRoundTripBound)) {
        return fail("not every provider got the approval of state value change " + std::to_string(c));
      }
      // Every provider's vote must have been accepted (a vote call may
      // return after the approval it completed was dispatched).
      uint64_t votesTarget = votesBefore + static_cast<uint64_t>(size);
      if (!events_.waitFor(Events::kVoteCast, votesTarget, kRoundTripBound)) {
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
    uint32_t v = controller_.agentVersion();
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
  GSController controller_;
  Events events_;
  std::thread dispatcher_;
  std::string step_ = "a step failed";   // why the current step failed
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

// The group services client side of the benchmarks that measure through
// libvx_gscl (gs_bench, join_bench): providers that report what they are
// told, one connected controller with its dispatch thread, and the
// one-phase join round trip.
#ifndef VELT_BENCH_GS_BENCH_CLIENT_H_
#define VELT_BENCH_GS_BENCH_CLIENT_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gs_client.h"
#include "gs_controller.h"

namespace bench {

using Clock = std::chrono::steady_clock;

// A provider's join round trip has this long before the benchmark gives up
// on it: only a broken agent or a badly overloaded machine reaches it.
constexpr std::chrono::seconds kRoundTripBound{10};

double micros(Clock::duration d);

// Nearest-rank percentile of sorted samples (q in (0, 1]); 0 when empty.
double percentile(const std::vector<double>& sorted, double q);

// What happened on the dispatch and voter threads, for the measuring
// thread to wait on. Every kind of event is counted with the time of its
// latest occurrence; a failure wakes every waiter. Thread-safe.
class Events {
 public:
  enum Kind { kOwnJoin, kChangeApproved, kInitiatorChange, kVoteCast, kKinds };

  void note(Kind k, Clock::time_point at);
  // The first failure is kept; later ones are usually its consequences.
  void fail(const std::string& why);
  std::string failure() const;
  uint64_t count(Kind k) const;
  // Waits until k has been noted target times in all. False when the bound
  // passed or something failed; *lastAt gets the time of the latest k.
  bool waitFor(Kind k, uint64_t target, Clock::duration bound, Clock::time_point* lastAt = nullptr);

  // The join protocols that carried our joins (batching shows as fewer
  // protocols than joins). Bounded by the number of joins.
  void noteJoinProtocol(const std::string& group, uint64_t protocol);
  size_t joinProtocols() const;
  void clearJoinProtocols();

  // The value the running state value change proposes.
  void expectValue(const std::string& v);
  bool isExpectedValue(const std::string& v) const;

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

// A provider that reports its approvals to Events and, once voting is
// started, approves every n-phase state value change from a voter thread
// of its own. Thread-safe like GSProvider; callbacks on the dispatch
// thread, votes on the voter thread.
class BenchProvider : public velt_gscl_V1::GSProvider {
 public:
  BenchProvider(const std::string& group, int instance, Events* events, bool initiator = false);
  ~BenchProvider() override;

  void startVoting();

  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override;
  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override;
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override;
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override;

 private:
  bool isMine(const tk_gs_membership_t* m) const;
  void voteLoop();

  Events* const events_;
  const bool initiator_;

  std::mutex voterMu_;
  std::condition_variable voterCv_;
  std::thread voter_;          // GUARDED_BY(voterMu_) while started; joined by the destructor
  int votesOwed_ = 0;          // GUARDED_BY(voterMu_)
  bool stopVoter_ = false;     // GUARDED_BY(voterMu_)
};

// One connection to an agent (the socket $VELT_AGENT_SOCKET names, else
// the library's default) with the dispatch thread that runs every
// provider's callbacks, and the steps the measurements are made of. Each
// step that fails says why (failure()). Owned by the measuring thread.
class GsBenchClient {
 public:
  explicit GsBenchClient(const char* benchName);
  ~GsBenchClient();
  GsBenchClient(const GsBenchClient&) = delete;
  GsBenchClient& operator=(const GsBenchClient&) = delete;

  // Connects, asking again every 20 ms while the agent refuses (it may
  // still be starting) for at most `bound`; gone(&how) says whether the
  // agent has ended meanwhile. Then starts the dispatch thread. False,
  // with *why, when no connection was made.
  bool connect(std::chrono::seconds bound, const std::function<bool(std::string*)>& gone, std::string* why);
  // Drops the connection and ends the dispatch thread (idempotent).
  void stop();

  // Joins p and waits for its own approval (*approvedAt: when its
  // approvedCb ran).
  bool joinAndWait(BenchProvider* p, Clock::time_point* approvedAt = nullptr);
  bool goodbye(BenchProvider* p);
  // Waits until every notification the agent sent so far has been
  // dispatched: the agent sends in the order it applies requests, so the
  // approval of a later join comes after all of them.
  bool drain();

  // Why the last step failed (a callback's report first).
  std::string failure() const;
  // Records why the current step failed (unless a callback already said).
  bool fail(const std::string& why);

  Events& events() { return events_; }
  velt_gscl_V1::GSController& controller() { return controller_; }

 private:
  const std::string name_;
  velt_gscl_V1::GSController controller_;
  Events events_;
  std::thread dispatcher_;
  std::string step_ = "a step failed";   // why the current step failed
};

// The one-phase join round trip: joinGroup() until the joiner's approvedCb
// runs, over join/goodbye cycles of one provider in a group that another
// provider keeps alive (each join joins an existing group with one member
// to tell). Owned by the measuring thread.
class JoinRoundTrip {
 public:
  JoinRoundTrip(GsBenchClient* client, const std::string& group);
  // Joins the provider that keeps the group alive.
  bool start();
  // Adds `cycles` samples (microseconds) to *samples.
  bool measure(int cycles, std::vector<double>* samples);
  // The keeper leaves, and every notification is dispatched.
  bool finish();

 private:
  GsBenchClient* const client_;
  BenchProvider anchor_;
  BenchProvider joiner_;
};

}  // namespace bench

#endif  // VELT_BENCH_GS_BENCH_CLIENT_H_

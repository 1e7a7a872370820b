// Configuration propagation: the propagator thread keeps every node on the
// same aggregate-IP configuration. It reads the configuration (directly or
// after a refresh child), proposes its identity as the state value of the
// group "tolkvask_cfg", votes on the proposals of other nodes and commits
// what the group approved. The same thread is the daemon's pump for cluster
// configuration work: batching of configuration events, the adapter
// table's delayed downs, harvest requests and the group leader's duties.
#ifndef VELT_GLOBALAM_AMPROPAGATE_H_
#define VELT_GLOBALAM_AMPROPAGATE_H_

#include <sys/types.h>

#include <atomic>
#include <mutex>

#include "AMAggregate.h"
#include "AMUtils.h"
#include "common.h"

class AMPropagator;

// The propagator's event codes, posted by any thread.
enum _AMProEventType {
  PEVT_CFG_UNKNOWN = -1,
  PEVT_NO_EVENT = 0,
  PEVT_BUILDCFG_REQUESTED = 1,
  PEVT_BUILDCFG_PROC_DONE = 2,
  PEVT_CFG_READY_TO_COMMIT = 3,
  PEVT_PROPAGATE_REQUESTED = 4,
  PEVT_PROPAGATE_RETRY_REQUESTED = 5,
  PEVT_CHECK_REFRESH_DONE = 6,
  PEVT_WAKEUP_EVENT = 7,
  PEVT_BECOME_GL_EVENT = 8,
  PEVT_HARVEST_IMMED_REQ_EVENT = 9,
  PEVT_HARVEST_REG_REQ_EVENT = 10,
  PEVT_HARVEST_DELAY_REQ_EVENT = 11,
  PEVT_HARVEST_NOW_EVENT = 12,
  PEVT_HARVEST_NOTIFY_DONE_EVENT = 13,
  PEVT_TRIGGER_CONFIG_EVENT = 14,
  PEVT_TRIGGER_DELAYED_DOWNS = 15,
};

// This node's member of the configuration group. Its callbacks run on the
// group services dispatch thread and reach the propagator only through
// posted events, the lock-protected AMCfgInfo and safe integers; its
// requests are issued by the propagator thread. Thread-safe on those terms.
class AMCfgProvider : public GSProvider {
 public:
  static constexpr const char* kGroupName = "tolkvask_cfg";
  static constexpr const char* kProviderName = "tolkvask_prov";
  // State changes run as n-phase protocols with this many seconds to vote.
  static constexpr int kStateChangeTimeLimit = 900;
  // A duplicate instance that persists this long ends the process.
  static constexpr long kDupInstanceLimitSecs = 2700;

  explicit AMCfgProvider(AMPropagator* owner);
  ~AMCfgProvider() override;

  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override;
  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override;
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override;
  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override;
  // At most one attempt every 5 seconds; 1 when the rate limit refuses.
  tk_gs_rc_t joinGroup() override;

  // Proposes id as the group's state value; 0 also when a change of ours
  // is in flight already.
  int issueStateChange(AMCfgInfo& id);
  // Casts the vote owed for the current phase, if one is owed.
  int voteApproveIfPending(int can_die);
  // The leader asks every node to harvest (a one-phase provider message).
  int issueBroadcastHarvest();

  // Rate limit of proposals: reset() lets the next one through, hit() takes
  // a slot. Shared by the propagator thread and the callbacks.
  void resetCfgStateRate();
  bool hitCfgStateRate();
  int remainingSecsToJoin();

  int isGL() const { return iAmGL.load(); }
  bool isStateChangeInFlight() const { return sc_protocol_issued.get() != 0; }
  bool isVotePending() const { return vote_is_pending.get() != 0; }
  void setDupInstanceStartForTesting(long monoSecs) { begin_dup_instance = monoSecs; }

 private:
  void resetHitters();

  // The hitters are touched by the propagator thread and the dispatch
  // thread; hitterMu_ serialises them.
  std::mutex hitterMu_;
  AMIntervalHitter at_joining;        // GUARDED_BY(hitterMu_)
  AMIntervalHitter at_delayed_err;    // GUARDED_BY(hitterMu_)
  AMPropagator* propagator;
  AMCfgInfo pending_cfg_info;
  std::atomic<int> pending_state_change{0};  // a change of ours awaits approval
  std::mutex voteMu_;                 // makes taking the owed vote atomic
  GSSafeInteger vote_is_pending{0};
  GSSafeInteger sc_protocol_issued{0};
  AMIntervalHitter at_join_rate;      // GUARDED_BY(hitterMu_)
  AMIntervalHitter at_cfg_state_rate; // GUARDED_BY(hitterMu_)
  std::atomic<long> begin_dup_instance{0};
  std::atomic<int> iAmGL{0};
  GSBitSet activeNodeList;            // only read on the dispatch thread
};

// The propagator thread. Its event queue and the pending counters may be
// used from any thread; the configuration lists belong to the propagator
// thread, which changes the current list under listMu_ so that status
// requests and aggregators may read it. Created once by the controller.
class AMPropagator : public GSThread {
 public:
  static constexpr const char* kTracePrefix = "Propagator[cfg]";
  // Width of the batching window for configuration events.
  static constexpr int kBatchWindowUsecs = 50000;
  // How long a lost agent connection waits for the dispatch thread's exit.
  static constexpr int kGsDiedGraceMsecs = 3000;
  // A refresh child still running after this many seconds is killed, so
  // that a refresh command that never ends cannot hold up every later
  // refresh. SW_HERDLET_REFRESH_TIMEOUT_SECS (1 to kMaxRefreshTimeoutSecs)
  // changes it.
  static constexpr int kDefaultRefreshTimeoutSecs = 600;
  static constexpr int kMaxRefreshTimeoutSecs = 86400;

  AMPropagator();
  ~AMPropagator() override;

  void* run(void* arg) override;

  using GSThread::postSyncEvent;
  using GSThread::waitSyncEvent;
  // The methods below are virtual so that tests of other units can stand
  // a counting propagator in for this one.
  virtual int postSyncEvent(_AMProEventType event);
  int waitSyncEvent(_AMProEventType* event, int secs, int usecs);
  // Drops every queued event of type, keeps the others in order; returns
  // how many were dropped.
  int removeMatchingSyncEvents(_AMProEventType type);

  // The refresh child's time limit in seconds, from the environment, read
  // at each refresh; a bad value is traced and the default taken.
  static int refreshTimeoutSecs();
  virtual pid_t refreshPid() const { return refresh_pid.load(); }
  virtual void clearRefreshPid() { refresh_pid.store(-1); }
  virtual void refreshCompleted(int rc);
  virtual void refreshRequested();
  void refreshRequested(AMCfgInfo& id);
  void remoteRefreshRequested(AMCfgInfo& id);
  void readyToCommit(AMCfgInfo& id);
  void loadNewConfigRequested();
  // The agent connection is gone: the process is asked to exit unless it
  // ends by the dispatch thread's own stop code within the grace time.
  void groupServicesDied();
  void postPeerNodeEventReady();
  void postNetInterfaceEventReady();
  void clearPendingPeerNodeEvent();
  void clearPendingNetInterfaceEvent();
  virtual int postDelayedDownEvent();
  void clearDelayedDownEvent();
  int pendingPeerNodeEvents();
  int pendingNetInterfaceEvents();

  AMCfgInfo& aggip_current_cfg_info() { return aggip_cfg_info; }
  AMCfgInfo& aggip_proposed_cfg_info() { return proposed_cfg_info; }
  bool ObtainAggCfgFor(AMAggCfg& cfg, const char* name);
  // True while the configuration provider exists and is not idle.
  virtual bool isCfgProviderActive() const;
  // This node leads the configuration group; the configuration monitor
  // keeps its event session only then.
  virtual int isGL() const;
  AMCfgProvider* cfgProvider() { return cfg_provider; }
  virtual void doLongStatus();
  virtual void doCanonicalLongStatus();

  // Counts of what the loop did, so that tests can wait for it.
  int batchHarvestsForTesting() const { return batchHarvests_.load(); }
  int harvestRequestsForTesting() const { return harvestRequests_.load(); }
  int commitsForTesting() const { return commits_.load(); }
  int proposalsForTesting() const { return proposals_.load(); }
  int rateRefusalsForTesting() const { return rateRefusals_.load(); }
  int readsForTesting() const { return reads_.load(); }
  int ignoredRefreshesForTesting() const { return ignoredRefreshes_.load(); }
  int killedRefreshesForTesting() const { return killedRefreshes_.load(); }

 private:
  struct Wait {
    int secs = -1;  // -1: no limit
    int usecs = 0;
  };
  struct Deferred {
    _AMProEventType event = PEVT_CFG_UNKNOWN;
    long long dueMs = 0;  // monotonic milliseconds
  };

  int initiateRefreshProcess();
  // Kills the refresh child's process group once its time limit has
  // passed; the controller then reaps it as a failed refresh.
  void enforceRefreshTimeLimit();
  void ReadAndPropagateAggConfig();
  // Takes event up after secs seconds (and waits that long unless other
  // events come first).
  static void defer(Deferred* deferred, _AMProEventType event, Wait* wait, int secs);
  void proposeConfig(_AMProEventType event, Wait* wait, Deferred* deferred);
  void CommitProposedAggConfig();
  // Harvests peer nodes and interfaces (cluster domain) and checks the raw
  // devices; false when both harvests failed and the check found none.
  bool harvestAndCheck();
  void wakeMediatorsAndMonitor();
  void statusLines(bool canonical);
  // True once it asked the controller for the exit.
  bool exitAfterGroupServicesDied(Wait* wait);

  AMCfgProvider* cfg_provider;
  // Guards the current list against readers on other threads; taken before
  // the adapter table's lock.
  mutable std::mutex listMu_;
  AMAggCfgList aggip_cfg_list;  // GUARDED_BY(listMu_) for writes
  AMCfgInfo aggip_cfg_info;
  std::atomic<pid_t> refresh_pid{-1};
  std::atomic<int> refresh_retcode{0};
  // Monotonic milliseconds at which the running refresh child is killed,
  // 0 when none is due; with the limit it was given. Propagator thread only.
  long long refresh_deadline_ms_ = 0;
  int refresh_timeout_secs_ = kDefaultRefreshTimeoutSecs;
  AMAggCfgList proposed_cfg_list;  // propagator thread only
  AMCfgInfo proposed_cfg_info;
  std::atomic<int> proposed_remotely{0};
  int pending_pn_evt_cnt = 0;        // GUARDED_BY(readyctrl_lock)
  int pending_ni_evt_cnt = 0;        // GUARDED_BY(readyctrl_lock)
  int pending_delayed_down_cnt = 0;  // GUARDED_BY(delayctrl_lock)

  // Monotonic milliseconds after which a lost agent connection asks for
  // the exit; 0 while the connection is fine, -1 once asked.
  std::atomic<long long> exit_deadline_ms_{0};
  std::atomic<int> batchHarvests_{0};
  std::atomic<int> harvestRequests_{0};
  std::atomic<int> commits_{0};
  // The file's id and the committed one last said to differ (propagator
  // thread only).
  std::string fileMismatchSaid_;
  std::atomic<int> proposals_{0};
  std::atomic<int> rateRefusals_{0};
  std::atomic<int> reads_{0};
  std::atomic<int> ignoredRefreshes_{0};
  std::atomic<int> killedRefreshes_{0};
};

// Process-wide guards of the propagator's pending counters.
extern std::mutex readyctrl_lock;
extern std::mutex delayctrl_lock;

#endif  // VELT_GLOBALAM_AMPROPAGATE_H_

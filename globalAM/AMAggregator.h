// Aggregate adapter membership: an aggregate-IP device (ml0) is usable
// across the cluster only among nodes that share a working switch network.
// The aggregator of a device listens to the cooked group of every network
// (one cooked subscriber each), picks the largest of them after masking
// with the device's aggregate configuration (the base group), and joins the
// device's aggregate group ("ml0Membership") as an alias of that base group
// while the local aggregate interface is up and this node is in the base
// group. A flip delay keeps the alias where it is while memberships still
// move.
//
// The shipped daemon registers no aggregator; the machinery stands ready
// for a build that does (AMController::setAggregatorSetupForTesting).
//
// Ownership: whoever creates an aggregator registers it with the
// controller, starts its thread and keeps it until the process exits; the
// aggregator owns its listeners, its aggregate provider and subscriber.
// Group services callbacks run on the dispatch thread and only record,
// reset rate limiters and post events to the aggregator.
#ifndef VELT_GLOBALAM_AMAGGREGATOR_H_
#define VELT_GLOBALAM_AMAGGREGATOR_H_

#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "AMAggregate.h"
#include "AMUtils.h"
#include "common.h"

class AMAggregator;
class AMCookedProvider;
class AMMediator;

// The events an aggregator's wait hands out.
enum AMAggEvent {
  kAggEvtWakeup = 0,      // end of a mediator pass, provider callbacks, controller
  kAggEvtRefreshed = 1,   // the aggregate configuration may have changed
  kAggEvtMembership = 2,  // a cooked group's membership changed
};

// A listener: the aggregator's subscription to the cooked group of one
// network. Its membership changes reach the adapter table and wake the
// aggregator. Thread-safe: callbacks on the dispatch thread, requests on
// the aggregator thread; src_provider and networkId64 are atomics because
// the mediator relinks them from the dispatch thread.
class AMCookedSubscriber : public GSSubscriber {
 public:
  AMCookedSubscriber(AMAggregator* aggregator, const char* groupName, int netnum);
  ~AMCookedSubscriber() override;

  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override;
  // At most one request every 3 seconds reaches group services; a refused
  // one is traced once an hour.
  tk_gs_rc_t subscribeGroup() override;

  // 2 when not idle, 3 when nothing is to be done (no local switch, or the
  // network is not configured here), 1 when a subscription was requested,
  // 0 when the request failed.
  int trySubscribeGroup();
  // The local cooked provider of this network changed state: the next
  // subscription may be requested at once.
  void told_src_provider_updated();

  int getNetworkNum() const { return networknum; }
  uint64_t getNetworkId64() const { return networkId64.load(); }
  void setNetworkId64(uint64_t id) { networkId64.store(id); }
  AMCookedProvider* getSrcProvider() const { return src_provider.load(); }
  void setSrcProvider(AMCookedProvider* p) { src_provider.store(p); }
  // "AggSub[<group>,T=<network>]".
  const char* getTraceId() const { return traceId_.c_str(); }

  AMAggregator* agg_mediator;
  AMIntervalHitter at_subscribing;
  AMIntervalHitter at_delayed_err;
  AMIntervalHitter at_severe_err;
  AMIntervalHitter at_sub_rate;

 private:
  std::atomic<AMCookedProvider*> src_provider{nullptr};
  const int networknum;
  std::atomic<uint64_t> networkId64{0};
  GSString traceId_;
};

// This node's provider in the aggregate group. Thread-safe as the cooked
// provider: requests from the aggregator thread, callbacks from dispatch.
class AMAggProvider : public GSProvider {
 public:
  AMAggProvider(AMAggregator* aggregator, const char* groupName, short instance);
  ~AMAggProvider() override;

  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override;
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override;
  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override;
  // At most one request every 3 seconds reaches group services.
  tk_gs_rc_t joinGroup() override;
  // Goodbye, or a one-phase leave where back-level providers refuse it.
  tk_gs_rc_t LeaveOrGoodbyeGroup();

  AMAggregator* agg_mediator;
  AMIntervalHitter at_joining;
  AMIntervalHitter at_delayed_err;
  AMIntervalHitter at_join_rate;

 private:
  void wakeAggregator();
};

// The aggregator's own view of the aggregate group, for its status.
class AMAggSubscriber : public GSSubscriber {
 public:
  AMAggSubscriber(AMAggregator* aggregator, const char* groupName);
  ~AMAggSubscriber() override;

  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override;
  tk_gs_rc_t subscribeGroup() override;

  AMAggregator* aggregator;
  AMIntervalHitter at_subscribing;
  AMIntervalHitter at_delayed_err;
  AMIntervalHitter at_severe_err;
  AMIntervalHitter at_sub_rate;
};

// The aggregator thread of one aggregate device. Thread-safe: wakeup,
// status and the listener registry from any thread (the registry under its
// own mutex; listeners are never removed, so a listener pointer stays
// valid); the rest belongs to the aggregator thread (or to a test that
// drives processOnePass while the thread is not running).
class AMAggregator : public GSThread {
 public:
  // How long the alias waits for memberships to settle, and how many
  // extensions a steady stream of changes gets before the base group is
  // recomputed anyway.
  static constexpr int kFlipDelaySecs = 3;
  static constexpr int kMaxFlipExtensions = 100;

  // cfg: this device's masks, copied (null: none until the propagator's
  // configuration is fetched).
  AMAggregator(const char* device, const char* fullDevice, const char* aggGroupName, short instance, AMAggCfg* cfg);
  ~AMAggregator() override;

  void* run(void* arg) override;
  // One pass of the thread body after a wait that ended with evt and
  // waitrc (0, or 110 for a time-out): returns the next wait in seconds
  // (-1 without limit). run() calls it; tests drive it directly.
  int processOnePass(int evt, int waitrc);

  // refreshed: the configuration may have changed (the pseudo-device is
  // opened first).
  void wakeup(int refreshed);
  // A new aggregate configuration was committed: fetch it.
  void set_configuration_has_changed(AMCfgInfo& info);

  // Creates the listener of a cooked group unless one exists for that
  // group name; returns it (the existing one, or null for a null name).
  AMCookedSubscriber* createListener(int netnum, AMCookedProvider* provider, const char* groupName);
  // Stores provider as the listener's related provider; its index, or -1
  // when the listener is not this aggregator's.
  int setRelatedProviderForSubscriber(AMCookedSubscriber* subscriber, AMCookedProvider* provider);
  AMCookedSubscriber* getCookedSubByNetworkID(int netnum);
  // Index of the listener of that group, or -1.
  int getNetworkNumIndex(const char* groupName);
  int isListenerCreated(const char* groupName) { return getNetworkNumIndex(groupName) >= 0; }
  int getNumRelatedGroups();
  AMCookedSubscriber* getListener(int i);
  AMCookedProvider* getRelatedProvider(int i);

  // The index of the base group, or -1 when every group is empty after
  // masking; equiv_list (at least getNumRelatedGroups() entries) receives
  // the groups of the same size and node set, the chosen one first.
  int determineTheLargestBaseGroup(int& equiv_cnt, int* equiv_list);

  const char* getAggMembershipName() const { return agg_mbrship_name.c_str(); }
  const char* getRepName() const { return represent_name.c_str(); }
  const char* getFullDeviceName() const { return full_device_name.c_str(); }
  AMAggProvider* getAggProvider() { return agg_provider; }
  AMAggSubscriber* getAggSubscriber() { return agg_subscriber; }
  int getAliasGroupIndex() const { return alias_group_index.load(); }
  int getFlipWaitCount() const { return ml0flipwaitcount; }
  int isMonitoringMlX() const { return is_monitoring_mlX; }
  // Whether the device's configuration has adapters on network i.
  bool configuredOnNetwork(int i);
  AMCfgInfo& aggCfgInfo() { return agg_cfg_info; }

  // True when this aggregator's own provider, or an all-group provider of
  // a mediator that this aggregator listens to, is joined.
  bool IsAnybodyJoinedToSXNAll();

  // The switch pseudo-device "/dev/sxnpd0": opened, reopened when the
  // configuration changes, and closed; it does not exist on Linux.
  int open_sxnpdd(int reopen);
  void close_sxnpdd();
  int isPseudoDeviceOpen() const { return sxnpdd_fd.load() >= 0; }
  int pseudoDeviceExists() const { return sxnpdd_exist.load(); }
  int isMajorIoctlDisabled() const { return no_major_ioctl; }

  // Status lines through the controller's SRC driver.
  void doCanonicalLongStatus(int index);
  void doLongStatus(int index);
  void doLongCfgStatus(int index);

  // Test hooks: the path of the pseudo-device (null restores
  // "/dev/sxnpd0"), and how long a thread that was asked to end waits
  // before it ends the process (negative restores the 60 seconds).
  static void setPseudoDevicePathForTesting(const char* path);
  static void setStopGraceForTesting(int secs);

 private:
  // The set of nodes of listener i's members after masking; false when the
  // listener is not subscribed.
  bool maskedNodesOf(int i, std::vector<uint16_t>* nodes);
  // Whether this node is in the base group (and, outside the cluster
  // domain type, set in the mask of its adapter there).
  bool isConfiguredUpIn(int index);
  // The name of listener i's group, or "(none)".
  const char* groupNameOf(int i);
  // A member's node counts when the mask of its instance has it; an
  // instance without a mask is traced.
  bool maskAdmits(int instance, int node);

  void checkAggregateSubscription(int* wait);
  int check_and_reschedule_mlX_state();
  void start_monitoring_mlX_state();
  void stop_monitoring_mlX_state();
  void obtainConfiguration();
  // Where the switch system would be told the majority's choice; there is
  // no switch system to tell.
  void tell_majority_to_switchsystem(int old_grp_idx, int new_grp_idx, int equiv_cnt, const int* equiv_list);

  std::atomic<int> is_monitoring_mlX{0};
  AMIntervalHitter mlX_check_monitor;
  int mlX_up_running = 0;
  GSString represent_name;
  GSString full_device_name;
  GSString agg_mbrship_name;

  // The listener registry: appended to by the controller and relinked by
  // mediators on the dispatch thread while the aggregator reads it.
  mutable std::mutex listMu_;
  std::vector<AMCookedProvider*> relatedProviders;  // GUARDED_BY(listMu_)
  std::vector<AMCookedSubscriber*> listeners;       // GUARDED_BY(listMu_), owned

  AMAggProvider* agg_provider;
  AMAggSubscriber* agg_subscriber;
  std::atomic<int> alias_group_index{-1};
  // Changed by the aggregator thread (a mask is made on first use, too),
  // read by status requests.
  std::mutex cfgMu_;
  AMAggCfg agg_config;  // GUARDED_BY(cfgMu_)
  AMCfgInfo agg_cfg_info;
  AMCfgInfo agg_cfg_proposed_info;

  std::atomic<int> sxnpdd_fd{-1};
  dev_t current_major_devno = 0;
  int major_ever_known = 0;
  int no_major_ioctl = 0;
  std::atomic<int> sxnpdd_exist{1};
  std::atomic<int> lastOpenErrno_{-1};  // what the last attempt to open found

  // State of the thread body between passes.
  int ml0flipwaitcount = 0;
  bool refreshPending_ = false;
  bool still_configured_up = false;
  bool notUpTraced_ = false;
  std::vector<int> equiv_list_;
  GSString traceId_;
};

// The aggregators' part of the status report, in registry order.
void doAllAggregatorsLongStatus();
void doAllAggregatorsCanonicalLongStatus();

#endif  // VELT_GLOBALAM_AMAGGREGATOR_H_

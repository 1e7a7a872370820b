// Switch adapter membership: the raw subscriber that watches every adapter
// of the cluster in the all-adapter group, the local adapters' up state it
// records, the cooked providers that stand for each local adapter in the
// per-network and all-switch groups, and the mediator thread that turns the
// one into the other.
//
// Ownership: the controller creates one mediator and keeps it until the
// process exits; the mediator owns its raw subscriber, its adapter list and
// its cooked providers. Group services callbacks run on the dispatch thread
// and only record, reset rate limiters and post event 0 to the mediator.
#ifndef VELT_GLOBALAM_AMMEDIATOR_H_
#define VELT_GLOBALAM_AMMEDIATOR_H_

#include <netinet/in.h>
#include <stdint.h>
#include <time.h>

#include <mutex>

#include "AMComponents.h"
#include "AMUtils.h"
#include "common.h"

class AMMediator;
class AMCookedSubscriber;

// Name of the cooked group of switch network n ("sxnMembership",
// "sxn1Membership", ... "sxn8Membership"), or null outside 0..8. The text
// belongs to the table; the caller must not free it. The table is filled
// on the first call, which start-up makes before any thread runs.
const char* GET_SW_MEMBERSHIP_GROUP(int n);
// True when 0 <= id <= the current number of networks: the upper bound is
// inclusive because network numbers count from 0 and the count is the
// highest index in use, which is the larger of the InfiniBand group count
// and the highest switch network number of a configured table row. Takes
// the adapter table's read lock (it nests under a hold the caller has).
bool IsValidNetworkID(int id);

// Group names the membership code shares.
constexpr const char* kSxnAllMembershipName = "sxnAllMembership";
constexpr const char* kIbAllMembershipName = "ibAllMembership";
constexpr const char* kAllAdapterMembershipName = "allAdapterMembership";
constexpr const char* kSxnRawMembershipName = "sxnRawMembership";
constexpr const char* kMl0MembershipName = "ml0Membership";

// One local adapter as the raw group shows it; keyed by its IP address.
// Thread-compatible (a value).
class AMAdapterState {
 public:
  AMAdapterState() { clear(); }
  AMAdapterState(const AMAdapterState& other) = default;
  AMAdapterState& operator=(const AMAdapterState& other) = default;
  void clear();

  GSString interfacename;
  struct in_addr ipaddr;
  int isUp;          // 1 while a member of the raw group
  int16_t nodenumber;
};

// The local adapters seen in the raw group and whether each is up. Entries
// are never removed: an adapter that left keeps its entry with isUp 0.
// Thread-safe: queries take the read lock, putIntoList the write lock.
class AMAdapterStateList : public GSLockableObject {
 public:
  AMAdapterStateList() = default;
  ~AMAdapterStateList() override;
  AMAdapterStateList(const AMAdapterStateList&) = delete;
  AMAdapterStateList& operator=(const AMAdapterStateList&) = delete;

  // Overwrites the entry of s's IP address or appends one; returns its index.
  int putIntoList(const AMAdapterState& s);
  // Distinct nodes that have an up entry with this interface name.
  int count(const char* name);
  // The same, restricted to one node (0 or 1).
  int count(const char* name, int node);
  // 1 when an entry of that node and name is up, else 0.
  int isUp(int node, const char* name);
  // Forgets every entry (the storage is kept).
  void reset();
  int numberOfEntries();
  // A copy of entry i (an empty state outside the list).
  AMAdapterState entry(int i);

 private:
  AMAdapterState* _data = nullptr;  // GUARDED_BY(this)
  int _nitems = 0;                  // GUARDED_BY(this)
  int _nalloc = 0;                  // GUARDED_BY(this)
};

// Where the raw subscriber learns an address's adapter: the controller's
// copy of the adapter information that subscription notifications carry.
typedef tk_gs_rc_t (*AMAdapterInfoLookupFn)(const tk_gs_ip_addr* ip, tk_gs_adapter_info_t* info);
// Called with what the raw subscriber hands to the adapter table, just
// before the table gets it.
typedef void (*AMTableUpdateObserverFn)(int isUp, const tk_gs_membership_t* providers);

// Traces a subscription's delayed error (at the error level once per
// period of delayed) and, unless the group merely does not exist yet, makes
// a severe report once per period of severe.
void traceSubscriptionDelayedError(const char* traceId, const char* group, const tk_gs_delayed_error_notification_t* n,
                                   AMIntervalHitter& delayed, AMIntervalHitter& severe);

// The subscriber to the raw adapter group: keeps the last IP membership,
// records the local adapters' state in its mediator's list, hands up and
// down providers to the global adapter table and wakes the mediator.
// Thread-safe: callbacks run on the dispatch thread, subscribe and status
// on the mediator and controller threads; the IP membership copy is guarded
// by the subscriber's own write lock; the hitters are reset from callbacks
// and used by the mediator thread (a lost reset only delays one trace).
class AMRawSubscriber : public GSSubscriber {
 public:
  AMRawSubscriber(AMMediator* mediator, const char* groupName);
  ~AMRawSubscriber() override;

  virtual tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  virtual tk_gs_rc_t subscribeGroup() override;
  virtual tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override;

  // command: TK_GS_SUBSCRIPTION_MEMBERSHIP (full), _DELTA_JOIN or
  // _DELTA_LEAVE; _targetnode -1 stands for every node.
  void ProcessAdapterInfo(tk_gs_adapter_ip_membership_t* list, tk_gs_subscription_ctrl_t command,
                          int _targetnode);
  // Replays the last IP membership as a full membership for one node.
  void ReprocessAdaptersOnNode(int node);

  time_t getTimeSubscribing() const { return _timeSubscribing; }
  // "Mediator[<raw group>]".
  const char* getTraceId() const { return traceId_.c_str(); }
  unsigned numberOfIpMembers();

  // Test hooks: replace where addresses are resolved (null restores the
  // controller's copy) and watch the hand-over to the adapter table.
  static void setAdapterInfoLookupForTesting(AMAdapterInfoLookupFn fn);
  static void setTableUpdateObserverForTesting(AMTableUpdateObserverFn fn);

  AMMediator* mediator;
  AMIntervalHitter at_subscribing;
  AMIntervalHitter at_delayed_err;
  AMIntervalHitter at_severe_err;

 private:
  // Fills a state for a local adapter, records it and lets the mediator
  // make its cooked providers.
  void recordLocalAdapter(const tk_gs_adapter_info_t& info, const tk_gs_ip_addr& ip, int isUp);

  GSLockableObject ipLock_;
  tk_gs_ip_addr* cur_ip_mbrs = nullptr;  // GUARDED_BY(ipLock_)
  unsigned num_cur_ip_mbrs = 0;          // GUARDED_BY(ipLock_)
  unsigned max_cur_ip_mbrs = 0;          // GUARDED_BY(ipLock_)
  time_t _timeSubscribing = 0;
  GSString traceId_;
};

// Traces an approval as the daemon's providers do: who joined, failed or
// left, or the current members.
void traceApproval(const char* traceId, const tk_gs_approved_notification_t* n);

// The provider that stands for one local adapter in one cooked group (its
// network's group, or the all-switch / all-InfiniBand group). Thread-safe:
// joins and leaves come from the mediator thread, callbacks from the
// dispatch thread, status reads from the controller; callbacks only reset
// hitters and wake the mediator.
class AMCookedProvider : public GSProvider {
 public:
  AMCookedProvider(AMMediator* mediator, const char* groupName, int netnum, int is_sxnall, const char* represent,
                   short instance, uint64_t netnum64);
  ~AMCookedProvider() override;

  virtual tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override;
  virtual tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override;
  virtual tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override;
  virtual tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override;
  virtual tk_gs_rc_t joinGroup() override;
  // Goodbye, or when back-level providers refuse it, a one-phase leave (or
  // for network 0 alone, a restart of the daemon).
  virtual tk_gs_rc_t LeaveOrGoodbyeGroup();

  const char* getCookedMembershipName();
  int changeAttachedNetwork(int netnum);
  const char* getRepName() const { return represent_name.c_str(); }
  int getAttachedNetworkNum() const { return network_num; }
  int isDevicePresent() const { return device_present; }
  void setTargetSubscriber(AMCookedSubscriber* /*subscriber*/) {}
  AMCookedSubscriber* get_dst_subscriber();
  int isSxnAllMember() const { return is_sxnall_member; }
  uint64_t getNetworkNum64() const { return network_num64; }

  // Test hook: forget the process-wide join-trace period.
  static void resetJoinTraceThrottleForTesting();
  // Traces of refused joins written in the current period.
  static int joinTracePrintCountForTesting();

  AMMediator* mediator;
  AMIntervalHitter at_joining;
  AMIntervalHitter at_delayed_err;
  AMIntervalHitter at_join_rate;

 private:
  tk_gs_rc_t applyGroupAttributes();
  // Tells the aggregator's subscriber of this network that its source
  // provider changed, and wakes the mediator.
  void notifyAndWake();

  int is_sxnall_member;
  int network_num;
  uint64_t network_num64;
  GSString represent_name;
  int device_present;
};

// The mediator thread: subscribes to the raw group, and joins or leaves the
// cooked group of every local adapter as the adapter comes and goes.
// Thread-safe: wakeup and status from any thread; the provider lists are
// changed only on the mediator thread (and by start-up and refresh before
// or while the thread waits), and status reads them without a lock.
class AMMediator : public GSThread {
 public:
  AMMediator(const char* rawGroupName, AMAggregator* aggregator, short instance);
  ~AMMediator() override;

  void* run(void* arg) override;

  void wakeup(int refreshed);
  void harvestMembership();
  AMCookedProvider* appendMember(const char* repname);
  AMCookedProvider* getCookedProvider(const char* repname);
  AMCookedProvider* getCookedProvider(int i);
  AMCookedProvider* getCookedSXNAllProvider(int i);
  int getNumOfCookedProviders() const;
  int getNumOfSXNAllCookedProviders() const;
  const char* getRawMembershipName() const { return raw_membership_name.c_str(); }
  // The name the controller looks mediators up by.
  const char* getRawGroupName() const { return getRawMembershipName(); }
  AMRawSubscriber* getRawSubscriber() { return rawSubscriber; }
  AMAggregator* getAggregator() { return aggregator; }
  int changeAttachedNetwork(AMCookedProvider* provider, int netnum);

  // Status lines through the controller's SRC driver.
  void doCanonicalLongStatus(int index);
  void doLongStatus(int index);
  void doLongLocalMembers(int index);
  void doLongSXNALLMembers(int index);

  // One pass of the thread body's state machine: returns the next wait in
  // seconds (-1 without limit). run() calls it after every wake-up; tests
  // call it directly.
  int processOnePass();

  AMAdapterStateList listOfAdapter;

 private:
  // Leaves every cooked group this mediator is in (no raw subscription).
  void leaveAllCookedGroups();
  int passIdle();
  int passSubscribed(int wait);

  AMRawSubscriber* rawSubscriber;
  // The provider arrays are appended to by appendMember, which the raw
  // subscriber's callback calls on the dispatch thread while the mediator
  // thread and status requests read them. Appenders hold appendMu_ for the
  // whole append; listMu_ guards only the arrays and counts and is held
  // for a moment by readers and by the publishing step. Lock order:
  // appendMu_, then the adapter table's lock, then listMu_. Providers are
  // never removed, so a provider pointer stays valid once read.
  std::mutex appendMu_;
  mutable std::mutex listMu_;
  int numOfCookedProviders = 0;                       // GUARDED_BY(listMu_)
  int numSlotsOfCookedProviders = 0;                  // GUARDED_BY(listMu_)
  AMCookedProvider** cookedProviders = nullptr;       // GUARDED_BY(listMu_)
  int numOfSXNAllCookedProviders = 0;                 // GUARDED_BY(listMu_)
  int numSlotsOfSXNAllCookedProviders = 0;            // GUARDED_BY(listMu_)
  AMCookedProvider** cookedSXNAllProviders = nullptr; // GUARDED_BY(listMu_)
  AMAggregator* aggregator;
  GSString raw_membership_name;
  AMIntervalHitter at_raw_subs_rate;
  AMIntervalHitter at_check_dev;
  GSString traceId_;
};

// The mediators' part of the status report: every registered mediator's
// lines, in registry order (the long form, or the canonical one). Called
// from the propagator's status, which the controller's report includes.
void doAllMediatorsLongStatus();
void doAllMediatorsCanonicalLongStatus();

#endif  // VELT_GLOBALAM_AMMEDIATOR_H_

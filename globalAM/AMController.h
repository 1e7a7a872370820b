// AMController: the daemon's one central object. It is this process's group
// services controller and its SRC driver at once; it owns the worker
// registries, the adapter table and the propagator, answers the
// controller-level callbacks and runs the main thread's wait on the SRC
// socket. Reached everywhere through amController(). Created once by
// start-up and never destroyed before exit; the registries are filled
// before the workers run and only read afterwards.
#ifndef VELT_GLOBALAM_AMCONTROLLER_H_
#define VELT_GLOBALAM_AMCONTROLLER_H_

#include <atomic>
#include <list>
#include <mutex>

#include "AMComponents.h"
#include "AMSRCDriver.h"
#include "common.h"
#include "veltnam_utils.h"

struct pollfd;

class AMRawSubscriber;

// A growable array of worker pointers: when full it grows by four slots
// (the used entries copied, the rest zeroed); entries are never removed.
// Thread-compatible: filled during start-up only.
template <typename T>
class AMRegistry {
 public:
  AMRegistry() = default;
  ~AMRegistry() { delete[] slots_; }
  AMRegistry(const AMRegistry&) = delete;
  AMRegistry& operator=(const AMRegistry&) = delete;

  // Returns the new number of entries.
  int append(T* item) {
    if (used_ == allocated_) {
      int grown = allocated_ + 4;
      T** fresh = new T*[grown]();
      for (int i = 0; i < used_; ++i) fresh[i] = slots_[i];
      delete[] slots_;
      slots_ = fresh;
      allocated_ = grown;
    }
    slots_[used_++] = item;
    return used_;
  }
  int count() const { return used_; }
  int slots() const { return allocated_; }
  T* operator[](int i) const { return slots_[i]; }

 private:
  T** slots_ = nullptr;
  int used_ = 0;
  int allocated_ = 0;
};

class AMController;

// How a build for tests has aggregators: the shipped daemon creates none and
// never sets this. create runs in the controller's constructor, before the
// first mediator exists, and returns the (registered) aggregator that
// mediator feeds, or null; start runs where start-up starts the workers and
// starts the aggregators' threads.
struct AMAggregatorSetup {
  AMAggregator* (*create)(AMController* ctl);
  void (*start)(AMController* ctl);
};

class AMController : public GSController, public AMSRCDriver {
 public:
  // Installs (null: removes) the aggregator setup of a test build; takes
  // effect for controllers made afterwards.
  static void setAggregatorSetupForTesting(const AMAggregatorSetup* setup);
  static const AMAggregatorSetup* aggregatorSetup();

  AMController();
  // Deletes the configuration monitor and the client server it made (the
  // daemon never ends its controller; tests do). Requires: their threads
  // have ended.
  ~AMController() override;

  // Registries.
  int appendMediator(AMMediator* m);
  int appendAggregator(AMAggregator* a);
  AMMediator* getMediator(const char* name);
  AMAggregator* getAggregator(const char* name);
  int numberOfMediators() const { return mediators.count(); }
  int mediatorSlots() const { return mediators.slots(); }

  void startAllMediators();
  void stopAllMediators();
  void joinAllMediators();
  void wakeupAllMediators(int refreshed);
  int isAnyMediatorRunning();
  void startAllAggregators();
  void stopAllAggregators();
  void joinAllAggregators();
  void wakeupAllAggregators(int refreshed);
  int isAnyAggregatorRunning();
  // Whether ml0 aggregate support is enabled on this node: 1 when an
  // aggregator is registered. The aggregators are not stopped, joined or
  // woken by the controller without it.
  int isMultiLinkEnabled();
  // Creates agg's listener on the cooked group of network netnum, linked to
  // the first mediator's provider of that network when there is one.
  AMCookedSubscriber* createAggListener(AMAggregator* agg, int netnum);

  void startAMCfgMonitor();
  void stopAMCfgMonitor();
  void wakeupCfgMonitor(int unused);
  void wakeupPropagator(int unused);
  // Harvests through the configuration monitor (the number of changes,
  // -1 when KOR failed); 0 (nothing to do) while there is none.
  int harvestGblPeerNodes();
  int harvestGblNetworkInterfaces();
  void allowReadyToRoll();
  void set_configuration_has_changed(AMCfgInfo& info);

  int AmIExiting();
  void RequestToExit();

  int checkRefreshProcess();
  void performSRCRefresh() override;
  int select_and_doSRCreq(int time_limit);

  tk_gs_callback_rc_t responsivenessCb(const tk_gs_responsiveness_notification_t* n) override;
  tk_gs_callback_rc_t domainControlCb(const tk_gs_domain_control_notification_t* n) override;

  void doLongStatus() override;
  void doCanonicalLongStatus() override;

  // Local client sessions (namClientArray, under namClientLock_).
  // Each returns the number of clients after the change.
  int insertNamClient(NAMClient* client);
  int removeNamClient(NAMClient* client);
  // The session of a socket, or null.
  NAMClient* findNamClient(int sock);
  int getNumberOfClients();
  // One POLLIN entry per client socket, at most capacity; returns how many.
  int collectAndBuildPollFDs(struct pollfd* fds, int capacity);
  void wakeupAllNamClients(int event);
  void wakeupTheClient(int sock, int event);
  // Every session queues one update from the delta table. Called by
  // reflect_NAM_changes with veltnamSyncLock held.
  void queueEventToAllNamClients();

  // Adapter records for clients. insertAdapterItem adds one row's record to
  // table (-1 for a null row); obtainAdapterInfoFromGlobalTable adds every
  // row of the adapter table in key order under its read lock (only rows
  // configured on running nodes when activeOnly), -1 without a table;
  // printAdapterInfo traces the whole table.
  int insertAdapterItem(AMAdapterItem* row, veltnamNetInfoList& table);
  int obtainAdapterInfoFromGlobalTable(veltnamNetInfoList& table, int activeOnly);
  void printAdapterInfo();

  // The components; null (or empty) until the work that builds them.
  AMRawSubscriber* allAdaptGroup = nullptr;
  AMRegistry<AMMediator> mediators;
  AMCfgMonitor* cfgMonitor = nullptr;
  AMRegistry<AMAggregator> aggregators;
  GSSafeInteger readyToRoll{0};
  NAMServer* namServer = nullptr;
  // Taken after veltnamSyncLock and before a session's queue (AMNetIf.h).
  std::mutex namClientLock_;
  std::list<NAMClient*> namClientArray;  // GUARDED_BY(namClientLock_)
  char tolkvaskStartTime[32] = {0};

  static std::atomic<int> vask_working_state;
  static int initTries;
  static std::atomic<int> _exiting;
  static int responsive_interval;
  static int vask_device_check_interval;
  static int vask_mlX_check_interval;
  static EDomainType domainType;
  static AMGlobalAdapterTable* pGAdapterCfgTbl;
  static AMPropagator* propagator;
  static int has_NAM_LocalView_Adapters;
};

// The one controller (null before start-up creates it).
AMController* amController();

#endif  // VELT_GLOBALAM_AMCONTROLLER_H_

// The cluster configuration monitor: keeps the global adapter table in step
// with the nodes ("Zel.PeerNode") and network interfaces
// ("Zel.NetworkInterface") that the cluster resource monitoring service
// KOR publishes. It harvests both classes when it starts; afterwards the
// leader of the configuration group alone keeps an event session, so that
// one node's KOR events turn into the harvest request that reaches every
// node. Works only in the cluster domain type; elsewhere it does nothing.
#ifndef VELT_GLOBALAM_AMCFGMONITOR_H_
#define VELT_GLOBALAM_AMCFGMONITOR_H_

#include <stdint.h>

#include <atomic>
#include <string>

#include "AMNetIf.h"
#include "common.h"
#include "vx_mc.h"

// The attributes asked of every "Zel.NetworkInterface", in this order.
constexpr int kNINumRetResAttrs = 11;
extern const char* const NI_RetResAttrs[kNINumRetResAttrs];

// KOR's device subtype of an InfiniBand adapter.
constexpr vx_uint32_t kKorIBDeviceSubType = 32;

// Fills out from the attributes of one "Zel.NetworkInterface" (a query
// entry or a resource event). Attributes of an unexpected type are
// ignored. A node id that is not known even after one more harvest of the
// peer nodes leaves the node number -1 and asks the propagator for a
// configuration re-check. Always 0: every record is handed back. Must not
// be called with the adapter table's lock held (it may harvest the peer
// nodes, whose node-id map lock comes first).
int parseNetInterfaceAttrs(const mc_attribute_t* attrs, uint32_t count, AMNetInterface& out);

// KOR's error text of the calling thread's last failed call: the libvx_cu
// error number and message.
std::string korErrorText();

// The monitor thread. The event session, the registrations and the retry
// state are owned by the monitor thread (tests drive the pieces directly
// while the thread is not running); the session handle and the
// registration ids are atomic, so that others may look at them while it
// runs. The harvests may be called from any thread, as they open private
// sessions and take the table lock themselves. Created once by the
// controller and kept until exit.
class AMCfgMonitor : public GSThread {
 public:
  // A failed step is tried again after this many seconds.
  static constexpr int kRetrySecs = 5;
  // Failures to start the event session are counted over this period...
  static constexpr int kRetryPeriodSecs = 300;
  // ...and once more than this many were counted, each further one waits
  // kRetrySecs longer than the one before.
  static constexpr int kRetriesBeforeGrowing = 5;
  // How long an exiting monitor waits for the exit in progress to end the
  // process before it ends it itself.
  static constexpr int kExitGraceSecs = 3;

  AMCfgMonitor();
  ~AMCfgMonitor() override;
  AMCfgMonitor(const AMCfgMonitor&) = delete;
  AMCfgMonitor& operator=(const AMCfgMonitor&) = delete;

  void* run(void* arg) override;

  // The event session: opened (mode 2) unless one is open; the KOR result.
  int startKORSession();
  int finishKORSession();

  // One class-event registration into regid; 0, the failure code, or -1
  // without a session. attrs and nattrs are carried for the class's
  // attributes; KOR's class events deliver none.
  int register_kor_class_event(std::atomic<mc_reg_id_t>& regid, mc_sess_hndl_t session, const char* rsrc_class,
                               const char* event, const char** attrs, int nattrs, mc_class_event_cb_t* callback);
  int unregister_kor_event(std::atomic<mc_reg_id_t>& regid, mc_sess_hndl_t session, const char* rsrc_class,
                           const char* event);
  // The four class events and the interfaces' resource event, in order,
  // stopping at the first failure (its code); -1 without a session.
  int registerPNNIEvents();
  int unregisterPNNIEvents();
  // All five registrations are in place.
  bool isRegisteredToAll() const;

  // KOR callbacks (arg is the monitor); they forward to the members below.
  static void PNClsEventCB(mc_sess_hndl_t session, const mc_class_event_t* event, void* arg);
  static void NIClsEventCB(mc_sess_hndl_t session, const mc_class_event_t* event, void* arg);
  static void NIResEventCB(mc_sess_hndl_t session, const mc_event_t* event, void* arg);
  void PNClsEventCB(const mc_class_event_t* event);
  void NIClsEventCB(const mc_class_event_t* event);
  void NIResEventCB(const mc_event_t* event);

  // The adapter table's harvests; -1 when there is no table.
  int harvestGblPeerNodes(int tracing);
  int harvestGblNetworkInterfaces(int tracing);

  // The wait after one more failure to start the event session, in
  // seconds; resetSessionRetryPeriod starts the counting afresh.
  int nextSessionRetrySecs();
  void resetSessionRetryPeriod();

  // The time-out of the wait the thread is in or about to enter (-1: none).
  int waitSecsForTesting() const { return waitSecs_.load(); }
  // Passes of the run loop after a wake-up.
  int passesForTesting() const { return passes_.load(); }

  // KOR session handle; 0 when no event session is open.
  std::atomic<mc_sess_hndl_t> session_handle;
  // Registration ids (MC_REG_ID_NONE when not registered): class events
  // "ResourceDefined" and "ResourceUndefined" of both classes, and the
  // interfaces' resource event for their attributes.
  std::atomic<mc_reg_id_t> regid_PN_ClsDefAttr;
  std::atomic<mc_reg_id_t> regid_PN_ClsUndefAttr;
  std::atomic<mc_reg_id_t> regid_NI_ClsDefAttr;
  std::atomic<mc_reg_id_t> regid_NI_ClsUndefAttr;
  std::atomic<mc_reg_id_t> regid_NI_ResAttr;
  // Set once the first PeerNode harvest succeeded.
  std::atomic<int> peernode_is_ready;

 private:
  // One pass of the run loop; returns the next wait's time-out (-1 none).
  int onePass();
  bool isGroupLeader() const;
  int registerNIResourceEvent();

  // The initial harvests still to do.
  bool peerNodesRecheckDone_ = false;
  bool interfacesHarvestDone_ = false;
  // Failures to start the event session in the current period.
  int retryCount_ = 0;
  long retryPeriodLeftSecs_ = kRetryPeriodSecs;
  long lastRetryAtSecs_ = 0;
  int retrySecs_ = kRetrySecs;

  std::atomic<int> waitSecs_{-1};
  std::atomic<int> passes_{0};
};

#endif  // VELT_GLOBALAM_AMCFGMONITOR_H_

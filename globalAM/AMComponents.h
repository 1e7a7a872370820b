// The worker components the controller owns: the mediators, aggregators,
// propagator, configuration monitor, client server and client sessions (the
// adapter table has its own header, AMNetIf.h).
// Each arrives with its own work; until then the controller keeps an empty
// place for it (a null pointer or an empty registry), and these interfaces
// name exactly what the frame asks of them.
#ifndef VELT_GLOBALAM_AMCOMPONENTS_H_
#define VELT_GLOBALAM_AMCOMPONENTS_H_

#include <atomic>

#include "AMNetIf.h"
#include "common.h"

class AMCfgInfo;

// Event codes of the propagator's queue (only those the frame posts).
enum _AMProEventType {
  PEVT_NO_EVENT = 0,
  PEVT_CHECK_REFRESH_DONE = 6,
};

// The cooked provider of one local adapter (what the adapter table asks of
// it when the adapter moves to another network). Owned by its mediator.
class AMCookedProvider {
 public:
  virtual ~AMCookedProvider() = default;
  virtual int getAttachedNetworkNum() = 0;
};

class AMMediator : public GSThread {
 public:
  virtual void wakeup(int refreshed) = 0;
  virtual const char* getRawGroupName() const = 0;
  virtual void harvestMembership() = 0;
  // The cooked provider whose representative name is repname, or null. A
  // mediator that provides no cooked groups has none and so never moves one.
  virtual AMCookedProvider* getCookedProvider(const char* /*repname*/) { return nullptr; }
  // Moves the provider to the cooked group of another network number.
  virtual int changeAttachedNetwork(AMCookedProvider* /*provider*/, int /*netnum*/) { return 0; }
};

class AMAggregator : public GSThread {
 public:
  virtual void wakeup(int refreshed) = 0;
  virtual const char* getRepName() const = 0;
  virtual void set_configuration_has_changed(AMCfgInfo& info) = 0;
};

class AMPropagator : public GSThread {
 public:
  using GSThread::postSyncEvent;
  virtual int postSyncEvent(_AMProEventType event) = 0;
  virtual pid_t refreshPid() const = 0;
  virtual void clearRefreshPid() = 0;
  virtual void refreshCompleted(int status) = 0;
  virtual void refreshRequested() = 0;
  // True while the configuration provider exists and is not idle.
  virtual bool isCfgProviderActive() const = 0;
  virtual void doLongStatus() = 0;
  virtual void doCanonicalLongStatus() = 0;
  // Wakes the propagator to re-time the adapter table's delayed-down wait.
  virtual int postDelayedDownEvent() = 0;
};

class AMCfgMonitor : public GSThread {
 public:
  virtual void harvestGblNetworkInterfaces(int force) = 0;
};

class NAMServer : public GSThread {};

// A local client's session thread (what the controller's client list and
// the change publisher ask of it). Thread-safe: the server, the publisher
// and the session itself call it.
class NAMClient : public GSThread {
 public:
  // The client's connected socket; -1 once closed. The session closes it
  // while the server and the controller read it.
  std::atomic<int> sock_fd{-1};
  // Wakes the session with a velt_nam_event code.
  virtual void wakeup(int event) = 0;
  // Queues one update built from the delta table; -1 when the session was
  // dropped for not reading. Called with veltnamSyncLock held.
  virtual int queueEvent() = 0;
};

#endif  // VELT_GLOBALAM_AMCOMPONENTS_H_

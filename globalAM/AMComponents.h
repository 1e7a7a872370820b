// The worker components the controller owns: the mediators, aggregators,
// propagator, configuration monitor, client server and adapter table.
// Each arrives with its own work; until then the controller keeps an empty
// place for it (a null pointer or an empty registry), and these interfaces
// name exactly what the frame asks of them.
#ifndef VELT_GLOBALAM_AMCOMPONENTS_H_
#define VELT_GLOBALAM_AMCOMPONENTS_H_

#include "common.h"

class AMCfgInfo;

// Event codes of the propagator's queue (only those the frame posts).
enum _AMProEventType {
  PEVT_NO_EVENT = 0,
  PEVT_CHECK_REFRESH_DONE = 6,
};

class AMMediator : public GSThread {
 public:
  virtual void wakeup(int refreshed) = 0;
  virtual const char* getRawGroupName() const = 0;
  virtual void harvestMembership() = 0;
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
};

class AMCfgMonitor : public GSThread {
 public:
  virtual void harvestGblNetworkInterfaces(int force) = 0;
};

class NAMServer : public GSThread {};
class NAMClient;

class AMGlobalAdapterTable {
 public:
  virtual ~AMGlobalAdapterTable() = default;
  virtual int refreshLocalTable(int flag) = 0;
};

#endif  // VELT_GLOBALAM_AMCOMPONENTS_H_

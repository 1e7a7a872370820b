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

// The propagator and its event codes.
#include "AMPropagate.h"

// The mediator and its cooked providers live in AMMediator.h, included at
// the end of this header so that every user of the controller sees them.
class AMMediator;
class AMCookedProvider;

class AMAggregator : public GSThread {
 public:
  virtual void wakeup(int refreshed) = 0;
  virtual const char* getRepName() const = 0;
  virtual void set_configuration_has_changed(AMCfgInfo& info) = 0;
};

// The cluster configuration monitor (AMCfgMonitor.h).
class AMCfgMonitor;

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

#include "AMMediator.h"

#endif  // VELT_GLOBALAM_AMCOMPONENTS_H_

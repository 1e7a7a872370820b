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

// The client server and the sessions of local clients.
#include "NAMClient.h"
#include "NAMServer.h"

#include "AMMediator.h"

#endif  // VELT_GLOBALAM_AMCOMPONENTS_H_

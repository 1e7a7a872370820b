// The worker components the controller owns: the mediators, aggregators,
// propagator, configuration monitor, client server and client sessions (the
// adapter table has its own header, AMNetIf.h).
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

// The aggregators and their clients live in AMAggregator.h, included at
// the end like the mediator's header.
class AMAggregator;
class AMCookedSubscriber;

// The cluster configuration monitor (AMCfgMonitor.h).
class AMCfgMonitor;

// The client server and the sessions of local clients.
#include "NAMClient.h"
#include "NAMServer.h"

#include "AMMediator.h"
#include "AMAggregator.h"

#endif  // VELT_GLOBALAM_AMCOMPONENTS_H_

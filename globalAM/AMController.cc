// The controller: registries of the worker threads, the controller-level
// group services callbacks, the refresh child and the main thread's wait on
// the SRC socket.
#include "AMController.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <time.h>

#include "AMCfgMonitor.h"
#include "AMUtils.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "sw_NAM_calls.h"
#include "tk_gs_tolkvaskd_msg.h"
#include "vx_cu.h"

std::atomic<int> AMController::vask_working_state{0};
int AMController::initTries = 0;
std::atomic<int> AMController::_exiting{0};
int AMController::responsive_interval = 3600;
int AMController::vask_device_check_interval = 30;
int AMController::vask_mlX_check_interval = 60;
EDomainType AMController::domainType = kQUIL;
AMGlobalAdapterTable* AMController::pGAdapterCfgTbl = nullptr;
AMPropagator* AMController::propagator = nullptr;
int AMController::has_NAM_LocalView_Adapters = 0;

namespace {

AMController* theController = nullptr;
std::atomic<const AMAggregatorSetup*> aggregatorSetupForTesting{nullptr};

// The interface word given to the group services library, passed unchanged.
constexpr int kGsInterfaceWord = 0x30014;

}  // namespace

AMController* amController() { return theController; }

void AMController::setAggregatorSetupForTesting(const AMAggregatorSetup* setup) {
  aggregatorSetupForTesting.store(setup);
}

const AMAggregatorSetup* AMController::aggregatorSetup() { return aggregatorSetupForTesting.load(); }

AMController::AMController() : GSController(kGsInterfaceWord), AMSRCDriver() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMController::AMController()");
  theController = this;

  struct timeval now;
  cu_gettimeofday_1(&now);
  time_t seconds = now.tv_sec;
  char text[32];
  ctime_r(&seconds, text);
  // Month, day and time of day: the 15 characters after the weekday.
  memcpy(tolkvaskStartTime, text + 4, 15);
  tolkvaskStartTime[15] = '\0';

  tk_gs_responsiveness_t resp;
  memset(&resp, 0, sizeof(resp));
  resp.gs_responsiveness_type = TK_GS_PING_RESPONSIVENESS;
  resp.gs_responsiveness_interval = responsive_interval + 10;
  resp.gs_responsiveness_response_time_limit = 10;
  resp.gs_counter_location = nullptr;
  resp.gs_counter_length = 0;
  setResponsiveness(resp);
  setSocketOption(TK_GS_ENABLE_ADAPTER_INFO);

  const char* localView = getenv("SW_HERDLET_NAM_LOCAL_VIEW");
  if (localView) has_NAM_LocalView_Adapters = atoi(localView);
  set_NAM_node_number(myNodeNumber);
  enable_disable_NAM_interface(domainType == kCLUSTER ? 1 : 0);

  pGAdapterCfgTbl = new AMGlobalAdapterTable();
  pGAdapterCfgTbl->refreshLocalTable(0);

  // The first mediator, on the raw group of every adapter; no aggregator
  // listens to it, unless a test build makes one.
  const AMAggregatorSetup* setup = aggregatorSetup();
  AMAggregator* aggregator = setup != nullptr && setup->create != nullptr ? setup->create(this) : nullptr;
  AMMediator* mediator = new AMMediator(kAllAdapterMembershipName, aggregator, 0);
  allAdaptGroup = mediator->getRawSubscriber();
  appendMediator(mediator);

  propagator = new AMPropagator();

  // The configuration monitor and the client server; the start-up starts
  // them in the cluster domain type only.
  cfgMonitor = new AMCfgMonitor();
  namServer = new NAMServer();

  AM_TRACE(TRACE_FYI) << "AMController is created, domainType=" << static_cast<long>(domainType)
                      << ", SW_HERDLET_NAM_LOCAL_VIEW = " << has_NAM_LocalView_Adapters << endl;
}

AMController::~AMController() {
  namClientArray.clear();
  delete namServer;
  delete cfgMonitor;
  if (theController == this) theController = nullptr;
}

int AMController::appendMediator(AMMediator* m) { return mediators.append(m); }

int AMController::appendAggregator(AMAggregator* a) { return aggregators.append(a); }

AMMediator* AMController::getMediator(const char* name) {
  for (int i = 0; i < mediators.count(); ++i) {
    AMMediator* m = mediators[i];
    if (m && name && strcmp(m->getRawGroupName(), name) == 0) return m;
  }
  return nullptr;
}

AMAggregator* AMController::getAggregator(const char* name) {
  for (int i = 0; i < aggregators.count(); ++i) {
    AMAggregator* a = aggregators[i];
    if (a && name && strcmp(a->getRepName(), name) == 0) return a;
  }
  return nullptr;
}

void AMController::startAllMediators() {
  for (int i = 0; i < mediators.count(); ++i)
    if (mediators[i]) mediators[i]->start(nullptr);
}

void AMController::stopAllMediators() {
  for (int i = 0; i < mediators.count(); ++i)
    if (mediators[i]) mediators[i]->stop();
}

void AMController::joinAllMediators() {
  for (int i = 0; i < mediators.count(); ++i)
    if (mediators[i]) mediators[i]->join();
}

void AMController::wakeupAllMediators(int refreshed) {
  for (int i = 0; i < mediators.count(); ++i)
    if (mediators[i]) mediators[i]->wakeup(refreshed);
}

int AMController::isAnyMediatorRunning() {
  for (int i = 0; i < mediators.count(); ++i)
    if (mediators[i] && mediators[i]->getThreadState() == GS_THREAD_RUNNING) return 1;
  return 0;
}

// Aggregator threads are started by whoever creates them.
void AMController::startAllAggregators() {}

void AMController::stopAllAggregators() {
  if (!isMultiLinkEnabled()) return;
  for (int i = 0; i < aggregators.count(); ++i)
    if (aggregators[i]) aggregators[i]->stop();
}

void AMController::joinAllAggregators() {
  if (!isMultiLinkEnabled()) return;
  for (int i = 0; i < aggregators.count(); ++i)
    if (aggregators[i]) aggregators[i]->join();
}

void AMController::wakeupAllAggregators(int refreshed) {
  if (!isMultiLinkEnabled()) return;
  for (int i = 0; i < aggregators.count(); ++i)
    if (aggregators[i]) aggregators[i]->wakeup(refreshed);
}

int AMController::isAnyAggregatorRunning() {
  for (int i = 0; i < aggregators.count(); ++i)
    if (aggregators[i] && aggregators[i]->getThreadState() == GS_THREAD_RUNNING) return 1;
  return 0;
}

int AMController::isMultiLinkEnabled() { return aggregators.count() > 0 ? 1 : 0; }

AMCookedSubscriber* AMController::createAggListener(AMAggregator* agg, int netnum) {
  if (agg == nullptr) return nullptr;
  const char* group = GET_SW_MEMBERSHIP_GROUP(netnum);
  if (group == nullptr) return nullptr;
  AMCookedProvider* provider = nullptr;
  AMMediator* mediator = mediators.count() > 0 ? mediators[0] : nullptr;
  for (int i = 0; mediator != nullptr && i < mediator->getNumOfCookedProviders(); ++i) {
    AMCookedProvider* p = mediator->getCookedProvider(i);
    if (p && p->getAttachedNetworkNum() == netnum) {
      provider = p;
      break;
    }
  }
  return agg->createListener(netnum, provider, group);
}

void AMController::startAMCfgMonitor() {
  AM_TRACE(TRACE_FYI) << "startAMCfgMonitor" << endl;
  if (cfgMonitor) cfgMonitor->start(nullptr);
}

void AMController::stopAMCfgMonitor() {
  if (cfgMonitor) cfgMonitor->stop();
}

void AMController::wakeupCfgMonitor(int) {
  if (cfgMonitor) cfgMonitor->postSyncEvent(0);
}

void AMController::wakeupPropagator(int) {
  if (propagator) propagator->postSyncEvent(PEVT_NO_EVENT);
}

// Without a configuration monitor there is nothing to harvest; the
// harvest then counts as done.
int AMController::harvestGblPeerNodes() { return cfgMonitor ? cfgMonitor->harvestGblPeerNodes(1) : 0; }

int AMController::harvestGblNetworkInterfaces() {
  return cfgMonitor ? cfgMonitor->harvestGblNetworkInterfaces(1) : 0;
}

void AMController::allowReadyToRoll() {
  readyToRoll = 1;
  // The configuration group is joined and the protocols roll: the daemon
  // is no longer waiting for group services, and its status says so.
  vask_working_state = 2;
  wakeupAllMediators(0);
  wakeupAllAggregators(0);
}

void AMController::set_configuration_has_changed(AMCfgInfo& info) {
  if (TRACEABLE(TRACE_GSCL)) AMtracef(AM_TRACEF_GSCL, "AMControl::set_config ID=%s\n", info.getCfgIdStr().c_str());
  for (int i = 0; i < aggregators.count(); ++i)
    if (aggregators[i]) aggregators[i]->set_configuration_has_changed(info);
}

int AMController::AmIExiting() {
  if (getStopCode() != 0) RequestToExit();
  return _exiting != 0;
}

void AMController::RequestToExit() {
  _exiting++;
  if (amController()) {
    wakeupAllMediators(0);
    wakeupAllAggregators(0);
    wakeupPropagator(0);
    wakeupCfgMonitor(0);
    if (namServer) namServer->wakeup();
  }
}

int AMController::checkRefreshProcess() {
  if (propagator == nullptr) return 0;
  pid_t pid = propagator->refreshPid();
  if (pid == -1) return 0;
  int status = 0;
  pid_t rc = waitpid(pid, &status, WNOHANG);
  int err = errno;
  if (rc == pid) {
    AM_TRACE(TRACE_FYI) << "The child process is finished with status=" << status << endl;
    if (status != 0) {
      AM_TRACE(TRACE_FYI) << "Refresh process returns an error status." << " The refresh will be ignored." << endl;
    }
    propagator->refreshCompleted(status);
    propagator->clearRefreshPid();
    return 0;
  }
  if (rc == 0) return 0;
  AM_TRACE(TRACE_FYI) << "Error [(" << err << ")] from waitpid." << endl;
  if (err == ECHILD) {
    propagator->refreshCompleted(-1);
    propagator->clearRefreshPid();
  }
  return 0;
}

void AMController::performSRCRefresh() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMController::performSRCRefresh()");
  if (pGAdapterCfgTbl) pGAdapterCfgTbl->refreshLocalTable(0);
  if (propagator) propagator->refreshRequested();
  if (domainType == kCLUSTER && namServer && pGAdapterCfgTbl) pGAdapterCfgTbl->repopulateAllNAMInfoWithLock();
  if (domainType == kCLUSTER && isML0ForIBSupported()) {
    if (cfgMonitor) cfgMonitor->harvestGblNetworkInterfaces(1);
    for (int i = 0; i < mediators.count(); ++i) {
      if (mediators[i] == nullptr) continue;
      AM_TRACE(TRACE_FYI) << "In performSRCRefresh(): mediators[" << i << "] harvestMembership()." << endl;
      mediators[i]->harvestMembership();
    }
  }
  wakeupAllMediators(1);
  wakeupAllAggregators(1);
}

int AMController::select_and_doSRCreq(int time_limit) {
  int fd = getSRCDescriptor();
  fd_set readSet;
  FD_ZERO(&readSet);
  if (fd >= 0) FD_SET(fd, &readSet);
  if (TRACEABLE(TRACE_DEBUG)) {
    AM_TRACE(TRACE_DEBUG) << "AMController: Start select() time_limit=" << time_limit << endl;
  }
  struct timeval limit = {time_limit, 0};
  int rc = select(fd >= 0 ? fd + 1 : 0, &readSet, nullptr, nullptr, time_limit < 0 ? nullptr : &limit);
  int err = errno;
  if (TRACEABLE(TRACE_DEBUG)) {
    AM_TRACE(TRACE_DEBUG) << "AMController: End select() popped with rc [" << rc << "]" << endl;
  }
  if (AmIExiting()) return 1;
  if (rc < 0) {
    if (err == EINTR) {
      AM_TRACE(TRACE_DEBUG) << "EINTR during select().  Go back to sleep." << endl;
      return rc;
    }
    AM_TRACE(TRACE_ERROR) << TraceLabel(16) << "Error [(" << err << ") " << strerror(err) << "] on select()."
                          << endl;
    RequestToExit();
    return rc;
  }
  if (rc == 0) {
    AM_TRACE(TRACE_DEBUG) << "AMController: " << "Nothing is selected.. try again" << endl;
    return 0;
  }
  if (fd >= 0 && FD_ISSET(fd, &readSet)) {
    AM_TRACE(TRACE_DEBUG) << "AMController: call doSRCreq() " << endl;
    int served = doSRCreq();
    AM_TRACE(TRACE_DEBUG) << "AMController: done doSRCReq() " << endl;
    if (served > 0) return 0;
  }
  return rc;
}

tk_gs_callback_rc_t AMController::responsivenessCb(const tk_gs_responsiveness_notification_t* n) {
  GSController::responsivenessCb(n);
  if (TRACEABLE(TRACE_DEBUG)) {
    AM_TRACE(TRACE_DEBUG) << "Responsiveness callback received, time limit ["
                          << static_cast<long>(n ? n->gs_time_limit : 0) << "]." << endl;
  }
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMController::domainControlCb(const tk_gs_domain_control_notification_t* n) {
  if (n == nullptr || n->gs_domain_ctrl_event != TK_GS_DOMAIN_VERSION) return TK_GS_CALLBACK_OK;
  GSController::domainControlCb(n);
  const tk_gs_velt_version_t version = n->gs_velt_version;
  setVeltActiveVersion(version);
  AM_TRACE(TRACE_FYI) << "Got domainControlCB: TK_GS_DOMAIN_VERSION. veltActiveVersion is now"
                      << static_cast<long>(version.gs_version) << "." << static_cast<long>(version.gs_release) << "."
                      << static_cast<long>(version.gs_modification) << "." << static_cast<long>(version.gs_fix)
                      << endl;
  if (cfgMonitor) cfgMonitor->harvestGblNetworkInterfaces(1);
  if (isML0ForIBSupported()) {
    for (int i = 0; i < mediators.count(); ++i) {
      if (mediators[i] == nullptr) continue;
      AM_TRACE(TRACE_FYI) << "mediators[" << i << "] harvestMembership()." << endl;
      mediators[i]->harvestMembership();
    }
    wakeupAllMediators(0);
    wakeupAllAggregators(0);
  }
  return TK_GS_CALLBACK_OK;
}

void AMController::doLongStatus() {
  if (vask_working_state == 0) {
    inform_printf(getmsg_tk_gs_tolkvaskd(initTries == 1 ? 3 : 4), initTries);
  } else if (vask_working_state == 1) {
    inform_printf("%s", getmsg_tk_gs_tolkvaskd(29));
  } else if (readyToRoll.get()) {
    inform_printf("%s", getmsg_tk_gs_tolkvaskd(5));
  }
  if (isVELTNAMInterfaceSupported()) inform_printf("tolkvaskd started time: %s\n", tolkvaskStartTime);
  if (propagator) propagator->doLongStatus();
  printAdapterInfo();
  inform_flush();
}

void AMController::doCanonicalLongStatus() {
  if (vask_working_state == 0) {
    inform_printf("Not yet connected to Group Services.\n%d time connection tried.\n", initTries);
  } else if (vask_working_state == 1) {
    inform_printf("Waiting for Group Services response.\n");
  }
  if (isVELTNAMInterfaceSupported()) inform_printf("tolkvaskd started time: %s\n", tolkvaskStartTime);
  if (propagator) propagator->doCanonicalLongStatus();
  printAdapterInfo();
  inform_flush();
}

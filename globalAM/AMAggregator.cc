// The aggregator thread: which base group the aggregate group follows, the
// flip delay, the local aggregate interface, and its status lines.
#include "AMAggregator.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "AMController.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "tk_gs_tolkvaskd_msg.h"

namespace {

constexpr long kErrorLabel = 16;
constexpr int kHourSecs = 3600;
constexpr int kSubscribeRetrySecs = 30;
constexpr int kUnknownStateWaitSecs = 300;
// The aggregator waits longer than the other workers before it ends the
// process itself: its leave may have to wait for group services.
constexpr int kStopGraceSecs = 60;
std::atomic<int> stopGraceSecs{kStopGraceSecs};
constexpr const char* kDefaultPseudoDevice = "/dev/sxnpd0";

std::atomic<const char*> pseudoDevicePath{kDefaultPseudoDevice};

const char* yesNo(bool b) { return getmsg_tk_gs_tolkvaskd(b ? 7 : 8); }

bool joinedOrJoining(GSClientState s) { return s == GS_IAM_JOINED || s == GS_IAM_JOINING; }

}  // namespace

void AMAggregator::setStopGraceForTesting(int secs) { stopGraceSecs.store(secs < 0 ? kStopGraceSecs : secs); }

void AMAggregator::setPseudoDevicePathForTesting(const char* path) {
  pseudoDevicePath.store(path != nullptr ? path : kDefaultPseudoDevice);
}

AMAggregator::AMAggregator(const char* device, const char* fullDevice, const char* aggGroupName, short instance,
                           AMAggCfg* cfg)
    : mlX_check_monitor(kHourSecs),
      represent_name(device ? device : ""),
      full_device_name(fullDevice ? fullDevice : ""),
      agg_mbrship_name(aggGroupName ? aggGroupName : "") {
  traceId_.format("Aggregator[%s]", represent_name.c_str());
  if (cfg != nullptr) {
    std::lock_guard<std::mutex> hold(cfgMu_);
    agg_config.CopyFrom(*cfg);
  }
  agg_provider = new AMAggProvider(this, agg_mbrship_name.c_str(), instance);
  agg_subscriber = new AMAggSubscriber(this, agg_mbrship_name.c_str());
  AM_TRACE(TRACE_FYI) << "AMAggregator is created for dev=" << represent_name.c_str()
                      << " AggMbr=" << agg_mbrship_name.c_str() << endl;
  const char* noMajor = getenv("SXNPDD_NO_MAJOR_IOCTL");
  if (noMajor != nullptr && atoi(noMajor) != 0) {
    no_major_ioctl = 1;
    AM_TRACE(TRACE_FYI) << "SXNPDD_MAJOR_IOCTL will be disabled" << endl;
  }
  open_sxnpdd(0);
}

AMAggregator::~AMAggregator() {
  // The clients unregister first, so that no callback reaches them (or
  // this aggregator) while they go.
  delete agg_provider;
  delete agg_subscriber;
  std::lock_guard<std::mutex> hold(listMu_);
  for (AMCookedSubscriber* s : listeners) delete s;
  close_sxnpdd();
}

// ------------------------------------------------------- pseudo-device

int AMAggregator::open_sxnpdd(int reopen) {
  if (no_major_ioctl) return -1;
  if (reopen) close_sxnpdd();
  int fd = sxnpdd_fd.load();
  int err = 0;
  if (fd < 0) {
    sxnpdd_exist = 1;
    fd = open(pseudoDevicePath.load(), O_RDONLY | O_CLOEXEC);
    err = fd < 0 ? errno : 0;
    if (fd < 0 && err == ENOENT) sxnpdd_exist = 0;
    if (fd >= 0) {
      struct stat st;
      if (fstat(fd, &st) == 0) {
        current_major_devno = major(st.st_rdev);
        major_ever_known = 1;
      }
    }
    sxnpdd_fd = fd;
    // Every pass tries again while the device is missing; only a change
    // of what the attempt finds is news.
    const unsigned level = err != lastOpenErrno_ ? TRACE_FYI : TRACE_DEBUG;
    lastOpenErrno_ = err;
    if (TRACEABLE(level)) {
      AMtracef(level == TRACE_FYI ? TRACE_FYI : AM_TRACEF_DEBUG, "Opening /dev/sxnpd0...FD=%d, exists=%d, eno=%d\n",
               fd, sxnpdd_exist.load(), err);
    }
  }
  return fd;
}

void AMAggregator::close_sxnpdd() {
  int fd = sxnpdd_fd.exchange(-1);
  if (fd >= 0) close(fd);
}

// ------------------------------------------------------------ waking

void AMAggregator::wakeup(int refreshed) {
  if (refreshed) {
    open_sxnpdd(0);
    postSyncEvent(kAggEvtRefreshed);
  } else {
    postSyncEvent(kAggEvtWakeup);
  }
}

void AMAggregator::set_configuration_has_changed(AMCfgInfo& info) {
  agg_cfg_proposed_info.copyFrom(info);
  wakeup(1);
}

// ------------------------------------------------------------ listeners

AMCookedSubscriber* AMAggregator::createListener(int netnum, AMCookedProvider* provider, const char* groupName) {
  if (groupName == nullptr) return nullptr;
  std::lock_guard<std::mutex> hold(listMu_);
  for (AMCookedSubscriber* s : listeners) {
    if (strcmp(s->getGroupName(), groupName) == 0) return s;
  }
  AMtracef(TRACE_FYI, "CreateListener: netId=%d, grpName=%s,  numRelatedIndex=%d\n", netnum, groupName,
           static_cast<int>(listeners.size()));
  AMCookedSubscriber* s = new AMCookedSubscriber(this, groupName, netnum);
  s->setSrcProvider(provider);
  listeners.push_back(s);
  relatedProviders.push_back(provider);
  return s;
}

int AMAggregator::setRelatedProviderForSubscriber(AMCookedSubscriber* subscriber, AMCookedProvider* provider) {
  int index = -1;
  {
    std::lock_guard<std::mutex> hold(listMu_);
    for (size_t i = 0; i < listeners.size(); ++i) {
      if (listeners[i] == subscriber) {
        index = static_cast<int>(i);
        relatedProviders[i] = provider;
        break;
      }
    }
  }
  if (index >= 0) subscriber->setSrcProvider(provider);
  AMtracef(TRACE_FYI, "setRelatedProviderForSubscriber[%s] prov=%s subs=%s index=%d\n", represent_name.c_str(),
           provider ? provider->getGroupName() : "(null)", subscriber ? subscriber->getGroupName() : "(null)",
           index);
  return index;
}

AMCookedSubscriber* AMAggregator::getCookedSubByNetworkID(int netnum) {
  std::lock_guard<std::mutex> hold(listMu_);
  for (AMCookedSubscriber* s : listeners) {
    if (s->getNetworkNum() == netnum) return s;
  }
  return nullptr;
}

int AMAggregator::getNetworkNumIndex(const char* groupName) {
  if (groupName == nullptr) return -1;
  std::lock_guard<std::mutex> hold(listMu_);
  for (size_t i = 0; i < listeners.size(); ++i) {
    if (strcmp(listeners[i]->getGroupName(), groupName) == 0) return static_cast<int>(i);
  }
  return -1;
}

int AMAggregator::getNumRelatedGroups() {
  std::lock_guard<std::mutex> hold(listMu_);
  return static_cast<int>(listeners.size());
}

AMCookedSubscriber* AMAggregator::getListener(int i) {
  std::lock_guard<std::mutex> hold(listMu_);
  return (i >= 0 && i < static_cast<int>(listeners.size())) ? listeners[i] : nullptr;
}

AMCookedProvider* AMAggregator::getRelatedProvider(int i) {
  std::lock_guard<std::mutex> hold(listMu_);
  return (i >= 0 && i < static_cast<int>(relatedProviders.size())) ? relatedProviders[i] : nullptr;
}

const char* AMAggregator::groupNameOf(int i) {
  AMCookedSubscriber* s = getListener(i);
  return s ? s->getGroupName() : "(none)";
}

// ------------------------------------------------------------ base group

bool AMAggregator::configuredOnNetwork(int i) {
  std::lock_guard<std::mutex> hold(cfgMu_);
  return agg_config.AdapterConfiguredOnNetwork(i);
}

bool AMAggregator::maskAdmits(int instance, int node) {
  std::unique_lock<std::mutex> hold(cfgMu_);
  GSBitSet* mask = agg_config.getMask(instance);
  if (mask != nullptr) return node >= 0 && node < static_cast<int>(mask->size()) && mask->test(static_cast<size_t>(node));
  hold.unlock();
  {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << "SRCGRP to SXN" << instance << " is not associated with a device"
                          << endl;
  }
  return false;
}

bool AMAggregator::maskedNodesOf(int i, std::vector<uint16_t>* nodes) {
  nodes->clear();
  AMCookedSubscriber* s = getListener(i);
  if (s == nullptr || s->getClientState() != GS_IAM_SUBSCRIBED) return false;
  GSMembershipList members;
  s->getMembers(&members);
  const bool cluster = AMController::domainType == kCLUSTER;
  for (unsigned m = 0; m < members.count(); ++m) {
    const uint16_t node = members[m].gs_provider_fields.gs_node_number;
    const int instance = members[m].gs_provider_fields.gs_instance_number;
    if (cluster || maskAdmits(instance, node)) nodes->push_back(node);
  }
  std::sort(nodes->begin(), nodes->end());
  nodes->erase(std::unique(nodes->begin(), nodes->end()), nodes->end());
  return true;
}

int AMAggregator::determineTheLargestBaseGroup(int& equiv_cnt, int* equiv_list) {
  int best = -1;
  size_t bestSize = 0;
  std::vector<uint16_t> bestSet;
  std::vector<uint16_t> set;
  equiv_cnt = 0;
  const bool ibTies = isML0ForIBSupported() && isIBenv.load();
  const int n = getNumRelatedGroups();
  for (int i = 0; i < n; ++i) {
    if (!maskedNodesOf(i, &set)) continue;
    const size_t size = set.size();
    if (size > bestSize) {
      best = i;
      bestSize = size;
      bestSet = set;
      equiv_cnt = 0;
      equiv_list[equiv_cnt++] = i;
    } else if (size == bestSize && size > 0 && set == bestSet) {
      if (equiv_list != nullptr) equiv_list[equiv_cnt++] = i;
      if (ibTies && i != best) {
        // Equal InfiniBand groups prefer the smallest network id.
        AMCookedSubscriber* current = getListener(best);
        AMCookedSubscriber* other = getListener(i);
        if (current && other && current->getNetworkId64() > other->getNetworkId64()) {
          best = i;
          bestSet = set;
        }
      }
    }
  }
  const unsigned level = best != alias_group_index.load() ? TRACE_ERROR : TRACE_DEBUG;
  AM_TRACE(level) << traceId_.c_str() << " - the largest base group is " << (best >= 0 ? groupNameOf(best) : "(none)")
                  << ", and its size after masking is " << static_cast<long>(bestSize) << ", grp_idx=" << best
                  << endl;
  if (equiv_cnt > 0) {
    std::string names;
    for (int k = 0; k < equiv_cnt; ++k) {
      names += " ";
      names += groupNameOf(equiv_list[k]);
    }
    AM_TRACE(level) << traceId_.c_str() << " Its equivalence groups are" << names << endl;
  }
  return best;
}

bool AMAggregator::isConfiguredUpIn(int index) {
  AMCookedSubscriber* s = getListener(index);
  if (s == nullptr) return false;
  GSMembershipList members;
  s->getMembers(&members);
  const bool cluster = AMController::domainType == kCLUSTER;
  for (unsigned m = 0; m < members.count(); ++m) {
    const int node = members[m].gs_provider_fields.gs_node_number;
    if (node != static_cast<int>(myNodeNumber)) continue;
    if (cluster || maskAdmits(members[m].gs_provider_fields.gs_instance_number, node)) return true;
  }
  return false;
}

bool AMAggregator::IsAnybodyJoinedToSXNAll() {
  if (agg_provider->getClientState() == GS_IAM_JOINED) return true;
  AMController* ctl = amController();
  if (ctl == nullptr) return false;
  for (int i = 0; i < ctl->mediators.count(); ++i) {
    AMMediator* m = ctl->mediators[i];
    if (m == nullptr || m->getAggregator() != this) continue;
    for (int k = 0; k < m->getNumOfSXNAllCookedProviders(); ++k) {
      AMCookedProvider* p = m->getCookedSXNAllProvider(k);
      if (p && p->getClientState() == GS_IAM_JOINED) return true;
    }
  }
  return false;
}

void AMAggregator::tell_majority_to_switchsystem(int /*old_grp_idx*/, int /*new_grp_idx*/, int /*equiv_cnt*/,
                                                 const int* /*equiv_list*/) {}

// ------------------------------------------------- local aggregate interface

int AMAggregator::check_and_reschedule_mlX_state() {
  if (mlX_check_monitor.hit()) {
    int state = 0;
    getLocalNetIfOpState(represent_name.c_str(), &state);
    mlX_up_running = state;
    AMtracef(TRACE_FYI, "Checking the interface %s.. IsUpAndRunning=%d", represent_name.c_str(), mlX_up_running);
    // The hit has started the next interval.
    return AMController::vask_mlX_check_interval;
  }
  return mlX_check_monitor.remaining_secs_to_hit();
}

void AMAggregator::start_monitoring_mlX_state() {
  AMtracef(TRACE_FYI, "Start monitoring the interface %s", represent_name.c_str());
  int state = 0;
  getLocalNetIfOpState(represent_name.c_str(), &state);
  mlX_up_running = state;
  mlX_check_monitor.interval(AMController::vask_mlX_check_interval);
  mlX_check_monitor.reset();
  is_monitoring_mlX = 1;
}

void AMAggregator::stop_monitoring_mlX_state() {
  AMtracef(TRACE_FYI, "Stop monitoring the interface %s", represent_name.c_str());
  is_monitoring_mlX = 0;
}

// ------------------------------------------------------------ the thread

void AMAggregator::obtainConfiguration() {
  AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Aggregate_Evt_refreshed" << endl;
  AMPropagator* propagator = AMController::propagator;
  {
    std::lock_guard<std::mutex> hold(cfgMu_);
    if (propagator == nullptr || !propagator->ObtainAggCfgFor(agg_config, represent_name.c_str())) {
      agg_config.eraseall();
      agg_config.setAggName(represent_name.c_str());
    }
  }
  if (propagator != nullptr) agg_cfg_proposed_info.copyFrom(propagator->aggip_current_cfg_info());
  if (agg_cfg_proposed_info.isSame(agg_cfg_info)) {
    AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Configuration is still same.\n" << endl;
  } else {
    AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Configuration changes are detected. "
                        << " newId=" << agg_cfg_proposed_info.getCfgIdStr() << endl;
    open_sxnpdd(1);
  }
  agg_cfg_info.copyFrom(agg_cfg_proposed_info);
}

void* AMAggregator::run(void* /*arg*/) {
  TraceClient client(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Prepare to start thread" << endl;
  AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Thread started." << endl;
  int wait = -1;
  ml0flipwaitcount = 0;
  while (true) {
    AMController* ctl = amController();
    if (ctl == nullptr || ctl->AmIExiting()) break;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " waitSyncEvent for " << wait << " secs" << endl;
    int evt = 0;
    int waitrc = waitSyncEvent(&evt, wait);
    // A stop request means the thread is being torn down: it ends the way
    // an exit does.
    if (waitrc == -1 || ctl->AmIExiting()) break;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Got a syncEvent evt id=" << evt << endl;
    wait = processOnePass(evt, waitrc);
  }
  AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " - Prepare to exit" << endl;
  sleep(static_cast<unsigned>(stopGraceSecs.load()));
  ExitTheProcess(8, "AMAggregator can not stop");
}

void AMAggregator::checkAggregateSubscription(int* wait) {
  AMController* ctl = amController();
  const GSClientState state = agg_subscriber->getClientState();
  if (state == GS_IAM_SUBSCRIBING || state == GS_IAM_SUBSCRIBED) return;
  if (state != GS_IAM_IDLE) {
    AM_TRACE(TRACE_ERROR) << TraceLabel(kErrorLabel)
                          << "TOLKVASK falls into unknown RawState=" << gscl_client_state_name(state) << endl;
    HA_ASSERT_FAIL("TOLKVASK falls into unknown RawState");
  }
  if (ctl == nullptr || ctl->allAdaptGroup == nullptr || ctl->allAdaptGroup->getClientState() != GS_IAM_SUBSCRIBED) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " rawSub not subscribed" << endl;
    return;
  }
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  const bool devicesWork = table != nullptr && table->checkRawDevices() == 0;
  bool need_sub = false;
  if (AMController::domainType == kQUIL) {
    need_sub = devicesWork && IsAnybodyJoinedToSXNAll() && configuredOnNetwork(0) && configuredOnNetwork(1);
  } else if (AMController::domainType == kCLUSTER) {
    need_sub = devicesWork && IsAnybodyJoinedToSXNAll();
  }
  if (!need_sub) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << "need_sub = 0 don't subscribe to ML0 group." << endl;
    return;
  }
  if (agg_subscriber->subscribeGroup() != TK_GS_OK) {
    *wait = kSubscribeRetrySecs;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << "wait for 30s for subscribe ml0" << endl;
  } else {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Subscribe To ML0 Group sync_rc is OK" << endl;
  }
}

int AMAggregator::processOnePass(int evt, int waitrc) {
  AMController* ctl = amController();
  const bool cluster = AMController::domainType == kCLUSTER;
  int wait = ml0flipwaitcount > 0 ? kFlipDelaySecs : -1;

  // The local aggregate interface, polled while nothing else is pending.
  if (cluster && ml0flipwaitcount == 0 && is_monitoring_mlX) {
    const int before = mlX_up_running;
    wait = check_and_reschedule_mlX_state();
    if (waitrc == GS_WAIT_TIMEDOUT && mlX_up_running == before) {
      AMtracef(AM_TRACEF_DEBUG, "The interface %s (state %d) is same as before", represent_name.c_str(),
               mlX_up_running);
    }
    if (!mlX_up_running && joinedOrJoining(agg_provider->getClientState())) {
      AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " Leave ml0membership, because ml0 is down" << endl;
      agg_provider->LeaveOrGoodbyeGroup();
    }
  }

  // A configuration committed before the protocols roll (the first one,
  // usually) is fetched once they do: its event alone would be gone by then.
  if (evt == kAggEvtRefreshed) refreshPending_ = true;
  if (ctl == nullptr || !ctl->readyToRoll.get()) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " It is not ready to roll...wait more" << endl;
    return wait;
  }
  if (refreshPending_) {
    refreshPending_ = false;
    obtainConfiguration();
  }

  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (cluster && table != nullptr) {
    int harvested;
    {
      GSReadGuard hold(*table);
      harvested = table->isHarvested();
    }
    if (!harvested) {
      AM_TRACE(TRACE_ERROR) << traceId_.c_str() << "The initial harvest is not done yet...Wait more\n" << endl;
      return wait;
    }
  }
  open_sxnpdd(0);

  if (ctl->allAdaptGroup != nullptr && ctl->allAdaptGroup->getClientState() == GS_IAM_SUBSCRIBED) {
    const int n = getNumRelatedGroups();
    for (int i = 0; i < n; ++i) {
      AMCookedSubscriber* s = getListener(i);
      if (s && s->trySubscribeGroup() == 0) wait = kFlipDelaySecs;
    }
  }
  checkAggregateSubscription(&wait);

  AM_TRACE(TRACE_DEBUG) << "AMAggregate::run(): event which wakeup the ml0 thread: evt=" << evt
                        << ", return code from waitSyncEvent(): waitrc=" << waitrc
                        << ", ml0flipwaitcount=" << ml0flipwaitcount << endl;

  // The flip delay: a membership change starts or extends a wait of its
  // own, so that the alias moves only once memberships have settled.
  bool recompute = false;
  if (evt == kAggEvtMembership) {
    if (ml0flipwaitcount > kMaxFlipExtensions) {
      ml0flipwaitcount = 0;
      recompute = true;
    } else {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Don't flip largest group and wait for another "
                            << kFlipDelaySecs << " secs. alias_group_index = " << alias_group_index.load()
                            << ", event which wakeup the ml0 thread:  evt=" << evt
                            << "return code from waitSyncEvent(): waitrc = " << waitrc << endl;
      wait = kFlipDelaySecs;
      ml0flipwaitcount++;
    }
  } else if (ml0flipwaitcount > 0 && waitrc != GS_WAIT_TIMEDOUT && ml0flipwaitcount <= kMaxFlipExtensions) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str()
                          << "An non-switchMembership event occurred while waiting for flip-delay-timeout. "
                          << "Wait more...." << endl;
    wait = kFlipDelaySecs;
    ml0flipwaitcount++;
  } else {
    ml0flipwaitcount = 0;
    recompute = true;
  }
  int equiv_cnt = 0;
  equiv_list_.assign(static_cast<size_t>(getNumRelatedGroups()) + 5, -1);
  const int large_grp_idx = recompute ? determineTheLargestBaseGroup(equiv_cnt, equiv_list_.data())
                                      : alias_group_index.load();

  if (cluster) {
    int state = 0;
    getLocalNetIfOpState(represent_name.c_str(), &state);
    mlX_up_running = state;
  } else {
    mlX_up_running = 1;
  }

  if (recompute && large_grp_idx == -1 && joinedOrJoining(agg_provider->getClientState())) {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " No source groups exist. Leave the agg_group." << endl;
    agg_provider->LeaveOrGoodbyeGroup();
    wait = kFlipDelaySecs;
  }
  if (recompute) still_configured_up = large_grp_idx >= 0 && isConfiguredUpIn(large_grp_idx);

  const GSClientState state = agg_provider->getClientState();
  const bool goUp = still_configured_up && mlX_up_running;
  if (joinedOrJoining(state)) {
    if (goUp) {
      if (large_grp_idx != alias_group_index.load()) {
        AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " AggGroup " << agg_mbrship_name.c_str()
                              << " is now aliased to " << groupNameOf(large_grp_idx) << endl;
      }
    } else {
      AM_TRACE(TRACE_ERROR) << traceId_.c_str()
                            << " Leave ml0membership, because this node does not join or ml0 is down "
                            << groupNameOf(large_grp_idx) << endl;
      agg_provider->LeaveOrGoodbyeGroup();
      wait = kFlipDelaySecs;
    }
  } else if (state == GS_IAM_IDLE) {
    if (goUp) {
      AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " Joining " << agg_mbrship_name.c_str() << " as alias to "
                            << groupNameOf(large_grp_idx) << endl;
      if (agg_provider->joinGroup() != TK_GS_OK) {
        // Never 0: a refused join must not spin the thread.
        wait = std::max(1, agg_provider->at_join_rate.remaining_secs_to_hit());
      }
    } else if (still_configured_up) {
      const unsigned level = notUpTraced_ ? TRACE_DEBUG : TRACE_EMERG;
      notUpTraced_ = true;
      AM_TRACE(level) << traceId_.c_str() << " Interface " << represent_name.c_str() << " is configured"
                      << " but it is not up/running. It will not join " << agg_mbrship_name.c_str() << endl;
    } else {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " State=IDLE, configured_up=" << (still_configured_up ? 1 : 0)
                            << ", mlX_up_running=" << mlX_up_running << endl;
    }
  } else {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " The clientState " << gscl_client_state_name(state)
                          << " is unknown." << endl;
    wait = kUnknownStateWaitSecs;
  }

  if (cluster) {
    if (still_configured_up) {
      if (!is_monitoring_mlX) start_monitoring_mlX_state();
      const int interval = AMController::vask_mlX_check_interval;
      if (wait < 0 || wait > interval) wait = interval;
    } else if (is_monitoring_mlX) {
      stop_monitoring_mlX_state();
    }
  }

  tell_majority_to_switchsystem(alias_group_index.load(), large_grp_idx, equiv_cnt, equiv_list_.data());
  const int old = alias_group_index.load();
  if (large_grp_idx != old) {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str()
                          << "Before alias_group_index=large_grp_idx, return code from waitSyncEvent(): waitrc = "
                          << waitrc << ", event which wakeup the ml0 thread: evt = " << evt
                          << ", alias_group_index=" << old
                          << ", Now the alias_group_index is assigned with the newly calculated largest group Index"
                          << large_grp_idx << endl;
    alias_group_index = large_grp_idx;
  }
  return wait;
}

// ------------------------------------------------------------ status

namespace {

AMSRCDriver* srcDriver() { return amController(); }

// Members of the aggregate group: from the subscriber when it is
// subscribed, else from this node's provider.
int aggregateMemberCount(AMAggregator* a, bool* joined) {
  GSMembershipList members;
  a->getAggProvider()->getMembers(&members);
  *joined = members.contains(a->getAggProvider()->getProviderId());
  if (a->getAggSubscriber()->getClientState() == GS_IAM_SUBSCRIBED) {
    GSMembershipList seen;
    a->getAggSubscriber()->getMembers(&seen);
    return static_cast<int>(seen.count());
  }
  return static_cast<int>(members.count());
}

}  // namespace

void AMAggregator::doCanonicalLongStatus(int index) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  bool joined = false;
  const int count = aggregateMemberCount(this, &joined);
  const int alias = alias_group_index.load();
  src->inform_printf("AggAdapter%d: %s\n", index, represent_name.c_str());
  src->inform_printf("AggAdapter%d_Group: %s\n", index, agg_mbrship_name.c_str());
  src->inform_printf("AggAdapter%d_Joined: %s\n", index, yesNo(joined));
  src->inform_printf("AggAdapter%d_Mbrs: %d\n", index, count);
  src->inform_printf("AggAdapter%d_AliasGroup: %s\n", index,
                     alias >= 0 ? groupNameOf(alias) : getmsg_tk_gs_tolkvaskd_def(20));
}

void AMAggregator::doLongStatus(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  bool joined = false;
  const int count = aggregateMemberCount(this, &joined);
  const int alias = alias_group_index.load();
  src->inform_printf(getmsg_tk_gs_tolkvaskd(16), represent_name.c_str(), agg_mbrship_name.c_str());
  if (joined) {
    src->inform_printf(getmsg_tk_gs_tolkvaskd(17), agg_mbrship_name.c_str(),
                       alias >= 0 ? groupNameOf(alias) : getmsg_tk_gs_tolkvaskd(20));
    src->inform_printf(getmsg_tk_gs_tolkvaskd(19), agg_mbrship_name.c_str(), count);
  } else {
    src->inform_printf(getmsg_tk_gs_tolkvaskd(18), agg_mbrship_name.c_str());
  }
}

void AMAggregator::doLongCfgStatus(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  src->inform_printf("Aggregate_Configuration_Id: %s\n", agg_cfg_info.getCfgIdStr().c_str());
  std::lock_guard<std::mutex> hold(cfgMu_);
  agg_config.informToSRC(src);
}

void doAllAggregatorsLongStatus() {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  for (int i = 0; i < ctl->aggregators.count(); ++i) {
    if (ctl->aggregators[i]) ctl->aggregators[i]->doLongStatus(i);
  }
}

void doAllAggregatorsCanonicalLongStatus() {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  for (int i = 0; i < ctl->aggregators.count(); ++i) {
    if (ctl->aggregators[i] == nullptr) continue;
    ctl->aggregators[i]->doCanonicalLongStatus(i);
    ctl->aggregators[i]->doLongCfgStatus(i);
  }
}

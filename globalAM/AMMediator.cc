// The mediator thread: raw adapter membership in, cooked group membership
// out, and its status lines.
#include "AMMediator.h"

#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "AMController.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "tk_gs_tolkvaskd_msg.h"
#include "vx_cu.h"

namespace {

constexpr long kErrorLabel = 16;
constexpr int kHourSecs = 3600;
constexpr int kRawSubscribeRateSecs = 3;
// A subscription that has had no callback for this long is cancelled and
// requested again.
constexpr time_t kSubscribingPatienceSecs = 180;
constexpr int kWaitAfterGivingUpSecs = 2;
constexpr int kWaitWhileIdleSecs = 3;
constexpr int kWaitAfterSubscribeSecs = 300;
constexpr int kProviderSlotsGrowth = 4;

// Refused joins of a group that cannot be joined are traced at most 100
// times per 600-second period, one period for the per-network groups and
// one for the all-groups, shared by every pass of every mediator.
// Process-wide and unlocked: a lost update only changes how many traces
// are written.
struct JoinTraceThrottle {
  time_t start = 0;
  int count = 0;
  // Called on every join; true when a refusal with rc may be traced.
  bool admit(tk_gs_rc_t rc, time_t now) {
    if (start != 0 && now - start > 600) start = 0;
    if (start == 0) {
      start = now;
      count = 0;
    }
    if (rc != TK_GS_INVALID_GROUP) return true;
    if (count >= 100) return false;
    count++;
    return true;
  }
};
JoinTraceThrottle cookedJoinTraces;
JoinTraceThrottle sxnAllJoinTraces;

time_t wallNow() {
  struct timeval tv = {0, 0};
  cu_gettimeofday_1(&tv);
  return tv.tv_sec;
}

time_t monotonicNow() {
  struct timespec ts = {0, 0};
  cu_get_monotonic_time(&ts);
  return ts.tv_sec;
}

// Appends p, growing the array by four slots when full. Requires: the
// mediator's listMu_ held.
void appendProvider(AMCookedProvider*** array, int* used, int* slots, AMCookedProvider* p) {
  if (*used == *slots) {
    int grown = *slots + kProviderSlotsGrowth;
    AMCookedProvider** fresh = new AMCookedProvider*[grown]();
    for (int i = 0; i < *used; ++i) fresh[i] = (*array)[i];
    delete[] *array;
    *array = fresh;
    *slots = grown;
  }
  (*array)[(*used)++] = p;
}

const char* yesNo(bool b) { return getmsg_tk_gs_tolkvaskd(b ? 7 : 8); }

AMSRCDriver* srcDriver() { return amController(); }

}  // namespace

AMMediator::AMMediator(const char* rawGroupName, AMAggregator* agg, short /*instance*/)
    : aggregator(agg),
      raw_membership_name(rawGroupName),
      at_raw_subs_rate(kRawSubscribeRateSecs),
      at_check_dev(kHourSecs) {
  traceId_.format("Mediator[%s]", rawGroupName ? rawGroupName : "");
  AM_TRACE(TRACE_FYI) << "AMMediator is created for dev=" << raw_membership_name.c_str()
                      << ", rawMbr=" << raw_membership_name.c_str() << endl;
  rawSubscriber = new AMRawSubscriber(this, rawGroupName);
}

AMMediator::~AMMediator() {
  // The subscriber and providers unregister first, so that no callback
  // reaches them (or this mediator) while they go.
  delete rawSubscriber;
  std::lock_guard<std::mutex> hold(listMu_);
  for (int i = 0; i < numOfCookedProviders; ++i) delete cookedProviders[i];
  for (int i = 0; i < numOfSXNAllCookedProviders; ++i) delete cookedSXNAllProviders[i];
  delete[] cookedProviders;
  delete[] cookedSXNAllProviders;
}

void AMMediator::wakeup(int /*refreshed*/) { postSyncEvent(0); }

AMCookedProvider* AMMediator::getCookedProvider(const char* repname) {
  if (repname == nullptr) return nullptr;
  const int n = getNumOfCookedProviders();
  for (int i = 0; i < n; ++i) {
    AMCookedProvider* p = getCookedProvider(i);
    if (p && strcmp(p->getRepName(), repname) == 0) return p;
  }
  return nullptr;
}

AMCookedProvider* AMMediator::getCookedProvider(int i) {
  std::lock_guard<std::mutex> hold(listMu_);
  return (i >= 0 && i < numOfCookedProviders) ? cookedProviders[i] : nullptr;
}

AMCookedProvider* AMMediator::getCookedSXNAllProvider(int i) {
  std::lock_guard<std::mutex> hold(listMu_);
  return (i >= 0 && i < numOfSXNAllCookedProviders) ? cookedSXNAllProviders[i] : nullptr;
}

int AMMediator::getNumOfCookedProviders() const {
  std::lock_guard<std::mutex> hold(listMu_);
  return numOfCookedProviders;
}

int AMMediator::getNumOfSXNAllCookedProviders() const {
  std::lock_guard<std::mutex> hold(listMu_);
  return numOfSXNAllCookedProviders;
}

int AMMediator::changeAttachedNetwork(AMCookedProvider* provider, int netnum) {
  if (provider == nullptr || provider->getAttachedNetworkNum() == netnum) return 0;
  int rc = provider->changeAttachedNetwork(netnum);
  // The aggregator's listener of the new network now follows this provider.
  AMCookedSubscriber* listener = aggregator ? aggregator->getCookedSubByNetworkID(netnum) : nullptr;
  if (listener) aggregator->setRelatedProviderForSubscriber(listener, provider);
  return rc;
}

// ------------------------------------------------------------ membership

AMCookedProvider* AMMediator::appendMember(const char* repname) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMMediator::appendMember()");
  std::lock_guard<std::mutex> hold(appendMu_);
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (repname == nullptr || table == nullptr) return nullptr;
  // The provider's instance number is the adapter's network for a switch
  // adapter (sxn1 stands as instance 1), as in the raw group.
  int index = getNetworkFromSwitchInterfaceName(repname);
  if (index < 0) index = _idxFromInterfaceName(repname);
  // The local scan files an interface under the index it first met it at,
  // which is the network number only when sxn0 was met before sxn1: the
  // row is looked up by that index, so that an adapter configured out of
  // order still gets its own network's group.
  const int row = _idxFromInterfaceName(repname);
  if (index < 0 || index >= MaxAdaptersOnNode || row < 0 || row >= MaxAdaptersOnNode) {
    AM_TRACE(TRACE_ERROR) << "AMMediator::appendMember: adapter index " << index << " of " << repname
                          << " is out of range" << endl;
    return nullptr;
  }
  bool configured;
  int netnum;
  uint64_t netnum64;
  {
    GSWriteGuard hold(*table);
    AMAdapterItem* item = table->getOrNewAdapterItem(myNodeNumber, row);
    configured = item->isConfiged;
  }
  if (!configured) table->refreshLocalTable(0);
  const short instance = static_cast<short>(index);
  {
    GSReadGuard hold(*table);
    AMAdapterItem* item = table->locateAdapterItem(myNodeNumber, row);
    configured = item != nullptr && item->isConfiged;
    netnum = item ? item->networkid : -1;
    netnum64 = item ? item->networkId64 : 0;
  }
  const bool ib = isIBAdapter(repname) != 0;
  // An InfiniBand adapter's network is the index of its network's group
  // among the aggregator's listeners.
  if (ib && aggregator) netnum = aggregator->getNetworkNumIndex(getIBGroupName(netnum64));
  if (!configured || !IsValidNetworkID(netnum)) {
    AM_TRACE(TRACE_ERROR) << "adapter->isConfiged=" << (configured ? 1 : 0)
                          << ",IsValidNetworkID(adapter->networkid)=" << (IsValidNetworkID(netnum) ? 1 : 0)
                          << " Weired Case, AMMediator::appendMember cannot resolve interface name[" << repname
                          << "] network id, just ignore appendmember action" << endl;
    return nullptr;
  }
  // Only nine switch networks have a group name; a provider for a higher
  // one would join a group nobody can name, so the adapter stays without.
  if (!ib && GET_SW_MEMBERSHIP_GROUP(netnum) == nullptr) {
    AM_TRACE(TRACE_ERROR) << "AMMediator::appendMember(): interface[" << repname << "] is on network " << netnum
                          << ", which has no membership group name; no provider is made for it" << endl;
    return nullptr;
  }
  AMCookedProvider* existing = getCookedProvider(repname);
  if (existing) {
    if (existing->getAttachedNetworkNum() != netnum) changeAttachedNetwork(existing, netnum);
    return existing;
  }
  AMCookedProvider* all = new AMCookedProvider(this, ib ? kIbAllMembershipName : kSxnAllMembershipName, -1, 1,
                                               repname, instance, 0);
  {
    std::lock_guard<std::mutex> hold(listMu_);
    appendProvider(&cookedSXNAllProviders, &numOfSXNAllCookedProviders, &numSlotsOfSXNAllCookedProviders, all);
  }

  const char* group = nullptr;
  AMCookedProvider* p;
  if (ib) {
    group = getIBGroupName(netnum64);
    if (group == nullptr) group = GET_SW_MEMBERSHIP_GROUP(netnum);
    p = new AMCookedProvider(this, group, netnum, 0, repname, instance, netnum64);
  } else {
    group = GET_SW_MEMBERSHIP_GROUP(netnum);
    p = new AMCookedProvider(this, group, netnum, 0, repname, instance, 0);
  }
  AM_TRACE(TRACE_FYI) << "AMMediator::appendMember(): netnum=" << netnum << ", group name: "
                      << (group ? group : "") << endl;
  AMCookedSubscriber* listener = aggregator ? aggregator->getCookedSubByNetworkID(netnum) : nullptr;
  if (aggregator) {
    if (ib && listener) listener->setNetworkId64(netnum64);
    aggregator->setRelatedProviderForSubscriber(listener, p);
  }
  {
    std::lock_guard<std::mutex> hold(listMu_);
    appendProvider(&cookedProviders, &numOfCookedProviders, &numSlotsOfCookedProviders, p);
  }
  return p;
}

void AMMediator::harvestMembership() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMMediator::harvestMembership()");
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table == nullptr) return;
  if (!isML0ForIBSupported()) return;
  // Copy what is needed under the lock: appendMember takes the lock itself.
  std::vector<AMAdapterState> local;
  {
    GSReadGuard hold(*table);
    for (auto& entry : table->getAdapterItemList()) {
      AMAdapterItem* item = entry.second;
      if (item == nullptr || item->nodenumber != static_cast<int>(myNodeNumber)) continue;
      char name[kAMIfNameLength + 1];
      memcpy(name, item->interfacename, kAMIfNameLength);
      name[kAMIfNameLength] = '\0';
      if (!isIBAdapter(name)) continue;
      AMAdapterState s;
      s.interfacename = name;
      s.ipaddr.s_addr = item->ipaddr;
      s.nodenumber = static_cast<int16_t>(item->nodenumber);
      s.isUp = item->isUp ? 1 : 0;
      local.push_back(s);
    }
  }
  for (const AMAdapterState& s : local) {
    if (getCookedProvider(s.interfacename) == nullptr) {
      AM_TRACE(TRACE_FYI) << "In AMMediator::harvestMembership(): appendMember()" << endl;
      listOfAdapter.putIntoList(s);
    }
    appendMember(s.interfacename);
  }
}

// ------------------------------------------------------------ the thread

void* AMMediator::run(void* /*arg*/) {
  TraceClient client(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << traceId_.c_str() << " Thread started." << endl;
  int wait = 0;
  while (true) {
    AMController* ctl = amController();
    if (ctl == nullptr || ctl->AmIExiting()) break;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " waitSyncEvent for " << wait << " secs" << endl;
    int event = 0;
    int rc = waitSyncEvent(&event, wait);
    // A stop request means the thread is being torn down: it ends the way
    // an exit does.
    if (rc == -1 || ctl->AmIExiting()) break;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Got a syncEvent..." << endl;
    wait = processOnePass();
  }
  AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " - Prepare to exit" << endl;
  sleep(3);
  ExitTheProcess(8, "AMMediator can not stop");
}

int AMMediator::processOnePass() {
  AMController* ctl = amController();
  if (ctl == nullptr || !ctl->readyToRoll.get()) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " It is not ready to roll...wait more" << endl;
    return -1;
  }
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (AMController::domainType == kCLUSTER && table != nullptr) {
    int harvested;
    {
      GSReadGuard hold(*table);
      harvested = table->isHarvested();
    }
    if (!harvested) {
      AM_TRACE(TRACE_ERROR) << "The initial harvest is not done yet...Wait more" << endl;
      return -1;
    }
  }
  int wait = -1;
  const GSClientState rawState = rawSubscriber->getClientState();
  AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " event_loop rawSubState=" << gscl_client_state_name(rawState)
                        << endl;
  switch (rawState) {
    case GS_IAM_SUBSCRIBING: {
      long elapsed = static_cast<long>(wallNow() - rawSubscriber->getTimeSubscribing());
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << ": I'm currently waiting for SUBSCRIPTION callback. "
                            << " for " << elapsed << " seconds." << endl;
      if (elapsed > kSubscribingPatienceSecs) {
        AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " I waited too much..Unsubscribe the rawGroup"
                              << "so that I can resubscribe it again" << endl;
        rawSubscriber->unsubscribeGroup();
        at_raw_subs_rate.reset();
        wait = kWaitAfterGivingUpSecs;
      }
      if (wait == 0) wait = 1;
      break;
    }
    case GS_IAM_IDLE:
      wait = passIdle();
      break;
    case GS_IAM_SUBSCRIBED:
      wait = passSubscribed(wait);
      break;
    default:
      AM_TRACE(TRACE_ERROR) << TraceLabel(kErrorLabel)
                            << "TOLKVASK falls into unknown RawState=" << gscl_client_state_name(rawState) << endl;
      HA_ASSERT_FAIL("TOLKVASK falls into unknown RawState");
  }
  AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Wait for an event for " << wait << " secs" << endl;
  if (aggregator) aggregator->postSyncEvent(0);
  return wait;
}

void AMMediator::leaveAllCookedGroups() {
  for (int pass = 0; pass < 2; ++pass) {
    int n = pass == 0 ? getNumOfCookedProviders() : getNumOfSXNAllCookedProviders();
    for (int i = 0; i < n; ++i) {
      AMCookedProvider* p = pass == 0 ? getCookedProvider(i) : getCookedSXNAllProvider(i);
      if (p == nullptr || p->getClientState() == GS_IAM_IDLE) continue;
      tk_gs_rc_t rc = p->LeaveOrGoodbyeGroup();
      AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": No local adapter is alive, and time to leave "
                            << p->getGroupName() << " got sync_rc=" << gscl_rc_name(rc) << endl;
    }
  }
}

int AMMediator::passIdle() {
  int wait = kWaitWhileIdleSecs;
  leaveAllCookedGroups();
  if (!at_raw_subs_rate.hit()) {
    AM_TRACE(TRACE_DEBUG3) << "at_raw_subs_rate is not hit" << endl;
    return wait;
  }
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  int rc = table ? table->checkRawDevices() : 2;
  if (rc == 2 && table) {
    table->refreshLocalTable(0);
    rc = table->checkRawDevices();
  }
  if (rc == 2) {
    rawSubscriber->at_subscribing.reset();
    wait = AMController::vask_device_check_interval;
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": Any local device is not found. Re-check after " << wait
                          << " seconds" << endl;
  } else if (rc != 0) {
    rawSubscriber->at_subscribing.reset();
    unsigned level = at_check_dev.hit() ? TRACE_ERROR : TRACE_DEBUG;
    AM_TRACE(level) << traceId_.c_str() << ": Device is not working properly or down" << endl;
  }
  // Reset after the check, so each such pass reports at the error level.
  at_check_dev.reset();
  // The subscription is requested even without a local device: the group
  // tells the adapter table about every other node.
  if (rawSubscriber->subscribeGroup() == TK_GS_OK) {
    wait = kWaitAfterSubscribeSecs;
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " SubscribeToRawGroup sync_rc is OK" << endl;
  }
  return wait;
}

int AMMediator::passSubscribed(int wait) {
  for (int pass = 0; pass < 2; ++pass) {
    const bool allGroup = pass == 1;
    int n = allGroup ? getNumOfSXNAllCookedProviders() : getNumOfCookedProviders();
    JoinTraceThrottle& throttle = allGroup ? sxnAllJoinTraces : cookedJoinTraces;
    for (int i = 0; i < n; ++i) {
      AMCookedProvider* p = allGroup ? getCookedSXNAllProvider(i) : getCookedProvider(i);
      if (p == nullptr) continue;
      const int up = listOfAdapter.isUp(myNodeNumber, p->getRepName());
      const GSClientState state = p->getClientState();
      if (state == GS_IAM_IDLE && up) {
        tk_gs_rc_t rc = p->joinGroup();
        if (throttle.admit(rc, monotonicNow())) {
          AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": My rawAdapter (" << p->getRepName()
                                << ") is UP and time to JOIN group " << p->getGroupName()
                                << " sync_rc = " << gscl_rc_name(rc) << endl;
        }
        if (rc != TK_GS_OK) {
          wait = p->at_join_rate.remaining_secs_to_hit();
          // The per-network groups never wait 0 after a refusal; the
          // all-groups do (kept as it always was).
          if (!allGroup && wait == 0) wait = 1;
        }
      } else if (state == GS_IAM_JOINED && !up) {
        tk_gs_rc_t rc = p->LeaveOrGoodbyeGroup();
        AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": Adapter is DOWN and time to LEAVE group "
                              << p->getGroupName() << " got sync_rc=" << gscl_rc_name(rc) << endl;
        wait = kWaitWhileIdleSecs;
      } else {
        AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Adapter " << p->getRepName() << " is "
                              << (up ? "UP, " : "DOWN, ") << raw_membership_name.c_str() << " is "
                              << gscl_client_state_name(rawSubscriber->getClientState()) << " , "
                              << p->getGroupName() << " is " << gscl_client_state_name(state) << endl;
      }
    }
  }
  return wait;
}

// ------------------------------------------------------------ status

void AMMediator::doCanonicalLongStatus(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  GSMembershipList rawMembers;
  rawSubscriber->getMembers(&rawMembers);
  const int rawLocal = numberOfproviders_on_node(rawMembers, myNodeNumber);
  for (int i = 0; i < getNumOfCookedProviders(); ++i) {
    AMCookedProvider* p = getCookedProvider(i);
    if (p == nullptr) continue;
    GSMembershipList members;
    p->getMembers(&members);
    const bool joined = members.contains(p->getProviderId());
    // The aggregator's listener shows the group from outside.
    AMCookedSubscriber* listener = p->get_dst_subscriber();
    const bool subscribed = listener != nullptr && listener->getClientState() == GS_IAM_SUBSCRIBED;
    if (subscribed) listener->getMembers(&members);
    src->inform_printf("Adapter%d: %s\n", i, p->getRepName());
    src->inform_printf("Adapter%d_Device_Exists: %s\n", i, yesNo(p->isDevicePresent()));
    src->inform_printf("Adapter%d_Raw_Group: %s\n", i, raw_membership_name.c_str());
    src->inform_printf("Adapter%d_Raw_Mbrs: %d\n", i, listOfAdapter.count(p->getRepName()));
    src->inform_printf("Adapter%d_Raw_Subscribed: %s\n", i, yesNo(rawLocal > 0));
    src->inform_printf("Adapter%d_Raw_Aliases: %d\n", i, listOfAdapter.count(p->getRepName(), myNodeNumber));
    const char* name = p->getCookedMembershipName();
    src->inform_printf("Adapter%d_Group: %s\n", i, name ? name : "");
    src->inform_printf("Adapter%d_Joined: %s\n", i, yesNo(joined));
    src->inform_printf("Adapter%d_Subscribed: %s\n", i, yesNo(subscribed));
    if (joined || subscribed) src->inform_printf("Adapter%d_Mbrs: %d\n", i, static_cast<int>(members.count()));
  }
}

void AMMediator::doLongStatus(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  // One line for every network a provider may be attached to: the
  // InfiniBand networks counted so far, or the switch networks up to the
  // highest the adapter table knows (sxn1 on a two-plane switch cluster).
  int last = currentNumbersOfNetworks.load() - 1;
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table != nullptr) last = std::max(last, table->highestSwitchNetworkWithLock());
  last = std::max(last, 0);
  for (int net = 0; net <= last; ++net) {
    AMCookedProvider* p = nullptr;
    for (int i = 0; i < getNumOfCookedProviders(); ++i) {
      AMCookedProvider* candidate = getCookedProvider(i);
      if (candidate && candidate->getAttachedNetworkNum() == net) {
        p = candidate;
        break;
      }
    }
    const char* group = p ? p->getCookedMembershipName() : GET_SW_MEMBERSHIP_GROUP(net);
    if (group == nullptr) group = getmsg_tk_gs_tolkvaskd(20);
    GSMembershipList members;
    bool joined = false;
    if (p) {
      p->getMembers(&members);
      joined = members.contains(p->getProviderId());
    }
    // The aggregator's listener of the network, which sees the group from
    // outside and counts its members when subscribed.
    AMCookedSubscriber* listener = aggregator ? aggregator->getCookedSubByNetworkID(net) : nullptr;
    const bool subscribed = listener != nullptr && listener->getClientState() == GS_IAM_SUBSCRIBED;
    if (subscribed) listener->getMembers(&members);
    const char* dash = getmsg_tk_gs_tolkvaskd(20);
    if (!joined && !subscribed) {
      src->inform_printf(getmsg_tk_gs_tolkvaskd(32), group, dash, dash, dash, yesNo(false), yesNo(false),
                         getmsg_tk_gs_tolkvaskd(23));
      continue;
    }
    char nodes[16], gmbrs[16], lmbrs[16], alias[64];
    snprintf(nodes, sizeof nodes, "  %d", numberOfNodes_in_group(members));
    snprintf(gmbrs, sizeof gmbrs, "%d", static_cast<int>(members.count()));
    snprintf(lmbrs, sizeof lmbrs, "%d", numberOfproviders_on_node(members, myNodeNumber));
    if (p) {
      const bool up = listOfAdapter.isUp(myNodeNumber, p->getRepName()) != 0;
      snprintf(alias, sizeof alias, "%s%s", p->getRepName(), getmsg_tk_gs_tolkvaskd(up ? 24 : 25));
    } else {
      snprintf(alias, sizeof alias, "%s", getmsg_tk_gs_tolkvaskd(23));
    }
    src->inform_printf(getmsg_tk_gs_tolkvaskd(32), group, nodes, gmbrs, lmbrs, yesNo(joined), yesNo(subscribed),
                       alias);
  }
  src->inform_flush();
}

void AMMediator::doLongLocalMembers(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  for (int i = 0; i < getNumOfCookedProviders(); ++i) {
    AMCookedProvider* p = getCookedProvider(i);
    if (p == nullptr) continue;
    GSMembershipList members;
    p->getMembers(&members);
    GSBitSet printed(65536);
    const char* name = p->getCookedMembershipName();
    src->inform_printf("%s:", name ? name : "");
    for (unsigned m = 0; m < members.count(); ++m) {
      int node = members[m].gs_provider_fields.gs_node_number;
      if (printed.test(node)) continue;
      printed.set(node);
      src->inform_printf(" %d", node);
    }
    src->inform_printf("\n");
  }
}

void AMMediator::doLongSXNALLMembers(int /*index*/) {
  AMSRCDriver* src = srcDriver();
  if (src == nullptr) return;
  GSBitSet printed(65536);
  src->inform_printf("%s:", kSxnAllMembershipName);
  for (int i = 0; i < getNumOfSXNAllCookedProviders(); ++i) {
    AMCookedProvider* p = getCookedSXNAllProvider(i);
    if (p == nullptr) continue;
    GSMembershipList members;
    p->getMembers(&members);
    for (unsigned m = 0; m < members.count(); ++m) {
      int node = members[m].gs_provider_fields.gs_node_number;
      if (printed.test(node)) continue;
      printed.set(node);
      src->inform_printf(" %d", node);
    }
  }
  src->inform_printf("\n");
}

void doAllMediatorsLongStatus() {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  for (int i = 0; i < ctl->mediators.count(); ++i) {
    if (ctl->mediators[i]) ctl->mediators[i]->doLongStatus(i);
  }
}

void doAllMediatorsCanonicalLongStatus() {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  for (int i = 0; i < ctl->mediators.count(); ++i) {
    if (ctl->mediators[i]) ctl->mediators[i]->doCanonicalLongStatus(i);
  }
}

// The raw adapter group: the names of the switch membership groups, the
// local adapters' state list and the subscriber that turns raw IP
// membership into adapter-table providers.
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "AMController.h"
#include "AMMediator.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"

namespace {

// The error-log template row of the daemon's error lines.
constexpr long kErrorLabel = 16;
constexpr int kHourSecs = 3600;
constexpr int kSwGroupCount = 9;

char* swGroupNames[kSwGroupCount];

std::atomic<AMAdapterInfoLookupFn> adapterInfoLookup{nullptr};
std::atomic<AMTableUpdateObserverFn> tableUpdateObserver{nullptr};

tk_gs_rc_t lookupAdapterInfo(const tk_gs_ip_addr* ip, tk_gs_adapter_info_t* info) {
  AMAdapterInfoLookupFn fn = adapterInfoLookup.load();
  if (fn) return fn(ip, info);
  AMController* ctl = amController();
  if (ctl == nullptr) return TK_GS_NOT_INITIALIZED;
  return ctl->get_adapter_info(ip, info);
}

bool isV4Mapped(const tk_gs_ip_addr& ip) {
  static const uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return memcmp(ip.gs_bytes, prefix, sizeof prefix) == 0;
}

// The IPv4 address of a mapped address; 0 for an IPv6 one, which has no
// place in the IPv4 adapter records.
struct in_addr v4Of(const tk_gs_ip_addr& ip) {
  struct in_addr a;
  a.s_addr = 0;
  if (isV4Mapped(ip)) memcpy(&a.s_addr, ip.gs_bytes + 12, 4);
  return a;
}

// Dotted text of an address (IPv6 text for one that is not mapped).
struct AddrText {
  explicit AddrText(const tk_gs_ip_addr& ip) {
    if (isV4Mapped(ip)) {
      inet_ntop(AF_INET, ip.gs_bytes + 12, text, sizeof text);
    } else {
      inet_ntop(AF_INET6, ip.gs_bytes, text, sizeof text);
    }
  }
  char text[INET6_ADDRSTRLEN];
};

// An interface name from adapter information, terminated even when the
// field is full.
struct NameText {
  explicit NameText(const tk_gs_adapter_info_t& info) {
    memcpy(text, info.gs_interface_name, sizeof info.gs_interface_name);
    text[sizeof info.gs_interface_name - 1] = '\0';
  }
  char text[TK_GS_MAX_INTERFACE_NAME_LENGTH + 1];
};

}  // namespace

// ------------------------------------------------------------ group names

const char* GET_SW_MEMBERSHIP_GROUP(int n) {
  if (swGroupNames[0] == nullptr) {
    // Filled without a lock: the first call is made on the start-up path
    // before any thread runs.
    for (int i = 0; i < kSwGroupCount; ++i) {
      char buf[32];
      if (i == 0) {
        snprintf(buf, sizeof buf, "%s", "sxnMembership");
      } else if (i == 1) {
        snprintf(buf, sizeof buf, "%s", "sxn1Membership");
      } else {
        snprintf(buf, sizeof buf, "sxn%dMembership", i);
      }
      swGroupNames[i] = strdup(buf);
      AM_TRACE(TRACE_DEBUG3) << " GroupName[" << i << "]=" << swGroupNames[i] << endl;
    }
  }
  if (n < 0 || n >= kSwGroupCount) return nullptr;
  return swGroupNames[n];
}

bool IsValidNetworkID(int id) {
  if (id < 0) return false;
  // currentNumbersOfNetworks counts only InfiniBand group names; a switch
  // cluster numbers its networks by interface (sxn1 is network 1), so the
  // highest switch network the table knows is in use as well.
  int highest = currentNumbersOfNetworks.load();
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table != nullptr) {
    const int highestSwitch = table->highestSwitchNetworkWithLock();
    if (highestSwitch > highest) highest = highestSwitch;
  }
  return id <= highest;
}

// ---------------------------------------------------------- adapter state

void AMAdapterState::clear() {
  interfacename = "";
  ipaddr.s_addr = 0;
  isUp = 0;
  nodenumber = 0;
}

AMAdapterStateList::~AMAdapterStateList() { delete[] _data; }

int AMAdapterStateList::putIntoList(const AMAdapterState& s) {
  GSWriteGuard hold(*this);
  for (int i = 0; i < _nitems; ++i) {
    if (_data[i].ipaddr.s_addr == s.ipaddr.s_addr) {
      _data[i] = s;
      return i;
    }
  }
  if (_nitems == _nalloc) {
    int grown = _nalloc + 16;
    AMAdapterState* fresh = new AMAdapterState[grown];
    for (int i = 0; i < _nitems; ++i) fresh[i] = _data[i];
    delete[] _data;
    _data = fresh;
    _nalloc = grown;
  }
  _data[_nitems] = s;
  return _nitems++;
}

int AMAdapterStateList::count(const char* name) {
  if (name == nullptr) return 0;
  GSBitSet nodes(65536);
  GSReadGuard hold(*this);
  for (int i = 0; i < _nitems; ++i) {
    if (_data[i].isUp && _data[i].interfacename == name) nodes.set(static_cast<uint16_t>(_data[i].nodenumber));
  }
  return static_cast<int>(nodes.count());
}

int AMAdapterStateList::count(const char* name, int node) {
  if (name == nullptr) return 0;
  GSReadGuard hold(*this);
  for (int i = 0; i < _nitems; ++i) {
    if (_data[i].isUp && _data[i].nodenumber == node && _data[i].interfacename == name) return 1;
  }
  return 0;
}

int AMAdapterStateList::isUp(int node, const char* name) {
  if (name == nullptr) return 0;
  GSReadGuard hold(*this);
  for (int i = 0; i < _nitems; ++i) {
    if (_data[i].nodenumber == node && _data[i].interfacename == name && _data[i].isUp) return 1;
  }
  return 0;
}

void AMAdapterStateList::reset() {
  GSWriteGuard hold(*this);
  _nitems = 0;
}

int AMAdapterStateList::numberOfEntries() {
  GSReadGuard hold(*this);
  return _nitems;
}

AMAdapterState AMAdapterStateList::entry(int i) {
  GSReadGuard hold(*this);
  if (i < 0 || i >= _nitems) return AMAdapterState();
  return _data[i];
}

// ---------------------------------------------------------- raw subscriber

AMRawSubscriber::AMRawSubscriber(AMMediator* m, const char* groupName)
    : GSSubscriber(groupName, TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE),
      mediator(m),
      at_subscribing(kHourSecs),
      at_delayed_err(kHourSecs),
      at_severe_err(kHourSecs) {
  traceId_.format("Mediator[%s]", groupName ? groupName : "");
}

AMRawSubscriber::~AMRawSubscriber() {
  // No callback may reach the members below once they start to go.
  unregister();
  delete[] cur_ip_mbrs;
}

void AMRawSubscriber::setAdapterInfoLookupForTesting(AMAdapterInfoLookupFn fn) { adapterInfoLookup.store(fn); }

void AMRawSubscriber::setTableUpdateObserverForTesting(AMTableUpdateObserverFn fn) { tableUpdateObserver.store(fn); }

unsigned AMRawSubscriber::numberOfIpMembers() {
  GSReadGuard hold(ipLock_);
  return num_cur_ip_mbrs;
}

tk_gs_rc_t AMRawSubscriber::subscribeGroup() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMRawSubscriber::subscribeGroup()");
  tk_gs_rc_t rc = GSSubscriber::subscribeGroup();
  struct timeval now = {0, 0};
  cu_gettimeofday_1(&now);
  _timeSubscribing = now.tv_sec;
  if (rc != TK_GS_OK && at_subscribing.hit()) {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " subscribeGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  }
  AM_TRACE(TRACE_DEBUG) << "AMRawSubscriber::subscribeGroup()" << traceId_.c_str()
                        << " subscribeGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  return rc;
}

void traceSubscriptionDelayedError(const char* traceId, const char* group, const tk_gs_delayed_error_notification_t* n,
                                   AMIntervalHitter& delayed, AMIntervalHitter& severe) {
  if (n == nullptr) return;
  unsigned level = delayed.hit() ? TRACE_ERROR : TRACE_DEBUG;
  AM_TRACE(level) << traceId << ": " << gscl_request_name(n->gs_request_type)
                  << " delayedRC=" << gscl_rc_name(n->gs_delayed_return_code) << endl;
  // A group that does not exist yet is normal while the cluster starts;
  // the subscriber retries on its own schedule.
  if (n->gs_delayed_return_code != TK_GS_OK && n->gs_delayed_return_code != TK_GS_UNKNOWN_GROUP && severe.hit()) {
    AM_TRACE(TRACE_EMERG) << TraceLabel(kErrorLabel) << "Delayed error on subscription " << group
                          << ", error=" << gscl_rc_name(n->gs_delayed_return_code) << endl;
  }
}

tk_gs_callback_rc_t AMRawSubscriber::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSSubscriber::delayedErrorCb(n);
  traceSubscriptionDelayedError(traceId_.c_str(), getGroupName(), n, at_delayed_err, at_severe_err);
  if (mediator) mediator->postSyncEvent(0);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMRawSubscriber::subscribeCb(const tk_gs_subscription_notification_t* n) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMRawSubscriber::subscribeCb()");
  GSSubscriber::subscribeCb(n);
  if (n == nullptr) {
    if (mediator) mediator->postSyncEvent(0);
    return TK_GS_CALLBACK_OK;
  }
  const unsigned type = n->gs_subscription_type;
  if (type & (TK_GS_SUBSCRIPTION_DISSOLVED | TK_GS_SUBSCRIPTION_GS_HAS_DIED)) {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": " << getGroupName() << " is dissolved" << endl;
  }
  // A fresh notification means the next failures are news again.
  at_subscribing.reset();
  at_delayed_err.reset();
  at_severe_err.reset();
  if (mediator) {
    for (int i = 0; i < mediator->getNumOfCookedProviders(); ++i) {
      AMCookedProvider* p = mediator->getCookedProvider(i);
      if (p) p->at_join_rate.reset();
    }
  }
  if (type & TK_GS_SUBSCRIPTION_DELTA_JOIN) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " JoiningMbrs " << n->gs_changing_membership << endl;
  } else if (type & TK_GS_SUBSCRIPTION_DELTA_LEAVE) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " LeavingMbrs " << n->gs_changing_membership << endl;
  } else if (type & TK_GS_SUBSCRIPTION_MEMBERSHIP) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " FullMbrs " << n->gs_full_membership << endl;
  } else {
    AM_TRACE(TRACE_DEBUG) << "Other flags:" << gscl_subscription_type_names(type) << endl;
  }
  {
    GSWriteGuard hold(ipLock_);
    const tk_gs_adapter_ip_membership_t* full = n->gs_full_ip_membership;
    if (full != nullptr && (full->gs_ip_addrs != nullptr || full->gs_count == 0)) {
      num_cur_ip_mbrs = full->gs_count;
      if (num_cur_ip_mbrs > max_cur_ip_mbrs) {
        unsigned grown = num_cur_ip_mbrs + 8;
        tk_gs_ip_addr* fresh = new tk_gs_ip_addr[grown];
        delete[] cur_ip_mbrs;
        cur_ip_mbrs = fresh;
        max_cur_ip_mbrs = grown;
      }
      if (num_cur_ip_mbrs > 0) memcpy(cur_ip_mbrs, full->gs_ip_addrs, num_cur_ip_mbrs * sizeof(tk_gs_ip_addr));
    }
  }
  // Full first: a notification with both full and delta bits is a full one.
  if (type & TK_GS_SUBSCRIPTION_MEMBERSHIP) {
    ProcessAdapterInfo(n->gs_full_ip_membership, TK_GS_SUBSCRIPTION_MEMBERSHIP, -1);
  } else if (type & TK_GS_SUBSCRIPTION_DELTA_JOIN) {
    ProcessAdapterInfo(n->gs_changing_ip_membership, TK_GS_SUBSCRIPTION_DELTA_JOIN, -1);
  } else if (type & TK_GS_SUBSCRIPTION_DELTA_LEAVE) {
    ProcessAdapterInfo(n->gs_changing_ip_membership, TK_GS_SUBSCRIPTION_DELTA_LEAVE, -1);
  }
  if (mediator) mediator->postSyncEvent(0);
  return TK_GS_CALLBACK_OK;
}

void AMRawSubscriber::recordLocalAdapter(const tk_gs_adapter_info_t& info, const tk_gs_ip_addr& ip, int isUp) {
  NameText name(info);
  AMAdapterState state;
  state.interfacename = name.text;
  state.ipaddr = v4Of(ip);
  state.nodenumber = static_cast<int16_t>(info.gs_node_number);
  state.isUp = isUp;
  AM_TRACE(TRACE_DEBUG) << "_adapterState.isUp = " << state.isUp << endl;
  if (mediator == nullptr) return;
  mediator->listOfAdapter.putIntoList(state);
  mediator->appendMember(name.text);
}

void AMRawSubscriber::ProcessAdapterInfo(tk_gs_adapter_ip_membership_t* list, tk_gs_subscription_ctrl_t command,
                                         int _targetnode) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMRawSubscriber::ProcessAdapterInfo()");
  if (command != TK_GS_SUBSCRIPTION_MEMBERSHIP && command != TK_GS_SUBSCRIPTION_DELTA_JOIN &&
      command != TK_GS_SUBSCRIPTION_DELTA_LEAVE) {
    AM_TRACE(TRACE_DEBUG) << "ProcessAdapterInfo Unknown command-type " << static_cast<int>(command)
                          << " will be ignored" << endl;
    return;
  }
  // A notification without an IP list is an empty one.
  unsigned count = (list != nullptr && list->gs_ip_addrs != nullptr) ? list->gs_count : 0;
  AM_TRACE(TRACE_DEBUG) << " Begin Processing AdapterInfo" << endl;
  AM_TRACE(TRACE_DEBUG) << "_entries = " << count << endl;
  const int isUp = command != TK_GS_SUBSCRIPTION_DELTA_LEAVE ? 1 : 0;
  GSLocalVar<tk_gs_provider_t> providers(count + 1);
  tk_gs_membership_t membership;
  membership.gs_count = 0;
  membership.gs_providers = providers.ptr();
  const bool detailed = TRACEABLE(TRACE_DEBUG);
  const bool localView = AMController::has_NAM_LocalView_Adapters != 0;
  const bool ml0ForIB = isML0ForIBSupported() != 0;

  for (unsigned i = 0; i < count; ++i) {
    const tk_gs_ip_addr& ip = list->gs_ip_addrs[i];
    tk_gs_adapter_info_t info;
    tk_gs_rc_t rc = lookupAdapterInfo(&ip, &info);
    if (rc != TK_GS_OK) {
      AddrText addr(ip);
      AM_TRACE(TRACE_ERROR) << " Error in tk_gs_get_adapter_info, " << "ip=" << addr.text
                            << ", rc=" << gscl_rc_name(rc) << " and ignored" << endl;
      continue;
    }
    NameText name(info);
    const int node = info.gs_node_number;
    const bool local = node == static_cast<int>(myNodeNumber);
    if (!isSwitchAdapter(name.text)) {
      if (detailed) {
        AddrText addr(ip);
        AM_TRACE(TRACE_DEBUG) << "IPAddr=" << addr.text << ", interface=" << name.text
                              << "_tmpAdapterStatus = " << isUp << endl;
      }
      membership.gs_providers[membership.gs_count++] =
          gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(_idxFromInterfaceName(name.text)));
      if (ml0ForIB && isIBAdapter(name.text) && local) recordLocalAdapter(info, ip, isUp);
      continue;
    }
    if (_targetnode == -1 || _targetnode == node) {
      int instance = getNetworkFromSwitchInterfaceName(name.text);
      if (instance < 0) instance = _idxFromInterfaceName(name.text);
      if (detailed) {
        AddrText addr(ip);
        AM_TRACE(TRACE_DEBUG) << "IPAddr=" << addr.text << ", interface=" << name.text
                              << " is a switch. Add this to List" << endl;
      }
      if (local) recordLocalAdapter(info, ip, isUp);
      if (localView) {
        membership.gs_providers[membership.gs_count++] =
            gsMakeProvider(static_cast<uint16_t>(node), static_cast<uint16_t>(instance));
      }
    } else if (detailed) {
      AddrText addr(ip);
      AM_TRACE(TRACE_DEBUG) << "IPAddr=" << addr.text << ", interface=" << name.text
                            << " is NOT a switch, or not on target node=" << _targetnode
                            << ". Update veltnamNetInfoList" << endl;
    }
  }
  AMTableUpdateObserverFn observer = tableUpdateObserver.load();
  if (observer) observer(isUp, &membership);
  if (AMController::pGAdapterCfgTbl) AMController::pGAdapterCfgTbl->updateAdapterStateWithLock(isUp, &membership, 1);
  AM_TRACE(TRACE_DEBUG) << " Finish Processing AdapterInfo" << endl;
}

void AMRawSubscriber::ReprocessAdaptersOnNode(int node) {
  AM_TRACE(TRACE_ERROR) << "ReprocessAdaptersOnNode (node=" << node << ")" << endl;
  {
    GSWriteGuard hold(ipLock_);
    tk_gs_adapter_ip_membership_t stored;
    stored.gs_count = num_cur_ip_mbrs;
    stored.gs_ip_addrs = cur_ip_mbrs;
    ProcessAdapterInfo(&stored, TK_GS_SUBSCRIPTION_MEMBERSHIP, node);
  }
  if (mediator) mediator->postSyncEvent(0);
}

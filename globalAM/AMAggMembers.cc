// The aggregator's group services clients: the listeners on the cooked
// groups, this node's provider in the aggregate group and the subscriber
// that watches it.
#include <string.h>

#include "AMAggregator.h"
#include "AMController.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"

namespace {

constexpr int kHourSecs = 3600;
constexpr int kRequestRateSecs = 3;
constexpr int kLeaveTimeLimitSecs = 300;
constexpr const char* kAggClientName = "AggMediator";
constexpr unsigned kDeltaSubscription = TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE;

}  // namespace

// ------------------------------------------------------- cooked subscriber

AMCookedSubscriber::AMCookedSubscriber(AMAggregator* aggregator, const char* groupName, int netnum)
    : GSSubscriber(groupName, kDeltaSubscription),
      agg_mediator(aggregator),
      at_subscribing(kHourSecs),
      at_delayed_err(kHourSecs),
      at_severe_err(kHourSecs),
      at_sub_rate(kRequestRateSecs),
      networknum(netnum) {
  traceId_.format("AggSub[%s,T=%d]", groupName ? groupName : "", netnum);
}

AMCookedSubscriber::~AMCookedSubscriber() {
  // No callback may reach the members below once they start to go.
  unregister();
}

tk_gs_rc_t AMCookedSubscriber::subscribeGroup() {
  if (!at_sub_rate.hit()) return TK_GS_NOT_OK;
  tk_gs_rc_t rc = GSSubscriber::subscribeGroup();
  if (rc != TK_GS_OK && at_subscribing.hit()) {
    AM_TRACE(TRACE_ERROR) << traceId_.c_str() << " subscribeGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  }
  return rc;
}

int AMCookedSubscriber::trySubscribeGroup() {
  if (getClientState() != GS_IAM_IDLE) return 2;
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (table == nullptr || table->checkRawDevices() == 2) {
    AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << "No switches are locally defined." << endl;
    return 3;
  }
  bool wanted = false;
  if (AMController::domainType == kCLUSTER) {
    const uint64_t id64 = isIBenv.load() ? networkId64.load() : 0;
    wanted = table->AdapterConfiguredOnNetwork(networknum, id64) != 0;
  } else if (AMController::domainType == kQUIL && agg_mediator != nullptr) {
    wanted = agg_mediator->configuredOnNetwork(networknum);
  }
  if (!wanted) return 3;
  AMtracef(TRACE_FYI, "trySubscribe %s\n", getGroupName());
  tk_gs_rc_t rc = subscribeGroup();
  AMtracef(TRACE_FYI, "trySubscribe %s tried.\n", getGroupName());
  return rc == TK_GS_OK ? 1 : 0;
}

void AMCookedSubscriber::told_src_provider_updated() {
  at_sub_rate.reset();
  if (agg_mediator) agg_mediator->postSyncEvent(kAggEvtWakeup);
}

tk_gs_callback_rc_t AMCookedSubscriber::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSSubscriber::delayedErrorCb(n);
  traceSubscriptionDelayedError(traceId_.c_str(), getGroupName(), n, at_delayed_err, at_severe_err);
  if (agg_mediator) agg_mediator->postSyncEvent(kAggEvtWakeup);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCookedSubscriber::subscribeCb(const tk_gs_subscription_notification_t* n) {
  GSSubscriber::subscribeCb(n);
  if (n != nullptr) {
    const unsigned type = n->gs_subscription_type;
    if (type & (TK_GS_SUBSCRIPTION_DISSOLVED | TK_GS_SUBSCRIPTION_GS_HAS_DIED)) {
      AM_TRACE(TRACE_ERROR) << traceId_.c_str() << ": " << getGroupName() << " is dissolved" << endl;
    }
    // A fresh notification means the next failures are news again.
    at_subscribing.reset();
    at_delayed_err.reset();
    at_severe_err.reset();
    at_sub_rate.reset();
    if (agg_mediator) agg_mediator->getAggProvider()->at_join_rate.reset();
    // The cooked members stand for adapters that are up; the adapter table
    // learns them here unless it keeps its own local view.
    AMGlobalAdapterTable* table =
        AMController::has_NAM_LocalView_Adapters ? nullptr : AMController::pGAdapterCfgTbl;
    if (type & TK_GS_SUBSCRIPTION_MEMBERSHIP) {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " InitialMbrs " << n->gs_full_membership << endl;
      if (table && n->gs_full_membership) table->updateAdapterStateWithLock(1, n->gs_full_membership, 1);
    } else if (type & TK_GS_SUBSCRIPTION_DELTA_JOIN) {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " JoinMbrs  " << n->gs_changing_membership << endl;
      if (table && n->gs_changing_membership) table->updateAdapterStateWithLock(1, n->gs_changing_membership, 1);
    } else if (type & TK_GS_SUBSCRIPTION_DELTA_LEAVE) {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << " Leaving " << n->gs_changing_membership << endl;
      if (table && n->gs_changing_membership) table->updateAdapterStateWithLock(0, n->gs_changing_membership, 1);
    } else {
      AM_TRACE(TRACE_DEBUG) << traceId_.c_str() << "Other flags:" << gscl_subscription_type_names(type) << endl;
    }
  }
  if (agg_mediator) agg_mediator->postSyncEvent(kAggEvtMembership);
  return TK_GS_CALLBACK_OK;
}

// ---------------------------------------------------- aggregate provider

AMAggProvider::AMAggProvider(AMAggregator* aggregator, const char* groupName, short instance)
    : GSProvider(groupName, static_cast<uint16_t>(instance), kAggClientName),
      agg_mediator(aggregator),
      at_joining(kHourSecs),
      at_delayed_err(kHourSecs),
      at_join_rate(kRequestRateSecs) {
  // As the cooked groups, but the aggregate group has no source group.
  tk_gs_group_attributes_t attr = daemonGroupAttributes(getGroupName(), nullptr);
  tk_gs_rc_t rc = setGroupAttributes(&attr);
  if (rc != TK_GS_OK) {
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " setGroupAttributes returns " << gscl_rc_name(rc) << endl;
  }
}

AMAggProvider::~AMAggProvider() { unregister(); }

void AMAggProvider::wakeAggregator() {
  if (agg_mediator) agg_mediator->postSyncEvent(kAggEvtWakeup);
}

tk_gs_rc_t AMAggProvider::joinGroup() {
  if (!at_join_rate.hit()) return TK_GS_NOT_OK;
  at_joining.reset();
  at_delayed_err.reset();
  tk_gs_rc_t rc = GSProvider::joinGroup();
  AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " JoinGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  return rc;
}

tk_gs_rc_t AMAggProvider::LeaveOrGoodbyeGroup() {
  tk_gs_rc_t rc = goodbyeGroup();
  if (rc == TK_GS_NOT_SUPPORTED || rc == TK_GS_BACKLEVEL_PROVIDERS) {
    // Back-level providers refuse goodbye: leave by protocol instead (the
    // daemon is never restarted for the aggregate group).
    rc = leaveGroup(1, TK_GS_1_PHASE, kLeaveTimeLimitSecs);
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " leaveGroup() returns" << gscl_rc_name(rc) << endl;
    return rc;
  }
  AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " goodbyeGroup() returns" << gscl_rc_name(rc) << endl;
  return rc;
}

tk_gs_callback_rc_t AMAggProvider::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSProvider::delayedErrorCb(n);
  if (n) {
    const unsigned level = at_delayed_err.hit() ? TRACE_ERROR : TRACE_DEBUG;
    AM_TRACE(level) << getTraceIdStr() << ": " << gscl_request_name(n->gs_request_type)
                    << " delayedRC=" << gscl_rc_name(n->gs_delayed_return_code) << endl;
  }
  wakeAggregator();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMAggProvider::approvedCb(const tk_gs_approved_notification_t* n) {
  GSProvider::approvedCb(n);
  at_joining.reset();
  at_delayed_err.reset();
  at_join_rate.reset();
  traceApproval(getTraceIdStr(), n);
  wakeAggregator();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMAggProvider::rejectedCb(const tk_gs_rejected_notification_t* n) {
  GSProvider::rejectedCb(n);
  at_joining.reset();
  at_delayed_err.reset();
  at_join_rate.reset();
  wakeAggregator();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMAggProvider::announcementCb(const tk_gs_announcement_notification_t* n) {
  GSProvider::announcementCb(n);
  AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << ": Received "
                        << (n ? gscl_summary_code_names(n->gs_summary_code) : "") << endl;
  at_joining.reset();
  at_delayed_err.reset();
  wakeAggregator();
  return TK_GS_CALLBACK_OK;
}

// --------------------------------------------------- aggregate subscriber

AMAggSubscriber::AMAggSubscriber(AMAggregator* a, const char* groupName)
    : GSSubscriber(groupName, kDeltaSubscription),
      aggregator(a),
      at_subscribing(kHourSecs),
      at_delayed_err(kHourSecs),
      at_severe_err(kHourSecs),
      at_sub_rate(kRequestRateSecs) {}

AMAggSubscriber::~AMAggSubscriber() { unregister(); }

tk_gs_rc_t AMAggSubscriber::subscribeGroup() {
  if (!at_sub_rate.hit()) return TK_GS_NOT_OK;
  tk_gs_rc_t rc = GSSubscriber::subscribeGroup();
  if (rc != TK_GS_OK && at_subscribing.hit()) {
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " subscribeGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  }
  return rc;
}

tk_gs_callback_rc_t AMAggSubscriber::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSSubscriber::delayedErrorCb(n);
  traceSubscriptionDelayedError(getTraceIdStr(), getGroupName(), n, at_delayed_err, at_severe_err);
  if (aggregator) aggregator->postSyncEvent(kAggEvtWakeup);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMAggSubscriber::subscribeCb(const tk_gs_subscription_notification_t* n) {
  GSSubscriber::subscribeCb(n);
  if (n != nullptr && (n->gs_subscription_type & (TK_GS_SUBSCRIPTION_DISSOLVED | TK_GS_SUBSCRIPTION_GS_HAS_DIED))) {
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << ": " << getGroupName() << " is dissolved" << endl;
  }
  at_subscribing.reset();
  at_delayed_err.reset();
  at_severe_err.reset();
  at_sub_rate.reset();
  if (aggregator) aggregator->postSyncEvent(kAggEvtWakeup);
  return TK_GS_CALLBACK_OK;
}

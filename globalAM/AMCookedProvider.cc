// The cooked provider: one local adapter's membership in the cooked group
// of its network, or in the all-switch (all-InfiniBand) group.
#include <string.h>
#include <time.h>

#include "AMController.h"
#include "AMMediator.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"

namespace {

constexpr int kHourSecs = 3600;
constexpr int kJoinRateSecs = 3;
constexpr const char* kCookedClientName = "TolkBrel";
// Refused joins of a group that cannot be joined are traced at most this
// often per period, so that a cluster without the group does not flood the
// log.
constexpr time_t kJoinTracePeriodSecs = 600;
constexpr int kJoinTracesPerPeriod = 100;

// Process-wide and unlocked: a lost update only changes how many traces are
// written.
time_t joinTracePeriodStart = 0;
int joinTracePrintCount = 0;

time_t monotonicNow() {
  struct timespec ts = {0, 0};
  cu_get_monotonic_time(&ts);
  return ts.tv_sec;
}

}  // namespace

void traceApproval(const char* traceId, const tk_gs_approved_notification_t* n) {
  if (n == nullptr) return;
  const tk_gs_proposal_t* p = n->gs_proposal;
  const unsigned changed = p ? p->gs_whats_changed : 0;
  if (n->gs_protocol_type == TK_GS_JOIN) {
    if (changed & TK_GS_PROPOSED_MEMBERSHIP) {
      AM_TRACE(TRACE_DEBUG) << traceId << " JoinMbrs:" << p->gs_changing_providers << endl;
    } else if (changed & TK_GS_UPDATED_MEMBERSHIP) {
      AM_TRACE(TRACE_DEBUG) << traceId << " CurMbrs:" << p->gs_current_providers << endl;
    }
  } else if (n->gs_protocol_type == TK_GS_FAILURE_LEAVE || n->gs_protocol_type == TK_GS_LEAVE) {
    if (changed & TK_GS_PROPOSED_MEMBERSHIP) {
      AM_TRACE(TRACE_DEBUG) << traceId << gscl_summary_code_names(n->gs_summary_code)
                            << " FailMbrs: " << p->gs_changing_providers << endl;
    } else if (changed & TK_GS_UPDATED_MEMBERSHIP) {
      AM_TRACE(TRACE_DEBUG) << traceId << " CurMbrs: " << p->gs_current_providers << endl;
    }
  } else {
    AM_TRACE(TRACE_DEBUG) << traceId << "Other protocol approval" << endl;
  }
}

AMCookedProvider::AMCookedProvider(AMMediator* m, const char* groupName, int netnum, int is_sxnall,
                                   const char* represent, short instance, uint64_t netnum64)
    : GSProvider(groupName, static_cast<uint16_t>(instance), kCookedClientName),
      mediator(m),
      at_joining(kHourSecs),
      at_delayed_err(kHourSecs),
      at_join_rate(kJoinRateSecs),
      is_sxnall_member(is_sxnall),
      network_num(netnum),
      network_num64(netnum64),
      represent_name(represent),
      device_present(0) {
  AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << " Create: Group=" << (groupName ? groupName : "")
                        << " NetId=" << netnum << " IsSxnAll=" << is_sxnall
                        << " Represent=" << (represent ? represent : "") << " Instance=" << instance << endl;
  applyGroupAttributes();
}

AMCookedProvider::~AMCookedProvider() {
  // No callback may reach the members below once they start to go.
  unregister();
}

void AMCookedProvider::resetJoinTraceThrottleForTesting() {
  joinTracePeriodStart = 0;
  joinTracePrintCount = 0;
}

int AMCookedProvider::joinTracePrintCountForTesting() { return joinTracePrintCount; }

tk_gs_rc_t AMCookedProvider::applyGroupAttributes() {
  tk_gs_group_attributes_t attr = daemonGroupAttributes(getGroupName(), kSxnRawMembershipName);
  return setGroupAttributes(&attr);
}

const char* AMCookedProvider::getCookedMembershipName() {
  // currentNumbersOfNetworks counts the InfiniBand group names made so far.
  if (currentNumbersOfNetworks.load() > 0) {
    return is_sxnall_member ? kIbAllMembershipName : getGroupName();
  }
  return is_sxnall_member ? kSxnAllMembershipName : GET_SW_MEMBERSHIP_GROUP(network_num);
}

AMCookedSubscriber* AMCookedProvider::get_dst_subscriber() {
  AMAggregator* aggregator = mediator ? mediator->getAggregator() : nullptr;
  return aggregator ? aggregator->getCookedSubByNetworkID(network_num) : nullptr;
}

void AMCookedProvider::notifyAndWake() {
  AMCookedSubscriber* listener = get_dst_subscriber();
  if (listener) listener->told_src_provider_updated();
  if (mediator) mediator->wakeup(0);
}

tk_gs_rc_t AMCookedProvider::joinGroup() {
  AM_TRACE(TRACE_FSM) << "CookedProvider::joinGroup (" << getTraceIdStr() << ")" << endl;
  // At most one request every 3 seconds reaches group services.
  if (!at_join_rate.hit()) return TK_GS_NOT_OK;
  tk_gs_rc_t rc = GSProvider::joinGroup();
  time_t now = monotonicNow();
  if (joinTracePeriodStart != 0 && now - joinTracePeriodStart > kJoinTracePeriodSecs) joinTracePeriodStart = 0;
  if (joinTracePeriodStart == 0) {
    joinTracePeriodStart = now;
    joinTracePrintCount = 0;
  }
  if (rc == TK_GS_INVALID_GROUP) {
    if (joinTracePrintCount < kJoinTracesPerPeriod) {
      AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " JoinGroup[" << getGroupName()
                            << "] returns sync_rc=" << gscl_rc_name(rc) << endl;
      joinTracePrintCount++;
    }
  } else {
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << " JoinGroup[" << getGroupName()
                          << "] returns sync_rc=" << gscl_rc_name(rc) << endl;
  }
  at_joining.reset();
  at_delayed_err.reset();
  return rc;
}

tk_gs_rc_t AMCookedProvider::LeaveOrGoodbyeGroup() {
  tk_gs_rc_t rc = goodbyeGroup();
  if (rc != TK_GS_NOT_SUPPORTED && rc != TK_GS_BACKLEVEL_PROVIDERS) {
    AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << " goodbyeGroup() returns " << gscl_rc_name(rc) << endl;
    return rc;
  }
  // Goodbye is refused because some provider runs an older level. For
  // network 0 with nothing else joined, restarting the whole daemon is the
  // cleaner way out.
  bool restart = strcmp(getGroupName(), "sxnMembership") == 0;
  if (restart && mediator) {
    for (int i = 0; i < mediator->getNumOfCookedProviders(); ++i) {
      AMCookedProvider* other = mediator->getCookedProvider(i);
      if (other && other != this && other->getClientState() == GS_IAM_JOINED) restart = false;
    }
  }
  if (restart) {
    AM_TRACE(TRACE_ERROR) << getTraceIdStr() << "There must be a old-level node which does not support "
                          << "goodbye protocol. Fortunately, no sxn1 or ml0 "
                          << " are currently joined. So, tolkvask will be restarted." << endl;
    AMController* ctl = amController();
    if (ctl) {
      // The controller's stop code ends the process with code 9, after
      // which the daemon is restarted.
      ctl->setStopCode(9, "tolkvask will be restarted");
    }
    return TK_GS_OK;
  }
  return leaveGroup(1, TK_GS_1_PHASE, 300);
}

int AMCookedProvider::changeAttachedNetwork(int netnum) {
  AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << " ChangeAttachedNetwork: Group=" << getCookedMembershipName()
                        << " NetId=" << network_num << " will be changed to NetId=" << netnum
                        << " is_sxnall=" << is_sxnall_member << endl;
  if (!IsValidNetworkID(netnum)) {
    AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << " NetworkId " << netnum << " is not valid " << endl;
    return TK_GS_OK;
  }
  if (netnum != network_num && getClientState() == GS_IAM_JOINED) {
    AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << " different NetID is detected. So goodbye() will be executed"
                          << endl;
    goodbyeGroup();
  }
  network_num = netnum;
  const char* name = getCookedMembershipName();
  if (name) setGroupName(name);
  return applyGroupAttributes();
}

tk_gs_callback_rc_t AMCookedProvider::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSProvider::delayedErrorCb(n);
  if (n) {
    unsigned level = at_delayed_err.hit() ? TRACE_ERROR : TRACE_DEBUG;
    AM_TRACE(level) << getTraceIdStr() << ": " << gscl_request_name(n->gs_request_type)
                    << " delayedRC=" << gscl_rc_name(n->gs_delayed_return_code) << endl;
  }
  notifyAndWake();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCookedProvider::approvedCb(const tk_gs_approved_notification_t* n) {
  GSProvider::approvedCb(n);
  at_joining.reset();
  at_delayed_err.reset();
  at_join_rate.reset();
  traceApproval(getTraceIdStr(), n);
  notifyAndWake();
  AM_TRACE(TRACE_DEBUG) << "Left approvedCb()" << endl;
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCookedProvider::rejectedCb(const tk_gs_rejected_notification_t* n) {
  GSProvider::rejectedCb(n);
  at_joining.reset();
  at_delayed_err.reset();
  at_join_rate.reset();
  notifyAndWake();
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCookedProvider::announcementCb(const tk_gs_announcement_notification_t* n) {
  GSProvider::announcementCb(n);
  AM_TRACE(TRACE_DEBUG) << getTraceIdStr() << ": Announcement Received "
                        << (n ? gscl_summary_code_names(n->gs_summary_code) : "") << endl;
  at_joining.reset();
  at_delayed_err.reset();
  notifyAndWake();
  return TK_GS_CALLBACK_OK;
}

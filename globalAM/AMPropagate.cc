#include "AMPropagate.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "AMController.h"
#include "AMNetIf.h"
#include "TraceStream.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "sw_NAM_calls.h"
#include "tk_gs_tolkvaskd_msg.h"
#include "vx_cu.h"

std::mutex readyctrl_lock;
std::mutex delayctrl_lock;

namespace {

const char* const kPrefix = AMPropagator::kTracePrefix;
// Error-log template of a refresh command that could not do its job (a
// failed fork, a child killed at its time limit): "GS_ERROR_ER".
constexpr long kLabelRefreshFailed = 4;

time_t monoSeconds() {
  struct timespec ts = {0, 0};
  cu_get_monotonic_time(&ts);
  return ts.tv_sec;
}

bool inClusterDomain() { return AMController::domainType == kCLUSTER; }

// The protocols roll once the first configuration is settled; before that
// a configuration is committed locally only.
bool protocolsRolling() {
  AMController* ctl = amController();
  return ctl != nullptr && ctl->readyToRoll.get() != 0;
}

void allowRolling() {
  AMController* ctl = amController();
  if (ctl != nullptr) ctl->allowReadyToRoll();
}

long long monoMillis() {
  struct timespec now = {0, 0};
  cu_get_monotonic_time(&now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool exiting() {
  AMController* ctl = amController();
  return ctl != nullptr && ctl->AmIExiting();
}

}  // namespace

// ---------------------------------------------------------------------------
// AMCfgProvider

AMCfgProvider::AMCfgProvider(AMPropagator* owner)
    : GSProvider(kGroupName, static_cast<int>(myNodeNumber), kProviderName),
      at_joining(3600),
      at_delayed_err(3600),
      propagator(owner),
      at_join_rate(5),
      at_cfg_state_rate(2),
      activeNodeList(MaxNodesInDomain) {
  tk_gs_group_attributes_t attr = daemonGroupAttributes(kGroupName, nullptr);
  tk_gs_rc_t rc = setGroupAttributes(&attr);
  if (rc != TK_GS_OK) AM_TRACE(TRACE_ERROR) << "setGroupAttributes of " << kGroupName << " returns " << gscl_rc_name(rc) << endl;
}

AMCfgProvider::~AMCfgProvider() { unregister(); }

void AMCfgProvider::resetHitters() {
  std::lock_guard<std::mutex> hold(hitterMu_);
  at_joining.reset();
  at_delayed_err.reset();
}

void AMCfgProvider::resetCfgStateRate() {
  std::lock_guard<std::mutex> hold(hitterMu_);
  at_cfg_state_rate.reset();
}

bool AMCfgProvider::hitCfgStateRate() {
  std::lock_guard<std::mutex> hold(hitterMu_);
  return at_cfg_state_rate.hit();
}

int AMCfgProvider::remainingSecsToJoin() {
  std::lock_guard<std::mutex> hold(hitterMu_);
  return at_join_rate.remaining_secs_to_hit();
}

tk_gs_rc_t AMCfgProvider::joinGroup() {
  {
    std::lock_guard<std::mutex> hold(hitterMu_);
    if (!at_join_rate.hit()) return static_cast<tk_gs_rc_t>(1);
  }
  tk_gs_rc_t rc = GSProvider::joinGroup();
  {
    std::lock_guard<std::mutex> hold(hitterMu_);
    at_joining.reset();
  }
  AM_TRACE(TRACE_FYI) << kPrefix << " JoinGroup returns sync_rc=" << gscl_rc_name(rc) << endl;
  return rc;
}

int AMCfgProvider::issueStateChange(AMCfgInfo& id) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMCfgProvider::issueStateChange()");
  if (sc_protocol_issued.get()) {
    AM_TRACE(TRACE_FYI) << kPrefix << " I already issued the protocol..." << endl;
    return 0;
  }
  AM_TRACE(TRACE_FYI) << kPrefix << " propagation of config is initiated with id=" << id << endl;
  pending_cfg_info.copyFrom(id);
  tk_gs_state_value_t value;
  char* buffer = nullptr;
  if (!pending_cfg_info.construct_state_value(&value, buffer)) return -1;
  // Marked before the request: its approval may be dispatched before the
  // request returns, and must find the mark to clear.
  sc_protocol_issued = 1;
  pending_state_change = 1;
  tk_gs_rc_t rc = changeStateValue(&value, TK_GS_N_PHASE, kStateChangeTimeLimit);
  delete[] buffer;
  AM_TRACE(TRACE_FYI) << kPrefix << " issueStateChange returns sync_rc = " << gscl_rc_name(rc) << endl;
  if (rc != TK_GS_OK) {
    sc_protocol_issued = 0;
    pending_state_change = 0;
  }
  return rc;
}

int AMCfgProvider::voteApproveIfPending(int can_die) {
  {
    // The dispatch thread and the propagator thread may both come here for
    // the same phase; only one of them votes.
    std::lock_guard<std::mutex> hold(voteMu_);
    if (!vote_is_pending.get()) return 0;
    vote_is_pending = 0;
  }
  tk_gs_rc_t rc = vote(TK_GS_VOTE_APPROVE, nullptr, nullptr, TK_GS_NO_VOTE);
  if (rc != TK_GS_OK) {
    AM_TRACE(TRACE_FYI) << kPrefix << " Error on vote rc=" << gscl_rc_name(rc) << endl;
    if (can_die) {
      char text[200];
      snprintf(text, sizeof text, "tolkvask vote() returns error=%s", gscl_rc_name(rc));
      AM_TRACE(TRACE_ERROR) << text << endl;
    }
  }
  return rc;
}

int AMCfgProvider::issueBroadcastHarvest() {
  AMtracef(AM_TRACEF_DEBUG, "AMCfgProvider::issueBroadcastHarvest\n");
  // The message's content is not read: its arrival is the request.
  char body[] = "harvest";
  tk_gs_provider_message_t msg;
  msg.gs_length = static_cast<int>(sizeof body);
  msg.gs_message = body;
  tk_gs_rc_t rc = send_message(&msg, TK_GS_1_PHASE, 0);
  if (rc != TK_GS_OK) AM_TRACE(TRACE_FYI) << kPrefix << " issueBroadcastHarvest returns " << gscl_rc_name(rc) << endl;
  return rc;
}

tk_gs_callback_rc_t AMCfgProvider::nPhaseCb(const tk_gs_n_phase_notification_t* n) {
  GSProvider::nPhaseCb(n);
  {
    std::lock_guard<std::mutex> hold(hitterMu_);
    at_delayed_err.reset();
  }
  if (n == nullptr) return TK_GS_CALLBACK_OK;
  const tk_gs_proposal_t* p = n->gs_proposal;
  if (n->gs_protocol_type == TK_GS_CHANGE_STATE_VALUE && p != nullptr) {
    AM_TRACE(TRACE_FYI) << kPrefix << ": StateChange nPhaseCB " << ", curstate:" << p->gs_current_state_value
                        << ", proposed:" << p->gs_proposed_state_value << endl;
    AMCfgInfo id;
    id.obtain_from_state_value(p->gs_proposed_state_value);
    if (!id.isSame(propagator->aggip_current_cfg_info()) && !id.isSame(propagator->aggip_proposed_cfg_info())) {
      AM_TRACE(TRACE_FYI) << kPrefix << " I received a new config_id=" << id << endl;
      // The vote waits until this node has read the configuration.
      vote_is_pending = 1;
      propagator->remoteRefreshRequested(id);
    } else {
      vote_is_pending = 1;
      voteApproveIfPending(0);
    }
  } else {
    AM_TRACE(TRACE_FYI) << kPrefix << " nPhaseCb of " << gscl_request_name(n->gs_protocol_type) << endl;
    vote_is_pending = 1;
    voteApproveIfPending(0);
  }
  propagator->postSyncEvent(PEVT_NO_EVENT);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCfgProvider::approvedCb(const tk_gs_approved_notification_t* n) {
  GSProvider::approvedCb(n);
  resetHitters();
  if (n == nullptr) return TK_GS_CALLBACK_OK;
  const tk_gs_proposal_t* p = n->gs_proposal;
  switch (n->gs_protocol_type) {
    case TK_GS_JOIN:
    case TK_GS_LEAVE:
    case TK_GS_FAILURE_LEAVE:
    case TK_GS_EXPEL:
    case TK_GS_GOODBYE: {
      GSMembershipList members;
      getMembers(&members);
      tk_gs_membership_t view = members.asMembership();
      AM_TRACE(TRACE_FYI) << kPrefix << " approvedCb " << gscl_request_name(n->gs_protocol_type)
                          << " membership" << &view << endl;
      // Members of the group run a daemon, so their nodes are no longer
      // stopped.
      AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
      activeNodeList.clearAll();
      for (unsigned i = 0; i < members.count(); ++i) {
        int node = members[i].gs_provider_fields.gs_node_number;
        activeNodeList.set(static_cast<size_t>(node));
        if (table != nullptr) table->resetIsNodeStoppedBit(node);
      }
      if (table != nullptr) reflect_NAM_changes();
      if (members.count() > 0 && members[0].gs_provider_fields.gs_node_number == myNodeNumber && !iAmGL.load()) {
        iAmGL = 1;
        AM_TRACE(TRACE_FYI) << kPrefix << " I become a GL." << endl;
        propagator->postSyncEvent(PEVT_BECOME_GL_EVENT);
      }
      bool iJoined = false;
      if (n->gs_protocol_type == TK_GS_JOIN && p != nullptr && p->gs_changing_providers != nullptr &&
          p->gs_changing_providers->gs_providers != nullptr) {
        tk_gs_provider_t me = getProviderId();
        for (unsigned i = 0; i < p->gs_changing_providers->gs_count; ++i)
          if (p->gs_changing_providers->gs_providers[i].gs_provider_id == me.gs_provider_id) iJoined = true;
      }
      if (iJoined) {
        // A joining node catches up with the group's configuration; the
        // first node of a group, which finds none, reads its own file.
        AMCfgInfo id;
        id.copyFrom(propagator->aggip_proposed_cfg_info());
        if (p->gs_current_state_value != nullptr) id.obtain_from_state_value(p->gs_current_state_value);
        const bool groupHasNoId = p->gs_current_state_value == nullptr || p->gs_current_state_value->gs_length < 4;
        if (!id.isSame(propagator->aggip_proposed_cfg_info())) {
          propagator->aggip_proposed_cfg_info().copyFrom(id);
          propagator->refreshRequested(id);
        } else if (!protocolsRolling()) {
          propagator->refreshRequested(id);
        } else if (groupHasNoId) {
          // Back in a group that starts empty (it was dissolved when
          // partitions merged): the file is read again and its id committed
          // and offered, so that the group carries the id again and a
          // daemon that joins later catches up with it.
          propagator->refreshRequested(id);
        }
      }
      break;
    }
    case TK_GS_CHANGE_STATE_VALUE: {
      const tk_gs_state_value_t* before = p ? p->gs_current_state_value : nullptr;
      const tk_gs_state_value_t* after = p ? p->gs_proposed_state_value : nullptr;
      AM_TRACE(TRACE_FYI) << kPrefix << " StateChange approved summary=" << gscl_summary_code_names(n->gs_summary_code)
                          << " old:" << before << " new:" << after << endl;
      AMCfgInfo id;
      id.copyFrom(propagator->aggip_proposed_cfg_info());
      if (after != nullptr) id.obtain_from_state_value(after);
      // Our change is over once its value is approved; another node's
      // approval leaves a change of ours that waits behind it in flight.
      if (id.isSame(pending_cfg_info)) {
        sc_protocol_issued = 0;
        pending_state_change = 0;
      }
      if (!id.isSame(propagator->aggip_proposed_cfg_info())) propagator->aggip_proposed_cfg_info().copyFrom(id);
      propagator->readyToCommit(id);
      break;
    }
    case TK_GS_PROVIDER_MESSAGE:
      // A harvest request of the leader: every node harvests.
      AM_TRACE(TRACE_FYI) << kPrefix << " provider message approved" << endl;
      propagator->postSyncEvent(PEVT_HARVEST_NOW_EVENT);
      break;
    default:
      break;
  }
  propagator->postSyncEvent(PEVT_NO_EVENT);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCfgProvider::rejectedCb(const tk_gs_rejected_notification_t* n) {
  GSProvider::rejectedCb(n);
  AM_TRACE(TRACE_FYI) << kPrefix << ": rejectCb " << (n ? gscl_request_name(n->gs_protocol_type) : "") << endl;
  resetHitters();
  if (sc_protocol_issued.get()) {
    sc_protocol_issued = 0;
    propagator->postSyncEvent(PEVT_PROPAGATE_RETRY_REQUESTED);
  } else {
    propagator->postSyncEvent(PEVT_NO_EVENT);
    resetCfgStateRate();
  }
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCfgProvider::announcementCb(const tk_gs_announcement_notification_t* n) {
  GSProvider::announcementCb(n);
  AM_TRACE(TRACE_FYI) << kPrefix << ": Announcement received "
                      << (n ? gscl_summary_code_names(n->gs_summary_code) : "") << endl;
  if (n != nullptr && (n->gs_summary_code & TK_GS_GROUP_SERVICES_HAS_DIED) != 0) {
    AM_TRACE(TRACE_FYI) << "Group Services daemon died...exiting" << endl;
    propagator->groupServicesDied();
  }
  if (n != nullptr && (n->gs_summary_code & TK_GS_GROUP_DISSOLVED) != 0) {
    // Partitions merged and the group was dissolved: this node leads
    // nothing now. The propagator's loop joins the new group, and the
    // first member to get there leads it.
    iAmGL = 0;
  }
  propagator->postSyncEvent(PEVT_NO_EVENT);
  return TK_GS_CALLBACK_OK;
}

tk_gs_callback_rc_t AMCfgProvider::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  GSProvider::delayedErrorCb(n);
  if (n == nullptr) return TK_GS_CALLBACK_OK;
  bool loud;
  {
    std::lock_guard<std::mutex> hold(hitterMu_);
    loud = at_delayed_err.hit();
  }
  AM_TRACE(loud ? TRACE_FYI : TRACE_DEBUG) << kPrefix << " " << gscl_request_name(n->gs_request_type)
                                           << " delayedRC=" << gscl_rc_name(n->gs_delayed_return_code) << endl;
  if (n->gs_request_type == TK_GS_PROVIDER_MESSAGE) propagator->postSyncEvent(PEVT_HARVEST_DELAY_REQ_EVENT);
  if (n->gs_request_type == TK_GS_JOIN && n->gs_delayed_return_code == TK_GS_DUPLICATE_INSTANCE_NUMBER) {
    long now = static_cast<long>(monoSeconds());
    long first = begin_dup_instance.load();
    if (first == 0) {
      begin_dup_instance = now;
    } else if (now - first > kDupInstanceLimitSecs) {
      // The text says 10 minutes; the limit is 45. Both are kept as known.
      AM_TRACE(TRACE_ERROR) << "tolkvask keeps receiving DUP_INSTANCE about 10 mins" << endl;
      AMController* ctl = amController();
      if (ctl != nullptr) ctl->RequestToExit();
    }
  }
  if (sc_protocol_issued.get()) {
    sc_protocol_issued = 0;
    propagator->postSyncEvent(PEVT_PROPAGATE_RETRY_REQUESTED);
  } else {
    propagator->postSyncEvent(PEVT_NO_EVENT);
  }
  return TK_GS_CALLBACK_OK;
}

// ---------------------------------------------------------------------------
// AMPropagator

AMPropagator::AMPropagator() : cfg_provider(new AMCfgProvider(this)) {}

AMPropagator::~AMPropagator() { delete cfg_provider; }

int AMPropagator::postSyncEvent(_AMProEventType event) { return GSThread::postSyncEvent(static_cast<int>(event)); }

int AMPropagator::waitSyncEvent(_AMProEventType* event, int secs, int usecs) {
  int raw = PEVT_CFG_UNKNOWN;
  int rc = GSThread::waitSyncEvent(&raw, secs, usecs);
  if (event != nullptr) *event = rc == 0 ? static_cast<_AMProEventType>(raw) : PEVT_CFG_UNKNOWN;
  return rc;
}

int AMPropagator::removeMatchingSyncEvents(_AMProEventType type) {
  std::vector<int> kept;
  int dropped = 0;
  int e;
  while (popSyncEvent(&e) == 0) {
    if (e == type) {
      ++dropped;
    } else {
      kept.push_back(e);
    }
  }
  for (int k : kept) pushSyncEvent(k);
  return dropped;
}

void AMPropagator::refreshCompleted(int rc) {
  refresh_pid = -1;
  refresh_retcode = rc;
  postSyncEvent(PEVT_BUILDCFG_PROC_DONE);
}

void AMPropagator::refreshRequested() {
  if (inClusterDomain()) return;
  AM_TRACE(TRACE_FYI) << kPrefix << " refreshRequested, refresh_pid=" << static_cast<long>(refresh_pid.load())
                      << " new id = " << proposed_cfg_info << endl;
  if (refresh_pid.load() == -1) {
    proposed_remotely = 0;
    postSyncEvent(PEVT_BUILDCFG_REQUESTED);
  }
}

void AMPropagator::refreshRequested(AMCfgInfo& id) {
  if (inClusterDomain()) return;
  AM_TRACE(TRACE_FYI) << kPrefix << " refreshRequested, refresh_pid=" << static_cast<long>(refresh_pid.load())
                      << " new id = " << id << endl;
  if (refresh_pid.load() == -1) {
    proposed_remotely = 0;
    postSyncEvent(PEVT_BUILDCFG_REQUESTED);
  }
}

void AMPropagator::remoteRefreshRequested(AMCfgInfo& id) {
  if (!id.isSame(aggip_cfg_info) && !id.isSame(proposed_cfg_info)) proposed_cfg_info.copyFrom(id);
  proposed_remotely = 1;
  postSyncEvent(PEVT_BUILDCFG_REQUESTED);
}

void AMPropagator::readyToCommit(AMCfgInfo& id) {
  AM_TRACE(TRACE_FYI) << kPrefix << " Tell the propagator that new_cfg is ready to commit" << " ID=" << id << endl;
  proposed_cfg_info.copyFrom(id);
  postSyncEvent(PEVT_CFG_READY_TO_COMMIT);
}

void AMPropagator::loadNewConfigRequested() { postSyncEvent(PEVT_NO_EVENT); }

void AMPropagator::groupServicesDied() {
  struct timespec now = {0, 0};
  cu_get_monotonic_time(&now);
  long long deadline = static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000 + kGsDiedGraceMsecs;
  long long none = 0;
  exit_deadline_ms_.compare_exchange_strong(none, deadline);
  postSyncEvent(PEVT_WAKEUP_EVENT);
}

bool AMPropagator::exitAfterGroupServicesDied(Wait* wait) {
  long long deadline = exit_deadline_ms_.load();
  if (deadline == 0) return false;
  struct timespec now = {0, 0};
  cu_get_monotonic_time(&now);
  long long left = deadline - (static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000);
  if (left <= 0) {
    AMController* ctl = amController();
    if (ctl != nullptr) ctl->RequestToExit();
    exit_deadline_ms_ = -1;  // asked once
    return true;
  }
  long long waitMs = wait->secs < 0 ? -1 : static_cast<long long>(wait->secs) * 1000 + wait->usecs / 1000;
  if (waitMs < 0 || waitMs > left) {
    wait->secs = static_cast<int>(left / 1000);
    wait->usecs = static_cast<int>(left % 1000) * 1000;
  }
  return false;
}

void AMPropagator::postPeerNodeEventReady() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  ++pending_pn_evt_cnt;
  postSyncEvent(PEVT_TRIGGER_CONFIG_EVENT);
}

void AMPropagator::postNetInterfaceEventReady() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  ++pending_ni_evt_cnt;
  postSyncEvent(PEVT_TRIGGER_CONFIG_EVENT);
}

void AMPropagator::clearPendingPeerNodeEvent() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  pending_pn_evt_cnt = 0;
}

void AMPropagator::clearPendingNetInterfaceEvent() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  pending_ni_evt_cnt = 0;
}

int AMPropagator::pendingPeerNodeEvents() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  return pending_pn_evt_cnt;
}

int AMPropagator::pendingNetInterfaceEvents() {
  std::lock_guard<std::mutex> hold(readyctrl_lock);
  return pending_ni_evt_cnt;
}

int AMPropagator::postDelayedDownEvent() {
  std::lock_guard<std::mutex> hold(delayctrl_lock);
  ++pending_delayed_down_cnt;
  postSyncEvent(PEVT_TRIGGER_DELAYED_DOWNS);
  return 1;
}

void AMPropagator::clearDelayedDownEvent() {
  std::lock_guard<std::mutex> hold(delayctrl_lock);
  pending_delayed_down_cnt = 0;
}

bool AMPropagator::ObtainAggCfgFor(AMAggCfg& cfg, const char* name) {
  std::lock_guard<std::mutex> hold(listMu_);
  return aggip_cfg_list.CopyTo(cfg, name);
}

bool AMPropagator::isCfgProviderActive() const {
  return cfg_provider != nullptr && cfg_provider->getClientState() != GS_IAM_IDLE;
}

int AMPropagator::isGL() const { return cfg_provider != nullptr ? cfg_provider->isGL() : 0; }

void AMPropagator::statusLines(bool canonical) {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  auto text = [canonical](int n) { return canonical ? getmsg_tk_gs_tolkvaskd_def(n) : getmsg_tk_gs_tolkvaskd(n); };
  // The mediators' and aggregators' lines come first.
  if (canonical) {
    doAllMediatorsCanonicalLongStatus();
    doAllAggregatorsCanonicalLongStatus();
  } else {
    doAllMediatorsLongStatus();
    doAllAggregatorsLongStatus();
  }
  ctl->inform_printf("%s", text(26));
  pid_t pid = refresh_pid.load();
  if (pid != -1) ctl->inform_printf(text(27), static_cast<int>(pid));
  ctl->inform_printf(text(28), aggip_cfg_info.getCfgIdStr().c_str());
  std::lock_guard<std::mutex> hold(listMu_);
  aggip_cfg_list.informToSRC(ctl);
}

void AMPropagator::doLongStatus() { statusLines(false); }

void AMPropagator::doCanonicalLongStatus() { statusLines(true); }

int AMPropagator::initiateRefreshProcess() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMPropagator::initiateRefreshProcess()");
  if (inClusterDomain()) {
    AM_TRACE(TRACE_FYI) << "RPD. Refresh starts" << endl;
    refreshCompleted(0);
    return 0;
  }
  pid_t running = refresh_pid.load();
  if (running != -1) {
    AM_TRACE(TRACE_FYI) << "A child process(pid=" << static_cast<long>(running)
                        << ") is already running to read the AggIP configuration." << endl;
    return 0;
  }
  if (getenv("SW_HERDLET_AGGIP_CFG") == nullptr || getenv("HA_DOMAIN_TYPE") == nullptr) {
    AM_TRACE(TRACE_FYI) << " Environment variables(SW_HERDLET_AGGIP_CFG," << "HA_DOMAIN_TYPE) must be set" << endl;
    return -1;
  }
  const char* command = refresh_cmd;
  const int timeoutSecs = refreshTimeoutSecs();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec. The child leads
    // a process group of its own, so that a refresh that runs too long is
    // killed together with whatever it started.
    setpgid(0, 0);
    execl(command, command, "-c", "refresh", static_cast<char*>(nullptr));
    _exit(0);
  }
  if (pid < 0) {
    int err = errno;
    char text[128];
    AM_TRACE(TRACE_ERROR) << TraceLabel(kLabelRefreshFailed) << "Error [" << cu_strerror(err, text, sizeof text)
                          << "] forking the startup-script for refresh." << endl;
    return -1;
  }
  // Also here, so that the group exists before any kill; the child may
  // have done it first (or already exec'd), which is as good.
  setpgid(pid, pid);
  refresh_pid = pid;
  refresh_timeout_secs_ = timeoutSecs;
  refresh_deadline_ms_ = monoMillis() + static_cast<long long>(timeoutSecs) * 1000;
  AM_TRACE(TRACE_FYI) << "A child process(pid=" << static_cast<long>(pid) << ") is created by '" << command
                      << " -c refresh' " << endl;
  return 0;
}

int AMPropagator::refreshTimeoutSecs() {
  const char* text = getenv("SW_HERDLET_REFRESH_TIMEOUT_SECS");
  if (text == nullptr) return kDefaultRefreshTimeoutSecs;
  char* end = nullptr;
  errno = 0;
  long secs = strtol(text, &end, 10);
  // Digits only: no sign, no blanks, nothing after the number.
  if (text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0 && secs >= 1 &&
      secs <= kMaxRefreshTimeoutSecs) {
    return static_cast<int>(secs);
  }
  // The value is shown cut short: the environment is not ours to bound.
  std::string shown(text, strnlen(text, 64));
  AM_TRACE(TRACE_WARNING) << kPrefix << " SW_HERDLET_REFRESH_TIMEOUT_SECS=\"" << shown.c_str()
                          << "\" is not a number of seconds from 1 to " << kMaxRefreshTimeoutSecs
                          << "; the refresh child gets " << kDefaultRefreshTimeoutSecs << " seconds." << endl;
  return kDefaultRefreshTimeoutSecs;
}

void AMPropagator::enforceRefreshTimeLimit() {
  if (refresh_deadline_ms_ == 0) return;
  const pid_t pid = refresh_pid.load();
  if (pid == -1) {
    refresh_deadline_ms_ = 0;  // reaped in time
    return;
  }
  if (monoMillis() + 1 < refresh_deadline_ms_) return;
  refresh_deadline_ms_ = 0;
  // The child's end reaches us as any other (SIGCHLD, the controller reaps
  // it) and counts as a failed refresh, after which refreshes run again.
  int rc = kill(-pid, SIGKILL);
  if (rc != 0 && errno == ESRCH) rc = kill(pid, SIGKILL);  // no group of its own
  int err = rc != 0 ? errno : 0;
  killedRefreshes_.fetch_add(1);
  char errText[128];
  AM_TRACE(TRACE_ERROR) << TraceLabel(kLabelRefreshFailed) << "The refresh child process(pid="
                        << static_cast<long>(pid) << ") did not end within " << refresh_timeout_secs_
                        << " seconds. " << (err == 0 ? "It was killed with its process group" : "Killing it failed: ")
                        << (err == 0 ? "" : cu_strerror(err, errText, sizeof errText)) << "; the refresh failed."
                        << endl;
}

void AMPropagator::ReadAndPropagateAggConfig() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMPropagator::ReadAndPropagateAggConfig()");
  int childStatus = refresh_retcode.load();
  if (childStatus != 0) {
    refresh_retcode = 0;
    if (protocolsRolling()) {
      // A refresh child that failed is reported by the controller; its
      // refresh is ignored and the configuration in use stays.
      AM_TRACE(TRACE_FYI) << kPrefix << " refresh ended with status=" << childStatus << ", not read again" << endl;
      ignoredRefreshes_.fetch_add(1);
      return;
    }
    // At start-up there is no configuration in use to keep: a site without
    // aggregate devices (no file, or one the refresh command rejects) must
    // still get its adapter membership, so the file is read as it is and
    // an empty configuration is what the daemon starts with.
    AM_TRACE(TRACE_WARNING) << kPrefix << " refresh ended with status=" << childStatus
                            << ", starting with the aggregate configuration as it reads now" << endl;
  }
  AMAggCfgList fresh;
  const char* path = getenv("SW_HERDLET_AGGIP_CFG");
  int lines = fresh.ReadConfig(path);
  reads_.fetch_add(1);
  AM_TRACE(TRACE_FYI) << "Number of successful lines of AGGIP_CFG = " << lines << endl;

  if (!protocolsRolling()) {
    {
      std::lock_guard<std::mutex> hold(listMu_);
      aggip_cfg_list.CopyCfgListFrom(fresh);
    }
    AM_TRACE(TRACE_FYI) << "Read the initial configuration" << " CfgId=" << aggip_cfg_list.cfgID << endl;
    proposed_cfg_list.CopyCfgListFrom(fresh);
    proposed_cfg_info.copyFrom(fresh.cfgID);
    if (TRACEABLE(TRACE_FYI)) AMtracef(0x10, "Proposed_Cfg_ID=%s\n", proposed_cfg_info.getCfgIdStr().c_str());
    AMCfgInfo id(proposed_cfg_info);
    readyToCommit(id);
    return;
  }
  if (lines < 0) return;
  AM_TRACE(TRACE_FYI) << "Need to incorporate the new config if not already used" << endl;
  bool same;
  {
    std::lock_guard<std::mutex> hold(listMu_);
    same = fresh.AreTheySame(aggip_cfg_list);
  }
  if (!same) {
    AM_TRACE(TRACE_FYI) << "The new config is different from the old ones" << endl;
  } else {
    AM_TRACE(TRACE_FYI) << "The new config is still same as before, " << "but it will be incorporated again." << endl;
  }
  proposed_cfg_list.CopyCfgListFrom(fresh);
  proposed_cfg_info.copyFrom(fresh.cfgID);
  if (TRACEABLE(TRACE_FYI)) AMtracef(0x10, "new proposed_id = %s\n", proposed_cfg_info.getCfgIdStr().c_str());
  if (same) {
    AMCfgInfo id(proposed_cfg_info);
    readyToCommit(id);
    return;
  }
  if (protocolsRolling()) {
    AMtracef(0x10, "Propose new protocol\n");
    postSyncEvent(proposed_remotely.load() ? PEVT_NO_EVENT : PEVT_PROPAGATE_REQUESTED);
  } else {
    AMCfgInfo id(proposed_cfg_info);
    readyToCommit(id);
  }
}

void AMPropagator::defer(Deferred* deferred, _AMProEventType event, Wait* wait, int secs) {
  deferred->event = event;
  deferred->dueMs = monoMillis() + secs * 1000LL;
  wait->secs = secs;
  wait->usecs = 0;
}

void AMPropagator::proposeConfig(_AMProEventType event, Wait* wait, Deferred* deferred) {
  if (proposed_cfg_info.isSame(aggip_cfg_info)) {
    AM_TRACE(TRACE_FYI) << kPrefix << ": I already have the latest config" << endl;
    return;
  }
  AM_TRACE(TRACE_FYI) << "ISSUE: new cfg_info=" << proposed_cfg_info << " current_info=" << aggip_cfg_info << endl;
  if (event == PEVT_PROPAGATE_REQUESTED) cfg_provider->resetCfgStateRate();
  int rc = -1;
  if (cfg_provider->hitCfgStateRate()) {
    proposals_.fetch_add(1);
    rc = cfg_provider->issueStateChange(proposed_cfg_info);
  } else {
    rateRefusals_.fetch_add(1);
  }
  if (rc != 0) defer(deferred, PEVT_PROPAGATE_RETRY_REQUESTED, wait, 3);
}

void AMPropagator::CommitProposedAggConfig() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMPropagator::CommitProposedAggConfig()");
  AM_TRACE(TRACE_FYI) << "Start CommitAggConfig" << endl;
  {
    std::lock_guard<std::mutex> hold(listMu_);
    aggip_cfg_list.CopyCfgListFrom(proposed_cfg_list);
  }
  if (!proposed_cfg_info.isSame(aggip_cfg_info)) {
    aggip_cfg_info.copyFrom(proposed_cfg_info);
    AM_TRACE(TRACE_FYI) << "Commit the new configuration id=" << aggip_cfg_info << endl;
  }
  commits_.fetch_add(1);
  AMController* ctl = amController();
  if (ctl != nullptr) ctl->set_configuration_has_changed(aggip_cfg_info);
  // Offer the committed id to the group, unless the group holds it
  // already (offering it again would only be approved and committed again)
  // or another node's proposal is what this commit follows (offering ours
  // would undo it).
  AMCfgInfo groupId;
  std::string value;
  bool groupHasIt = false;
  bool groupHasAnother = false;
  if (cfg_provider->getStateValue(&value) == TK_GS_OK && value.size() >= 4) {
    tk_gs_state_value_t sv;
    sv.gs_length = static_cast<int>(value.size());
    sv.gs_state = const_cast<char*>(value.data());
    groupId.obtain_from_state_value(&sv);
    AMCfgInfo erased;
    groupHasIt = groupId.isSame(aggip_cfg_info);
    groupHasAnother = !groupHasIt && !groupId.isSame(erased);
  }
  if (groupHasAnother && !protocolsRolling()) {
    // A daemon that starts in a running cluster takes up the cluster's
    // configuration; a file left over from before must not take the other
    // nodes back to it. The operator brings the file up to date and
    // refreshes; until then this node says what it runs.
    AM_TRACE(TRACE_WARNING) << kPrefix << " The aggregate configuration file has id " << aggip_cfg_info
                            << ", the other nodes run id " << groupId
                            << ": this node runs its own file and does not offer it to them; bring the file up to "
                               "date and refresh"
                            << endl;
  } else if (!groupHasIt && !proposed_remotely.load() && cfg_provider->getClientState() == GS_IAM_JOINED) {
    cfg_provider->issueStateChange(aggip_cfg_info);
  }
  // Another node's proposal is committed under its id with this node's own
  // masks: when this node's file says another id, the nodes may run
  // different masks under one id. Said once for each such pair of ids, so
  // that the operator finds the node whose file differs.
  AMCfgInfo fileId(proposed_cfg_list.cfgID);
  AMCfgInfo erasedId;
  const std::string mismatch = fileId.getCfgIdStr() + "/" + aggip_cfg_info.getCfgIdStr();
  const bool differs = protocolsRolling() && !fileId.isSame(erasedId) && !fileId.isSame(aggip_cfg_info);
  if (!differs) fileMismatchSaid_.clear();
  if (differs && mismatch != fileMismatchSaid_) {
    fileMismatchSaid_ = mismatch;
    AM_TRACE(TRACE_WARNING) << kPrefix << " This node's aggregate configuration file has id " << fileId
                            << ", the committed configuration id is " << aggip_cfg_info
                            << ": bring the file up to date, or the nodes may run different masks under one id"
                            << endl;
  }
  if (!protocolsRolling()) {
    AM_TRACE(TRACE_FYI) << "Start to roll the protocols.." << endl;
    allowRolling();
  }
}

bool AMPropagator::harvestAndCheck() {
  AMController* ctl = amController();
  int pn = 0;
  int ni = 0;
  if (ctl != nullptr) {
    pn = ctl->harvestGblPeerNodes();
    ni = ctl->harvestGblNetworkInterfaces();
  }
  int raw = AMController::pGAdapterCfgTbl ? AMController::pGAdapterCfgTbl->checkRawDevices() : 0;
  return !(pn < 0 && ni < 0 && raw != 0);
}

void AMPropagator::wakeMediatorsAndMonitor() {
  AMController* ctl = amController();
  if (ctl == nullptr) return;
  ctl->wakeupAllMediators(0);
  ctl->wakeupCfgMonitor(0);
}

void* AMPropagator::run(void*) {
  TraceClient client(TraceStream::traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << kPrefix << " Thread started." << endl;
  Wait wait;
  // An event the loop takes up by itself once its time has come, unless
  // the wait is cut short by other events, which leave it pending.
  Deferred deferred;
  bool firstJoined = true;
  // The first round joins the configuration group without waiting for
  // another thread to wake us.
  postSyncEvent(PEVT_NO_EVENT);

  while (!exiting()) {
    if (getThreadState() == GS_THREAD_STOPPING) return nullptr;
    if (TRACEABLE(TRACE_DEBUG))
      AM_TRACE(TRACE_DEBUG) << kPrefix << " waitSyncEvent for " << wait.secs << " secs, " << wait.usecs << " usecs"
                            << endl;
    AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
    bool batching = pendingPeerNodeEvents() > 0 || pendingNetInterfaceEvents() > 0;
    if (!batching && table != nullptr && table->IsThereADelayedDownEvent()) {
      struct timeval due = {0, 0};
      if (table->computeNextWaitTime(&due)) {
        long long dueUs = static_cast<long long>(due.tv_sec) * 1000000 + due.tv_usec;
        long long waitUs = static_cast<long long>(wait.secs) * 1000000 + wait.usecs;
        if (wait.secs < 0 || waitUs > dueUs) {
          wait.secs = static_cast<int>(due.tv_sec);
          wait.usecs = static_cast<int>(due.tv_usec);
        }
      }
    }
    if (batching && (wait.secs < 0 || wait.secs > 0 || wait.usecs > kBatchWindowUsecs)) {
      wait.secs = 0;
      wait.usecs = kBatchWindowUsecs;
    }
    // After the group services daemon died, the dispatch thread normally
    // ends the process with its own stop code; should it not, we ask for
    // the exit once the grace time is over.
    if (exit_deadline_ms_.load() > 0 && exitAfterGroupServicesDied(&wait)) continue;
    const Wait roundWait = wait;
    if (deferred.event != PEVT_CFG_UNKNOWN) {
      long long left = std::max(0LL, deferred.dueMs - monoMillis());
      long long waitMs = wait.secs < 0 ? -1 : wait.secs * 1000LL + wait.usecs / 1000;
      if (waitMs < 0 || waitMs > left) {
        wait.secs = static_cast<int>(left / 1000);
        wait.usecs = static_cast<int>(left % 1000) * 1000;
      }
    }

    // A running refresh child is waited for no longer than its time limit.
    if (refresh_deadline_ms_ != 0 && refresh_pid.load() != -1) {
      long long left = std::max(0LL, refresh_deadline_ms_ - monoMillis());
      long long waitMs = wait.secs < 0 ? -1 : wait.secs * 1000LL + wait.usecs / 1000;
      if (waitMs < 0 || waitMs > left) {
        wait.secs = static_cast<int>(left / 1000);
        wait.usecs = static_cast<int>(left % 1000) * 1000;
      }
    }

    _AMProEventType event = PEVT_CFG_UNKNOWN;
    int rc = waitSyncEvent(&event, wait.secs, wait.usecs);
    if (rc == -1) return nullptr;  // the thread was asked to stop
    const bool timedOut = rc != 0;
    if (timedOut && deferred.event != PEVT_CFG_UNKNOWN && monoMillis() + 1 >= deferred.dueMs) {
      event = deferred.event;
      deferred = Deferred();
      AM_TRACE(TRACE_FYI) << "No event occured, but there was a pending event=" << static_cast<int>(event) << endl;
    }
    if (TRACEABLE(TRACE_DEBUG))
      AM_TRACE(TRACE_DEBUG) << kPrefix << " Got a syncEvent " << static_cast<int>(event) << " waitrcode=" << rc << endl;
    wait = Wait();
    if (exiting()) break;
    enforceRefreshTimeLimit();

    GSClientState state = cfg_provider->getClientState();
    if (state == GS_IAM_IDLE) {
      if (inClusterDomain() && table != nullptr) {
        bool harvested;
        {
          GSReadGuard hold(*table);
          harvested = table->isHarvested() != 0;
        }
        if (!harvested) {
          AMtracef(0x10, "The initial harvest is not done yet...Wait more\n");
          continue;
        }
      }
      AM_TRACE(TRACE_FYI) << kPrefix << " Joining " << AMCfgProvider::kGroupName << endl;
      int retry = 0;
      if (cfg_provider->joinGroup() != TK_GS_OK) {
        retry = cfg_provider->remainingSecsToJoin();
        if (retry <= 0) retry = 1;
        wait.secs = retry;
      }
      // Configuration work asked for before the join is kept for later.
      if (event >= PEVT_BUILDCFG_REQUESTED && event <= PEVT_PROPAGATE_RETRY_REQUESTED &&
          deferred.event == PEVT_CFG_UNKNOWN)
        defer(&deferred, event, &wait, retry);
      if (retry == 0) wait = Wait();
      continue;
    }
    if (state == GS_IAM_JOINING) {
      wait.secs = 3;
      if (event >= PEVT_BUILDCFG_REQUESTED && event <= PEVT_PROPAGATE_RETRY_REQUESTED &&
          deferred.event == PEVT_CFG_UNKNOWN)
        defer(&deferred, event, &wait, 3);
      continue;
    }

    if (firstJoined) {
      firstJoined = false;
      if (inClusterDomain() && !protocolsRolling()) {
        AM_TRACE(TRACE_FYI) << "Start to roll the protocols.." << endl;
        allowRolling();
      }
      AM_TRACE(TRACE_FYI) << kPrefix << " TOLKVASK is now being active to do its job." << endl;
    }

    if (timedOut && batching) {
      AMtracef(0x10, "No more batching events are waiting.. Reharvest\n");
      removeMatchingSyncEvents(PEVT_TRIGGER_CONFIG_EVENT);
      AMController* ctl = amController();
      int pn = 0;
      int ni = 0;
      if (inClusterDomain() && ctl != nullptr) {
        pn = ctl->harvestGblPeerNodes();
        ni = ctl->harvestGblNetworkInterfaces();
      }
      batchHarvests_.fetch_add(1);
      if (!(pn < 0 && ni < 0)) {
        clearPendingPeerNodeEvent();
        clearPendingNetInterfaceEvent();
        postSyncEvent(PEVT_HARVEST_IMMED_REQ_EVENT);
        wakeMediatorsAndMonitor();
        wait.secs = 0;
      } else {
        wait.secs = 3;
      }
      if (event == PEVT_TRIGGER_CONFIG_EVENT) continue;
    }
    if (timedOut && table != nullptr && table->IsThereADelayedDownEvent()) {
      removeMatchingSyncEvents(PEVT_TRIGGER_DELAYED_DOWNS);
      clearDelayedDownEvent();
      table->processDelayedDownEvents();
    }

    switch (event) {
      case PEVT_TRIGGER_CONFIG_EVENT:
        if (!timedOut && inClusterDomain()) {
          wait.secs = 0;
          wait.usecs = kBatchWindowUsecs;
          removeMatchingSyncEvents(PEVT_TRIGGER_CONFIG_EVENT);
        }
        break;
      case PEVT_TRIGGER_DELAYED_DOWNS:
        if (!timedOut && inClusterDomain() && table != nullptr) {
          struct timeval due = {0, 0};
          if (table->computeNextWaitTime(&due)) {
            wait.secs = static_cast<int>(due.tv_sec);
            wait.usecs = static_cast<int>(due.tv_usec);
          }
          removeMatchingSyncEvents(PEVT_TRIGGER_DELAYED_DOWNS);
          clearDelayedDownEvent();
        }
        break;
      case PEVT_BECOME_GL_EVENT:
        AMtracef(0x10, "This node is becoming GL for AMCfgMonitor.\n");
        if (!inClusterDomain()) {
          wait.secs = 0;
          break;
        }
        if (!harvestAndCheck()) {
          if (cfg_provider->isGL()) defer(&deferred, PEVT_BECOME_GL_EVENT, &wait, 3);
          break;
        }
        postSyncEvent(PEVT_HARVEST_IMMED_REQ_EVENT);
        wakeMediatorsAndMonitor();
        wait.secs = 0;
        break;
      case PEVT_HARVEST_IMMED_REQ_EVENT:
      case PEVT_HARVEST_REG_REQ_EVENT:
        AMtracef(0x10, "GL detects a config change and notifies all to refresh\n");
        if (!cfg_provider->isGL()) {
          AM_TRACE(TRACE_FYI) << "This node is not GL. Nothing to do..." << endl;
          break;
        }
        if (cfg_provider->issueBroadcastHarvest() != TK_GS_OK) {
          defer(&deferred, PEVT_HARVEST_REG_REQ_EVENT, &wait, 3);
        } else {
          AMtracef(0x10, "GL issued a config change notification\n");
          wait.secs = 0;
        }
        break;
      case PEVT_HARVEST_DELAY_REQ_EVENT:
        defer(&deferred, PEVT_HARVEST_REG_REQ_EVENT, &wait, 3);
        break;
      case PEVT_HARVEST_NOW_EVENT:
        AMtracef(0x10, "A new harvestGblNodesAndNI is requested\n");
        harvestRequests_.fetch_add(1);
        if (!inClusterDomain()) {
          wait.secs = 0;
          break;
        }
        if (!harvestAndCheck()) break;
        wakeMediatorsAndMonitor();
        wait.secs = 0;
        break;
      case PEVT_HARVEST_NOTIFY_DONE_EVENT:
        wakeMediatorsAndMonitor();
        wait.secs = 0;
        break;
      case PEVT_CHECK_REFRESH_DONE: {
        AMController* ctl = amController();
        if (ctl != nullptr) ctl->checkRefreshProcess();
        wait.secs = roundWait.secs;
        break;
      }
      case PEVT_PROPAGATE_REQUESTED:
      case PEVT_PROPAGATE_RETRY_REQUESTED:
        proposeConfig(event, &wait, &deferred);
        break;
      case PEVT_BUILDCFG_REQUESTED:
        initiateRefreshProcess();
        break;
      case PEVT_BUILDCFG_PROC_DONE:
        ReadAndPropagateAggConfig();
        cfg_provider->voteApproveIfPending(0);
        break;
      case PEVT_CFG_READY_TO_COMMIT:
        CommitProposedAggConfig();
        break;
      case PEVT_NO_EVENT:
      case PEVT_WAKEUP_EVENT:
      case PEVT_CFG_UNKNOWN:
        break;
    }
  }

  // The exit in progress is expected to end the process within 3 seconds;
  // events that still come are not served any more. Only a stop of this
  // thread (which the daemon never asks for) ends the wait early.
  struct timespec start = {0, 0};
  cu_get_monotonic_time(&start);
  for (;;) {
    struct timespec now = {0, 0};
    cu_get_monotonic_time(&now);
    long long leftMs = 3000 - ((now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000);
    if (leftMs <= 0) break;
    int ignored;
    if (GSThread::waitSyncEvent(&ignored, static_cast<int>(leftMs / 1000), static_cast<int>(leftMs % 1000) * 1000) == -1)
      return nullptr;
  }
  AM_TRACE(TRACE_FYI) << kPrefix << " - Prepare to exit" << endl;
  ExitTheProcess(8, "AMPropagator can not stop");
}

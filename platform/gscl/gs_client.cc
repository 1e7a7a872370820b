// GSProvider and GSSubscriber: requests to the agent, the process's client
// registry, and the routing of notifications to their callbacks.
#include "gs_client.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "gs_controller.h"
#include "internal/gs_internal.h"
#include "internal/gs_link.h"

namespace velt_gscl_V1 {

namespace proto = velt::proto;

const char* gscl_client_state_name(int state) {
  switch (state) {
    case GS_IAM_IDLE: return "GS_IAM_IDLE";
    case GS_IAM_JOINING: return "GS_IAM_JOINING";
    case GS_IAM_JOINED: return "GS_IAM_JOINED";
    case GS_IAM_SUBSCRIBING: return "GS_IAM_SUBSCRIBING";
    case GS_IAM_SUBSCRIBED: return "GS_IAM_SUBSCRIBED";
  }
  thread_local char unknown[40];
  snprintf(unknown, sizeof unknown, "GS_IAM_UNKNOWN(%d)", state);
  return unknown;
}

namespace {

// The process's clients and how notifications find them; thread-safe
// through mu. Never destroyed: clients of static storage may outlive every
// other static object.
// Lock order: the callback gate, then mu, then a client's own locks.
struct Registry {
  velt::Mutex mu;
  std::vector<GSClient*> clients GUARDED_BY(mu);   // in order of creation
  std::map<std::pair<std::string, uint16_t>, GSProvider*> providers GUARDED_BY(mu);
  std::map<uint32_t, GSSubscriber*> subscribers GUARDED_BY(mu);
  uint32_t nextSubscriber GUARDED_BY(mu) = 1;
  std::set<std::string> names GUARDED_BY(mu);      // interned group names
  uint64_t nextClient GUARDED_BY(mu) = 1;
};

Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

bool isRegisteredLocked(Registry& r, const GSClient* c) REQUIRES(r.mu) {
  return std::find(r.clients.begin(), r.clients.end(), c) != r.clients.end();
}

uint64_t nextClientNumber() {
  Registry& r = registry();
  velt::MutexLock lk(r.mu);
  return r.nextClient++;
}

// The pieces of one notification in the API's types; valid while it lives.
// Owned by the dispatching thread.
struct Membership {
  std::vector<tk_gs_provider_t> list;
  tk_gs_membership_t m{};
  void fill(const google::protobuf::RepeatedPtrField<proto::ProviderId>& ids) {
    list.clear();
    list.reserve(static_cast<size_t>(ids.size()));
    for (const proto::ProviderId& id : ids) {
      list.push_back(gsMakeProvider(static_cast<uint16_t>(id.node()), static_cast<uint16_t>(id.instance())));
    }
    m.gs_count = static_cast<unsigned int>(list.size());
    m.gs_providers = list.empty() ? nullptr : list.data();
  }
};

// As Membership, for adapter addresses.
struct IpMembership {
  std::vector<tk_gs_ip_addr> list;
  tk_gs_adapter_ip_membership_t m{};
  void fill(const google::protobuf::RepeatedPtrField<proto::AdapterInfo>& infos) {
    list.clear();
    for (const proto::AdapterInfo& a : infos) {
      tk_gs_ip_addr ip;
      memset(&ip, 0, sizeof ip);
      if (a.ip().size() == 16) {
        memcpy(ip.gs_bytes, a.ip().data(), 16);
      } else {
        ip.gs_bytes[10] = 0xff;
        ip.gs_bytes[11] = 0xff;
        memcpy(ip.gs_bytes + 12, a.ip().data(), 4);
      }
      list.push_back(ip);
    }
    m.gs_count = static_cast<unsigned int>(list.size());
    m.gs_ip_addrs = list.empty() ? nullptr : list.data();
  }
};

// A state value or provider message and its API view (same owner).
struct Bytes {
  std::string data;
  tk_gs_state_value_t value{};
  tk_gs_provider_message_t message{};
  void fill(const std::string& d) {
    data = d;
    value.gs_length = static_cast<int>(data.size());
    value.gs_state = &data[0];
    message.gs_length = value.gs_length;
    message.gs_message = value.gs_state;
  }
};

bool containsProvider(const Membership& ms, tk_gs_provider_t p) {
  for (const tk_gs_provider_t& q : ms.list) {
    if (q.gs_provider_id == p.gs_provider_id) return true;
  }
  return false;
}

void fillAttributes(const tk_gs_group_attributes_t& a, const std::string& group, const std::string* source,
                    proto::GroupAttributes* out) {
  out->set_version(a.gs_version);
  out->set_client_version(a.gs_client_version);
  out->set_batch_control(static_cast<uint32_t>(a.gs_batch_control));
  out->set_num_phases(static_cast<uint32_t>(a.gs_num_phases));
  out->set_source_reflection_num_phases(static_cast<uint32_t>(a.gs_source_reflection_num_phases));
  out->set_default_vote(static_cast<uint32_t>(a.gs_group_default_vote));
  out->set_merge_control(static_cast<uint32_t>(a.gs_merge_control));
  out->set_time_limit(static_cast<uint32_t>(a.gs_time_limit));
  out->set_source_reflection_time_limit(static_cast<uint32_t>(a.gs_source_reflection_time_limit));
  out->set_group_name(group);
  if (source != nullptr) out->set_source_group_name(*source);
}

bool validPhases(int n) { return n == TK_GS_1_PHASE || n == TK_GS_N_PHASE; }

// Checks attributes a provider gives; group is the provider's group name.
tk_gs_rc_t checkAttributes(const tk_gs_group_attributes_t& a, const char* group) {
  if (!validPhases(a.gs_num_phases) || !validPhases(a.gs_source_reflection_num_phases)) {
    return TK_GS_BAD_PARAMETER;
  }
  int vote = static_cast<int>(a.gs_group_default_vote);
  if (vote != TK_GS_VOTE_APPROVE && vote != TK_GS_VOTE_REJECT) return TK_GS_BAD_PARAMETER;
  int batch = static_cast<int>(a.gs_batch_control);
  if (batch < TK_GS_NO_BATCHING || batch > TK_GS_BATCH_BOTH) return TK_GS_BAD_PARAMETER;
  if (static_cast<int>(a.gs_merge_control) != TK_GS_DISSOLVE_MERGE) return TK_GS_NOT_SUPPORTED;
  if (a.gs_time_limit < 0 || a.gs_source_reflection_time_limit < 0) return TK_GS_BAD_PARAMETER;
  if (a.gs_group_name != nullptr && strcmp(a.gs_group_name, group) != 0) return TK_GS_BAD_PARAMETER;
  if (a.gs_source_group_name != nullptr && strlen(a.gs_source_group_name) > TK_GS_MAX_GROUP_NAME_LENGTH) {
    return TK_GS_BAD_PARAMETER;
  }
  return TK_GS_OK;
}

}  // namespace

// ---- interned names ----

namespace internal {

const char* internGroupName(const char* name) {
  if (name == nullptr) name = "";
  size_t len = strnlen(name, kMaxInternedName + 1);
  if (len > kMaxInternedName) return nullptr;
  Registry& r = registry();
  velt::MutexLock lk(r.mu);
  auto it = r.names.find(name);
  if (it != r.names.end()) return it->c_str();
  if (r.names.size() >= kMaxInternedNames) return nullptr;
  return r.names.insert(name).first->c_str();
}

bool validGroupName(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  return strnlen(name, TK_GS_MAX_GROUP_NAME_LENGTH + 1) <= TK_GS_MAX_GROUP_NAME_LENGTH;
}

}  // namespace internal

// ---- GSClient ----

namespace {

// Used when a name cannot be kept (too long, too many): requests then fail
// the name check.
const char kUnusableName[] = "";

}  // namespace

GSClient::GSClient(const char* groupName, const std::string& traceId) : traceId_(traceId) {
  const char* interned = internal::internGroupName(groupName);
  if (interned == nullptr) {
    GSDebugPrintf(0, "gscl: %s: its group name cannot be kept (too long, or too many names)", traceId_.c_str());
    interned = kUnusableName;
  }
  groupName_.store(interned);
  Registry& r = registry();
  velt::MutexLock lk(r.mu);
  r.clients.push_back(this);
}

GSClient::~GSClient() { unregister(); }

void GSClient::unregister() {
  velt::RecursiveMutexLock gate(internal::ClientAccess::callbackGate());
  Registry& r = registry();
  velt::MutexLock lk(r.mu);
  r.clients.erase(std::remove(r.clients.begin(), r.clients.end(), this), r.clients.end());
  for (auto it = r.providers.begin(); it != r.providers.end();) {
    it = it->second == this ? r.providers.erase(it) : std::next(it);
  }
  for (auto it = r.subscribers.begin(); it != r.subscribers.end();) {
    it = it->second == this ? r.subscribers.erase(it) : std::next(it);
  }
}

GSClientState GSClient::getClientState() const {
  velt::MutexLock lk(mu_);
  return state_;
}

tk_gs_rc_t GSClient::getMembers(GSMembershipList* out) const {
  if (out == nullptr) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(mu_);
  if (!haveMembers_) {
    out->clear();
    return TK_GS_NOT_OK;
  }
  *out = members_;
  return TK_GS_OK;
}

tk_gs_rc_t GSClient::changeGroupName(const char* name) {
  if (!internal::validGroupName(name)) return TK_GS_BAD_PARAMETER;
  const char* interned = internal::internGroupName(name);
  if (interned == nullptr) return TK_GS_LIMIT_EXCEEDED;
  groupName_.store(interned);
  return TK_GS_OK;
}

void GSClient::setStateLocked(GSClientState s, uint64_t seq) {
  state_ = s;
  stateSeq_ = std::max(stateSeq_, seq);
  if (s == GS_IAM_IDLE) {
    members_.clear();
    haveMembers_ = false;
  }
}

// ---- the routing side ----

velt::RecursiveMutex& internal::ClientAccess::callbackGate() {
  static velt::RecursiveMutex* gate = new velt::RecursiveMutex;
  return *gate;
}

void internal::ClientAccess::deliver(const proto::Notification& n, uint64_t seq, uint16_t node) {
  velt::RecursiveMutexLock gate(callbackGate());
  Registry& r = registry();
  GSProvider* provider = nullptr;
  GSSubscriber* subscriber = nullptr;
  {
    velt::MutexLock lk(r.mu);
    if (n.for_subscriber()) {
      auto it = r.subscribers.find(n.subscriber());
      if (it != r.subscribers.end()) subscriber = it->second;
    } else {
      auto it = r.providers.find({n.group(), static_cast<uint16_t>(n.instance())});
      if (it != r.providers.end()) provider = it->second;
    }
  }
  if (provider == nullptr && subscriber == nullptr) {
    if (gsDetailWanted(GSDebugLevel())) {
      GSDebugPrintf(kGsclDebugRoute, "gscl: notification of kind %d for %s %u of group %s has no client here; dropped",
                    static_cast<int>(n.kind()), n.for_subscriber() ? "subscriber" : "instance",
                    n.for_subscriber() ? n.subscriber() : n.instance(), n.group().c_str());
    }
    return;
  }
  if (provider != nullptr) {
    deliverToProvider(provider, n, seq, node);
  } else {
    deliverToSubscriber(subscriber, n, seq);
  }
}

void internal::ClientAccess::deliverDeath(uint64_t seq) {
  velt::RecursiveMutexLock gate(callbackGate());
  Registry& r = registry();
  std::vector<GSClient*> snapshot;
  {
    velt::MutexLock lk(r.mu);
    snapshot = r.clients;
    r.subscribers.clear();
  }
  for (GSClient* c : snapshot) {
    {
      // A callback before may have destroyed it.
      velt::MutexLock lk(r.mu);
      if (!isRegisteredLocked(r, c)) continue;
    }
    {
      velt::MutexLock lk(c->mu_);
      c->setStateLocked(GS_IAM_IDLE, seq);
    }
    tk_gs_membership_t empty = {0, nullptr};
    if (c->getClientType() == GS_PROVIDER_CLIENT) {
      GSProvider* p = static_cast<GSProvider*>(c);
      {
        velt::MutexLock lk(p->providerMu_);
        p->voteOwed_ = false;
      }
      tk_gs_announcement_notification_t a;
      memset(&a, 0, sizeof a);
      a.gs_notification_type = TK_GS_ANNOUNCEMENT_NOTIFICATION;
      a.gs_group_name = c->getGroupName();
      a.gs_summary_code = TK_GS_GROUP_SERVICES_HAS_DIED;
      a.gs_current_providers = &empty;
      p->announcementCb(&a);
    } else {
      GSSubscriber* s = static_cast<GSSubscriber*>(c);
      s->number_.store(0);
      tk_gs_subscription_notification_t sn;
      memset(&sn, 0, sizeof sn);
      sn.gs_notification_type = TK_GS_SUBSCRIPTION_NOTIFICATION;
      sn.gs_group_name = c->getGroupName();
      sn.gs_subscription_type = TK_GS_SUBSCRIPTION_GS_HAS_DIED;
      sn.gs_full_membership = &empty;
      s->subscribeCb(&sn);
    }
  }
}

void internal::ClientAccess::resetAll(uint64_t seq) {
  Registry& r = registry();
  velt::MutexLock lk(r.mu);
  r.subscribers.clear();
  for (GSClient* c : r.clients) {
    {
      velt::MutexLock clk(c->mu_);
      c->setStateLocked(GS_IAM_IDLE, seq);
    }
    if (c->getClientType() == GS_PROVIDER_CLIENT) {
      GSProvider* p = static_cast<GSProvider*>(c);
      velt::MutexLock plk(p->providerMu_);
      p->voteOwed_ = false;
    } else {
      static_cast<GSSubscriber*>(c)->number_.store(0);
    }
  }
}

void internal::ClientAccess::deliverToProvider(GSProvider* p, const proto::Notification& n, uint64_t seq,
                                               uint16_t node) {
  Membership current;
  Membership changing;
  current.fill(n.current());
  changing.fill(n.changing());
  const tk_gs_provider_t me = gsMakeProvider(node, static_cast<uint16_t>(n.instance()));
  const int type = static_cast<int>(n.protocol_type());
  const bool meChanging = containsProvider(changing, me);
  const bool meCurrent = containsProvider(current, me);
  const bool dissolved = (n.summary_code() & TK_GS_GROUP_DISSOLVED) != 0;
  const bool membershipProtocol =
      type == TK_GS_JOIN || type == TK_GS_LEAVE || type == TK_GS_FAILURE_LEAVE || type == TK_GS_EXPEL;

  // Record what the notification says before the callback runs, so that
  // the callback (and every other thread) sees the new state.
  {
    velt::MutexLock lk(p->mu_);
    if (seq > p->stateSeq_) {
      GSClientState s = p->state_;
      switch (n.kind()) {
        case proto::Notification::APPROVED:
          if (type == TK_GS_JOIN && (meChanging || (s == GS_IAM_JOINING && meCurrent))) {
            s = GS_IAM_JOINED;
          } else if (membershipProtocol && type != TK_GS_JOIN && meChanging) {
            s = GS_IAM_IDLE;
          }
          break;
        case proto::Notification::REJECTED:
          if (type == TK_GS_JOIN && meChanging && s == GS_IAM_JOINING) s = GS_IAM_IDLE;
          break;
        case proto::Notification::DELAYED_ERROR:
          if (n.request_type() == TK_GS_JOIN && s == GS_IAM_JOINING) s = GS_IAM_IDLE;
          break;
        case proto::Notification::ANNOUNCEMENT:
        case proto::Notification::MERGE:
          if (dissolved || (n.summary_code() & TK_GS_GROUP_SERVICES_HAS_DIED) != 0) s = GS_IAM_IDLE;
          break;
        default:
          break;
      }
      if (s != p->state_) p->setStateLocked(s, seq);
      bool carriesMembership = n.kind() == proto::Notification::N_PHASE ||
                               n.kind() == proto::Notification::APPROVED ||
                               n.kind() == proto::Notification::REJECTED;
      if (p->state_ != GS_IAM_IDLE && carriesMembership) {
        p->members_.clear();
        for (const tk_gs_provider_t& q : current.list) p->members_.add(q);
        p->haveMembers_ = true;
      }
    }
  }
  {
    velt::MutexLock lk(p->providerMu_);
    switch (n.kind()) {
      case proto::Notification::N_PHASE:
        p->voteOwed_ = true;
        p->voteProtocol_ = n.protocol();
        p->votePhase_ = n.phase();
        break;
      case proto::Notification::APPROVED:
        if (type == TK_GS_CHANGE_STATE_VALUE && n.has_proposed_state_value()) {
          p->stateValue_ = n.proposed_state_value();
          p->haveStateValue_ = true;
        } else if (n.has_current_state_value()) {
          p->stateValue_ = n.current_state_value();
          p->haveStateValue_ = true;
        }
        if (p->voteOwed_ && p->voteProtocol_ == n.protocol()) p->voteOwed_ = false;
        break;
      case proto::Notification::REJECTED:
        if (n.has_current_state_value()) {
          p->stateValue_ = n.current_state_value();
          p->haveStateValue_ = true;
        }
        if (p->voteOwed_ && p->voteProtocol_ == n.protocol()) p->voteOwed_ = false;
        break;
      case proto::Notification::ANNOUNCEMENT:
      case proto::Notification::MERGE:
        if (dissolved) {
          // The group starts again empty: nothing is owed to it, and its
          // state value went with it.
          p->voteOwed_ = false;
          p->stateValue_.clear();
          p->haveStateValue_ = false;
        }
        break;
      default:
        break;
    }
  }

  switch (n.kind()) {
    case proto::Notification::N_PHASE:
    case proto::Notification::APPROVED:
    case proto::Notification::REJECTED: {
      Bytes currentValue;
      Bytes proposedValue;
      Bytes message;
      tk_gs_proposal_t proposal;
      memset(&proposal, 0, sizeof proposal);
      proposal.gs_whats_changed = n.proposal_changes();
      proposal.gs_current_providers = &current.m;
      if (n.changing_size() > 0 ||
          (n.proposal_changes() & (TK_GS_PROPOSED_MEMBERSHIP | TK_GS_UPDATED_MEMBERSHIP)) != 0) {
        proposal.gs_changing_providers = &changing.m;
      }
      if (n.has_current_state_value()) {
        currentValue.fill(n.current_state_value());
        proposal.gs_current_state_value = &currentValue.value;
      }
      if (n.has_proposed_state_value()) {
        proposedValue.fill(n.proposed_state_value());
        proposal.gs_proposed_state_value = &proposedValue.value;
      }
      if ((n.proposal_changes() & TK_GS_PROVIDER_MESSAGE_PRESENT) != 0) {
        message.fill(n.message());
        proposal.gs_provider_message = &message.message;
      }
      tk_gs_protocol_notification_t pn;
      memset(&pn, 0, sizeof pn);
      pn.gs_group_name = n.group().c_str();
      pn.gs_protocol_type = type;
      pn.gs_summary_code = n.summary_code();
      pn.gs_protocol_number = n.protocol();
      pn.gs_phase_number = n.phase();
      pn.gs_time_limit = static_cast<int>(std::min<uint32_t>(n.time_limit(), INT32_MAX));
      pn.gs_default_vote = static_cast<int>(std::min<uint32_t>(n.default_vote(), INT32_MAX));
      pn.gs_proposal = &proposal;
      if (n.kind() == proto::Notification::N_PHASE) {
        pn.gs_notification_type = TK_GS_N_PHASE_NOTIFICATION;
        p->nPhaseCb(&pn);
      } else if (n.kind() == proto::Notification::APPROVED) {
        pn.gs_notification_type = TK_GS_APPROVED_NOTIFICATION;
        p->approvedCb(&pn);
      } else {
        pn.gs_notification_type = TK_GS_REJECTED_NOTIFICATION;
        p->rejectedCb(&pn);
      }
      return;
    }
    case proto::Notification::ANNOUNCEMENT: {
      tk_gs_announcement_notification_t a;
      memset(&a, 0, sizeof a);
      a.gs_notification_type = TK_GS_ANNOUNCEMENT_NOTIFICATION;
      a.gs_group_name = n.group().c_str();
      a.gs_summary_code = n.summary_code();
      a.gs_current_providers = &current.m;
      p->announcementCb(&a);
      return;
    }
    case proto::Notification::MERGE: {
      tk_gs_merge_notification_t m;
      memset(&m, 0, sizeof m);
      m.gs_notification_type = TK_GS_MERGE_NOTIFICATION;
      m.gs_group_name = n.group().c_str();
      m.gs_summary_code = n.summary_code();
      m.gs_current_providers = &current.m;
      p->mergeCb(&m);
      return;
    }
    case proto::Notification::DELAYED_ERROR: {
      tk_gs_delayed_error_notification_t d;
      memset(&d, 0, sizeof d);
      d.gs_notification_type = TK_GS_DELAYED_ERROR_NOTIFICATION;
      d.gs_group_name = n.group().c_str();
      d.gs_request_type = static_cast<int>(std::min<uint32_t>(n.request_type(), INT32_MAX));
      d.gs_delayed_return_code = n.delayed_rc();
      p->delayedErrorCb(&d);
      return;
    }
    default:
      GSDebugPrintf(0, "gscl: notification of kind %d for a provider of group %s is not known; dropped",
                    static_cast<int>(n.kind()), n.group().c_str());
      return;
  }
}

void internal::ClientAccess::deliverToSubscriber(GSSubscriber* s, const proto::Notification& n, uint64_t seq) {
  const unsigned int type = n.subscription_type();
  bool forget = false;   // the subscription ended on the agent's side
  {
    velt::MutexLock lk(s->mu_);
    if (seq > s->stateSeq_) {
      if (n.kind() == proto::Notification::SUBSCRIPTION) {
        if ((type & (TK_GS_SUBSCRIPTION_DISSOLVED | TK_GS_SUBSCRIPTION_GS_HAS_DIED)) != 0) {
          s->setStateLocked(GS_IAM_IDLE, seq);
          forget = true;
        } else {
          if (s->state_ != GS_IAM_SUBSCRIBED) s->setStateLocked(GS_IAM_SUBSCRIBED, seq);
          s->members_.clear();
          for (const proto::ProviderId& id : n.current()) {
            s->members_.add(gsMakeProvider(static_cast<uint16_t>(id.node()), static_cast<uint16_t>(id.instance())));
          }
          s->haveMembers_ = true;
        }
      } else if (n.kind() == proto::Notification::DELAYED_ERROR && n.delayed_rc() != TK_GS_UNKNOWN_GROUP) {
        // An unknown group keeps the subscription pending until the group
        // appears; any other delayed error ends it.
        s->setStateLocked(GS_IAM_IDLE, seq);
        forget = true;
      }
    }
  }
  if (forget) {
    uint32_t number = n.subscriber();
    uint32_t expected = number;
    s->number_.compare_exchange_strong(expected, 0);
    {
      Registry& r = registry();
      velt::MutexLock lk(r.mu);
      r.subscribers.erase(number);
    }
    if (n.kind() == proto::Notification::SUBSCRIPTION) {
      // The agent may still hold the subscription (a dissolved group it
      // keeps watching); drop it there too, so that subscribing again
      // starts afresh on both sides.
      proto::Request request;
      request.mutable_unsubscribe()->set_group(n.group());
      request.mutable_unsubscribe()->set_subscriber(number);
      ControllerAccess::sendDetached(&request, "unsubscribe after dissolution");
    }
  }

  switch (n.kind()) {
    case proto::Notification::SUBSCRIPTION: {
      Membership full;
      Membership changing;
      IpMembership fullIp;
      IpMembership changingIp;
      full.fill(n.current());
      changing.fill(n.changing());
      tk_gs_subscription_notification_t sn;
      memset(&sn, 0, sizeof sn);
      sn.gs_notification_type = TK_GS_SUBSCRIPTION_NOTIFICATION;
      sn.gs_group_name = n.group().c_str();
      sn.gs_subscription_type = type;
      sn.gs_full_membership = &full.m;
      const unsigned int delta = TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE;
      if ((type & delta) != 0 || n.changing_size() > 0) sn.gs_changing_membership = &changing.m;
      if ((type & TK_GS_SUBSCRIPTION_MEMBERSHIP) != 0 || n.full_ip_size() > 0) {
        fullIp.fill(n.full_ip());
        sn.gs_full_ip_membership = &fullIp.m;
      }
      if ((type & delta) != 0 || n.changing_ip_size() > 0) {
        changingIp.fill(n.changing_ip());
        sn.gs_changing_ip_membership = &changingIp.m;
      }
      s->subscribeCb(&sn);
      return;
    }
    case proto::Notification::DELAYED_ERROR: {
      tk_gs_delayed_error_notification_t d;
      memset(&d, 0, sizeof d);
      d.gs_notification_type = TK_GS_DELAYED_ERROR_NOTIFICATION;
      d.gs_group_name = n.group().c_str();
      d.gs_request_type = static_cast<int>(std::min<uint32_t>(n.request_type(), INT32_MAX));
      d.gs_delayed_return_code = n.delayed_rc();
      s->delayedErrorCb(&d);
      return;
    }
    default:
      GSDebugPrintf(0, "gscl: notification of kind %d for a subscriber of group %s is not known; dropped",
                    static_cast<int>(n.kind()), n.group().c_str());
      return;
  }
}

// ---- GSProvider ----

namespace {

std::string providerTraceId(const char* clientName, int instance, uint64_t number) {
  char text[160];
  snprintf(text, sizeof text, "GSProvider[%.64s/%d #%llu]", clientName != nullptr ? clientName : "",
           instance, static_cast<unsigned long long>(number));
  return text;
}

// The defaults of a provider that set no attributes: one phase, approve,
// no time limits.
tk_gs_group_attributes_t defaultAttributes() {
  tk_gs_group_attributes_t a;
  memset(&a, 0, sizeof a);
  a.gs_version = 2;
  a.gs_sizeof_group_attributes = 44;
  a.gs_batch_control = TK_GS_BATCH_BOTH;
  a.gs_num_phases = TK_GS_1_PHASE;
  a.gs_source_reflection_num_phases = TK_GS_1_PHASE;
  a.gs_group_default_vote = TK_GS_VOTE_APPROVE;
  a.gs_merge_control = TK_GS_DISSOLVE_MERGE;
  return a;
}

// Common checks of a provider request; TK_GS_OK when it may go out.
tk_gs_rc_t checkProvider(const char* group, int instance) {
  if (!internal::validGroupName(group)) return TK_GS_BAD_PARAMETER;
  if (instance < 0 || instance > 0xffff) return TK_GS_BAD_PARAMETER;
  return TK_GS_OK;
}

}  // namespace

GSProvider::GSProvider(const char* groupName, int instanceNumber, const char* clientName)
    : GSClient(groupName, providerTraceId(clientName, instanceNumber, nextClientNumber())),
      instance_(instanceNumber),
      clientName_(clientName != nullptr ? clientName : "") {}

GSProvider::~GSProvider() { unregister(); }

tk_gs_callback_rc_t GSProvider::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}
tk_gs_callback_rc_t GSProvider::nPhaseCb(const tk_gs_n_phase_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}
tk_gs_callback_rc_t GSProvider::approvedCb(const tk_gs_approved_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}
tk_gs_callback_rc_t GSProvider::rejectedCb(const tk_gs_rejected_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}
tk_gs_callback_rc_t GSProvider::announcementCb(const tk_gs_announcement_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}
tk_gs_callback_rc_t GSProvider::mergeCb(const tk_gs_merge_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}

tk_gs_rc_t GSProvider::joinGroup() {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  if (internal::ControllerAccess::current() == nullptr) return TK_GS_NOT_INITIALIZED;

  proto::Request request;
  proto::Join* join = request.mutable_join();
  join->set_group(group);
  join->set_instance(static_cast<uint32_t>(instance_));
  join->set_client_name(clientName_);
  {
    velt::MutexLock lk(providerMu_);
    if (attributes_.given) {
      fillAttributes(attributes_.a, group, attributes_.hasSource ? &attributes_.sourceGroupName : nullptr,
                     join->mutable_attributes());
    } else {
      fillAttributes(defaultAttributes(), group, nullptr, join->mutable_attributes());
    }
  }

  // JOINING before the request goes out: the approval may be dispatched
  // before this thread sees the answer.
  uint64_t mark = internal::ControllerAccess::lastFrameSeq();
  {
    velt::MutexLock lk(mu_);
    if (state_ != GS_IAM_IDLE) return TK_GS_ALREADY_JOINED;
    setStateLocked(GS_IAM_JOINING, mark);
    mark = stateSeq_;
  }
  {
    Registry& r = registry();
    velt::MutexLock lk(r.mu);
    auto key = std::make_pair(std::string(group), static_cast<uint16_t>(instance_));
    auto it = r.providers.find(key);
    if (it != r.providers.end() && it->second != this && it->second->getClientState() != GS_IAM_IDLE) {
      rc = TK_GS_DUPLICATE_INSTANCE_NUMBER;
    } else {
      r.providers[key] = this;
    }
  }
  internal::CallResult result;
  if (rc == TK_GS_OK) {
    result = internal::ControllerAccess::call(&request, "join");
    rc = result.rc;
  }
  if (rc != TK_GS_OK) {
    velt::MutexLock lk(mu_);
    // Undone only when nothing newer settled the state meanwhile.
    if (state_ == GS_IAM_JOINING && stateSeq_ == mark) setStateLocked(GS_IAM_IDLE, result.seq);
  }
  return rc;
}

tk_gs_rc_t GSProvider::goodbyeGroup() {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  if (getClientState() == GS_IAM_IDLE) return TK_GS_NOT_JOINED;
  proto::Request request;
  request.mutable_goodbye()->set_group(group);
  request.mutable_goodbye()->set_instance(static_cast<uint32_t>(instance_));
  internal::CallResult result = internal::ControllerAccess::call(&request, "goodbye");
  if (result.rc == TK_GS_OK) {
    // The others are told; we are out at once.
    velt::MutexLock lk(mu_);
    if (result.seq > stateSeq_) setStateLocked(GS_IAM_IDLE, result.seq);
    velt::MutexLock plk(providerMu_);
    voteOwed_ = false;
  }
  return result.rc;
}

tk_gs_rc_t GSProvider::protocolRequest(int type, const char* what, const std::string* value,
                                       tk_gs_num_phases_t numPhases, int timeLimit) {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  if (!validPhases(numPhases) || timeLimit < 0) return TK_GS_BAD_PARAMETER;
  if (getClientState() != GS_IAM_JOINED) return TK_GS_NOT_JOINED;
  proto::Request request;
  switch (type) {
    case TK_GS_CHANGE_STATE_VALUE: {
      proto::ChangeStateValue* c = request.mutable_change_state_value();
      c->set_group(group);
      c->set_instance(static_cast<uint32_t>(instance_));
      c->set_value(*value);
      c->set_num_phases(static_cast<uint32_t>(numPhases));
      c->set_time_limit(static_cast<uint32_t>(timeLimit));
      break;
    }
    case TK_GS_PROVIDER_MESSAGE: {
      proto::SendMessage* m = request.mutable_send_message();
      m->set_group(group);
      m->set_instance(static_cast<uint32_t>(instance_));
      m->set_message(*value);
      m->set_num_phases(static_cast<uint32_t>(numPhases));
      m->set_time_limit(static_cast<uint32_t>(timeLimit));
      break;
    }
    default: {
      proto::Leave* l = request.mutable_leave();
      l->set_group(group);
      l->set_instance(static_cast<uint32_t>(instance_));
      l->set_num_phases(static_cast<uint32_t>(numPhases));
      l->set_time_limit(static_cast<uint32_t>(timeLimit));
      break;
    }
  }
  return internal::ControllerAccess::call(&request, what).rc;
}

tk_gs_rc_t GSProvider::changeStateValue(const tk_gs_state_value_t* value, tk_gs_num_phases_t numPhases,
                                        int timeLimit) {
  if (value == nullptr || value->gs_length < 0 || (value->gs_length > 0 && value->gs_state == nullptr)) {
    return TK_GS_BAD_PARAMETER;
  }
  if (value->gs_length > TK_GS_MAX_STATE_VALUE_LENGTH) return TK_GS_LIMIT_EXCEEDED;
  std::string bytes(value->gs_state != nullptr ? value->gs_state : "", static_cast<size_t>(value->gs_length));
  return protocolRequest(TK_GS_CHANGE_STATE_VALUE, "changeStateValue", &bytes, numPhases, timeLimit);
}

tk_gs_rc_t GSProvider::leaveGroup(int leaveCode, tk_gs_num_phases_t numPhases, int timeLimit) {
  if (internal::gsDetailWanted(GSDebugLevel())) {
    GSDebugPrintf(internal::kGsclDebugRoute, "gscl: %s leaves %s (code %d, %d phases, %d s)", getTraceIdStr(),
                  getGroupName(), leaveCode, static_cast<int>(numPhases), timeLimit);
  }
  return protocolRequest(TK_GS_LEAVE, "leave", nullptr, numPhases, timeLimit);
}

tk_gs_rc_t GSProvider::expelMembers(const tk_gs_membership_t* members) {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  if (members == nullptr || members->gs_count == 0 || members->gs_providers == nullptr) return TK_GS_BAD_PARAMETER;
  if (getClientState() != GS_IAM_JOINED) return TK_GS_NOT_JOINED;
  proto::Request request;
  proto::Expel* e = request.mutable_expel();
  e->set_group(group);
  e->set_instance(static_cast<uint32_t>(instance_));
  for (unsigned int i = 0; i < members->gs_count; ++i) {
    proto::ProviderId* id = e->add_members();
    id->set_instance(members->gs_providers[i].gs_provider_fields.gs_instance_number);
    id->set_node(members->gs_providers[i].gs_provider_fields.gs_node_number);
  }
  return internal::ControllerAccess::call(&request, "expel").rc;
}

tk_gs_rc_t GSProvider::send_message(const tk_gs_provider_message_t* message, tk_gs_num_phases_t numPhases,
                                    int timeLimit) {
  if (message == nullptr || message->gs_length < 0 || (message->gs_length > 0 && message->gs_message == nullptr)) {
    return TK_GS_BAD_PARAMETER;
  }
  if (message->gs_length > TK_GS_MAX_PROVIDER_MESSAGE_LENGTH) return TK_GS_LIMIT_EXCEEDED;
  std::string bytes(message->gs_message != nullptr ? message->gs_message : "",
                    static_cast<size_t>(message->gs_length));
  return protocolRequest(TK_GS_PROVIDER_MESSAGE, "send_message", &bytes, numPhases, timeLimit);
}

tk_gs_rc_t GSProvider::vote(tk_gs_vote_t voteValue, const tk_gs_state_value_t* newValue,
                            const tk_gs_provider_message_t* message, tk_gs_vote_t nextDefaultVote) {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  int v = static_cast<int>(voteValue);
  if (v != TK_GS_VOTE_APPROVE && v != TK_GS_VOTE_REJECT && v != TK_GS_VOTE_CONTINUE) return TK_GS_BAD_PARAMETER;
  int next = static_cast<int>(nextDefaultVote);
  if (next != TK_GS_NO_VOTE && next != TK_GS_VOTE_APPROVE && next != TK_GS_VOTE_REJECT) return TK_GS_BAD_PARAMETER;
  if (newValue != nullptr) {
    if (newValue->gs_length < 0 || (newValue->gs_length > 0 && newValue->gs_state == nullptr)) {
      return TK_GS_BAD_PARAMETER;
    }
    if (newValue->gs_length > TK_GS_MAX_STATE_VALUE_LENGTH) return TK_GS_LIMIT_EXCEEDED;
  }
  if (message != nullptr) {
    if (message->gs_length < 0 || (message->gs_length > 0 && message->gs_message == nullptr)) {
      return TK_GS_BAD_PARAMETER;
    }
    if (message->gs_length > TK_GS_MAX_PROVIDER_MESSAGE_LENGTH) return TK_GS_LIMIT_EXCEEDED;
  }
  proto::Request request;
  proto::Vote* pv = request.mutable_vote();
  {
    velt::MutexLock lk(providerMu_);
    if (!voteOwed_) return TK_GS_INVALID_STATE;
    pv->set_protocol(voteProtocol_);
    pv->set_phase(votePhase_);
  }
  pv->set_group(group);
  pv->set_instance(static_cast<uint32_t>(instance_));
  pv->set_vote(static_cast<uint32_t>(v));
  if (newValue != nullptr) {
    pv->set_has_state_value(true);
    pv->set_state_value(std::string(newValue->gs_state != nullptr ? newValue->gs_state : "",
                                    static_cast<size_t>(newValue->gs_length)));
  }
  if (message != nullptr) {
    pv->set_has_message(true);
    pv->set_message(std::string(message->gs_message != nullptr ? message->gs_message : "",
                                static_cast<size_t>(message->gs_length)));
  }
  pv->set_default_vote(static_cast<uint32_t>(next));
  uint64_t protocol = pv->protocol();
  uint32_t phase = pv->phase();
  internal::CallResult result = internal::ControllerAccess::call(&request, "vote");
  if (result.rc == TK_GS_OK) {
    // One vote per phase: the next n-phase notification asks again.
    velt::MutexLock lk(providerMu_);
    if (voteOwed_ && voteProtocol_ == protocol && votePhase_ == phase) voteOwed_ = false;
  }
  return result.rc;
}

tk_gs_rc_t GSProvider::change_attributes(const tk_gs_group_attributes_t* attributes) {
  const char* group = getGroupName();
  tk_gs_rc_t rc = checkProvider(group, instance_);
  if (rc != TK_GS_OK) return rc;
  if (attributes == nullptr) return TK_GS_BAD_PARAMETER;
  rc = checkAttributes(*attributes, group);
  if (rc != TK_GS_OK) return rc;
  if (getClientState() != GS_IAM_JOINED) return TK_GS_NOT_JOINED;
  std::string source = attributes->gs_source_group_name != nullptr ? attributes->gs_source_group_name : "";
  proto::Request request;
  proto::SetAttributes* s = request.mutable_set_attributes();
  s->set_group(group);
  s->set_instance(static_cast<uint32_t>(instance_));
  fillAttributes(*attributes, group, attributes->gs_source_group_name != nullptr ? &source : nullptr,
                 s->mutable_attributes());
  return internal::ControllerAccess::call(&request, "change_attributes").rc;
}

tk_gs_rc_t GSProvider::setGroupAttributes(const tk_gs_group_attributes_t* attributes) {
  if (attributes == nullptr) return TK_GS_BAD_PARAMETER;
  tk_gs_rc_t rc = checkAttributes(*attributes, getGroupName());
  if (rc != TK_GS_OK) return rc;
  velt::MutexLock lk(providerMu_);
  attributes_.given = true;
  attributes_.a = *attributes;
  // The names are copied: the caller's texts need not outlive the call.
  attributes_.hasSource = attributes->gs_source_group_name != nullptr;
  attributes_.sourceGroupName = attributes_.hasSource ? attributes->gs_source_group_name : "";
  attributes_.a.gs_group_name = nullptr;
  attributes_.a.gs_source_group_name = nullptr;
  return TK_GS_OK;
}

tk_gs_provider_t GSProvider::getProviderId() const {
  return gsMakeProvider(internal::ControllerAccess::nodeNumber(), static_cast<uint16_t>(instance_));
}

tk_gs_rc_t GSProvider::getStateValue(std::string* out) const {
  if (out == nullptr) return TK_GS_BAD_PARAMETER;
  velt::MutexLock lk(providerMu_);
  if (!haveStateValue_) return TK_GS_NOT_OK;
  *out = stateValue_;
  return TK_GS_OK;
}

// ---- GSSubscriber ----

namespace {

std::string subscriberTraceId(const char* group, uint64_t number) {
  char text[160];
  snprintf(text, sizeof text, "GSSubscriber[%.64s #%llu]", group != nullptr ? group : "",
           static_cast<unsigned long long>(number));
  return text;
}

}  // namespace

GSSubscriber::GSSubscriber(const char* groupName, unsigned int subscriptionType)
    : GSClient(groupName, subscriberTraceId(groupName, nextClientNumber())), type_(subscriptionType) {}

GSSubscriber::~GSSubscriber() { unregister(); }

tk_gs_callback_rc_t GSSubscriber::delayedErrorCb(const tk_gs_delayed_error_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}

tk_gs_callback_rc_t GSSubscriber::subscribeCb(const tk_gs_subscription_notification_t* n) {
  return n != nullptr ? TK_GS_CALLBACK_OK : TK_GS_CALLBACK_NOT_OK;
}

tk_gs_rc_t GSSubscriber::subscribeGroup() {
  const char* group = getGroupName();
  if (!internal::validGroupName(group)) return TK_GS_BAD_PARAMETER;
  const unsigned int known = TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE |
                             TK_GS_SUBSCRIPTION_MEMBERSHIP;
  if (type_ == 0 || (type_ & ~known) != 0) return TK_GS_BAD_PARAMETER;
  if (internal::ControllerAccess::current() == nullptr) return TK_GS_NOT_INITIALIZED;

  uint64_t mark = internal::ControllerAccess::lastFrameSeq();
  {
    velt::MutexLock lk(mu_);
    if (state_ != GS_IAM_IDLE) return TK_GS_ALREADY_SUBSCRIBED;
    setStateLocked(GS_IAM_SUBSCRIBING, mark);
    mark = stateSeq_;
  }
  // Each subscription gets a number of its own, so that notifications of
  // an earlier one never reach this one.
  uint32_t number;
  {
    Registry& r = registry();
    velt::MutexLock lk(r.mu);
    do {
      number = r.nextSubscriber++;
    } while (number == 0 || r.subscribers.count(number) != 0);
    r.subscribers[number] = this;
  }
  number_.store(number);
  proto::Request request;
  proto::Subscribe* s = request.mutable_subscribe();
  s->set_group(group);
  s->set_subscriber(number);
  s->set_type(type_);
  internal::CallResult result = internal::ControllerAccess::call(&request, "subscribe");
  if (result.rc != TK_GS_OK) {
    {
      velt::MutexLock lk(mu_);
      if (state_ == GS_IAM_SUBSCRIBING && stateSeq_ == mark) setStateLocked(GS_IAM_IDLE, result.seq);
    }
    uint32_t expected = number;
    number_.compare_exchange_strong(expected, 0);
    Registry& r = registry();
    velt::MutexLock lk(r.mu);
    auto it = r.subscribers.find(number);
    if (it != r.subscribers.end() && it->second == this) r.subscribers.erase(it);
  }
  return result.rc;
}

tk_gs_rc_t GSSubscriber::unsubscribeGroup() {
  const char* group = getGroupName();
  if (!internal::validGroupName(group)) return TK_GS_BAD_PARAMETER;
  uint32_t number = number_.load();
  if (getClientState() == GS_IAM_IDLE || number == 0) return TK_GS_NOT_SUBSCRIBED;
  proto::Request request;
  request.mutable_unsubscribe()->set_group(group);
  request.mutable_unsubscribe()->set_subscriber(number);
  internal::CallResult result = internal::ControllerAccess::call(&request, "unsubscribe");
  // Whatever the agent says, this subscription is over for us: a
  // subscriber the agent no longer knows must not stay SUBSCRIBING.
  bool ended = result.rc == TK_GS_OK || result.rc == TK_GS_NOT_SUBSCRIBED;
  if (ended) {
    {
      velt::MutexLock lk(mu_);
      setStateLocked(GS_IAM_IDLE, std::max(result.seq, stateSeq_));
    }
    uint32_t expected = number;
    number_.compare_exchange_strong(expected, 0);
    Registry& r = registry();
    velt::MutexLock lk(r.mu);
    auto it = r.subscribers.find(number);
    if (it != r.subscribers.end() && it->second == this) r.subscribers.erase(it);
  }
  return result.rc;
}

}  // namespace velt_gscl_V1

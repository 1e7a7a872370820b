#include "local_subscriptions.h"

#include "gs_types.h"

namespace velt {
namespace agent {

namespace {

constexpr size_t kMaxGroupNameBytes = ReplicaLimits().maxGroupNameBytes;

}  // namespace

LocalSubscriptions::LocalSubscriptions(size_t maxPerClient, size_t maxTotal)
    : maxPerClient_(maxPerClient), maxTotal_(maxTotal) {}

proto::Notification LocalSubscriptions::notificationFor(const Key& key, const std::string& group) {
  proto::Notification n;
  n.set_group(group);
  n.set_for_subscriber(true);
  n.set_subscriber(key.second);
  return n;
}

int LocalSubscriptions::subscribe(uint64_t client, uint64_t requestId,
                                  const proto::Subscribe& request, const GroupNow* now,
                                  std::vector<Outgoing>* out, std::string* why) {
  const std::string& group = request.group();
  if (group.empty()) {
    *why = "the group name is empty";
    return TK_GS_BAD_PARAMETER;
  }
  if (group.size() > kMaxGroupNameBytes) {
    *why = "the group name has " + std::to_string(group.size()) + " bytes, at most " +
           std::to_string(kMaxGroupNameBytes) + " are allowed";
    return TK_GS_LIMIT_EXCEEDED;
  }
  Key key(client, request.subscriber());
  if (subs_.count(key) != 0) {
    *why = "subscriber " + std::to_string(request.subscriber()) +
           " of this connection is already subscribed (to \"" + subs_[key].group + "\")";
    return TK_GS_ALREADY_SUBSCRIBED;
  }
  auto pc = perClient_.find(client);
  size_t mine = pc == perClient_.end() ? 0 : pc->second;
  if (mine >= maxPerClient_) {
    *why = "this connection already holds " + std::to_string(mine) +
           " subscriptions, the most it may";
    return TK_GS_LIMIT_EXCEEDED;
  }
  if (subs_.size() >= maxTotal_) {
    *why = "the agent already holds " + std::to_string(subs_.size()) +
           " subscriptions, the most it keeps";
    return TK_GS_LIMIT_EXCEEDED;
  }
  Subscription& sub = subs_[key];
  sub.group = group;
  sub.type = request.type();
  ++perClient_[client];
  byGroup_[group].insert(key);

  Outgoing o;
  o.client = client;
  o.notification = notificationFor(key, group);
  if (now != nullptr) {
    sub.active = true;
    o.notification.set_kind(proto::Notification::SUBSCRIPTION);
    o.notification.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
    for (const proto::ProviderId& p : now->members) *o.notification.add_current() = p;
    for (const proto::AdapterInfo& a : now->adapters) *o.notification.add_full_ip() = a;
    *o.notification.mutable_attributes() = now->attributes;
  } else {
    o.notification.set_kind(proto::Notification::DELAYED_ERROR);
    o.notification.set_delayed_rc(TK_GS_UNKNOWN_GROUP);
    o.notification.set_request_type(TK_GS_SUBSCRIBE);
    o.notification.set_request_id(requestId);
  }
  out->push_back(std::move(o));
  return TK_GS_OK;
}

int LocalSubscriptions::unsubscribe(uint64_t client, const proto::Unsubscribe& request,
                                    std::string* why) {
  Key key(client, request.subscriber());
  auto it = subs_.find(key);
  if (it == subs_.end() || it->second.group != request.group()) {
    *why = "subscriber " + std::to_string(request.subscriber()) +
           " of this connection is not subscribed to that group";
    return TK_GS_NOT_SUBSCRIBED;
  }
  erase(key);
  return TK_GS_OK;
}

void LocalSubscriptions::erase(const Key& key) {
  auto it = subs_.find(key);
  if (it == subs_.end()) return;
  auto g = byGroup_.find(it->second.group);
  if (g != byGroup_.end()) {
    g->second.erase(key);
    if (g->second.empty()) byGroup_.erase(g);
  }
  auto c = perClient_.find(key.first);
  if (c != perClient_.end() && --c->second == 0) perClient_.erase(c);
  subs_.erase(it);
}

void LocalSubscriptions::dropClient(uint64_t client) {
  auto it = subs_.lower_bound(Key(client, 0));
  std::vector<Key> mine;
  for (; it != subs_.end() && it->first.first == client; ++it) mine.push_back(it->first);
  for (const Key& k : mine) erase(k);
}

void LocalSubscriptions::groupChanged(const GroupChange& change, std::vector<Outgoing>* out) {
  auto g = byGroup_.find(change.group);
  if (g == byGroup_.end()) return;
  // Copied: a dissolution ends subscriptions while we walk them.
  std::vector<Key> keys(g->second.begin(), g->second.end());
  for (const Key& key : keys) {
    Subscription& sub = subs_[key];
    Outgoing o;
    o.client = key.first;
    o.notification = notificationFor(key, change.group);
    o.notification.set_kind(proto::Notification::SUBSCRIPTION);
    *o.notification.mutable_attributes() = change.attributes;
    if (change.kind == GroupChange::DISSOLVED || change.kind == GroupChange::GONE) {
      // A subscriber still waiting for the group never saw it: nothing
      // ended for it, it keeps waiting.
      if (!sub.active) continue;
      o.notification.set_subscription_type(TK_GS_SUBSCRIPTION_DISSOLVED);
      for (const proto::ProviderId& p : change.changing) *o.notification.add_changing() = p;
      out->push_back(std::move(o));
      erase(key);
      continue;
    }
    for (const proto::ProviderId& p : change.current) *o.notification.add_current() = p;
    // Raw adapter group: every notification carries the addresses of the
    // whole membership, so that a subscriber's copy stays complete.
    for (const proto::AdapterInfo& a : change.currentAdapters) *o.notification.add_full_ip() = a;
    if (!sub.active) {
      // The group has appeared: first the whole membership.
      if (change.current.empty()) continue;
      sub.active = true;
      o.notification.set_subscription_type(TK_GS_SUBSCRIPTION_MEMBERSHIP);
      out->push_back(std::move(o));
      continue;
    }
    uint32_t bit = change.kind == GroupChange::JOINED ? TK_GS_SUBSCRIPTION_DELTA_JOIN
                                                      : TK_GS_SUBSCRIPTION_DELTA_LEAVE;
    if ((sub.type & bit) == 0) continue;
    o.notification.set_subscription_type(bit);
    for (const proto::ProviderId& p : change.changing) *o.notification.add_changing() = p;
    for (const proto::AdapterInfo& a : change.changingAdapters) {
      *o.notification.add_changing_ip() = a;
    }
    out->push_back(std::move(o));
  }
}

uint32_t LocalSubscriptions::countFor(const std::string& group) const {
  auto g = byGroup_.find(group);
  return g == byGroup_.end() ? 0 : static_cast<uint32_t>(g->second.size());
}

}  // namespace agent
}  // namespace velt

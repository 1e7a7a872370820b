// LocalSubscriptions: the subscriptions of this node's clients. They are
// not replicated: every agent tells its own subscribers what the replicated
// state did, from the replica's group changes. A subscription to a group
// that does not exist yet is answered with the delayed error "unknown
// group" and waits; when the group appears its subscriber gets the full
// membership, then the deltas it asked for. A group that is dissolved or
// ceases to exist ends its subscriptions (the subscriber subscribes again).
// Owned by the agent's event loop thread.
#ifndef VELT_AGENT_LOCAL_SUBSCRIPTIONS_H_
#define VELT_AGENT_LOCAL_SUBSCRIPTIONS_H_

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "replica.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

class LocalSubscriptions {
 public:
  // A notification for one client connection.
  struct Outgoing {
    uint64_t client = 0;
    proto::Notification notification;
  };
  // A group as it stands, for a new subscriber.
  struct GroupNow {
    std::vector<proto::ProviderId> members;
    proto::GroupAttributes attributes;
    // The raw adapter group only: the adapter behind each member, so that
    // the subscriber learns the addresses (the full IP membership).
    std::vector<proto::AdapterInfo> adapters;
  };

  LocalSubscriptions(size_t maxPerClient, size_t maxTotal);

  // A Subscribe request. Returns the reply's return code (*why says what
  // is wrong when it is not 0). On 0, *out gets what follows the reply: the
  // full membership when the group exists (now != nullptr), else the
  // delayed error "unknown group".
  int subscribe(uint64_t client, uint64_t requestId, const proto::Subscribe& request,
                const GroupNow* now, std::vector<Outgoing>* out, std::string* why);
  int unsubscribe(uint64_t client, const proto::Unsubscribe& request, std::string* why);
  // The connection is gone: its subscriptions with it.
  void dropClient(uint64_t client);
  // What the subscribers of change.group must hear, in subscription order.
  void groupChanged(const GroupChange& change, std::vector<Outgoing>* out);

  // Subscribers of this node to a group (waiting ones included).
  uint32_t countFor(const std::string& group) const;
  size_t size() const { return subs_.size(); }

 private:
  // A subscription is known by its connection and the client's own number.
  using Key = std::pair<uint64_t, uint32_t>;
  struct Subscription {
    std::string group;
    uint32_t type = 0;
    bool active = false;   // has had the full membership
  };

  static proto::Notification notificationFor(const Key& key, const std::string& group);
  void erase(const Key& key);

  size_t maxPerClient_;
  size_t maxTotal_;
  std::map<Key, Subscription> subs_;
  std::map<std::string, std::set<Key>> byGroup_;
  std::map<uint64_t, size_t> perClient_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_LOCAL_SUBSCRIPTIONS_H_

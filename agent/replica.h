// Replica: one agent's copy of the cluster's replicated state machine
// (ClusterState) and the protocol that keeps the copies identical across
// views: state transfer by snapshots after every configuration change,
// buffering until snapshots cover the new view, dissolution of groups that
// had members on both sides of a merge. Everything it decides comes from the
// bus's ordered stream, so every member of a view ends with the same state.
// Owned by the agent's event loop thread (not thread-safe).
#ifndef VELT_AGENT_REPLICA_H_
#define VELT_AGENT_REPLICA_H_

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bus.h"
#include "kor_resources.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

class ClusterState;

// The raw adapter group: one provider per live adapter of the view's nodes
// (instance = the adapter's index on its node). The agents' topology keeps
// it; clients only subscribe to it, and it exists even while empty.
constexpr char kRawAdapterGroup[] = "allAdapterMembership";

// A group's membership changed; every agent tells its own subscribers.
struct GroupChange {
  enum Kind {
    JOINED,        // providers joined (changing), current = after
    LEFT,          // providers left (changing), current = after
    DISSOLVED,     // the group was dissolved on a merge; it starts empty
    GONE,          // the last provider left: the group no longer exists
  };
  Kind kind = JOINED;
  std::string group;
  std::vector<proto::ProviderId> changing;
  std::vector<proto::ProviderId> current;
  proto::GroupAttributes attributes;
  // The raw adapter group only: the adapters behind changing and current,
  // in the same order, so that subscribers learn their addresses.
  std::vector<proto::AdapterInfo> changingAdapters;
  std::vector<proto::AdapterInfo> currentAdapters;
};

// A protocol waiting for votes until its deadline; the agent's timer calls
// Replica::fireTimeout when it passes.
struct Deadline {
  std::string group;
  uint64_t protocol = 0;
  uint32_t phase = 0;
  uint32_t seconds = 0;   // from the moment the phase started (as seen locally)
};

// What the replica tells its agent. Called on the owner's thread.
class ReplicaSink {
 public:
  virtual ~ReplicaSink() = default;
  // A frame for a client connection of this node (replies, provider
  // notifications). A provider notification names every provider of that
  // connection it is for (instance, more_instances); see
  // splitGroupedNotification for clients that take one provider per frame.
  virtual void toClient(uint64_t client, const proto::AgentFrame& frame) = 0;
  virtual void groupChanged(const GroupChange& change) = 0;
  // The protocol deadlines this node must watch changed (only the lowest
  // node of the view fires them; the others keep none).
  virtual void deadlinesChanged(const std::vector<Deadline>& deadlines) = 0;
  // The cluster's active version (lowest agent version of the view).
  virtual void activeVersionChanged(uint32_t version) = 0;
  // The replica has adopted the cluster's state after a view change.
  virtual void synced() {}
  // A KOR resource was defined, undefined or changed, in the order of the
  // replicated stream.
  virtual void korChanged(const KorChange& change) { (void)change; }
};

// Hands a frame to send as the client expects it: a notification for
// several providers (more_instances) as one frame per provider, anything
// else unchanged. Stops when send returns false (the client is gone).
void splitGroupedNotification(const proto::AgentFrame& frame,
                              const std::function<bool(const proto::AgentFrame&)>& send);

// Limits on what clients may make the cluster hold.
struct ReplicaLimits {
  size_t maxGroups = 4096;
  size_t maxProvidersPerGroup = 2049 * 48;
  size_t maxStateValueBytes = 64 * 1024;
  size_t maxMessageBytes = 256 * 1024;
  size_t maxQueuedPerGroup = 4096;
  size_t maxGroupNameBytes = 64;
  size_t maxAdaptersPerNode = 64;
};

class Replica : public BusHandler {
 public:
  // agentVersion: packed V.R.M.F this agent claims.
  Replica(Bus* bus, ReplicaSink* sink, uint32_t agentVersion, ReplicaLimits limits = ReplicaLimits());
  ~Replica() override;

  void onView(const View& view) override;
  void onMessage(uint32_t from, const std::string& bytes) override;

  // A local client's request. Checked here first (answers with a Reply
  // through the sink when it is refused at once); otherwise multicast and
  // applied when it comes back in order. Returns 0 or an errno value of the
  // bus.
  int submit(uint64_t client, const proto::Request& request);
  // A local client is gone (connection lost, pings unanswered).
  int clientGone(uint64_t client, const std::string& why);
  // The topology's report of one adapter of this node; applied in order
  // like a request (the node field is set to this node). Returns 0 or an
  // errno value of the bus.
  int reportAdapter(const proto::AdapterUpdate& update);
  // The agent's timer: a deadline handed out by deadlinesChanged passed.
  int fireTimeout(const Deadline& deadline);
  // KOR facts of this node, applied in order like a request: corosync's
  // nodelist as this node reads it, this node's stable id, one of this
  // node's interfaces. Each returns 0 or an errno value of the bus.
  int reportNodeList(const std::vector<proto::NodeEntry>& nodes);
  int announceNodeId(uint64_t nodeId);
  int reportInterface(const proto::InterfaceUpdate& update);
  // The KOR resources this agent kept from its last run, taken before it
  // joins: what it offers the cluster in its first snapshot. Tells nobody.
  void seedKor(proto::KorImage image);
  // Sends what the bus refused earlier (EAGAIN): this node's snapshot, or
  // requests queued behind one it refused. Every call into the replica
  // tries too, but a quiet cluster makes none: while this returns non-zero
  // (the bus's errno value), the agent calls it again after a short delay.
  int flushPending();

  bool isSynced() const;
  uint32_t selfNode() const;
  const View& view() const;
  uint32_t activeVersion() const;
  // The state as it stands, canonically serialised: equal strings mean
  // equal states (tests compare members with it).
  std::string digest() const;
  // Read-only views for veltctl and subscriptions.
  proto::QueryAnswer describe() const;
  // Current members of a group (empty when it does not exist).
  bool groupExists(const std::string& group) const;
  std::vector<proto::ProviderId> members(const std::string& group) const;
  proto::GroupAttributes attributes(const std::string& group) const;
  // The adapters of one node as the replicated state holds them (what the
  // cluster believes, live or not), by instance.
  std::vector<proto::AdapterImage> adaptersOf(uint32_t node) const;
  // The raw adapter group's providers' adapters, in member order.
  std::vector<proto::AdapterInfo> liveAdapters() const;
  // The KOR resources as the replicated state holds them.
  const KorResources& kor() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_REPLICA_H_

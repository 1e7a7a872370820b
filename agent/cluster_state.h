// ClusterState: the deterministic state machine of group services that every
// agent of a view holds a copy of. It applies the bus's ordered stream (client
// requests, departed clients, protocol time-outs, agent announcements) and
// the outcome of state transfers, and nothing else: equal inputs in equal
// order give equal states on every node. What it decides for this node's
// clients (replies, provider notifications) and for this node's subscribers
// (group changes) goes to the ReplicaSink; protocol deadlines and the active
// version are read by the Replica, which owns the timing.
// Thread-compatible (the Replica that owns it serialises every call).
#ifndef VELT_AGENT_CLUSTER_STATE_H_
#define VELT_AGENT_CLUSTER_STATE_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "adapter_table.h"
#include "kor_resources.h"
#include "replica.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

// Agents of this level and later understand goodbye (packed V.R.M.F).
constexpr uint32_t kGoodbyeLevel = 0x02040500;

class ClusterState : private KorSink {
 public:
  // self: this node; selfVersion: the level this agent claims. A fresh state
  // knows only this agent and no groups. sink may be null (no effects).
  ClusterState(uint32_t self, uint32_t selfVersion, const ReplicaLimits& limits, ReplicaSink* sink);
  ~ClusterState();
  ClusterState(const ClusterState&) = delete;
  ClusterState& operator=(const ClusterState&) = delete;

  // Checks what a request says on its own, against the limits, for a
  // provider on node. Returns 0 or the return code with *why. The origin
  // refuses at once what fails here, and every agent refuses it again when
  // applying, so that a peer that skipped the check changes nothing.
  static int validate(const proto::Request& request, uint32_t node, const ReplicaLimits& limits,
                      std::string* why);

  // ---- the ordered stream

  // Whether a message numbered seq from origin is the next one to apply
  // (true, and it is counted as applied) or a repeat or early copy that must
  // be skipped (false). seq 0 is always applied. A message of an origin the
  // state does not know is skipped.
  bool acceptSequence(uint32_t origin, uint64_t seq);
  void applyRequest(uint32_t origin, const proto::ClientRequest& request);
  void applyClientGone(uint32_t origin, const proto::ClientGone& gone);
  void applyTimeout(const proto::ProtocolTimeout& timeout);
  void applyAnnounce(uint32_t origin, const proto::AgentAnnounce& announce);
  // An adapter of origin appeared, changed or disappeared (the adapter
  // table decides what it takes). Reports of agents the state does not
  // know are ignored.
  void applyAdapterUpdate(uint32_t origin, const proto::AdapterUpdate& update);
  // KOR: origin's nodelist and one of origin's interfaces (reports a peer
  // could not have sent are ignored, see KorResources).
  void applyNodeList(uint32_t origin, const proto::NodeListUpdate& update);
  void applyInterfaceUpdate(uint32_t origin, const proto::InterfaceUpdate& update);
  // The KOR resources kept from an earlier run, before any view: replaces
  // the KOR part and tells nobody. An image that fails the bounds is left
  // out (returns false). The image is taken apart.
  bool seedKor(proto::KorImage* image);
  const KorResources& kor() const { return kor_; }

  // ---- state transfer

  // The state as it stands, groups by name and agents by node.
  proto::ClusterStateImage image() const;
  // Equal strings for equal states.
  std::string digest() const;

  // Replaces this state by the merge of the snapshots of one view change
  // (their covers disjoint and together the view's members), then lets the
  // providers of nodes outside the snapshot that carried their group leave
  // by failure. This node's providers and subscribers are told what changed
  // for them, relative to this state before the call.
  void adopt(std::vector<proto::Snapshot> snapshots);

  // ---- reading

  // The protocols waiting for votes that have a time limit.
  std::vector<Deadline> deadlines() const;
  // Grows whenever a protocol starts, moves to another phase or ends.
  uint64_t protocolEpoch() const { return protocolEpoch_; }
  bool protocolWaiting(const std::string& group, uint64_t protocol, uint32_t phase) const;
  // Lowest level of the agents it knows (0 when it knows none).
  uint32_t activeVersion() const;
  bool groupExists(const std::string& group) const;
  std::vector<proto::ProviderId> members(const std::string& group) const;
  proto::GroupAttributes attributes(const std::string& group) const;
  void describeGroups(proto::QueryAnswer* answer) const;
  std::vector<proto::AdapterImage> adaptersOf(uint32_t node) const;
  std::vector<proto::AdapterInfo> liveAdapters() const;

 private:
  struct Key {
    uint32_t instance = 0;
    uint32_t node = 0;
    bool operator<(const Key& o) const {
      return node != o.node ? node < o.node : instance < o.instance;
    }
    bool operator==(const Key& o) const { return node == o.node && instance == o.instance; }
  };
  struct Provider {
    Key key;
    uint64_t client = 0;
    std::string clientName;
  };
  // A request waiting in a group's queue, or carried by its protocol.
  struct Pending {
    uint32_t node = 0;
    uint64_t client = 0;
    proto::Request request;
  };
  struct Protocol {
    uint64_t id = 0;
    uint32_t type = 0;
    uint32_t phase = 1;
    uint32_t numPhases = 1;
    uint32_t timeLimit = 0;
    uint32_t defaultVote = 0;
    std::vector<Key> changing;
    std::vector<Key> voters;
    std::vector<Key> voted;
    // The same keys as sets, so that a vote is checked and counted without
    // scanning the group: votedSet is always within voterSet.
    std::set<Key> voterSet;
    std::set<Key> votedSet;
    bool rejected = false;
    bool continued = false;
    uint32_t summary = 0;
    bool hasProposed = false;
    std::string proposed;
    std::string message;
    Key initiator;
    uint64_t initiatorClient = 0;
    uint64_t initiatorRequest = 0;
    std::vector<Pending> batched;
  };
  struct Group {
    std::string name;
    proto::GroupAttributes attributes;
    std::vector<Provider> providers;  // join order
    bool hasValue = false;
    std::string value;
    std::unique_ptr<Protocol> protocol;
    std::deque<Pending> queued;
    // Indexes kept with the lists above, so that no request scans the
    // group: each provider's client, and the client of each join not yet
    // decided (queued, or carried by the join protocol).
    std::map<Key, uint64_t> providerClients;
    std::map<Key, uint64_t> joiningClients;
  };
  struct Agent {
    uint32_t version = 0;
    uint64_t appliedSeq = 0;
  };
  // Who departs in departParticipants.
  struct Departure;
  // A request of this node that the group still owes an outcome.
  struct LocalPending {
    uint64_t client;
    uint64_t requestId;
    uint32_t requestType;
    uint32_t instance;
  };

  using GroupMap = std::map<std::string, std::unique_ptr<Group>>;

  // Requests.
  void join(uint32_t origin, uint64_t client, const proto::Request& r);
  void enqueue(uint32_t origin, uint64_t client, const proto::Request& r, const std::string& name,
               uint32_t instance);
  void goodbye(uint32_t origin, uint64_t client, const proto::Request& r);
  void vote(uint32_t origin, uint64_t client, const proto::Request& r);
  void setAttributes(uint32_t origin, uint64_t client, const proto::Request& r);

  // Protocols.
  void pump(Group& g);
  void startMembership(Group& g, uint32_t type, std::vector<Pending> batch);
  void startValueOrMessage(Group& g, const Pending& p);
  void startExpel(Group& g, const Pending& p);
  void beginVoting(Group& g);
  void evaluate(Group& g);
  void finishPhase(Group& g);
  void concludeApproved(Group& g);
  void concludeRejected(Group& g, uint32_t extraSummary);
  void departParticipants(Group& g, const Departure& d);
  // Pumps and, when the group has nothing left, lets it cease. Returns false
  // when it ceased (g is gone then).
  bool settle(const std::string& name);

  // Effects.
  void reply(uint32_t origin, uint64_t client, uint64_t id, int rc, const std::string& text);
  void delayedError(const Group& g, const Pending& p, int rc);
  void notifyProvider(const Provider& p, const proto::Notification& n);
  void notifyProtocol(const Group& g, const Protocol& P, proto::Notification::Kind kind,
                      const std::vector<Provider>& recipients, uint32_t summary);
  void emitChange(GroupChange::Kind kind, const Group& g, const std::vector<Key>& changing);
  void emitChange(GroupChange::Kind kind, const std::string& name,
                  const proto::GroupAttributes& attributes, const std::vector<Key>& changing,
                  const std::vector<Key>& current);

  // Helpers.
  Group* find(const std::string& name);
  const Group* find(const std::string& name) const;
  // The client of provider k, or null when k is no provider of g.
  static const uint64_t* providerClient(const Group& g, const Key& k);
  static void addProvider(Group& g, Provider p);
  static void removeProviders(Group& g, const std::set<Key>& keys);
  // A join of g's queue or protocol is decided or dropped.
  static void forgetJoin(Group& g, const Pending& p);
  // The group of a provider request whose requester (this connection's
  // instance) is one of its providers; otherwise answers the refusal and
  // returns null.
  Group* requesterGroup(uint32_t origin, uint64_t client, const proto::Request& r,
                        const std::string& name, uint32_t instance);
  // The client of the undecided join of k, or null when there is none.
  static const uint64_t* joiningClient(const Group& g, const Key& k);
  static std::vector<Key> keysOf(const std::vector<Provider>& providers);
  std::vector<LocalPending> localPending(const Group& g) const;
  static void toImage(const Group& g, proto::GroupImage* out);
  static std::unique_ptr<Group> fromImage(const proto::GroupImage& in);
  // Tells the raw group's subscribers what changed in the adapter table.
  void emitAdapterChanges(const std::vector<GroupChange>& changes);

  // KorSink: KOR's events go to the agent's sink.
  void korEvent(const KorChange& change) override;

  uint32_t self_;
  ReplicaLimits limits_;
  ReplicaSink* sink_;
  GroupMap groups_;
  std::map<uint32_t, Agent> agents_;
  // The topology's part of the state: the raw group's providers.
  AdapterTable adapters_;
  KorResources kor_;
  uint64_t nextProtocol_ = 1;
  uint64_t protocolEpoch_ = 0;
  // While a merge is adopted, subscribers hear one summary at the end.
  bool quietChanges_ = false;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_CLUSTER_STATE_H_

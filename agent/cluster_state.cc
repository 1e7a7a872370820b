#include "cluster_state.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "gs_types.h"

namespace velt {
namespace agent {

namespace {

// A client's name travels with its providers in every snapshot.
constexpr size_t kMaxClientNameBytes = 256;

bool validPhases(uint32_t n) { return n <= TK_GS_N_PHASE; }

// The number of phases of a request: TK_GS_OK, or the refusal with *why.
int checkPhases(uint32_t n, std::string* why) {
  if (validPhases(n)) return TK_GS_OK;
  *why = "the number of phases is 1 (one phase) or 2 (n phases)";
  return TK_GS_BAD_PARAMETER;
}

// The size of what a request carries against its limit.
int checkSize(const char* what, size_t size, size_t limit, std::string* why) {
  if (size <= limit) return TK_GS_OK;
  *why = std::string(what) + " has " + std::to_string(size) + " bytes, at most " + std::to_string(limit) +
         " are allowed";
  return TK_GS_LIMIT_EXCEEDED;
}
bool validDefaultVote(uint32_t v) { return v <= TK_GS_VOTE_REJECT; }

// The group a provider request is about.
const std::string& groupOf(const proto::Request& r) {
  static const std::string kNone;
  switch (r.op_case()) {
    case proto::Request::kJoin:
      return r.join().group();
    case proto::Request::kLeave:
      return r.leave().group();
    case proto::Request::kGoodbye:
      return r.goodbye().group();
    case proto::Request::kChangeStateValue:
      return r.change_state_value().group();
    case proto::Request::kSendMessage:
      return r.send_message().group();
    case proto::Request::kVote:
      return r.vote().group();
    case proto::Request::kSetAttributes:
      return r.set_attributes().group();
    case proto::Request::kExpel:
      return r.expel().group();
    default:
      return kNone;
  }
}

uint32_t instanceOf(const proto::Request& r) {
  switch (r.op_case()) {
    case proto::Request::kJoin:
      return r.join().instance();
    case proto::Request::kLeave:
      return r.leave().instance();
    case proto::Request::kGoodbye:
      return r.goodbye().instance();
    case proto::Request::kChangeStateValue:
      return r.change_state_value().instance();
    case proto::Request::kSendMessage:
      return r.send_message().instance();
    case proto::Request::kVote:
      return r.vote().instance();
    case proto::Request::kSetAttributes:
      return r.set_attributes().instance();
    case proto::Request::kExpel:
      return r.expel().instance();
    default:
      return 0;
  }
}

// The request type a delayed error names (the client library's
// TK_GS_JOIN ... values).
uint32_t requestTypeOf(const proto::Request& r) {
  switch (r.op_case()) {
    case proto::Request::kJoin:
      return TK_GS_JOIN;
    case proto::Request::kLeave:
      return TK_GS_LEAVE;
    case proto::Request::kGoodbye:
      return TK_GS_GOODBYE;
    case proto::Request::kChangeStateValue:
      return TK_GS_CHANGE_STATE_VALUE;
    case proto::Request::kSendMessage:
      return TK_GS_PROVIDER_MESSAGE;
    case proto::Request::kVote:
      return TK_GS_VOTE;
    case proto::Request::kSetAttributes:
      return TK_GS_SET_ATTRIBUTES;
    case proto::Request::kExpel:
      return TK_GS_EXPEL;
    default:
      return 0;
  }
}

std::string versionText(uint32_t v) {
  return std::to_string(v >> 24) + "." + std::to_string((v >> 16) & 0xff) + "." +
         std::to_string((v >> 8) & 0xff) + "." + std::to_string(v & 0xff);
}

int checkAttributes(const proto::GroupAttributes& a, const ReplicaLimits& limits,
                    std::string* why) {
  if (!validPhases(a.num_phases()) || !validPhases(a.source_reflection_num_phases())) {
    *why = "the number of phases is 1 (one phase) or 2 (n phases)";
    return TK_GS_BAD_PARAMETER;
  }
  if (!validDefaultVote(a.default_vote())) {
    *why = "a group's default vote is approve (1) or reject (2)";
    return TK_GS_BAD_PARAMETER;
  }
  if (a.group_name().size() > limits.maxGroupNameBytes ||
      a.source_group_name().size() > limits.maxGroupNameBytes) {
    *why = "group names in the attributes have at most " +
           std::to_string(limits.maxGroupNameBytes) + " bytes";
    return TK_GS_LIMIT_EXCEEDED;
  }
  return TK_GS_OK;
}

// What a group keeps of the attributes its first joiner (or set_attributes)
// gives: the name is the group's, and unset choices take their defaults.
proto::GroupAttributes normalized(const proto::GroupAttributes& in, const std::string& name) {
  proto::GroupAttributes a = in;
  a.set_group_name(name);
  if (a.num_phases() == 0) a.set_num_phases(TK_GS_1_PHASE);
  if (a.default_vote() == 0) a.set_default_vote(TK_GS_VOTE_APPROVE);
  return a;
}

std::string deterministicBytes(const google::protobuf::MessageLite& m) {
  std::string out;
  {
    google::protobuf::io::StringOutputStream sos(&out);
    google::protobuf::io::CodedOutputStream cos(&sos);
    cos.SetSerializationDeterministic(true);
    m.SerializeToCodedStream(&cos);
  }
  return out;
}

template <typename T, typename Pred>
void eraseIf(T* c, Pred pred) {
  c->erase(std::remove_if(c->begin(), c->end(), pred), c->end());
}

}  // namespace

// Who leaves in departParticipants: a predicate on (provider key, client),
// whether their queued and carried requests go too (the requester is gone,
// nobody is left to tell), and how the others are told.
struct ClusterState::Departure {
  std::function<bool(const Key&, uint64_t)> who;
  bool dropRequests = false;
  uint32_t type = TK_GS_FAILURE_LEAVE;
  uint32_t summary = 0;
};

ClusterState::ClusterState(uint32_t self, uint32_t selfVersion, const ReplicaLimits& limits,
                           ReplicaSink* sink)
    : self_(self), limits_(limits), sink_(sink), adapters_(limits.maxAdaptersPerNode), kor_(this) {
  agents_[self].version = selfVersion;
}

ClusterState::~ClusterState() = default;

// ------------------------------------------------------------ validation

int ClusterState::validate(const proto::Request& r, uint32_t node, const ReplicaLimits& limits,
                           std::string* why) {
  // The provider requests are those with a request type of their own.
  if (requestTypeOf(r) == 0) {
    *why =
        "only provider requests go through the cluster (join, leave, goodbye, state value "
        "changes, messages, votes, attributes, expel)";
    return TK_GS_NOT_SUPPORTED;
  }
  const std::string& group = groupOf(r);
  if (group.empty()) {
    *why = "a request names its group";
    return TK_GS_BAD_PARAMETER;
  }
  if (group == kRawAdapterGroup) {
    *why = std::string("group ") + kRawAdapterGroup +
           " is kept by the agents' topology (one provider per live adapter); clients may only "
           "subscribe to it";
    return TK_GS_INVALID_GROUP;
  }
  if (group.size() > limits.maxGroupNameBytes) {
    *why = "the group name has " + std::to_string(group.size()) + " bytes, at most " +
           std::to_string(limits.maxGroupNameBytes) + " are allowed";
    return TK_GS_LIMIT_EXCEEDED;
  }
  if (instanceOf(r) > kMaxProviderField) {
    *why = "instance number " + std::to_string(instanceOf(r)) + " does not fit in 16 bits";
    return TK_GS_BAD_PARAMETER;
  }
  if (node > kMaxProviderField) {
    *why =
        "this node's number " + std::to_string(node) + " does not fit in a provider id (16 bits)";
    return TK_GS_LIMIT_EXCEEDED;
  }
  switch (r.op_case()) {
    case proto::Request::kJoin:
      if (r.join().client_name().size() > kMaxClientNameBytes) {
        *why = "the client name has at most " + std::to_string(kMaxClientNameBytes) + " bytes";
        return TK_GS_LIMIT_EXCEEDED;
      }
      return checkAttributes(r.join().attributes(), limits, why);
    case proto::Request::kSetAttributes:
      return checkAttributes(r.set_attributes().attributes(), limits, why);
    case proto::Request::kLeave:
      return checkPhases(r.leave().num_phases(), why);
    case proto::Request::kChangeStateValue: {
      int rc = checkPhases(r.change_state_value().num_phases(), why);
      if (rc != TK_GS_OK) return rc;
      return checkSize("the state value", r.change_state_value().value().size(), limits.maxStateValueBytes, why);
    }
    case proto::Request::kSendMessage: {
      int rc = checkPhases(r.send_message().num_phases(), why);
      if (rc != TK_GS_OK) return rc;
      return checkSize("the provider message", r.send_message().message().size(), limits.maxMessageBytes, why);
    }
    case proto::Request::kVote: {
      const proto::Vote& v = r.vote();
      if (v.vote() < TK_GS_VOTE_APPROVE || v.vote() > TK_GS_VOTE_CONTINUE) {
        *why = "a vote is approve (1), reject (2) or continue (3)";
        return TK_GS_BAD_PARAMETER;
      }
      if (!validDefaultVote(v.default_vote())) {
        *why = "a default vote is approve (1) or reject (2), or 0 to keep it";
        return TK_GS_BAD_PARAMETER;
      }
      if (v.state_value().size() > limits.maxStateValueBytes) {
        *why = "the state value has " + std::to_string(v.state_value().size()) +
               " bytes, at most " + std::to_string(limits.maxStateValueBytes) + " are allowed";
        return TK_GS_LIMIT_EXCEEDED;
      }
      if (v.message().size() > limits.maxMessageBytes) {
        *why = "the provider message has " + std::to_string(v.message().size()) +
               " bytes, at most " + std::to_string(limits.maxMessageBytes) + " are allowed";
        return TK_GS_LIMIT_EXCEEDED;
      }
      return TK_GS_OK;
    }
    case proto::Request::kExpel: {
      const proto::Expel& e = r.expel();
      if (e.members_size() == 0) {
        *why = "expel names at least one provider";
        return TK_GS_BAD_PARAMETER;
      }
      if (static_cast<size_t>(e.members_size()) > limits.maxProvidersPerGroup) {
        *why = "expel names more providers than a group can hold";
        return TK_GS_LIMIT_EXCEEDED;
      }
      for (const proto::ProviderId& m : e.members()) {
        if (m.instance() > kMaxProviderField || m.node() > kMaxProviderField) {
          *why = "a provider id has a 16-bit instance and node number";
          return TK_GS_BAD_PARAMETER;
        }
      }
      return TK_GS_OK;
    }
    default:
      return TK_GS_OK;
  }
}

// ------------------------------------------------------------ the stream

bool ClusterState::acceptSequence(uint32_t origin, uint64_t seq) {
  if (seq == 0) return true;
  auto it = agents_.find(origin);
  if (it == agents_.end() || seq != it->second.appliedSeq + 1) return false;
  it->second.appliedSeq = seq;
  return true;
}

void ClusterState::applyRequest(uint32_t origin, const proto::ClientRequest& cr) {
  const proto::Request& r = cr.request();
  std::string why;
  int rc = validate(r, origin, limits_, &why);
  if (rc != TK_GS_OK) {
    reply(origin, cr.client(), r.id(), rc, why);
    return;
  }
  switch (r.op_case()) {
    case proto::Request::kJoin:
      join(origin, cr.client(), r);
      return;
    case proto::Request::kGoodbye:
      goodbye(origin, cr.client(), r);
      return;
    case proto::Request::kVote:
      vote(origin, cr.client(), r);
      return;
    case proto::Request::kSetAttributes:
      setAttributes(origin, cr.client(), r);
      return;
    default:
      enqueue(origin, cr.client(), r, groupOf(r), instanceOf(r));
      return;
  }
}

void ClusterState::join(uint32_t origin, uint64_t client, const proto::Request& r) {
  const proto::Join& j = r.join();
  Key k{j.instance(), origin};
  Group* g = find(j.group());
  if (g == nullptr) {
    if (groups_.size() >= limits_.maxGroups) {
      reply(origin, client, r.id(), TK_GS_LIMIT_EXCEEDED,
            "the cluster already holds " + std::to_string(groups_.size()) +
                " groups, the most it keeps");
      return;
    }
  } else {
    uint64_t holder = 0;
    bool taken = false;
    if (const uint64_t* c = providerClient(*g, k)) {
      taken = true;
      holder = *c;
    } else if (const uint64_t* q = joiningClient(*g, k)) {
      taken = true;
      holder = *q;
    }
    if (taken) {
      if (holder == client) {
        reply(origin, client, r.id(), TK_GS_ALREADY_JOINED,
              "instance " + std::to_string(k.instance) + " of this connection has joined group " +
                  j.group() + " already");
      } else {
        reply(origin, client, r.id(), TK_GS_DUPLICATE_INSTANCE_NUMBER,
              "instance " + std::to_string(k.instance) + " of node " + std::to_string(origin) +
                  " is in group " + j.group() + " already (another connection holds it)");
      }
      return;
    }
    if (g->providers.size() + g->joiningClients.size() >= limits_.maxProvidersPerGroup) {
      reply(origin, client, r.id(), TK_GS_LIMIT_EXCEEDED,
            "group " + j.group() + " has " + std::to_string(limits_.maxProvidersPerGroup) +
                " providers (joining ones included), the most it may have");
      return;
    }
    if (g->queued.size() >= limits_.maxQueuedPerGroup) {
      reply(origin, client, r.id(), TK_GS_LIMIT_EXCEEDED,
            "group " + j.group() + " already has " + std::to_string(g->queued.size()) +
                " requests waiting, the most it queues");
      return;
    }
  }
  if (g == nullptr) {
    auto created = std::make_unique<Group>();
    created->name = j.group();
    created->attributes = normalized(j.attributes(), j.group());
    g = created.get();
    groups_[j.group()] = std::move(created);
  }
  reply(origin, client, r.id(), TK_GS_OK, "");
  g->queued.push_back(Pending{origin, client, r});
  g->joiningClients[k] = client;
  settle(j.group());
}

ClusterState::Group* ClusterState::requesterGroup(uint32_t origin, uint64_t client, const proto::Request& r,
                                   const std::string& name, uint32_t instance) {
  Group* g = find(name);
  if (g == nullptr) {
    reply(origin, client, r.id(), TK_GS_UNKNOWN_GROUP, "there is no group " + name);
    return nullptr;
  }
  const uint64_t* holder = providerClient(*g, Key{instance, origin});
  if (holder == nullptr || *holder != client) {
    reply(origin, client, r.id(), TK_GS_NOT_JOINED,
          "instance " + std::to_string(instance) +
              " of this connection is not a provider of group " + name);
    return nullptr;
  }
  return g;
}

void ClusterState::enqueue(uint32_t origin, uint64_t client, const proto::Request& r,
                           const std::string& name, uint32_t instance) {
  Group* g = requesterGroup(origin, client, r, name, instance);
  if (g == nullptr) return;
  if (g->queued.size() >= limits_.maxQueuedPerGroup) {
    reply(origin, client, r.id(), TK_GS_LIMIT_EXCEEDED,
          "group " + name + " already has " + std::to_string(g->queued.size()) +
              " requests waiting, the most it queues");
    return;
  }
  reply(origin, client, r.id(), TK_GS_OK, "");
  g->queued.push_back(Pending{origin, client, r});
  settle(name);
}

void ClusterState::goodbye(uint32_t origin, uint64_t client, const proto::Request& r) {
  const proto::Goodbye& gb = r.goodbye();
  Group* g = requesterGroup(origin, client, r, gb.group(), gb.instance());
  if (g == nullptr) return;
  Key k{gb.instance(), origin};
  for (const Provider& q : g->providers) {
    auto a = agents_.find(q.key.node);
    if (a != agents_.end() && a->second.version < kGoodbyeLevel) {
      reply(origin, client, r.id(), TK_GS_BACKLEVEL_PROVIDERS,
            "goodbye needs every provider's agent at level " + versionText(kGoodbyeLevel) +
                " or later; node " + std::to_string(q.key.node) + " runs " +
                versionText(a->second.version));
      return;
    }
  }
  reply(origin, client, r.id(), TK_GS_OK, "");
  Departure d;
  d.who = [k](const Key& key, uint64_t) { return key == k; };
  d.type = TK_GS_LEAVE;
  d.summary = TK_GS_EXPLICIT_LEAVE;
  departParticipants(*g, d);
  settle(gb.group());
}

void ClusterState::vote(uint32_t origin, uint64_t client, const proto::Request& r) {
  const proto::Vote& v = r.vote();
  Group* g = requesterGroup(origin, client, r, v.group(), v.instance());
  if (g == nullptr) return;
  Key k{v.instance(), origin};
  Protocol* P = g->protocol.get();
  if (P == nullptr || P->id != v.protocol() || P->phase != v.phase() || P->numPhases <= 1) {
    reply(origin, client, r.id(), TK_GS_INVALID_STATE,
          "protocol " + std::to_string(v.protocol()) + " phase " + std::to_string(v.phase()) +
              " of group " + v.group() + " is not waiting for votes");
    return;
  }
  if (P->voterSet.count(k) == 0) {
    reply(origin, client, r.id(), TK_GS_INVALID_STATE,
          "instance " + std::to_string(k.instance) + " does not vote in this phase");
    return;
  }
  if (P->votedSet.count(k) != 0) {
    reply(origin, client, r.id(), TK_GS_INVALID_STATE,
          "instance " + std::to_string(k.instance) + " has voted in this phase already");
    return;
  }
  reply(origin, client, r.id(), TK_GS_OK, "");
  P->voted.push_back(k);
  P->votedSet.insert(k);
  if (v.vote() == TK_GS_VOTE_REJECT) {
    P->rejected = true;
    P->summary |= TK_GS_VOTE_REJECTED;
  } else if (v.vote() == TK_GS_VOTE_CONTINUE) {
    P->continued = true;
  }
  if (v.has_state_value()) {
    P->hasProposed = true;
    P->proposed = v.state_value();
  }
  if (v.has_message()) P->message = v.message();
  if (v.default_vote() != 0) P->defaultVote = v.default_vote();
  evaluate(*g);
  settle(v.group());
}

void ClusterState::setAttributes(uint32_t origin, uint64_t client, const proto::Request& r) {
  const proto::SetAttributes& sa = r.set_attributes();
  Group* g = requesterGroup(origin, client, r, sa.group(), sa.instance());
  if (g == nullptr) return;
  // Protocols in flight keep what they started with; the next ones follow.
  g->attributes = normalized(sa.attributes(), sa.group());
  reply(origin, client, r.id(), TK_GS_OK, "");
}

void ClusterState::applyClientGone(uint32_t origin, const proto::ClientGone& gone) {
  uint64_t client = gone.client();
  std::vector<std::string> names;
  for (const auto& e : groups_) names.push_back(e.first);
  Departure d;
  d.who = [origin, client](const Key& k, uint64_t c) { return k.node == origin && c == client; };
  d.dropRequests = true;
  d.type = TK_GS_FAILURE_LEAVE;
  d.summary = TK_GS_PROVIDER_FAILED;
  for (const std::string& name : names) {
    Group* g = find(name);
    if (g == nullptr) continue;
    departParticipants(*g, d);
    settle(name);
  }
}

void ClusterState::applyTimeout(const proto::ProtocolTimeout& t) {
  Group* g = find(t.group());
  if (g == nullptr || !g->protocol) return;
  Protocol& P = *g->protocol;
  if (P.id != t.protocol() || P.phase != t.phase() || P.numPhases <= 1) return;
  for (const Key& k : P.voters) {
    if (!P.votedSet.insert(k).second) continue;
    P.voted.push_back(k);
    if (P.defaultVote == TK_GS_VOTE_REJECT) P.rejected = true;
  }
  P.summary |= TK_GS_TIME_LIMIT_EXCEEDED;
  finishPhase(*g);
  settle(t.group());
}

void ClusterState::applyAnnounce(uint32_t origin, const proto::AgentAnnounce& announce) {
  auto it = agents_.find(origin);
  if (it == agents_.end()) return;
  if (announce.agent_version() != 0) it->second.version = announce.agent_version();
  if (announce.node_id() != 0) kor_.applyNodeId(origin, announce.node_id());
}

// ------------------------------------------------------------------ KOR

void ClusterState::applyNodeList(uint32_t origin, const proto::NodeListUpdate& update) {
  if (agents_.count(origin) == 0) return;
  kor_.applyNodeList(origin, update);
}

void ClusterState::applyInterfaceUpdate(uint32_t origin, const proto::InterfaceUpdate& update) {
  if (agents_.count(origin) == 0) return;
  kor_.applyInterfaceUpdate(origin, update);
}

bool ClusterState::seedKor(proto::KorImage* image) {
  kor_.setSink(nullptr);
  size_t leftOut = kor_.take({image});
  kor_.setSink(this);
  return leftOut == 0;
}

void ClusterState::korEvent(const KorChange& change) {
  if (sink_ != nullptr) sink_->korChanged(change);
}

// ------------------------------------------------------------ topology

void ClusterState::applyAdapterUpdate(uint32_t origin, const proto::AdapterUpdate& u) {
  if (agents_.count(origin) == 0) return;
  // Nobody to tell without a sink.
  std::vector<GroupChange> changes;
  adapters_.apply(origin, u, sink_ != nullptr ? &changes : nullptr);
  emitAdapterChanges(changes);
}

void ClusterState::emitAdapterChanges(const std::vector<GroupChange>& changes) {
  if (quietChanges_ || sink_ == nullptr) return;
  for (const GroupChange& c : changes) sink_->groupChanged(c);
}

std::vector<proto::AdapterImage> ClusterState::adaptersOf(uint32_t node) const {
  return adapters_.adaptersOf(node);
}

std::vector<proto::AdapterInfo> ClusterState::liveAdapters() const {
  return adapters_.liveAdapters();
}

// ------------------------------------------------------------ protocols

void ClusterState::pump(Group& g) {
  auto isMember = [&g](const Pending& p) {
    const uint64_t* c = providerClient(g, Key{instanceOf(p.request), p.node});
    return c != nullptr && *c == p.client;
  };
  while (!g.protocol && !g.queued.empty()) {
    Pending head = std::move(g.queued.front());
    g.queued.pop_front();
    switch (head.request.op_case()) {
      case proto::Request::kJoin: {
        std::vector<Pending> batch;
        batch.push_back(std::move(head));
        if ((g.attributes.batch_control() & TK_GS_BATCH_JOINS) != 0) {
          // One pass: the joins go into the batch, the rest stays in order.
          std::deque<Pending> rest;
          for (Pending& q : g.queued) {
            if (q.request.op_case() == proto::Request::kJoin) {
              batch.push_back(std::move(q));
            } else {
              rest.push_back(std::move(q));
            }
          }
          g.queued.swap(rest);
        }
        startMembership(g, TK_GS_JOIN, std::move(batch));
        break;
      }
      case proto::Request::kLeave: {
        if (!isMember(head)) {
          delayedError(g, head, TK_GS_NOT_JOINED);
          break;
        }
        uint32_t phases = std::max<uint32_t>(head.request.leave().num_phases(), TK_GS_1_PHASE);
        std::vector<Pending> batch;
        batch.push_back(std::move(head));
        if ((g.attributes.batch_control() & TK_GS_BATCH_LEAVES) != 0) {
          std::set<Key> inBatch{Key{batch.front().request.leave().instance(), batch.front().node}};
          std::deque<Pending> rest;
          for (Pending& q : g.queued) {
            bool take = q.request.op_case() == proto::Request::kLeave &&
                        std::max<uint32_t>(q.request.leave().num_phases(), TK_GS_1_PHASE) ==
                            phases &&
                        isMember(q) &&
                        inBatch.insert(Key{q.request.leave().instance(), q.node}).second;
            if (take) {
              batch.push_back(std::move(q));
            } else {
              rest.push_back(std::move(q));
            }
          }
          g.queued.swap(rest);
        }
        startMembership(g, TK_GS_LEAVE, std::move(batch));
        break;
      }
      case proto::Request::kChangeStateValue:
      case proto::Request::kSendMessage:
        if (!isMember(head)) {
          delayedError(g, head, TK_GS_NOT_JOINED);
          break;
        }
        startValueOrMessage(g, head);
        break;
      case proto::Request::kExpel:
        if (!isMember(head)) {
          delayedError(g, head, TK_GS_NOT_JOINED);
          break;
        }
        startExpel(g, head);
        break;
      default:
        delayedError(g, head, TK_GS_NOT_SUPPORTED);
        break;
    }
  }
}

void ClusterState::startMembership(Group& g, uint32_t type, std::vector<Pending> batch) {
  auto P = std::make_unique<Protocol>();
  P->id = nextProtocol_++;
  P->type = type;
  const Pending& head = batch.front();
  if (type == TK_GS_JOIN) {
    P->numPhases = g.attributes.num_phases();
    P->timeLimit = g.attributes.time_limit();
    for (const Pending& b : batch) P->changing.push_back(Key{b.request.join().instance(), b.node});
  } else {
    const proto::Leave& l = head.request.leave();
    P->numPhases = l.num_phases() != 0 ? l.num_phases() : static_cast<uint32_t>(TK_GS_1_PHASE);
    P->timeLimit = l.time_limit() != 0 ? l.time_limit() : g.attributes.time_limit();
    P->summary = TK_GS_EXPLICIT_LEAVE;
    for (const Pending& b : batch) P->changing.push_back(Key{b.request.leave().instance(), b.node});
  }
  P->defaultVote = g.attributes.default_vote();
  P->initiator = P->changing.front();
  P->initiatorClient = head.client;
  P->initiatorRequest = head.request.id();
  P->batched = std::move(batch);
  g.protocol = std::move(P);
  ++protocolEpoch_;
  beginVoting(g);
}

void ClusterState::startValueOrMessage(Group& g, const Pending& p) {
  auto P = std::make_unique<Protocol>();
  P->id = nextProtocol_++;
  uint32_t phases, limit;
  if (p.request.op_case() == proto::Request::kChangeStateValue) {
    const proto::ChangeStateValue& c = p.request.change_state_value();
    P->type = TK_GS_CHANGE_STATE_VALUE;
    P->hasProposed = true;
    P->proposed = c.value();
    phases = c.num_phases();
    limit = c.time_limit();
  } else {
    const proto::SendMessage& m = p.request.send_message();
    P->type = TK_GS_PROVIDER_MESSAGE;
    P->message = m.message();
    phases = m.num_phases();
    limit = m.time_limit();
  }
  P->numPhases = phases != 0 ? phases : g.attributes.num_phases();
  P->timeLimit = limit != 0 ? limit : g.attributes.time_limit();
  P->defaultVote = g.attributes.default_vote();
  P->initiator = Key{instanceOf(p.request), p.node};
  P->initiatorClient = p.client;
  P->initiatorRequest = p.request.id();
  g.protocol = std::move(P);
  ++protocolEpoch_;
  beginVoting(g);
}

void ClusterState::startExpel(Group& g, const Pending& p) {
  std::set<Key> named;
  for (const proto::ProviderId& m : p.request.expel().members()) {
    named.insert(Key{m.instance(), m.node()});
  }
  std::vector<Key> targets;   // in join order
  for (const Provider& q : g.providers) {
    if (named.count(q.key) != 0) targets.push_back(q.key);
  }
  if (targets.empty()) {
    delayedError(g, p, TK_GS_BAD_PARAMETER);
    return;
  }
  auto P = std::make_unique<Protocol>();
  P->id = nextProtocol_++;
  P->type = TK_GS_EXPEL;
  P->numPhases = TK_GS_1_PHASE;
  P->defaultVote = g.attributes.default_vote();
  P->changing = std::move(targets);
  P->summary = TK_GS_PROVIDER_EXPELLED;
  P->initiator = Key{instanceOf(p.request), p.node};
  P->initiatorClient = p.client;
  P->initiatorRequest = p.request.id();
  g.protocol = std::move(P);
  ++protocolEpoch_;
  beginVoting(g);
}

void ClusterState::beginVoting(Group& g) {
  Protocol& P = *g.protocol;
  P.voters = keysOf(g.providers);
  P.voted.clear();
  P.voterSet = std::set<Key>(P.voters.begin(), P.voters.end());
  P.votedSet.clear();
  P.rejected = false;
  P.continued = false;
  // One phase, or nobody to ask (a group's first joiners): decided at once.
  if (P.numPhases <= TK_GS_1_PHASE || P.voters.empty()) {
    concludeApproved(g);
    return;
  }
  notifyProtocol(g, P, proto::Notification::N_PHASE, g.providers, 0);
}

void ClusterState::evaluate(Group& g) {
  if (!g.protocol) return;
  const Protocol& P = *g.protocol;
  if (P.votedSet.size() < P.voterSet.size()) return;
  finishPhase(g);
}

void ClusterState::finishPhase(Group& g) {
  Protocol& P = *g.protocol;
  if (P.rejected) {
    concludeRejected(g, 0);
    return;
  }
  if (P.continued) {
    ++P.phase;
    ++protocolEpoch_;
    beginVoting(g);
    return;
  }
  concludeApproved(g);
}

void ClusterState::concludeApproved(Group& g) {
  std::unique_ptr<Protocol> P = std::move(g.protocol);
  ++protocolEpoch_;
  switch (P->type) {
    case TK_GS_JOIN: {
      for (const Pending& b : P->batched) {
        forgetJoin(g, b);
        Provider p;
        p.key = Key{b.request.join().instance(), b.node};
        p.client = b.client;
        p.clientName = b.request.join().client_name();
        addProvider(g, std::move(p));
      }
      if (P->hasProposed) {
        g.hasValue = true;
        g.value = P->proposed;
      }
      notifyProtocol(g, *P, proto::Notification::APPROVED, g.providers, P->summary);
      emitChange(GroupChange::JOINED, g, P->changing);
      break;
    }
    case TK_GS_LEAVE:
    case TK_GS_EXPEL: {
      std::vector<Provider> told = g.providers;  // the leavers hear it too
      removeProviders(g, std::set<Key>(P->changing.begin(), P->changing.end()));
      if (P->hasProposed) {
        g.hasValue = true;
        g.value = P->proposed;
      }
      notifyProtocol(g, *P, proto::Notification::APPROVED, told, P->summary);
      emitChange(GroupChange::LEFT, g, P->changing);
      break;
    }
    default:
      if (P->hasProposed) {
        g.hasValue = true;
        g.value = P->proposed;
      }
      notifyProtocol(g, *P, proto::Notification::APPROVED, g.providers, P->summary);
      break;
  }
}

void ClusterState::concludeRejected(Group& g, uint32_t extraSummary) {
  std::unique_ptr<Protocol> P = std::move(g.protocol);
  ++protocolEpoch_;
  std::vector<Provider> told = g.providers;
  if (P->type == TK_GS_JOIN) {
    // The joiners learn that they were not let in.
    for (const Pending& b : P->batched) {
      forgetJoin(g, b);
      Provider p;
      p.key = Key{b.request.join().instance(), b.node};
      p.client = b.client;
      told.push_back(std::move(p));
    }
  }
  notifyProtocol(g, *P, proto::Notification::REJECTED, told, P->summary | extraSummary);
}

void ClusterState::departParticipants(Group& g, const Departure& d) {
  if (d.dropRequests) {
    eraseIf(&g.queued, [&d, &g](const Pending& p) {
      if (!d.who(Key{instanceOf(p.request), p.node}, p.client)) return false;
      forgetJoin(g, p);
      return true;
    });
  }
  std::vector<Key> removed;   // in join order
  for (const Provider& p : g.providers) {
    if (d.who(p.key, p.client)) removed.push_back(p.key);
  }
  std::set<Key> removedSet(removed.begin(), removed.end());
  removeProviders(g, removedSet);

  bool aborted = false;
  if (g.protocol) {
    Protocol& P = *g.protocol;
    auto gone = [&removedSet](const Key& k) { return removedSet.count(k) != 0; };
    eraseIf(&P.voters, gone);
    eraseIf(&P.voted, gone);
    for (const Key& k : removed) {
      P.voterSet.erase(k);
      P.votedSet.erase(k);
    }
    if (P.type == TK_GS_JOIN) {
      if (d.dropRequests) {
        eraseIf(&P.batched, [&d, &g](const Pending& b) {
          if (!d.who(Key{b.request.join().instance(), b.node}, b.client)) return false;
          forgetJoin(g, b);
          return true;
        });
        P.changing.clear();
        for (const Pending& b : P.batched) {
          P.changing.push_back(Key{b.request.join().instance(), b.node});
        }
      }
    } else if (P.type == TK_GS_LEAVE || P.type == TK_GS_EXPEL) {
      eraseIf(&P.changing, gone);
      eraseIf(&P.batched, [&gone](const Pending& b) {
        return gone(Key{instanceOf(b.request), b.node});
      });
    }
    bool membership = P.type == TK_GS_JOIN || P.type == TK_GS_LEAVE || P.type == TK_GS_EXPEL;
    aborted = membership && P.changing.empty();
    if (!removed.empty() || aborted) ++protocolEpoch_;
  }

  if (!removed.empty()) {
    // Failure leaves and goodbyes are one-phase and immediate: the others
    // hear the approval at once, even while another protocol runs.
    Protocol leave;
    leave.id = nextProtocol_++;
    leave.type = d.type;
    leave.numPhases = TK_GS_1_PHASE;
    leave.changing = removed;
    notifyProtocol(g, leave, proto::Notification::APPROVED, g.providers, d.summary);
    emitChange(GroupChange::LEFT, g, removed);
  }
  if (g.protocol) {
    if (aborted) {
      concludeRejected(g, d.summary);
    } else {
      evaluate(g);
    }
  }
}

bool ClusterState::settle(const std::string& name) {
  Group* g = find(name);
  if (g == nullptr) return false;
  pump(*g);
  if (g->providers.empty() && !g->protocol && g->queued.empty()) {
    proto::GroupAttributes attributes = g->attributes;
    groups_.erase(name);
    emitChange(GroupChange::GONE, name, attributes, {}, {});
    return false;
  }
  return true;
}

// ------------------------------------------------------------ state transfer

void ClusterState::toImage(const Group& g, proto::GroupImage* out) {
  out->set_name(g.name);
  *out->mutable_attributes() = g.attributes;
  for (const Provider& p : g.providers) {
    proto::ProviderImage* pi = out->add_providers();
    pi->mutable_id()->set_instance(p.key.instance);
    pi->mutable_id()->set_node(p.key.node);
    pi->set_client(p.client);
    pi->set_client_name(p.clientName);
  }
  out->set_has_state_value(g.hasValue);
  out->set_state_value(g.value);
  auto keys = [](const std::vector<Key>& from,
                 google::protobuf::RepeatedPtrField<proto::ProviderId>* to) {
    for (const Key& k : from) {
      proto::ProviderId* id = to->Add();
      id->set_instance(k.instance);
      id->set_node(k.node);
    }
  };
  if (g.protocol) {
    const Protocol& P = *g.protocol;
    proto::ProtocolImage* pi = out->mutable_protocol();
    pi->set_id(P.id);
    pi->set_type(P.type);
    pi->set_phase(P.phase);
    pi->set_num_phases(P.numPhases);
    pi->set_time_limit(P.timeLimit);
    pi->set_default_vote(P.defaultVote);
    keys(P.changing, pi->mutable_changing());
    keys(P.voters, pi->mutable_voters());
    keys(P.voted, pi->mutable_voted());
    pi->set_rejected(P.rejected);
    pi->set_continued(P.continued);
    pi->set_summary_code(P.summary);
    pi->set_has_proposed_state_value(P.hasProposed);
    pi->set_proposed_state_value(P.proposed);
    pi->set_message(P.message);
    pi->mutable_initiator()->set_instance(P.initiator.instance);
    pi->mutable_initiator()->set_node(P.initiator.node);
    pi->set_initiator_client(P.initiatorClient);
    pi->set_initiator_request(P.initiatorRequest);
    for (const Pending& b : P.batched) {
      proto::QueuedRequestImage* q = pi->add_batched();
      q->set_node(b.node);
      q->set_client(b.client);
      *q->mutable_request() = b.request;
    }
  }
  for (const Pending& p : g.queued) {
    proto::QueuedRequestImage* q = out->add_queued();
    q->set_node(p.node);
    q->set_client(p.client);
    *q->mutable_request() = p.request;
  }
}

std::unique_ptr<ClusterState::Group> ClusterState::fromImage(const proto::GroupImage& in) {
  auto g = std::make_unique<Group>();
  g->name = in.name();
  g->attributes = in.attributes();
  for (const proto::ProviderImage& pi : in.providers()) {
    Provider p;
    p.key = Key{pi.id().instance(), pi.id().node()};
    // A provider listed twice counts once.
    if (providerClient(*g, p.key) != nullptr) continue;
    p.client = pi.client();
    p.clientName = pi.client_name();
    addProvider(*g, std::move(p));
  }
  g->hasValue = in.has_state_value();
  g->value = in.state_value();
  auto keys = [](const google::protobuf::RepeatedPtrField<proto::ProviderId>& from) {
    std::vector<Key> to;
    for (const proto::ProviderId& id : from) to.push_back(Key{id.instance(), id.node()});
    return to;
  };
  if (in.has_protocol()) {
    const proto::ProtocolImage& pi = in.protocol();
    auto P = std::make_unique<Protocol>();
    P->id = pi.id();
    P->type = pi.type();
    P->phase = pi.phase();
    P->numPhases = pi.num_phases();
    P->timeLimit = pi.time_limit();
    P->defaultVote = pi.default_vote();
    P->changing = keys(pi.changing());
    P->voters = keys(pi.voters());
    P->voted = keys(pi.voted());
    P->voterSet = std::set<Key>(P->voters.begin(), P->voters.end());
    for (const Key& k : P->voted) {
      if (P->voterSet.count(k) != 0) P->votedSet.insert(k);
    }
    P->rejected = pi.rejected();
    P->continued = pi.continued();
    P->summary = pi.summary_code();
    P->hasProposed = pi.has_proposed_state_value();
    P->proposed = pi.proposed_state_value();
    P->message = pi.message();
    P->initiator = Key{pi.initiator().instance(), pi.initiator().node()};
    P->initiatorClient = pi.initiator_client();
    P->initiatorRequest = pi.initiator_request();
    for (const proto::QueuedRequestImage& q : pi.batched()) {
      P->batched.push_back(Pending{q.node(), q.client(), q.request()});
      if (P->type == TK_GS_JOIN && q.request().op_case() == proto::Request::kJoin) {
        g->joiningClients[Key{q.request().join().instance(), q.node()}] = q.client();
      }
    }
    g->protocol = std::move(P);
  }
  for (const proto::QueuedRequestImage& q : in.queued()) {
    g->queued.push_back(Pending{q.node(), q.client(), q.request()});
    if (q.request().op_case() == proto::Request::kJoin) {
      g->joiningClients[Key{q.request().join().instance(), q.node()}] = q.client();
    }
  }
  return g;
}

proto::ClusterStateImage ClusterState::image() const {
  proto::ClusterStateImage img;
  for (const auto& e : groups_) toImage(*e.second, img.add_groups());
  for (const auto& a : agents_) {
    proto::AgentImage* ai = img.add_agents();
    ai->set_node(a.first);
    ai->set_agent_version(a.second.version);
    ai->set_applied_seq(a.second.appliedSeq);
  }
  img.set_next_protocol(nextProtocol_);
  adapters_.toImage(&img);
  *img.mutable_kor() = kor_.image();
  return img;
}

std::string ClusterState::digest() const { return deterministicBytes(image()); }

void ClusterState::adopt(std::vector<proto::Snapshot> snapshots) {
  // Snapshots in the order of their lowest node: the merge must not depend
  // on which arrived first.
  std::vector<std::set<uint32_t>> covers(snapshots.size());
  std::vector<size_t> order;
  for (size_t i = 0; i < snapshots.size(); ++i) {
    covers[i].insert(snapshots[i].covers().begin(), snapshots[i].covers().end());
    if (!covers[i].empty()) order.push_back(i);
  }
  std::sort(order.begin(), order.end(),
            [&covers](size_t a, size_t b) { return *covers[a].begin() < *covers[b].begin(); });

  // Each snapshot speaks for the agents of its own nodes, and for their
  // adapters: adapters belong to their node, so a merge never dissolves the
  // raw group; each node's adapters are those its own side last applied.
  std::map<uint32_t, Agent> agents;
  AdapterTable adapters(limits_.maxAdaptersPerNode);
  uint64_t nextProtocol = 1;
  for (size_t i : order) {
    const proto::ClusterStateImage& img = snapshots[i].state();
    nextProtocol = std::max<uint64_t>(nextProtocol, img.next_protocol());
    for (const proto::AgentImage& a : img.agents()) {
      if (covers[i].count(a.node()) == 0 || agents.count(a.node()) != 0) continue;
      agents[a.node()] = Agent{a.agent_version(), a.applied_seq()};
    }
  }
  // A node's adapters come from the first snapshot (in that order) that
  // covers it.
  std::set<uint32_t> taken;
  for (size_t i : order) {
    std::set<uint32_t> mine;
    for (uint32_t n : covers[i]) {
      if (taken.insert(n).second) mine.insert(n);
    }
    adapters.takeFromImage(snapshots[i].state(), mine);
  }

  // A group is carried by the snapshots that hold providers of it on their
  // own nodes. Carried by one (or by several that never diverged: the same
  // image), it goes on; carried by several that differ, the partitions each
  // had members and went their own ways: it is dissolved.
  struct Holder {
    size_t snapshot;
    const proto::GroupImage* image;
  };
  std::map<std::string, std::vector<Holder>> holders;
  for (size_t i : order) {
    std::set<std::string> seen;
    for (const proto::GroupImage& gi : snapshots[i].state().groups()) {
      if (gi.name().empty() || gi.name().size() > limits_.maxGroupNameBytes) continue;
      if (gi.name() == kRawAdapterGroup) continue;  // never a group of clients
      if (!seen.insert(gi.name()).second) continue;
      bool carries = std::any_of(
          gi.providers().begin(), gi.providers().end(),
          [&](const proto::ProviderImage& p) { return covers[i].count(p.id().node()) != 0; });
      if (carries) holders[gi.name()].push_back(Holder{i, &gi});
    }
  }
  GroupMap merged;
  std::map<std::string, std::set<uint32_t>> carriedBy;
  std::set<std::string> dissolved;
  for (const auto& e : holders) {
    const std::vector<Holder>& hs = e.second;
    bool same = true;
    if (hs.size() > 1) {
      std::string first = deterministicBytes(*hs[0].image);
      for (size_t k = 1; k < hs.size() && same; ++k)
        same = deterministicBytes(*hs[k].image) == first;
    }
    if (!same) {
      dissolved.insert(e.first);
      continue;
    }
    merged[e.first] = fromImage(*hs[0].image);
    std::set<uint32_t>& by = carriedBy[e.first];
    for (const Holder& h : hs) by.insert(covers[h.snapshot].begin(), covers[h.snapshot].end());
  }

  // What this node's clients knew, to tell them what changed.
  struct Before {
    proto::GroupAttributes attributes;
    std::vector<Key> providers;
  };
  std::map<std::string, Before> before;
  for (const auto& e : groups_) {
    const Group& g = *e.second;
    before[e.first] = Before{g.attributes, keysOf(g.providers)};
    bool isDissolved = dissolved.count(e.first) != 0;
    if (isDissolved) {
      proto::Notification n;
      n.set_kind(proto::Notification::ANNOUNCEMENT);
      n.set_group(g.name);
      n.set_summary_code(TK_GS_GROUP_DISSOLVED);
      for (const Provider& p : g.providers) notifyProvider(p, n);
    }
    auto carried = carriedBy.find(e.first);
    bool goesOnHere =
        !isDissolved && carried != carriedBy.end() && carried->second.count(self_) != 0;
    if (!goesOnHere) {
      // Requests of ours that this group owed an outcome are not carried
      // into the merged state: they end here.
      for (const LocalPending& lp : localPending(g)) {
        proto::Notification n;
        n.set_kind(proto::Notification::DELAYED_ERROR);
        n.set_group(g.name);
        n.set_delayed_rc(TK_GS_COLLIDED_PROTOCOL);
        n.set_request_type(lp.requestType);
        n.set_request_id(lp.requestId);
        Provider to;
        to.key = Key{lp.instance, self_};
        to.client = lp.client;
        notifyProvider(to, n);
      }
    }
  }

  AdapterTable adaptersBefore = std::move(adapters_);
  groups_ = std::move(merged);
  agents_ = std::move(agents);
  adapters_ = std::move(adapters);
  nextProtocol_ = nextProtocol;
  ++protocolEpoch_;

  // Providers (and requests) of nodes that the carrying snapshot does not
  // speak for are gone from where that group lived: they leave by failure.
  quietChanges_ = true;
  std::vector<std::string> names;
  for (const auto& e : groups_) names.push_back(e.first);
  for (const std::string& name : names) {
    Group* g = find(name);
    if (g == nullptr) continue;
    const std::set<uint32_t>& by = carriedBy[name];
    Departure d;
    d.who = [&by](const Key& k, uint64_t) { return by.count(k.node) == 0; };
    d.dropRequests = true;
    d.type = TK_GS_FAILURE_LEAVE;
    d.summary = TK_GS_NODE_FAILED;
    departParticipants(*g, d);
    settle(name);
  }
  quietChanges_ = false;

  // Subscribers hear the difference from what they knew.
  for (const auto& e : before) {
    const Before& b = e.second;
    if (dissolved.count(e.first) != 0) {
      emitChange(GroupChange::DISSOLVED, e.first, b.attributes, b.providers, {});
      continue;
    }
    const Group* now = find(e.first);
    if (now == nullptr) {
      if (!b.providers.empty())
        emitChange(GroupChange::LEFT, e.first, b.attributes, b.providers, {});
      emitChange(GroupChange::GONE, e.first, b.attributes, {}, {});
      continue;
    }
    std::vector<Key> nowKeys = keysOf(now->providers);
    std::vector<Key> left, stayed, joined;
    for (const Key& k : b.providers) {
      (now->providerClients.count(k) != 0 ? stayed : left).push_back(k);
    }
    std::set<Key> knew(b.providers.begin(), b.providers.end());
    for (const Key& k : nowKeys) {
      if (knew.count(k) == 0) joined.push_back(k);
    }
    if (!left.empty()) emitChange(GroupChange::LEFT, e.first, now->attributes, left, stayed);
    if (!joined.empty()) emitChange(GroupChange::JOINED, e.first, now->attributes, joined, nowKeys);
  }
  for (const auto& e : groups_) {
    if (before.count(e.first) != 0) continue;
    std::vector<Key> all = keysOf(e.second->providers);
    emitChange(GroupChange::JOINED, e.first, e.second->attributes, all, all);
  }
  emitAdapterChanges(adapters_.changesSince(adaptersBefore));

  // KOR's resources outlive the nodes' presence: every snapshot brings what
  // its side knew, down nodes included, and the merge keeps each node's
  // newest interfaces. The clients' registrations hear the difference.
  std::vector<proto::KorImage*> korImages;
  for (size_t i : order) korImages.push_back(snapshots[i].mutable_state()->mutable_kor());
  kor_.take(korImages);
}

// ------------------------------------------------------------ effects

void ClusterState::reply(uint32_t origin, uint64_t client, uint64_t id, int rc,
                         const std::string& text) {
  if (origin != self_ || sink_ == nullptr) return;
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::Reply* r = f.mutable_reply();
  r->set_id(id);
  r->set_rc(rc);
  r->set_text(text);
  sink_->toClient(client, f);
}

void ClusterState::delayedError(const Group& g, const Pending& p, int rc) {
  if (p.node != self_) return;
  proto::Notification n;
  n.set_kind(proto::Notification::DELAYED_ERROR);
  n.set_group(g.name);
  n.set_delayed_rc(rc);
  n.set_request_type(requestTypeOf(p.request));
  n.set_request_id(p.request.id());
  Provider to;
  to.key = Key{instanceOf(p.request), p.node};
  to.client = p.client;
  notifyProvider(to, n);
}

void ClusterState::notifyProvider(const Provider& p, const proto::Notification& n) {
  if (p.key.node != self_ || sink_ == nullptr) return;
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::Notification* out = f.mutable_notification();
  *out = n;
  out->set_for_subscriber(false);
  out->set_instance(p.key.instance);
  sink_->toClient(p.client, f);
}

void ClusterState::notifyProtocol(const Group& g, const Protocol& P, proto::Notification::Kind kind,
                                  const std::vector<Provider>& recipients, uint32_t summary) {
  if (sink_ == nullptr) return;
  bool anyHere = std::any_of(recipients.begin(), recipients.end(),
                             [this](const Provider& p) { return p.key.node == self_; });
  if (!anyHere) return;
  proto::AgentFrame f;
  f.set_version(proto::WIRE_VERSION_1);
  proto::Notification& n = *f.mutable_notification();
  n.set_kind(kind);
  n.set_group(g.name);
  n.set_protocol(P.id);
  n.set_protocol_type(P.type);
  n.set_phase(P.phase);
  n.set_summary_code(summary);
  uint32_t changes = 0;
  if (P.type == TK_GS_JOIN || P.type == TK_GS_LEAVE || P.type == TK_GS_FAILURE_LEAVE ||
      P.type == TK_GS_EXPEL) {
    changes |= TK_GS_PROPOSED_MEMBERSHIP;
  }
  if (P.hasProposed) changes |= TK_GS_PROPOSED_STATE_VALUE;
  if (P.type == TK_GS_PROVIDER_MESSAGE || !P.message.empty())
    changes |= TK_GS_PROVIDER_MESSAGE_PRESENT;
  n.set_proposal_changes(changes);
  for (const Provider& p : g.providers) {
    proto::ProviderId* id = n.add_current();
    id->set_instance(p.key.instance);
    id->set_node(p.key.node);
  }
  for (const Key& k : P.changing) {
    proto::ProviderId* id = n.add_changing();
    id->set_instance(k.instance);
    id->set_node(k.node);
  }
  if (g.hasValue) {
    n.set_has_current_state_value(true);
    n.set_current_state_value(g.value);
  }
  if (P.hasProposed) {
    n.set_has_proposed_state_value(true);
    n.set_proposed_state_value(P.proposed);
  }
  n.set_message(P.message);
  n.set_time_limit(P.timeLimit);
  n.set_default_vote(P.defaultVote);
  // One notification per connection, naming all of its providers among the
  // recipients: a client with many providers in a large group would
  // otherwise get the whole membership once per provider.
  std::vector<std::pair<uint64_t, std::vector<uint32_t>>> byClient;
  std::map<uint64_t, size_t> slot;
  for (const Provider& p : recipients) {
    if (p.key.node != self_) continue;
    auto at = slot.emplace(p.client, byClient.size());
    if (at.second) byClient.emplace_back(p.client, std::vector<uint32_t>());
    byClient[at.first->second].second.push_back(p.key.instance);
  }
  n.set_for_subscriber(false);
  for (const auto& c : byClient) {
    n.set_instance(c.second.front());
    n.clear_more_instances();
    for (size_t i = 1; i < c.second.size(); ++i) n.add_more_instances(c.second[i]);
    sink_->toClient(c.first, f);
  }
}

void ClusterState::emitChange(GroupChange::Kind kind, const Group& g,
                              const std::vector<Key>& changing) {
  emitChange(kind, g.name, g.attributes, changing, keysOf(g.providers));
}

void ClusterState::emitChange(GroupChange::Kind kind, const std::string& name,
                              const proto::GroupAttributes& attributes,
                              const std::vector<Key>& changing, const std::vector<Key>& current) {
  if (quietChanges_ || sink_ == nullptr) return;
  GroupChange c;
  c.kind = kind;
  c.group = name;
  c.attributes = attributes;
  for (const Key& k : changing) {
    proto::ProviderId id;
    id.set_instance(k.instance);
    id.set_node(k.node);
    c.changing.push_back(id);
  }
  for (const Key& k : current) {
    proto::ProviderId id;
    id.set_instance(k.instance);
    id.set_node(k.node);
    c.current.push_back(id);
  }
  sink_->groupChanged(c);
}

// ------------------------------------------------------------ reading

ClusterState::Group* ClusterState::find(const std::string& name) {
  auto it = groups_.find(name);
  return it == groups_.end() ? nullptr : it->second.get();
}

const ClusterState::Group* ClusterState::find(const std::string& name) const {
  auto it = groups_.find(name);
  return it == groups_.end() ? nullptr : it->second.get();
}

const uint64_t* ClusterState::providerClient(const Group& g, const Key& k) {
  auto it = g.providerClients.find(k);
  return it == g.providerClients.end() ? nullptr : &it->second;
}

void ClusterState::addProvider(Group& g, Provider p) {
  g.providerClients[p.key] = p.client;
  g.providers.push_back(std::move(p));
}

void ClusterState::removeProviders(Group& g, const std::set<Key>& keys) {
  if (keys.empty()) return;
  eraseIf(&g.providers, [&keys](const Provider& p) { return keys.count(p.key) != 0; });
  for (const Key& k : keys) g.providerClients.erase(k);
}

void ClusterState::forgetJoin(Group& g, const Pending& p) {
  if (p.request.op_case() != proto::Request::kJoin) return;
  auto it = g.joiningClients.find(Key{p.request.join().instance(), p.node});
  // Only the join that holds the entry drops it.
  if (it != g.joiningClients.end() && it->second == p.client) g.joiningClients.erase(it);
}

const uint64_t* ClusterState::joiningClient(const Group& g, const Key& k) {
  auto it = g.joiningClients.find(k);
  return it == g.joiningClients.end() ? nullptr : &it->second;
}

std::vector<ClusterState::Key> ClusterState::keysOf(const std::vector<Provider>& providers) {
  std::vector<Key> keys;
  keys.reserve(providers.size());
  for (const Provider& p : providers) keys.push_back(p.key);
  return keys;
}

std::vector<ClusterState::LocalPending> ClusterState::localPending(const Group& g) const {
  std::vector<LocalPending> out;
  for (const Pending& q : g.queued) {
    if (q.node == self_) {
      out.push_back(
          LocalPending{q.client, q.request.id(), requestTypeOf(q.request), instanceOf(q.request)});
    }
  }
  if (g.protocol) {
    for (const Pending& b : g.protocol->batched) {
      // Leavers are providers: they hear of the group's end as providers.
      if (b.node == self_ && b.request.op_case() == proto::Request::kJoin) {
        out.push_back(LocalPending{b.client, b.request.id(), requestTypeOf(b.request),
                                   instanceOf(b.request)});
      }
    }
  }
  return out;
}

std::vector<Deadline> ClusterState::deadlines() const {
  std::vector<Deadline> out;
  for (const auto& e : groups_) {
    const Protocol* P = e.second->protocol.get();
    if (P == nullptr || P->numPhases <= TK_GS_1_PHASE || P->timeLimit == 0) continue;
    Deadline d;
    d.group = e.first;
    d.protocol = P->id;
    d.phase = P->phase;
    d.seconds = P->timeLimit;
    out.push_back(std::move(d));
  }
  return out;
}

bool ClusterState::protocolWaiting(const std::string& group, uint64_t protocol,
                                   uint32_t phase) const {
  const Group* g = find(group);
  return g != nullptr && g->protocol && g->protocol->id == protocol &&
         g->protocol->phase == phase && g->protocol->numPhases > TK_GS_1_PHASE;
}

uint32_t ClusterState::activeVersion() const {
  uint32_t v = 0;
  for (const auto& a : agents_) {
    if (a.second.version != 0 && (v == 0 || a.second.version < v)) v = a.second.version;
  }
  return v;
}

bool ClusterState::groupExists(const std::string& group) const {
  return group == kRawAdapterGroup || find(group) != nullptr;
}

std::vector<proto::ProviderId> ClusterState::members(const std::string& group) const {
  std::vector<proto::ProviderId> out;
  if (group == kRawAdapterGroup) return adapters_.liveMembers();
  const Group* g = find(group);
  if (g == nullptr) return out;
  for (const Provider& p : g->providers) {
    proto::ProviderId id;
    id.set_instance(p.key.instance);
    id.set_node(p.key.node);
    out.push_back(id);
  }
  return out;
}

proto::GroupAttributes ClusterState::attributes(const std::string& group) const {
  if (group == kRawAdapterGroup) return AdapterTable::rawGroupAttributes();
  const Group* g = find(group);
  return g == nullptr ? proto::GroupAttributes() : g->attributes;
}

void ClusterState::describeGroups(proto::QueryAnswer* answer) const {
  // The raw group is listed, in name order, while it has members, as any
  // group with providers is.
  bool rawListed = false;
  auto listRaw = [&]() {
    rawListed = true;
    std::vector<proto::AdapterInfo> live = liveAdapters();
    if (live.empty()) return;
    proto::GroupSummary* s = answer->add_groups();
    s->set_name(kRawAdapterGroup);
    for (const proto::AdapterInfo& a : live) {
      proto::ProviderId* id = s->add_providers();
      id->set_instance(a.instance());
      id->set_node(a.node());
      *s->add_adapters() = a;
    }
  };
  for (const auto& e : groups_) {
    if (!rawListed && e.first > kRawAdapterGroup) listRaw();
    const Group& g = *e.second;
    proto::GroupSummary* s = answer->add_groups();
    s->set_name(g.name);
    for (const Provider& p : g.providers) {
      proto::ProviderId* id = s->add_providers();
      id->set_instance(p.key.instance);
      id->set_node(p.key.node);
    }
    s->set_state_value(g.value);
    s->set_protocol_in_flight(static_cast<bool>(g.protocol));
  }
  if (!rawListed) listRaw();
}

}  // namespace agent
}  // namespace velt

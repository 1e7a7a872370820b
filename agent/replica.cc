#include "replica.h"

#include <errno.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <set>
#include <utility>

#include "cluster_state.h"

namespace velt {
namespace agent {

namespace {

// Own messages sent and not yet applied here: more would mean the bus has
// stopped delivering, and the agent's clients are told to try again.
constexpr size_t kMaxUnacked = 16384;
// A departed client's reason travels in every agent's stream.
constexpr size_t kMaxWhyBytes = 256;

std::vector<uint32_t> intersect(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  std::vector<uint32_t> out;
  for (uint32_t x : a) {
    if (std::find(b.begin(), b.end(), x) != b.end()) out.push_back(x);
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool sameDeadlines(const std::vector<Deadline>& a, const std::vector<Deadline>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].group != b[i].group || a[i].protocol != b[i].protocol || a[i].phase != b[i].phase ||
        a[i].seconds != b[i].seconds) {
      return false;
    }
  }
  return true;
}

}  // namespace

// State transfer, in short: at every view change the lowest member of each
// set of nodes that share one state (the claim: the members of the last view
// in which this node completed a sync that have stayed with it since)
// multicasts that state as a snapshot; a fresh agent claims only itself and
// sends its empty state. Messages delivered before snapshots cover the whole
// view are held back and applied after the merge. A view change during a
// sync restarts it from the same claims, since nothing was applied since.
//
// Own requests carry a sequence number and stay here until they are applied:
// a restarted sync throws away what was held back, so they are sent again,
// and every agent applies each origin's numbers once and in order.
// Owned like the Replica, by the agent's event loop thread.
struct Replica::Impl {
  // What this agent sent on the bus and what the bus delivered to it, for
  // the operators' metrics.
  uint64_t messagesSent = 0;
  uint64_t bytesSent = 0;
  uint64_t messagesReceived = 0;
  uint64_t bytesReceived = 0;
  // Every multicast of the replica goes through here, so that it counts.
  int multicast(const std::string& bytes) {
    int rc = bus->multicast(bytes);
    if (rc == 0) {
      ++messagesSent;
      bytesSent += bytes.size();
    }
    return rc;
  }

  struct Incoming {
    bool isView = false;
    View view;
    uint32_t from = 0;
    std::string bytes;
  };
  struct Unacked {
    uint64_t seq;
    std::string bytes;
  };

  Impl(Bus* b, ReplicaSink* s, uint32_t v, const ReplicaLimits& l)
      : bus(b),
        sink(s),
        self(b->selfNode()),
        version(v),
        limits(l),
        state(std::make_unique<ClusterState>(self, version, limits, sink)) {}

  void drain();
  void handleView(const View& v);
  void handleMessage(uint32_t from, const std::string& bytes);
  void handleSnapshot(proto::Snapshot* s);
  void complete();
  void apply(uint32_t from, const proto::BusMessage& m);
  void acknowledge(uint64_t seq);
  int sendOwn(proto::BusMessage* m);
  int flushOutgoing();
  void report(bool forceDeadlines);
  bool lowest() const { return synced && !view.members.empty() && view.members.front() == self; }

  Bus* bus;
  ReplicaSink* sink;
  uint32_t self;
  uint32_t version;
  ReplicaLimits limits;
  std::unique_ptr<ClusterState> state;

  bool hasView = false;
  View view;
  bool synced = false;
  std::vector<uint32_t> claim;
  std::vector<proto::Snapshot> snapshots;
  std::set<uint32_t> covered;
  std::vector<std::pair<uint32_t, proto::BusMessage>> held;

  uint64_t nextSeq = 1;
  std::deque<Unacked> unacked;
  size_t sendNext = 0;      // first entry of unacked still to (re)send
  std::string snapshotOut;  // our snapshot while the bus has not taken it
  bool snapshotPending = false;

  std::deque<Incoming> incoming;
  bool draining = false;


  std::vector<Deadline> reportedDeadlines;
  uint64_t reportedEpoch = std::numeric_limits<uint64_t>::max();
  bool reportedLowest = false;
  uint32_t reportedVersion = 0;
};

void Replica::Impl::drain() {
  // A sink may reach the bus, and a bus may deliver at once: whatever comes
  // in meanwhile waits its turn, so that one step is applied at a time.
  if (draining) return;
  draining = true;
  while (!incoming.empty()) {
    Incoming in = std::move(incoming.front());
    incoming.pop_front();
    if (in.isView) {
      handleView(in.view);
    } else {
      handleMessage(in.from, in.bytes);
    }
  }
  draining = false;
  flushOutgoing();
}

void Replica::Impl::handleView(const View& v) {
  // A view without this node is not ours to follow.
  if (std::find(v.members.begin(), v.members.end(), bus->selfNode()) == v.members.end()) return;
  if (!hasView) {
    // Some buses learn their node number only when they join.
    if (bus->selfNode() != self) {
      self = bus->selfNode();
      // The KOR resources kept from the last run go over to the new state.
      proto::KorImage kept = state->kor().image();
      state = std::make_unique<ClusterState>(self, version, limits, sink);
      state->seedKor(&kept);
    }
    claim = {self};
  } else if (synced) {
    claim = view.members;
  }
  std::vector<uint32_t> members = v.members;
  std::sort(members.begin(), members.end());
  claim = intersect(claim, members);
  // A node the bus reports as having left or joined was not with us all
  // along, even when it is a member again (an agent restarted in between).
  claim.erase(
      std::remove_if(claim.begin(), claim.end(),
                     [&](uint32_t n) {
                       return n != self &&
                              (std::find(v.left.begin(), v.left.end(), n) != v.left.end() ||
                               std::find(v.joined.begin(), v.joined.end(), n) != v.joined.end());
                     }),
      claim.end());
  held.clear();
  snapshots.clear();
  covered.clear();
  view = v;
  view.members = members;
  hasView = true;
  synced = false;
  report(false);

  snapshotPending = false;
  std::string().swap(snapshotOut);  // a snapshot may be tens of megabytes: let it go
  if (!claim.empty() && claim.front() == self) {
    proto::BusMessage m;
    m.set_version(proto::WIRE_VERSION_1);
    m.set_origin(self);
    proto::Snapshot* s = m.mutable_snapshot();
    s->set_view_id(v.id);
    for (uint32_t n : claim) s->add_covers(n);
    *s->mutable_state() = state->image();
    snapshotOut = m.SerializeAsString();
    snapshotPending = true;
  }
  // What we sent may have been held back and thrown away: send it again.
  sendNext = 0;
  flushOutgoing();
}

void Replica::Impl::handleMessage(uint32_t from, const std::string& bytes) {
  // What no agent of this version can read is skipped by every member
  // alike, so the copies stay equal.
  proto::BusMessage m;
  if (!m.ParseFromString(bytes) || m.version() != proto::WIRE_VERSION_1 || m.origin() != from ||
      !hasView) {
    return;
  }
  if (m.body_case() == proto::BusMessage::kSnapshot) {
    handleSnapshot(m.mutable_snapshot());
    return;
  }
  if (!synced) {
    held.emplace_back(from, std::move(m));
    return;
  }
  apply(from, m);
  report(false);
}

void Replica::Impl::handleSnapshot(proto::Snapshot* s) {
  // Late snapshots of an earlier view change, and repeats, are ignored.
  if (synced || s->view_id() != view.id) return;
  proto::Snapshot taken;
  taken.set_view_id(s->view_id());
  for (uint32_t n : s->covers()) {
    if (covered.count(n) != 0) continue;
    if (!std::binary_search(view.members.begin(), view.members.end(), n)) continue;
    covered.insert(n);
    taken.add_covers(n);
  }
  if (taken.covers_size() == 0) return;
  // The state is taken over, not copied: at the largest sizes it is tens
  // of megabytes.
  taken.mutable_state()->Swap(s->mutable_state());
  snapshots.push_back(std::move(taken));
  if (covered.size() == view.members.size()) complete();
}

void Replica::Impl::complete() {
  state->adopt(std::move(snapshots));
  snapshots.clear();
  covered.clear();
  synced = true;
  claim = view.members;
  std::vector<std::pair<uint32_t, proto::BusMessage>> backlog;
  backlog.swap(held);
  for (const auto& h : backlog) apply(h.first, h.second);
  report(true);
  if (sink != nullptr) sink->synced();
}

void Replica::Impl::apply(uint32_t from, const proto::BusMessage& m) {
  switch (m.body_case()) {
    case proto::BusMessage::kClientRequest:
      if (!state->acceptSequence(from, m.seq())) return;
      state->applyRequest(from, m.client_request());
      break;
    case proto::BusMessage::kClientGone:
      if (!state->acceptSequence(from, m.seq())) return;
      state->applyClientGone(from, m.client_gone());
      break;
    case proto::BusMessage::kAdapterUpdate:
      if (!state->acceptSequence(from, m.seq())) return;
      state->applyAdapterUpdate(from, m.adapter_update());
      break;
    case proto::BusMessage::kProtocolTimeout:
      state->applyTimeout(m.protocol_timeout());
      return;
    case proto::BusMessage::kAgentAnnounce:
      if (m.seq() != 0 && !state->acceptSequence(from, m.seq())) return;
      state->applyAnnounce(from, m.agent_announce());
      break;
    case proto::BusMessage::kNodeListUpdate:
      if (!state->acceptSequence(from, m.seq())) return;
      state->applyNodeList(from, m.node_list_update());
      break;
    case proto::BusMessage::kInterfaceUpdate:
      if (!state->acceptSequence(from, m.seq())) return;
      state->applyInterfaceUpdate(from, m.interface_update());
      break;
    default:
      return;   // a kind of message this version does not know
  }
  if (from == self && m.seq() != 0) acknowledge(m.seq());
}

void Replica::Impl::acknowledge(uint64_t seq) {
  while (!unacked.empty() && unacked.front().seq <= seq) {
    unacked.pop_front();
    if (sendNext > 0) --sendNext;
  }
}

int Replica::Impl::sendOwn(proto::BusMessage* m) {
  if (unacked.size() >= kMaxUnacked) return EAGAIN;
  m->set_version(proto::WIRE_VERSION_1);
  m->set_origin(self);
  m->set_seq(nextSeq);
  std::string bytes = m->SerializeAsString();
  if (sendNext < unacked.size()) {
    // Older messages still wait for the bus: this one goes behind them.
    unacked.push_back(Unacked{nextSeq++, std::move(bytes)});
    flushOutgoing();
    return 0;
  }
  int rc = multicast(bytes);
  if (rc != 0) return rc;
  unacked.push_back(Unacked{nextSeq++, std::move(bytes)});
  sendNext = unacked.size();
  return 0;
}

int Replica::Impl::flushOutgoing() {
  if (!hasView) return 0;
  if (snapshotPending) {
    int rc = multicast(snapshotOut);
    if (rc != 0) return rc;  // tried again on the next event or flushPending
    snapshotPending = false;
    std::string().swap(snapshotOut);
  }
  while (sendNext < unacked.size()) {
    int rc = multicast(unacked[sendNext].bytes);
    if (rc != 0) return rc;
    ++sendNext;
  }
  return 0;
}

void Replica::Impl::report(bool forceDeadlines) {
  if (sink == nullptr) return;
  bool isLowest = lowest();
  if (forceDeadlines || isLowest != reportedLowest || state->protocolEpoch() != reportedEpoch) {
    std::vector<Deadline> now;
    if (isLowest) now = state->deadlines();
    reportedEpoch = state->protocolEpoch();
    reportedLowest = isLowest;
    // After a sync the lowest node hands out its deadlines again, so that a
    // new lowest node starts timers for what it inherited.
    if (forceDeadlines || !sameDeadlines(now, reportedDeadlines)) {
      reportedDeadlines = now;
      sink->deadlinesChanged(now);
    }
  }
  if (synced) {
    uint32_t v = state->activeVersion();
    if (v != 0 && v != reportedVersion) {
      reportedVersion = v;
      sink->activeVersionChanged(v);
    }
  }
}

// ------------------------------------------------------------ Replica

void splitGroupedNotification(const proto::AgentFrame& frame,
                              const std::function<bool(const proto::AgentFrame&)>& send) {
  if (!frame.has_notification() || frame.notification().more_instances_size() == 0) {
    send(frame);
    return;
  }
  proto::AgentFrame one = frame;
  proto::Notification* n = one.mutable_notification();
  n->clear_more_instances();
  if (!send(one)) return;
  for (uint32_t instance : frame.notification().more_instances()) {
    n->set_instance(instance);
    if (!send(one)) return;
  }
}

Replica::Replica(Bus* bus, ReplicaSink* sink, uint32_t agentVersion, ReplicaLimits limits)
    : impl_(std::make_unique<Impl>(bus, sink, agentVersion, limits)) {
  bus->setHandler(this);
}

Replica::~Replica() = default;

void Replica::onView(const View& view) {
  Impl::Incoming in;
  in.isView = true;
  in.view = view;
  impl_->incoming.push_back(std::move(in));
  impl_->drain();
}

void Replica::onMessage(uint32_t from, const std::string& bytes) {
  ++impl_->messagesReceived;
  impl_->bytesReceived += bytes.size();
  // With nothing waiting before it the message is handled where it lies:
  // a snapshot may be tens of megabytes, not to be copied for the queue.
  if (!impl_->draining && impl_->incoming.empty()) {
    impl_->draining = true;
    impl_->handleMessage(from, bytes);
    impl_->draining = false;
    impl_->drain();
    return;
  }
  Impl::Incoming in;
  in.from = from;
  in.bytes = bytes;
  impl_->incoming.push_back(std::move(in));
  impl_->drain();
}

int Replica::submit(uint64_t client, const proto::Request& request) {
  std::string why;
  int rc = ClusterState::validate(request, impl_->bus->selfNode(), impl_->limits, &why);
  if (rc != 0) {
    if (impl_->sink != nullptr) {
      proto::AgentFrame f;
      f.set_version(proto::WIRE_VERSION_1);
      f.mutable_reply()->set_id(request.id());
      f.mutable_reply()->set_rc(rc);
      f.mutable_reply()->set_text(why);
      impl_->sink->toClient(client, f);
    }
    return 0;
  }
  proto::BusMessage m;
  proto::ClientRequest* cr = m.mutable_client_request();
  cr->set_client(client);
  *cr->mutable_request() = request;
  return impl_->sendOwn(&m);
}

int Replica::clientGone(uint64_t client, const std::string& why) {
  proto::BusMessage m;
  proto::ClientGone* g = m.mutable_client_gone();
  g->set_client(client);
  g->set_why(why.substr(0, kMaxWhyBytes));
  return impl_->sendOwn(&m);
}

int Replica::reportAdapter(const proto::AdapterUpdate& update) {
  proto::BusMessage m;
  proto::AdapterUpdate* u = m.mutable_adapter_update();
  *u = update;
  u->mutable_adapter()->set_node(impl_->self);
  return impl_->sendOwn(&m);
}

int Replica::fireTimeout(const Deadline& deadline) {
  if (!impl_->lowest()) return 0;  // no longer ours to fire
  if (!impl_->state->protocolWaiting(deadline.group, deadline.protocol, deadline.phase)) return 0;
  proto::BusMessage m;
  m.set_version(proto::WIRE_VERSION_1);
  m.set_origin(impl_->self);
  proto::ProtocolTimeout* t = m.mutable_protocol_timeout();
  t->set_group(deadline.group);
  t->set_protocol(deadline.protocol);
  t->set_phase(deadline.phase);
  return impl_->multicast(m.SerializeAsString());
}

int Replica::reportNodeList(const std::vector<proto::NodeEntry>& nodes) {
  proto::BusMessage m;
  proto::NodeListUpdate* u = m.mutable_node_list_update();
  for (const proto::NodeEntry& e : nodes) *u->add_nodes() = e;
  return impl_->sendOwn(&m);
}

int Replica::announceNodeId(uint64_t nodeId) {
  proto::BusMessage m;
  m.mutable_agent_announce()->set_agent_version(impl_->version);
  m.mutable_agent_announce()->set_node_id(nodeId);
  return impl_->sendOwn(&m);
}

int Replica::reportInterface(const proto::InterfaceUpdate& update) {
  proto::BusMessage m;
  *m.mutable_interface_update() = update;
  m.mutable_interface_update()->mutable_resource()->set_node(impl_->self);
  return impl_->sendOwn(&m);
}

void Replica::seedKor(proto::KorImage image) { impl_->state->seedKor(&image); }

const KorResources& Replica::kor() const { return impl_->state->kor(); }

int Replica::flushPending() { return impl_->flushOutgoing(); }

bool Replica::isSynced() const { return impl_->synced; }

uint32_t Replica::selfNode() const { return impl_->self; }

const View& Replica::view() const { return impl_->view; }

uint32_t Replica::activeVersion() const {
  uint32_t v = impl_->state->activeVersion();
  return v != 0 ? v : impl_->version;
}

std::string Replica::digest() const { return impl_->state->digest(); }

proto::QueryAnswer Replica::describe() const {
  proto::QueryAnswer a;
  a.set_node(impl_->self);
  a.set_agent_version(impl_->version);
  a.set_active_version(activeVersion());
  for (uint32_t n : impl_->view.members) a.add_view(n);
  a.set_view_id(impl_->view.id);
  a.set_bus_messages_sent(impl_->messagesSent);
  a.set_bus_bytes_sent(impl_->bytesSent);
  a.set_bus_messages_received(impl_->messagesReceived);
  a.set_bus_bytes_received(impl_->bytesReceived);
  impl_->state->describeGroups(&a);
  return a;
}

bool Replica::groupExists(const std::string& group) const {
  return impl_->state->groupExists(group);
}

std::vector<proto::ProviderId> Replica::members(const std::string& group) const {
  return impl_->state->members(group);
}

proto::GroupAttributes Replica::attributes(const std::string& group) const {
  return impl_->state->attributes(group);
}

std::vector<proto::AdapterImage> Replica::adaptersOf(uint32_t node) const {
  return impl_->state->adaptersOf(node);
}

std::vector<proto::AdapterInfo> Replica::liveAdapters() const {
  return impl_->state->liveAdapters();
}

}  // namespace agent
}  // namespace velt

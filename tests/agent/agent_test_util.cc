#include "agent_test_util.h"

#include <utility>

namespace velt {
namespace agent {
namespace testing {

TestNode::TestNode(SimCluster* cluster, uint32_t node, uint32_t version,
                   const ReplicaLimits& limits)
    : cluster_(cluster),
      node_(node),
      version_(version),
      limits_(limits),
      replica_(std::make_unique<Replica>(cluster->bus(node), this, version, limits)) {}

TestNode::~TestNode() = default;

int TestNode::join() { return cluster_->bus(node_)->join(); }

void TestNode::restart() {
  cluster_->revive(node_);
  replica_ = std::make_unique<Replica>(cluster_->bus(node_), this, version_, limits_);
}

uint64_t TestNode::submit(uint64_t client, proto::Request request) {
  uint64_t id = nextId_++;
  request.set_id(id);
  int rc = replica_->submit(client, request);
  if (rc != 0) {
    // Record the bus's refusal as the agent would answer it.
    proto::AgentFrame f;
    f.mutable_reply()->set_id(id);
    f.mutable_reply()->set_rc(-rc);
    f.mutable_reply()->set_text("bus refused");
    frames_.push_back(Frame{client, f});
  }
  return id;
}

std::vector<proto::Reply> TestNode::replies(uint64_t client, uint64_t id) const {
  std::vector<proto::Reply> out;
  for (const Frame& f : frames_) {
    if (f.client == client && f.frame.has_reply() && f.frame.reply().id() == id) {
      out.push_back(f.frame.reply());
    }
  }
  return out;
}

int TestNode::rcOf(uint64_t client, uint64_t id) const {
  std::vector<proto::Reply> r = replies(client, id);
  if (r.empty()) return -1000;
  if (r.size() > 1) return -2000;
  return r.front().rc();
}

std::vector<proto::Notification> TestNode::notes(uint64_t client,
                                                 proto::Notification::Kind kind) const {
  std::vector<proto::Notification> out;
  for (const Frame& f : frames_) {
    if (f.client != client || !f.frame.has_notification()) continue;
    if (kind != proto::Notification::KIND_UNSPECIFIED && f.frame.notification().kind() != kind) {
      continue;
    }
    out.push_back(f.frame.notification());
  }
  return out;
}

std::vector<GroupChange> TestNode::changesOf(const std::string& group) const {
  std::vector<GroupChange> out;
  for (const GroupChange& c : changes_) {
    if (c.group == group) out.push_back(c);
  }
  return out;
}

void TestNode::clearRecords() {
  frames_.clear();
  changes_.clear();
  changeViews_.clear();
}

void TestNode::toClient(uint64_t client, const proto::AgentFrame& frame) {
  // Recorded as a client that takes one provider per frame sees them.
  splitGroupedNotification(frame, [this, client](const proto::AgentFrame& f) {
    frames_.push_back(Frame{client, f});
    return true;
  });
}

void TestNode::groupChanged(const GroupChange& change) {
  changes_.push_back(change);
  changeViews_.push_back(replica_ ? replica_->view().id : 0);
}

void TestNode::deadlinesChanged(const std::vector<Deadline>& deadlines) { deadlines_ = deadlines; }

void TestNode::synced() {
  ++syncs_;
  syncViews_.push_back(replica_->view().id);
}

void TestNode::activeVersionChanged(uint32_t version) { versions_.push_back(version); }

proto::GroupAttributes attrs(uint32_t numPhases, uint32_t defaultVote, uint32_t timeLimit,
                             uint32_t batch) {
  proto::GroupAttributes a;
  a.set_version(2);
  a.set_client_version(2259);
  a.set_batch_control(batch);
  a.set_num_phases(numPhases);
  a.set_source_reflection_num_phases(1);
  a.set_default_vote(defaultVote);
  a.set_merge_control(0);
  a.set_time_limit(timeLimit);
  return a;
}

proto::Request joinReq(const std::string& group, uint32_t instance,
                       const proto::GroupAttributes& a) {
  proto::Request r;
  proto::Join* j = r.mutable_join();
  j->set_group(group);
  j->set_instance(instance);
  j->set_client_name("test");
  *j->mutable_attributes() = a;
  j->mutable_attributes()->set_group_name(group);
  return r;
}

proto::Request leaveReq(const std::string& group, uint32_t instance, uint32_t phases,
                        uint32_t timeLimit) {
  proto::Request r;
  proto::Leave* l = r.mutable_leave();
  l->set_group(group);
  l->set_instance(instance);
  l->set_num_phases(phases);
  l->set_time_limit(timeLimit);
  return r;
}

proto::Request goodbyeReq(const std::string& group, uint32_t instance) {
  proto::Request r;
  r.mutable_goodbye()->set_group(group);
  r.mutable_goodbye()->set_instance(instance);
  return r;
}

proto::Request valueReq(const std::string& group, uint32_t instance, const std::string& value,
                        uint32_t phases, uint32_t timeLimit) {
  proto::Request r;
  proto::ChangeStateValue* c = r.mutable_change_state_value();
  c->set_group(group);
  c->set_instance(instance);
  c->set_value(value);
  c->set_num_phases(phases);
  c->set_time_limit(timeLimit);
  return r;
}

proto::Request messageReq(const std::string& group, uint32_t instance, const std::string& message,
                          uint32_t phases, uint32_t timeLimit) {
  proto::Request r;
  proto::SendMessage* m = r.mutable_send_message();
  m->set_group(group);
  m->set_instance(instance);
  m->set_message(message);
  m->set_num_phases(phases);
  m->set_time_limit(timeLimit);
  return r;
}

proto::Request voteReq(const std::string& group, uint32_t instance, uint64_t protocol,
                       uint32_t phase, uint32_t vote) {
  proto::Request r;
  proto::Vote* v = r.mutable_vote();
  v->set_group(group);
  v->set_instance(instance);
  v->set_protocol(protocol);
  v->set_phase(phase);
  v->set_vote(vote);
  return r;
}

proto::Request expelReq(const std::string& group, uint32_t instance,
                        const std::vector<std::pair<uint32_t, uint32_t>>& members) {
  proto::Request r;
  proto::Expel* e = r.mutable_expel();
  e->set_group(group);
  e->set_instance(instance);
  for (const auto& m : members) {
    proto::ProviderId* id = e->add_members();
    id->set_instance(m.first);
    id->set_node(m.second);
  }
  return r;
}

proto::Request setAttributesReq(const std::string& group, uint32_t instance,
                                const proto::GroupAttributes& a) {
  proto::Request r;
  r.mutable_set_attributes()->set_group(group);
  r.mutable_set_attributes()->set_instance(instance);
  *r.mutable_set_attributes()->mutable_attributes() = a;
  return r;
}

namespace {
template <typename C>
std::string idsOf(const C& v) {
  std::string out;
  for (const proto::ProviderId& p : v) {
    if (!out.empty()) out += " ";
    out += std::to_string(p.instance()) + "/" + std::to_string(p.node());
  }
  return out;
}
}  // namespace

std::string ids(const std::vector<proto::ProviderId>& v) { return idsOf(v); }

std::string ids(const google::protobuf::RepeatedPtrField<proto::ProviderId>& v) { return idsOf(v); }

}  // namespace testing
}  // namespace agent
}  // namespace velt

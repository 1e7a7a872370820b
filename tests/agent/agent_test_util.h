// Pieces the agent's tests share: a node of a SimCluster running a Replica
// with a sink that records everything the replica tells its agent, and
// builders for client requests.
#ifndef VELT_TESTS_AGENT_AGENT_TEST_UTIL_H_
#define VELT_TESTS_AGENT_AGENT_TEST_UTIL_H_

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cluster_state.h"
#include "replica.h"
#include "sim_bus.h"
#include "velt.pb.h"

namespace velt {
namespace agent {
namespace testing {

constexpr uint32_t kDefaultVersion = 0x02050000;  // 2.5.0.0
constexpr uint32_t kOldVersion = 0x02040000;      // 2.4.0.0, before goodbye

// One agent on a simulated bus: its replica and what the replica said.
// Thread-compatible (the test's thread).
class TestNode : public ReplicaSink {
 public:
  TestNode(SimCluster* cluster, uint32_t node, uint32_t version = kDefaultVersion,
           const ReplicaLimits& limits = ReplicaLimits());
  ~TestNode() override;

  Replica& replica() { return *replica_; }
  const Replica& replica() const { return *replica_; }
  uint32_t node() const { return node_; }
  // Joins the bus (the first view follows when the cluster delivers).
  int join();
  // A restarted agent: a fresh replica on the same (revived) bus; what was
  // recorded is kept.
  void restart();

  // Submits a request of client with a fresh request id (returned).
  uint64_t submit(uint64_t client, proto::Request request);

  // ---- what was recorded
  struct Frame {
    uint64_t client;
    proto::AgentFrame frame;
  };
  const std::vector<Frame>& frames() const { return frames_; }
  const std::vector<GroupChange>& changes() const { return changes_; }
  // The view the replica was in when it reported changes()[i].
  uint64_t changeView(size_t i) const { return changeViews_.at(i); }
  const std::vector<Deadline>& deadlines() const { return deadlines_; }
  const std::vector<uint32_t>& versions() const { return versions_; }
  int syncs() const { return syncs_; }
  // The views in which the replica completed a sync, in order.
  const std::vector<uint64_t>& syncViews() const { return syncViews_; }
  // The replies to one request (exactly one is expected).
  std::vector<proto::Reply> replies(uint64_t client, uint64_t id) const;
  // The single reply's rc, or -1000 when there is none, -2000 when several.
  int rcOf(uint64_t client, uint64_t id) const;
  // Notifications of client (of one kind, or all with KIND_UNSPECIFIED).
  std::vector<proto::Notification> notes(uint64_t client, proto::Notification::Kind kind) const;
  std::vector<GroupChange> changesOf(const std::string& group) const;
  void clearRecords();

  // ReplicaSink.
  void toClient(uint64_t client, const proto::AgentFrame& frame) override;
  void groupChanged(const GroupChange& change) override;
  void deadlinesChanged(const std::vector<Deadline>& deadlines) override;
  void activeVersionChanged(uint32_t version) override;
  void synced() override;

 private:
  SimCluster* cluster_;
  uint32_t node_;
  uint32_t version_;
  ReplicaLimits limits_;
  std::unique_ptr<Replica> replica_;
  uint64_t nextId_ = 1;
  std::vector<Frame> frames_;
  std::vector<GroupChange> changes_;
  std::vector<uint64_t> changeViews_;
  std::vector<Deadline> deadlines_;
  std::vector<uint32_t> versions_;
  int syncs_ = 0;
  std::vector<uint64_t> syncViews_;
};

// Group attributes: phases for joins, default vote, time limit, batching.
proto::GroupAttributes attrs(uint32_t numPhases = 1, uint32_t defaultVote = 1,
                             uint32_t timeLimit = 0, uint32_t batch = 3);

proto::Request joinReq(const std::string& group, uint32_t instance,
                       const proto::GroupAttributes& a = attrs());
proto::Request leaveReq(const std::string& group, uint32_t instance, uint32_t phases = 1,
                        uint32_t timeLimit = 0);
proto::Request goodbyeReq(const std::string& group, uint32_t instance);
proto::Request valueReq(const std::string& group, uint32_t instance, const std::string& value,
                        uint32_t phases = 2, uint32_t timeLimit = 30);
proto::Request messageReq(const std::string& group, uint32_t instance, const std::string& message,
                          uint32_t phases = 2, uint32_t timeLimit = 30);
proto::Request voteReq(const std::string& group, uint32_t instance, uint64_t protocol,
                       uint32_t phase, uint32_t vote);
proto::Request expelReq(const std::string& group, uint32_t instance,
                        const std::vector<std::pair<uint32_t, uint32_t>>& members);
proto::Request setAttributesReq(const std::string& group, uint32_t instance,
                                const proto::GroupAttributes& a);

// "instance/node" pairs of a membership, in order: "1/1 2/3".
std::string ids(const std::vector<proto::ProviderId>& v);
std::string ids(const google::protobuf::RepeatedPtrField<proto::ProviderId>& v);

}  // namespace testing
}  // namespace agent
}  // namespace velt

#endif  // VELT_TESTS_AGENT_AGENT_TEST_UTIL_H_

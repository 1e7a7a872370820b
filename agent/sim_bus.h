// SimBus and SimCluster: many bus members in one process, for the agent's
// tests. The cluster keeps the views and one queue of undelivered events per
// member; a test (or a seeded random scheduler) decides when each member
// gets its next event, and crashes nodes, partitions the cluster into sides
// and heals it. What CPG promises holds here too:
//  * every member of a view delivers the view's messages in one order;
//  * a message multicast in a view is delivered in that view or not at all;
//    the sender and every member that moves on with it deliver it;
//  * members that move together to the next view delivered the same
//    messages of the previous one (virtual synchrony);
//  * every member of a new view delivers the view change, after the
//    messages of its previous view and before those of the new one.
// Members deliver at their own pace, so a member may still be working
// through an old view while others are already in the next one.
// Thread-compatible: the test's thread drives everything.
#ifndef VELT_AGENT_SIM_BUS_H_
#define VELT_AGENT_SIM_BUS_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bus.h"

namespace velt {
namespace agent {

class SimCluster;

// One member's end of the simulated bus. Thread-compatible, like its
// cluster.
class SimBus : public Bus {
 public:
  SimBus(SimCluster* cluster, uint32_t node) : cluster_(cluster), node_(node) {}
  void setHandler(BusHandler* handler) override { handler_ = handler; }
  // Enters the cluster: the node's side gets a new view with it.
  int join() override;
  uint32_t selfNode() const override { return node_; }
  int multicast(const std::string& bytes) override;
  // Delivers everything pending for this member.
  int dispatch() override;
  BusHandler* handler() const { return handler_; }

 private:
  SimCluster* cluster_;
  uint32_t node_;
  BusHandler* handler_ = nullptr;
};

// The cluster itself: views, queues and faults. Thread-compatible (the
// test's thread calls it and, through the buses, the handlers).
class SimCluster {
 public:
  // One event waiting for a member.
  struct Event {
    bool isView = false;
    View view;            // for a view change
    uint64_t viewId = 0;  // the view a message belongs to
    size_t index = 0;     // its place in that view's order
    uint32_t from = 0;
    std::string bytes;
  };

  // nodes: the node numbers; seed drives every random choice (which
  // messages of departed senders a side still gets, deliverRandom).
  SimCluster(const std::vector<uint32_t>& nodes, uint64_t seed);
  ~SimCluster();
  SimCluster(const SimCluster&) = delete;
  SimCluster& operator=(const SimCluster&) = delete;

  SimBus* bus(uint32_t node);
  const std::vector<uint32_t>& nodes() const { return nodes_; }

  // ---- delivery

  // Delivers the next event of node. Returns false when it has none.
  bool deliverOne(uint32_t node);
  // Delivers the next event of a member chosen at random among those that
  // have one. Returns false when nobody has anything.
  bool deliverRandom();
  // Delivers until nothing is pending (or limit events were delivered).
  // Returns the number delivered.
  size_t deliverAll(size_t limit = 1000000);
  size_t pending(uint32_t node) const;
  bool quiet() const;

  // ---- faults

  // The node stops at once: it delivers nothing more, and the rest of its
  // view moves to a new view without it.
  void crash(uint32_t node);
  // A crashed node may join again (a restarted agent, with a new handler).
  void revive(uint32_t node);
  // Splits the cluster: each inner list is one side; nodes not named form
  // one more side. Members that can reach each other end in one view.
  void partition(const std::vector<std::vector<uint32_t>>& sides);
  // Everybody can reach everybody again: one view of all live members.
  void heal();

  // ---- reading

  bool alive(uint32_t node) const;  // joined and not crashed
  // The view a member's multicasts go to now (it may not have delivered it).
  std::vector<uint32_t> installedView(uint32_t node) const;
  uint64_t installedViewId(uint32_t node) const;
  // The live members, grouped by installed view (ascending).
  std::vector<std::vector<uint32_t>> views() const;

  // Called before each delivery (test hook).
  std::function<void(uint32_t node, const Event& event)> beforeDeliverForTesting;
  // When set, multicast fails with this errno value (test hook).
  int failMulticastsForTesting = 0;

 private:
  friend class SimBus;
  struct Message {
    uint32_t from;
    std::string bytes;
  };
  struct ViewLog {
    uint64_t id = 0;
    std::vector<uint32_t> members;
    std::vector<Message> log;
    std::map<uint32_t, size_t> delivered;  // per member: messages delivered so far
  };
  struct Member {
    std::unique_ptr<SimBus> bus;
    bool joined = false;
    bool crashed = false;
    int side = 0;
    uint64_t installed = 0;             // 0: none
    std::vector<uint32_t> lastMembers;  // of the installed view
    std::deque<Event> inbox;
  };

  int join(uint32_t node);
  int multicast(uint32_t node, const std::string& bytes);
  // Brings the views in line with the sides: each side's live members end
  // in one view; views that change are closed with the cut that virtual
  // synchrony asks for.
  void reconfigure();
  Member& member(uint32_t node);
  const Member& member(uint32_t node) const;

  std::vector<uint32_t> nodes_;
  std::map<uint32_t, Member> members_;
  std::map<uint64_t, ViewLog> views_;
  uint64_t nextViewId_ = 1;
  std::mt19937_64 rng_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_SIM_BUS_H_

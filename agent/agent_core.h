// AgentCore: what the agent does for its node, without a system call of
// its own. It routes the clients' requests (provider requests to the
// replica, subscriptions, queries, responsiveness changes), keeps this
// node's subscriptions, is the replica's sink (frames for clients, group
// changes, protocol deadlines, the active version, syncs), watches the
// protocol deadlines and fires their time-outs, tells the cluster when a
// client is gone (holding departures back while the bus refuses them), and
// brings what the cluster holds of this node's adapters in line with the
// topology. The process layer (Agent) owns the sockets, the loop and the
// bus, and hands the core its events; tests drive it on a SimBus with
// clients in memory and a clock they advance by hand.
// Owned by the agent's event loop thread: nothing here takes a lock.
#ifndef VELT_AGENT_AGENT_CORE_H_
#define VELT_AGENT_AGENT_CORE_H_

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agent_options.h"
#include "bus.h"
#include "client_port.h"
#include "kor_service.h"
#include "local_subscriptions.h"
#include "owner_thread.h"
#include "replica.h"
#include "velt.pb.h"

namespace velt {
namespace agent {

// A one-shot timer of the agent's loop. Owned by the event loop thread.
class Timer {
 public:
  virtual ~Timer() = default;
  // Calls fired once, from the loop, when after has passed (never from
  // inside start()). Starting again replaces what was started before;
  // after cancel() or the timer's end, fired is not called. fired may
  // start, cancel or destroy its own timer.
  virtual void start(std::chrono::milliseconds after, std::function<void()> fired) = 0;
  virtual void cancel() = 0;
};

// Where the core's timers come from: the loop's steady clock in the
// process, a clock the test moves by hand in tests.
class TimerSource {
 public:
  virtual ~TimerSource() = default;
  virtual std::unique_ptr<Timer> newTimer() = 0;
};

// This node's adapters as its topology watch sees them.
class NodeTopology {
 public:
  virtual ~NodeTopology() = default;
  // The first full picture is in: until then nothing is reported.
  virtual bool ready() const = 0;
  // The updates that turn known (what the cluster holds of this node's
  // adapters, by index) into what the topology sees.
  virtual std::vector<proto::AdapterUpdate> updatesFrom(
      const std::map<uint32_t, proto::AdapterImage>& known) const = 0;
  // The view this node is in now (self among members).
  virtual void setView(uint32_t self, const std::vector<uint32_t>& members) = 0;
  // The interfaces this node publishes as KOR resources (node number
  // filled in by the caller), by name.
  virtual std::vector<proto::InterfaceResource> interfaces() const { return {}; }
};

// "client 7 (pid 123, uid 0, program)" for the log.
std::string describeClient(const ClientPort& client);

class AgentCore : public ReplicaSink {
 public:
  struct Settings {
    uint32_t agentVersion = kAgentVersion;       // the level this agent claims
    size_t maxMessageBytes = 16u * 1024 * 1024;  // one message on the socket
    size_t maxSubscriptionsPerClient = 4096;
    size_t maxSubscriptions = 65536;             // over all connections
    ReplicaLimits limits;
  };
  // One line for the agent's log.
  using LogFn = std::function<void(const std::string& line)>;

  // Builds the replica on bus (its handler from now on) with this core as
  // its sink. bus and timers must outlive the core.
  AgentCore(Bus* bus, TimerSource* timers, const Settings& settings, LogFn log);
  ~AgentCore() override;
  AgentCore(const AgentCore&) = delete;
  AgentCore& operator=(const AgentCore&) = delete;

  // ---- what the process layer hands over

  // This node's topology (null: none yet). It must outlive the core, or be
  // replaced first.
  void setTopology(NodeTopology* topology);
  // Called after every sync, once the core has done its part (the process
  // layer tells the service manager).
  void setSyncedCallback(std::function<void()> synced);
  // KOR: this node's stable id, and corosync's nodelist as this node reads
  // it (after every change); the cluster learns them from this node. A
  // standalone agent has no nodelist and never sets one.
  void setNodeId(uint64_t nodeId);
  void setNodeList(const std::vector<proto::NodeEntry>& nodes);
  // KOR: called with the resources as they stand, a little after they
  // changed (and after each sync), for the process layer to keep them.
  void setKorSaver(std::function<void(const proto::KorImage&)> save);
  // KOR: the resources kept from the last run, before the bus is joined.
  void seedKor(proto::KorImage image);

  // A new connection that the process layer lets in; its hello follows.
  // The port stays registered until clientClosed.
  void clientConnected(ClientPort* client);
  // The client's first frame: the core accepts or refuses it.
  void hello(ClientPort& client, const proto::Hello& hello);
  // A request after the hello: answered with one Reply, now or when the
  // cluster has applied it.
  void request(ClientPort& client, const proto::Request& request);
  // The connection is closed. wasAccepted: its hello had been accepted, so
  // the client may hold providers, which leave by failure.
  void clientClosed(ClientPort& client, const std::string& why, bool wasAccepted);
  // The topology's adapters changed.
  void topologyChanged();
  // The bus delivered: the replica sends what the bus refused meanwhile.
  void busDispatched();
  // The agent is stopping: no timer fires and no departure is sent from
  // now on.
  void stop();

  // ---- reading

  const Replica& replica() const { return *replica_; }
  // The cluster's active version, or this agent's before it knows any.
  uint32_t activeVersion() const;
  // A hello reply (node, versions) with rc and text.
  proto::AgentFrame helloReply(int rc, const std::string& text) const;
  size_t clientCount() const { return clients_.size(); }
  size_t subscriptionCount() const { return subscriptions_.size(); }

  // ---- ReplicaSink
  void toClient(uint64_t client, const proto::AgentFrame& frame) override;
  void groupChanged(const GroupChange& change) override;
  void deadlinesChanged(const std::vector<Deadline>& deadlines) override;
  void activeVersionChanged(uint32_t version) override;
  void synced() override;
  void korChanged(const KorChange& change) override;

 private:
  using DeadlineKey = std::tuple<std::string, uint64_t, uint32_t>;
  struct DeadlineTimer {
    Deadline deadline;
    std::unique_ptr<Timer> timer;
  };

  // Request routing, one method per unit that serves requests.
  void submitToReplica(ClientPort& client, const proto::Request& request);
  void subscribe(ClientPort& client, const proto::Request& request);
  void unsubscribe(ClientPort& client, const proto::Request& request);
  void answerQuery(ClientPort& client, const proto::Request& request);
  void changeResponsiveness(ClientPort& client, const proto::Request& request);
  void serveResources(ClientPort& client, const proto::Request& request);
  void reply(ClientPort& client, uint64_t id, int rc, const std::string& text);
  void sendSubscriptionNotes(const std::vector<LocalSubscriptions::Outgoing>& out);

  // Lets the replica send what the bus refused earlier, and keeps trying
  // on a timer while the bus refuses.
  void flushReplica();
  void tellGone(uint64_t client, const std::string& why);
  void retryGone();
  // Brings what the cluster holds of this node's adapters in line with the
  // topology (after each change it reports, and after each sync).
  void reportAdapters();
  // Brings what KOR holds of this node (its id, its nodelist, its
  // interfaces) in line with what this node knows; soon() coalesces the
  // calls of one turn of the loop.
  void reportKor();
  void reportKorSoon();
  // Has the resources written a little later (once for a burst).
  void scheduleKorSave();
  // Whether a change concerns this node's own resources.
  bool aboutSelf(const KorChange& change) const;
  // Drops from sent*_ what the resources now hold as it was sent.
  void forgetArrivedKor();
  void armDeadline(const DeadlineKey& key, DeadlineTimer* entry, std::chrono::milliseconds after);
  void fireDeadline(const DeadlineKey& key);
  proto::AgentFrame domainControl(uint32_t version) const;
  void logLine(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  OwnerThread ownerThread_;
  Bus* bus_;
  TimerSource* timers_;
  Settings settings_;
  LogFn log_;
  std::function<void()> syncedCallback_;
  std::unique_ptr<Replica> replica_;
  LocalSubscriptions subscriptions_;
  bool stopping_ = false;

  // The connections the process layer let in (not owned), by id.
  std::map<uint64_t, ClientPort*> clients_;
  // Clients that take one notification for several of their providers.
  std::set<uint64_t> groupedClients_;

  // This node's adapters; reportedAdapters_ is what the cluster holds of
  // them (as of the last sync) plus what was sent since, by index.
  NodeTopology* topology_ = nullptr;
  std::map<uint32_t, proto::AdapterImage> reportedAdapters_;
  std::unique_ptr<Timer> adapterRetry_;
  bool adapterRetryArmed_ = false;

  std::map<DeadlineKey, DeadlineTimer> deadlines_;

  // Departures the bus could not take at once (flow control), in order.
  std::deque<std::pair<uint64_t, std::string>> goneBacklog_;
  std::unique_ptr<Timer> goneRetry_;
  std::unique_ptr<Timer> replicaRetry_;
  bool replicaRetryArmed_ = false;

  // KOR: the clients' queries and registrations, and what this node
  // publishes. sent*_ is what was sent since the last sync (or what the
  // state said then), so that nothing goes twice while it travels.
  KorService korService_;
  uint64_t nodeId_ = 0;
  bool haveNodeList_ = false;
  std::vector<proto::NodeEntry> nodeList_;
  uint64_t sentNodeId_ = 0;
  std::string sentNodeList_;
  std::map<std::string, std::string> sentInterfaces_;  // name -> facts ("" withdrawn)
  std::unique_ptr<Timer> korSoon_;
  bool korSoonArmed_ = false;
  std::unique_ptr<Timer> korRetry_;
  bool korRetryArmed_ = false;
  std::function<void(const proto::KorImage&)> korSaver_;
  std::unique_ptr<Timer> korSave_;
  bool korSaveArmed_ = false;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_AGENT_CORE_H_

// Agent: the veltd process. It owns the event loop and everything the loop
// serves: the bus to the other agents (LoopbackBus in standalone mode), the
// replica of the cluster's state (the bus's handler; the agent is its
// sink), the agent socket with its client sessions, the clients'
// responsiveness pings, the protocol deadlines the replica hands out, the
// subscriptions of this node's clients and the signals that stop it.
// Nothing here runs on another thread: every piece is touched only from the
// loop, so nothing needs a lock. Owned by the thread that calls run().
#ifndef VELT_AGENT_AGENT_H_
#define VELT_AGENT_AGENT_H_

#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agent_log.h"
#include "agent_options.h"
#include "bus.h"
#include "client_session.h"
#include "local_subscriptions.h"
#include "owner_thread.h"
#include "replica.h"
#include "topology_watch.h"

namespace velt {
namespace agent {

class CorosyncBus;

class Agent : public ReplicaSink, public ClientSession::Owner {
 public:
  explicit Agent(AgentOptions options);
  ~Agent() override;
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Sets everything up and serves until SIGTERM or SIGINT. Returns the
  // process's exit status: 0 after a signal, 1 when the agent cannot run
  // (the log says why), 2 when the settings ask for what this build cannot
  // do.
  int run();

  // ReplicaSink.
  void toClient(uint64_t client, const proto::AgentFrame& frame) override;
  void groupChanged(const GroupChange& change) override;
  void deadlinesChanged(const std::vector<Deadline>& deadlines) override;
  void activeVersionChanged(uint32_t version) override;
  void synced() override;

  // ClientSession::Owner.
  void onHello(ClientSession& session, const proto::Hello& hello) override;
  void onRequest(ClientSession& session, const proto::Request& request) override;
  void onClosed(ClientSession& session, const std::string& why, bool wasAccepted) override;

 private:
  using DeadlineKey = std::tuple<std::string, uint64_t, uint32_t>;
  struct DeadlineTimer {
    Deadline deadline;
    uint64_t generation = 0;
    std::unique_ptr<asio::steady_timer> timer;
  };

  int start();
  // The transport the settings ask for; null with *exitStatus set when it
  // cannot be had.
  std::unique_ptr<Bus> makeBus(int* exitStatus);
  int prepareStateDir();
  int openSocket();
  void removeSocket();
  void raiseDescriptorLimit();
  void fail(const std::string& text);
  // Tells systemd (when it started us with $NOTIFY_SOCKET) how the agent
  // stands, and that it is ready once it holds the cluster's state.
  void notifyService();

  void watchBus();
  void dispatchBus();
  void waitAcceptable();
  void acceptClients();
  bool mayConnect(int fd, const ClientSession::Peer& peer) const;

  // Lets the replica send what the bus refused earlier, and keeps trying
  // on a timer while the bus refuses.
  void flushReplica();
  void submitToReplica(ClientSession& session, const proto::Request& request);
  // Brings what the cluster holds of this node's adapters in line with the
  // topology (after each change it reports, and after each sync).
  void reportAdapters();
  int startTopology();
  void answerQuery(ClientSession& session, const proto::Request& request);
  void subscribe(ClientSession& session, const proto::Request& request);
  void unsubscribe(ClientSession& session, const proto::Request& request);
  void changeResponsiveness(ClientSession& session, const proto::Request& request);
  void reply(ClientSession& session, uint64_t id, int rc, const std::string& text);
  void sendSubscriptionNotes(const std::vector<LocalSubscriptions::Outgoing>& out);

  bool mayLogRefusal();
  void tellGone(uint64_t client, const std::string& why);
  void retryGone();
  void armDeadline(const DeadlineKey& key, DeadlineTimer* entry, std::chrono::seconds after);
  void fireDeadline(const DeadlineKey& key, uint64_t generation);

  uint32_t activeVersion() const;
  proto::AgentFrame domainControl(uint32_t version) const;
  std::string describeClient(const ClientSession& session) const;
  void stop(int exitStatus, const std::string& why);

  OwnerThread ownerThread_;
  AgentOptions options_;
  // Declared first so that it goes last: the handlers it still holds keep
  // sessions alive and are dropped, never run, when it is destroyed.
  asio::io_context io_;
  AgentLog log_;
  std::unique_ptr<Bus> bus_;
  // bus_ when it is the cluster's bus (for its link state), else null.
  CorosyncBus* corosync_ = nullptr;
  std::unique_ptr<Replica> replica_;
  LocalSubscriptions subscriptions_;
  // This node's adapters; reportedAdapters_ is what the cluster holds of
  // them (as of the last sync) plus what was sent since, by index.
  std::unique_ptr<TopologyWatch> topology_;
  std::map<uint32_t, proto::AdapterImage> reportedAdapters_;
  std::unique_ptr<asio::steady_timer> adapterRetry_;

  // Watches the bus's descriptor (not ours to close: released at the end).
  std::unique_ptr<asio::posix::stream_descriptor> busWatch_;
  std::unique_ptr<asio::posix::stream_descriptor> listener_;
  asio::steady_timer acceptRetry_;
  bool acceptPaused_ = false;
  asio::signal_set signals_;

  // Accepted connections (the clients) and refused ones that wait for
  // their client to read the refusal.
  std::map<uint64_t, std::shared_ptr<ClientSession>> sessions_;
  std::map<uint64_t, std::shared_ptr<ClientSession>> refused_;
  std::chrono::steady_clock::time_point refusalWindow_;
  size_t refusalsLogged_ = 0;
  size_t refusalsUnlogged_ = 0;
  uint64_t nextClient_ = 1;
  ClientSession::Limits sessionLimits_;

  std::map<DeadlineKey, DeadlineTimer> deadlines_;
  uint64_t deadlineGeneration_ = 0;

  // Departures the bus could not take at once (flow control), in order.
  std::deque<std::pair<uint64_t, std::string>> goneBacklog_;
  asio::steady_timer goneRetry_;
  asio::steady_timer replicaRetry_;
  bool replicaRetryArmed_ = false;

  bool socketBound_ = false;
  dev_t socketDev_ = 0;
  ino_t socketIno_ = 0;
  bool stopping_ = false;
  int exitStatus_ = 0;
  bool readyNotified_ = false;
  std::string notifiedStatus_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_AGENT_H_

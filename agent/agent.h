// Agent: the veltd process, the thin layer around AgentCore. It owns the
// event loop and what needs the system: the bus to the other agents
// (CorosyncBus, or LoopbackBus in standalone mode), the agent socket with
// its client sessions (accepting, peer credentials, a stale socket left by
// a killed agent), the state directory, the watch of this node's
// interfaces, the timers the core asks for, systemd's notifications and
// the signals that stop it. What the clients, the replica and the topology
// mean is the core's business: the agent hands it their events.
// Nothing here runs on another thread: every piece is touched only from the
// loop, so nothing needs a lock. Owned by the thread that calls run().
#ifndef VELT_AGENT_AGENT_H_
#define VELT_AGENT_AGENT_H_

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "agent_core.h"
#include "agent_log.h"
#include "agent_options.h"
#include "bus.h"
#include "client_session.h"
#include "nodelist_watch.h"
#include "owner_thread.h"
#include "topology_watch.h"

namespace velt {
namespace agent {

class CorosyncBus;

class Agent : public ClientSession::Owner {
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

  // ClientSession::Owner: handed to the core.
  void onHello(ClientSession& session, const proto::Hello& hello) override;
  void onRequest(ClientSession& session, const proto::Request& request) override;
  void onClosed(ClientSession& session, const std::string& why, bool wasAccepted) override;

 private:
  int start();
  // The transport the settings ask for; null with *exitStatus set when it
  // cannot be had.
  std::unique_ptr<Bus> makeBus(int* exitStatus);
  int prepareStateDir();
  int openSocket();
  void removeSocket();
  void raiseDescriptorLimit();
  // Waits for the next signal: SIGHUP reopens the log, the others stop.
  void waitForSignal();
  void fail(const std::string& text);
  // Tells systemd (when it started us with $NOTIFY_SOCKET) how the agent
  // stands, and that it is ready once it holds the cluster's state.
  void notifyService();

  void watchBus();
  void dispatchBus();
  void waitAcceptable();
  void acceptClients();
  bool mayConnect(int fd, const ClientSession::Peer& peer) const;
  // Whether a connection of peer has a slot: the last few are kept for
  // root and the agent's own user. When none is free, the oldest
  // connection that has not said hello yet is closed to make room.
  bool takeSlot(const ClientSession::Peer& peer);
  size_t openSessions() const { return sessions_.size() - evicted_.size(); }
  // Gives the memory of a burst of client frames back to the system, a
  // moment after it ends.
  void scheduleTrim();
  int startTopology();
  // This node's stable id and the KOR resources kept from the last run
  // (before the bus is joined), then corosync's nodelist.
  int startKor();
  void saveKor(const proto::KorImage& image);

  bool mayLogRefusal();
  void stop(int exitStatus, const std::string& why);

  OwnerThread ownerThread_;
  AgentOptions options_;
  // Declared first so that it goes last: the handlers it still holds keep
  // sessions alive and are dropped, never run, when it is destroyed.
  asio::io_context io_;
  AgentLog log_;
  // The core's timers, on the loop's steady clock.
  std::unique_ptr<TimerSource> timers_;
  std::unique_ptr<Bus> bus_;
  // bus_ when it is the cluster's bus (for its link state), else null.
  CorosyncBus* corosync_ = nullptr;
  // This node's interfaces, and the face the core sees of them.
  std::unique_ptr<TopologyWatch> topology_;
  std::unique_ptr<NodeTopology> nodeTopology_;
  // Goes before everything it was handed.
  std::unique_ptr<AgentCore> core_;
  // Corosync's nodelist (cluster mode only).
  std::unique_ptr<NodelistWatch> nodelist_;
  // The last reason the KOR resources could not be written ("" when the
  // last write worked), so that a lasting failure is logged once.
  std::string korSaveTrouble_;

  // Watches the bus's descriptor (not ours to close: released at the end).
  std::unique_ptr<asio::posix::stream_descriptor> busWatch_;
  std::unique_ptr<asio::posix::stream_descriptor> listener_;
  asio::steady_timer acceptRetry_;
  bool acceptPaused_ = false;
  asio::signal_set signals_;

  // Accepted connections (the clients, each also known to the core) and
  // refused ones that wait for their client to read the refusal.
  std::map<uint64_t, std::shared_ptr<ClientSession>> sessions_;
  std::map<uint64_t, std::shared_ptr<ClientSession>> refused_;
  std::chrono::steady_clock::time_point refusalWindow_;
  size_t refusalsLogged_ = 0;
  size_t refusalsUnlogged_ = 0;
  uint64_t nextClient_ = 1;
  ClientSession::Limits sessionLimits_;
  // Connections that have not said hello yet, oldest first, and those
  // closed to make room whose close the loop has not handled yet.
  std::set<uint64_t> awaitingHello_;
  std::set<uint64_t> evicted_;
  asio::steady_timer trimTimer_;
  bool trimArmed_ = false;

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

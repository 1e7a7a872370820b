// Opening a client connection to the node agent's socket and the hello
// exchange that starts it, shared by the client libraries. Each library
// builds its own hello and turns the outcome into its own return codes and
// texts; nothing here prints. Thread-safe (no shared state).
#ifndef VELT_PLATFORM_PROTO_AGENT_CONNECT_H_
#define VELT_PLATFORM_PROTO_AGENT_CONNECT_H_

#include <stddef.h>
#include <sys/types.h>

#include <chrono>
#include <string>

namespace velt {
namespace proto {
class AgentFrame;
}  // namespace proto

namespace wire {

constexpr const char* kDefaultAgentSocketPath = "/run/velt/agent.sock";

// The agent socket's path: VELT_AGENT_SOCKET when set (even when empty),
// the default otherwise.
const char* agentSocketPath();

// The longest path a UNIX socket address holds.
size_t maxAgentSocketPathLength();

// Where opening the connection stopped.
enum class ConnectStep {
  kConnected,
  kEmptyPath,        // the path is ""
  kPathTooLong,      // longer than maxAgentSocketPathLength()
  kSocket,           // socket() failed (err)
  kConnect,          // connect() failed (err)
  kPeerCredentials,  // SO_PEERCRED failed (err)
  kForeignPeer,      // served by a user other than root or ours (peerUid, peerPid)
  kSetup,            // making sends blocking with a time limit failed (err)
};

struct AgentConnection {
  ConnectStep step = ConnectStep::kConnected;
  int fd = -1;       // kConnected only; the caller closes it
  int err = 0;       // errno value of the failed call
  uid_t peerUid = 0;
  pid_t peerPid = 0;
};

// Connects a SOCK_SEQPACKET socket to path. The connect itself does not
// block (a full backlog fails at once). On success the peer is root or our
// own effective user, sends block for at most sendTimeoutSecs and the
// descriptor is close-on-exec; reads are left to the caller (poll, then
// recv with MSG_DONTWAIT). On failure no descriptor is left open.
AgentConnection connectToAgent(const char* path, int sendTimeoutSecs);

// Where the hello exchange stopped.
enum class HelloStep {
  kAnswered,       // *answer holds the agent's HelloReply frame (its rc unread)
  kSendFailed,     // err
  kTimedOut,       // no answer within the bound
  kHungUp,         // the agent closed the connection first
  kReadFailed,     // err
  kBadFrame,       // a packet, the framing or the message is malformed, or
                   // the first frame is not a hello answer
  kWrongVersion,   // the answer is of a wire version we do not speak
};

struct HelloOutcome {
  HelloStep step = HelloStep::kAnswered;
  int err = 0;
  std::string why;   // what went wrong, for every step but kAnswered
};

// Sends helloBytes (a serialized ClientFrame carrying a Hello) on fd and
// reads the agent's answer, waiting at most bound. Only the packets of the
// answer are read: whatever the agent sends after it stays in the socket.
HelloOutcome exchangeHello(int fd, const std::string& helloBytes, std::chrono::milliseconds bound,
                           proto::AgentFrame* answer);

}  // namespace wire
}  // namespace velt

#endif  // VELT_PLATFORM_PROTO_AGENT_CONNECT_H_

// The settings of one veltd process: what its command line asked for,
// checked, plus the bounds it keeps on its clients. Plain data
// (thread-compatible).
#ifndef VELT_AGENT_AGENT_OPTIONS_H_
#define VELT_AGENT_AGENT_OPTIONS_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "topology.h"

namespace velt {
namespace agent {

// The level this build of the agent runs at (V.R.M.F packed, most
// significant first).
constexpr uint32_t kAgentVersion = 0x02050000;   // 2.5.0.0

struct AgentOptions {
  // Embedded single-node mode on the LoopbackBus. Without it the agent
  // would join the cluster through corosync.
  bool standalone = false;
  std::string socketPath = "/run/velt/agent.sock";
  std::string stateDir = "/var/lib/velt";
  std::string logPath;                 // empty: standard error
  // Who may connect besides root and the agent's own user.
  std::vector<uid_t> allowUids;
  std::vector<gid_t> allowGids;
  uint32_t agentVersion = kAgentVersion;
  uint32_t node = 1;                   // node number in standalone mode
  uint64_t nodeId = 0;                 // --node-id: this node's stable id (0: kept or new)
  // Topology: the interfaces whose adapters the agent reports, and how
  // often knet's link status is read on a corosync cluster.
  InterfaceFilter interfaces;          // default: every (non-loopback) interface
  uint32_t linkPollMs = 200;

  // Bounds on what clients can make this process hold.
  size_t maxClients = 1024;
  size_t maxUnsentBytes = 64u * 1024 * 1024;   // per connection
  size_t maxUnsentTotal = 256u * 1024 * 1024;  // all connections together
  size_t maxMessageBytes = 16u * 1024 * 1024;  // one message on the socket
  size_t maxPartialBytes = 256u * 1024 * 1024; // unfinished messages of all clients
  size_t maxSubscriptionsPerClient = 4096;
  size_t maxSubscriptions = 65536;             // over all connections
};

enum class ParseOutcome {
  kRun,          // *options is complete
  kHelp,         // -h/--help: print agentUsage() and exit 0
  kUsageError,   // *error says what is wrong; exit 2
};

// Parses veltd's command line (argv[0] is the program). Everything is
// checked here, so that the agent starts only with settings it can use.
ParseOutcome parseAgentOptions(int argc, char** argv, AgentOptions* options,
                               std::string* error);

const char* agentUsage();

// "V.R.M.F" text of a packed version.
std::string formatVersion(uint32_t packed);
// Parses "V.R.M.F" (1 to 4 parts of 0..255) into a packed version.
bool parseVersion(const std::string& text, uint32_t* packed);

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_AGENT_OPTIONS_H_

// The agent's log: one line per event, with a timestamp and the process
// id, appended to a file or written to standard error. A line is written
// with one write() so that it is never interleaved with another process's
// lines. Owned by the agent's event loop thread.
#ifndef VELT_AGENT_AGENT_LOG_H_
#define VELT_AGENT_AGENT_LOG_H_

#include <stddef.h>

#include <string>

namespace velt {
namespace agent {

// Text from outside (group names, program names) as it may appear in one
// log line: control characters escaped, cut after max bytes.
std::string printable(const std::string& text, size_t max = 80);

class AgentLog {
 public:
  AgentLog() = default;
  ~AgentLog();
  AgentLog(const AgentLog&) = delete;
  AgentLog& operator=(const AgentLog&) = delete;

  // Appends to path (created with mode 0640 when missing); an empty path
  // keeps standard error. Returns 0 or an errno value.
  int open(const std::string& path);
  void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

 private:
  int fd_ = 2;
  bool ownsFd_ = false;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_AGENT_LOG_H_

// The agent's log: one line per event, with a time stamp (the one form of
// velt's logs and tools, cu_format_timestamp), the process id and a level,
// appended to a file or written to standard error; when standard error is
// the journal (JOURNAL_STREAM names it) each line begins with its systemd
// priority ("<3>" ...). A line is written with one write() so that it is
// never interleaved with another process's lines. Owned by the agent's
// event loop thread.
#ifndef VELT_AGENT_AGENT_LOG_H_
#define VELT_AGENT_AGENT_LOG_H_

#include <stdarg.h>
#include <stddef.h>

#include <string>

namespace velt {
namespace agent {

// Text from outside (group names, program names) as it may appear in one
// log line: control characters escaped, cut after max bytes.
std::string printable(const std::string& text, size_t max = 80);

// The levels, with their systemd priorities.
enum class LogLevel { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

class AgentLog {
 public:
  AgentLog() = default;
  ~AgentLog();
  AgentLog(const AgentLog&) = delete;
  AgentLog& operator=(const AgentLog&) = delete;

  // Appends to path (created with mode 0640 when missing); an empty path
  // keeps standard error. Returns 0 or an errno value.
  int open(const std::string& path);
  // Opens the file again under its name (after logrotate moved it away);
  // nothing for standard error. Returns 0 or an errno value (the old file
  // is then kept).
  int reopen();
  // A line at the informational level.
  void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void lineAt(LogLevel level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  // Whether lines carry the journal's priority prefix.
  bool toJournal() const { return journal_; }

 private:
  void write(LogLevel level, const char* fmt, va_list ap) __attribute__((format(printf, 3, 0)));

  int fd_ = 2;
  bool ownsFd_ = false;
  std::string path_;
  bool journal_ = journalIsStderr();
  static bool journalIsStderr();
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_AGENT_LOG_H_

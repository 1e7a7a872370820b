#include "agent_log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "vx_cu.h"

namespace velt {
namespace agent {

namespace {

// Longest line kept; longer texts are cut, so that a client's name or a
// group name cannot make one log line arbitrarily large.
constexpr size_t kMaxLine = 1024;

}  // namespace

std::string printable(const std::string& text, size_t max) {
  std::string out;
  for (size_t i = 0; i < text.size() && i < max; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f || c == '\\') {
      char esc[8];
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  if (text.size() > max) out += "...";
  return out;
}

AgentLog::~AgentLog() {
  if (ownsFd_) ::close(fd_);
}

bool AgentLog::journalIsStderr() {
  // systemd sets JOURNAL_STREAM to "DEVICE:INODE" of the stream it gave the
  // service; standard error is the journal only while it is that stream.
  const char* stream = getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  unsigned long long dev = 0, ino = 0;
  if (sscanf(stream, "%llu:%llu", &dev, &ino) != 2) return false;
  struct stat st;
  if (fstat(2, &st) != 0) return false;
  return static_cast<unsigned long long>(st.st_dev) == dev && static_cast<unsigned long long>(st.st_ino) == ino;
}

int AgentLog::open(const std::string& path) {
  if (path.empty()) return 0;
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
  if (fd < 0) return errno;
  if (ownsFd_) ::close(fd_);
  fd_ = fd;
  ownsFd_ = true;
  path_ = path;
  journal_ = false;
  return 0;
}

int AgentLog::reopen() { return path_.empty() ? 0 : open(path_); }

void AgentLog::line(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write(LogLevel::kInfo, fmt, ap);
  va_end(ap);
}

void AgentLog::lineAt(LogLevel level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write(level, fmt, ap);
  va_end(ap);
}

void AgentLog::write(LogLevel level, const char* fmt, va_list ap) {
  static const char* const kNames[] = {"", "", "", "error", "warning", "", "info", "debug"};
  const int priority = static_cast<int>(level);
  char buf[kMaxLine + 2];
  size_t n = 0;
  if (journal_) n = static_cast<size_t>(snprintf(buf, sizeof buf, "<%d>", priority));
  char stamp[32];
  cu_timestamp_now(stamp, sizeof stamp);
  int k = snprintf(buf + n, sizeof buf - n, "%s veltd[%d]: %s: ", stamp, static_cast<int>(getpid()),
                   kNames[priority]);
  if (k > 0) n += static_cast<size_t>(k);
  if (n > kMaxLine) n = kMaxLine;
  k = vsnprintf(buf + n, kMaxLine + 1 - n, fmt, ap);
  if (k > 0) n += std::min(static_cast<size_t>(k), kMaxLine - n);
  buf[n++] = '\n';
  // One write per line; a short write or a full disk loses the line and
  // nothing else (the agent must keep serving its clients).
  ssize_t rc;
  do {
    rc = ::write(fd_, buf, n);
  } while (rc < 0 && errno == EINTR);
}

}  // namespace agent
}  // namespace velt

#include "agent_log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

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

int AgentLog::open(const std::string& path) {
  if (path.empty()) return 0;
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
  if (fd < 0) return errno;
  if (ownsFd_) ::close(fd_);
  fd_ = fd;
  ownsFd_ = true;
  return 0;
}

void AgentLog::line(const char* fmt, ...) {
  char buf[kMaxLine + 2];
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  int k = snprintf(buf + n, sizeof buf - n, ".%06ld veltd[%d]: ", static_cast<long>(tv.tv_usec),
                   static_cast<int>(getpid()));
  if (k > 0) n += static_cast<size_t>(k);
  if (n > kMaxLine) n = kMaxLine;
  va_list ap;
  va_start(ap, fmt);
  k = vsnprintf(buf + n, kMaxLine + 1 - n, fmt, ap);
  va_end(ap);
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

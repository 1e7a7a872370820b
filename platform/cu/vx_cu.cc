// libvx_cu: clocks, locale preparation, error texts, process names,
// version comparison and the check of private directories.
#include "vx_cu.h"

#include <errno.h>
#include <fcntl.h>
#include <locale.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace {

// The replacement clocks of a test, or null for the real ones. Atomic so that
// a test may swap them while other threads read the time.
std::atomic<cu_wall_clock_fn> g_wall_clock{nullptr};
std::atomic<cu_mono_clock_fn> g_mono_clock{nullptr};

constexpr size_t kErrMsgBytes = 512;

// The last error of this thread; each thread sees only its own.
thread_local int t_last_error = 0;
thread_local char t_last_errmsg[kErrMsgBytes] = "";

// strerror_r comes in two shapes (XSI returns int, GNU returns the text,
// which need not be buf); these overloads accept whichever the C library has.
[[maybe_unused]] const char* strerrorResult(int rc, char* buf) {
  return rc == 0 ? buf : nullptr;
}
[[maybe_unused]] const char* strerrorResult(const char* text, char* /*buf*/) {
  return text;
}

// Writes all of text to fd, retrying on interruption; errors are ignored
// because the caller has nowhere better to report them.
void writeAll(int fd, const char* text, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, text, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text += n;
    len -= static_cast<size_t>(n);
  }
}

}  // namespace

int cu_gettimeofday_1(struct timeval* tv) {
  if (tv == nullptr) {
    errno = EINVAL;
    return -1;
  }
  cu_wall_clock_fn fake = g_wall_clock.load(std::memory_order_acquire);
  if (fake != nullptr) return fake(tv);
  return gettimeofday(tv, nullptr);
}

int cu_get_monotonic_time(struct timespec* ts) {
  if (ts == nullptr) {
    errno = EINVAL;
    return -1;
  }
  cu_mono_clock_fn fake = g_mono_clock.load(std::memory_order_acquire);
  if (fake != nullptr) return fake(ts);
  return clock_gettime(CLOCK_MONOTONIC, ts);
}

int64_t cu_monotonic_ms(void) {
  struct timespec ts;
  if (cu_get_monotonic_time(&ts) != 0) return 0;
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void cu_set_clocks_ForTesting(cu_wall_clock_fn wall, cu_mono_clock_fn mono) {
  g_wall_clock.store(wall, std::memory_order_release);
  g_mono_clock.store(mono, std::memory_order_release);
}

int cu_prepare_locale_1(void) {
  // A locale named in the environment but not installed must not leave the
  // libraries without any locale: "C" is always there.
  if (setlocale(LC_ALL, "") != nullptr) return 0;
  if (setlocale(LC_ALL, "C") != nullptr) return 0;
  return -1;
}

const char* cu_strerror(int err, char* buf, size_t len) {
  if (buf == nullptr || len == 0) return "";
  buf[0] = '\0';
  const char* text = strerrorResult(strerror_r(err, buf, len), buf);
  if (text == nullptr || text[0] == '\0') {
    snprintf(buf, len, "Unknown error %d", err);
  } else if (text != buf) {
    snprintf(buf, len, "%s", text);
  }
  return buf;
}

void cu_set_error(int code, const char* fmt, ...) {
  t_last_error = code;
  if (fmt == nullptr) {
    t_last_errmsg[0] = '\0';
    return;
  }
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(t_last_errmsg, sizeof(t_last_errmsg), fmt, ap);
  va_end(ap);
  if (n < 0) t_last_errmsg[0] = '\0';
}

int cu_get_error(void) { return t_last_error; }

const char* cu_get_errmsg(void) { return t_last_errmsg; }

int cu_get_proc_name(pid_t pid, char* buf, size_t len) {
  if (buf == nullptr || len == 0) {
    cu_set_error(EINVAL, "cu_get_proc_name: no room for the name");
    return -1;
  }
  buf[0] = '\0';
  if (pid <= 0) {
    cu_set_error(ESRCH, "cu_get_proc_name: invalid pid %d", static_cast<int>(pid));
    return -1;
  }
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/comm", static_cast<int>(pid));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    char text[128];
    cu_set_error(err, "cu_get_proc_name: %s: %s", path, cu_strerror(err, text, sizeof(text)));
    return -1;
  }
  // The kernel keeps at most 16 bytes of command name; a little more room
  // lets us notice nothing is lost, and nothing read can grow past it.
  char name[64];
  size_t got = 0;
  for (;;) {
    ssize_t n = read(fd, name + got, sizeof(name) - 1 - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      close(fd);
      char text[128];
      cu_set_error(err, "cu_get_proc_name: %s: %s", path, cu_strerror(err, text, sizeof(text)));
      return -1;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
    if (got == sizeof(name) - 1) break;
  }
  close(fd);
  name[got] = '\0';
  // A process that ended between open and read leaves an empty file.
  if (got == 0) {
    cu_set_error(ESRCH, "cu_get_proc_name: %s is empty", path);
    return -1;
  }
  char* newline = strchr(name, '\n');
  if (newline != nullptr) *newline = '\0';
  snprintf(buf, len, "%s", name);
  return 0;
}

int cu_cmp_velt_versions(const uint8_t a[4], const uint8_t b[4]) {
  static const uint8_t kZero[4] = {0, 0, 0, 0};
  if (a == nullptr) a = kZero;
  if (b == nullptr) b = kZero;
  for (int i = 0; i < 4; ++i) {
    if (a[i] != b[i]) return static_cast<int>(a[i]) - static_cast<int>(b[i]);
  }
  return 0;
}

int cu_parse_velt_version(const char* text, uint8_t out[4]) {
  if (text == nullptr || out == nullptr) {
    cu_set_error(EINVAL, "cu_parse_velt_version: no text");
    return -1;
  }
  uint8_t parts[4] = {0, 0, 0, 0};
  int count = 0;
  const char* p = text;
  for (;;) {
    if (count == 4) {
      cu_set_error(EINVAL, "cu_parse_velt_version: more than four parts in \"%.64s\"", text);
      return -1;
    }
    if (*p < '0' || *p > '9') {
      cu_set_error(EINVAL, "cu_parse_velt_version: a part is not a number in \"%.64s\"", text);
      return -1;
    }
    unsigned value = 0;
    while (*p >= '0' && *p <= '9') {
      value = value * 10 + static_cast<unsigned>(*p - '0');
      // Checked at every digit so that a long run of digits cannot overflow.
      if (value > 255) {
        cu_set_error(EINVAL, "cu_parse_velt_version: a part exceeds 255 in \"%.64s\"", text);
        return -1;
      }
      ++p;
    }
    parts[count++] = static_cast<uint8_t>(value);
    if (*p == '\0') break;
    if (*p != '.') {
      cu_set_error(EINVAL, "cu_parse_velt_version: unexpected character in \"%.64s\"", text);
      return -1;
    }
    ++p;
  }
  memcpy(out, parts, sizeof(parts));
  return 0;
}

void dae_pause_for_debugger(void) {
  int pid = static_cast<int>(getpid());
  char text[256];
  int n = snprintf(text, sizeof(text),
                   "%s[%d]: stopped for a debugger (gdb -p %d); to continue: kill -CONT %d\n",
                   program_invocation_short_name, pid, pid, pid);
  if (n > 0) {
    size_t len = static_cast<size_t>(n) < sizeof(text) ? static_cast<size_t>(n) : sizeof(text) - 1;
    writeAll(STDERR_FILENO, text, len);
  }
  // SIGSTOP cannot be caught or blocked, so the stop is certain; the process
  // runs on from here once someone sends SIGCONT.
  raise(SIGSTOP);
}

int cu_check_private_dir(const char* dir, uid_t owner, char* why, size_t len) {
  auto refuse = [&](int err, const char* fmt, auto... args) {
    if (why != nullptr && len > 0) snprintf(why, len, fmt, args...);
    errno = err;
    return -1;
  };
  if (dir == nullptr || dir[0] == '\0') return refuse(EINVAL, "%s", "no directory given");
  struct stat st;
  if (lstat(dir, &st) != 0) {
    int err = errno;
    char text[128];
    return refuse(err, "cannot check %s: %s", dir, cu_strerror(err, text, sizeof text));
  }
  if (S_ISLNK(st.st_mode)) {
    return refuse(ELOOP, "%s is a symbolic link; a real directory is required", dir);
  }
  if (!S_ISDIR(st.st_mode)) return refuse(ENOTDIR, "%s is not a directory", dir);
  if (st.st_uid != 0 && st.st_uid != owner) {
    return refuse(EPERM, "%s belongs to uid %lu, not to root or uid %lu", dir,
                  static_cast<unsigned long>(st.st_uid), static_cast<unsigned long>(owner));
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return refuse(EPERM, "%s is writable by %s (mode %04o)", dir,
                  (st.st_mode & S_IWOTH) != 0 ? "others" : "its group",
                  static_cast<unsigned>(st.st_mode & 07777));
  }
  return 0;
}

char* cu_format_timestamp(const struct timespec* t, char* buf, size_t len) {
  if (buf == nullptr || len == 0) return buf;
  struct tm utc;
  time_t secs = t->tv_sec;
  gmtime_r(&secs, &utc);
  char day[32];
  strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(buf, len, "%s.%06ldZ", day, static_cast<long>(t->tv_nsec / 1000));
  return buf;
}

char* cu_timestamp_now(char* buf, size_t len) {
  struct timeval tv = {0, 0};
  cu_gettimeofday_1(&tv);
  struct timespec t = {tv.tv_sec, static_cast<long>(tv.tv_usec) * 1000};
  return cu_format_timestamp(&t, buf, len);
}

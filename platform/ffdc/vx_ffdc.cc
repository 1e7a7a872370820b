// libvx_ffdc: error-log entries to syslog and to a bounded JSON-lines file,
// with identifiers unique across hosts, processes and threads.
#include "vx_ffdc.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "velt_mutex.h"
#include "vx_cu.h"

namespace {

constexpr size_t kDefaultMaxLogBytes = 4u * 1024 * 1024;
constexpr size_t kMaxTextBytes = 16 * 1024;    // the detail text of an entry
constexpr size_t kMaxFieldBytes = 1024;        // every other text field
constexpr size_t kMaxSyslogBytes = 1024;
constexpr size_t kMaxPathBytes = PATH_MAX - 3;  // room for ".1"
constexpr int kWriteAttempts = 4;               // opens per entry, rotations included

// The identifier alphabet: digits and capitals without I, L, O and U, so
// that an identifier read aloud or copied by hand is not misread.
constexpr char kIdAlphabet[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
static_assert(sizeof(kIdAlphabet) == 33, "32 symbols of 5 bits each");
// Fields of an identifier, in symbols: host 13 (64 bits), pid 7 (35 bits),
// time in microseconds 13 (64 bits), per-process counter 9 (45 bits).
constexpr int kIdHostSymbols = 13;
constexpr int kIdPidSymbols = 7;
constexpr int kIdTimeSymbols = 13;
constexpr int kIdCounterSymbols = 9;
static_assert(kIdHostSymbols + kIdPidSymbols + kIdTimeSymbols + kIdCounterSymbols == FC_ID_LEN,
              "the fields fill the identifier exactly");

// Configuration and the file of the process. Thread-safe through mu, which
// guards all of it and serialises the file writes of this process; writes of
// other processes are serialised by flock on the file itself.
struct FfdcState {
  velt::Mutex mu;
  bool initialized GUARDED_BY(mu) = false;
  bool envRead GUARDED_BY(mu) = false;
  std::string envPath GUARDED_BY(mu);        // $VELT_FFDC_LOG, made absolute
  std::string explicitPath GUARDED_BY(mu);   // from fc_set_log_file
  std::string component GUARDED_BY(mu);
  size_t maxLogBytes GUARDED_BY(mu) = kDefaultMaxLogBytes;
};

FfdcState& state() {
  static FfdcState* s = new FfdcState;  // never destroyed: entries may come during exit
  return *s;
}

std::atomic<fc_syslog_fn> g_syslog_hook{nullptr};
std::once_flag g_openlog_once;

// ---- identifiers ------------------------------------------------------------

uint64_t fnv1a(uint64_t hash, const char* data, size_t len) {
  for (size_t i = 0; i < len; ++i) {
    hash ^= static_cast<unsigned char>(data[i]);
    hash *= 1099511628211ull;
  }
  return hash;
}

// A hash of the host's name and machine id: two hosts that share a name
// (every fresh container is "localhost") still differ by machine id.
uint64_t hostHash() {
  static const uint64_t hash = [] {
    uint64_t h = 14695981039346656037ull;
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) == 0) h = fnv1a(h, name, strnlen(name, sizeof(name)));
    int fd = open("/etc/machine-id", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      char id[64];
      ssize_t n = read(fd, id, sizeof(id));
      if (n > 0) h = fnv1a(h, id, static_cast<size_t>(n));
      close(fd);
    }
    return h;
  }();
  return hash;
}

// The counter starts at a random point, so that even a reused pid on a
// clock set back cannot repeat an earlier process's identifiers.
std::atomic<uint64_t>& idCounter() {
  static std::atomic<uint64_t> counter([] {
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof(seed), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(seed))) {
      struct timespec ts;
      clock_gettime(CLOCK_MONOTONIC, &ts);
      seed = (static_cast<uint64_t>(ts.tv_nsec) << 20) ^ static_cast<uint64_t>(getpid());
    }
    return seed;
  }());
  return counter;
}

void encodeSymbols(uint64_t value, int symbols, char* out) {
  for (int i = symbols - 1; i >= 0; --i) {
    out[i] = kIdAlphabet[value & 31];
    value >>= 5;
  }
}

void makeId(const struct timeval& now, char* out) {
  uint64_t micros = static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_usec);
  uint64_t count = idCounter().fetch_add(1, std::memory_order_relaxed);
  char* p = out;
  encodeSymbols(hostHash(), kIdHostSymbols, p);
  p += kIdHostSymbols;
  encodeSymbols(static_cast<uint32_t>(getpid()), kIdPidSymbols, p);
  p += kIdPidSymbols;
  encodeSymbols(micros, kIdTimeSymbols, p);
  p += kIdTimeSymbols;
  encodeSymbols(count, kIdCounterSymbols, p);
  out[FC_ID_LEN] = '\0';
}

// ---- JSON -------------------------------------------------------------------

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence at s (at most n bytes), or 0 when
// the bytes there are not one (overlong forms and surrogates included).
size_t utf8SequenceLength(const unsigned char* s, size_t n) {
  unsigned char c = s[0];
  if (c >= 0xC2 && c <= 0xDF) return n >= 2 && isContinuation(s[1]) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (n < 3 || !isContinuation(s[1]) || !isContinuation(s[2])) return 0;
    if (c == 0xE0 && s[1] < 0xA0) return 0;  // overlong
    if (c == 0xED && s[1] > 0x9F) return 0;  // surrogate
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (n < 4 || !isContinuation(s[1]) || !isContinuation(s[2]) || !isContinuation(s[3])) return 0;
    if (c == 0xF0 && s[1] < 0x90) return 0;  // overlong
    if (c == 0xF4 && s[1] > 0x8F) return 0;  // beyond U+10FFFF
    return 4;
  }
  return 0;
}

// Appends s (len bytes, cut to max) as a JSON string. Control characters are
// escaped and bytes that are not UTF-8 become U+FFFD, so the line always
// parses whatever the caller passed.
void appendJsonString(std::string& out, const char* s, size_t len, size_t max) {
  if (s == nullptr) len = 0;
  if (len > max) len = max;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s);
  out += '"';
  size_t i = 0;
  while (i < len) {
    unsigned char c = p[i];
    if (c < 0x80) {
      switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        default:
          if (c < 0x20 || c == 0x7F) {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\u%04x", c);
            out += esc;
          } else {
            out += static_cast<char>(c);
          }
      }
      ++i;
      continue;
    }
    size_t seq = utf8SequenceLength(p + i, len - i);
    if (seq == 0) {
      out += "\\ufffd";
      ++i;
    } else {
      out.append(reinterpret_cast<const char*>(p + i), seq);
      i += seq;
    }
  }
  out += '"';
}

void appendJsonString(std::string& out, const char* s) {
  appendJsonString(out, s, s == nullptr ? 0 : strnlen(s, kMaxFieldBytes), kMaxFieldBytes);
}

const char* typeName(int type) {
  switch (type) {
    case 0: return "EMERGENCY";
    case 1: return "ERROR";
    case 2: return "INFO";
    case 4: return "WARNING";
    default: return nullptr;
  }
}

// An emergency of a daemon is not an emergency of the system: LOG_EMERG
// would be broadcast to every terminal, so it is logged as critical.
int syslogPriority(int type) {
  switch (type) {
    case 0: return LOG_CRIT;
    case 1: return LOG_ERR;
    case 2: return LOG_INFO;
    default: return LOG_WARNING;
  }
}

std::string isoTime(const struct timeval& tv) {
  struct tm tm;
  time_t secs = tv.tv_sec;
  char text[64];
  if (gmtime_r(&secs, &tm) == nullptr) return "1970-01-01T00:00:00.000000Z";
  size_t n = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &tm);
  snprintf(text + n, sizeof(text) - n, ".%06ldZ", static_cast<long>(tv.tv_usec));
  return text;
}

// ---- configuration ----------------------------------------------------------

// Makes path absolute against the current directory. Returns false when it
// is empty or the result would be too long.
bool absolutePath(const char* path, std::string* out) {
  if (path == nullptr || path[0] == '\0') return false;
  size_t len = strnlen(path, kMaxPathBytes + 1);
  if (len > kMaxPathBytes) return false;
  if (path[0] == '/') {
    out->assign(path, len);
    return true;
  }
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof(cwd)) == nullptr) return false;
  std::string full = std::string(cwd) + "/" + std::string(path, len);
  if (full.size() > kMaxPathBytes) return false;
  *out = full;
  return true;
}

// Reads $VELT_FFDC_LOG once. Returns false when it is set but unusable.
bool loadEnvPathLocked(FfdcState& st) REQUIRES(st.mu) {
  if (st.envRead) return true;
  st.envRead = true;
  const char* env = getenv("VELT_FFDC_LOG");
  if (env == nullptr || env[0] == '\0') return true;
  return absolutePath(env, &st.envPath);
}

std::string logPathLocked(FfdcState& st) REQUIRES(st.mu) {
  loadEnvPathLocked(st);
  return st.envPath.empty() ? st.explicitPath : st.envPath;
}

// Opens path for appending; only a regular file is accepted (non-blocking
// open, so that a FIFO put there cannot hang the caller).
int openLogFile(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

// Appends line to the file at path, moving the file to path.1 first when the
// line would take it past the state's bound. Returns FC_SUCCESS or
// FC_LOG_OPEN_FAILED. The state's mu serialises this process; flock
// serialises the others that share the file.
int appendLineLocked(FfdcState& st, const std::string& path, const std::string& line) REQUIRES(st.mu) {
  const size_t maxBytes = st.maxLogBytes;
  for (int attempt = 0; attempt < kWriteAttempts; ++attempt) {
    int fd = openLogFile(path);
    if (fd < 0) return FC_LOG_OPEN_FAILED;
    if (flock(fd, LOCK_EX) != 0) {
      close(fd);
      return FC_LOG_OPEN_FAILED;
    }
    // Another process may have moved the file away between our open and our
    // lock: then the name now means a new file, and we open that instead.
    struct stat opened;
    struct stat named;
    if (fstat(fd, &opened) != 0) {
      close(fd);
      return FC_LOG_OPEN_FAILED;
    }
    if (stat(path.c_str(), &named) != 0 || named.st_ino != opened.st_ino ||
        named.st_dev != opened.st_dev) {
      close(fd);
      continue;
    }
    size_t size = static_cast<size_t>(opened.st_size);
    if (size > 0 && size + line.size() > maxBytes) {
      std::string older = path + ".1";
      // If the file cannot be moved it is not written either, so that the
      // bound holds; the entry is still in syslog.
      int rc = rename(path.c_str(), older.c_str());
      close(fd);
      if (rc != 0) return FC_LOG_OPEN_FAILED;
      continue;
    }
    size_t done = 0;
    while (done < line.size()) {
      ssize_t n = write(fd, line.data() + done, line.size() - done);
      if (n < 0) {
        if (errno == EINTR) continue;
        break;
      }
      done += static_cast<size_t>(n);
    }
    if (done < line.size()) {
      // A half line would spoil every later line for a reader: take it back.
      if (ftruncate(fd, opened.st_size) != 0) {
        // Nothing more can be done; the next reader sees the damage.
      }
      close(fd);
      return FC_LOG_OPEN_FAILED;
    }
    close(fd);
    return FC_SUCCESS;
  }
  return FC_LOG_OPEN_FAILED;
}

void sendToSyslog(int priority, const char* msg) {
  fc_syslog_fn hook = g_syslog_hook.load(std::memory_order_acquire);
  if (hook != nullptr) {
    hook(priority, msg);
    return;
  }
  std::call_once(g_openlog_once, [] { openlog(nullptr, LOG_PID, LOG_DAEMON); });
  syslog(priority, "%s", msg);
}

}  // namespace

int fc_init_1(const char* component) {
  FfdcState& st = state();
  velt::MutexLock lock(st.mu);
  if (st.initialized) return FC_ALREADY_INITIALIZED;
  st.initialized = true;
  st.component.assign(component == nullptr ? "" : component,
                      component == nullptr ? 0 : strnlen(component, kMaxFieldBytes));
  bool envUsable = loadEnvPathLocked(st);
  std::string path = logPathLocked(st);
  if (!envUsable) return FC_INVALID_ARGUMENT;
  if (path.empty()) return FC_NO_ENVIRONMENT;
  int fd = openLogFile(path);
  if (fd < 0) return FC_LOG_OPEN_FAILED;
  close(fd);
  return FC_SUCCESS;
}

int fc_set_log_file(const char* path) {
  std::string full;
  if (!absolutePath(path, &full)) return FC_INVALID_ARGUMENT;
  FfdcState& st = state();
  velt::MutexLock lock(st.mu);
  st.explicitPath = full;
  return FC_SUCCESS;
}

int fc_mk_syslog_msg(const struct fc_errtbl_entry* tmpl, const char* text, char* buf,
                     size_t buflen) {
  if (buf == nullptr || buflen == 0) return -1;
  if (text == nullptr) text = "";
  int n;
  if (tmpl == nullptr) {
    n = snprintf(buf, buflen, "%s", text);
  } else {
    n = snprintf(buf, buflen, "%s[0x%02x]: %s", tmpl->label == nullptr ? "" : tmpl->label,
                 tmpl->detail, text);
  }
  if (n < 0) {
    buf[0] = '\0';
    return 0;
  }
  return static_cast<size_t>(n) < buflen ? n : static_cast<int>(buflen - 1);
}

int fc_log_error(fc_eid_t new_id, const char* ref_id, const char* program, const char* component,
                 const char* file, const char* version, int line, int type,
                 unsigned long tmpl_word0, const struct fc_errtbl_entry* tmpl, const char* detail,
                 size_t detail_len, const char* syslog_msg) {
  (void)tmpl_word0;  // the template row carries the same word
  const char* typeText = typeName(type);
  if (tmpl == nullptr || typeText == nullptr) return FC_INVALID_ARGUMENT;

  struct timeval now = {0, 0};
  if (cu_gettimeofday_1(&now) != 0) now = {0, 0};
  fc_eid_t id;
  makeId(now, id);
  if (new_id != nullptr) memcpy(new_id, id, sizeof(id));

  size_t textLen = detail == nullptr ? 0 : strnlen(detail, detail_len < kMaxTextBytes ? detail_len : kMaxTextBytes);

  // System log first: it needs no configuration and so is the entry that
  // survives whatever happens to the file.
  char sysText[kMaxSyslogBytes];
  if (syslog_msg != nullptr && syslog_msg[0] != '\0') {
    snprintf(sysText, sizeof(sysText), "%s", syslog_msg);
  } else {
    std::string plain(detail == nullptr ? "" : detail, textLen);
    fc_mk_syslog_msg(tmpl, plain.c_str(), sysText, sizeof(sysText));
  }
  std::string sysLine;
  for (const char* p = sysText; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    sysLine += (c < 0x20 || c == 0x7F) ? ' ' : *p;  // one entry, one syslog line
  }
  sysLine += " fcid=";
  sysLine += id;
  sendToSyslog(syslogPriority(type), sysLine.c_str());

  FfdcState& st = state();
  velt::MutexLock lock(st.mu);
  std::string path = logPathLocked(st);
  if (path.empty()) return FC_SUCCESS;

  const char* componentText = component != nullptr && component[0] != '\0' ? component : st.component.c_str();
  std::string json;
  json.reserve(512 + textLen);
  json += "{\"id\":";
  appendJsonString(json, id);
  json += ",\"ref\":";
  appendJsonString(json, ref_id, ref_id == nullptr ? 0 : strnlen(ref_id, FC_ID_LEN), FC_ID_LEN);
  json += ",\"time\":";
  appendJsonString(json, isoTime(now).c_str());
  json += ",\"program\":";
  appendJsonString(json, program);
  json += ",\"component\":";
  appendJsonString(json, componentText);
  json += ",\"file\":";
  appendJsonString(json, file);
  json += ",\"version\":";
  appendJsonString(json, version);
  json += ",\"line\":" + std::to_string(line);
  json += ",\"type\":";
  appendJsonString(json, typeText);
  json += ",\"label\":";
  appendJsonString(json, tmpl->label);
  json += ",\"detail\":" + std::to_string(tmpl->detail);
  json += ",\"description\":";
  appendJsonString(json, tmpl->description);
  json += ",\"text\":";
  appendJsonString(json, detail, textLen, kMaxTextBytes);
  json += "}\n";
  return appendLineLocked(st, path, json);
}

int fc_is_id_empty(const char* id) {
  if (id == nullptr) return 1;
  return id[0] == 0 && id[1] == 0 && id[2] == 0 && id[3] == 0;
}

void fc_set_max_log_bytes_ForTesting(size_t max_bytes) {
  FfdcState& st = state();
  velt::MutexLock lock(st.mu);
  st.maxLogBytes = max_bytes == 0 ? kDefaultMaxLogBytes : max_bytes;
}

void fc_set_syslog_ForTesting(fc_syslog_fn fn) {
  g_syslog_hook.store(fn, std::memory_order_release);
}

void fc_reset_ForTesting(void) {
  FfdcState& st = state();
  velt::MutexLock lock(st.mu);
  st.initialized = false;
  st.envRead = false;
  st.envPath.clear();
  st.explicitPath.clear();
  st.component.clear();
  st.maxLogBytes = kDefaultMaxLogBytes;
}

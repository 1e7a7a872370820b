// The trace stream, its market and writer, function blocks and the log file.
#include "TraceStream.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <streambuf>
#include <utility>

#include "common.h"
#include "ha_assert.h"
#include "vx_cu.h"

using velt_gscl_V1::GSMarket;
using velt_gscl_V1::GSObject;
using velt_gscl_V1::GSThreadSelfId;

const char* const lpp_name = "VELT";

TraceMarket* TraceStream::traceMarket = nullptr;
TraceStream _traceStream;

namespace {

constexpr int kMinLogLines = 30000;
constexpr int kMaxBlank = 79;
constexpr int kSlotGrowth = 8;
constexpr int kProduceAttempts = 5;
constexpr int kWriterStopGraceSecs = 120;
constexpr long kLabelMessage = 5;     // "GS_MESSAGE_ST": log write problems
constexpr long kLabelVaskError = 16;  // "GS_VASK_ERROR_ER": log open failures

// The log file, written with write(2) one line at a time. The standard
// file buffer cannot be trusted here: once its writes fail it keeps the
// unwritten bytes and, written to again, stores past the end of its own
// buffer. This one keeps only the line under way; a line that cannot be
// written whole is dropped and cut back out of the file, so that a full
// disk leaves no torn line behind and a line counted lost never turns up
// later. Thread-compatible (the log-file lock serialises it).
class LogFileBuf : public std::streambuf {
 public:
  LogFileBuf() = default;
  ~LogFileBuf() override { close(); }
  LogFileBuf(const LogFileBuf&) = delete;
  LogFileBuf& operator=(const LogFileBuf&) = delete;

  // Opens path for writing, truncated. False (errno set) when it cannot.
  bool open(const char* path) {
    close();
    int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return false;
    fd_ = fd;
    return true;
  }
  bool is_open() const { return fd_ >= 0; }
  void close() {
    pending_.clear();
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 protected:
  int_type overflow(int_type c) override {
    if (fd_ < 0) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) pending_.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* text, std::streamsize n) override {
    if (fd_ < 0) return 0;
    pending_.append(text, static_cast<size_t>(n));
    return n;
  }
  // Writes what is pending; -1 (errno set) when it could not be written
  // whole, in which case it is gone.
  int sync() override {
    if (pending_.empty()) return 0;
    if (fd_ < 0) {
      pending_.clear();
      errno = EBADF;
      return -1;
    }
    const off_t start = lseek(fd_, 0, SEEK_CUR);
    size_t done = 0;
    int err = 0;
    while (done < pending_.size()) {
      ssize_t n = ::write(fd_, pending_.data() + done, pending_.size() - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else {
        err = n < 0 ? errno : EIO;
        break;
      }
    }
    pending_.clear();
    if (err == 0) return 0;
    // What part of it did reach the file goes again.
    if (done > 0 && start >= 0 && ftruncate(fd_, start) == 0) lseek(fd_, start, SEEK_SET);
    errno = err;
    return -1;
  }

 private:
  int fd_ = -1;
  std::string pending_;  // the bytes of the line under way
};

// Everything about the log file. The writer thread is its main user, but
// drainAllLogs, SRC requests and start-up reach it from other threads, so
// one lock serialises it; recursive because writing a line may make an
// error-log entry that itself writes to the log.
struct LogFileState {
  std::recursive_mutex mu;
  LogFileBuf fileBuf;                   // GUARDED_BY(mu)
  std::ostream file{&fileBuf};          // GUARDED_BY(mu): writes to fileBuf
  std::ostream* out = &std::cout;       // GUARDED_BY(mu): the log stream
  std::string logFileName;              // GUARDED_BY(mu): empty until named
  std::string logFileBackup;            // GUARDED_BY(mu)
  int logBaseSize = kMinLogLines;       // GUARDED_BY(mu)
  long logWorkSize = kMinLogLines;      // GUARDED_BY(mu)
  long lineCounter = 0;                 // GUARDED_BY(mu)
  long needToOpenLogfile = 0;           // GUARDED_BY(mu)
  bool loggingToFile = false;           // GUARDED_BY(mu)
  long lostLines = 0;                   // GUARDED_BY(mu)
};

// Never destroyed: the writer may still be running while the process exits.
LogFileState& logState() {
  static LogFileState* state = new LogFileState;
  return *state;
}

// Block nesting is process-wide and shared by every thread; atomics keep
// the interleaving harmless. The current block's name is kept beside the
// block so that a recursion check never reads a block another thread may
// already have left.
std::atomic<int> functionTraceCounter{0};
std::atomic<TraceBlock*> currentFunction{nullptr};
std::atomic<const char*> currentFunctionName{nullptr};
std::atomic<int> disableTraceHeader{0};

std::atomic<TraceSRCOutputRoutine> srcOutputRoutine{nullptr};

class SCOPED_CAPABILITY ReadHold {
 public:
  explicit ReadHold(velt_gscl_V1::GSRWLock& l) ACQUIRE_SHARED(l) : l_(l) { l_.readLock(); }
  ~ReadHold() RELEASE() { l_.unlock(); }
 private:
  velt_gscl_V1::GSRWLock& l_;
};

class SCOPED_CAPABILITY WriteHold {
 public:
  explicit WriteHold(velt_gscl_V1::GSRWLock& l) ACQUIRE(l) : l_(l) { l_.writeLock(); }
  ~WriteHold() RELEASE() { l_.unlock(); }
 private:
  velt_gscl_V1::GSRWLock& l_;
};

// Puts p into the first empty slot, growing the array by 8 when full.
template <typename T>
int addToSlots(std::vector<T*>& slots, int& numSlots, T* p) {
  for (int i = 0; i < numSlots; ++i) {
    if (slots[i] == nullptr) {
      slots[i] = p;
      return i;
    }
  }
  int first = numSlots;
  numSlots += kSlotGrowth;
  slots.resize(static_cast<size_t>(numSlots), nullptr);
  slots[static_cast<size_t>(first)] = p;
  return first;
}

template <typename T>
void removeFromSlots(std::vector<T*>& slots, T* p) {
  for (auto& slot : slots) {
    if (slot == p) {
      slot = nullptr;
      return;
    }
  }
}

// The writer must not take the asynchronous signals meant for the signal
// thread; the synchronous ones stay open so that faults still dump.
void blockAllButSynchronousSignals() {
  sigset_t set;
  sigfillset(&set);
  for (int sig : {SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGSTKFLT, SIGBUS, SIGSEGV}) {
    sigdelset(&set, sig);
  }
  pthread_sigmask(SIG_SETMASK, &set, nullptr);
}

constexpr int kNoLogType = -1;

// The error-log type of a line; the first matching rule wins.
int errorLogType(unsigned level, long label) {
  if (level & TRACE_EMERG) return 0;
  if (level & TRACE_ERROR) return 1;
  if (level & TRACE_WARNING) return 4;
  if (level & TRACE_WEIRD) return kNoLogType;
  if ((level & (TRACE_FYI | TRACE_GSCL)) && label != TraceLabel::kNoEntry &&
      label != TraceLabel::kNotChosen) {
    return 2;
  }
  return kNoLogType;
}

// Month, day and time of day with seconds: 15 characters of ctime.
void formatTimeStamp(const struct timeval& tv, char stamp[16]) {
  char text[32];
  time_t t = tv.tv_sec;
  if (ctime_r(&t, text) != nullptr && strlen(text) >= 19) {
    memcpy(stamp, text + 4, 15);
  } else {
    memcpy(stamp, "??? ?? ??:??:??", 15);
  }
  stamp[15] = '\0';
}

// Makes an error-log entry about the log file itself.
void logFileEntry(FFDCID& lastId, long label, int line, const char* text) {
  tolk_ffdclog(1, static_cast<unsigned>(label), lastId.id, nullptr, __FILE__,
               VELT_SOURCE_VERSION, line, text, static_cast<int>(strlen(text)));
}

// Requires: s.mu held.
void rotateLogWithLock(LogFileState& s, FFDCID& lastId) {
  const char* name = s.logFileName.c_str();
  const char* backup = s.logFileBackup.c_str();
  if (s.needToOpenLogfile == 0) {
    s.lineCounter = 0;
    if (link(name, backup) != 0) {
      unlink(backup);
      link(name, backup);
    }
    unlink(name);
    s.fileBuf.close();
  }
  s.file.clear();
  if (s.fileBuf.open(name)) {
    s.out = &s.file;
    s.needToOpenLogfile = 0;
    TopOfTheLog();
    return;
  }
  int err = errno;
  s.file.setstate(std::ios::failbit);
  s.needToOpenLogfile += 1;
  if (s.needToOpenLogfile % 1000 == 1) {
    char text[PATH_MAX + 200];
    snprintf(text, sizeof text,
             "ERROR (rdstate=%d errno=%d) We %d.%d could not open new log file: %s.",
             static_cast<int>(s.file.rdstate()), err, static_cast<int>(myNodeNumber),
             static_cast<int>(myNodeIncarnation), name);
    logFileEntry(lastId, kLabelVaskError, __LINE__, text);
  }
}

}  // namespace

// ---------------------------------------------------------------- levels

std::ostream& operator<<(std::ostream& os, const TraceLevel& level) {
  static const struct {
    unsigned bit;
    const char* name;
  } kNames[] = {
      {TRACE_EMERG, "TRACE_EMERG"},       {TRACE_ERROR, "TRACE_ERROR"},
      {TRACE_WEIRD, "TRACE_WEIRD"},       {TRACE_WARNING, "TRACE_WARNING"},
      {TRACE_FYI, "TRACE_FYI"},           {TRACE_BLOCK, "TRACE_BLOCK"},
      {TRACE_EVENT, "TRACE_EVENT"},       {TRACE_MEMORY, "TRACE_MEMORY"},
      {TRACE_CALLBACK, "TRACE_CALLBACK"}, {TRACE_FSM, "TRACE_FSM"},
      {TRACE_FSM_FYI, "TRACE_FSM_FYI"},   {TRACE_GSCL, "TRACE_GSCL"},
      {TRACE_DEBUG, "TRACE_DEBUG"},       {TRACE_DEBUG2, "TRACE_DEBUG2"},
      {TRACE_DEBUG3, "TRACE_DEBUG3"},
  };
  for (const auto& n : kNames) {
    if (level.level & n.bit) os << ' ' << n.name;
  }
  return os;
}

// ------------------------------------------------------- FFDCID, TraceLabel

int is_ffdc_id_empty(const char* id) {
  return id == nullptr || (id[0] == 0 && id[1] == 0 && id[2] == 0 && id[3] == 0);
}

void FFDCID::clear() { memset(id, 0, sizeof id); }

void FFDCID::set(const char* text) {
  clear();
  if (text == nullptr) return;
  // Bounded copy: identifiers are 42 characters, but callers may hand in
  // shorter text.
  for (size_t i = 0; i < FC_ID_LEN && text[i] != '\0'; ++i) id[i] = text[i];
}

void FFDCID::set(const FFDCID* other) {
  if (other == nullptr) {
    clear();
  } else {
    memcpy(id, other->id, sizeof id);
  }
}

TraceLabel::TraceLabel(long l, const FFDCID* ref) : label(l) { refid.set(ref); }

TraceLabel::TraceLabel(long l, const char* idText) : label(l) { refid.set(idText); }

// ------------------------------------------------------------ TraceClient

TraceClient::TraceClient(TraceMarket* m, unsigned long tid)
    : market(m), threadId(tid != 0 ? tid : GSThreadSelfId()) {
  if (market != nullptr) market->addThreadClient(this);
}

TraceClient::~TraceClient() {
  if (market != nullptr) market->removeThreadClient(this);
}

void TraceClient::send_msg(const char* text) {
  send_msg(text, text != nullptr ? strlen(text) : 0);
}

void TraceClient::send_msg(const char* text, size_t len) {
  std::lock_guard<std::mutex> hold(lineMu_);
  if (!isTraceableLocked()) return;
  if (text != nullptr) message.append(text, len);
  msg_exist = 1;
}

void TraceClient::commit_msg() {
  // The SRC reply is written by the thread serving the request, never by a
  // drain on another thread's behalf.
  TraceSRCOutputRoutine toSRC = srcOutputRoutine.load();
  TraceMessage* msg = nullptr;
  bool copyToSRC = false;
  std::string srcText;
  {
    std::lock_guard<std::mutex> hold(lineMu_);
    if (label.label == TraceLabel::kNotChosen) {
      if (level.level & (TRACE_EMERG | TRACE_ERROR)) {
        label.label = kLabelVaskError;
      } else if (level.level & (TRACE_WARNING | TRACE_WEIRD)) {
        label.label = kLabelMessage;
      }
    }
    if (msg_exist && market != nullptr) {
      msg = new TraceMessage(level, label, threadId, info, std::move(message));
      copyToSRC = outputToSRC != 0 && toSRC != nullptr && GSThreadSelfId() == threadId;
      if (copyToSRC) srcText = msg->message;
    }
    label = TraceLabel();
    message.clear();
    msg_exist = 0;
  }
  if (msg != nullptr) {
    int rc = -1;
    for (int attempt = 0; attempt < kProduceAttempts; ++attempt) {
      rc = market->produce(msg);
      if (rc == 0) break;
      sleep(1);
    }
    if (rc != 0) {
      fprintf(stderr, "Trace_drained: %s\n", msg->message.c_str());
      delete msg;
    }
  }
  // Last, with the line already finished: the routine may itself trace, or
  // fail an assertion whose drain commits this client again.
  if (copyToSRC) toSRC(srcText.c_str());
}

void TraceClient::setInfo(const LineNumberAndFileName& where) {
  std::lock_guard<std::mutex> hold(lineMu_);
  info = where;
}

void TraceClient::setLevel(TraceLevel newLevel) {
  std::lock_guard<std::mutex> hold(lineMu_);
  level = newLevel;
}

TraceLevel TraceClient::getLevel() {
  std::lock_guard<std::mutex> hold(lineMu_);
  return level;
}

void TraceClient::setLabel(const TraceLabel& newLabel) {
  std::lock_guard<std::mutex> hold(lineMu_);
  label = newLabel;
}

void TraceClient::setOutputToSRC(bool on) {
  std::lock_guard<std::mutex> hold(lineMu_);
  outputToSRC = on ? 1 : 0;
}

bool TraceClient::isTraceable() {
  std::lock_guard<std::mutex> hold(lineMu_);
  return isTraceableLocked();
}

bool TraceClient::isTraceableLocked() const {
  return market != nullptr && (level.level & market->GetGlobalTraceLevel().level) != 0;
}

// ----------------------------------------------------------- TraceMessage

TraceMessage::TraceMessage(TraceLevel lvl, const TraceLabel& lbl, unsigned long tid,
                           const LineNumberAndFileName& where, std::string text)
    : level(lvl), label(lbl), info(where), message(std::move(text)), msg_time{}, thr_id(tid) {
  cu_gettimeofday_1(&msg_time);
}

// ------------------------------------------------------------ TraceMarket

TraceMarket::TraceMarket() = default;

TraceMarket::~TraceMarket() {
  std::lock_guard<std::mutex> hold(heldMu_);
  for (GSObject* obj : held_) delete obj;
  held_.clear();
}

int TraceMarket::stopMarket() {
  std::lock_guard<std::mutex> hold(heldMu_);
  return GSMarket::stopMarket();
}

int TraceMarket::resumeMarket() {
  std::lock_guard<std::mutex> hold(heldMu_);
  int rc = GSMarket::resumeMarket();
  // Hand back what came while stopped, behind what was queued before.
  std::vector<GSObject*> keep;
  for (GSObject* obj : held_) {
    if (GSMarket::produce(obj) != 0) keep.push_back(obj);
  }
  held_.swap(keep);
  return rc;
}

int TraceMarket::produce(GSObject* obj) {
  if (obj == nullptr) return -1;
  std::lock_guard<std::mutex> hold(heldMu_);
  if (held_.empty() && GSMarket::produce(obj) == 0) return 0;
  held_.push_back(obj);
  return 0;
}

int TraceMarket::produce(TraceMessage* msg) {
  if (_being_drained.load() != 0) return -2;
  return produce(static_cast<GSObject*>(msg));
}

GSObject* TraceMarket::consume(const struct timespec* deadline) {
  GSObject* obj = GSMarket::consume(deadline);
  if (obj == nullptr) obj = tryConsumeAny();
  return obj;
}

GSObject* TraceMarket::tryConsumeAny() {
  GSObject* obj = GSMarket::tryConsume();
  if (obj != nullptr) return obj;
  std::lock_guard<std::mutex> hold(heldMu_);
  if (held_.empty()) return nullptr;
  obj = held_.front();
  held_.erase(held_.begin());
  return obj;
}

int TraceMarket::queueCount() const {
  std::lock_guard<std::mutex> hold(heldMu_);
  return GSMarket::queueCount() + static_cast<int>(held_.size());
}

void TraceMarket::SetGlobalTraceLevel(TraceLevel level) {
  globalTraceLevel.store(level.level, std::memory_order_relaxed);
  refreshClientLevels();
}

int TraceMarket::addThreadClient(TraceClient* client) {
  WriteHold hold(clientLocker);
  return addToSlots(clients, numSlotClients, client);
}

void TraceMarket::removeThreadClient(TraceClient* client) {
  WriteHold hold(clientLocker);
  removeFromSlots(clients, client);
}

TraceClient* TraceMarket::findThreadClient(unsigned long threadId) {
  ReadHold hold(clientLocker);
  for (TraceClient* c : clients) {
    if (c != nullptr && c->threadId == threadId) return c;
  }
  return nullptr;
}

int TraceMarket::addServer(TraceServer* server) {
  WriteHold hold(serverLocker);
  return addToSlots(servers, numSlotServers, server);
}

void TraceMarket::removeServer(TraceServer* server) {
  WriteHold hold(serverLocker);
  removeFromSlots(servers, server);
}

bool TraceMarket::isAllServerIdle() {
  ReadHold hold(serverLocker);
  for (TraceServer* s : servers) {
    if (s != nullptr && !s->isIdle()) return false;
  }
  return true;
}

void TraceMarket::drainAllLogs() {
  {
    ReadHold hold(clientLocker);
    for (TraceClient* c : clients) {
      if (c != nullptr) c->commit_msg();
    }
  }
  WriteHold hold(serverLocker);
  _being_drained.store(1);
  for (TraceServer* s : servers) {
    if (s != nullptr) s->drainAllLogs();
  }
  _being_drained.store(0);
}

// ------------------------------------------------------------ TraceServer

TraceServer::TraceServer(TraceMarket* m) : market(m) {
  if (market != nullptr) market->addServer(this);
}

TraceServer::~TraceServer() {
  if (market != nullptr) market->removeServer(this);
}

void* TraceServer::run(void* /*arg*/) {
  blockAllButSynchronousSignals();
  AMtracef(AM_TRACEF_GSCL, "TraceServer::started\n");
  is_idle.store(0);
  while (market != nullptr && market->isRunning()) consumeLogIfExist();
  AMtracef(AM_TRACEF_GSCL, "TraceServer::stopped\n");
  is_idle.store(1);
  {
    // Process exit stops the market and ends the process within seconds;
    // a writer still here after the grace time means the exit is stuck.
    std::unique_lock<std::mutex> lock(releaseMu_);
    if (releaseCv_.wait_for(lock, std::chrono::seconds(kWriterStopGraceSecs),
                            [this] { return released_; })) {
      return nullptr;
    }
  }
  ExitTheProcess(8, "TraceServer can not stop");
}

void TraceServer::releaseForTesting() {
  std::lock_guard<std::mutex> lock(releaseMu_);
  released_ = true;
  releaseCv_.notify_all();
}

void TraceServer::consumeLogIfExist() {
  GSObject* obj = market->consume(nullptr);
  if (obj == nullptr) return;
  auto* msg = dynamic_cast<TraceMessage*>(obj);
  if (msg != nullptr && !msg->message.empty()) WriteLogOutput(*msg);
  delete obj;
}

void TraceServer::drainAllLogs() {
  if (market == nullptr) return;
  int queued = market->queueCount();
  for (int i = 0; i < queued; ++i) {
    GSObject* obj = market->tryConsumeAny();
    if (obj == nullptr) break;
    auto* msg = dynamic_cast<TraceMessage*>(obj);
    if (msg != nullptr && !msg->message.empty()) WriteLogOutput(*msg);
    delete obj;
  }
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  s.out->flush();
}

void TraceServer::WriteLogOutput(const TraceMessage& msg) {
  const long label = msg.label.label;
  const bool labelled = label != TraceLabel::kNoEntry && label != TraceLabel::kNotChosen;
  const int type = errorLogType(msg.level.level, label);

  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  if (s.needToOpenLogfile == 0) {
    std::ostream& out = *s.out;
    char stamp[16];
    formatTimeStamp(msg.msg_time, stamp);
    out << stamp;
    if (type != kNoLogType && labelled) {
      tolk_ffdclog(type, static_cast<unsigned>(label), last_ffdc_id.id, msg.label.refid.id,
                   msg.info.fileName, msg.info.sccsid, static_cast<int>(msg.info.lineNumber),
                   msg.message.c_str(), static_cast<int>(msg.message.size()));
    }
    if (!msg.header.empty()) out << msg.header;
    out << msg.level << " :" << " [T=" << msg.thr_id << "] " << msg.message << '\n';
    out.flush();
    if (out.fail()) {
      int err = errno;
      s.lostLines += 1;
      if (s.lostLines == 1 || s.lostLines % 8000 == 0) {
        char errText[128];
        char text[PATH_MAX + 300];
        snprintf(text, sizeof text,
                 "ERROR writing to log %s (rdstate=%d errno=%d[%s],lost=%d). Check filesystem.",
                 s.logFileName.c_str(), static_cast<int>(out.rdstate()), err,
                 cu_strerror(err, errText, sizeof errText), static_cast<int>(s.lostLines));
        logFileEntry(last_ffdc_id, kLabelMessage, __LINE__, text);
      }
      out.clear();
    } else if (s.lostLines != 0) {
      char text[PATH_MAX + 200];
      snprintf(text, sizeof text, "Lost %d lines to log file %s.  Writing to log now.",
               static_cast<int>(s.lostLines), s.logFileName.c_str());
      logFileEntry(last_ffdc_id, kLabelMessage, __LINE__, text);
      s.lostLines = 0;
    }
  }
  // Rotation comes after the line, so the line that passes the limit is the
  // last one of the old log.
  const long counted = s.lineCounter++;
  if (counted >= s.logWorkSize && s.logWorkSize != -1 && s.loggingToFile) {
    rotateLogWithLock(s, last_ffdc_id);
  }
}

// ------------------------------------------------------------ TraceStream

TraceStream::TraceStream() {
  if (traceMarket == nullptr) traceMarket = new TraceMarket;
}

TraceClient* TraceStream::getMyClient() {
  if (traceMarket == nullptr) return nullptr;
  return traceMarket->findThreadClient(GSThreadSelfId());
}

TraceStream& TraceStream::operator<<(const LineNumberAndFileName& info) {
  if (TraceClient* c = getMyClient()) c->setInfo(info);
  return *this;
}

TraceStream& TraceStream::operator<<(const TraceLevel& level) {
  if (TraceClient* c = getMyClient()) c->setLevel(level);
  return *this;
}

TraceStream& TraceStream::operator>>(TraceLevel& level) {
  if (TraceClient* c = getMyClient()) level = c->getLevel();
  return *this;
}

TraceStream& TraceStream::operator<<(const TraceLabel& label) {
  if (TraceClient* c = getMyClient()) c->setLabel(label);
  return *this;
}

TraceStream& TraceStream::operator<<(const char* text) {
  send_msg(text != nullptr ? text : "(null)");
  return *this;
}

TraceStream& TraceStream::operator<<(const std::string& text) {
  send_msg(text.data(), text.size());
  return *this;
}

namespace {
// Formats only when the calling thread's line would keep the text.
template <typename T>
void sendFormatted(TraceStream& stream, const char* format, T value) {
  TraceClient* c = stream.getMyClient();
  if (c == nullptr || !c->isTraceable()) return;
  char buf[32];
  int n = snprintf(buf, sizeof buf, format, value);
  if (n > 0) c->send_msg(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}
}  // namespace

TraceStream& TraceStream::operator<<(long value) {
  sendFormatted(*this, "%ld", value);
  return *this;
}

TraceStream& TraceStream::operator<<(unsigned long value) {
  sendFormatted(*this, "%lu", value);
  return *this;
}

TraceStream& TraceStream::operator<<(long long value) {
  sendFormatted(*this, "%lld", value);
  return *this;
}

TraceStream& TraceStream::operator<<(unsigned long long value) {
  sendFormatted(*this, "%llu", value);
  return *this;
}

TraceStream& TraceStream::operator<<(char value) {
  sendFormatted(*this, "%c", static_cast<int>(value));
  return *this;
}

TraceStream& TraceStream::operator<<(const void* pointer) {
  sendFormatted(*this, "%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pointer)));
  return *this;
}

TraceStream& TraceStream::operator<<(const TraceBlock* block) {
  const char* name = block != nullptr ? block->name() : "main";
  return *this << name;
}

void TraceStream::send_msg(const char* text) {
  if (TraceClient* c = getMyClient()) c->send_msg(text);
}

void TraceStream::send_msg(const char* text, size_t len) {
  if (TraceClient* c = getMyClient()) c->send_msg(text, len);
}

void TraceStream::commitLine() {
  if (traceMarket == nullptr || traceMarket->isBeingDrained()) return;
  if (TraceClient* c = getMyClient()) c->commit_msg();
}

TraceLevel TraceStream::GetGlobalTraceLevel() {
  return traceMarket != nullptr ? traceMarket->GetGlobalTraceLevel() : TraceLevel(0);
}

void TraceStream::SetGlobalTraceLevel(TraceLevel level) {
  if (traceMarket == nullptr) return;
  traceMarket->SetGlobalTraceLevel(level);
  refreshClientLevels();
}

void TraceStream::StartSRCOutput() {
  saveSRCTraceLevel = GetGlobalTraceLevel();
  if (saveSRCTraceLevel.level & TRACE_BLOCK) {
    SetGlobalTraceLevel(TraceLevel(saveSRCTraceLevel.level & ~TRACE_BLOCK));
  }
  if (TraceClient* c = getMyClient()) c->setOutputToSRC(true);
}

void TraceStream::StopSRCOutput() {
  if (TraceClient* c = getMyClient()) c->setOutputToSRC(false);
  SetGlobalTraceLevel(saveSRCTraceLevel);
}

TraceStream& endl(TraceStream& stream) {
  stream.commitLine();
  return stream;
}

void setTraceSRCOutputRoutine(TraceSRCOutputRoutine routine) { srcOutputRoutine.store(routine); }

// ------------------------------------------------------------- TraceBlock

TraceBlock::TraceBlock(TraceLevel level, const char* name) : traceLevel(level), message(name) {
  enter();
}

TraceBlock::TraceBlock(const char* name) : message(name) {
  _traceStream >> traceLevel;
  enter();
}

void TraceBlock::enter() {
  caller = currentFunction.load();
  callerName_ = currentFunctionName.load();
  disableTraceHeader.store(1);
  TraceLevel saved;
  _traceStream >> saved;
  _traceStream << traceLevel;
  printNBlanks(functionTraceCounter.load());
  _traceStream << "Entering: " << message << endl;
  functionTraceCounter.fetch_add(1);
  _traceStream << saved;
  disableTraceHeader.store(0);
  currentFunction.store(this);
  currentFunctionName.store(message);
  if (caller != nullptr && callerName_ == message) {
    _traceStream << TraceLevel(TRACE_FYI) << ".. Recursive call to " << message << endl;
  }
}

TraceBlock::~TraceBlock() {
  currentFunction.store(caller);
  currentFunctionName.store(callerName_);
  disableTraceHeader.store(1);
  TraceLevel saved;
  _traceStream >> saved;
  _traceStream << traceLevel;
  int depth = functionTraceCounter.fetch_sub(1) - 1;
  printNBlanks(depth);
  _traceStream << "Exiting:  " << message << endl;
  _traceStream << saved;
  disableTraceHeader.store(0);
}

void printNBlanks(int n) {
  static const std::string blanks(kMaxBlank, ' ');
  if (n <= 0) return;
  if (n > kMaxBlank) n = kMaxBlank;
  _traceStream.send_msg(blanks.data(), static_cast<size_t>(n));
}

// --------------------------------------------------------------- log file

void determineLogFileNameAndSize(const char* sizeText, const char* fileName) {
  LogFileState& s = logState();
  int base;
  {
    std::lock_guard<std::recursive_mutex> hold(s.mu);
    if (sizeText != nullptr) {
      // "%d" semantics: leading number, trailing text ignored; text that is
      // not a number, or does not fit, leaves the old value.
      char* end = nullptr;
      errno = 0;
      long v = strtol(sizeText, &end, 10);
      if (end != sizeText && errno == 0 && v >= INT_MIN && v <= INT_MAX) {
        s.logBaseSize = static_cast<int>(v);
      }
    }
    base = s.logBaseSize;
  }
  AM_TRACE(TRACE_FYI) << "logBaseSize: " << base << " lines." << endl;
  ChangeLogFileLength(base, 1);
  if (fileName == nullptr) HA_ASSERT_FAIL("NULL != logFileName");
  {
    std::lock_guard<std::recursive_mutex> hold(s.mu);
    s.logFileName = fileName;
    s.logFileBackup = s.logFileName + ".bak";
    s.loggingToFile = true;
  }
  std::string errorLog = std::string(fileName) + ".errlog";
  fc_set_log_file(errorLog.c_str());
}

void redirectCout(const char* sizeText, const char* fileName) {
  determineLogFileNameAndSize(sizeText, fileName);
  LogFileState& s = logState();
  std::unique_lock<std::recursive_mutex> hold(s.mu);
  s.fileBuf.close();
  s.file.clear();
  if (s.fileBuf.open(s.logFileName.c_str())) {
    s.out = &s.file;
    s.needToOpenLogfile = 0;
    return;
  }
  s.file.setstate(std::ios::failbit);
  char text[PATH_MAX + 200];
  snprintf(text, sizeof text, " ERROR %x We (%d.%d) could not open logfile: %s",
           static_cast<unsigned>(s.file.rdstate()), static_cast<int>(myNodeNumber),
           static_cast<int>(myNodeIncarnation), s.logFileName.c_str());
  FFDCID id;
  logFileEntry(id, kLabelVaskError, __LINE__, text);
  hold.unlock();
  // The log stream is what failed, so the text goes to standard error.
  fprintf(stderr, "%s\n", text);
  exit(1);
}

int ChangeLogFileLength(int base, int multiplier) {
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  int previous = s.logBaseSize;
  s.logBaseSize = base < kMinLogLines ? kMinLogLines : base;
  long long work = static_cast<long long>(s.logBaseSize) * (multiplier < 1 ? 1 : multiplier);
  if (work < kMinLogLines) work = kMinLogLines;
  if (work > INT_MAX) work = INT_MAX;
  s.logWorkSize = static_cast<long>(work);
  return previous;
}

int GetLogFileLength() {
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  return s.logBaseSize;
}

int GetWorkLogFileLength() {
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  return static_cast<int>(s.logWorkSize);
}

void traceStreamExitRoutine() {
  if (TraceStream::traceMarket != nullptr) {
    TraceStream::traceMarket->SetGlobalTraceLevel(TraceLevel(0));
  }
}

void tolk_clear_ffdc_if_exist() {}

void TopOfTheLog() {}

void writeStraightToLog(const char* text) {
  if (text == nullptr) return;
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  if (s.needToOpenLogfile != 0) return;
  *s.out << text;
  s.out->flush();
  s.out->clear();
}

void resetLogStateForTesting() {
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  s.fileBuf.close();
  s.file.clear();
  s.out = &std::cout;
  s.logFileName.clear();
  s.logFileBackup.clear();
  s.logBaseSize = kMinLogLines;
  s.logWorkSize = kMinLogLines;
  s.lineCounter = 0;
  s.needToOpenLogfile = 0;
  s.loggingToFile = false;
  s.lostLines = 0;
  functionTraceCounter.store(0);
  currentFunction.store(nullptr);
  currentFunctionName.store(nullptr);
}

void setLogWorkSizeForTesting(long lines) {
  LogFileState& s = logState();
  std::lock_guard<std::recursive_mutex> hold(s.mu);
  s.logWorkSize = lines;
}

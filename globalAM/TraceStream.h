// The daemon's trace stream: every diagnostic line of every thread goes
// through the one process-wide stream `_traceStream`. A thread names a source
// position and a level, inserts text and numbers, and ends the line with
// `endl`; its own TraceClient assembles the line, the TraceMarket queues the
// finished TraceMessage, and one TraceServer thread writes it to the log
// file, rotating the file and raising error-log entries for serious lines.
//
//   AM_TRACE(TRACE_FYI) << "Our node number is[" << myNodeNumber << "]" << endl;
//
// A thread without its own TraceClient traces nothing.
#ifndef VELT_GLOBALAM_TRACESTREAM_H_
#define VELT_GLOBALAM_TRACESTREAM_H_

#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "gscl.h"
#include "vx_ffdc.h"

// Version text carried with every source position to the error log; the
// build may pass its own.
#ifndef VELT_SOURCE_VERSION
#define VELT_SOURCE_VERSION "velt 1.0.0.0"
#endif

// Trace level bits. Bit 0x0800 has no name.
constexpr unsigned TRACE_EMERG = 0x0001;
constexpr unsigned TRACE_ERROR = 0x0002;
constexpr unsigned TRACE_WEIRD = 0x0004;
constexpr unsigned TRACE_WARNING = 0x0008;
constexpr unsigned TRACE_FYI = 0x0010;
constexpr unsigned TRACE_BLOCK = 0x0020;
constexpr unsigned TRACE_EVENT = 0x0040;
constexpr unsigned TRACE_MEMORY = 0x0080;
constexpr unsigned TRACE_CALLBACK = 0x0100;
constexpr unsigned TRACE_FSM = 0x0200;
constexpr unsigned TRACE_FSM_FYI = 0x0400;
constexpr unsigned TRACE_DEBUG = 0x1000;
constexpr unsigned TRACE_DEBUG2 = 0x2000;
constexpr unsigned TRACE_DEBUG3 = 0x4000;
constexpr unsigned TRACE_GSCL = 0x8000;

class TraceStream;
class TraceMarket;
class TraceServer;
class TraceBlock;

// A set of trace categories, one bit each. A level of 0 matches nothing.
// Thread-compatible (a value).
struct TraceLevel {
  unsigned level;
  TraceLevel(unsigned l = 0) : level(l) {}  // NOLINT: levels are written as plain masks
};

// Writes the name of every set bit, each preceded by one blank, in the order
// the log shows them (TRACE_GSCL between TRACE_FSM_FYI and TRACE_DEBUG).
std::ostream& operator<<(std::ostream& os, const TraceLevel& level);

// True when id is null or its first 4 bytes are all zero.
int is_ffdc_id_empty(const char* id);

// The identifier of one error-log entry, held by value. Thread-compatible.
class FFDCID {
 public:
  FFDCID() { clear(); }
  void clear();
  // Copies an identifier (at most 42 characters, stopping at its end);
  // null clears.
  void set(const char* text);
  void set(const FFDCID* other);
  bool IsEmpty() const { return is_ffdc_id_empty(id) != 0; }
  operator const char*() const { return id; }  // NOLINT: used where the FFDC library wants text

  fc_eid_t id;
};

// The error-log template row a line uses, and the entry it refers to.
// Label -2: none chosen yet (the level decides); -1: never an entry.
// Thread-compatible (a value).
class TraceLabel {
 public:
  static constexpr long kNotChosen = -2;
  static constexpr long kNoEntry = -1;

  explicit TraceLabel(long label = kNotChosen, const FFDCID* ref = nullptr);
  TraceLabel(long label, const char* idText);

  long label;
  FFDCID refid;
};

// Where a line was traced from; carried to the error log only.
// Thread-compatible (a value).
struct LineNumberAndFileName {
  unsigned lineNumber;
  const char* fileName;
  const char* sccsid;
  LineNumberAndFileName(unsigned line = 0, const char* file = "",
                        const char* version = VELT_SOURCE_VERSION)
      : lineNumber(line), fileName(file), sccsid(version) {}
};

#define TRACE_HERE LineNumberAndFileName(__LINE__, __FILE__, VELT_SOURCE_VERSION)

// The line assembly of one thread. Made by the thread that traces (thread
// id 0 means the calling thread), registered with the market for its
// lifetime. Its thread assembles the line; drainAllLogs ends it from any
// thread, so the line fields are read and written under lineMu_.
// Thread-safe.
class TraceClient : public velt_gscl_V1::GSObject {
 public:
  TraceClient(TraceMarket* market, unsigned long threadId);
  ~TraceClient() override;
  TraceClient(const TraceClient&) = delete;
  TraceClient& operator=(const TraceClient&) = delete;

  // Appends text when the current level shares a bit with the global level.
  void send_msg(const char* text);
  void send_msg(const char* text, size_t len);
  // Ends the line: chooses a default label, queues the line when any text
  // was accepted, and starts the next line with the same level.
  void commit_msg();

  // The line's fields, each under lineMu_.
  void setInfo(const LineNumberAndFileName& where);
  void setLevel(TraceLevel newLevel);
  TraceLevel getLevel();
  void setLabel(const TraceLabel& newLabel);
  void setOutputToSRC(bool on);
  // Text sent now would be kept: the current level shares a bit with the
  // global level.
  bool isTraceable();

  TraceMarket* const market;
  const unsigned long threadId;
  LineNumberAndFileName info;      // GUARDED_BY(lineMu_)
  TraceLevel level;                // GUARDED_BY(lineMu_)
  TraceLabel label;                // GUARDED_BY(lineMu_)
  unsigned short outputToSRC = 0;  // GUARDED_BY(lineMu_)
  std::string header;              // GUARDED_BY(lineMu_)
  std::string message;             // GUARDED_BY(lineMu_)
  int msg_exist = 0;               // GUARDED_BY(lineMu_)

 private:
  // Requires: lineMu_ held.
  bool isTraceableLocked() const;

  // Held for a moment by each step of the line; nothing else is locked
  // under it, and the line is queued and copied to the SRC reply only
  // after it is let go (either may trace again).
  std::mutex lineMu_;
};

// One finished line on its way to the writer. Made by the tracing thread,
// deleted by whoever writes it. Thread-compatible.
class TraceMessage : public velt_gscl_V1::GSObject {
 public:
  TraceMessage(TraceLevel level, const TraceLabel& label, unsigned long thr_id,
               const LineNumberAndFileName& info, std::string message);

  TraceLevel level;
  TraceLabel label;
  LineNumberAndFileName info;
  std::string header;
  std::string message;
  struct timeval msg_time;
  unsigned long thr_id;
};

// The queue between tracing threads and the writer, with the registries of
// clients and servers and the global trace level. Thread-safe.
//
// Unlike the bare platform market, a stopped TraceMarket still takes lines:
// the assertion path stops the market first and then traces its last line,
// which the drain that follows must still find. Lines queued while stopped
// are kept in order behind the older ones and handed out by consume/drain.
//
// Lock order: clientLocker, then serverLocker, then the log-file lock. A
// client's lineMu_ may be taken under clientLocker and takes nothing else.
class TraceMarket : public velt_gscl_V1::GSMarket {
 public:
  TraceMarket();
  ~TraceMarket() override;

  int stopMarket() override;
  int resumeMarket() override;
  // Queues obj; also while stopped. Returns 0.
  int produce(velt_gscl_V1::GSObject* obj) override;
  // Oldest object, or null once the market stops (or the deadline passes)
  // and nothing is left.
  velt_gscl_V1::GSObject* consume(const struct timespec* deadline) override;
  // Queues a line; refused with -2 while the market is being drained.
  virtual int produce(TraceMessage* msg);

  // Oldest object without waiting, whatever the state; null when empty.
  velt_gscl_V1::GSObject* tryConsumeAny();
  // Objects queued, counting those held while stopped (hides the base's
  // count, which does not know of them).
  int queueCount() const;

  // Commits every client's pending line, then has every server write out
  // what is queued. Any thread.
  void drainAllLogs();
  bool isAllServerIdle();
  bool isBeingDrained() const { return _being_drained.load() != 0; }

  TraceLevel GetGlobalTraceLevel() const { return TraceLevel(globalTraceLevel.load(std::memory_order_relaxed)); }
  void SetGlobalTraceLevel(TraceLevel level);
  void refreshClientLevels() {}

  int addThreadClient(TraceClient* client);
  void removeThreadClient(TraceClient* client);
  TraceClient* findThreadClient(unsigned long threadId);
  int addServer(TraceServer* server);
  void removeServer(TraceServer* server);

  // Sets the drain flag without draining, so that tests can see what is
  // refused meanwhile.
  void setBeingDrainedForTesting(bool on) { _being_drained.store(on ? 1 : 0); }

 private:
  // Read without a lock on every insertion; atomic so that this is defined.
  std::atomic<unsigned> globalTraceLevel{0};

  velt_gscl_V1::GSRWLock clientLocker;
  std::vector<TraceClient*> clients;  // GUARDED_BY(clientLocker)
  int numSlotClients = 0;             // GUARDED_BY(clientLocker)

  velt_gscl_V1::GSRWLock serverLocker;
  std::vector<TraceServer*> servers;  // GUARDED_BY(serverLocker)
  int numSlotServers = 0;             // GUARDED_BY(serverLocker)
  std::atomic<int> _being_drained{0};  // written under serverLocker

  // Objects produced while the platform market was stopped; empty while it
  // runs (resumeMarket hands them back in order).
  mutable std::mutex heldMu_;
  std::vector<velt_gscl_V1::GSObject*> held_;  // GUARDED_BY(heldMu_)
};

// The log writer thread. Made once by start-up (it registers itself with the
// market) and started with start(nullptr); its run() is the writer loop.
// Writing is serialised by the process-wide log-file lock, so drainAllLogs
// may write from another thread while this one consumes. Thread-safe.
class TraceServer : public velt_gscl_V1::GSThread {
 public:
  explicit TraceServer(TraceMarket* market);
  ~TraceServer() override;

  void* run(void* arg) override;

  // Takes one message (waiting without limit), writes it and deletes it.
  void consumeLogIfExist();
  // Writes out as many messages as are queued now, then flushes the log.
  void drainAllLogs();
  // Writes one line to the log, with its error-log entry, and rotates.
  void WriteLogOutput(const TraceMessage& msg);

  bool isIdle() const { return is_idle.load() != 0; }

  // A writer that outlives its market ends the process after 120 s; this
  // lets a test's writer return from run() instead.
  void releaseForTesting();

  TraceMarket* market;
  FFDCID last_ffdc_id;
  std::atomic<int> is_idle{1};

 private:
  std::mutex releaseMu_;
  std::condition_variable releaseCv_;
  bool released_ = false;  // GUARDED_BY(releaseMu_)
};

// The process-wide stream. Every operation finds the calling thread's client
// and does nothing when there is none. Thread-safe.
class TraceStream {
 public:
  TraceStream();
  ~TraceStream() = default;
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;

  // Made by the first constructor; lives until the process ends.
  static TraceMarket* traceMarket;

  TraceStream& operator<<(const LineNumberAndFileName& info);
  TraceStream& operator<<(const TraceLevel& level);
  TraceStream& operator>>(TraceLevel& level);
  TraceStream& operator<<(const TraceLabel& label);
  TraceStream& operator<<(const char* text);
  TraceStream& operator<<(const std::string& text);
  TraceStream& operator<<(long value);
  TraceStream& operator<<(unsigned long value);
  TraceStream& operator<<(long long value);
  TraceStream& operator<<(unsigned long long value);
  TraceStream& operator<<(int value) { return *this << static_cast<long>(value); }
  TraceStream& operator<<(unsigned value) { return *this << static_cast<unsigned long>(value); }
  TraceStream& operator<<(char value);
  TraceStream& operator<<(const void* pointer);
  TraceStream& operator<<(const TraceBlock* block);  // its name; null is "main"
  TraceStream& operator<<(TraceStream& (*manipulator)(TraceStream&)) { return manipulator(*this); }

  void send_msg(const char* text);
  void send_msg(const char* text, size_t len);
  // Commits the calling thread's line, unless the market is being drained.
  void commitLine();

  TraceClient* getMyClient();

  TraceLevel GetGlobalTraceLevel();
  void SetGlobalTraceLevel(TraceLevel level);
  void refreshClientLevels() {}

  // Copy the calling thread's lines to the SRC reply (through the routine
  // set with setTraceSRCOutputRoutine) for the time of one request.
  void StartSRCOutput();
  void StopSRCOutput();

 private:
  TraceLevel saveSRCTraceLevel;
};

extern TraceStream _traceStream;

// Ends the calling thread's line.
TraceStream& endl(TraceStream& stream);

#define AM_TRACE(lvl) (_traceStream << TRACE_HERE << TraceLevel(lvl))

// True when mask shares a bit with the global trace level (read without a
// lock).
inline bool TRACEABLE(unsigned mask) {
  TraceMarket* m = TraceStream::traceMarket;
  return m != nullptr && (m->GetGlobalTraceLevel().level & mask) != 0;
}

// Where committed lines of a client with outputToSRC set are copied.
typedef void (*TraceSRCOutputRoutine)(const char* text);
void setTraceSRCOutputRoutine(TraceSRCOutputRoutine routine);

// Marks a scope: "Entering: " and "Exiting:  " lines, indented by the
// nesting depth. The depth and the current block are process-wide and
// shared by all threads. Thread-compatible (one per scope).
class TraceBlock {
 public:
  TraceBlock(TraceLevel level, const char* name);
  // Takes the calling thread's current level.
  explicit TraceBlock(const char* name);
  ~TraceBlock();
  TraceBlock(const TraceBlock&) = delete;
  TraceBlock& operator=(const TraceBlock&) = delete;

  const char* name() const { return message; }

 private:
  void enter();

  TraceLevel traceLevel;
  TraceBlock* caller = nullptr;
  const char* message;
  // The caller's name as it was at entry, so that neither the recursion
  // check nor the exit reads a block another thread may have left.
  const char* callerName_ = nullptr;
};

// Writes n blanks (at most 79) to the calling thread's line.
void printNBlanks(int n);

// Log-file set-up (start-up, when a log file is named): reads the size,
// names the log and opens it; exits with status 1 when it cannot.
void redirectCout(const char* sizeText, const char* fileName);
void determineLogFileNameAndSize(const char* sizeText, const char* fileName);
// Sets the base size (at least 30000 lines) and the working size (base ×
// multiplier, multiplier at least 1). Returns the previous base.
int ChangeLogFileLength(int base, int multiplier);
int GetLogFileLength();
int GetWorkLogFileLength();
// Silences tracing for the rest of the process.
void traceStreamExitRoutine();
void tolk_clear_ffdc_if_exist();
void TopOfTheLog();
// Writes text to the log stream as it stands, then flushes.
void writeStraightToLog(const char* text);

// The product component name given to the error log.
extern const char* const lpp_name;

// Puts the process-wide log-file state back as it was before any set-up
// (log closed, output to standard output, sizes 30000, counters 0).
void resetLogStateForTesting();
// Sets the working size without the 30000-line floor.
void setLogWorkSizeForTesting(long lines);

#endif  // VELT_GLOBALAM_TRACESTREAM_H_

// libsrc, daemon side: SRCDriver owns a subsystem's SRC request socket. A
// daemon derives from it and overrides the request virtuals; its main loop
// waits on getSRCDescriptor() and calls doSRCreq() when it is readable.
//
// The request socket is a UNIX datagram socket named after the subsystem in
// $VELT_SRC_DIR (default /run/velt/src, created mode 0700). Only root and the
// daemon's own user may send requests; others get an error reply. Every
// request is answered with zero or more text datagrams and one end marker.
// Replies never wait for their requester: a datagram that cannot be sent at
// once (the requester does not read, or is gone) drops the rest of its reply,
// and the drop is counted (repliesDropped, setReplyDropObserver).
// Owned by the thread that runs the daemon's main loop (requests are served
// one at a time); setStopCode/getStopCode may be used from any thread.
#ifndef VELT_PLATFORM_SRC_SRC_DRIVER_H_
#define VELT_PLATFORM_SRC_SRC_DRIVER_H_

#include <stdarg.h>
#include <stddef.h>

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>

#include "velt_mutex.h"

namespace velt_src {

constexpr const char* kDefaultSrcDir = "/run/velt/src";

// Where the last failure of the library was detected.
struct SRCError {
  int code = 0;                 // errno value or a library code
  std::string source;           // "libsrc"
  std::string text;             // what went wrong
  std::string file;
  std::string function;
  int line = 0;
};

// Library return codes of InitSRC.
enum SRCResult {
  SRC_OK = 0,
  SRC_NO_NAME = 1,         // no subsystem name given
  SRC_EXCL_OPEN = 2,       // the exclusive file could not be opened
  SRC_EXCL_LOCKED = 3,     // another instance holds the exclusive file
  SRC_SOCKET = 4,          // the request socket could not be made
  SRC_ALREADY = 5,         // InitSRC called twice
  SRC_DIR_UNSAFE = 6,      // the socket directory is not private to us (see InitSRC)
};

// Replies one requester address may have unread while the socket's output
// has not drained; later ones are dropped. A requester connected to the
// request socket is not held back by its own receive queue, so without this
// bound it could fill the socket's send buffer and starve everyone else.
constexpr int kMaxUnreadRepliesPerRequester = 8;

// The send buffer the request socket asks for (the kernel doubles it for its
// own bookkeeping).
constexpr size_t kReplySendBuffer = 2 * 1024 * 1024;

// One dropped reply, as told to the drop observer.
struct ReplyDrop {
  long long dropped = 0;   // replies dropped since InitSRC, this one included
  pid_t pid = 0;           // the requester (0 when unknown)
  uid_t uid = 0;
  std::string reason;      // why the reply could not be sent
};

}  // namespace velt_src

class SRCDriver {
 public:
  // subsystem: the name the request socket gets ("tolkvaskd").
  explicit SRCDriver(const char* subsystem);
  virtual ~SRCDriver();
  SRCDriver(const SRCDriver&) = delete;
  SRCDriver& operator=(const SRCDriver&) = delete;

  // Takes an exclusive lock on excl_file (created if missing; a second
  // instance fails with SRC_EXCL_LOCKED), then opens the request socket.
  // The socket's directory (created mode 0700 when missing) must be a real
  // directory owned by root or this process's effective user and not
  // writable by group or others, else SRC_DIR_UNSAFE: whoever could write
  // there could replace the socket and answer in the daemon's name.
  // syscall_restarts: non-zero lets interrupted calls restart. excl_id is
  // combined with the file into the "semaphore key" shown in errors.
  // sigdanger_handler is accepted for compatibility and not used.
  // Returns 0 or a velt_src::SRCResult; getError() tells more.
  virtual int InitSRC(int syscall_restarts, const char* excl_file, int excl_id,
                      void (*sigdanger_handler)(int));
  // Records the stop code and message (0 clears nothing). Derived classes
  // may end the process here.
  virtual void setStopCode(int code, const char* msg);
  virtual void stopNormal();
  virtual void stopForced();
  virtual void stopCancel(int dae_signo);
  virtual void traceBegin(int trace_level);   // non-zero: long trace
  virtual void traceEnd();
  virtual void refresh();
  virtual void longStatus();
  virtual int otherReq(short dae_request, short parm1, short parm2,
                       const void* parm3, int parm3_len);

  // The request socket's descriptor; -1 before InitSRC or without SRC.
  // Wait on it for readability.
  int getSRCDescriptor() const { return fd_; }
  // Reads and serves one request if one is waiting (does not block).
  // Returns 1 when a request was served, 0 when none was waiting or it was
  // malformed or refused (answered with an error), -1 on a socket error.
  int doSRCreq();

  // Reply text of the request being served; outside a request nothing is
  // sent. Text is buffered and sent in datagrams of at most 4 KiB.
  int inform_printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  int vinform_printf(const char* fmt, va_list ap);
  int error_printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  int verror_printf(const char* fmt, va_list ap);
  // Sends what is buffered now.
  void inform_flush();
  // True while a request is being served (reply text has somewhere to go).
  bool inRequest() const { return replying_; }

  int getStopCode() const { return stopCode_.load(); }
  const char* getStopMsg() const;
  unsigned int getSemKey() const { return semKey_; }
  const velt_src::SRCError& getError() const { return error_; }
  const char* subsystemName() const { return subsystem_.c_str(); }
  const std::string& socketPath() const { return path_; }

  // Replies dropped since InitSRC. Any thread.
  long long repliesDropped() const { return repliesDropped_.load(); }
  // Called on the serving thread when a reply is dropped: for the first
  // drop and then at most once a second (the count covers the drops in
  // between). Set it before serving requests.
  void setReplyDropObserver(std::function<void(const velt_src::ReplyDrop&)> observer) {
    dropObserver_ = std::move(observer);
  }

 protected:
  void setError(int code, const char* text, const char* file,
                const char* function, int line);

 private:
  struct Pending;
  void sendChunk(int kind, const char* data, size_t len);
  void finishReply(int rc);
  // Appends formatted text to the reply buffer of kind, sending full chunks.
  int appendText(int kind, const char* fmt, va_list ap);
  // Sends whatever is buffered for kind, in chunks of at most 4 KiB.
  void flushKind(int kind);
  // Answers a request the library refuses or cannot parse with one error
  // text and an end marker carrying rc.
  void answerRefusal(const std::string& text, int rc);
  // Starts the reply to the requester at addr; pid and uid are its
  // credentials (0 when it sent none).
  void beginReply(const void* addr, size_t addrLen, pid_t pid, uid_t uid);
  // Sends one datagram to the requester without waiting; a failure drops
  // the rest of the reply.
  void sendDatagram(const std::string& datagram);
  // Gives up the rest of the reply being served, counts it and tells the
  // observer.
  void dropReply(const std::string& reason);

  std::string subsystem_;
  std::string path_;
  int fd_ = -1;
  int exclFd_ = -1;
  unsigned int semKey_ = 0;
  velt_src::SRCError error_;
  std::atomic<int> stopCode_{0};
  mutable velt::Mutex stopMu_;
  std::string stopMsg_ GUARDED_BY(stopMu_);
  // Reply state of the request being served.
  bool replying_ = false;
  std::string replyAddr_;        // sender's address (sockaddr_un bytes)
  std::string informBuf_;
  std::string errorBuf_;
  bool replyBroken_ = false;     // the rest of this reply is dropped
  pid_t replyPid_ = 0;
  uid_t replyUid_ = 0;
  // Replies sent per requester address since the socket's output last
  // drained (see kMaxUnreadRepliesPerRequester).
  std::map<std::string, int> unreadReplies_;
  std::atomic<long long> repliesDropped_{0};
  long long lastDropToldMs_ = -1;
  std::function<void(const velt_src::ReplyDrop&)> dropObserver_;
  bool restarts_ = true;         // InitSRC's syscall_restarts
};

// The reply of srcstop: the daemon's return code and the start of its text.
struct srcrep {
  int srcrc;
  char text[352];
};  // 356 bytes

// Asks a subsystem to stop, as an operator's stop request would.
// host: must be null or empty (local only). stop_type: 1 normal, 2 forced,
// 3 cancel. reply (may be null; *replen, when given, is set to the bytes
// filled; a value between 0 and sizeof(srcrep) on entry limits them)
// receives the reply's code and text. cont is ignored. Returns 0 when the
// request was delivered and answered (within 10 s), or -1 with errno set
// (EINVAL: arguments; otherwise as velt_src::sendRequest).
int srcstop(const char* host, const char* subsystem, int stop_type,
            short* replen, struct srcrep* reply, char* cont);

#endif  // VELT_PLATFORM_SRC_SRC_DRIVER_H_

// libsrc, operator side: sends one request to a subsystem's SRC request
// socket and collects the reply. Used by srcctl and srcstop.
// Thread-compatible (each call uses its own socket).
#ifndef VELT_PLATFORM_SRC_SRC_CLIENT_H_
#define VELT_PLATFORM_SRC_SRC_CLIENT_H_

#include <stddef.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace velt_src {

enum Action {
  ACT_STATUS = 1,      // flags: 1 = long status (answered by the daemon)
  ACT_STOP = 2,        // flags: 1 normal, 2 forced, 3 cancel
  ACT_TRACE_ON = 3,    // flags: 1 = long trace
  ACT_TRACE_OFF = 4,
  ACT_REFRESH = 5,
  ACT_OTHER = 6,       // the daemon's own request code in dae_request
};

struct Request {
  Action action = ACT_STATUS;
  int flags = 0;
  short dae_request = 0;
  short parm1 = 0;
  short parm2 = 0;
  bool hasParm3 = false;
  std::string parm3;   // at most kMaxParm3 bytes
};

constexpr size_t kMaxParm3 = 1024;

// The request socket of a subsystem: $VELT_SRC_DIR/NAME, default
// /run/velt/src/NAME.
std::string socketPathFor(const char* subsystem);

// Codes the library itself puts on a reply's end marker when it answers
// instead of the daemon.
constexpr int kRcRefused = 1;    // the sender is neither root nor the daemon's user
constexpr int kRcRejected = 22;  // the request datagram was malformed

// Sends req and delivers each piece of reply text to onText (isError: the
// daemon wrote it to its error channel). Waits at most timeoutMs for each
// datagram. Returns the reply's code (0 normally), or -1 when the subsystem
// could not be reached or did not answer; *err then says why and errno
// tells the cause (ENOENT/ECONNREFUSED: not active, EACCES: permission,
// ETIMEDOUT: no answer, EPROTO: malformed reply, EINVAL: bad arguments).
// hasParm3 with an empty parm3 is sent as no parm3.
// daemonPid, when not null, receives the pid of the answering process.
//
// Only replies from a trusted sender count: its credentials must show root,
// this process's effective user, or the owner of the socket's directory
// when that directory and every one above it are private to root and that
// owner (see trustedReplyUid); and once a datagram was taken, every later
// one must come from the same process. Anything else is ignored, told to
// onIgnored (when given) and does not extend the wait.
int sendRequest(const char* subsystem, const Request& req, int timeoutMs,
                const std::function<void(bool isError, const std::string& text)>& onText,
                std::string* err, int* daemonPid = nullptr,
                const std::function<void(const std::string& warning)>& onIgnored = nullptr);

// The owner of dir when replies may be trusted from it: dir is a real
// directory, and it and every directory above it (symbolic links resolved)
// are owned by root or that owner and not writable by group or others.
// Returns false (with *why) otherwise.
bool trustedReplyUid(const std::string& dir, uid_t* owner, std::string* why);

}  // namespace velt_src

#endif  // VELT_PLATFORM_SRC_SRC_CLIENT_H_

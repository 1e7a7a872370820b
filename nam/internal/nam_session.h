// One session with the daemon: the connection, the message under way and
// the table. Thread-safe: every method takes the session's mutex, so calls
// from several threads are serialised.
#ifndef VELT_NAM_INTERNAL_NAM_SESSION_H_
#define VELT_NAM_INTERNAL_NAM_SESSION_H_

#include <memory>
#include <string>
#include <vector>

#include "internal/nam_stream.h"
#include "internal/nam_table.h"
#include "velt_mutex.h"
#include "velt_nam.h"

namespace velt {
namespace nam {
namespace internal {

class Session {
 public:
  // At most this many messages are applied by one update call; more stay
  // in the socket, which keeps the descriptor readable.
  static constexpr int kMaxMessagesPerUpdate = 100;

  // Connects to path, sends the init message and applies the daemon's
  // answer, waiting at most timeoutMs (-1: without limit). VELT_NAM_OK with
  // *out, or a code with the reason in *why (errno kept from connect for
  // VELT_NAM_SOCKET_CONNECT_FAILED and VELT_NAM_NON_ROOT_CALLER).
  static int open(const std::string& path, int timeoutMs, std::shared_ptr<Session>* out,
                  std::string* why);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  int fd() const { return fd_; }
  // As velt_nam_update.
  int update(std::string* why) EXCLUDES(mu_);
  void config(velt_nam_config* out) EXCLUDES(mu_);
  // Null when memory runs out.
  velt_nam_net_info* copyNetInfo() EXCLUDES(mu_);
  velt_nam_node_adap_info* copyNodeAdapInfo(int node) EXCLUDES(mu_);

 private:
  explicit Session(int fd);

  enum class Step { kApplied, kPartial, kWouldBlock, kFailed };
  // One read of what the message under way wants, and its application.
  Step readStepLocked(int* rc, int* msgType, std::string* why) REQUIRES(mu_);
  int sendInit(int timeoutMs, int64_t startMs, std::string* why);
  int awaitConfigLocked(int timeoutMs, int64_t startMs, std::string* why) REQUIRES(mu_);

  const int fd_;
  Mutex mu_;
  AdapterTable table_ GUARDED_BY(mu_);
  DaemonStream stream_ GUARDED_BY(mu_);
  std::vector<uint8_t> readBuffer_ GUARDED_BY(mu_);
  // Set once the session is broken: every later update returns it.
  int brokenRc_ GUARDED_BY(mu_) = 0;
  std::string brokenWhy_ GUARDED_BY(mu_);
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_SESSION_H_

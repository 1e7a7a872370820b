// One session with the daemon: the connection, the message under way and
// the table. Thread-safe: every method takes the session's mutex, so calls
// from several threads are serialised.
#ifndef VELT_NAM_INTERNAL_NAM_SESSION_H_
#define VELT_NAM_INTERNAL_NAM_SESSION_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "internal/nam_stream.h"
#include "internal/nam_table.h"
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
  int update(std::string* why);
  void config(velt_nam_config* out);
  // Null when memory runs out.
  velt_nam_net_info* copyNetInfo();
  velt_nam_node_adap_info* copyNodeAdapInfo(int node);

 private:
  explicit Session(int fd);

  enum class Step { kApplied, kPartial, kWouldBlock, kFailed };
  // One read of what the message under way wants, and its application.
  // Requires: mu_ held.
  Step readStep(int* rc, int* msgType, std::string* why);
  int sendInit(int timeoutMs, int64_t startMs, std::string* why);
  int awaitConfig(int timeoutMs, int64_t startMs, std::string* why);

  const int fd_;
  std::mutex mu_;
  // Guarded by mu_.
  AdapterTable table_;
  DaemonStream stream_;
  std::vector<uint8_t> readBuffer_;
  // Set once the session is broken: every later update returns it.
  int brokenRc_ = 0;
  std::string brokenWhy_;
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_SESSION_H_

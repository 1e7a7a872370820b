// One KOR session: its own connection to the node agent, the frames read
// from it, the events waiting for dispatch and the registrations they are
// for. Thread-compatible: vx_mc.cc lets one thread at a time in (the
// thread that holds the session's mark in the session table); callbacks
// run on that thread and may call back into the session.
#ifndef VELT_PLATFORM_MC_INTERNAL_MC_SESSION_H_
#define VELT_PLATFORM_MC_INTERNAL_MC_SESSION_H_

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "frame_io.h"
#include "internal/mc_wire.h"
#include "velt.pb.h"
#include "vx_mc.h"

namespace velt {
namespace mc {
namespace internal {

// Records code and a text for the calling thread (cu_set_error) and
// returns code.
int recordError(int code, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Events that may wait for dispatch on one session; past either bound the
// program is not dispatching and the session is given up.
constexpr size_t kMaxQueuedEvents = 100000;
constexpr size_t kMaxQueuedBytes = 64u * 1024 * 1024;

class Session {
 public:
  // Connects to the agent and says hello. MC_OK with *out, or a code (the
  // error is recorded).
  static int open(int mode, std::shared_ptr<Session>* out);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void setHandle(mc_sess_hndl_t handle) { handle_ = handle; }
  int mode() const { return mode_; }

  int query(const std::string& className, const std::vector<std::string>& attributes, mc_query_rsp_t** responses,
            uint32_t* count);
  int registerClassEvent(const std::string& className, const std::string& eventName, mc_class_event_cb_t* callback,
                         void* arg, mc_reg_rsp_t** response);
  int registerResourceEvent(const std::string& className, const std::string& condition,
                            const std::vector<std::string>& attributes, mc_event_cb_t* callback, void* arg,
                            mc_reg_rsp_t** response);
  int unregister(mc_reg_id_t regId, mc_reg_rsp_t** response);
  int dispatch(int options);
  int descriptor(int* fd);

  // Ends the session: closes its descriptors. A dispatch that runs the
  // callback which ended it returns after that callback.
  void end();

  // Dispatch calls blocked waiting for the agent.
  int waitingDispatchersForTesting() const { return waitingDispatchers_.load(); }

 private:
  enum class Kind { kClassEvent, kResourceEvent };
  struct Registration {
    Kind kind = Kind::kClassEvent;
    uint64_t agentId = 0;
    std::string className;
    std::string eventName;   // class events: the event; resource events: the condition
    mc_class_event_cb_t* classCallback = nullptr;
    mc_event_cb_t* eventCallback = nullptr;
    void* arg = nullptr;
  };
  struct QueuedEvent {
    mc_reg_id_t regId = MC_REG_ID_NONE;
    size_t cost = 0;
    proto::KorEvent event;
  };

  Session(int mode, int fd, int epollFd, int eventFd);

  int registerEvent(Registration reg, proto::Request* request, mc_reg_rsp_t** response);
  // Sends request and waits for its answer, queueing the events read
  // meanwhile. MC_OK with *reply (whatever its rc), or the session's
  // failure.
  int call(proto::Request* request, const char* what, proto::Reply* reply);
  // Reads what the socket holds now, at most maxPackets packets, handling
  // every complete frame. MC_OK, or the failure that ended the connection.
  int readAvailable(size_t maxPackets);
  int handleMessage(const std::string& message);
  // One page of the awaited query's answer (the id is checked).
  int takeQueryPage(proto::Reply* page);
  // The page's header taken: the answer's rc and text are the first
  // page's; the reply is ready after the last page.
  void endQueryPage(uint64_t id, int32_t rc, const std::string& text, bool more);
  int sendFrame(const proto::ClientFrame& frame, const char* what);
  // Waits until the socket is readable or timeoutMs passes (-1: no limit).
  void waitReadable(int timeoutMs);
  // Runs the callbacks of the events queued when it starts. Returns how
  // many ran; MC_ENOMEM in *rc when an event could not be built (it stays
  // first in the queue).
  int runQueued(int* rc);
  void dropQueuedEvents(mc_reg_id_t regId);
  // Makes the descriptor of mc_get_descriptor show whether events wait.
  void updateQueueSignal();

  // Gives the connection up: the first failure is kept, the socket shut
  // down (so that its descriptor shows readable), the error recorded.
  int fail(int code, const std::string& why);
  // The answer of a call on a session whose connection failed earlier.
  int failedCall();

  const int mode_;
  mc_sess_hndl_t handle_ = 0;
  int fd_;        // the connection
  int epollFd_;   // mc_get_descriptor: the connection and eventFd_
  int eventFd_;   // readable while events wait in queue_
  bool signalled_ = false;
  bool ended_ = false;

  velt::wire::Reassembler reassembler_;
  std::vector<char> packet_;
  std::string message_;

  uint64_t nextRequestId_ = 1;
  bool awaiting_ = false;
  uint64_t awaitedId_ = 0;
  bool replyReady_ = false;
  // Pages of the awaited answer taken so far (0: none, or not paged).
  size_t replyPages_ = 0;
  proto::Reply reply_;
  // The awaited query's answer, converted page by page as it arrives; null
  // while no query is awaited. Owned by query().
  QueryAnswerBuilder* answer_ = nullptr;
  // Whether the pages are converted (the agent did not refuse the query),
  // and MC_ENOMEM once one could not be: the rest is read and dropped.
  bool convertPages_ = false;
  int answerRc_ = MC_OK;

  std::deque<QueuedEvent> queue_;
  size_t queuedBytes_ = 0;

  std::map<mc_reg_id_t, Registration> registrations_;
  std::unordered_map<uint64_t, mc_reg_id_t> byAgentId_;
  mc_reg_id_t nextRegId_ = 1;

  int failure_ = MC_OK;
  bool failureReported_ = false;
  std::string failureWhy_;

  std::atomic<int> waitingDispatchers_{0};
};

// Test hooks, for the whole process.
void setRequestBoundForTesting(std::chrono::milliseconds bound);
void setQueueLimitsForTesting(size_t events, size_t bytes);
// Restores the bounds above.
void resetLimitsForTesting();
// Dispatch calls of session blocked waiting for the agent; -1 for no such
// session.
int waitingDispatchersForTesting(mc_sess_hndl_t session);

}  // namespace internal
}  // namespace mc
}  // namespace velt

#endif  // VELT_PLATFORM_MC_INTERNAL_MC_SESSION_H_

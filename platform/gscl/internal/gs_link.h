// How the library's two halves meet: providers and subscribers reach the
// process's controller (requests, the connection's frame numbers), and the
// controller's dispatch reaches the clients (routing of notifications, the
// death announcement, the reset at quit). No other library includes this
// header.
#ifndef VELT_PLATFORM_GSCL_INTERNAL_GS_LINK_H_
#define VELT_PLATFORM_GSCL_INTERNAL_GS_LINK_H_

#include <stdint.h>

#include <string>

#include "frame_io.h"
#include "gs_types.h"
#include "velt.pb.h"
#include "velt_mutex.h"

namespace velt_gscl_V1 {

class GSController;
class GSClient;
class GSProvider;
class GSSubscriber;

namespace internal {

// The answer to one request.
struct CallResult {
  tk_gs_rc_t rc = TK_GS_NOT_OK;
  uint64_t seq = 0;     // number of the reply frame (0 when none came)
  std::string text;     // the agent's why, for errors
};

// What clients need of the process's controller. Thread-safe.
class ControllerAccess {
 public:
  // The latest controller built and not yet destroyed, or null.
  static GSController* current();
  // Sends the request (its id is assigned here) and waits for the agent's
  // answer within the request bound. what names it in traces.
  // Requires: no client lock held.
  static CallResult call(velt::proto::Request* request, const char* what);
  // Sends the request and does not wait; a refusal is only traced.
  static void sendDetached(velt::proto::Request* request, const char* what);
  // Number of the newest frame read from the agent (all connections of
  // the process count on).
  static uint64_t lastFrameSeq();
  // This node's number as the agent told it; 0 before the first hello.
  static uint16_t nodeNumber();
};

// Reads one packet of the agent's connection as it was received: the
// reassembly, the parsing and the checks that the rest of the library
// relies on. Returns 1 with *frame set (and *bytes, the frame's size) when
// a frame is complete, 0 when more packets are needed, -1 with *why set
// when the connection has to be given up.
int readAgentPacket(velt::wire::Reassembler* reassembler, const char* data, size_t len,
                    velt::proto::AgentFrame* frame, size_t* bytes, std::string* why);

// What the controller's dispatch needs of the clients. Thread-safe.
class ClientAccess {
 public:
  // Held by dispatch while a client's callback runs, and by a client's
  // destruction, so that a client is never destroyed under its running
  // callback (recursive: a callback may destroy a client).
  static velt::RecursiveMutex& callbackGate();
  // Routes one notification to its provider or subscriber, records it and
  // runs the callback. seq: the frame's number; node: this node's number.
  static void deliver(const velt::proto::Notification& n, uint64_t seq, uint16_t node);
  // Tells every provider (announcementCb) and subscriber (subscribeCb) that
  // group services died; they become idle.
  static void deliverDeath(uint64_t seq);
  // Makes every client idle without callbacks (quit).
  static void resetAll(uint64_t seq);

 private:
  // Record the notification in the client, then run its callback.
  static void deliverToProvider(GSProvider* p, const velt::proto::Notification& n, uint64_t seq, uint16_t node)
      REQUIRES(callbackGate());
  static void deliverToSubscriber(GSSubscriber* s, const velt::proto::Notification& n, uint64_t seq)
      REQUIRES(callbackGate());
};

// The process keeps every group name it was given, so that names handed
// out stay valid while a client's name changes. Returns null when the name
// is longer than kMaxInternedName or the process has used too many names.
constexpr size_t kMaxInternedName = 4096;
constexpr size_t kMaxInternedNames = 65536;
const char* internGroupName(const char* name);

// Checks a group name a client gives: 1 to TK_GS_MAX_GROUP_NAME_LENGTH bytes.
bool validGroupName(const char* name);

}  // namespace internal
}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_INTERNAL_GS_LINK_H_

// How CorosyncBus carries messages larger than CPG takes at once: each
// message goes out as one or more fragments, each with a small header
// (sender-local message id, fragment index and count), and is put together
// again per sender on arrival. CPG delivers one sender's fragments in the
// order they were sent, so reassembly only ever extends one partial message
// per sender. This is the pure logic, without corosync, so that tests can
// drive it directly.
#ifndef VELT_AGENT_CPG_FRAMING_H_
#define VELT_AGENT_CPG_FRAMING_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace velt {
namespace agent {

// The header in front of every fragment, little-endian:
//   byte 0 'v', byte 1 format (1), bytes 2-3 zero,
//   bytes 4-7 message id, 8-11 fragment index, 12-15 fragment count.
// Plain data (thread-compatible).
struct FragmentHeader {
  static constexpr size_t kSize = 16;
  static constexpr uint8_t kMagic = 'v';
  static constexpr uint8_t kFormat = 1;

  uint32_t messageId = 0;
  uint32_t index = 0;
  uint32_t count = 0;

  void encode(char out[kSize]) const;
  // False (with *why) for anything that is not a header of our format.
  static bool decode(const char* data, size_t len, FragmentHeader* out, std::string* why);
};

// This node's messages on their way out: queued whole, cut into fragments
// as they are sent, and kept until CPG delivers them back to this node, so
// that nothing the bus accepted is lost or reordered when CPG refuses for a
// while (flow control) or goes away. Owned by the bus's thread
// (thread-compatible).
class SendQueue {
 public:
  enum class SendResult { kSent, kTryAgain, kFailed };
  // Hands one fragment to the transport: header and payload together.
  using SendFn = std::function<SendResult(const char* header, size_t headerLen,
                                          const char* payload, size_t payloadLen)>;

  // maxQueuedBytes bounds what waits here (unsent or not yet delivered
  // back); maxMessageBytes bounds one message.
  SendQueue(size_t maxQueuedBytes, size_t maxMessageBytes);

  // Payload bytes per fragment from now on (at least 1); a message whose
  // sending has begun keeps the size it started with.
  void setFragmentPayload(size_t bytes);
  size_t fragmentPayload() const { return fragmentPayload_; }

  // Queues a message. Returns 0, EAGAIN (the queue is full: try again once
  // it drained) or EMSGSIZE (larger than any message may be).
  int push(std::string bytes);
  // Sends fragments in order until everything went out (kSent) or the
  // transport refused (kTryAgain: call again later) or failed (kFailed:
  // the fragment that failed counts as not sent).
  SendResult flush(const SendFn& send);
  bool hasUnsent() const { return sendIndex_ < entries_.size(); }

  // One of this node's messages came back from CPG complete: it and any
  // older ones are forgotten (they are delivered in order). Unknown or
  // unsent ids are ignored; returns whether it was known.
  bool delivered(uint32_t messageId);
  // Every message not yet delivered back, oldest first, sent or not; the
  // queue is empty afterwards. Used when CPG went away.
  std::deque<std::string> takeUndelivered();

  size_t queuedBytes() const { return queuedBytes_; }
  size_t messageCount() const { return entries_.size(); }
  uint32_t nextMessageId() const { return nextMessageId_; }

 private:
  struct Entry {
    uint32_t id = 0;
    std::string bytes;
    size_t payload = 0;      // fragment payload size, fixed when sending starts
    uint32_t count = 0;      // fragments
    uint32_t sent = 0;       // fragments handed to the transport
  };

  size_t maxQueuedBytes_;
  size_t maxMessageBytes_;
  size_t fragmentPayload_;
  std::deque<Entry> entries_;   // [0, sendIndex_) fully sent, waiting to come back
  size_t sendIndex_ = 0;
  size_t queuedBytes_ = 0;
  uint32_t nextMessageId_ = 1;
};

// Puts fragments together again, per sender (node id and process id as one
// key). A sender holds at most one partial message, of at most
// maxMessageBytes; what breaks the order or the bound is refused, its
// partial message dropped, and the sender starts over with its next first
// fragment. Owned by the bus's thread (thread-compatible).
class FragmentReassembler {
 public:
  enum class Outcome { kIncomplete, kComplete, kRefused };

  explicit FragmentReassembler(size_t maxMessageBytes);

  static uint64_t senderKey(uint32_t node, uint32_t pid) {
    return (static_cast<uint64_t>(node) << 32) | pid;
  }

  // One fragment as CPG delivered it. kComplete: *message is the whole
  // message and *messageId its id. kRefused: *why says what was wrong.
  Outcome feed(uint64_t sender, const char* data, size_t len, std::string* message,
               uint32_t* messageId, std::string* why);
  // Forgets the partial messages of senders not in keep (they left).
  void keepOnly(const std::set<uint64_t>& keep);
  void clear() { partial_.clear(); }

  size_t partialBytes(uint64_t sender) const;
  size_t partialCount() const { return partial_.size(); }

 private:
  struct Partial {
    uint32_t messageId = 0;
    uint32_t count = 0;
    uint32_t next = 0;
    std::string bytes;
  };

  size_t maxMessageBytes_;
  std::map<uint64_t, Partial> partial_;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_CPG_FRAMING_H_

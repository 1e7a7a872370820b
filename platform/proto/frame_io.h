// Framing of the agent socket (UNIX SOCK_SEQPACKET): one protobuf message
// travels as one or more packets of at most kMaxChunk bytes, each with a
// 4-byte header, so that large notifications never depend on the socket's
// buffer sizes. The receiver reassembles with a bound on the total size.
// Thread-compatible: one Reassembler per connection and direction.
#ifndef VELT_PLATFORM_PROTO_FRAME_IO_H_
#define VELT_PLATFORM_PROTO_FRAME_IO_H_

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <string>
#include <vector>

namespace velt {
namespace wire {

constexpr size_t kHeaderBytes = 4;
constexpr size_t kMaxChunk = 60 * 1024;              // payload bytes per packet
constexpr size_t kMaxPacket = kHeaderBytes + kMaxChunk;
constexpr size_t kDefaultMaxMessage = 16 * 1024 * 1024;

// The packets of one message, each with its header, in order.
std::vector<std::string> splitMessage(const std::string& message);

// Sends one message on a connected, blocking SOCK_SEQPACKET socket.
// Returns 0, or an errno value. Non-blocking senders use PacketQueue.
int sendMessage(int fd, const std::string& message);

// The packets of one or more messages waiting to go out on a non-blocking
// socket. Each message is kept whole as it was pushed and cut into packets
// as they are sent (a header and a slice of the message, one sendmsg each),
// so that nothing is copied on the way. Thread-compatible.
class PacketQueue {
 public:
  // Queues the bytes of message from `from` on (moved in, not copied).
  void push(std::string message, size_t from = 0);
  // Sends what the socket takes now. Returns 0 when everything was sent or
  // the socket is full (EAGAIN; call again when writable), an errno value
  // on a real error.
  int flush(int fd);
  bool empty() const { return messages_.empty(); }
  // The bytes of the packets not sent yet, headers included.
  size_t queuedBytes() const { return bytes_; }

 private:
  struct Message {
    std::string bytes;
    size_t at = 0;   // the next packet's first byte
  };
  std::deque<Message> messages_;
  size_t bytes_ = 0;
};

// Rebuilds messages from packets. Thread-compatible.
class Reassembler {
 public:
  explicit Reassembler(size_t maxMessage = kDefaultMaxMessage) : max_(maxMessage) {}
  // Feeds one received packet. Returns 1 when a message is complete (moved
  // into *out), 0 when more packets are needed, -1 when the packet is
  // malformed or the message would pass the limit (*why says which; the
  // connection should then be closed).
  int feed(const char* data, size_t len, std::string* out, std::string* why);

 private:
  size_t max_;
  std::string partial_;
  bool inMessage_ = false;
};

}  // namespace wire
}  // namespace velt

#endif  // VELT_PLATFORM_PROTO_FRAME_IO_H_

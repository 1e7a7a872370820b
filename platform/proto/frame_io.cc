#include "frame_io.h"

#include <errno.h>
#include <string.h>
#include <sys/uio.h>

#include <algorithm>
#include <sys/socket.h>

namespace velt {
namespace wire {

namespace {

constexpr uint8_t kMagic0 = 'V';
constexpr uint8_t kMagic1 = 'F';
constexpr uint8_t kVersion = 1;
constexpr uint8_t kFlagMore = 0x01;   // more packets of this message follow

}  // namespace

std::vector<std::string> splitMessage(const std::string& message) {
  std::vector<std::string> packets;
  size_t offset = 0;
  do {
    size_t n = std::min(kMaxChunk, message.size() - offset);
    bool more = offset + n < message.size();
    std::string packet;
    packet.reserve(kHeaderBytes + n);
    packet.push_back(static_cast<char>(kMagic0));
    packet.push_back(static_cast<char>(kMagic1));
    packet.push_back(static_cast<char>(kVersion));
    packet.push_back(static_cast<char>(more ? kFlagMore : 0));
    packet.append(message, offset, n);
    packets.push_back(std::move(packet));
    offset += n;
  } while (offset < message.size());
  return packets;
}

int sendMessage(int fd, const std::string& message) {
  for (const std::string& packet : splitMessage(message)) {
    ssize_t rc;
    do {
      rc = send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) return errno;
    if (static_cast<size_t>(rc) != packet.size()) return EMSGSIZE;
  }
  return 0;
}

void PacketQueue::push(std::string message, size_t from) {
  if (from > message.size()) from = message.size();
  const size_t payload = message.size() - from;
  const size_t packets = payload == 0 ? 1 : (payload + kMaxChunk - 1) / kMaxChunk;
  bytes_ += payload + packets * kHeaderBytes;
  Message m;
  m.bytes = std::move(message);
  m.at = from;
  messages_.push_back(std::move(m));
}

int PacketQueue::flush(int fd) {
  while (!messages_.empty()) {
    Message& m = messages_.front();
    const size_t n = std::min(kMaxChunk, m.bytes.size() - m.at);
    const bool more = m.at + n < m.bytes.size();
    char header[kHeaderBytes] = {static_cast<char>(kMagic0), static_cast<char>(kMagic1),
                                 static_cast<char>(kVersion), static_cast<char>(more ? kFlagMore : 0)};
    struct iovec iov[2];
    iov[0].iov_base = header;
    iov[0].iov_len = kHeaderBytes;
    iov[1].iov_base = &m.bytes[0] + m.at;
    iov[1].iov_len = n;
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    ssize_t rc = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (rc < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
      return errno;
    }
    if (static_cast<size_t>(rc) != kHeaderBytes + n) return EMSGSIZE;  // a packet socket takes all or none
    bytes_ -= kHeaderBytes + n;
    m.at += n;
    if (!more) messages_.pop_front();
  }
  return 0;
}

int Reassembler::feed(const char* data, size_t len, std::string* out, std::string* why) {
  if (len < kHeaderBytes) {
    *why = "packet of " + std::to_string(len) + " bytes is shorter than its header";
    return -1;
  }
  const uint8_t* h = reinterpret_cast<const uint8_t*>(data);
  if (h[0] != kMagic0 || h[1] != kMagic1) {
    *why = "packet does not start with the frame marker";
    return -1;
  }
  if (h[2] != kVersion) {
    *why = "frame version " + std::to_string(h[2]) + " is not supported";
    return -1;
  }
  if ((h[3] & ~kFlagMore) != 0) {
    *why = "unknown frame flags";
    return -1;
  }
  size_t payload = len - kHeaderBytes;
  if (payload > kMaxChunk) {
    *why = "packet of " + std::to_string(len) + " bytes is larger than allowed";
    return -1;
  }
  if (partial_.size() + payload > max_) {
    partial_.clear();
    inMessage_ = false;
    *why = "message larger than " + std::to_string(max_) + " bytes";
    return -1;
  }
  partial_.append(data + kHeaderBytes, payload);
  if (h[3] & kFlagMore) {
    inMessage_ = true;
    return 0;
  }
  out->swap(partial_);
  partial_.clear();
  inMessage_ = false;
  return 1;
}

}  // namespace wire
}  // namespace velt

#include "frame_io.h"

#include <errno.h>

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

void PacketQueue::push(const std::string& message) {
  // Drop what was already sent before growing, so that a busy connection
  // does not keep every packet it ever sent.
  if (head_ > 0 && head_ == packets_.size()) {
    packets_.clear();
    head_ = 0;
  }
  for (std::string& p : splitMessage(message)) {
    bytes_ += p.size();
    packets_.push_back(std::move(p));
  }
}

int PacketQueue::flush(int fd) {
  while (head_ < packets_.size()) {
    const std::string& p = packets_[head_];
    ssize_t rc = send(fd, p.data(), p.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (rc < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
      return errno;
    }
    bytes_ -= p.size();
    ++head_;
  }
  packets_.clear();
  head_ = 0;
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

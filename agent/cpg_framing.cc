#include "cpg_framing.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace velt {
namespace agent {

namespace {

void putLe32(char* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

uint32_t getLe32(const char* in) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(static_cast<uint8_t>(in[i])) << (8 * i);
  return v;
}

}  // namespace

// ------------------------------------------------------------ the header

void FragmentHeader::encode(char out[kSize]) const {
  out[0] = static_cast<char>(kMagic);
  out[1] = static_cast<char>(kFormat);
  out[2] = 0;
  out[3] = 0;
  putLe32(out + 4, messageId);
  putLe32(out + 8, index);
  putLe32(out + 12, count);
}

bool FragmentHeader::decode(const char* data, size_t len, FragmentHeader* out, std::string* why) {
  if (len < kSize) {
    *why = "a fragment of " + std::to_string(len) + " bytes is shorter than its header";
    return false;
  }
  if (static_cast<uint8_t>(data[0]) != kMagic || static_cast<uint8_t>(data[1]) != kFormat ||
      data[2] != 0 || data[3] != 0) {
    *why = "a fragment of an unknown format";
    return false;
  }
  FragmentHeader h;
  h.messageId = getLe32(data + 4);
  h.index = getLe32(data + 8);
  h.count = getLe32(data + 12);
  if (h.count == 0 || h.index >= h.count) {
    *why = "fragment " + std::to_string(h.index) + " of " + std::to_string(h.count);
    return false;
  }
  *out = h;
  return true;
}

// ------------------------------------------------------------ SendQueue

SendQueue::SendQueue(size_t maxQueuedBytes, size_t maxMessageBytes)
    : maxQueuedBytes_(maxQueuedBytes), maxMessageBytes_(maxMessageBytes), fragmentPayload_(1) {}

void SendQueue::setFragmentPayload(size_t bytes) { fragmentPayload_ = std::max<size_t>(bytes, 1); }

int SendQueue::push(std::string bytes) {
  if (bytes.size() > maxMessageBytes_) return EMSGSIZE;
  // An empty queue takes any message within the bound on one message, so
  // that a message larger than the queue's bound still goes out alone.
  if (!entries_.empty() && queuedBytes_ + bytes.size() > maxQueuedBytes_) return EAGAIN;
  Entry e;
  e.id = nextMessageId_++;
  queuedBytes_ += bytes.size();
  e.bytes = std::move(bytes);
  entries_.push_back(std::move(e));
  return 0;
}

SendQueue::SendResult SendQueue::flush(const SendFn& send) {
  while (sendIndex_ < entries_.size()) {
    Entry& e = entries_[sendIndex_];
    if (e.count == 0) {
      e.payload = fragmentPayload_;
      size_t n = (e.bytes.size() + e.payload - 1) / e.payload;
      e.count = static_cast<uint32_t>(std::max<size_t>(n, 1));
    }
    while (e.sent < e.count) {
      FragmentHeader h;
      h.messageId = e.id;
      h.index = e.sent;
      h.count = e.count;
      char header[FragmentHeader::kSize];
      h.encode(header);
      size_t offset = static_cast<size_t>(e.sent) * e.payload;
      size_t len = std::min(e.payload, e.bytes.size() - offset);
      SendResult r = send(header, sizeof header, e.bytes.data() + offset, len);
      if (r != SendResult::kSent) return r;
      ++e.sent;
    }
    ++sendIndex_;
  }
  return SendResult::kSent;
}

bool SendQueue::delivered(uint32_t messageId) {
  auto sentEnd = entries_.begin() + static_cast<std::ptrdiff_t>(sendIndex_);
  auto it = std::find_if(entries_.begin(), sentEnd,
                         [&](const Entry& e) { return e.id == messageId; });
  if (it == sentEnd) return false;
  size_t n = static_cast<size_t>(it - entries_.begin()) + 1;
  for (size_t i = 0; i < n; ++i) {
    queuedBytes_ -= entries_.front().bytes.size();
    entries_.pop_front();
  }
  sendIndex_ -= n;
  return true;
}

std::deque<std::string> SendQueue::takeUndelivered() {
  std::deque<std::string> out;
  for (Entry& e : entries_) out.push_back(std::move(e.bytes));
  entries_.clear();
  sendIndex_ = 0;
  queuedBytes_ = 0;
  return out;
}

// -------------------------------------------------- FragmentReassembler

FragmentReassembler::FragmentReassembler(size_t maxMessageBytes)
    : maxMessageBytes_(maxMessageBytes) {}

FragmentReassembler::Outcome FragmentReassembler::feed(uint64_t sender, const char* data,
                                                       size_t len, std::string* message,
                                                       uint32_t* messageId, std::string* why) {
  FragmentHeader h;
  if (!FragmentHeader::decode(data, len, &h, why)) {
    partial_.erase(sender);
    return Outcome::kRefused;
  }
  const char* payload = data + FragmentHeader::kSize;
  size_t payloadLen = len - FragmentHeader::kSize;
  auto it = partial_.find(sender);
  if (h.index == 0) {
    // A first fragment while another message is unfinished: the sender
    // broke off (it cannot resume it), so the old one is given up.
    if (it != partial_.end()) partial_.erase(it);
    if (payloadLen > maxMessageBytes_) {
      *why = "a message larger than " + std::to_string(maxMessageBytes_) + " bytes";
      return Outcome::kRefused;
    }
    if (h.count == 1) {
      message->assign(payload, payloadLen);
      *messageId = h.messageId;
      return Outcome::kComplete;
    }
    Partial p;
    p.messageId = h.messageId;
    p.count = h.count;
    p.next = 1;
    p.bytes.assign(payload, payloadLen);
    partial_.emplace(sender, std::move(p));
    return Outcome::kIncomplete;
  }
  if (it == partial_.end()) {
    *why = "fragment " + std::to_string(h.index) + " of message " + std::to_string(h.messageId) +
           " without its beginning";
    return Outcome::kRefused;
  }
  Partial& p = it->second;
  if (h.messageId != p.messageId || h.count != p.count || h.index != p.next) {
    *why = "fragment " + std::to_string(h.index) + "/" + std::to_string(h.count) +
           " of message " + std::to_string(h.messageId) + " where fragment " +
           std::to_string(p.next) + "/" + std::to_string(p.count) + " of message " +
           std::to_string(p.messageId) + " was due";
    partial_.erase(it);
    return Outcome::kRefused;
  }
  if (payloadLen > maxMessageBytes_ - p.bytes.size()) {
    *why = "a message larger than " + std::to_string(maxMessageBytes_) + " bytes";
    partial_.erase(it);
    return Outcome::kRefused;
  }
  p.bytes.append(payload, payloadLen);
  if (++p.next < p.count) return Outcome::kIncomplete;
  *message = std::move(p.bytes);
  *messageId = p.messageId;
  partial_.erase(it);
  return Outcome::kComplete;
}

void FragmentReassembler::keepOnly(const std::set<uint64_t>& keep) {
  for (auto it = partial_.begin(); it != partial_.end();) {
    if (keep.count(it->first) == 0) {
      it = partial_.erase(it);
    } else {
      ++it;
    }
  }
}

size_t FragmentReassembler::partialBytes(uint64_t sender) const {
  auto it = partial_.find(sender);
  return it == partial_.end() ? 0 : it->second.bytes.size();
}

}  // namespace agent
}  // namespace velt

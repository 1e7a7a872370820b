#include "internal/nam_stream.h"

#include <string.h>

#include <algorithm>

namespace velt {
namespace nam {
namespace internal {

size_t DaemonStream::bytesWanted() const {
  if (headerHave_ < sizeof header_) return sizeof header_ - headerHave_;
  size_t left = static_cast<size_t>(header_.msg_length) - bodyHave_;
  return std::min(left, kReadChunk);
}

int DaemonStream::checkHeader(std::string* why) const {
  const int32_t type = header_.msg_type;
  const int32_t length = header_.msg_length;
  if (!table_->hasConfig()) {
    if (type != VELT_NAM_DAEMON_INIT_MSG) {
      return refuseMessage(why, "the daemon's first message has type %d instead of its init answer (%d)",
                           type, VELT_NAM_DAEMON_INIT_MSG);
    }
    if (length != static_cast<int32_t>(sizeof(velt_nam_init_daemon_msg))) {
      return refuseMessage(why, "the daemon's init answer announces %d bytes instead of %zu", length,
                           sizeof(velt_nam_init_daemon_msg));
    }
    return VELT_NAM_OK;
  }
  if (type == VELT_NAM_DAEMON_INIT_MSG) {
    return refuseMessage(why, "the daemon sent a second init answer");
  }
  if (type != VELT_NAM_DAEMON_UPDATE_MSG) {
    return refuseMessage(why, "the daemon sent a message of the unknown type %d (%d bytes)", type, length);
  }
  uint64_t shortest = updateBodyLength(0, 0);
  uint64_t longest = table_->maxUpdateBodyLength();
  if (length < 0 || static_cast<uint64_t>(length) < shortest || static_cast<uint64_t>(length) > longest) {
    return refuseMessage(why, "the daemon announces an update of %d bytes; updates have %llu to %llu", length,
                         static_cast<unsigned long long>(shortest), static_cast<unsigned long long>(longest));
  }
  return VELT_NAM_OK;
}

int DaemonStream::take(const uint8_t* data, size_t n, int* msgType, std::string* why) {
  if (n == 0 || n > bytesWanted()) {
    *why = "the library read past the message under way";
    return VELT_NAM_INTERNAL_ERROR;
  }
  if (headerHave_ < sizeof header_) {
    memcpy(reinterpret_cast<uint8_t*>(&header_) + headerHave_, data, n);
    headerHave_ += n;
    if (headerHave_ < sizeof header_) return VELT_NAM_NO_NEW_DATA;
    int rc = checkHeader(why);
    if (rc != VELT_NAM_OK) return rc;
    // Every message that passes has a body.
    bodyHave_ = 0;
    if (header_.msg_type == VELT_NAM_DAEMON_UPDATE_MSG) {
      return finishOnError(table_->beginUpdate(static_cast<size_t>(header_.msg_length), why));
    }
    body_.reserve(static_cast<size_t>(header_.msg_length));
    return VELT_NAM_NO_NEW_DATA;
  }
  const size_t length = static_cast<size_t>(header_.msg_length);
  bodyHave_ += n;
  if (header_.msg_type == VELT_NAM_DAEMON_UPDATE_MSG) {
    int rc = table_->takeUpdate(data, n, why);
    if (rc != VELT_NAM_OK) return finishOnError(rc);
  } else {
    body_.insert(body_.end(), data, data + n);
  }
  if (bodyHave_ < length) return VELT_NAM_NO_NEW_DATA;
  return finishMessage(msgType, why);
}

int DaemonStream::finishOnError(int rc) {
  if (rc == VELT_NAM_OK) return VELT_NAM_NO_NEW_DATA;
  headerHave_ = 0;
  bodyHave_ = 0;
  return rc;
}

int DaemonStream::finishMessage(int* msgType, std::string* why) {
  *msgType = header_.msg_type;
  int rc = header_.msg_type == VELT_NAM_DAEMON_INIT_MSG ? table_->applyInit(body_.data(), body_.size(), why)
                                                        : table_->finishUpdate(why);
  headerHave_ = 0;
  bodyHave_ = 0;
  body_.clear();
  return rc;
}

}  // namespace internal
}  // namespace nam
}  // namespace velt

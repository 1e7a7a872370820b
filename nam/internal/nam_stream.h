// Reassembles the daemon's messages from what the socket delivers, in
// whatever pieces it comes, and applies each whole message to the table
// (an update's pieces are handed to the table as they come, which checks
// and stages them at once).
// It asks for no more than the message under way still needs, so whatever
// the daemon sent after it stays in the socket and keeps the descriptor
// readable. Thread-compatible (the session serialises).
#ifndef VELT_NAM_INTERNAL_NAM_STREAM_H_
#define VELT_NAM_INTERNAL_NAM_STREAM_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "internal/nam_table.h"
#include "velt_nam.h"

namespace velt {
namespace nam {
namespace internal {

class DaemonStream {
 public:
  // A body grows by at most this much per read, so that what it takes in
  // memory follows what has arrived, not what its header claims.
  static constexpr size_t kReadChunk = 64 * 1024;

  explicit DaemonStream(AdapterTable* table) : table_(table) {}

  // How many bytes the next read may take: what completes the header, or
  // what is left of the body (at most kReadChunk). Never 0.
  size_t bytesWanted() const;

  // Takes n bytes (1 <= n <= bytesWanted()). VELT_NAM_OK when they
  // completed a message and it was applied (*msgType says which),
  // VELT_NAM_NO_NEW_DATA when the message is not whole yet, or
  // VELT_NAM_READSOCK_ERROR with the reason in *why (a header the table
  // cannot take is refused before any of its body is read).
  int take(const uint8_t* data, size_t n, int* msgType, std::string* why);

  // Bytes of a message under way (the stream is between messages at 0).
  size_t bytesPending() const { return headerHave_ + bodyHave_; }

 private:
  int checkHeader(std::string* why) const;
  int finishMessage(int* msgType, std::string* why);
  // VELT_NAM_NO_NEW_DATA for VELT_NAM_OK; else rc, with the message dropped.
  int finishOnError(int rc);

  AdapterTable* const table_;
  velt_nam_msg_hdr header_{};
  size_t headerHave_ = 0;
  size_t bodyHave_ = 0;
  // The init answer's body; an update's goes to the table as it comes.
  std::vector<uint8_t> body_;
};

}  // namespace internal
}  // namespace nam
}  // namespace velt

#endif  // VELT_NAM_INTERNAL_NAM_STREAM_H_

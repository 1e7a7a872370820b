// Protobuf's wire format written by hand, for the few messages the agent
// sends in bulk (the pages of a large KOR answer): appended straight to a
// string, without a message object or a separate size pass. What is
// written is what protobuf writes for the same message (fields in number
// order, scalars at their default left out, arrays packed), so that a
// reader cannot tell the two apart; tests compare the bytes.
// Thread-safe: no state.
#ifndef VELT_AGENT_WIRE_BYTES_H_
#define VELT_AGENT_WIRE_BYTES_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace velt {
namespace agent {
namespace wirebytes {

constexpr uint32_t kVarint = 0;
constexpr uint32_t kLengthDelimited = 2;

inline size_t varintSize(uint64_t v) {
  size_t n = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++n;
  }
  return n;
}

inline void putVarint(std::string* out, uint64_t v) {
  char buf[10];
  size_t n = 0;
  while (v >= 0x80) {
    buf[n++] = static_cast<char>((v & 0x7f) | 0x80);
    v >>= 7;
  }
  buf[n++] = static_cast<char>(v);
  out->append(buf, n);
}

inline void putTag(std::string* out, uint32_t field, uint32_t wireType) {
  putVarint(out, (static_cast<uint64_t>(field) << 3) | wireType);
}

// A varint field; 0 is the default and is left out.
inline void putVarintField(std::string* out, uint32_t field, uint64_t v) {
  if (v == 0) return;
  putTag(out, field, kVarint);
  putVarint(out, v);
}

// A string field; the empty string is the default and is left out.
inline void putStringField(std::string* out, uint32_t field, const char* data, size_t size) {
  if (size == 0) return;
  putTag(out, field, kLengthDelimited);
  putVarint(out, size);
  out->append(data, size);
}

inline void putStringField(std::string* out, uint32_t field, const std::string& s) {
  putStringField(out, field, s.data(), s.size());
}

// The tag and length of a field whose contents follow (an embedded
// message, always written, even when empty).
inline void putLengthPrefix(std::string* out, uint32_t field, size_t size) {
  putTag(out, field, kLengthDelimited);
  putVarint(out, size);
}

// An embedded message whose size is known only once it is written: open()
// leaves room for a two-byte length, close() writes the length and moves
// the contents when it takes another number of bytes.
class Nested {
 public:
  static constexpr size_t kRoom = 2;

  Nested(std::string* out, uint32_t field) : out_(out) {
    putTag(out, field, kLengthDelimited);
    at_ = out->size();
    out->append(kRoom, '\0');
  }
  // The contents' size in bytes.
  size_t close() {
    const size_t size = out_->size() - at_ - kRoom;
    const size_t need = varintSize(size);
    if (need != kRoom) {
      // Small contents take one byte less; very large ones more.
      out_->replace(at_, kRoom, need, '\0');
    }
    char* p = &(*out_)[at_];
    uint64_t v = size;
    for (size_t i = 0; i + 1 < need; ++i) {
      p[i] = static_cast<char>((v & 0x7f) | 0x80);
      v >>= 7;
    }
    p[need - 1] = static_cast<char>(v);
    return size;
  }

 private:
  std::string* out_;
  size_t at_;
};

}  // namespace wirebytes
}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_WIRE_BYTES_H_

#include "utf8_text.h"

namespace velt {
namespace wire {

namespace {

// The length of the valid character at text[at], or 0 when the byte there
// starts none.
size_t charLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char b = byte(at);
  if (b < 0x80) return 1;
  size_t n;
  unsigned char lo = 0x80, hi = 0xbf;  // the bounds of the second byte
  if (b >= 0xc2 && b <= 0xdf) {
    n = 2;
  } else if (b >= 0xe0 && b <= 0xef) {
    n = 3;
    if (b == 0xe0) lo = 0xa0;  // no overlong forms
    if (b == 0xed) hi = 0x9f;  // no surrogates
  } else if (b >= 0xf0 && b <= 0xf4) {
    n = 4;
    if (b == 0xf0) lo = 0x90;  // no overlong forms
    if (b == 0xf4) hi = 0x8f;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (text.size() - at < n) return 0;
  if (byte(at + 1) < lo || byte(at + 1) > hi) return 0;
  for (size_t i = 2; i < n; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
  }
  return n;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    size_t n = charLength(text, at);
    if (n == 0) return false;
    at += n;
  }
  return true;
}

std::string utf8Text(std::string_view text, size_t maxBytes) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    size_t n = charLength(text, at);
    const size_t take = n == 0 ? 1 : n;
    if (out.size() + take > maxBytes) break;
    if (n == 0) {
      out.push_back('?');
    } else {
      out.append(text.substr(at, n));
    }
    at += take;
  }
  return out;
}

}  // namespace wire
}  // namespace velt

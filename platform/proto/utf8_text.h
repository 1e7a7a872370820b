// Text from outside that goes into a string field of our wire formats
// (names from corosync's configuration, for example) must be valid UTF-8:
// protobuf refuses to parse a message whose string field is not, so one
// bad name would make every agent drop the whole message that carries it.
// Plain functions (thread-safe).
#ifndef VELT_PLATFORM_PROTO_UTF8_TEXT_H_
#define VELT_PLATFORM_PROTO_UTF8_TEXT_H_

#include <stddef.h>

#include <string>
#include <string_view>

namespace velt {
namespace wire {

// Whether text is valid UTF-8 (no overlong forms, surrogates or code points
// past U+10FFFF), as protobuf checks string fields.
bool isValidUtf8(std::string_view text);

// text as valid UTF-8 of at most maxBytes bytes: each byte that does not
// belong to a valid character becomes '?', and a character that would
// pass maxBytes is left out whole.
std::string utf8Text(std::string_view text, size_t maxBytes);

}  // namespace wire
}  // namespace velt

#endif  // VELT_PLATFORM_PROTO_UTF8_TEXT_H_

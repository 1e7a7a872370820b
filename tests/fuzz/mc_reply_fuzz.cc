// Feeds arbitrary bytes, read as an agent frame, through libvx_mc's checks
// and conversions of the agent's KOR answers and events: query answers to
// response arrays (freed again), registration answers, class and resource
// events as callbacks see them. Nothing may crash, leak or allocate past
// the library's bounds.
#include <stddef.h>
#include <stdint.h>

#include <google/protobuf/stubs/logging.h>

#include "internal/mc_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  velt::mc::internal::convertAgentFrameForTesting(data, size);
  return 0;
}

// Feeds arbitrary bytes to both parsers of the SRC request socket: the
// daemon's request parser and the client's reply parser. A request that
// parses must encode back to the very same bytes, so that the parser
// accepts exactly what the encoder writes and nothing more.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "internal/src_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  velt_src::Request req;
  std::string why;
  if (velt_src::parseRequest(data, size, &req, &why) == 0) {
    std::string again;
    if (velt_src::encodeRequest(req, &again, &why) != 0 || again.size() != size ||
        again.compare(0, size, reinterpret_cast<const char*>(data), size) != 0) {
      abort();
    }
  } else if (why.empty()) {
    abort();  // every refusal names its reason
  }

  velt_src::Reply reply;
  why.clear();
  if (velt_src::parseReply(data, size, &reply, &why) == 0) {
    if (reply.text.size() > velt_src::kMaxReplyText) abort();
    std::string again = velt_src::encodeReply(reply.kind, reply.rc, reply.text.data(), reply.text.size());
    if (again.size() != size ||
        again.compare(0, size, reinterpret_cast<const char*>(data), size) != 0) {
      abort();
    }
  } else if (why.empty()) {
    abort();
  }
  return 0;
}

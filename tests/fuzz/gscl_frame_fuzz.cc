// Feeds arbitrary bytes to libvx_gscl's reading of the agent's connection
// (readAgentPacket: reassembly, parsing, the frame checks), cut into
// packets as the socket would deliver them. Nothing may crash or allocate
// past the reassembly bound; a frame that is accepted keeps what the
// library relies on, and every refusal says why.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include <google/protobuf/stubs/logging.h>

#include "frame_io.h"
#include "fuzz_input.h"
#include "gs_types.h"
#include "internal/gs_link.h"
#include "velt.pb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  // The input is a run of packets, each behind a 2-byte length (so that
  // mutations can cut and join packets where they like).
  velt::wire::Reassembler reassembler(velt::wire::kDefaultMaxMessage);
  velt_fuzz::FuzzInput in(data, size);
  while (!in.done()) {
    const std::string packet = in.bytes16();
    velt::proto::AgentFrame frame;
    size_t bytes = 0;
    std::string why;
    int r = velt_gscl_V1::internal::readAgentPacket(&reassembler, packet.data(), packet.size(), &frame, &bytes, &why);
    if (r < 0) {
      if (why.empty()) abort();
      return 0;  // the connection is given up
    }
    if (r == 0) continue;
    if (frame.version() != velt::proto::WIRE_VERSION_1 || bytes == 0 || bytes > velt::wire::kDefaultMaxMessage) {
      abort();
    }
    if (frame.has_notification()) {
      const velt::proto::Notification& n = frame.notification();
      if (n.group().empty() || n.group().size() > TK_GS_MAX_GROUP_NAME_LENGTH || n.instance() > 0xffff) abort();
    }
  }
  return 0;
}

// Feeds arbitrary bytes to every parser of the agent's outside input: the
// socket framing, the client and agent frames, and the replicated state
// machine, both with raw multicast bytes and with well-formed requests of
// arbitrary content. Nothing may crash, hang or grow without bound.
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "frame_io.h"
#include "loopback_bus.h"
#include "replica.h"
#include "velt.pb.h"

namespace {

// Takes whatever the replica tells its agent and drops it.
class DiscardingSink : public velt::agent::ReplicaSink {
 public:
  void toClient(uint64_t, const velt::proto::AgentFrame&) override {}
  void groupChanged(const velt::agent::GroupChange&) override {}
  void deadlinesChanged(const std::vector<velt::agent::Deadline>&) override {}
  void activeVersionChanged(uint32_t) override {}
};

// One agent of one node: a loopback bus and its replica.
struct OneNode {
  OneNode() : bus(1), replica(&bus, &sink, 0x02050000) {
    bus.open();
    bus.setHandler(&replica);
    bus.join();
    settle();
  }
  void settle() {
    for (int i = 0; i < 64 && bus.dispatch() == 0 && bus.pendingBytesForTesting() > 0; ++i) {
    }
    bus.dispatch();
  }
  velt::agent::LoopbackBus bus;
  DiscardingSink sink;
  velt::agent::Replica replica;
};

OneNode& node() {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  static OneNode* n = new OneNode();
  return *n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0: {
      node();
      velt::wire::Reassembler r(1 << 20);
      std::string out, why;
      size_t offset = 0;
      // Split the input into packets at arbitrary points.
      while (offset < bytes.size()) {
        size_t n = 1 + static_cast<uint8_t>(bytes[offset]) % 97;
        n = std::min(n, bytes.size() - offset);
        if (r.feed(bytes.data() + offset, n, &out, &why) == 1) {
          velt::proto::ClientFrame f;
          f.ParseFromString(out);
        }
        offset += n;
      }
      break;
    }
    case 1: {
      node();
      velt::proto::AgentFrame a;
      a.ParseFromString(bytes);
      velt::proto::ClientFrame c;
      c.ParseFromString(bytes);
      break;
    }
    case 2:
      node().replica.onMessage(1, bytes);
      node().settle();
      break;
    default: {
      velt::proto::Request request;
      if (request.ParseFromString(bytes)) {
        node().replica.submit(data[0] >> 2, request);
        node().settle();
      }
      break;
    }
  }
  return 0;
}

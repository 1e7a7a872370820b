// Feeds arbitrary bytes to what veltd's replica receives from the other
// nodes' agents over CPG: fragments put together by the bus's reassembly
// (FragmentReassembler, as CorosyncBus feeds it), the messages they make
// (requests of other nodes' clients, reports, state snapshots after a view
// change) and the view changes themselves (CPG's configuration changes
// made into views by the bus's own view logic, CpgViewBuilder), in the
// order a script taken from the input says. This node is node 1; nodes 2
// to 4 come and go.
// Nothing may crash, hang, or grow without bound, and after every script
// the replica's state still serialises.
//
// The script is a run of steps, each one byte of kind followed by its
// arguments:
//   0 VIEW mask ring             a view of node 1 and the nodes whose bits
//                                (1: node 2, 2: node 3, 4: node 4) are set,
//                                on the totem ring of that number
//   1 FRAGMENT node len16 bytes  one raw fragment, header included
//   2 MESSAGE node size len16 bytes
//                                one message, cut into fragments of 1 + size
//                                * 61 bytes by the bus's own send queue
//   3 OWN                        the oldest of this node's own multicasts
//                                comes back (CPG delivers it to the sender)
// A node is 1 + byte % 4; steps from a node outside the view are not
// heard, as the bus does not hear them.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <set>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "cpg_node.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  constexpr uint32_t kSelf = 1;
  velt_fuzz::CpgNode node(kSelf);
  velt_fuzz::FuzzInput script(data, size);
  for (int steps = 0; !script.done() && steps < 4096; ++steps) {
    switch (script.byte() % 4) {
      case 0: {
        const uint8_t mask = script.byte();
        const uint64_t ring = script.byte();
        std::set<uint32_t> members{kSelf};
        for (uint32_t n = 2; n <= 4; ++n) {
          if (mask & (1u << (n - 2))) members.insert(n);
        }
        node.changeView(members, ring);
        break;
      }
      case 1: {
        uint32_t from = 1 + script.byte() % 4;
        node.deliver(from, script.bytes16());
        break;
      }
      case 2: {
        uint32_t from = 1 + script.byte() % 4;
        size_t payload = 1 + static_cast<size_t>(script.byte()) * 61;
        node.send(from, script.bytes16(), payload);
        break;
      }
      default:
        if (!node.outbox().empty()) {
          std::string own = std::move(node.outbox().front());
          node.outbox().pop_front();
          node.send(kSelf, std::move(own), 60 * 1024);
        }
        break;
    }
    node.replica().flushPending();
  }
  if (node.replica().digest().empty()) abort();
  return 0;
}

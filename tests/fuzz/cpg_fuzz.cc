// Feeds arbitrary bytes to what veltd's replica receives from the other
// nodes' agents over CPG: fragments put together by the bus's reassembly
// (FragmentReassembler, as CorosyncBus feeds it), the messages they make
// (requests of other nodes' clients, reports, state snapshots after a view
// change) and the view changes themselves, in the order a script taken
// from the input says. This node is node 1; nodes 2 to 4 come and go.
// Nothing may crash, hang, or grow without bound, and after every script
// the replica's state still serialises.
//
// The script is a run of steps, each one byte of kind followed by its
// arguments:
//   0 VIEW mask                  a view of node 1 and the nodes whose bits
//                                (1: node 2, 2: node 3, 4: node 4) are set
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

#include <algorithm>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/stubs/logging.h>

#include "bus.h"
#include "cpg_framing.h"
#include "fuzz_input.h"
#include "replica.h"
#include "velt.pb.h"

namespace {

using velt::agent::FragmentReassembler;
using velt::agent::SendQueue;

constexpr uint32_t kSelf = 1;
constexpr size_t kMaxMessage = 64u * 1024 * 1024;  // the bus's default
constexpr size_t kMaxOutbox = 256;

uint32_t pidOf(uint32_t node) { return 1000 + node; }

// The bus as the replica sees it: what it multicasts is kept until the
// script delivers it back.
class ScriptBus : public velt::agent::Bus {
 public:
  void setHandler(velt::agent::BusHandler* handler) override { handler_ = handler; }
  int join() override { return 0; }
  uint32_t selfNode() const override { return kSelf; }
  int multicast(const std::string& bytes) override {
    if (outbox.size() >= kMaxOutbox) return EAGAIN;  // flow control
    outbox.push_back(bytes);
    return 0;
  }
  std::deque<std::string> outbox;

 private:
  velt::agent::BusHandler* handler_ = nullptr;
};

class DiscardingSink : public velt::agent::ReplicaSink {
 public:
  void toClient(uint64_t, const velt::proto::AgentFrame&) override {}
  void groupChanged(const velt::agent::GroupChange&) override {}
  void deadlinesChanged(const std::vector<velt::agent::Deadline>&) override {}
  void activeVersionChanged(uint32_t) override {}
};

struct Node {
  ScriptBus bus;
  DiscardingSink sink;
  velt::agent::Replica replica{&bus, &sink, 0x02050000};
  FragmentReassembler reassembler{kMaxMessage};
  velt::agent::View view;
  SendQueue ownQueue{kMaxMessage, kMaxMessage};

  Node() { bus.setHandler(&replica); }

  bool inView(uint32_t node) const {
    return std::find(view.members.begin(), view.members.end(), node) != view.members.end();
  }

  // One fragment as CorosyncBus::onDeliver takes it.
  void deliver(uint32_t node, const std::string& fragment) {
    if (!inView(node)) return;
    std::string message, why;
    uint32_t messageId = 0;
    auto outcome = reassembler.feed(FragmentReassembler::senderKey(node, pidOf(node)), fragment.data(),
                                    fragment.size(), &message, &messageId, &why);
    if (outcome == FragmentReassembler::Outcome::kRefused && why.empty()) abort();
    if (outcome != FragmentReassembler::Outcome::kComplete) return;
    if (message.size() > kMaxMessage) abort();
    replica.onMessage(node, message);
  }

  // A whole message of node, cut as the sending bus cuts it.
  void send(uint32_t node, std::string message, size_t payload) {
    SendQueue queue(kMaxMessage, kMaxMessage);
    queue.setFragmentPayload(payload);
    if (queue.push(std::move(message)) != 0) return;
    std::vector<std::string> fragments;
    queue.flush([&](const char* header, size_t headerLen, const char* body, size_t bodyLen) {
      fragments.emplace_back(header, headerLen);
      fragments.back().append(body, bodyLen);
      return SendQueue::SendResult::kSent;
    });
    for (const std::string& f : fragments) deliver(node, f);
  }

  void changeView(uint8_t mask) {
    velt::agent::View next;
    next.id = view.id + 1;
    next.members.push_back(kSelf);
    for (uint32_t n = 2; n <= 4; ++n) {
      if (mask & (1u << (n - 2))) next.members.push_back(n);
    }
    std::set<uint64_t> keep;
    for (uint32_t n : next.members) {
      keep.insert(FragmentReassembler::senderKey(n, pidOf(n)));
      if (!inView(n)) next.joined.push_back(n);
    }
    for (uint32_t n : view.members) {
      if (std::find(next.members.begin(), next.members.end(), n) == next.members.end()) next.left.push_back(n);
    }
    reassembler.keepOnly(keep);
    view = next;
    replica.onView(view);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  Node node;
  velt_fuzz::FuzzInput script(data, size);
  for (int steps = 0; !script.done() && steps < 4096; ++steps) {
    switch (script.byte() % 4) {
      case 0:
        node.changeView(script.byte());
        break;
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
        if (!node.bus.outbox.empty()) {
          std::string own = std::move(node.bus.outbox.front());
          node.bus.outbox.pop_front();
          node.send(kSelf, std::move(own), 60 * 1024);
        }
        break;
    }
    node.replica.flushPending();
  }
  if (node.replica.digest().empty()) abort();
  return 0;
}

// One agent's replica as CorosyncBus feeds it, without corosync: CPG's
// configuration changes made into views by the bus's view logic
// (CpgViewBuilder), fragments put together by its reassembly
// (FragmentReassembler) and whole messages cut by its send queue. What the
// replica multicasts waits in an outbox until the caller delivers it. Used
// by cpg_fuzz (one node fed by the input) and by fuzz_corpus_gen (several
// nodes that make its seeds). Thread-compatible.
#ifndef VELT_TESTS_FUZZ_CPG_NODE_H_
#define VELT_TESTS_FUZZ_CPG_NODE_H_

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "bus.h"
#include "cpg_framing.h"
#include "cpg_views.h"
#include "replica.h"
#include "velt.pb.h"

namespace velt_fuzz {

// The process id of each node's agent.
inline uint32_t cpgPidOf(uint32_t node) { return 1000 + node; }

class CpgNode {
 public:
  static constexpr size_t kMaxMessage = 64u * 1024 * 1024;  // the bus's default
  static constexpr size_t kMaxOutbox = 256;                 // then flow control

  explicit CpgNode(uint32_t self) : bus_(self), views_(self, cpgPidOf(self)) { bus_.setHandler(&replica_); }

  velt::agent::Replica& replica() { return replica_; }
  std::deque<std::string>& outbox() { return bus_.outbox; }
  const velt::agent::View& view() const { return view_; }

  // CPG's configuration change to members (this node among them) and the
  // ring after it, which the members of the new ring share. Returns whether
  // the replica got a view.
  bool changeView(const std::set<uint32_t>& members, uint64_t ringSeq) {
    std::vector<velt::agent::CpgMember> all, left, joined;
    for (uint32_t n : members) {
      all.push_back({n, cpgPidOf(n), 0});
      if (!inView(n)) joined.push_back({n, cpgPidOf(n), velt::agent::CpgViewBuilder::kReasonNodeUp});
    }
    for (uint32_t n : view_.members) {
      if (members.count(n) == 0) left.push_back({n, cpgPidOf(n), velt::agent::CpgViewBuilder::kReasonNodeDown});
    }
    views_.groupChanged(all, left, joined);
    views_.ringChanged(ringSeq);
    std::vector<std::string> notes;
    velt::agent::View made;
    if (!views_.finish(&made, &notes)) return false;
    reassembler_.keepOnly(views_.countedKeys());
    view_ = made;
    replica_.onView(view_);
    return true;
  }

  // One fragment of node as CorosyncBus::onDeliver takes it.
  void deliver(uint32_t node, const std::string& fragment) {
    if (!views_.counts(node, cpgPidOf(node))) return;
    std::string message, why;
    uint32_t messageId = 0;
    auto outcome = reassembler_.feed(velt::agent::FragmentReassembler::senderKey(node, cpgPidOf(node)),
                                     fragment.data(), fragment.size(), &message, &messageId, &why);
    if (outcome == velt::agent::FragmentReassembler::Outcome::kRefused && why.empty()) abort();
    if (outcome != velt::agent::FragmentReassembler::Outcome::kComplete) return;
    if (message.size() > kMaxMessage) abort();
    replica_.onMessage(node, message);
  }

  // A whole message of node, cut into fragments of payload bytes as the
  // sending bus cuts it.
  void send(uint32_t node, std::string message, size_t payload) {
    velt::agent::SendQueue queue(kMaxMessage, kMaxMessage);
    queue.setFragmentPayload(payload);
    if (queue.push(std::move(message)) != 0) return;
    std::vector<std::string> fragments;
    queue.flush([&](const char* header, size_t headerLen, const char* body, size_t bodyLen) {
      fragments.emplace_back(header, headerLen);
      fragments.back().append(body, bodyLen);
      return velt::agent::SendQueue::SendResult::kSent;
    });
    for (const std::string& f : fragments) deliver(node, f);
  }

 private:
  class OutboxBus : public velt::agent::Bus {
   public:
    explicit OutboxBus(uint32_t self) : self_(self) {}
    void setHandler(velt::agent::BusHandler*) override {}
    int join() override { return 0; }
    uint32_t selfNode() const override { return self_; }
    int multicast(const std::string& bytes) override {
      if (outbox.size() >= kMaxOutbox) return EAGAIN;
      outbox.push_back(bytes);
      return 0;
    }
    std::deque<std::string> outbox;

   private:
    uint32_t self_;
  };

  class DiscardingSink : public velt::agent::ReplicaSink {
   public:
    void toClient(uint64_t, const velt::proto::AgentFrame&) override {}
    void groupChanged(const velt::agent::GroupChange&) override {}
    void deadlinesChanged(const std::vector<velt::agent::Deadline>&) override {}
    void activeVersionChanged(uint32_t) override {}
  };

  bool inView(uint32_t node) const {
    return std::find(view_.members.begin(), view_.members.end(), node) != view_.members.end();
  }

  OutboxBus bus_;
  DiscardingSink sink_;
  velt::agent::Replica replica_{&bus_, &sink_, 0x02050000};
  velt::agent::FragmentReassembler reassembler_{kMaxMessage};
  velt::agent::CpgViewBuilder views_;
  velt::agent::View view_;
};

}  // namespace velt_fuzz

#endif  // VELT_TESTS_FUZZ_CPG_NODE_H_

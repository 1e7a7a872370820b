#include "cpg_views.h"

#include <algorithm>

#include "cpg_framing.h"

namespace velt {
namespace agent {

namespace {

// Bits of a view id below the ring's sequence number.
constexpr int kMemberBits = 24;
constexpr uint64_t kRingMask = (uint64_t{1} << (64 - kMemberBits)) - 1;

}  // namespace

CpgViewBuilder::CpgViewBuilder(uint32_t selfNode, uint32_t selfPid)
    : selfNode_(selfNode), selfPid_(selfPid) {}

void CpgViewBuilder::setSelf(uint32_t selfNode, uint32_t selfPid) {
  selfNode_ = selfNode;
  selfPid_ = selfPid;
}

bool CpgViewBuilder::groupChanged(const std::vector<CpgMember>& members,
                                  const std::vector<CpgMember>& left,
                                  const std::vector<CpgMember>& joined) {
  pending_ = true;
  pendingMembers_ = members;
  bool ringChange = !ringKnown_;
  for (const CpgMember& m : left) {
    changed_.insert(FragmentReassembler::senderKey(m.node, m.pid));
    if (m.reason == kReasonNodeDown) ringChange = true;
  }
  for (const CpgMember& m : joined) {
    changed_.insert(FragmentReassembler::senderKey(m.node, m.pid));
    if (m.reason == kReasonNodeUp) ringChange = true;
  }
  if (ringChange) waitsForRing_ = true;
  return !waitsForRing_;
}

bool CpgViewBuilder::ringChanged(uint64_t seq) {
  ringKnown_ = true;
  ringSeq_ = seq;
  waitsForRing_ = false;
  return pending_;
}

uint64_t CpgViewBuilder::viewId(uint64_t ringSeq, const std::map<uint32_t, uint32_t>& counted) {
  // FNV-1a over the members in node order: the same members give the same
  // bits on every node.
  uint64_t h = 1469598103934665603ull;
  auto mix = [&h](uint32_t v) {
    for (int i = 0; i < 4; ++i) {
      h ^= (v >> (8 * i)) & 0xff;
      h *= 1099511628211ull;
    }
  };
  for (const auto& m : counted) {
    mix(m.first);
    mix(m.second);
  }
  uint64_t low = (h ^ (h >> kMemberBits) ^ (h >> (2 * kMemberBits))) & ((1u << kMemberBits) - 1);
  if (low == 0) low = 1;
  return ((ringSeq & kRingMask) << kMemberBits) | low;
}

bool CpgViewBuilder::finish(View* view, std::vector<std::string>* notes) {
  if (!pending_) return false;
  pending_ = false;
  waitsForRing_ = false;
  std::set<uint64_t> changed;
  changed.swap(changed_);

  std::map<uint32_t, uint32_t> counted;
  std::map<uint32_t, std::vector<uint32_t>> extra;
  for (const CpgMember& m : pendingMembers_) {
    auto it = counted.find(m.node);
    if (it == counted.end()) {
      counted[m.node] = m.pid;
    } else if (m.pid < it->second) {
      extra[m.node].push_back(it->second);
      it->second = m.pid;
    } else if (m.pid != it->second) {
      extra[m.node].push_back(m.pid);
    }
  }
  pendingMembers_.clear();
  for (const auto& e : extra) {
    std::string pids;
    for (uint32_t p : e.second) pids += (pids.empty() ? "" : ", ") + std::to_string(p);
    notes->push_back("node " + std::to_string(e.first) + " has more than one agent in the group: pid " +
                     std::to_string(counted[e.first]) + " counts, pid " + pids + " is not heard");
  }
  auto self = counted.find(selfNode_);
  if (self == counted.end() || self->second != selfPid_) {
    if (self != counted.end()) {
      notes->push_back("another agent of this node (pid " + std::to_string(self->second) +
                       ") is in the group and counts for it; this one is not heard");
    }
    return false;
  }

  View v;
  for (const auto& m : counted_) {
    auto now = counted.find(m.first);
    bool gone = now == counted.end() || now->second != m.second ||
                changed.count(FragmentReassembler::senderKey(m.first, m.second)) != 0;
    if (gone && m.first != selfNode_) v.left.push_back(m.first);
  }
  for (const auto& m : counted) {
    v.members.push_back(m.first);
    auto before = counted_.find(m.first);
    bool came = before == counted_.end() || before->second != m.second ||
                changed.count(FragmentReassembler::senderKey(m.first, m.second)) != 0;
    if (came) v.joined.push_back(m.first);
  }
  counted_ = counted;
  if (hasView_ && v.left.empty() && v.joined.empty() && v.members == last_.members) return false;
  v.id = viewId(ringSeq_, counted);
  // The same processes in the same ring give the same id again only when
  // this node's connection was cut and restored within one ring; the view
  // in between is the bus's own (this node alone) with an id of its own.
  maxId_ = std::max(maxId_, v.id);
  last_ = v;
  hasView_ = true;
  *view = v;
  return true;
}

bool CpgViewBuilder::counts(uint32_t node, uint32_t pid) const {
  auto it = counted_.find(node);
  return it != counted_.end() && it->second == pid;
}

std::set<uint64_t> CpgViewBuilder::countedKeys() const {
  std::set<uint64_t> keys;
  for (const auto& m : counted_) keys.insert(FragmentReassembler::senderKey(m.first, m.second));
  return keys;
}

void CpgViewBuilder::disconnected() {
  pending_ = false;
  waitsForRing_ = false;
  ringKnown_ = false;
  pendingMembers_.clear();
  changed_.clear();
}

void CpgViewBuilder::setLocalView(const View& view) {
  last_ = view;
  hasView_ = true;
  counted_.clear();
  counted_[selfNode_] = selfPid_;
  maxId_ = std::max(maxId_, view.id);
}

}  // namespace agent
}  // namespace velt

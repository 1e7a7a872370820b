// Turns CPG's configuration changes into the bus's views. Every member of
// a view must give it the same id, since state transfer matches snapshots
// to views by id, so the id is made only of what every member is told
// alike: the totem ring's sequence number (high bits; it grows with every
// ring change) and the view's members. CPG tells a ring change in two
// steps, the group's change first (members left or joined with reasons
// NODEDOWN / NODEUP) and the new ring after it, before any message; so a
// change that came with a ring change waits for the ring, and one within
// a ring (an agent joined or left on its own) is a view at once.
//
// A node counts with one agent: when two processes of one node are in the
// group, the one with the lower process id is the node's member and the
// other is not heard (it is a second veltd by mistake; the bus logs it).
// Pure logic, without corosync. Owned by the bus's thread
// (thread-compatible).
#ifndef VELT_AGENT_CPG_VIEWS_H_
#define VELT_AGENT_CPG_VIEWS_H_

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "bus.h"

namespace velt {
namespace agent {

// One entry of CPG's member, left or joined lists. Plain data.
struct CpgMember {
  uint32_t node = 0;
  uint32_t pid = 0;
  uint32_t reason = 0;   // CPG_REASON_* for left and joined entries
};

class CpgViewBuilder {
 public:
  // CPG's reasons that mean the node itself went or came (a ring change).
  static constexpr uint32_t kReasonNodeDown = 3;
  static constexpr uint32_t kReasonNodeUp = 4;

  CpgViewBuilder(uint32_t selfNode, uint32_t selfPid);

  void setSelf(uint32_t selfNode, uint32_t selfPid);

  // The group changed. Returns true when a view is ready (finish() makes
  // it), false when it waits for the ring.
  bool groupChanged(const std::vector<CpgMember>& members, const std::vector<CpgMember>& left,
                    const std::vector<CpgMember>& joined);
  // A totem ring formed. Returns true when a waiting change is now ready.
  bool ringChanged(uint64_t seq);
  bool pending() const { return pending_; }
  bool ringKnown() const { return ringKnown_; }

  // Makes the view of what is pending. False when there is nothing for
  // the bus's handler: nothing pending, this node not a member, or no
  // counted member came, went or changed. *notes gets what the bus should
  // log (second agents of one node).
  bool finish(View* view, std::vector<std::string>* notes);

  // Whether messages of this process are heard (it counts for its node).
  bool counts(uint32_t node, uint32_t pid) const;
  // The counted members as reassembly keys.
  std::set<uint64_t> countedKeys() const;

  // CPG went away: nothing pending, the ring unknown; the last view stays
  // what the next one is compared with.
  void disconnected();
  // The bus delivered a view of its own (this node alone): it is what the
  // next view is compared with.
  void setLocalView(const View& view);

  const View& lastView() const { return last_; }
  bool hasView() const { return hasView_; }
  // Above every id given so far, for views the bus makes itself.
  uint64_t nextLocalId() const { return maxId_ + 1; }

 private:
  static uint64_t viewId(uint64_t ringSeq, const std::map<uint32_t, uint32_t>& counted);

  uint32_t selfNode_;
  uint32_t selfPid_;
  bool ringKnown_ = false;
  uint64_t ringSeq_ = 0;

  bool pending_ = false;
  bool waitsForRing_ = false;
  std::vector<CpgMember> pendingMembers_;
  std::set<uint64_t> changed_;   // processes reported as left or joined meanwhile

  bool hasView_ = false;
  View last_;
  std::map<uint32_t, uint32_t> counted_;   // node -> the pid that counts
  uint64_t maxId_ = 0;
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_CPG_VIEWS_H_

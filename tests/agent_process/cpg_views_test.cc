// CPG's configuration changes turned into views, without corosync: the
// sequences below are those corosync 3 delivers (a group change first, the
// totem ring after it when the ring changed).
#include "cpg_views.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

constexpr uint32_t kJoin = 1;
constexpr uint32_t kLeave = 2;
constexpr uint32_t kNodeDown = CpgViewBuilder::kReasonNodeDown;
constexpr uint32_t kNodeUp = CpgViewBuilder::kReasonNodeUp;
constexpr uint32_t kProcDown = 5;

CpgMember m(uint32_t node, uint32_t pid, uint32_t reason = 0) { return CpgMember{node, pid, reason}; }

using Nodes = std::vector<uint32_t>;

// Finishes what is pending; fails the test when no view comes.
View mustFinish(CpgViewBuilder* b) {
  View v;
  std::vector<std::string> notes;
  EXPECT_TRUE(b->finish(&v, &notes));
  return v;
}

TEST(CpgViewBuilder, FirstViewWaitsForTheRingThatFollowsIt) {
  CpgViewBuilder b(1, 100);
  EXPECT_FALSE(b.groupChanged({m(1, 100), m(2, 200)}, {}, {m(1, 100, kJoin)}));
  EXPECT_TRUE(b.pending());
  EXPECT_TRUE(b.ringChanged(9));
  View v = mustFinish(&b);
  EXPECT_EQ(v.members, (Nodes{1, 2}));
  EXPECT_EQ(v.joined, (Nodes{1, 2}));
  EXPECT_TRUE(v.left.empty());
  EXPECT_EQ(v.id >> 24, 9u) << "the ring's sequence number is the id's high part";
  EXPECT_FALSE(b.pending());
}

TEST(CpgViewBuilder, EveryMemberGivesAViewTheSameIdWhateverItSawBefore) {
  // Node 1 was there first; node 2's agent joins within the same ring.
  CpgViewBuilder old(1, 100), fresh(2, 200);
  old.groupChanged({m(1, 100)}, {}, {m(1, 100, kJoin)});
  old.ringChanged(9);
  View first = mustFinish(&old);

  EXPECT_TRUE(old.groupChanged({m(1, 100), m(2, 200)}, {}, {m(2, 200, kJoin)}))
      << "a change within the ring is a view at once";
  View atOld = mustFinish(&old);
  EXPECT_FALSE(fresh.groupChanged({m(1, 100), m(2, 200)}, {}, {m(2, 200, kJoin)}));
  fresh.ringChanged(9);
  View atFresh = mustFinish(&fresh);

  EXPECT_EQ(atOld.id, atFresh.id);
  EXPECT_NE(atOld.id, first.id);
  EXPECT_EQ(atOld.members, atFresh.members);
  EXPECT_EQ(atOld.joined, (Nodes{2}));
  EXPECT_TRUE(atOld.left.empty());
}

TEST(CpgViewBuilder, RingChangesWaitForTheRingAndCollapseIntoOneView) {
  CpgViewBuilder b(1, 100);
  b.groupChanged({m(1, 100), m(2, 200), m(3, 300)}, {}, {m(1, 100, kJoin)});
  b.ringChanged(9);
  View before = mustFinish(&b);
  // Node 3 went down and node 4 came up in one ring change: two group
  // changes, then the ring.
  EXPECT_FALSE(b.groupChanged({m(1, 100), m(2, 200)}, {m(3, 300, kNodeDown)}, {}));
  EXPECT_FALSE(b.groupChanged({m(1, 100), m(2, 200), m(4, 400)}, {}, {m(4, 400, kNodeUp)}));
  EXPECT_TRUE(b.ringChanged(13));
  View v = mustFinish(&b);
  EXPECT_EQ(v.members, (Nodes{1, 2, 4}));
  EXPECT_EQ(v.left, (Nodes{3}));
  EXPECT_EQ(v.joined, (Nodes{4}));
  EXPECT_GT(v.id, before.id) << "a later ring gives a larger id";
}

TEST(CpgViewBuilder, AnAgentRestartedBetweenViewsHasLeftAndJoined) {
  CpgViewBuilder b(1, 100);
  b.groupChanged({m(1, 100), m(2, 200)}, {}, {m(1, 100, kJoin)});
  b.ringChanged(9);
  mustFinish(&b);
  // Node 2's agent died and a new one came: a new process id.
  b.groupChanged({m(1, 100)}, {m(2, 200, kProcDown)}, {});
  View gone = mustFinish(&b);
  EXPECT_EQ(gone.left, (Nodes{2}));
  b.groupChanged({m(1, 100), m(2, 201)}, {}, {m(2, 201, kJoin)});
  View back = mustFinish(&b);
  EXPECT_EQ(back.joined, (Nodes{2}));
  EXPECT_TRUE(back.left.empty());
  EXPECT_NE(back.id, gone.id);
  EXPECT_TRUE(b.counts(2, 201));
  EXPECT_FALSE(b.counts(2, 200));
}

TEST(CpgViewBuilder, ASecondAgentOfANodeIsNotHeardAndChangesNothing) {
  CpgViewBuilder b(1, 100);
  b.groupChanged({m(1, 100), m(2, 200)}, {}, {m(1, 100, kJoin)});
  b.ringChanged(9);
  View v1 = mustFinish(&b);
  // A stray second veltd on node 2 with a higher pid.
  b.groupChanged({m(1, 100), m(2, 200), m(2, 900)}, {}, {m(2, 900, kJoin)});
  View v;
  std::vector<std::string> notes;
  EXPECT_FALSE(b.finish(&v, &notes)) << "the counted members did not change";
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_NE(notes[0].find("pid 200 counts"), std::string::npos) << notes[0];
  EXPECT_TRUE(b.counts(2, 200));
  EXPECT_FALSE(b.counts(2, 900));
  // It leaves again: still nothing for the handler.
  b.groupChanged({m(1, 100), m(2, 200)}, {m(2, 900, kLeave)}, {});
  notes.clear();
  EXPECT_FALSE(b.finish(&v, &notes));
  EXPECT_EQ(b.lastView().id, v1.id);
}

TEST(CpgViewBuilder, AfterALocalViewTheGroupsViewShowsTheOthersJoined) {
  CpgViewBuilder b(1, 100);
  b.groupChanged({m(1, 100), m(2, 200)}, {}, {m(1, 100, kJoin)});
  b.ringChanged(9);
  View joined = mustFinish(&b);
  // corosync went away: the bus makes a view of its own.
  b.disconnected();
  View alone;
  alone.id = b.nextLocalId();
  alone.members = {1};
  alone.left = {2};
  b.setLocalView(alone);
  EXPECT_GT(alone.id, joined.id);
  // corosync is back (a new ring) and this agent joins again.
  EXPECT_FALSE(b.groupChanged({m(1, 100), m(2, 200)}, {}, {m(1, 100, kJoin)}))
      << "after a reconnection the ring is unknown";
  b.ringChanged(17);
  View again = mustFinish(&b);
  EXPECT_EQ(again.members, (Nodes{1, 2}));
  EXPECT_EQ(again.joined, (Nodes{1, 2}));
  EXPECT_TRUE(again.left.empty());
}

TEST(CpgViewBuilder, AViewWithoutThisProcessIsNotDelivered) {
  CpgViewBuilder b(1, 100);
  b.groupChanged({m(1, 50), m(1, 100)}, {}, {m(1, 100, kJoin)});
  b.ringChanged(9);
  View v;
  std::vector<std::string> notes;
  EXPECT_FALSE(b.finish(&v, &notes)) << "another agent of this node counts for it";
  EXPECT_FALSE(notes.empty());
  EXPECT_FALSE(b.hasView());
}

}  // namespace
}  // namespace agent
}  // namespace velt

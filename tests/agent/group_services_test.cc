// Group services semantics of the replicated state, each on a cluster of one
// node and of three nodes (actors are spread round-robin over the nodes, so
// that on three nodes every protocol crosses the bus).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cluster_harness.h"

namespace velt {
namespace agent {
namespace testing {
namespace {

using N = proto::Notification;

class GroupServicesTest : public ClusterHarness, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override { start(static_cast<size_t>(GetParam())); }
};

std::string nodesName(const ::testing::TestParamInfo<int>& info) {
  return std::to_string(info.param) + "Nodes";
}

#define GROUP_SERVICES_SUITE(Name)          \
  class Name : public GroupServicesTest {}; \
  INSTANTIATE_TEST_SUITE_P(, Name, ::testing::Values(1, 3), nodesName)

// ------------------------------------------------------------ join

GROUP_SERVICES_SUITE(JoinOnePhase);

TEST_P(JoinOnePhase, EveryProviderIsToldWithTheJoinersAndTheMembership) {
  Actor a = actor(0), b = actor(1);
  uint64_t ja = submit(a, joinReq("g", a.instance));
  EXPECT_EQ(TK_GS_OK, rc(a, ja));
  ASSERT_EQ(1u, notes(a, N::APPROVED).size());
  N first = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_JOIN), first.protocol_type());
  EXPECT_EQ(a.name(), ids(first.changing()));
  EXPECT_EQ(a.name(), ids(first.current()));
  EXPECT_NE(0u, first.proposal_changes() & TK_GS_PROPOSED_MEMBERSHIP);

  uint64_t jb = submit(b, joinReq("g", b.instance));
  EXPECT_EQ(TK_GS_OK, rc(b, jb));
  ASSERT_EQ(2u, notes(a, N::APPROVED).size());
  ASSERT_EQ(1u, notes(b, N::APPROVED).size());
  for (const Actor& x : {a, b}) {
    N n = last(x, N::APPROVED);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_JOIN), n.protocol_type());
    EXPECT_EQ(b.name(), ids(n.changing()));
    EXPECT_EQ(a.name() + " " + b.name(), ids(n.current()));
  }
  EXPECT_TRUE(notes(a, N::N_PHASE).empty());
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
  // Every agent tells its own subscribers: two delta joins.
  for (auto& e : nodes_) {
    std::vector<GroupChange> c = e.second->changesOf("g");
    ASSERT_EQ(2u, c.size()) << "node " << e.first;
    EXPECT_EQ(GroupChange::JOINED, c[0].kind);
    EXPECT_EQ(GroupChange::JOINED, c[1].kind);
    EXPECT_EQ(b.name(), ids(c[1].changing));
    EXPECT_EQ(a.name() + " " + b.name(), ids(c[1].current));
  }
  expectSameState();
}

TEST_P(JoinOnePhase, FirstJoinerSetsTheGroupsAttributes) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a}, attrs(1, TK_GS_VOTE_REJECT, 40, TK_GS_BATCH_JOINS));
  joinAll("g", {b}, attrs(2, TK_GS_VOTE_APPROVE, 0, 0));
  for (auto& e : nodes_) {
    proto::GroupAttributes ga = e.second->replica().attributes("g");
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_VOTE_REJECT), ga.default_vote());
    EXPECT_EQ(40u, ga.time_limit());
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_BATCH_JOINS), ga.batch_control());
    EXPECT_EQ("g", ga.group_name());
  }
}

GROUP_SERVICES_SUITE(JoinNPhase);

TEST_P(JoinNPhase, MembersVoteOnAJoinWhenTheGroupSaysSo) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a}, attrs(TK_GS_N_PHASE, TK_GS_VOTE_APPROVE, 0));
  // The first joiner has nobody to ask.
  EXPECT_EQ(1u, notes(a, N::APPROVED).size());
  uint64_t jb = submit(b, joinReq("g", b.instance));
  EXPECT_EQ(TK_GS_OK, rc(b, jb));
  ASSERT_EQ(1u, notes(a, N::N_PHASE).size());
  EXPECT_TRUE(notes(b, N::N_PHASE).empty());
  N np = last(a, N::N_PHASE);
  EXPECT_EQ(b.name(), ids(np.changing()));
  EXPECT_EQ(a.name(), ids(np.current()));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
  EXPECT_EQ(1u, notes(b, N::APPROVED).size());
  expectSameState();
}

TEST_P(JoinNPhase, ARejectedJoinTellsTheJoiner) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a}, attrs(TK_GS_N_PHASE, TK_GS_VOTE_APPROVE, 0));
  submit(b, joinReq("g", b.instance));
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_REJECT));
  EXPECT_EQ(1u, notes(b, N::REJECTED).size());
  EXPECT_EQ(1u, notes(a, N::REJECTED).size());
  EXPECT_NE(0u, last(a, N::REJECTED).summary_code() & TK_GS_VOTE_REJECTED);
  EXPECT_EQ(a.name(), membersEverywhere("g"));
}

GROUP_SERVICES_SUITE(JoinBatching);

TEST_P(JoinBatching, JoinsQueuedBehindAProtocolAreApprovedTogether) {
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g", {a}, attrs(1, TK_GS_VOTE_APPROVE, 0, TK_GS_BATCH_BOTH));
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  ASSERT_EQ(static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE), np.protocol_type());
  uint64_t jb = submit(b, joinReq("g", b.instance));
  uint64_t jc = submit(c, joinReq("g", c.instance));
  EXPECT_EQ(TK_GS_OK, rc(b, jb));
  EXPECT_EQ(TK_GS_OK, rc(c, jc));
  EXPECT_EQ(a.name(), membersEverywhere("g"));  // they wait for the protocol

  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  std::vector<N> approvals = notes(a, N::APPROVED);
  ASSERT_EQ(3u, approvals.size());  // own join, the value, the batched join
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE), approvals[1].protocol_type());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_JOIN), approvals[2].protocol_type());
  EXPECT_EQ(b.name() + " " + c.name(), ids(approvals[2].changing()));
  EXPECT_EQ(a.name() + " " + b.name() + " " + c.name(), membersEverywhere("g"));
  EXPECT_EQ(1u, notes(b, N::APPROVED).size());
  EXPECT_EQ(1u, notes(c, N::APPROVED).size());
  EXPECT_EQ("v1", last(c, N::APPROVED).current_state_value());
  expectSameState();
}

TEST_P(JoinBatching, WithoutBatchingEveryJoinIsItsOwnProtocol) {
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g", {a}, attrs(1, TK_GS_VOTE_APPROVE, 0, TK_GS_NO_BATCHING));
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  submit(b, joinReq("g", b.instance));
  submit(c, joinReq("g", c.instance));
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  std::vector<N> approvals = notes(a, N::APPROVED);
  ASSERT_EQ(4u, approvals.size());
  EXPECT_EQ(b.name(), ids(approvals[2].changing()));
  EXPECT_EQ(c.name(), ids(approvals[3].changing()));
}

TEST_P(JoinBatching, LeavesQueuedBehindAProtocolAreApprovedTogether) {
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g", {a, b, c});
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  EXPECT_EQ(TK_GS_OK, rc(b, submit(b, leaveReq("g", b.instance))));
  EXPECT_EQ(TK_GS_OK, rc(c, submit(c, leaveReq("g", c.instance))));
  for (const Actor& x : {a, b, c}) {
    submit(x, voteReq("g", x.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  }
  N leave = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_LEAVE), leave.protocol_type());
  EXPECT_EQ(b.name() + " " + c.name(), ids(leave.changing()));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
}

// ------------------------------------------------------------ leave

GROUP_SERVICES_SUITE(LeaveProtocol);

TEST_P(LeaveProtocol, OnePhaseLeaveTellsTheLeaverAndTheOthers) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  uint64_t id = submit(b, leaveReq("g", b.instance));
  EXPECT_EQ(TK_GS_OK, rc(b, id));
  for (const Actor& x : {a, b}) {
    N n = last(x, N::APPROVED);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_LEAVE), n.protocol_type());
    EXPECT_EQ(b.name(), ids(n.changing()));
    EXPECT_EQ(a.name(), ids(n.current()));
    EXPECT_NE(0u, n.summary_code() & TK_GS_EXPLICIT_LEAVE);
  }
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  for (auto& e : nodes_) {
    GroupChange c = e.second->changesOf("g").back();
    EXPECT_EQ(GroupChange::LEFT, c.kind);
    EXPECT_EQ(b.name(), ids(c.changing));
  }
}

TEST_P(LeaveProtocol, NPhaseLeaveIsDecidedByTheDefaultVoteAtItsTimeLimit) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(b, leaveReq("g", b.instance, TK_GS_N_PHASE, 5));
  N np = last(a, N::N_PHASE);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_LEAVE), np.protocol_type());
  EXPECT_EQ(5u, np.time_limit());
  ASSERT_EQ(1u, lowest().deadlines().size());
  EXPECT_EQ(5u, lowest().deadlines()[0].seconds);
  EXPECT_EQ(np.protocol(), lowest().deadlines()[0].protocol);
  // Only the lowest node watches deadlines.
  for (auto& e : nodes_) {
    if (e.first != 1) {
      EXPECT_TRUE(e.second->deadlines().empty());
    }
  }
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
  fireDeadlines();
  N n = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_LEAVE), n.protocol_type());
  EXPECT_NE(0u, n.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED);
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  EXPECT_TRUE(lowest().deadlines().empty());
  expectSameState();
}

// ------------------------------------------------------------ goodbye

GROUP_SERVICES_SUITE(Goodbye);

TEST_P(Goodbye, RemovesAtOnceAndTheOthersGetALeaveApproval) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  // Even while a protocol is in flight.
  submit(a, valueReq("g", a.instance, "v1"));
  size_t before = notes(b, N::APPROVED).size();
  uint64_t id = submit(b, goodbyeReq("g", b.instance));
  EXPECT_EQ(TK_GS_OK, rc(b, id));
  EXPECT_EQ(before, notes(b, N::APPROVED).size());  // the leaver gets its reply only
  N n = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_LEAVE), n.protocol_type());
  EXPECT_EQ(b.name(), ids(n.changing()));
  EXPECT_EQ(a.name(), ids(n.current()));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
  // The value change goes on with the one voter left.
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  EXPECT_EQ("v1", last(a, N::APPROVED).current_state_value());
  expectSameState();
}

TEST_P(Goodbye, IsRefusedWhileAProviderRunsAnOlderAgent) {
  // The highest node runs 2.4.0.0 (on one node, that is the only one).
  uint32_t old = static_cast<uint32_t>(GetParam());
  nodes_.clear();
  cluster_.reset();
  start(static_cast<size_t>(GetParam()), ReplicaLimits(), {{old, kOldVersion}});
  Actor a = actor(0), o = actor(GetParam() - 1);
  ASSERT_EQ(old, o.node->node());
  if (o.instance == a.instance) o = actor(2 * GetParam() - 1);
  joinAll("g", {a, o});
  uint64_t id = submit(a, goodbyeReq("g", a.instance));
  EXPECT_EQ(TK_GS_BACKLEVEL_PROVIDERS, rc(a, id));
  EXPECT_NE(std::string::npos, text(a, id).find("2.4.5.0")) << text(a, id);
  EXPECT_EQ(a.name() + " " + o.name(), membersEverywhere("g"));
  for (auto& e : nodes_) EXPECT_EQ(kOldVersion, e.second->replica().activeVersion());
  if (a.node != o.node) {
    // Once the old agent's provider has left, goodbye works.
    ASSERT_EQ(TK_GS_OK, rc(o, submit(o, leaveReq("g", o.instance))));
    EXPECT_EQ(TK_GS_OK, rc(a, submit(a, goodbyeReq("g", a.instance))));
    EXPECT_FALSE(node(1).replica().groupExists("g"));
  } else {
    // A leave protocol is the way out.
    EXPECT_EQ(TK_GS_OK, rc(a, submit(a, leaveReq("g", a.instance))));
    EXPECT_EQ(o.name(), membersEverywhere("g"));
  }
}

// ------------------------------------------------------------ failure leave

GROUP_SERVICES_SUITE(FailureLeave);

TEST_P(FailureLeave, ADepartedClientsProvidersLeaveByFailure) {
  Actor a = actor(0), b = actor(1);
  Actor b2 = actor(1 + GetParam() * 2);  // a second provider of b's node
  b2.client = b.client;                  // on b's connection
  joinAll("g", {a, b});
  joinAll("h", {a, b2});
  ASSERT_EQ(0, b.node->replica().clientGone(b.client, "connection lost"));
  settle();
  for (const std::string& g : {std::string("g"), std::string("h")}) {
    std::vector<N> v;
    for (const N& n : notes(a, N::APPROVED)) {
      if (n.group() == g) v.push_back(n);
    }
    ASSERT_FALSE(v.empty());
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_FAILURE_LEAVE), v.back().protocol_type()) << g;
    EXPECT_NE(0u, v.back().summary_code() & TK_GS_PROVIDER_FAILED) << g;
    EXPECT_EQ(a.name(), ids(v.back().current())) << g;
    EXPECT_EQ(a.name(), membersEverywhere(g));
  }
  for (auto& e : nodes_) EXPECT_EQ(GroupChange::LEFT, e.second->changesOf("g").back().kind);
  expectSameState();
}

TEST_P(FailureLeave, AFailedVoterNoLongerHoldsUpTheProtocol) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), np.phase(), TK_GS_VOTE_APPROVE));
  EXPECT_TRUE(notes(a, N::APPROVED).size() == 2u);  // joins only so far
  ASSERT_EQ(0, b.node->replica().clientGone(b.client, "no ping answer"));
  settle();
  N n = last(a, N::APPROVED);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE), n.protocol_type());
  EXPECT_EQ("v1", n.current_state_value());
}

// ------------------------------------------------------------ state values

GROUP_SERVICES_SUITE(StateValueChange);

TEST_P(StateValueChange, IsCommittedWhenEveryProviderApproves) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  uint64_t id = submit(a, valueReq("g", a.instance, "v1", TK_GS_N_PHASE, 900));
  EXPECT_EQ(TK_GS_OK, rc(a, id));
  for (const Actor& x : {a, b}) {
    ASSERT_EQ(1u, notes(x, N::N_PHASE).size());
    N np = last(x, N::N_PHASE);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE), np.protocol_type());
    EXPECT_EQ(1u, np.phase());
    EXPECT_TRUE(np.has_proposed_state_value());
    EXPECT_EQ("v1", np.proposed_state_value());
    EXPECT_FALSE(np.has_current_state_value());
    EXPECT_NE(0u, np.proposal_changes() & TK_GS_PROPOSED_STATE_VALUE);
    EXPECT_EQ(900u, np.time_limit());
  }
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  EXPECT_EQ(2u, notes(a, N::APPROVED).size());  // still waiting for b
  submit(b, voteReq("g", b.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  for (const Actor& x : {a, b}) {
    N n = last(x, N::APPROVED);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_CHANGE_STATE_VALUE), n.protocol_type());
    EXPECT_TRUE(n.has_current_state_value());
    EXPECT_EQ("v1", n.current_state_value());
  }
  proto::QueryAnswer q = node(1).replica().describe();
  ASSERT_EQ(1, q.groups_size());
  EXPECT_EQ("v1", q.groups(0).state_value());
  EXPECT_FALSE(q.groups(0).protocol_in_flight());
  expectSameState();
}

TEST_P(StateValueChange, IsRejectedWhenOneProviderRejects) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  submit(b, voteReq("g", b.instance, np.protocol(), 1, TK_GS_VOTE_REJECT));
  for (const Actor& x : {a, b}) {
    N n = last(x, N::REJECTED);
    EXPECT_EQ(np.protocol(), n.protocol());
    EXPECT_NE(0u, n.summary_code() & TK_GS_VOTE_REJECTED);
  }
  EXPECT_EQ("", node(1).replica().describe().groups(0).state_value());
  expectSameState();
}

TEST_P(StateValueChange, MissingVotesTakeTheGroupsDefaultAtTheTimeLimit) {
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("approving", {a, b}, attrs(1, TK_GS_VOTE_APPROVE));
  joinAll("rejecting", {a, c}, attrs(1, TK_GS_VOTE_REJECT));
  submit(a, valueReq("approving", a.instance, "yes", TK_GS_N_PHASE, 30));
  submit(a, valueReq("rejecting", a.instance, "no", TK_GS_N_PHASE, 20));
  std::vector<N> phases = notes(a, N::N_PHASE);
  ASSERT_EQ(2u, phases.size());
  for (const N& np : phases) {
    submit(a, voteReq(np.group(), a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  }
  ASSERT_EQ(2u, lowest().deadlines().size());
  fireDeadlines();
  N yes = last(b, N::APPROVED);
  EXPECT_EQ("approving", yes.group());
  EXPECT_EQ("yes", yes.current_state_value());
  EXPECT_NE(0u, yes.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED);
  N no = last(c, N::REJECTED);
  EXPECT_EQ("rejecting", no.group());
  EXPECT_NE(0u, no.summary_code() & TK_GS_TIME_LIMIT_EXCEEDED);
  EXPECT_TRUE(lowest().deadlines().empty());
  // A time-out that comes late changes nothing.
  Deadline stale{"approving", phases[0].protocol(), 1, 30};
  EXPECT_EQ(0, lowest().replica().fireTimeout(stale));
  settle();
  expectSameState();
}

TEST_P(StateValueChange, ContinueAsksForAnotherPhaseWithTheNewestProposal) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  proto::Request cont = voteReq("g", b.instance, np.protocol(), 1, TK_GS_VOTE_CONTINUE);
  cont.mutable_vote()->set_has_state_value(true);
  cont.mutable_vote()->set_state_value("v2");
  submit(b, cont);
  for (const Actor& x : {a, b}) {
    ASSERT_EQ(2u, notes(x, N::N_PHASE).size());
    N p2 = last(x, N::N_PHASE);
    EXPECT_EQ(2u, p2.phase());
    EXPECT_EQ("v2", p2.proposed_state_value());
  }
  // A vote for the finished phase is refused.
  EXPECT_EQ(TK_GS_INVALID_STATE,
            rc(a, submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE))));
  submit(a, voteReq("g", a.instance, np.protocol(), 2, TK_GS_VOTE_APPROVE));
  submit(b, voteReq("g", b.instance, np.protocol(), 2, TK_GS_VOTE_APPROVE));
  EXPECT_EQ("v2", last(a, N::APPROVED).current_state_value());
  expectSameState();
}

TEST_P(StateValueChange, VotesOutsideTheirPhaseAreRefused) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  EXPECT_EQ(TK_GS_INVALID_STATE,
            rc(a, submit(a, voteReq("g", a.instance, 99, 1, TK_GS_VOTE_APPROVE))));
  submit(a, valueReq("g", a.instance, "v1"));
  N np = last(a, N::N_PHASE);
  EXPECT_EQ(TK_GS_OK,
            rc(a, submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE))));
  EXPECT_EQ(TK_GS_INVALID_STATE,
            rc(a, submit(a, voteReq("g", a.instance, np.protocol(), 1, TK_GS_VOTE_REJECT))));
  proto::Request bad = voteReq("g", b.instance, np.protocol(), 1, 7);
  uint64_t id = submitNoWait(b, bad);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, rc(b, id));  // refused before the bus
  settle();
}

// ------------------------------------------------------------ messages

GROUP_SERVICES_SUITE(ProviderMessage);

TEST_P(ProviderMessage, NPhaseMessageReachesEveryVoterAndTheApproval) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(b, messageReq("g", b.instance, "harvest now"));
  for (const Actor& x : {a, b}) {
    N np = last(x, N::N_PHASE);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_PROVIDER_MESSAGE), np.protocol_type());
    EXPECT_EQ("harvest now", np.message());
    EXPECT_NE(0u, np.proposal_changes() & TK_GS_PROVIDER_MESSAGE_PRESENT);
    submit(x, voteReq("g", x.instance, np.protocol(), 1, TK_GS_VOTE_APPROVE));
  }
  for (const Actor& x : {a, b}) {
    N n = last(x, N::APPROVED);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_PROVIDER_MESSAGE), n.protocol_type());
    EXPECT_EQ("harvest now", n.message());
  }
}

TEST_P(ProviderMessage, OnePhaseMessageIsApprovedAtOnce) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b});
  submit(a, messageReq("g", a.instance, "hi", TK_GS_1_PHASE, 0));
  EXPECT_TRUE(notes(b, N::N_PHASE).empty());
  EXPECT_EQ("hi", last(b, N::APPROVED).message());
}

// ------------------------------------------------------------ duplicates

GROUP_SERVICES_SUITE(DuplicateInstance);

TEST_P(DuplicateInstance, SameInstanceOnTheSameNodeIsRefused) {
  Actor a = actor(0);
  joinAll("g", {a});
  Actor other = sibling(a);
  uint64_t id = submit(other, joinReq("g", a.instance));
  EXPECT_EQ(TK_GS_DUPLICATE_INSTANCE_NUMBER, rc(other, id));
  EXPECT_EQ(TK_GS_ALREADY_JOINED, rc(a, submit(a, joinReq("g", a.instance))));
  // A join still waiting counts too.
  submit(a, valueReq("g", a.instance, "v1"));
  Actor third = actor(static_cast<int>(size()));  // a's node, another instance
  ASSERT_EQ(a.node, third.node);
  EXPECT_EQ(TK_GS_OK, rc(third, submit(third, joinReq("g", third.instance))));
  Actor thirdTwin = sibling(third);
  EXPECT_EQ(TK_GS_DUPLICATE_INSTANCE_NUMBER,
            rc(thirdTwin, submit(thirdTwin, joinReq("g", third.instance))));
  // The same instance in another group is fine.
  EXPECT_EQ(TK_GS_OK, rc(other, submit(other, joinReq("h", a.instance))));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
}

class DuplicateInstanceAcrossNodes : public ClusterHarness {};

TEST_F(DuplicateInstanceAcrossNodes, SameInstanceOnAnotherNodeIsAnotherProvider) {
  start(3);
  Actor a = actor(0);
  Actor b = actor(1);
  b.instance = a.instance;
  joinAll("g", {a, b});
  EXPECT_EQ(a.name() + " " + b.name(), membersEverywhere("g"));
}

// ------------------------------------------------------------ limits

class Limits : public ClusterHarness, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(, Limits, ::testing::Values(1, 3), nodesName);

TEST_P(Limits, OversizedRequestsAreRefusedBeforeTheBus) {
  start(static_cast<size_t>(GetParam()));
  Actor a = actor(0);
  uint64_t id = submitNoWait(a, joinReq(std::string(65, 'x'), a.instance));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, rc(a, id)) << "answered at once";
  EXPECT_NE(std::string::npos, text(a, id).find("64")) << text(a, id);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, rc(a, submitNoWait(a, joinReq("", a.instance))));
  EXPECT_EQ(TK_GS_BAD_PARAMETER, rc(a, submitNoWait(a, joinReq("g", 0x10000))));
  EXPECT_TRUE(cluster_->quiet());
  joinAll("g", {a});
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED,
            rc(a, submitNoWait(a, valueReq("g", a.instance, std::string(64 * 1024 + 1, 'v')))));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED,
            rc(a, submitNoWait(a, messageReq("g", a.instance, std::string(256 * 1024 + 1, 'm')))));
  EXPECT_TRUE(cluster_->quiet());
  EXPECT_EQ(TK_GS_OK, rc(a, submit(a, valueReq("g", a.instance, std::string(64 * 1024, 'v'), 1))));
}

TEST_P(Limits, GroupsProvidersAndQueuesAreBounded) {
  ReplicaLimits l;
  l.maxGroups = 2;
  l.maxProvidersPerGroup = 2;
  l.maxQueuedPerGroup = 1;
  start(static_cast<size_t>(GetParam()), l);
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g1", {a, b});
  joinAll("g2", {a});
  uint64_t id = submit(a, joinReq("g3", a.instance));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, rc(a, id));
  EXPECT_NE(std::string::npos, text(a, id).find("groups")) << text(a, id);
  EXPECT_FALSE(node(1).replica().groupExists("g3"));
  id = submit(c, joinReq("g1", c.instance));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, rc(c, id));
  EXPECT_NE(std::string::npos, text(c, id).find("providers")) << text(c, id);
  // One request may wait behind a protocol; the second is refused.
  submit(a, valueReq("g1", a.instance, "v1"));
  EXPECT_EQ(TK_GS_OK, rc(a, submit(a, valueReq("g1", a.instance, "v2"))));
  id = submit(b, valueReq("g1", b.instance, "v3"));
  EXPECT_EQ(TK_GS_LIMIT_EXCEEDED, rc(b, id));
  EXPECT_NE(std::string::npos, text(b, id).find("waiting")) << text(b, id);
  expectSameState();
}

// ------------------------------------------------------------ lifetime

GROUP_SERVICES_SUITE(GroupLifetime);

TEST_P(GroupLifetime, AGroupWithoutProvidersCeasesToExist) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b}, attrs(1, TK_GS_VOTE_REJECT));
  submit(a, leaveReq("g", a.instance));
  ASSERT_EQ(0, b.node->replica().clientGone(b.client, "gone"));
  settle();
  for (auto& e : nodes_) {
    EXPECT_FALSE(e.second->replica().groupExists("g"));
    EXPECT_EQ(GroupChange::GONE, e.second->changesOf("g").back().kind);
  }
  EXPECT_EQ(TK_GS_UNKNOWN_GROUP, rc(a, submit(a, valueReq("g", a.instance, "x"))));
  // A new first joiner makes a new group with its own attributes.
  joinAll("g", {a}, attrs(1, TK_GS_VOTE_APPROVE));
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_VOTE_APPROVE),
            node(1).replica().attributes("g").default_vote());
  expectSameState();
}

TEST_P(GroupLifetime, RequestsOfNonMembersAreRefused) {
  Actor a = actor(0), b = actor(1);
  EXPECT_EQ(TK_GS_UNKNOWN_GROUP, rc(a, submit(a, leaveReq("g", a.instance))));
  joinAll("g", {a});
  EXPECT_EQ(TK_GS_NOT_JOINED, rc(b, submit(b, leaveReq("g", b.instance))));
  EXPECT_EQ(TK_GS_NOT_JOINED, rc(b, submit(b, goodbyeReq("g", b.instance))));
  EXPECT_EQ(TK_GS_NOT_JOINED, rc(b, submit(b, valueReq("g", b.instance, "v"))));
  // Another connection cannot act for a's instance.
  Actor other = sibling(a);
  EXPECT_EQ(TK_GS_NOT_JOINED, rc(other, submit(other, leaveReq("g", a.instance))));
  EXPECT_EQ(a.name(), membersEverywhere("g"));
}

GROUP_SERVICES_SUITE(Expel);

TEST_P(Expel, ExpelledProvidersAreRemovedAndTold) {
  Actor a = actor(0), b = actor(1), c = actor(2);
  joinAll("g", {a, b, c});
  uint64_t id = submit(a, expelReq("g", a.instance, {{b.instance, b.node->node()}}));
  EXPECT_EQ(TK_GS_OK, rc(a, id));
  for (const Actor& x : {a, b, c}) {
    N n = last(x, N::APPROVED);
    EXPECT_EQ(static_cast<uint32_t>(TK_GS_EXPEL), n.protocol_type());
    EXPECT_EQ(b.name(), ids(n.changing()));
    EXPECT_NE(0u, n.summary_code() & TK_GS_PROVIDER_EXPELLED);
  }
  EXPECT_EQ(a.name() + " " + c.name(), membersEverywhere("g"));
  // Expelling nobody who is a member fails later, as a delayed error.
  submit(a, expelReq("g", a.instance, {{77, 1}}));
  N err = last(a, N::DELAYED_ERROR);
  EXPECT_EQ(TK_GS_BAD_PARAMETER, err.delayed_rc());
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_EXPEL), err.request_type());
}

GROUP_SERVICES_SUITE(SetAttributes);

TEST_P(SetAttributes, LaterProtocolsFollowTheNewAttributes) {
  Actor a = actor(0), b = actor(1);
  joinAll("g", {a, b}, attrs(1, TK_GS_VOTE_APPROVE, 10));
  proto::GroupAttributes next = attrs(1, TK_GS_VOTE_REJECT, 10);
  EXPECT_EQ(TK_GS_OK, rc(b, submit(b, setAttributesReq("g", b.instance, next))));
  submit(a, valueReq("g", a.instance, "v", TK_GS_N_PHASE, 0));
  N np = last(a, N::N_PHASE);
  EXPECT_EQ(static_cast<uint32_t>(TK_GS_VOTE_REJECT), np.default_vote());
  EXPECT_EQ(10u, np.time_limit());  // the group's limit, the request gave none
  fireDeadlines();
  EXPECT_EQ(np.protocol(), last(a, N::REJECTED).protocol());
}

}  // namespace
}  // namespace testing
}  // namespace agent
}  // namespace velt

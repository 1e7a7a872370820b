// The propagator against a real agent (`veltd --standalone`): the first
// configuration read through a refresh child and committed, proposals of a
// new configuration id with votes, the rate limit of proposals, proposals
// of other providers (old 4-byte state values, the current id, a new id that
// waits for the local read), the batching window of configuration events
// and the leader's harvest request, the delayed-down timer and the status
// lines. The second participant is a plain provider of the same group in
// this process, voting as each test tells it.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AMController.h"
#include "AMCfgMonitor.h"
#include "AMPropagate.h"
#include "TraceStream.h"
#include "fake_vx_mc.h"
#include "srcctl_support.h"
#include "sw_adapter_info.h"
#include "tk_gs_tolkvaskd_msg.h"

namespace {

constexpr std::chrono::milliseconds kBound{10000};

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds bound = kBound) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
}

// The id a 12-byte (or shorter) state value carries, or 0 for none.
uint32_t idOf(const tk_gs_state_value_t* sv) {
  if (sv == nullptr || sv->gs_state == nullptr || sv->gs_length < 4) return 0;
  uint32_t id;
  memcpy(&id, sv->gs_state, 4);
  return id;
}

// A second member of the configuration group that votes as told and
// records what it saw. Thread-safe.
class PlainProvider : public GSProvider {
 public:
  struct Seen {
    std::string kind;  // "nphase", "approved", "rejected"
    int type;
    uint32_t id;
    std::chrono::steady_clock::time_point when;
  };

  PlainProvider() : GSProvider(AMCfgProvider::kGroupName, 2, "plain") {}
  ~PlainProvider() override { unregister(); }

  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override {
    uint32_t id = n->gs_proposal ? idOf(n->gs_proposal->gs_proposed_state_value) : 0;
    add("nphase", n->gs_protocol_type, id);
    bool reject = rejectsLeft.load() > 0;
    if (reject) rejectsLeft.fetch_sub(1);
    vote(reject ? TK_GS_VOTE_REJECT : TK_GS_VOTE_APPROVE, nullptr, nullptr, TK_GS_NO_VOTE);
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override {
    uint32_t id = n->gs_proposal ? idOf(n->gs_proposal->gs_proposed_state_value) : 0;
    add("approved", n->gs_protocol_type, id);
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override {
    add("rejected", n->gs_protocol_type, 0);
    return TK_GS_CALLBACK_OK;
  }

  int count(const std::string& kind, int type, uint32_t id) {
    std::lock_guard<std::mutex> hold(mu_);
    int n = 0;
    for (const Seen& s : seen_) n += s.kind == kind && s.type == type && (id == 0 || s.id == id) ? 1 : 0;
    return n;
  }
  std::vector<Seen> all(const std::string& kind, int type) {
    std::lock_guard<std::mutex> hold(mu_);
    std::vector<Seen> out;
    for (const Seen& s : seen_)
      if (s.kind == kind && s.type == type) out.push_back(s);
    return out;
  }

  std::atomic<int> rejectsLeft{0};

 private:
  void add(const std::string& kind, int type, uint32_t id) {
    std::lock_guard<std::mutex> hold(mu_);
    seen_.push_back({kind, type, id, std::chrono::steady_clock::now()});
  }
  std::mutex mu_;
  std::vector<Seen> seen_;
};

// A state-value change proposed by a plain provider: the value buffer
// lives as long as the request.
tk_gs_rc_t proposeValue(GSProvider& who, const std::string& bytes) {
  std::string copy = bytes;
  tk_gs_state_value_t sv;
  sv.gs_length = static_cast<int>(copy.size());
  sv.gs_state = &copy[0];
  return who.changeStateValue(&sv, TK_GS_N_PHASE, 30);
}

std::string stateValueOf(uint32_t id1, int32_t version, uint32_t id2) {
  AMCfgInfoStateValue v{id1, version, id2};
  return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

// The process as start-up leaves it around the propagator: the trace
// stream writing to a private log, a controller connected to a real agent
// with its dispatch thread, the refresh command, the configuration file and
// a stand-in of the signal thread that turns SIGCHLD into the propagator's
// check-refresh event.
class PropagatorProtocol : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velt-prop-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    logFile_ = dir_ + "/tolkvaskd.log";
    cfgPath_ = dir_ + "/AggregateIP.cfg";
    scriptPath_ = dir_ + "/refresh.sh";
    writeFile(cfgPath_, "+CFGID: 0x10\n1 ml0 sxn0\n");
    // The refresh command fails while the "fail" file exists, and waits
    // (at most about 10 s) while the test holds it back with the "hold"
    // file; while the "stall" file exists it never ends by itself (a
    // sleeper it started, whose pid it leaves in "sleeper", holds it);
    // otherwise it ends at once.
    writeFile(scriptPath_, "#!/bin/sh\n[ -e '" + dir_ + "/fail' ] && exit 3\n[ -e '" + dir_ + "/stall' ] && { sleep 3600 & echo $! > '" + dir_ + "/sleeper'; wait; exit 0; }\ni=0\nwhile [ -e '" + dir_ + "/hold' ] && [ $i -lt 1000 ]; do sleep 0.01; i=$((i+1)); done\nexit 0\n");
    chmod(scriptPath_.c_str(), 0755);
    refresh_cmd = scriptPath_.c_str();
    setenv("SW_HERDLET_AGGIP_CFG", cfgPath_.c_str(), 1);
    setenv("HA_DOMAIN_TYPE", "QUIL", 1);
    setenv("VELT_SRC_DIR", (dir_ + "/src").c_str(), 1);
    AMController::domainType = kQUIL;
    AMController::_exiting = 0;
    myNodeNumber = 1;

    traceMarket = TraceStream::traceMarket;
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x61F | TRACE_DEBUG));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    client_ = new TraceClient(traceMarket, 0);
    server_ = new TraceServer(traceMarket);
    traceServer = server_;

    // SIGCHLD goes only to the stand-in of the signal thread.
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &chld, &savedMask_));
    sigFd_ = signalfd(-1, &chld, SFD_CLOEXEC);
    ASSERT_GE(sigFd_, 0);

    startAgent();
    AMController::propagator = nullptr;
    ctl_ = new AMController();
    prop_ = AMController::propagator;
    ASSERT_NE(prop_, nullptr);
    tk_gs_rc_t rc = TK_GS_NOT_CONNECTED;
    ASSERT_TRUE(waitUntil([&] {
      rc = ctl_->initialize();
      if (rc == TK_GS_OK) return true;
      ctl_->quit();
      return false;
    })) << "no connection to veltd: " << gscl_rc_name(rc);
    dispatcher_ = std::thread([this] {
      TraceClient tracing(traceMarket, 0);
      while (ctl_->dispatch(TK_GS_BLOCKING) == TK_GS_OK) {
      }
    });
    sigThread_ = std::thread([this] { signalStandIn(); });
  }

  void TearDown() override {
    // A refresh child a failed test left running goes with its group.
    if (prop_ != nullptr && prop_->refreshPid() > 0) kill(-prop_->refreshPid(), SIGKILL);
    if (prop_ != nullptr) {
      prop_->stop();
      if (started_) prop_->join();
    }
    stopSignals_ = true;
    if (sigThread_.joinable()) sigThread_.join();
    if (ctl_ != nullptr) ctl_->quit();
    if (dispatcher_.joinable()) dispatcher_.join();
    delete plain_;
    plain_ = nullptr;
    AMController::propagator = nullptr;
    delete prop_;
    if (agentPid_ > 0) {
      kill(agentPid_, SIGKILL);
      int status;
      waitpid(agentPid_, &status, 0);
    }
    if (sigFd_ >= 0) close(sigFd_);
    pthread_sigmask(SIG_SETMASK, &savedMask_, nullptr);
    refresh_cmd = "tolkvask";
    unsetenv("SW_HERDLET_REFRESH_TIMEOUT_SECS");
    WAIT_PENDING_DELAYED_DOWN_USECS = 16000000;
    if (HasFailure()) {
      traceMarket->drainAllLogs();
      std::string log = readAll(logFile_);
      if (log.size() > 12000) log = log.substr(log.size() - 12000);
      std::cerr << "---- log tail ----\n" << log << std::endl;
    }
    if (HasFailure() && getenv("VELT_KEEP_TEST_DIR") != nullptr) {
      std::cerr << "kept " << dir_ << std::endl;
      return;
    }
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }

  void startAgent() {
    std::string socket = dir_ + "/agent.sock";
    std::string state = dir_ + "/state";
    std::string log = dir_ + "/veltd.log";
    mkdir(state.c_str(), 0700);
    setenv("VELT_AGENT_SOCKET", socket.c_str(), 1);
    agentPid_ = fork();
    if (agentPid_ == 0) {
      execl(VELTD_PATH, VELTD_PATH, "--standalone", "--socket", socket.c_str(), "--state-dir", state.c_str(), "--log",
            log.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }

  // What the signal thread does on SIGCHLD: the propagator has the
  // controller reap its child.
  void signalStandIn() {
    while (!stopSignals_) {
      struct pollfd p = {sigFd_, POLLIN, 0};
      if (poll(&p, 1, 100) != 1) continue;
      struct signalfd_siginfo info;
      if (read(sigFd_, &info, sizeof info) != sizeof info) continue;
      if (prop_ != nullptr) prop_->postSyncEvent(PEVT_CHECK_REFRESH_DONE);
    }
  }

  // Starts the propagator and waits until its first configuration is
  // committed and the protocols roll.
  void startAndSettle() {
    ASSERT_EQ(0, prop_->start(nullptr));
    started_ = true;
    ASSERT_TRUE(waitUntil([&] { return ctl_->readyToRoll.get() != 0; })) << "the first configuration was never committed";
    EXPECT_EQ(0x10u, prop_->aggip_current_cfg_info().getCfgId1());
    ASSERT_TRUE(waitUntil([&] { return !prop_->cfgProvider()->isStateChangeInFlight(); }));
    std::string value;
    ASSERT_TRUE(waitUntil([&] {
      return prop_->cfgProvider()->getStateValue(&value) == TK_GS_OK && value.size() == 12;
    })) << "the group never got the committed id";
    AMCfgInfoStateValue v;
    memcpy(&v, value.data(), sizeof v);
    EXPECT_EQ(0x10u, v.CfgId1);
  }

  // The dispatcher thread harvests, and reads the domain type, when the
  // agent's version notification arrives, which outside the cluster domain
  // type marks the table harvested. A test that changes the domain type
  // waits for this first.
  void waitForVersionHarvest() {
    AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
    ASSERT_TRUE(waitUntil([table] {
      GSReadGuard hold(*table);
      return table->isHarvested() != 0;
    })) << "the agent's version notification never came";
  }

  // Runs srcctl with args against this process's SRC socket, serving the
  // request on this thread as the main loop would; returns its output.
  std::string srcctl(const std::vector<std::string>& args) {
    return srcctl_test::srcctlServed(ctl_, args, kBound);
  }

  void joinPlain() {
    plain_ = new PlainProvider();
    ASSERT_EQ(TK_GS_OK, plain_->joinGroup());
    ASSERT_TRUE(waitUntil([&] { return plain_->getClientState() == GS_IAM_JOINED; }));
  }

  std::string dir_;
  std::string logFile_;
  std::string cfgPath_;
  std::string scriptPath_;
  pid_t agentPid_ = -1;
  TraceClient* client_ = nullptr;
  TraceServer* server_ = nullptr;
  AMController* ctl_ = nullptr;
  AMPropagator* prop_ = nullptr;
  PlainProvider* plain_ = nullptr;
  bool started_ = false;
  std::thread dispatcher_;
  std::thread sigThread_;
  std::atomic<bool> stopSignals_{false};
  int sigFd_ = -1;
  sigset_t savedMask_;
};

}  // namespace

TEST_F(PropagatorProtocol, FirstConfigurationIsReadThroughTheChildAndCommittedLocally) {
  startAndSettle();
  EXPECT_EQ(1, prop_->readsForTesting());
  EXPECT_EQ(-1, prop_->refreshPid());
  EXPECT_EQ(1, prop_->cfgProvider()->isGL());
  AMAggCfg ml0;
  ASSERT_TRUE(prop_->ObtainAggCfgFor(ml0, "ml0"));
  EXPECT_FALSE(ml0.AreAllZero());
  EXPECT_FALSE(prop_->ObtainAggCfgFor(ml0, "ml7"));
  EXPECT_TRUE(prop_->isCfgProviderActive());
}

TEST_F(PropagatorProtocol, NewIdIsProposedVotedAndCommittedOnEveryMember) {
  startAndSettle();
  joinPlain();
  writeFile(cfgPath_, "+CFGID: 0x20\n1 ml0 sxn0\n2 ml0 sxn0\n");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x20u; }));
  EXPECT_EQ(1, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0x20));
  EXPECT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x20) == 1; }));
  AMAggCfg ml0;
  ASSERT_TRUE(prop_->ObtainAggCfgFor(ml0, "ml0"));
  int index = _idxFromInterfaceName("sxn0");
  EXPECT_TRUE(ml0.getMask(index)->test(2));
}

TEST_F(PropagatorProtocol, AStaleFileDoesNotTakeARunningGroupBackToItsId) {
  // The other nodes run id 0x55; this daemon starts with a file of 0x10.
  joinPlain();
  ASSERT_EQ(TK_GS_OK, proposeValue(*plain_, stateValueOf(0x55, 1, 0)));
  ASSERT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x55) == 1; }));
  ASSERT_EQ(0, prop_->start(nullptr));
  started_ = true;
  ASSERT_TRUE(waitUntil([&] { return ctl_->readyToRoll.get() != 0; })) << "the first configuration was never committed";
  // It runs its own file and says so, but proposes nothing.
  EXPECT_EQ(0x10u, prop_->aggip_current_cfg_info().getCfgId1());
  EXPECT_TRUE(waitUntil([&] {
    traceMarket->drainAllLogs();
    return readAll(logFile_).find("The aggregate configuration file has id 16, the other nodes run id 85") !=
           std::string::npos;
  }));
  EXPECT_EQ(1, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0));
  std::string value;
  ASSERT_EQ(TK_GS_OK, prop_->cfgProvider()->getStateValue(&value));
  ASSERT_EQ(12u, value.size());
  EXPECT_EQ(stateValueOf(0x55, 1, 0), value);

  // The file brought up to date and refreshed: the node takes the group's
  // id without a proposal of its own.
  writeFile(cfgPath_, "+CFGID: 0x55\n1 ml0 sxn0\n");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x55u; }));
  EXPECT_EQ(1, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0));
}

TEST_F(PropagatorProtocol, ACommitOfAnotherNodesIdSaysOnceThatThisNodesFileDiffers) {
  startAndSettle();
  joinPlain();
  // Another node proposes 0x77; this node's file still says 0x10.
  ASSERT_EQ(TK_GS_OK, proposeValue(*plain_, stateValueOf(0x77, 1, 0)));
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x77u; }));
  const std::string said = "This node's aggregate configuration file has id 16, the committed configuration id is 119";
  EXPECT_TRUE(waitUntil([&] {
    traceMarket->drainAllLogs();
    return readAll(logFile_).find(said) != std::string::npos;
  }));
  // The file brought up to date and refreshed: the commit says nothing more.
  writeFile(cfgPath_, "+CFGID: 0x77\n1 ml0 sxn0\n");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->commitsForTesting() >= 3; })) << prop_->commitsForTesting();
  traceMarket->drainAllLogs();
  std::string text = readAll(logFile_);
  size_t first = text.find(said);
  ASSERT_NE(std::string::npos, first);
  EXPECT_EQ(std::string::npos, text.find(said, first + 1)) << "once for the pair of ids";
}

TEST_F(PropagatorProtocol, UnchangedFileIsCommittedWithoutAProposal) {
  startAndSettle();
  joinPlain();
  int commits = prop_->commitsForTesting();
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->commitsForTesting() > commits; }));
  EXPECT_EQ(2, prop_->readsForTesting());
  EXPECT_EQ(0, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0));
}

TEST_F(PropagatorProtocol, RejectedProposalIsRetriedAfterTheRateLimit) {
  startAndSettle();
  joinPlain();
  plain_->rejectsLeft = 1;
  writeFile(cfgPath_, "+CFGID: 0x30\n1 ml0 sxn0\n3 ml0 sxn0\n");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x30u; }));
  std::vector<PlainProvider::Seen> proposals = plain_->all("nphase", TK_GS_CHANGE_STATE_VALUE);
  ASSERT_EQ(2u, proposals.size());
  EXPECT_EQ(0x30u, proposals[0].id);
  EXPECT_EQ(0x30u, proposals[1].id);
  EXPECT_EQ(1, plain_->count("rejected", TK_GS_CHANGE_STATE_VALUE, 0));
  // The retry right after the rejection came within the 2-second limit and
  // was refused; the next one waited its 3 seconds.
  EXPECT_GE(prop_->rateRefusalsForTesting(), 1);
  EXPECT_GE(proposals[1].when - proposals[0].when, std::chrono::milliseconds(2500));
}

TEST_F(PropagatorProtocol, OldFourByteValueComparesEqualOnTheFirstId) {
  startAndSettle();
  joinPlain();
  int reads = prop_->readsForTesting();
  uint32_t id = 0x10;
  ASSERT_EQ(TK_GS_OK, proposeValue(*plain_, std::string(reinterpret_cast<const char*>(&id), 4)));
  ASSERT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x10) == 1; }));
  // Approved without a refresh: the id was already current.
  EXPECT_EQ(reads, prop_->readsForTesting());
  EXPECT_EQ(0x10u, prop_->aggip_current_cfg_info().getCfgId1());
  EXPECT_FALSE(prop_->cfgProvider()->isVotePending());
}

TEST_F(PropagatorProtocol, CurrentIdIsApprovedAtOnceNewIdOnlyAfterTheLocalRead) {
  startAndSettle();
  joinPlain();
  int reads = prop_->readsForTesting();
  ASSERT_EQ(TK_GS_OK, proposeValue(*plain_, stateValueOf(0x10, 1, 0)));
  ASSERT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x10) == 1; }));
  EXPECT_EQ(reads, prop_->readsForTesting());

  // A new id, as the refreshed file on every node will carry it: the
  // refresh child is held back, and so is the vote.
  writeFile(cfgPath_, "+CFGID: 0x99\n1 ml0 sxn0\n5 ml0 sxn0\n");
  writeFile(dir_ + "/hold", "");
  ASSERT_EQ(TK_GS_OK, proposeValue(*plain_, stateValueOf(0x99, 1, 0)));
  ASSERT_TRUE(waitUntil([&] { return prop_->refreshPid() != -1; })) << "no refresh child for the new id";
  EXPECT_TRUE(prop_->cfgProvider()->isVotePending());
  EXPECT_EQ(0, plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x99));
  EXPECT_EQ(reads, prop_->readsForTesting());
  unlink((dir_ + "/hold").c_str());
  ASSERT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_CHANGE_STATE_VALUE, 0x99) == 1; }));
  EXPECT_EQ(reads + 1, prop_->readsForTesting());
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x99u; }));
  AMAggCfg ml0;
  ASSERT_TRUE(prop_->ObtainAggCfgFor(ml0, "ml0"));
  EXPECT_TRUE(ml0.getMask(_idxFromInterfaceName("sxn0"))->test(5));
  // Nothing of ours undid the group's new id.
  EXPECT_EQ(1, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0x99));
  EXPECT_EQ(1, plain_->count("nphase", TK_GS_CHANGE_STATE_VALUE, 0x10));
}

TEST_F(PropagatorProtocol, TenPeerNodeEventsWithinTheWindowCauseOneReharvest) {
  startAndSettle();
  joinPlain();
  int before = prop_->batchHarvestsForTesting();
  int requests = prop_->harvestRequestsForTesting();
  for (int i = 0; i < 10; ++i) prop_->postPeerNodeEventReady();
  ASSERT_TRUE(waitUntil([&] { return prop_->batchHarvestsForTesting() > before; }));
  EXPECT_EQ(0, prop_->pendingPeerNodeEvents());
  // The batch ends in the leader's harvest request, a provider message that
  // every member gets; here it starts the harvest (event 12).
  ASSERT_TRUE(waitUntil([&] { return plain_->count("approved", TK_GS_PROVIDER_MESSAGE, 0) >= 1; }));
  ASSERT_TRUE(waitUntil([&] { return prop_->harvestRequestsForTesting() > requests; }));
  // Once the propagator waits again with nothing queued, the batch is over:
  // it was harvested exactly once.
  ASSERT_TRUE(waitUntil([&] { return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1; }));
  EXPECT_EQ(before + 1, prop_->batchHarvestsForTesting());
}

// Ten events spread over 40 ms, each well inside the 50 ms window of the one
// before: the window stays open until the last, and one harvest follows it.
// A propagator that harvested as soon as an event came would harvest again
// for each later one.
TEST_F(PropagatorProtocol, TenPeerNodeEventsSpreadOverTheWindowAreHarvestedOnceAfterTheLast) {
  startAndSettle();
  joinPlain();
  constexpr auto kSpacing = std::chrono::milliseconds(4);
  // Only a gap this far below the window proves that the window was still
  // open; a scheduler stall longer than that makes the round inconclusive.
  constexpr auto kLargestGap = std::chrono::milliseconds(40);
  bool conclusive = false;
  for (int round = 0; round < 3 && !conclusive; ++round) {
    ASSERT_TRUE(waitUntil([&] { return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1; }));
    const int before = prop_->batchHarvestsForTesting();
    auto last = std::chrono::steady_clock::now();
    auto first = last;
    auto largestGap = std::chrono::steady_clock::duration::zero();
    int harvestedBeforeTheLast = 0;
    for (int i = 0; i < 10; ++i) {
      if (i > 0) std::this_thread::sleep_for(kSpacing);
      auto now = std::chrono::steady_clock::now();
      if (i > 0) largestGap = std::max(largestGap, now - last);
      last = now;
      if (i == 9) harvestedBeforeTheLast = prop_->batchHarvestsForTesting() - before;
      prop_->postPeerNodeEventReady();
    }
    ASSERT_TRUE(waitUntil([&] { return prop_->batchHarvestsForTesting() > before; }));
    ASSERT_TRUE(waitUntil([&] { return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1; }));
    EXPECT_EQ(0, prop_->pendingPeerNodeEvents());
    if (largestGap >= kLargestGap || last - first > std::chrono::milliseconds(50)) continue;
    conclusive = true;
    EXPECT_EQ(0, harvestedBeforeTheLast);
    EXPECT_EQ(before + 1, prop_->batchHarvestsForTesting());
  }
  if (!conclusive) GTEST_SKIP() << "the posting thread stalled longer than the window in every round";
}

TEST_F(PropagatorProtocol, EventsAreDroppedByTypeAndTheRestKeptInOrder) {
  prop_->postSyncEvent(PEVT_TRIGGER_CONFIG_EVENT);
  prop_->postSyncEvent(PEVT_WAKEUP_EVENT);
  prop_->postSyncEvent(PEVT_TRIGGER_CONFIG_EVENT);
  prop_->postSyncEvent(PEVT_HARVEST_NOW_EVENT);
  EXPECT_EQ(2, prop_->removeMatchingSyncEvents(PEVT_TRIGGER_CONFIG_EVENT));
  _AMProEventType e;
  ASSERT_EQ(0, prop_->waitSyncEvent(&e, 0, 0));
  EXPECT_EQ(PEVT_WAKEUP_EVENT, e);
  ASSERT_EQ(0, prop_->waitSyncEvent(&e, 0, 0));
  EXPECT_EQ(PEVT_HARVEST_NOW_EVENT, e);
  EXPECT_EQ(110, prop_->waitSyncEvent(&e, 0, 1000));
  EXPECT_EQ(1, prop_->postDelayedDownEvent());
  EXPECT_EQ(1, prop_->removeMatchingSyncEvents(PEVT_TRIGGER_DELAYED_DOWNS));
}

TEST_F(PropagatorProtocol, FailedRefreshChildIsIgnored) {
  startAndSettle();
  joinPlain();
  int reads = prop_->readsForTesting();
  writeFile(dir_ + "/fail", "");
  writeFile(cfgPath_, "+CFGID: 0x40\n1 ml0 sxn0\n4 ml0 sxn0\n");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->ignoredRefreshesForTesting() == 1; }));
  EXPECT_EQ(-1, prop_->refreshPid());
  EXPECT_EQ(reads, prop_->readsForTesting());
  EXPECT_EQ(0x10u, prop_->aggip_current_cfg_info().getCfgId1());
  // The next refresh that succeeds takes the file up.
  unlink((dir_ + "/fail").c_str());
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x40u; }));
}

// True when pid no longer runs (gone, or a zombie nobody reaps).
bool notRunning(pid_t pid) {
  std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return true;
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
}

TEST_F(PropagatorProtocol, RefreshChildPastItsTimeLimitIsKilledAndTheNextRefreshRuns) {
  startAndSettle();
  setenv("SW_HERDLET_REFRESH_TIMEOUT_SECS", "1", 1);
  writeFile(dir_ + "/stall", "");
  writeFile(cfgPath_, "+CFGID: 0x50\n1 ml0 sxn0\n5 ml0 sxn0\n");
  auto start = std::chrono::steady_clock::now();
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->refreshPid() != -1; }));
  ASSERT_TRUE(waitUntil([&] { return !readAll(dir_ + "/sleeper").empty(); })) << "the refresh command never started";
  pid_t sleeper = atoi(readAll(dir_ + "/sleeper").c_str());
  ASSERT_GT(sleeper, 0);
  // Killed at its limit, reaped by the controller and taken as a failed
  // refresh: the configuration in use stays.
  ASSERT_TRUE(waitUntil([&] { return prop_->ignoredRefreshesForTesting() == 1; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  EXPECT_EQ(1, prop_->killedRefreshesForTesting());
  EXPECT_EQ(-1, prop_->refreshPid());
  EXPECT_EQ(0x10u, prop_->aggip_current_cfg_info().getCfgId1());
  // Whatever the command started went with it.
  EXPECT_TRUE(waitUntil([&] { return notRunning(sleeper); })) << "the refresh command's sleeper still runs";
  traceMarket->drainAllLogs();
  std::string log = readAll(logFile_);
  EXPECT_NE(std::string::npos, log.find("did not end within 1 seconds. It was killed with its process group; the refresh failed."))
      << log;
  EXPECT_NE(std::string::npos, log.find("Refresh process returns an error status. The refresh will be ignored.")) << log;
  std::string errlog = readAll(logFile_ + ".errlog");
  EXPECT_NE(std::string::npos, errlog.find("\"label\":\"GS_ERROR_ER\"")) << errlog;
  EXPECT_NE(std::string::npos, errlog.find(") did not end within 1 seconds.")) << errlog;

  // The next refresh runs and takes the file up.
  unlink((dir_ + "/stall").c_str());
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->aggip_current_cfg_info().getCfgId1() == 0x50u; }));
  EXPECT_EQ(1, prop_->killedRefreshesForTesting());
}

TEST_F(PropagatorProtocol, RefreshTimeLimitComesFromTheEnvironmentAndBadValuesAreTraced) {
  unsetenv("SW_HERDLET_REFRESH_TIMEOUT_SECS");
  EXPECT_EQ(600, AMPropagator::refreshTimeoutSecs());
  setenv("SW_HERDLET_REFRESH_TIMEOUT_SECS", "1", 1);
  EXPECT_EQ(1, AMPropagator::refreshTimeoutSecs());
  setenv("SW_HERDLET_REFRESH_TIMEOUT_SECS", "86400", 1);
  EXPECT_EQ(86400, AMPropagator::refreshTimeoutSecs());
  for (const char* bad : {"", "0", "-5", "12x", " 7", "86401", "99999999999999999999", "ten"}) {
    setenv("SW_HERDLET_REFRESH_TIMEOUT_SECS", bad, 1);
    EXPECT_EQ(600, AMPropagator::refreshTimeoutSecs()) << "\"" << bad << "\"";
  }
  traceMarket->drainAllLogs();
  std::string log = readAll(logFile_);
  EXPECT_NE(std::string::npos, log.find("TRACE_WARNING : [T=")) << log;
  EXPECT_NE(std::string::npos,
            log.find(" SW_HERDLET_REFRESH_TIMEOUT_SECS=\"12x\" is not a number of seconds from 1 to 86400; the refresh child gets 600 seconds."))
      << log;
  EXPECT_NE(std::string::npos, log.find(" SW_HERDLET_REFRESH_TIMEOUT_SECS=\"\" is not a number")) << log;
}

TEST_F(PropagatorProtocol, DelayedDownIsAnnouncedWhenItsDelayRunsOut) {
  startAndSettle();
  WAIT_PENDING_DELAYED_DOWN_USECS = 1000000;
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  ASSERT_NE(table, nullptr);
  tk_gs_provider_t adapter = gsMakeProvider(5, 3);
  tk_gs_membership_t members = {1, &adapter};
  table->updateAdapterStateWithLock(1, &members, 0);
  auto start = std::chrono::steady_clock::now();
  table->updateAdapterStateWithLock(0, &members, 0);
  auto pending = [&] {
    GSReadGuard hold(*table);
    AMAdapterItem* row = table->locateAdapterItem(5, 3);
    return row != nullptr && row->isPending;
  };
  EXPECT_TRUE(pending());
  EXPECT_TRUE(table->IsThereADelayedDownEvent());
  ASSERT_TRUE(waitUntil([&] { return !pending(); }, std::chrono::milliseconds(5000)));
  // Held back for the delay (the table counts in half seconds), then let
  // go by the propagator's timer without any other event.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(450));
  EXPECT_FALSE(table->IsThereADelayedDownEvent());
}

TEST_F(PropagatorProtocol, StatusShowsTheCurrentIdAndARunningRefreshChild) {
  std::string excl = dir_ + "/tolkvaskd.excl";
  ASSERT_EQ(0, ctl_->SRCDriver::InitSRC(1, excl.c_str(), 88, nullptr));
  startAndSettle();
  std::string status = srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, status.find("Aggregate Adapter Configuration\n")) << status;
  EXPECT_NE(std::string::npos, status.find(" The current configuration id is 16.\n")) << status;
  EXPECT_EQ(std::string::npos, status.find("re-bebuilding")) << status;

  writeFile(dir_ + "/hold", "");
  prop_->refreshRequested();
  ASSERT_TRUE(waitUntil([&] { return prop_->refreshPid() != -1; }));
  std::string pid = std::to_string(prop_->refreshPid());
  status = srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, status.find(" New config is re-bebuilding by PID " + pid + ".\n")) << status;
  std::string canonical = srcctl({"request", "999"});
  EXPECT_NE(std::string::npos, canonical.find("Aggregate Adapter Configuration\n")) << canonical;
  EXPECT_NE(std::string::npos, canonical.find(" New config is re-bebuilding by PID " + pid + ".\n")) << canonical;
  EXPECT_NE(std::string::npos, canonical.find(" The current configuration id is 16.\n")) << canonical;
  unlink((dir_ + "/hold").c_str());
  ASSERT_TRUE(waitUntil([&] { return prop_->refreshPid() == -1; }));
}

TEST_F(PropagatorProtocol, ClusterDomainWaitsForTheInitialHarvestBeforeJoining) {
  // Once the dispatcher thread's harvest is done, start from a table never
  // harvested.
  ASSERT_NO_FATAL_FAILURE(waitForVersionHarvest());
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  AMController::domainType = kCLUSTER;
  table->forgetHarvestForTesting();
  // KOR does not answer yet: no harvest can succeed.
  fake_mc::resetForTesting();
  fake_mc::failStartSessionForTesting(1000, MC_ENOAGENT);
  ASSERT_EQ(0, prop_->start(nullptr));
  started_ = true;
  // The first round finds the adapter table never harvested and waits for
  // the next event without joining.
  ASSERT_TRUE(waitUntil([&] { return prop_->waitersForTesting() == 1 && prop_->pendingSyncEvents() == 0; }));
  prop_->postSyncEvent(PEVT_WAKEUP_EVENT);
  ASSERT_TRUE(waitUntil([&] { return prop_->waitersForTesting() == 1 && prop_->pendingSyncEvents() == 0; }));
  EXPECT_EQ(GS_IAM_IDLE, prop_->cfgProvider()->getClientState());
  EXPECT_FALSE(prop_->isCfgProviderActive());
  // Outside a refresh child, a refresh request does nothing in this domain.
  prop_->refreshRequested();
  EXPECT_EQ(0, prop_->pendingSyncEvents());
  fake_mc::resetForTesting();
}

// The agent sends no delayed errors for these requests, so the
// notifications are made here and handed to the callbacks as the dispatch
// thread would.
TEST_F(PropagatorProtocol, DelayedErrorsRetryHarvestsAndEndAPersistingDuplicateInstance) {
  AMCfgProvider* provider = prop_->cfgProvider();
  tk_gs_delayed_error_notification_t n;
  memset(&n, 0, sizeof n);
  n.gs_notification_type = TK_GS_DELAYED_ERROR_NOTIFICATION;
  n.gs_group_name = AMCfgProvider::kGroupName;
  n.gs_request_type = TK_GS_PROVIDER_MESSAGE;
  n.gs_delayed_return_code = TK_GS_TIMEOUT;
  provider->delayedErrorCb(&n);
  EXPECT_EQ(1, prop_->removeMatchingSyncEvents(PEVT_HARVEST_DELAY_REQ_EVENT));
  EXPECT_EQ(1, prop_->removeMatchingSyncEvents(PEVT_NO_EVENT));

  n.gs_request_type = TK_GS_JOIN;
  n.gs_delayed_return_code = TK_GS_DUPLICATE_INSTANCE_NUMBER;
  provider->delayedErrorCb(&n);
  EXPECT_EQ(0, AMController::_exiting.load());
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  provider->setDupInstanceStartForTesting(static_cast<long>(now.tv_sec) - AMCfgProvider::kDupInstanceLimitSecs - 1);
  provider->delayedErrorCb(&n);
  EXPECT_GT(AMController::_exiting.load(), 0);
  AMController::_exiting = 0;
}

TEST_F(PropagatorProtocol, LostAgentAnnouncementAsksTheProcessToExitAfterTheGrace) {
  startAndSettle();
  tk_gs_announcement_notification_t n;
  memset(&n, 0, sizeof n);
  n.gs_notification_type = TK_GS_ANNOUNCEMENT_NOTIFICATION;
  n.gs_group_name = AMCfgProvider::kGroupName;
  n.gs_summary_code = TK_GS_PROVIDER_FAILED;
  prop_->cfgProvider()->announcementCb(&n);
  n.gs_summary_code = TK_GS_GROUP_SERVICES_HAS_DIED;
  auto start = std::chrono::steady_clock::now();
  prop_->cfgProvider()->announcementCb(&n);
  // The dispatch thread has the grace time to end the process with its own
  // stop code; here nothing does, so the propagator asks for the exit.
  ASSERT_TRUE(waitUntil([&] { return AMController::_exiting.load() > 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start,
            std::chrono::milliseconds(AMPropagator::kGsDiedGraceMsecs - 100));
  // Stop the thread before it runs its own exit path.
  prop_->stop();
  prop_->join();
  started_ = false;
  AMController::_exiting = 0;
}

TEST_F(PropagatorProtocol, HarvestRequestDelayedByAnErrorIsSentThreeSecondsLaterDespiteOtherEvents) {
  startAndSettle();
  joinPlain();
  ASSERT_TRUE(waitUntil([&] { return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1; }));
  int before = plain_->count("approved", TK_GS_PROVIDER_MESSAGE, 0);
  auto start = std::chrono::steady_clock::now();
  prop_->postSyncEvent(PEVT_HARVEST_DELAY_REQ_EVENT);
  // Other work keeps waking the loop; the deferred request still comes due.
  ASSERT_TRUE(waitUntil([&] {
    prop_->postSyncEvent(PEVT_WAKEUP_EVENT);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return plain_->count("approved", TK_GS_PROVIDER_MESSAGE, 0) > before;
  }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
}

// In the cluster domain type the propagator's harvests go through the
// configuration monitor to KOR: the initial one lets it join, becoming the
// leader harvests, the leader's request makes every member harvest, and a
// batch of KOR events ends in one more. The monitor is woken each time and
// asks the propagator whether this node leads.
TEST_F(PropagatorProtocol, KorHarvestsGoThroughTheMonitorOnLeadershipRequestsAndBatches) {
  ASSERT_NO_FATAL_FAILURE(waitForVersionHarvest());
  AMController::domainType = kCLUSTER;
  fake_mc::resetForTesting();
  fake_mc::Resource node;
  node.handle = "node/3";
  node.attrs = {fake_mc::Attr::Uint64Array("NodeIDs", {0x3333}), fake_mc::Attr::Uint32Array("NodeList", {3})};
  fake_mc::setResourcesForTesting(KOR_CLASS_PEER_NODE, {node});
  fake_mc::Resource adapter;
  adapter.handle = "node/3/sxn0";
  adapter.attrs = {fake_mc::Attr::Text("Name", "sxn0"), fake_mc::Attr::Uint64Array("NodeIDs", {0x3333}),
                   fake_mc::Attr::Text("DeviceName", "sni0"), fake_mc::Attr::Text("IPAddress", "10.0.0.3")};
  fake_mc::setResourcesForTesting(KOR_CLASS_NETWORK_INTERFACE, {adapter});
  AMCfgMonitor* monitor = ctl_->cfgMonitor;
  ASSERT_NE(monitor, nullptr);
  EXPECT_EQ(0, prop_->isGL());

  // What the monitor's initial harvests do: afterwards the propagator may
  // join.
  ASSERT_GE(ctl_->harvestGblPeerNodes(), 0);
  ASSERT_GE(ctl_->harvestGblNetworkInterfaces(), 0);
  EXPECT_EQ(3, getNodeNumFromNodeId(0x3333));
  {
    GSReadGuard hold(*AMController::pGAdapterCfgTbl);
    AMAdapterItem* row = AMController::pGAdapterCfgTbl->locateAdapterItem(3, _idxFromInterfaceName("sxn0"));
    ASSERT_NE(row, nullptr);
    EXPECT_TRUE(row->isConfiged);
  }
  ASSERT_EQ(0, prop_->start(nullptr));
  started_ = true;
  ASSERT_TRUE(waitUntil([&] { return prop_->isGL() == 1; })) << "never became the leader";
  // Becoming the leader harvests both classes, then the leader's request
  // comes back to this member as event 12, which harvests again.
  ASSERT_TRUE(waitUntil([&] { return prop_->harvestRequestsForTesting() >= 1; }));
  ASSERT_TRUE(waitUntil([&] { return fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE) >= 3; }));
  EXPECT_GE(fake_mc::queriesForTesting(KOR_CLASS_PEER_NODE), 3);
  EXPECT_GT(monitor->pendingSyncEvents(), 0);

  // A burst of KOR events: one harvest once the window closed.
  ASSERT_TRUE(waitUntil([&] { return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1; }));
  const int queries = fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE);
  const int batches = prop_->batchHarvestsForTesting();
  for (int i = 0; i < 5; ++i) prop_->postNetInterfaceEventReady();
  ASSERT_TRUE(waitUntil([&] { return prop_->batchHarvestsForTesting() > batches; }));
  EXPECT_GT(fake_mc::queriesForTesting(KOR_CLASS_NETWORK_INTERFACE), queries);
  EXPECT_TRUE(waitUntil([&] { return prop_->pendingNetInterfaceEvents() == 0; }));
  // Once the propagator rests, every private session of its harvests is
  // ended again.
  EXPECT_TRUE(waitUntil([&] {
    return prop_->pendingSyncEvents() == 0 && prop_->waitersForTesting() == 1 &&
           fake_mc::sessionsOpenForTesting() == 0;
  }));
  {
    GSReadGuard hold(*AMController::pGAdapterCfgTbl);
    AMAdapterItem* row = AMController::pGAdapterCfgTbl->locateAdapterItem(3, _idxFromInterfaceName("sxn0"));
    ASSERT_NE(row, nullptr);
    EXPECT_TRUE(row->isConfiged);
  }
  fake_mc::resetForTesting();
}

// Cooked providers against a real agent (`veltd --standalone` in a private
// directory): a join and a goodbye, and what a back-level cluster that
// refuses goodbye makes of a leave: a one-phase leave protocol for
// sxn1Membership, a restart of the daemon (stop code 9) for sxnMembership
// when nothing else is joined.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "mediator_test_support.h"

using namespace mediator_test;

namespace {

// Waits for pred with a bound.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
  auto until = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// The controller connected to a veltd of its own, with a dispatch thread.
class CookedAgainstVeltd : public MediatorFixture {
 protected:
  void TearDown() override {
    if (dispatcher_.joinable()) {
      ctl_->quit();
      dispatcher_.join();
    }
    if (agentPid_ > 0) {
      kill(agentPid_, SIGKILL);
      waitpid(agentPid_, nullptr, 0);
    }
    MediatorFixture::TearDown();
  }

  ::testing::AssertionResult startVeltd(const std::vector<std::string>& extra = {}) {
    std::string socket = dir_ + "/agent.sock";
    std::string state = dir_ + "/state";
    mkdir(state.c_str(), 0700);
    std::vector<std::string> argv = {VELTD_PATH, "--standalone", "--socket", socket, "--state-dir", state,
                                     "--log", dir_ + "/veltd.log"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    agentPid_ = fork();
    if (agentPid_ == 0) {
      // The agent goes with the test process, also when a death test's
      // child ends without cleaning up.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
    if (agentPid_ < 0) return ::testing::AssertionFailure() << "cannot fork veltd";
    tk_gs_rc_t rc = TK_GS_NOT_CONNECTED;
    bool connected = waitUntil([&] {
      rc = ctl_->initialize();
      if (rc == TK_GS_OK) return true;
      ctl_->quit();
      return false;
    });
    if (!connected) return ::testing::AssertionFailure() << "no connection to veltd: " << gscl_rc_name(rc);
    dispatcher_ = std::thread([this] {
      TraceClient threadClient(traceMarket, 0);
      while (ctl_->dispatch(TK_GS_BLOCKING) == TK_GS_OK) {
      }
    });
    return ::testing::AssertionSuccess();
  }

  ::testing::AssertionResult joined(AMCookedProvider& p) {
    tk_gs_rc_t rc = p.joinGroup();
    if (rc != TK_GS_OK) return ::testing::AssertionFailure() << "join: " << gscl_rc_name(rc);
    if (!waitUntil([&] { return p.getClientState() == GS_IAM_JOINED; })) {
      return ::testing::AssertionFailure() << "not joined";
    }
    return ::testing::AssertionSuccess();
  }

  pid_t agentPid_ = -1;
  std::thread dispatcher_;
};

TEST_F(CookedAgainstVeltd, AJoinedProviderSaysGoodbye) {
  ASSERT_TRUE(startVeltd());
  AMCookedProvider p(mediator_, "sxnMembership", 0, 0, "sxn0", 0, 0);
  ASSERT_TRUE(joined(p));
  GSMembershipList members;
  ASSERT_EQ(TK_GS_OK, p.getMembers(&members));
  EXPECT_TRUE(members.contains(p.getProviderId()));
  EXPECT_EQ(TK_GS_OK, p.LeaveOrGoodbyeGroup());
  EXPECT_EQ(GS_IAM_IDLE, p.getClientState());
  EXPECT_NE(std::string::npos, log().find(" goodbyeGroup() returns TK_GS_OK"));
}

TEST_F(CookedAgainstVeltd, OnABackLevelClusterSxn1LeavesByProtocolAndNeverRestarts) {
  ASSERT_TRUE(startVeltd({"--claim-version", "2.4.0.0"}));
  AMCookedProvider p(mediator_, "sxn1Membership", 1, 0, "sxn1", 1, 0);
  ASSERT_TRUE(joined(p));
  EXPECT_EQ(TK_GS_OK, p.LeaveOrGoodbyeGroup());
  EXPECT_TRUE(waitUntil([&] { return p.getClientState() == GS_IAM_IDLE; }));
  EXPECT_EQ(0, ctl_->AmIExiting());
  std::string text = log();
  EXPECT_EQ(std::string::npos, text.find("tolkvask will be restarted")) << text;
  EXPECT_EQ(std::string::npos, text.find(" goodbyeGroup() returns"));
}

TEST_F(CookedAgainstVeltd, OnABackLevelClusterSxnMembershipWithAnotherGroupJoinedLeavesByProtocol) {
  ASSERT_TRUE(startVeltd({"--claim-version", "2.4.0.0"}));
  currentNumbersOfNetworks.store(1);
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.0.2", 1);
  AMCookedProvider* net0 = mediator_->appendMember("sxn0");
  AMCookedProvider* net1 = mediator_->appendMember("sxn1");
  ASSERT_NE(nullptr, net0);
  ASSERT_NE(nullptr, net1);
  ASSERT_STREQ("sxnMembership", net0->getGroupName());
  ASSERT_TRUE(joined(*net0));
  ASSERT_TRUE(joined(*net1));
  EXPECT_EQ(TK_GS_OK, net0->LeaveOrGoodbyeGroup());
  EXPECT_TRUE(waitUntil([&] { return net0->getClientState() == GS_IAM_IDLE; }));
  EXPECT_EQ(0, ctl_->AmIExiting());
}

TEST_F(CookedAgainstVeltd, OnABackLevelClusterSxnMembershipAloneRestartsTheDaemon) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        if (!startVeltd({"--claim-version", "2.4.0.0"})) _exit(90);
        // Detached like the daemon's dispatch thread: the restart ends the
        // process without joining it.
        dispatcher_.detach();
        AMCookedProvider p(mediator_, "sxnMembership", 0, 0, "sxn0", 0, 0);
        if (!joined(p)) _exit(91);
        p.LeaveOrGoodbyeGroup();
        _exit(92);   // not reached: the restart ends the process
      },
      ::testing::ExitedWithCode(9), "");
  EXPECT_NE(std::string::npos,
            log().find("There must be a old-level node which does not support goodbye protocol. Fortunately, "
                       "no sxn1 or ml0  are currently joined. So, tolkvask will be restarted."));
}

}  // namespace

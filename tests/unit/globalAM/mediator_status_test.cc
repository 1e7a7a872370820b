// The mediator's status lines as an SRC status request shows them: the
// canonical per-adapter lines and the long form's line per network.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "AMPropagate.h"
#include "mediator_test_support.h"
#include "srcctl_support.h"
#include "tk_gs_tolkvaskd_msg.h"

using namespace mediator_test;

namespace {

// The propagator's status with the mediators' lines after it, as the
// daemon's report brings them.
class StatusPropagator : public AMPropagator {
 public:
  void doLongStatus() override {
    AMPropagator::doLongStatus();
    doAllMediatorsLongStatus();
  }
  void doCanonicalLongStatus() override {
    AMPropagator::doCanonicalLongStatus();
    doAllMediatorsCanonicalLongStatus();
  }
};

class MediatorStatus : public MediatorFixture {
 protected:
  void SetUp() override {
    MediatorFixture::SetUp();
    if (HasFatalFailure()) return;
    // A request socket of our own, so that tests running at the same time
    // do not meet on the default one.
    std::string srcDir = dir_ + "/src";
    ASSERT_EQ(0, mkdir(srcDir.c_str(), 0700));
    setenv("VELT_SRC_DIR", srcDir.c_str(), 1);
    std::string excl = dir_ + "/tolkvaskd.excl";
    ASSERT_EQ(0, ctl_->SRCDriver::InitSRC(1, excl.c_str(), 88, nullptr));
    propagator_ = new StatusPropagator();
    AMController::propagator = propagator_;
  }
  void TearDown() override {
    AMController::propagator = nullptr;
    unsetenv("VELT_SRC_DIR");
    MediatorFixture::TearDown();
  }

  // Runs srcctl with args against this process's SRC socket, serving the
  // request on this thread as the main loop would; returns its output.
  std::string srcctl(const std::vector<std::string>& args) {
    return srcctl_test::srcctlServed(ctl_, args, std::chrono::seconds(5));
  }

  StatusPropagator* propagator_ = nullptr;
};

TEST_F(MediatorStatus, CanonicalLinesShowEachLocalAdapterAndWhetherItIsJoined) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  std::string before = srcctl({"request", "999"});
  EXPECT_NE(std::string::npos,
            before.find("Adapter0: sxn0\nAdapter0_Device_Exists: No\nAdapter0_Raw_Group: allAdapterMembership\n"
                        "Adapter0_Raw_Mbrs: 1\nAdapter0_Raw_Subscribed: Yes\nAdapter0_Raw_Aliases: 1\n"
                        "Adapter0_Group: sxnMembership\nAdapter0_Joined: No\nAdapter0_Subscribed: No\n"))
      << before;
  EXPECT_EQ(std::string::npos, before.find("Adapter0_Mbrs:"));

  ctl_->readyToRoll = 1;
  ASSERT_EQ(-1, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}));
  ASSERT_TRUE(approveJoin(mediator_->getCookedProvider(0)));
  std::string after = srcctl({"request", "999"});
  EXPECT_NE(std::string::npos,
            after.find("Adapter0_Group: sxnMembership\nAdapter0_Joined: Yes\nAdapter0_Subscribed: No\n"
                       "Adapter0_Mbrs: 1\n"))
      << after;
}

TEST_F(MediatorStatus, TheLongFormHasOneLinePerNetwork) {
  defineLocal("sxn0", "10.0.0.1", 0);
  ASSERT_TRUE(connectToFakeAgent());
  ASSERT_TRUE(subscribeRaw({{"sxn0", "10.0.0.1"}}));
  char notJoined[256];
  snprintf(notJoined, sizeof notJoined, "%-17s%-6s%-7s%-7s%-7s%-6s%-14s\n", "sxnMembership", "-", "-", "-", "No",
           "No", "(not found)");
  std::string before = srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, before.find(notJoined)) << before;

  ctl_->readyToRoll = 1;
  ASSERT_EQ(-1, answered<int>([&] { return mediator_->processOnePass(); }, {TK_GS_OK, TK_GS_OK}));
  ASSERT_TRUE(approveJoin(mediator_->getCookedProvider(0)));
  char joined[256];
  snprintf(joined, sizeof joined, "%-17s%-6s%-7s%-7s%-7s%-6s%-14s\n", "sxnMembership", "  1", "1", "1", "Yes", "No",
           "sxn0(up)");
  std::string after = srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, after.find(joined)) << after;
}

TEST_F(MediatorStatus, ASwitchOnlyClusterShowsALineForItsSecondPlane) {
  // No InfiniBand group names: the networks are the switch interfaces, and
  // sxn1's group has its line although no provider joined it yet.
  currentNumbersOfNetworks.store(0);
  defineLocal("sxn0", "10.0.0.1", 0);
  defineLocal("sxn1", "10.0.1.1", 1);
  ASSERT_TRUE(connectToFakeAgent());
  char line[256];
  snprintf(line, sizeof line, "%-17s%-6s%-7s%-7s%-7s%-6s%-14s\n", "sxn1Membership", "-", "-", "-", "No", "No",
           "(not found)");
  std::string text = srcctl({"status", "-l"});
  EXPECT_NE(std::string::npos, text.find(line)) << text;
  EXPECT_EQ(std::string::npos, text.find("sxn2Membership")) << text;
}

}  // namespace

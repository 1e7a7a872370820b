// The client library against a real agent: `veltd --standalone` in a
// private directory, provider processes (gscl_test_provider, one
// controller each, driven through pipes) and a subscriber in this process.
// Shows that what the library promises holds end to end: joins, leaves,
// goodbye, failure leave of a killed process, n-phase state values with
// votes and the default vote, provider messages, the back-level goodbye
// refusal, a subscription that waits for its group, and the death of the
// agent.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fake_agent.h"
#include "gs_client.h"
#include "gs_controller.h"
#include "gscl_test_util.h"

using namespace velt_gscl_V1;
using gscl_test::kBound;
using gscl_test::TempDir;

namespace {

// Protocols with time limits take a little longer than the bound of a
// prompt answer.
constexpr std::chrono::seconds kSlowBound{10};

// A child process with a pipe to its standard input and one from its
// standard output. Owned by the test thread.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
      execv(args[0], args.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    toChild_ = in[1];
    fromChild_ = out[0];
  }
  ~Child() {
    if (toChild_ >= 0) close(toChild_);
    kill(SIGKILL);
    reap();
    if (fromChild_ >= 0) close(fromChild_);
  }
  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  bool send(const std::string& line) {
    std::string l = line + "\n";
    return write(toChild_, l.data(), l.size()) == static_cast<ssize_t>(l.size());
  }
  // Waits for an output line, not matched before, that contains every
  // piece, and marks it matched. Answers and callbacks run on different
  // threads, so their lines may come in either order.
  bool waitFor(const std::vector<std::string>& pieces, std::chrono::milliseconds bound = kBound) {
    auto until = std::chrono::steady_clock::now() + bound;
    while (true) {
      for (size_t i = 0; i < lines_.size(); ++i) {
        if (used_[i]) continue;
        bool all = true;
        for (const std::string& p : pieces) all = all && lines_[i].find(p) != std::string::npos;
        if (all) {
          used_[i] = true;
          return true;
        }
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !readMore(left)) return false;
    }
  }
  std::string history() const {
    std::string all;
    for (const std::string& l : lines_) all += l + "\n";
    return all;
  }
  void kill(int sig) {
    if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
  }
  void reap() {
    if (pid_ > 0 && !reaped_) {
      int status;
      waitpid(pid_, &status, 0);
      reaped_ = true;
    }
  }

 private:
  bool readMore(std::chrono::milliseconds left) {
    struct pollfd p = {fromChild_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
    char buf[4096];
    ssize_t n = read(fromChild_, buf, sizeof buf);
    if (n <= 0) return false;
    partial_.append(buf, static_cast<size_t>(n));
    size_t pos;
    while ((pos = partial_.find('\n')) != std::string::npos) {
      lines_.push_back(partial_.substr(0, pos));
      used_.push_back(false);
      partial_.erase(0, pos + 1);
    }
    return true;
  }
  pid_t pid_ = -1;
  bool reaped_ = false;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
  std::vector<bool> used_;
};

// What the in-process subscriber saw. Thread-safe.
class RecordingSubscriber : public GSSubscriber {
 public:
  explicit RecordingSubscriber(const char* group)
      : GSSubscriber(group, TK_GS_SUBSCRIPTION_DELTA_JOIN | TK_GS_SUBSCRIPTION_DELTA_LEAVE) {}
  // No callback may reach the members below once they start to go.
  ~RecordingSubscriber() override { unregister(); }
  tk_gs_callback_rc_t subscribeCb(const tk_gs_subscription_notification_t* n) override {
    std::string line = std::string("subscription ") + gscl_subscription_type_names(n->gs_subscription_type) +
                       " count=" + std::to_string(n->gs_full_membership->gs_count);
    if (n->gs_changing_membership != nullptr) {
      line += " changing=" + std::to_string(n->gs_changing_membership->gs_count);
    }
    add(line);
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    add(std::string("delayed ") + gscl_rc_name(n->gs_delayed_return_code));
    return TK_GS_CALLBACK_OK;
  }
  bool waitFor(const std::string& piece, std::chrono::milliseconds bound = kBound) {
    std::unique_lock<std::mutex> lk(mu_);
    return cv_.wait_for(lk, bound, [&] {
      while (next_ < lines_.size()) {
        if (lines_[next_++].find(piece) != std::string::npos) return true;
      }
      return false;
    });
  }
  std::string history() {
    std::lock_guard<std::mutex> lk(mu_);
    std::string all;
    for (const std::string& l : lines_) all += l + "\n";
    return all;
  }

 private:
  void add(const std::string& line) {
    std::lock_guard<std::mutex> lk(mu_);
    lines_.push_back(line);
    cv_.notify_all();
  }
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> lines_;
  size_t next_ = 0;
};

class RealAgent : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    socket_ = dir_.path() + "/agent.sock";
    setenv("VELT_AGENT_SOCKET", socket_.c_str(), 1);
  }
  void TearDown() override {
    controller_.quit();
    if (dispatcher_.joinable()) dispatcher_.join();
    providers_.clear();
    agent_.reset();
    unsetenv("VELT_AGENT_SOCKET");
  }

  // Starts veltd with extra arguments and connects this process.
  ::testing::AssertionResult startAgent(const std::vector<std::string>& extra = {}) {
    std::string state = dir_.path() + "/state";
    mkdir(state.c_str(), 0700);
    std::vector<std::string> argv = {VELTD_PATH, "--standalone", "--socket", socket_, "--state-dir", state,
                                     "--log", dir_.path() + "/veltd.log"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    agent_.reset(new Child(argv, {}));
    if (!agent_->started()) return ::testing::AssertionFailure() << "cannot start veltd";
    tk_gs_rc_t rc = TK_GS_NOT_CONNECTED;
    bool connected = gscl_test::waitUntil([&] {
      rc = controller_.initialize();
      if (rc == TK_GS_OK) return true;
      controller_.quit();
      return false;
    }, kSlowBound);
    if (!connected) return ::testing::AssertionFailure() << "no connection to veltd: " << gscl_rc_name(rc);
    dispatcher_ = std::thread([this] {
      tk_gs_rc_t d;
      while ((d = controller_.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
      }
      dispatchEnd_.store(d);
    });
    return ::testing::AssertionSuccess();
  }

  Child* startProvider(const std::string& group, int instance) {
    providers_.emplace_back(new Child({GSCL_TEST_PROVIDER_PATH, group, std::to_string(instance)},
                                      {"VELT_AGENT_SOCKET=" + socket_}));
    Child* c = providers_.back().get();
    EXPECT_TRUE(c->waitFor({"rc initialize TK_GS_OK"}, kSlowBound)) << c->history();
    return c;
  }

  // Runs command on a provider and waits for its answer line.
  ::testing::AssertionResult run(Child* c, const std::string& command, const std::string& answer) {
    if (!c->send(command)) return ::testing::AssertionFailure() << "cannot write to the provider";
    if (!c->waitFor({answer})) return ::testing::AssertionFailure() << "no \"" << answer << "\":\n" << c->history();
    return ::testing::AssertionSuccess();
  }

  TempDir dir_;
  std::string socket_;
  std::unique_ptr<Child> agent_;
  GSController controller_{0x30014};
  std::thread dispatcher_;
  std::atomic<int> dispatchEnd_{-1};
  std::vector<std::unique_ptr<Child>> providers_;
};

}  // namespace

TEST_F(RealAgent, JoinLeaveAndGoodbyeReachEveryProviderAndTheSubscriber) {
  ASSERT_TRUE(startAgent());
  RecordingSubscriber watcher("veltdGroup");
  // The group does not exist yet: the subscription waits for it.
  ASSERT_EQ(TK_GS_OK, watcher.subscribeGroup());
  ASSERT_TRUE(watcher.waitFor("delayed TK_GS_UNKNOWN_GROUP")) << watcher.history();
  EXPECT_EQ(GS_IAM_SUBSCRIBING, watcher.getClientState());

  Child* p1 = startProvider("veltdGroup", 1);
  Child* p2 = startProvider("veltdGroup", 2);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_JOIN", "state=GS_IAM_JOINED", "changing=1/"})) << p1->history();
  ASSERT_TRUE(watcher.waitFor("subscription TK_GS_SUBSCRIPTION_MEMBERSHIP count=1")) << watcher.history();
  EXPECT_EQ(GS_IAM_SUBSCRIBED, watcher.getClientState());

  ASSERT_TRUE(run(p2, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb approved", "type=TK_GS_JOIN", "state=GS_IAM_JOINED", "changing=2/"})) << p2->history();
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_JOIN", "changing=2/"})) << p1->history();
  ASSERT_TRUE(watcher.waitFor("subscription TK_GS_SUBSCRIPTION_DELTA_JOIN count=2 changing=1")) << watcher.history();
  GSMembershipList members;
  ASSERT_EQ(TK_GS_OK, watcher.getMembers(&members));
  EXPECT_EQ(2u, members.count());

  ASSERT_TRUE(run(p2, "leave", "rc leave TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb approved", "type=TK_GS_LEAVE", "state=GS_IAM_IDLE"})) << p2->history();
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_LEAVE", "state=GS_IAM_JOINED", "changing=2/"}))
      << p1->history();
  ASSERT_TRUE(watcher.waitFor("subscription TK_GS_SUBSCRIPTION_DELTA_LEAVE count=1 changing=1")) << watcher.history();

  ASSERT_TRUE(run(p2, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb approved", "type=TK_GS_JOIN", "state=GS_IAM_JOINED"})) << p2->history();
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_JOIN", "changing=2/"})) << p1->history();
  ASSERT_TRUE(watcher.waitFor("subscription TK_GS_SUBSCRIPTION_DELTA_JOIN count=2")) << watcher.history();
  ASSERT_TRUE(run(p2, "goodbye", "rc goodbye TK_GS_OK"));
  ASSERT_TRUE(run(p2, "state", "state GS_IAM_IDLE"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_LEAVE", "changing=2/", "state=GS_IAM_JOINED"}))
      << p1->history();
  ASSERT_TRUE(watcher.waitFor("TK_GS_SUBSCRIPTION_DELTA_LEAVE count=1")) << watcher.history();
}

TEST_F(RealAgent, KilledProviderProcessLeavesByFailure) {
  ASSERT_TRUE(startAgent());
  Child* p1 = startProvider("crashGroup", 1);
  Child* p2 = startProvider("crashGroup", 2);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p1->history();
  ASSERT_TRUE(run(p2, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "changing=2/"})) << p1->history();
  RecordingSubscriber watcher("crashGroup");
  ASSERT_EQ(TK_GS_OK, watcher.subscribeGroup());
  ASSERT_TRUE(watcher.waitFor("count=2")) << watcher.history();
  p2->kill(SIGKILL);
  p2->reap();
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_FAILURE_LEAVE", "changing=2/", "state=GS_IAM_JOINED"}))
      << p1->history();
  ASSERT_TRUE(watcher.waitFor("TK_GS_SUBSCRIPTION_DELTA_LEAVE count=1 changing=1")) << watcher.history();
}

TEST_F(RealAgent, StateValueIsApprovedRejectedOrTakesTheDefaultVote) {
  ASSERT_TRUE(startAgent());
  Child* p1 = startProvider("cfgGroup", 1);
  Child* p2 = startProvider("cfgGroup", 2);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p1->history();
  ASSERT_TRUE(run(p2, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p2->history();
  ASSERT_TRUE(run(p1, "autovote approve", "ok autovote"));
  ASSERT_TRUE(run(p2, "autovote approve", "ok autovote"));

  // Everyone approves: the value is committed.
  ASSERT_TRUE(run(p1, "change first 60", "rc change TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb nphase", "type=TK_GS_CHANGE_STATE_VALUE", "value=first"})) << p2->history();
  ASSERT_TRUE(p2->waitFor({"rc vote TK_GS_OK"})) << p2->history();
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_CHANGE_STATE_VALUE", "value=first"})) << p1->history();
  ASSERT_TRUE(p2->waitFor({"cb approved", "type=TK_GS_CHANGE_STATE_VALUE", "value=first"})) << p2->history();

  // One rejects: rejected everywhere.
  ASSERT_TRUE(run(p2, "autovote reject", "ok autovote"));
  ASSERT_TRUE(run(p1, "change second 60", "rc change TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb rejected", "type=TK_GS_CHANGE_STATE_VALUE"})) << p1->history();
  ASSERT_TRUE(p2->waitFor({"cb rejected", "type=TK_GS_CHANGE_STATE_VALUE"})) << p2->history();

  // One stays silent: after the time limit its vote is the group's default
  // (approve).
  ASSERT_TRUE(run(p2, "autovote none", "ok autovote"));
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(run(p1, "change third 1", "rc change TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb nphase", "value=third"})) << p2->history();
  ASSERT_TRUE(p1->waitFor({"cb approved", "value=third"}, kSlowBound)) << p1->history();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(RealAgent, ProviderMessageReachesEveryProvider) {
  ASSERT_TRUE(startAgent());
  Child* p1 = startProvider("msgGroup", 1);
  Child* p2 = startProvider("msgGroup", 2);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p1->history();
  ASSERT_TRUE(run(p2, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p2->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p2->history();
  ASSERT_TRUE(run(p2, "msg harvest", "rc msg TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_PROVIDER_MESSAGE", "msg=harvest"})) << p1->history();
  ASSERT_TRUE(p2->waitFor({"cb approved", "type=TK_GS_PROVIDER_MESSAGE", "msg=harvest"})) << p2->history();
}

TEST_F(RealAgent, BackLevelAgentRefusesGoodbye) {
  ASSERT_TRUE(startAgent({"--claim-version", "2.4.0.0"}));
  tk_gs_velt_version_t v;
  ASSERT_EQ(TK_GS_OK, controller_.get_velt_active_version(&v));
  EXPECT_EQ(0x02040000u, v.quick_version);
  Child* p1 = startProvider("oldGroup", 1);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p1->history();
  ASSERT_TRUE(run(p1, "goodbye", "rc goodbye TK_GS_BACKLEVEL_PROVIDERS"));
  ASSERT_TRUE(run(p1, "state", "state GS_IAM_JOINED"));
  // The fallback the daemon uses: a one-phase leave.
  ASSERT_TRUE(run(p1, "leave", "rc leave TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "type=TK_GS_LEAVE", "state=GS_IAM_IDLE"})) << p1->history();
}

TEST_F(RealAgent, KilledAgentIsAnnouncedToEveryone) {
  ASSERT_TRUE(startAgent());
  Child* p1 = startProvider("lastGroup", 1);
  ASSERT_TRUE(run(p1, "join", "rc join TK_GS_OK"));
  ASSERT_TRUE(p1->waitFor({"cb approved", "state=GS_IAM_JOINED"})) << p1->history();
  RecordingSubscriber watcher("lastGroup");
  ASSERT_EQ(TK_GS_OK, watcher.subscribeGroup());
  ASSERT_TRUE(watcher.waitFor("count=1")) << watcher.history();
  agent_->kill(SIGKILL);
  agent_->reap();
  ASSERT_TRUE(p1->waitFor({"cb announcement", "TK_GS_GROUP_SERVICES_HAS_DIED", "state=GS_IAM_IDLE"}))
      << p1->history();
  ASSERT_TRUE(p1->waitFor({"dispatch TK_GS_GS_HAS_DIED"})) << p1->history();
  ASSERT_TRUE(watcher.waitFor("subscription TK_GS_SUBSCRIPTION_GS_HAS_DIED")) << watcher.history();
  ASSERT_TRUE(gscl_test::waitUntil([&] { return dispatchEnd_.load() == TK_GS_GS_HAS_DIED; }));
  EXPECT_EQ(GS_IAM_IDLE, watcher.getClientState());
}

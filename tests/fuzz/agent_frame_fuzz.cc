// Feeds arbitrary bytes to veltd as its clients send them: packets on two
// client connections, each put together by the socket framing
// (wire::Reassembler, as ClientSession does), read as a client frame
// (parseClientFrame) and handed to the agent's request routing (AgentCore
// on a loopback bus, so that requests go through the replicated state),
// with the clock moved and connections closed and opened again now and
// then. Nothing may crash, hang or grow without bound; every frame the
// agent sends a client is of our wire version and parses.
//
// The input is a run of steps, one byte of kind and its arguments:
//   0, 1  PACKET len16 bytes   one packet from client 0 or 1
//   2     TICK                 the timers that are armed fire
//   3     CLOSE which          the client's connection ends; a new one
//                              takes its place
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/stubs/logging.h>

#include "agent_core.h"
#include "client_session.h"
#include "frame_io.h"
#include "fuzz_input.h"
#include "loopback_bus.h"
#include "velt.pb.h"

namespace {

using velt::agent::AgentCore;
using velt::agent::ClientPort;

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "agent_frame_fuzz: %s\n", what.c_str());
  abort();
}

// Timers that fire when the script says so.
class ScriptTimers : public velt::agent::TimerSource {
 public:
  class ScriptTimer : public velt::agent::Timer {
   public:
    explicit ScriptTimer(ScriptTimers* owner) : owner_(owner) { owner_->timers_.insert(this); }
    ~ScriptTimer() override { owner_->timers_.erase(this); }
    void start(std::chrono::milliseconds, std::function<void()> fired) override { fired_ = std::move(fired); }
    void cancel() override { fired_ = nullptr; }
    ScriptTimers* owner_;
    std::function<void()> fired_;
  };

  std::unique_ptr<velt::agent::Timer> newTimer() override { return std::make_unique<ScriptTimer>(this); }

  // Fires each timer armed now once (a callback may arm, cancel or destroy
  // timers, its own included).
  void fireArmed() {
    std::vector<ScriptTimer*> armed;
    for (ScriptTimer* t : timers_) {
      if (t->fired_) armed.push_back(t);
    }
    for (ScriptTimer* t : armed) {
      if (timers_.count(t) == 0 || !t->fired_) continue;
      std::function<void()> fired = std::move(t->fired_);
      t->fired_ = nullptr;
      fired();
    }
  }

 private:
  std::set<ScriptTimer*> timers_;
};

// One client connection in memory, with the framing and the checks of
// ClientSession in front of the core.
class ScriptClient : public ClientPort {
 public:
  ScriptClient(uint64_t id, size_t maxMessage) : id_(id), reassembler_(maxMessage) {}

  uint64_t id() const override { return id_; }
  const Peer& peer() const override { return peer_; }
  const std::string& program() const override { return program_; }
  void setProgram(const std::string& program) override { program_ = program.substr(0, 64); }
  void accept(const velt::proto::AgentFrame& helloReply) override {
    if (state_ != State::kAwaitingHello) return;
    state_ = State::kAccepted;
    check(helloReply);
  }
  void refuse(const velt::proto::AgentFrame& frame, const std::string&) override {
    if (state_ == State::kClosed || state_ == State::kRefused) return;
    check(frame);
    state_ = State::kRefused;
  }
  void send(const velt::proto::AgentFrame& frame) override {
    if (state_ == State::kClosed || state_ == State::kRefused) return;
    check(frame);
  }
  void sendFrames(std::unique_ptr<velt::agent::FrameSource> source) override {
    std::string bytes;
    size_t from = 0;
    while (state_ != State::kClosed && state_ != State::kRefused && source->next(&bytes, &from)) {
      velt::proto::AgentFrame frame;
      if (from > bytes.size() || !frame.ParseFromArray(bytes.data() + from, static_cast<int>(bytes.size() - from))) {
        fail("a frame made by a source does not parse");
      }
      check(frame);
    }
  }
  void close(const std::string&) override {
    if (state_ != State::kClosed) wasAccepted_ = state_ == State::kAccepted;
    state_ = State::kClosed;
  }
  void setResponsiveness(uint32_t, uint32_t) override {}
  bool accepted() const override { return state_ == State::kAccepted; }
  bool closed() const override { return state_ == State::kClosed; }
  bool ended() const { return state_ == State::kClosed || state_ == State::kRefused; }
  bool wasAccepted() const { return wasAccepted_; }

  // One packet from the client, as ClientSession reads it.
  void packet(AgentCore& core, const std::string& bytes) {
    if (ended()) return;
    if (bytes.size() > velt::wire::kMaxPacket) {
      close("malformed frame: a packet too large");
      return;
    }
    std::string message, why;
    int rc = reassembler_.feed(bytes.data(), bytes.size(), &message, &why);
    if (rc < 0) {
      if (why.empty()) fail("a refused packet without a reason");
      close(why);
      return;
    }
    if (rc == 0) return;
    velt::proto::ClientFrame frame;
    if (!velt::agent::parseClientFrame(message, &frame, &why)) {
      if (why.empty()) fail("a refused frame without a reason");
      close(why);
      return;
    }
    if (frame.has_hello()) {
      if (state_ != State::kAwaitingHello || helloSeen_) {
        close("protocol error: a second hello");
        return;
      }
      helloSeen_ = true;
      core.hello(*this, frame.hello());
    } else if (frame.has_request()) {
      if (state_ != State::kAccepted) {
        close("protocol error: a request before the hello");
        return;
      }
      core.request(*this, frame.request());
    }
  }

 private:
  enum class State { kAwaitingHello, kAccepted, kRefused, kClosed };

  static void check(const velt::proto::AgentFrame& frame) {
    if (frame.version() != velt::proto::WIRE_VERSION_1) fail("a frame of another wire version");
    velt::proto::AgentFrame again;
    if (!again.ParseFromString(frame.SerializeAsString())) fail("a frame to a client does not parse");
  }

  uint64_t id_;
  velt::wire::Reassembler reassembler_;
  Peer peer_;
  std::string program_;
  State state_ = State::kAwaitingHello;
  bool helloSeen_ = false;
  bool wasAccepted_ = false;
};

struct Agent {
  Agent() : bus(1), core(&bus, &timers, AgentCore::Settings(), [](const std::string&) {}) {
    if (bus.open() != 0 || bus.join() != 0) fail("the loopback bus does not start");
    settle();
    for (auto& c : clients) newClient(c);
  }
  ~Agent() {
    for (auto& c : clients) endClient(c);
  }
  void settle() {
    for (int i = 0; i < 64 && bus.pendingBytesForTesting() > 0; ++i) bus.dispatch();
    core.busDispatched();
  }
  void newClient(std::unique_ptr<ScriptClient>& c) {
    c = std::make_unique<ScriptClient>(++lastId, AgentCore::Settings().maxMessageBytes);
    core.clientConnected(c.get());
  }
  // The process layer tells the core of a connection that ended.
  void endClient(std::unique_ptr<ScriptClient>& c) {
    if (!c->closed()) c->close("the test ends it");
    core.clientClosed(*c, "closed", c->wasAccepted());
  }

  velt::agent::LoopbackBus bus;
  ScriptTimers timers;
  AgentCore core;
  std::unique_ptr<ScriptClient> clients[2];
  uint64_t lastId = 0;
};

}  // namespace

// Every input starts an agent, which touches thousands of edges; libFuzzer's
// entropic schedule then spends most of its time weighing features (a
// seventh of the inputs per second), so this target runs with the plain
// schedule. Flags given on the command line still come last and win.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  static std::vector<char*> args;
  static char plainSchedule[] = "-entropic=0";
  args.assign(*argv, *argv + *argc);
  args.insert(args.begin() + 1, plainSchedule);
  args.push_back(nullptr);
  *argc = static_cast<int>(args.size()) - 1;
  *argv = args.data();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Invalid text in string fields is refused by the parser; its complaint
  // on standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  Agent agent;
  velt_fuzz::FuzzInput script(data, size);
  for (int steps = 0; !script.done() && steps < 1024; ++steps) {
    const uint8_t kind = script.byte() % 4;
    switch (kind) {
      case 0:
      case 1:
        agent.clients[kind]->packet(agent.core, script.bytes16());
        break;
      case 2:
        agent.timers.fireArmed();
        break;
      default: {
        std::unique_ptr<ScriptClient>& c = agent.clients[script.byte() % 2];
        agent.endClient(c);
        agent.newClient(c);
        break;
      }
    }
    agent.settle();
    // A connection that ended itself is reported as the process layer
    // reports it, and a new one takes its place.
    for (auto& c : agent.clients) {
      if (c->ended()) {
        agent.endClient(c);
        agent.newClient(c);
      }
    }
  }
  return 0;
}

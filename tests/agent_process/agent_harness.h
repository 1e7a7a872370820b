// Test support for the agent process: a real `veltd` started in a private
// directory, a small client that speaks the agent socket's protocol in raw
// frames, and veltctl runs. Every wait has a bound.
#ifndef VELT_TESTS_AGENT_PROCESS_AGENT_HARNESS_H_
#define VELT_TESTS_AGENT_PROCESS_AGENT_HARNESS_H_

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "frame_io.h"
#include "velt.pb.h"

namespace velt_test {

// How long a test waits for something the agent does at once.
constexpr int kPromptMs = 5000;

// A private directory (mode 0755, so that a child that dropped its
// privileges can reach the socket in it), removed at the end of the test.
// Thread-compatible.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);

struct CommandResult {
  int status = -1;   // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs argv with env added to a minimal environment; kills it after
// timeoutMs.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, int timeoutMs);

std::string veltdPath();
std::string veltctlPath();

// One veltd process with its socket, state directory and log in dir.
// Thread-compatible (one test thread drives it).
class AgentProcess {
 public:
  explicit AgentProcess(const std::string& dir);
  ~AgentProcess();   // kills the process if it still runs

  // Starts `veltd --standalone --socket S --state-dir D --log L` plus args
  // (without --standalone when standalone is false), and `--interfaces
  // none` unless args name the interfaces. Starting again after the
  // process exited is a restart in the same directory; while it runs,
  // start() refuses.
  bool start(const std::vector<std::string>& args = {}, bool standalone = true);
  // Variables added to the process's environment at the next start().
  void setEnvironment(const std::map<std::string, std::string>& env) { env_ = env; }
  // Waits until the socket takes connections.
  bool waitReady(int timeoutMs = kPromptMs);
  // start() and waitReady().
  bool startReady(const std::vector<std::string>& args = {});
  bool signal(int sig);
  // When it still runs: SIGTERM, and true when it then exits 0 in time
  // (every test ends this way, so that each scenario also shows a clean
  // stop).
  bool stopCleanly();
  bool waitExit(int timeoutMs);
  bool running();
  int exitStatus() const { return status_; }   // 128 + signal when killed

  pid_t pid() const { return pid_; }
  const std::string& socketPath() const { return socket_; }
  const std::string& stateDir() const { return state_; }
  std::string log() const;
  std::string err() const;
  bool waitForLog(const std::string& text, int timeoutMs = kPromptMs);
  // Resident memory of the process in KiB (0 when unknown).
  long residentKb() const;

  // veltctl --socket S args..., ended after timeoutMs.
  CommandResult veltctl(const std::vector<std::string>& args, int timeoutMs = kPromptMs * 2);

 private:
  std::string dir_;
  std::string socket_;
  std::string state_;
  std::string logFile_;
  std::map<std::string, std::string> env_;
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool exited_ = false;
  int status_ = -1;
};

// A client of the agent socket that sends and reads raw frames.
// Thread-compatible (one test thread drives it).
class TestClient {
 public:
  enum class Got { kFrame, kClosed, kTimeout };

  TestClient() = default;
  ~TestClient();
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;

  // Connects; returns 0 or an errno value.
  int connect(const std::string& path);
  void close();
  int fd() const { return fd_; }

  // One message (a serialised frame, or any bytes) in packets with headers.
  int sendMessage(const std::string& bytes);
  // One packet exactly as given, no header added.
  int sendPacket(const std::string& packet);
  int send(const velt::proto::ClientFrame& frame);

  Got receive(velt::proto::AgentFrame* frame, int timeoutMs);
  // Reads frames until one matches; the others are kept in seen(). False on
  // time-out or close.
  bool waitFor(const std::function<bool(const velt::proto::AgentFrame&)>& match,
               velt::proto::AgentFrame* out, int timeoutMs = kPromptMs);
  // Reads (and drops) frames until the agent closes the connection.
  bool waitClosed(int timeoutMs = kPromptMs);

  // Sends a hello (with ping responsiveness when interval > 0) and reads
  // the hello reply into *reply. False when none came.
  bool hello(velt::proto::HelloReply* reply, uint32_t pingInterval = 0, uint32_t pingLimit = 0,
             const std::string& program = "agent_process_test");
  // Sends a request with the next id and returns that id.
  uint64_t request(velt::proto::Request request);
  // Waits for the reply to id.
  bool waitReply(uint64_t id, velt::proto::Reply* reply, int timeoutMs = kPromptMs);
  // Waits for a notification that matches.
  bool waitNotification(const std::function<bool(const velt::proto::Notification&)>& match,
                        velt::proto::Notification* out, int timeoutMs = kPromptMs);

  // Frames read while waiting for something else, in order.
  std::vector<velt::proto::AgentFrame>& seen() { return seen_; }

 private:
  int fd_ = -1;
  velt::wire::Reassembler reassembler_;
  uint64_t nextId_ = 1;
  std::vector<velt::proto::AgentFrame> seen_;
};

// Frames for tests.
velt::proto::ClientFrame helloFrame(uint32_t pingInterval = 0, uint32_t pingLimit = 0);
velt::proto::Request queryRequest(velt::proto::Query::Kind kind, const std::string& group = "");
velt::proto::Request joinRequest(const std::string& group, uint32_t instance);

}  // namespace velt_test

#endif  // VELT_TESTS_AGENT_PROCESS_AGENT_HARNESS_H_

#include "agent_harness.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "frame_io.h"

namespace velt_test {

namespace {

int pidfdOpen(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until the child behind pidfd ends, at most timeoutMs.
bool waitPidfd(int pidfd, int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    int left = static_cast<int>(end - nowMs());
    if (left < 0) left = 0;
    struct pollfd p = {pidfd, POLLIN, 0};
    int n = poll(&p, 1, left);
    if (n > 0) return true;
    if (n == 0) return false;
    if (errno != EINTR) return false;
  }
}

int decodeStatus(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& envp,
            const std::string& outFile, const std::string& errFile) {
  std::vector<std::string> a = argv, e = envp;
  std::vector<char*> av, ev;
  for (auto& s : a) av.push_back(&s[0]);
  av.push_back(nullptr);
  for (auto& s : e) ev.push_back(&s[0]);
  ev.push_back(nullptr);
  pid_t pid = fork();
  if (pid != 0) return pid;
  int in = open("/dev/null", O_RDONLY);
  int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  // Only the standard streams are handed down, so that whatever else the
  // child holds is its own.
  if (syscall(SYS_close_range, 3u, ~0u, 0u) != 0) {
    for (int fd = 3; fd < 4096; ++fd) ::close(fd);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(av[0], av.data(), ev.data());
  _exit(127);
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& extra) {
  std::map<std::string, std::string> all;
  const char* path = getenv("PATH");
  all["PATH"] = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
  all["LANG"] = "C";
  // Sanitizer builds pass their settings on to the processes under test.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* v = getenv(name)) all[name] = v;
  }
  for (auto& kv : extra) all[kv.first] = kv.second;
  std::vector<std::string> out;
  for (auto& kv : all) out.push_back(kv.first + "=" + kv.second);
  return out;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  return remove(path);
}

}  // namespace

// ------------------------------------------------------------------ files

TempDir::TempDir() {
  char templ[] = "/tmp/veltd_test.XXXXXX";
  char* p = mkdtemp(templ);
  if (p != nullptr) {
    path_ = p;
    chmod(p, 0755);
  }
}

TempDir::~TempDir() {
  if (!path_.empty()) nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string veltdPath() { return VELTD_PATH; }
std::string veltctlPath() { return VELTCTL_PATH; }

CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, int timeoutMs) {
  CommandResult r;
  char outT[] = "/tmp/veltd_cmd_out.XXXXXX";
  char errT[] = "/tmp/veltd_cmd_err.XXXXXX";
  int o = mkstemp(outT);
  int e = mkstemp(errT);
  if (o >= 0) ::close(o);
  if (e >= 0) ::close(e);
  pid_t pid = spawn(argv, environmentWith(env), outT, errT);
  if (pid > 0) {
    int pidfd = pidfdOpen(pid);
    if (pidfd < 0 || !waitPidfd(pidfd, timeoutMs)) kill(pid, SIGKILL);
    int raw = 0;
    waitpid(pid, &raw, 0);
    r.status = decodeStatus(raw);
    if (pidfd >= 0) ::close(pidfd);
  }
  r.out = readFile(outT);
  r.err = readFile(errT);
  unlink(outT);
  unlink(errT);
  return r;
}

// ------------------------------------------------------------------ veltd

AgentProcess::AgentProcess(const std::string& dir)
    : dir_(dir),
      socket_(dir + "/run/agent.sock"),
      state_(dir + "/state"),
      logFile_(dir + "/veltd.log") {}

AgentProcess::~AgentProcess() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    int raw;
    waitpid(pid_, &raw, 0);
  }
  if (pidfd_ >= 0) ::close(pidfd_);
}

bool AgentProcess::start(const std::vector<std::string>& args, bool standalone) {
  // A restart: the earlier process must have ended; its descriptor goes.
  if (pid_ > 0) {
    if (!exited_) return false;
    if (pidfd_ >= 0) ::close(pidfd_);
    pidfd_ = -1;
    pid_ = -1;
    exited_ = false;
    status_ = -1;
  }
  std::vector<std::string> argv = {veltdPath()};
  if (standalone) argv.push_back("--standalone");
  for (const std::string& a : {std::string("--socket"), socket_, std::string("--state-dir"), state_,
                               std::string("--log"), logFile_}) {
    argv.push_back(a);
  }
  for (const std::string& a : args) argv.push_back(a);
  // The machine's own interfaces would put its adapters into every group
  // listing; tests that are about the topology say which interfaces count.
  if (std::find(args.begin(), args.end(), "--interfaces") == args.end()) {
    argv.push_back("--interfaces");
    argv.push_back("none");
  }
  pid_ = spawn(argv, environmentWith(env_), dir_ + "/veltd.out", dir_ + "/veltd.err");
  if (pid_ <= 0) return false;
  pidfd_ = pidfdOpen(pid_);
  return pidfd_ >= 0;
}

bool AgentProcess::waitReady(int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  while (nowMs() < end) {
    if (!running()) return false;
    TestClient probe;
    if (probe.connect(socket_) == 0) return true;
    // The agent sets up within milliseconds; look again shortly.
    struct timespec ts = {0, 10 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  return false;
}

bool AgentProcess::startReady(const std::vector<std::string>& args) {
  return start(args) && waitReady();
}

bool AgentProcess::signal(int sig) { return pid_ > 0 && !exited_ && kill(pid_, sig) == 0; }

bool AgentProcess::stopCleanly() {
  if (!running()) return true;
  return signal(SIGTERM) && waitExit(kPromptMs) && status_ == 0;
}

bool AgentProcess::waitExit(int timeoutMs) {
  if (exited_) return true;
  if (pid_ <= 0 || !waitPidfd(pidfd_, timeoutMs)) return false;
  int raw = 0;
  waitpid(pid_, &raw, 0);
  status_ = decodeStatus(raw);
  exited_ = true;
  return true;
}

bool AgentProcess::running() {
  if (exited_ || pid_ <= 0) return false;
  return !waitExit(0);
}

std::string AgentProcess::log() const { return readFile(logFile_); }
std::string AgentProcess::err() const { return readFile(dir_ + "/veltd.err"); }

bool AgentProcess::waitForLog(const std::string& text, int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    if (log().find(text) != std::string::npos) return true;
    if (nowMs() >= end) return false;
    struct timespec ts = {0, 10 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
}

long AgentProcess::residentKb() const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
  }
  return 0;
}

CommandResult AgentProcess::veltctl(const std::vector<std::string>& args, int timeoutMs) {
  std::vector<std::string> argv = {veltctlPath(), "--socket", socket_};
  for (const std::string& a : args) argv.push_back(a);
  return runCommand(argv, {}, timeoutMs);
}

// ----------------------------------------------------------------- client

TestClient::~TestClient() { close(); }

int TestClient::connect(const std::string& path) {
  close();
  fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return errno;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (::connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    int err = errno;
    close();
    return err;
  }
  return 0;
}

void TestClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  reassembler_ = velt::wire::Reassembler();
}

int TestClient::sendMessage(const std::string& bytes) { return velt::wire::sendMessage(fd_, bytes); }

int TestClient::sendPacket(const std::string& packet) {
  ssize_t n = ::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL);
  return n < 0 ? errno : 0;
}

int TestClient::send(const velt::proto::ClientFrame& frame) {
  std::string bytes;
  frame.SerializeToString(&bytes);
  return sendMessage(bytes);
}

TestClient::Got TestClient::receive(velt::proto::AgentFrame* frame, int timeoutMs) {
  std::vector<char> buf(velt::wire::kMaxPacket + 1);
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    int left = static_cast<int>(end - nowMs());
    if (left < 0) return Got::kTimeout;
    struct pollfd p = {fd_, POLLIN, 0};
    int n = poll(&p, 1, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Got::kTimeout;
    ssize_t len = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
    if (len < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (len <= 0) return Got::kClosed;   // end of file or reset
    std::string message, why;
    int rc = reassembler_.feed(buf.data(), static_cast<size_t>(len), &message, &why);
    if (rc < 0) {
      ADD_FAILURE_AT(__FILE__, __LINE__);
      return Got::kClosed;
    }
    if (rc == 0) continue;
    if (!frame->ParseFromString(message)) return Got::kClosed;
    return Got::kFrame;
  }
}

bool TestClient::waitFor(const std::function<bool(const velt::proto::AgentFrame&)>& match,
                         velt::proto::AgentFrame* out, int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    int left = static_cast<int>(end - nowMs());
    if (left < 0) return false;
    velt::proto::AgentFrame f;
    if (receive(&f, left) != Got::kFrame) return false;
    if (match(f)) {
      if (out != nullptr) *out = f;
      return true;
    }
    seen_.push_back(f);
  }
}

bool TestClient::waitClosed(int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    int left = static_cast<int>(end - nowMs());
    if (left < 0) return false;
    velt::proto::AgentFrame f;
    Got g = receive(&f, left);
    if (g == Got::kClosed) return true;
    if (g == Got::kTimeout) return false;
  }
}

bool TestClient::hello(velt::proto::HelloReply* reply, uint32_t pingInterval, uint32_t pingLimit,
                       const std::string& program) {
  velt::proto::ClientFrame f = helloFrame(pingInterval, pingLimit);
  f.mutable_hello()->set_program(program);
  if (send(f) != 0) return false;
  velt::proto::AgentFrame got;
  if (!waitFor([](const velt::proto::AgentFrame& a) { return a.has_hello_reply(); }, &got)) {
    return false;
  }
  *reply = got.hello_reply();
  return true;
}

uint64_t TestClient::request(velt::proto::Request request) {
  uint64_t id = nextId_++;
  request.set_id(id);
  velt::proto::ClientFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  *f.mutable_request() = request;
  send(f);
  return id;
}

bool TestClient::waitReply(uint64_t id, velt::proto::Reply* reply, int timeoutMs) {
  velt::proto::AgentFrame got;
  if (!waitFor(
          [id](const velt::proto::AgentFrame& a) { return a.has_reply() && a.reply().id() == id; },
          &got, timeoutMs)) {
    return false;
  }
  *reply = got.reply();
  return true;
}

bool TestClient::waitNotification(
    const std::function<bool(const velt::proto::Notification&)>& match,
    velt::proto::Notification* out, int timeoutMs) {
  // A matching notification read earlier while waiting for something else
  // counts first.
  for (auto it = seen_.begin(); it != seen_.end(); ++it) {
    if (it->has_notification() && match(it->notification())) {
      if (out != nullptr) *out = it->notification();
      seen_.erase(it);
      return true;
    }
  }
  velt::proto::AgentFrame got;
  if (!waitFor(
          [&match](const velt::proto::AgentFrame& a) {
            return a.has_notification() && match(a.notification());
          },
          &got, timeoutMs)) {
    return false;
  }
  if (out != nullptr) *out = got.notification();
  return true;
}

// ----------------------------------------------------------------- frames

velt::proto::ClientFrame helloFrame(uint32_t pingInterval, uint32_t pingLimit) {
  velt::proto::ClientFrame f;
  f.set_version(velt::proto::WIRE_VERSION_1);
  velt::proto::Hello* h = f.mutable_hello();
  h->set_pid(static_cast<uint32_t>(getpid()));
  h->set_program("agent_process_test");
  if (pingInterval > 0) {
    h->mutable_responsiveness()->set_type(1);
    h->mutable_responsiveness()->set_interval(pingInterval);
    h->mutable_responsiveness()->set_response_time_limit(pingLimit);
  }
  return f;
}

velt::proto::Request queryRequest(velt::proto::Query::Kind kind, const std::string& group) {
  velt::proto::Request r;
  r.mutable_query()->set_kind(kind);
  if (!group.empty()) r.mutable_query()->set_group(group);
  return r;
}

velt::proto::Request joinRequest(const std::string& group, uint32_t instance) {
  velt::proto::Request r;
  velt::proto::Join* j = r.mutable_join();
  j->set_group(group);
  j->set_instance(instance);
  j->set_client_name("agent_process_test");
  velt::proto::GroupAttributes* a = j->mutable_attributes();
  a->set_group_name(group);
  a->set_num_phases(1);
  a->set_default_vote(1);
  a->set_time_limit(10);
  return r;
}

}  // namespace velt_test

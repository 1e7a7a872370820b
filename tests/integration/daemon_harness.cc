#include "daemon_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace velt_test {

namespace {

int pidfdOpen(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& extra, bool inherit) {
  std::map<std::string, std::string> all;
  if (inherit) {
    for (char** e = environ; *e; ++e) {
      const char* eq = strchr(*e, '=');
      if (eq) all[std::string(*e, eq - *e)] = eq + 1;
    }
  } else {
    const char* path = getenv("PATH");
    all["PATH"] = path ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
  }
  for (auto& kv : extra) all[kv.first] = kv.second;
  std::vector<std::string> out;
  for (auto& kv : all) out.push_back(kv.first + "=" + kv.second);
  return out;
}

std::vector<char*> cStrings(std::vector<std::string>& v) {
  std::vector<char*> out;
  for (auto& s : v) out.push_back(&s[0]);
  out.push_back(nullptr);
  return out;
}

// Forks and execs argv with envp, stdout/stderr to the given files. The
// child gets no core dumps (fatal paths abort on purpose).
pid_t spawn(std::vector<std::string> argv, std::vector<std::string> envp, const std::string& outFile,
            const std::string& errFile, const std::string& cwd) {
  std::vector<char*> av = cStrings(argv);
  std::vector<char*> ev = cStrings(envp);
  pid_t pid = fork();
  if (pid != 0) return pid;
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  int in = open("/dev/null", O_RDONLY);
  int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(av[0], av.data(), ev.data());
  _exit(127);
}

void decodeStatus(int raw, int* status, bool* signaled, int* sig) {
  if (WIFEXITED(raw)) {
    *status = WEXITSTATUS(raw);
    *signaled = false;
    *sig = 0;
  } else if (WIFSIGNALED(raw)) {
    *signaled = true;
    *sig = WTERMSIG(raw);
    *status = 128 + *sig;
  }
}

// Waits for the child behind pidfd to end, at most timeoutMs.
bool waitPidfd(int pidfd, int timeoutMs) {
  struct pollfd p = {pidfd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

}  // namespace

TempDir::TempDir() {
  char tmpl[] = "/tmp/velt-test-XXXXXX";
  char* made = mkdtemp(tmpl);
  path_ = made ? made : "/tmp";
}

TempDir::~TempDir() {
  if (path_.rfind("/tmp/velt-test-", 0) == 0) {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0) {
      // Leaving a temporary directory behind is harmless.
    }
  }
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

CommandResult runCommand(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         int timeoutSecs) {
  CommandResult r;
  TempDir tmp;
  pid_t pid = spawn(argv, mergedEnvironment(env, true), tmp.file("out"), tmp.file("err"), "");
  int pidfd = pidfdOpen(pid);
  if (!waitPidfd(pidfd, timeoutSecs * 1000)) kill(pid, SIGKILL);
  int raw = 0;
  waitpid(pid, &raw, 0);
  close(pidfd);
  decodeStatus(raw, &r.status, &r.signaled, &r.signal);
  r.out = readFile(tmp.file("out"));
  r.err = readFile(tmp.file("err"));
  return r;
}

std::string tolkvaskdPath() { return TOLKVASKD_PATH; }
std::string srcctlPath() { return SRCCTL_PATH; }
std::string veltdPath() { return VELTD_PATH; }
std::string refreshCommandPath() { return REFRESH_CMD_PATH; }

Agent::Agent(const std::string& dir, const std::string& socketPath) : dir_(dir), socket_(socketPath) {}

Agent::~Agent() { kill9(); }

bool Agent::start(const std::vector<std::string>& extraArgs) {
  std::vector<std::string> argv = {veltdPath(), "--standalone", "--socket", socket_, "--state-dir",
                                   dir_ + "/veltd-state", "--log", dir_ + "/veltd.log"};
  argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
  pid_ = spawn(argv, mergedEnvironment({}, false), dir_ + "/veltd.out", dir_ + "/veltd.err", "");
  if (pid_ < 0) return false;
  struct timespec t0, now;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  for (;;) {
    int s = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_.c_str(), sizeof(addr.sun_path) - 1);
    bool ok = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(s);
    if (ok) return true;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - t0.tv_sec >= 20) return false;
    int raw;
    if (waitpid(pid_, &raw, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    usleep(20 * 1000);
  }
}

void Agent::kill9() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string Agent::log() const { return readFile(dir_ + "/veltd.log") + readFile(dir_ + "/veltd.err"); }

std::map<std::string, std::string> validEnvironment(const std::string& dir) {
  return {
      {"HA_DOMAIN_TYPE", "QUIL"},
      {"SW_HERDLET_REFRESH_CMD", "/bin/true"},
      {"SW_HERDLET_RUN_DIR", dir},
      {"SW_HERDLET_NODE_NUMBER", "1"},
      {"SW_HERDLET_INCARNATION_NUMBER", "1"},
      {"SW_HERDLET_TID_DIR", dir + "/tolkvaskd.excl"},
      {"SW_HERDLET_LOGFILE", dir + "/tolkvaskd.log"},
      {"VELT_SRC_DIR", dir + "/src"},
      {"VELT_AGENT_SOCKET", dir + "/agent.sock"},
      {"VELT_FFDC_LOG", dir + "/ffdc.jsonl"},
      {"LANG", "C"},
  };
}

Daemon::Daemon(const std::string& dir, std::map<std::string, std::string> env)
    : dir_(dir), env_(std::move(env)) {}

Daemon::~Daemon() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitExit(10);
  }
  if (pidfd_ >= 0) close(pidfd_);
}

bool Daemon::start(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {tolkvaskdPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_ = spawn(argv, mergedEnvironment(env_, false), dir_ + "/stdout", dir_ + "/stderr", dir_);
  if (pid_ < 0) return false;
  pidfd_ = pidfdOpen(pid_);
  return pidfd_ >= 0;
}

bool Daemon::waitExit(int timeoutSecs) {
  if (exited_) return true;
  if (!waitPidfd(pidfd_, timeoutSecs * 1000)) return false;
  int raw = 0;
  if (waitpid(pid_, &raw, 0) != pid_) return false;
  exited_ = true;
  decodeStatus(raw, &status_, &signaled_, &signal_);
  return true;
}

bool Daemon::running() { return !exited_ && !waitPidfd(pidfd_, 0); }

std::string Daemon::out() const { return readFile(dir_ + "/stdout"); }
std::string Daemon::err() const { return readFile(dir_ + "/stderr"); }

std::string Daemon::log() const {
  auto it = env_.find("SW_HERDLET_LOGFILE");
  return it == env_.end() ? out() : readFile(it->second);
}

bool Daemon::waitForLog(const std::string& text, int timeoutSecs) {
  struct timespec t0, now;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  for (;;) {
    if (log().find(text) != std::string::npos) return true;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - t0.tv_sec >= timeoutSecs) return false;
    if (exited_ || waitPidfd(pidfd_, 20)) {
      // The process ended: whatever it logged is there now.
      return log().find(text) != std::string::npos;
    }
  }
}

bool Daemon::waitForSocket(int timeoutSecs) {
  auto it = env_.find("VELT_SRC_DIR");
  std::string path = (it == env_.end() ? std::string("/run/velt/src") : it->second) + "/tolkvaskd";
  struct timespec t0, now;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  for (;;) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - t0.tv_sec >= timeoutSecs) return false;
    if (exited_ || waitPidfd(pidfd_, 20)) return false;
  }
}

CommandResult Daemon::srcctl(const std::vector<std::string>& args, int timeoutSecs) {
  std::vector<std::string> argv = {srcctlPath(), "-s", "tolkvaskd"};
  argv.insert(argv.end(), args.begin(), args.end());
  std::map<std::string, std::string> env;
  auto it = env_.find("VELT_SRC_DIR");
  if (it != env_.end()) env["VELT_SRC_DIR"] = it->second;
  return runCommand(argv, env, timeoutSecs);
}

}  // namespace velt_test

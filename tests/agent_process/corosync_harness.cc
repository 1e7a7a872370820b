#include "corosync_harness.h"

#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

#include "agent_harness.h"

namespace velt_test {

namespace {

const char kCorosync[] = "/usr/sbin/corosync";

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string errnoText(const std::string& what) { return what + ": " + strerror(errno); }

std::string bringLoopbackUp() {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return errnoText("socket");
  struct ifreq ifr;
  memset(&ifr, 0, sizeof ifr);
  snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
  std::string why;
  if (ioctl(s, SIOCGIFFLAGS, &ifr) != 0) {
    why = errnoText("SIOCGIFFLAGS lo");
  } else {
    ifr.ifr_flags |= IFF_UP;
    if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0) why = errnoText("SIOCSIFFLAGS lo");
  }
  close(s);
  return why;
}

std::string enterOnce() {
  if (geteuid() != 0) {
    return "needs root (corosync runs in private network and mount namespaces)";
  }
  if (access(kCorosync, X_OK) != 0) return std::string(kCorosync) + " is not installed";
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    return errnoText("cannot enter private network and mount namespaces (unshare)");
  }
  // Nothing mounted from here on reaches the machine's namespace.
  if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
    return errnoText("mount --make-rprivate /");
  }
  for (const char* dir : {"/run", "/var/lib/corosync", "/var/log/corosync", "/dev/shm"}) {
    mkdir(dir, 0755);
    if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755") != 0) {
      return errnoText(std::string("mount tmpfs on ") + dir);
    }
  }
  chmod("/dev/shm", 01777);
  return bringLoopbackUp();
}

}  // namespace

std::string enterCorosyncNamespaces() {
  static const std::string result = enterOnce();
  return result;
}

CorosyncInstance::~CorosyncInstance() {
  if (pid_ > 0) kill(SIGKILL);
}

bool CorosyncInstance::start(const CorosyncConfig& config) {
  if (pid_ > 0) return false;
  std::string conf = dir_ + "/corosync.conf";
  {
    std::ofstream out(conf);
    out << "totem {\n"
           "  version: 2\n"
           "  cluster_name: velttest\n"
           "  transport: " << config.transport << "\n"
           "  crypto_cipher: none\n"
           "  crypto_hash: none\n"
           "  token: 1000\n"
        << (config.slowTotem ? "  max_messages: 1\n  window_size: 1\n" : "") <<
           "}\n"
           "logging {\n"
           "  to_stderr: yes\n"
           "  to_logfile: no\n"
           "  to_syslog: no\n"
           "  timestamp: on\n"
           "}\n"
           "quorum {\n"
           "  provider: corosync_votequorum\n"
           "}\n"
           "nodelist {\n"
           "  node {\n"
           "    name: n" << config.nodeid << "\n"
           "    nodeid: " << config.nodeid << "\n"
           "    ring0_addr: 127.0.0.1\n"
           "  }\n"
           "}\n";
    if (!out) return false;
  }
  ++starts_;
  std::string logFile = dir_ + "/corosync-" + std::to_string(starts_) + ".log";
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int out = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    if (syscall(SYS_close_range, 3u, ~0u, 0u) != 0) {
      for (int fd = 3; fd < 4096; ++fd) ::close(fd);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    char* argv[] = {const_cast<char*>(kCorosync), const_cast<char*>("-f"),
                    const_cast<char*>("-c"), const_cast<char*>(conf.c_str()), nullptr};
    char* envp[] = {const_cast<char*>("PATH=/usr/sbin:/usr/bin:/sbin:/bin"), nullptr};
    execve(argv[0], argv, envp);
    _exit(127);
  }
  pid_ = pid;
  return true;
}

bool CorosyncInstance::waitReady(int timeoutMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    if (log().find("ready to provide service") != std::string::npos) return true;
    int raw;
    if (pid_ <= 0 || waitpid(pid_, &raw, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    if (nowMs() >= end) return false;
    struct timespec ts = {0, 10 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
}

bool CorosyncInstance::startReady(const CorosyncConfig& config) {
  return start(config) && waitReady();
}

bool CorosyncInstance::kill(int sig) {
  if (pid_ <= 0) return false;
  ::kill(pid_, sig);
  // A clean stop takes corosync about a second; past the bound it is
  // killed outright.
  int64_t end = nowMs() + kCorosyncStartMs;
  int raw;
  while (waitpid(pid_, &raw, WNOHANG) == 0) {
    if (nowMs() >= end) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, &raw, 0);
      break;
    }
    struct timespec ts = {0, 10 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  pid_ = -1;
  return true;
}

std::string CorosyncInstance::log() const {
  return readFile(dir_ + "/corosync-" + std::to_string(starts_) + ".log");
}

}  // namespace velt_test

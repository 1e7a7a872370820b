// Starting and watching the program a benchmark measures (veltd) as a
// child process.
#ifndef VELT_BENCH_BENCH_PROCESS_H_
#define VELT_BENCH_BENCH_PROCESS_H_

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace bench {

// Starts args[0] with args, standard input from /dev/null; the child gets
// SIGTERM when the benchmark dies, so that it is never left behind.
// Returns its pid, or -1 with *why.
inline pid_t startChild(std::vector<std::string> args, std::string* why) {
  // Everything the child needs is made before fork: it only calls
  // async-signal-safe functions.
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const std::string execFailed = "cannot execute " + args[0] + "\n";
  int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (devNull < 0) {
    *why = std::string("cannot open /dev/null: ") + strerror(errno);
    return -1;
  }
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    close(devNull);
    *why = "cannot start " + args[0] + ": fork: " + strerror(errno);
    return -1;
  }
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(126);
    dup2(devNull, 0);
    execv(argv[0], argv.data());
    ssize_t ignored = write(2, execFailed.data(), execFailed.size());
    (void)ignored;
    _exit(127);
  }
  close(devNull);
  return pid;
}

// Makes a private directory "NAME.XXXXXX" under $TMPDIR (or /tmp) for an
// agent's socket, state and log, and checks that its socket path fits a
// UNIX socket address. Returns the directory, or "" with *why.
inline std::string makeAgentDirectory(const std::string& name, std::string* why) {
  const char* tmp = getenv("TMPDIR");
  std::string base = tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp";
  std::string pattern = base + "/" + name + ".XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    *why = "cannot make a directory for veltd under " + base + ": " + strerror(errno);
    return "";
  }
  std::string dir = buf.data();
  if ((dir + "/agent.sock").size() >= sizeof(sockaddr_un{}.sun_path)) {
    rmdir(dir.c_str());
    *why = "the socket path " + dir + "/agent.sock is too long for a UNIX socket; set TMPDIR to a shorter directory";
    return "";
  }
  return dir;
}

// Whether the child *pid (named name) has ended; *how says how, and *pid
// becomes -1 once it has. Does not wait.
inline bool childEnded(pid_t* pid, const std::string& name, std::string* how) {
  if (*pid <= 0) {
    *how = name + " is not running";
    return true;
  }
  int status = 0;
  pid_t r = waitpid(*pid, &status, WNOHANG);
  if (r == 0) return false;
  *pid = -1;
  if (r < 0) {
    *how = name + " cannot be waited for: " + strerror(errno);
  } else if (WIFEXITED(status)) {
    *how = name + " exited with status " + std::to_string(WEXITSTATUS(status));
    if (WEXITSTATUS(status) == 127) *how += " (it could not be executed)";
  } else if (WIFSIGNALED(status)) {
    *how = name + " was ended by signal " + std::to_string(WTERMSIG(status));
  } else {
    *how = name + " ended";
  }
  return true;
}

}  // namespace bench

#endif  // VELT_BENCH_BENCH_PROCESS_H_

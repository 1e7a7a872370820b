// srcctl against the SRC request socket of this test process, with the
// request served on the calling thread as the daemon's main loop would.
// Needs SRCCTL_PATH (the srcctl binary) from the test's build.
#ifndef VELT_TESTS_UNIT_GLOBALAM_SRCCTL_SUPPORT_H_
#define VELT_TESTS_UNIT_GLOBALAM_SRCCTL_SUPPORT_H_

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "AMController.h"

namespace srcctl_test {

// Runs `srcctl -s NAME args...` and serves requests until its output ends
// or bound runs out; returns what srcctl printed (standard output and
// error together).
inline std::string srcctlServed(AMController* ctl, const std::vector<std::string>& args,
                                std::chrono::milliseconds bound) {
  int out[2];
  if (pipe(out) != 0) return "<no pipe>";
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(out[1], 2);
    std::vector<std::string> all = {SRCCTL_PATH, "-s", ctl->subsystemName()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    execv(SRCCTL_PATH, argv.data());
    _exit(127);
  }
  close(out[1]);
  auto until = std::chrono::steady_clock::now() + bound;
  std::string text;
  while (std::chrono::steady_clock::now() < until) {
    ctl->select_and_doSRCreq(0);
    struct pollfd p = {out[0], POLLIN, 0};
    if (poll(&p, 1, 20) == 1) {
      char buf[4096];
      ssize_t n = read(out[0], buf, sizeof buf);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
    }
  }
  close(out[0]);
  int status;
  waitpid(pid, &status, 0);
  return text;
}

}  // namespace srcctl_test

#endif  // VELT_TESTS_UNIT_GLOBALAM_SRCCTL_SUPPORT_H_

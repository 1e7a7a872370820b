// Starts the real tolkvaskd (and srcctl) as child processes in a private
// temporary run directory, and waits for what they do with a bound.
#ifndef VELT_TESTS_INTEGRATION_DAEMON_HARNESS_H_
#define VELT_TESTS_INTEGRATION_DAEMON_HARNESS_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace velt_test {

// Output and status of a finished command.
struct CommandResult {
  int status = -1;          // exit status, or 128 + signal when killed
  bool signaled = false;
  int signal = 0;
  std::string out;
  std::string err;
};

// A private directory removed at the end of the test.
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
void writeFile(const std::string& path, const std::string& text);

// Runs argv with env added to (and overriding) this process's environment,
// with no standard input, and collects its output. Kills it after
// timeoutSecs.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, int timeoutSecs);

// One tolkvaskd process.
class Daemon {
 public:
  // dir: the run directory; env: the daemon's environment (on top of a
  // minimal PATH/LANG).
  Daemon(const std::string& dir, std::map<std::string, std::string> env);
  ~Daemon();   // kills the process if it still runs

  // Starts tolkvaskd with the given argv[1..] (default: the daemon name).
  bool start(const std::vector<std::string>& args = {"tolkvaskd"});
  pid_t pid() const { return pid_; }
  // Waits for the process to end; false on time-out.
  bool waitExit(int timeoutSecs);
  bool running();
  int exitStatus() const { return status_; }
  bool signaled() const { return signaled_; }
  int termSignal() const { return signal_; }
  std::string out() const;
  std::string err() const;
  std::string log() const;   // the trace log file (SW_HERDLET_LOGFILE)
  // Waits until text appears in the trace log (or stdout when the daemon
  // logs there); false on time-out.
  bool waitForLog(const std::string& text, int timeoutSecs);
  bool waitForSocket(int timeoutSecs);
  // srcctl -s NAME args...
  CommandResult srcctl(const std::vector<std::string>& args, int timeoutSecs = 30);
  const std::map<std::string, std::string>& env() const { return env_; }

 private:
  std::string dir_;
  std::map<std::string, std::string> env_;
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool exited_ = false;
  int status_ = -1;
  bool signaled_ = false;
  int signal_ = 0;
};

// One `veltd --standalone` node agent serving socketPath.
class Agent {
 public:
  Agent(const std::string& dir, const std::string& socketPath);
  ~Agent();  // kills the agent if it still runs
  // Starts it and waits until its socket accepts connections.
  bool start(const std::vector<std::string>& extraArgs = {});
  void kill9();
  std::string log() const;

 private:
  std::string dir_;
  std::string socket_;
  pid_t pid_ = -1;
};

// The environment of a well-configured daemon in run directory dir: SRC
// mode, a trace log file, no agent.
std::map<std::string, std::string> validEnvironment(const std::string& dir);

std::string tolkvaskdPath();
std::string srcctlPath();
std::string veltdPath();
// The refresh command shipped for SW_HERDLET_REFRESH_CMD.
std::string refreshCommandPath();

}  // namespace velt_test

#endif  // VELT_TESTS_INTEGRATION_DAEMON_HARNESS_H_

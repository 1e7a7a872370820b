// Test support for the cluster bus: a real corosync of the test's own. The
// test process moves into private network and mount namespaces (a private
// /run, /var/lib/corosync, /var/log/corosync and /dev/shm, where corosync
// keeps its pid file, ring id and IPC buffers; its IPC sockets are
// abstract, so they belong to the network namespace), and everything it
// starts afterwards (corosync, veltd, veltctl) shares them. This needs
// root; without it the tests skip with a visible "SKIP:" line.
#ifndef VELT_TESTS_AGENT_PROCESS_COROSYNC_HARNESS_H_
#define VELT_TESTS_AGENT_PROCESS_COROSYNC_HARNESS_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include <gtest/gtest.h>

namespace velt_test {

// How long corosync may take to form its ring and serve.
constexpr int kCorosyncStartMs = 10000;

// Moves this process into the namespaces above (once; later calls return
// the first result). Returns "" or why it cannot, for the skip line.
std::string enterCorosyncNamespaces();

// Skips the current test, with a visible line, when no private corosync
// can be had here.
#define VELT_REQUIRE_PRIVATE_COROSYNC()                                    \
  do {                                                                     \
    std::string veltWhyNot = ::velt_test::enterCorosyncNamespaces();       \
    if (!veltWhyNot.empty()) {                                             \
      fprintf(stderr, "SKIP: %s\n", veltWhyNot.c_str());                   \
      GTEST_SKIP() << "SKIP: " << veltWhyNot;                              \
    }                                                                      \
  } while (0)

struct CorosyncConfig {
  uint32_t nodeid = 7;
  // knet takes node ids up to 65535 only; udpu takes any 32-bit id.
  std::string transport = "knet";
  // One message per token rotation: corosync's queue fills soon and it
  // answers CS_ERR_TRY_AGAIN (flow control) to a quick sender.
  bool slowTotem = false;
};

// One corosync process in the test's namespaces, with its configuration
// and log in dir. Thread-compatible (one test thread drives it).
class CorosyncInstance {
 public:
  explicit CorosyncInstance(const std::string& dir) : dir_(dir) {}
  ~CorosyncInstance();   // kills it if it still runs
  CorosyncInstance(const CorosyncInstance&) = delete;
  CorosyncInstance& operator=(const CorosyncInstance&) = delete;

  // Writes corosync.conf and starts `corosync -f` (each start logs to a
  // file of its own).
  bool start(const CorosyncConfig& config = CorosyncConfig());
  // Waits until this start's log says the node serves.
  bool waitReady(int timeoutMs = kCorosyncStartMs);
  // start() and waitReady().
  bool startReady(const CorosyncConfig& config = CorosyncConfig());
  // Sends sig and reaps the process.
  bool kill(int sig);
  bool running() const { return pid_ > 0; }
  std::string log() const;

 private:
  std::string dir_;
  pid_t pid_ = -1;
  int starts_ = 0;
};

}  // namespace velt_test

#endif  // VELT_TESTS_AGENT_PROCESS_COROSYNC_HARNESS_H_

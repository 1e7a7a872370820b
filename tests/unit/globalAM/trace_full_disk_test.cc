// The trace log on a filesystem that runs full: the writer survives any
// amount of trace traffic it cannot write, counts and reports the lost
// lines, never leaves a torn line behind, and writes on as before once
// there is room again. Each case runs in a child process, so that a writer
// that corrupts memory shows as a child killed by a signal, not as a test
// binary that dies or goes on corrupted.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "TraceStream.h"
#include "trace_test_support.h"

namespace trace_test {
namespace {

constexpr int kChildSkips = 77;
// Padding that makes every traced line about 100 bytes long, so that a few
// hundred lost lines are far more than any stream buffer holds.
const char* const kPadding = "................................................................";

class LogOnFullDisk : public TraceLogFixture {
 protected:
  // Traces count lines "<word> <n> <padding>", draining every 100 lines.
  void traceNumbered(const char* word, int count) {
    for (int i = 0; i < count; ++i) {
      AM_TRACE(TRACE_FYI) << word << " " << i << " " << kPadding << endl;
      if (i % 100 == 99) drain();
    }
    drain();
  }

  // Runs body in a child process, which traces through a client of its
  // own (the thread id differs there); returns the child's wait status.
  template <typename Body>
  int inChild(Body body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      TraceClient client(TraceStream::traceMarket, 0);
      int rc = body();
      _exit(rc);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
  }

  static std::string describe(int status) {
    if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
    return "status " + std::to_string(status);
  }

  // The number N of the entry "Lost N lines to log file <log>.  Writing to
  // log now.", or -1 when there is none.
  int lostReported(const std::string& log) {
    int found = -1;
    for (const std::string& entry : errorLogLines()) {
      std::string text = jsonText(entry, "text");
      const std::string tail = " lines to log file " + log + ".  Writing to log now.";
      if (text.rfind("Lost ", 0) == 0 && text.size() > tail.size() &&
          text.compare(text.size() - tail.size(), tail.size(), tail) == 0) {
        EXPECT_EQ(found, -1) << "more than one recovery entry";
        found = atoi(text.c_str() + 5);
      }
    }
    return found;
  }

  // Checks a log written through a full filesystem: every line whole and
  // well formed, the "fill" lines in order without gaps up to where the
  // disk ran full and none after it, every "after" line there, and the lost
  // lines reported once on the first failure and once on recovery.
  void expectWholeLinesAndRecovery(const std::string& copy, const std::string& log, int filled, int after) {
    std::string text = readAll(copy);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << "the log ends in a torn line";
    static const std::regex kLine(
        "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}( TRACE_[A-Z0-9_]+)+ : \\[T=[0-9]+\\] (.*)");
    int fillSeen = 0;
    int afterSeen = 0;
    for (const std::string& line : readLines(copy)) {
      std::smatch m;
      ASSERT_TRUE(std::regex_match(line, m, kLine)) << "malformed log line: [" << line << "]";
      std::string body = m[2];
      const std::string fillWant = "fill " + std::to_string(fillSeen) + " " + kPadding;
      const std::string afterWant = "after " + std::to_string(afterSeen) + " " + kPadding;
      if (body == fillWant && afterSeen == 0) {
        ++fillSeen;
      } else if (body == afterWant) {
        ++afterSeen;
      } else {
        ADD_FAILURE() << "unexpected log line: [" << line << "]";
        return;
      }
    }
    EXPECT_LT(fillSeen, filled) << "the filesystem never ran full";
    EXPECT_EQ(afterSeen, after);
    auto entries = errorLogLines();
    EXPECT_EQ(countContaining(entries, "\"text\":\"ERROR writing to log " + log + " (rdstate="), 1);
    EXPECT_EQ(lostReported(log), filled - fillSeen);
  }
};

// The file size limit makes writes fail with EFBIG exactly as a full disk
// makes them fail with ENOSPC, and needs no privileges; raising the limit
// again is the space coming back.
TEST_F(LogOnFullDisk, FileSizeLimitLosesWholeLinesAndLogContinuesAfter) {
  constexpr rlim_t kLimit = 64 * 1024;
  constexpr int kFill = 3000;  // about 300 KB
  constexpr int kAfter = 20;
  int status = inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit saved;
    if (getrlimit(RLIMIT_FSIZE, &saved) != 0) return 2;
    struct rlimit small = saved;
    small.rlim_cur = kLimit;
    if (setrlimit(RLIMIT_FSIZE, &small) != 0) return 3;
    traceNumbered("fill", kFill);
    if (setrlimit(RLIMIT_FSIZE, &saved) != 0) return 4;
    traceNumbered("after", kAfter);
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the traced child ended by " << describe(status);
  expectWholeLinesAndRecovery(logPath_, logPath_, kFill, kAfter);
}

// A real full filesystem: a 1 MB tmpfs in a private mount namespace, filled
// up by another file that is removed again afterwards.
TEST_F(LogOnFullDisk, FullTmpfsLosesWholeLinesAndLogContinuesAfterSpaceReturns) {
  constexpr int kFill = 3000;
  constexpr int kAfter = 20;
  const std::string mountDir = dir_ + "/fs";
  const std::string log = mountDir + "/trace.log";
  const std::string copy = dir_ + "/copy-of-trace.log";
  ASSERT_EQ(mkdir(mountDir.c_str(), 0700), 0);
  int status = inChild([&] {
    if (unshare(CLONE_NEWNS) != 0) return kChildSkips;
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) return kChildSkips;
    if (mount("tmpfs", mountDir.c_str(), "tmpfs", 0, "size=1m") != 0) return kChildSkips;
    _traceStream.SetGlobalTraceLevel(TraceLevel(0));
    redirectCout(nullptr, log.c_str());
    // The error log stays off the full filesystem, where the test reads it.
    fc_set_log_file(errLogPath_.c_str());
    _traceStream.SetGlobalTraceLevel(TraceLevel(kDefaultLevel));
    const std::string filler = mountDir + "/filler";
    int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return 2;
    static char chunk[4096];
    memset(chunk, 'x', sizeof chunk);
    while (write(fd, chunk, sizeof chunk) > 0) {
    }
    if (errno != ENOSPC) return 3;
    close(fd);
    traceNumbered("fill", kFill);
    if (unlink(filler.c_str()) != 0) return 4;
    traceNumbered("after", kAfter);
    std::ifstream in(log, std::ios::binary);
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    return out.good() ? 0 : 5;
  });
  if (WIFEXITED(status) && WEXITSTATUS(status) == kChildSkips) {
    GTEST_SKIP() << "SKIP: needs root and a private mount namespace to mount a small tmpfs";
  }
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the traced child ended by " << describe(status);
  expectWholeLinesAndRecovery(copy, log, kFill, kAfter);
}

// The error-log entries of the child, one system-log line each, kept in a
// file the parent reads.
FILE* childSyslog = nullptr;
void appendToChildSyslog(int /*priority*/, const char* msg) {
  if (childSyslog != nullptr) fprintf(childSyslog, "%s\n", msg);
}

// A log that never takes a byte, and an error log that cannot be written
// either (as when both share the full disk), so that error-log entries fall
// back to the trace log in the middle of lines: every line is lost, the
// loss is reported on the first failure and on every 8000th, and the
// writer carries on.
TEST_F(LogOnFullDisk, DeviceThatRefusesEveryWriteTakesAnyTraffic) {
  constexpr int kLines = 20000;  // about 2 MB
  const std::string linkPath = dir_ + "/full.log";
  const std::string syslogPath = dir_ + "/syslog.txt";
  ASSERT_EQ(symlink("/dev/full", linkPath.c_str()), 0);
  int status = inChild([&] {
    childSyslog = fopen(syslogPath.c_str(), "w");
    if (childSyslog == nullptr) return 2;
    fc_set_syslog_ForTesting(appendToChildSyslog);
    _traceStream.SetGlobalTraceLevel(TraceLevel(0));
    redirectCout(nullptr, linkPath.c_str());
    fc_set_log_file((dir_ + "/no/such/dir/errlog").c_str());
    _traceStream.SetGlobalTraceLevel(TraceLevel(kDefaultLevel));
    for (int i = 0; i < kLines; ++i) {
      // Every tenth line is a warning, which makes an error-log entry.
      AM_TRACE(i % 10 == 9 ? TRACE_WARNING : TRACE_FYI) << "line " << i << " " << kPadding << endl;
      if (i % 100 == 99) drain();
    }
    drain();
    return fclose(childSyslog) == 0 ? 0 : 3;
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the traced child ended by " << describe(status);
  auto entries = readLines(syslogPath);
  EXPECT_EQ(countContaining(entries, "ERROR writing to log " + linkPath + " (rdstate="), 3);
  EXPECT_EQ(countContaining(entries, "Lost "), 0);
  EXPECT_EQ(countContaining(entries, "GS_MESSAGE_ST[0x15]: line "), kLines / 10);
}

}  // namespace
}  // namespace trace_test

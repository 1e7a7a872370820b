// Shared set-up of the trace stream tests: a fresh log file (and error log
// beside it) in a private directory, a trace client for the test thread and
// a registered writer that is not started, so that drain() writes every
// queued line from the test thread itself and the tests need no timing.
#ifndef VELT_TESTS_UNIT_GLOBALAM_TRACE_TEST_SUPPORT_H_
#define VELT_TESTS_UNIT_GLOBALAM_TRACE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "TraceStream.h"
#include "ha_assert.h"
#include "vx_ffdc.h"

namespace trace_test {

// Start-up's default level.
constexpr unsigned kDefaultLevel = 0x61F;

inline void discardSyslog(int /*priority*/, const char* /*msg*/) {}

inline std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

inline std::string readAll(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The traced text of a log line: what follows the thread id.
inline std::string lineText(const std::string& line) {
  size_t at = line.find("] ");
  return at == std::string::npos ? std::string() : line.substr(at + 2);
}

// The value of a text field of one error-log entry (no escapes expected).
inline std::string jsonText(const std::string& entry, const std::string& field) {
  std::string key = "\"" + field + "\":\"";
  size_t at = entry.find(key);
  if (at == std::string::npos) return "<no " + field + ">";
  at += key.size();
  size_t end = entry.find('"', at);
  return end == std::string::npos ? "<unterminated>" : entry.substr(at, end - at);
}

inline int countContaining(const std::vector<std::string>& lines, const std::string& needle) {
  int n = 0;
  for (const auto& l : lines) n += l.find(needle) != std::string::npos ? 1 : 0;
  return n;
}

class TraceLogFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(TraceStream::traceMarket, nullptr);
    std::string pattern = ::testing::TempDir() + "tracelogXXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    dir_ = buf.data();
    logPath_ = dir_ + "/trace.log";
    errLogPath_ = logPath_ + ".errlog";

    unsetenv("VELT_FFDC_LOG");
    fc_set_syslog_ForTesting(discardSyslog);
    fc_init_1("VELT");
    resetLogStateForTesting();
    TraceStream::traceMarket->resumeMarket();
    client_ = std::make_unique<TraceClient>(TraceStream::traceMarket, 0);
    server_ = std::make_unique<TraceServer>(TraceStream::traceMarket);
    // Silent while the log is named, so that each test's log starts empty.
    _traceStream.SetGlobalTraceLevel(TraceLevel(0));
    redirectCout(nullptr, logPath_.c_str());
    _traceStream.SetGlobalTraceLevel(TraceLevel(kDefaultLevel));
  }

  void TearDown() override {
    setTraceSRCOutputRoutine(nullptr);
    TraceStream::traceMarket->resumeMarket();
    TraceStream::traceMarket->setBeingDrainedForTesting(false);
    drain();
    server_.reset();
    client_.reset();
    resetLogStateForTesting();
    _traceStream.SetGlobalTraceLevel(TraceLevel(0));
    fc_set_syslog_ForTesting(nullptr);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  void drain() { TraceStream::traceMarket->drainAllLogs(); }
  std::vector<std::string> logLines() const { return readLines(logPath_); }
  std::vector<std::string> errorLogLines() const { return readLines(errLogPath_); }
  int queued() const { return TraceStream::traceMarket->queueCount(); }

  std::string dir_;
  std::string logPath_;
  std::string errLogPath_;
  std::unique_ptr<TraceClient> client_;
  std::unique_ptr<TraceServer> server_;
};

}  // namespace trace_test

#endif  // VELT_TESTS_UNIT_GLOBALAM_TRACE_TEST_SUPPORT_H_

// Tests of libsrc: the request socket served by SRCDriver, the client
// (sendRequest, srcstop), the wire format and the srcctl tool, all over real
// sockets in a private VELT_SRC_DIR.
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "internal/src_wire.h"
#include "src_client.h"
#include "src_driver.h"

namespace {

using velt_src::Request;

constexpr const char* kName = "srctestd";
constexpr int kWaitMs = 5000;

// Reply codes of the test driver's own requests.
constexpr short kOrderedText = 100;   // inform and error text, interleaved
constexpr short kLargeText = 101;     // about 100 KiB of inform text
constexpr short kHugeText = 102;      // 2 MiB, more than a socket holds
constexpr short kReturnSeven = 103;   // otherReq returns 7
constexpr short kErrorText = 104;     // one line of error text

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// A private directory, removed with everything in it at the end.
// Thread-compatible.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/src_test.XXXXXX";
    const char* p = mkdtemp(tmpl);
    if (p != nullptr) path_ = p;
  }
  ~TempDir() {
    if (!path_.empty()) {
      nftw(path_.c_str(), [](const char* f, const struct stat*, int, struct FTW*) { return remove(f); },
           16, FTW_DEPTH | FTW_PHYS);
    }
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The about-100-KiB text of kLargeText, numbered so that a lost, doubled or
// reordered piece shows.
std::string largeText() {
  std::string text;
  char line[80];
  for (int i = 0; i < 1700; ++i) {
    snprintf(line, sizeof line, "line %05d of the large reply: abcdefghijklmnopqrstuvwxyz0123\n", i);
    text += line;
  }
  return text;
}

// A daemon as the library sees it: records each virtual with its arguments
// and answers with known text. Virtuals run on the serving thread; calls()
// may be read from any thread.
class TestDriver : public SRCDriver {
 public:
  explicit TestDriver(const char* name = kName) : SRCDriver(name) {}

  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mu_);
    return calls_;
  }

  // Makes stopNormal wait (bounded) until releaseStop(); shows that the
  // requester got its answer before the stop virtual ran.
  void holdStopNormal() { holdStop_ = true; }
  void releaseStop() {
    std::lock_guard<std::mutex> lock(mu_);
    stopReleased_ = true;
    cv_.notify_all();
  }
  bool stopWasReleasedInTime() const { return stopReleasedInTime_; }

  void stopNormal() override {
    record("stopNormal()");
    if (holdStop_) {
      std::unique_lock<std::mutex> lock(mu_);
      stopReleasedInTime_ =
          cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [this] { return stopReleased_; });
    }
    SRCDriver::stopNormal();
  }
  void stopForced() override {
    record("stopForced()");
    SRCDriver::stopForced();
  }
  void stopCancel(int signo) override {
    record("stopCancel(" + std::to_string(signo) + ")");
    SRCDriver::stopCancel(signo);
  }
  void traceBegin(int level) override {
    record("traceBegin(" + std::to_string(level) + ")");
    inform_printf("trace begins at level %d\n", level);
  }
  void traceEnd() override {
    record("traceEnd()");
    inform_printf("trace ends\n");
  }
  void refresh() override {
    record("refresh()");
    inform_printf("refreshed\n");
  }
  void longStatus() override {
    record("longStatus()");
    inform_printf("Status information for subsystem %s:\n", subsystemName());
    inform_printf("Connected to everything.\n");
  }
  int otherReq(short code, short parm1, short parm2, const void* parm3, int parm3Len) override {
    std::string p3 = "null";
    if (parm3 != nullptr) {
      const char* text = static_cast<const char*>(parm3);
      // The library promises text: NUL-terminated at exactly parm3Len.
      p3 = strlen(text) == static_cast<size_t>(parm3Len) ? "\"" + std::string(text) + "\""
                                                         : "<not NUL-terminated>";
    }
    record("otherReq(" + std::to_string(code) + "," + std::to_string(parm1) + "," +
           std::to_string(parm2) + "," + p3 + "," + std::to_string(parm3Len) + ")");
    switch (code) {
      case kOrderedText:
        inform_printf("one\n");
        error_printf("two\n");
        inform_printf("three\n");
        inform_flush();
        error_printf("four\n");
        inform_printf("five\n");
        return 0;
      case kLargeText: {
        std::string text = largeText();
        // Written in pieces of uneven size, as a daemon's report would be.
        for (size_t off = 0; off < text.size();) {
          size_t n = std::min<size_t>(text.size() - off, 1 + (off * 7919) % 3000);
          inform_printf("%.*s", static_cast<int>(n), text.data() + off);
          off += n;
        }
        return 0;
      }
      case kHugeText: {
        std::string block(1024, 'x');
        block.back() = '\n';
        for (int i = 0; i < 2048; ++i) inform_printf("%s", block.c_str());
        return 0;
      }
      case kReturnSeven:
        inform_printf("returning seven\n");
        return 7;
      case kErrorText:
        error_printf("%s: Invalid request %d.\n", subsystemName(), code);
        return 0;
      default:
        inform_printf("request %d parm3 %s\n", code, parm3 != nullptr ? static_cast<const char*>(parm3) : "-");
        return 0;
    }
  }

 private:
  void record(const std::string& call) {
    std::lock_guard<std::mutex> lock(mu_);
    calls_.push_back(call);
  }

  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> calls_;
  std::atomic<bool> holdStop_{false};
  bool stopReleased_ = false;
  std::atomic<bool> stopReleasedInTime_{false};
};

// Serves a driver's requests on a background thread, as a daemon's main loop
// would, until destroyed. Created and destroyed by the test's thread.
class Server {
 public:
  explicit Server(SRCDriver* driver) : driver_(driver) {
    if (pipe2(wake_, O_CLOEXEC) != 0) wake_[0] = wake_[1] = -1;
    thread_ = std::thread([this] { run(); });
  }
  ~Server() {
    stop_ = true;
    if (write(wake_[1], "x", 1) != 1) {
      // The poll below is bounded; the thread still sees stop_ in time.
    }
    thread_.join();
    close(wake_[0]);
    close(wake_[1]);
  }

 private:
  void run() {
    while (!stop_) {
      struct pollfd fds[2] = {{driver_->getSRCDescriptor(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
      if (poll(fds, 2, 1000) > 0 && (fds[0].revents & POLLIN) != 0) driver_->doSRCreq();
    }
  }

  SRCDriver* driver_;
  int wake_[2];
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct Piece {
  bool isError;
  std::string text;
};

// What a requester got back. Thread-compatible.
struct Answer {
  int rc = -1;
  std::string err;
  int pid = 0;
  std::vector<Piece> pieces;

  std::string text(bool errors) const {
    std::string out;
    for (const Piece& p : pieces) {
      if (p.isError == errors) out += p.text;
    }
    return out;
  }
  // The text with adjacent pieces of one kind joined: the order the
  // requester saw, independent of chunking.
  std::vector<Piece> runs() const {
    std::vector<Piece> out;
    for (const Piece& p : pieces) {
      if (!out.empty() && out.back().isError == p.isError) {
        out.back().text += p.text;
      } else {
        out.push_back(p);
      }
    }
    return out;
  }
};

Answer ask(const Request& req, int timeoutMs = kWaitMs, const char* name = kName) {
  Answer a;
  a.rc = velt_src::sendRequest(
      name, req, timeoutMs,
      [&](bool isError, const std::string& text) { a.pieces.push_back({isError, text}); }, &a.err,
      &a.pid);
  return a;
}

Request makeRequest(velt_src::Action action, int flags = 0) {
  Request r;
  r.action = action;
  r.flags = flags;
  return r;
}

Request makeOther(short code, const char* parm3 = nullptr, short parm1 = 0, short parm2 = 0) {
  Request r = makeRequest(velt_src::ACT_OTHER);
  r.dae_request = code;
  r.parm1 = parm1;
  r.parm2 = parm2;
  if (parm3 != nullptr) {
    r.hasParm3 = true;
    r.parm3 = parm3;
  }
  return r;
}

std::string encoded(const Request& r) {
  std::string out, why;
  EXPECT_EQ(velt_src::encodeRequest(r, &out, &why), 0) << why;
  return out;
}

// A requester that sends raw bytes and reads the reply datagram by
// datagram, for requests sendRequest would never produce.
// Thread-compatible.
// A requester's datagram socket with an autobound address, and in *addr
// the address of the request socket at path. Returns the socket or -1.
int requesterSocket(const std::string& path, struct sockaddr_un* addr) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un self;
  memset(&self, 0, sizeof self);
  self.sun_family = AF_UNIX;
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  snprintf(addr->sun_path, sizeof addr->sun_path, "%s", path.c_str());
  if (fd >= 0 && bind(fd, reinterpret_cast<struct sockaddr*>(&self), sizeof(sa_family_t)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

class RawRequester {
 public:
  explicit RawRequester(const std::string& path) {
    struct sockaddr_un addr;
    fd_ = requesterSocket(path, &addr);
    ok_ = fd_ >= 0 && connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawRequester() { closeSocket(); }
  void closeSocket() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  bool ok() const { return ok_; }

  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  // Reads until the end marker; false on a time-out or a malformed reply.
  bool readReply(Answer* a, int timeoutMs = kWaitMs) {
    std::vector<unsigned char> buf(velt_src::kMaxReplySize + 1);
    for (;;) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      if (poll(&pfd, 1, timeoutMs) != 1) return false;
      ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
      if (n < 0) return false;
      velt_src::Reply r;
      std::string why;
      if (velt_src::parseReply(buf.data(), static_cast<size_t>(n), &r, &why) != 0) {
        ADD_FAILURE() << "malformed reply: " << why;
        return false;
      }
      if (r.kind == velt_src::kReplyEnd) {
        a->rc = r.rc;
        return true;
      }
      a->pieces.push_back({r.kind == velt_src::kReplyError, r.text});
    }
  }

 private:
  int fd_ = -1;
  bool ok_ = false;
};

// Waits (bounded) until the driver's socket has a request queued.
bool requestWaiting(const SRCDriver& d, int timeoutMs = kWaitMs) {
  struct pollfd pfd = {d.getSRCDescriptor(), POLLIN, 0};
  return poll(&pfd, 1, timeoutMs) == 1;
}

// Every test gets its own socket directory (below a private temporary
// directory that does not exist yet) and exclusive file. Thread-compatible.
class SrcTestBase : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(tmp_.path().empty()) << "mkdtemp failed: " << strerror(errno);
    srcDir_ = tmp_.path() + "/run/velt/src";
    setenv("VELT_SRC_DIR", srcDir_.c_str(), 1);
    exclFile_ = tmp_.path() + "/" + kName + ".excl";
  }
  void TearDown() override { unsetenv("VELT_SRC_DIR"); }

  // Initialises d on this test's exclusive file.
  void init(SRCDriver* d) {
    ASSERT_EQ(d->InitSRC(1, exclFile_.c_str(), 88, nullptr), 0) << d->getError().text;
  }

  TempDir tmp_;
  std::string srcDir_;
  std::string exclFile_;
};

// ---------------------------------------------------------------------------
// The wire format on its own.

class SrcWireFormat : public ::testing::Test {};

TEST_F(SrcWireFormat, RequestRoundTripsThroughEncodeAndParse) {
  Request r = makeOther(-5, "hello world", 1234, -32768);
  std::string bytes = encoded(r);
  ASSERT_EQ(bytes.size(), velt_src::kRequestHeaderSize + 11);
  EXPECT_EQ(bytes.substr(0, 4), "SRCQ");
  Request back;
  std::string why;
  ASSERT_EQ(velt_src::parseRequest(bytes.data(), bytes.size(), &back, &why), 0) << why;
  EXPECT_EQ(back.action, velt_src::ACT_OTHER);
  EXPECT_EQ(back.dae_request, -5);
  EXPECT_EQ(back.parm1, 1234);
  EXPECT_EQ(back.parm2, -32768);
  EXPECT_TRUE(back.hasParm3);
  EXPECT_EQ(back.parm3, "hello world");
}

TEST_F(SrcWireFormat, EncoderRefusesWhatTheParserWouldReject) {
  std::string out, why;
  Request tooLong = makeOther(1, std::string(velt_src::kMaxParm3 + 1, 'a').c_str());
  EXPECT_EQ(velt_src::encodeRequest(tooLong, &out, &why), -1);
  Request stopWithoutKind = makeRequest(velt_src::ACT_STOP, 0);
  EXPECT_EQ(velt_src::encodeRequest(stopWithoutKind, &out, &why), -1);
  Request statusWithParm3 = makeRequest(velt_src::ACT_STATUS);
  statusWithParm3.hasParm3 = true;
  statusWithParm3.parm3 = "x";
  EXPECT_EQ(velt_src::encodeRequest(statusWithParm3, &out, &why), -1);
  Request maxParm3 = makeOther(1, std::string(velt_src::kMaxParm3, 'a').c_str());
  EXPECT_EQ(velt_src::encodeRequest(maxParm3, &out, &why), 0) << why;
}

TEST_F(SrcWireFormat, ReplyParserChecksEveryField) {
  velt_src::Reply r;
  std::string why;
  std::string inform = velt_src::encodeReply(velt_src::kReplyInform, 0, "abc", 3);
  ASSERT_EQ(velt_src::parseReply(inform.data(), inform.size(), &r, &why), 0) << why;
  EXPECT_EQ(r.kind, velt_src::kReplyInform);
  EXPECT_EQ(r.text, "abc");
  std::string end = velt_src::encodeReply(velt_src::kReplyEnd, -3, nullptr, 0);
  ASSERT_EQ(velt_src::parseReply(end.data(), end.size(), &r, &why), 0) << why;
  EXPECT_EQ(r.rc, -3);

  std::string bad = inform;
  bad[0] = 'X';
  EXPECT_EQ(velt_src::parseReply(bad.data(), bad.size(), &r, &why), -1);
  EXPECT_NE(why.find("magic"), std::string::npos) << why;
  bad = inform;
  bad[6] = 9;  // kind
  EXPECT_EQ(velt_src::parseReply(bad.data(), bad.size(), &r, &why), -1);
  EXPECT_NE(why.find("kind"), std::string::npos) << why;
  bad = end + "x";
  EXPECT_EQ(velt_src::parseReply(bad.data(), bad.size(), &r, &why), -1);
  EXPECT_EQ(velt_src::parseReply(inform.data(), 5, &r, &why), -1);
  std::string tooBig = velt_src::encodeReply(velt_src::kReplyInform, 0, "", 0) +
                       std::string(velt_src::kMaxReplyText + 1, 'y');
  EXPECT_EQ(velt_src::parseReply(tooBig.data(), tooBig.size(), &r, &why), -1);
}

// ---------------------------------------------------------------------------
// Each request reaches the virtual that fits, with its arguments.

class SrcActionDispatch : public SrcTestBase {};

TEST_F(SrcActionDispatch, EachActionReachesItsVirtualWithItsArguments) {
  TestDriver d;
  init(&d);
  Server server(&d);
  struct Case {
    Request req;
    std::string call;
    std::string inform;
  } cases[] = {
      {makeRequest(velt_src::ACT_STATUS, 1), "longStatus()",
       std::string("Status information for subsystem ") + kName + ":\nConnected to everything.\n"},
      {makeRequest(velt_src::ACT_TRACE_ON, 0), "traceBegin(0)", "trace begins at level 0\n"},
      {makeRequest(velt_src::ACT_TRACE_ON, 1), "traceBegin(1)", "trace begins at level 1\n"},
      {makeRequest(velt_src::ACT_TRACE_OFF), "traceEnd()", "trace ends\n"},
      {makeRequest(velt_src::ACT_REFRESH), "refresh()", "refreshed\n"},
      {makeOther(4711, "abc", 3, -4), "otherReq(4711,3,-4,\"abc\",3)", "request 4711 parm3 abc\n"},
      {makeOther(-2), "otherReq(-2,0,0,null,0)", "request -2 parm3 -\n"},
      {makeRequest(velt_src::ACT_STOP, 1), "stopNormal()", std::string(kName) + ": stop normal requested\n"},
      {makeRequest(velt_src::ACT_STOP, 2), "stopForced()", std::string(kName) + ": stop forced requested\n"},
      {makeRequest(velt_src::ACT_STOP, 3), "stopCancel(" + std::to_string(SIGTERM) + ")",
       std::string(kName) + ": stop cancel requested\n"},
  };
  size_t expectedCalls = 0;
  for (const Case& c : cases) {
    Answer a = ask(c.req);
    ASSERT_EQ(a.rc, 0) << c.call << ": " << a.err;
    EXPECT_EQ(a.text(false), c.inform) << c.call;
    EXPECT_EQ(a.text(true), "") << c.call;
    // The stop virtuals run after the answer left, so wait for the record.
    long long deadline = nowMs() + kWaitMs;
    while (d.calls().size() <= expectedCalls && nowMs() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::vector<std::string> calls = d.calls();
    ASSERT_EQ(calls.size(), expectedCalls + 1) << c.call;
    EXPECT_EQ(calls.back(), c.call);
    ++expectedCalls;
  }
  EXPECT_EQ(d.getStopCode(), -3);
  EXPECT_STREQ(d.getStopMsg(), "STOP CANCEL request from SRC");
}

TEST_F(SrcActionDispatch, OtherRequestCodeEndsTheReply) {
  TestDriver d;
  init(&d);
  Server server(&d);
  Answer a = ask(makeOther(kReturnSeven));
  EXPECT_EQ(a.rc, 7) << a.err;
  EXPECT_EQ(a.text(false), "returning seven\n");
}

TEST_F(SrcActionDispatch, BaseClassAnswersNotSupportedAndRecordsStopCodes) {
  SRCDriver d(kName);
  init(&d);
  Server server(&d);
  Answer trace = ask(makeRequest(velt_src::ACT_TRACE_ON, 1));
  EXPECT_EQ(trace.rc, 0) << trace.err;
  EXPECT_EQ(trace.text(true), std::string(kName) + ": trace requests are not supported\n");
  Answer other = ask(makeOther(9));
  EXPECT_EQ(other.rc, -1) << other.err;
  EXPECT_EQ(other.text(true), std::string(kName) + ": request 9 is not supported\n");
  Answer status = ask(makeRequest(velt_src::ACT_STATUS, 1));
  EXPECT_EQ(status.text(true), std::string(kName) + ": long status is not supported\n");

  Answer stop = ask(makeRequest(velt_src::ACT_STOP, 1));
  ASSERT_EQ(stop.rc, 0) << stop.err;
  long long deadline = nowMs() + kWaitMs;
  while (d.getStopCode() != -1 && nowMs() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(d.getStopCode(), -1);
  EXPECT_STREQ(d.getStopMsg(), "STOP NORMAL request from SRC");
}

// ---------------------------------------------------------------------------
// Reply text.

class SrcReplyText : public SrcTestBase {};

TEST_F(SrcReplyText, InformAndErrorTextArriveInWrittenOrder) {
  TestDriver d;
  init(&d);
  Server server(&d);
  Answer a = ask(makeOther(kOrderedText));
  ASSERT_EQ(a.rc, 0) << a.err;
  std::vector<Piece> runs = a.runs();
  ASSERT_EQ(runs.size(), 5u);
  const Piece expected[] = {{false, "one\n"}, {true, "two\n"}, {false, "three\n"},
                            {true, "four\n"}, {false, "five\n"}};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(runs[i].isError, expected[i].isError) << i;
    EXPECT_EQ(runs[i].text, expected[i].text) << i;
  }
}

TEST_F(SrcReplyText, LargeReplyArrivesIntactInManyChunks) {
  TestDriver d;
  init(&d);
  Server server(&d);
  Answer a = ask(makeOther(kLargeText));
  ASSERT_EQ(a.rc, 0) << a.err;
  std::string expected = largeText();
  ASSERT_GT(expected.size(), 100u * 1024);
  EXPECT_TRUE(a.text(false) == expected) << "got " << a.text(false).size() << " bytes of "
                                         << expected.size();
  EXPECT_GE(a.pieces.size(), expected.size() / velt_src::kMaxReplyText);
  for (const Piece& p : a.pieces) EXPECT_LE(p.text.size(), velt_src::kMaxReplyText);
}

TEST_F(SrcReplyText, TextOutsideARequestIsDiscarded) {
  TestDriver d;
  init(&d);
  EXPECT_FALSE(d.inRequest());
  EXPECT_EQ(d.inform_printf("nobody asked %d\n", 1), 0);
  EXPECT_EQ(d.error_printf("nobody asked %d\n", 2), 0);
  d.inform_flush();
  // The next requester sees only its own answer.
  Server server(&d);
  Answer a = ask(makeOther(1, "x"));
  EXPECT_EQ(a.text(false), "request 1 parm3 x\n");
  EXPECT_EQ(a.text(true), "");
}

// ---------------------------------------------------------------------------
// The short status is the library's own answer.

class SrcShortStatus : public SrcTestBase {};

TEST_F(SrcShortStatus, LibraryAnswersWithTableWithoutCallingTheDaemon) {
  TestDriver d;
  init(&d);
  Server server(&d);
  Answer a = ask(makeRequest(velt_src::ACT_STATUS, 0));
  ASSERT_EQ(a.rc, 0) << a.err;
  char row[128];
  snprintf(row, sizeof row, " %-16s %-7d active\n", kName, static_cast<int>(getpid()));
  EXPECT_EQ(a.text(false), std::string("Subsystem         PID     Status\n") + row);
  EXPECT_EQ(a.pid, getpid());
  EXPECT_TRUE(d.calls().empty());
}

// ---------------------------------------------------------------------------
// Stops.

class SrcStop : public SrcTestBase {};

TEST_F(SrcStop, RequesterIsAnsweredBeforeTheStopVirtualRuns) {
  TestDriver d;
  d.holdStopNormal();
  init(&d);
  Server server(&d);
  // stopNormal blocks until released below: the answer must come first.
  Answer a = ask(makeRequest(velt_src::ACT_STOP, 1), 2000);
  EXPECT_EQ(a.rc, 0) << a.err;
  EXPECT_EQ(a.text(false), std::string(kName) + ": stop normal requested\n");
  d.releaseStop();
  long long deadline = nowMs() + kWaitMs;
  while (d.getStopCode() == 0 && nowMs() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(d.stopWasReleasedInTime());
  EXPECT_EQ(d.getStopCode(), -1);
}

TEST_F(SrcStop, SrcstopDeliversAForcedStop) {
  TestDriver d;
  init(&d);
  Server server(&d);
  struct srcrep reply;
  memset(&reply, 0x55, sizeof reply);
  short replen = sizeof reply;
  ASSERT_EQ(srcstop("", kName, 2, &replen, &reply, nullptr), 0) << strerror(errno);
  EXPECT_EQ(reply.srcrc, 0);
  std::string text = std::string(kName) + ": stop forced requested\n";
  EXPECT_STREQ(reply.text, text.c_str());
  EXPECT_EQ(replen, static_cast<short>(offsetof(struct srcrep, text) + text.size() + 1));
  long long deadline = nowMs() + kWaitMs;
  while (d.getStopCode() == 0 && nowMs() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(d.getStopCode(), -2);
  EXPECT_STREQ(d.getStopMsg(), "STOP FORCED request from SRC");
  ASSERT_EQ(d.calls().size(), 1u);
  EXPECT_EQ(d.calls()[0], "stopForced()");
}

TEST_F(SrcStop, SrcstopRefusesRemoteHostsAndUnknownStopTypes) {
  struct srcrep reply;
  errno = 0;
  EXPECT_EQ(srcstop("elsewhere", kName, 1, nullptr, &reply, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(srcstop(nullptr, kName, 4, nullptr, &reply, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(srcstop(nullptr, "", 1, nullptr, &reply, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(SrcStop, SrcstopReportsAnAbsentSubsystem) {
  struct srcrep reply;
  short replen = sizeof reply;
  errno = 0;
  EXPECT_EQ(srcstop(nullptr, "nosuchd", 1, &replen, &reply, nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(replen, 0);
}

// ---------------------------------------------------------------------------
// Start-up: exclusive lock, semaphore key, socket directory and file.

class SrcExclusiveLock : public SrcTestBase {};

TEST_F(SrcExclusiveLock, SecondInstanceFailsWithExclLocked) {
  TestDriver first;
  init(&first);
  TestDriver second;
  EXPECT_EQ(second.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_EXCL_LOCKED);
  const velt_src::SRCError& e = second.getError();
  EXPECT_EQ(e.source, "libsrc");
  EXPECT_NE(e.text.find(exclFile_), std::string::npos) << e.text;
  EXPECT_NE(e.text.find("another instance"), std::string::npos) << e.text;
  EXPECT_EQ(e.function, "InitSRC");
  EXPECT_NE(e.file.find("src_driver.cc"), std::string::npos) << e.file;
  EXPECT_GT(e.line, 0);
  EXPECT_EQ(second.getSRCDescriptor(), -1);
  // The first instance still serves.
  Server server(&first);
  Answer a = ask(makeRequest(velt_src::ACT_STATUS));
  EXPECT_EQ(a.rc, 0) << a.err;
}

TEST_F(SrcExclusiveLock, LockIsReleasedWhenTheDriverEnds) {
  {
    TestDriver first;
    init(&first);
  }
  TestDriver again;
  EXPECT_EQ(again.InitSRC(1, exclFile_.c_str(), 88, nullptr), 0) << again.getError().text;
}

TEST_F(SrcExclusiveLock, InitSrcTwiceIsRefused) {
  TestDriver d;
  init(&d);
  EXPECT_EQ(d.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_ALREADY);
  EXPECT_GE(d.getSRCDescriptor(), 0);
}

TEST_F(SrcExclusiveLock, SemaphoreKeyComesFromTheExclusiveFileAndId) {
  TestDriver d;
  init(&d);
  EXPECT_EQ(d.getSemKey(), static_cast<unsigned int>(ftok(exclFile_.c_str(), 88)));
  EXPECT_NE(d.getSemKey(), 0u);
  struct stat st;
  ASSERT_EQ(stat(exclFile_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(SrcExclusiveLock, UnopenableExclusiveFileIsReported) {
  TestDriver d;
  std::string bad = tmp_.path() + "/missing-dir/x.excl";
  EXPECT_EQ(d.InitSRC(1, bad.c_str(), 88, nullptr), velt_src::SRC_EXCL_OPEN);
  EXPECT_NE(d.getError().text.find(bad), std::string::npos) << d.getError().text;
}

class SrcSocketSetup : public SrcTestBase {};

TEST_F(SrcSocketSetup, CreatesTheDirectoryTreeMode0700AndASocketNamedAfterTheSubsystem) {
  TestDriver d;
  init(&d);
  EXPECT_EQ(d.socketPath(), srcDir_ + "/" + kName);
  EXPECT_EQ(velt_src::socketPathFor(kName), d.socketPath());
  for (const std::string& dir : {tmp_.path() + "/run", tmp_.path() + "/run/velt", srcDir_}) {
    struct stat st;
    ASSERT_EQ(stat(dir.c_str(), &st), 0) << dir;
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << dir;
  }
  struct stat st;
  ASSERT_EQ(lstat(d.socketPath().c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  int flags = fcntl(d.getSRCDescriptor(), F_GETFD);
  EXPECT_TRUE((flags & FD_CLOEXEC) != 0);
}

TEST_F(SrcSocketSetup, StaleSocketOfADeadInstanceIsReplaced) {
  ASSERT_EQ(mkdir((tmp_.path() + "/run").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((tmp_.path() + "/run/velt").c_str(), 0700), 0);
  ASSERT_EQ(mkdir(srcDir_.c_str(), 0700), 0);
  // A socket file whose process is gone: bound, then closed.
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/%s", srcDir_.c_str(), kName);
  ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
  close(fd);
  TestDriver d;
  init(&d);
  Server server(&d);
  Answer a = ask(makeRequest(velt_src::ACT_STATUS));
  EXPECT_EQ(a.rc, 0) << a.err;
}

TEST_F(SrcSocketSetup, AFileThatIsNotASocketIsLeftAloneAndReported) {
  std::string path = srcDir_ + "/" + kName;
  ASSERT_EQ(system(("mkdir -p " + srcDir_ + " && echo keep > " + path).c_str()), 0);
  TestDriver d;
  EXPECT_EQ(d.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_SOCKET);
  EXPECT_NE(d.getError().text.find("is not a socket"), std::string::npos) << d.getError().text;
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  // The lock was given back: once the file is gone another attempt works.
  ASSERT_EQ(unlink(path.c_str()), 0);
  TestDriver again;
  EXPECT_EQ(again.InitSRC(1, exclFile_.c_str(), 88, nullptr), 0) << again.getError().text;
}

// A refused directory gives the exclusive lock back and makes no socket.
void expectUnsafeDirectory(TestDriver* d, const std::string& exclFile, const std::string& dir,
                           const std::string& why) {
  EXPECT_EQ(d->InitSRC(1, exclFile.c_str(), 88, nullptr), velt_src::SRC_DIR_UNSAFE);
  EXPECT_EQ(d->getError().text, "the request socket directory is not private: " + why);
  EXPECT_EQ(d->getSRCDescriptor(), -1);
  struct stat st;
  EXPECT_NE(lstat((dir + "/" + kName).c_str(), &st), 0);
  int fd = open(exclFile.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
  close(fd);
}

TEST_F(SrcSocketSetup, DirectoryOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "SKIP: needs root to give the directory to uid 65534";
  ASSERT_EQ(system(("mkdir -p -m 0700 " + srcDir_).c_str()), 0);
  ASSERT_EQ(chown(srcDir_.c_str(), 65534, 65534), 0);
  TestDriver d;
  expectUnsafeDirectory(&d, exclFile_, srcDir_,
                        srcDir_ + " belongs to uid 65534, not to root or uid 0");
}

TEST_F(SrcSocketSetup, GroupOrOtherWritableDirectoryIsRefused) {
  ASSERT_EQ(system(("mkdir -p " + srcDir_).c_str()), 0);
  ASSERT_EQ(chmod(srcDir_.c_str(), 0770), 0);
  TestDriver d;
  expectUnsafeDirectory(&d, exclFile_, srcDir_, srcDir_ + " is writable by its group (mode 0770)");
  ASSERT_EQ(chmod(srcDir_.c_str(), 01733), 0);
  TestDriver again;
  expectUnsafeDirectory(&again, exclFile_, srcDir_, srcDir_ + " is writable by others (mode 1733)");
}

TEST_F(SrcSocketSetup, SymbolicLinkDirectoryIsRefused) {
  std::string real = tmp_.path() + "/real";
  ASSERT_EQ(mkdir(real.c_str(), 0700), 0);
  ASSERT_EQ(system(("mkdir -p " + tmp_.path() + "/run/velt").c_str()), 0);
  ASSERT_EQ(symlink(real.c_str(), srcDir_.c_str()), 0);
  TestDriver d;
  expectUnsafeDirectory(&d, exclFile_, real,
                        srcDir_ + " is a symbolic link; a real directory is required");
}

TEST_F(SrcSocketSetup, CreatedDirectoriesAre0700WhateverTheUmask) {
  mode_t old = umask(0277);
  TestDriver d;
  int rc = d.InitSRC(1, exclFile_.c_str(), 88, nullptr);
  umask(old);
  ASSERT_EQ(rc, 0) << d.getError().text;
  for (const std::string& dir : {tmp_.path() + "/run", tmp_.path() + "/run/velt", srcDir_}) {
    struct stat st;
    ASSERT_EQ(stat(dir.c_str(), &st), 0) << dir;
    EXPECT_EQ(st.st_mode & 07777, 0700u) << dir;
  }
}

TEST_F(SrcSocketSetup, RelativeSocketDirectoryIsRefused) {
  setenv("VELT_SRC_DIR", "relative/src", 1);
  TestDriver d;
  EXPECT_EQ(d.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_SOCKET);
  EXPECT_NE(d.getError().text.find("absolute"), std::string::npos) << d.getError().text;
}

TEST_F(SrcSocketSetup, SubsystemNameMustBeAPlainFileName) {
  SRCDriver noName("");
  EXPECT_EQ(noName.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_NO_NAME);
  SRCDriver slash("a/b");
  EXPECT_EQ(slash.InitSRC(1, exclFile_.c_str(), 88, nullptr), velt_src::SRC_SOCKET);
}

TEST_F(SrcSocketSetup, SocketFileIsRemovedWhenTheDriverEnds) {
  std::string path;
  {
    TestDriver d;
    init(&d);
    path = d.socketPath();
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
  }
  struct stat st;
  EXPECT_NE(lstat(path.c_str(), &st), 0);
}

// ---------------------------------------------------------------------------
// Malformed requests are answered with an error and change nothing.

class SrcMalformedRequest : public SrcTestBase {
 protected:
  // Sends bytes, lets the driver serve them and returns the answer.
  // doSRCreq returns 0 for a refused request, 1 for a served one.
  Answer serve(TestDriver* d, const std::string& bytes, int expectServed = 0) {
    Answer a;
    RawRequester raw(d->socketPath());
    EXPECT_TRUE(raw.ok());
    EXPECT_TRUE(raw.send(bytes)) << strerror(errno);
    EXPECT_TRUE(requestWaiting(*d));
    EXPECT_EQ(d->doSRCreq(), expectServed);
    EXPECT_TRUE(raw.readReply(&a));
    return a;
  }
  void expectRejected(TestDriver* d, const std::string& bytes, const std::string& reason) {
    Answer a = serve(d, bytes);
    EXPECT_EQ(a.rc, velt_src::kRcRejected);
    EXPECT_EQ(a.text(false), "");
    std::string err = a.text(true);
    EXPECT_EQ(err.rfind(std::string(kName) + ": SRC request rejected: ", 0), 0u) << err;
    EXPECT_NE(err.find(reason), std::string::npos) << "expected \"" << reason << "\" in " << err;
  }
  static void putU16(std::string* s, size_t off, uint16_t v) {
    (*s)[off] = static_cast<char>(v & 0xff);
    (*s)[off + 1] = static_cast<char>(v >> 8);
  }
};

TEST_F(SrcMalformedRequest, EachFaultIsNamedAndTheDriverServesOnAfterwards) {
  TestDriver d;
  init(&d);
  const std::string good = encoded(makeOther(1, "abc"));

  expectRejected(&d, "", "shorter than the 20-byte request header");
  expectRejected(&d, good.substr(0, 7), "datagram of 7 bytes is shorter");
  std::string bad = good;
  bad[0] = 'Z';
  expectRejected(&d, bad, "bad magic");
  bad = good;
  putU16(&bad, 4, 2);
  expectRejected(&d, bad, "unsupported version 2");
  bad = good;
  putU16(&bad, 6, 77);
  expectRejected(&d, bad, "unknown action 77");
  bad = encoded(makeRequest(velt_src::ACT_STOP, 1));
  bad[8] = 9;
  expectRejected(&d, bad, "flags 0x9 are not valid for action 2");
  bad = good;
  putU16(&bad, 18, 200);  // claims more parm3 than it carries
  expectRejected(&d, bad, "length mismatch");
  bad = good;
  putU16(&bad, 18, 1);  // claims less
  expectRejected(&d, bad, "length mismatch");
  bad = good;
  putU16(&bad, 18, 60000);
  expectRejected(&d, bad, "parm3 length 60000 exceeds the limit");
  bad = encoded(makeRequest(velt_src::ACT_STATUS)) + "zz";
  putU16(&bad, 18, 2);
  expectRejected(&d, bad, "parm3 is not accepted with action 1");
  bad = good;
  bad[velt_src::kRequestHeaderSize + 1] = '\0';
  expectRejected(&d, bad, "NUL byte");
  std::string big = good + std::string(64 * 1024 - good.size(), 'q');
  expectRejected(&d, big, "datagram of 65536 bytes exceeds the largest request (1044 bytes)");

  EXPECT_TRUE(d.calls().empty());
  Answer ok = serve(&d, good, 1);
  EXPECT_EQ(ok.rc, 0);
  EXPECT_EQ(ok.text(false), "request 1 parm3 abc\n");
}

TEST_F(SrcMalformedRequest, RandomBytesAreRejectedWithoutHarm) {
  TestDriver d;
  init(&d);
  std::mt19937 rng(4711);
  for (int i = 0; i < 200; ++i) {
    std::string bytes(rng() % 1500, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    Answer a = serve(&d, bytes);
    EXPECT_EQ(a.rc, velt_src::kRcRejected);
    EXPECT_NE(a.text(true).find("SRC request rejected"), std::string::npos);
  }
  EXPECT_TRUE(d.calls().empty());
  Server server(&d);
  Answer a = ask(makeOther(2, "after"));
  EXPECT_EQ(a.rc, 0) << a.err;
  EXPECT_EQ(a.text(false), "request 2 parm3 after\n");
}

// ---------------------------------------------------------------------------
// Only root and the daemon's own user may send requests.

class SrcPermission : public SrcTestBase {};

TEST_F(SrcPermission, SenderOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a sender as uid 65534";
  TestDriver d;
  init(&d);
  // Let uid 65534 reach the socket, so that the driver's own check decides.
  for (const std::string& dir : {tmp_.path(), tmp_.path() + "/run", tmp_.path() + "/run/velt", srcDir_}) {
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0) << dir;
  }
  ASSERT_EQ(chmod(d.socketPath().c_str(), 0666), 0);
  int report[2];
  ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
  std::string request = encoded(makeOther(1, "sneaky"));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child speaks only through its report: 'R' when refused as
    // expected, anything else names what went wrong.
    char verdict = 'X';
    if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0) {
      verdict = 'U';
    } else {
      RawRequester raw(d.socketPath());
      Answer a;
      if (!raw.ok() || !raw.send(request)) {
        verdict = 'C';
      } else if (!raw.readReply(&a)) {
        verdict = 'T';
      } else if (a.rc == velt_src::kRcRefused &&
                 a.text(true) == std::string(kName) +
                                     ": permission denied: only root or the daemon's user may "
                                     "send requests\n" &&
                 a.text(false).empty()) {
        verdict = 'R';
      } else {
        verdict = 'A';
      }
    }
    if (write(report[1], &verdict, 1) != 1) _exit(3);
    _exit(0);
  }
  close(report[1]);
  ASSERT_TRUE(requestWaiting(d));
  EXPECT_EQ(d.doSRCreq(), 0);
  char verdict = '?';
  struct pollfd pfd = {report[0], POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, kWaitMs), 1);
  ASSERT_EQ(read(report[0], &verdict, 1), 1);
  close(report[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(verdict, 'R') << "U: could not drop privileges, C: could not send, T: no reply, "
                             "A: the request was not refused";
  EXPECT_TRUE(d.calls().empty());
}

// ---------------------------------------------------------------------------
// A requester cannot hold the daemon.

class SrcReplyStall : public SrcTestBase {
 protected:
  void expectOthersServedWhileFlooded(bool connected);
};

TEST_F(SrcReplyStall, RequesterThatStopsReadingLosesTheRestAtOnceAndIsCounted) {
  TestDriver d;
  init(&d);
  std::vector<velt_src::ReplyDrop> told;
  d.setReplyDropObserver([&](const velt_src::ReplyDrop& drop) { told.push_back(drop); });
  {
    RawRequester silent(d.socketPath());
    ASSERT_TRUE(silent.ok());
    ASSERT_TRUE(silent.send(encoded(makeOther(kHugeText))));
    ASSERT_TRUE(requestWaiting(d));
    long long start = nowMs();
    EXPECT_EQ(d.doSRCreq(), 1);
    // 2 MiB do not fit any socket: the rest was dropped without waiting.
    EXPECT_LT(nowMs() - start, 1000);
  }
  EXPECT_EQ(d.repliesDropped(), 1);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].dropped, 1);
  EXPECT_EQ(told[0].pid, getpid());
  EXPECT_EQ(told[0].uid, geteuid());
  EXPECT_EQ(told[0].reason, "the requester does not read its replies (no room to send)");
  // With that requester gone the next one is served in full.
  Server server(&d);
  Answer a = ask(makeOther(kLargeText));
  EXPECT_EQ(a.rc, 0) << a.err;
  EXPECT_TRUE(a.text(false) == largeText());
}

// A requester that sends request after request and reads none of the
// replies: the daemon must go on answering everyone else at once.
void floodWithoutReading(const std::string& path, int requests, std::atomic<bool>* stop,
                         std::atomic<int>* sent, bool connected) {
  struct sockaddr_un addr;
  int fd = requesterSocket(path, &addr);
  if (fd < 0) return;
  const struct sockaddr* to = reinterpret_cast<const struct sockaddr*>(&addr);
  if (connected && connect(fd, to, sizeof addr) != 0) {
    close(fd);
    return;
  }
  std::string request = encoded(makeRequest(velt_src::ACT_STATUS));
  while (*sent < requests && !*stop) {
    ssize_t n = connected ? ::send(fd, request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                          : sendto(fd, request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                   to, sizeof addr);
    if (n == static_cast<ssize_t>(request.size())) {
      ++*sent;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // The daemon's queue is full; it frees up as requests are served.
      struct pollfd pfd = {fd, POLLOUT, 0};
      poll(&pfd, 1, 50);
    } else {
      break;
    }
  }
  // Keep the socket, unread, until the test is over.
  while (!*stop) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  close(fd);
}

void SrcReplyStall::expectOthersServedWhileFlooded(bool connected) {
  TestDriver d;
  init(&d);
  Server server(&d);
  constexpr int kFlood = 3000;
  std::atomic<bool> stop{false};
  std::atomic<int> sent{0};
  std::thread flood(floodWithoutReading, d.socketPath(), kFlood, &stop, &sent, connected);
  // Ask while the flood is under way, and again once it is all queued.
  for (int round = 0; round < 2; ++round) {
    if (round == 1) {
      long long until = nowMs() + 20000;
      while (sent < kFlood && nowMs() < until) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    long long start = nowMs();
    Answer a = ask(makeRequest(velt_src::ACT_STATUS), 1000);
    long long took = nowMs() - start;
    EXPECT_EQ(a.rc, 0) << "round " << round << ": " << a.err;
    EXPECT_EQ(a.text(false).rfind("Subsystem         PID     Status\n", 0), 0u) << a.text(false);
    EXPECT_LT(took, 1000) << "round " << round;
  }
  EXPECT_EQ(sent, kFlood) << "the flooding requester was held up";
  EXPECT_GT(d.repliesDropped(), 0) << "the flood's replies cannot all have fitted";
  stop = true;
  flood.join();
}

TEST_F(SrcReplyStall, RequesterThatNeverReadsDoesNotDelayOthers) {
  expectOthersServedWhileFlooded(false);
}

TEST_F(SrcReplyStall, ConnectedRequesterThatNeverReadsDoesNotDelayOthers) {
  expectOthersServedWhileFlooded(true);
}

TEST_F(SrcReplyStall, RequesterThatVanishedIsDropped) {
  TestDriver d;
  init(&d);
  {
    RawRequester gone(d.socketPath());
    ASSERT_TRUE(gone.ok());
    ASSERT_TRUE(gone.send(encoded(makeOther(kLargeText))));
  }
  ASSERT_TRUE(requestWaiting(d));
  long long start = nowMs();
  EXPECT_EQ(d.doSRCreq(), 1);
  EXPECT_LT(nowMs() - start, 1000);
  EXPECT_EQ(d.calls().size(), 1u);
  EXPECT_EQ(d.repliesDropped(), 1);
}

TEST_F(SrcReplyStall, RequesterIsHeldToItsUnreadRepliesUntilOutputDrains) {
  TestDriver d;
  init(&d);
  RawRequester slow(d.socketPath());
  ASSERT_TRUE(slow.ok());
  std::string status = encoded(makeRequest(velt_src::ACT_STATUS));
  const int limit = velt_src::kMaxUnreadRepliesPerRequester;
  for (int i = 0; i < limit + 2; ++i) {
    ASSERT_TRUE(slow.send(status));
    ASSERT_TRUE(requestWaiting(d));
    EXPECT_EQ(d.doSRCreq(), 1);
  }
  EXPECT_EQ(d.repliesDropped(), 2);
  for (int i = 0; i < limit; ++i) {
    Answer a;
    ASSERT_TRUE(slow.readReply(&a)) << i;
    EXPECT_EQ(a.rc, 0);
  }
  // All read: the same requester is answered again.
  ASSERT_TRUE(slow.send(status));
  ASSERT_TRUE(requestWaiting(d));
  EXPECT_EQ(d.doSRCreq(), 1);
  Answer a;
  ASSERT_TRUE(slow.readReply(&a, 1000));
  EXPECT_EQ(a.rc, 0);
  EXPECT_EQ(d.repliesDropped(), 2);
}

// ---------------------------------------------------------------------------
// The client's own errors.

class SrcClientErrors : public SrcTestBase {};

TEST_F(SrcClientErrors, AbsentSubsystemIsReportedAsNotActive) {
  Answer a = ask(makeRequest(velt_src::ACT_STATUS), 1000, "nosuchd");
  EXPECT_EQ(a.rc, -1);
  EXPECT_EQ(a.err, "subsystem nosuchd is not active (no request socket at " + srcDir_ + "/nosuchd)");
}

TEST_F(SrcClientErrors, SubsystemThatDoesNotAnswerTimesOut) {
  TestDriver d;
  init(&d);  // the socket exists, but nobody serves it
  long long start = nowMs();
  Answer a = ask(makeRequest(velt_src::ACT_STATUS), 200);
  long long took = nowMs() - start;
  EXPECT_EQ(a.rc, -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(a.err, std::string("no reply from subsystem ") + kName + " within 0.2 s");
  EXPECT_GE(took, 150);
  EXPECT_LT(took, 3000);
}

TEST_F(SrcClientErrors, OverlongParm3IsRefusedBeforeSending) {
  Answer a = ask(makeOther(1, std::string(velt_src::kMaxParm3 + 1, 'p').c_str()), 1000);
  EXPECT_EQ(a.rc, -1);
  EXPECT_NE(a.err.find("limit is 1024"), std::string::npos) << a.err;
}

// ---------------------------------------------------------------------------
// The srcctl tool against a served driver.

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

class Srcctl : public SrcTestBase {
 protected:
  ToolRun srcctl(const std::string& args) {
    ToolRun r;
    std::string errFile = tmp_.path() + "/srcctl.err";
    std::string cmd = std::string(SRCCTL_PATH) + " " + args + " 2>" + errFile;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    FILE* e = fopen(errFile.c_str(), "r");
    if (e != nullptr) {
      while ((n = fread(buf, 1, sizeof buf, e)) > 0) r.err.append(buf, n);
      fclose(e);
    }
    return r;
  }
};

TEST_F(Srcctl, LongStatusPrintsTheDaemonsTextExactly) {
  TestDriver d;
  init(&d);
  Server server(&d);
  ToolRun r = srcctl(std::string("-s ") + kName + " status -l");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string("Status information for subsystem ") + kName +
                       ":\nConnected to everything.\n");
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(d.calls().size(), 1u);
  EXPECT_EQ(d.calls()[0], "longStatus()");
}

TEST_F(Srcctl, RequestWithParm3ReachesOtherReq) {
  TestDriver d;
  init(&d);
  Server server(&d);
  ToolRun r = srcctl(std::string("-s ") + kName + " request 787 'a b' --parm1 3 --parm2 -9");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "request 787 parm3 a b\n");
  ASSERT_EQ(d.calls().size(), 1u);
  EXPECT_EQ(d.calls()[0], "otherReq(787,3,-9,\"a b\",3)");
}

TEST_F(Srcctl, ErrorTextGoesToStderrAndFailsTheCommand) {
  TestDriver d;
  init(&d);
  Server server(&d);
  ToolRun r = srcctl(std::string("-s ") + kName + " request " + std::to_string(kErrorText));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, std::string(kName) + ": Invalid request 104.\n");
  ToolRun seven = srcctl(std::string("-s ") + kName + " request " + std::to_string(kReturnSeven));
  EXPECT_EQ(seven.status, 1);
  EXPECT_EQ(seven.out, "returning seven\n");
}

TEST_F(Srcctl, ShortStatusStopAndTraceCommands) {
  TestDriver d;
  init(&d);
  Server server(&d);
  ToolRun status = srcctl(std::string("-s ") + kName + " status");
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_EQ(status.out.rfind("Subsystem         PID     Status\n", 0), 0u) << status.out;
  ToolRun trace = srcctl(std::string("-s ") + kName + " trace on -l");
  EXPECT_EQ(trace.out, "trace begins at level 1\n");
  ToolRun off = srcctl(std::string("-s ") + kName + " trace off");
  EXPECT_EQ(off.out, "trace ends\n");
  ToolRun refresh = srcctl(std::string("-s ") + kName + " refresh");
  EXPECT_EQ(refresh.out, "refreshed\n");
  ToolRun stop = srcctl(std::string("-s ") + kName + " stop -c");
  EXPECT_EQ(stop.status, 0) << stop.err;
  EXPECT_EQ(stop.out, std::string(kName) + ": stop cancel requested\n");
}

TEST_F(Srcctl, UsageErrorsExitWithTwoAndHelpWithZero) {
  for (const char* args : {"", "status", "-s x", "-s x bogus", "-s x stop -f -c", "-s x status -f",
                           "-s x trace sideways", "-s x request", "-s x request 12x",
                           "-s x request 99999", "-s x --timeout 0 status", "-s x refresh now",
                           "-s x status --parm1 3"}) {
    ToolRun r = srcctl(args);
    EXPECT_EQ(r.status, 2) << args;
    EXPECT_NE(r.err.find("usage: srcctl"), std::string::npos) << args;
    EXPECT_EQ(r.out, "") << args;
  }
  ToolRun help = srcctl("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: srcctl", 0), 0u);
}

// A process holding the daemon's socket (as a leaked descriptor would) that
// answers a requester in the daemon's place. Created and waited for by the
// test's thread.
class Forger {
 public:
  // asNobody: the forger runs as uid 65534. It sends "FORGED\n" (and, when
  // withEnd, an end marker) once go() is called.
  Forger(int daemonFd, bool asNobody, bool withEnd) {
    if (pipe2(go_, O_CLOEXEC) != 0 || pipe2(done_, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(go_[1]);
      close(done_[0]);
      // Speaks only through done_: 'S' sent, 'U' could not drop privileges,
      // 'W' no go, 'P' no request to answer, 'C' could not send.
      char verdict = 'S';
      char c;
      if (asNobody && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                       setresuid(65534, 65534, 65534) != 0)) {
        verdict = 'U';
      } else if (!waitReadable(go_[0]) || read(go_[0], &c, 1) != 1) {
        verdict = 'W';
      } else {
        // The requester's address, from its request left queued for the daemon.
        struct sockaddr_un from;
        socklen_t len = sizeof from;
        char b[velt_src::kMaxRequestSize];
        if (!waitReadable(daemonFd) ||
            recvfrom(daemonFd, b, sizeof b, MSG_PEEK, reinterpret_cast<struct sockaddr*>(&from), &len) < 0) {
          verdict = 'P';
        } else {
          std::string forged = velt_src::encodeReply(velt_src::kReplyInform, 0, "FORGED\n", 7);
          std::string end = velt_src::encodeReply(velt_src::kReplyEnd, 0, nullptr, 0);
          const struct sockaddr* to = reinterpret_cast<const struct sockaddr*>(&from);
          if (sendto(daemonFd, forged.data(), forged.size(), 0, to, len) < 0 ||
              (withEnd && sendto(daemonFd, end.data(), end.size(), 0, to, len) < 0)) {
            verdict = 'C';
          }
        }
      }
      if (write(done_[1], &verdict, 1) != 1) _exit(3);
      _exit(0);
    }
    close(go_[0]);
    close(done_[1]);
  }
  ~Forger() {
    close(go_[1]);
    close(done_[0]);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  // Lets the forger send and returns its verdict ('S' when it sent).
  char forge() {
    char verdict = '?';
    if (write(go_[1], "g", 1) != 1) return verdict;
    if (waitReadable(done_[0]) && read(done_[0], &verdict, 1) != 1) verdict = '?';
    return verdict;
  }

 private:
  static bool waitReadable(int fd) {
    struct pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, kWaitMs) == 1;
  }
  int go_[2] = {-1, -1};
  int done_[2] = {-1, -1};
  pid_t pid_ = -1;
};

TEST_F(Srcctl, ForgedReplyFromAnotherUserIsIgnoredAndTheRealReplyTaken) {
  if (geteuid() != 0) GTEST_SKIP() << "SKIP: needs root to send a forged reply as uid 65534";
  TestDriver d;
  init(&d);
  Forger forger(d.getSRCDescriptor(), true, true);
  ASSERT_GT(forger.pid(), 0);
  ToolRun r;
  std::thread tool([&] { r = srcctl(std::string("-s ") + kName + " --timeout 5 stop"); });
  // The forgery is in srcctl's queue before the daemon serves the request.
  char verdict = forger.forge();
  bool waiting = requestWaiting(d);
  if (waiting) d.doSRCreq();
  tool.join();
  ASSERT_EQ(verdict, 'S') << "U: could not drop privileges, W/P: nothing to answer, C: could not send";
  ASSERT_TRUE(waiting);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kName) + ": stop normal requested\n");
  EXPECT_NE(r.err.find("srcctl: warning: ignored a reply datagram from pid " + std::to_string(forger.pid()) +
                       " uid 65534: neither root, nor this user, nor "),
            std::string::npos)
      << r.err;
  EXPECT_EQ(d.calls(), std::vector<std::string>{"stopNormal()"});
}

TEST_F(Srcctl, PiecesFromAProcessOtherThanTheAnsweringOneAreIgnored) {
  TestDriver d;
  init(&d);
  int fd = d.getSRCDescriptor();
  Forger forger(fd, false, false);
  ASSERT_GT(forger.pid(), 0);
  ToolRun r;
  std::thread tool([&] { r = srcctl(std::string("-s ") + kName + " --timeout 5 status"); });
  // Answer by hand, as the daemon would, with the forger's piece in the middle.
  bool waiting = requestWaiting(d);
  struct sockaddr_un from;
  socklen_t len = sizeof from;
  char b[velt_src::kMaxRequestSize];
  bool peeked = waiting && recvfrom(fd, b, sizeof b, MSG_PEEK, reinterpret_cast<struct sockaddr*>(&from), &len) > 0;
  const struct sockaddr* to = reinterpret_cast<const struct sockaddr*>(&from);
  std::string first = velt_src::encodeReply(velt_src::kReplyInform, 0, "real one\n", 9);
  std::string end = velt_src::encodeReply(velt_src::kReplyEnd, 0, nullptr, 0);
  bool sentFirst = peeked && sendto(fd, first.data(), first.size(), 0, to, len) > 0;
  char verdict = sentFirst ? forger.forge() : '-';
  bool sentEnd = peeked && sendto(fd, end.data(), end.size(), 0, to, len) > 0;
  tool.join();
  ASSERT_TRUE(sentFirst && sentEnd);
  ASSERT_EQ(verdict, 'S');
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "real one\n");
  EXPECT_EQ(r.err, "srcctl: warning: ignored a reply datagram from pid " + std::to_string(forger.pid()) +
                       " uid " + std::to_string(geteuid()) + ": the reply is coming from pid " +
                       std::to_string(getpid()) + "\n");
}

TEST_F(Srcctl, AbsentSubsystemFailsWithAClearMessage) {
  ToolRun r = srcctl("-s nosuchd --timeout 2 status");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "srcctl: subsystem nosuchd is not active (no request socket at " + srcDir_ +
                       "/nosuchd)\n");
}

}  // namespace

// Local interfaces and group names: name classes, adapter indexes, network
// numbers, InfiniBand group names, the interface scan over a replaced
// SIOCGIFCONF answer, and the real scan in a private network namespace.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "AMNetIf.h"
#include "sw_adapter_info.h"
#include "trace_test_support.h"

namespace {

// ---------------------------------------------------------------------------
// Name classes and numbers

TEST(InterfaceNameClass, SwitchNamesBeginWithSnOrSxn) {
  EXPECT_EQ(isSwitchAdapter("sn0"), 1);
  EXPECT_EQ(isSwitchAdapter("sxn12"), 1);
  EXPECT_EQ(isSwitchAdapter("sxn"), 1);
  EXPECT_EQ(isSwitchAdapter("s0"), 0);
  EXPECT_EQ(isSwitchAdapter("xsxn0"), 0);
  EXPECT_EQ(isSwitchAdapter("eth0"), 0);
  EXPECT_EQ(isSwitchAdapter(nullptr), 0);
}

TEST(InterfaceNameClass, AggregateNamesBeginWithMl0) {
  EXPECT_EQ(isML0Adapter("ml0"), 1);
  EXPECT_EQ(isML0Adapter("ml01"), 1);
  EXPECT_EQ(isML0Adapter("ml1"), 0);
  EXPECT_EQ(isML0Adapter("xml0"), 0);
  EXPECT_EQ(isML0Adapter(nullptr), 0);
}

TEST(InterfaceNameClass, InfiniBandIsASubstringTest) {
  EXPECT_EQ(isIBAdapter("fib0"), 1);
  EXPECT_EQ(isIBAdapter("ib0"), 1);
  EXPECT_EQ(isIBAdapter("eth0"), 0);
  EXPECT_EQ(isIBAdapter("i0b"), 0);
  EXPECT_EQ(isIBAdapter(nullptr), 0);
}

TEST(InterfaceNameClass, AggregateOverInfiniBandIsOff) { EXPECT_EQ(isML0ForIBSupported(), 0); }

TEST(SwitchNetworkNumber, SxnNamesGiveTheirNumber) {
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sxn12"), 12);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sxn1"), 1);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sxn0"), 0);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sxnab3"), 3);
}

TEST(SwitchNetworkNumber, OtherNamesGiveMinusOne) {
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sxn"), -1);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("sn1"), -1);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName("ib0"), -1);
  EXPECT_EQ(getNetworkFromSwitchInterfaceName(nullptr), -1);
}

TEST(SwitchAdapterQuery, IsUnavailableAndFillsNeutralValues) {
  swnet_adapter_info_t info = {7, 7, 7};
  EXPECT_EQ(get_switch_adapter_info("sni0", &info), -1);
  EXPECT_EQ(info.devtype, 0u);
  EXPECT_EQ(info.lid, -1);
  EXPECT_EQ(info.network, 0u);
}

// ---------------------------------------------------------------------------
// Adapter indexes

class InterfaceIndex : public trace_test::TraceLogFixture {
 protected:
  void SetUp() override {
    trace_test::TraceLogFixture::SetUp();
    _traceStream.SetGlobalTraceLevel(TraceLevel(trace_test::kDefaultLevel | TRACE_DEBUG));
    resetInterfaceIndexMapForTesting();
  }
  void TearDown() override {
    resetInterfaceIndexMapForTesting();
    trace_test::TraceLogFixture::TearDown();
  }
};

TEST_F(InterfaceIndex, FirstNameSeenGetsZero) {
  EXPECT_EQ(_idxFromInterfaceName("sxn1"), 0);
  drain();
  EXPECT_EQ(trace_test::countContaining(logLines(), "_idxFromInterfacename(sxn1) returns index=0"), 1);
}

TEST_F(InterfaceIndex, IndexesFollowFirstSightNotDigits) {
  EXPECT_EQ(_idxFromInterfaceName("sxn12"), 0);
  EXPECT_EQ(_idxFromInterfaceName("sxn0"), 1);
  EXPECT_EQ(_idxFromInterfaceName("ib3"), 2);
  EXPECT_EQ(_idxFromInterfaceName("sxn12"), 0);
  EXPECT_EQ(_idxFromInterfaceName("sxn0"), 1);
  EXPECT_EQ(_idxFromInterfaceName(nullptr), -1);
  EXPECT_EQ(_idxFromInterfaceName("sn0"), 3);
}

// ---------------------------------------------------------------------------
// InfiniBand group names

class IBGroupNames : public trace_test::TraceLogFixture {
 protected:
  void SetUp() override {
    trace_test::TraceLogFixture::SetUp();
    _traceStream.SetGlobalTraceLevel(TraceLevel(trace_test::kDefaultLevel | TRACE_DEBUG));
    resetIBGroupNamesForTesting();
    isIBenv = true;
  }
  void TearDown() override {
    isIBenv = false;
    resetIBGroupNamesForTesting();
    trace_test::TraceLogFixture::TearDown();
  }
  static AMNetInterface interfaceOn(uint64_t network) {
    AMNetInterface intf;
    memset(&intf, 0, sizeof intf);
    strcpy(intf.ifrName, "ib0");
    intf.networkId64 = network;
    return intf;
  }
};

TEST_F(IBGroupNames, UnknownNetworkHasNoName) {
  EXPECT_EQ(getIBGroupName(0x1234), nullptr);
  EXPECT_EQ(getNetworkId64FromGroupName("IBNet.1234"), 0u);
}

TEST_F(IBGroupNames, SameNetworkTwiceKeepsOneNameAndCountsOnce) {
  createIBGroupName(interfaceOn(0xfe80000000001aULL));
  const char* first = getIBGroupName(0xfe80000000001aULL);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first, "IBNet.fe80000000001a");
  EXPECT_EQ(currentNumbersOfNetworks.load(), 1);

  createIBGroupName(interfaceOn(0xfe80000000001aULL));
  EXPECT_EQ(currentNumbersOfNetworks.load(), 1);
  EXPECT_EQ(getIBGroupName(0xfe80000000001aULL), first) << "the stored name is kept";

  createIBGroupName(interfaceOn(0x2));
  EXPECT_EQ(currentNumbersOfNetworks.load(), 2);
  EXPECT_STREQ(getIBGroupName(0x2), "IBNet.2");

  drain();
  auto lines = logLines();
  EXPECT_EQ(trace_test::countContaining(lines, "createIBGroupNames() created a new IB group name IBNet.fe80000000001a"),
            1);
  EXPECT_EQ(trace_test::countContaining(lines, "In createIBGroupName(), currentNumbersOfNetworks: 1"), 2);
  EXPECT_EQ(trace_test::countContaining(lines, "In createIBGroupName(), currentNumbersOfNetworks: 2"), 1);
  EXPECT_GE(trace_test::countContaining(lines, "getIBGroupname(): group name = IBNet.2"), 1);
}

TEST_F(IBGroupNames, NoNamesOutsideAnInfiniBandEnvironment) {
  isIBenv = false;
  createIBGroupName(interfaceOn(0x77));
  EXPECT_EQ(getIBGroupName(0x77), nullptr);
  EXPECT_EQ(currentNumbersOfNetworks.load(), 0);
}

TEST_F(IBGroupNames, GroupNameLeadsBackToItsNetwork) {
  createIBGroupName(interfaceOn(0xabc));
  createIBGroupName(interfaceOn(0x10));
  EXPECT_EQ(getNetworkId64FromGroupName("IBNet.abc"), 0xabcu);
  EXPECT_EQ(getNetworkId64FromGroupName("IBNet.10"), 0x10u);
  EXPECT_EQ(getNetworkId64FromGroupName("IBNet.ABC"), 0u) << "exact compare";
  EXPECT_EQ(getNetworkId64FromGroupName("IBNet.ab"), 0u);
  EXPECT_EQ(getNetworkId64FromGroupName(nullptr), 0u);
}

// ---------------------------------------------------------------------------
// Interface flags

TEST(InterfaceFlags, UnknownInterfaceGivesMinusOneAndNoFlags) {
  int flags = 123;
  EXPECT_EQ(getLocalNetIfFlags("nosuchif0", &flags), -1);
  EXPECT_EQ(flags, 0);
  int state = 7;
  EXPECT_EQ(getLocalNetIfOpState("nosuchif0", &state), -1);
  EXPECT_EQ(state, 0);
}

TEST(InterfaceFlags, OverlongNameIsRefused) {
  int flags = 123;
  EXPECT_EQ(getLocalNetIfFlags("a-name-longer-than-sixteen", &flags), -1);
  EXPECT_EQ(flags, 0);
  EXPECT_EQ(getLocalNetIfFlags(nullptr, &flags), -1);
  EXPECT_EQ(getLocalNetIfFlags("lo", nullptr), -1);
}

// ---------------------------------------------------------------------------
// The scan over a replaced SIOCGIFCONF answer

// What the replaced query answers: these entries, cut to the caller's
// buffer as the kernel does, and the buffer lengths it was asked with.
std::vector<struct ifreq> fakeEntries;
std::vector<int> askedLengths;
std::vector<int> failWith;     // errno of the first calls, 0 = answer
bool fillEveryBuffer = false;  // an answer that never settles

struct ifreq entry(const char* name, const char* ipv4, int family = AF_INET) {
  struct ifreq r;
  memset(&r, 0, sizeof r);
  strncpy(r.ifr_name, name, sizeof r.ifr_name - 1);
  struct sockaddr_in sin;
  memset(&sin, 0, sizeof sin);
  sin.sin_family = static_cast<sa_family_t>(family);
  inet_pton(AF_INET, ipv4, &sin.sin_addr);
  memcpy(&r.ifr_addr, &sin, sizeof sin);
  return r;
}

int fakeIfconf(int /*sock*/, struct ifconf* ifc) {
  askedLengths.push_back(ifc->ifc_len);
  size_t call = askedLengths.size() - 1;
  if (call < failWith.size() && failWith[call] != 0) {
    errno = failWith[call];
    return -1;
  }
  if (fillEveryBuffer) return 0;  // the whole buffer, every time
  size_t room = static_cast<size_t>(ifc->ifc_len) / sizeof(struct ifreq);
  size_t n = std::min(room, fakeEntries.size());
  memcpy(ifc->ifc_buf, fakeEntries.data(), n * sizeof(struct ifreq));
  ifc->ifc_len = static_cast<int>(n * sizeof(struct ifreq));
  return 0;
}

class InterfaceScan : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeEntries.clear();
    askedLengths.clear();
    failWith.clear();
    fillEveryBuffer = false;
    setNetIfConfQueryForTesting(fakeIfconf);
  }
  void TearDown() override { setNetIfConfQueryForTesting(nullptr); }

  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (int i = 0; i < list_.count; ++i) out.push_back(list_.ifList[i].ifrName);
    return out;
  }
  static std::string ip(const AMNetInterface& r) {
    char text[INET_ADDRSTRLEN] = "";
    struct in_addr a;
    a.s_addr = r.ipaddr;
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
  }

  AMNetInterfaceList list_;
};

TEST_F(InterfaceScan, AliasFoldsIntoItsInterface) {
  fakeEntries = {entry("sxn0", "10.1.0.1"), entry("sxn0:1", "10.1.0.2"), entry("sxn1", "10.2.0.1")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"sxn0", "sxn1"}));
  EXPECT_EQ(ip(list_.ifList[0]), "10.1.0.1");
  EXPECT_EQ(list_.ifList[0].family, AF_INET);
}

TEST_F(InterfaceScan, SameNameInARowIsKeptOnceFurtherApartAgain) {
  fakeEntries = {entry("sxn0", "10.1.0.1"), entry("sxn0", "10.1.0.3"), entry("sxn1", "10.2.0.1"),
                 entry("sxn0", "10.1.0.4")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"sxn0", "sxn1", "sxn0"}));
  EXPECT_EQ(ip(list_.ifList[2]), "10.1.0.4");
}

TEST_F(InterfaceScan, OnlyIPv4EntriesAreListed) {
  fakeEntries = {entry("eth0", "10.9.0.1", AF_INET6), entry("sxn3", "10.3.0.1"), entry("ib0", "0.0.0.0", AF_UNSPEC)};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"sxn3"}));
}

TEST_F(InterfaceScan, NamesGiveNetworkNumbersAndSwitchDevices) {
  fakeEntries = {entry("sxn12", "10.12.0.1"), entry("sn3", "10.3.0.1"), entry("eth0", "192.168.1.2"),
                 entry("sxn", "10.0.0.9")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  ASSERT_EQ(list_.count, 4);
  const AMNetInterface& sxn12 = list_.ifList[0];
  EXPECT_EQ(sxn12.adapterNetworkID, 12u);
  EXPECT_EQ(sxn12.adapterLID, -1);
  EXPECT_EQ(sxn12.adapterType, 0u);
  EXPECT_STREQ(sxn12.deviceName, "");
  EXPECT_EQ(ip(sxn12), "10.12.0.1");

  const AMNetInterface& sn3 = list_.ifList[1];
  EXPECT_STREQ(sn3.deviceName, "sni3");
  EXPECT_EQ(sn3.adapterLID, -1);
  EXPECT_EQ(sn3.adapterType, 0u);
  EXPECT_EQ(sn3.adapterNetworkID, 0u);

  const AMNetInterface& eth0 = list_.ifList[2];
  EXPECT_EQ(eth0.adapterLID, -1);
  EXPECT_EQ(eth0.adapterNetworkID, 0u);
  EXPECT_STREQ(eth0.deviceName, "");
  EXPECT_EQ(eth0.up_running, 0);
  EXPECT_EQ(eth0.nodeNumber, 0);

  EXPECT_EQ(list_.ifList[3].adapterNetworkID, 0u) << "sxn without digits";
}

TEST_F(InterfaceScan, BufferGrowsUntilTwoAnswersHaveTheSameLength) {
  // 100 entries do not fit the first buffer; the answer is taken once two
  // successive answers agree.
  for (int i = 0; i < 100; ++i) {
    std::string name = "sxn" + std::to_string(i);
    std::string addr = "10.0." + std::to_string(i) + ".1";
    fakeEntries.push_back(entry(name.c_str(), addr.c_str()));
  }
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(list_.count, 100);
  EXPECT_EQ(askedLengths.front(), 3200);
  for (size_t i = 1; i < askedLengths.size(); ++i) EXPECT_EQ(askedLengths[i], askedLengths[i - 1] + 320);
  const int whole = static_cast<int>(100 * sizeof(struct ifreq));
  ASSERT_GE(askedLengths.size(), 2u);
  EXPECT_GE(askedLengths[askedLengths.size() - 2], whole) << "the last two answers both held everything";
  EXPECT_LT(askedLengths[askedLengths.size() - 3], whole);
  EXPECT_EQ(list_.ifList[99].adapterNetworkID, 99u);
}

TEST_F(InterfaceScan, SmallListIsTakenOnTheSecondAnswer) {
  fakeEntries = {entry("sxn0", "10.1.0.1")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(askedLengths, (std::vector<int>{3200, 3520}));
  EXPECT_EQ(list_.count, 1);
}

TEST_F(InterfaceScan, InvalidArgumentBeforeAnyAnswerIsRetried) {
  fakeEntries = {entry("sxn0", "10.1.0.1")};
  failWith = {EINVAL, EINVAL};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(askedLengths, (std::vector<int>{3200, 3520, 3840, 4160}));
  EXPECT_EQ(list_.count, 1);
}

TEST_F(InterfaceScan, InvalidArgumentAfterAnAnswerFails) {
  fakeEntries = {entry("sxn0", "10.1.0.1"), entry("sxn1", "10.2.0.1")};
  // The first call answers (a non-zero length), the second refuses.
  failWith = {0, EINVAL};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), -1);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.ifList, nullptr);
}

TEST_F(InterfaceScan, OtherErrorFails) {
  fakeEntries = {entry("sxn0", "10.1.0.1")};
  failWith = {EPERM};
  EXPECT_EQ(getLocalNetInterfaceList(&list_, 0), -1);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(askedLengths.size(), 1u);
}

TEST_F(InterfaceScan, AnswerThatNeverSettlesFailsWithinABound) {
  fillEveryBuffer = true;
  EXPECT_EQ(getLocalNetInterfaceList(&list_, 0), -1);
  EXPECT_EQ(list_.count, 0);
  EXPECT_LE(askedLengths.back(), 1024 * 1024);
  EXPECT_EQ(askedLengths.size(), static_cast<size_t>((1024 * 1024 - 3200) / 320 + 1));
}

TEST_F(InterfaceScan, RescanReplacesThePreviousList) {
  fakeEntries = {entry("sxn0", "10.1.0.1"), entry("sxn1", "10.2.0.1")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  ASSERT_EQ(list_.count, 2);
  fakeEntries = {entry("sxn5", "10.5.0.1")};
  ASSERT_EQ(getLocalNetInterfaceList(&list_, 0), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"sxn5"}));
  freeNetInterfaceList(&list_);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.ifList, nullptr);
}

// ---------------------------------------------------------------------------
// The real scan in a private network namespace

// Runs a shell command in the child; true when it succeeded.
bool run(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

// The child: a network namespace of its own with sxn0 (an alias sxn0:1 and
// a second address under its own name), sxn12 (down) and the loopback up;
// then the scan. Reports on fd as lines of text and never returns.
[[noreturn]] void scanInPrivateNamespace(int fd) {
  FILE* out = fdopen(fd, "w");
  if (out == nullptr) _exit(3);
  if (unshare(CLONE_NEWNET) != 0) {
    fprintf(out, "SKIP unshare(CLONE_NEWNET) failed: %s\n", strerror(errno));
    fclose(out);
    _exit(0);
  }
  if (!run("ip -V")) {
    fprintf(out, "SKIP the ip command is not available\n");
    fclose(out);
    _exit(0);
  }
  // Dummy interfaces where the kernel has them, otherwise veth pairs whose
  // peers carry no address and so are not listed.
  std::string kind = "dummy";
  if (!run("ip link add sxn0 type dummy") || !run("ip link add sxn12 type dummy")) {
    run("ip link del sxn0");
    kind = "veth";
    if (!run("ip link add sxn0 type veth peer name vpeer0") || !run("ip link add sxn12 type veth peer name vpeer12") ||
        !run("ip link set vpeer0 up")) {
      fprintf(out, "SKIP neither dummy nor veth interfaces can be made here\n");
      fclose(out);
      _exit(0);
    }
  }
  fprintf(out, "KIND %s\n", kind.c_str());
  const char* setup[] = {
      "ip link set lo up",
      "ip addr add 10.1.0.1/24 dev sxn0",
      "ip addr add 10.1.0.2/24 dev sxn0 label sxn0:1",
      "ip addr add 10.1.0.3/24 dev sxn0",
      "ip link set sxn0 up",
      "ip addr add 10.12.0.1/24 dev sxn12",
  };
  for (const char* command : setup) {
    if (!run(command)) {
      fprintf(out, "ERR setup failed: %s\n", command);
      fclose(out);
      _exit(0);
    }
  }
  // The carrier of a fresh link comes up a moment after the link; wait for
  // it with a bound.
  int running = 0;
  for (int i = 0; i < 250 && running == 0; ++i) {
    getLocalNetIfOpState("sxn0", &running);
    if (running == 0) {
      struct timespec pause = {0, 20 * 1000 * 1000};
      nanosleep(&pause, nullptr);
    }
  }
  fprintf(out, "RUNNING %d\n", running);

  AMNetInterfaceList list;
  const int rc = getLocalNetInterfaceList(&list, 1);
  fprintf(out, "RC %d\n", rc);
  for (int i = 0; i < list.count; ++i) {
    const AMNetInterface& r = list.ifList[i];
    char ip[INET_ADDRSTRLEN] = "";
    struct in_addr a;
    a.s_addr = r.ipaddr;
    inet_ntop(AF_INET, &a, ip, sizeof ip);
    fprintf(out, "REC %s %s %d %u %d %u %s %d %d %d\n", r.ifrName, ip, r.up_running, r.adapterNetworkID, r.adapterLID,
            r.adapterType, r.deviceName[0] ? r.deviceName : "-", r.family, _idxFromInterfaceName(r.ifrName),
            getNetworkFromSwitchInterfaceName(r.ifrName));
  }
  int flags = 0;
  fprintf(out, "FLAGS sxn12 %d %d\n", getLocalNetIfFlags("sxn12", &flags), flags);
  fprintf(out, "END\n");
  fclose(out);
  _exit(0);
}

struct ScannedInterface {
  std::string ip;
  int upRunning = -1;
  unsigned network = 0;
  int lid = 0;
  unsigned type = 0;
  std::string device;
  int family = 0;
  int index = -1;
  int networkFromName = 0;
};

TEST(InterfaceScanInNamespace, ListsFoldedAliasesWithFlagsNumbersAndIndexes) {
  if (geteuid() != 0) {
    printf("SKIP: the namespace scan needs root to make a network namespace\n");
    GTEST_SKIP() << "not root";
  }
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  fflush(stdout);
  fflush(stderr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    scanInPrivateNamespace(fds[1]);
  }
  close(fds[1]);

  // Read the child's report with a bound, so that a stuck `ip` cannot hang
  // the test.
  std::string report;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  bool ended = false;
  while (!ended) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long leftMs = 30000 - ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000);
    if (leftMs <= 0) break;
    struct pollfd p = {fds[0], POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(leftMs));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    char buf[4096];
    ssize_t got = read(fds[0], buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || report.size() > 65536) {
      ended = got == 0;
      break;
    }
    report.append(buf, static_cast<size_t>(got));
  }
  close(fds[0]);
  if (!ended) kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(ended) << "the namespace child did not report within 30 s; report so far:\n" << report;
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status << "\n" << report;

  std::istringstream lines(report);
  std::string line;
  std::map<std::string, ScannedInterface> found;
  std::vector<std::string> order;
  int rc = -99, running = -1, flagsRc = -99, sxn12Flags = -1;
  bool end = false;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string tag;
    words >> tag;
    if (tag == "SKIP") {
      printf("SKIP:%s\n", line.substr(4).c_str());
      GTEST_SKIP() << line;
    } else if (tag == "ERR") {
      FAIL() << line;
    } else if (tag == "KIND") {
      std::string kind;
      words >> kind;
      printf("namespace interfaces are %s\n", kind.c_str());
    } else if (tag == "RUNNING") {
      words >> running;
    } else if (tag == "RC") {
      words >> rc;
    } else if (tag == "REC") {
      std::string name;
      ScannedInterface r;
      words >> name >> r.ip >> r.upRunning >> r.network >> r.lid >> r.type >> r.device >> r.family >> r.index >>
          r.networkFromName;
      ASSERT_FALSE(words.fail()) << line;
      order.push_back(name);
      EXPECT_EQ(found.count(name), 0u) << name << " listed twice";
      found[name] = r;
    } else if (tag == "FLAGS") {
      std::string name;
      words >> name >> flagsRc >> sxn12Flags;
    } else if (tag == "END") {
      end = true;
    }
  }
  ASSERT_TRUE(end) << report;
  ASSERT_EQ(rc, 0) << report;
  ASSERT_EQ(running, 1) << "sxn0 never came up and running\n" << report;

  // The alias and the second address fold into sxn0, listed once with its
  // first address; nothing named sxn0:1 appears.
  ASSERT_EQ(found.count("sxn0"), 1u) << report;
  EXPECT_EQ(found.count("sxn0:1"), 0u) << report;
  const ScannedInterface& sxn0 = found["sxn0"];
  EXPECT_EQ(sxn0.ip, "10.1.0.1");
  EXPECT_EQ(sxn0.family, AF_INET);
  EXPECT_EQ(sxn0.upRunning, 1);
  EXPECT_EQ(sxn0.network, 0u);
  EXPECT_EQ(sxn0.networkFromName, 0);
  EXPECT_EQ(sxn0.lid, -1);
  EXPECT_EQ(sxn0.type, 0u);
  EXPECT_EQ(sxn0.device, "-");

  // sxn12 is down: listed (it has an address) but not up and running; its
  // network number is 12 both from the scan and from its name.
  ASSERT_EQ(found.count("sxn12"), 1u) << report;
  const ScannedInterface& sxn12 = found["sxn12"];
  EXPECT_EQ(sxn12.ip, "10.12.0.1");
  EXPECT_EQ(sxn12.upRunning, 0);
  EXPECT_EQ(sxn12.network, 12u);
  EXPECT_EQ(sxn12.networkFromName, 12);
  EXPECT_EQ(sxn12.lid, -1);
  EXPECT_EQ(flagsRc, 0);
  EXPECT_EQ(sxn12Flags & IFF_UP, 0);

  // The loopback is up and running and no switch adapter.
  ASSERT_EQ(found.count("lo"), 1u) << report;
  EXPECT_EQ(found["lo"].ip, "127.0.0.1");
  EXPECT_EQ(found["lo"].upRunning, 1);
  EXPECT_EQ(found["lo"].networkFromName, -1);

  // Only the three interfaces with IPv4 addresses are listed (veth peers
  // carry none), and indexes follow the order of first sight in the fresh
  // child: 0, 1, 2 whatever the digits of the names.
  EXPECT_EQ(order.size(), 3u) << report;
  for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(found[order[i]].index, static_cast<int>(i)) << order[i];
}

}  // namespace

#include "vx_cu.h"

#include <errno.h>
#include <fcntl.h>
#include <locale.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

int fixedWallClock(struct timeval* tv) {
  tv->tv_sec = 1600000000;
  tv->tv_usec = 123456;
  return 0;
}

int fixedMonoClock(struct timespec* ts) {
  ts->tv_sec = 42;
  ts->tv_nsec = 987654321;
  return 0;
}

int failingWallClock(struct timeval*) {
  errno = EIO;
  return -1;
}

// Puts the real clocks back even when an assertion ends the test early.
class ClockHook : public ::testing::Test {
 protected:
  void TearDown() override { cu_set_clocks_ForTesting(nullptr, nullptr); }
};

TEST_F(ClockHook, ReplacementClocksAreUsed) {
  cu_set_clocks_ForTesting(fixedWallClock, fixedMonoClock);
  struct timeval tv = {};
  ASSERT_EQ(0, cu_gettimeofday_1(&tv));
  EXPECT_EQ(1600000000, tv.tv_sec);
  EXPECT_EQ(123456, tv.tv_usec);
  struct timespec ts = {};
  ASSERT_EQ(0, cu_get_monotonic_time(&ts));
  EXPECT_EQ(42, ts.tv_sec);
  EXPECT_EQ(987654321, ts.tv_nsec);
  EXPECT_EQ(42987, cu_monotonic_ms());
}

TEST_F(ClockHook, FailureOfTheReplacementIsPassedOn) {
  cu_set_clocks_ForTesting(failingWallClock, nullptr);
  struct timeval tv = {};
  errno = 0;
  EXPECT_EQ(-1, cu_gettimeofday_1(&tv));
  EXPECT_EQ(EIO, errno);
}

TEST_F(ClockHook, NullRestoresTheRealClocks) {
  cu_set_clocks_ForTesting(fixedWallClock, fixedMonoClock);
  cu_set_clocks_ForTesting(nullptr, nullptr);
  struct timeval tv = {};
  ASSERT_EQ(0, cu_gettimeofday_1(&tv));
  struct timeval real = {};
  gettimeofday(&real, nullptr);
  EXPECT_LE(labs(real.tv_sec - tv.tv_sec), 2);
  struct timespec mono = {};
  clock_gettime(CLOCK_MONOTONIC, &mono);
  int64_t realMs = static_cast<int64_t>(mono.tv_sec) * 1000 + mono.tv_nsec / 1000000;
  int64_t ms = cu_monotonic_ms();
  EXPECT_GE(ms, realMs);
  EXPECT_LT(ms - realMs, 2000);
}

TEST_F(ClockHook, OnlyTheWallClockCanBeReplaced) {
  cu_set_clocks_ForTesting(fixedWallClock, nullptr);
  struct timespec mono = {};
  clock_gettime(CLOCK_MONOTONIC, &mono);
  EXPECT_GE(cu_monotonic_ms(), static_cast<int64_t>(mono.tv_sec) * 1000);
  struct timeval tv = {};
  ASSERT_EQ(0, cu_gettimeofday_1(&tv));
  EXPECT_EQ(1600000000, tv.tv_sec);
}

TEST(ClockArguments, NullIsRefused) {
  errno = 0;
  EXPECT_EQ(-1, cu_gettimeofday_1(nullptr));
  EXPECT_EQ(EINVAL, errno);
  errno = 0;
  EXPECT_EQ(-1, cu_get_monotonic_time(nullptr));
  EXPECT_EQ(EINVAL, errno);
}

TEST(MonotonicClock, NeverGoesBack) {
  int64_t last = cu_monotonic_ms();
  for (int i = 0; i < 1000; ++i) {
    int64_t now = cu_monotonic_ms();
    ASSERT_GE(now, last);
    last = now;
  }
}

// Keeps the environment's LC_ALL and the process locale as they were.
class PrepareLocale : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = getenv("LC_ALL");
    hadLcAll_ = old != nullptr;
    if (hadLcAll_) oldLcAll_ = old;
    oldLocale_ = setlocale(LC_ALL, nullptr);
  }
  void TearDown() override {
    if (hadLcAll_) {
      setenv("LC_ALL", oldLcAll_.c_str(), 1);
    } else {
      unsetenv("LC_ALL");
    }
    setlocale(LC_ALL, oldLocale_.c_str());
  }
  bool hadLcAll_ = false;
  std::string oldLcAll_;
  std::string oldLocale_;
};

TEST_F(PrepareLocale, InstalledLocaleFromTheEnvironmentIsTaken) {
  setenv("LC_ALL", "POSIX", 1);
  ASSERT_EQ(0, cu_prepare_locale_1());
  EXPECT_STREQ("C", setlocale(LC_ALL, nullptr));  // glibc names POSIX "C"
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "C.UTF-8 is not installed";
  setlocale(LC_ALL, "C");
  setenv("LC_ALL", "C.UTF-8", 1);
  ASSERT_EQ(0, cu_prepare_locale_1());
  EXPECT_STREQ("C.UTF-8", setlocale(LC_ALL, nullptr));
}

TEST_F(PrepareLocale, MissingLocaleFallsBackToC) {
  setenv("LC_ALL", "xx_NOWHERE.UTF-8", 1);
  ASSERT_EQ(0, cu_prepare_locale_1());
  EXPECT_STREQ("C", setlocale(LC_ALL, nullptr));
}

TEST(ErrorText, KnownErrnoGivesItsText) {
  char buf[128];
  EXPECT_STREQ("No such file or directory", cu_strerror(ENOENT, buf, sizeof(buf)));
  EXPECT_EQ(buf, cu_strerror(EACCES, buf, sizeof(buf)));
  EXPECT_STREQ("Permission denied", buf);
}

TEST(ErrorText, UnknownErrnoIsNamedByNumber) {
  char buf[128];
  EXPECT_STREQ("Unknown error 98765", cu_strerror(98765, buf, sizeof(buf)));
}

TEST(ErrorText, TextIsCutToTheBuffer) {
  char buf[8];
  memset(buf, 'x', sizeof(buf));
  const char* text = cu_strerror(ENOENT, buf, sizeof(buf));
  EXPECT_EQ(buf, text);
  EXPECT_STREQ("No such", buf);
}

TEST(ErrorText, NoBufferGivesEmptyText) {
  char buf[4] = "abc";
  EXPECT_STREQ("", cu_strerror(ENOENT, nullptr, 10));
  EXPECT_STREQ("", cu_strerror(ENOENT, buf, 0));
  EXPECT_STREQ("abc", buf);
}

TEST(LastError, RecordsNumberAndFormattedText) {
  cu_set_error(EBUSY, "device %s busy after %d tries", "sxn0", 3);
  EXPECT_EQ(EBUSY, cu_get_error());
  EXPECT_STREQ("device sxn0 busy after 3 tries", cu_get_errmsg());
  cu_set_error(0, "%s", "");
  EXPECT_EQ(0, cu_get_error());
  EXPECT_STREQ("", cu_get_errmsg());
}

TEST(LastError, LongTextIsCutNotOverrun) {
  std::string longText(5000, 'e');
  cu_set_error(7, "%s", longText.c_str());
  EXPECT_EQ(7, cu_get_error());
  EXPECT_EQ(511u, strlen(cu_get_errmsg()));
}

TEST(LastError, EachThreadSeesOnlyItsOwn) {
  cu_set_error(EPERM, "main thread error");
  int otherBefore = -1;
  std::string otherTextBefore;
  int otherAfter = -1;
  std::string otherTextAfter;
  std::thread other([&] {
    otherBefore = cu_get_error();
    otherTextBefore = cu_get_errmsg();
    cu_set_error(EAGAIN, "other thread error");
    otherAfter = cu_get_error();
    otherTextAfter = cu_get_errmsg();
  });
  other.join();
  EXPECT_EQ(0, otherBefore);
  EXPECT_EQ("", otherTextBefore);
  EXPECT_EQ(EAGAIN, otherAfter);
  EXPECT_EQ("other thread error", otherTextAfter);
  EXPECT_EQ(EPERM, cu_get_error());
  EXPECT_STREQ("main thread error", cu_get_errmsg());
}

TEST(ProcName, OwnProcessGivesItsCommandName) {
  char buf[64];
  ASSERT_EQ(0, cu_get_proc_name(getpid(), buf, sizeof(buf)));
  // The kernel keeps the first 15 bytes of the executable's name.
  std::string expected(program_invocation_short_name);
  expected = expected.substr(0, 15);
  EXPECT_EQ(expected, buf);
  EXPECT_EQ(nullptr, strchr(buf, '\n'));
}

TEST(ProcName, SmallBufferGetsTheStartOfTheName) {
  char buf[4];
  ASSERT_EQ(0, cu_get_proc_name(getpid(), buf, sizeof(buf)));
  EXPECT_EQ(std::string(program_invocation_short_name).substr(0, 3), buf);
}

TEST(ProcName, NonexistentProcessFailsWithEmptyName) {
  // No process ever has a pid at or above pid_max.
  long pidMax = 4194304;
  FILE* f = fopen("/proc/sys/kernel/pid_max", "r");
  if (f != nullptr) {
    if (fscanf(f, "%ld", &pidMax) != 1) pidMax = 4194304;
    fclose(f);
  }
  char buf[32];
  strcpy(buf, "stale");
  cu_set_error(0, "%s", "");
  EXPECT_EQ(-1, cu_get_proc_name(static_cast<pid_t>(pidMax), buf, sizeof(buf)));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(ENOENT, cu_get_error());
  EXPECT_NE(nullptr, strstr(cu_get_errmsg(), "/comm"));
  strcpy(buf, "stale");
  EXPECT_EQ(-1, cu_get_proc_name(INT_MAX, buf, sizeof(buf)));
  EXPECT_STREQ("", buf);
}

TEST(ProcName, InvalidArgumentsFail) {
  char buf[16] = "stale";
  EXPECT_EQ(-1, cu_get_proc_name(0, buf, sizeof(buf)));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(-1, cu_get_proc_name(-5, buf, sizeof(buf)));
  EXPECT_EQ(-1, cu_get_proc_name(getpid(), nullptr, 16));
  EXPECT_EQ(EINVAL, cu_get_error());
  EXPECT_EQ(-1, cu_get_proc_name(getpid(), buf, 0));
}

TEST(VersionCompare, OrdersMostSignificantFirst) {
  const uint8_t v1000[4] = {1, 0, 0, 0};
  const uint8_t v1001[4] = {1, 0, 0, 1};
  const uint8_t v1100[4] = {1, 1, 0, 0};
  const uint8_t v2000[4] = {2, 0, 0, 0};
  const uint8_t v1255[4] = {1, 0, 255, 255};
  EXPECT_EQ(0, cu_cmp_velt_versions(v1001, v1001));
  EXPECT_LT(cu_cmp_velt_versions(v1000, v1001), 0);
  EXPECT_GT(cu_cmp_velt_versions(v1001, v1000), 0);
  EXPECT_LT(cu_cmp_velt_versions(v1255, v1100), 0);
  EXPECT_GT(cu_cmp_velt_versions(v2000, v1255), 0);
  EXPECT_LT(cu_cmp_velt_versions(v1100, v2000), 0);
}

TEST(VersionCompare, FullRangeDoesNotWrap) {
  const uint8_t low[4] = {0, 0, 0, 0};
  const uint8_t high[4] = {255, 0, 0, 0};
  EXPECT_LT(cu_cmp_velt_versions(low, high), 0);
  EXPECT_GT(cu_cmp_velt_versions(high, low), 0);
}

TEST(VersionParse, AcceptsOneToFourParts) {
  uint8_t v[4] = {9, 9, 9, 9};
  ASSERT_EQ(0, cu_parse_velt_version("3.1.2.255", v));
  EXPECT_EQ(3, v[0]);
  EXPECT_EQ(1, v[1]);
  EXPECT_EQ(2, v[2]);
  EXPECT_EQ(255, v[3]);
  ASSERT_EQ(0, cu_parse_velt_version("4", v));
  EXPECT_EQ(4, v[0]);
  EXPECT_EQ(0, v[1]);
  EXPECT_EQ(0, v[2]);
  EXPECT_EQ(0, v[3]);
  ASSERT_EQ(0, cu_parse_velt_version("0.12", v));
  const uint8_t expected[4] = {0, 12, 0, 0};
  EXPECT_EQ(0, cu_cmp_velt_versions(v, expected));
  ASSERT_EQ(0, cu_parse_velt_version("007.0.0", v));
  EXPECT_EQ(7, v[0]);
}

TEST(VersionParse, MalformedTextLeavesOutputUntouched) {
  const char* bad[] = {"", ".", "1.", ".1", "1..2", "1.2.3.4.5", "256", "1.2.3.1000",
                       "99999999999999999999", "a.b", "1.2a", "-1", "+1", " 1", "1 ",
                       "1.2.3.4."};
  for (const char* text : bad) {
    uint8_t v[4] = {9, 8, 7, 6};
    cu_set_error(0, "%s", "");
    EXPECT_EQ(-1, cu_parse_velt_version(text, v)) << "\"" << text << "\"";
    EXPECT_EQ(9, v[0]) << text;
    EXPECT_EQ(6, v[3]) << text;
    EXPECT_EQ(EINVAL, cu_get_error()) << text;
  }
  uint8_t v[4];
  EXPECT_EQ(-1, cu_parse_velt_version(nullptr, v));
  EXPECT_EQ(-1, cu_parse_velt_version("1.0", nullptr));
}

TEST(PauseForDebugger, StopsAndPrintsHowToContinue) {
  int pipeFds[2];
  ASSERT_EQ(0, pipe(pipeFds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(pipeFds[1], STDERR_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    dae_pause_for_debugger();
    _exit(17);  // reached only after SIGCONT
  }
  close(pipeFds[1]);
  int status = 0;
  // The child stops itself at once (or exits, which also ends the wait).
  ASSERT_EQ(child, waitpid(child, &status, WUNTRACED));
  ASSERT_TRUE(WIFSTOPPED(status)) << "status " << status;
  EXPECT_EQ(SIGSTOP, WSTOPSIG(status));
  char text[512] = {};
  ssize_t got = read(pipeFds[0], text, sizeof(text) - 1);
  close(pipeFds[0]);
  ASSERT_GT(got, 0);
  std::string hint = "kill -CONT " + std::to_string(child);
  EXPECT_NE(nullptr, strstr(text, hint.c_str())) << text;
  EXPECT_NE(nullptr, strstr(text, std::to_string(child).c_str()));
  ASSERT_EQ(0, kill(child, SIGCONT));
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(17, WEXITSTATUS(status));
}

}  // namespace

namespace {

// A fresh directory below /tmp for the private directory checks, removed
// with what the test put in it. Thread-compatible.
class PrivateDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vx_cu_dir.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
    base_ = tmpl;
    dir_ = base_ + "/d";
    ASSERT_EQ(mkdir(dir_.c_str(), 0700), 0);
  }
  void TearDown() override {
    unlink((base_ + "/link").c_str());
    unlink((base_ + "/file").c_str());
    rmdir(dir_.c_str());
    rmdir(base_.c_str());
  }
  std::string check(const std::string& dir, uid_t owner, int* rc, int* err) {
    char why[256] = "untouched";
    errno = 0;
    *rc = cu_check_private_dir(dir.c_str(), owner, why, sizeof why);
    *err = errno;
    return why;
  }
  std::string base_;
  std::string dir_;
};

TEST_F(PrivateDir, OwnDirectoryClosedToOthersIsAccepted) {
  int rc, err;
  check(dir_, geteuid(), &rc, &err);
  EXPECT_EQ(rc, 0);
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  check(dir_, geteuid(), &rc, &err);
  EXPECT_EQ(rc, 0);
}

TEST_F(PrivateDir, GroupOrOtherWritableDirectoryIsRefused) {
  int rc, err;
  ASSERT_EQ(chmod(dir_.c_str(), 0770), 0);
  EXPECT_EQ(check(dir_, geteuid(), &rc, &err), dir_ + " is writable by its group (mode 0770)");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, EPERM);
  ASSERT_EQ(chmod(dir_.c_str(), 01777), 0);
  EXPECT_EQ(check(dir_, geteuid(), &rc, &err), dir_ + " is writable by others (mode 1777)");
  EXPECT_EQ(rc, -1);
}

TEST_F(PrivateDir, SymbolicLinkToAGoodDirectoryIsRefused) {
  int rc, err;
  std::string link = base_ + "/link";
  ASSERT_EQ(symlink(dir_.c_str(), link.c_str()), 0);
  EXPECT_EQ(check(link, geteuid(), &rc, &err), link + " is a symbolic link; a real directory is required");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, ELOOP);
}

TEST_F(PrivateDir, FileAndMissingPathAreRefused) {
  int rc, err;
  std::string file = base_ + "/file";
  int fd = open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(check(file, geteuid(), &rc, &err), file + " is not a directory");
  EXPECT_EQ(err, ENOTDIR);
  EXPECT_EQ(check(base_ + "/none", geteuid(), &rc, &err),
            "cannot check " + base_ + "/none: No such file or directory");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, ENOENT);
}

TEST_F(PrivateDir, DirectoryOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "SKIP: needs root to give a directory to uid 65534";
  int rc, err;
  ASSERT_EQ(chown(dir_.c_str(), 65534, 65534), 0);
  EXPECT_EQ(check(dir_, geteuid(), &rc, &err), dir_ + " belongs to uid 65534, not to root or uid 0");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, EPERM);
  // The same directory is private to uid 65534 itself.
  check(dir_, 65534, &rc, &err);
  EXPECT_EQ(rc, 0);
}

}  // namespace

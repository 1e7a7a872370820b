// The aggregate configuration file: its reader, the in-memory form and the
// comparisons the propagator relies on.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "AMAggregate.h"
#include "sw_adapter_info.h"

namespace {

class AggCfgFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "aggcfgXXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    dir_ = buf.data();
  }
  void TearDown() override {
    std::string cmd = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  std::string write(const std::string& content) {
    std::string path = dir_ + "/AggregateIP.cfg";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
  }
  bool hasError(const AMAggCfgList& list, int line, const std::string& prefix) {
    for (const auto& e : list.lineErrors())
      if (e.line == line && e.what.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
  }
  std::string dir_;
};

TEST(AggCfgWhiteSpace, HelpersTrimAndClassify) {
  EXPECT_TRUE(is_white_char(' '));
  EXPECT_TRUE(is_white_char('\t'));
  EXPECT_TRUE(is_white_char('\n'));
  EXPECT_TRUE(is_white_char('\r'));
  EXPECT_FALSE(is_white_char('x'));
  char line[] = "\t 3\tml0\r\n";
  EXPECT_EQ(cleanup_and_return_first_char(line), '3');
  EXPECT_STREQ(line, "  3 ml0  ");
  char blank[] = " \t\r\n";
  EXPECT_EQ(cleanup_and_return_first_char(blank), 0);
  char padded[] = "  sxn1 \t\n";
  EXPECT_STREQ(trimstr(padded), "sxn1");
}

TEST_F(AggCfgFileTest, DirectiveInAnotherCaseIsAccepted) {
  AMAggCfgList list;
  int sxn1 = _idxFromInterfaceName("sxn1");
  ASSERT_EQ(list.ReadConfig(write("+installed: sxn1\n+cfgid: 0x2A\n1 ml0 sxn1\n").c_str()), 1);
  ASSERT_EQ(list.num_cfgs, 1);
  EXPECT_TRUE(list.cfg_list[0]->devEnabled().test(sxn1));
  EXPECT_EQ(list.cfgID.getCfgId1(), 42u);
  EXPECT_EQ(list.lineErrorCount(), 0);
}

TEST_F(AggCfgFileTest, ListWithBlanksAfterCommasReadsAsOneList) {
  AMAggCfgList list;
  int sxn0 = _idxFromInterfaceName("sxn0");
  int sxn1 = _idxFromInterfaceName("sxn1");
  ASSERT_EQ(list.ReadConfig(write("3 ml0 sxn0, sxn1\n").c_str()), 1);
  AMAggCfg* ml0 = list.find_cfg("ml0", 0);
  ASSERT_NE(ml0, nullptr);
  EXPECT_TRUE(ml0->getMask(sxn0)->test(3));
  EXPECT_TRUE(ml0->getMask(sxn1)->test(3));
  EXPECT_EQ(ml0->getMask(sxn0)->count(), 1u);
  EXPECT_EQ(ml0->getMask(sxn1)->count(), 1u);
}

TEST_F(AggCfgFileTest, TwoTokensIsIgnoredNegativeNodeIsError) {
  AMAggCfgList list;
  ASSERT_EQ(list.ReadConfig(write("3 ml0\n-1 ml0 sxn0\n4 ml0 sxn0\n").c_str()), 1);
  EXPECT_TRUE(hasError(list, 1, "Ignored line 1: 3 ml0"));
  EXPECT_FALSE(hasError(list, 1, "Error on line"));
  EXPECT_TRUE(hasError(list, 2, "Error on line 2: -1 ml0 sxn0"));
  EXPECT_EQ(list.lineErrorCount(), 2);
}

TEST_F(AggCfgFileTest, CommentsDirectivesAndUnknownLines) {
  AMAggCfgList list;
  std::string text =
      "# comment\n"
      "   * another comment\n"
      "\n"
      "+SwitchPlanes: 2\n"
      "+echo: hello\n"
      "+Bogus: x\n"
      "7 ml0 sxn0\n";
  ASSERT_EQ(list.ReadConfig(write(text).c_str()), 1);
  EXPECT_TRUE(hasError(list, 6, "Unknown line 6: +Bogus: x. Ignored"));
  EXPECT_EQ(list.lineErrorCount(), 1);
}

TEST_F(AggCfgFileTest, UnreadableFileKeepsPreviousContents) {
  AMAggCfgList list;
  ASSERT_EQ(list.ReadConfig(write("+CFGID: 5\n2 ml0 sxn0\n").c_str()), 1);
  EXPECT_EQ(list.ReadConfig((dir_ + "/missing.cfg").c_str()), -1);
  EXPECT_EQ(list.num_cfgs, 1);
  EXPECT_EQ(list.cfgID.getCfgId1(), 5u);
}

TEST_F(AggCfgFileTest, LongLineIsReadAsSeveralLines) {
  AMAggCfgList list;
  // 1500 characters of comment: the first 999 are one line, the rest a
  // second one that does not start with "#" and so is a data line.
  std::string text = "#" + std::string(1498, 'x') + "\n";
  EXPECT_EQ(list.ReadConfig(write(text).c_str()), 0);
  EXPECT_TRUE(hasError(list, 2, "Ignored line 2"));
}

TEST_F(AggCfgFileTest, NodeBeyondTheTableAndOverlongNameAreRefused) {
  AMAggCfgList list;
  std::string text = "99999999999 ml0 sxn0\n1 ml0 " + std::string(40, 'n') + "\n";
  EXPECT_EQ(list.ReadConfig(write(text).c_str()), 0);
  EXPECT_TRUE(hasError(list, 1, "Error on line 1"));
  EXPECT_TRUE(hasError(list, 2, "Mask for device "));
}

TEST(AggCfgMasks, IndexBeyondSlotsCreatesUpToIndexPlusFour) {
  AMAggCfg cfg("ml0");
  EXPECT_EQ(cfg.numSlotMasks(), 0);
  EXPECT_EQ(cfg.getMask(-1), nullptr);
  ASSERT_NE(cfg.getMask(2), nullptr);
  EXPECT_EQ(cfg.numSlotMasks(), 6);
  cfg.getMask(2)->set(9);
  ASSERT_NE(cfg.getMask(10), nullptr);
  EXPECT_EQ(cfg.numSlotMasks(), 14);
  EXPECT_TRUE(cfg.getMask(2)->test(9));  // kept across the growth
  EXPECT_TRUE(cfg.AdapterConfiguredOnNetwork(2));
  EXPECT_FALSE(cfg.AdapterConfiguredOnNetwork(10));
  EXPECT_FALSE(cfg.AdapterConfiguredOnNetwork(100));
  EXPECT_EQ(cfg.getMask(AMAggCfg::kMaxMaskIndex), nullptr);
}

TEST(AggCfgCompare, ListsDifferingOnlyByAllZeroDeviceAreSame) {
  AMAggCfgList a;
  AMAggCfgList b;
  a.find_cfg("ml0", 1)->getMask(0)->set(3);
  b.find_cfg("ml0", 1)->getMask(0)->set(3);
  a.find_cfg("ml1", 1)->getMask(5);  // present, every mask empty
  EXPECT_TRUE(a.AreTheySame(b));
  EXPECT_TRUE(b.AreTheySame(a));
  a.find_cfg("ml1", 0)->getMask(5)->set(1);
  EXPECT_FALSE(a.AreTheySame(b));
  EXPECT_FALSE(b.AreTheySame(a));
}

TEST(AggCfgCompare, DifferentBitsOrEnabledSetsDiffer) {
  AMAggCfg x("ml0");
  AMAggCfg y("ml0");
  x.getMask(1)->set(4);
  y.getMask(7);
  EXPECT_FALSE(x.AreTheySame(y));
  y.getMask(1)->set(4);
  EXPECT_TRUE(x.AreTheySame(y));
  EXPECT_TRUE(y.AreTheySame(x));
  x.devEnabled().set(1);
  EXPECT_FALSE(x.AreTheySame(y));
}

TEST(AggCfgCopy, CopyListKeepsIdentityAndMasks) {
  AMAggCfgList src;
  src.cfgID.setCfgIdStr("77");
  src.find_cfg("ml0", 1)->getMask(3)->set(12);
  src.find_cfg("ml1", 1)->getMask(0)->set(1);
  AMAggCfgList dst;
  dst.find_cfg("old", 1)->getMask(0)->set(2);
  EXPECT_EQ(dst.CopyCfgListFrom(src), 2);
  EXPECT_EQ(dst.find_cfg("old", 0), nullptr);
  EXPECT_EQ(dst.cfgID.getCfgId1(), 77u);
  EXPECT_TRUE(dst.AreTheySame(src));
  AMAggCfg one;
  EXPECT_TRUE(dst.CopyTo(one, "ml0"));
  EXPECT_STREQ(one.aggName(), "ml0");
  EXPECT_TRUE(one.getMask(3)->test(12));
  EXPECT_FALSE(dst.CopyTo(one, "nothere"));
  dst.eraseall();
  EXPECT_EQ(dst.num_cfgs, 0);
  EXPECT_EQ(dst.cfgID.getCfgId1(), AMCfgInfo::kErasedCfgId1);
}

TEST(AggCfgFind, GrowsByFourSlots) {
  AMAggCfgList list;
  for (int i = 0; i < 5; ++i) ASSERT_NE(list.find_cfg(("ml" + std::to_string(i)).c_str(), 1), nullptr);
  EXPECT_EQ(list.num_cfgs, 5);
  EXPECT_EQ(list.num_slot_cfgs, 8);
  EXPECT_EQ(list.find_cfg("ml9", 0), nullptr);
  EXPECT_EQ(list.num_cfgs, 5);
}

// What ReadConfig makes of path, run in a child process that a reader held
// up for ever cannot outlive: "rc=<result> <openError>", or how it ended.
std::string readConfigBounded(const std::string& dir, const std::string& path) {
  std::string out = dir + "/result";
  pid_t pid = fork();
  if (pid == 0) {
    alarm(5);
    AMAggCfgList list;
    int rc = list.ReadConfig(path.c_str());
    std::ofstream(out) << "rc=" << rc << " " << list.openError();
    _exit(0);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return "no child";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  std::ifstream in(out);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST_F(AggCfgFileTest, FifoIsRefusedWithoutWaitingForAWriter) {
  std::string fifo = dir_ + "/AggregateIP.cfg";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(readConfigBounded(dir_, fifo), "rc=-1 is a FIFO, not a regular file");
}

TEST_F(AggCfgFileTest, LinkToADeviceIsRefused) {
  std::string link = dir_ + "/AggregateIP.cfg";
  ASSERT_EQ(symlink("/dev/zero", link.c_str()), 0);
  EXPECT_EQ(readConfigBounded(dir_, link), "rc=-1 is a character device, not a regular file");
}

TEST_F(AggCfgFileTest, LinkToARegularFileIsRead) {
  std::string target = write("+cfgid: 0x2A\n1 ml0 sxn1\n");
  std::string link = dir_ + "/link.cfg";
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  EXPECT_EQ(readConfigBounded(dir_, link), "rc=1 ");
}

TEST_F(AggCfgFileTest, MissingFileSaysWhy) {
  AMAggCfgList list;
  EXPECT_EQ(list.ReadConfig((dir_ + "/absent.cfg").c_str()), -1);
  EXPECT_EQ(list.openError(), "No such file or directory");
}

// The refresh command itself, as the daemon runs it: it must end, with a
// clear message, whatever the configuration file turns out to be.
class RefreshCommand : public AggCfgFileTest {
 protected:
  struct Result {
    int status = -1;
    std::string err;
  };
  Result run(const std::string& cfgPath) {
    std::string errPath = dir_ + "/stderr";
    pid_t pid = fork();
    if (pid == 0) {
      alarm(10);  // a command held up for ever dies of it
      int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd >= 0) dup2(fd, 2);
      setenv("SW_HERDLET_AGGIP_CFG", cfgPath.c_str(), 1);
      execl(REFRESH_CMD_PATH, REFRESH_CMD_PATH, "-c", "refresh", static_cast<char*>(nullptr));
      _exit(127);
    }
    Result r;
    waitpid(pid, &r.status, 0);
    std::ifstream in(errPath);
    r.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return r;
  }
};

TEST_F(RefreshCommand, FifoIsRefused) {
  std::string fifo = dir_ + "/AggregateIP.cfg";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  Result r = run(fifo);
  ASSERT_TRUE(WIFEXITED(r.status)) << "ended by signal " << WTERMSIG(r.status);
  EXPECT_EQ(WEXITSTATUS(r.status), 1);
  EXPECT_EQ(r.err, "tolkvask-refresh: cannot read " + fifo + ": is a FIFO, not a regular file\n");
}

TEST_F(RefreshCommand, LinkToDevZeroIsRefused) {
  std::string link = dir_ + "/AggregateIP.cfg";
  ASSERT_EQ(symlink("/dev/zero", link.c_str()), 0);
  Result r = run(link);
  ASSERT_TRUE(WIFEXITED(r.status)) << "ended by signal " << WTERMSIG(r.status);
  EXPECT_EQ(WEXITSTATUS(r.status), 1);
  EXPECT_EQ(r.err, "tolkvask-refresh: cannot read " + link + ": is a character device, not a regular file\n");
}

TEST_F(RefreshCommand, LinkToARegularFileIsChecked) {
  std::string target = write("+cfgid: 0x2A\n1 ml0 sxn1\n");
  std::string link = dir_ + "/link.cfg";
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  Result r = run(link);
  ASSERT_TRUE(WIFEXITED(r.status)) << "ended by signal " << WTERMSIG(r.status);
  EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.err;
}

// By hand: --check FILE, with what it found on standard output or error.
class RefreshCheck : public AggCfgFileTest {
 protected:
  struct Result {
    int status = -1;
    std::string out;
    std::string err;
  };
  Result check(const std::vector<std::string>& args) {
    std::string outPath = dir_ + "/stdout";
    std::string errPath = dir_ + "/stderr";
    pid_t pid = fork();
    if (pid == 0) {
      alarm(10);
      int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out >= 0) dup2(out, 1);
      if (err >= 0) dup2(err, 2);
      unsetenv("SW_HERDLET_AGGIP_CFG");
      std::vector<char*> argv = {const_cast<char*>(REFRESH_CMD_PATH)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(REFRESH_CMD_PATH, argv.data());
      _exit(127);
    }
    Result r;
    waitpid(pid, &r.status, 0);
    std::ifstream out(outPath);
    r.out.assign(std::istreambuf_iterator<char>(out), std::istreambuf_iterator<char>());
    std::ifstream err(errPath);
    r.err.assign(std::istreambuf_iterator<char>(err), std::istreambuf_iterator<char>());
    return r;
  }
};

TEST_F(RefreshCheck, AValidFileIsReportedWithItsIdAndExitsZero) {
  std::string path = write("+CFGID: 0x2a\n1 ml0 sxn0,sxn1\n2 ml0 sxn0,sxn1\n");
  Result r = check({"--check", path});
  ASSERT_TRUE(WIFEXITED(r.status));
  EXPECT_EQ(0, WEXITSTATUS(r.status)) << r.err;
  EXPECT_EQ(path + ": 2 valid data lines, configuration id 42\n", r.out);
  EXPECT_EQ("", r.err);
}

TEST_F(RefreshCheck, FaultyLinesAreCountedAndMakeItFail) {
  std::string path = write("+CFGID: 0x2a\n1 ml0 sxn0\n-1 ml0 sxn0\nnode ml0 sxn1\n");
  Result r = check({"--check", path});
  ASSERT_TRUE(WIFEXITED(r.status));
  EXPECT_EQ(1, WEXITSTATUS(r.status));
  EXPECT_NE(std::string::npos, r.err.find(path + ":3: ")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(path + ":4: ")) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("has 2 faulty lines (and 1 valid data line)")) << r.err;
  EXPECT_EQ("", r.out);
}

TEST_F(RefreshCheck, TheDaemonsRefreshFailsOnAFaultyLineToo) {
  std::string path = write("+CFGID: 0x2a\n1 ml0 sxn0\n-1 ml0 sxn0\n");
  std::string outPath = dir_ + "/stderr";
  pid_t pid = fork();
  if (pid == 0) {
    alarm(10);
    int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) dup2(fd, 2);
    setenv("SW_HERDLET_AGGIP_CFG", path.c_str(), 1);
    execl(REFRESH_CMD_PATH, REFRESH_CMD_PATH, "-c", "refresh", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(RefreshCheck, BadArgumentsAreAUsageError) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"--check"}, {"--check", ""}, {"-c", "other"}, {"--bogus", "x"}}) {
    Result r = check(args);
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(2, WEXITSTATUS(r.status)) << args.size();
    EXPECT_NE(std::string::npos, r.err.find("usage:")) << r.err;
  }
  Result help = check({"--help"});
  EXPECT_EQ(0, WEXITSTATUS(help.status));
  EXPECT_NE(std::string::npos, help.out.find("--check FILE"));
}

TEST_F(RefreshCheck, AMissingFileSaysWhy) {
  Result r = check({"--check", dir_ + "/absent.cfg"});
  EXPECT_EQ(1, WEXITSTATUS(r.status));
  EXPECT_EQ("tolkvask-refresh: cannot read " + dir_ + "/absent.cfg: No such file or directory\n", r.err);
}

// Runs last in this file: it fills the process-wide allowance of names.
TEST(AggCfgBounds, NewInterfaceNamesFromFilesAreCapped) {
  AMAggCfg cfg("ml0");
  ASSERT_NE(cfg.getMask("sxn0"), nullptr);
  for (int i = 0; i < 1100; ++i) cfg.getMask(("zz" + std::to_string(i)).c_str());
  EXPECT_EQ(1024, fileInterfaceNamesForTesting());
  // Names already brought still resolve; overlong ones never count.
  EXPECT_NE(cfg.getMask("sxn0"), nullptr);
  EXPECT_EQ(cfg.getMask(std::string(16, 'q').c_str()), nullptr);
  EXPECT_EQ(1024, fileInterfaceNamesForTesting());
}

}  // namespace

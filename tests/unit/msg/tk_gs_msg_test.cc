#include "tk_gs_tolkvaskd_msg.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

std::string badIndexText(int number) {
  return "getmsg_tk_gs_tolkvaskd: Bad msg index(" + std::to_string(number) +
         ") for msg cat tk_gs set tolkvaskd.";
}

// ---- default texts ------------------------------------------------------------

// The texts of the status report as operators see them, by number.
const char* const kExpectedTexts[] = {
    nullptr,
    "Status information for subsystem %1$s:\n",
    "Tessel switch device is not currently supported.\n",
    "Not yet connected to Group Services after %1$d connect try\n",
    "Not yet connected to Group Services after %1$d connect tries\n",
    "Connected to Group Services.\n",
    "Subscribed: %1$s.  Joined: %2$s  (%3$d aliases)\n",
    "Yes",
    "No",
    "Switch device %1$s not currently open on this node.\n",
    "Switch device %1$s opened with file descriptor %2$d.\n",
    "Switch device opened %1$d time(s), closed %2$d time(s)\n",
    "%1$s: TRACE BEGIN request from SRC, trace was: %2$X will set to: %3$X.\n",
    "%1$s: TRACE END request from SRC, trace was: %2$X setting to: %3$X.\n",
    "%1$s: REFRESH request from SRC\n",
    "%1$s: Invalid request %2$d.\n",
    " %1$s group name is %2$s.\n",
    " %1$s group is joined, and aliased to %2$s.\n",
    " %1$s group is not joined.\n",
    " The size of %1$s group is %2$d.\n",
    "-",
    " Adapter  Group    \t\t Mbrs \tJoined \tSubs'd \tAliases\n",
    " %1$-7s  %2$-15s \t%3$-5s \t%4$-6s \t%5$-6s\t%6$-6s\n",
    "(not found)",
    "(up)",
    "(down)",
    "Aggregate Adapter Configuration\n",
    " New config is re-bebuilding by PID %1$d.\n",
    " The current configuration id is %1$s.\n",
    "Waiting for Group Services response.\n",
    "Current Members\n",
    "Group            Number of.\nName             Nodes GMbrs LMbrs  Joined Subs'd  Aliases\n",
    "%1$-17s%2$-6s%3$-7s%4$-7s%5$-7s%6$-6s%7$-14s\n",
    "Current Global Membership Node List\n",
    "Current Local Membership Adapter List\n",
};
static_assert(sizeof(kExpectedTexts) / sizeof(kExpectedTexts[0]) == 35, "34 messages");

TEST(DefaultTexts, EveryMessageMatchesByNumber) {
  for (int n = 1; n <= kTkGsTolkvaskdMsgCount; ++n) {
    EXPECT_STREQ(kExpectedTexts[n], getmsg_tk_gs_tolkvaskd_def(n)) << "message " << n;
  }
}

TEST(DefaultTexts, OnlyTheSixWordsLackANewline) {
  for (int n = 1; n <= kTkGsTolkvaskdMsgCount; ++n) {
    std::string text = getmsg_tk_gs_tolkvaskd_def(n);
    ASSERT_FALSE(text.empty()) << n;
    bool word = n == 7 || n == 8 || n == 20 || n == 23 || n == 24 || n == 25;
    EXPECT_EQ(!word, text.back() == '\n') << "message " << n;
  }
}

// Byte-exact checks, each built piece by piece from how the text is
// described rather than copied as one literal.
TEST(DefaultTexts, ExactBytesOfTheTrickyOnes) {
  EXPECT_EQ(std::string("Status information for subsystem %1$s:") + '\n', getmsg_tk_gs_tolkvaskd_def(1));
  EXPECT_EQ(std::string("Not yet connected to Group Services after %1$d connect try") + '\n',
            getmsg_tk_gs_tolkvaskd_def(3));
  EXPECT_EQ(std::string("Not yet connected to Group Services after %1$d connect tries") + '\n',
            getmsg_tk_gs_tolkvaskd_def(4));
  EXPECT_EQ(3u, strlen(getmsg_tk_gs_tolkvaskd_def(7)));
  EXPECT_EQ(0, memcmp("Yes", getmsg_tk_gs_tolkvaskd_def(7), 4));
  std::string m21 = std::string(" Adapter  Group    ") + '\t' + '\t' + " Mbrs " + '\t' + "Joined " + '\t' +
                    "Subs'd " + '\t' + "Aliases" + '\n';
  EXPECT_EQ(m21, getmsg_tk_gs_tolkvaskd_def(21));
  std::string m22 = std::string(" %1$-7s  %2$-15s ") + '\t' + "%3$-5s " + '\t' + "%4$-6s " + '\t' + "%5$-6s" +
                    '\t' + "%6$-6s" + '\n';
  EXPECT_EQ(m22, getmsg_tk_gs_tolkvaskd_def(22));
  std::string m27 = std::string(" New config is re-") + "be" + "building by PID %1$d." + '\n';
  EXPECT_EQ(m27, getmsg_tk_gs_tolkvaskd_def(27));
  std::string m31 = std::string("Group") + std::string(12, ' ') + "Number of." + '\n' + "Name" +
                    std::string(13, ' ') + "Nodes GMbrs LMbrs  Joined Subs'd  Aliases" + '\n';
  EXPECT_EQ(m31, getmsg_tk_gs_tolkvaskd_def(31));
  std::string m32 = std::string("%1$-17s%2$-6s%3$-7s%4$-7s%5$-7s%6$-6s%7$-14s") + '\n';
  EXPECT_EQ(m32, getmsg_tk_gs_tolkvaskd_def(32));
}

TEST(DefaultTexts, PositionalArgumentsFormat) {
  char buf[256];
  snprintf(buf, sizeof(buf), getmsg_tk_gs_tolkvaskd_def(6), getmsg_tk_gs_tolkvaskd_def(7),
           getmsg_tk_gs_tolkvaskd_def(8), 2);
  EXPECT_STREQ("Subscribed: Yes.  Joined: No  (2 aliases)\n", buf);
  snprintf(buf, sizeof(buf), getmsg_tk_gs_tolkvaskd_def(12), "tolkvaskd", 0x61F, 0xFFFF);
  EXPECT_STREQ("tolkvaskd: TRACE BEGIN request from SRC, trace was: 61F will set to: FFFF.\n", buf);
  snprintf(buf, sizeof(buf), getmsg_tk_gs_tolkvaskd_def(22), "sxn0", "sxnMembership", "4", "Yes", "Yes", "-");
  EXPECT_STREQ(" sxn0     sxnMembership   \t4     \tYes    \tYes   \t-     \n", buf);
}

// ---- bad indexes --------------------------------------------------------------

TEST(BadIndex, OutsideOneToThirtyFourGivesTheBadIndexText) {
  EXPECT_EQ(badIndexText(0), getmsg_tk_gs_tolkvaskd_def(0));
  EXPECT_EQ(badIndexText(35), getmsg_tk_gs_tolkvaskd_def(35));
  EXPECT_EQ(badIndexText(-7), getmsg_tk_gs_tolkvaskd_def(-7));
  EXPECT_EQ(badIndexText(0), getmsg_tk_gs_tolkvaskd(0));
  EXPECT_EQ(badIndexText(35), getmsg_tk_gs_tolkvaskd_catidx(35, 0));
  EXPECT_EQ(badIndexText(35), getmsg_tk_gs_tolkvaskd_nls(35, "C"));
  EXPECT_EQ(badIndexText(0), getmsg_tk_gs_tolkvaskd_nls(0, "en_US"));
}

TEST(BadIndex, EachThreadHasItsOwnBuffer) {
  const char* mine = getmsg_tk_gs_tolkvaskd_def(0);
  std::string theirs;
  std::thread other([&theirs] { theirs = getmsg_tk_gs_tolkvaskd_def(99); });
  other.join();
  EXPECT_EQ(badIndexText(0), mine);  // not overwritten by the other thread
  EXPECT_EQ(badIndexText(99), theirs);
}

TEST(BadIndex, UnknownCatalogueIndexGivesTheDefault) {
  EXPECT_STREQ(kExpectedTexts[5], getmsg_tk_gs_tolkvaskd_catidx(5, -2));
  EXPECT_STREQ(kExpectedTexts[5], getmsg_tk_gs_tolkvaskd_catidx(5, 16));  // no catalogue there
  EXPECT_STREQ(kExpectedTexts[5], getmsg_tk_gs_tolkvaskd_catidx(5, 1000));
  EXPECT_STREQ(kExpectedTexts[5], getmsg_tk_gs_tolkvaskd_catidx(5, -1));
}

// ---- locales ------------------------------------------------------------------

TEST(CatalogueIndex, OnlyCAndPosixUseTheDefaults) {
  EXPECT_EQ(-1, find_catidx_tk_gs_tolkvaskd("C"));
  EXPECT_EQ(-1, find_catidx_tk_gs_tolkvaskd("POSIX"));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd(nullptr));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd(""));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd("en_US.UTF-8"));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd("c"));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd("C.UTF-8"));
  EXPECT_EQ(0, find_catidx_tk_gs_tolkvaskd("posix"));
}

// The selected locale and the kept names are process state: tests that
// depend on where that state starts run in a child process of their own.
// The child's failures come back as its standard error and a non-zero exit.
#define EXPECT_IN_CHILD(check)                                              \
  EXPECT_EXIT(                                                              \
      {                                                                     \
        std::string failures = (check)();                                   \
        fputs(failures.c_str(), stderr);                                    \
        exit(failures.empty() ? 0 : 1);                                     \
      },                                                                    \
      ::testing::ExitedWithCode(0), "")

std::string expectText(const std::string& what, const char* got, const std::string& want) {
  if (got != nullptr && want == got) return "";
  return what + ": got \"" + (got == nullptr ? "(null)" : got) + "\", want \"" + want + "\"\n";
}

std::string expectText(int number, const char* got, const std::string& want) {
  return expectText("message " + std::to_string(number), got, want);
}

TEST(SelectedLocaleName, StartsEmptyAndSetReturnsThePreviousName) {
  EXPECT_IN_CHILD([] {
    std::string failures;
    failures += expectText("initial", getcurrentlocale_tk_gs_tolkvaskd(), "");
    failures += expectText("first set", setmsg_locale_tk_gs_tolkvaskd("POSIX"), "");
    failures += expectText("second set", setmsg_locale_tk_gs_tolkvaskd("de_DE.UTF-8"), "POSIX");
    failures += expectText("current", getcurrentlocale_tk_gs_tolkvaskd(), "de_DE.UTF-8");
    failures += expectText("third set", setmsg_locale_tk_gs_tolkvaskd("C"), "de_DE.UTF-8");
    failures += expectText("current", getcurrentlocale_tk_gs_tolkvaskd(), "C");
    failures += expectText("null set", setmsg_locale_tk_gs_tolkvaskd(nullptr), "C");
    failures += expectText("current", getcurrentlocale_tk_gs_tolkvaskd(), "");
    return failures;
  });
}

TEST(SelectedLocaleName, ReturnedNameOutlivesLaterSelections) {
  EXPECT_IN_CHILD([] {
    char name[] = "fr_FR.UTF-8";
    setmsg_locale_tk_gs_tolkvaskd(name);
    const char* kept = setmsg_locale_tk_gs_tolkvaskd("C");
    name[0] = 'X';  // the caller's own copy may change or go away
    for (int i = 0; i < 100; ++i) setmsg_locale_tk_gs_tolkvaskd(("xx_" + std::to_string(i)).c_str());
    std::string failures = expectText("kept", kept, "fr_FR.UTF-8");
    setmsg_locale_tk_gs_tolkvaskd(kept);  // restoring with the returned name works
    failures += expectText("restored", getcurrentlocale_tk_gs_tolkvaskd(), "fr_FR.UTF-8");
    return failures;
  });
}

TEST(SelectedLocaleName, NamesBeyondTheBoundAreRecordedAsOther) {
  EXPECT_IN_CHILD([] {
    std::string failures;
    for (int i = 0; i < 32; ++i) {
      std::string name = "bound_" + std::to_string(i);
      setmsg_locale_tk_gs_tolkvaskd(name.c_str());
      failures += expectText(name, getcurrentlocale_tk_gs_tolkvaskd(), name);
    }
    setmsg_locale_tk_gs_tolkvaskd("bound_32");
    failures += expectText("33rd name", getcurrentlocale_tk_gs_tolkvaskd(), "(other)");
    setmsg_locale_tk_gs_tolkvaskd("bound_5");
    failures += expectText("kept name", getcurrentlocale_tk_gs_tolkvaskd(), "bound_5");
    setmsg_locale_tk_gs_tolkvaskd("POSIX");  // C and POSIX are always kept
    failures += expectText("POSIX", getcurrentlocale_tk_gs_tolkvaskd(), "POSIX");
    return failures;
  });
}

TEST(SelectedLocaleName, LongNamesAreCut) {
  EXPECT_IN_CHILD([] {
    std::string longName(200, 'l');
    setmsg_locale_tk_gs_tolkvaskd(longName.c_str());
    return expectText("long name", getcurrentlocale_tk_gs_tolkvaskd(), std::string(63, 'l'));
  });
}

// Puts back the selected locale that the test found.
class SelectedLocale : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = setmsg_locale_tk_gs_tolkvaskd("POSIX"); }
  void TearDown() override { setmsg_locale_tk_gs_tolkvaskd(saved_); }
  const char* saved_ = nullptr;
};

TEST_F(SelectedLocale, PosixSelectsTheDefaults) {
  setmsg_locale_tk_gs_tolkvaskd("POSIX");
  for (int n = 1; n <= kTkGsTolkvaskdMsgCount; ++n) {
    EXPECT_STREQ(kExpectedTexts[n], getmsg_tk_gs_tolkvaskd(n)) << n;
  }
}

// ---- catalogues on disk ---------------------------------------------------------
// Each test runs in a child process of its own, because the process's
// catalogue is opened once and named-locale catalogues are kept.

class CatalogueFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    if (system("command -v gencat >/dev/null 2>&1") != 0) GTEST_SKIP() << "gencat is not installed";
    char tmpl[] = "/tmp/tk_gs_msg_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    dir_ = tmpl;
    // Messages 1 and 7 are translated, everything else falls back.
    fs::path source = dir_ / "tk_gs.msg";
    std::ofstream(source) << "$set 4\n1 Statut du sous-systeme %1$s :\\n\n7 Oui\n";
    catalogue_ = dir_ / "tk_gs.cat";
    std::string cmd = "gencat " + catalogue_.string() + " " + source.string();
    ASSERT_EQ(0, system(cmd.c_str()));
  }
  void TearDown() override {
    std::error_code ec;
    if (!dir_.empty()) fs::remove_all(dir_, ec);
  }
  // Copies the catalogue to DIR/SUB/tk_gs.cat.
  void install(const std::string& sub) {
    fs::create_directories(dir_ / sub);
    fs::copy_file(catalogue_, dir_ / sub / "tk_gs.cat", fs::copy_options::overwrite_existing);
  }

  fs::path dir_;
  fs::path catalogue_;
};

TEST_F(CatalogueFiles, MissingCatalogueGivesTheDefaults) {
  fs::path empty = dir_ / "empty";
  EXPECT_IN_CHILD([&] {
    setenv("NLSPATH", (empty.string() + "/%L/%N").c_str(), 1);
    std::string failures;
    for (int n = 1; n <= kTkGsTolkvaskdMsgCount; ++n) {
      failures += expectText(n, getmsg_tk_gs_tolkvaskd_catidx(n, 0), kExpectedTexts[n]);
      failures += expectText(n, getmsg_tk_gs_tolkvaskd_nls(n, "xx_YY"), kExpectedTexts[n]);
    }
    return failures;
  });
}

TEST_F(CatalogueFiles, ProcessLocaleCatalogueIsUsedWithDefaultsForMissingMessages) {
  install("C");  // LC_MESSAGES of the test process is "C"
  EXPECT_IN_CHILD([&] {
    setenv("NLSPATH", (dir_.string() + "/%L/%N").c_str(), 1);
    std::string failures;
    failures += expectText(1, getmsg_tk_gs_tolkvaskd_catidx(1, 0), "Statut du sous-systeme %1$s :\n");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_catidx(7, 0), "Oui");
    failures += expectText(8, getmsg_tk_gs_tolkvaskd_catidx(8, 0), "No");
    failures += expectText(1, getmsg_tk_gs_tolkvaskd_def(1), kExpectedTexts[1]);
    // The current index follows the selected locale.
    setmsg_locale_tk_gs_tolkvaskd("en_US");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd(7), "Oui");
    setmsg_locale_tk_gs_tolkvaskd("POSIX");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd(7), "Yes");
    // Opened once: removing the file later changes nothing.
    fs::remove(dir_ / "C" / "tk_gs.cat");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_catidx(7, 0), "Oui");
    return failures;
  });
}

TEST_F(CatalogueFiles, NamedLocaleUsesItsOwnCatalogue) {
  install("xx_YY");
  install("zz");
  EXPECT_IN_CHILD([&] {
    setenv("NLSPATH", (dir_.string() + "/%L/%N:" + dir_.string() + "/%l/%N").c_str(), 1);
    std::string failures;
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "xx_YY"), "Oui");
    failures += expectText(8, getmsg_tk_gs_tolkvaskd_nls(8, "xx_YY"), "No");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "zz_AA.UTF-8@euro"), "Oui");  // by language
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "C"), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "qq_QQ"), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_catidx(7, 1), "Oui");  // its kept index
    // Only the call's own locale is used: the process's catalogue is absent.
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_catidx(7, 0), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, nullptr), "Yes");
    return failures;
  });
}

TEST_F(CatalogueFiles, NamesThatAreNotPlainLocalesAreRefused) {
  install("xx_YY");
  install("sub/xx_YY");
  EXPECT_IN_CHILD([&] {
    setenv("NLSPATH", (dir_.string() + "/sub/%L/%N").c_str(), 1);
    std::string failures;
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "../xx_YY"), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "xx_YY/../xx_YY"), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, ".."), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, std::string(100, 'x').c_str()), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "xx_YY"), "Oui");
    return failures;
  });
}

TEST_F(CatalogueFiles, AtMostSixteenLocalesAreKept) {
  for (int i = 0; i < 17; ++i) install("l" + std::to_string(i) + "_XX");
  EXPECT_IN_CHILD([&] {
    setenv("NLSPATH", (dir_.string() + "/%L/%N").c_str(), 1);
    std::string failures;
    // Locales without a catalogue take no place.
    for (int i = 0; i < 40; ++i) {
      failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, ("none" + std::to_string(i)).c_str()), "Yes");
    }
    for (int i = 0; i < kTkGsTolkvaskdMaxLocales; ++i) {
      failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, ("l" + std::to_string(i) + "_XX").c_str()), "Oui");
    }
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "l16_XX"), "Yes");
    failures += expectText(7, getmsg_tk_gs_tolkvaskd_nls(7, "l3_XX"), "Oui");  // kept ones stay
    return failures;
  });
}

}  // namespace

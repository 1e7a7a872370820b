#include "vx_ffdc.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "vx_cu.h"

namespace {

namespace fs = std::filesystem;

const fc_errtbl_entry kStartRow = {0, "GS_VASK_START_ST", 5, 0x39, "Group Services VASK daemon started",
                                   1, ""};
const fc_errtbl_entry kStopRow = {0, "GS_VASK_STOP_ST", 5, 0x3d, "Group Services VASK daemon stopped",
                                  1, ""};

// ---- a small, strict JSON reader for one line holding one flat object -------

// Values of the object: strings decoded to UTF-8, numbers kept as written.
struct JsonValue {
  bool isString = false;
  std::string text;
};
using JsonObject = std::map<std::string, JsonValue>;

// Reads one line of the error log strictly (RFC 8259 strings, raw UTF-8
// checked). Thread-compatible; one reader per line.
class JsonLineReader {
 public:
  explicit JsonLineReader(const std::string& line) : s_(line) {}

  // True when the whole line is exactly one object of strings and integers
  // (what the error log writes); fills out.
  bool read(JsonObject* out, std::string* why) {
    skipSpace();
    if (!expect('{')) return fail(why, "no object");
    skipSpace();
    if (peek() == '}') {
      ++pos_;
    } else {
      for (;;) {
        skipSpace();
        std::string key;
        if (!readString(&key)) return fail(why, "bad key");
        skipSpace();
        if (!expect(':')) return fail(why, "no colon after " + key);
        skipSpace();
        JsonValue value;
        if (peek() == '"') {
          value.isString = true;
          if (!readString(&value.text)) return fail(why, "bad string for " + key);
        } else if (!readInteger(&value.text)) {
          return fail(why, "bad value for " + key);
        }
        if (out->count(key) != 0) return fail(why, "duplicate key " + key);
        (*out)[key] = value;
        skipSpace();
        if (peek() == ',') {
          ++pos_;
          continue;
        }
        if (!expect('}')) return fail(why, "no comma or end after " + key);
        break;
      }
    }
    skipSpace();
    if (pos_ != s_.size()) return fail(why, "text after the object");
    return true;
  }

 private:
  bool fail(std::string* why, const std::string& text) {
    *why = text + " at byte " + std::to_string(pos_);
    return false;
  }
  char peek() const { return pos_ < s_.size() ? s_[pos_] : '\0'; }
  bool expect(char c) {
    if (peek() != c) return false;
    ++pos_;
    return true;
  }
  void skipSpace() {
    while (pos_ < s_.size() && (s_[pos_] == ' ' || s_[pos_] == '\t')) ++pos_;
  }
  bool readInteger(std::string* out) {
    size_t start = pos_;
    if (peek() == '-') ++pos_;
    if (!isdigit(static_cast<unsigned char>(peek()))) return false;
    if (peek() == '0' && pos_ + 1 < s_.size() && isdigit(static_cast<unsigned char>(s_[pos_ + 1]))) return false;
    while (isdigit(static_cast<unsigned char>(peek()))) ++pos_;
    *out = s_.substr(start, pos_ - start);
    return true;
  }
  static void appendUtf8(std::string* out, unsigned cp) {
    if (cp < 0x80) {
      *out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      *out += static_cast<char>(0xC0 | (cp >> 6));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *out += static_cast<char>(0xE0 | (cp >> 12));
      *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | (cp >> 18));
      *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  bool readHex4(unsigned* out) {
    if (pos_ + 4 > s_.size()) return false;
    unsigned v = 0;
    for (int i = 0; i < 4; ++i) {
      char c = s_[pos_++];
      v <<= 4;
      if (c >= '0' && c <= '9') v |= static_cast<unsigned>(c - '0');
      else if (c >= 'a' && c <= 'f') v |= static_cast<unsigned>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') v |= static_cast<unsigned>(c - 'A' + 10);
      else return false;
    }
    *out = v;
    return true;
  }
  // Checks one raw UTF-8 sequence strictly and copies it.
  bool copyUtf8(std::string* out) {
    unsigned char c = static_cast<unsigned char>(s_[pos_]);
    size_t n;
    unsigned cp;
    if (c >= 0xC2 && c <= 0xDF) { n = 2; cp = c & 0x1F; }
    else if (c >= 0xE0 && c <= 0xEF) { n = 3; cp = c & 0x0F; }
    else if (c >= 0xF0 && c <= 0xF4) { n = 4; cp = c & 0x07; }
    else return false;
    if (pos_ + n > s_.size()) return false;
    for (size_t i = 1; i < n; ++i) {
      unsigned char d = static_cast<unsigned char>(s_[pos_ + i]);
      if ((d & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return false;
    }
    out->append(s_, pos_, n);
    pos_ += n;
    return true;
  }
  bool readString(std::string* out) {
    if (!expect('"')) return false;
    for (;;) {
      if (pos_ >= s_.size()) return false;
      unsigned char c = static_cast<unsigned char>(s_[pos_]);
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (c < 0x20) return false;  // raw control characters are not JSON
      if (c >= 0x80) {
        if (!copyUtf8(out)) return false;
        continue;
      }
      ++pos_;
      if (c != '\\') {
        *out += static_cast<char>(c);
        continue;
      }
      char e = peek();
      ++pos_;
      switch (e) {
        case '"': *out += '"'; break;
        case '\\': *out += '\\'; break;
        case '/': *out += '/'; break;
        case 'b': *out += '\b'; break;
        case 'f': *out += '\f'; break;
        case 'n': *out += '\n'; break;
        case 'r': *out += '\r'; break;
        case 't': *out += '\t'; break;
        case 'u': {
          unsigned cp;
          if (!readHex4(&cp)) return false;
          if (cp >= 0xDC00 && cp <= 0xDFFF) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            unsigned low;
            if (!expect('\\') || !expect('u') || !readHex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          }
          appendUtf8(out, cp);
          break;
        }
        default: return false;
      }
    }
  }

  const std::string& s_;
  size_t pos_ = 0;
};

std::vector<std::string> readLines(const fs::path& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Parses every line of the file; fails the test on the first bad one.
std::vector<JsonObject> readEntries(const fs::path& path) {
  std::vector<JsonObject> entries;
  std::ifstream in(path, std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_TRUE(content.empty() || content.back() == '\n') << "the file must end with a whole line";
  for (const std::string& line : readLines(path)) {
    JsonObject obj;
    std::string why;
    EXPECT_TRUE(JsonLineReader(line).read(&obj, &why)) << why << ": " << line;
    entries.push_back(obj);
  }
  return entries;
}

TEST(JsonLineReaderSelfCheck, RejectsWhatIsNotJson) {
  const char* bad[] = {"{\"a\":\"x\ny\"}", "{\"a\":\"\\x\"}", "{\"a\":\"\xff\"}", "{\"a\":01}",
                       "{\"a\":\"x\"", "{\"a\":\"x\"} x", "{\"a\" \"x\"}", "{\"a\":\"\\ud800\"}"};
  for (const char* text : bad) {
    JsonObject obj;
    std::string why;
    std::string line(text);
    EXPECT_FALSE(JsonLineReader(line).read(&obj, &why)) << text;
  }
  JsonObject obj;
  std::string why;
  std::string good = "{\"a\":\"\\u00e9\\ud83d\\ude00\",\"n\":-12}";
  ASSERT_TRUE(JsonLineReader(good).read(&obj, &why)) << why;
  EXPECT_EQ("\xc3\xa9\xf0\x9f\x98\x80", obj["a"].text);
  EXPECT_EQ("-12", obj["n"].text);
}

// ---- fixtures ---------------------------------------------------------------

std::mutex g_syslogMu;
std::vector<std::pair<int, std::string>> g_syslogLines;

void captureSyslog(int priority, const char* msg) {
  std::lock_guard<std::mutex> lock(g_syslogMu);
  if (g_syslogLines.size() < 100000) g_syslogLines.emplace_back(priority, msg);
}

int frozenWallClock(struct timeval* tv) {
  tv->tv_sec = 1600000000;  // 2020-09-13T12:26:40Z
  tv->tv_usec = 123456;
  return 0;
}

// Each test starts as a fresh process would: no VELT_FFDC_LOG, nothing
// configured, syslog captured, its own directory for files.
class FfdcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("VELT_FFDC_LOG");
    fc_reset_ForTesting();
    fc_set_syslog_ForTesting(captureSyslog);
    {
      std::lock_guard<std::mutex> lock(g_syslogMu);
      g_syslogLines.clear();
    }
    char tmpl[] = "/tmp/vx_ffdc_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    dir_ = tmpl;
    logPath_ = dir_ / "errlog.json";
  }
  void TearDown() override {
    cu_set_clocks_ForTesting(nullptr, nullptr);
    fc_reset_ForTesting();
    fc_set_syslog_ForTesting(nullptr);
    unsetenv("VELT_FFDC_LOG");
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  int logText(const std::string& text, fc_eid_t id, const char* ref = nullptr,
              const fc_errtbl_entry* row = &kStartRow, int type = 2) {
    return fc_log_error(id, ref, "tolkavskd", "VELT", "tolkbrel.cc", "1.7", 321, type, 0, row,
                        text.data(), text.size(), nullptr);
  }

  std::vector<std::pair<int, std::string>> syslogLines() {
    std::lock_guard<std::mutex> lock(g_syslogMu);
    return g_syslogLines;
  }

  fs::path dir_;
  fs::path logPath_;
};

bool isIdSymbol(char c) {
  return c != '\0' && strchr("0123456789ABCDEFGHJKMNPQRSTVWXYZ", c) != nullptr;
}

// ---- identifiers --------------------------------------------------------------

using FfdcIdentifier = FfdcTest;

TEST_F(FfdcIdentifier, HasFortyTwoSymbolsOfTheAlphabet) {
  fc_eid_t id;
  memset(id, 'x', sizeof(id));
  ASSERT_EQ(FC_SUCCESS, logText("hello", id));
  EXPECT_EQ(42u, strnlen(id, sizeof(id)));
  EXPECT_EQ('\0', id[42]);
  for (int i = 0; i < FC_ID_LEN; ++i) EXPECT_TRUE(isIdSymbol(id[i])) << "symbol " << i << " of " << id;
  EXPECT_FALSE(fc_is_id_empty(id));
}

TEST_F(FfdcIdentifier, UniqueAcrossManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 5000;
  std::vector<std::vector<std::string>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&ids, t, this] {
      for (int i = 0; i < kPerThread; ++i) {
        fc_eid_t id;
        if (logText("x", id) == FC_SUCCESS) ids[t].push_back(id);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::set<std::string> all;
  for (const auto& list : ids) {
    EXPECT_EQ(static_cast<size_t>(kPerThread), list.size());
    for (const auto& id : list) {
      EXPECT_EQ(42u, id.size());
      all.insert(id);
    }
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kPerThread), all.size());
}

TEST_F(FfdcIdentifier, UniqueWithinTheSameMicrosecond) {
  cu_set_clocks_ForTesting(frozenWallClock, nullptr);
  std::set<std::string> all;
  std::string firstTimePart;
  for (int i = 0; i < 2000; ++i) {
    fc_eid_t id;
    ASSERT_EQ(FC_SUCCESS, logText("x", id));
    std::string text(id);
    // The time symbols (20..32) are the same for every entry here, so only
    // the counter can tell them apart.
    if (firstTimePart.empty()) firstTimePart = text.substr(20, 13);
    EXPECT_EQ(firstTimePart, text.substr(20, 13));
    all.insert(text);
  }
  EXPECT_EQ(2000u, all.size());
}

TEST_F(FfdcIdentifier, UniqueAcrossProcesses) {
  cu_set_clocks_ForTesting(frozenWallClock, nullptr);  // the child inherits the frozen clock
  constexpr int kPerProcess = 2000;
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    FILE* out = fdopen(fds[1], "w");
    for (int i = 0; i < kPerProcess; ++i) {
      fc_eid_t id;
      if (fc_log_error(id, nullptr, "p", "c", "f", "v", 1, 2, 0, &kStartRow, "x", 1, nullptr) != FC_SUCCESS) _exit(2);
      fprintf(out, "%s\n", id);
    }
    fclose(out);
    _exit(0);
  }
  close(fds[1]);
  std::set<std::string> all;
  for (int i = 0; i < kPerProcess; ++i) {
    fc_eid_t id;
    ASSERT_EQ(FC_SUCCESS, logText("x", id));
    all.insert(id);
  }
  FILE* in = fdopen(fds[0], "r");
  ASSERT_NE(nullptr, in);
  char line[128];
  int childIds = 0;
  while (fgets(line, sizeof(line), in) != nullptr) {
    line[strcspn(line, "\n")] = '\0';
    EXPECT_EQ(42u, strlen(line));
    all.insert(line);
    ++childIds;
  }
  fclose(in);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ(kPerProcess, childIds);
  EXPECT_EQ(static_cast<size_t>(2 * kPerProcess), all.size());
}

TEST(FfdcEmptyId, NullOrLeadingZerosAreEmpty) {
  EXPECT_TRUE(fc_is_id_empty(nullptr));
  fc_eid_t id = {};
  EXPECT_TRUE(fc_is_id_empty(id));
  id[3] = 'A';
  EXPECT_FALSE(fc_is_id_empty(id));
  id[3] = '\0';
  id[4] = 'A';  // only the first four bytes count
  EXPECT_TRUE(fc_is_id_empty(id));
  EXPECT_FALSE(fc_is_id_empty("0A1B2C"));
}

// ---- the system-log form ----------------------------------------------------------

TEST(FfdcSyslogMessage, LabelDetailAndText) {
  char buf[946];
  int n = fc_mk_syslog_msg(&kStartRow, "Group Services VASK daemon started.", buf, sizeof(buf));
  EXPECT_STREQ("GS_VASK_START_ST[0x39]: Group Services VASK daemon started.", buf);
  EXPECT_EQ(static_cast<int>(strlen(buf)), n);
  const fc_errtbl_entry first = {0, "GS_START_ST", 5, 0x01, "Group Services daemon started", 1, ""};
  fc_mk_syslog_msg(&first, "", buf, sizeof(buf));
  EXPECT_STREQ("GS_START_ST[0x01]: ", buf);
}

TEST(FfdcSyslogMessage, CutToTheBuffer) {
  char buf[12];
  memset(buf, 'z', sizeof(buf));
  int n = fc_mk_syslog_msg(&kStartRow, "text", buf, sizeof(buf));
  EXPECT_STREQ("GS_VASK_STA", buf);
  EXPECT_EQ(11, n);
  char one[1] = {'z'};
  EXPECT_EQ(0, fc_mk_syslog_msg(&kStartRow, "text", one, 1));
  EXPECT_EQ('\0', one[0]);
}

TEST(FfdcSyslogMessage, MissingPiecesAreHandled) {
  char buf[64];
  EXPECT_EQ(-1, fc_mk_syslog_msg(&kStartRow, "t", nullptr, 10));
  EXPECT_EQ(-1, fc_mk_syslog_msg(&kStartRow, "t", buf, 0));
  EXPECT_EQ(4, fc_mk_syslog_msg(nullptr, "only", buf, sizeof(buf)));
  EXPECT_STREQ("only", buf);
  fc_mk_syslog_msg(&kStopRow, nullptr, buf, sizeof(buf));
  EXPECT_STREQ("GS_VASK_STOP_ST[0x3d]: ", buf);
}

using FfdcSyslog = FfdcTest;

TEST_F(FfdcSyslog, EntryReachesSyslogWithLabelDetailAndId) {
  fc_eid_t id;
  char msg[946];
  fc_mk_syslog_msg(&kStartRow, "Group Services VASK daemon started.", msg, sizeof(msg));
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, nullptr, "tolkavskd", "VELT", "tolkbrel.cc", "1.7", 9, 2, 0,
                                     &kStartRow, "Group Services VASK daemon started.", 35, msg));
  auto lines = syslogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(LOG_INFO, lines[0].first);
  EXPECT_EQ(std::string("GS_VASK_START_ST[0x39]: Group Services VASK daemon started. fcid=") + id,
            lines[0].second);
}

TEST_F(FfdcSyslog, WithoutSyslogTextTheTemplateFormIsBuilt) {
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText("line one\nline two", id, nullptr, &kStopRow, 1));
  auto lines = syslogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(LOG_ERR, lines[0].first);
  // One entry stays one syslog line.
  EXPECT_EQ(std::string("GS_VASK_STOP_ST[0x3d]: line one line two fcid=") + id, lines[0].second);
}

TEST_F(FfdcSyslog, TypesMapToPriorities) {
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText("e", id, nullptr, &kStartRow, 0));
  ASSERT_EQ(FC_SUCCESS, logText("w", id, nullptr, &kStartRow, 4));
  auto lines = syslogLines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(LOG_CRIT, lines[0].first);
  EXPECT_EQ(LOG_WARNING, lines[1].first);
}

TEST_F(FfdcSyslog, InvalidArgumentsWriteNothing) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t id;
  EXPECT_EQ(FC_INVALID_ARGUMENT, logText("x", id, nullptr, &kStartRow, 3));
  EXPECT_EQ(FC_INVALID_ARGUMENT, logText("x", id, nullptr, &kStartRow, -1));
  EXPECT_EQ(FC_INVALID_ARGUMENT, logText("x", id, nullptr, nullptr, 1));
  EXPECT_TRUE(syslogLines().empty());
  EXPECT_FALSE(fs::exists(logPath_));
}

// ---- initialisation and configuration -----------------------------------------

using FfdcInit = FfdcTest;

TEST_F(FfdcInit, NoFileConfiguredMeansSyslogOnly) {
  EXPECT_EQ(FC_NO_ENVIRONMENT, fc_init_1("VELT"));
  fc_eid_t id;
  EXPECT_EQ(FC_SUCCESS, logText("x", id));
  EXPECT_EQ(1u, syslogLines().size());
}

TEST_F(FfdcInit, SecondCallIsHarmless) {
  ASSERT_EQ(FC_NO_ENVIRONMENT, fc_init_1("VELT"));
  EXPECT_EQ(FC_ALREADY_INITIALIZED, fc_init_1("VELT"));
  EXPECT_EQ(FC_ALREADY_INITIALIZED, fc_init_1(nullptr));
}

TEST_F(FfdcInit, EnvironmentNamesTheFile) {
  setenv("VELT_FFDC_LOG", logPath_.c_str(), 1);
  ASSERT_EQ(FC_SUCCESS, fc_init_1("VELT"));
  EXPECT_TRUE(fs::exists(logPath_));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText("via env", id));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("via env", entries[0]["text"].text);
}

TEST_F(FfdcInit, EnvironmentWinsOverTheNamedFile) {
  fs::path other = dir_ / "other.json";
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(other.c_str()));
  setenv("VELT_FFDC_LOG", logPath_.c_str(), 1);
  ASSERT_EQ(FC_SUCCESS, fc_init_1("VELT"));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText("x", id));
  EXPECT_EQ(1u, readEntries(logPath_).size());
  EXPECT_FALSE(fs::exists(other));
}

TEST_F(FfdcInit, NamedFileIsUsedWithoutEnvironment) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  ASSERT_EQ(FC_SUCCESS, fc_init_1("VELT"));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText("x", id));
  EXPECT_EQ(1u, readEntries(logPath_).size());
}

TEST_F(FfdcInit, BadFileNamesAreRefused) {
  EXPECT_EQ(FC_INVALID_ARGUMENT, fc_set_log_file(nullptr));
  EXPECT_EQ(FC_INVALID_ARGUMENT, fc_set_log_file(""));
  std::string tooLong(PATH_MAX + 10, 'a');
  EXPECT_EQ(FC_INVALID_ARGUMENT, fc_set_log_file(("/" + tooLong).c_str()));
  setenv("VELT_FFDC_LOG", ("/" + tooLong).c_str(), 1);
  EXPECT_EQ(FC_INVALID_ARGUMENT, fc_init_1("VELT"));
  fc_eid_t id;
  EXPECT_EQ(FC_SUCCESS, logText("still reaches syslog", id));
  EXPECT_EQ(1u, syslogLines().size());
}

TEST_F(FfdcInit, RelativeNameStaysWhereItWasNamed) {
  char oldCwd[PATH_MAX];
  ASSERT_NE(nullptr, getcwd(oldCwd, sizeof(oldCwd)));
  ASSERT_EQ(0, chdir(dir_.c_str()));
  int rc = fc_set_log_file("relative.json");
  fs::create_directory(dir_ / "elsewhere");
  ASSERT_EQ(0, chdir((dir_ / "elsewhere").c_str()));
  fc_eid_t id;
  int logRc = logText("x", id);
  ASSERT_EQ(0, chdir(oldCwd));
  EXPECT_EQ(FC_SUCCESS, rc);
  EXPECT_EQ(FC_SUCCESS, logRc);
  EXPECT_TRUE(fs::exists(dir_ / "relative.json"));
  EXPECT_FALSE(fs::exists(dir_ / "elsewhere" / "relative.json"));
}

using FfdcUnwritable = FfdcTest;

TEST_F(FfdcUnwritable, MissingDirectoryGivesErrorButSyslogStillGetsTheEntry) {
  fs::path missing = dir_ / "no" / "such" / "dir" / "errlog.json";
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(missing.c_str()));
  EXPECT_EQ(FC_LOG_OPEN_FAILED, fc_init_1("VELT"));
  fc_eid_t id = {};
  EXPECT_EQ(FC_LOG_OPEN_FAILED, logText("lost from the file", id));
  EXPECT_EQ(42u, strlen(id));
  auto lines = syslogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].second.find("lost from the file"));
}

TEST_F(FfdcUnwritable, FileWhereTheDirectoryShouldBe) {
  std::ofstream(dir_ / "plainfile") << "x";
  fs::path underFile = dir_ / "plainfile" / "errlog.json";
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(underFile.c_str()));
  EXPECT_EQ(FC_LOG_OPEN_FAILED, fc_init_1("VELT"));
  fc_eid_t id;
  EXPECT_EQ(FC_LOG_OPEN_FAILED, logText("x", id));
}

TEST_F(FfdcUnwritable, DirectoryOrFifoInsteadOfAFileIsNotWritten) {
  fs::create_directory(logPath_);
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t id;
  EXPECT_EQ(FC_LOG_OPEN_FAILED, logText("x", id));
  fs::path fifo = dir_ / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(fifo.c_str()));
  // A FIFO without a reader would block a plain open for ever.
  EXPECT_EQ(FC_LOG_OPEN_FAILED, logText("x", id));
}

TEST_F(FfdcUnwritable, FileComesBackOnceTheDirectoryExists) {
  fs::path later = dir_ / "later" / "errlog.json";
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(later.c_str()));
  fc_eid_t id;
  EXPECT_EQ(FC_LOG_OPEN_FAILED, logText("first", id));
  fs::create_directory(dir_ / "later");
  EXPECT_EQ(FC_SUCCESS, logText("second", id));
  auto entries = readEntries(later);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("second", entries[0]["text"].text);
}

// ---- JSON lines -------------------------------------------------------------------

using FfdcJsonLine = FfdcTest;

TEST_F(FfdcJsonLine, EveryFieldIsWritten) {
  cu_set_clocks_ForTesting(frozenWallClock, nullptr);
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t first;
  fc_eid_t second;
  ASSERT_EQ(FC_SUCCESS, logText("daemon started", first));
  ASSERT_EQ(FC_SUCCESS, logText("daemon stopped", second, first, &kStopRow, 1));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(2u, entries.size());
  JsonObject& e = entries[1];
  EXPECT_EQ(13u, e.size());
  EXPECT_EQ(second, e["id"].text);
  EXPECT_EQ(first, e["ref"].text);
  EXPECT_EQ("2020-09-13T12:26:40.123456Z", e["time"].text);
  EXPECT_EQ("tolkavskd", e["program"].text);
  EXPECT_EQ("VELT", e["component"].text);
  EXPECT_EQ("tolkbrel.cc", e["file"].text);
  EXPECT_EQ("1.7", e["version"].text);
  EXPECT_FALSE(e["line"].isString);
  EXPECT_EQ("321", e["line"].text);
  EXPECT_EQ("ERROR", e["type"].text);
  EXPECT_EQ("GS_VASK_STOP_ST", e["label"].text);
  EXPECT_FALSE(e["detail"].isString);
  EXPECT_EQ("61", e["detail"].text);  // 0x3d
  EXPECT_EQ("Group Services VASK daemon stopped", e["description"].text);
  EXPECT_EQ("daemon stopped", e["text"].text);
  EXPECT_EQ("", entries[0]["ref"].text);
  EXPECT_EQ("INFO", entries[0]["type"].text);
}

TEST_F(FfdcJsonLine, ComponentOfInitFillsInForEntriesWithout) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  ASSERT_EQ(FC_SUCCESS, fc_init_1("VELTINIT"));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, nullptr, "p", nullptr, "f", "v", 1, 2, 0, &kStartRow, "t", 1, nullptr));
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, "", "p", "OWN", "f", "v", 1, 2, 0, &kStartRow, "t", 1, nullptr));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("VELTINIT", entries[0]["component"].text);
  EXPECT_EQ("OWN", entries[1]["component"].text);
}

TEST_F(FfdcJsonLine, SpecialCharactersAreEscapedExactly) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText(std::string("a\"b\\c\nd\te\x01" "f\x7fg\rh\bi\fj/", 20), id));
  auto lines = readLines(logPath_);
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos,
            lines[0].find("\"text\":\"a\\\"b\\\\c\\nd\\te\\u0001f\\u007fg\\rh\\bi\\fj/\"}"))
      << lines[0];
  auto entries = readEntries(logPath_);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(std::string("a\"b\\c\nd\te\x01" "f\x7fg\rh\bi\fj/"), entries[0]["text"].text);
}

TEST_F(FfdcJsonLine, InvalidUtf8IsReplacedAndValidUtf8Kept) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  const std::string replacement = "\xef\xbf\xbd";
  const std::string valid = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80";
  std::string text = valid + "|\xff|\xe2\x82|\xc0\xaf|\xed\xa0\x80|\xf4\x90\x80\x80|\x80";
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText(text, id));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(1u, entries.size());
  const std::string r = replacement;
  std::string expected = valid + "|" + r + "|" + r + r + "|" + r + r + "|" + r + r + r + "|" + r + r + r + r + "|" + r;
  EXPECT_EQ(expected, entries[0]["text"].text);
}

TEST_F(FfdcJsonLine, BadBytesInEveryFieldStillParse) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  const fc_errtbl_entry odd = {0, "LAB\"EL\n", 5, 0x45, "desc\xff\x01", 1, ""};
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, "ref\"\n\xfe", "prog\\\t", "comp\x1b", "file\xc3",
                                     "ver\"", -5, 0, 0, &odd, "t", 1, "sys\nlog"));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("LAB\"EL\n", entries[0]["label"].text);
  EXPECT_EQ("prog\\\t", entries[0]["program"].text);
  EXPECT_EQ("-5", entries[0]["line"].text);
  EXPECT_EQ("69", entries[0]["detail"].text);
  auto lines = syslogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].second.find("sys log fcid="));
}

TEST_F(FfdcJsonLine, DetailLengthAndNulEndTheText) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t id;
  const char text[] = "abcdef\0ghi";
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, nullptr, "p", "c", "f", "v", 1, 2, 0, &kStartRow, text, 3, nullptr));
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, nullptr, "p", "c", "f", "v", 1, 2, 0, &kStartRow, text, sizeof(text), nullptr));
  ASSERT_EQ(FC_SUCCESS, fc_log_error(id, nullptr, "p", "c", "f", "v", 1, 2, 0, &kStartRow, nullptr, 99, nullptr));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ("abc", entries[0]["text"].text);
  EXPECT_EQ("abcdef", entries[1]["text"].text);
  EXPECT_EQ("", entries[2]["text"].text);
}

TEST_F(FfdcJsonLine, HugeTextIsCutToABound) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  std::string huge(1 << 20, 'h');
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText(huge, id));
  auto entries = readEntries(logPath_);
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ(16u * 1024, entries[0]["text"].text.size());
}

TEST_F(FfdcJsonLine, ConcurrentThreadsWriteWholeLines) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  constexpr int kThreads = 4;
  constexpr int kPerThread = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, this] {
      std::string text = "thread " + std::to_string(t) + " " + std::string(300, static_cast<char>('a' + t));
      for (int i = 0; i < kPerThread; ++i) {
        fc_eid_t id;
        logText(text, id);
      }
    });
  }
  for (auto& th : threads) th.join();
  auto entries = readEntries(logPath_);
  ASSERT_EQ(static_cast<size_t>(kThreads * kPerThread), entries.size());
  std::set<std::string> ids;
  for (auto& e : entries) ids.insert(e["id"].text);
  EXPECT_EQ(entries.size(), ids.size());
}

TEST_F(FfdcJsonLine, TwoProcessesShareOneFile) {
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  constexpr int kPerProcess = 300;
  std::string text(500, 'p');
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    fc_set_syslog_ForTesting(nullptr);
    fc_set_syslog_ForTesting([](int, const char*) {});
    for (int i = 0; i < kPerProcess; ++i) {
      fc_eid_t id;
      if (fc_log_error(id, nullptr, "child", "c", "f", "v", 1, 2, 0, &kStartRow, text.data(), text.size(), nullptr) != FC_SUCCESS) _exit(2);
    }
    _exit(0);
  }
  for (int i = 0; i < kPerProcess; ++i) {
    fc_eid_t id;
    ASSERT_EQ(FC_SUCCESS, logText(text, id));
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  auto entries = readEntries(logPath_);
  EXPECT_EQ(static_cast<size_t>(2 * kPerProcess), entries.size());
}

// ---- size bound -------------------------------------------------------------------

using FfdcRotation = FfdcTest;

TEST_F(FfdcRotation, FileMovesAsideBeforeItPassesTheBound) {
  constexpr size_t kBound = 2000;
  fc_set_max_log_bytes_ForTesting(kBound);
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fs::path older = logPath_.string() + ".1";
  std::vector<std::string> written;
  // Each line is a few hundred bytes, so a handful fill the bound.
  for (int i = 0; i < 100 && !fs::exists(older); ++i) {
    fc_eid_t id;
    ASSERT_EQ(FC_SUCCESS, logText("entry " + std::to_string(i), id));
    written.push_back(id);
  }
  ASSERT_TRUE(fs::exists(older)) << "no rotation within 100 entries";
  EXPECT_LE(fs::file_size(older), kBound);
  EXPECT_LE(fs::file_size(logPath_), kBound);
  auto old = readEntries(older);
  auto current = readEntries(logPath_);
  ASSERT_EQ(written.size(), old.size() + current.size());
  ASSERT_EQ(1u, current.size());
  EXPECT_EQ(written.back(), current[0]["id"].text);
  for (size_t i = 0; i < old.size(); ++i) EXPECT_EQ(written[i], old[i]["id"].text);
  // Nothing got lost: the moved file was full to within one line.
  EXPECT_GT(fs::file_size(older) + fs::file_size(logPath_), kBound);
}

TEST_F(FfdcRotation, SecondRotationReplacesTheOlderFile) {
  constexpr size_t kBound = 2000;
  fc_set_max_log_bytes_ForTesting(kBound);
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fs::path older = logPath_.string() + ".1";
  std::string firstOldId;
  int rotations = 0;
  size_t lastSize = 0;
  for (int i = 0; i < 200 && rotations < 2; ++i) {
    fc_eid_t id;
    ASSERT_EQ(FC_SUCCESS, logText("entry " + std::to_string(i), id));
    size_t size = fs::file_size(logPath_);
    if (size < lastSize) {
      ++rotations;
      auto old = readEntries(older);
      ASSERT_FALSE(old.empty());
      if (rotations == 1) {
        firstOldId = old[0]["id"].text;
      } else {
        EXPECT_NE(firstOldId, old[0]["id"].text);
      }
    }
    lastSize = size;
    EXPECT_LE(size, kBound);
  }
  EXPECT_EQ(2, rotations);
  EXPECT_FALSE(fs::exists(logPath_.string() + ".2"));
}

TEST_F(FfdcRotation, LineLargerThanTheBoundStillGetsWritten) {
  fc_set_max_log_bytes_ForTesting(100);
  ASSERT_EQ(FC_SUCCESS, fc_set_log_file(logPath_.c_str()));
  fc_eid_t id;
  ASSERT_EQ(FC_SUCCESS, logText(std::string(500, 'L'), id));
  ASSERT_EQ(FC_SUCCESS, logText(std::string(500, 'M'), id));
  auto current = readEntries(logPath_);
  ASSERT_EQ(1u, current.size());
  EXPECT_EQ(std::string(500, 'M'), current[0]["text"].text);
  EXPECT_EQ(1u, readEntries(logPath_.string() + ".1").size());
}

}  // namespace

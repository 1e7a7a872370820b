// Files for the tests of veltd's state directory and sysfs readers: a
// temporary directory removed with its content, small file helpers, and a
// wall clock the tests set.
#ifndef VELT_TESTS_AGENT_KOR_TEST_FILES_H_
#define VELT_TESTS_AGENT_KOR_TEST_FILES_H_

#include <stdlib.h>
#include <sys/time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "vx_cu.h"

namespace velt {
namespace agent {
namespace testing_files {

namespace fs = std::filesystem;

class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string tmpl =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/velt-kor-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) path_ = buf.data();
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The names in dir that start with prefix, sorted.
inline std::vector<std::string> namesStartingWith(const std::string& dir,
                                                  const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir)) {
    const std::string name = e.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) out.push_back(name);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The wall clock of the cluster utilities, set by the test; the real clock
// comes back when the object goes.
class FakeWallClock {
 public:
  explicit FakeWallClock(time_t start) {
    now() = start;
    cu_set_clocks_ForTesting(&FakeWallClock::read, nullptr);
  }
  ~FakeWallClock() { cu_set_clocks_ForTesting(nullptr, nullptr); }
  void set(time_t t) { now() = t; }

 private:
  static time_t& now() {
    static time_t t = 0;
    return t;
  }
  static int read(struct timeval* tv) {
    tv->tv_sec = now();
    tv->tv_usec = 0;
    return 0;
  }
};

}  // namespace testing_files
}  // namespace agent
}  // namespace velt

#endif  // VELT_TESTS_AGENT_KOR_TEST_FILES_H_

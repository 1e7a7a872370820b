#include "state_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "vx_cu.h"

namespace velt {
namespace agent {
namespace {

constexpr char kTemporaryInfix[] = ".tmp.";
constexpr char kAsideInfix[] = ".bad.";

std::string errnoText(int err) {
  char buf[128];
  return cu_strerror(err, buf, sizeof buf);
}

void setWhy(std::string* why, const std::string& text) {
  if (why != nullptr) *why = text;
}

int syncDirectory(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  int rc = fsync(fd);
  int err = errno;
  close(fd);
  errno = err;
  return rc;
}

bool writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Parses "<digits>" or "<digits>-<digits>" (a set-aside suffix).
bool parseAsideSuffix(const char* s, uint64_t* time, uint64_t* n) {
  *time = 0;
  *n = 0;
  const char* p = s;
  if (*p < '0' || *p > '9') return false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (*time > (UINT64_MAX - 9) / 10) return false;
    *time = *time * 10 + static_cast<uint64_t>(*p - '0');
  }
  if (*p == 0) return true;
  if (*p != '-') return false;
  ++p;
  if (*p < '0' || *p > '9') return false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (*n > (UINT64_MAX - 9) / 10) return false;
    *n = *n * 10 + static_cast<uint64_t>(*p - '0');
  }
  return *p == 0;
}

struct AsideFile {
  uint64_t time;
  uint64_t n;
  std::string name;
  bool operator<(const AsideFile& o) const { return std::tie(time, n) < std::tie(o.time, o.n); }
};

// The set-aside files of name in dir, oldest first.
std::vector<AsideFile> listAside(const std::string& dir, const std::string& name) {
  std::vector<AsideFile> out;
  const std::string prefix = name + kAsideInfix;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return out;
  while (dirent* e = readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    AsideFile f;
    if (!parseAsideSuffix(e->d_name + prefix.size(), &f.time, &f.n)) continue;
    f.name = e->d_name;
    out.push_back(std::move(f));
  }
  closedir(d);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

int writeStateFile(const std::string& dir, const std::string& name, const std::string& bytes,
                   std::string* why) {
  std::string tmpl = dir + "/" + name + kTemporaryInfix + "XXXXXX";
  std::vector<char> path(tmpl.begin(), tmpl.end());
  path.push_back('\0');
  int fd = mkostemp(path.data(), O_CLOEXEC);
  if (fd < 0) {
    setWhy(why, "cannot create a temporary file in " + dir + ": " + errnoText(errno));
    return -1;
  }
  const std::string target = dir + "/" + name;
  std::string failure;
  if (fchmod(fd, 0644) != 0) {
    failure = "cannot set the mode of " + std::string(path.data()) + ": " + errnoText(errno);
  } else if (!writeAll(fd, bytes)) {
    failure = "cannot write " + std::string(path.data()) + ": " + errnoText(errno);
  } else if (fsync(fd) != 0) {
    failure = "cannot sync " + std::string(path.data()) + ": " + errnoText(errno);
  }
  if (close(fd) != 0 && failure.empty()) {
    failure = "cannot close " + std::string(path.data()) + ": " + errnoText(errno);
  }
  if (failure.empty() && rename(path.data(), target.c_str()) != 0) {
    failure = "cannot rename " + std::string(path.data()) + " to " + target + ": " +
              errnoText(errno);
  }
  if (!failure.empty()) {
    unlink(path.data());
    setWhy(why, failure);
    return -1;
  }
  if (syncDirectory(dir) != 0) {
    setWhy(why, "wrote " + target + " but cannot sync " + dir + ": " + errnoText(errno));
    return -1;
  }
  return 0;
}

StateFileRead readStateFile(const std::string& dir, const std::string& name, size_t maxBytes,
                            std::string* bytes, std::string* why) {
  const std::string path = dir + "/" + name;
  bytes->clear();
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return StateFileRead::kAbsent;
    setWhy(why, "cannot examine " + path + ": " + errnoText(errno));
    return StateFileRead::kError;
  }
  if (!S_ISREG(st.st_mode)) {
    setWhy(why, path + " is not a regular file");
    return StateFileRead::kNotRegular;
  }
  if (static_cast<uint64_t>(st.st_size) > maxBytes) {
    setWhy(why, path + " has " + std::to_string(st.st_size) + " bytes, more than " +
                    std::to_string(maxBytes));
    return StateFileRead::kTooLarge;
  }
  // O_NOFOLLOW and O_NONBLOCK: whatever replaced the file since lstat, a
  // link is not followed and a pipe does not block us.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return StateFileRead::kAbsent;
    if (errno == ELOOP) {
      setWhy(why, path + " is not a regular file");
      return StateFileRead::kNotRegular;
    }
    setWhy(why, "cannot open " + path + ": " + errnoText(errno));
    return StateFileRead::kError;
  }
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    setWhy(why, path + " is not a regular file");
    return StateFileRead::kNotRegular;
  }
  // Read at most one byte past the bound, to see a file that grew.
  bytes->reserve(static_cast<size_t>(st.st_size));
  char chunk[16 * 1024];
  while (bytes->size() <= maxBytes) {
    const size_t room = std::min(sizeof chunk, maxBytes + 1 - bytes->size());
    ssize_t n = read(fd, chunk, room);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      close(fd);
      bytes->clear();
      setWhy(why, "cannot read " + path + ": " + errnoText(err));
      return StateFileRead::kError;
    }
    if (n == 0) break;
    bytes->append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  if (bytes->size() > maxBytes) {
    bytes->clear();
    setWhy(why, path + " has more than " + std::to_string(maxBytes) + " bytes");
    return StateFileRead::kTooLarge;
  }
  return StateFileRead::kRead;
}

int setAsideStateFile(const std::string& dir, const std::string& name, std::string* asideName,
                      std::string* why) {
  struct timeval now {};
  if (cu_gettimeofday_1(&now) != 0) now.tv_sec = 0;
  const uint64_t t = now.tv_sec < 0 ? 0 : static_cast<uint64_t>(now.tv_sec);
  std::vector<AsideFile> existing = listAside(dir, name);
  // The new one is the newest: after the highest number of its second.
  bool taken = false;
  uint64_t n = 0;
  for (const AsideFile& f : existing) {
    if (f.time == t) {
      taken = true;
      n = std::max(n, f.n);
    }
  }
  std::string aside = name + kAsideInfix + std::to_string(t);
  if (taken) aside += "-" + std::to_string(n + 1);
  const std::string from = dir + "/" + name;
  const std::string to = dir + "/" + aside;
  struct stat st;
  if (lstat(to.c_str(), &st) == 0) {
    setWhy(why, "cannot set " + from + " aside: " + to + " exists");
    return -1;
  }
  if (rename(from.c_str(), to.c_str()) != 0) {
    setWhy(why, "cannot rename " + from + " to " + to + ": " + errnoText(errno));
    return -1;
  }
  syncDirectory(dir);
  if (asideName != nullptr) *asideName = aside;
  // Keep the one just made and the newest others, kMaxSetAsideFiles in all.
  existing = listAside(dir, name);
  existing.erase(std::remove_if(existing.begin(), existing.end(),
                                [&](const AsideFile& f) { return f.name == aside; }),
                 existing.end());
  const size_t keepOthers = kMaxSetAsideFiles - 1;
  for (size_t i = 0; i + keepOthers < existing.size(); ++i) {
    const std::string old = dir + "/" + existing[i].name;
    if (lstat(old.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      // A directory set aside is left for the operator: we remove files only.
      continue;
    }
    unlink(old.c_str());
  }
  return 0;
}

void removeStaleTemporaries(const std::string& dir, const std::string& name) {
  const std::string prefix = name + kTemporaryInfix;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> stale;
  while (dirent* e = readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0 &&
        strlen(e->d_name) == prefix.size() + 6) {
      stale.push_back(e->d_name);
    }
  }
  closedir(d);
  for (const std::string& s : stale) unlink((dir + "/" + s).c_str());
}

}  // namespace agent
}  // namespace velt

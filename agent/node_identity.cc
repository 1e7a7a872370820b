#include "node_identity.h"

#include <errno.h>
#include <stdio.h>
#include <sys/random.h>

#include "state_files.h"
#include "vx_cu.h"

namespace velt {
namespace agent {
namespace {

constexpr size_t kNodeIdFileBytes = 17;  // 16 hex digits and a newline

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses 1..16 hex digits exactly (nothing before or after).
bool parseHex(const std::string& text, size_t from, size_t to, uint64_t* out) {
  if (to <= from || to - from > 16) return false;
  uint64_t v = 0;
  for (size_t i = from; i < to; ++i) {
    int d = hexValue(text[i]);
    if (d < 0) return false;
    v = (v << 4) | static_cast<uint64_t>(d);
  }
  *out = v;
  return true;
}

std::string errnoText(int err) {
  char buf[128];
  return cu_strerror(err, buf, sizeof buf);
}

// A new id from the kernel's random source; never 0.
int randomNodeId(uint64_t* id, std::string* why) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    uint64_t v = 0;
    ssize_t n = getrandom(&v, sizeof v, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n != static_cast<ssize_t>(sizeof v)) {
      *why = "cannot get random bytes for a node id: " + errnoText(n < 0 ? errno : EIO);
      return -1;
    }
    if (v != 0) {
      *id = v;
      return 0;
    }
  }
  *why = "cannot get a non-zero random node id";
  return -1;
}

}  // namespace

std::string formatNodeId(uint64_t id) {
  char text[20];
  snprintf(text, sizeof text, "%016llx\n", static_cast<unsigned long long>(id));
  return text;
}

int parseNodeIdOption(const std::string& text, uint64_t* id) {
  size_t from = 0;
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) from = 2;
  uint64_t v = 0;
  if (!parseHex(text, from, text.size(), &v) || v == 0) return -1;
  *id = v;
  return 0;
}

int loadOrCreateNodeId(const std::string& dir, uint64_t override, uint64_t* id,
                       std::string* why) {
  std::string note, problem, bytes;
  *id = 0;
  if (why != nullptr) why->clear();
  removeStaleTemporaries(dir, kNodeIdFileName);
  StateFileRead read = readStateFile(dir, kNodeIdFileName, 4096, &bytes, &problem);
  uint64_t stored = 0;
  bool damaged = false;
  switch (read) {
    case StateFileRead::kAbsent:
      break;
    case StateFileRead::kRead:
      if (bytes.size() != kNodeIdFileBytes || bytes.back() != '\n' ||
          !parseHex(bytes, 0, 16, &stored) || stored == 0) {
        stored = 0;
        damaged = true;
        problem = dir + "/" + kNodeIdFileName + " does not hold 16 hex digits and a newline";
      }
      break;
    case StateFileRead::kNotRegular:
    case StateFileRead::kTooLarge:
      damaged = true;
      break;
    case StateFileRead::kError:
      // Unreadable is not damaged: making a new id now would change the
      // node's identity because of a passing error.
      if (override == 0) {
        if (why != nullptr) *why = problem;
        return -1;
      }
      break;
  }
  if (damaged) {
    std::string aside, failure;
    if (setAsideStateFile(dir, kNodeIdFileName, &aside, &failure) != 0) {
      if (override == 0) {
        if (why != nullptr) *why = problem + "; " + failure;
        return -1;
      }
      note = problem + "; " + failure + "; ";
    } else {
      note = problem + "; set aside as " + aside + "; ";
    }
  }

  if (override != 0) {
    *id = override;
    if (stored == override) return 0;
    std::string failure;
    if (writeStateFile(dir, kNodeIdFileName, formatNodeId(override), &failure) != 0) {
      if (why != nullptr) *why = note + "node id " + formatNodeId(override).substr(0, 16) +
                                 " from the command line not kept: " + failure;
      return -1;
    }
    if (why != nullptr) {
      *why = note + "node id " + formatNodeId(override).substr(0, 16) +
             " from the command line written to " + dir + "/" + kNodeIdFileName;
    }
    return 0;
  }
  if (stored != 0) {
    *id = stored;
    return 0;
  }
  std::string failure;
  if (randomNodeId(id, &failure) != 0) {
    if (why != nullptr) *why = note + failure;
    return -1;
  }
  if (writeStateFile(dir, kNodeIdFileName, formatNodeId(*id), &failure) != 0) {
    if (why != nullptr) {
      *why = note + "new node id " + formatNodeId(*id).substr(0, 16) + " not kept: " + failure;
    }
    return -1;
  }
  if (why != nullptr) {
    *why = note + "new node id " + formatNodeId(*id).substr(0, 16) + " written to " + dir + "/" +
           kNodeIdFileName;
  }
  return 0;
}

}  // namespace agent
}  // namespace velt

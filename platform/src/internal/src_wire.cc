#include "internal/src_wire.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "src_driver.h"

namespace velt_src {
namespace {

uint16_t getU16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t getU32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void putU16(std::string* out, uint16_t v) {
  out->push_back(static_cast<char>(v & 0xff));
  out->push_back(static_cast<char>(v >> 8));
}

void putU32(std::string* out, uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8) out->push_back(static_cast<char>((v >> shift) & 0xff));
}

std::string format(const char* fmt, unsigned long a, unsigned long b = 0) {
  char buf[160];
  snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

bool knownAction(uint32_t action) { return action >= ACT_STATUS && action <= ACT_OTHER; }

// Flags each action accepts; everything else is refused so that a sender of
// a newer or broken version is told instead of half understood.
bool flagsValid(uint32_t action, uint32_t flags) {
  switch (action) {
    case ACT_STATUS:
    case ACT_TRACE_ON:
      return flags <= 1;
    case ACT_STOP:
      return flags >= 1 && flags <= 3;
    default:
      return flags == 0;
  }
}

}  // namespace

int parseRequest(const void* data, size_t len, Request* out, std::string* why) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  if (len < kRequestHeaderSize || p == nullptr) {
    *why = format("datagram of %lu bytes is shorter than the %lu-byte request header", len,
                  kRequestHeaderSize);
    return -1;
  }
  if (len > kMaxRequestSize) {
    *why = format("datagram of %lu bytes exceeds the largest request (%lu bytes)", len,
                  kMaxRequestSize);
    return -1;
  }
  uint32_t magic = getU32(p);
  if (magic != kRequestMagic) {
    *why = format("bad magic 0x%08lx (expected 0x%08lx)", magic, kRequestMagic);
    return -1;
  }
  uint16_t version = getU16(p + 4);
  if (version != kWireVersion) {
    *why = format("unsupported version %lu (this subsystem speaks version %lu)", version,
                  kWireVersion);
    return -1;
  }
  uint16_t action = getU16(p + 6);
  if (!knownAction(action)) {
    *why = format("unknown action %lu", action);
    return -1;
  }
  uint32_t flags = getU32(p + 8);
  if (!flagsValid(action, flags)) {
    *why = format("flags 0x%lx are not valid for action %lu", flags, action);
    return -1;
  }
  uint16_t parm3Len = getU16(p + 18);
  if (parm3Len > kMaxParm3) {
    *why = format("parm3 length %lu exceeds the limit of %lu bytes", parm3Len, kMaxParm3);
    return -1;
  }
  if (len != kRequestHeaderSize + parm3Len) {
    *why = format("length mismatch: header announces %lu bytes of parm3, datagram carries %lu",
                  parm3Len, len - kRequestHeaderSize);
    return -1;
  }
  if (parm3Len > 0 && action != ACT_OTHER) {
    *why = format("parm3 is not accepted with action %lu", action);
    return -1;
  }
  const char* parm3 = reinterpret_cast<const char*>(p + kRequestHeaderSize);
  if (parm3Len > 0 && memchr(parm3, '\0', parm3Len) != nullptr) {
    *why = "parm3 holds a NUL byte (it must be text)";
    return -1;
  }
  out->action = static_cast<Action>(action);
  out->flags = static_cast<int>(flags);
  out->dae_request = static_cast<short>(getU16(p + 12));
  out->parm1 = static_cast<short>(getU16(p + 14));
  out->parm2 = static_cast<short>(getU16(p + 16));
  out->hasParm3 = parm3Len > 0;
  out->parm3.assign(parm3, parm3Len);
  return 0;
}

int encodeRequest(const Request& req, std::string* out, std::string* why) {
  uint32_t action = static_cast<uint32_t>(req.action);
  if (!knownAction(action)) {
    *why = format("unknown action %lu", action);
    return -1;
  }
  if (req.flags < 0 || !flagsValid(action, static_cast<uint32_t>(req.flags))) {
    *why = format("flags 0x%lx are not valid for action %lu", static_cast<unsigned>(req.flags),
                  action);
    return -1;
  }
  size_t parm3Len = req.hasParm3 ? req.parm3.size() : 0;
  if (parm3Len > kMaxParm3) {
    *why = format("parameter 3 is %lu bytes long; the limit is %lu", parm3Len, kMaxParm3);
    return -1;
  }
  if (parm3Len > 0 && req.action != ACT_OTHER) {
    *why = "parameter 3 is only sent with the daemon's own request codes";
    return -1;
  }
  if (parm3Len > 0 && memchr(req.parm3.data(), '\0', parm3Len) != nullptr) {
    *why = "parameter 3 must be text without NUL bytes";
    return -1;
  }
  out->clear();
  out->reserve(kRequestHeaderSize + parm3Len);
  putU32(out, kRequestMagic);
  putU16(out, kWireVersion);
  putU16(out, static_cast<uint16_t>(action));
  putU32(out, static_cast<uint32_t>(req.flags));
  putU16(out, static_cast<uint16_t>(req.dae_request));
  putU16(out, static_cast<uint16_t>(req.parm1));
  putU16(out, static_cast<uint16_t>(req.parm2));
  putU16(out, static_cast<uint16_t>(parm3Len));
  out->append(req.parm3.data(), parm3Len);
  return 0;
}

int parseReply(const void* data, size_t len, Reply* out, std::string* why) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  if (len < kReplyHeaderSize || p == nullptr) {
    *why = format("reply datagram of %lu bytes is shorter than the %lu-byte header", len,
                  kReplyHeaderSize);
    return -1;
  }
  if (len > kMaxReplySize) {
    *why = format("reply datagram of %lu bytes exceeds the largest reply (%lu bytes)", len,
                  kMaxReplySize);
    return -1;
  }
  uint32_t magic = getU32(p);
  if (magic != kReplyMagic) {
    *why = format("bad reply magic 0x%08lx (expected 0x%08lx)", magic, kReplyMagic);
    return -1;
  }
  uint16_t version = getU16(p + 4);
  if (version != kWireVersion) {
    *why = format("unsupported reply version %lu (expected %lu)", version, kWireVersion);
    return -1;
  }
  uint16_t kind = getU16(p + 6);
  int32_t rc = static_cast<int32_t>(getU32(p + 8));
  size_t textLen = len - kReplyHeaderSize;
  switch (kind) {
    case kReplyInform:
    case kReplyError:
      if (rc != 0) {
        *why = format("reply text datagram carries code %lu", static_cast<uint32_t>(rc));
        return -1;
      }
      break;
    case kReplyEnd:
      if (textLen != 0) {
        *why = format("end marker carries %lu bytes of text", textLen);
        return -1;
      }
      break;
    default:
      *why = format("unknown reply kind %lu", kind);
      return -1;
  }
  out->kind = static_cast<ReplyKind>(kind);
  out->rc = rc;
  out->text.assign(reinterpret_cast<const char*>(p + kReplyHeaderSize), textLen);
  return 0;
}

std::string encodeReply(ReplyKind kind, int rc, const char* text, size_t len) {
  if (len > kMaxReplyText) len = kMaxReplyText;
  if (kind == kReplyEnd) len = 0;
  std::string out;
  out.reserve(kReplyHeaderSize + len);
  putU32(&out, kReplyMagic);
  putU16(&out, kWireVersion);
  putU16(&out, kind);
  putU32(&out, static_cast<uint32_t>(rc));
  if (len > 0) out.append(text, len);
  return out;
}

bool takeCredentials(struct msghdr* msg, struct ucred* out) {
  bool found = false;
  for (struct cmsghdr* c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
    if (c->cmsg_level != SOL_SOCKET) continue;
    if (c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len >= CMSG_LEN(sizeof(struct ucred))) {
      memcpy(out, CMSG_DATA(c), sizeof *out);
      found = true;
    } else if (c->cmsg_type == SCM_RIGHTS) {
      size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; ++i) {
        int passed;
        memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof passed);
        close(passed);
      }
    }
  }
  return found;
}

std::string srcDirectory() {
  const char* env = getenv("VELT_SRC_DIR");
  std::string dir = (env != nullptr && env[0] != '\0') ? env : kDefaultSrcDir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

int checkedSocketPath(const char* subsystem, std::string* path, std::string* why) {
  if (subsystem == nullptr || subsystem[0] == '\0') {
    *why = "no subsystem name given";
    return -1;
  }
  if (strchr(subsystem, '/') != nullptr || strcmp(subsystem, ".") == 0 ||
      strcmp(subsystem, "..") == 0) {
    *why = std::string("subsystem name \"") + subsystem + "\" is not a plain file name";
    return -1;
  }
  std::string dir = srcDirectory();
  if (dir[0] != '/') {
    *why = "VELT_SRC_DIR must be an absolute path, not \"" + dir + "\"";
    return -1;
  }
  std::string full = dir == "/" ? dir + subsystem : dir + "/" + subsystem;
  if (full.size() >= sizeof(sockaddr_un::sun_path)) {
    *why = "request socket path " + full + " is too long for a UNIX socket address";
    return -1;
  }
  *path = std::move(full);
  return 0;
}

}  // namespace velt_src

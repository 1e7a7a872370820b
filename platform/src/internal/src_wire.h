// The datagrams of the SRC request socket, private to libsrc (its driver,
// its client and their tests and fuzz target).
//
// A request is one datagram: a 20-byte little-endian header followed by
// parm3_len bytes of parameter 3.
//   offset  size  field
//        0     4  magic        kRequestMagic ("SRCQ")
//        4     2  version      kWireVersion
//        6     2  action       velt_src::Action (1..6)
//        8     4  flags        per action, see checkFlags in src_wire.cc
//       12     2  dae_request  signed
//       14     2  parm1        signed
//       16     2  parm2        signed
//       18     2  parm3_len    0..kMaxParm3; only ACT_OTHER carries parm3
// A reply is a sequence of datagrams: a 12-byte little-endian header and up
// to kMaxReplyText bytes of text.
//   offset  size  field
//        0     4  magic        kReplyMagic ("SRCP")
//        4     2  version      kWireVersion
//        6     2  kind         kReplyInform, kReplyError or kReplyEnd
//        8     4  rc           signed; the request's code on kReplyEnd, else 0
// The end marker carries no text and closes the reply.
// Stateless functions: thread-safe.
#ifndef VELT_PLATFORM_SRC_INTERNAL_SRC_WIRE_H_
#define VELT_PLATFORM_SRC_INTERNAL_SRC_WIRE_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <string>

#include "src_client.h"

namespace velt_src {

constexpr uint32_t kRequestMagic = 0x51435253;  // bytes "SRCQ"
constexpr uint32_t kReplyMagic = 0x50435253;    // bytes "SRCP"
constexpr uint16_t kWireVersion = 1;

constexpr size_t kRequestHeaderSize = 20;
constexpr size_t kMaxRequestSize = kRequestHeaderSize + kMaxParm3;  // 1044
constexpr size_t kReplyHeaderSize = 12;
constexpr size_t kMaxReplyText = 4096;
constexpr size_t kMaxReplySize = kReplyHeaderSize + kMaxReplyText;  // 4108

enum ReplyKind : uint16_t {
  kReplyInform = 1,
  kReplyError = 2,
  kReplyEnd = 3,
};

struct Reply {
  ReplyKind kind = kReplyEnd;
  int rc = 0;
  std::string text;  // at most kMaxReplyText bytes
};

// Checks every field of a request datagram of len bytes. Returns 0 and fills
// *out, or -1 with *why naming the first fault (out is then unspecified).
// Never allocates more than the datagram's own size.
int parseRequest(const void* data, size_t len, Request* out, std::string* why);

// Builds the datagram of req. Returns 0, or -1 with *why when req cannot be
// sent as it is (unknown action, flags out of range, parm3 too long or
// holding a NUL byte, parm3 with an action other than ACT_OTHER).
int encodeRequest(const Request& req, std::string* out, std::string* why);

// Checks one reply datagram. Returns 0 and fills *out, or -1 with *why.
int parseReply(const void* data, size_t len, Reply* out, std::string* why);

// Builds one reply datagram; len must not exceed kMaxReplyText and must be 0
// for kReplyEnd.
std::string encodeReply(ReplyKind kind, int rc, const char* text, size_t len);

// The sender's credentials of a received datagram: fills *out and returns
// true when msg carries them. Descriptors passed along are closed, never
// kept.
bool takeCredentials(struct msghdr* msg, struct ucred* out);

// The socket directory: $VELT_SRC_DIR without trailing slashes, or
// kDefaultSrcDir when it is unset or empty.
std::string srcDirectory();

// The request socket path of subsystem, checked: the name must be non-empty,
// hold no '/', not be "." or "..", the directory must be absolute and the
// whole path must fit a UNIX socket address. Returns 0, or -1 with *why.
int checkedSocketPath(const char* subsystem, std::string* path, std::string* why);

}  // namespace velt_src

#endif  // VELT_PLATFORM_SRC_INTERNAL_SRC_WIRE_H_

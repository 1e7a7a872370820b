// Feeds arbitrary bytes, as a client would send them, through a connected
// socket into the server's reading of client messages: the first message
// (which must be an init message) and whatever follows it. Whatever the
// bytes, the reading must come back with the session either ended or
// holding exactly the values of a well-formed init message at the start of
// the stream, allocating no more than a client message may need.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "NAMClient.h"
#include "NAMServer.h"

namespace {

// What the socket can hold without a reader; longer inputs are cut.
constexpr size_t kMaxInput = 64 * 1024;

// The init message the bytes start with, if they start with a whole one.
bool leadingInit(const uint8_t* data, size_t size, velt_nam_init_lib_msg* out) {
  velt_nam_msg_hdr hdr;
  if (size < sizeof hdr) return false;
  memcpy(&hdr, data, sizeof hdr);
  if (hdr.msg_type != VELT_NAM_LIB_INIT_MSG) return false;
  if (hdr.msg_length < static_cast<int>(sizeof *out) || hdr.msg_length > NAMClient::kMaxLibMsgLength) return false;
  if (size < sizeof hdr + static_cast<size_t>(hdr.msg_length)) return false;
  memcpy(out, data + sizeof hdr, sizeof *out);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NAMServer* server = new NAMServer();  // never started: only its reading is used
  if (size > kMaxInput) size = kMaxInput;
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) abort();
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(pair[1], data + done, size - done);
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  shutdown(pair[1], SHUT_WR);

  // The session owns pair[0]; no thread is started, the server's reading
  // is driven here as its poll loop would drive it.
  NAMClient* client = new NAMClient(pair[0], nullptr);
  bool initSeen = false;
  // Every round reads one message; there are no more than size / 8 + 1.
  for (size_t round = 0; !client->isClientExiting(); ++round) {
    if (round > size / sizeof(velt_nam_msg_hdr) + 1) abort();
    int errCode = 0;
    if (client->isInitMsgReceived()) {
      server->getLibMsg(errCode, client);
    } else if (server->getInitMsg(errCode, nullptr, client) != 0) {
      client->terminateSocketAndThread();
    }
    if (client->isInitMsgReceived()) initSeen = true;
  }

  velt_nam_init_lib_msg expected;
  bool wellFormed = leadingInit(data, size, &expected);
  if (initSeen != wellFormed) abort();
  if (initSeen && (client->getLibVersion() != expected.lib_version || client->getCapability() != expected.capability ||
                   client->getClientPid() != expected.pid))
    abort();
  if (client->sock_fd.load() != -1) abort();  // an ended session has closed its side
  delete client;
  close(pair[1]);
  return 0;
}

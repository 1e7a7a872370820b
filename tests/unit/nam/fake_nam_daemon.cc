#include "fake_nam_daemon.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace nam_test {

namespace {

void put32(std::string* out, size_t at, uint32_t v) { memcpy(&(*out)[at], &v, 4); }
void put64(std::string* out, size_t at, uint64_t v) { memcpy(&(*out)[at], &v, 8); }

// Offsets of an adapter record.
constexpr size_t kRecordSize = 88;
constexpr size_t kNetworkSize = 24;

std::string wireRecord(const WireAdapter& a) {
  std::string rec(kRecordSize, '\0');
  put32(&rec, 0, a.node);
  put32(&rec, 4, a.lid);
  put32(&rec, 8, a.adapterType);
  put32(&rec, 12, 1);  // IPv4
  struct in_addr addr;
  inet_pton(AF_INET, a.ipv4.c_str(), &addr);
  memcpy(&rec[16], &addr, 4);
  if (a.unterminatedName) {
    for (size_t i = 0; i < 16; ++i) rec[32 + i] = a.iface.empty() ? 'x' : a.iface[i % a.iface.size()];
  } else {
    memcpy(&rec[32], a.iface.data(), std::min<size_t>(a.iface.size(), 15));
  }
  memcpy(&rec[48], a.device.data(), std::min<size_t>(a.device.size(), 15));
  // An empty vector's data() may be null, which memcpy must never get.
  if (!a.gid.empty()) memcpy(&rec[64], a.gid.data(), std::min<size_t>(a.gid.size(), 20));
  uint16_t gidLength = static_cast<uint16_t>(std::min<size_t>(a.gid.size(), 20));
  memcpy(&rec[84], &gidLength, 2);
  rec[86] = static_cast<char>(a.spigot);
  rec[87] = static_cast<char>(a.status);
  return rec;
}

}  // namespace

WireAdapter wireAdapter(uint32_t node, const std::string& iface, uint8_t status, const std::string& ipv4) {
  WireAdapter a;
  a.node = node;
  a.iface = iface;
  a.status = status;
  a.ipv4 = ipv4;
  a.device = "/dev/" + iface;
  return a;
}

WireNetwork wireNetwork(uint64_t id, std::vector<WireAdapter> adapters) {
  WireNetwork n;
  n.id = id;
  n.adapters = std::move(adapters);
  return n;
}

std::string wireHeader(int32_t type, int32_t length) {
  std::string h(8, '\0');
  put32(&h, 0, static_cast<uint32_t>(type));
  put32(&h, 4, static_cast<uint32_t>(length));
  return h;
}

std::string wireInitAnswer(uint32_t quickVersion, int32_t maxAdapters, int32_t maxNetworks, int32_t nodeNumber) {
  std::string body(24, '\0');
  uint16_t parts[4] = {static_cast<uint16_t>(quickVersion >> 24), static_cast<uint16_t>((quickVersion >> 16) & 0xff),
                       static_cast<uint16_t>((quickVersion >> 8) & 0xff), static_cast<uint16_t>(quickVersion & 0xff)};
  memcpy(&body[0], parts, 8);
  put32(&body, 8, quickVersion);
  put32(&body, 12, static_cast<uint32_t>(maxAdapters));
  put32(&body, 16, static_cast<uint32_t>(maxNetworks));
  put32(&body, 20, static_cast<uint32_t>(nodeNumber));
  return wireHeader(0, 24) + body;
}

std::string wireUpdate(const std::vector<WireNetwork>& networks, int64_t numNetworks, int64_t numAdapters,
                       int64_t headerLength) {
  size_t adapters = 0;
  for (const WireNetwork& n : networks) adapters += n.adapters.size();
  std::string body(8, '\0');
  put32(&body, 0, static_cast<uint32_t>(numNetworks >= 0 ? numNetworks : static_cast<int64_t>(networks.size())));
  put32(&body, 4, static_cast<uint32_t>(numAdapters >= 0 ? numAdapters : static_cast<int64_t>(adapters)));
  for (const WireNetwork& n : networks) {
    std::string net(kNetworkSize, '\0');
    uint32_t up = 0, down = 0;
    for (const WireAdapter& a : n.adapters) {
      if (a.status == 1) ++up;
      if (a.status == 0) ++down;
    }
    put64(&net, 0, n.id);
    put32(&net, 8, static_cast<uint32_t>(n.numConnect >= 0 ? n.numConnect : static_cast<int64_t>(n.adapters.size())));
    put32(&net, 12, static_cast<uint32_t>(n.numUp >= 0 ? n.numUp : up));
    put32(&net, 16, static_cast<uint32_t>(n.numDown >= 0 ? n.numDown : down));
    body += net;
    for (const WireAdapter& a : n.adapters) body += wireRecord(a);
  }
  body.append(4, '\0');
  int32_t length = static_cast<int32_t>(headerLength >= 0 ? headerLength : static_cast<int64_t>(body.size()));
  return wireHeader(1, length) + body;
}

FakeNamDaemon::FakeNamDaemon() {
  char tmpl[] = "/tmp/nam_test.XXXXXX";
  const char* made = mkdtemp(tmpl);
  if (made == nullptr) abort();
  dir_ = made;
  // Others may search the directory, as in /run; the socket itself is the
  // daemon's, owner only.
  chmod(dir_.c_str(), 0755);
  socketPath_ = dir_ + "/nam.sock";
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, socketPath_.data(), socketPath_.size());
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      chmod(socketPath_.c_str(), 0700) != 0 || listen(listenFd_, 5) != 0) {
    abort();
  }
}

FakeNamDaemon::~FakeNamDaemon() {
  if (server_.joinable()) server_.join();
  hangUp();
  stopListening();
  unlink(socketPath_.c_str());
  rmdir(dir_.c_str());
}

void FakeNamDaemon::serveOne(const std::string& answer) {
  served_ = false;
  server_ = std::thread([this, answer] {
    struct pollfd p = {listenFd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(kBound.count())) != 1) return;
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    clientFd_ = fd;
    std::string got;
    char buf[28];
    while (got.size() < sizeof buf) {
      struct pollfd c = {fd, POLLIN, 0};
      if (poll(&c, 1, static_cast<int>(kBound.count())) != 1) return;
      ssize_t n = read(fd, buf, sizeof buf - got.size());
      if (n <= 0) return;
      got.append(buf, static_cast<size_t>(n));
    }
    initMessage_ = got;
    if (!answer.empty() && !send(answer)) return;
    served_ = true;
  });
}

bool FakeNamDaemon::waitServed() {
  if (server_.joinable()) server_.join();
  return served_;
}

bool FakeNamDaemon::send(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(clientFd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool FakeNamDaemon::clientHungUp() {
  struct pollfd p = {clientFd_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(kBound.count())) != 1) return false;
  char byte;
  return read(clientFd_, &byte, 1) == 0;
}

void FakeNamDaemon::hangUp() {
  if (clientFd_ >= 0) close(clientFd_);
  clientFd_ = -1;
}

void FakeNamDaemon::stopListening() {
  if (listenFd_ >= 0) close(listenFd_);
  listenFd_ = -1;
}

}  // namespace nam_test

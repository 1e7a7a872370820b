// A stand-in for tolkvaskd's client socket in libveltnam's and veltnam's
// tests: a listening UNIX stream socket in a temporary directory (mode
// 0700, as the daemon leaves it), a thread that accepts one client, reads
// its init message and answers, and then the test's own writes on that
// connection. The messages are written byte by byte at the offsets of the
// wire, independently of the library's records. The FakeNamDaemon is owned
// by the test's thread; its serving thread only runs between serveOne()
// and waitServed().
#ifndef VELT_TESTS_UNIT_NAM_FAKE_NAM_DAEMON_H_
#define VELT_TESTS_UNIT_NAM_FAKE_NAM_DAEMON_H_

#include <stdint.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace nam_test {

// Generous bound for what should happen almost at once.
constexpr std::chrono::milliseconds kBound{5000};

// ------------------------------------------------------------ the wire

// One adapter record (88 bytes).
struct WireAdapter {
  uint32_t node = 0;
  std::string iface;           // up to 15 characters (16 with the NUL)
  uint8_t status = 1;          // 0 down, 1 up, 2 unconfigured
  std::string ipv4 = "0.0.0.0";
  std::string device;
  uint32_t lid = 0;
  uint32_t adapterType = 0;
  std::vector<uint8_t> gid;
  uint8_t spigot = 0;
  // Fills all 16 bytes of the interface name with this text, NUL-less.
  bool unterminatedName = false;
};

// One network with its records; the counts are those of the records
// unless overridden (-1: counted).
struct WireNetwork {
  uint64_t id = 0;
  std::vector<WireAdapter> adapters;
  int64_t numConnect = -1;
  int64_t numUp = -1;
  int64_t numDown = -1;
};

// An adapter with its device named after its interface.
WireAdapter wireAdapter(uint32_t node, const std::string& iface, uint8_t status,
                        const std::string& ipv4 = "10.0.0.1");
WireNetwork wireNetwork(uint64_t id, std::vector<WireAdapter> adapters);

// The 8-byte header.
std::string wireHeader(int32_t type, int32_t length);
// The daemon's init answer, header included.
std::string wireInitAnswer(uint32_t quickVersion = 0x02040500, int32_t maxAdapters = 98352,
                           int32_t maxNetworks = 14, int32_t nodeNumber = 1);
// An update message, header included: counts, networks and records in the
// order given, and the 4 zero bytes. Overrides (-1: as the networks say):
// the counts record, and the header's length.
std::string wireUpdate(const std::vector<WireNetwork>& networks, int64_t numNetworks = -1,
                       int64_t numAdapters = -1, int64_t headerLength = -1);

// --------------------------------------------------------------- daemon

class FakeNamDaemon {
 public:
  FakeNamDaemon();
  ~FakeNamDaemon();
  FakeNamDaemon(const FakeNamDaemon&) = delete;
  FakeNamDaemon& operator=(const FakeNamDaemon&) = delete;

  const std::string& socketPath() const { return socketPath_; }
  const std::string& dir() const { return dir_; }

  // Accepts one client on a thread of its own, reads its 28-byte init
  // message and writes answer (nothing when empty).
  void serveOne(const std::string& answer);
  // Waits for that thread. True when a client connected and its init
  // message was read; the connection then belongs to the caller's thread.
  bool waitServed();
  // The client's init message as read (header and body).
  const std::string& initMessage() const { return initMessage_; }

  // Writes bytes on the client's connection; false when it cannot.
  bool send(const std::string& bytes);
  // True when the client closes its end within kBound (nothing else may
  // come first).
  bool clientHungUp();
  // Closes the client's connection.
  void hangUp();
  // Closes the listening socket too (nobody accepts any more).
  void stopListening();

 private:
  std::string dir_;
  std::string socketPath_;
  int listenFd_ = -1;
  int clientFd_ = -1;
  std::thread server_;
  bool served_ = false;
  std::string initMessage_;
};

}  // namespace nam_test

#endif  // VELT_TESTS_UNIT_NAM_FAKE_NAM_DAEMON_H_

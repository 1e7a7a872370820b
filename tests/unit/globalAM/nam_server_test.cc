// The client server and its sessions, as the daemon runs them: the
// controller's own NAMServer thread on a socket in a private directory, and
// raw clients written here with plain send and recv, so that every byte the
// daemon sends is checked where it stands. Changes reach the clients through
// the real publisher (accumulate_NAM_change, reflect_NAM_changes).
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "AMController.h"
#include "NAMClient.h"
#include "NAMServer.h"
#include "TraceStream.h"
#include "sw_adapter_info.h"
#include "monitor_test_support.h"
#include "sw_NAM_calls.h"
#include "table_test_support.h"
#include "veltnam_utils.h"

namespace {

using table_test::makeInterface;

using monitor_test::countOf;
using monitor_test::kBound;
using monitor_test::readFile;
using monitor_test::waitUntil;

constexpr int kNode = 7;
constexpr int kHdr = static_cast<int>(sizeof(velt_nam_msg_hdr));
constexpr int kNet = static_cast<int>(sizeof(velt_nam_connect_net_info));
constexpr int kRec = static_cast<int>(sizeof(velt_nam_connect));

struct sockaddr_un addressOf(const std::string& path) {
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  return addr;
}

// A socket bound at path (not listening); -1 on failure.
int boundSocket(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr = addressOf(path);
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int32_t i32At(const std::string& b, size_t off) {
  int32_t v;
  memcpy(&v, b.data() + off, 4);
  return v;
}
uint32_t u32At(const std::string& b, size_t off) { return static_cast<uint32_t>(i32At(b, off)); }
uint64_t u64At(const std::string& b, size_t off) {
  uint64_t v;
  memcpy(&v, b.data() + off, 8);
  return v;
}

// A row as the adapter table would hold it.
AMAdapterItem makeRow(int node, const char* name, uint64_t net64, bool configured, bool up) {
  AMAdapterItem row;
  row.updateWith(makeInterface(node, name, "10.9.8.7", net64));
  row.isConfiged = configured ? 1 : 0;
  row.isUp = up ? 1 : 0;
  return row;
}

// A client written with plain socket calls.
class RawClient {
 public:
  explicit RawClient(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = addressOf(path);
    connected_ = connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { closeNow(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  int fd() const { return fd_; }
  void closeNow() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  bool sendBytes(const std::string& bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool sendInit(int pid, int libVersion = 0x02040500, int capability = 3) {
    return sendBytes(initMessage(pid, libVersion, capability));
  }
  static std::string header(int type, int length) {
    velt_nam_msg_hdr hdr = {type, length};
    return std::string(reinterpret_cast<const char*>(&hdr), sizeof hdr);
  }
  static std::string initMessage(int pid, int libVersion, int capability) {
    velt_nam_init_lib_msg body;
    memset(&body, 0, sizeof body);
    body.header = {VELT_NAM_LIB_INIT_MSG, static_cast<int32_t>(sizeof body)};
    body.lib_version = libVersion;
    body.capability = capability;
    body.pid = pid;
    return header(VELT_NAM_LIB_INIT_MSG, sizeof body) + std::string(reinterpret_cast<const char*>(&body), sizeof body);
  }

  // Exactly n bytes, or fewer when the stream ended or time ran out.
  std::string recvBytes(size_t n, std::chrono::milliseconds bound = kBound) {
    std::string out;
    auto until = std::chrono::steady_clock::now() + bound;
    while (out.size() < n) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      struct pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      char buf[65536];
      size_t want = std::min(sizeof buf, n - out.size());
      ssize_t got = recv(fd_, buf, want, 0);
      if (got <= 0) {
        eof_ = got == 0;
        break;
      }
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }
  // One whole message (header included); empty when none came.
  std::string recvMessage(std::chrono::milliseconds bound = kBound) {
    std::string hdr = recvBytes(kHdr, bound);
    if (hdr.size() != static_cast<size_t>(kHdr)) return std::string();
    int32_t length = i32At(hdr, 4);
    if (length < 0) return std::string();
    std::string body = recvBytes(static_cast<size_t>(length), bound);
    if (body.size() != static_cast<size_t>(length)) return std::string();
    return hdr + body;
  }
  // True when the stream ends with no byte before it.
  bool endsWithNothing(std::chrono::milliseconds bound = kBound) {
    eof_ = false;
    std::string more = recvBytes(1, bound);
    return more.empty() && eof_;
  }
  // The init answer and the whole table a new client receives.
  bool handshake(int pid, std::string* answer = nullptr, std::string* table = nullptr) {
    if (!sendInit(pid)) return false;
    std::string a = recvMessage();
    std::string t = recvMessage();
    if (answer) *answer = a;
    if (table) *table = t;
    return a.size() == static_cast<size_t>(kHdr + 24) && !t.empty() && i32At(t, 0) == VELT_NAM_DAEMON_UPDATE_MSG;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  bool eof_ = false;
};

// Each test: a controller in the cluster domain type with an empty adapter
// table, a supported cluster version, the trace log in a private directory
// and the controller's client server on a socket there.
class NamServer : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velt-nam-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    logFile_ = dir_ + "/tolkvaskd.log";
    socketPath_ = dir_ + "/nam.sock";
    setenv("TOLKVASK_SERVER_SOCKET", socketPath_.c_str(), 1);

    traceMarket = TraceStream::traceMarket;
    _traceStream.SetGlobalTraceLevel(TraceLevel(0x61F | TRACE_DEBUG));
    resetLogStateForTesting();
    redirectCout(nullptr, logFile_.c_str());
    tracing_ = new TraceClient(traceMarket, 0);
    writer_ = new TraceServer(traceMarket);
    traceServer = writer_;

    setNetIfConfQueryForTesting(table_test::fakeIfconfQuery);
    table_test::setLocalInterfaces({{"lo", "127.0.0.1"}, {"eth0", "10.0.0.1"}});
    resetInterfaceIndexMapForTesting();
    resetNodeIdMapForTesting();
    setVersion(0x02050000);
    myNodeNumber = kNode;
    AMController::domainType = kCLUSTER;
    AMController::_exiting = 0;
    AMController::propagator = nullptr;
    table_test::clearDelta();
    ctl_ = new AMController();
    server_ = ctl_->namServer;
    ASSERT_NE(server_, nullptr);
  }

  void TearDown() override {
    stopServer();
    {
      std::lock_guard<std::mutex> hold(ctl_->namClientLock_);
      ctl_->namClientArray.clear();
    }
    AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
    delete ctl_;
    AMController::pGAdapterCfgTbl = nullptr;
    delete table;
    table_test::clearDelta();
    resetNodeIdMapForTesting();
    setNetIfConfQueryForTesting(nullptr);
    AMController::domainType = kQUIL;
    AMController::_exiting = 0;
    unsetenv("TOLKVASK_SERVER_SOCKET");
    if (HasFailure()) {
      traceMarket->drainAllLogs();
      std::string log = readFile(logFile_);
      if (log.size() > 12000) log = log.substr(log.size() - 12000);
      std::cerr << "---- log tail ----\n" << log << std::endl;
    }
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }

  static void setVersion(uint32_t quick) {
    veltActiveVersion.gs_version = static_cast<uint16_t>(quick >> 24);
    veltActiveVersion.gs_release = static_cast<uint16_t>((quick >> 16) & 0xff);
    veltActiveVersion.gs_modification = static_cast<uint16_t>((quick >> 8) & 0xff);
    veltActiveVersion.gs_fix = static_cast<uint16_t>(quick & 0xff);
    veltActiveVersion.quick_version = quick;
  }

  void startServer() {
    ASSERT_EQ(0, server_->start(nullptr));
    started_ = true;
    ASSERT_TRUE(waitUntil([&] { return server_->isListeningForTesting(); })) << "the server never listened";
  }
  void stopServer() {
    if (!started_) return;
    server_->requestStop();
    server_->join();
    started_ = false;
  }
  // The server thread ended on its own.
  bool serverEnded() {
    return waitUntil([&] { return server_->getThreadState() == GS_THREAD_STOPPED; });
  }

  std::string log() {
    traceMarket->drainAllLogs();
    return readFile(logFile_);
  }
  bool logHas(const std::string& text) {
    return waitUntil([&] { return log().find(text) != std::string::npos; });
  }
  int count(const std::string& text) { return countOf(log(), text); }

  // The session that announced pid, under the list's lock.
  int queuedFor(int pid) {
    std::lock_guard<std::mutex> hold(ctl_->namClientLock_);
    for (NAMClient* c : ctl_->namClientArray)
      if (c->getClientPid() == pid) return c->queuedEvents();
    return -1;
  }
  bool sessionOpen(int pid) {
    std::lock_guard<std::mutex> hold(ctl_->namClientLock_);
    for (NAMClient* c : ctl_->namClientArray)
      if (c->getClientPid() == pid) return c->sock_fd.load() >= 0;
    return false;
  }
  bool noSessionLeft() {
    return waitUntil([&] { return ctl_->getNumberOfClients() == 0 && server_->sessionsForTesting() == 0; });
  }

  // Publishes one batch: the rows, then reflect_NAM_changes.
  void publish(const std::vector<AMAdapterItem>& rows) {
    for (const AMAdapterItem& row : rows) accumulate_NAM_change(const_cast<AMAdapterItem*>(&row));
    reflect_NAM_changes();
  }
  // Publishes a batch of one network that lists no adapter.
  void publishEmptyNetwork(uint64_t id) {
    {
      std::lock_guard<std::mutex> hold(veltnamSyncLock);
      veltnamNetInfoListDelta.emplace(id, new veltnamNetAdaptInfo(id));
    }
    reflect_NAM_changes();
  }

  std::string dir_;
  std::string logFile_;
  std::string socketPath_;
  TraceClient* tracing_ = nullptr;
  TraceServer* writer_ = nullptr;
  AMController* ctl_ = nullptr;
  NAMServer* server_ = nullptr;
  bool started_ = false;
};

// ------------------------------------------------------------- the bytes

TEST_F(NamServer, InitAnswerAndAnUpdateOfOneEmptyNetworkHaveEveryFieldAtItsOffset) {
  startServer();
  RawClient c(socketPath_);
  ASSERT_TRUE(c.connected());
  ASSERT_TRUE(c.sendInit(4242));

  std::string answer = c.recvMessage();
  ASSERT_EQ(32u, answer.size());
  EXPECT_EQ(VELT_NAM_DAEMON_INIT_MSG, i32At(answer, 0));
  EXPECT_EQ(24, i32At(answer, 4));
  // The 12-byte version record as group services reported it.
  EXPECT_EQ(0, memcmp(answer.data() + 8, &veltActiveVersion, 12));
  EXPECT_EQ(0x02050000u, u32At(answer, 8 + 8));
  EXPECT_EQ(98352, i32At(answer, 8 + 12));
  EXPECT_EQ(14, i32At(answer, 8 + 16));
  EXPECT_EQ(kNode, i32At(answer, 8 + 20));

  // The whole table of a daemon that knows no adapter: no network.
  std::string table = c.recvMessage();
  ASSERT_EQ(static_cast<size_t>(kHdr + 12), table.size());
  EXPECT_EQ(VELT_NAM_DAEMON_UPDATE_MSG, i32At(table, 0));
  EXPECT_EQ(12, i32At(table, 4));
  EXPECT_EQ(std::string(12, '\0'), table.substr(8));

  publishEmptyNetwork(0x1122334455667788ull);
  std::string update = c.recvMessage();
  ASSERT_EQ(static_cast<size_t>(kHdr + 36), update.size());
  EXPECT_EQ(VELT_NAM_DAEMON_UPDATE_MSG, i32At(update, 0));
  EXPECT_EQ(36, i32At(update, 4));
  EXPECT_EQ(1, i32At(update, 8 + 0));                           // num_networks
  EXPECT_EQ(0, i32At(update, 8 + 4));                           // num_adapter_info
  EXPECT_EQ(0x1122334455667788ull, u64At(update, 8 + 8 + 0));   // network_id
  EXPECT_EQ(0u, u32At(update, 8 + 8 + 8));                      // num_connect
  EXPECT_EQ(0u, u32At(update, 8 + 8 + 12));                     // num_up
  EXPECT_EQ(0u, u32At(update, 8 + 8 + 16));                     // num_down
  EXPECT_EQ(0u, u32At(update, 8 + 8 + 20));                     // padding
  EXPECT_EQ(std::string(4, '\0'), update.substr(8 + 32));       // the trailing bytes
  EXPECT_TRUE(logHas("got libVersion = 33817856, capability= 3"));
}

TEST_F(NamServer, RecordsOfANetworkComeUpThenDownThenUnconfigWithTheirFieldsInPlace) {
  startServer();
  RawClient c(socketPath_);
  ASSERT_TRUE(c.handshake(100));
  constexpr uint64_t kNetA = 0xA0;
  // Accumulated in the opposite order of the one on the wire.
  publish({makeRow(1, "sxn0", kNetA, false, false), makeRow(2, "sxn0", kNetA, true, false),
           makeRow(4, "sxn0", kNetA, true, true), makeRow(3, "sxn0", kNetA, true, true)});
  std::string m = c.recvMessage();
  ASSERT_EQ(static_cast<size_t>(kHdr + 12 + kNet + 4 * kRec), m.size());
  EXPECT_EQ(12 + kNet + 4 * kRec, i32At(m, 4));
  EXPECT_EQ(1, i32At(m, 8));
  EXPECT_EQ(4, i32At(m, 12));
  EXPECT_EQ(kNetA, u64At(m, 16));
  EXPECT_EQ(4u, u32At(m, 16 + 8));
  EXPECT_EQ(2u, u32At(m, 16 + 12));
  EXPECT_EQ(1u, u32At(m, 16 + 16));
  const size_t first = 16 + kNet;
  const uint32_t nodes[] = {3, 4, 2, 1};
  const uint8_t states[] = {VELT_NAM_CONNECT_UP, VELT_NAM_CONNECT_UP, VELT_NAM_CONNECT_DOWN,
                            VELT_NAM_CONNECT_UNCONFIG};
  for (int i = 0; i < 4; ++i) {
    size_t at = first + static_cast<size_t>(i) * kRec;
    EXPECT_EQ(nodes[i], u32At(m, at + 0)) << i;
    EXPECT_EQ(7u, u32At(m, at + 4)) << i;                        // LID
    EXPECT_EQ(0u, u32At(m, at + 8)) << i;                        // adapter_type
    EXPECT_EQ(VELT_NAM_IPV4, i32At(m, at + 12)) << i;
    EXPECT_EQ(std::string("\x0a\x09\x08\x07", 4), m.substr(at + 16, 4)) << i;
    EXPECT_EQ(std::string("sxn0") + std::string(12, '\0'), m.substr(at + 32, 16)) << i;
    EXPECT_EQ(std::string("/dev/sxn0") + std::string(7, '\0'), m.substr(at + 48, 16)) << i;
    EXPECT_EQ(0, static_cast<uint8_t>(m[at + 84]) | static_cast<uint8_t>(m[at + 85])) << i;
    EXPECT_EQ(1, m[at + 86]) << i;                               // spigot_id
    EXPECT_EQ(states[i], static_cast<uint8_t>(m[at + 87])) << i;
  }
  EXPECT_EQ(std::string(4, '\0'), m.substr(m.size() - 4));
  EXPECT_TRUE(logHas("in packMsg(), _update_msg->num_networks = 1, _update_msg->num_adapter_info= 4"));
  EXPECT_TRUE(logHas("in packMsg(), network_id = a0, num_connect = 4,num_up = 2, num_down = 1"));
}

TEST_F(NamServer, ANewClientReceivesEveryRowOfTheTable) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  table->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", 0xB0));
  table->setAdapterDefinedWithLock(makeInterface(3, "sxn1", "10.0.1.3", 0xB1));
  reflect_NAM_changes();  // no session yet: nobody is sent this batch
  startServer();
  RawClient c(socketPath_);
  std::string full;
  ASSERT_TRUE(c.handshake(101, nullptr, &full));
  ASSERT_EQ(static_cast<size_t>(kHdr + 12 + 2 * kNet + 2 * kRec), full.size());
  EXPECT_EQ(2, i32At(full, 8));
  EXPECT_EQ(2, i32At(full, 12));
  EXPECT_EQ(0xB0u, u64At(full, 16));
  EXPECT_EQ(2u, u32At(full, 16 + kNet));                            // node of the first record
  EXPECT_EQ(0xB1u, u64At(full, 16 + kNet + kRec));
  EXPECT_EQ(3u, u32At(full, 16 + kNet + kRec + kNet));
  EXPECT_TRUE(logHas("packMsg() to send to the lib the initial  adapter table."));
}

TEST_F(NamServer, TheWholeTableIsPackedStraightFromTheRowsByteForByteAsFromACopy) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  // Names whose text order is not the order of their indexes, networks not
  // in the order of the names, and every status.
  const char* names[] = {"sxn0", "sxn2", "sxn10", "sxn1", "ib3"};
  for (int node = 1; node <= 6; ++node) {
    for (int i = 0; i < 5; ++i) {
      std::string ip = "10." + std::to_string(i) + ".0." + std::to_string(node);
      table->setAdapterDefinedWithLock(makeInterface(node, names[i], ip.c_str(), 0xB0 + (4 - i) % 3));
    }
  }
  table_test::Members up;
  for (int node = 1; node <= 6; ++node) {
    for (int i = 0; i < 5; i += 2) up.add(node, _idxFromInterfaceName(names[i]));
  }
  table->updateAdapterStateWithLock(1, up.get(), 0);
  table->setAllAdapterUndefinedOnNodeWithLock(4);
  table->setAllAdapterStoppedOnNodeWithLock(5);
  // Two rows of one node that were never defined: no name, one record.
  table->updateAdapterStateWithLock(1, table_test::Members().add(2, 40).add(2, 41).get(), 0);
  reflect_NAM_changes();

  veltnamNetInfoList copy;
  ASSERT_EQ(0, ctl_->obtainAdapterInfoFromGlobalTable(copy, 0));
  velt_nam_msg_hdr fromCopy = {0, 0};
  char* copyBody = nullptr;
  NAMClient::packMsg(&fromCopy, &copyBody, copy);
  clear_net_adapter_table(copy);
  velt_nam_msg_hdr straight = {0, 0};
  MappedBody body;
  ASSERT_EQ(fromCopy.msg_length, NAMClient::packAdapterTable(table, &straight, &body));
  EXPECT_EQ(fromCopy.msg_type, straight.msg_type);
  EXPECT_EQ(fromCopy.msg_length, straight.msg_length);
  EXPECT_EQ(12 + 4 * kNet + 31 * kRec, straight.msg_length);  // the unnamed row on network 0
  EXPECT_EQ(std::string(copyBody, fromCopy.msg_length), std::string(body.data(), straight.msg_length));
  delete[] copyBody;
}

TEST_F(NamServer, NewClientsShareOnePackingOfTheTableUntilItIsWritten) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  table->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", 0xB0));
  std::shared_ptr<const PackedTable> first = packedWholeTable(table);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(first, packedWholeTable(table));
  // A second client after a change is sent the change, not the old table.
  table->setAdapterDefinedWithLock(makeInterface(3, "sxn0", "10.0.0.3", 0xB0));
  std::shared_ptr<const PackedTable> second = packedWholeTable(table);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  velt_nam_msg_hdr hdr = {0, 0};
  MappedBody fresh;
  ASSERT_EQ(second->hdr.msg_length, NAMClient::packAdapterTable(table, &hdr, &fresh));
  EXPECT_EQ(std::string(fresh.data(), hdr.msg_length), std::string(second->body.data(), second->hdr.msg_length));
  EXPECT_EQ(2, i32At(std::string(second->body.data(), 8), 4));  // two adapters
  // The packing in use by a sender outlives its replacement.
  EXPECT_EQ(1, i32At(std::string(first->body.data(), 8), 4));
  // Another table of the same content is packed on its own.
  AMGlobalAdapterTable other;
  std::shared_ptr<const PackedTable> ofOther = packedWholeTable(&other);
  ASSERT_NE(nullptr, ofOther);
  EXPECT_EQ(0, i32At(std::string(ofOther->body.data(), 8), 4));
  EXPECT_NE(second, packedWholeTable(table));
}

// A down is held back for the down delay so that a short flap never reaches
// clients: a client that connects meanwhile is told the adapter is up, as
// the clients connected before it still are; once the delay has run out a
// new client is told it is down.
TEST_F(NamServer, ANewClientSeesAHeldBackDownAsUpUntilTheDelayRunsOut) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  const int sxn0 = _idxFromInterfaceName("sxn0");
  table->setAdapterDefinedWithLock(makeInterface(2, "sxn0", "10.0.0.2", 0xB0));
  table->setAdapterDefinedWithLock(makeInterface(3, "sxn0", "10.0.0.3", 0xB0));
  table->updateAdapterStateWithLock(1, table_test::Members().add(2, sxn0).add(3, sxn0).get(), 1);
  table->updateAdapterStateWithLock(0, table_test::Members().add(3, sxn0).get(), 1);
  ASSERT_TRUE(table->IsThereADelayedDownEvent());
  startServer();
  auto expectTable = [&](uint32_t up, uint8_t node3) {
    RawClient c(socketPath_);
    std::string full;
    ASSERT_TRUE(c.handshake(101, nullptr, &full));
    ASSERT_EQ(static_cast<size_t>(kHdr + 12 + kNet + 2 * kRec), full.size());
    EXPECT_EQ(2u, u32At(full, 16 + 8));       // num_connect
    EXPECT_EQ(up, u32At(full, 16 + 12));      // num_up
    EXPECT_EQ(2 - up, u32At(full, 16 + 16));  // num_down
    const size_t first = 16 + kNet;
    // Up records come first.
    const size_t of3 = u32At(full, first) == 3 ? first : first + kRec;
    const size_t of2 = of3 == first ? first + kRec : first;
    EXPECT_EQ(3u, u32At(full, of3));
    EXPECT_EQ(node3, static_cast<uint8_t>(full[of3 + 87]));
    EXPECT_EQ(2u, u32At(full, of2));
    EXPECT_EQ(VELT_NAM_CONNECT_UP, static_cast<uint8_t>(full[of2 + 87]));
  };
  expectTable(2, VELT_NAM_CONNECT_UP);
  const int delay = WAIT_PENDING_DELAYED_DOWN_USECS;
  WAIT_PENDING_DELAYED_DOWN_USECS = 0;
  EXPECT_EQ(0, table->processDelayedDownEvents());
  WAIT_PENDING_DELAYED_DOWN_USECS = delay;
  expectTable(1, VELT_NAM_CONNECT_DOWN);
}

// ------------------------------------------------------------ life cycle

TEST_F(NamServer, TheSocketIsOwnerOnly) {
  startServer();
  struct stat st;
  ASSERT_EQ(0, lstat(socketPath_.c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0700u, st.st_mode & 0777u);
  EXPECT_TRUE(logHas("Changing the socket permission to "));
}

TEST_F(NamServer, AClientThatConnectsAndClosesIsRemovedWithNothingSent) {
  startServer();
  {
    RawClient c(socketPath_);
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(logHas("accepted socket and the new socket is "));
  }
  EXPECT_TRUE(noSessionLeft());
  EXPECT_TRUE(logHas(" is disconnected."));
  // A client that only stops sending is ended the same way, and the stream
  // it still reads ends without a byte.
  RawClient half(socketPath_);
  ASSERT_TRUE(half.connected());
  ASSERT_EQ(0, shutdown(half.fd(), SHUT_WR));
  EXPECT_TRUE(half.endsWithNothing());
  EXPECT_TRUE(noSessionLeft());
  EXPECT_EQ(0, count("daemonMsgHdr.msg_type = "));
  EXPECT_EQ(0, count("retCode from getInitMsg() = "));
}

TEST_F(NamServer, AFirstMessageOfAnotherTypeEndsTheClientWithInternalError) {
  startServer();
  RawClient c(socketPath_);
  ASSERT_TRUE(c.sendBytes(RawClient::header(VELT_NAM_LIB_END_MSG, 0)));
  EXPECT_TRUE(c.endsWithNothing());
  EXPECT_TRUE(logHas("It is not init lib msg, but got libMsgHdr.msg_type: 1\n"));
  EXPECT_TRUE(logHas("retCode from getInitMsg() = 19, stop this thread."));
  EXPECT_TRUE(noSessionLeft());

  RawClient other(socketPath_);
  ASSERT_TRUE(other.sendBytes(RawClient::header(7, 20) + std::string(20, 'x')));
  EXPECT_TRUE(other.endsWithNothing());
  EXPECT_TRUE(logHas("It is not init lib msg, but got libMsgHdr.msg_type: 7\n"));
  EXPECT_EQ(0, count("daemonMsgHdr.msg_type = "));
}

TEST_F(NamServer, ALengthOutOfBoundsOrTooShortForAnInitEndsTheClientAndOthersAreServed) {
  startServer();
  for (int length : {1 << 30, -5, NAMClient::kMaxLibMsgLength + 1}) {
    RawClient c(socketPath_);
    ASSERT_TRUE(c.sendBytes(RawClient::header(VELT_NAM_LIB_INIT_MSG, length))) << length;
    EXPECT_TRUE(c.endsWithNothing()) << length;
  }
  RawClient shortInit(socketPath_);
  ASSERT_TRUE(shortInit.sendBytes(RawClient::header(VELT_NAM_LIB_INIT_MSG, 4) + "abcd"));
  EXPECT_TRUE(shortInit.endsWithNothing());
  EXPECT_TRUE(noSessionLeft());
  EXPECT_EQ(4, count("retCode from getInitMsg() = 19, stop this thread."));
  EXPECT_TRUE(logHas("announces 1073741824 body bytes; at most 4096 are accepted"));

  RawClient good(socketPath_);
  EXPECT_TRUE(good.handshake(102));
}

TEST_F(NamServer, HalfAnInitMessageDoesNotHoldUpTheServerForLong) {
  startServer();
  RawClient slow(socketPath_);
  std::string init = RawClient::initMessage(103, 1, 0);
  ASSERT_TRUE(slow.sendBytes(init.substr(0, 10)));
  auto start = std::chrono::steady_clock::now();
  RawClient good(socketPath_);
  EXPECT_TRUE(good.handshake(104));
  EXPECT_TRUE(slow.endsWithNothing());
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, std::chrono::milliseconds(NAMServer::kInitMsgReadTimeoutMs + 3000));
  EXPECT_TRUE(logHas("retCode from getInitMsg() = 110, stop this thread."));
}

TEST_F(NamServer, AClientThatSendsTheEndMessageIsDisconnected) {
  startServer();
  RawClient c(socketPath_);
  ASSERT_TRUE(c.handshake(105));
  ASSERT_TRUE(c.sendBytes(RawClient::header(VELT_NAM_LIB_END_MSG, 0)));
  EXPECT_TRUE(c.endsWithNothing());
  EXPECT_TRUE(noSessionLeft());
  EXPECT_TRUE(logHas("Got the end msg from fd="));
}

TEST_F(NamServer, BelowTwoFourFiveTheInitAnswerComesThenTheSocketClosesAfterThreeSeconds) {
  setVersion(0x02040400);
  startServer();
  RawClient first(socketPath_);
  RawClient second(socketPath_);
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(first.sendInit(106));
  ASSERT_TRUE(second.sendInit(107));
  for (RawClient* c : {&first, &second}) {
    std::string answer = c->recvMessage();
    ASSERT_EQ(32u, answer.size());
    EXPECT_EQ(VELT_NAM_DAEMON_INIT_MSG, i32At(answer, 0));
    EXPECT_EQ(0x02040400u, u32At(answer, 16));
    EXPECT_TRUE(c->endsWithNothing());  // no table follows
  }
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(2900));
  EXPECT_LT(took, std::chrono::milliseconds(8000));
  EXPECT_TRUE(noSessionLeft());
  EXPECT_EQ(2, count("VELTNAMInterface is not supported on Qen for this veltActiveVersion: 2.4.4.0"));
}

TEST_F(NamServer, ExactlyTwoFourFiveZeroIsSupported) {
  setVersion(0x02040500);
  startServer();
  RawClient c(socketPath_);
  std::string answer;
  ASSERT_TRUE(c.handshake(108, &answer));
  EXPECT_EQ(0x02040500u, u32At(answer, 16));
  publishEmptyNetwork(5);
  EXPECT_EQ(static_cast<size_t>(kHdr + 36), c.recvMessage().size());
  EXPECT_EQ(0, count("VELTNAMInterface is not supported"));
}

TEST_F(NamServer, MoreThanNineClientsGrowThePollArrayToTheirNumberPlusTen) {
  startServer();
  EXPECT_EQ(10, server_->pollArraySizeForTesting());
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 9; ++i) {
    clients.emplace_back(new RawClient(socketPath_));
    ASSERT_TRUE(clients.back()->handshake(200 + i)) << i;
  }
  EXPECT_EQ(10, server_->pollArraySizeForTesting());
  // The tenth is served only once the array has room for its socket.
  clients.emplace_back(new RawClient(socketPath_));
  ASSERT_TRUE(clients.back()->handshake(209));
  EXPECT_EQ(20, server_->pollArraySizeForTesting());
  for (int i = 0; i < 3; ++i) {
    clients.emplace_back(new RawClient(socketPath_));
    ASSERT_TRUE(clients.back()->handshake(210 + i)) << i;
  }
  EXPECT_EQ(20, server_->pollArraySizeForTesting());
  publishEmptyNetwork(9);
  for (auto& c : clients) EXPECT_EQ(static_cast<size_t>(kHdr + 36), c->recvMessage().size());
  EXPECT_EQ(13, ctl_->getNumberOfClients());
}

TEST_F(NamServer, TheEleventhQueuedRecordCutsOffAClientThatDoesNotReadAndNoOtherClient) {
  startServer();
  RawClient idle(socketPath_);
  RawClient reader(socketPath_);
  ASSERT_TRUE(idle.handshake(300));
  ASSERT_TRUE(reader.handshake(301));

  // The reader takes every update as it comes, however the stream is cut
  // into reads.
  std::atomic<int> received{0};
  std::atomic<bool> readerFailed{false};
  std::atomic<bool> stop{false};
  std::thread readerThread([&] {
    std::string pending;
    while (!stop.load()) {
      std::string more = reader.recvBytes(65536, std::chrono::milliseconds(100));
      pending += more;
      while (pending.size() >= static_cast<size_t>(kHdr) &&
             pending.size() >= static_cast<size_t>(kHdr) + static_cast<size_t>(i32At(pending, 4))) {
        if (i32At(pending, 0) != VELT_NAM_DAEMON_UPDATE_MSG || i32At(pending, 4) < 0) readerFailed = true;
        pending.erase(0, static_cast<size_t>(kHdr) + static_cast<size_t>(std::max(0, i32At(pending, 4))));
        received.fetch_add(1);
      }
    }
  });

  // Batches of 1000 adapters (88 kB each) fill the idle client's socket
  // within a few; afterwards every batch stays queued for it.
  std::vector<AMAdapterItem> rows;
  for (int node = 1; node <= 1000; ++node) rows.push_back(makeRow(node, "sxn0", 0xC0, true, node % 2 == 0));
  int published = 0;
  while (queuedFor(300) < MAX_QUEUED_EVENTS && published < 60) {
    for (AMAdapterItem& row : rows) row.isUp = row.isUp ? 0 : 1;  // every batch a change
    publish(rows);
    ++published;
    ASSERT_TRUE(sessionOpen(300)) << "cut off after " << published << " batches with " << queuedFor(300)
                                  << " queued";
  }
  ASSERT_EQ(MAX_QUEUED_EVENTS, queuedFor(300)) << "the idle client's socket never filled";
  EXPECT_GT(published, MAX_QUEUED_EVENTS);

  // The eleventh.
  publish(rows);
  ++published;
  EXPECT_TRUE(logHas("eventList.size() > MAX_QUEUED_EVENTS. Wake up the thread and exit."));
  EXPECT_TRUE(waitUntil([&] { return ctl_->getNumberOfClients() == 1; }));
  // What was already written is still delivered, then the stream ends.
  idle.recvBytes(static_cast<size_t>(published) * (kHdr + 12 + kNet + 1000 * kRec));
  EXPECT_TRUE(idle.endsWithNothing());

  // The reader received every batch and goes on receiving.
  EXPECT_TRUE(waitUntil([&] { return received.load() == published; })) << received.load() << " of " << published;
  publishEmptyNetwork(0xD0);
  EXPECT_TRUE(waitUntil([&] { return received.load() == published + 1; }));
  stop = true;
  readerThread.join();
  EXPECT_FALSE(readerFailed.load());
  EXPECT_EQ(1, count("eventList.size() > MAX_QUEUED_EVENTS. Wake up the thread and exit."));
}

TEST_F(NamServer, StoppingEndsEveryClientAndRemovesTheSocketFile) {
  startServer();
  RawClient a(socketPath_);
  RawClient b(socketPath_);
  ASSERT_TRUE(a.handshake(400));
  ASSERT_TRUE(b.connected());
  ASSERT_TRUE(waitUntil([&] { return ctl_->getNumberOfClients() == 2; }));
  stopServer();
  EXPECT_TRUE(a.endsWithNothing());
  EXPECT_TRUE(b.endsWithNothing());
  EXPECT_EQ(0, ctl_->getNumberOfClients());
  struct stat st;
  EXPECT_NE(0, lstat(socketPath_.c_str(), &st));
}

TEST_F(NamServer, TheDaemonsExitStopsTheServerWithoutWaitingForAClient) {
  startServer();
  RawClient a(socketPath_);
  ASSERT_TRUE(a.handshake(401));
  ctl_->RequestToExit();
  EXPECT_TRUE(logHas("NAMServer is going to stop stop"));
  EXPECT_TRUE(a.endsWithNothing());
  struct stat st;
  EXPECT_NE(0, lstat(socketPath_.c_str(), &st));
  // Within the grace time the process is expected to end; a stop ends the
  // wait here instead.
  stopServer();
  EXPECT_EQ(0, count("NAMServer can not stop"));
}

// ---------------------------------------------------- the socket's path

TEST_F(NamServer, AStaleSocketFileFromAnEarlierRunIsRemoved) {
  int old = boundSocket(socketPath_);
  ASSERT_GE(old, 0);
  close(old);  // the file stays, nobody listens
  startServer();
  EXPECT_TRUE(logHas("Removed the stale client socket " + socketPath_));
  RawClient c(socketPath_);
  EXPECT_TRUE(c.handshake(500));
}

TEST_F(NamServer, ASocketAnotherDaemonServesOnIsLeftToIt) {
  int live = boundSocket(socketPath_);
  ASSERT_GE(live, 0);
  ASSERT_EQ(0, listen(live, 5));
  struct stat before;
  ASSERT_EQ(0, lstat(socketPath_.c_str(), &before));
  ASSERT_EQ(0, server_->start(nullptr));
  started_ = true;
  EXPECT_TRUE(serverEnded());
  EXPECT_FALSE(server_->isListeningForTesting());
  EXPECT_TRUE(logHas("Another daemon serves clients on " + socketPath_));
  struct stat after;
  ASSERT_EQ(0, lstat(socketPath_.c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
  RawClient c(socketPath_);  // still the other daemon's
  EXPECT_TRUE(c.connected());
  close(live);
}

TEST_F(NamServer, APathThatIsNotASocketIsLeftAlone) {
  {
    std::ofstream out(socketPath_);
    out << "keep me";
  }
  ASSERT_EQ(0, server_->start(nullptr));
  started_ = true;
  EXPECT_TRUE(serverEnded());
  EXPECT_TRUE(logHas("is taken by a file that is not a socket"));
  EXPECT_EQ("keep me", readFile(socketPath_));
}

TEST_F(NamServer, WithoutTheSocketVariableTheServerEndsCleanly) {
  unsetenv("TOLKVASK_SERVER_SOCKET");
  ASSERT_EQ(0, server_->start(nullptr));
  started_ = true;
  EXPECT_TRUE(serverEnded());
  EXPECT_TRUE(logHas("TOLKVASK_SOCK not specified."));
  EXPECT_FALSE(server_->isListeningForTesting());
}

// ----------------------------------------------------------------- packing

TEST(PackMsg, OneNetworkWithoutAdaptersIsThirtySixBytes) {
  veltnamNetInfoList table;
  table.emplace(3, new veltnamNetAdaptInfo(3));
  velt_nam_msg_hdr hdr = {-1, -1};
  char* body = new char[5];
  EXPECT_EQ(36, NAMClient::packMsg(&hdr, &body, table));  // the old buffer is replaced
  EXPECT_EQ(VELT_NAM_DAEMON_UPDATE_MSG, hdr.msg_type);
  EXPECT_EQ(36, hdr.msg_length);
  std::string b(body, 36);
  EXPECT_EQ(1, i32At(b, 0));
  EXPECT_EQ(0, i32At(b, 4));
  EXPECT_EQ(3u, u64At(b, 8));
  EXPECT_EQ(std::string(20, '\0'), b.substr(16));
  delete[] body;
  clear_net_adapter_table(table);
}

TEST(PackMsg, LengthCountsTwelveForTheCountsAndEveryNetworkAndRecord) {
  veltnamNetInfoList table;
  AMAdapterItem rows[] = {makeRow(5, "ib0", 0x10, true, false), makeRow(6, "ib0", 0x10, true, true),
                          makeRow(5, "ib1", 0x20, false, true)};
  for (AMAdapterItem& row : rows) add_velt_nam_conn_item(table, row);
  velt_nam_msg_hdr hdr;
  char* body = nullptr;
  EXPECT_EQ(12 + 2 * kNet + 3 * kRec, NAMClient::packMsg(&hdr, &body, table));
  std::string b(body, static_cast<size_t>(hdr.msg_length));
  EXPECT_EQ(2, i32At(b, 0));
  EXPECT_EQ(3, i32At(b, 4));
  // Network 0x10: the UP record of node 6 before the DOWN one of node 5.
  EXPECT_EQ(2u, u32At(b, 8 + 8));
  EXPECT_EQ(6u, u32At(b, 8 + kNet));
  EXPECT_EQ(5u, u32At(b, 8 + kNet + kRec));
  EXPECT_EQ(0x20u, u64At(b, 8 + kNet + 2 * kRec));
  EXPECT_EQ(VELT_NAM_CONNECT_UNCONFIG, static_cast<uint8_t>(b[8 + 2 * kNet + 2 * kRec + 87]));
  delete[] body;
  clear_net_adapter_table(table);
}

}  // namespace

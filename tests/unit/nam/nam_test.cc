// libveltnam against a fake daemon that writes the wire's exact bytes:
// the session's start, the full table and the updates merged into the
// client's copy, messages split anywhere, the daemon's departure, refused
// callers, and every kind of message the library must refuse without
// losing what it holds.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fake_nam_daemon.h"
#include "velt_nam_api.h"

namespace nam_test {
namespace {

// One adapter as a copy shows it.
struct Row {
  uint64_t network;
  uint32_t node;
  std::string iface;
  int status;
  bool operator==(const Row& o) const {
    return std::tie(network, node, iface, status) == std::tie(o.network, o.node, o.iface, o.status);
  }
};
// One network's counts as a copy shows them.
struct Counts {
  uint64_t network;
  uint32_t connect;
  uint32_t up;
  uint32_t down;
  bool operator==(const Counts& o) const {
    return std::tie(network, connect, up, down) == std::tie(o.network, o.connect, o.up, o.down);
  }
};
std::ostream& operator<<(std::ostream& os, const Counts& c) {
  return os << "{net " << c.network << ": " << c.connect << ", up " << c.up << ", down " << c.down << "}";
}

std::ostream& operator<<(std::ostream& os, const Row& r) {
  return os << "{net " << r.network << ", node " << r.node << ", " << r.iface << ", status " << r.status << "}";
}

// Short names for the fake daemon's builders.
WireAdapter adapter(uint32_t node, const std::string& iface, uint8_t status, const std::string& ip = "10.0.0.1") {
  return wireAdapter(node, iface, status, ip);
}
WireNetwork network(uint64_t id, std::vector<WireAdapter> adapters) { return wireNetwork(id, std::move(adapters)); }

// A full table of two networks, given in the order the daemon sends it.
std::string fullTable() {
  return wireUpdate({network(0x11, {adapter(1, "sxn0", 1, "10.1.0.1"), adapter(2, "sxn0", 1, "10.1.0.2"),
                                    adapter(3, "sxn0", 0, "10.1.0.3")}),
                     network(0x22, {adapter(1, "ib0", 1, "10.2.0.1"), adapter(2, "ib0", 2, "10.2.0.2")})});
}

std::vector<Row> fullTableRows() {
  return {{0x11, 1, "sxn0", 1}, {0x11, 2, "sxn0", 1}, {0x11, 3, "sxn0", 0}, {0x22, 1, "ib0", 1}, {0x22, 2, "ib0", 2}};
}

// A message with extra bytes at the end of its body, the header's length
// grown to match.
std::string withExtraBody(std::string msg, size_t extra) {
  int32_t length;
  memcpy(&length, &msg[4], 4);
  length += static_cast<int32_t>(extra);
  memcpy(&msg[4], &length, 4);
  return msg + std::string(extra, '\0');
}

class NamSessionTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (velt_nam_handle_t h : handles_) velt_nam_term(h);
  }

  // A session with the fake daemon, which answers with answer.
  velt_nam_handle_t open(const std::string& answer = wireInitAnswer()) {
    daemon_.serveOne(answer);
    velt_nam_handle_t h = 0;
    int rc = velt_nam_init(daemon_.socketPath().c_str(), static_cast<int>(kBound.count()), &h);
    EXPECT_TRUE(daemon_.waitServed());
    EXPECT_EQ(rc, VELT_NAM_OK) << velt_nam_last_error();
    handles_.push_back(h);
    return h;
  }

  // A session that has applied the full table.
  velt_nam_handle_t openWithTable(const std::string& answer = wireInitAnswer()) {
    velt_nam_handle_t h = open(answer);
    EXPECT_TRUE(daemon_.send(fullTable()));
    EXPECT_EQ(updateWhenReadable(h), VELT_NAM_OK) << velt_nam_last_error();
    return h;
  }

  // Waits (bounded) until the session's descriptor is readable, then
  // applies what arrived.
  int updateWhenReadable(velt_nam_handle_t h) {
    int fd = -1;
    EXPECT_EQ(velt_nam_get_fd(h, &fd), VELT_NAM_OK);
    struct pollfd p = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, static_cast<int>(kBound.count())), 1) << "the descriptor never became readable";
    return velt_nam_update(h);
  }

  static std::vector<Row> rows(velt_nam_handle_t h, int node = VELT_NAM_ALL_NODES, int* seq = nullptr) {
    velt_nam_node_adap_info* info = nullptr;
    EXPECT_EQ(velt_nam_get_node_adap_info(h, node, &info), VELT_NAM_OK) << velt_nam_last_error();
    std::vector<Row> out;
    if (info == nullptr) return out;
    const velt_nam_connect* rec = info->adap_info;
    for (int n = 0; n < info->net_info->num_networks; ++n) {
      const velt_nam_connect_net_info& net = info->net_info->connect_info[n];
      for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
        out.push_back({net.network_id, rec->node_number, rec->interface_name, rec->status});
      }
    }
    EXPECT_EQ(static_cast<size_t>(info->num_entries), out.size());
    if (seq != nullptr) *seq = info->mod_seq_num;
    velt_nam_free_node_adap_info(info);
    return out;
  }

  static std::vector<Counts> counts(velt_nam_handle_t h) {
    velt_nam_net_info* nets = nullptr;
    EXPECT_EQ(velt_nam_get_net_info(h, &nets), VELT_NAM_OK) << velt_nam_last_error();
    std::vector<Counts> out;
    if (nets == nullptr) return out;
    for (int n = 0; n < nets->num_networks; ++n) {
      const velt_nam_connect_net_info& c = nets->connect_info[n];
      out.push_back({c.network_id, c.num_connect, c.num_up, c.num_down});
    }
    velt_nam_free_net_info(nets);
    return out;
  }

  static int seqNum(velt_nam_handle_t h) {
    int seq = -1;
    rows(h, VELT_NAM_ALL_NODES, &seq);
    return seq;
  }

  FakeNamDaemon daemon_;
  std::vector<velt_nam_handle_t> handles_;
};

// ---------------------------------------------------------------- start

using NamInit = NamSessionTest;

TEST_F(NamInit, SendsItsInitMessageAndKeepsTheDaemonsConfig) {
  velt_nam_handle_t h = open(wireInitAnswer(0x02050103, 4000, 6, 7));
  const std::string& got = daemon_.initMessage();
  ASSERT_EQ(got.size(), 28u);
  int32_t words[7];
  memcpy(words, got.data(), sizeof words);
  EXPECT_EQ(words[0], VELT_NAM_LIB_INIT_MSG);
  EXPECT_EQ(words[1], 20);  // body length
  EXPECT_EQ(words[2], VELT_NAM_LIB_INIT_MSG);  // the repeated header
  EXPECT_EQ(words[3], 20);
  EXPECT_EQ(words[4], VELT_NAM_LIB_VERSION);
  EXPECT_EQ(words[5], VELT_NAM_LIB_CAPABILITY);
  EXPECT_EQ(words[6], getpid());

  velt_nam_config config;
  ASSERT_EQ(velt_nam_get_config(h, &config), VELT_NAM_OK);
  EXPECT_EQ(config.supported_lib_version, 0x02050103);
  EXPECT_EQ(config.velt_nam_max_adapter_info, 4000);
  EXPECT_EQ(config.velt_nam_max_networks, 6);
  EXPECT_EQ(config.node_number, 7);
  // No table yet.
  int seq = -1;
  EXPECT_TRUE(rows(h, VELT_NAM_ALL_NODES, &seq).empty());
  EXPECT_EQ(seq, 0);
}

TEST_F(NamInit, TakesTheSocketFromTheEnvironment) {
  setenv(VELT_NAM_SOCKET_ENV, daemon_.socketPath().c_str(), 1);
  daemon_.serveOne(wireInitAnswer());
  velt_nam_handle_t h = 0;
  int rc = velt_nam_init(nullptr, static_cast<int>(kBound.count()), &h);
  unsetenv(VELT_NAM_SOCKET_ENV);
  EXPECT_TRUE(daemon_.waitServed());
  ASSERT_EQ(rc, VELT_NAM_OK) << velt_nam_last_error();
  handles_.push_back(h);
}

TEST_F(NamInit, AnActiveVersionOf245IsTheOldestOffered) {
  open(wireInitAnswer(0x02040500));
  daemon_.hangUp();
  daemon_.serveOne(wireInitAnswer(0x020404ff));
  velt_nam_handle_t h = 0;
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), 5000, &h), VELT_NAM_VERSION_NOT_SUPPORTED);
  EXPECT_TRUE(daemon_.waitServed());
  EXPECT_NE(std::string(velt_nam_last_error()).find("2.4.4.255"), std::string::npos) << velt_nam_last_error();
}

TEST_F(NamInit, NoSocketAtThePathIsAFailedConnect) {
  velt_nam_handle_t h = 0;
  std::string path = daemon_.dir() + "/none.sock";
  EXPECT_EQ(velt_nam_init(path.c_str(), 1000, &h), VELT_NAM_SOCKET_CONNECT_FAILED);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(std::string(velt_nam_last_error()).find(path), std::string::npos);
}

TEST_F(NamInit, ASocketNobodyListensOnIsAFailedConnect) {
  daemon_.stopListening();
  velt_nam_handle_t h = 0;
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), 1000, &h), VELT_NAM_SOCKET_CONNECT_FAILED);
  EXPECT_EQ(errno, ECONNREFUSED);
}

// The daemon's socket has mode 0700: root gets in, others get EACCES. As
// root the test connects as nobody from a child process; otherwise it takes
// the socket's permission away from its own user.
TEST_F(NamInit, ACallerTheSocketRefusesIsNotRoot) {
  if (geteuid() != 0) {
    ASSERT_EQ(chmod(daemon_.socketPath().c_str(), 0), 0);
    velt_nam_handle_t h = 0;
    EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), 1000, &h), VELT_NAM_NON_ROOT_CALLER);
    EXPECT_EQ(errno, EACCES);
    return;
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
    velt_nam_handle_t h = 0;
    int rc = velt_nam_init(daemon_.socketPath().c_str(), 1000, &h);
    _exit(rc == VELT_NAM_NON_ROOT_CALLER && errno == EACCES ? 0 : 50 + rc);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "exit 100: could not become nobody; 50+rc otherwise";
}

TEST_F(NamInit, GivesUpWhenNoAnswerComes) {
  daemon_.serveOne("");
  velt_nam_handle_t h = 0;
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), 200, &h), VELT_NAM_SOCKET_INIT_FAILED);
  EXPECT_TRUE(daemon_.waitServed());
}

TEST_F(NamInit, ADaemonThatHangsUpBeforeAnsweringIsGone) {
  daemon_.serveOne("");
  int rc = -1;
  std::thread client([&] {
    velt_nam_handle_t h = 0;
    rc = velt_nam_init(daemon_.socketPath().c_str(), static_cast<int>(kBound.count()), &h);
  });
  EXPECT_TRUE(daemon_.waitServed());
  daemon_.hangUp();
  client.join();
  EXPECT_EQ(rc, VELT_NAM_DAEMON_DISCONNECTED);
}

TEST_F(NamInit, AnAnswerInPiecesIsPutTogether) {
  std::string answer = wireInitAnswer(0x02040500, 100, 3, 9);
  daemon_.serveOne("");
  int rc = -1;
  velt_nam_handle_t h = 0;
  std::thread client([&] { rc = velt_nam_init(daemon_.socketPath().c_str(), static_cast<int>(kBound.count()), &h); });
  ASSERT_TRUE(daemon_.waitServed());
  for (size_t at = 0; at < answer.size(); at += 5) ASSERT_TRUE(daemon_.send(answer.substr(at, 5)));
  client.join();
  ASSERT_EQ(rc, VELT_NAM_OK) << velt_nam_last_error();
  handles_.push_back(h);
  velt_nam_config config;
  ASSERT_EQ(velt_nam_get_config(h, &config), VELT_NAM_OK);
  EXPECT_EQ(config.node_number, 9);
}

TEST_F(NamInit, ChecksItsArguments) {
  velt_nam_handle_t h = 0;
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), 1000, nullptr), VELT_NAM_NULL_INPUT_POINTER);
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), -2, &h), VELT_NAM_INVALID_INPUT_PARAMETER);
  EXPECT_EQ(velt_nam_init(std::string(200, 'x').c_str(), 1000, &h), VELT_NAM_INVALID_INPUT_PARAMETER);
  EXPECT_EQ(velt_nam_init("", 1000, &h), VELT_NAM_INVALID_INPUT_PARAMETER);
}

// Answers the library must refuse: it reports them and opens no session.
struct BadAnswer {
  const char* name;
  std::string bytes;
  const char* why;  // what the reason must say
};
void PrintTo(const BadAnswer& b, std::ostream* os) { *os << b.name; }

class NamInitRefuses : public NamSessionTest, public ::testing::WithParamInterface<BadAnswer> {};

TEST_P(NamInitRefuses, TheAnswer) {
  daemon_.serveOne(GetParam().bytes);
  velt_nam_handle_t h = 0;
  EXPECT_EQ(velt_nam_init(daemon_.socketPath().c_str(), static_cast<int>(kBound.count()), &h),
            VELT_NAM_READSOCK_ERROR);
  EXPECT_TRUE(daemon_.waitServed());
  EXPECT_NE(std::string(velt_nam_last_error()).find(GetParam().why), std::string::npos) << velt_nam_last_error();
}

INSTANTIATE_TEST_SUITE_P(
    Malformed, NamInitRefuses,
    ::testing::Values(BadAnswer{"Short", wireHeader(0, 20) + std::string(20, '\0'), "announces 20 bytes"},
                      BadAnswer{"Long", wireHeader(0, 28) + std::string(28, '\0'), "announces 28 bytes"},
                      BadAnswer{"Huge", wireHeader(0, 1 << 30), "announces 1073741824 bytes"},
                      BadAnswer{"NegativeLength", wireHeader(0, -24), "announces -24 bytes"},
                      BadAnswer{"AnUpdateFirst", fullTable(), "first message has type 1"},
                      BadAnswer{"UnknownType", wireHeader(9, 24) + std::string(24, '\0'), "first message has type 9"},
                      BadAnswer{"NoNetworksAllowed", wireInitAnswer(0x02040500, 100, 0, 1), "limits of 0 networks"},
                      BadAnswer{"NegativeAdapterLimit", wireInitAnswer(0x02040500, -1, 14, 1), "and -1 adapters"}),
    [](const ::testing::TestParamInfo<BadAnswer>& info) { return std::string(info.param.name); });

// -------------------------------------------------------------- updates

using NamUpdate = NamSessionTest;

TEST_F(NamUpdate, NothingArrivedIsNoNewData) {
  velt_nam_handle_t h = open();
  EXPECT_EQ(velt_nam_update(h), VELT_NAM_NO_NEW_DATA);
  EXPECT_EQ(seqNum(h), 0);
}

TEST_F(NamUpdate, TheFullTableIsKeptUpThenDownThenOthers) {
  velt_nam_handle_t h = open();
  // Given DOWN and UNCONFIG first: copies still list UP, DOWN, the others.
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(3, "sxn0", 0), adapter(1, "sxn0", 2),
                                                      adapter(2, "sxn0", 1), adapter(1, "sxn1", 1)})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK) << velt_nam_last_error();
  EXPECT_EQ(rows(h), (std::vector<Row>{{0x11, 1, "sxn1", 1}, {0x11, 2, "sxn0", 1}, {0x11, 3, "sxn0", 0},
                                       {0x11, 1, "sxn0", 2}}));
  EXPECT_EQ(counts(h), (std::vector<Counts>{{0x11, 4, 2, 1}}));
  EXPECT_EQ(seqNum(h), 1);
}

TEST_F(NamUpdate, RecordsCarryEveryField) {
  velt_nam_handle_t h = open();
  WireAdapter a = adapter(5, "ib1", 1, "192.168.7.9");
  a.lid = 0x1234;
  a.adapterType = 3;
  a.device = "mlx5_0";
  a.gid = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0xc9};
  a.spigot = 2;
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0xfe80000000000001ull, {a})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK) << velt_nam_last_error();
  velt_nam_node_adap_info* info = nullptr;
  ASSERT_EQ(velt_nam_get_node_adap_info(h, 5, &info), VELT_NAM_OK);
  ASSERT_EQ(info->num_entries, 1);
  const velt_nam_connect& r = info->adap_info[0];
  EXPECT_EQ(info->net_info->connect_info[0].network_id, 0xfe80000000000001ull);
  EXPECT_EQ(r.node_number, 5u);
  EXPECT_EQ(r.LID, 0x1234u);
  EXPECT_EQ(r.adapter_type, 3u);
  EXPECT_EQ(r.ip_address.type, VELT_NAM_IPV4);
  EXPECT_EQ(ntohl(r.ip_address.address.ipv4.s_addr), 0xc0a80709u);
  EXPECT_STREQ(r.interface_name, "ib1");
  EXPECT_STREQ(r.device_name, "mlx5_0");
  EXPECT_EQ(r.valid_length_in_gid, 10);
  EXPECT_EQ(r.gid[0], 0xfe);
  EXPECT_EQ(r.gid[9], 0xc9);
  EXPECT_EQ(r.spigot_id, 2);
  EXPECT_EQ(r.status, VELT_NAM_CONNECT_UP);
  velt_nam_free_node_adap_info(info);
}

TEST_F(NamUpdate, AChangedAdapterIsReplacedAndUntouchedNetworksKept) {
  velt_nam_handle_t h = openWithTable();
  EXPECT_EQ(rows(h), fullTableRows());
  // Node 2's sxn0 goes down: the update carries that record alone.
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(2, "sxn0", 0)})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(rows(h), (std::vector<Row>{{0x11, 1, "sxn0", 1}, {0x11, 2, "sxn0", 0}, {0x11, 3, "sxn0", 0},
                                       {0x22, 1, "ib0", 1}, {0x22, 2, "ib0", 2}}));
  EXPECT_EQ(counts(h), (std::vector<Counts>{{0x11, 3, 1, 2}, {0x22, 2, 1, 0}}));
  // A new adapter joins its network.
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x22, {adapter(3, "ib0", 1)})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(rows(h).size(), 6u);
  EXPECT_EQ(seqNum(h), 3);
}

TEST_F(NamUpdate, AnAdapterThatMovesLeavesItsOldNetwork) {
  velt_nam_handle_t h = openWithTable();
  // Both of network 0x22's adapters now belong to network 0x33.
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x33, {adapter(1, "ib0", 1), adapter(2, "ib0", 0)})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(rows(h), (std::vector<Row>{{0x11, 1, "sxn0", 1}, {0x11, 2, "sxn0", 1}, {0x11, 3, "sxn0", 0},
                                       {0x33, 1, "ib0", 1}, {0x33, 2, "ib0", 0}}));
}

TEST_F(NamUpdate, ANetworkWithoutAdaptersChangesNothingButTheSequence) {
  velt_nam_handle_t h = openWithTable();
  std::string msg = wireUpdate({network(0x44, {})});
  ASSERT_EQ(msg.size(), 8u + 36u);  // 8 bytes of counts, 24 of network, 4 zero bytes
  ASSERT_TRUE(daemon_.send(msg));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK) << velt_nam_last_error();
  EXPECT_EQ(rows(h), fullTableRows());
  EXPECT_EQ(seqNum(h), 2);
}

TEST_F(NamUpdate, PiecesOfAMessageWaitUntilItIsWhole) {
  velt_nam_handle_t h = open();
  std::string msg = fullTable();
  // Byte by byte through the header and into the body, then the rest
  // but one byte, then that byte.
  for (size_t i = 0; i < 12; ++i) {
    ASSERT_TRUE(daemon_.send(msg.substr(i, 1)));
    ASSERT_EQ(updateWhenReadable(h), VELT_NAM_NO_NEW_DATA) << "after byte " << i;
  }
  ASSERT_TRUE(daemon_.send(msg.substr(12, msg.size() - 13)));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_NO_NEW_DATA);
  EXPECT_TRUE(rows(h).empty());
  ASSERT_TRUE(daemon_.send(msg.substr(msg.size() - 1)));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(rows(h), fullTableRows());
}

TEST_F(NamUpdate, ModSeqNumGrowsByOnePerUpdate) {
  velt_nam_handle_t h = openWithTable();
  EXPECT_EQ(seqNum(h), 1);
  // Two updates in one write, and the start of a third: both whole ones
  // are applied by one call, the third waits.
  std::string third = wireUpdate({network(0x11, {adapter(1, "sxn0", 0)})});
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(3, "sxn0", 1)})}) +
                           wireUpdate({network(0x22, {adapter(2, "ib0", 1)})}) + third.substr(0, 30)));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(seqNum(h), 3);
  ASSERT_TRUE(daemon_.send(third.substr(30)));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(seqNum(h), 4);
  EXPECT_EQ(rows(h), (std::vector<Row>{{0x11, 2, "sxn0", 1}, {0x11, 3, "sxn0", 1}, {0x11, 1, "sxn0", 0},
                                       {0x22, 1, "ib0", 1}, {0x22, 2, "ib0", 1}}));
}

TEST_F(NamUpdate, TheDaemonsDepartureIsReportedAndTheTableKept) {
  velt_nam_handle_t h = openWithTable();
  daemon_.hangUp();
  EXPECT_EQ(updateWhenReadable(h), VELT_NAM_DAEMON_DISCONNECTED);
  EXPECT_EQ(velt_nam_update(h), VELT_NAM_DAEMON_DISCONNECTED);
  EXPECT_EQ(rows(h), fullTableRows());
  EXPECT_EQ(seqNum(h), 1);
}

TEST_F(NamUpdate, UpdatesBeforeTheDepartureComeFirst) {
  velt_nam_handle_t h = openWithTable();
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(3, "sxn0", 1)})})));
  daemon_.hangUp();
  EXPECT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  EXPECT_EQ(seqNum(h), 2);
  EXPECT_EQ(updateWhenReadable(h), VELT_NAM_DAEMON_DISCONNECTED);
}

TEST_F(NamUpdate, ADepartureInTheMiddleOfAMessage) {
  velt_nam_handle_t h = openWithTable();
  std::string msg = wireUpdate({network(0x11, {adapter(3, "sxn0", 1)})});
  ASSERT_TRUE(daemon_.send(msg.substr(0, msg.size() / 2)));
  daemon_.hangUp();
  EXPECT_EQ(updateWhenReadable(h), VELT_NAM_DAEMON_DISCONNECTED);
  EXPECT_NE(std::string(velt_nam_last_error()).find("middle"), std::string::npos) << velt_nam_last_error();
  EXPECT_EQ(rows(h), fullTableRows());
}

// Messages the library must refuse once it holds the full table: the
// table stays as it was and the session stays broken.
struct BadUpdate {
  const char* name;
  std::string bytes;
  const char* why;  // what the reason must say
  std::string answer = wireInitAnswer();
};
void PrintTo(const BadUpdate& b, std::ostream* os) { *os << b.name; }

class NamUpdateRefuses : public NamSessionTest, public ::testing::WithParamInterface<BadUpdate> {};

TEST_P(NamUpdateRefuses, TheMessageAndKeepsTheTable) {
  velt_nam_handle_t h = openWithTable(GetParam().answer);
  ASSERT_TRUE(daemon_.send(GetParam().bytes));
  EXPECT_EQ(updateWhenReadable(h), VELT_NAM_READSOCK_ERROR);
  std::string why = velt_nam_last_error();
  EXPECT_EQ(why.rfind("velt_nam_update: ", 0), 0u) << why;
  EXPECT_NE(why.find(GetParam().why), std::string::npos) << why;
  EXPECT_EQ(rows(h), fullTableRows());
  EXPECT_EQ(seqNum(h), 1);
  // A good update afterwards is not applied: the stream can no longer be
  // trusted.
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(3, "sxn0", 1)})})));
  EXPECT_EQ(velt_nam_update(h), VELT_NAM_READSOCK_ERROR);
  EXPECT_EQ(velt_nam_last_error(), why);
  EXPECT_EQ(seqNum(h), 1);
}

std::vector<WireNetwork> fifteenNetworks() {
  std::vector<WireNetwork> nets;
  for (uint64_t id = 1; id <= 15; ++id) nets.push_back(network(id, {}));
  return nets;
}

WireAdapter unterminated() {
  WireAdapter a = adapter(1, "sxn0", 1);
  a.unterminatedName = true;
  return a;
}

std::string noSurplus() {
  std::string msg = wireUpdate({network(0x11, {adapter(1, "sxn0", 0)})});
  msg.resize(msg.size() - 4);
  int32_t length = static_cast<int32_t>(msg.size() - 8);
  memcpy(&msg[4], &length, 4);
  return msg;
}

std::vector<BadUpdate> badUpdates() {
  WireNetwork tooManyUp = network(0x11, {adapter(1, "sxn0", 1), adapter(2, "sxn0", 0)});
  tooManyUp.numUp = 2;
  WireNetwork claimsMore = network(0x11, {adapter(1, "sxn0", 1), adapter(2, "sxn0", 0)});
  claimsMore.numConnect = 3;
  claimsMore.numDown = 2;
  WireNetwork claimsFewer = network(0x11, {adapter(1, "sxn0", 1), adapter(2, "sxn0", 1)});
  claimsFewer.numConnect = 1;
  claimsFewer.numUp = 1;
  return {
      {"UnknownType", wireHeader(7, 12) + std::string(12, '\0'), "unknown type 7"},
      {"SecondInitAnswer", wireInitAnswer(), "second init answer"},
      {"ShorterThanItsCounts", wireHeader(1, 8) + std::string(8, '\0'), "update of 8 bytes; updates have 12 to"},
      {"NegativeLength", wireHeader(1, -12), "update of -12 bytes"},
      // Refused from the header alone: the body never comes.
      {"LongerThanTheLimitsAllow", wireHeader(1, 12 + 24 * 14 + 88 * 98352 + 1), "update of 8655325 bytes; updates have 12 to 8655324"},
      {"WithoutTheFourSurplusBytes", noSurplus(), "has 120 bytes instead of 124"},
      {"LongerThanItsCounts", withExtraBody(wireUpdate({network(0x11, {adapter(1, "sxn0", 0)})}), 4), "has 128 bytes instead of 124"},
      {"NegativeNetworkCount", wireUpdate({}, 0xffffffff, 0), "counts -1 networks"},
      {"NegativeAdapterCount", wireUpdate({}, 0, 0xffffffff), "and -1 adapters"},
      {"MoreNetworksThanAllowed", wireUpdate(fifteenNetworks()), "15 networks, at most 14"},
      {"MoreAdaptersThanAnnounced",
       wireUpdate({network(0x11, {adapter(1, "sxn0", 1), adapter(2, "sxn0", 1), adapter(3, "sxn0", 1),
                                  adapter(4, "sxn0", 1), adapter(5, "sxn0", 1), adapter(6, "sxn0", 1)})}),
       "6 adapters, at most 5", wireInitAnswer(0x02040500, 5, 14, 1)},
      {"UpAndDownAboveConnected", wireUpdate({tooManyUp}), "counts 2 up and 1 down of 2 adapters"},
      {"NetworkClaimsMoreThanTheUpdate", wireUpdate({claimsMore}), "has 3 adapters, but only 2"},
      {"NetworksHoldFewerThanCounted", wireUpdate({claimsFewer}, -1, 2), "counts 2 adapters, but its networks hold 1"},
      {"AdapterCountAboveWhatNetworksHold",
       withExtraBody(wireUpdate({network(0x11, {adapter(1, "sxn0", 0)})}, -1, 2), 88),
       "counts 2 adapters, but its networks hold 1"},
      {"UnknownStatus", wireUpdate({network(0x11, {adapter(1, "sxn0", 7)})}), "unknown status 7"},
      {"NameWithoutNul", wireUpdate({network(0x11, {unterminated()})}), "without its terminating NUL"},
      {"NetworksOutOfOrder", wireUpdate({network(0x33, {adapter(1, "x0", 1)}), network(0x22, {adapter(1, "y0", 1)})}), "0x0000000000000022 follows network 0x0000000000000033"},
      {"NetworkTwice", wireUpdate({network(0x33, {adapter(1, "x0", 1)}), network(0x33, {adapter(2, "x0", 1)})}), "0x0000000000000033 follows network 0x0000000000000033"},
      // Each message within the limits, the merged table not.
      {"TableWouldPassTheNetworkLimit", wireUpdate({network(0x44, {adapter(1, "sxn3", 1)})}),
       "make the table 3 networks, at most 2", wireInitAnswer(0x02040500, 100, 2, 1)},
      {"TableWouldPassTheAdapterLimit", wireUpdate({network(0x11, {adapter(4, "sxn0", 1)})}),
       "make the table 6 adapters, at most 5", wireInitAnswer(0x02040500, 5, 14, 1)},
  };
}

INSTANTIATE_TEST_SUITE_P(Malformed, NamUpdateRefuses, ::testing::ValuesIn(badUpdates()),
                         [](const ::testing::TestParamInfo<BadUpdate>& info) { return std::string(info.param.name); });

// ------------------------------------------------------------ accessors

using NamAccess = NamSessionTest;

TEST_F(NamAccess, CopiesOfOneNodeHoldItsAdaptersAlone) {
  velt_nam_handle_t h = openWithTable();
  EXPECT_EQ(rows(h, 2), (std::vector<Row>{{0x11, 2, "sxn0", 1}, {0x22, 2, "ib0", 2}}));
  EXPECT_EQ(rows(h, 3), (std::vector<Row>{{0x11, 3, "sxn0", 0}}));
  EXPECT_TRUE(rows(h, 40).empty());
  velt_nam_node_adap_info* info = nullptr;
  ASSERT_EQ(velt_nam_get_node_adap_info(h, 2, &info), VELT_NAM_OK);
  ASSERT_EQ(info->net_info->num_networks, 2);
  EXPECT_EQ(info->net_info->connect_info[1].num_connect, 1u);
  EXPECT_EQ(info->net_info->connect_info[1].num_up, 0u);
  EXPECT_EQ(info->net_info->connect_info[1].num_down, 0u);
  velt_nam_free_node_adap_info(info);
}

TEST_F(NamAccess, CopiesOutliveChangesAndTheSession) {
  velt_nam_handle_t h = openWithTable();
  velt_nam_node_adap_info* info = nullptr;
  ASSERT_EQ(velt_nam_get_node_adap_info(h, VELT_NAM_ALL_NODES, &info), VELT_NAM_OK);
  ASSERT_TRUE(daemon_.send(wireUpdate({network(0x11, {adapter(1, "sxn0", 0)})})));
  ASSERT_EQ(updateWhenReadable(h), VELT_NAM_OK);
  ASSERT_EQ(velt_nam_term(h), VELT_NAM_OK);
  EXPECT_EQ(info->mod_seq_num, 1);
  ASSERT_EQ(info->num_entries, 5);
  EXPECT_EQ(info->adap_info[0].status, VELT_NAM_CONNECT_UP);
  velt_nam_free_node_adap_info(info);
}

TEST_F(NamAccess, EveryCallChecksItsHandleAndPointers) {
  velt_nam_handle_t h = open();
  int fd;
  velt_nam_config config;
  velt_nam_net_info* nets;
  velt_nam_node_adap_info* info;
  EXPECT_EQ(velt_nam_get_fd(h, nullptr), VELT_NAM_NULL_INPUT_POINTER);
  EXPECT_EQ(velt_nam_get_config(h, nullptr), VELT_NAM_NULL_INPUT_POINTER);
  EXPECT_EQ(velt_nam_get_net_info(h, nullptr), VELT_NAM_NULL_INPUT_POINTER);
  EXPECT_EQ(velt_nam_get_node_adap_info(h, VELT_NAM_ALL_NODES, nullptr), VELT_NAM_NULL_INPUT_POINTER);
  EXPECT_EQ(velt_nam_get_node_adap_info(h, -2, &info), VELT_NAM_INVALID_INPUT_PARAMETER);
  ASSERT_EQ(velt_nam_term(h), VELT_NAM_OK);
  for (velt_nam_handle_t bad : {h, velt_nam_handle_t{0}, velt_nam_handle_t{987654321}}) {
    EXPECT_EQ(velt_nam_get_fd(bad, &fd), VELT_NAM_INVALID_HANDLE);
    EXPECT_EQ(velt_nam_update(bad), VELT_NAM_INVALID_HANDLE);
    EXPECT_EQ(velt_nam_get_config(bad, &config), VELT_NAM_INVALID_HANDLE);
    EXPECT_EQ(velt_nam_get_net_info(bad, &nets), VELT_NAM_INVALID_HANDLE);
    EXPECT_EQ(velt_nam_get_node_adap_info(bad, VELT_NAM_ALL_NODES, &info), VELT_NAM_INVALID_HANDLE);
    EXPECT_EQ(velt_nam_term(bad), VELT_NAM_INVALID_HANDLE);
  }
  EXPECT_NE(std::string(velt_nam_last_error()).find("velt_nam_term: no session 987654321"), std::string::npos)
      << velt_nam_last_error();
  velt_nam_free_net_info(nullptr);
  velt_nam_free_node_adap_info(nullptr);
}

TEST_F(NamAccess, TheDaemonSeesTheHangUpOnTerm) {
  velt_nam_handle_t h = open();
  ASSERT_EQ(velt_nam_term(h), VELT_NAM_OK);
  EXPECT_TRUE(daemon_.clientHungUp());
}

// Copies taken while another thread applies updates are each whole: the
// counts always describe the records.
TEST_F(NamAccess, CopiesWhileUpdatingAreConsistent) {
  velt_nam_handle_t h = openWithTable();
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::atomic<int> copies{0};
  std::promise<void> firstCopy;
  std::thread reader([&] {
    while (!done.load()) {
      velt_nam_node_adap_info* info = nullptr;
      if (velt_nam_get_node_adap_info(h, VELT_NAM_ALL_NODES, &info) != VELT_NAM_OK) {
        ++bad;
        continue;
      }
      const velt_nam_connect* rec = info->adap_info;
      for (int n = 0; n < info->net_info->num_networks; ++n) {
        const velt_nam_connect_net_info& net = info->net_info->connect_info[n];
        uint32_t up = 0, down = 0;
        for (uint32_t i = 0; i < net.num_connect; ++i, ++rec) {
          if (rec->status == VELT_NAM_CONNECT_UP) ++up;
          if (rec->status == VELT_NAM_CONNECT_DOWN) ++down;
        }
        if (up != net.num_up || down != net.num_down) ++bad;
      }
      velt_nam_free_node_adap_info(info);
      if (++copies == 1) firstCopy.set_value();
    }
  });
  // The updates begin once the reader is under way.
  bool started = firstCopy.get_future().wait_for(kBound) == std::future_status::ready;
  EXPECT_TRUE(started);
  for (int i = 0; started && i < 200; ++i) {
    if (!daemon_.send(wireUpdate({network(0x11, {adapter(1 + i % 3, "sxn0", static_cast<uint8_t>(i % 2))})})) ||
        updateWhenReadable(h) != VELT_NAM_OK) {
      ADD_FAILURE() << "update " << i << " was not applied: " << velt_nam_last_error();
      break;
    }
  }
  done = true;
  reader.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(copies.load(), 0);
  EXPECT_EQ(seqNum(h), 201);
}

// ---------------------------------------------------------------- texts

TEST(NamRcText, EveryCodeHasItsOwnText) {
  const char* names[] = {"VELT_NAM_OK", "VELT_NAM_AGAIN", "VELT_NAM_CREATE_SOCKET_FAILED",
                         "VELT_NAM_SOCKET_INIT_FAILED", "VELT_NAM_SOCKET_CONNECT_FAILED",
                         "VELT_NAM_SOCKET_BIND_FAILED", "VELT_NAM_READSOCK_ERROR", "VELT_NAM_WRITESOCK_ERROR",
                         "VELT_NAM_POLL_ERROR", "VELT_NAM_VERSION_NOT_SUPPORTED", "VELT_NAM_INVALID_HANDLE",
                         "VELT_NAM_NO_NEW_DATA", "VELT_NAM_NULL_INPUT_POINTER", "VELT_NAM_NOT_INITIALIZED",
                         "VELT_NAM_INVALID_INPUT_PARAMETER", "VELT_NAM_DAEMON_DISCONNECTED",
                         "VELT_NAM_NON_ROOT_CALLER", "VELT_NAM_API_FEATURE_NOT_SUPPORTED",
                         "VELT_NAM_INVALID_CAPABILITY", "VELT_NAM_INTERNAL_ERROR"};
  std::set<std::string> seen;
  for (int rc = VELT_NAM_OK; rc <= VELT_NAM_INTERNAL_ERROR; ++rc) {
    std::string text = velt_nam_rc_text(rc);
    EXPECT_EQ(text.rfind(std::string(names[rc]) + ": ", 0), 0u) << rc << ": " << text;
    EXPECT_GT(text.size(), strlen(names[rc]) + 2);
    EXPECT_TRUE(seen.insert(text).second) << text;
  }
  EXPECT_NE(std::string(velt_nam_rc_text(20)).find("unknown"), std::string::npos);
  EXPECT_NE(std::string(velt_nam_rc_text(-1)).find("unknown"), std::string::npos);
}

}  // namespace
}  // namespace nam_test

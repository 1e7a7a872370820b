// KOR of a real `veltd --standalone`: the node's PeerNode with the id from
// the state directory as veltctl shows it, --node-id, the resources file
// (written, set aside when damaged, served again after a restart), and
// libvx_mc against the agent: queries of both classes, the registrations
// the daemon makes, and the events of an interface that comes and goes in
// a private network namespace (root needed there; skipped visibly
// otherwise).
#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent_harness.h"
#include "kor_store.h"
#include "sanitized.h"
#include "vx_mc.h"

namespace velt_test {
namespace {

using velt::agent::KorStore;

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until check() holds, looking every 20 ms, at most timeoutMs.
bool waitUntil(const std::function<bool()>& check, int timeoutMs = kPromptMs) {
  int64_t end = nowMs() + timeoutMs;
  for (;;) {
    if (check()) return true;
    if (nowMs() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Names in dir that start with prefix.
std::vector<std::string> filesStartingWith(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return out;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0) out.push_back(name);
  }
  closedir(d);
  return out;
}

// "0x" and the 16 digits of the node-id file, as veltctl prints ids.
std::string idAsShown(const std::string& stateDir) {
  std::string text = readFile(stateDir + "/node-id");
  if (text.size() != 17 || text[16] != '\n') return "(node-id file holds \"" + text + "\")";
  return "0x" + text.substr(0, 16);
}

class VeltdKor : public ::testing::Test {
 protected:
  // The resources file as the running agent last wrote it, read without
  // touching the directory (KorStore::load would tidy it up under the
  // agent's feet).
  bool readKept(velt::proto::KorImage* image, std::string* why) {
    std::string path = stateFile(velt::agent::kKorStoreFileName);
    if (!fileExists(path)) {
      *why = "no " + path;
      return false;
    }
    return KorStore::decode(readFile(path), image, why) == 0;
  }

  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
  void TearDown() override {
    EXPECT_TRUE(agent_.stopCleanly()) << "exit status " << agent_.exitStatus() << "\n"
                                      << agent_.err() << agent_.log();
  }
  void startAgent(const std::vector<std::string>& args = {}) {
    ASSERT_TRUE(agent_.startReady(args)) << agent_.err() << agent_.log();
  }
  std::string stateFile(const std::string& name) const { return agent_.stateDir() + "/" + name; }
  // The agent still answers a fresh client.
  void expectServing() {
    CommandResult r = agent_.veltctl({"status"});
    EXPECT_EQ(0, r.status) << r.err;
  }

  TempDir dir_;
  AgentProcess agent_{dir_.path()};
};

// ------------------------------------------------------------ veltctl

TEST_F(VeltdKor, ResourcesListThisNodeWithTheIdOfTheStateDirectory) {
  startAgent();
  std::string id = idAsShown(agent_.stateDir());
  CommandResult r = agent_.veltctl({"resources"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Zel.PeerNode node/1\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("  NodeList         [1]\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("  NodeIDs          [" + id + "]\n")) << r.out;
  // No interface is watched (--interfaces none): nothing of that class.
  EXPECT_EQ(std::string::npos, r.out.find("Zel.NetworkInterface")) << r.out;

  r = agent_.veltctl({"--json", "resources"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("{\"schema_version\":1,\"resources\":[{\"class\":\"Zel.PeerNode\",\"handle\":\"node/1\",\"attributes\":{"
            "\"NodeList\":[1],\"NodeIDs\":[\"" + id + "\"],\"Name\":\"\"}}]}\n",
            r.out);

  r = agent_.veltctl({"resources", "Zel.NetworkInterface"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("no resources\n", r.out);
}

TEST_F(VeltdKor, LogNamesTheIdOnOneLine) {
  startAgent();
  std::string text = readFile(stateFile("node-id"));
  ASSERT_EQ(17u, text.size());
  EXPECT_TRUE(agent_.waitForLog("KOR: this node's id is " + text.substr(0, 16) + "\n"))
      << agent_.log();
  // Every line of the log is a stamped line of its own.
  std::string log = agent_.log();
  size_t start = 0;
  while (start < log.size()) {
    size_t end = log.find('\n', start);
    if (end == std::string::npos) end = log.size();
    std::string line = log.substr(start, end - start);
    EXPECT_NE(std::string::npos, line.find(" veltd[")) << "line \"" << line << "\" in\n" << log;
    start = end + 1;
  }
}

TEST_F(VeltdKor, NodeIdOptionSetsTheIdAndTheFile) {
  startAgent({"--node-id", "0xabc"});
  EXPECT_EQ("0000000000000abc\n", readFile(stateFile("node-id")));
  CommandResult r = agent_.veltctl({"resources", "Zel.PeerNode"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("  NodeIDs          [0x0000000000000abc]\n")) << r.out;
  // Without the option the next start keeps what the file says.
  ASSERT_TRUE(agent_.stopCleanly());
  startAgent();
  r = agent_.veltctl({"--json", "resources", "Zel.PeerNode"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("\"NodeIDs\":[\"0x0000000000000abc\"]")) << r.out;
}

TEST(VeltdKorCommandLine, NodeIdThatIsZeroOrNotHexIsAUsageError) {
  TempDir dir;
  for (const char* bad : {"0", "zz", "0x", "12345678901234567"}) {
    CommandResult r = runCommand({veltdPath(), "--standalone", "--socket", dir.file("a.sock"),
                                  "--state-dir", dir.file("state"), "--node-id", bad},
                                 {}, kPromptMs);
    EXPECT_EQ(2, r.status) << bad << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find("--node-id")) << bad << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find("usage:")) << bad << ": " << r.err;
    EXPECT_FALSE(fileExists(dir.file("state/node-id"))) << bad;
  }
}

// ------------------------------------------------------------ the resources file

TEST_F(VeltdKor, ResourcesFileAppearsInTheStateDirectory) {
  startAgent();
  ASSERT_TRUE(waitUntil([&] { return fileExists(stateFile(velt::agent::kKorStoreFileName)); }))
      << agent_.log();
  velt::proto::KorImage image;
  std::string why;
  ASSERT_TRUE(readKept(&image, &why)) << why;
  ASSERT_EQ(1, image.nodes_size());
  EXPECT_EQ(1u, image.nodes(0).node());
  char hex[24];
  snprintf(hex, sizeof hex, "0x%016llx", static_cast<unsigned long long>(image.nodes(0).node_id()));
  EXPECT_EQ(idAsShown(agent_.stateDir()), hex);
}

TEST_F(VeltdKor, DamagedResourcesFileIsSetAsideAndTheAgentRuns) {
  ASSERT_EQ(0, mkdir(agent_.stateDir().c_str(), 0755));
  {
    std::ofstream out(stateFile(velt::agent::kKorStoreFileName), std::ios::binary);
    out << std::string("\x01\xffgarbage\x00 bytes that are no resources", 38);
  }
  startAgent();
  EXPECT_TRUE(agent_.waitForLog("set aside")) << agent_.log();
  std::vector<std::string> aside =
      filesStartingWith(agent_.stateDir(), std::string(velt::agent::kKorStoreFileName) + ".bad.");
  EXPECT_EQ(1u, aside.size());
  if (!aside.empty()) {
    EXPECT_EQ(38u, readFile(agent_.stateDir() + "/" + aside[0]).size());
  }
  expectServing();
  CommandResult r = agent_.veltctl({"resources"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("Zel.PeerNode node/1\n")) << r.out;
  // A good file takes its place.
  velt::proto::KorImage image;
  std::string why;
  EXPECT_TRUE(waitUntil([&] {
    return readKept(&image, &why);
  })) << why;
}

TEST_F(VeltdKor, KeptInterfacesOfADownNodeAreServedAfterRestarts) {
  // What an earlier run kept: this node and node 4, which is down, with
  // its interface.
  velt::proto::KorImage kept;
  velt::proto::KorNodeImage* self = kept.add_nodes();
  self->set_node(1);
  velt::proto::KorNodeImage* four = kept.add_nodes();
  four->set_node(4);
  four->set_node_id(0x4444);
  four->set_generation(2);
  velt::proto::InterfaceResource* itf = kept.add_interfaces();
  itf->set_node(4);
  itf->set_name("sxn0");
  itf->set_device_name("0000:03:00.0");
  itf->set_ip_address("10.0.1.4");
  itf->set_device_sub_type(1);
  itf->set_logical_id(5);
  itf->set_network_id(0);
  itf->set_network_id64(0x0a000100);
  itf->set_hardware_address("52:54:00:00:00:04");
  itf->set_device_path_name("0000:03:00.0");
  ASSERT_EQ(0, mkdir(agent_.stateDir().c_str(), 0755));
  std::string why;
  ASSERT_EQ(0, KorStore::save(agent_.stateDir(), kept, &why)) << why;

  for (int run = 0; run < 2; ++run) {
    startAgent();
    // The log is appended to: this run's line is the (run + 1)th.
    EXPECT_TRUE(waitUntil([&] {
      return occurrences(agent_.log(), "KOR: 2 nodes and 1 interfaces kept from the last run\n") ==
             static_cast<size_t>(run + 1);
    })) << agent_.log();
    CommandResult r = agent_.veltctl({"resources"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Zel.PeerNode node/1\n")) << "run " << run << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find("Zel.PeerNode node/4\n"
                         "  NodeList         [4]\n"
                         "  NodeIDs          [0x0000000000004444]\n"))
        << "run " << run << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Zel.NetworkInterface node/4/sxn0\n"))
        << "run " << run << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  IPAddress        10.0.1.4\n"))
        << "run " << run << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  NetworkID64      0x000000000a000100\n"))
        << "run " << run << r.out;
    // The agent's own id joined what was kept; node 4's stayed.
    ASSERT_TRUE(agent_.stopCleanly()) << agent_.log();
    velt::proto::KorImage saved;
    ASSERT_EQ(KorStore::Load::kLoaded, KorStore::load(agent_.stateDir(), &saved, &why)) << why;
    ASSERT_EQ(2, saved.nodes_size());
    EXPECT_NE(0u, saved.nodes(0).node_id());
    EXPECT_EQ(0x4444u, saved.nodes(1).node_id());
    ASSERT_EQ(1, saved.interfaces_size());
    EXPECT_EQ(itf->SerializeAsString(), saved.interfaces(0).SerializeAsString());
  }
}

// Kept resources of 150 down nodes with 64 interfaces each, with long
// device paths: the interfaces' answer is larger than one page (4 MiB).
velt::proto::KorImage largeImage(size_t* interfaces) {
  velt::proto::KorImage image;
  *interfaces = 0;
  for (uint32_t node = 1; node <= 151; ++node) {
    velt::proto::KorNodeImage* n = image.add_nodes();
    n->set_node(node);
    if (node == 1) continue;   // this agent's own node publishes nothing here
    n->set_node_id(0x10000 + node);
    n->set_generation(1);
    std::vector<std::string> names;
    for (int i = 0; i < 64; ++i) names.push_back("eth" + std::to_string(i));
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      velt::proto::InterfaceResource* r = image.add_interfaces();
      r->set_node(node);
      r->set_name(name);
      r->set_device_name(std::string(60, 'd'));
      r->set_ip_address("10." + std::to_string(node) + ".0." + name.substr(3));
      r->set_hardware_address("52:54:00:00:00:01");
      r->set_device_path_name("/devices/" + std::string(240, 'p'));
      ++*interfaces;
    }
  }
  return image;
}

TEST_F(VeltdKor, ResourcesLargerThanOnePageAreListedWhole) {
  size_t interfaces = 0;
  velt::proto::KorImage kept = largeImage(&interfaces);
  ASSERT_EQ(0, mkdir(agent_.stateDir().c_str(), 0755));
  std::string why;
  ASSERT_EQ(0, KorStore::save(agent_.stateDir(), kept, &why)) << why;
  startAgent();
  // Listing this many resources takes the agent and veltctl several times
  // longer in a sanitizer build: both get a minute there.
  std::vector<std::string> slow;
  if (velt_test::kSanitized) slow = {"--timeout", "60"};
  const int boundMs = velt_test::kSanitized ? 65 * 1000 : kPromptMs * 2;
  auto listing = [&](std::vector<std::string> args) {
    args.insert(args.begin(), slow.begin(), slow.end());
    return agent_.veltctl(args, boundMs);
  };
  CommandResult r = listing({"--json", "resources", "Zel.NetworkInterface"});
  ASSERT_EQ(0, r.status) << r.err;
  ASSERT_GT(r.out.size(), 4u * 1024 * 1024);   // more than one page indeed
  EXPECT_EQ(interfaces, occurrences(r.out, "{\"class\":\"Zel.NetworkInterface\""));
  EXPECT_NE(std::string::npos, r.out.find("\"handle\":\"node/151/eth9\"")) << r.out.substr(0, 200);
  r = listing({"resources"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(151u, occurrences(r.out, "Zel.PeerNode node/"));
  EXPECT_EQ(interfaces, occurrences(r.out, "Zel.NetworkInterface node/"));
}

// ------------------------------------------------------------ libvx_mc

// What the callbacks of one session were told, in order.
struct Heard {
  struct Event {
    bool isClass = false;
    mc_reg_id_t reg = MC_REG_ID_NONE;
    std::string className;
    std::string event;   // class events: the event's name
    std::string handle;
    uint32_t flags = 0;
    std::string ip;      // resource events: IPAddress, when carried
    uint32_t attrCount = 0;
    uint64_t sequence = 0;
  };
  std::vector<Event> events;

  static void classCb(mc_sess_hndl_t, const mc_class_event_t* e, void* arg) {
    Event got;
    got.isClass = true;
    got.reg = e->reg_id;
    got.className = e->class_name;
    got.event = e->event_name;
    got.handle = e->rsrc_handle;
    got.sequence = e->sequence;
    static_cast<Heard*>(arg)->events.push_back(got);
  }
  static void resourceCb(mc_sess_hndl_t, const mc_event_t* e, void* arg) {
    Event got;
    got.reg = e->reg_id;
    got.className = e->class_name;
    got.handle = e->rsrc_handle;
    got.flags = e->mc_event_flags;
    got.attrCount = e->attr_count;
    got.sequence = e->sequence;
    for (uint32_t i = 0; i < e->attr_count; ++i) {
      if (strcmp(e->attrs[i].name, "IPAddress") == 0 && e->attrs[i].type == VX_CHAR_PTR) {
        got.ip = e->attrs[i].value.string;
      }
    }
    static_cast<Heard*>(arg)->events.push_back(got);
  }
  // The index of the first event at or after from that matches; -1 if none.
  int find(size_t from, const std::function<bool(const Event&)>& match) const {
    for (size_t i = from; i < events.size(); ++i) {
      if (match(events[i])) return static_cast<int>(i);
    }
    return -1;
  }
};

// The attributes the daemon asks for with each interface event.
const char* const kInterfaceAttributes[] = {
    "Name",      "NodeIDs",     "DeviceName", "IPAddress",       "DeviceSubType", "LogicalID",
    "NetworkID", "NetworkID64", "PortID",     "HardwareAddress", "DevicePathName",
};
constexpr uint32_t kInterfaceAttributeCount = 11;

class VeltdKorClient : public VeltdKor {
 protected:
  void TearDown() override {
    if (session_ != 0) {
      EXPECT_EQ(MC_OK, mc_end_session(session_));
    }
    VeltdKor::TearDown();
  }
  void openSession() {
    ASSERT_EQ(0, setenv("VELT_AGENT_SOCKET", agent_.socketPath().c_str(), 1));
    ASSERT_EQ(MC_OK, mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL,
                                      &session_));
    ASSERT_NE(0u, session_);
    // The agent announces its own node through its replica a moment after
    // it starts serving; what the tests register comes after that.
    ASSERT_TRUE(waitForOwnNode()) << agent_.log();
  }
  bool waitForOwnNode() {
    int64_t end = nowMs() + kPromptMs;
    for (;;) {
      std::vector<std::string> nodes = queryHandles(KOR_CLASS_PEER_NODE, 3);
      if (std::find(nodes.begin(), nodes.end(), "node/1") != nodes.end()) return true;
      if (nowMs() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  // Registers what the daemon registers: the class events of both classes
  // and the interfaces' ConfigChanged with their attributes.
  void registerAsTheDaemonDoes() {
    const struct {
      const char* cls;
      const char* event;
    } classEvents[] = {
        {KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED},
        {KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED},
        {KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED},
        {KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_UNDEFINED},
    };
    for (const auto& c : classEvents) {
      mc_reg_rsp_t* rsp = nullptr;
      ASSERT_EQ(MC_OK, mc_reg_class_event_bp(session_, &rsp, c.cls, c.event, &Heard::classCb,
                                             &heard_))
          << c.cls << " " << c.event;
      ASSERT_NE(nullptr, rsp);
      EXPECT_EQ(static_cast<uint32_t>(MC_OK), rsp->mc_errnum);
      EXPECT_NE(MC_REG_ID_NONE, rsp->reg_id);
      regs_.push_back(rsp->reg_id);
      mc_free_response(rsp);
    }
    mc_reg_rsp_t* rsp = nullptr;
    ASSERT_EQ(MC_OK, mc_reg_event_bp(session_, &rsp, 0, KOR_CLASS_NETWORK_INTERFACE, nullptr,
                                     const_cast<const char**>(kInterfaceAttributes),
                                     kInterfaceAttributeCount, KOR_CONDITION_CONFIG_CHANGED,
                                     &Heard::resourceCb, &heard_));
    ASSERT_NE(nullptr, rsp);
    EXPECT_EQ(static_cast<uint32_t>(MC_OK), rsp->mc_errnum);
    EXPECT_NE(MC_REG_ID_NONE, rsp->reg_id);
    regs_.push_back(rsp->reg_id);
    mc_free_response(rsp);
    for (size_t i = 0; i < regs_.size(); ++i) {
      for (size_t j = i + 1; j < regs_.size(); ++j) EXPECT_NE(regs_[i], regs_[j]);
    }
  }
  // Dispatches what arrives until until() holds or timeoutMs passed.
  bool dispatchUntil(const std::function<bool()>& until, int timeoutMs = kPromptMs) {
    int fd = -1;
    if (mc_get_descriptor(session_, &fd) != MC_OK) return false;
    int64_t end = nowMs() + timeoutMs;
    for (;;) {
      int rc = mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT);
      if (rc != MC_OK) {
        ADD_FAILURE() << "mc_dispatch: " << rc;
        return false;
      }
      if (until()) return true;
      int left = static_cast<int>(end - nowMs());
      if (left <= 0) return false;
      struct pollfd p = {fd, POLLIN, 0};
      poll(&p, 1, std::min(left, 200));
    }
  }
  // A query's answer as handles; the responses are given back.
  std::vector<std::string> queryHandles(const char* cls, uint32_t expectedAttributes) {
    mc_query_rsp_t* rsp = nullptr;
    uint32_t count = 0;
    std::vector<std::string> out;
    int rc = mc_query_p_select_bp(session_, &rsp, &count, cls, nullptr, nullptr, 0);
    EXPECT_EQ(MC_OK, rc) << cls;
    if (rc != MC_OK) return out;
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(static_cast<uint32_t>(MC_OK), rsp[i].mc_errnum);
      EXPECT_EQ(expectedAttributes, rsp[i].attr_count) << rsp[i].rsrc_handle;
      out.push_back(rsp[i].rsrc_handle);
    }
    mc_free_response(rsp);
    return out;
  }

  mc_sess_hndl_t session_ = 0;
  Heard heard_;
  std::vector<mc_reg_id_t> regs_;
};

TEST_F(VeltdKorClient, QueriesOfBothClassesAndTheDaemonsRegistrationsAreAnswered) {
  startAgent();
  openSession();
  EXPECT_EQ(std::vector<std::string>{"node/1"}, queryHandles(KOR_CLASS_PEER_NODE, 3));
  EXPECT_TRUE(queryHandles(KOR_CLASS_NETWORK_INTERFACE, 11).empty());

  // The PeerNode's id with its type, and only the attribute asked for.
  const char* names[] = {"NodeIDs"};
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(MC_OK, mc_query_p_select_bp(session_, &rsp, &count, KOR_CLASS_PEER_NODE, nullptr,
                                        names, 1));
  ASSERT_EQ(1u, count);
  ASSERT_EQ(1u, rsp[0].attr_count);
  EXPECT_STREQ("NodeIDs", rsp[0].attrs[0].name);
  ASSERT_EQ(VX_UINT64_ARRAY, rsp[0].attrs[0].type);
  ASSERT_EQ(1u, rsp[0].attrs[0].value.array->count);
  char hex[24];
  snprintf(hex, sizeof hex, "0x%016llx",
           static_cast<unsigned long long>(rsp[0].attrs[0].value.array->elements.uint64s[0]));
  EXPECT_EQ(idAsShown(agent_.stateDir()), hex);
  mc_free_response(rsp);

  // No such class.
  rsp = nullptr;
  EXPECT_EQ(MC_ENOCLASS,
            mc_query_p_select_bp(session_, &rsp, &count, "Zel.Nothing", nullptr, nullptr, 0));
  mc_free_response(rsp);

  registerAsTheDaemonDoes();
  ASSERT_EQ(5u, regs_.size());
  // Nothing happens in a standalone agent without interfaces.
  EXPECT_FALSE(dispatchUntil([&] { return !heard_.events.empty(); }, 300));
  // Each registration ends once.
  for (mc_reg_id_t reg : regs_) {
    mc_reg_rsp_t* un = nullptr;
    EXPECT_EQ(MC_OK, mc_unreg_event_bp(session_, &un, reg));
    mc_free_response(un);
  }
}

TEST_F(VeltdKorClient, AnswerLargerThanOnePageIsJoinedByTheLibrary) {
  size_t interfaces = 0;
  velt::proto::KorImage kept = largeImage(&interfaces);
  ASSERT_EQ(0, mkdir(agent_.stateDir().c_str(), 0755));
  std::string why;
  ASSERT_EQ(0, KorStore::save(agent_.stateDir(), kept, &why)) << why;
  startAgent();
  openSession();
  std::vector<std::string> handles = queryHandles(KOR_CLASS_NETWORK_INTERFACE, 11);
  ASSERT_EQ(interfaces, handles.size());
  // In the agent's order, the same as the kept file's.
  for (size_t i = 0; i < handles.size(); ++i) {
    const velt::proto::InterfaceResource& r = kept.interfaces(static_cast<int>(i));
    ASSERT_EQ("node/" + std::to_string(r.node()) + "/" + r.name(), handles[i]) << i;
  }
  EXPECT_EQ(151u, queryHandles(KOR_CLASS_PEER_NODE, 3).size());
}

// An interface comes and goes in a network namespace of the test's own.
class VeltdKorInterfaces : public VeltdKorClient {
 protected:
  static std::string ipTool() {
    for (const char* p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
      if (access(p, X_OK) == 0) return p;
    }
    return "";
  }
  CommandResult ip(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ipTool()};
    argv.insert(argv.end(), args.begin(), args.end());
    return runCommand(argv, {}, kPromptMs);
  }
  void SetUp() override {
    VeltdKorClient::SetUp();
    std::string why;
    if (geteuid() != 0) {
      why = "needs root for a private network namespace";
    } else if (ipTool().empty()) {
      why = "no ip(8) tool here";
    } else if (unshare(CLONE_NEWNET) != 0) {
      why = std::string("cannot make a private network namespace: ") + strerror(errno);
    }
    if (!why.empty()) {
      fprintf(stderr, "SKIP: %s\n", why.c_str());
      GTEST_SKIP() << "SKIP: " << why;
    }
  }
  // Adds sxn3: a dummy interface where the kernel has them, else one end
  // of a veth pair. Returns false (with the reason) when neither works.
  bool addInterface(std::string* why) {
    CommandResult r = ip({"link", "add", "sxn3", "type", "dummy"});
    if (r.status != 0) {
      fprintf(stderr, "note: this kernel makes no dummy interfaces; one end of a veth pair "
                      "stands in\n");
      r = ip({"link", "add", "sxn3", "type", "veth", "peer", "name", "sxn3p"});
      if (r.status != 0) {
        *why = "cannot add an interface: " + r.err;
        return false;
      }
      ip({"link", "set", "sxn3p", "up"});
    }
    for (const std::vector<std::string>& step :
         {std::vector<std::string>{"addr", "add", "10.0.3.1/24", "dev", "sxn3"},
          std::vector<std::string>{"link", "set", "sxn3", "up"}}) {
      r = ip(step);
      if (r.status != 0) {
        *why = "ip " + step[0] + " failed: " + r.err;
        return false;
      }
    }
    return true;
  }
};

TEST_F(VeltdKorInterfaces, InterfaceThatComesAndGoesIsDefinedThenUndefinedThroughMcDispatch) {
  startAgent({"--interfaces", "sxn*"});
  openSession();
  registerAsTheDaemonDoes();
  ASSERT_EQ(5u, regs_.size());
  const mc_reg_id_t ifDefined = regs_[2], ifUndefined = regs_[3], ifChanged = regs_[4];

  std::string why;
  if (!addInterface(&why)) {
    fprintf(stderr, "SKIP: %s\n", why.c_str());
    GTEST_SKIP() << "SKIP: " << why;
  }
  const std::string handle = "node/1/sxn3";
  auto definedAt = [&] {
    return heard_.find(0, [&](const Heard::Event& e) {
      return e.isClass && e.reg == ifDefined && e.event == KOR_EVENT_DEFINED && e.handle == handle;
    });
  };
  auto changedWithAddress = [&](size_t from) {
    return heard_.find(from, [&](const Heard::Event& e) {
      return !e.isClass && e.reg == ifChanged && e.handle == handle && e.flags == 0 &&
             e.ip == "10.0.3.1";
    });
  };
  ASSERT_TRUE(dispatchUntil([&] {
    int d = definedAt();
    return d >= 0 && changedWithAddress(static_cast<size_t>(d) + 1) >= 0;
  })) << "events heard: " << heard_.events.size() << "\n" << agent_.log();
  int defined = definedAt();
  const Heard::Event& def = heard_.events[static_cast<size_t>(defined)];
  EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, def.className);
  const Heard::Event& changed =
      heard_.events[static_cast<size_t>(changedWithAddress(static_cast<size_t>(defined) + 1))];
  EXPECT_EQ(KOR_CLASS_NETWORK_INTERFACE, changed.className);
  EXPECT_EQ(kInterfaceAttributeCount, changed.attrCount);
  EXPECT_GT(changed.sequence, def.sequence);
  EXPECT_EQ(std::vector<std::string>{handle}, queryHandles(KOR_CLASS_NETWORK_INTERFACE, 11));

  size_t mark = heard_.events.size();
  CommandResult r = ip({"link", "del", "sxn3"});
  ASSERT_EQ(0, r.status) << r.err;
  auto undefinedAt = [&] {
    return heard_.find(mark, [&](const Heard::Event& e) {
      return e.isClass && e.reg == ifUndefined && e.event == KOR_EVENT_UNDEFINED &&
             e.handle == handle;
    });
  };
  auto takenAway = [&](size_t from) {
    return heard_.find(from, [&](const Heard::Event& e) {
      return !e.isClass && e.reg == ifChanged && e.handle == handle &&
             e.flags == (MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF);
    });
  };
  ASSERT_TRUE(dispatchUntil([&] {
    int u = undefinedAt();
    return u >= 0 && takenAway(static_cast<size_t>(u) + 1) >= 0;
  })) << "events heard: " << heard_.events.size() << "\n" << agent_.log();
  const Heard::Event& gone =
      heard_.events[static_cast<size_t>(takenAway(static_cast<size_t>(undefinedAt()) + 1))];
  // Its last attributes come with it.
  EXPECT_EQ("10.0.3.1", gone.ip);
  EXPECT_EQ(kInterfaceAttributeCount, gone.attrCount);
  EXPECT_TRUE(queryHandles(KOR_CLASS_NETWORK_INTERFACE, 11).empty());
  // The PeerNode was there all along: none of its events came.
  EXPECT_EQ(-1, heard_.find(0, [&](const Heard::Event& e) {
    return e.className == KOR_CLASS_PEER_NODE;
  }));
}

}  // namespace
}  // namespace velt_test

// libvx_mc against a scripted fake agent: sessions, queries and their
// conversion, registrations and dispatch, connection loss, malformed input
// and the library's bounds, threads, handles and error records.
#include <poll.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "gs_types.h"
#include "internal/mc_session.h"
#include "internal/mc_wire.h"
#include "mc_fake_agent.h"
#include "vx_cu.h"
#include "vx_mc.h"

namespace mc_test {
namespace {

using velt::mc::internal::kMaxArray;
using velt::mc::internal::kMaxAttributes;
using velt::mc::internal::kMaxResources;
using velt::mc::internal::kMaxString;

// The agent's codes this library reads are group services' own numbers.
static_assert(velt::mc::internal::kAgentBadParameter == TK_GS_BAD_PARAMETER, "agent rc");
static_assert(velt::mc::internal::kAgentNoMemory == TK_GS_NO_MEMORY, "agent rc");
static_assert(velt::mc::internal::kAgentPermissionDenied == TK_GS_PERMISSION_DENIED, "agent rc");
static_assert(velt::mc::internal::kAgentUnknownGroup == TK_GS_UNKNOWN_GROUP, "agent rc");
static_assert(velt::mc::internal::kAgentLimitExceeded == TK_GS_LIMIT_EXCEEDED, "agent rc");
static_assert(velt::mc::internal::kAgentVersionMismatch == TK_GS_VERSION_MISMATCH, "agent rc");
static_assert(velt::mc::internal::kAgentNotSupported == TK_GS_NOT_SUPPORTED, "agent rc");

// ---- building what the agent sends ----

proto::KorAttribute intAttr(const std::string& name, uint32_t type, int64_t v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(type);
  a.mutable_value()->set_int_value(v);
  return a;
}

proto::KorAttribute uintAttr(const std::string& name, uint32_t type, uint64_t v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(type);
  a.mutable_value()->set_uint_value(v);
  return a;
}

proto::KorAttribute textAttr(const std::string& name, const std::string& v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(VX_CHAR_PTR);
  a.mutable_value()->set_text(v);
  return a;
}

proto::KorAttribute intArrayAttr(const std::string& name, uint32_t type, const std::vector<int64_t>& v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(type);
  for (int64_t x : v) a.mutable_value()->add_int_array(x);
  return a;
}

proto::KorAttribute uintArrayAttr(const std::string& name, uint32_t type, const std::vector<uint64_t>& v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(type);
  for (uint64_t x : v) a.mutable_value()->add_uint_array(x);
  return a;
}

proto::KorAttribute textArrayAttr(const std::string& name, const std::vector<std::string>& v) {
  proto::KorAttribute a;
  a.set_name(name);
  a.mutable_value()->set_type(VX_CHAR_PTR_ARRAY);
  for (const std::string& x : v) a.mutable_value()->add_text_array(x);
  return a;
}

proto::KorResource resource(const std::string& handle, const std::vector<proto::KorAttribute>& attrs = {}) {
  proto::KorResource r;
  r.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
  r.set_handle(handle);
  for (const auto& a : attrs) *r.add_attributes() = a;
  return r;
}

proto::KorEvent korEvent(uint64_t registration, const std::string& event, const std::string& handle,
                         uint64_t sequence, const std::vector<proto::KorAttribute>& attrs = {}, uint32_t flags = 0) {
  proto::KorEvent e;
  e.set_registration(registration);
  e.set_kind(event == KOR_CONDITION_CONFIG_CHANGED ? proto::KorRegister::RESOURCE_EVENT
                                                   : proto::KorRegister::CLASS_EVENT);
  e.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
  e.set_event(event);
  e.set_flags(flags);
  *e.mutable_resource() = resource(handle, attrs);
  e.set_sequence(sequence);
  return e;
}

// ---- what callbacks saw ----

struct Seen {
  bool classEvent = false;
  int tag = 0;   // which registration's arg
  mc_sess_hndl_t session = 0;
  mc_reg_id_t regId = MC_REG_ID_NONE;
  uint32_t errnum = 0;
  std::string className;
  std::string eventName;
  std::string handle;
  uint32_t flags = 0;
  std::vector<std::string> attrNames;
  std::vector<std::string> attrTexts;   // VX_CHAR_PTR values, "" for others
  uint64_t sequence = 0;
};

struct Sink {
  std::vector<Seen>* log;
  int tag;
};

void onClassEvent(mc_sess_hndl_t session, const mc_class_event_t* e, void* arg) {
  Sink* sink = static_cast<Sink*>(arg);
  Seen s;
  s.classEvent = true;
  s.tag = sink->tag;
  s.session = session;
  s.regId = e->reg_id;
  s.errnum = e->mc_errnum;
  s.className = e->class_name;
  s.eventName = e->event_name;
  s.handle = e->rsrc_handle;
  s.sequence = e->sequence;
  sink->log->push_back(s);
}

void onEvent(mc_sess_hndl_t session, const mc_event_t* e, void* arg) {
  Sink* sink = static_cast<Sink*>(arg);
  Seen s;
  s.tag = sink->tag;
  s.session = session;
  s.regId = e->reg_id;
  s.errnum = e->mc_errnum;
  s.className = e->class_name;
  s.handle = e->rsrc_handle;
  s.flags = e->mc_event_flags;
  for (uint32_t i = 0; i < e->attr_count; ++i) {
    s.attrNames.push_back(e->attrs[i].name);
    s.attrTexts.push_back(e->attrs[i].type == VX_CHAR_PTR ? e->attrs[i].value.string : "");
  }
  s.sequence = e->sequence;
  sink->log->push_back(s);
}

// Runs a query of class with the given attribute names and returns its rc.
int queryClass(mc_sess_hndl_t session, mc_query_rsp_t** out, uint32_t* count,
               const char* className = KOR_CLASS_NETWORK_INTERFACE, std::vector<const char*> names = {}) {
  return mc_query_p_select_bp(session, out, count, className, nullptr, names.empty() ? nullptr : names.data(),
                              static_cast<uint32_t>(names.size()));
}

// Runs a script that answers registrations in order with ids.
class McTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(agent_.error(), 0) << strerror(agent_.error());
    velt::mc::internal::resetLimitsForTesting();
    cu_set_error(0, "%s", "");
  }
  void TearDown() override {
    if (session_ != 0) mc_end_session(session_);
    agent_.hangUp();
    EXPECT_TRUE(agent_.finished()) << "the agent's script did not end";
    EXPECT_TRUE(agent_.failures().empty()) << agent_.failures().front();
    velt::mc::internal::resetLimitsForTesting();
  }

  // Starts a session with the fake agent running script.
  void start(FakeAgent::Script script, int mode = MC_SESSION_MODE_FULL) {
    agent_.serve(std::move(script));
    ASSERT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, mode, &session_), MC_OK) << cu_get_errmsg();
    ASSERT_NE(session_, 0u);
  }

  // Registers a class event with arg; returns the registration id (or
  // MC_REG_ID_NONE after a failed expectation).
  mc_reg_id_t registerClass(const char* event, Sink* sink) {
    mc_reg_rsp_t* rsp = nullptr;
    int rc = mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_NETWORK_INTERFACE, event, onClassEvent, sink);
    EXPECT_EQ(rc, MC_OK) << cu_get_errmsg();
    if (rc != MC_OK) return MC_REG_ID_NONE;
    EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_OK));
    mc_reg_id_t id = rsp->reg_id;
    mc_free_response(rsp);
    return id;
  }

  mc_reg_id_t registerResource(std::vector<const char*> names, Sink* sink) {
    mc_reg_rsp_t* rsp = nullptr;
    int rc = mc_reg_event_bp(session_, &rsp, 0, KOR_CLASS_NETWORK_INTERFACE, nullptr,
                             names.empty() ? nullptr : names.data(), static_cast<uint32_t>(names.size()),
                             KOR_CONDITION_CONFIG_CHANGED, onEvent, sink);
    EXPECT_EQ(rc, MC_OK) << cu_get_errmsg();
    if (rc != MC_OK) return MC_REG_ID_NONE;
    EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_OK));
    mc_reg_id_t id = rsp->reg_id;
    mc_free_response(rsp);
    return id;
  }

  // Dispatches without waiting, polling the session's descriptor between
  // rounds, until log holds n events or the bound passes. Returns the last
  // dispatch's rc.
  int dispatchUntil(const std::vector<Seen>& log, size_t n) {
    int fd = -1;
    int rc = mc_get_descriptor(session_, &fd);
    if (rc != MC_OK) return rc;
    auto until = std::chrono::steady_clock::now() + kBound;
    while (log.size() < n && std::chrono::steady_clock::now() < until) {
      struct pollfd p = {fd, POLLIN, 0};
      poll(&p, 1, 100);
      rc = mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT);
      if (rc != MC_OK) return rc;
    }
    return rc;
  }

  FakeAgent agent_;
  mc_sess_hndl_t session_ = 0;
};

// ---- sessions ----

using McSessionStart = McTest;

TEST_F(McSessionStart, StartsAndEndsASession) {
  Signal closed;
  start([&](AgentConn& conn) {
    if (conn.peerClosed()) closed.raise();
  });
  EXPECT_EQ(mc_end_session(session_), MC_OK);
  EXPECT_TRUE(closed.wait()) << "ending the session did not close its connection";
  mc_sess_hndl_t ended = session_;
  session_ = 0;
  ASSERT_TRUE(agent_.finished());
  EXPECT_EQ(agent_.hello().pid(), static_cast<uint32_t>(getpid()));
  EXPECT_EQ(agent_.hello().responsiveness().type(), 0u) << "a session asks for no pings";
  EXPECT_FALSE(agent_.hello().program().empty());
  EXPECT_EQ(mc_end_session(ended), MC_ESESSION);
}

TEST(McSessionStartAlone, NoAgentGivesENOAGENTWithAText) {
  setenv("VELT_AGENT_SOCKET", "/nonexistent/velt-mc-test/agent.sock", 1);
  mc_sess_hndl_t s = 0;
  EXPECT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_QUERY, &s), MC_ENOAGENT);
  EXPECT_EQ(s, 0u);
  EXPECT_EQ(cu_get_error(), MC_ENOAGENT);
  EXPECT_NE(strstr(cu_get_errmsg(), "/nonexistent/velt-mc-test/agent.sock"), nullptr) << cu_get_errmsg();
  unsetenv("VELT_AGENT_SOCKET");
}

TEST_F(McSessionStart, RefusedHelloGivesEPERMWithTheAgentsText) {
  agent_.serve([](AgentConn&) {}, TK_GS_PERMISSION_DENIED, "uid 1234 may not use this agent");
  mc_sess_hndl_t s = 0;
  EXPECT_EQ(mc_start_session("", MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &s), MC_EPERM);
  EXPECT_EQ(cu_get_error(), MC_EPERM);
  EXPECT_NE(strstr(cu_get_errmsg(), "uid 1234 may not use this agent"), nullptr) << cu_get_errmsg();
}

TEST_F(McSessionStart, AgentAtItsClientLimitGivesELIMIT) {
  agent_.serve([](AgentConn&) {}, TK_GS_LIMIT_EXCEEDED, "the agent already serves 2 client connections");
  mc_sess_hndl_t s = 0;
  EXPECT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &s), MC_ELIMIT);
  EXPECT_NE(strstr(cu_get_errmsg(), "already serves 2"), nullptr) << cu_get_errmsg();
}

TEST(McSessionStartAlone, MalformedArgumentsGiveEINVAL) {
  mc_sess_hndl_t s = 0;
  EXPECT_EQ(mc_start_session("node7", MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, &s), MC_EINVAL);
  EXPECT_NE(strstr(cu_get_errmsg(), "node7"), nullptr) << cu_get_errmsg();
  EXPECT_EQ(mc_start_session(nullptr, 4u, MC_SESSION_MODE_FULL, &s), MC_EINVAL);
  EXPECT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, 3, &s), MC_EINVAL);
  EXPECT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_FULL, nullptr), MC_EINVAL);
  EXPECT_EQ(cu_get_error(), MC_EINVAL);
  EXPECT_EQ(s, 0u);
}

using McHandles = McTest;

TEST_F(McHandles, EndedSessionsGiveESESSIONAndHandlesAreNotReused) {
  start([](AgentConn& conn) { conn.peerClosed(); });
  mc_sess_hndl_t ended = session_;
  ASSERT_EQ(mc_end_session(session_), MC_OK);
  session_ = 0;
  ASSERT_TRUE(agent_.finished());

  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  mc_reg_rsp_t* reg = nullptr;
  int fd = -1;
  Sink sink{nullptr, 0};
  EXPECT_EQ(queryClass(ended, &rsp, &count), MC_ESESSION);
  EXPECT_EQ(cu_get_error(), MC_ESESSION);
  EXPECT_NE(strstr(cu_get_errmsg(), std::to_string(ended).c_str()), nullptr) << cu_get_errmsg();
  EXPECT_EQ(mc_reg_class_event_bp(ended, &reg, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, onClassEvent, &sink),
            MC_ESESSION);
  EXPECT_EQ(mc_reg_event_bp(ended, &reg, 0, KOR_CLASS_PEER_NODE, nullptr, nullptr, 0, KOR_CONDITION_CONFIG_CHANGED,
                            onEvent, &sink),
            MC_ESESSION);
  EXPECT_EQ(mc_unreg_event_bp(ended, &reg, 1), MC_ESESSION);
  EXPECT_EQ(mc_dispatch(ended, MC_DISPATCH_OPTS_NO_WAIT), MC_ESESSION);
  EXPECT_EQ(mc_get_descriptor(ended, &fd), MC_ESESSION);
  EXPECT_EQ(mc_dispatch(0, MC_DISPATCH_OPTS_NO_WAIT), MC_ESESSION);
  EXPECT_EQ(rsp, nullptr);
  EXPECT_EQ(reg, nullptr);

  // A new session on a new connection gets a new handle.
  FakeAgent second;
  second.serve([](AgentConn& conn) { conn.peerClosed(); });
  mc_sess_hndl_t next = 0;
  ASSERT_EQ(mc_start_session(nullptr, MC_SESSION_OPTS_NONE, MC_SESSION_MODE_QUERY, &next), MC_OK)
      << cu_get_errmsg();
  EXPECT_NE(next, ended);
  EXPECT_GT(next, ended);
  EXPECT_EQ(mc_end_session(next), MC_OK);
  EXPECT_TRUE(second.finished());
}

// ---- queries ----

using McQuery = McTest;

TEST_F(McQuery, AnswerIsConvertedWithEveryAttributeTypeAndFreed) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer kor;
    *kor.add_resources() = resource(
        "node/3/sxn1",
        {intAttr("Int32", VX_INT32, -5), uintAttr("UInt32", VX_UINT32, 4000000000u),
         intAttr("Int64", VX_INT64, -1234567890123LL), uintAttr("UInt64", VX_UINT64, UINT64_MAX),
         textAttr("Text", "sxn1"), textAttr("EmptyText", ""),
         intArrayAttr("Int32s", VX_INT32_ARRAY, {-1, 2, INT32_MIN}),
         uintArrayAttr("UInt32s", VX_UINT32_ARRAY, {0, UINT32_MAX}),
         intArrayAttr("Int64s", VX_INT64_ARRAY, {INT64_MIN, 7}), uintArrayAttr("UInt64s", VX_UINT64_ARRAY, {UINT64_MAX}),
         textArrayAttr("Texts", {"a", "", "ccc"}), intArrayAttr("EmptyArray", VX_INT32_ARRAY, {}),
         intAttr("Float", VX_FLOAT64, 1), intAttr("Future", 99, 1)});
    *kor.add_resources() = resource("node/4");
    conn.reply(r.id(), 0, "", &kor);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count), MC_OK) << cu_get_errmsg();
  ASSERT_EQ(count, 2u);
  ASSERT_NE(rsp, nullptr);
  EXPECT_EQ(rsp[0].mc_errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_STREQ(rsp[0].rsrc_handle, "node/3/sxn1");
  // The float and the unknown type are left out; the rest keep their order.
  ASSERT_EQ(rsp[0].attr_count, 12u);
  const mc_attribute_t* a = rsp[0].attrs;
  EXPECT_STREQ(a[0].name, "Int32");
  EXPECT_EQ(a[0].type, VX_INT32);
  EXPECT_EQ(a[0].value.int32, -5);
  EXPECT_STREQ(a[1].name, "UInt32");
  EXPECT_EQ(a[1].type, VX_UINT32);
  EXPECT_EQ(a[1].value.uint32, 4000000000u);
  EXPECT_EQ(a[2].type, VX_INT64);
  EXPECT_EQ(a[2].value.int64, -1234567890123LL);
  EXPECT_EQ(a[3].type, VX_UINT64);
  EXPECT_EQ(a[3].value.uint64, UINT64_MAX);
  EXPECT_EQ(a[4].type, VX_CHAR_PTR);
  EXPECT_STREQ(a[4].value.string, "sxn1");
  ASSERT_NE(a[5].value.string, nullptr);
  EXPECT_STREQ(a[5].value.string, "");
  ASSERT_EQ(a[6].type, VX_INT32_ARRAY);
  ASSERT_EQ(a[6].value.array->count, 3u);
  EXPECT_EQ(a[6].value.array->elements.int32s[0], -1);
  EXPECT_EQ(a[6].value.array->elements.int32s[1], 2);
  EXPECT_EQ(a[6].value.array->elements.int32s[2], INT32_MIN);
  ASSERT_EQ(a[7].type, VX_UINT32_ARRAY);
  ASSERT_EQ(a[7].value.array->count, 2u);
  EXPECT_EQ(a[7].value.array->elements.uint32s[1], UINT32_MAX);
  ASSERT_EQ(a[8].type, VX_INT64_ARRAY);
  ASSERT_EQ(a[8].value.array->count, 2u);
  EXPECT_EQ(a[8].value.array->elements.int64s[0], INT64_MIN);
  EXPECT_EQ(a[8].value.array->elements.int64s[1], 7);
  ASSERT_EQ(a[9].type, VX_UINT64_ARRAY);
  ASSERT_EQ(a[9].value.array->count, 1u);
  EXPECT_EQ(a[9].value.array->elements.uint64s[0], UINT64_MAX);
  ASSERT_EQ(a[10].type, VX_CHAR_PTR_ARRAY);
  ASSERT_EQ(a[10].value.array->count, 3u);
  EXPECT_STREQ(a[10].value.array->elements.strings[0], "a");
  EXPECT_STREQ(a[10].value.array->elements.strings[1], "");
  EXPECT_STREQ(a[10].value.array->elements.strings[2], "ccc");
  ASSERT_EQ(a[11].type, VX_INT32_ARRAY);
  ASSERT_NE(a[11].value.array, nullptr);
  EXPECT_EQ(a[11].value.array->count, 0u);
  EXPECT_STREQ(rsp[1].rsrc_handle, "node/4");
  EXPECT_EQ(rsp[1].attr_count, 0u);
  EXPECT_EQ(rsp[1].attrs, nullptr);
  mc_free_response(rsp);
  mc_free_response(nullptr);
}

TEST_F(McQuery, ClassAndAttributeSelectionReachTheAgent) {
  std::vector<proto::KorQuery> asked;
  start([&](AgentConn& conn) {
    for (int i = 0; i < 2; ++i) {
      proto::Request r;
      if (!conn.readRequest(&r)) return;
      asked.push_back(r.kor_query());
      conn.reply(r.id(), 0);
    }
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 7;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, {"IPAddress", "Name", "NetworkID64"}),
            MC_OK)
      << cu_get_errmsg();
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(rsp, nullptr) << "an empty answer gives no array";
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_PEER_NODE), MC_OK) << cu_get_errmsg();
  mc_end_session(session_);
  session_ = 0;
  ASSERT_TRUE(agent_.finished());
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].class_name(), KOR_CLASS_NETWORK_INTERFACE);
  ASSERT_EQ(asked[0].attributes_size(), 3);
  EXPECT_EQ(asked[0].attributes(0), "IPAddress");
  EXPECT_EQ(asked[0].attributes(1), "Name");
  EXPECT_EQ(asked[0].attributes(2), "NetworkID64");
  EXPECT_EQ(asked[1].class_name(), KOR_CLASS_PEER_NODE);
  EXPECT_EQ(asked[1].attributes_size(), 0);
}

TEST_F(McQuery, UnknownClassGivesENOCLASS) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_UNKNOWN_GROUP, "no resource class Zel.Nothing");
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count, "Zel.Nothing"), MC_ENOCLASS);
  EXPECT_EQ(rsp, nullptr);
  EXPECT_EQ(cu_get_error(), MC_ENOCLASS);
  EXPECT_NE(strstr(cu_get_errmsg(), "no resource class Zel.Nothing"), nullptr) << cu_get_errmsg();
}

TEST_F(McQuery, ResourcesLackingANamedAttributeAreMarkedENOATTR) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer kor;
    *kor.add_resources() = resource("node/1/sxn0", {textAttr("Name", "sxn0"), textAttr("IPAddress", "10.0.0.1")});
    *kor.add_resources() = resource("node/2/sxn0", {textAttr("Name", "sxn0")});
    conn.reply(r.id(), 0, "", &kor);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, {"IPAddress", "Name"}), MC_OK);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(rsp[0].mc_errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_EQ(rsp[0].attr_count, 2u);
  EXPECT_EQ(rsp[1].mc_errnum, static_cast<uint32_t>(MC_ENOATTR));
  ASSERT_EQ(rsp[1].attr_count, 1u);
  EXPECT_STREQ(rsp[1].attrs[0].value.string, "sxn0");
  EXPECT_EQ(cu_get_error(), MC_ENOATTR);
  mc_free_response(rsp);
}

TEST_F(McQuery, PagesOfALargeAnswerBecomeOneResponseInOrder) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer page;
    page.set_more(true);
    *page.add_resources() = resource("node/1/sxn0", {textAttr("Name", "sxn0"), textAttr("IPAddress", "10.0.0.1")});
    conn.reply(r.id(), 0, "", &page);
    page.Clear();
    page.set_more(true);
    // The same names in another order, then one missing.
    *page.add_resources() = resource("node/1/sxn1", {textAttr("IPAddress", "10.1.0.1"), textAttr("Name", "sxn1")});
    *page.add_resources() = resource("node/2/sxn0", {textAttr("Name", "sxn0"), intAttr("LogicalID", VX_INT32, 7)});
    conn.reply(r.id(), 0, "", &page);
    page.Clear();
    *page.add_resources() = resource("node/2/sxn1", {textAttr("Name", "sxn1"), textAttr("IPAddress", "10.1.0.2")});
    conn.reply(r.id(), 0, "", &page);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, {"Name", "IPAddress"}), MC_OK)
      << cu_get_errmsg();
  ASSERT_EQ(count, 4u);
  const char* handles[] = {"node/1/sxn0", "node/1/sxn1", "node/2/sxn0", "node/2/sxn1"};
  for (uint32_t i = 0; i < count; ++i) {
    EXPECT_STREQ(rsp[i].rsrc_handle, handles[i]);
    ASSERT_EQ(rsp[i].attr_count, 2u);
  }
  EXPECT_STREQ(rsp[0].attrs[0].name, "Name");
  EXPECT_STREQ(rsp[0].attrs[1].value.string, "10.0.0.1");
  EXPECT_EQ(rsp[1].mc_errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_STREQ(rsp[1].attrs[0].name, "IPAddress");
  EXPECT_STREQ(rsp[1].attrs[0].value.string, "10.1.0.1");
  EXPECT_STREQ(rsp[1].attrs[1].name, "Name");
  EXPECT_STREQ(rsp[1].attrs[1].value.string, "sxn1");
  EXPECT_EQ(rsp[2].mc_errnum, static_cast<uint32_t>(MC_ENOATTR));
  EXPECT_STREQ(rsp[2].attrs[1].name, "LogicalID");
  EXPECT_EQ(rsp[2].attrs[1].value.int32, 7);
  EXPECT_EQ(rsp[3].mc_errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_STREQ(rsp[3].attrs[1].value.string, "10.1.0.2");
  EXPECT_EQ(cu_get_error(), MC_ENOATTR);
  mc_free_response(rsp);
}

TEST_F(McQuery, QueriesAskForRowsAndTheirPagesBecomeOneResponse) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    if (!r.kor_query().rows()) {
      conn.reply(r.id(), 6, "rows were not asked for");
      return;
    }
    proto::KorAnswer page;
    page.set_more(true);
    page.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
    proto::KorColumn* c = page.add_columns();
    c->set_name("Name");
    c->set_type(VX_CHAR_PTR);
    c = page.add_columns();
    c->set_name("NodeIDs");
    c->set_type(VX_UINT64_ARRAY);
    for (int n = 1; n <= 3; ++n) {
      proto::KorRow* row = page.add_rows();
      row->set_handle("node/" + std::to_string(n) + "/sxn0");
      row->add_values()->set_text("sxn0");
      row->add_values()->add_uint_array(100 + static_cast<uint64_t>(n));
    }
    conn.reply(r.id(), 0, "", &page);
    // The next page has the columns in another order, and lacks one.
    page.clear_rows();
    page.clear_columns();
    page.set_more(false);
    c = page.add_columns();
    c->set_name("NodeIDs");
    c->set_type(VX_UINT64_ARRAY);
    proto::KorRow* row = page.add_rows();
    row->set_handle("node/4/sxn0");
    row->add_values();   // no id: an empty array
    conn.reply(r.id(), 0, "", &page);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, {"Name", "NodeIDs"}), MC_OK)
      << cu_get_errmsg();
  ASSERT_EQ(count, 4u);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(rsp[i].rsrc_handle, "node/" + std::to_string(i + 1) + "/sxn0");
    EXPECT_EQ(rsp[i].mc_errnum, static_cast<uint32_t>(MC_OK));
    ASSERT_EQ(rsp[i].attr_count, 2u);
    EXPECT_STREQ(rsp[i].attrs[0].name, "Name");
    EXPECT_STREQ(rsp[i].attrs[0].value.string, "sxn0");
    EXPECT_STREQ(rsp[i].attrs[1].name, "NodeIDs");
    ASSERT_EQ(rsp[i].attrs[1].value.array->count, 1u);
    EXPECT_EQ(rsp[i].attrs[1].value.array->elements.uint64s[0], 101u + i);
  }
  EXPECT_STREQ(rsp[3].rsrc_handle, "node/4/sxn0");
  EXPECT_EQ(rsp[3].mc_errnum, static_cast<uint32_t>(MC_ENOATTR));
  ASSERT_EQ(rsp[3].attr_count, 1u);
  EXPECT_STREQ(rsp[3].attrs[0].name, "NodeIDs");
  EXPECT_EQ(rsp[3].attrs[0].value.array->count, 0u);
  EXPECT_EQ(cu_get_error(), MC_ENOATTR);
  mc_free_response(rsp);
}

TEST_F(McQuery, AMalformedLaterPageGivesEPROTOAndClosesTheSession) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer page;
    page.set_more(true);
    *page.add_resources() = resource("node/1/sxn0", {textAttr("Name", "sxn0")});
    conn.reply(r.id(), 0, "", &page);
    page.Clear();
    *page.add_resources() = resource("", {textAttr("Name", "sxn1")});
    conn.reply(r.id(), 0, "", &page);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_EPROTO);
  EXPECT_EQ(rsp, nullptr);
  EXPECT_NE(strstr(cu_get_errmsg(), "without a handle"), nullptr) << cu_get_errmsg();
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ECONNLOST);
}

TEST_F(McQuery, AgentWithoutKorGivesENOTSUP) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_NOT_SUPPORTED, "this agent offers no resources");
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ENOTSUP);
  EXPECT_NE(strstr(cu_get_errmsg(), "offers no resources"), nullptr) << cu_get_errmsg();
}

TEST_F(McQuery, CodeOutsideTheContractGivesEPROTOAndTheSessionStaysUsable) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_NOT_OK, "the cluster's bus did not take the request");
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer kor;
    *kor.add_resources() = resource("node/1");
    conn.reply(r.id(), 0, "", &kor);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_EPROTO);
  EXPECT_NE(strstr(cu_get_errmsg(), "did not take"), nullptr) << cu_get_errmsg();
  ASSERT_EQ(queryClass(session_, &rsp, &count), MC_OK) << cu_get_errmsg();
  EXPECT_EQ(count, 1u);
  mc_free_response(rsp);
}

TEST_F(McQuery, MalformedArgumentsGiveEINVALWithoutAsking) {
  start([](AgentConn& conn) {
    proto::Request r;
    EXPECT_FALSE(conn.readRequest(&r, std::chrono::milliseconds(1))) << "nothing is asked";
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(mc_query_p_select_bp(session_, &rsp, &count, KOR_CLASS_PEER_NODE, "NodeList > 2", nullptr, 0),
            MC_EINVAL);
  EXPECT_EQ(mc_query_p_select_bp(session_, &rsp, &count, nullptr, nullptr, nullptr, 0), MC_EINVAL);
  EXPECT_EQ(mc_query_p_select_bp(session_, &rsp, &count, "", nullptr, nullptr, 0), MC_EINVAL);
  EXPECT_EQ(mc_query_p_select_bp(session_, &rsp, &count, KOR_CLASS_PEER_NODE, nullptr, nullptr, 2), MC_EINVAL);
  const char* withNull[] = {"Name", nullptr};
  EXPECT_EQ(mc_query_p_select_bp(session_, &rsp, &count, KOR_CLASS_PEER_NODE, nullptr, withNull, 2), MC_EINVAL);
  EXPECT_EQ(mc_query_p_select_bp(session_, nullptr, &count, KOR_CLASS_PEER_NODE, nullptr, nullptr, 0), MC_EINVAL);
  std::vector<const char*> many(kMaxAttributes + 1, "Name");
  EXPECT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_PEER_NODE, many), MC_ELIMIT);
  EXPECT_EQ(rsp, nullptr);
}

TEST_F(McQuery, PingsDuringAQueryAreAnswered) {
  std::vector<uint64_t> answered;
  start([&](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.ping(41);
    conn.ping(42);
    conn.reply(r.id(), 0);
    // Everything the client sends until it closes.
    proto::ClientFrame f;
    while (conn.readFrame(&f)) {
      if (f.has_ping_reply()) answered.push_back(f.ping_reply().seq());
    }
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  // Both pings come before the answer: the query answers them.
  ASSERT_EQ(queryClass(session_, &rsp, &count), MC_OK) << cu_get_errmsg();
  mc_end_session(session_);
  session_ = 0;
  ASSERT_TRUE(agent_.finished());
  EXPECT_EQ(answered, (std::vector<uint64_t>{41, 42}));
}

TEST_F(McQuery, AgentThatDoesNotAnswerGivesECONNLOSTAfterTheBound) {
  velt::mc::internal::setRequestBoundForTesting(std::chrono::milliseconds(200));
  start([](AgentConn& conn) {
    proto::Request r;
    conn.readRequest(&r);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ECONNLOST);
  EXPECT_NE(strstr(cu_get_errmsg(), "did not answer"), nullptr) << cu_get_errmsg();
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ECONNLOST);
}

// ---- registrations and dispatch ----

using McEvents = McTest;

TEST_F(McEvents, ClassAndResourceEventsReachTheRightCallbackInOrder) {
  std::vector<proto::KorRegister> asked;
  start([&](AgentConn& conn) {
    for (uint64_t agentId : {70, 71, 72}) {
      proto::Request r;
      if (!conn.readRequest(&r)) return;
      asked.push_back(r.kor_register());
      conn.replyRegistration(r.id(), agentId);
    }
    conn.event(korEvent(72, KOR_CONDITION_CONFIG_CHANGED, "node/3/sxn1", 1,
                        {textAttr("IPAddress", "10.1.0.3"), textAttr("Name", "sxn1")}));
    conn.event(korEvent(70, KOR_EVENT_DEFINED, "node/5/sxn0", 2));
    conn.event(korEvent(99, KOR_EVENT_DEFINED, "node/6/sxn0", 3));   // not a registration of ours
    conn.event(korEvent(71, KOR_EVENT_UNDEFINED, "node/4/sxn0", 4));
    conn.event(korEvent(72, KOR_CONDITION_CONFIG_CHANGED, "node/4/sxn0", 5, {textAttr("IPAddress", "10.1.0.4")},
                        MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF | 0x1));
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink defined{&log, 1}, undefined{&log, 2}, changed{&log, 3};
  mc_reg_id_t d = registerClass(KOR_EVENT_DEFINED, &defined);
  mc_reg_id_t u = registerClass(KOR_EVENT_UNDEFINED, &undefined);
  mc_reg_id_t c = registerResource({"IPAddress", "Name"}, &changed);
  EXPECT_NE(d, MC_REG_ID_NONE);
  EXPECT_NE(u, d);
  EXPECT_NE(c, u);
  ASSERT_EQ(dispatchUntil(log, 4), MC_OK) << cu_get_errmsg();
  ASSERT_EQ(log.size(), 4u);

  EXPECT_FALSE(log[0].classEvent);
  EXPECT_EQ(log[0].tag, 3);
  EXPECT_EQ(log[0].session, session_);
  EXPECT_EQ(log[0].regId, c);
  EXPECT_EQ(log[0].errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_EQ(log[0].className, KOR_CLASS_NETWORK_INTERFACE);
  EXPECT_EQ(log[0].handle, "node/3/sxn1");
  EXPECT_EQ(log[0].attrNames, (std::vector<std::string>{"IPAddress", "Name"}));
  EXPECT_EQ(log[0].attrTexts, (std::vector<std::string>{"10.1.0.3", "sxn1"}));
  EXPECT_EQ(log[0].flags, 0u);
  EXPECT_EQ(log[0].sequence, 1u);

  EXPECT_TRUE(log[1].classEvent);
  EXPECT_EQ(log[1].tag, 1);
  EXPECT_EQ(log[1].regId, d);
  EXPECT_EQ(log[1].eventName, KOR_EVENT_DEFINED);
  EXPECT_EQ(log[1].handle, "node/5/sxn0");
  EXPECT_EQ(log[1].sequence, 2u);

  EXPECT_TRUE(log[2].classEvent);
  EXPECT_EQ(log[2].tag, 2);
  EXPECT_EQ(log[2].regId, u);
  EXPECT_EQ(log[2].eventName, KOR_EVENT_UNDEFINED);
  EXPECT_EQ(log[2].handle, "node/4/sxn0");
  EXPECT_EQ(log[2].sequence, 4u);

  EXPECT_EQ(log[3].tag, 3);
  EXPECT_EQ(log[3].flags, static_cast<uint32_t>(MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF));
  EXPECT_EQ(log[3].sequence, 5u);

  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_OK);
  EXPECT_EQ(log.size(), 4u) << "the event of an id we never held must be dropped";

  mc_end_session(session_);
  session_ = 0;
  ASSERT_TRUE(agent_.finished());
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].kind(), proto::KorRegister::CLASS_EVENT);
  EXPECT_EQ(asked[0].class_name(), KOR_CLASS_NETWORK_INTERFACE);
  EXPECT_EQ(asked[0].event(), KOR_EVENT_DEFINED);
  EXPECT_EQ(asked[1].event(), KOR_EVENT_UNDEFINED);
  EXPECT_EQ(asked[2].kind(), proto::KorRegister::RESOURCE_EVENT);
  EXPECT_EQ(asked[2].event(), KOR_CONDITION_CONFIG_CHANGED);
  ASSERT_EQ(asked[2].attributes_size(), 2);
  EXPECT_EQ(asked[2].attributes(0), "IPAddress");
  EXPECT_EQ(asked[2].attributes(1), "Name");
}

TEST_F(McEvents, EventsArrivingDuringAQueryWaitForDispatchInOrder) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 5);
    if (!conn.readRequest(&r)) return;
    conn.event(korEvent(5, KOR_EVENT_DEFINED, "node/1", 10));
    conn.event(korEvent(5, KOR_EVENT_DEFINED, "node/2", 11));
    proto::KorAnswer kor;
    *kor.add_resources() = resource("node/1");
    conn.reply(r.id(), 0, "", &kor);
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 9};
  mc_reg_id_t id = registerClass(KOR_EVENT_DEFINED, &sink);
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_PEER_NODE), MC_OK) << cu_get_errmsg();
  EXPECT_EQ(count, 1u);
  mc_free_response(rsp);
  EXPECT_TRUE(log.empty()) << "callbacks run only inside mc_dispatch";
  // The events were read already; the descriptor still shows them.
  int fd = -1;
  ASSERT_EQ(mc_get_descriptor(session_, &fd), MC_OK);
  struct pollfd p = {fd, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 0), 1) << "the descriptor must be readable while events wait";
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_OK);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].handle, "node/1");
  EXPECT_EQ(log[1].handle, "node/2");
  EXPECT_EQ(log[0].regId, id);
  EXPECT_EQ(log[1].tag, 9);
  EXPECT_EQ(poll(&p, 1, 0), 0) << "nothing waits any more";
}

TEST_F(McEvents, NoWaitDispatchReturnsAtOnceWithNothing) {
  Signal done;
  start([&](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 1);
    done.wait();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerClass(KOR_EVENT_DEFINED, &sink);
  auto f = std::async(std::launch::async, [&] { return mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT); });
  OnScopeExitHangUp release(agent_, done);
  ASSERT_EQ(f.wait_for(kBound), std::future_status::ready) << "mc_dispatch(NO_WAIT) waited";
  EXPECT_EQ(f.get(), MC_OK);
  EXPECT_TRUE(log.empty());
}

TEST_F(McEvents, WaitDispatchBlocksUntilAnEventCame) {
  Signal sendNow;
  start([&](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 1);
    if (!sendNow.wait()) return;
    conn.event(korEvent(1, KOR_EVENT_DEFINED, "node/8", 1));
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerClass(KOR_EVENT_DEFINED, &sink);
  auto f = std::async(std::launch::async, [&] { return mc_dispatch(session_, MC_DISPATCH_OPTS_WAIT); });
  Signal unused;
  OnScopeExitHangUp release(agent_, unused);
  // Blocked in its wait on the connection, with nothing handled.
  auto until = std::chrono::steady_clock::now() + kBound;
  while (velt::mc::internal::waitingDispatchersForTesting(session_) != 1 && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(velt::mc::internal::waitingDispatchersForTesting(session_), 1);
  EXPECT_NE(f.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
  sendNow.raise();
  ASSERT_EQ(f.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(f.get(), MC_OK);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].handle, "node/8");
}

TEST_F(McEvents, UnregistrationDropsPendingEventsOfThatId) {
  uint64_t unregistered = 0;
  start([&](AgentConn& conn) {
    proto::Request r;
    for (uint64_t agentId : {40, 41}) {
      if (!conn.readRequest(&r)) return;
      conn.replyRegistration(r.id(), agentId);
    }
    // Events of both, read by the client during its query.
    if (!conn.readRequest(&r)) return;
    conn.event(korEvent(40, KOR_EVENT_DEFINED, "node/1", 1));
    conn.event(korEvent(41, KOR_EVENT_UNDEFINED, "node/2", 2));
    conn.event(korEvent(40, KOR_EVENT_DEFINED, "node/3", 3));
    conn.reply(r.id(), 0);
    if (!conn.readRequest(&r)) return;
    unregistered = r.kor_unregister().registration();
    // An event the agent had sent before it took the request.
    conn.event(korEvent(40, KOR_EVENT_DEFINED, "node/4", 4));
    conn.reply(r.id(), 0);
    conn.event(korEvent(41, KOR_EVENT_UNDEFINED, "node/5", 5));
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink a{&log, 1}, b{&log, 2};
  mc_reg_id_t idA = registerClass(KOR_EVENT_DEFINED, &a);
  mc_reg_id_t idB = registerClass(KOR_EVENT_UNDEFINED, &b);
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count), MC_OK) << cu_get_errmsg();
  mc_reg_rsp_t* reg = nullptr;
  ASSERT_EQ(mc_unreg_event_bp(session_, &reg, idA), MC_OK) << cu_get_errmsg();
  ASSERT_NE(reg, nullptr);
  EXPECT_EQ(reg->mc_errnum, static_cast<uint32_t>(MC_OK));
  EXPECT_EQ(reg->reg_id, idA);
  mc_free_response(reg);
  ASSERT_EQ(dispatchUntil(log, 2), MC_OK) << cu_get_errmsg();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0].regId, idB);
  EXPECT_EQ(log[0].handle, "node/2");
  EXPECT_EQ(log[1].regId, idB);
  EXPECT_EQ(log[1].handle, "node/5");
  EXPECT_EQ(mc_unreg_event_bp(session_, &reg, idA), MC_ENOREG);
  EXPECT_EQ(cu_get_error(), MC_ENOREG);
  mc_end_session(session_);
  session_ = 0;
  ASSERT_TRUE(agent_.finished());
  EXPECT_EQ(unregistered, 40u) << "the agent is asked about its own id";
}

TEST_F(McEvents, RefusedRegistrationsComeBackInTheResponse) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_UNKNOWN_GROUP, "no resource class Zel.Nothing");
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), 0, "no attribute Colour in class Zel.NetworkInterface");   // registration 0
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_BAD_PARAMETER, "no event ResourceRenamed");
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), TK_GS_NOT_SUPPORTED, "no KOR here");
    conn.peerClosed();
  });
  Sink sink{nullptr, 0};
  mc_reg_rsp_t* rsp = nullptr;
  ASSERT_EQ(mc_reg_class_event_bp(session_, &rsp, "Zel.Nothing", KOR_EVENT_DEFINED, onClassEvent, &sink), MC_OK);
  EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_ENOCLASS));
  EXPECT_EQ(rsp->reg_id, MC_REG_ID_NONE);
  EXPECT_EQ(cu_get_error(), MC_ENOCLASS);
  EXPECT_NE(strstr(cu_get_errmsg(), "Zel.Nothing"), nullptr) << cu_get_errmsg();
  mc_free_response(rsp);

  const char* names[] = {"Colour"};
  ASSERT_EQ(mc_reg_event_bp(session_, &rsp, 0, KOR_CLASS_NETWORK_INTERFACE, "", names, 1,
                            KOR_CONDITION_CONFIG_CHANGED, onEvent, &sink),
            MC_OK);
  EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_ENOATTR));
  EXPECT_EQ(rsp->reg_id, MC_REG_ID_NONE);
  EXPECT_NE(strstr(cu_get_errmsg(), "Colour"), nullptr) << cu_get_errmsg();
  mc_free_response(rsp);

  ASSERT_EQ(mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_NETWORK_INTERFACE, "ResourceRenamed", onClassEvent,
                                  &sink),
            MC_OK);
  EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_EINVAL));
  mc_free_response(rsp);

  rsp = nullptr;
  EXPECT_EQ(mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_NETWORK_INTERFACE, KOR_EVENT_DEFINED, onClassEvent,
                                  &sink),
            MC_ENOTSUP);
  EXPECT_EQ(rsp, nullptr);
}

TEST_F(McEvents, RefusedUnregistrationStillEndsTheRegistration) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 12);
    if (!conn.readRequest(&r)) return;
    // Read by the client while it waits for the answer.
    conn.event(korEvent(12, KOR_EVENT_DEFINED, "node/1", 1));
    conn.reply(r.id(), TK_GS_BAD_PARAMETER, "no registration 12 on this connection");
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  mc_reg_id_t id = registerClass(KOR_EVENT_DEFINED, &sink);
  mc_reg_rsp_t* rsp = nullptr;
  ASSERT_EQ(mc_unreg_event_bp(session_, &rsp, id), MC_OK) << cu_get_errmsg();
  EXPECT_EQ(rsp->mc_errnum, static_cast<uint32_t>(MC_EINVAL));
  EXPECT_EQ(rsp->reg_id, id);
  EXPECT_NE(strstr(cu_get_errmsg(), "no registration 12"), nullptr) << cu_get_errmsg();
  mc_free_response(rsp);
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_OK);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(mc_unreg_event_bp(session_, &rsp, id), MC_ENOREG);
}

TEST_F(McEvents, QuerySessionsCannotRegister) {
  start([](AgentConn& conn) { conn.peerClosed(); }, MC_SESSION_MODE_QUERY);
  Sink sink{nullptr, 0};
  mc_reg_rsp_t* rsp = nullptr;
  EXPECT_EQ(mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, onClassEvent, &sink),
            MC_EINVAL);
  EXPECT_NE(strstr(cu_get_errmsg(), "queries only"), nullptr) << cu_get_errmsg();
  EXPECT_EQ(mc_reg_event_bp(session_, &rsp, 0, KOR_CLASS_PEER_NODE, nullptr, nullptr, 0,
                            KOR_CONDITION_CONFIG_CHANGED, onEvent, &sink),
            MC_EINVAL);
  EXPECT_EQ(rsp, nullptr);
}

// A callback that ends its own registration, then the session.
struct SelfEnding {
  mc_reg_id_t regId = MC_REG_ID_NONE;
  int calls = 0;
  int unregRc = -1;
  int endRc = -1;
};

void unregisterFromCallback(mc_sess_hndl_t session, const mc_class_event_t* e, void* arg) {
  SelfEnding* s = static_cast<SelfEnding*>(arg);
  ++s->calls;
  mc_reg_rsp_t* rsp = nullptr;
  s->unregRc = mc_unreg_event_bp(session, &rsp, e->reg_id);
  mc_free_response(rsp);
}

void endFromCallback(mc_sess_hndl_t session, const mc_class_event_t*, void* arg) {
  SelfEnding* s = static_cast<SelfEnding*>(arg);
  ++s->calls;
  s->endRc = mc_end_session(session);
}

TEST_F(McEvents, CallbacksMayUnregisterAndEndTheirSession) {
  start([](AgentConn& conn) {
    proto::Request r;
    for (uint64_t agentId : {1, 2}) {
      if (!conn.readRequest(&r)) return;
      conn.replyRegistration(r.id(), agentId);
    }
    conn.event(korEvent(1, KOR_EVENT_DEFINED, "node/1", 1));
    conn.event(korEvent(1, KOR_EVENT_DEFINED, "node/2", 2));
    // The unregistration.
    if (!conn.readRequest(&r)) return;
    conn.reply(r.id(), 0);
    conn.event(korEvent(2, KOR_EVENT_UNDEFINED, "node/3", 3));
    conn.event(korEvent(2, KOR_EVENT_UNDEFINED, "node/4", 4));
    conn.peerClosed();
  });
  SelfEnding unreg, ender;
  mc_reg_rsp_t* rsp = nullptr;
  ASSERT_EQ(mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, unregisterFromCallback,
                                  &unreg),
            MC_OK);
  mc_free_response(rsp);
  ASSERT_EQ(mc_reg_class_event_bp(session_, &rsp, KOR_CLASS_PEER_NODE, KOR_EVENT_UNDEFINED, endFromCallback, &ender),
            MC_OK);
  mc_free_response(rsp);
  auto until = std::chrono::steady_clock::now() + kBound;
  while (ender.calls == 0 && std::chrono::steady_clock::now() < until) {
    int rc = mc_dispatch(session_, MC_DISPATCH_OPTS_WAIT);
    ASSERT_EQ(rc, MC_OK) << cu_get_errmsg();
  }
  EXPECT_EQ(unreg.calls, 1) << "the second event of an ended registration is dropped";
  EXPECT_EQ(unreg.unregRc, MC_OK);
  EXPECT_EQ(ender.calls, 1) << "no callback runs after its session ended";
  EXPECT_EQ(ender.endRc, MC_OK);
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ESESSION);
  session_ = 0;
}

// ---- connection loss ----

using McConnectionLoss = McTest;

TEST_F(McConnectionLoss, EventsBeforeTheLossAreHandledThenEveryCallGivesECONNLOST) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 3);
    conn.event(korEvent(3, KOR_EVENT_DEFINED, "node/1", 1));
    // Returning closes the connection.
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerClass(KOR_EVENT_DEFINED, &sink);
  ASSERT_TRUE(agent_.finished());
  auto f = std::async(std::launch::async, [&] {
    int first = mc_dispatch(session_, MC_DISPATCH_OPTS_WAIT);
    int second = mc_dispatch(session_, MC_DISPATCH_OPTS_WAIT);
    return std::make_pair(first, second);
  });
  ASSERT_EQ(f.wait_for(kBound), std::future_status::ready) << "mc_dispatch did not see the loss";
  auto rcs = f.get();
  EXPECT_EQ(rcs.first, MC_OK);
  EXPECT_EQ(rcs.second, MC_ECONNLOST);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(cu_get_error(), 0) << "the record is of the calling thread";

  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ECONNLOST);
  EXPECT_EQ(cu_get_error(), MC_ECONNLOST);
  EXPECT_NE(strstr(cu_get_errmsg(), "closed the connection"), nullptr) << cu_get_errmsg();
  Sink none{nullptr, 0};
  mc_reg_rsp_t* reg = nullptr;
  EXPECT_EQ(mc_reg_class_event_bp(session_, &reg, KOR_CLASS_PEER_NODE, KOR_EVENT_DEFINED, onClassEvent, &none),
            MC_ECONNLOST);
  EXPECT_EQ(mc_unreg_event_bp(session_, &reg, 1), MC_ECONNLOST);
  int fd = -1;
  EXPECT_EQ(mc_get_descriptor(session_, &fd), MC_ECONNLOST);
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ECONNLOST);
  EXPECT_EQ(mc_end_session(session_), MC_OK);
  session_ = 0;
}

TEST_F(McConnectionLoss, TooManyWaitingEventsGiveELIMIT) {
  velt::mc::internal::setQueueLimitsForTesting(3, 1u << 20);
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 8);
    if (!conn.readRequest(&r)) return;
    for (uint64_t i = 1; i <= 4; ++i) conn.event(korEvent(8, KOR_EVENT_DEFINED, "node/" + std::to_string(i), i));
    conn.reply(r.id(), 0);
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerClass(KOR_EVENT_DEFINED, &sink);
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ELIMIT);
  EXPECT_EQ(cu_get_error(), MC_ELIMIT);
  EXPECT_NE(strstr(cu_get_errmsg(), "wait for mc_dispatch"), nullptr) << cu_get_errmsg();
  // The events that fitted are still handed out, then the loss.
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_OK);
  EXPECT_EQ(log.size(), 3u);
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ECONNLOST);
}

TEST_F(McConnectionLoss, TooManyWaitingBytesGiveELIMIT) {
  velt::mc::internal::setQueueLimitsForTesting(1000, 4096);
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 8);
    for (uint64_t i = 1; i <= 8; ++i) {
      conn.event(korEvent(8, KOR_CONDITION_CONFIG_CHANGED, "node/1", i, {textAttr("Blob", std::string(1000, 'x'))}));
    }
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerResource({"Blob"}, &sink);
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  // The query reads the events while it waits; its answer never comes.
  velt::mc::internal::setRequestBoundForTesting(std::chrono::milliseconds(2000));
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_ELIMIT) << cu_get_errmsg();
}

// ---- what the agent must not send ----

struct Malformed {
  const char* name;
  // Answers the query request r in a way the library must refuse.
  std::function<void(AgentConn&, const proto::Request&)> answer;
};

proto::KorAnswer oneResource(const std::vector<proto::KorAttribute>& attrs, const std::string& handle = "node/1") {
  proto::KorAnswer kor;
  *kor.add_resources() = resource(handle, attrs);
  return kor;
}

std::vector<Malformed> malformedAnswers() {
  std::vector<Malformed> cases;
  cases.push_back({"GarbagePacket", [](AgentConn& c, const proto::Request&) { c.sendRaw("XXXXnot a frame"); }});
  cases.push_back({"ShortPacket", [](AgentConn& c, const proto::Request&) { c.sendRaw("VF"); }});
  cases.push_back({"OversizedPacket", [](AgentConn& c, const proto::Request&) {
                     std::string p = velt::wire::splitMessage("x")[0];
                     p.resize(velt::wire::kMaxPacket + 1, 'x');
                     c.sendRaw(p);
                   }});
  cases.push_back({"UnparsableMessage", [](AgentConn& c, const proto::Request&) {
                     c.sendMessage(std::string("\xff\xff\xff\xff\x0f", 5));
                   }});
  cases.push_back({"WrongWireVersion", [](AgentConn& c, const proto::Request& r) {
                     proto::AgentFrame a;
                     a.set_version(2);
                     a.mutable_reply()->set_id(r.id());
                     c.send(a);
                   }});
  cases.push_back({"FrameWithoutBody", [](AgentConn& c, const proto::Request&) {
                     proto::AgentFrame a;
                     a.set_version(1);
                     c.send(a);
                   }});
  cases.push_back({"SecondHelloAnswer", [](AgentConn& c, const proto::Request&) {
                     proto::AgentFrame a;
                     a.set_version(1);
                     a.mutable_hello_reply()->set_rc(0);
                     c.send(a);
                   }});
  cases.push_back({"AnswerToAnotherRequest", [](AgentConn& c, const proto::Request& r) { c.reply(r.id() + 7, 0); }});
  cases.push_back({"MessagePastTheBound", [](AgentConn& c, const proto::Request& r) {
                     c.reply(r.id(), 0, std::string(velt::wire::kDefaultMaxMessage, 't'));
                   }});
  cases.push_back({"TooManyResources", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor;
                     for (size_t i = 0; i <= kMaxResources; ++i) kor.add_resources()->set_handle("n");
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"TooManyAttributes", [](AgentConn& c, const proto::Request& r) {
                     std::vector<proto::KorAttribute> attrs;
                     for (size_t i = 0; i <= kMaxAttributes; ++i) {
                       attrs.push_back(intAttr("A" + std::to_string(i), VX_INT32, 1));
                     }
                     proto::KorAnswer kor = oneResource(attrs);
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"StringPastTheBound", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({textAttr("Name", std::string(kMaxString + 1, 'n'))});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"StringWithANulByte", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({textAttr("Name", std::string("sx\0n1", 5))});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"ArrayPastTheBound", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor =
                         oneResource({uintArrayAttr("Ids", VX_UINT64_ARRAY, std::vector<uint64_t>(kMaxArray + 1, 1))});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"StringArrayPastTheBound", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor =
                         oneResource({textArrayAttr("Names", std::vector<std::string>(kMaxArray + 1, ""))});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"Int32OutOfRange", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({intAttr("LogicalID", VX_INT32, int64_t{INT32_MAX} + 1)});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"UInt32ArrayOutOfRange", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({uintArrayAttr("Ports", VX_UINT32_ARRAY, {1, 1ull << 32})});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"ResourceWithoutAHandle", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({}, "");
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"AttributeWithoutAName", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor = oneResource({intAttr("", VX_INT32, 1)});
                     c.reply(r.id(), 0, "", &kor);
                   }});
  cases.push_back({"RowWithoutAValueForEveryColumn", [](AgentConn& c, const proto::Request& r) {
                     proto::KorAnswer kor;
                     proto::KorColumn* col = kor.add_columns();
                     col->set_name("Name");
                     col->set_type(VX_CHAR_PTR);
                     *kor.add_columns() = *col;
                     proto::KorRow* row = kor.add_rows();
                     row->set_handle("node/1/sxn0");
                     row->add_values()->set_text("sxn0");
                     c.reply(r.id(), 0, "", &kor);
                   }});
  return cases;
}

class McMalformedAnswer : public McTest, public ::testing::WithParamInterface<Malformed> {};

TEST_P(McMalformedAnswer, GivesEPROTOAndClosesTheSession) {
  auto answer = GetParam().answer;
  start([answer](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    answer(conn, r);
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_EPROTO) << cu_get_errmsg();
  EXPECT_EQ(rsp, nullptr);
  EXPECT_EQ(cu_get_error(), MC_EPROTO);
  EXPECT_GT(strlen(cu_get_errmsg()), 20u) << cu_get_errmsg();
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ECONNLOST);
  EXPECT_EQ(mc_end_session(session_), MC_OK);
  session_ = 0;
}

INSTANTIATE_TEST_SUITE_P(Agent, McMalformedAnswer, ::testing::ValuesIn(malformedAnswers()),
                         [](const ::testing::TestParamInfo<Malformed>& info) { return std::string(info.param.name); });

TEST_F(McEvents, MalformedEventGivesEPROTOFromDispatch) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    conn.replyRegistration(r.id(), 2);
    std::vector<proto::KorAttribute> attrs;
    for (size_t i = 0; i <= kMaxAttributes; ++i) attrs.push_back(intAttr("A" + std::to_string(i), VX_INT64, 1));
    conn.event(korEvent(2, KOR_CONDITION_CONFIG_CHANGED, "node/1", 1, attrs));
    conn.peerClosed();
  });
  std::vector<Seen> log;
  Sink sink{&log, 1};
  registerResource({}, &sink);
  auto f = std::async(std::launch::async, [&] { return mc_dispatch(session_, MC_DISPATCH_OPTS_WAIT); });
  ASSERT_EQ(f.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(f.get(), MC_EPROTO);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_ECONNLOST);
}

// ---- the fuzz target's way in ----

std::string frameBytes(const proto::AgentFrame& f) {
  std::string bytes;
  f.SerializeToString(&bytes);
  return bytes;
}

int convert(const std::string& bytes) {
  return velt::mc::internal::convertAgentFrameForTesting(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                         bytes.size());
}

TEST(McWire, FramesAreCheckedAndConvertedAsASessionDoes) {
  proto::AgentFrame answer;
  answer.set_version(1);
  answer.mutable_reply()->set_id(1);
  *answer.mutable_reply()->mutable_kor() =
      oneResource({intAttr("LogicalID", VX_INT32, 3), textArrayAttr("Names", {"a", "b"})});
  EXPECT_EQ(convert(frameBytes(answer)), MC_OK);

  proto::AgentFrame tooMany = answer;
  for (size_t i = 0; i <= kMaxAttributes; ++i) {
    *tooMany.mutable_reply()->mutable_kor()->mutable_resources(0)->add_attributes() = intAttr("X", VX_INT64, 1);
  }
  EXPECT_EQ(convert(frameBytes(tooMany)), MC_EPROTO);

  proto::AgentFrame refused;
  refused.set_version(1);
  refused.mutable_reply()->set_rc(TK_GS_UNKNOWN_GROUP);
  EXPECT_EQ(convert(frameBytes(refused)), MC_ENOCLASS);

  proto::AgentFrame event;
  event.set_version(1);
  *event.mutable_kor_event() = korEvent(4, KOR_CONDITION_CONFIG_CHANGED, "node/1", 1, {textAttr("Name", "sxn0")});
  EXPECT_EQ(convert(frameBytes(event)), MC_OK);
  event.mutable_kor_event()->mutable_resource()->clear_handle();
  EXPECT_EQ(convert(frameBytes(event)), MC_EPROTO);

  EXPECT_EQ(convert(std::string("\xff\xff\xff", 3)), MC_EPROTO);
}

// ---- pages read straight from the wire ----

using velt::mc::internal::QueryAnswerBuilder;

std::string pageFrame(uint64_t id, const proto::KorAnswer& kor, const std::string& text = "") {
  proto::AgentFrame f;
  f.set_version(1);
  f.mutable_reply()->set_id(id);
  f.mutable_reply()->set_text(text);
  *f.mutable_reply()->mutable_kor() = kor;
  return frameBytes(f);
}

// A response as text, to compare two.
std::string describe(const mc_query_rsp_t* rsp, uint32_t count) {
  std::string out;
  for (uint32_t i = 0; i < count; ++i) {
    const mc_query_rsp_t& e = rsp[i];
    out += std::string("[") + e.rsrc_handle + " errnum=" + std::to_string(e.mc_errnum);
    for (uint32_t k = 0; k < e.attr_count; ++k) {
      const mc_attribute_t& a = e.attrs[k];
      out += std::string(" ") + a.name + ":" + std::to_string(a.type) + "=";
      switch (a.type) {
        case VX_INT32: out += std::to_string(a.value.int32); break;
        case VX_UINT32: out += std::to_string(a.value.uint32); break;
        case VX_INT64: out += std::to_string(a.value.int64); break;
        case VX_UINT64: out += std::to_string(a.value.uint64); break;
        case VX_CHAR_PTR: out += std::string("'") + a.value.string + "'"; break;
        default:
          out += "{";
          for (uint32_t j = 0; j < a.value.array->count; ++j) {
            switch (a.type) {
              case VX_INT32_ARRAY: out += std::to_string(a.value.array->elements.int32s[j]); break;
              case VX_UINT32_ARRAY: out += std::to_string(a.value.array->elements.uint32s[j]); break;
              case VX_INT64_ARRAY: out += std::to_string(a.value.array->elements.int64s[j]); break;
              case VX_UINT64_ARRAY: out += std::to_string(a.value.array->elements.uint64s[j]); break;
              default: out += std::string("'") + a.value.array->elements.strings[j] + "'"; break;
            }
            out += ",";
          }
          out += "}";
      }
    }
    out += "]";
  }
  return out;
}

// The page read straight from its bytes, and *how it went.
std::string readDirect(const std::string& frame, uint64_t id, const std::vector<std::string>& named,
                       QueryAnswerBuilder::PageRead* how, QueryAnswerBuilder::PageHeader* header = nullptr) {
  QueryAnswerBuilder builder(named);
  QueryAnswerBuilder::PageHeader h;
  *how = builder.readPage(frame, id, &h);
  if (header != nullptr) *header = h;
  EXPECT_EQ(builder.count() == 0 || *how == QueryAnswerBuilder::PageRead::kRead, true) << "a page not read added";
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(builder.finish(&rsp, &count), MC_OK);
  std::string text = describe(rsp, count);
  velt::mc::internal::freeResponse(rsp);
  return text;
}

// The same page parsed by protobuf and converted.
std::string readParsed(const std::string& frame, const std::vector<std::string>& named) {
  proto::AgentFrame f;
  EXPECT_TRUE(f.ParseFromString(frame));
  QueryAnswerBuilder builder(named);
  std::string why;
  EXPECT_EQ(builder.addPage(f.reply().kor(), &why), MC_OK) << why;
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(builder.finish(&rsp, &count), MC_OK);
  std::string text = describe(rsp, count);
  velt::mc::internal::freeResponse(rsp);
  return text;
}

void randomValue(std::mt19937* rng, uint32_t type, proto::KorValue* v);

// A resource with random attributes, all within the contract.
proto::KorResource randomResource(std::mt19937* rng) {
  auto pick = [rng](int n) { return static_cast<int>((*rng)() % static_cast<uint32_t>(n)); };
  static const char* const kNames[] = {"Name", "IPAddress", "NodeIDs", "LogicalID", "X", "Zed", "Näme", "名前"};
  proto::KorResource r;
  r.set_class_name(pick(4) == 0 ? "" : KOR_CLASS_NETWORK_INTERFACE);
  r.set_handle("node/" + std::to_string(pick(3000)) + "/sxn" + std::to_string(pick(48)));
  const int attrs = pick(13);
  for (int i = 0; i < attrs; ++i) {
    proto::KorAttribute* a = r.add_attributes();
    a->set_name(kNames[pick(8)]);
    if (pick(10) == 0) continue;   // no value: the default one
    const uint32_t type = static_cast<uint32_t>(pick(17));
    a->mutable_value()->set_type(type);
    randomValue(rng, type, a->mutable_value());
  }
  return r;
}

// A random value of type (within the contract) into *v, its type left as
// it is.
void randomValue(std::mt19937* rng, uint32_t type, proto::KorValue* v) {
  auto pick = [rng](int n) { return static_cast<int>((*rng)() % static_cast<uint32_t>(n)); };
  static const char* const kTexts[] = {"", "sxn0", "10.0.0.1", "ü", "名前", "80:00:02:08:fe:80", "a b c"};
  {
    const int n = pick(5);
    switch (type) {
      case VX_INT32: v->set_int_value(static_cast<int32_t>((*rng)())); break;
      case VX_UINT32: v->set_uint_value((*rng)()); break;
      case VX_INT64: v->set_int_value(static_cast<int64_t>((uint64_t{(*rng)()} << 32) | (*rng)())); break;
      case VX_UINT64: v->set_uint_value((uint64_t{(*rng)()} << 32) | (*rng)()); break;
      case VX_CHAR_PTR: v->set_text(kTexts[pick(7)]); break;
      case VX_INT32_ARRAY: for (int k = 0; k < n; ++k) v->add_int_array(static_cast<int32_t>((*rng)())); break;
      case VX_UINT32_ARRAY: for (int k = 0; k < n; ++k) v->add_uint_array((*rng)()); break;
      case VX_INT64_ARRAY: for (int k = 0; k < n; ++k) v->add_int_array(-(static_cast<int64_t>((*rng)()) << 20)); break;
      case VX_UINT64_ARRAY: for (int k = 0; k < n; ++k) v->add_uint_array(uint64_t{(*rng)()} << 31); break;
      case VX_CHAR_PTR_ARRAY: for (int k = 0; k < n; ++k) v->add_text_array(kTexts[pick(7)]); break;
      default:
        // Types without a representation: any value, left out.
        v->set_int_value(pick(2) ? -7 : 0);
        if (pick(2)) v->set_text("ignored");
        break;
    }
  }
}

TEST(McWirePages, AreReadStraightFromTheWireAsProtobufAndTheChecksReadThem) {
  std::mt19937 rng(20240611);
  const std::vector<std::vector<std::string>> asks = {{}, {"Name"}, {"Name", "IPAddress", "NodeIDs"}, {"Zed", "名前"}};
  for (int round = 0; round < 300; ++round) {
    proto::KorAnswer kor;
    const int n = static_cast<int>(rng() % 20);
    for (int i = 0; i < n; ++i) *kor.add_resources() = randomResource(&rng);
    kor.set_more(rng() % 2 == 0);
    if (rng() % 5 == 0) kor.set_registration(rng());
    const std::string text = rng() % 3 == 0 ? "ü a text" : "";
    const std::string frame = pageFrame(77, kor, text);
    const std::vector<std::string>& named = asks[round % asks.size()];
    QueryAnswerBuilder::PageRead how;
    QueryAnswerBuilder::PageHeader header;
    const std::string direct = readDirect(frame, 77, named, &how, &header);
    ASSERT_EQ(how, QueryAnswerBuilder::PageRead::kRead) << "round " << round;
    EXPECT_EQ(direct, readParsed(frame, named)) << "round " << round;
    EXPECT_EQ(header.more, kor.more());
    EXPECT_EQ(header.text, text);
  }
}

// A page of rows with random columns and values, all within the contract;
// sometimes with resources before the rows.
proto::KorAnswer randomRowsPage(std::mt19937* rng) {
  auto pick = [rng](int n) { return static_cast<int>((*rng)() % static_cast<uint32_t>(n)); };
  static const char* const kNames[] = {"Name", "IPAddress", "NodeIDs", "LogicalID", "X", "Zed", "Näme", "名前"};
  proto::KorAnswer kor;
  if (pick(4) == 0) *kor.add_resources() = randomResource(rng);
  if (pick(4) != 0) kor.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
  const int columns = pick(13);
  for (int i = 0; i < columns; ++i) {
    proto::KorColumn* c = kor.add_columns();
    c->set_name(kNames[pick(8)]);
    c->set_type(static_cast<uint32_t>(pick(17)));
  }
  const int rows = pick(20);
  for (int i = 0; i < rows; ++i) {
    proto::KorRow* r = kor.add_rows();
    r->set_handle("node/" + std::to_string(pick(3000)) + "/sxn" + std::to_string(pick(48)));
    for (const proto::KorColumn& c : kor.columns()) {
      proto::KorValue* v = r->add_values();
      if (pick(3) == 0) v->set_type(c.type());   // its own type may be written too
      randomValue(rng, c.type(), v);
    }
  }
  kor.set_more(pick(2) == 0);
  return kor;
}

TEST(McWirePages, RowsAreReadStraightFromTheWireAsProtobufAndTheChecksReadThem) {
  std::mt19937 rng(20250301);
  const std::vector<std::vector<std::string>> asks = {{}, {"Name"}, {"Name", "IPAddress", "NodeIDs"}, {"Zed", "名前"}};
  for (int round = 0; round < 300; ++round) {
    const proto::KorAnswer kor = randomRowsPage(&rng);
    const std::string frame = pageFrame(78, kor);
    const std::vector<std::string>& named = asks[round % asks.size()];
    QueryAnswerBuilder::PageRead how;
    QueryAnswerBuilder::PageHeader header;
    const std::string direct = readDirect(frame, 78, named, &how, &header);
    ASSERT_EQ(how, QueryAnswerBuilder::PageRead::kRead) << "round " << round;
    EXPECT_EQ(direct, readParsed(frame, named)) << "round " << round;
    EXPECT_EQ(header.more, kor.more());
    EXPECT_EQ(static_cast<int>(std::count(direct.begin(), direct.end(), '[')),
              kor.resources_size() + kor.rows_size());
  }
}

TEST(McWirePages, ARowIsTheResourceItsColumnsMake) {
  proto::KorAnswer rows;
  rows.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
  proto::KorColumn* c = rows.add_columns();
  c->set_name("Name");
  c->set_type(VX_CHAR_PTR);
  c = rows.add_columns();
  c->set_name("Float");
  c->set_type(VX_FLOAT64);
  c = rows.add_columns();
  c->set_name("LogicalID");
  c->set_type(VX_INT32);
  proto::KorRow* r = rows.add_rows();
  r->set_handle("node/1/sxn0");
  r->add_values()->set_text("sxn0");
  r->add_values()->set_int_value(3);
  r->add_values()->set_int_value(-9);
  proto::KorAnswer resources;
  *resources.add_resources() = resource(
      "node/1/sxn0", {textAttr("Name", "sxn0"), intAttr("Float", VX_FLOAT64, 3), intAttr("LogicalID", VX_INT32, -9)});
  QueryAnswerBuilder::PageRead how;
  for (const std::vector<std::string>& named :
       {std::vector<std::string>{"Name", "Float"}, std::vector<std::string>{"Name", "PortID"}}) {
    const std::string fromRows = readDirect(pageFrame(3, rows), 3, named, &how);
    ASSERT_EQ(how, QueryAnswerBuilder::PageRead::kRead);
    EXPECT_EQ(fromRows, readDirect(pageFrame(3, resources), 3, named, &how));
    EXPECT_EQ(fromRows, readParsed(pageFrame(3, rows), named));
  }
  EXPECT_EQ(readDirect(pageFrame(3, rows), 3, {"Name"}, &how),
            "[node/1/sxn0 errnum=0 Name:" + std::to_string(VX_CHAR_PTR) + "='sxn0' LogicalID:" +
                std::to_string(VX_INT32) + "=-9]");
}

TEST(McWirePages, RowsBreakingTheContractAreRefused) {
  auto base = [] {
    proto::KorAnswer kor;
    kor.set_class_name(KOR_CLASS_NETWORK_INTERFACE);
    proto::KorColumn* c = kor.add_columns();
    c->set_name("LogicalID");
    c->set_type(VX_INT32);
    proto::KorRow* r = kor.add_rows();
    r->set_handle("node/1/sxn0");
    r->add_values()->set_int_value(1);
    return kor;
  };
  std::string why;
  ASSERT_EQ(velt::mc::internal::checkQueryAnswer(base(), &why), MC_OK) << why;
  std::vector<std::pair<std::string, proto::KorAnswer>> bad;
  proto::KorAnswer k = base();
  k.mutable_rows(0)->add_values()->set_int_value(2);
  bad.push_back({"a row with more values than columns", k});
  k = base();
  k.mutable_rows(0)->clear_values();
  bad.push_back({"a row with fewer values than columns", k});
  k = base();
  k.mutable_rows(0)->mutable_values(0)->set_type(VX_INT64);
  bad.push_back({"a value of another type than its column's", k});
  k = base();
  k.mutable_rows(0)->mutable_values(0)->set_int_value(int64_t{INT32_MAX} + 1);
  bad.push_back({"a value past its column's type", k});
  k = base();
  k.mutable_rows(0)->clear_handle();
  bad.push_back({"a row without a handle", k});
  k = base();
  k.mutable_columns(0)->clear_name();
  bad.push_back({"a column without a name", k});
  k = base();
  k.set_class_name(std::string("Zel\0", 4));
  bad.push_back({"a class name with a NUL byte", k});
  k = base();
  k.clear_rows();
  for (int i = 0; i < 65; ++i) *k.add_columns() = k.columns(0);
  bad.push_back({"65 columns", k});
  for (const auto& b : bad) {
    EXPECT_EQ(velt::mc::internal::checkQueryAnswer(b.second, &why), MC_EPROTO) << b.first;
    QueryAnswerBuilder builder({});
    EXPECT_EQ(builder.addPage(b.second, &why), MC_EPROTO) << b.first;
    QueryAnswerBuilder direct({});
    QueryAnswerBuilder::PageHeader header;
    EXPECT_NE(direct.readPage(pageFrame(9, b.second), 9, &header), QueryAnswerBuilder::PageRead::kRead) << b.first;
    EXPECT_EQ(direct.count(), 0u) << b.first;
  }
}

// Bytes of a field, for frames protobuf would not write.
std::string varintBytes(uint64_t v) {
  std::string out;
  do {
    uint8_t b = v & 0x7F;
    v >>= 7;
    out.push_back(static_cast<char>(v ? (b | 0x80) : b));
  } while (v);
  return out;
}
std::string bytesField(uint32_t field, const std::string& bytes) {
  return varintBytes(field << 3 | 2) + varintBytes(bytes.size()) + bytes;
}
std::string varintField(uint32_t field, uint64_t v) { return varintBytes(field << 3) + varintBytes(v); }
// A frame answering request 5 whose KorAnswer holds the resources given
// as bytes.
std::string frameOf(const std::vector<std::string>& resources, uint64_t id = 5) {
  std::string kor;
  for (const std::string& r : resources) kor += bytesField(1, r);
  return varintField(1, 1) + bytesField(3, varintField(1, id) + bytesField(5, kor));
}

TEST(McWirePages, FramesWrittenOtherwiseAreLeftToProtobuf) {
  const std::string name = bytesField(1, "Name") + bytesField(2, varintField(1, VX_CHAR_PTR) + bytesField(4, "sxn0"));
  const std::string good = bytesField(1, KOR_CLASS_NETWORK_INTERFACE) + bytesField(2, "node/1/sxn0") + bytesField(3, name);
  QueryAnswerBuilder::PageRead how;
  // As protobuf writes it: read, and the same as parsed.
  EXPECT_EQ(readDirect(frameOf({good}), 5, {"Name"}, &how), readParsed(frameOf({good}), {"Name"}));
  EXPECT_EQ(how, QueryAnswerBuilder::PageRead::kRead);

  struct Case {
    const char* what;
    std::string frame;
  };
  const std::string ids = bytesField(1, "NodeIDs") + bytesField(2, varintField(1, VX_UINT64_ARRAY) + varintField(6, 9));
  std::vector<Case> cases = {
      {"an unknown field", frameOf({good + varintField(9, 1)})},
      {"fields out of order", frameOf({bytesField(2, "node/1/sxn0") + bytesField(1, KOR_CLASS_NETWORK_INTERFACE)})},
      {"a field twice", frameOf({good + bytesField(2, "node/1/sxn1")})},
      {"an array not packed", frameOf({bytesField(2, "node/1") + bytesField(3, ids)})},
      {"a varint longer than needed", varintField(1, 1) + bytesField(3, "\x08\x85\x00" + bytesField(5, bytesField(1, good)))},
      {"a string that is not UTF-8", frameOf({bytesField(2, "node/\xc3\x28")})},
      {"a surrogate", frameOf({bytesField(2, "node/\xed\xa0\x80")})},
      {"another request's answer", frameOf({good}, 6)},
      {"a refusal", varintField(1, 1) + bytesField(3, varintField(1, 5) + varintField(2, 10))},
      {"another wire version", varintField(1, 2) + bytesField(3, varintField(1, 5))},
      {"an event", varintField(1, 1) + bytesField(7, varintField(1, 3))},
      {"a resource without a handle", frameOf({good, bytesField(1, "x")})},
      {"a name with a NUL byte", frameOf({bytesField(2, "node/1") + bytesField(3, bytesField(1, std::string("N\0", 2)))})},
      {"a VX_INT32 past its range",
       frameOf({bytesField(2, "node/1") +
                bytesField(3, bytesField(1, "L") + bytesField(2, varintField(1, VX_INT32) + varintField(2, 1ull << 31)))})},
      {"bytes after the frame", frameOf({good}) + varintField(1, 1)},
      {"a length past the end", frameOf({good}).substr(0, 20)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(readDirect(c.frame, 5, {"Name"}, &how), "") << c.what;
    EXPECT_EQ(how, QueryAnswerBuilder::PageRead::kNotRead) << c.what;
  }
  // Protobuf takes some of them; the general path then answers.
  proto::AgentFrame parsed;
  EXPECT_TRUE(parsed.ParseFromString(cases[0].frame));
  EXPECT_TRUE(parsed.ParseFromString(cases[1].frame));
  EXPECT_TRUE(parsed.ParseFromString(cases[3].frame));
}

TEST_F(McQuery, APageWrittenOtherwiseIsStillTaken) {
  start([](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    proto::KorAnswer page;
    page.set_more(true);
    *page.add_resources() = resource("node/1/sxn0", {textAttr("Name", "sxn0")});
    conn.reply(r.id(), 0, "", &page);
    // The second page's resource carries a field this library does not
    // know; protobuf skips it.
    std::string res = resource("node/2/sxn0", {textAttr("Name", "sxn1")}).SerializeAsString() + varintField(9, 1);
    conn.sendMessage(varintField(1, 1) + bytesField(3, varintField(1, r.id()) + bytesField(5, bytesField(1, res))));
    conn.peerClosed();
  });
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  ASSERT_EQ(queryClass(session_, &rsp, &count, KOR_CLASS_NETWORK_INTERFACE, {"Name"}), MC_OK) << cu_get_errmsg();
  EXPECT_EQ(describe(rsp, count), "[node/1/sxn0 errnum=0 Name:7='sxn0'][node/2/sxn0 errnum=0 Name:7='sxn1']");
  mc_free_response(rsp);
}

// ---- threads and error records ----

using McThreads = McTest;

TEST_F(McThreads, SecondThreadOnASessionGetsEBUSY) {
  Signal requestSeen, answerNow;
  start([&](AgentConn& conn) {
    proto::Request r;
    if (!conn.readRequest(&r)) return;
    requestSeen.raise();
    if (!answerNow.wait()) return;
    conn.reply(r.id(), 0);
    conn.peerClosed();
  });
  auto f = std::async(std::launch::async, [&] {
    mc_query_rsp_t* rsp = nullptr;
    uint32_t count = 0;
    return queryClass(session_, &rsp, &count);
  });
  OnScopeExitHangUp release(agent_, answerNow);
  // The query's thread is inside its call until the agent answers.
  ASSERT_TRUE(requestSeen.wait());
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_EBUSY);
  EXPECT_EQ(cu_get_error(), MC_EBUSY);
  EXPECT_NE(strstr(cu_get_errmsg(), "another thread"), nullptr) << cu_get_errmsg();
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(queryClass(session_, &rsp, &count), MC_EBUSY);
  EXPECT_EQ(mc_end_session(session_), MC_EBUSY);
  answerNow.raise();
  ASSERT_EQ(f.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(f.get(), MC_OK);
  EXPECT_EQ(mc_dispatch(session_, MC_DISPATCH_OPTS_NO_WAIT), MC_OK) << "free again once the call ended";
}

TEST(McErrorRecord, CodeAndTextAreKeptPerThread) {
  cu_set_error(0, "%s", "");
  mc_query_rsp_t* rsp = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(mc_query_p_select_bp(987654321, &rsp, &count, KOR_CLASS_PEER_NODE, nullptr, nullptr, 0), MC_ESESSION);
  EXPECT_EQ(cu_get_error(), MC_ESESSION);
  EXPECT_NE(strstr(cu_get_errmsg(), "987654321"), nullptr) << cu_get_errmsg();
  std::thread other([] {
    EXPECT_EQ(cu_get_error(), 0);
    EXPECT_EQ(mc_dispatch(1, 77), MC_EINVAL);
    EXPECT_EQ(cu_get_error(), MC_EINVAL);
    EXPECT_NE(strstr(cu_get_errmsg(), "77"), nullptr) << cu_get_errmsg();
  });
  other.join();
  EXPECT_EQ(cu_get_error(), MC_ESESSION);
}

}  // namespace
}  // namespace mc_test

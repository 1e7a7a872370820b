// libvx_mc's reading of the agent's KOR answers and events: the limits on
// what the agent may make us allocate, the agent's return codes as MC_E*
// numbers, and the conversion of resources and attributes into the C
// structures of vx_mc.h. Only libvx_mc (and its tests and fuzz target)
// include this header. Thread-safe: no shared state.
//
// What this library relies on from the agent (one connection per session)
// ------------------------------------------------------------------------
// Connection
//  * ClientFrame.hello first: interface_word 0, our pid and program name,
//    responsiveness type 0 (no pings wanted), socket_options 0. The agent
//    answers with one AgentFrame.hello_reply: rc 0 accepts;
//    TK_GS_PERMISSION_DENIED (8) refuses the caller -> MC_EPERM;
//    TK_GS_LIMIT_EXCEEDED (14) too many clients -> MC_ELIMIT;
//    TK_GS_NOT_SUPPORTED (21) -> MC_ENOTSUP. The text says why.
//  * Every AgentFrame has version 1. After the hello answer the agent may
//    send domain_control and notification frames (ignored here), ping
//    frames (answered at once with a ping_reply of the same seq, whenever
//    the library reads), replies and kor_event frames. A second
//    hello_reply or a frame without a body breaks the protocol.
// Requests (Request.id counts 1, 2, ... per connection; the library has at
// most one request outstanding and waits up to 60 s for its Reply, which
// carries the same id; kor_event frames may come before the Reply)
//  * kor_query {class_name, attributes (empty: every attribute), rows true}
//    -> Reply rc 0, kor.resources: every resource of the class, each with
//       a non-empty handle and, for each attribute asked for, in any order,
//       one KorAttribute with that name (all of the class's attributes when
//       none was named). An attribute name the class does not have is left
//       out of every resource (the text may name it); the library then marks
//       each resource that lacks a named attribute with MC_ENOATTR.
//       Or, as this library asks, the same as rows: kor.class_name,
//       kor.columns (each a non-empty name and a type) and kor.rows, each
//       row a non-empty handle and one value per column, in the columns'
//       order, whose type is 0 or the column's. A resource of a row has
//       the columns as its attributes. A page may hold both forms (the
//       resources first).
//    -> An answer in several Replies (KorAnswer.more on all but the last)
//       is joined; the rc and text are the first page's, and each page of
//       rows carries its own columns.
//    -> rc TK_GS_UNKNOWN_GROUP (10): no such class -> the call fails with
//       MC_ENOCLASS.
//  * kor_register {kind CLASS_EVENT, class_name, event ("ResourceDefined" |
//    "ResourceUndefined")} or {kind RESOURCE_EVENT, class_name, event (the
//    condition, "ConfigChanged"), attributes to carry}
//    -> Reply rc 0, kor.registration: a non-zero id, unique on this
//       connection for its lifetime. Every kor_event of the registration
//       comes after this Reply.
//    -> Reply rc 0 with kor.registration 0: refused because a named
//       attribute does not exist in the class (text says which) ->
//       mc_reg_rsp_t.mc_errnum MC_ENOATTR.
//    -> refusals, all given as mc_reg_rsp_t.mc_errnum with the call itself
//       succeeding: TK_GS_UNKNOWN_GROUP (10) no such class -> MC_ENOCLASS;
//       TK_GS_BAD_PARAMETER (6) unknown event or condition, malformed
//       request -> MC_EINVAL; TK_GS_LIMIT_EXCEEDED (14) too many
//       registrations -> MC_ELIMIT; TK_GS_PERMISSION_DENIED (8) -> MC_EPERM;
//       TK_GS_NO_MEMORY (7) -> MC_ENOMEM.
//  * kor_unregister {registration: the agent's id} -> Reply rc 0. The agent
//    sends no kor_event of it after the Reply. A refusal (an id the agent
//    does not know: TK_GS_BAD_PARAMETER) is mapped as for registrations and
//    given in mc_errnum; the library forgets the registration either way.
//  * Any request: TK_GS_NOT_SUPPORTED (21) from an agent that offers no KOR
//    -> the call fails with MC_ENOTSUP; TK_GS_VERSION_MISMATCH (19) ->
//    MC_ENOTSUP. For queries TK_GS_BAD_PARAMETER, TK_GS_LIMIT_EXCEEDED,
//    TK_GS_PERMISSION_DENIED and TK_GS_NO_MEMORY fail the call with
//    MC_EINVAL, MC_ELIMIT, MC_EPERM, MC_ENOMEM. Any other rc is outside this
//    contract: the call fails with MC_EPROTO (the session stays usable).
//  * Whenever a response carries a non-zero mc_errnum, the number and the
//    agent's text are also recorded with cu_set_error.
// Events
//  * AgentFrame.kor_event {registration: the id of the Reply, class_name,
//    event, flags (MC_EVENT_UNASSIGN 32 | MC_EVENT_UNASSIGN_UNDEF 64 when a
//    resource was undefined; other bits are dropped), resource {handle,
//    attributes: those named at registration, for resource events},
//    sequence}. Events arrive in the order of the replicated stream; events
//    of ids this connection does not hold (any more) are dropped.
// Limits (past any of them the agent broke the contract: MC_EPROTO)
//  * one message at most 16 MiB (the framing's bound); at most 1,000,000
//    resources (or rows) in one answer; at most 64 attributes per resource
//    or event, or columns per page;
//    names, handles and string values at most 64 KiB, without NUL bytes;
//    arrays at most 65,536 elements; VX_INT32 / VX_UINT32 values (and
//    array elements) within their 32-bit range.
// Values: KorValue.type is a vx_data_type_t. VX_INT32, VX_INT64 read
// int_value; VX_UINT32, VX_UINT64 uint_value; VX_CHAR_PTR text;
// VX_INT32_ARRAY, VX_INT64_ARRAY int_array; VX_UINT32_ARRAY,
// VX_UINT64_ARRAY uint_array; VX_CHAR_PTR_ARRAY text_array. An attribute of
// any other type (floats, binaries, handles, numbers this library does not
// know) has no representation on the wire: it is left out of the entry or
// event, and does not count as missing.
// Failures: a malformed frame or a breach of the above fails the call that
// read it with MC_EPROTO and closes the session's connection; every later
// call on the session returns MC_ECONNLOST.
#ifndef VELT_PLATFORM_MC_INTERNAL_MC_WIRE_H_
#define VELT_PLATFORM_MC_INTERNAL_MC_WIRE_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "velt.pb.h"
#include "vx_mc.h"

namespace velt {
namespace mc {
namespace internal {

// What the agent may make us allocate.
constexpr size_t kMaxResources = 1000000;
constexpr size_t kMaxAttributes = 64;
constexpr size_t kMaxString = 64 * 1024;
constexpr size_t kMaxArray = 65536;

// The agent's return codes this library reads (numbers of tk_gs_rc_t, which
// the agent uses on its whole socket).
constexpr int32_t kAgentOk = 0;
constexpr int32_t kAgentBadParameter = 6;
constexpr int32_t kAgentNoMemory = 7;
constexpr int32_t kAgentPermissionDenied = 8;
constexpr int32_t kAgentUnknownGroup = 10;
constexpr int32_t kAgentLimitExceeded = 14;
constexpr int32_t kAgentVersionMismatch = 19;
constexpr int32_t kAgentNotSupported = 21;

// The MC_E* number of an agent's return code (MC_EPROTO for a code
// outside the contract above).
int codeOfAgentRc(int32_t rc);

// The name of an MC_* return code, "MC_E?" for others.
const char* codeName(int code);

// Response arrays handed to the caller. Each has a hidden header in front
// of it that says what it holds, so that mc_free_response can free every
// kind.
enum class ResponseKind : uint32_t { kQuery = 1, kRegistration = 2 };

// A zeroed response array of count entries (count >= 1); null when out of
// memory.
mc_query_rsp_t* allocQueryResponses(uint32_t count);
mc_reg_rsp_t* allocRegResponse();
// Frees a response array of any kind with everything it owns. Null is
// allowed; a pointer this library did not hand out is ignored when its
// header does not look like ours (best effort: it cannot be told safely).
void freeResponse(void* response);

// Checks a query's answer against the limits and value rules. Returns
// MC_OK, or MC_EPROTO with *why.
int checkQueryAnswer(const proto::KorAnswer& answer, std::string* why);

// Converts a checked answer. named: the attribute names the caller asked
// for (a resource lacking one gets mc_errnum MC_ENOATTR). On MC_OK *out is
// the array (null when there are no resources) and *count its length;
// MC_ENOMEM leaves nothing allocated.
int convertQueryAnswer(const proto::KorAnswer& answer, const std::vector<std::string>& named,
                       mc_query_rsp_t** out, uint32_t* count);

// A block of memory that a query's response array owns (mc_wire.cc).
struct ResponseBlock;

// The response array of one query, built as the pages of the answer
// arrive (a large answer comes in several), so that no page needs to be
// kept once it is converted. Handles, names and values lie in a few large
// blocks that the response array owns and mc_free_response frees with it:
// one allocation per block rather than one per string. An attribute name
// that repeats the one at the same place in the resource before is stored
// once. Thread-compatible.
class QueryAnswerBuilder {
 public:
  // named: as for convertQueryAnswer.
  explicit QueryAnswerBuilder(const std::vector<std::string>& named);
  ~QueryAnswerBuilder();
  QueryAnswerBuilder(const QueryAnswerBuilder&) = delete;
  QueryAnswerBuilder& operator=(const QueryAnswerBuilder&) = delete;

  // Checks one page as checkQueryAnswer does (the bound on resources counts
  // every page so far) and converts it. MC_OK; MC_EPROTO with *why; or
  // MC_ENOMEM, after which the builder holds an incomplete answer that is
  // only good for being destroyed.
  int addPage(const proto::KorAnswer& page, std::string* why);
  // What readPage made of a page besides its resources.
  struct PageHeader {
    std::string text;   // the Reply's text
    bool more = false;  // another page follows
  };
  enum class PageRead {
    kRead,      // the page's resources are added, *header filled
    kNotRead,   // nothing added: parse the frame and use addPage
    kNoMemory,  // as for addPage's MC_ENOMEM
  };
  // Reads frame, one page of the answer to request id, straight from its
  // bytes, without making messages of it, when it is written the way
  // agents write it: an AgentFrame of version 1 holding only a Reply with
  // that id and rc 0, every field once, in field order, nothing unknown,
  // every string valid UTF-8, and the resources as addPage checks them.
  // Anything else (a refusal, a frame of another kind, another spelling of
  // the same message, a breach of the contract) is kNotRead: the general
  // path then gives the same answer protobuf and addPage would.
  PageRead readPage(const std::string& frame, uint64_t id, PageHeader* header);
  // Resources converted so far.
  size_t count() const { return entries_.size(); }
  // Hands the response array over (*out null when there are no resources)
  // and leaves the builder empty. MC_OK, or MC_ENOMEM (nothing handed out).
  int finish(mc_query_rsp_t** out, uint32_t* count);

 private:
  // An attribute name as the last resource had it at one place.
  struct SeenName {
    const char* text = nullptr;
    size_t size = 0;
    uint64_t bit = 0;   // its bit among the names asked for; 0: not asked
  };

  void* allocate(size_t bytes, size_t align);
  char* copyText(std::string_view text);
  const char* nameOf(std::string_view name, size_t place, uint64_t* bit);
  // For a resource and an attribute as protobuf messages or as read from
  // the wire (mc_wire.cc).
  template <typename Attribute>
  bool convertAttribute(const Attribute& in, const char* name, mc_attribute_t* a);
  template <typename Resource>
  bool addResource(const Resource& r);
  // Takes the (checked) columns of a page of rows, each a name() and a
  // type(); their names are kept as attribute names are. False when out
  // of memory.
  template <typename ColumnList>
  bool takeColumns(const ColumnList& columns);
  // A (checked) row of the page whose columns were taken last.
  template <typename Row>
  bool addRow(const Row& r);

  std::vector<std::string> wanted_;   // the names asked for, sorted and unique
  uint64_t allWanted_ = 0;
  std::vector<mc_query_rsp_t> entries_;
  std::vector<SeenName> seen_;        // by place in the resource
  // The columns of the page of rows being read.
  struct PageColumn {
    const char* name = nullptr;
    uint32_t type = 0;
  };
  std::vector<PageColumn> columns_;
  uint64_t columnsSeen_ = 0;          // the bits of the names asked for among them
  uint32_t representableColumns_ = 0;
  ResponseBlock* blocks_ = nullptr;   // newest first; the first one is being filled
  size_t nextBlockBytes_;
};

// Checks an event against the limits and value rules. Returns MC_OK with
// *cost (about the memory it holds while it waits for dispatch), or
// MC_EPROTO with *why.
int checkEvent(const proto::KorEvent& event, size_t* cost, std::string* why);

// A checked event as a callback sees it, valid while this object lives.
// Thread-compatible.
class EventView {
 public:
  EventView() = default;
  ~EventView();
  EventView(const EventView&) = delete;
  EventView& operator=(const EventView&) = delete;

  // Builds the class event of registration regId. className: the class of
  // the registration, used when the event names none. The event must
  // outlive the view.
  // eventName: the event registered, used when the event names none.
  void buildClassEvent(const proto::KorEvent& event, mc_reg_id_t regId, const std::string& className,
                       const std::string& eventName);
  // Builds the resource event; MC_ENOMEM when its attributes cannot be
  // allocated.
  int buildResourceEvent(const proto::KorEvent& event, mc_reg_id_t regId, const std::string& className);

  const mc_class_event_t& classEvent() const { return classEvent_; }
  const mc_event_t& resourceEvent() const { return resourceEvent_; }

 private:
  mc_class_event_t classEvent_{};
  mc_event_t resourceEvent_{};
  mc_attribute_t* attrs_ = nullptr;
  uint32_t attrCount_ = 0;
};

// The fuzz target's way in: parses bytes as an AgentFrame and takes it
// through the checks and conversions a session applies to replies and
// events, freeing what it built. Returns the MC_* code the session would
// have met. A page that QueryAnswerBuilder::readPage reads straight from
// the bytes must give what protobuf and addPage give; otherwise the
// process aborts, so that the fuzzer reports the frame.
int convertAgentFrameForTesting(const uint8_t* data, size_t size);

}  // namespace internal
}  // namespace mc
}  // namespace velt

#endif  // VELT_PLATFORM_MC_INTERNAL_MC_WIRE_H_

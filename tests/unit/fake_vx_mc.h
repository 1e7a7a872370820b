// libvx_mc in memory, for the daemon's tests. Every mc_* call of vx_mc.h is
// answered from what the test scripted here (the resources of each class,
// failures of single calls, refused registrations) and recorded (sessions,
// queries, registrations, unregistrations, responses handed out and given
// back). Events the test fires are queued for every active registration
// that matches them and run by the next mc_dispatch of that registration's
// session, on the thread that calls it, as the real library does.
//
// Thread-safe: the code under test calls in from its own threads while the
// test scripts, fires and reads from the test thread. Callbacks run without
// the fake's lock held, so they may call into it again.
#ifndef VELT_TESTS_UNIT_FAKE_VX_MC_H_
#define VELT_TESTS_UNIT_FAKE_VX_MC_H_

#include <stdint.h>

#include <string.h>

#include <deque>
#include <string>
#include <vector>

#include "vx_mc.h"

namespace fake_mc {

// One attribute of a scripted resource or event; the type says which
// value field is used.
struct Attr {
  std::string name;
  vx_data_type_t type = VX_UNKNOWN;
  int32_t int32 = 0;
  uint32_t uint32 = 0;
  int64_t int64 = 0;
  uint64_t uint64 = 0;
  std::string text;
  std::vector<int32_t> int32s;
  std::vector<uint32_t> uint32s;
  std::vector<uint64_t> uint64s;

  static Attr Text(const std::string& name, const std::string& text);
  static Attr Int32(const std::string& name, int32_t value);
  static Attr Uint32(const std::string& name, uint32_t value);
  static Attr Int64(const std::string& name, int64_t value);
  static Attr Uint64(const std::string& name, uint64_t value);
  static Attr Uint32Array(const std::string& name, std::vector<uint32_t> values);
  static Attr Uint64Array(const std::string& name, std::vector<uint64_t> values);
};

// Attributes in the layout of the C API (what a query entry or an event
// carries), with storage that stays put for as long as the array lives.
class AttrArray {
 public:
  explicit AttrArray(const std::vector<Attr>& attrs) {
    for (const Attr& a : attrs) add(a);
  }
  AttrArray(const AttrArray&) = delete;
  AttrArray& operator=(const AttrArray&) = delete;

  mc_attribute_t* data() { return out_.empty() ? nullptr : out_.data(); }
  uint32_t count() const { return static_cast<uint32_t>(out_.size()); }

 private:
  char* keep(const std::string& s) {
    strings_.emplace_back(s.begin(), s.end());
    strings_.back().push_back('\0');
    return strings_.back().data();
  }

  void add(const Attr& a) {
    mc_attribute_t m;
    memset(&m, 0, sizeof m);
    m.name = keep(a.name);
    m.type = a.type;
    switch (a.type) {
      case VX_INT32:
        m.value.int32 = a.int32;
        break;
      case VX_UINT32:
        m.value.uint32 = a.uint32;
        break;
      case VX_INT64:
        m.value.int64 = a.int64;
        break;
      case VX_UINT64:
        m.value.uint64 = a.uint64;
        break;
      case VX_CHAR_PTR:
        m.value.string = keep(a.text);
        break;
      case VX_INT32_ARRAY:
        int32s_.push_back(a.int32s);
        m.value.array = array(static_cast<uint32_t>(a.int32s.size()));
        m.value.array->elements.int32s = int32s_.back().empty() ? nullptr : int32s_.back().data();
        break;
      case VX_UINT32_ARRAY:
        uint32s_.push_back(a.uint32s);
        m.value.array = array(static_cast<uint32_t>(a.uint32s.size()));
        m.value.array->elements.uint32s = uint32s_.back().empty() ? nullptr : uint32s_.back().data();
        break;
      case VX_UINT64_ARRAY:
        uint64s_.push_back(a.uint64s);
        m.value.array = array(static_cast<uint32_t>(a.uint64s.size()));
        m.value.array->elements.uint64s = uint64s_.back().empty() ? nullptr : uint64s_.back().data();
        break;
      default:
        break;
    }
    out_.push_back(m);
  }

  vx_array_t* array(uint32_t count) {
    arrays_.emplace_back();
    vx_array_t* a = &arrays_.back();
    memset(a, 0, sizeof *a);
    a->count = count;
    return a;
  }

  std::vector<mc_attribute_t> out_;
  std::deque<std::vector<char>> strings_;
  std::deque<vx_array_t> arrays_;
  std::deque<std::vector<int32_t>> int32s_;
  std::deque<std::vector<uint32_t>> uint32s_;
  std::deque<std::vector<uint64_t>> uint64s_;
};

// One resource of a class as a query answers it. A non-zero errnum makes
// the entry an empty one that says why (no attributes are handed out).
struct Resource {
  std::string handle;
  uint32_t errnum = MC_OK;
  std::vector<Attr> attrs;
};

// A registration as the code under test asked for it.
struct Registration {
  mc_sess_hndl_t session = 0;
  bool isClassEvent = true;
  std::string className;
  std::string eventName;  // class events: "ResourceDefined", "ResourceUndefined"
  std::string condition;  // resource events: "ConfigChanged"
  std::string select;     // resource events
  uint32_t options = 0;   // resource events
  std::vector<std::string> attrNames;  // resource events
  uint32_t errnum = MC_OK;             // what the response said
  mc_reg_id_t id = MC_REG_ID_NONE;     // what the response carried
  bool active = false;                 // can still deliver events
};

// The arguments of one mc_start_session that succeeded.
struct SessionStart {
  bool contactNull = true;
  std::string contact;
  uint32_t options = 0;
  int mode = 0;
  mc_sess_hndl_t session = 0;
};

// Scripted answers of the registration calls. They are keyed by class and
// by event name (class events) or condition (resource events).
enum class RegScript {
  kCallFails,       // the call itself returns the given code
  kRefusedWithId,   // the call works; the response has the errnum and an id
  kRefusedNoId,     // the call works; the response has the errnum, no id
  kAcceptedNoId,    // the call works; errnum 0 but no id either
};

// Back to a fresh library: no resources, no scripts, every session and
// registration forgotten (a dispatch that waits returns MC_ESESSION),
// every counter 0. Responses still handed out are freed.
void resetForTesting();

// The resources a query of className answers (in this order).
void setResourcesForTesting(const std::string& className, std::vector<Resource> resources);

// The next times calls of mc_start_session fail with rc (no session).
void failStartSessionForTesting(int times, int rc);
// After the next `after` queries of className that are answered, the
// following times fail with rc.
void failQueryForTesting(const std::string& className, int times, int rc, int after = 0);
// The next times registrations of (className, eventOrCondition) are
// answered as script says; rcOrErrnum is the call's code for kCallFails,
// the response's errnum otherwise. times < 0: until cleared.
void scriptRegistrationForTesting(const std::string& className, const std::string& eventOrCondition,
                                  RegScript script, int rcOrErrnum, int times);
void clearRegistrationScriptsForTesting();
// The mc_dispatch that waits now, or else the next one, returns rc once
// without running callbacks.
void failDispatchForTesting(int rc);

// Queues a class event for every active class registration of
// (className, eventName); returns for how many.
int fireClassEventForTesting(const std::string& className, const std::string& eventName, uint32_t errnum = MC_OK,
                             const std::string& handle = "");
// Queues a resource event with the resource's attributes (all of them, in
// its order) and flags for every active resource registration of
// className; returns for how many.
int fireResourceEventForTesting(const std::string& className, const Resource& resource, uint32_t flags,
                                uint32_t errnum = MC_OK);

// What happened.
int sessionsStartedForTesting();
int sessionsEndedForTesting();
// Sessions started and not ended.
int sessionsOpenForTesting();
std::vector<SessionStart> sessionStartsForTesting();
std::vector<Registration> registrationsForTesting();
int activeRegistrationsForTesting();
std::vector<mc_reg_id_t> unregisteredIdsForTesting();
int queriesForTesting(const std::string& className);
// The attribute names of the last query of className.
std::vector<std::string> lastQueryAttrsForTesting(const std::string& className);
// Responses handed out and not yet given back with mc_free_response.
int responsesOutstandingForTesting();
// mc_free_response calls with a pointer the fake never handed out.
int badFreesForTesting();
int dispatchCallsForTesting();
// Threads inside a waiting mc_dispatch right now.
int dispatchWaitersForTesting();
// Events queued and not yet dispatched, over all sessions.
int eventsQueuedForTesting();

}  // namespace fake_mc

#endif  // VELT_TESTS_UNIT_FAKE_VX_MC_H_

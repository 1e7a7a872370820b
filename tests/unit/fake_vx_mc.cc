// libvx_mc in memory; see fake_vx_mc.h.
#include "fake_vx_mc.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "vx_cu.h"

namespace fake_mc {

namespace {

// A response handed out: whatever it points into lives here.
struct Owned {
  virtual ~Owned() = default;
};

struct OwnedQuery : Owned {
  std::vector<mc_query_rsp_t> entries;
  std::deque<std::vector<char>> handles;
  std::vector<std::unique_ptr<AttrArray>> blocks;
};

struct OwnedReg : Owned {
  mc_reg_rsp_t rsp;
};

struct Callbacks {
  mc_class_event_cb_t* classCb = nullptr;
  mc_event_cb_t* eventCb = nullptr;
  void* arg = nullptr;
};

// One event waiting for its session's dispatch.
struct Delivery {
  mc_reg_id_t regId = MC_REG_ID_NONE;
  bool isClassEvent = true;
  Callbacks cb;
  std::string className;
  std::string eventName;
  std::string handle;
  uint32_t errnum = MC_OK;
  uint32_t flags = 0;
  uint64_t sequence = 0;
  std::vector<Attr> attrs;
};

struct Session {
  int mode = 0;
  int eventFd = -1;
  std::deque<Delivery> queue;
};

struct Script {
  RegScript what;
  int code;
  int timesLeft;  // < 0: until cleared
};

struct State {
  std::mutex mu;
  std::condition_variable cv;
  std::map<std::string, std::vector<Resource>> resources;
  int startFailuresLeft = 0;
  int startFailureRc = MC_OK;
  struct QueryFailure {
    int after;
    int times;
    int rc;
  };
  std::map<std::string, QueryFailure> queryFailures;
  std::map<std::string, Script> regScripts;                  // class/event -> script
  bool dispatchFailurePending = false;
  int dispatchFailureRc = MC_OK;

  mc_sess_hndl_t nextSession = 0x5e5500;
  mc_reg_id_t nextRegId = 1;
  uint64_t nextSequence = 1;
  std::map<mc_sess_hndl_t, Session> sessions;
  std::vector<Registration> registrations;
  std::map<mc_reg_id_t, Callbacks> callbacks;
  std::vector<mc_reg_id_t> unregistered;
  std::map<void*, std::unique_ptr<Owned>> outstanding;

  int started = 0;
  int ended = 0;
  std::vector<SessionStart> starts;
  std::map<std::string, int> queries;
  std::map<std::string, std::vector<std::string>> lastQueryAttrs;
  int badFrees = 0;
  int dispatchCalls = 0;
  int dispatchWaiters = 0;
};

State& state() {
  static State* s = new State();
  return *s;
}

int fail(int rc, const char* call) {
  cu_set_error(rc, "fake libvx_mc: %s failed with %d", call, rc);
  return rc;
}

bool knownClass(State& s, const char* name) {
  if (strcmp(name, KOR_CLASS_PEER_NODE) == 0 || strcmp(name, KOR_CLASS_NETWORK_INTERFACE) == 0) return true;
  return s.resources.count(name) != 0;
}

Registration* findRegistration(State& s, mc_sess_hndl_t session, mc_reg_id_t id) {
  for (Registration& r : s.registrations)
    if (r.active && r.session == session && r.id == id) return &r;
  return nullptr;
}

void signalSession(Session& session) {
  if (session.eventFd < 0) return;
  uint64_t one = 1;
  ssize_t n = write(session.eventFd, &one, sizeof one);
  (void)n;
}

void drainSession(Session& session) {
  if (session.eventFd < 0) return;
  uint64_t count;
  while (read(session.eventFd, &count, sizeof count) == sizeof count) {
  }
}

void endRegistrationsOf(State& s, mc_sess_hndl_t session) {
  for (Registration& r : s.registrations)
    if (r.session == session) r.active = false;
}

// The answer a registration of (className, key) gets, consuming one use of
// its script; null when none is scripted.
bool takeScript(State& s, const std::string& className, const std::string& key, Script* out) {
  auto it = s.regScripts.find(className + "/" + key);
  if (it == s.regScripts.end()) return false;
  *out = it->second;
  if (it->second.timesLeft > 0 && --it->second.timesLeft == 0) s.regScripts.erase(it);
  return true;
}

// Makes a registration as a script or the default says. Requires: s.mu held.
int registerLocked(State& s, Registration reg, const Callbacks& cb, mc_reg_rsp_t** response, const char* call) {
  const std::string key = reg.isClassEvent ? reg.eventName : reg.condition;
  Script script{RegScript::kCallFails, MC_OK, 0};
  const bool scripted = takeScript(s, reg.className, key, &script);
  if (scripted && script.what == RegScript::kCallFails) return fail(script.code, call);
  reg.errnum = MC_OK;
  reg.id = s.nextRegId++;
  if (scripted) {
    switch (script.what) {
      case RegScript::kRefusedWithId:
        reg.errnum = static_cast<uint32_t>(script.code);
        break;
      case RegScript::kRefusedNoId:
        reg.errnum = static_cast<uint32_t>(script.code);
        reg.id = MC_REG_ID_NONE;
        break;
      case RegScript::kAcceptedNoId:
        reg.id = MC_REG_ID_NONE;
        break;
      case RegScript::kCallFails:
        break;
    }
  }
  // A registration with an id exists (and delivers) until it is ended.
  reg.active = reg.id != MC_REG_ID_NONE;
  if (reg.active) s.callbacks[reg.id] = cb;
  auto owned = std::make_unique<OwnedReg>();
  owned->rsp.mc_errnum = reg.errnum;
  owned->rsp.reg_id = reg.id;
  *response = &owned->rsp;
  s.outstanding[&owned->rsp] = std::move(owned);
  s.registrations.push_back(std::move(reg));
  return MC_OK;
}

int queueFor(State& s, bool classEvent, const std::string& className, const std::string& eventName,
             const std::string& handle, uint32_t errnum, uint32_t flags, const std::vector<Attr>& attrs) {
  int n = 0;
  for (const Registration& r : s.registrations) {
    if (!r.active || r.isClassEvent != classEvent || r.className != className) continue;
    if (classEvent && r.eventName != eventName) continue;
    auto session = s.sessions.find(r.session);
    if (session == s.sessions.end()) continue;
    Delivery d;
    d.regId = r.id;
    d.isClassEvent = classEvent;
    d.cb = s.callbacks[r.id];
    d.className = className;
    d.eventName = eventName;
    d.handle = handle;
    d.errnum = errnum;
    d.flags = flags;
    d.sequence = s.nextSequence++;
    d.attrs = attrs;
    session->second.queue.push_back(std::move(d));
    signalSession(session->second);
    ++n;
  }
  if (n > 0) s.cv.notify_all();
  return n;
}

void runDelivery(mc_sess_hndl_t session, const Delivery& d) {
  if (d.isClassEvent) {
    mc_class_event_t e;
    memset(&e, 0, sizeof e);
    e.mc_errnum = d.errnum;
    e.reg_id = d.regId;
    e.class_name = d.className.c_str();
    e.event_name = d.eventName.c_str();
    e.rsrc_handle = d.handle.c_str();
    e.sequence = d.sequence;
    if (d.cb.classCb) d.cb.classCb(session, &e, d.cb.arg);
    return;
  }
  AttrArray block(d.attrs);
  mc_event_t e;
  memset(&e, 0, sizeof e);
  e.mc_errnum = d.errnum;
  e.reg_id = d.regId;
  e.class_name = d.className.c_str();
  e.rsrc_handle = d.handle.c_str();
  e.mc_event_flags = d.flags;
  e.attrs = block.data();
  e.attr_count = block.count();
  e.sequence = d.sequence;
  if (d.cb.eventCb) d.cb.eventCb(session, &e, d.cb.arg);
}

}  // namespace

// ------------------------------------------------------------------ Attr

Attr Attr::Text(const std::string& name, const std::string& text) {
  Attr a;
  a.name = name;
  a.type = VX_CHAR_PTR;
  a.text = text;
  return a;
}

Attr Attr::Int32(const std::string& name, int32_t value) {
  Attr a;
  a.name = name;
  a.type = VX_INT32;
  a.int32 = value;
  return a;
}

Attr Attr::Uint32(const std::string& name, uint32_t value) {
  Attr a;
  a.name = name;
  a.type = VX_UINT32;
  a.uint32 = value;
  return a;
}

Attr Attr::Int64(const std::string& name, int64_t value) {
  Attr a;
  a.name = name;
  a.type = VX_INT64;
  a.int64 = value;
  return a;
}

Attr Attr::Uint64(const std::string& name, uint64_t value) {
  Attr a;
  a.name = name;
  a.type = VX_UINT64;
  a.uint64 = value;
  return a;
}

Attr Attr::Uint32Array(const std::string& name, std::vector<uint32_t> values) {
  Attr a;
  a.name = name;
  a.type = VX_UINT32_ARRAY;
  a.uint32s = std::move(values);
  return a;
}

Attr Attr::Uint64Array(const std::string& name, std::vector<uint64_t> values) {
  Attr a;
  a.name = name;
  a.type = VX_UINT64_ARRAY;
  a.uint64s = std::move(values);
  return a;
}

// --------------------------------------------------------------- scripts

void resetForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  for (auto& entry : s.sessions)
    if (entry.second.eventFd >= 0) close(entry.second.eventFd);
  s.sessions.clear();
  s.resources.clear();
  s.startFailuresLeft = 0;
  s.startFailureRc = MC_OK;
  s.queryFailures.clear();
  s.regScripts.clear();
  s.dispatchFailurePending = false;
  s.dispatchFailureRc = MC_OK;
  s.registrations.clear();
  s.callbacks.clear();
  s.unregistered.clear();
  s.outstanding.clear();
  s.started = 0;
  s.ended = 0;
  s.starts.clear();
  s.queries.clear();
  s.lastQueryAttrs.clear();
  s.badFrees = 0;
  s.dispatchCalls = 0;
  s.cv.notify_all();
}

void setResourcesForTesting(const std::string& className, std::vector<Resource> resources) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.resources[className] = std::move(resources);
}

void failStartSessionForTesting(int times, int rc) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.startFailuresLeft = times;
  s.startFailureRc = rc;
}

void failQueryForTesting(const std::string& className, int times, int rc, int after) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.queryFailures[className] = {after, times, rc};
}

void scriptRegistrationForTesting(const std::string& className, const std::string& eventOrCondition,
                                  RegScript script, int rcOrErrnum, int times) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.regScripts[className + "/" + eventOrCondition] = Script{script, rcOrErrnum, times};
}

void clearRegistrationScriptsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.regScripts.clear();
}

void failDispatchForTesting(int rc) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  s.dispatchFailurePending = true;
  s.dispatchFailureRc = rc;
  s.cv.notify_all();
}

int fireClassEventForTesting(const std::string& className, const std::string& eventName, uint32_t errnum,
                             const std::string& handle) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return queueFor(s, true, className, eventName, handle, errnum, 0, {});
}

int fireResourceEventForTesting(const std::string& className, const Resource& resource, uint32_t flags,
                                uint32_t errnum) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return queueFor(s, false, className, "", resource.handle, errnum, flags, resource.attrs);
}

// ------------------------------------------------------------- observers

int sessionsStartedForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.started;
}

int sessionsEndedForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.ended;
}

int sessionsOpenForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return static_cast<int>(s.sessions.size());
}

std::vector<SessionStart> sessionStartsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.starts;
}

std::vector<Registration> registrationsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.registrations;
}

int activeRegistrationsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  int n = 0;
  for (const Registration& r : s.registrations) n += r.active ? 1 : 0;
  return n;
}

std::vector<mc_reg_id_t> unregisteredIdsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.unregistered;
}

int queriesForTesting(const std::string& className) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.queries.find(className);
  return it == s.queries.end() ? 0 : it->second;
}

std::vector<std::string> lastQueryAttrsForTesting(const std::string& className) {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.lastQueryAttrs[className];
}

int responsesOutstandingForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return static_cast<int>(s.outstanding.size());
}

int badFreesForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.badFrees;
}

int dispatchCallsForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.dispatchCalls;
}

int dispatchWaitersForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  return s.dispatchWaiters;
}

int eventsQueuedForTesting() {
  State& s = state();
  std::lock_guard<std::mutex> hold(s.mu);
  int n = 0;
  for (const auto& entry : s.sessions) n += static_cast<int>(entry.second.queue.size());
  return n;
}

}  // namespace fake_mc

// ------------------------------------------------------------ the C API

using fake_mc::Callbacks;
using fake_mc::Registration;
using fake_mc::State;

extern "C" {

int mc_start_session(const char* contact, uint32_t options, int mode, mc_sess_hndl_t* session) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  if (session == nullptr) return fake_mc::fail(MC_EINVAL, "mc_start_session");
  if (s.startFailuresLeft > 0) {
    --s.startFailuresLeft;
    return fake_mc::fail(s.startFailureRc, "mc_start_session");
  }
  if (contact != nullptr && contact[0] != '\0') return fake_mc::fail(MC_EINVAL, "mc_start_session");
  if (options != MC_SESSION_OPTS_NONE) return fake_mc::fail(MC_EINVAL, "mc_start_session");
  if (mode != MC_SESSION_MODE_QUERY && mode != MC_SESSION_MODE_FULL)
    return fake_mc::fail(MC_EINVAL, "mc_start_session");
  mc_sess_hndl_t handle = s.nextSession++;
  fake_mc::Session& created = s.sessions[handle];
  created.mode = mode;
  created.eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  ++s.started;
  fake_mc::SessionStart record;
  record.contactNull = contact == nullptr;
  record.contact = contact ? contact : "";
  record.options = options;
  record.mode = mode;
  record.session = handle;
  s.starts.push_back(record);
  *session = handle;
  return MC_OK;
}

int mc_end_session(mc_sess_hndl_t session) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.sessions.find(session);
  if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_end_session");
  if (it->second.eventFd >= 0) close(it->second.eventFd);
  s.sessions.erase(it);
  fake_mc::endRegistrationsOf(s, session);
  ++s.ended;
  s.cv.notify_all();
  return MC_OK;
}

int mc_query_p_select_bp(mc_sess_hndl_t session, mc_query_rsp_t** responses, uint32_t* count,
                         const char* class_name, const char* select, const char** attr_names,
                         uint32_t attr_count) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  if (s.sessions.count(session) == 0) return fake_mc::fail(MC_ESESSION, "mc_query_p_select_bp");
  if (responses == nullptr || count == nullptr || class_name == nullptr)
    return fake_mc::fail(MC_EINVAL, "mc_query_p_select_bp");
  if (select != nullptr && select[0] != '\0') return fake_mc::fail(MC_EINVAL, "mc_query_p_select_bp");
  const std::string cls = class_name;
  ++s.queries[cls];
  std::vector<std::string> asked;
  for (uint32_t i = 0; attr_names != nullptr && i < attr_count; ++i)
    asked.push_back(attr_names[i] ? attr_names[i] : "");
  s.lastQueryAttrs[cls] = asked;
  auto failure = s.queryFailures.find(cls);
  if (failure != s.queryFailures.end()) {
    State::QueryFailure& f = failure->second;
    if (f.after > 0) {
      --f.after;
    } else if (f.times > 0) {
      --f.times;
      return fake_mc::fail(f.rc, "mc_query_p_select_bp");
    }
  }
  if (!fake_mc::knownClass(s, class_name)) return fake_mc::fail(MC_ENOCLASS, "mc_query_p_select_bp");

  auto owned = std::make_unique<fake_mc::OwnedQuery>();
  const std::vector<fake_mc::Resource>& rs = s.resources[cls];
  for (const fake_mc::Resource& r : rs) {
    std::vector<fake_mc::Attr> picked;
    if (r.errnum == MC_OK) {
      if (asked.empty()) {
        picked = r.attrs;
      } else {
        // In the order asked; an attribute the resource lacks is left out.
        for (const std::string& name : asked)
          for (const fake_mc::Attr& a : r.attrs)
            if (a.name == name) picked.push_back(a);
      }
    }
    owned->blocks.push_back(std::make_unique<fake_mc::AttrArray>(picked));
    owned->handles.emplace_back(r.handle.begin(), r.handle.end());
    owned->handles.back().push_back('\0');
    mc_query_rsp_t entry;
    memset(&entry, 0, sizeof entry);
    entry.mc_errnum = r.errnum;
    entry.rsrc_handle = owned->handles.back().data();
    entry.attrs = owned->blocks.back()->data();
    entry.attr_count = owned->blocks.back()->count();
    owned->entries.push_back(entry);
  }
  *count = static_cast<uint32_t>(owned->entries.size());
  if (owned->entries.empty()) {
    *responses = nullptr;
    return MC_OK;
  }
  *responses = owned->entries.data();
  s.outstanding[owned->entries.data()] = std::move(owned);
  return MC_OK;
}

int mc_reg_class_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, const char* class_name,
                          const char* event_name, mc_class_event_cb_t* callback, void* arg) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.sessions.find(session);
  if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_reg_class_event_bp");
  if (response == nullptr || class_name == nullptr || event_name == nullptr || callback == nullptr)
    return fake_mc::fail(MC_EINVAL, "mc_reg_class_event_bp");
  if (it->second.mode != MC_SESSION_MODE_FULL) return fake_mc::fail(MC_EPERM, "mc_reg_class_event_bp");
  if (strcmp(event_name, KOR_EVENT_DEFINED) != 0 && strcmp(event_name, KOR_EVENT_UNDEFINED) != 0)
    return fake_mc::fail(MC_EINVAL, "mc_reg_class_event_bp");
  if (!fake_mc::knownClass(s, class_name)) return fake_mc::fail(MC_ENOCLASS, "mc_reg_class_event_bp");
  Registration reg;
  reg.session = session;
  reg.isClassEvent = true;
  reg.className = class_name;
  reg.eventName = event_name;
  Callbacks cb;
  cb.classCb = callback;
  cb.arg = arg;
  return fake_mc::registerLocked(s, std::move(reg), cb, response, "mc_reg_class_event_bp");
}

int mc_reg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, uint32_t options, const char* class_name,
                    const char* select, const char** attr_names, uint32_t attr_count, const char* condition,
                    mc_event_cb_t* callback, void* arg) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.sessions.find(session);
  if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_reg_event_bp");
  if (response == nullptr || class_name == nullptr || condition == nullptr || callback == nullptr || options != 0)
    return fake_mc::fail(MC_EINVAL, "mc_reg_event_bp");
  if (select != nullptr && select[0] != '\0') return fake_mc::fail(MC_EINVAL, "mc_reg_event_bp");
  if (strcmp(condition, KOR_CONDITION_CONFIG_CHANGED) != 0) return fake_mc::fail(MC_EINVAL, "mc_reg_event_bp");
  if (it->second.mode != MC_SESSION_MODE_FULL) return fake_mc::fail(MC_EPERM, "mc_reg_event_bp");
  if (!fake_mc::knownClass(s, class_name)) return fake_mc::fail(MC_ENOCLASS, "mc_reg_event_bp");
  Registration reg;
  reg.session = session;
  reg.isClassEvent = false;
  reg.className = class_name;
  reg.condition = condition;
  reg.select = select ? select : "";
  reg.options = options;
  for (uint32_t i = 0; attr_names != nullptr && i < attr_count; ++i)
    reg.attrNames.push_back(attr_names[i] ? attr_names[i] : "");
  Callbacks cb;
  cb.eventCb = callback;
  cb.arg = arg;
  return fake_mc::registerLocked(s, std::move(reg), cb, response, "mc_reg_event_bp");
}

int mc_unreg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, mc_reg_id_t reg_id) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.sessions.find(session);
  if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_unreg_event_bp");
  if (response == nullptr) return fake_mc::fail(MC_EINVAL, "mc_unreg_event_bp");
  Registration* reg = fake_mc::findRegistration(s, session, reg_id);
  if (reg == nullptr) return fake_mc::fail(MC_ENOREG, "mc_unreg_event_bp");
  reg->active = false;
  s.unregistered.push_back(reg_id);
  // Events of the registration not yet dispatched are dropped.
  std::deque<fake_mc::Delivery>& queue = it->second.queue;
  for (auto d = queue.begin(); d != queue.end();) d = d->regId == reg_id ? queue.erase(d) : d + 1;
  auto owned = std::make_unique<fake_mc::OwnedReg>();
  owned->rsp.mc_errnum = MC_OK;
  owned->rsp.reg_id = reg_id;
  *response = &owned->rsp;
  s.outstanding[&owned->rsp] = std::move(owned);
  return MC_OK;
}

int mc_dispatch(mc_sess_hndl_t session, int options) {
  State& s = fake_mc::state();
  std::deque<fake_mc::Delivery> taken;
  {
    std::unique_lock<std::mutex> hold(s.mu);
    ++s.dispatchCalls;
    if (s.sessions.count(session) == 0) return fake_mc::fail(MC_ESESSION, "mc_dispatch");
    if (options != MC_DISPATCH_OPTS_WAIT && options != MC_DISPATCH_OPTS_NO_WAIT)
      return fake_mc::fail(MC_EINVAL, "mc_dispatch");
    if (options == MC_DISPATCH_OPTS_WAIT) {
      ++s.dispatchWaiters;
      s.cv.wait(hold, [&] {
        auto it = s.sessions.find(session);
        return s.dispatchFailurePending || it == s.sessions.end() || !it->second.queue.empty();
      });
      --s.dispatchWaiters;
    }
    if (s.dispatchFailurePending) {
      s.dispatchFailurePending = false;
      return fake_mc::fail(s.dispatchFailureRc, "mc_dispatch");
    }
    auto it = s.sessions.find(session);
    if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_dispatch");
    taken.swap(it->second.queue);
    fake_mc::drainSession(it->second);
  }
  for (const fake_mc::Delivery& d : taken) fake_mc::runDelivery(session, d);
  return MC_OK;
}

int mc_get_descriptor(mc_sess_hndl_t session, int* fd) {
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.sessions.find(session);
  if (it == s.sessions.end()) return fake_mc::fail(MC_ESESSION, "mc_get_descriptor");
  if (fd == nullptr) return fake_mc::fail(MC_EINVAL, "mc_get_descriptor");
  if (it->second.eventFd < 0) return fake_mc::fail(MC_ENOMEM, "mc_get_descriptor");
  *fd = it->second.eventFd;
  return MC_OK;
}

void mc_free_response(void* response) {
  if (response == nullptr) return;
  State& s = fake_mc::state();
  std::lock_guard<std::mutex> hold(s.mu);
  auto it = s.outstanding.find(response);
  if (it == s.outstanding.end()) {
    ++s.badFrees;
    return;
  }
  s.outstanding.erase(it);
}

}  // extern "C"

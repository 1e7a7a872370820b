// libvx_mc: the mc_* calls. Sessions live in one table for the process;
// each call checks its arguments, finds its session and marks it as used by
// the calling thread for the length of the call, so that a second thread
// meets MC_EBUSY (the thread that holds the mark may call in again from a
// callback).
#include "vx_mc.h"

#include <string.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "internal/mc_session.h"
#include "internal/mc_wire.h"
#include "velt_mutex.h"

namespace velt {
namespace mc {
namespace internal {

namespace {

struct TableEntry {
  std::shared_ptr<Session> session;
  std::thread::id user;   // the thread inside a call, when depth > 0
  int depth = 0;
};

// The process's sessions. Thread-safe through mu; no lock is held while a
// session works (sessions are used by one thread at a time, which the
// entries' marks ensure). Never destroyed: a program's threads may still
// call in during exit.
struct SessionTable {
  Mutex mu;
  std::map<mc_sess_hndl_t, TableEntry> entries GUARDED_BY(mu);
  // Handles are never given twice in a process.
  mc_sess_hndl_t nextHandle GUARDED_BY(mu) = 1;
};

SessionTable& sessions() {
  static auto* t = new SessionTable;
  return *t;
}

// The calling thread's use of one session for the length of a call.
class SessionUse {
 public:
  SessionUse(mc_sess_hndl_t handle, const char* call) : handle_(handle) {
    SessionTable& t = sessions();
    MutexLock lk(t.mu);
    auto it = t.entries.find(handle);
    if (it == t.entries.end()) {
      rc_ = recordError(MC_ESESSION, "%s: no session %llu (never started, or ended)", call,
                        static_cast<unsigned long long>(handle));
      return;
    }
    TableEntry& e = it->second;
    if (e.depth > 0 && e.user != std::this_thread::get_id()) {
      rc_ = recordError(MC_EBUSY, "%s: another thread is inside a call on session %llu", call,
                        static_cast<unsigned long long>(handle));
      return;
    }
    e.user = std::this_thread::get_id();
    ++e.depth;
    session_ = e.session;
  }
  ~SessionUse() {
    if (session_ == nullptr) return;
    SessionTable& t = sessions();
    MutexLock lk(t.mu);
    auto it = t.entries.find(handle_);
    // Gone when a callback ended the session.
    if (it != t.entries.end() && it->second.session == session_) --it->second.depth;
  }
  SessionUse(const SessionUse&) = delete;
  SessionUse& operator=(const SessionUse&) = delete;

  int rc() const { return rc_; }
  Session* operator->() const { return session_.get(); }

 private:
  const mc_sess_hndl_t handle_;
  std::shared_ptr<Session> session_;
  int rc_ = MC_OK;
};

// A name or handle the caller gives: present, not empty, within the bound.
int checkName(const char* call, const char* what, const char* name) {
  if (name == nullptr || *name == '\0') return recordError(MC_EINVAL, "%s: no %s given", call, what);
  if (strnlen(name, kMaxString + 1) > kMaxString) {
    return recordError(MC_EINVAL, "%s: the %s is longer than %zu bytes", call, what, kMaxString);
  }
  return MC_OK;
}

int checkAttributeNames(const char* call, const char** names, uint32_t count, std::vector<std::string>* out) {
  if (count == 0) return MC_OK;
  if (names == nullptr) return recordError(MC_EINVAL, "%s: %u attribute names announced, none given", call, count);
  if (count > kMaxAttributes) {
    return recordError(MC_ELIMIT, "%s: %u attributes named, at most %zu are", call, count, kMaxAttributes);
  }
  for (uint32_t i = 0; i < count; ++i) {
    int rc = checkName(call, "attribute name", names[i]);
    if (rc != MC_OK) return rc;
    out->emplace_back(names[i]);
  }
  return MC_OK;
}

bool emptyOrNull(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace

int waitingDispatchersForTesting(mc_sess_hndl_t handle) {
  std::shared_ptr<Session> s;
  {
    SessionTable& t = sessions();
    MutexLock lk(t.mu);
    auto it = t.entries.find(handle);
    if (it == t.entries.end()) return -1;
    s = it->second.session;
  }
  return s->waitingDispatchersForTesting();
}

}  // namespace internal
}  // namespace mc
}  // namespace velt

using velt::mc::internal::recordError;
using velt::mc::internal::Session;
using velt::mc::internal::SessionUse;

extern "C" {

int mc_start_session(const char* contact, uint32_t options, int mode, mc_sess_hndl_t* session) {
  const char* call = "mc_start_session";
  if (session == nullptr) return recordError(MC_EINVAL, "%s: no place for the session given", call);
  if (!velt::mc::internal::emptyOrNull(contact)) {
    return recordError(MC_EINVAL, "%s: contact \"%.200s\" is not this node; only this node's agent is offered",
                       call, contact);
  }
  if (options != MC_SESSION_OPTS_NONE) return recordError(MC_EINVAL, "%s: unknown options 0x%x", call, options);
  if (mode != MC_SESSION_MODE_QUERY && mode != MC_SESSION_MODE_FULL) {
    return recordError(MC_EINVAL, "%s: unknown session mode %d", call, mode);
  }
  std::shared_ptr<Session> s;
  int rc = Session::open(mode, &s);
  if (rc != MC_OK) return rc;
  velt::mc::internal::SessionTable& t = velt::mc::internal::sessions();
  velt::MutexLock lk(t.mu);
  mc_sess_hndl_t handle = t.nextHandle++;
  s->setHandle(handle);
  velt::mc::internal::TableEntry entry;
  entry.session = std::move(s);
  t.entries.emplace(handle, std::move(entry));
  *session = handle;
  return MC_OK;
}

int mc_end_session(mc_sess_hndl_t session) {
  std::shared_ptr<Session> s;
  {
    velt::mc::internal::SessionTable& t = velt::mc::internal::sessions();
    velt::MutexLock lk(t.mu);
    auto it = t.entries.find(session);
    if (it == t.entries.end()) {
      return recordError(MC_ESESSION, "mc_end_session: no session %llu (never started, or ended)",
                         static_cast<unsigned long long>(session));
    }
    if (it->second.depth > 0 && it->second.user != std::this_thread::get_id()) {
      return recordError(MC_EBUSY, "mc_end_session: another thread is inside a call on session %llu",
                         static_cast<unsigned long long>(session));
    }
    s = std::move(it->second.session);
    t.entries.erase(it);
  }
  // Outside the lock: closing takes system calls. A dispatch of this
  // thread that ran the ending callback still holds the session.
  s->end();
  return MC_OK;
}

int mc_query_p_select_bp(mc_sess_hndl_t session, mc_query_rsp_t** responses, uint32_t* count,
                         const char* class_name, const char* select, const char** attr_names,
                         uint32_t attr_count) {
  const char* call = "mc_query_p_select_bp";
  if (responses == nullptr || count == nullptr) {
    return recordError(MC_EINVAL, "%s: no place for the responses given", call);
  }
  int rc = velt::mc::internal::checkName(call, "class name", class_name);
  if (rc != MC_OK) return rc;
  if (!velt::mc::internal::emptyOrNull(select)) {
    return recordError(MC_EINVAL, "%s: selection expressions are not offered (\"%.200s\")", call, select);
  }
  std::vector<std::string> attributes;
  rc = velt::mc::internal::checkAttributeNames(call, attr_names, attr_count, &attributes);
  if (rc != MC_OK) return rc;
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  mc_query_rsp_t* out = nullptr;
  uint32_t n = 0;
  rc = use->query(class_name, attributes, &out, &n);
  if (rc != MC_OK) return rc;
  *responses = out;
  *count = n;
  return MC_OK;
}

int mc_reg_class_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, const char* class_name,
                          const char* event_name, mc_class_event_cb_t* callback, void* arg) {
  const char* call = "mc_reg_class_event_bp";
  if (response == nullptr) return recordError(MC_EINVAL, "%s: no place for the response given", call);
  if (callback == nullptr) return recordError(MC_EINVAL, "%s: no callback given", call);
  int rc = velt::mc::internal::checkName(call, "class name", class_name);
  if (rc == MC_OK) rc = velt::mc::internal::checkName(call, "event name", event_name);
  if (rc != MC_OK) return rc;
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  if (use->mode() != MC_SESSION_MODE_FULL) {
    return recordError(MC_EINVAL, "%s: session %llu was started for queries only", call,
                       static_cast<unsigned long long>(session));
  }
  return use->registerClassEvent(class_name, event_name, callback, arg, response);
}

int mc_reg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, uint32_t options, const char* class_name,
                    const char* select, const char** attr_names, uint32_t attr_count, const char* condition,
                    mc_event_cb_t* callback, void* arg) {
  const char* call = "mc_reg_event_bp";
  if (response == nullptr) return recordError(MC_EINVAL, "%s: no place for the response given", call);
  if (callback == nullptr) return recordError(MC_EINVAL, "%s: no callback given", call);
  if (options != 0) return recordError(MC_EINVAL, "%s: unknown options 0x%x", call, options);
  int rc = velt::mc::internal::checkName(call, "class name", class_name);
  if (rc == MC_OK) rc = velt::mc::internal::checkName(call, "condition", condition);
  if (rc != MC_OK) return rc;
  if (!velt::mc::internal::emptyOrNull(select)) {
    return recordError(MC_EINVAL, "%s: selection expressions are not offered (\"%.200s\")", call, select);
  }
  std::vector<std::string> attributes;
  rc = velt::mc::internal::checkAttributeNames(call, attr_names, attr_count, &attributes);
  if (rc != MC_OK) return rc;
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  if (use->mode() != MC_SESSION_MODE_FULL) {
    return recordError(MC_EINVAL, "%s: session %llu was started for queries only", call,
                       static_cast<unsigned long long>(session));
  }
  return use->registerResourceEvent(class_name, condition, attributes, callback, arg, response);
}

int mc_unreg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t** response, mc_reg_id_t reg_id) {
  const char* call = "mc_unreg_event_bp";
  if (response == nullptr) return recordError(MC_EINVAL, "%s: no place for the response given", call);
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  return use->unregister(reg_id, response);
}

int mc_dispatch(mc_sess_hndl_t session, int options) {
  const char* call = "mc_dispatch";
  if (options != MC_DISPATCH_OPTS_WAIT && options != MC_DISPATCH_OPTS_NO_WAIT) {
    return recordError(MC_EINVAL, "%s: unknown options %d", call, options);
  }
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  return use->dispatch(options);
}

int mc_get_descriptor(mc_sess_hndl_t session, int* fd) {
  const char* call = "mc_get_descriptor";
  if (fd == nullptr) return recordError(MC_EINVAL, "%s: no place for the descriptor given", call);
  SessionUse use(session, call);
  if (use.rc() != MC_OK) return use.rc();
  return use->descriptor(fd);
}

void mc_free_response(void* response) { velt::mc::internal::freeResponse(response); }

}  // extern "C"

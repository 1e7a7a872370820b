// libveltnam: the velt_nam_* calls. Open sessions live in one registry for
// the process, by handle; a call holds its session (a shared reference) for
// its own length, so velt_nam_term on another thread never pulls a session
// from under a running call.
#include "velt_nam_api.h"

#include <errno.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <string>

#include "internal/nam_session.h"
#include "velt_mutex.h"

namespace {

using velt::nam::internal::Session;

// The open sessions. Thread-safe.
class Registry {
 public:
  velt_nam_handle_t add(std::shared_ptr<Session> session) {
    velt::MutexLock lk(mu_);
    velt_nam_handle_t handle = next_++;
    sessions_[handle] = std::move(session);
    return handle;
  }
  std::shared_ptr<Session> find(velt_nam_handle_t handle) {
    velt::MutexLock lk(mu_);
    auto it = sessions_.find(handle);
    return it == sessions_.end() ? nullptr : it->second;
  }
  std::shared_ptr<Session> remove(velt_nam_handle_t handle) {
    velt::MutexLock lk(mu_);
    auto it = sessions_.find(handle);
    if (it == sessions_.end()) return nullptr;
    std::shared_ptr<Session> session = std::move(it->second);
    sessions_.erase(it);
    return session;
  }

 private:
  velt::Mutex mu_;
  std::map<velt_nam_handle_t, std::shared_ptr<Session>> sessions_ GUARDED_BY(mu_);
  velt_nam_handle_t next_ GUARDED_BY(mu_) = 1;
};

// Never destroyed: a program's threads may still call in during exit.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

thread_local std::string lastError;

// Records why the calling thread's call failed and returns rc.
int failed(int rc, const std::string& why) {
  lastError = velt_nam_rc_text(rc);
  if (!why.empty()) lastError = why;
  return rc;
}

int noSession(const char* call, velt_nam_handle_t handle) {
  return failed(VELT_NAM_INVALID_HANDLE,
                std::string(call) + ": no session " + std::to_string(handle) + " (never opened, or ended)");
}

int outOfMemory(const char* call) {
  return failed(VELT_NAM_INTERNAL_ERROR, std::string(call) + ": out of memory for the copy");
}

}  // namespace

extern "C" {

int velt_nam_init(const char* socket_path, int timeout_ms, velt_nam_handle_t* handle) {
  if (handle == nullptr) return failed(VELT_NAM_NULL_INPUT_POINTER, "velt_nam_init: no place for the handle");
  if (timeout_ms < -1) {
    return failed(VELT_NAM_INVALID_INPUT_PARAMETER,
                  "velt_nam_init: the time-out is " + std::to_string(timeout_ms) + " ms (0 or more, or -1)");
  }
  std::string path;
  if (socket_path != nullptr) {
    path = socket_path;
  } else {
    const char* env = getenv(VELT_NAM_SOCKET_ENV);
    path = env != nullptr && env[0] != '\0' ? env : VELT_NAM_DEFAULT_SOCKET;
  }
  std::shared_ptr<Session> session;
  std::string why;
  int rc = Session::open(path, timeout_ms, &session, &why);
  if (rc != VELT_NAM_OK) {
    int err = errno;  // connect's, for the caller
    failed(rc, "velt_nam_init: " + why);
    errno = err;
    return rc;
  }
  *handle = registry().add(std::move(session));
  return VELT_NAM_OK;
}

int velt_nam_get_fd(velt_nam_handle_t handle, int* fd) {
  if (fd == nullptr) return failed(VELT_NAM_NULL_INPUT_POINTER, "velt_nam_get_fd: no place for the descriptor");
  std::shared_ptr<Session> session = registry().find(handle);
  if (session == nullptr) return noSession("velt_nam_get_fd", handle);
  *fd = session->fd();
  return VELT_NAM_OK;
}

int velt_nam_update(velt_nam_handle_t handle) {
  std::shared_ptr<Session> session = registry().find(handle);
  if (session == nullptr) return noSession("velt_nam_update", handle);
  std::string why;
  int rc = session->update(&why);
  if (rc != VELT_NAM_OK && rc != VELT_NAM_NO_NEW_DATA) return failed(rc, "velt_nam_update: " + why);
  return rc;
}

int velt_nam_get_config(velt_nam_handle_t handle, velt_nam_config* config) {
  if (config == nullptr) return failed(VELT_NAM_NULL_INPUT_POINTER, "velt_nam_get_config: no record given");
  std::shared_ptr<Session> session = registry().find(handle);
  if (session == nullptr) return noSession("velt_nam_get_config", handle);
  session->config(config);
  return VELT_NAM_OK;
}

int velt_nam_get_net_info(velt_nam_handle_t handle, velt_nam_net_info** net_info) {
  if (net_info == nullptr) return failed(VELT_NAM_NULL_INPUT_POINTER, "velt_nam_get_net_info: no place for the copy");
  std::shared_ptr<Session> session = registry().find(handle);
  if (session == nullptr) return noSession("velt_nam_get_net_info", handle);
  velt_nam_net_info* copy = session->copyNetInfo();
  if (copy == nullptr) return outOfMemory("velt_nam_get_net_info");
  *net_info = copy;
  return VELT_NAM_OK;
}

void velt_nam_free_net_info(velt_nam_net_info* net_info) { free(net_info); }

int velt_nam_get_node_adap_info(velt_nam_handle_t handle, int node_number, velt_nam_node_adap_info** info) {
  if (info == nullptr) {
    return failed(VELT_NAM_NULL_INPUT_POINTER, "velt_nam_get_node_adap_info: no place for the copy");
  }
  if (node_number < 0 && node_number != VELT_NAM_ALL_NODES) {
    return failed(VELT_NAM_INVALID_INPUT_PARAMETER, "velt_nam_get_node_adap_info: the node number " +
                                                        std::to_string(node_number) +
                                                        " is neither a node nor VELT_NAM_ALL_NODES");
  }
  std::shared_ptr<Session> session = registry().find(handle);
  if (session == nullptr) return noSession("velt_nam_get_node_adap_info", handle);
  velt_nam_node_adap_info* copy = session->copyNodeAdapInfo(node_number);
  if (copy == nullptr) return outOfMemory("velt_nam_get_node_adap_info");
  *info = copy;
  return VELT_NAM_OK;
}

void velt_nam_free_node_adap_info(velt_nam_node_adap_info* info) { free(info); }

int velt_nam_term(velt_nam_handle_t handle) {
  // The connection closes when the last call that holds the session ends.
  if (registry().remove(handle) == nullptr) return noSession("velt_nam_term", handle);
  return VELT_NAM_OK;
}

const char* velt_nam_rc_text(int rc) {
  switch (rc) {
    case VELT_NAM_OK: return "VELT_NAM_OK: success";
    case VELT_NAM_AGAIN: return "VELT_NAM_AGAIN: try again later";
    case VELT_NAM_CREATE_SOCKET_FAILED: return "VELT_NAM_CREATE_SOCKET_FAILED: no socket could be created";
    case VELT_NAM_SOCKET_INIT_FAILED: return "VELT_NAM_SOCKET_INIT_FAILED: the daemon did not answer the init message in time";
    case VELT_NAM_SOCKET_CONNECT_FAILED: return "VELT_NAM_SOCKET_CONNECT_FAILED: no daemon accepts connections on the socket";
    case VELT_NAM_SOCKET_BIND_FAILED: return "VELT_NAM_SOCKET_BIND_FAILED: the socket could not be bound to its path";
    case VELT_NAM_READSOCK_ERROR: return "VELT_NAM_READSOCK_ERROR: reading from the daemon failed, or it sent what cannot be read";
    case VELT_NAM_WRITESOCK_ERROR: return "VELT_NAM_WRITESOCK_ERROR: writing to the daemon failed";
    case VELT_NAM_POLL_ERROR: return "VELT_NAM_POLL_ERROR: waiting on the socket failed";
    case VELT_NAM_VERSION_NOT_SUPPORTED: return "VELT_NAM_VERSION_NOT_SUPPORTED: the cluster's active version does not offer this interface";
    case VELT_NAM_INVALID_HANDLE: return "VELT_NAM_INVALID_HANDLE: no such session (never opened, or ended)";
    case VELT_NAM_NO_NEW_DATA: return "VELT_NAM_NO_NEW_DATA: nothing new has arrived";
    case VELT_NAM_NULL_INPUT_POINTER: return "VELT_NAM_NULL_INPUT_POINTER: a pointer argument is null";
    case VELT_NAM_NOT_INITIALIZED: return "VELT_NAM_NOT_INITIALIZED: the session has not been initialized";
    case VELT_NAM_INVALID_INPUT_PARAMETER: return "VELT_NAM_INVALID_INPUT_PARAMETER: an argument is out of range";
    case VELT_NAM_DAEMON_DISCONNECTED: return "VELT_NAM_DAEMON_DISCONNECTED: the daemon closed the connection";
    case VELT_NAM_NON_ROOT_CALLER: return "VELT_NAM_NON_ROOT_CALLER: the daemon's socket refuses this caller (it admits root only)";
    case VELT_NAM_API_FEATURE_NOT_SUPPORTED: return "VELT_NAM_API_FEATURE_NOT_SUPPORTED: the daemon does not offer this feature";
    case VELT_NAM_INVALID_CAPABILITY: return "VELT_NAM_INVALID_CAPABILITY: a capability is not one the daemon knows";
    case VELT_NAM_INTERNAL_ERROR: return "VELT_NAM_INTERNAL_ERROR: an internal error of the library or the daemon";
  }
  return "unknown return code (not a velt_nam_rc_t)";
}

const char* velt_nam_last_error(void) { return lastError.c_str(); }

}  // extern "C"

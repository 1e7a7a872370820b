// GSController: this process's connection to the node agent (veltd), which
// provides group services. initialize() connects to the agent socket
// ($VELT_AGENT_SOCKET, default /run/velt/agent.sock), says hello and waits
// for the agent's answer; it fails with a return code while no agent
// listens. An internal reader thread then reads every frame: replies wake
// the thread that waits for them, notifications are queued for dispatch(),
// which is the only place callbacks run. A lost connection becomes the
// announcement that group services died, to every provider and subscriber,
// and dispatch then returns TK_GS_GS_HAS_DIED.
// One instance per process (providers and subscribers use the latest one
// built). Thread-safe, with these rules: dispatch is called by one thread
// (the daemon's dispatch thread); quit may come from any thread, also from
// a callback, and releases a blocked dispatch; requests of providers and
// subscribers may come from any thread.
#ifndef VELT_PLATFORM_GSCL_GS_CONTROLLER_H_
#define VELT_PLATFORM_GSCL_GS_CONTROLLER_H_

#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>

#include "agent_connect.h"
#include "gs_types.h"
#include "gs_utils.h"

namespace velt_gscl_V1 {

namespace internal {
class ControllerAccess;
}

constexpr const char* kDefaultAgentSocket = velt::wire::kDefaultAgentSocketPath;

class GSController {
 public:
  // interfaceWord: the client's interface version word (the daemon passes
  // 0x30014); sent to the agent unchanged.
  explicit GSController(int interfaceWord);
  virtual ~GSController();
  GSController(const GSController&) = delete;
  GSController& operator=(const GSController&) = delete;

  // Connects to the agent and says hello (interface word, pid, program
  // name, responsiveness, socket options). TK_GS_OK; TK_GS_ALREADY_INITIALIZED
  // while connected (also when the connection died: quit() first);
  // TK_GS_NOT_CONNECTED while no agent listens (or it hung up before
  // answering); TK_GS_PERMISSION_DENIED when the socket may not be used, is
  // served by a user other than root or ours, or the agent refused us;
  // another non-zero code the agent answered; TK_GS_TIMEOUT when it did not
  // answer within the handshake bound (10 s); TK_GS_BAD_FRAME /
  // TK_GS_VERSION_MISMATCH for an answer we cannot read; TK_GS_BAD_PARAMETER
  // for an empty or too long socket path; TK_GS_NO_MEMORY when out of
  // descriptors, memory or threads. Failures are reported through the
  // registered trace routine.
  virtual tk_gs_rc_t initialize();
  // Drops the connection (idempotent) and releases a dispatch blocked on it,
  // which then returns TK_GS_NOT_INITIALIZED; requests waiting for an answer
  // return TK_GS_NOT_INITIALIZED too. Providers and subscribers become idle
  // without callbacks; notifications not yet dispatched are dropped.
  virtual void quit();
  // Answers the agent's responsiveness ping (the one being dispatched).
  // Overriders call this first: a dispatch thread that does not get here
  // in time makes the agent count us as gone.
  virtual tk_gs_callback_rc_t responsivenessCb(const tk_gs_responsiveness_notification_t* n);
  virtual tk_gs_callback_rc_t queryCb(const tk_gs_query_notification_t* n);
  // Runs the callbacks of the oldest queued notification. TK_GS_BLOCKING
  // waits for one; TK_GS_NON_BLOCKING returns TK_GS_NO_NOTIFICATION when
  // none is queued. Returns TK_GS_OK, or an error: TK_GS_GS_HAS_DIED from
  // the call that delivered the death announcement on (the agent
  // connection is lost), TK_GS_NOT_INITIALIZED before initialize and after
  // quit.
  virtual tk_gs_rc_t dispatch(tk_gs_dispatch_type_t how);
  // Keeps the new settings and, while connected, tells the agent (its sync
  // answer is returned).
  virtual tk_gs_rc_t changeResponsiveness(const tk_gs_responsiveness_t* r);
  virtual tk_gs_rc_t dissolveDomain();
  virtual tk_gs_callback_rc_t domainControlCb(const tk_gs_domain_control_notification_t* n);

  // Settings applied at (and kept across) initialize: set before it.
  tk_gs_rc_t setResponsiveness(const tk_gs_responsiveness_t& r);
  tk_gs_rc_t setSocketOption(int option);
  bool isSocketOptionSet(int option) const;
  // The settings as kept (a copy).
  tk_gs_responsiveness_t responsiveness() const;

  // The identifier of the last error-log entry this library made (it makes
  // one when the agent connection is lost or unreadable), or null. The text
  // stays valid until the next entry.
  const char* get_ffdc_id() const;
  // The cluster's active version as last announced (by the agent's hello
  // answer or a domain control notification); TK_GS_NOT_OK (and a zeroed
  // record) before the first announcement.
  tk_gs_rc_t get_velt_active_version(tk_gs_velt_version_t* out) const;
  // What the topology says about the adapter with this address, from the
  // library's own copy (filled from the adapter information that
  // subscription notifications carry; no request per address).
  // TK_GS_ADDRESS_UNKNOWN for an address not seen; TK_GS_BAD_PARAMETER for
  // null pointers.
  tk_gs_rc_t get_adapter_info(const tk_gs_ip_addr* ip, tk_gs_adapter_info_t* info) const;
  // How the library names this process's connection in its traces.
  const char* getTraceIdStr() const;

  // Connected, the hello answered, and the connection not lost.
  bool isConnected() const;
  int interfaceWord() const { return interfaceWord_; }
  // This node's number as the agent told it; -1 before the first hello.
  int getNodeNumber() const;
  // The agent's own version (packed V.R.M.F); 0 before the first hello.
  uint32_t agentVersion() const;
  // Threads inside dispatch's wait for a notification, so that tests can
  // wait for that state.
  int dispatchersWaitingForTesting() const;
  // Test hooks: the bounds of the hello answer (10 s) and of a request's
  // answer (60 s).
  void setHandshakeTimeoutForTesting(std::chrono::milliseconds bound);
  void setRequestTimeoutForTesting(std::chrono::milliseconds bound);

 protected:
  // For the library's notification path (and tests): records the version
  // of a TK_GS_DOMAIN_VERSION announcement.
  void setActiveVersion(const tk_gs_velt_version_t& v);

 private:
  friend class internal::ControllerAccess;
  struct Impl;

  const int interfaceWord_;
  std::unique_ptr<Impl> impl_;
};

// The library's own diagnostics go through a routine the application
// registers; the debug level decides what the library reports.
typedef void (*GSDebugRoutine)(int trclvl, char* text);
int GSDebugLevel();
void GSSetDebugLevel(int level);
void GSSetDebugRtn(GSDebugRoutine fn);
void GSSetTraceRtn(GSDebugRoutine fn);
// The library's name for its own trace lines ("gscl").
const char* GSTraceDebugName();
// Reports text through the registered routines (debug routine when
// trclvl has bit 0x10000000, else the trace routine); nothing when none is
// registered.
void GSDebugPrintf(int trclvl, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace velt_gscl_V1

#endif  // VELT_PLATFORM_GSCL_GS_CONTROLLER_H_

// GSController: this process's connection to the node agent (veltd), which
// provides group services. initialize() connects to the agent socket
// ($VELT_AGENT_SOCKET, default /run/velt/agent.sock) and fails with a return
// code while no agent listens; dispatch() is the only place callbacks run.
// One instance per process. initialize/quit/dispatch: one thread each at a
// time (the daemon calls dispatch from its dispatch thread only); quit may
// come from any thread while dispatch blocks and releases it. The settings
// (setResponsiveness, setSocketOption) are made by the thread that sets the
// controller up, before initialize.
#ifndef VELT_PLATFORM_GSCL_GS_CONTROLLER_H_
#define VELT_PLATFORM_GSCL_GS_CONTROLLER_H_

#include <condition_variable>
#include <mutex>
#include <string>

#include "gs_types.h"
#include "gs_utils.h"

namespace velt_gscl_V1 {

constexpr const char* kDefaultAgentSocket = "/run/velt/agent.sock";

class GSController {
 public:
  // interfaceWord: the client's interface version word (the daemon passes
  // 0x30014); sent to the agent unchanged.
  explicit GSController(int interfaceWord);
  virtual ~GSController();
  GSController(const GSController&) = delete;
  GSController& operator=(const GSController&) = delete;

  // Connects to the agent. TK_GS_OK; TK_GS_ALREADY_INITIALIZED while
  // connected (also when the connection died: quit() first);
  // TK_GS_NOT_CONNECTED while no agent listens; TK_GS_PERMISSION_DENIED when
  // the socket may not be used or is served by a user other than root or
  // ours; TK_GS_BAD_PARAMETER for an empty or too long socket path;
  // TK_GS_NO_MEMORY when out of descriptors or memory. Failures are
  // reported through the registered trace routine.
  virtual tk_gs_rc_t initialize();
  // Drops the connection (idempotent) and releases a dispatch blocked on it,
  // which then returns TK_GS_NOT_INITIALIZED.
  virtual void quit();
  // Answers the agent's responsiveness ping. Overriders call this first.
  virtual tk_gs_callback_rc_t responsivenessCb(const tk_gs_responsiveness_notification_t* n);
  virtual tk_gs_callback_rc_t queryCb(const tk_gs_query_notification_t* n);
  // Runs the callbacks of queued notifications. TK_GS_BLOCKING waits for at
  // least one; returns TK_GS_OK, or an error (TK_GS_GS_HAS_DIED once the
  // agent connection is lost, TK_GS_NOT_INITIALIZED before initialize).
  virtual tk_gs_rc_t dispatch(tk_gs_dispatch_type_t how);
  virtual tk_gs_rc_t changeResponsiveness(const tk_gs_responsiveness_t* r);
  virtual tk_gs_rc_t dissolveDomain();
  virtual tk_gs_callback_rc_t domainControlCb(const tk_gs_domain_control_notification_t* n);

  // Settings applied at (and kept across) initialize.
  tk_gs_rc_t setResponsiveness(const tk_gs_responsiveness_t& r);
  tk_gs_rc_t setSocketOption(int option);
  bool isSocketOptionSet(int option) const;
  const tk_gs_responsiveness_t& responsiveness() const { return responsiveness_; }

  // The identifier of the last error-log entry this library made, or null.
  const char* get_ffdc_id() const;
  // The cluster's active version as last announced; TK_GS_NOT_OK (and a
  // zeroed record) before the first announcement.
  tk_gs_rc_t get_velt_active_version(tk_gs_velt_version_t* out) const;

  // Connected and the connection not lost.
  bool isConnected() const;
  int interfaceWord() const { return interfaceWord_; }
  // Threads inside dispatch's wait on the connection, so that tests can
  // wait for that state.
  int dispatchersWaitingForTesting() const;

 protected:
  // For the library's notification path (and tests): records the version
  // of a TK_GS_DOMAIN_VERSION announcement.
  void setActiveVersion(const tk_gs_velt_version_t& v);

 private:
  int interfaceWord_;
  int fd_ = -1;
  int wakeFd_ = -1;           // eventfd that quit() uses to release dispatch
  tk_gs_responsiveness_t responsiveness_{};
  unsigned int socketOptions_ = 0;
  tk_gs_velt_version_t activeVersion_{};
  bool haveActiveVersion_ = false;
  char ffdcId_[43] = {0};

  // Lock order: mu_ is a leaf; it is never held while the registered debug
  // routines run or while a system call could block.
  mutable std::mutex mu_;
  std::condition_variable pollDone_;   // inPoll_ reached 0
  // fd_, wakeFd_, activeVersion_, haveActiveVersion_, responsiveness_,
  // socketOptions_ and the three below are GUARDED_BY(mu_).
  bool dead_ = false;       // the agent closed the connection or it failed
  bool quitting_ = false;   // quit() waits for dispatch to leave fd_ alone
  int inPoll_ = 0;          // dispatch calls between their poll and read
  std::string socketPath_;  // for reports: where fd_ is connected
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

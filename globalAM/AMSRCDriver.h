// AMSRCDriver: the daemon's answers to SRC requests (stop, trace, refresh,
// status and its own request codes) on top of the SRC request socket.
// Requests are served one at a time on the main thread; the stop entry
// points may be reached from any thread and end the process.
#ifndef VELT_GLOBALAM_AMSRCDRIVER_H_
#define VELT_GLOBALAM_AMSRCDRIVER_H_

#include "common.h"
#include "src_driver.h"

// The daemon's own request codes.
enum {
  TOLK_SRC_LOGLEN = 786,
  TOLK_SRC_TRACE = 787,
  NLSSRC_NLS = 998,
  NLSSRC_C = 999,
};

class AMSRCDriver : public SRCDriver {
 public:
  AMSRCDriver();
  ~AMSRCDriver() override;

  int InitSRC(int syscall_restarts, const char* excl_file, int excl_id,
              void (*sigdanger_handler)(int)) override;
  [[noreturn]] void setStopCode(int code, const char* msg) override;
  void stopNormal() override;
  void stopForced() override;
  void stopCancel(int dae_signo) override;
  void traceBegin(int trace_level) override;
  void traceEnd() override;
  void refresh() override;
  void longStatus() override;
  int otherReq(short dae_request, short parm1, short parm2, const void* parm3,
               int parm3_len) override;

  void stopByOtherSignal(int code, const char* signame, const char* msg);
  void stopDaemon(int code);
  void localeSpecificLongStatus(const char* locale);
  void canonicalLongStatus();

  // Filled by the controller.
  virtual void doLongStatus() = 0;
  virtual void doCanonicalLongStatus() = 0;
  virtual void performSRCRefresh() = 0;

  static int GlobalTraceSetting();
  static int SetGlobalTracing(int level);
  static const char* WriteSRCRequest(short request);
  static char* _set_msg_locale(const char* locale);

  static int currentTraceLevel;
};

#endif  // VELT_GLOBALAM_AMSRCDRIVER_H_

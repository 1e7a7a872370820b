// The daemon's answers to SRC requests: stops, trace changes, refresh, the
// two status reports and the daemon's own request codes.
#include "AMSRCDriver.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "AMController.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "tk_gs_tolkvaskd_msg.h"
#include "tolkbrel.h"

int AMSRCDriver::currentTraceLevel = 0;

namespace {

// Selects a catalogue locale for the life of the object, so that a reply
// is written in that locale and the previous one comes back afterwards.
class CatalogueLocale {
 public:
  explicit CatalogueLocale(const char* locale)
      : previous_(AMSRCDriver::_set_msg_locale(locale)) {}
  ~CatalogueLocale() { AMSRCDriver::_set_msg_locale(previous_.c_str()); }

 private:
  std::string previous_;
};

std::string hexText(int value) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%X", static_cast<unsigned>(value));
  return buf;
}

}  // namespace

AMSRCDriver::AMSRCDriver() : SRCDriver(daemon_name) {
  // The library never waits for a requester; what it had to drop shows in
  // the trace, with the running count.
  setReplyDropObserver([](const velt_src::ReplyDrop& drop) {
    AM_TRACE(TRACE_FYI) << "SRC reply to requester pid[" << static_cast<long>(drop.pid) << "] uid["
                        << static_cast<long>(drop.uid) << "] dropped: " << drop.reason.c_str()
                        << ". SRC replies dropped so far: " << drop.dropped << "." << endl;
  });
}

AMSRCDriver::~AMSRCDriver() = default;

const char* AMSRCDriver::WriteSRCRequest(short request) {
  switch (request) {
    case TOLK_SRC_LOGLEN: return "TOLK_SRC_LOGLEN";
    case TOLK_SRC_TRACE: return "TOLK_SRC_TRACE";
    case NLSSRC_NLS: return "NLSSRC_NLS";
    case NLSSRC_C: return "NLSSRC_C";
    default: return "Invalid request";
  }
}

char* AMSRCDriver::_set_msg_locale(const char* locale) {
  return const_cast<char*>(setmsg_locale_tk_gs_tolkvaskd(locale));
}

int AMSRCDriver::GlobalTraceSetting() { return static_cast<int>(_traceStream.GetGlobalTraceLevel().level); }

int AMSRCDriver::SetGlobalTracing(int level) {
  int d = gs_initial_debug_level;
  if (d & 0x20000000) level |= 0x8000;
  if (d & 0x10000000) level |= 0x1000;
  bool libraryTraces = (d & 0x20000000) || (level & 0x8000);
  GSSetDebugLevel(libraryTraces ? (d | 0x20000000) : d);
  currentTraceLevel = level;
  _traceStream.SetGlobalTraceLevel(TraceLevel(static_cast<unsigned>(level)));
  return level;
}

int AMSRCDriver::InitSRC(int syscall_restarts, const char* excl_file, int excl_id,
                         void (*sigdanger_handler)(int)) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::InitSRC()");
  int rc = SRCDriver::InitSRC(syscall_restarts, excl_file, excl_id, sigdanger_handler);
  if (rc != 0) {
    const velt_src::SRCError& e = getError();
    char key[16];
    snprintf(key, sizeof(key), "0x%x", getSemKey());
    AM_TRACE(TRACE_ERROR) << TraceLabel(17) << "VASK semaphore key=" << key << "; " << e.source.c_str()
                          << " detected an error " << " in " << e.file.c_str() << "," << e.function.c_str()
                          << " at line " << static_cast<long>(e.line) << "." << endl;
    char buffer[1024];
    snprintf(buffer, sizeof(buffer), "VASK semaphore key=%s; %s: \"%s\", detected in %s,%s at line %d", key,
             e.source.c_str(), e.text.c_str(), e.file.c_str(), e.function.c_str(), e.line);
    AM_TRACE(TRACE_ERROR) << TraceLabel(-1) << "ERROR: [" << buffer << "]" << endl;
    return rc;
  }
  Move_To_Rundir();
  Establish_Resource_Limits();
  AM_TRACE(TRACE_FYI) << "Established SRC socket on file descriptor: " << getSRCDescriptor() << endl;
  return 0;
}

void AMSRCDriver::setStopCode(int code, const char* msg) {
  SRCDriver::setStopCode(code, msg);
  ExitTheProcess(code, msg);
}

void AMSRCDriver::stopNormal() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::stopNormal(void)");
  setStopCode(-1, "STOP NORMAL request from SRC");
}

void AMSRCDriver::stopForced() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::stopForced(void)");
  setStopCode(-2, "STOP FORCED request from SRC");
}

void AMSRCDriver::stopCancel(int /*dae_signo*/) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::stopCancel(int)");
  AM_TRACE(TRACE_FYI) << "STOP CANCEL request from SRC, stop_requested was." << endl;
  setStopCode(-3, "STOP CANCEL request from SRC");
}

void AMSRCDriver::stopByOtherSignal(int code, const char* signame, const char* msg) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::stopByOtherSignal()");
  char text[512];
  snprintf(text, sizeof(text), "Received signal[%s]. %s", signame ? signame : "", msg ? msg : "");
  setStopCode(code, text);
}

void AMSRCDriver::stopDaemon(int code) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::stopDaemon()");
  AM_TRACE(TRACE_FYI) << "Requesting SRC stop of subsystem [" << daemon_name << "]" << endl;
  struct srcrep reply;
  memset(&reply, 0, sizeof(reply));
  short replen = sizeof(reply);
  int rc = srcstop("", daemon_name, 2, &replen, &reply, nullptr);
  AM_TRACE(TRACE_FYI) << "Srcstop results: rc[" << rc << "] reply code[" << reply.srcrc << "]" << endl;
  char text[128];
  snprintf(text, sizeof(text), "Request SRC stop rc[%d] reply[%d]", rc, reply.srcrc);
  setStopCode(code, text);
}

void AMSRCDriver::traceBegin(int trace_level) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::traceBegin(int)");
  CatalogueLocale locale(daemon_msg_locale);
  int oldLevel = GlobalTraceSetting();
  int newLevel;
  if (trace_level != 0) {
    newLevel = -1;
    ChangeLogFileLength(GetLogFileLength(), 5);
  } else {
    newLevel = 1567;
    ChangeLogFileLength(GetLogFileLength(), 3);
  }
  AM_TRACE(TRACE_FYI) << "TRACE BEGIN request from SRC, trace was [" << hexText(oldLevel).c_str()
                      << "] will be set to [" << hexText(newLevel).c_str() << "]" << endl;
  AM_TRACE(TRACE_FYI) << "The log file length during the TRACE will be " << GetWorkLogFileLength() << "."
                      << endl;
  inform_printf(getmsg_tk_gs_tolkvaskd(12), daemon_name, oldLevel, newLevel);
  SetGlobalTracing(newLevel);
}

void AMSRCDriver::traceEnd() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::traceEnd(void)");
  CatalogueLocale locale(daemon_msg_locale);
  int current = GlobalTraceSetting();
  const int newLevel = 31;
  ChangeLogFileLength(GetLogFileLength(), 1);
  AM_TRACE(TRACE_FYI) << "TRACE END request from SRC, trace was [" << hexText(current).c_str()
                      << "] will be set to [" << hexText(newLevel).c_str() << "]" << endl;
  AM_TRACE(TRACE_FYI) << "The log file length is back to " << GetWorkLogFileLength() << "." << endl;
  inform_printf(getmsg_tk_gs_tolkvaskd(13), daemon_name, current, newLevel);
  SetGlobalTracing(newLevel);
}

void AMSRCDriver::refresh() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::refresh(void)");
  AM_TRACE(TRACE_FYI) << "REFRESH request from SRC." << endl;
  {
    CatalogueLocale locale(daemon_msg_locale);
    inform_printf(getmsg_tk_gs_tolkvaskd(14), daemon_name);
  }
  performSRCRefresh();
}

void AMSRCDriver::longStatus() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::longStatus(void)");
  AM_TRACE(TRACE_FYI) << "LongStatus request from SRC." << endl;
  localeSpecificLongStatus(daemon_msg_locale);
}

void AMSRCDriver::localeSpecificLongStatus(const char* locale) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::localeSpecificLongStatus(char*)");
  CatalogueLocale selected(locale);
  inform_printf(getmsg_tk_gs_tolkvaskd(1), daemon_name);
  doLongStatus();
}

void AMSRCDriver::canonicalLongStatus() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::canonicalLongStatus(void)");
  AM_TRACE(TRACE_FYI) << "Canonical LongStatus request from SRC." << endl;
  inform_printf("Status information for subsystem %s:\n", daemon_name);
  doCanonicalLongStatus();
}

int AMSRCDriver::otherReq(short dae_request, short parm1, short parm2, const void* parm3, int parm3_len) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMSRCDriver::otherReq()");
  const char* p3 = (parm3 != nullptr && parm3_len >= 1) ? static_cast<const char*>(parm3) : nullptr;
  AM_TRACE(TRACE_FYI) << "OTHER Request From SRC, Request:[(" << static_cast<long>(dae_request) << ")"
                      << WriteSRCRequest(dae_request) << "]" << " Parm1:[" << static_cast<long>(parm1)
                      << "] Parm2:[" << static_cast<long>(parm2) << "] Parm3(len/val):[" << parm3_len << "/"
                      << (p3 ? p3 : " ") << "]" << endl;

  int savedLevel = GlobalTraceSetting();
  int restoreLevel = savedLevel;
  if ((savedLevel & TRACE_FYI) == 0) SetGlobalTracing(savedLevel | TRACE_FYI);
  _traceStream.StartSRCOutput();

  switch (dae_request) {
    case TOLK_SRC_TRACE:
      if (p3) {
        int newMask = static_cast<int>(strtoul(p3, nullptr, 16) | 0xF);
        inform_printf("The current TraceMask is 0x%x. The new TraceMask will be 0x%x.\n", savedLevel, newMask);
        restoreLevel = newMask;
      } else {
        inform_printf("The current TraceMask is 0x%x\n", savedLevel);
      }
      break;
    case TOLK_SRC_LOGLEN: {
      int cur = GetLogFileLength();
      long wanted = p3 ? strtol(p3, nullptr, 16) : 0;
      if (wanted <= 0) {
        inform_printf("The current logfile length is %d.\n", cur);
      } else {
        ChangeLogFileLength(wanted > INT32_MAX ? INT32_MAX : static_cast<int>(wanted), 1);
        inform_printf("The current logfile length is %d. The new logfile length will be %d.\n", cur,
                      GetLogFileLength());
      }
      break;
    }
    case NLSSRC_NLS:
      if (p3 && p3[0] != '\0' && strcmp(p3, "C") != 0 && strcmp(p3, "POSIX") != 0) {
        localeSpecificLongStatus(p3);
        break;
      }
      // The canonical form, as for NLSSRC_C.
      [[fallthrough]];
    case NLSSRC_C: {
      CatalogueLocale locale("POSIX");
      canonicalLongStatus();
      break;
    }
    default: {
      CatalogueLocale locale(daemon_msg_locale);
      error_printf(getmsg_tk_gs_tolkvaskd(15), daemon_name, static_cast<int>(dae_request));
      break;
    }
  }

  _traceStream.StopSRCOutput();
  SetGlobalTracing(restoreLevel);
  return 0;
}

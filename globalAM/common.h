// Daemon-wide constants and the process-wide globals that start-up fills
// (tolkbrel.cc defines them; every other unit only reads them).
#ifndef VELT_GLOBALAM_COMMON_H_
#define VELT_GLOBALAM_COMMON_H_

#include <stdint.h>

#include "gscl.h"

using namespace velt_gscl_V1;  // NOLINT: the daemon is written against the client API

class TraceMarket;
class TraceServer;
class AMSigThread;

// Domain type of the cluster, from HA_DOMAIN_TYPE.
enum EDomainType { kQUIL = 1, kORBA = 2, kCLUSTER = 3 };

// Limits of the adapter table.
constexpr int MaxAdaptersOnNode = 48;
constexpr int MaxNodesInDomain = 2049;

// Globals owned by start-up.
extern const char* daemon_name;          // argv[1]; "tolkavskd" before
extern const char* daemon_msg_locale;    // LC_MESSAGES after the locale set-up
extern const char* domain_type;          // HA_DOMAIN_TYPE text
extern const char* refresh_cmd;          // SW_HERDLET_REFRESH_CMD
extern uint16_t myNodeNumber;
extern uint16_t myNodeIncarnation;
extern int WAIT_PENDING_DELAYED_DOWN_USECS;
extern int gs_initial_debug_level;
// Written by the dispatch thread when group services announce the
// version, read by the client sessions and every table update: outside
// single-threaded start-up and tests, use the two functions below, which
// take its lock.
extern tk_gs_velt_version_t veltActiveVersion;
tk_gs_velt_version_t getVeltActiveVersion();
void setVeltActiveVersion(const tk_gs_velt_version_t& version);
extern TraceMarket* traceMarket;
extern TraceServer* traceServer;
extern AMSigThread* amSigThread;

// Ends the process with a stop code; never returns. Any thread.
[[noreturn]] void ExitTheProcess(int exit_code, const char* stopmsg);
// Fills codemsg (at least 100 characters) with the stop code's name.
char* getStopCodeStr(int code, char* codemsg);

#endif  // VELT_GLOBALAM_COMMON_H_

// The daemon's entry point: environment checks, tracing and locale set-up,
// the controller, SRC, signals, the endless group services connection loop,
// the worker threads and the SRC main loop; and the one routine through
// which every thread ends the process.
#include "tolkbrel.h"

#include <errno.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <string>

#include "AMController.h"
#include "AMUtils.h"
#include "TraceStream.h"
#include "brel_signal.h"
#include "ha_assert.h"
#include "tk_gs_tolkvaskd_msg.h"
#include "vx_cu.h"
#include "vx_ffdc.h"

const char* daemon_name = "tolkavskd";
const char* daemon_msg_locale = "C";
const char* domain_type = "QUIL";
const char* refresh_cmd = "tolkvask";
const char* aggip_cfg_file = nullptr;
uint16_t myNodeNumber = 0;
uint16_t myNodeIncarnation = 0;
int WAIT_PENDING_DELAYED_DOWN_USECS = 16000000;
int gs_initial_debug_level = 0;
tk_gs_velt_version_t veltActiveVersion = {0, 0, 0, 0, 0};
TraceMarket* traceMarket = nullptr;
TraceServer* traceServer = nullptr;
AMSigThread* amSigThread = nullptr;
int gs_connect_retry_secs = 5;

namespace {

std::mutex veltActiveVersionLock;  // guards veltActiveVersion
std::mutex exit_lock;
int already_exiting = 0;  // guarded by exit_lock

// Logs a fatal configuration error, drains the logs and fails the
// assertion with its fixed text.
[[noreturn]] void fatalStartupError(const std::string& message, const char* assertion) {
  AM_TRACE(TRACE_FYI) << message.c_str() << endl;
  if (traceMarket) {
    traceMarket->stopMarket();
    traceMarket->drainAllLogs();
  }
  ha_assert(assertion, __FILE__, __LINE__, __DATE__, VELT_SOURCE_VERSION);
}

// atoi semantics, as the environment has always been read: no error
// detection, non-numeric text gives 0.
int envInt(const char* value) { return atoi(value); }

void logLocaleInformation() {
  const char* lang = getenv("LANG");
  AM_TRACE(TRACE_FYI) << "Daemon locale information: " << "LANG=" << (lang ? lang : "") << ", "
                      << "LC_MESSAGES=" << _get_locale_info(LC_MESSAGES) << ", "
                      << "LC_CTYPE=" << _get_locale_info(LC_CTYPE) << ", "
                      << "LC_ALL=" << _get_locale_info(LC_ALL) << endl;
}

}  // namespace

tk_gs_velt_version_t getVeltActiveVersion() {
  std::lock_guard<std::mutex> hold(veltActiveVersionLock);
  return veltActiveVersion;
}

void setVeltActiveVersion(const tk_gs_velt_version_t& version) {
  std::lock_guard<std::mutex> hold(veltActiveVersionLock);
  veltActiveVersion = version;
}

// Retries the group services connection every few seconds until it works
// or a stop request comes; SRC requests are served while it waits.
void gs_connect_loop(AMController* ctl) {
  int rc = 1;
  struct timespec start;
  cu_get_monotonic_time(&start);
  AMIntervalHitter hourly(3600);
  while (!ctl->AmIExiting() && rc != 0) {
    rc = ctl->initialize();
    AMController::initTries++;
    if (rc == 0) continue;
    if (TRACEABLE(TRACE_DEBUG)) {
      AM_TRACE(TRACE_DEBUG) << "GS is not initialized. rc=" << gscl_rc_name(rc) << " Will retry." << endl;
    }
    if (hourly.hit()) {
      struct timespec now;
      cu_get_monotonic_time(&now);
      long minutes = static_cast<long>(now.tv_sec - start.tv_sec) / 60;
      AM_TRACE(TRACE_FYI) << "Cannot initialize after [" << minutes << "] minutes.  Continuing." << endl;
    }
    ctl->quit();
    ctl->select_and_doSRCreq(gs_connect_retry_secs);
  }
}

namespace {

// While an SRC request copies trace output to its reply, the requesting
// thread's lines go to the requester as well.
void traceToSRC(const char* text) {
  AMController* ctl = amController();
  if (ctl && ctl->inRequest()) ctl->inform_printf("%s\n", text);
}

}  // namespace

const char* _get_locale_info(int category) {
  const char* name = setlocale(category, nullptr);
  return name ? name : "(null)";
}

void Move_To_Rundir() {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "Move_To_Rundir");
  const char* dir = getenv("SW_HERDLET_RUN_DIR");
  if (dir == nullptr) {
    HA_ASSERT_FAIL("SW_HERDLET_RUN_DIR not specified.");
  }
  AM_TRACE(TRACE_FYI) << "runDirectory = " << dir << endl;
  if (chdir(dir) != 0) {
    // Not checked by design: the daemon keeps its current directory.
  }
}

void Establish_Resource_Limits() { TraceBlock tb(TraceLevel(TRACE_BLOCK), "Establish_Resource_Limits"); }

char* getStopCodeStr(int code, char* codemsg) {
  switch (code) {
    case -3: strcpy(codemsg, "(Cancel)"); break;
    case -2: strcpy(codemsg, "(ForcedStop)"); break;
    case -1: strcpy(codemsg, "(NormalStop)"); break;
    case 1: sprintf(codemsg, "VASKStop(%d)", code); break;
    case 2: sprintf(codemsg, "VASKAbort(%d)", code); break;
    case 3: sprintf(codemsg, "VASKAbrupt(%d)", code); break;
    case 4: sprintf(codemsg, "VASKBySignal(%d)", code); break;
    case 5: sprintf(codemsg, "TOLKDied(%d)", code); break;
    case 6: sprintf(codemsg, "VoteWrong(%d)", code); break;
    case 7: sprintf(codemsg, "DupInst(%d)", code); break;
    case 8: sprintf(codemsg, "UnableExit(%d)", code); break;
    case 9: sprintf(codemsg, "RestartForOldNode(%d)", code); break;
    default: sprintf(codemsg, "StopCode(%d)", code); break;
  }
  return codemsg;
}

void ExitTheProcess(int exit_code, const char* stopmsg) {
  int previous;
  {
    std::lock_guard<std::mutex> hold(exit_lock);
    previous = already_exiting++;
  }
  if (previous != 0) {
    sleep(120);
    ha_assert("Already other thread is exiting the process", __FILE__, __LINE__, __DATE__, VELT_SOURCE_VERSION);
    abort();
  }
  if (TRACEABLE(TRACE_GSCL)) AMtracef(0x20000000, "Exiting TheProcess\n");

  int code = exit_code;
  std::string message = stopmsg ? stopmsg : "";
  AMController* ctl = amController();
  if (code == 0) {
    if (ctl) {
      code = ctl->getStopCode();
      message = ctl->getStopMsg() ? ctl->getStopMsg() : "";
    }
    if (code == 0) code = 1;
    if (message.empty()) message = "TOLKVASK is exiting";
  }
  char codeName[128];
  getStopCodeStr(code, codeName);
  if (TRACEABLE(TRACE_GSCL)) AMtracef(0x20000000, "Exiting msg=%s code=%s\n", message.c_str(), codeName);

  const char* ffdcId = ctl ? ctl->get_ffdc_id() : nullptr;
  AM_TRACE(TRACE_FYI) << TraceLabel(15, ffdcId) << message.c_str() << " ExitCode=" << codeName << endl;

  if (ctl) ctl->RequestToExit();
  if (TRACEABLE(TRACE_GSCL)) AMtracef(0x20000000, "Time to exit process. Exitcode=%s\n", codeName);

  if (traceMarket) {
    if (ctl) ctl->quit();
    traceMarket->stopMarket();
    for (int i = 0; i < 100 && !traceMarket->isAllServerIdle(); ++i) usleep(50 * 1000);
    traceMarket->drainAllLogs();
  }
  if (code == 2 || code == 3) {
    ha_assert("VASK stops unexpectedly", __FILE__, __LINE__, __DATE__, VELT_SOURCE_VERSION);
    abort();
  }
  fflush(stdout);
  fflush(stderr);
  // The worker threads are still running: leave without running static
  // destructors under their feet.
  _exit(code);
}

void gscl_debug_tracef(int trclvl, char* str) {
  unsigned level = (trclvl & 0x10000000) ? TRACE_DEBUG : TRACE_GSCL;
  if (!TRACEABLE(level)) return;
  const char* prefix = (GSDebugLevel() & 0x80000000) ? GSTraceDebugName() : "";
  if (str != nullptr) {
    // The length is kept in 8 bits, so for long texts the stripping starts
    // at (length mod 256) - 1; kept as it has always been.
    unsigned char len = static_cast<unsigned char>(strlen(str));
    for (int i = static_cast<int>(len) - 1; i >= 0 && str[i] == '\n'; --i) str[i] = '\0';
  }
  AM_TRACE(level) << prefix << (str ? str : "") << endl;
}

void* gs_dispatch_run(void*) {
  TraceClient client(traceMarket, 0);
  block_thread_allsig_except_syncsig();
  AM_TRACE(TRACE_FYI) << "GS dispatch thread is starting" << endl;
  AMController* ctl = amController();
  for (;;) {
    int rc = ctl->dispatch(TK_GS_BLOCKING);
    if (ctl->AmIExiting()) break;
    if (rc == 0) continue;
    int savedErrno = errno;
    int stopCode = 5;
    if (AMController::propagator && AMController::propagator->isCfgProviderActive()) stopCode = 3;
    char text[300];
    snprintf(text, sizeof(text), "tk_gs_dispatch() returns rc=%s errno=%d stopcode=%d.", gscl_rc_name(rc),
             savedErrno, stopCode);
    AM_TRACE(TRACE_FYI) << text << endl;
    ctl->setStopCode(stopCode, text);
  }
  AM_TRACE(TRACE_FYI) << "GS dispatch thread is exiting" << endl;
  return nullptr;
}

int tolkbrel_main(int argc, char** argv) {
  const char* debug = getenv("DAE_DEBUG");
  if (debug && strcmp(debug, "stop") == 0) dae_pause_for_debugger();
  if (argc != 2) {
    fprintf(stderr, "Usage: %s <daemon_name>\n", argv[0]);
    exit(-1);
  }
  mode_t savedMask = umask(0);
  umask(savedMask);

  TraceBlock tb(TraceLevel(TRACE_BLOCK), "main");
  daemon_name = argv[1];
  traceMarket = TraceStream::traceMarket;
  traceServer = new TraceServer(traceMarket);
  new TraceClient(traceMarket, 0);  // the main thread's, for the process life

  const char* tlevel = getenv("SW_HERDLET_TLEVEL");
  int level = tlevel ? envInt(tlevel) : 1567;
  gs_initial_debug_level = GSDebugLevel();
  AMSRCDriver::SetGlobalTracing(level);
  GSSetDebugRtn(gscl_debug_tracef);
  GSSetTraceRtn(gscl_debug_tracef);
  setTraceSRCOutputRoutine(traceToSRC);
  cu_prepare_locale_1();

  setlocale(LC_ALL, "");
  const char* msgLocale = getenv("SW_HERDLET_MSG_LOCALE");
  if (msgLocale) setlocale(LC_MESSAGES, msgLocale);
  daemon_msg_locale = strdup(_get_locale_info(LC_MESSAGES));
  logLocaleInformation();
  setmsg_locale_tk_gs_tolkvaskd("POSIX");

  if (getenv("SW_HERDLET_FFDC_INIT_DONE") == nullptr) {
    int fc = fc_init_1("VELT");
    if (fc != 0 && fc != 1 && fc != 15) {
      AM_TRACE(TRACE_FYI) << "FFDC Initialization failed FC=" << fc << endl;
    }
  }

  const char* dt = getenv("HA_DOMAIN_TYPE");
  domain_type = dt ? dt : "Undefined";
  if (strcmp(domain_type, "QUIL") == 0) {
    AMController::domainType = kQUIL;
  } else if (strcmp(domain_type, "ORBA") == 0) {
    AMController::domainType = kORBA;
  } else if (strcmp(domain_type, "CLUSTER") == 0) {
    AMController::domainType = kCLUSTER;
  } else {
    fatalStartupError(std::string("Domain type ( ") + domain_type + ") is not correctly specified",
                      "HA_DOMAIN_TYPE not correctly specified");
  }

  const char* cmd = getenv("SW_HERDLET_REFRESH_CMD");
  if (cmd == nullptr) {
    fatalStartupError("Refresh cmd name(SW_HERDLET_REFRESH_CMD) is not specified",
                      "SW_HERDLET_REFRESH_CMD not specified");
  }
  refresh_cmd = cmd;

  aggip_cfg_file = getenv("SW_HERDLET_AGGIP_CFG");
  if (aggip_cfg_file == nullptr) {
    const char* runDir = getenv("SW_HERDLET_RUN_DIR");
    if (runDir == nullptr) {
      fatalStartupError("SW_HERDLET_RUN_DIR is not specified", "SW_HERDLET_RUN_DIR not specified");
    }
    std::string assignment = std::string("SW_HERDLET_AGGIP_CFG=") + runDir + "/AggregateIP.cfg";
    putenv(strdup(assignment.c_str()));
    aggip_cfg_file = getenv("SW_HERDLET_AGGIP_CFG");
  }

  const char* node = getenv("SW_HERDLET_NODE_NUMBER");
  if (node == nullptr) fatalStartupError("Node number is not specified", "SW_HERDLET_NODE_NUMBER not specified.");
  myNodeNumber = static_cast<uint16_t>(envInt(node));
  const char* incarnation = getenv("SW_HERDLET_INCARNATION_NUMBER");
  if (incarnation == nullptr) {
    fatalStartupError("Incarnation number is not specified", "SW_HERDLET_INCARNATION_NUMBER not specified.");
  }
  myNodeIncarnation = static_cast<uint16_t>(envInt(incarnation));
  AM_TRACE(TRACE_FYI) << "Our node number is[" << static_cast<long>(myNodeNumber) << "] incarnation["
                      << static_cast<long>(myNodeIncarnation) << "]" << " PID=" << static_cast<long>(getpid())
                      << " DomainType=" << static_cast<long>(AMController::domainType) << endl;

  const char* waitTime = getenv("SW_HERDLET_WAIT_TIME");
  if (waitTime) AMController::responsive_interval = envInt(waitTime);
  const char* downDelay = getenv("SW_HERDLET_DOWN_DELAY_SECS");
  if (downDelay) {
    long long secs = envInt(downDelay);
    if (secs >= 0) {
      long long usecs = secs * 1000000LL;
      // Beyond what the microsecond counter holds, the longest delay it can.
      WAIT_PENDING_DELAYED_DOWN_USECS = usecs > INT_MAX ? INT_MAX : static_cast<int>(usecs);
    }
  }
  AM_TRACE(TRACE_FYI) << "SW_HERDLET_WAIT_TIME period = " << AMController::responsive_interval
                      << ", DownDelayTime(uSecs)=" << WAIT_PENDING_DELAYED_DOWN_USECS << endl;

  const char* deviceCheck = getenv("VASK_DEVICE_CHECK_INTERVAL");
  if (deviceCheck) {
    int v = envInt(deviceCheck);
    AMController::vask_device_check_interval = v <= 0 ? 30 : v;
  }
  const char* mlxCheck = getenv("VASK_MLX_CHECK_INTERVAL");
  if (mlxCheck) {
    int v = envInt(mlxCheck);
    AMController::vask_mlX_check_interval = v <= 0 ? 60 : v;
  }
  AM_TRACE(TRACE_FYI) << "VASK_DEVICE_CHECK_INTERVAL period = " << AMController::vask_device_check_interval
                      << ", VASK_MLX_CHECK_INTERVAL = " << AMController::vask_mlX_check_interval << endl;

  const char* logSize = getenv("SW_HERDLET_LOGSIZE");
  const char* logFile = getenv("SW_HERDLET_LOGFILE");
  bool interactive = getenv("SW_HERDLET_INTERACTIVE") != nullptr;
  const char* exclusiveFile = getenv("SW_HERDLET_TID_DIR");
  if (exclusiveFile == nullptr && !interactive) {
    fatalStartupError("SW_HERDLET_TID_DIR not specified.", "SW_HERDLET_TID_DIR not specified.");
  }

  AMController* ctl = new AMController();

  if (!interactive) {
    AM_TRACE(TRACE_FYI) << "Attempting to initialize the SRC.  Using exclusive file: " << exclusiveFile << endl;
    int rc = ctl->InitSRC(1, exclusiveFile, 88, nullptr);
    if (rc != 0) {
      traceMarket->stopMarket();
      traceMarket->drainAllLogs();
      return rc;
    }
    AM_TRACE(TRACE_FYI) << "Running as daemon.  SRC connection initialized." << endl;
  } else {
    AM_TRACE(TRACE_FYI) << "Running interactively, did not initialize SRC connections." << endl;
  }

  umask(savedMask);
  if (logFile) redirectCout(logSize, logFile);

  set_fulldump_signals(0);
  set_handled_signals(SIGTERM, handle_signals);
  amSigThread = new AMSigThread();
  amSigThread->start(nullptr);
  amSigThread->waitSyncEvent(nullptr, 30, 0);
  if (!amSigThread->ready()) {
    AM_TRACE(TRACE_ERROR) << "Error in setting signal handlers" << endl;
    ExitTheProcess(3, "Unable to set signal handler");
  }

  block_thread_allsig_except_syncsig();
  TopOfTheLog();
  char startText[1024];
  if (logFile) {
    snprintf(startText, sizeof(startText), "Group Services VASK daemon started. Log file is %s.", logFile);
  } else {
    snprintf(startText, sizeof(startText), "Group Services VASK daemon started.");
  }
  AM_TRACE(TRACE_FYI) << TraceLabel(14) << startText << endl;
  tolk_clear_ffdc_if_exist();
  traceServer->start(nullptr);

  AMController::vask_working_state = 0;
  ctl->setSocketOption(TK_GS_ENABLE_ADAPTER_INFO);

  gs_connect_loop(ctl);
  if (ctl->AmIExiting()) ExitTheProcess(8, "TOLKVASK exiting");

  AM_TRACE(TRACE_FYI) << "GSAPI is now initialized" << endl;
  pthread_t dispatchThread;
  int err = pthread_create(&dispatchThread, nullptr, gs_dispatch_run, nullptr);
  if (err != 0) {
    AM_TRACE(TRACE_ERROR) << "Error on creating gsdispatch thread. errno=" << err << endl;
    ExitTheProcess(10, "Unable to start gs_dispatch thread");
  }
  pthread_detach(dispatchThread);

  AMController::vask_working_state = 1;
  ctl->startAllMediators();
  ctl->startAllAggregators();
  // Aggregators are started by whoever created them: only a test build
  // has any.
  const AMAggregatorSetup* aggregatorSetup = AMController::aggregatorSetup();
  if (aggregatorSetup != nullptr && aggregatorSetup->start != nullptr) aggregatorSetup->start(ctl);
  if (AMController::domainType == kCLUSTER) ctl->startAMCfgMonitor();
  if (AMController::propagator) AMController::propagator->start(nullptr);
  AM_TRACE(TRACE_FYI) << "TOLKVASK is now ready to roll. " << endl;
  tk_gs_velt_version_t active;
  ctl->get_velt_active_version(&active);
  setVeltActiveVersion(active);

  if (AMController::domainType == kCLUSTER) {
    AM_TRACE(TRACE_FYI) << "namServer started." << endl;
    if (ctl->namServer) ctl->namServer->start(nullptr);
  }

  while (!ctl->AmIExiting()) ctl->select_and_doSRCreq(-1);
  ExitTheProcess(8, "TOLKVASK exiting");
}

#include "brel_signal.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "AMController.h"
#include "TraceStream.h"

const char* sig_strings[64] = {
    "SIG_NONEXIST", "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",  "SIGTRAP",
    "SIGABRT",      "SIGBUS",  "SIGFPE",    "SIGKILL", "SIGUSR1", "SIGSEGV",
    "SIGUSR2",      "SIGPIPE", "SIGALRM",   "SIGTERM", "SIGSTKFLT", "SIGCHLD",
    "SIGCONT",      "SIGSTOP", "SIGTSTP",   "SIGTTIN", "SIGTTOU", "SIGURG",
    "SIGXCPU",      "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",
    "SIGPWR",
    // 31..63
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
    "SIG_NONEXIST", "SIG_NONEXIST", "SIG_NONEXIST",
};

// Signals for which a handler may be installed: the entry equals its index.
int handled_signals[65] = {
    0, 0, SIGINT, SIGQUIT, 0, 0, 0, 0, 0, 0, SIGUSR1, 0, SIGUSR2, SIGPIPE, 0, SIGTERM,
    0, SIGCHLD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    -1,
};
const int n_handled = 65;

namespace {

// Reset to the default action so that they leave a core dump.
const int fulldump_signals[] = {SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGBUS, SIGSEGV, -1};
const int kMaxFulldump = 8;

const int sync_signals[] = {SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGSTKFLT, SIGBUS, SIGSEGV, -1};

// What the signal thread waits for. The repeated entries are harmless.
const int catch_signals[] = {
    SIGCHLD, SIGINT,  SIGQUIT, SIGALRM, SIGURG,    SIGTSTP, SIGCONT, SIGTTIN,
    SIGTTOU, SIGIO,   SIGXCPU, SIGXFSZ, SIGWINCH,  SIGPWR,  SIGUSR1, SIGUSR2,
    SIGPROF, SIGVTALRM, SIGSEGV, SIGBUS, SIGPIPE,  SIGWINCH, SIGPROF, SIGXCPU,
    SIGXFSZ, SIGPWR,  SIGTSTP, SIGTTIN, SIGTTOU, -1};

const int more_async_signals[] = {SIGHUP, -1};

void addAll(sigset_t* set, const int* list) {
  for (int i = 0; list[i] != -1; ++i) sigaddset(set, list[i]);
}

void logSigactionError(int rc, int sig) {
  AM_TRACE(TRACE_ERROR) << "Error [" << strerror(rc) << "] setting signal handling for signal ["
                        << signalName(sig) << " (" << sig << ")]" << endl;
}

void installHandler(int sig, void (*handler)(int)) {
  struct sigaction act;
  sigaction(sig, nullptr, &act);
  act.sa_handler = handler;
  act.sa_flags &= ~SA_RESETHAND;
  int rc = sigaction(sig, &act, nullptr);
  if (rc != 0) logSigactionError(rc, sig);
}

void restoreDefault(int sig) {
  struct sigaction act;
  sigaction(sig, nullptr, &act);
  act.sa_handler = SIG_DFL;
  int rc = sigaction(sig, &act, nullptr);
  if (rc != 0) logSigactionError(rc, sig);
}

}  // namespace

const char* signalName(int sig) {
  if (sig < 0 || sig >= 64) return "SIG_NONEXIST";
  return sig_strings[sig];
}

void set_handled_signals(int which, void (*handler)(int)) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "set_handled_signals");
  if (which < 0 || which > 64) {
    AM_TRACE(TRACE_FYI) << "In set_handled_signals and given bad value [" << which << "]" << endl;
    return;
  }
  if (which == 0) {
    for (int i = 1; i < n_handled && handled_signals[i] != -1; ++i) {
      if (handled_signals[i] != 0) installHandler(handled_signals[i], handler);
    }
    return;
  }
  if (handled_signals[which] == which) installHandler(which, handler);
}

void set_fulldump_signals(int which) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "set_fulldump_signals");
  if (which < 0 || which > 64) return;
  if (which == 0) {
    for (int i = 0; i < kMaxFulldump && fulldump_signals[i] != -1; ++i) {
      restoreDefault(fulldump_signals[i]);
    }
    return;
  }
  restoreDefault(which);
}

void get_only_sync_sigmask(sigset_t* set) {
  sigemptyset(set);
  addAll(set, sync_signals);
}

void get_all_catch_sigmask(sigset_t* set) {
  sigemptyset(set);
  addAll(set, catch_signals);
}

void get_all_async_sigmask(sigset_t* set) {
  get_all_catch_sigmask(set);
  addAll(set, more_async_signals);
}

void block_thread_allsig_except_syncsig() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  sigset_t async;
  get_all_async_sigmask(&async);
  pthread_sigmask(SIG_BLOCK, &async, nullptr);
}

int SIGNAL_TO_EXIT(int sig) {
  return (sig == SIGINT || sig == SIGQUIT || sig == SIGTERM) ? 1 : 0;
}

void handle_signals(int sig) {
  AM_TRACE(TRACE_FYI) << "Received signal [" << signalName(sig) << " (" << sig << ")]" << endl;
  if (sig == SIGCHLD) {
    if (amController() && AMController::propagator) {
      AMController::propagator->postSyncEvent(PEVT_CHECK_REFRESH_DONE);
    }
    return;
  }
  if (SIGNAL_TO_EXIT(sig)) {
    const char* msg = AMController::vask_working_state == 0
                          ? "Not yet connected to tolk. Exit immediately."
                          : "Exit immediately";
    if (amController()) amController()->stopByOtherSignal(4, signalName(sig), msg);
  }
}

void* AMSigThread::run(void*) {
  TraceClient client(traceMarket, 0);
  block_thread_allsig_except_syncsig();
  sigset_t catchSet;
  get_all_catch_sigmask(&catchSet);
  _ready = 1;
  postSyncEvent(1);
  while (getThreadState() == GS_THREAD_RUNNING) {
    AM_TRACE(TRACE_FYI) << " Waiting for a signal" << endl;
    int sig = 0;
    if (sigwait(&catchSet, &sig) != 0) {
      sleep(1);
      continue;
    }
    handle_signals(sig);
    if (SIGNAL_TO_EXIT(sig)) {
      usleep(1000);
      ExitTheProcess(0, nullptr);
    }
  }
  return nullptr;
}

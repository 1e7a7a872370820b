// Signal handling: one thread waits for the asynchronous signals and turns
// them into daemon actions; every other thread blocks them. Fault signals
// keep their default action so that they leave a full dump.
#ifndef VELT_GLOBALAM_BREL_SIGNAL_H_
#define VELT_GLOBALAM_BREL_SIGNAL_H_

#include <signal.h>

#include "common.h"

extern const char* sig_strings[64];
extern int handled_signals[65];
extern const int n_handled;

void set_handled_signals(int which, void (*handler)(int));
void set_fulldump_signals(int which);
void get_only_sync_sigmask(sigset_t* set);
void get_all_catch_sigmask(sigset_t* set);
void get_all_async_sigmask(sigset_t* set);
void block_thread_allsig_except_syncsig();
void handle_signals(int sig);
int SIGNAL_TO_EXIT(int sig);
// Name of a signal number ("SIG_NONEXIST" outside the table).
const char* signalName(int sig);

// The signal thread. Owned by start-up; runs until the process ends.
class AMSigThread : public GSThread {
 public:
  AMSigThread() = default;
  ~AMSigThread() override = default;
  void* run(void* arg) override;
  int ready() const { return _ready; }

 private:
  volatile int _ready = 0;
};

#endif  // VELT_GLOBALAM_BREL_SIGNAL_H_

// Start-up, the dispatch thread and process exit of tolkvaskd.
#ifndef VELT_GLOBALAM_TOLKBREL_H_
#define VELT_GLOBALAM_TOLKBREL_H_

#include "common.h"

// The daemon's start-up; never returns while the daemon runs (the process
// ends through ExitTheProcess), but returns the SRC set-up's error or the
// usage status.
int tolkbrel_main(int argc, char** argv);

void* gs_dispatch_run(void* arg);
void gscl_debug_tracef(int trclvl, char* str);
const char* _get_locale_info(int category);
void Move_To_Rundir();
void Establish_Resource_Limits();

// Path of the aggregate configuration file (SW_HERDLET_AGGIP_CFG).
extern const char* aggip_cfg_file;

class AMController;
// Connects to group services, retrying until it works or the daemon is
// asked to exit.
void gs_connect_loop(AMController* ctl);

// The connection loop's retry pause in seconds (5); tests shorten it.
extern int gs_connect_retry_secs;

#endif  // VELT_GLOBALAM_TOLKBREL_H_

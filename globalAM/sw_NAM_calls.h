// The local client interface's side of adapter changes: the version gate,
// the delta table that collects changed rows between two publications, the
// publication itself, and the NAM device state.
//
// Every changed row is announced with accumulate_NAM_change (under the
// adapter table's write lock); reflect_NAM_changes publishes the batch: one
// update per client session, then the delta table is cleared and the
// sessions are woken. veltnamSyncLock takes its place in the lock order
// written in AMNetIf.h.
#ifndef VELT_GLOBALAM_SW_NAM_CALLS_H_
#define VELT_GLOBALAM_SW_NAM_CALLS_H_

#include <pthread.h>
#include <stdint.h>

#include <mutex>

#include "veltnam_utils.h"

class AMAdapterItem;

// Compares two packed versions (one byte each for version, release,
// modification and fix, most significant first): negative, 0 or positive as
// a is older than, equal to or newer than b. flag is unused.
int compareVELTVersions(uint32_t a, uint32_t b, int flag);

// True when the cluster's active version is 2.4.5.0 or newer.
bool isVELTNAMInterfaceSupported();

// The changes not yet published, per network.
extern veltnamNetInfoList veltnamNetInfoListDelta;  // GUARDED_BY(veltnamSyncLock)
extern std::mutex veltnamSyncLock;

// Copies the row's client record into the delta table (nothing when the
// interface is not supported). Called with the table's write lock held.
// Returns 0.
int accumulate_NAM_change(AMAdapterItem* row);
// Publishes the delta table to every client session and clears it; an
// empty table queues nothing and wakes nobody. Must not be called with
// veltnamSyncLock held; may be called with or without the table lock.
// Returns 0.
int reflect_NAM_changes();

// Requires: veltnamSyncLock held. True when the adapter's record was
// replaced in place in its own network; false when it was not in the delta
// table or has just been taken out of the network it left (the caller then
// inserts it).
bool find_and_update_velt_nam_conn_item(AMAdapterItem* row);
// Requires: veltnamSyncLock held. Adds the row's record under its network.
void insert_velt_nam_conn_item(AMAdapterItem* row);

// NAM device state. Nothing opens the device: these only hold values.
extern pthread_mutex_t namSyncLock;
extern int namRegistered;   // GUARDED_BY(namSyncLock); 0 at start
extern int namfd;           // GUARDED_BY(namSyncLock); -1 at start
extern int namNodeNumber;   // GUARDED_BY(namSyncLock)
extern int namAPIenabled;   // GUARDED_BY(namSyncLock)
// Returns the device descriptor (-1: not open).
int register_NAM();
int already_NAM_registered();
// Unlocks namSyncLock (the clean-up of a cancelled holder).
void namSyncCleanup(void* arg);
void enable_disable_NAM_interface(int enable);
void set_NAM_node_number(int node);

#endif  // VELT_GLOBALAM_SW_NAM_CALLS_H_

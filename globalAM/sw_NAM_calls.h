// The local client interface's view of the cluster version.
#ifndef VELT_GLOBALAM_SW_NAM_CALLS_H_
#define VELT_GLOBALAM_SW_NAM_CALLS_H_

#include <stdint.h>

// Compares two packed versions (one byte each for version, release,
// modification and fix, most significant first): negative, 0 or positive as
// a is older than, equal to or newer than b. flag is unused.
int compareVELTVersions(uint32_t a, uint32_t b, int flag);

// True when the cluster's active version is 2.4.5.0 or newer.
bool isVELTNAMInterfaceSupported();

#endif  // VELT_GLOBALAM_SW_NAM_CALLS_H_

// Umbrella header of libvx_gscl.
#ifndef VELT_PLATFORM_GSCL_GSCL_H_
#define VELT_PLATFORM_GSCL_GSCL_H_
#include "gs_client.h"
#include "gs_controller.h"
#include "gs_market.h"
#include "gs_thread.h"
#include "gs_types.h"
#include "gs_utils.h"
#endif  // VELT_PLATFORM_GSCL_GSCL_H_

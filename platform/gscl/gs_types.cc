// Names of the client API's return codes, for traces.
#include "gs_types.h"

#include <stdio.h>

// Values that the daemon and older clients rely on; they must never move.
static_assert(TK_GS_OK == 0 && TK_GS_NOT_OK == 1, "fixed return codes");
static_assert(TK_GS_UNKNOWN_GROUP == 10 && TK_GS_INVALID_GROUP == 11, "fixed return codes");
static_assert(TK_GS_DUPLICATE_INSTANCE_NUMBER == 15, "fixed return codes");
static_assert(TK_GS_NOT_SUPPORTED == 21 && TK_GS_BACKLEVEL_PROVIDERS == 26, "fixed return codes");
static_assert(TK_GS_CALLBACK_OK == 1 && TK_GS_DOMAIN_VERSION == 3, "fixed constants");

const char* gscl_rc_name(int rc) {
  switch (rc) {
    case TK_GS_OK: return "TK_GS_OK";
    case TK_GS_NOT_OK: return "TK_GS_NOT_OK";
    case TK_GS_NOT_CONNECTED: return "TK_GS_NOT_CONNECTED";
    case TK_GS_ALREADY_INITIALIZED: return "TK_GS_ALREADY_INITIALIZED";
    case TK_GS_NOT_INITIALIZED: return "TK_GS_NOT_INITIALIZED";
    case TK_GS_GS_HAS_DIED: return "TK_GS_GS_HAS_DIED";
    case TK_GS_BAD_PARAMETER: return "TK_GS_BAD_PARAMETER";
    case TK_GS_NO_MEMORY: return "TK_GS_NO_MEMORY";
    case TK_GS_PERMISSION_DENIED: return "TK_GS_PERMISSION_DENIED";
    case TK_GS_ALREADY_JOINED: return "TK_GS_ALREADY_JOINED";
    case TK_GS_NOT_JOINED: return "TK_GS_NOT_JOINED";
    case TK_GS_INVALID_GROUP: return "TK_GS_INVALID_GROUP";
    case TK_GS_UNKNOWN_GROUP: return "TK_GS_UNKNOWN_GROUP";
    case TK_GS_DUPLICATE_INSTANCE_NUMBER: return "TK_GS_DUPLICATE_INSTANCE_NUMBER";
    case TK_GS_LIMIT_EXCEEDED: return "TK_GS_LIMIT_EXCEEDED";
    case TK_GS_PROTOCOL_IN_PROGRESS: return "TK_GS_PROTOCOL_IN_PROGRESS";
    case TK_GS_TIMEOUT: return "TK_GS_TIMEOUT";
    case TK_GS_NO_NOTIFICATION: return "TK_GS_NO_NOTIFICATION";
    case TK_GS_BAD_FRAME: return "TK_GS_BAD_FRAME";
    case TK_GS_VERSION_MISMATCH: return "TK_GS_VERSION_MISMATCH";
    case TK_GS_NOT_SUBSCRIBED: return "TK_GS_NOT_SUBSCRIBED";
    case TK_GS_NOT_SUPPORTED: return "TK_GS_NOT_SUPPORTED";
    case TK_GS_ADDRESS_UNKNOWN: return "TK_GS_ADDRESS_UNKNOWN";
    case TK_GS_ALREADY_SUBSCRIBED: return "TK_GS_ALREADY_SUBSCRIBED";
    case TK_GS_INVALID_STATE: return "TK_GS_INVALID_STATE";
    case TK_GS_COLLIDED_PROTOCOL: return "TK_GS_COLLIDED_PROTOCOL";
    case TK_GS_BACKLEVEL_PROVIDERS: return "TK_GS_BACKLEVEL_PROVIDERS";
  }
  // Per thread, so that two threads naming unknown codes at once each keep
  // their own text until their next call.
  thread_local char unknown[40];
  snprintf(unknown, sizeof unknown, "TK_GS_UNKNOWN_RC(%d)", rc);
  return unknown;
}

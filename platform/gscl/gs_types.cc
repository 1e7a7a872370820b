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

static_assert(TK_GS_JOIN == 1 && TK_GS_FAILURE_LEAVE == 2 && TK_GS_LEAVE == 3 &&
                  TK_GS_CHANGE_STATE_VALUE == 4 && TK_GS_PROVIDER_MESSAGE == 5 && TK_GS_EXPEL == 6,
              "protocol types are on the wire");
static_assert(TK_GS_SUBSCRIPTION_DELTA_JOIN == 2 && TK_GS_SUBSCRIPTION_DELTA_LEAVE == 4 &&
                  TK_GS_SUBSCRIPTION_MEMBERSHIP == 8 && TK_GS_SUBSCRIPTION_DISSOLVED == 128 &&
                  TK_GS_SUBSCRIPTION_GS_HAS_DIED == 256,
              "subscription bits are on the wire");
static_assert(TK_GS_PROPOSED_MEMBERSHIP == 1 && TK_GS_UPDATED_MEMBERSHIP == 32 && TK_GS_BATCH_BOTH == 3,
              "fixed constants");
static_assert(sizeof(tk_gs_ip_addr) == 16, "addresses are 16 bytes");

const char* gscl_request_name(int type) {
  switch (type) {
    case TK_GS_JOIN: return "TK_GS_JOIN";
    case TK_GS_FAILURE_LEAVE: return "TK_GS_FAILURE_LEAVE";
    case TK_GS_LEAVE: return "TK_GS_LEAVE";
    case TK_GS_CHANGE_STATE_VALUE: return "TK_GS_CHANGE_STATE_VALUE";
    case TK_GS_PROVIDER_MESSAGE: return "TK_GS_PROVIDER_MESSAGE";
    case TK_GS_EXPEL: return "TK_GS_EXPEL";
    case TK_GS_GOODBYE: return "TK_GS_GOODBYE";
    case TK_GS_VOTE: return "TK_GS_VOTE";
    case TK_GS_SET_ATTRIBUTES: return "TK_GS_SET_ATTRIBUTES";
    case TK_GS_SUBSCRIBE: return "TK_GS_SUBSCRIBE";
    case TK_GS_UNSUBSCRIBE: return "TK_GS_UNSUBSCRIBE";
  }
  thread_local char unknown[40];
  snprintf(unknown, sizeof unknown, "TK_GS_REQUEST(%d)", type);
  return unknown;
}

namespace {

struct BitName {
  unsigned int bit;
  const char* name;
};

// Joins the names of the set bits; bits without a name show as hex.
const char* bitNames(unsigned int bits, const BitName* table, size_t n, char* buf, size_t len) {
  buf[0] = '\0';
  size_t used = 0;
  unsigned int rest = bits;
  for (size_t i = 0; i < n; ++i) {
    if ((bits & table[i].bit) == 0) continue;
    rest &= ~table[i].bit;
    int w = snprintf(buf + used, len - used, "%s%s", used > 0 ? "|" : "", table[i].name);
    if (w < 0 || static_cast<size_t>(w) >= len - used) return buf;
    used += static_cast<size_t>(w);
  }
  if (rest != 0) snprintf(buf + used, len - used, "%s0x%x", used > 0 ? "|" : "", rest);
  return buf;
}

}  // namespace

const char* gscl_summary_code_names(unsigned int code) {
  static const BitName kNames[] = {
      {TK_GS_EXPLICIT_LEAVE, "TK_GS_EXPLICIT_LEAVE"},
      {TK_GS_PROVIDER_FAILED, "TK_GS_PROVIDER_FAILED"},
      {TK_GS_NODE_FAILED, "TK_GS_NODE_FAILED"},
      {TK_GS_PROVIDER_EXPELLED, "TK_GS_PROVIDER_EXPELLED"},
      {TK_GS_GROUP_DISSOLVED, "TK_GS_GROUP_DISSOLVED"},
      {TK_GS_GROUP_SERVICES_HAS_DIED, "TK_GS_GROUP_SERVICES_HAS_DIED"},
      {TK_GS_TIME_LIMIT_EXCEEDED, "TK_GS_TIME_LIMIT_EXCEEDED"},
      {TK_GS_VOTE_REJECTED, "TK_GS_VOTE_REJECTED"},
  };
  thread_local char buf[256];
  return bitNames(code, kNames, sizeof kNames / sizeof kNames[0], buf, sizeof buf);
}

const char* gscl_subscription_type_names(unsigned int type) {
  static const BitName kNames[] = {
      {TK_GS_SUBSCRIPTION_DELTA_JOIN, "TK_GS_SUBSCRIPTION_DELTA_JOIN"},
      {TK_GS_SUBSCRIPTION_DELTA_LEAVE, "TK_GS_SUBSCRIPTION_DELTA_LEAVE"},
      {TK_GS_SUBSCRIPTION_MEMBERSHIP, "TK_GS_SUBSCRIPTION_MEMBERSHIP"},
      {TK_GS_SUBSCRIPTION_DISSOLVED, "TK_GS_SUBSCRIPTION_DISSOLVED"},
      {TK_GS_SUBSCRIPTION_GS_HAS_DIED, "TK_GS_SUBSCRIPTION_GS_HAS_DIED"},
  };
  thread_local char buf[256];
  return bitNames(type, kNames, sizeof kNames / sizeof kNames[0], buf, sizeof buf);
}

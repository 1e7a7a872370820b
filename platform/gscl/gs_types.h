// The group services client API's plain types and constants (tk_gs_*).
// Values that the daemon's design fixes are kept as it gives them; the rest
// are this library's own.
#ifndef VELT_PLATFORM_GSCL_GS_TYPES_H_
#define VELT_PLATFORM_GSCL_GS_TYPES_H_

#include <stdint.h>

// Return codes of the client API (sync results and delayed errors).
typedef enum {
  TK_GS_OK = 0,
  TK_GS_NOT_OK = 1,
  TK_GS_NOT_CONNECTED = 2,          // no agent listens on the agent socket
  TK_GS_ALREADY_INITIALIZED = 3,
  TK_GS_NOT_INITIALIZED = 4,
  TK_GS_GS_HAS_DIED = 5,            // the connection to the agent was lost
  TK_GS_BAD_PARAMETER = 6,
  TK_GS_NO_MEMORY = 7,
  TK_GS_PERMISSION_DENIED = 8,      // the agent refused our credentials
  TK_GS_ALREADY_JOINED = 9,
  TK_GS_UNKNOWN_GROUP = 10,         // the group does not exist (yet)
  TK_GS_INVALID_GROUP = 11,
  TK_GS_NOT_JOINED = 12,
  TK_GS_PROTOCOL_IN_PROGRESS = 13,
  TK_GS_LIMIT_EXCEEDED = 14,
  TK_GS_DUPLICATE_INSTANCE_NUMBER = 15,
  TK_GS_TIMEOUT = 16,
  TK_GS_NO_NOTIFICATION = 17,       // non-blocking dispatch found nothing
  TK_GS_BAD_FRAME = 18,             // malformed frame from the agent
  TK_GS_VERSION_MISMATCH = 19,
  TK_GS_NOT_SUBSCRIBED = 20,
  TK_GS_NOT_SUPPORTED = 21,
  TK_GS_ADDRESS_UNKNOWN = 22,
  TK_GS_ALREADY_SUBSCRIBED = 23,
  TK_GS_INVALID_STATE = 24,
  TK_GS_COLLIDED_PROTOCOL = 25,
  TK_GS_BACKLEVEL_PROVIDERS = 26,
} tk_gs_rc_t;

// Result of a callback.
typedef enum {
  TK_GS_CALLBACK_NOT_OK = 0,
  TK_GS_CALLBACK_OK = 1,
} tk_gs_callback_rc_t;

typedef enum {
  TK_GS_NON_BLOCKING = 0,
  TK_GS_BLOCKING = 1,
} tk_gs_dispatch_type_t;

// Socket options (setSocketOption).
enum { TK_GS_ENABLE_ADAPTER_INFO = 1 };

// Responsiveness checking of a client by the agent.
typedef enum {
  TK_GS_NO_RESPONSIVENESS = 0,
  TK_GS_PING_RESPONSIVENESS = 1,
  TK_GS_COUNTER_RESPONSIVENESS = 2,
} tk_gs_responsiveness_type_t;

typedef struct {
  tk_gs_responsiveness_type_t gs_responsiveness_type;
  int gs_responsiveness_interval;     // seconds between checks
  int gs_responsiveness_response_time_limit;  // seconds to answer
  void* gs_counter_location;
  int gs_counter_length;
} tk_gs_responsiveness_t;

typedef struct {
  int gs_notification_type;
  uint16_t gs_time_limit;             // seconds the client has to answer
} tk_gs_responsiveness_notification_t;

typedef struct {
  int gs_notification_type;
  int gs_query_type;
} tk_gs_query_notification_t;

// The software version of the agents: version, release, modification, fix,
// then the same four packed into one word, most significant first.
typedef struct {
  uint16_t gs_version;
  uint16_t gs_release;
  uint16_t gs_modification;
  uint16_t gs_fix;
  uint32_t quick_version;
} tk_gs_velt_version_t;

// Domain control events.
typedef enum {
  TK_GS_DOMAIN_DISSOLVE = 1,
  TK_GS_DOMAIN_MERGE = 2,
  TK_GS_DOMAIN_VERSION = 3,
} tk_gs_domain_control_event_t;

typedef struct {
  int gs_notification_type;
  tk_gs_domain_control_event_t gs_domain_ctrl_event;
  tk_gs_velt_version_t gs_velt_version;   // TK_GS_DOMAIN_VERSION only
} tk_gs_domain_control_notification_t;

// A provider: instance number and node number, 16 bits each; as one word
// the instance number is the high half and the node number the low half
// (gs_provider_id == instance << 16 | node on every host).
typedef union {
  uint32_t gs_provider_id;
  struct {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint16_t gs_node_number;
    uint16_t gs_instance_number;
#else
    uint16_t gs_instance_number;
    uint16_t gs_node_number;
#endif
  } gs_provider_fields;
} tk_gs_provider_t;

typedef struct {
  unsigned int gs_count;
  tk_gs_provider_t* gs_providers;
} tk_gs_membership_t;

// Name of a return code ("TK_GS_OK", ...); "TK_GS_UNKNOWN_RC(<n>)" text in a
// thread-local buffer for values this library does not know.
const char* gscl_rc_name(int rc);

#endif  // VELT_PLATFORM_GSCL_GS_TYPES_H_

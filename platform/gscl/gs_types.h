// The group services client API's plain types and constants (tk_gs_*).
// Values that the daemon's design fixes are kept as it gives them; the rest
// are this library's own.
#ifndef VELT_PLATFORM_GSCL_GS_TYPES_H_
#define VELT_PLATFORM_GSCL_GS_TYPES_H_

#include <stdint.h>

// The API's enums carry whatever int a caller hands over; the library
// refuses the values it does not know. In C++ they are based on int, so that
// such a value is one the type can hold, not undefined behaviour.
#ifdef __cplusplus
#define TK_GS_ENUM enum : int
#else
#define TK_GS_ENUM enum
#endif

// Return codes of the client API (sync results and delayed errors).
typedef TK_GS_ENUM {
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
typedef TK_GS_ENUM {
  TK_GS_CALLBACK_NOT_OK = 0,
  TK_GS_CALLBACK_OK = 1,
} tk_gs_callback_rc_t;

typedef TK_GS_ENUM {
  TK_GS_NON_BLOCKING = 0,
  TK_GS_BLOCKING = 1,
} tk_gs_dispatch_type_t;

// Socket options (setSocketOption).
enum { TK_GS_ENABLE_ADAPTER_INFO = 1 };

// Responsiveness checking of a client by the agent.
typedef TK_GS_ENUM {
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
typedef TK_GS_ENUM {
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

// ---- groups, protocols and notifications ----

// Longest group name the agent accepts (bytes, without the terminator).
enum { TK_GS_MAX_GROUP_NAME_LENGTH = 64 };
// Largest state value and provider message the agent accepts (bytes).
enum { TK_GS_MAX_STATE_VALUE_LENGTH = 64 * 1024 };
enum { TK_GS_MAX_PROVIDER_MESSAGE_LENGTH = 256 * 1024 };

// What a protocol (or a request that failed later) is about. The first six
// are the protocol types of notifications; the rest name requests in
// delayed errors.
typedef TK_GS_ENUM {
  TK_GS_JOIN = 1,
  TK_GS_FAILURE_LEAVE = 2,
  TK_GS_LEAVE = 3,
  TK_GS_CHANGE_STATE_VALUE = 4,
  TK_GS_PROVIDER_MESSAGE = 5,
  TK_GS_EXPEL = 6,
  TK_GS_GOODBYE = 7,
  TK_GS_VOTE = 8,
  TK_GS_SET_ATTRIBUTES = 9,
  TK_GS_SUBSCRIBE = 10,
  TK_GS_UNSUBSCRIBE = 11,
} tk_gs_request_t;

// Number of phases of a protocol.
typedef TK_GS_ENUM {
  TK_GS_1_PHASE = 1,
  TK_GS_N_PHASE = 2,
} tk_gs_num_phases_t;

typedef TK_GS_ENUM {
  TK_GS_NO_VOTE = 0,        // as a default for the next phase: keep the group's
  TK_GS_VOTE_APPROVE = 1,
  TK_GS_VOTE_REJECT = 2,
  TK_GS_VOTE_CONTINUE = 3,
} tk_gs_vote_t;

// Which requests the agent may batch into one protocol.
typedef TK_GS_ENUM {
  TK_GS_NO_BATCHING = 0,
  TK_GS_BATCH_JOINS = 1,
  TK_GS_BATCH_LEAVES = 2,
  TK_GS_BATCH_BOTH = 3,
} tk_gs_batch_control_t;

// What happens to a group when partitions with members on both sides merge.
typedef TK_GS_ENUM {
  TK_GS_DISSOLVE_MERGE = 0,
} tk_gs_merge_control_t;

// Bits of a proposal's gs_whats_changed.
enum {
  TK_GS_PROPOSED_MEMBERSHIP = 1,
  TK_GS_PROPOSED_STATE_VALUE = 2,
  TK_GS_PROVIDER_MESSAGE_PRESENT = 4,
  TK_GS_UPDATED_MEMBERSHIP = 32,
};

// Bits of a summary code: why a protocol ended or an announcement came.
enum {
  TK_GS_EXPLICIT_LEAVE = 0x01,          // the providers asked to leave
  TK_GS_PROVIDER_FAILED = 0x02,         // their client connection dropped or stopped answering
  TK_GS_NODE_FAILED = 0x04,             // their node left the cluster's view
  TK_GS_PROVIDER_EXPELLED = 0x08,
  TK_GS_GROUP_DISSOLVED = 0x10,         // partitions merged; the group starts empty
  TK_GS_GROUP_SERVICES_HAS_DIED = 0x20, // this process lost its agent connection
  TK_GS_TIME_LIMIT_EXCEEDED = 0x40,     // missing votes took the default vote
  TK_GS_VOTE_REJECTED = 0x80,           // a provider voted reject
};

// Subscription types: what a subscriber asks for, and what a subscription
// notification carries (bits).
typedef TK_GS_ENUM {
  TK_GS_SUBSCRIPTION_DELTA_JOIN = 2,
  TK_GS_SUBSCRIPTION_DELTA_LEAVE = 4,
  TK_GS_SUBSCRIPTION_MEMBERSHIP = 8,       // the full membership
  TK_GS_SUBSCRIPTION_DISSOLVED = 128,
  TK_GS_SUBSCRIPTION_GS_HAS_DIED = 256,
} tk_gs_subscription_ctrl_t;

// Notification types (gs_notification_type of every notification).
typedef TK_GS_ENUM {
  TK_GS_N_PHASE_NOTIFICATION = 1,
  TK_GS_APPROVED_NOTIFICATION = 2,
  TK_GS_REJECTED_NOTIFICATION = 3,
  TK_GS_ANNOUNCEMENT_NOTIFICATION = 4,
  TK_GS_DELAYED_ERROR_NOTIFICATION = 5,
  TK_GS_SUBSCRIPTION_NOTIFICATION = 6,
  TK_GS_MERGE_NOTIFICATION = 7,
  TK_GS_RESPONSIVENESS_NOTIFICATION = 8,
  TK_GS_DOMAIN_CONTROL_NOTIFICATION = 9,
} tk_gs_notification_type_t;

// A group's state value or a provider message: gs_length bytes at the
// pointer (no terminator).
typedef struct {
  int gs_length;
  char* gs_state;
} tk_gs_state_value_t;

typedef struct {
  int gs_length;
  char* gs_message;
} tk_gs_provider_message_t;

// The attributes a provider gives its group; the first joiner's are the
// group's. gs_sizeof_group_attributes is what the client believes the size
// to be (44 for clients of this interface); every field is read whatever it
// says.
typedef struct {
  uint16_t gs_version;
  uint16_t gs_sizeof_group_attributes;
  uint32_t gs_client_version;
  tk_gs_batch_control_t gs_batch_control;
  tk_gs_num_phases_t gs_num_phases;
  tk_gs_num_phases_t gs_source_reflection_num_phases;
  tk_gs_vote_t gs_group_default_vote;
  tk_gs_merge_control_t gs_merge_control;
  int gs_time_limit;                      // seconds; 0 = none
  int gs_source_reflection_time_limit;
  const char* gs_group_name;
  const char* gs_source_group_name;       // may be null
} tk_gs_group_attributes_t;

// An adapter's IP address in 16 bytes: IPv6 as it is, IPv4 as the
// IPv4-mapped IPv6 address (::ffff:a.b.c.d), so that the two never collide.
typedef struct {
  uint8_t gs_bytes[16];
} tk_gs_ip_addr;

typedef struct {
  unsigned int gs_count;
  tk_gs_ip_addr* gs_ip_addrs;
} tk_gs_adapter_ip_membership_t;

enum { TK_GS_MAX_INTERFACE_NAME_LENGTH = 31 };
enum { TK_GS_MAX_NETWORK_NAME_LENGTH = 63 };
enum { TK_GS_MAX_NETWORK_TYPE_LENGTH = 31 };

// What the topology knows about one adapter (get_adapter_info).
typedef struct {
  tk_gs_ip_addr gs_ip_addr;
  char gs_interface_name[TK_GS_MAX_INTERFACE_NAME_LENGTH + 1];
  uint16_t gs_node_number;
  uint16_t gs_instance_number;          // the adapter's index on its node
  char gs_group_name[TK_GS_MAX_GROUP_NAME_LENGTH + 1];  // the group that carried it
  char gs_network_name[TK_GS_MAX_NETWORK_NAME_LENGTH + 1];
  char gs_network_type[TK_GS_MAX_NETWORK_TYPE_LENGTH + 1];
} tk_gs_adapter_info_t;

// The proposal a protocol notification is about. Pointers are null when
// the bit that announces them is clear (the current providers are always
// there); they are valid until the callback returns.
typedef struct {
  unsigned int gs_whats_changed;                 // TK_GS_PROPOSED_* bits
  tk_gs_membership_t* gs_current_providers;
  tk_gs_membership_t* gs_changing_providers;     // joining or leaving
  tk_gs_state_value_t* gs_current_state_value;   // null when the group has none
  tk_gs_state_value_t* gs_proposed_state_value;
  tk_gs_provider_message_t* gs_provider_message;
} tk_gs_proposal_t;

// N-phase (vote needed), approved and rejected notifications share one
// layout. Numbers that come from the agent are kept as the ints they are.
typedef struct {
  int gs_notification_type;
  const char* gs_group_name;
  int gs_protocol_type;                  // tk_gs_request_t: TK_GS_JOIN ...
  unsigned int gs_summary_code;          // TK_GS_EXPLICIT_LEAVE ... bits
  uint64_t gs_protocol_number;           // the protocol a vote is for
  unsigned int gs_phase_number;
  int gs_time_limit;                     // seconds to vote (n-phase)
  int gs_default_vote;                   // tk_gs_vote_t
  tk_gs_proposal_t* gs_proposal;
} tk_gs_protocol_notification_t;
typedef tk_gs_protocol_notification_t tk_gs_n_phase_notification_t;
typedef tk_gs_protocol_notification_t tk_gs_approved_notification_t;
typedef tk_gs_protocol_notification_t tk_gs_rejected_notification_t;

typedef struct {
  int gs_notification_type;
  const char* gs_group_name;
  unsigned int gs_summary_code;                  // e.g. TK_GS_GROUP_SERVICES_HAS_DIED
  tk_gs_membership_t* gs_current_providers;      // empty when unknown
} tk_gs_announcement_notification_t;

typedef struct {
  int gs_notification_type;
  const char* gs_group_name;
  unsigned int gs_summary_code;
  tk_gs_membership_t* gs_current_providers;
} tk_gs_merge_notification_t;

// A request that was accepted (sync return code 0) and failed later.
typedef struct {
  int gs_notification_type;
  const char* gs_group_name;
  int gs_request_type;                   // tk_gs_request_t
  int gs_delayed_return_code;            // tk_gs_rc_t
} tk_gs_delayed_error_notification_t;

// What changed in a subscribed group. gs_full_membership is the group's
// membership after the change (empty when dissolved or when group services
// died); gs_changing_membership is set for deltas. The IP memberships are
// there when the agent carries adapter addresses (raw groups) and are null
// otherwise.
typedef struct {
  int gs_notification_type;
  const char* gs_group_name;
  unsigned int gs_subscription_type;     // tk_gs_subscription_ctrl_t bits
  tk_gs_membership_t* gs_full_membership;
  tk_gs_membership_t* gs_changing_membership;
  tk_gs_adapter_ip_membership_t* gs_full_ip_membership;
  tk_gs_adapter_ip_membership_t* gs_changing_ip_membership;
} tk_gs_subscription_notification_t;

// Name of a return code ("TK_GS_OK", ...); "TK_GS_UNKNOWN_RC(<n>)" text in a
// thread-local buffer for values this library does not know.
const char* gscl_rc_name(int rc);
// Name of a request or protocol type ("TK_GS_JOIN", ...; "TK_GS_REQUEST(<n>)"
// in a thread-local buffer for others).
const char* gscl_request_name(int type);
// Names of the set bits of a summary code, joined by "|" ("" for 0), in a
// thread-local buffer valid until the thread's next call.
const char* gscl_summary_code_names(unsigned int code);
// The same for subscription types.
const char* gscl_subscription_type_names(unsigned int type);

#endif  // VELT_PLATFORM_GSCL_GS_TYPES_H_

/* The NAM client interface: the messages that local programs and tolkvaskd
 * exchange over the daemon's UNIX-domain stream socket, the records inside
 * them, the codes both sides share and the records the client library hands
 * to its callers.
 *
 * Both ends run on the same machine: every integer is in the host's own byte
 * order, records have natural alignment at the offsets checked below, and
 * character arrays are NUL-padded. A message is one velt_nam_msg_hdr
 * followed by exactly msg_length bytes of body.
 *
 * Plain data only; usable from C and C++. */
#ifndef VELT_NAM_VELT_NAM_H_
#define VELT_NAM_VELT_NAM_H_

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>


#ifdef __cplusplus
extern "C" {
#endif

/* Message types, library -> daemon. */
typedef enum {
  VELT_NAM_LIB_INIT_MSG = 0, /* first message of a session */
  VELT_NAM_LIB_END_MSG = 1
} velt_nam_lib_msg_type;

/* Message types, daemon -> library. */
typedef enum {
  VELT_NAM_DAEMON_INIT_MSG = 0,  /* answer to the init message */
  VELT_NAM_DAEMON_UPDATE_MSG = 1 /* the full table or a batch of changes */
} velt_nam_daemon_msg_type;

/* Kinds of address in velt_nam_ip_addr_t. */
typedef enum {
  VELT_NAM_UNKNOWN_IP_TYPE = 0,
  VELT_NAM_IPV4 = 1,
  VELT_NAM_IPV6 = 2
} ip_address_type_t;

/* What a client sees of one adapter. */
typedef enum {
  VELT_NAM_CONNECT_DOWN = 0,
  VELT_NAM_CONNECT_UP = 1,
  VELT_NAM_CONNECT_UNCONFIG = 2 /* not defined, or its node stopped */
} velt_nam_connect_status_t;

/* Codes that wake a client session thread of the daemon. */
typedef enum {
  VELT_NAM_NO_EVENT = 0,
  VELT_NAM_UPDATE_EVENT = 100,
  VELT_NAM_SEND_INIT_MSG_EVENT = 101,
  VELT_NAM_DISCONNECT_EVENT = 102
} velt_nam_event;

/* Return codes shared by the daemon and the client library. */
typedef enum {
  VELT_NAM_OK = 0,
  VELT_NAM_AGAIN = 1,
  VELT_NAM_CREATE_SOCKET_FAILED = 2,
  VELT_NAM_SOCKET_INIT_FAILED = 3,
  VELT_NAM_SOCKET_CONNECT_FAILED = 4,
  VELT_NAM_SOCKET_BIND_FAILED = 5,
  VELT_NAM_READSOCK_ERROR = 6,
  VELT_NAM_WRITESOCK_ERROR = 7,
  VELT_NAM_POLL_ERROR = 8,
  VELT_NAM_VERSION_NOT_SUPPORTED = 9,
  VELT_NAM_INVALID_HANDLE = 10,
  VELT_NAM_NO_NEW_DATA = 11,
  VELT_NAM_NULL_INPUT_POINTER = 12,
  VELT_NAM_NOT_INITIALIZED = 13,
  VELT_NAM_INVALID_INPUT_PARAMETER = 14,
  VELT_NAM_DAEMON_DISCONNECTED = 15,
  VELT_NAM_NON_ROOT_CALLER = 16,
  VELT_NAM_API_FEATURE_NOT_SUPPORTED = 17,
  VELT_NAM_INVALID_CAPABILITY = 18,
  VELT_NAM_INTERNAL_ERROR = 19
} velt_nam_rc_t;

/* Limits the daemon announces in its init message. */
#define VELT_NAM_MAX_ADAPTER_INFO 98352 /* 2049 nodes x 48 adapters */
#define VELT_NAM_MAX_NETWORKS 14

/* Header of every message (8 bytes). */
typedef struct {
  int32_t msg_type;   /* velt_nam_lib_msg_type or velt_nam_daemon_msg_type */
  int32_t msg_length; /* body bytes that follow */
} velt_nam_msg_hdr;

/* Body of the library's init message (20 bytes); the daemon does not read
 * the repeated header. */
typedef struct {
  velt_nam_msg_hdr header;
  int32_t lib_version;
  int32_t capability;
  int32_t pid;
} velt_nam_init_lib_msg;

/* A software version: version, release, modification, fix, then the four
   packed into one word, most significant first (12 bytes). */
typedef struct {
  uint16_t gs_version;
  uint16_t gs_release;
  uint16_t gs_modification;
  uint16_t gs_fix;
  uint32_t quick_version;
} velt_nam_version_t;

/* What the daemon tells a new client (24 bytes). */
typedef struct {
  velt_nam_version_t velt_active_version;   /* the cluster's active version */
  int32_t velt_nam_max_adapter_info;        /* VELT_NAM_MAX_ADAPTER_INFO */
  int32_t velt_nam_max_networks;            /* VELT_NAM_MAX_NETWORKS */
  int32_t node_number;                      /* the daemon's node */
} velt_nam_daemon_config;

/* Body of the daemon's init message. */
typedef velt_nam_daemon_config velt_nam_init_daemon_msg;

/* Start of an update message's body (8 bytes). The message length counts 12
 * bytes for it: 4 zero bytes end every update body and clients accept them. */
typedef struct {
  int32_t num_networks;
  int32_t num_adapter_info;
} velt_nam_daemon_update_msg;

/* One network of an update message (24 bytes); its num_connect adapter
 * records follow it at once, UP first, then DOWN, then the others. */
typedef struct {
  uint64_t network_id; /* 64-bit network id */
  uint32_t num_connect;
  uint32_t num_up;
  uint32_t num_down;
  uint32_t padding; /* zero */
} velt_nam_connect_net_info;

/* An adapter's address (20 bytes). */
typedef struct {
  int32_t type; /* ip_address_type_t */
  union {
    struct in_addr ipv4;  /* VELT_NAM_IPV4: in the first 4 bytes */
    struct in6_addr ipv6; /* VELT_NAM_IPV6 */
  } address;
} velt_nam_ip_addr_t;

/* One adapter of an update message (88 bytes). */
typedef struct {
  uint32_t node_number;
  uint32_t LID;
  uint32_t adapter_type;
  velt_nam_ip_addr_t ip_address;
  char interface_name[16];
  char device_name[16];
  uint8_t gid[20]; /* InfiniBand GID from the hardware address */
  uint16_t valid_length_in_gid;
  uint8_t spigot_id;
  uint8_t status; /* velt_nam_connect_status_t */
} velt_nam_connect;

/* The client library's view of what it received (not on the wire). */
typedef struct {
  int supported_lib_version;
  int velt_nam_max_adapter_info;
  int velt_nam_max_networks;
  int node_number;
} velt_nam_config;

typedef struct {
  int num_networks;
  velt_nam_connect_net_info* connect_info; /* num_networks entries */
} velt_nam_net_info;

typedef struct {
  uint16_t num_entries;
  int mod_seq_num;
  velt_nam_net_info* net_info;
  velt_nam_connect* adap_info;
} velt_nam_node_adap_info;

#ifdef __cplusplus
}
#endif

/* The wire layout, checked where it is compiled. */
#ifdef __cplusplus
#define VELT_NAM_STATIC_ASSERT static_assert
#else
#define VELT_NAM_STATIC_ASSERT _Static_assert
#endif
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_msg_hdr) == 8, "velt_nam_msg_hdr is 8 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_msg_hdr, msg_length) == 4, "msg_length at 4");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_init_lib_msg) == 20, "velt_nam_init_lib_msg is 20 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_init_lib_msg, lib_version) == 8, "lib_version at 8");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_init_lib_msg, capability) == 12, "capability at 12");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_init_lib_msg, pid) == 16, "pid at 16");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_version_t) == 12, "the version record is 12 bytes");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_daemon_config) == 24, "velt_nam_daemon_config is 24 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_daemon_config, velt_nam_max_adapter_info) == 12, "max adapters at 12");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_daemon_config, velt_nam_max_networks) == 16, "max networks at 16");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_daemon_config, node_number) == 20, "node_number at 20");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_daemon_update_msg) == 8, "velt_nam_daemon_update_msg is 8 bytes");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_connect_net_info) == 24, "velt_nam_connect_net_info is 24 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect_net_info, num_connect) == 8, "num_connect at 8");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect_net_info, num_up) == 12, "num_up at 12");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect_net_info, num_down) == 16, "num_down at 16");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_ip_addr_t) == 20, "velt_nam_ip_addr_t is 20 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_ip_addr_t, address) == 4, "the address at 4");
VELT_NAM_STATIC_ASSERT(sizeof(velt_nam_connect) == 88, "velt_nam_connect is 88 bytes");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, LID) == 4, "LID at 4");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, adapter_type) == 8, "adapter_type at 8");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, ip_address) == 12, "ip_address at 12");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, interface_name) == 32, "interface_name at 32");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, device_name) == 48, "device_name at 48");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, gid) == 64, "gid at 64");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, valid_length_in_gid) == 84, "valid_length_in_gid at 84");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, spigot_id) == 86, "spigot_id at 86");
VELT_NAM_STATIC_ASSERT(offsetof(velt_nam_connect, status) == 87, "status at 87");
#undef VELT_NAM_STATIC_ASSERT

#endif /* VELT_NAM_VELT_NAM_H_ */

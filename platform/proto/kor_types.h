/* The names and numbers of KOR that both sides share: the agent, which
 * holds the resources, and libvx_mc, through which programs read them. C and
 * C++. */
#ifndef VELT_PLATFORM_PROTO_KOR_TYPES_H_
#define VELT_PLATFORM_PROTO_KOR_TYPES_H_

/* The type of an attribute's value. */
typedef enum vx_data_type {
  VX_UNKNOWN = 0,
  VX_INT32 = 1,
  VX_UINT32 = 2,
  VX_INT64 = 3,
  VX_UINT64 = 4,
  VX_FLOAT32 = 5,
  VX_FLOAT64 = 6,
  VX_CHAR_PTR = 7,
  VX_BINARY_PTR = 8,
  VX_RSRC_HANDLE = 9,
  VX_SD_PTR = 10,
  VX_INT32_ARRAY = 11,
  VX_UINT32_ARRAY = 12,
  VX_INT64_ARRAY = 13,
  VX_UINT64_ARRAY = 14,
  VX_FLOAT32_ARRAY = 15,
  VX_FLOAT64_ARRAY = 16,
  VX_CHAR_PTR_ARRAY = 17
} vx_data_type_t;

/* Flags of a resource event: the resource was taken away (undefined). */
#define MC_EVENT_UNASSIGN 32
#define MC_EVENT_UNASSIGN_UNDEF 64

/* The resource classes and the events the agent publishes. */
#define KOR_CLASS_PEER_NODE "Zel.PeerNode"
#define KOR_CLASS_NETWORK_INTERFACE "Zel.NetworkInterface"
#define KOR_EVENT_DEFINED "ResourceDefined"
#define KOR_EVENT_UNDEFINED "ResourceUndefined"
#define KOR_CONDITION_CONFIG_CHANGED "ConfigChanged"

#endif /* VELT_PLATFORM_PROTO_KOR_TYPES_H_ */

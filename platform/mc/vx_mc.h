/* libvx_mc: the KOR client API. KOR holds the cluster's resources (class
 * "Zel.PeerNode": the nodes of the cluster; class "Zel.NetworkInterface":
 * the network interfaces the nodes publish) in the node agent's replicated
 * state, so every node answers the same. Programs query them and register
 * for events about them through sessions; each session is a connection of
 * its own to the node agent (socket from VELT_AGENT_SOCKET, default
 * /run/velt/agent.sock).
 *
 * Threads: a session is thread-compatible: one thread at a time may call
 * into it (calls on one session from two threads at once fail with
 * MC_EBUSY rather than corrupt it). Different sessions may be used from
 * different threads freely. Callbacks run only inside mc_dispatch, on the
 * thread that calls it; events that arrive meanwhile (during a query, say)
 * wait for the next mc_dispatch, in the order the agent delivered them.
 *
 * Results: every call returns MC_OK (0) or one of the MC_E* numbers below;
 * the number and a text that says why are also recorded for the calling
 * thread and read with cu_get_error() and cu_get_errmsg() of libvx_cu. A
 * response's own mc_errnum reports a failure that concerns that response
 * alone (an unknown attribute, say) while the call as a whole worked.
 *
 * Ownership: responses and their strings and arrays belong to the library
 * until they are given back with mc_free_response (one call per response
 * array, whatever its length). Events handed to a callback belong to the
 * library and are valid only during the callback.
 *
 * C and C++. */
#ifndef VELT_PLATFORM_MC_VX_MC_H_
#define VELT_PLATFORM_MC_VX_MC_H_

#include <stdint.h>

#include "kor_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A session; 0 is never a valid one. */
typedef uint64_t mc_sess_hndl_t;
/* A registration; MC_REG_ID_NONE (all ones) means "not registered". */
typedef int32_t mc_reg_id_t;
#define MC_REG_ID_NONE ((mc_reg_id_t)-1)

/* Return codes. */
#define MC_OK 0
#define MC_ESESSION 1     /* no such session (never started, or ended) */
#define MC_ENOAGENT 2     /* the node agent cannot be reached */
#define MC_ECONNLOST 3    /* the session's connection to the agent was lost; end it */
#define MC_EINVAL 4       /* an argument is missing or malformed */
#define MC_ENOCLASS 5     /* no such resource class */
#define MC_ENOATTR 6      /* no such attribute in the class */
#define MC_EPERM 7        /* the agent refuses this caller */
#define MC_ENOMEM 8       /* out of memory */
#define MC_ELIMIT 9       /* a limit of the agent or of this library was reached */
#define MC_EPROTO 10      /* the agent answered what this library cannot read */
#define MC_ENOTSUP 11     /* the agent does not offer this (an older agent) */
#define MC_EBUSY 12       /* another thread is inside a call on this session */
#define MC_ENOREG 13      /* no such registration on this session */

/* Session modes. */
#define MC_SESSION_MODE_QUERY 1 /* queries only */
#define MC_SESSION_MODE_FULL 2  /* queries and event registrations */

/* mc_start_session options. */
#define MC_SESSION_OPTS_NONE 0u

/* mc_dispatch options. */
#define MC_DISPATCH_OPTS_WAIT 0    /* wait until at least one event was handled */
#define MC_DISPATCH_OPTS_NO_WAIT 1 /* handle what has arrived and return */

/* An array value. */
typedef struct vx_array {
  uint32_t count;
  union {
    int32_t *int32s;   /* VX_INT32_ARRAY */
    uint32_t *uint32s; /* VX_UINT32_ARRAY */
    int64_t *int64s;   /* VX_INT64_ARRAY */
    uint64_t *uint64s; /* VX_UINT64_ARRAY */
    char **strings;    /* VX_CHAR_PTR_ARRAY */
  } elements;
} vx_array_t;

/* A value; the attribute's type says which member holds it. */
typedef union vx_value {
  int32_t int32;   /* VX_INT32 */
  uint32_t uint32; /* VX_UINT32 */
  int64_t int64;   /* VX_INT64 */
  uint64_t uint64; /* VX_UINT64 */
  char *string;    /* VX_CHAR_PTR (never null; "" when empty) */
  vx_array_t *array; /* the *_ARRAY types (never null) */
} vx_value_t;

typedef struct mc_attribute {
  char *name;
  vx_data_type_t type;
  vx_value_t value;
} mc_attribute_t;

/* One resource of a query's answer. */
typedef struct mc_query_rsp {
  uint32_t mc_errnum; /* MC_OK, or why this entry is empty */
  char *rsrc_handle;  /* stable name of the resource: "node/3", "node/3/sxn1" */
  mc_attribute_t *attrs;
  uint32_t attr_count;
} mc_query_rsp_t;

/* The answer to a registration or an unregistration. */
typedef struct mc_reg_rsp {
  uint32_t mc_errnum;  /* MC_OK, or why the agent refused it */
  mc_reg_id_t reg_id;  /* MC_REG_ID_NONE when refused */
} mc_reg_rsp_t;

/* A class event: a resource of the class was defined or undefined. */
typedef struct mc_class_event {
  uint32_t mc_errnum;      /* MC_OK; otherwise the registration failed later */
  mc_reg_id_t reg_id;
  const char *class_name;
  const char *event_name;  /* "ResourceDefined" or "ResourceUndefined" */
  const char *rsrc_handle;
  uint64_t sequence;       /* grows with every event the agent delivers */
} mc_class_event_t;

/* A resource event: a resource's registered attributes changed, or the
 * resource was taken away (flags MC_EVENT_UNASSIGN | MC_EVENT_UNASSIGN_UNDEF;
 * the attributes are then its last ones). */
typedef struct mc_event {
  uint32_t mc_errnum;
  mc_reg_id_t reg_id;
  const char *class_name;
  const char *rsrc_handle;
  uint32_t mc_event_flags;
  const mc_attribute_t *attrs; /* the attributes named at registration */
  uint32_t attr_count;
  uint64_t sequence;
} mc_event_t;

typedef void mc_class_event_cb_t(mc_sess_hndl_t session, const mc_class_event_t *event,
                                 void *arg);
typedef void mc_event_cb_t(mc_sess_hndl_t session, const mc_event_t *event, void *arg);

/* Opens a session with the agent of this node. contact: null or "" (this
 * node; other contacts are refused with MC_EINVAL); options:
 * MC_SESSION_OPTS_NONE; mode: MC_SESSION_MODE_QUERY or MC_SESSION_MODE_FULL.
 * On success *session is the new session. */
int mc_start_session(const char *contact, uint32_t options, int mode, mc_sess_hndl_t *session);

/* Ends a session: its registrations end with it and its connection is
 * closed. Responses already handed out stay valid until freed. */
int mc_end_session(mc_sess_hndl_t session);

/* The resources of class_name, each with the attributes named (attr_names
 * null or attr_count 0: every attribute). select: null or "" (every
 * resource; selection expressions are not offered, MC_EINVAL). On success
 * *responses is an array of *count entries (null when 0), to be freed with
 * mc_free_response. Waits for the agent's answer. */
int mc_query_p_select_bp(mc_sess_hndl_t session, mc_query_rsp_t **responses, uint32_t *count,
                         const char *class_name, const char *select, const char **attr_names,
                         uint32_t attr_count);

/* Registers callback for the class event event_name ("ResourceDefined" or
 * "ResourceUndefined") of class_name. On success *response holds the
 * registration id or, with a non-zero mc_errnum, why the agent refused it;
 * free it with mc_free_response. Needs a session of MC_SESSION_MODE_FULL. */
int mc_reg_class_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t **response, const char *class_name,
                          const char *event_name, mc_class_event_cb_t *callback, void *arg);

/* Registers callback for resource events of every resource of class_name
 * (select: null or "") whose condition is met: "ConfigChanged" (a
 * resource's attributes changed, or it was defined or undefined). Each event
 * carries the attributes named. options: 0. Otherwise as
 * mc_reg_class_event_bp. */
int mc_reg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t **response, uint32_t options,
                    const char *class_name, const char *select, const char **attr_names,
                    uint32_t attr_count, const char *condition, mc_event_cb_t *callback,
                    void *arg);

/* Ends one registration of the session; events of it that have arrived and
 * not yet been dispatched are dropped. */
int mc_unreg_event_bp(mc_sess_hndl_t session, mc_reg_rsp_t **response, mc_reg_id_t reg_id);

/* Runs the callbacks of the events that have arrived, in order.
 * MC_DISPATCH_OPTS_WAIT: first waits until at least one event is there or
 * the connection fails. MC_DISPATCH_OPTS_NO_WAIT: returns at once. Returns
 * MC_ECONNLOST when the agent went away (the session must then be ended). */
int mc_dispatch(mc_sess_hndl_t session, int options);

/* A descriptor that becomes readable when mc_dispatch has work, for poll or
 * select; it belongs to the session. */
int mc_get_descriptor(mc_sess_hndl_t session, int *fd);

/* Gives back a response array of any call above (null is allowed). */
void mc_free_response(void *response);

#ifdef __cplusplus
}
#endif

#endif /* VELT_PLATFORM_MC_VX_MC_H_ */

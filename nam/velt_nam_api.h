/* libveltnam: the NAM client library. A local program (an MPI runtime,
 * storage, monitoring) opens a session with tolkvaskd over the daemon's
 * UNIX-domain stream socket and from then on holds a copy of the cluster's
 * switch and InfiniBand adapter table: every adapter of every node with its
 * network, address and status. The daemon sends the whole table once and
 * afterwards only the adapters that changed; the library merges them into
 * its copy, which the program reads whenever it likes.
 *
 * Use:
 *   velt_nam_handle_t h;
 *   velt_nam_init(NULL, 10000, &h);      connect; the daemon's answer is in
 *   velt_nam_get_fd(h, &fd);              poll fd for POLLIN, then
 *   velt_nam_update(h);                   apply what arrived (never blocks)
 *   velt_nam_get_node_adap_info(h, VELT_NAM_ALL_NODES, &info);
 *   ... read info ...; velt_nam_free_node_adap_info(info);
 *   velt_nam_term(h);
 *
 * The socket: the path given to velt_nam_init, else the environment
 * variable TOLKVASK_SERVER_SOCKET, else VELT_NAM_DEFAULT_SOCKET. The daemon
 * makes its socket accessible to root only.
 *
 * Results: every call returns a velt_nam_rc_t (VELT_NAM_OK is 0);
 * velt_nam_rc_text() names each code, and velt_nam_last_error() says in a
 * sentence why the calling thread's last failed call failed.
 *
 * Threads: the library is thread-safe. Calls on one session from several
 * threads are serialised inside the library; different sessions are
 * independent. The session's descriptor may be polled from any thread, but
 * only the library reads it, and it is closed by velt_nam_term, which must
 * therefore not run while another thread still polls it or calls in with
 * that handle (such a call then either finishes first or returns
 * VELT_NAM_INVALID_HANDLE).
 *
 * Ownership: velt_nam_config is copied into the caller's record. The
 * velt_nam_net_info and velt_nam_node_adap_info that the getters return are
 * copies made for the caller, each one block of memory that belongs to the
 * caller and is given back with its velt_nam_free_ call; a copy stays valid
 * and unchanged whatever the session does later, velt_nam_term included.
 *
 * Limits: the library refuses (VELT_NAM_READSOCK_ERROR) any message that
 * breaks the daemon's own limits (VELT_NAM_MAX_NETWORKS networks,
 * VELT_NAM_MAX_ADAPTER_INFO adapters, or lower ones the daemon announces),
 * and never allocates more than such a message needs.
 *
 * C and C++. */
#ifndef VELT_NAM_VELT_NAM_API_H_
#define VELT_NAM_VELT_NAM_API_H_

#include <stdint.h>

#include "velt_nam.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A session; 0 is never a valid one, and a handle is never given twice in a
 * process. */
typedef uint64_t velt_nam_handle_t;

/* Where the daemon listens when neither the caller nor the environment
 * says otherwise. */
#define VELT_NAM_DEFAULT_SOCKET "/run/velt/nam.sock"
/* The environment variable that names the socket (the daemon's own). */
#define VELT_NAM_SOCKET_ENV "TOLKVASK_SERVER_SOCKET"

/* What the library tells the daemon about itself in its init message: the
 * interface level it speaks (packed one byte each: version, release,
 * modification, fix) and its capability bits (none defined). */
#define VELT_NAM_LIB_VERSION 0x02040500
#define VELT_NAM_LIB_CAPABILITY 0
/* The oldest active cluster version that offers the interface; an older
 * cluster's daemon answers but then closes the connection. */
#define VELT_NAM_MIN_ACTIVE_VERSION 0x02040500u

/* velt_nam_get_node_adap_info: every node's adapters. */
#define VELT_NAM_ALL_NODES (-1)

/* Opens a session: connects to the daemon's socket (socket_path, or null
 * for the environment's or the default), sends the init message and waits
 * up to timeout_ms milliseconds (-1: without limit) for the daemon's answer,
 * after which velt_nam_get_config works. The whole table follows on the
 * descriptor; until velt_nam_update has applied it the table is empty and
 * its mod_seq_num 0. On VELT_NAM_OK *handle is the new session.
 * Fails with VELT_NAM_NON_ROOT_CALLER when the socket refuses this caller,
 * VELT_NAM_SOCKET_CONNECT_FAILED when no daemon listens there (errno then
 * holds connect's error, such as ENOENT or ECONNREFUSED),
 * VELT_NAM_SOCKET_INIT_FAILED when the answer does not come in time,
 * VELT_NAM_DAEMON_DISCONNECTED when the daemon closes the connection
 * first, VELT_NAM_VERSION_NOT_SUPPORTED when the cluster's active version
 * is older than VELT_NAM_MIN_ACTIVE_VERSION. */
int velt_nam_init(const char* socket_path, int timeout_ms, velt_nam_handle_t* handle);

/* The session's descriptor: readable when velt_nam_update has something to
 * apply (or to report, such as the daemon's departure). It belongs to the
 * session: poll it, never read, write or close it. */
int velt_nam_get_fd(velt_nam_handle_t handle, int* fd);

/* Applies every whole message that has arrived, without blocking. A message
 * that has arrived in part is kept until the rest comes.
 * VELT_NAM_OK: at least one update was applied (mod_seq_num grew by one per
 * update). VELT_NAM_NO_NEW_DATA: nothing whole arrived.
 * VELT_NAM_DAEMON_DISCONNECTED: the daemon has gone (updates that came
 * before are applied first and reported by an earlier VELT_NAM_OK).
 * VELT_NAM_READSOCK_ERROR: the daemon sent what this library cannot read,
 * or the socket failed (updates before it in the same call stay applied, as
 * mod_seq_num shows). After either of the last two the session stays
 * broken (every later update gives the same code) but its table stays
 * readable as it last was; end the session and open a new one. */
int velt_nam_update(velt_nam_handle_t handle);

/* The daemon's answer: the cluster's active version as supported_lib_version
 * (packed one byte each: version, release, modification, fix), the
 * daemon's limits and its node number. */
int velt_nam_get_config(velt_nam_handle_t handle, velt_nam_config* config);

/* A copy of the networks: one velt_nam_connect_net_info each, in ascending
 * order of network id, with num_connect, num_up and num_down counted from
 * the adapters the table holds. Free it with velt_nam_free_net_info. */
int velt_nam_get_net_info(velt_nam_handle_t handle, velt_nam_net_info** net_info);
void velt_nam_free_net_info(velt_nam_net_info* net_info);

/* A copy of the adapters of one node (node_number), or of every node
 * (VELT_NAM_ALL_NODES), with the table's mod_seq_num:
 *   net_info: the networks that have at least one of these adapters, in
 *     ascending order of id, counted over these adapters only;
 *   adap_info: the adapters, network by network in net_info's order, the
 *     network's num_connect records each: first those UP, then those DOWN,
 *     then the others, each group by node number and interface name;
 *   num_entries: the number of records in adap_info. It is 16 bits wide:
 *     a whole-cluster copy with more records than 65535 (possible only in a
 *     very large cluster) says 65535, while the networks' num_connect always
 *     add up to the exact number.
 * Free it with velt_nam_free_node_adap_info. */
int velt_nam_get_node_adap_info(velt_nam_handle_t handle, int node_number,
                                velt_nam_node_adap_info** info);
void velt_nam_free_node_adap_info(velt_nam_node_adap_info* info);

/* Ends a session: closes its connection (the daemon sees the hang-up) and
 * frees its table. Copies handed out stay valid. */
int velt_nam_term(velt_nam_handle_t handle);

/* The name of a return code ("VELT_NAM_NO_NEW_DATA") followed by what it
 * means; a static text, never null (an unknown code gets a text that says
 * so). */
const char* velt_nam_rc_text(int rc);

/* Why the calling thread's last failed call failed, in one sentence
 * (empty when none has failed). Valid until a later call on the same
 * thread fails. VELT_NAM_NO_NEW_DATA is not a failure. */
const char* velt_nam_last_error(void);

#ifdef __cplusplus
}
#endif

#endif /* VELT_NAM_VELT_NAM_API_H_ */

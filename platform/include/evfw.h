/*
 * evfw.h - the host event framework (libevfw) as the data manager sees it.
 *
 * The framework is closed; this header declares exactly the calls the entity
 * imports.  The Linux host runtime (host/) implements every one of them; on
 * the device they come from libevfw.so.
 *
 * Ownership of events:
 *  - evfw_event_alloc() returns an event owned by the caller.
 *  - A successful send (result >= 0) hands the event to the framework; the
 *    caller must not touch it again.  A failed send (result < 0) leaves it
 *    with the caller.
 *  - An event delivered to a task handler belongs to that handler, which
 *    frees it with evfw_event_free() or passes it on.
 *
 * Routing: every event carries the channel of the context it originates from
 * and the external id of that context (0 when it is not an external client).
 * A fresh event takes the sender's channel and external id when it is first
 * sent; an event made with evfw_event_alloc(source) inherits the source's, so
 * an answer derived from a request travels back along the request's route.
 */
#ifndef EVFW_H
#define EVFW_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- ids ---------------------------------------------------------------- */

/* Context ids share one space: task ids are below EVFW_EXT_ID_BASE, external
 * clients (connections of other processes) are numbered from it upwards. */
#define EVFW_EXT_ID_BASE 0x10000u

/* ---- opaque objects ------------------------------------------------------ */

typedef struct evfw_event evfw_event_t;     /* one message */
typedef struct evfw_context evfw_context_t; /* a task's or an external client's endpoint */

/* The framework's record of a loaded entity.  The entity writes id and priv. */
typedef struct evfw_entity {
    uint32_t id;
    void *priv;
    const char *name; /* set by the framework */
} evfw_entity_t;

/* ---- tasks --------------------------------------------------------------- */

typedef struct evfw_task evfw_task_t;

/* A task handler runs on the task's thread, once per received event.  It
 * returns the task when it kept the event, NULL when it released it. */
typedef void *(*evfw_task_hdl_t)(evfw_task_t *task, evfw_event_t *event, void *arg);

/* The handler form of tasks whose handler the framework installs by name
 * (the entity's auxiliary tasks).  The handler always consumes the event. */
typedef int (*evfw_ctx_hdl_t)(evfw_context_t *context, evfw_event_t *event, void *entity_priv);

/* Task object, embedded in the entity's state and filled by evfw_task_init. */
struct evfw_task {
    evfw_context_t *ctx; /* the task's endpoint: sender of what the task sends */
    uint32_t task_id;
    /* Installs the handler; absent (NULL) on frameworks that install it themselves. */
    int (*set_hdl)(evfw_task_t *task, evfw_task_hdl_t hdl, void *arg);
    void *fw; /* framework private */
};

int evfw_task_init(evfw_task_t *task, uint32_t entity_id, uint32_t task_id);
int evfw_task_exit(evfw_task_t *task);

/* ---- subscriptions ------------------------------------------------------- */

/* Subscribes a task to an event id.  mode 1: delivered to the task. */
int evfw_connmngr_common_subscribe(evfw_task_t *task, uint32_t event_id, int mode);

/* URC match modes of evfw_atmngr_subscribe_urc. */
#define EVFW_URC_MODE_LINE_START 1 /* the URC line itself starts with the prefix */
#define EVFW_URC_MODE_SKIP_CRLF 4  /* leading CR/LF of the line are skipped before matching */

/* Subscribes a task to modem URC lines that begin with prefix; each matching
 * line reaches the task as an AT manager URC record under event_id. */
int evfw_atmngr_subscribe_urc(evfw_task_t *task, const char *prefix, uint32_t event_id, int mode);

/* ---- events -------------------------------------------------------------- */

/* A new, empty event.  With a source it inherits the source's channel and
 * external id (and, until set, its id); with NULL it has no route yet. */
evfw_event_t *evfw_event_alloc(const evfw_event_t *source);
void evfw_event_free(evfw_event_t *event);

uint32_t event_get_id(const evfw_event_t *event);
/* Returns 1 on success, 0 when event is NULL. */
int event_set_id(evfw_event_t *event, uint32_t id);

/* The data block from offset on; *len receives its length (0 when offset is
 * beyond the end).  The pointer is NULL for an event without data. */
void *event_get_data(evfw_event_t *event, size_t offset, size_t *len);
/* Copies len bytes of data to offset; the block then ends at offset + len.
 * data may be NULL only with len 0.  Returns the event, or NULL on failure. */
evfw_event_t *event_set_data(evfw_event_t *event, size_t offset, const void *data, size_t len);

/* The framework's symbolic names, for logs.  Never NULL. */
const char *event_get_name(uint32_t event_id);
const char *context_get_name(uint32_t context_id);

/* External id of the client the event originates from; 0 for none. */
uint32_t evfw_event_get_ext_id(const evfw_event_t *event);

/* Bit 0: both events travel on the same channel.  Bit 1: both carry the same
 * non-zero external id.  Events without a channel match nothing. */
int evfw_event_cmp_chnl(const evfw_event_t *a, const evfw_event_t *b);

/* ---- sending ------------------------------------------------------------- */

/* All sends return 0 (or a non-negative value) when the framework took the
 * event, negative otherwise.  An event for an id that no context serves is
 * taken and dropped, as the framework routes by id without a directory. */

int evfw_task_send_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id);

/* Match routine of evfw_task_send_recv_event: arg is the awaited event id. */
typedef int (*evfw_rx_cond_t)(const evfw_event_t *event, const void *arg, size_t arg_len);
int rx_cond_event_id(const evfw_event_t *event, const void *arg, size_t arg_len);

/* Sends, then blocks the calling thread until an event that cond accepts is
 * addressed to the sending task.  The awaited event is still delivered to the
 * task's handler afterwards.  Gives up after the framework's wait limit with
 * a negative result (-ETIMEDOUT). */
int evfw_task_send_recv_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id,
                              evfw_rx_cond_t cond, const void *arg, size_t arg_len);

/* Sends from any context to a context id: a task id or an external id. */
int evfw_context_common_send(evfw_context_t *from, evfw_event_t *event, uint32_t to_id);

/* Sends a copy to every external client; the event itself is consumed. */
int evfw_task_bcast_ext_event(evfw_task_t *from, evfw_event_t *event);

/* ---- mutexes and threads ------------------------------------------------- */

typedef struct evfw_mutex evfw_mutex_t;
/* Recursive.  unlock by a thread that does not hold it returns -1 (EPERM) and
 * changes nothing. */
struct evfw_mutex {
    int (*lock)(evfw_mutex_t *mutex);
    int (*unlock)(evfw_mutex_t *mutex);
    void *fw;
};
int evfw_mutex_init(evfw_mutex_t *mutex);
int evfw_mutex_exit(evfw_mutex_t *mutex);

typedef int (*evfw_thrd_fn_t)(void *arg);
typedef struct evfw_thrd evfw_thrd_t;
struct evfw_thrd {
    int (*start)(evfw_thrd_t *thrd, evfw_thrd_fn_t fn, void *arg);
    void *fw;
};
int evfw_thrd_init(evfw_thrd_t *thrd);

/* Blocks until every entity of the daemon has returned from its init. */
int evfw_wait_all_entity_init(void);

/* Process id of the daemon that hosts the entities. */
extern pid_t rvn_pid;

#ifdef __cplusplus
}
#endif

#endif /* EVFW_H */

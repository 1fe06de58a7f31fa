// The registry of peer tasks and the queue of requests held until the RIL
// proxy is ready.
//
// A peer announces itself with 4002; the registry keeps a copy of that
// announcement, which stands for the peer's channel: answers that come back
// are matched against it to find who asked (query_task_info), and
// indications for an IMS manager are derived from it.
//
// Main task thread only, except query_task_info_by_name, which
// dm_notify_to_imsm may call from other threads.  No lock.
#ifndef TASK_INFO_H
#define TASK_INFO_H

#include <stddef.h>
#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"

// How answers reach a peer.
enum TaskDest : int32_t {
    kDestExternal = 0,  // on the external channel of the requester's event
    kDestLegacy = 1,    // legacy reply function: no longer supported
    kDestTask = 2,      // as an event to the row's task id
};

struct TaskInfo {
    DM_PTR_SLOT(const char *, name);
    DM_PTR_SLOT(evfw_event_t *, event);  // the latest announcement, owned by the registry
    int32_t dest;                        // TaskDest
    uint32_t task_id;
    uint32_t flag;
};
static_assert(sizeof(TaskInfo) == 32);
static_assert(offsetof(TaskInfo, event) == 8);
static_assert(offsetof(TaskInfo, dest) == 16);
static_assert(offsetof(TaskInfo, flag) == 24);

constexpr int kTaskInfoRows = 12;
constexpr int kPendingMax = 8;
constexpr uint32_t kNotificationLen = 132;

// Test support: frees what the registry and the queue hold and returns them
// to their state at process start.
void task_info_reset();
// The registry row at `index`, for inspection.
const TaskInfo *task_info_row(int index);
int dm_pending_count();
// Name of the IMS manager of a SIM: "imsm_1".."imsm_3" for 1..3, else "imsm_0".
const char *dm_imsm_name(int32_t sim_id);
bool dm_rild_ready();

extern "C" {

DM_EXPORT int32_t dm_notification(void *data, evfw_event_t *event);
DM_EXPORT void record_task_info(const char *name, evfw_event_t *event);
DM_EXPORT evfw_event_t *query_task_info_by_name(const char *name);
DM_EXPORT TaskInfo *query_task_info(const evfw_event_t *event);
DM_EXPORT int32_t is_event_from_imsm(const void *request, const evfw_event_t *event);
DM_EXPORT void output_task_info(const TaskInfo *row);
DM_EXPORT void dump_task_info(void);
// -1: the RIL proxy is ready, send now.  0: queued or dropped.
DM_EXPORT int32_t dm_queue_event_if_not_ready(const void *data, uint32_t len,
                                              evfw_event_t *source_event, uint32_t event_id);
DM_EXPORT int32_t dm_flush_event(void);

}  // extern "C"

#endif  // TASK_INFO_H

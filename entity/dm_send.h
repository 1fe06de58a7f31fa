// Every event the data manager sends leaves through these routines.  All of
// them send from the main task (402) and refuse while the entity has not been
// initialised.
//
// Each routine but datamngr_ext_send derives the new event from a source
// event (evfw_event_alloc(source)), so the new event travels the source's
// route: a reply built from a request reaches the requester.  The source
// itself is not consumed.  A sent event belongs to the framework.
//
// Threads: the caller's (main task, AT command interface task, or a netlink
// listener thread); no lock is taken here.
#ifndef DM_SEND_H
#define DM_SEND_H

#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"

struct DatamngrEntity;

constexpr uint32_t kRildTaskId = 202;
constexpr uint32_t kDatamngrTaskId = 402;

extern "C" {

DM_EXPORT int32_t dm_send_to_task(uint32_t task_id, const void *data, uint32_t len,
                                  evfw_event_t *source_event, uint32_t event_id);
// Blocks the calling thread until an event `wait_event_id` reaches the main
// task (it is still dispatched normally afterwards).
DM_EXPORT int32_t dm_send_to_task_wait_for_event(uint32_t task_id, const void *data, uint32_t len,
                                                 evfw_event_t *source_event, uint32_t event_id,
                                                 uint32_t wait_event_id);
// Held in the pending queue until the RIL proxy has announced itself.
DM_EXPORT int32_t dm_req_to_rild(const void *data, uint32_t len, evfw_event_t *source_event,
                                 uint32_t event_id);
DM_EXPORT int32_t dm_req_to_self(const void *data, uint32_t len, evfw_event_t *source_event,
                                 uint32_t event_id);
DM_EXPORT int32_t dm_resp_to_external_channel(const void *data, uint32_t len,
                                              evfw_event_t *source_event, uint32_t event_id);
// Replies on the event being dispatched; on success the dispatcher no longer
// owns it.
DM_EXPORT int32_t datamngr_ext_send(DatamngrEntity *entity, uint32_t event_id, const void *data,
                                    uint32_t len);
DM_EXPORT int32_t dm_notify_to_imsm(const void *data, uint32_t len, uint32_t event_id,
                                    int32_t sim_id);

}  // extern "C"

#endif  // DM_SEND_H

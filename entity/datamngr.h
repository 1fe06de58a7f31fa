// The data manager entity: its private state, its start and stop, and the
// main dispatcher that routes every event the main task receives.
//
// Threads: the framework runs datamngr_main_hdl on the main task's thread
// (task 402), one event at a time, and datamngr_dati_task_hdl on the AT
// command interface task's thread (403).  datamngr_init_thrd runs once, on
// the thread the entity starts at init.
#ifndef DATAMNGR_H
#define DATAMNGR_H

#include <stdint.h>

#include "dati/dati.h"
#include "entity/dm_export.h"
#include "evfw.h"
#include "evfw_ids.h"

constexpr uint32_t kDatamngrEntityId = 41;

// The entity's private state: one instance, from datamngr_entity_init to
// datamngr_entity_exit.
struct DatamngrEntity {
    evfw_entity_t *entity;
    evfw_task_t main_task;  // 402: everything received arrives here, everything sent leaves here
    evfw_task_t aux_task;   // 404
    evfw_task_t dati_task;  // 403: the AT command interface
    evfw_event_t *cur_atcmd_event;            // the held reply of the AT command being handled
    AtPdpContext at_pdp_ctx[kAtPdpContexts];  // under `lock`
    evfw_mutex_t lock;
    evfw_event_t *cur_event;  // the event being dispatched; null when a handler took it
};

// The state of the running entity; null before the first init.  Exit frees
// the state but leaves this pointer as it was.
DatamngrEntity *dm_entity();

// Test support: forgets the entity state pointer, as at process start.
void datamngr_state_reset();

// Unregisters every AT PDP context, as init and exit do.
void reset_at_pdp_contexts(DatamngrEntity *state);

// The entity mutex as the framework made it.  Without it (its init failed)
// the AT PDP context table goes unguarded rather than the entity stopping.
inline void dm_entity_lock(DatamngrEntity *entity) {
    if (entity->lock.lock != nullptr) entity->lock.lock(&entity->lock);
}
inline void dm_entity_unlock(DatamngrEntity *entity) {
    if (entity->lock.unlock != nullptr) entity->lock.unlock(&entity->lock);
}

// Hands the event being dispatched over to its new owner: the dispatcher
// then no longer frees it.  No effect when `event` is not the current one.
void dm_release_current_event(evfw_event_t *event);

// Expected payload length of an event id; 0 for ids the dispatcher does not
// know.  `known` tells which.
uint32_t dm_expected_length(uint32_t event_id, bool *known);

extern "C" {

DM_EXPORT extern evfw_thrd_t init_thrd;

DM_EXPORT evfw_entity_t *datamngr_entity_init(evfw_entity_t *entity);
DM_EXPORT evfw_entity_t *datamngr_entity_exit(evfw_entity_t *entity);
DM_EXPORT int datamngr_init_thrd(void *entity_state);
DM_EXPORT int32_t datamngr_init(evfw_task_t *main_task);
DM_EXPORT void *datamngr_main_hdl(evfw_task_t *task, evfw_event_t *event, void *entity);

DM_EXPORT int32_t dm_register_urc(evfw_task_t *task, uint32_t event_id);
DM_EXPORT int32_t dm_get_default_urc_num(void);
DM_EXPORT int32_t dm_get_default_urc_prefix(int32_t index, char *prefix_out, int32_t *flag_out);

}  // extern "C"

#endif  // DATAMNGR_H

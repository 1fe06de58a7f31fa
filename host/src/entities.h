// Entities: loading them (linked into the program, or from a shared object
// as the daemon does), their tasks, the threads they start, unloading.
#ifndef EVFW_HOST_ENTITIES_H
#define EVFW_HOST_ENTITIES_H

#include "evfw.h"
#include "lock.h"

namespace evfw_host {

int init_task(evfw_task_t *task, uint32_t entity_id, uint32_t task_id);
int exit_task(evfw_task_t *task);
// evfw_thrd_start: run in wait_threads() in deterministic mode, on a thread
// of its own at once in threaded mode.
int start_thread(evfw_thrd_fn_t fn, void *arg);
int wait_all_entity_init();
// What Runtime::unload does; the reset's first step.
void unload_entities();
void reset_entities(const Guard &);
// Whether a reset frees the events a finished run left: not while shared
// objects stay mapped for the leak checkers (EVFW_HOST_KEEP_LOADED=1), whose
// globals may still point to them.
bool reclaim_on_reset();

}  // namespace evfw_host

#endif  // EVFW_HOST_ENTITIES_H

// The shared delivery of answers to relayed requests.
#ifndef RELAY_H
#define RELAY_H

#include <stdint.h>

#include "evfw.h"
#include "pdn/pdn_records.h"

struct TaskInfo;

// A payload of this length where a longer one was expected is the peer's
// failure answer (dm_fail_resp).
constexpr uint32_t kFailRespLen = sizeof(WordPair);

// Delivers an answer to the task that asked, found by the event's channel:
// on its external channel (dest 0), dropped as a legacy reply (dest 1, the
// event is released), or as an event to its task (dest 2).  `op` names the
// answer operation in the log.  -1 when no registry row matches the channel.
//
// `event` is the answer being dispatched.  On the legacy path it is freed
// here and taken from the dispatcher, so it is released exactly once.
int32_t dm_deliver_answer(const char *op, const void *record, uint32_t size, evfw_event_t *event,
                          uint32_t event_id);

// The same, to a requester row already looked up (null: unknown requester).
int32_t dm_deliver_answer_to(TaskInfo *row, const char *op, const void *record, uint32_t size,
                             evfw_event_t *event, uint32_t event_id);

#endif  // RELAY_H

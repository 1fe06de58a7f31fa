// Relayed requests: the requester's record goes to the RIL proxy unchanged,
// and the RIL's answer goes back to the requester the way its registry row
// says.
#include "pdn/relay.h"

#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/task_info.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

int32_t dm_deliver_answer(const char *op, const void *record, uint32_t size, evfw_event_t *event,
                          uint32_t event_id) {
    TaskInfo *row = query_task_info(event);
    if (row == nullptr) {
        DM_LOGE_AS(op, "%s query task fail\n", op);
        dump_task_info();
        return -1;
    }
    switch (row->dest) {
        case kDestExternal:
            DM_LOGI_AS(op, "%s reply external to %s\n", op, row->name);
            return dm_resp_to_external_channel(record, size, event, event_id);
        case kDestLegacy:
            DM_LOGW_AS(op, "[LEGACY] %s reply func to %s is NOT supported\n", op, row->name);
            // The answer is dropped.  The event is the one being dispatched,
            // so the dispatcher must not free it a second time.
            dm_release_current_event(event);
            evfw_event_free(event);
            return 0;
        case kDestTask:
            DM_LOGI_AS(op, "%s reply event to %s\n", op, row->name);
            return dm_send_to_task(row->task_id, record, size, event, event_id);
        default:
            DM_LOGE_AS(op, "%s invalid destination %d\n", op, row->dest);
            return 0;
    }
}

int32_t dm_fail_resp(void *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, kFailRespLen, event, event_get_id(event));
}

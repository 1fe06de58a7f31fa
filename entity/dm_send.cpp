#include "entity/dm_send.h"

#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>

#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/task_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

namespace {

constexpr uint32_t kAwaitedIdLen = sizeof(uint32_t);

// Sends a new event from the main task to a task: allocated from `source`
// and given id and data.  With `wait_event_id`, the framework's send-and-wait
// blocks the calling thread until an event of that id reaches the main task.
// -1, with the new event left unreleased, when the entity is not initialised.
int32_t send_to_task(const char *caller, uint32_t task_id, const void *data, uint32_t len,
                     evfw_event_t *source_event, uint32_t event_id, uint32_t *wait_event_id) {
    evfw_event_t *event = evfw_event_alloc(source_event);
    if (event == nullptr) {
        DM_LOGE_AS(caller, "%s no event for event id %u to task %u", caller, event_id, task_id);
        return -1;
    }
    DatamngrEntity *entity = dm_entity();
    if (entity == nullptr) {
        DM_LOGE_AS(caller, "%s NULL entity pointer", caller);
        return -1;
    }
    event_set_id(event, event_id);
    event_set_data(event, 0, data, len);
    // The source's id is read only for the line.
    DM_LOGI_AS(caller, "%s task %s(%d) %p, len %d, event prev id %s(%d), event id %s(%d)", caller,
               context_get_name(task_id), task_id, data, len,
               event_get_name(event_get_id(source_event)), event_get_id(source_event),
               event_get_name(event_id), event_id);

    int32_t ret;
    if (wait_event_id == nullptr) {
        ret = evfw_task_send_event(&entity->main_task, event, task_id);
    } else {
        ret = evfw_task_send_recv_event(&entity->main_task, event, task_id, rx_cond_event_id,
                                        wait_event_id, kAwaitedIdLen);
    }
    if (ret < 0) {
        DM_LOGE_AS(caller, "%s send event task id %d event id %d to rild fail %d", caller, task_id,
                   event_id, ret);
        // A refused send leaves the event with us.  After a send-and-wait
        // that failed it is not released: the framework may have sent it
        // before the wait failed.
        if (wait_event_id == nullptr) evfw_event_free(event);
    }
    return ret;
}

// Sends to the external context the event's route names, or to every
// external context when it names none.
int32_t send_external(DatamngrEntity *entity, evfw_event_t *event) {
    uint32_t ext_id = evfw_event_get_ext_id(event);
    if (ext_id == 0) return evfw_task_bcast_ext_event(&entity->main_task, event);
    return evfw_context_common_send(entity->main_task.ctx, event, ext_id);
}

}  // namespace

int32_t dm_send_to_task(uint32_t task_id, const void *data, uint32_t len,
                        evfw_event_t *source_event, uint32_t event_id) {
    return send_to_task(__func__, task_id, data, len, source_event, event_id, nullptr);
}

int32_t dm_send_to_task_wait_for_event(uint32_t task_id, const void *data, uint32_t len,
                                       evfw_event_t *source_event, uint32_t event_id,
                                       uint32_t wait_event_id) {
    return send_to_task(__func__, task_id, data, len, source_event, event_id, &wait_event_id);
}

int32_t dm_req_to_rild(const void *data, uint32_t len, evfw_event_t *source_event,
                       uint32_t event_id) {
    if (dm_queue_event_if_not_ready(data, len, source_event, event_id) == 0) return 0;
    return dm_send_to_task(kRildTaskId, data, len, source_event, event_id);
}

int32_t dm_req_to_self(const void *data, uint32_t len, evfw_event_t *source_event,
                       uint32_t event_id) {
    return dm_send_to_task(kDatamngrTaskId, data, len, source_event, event_id);
}

int32_t dm_resp_to_external_channel(const void *data, uint32_t len, evfw_event_t *source_event,
                                    uint32_t event_id) {
    evfw_event_t *event = evfw_event_alloc(source_event);
    if (event == nullptr) {
        DM_LOGE("%s no event for event id %u", __func__, event_id);
        return -1;
    }
    event_set_id(event, event_id);
    event_set_data(event, 0, data, len);
    DatamngrEntity *entity = dm_entity();
    if (entity == nullptr) {
        DM_LOGE("%s before entity init", __func__);
        return -1;
    }
    int32_t ret = send_external(entity, event);
    if (ret < 0) {
        DM_LOGE("%s send event id %u fail %d", __func__, event_id, ret);
        evfw_event_free(event);
    }
    return ret;
}

int32_t datamngr_ext_send(DatamngrEntity *entity, uint32_t event_id, const void *data,
                          uint32_t len) {
    if (entity == nullptr || entity->cur_event == nullptr || event_id == 0 ||
        (data == nullptr && len != 0)) {
        DM_LOGE("datamngr_ext_send(): Invalid argument!!");
        return -1;
    }
    evfw_event_t *reply = entity->cur_event;
    if (event_set_id(reply, event_id) == 0) {
        DM_LOGE("datamngr_ext_send(): evfw_event_set_id() error!!");
        return -1;
    }
    if (event_set_data(reply, 0, data, len) == nullptr) {
        DM_LOGE("datamngr_ext_send(): evfw_event_set_data() error!!");
        return -1;
    }
    if (send_external(entity, reply) == -1) {
        // Still the dispatcher's to free.
        DM_LOGE("datamngr_ext_send(): evfw_task_ext_send() error!!");
        return -1;
    }
    entity->cur_event = nullptr;
    return 0;
}

int32_t dm_notify_to_imsm(const void *data, uint32_t len, uint32_t event_id, int32_t sim_id) {
    DM_LOGD("%s sim id %d", __func__, sim_id);
    int32_t main_sim = -1;

    char value[PROPERTY_VALUE_MAX] = {};
    property_get("ro.qpx_multiple_ims_support", value, "NaN");
    if (strncmp(value, "NaN", 3) == 0) {
        DM_LOGE("rvn_datamngr_set_hdr(): property_get(qpx_multiple_ims_support) error!!");
        return -1;
    }
    // A value that is no number counts as 0, not as an error.
    if (atoi(value) == 1) {  // NOLINT(cert-err34-c)
        property_get("persist.radio.simswitch", value, "NaN");
        if (strncmp(value, "NaN", 3) == 0) {
            DM_LOGE("rvn_datamngr_set_hdr(): property_get(simswitch) error!!");
            return -1;
        }
        // The property counts SIMs from 1; a value that is no number counts as 0.
        main_sim = atoi(value) - 1;  // NOLINT(cert-err34-c)
    }

    evfw_event_t *registration = nullptr;
    if (main_sim == -1 || sim_id == main_sim) {
        registration = query_task_info_by_name(dm_imsm_name(sim_id));
    } else {
        DM_LOGE("rvn_datamngr_set_hdr(): Invalid SIM ID %d to IMSM with the main SIM %d!!", sim_id,
                main_sim);
    }
    if (registration == nullptr) {
        DM_LOGE("%s can't find IMSM record for event id %d and sim id %d", __func__, event_id,
                sim_id);
        return -1;
    }
    return dm_resp_to_external_channel(data, len, registration, event_id);
}

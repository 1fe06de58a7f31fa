// Start and stop of the data manager entity.
#include "entity/datamngr.h"

#include <stdlib.h>
#include <string.h>

#include <array>

#include "entity/dm_log.h"
#include "entity/operator_hooks.h"
#include "entity/urc_table.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

evfw_thrd_t init_thrd;

namespace {

// The events the main task serves, subscribed in this order.
constexpr std::array<uint32_t, 23> kSubscribedEvents = {
        EVENT_DATAMNGR_NOTIFICATION,
        EVENT_DATAMNGR_SETUP_DATA_CALL_REQ,
        EVENT_DATAMNGR_DATA_CALL_LIST_REQ,
        EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ,
        EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,
        EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ,
        EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,
        EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ,
        EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ,
        EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ,
        EVENT_DATAMNGR_IF_STATUS_REQ,
        EVENT_DATAMNGR_IF_RAT_CELL_INFO_REQ,
        EVENT_DATAMNGR_DEFAULT_BEARER_MODIFIED_URC,
        EVENT_DATAMNGR_RADIO_POWER_IND,
        EVENT_DATAMNGR_GET_IMS_PARA_REQ,
        EVENT_DATAMNGR_PASS_IMS_PDN_REQ,
        EVENT_DATAMNGR_GET_IMS_PDN_REQ,
        EVENT_DATAMNGR_BEAR_REQ,
        EVENT_DATAMNGR_GET_CID_REQ,
        EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY,
        EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY,
        EVENT_DATAMNGR_SET_PDN_STATE_REQ,
        EVENT_DATAMNGR_GET_PDN_STATE_REQ,
};

constexpr int kSubscribeMode = 1;
constexpr int kUrcModeFlagged = EVFW_URC_MODE_SKIP_CRLF;
constexpr int kUrcModePlain = EVFW_URC_MODE_LINE_START;
constexpr size_t kUrcPrefixMax = 64;

DatamngrEntity *g_entity = nullptr;

void subscribe_urc(evfw_task_t *task, const char *prefix, int32_t flag, uint32_t event_id) {
    evfw_atmngr_subscribe_urc(task, prefix, event_id, flag != 0 ? kUrcModeFlagged : kUrcModePlain);
}

}  // namespace

void reset_at_pdp_contexts(DatamngrEntity *state) {
    dm_entity_lock(state);
    for (AtPdpContext &ctx : state->at_pdp_ctx) {
        memset(&ctx, 0, sizeof(ctx));
        ctx.state = -1;
        ctx.cid = -1;
    }
    dm_entity_unlock(state);
}

DatamngrEntity *dm_entity() {
    return g_entity;
}

void datamngr_state_reset() {
    g_entity = nullptr;
}

void dm_release_current_event(evfw_event_t *event) {
    if (g_entity != nullptr && g_entity->cur_event == event) g_entity->cur_event = nullptr;
}

evfw_entity_t *datamngr_entity_init(evfw_entity_t *entity) {
    dm::log::bind_tags();
    DM_LOGD("%s", __func__);
    if (entity != nullptr) entity->id = kDatamngrEntityId;

    auto *state = static_cast<DatamngrEntity *>(malloc(sizeof(DatamngrEntity)));
    if (state == nullptr) {
        DM_LOGE("%s no memory for the entity state", __func__);
        return entity;
    }
    memset(state, 0, sizeof(*state));
    state->entity = entity;
    if (entity != nullptr) entity->priv = state;
    g_entity = state;
    state->cur_atcmd_event = nullptr;

    // The framework's results go unchecked but for a line each: the entity
    // carries on with what it got.
    if (int ret = evfw_mutex_init(&state->lock); ret != 0) {
        DM_LOGE("%s evfw_mutex_init fail %d", __func__, ret);
    }
    reset_at_pdp_contexts(state);

    uint32_t entity_id = entity != nullptr ? kDatamngrEntityId : 0;
    for (auto [task, task_id] : {std::pair{&state->main_task, TASK_DATAMNGR},
                                 {&state->dati_task, TASK_DATAMNGR_DATI_HDL},
                                 {&state->aux_task, TASK_DATAMNGR_AUX}}) {
        if (int ret = evfw_task_init(task, entity_id, task_id); ret != 0) {
            DM_LOGE("%s evfw_task_init task %d fail %d", __func__, task_id, ret);
        }
    }
    DM_LOGD("TASK_DATAMNGR_DATI_HDL init!!");

    for (uint32_t event_id : kSubscribedEvents) {
        evfw_connmngr_common_subscribe(&state->main_task, event_id, kSubscribeMode);
    }
    dm_register_urc(&state->main_task, EVENT_ATMNGR_URC);

    if (state->main_task.set_hdl != nullptr) {
        state->main_task.set_hdl(&state->main_task, datamngr_main_hdl, state);
    }
    DM_LOGD("TASK_DATAMNGR_DATI_HDL exec!!");

    if (int ret = evfw_thrd_init(&init_thrd); ret != 0) {
        DM_LOGE("%s evfw_thrd_init fail %d", __func__, ret);
    }
    if (init_thrd.start != nullptr) init_thrd.start(&init_thrd, datamngr_init_thrd, state);
    return entity;
}

evfw_entity_t *datamngr_entity_exit(evfw_entity_t *entity) {
    if (entity == nullptr) {
        DM_LOGE("%s NULL entity", __func__);
        return nullptr;
    }
    auto *state = static_cast<DatamngrEntity *>(entity->priv);
    if (state != nullptr) {
        evfw_task_exit(&state->aux_task);
        evfw_task_exit(&state->main_task);
        evfw_task_exit(&state->dati_task);
        reset_at_pdp_contexts(state);
        evfw_mutex_exit(&state->lock);
        state->cur_atcmd_event = nullptr;
        free(state);
    }
    entity->id = 0;
    return entity;
}

int datamngr_init_thrd(void *entity_state) {
    DM_LOGD("%s", __func__);
    evfw_wait_all_entity_init();
    datamngr_init(&static_cast<DatamngrEntity *>(entity_state)->main_task);
    return 0;
}

int32_t datamngr_init(evfw_task_t *) {
    DM_LOGD("%s", __func__);
    reset_pdn_info();
    return 0;
}

int32_t dm_register_urc(evfw_task_t *task, uint32_t event_id) {
    char prefix[kUrcPrefixMax];
    int32_t flag = 0;

    const OperatorHooks *hooks = dm_get_operator_hooks();
    if (hooks != nullptr && hooks->urc_count != nullptr && hooks->urc_prefix != nullptr) {
        int32_t count = hooks->urc_count();
        for (int32_t i = 0; i < count; ++i) {
            memset(prefix, 0, sizeof(prefix));
            if (hooks->urc_prefix(i, prefix, &flag) != 0) {
                DM_LOGE("%s get urc prefix error!!", __func__);
                continue;
            }
            subscribe_urc(task, prefix, flag, event_id);
        }
    }
    for (int32_t i = 0; i < dm_get_default_urc_num(); ++i) {
        memset(prefix, 0, sizeof(prefix));
        if (dm_get_default_urc_prefix(i, prefix, &flag) != 0) {
            DM_LOGE("%s get urc prefix error!!", __func__);
            continue;
        }
        subscribe_urc(task, prefix, flag, event_id);
    }
    return 0;
}

int32_t dm_get_default_urc_num(void) {
    return static_cast<int32_t>(kDefaultUrcTable.size());
}

int32_t dm_get_default_urc_prefix(int32_t index, char *prefix_out, int32_t *flag_out) {
    if (index < 0 || index >= dm_get_default_urc_num()) return -1;
    const DefaultUrcEntry &row = kDefaultUrcTable[index];
    // The caller's buffer holds the longest prefix; the interface passes no size.
    strcpy(prefix_out, row.prefix);  // NOLINT(clang-analyzer-security.insecureAPI.strcpy)
    *flag_out = row.flag;
    return 0;
}

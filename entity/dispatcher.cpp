// The main task's dispatcher: every event addressed to the data manager
// arrives here, is length-checked against the event table and given to
// exactly one handler.
#include <string.h>

#include <algorithm>
#include <array>

#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "pdn/relay.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

namespace {

using Handler = int32_t (*)(void *data, evfw_event_t *event);

enum class Route : uint8_t {
    kHandler,       // handler(data, event)
    kIgnored,       // accepted and dropped
    kInvalid,       // "Invalid request code": answers the data manager itself sends
    kSetPdnState,   // answered on the same event with 4059
    kGetPdnState,   // answered on the same event with 4061
    kRbDeactivate,  // teardown by interface with the handover peer's cause
};

struct EventRow {
    uint32_t id;
    uint32_t len;  // exact payload length
    Route route;
    Handler handler;
};

// The handover peer's deactivation is a teardown by interface with its own
// cause.
constexpr int32_t kRbDeactivateCause = 100;

// clang-format off
constexpr std::array kEventTable = std::to_array<EventRow>({
    {EVENT_ATMNGR_ATCMD_REQ,                             552, Route::kHandler, dm_atcmd_req},
    {EVENT_ATMNGR_ATCMD_RESP,                           4120, Route::kHandler, dm_atcmd_resp},
    {EVENT_ATMNGR_URC,                                  4108, Route::kHandler, dm_atcmd_urc},
    {EVENT_ATMNGR_NOTIFY,                                  4, Route::kIgnored, nullptr},
    {EVENT_DATAMNGR_NOTIFICATION,                        132, Route::kHandler, dm_notification},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_REQ,                 704, Route::kHandler, dm_setup_data_call_req},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP,              47876, Route::kHandler, dm_setup_data_call_resp},
    {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ,             12, Route::kHandler, dm_deactivate_data_call_req},
    {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP,             8, Route::kHandler, dm_deactivate_data_call_resp},
    {EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,       3956, Route::kHandler, dm_setup_dedicate_data_call_req},
    {EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP,      3968, Route::kHandler, dm_setup_dedicate_data_call_resp},
    {EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ,               3956, Route::kHandler, dm_modify_data_call_req},
    {EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP,              3964, Route::kHandler, dm_modify_data_call_resp},
    {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,    12, Route::kHandler, dm_deactivate_dedicate_data_call_req},
    {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP,    8, Route::kHandler, dm_deactivate_dedicate_data_call_resp},
    {EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ,            12, Route::kHandler, dm_abort_setup_data_call_req},
    {EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP,            8, Route::kHandler, dm_abort_setup_data_call_resp},
    {EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ,              12, Route::kHandler, dm_pcscf_discovery_pco_req},
    {EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP,            268, Route::kHandler, dm_pcscf_discovery_pco_resp},
    {EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ,         8, Route::kHandler, dm_last_data_call_fail_cause_req},
    {EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP,       12, Route::kHandler, dm_last_data_call_fail_cause_resp},
    {EVENT_DATAMNGR_DATA_CALL_LIST_REQ,                    8, Route::kHandler, dm_data_call_list_req},
    {EVENT_DATAMNGR_DATA_CALL_LIST_RESP,               47880, Route::kHandler, dm_data_call_list_resp},
    {EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,        47880, Route::kHandler, dm_data_call_list_changed_urc},
    {EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC,      3964, Route::kHandler, dm_dedicate_bearer_activated_urc},
    {EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC,       3964, Route::kHandler, dm_dedicate_bearer_modified_urc},
    {EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC,      12, Route::kHandler, dm_dedicate_bearer_deactivated_urc},
    {EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ,          528, Route::kHandler, dm_set_initial_attach_apn_req},
    {EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP,           8, Route::kHandler, dm_set_initial_attach_apn_resp},
    {EVENT_DATAMNGR_RADIO_POWER_REQ,                       8, Route::kHandler, dm_radio_power_req},
    {EVENT_DATAMNGR_RADIO_POWER_DO_REQ,                    8, Route::kHandler, dm_radio_power_do_req},
    {EVENT_DATAMNGR_RADIO_POWER_RESP,                      8, Route::kHandler, dm_radio_power_resp},
    {EVENT_DATAMNGR_RADIO_POWER_IND,                       8, Route::kIgnored, nullptr},
    {EVENT_DATAMNGR_ALLOW_DATA_REQ,                        8, Route::kHandler, dm_allow_data_req},
    {EVENT_DATAMNGR_ALLOW_DATA_RESP,                       8, Route::kHandler, dm_allow_data_resp},
    {EVENT_DATAMNGR_ALLOW_DATA_IND,                        8, Route::kIgnored, nullptr},
    {EVENT_DATAMNGR_BEAR_REQ,                              8, Route::kHandler, dm_bear_req},
    {EVENT_DATAMNGR_GET_CID_REQ,                           8, Route::kHandler, dm_get_cid_req},
    {EVENT_DATAMNGR_PASS_IMS_PDN_REQ,                    704, Route::kHandler, dm_pass_ims_pdn_req},
    {EVENT_DATAMNGR_GET_IMS_PDN_REQ,                     136, Route::kHandler, dm_get_ims_pdn_req},
    {EVENT_DATAMNGR_GET_IMS_PARA_REQ,                      8, Route::kHandler, dm_get_ims_para_req},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND,          47876, Route::kHandler, dm_setup_data_call_resp},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND,              8, Route::kHandler, dm_setup_data_call_fail_ind},
    {EVENT_DATAMNGR_HANDOVER_RESP,                         8, Route::kHandler, dm_handover_resp},
    {EVENT_DATAMNGR_SET_PDN_STATE_REQ,                    12, Route::kSetPdnState, nullptr},
    {EVENT_DATAMNGR_SET_PDN_STATE_RESP,                    8, Route::kInvalid, nullptr},
    {EVENT_DATAMNGR_GET_PDN_STATE_REQ,                   136, Route::kGetPdnState, nullptr},
    {EVENT_DATAMNGR_GET_PDN_STATE_RESP,                   12, Route::kInvalid, nullptr},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY,       47876, Route::kHandler, dm_setup_data_call_resp_notify},
    {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY,      8, Route::kHandler, dm_setup_data_call_resp_fail_notify},
    {EVENT_RB_SETUP_DATA_CALL_REQ,                       704, Route::kHandler, dm_setup_data_call_req},
    {EVENT_RB_DEACTIVATE_DATA_CALL_REQ,                   12, Route::kRbDeactivate, nullptr},
    {EVENT_RB_HANDOVER_REQ,                                6, Route::kHandler, dm_handover_req},
    {EVENT_RB_EPDG_DEACTIVATE_NOTIFY,                     12, Route::kHandler, dm_notify_epdg_deactivate},
});
// clang-format on

static_assert(std::is_sorted(kEventTable.begin(), kEventTable.end(),
                             [](const EventRow &a, const EventRow &b) { return a.id < b.id; }),
              "the event table is searched by bisection");

// The ids 4000..4063, nearly all the traffic, are found by index: the row
// number plus one, 0 for an id without a row.
constexpr uint32_t kIndexedFrom = 4000;
constexpr size_t kIndexed = 64;
constexpr auto kRowIndex = [] {
    std::array<uint8_t, kIndexed> index{};
    for (size_t row = 0; row < kEventTable.size(); ++row) {
        const uint32_t at = kEventTable[row].id - kIndexedFrom;
        if (at < kIndexed) index[at] = static_cast<uint8_t>(row + 1);
    }
    return index;
}();
static_assert(kEventTable.size() < 255);

const EventRow *find_row(uint32_t id) {
    if (const uint32_t at = id - kIndexedFrom; at < kIndexed) {
        return kRowIndex[at] != 0 ? &kEventTable[kRowIndex[at] - 1] : nullptr;
    }
    auto it = std::lower_bound(kEventTable.begin(), kEventTable.end(), id,
                               [](const EventRow &row, uint32_t key) { return row.id < key; });
    return it != kEventTable.end() && it->id == id ? &*it : nullptr;
}

void answer_pdn_state(DatamngrEntity *entity, Route route, void *data) {
    PdnStateReply reply = {};
    int32_t ret;
    uint32_t reply_id;
    uint32_t reply_len;
    if (route == Route::kSetPdnState) {
        ret = datamngr_set_pdn_state(entity, data, &reply);
        reply_id = EVENT_DATAMNGR_SET_PDN_STATE_RESP;
        reply_len = kPdnStateSetReplyLen;
    } else {
        ret = datamngr_get_pdn_state(entity, data, &reply);
        reply_id = EVENT_DATAMNGR_GET_PDN_STATE_RESP;
        reply_len = sizeof(reply);
    }
    if (ret == -1) {
        // The get path reports with the set path's text.
        DM_LOGE("datamngr_main_hdl(): datamngr_set_pdn_state() error!!");
        return;
    }
    if (datamngr_ext_send(entity, reply_id, &reply, reply_len) == -1) {
        DM_LOGE("datamngr_main_hdl(): datamngr_ext_send() error!!");
    }
}

}  // namespace

uint32_t dm_expected_length(uint32_t event_id, bool *known) {
    const EventRow *row = find_row(event_id);
    if (known != nullptr) *known = row != nullptr;
    return row != nullptr ? row->len : 0;
}

void *datamngr_main_hdl(evfw_task_t *task, evfw_event_t *event, void *entity_arg) {
    uint32_t id = event_get_id(event);
    auto *entity = static_cast<DatamngrEntity *>(entity_arg);
    if (task == nullptr || event == nullptr || entity == nullptr) {
        DM_LOGE("datamngr_main_hdl(): Invalid argument!!");
        return nullptr;
    }

    entity->cur_event = event;
    size_t len = 0;
    void *data = event_get_data(event, 0, &len);
    DM_LOGD("%s: received event ID %s(%d) data len %u", __func__, event_get_name(id), id,
            static_cast<uint32_t>(len));

    const EventRow *row = find_row(id);
    uint32_t expected = 0;
    if (row == nullptr) {
        DM_LOGE("%s an unknown event", __func__);
    } else {
        expected = row->len;
    }

    if (len != expected) {
        if (len == kFailRespLen) {
            // An 8-byte payload where a longer one was expected is the peer's
            // failure answer to the request of that id.
            dm_fail_resp(data, event);
        } else {
            DM_LOGE("event id %u invalid message length %u != %u", id, static_cast<uint32_t>(len),
                    expected);
        }
    } else if (row == nullptr || row->route == Route::kInvalid) {
        DM_LOGW("datamngr_main_hdl(): Invalid request code %s(%d)!!", event_get_name(id), id);
    } else {
        switch (row->route) {
            case Route::kHandler:
                if (row->handler != nullptr) row->handler(data, event);
                break;
            case Route::kRbDeactivate:
                dm_deactivate_data_call_if_with_cause_req(data, event, kRbDeactivateCause);
                break;
            case Route::kSetPdnState:
            case Route::kGetPdnState:
                answer_pdn_state(entity, row->route, data);
                break;
            case Route::kIgnored:
            case Route::kInvalid:
                break;
        }
    }

    if (entity->cur_event != nullptr) {
        evfw_event_free(entity->cur_event);
        entity->cur_event = nullptr;
        return nullptr;
    }
    return task;
}

// The main task's dispatcher: every event addressed to the data manager
// arrives here, is length-checked against the event table and given to
// exactly one handler.
#include <string.h>

#include <array>
#include <bit>
#include <type_traits>

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

// The one signature the table calls: the event's data and the event.
using Handler = int32_t (*)(void *data, evfw_event_t *event);

enum class Route : uint8_t {
    kHandler,      // handler(data, event)
    kIgnored,      // accepted and dropped
    kInvalid,      // "Invalid request code": answers the data manager itself sends
    kSetPdnState,  // answered on the same event with 4059
    kGetPdnState,  // answered on the same event with 4061
};

struct EventRow {
    uint32_t id;
    uint32_t len;  // exact payload length
    Route route;
    Handler handler;
};

// The record an operation reads: the pointee of its payload parameter (void
// for a handler of text or bytes).
template <typename F>
struct PayloadOfType;
template <typename R>
struct PayloadOfType<int32_t (*)(R *, evfw_event_t *)> {
    using type = R;
};
template <typename R>
struct PayloadOfType<int32_t (*)(R *, evfw_event_t *) noexcept> {
    using type = R;
};
template <typename R>
struct PayloadOfType<int32_t (*)(DatamngrEntity *, R *, PdnStateReply *)> {
    using type = R;
};
template <auto op>
using PayloadOf = typename PayloadOfType<decltype(op)>::type;

// A typed handler called the table's way: the data is its record.
template <auto handler>
int32_t call(void *data, evfw_event_t *event) {
    return handler(static_cast<PayloadOf<handler> *>(data), event);
}

// A handler's row: its length is the size of the handler's record, so that
// the two cannot disagree.
template <uint32_t id, auto handler>
constexpr EventRow row() {
    static_assert(!std::is_void_v<PayloadOf<handler>>,
                  "a handler of text or bytes names its length: row<id, handler>(length)");
    return {id, sizeof(PayloadOf<handler>), Route::kHandler, &call<handler>};
}

// The row of a handler whose payload is no record (a text): its length named.
template <uint32_t id, auto handler>
constexpr EventRow row(uint32_t len) {
    static_assert(std::is_void_v<PayloadOf<handler>>,
                  "a record's length is its size: row<id, handler>()");
    return {id, len, Route::kHandler, handler};
}

// A PDN state service's row: the dispatcher answers it (answer_pdn_state).
template <uint32_t id, auto service, Route route>
constexpr EventRow state_row() {
    return {id, sizeof(PayloadOf<service>), route, nullptr};
}

// A row without a handler, of a named length.
constexpr EventRow no_handler(uint32_t id, uint32_t len, Route route) {
    return {id, len, route, nullptr};
}

// Lengths of the events accepted and dropped, whose payload no routine reads.
constexpr uint32_t kAtmngrNotifyLen = 4;   // 3008, a notice of the modem's AT manager
constexpr uint32_t kRadioPowerIndLen = 8;  // 4035, the radio power indication
constexpr uint32_t kAllowDataIndLen = 8;   // 4039, the allow-data indication

// The handover peer's deactivation is a teardown by interface with its own
// cause.
constexpr int32_t kRbDeactivateCause = 100;

int32_t rb_deactivate(DeactivateReq *req, evfw_event_t *event) {
    return dm_deactivate_data_call_if_with_cause_req(req, event, kRbDeactivateCause);
}

// clang-format off
constexpr std::array kEventTable = std::to_array<EventRow>({
    row<EVENT_ATMNGR_ATCMD_REQ,                            &dm_atcmd_req>(),
    row<EVENT_ATMNGR_ATCMD_RESP,                           &dm_atcmd_resp>(),
    row<EVENT_ATMNGR_URC,                                  &dm_atcmd_urc>(),
    no_handler(EVENT_ATMNGR_NOTIFY, kAtmngrNotifyLen, Route::kIgnored),
    row<EVENT_DATAMNGR_NOTIFICATION,                       &dm_notification>(kNotificationLen),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_REQ,                &dm_setup_data_call_req>(),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_RESP,               &dm_setup_data_call_resp>(),
    row<EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ,           &dm_deactivate_data_call_req>(),
    row<EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP,          &dm_deactivate_data_call_resp>(),
    row<EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,       &dm_setup_dedicate_data_call_req>(),
    row<EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP,      &dm_setup_dedicate_data_call_resp>(),
    row<EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ,               &dm_modify_data_call_req>(),
    row<EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP,              &dm_modify_data_call_resp>(),
    row<EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,  &dm_deactivate_dedicate_data_call_req>(),
    row<EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP, &dm_deactivate_dedicate_data_call_resp>(),
    row<EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ,          &dm_abort_setup_data_call_req>(),
    row<EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP,         &dm_abort_setup_data_call_resp>(),
    row<EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ,            &dm_pcscf_discovery_pco_req>(),
    row<EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP,           &dm_pcscf_discovery_pco_resp>(),
    row<EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ,      &dm_last_data_call_fail_cause_req>(),
    row<EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP,     &dm_last_data_call_fail_cause_resp>(),
    row<EVENT_DATAMNGR_DATA_CALL_LIST_REQ,                 &dm_data_call_list_req>(),
    row<EVENT_DATAMNGR_DATA_CALL_LIST_RESP,                &dm_data_call_list_resp>(),
    row<EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,         &dm_data_call_list_changed_urc>(),
    row<EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC,      &dm_dedicate_bearer_activated_urc>(),
    row<EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC,       &dm_dedicate_bearer_modified_urc>(),
    row<EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC,    &dm_dedicate_bearer_deactivated_urc>(),
    row<EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ,         &dm_set_initial_attach_apn_req>(),
    row<EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP,        &dm_set_initial_attach_apn_resp>(),
    row<EVENT_DATAMNGR_RADIO_POWER_REQ,                    &dm_radio_power_req>(),
    row<EVENT_DATAMNGR_RADIO_POWER_DO_REQ,                 &dm_radio_power_do_req>(),
    row<EVENT_DATAMNGR_RADIO_POWER_RESP,                   &dm_radio_power_resp>(),
    no_handler(EVENT_DATAMNGR_RADIO_POWER_IND, kRadioPowerIndLen, Route::kIgnored),
    row<EVENT_DATAMNGR_ALLOW_DATA_REQ,                     &dm_allow_data_req>(),
    row<EVENT_DATAMNGR_ALLOW_DATA_RESP,                    &dm_allow_data_resp>(),
    no_handler(EVENT_DATAMNGR_ALLOW_DATA_IND, kAllowDataIndLen, Route::kIgnored),
    row<EVENT_DATAMNGR_BEAR_REQ,                           &dm_bear_req>(),
    row<EVENT_DATAMNGR_GET_CID_REQ,                        &dm_get_cid_req>(),
    row<EVENT_DATAMNGR_PASS_IMS_PDN_REQ,                   &dm_pass_ims_pdn_req>(),
    row<EVENT_DATAMNGR_GET_IMS_PDN_REQ,                    &dm_get_ims_pdn_req>(),
    row<EVENT_DATAMNGR_GET_IMS_PARA_REQ,                   &dm_get_ims_para_req>(),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND,           &dm_setup_data_call_resp>(),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND,           &dm_setup_data_call_fail_ind>(),
    row<EVENT_DATAMNGR_HANDOVER_RESP,                      &dm_handover_resp>(),
    state_row<EVENT_DATAMNGR_SET_PDN_STATE_REQ,            &datamngr_set_pdn_state, Route::kSetPdnState>(),
    no_handler(EVENT_DATAMNGR_SET_PDN_STATE_RESP, kPdnStateSetReplyLen, Route::kInvalid),
    state_row<EVENT_DATAMNGR_GET_PDN_STATE_REQ,            &datamngr_get_pdn_state, Route::kGetPdnState>(),
    no_handler(EVENT_DATAMNGR_GET_PDN_STATE_RESP, kPdnStateGetReplyLen, Route::kInvalid),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY,        &dm_setup_data_call_resp_notify>(),
    row<EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY,   &dm_setup_data_call_resp_fail_notify>(),
    row<EVENT_RB_SETUP_DATA_CALL_REQ,                      &dm_setup_data_call_req>(),
    row<EVENT_RB_DEACTIVATE_DATA_CALL_REQ,                 &rb_deactivate>(),
    row<EVENT_RB_HANDOVER_REQ,                             &dm_handover_req>(),
    row<EVENT_RB_EPDG_DEACTIVATE_NOTIFY,                   &dm_notify_epdg_deactivate>(),
});
// clang-format on

static_assert(
        [] {
            for (size_t i = 1; i < kEventTable.size(); ++i) {
                if (kEventTable[i - 1].id >= kEventTable[i].id) return false;
            }
            return true;
        }(),
        "the event table is searched by bisection: ids strictly ascending");

// The table's ids, its search key, in an array of a power of two entries
// for the bisection; the entries past the table's rows hold the largest id.
constexpr size_t kSearchLen = std::bit_ceil(kEventTable.size());
constexpr auto kSearchIds = [] {
    std::array<uint32_t, kSearchLen> ids{};
    ids.fill(UINT32_MAX);
    for (size_t i = 0; i < kEventTable.size(); ++i) ids[i] = kEventTable[i].id;
    return ids;
}();

// Bisection: each step halves the part of the table the id can be in, and
// `at` ends on the last row whose id is not above `id`.  The row of `id`, or
// null.
const EventRow *find_row(uint32_t id) {
    size_t at = 0;
    for (size_t step = kSearchLen / 2; step != 0; step /= 2) {
        if (kSearchIds[at + step] <= id) at += step;
    }
    return at < kEventTable.size() && kSearchIds[at] == id ? &kEventTable[at] : nullptr;
}

void answer_pdn_state(DatamngrEntity *entity, Route route, void *data) {
    PdnStateReply reply = {};
    int32_t ret;
    uint32_t reply_id;
    uint32_t reply_len;
    if (route == Route::kSetPdnState) {
        ret = datamngr_set_pdn_state(
                entity, static_cast<PayloadOf<&datamngr_set_pdn_state> *>(data), &reply);
        reply_id = EVENT_DATAMNGR_SET_PDN_STATE_RESP;
        reply_len = kPdnStateSetReplyLen;
    } else {
        ret = datamngr_get_pdn_state(
                entity, static_cast<PayloadOf<&datamngr_get_pdn_state> *>(data), &reply);
        reply_id = EVENT_DATAMNGR_GET_PDN_STATE_RESP;
        reply_len = kPdnStateGetReplyLen;
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
            dm_fail_resp(static_cast<PayloadOf<&dm_fail_resp> *>(data), event);
        } else {
            DM_LOGE("event id %u invalid message length %u != %u", id, static_cast<uint32_t>(len),
                    expected);
        }
    } else if (row == nullptr || row->route == Route::kInvalid) {
        DM_LOGW("datamngr_main_hdl(): Invalid request code %s(%d)!!", event_get_name(id), id);
    } else {
        switch (row->route) {
            case Route::kHandler:
                row->handler(data, event);
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

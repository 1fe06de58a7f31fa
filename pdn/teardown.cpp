// Data-call teardown, the ePDG side's deactivation notice, handover and the
// initial-attach APN: each is relayed to the RIL proxy.  The PDN table forgets
// the connections at request time, before the RIL answers; the answers
// (4006) go back by the relay pattern and change no row.
//
// Main task thread only.
#include <stdint.h>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/operator_hooks.h"
#include "evfw_ids.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

namespace {

constexpr uint32_t kNoInterface = UINT32_MAX;
constexpr int32_t kRequesterCause = 1;

}  // namespace

int32_t dm_deactivate_data_call_req(DeactivateReq *req, evfw_event_t *event) {
    uint32_t interface_id = get_interface_by_cid(static_cast<int32_t>(req->id));
    DM_LOGI("%s cid %u\n", __func__, req->id);
    if (interface_id == kNoInterface) {
        DM_LOGE("%s can't find interface by cid %u\n", __func__, req->id);
        return -1;
    }
    // The RIL takes calls down by interface.
    req->id = interface_id;
    return dm_deactivate_data_call_if_req(req, event);
}

int32_t dm_deactivate_data_call_if_req(DeactivateReq *req, evfw_event_t *event) {
    DM_LOGI("%s interface id %u\n", __func__, req->id);
    return dm_deactivate_data_call_if_with_cause_req(req, event, kRequesterCause);
}

int32_t dm_deactivate_data_call_if_with_cause_req(DeactivateReq *req, evfw_event_t *event,
                                                  int32_t cause) {
    DM_LOGI("%s interface id %u cause %d\n", __func__, req->id, cause);
    if (req->id == kNoInterface) {
        DM_LOGE("%s can't find interface by cid %u\n", __func__, req->id);
        return -1;
    }
    // The default bearer and its dedicated bearers go together, before the
    // RIL answers.  ePDG rows are the ePDG side's to end (9322).
    clear_pdn_info_by_if_type(static_cast<int32_t>(req->id), kIfTypeCellular);
    req->cause = cause;

    const OperatorHooks *hooks = dm_get_operator_hooks();
    if (hooks != nullptr && hooks->deactivate != nullptr) hooks->deactivate(req, event);

    return dm_req_to_rild(req, sizeof(*req), event, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
}

int32_t dm_notify_epdg_deactivate(const DeactivateReq *req, evfw_event_t *event) {
    clear_pdn_info_by_if_type(static_cast<int32_t>(req->id), kIfTypeEpdg);
    return dm_req_to_rild(req, sizeof(*req), event, EVENT_RB_EPDG_DEACTIVATE_NOTIFY);
}

int32_t dm_handover_req(const HandoverReq *req, evfw_event_t *event) {
    DM_LOGI("%s\n", __func__);
    // The IMS manager hears of an IMS interface moving before the RIL does.
    if (req->interface_id == kImsInterface || req->interface_id == kEmergencyImsInterface) {
        dm_notify_to_imsm(req, sizeof(*req), EVENT_RB_HANDOVER_REQ, req->sim_id);
    }
    return dm_req_to_rild(req, sizeof(*req), event, EVENT_RB_HANDOVER_REQ);
}

// Serves both the handover answer (4053) and the initial-attach APN answer
// (4031): nobody waits for either.
int32_t dm_handover_resp(const WordPair *, evfw_event_t *) noexcept {
    return 0;
}

int32_t dm_set_initial_attach_apn_resp(const WordPair *resp, evfw_event_t *event) noexcept
        __attribute__((alias("dm_handover_resp")));

int32_t dm_set_initial_attach_apn_req(const InitialAttachApnReq *req, evfw_event_t *event) {
    DM_LOGI("%s for event %u\n", __func__,
            static_cast<uint32_t>(EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ));
    return dm_req_to_rild(req, sizeof(*req), event, EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ);
}

// Data-call setup: a setup request goes from its requester to the RIL proxy;
// the RIL's answer is written into the PDN table and the IMS parameter slot
// of its interface and forwarded to the handover peer RB of its SIM.  A
// failure indication of the RIL becomes a synthetic failed answer.
//
// Main task thread only: the module state below is not locked.
#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/operator_hooks.h"
#include "entity/task_info.h"
#include "evfw_ids.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

int32_t rild_req_interface_id = kNoRildReq;

namespace {

constexpr int32_t kEpdgUnread = -1;
constexpr size_t kPropBufLen = 128;
constexpr uint32_t kRbTaskBase = TASK_RB_SIM0;
constexpr uint32_t kRbSims = 4;
constexpr int32_t kOperatorReject = 1;
constexpr int32_t kMaxCalls = static_cast<int32_t>(kMaxDataCalls);

constexpr uint32_t kDefaultPrefixLen = 64;
constexpr uint32_t kDefaultPreferredLifetime = 14400;
constexpr uint32_t kDefaultValidLifetime = 86400;

// "persist.qpx_epdg_support", read once (again while it parses as -1).
int32_t g_epdg_support = kEpdgUnread;

// Acknowledges a notify (4062, 4063) to its sender.
int32_t send_ack(evfw_event_t *event, uint32_t sim_id) {
    SetupAck ack = {};
    ack.result = 0;
    ack.sim_id = sim_id;
    return dm_resp_to_external_channel(&ack, sizeof(ack), event,
                                       EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK);
}

}  // namespace

void pdn_setup_state_reset() {
    rild_req_interface_id = kNoRildReq;
    g_epdg_support = kEpdgUnread;
}

int32_t dm_is_epdg_support(void) {
    if (g_epdg_support == kEpdgUnread) {
        char value[kPropBufLen] = {};
        property_get("persist.qpx_epdg_support", value, "0");
        // A value that is no number reads as 0: no ePDG.
        g_epdg_support = atoi(value);  // NOLINT(cert-err34-c)
    }
    return g_epdg_support;
}

int32_t dm_send_to_rb(void *data, uint32_t len, evfw_event_t *event, uint32_t event_id,
                      uint32_t sim) {
    DM_LOGD("%s sim id %d\n", __func__, sim);
    if (dm_is_epdg_support() == 0) {
        DM_LOGD("%s skip when epdg not support\n", __func__);
        return 0;
    }
    // RB of a SIM slot out of range is the first SIM's.
    uint32_t task_id = sim < kRbSims ? kRbTaskBase + sim : kRbTaskBase;
    return dm_send_to_task(task_id, data, len, event, event_id);
}

int32_t dm_add_ims_para(SetupDataCallReq *req) {
    ImsParaSlot *slot = ims_para_slot(req->interface_id);
    if (slot == nullptr) {
        DM_LOGD("%s no need for interface id %d\n", __func__, req->interface_id);
        return 0;
    }
    slot->state = kImsSlotParamsPassed;
    req->ims_para_valid = 1;
    memcpy(req->ims_para, slot->params.ims_para, sizeof(req->ims_para));
    req->emergency_ind = slot->params.emergency_ind;
    req->ims_word_684 = slot->params.ims_word_684;
    req->ims_word_688 = slot->params.ims_word_688;
    // The assigned rate type stays the requester's.
    DM_LOGI("%s for interface id %d\n", __func__, req->interface_id);
    return 0;
}

int32_t dm_setup_data_call_req(SetupDataCallReq *req, evfw_event_t *event) {
    // The SIM byte is followed by three bytes of the record, so the 32-bit
    // read stays inside it.
    (void)is_event_from_imsm(&req->sim_id, event);

    if (event_get_id(event) == EVENT_RB_SETUP_DATA_CALL_REQ) {
        DM_LOGD("%s add ims para for RB handover data call setup\n", __func__);
        dm_add_ims_para(req);
    }

    const OperatorHooks *hooks = dm_get_operator_hooks();
    if (hooks != nullptr && hooks->setup_req_check != nullptr &&
        hooks->setup_req_check(req, event) == kOperatorReject) {
        DM_LOGI("%s operator reject\n", __func__);
        // Answered through the data manager's own queue, so that the refusal
        // takes the path of a RIL answer (and ends there as status 1).
        SetupDataCallResp resp;
        memset(&resp, 0, sizeof(resp));
        resp.active = 0;
        resp.sim_byte = req->sim_id;
        resp.sim_id = req->sim_id;
        dm_req_to_self(&resp, sizeof(resp), event, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP);
        return 0;
    }

    // The APN may fill its field without a NUL: compared within the field.
    char apn[sizeof(req->apn) + 1];
    size_t apn_len = strnlen(req->apn, sizeof(req->apn));
    memcpy(apn, req->apn, apn_len);
    apn[apn_len] = '\0';
    PdnInfo *row = find_pdn_info_by_apn(apn);
    if (row != nullptr) {
        row->interface_id = req->interface_id;
        row->active = 1;
    }

    // A handover setup (9314) reaches the RIL as an ordinary one.
    return dm_req_to_rild(req, sizeof(*req), event, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
}

int32_t dm_setup_data_call_resp(SetupDataCallResp *resp, evfw_event_t *event) {
    (void)is_event_from_imsm(&resp->sim_id, event);
    TaskInfo *requester = query_task_info(event);

    if (static_cast<int32_t>(resp->interface_id) != rild_req_interface_id) {
        DM_LOGW("%s interface id %d != curr req from RILD interface id %d\n", __func__,
                resp->interface_id, rild_req_interface_id);
    }
    rild_req_interface_id = kNoRildReq;

    // An answer for a call that is not up is a failure, whatever it says.
    if (resp->active == 0) {
        DM_LOGE("%s interface id %d active %d invalid set status fail\n", __func__,
                resp->interface_id, resp->active);
        if (resp->status == 0) {
            resp->status = 1;
            DM_LOGE("%s interface id %d active %d invalid set status fail\n", __func__,
                    resp->interface_id, resp->active);
        }
    }

    if (dm_is_epdg_support() == 0) {
        DM_LOGD("%s set rate type as LTE when no EDPG\n", __func__);
        resp->rate_type = kRateTypeLte;
    }

    ImsParaSlot *slot = ims_para_slot(resp->interface_id);
    if (slot != nullptr) {
        uint32_t previous = slot->state;
        memcpy(&slot->response, resp, sizeof(slot->response));
        slot->state = kImsSlotResponseStored;
        DM_LOGI("%s interface id %d for IMS switch to state %d\n", __func__, resp->interface_id,
                slot->state);
        if (previous == kImsSlotQueryParked) {
            // The IMS manager asked before the answer was there: answer it now.
            evfw_event_t *parked = slot->parked_req.event;
            slot->parked_req.event = nullptr;
            if (parked == nullptr) {
                DM_LOGE("%s interface id %d parked query without event\n", __func__,
                        resp->interface_id);
            } else {
                dm_get_ims_pdn_req(&slot->parked_req.req, parked);
                evfw_event_free(parked);
            }
        }
    }

    if (resp->status != 0) {
        DM_LOGE("%s response fail status %d\n", __func__, resp->status);
    } else {
        // The record holds 11 entries: a count outside 0..11 is the RIL's
        // error and is not followed past them.
        int32_t calls = resp->num_calls;
        if (calls < 0) {
            DM_LOGE("%s num calls %d negative, no entry read\n", __func__, calls);
            calls = 0;
        } else if (calls > kMaxCalls) {
            DM_LOGE("%s num calls %d above %d, only %d entries read\n", __func__, calls, kMaxCalls,
                    kMaxCalls);
            calls = kMaxCalls;
        }
        for (int32_t i = 0; i < calls; ++i) update_pdn_info(&resp->calls[i], requester);
        if (resp->has_extra_call != 0) {
            PdnInfo *row = update_pdn_info(&resp->extra_call, requester);
            if (row != nullptr) {
                // The name may fill its field without a NUL; the row keeps a
                // terminated copy.
                size_t len = strnlen(resp->ifname, sizeof(resp->ifname));
                if (len >= sizeof(row->ifname)) len = sizeof(row->ifname) - 1;
                memcpy(row->ifname, resp->ifname, len);
                row->ifname[len] = '\0';
                row->addr_type = resp->pdp_type;
                row->prefix_len = kDefaultPrefixLen;
                row->preferred_lifetime = kDefaultPreferredLifetime;
                row->valid_lifetime = kDefaultValidLifetime;
            }
        }
        const OperatorHooks *hooks = dm_get_operator_hooks();
        if (hooks != nullptr && hooks->setup_resp != nullptr) hooks->setup_resp(resp, event);
    }

    // RB hears of every answer, failed or not.
    uint32_t id = event_get_id(event);
    switch (id) {
        case EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND:
        case EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY:
            DM_LOGI("%s SETUP DATA CALL IND to RB %d\n", __func__, id);
            dm_send_to_rb(resp, sizeof(*resp), event, EVENT_RB_SETUP_DATA_CALL_IND, resp->sim_id);
            break;
        case EVENT_DATAMNGR_SETUP_DATA_CALL_RESP:
            DM_LOGI("%s SETUP DATA CALL CNF to RB %d\n", __func__, id);
            dm_send_to_rb(resp, sizeof(*resp), event, EVENT_RB_SETUP_DATA_CALL_CNF, resp->sim_id);
            break;
        default:
            DM_LOGE("%s invalid event %d\n", __func__, id);
            break;
    }
    return 0;
}

int32_t dm_setup_data_call_resp_notify(SetupDataCallResp *resp, evfw_event_t *event) {
    dm_setup_data_call_resp(resp, event);
    return send_ack(event, resp->sim_id);
}

int32_t dm_setup_data_call_fail_ind(const SetupFailInd *ind, evfw_event_t *event) {
    DM_LOGI("%s status %d\n", __func__, ind->status);
    if (rild_req_interface_id == kNoRildReq) {
        DM_LOGE("%s invalid curr req interface id %d\n", __func__, rild_req_interface_id);
        return -1;
    }

    // The RIL's failure told as an answer, so that RB hears of it as an
    // indication and the current request ends.
    SetupDataCallResp resp;
    memset(&resp, 0, sizeof(resp));
    resp.interface_id = static_cast<uint32_t>(rild_req_interface_id);
    resp.active = 0;
    resp.status = 1;
    resp.sim_id = ind->sim_id;
    resp.sim_byte = static_cast<uint8_t>(ind->sim_id & 0xffu);

    evfw_event_t *ind_event = evfw_event_alloc(event);
    if (ind_event == nullptr) {
        DM_LOGE("%s no event for the failed answer\n", __func__);
        return -1;
    }
    event_set_id(ind_event, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND);
    dm_setup_data_call_resp(&resp, ind_event);
    evfw_event_free(ind_event);
    return 0;
}

int32_t dm_setup_data_call_resp_fail_notify(const SetupFailInd *ind, evfw_event_t *event) {
    dm_setup_data_call_fail_ind(ind, event);
    // The failure path has no SIM to report: the word goes out as 0.
    return send_ack(event, 0);
}

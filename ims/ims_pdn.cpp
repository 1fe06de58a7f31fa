// The IMS PDN queries: the IMS manager passes its parameters (4045), the RIL
// fetches them while it sets the call up (4049), and the IMS manager asks for
// the finished PDN (4047), answered with the stored set-up answer completed
// with the interface's global IPv6 address.
#include "ims/ims_pdn.h"

#include <stdlib.h>
#include <string.h>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "evfw_ids.h"
#include "ims/ipv6_addr.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Ims;

namespace {

constexpr char kDataIfPrefix[] = "pdnet";
constexpr size_t kDataIfPrefixLen = sizeof(kDataIfPrefix) - 1;
constexpr uint32_t kFailStatus = 1;

int32_t answer_ims_pdn(const SetupDataCallResp &answer, evfw_event_t *event) {
    return dm_resp_to_external_channel(&answer, sizeof(answer), event,
                                       EVENT_DATAMNGR_GET_IMS_PDN_RESP);
}

}  // namespace

int32_t get_interface_id(const char *ifname) {
    if (strstr(ifname, kDataIfPrefix) == nullptr) return -1;
    // The number is read after the first five characters wherever "pdnet"
    // was found; the name holds at least those five.  No digits there read
    // as interface 0.
    return atoi(ifname + kDataIfPrefixLen);  // NOLINT(cert-err34-c)
}

int32_t dm_pass_ims_pdn_req(const SetupDataCallReq *req, evfw_event_t *event) {
    dm::FieldText apn(req->apn);
    ImsPdnPassResp resp = {};
    resp.sim_id = req->sim_id;

    if (req->ims_para_valid == 0) {
        DM_LOGE("%s invalid APN %s for IMS\n", __func__, apn.c_str());
        resp.result = -1;
    } else {
        ImsParaSlot *slot;
        if (req->emergency_ind != 0) {
            slot = ims_para_slot(kEmergencyImsInterface);
            DM_LOGI("%s APN %s for EMERGENCY PDN\n", __func__, apn.c_str());
        } else {
            slot = ims_para_slot(kImsInterface);
            DM_LOGI("%s APN %s for IMS PDN\n", __func__, apn.c_str());
        }
        // A new set-up starts: the stored answer and the address given to the
        // IMS manager belong to the old one.  A query still parked in the
        // slot will never be answered now; its event is the slot's to free.
        if (slot->state == kImsSlotQueryParked && slot->parked_req.event != nullptr) {
            evfw_event_free(slot->parked_req.event);
        }
        memset(slot, 0, sizeof(*slot));
        memcpy(&slot->params, req, sizeof(slot->params));
        slot->state = kImsSlotParamsPassed;
        resp.result = 0;
    }
    return dm_resp_to_external_channel(&resp, sizeof(resp), event,
                                       EVENT_DATAMNGR_PASS_IMS_PDN_RESP);
}

int32_t dm_get_ims_para_req(const ImsParaReq *req, evfw_event_t *event) {
    DM_LOGI("RILD %s for interface id %d, SIM %d\n", __func__, req->interface_id, req->sim_id);

    // The next set-up answer from the RIL is checked against this interface.
    rild_req_interface_id = static_cast<int32_t>(req->interface_id);

    ImsParaResp resp = {};
    const ImsParaSlot *slot = ims_para_slot(req->interface_id);
    if (slot == nullptr) {
        DM_LOGI("%s invalid interface id %d for IMS\n", __func__, req->interface_id);
    } else {
        // Whatever the slot's state: the RIL gets what was last passed.
        const SetupDataCallReq &params = slot->params;
        resp.valid = 1;
        memcpy(resp.ims_para, params.ims_para, sizeof(resp.ims_para));
        resp.emergency_ind = params.emergency_ind;
        resp.ims_word_684 = params.ims_word_684;
        resp.ims_word_688 = params.ims_word_688;
        resp.assigned_rate_type = params.assigned_rate_type;
        DM_LOGI("emergency ind %d assigned rate type %d\n", resp.emergency_ind,
                resp.assigned_rate_type);
    }
    return dm_resp_to_external_channel(&resp, sizeof(resp), event,
                                       EVENT_DATAMNGR_GET_IMS_PARA_RESP);
}

int32_t dm_get_ims_pdn_req(const ImsPdnReq *req, evfw_event_t *event) {
    dm::FieldText ifname(req->ifname);
    int32_t id = get_interface_id(ifname.c_str());

    // A private copy: the slot keeps the modem's own answer.
    SetupDataCallResp answer = {};

    ImsParaSlot *slot = nullptr;
    if (id == static_cast<int32_t>(kImsInterface)) {
        slot = ims_para_slot(kImsInterface);
    } else if (id == static_cast<int32_t>(kEmergencyImsInterface)) {
        slot = ims_para_slot(kEmergencyImsInterface);
        DM_LOGI("%s interface %s id %d for emergency %d\n", __func__, ifname.c_str(), id,
                answer.interface_id);
    } else {
        answer.status = kFailStatus;
        DM_LOGE("%s invalid interface %s id %d for IMS\n", __func__, ifname.c_str(), id);
        return answer_ims_pdn(answer, event);
    }

    memcpy(&answer, &slot->response, sizeof(answer));
    if (slot->state != kImsSlotResponseStored) {
        // The stored answer goes out, marked failed.
        answer.status = kFailStatus;
        DM_LOGE("%s interface id %d for IMS in wrong state %d\n", __func__, id, slot->state);
        return answer_ims_pdn(answer, event);
    }

    DM_LOGI("%s interface id %d state %d\n", __func__, id, slot->state);
    DM_LOGI("IMSM %s interface %s id %d for IMS %d\n", __func__, ifname.c_str(), id,
            answer.interface_id);
    answer.req_token = req->req_token;

    if (find_pdn_info_by_interface(static_cast<int32_t>(answer.interface_id)) == nullptr) {
        // The PDN went down after its set-up: nothing of it is given out.
        memset(&answer, 0, sizeof(answer));
        answer.status = kFailStatus;
        dm::FieldText answer_ifname(answer.ifname);
        DM_LOGE("%s %s null PDN\n", __func__, answer_ifname.c_str());
        return answer_ims_pdn(answer, event);
    }

    if (answer.pdp_type == kPdpIpv6 || answer.pdp_type == kPdpIpv4v6) {
        dm_ipv6_complete_for_query(__func__, &answer, slot);
    }
    return answer_ims_pdn(answer, event);
}

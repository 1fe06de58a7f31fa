// The exported request senders.  They stand in for a peer of the data
// manager: the events leave from the caller's context, not from the data
// manager's tasks, and reach the main task (or the third task) through the
// framework like any peer's request.
#include "entity/client_senders.h"

#include <string.h>

#include <array>

#include "dati/dati.h"
#include "entity/dm_log.h"
#include "evfw_ids.h"
#include "ims/netlink_listener.h"
#include "pdn/pdn_records.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

namespace {

// Modem URC lines played by dm_send_urc, in order.
constexpr std::array<const char *, 6> kUrcLines = {
        "+EAPNMOD: \"VZWINTERNET\"",   "+ECCAUSE: \"emm_cause\", 28", "+ECCAUSE: \"emm_cause\", 50",
        "+ECCAUSE: \"emm_cause\", 51", "+ECCAUSE: \"emm_cause\", 39", "+ECCAUSE: \"emm_cause\", 54",
};

// Words of the setup answer's opaque area that the test answers set.
constexpr size_t kRespWord176 = 176;
constexpr size_t kRespWord188 = 188;

// One fresh event from `context` to `task_id`.  A send the framework refuses
// leaves the event with us, so it is released here.
void send_one(const char *fn, evfw_context_t *context, uint32_t task_id, uint32_t event_id,
              const void *data, size_t len) {
    evfw_event_t *event = evfw_event_alloc(nullptr);
    if (event == nullptr) {
        DM_LOGE_AS(fn, "%s event alloc fail for event id %u", fn, event_id);
        return;
    }
    if (event_set_id(event, event_id) == 0 || event_set_data(event, 0, data, len) == nullptr) {
        DM_LOGE_AS(fn, "%s event set fail for event id %u", fn, event_id);
        evfw_event_free(event);
        return;
    }
    int ret = evfw_context_common_send(context, event, task_id);
    if (ret < 0) {
        DM_LOGE_AS(fn, "%s send event id %u to task %u fail %d", fn, event_id, task_id, ret);
        evfw_event_free(event);
    }
}

void set_resp_word(SetupDataCallResp &resp, size_t offset, uint32_t value) {
    // The words lie in the answer's opaque area; they are placed by offset.
    memcpy(resp.opaque_176 + (offset - offsetof(SetupDataCallResp, opaque_176)), &value,
           sizeof(value));
}

}  // namespace

int32_t dm_send_req_notification(evfw_context_t *context, const char *name) {
    if (context == nullptr) return 0;
    if (name == nullptr) {
        DM_LOGE("%s NULL name", __func__);
        return 0;
    }
    char payload[kClientNotificationLen] = {};
    memcpy(payload, name, strnlen(name, sizeof(payload) - 1));
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION, payload,
             sizeof(payload));
    return 0;
}

int32_t dm_send_req_setup_data_call(evfw_context_t *context) {
    if (context == nullptr) return 0;
    SetupDataCallReq req = {};
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req,
             sizeof(req));
    req.ims_para_valid = 1;
    req.emergency_ind = 1;
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req,
             sizeof(req));
    req.emergency_ind = 0;
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req,
             sizeof(req));
    return 0;
}

int32_t dm_send_resp_setup_data_call(evfw_context_t *context) {
    if (context == nullptr) return 0;
    // 47876 bytes: built on the stack, as the data manager builds its own
    // synthetic answers.
    SetupDataCallResp resp;
    memset(&resp, 0, sizeof(resp));
    resp.pdp_type = kPdpIpv6;
    set_resp_word(resp, kRespWord188, 1);
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &resp,
             sizeof(resp));

    memset(&resp, 0, sizeof(resp));
    set_resp_word(resp, kRespWord176, 1);
    resp.pdp_type = kPdpIpv4;
    strncpy(resp.ifname, "pdnet3", sizeof(resp.ifname) - 1);
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &resp,
             sizeof(resp));

    memset(&resp, 0, sizeof(resp));
    set_resp_word(resp, kRespWord176, 1);
    set_resp_word(resp, kRespWord188, 1);
    resp.pdp_type = kPdpIpv4v6;
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &resp,
             sizeof(resp));
    return 0;
}

int32_t dm_send_req_radio_power(evfw_context_t *context) {
    if (context == nullptr) return 0;
    WordPair req = {};
    send_one(__func__, context, TASK_DATAMNGR, EVENT_DATAMNGR_RADIO_POWER_REQ, &req, sizeof(req));
    return 0;
}

int32_t dm_send_ho_notify(evfw_context_t *context) {
    if (context == nullptr) return 0;
    HandoverReq req = {};
    req.relayed_1[0] = 1;
    send_one(__func__, context, TASK_DATAMNGR, EVENT_RB_HANDOVER_REQ, &req, sizeof(req));
    return 0;
}

int32_t dm_send_urc(evfw_context_t *context) {
    if (context == nullptr) return 0;
    AtUrc urc;
    for (const char *line : kUrcLines) {
        memset(&urc, 0, sizeof(urc));
        strncpy(urc.text, line, sizeof(urc.text) - 1);
        send_one(__func__, context, TASK_DATAMNGR, EVENT_ATMNGR_URC, &urc, sizeof(urc));
    }
    return 0;
}

int32_t dm_send_req_netlink_listen(evfw_context_t *context) {
    if (context == nullptr) return 0;
    NetlinkListenReq req = {};
    req.type = kNetlinkListenType;
    send_one(__func__, context, TASK_DATAMNGR_AUX, EVENT_DATAMNGR_NETLINK_LISTEN_REQ, &req,
             sizeof(req));
    return 0;
}

// Relayed requests: the requester's record goes to the RIL proxy unchanged,
// and the RIL's answer goes back to the requester the way its registry row
// says.  Main task thread only; the registry is read, not changed.
#include "pdn/relay.h"

#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/task_info.h"
#include "evfw_ids.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

namespace {

int32_t relay(const void *record, uint32_t size, evfw_event_t *event, uint32_t event_id) {
    return dm_req_to_rild(record, size, event, event_id);
}

}  // namespace

int32_t dm_deliver_answer_to(TaskInfo *row, const char *op, const void *record, uint32_t size,
                             evfw_event_t *event, uint32_t event_id) {
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

int32_t dm_deliver_answer(const char *op, const void *record, uint32_t size, evfw_event_t *event,
                          uint32_t event_id) {
    return dm_deliver_answer_to(query_task_info(event), op, record, size, event, event_id);
}

// ---- dedicated bearers ----

int32_t dm_setup_dedicate_data_call_req(const DedicateSetupReq *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ);
}

int32_t dm_setup_dedicate_data_call_resp(const DedicateSetupResp *resp, evfw_event_t *event) {
    TaskInfo *requester = query_task_info(event);
    // The table learns of the bearer whatever the answer says; a cid out of
    // range is reported by the table and the answer still goes out.
    update_pdn_info(&resp->entry, requester);
    return dm_deliver_answer_to(requester, __func__, resp, sizeof(*resp), event,
                                EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP);
}

int32_t dm_modify_data_call_req(const ModifyDataCallReq *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ);
}

int32_t dm_modify_data_call_resp(const ModifyDataCallResp *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP);
}

int32_t dm_deactivate_dedicate_data_call_req(const DedicateDeactReq *req, evfw_event_t *event) {
    // The table forgets the bearer before the RIL confirms.
    clear_pdn_info_by_cid(req->cid);
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ);
}

int32_t dm_deactivate_dedicate_data_call_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP);
}

// ---- setup abort, P-CSCF discovery, last fail cause, data-call list ----

int32_t dm_abort_setup_data_call_req(const AbortSetupReq *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ);
}

int32_t dm_abort_setup_data_call_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP);
}

int32_t dm_pcscf_discovery_pco_req(const PcscfDiscoveryPcoReq *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ);
}

int32_t dm_pcscf_discovery_pco_resp(const PcscfDiscoveryPcoResp *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP);
}

int32_t dm_last_data_call_fail_cause_req(const WordPair *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ);
}

int32_t dm_last_data_call_fail_cause_resp(const LastFailCauseResp *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP);
}

int32_t dm_data_call_list_req(const WordPair *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_DATA_CALL_LIST_REQ);
}

int32_t dm_data_call_list_resp(const DataCallListInd *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_DATA_CALL_LIST_RESP);
}

// ---- radio power and allow-data ----

int32_t dm_radio_power_req(const WordPair *req, evfw_event_t *event) {
    if (req->word0 != 0) {
        // Goes through the data manager's own queue first, as 4033, and is
        // relayed when the dispatcher hands it back.
        return dm_req_to_self(req, sizeof(*req), event, EVENT_DATAMNGR_RADIO_POWER_DO_REQ);
    }
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_RADIO_POWER_REQ);
}

int32_t dm_radio_power_do_req(const WordPair *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_RADIO_POWER_REQ);
}

int32_t dm_radio_power_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event, EVENT_DATAMNGR_RADIO_POWER_RESP);
}

int32_t dm_allow_data_req(const WordPair *req, evfw_event_t *event) {
    return relay(req, sizeof(*req), event, EVENT_DATAMNGR_ALLOW_DATA_REQ);
}

int32_t dm_allow_data_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event, EVENT_DATAMNGR_ALLOW_DATA_RESP);
}

// ---- answers to the teardown requests ----

int32_t dm_deactivate_data_call_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP);
}

int32_t dm_deactivate_data_call_if_resp(const WordPair *resp, evfw_event_t *event) {
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event,
                             EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP);
}

// ---- failure answers ----

int32_t dm_fail_resp(const WordPair *resp, evfw_event_t *event) {
    // The failure carries the id of the request it fails.
    return dm_deliver_answer(__func__, resp, sizeof(*resp), event, event_get_id(event));
}

// What an AT client finally sees: final results to the AT interface's command
// task (7) and unsolicited codes to its URC task (8), all sent from the DATI
// task, and the entry points that turn the answer to an AT-originated request
// into the client's result.
#include <stdio.h>
#include <string.h>

#include "dati/dati.h"
#include "dati/dati_internal.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Dati;

uint32_t data_allow_reply_armed = 1;

namespace {

constexpr char kOkText[] = "\r\nOK\r\n";
constexpr char kErrorText[] = "\r\nERROR\r\n";
constexpr uint32_t kLowByte = 0xFFu;

}  // namespace

void dati::replies_reset() {
    data_allow_reply_armed = 1;
}

int32_t dati_dummy_resp(void *, evfw_event_t *template_event, int32_t ok) {
    evfw_event_t *event = evfw_event_alloc(template_event);
    if (event == nullptr) {
        DATI_LOGE("dati_dummy_resp(): no event for the answer!!");
        return -1;
    }
    event_set_id(event, EVENT_DATAMNGR_ATCMD_RESP);
    AtCmdResp resp = {};
    const char *text = ok != 0 ? kOkText : kErrorText;
    dati::copy_bounded(resp.text, sizeof(resp.text), text, strlen(text));
    event_set_data(event, 0, &resp, sizeof(resp));

    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_dummy_resp(): dm_entity_priv = NULL!!");
        evfw_event_free(event);
        return 0;
    }
    dati::send_from_dati(entity, event, TASK_ATI_ATC);
    DATI_LOGI("dati_dummy_resp() sent event %s(%d) to %s(%d)", "EVENT_DATAMNGR_ATCMD_RESP",
              EVENT_DATAMNGR_ATCMD_RESP, "TASK_ATI_ATC", TASK_ATI_ATC);
    return 0;
}

int32_t dati_dummy_urc(void *, const char *text, int32_t kind) {
    evfw_event_t *event = evfw_event_alloc(nullptr);
    if (event == nullptr) {
        DATI_LOGE("dati_dummy_urc(): no event for the URC!!");
        return -1;
    }
    event_set_id(event, kind == 0 ? EVENT_ATI_URC_FORGED : EVENT_ATI_URC);
    AtUrc urc = {};
    if (text != nullptr) dati::copy_bounded(urc.text, sizeof(urc.text), text, strlen(text));
    event_set_data(event, 0, &urc, sizeof(urc));

    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_dummy_urc(): dm_entity_priv = NULL!!");
        evfw_event_free(event);
        return 0;
    }
    dati::send_from_dati(entity, event, TASK_ATI_URC);
    return 0;
}

int32_t dati_bypass_query_hdl(const DatiAtcEntry *, char *text, evfw_event_t **held) {
    if (held == nullptr || *held == nullptr) return 0;
    if (text == nullptr) {
        DATI_LOGE("dati_bypass_query_hdl(): no AT Cmd to redirect!!");
        dati::release_held(held);
        return 0;
    }
    event_set_id(*held, EVENT_ATI_ATCMD_FWD);
    event_set_data(*held, 0, text, strlen(text) + 1);
    size_t len = 0;
    DATI_LOGI("dati_bypass_query_hdl(): redirecting AT Cmd = \"%s\" to Modem Manager through ATI",
              static_cast<const char *>(event_get_data(*held, 0, &len)));
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_bypass_query_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }
    dati::send_from_dati(entity, *held, TASK_ATI_ATC);
    *held = nullptr;
    return 0;
}

int32_t dati_setup_data_call_resp(const SetupDataCallResp *resp, evfw_event_t *template_event) {
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_setup_data_call_resp(): dm_entity_priv = NULL!!");
        return -1;
    }
    if (resp == nullptr) {
        DATI_LOGE("dati_setup_data_call_resp(): no response!!");
        return -1;
    }
    evfw_event_t *event = evfw_event_alloc(template_event);
    if (event == nullptr) {
        DATI_LOGE("dati_setup_data_call_resp(): no event for the answer!!");
        return -1;
    }
    event_set_id(event, EVENT_DATAMNGR_ATCMD_RESP);
    AtCmdResp reply = {};
    snprintf(reply.text, sizeof(reply.text), "\r\n+CGEV: ME PDN ACT %d\r\n\r\nOK\r\n",
             static_cast<int>(resp->interface_id));
    event_set_data(event, 0, &reply, sizeof(reply));
    dati::send_from_dati(entity, event, TASK_ATI_ATC);
    DATI_LOGI("dati_setup_data_call_resp() sent event %s(%d) to %s(%d)",
              "EVENT_DATAMNGR_ATCMD_RESP", EVENT_DATAMNGR_ATCMD_RESP, "TASK_ATI_ATC", TASK_ATI_ATC);
    return 0;
}

int32_t dati_deactivate_data_call_resp(const WordPair *, evfw_event_t *template_event) {
    DATI_LOGD("dati_deactivate_data_call_resp(): call dati_dummy_resp()!!");
    return dati_dummy_resp(nullptr, template_event, 1);
}

int32_t dati_deactivate_data_call_if_resp(const WordPair *, evfw_event_t *template_event) {
    DATI_LOGD("dati_deactivate_data_call_if_resp(): call dati_dummy_resp()!!");
    return dati_dummy_resp(nullptr, template_event, 1);
}

int32_t dati_radio_power_resp(const WordPair *, evfw_event_t *template_event) {
    DATI_LOGD("dati_radio_power_resp(): call dati_dummy_resp()!!");
    return dati_dummy_resp(nullptr, template_event, 1);
}

int32_t dati_fail_resp(const WordPair *, evfw_event_t *template_event) {
    // The text names the setup answer: the failure of a setup is what it reports.
    DATI_LOGD("dati_setup_data_call_resp(): call dati_dummy_resp()!!");
    return dati_dummy_resp(nullptr, template_event, 0);
}

int32_t dati_allow_data_resp(const WordPair *, evfw_event_t *template_event) {
    DATI_LOGD("dati_allow_data_resp(): call dati_dummy_resp()!!");
    if ((data_allow_reply_armed & 1u) != 0) return dati_dummy_resp(nullptr, template_event, 1);
    // AT+CFUN disarmed the flag: its radio-power answer gives the one result.
    data_allow_reply_armed = (data_allow_reply_armed & ~kLowByte) | 1u;
    return 0;
}

int32_t dati_setup_dedicate_data_call_resp(const DedicateSetupResp *, evfw_event_t *) {
    DATI_LOGD("dati_setup_dedicate_data_call_resp(): in and out!!");
    return 0;
}

int32_t dati_modify_data_call_resp(const ModifyDataCallResp *, evfw_event_t *) {
    DATI_LOGD("dati_modify_data_call_resp(): in and out!!");
    return 0;
}

int32_t dati_deactivate_dedicate_data_call_resp(const WordPair *, evfw_event_t *) {
    DATI_LOGD("dati_deactivate_dedicate_data_call_resp(): in and out!!");
    return 0;
}

int32_t dati_abort_setup_data_call_resp(const WordPair *, evfw_event_t *) {
    DATI_LOGD("dati_abort_setup_data_call_resp(): in and out!!");
    return 0;
}

int32_t dati_pcscf_discovery_pco_resp(const PcscfDiscoveryPcoResp *, evfw_event_t *) {
    DATI_LOGD("dati_pcscf_discovery_pco_resp(): in and out!!");
    return 0;
}

int32_t dati_last_data_call_fail_cause_resp(const LastFailCauseResp *, evfw_event_t *) {
    DATI_LOGD("dati_last_data_call_fail_cause_resp(): in and out!!");
    return 0;
}

int32_t dati_data_call_list_resp(const DataCallListInd *, evfw_event_t *) {
    DATI_LOGD("dati_data_call_list_resp(): in and out!!");
    return 0;
}

int32_t dati_data_call_list_changed_urc(const DataCallListInd *, evfw_event_t *) {
    DATI_LOGD("dati_data_call_list_changed_urc(): in and out!!");
    return 0;
}

int32_t dati_dedicate_bearer_activated_urc(const DedicateBearerInd *, evfw_event_t *) {
    DATI_LOGD("dati_dedicate_bearer_activated_urc(): in and out!!");
    return 0;
}

int32_t dati_dedicate_bearer_modified_urc(const DedicateBearerInd *, evfw_event_t *) {
    DATI_LOGD("dati_dedicate_bearer_modified_urc(): in and out!!");
    return 0;
}

int32_t dati_dedicate_bearer_deactivated_urc(const DedicateBearerDeactInd *, evfw_event_t *) {
    DATI_LOGD("dati_dedicate_bearer_deactivated_urc(): in and out!!");
    return 0;
}

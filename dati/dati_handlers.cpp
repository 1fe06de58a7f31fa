// The handlers of the AT command table: each parses its parameters with
// atctok and either answers the AT client at once or turns the command into
// the data manager's own request, whose answer later gives the client its
// result.  They run on the DATI task's thread; the AT PDP context table is
// shared with the entity's start and stop and is touched only under the
// entity lock.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "dati/dati.h"
#include "dati/dati_internal.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Dati;

namespace {

// AT+CGDCONT defines one context only: always this row, on this interface.
constexpr int kAtContextRow = 1;
constexpr uint32_t kAtContextInterface = 1;

constexpr uint32_t kLowByte = 0xFFu;
constexpr size_t kDeactReplyMax = 256;  // the +CGEV text of a deactivation
constexpr size_t kForgedUrcMax = 256;

constexpr char kCgactQueryAnswer[] =
        "\r\n+CGACT: 0, 0\r\n+CGACT: 1, 0\r\n+CGACT: 2, 0\r\n+CGACT: 3, 0\r\n+CGACT: 4, 0\r\n"
        "+CGACT: 5, 0\r\n+CGACT: 6, 0\r\n+CGACT: 7, 0\r\n+CGACT: 8, 0\r\n+CGACT: 9, 0\r\n"
        "+CGACT: 10, 0\r\n\r\nOK\r\n";
constexpr char kModemCgactQuery[] = "AT+CGACT?\r\n";

struct PdpTypeName {
    const char *text;  // with its double quotes
    uint32_t type;
};
constexpr PdpTypeName kPdpTypes[] = {
        {"\"IPV4V6\"", kPdpIpv4v6},
        {"\"IPV6\"", kPdpIpv6},
        {"\"IPV4\"", kPdpIpv4},
        {"\"IP\"", kPdpIpv4},
};

const char *param_name(const DatiAtcEntry *row, int index) {
    if (row == nullptr || row->param_names == nullptr || index >= row->param_count) return "?";
    return row->param_names[index];
}

// Answers "OK" or "ERROR" and ends the command.
int32_t answer(evfw_event_t **held, int32_t ok) {
    dati_dummy_resp(nullptr, *held, ok);
    dati::release_held(held);
    return 0;
}

bool held_ready(evfw_event_t **held) {
    return held != nullptr && *held != nullptr;
}

void lock(DatamngrEntity *entity) {
    dm_entity_lock(entity);
}
void unlock(DatamngrEntity *entity) {
    dm_entity_unlock(entity);
}

}  // namespace

int32_t dati_cfun_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *token = atctok(params, &save);
    if (token == nullptr) {
        DATI_LOGD("dati_cfun_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    if (dati::token_present(token)) {
        DATI_LOGD("dati_cfun_assign_hdl(): %s = %s", param_name(row, 0), token);
    }
    int32_t fun = dati::value_of(token);

    event_set_id(*held, EVENT_DATAMNGR_ALLOW_DATA_REQ);
    WordPair allow = {fun == 1 || fun == 4 ? 1u : 0u, 0};
    // The allow-data answer then only re-arms the flag: the radio-power
    // answer gives the client its one result.
    data_allow_reply_armed &= ~kLowByte;
    dm_allow_data_req(&allow, *held);
    DATI_LOGI("dati_cfun_assign_hdl(): sent  AT command by dm_allow_data_req()!!");

    event_set_id(*held, EVENT_DATAMNGR_RADIO_POWER_REQ);
    WordPair power = {static_cast<uint32_t>(fun), 0};
    dm_radio_power_req(&power, *held);
    DATI_LOGI("dati_cfun_assign_hdl(): sent  AT command by dm_radio_power_req()!!");
    dati::release_held(held);
    return 0;
}

int32_t dati_efun_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *token = atctok(params, &save);
    if (token == nullptr) {
        DATI_LOGD("dati_efun_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    if (dati::token_present(token)) {
        DATI_LOGD("dati_efun_assign_hdl(): %s = %s", param_name(row, 0), token);
    }
    int32_t fun = dati::value_of(token);

    event_set_id(*held, EVENT_DATAMNGR_RADIO_POWER_REQ);
    WordPair power = {static_cast<uint32_t>(fun), 0};
    dm_radio_power_req(&power, *held);
    DATI_LOGI("dati_efun_assign_hdl(): sent  AT command by dm_radio_power_req()!!");
    dati::release_held(held);
    return 0;
}

int32_t dati_egtype_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *token = atctok(params, &save);
    if (token == nullptr) {
        DATI_LOGD("dati_egtype_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    if (dati::token_present(token)) {
        DATI_LOGD("dati_egtype_assign_hdl(): %s = %s", param_name(row, 0), token);
    }
    int32_t type = dati::value_of(token);

    event_set_id(*held, EVENT_DATAMNGR_ALLOW_DATA_REQ);
    WordPair allow = {type == 1 || type == 4 ? 1u : 0u, 0};
    dm_allow_data_req(&allow, *held);
    DATI_LOGI("dati_egtype_assign_hdl(): sent  AT command by dm_allow_data_req()!!");
    dati::release_held(held);
    return 0;
}

int32_t dati_cgdcont_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *token = atctok(params, &save);
    if (!dati::token_present(token)) {
        DATI_LOGD("dati_cgdcont_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    DATI_LOGD("dati_cgdcont_assign_hdl(): %s = %s", param_name(row, 0), token);
    int32_t cid = dati::value_of(token);

    token = atctok(nullptr, &save);
    if (!dati::token_present(token)) {
        DATI_LOGD("dati_cgdcont_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    DATI_LOGD("dati_cgdcont_assign_hdl(): %s = %s", param_name(row, 1), token);
    const PdpTypeName *pdp = nullptr;
    for (const PdpTypeName &candidate : kPdpTypes) {
        if (strcasecmp(token, candidate.text) == 0) {
            pdp = &candidate;
            break;
        }
    }
    if (pdp == nullptr) {
        DATI_LOGE("dati_cgdcont_assign_hdl(): Unsupported IP version %s!!", token);
        return answer(held, 0);
    }

    token = atctok(nullptr, &save);
    if (!dati::token_present(token)) {
        DATI_LOGD("dati_cgdcont_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    // The APN loses its first character only (the opening quote); the
    // closing quote stays in the stored APN.
    const char *apn = token + 1;
    DATI_LOGD("dati_cgdcont_assign_hdl(): %s = %s", param_name(row, 2), apn);

    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_cgdcont_assign_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }
    lock(entity);
    AtPdpContext &ctx = entity->at_pdp_ctx[kAtContextRow];
    ctx.cid = cid;
    memset(&ctx.setup_req, 0, sizeof(ctx.setup_req));
    ctx.setup_req.interface_id = kAtContextInterface;
    ctx.setup_req.ip_type = pdp->type;
    dati::copy_bounded(ctx.setup_req.apn, sizeof(ctx.setup_req.apn), apn, strlen(apn));
    memset(&ctx.deact_req, 0, sizeof(ctx.deact_req));
    ctx.deact_req.id = kAtContextInterface - 1;  // the interface's index
    unlock(entity);

    DATI_LOGE("dati_cgdcont_assign_hdl(): registered at interface ID %d with CID %d",
              static_cast<int>(kAtContextInterface), cid);
    return answer(held, 1);
}

int32_t dati_cgact_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *state_token = atctok(params, &save);
    if (dati::token_present(state_token)) {
        DATI_LOGD("dati_cgact_assign_hdl(): %s = %s", param_name(row, 0), state_token);
    }
    char *cid_token = state_token != nullptr ? atctok(nullptr, &save) : nullptr;
    if (dati::token_present(cid_token)) {
        DATI_LOGD("dati_cgact_assign_hdl(): %s = %s", param_name(row, 1), cid_token);
    }
    if (!dati::token_present(state_token) || !dati::token_present(cid_token)) {
        DATI_LOGD("dati_cgact_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_cgact_assign_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }

    int32_t state = dati::value_of(state_token);
    int64_t index = kAtPdpContexts;
    if (state == 1) {
        // Activation finds the row by its CID ...
        int32_t cid = dati::value_of(cid_token);
        lock(entity);
        for (int i = 0; i < kAtPdpContexts; ++i) {
            if (entity->at_pdp_ctx[i].cid == cid) {
                index = i;
                break;
            }
        }
        unlock(entity);
    } else if (state == 0) {
        // ... while deactivation addresses the row after the CID.
        index = static_cast<int64_t>(dati::value_of(cid_token)) + 1;
    } else {
        DATI_LOGD("dati_cgact_assign_hdl(): A wrong state!!");
        return answer(held, 0);
    }

    bool matched = false;
    if (index >= 0 && index < kAtPdpContexts) {
        lock(entity);
        matched = entity->at_pdp_ctx[index].cid >= 0;
        unlock(entity);
    }
    if (!matched) {
        DATI_LOGE("dati_cgact_assign_hdl(): no matched interface ID");
        return answer(held, 0);
    }

    AtPdpContext &ctx = entity->at_pdp_ctx[index];
    event_set_id(*held, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    if (state == 1) {
        DATI_LOGI("dati_cgact_assign_hdl(): sent AT command by dm_setup_data_call_req()!!");
        lock(entity);
        ctx.state = 1;
        dm_setup_data_call_req(&ctx.setup_req, *held);
        unlock(entity);
        // dati_setup_data_call_resp answers when the setup's answer comes.
    } else {
        DATI_LOGI(
                "dati_cgact_assign_hdl(): sent AT command by "
                "dm_deactivate_data_call_if_req()!!");
        lock(entity);
        ctx.state = 0;
        dm_deactivate_data_call_if_req(&ctx.deact_req, *held);
        unlock(entity);

        evfw_event_t *reply = evfw_event_alloc(*held);
        if (reply == nullptr) {
            DATI_LOGE("dati_cgact_assign_hdl(): no event for the answer!!");
        } else {
            event_set_id(reply, EVENT_DATAMNGR_ATCMD_RESP);
            AtCmdResp resp = {};
            snprintf(resp.text, kDeactReplyMax, "\r\n+CGEV: ME PDN DEACT %d\r\n\r\nOK\r\n",
                     static_cast<int>(index - 1));
            event_set_data(reply, 0, &resp, sizeof(resp));
            if (DatamngrEntity *sender = dati::module_entity(); sender != nullptr) {
                dati::send_from_dati(sender, reply, TASK_ATI_ATC);
            } else {
                DATI_LOGE("dati_cgact_assign_hdl(): dm_entity_priv = NULL!!");
                evfw_event_free(reply);
            }
        }
    }
    // One release more than was acquired, kept in this order: the
    // framework's mutex refuses a release by a thread that does not hold it
    // and changes nothing.
    unlock(entity);
    dati::release_held(held);
    return 0;
}

int32_t dati_cgact_query_hdl(const DatiAtcEntry *, char *, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    // Every CID reads as inactive, whatever the modem holds.
    event_set_id(*held, EVENT_DATAMNGR_ATCMD_RESP);
    AtCmdResp resp = {};
    dati::copy_bounded(resp.text, sizeof(resp.text), kCgactQueryAnswer, sizeof(kCgactQueryAnswer));
    DATI_LOGI("dati_cgact_query_hdl(): redirecting AT Cmd = \"%s\" to Modem Manager through ATI",
              resp.text);
    event_set_data(*held, 0, &resp, sizeof(resp));
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_cgact_query_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }
    dati::send_from_dati(entity, *held, TASK_ATI_ATC);
    *held = nullptr;
    return 0;
}

int32_t dati_vzwact_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    char *save = nullptr;
    char *token = atctok(params, &save);
    if (dati::token_present(token)) {
        DATI_LOGD("dati_vzwact_assign_hdl(): %s = %s", param_name(row, 0), token);
        (void)dati::value_of(token);  // the state is read but decides nothing
        token = atctok(nullptr, &save);
        if (dati::token_present(token)) {
            DATI_LOGD("dati_vzwact_assign_hdl(): %s = %s", param_name(row, 1), token + 1);
        }
    }
    if (token == nullptr) {
        DATI_LOGD("dati_vzwact_assign_hdl(): atctok() error!!");
        return answer(held, 0);
    }
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_vzwact_assign_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }
    // The command never starts or stops a data call: it answers "ERROR",
    // keeps the entity lock and leaves its held event in the slot, which the
    // next AT command overwrites.
    event_set_id(*held, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    lock(entity);
    dati_dummy_resp(nullptr, *held, 0);
    return 0;
}

int32_t dati_vzwact_query_hdl(const DatiAtcEntry *, char *, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    // Answered by the modem's own AT+CGACT?.
    event_set_id(*held, EVENT_ATI_ATCMD_FWD);
    event_set_data(*held, 0, kModemCgactQuery, sizeof(kModemCgactQuery));
    DATI_LOGI("dati_vzwact_query_hdl(): redirecting AT Cmd = \"%s\" to Modem Manager through ATI",
              kModemCgactQuery);
    DatamngrEntity *entity = dati::module_entity();
    if (entity == nullptr) {
        DATI_LOGE("dati_vzwact_query_hdl(): dm_entity_priv = NULL!!");
        dati::release_held(held);
        return 0;
    }
    dati::send_from_dati(entity, *held, TASK_ATI_ATC);
    *held = nullptr;
    return 0;
}

int32_t dati_forge_urc_assign_hdl(const DatiAtcEntry *, char *params, evfw_event_t **held) {
    if (!held_ready(held)) return 0;
    dati_dummy_resp(nullptr, *held, 1);
    if (params != nullptr) {
        // The content is not tokenised: only its double quotes go, and the
        // line's final carriage return stays.
        char *out = params;
        for (const char *in = params; *in != '\0'; ++in) {
            if (*in != '"') *out++ = *in;
        }
        *out = '\0';
    }
    dm_forge_urc_hdl(params, *held);
    dati::release_held(held);
    return 0;
}

int32_t dm_forge_urc_hdl(char *content, evfw_event_t *) {
    char text[kForgedUrcMax] = {};
    snprintf(text, sizeof(text), "\r\n%s\r\n", content != nullptr ? content : "");
    dati_dummy_urc(nullptr, text, 0);
    return 0;
}

// The data manager's side of the modem's AT manager: AT commands sent to the
// modem (directly or posted to the main task itself), their answers, and the
// modem URCs the main task subscribed to.  A "+CGEV" URC that reports a PDN
// deactivation clears the PDN row and tells RB; every other "+CGEV" URC is
// passed on to the AT clients.  Runs on the main task's thread.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "dati/dati.h"
#include "dati/dati_internal.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/operator_hooks.h"
#include "entity/urc_table.h"
#include "evfw_ids.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Dati;

int32_t atcmd_pending = 0;

namespace {

// One self-triggered command, from its post until its answer.  The request's
// cookie is the context's address; the AT manager echoes it in the answer.
struct SelfTriggerCtx {
    int32_t state;  // 1 waiting for the answer, 0 done
    AtCmdReq req;
    SelfTriggerCtx *next;  // contexts handed out and not yet released
};

constexpr int32_t kWaiting = 1;
constexpr int32_t kDone = 0;
constexpr size_t kSelfTriggerTextLen = 511;  // at most 510 characters

// An answer's cookie is only looked up here, never followed, until it is
// found among the contexts this module handed out: the AT manager's answer
// could carry anything.  The list and atcmd_pending are shared with the
// exported self-trigger entry points, which other threads may call.
std::mutex g_ctx_mutex;
SelfTriggerCtx *g_contexts = nullptr;

SelfTriggerCtx *find_context_locked(uint64_t cookie) {
    for (SelfTriggerCtx *ctx = g_contexts; ctx != nullptr; ctx = ctx->next) {
        if (reinterpret_cast<uintptr_t>(ctx) == cookie) return ctx;
    }
    return nullptr;
}

void unlink_context_locked(SelfTriggerCtx *ctx) {
    for (SelfTriggerCtx **link = &g_contexts; *link != nullptr; link = &(*link)->next) {
        if (*link == ctx) {
            *link = ctx->next;
            return;
        }
    }
}

void post_self_trigger(const char *caller, const char *command, uint32_t event_id) {
    auto *ctx = static_cast<SelfTriggerCtx *>(calloc(1, sizeof(SelfTriggerCtx)));
    if (ctx == nullptr) {
        DM_LOGE_AS(caller, "%s no memory for %s", caller, command != nullptr ? command : "");
        return;
    }
    ctx->state = kWaiting;
    ctx->req.cookie = reinterpret_cast<uintptr_t>(ctx);
    ctx->req.kind = kAtCmdKindSelfTriggered;
    snprintf(ctx->req.text, kSelfTriggerTextLen, "%s", command != nullptr ? command : "");
    int32_t pending;
    {
        std::lock_guard<std::mutex> guard(g_ctx_mutex);
        ctx->next = g_contexts;
        g_contexts = ctx;
        pending = ++atcmd_pending;
    }
    DM_LOGI_AS(caller, "%s %s\b\b priv %p pending %d", caller, command != nullptr ? command : "",
               static_cast<void *>(ctx), pending);
    // The request comes back through the dispatcher; the context stays until
    // its answer.
    if (dm_req_to_self(&ctx->req, sizeof(ctx->req), nullptr, event_id) < 0) {
        // Nothing can answer a command that was never posted.
        {
            std::lock_guard<std::mutex> guard(g_ctx_mutex);
            unlink_context_locked(ctx);
            --atcmd_pending;
        }
        DM_LOGE_AS(caller, "%s post failed, priv %p released", caller, static_cast<void *>(ctx));
        free(ctx);
    }
}

int32_t send_atcmd(const char *caller, const AtCmdReq *req, uint32_t task_id) {
    if (req == nullptr) {
        DM_LOGE_AS(caller, "%s no AT command", caller);
        return -1;
    }
    char text[sizeof(req->text) + 1];
    dati::copy_bounded(text, sizeof(text), req->text, sizeof(req->text));
    DM_LOGI_AS(caller, "%s %s", caller, text);
    return dm_send_to_task_wait_for_event(task_id, req, sizeof(*req), nullptr,
                                          EVENT_ATMNGR_ATCMD_REQ, EVENT_ATMNGR_ATCMD_RESP);
}

void deact_ind_to_rb(const char *caller, uint32_t interface_id, uint32_t sim, evfw_event_t *event) {
    DeactDataCallInd ind = {};
    ind.interface_id = interface_id;
    ind.sim_id = static_cast<uint8_t>(sim);
    DM_LOGI_AS(caller, "%s DEACT DATA CALL IND to RB %d for interface id %d", caller,
               EVENT_RB_DEACT_DATA_CALL_IND, static_cast<int>(interface_id));
    dm_send_to_rb(&ind, sizeof(ind), event, EVENT_RB_DEACT_DATA_CALL_IND, sim);
}

}  // namespace

void dati::modem_at_reset() {
    std::lock_guard<std::mutex> guard(g_ctx_mutex);
    while (g_contexts != nullptr) {
        SelfTriggerCtx *ctx = g_contexts;
        g_contexts = ctx->next;
        free(ctx);
    }
    atcmd_pending = 0;
}

size_t dati_atcmd_contexts_alive() {
    std::lock_guard<std::mutex> guard(g_ctx_mutex);
    size_t n = 0;
    for (SelfTriggerCtx *ctx = g_contexts; ctx != nullptr; ctx = ctx->next) ++n;
    return n;
}

int32_t dm_atcmd_req(const AtCmdReq *req, evfw_event_t *) {
    return send_atcmd(__func__, req, TASK_ATMNGR);
}

int32_t dm_atcmd_c2k_req(const AtCmdReq *req, evfw_event_t *) {
    return send_atcmd(__func__, req, TASK_ATMNGR_C2K);
}

void self_trigger_atcmd_req(const char *command) {
    post_self_trigger(__func__, command, EVENT_ATMNGR_ATCMD_REQ);
}

// The dispatcher has no row for this event id and drops it as a message of
// invalid length: the context and its pending count are never released.
void self_trigger_c2k_atcmd_req(const char *command) {
    post_self_trigger(__func__, command, EVENT_ATMNGR_C2K_ATCMD_REQ);
}

int32_t dm_atcmd_resp(const AtCmdResp *resp, evfw_event_t *) {
    if (resp == nullptr) {
        DM_LOGE("%s no response", __func__);
        return -1;
    }
    char text[kAtTextLen + 1];
    dati::copy_bounded(text, sizeof(text), resp->text, sizeof(resp->text));

    // Only contexts that wait for their answer are listed: one answered
    // already is gone, and its cookie is unknown like any other.
    SelfTriggerCtx *ctx;
    int32_t pending = 0;
    {
        std::lock_guard<std::mutex> guard(g_ctx_mutex);
        ctx = find_context_locked(resp->cookie);
        if (ctx != nullptr) {
            pending = --atcmd_pending;
            ctx->state = kDone;
            unlink_context_locked(ctx);
        }
    }
    if (ctx == nullptr) {
        DM_LOGE("%s unknown cookie 0x%llx for resp result %d data %s", __func__,
                static_cast<unsigned long long>(resp->cookie), static_cast<int>(resp->result),
                text);
        return -1;
    }
    DM_LOGI("%s res:%u %s\b\b from %s\b\b priv %p pending %u", __func__, resp->result, text,
            ctx->req.text, static_cast<void *>(ctx), static_cast<unsigned>(pending));
    free(ctx);
    return 0;
}

int32_t dm_atcmd_urc(const AtUrc *urc, evfw_event_t *event) {
    const OperatorHooks *hooks = dm_get_operator_hooks();
    if (urc == nullptr) {
        DM_LOGE("%s no URC", __func__);
        return 0;
    }
    // The modem's text need not end inside its field.
    char text[kAtTextLen + 1];
    dati::copy_bounded(text, sizeof(text), urc->text, sizeof(urc->text));
    DM_LOGI("%s %s sim %d", __func__, text, static_cast<int>(urc->sim));
    if (hooks != nullptr && hooks->urc != nullptr) hooks->urc(text, urc->kind, urc->sim, event);
    dm_handle_default_urc(text, urc->kind, urc->sim, event);
    return 0;
}

int32_t dm_handle_default_urc(char *text, uint32_t kind, uint32_t sim, evfw_event_t *event) {
    char *start = text != nullptr ? strchr(text, '+') : nullptr;
    if (start == nullptr) {
        DM_LOGE("%s starting point not found %s", __func__, text != nullptr ? text : "");
        return -1;
    }
    for (const DefaultUrcEntry &row : kDefaultUrcTable) {
        if (strncmp(start, row.prefix, strlen(row.prefix)) == 0) {
            return row.handler(start, kind, sim, event);
        }
    }
    DM_LOGI("%s unknown urc %s", __func__, text);
    return -1;
}

int32_t default_urc_cgev(char *text, uint32_t kind, uint32_t sim, evfw_event_t *event) {
    if (text == nullptr) return -1;
    if (strstr(text, "DEACT") == nullptr) {
        DM_LOGI("%s bypass URC %s", __func__, text);
        dati_dummy_urc(nullptr, text, 1);
        return 0;
    }
    // Deactivations are never passed on to the AT clients.
    DM_LOGI("%s filter URC %s", __func__, text);
    const bool pdn = strstr(text, "PDN ") != nullptr;
    if (pdn && strstr(text, "NW ") != nullptr) {
        return default_urc_cgev_nw_deact(text, kind, sim, event);
    }
    if (pdn && strstr(text, "ME ") != nullptr) {
        return default_urc_cgev_me_deact(text, kind, sim, event);
    }
    // The form without "PDN " (PDP type, address and CID) is swallowed.
    return 0;
}

namespace {

// The CID of a deactivation URC: the number after the first blank that
// follows "DEACT" (+CGEV: NW PDN DEACT <cid>).  false when there is none.
bool deact_cid(const char *op, char *text, int32_t *cid) {
    const char *deact = text != nullptr ? strstr(text, "DEACT") : nullptr;
    if (deact == nullptr) return false;
    const char *blank = strchr(deact, ' ');
    if (blank == nullptr) {
        DM_LOGE_AS(op, "%s no cid in URC %s", op, text);
        return false;
    }
    *cid = dati::value_of(blank + 1);
    return true;
}

}  // namespace

int32_t default_urc_cgev_nw_deact(char *text, uint32_t, uint32_t sim, evfw_event_t *event) {
    int32_t cid;
    if (!deact_cid(__func__, text, &cid)) return -1;
    PdnInfo *pdn = find_pdn_info_by_cid(cid);
    if (pdn == nullptr) {
        DM_LOGE("%s cid %d pdn not found", __func__, cid);
        return 0;
    }
    uint32_t interface_id = pdn->interface_id;
    deact_ind_to_rb(__func__, interface_id, sim, event);
    if (interface_id == kImsInterface || interface_id == kEmergencyImsInterface) {
        // Only noted: the network's deactivation of an IMS PDN is handled
        // like any other.
        DM_LOGD("%s IMS cid %d skip default bearer NW disconn notify ", __func__, cid);
    }
    const OperatorHooks *hooks = dm_get_operator_hooks();
    if (hooks != nullptr && hooks->nw_deactivate != nullptr) {
        hooks->nw_deactivate(cid, interface_id, 0);
    }
    clear_pdn_info_by_cid(static_cast<uint32_t>(cid));
    return 0;
}

int32_t default_urc_cgev_me_deact(char *text, uint32_t, uint32_t sim, evfw_event_t *event) {
    int32_t cid;
    if (!deact_cid(__func__, text, &cid)) return -1;
    PdnInfo *pdn = find_pdn_info_by_cid(cid);
    if (pdn == nullptr) return 0;
    deact_ind_to_rb(__func__, pdn->interface_id, sim, event);
    clear_pdn_info_by_cid(static_cast<uint32_t>(cid));
    return 0;
}

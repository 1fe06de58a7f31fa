// The AT command front end (task 403, DATI) and the data manager's side of
// the modem's AT manager: the AT command table, the AT records and the
// handlers, replies and URC filters.
#ifndef DATI_H
#define DATI_H

#include <stddef.h>
#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"
#include "pdn/pdn_records.h"

constexpr size_t kAtTextLen = 4096;

// AT command for the modem's AT manager (3002).
struct AtCmdReq {
    uint64_t cookie;  // requester's, returned unchanged in the answer
    uint32_t kind;    // 5 for self-triggered commands
    uint8_t zero[24];
    char text[516];  // NUL-terminated
};
static_assert(sizeof(AtCmdReq) == 552);
static_assert(offsetof(AtCmdReq, kind) == 8);
static_assert(offsetof(AtCmdReq, zero) == 12);
static_assert(offsetof(AtCmdReq, text) == 36);

constexpr uint32_t kAtCmdKindSelfTriggered = 5;

// Final result for an AT client (4066), and the AT manager's answer (3004).
struct AtCmdResp {
    uint64_t cookie;
    uint8_t unused[8];
    uint32_t result;
    char text[kAtTextLen];  // NUL-terminated
    uint8_t pad[4];
};
static_assert(sizeof(AtCmdResp) == 4120);
static_assert(offsetof(AtCmdResp, unused) == 8);
static_assert(offsetof(AtCmdResp, result) == 16);
static_assert(offsetof(AtCmdResp, text) == 20);
static_assert(offsetof(AtCmdResp, pad) == 4116);

// Unsolicited result code: to the AT clients (18, 21), from the modem (3006).
struct AtUrc {
    uint32_t word0;
    uint32_t kind;
    uint32_t sim;
    char text[kAtTextLen];  // NUL-terminated
};
static_assert(sizeof(AtUrc) == 4108);
static_assert(offsetof(AtUrc, kind) == 4);
static_assert(offsetof(AtUrc, sim) == 8);
static_assert(offsetof(AtUrc, text) == 12);

// A PDP context defined by AT+CGDCONT (16 rows in the entity's state).
struct AtPdpContext {
    int32_t state;  // 1 activation sent, 0 deactivation sent, -1 never used
    int32_t cid;    // -1 when not registered
    SetupDataCallReq setup_req;
    DeactivateReq deact_req;
};

constexpr int kAtPdpContexts = 16;

// Deactivation notice to RB (9317).
struct DeactDataCallInd {
    uint32_t interface_id;
    uint32_t reserved;
    uint8_t sim_id;
    uint8_t zero[3];
};
static_assert(sizeof(DeactDataCallInd) == 12);
static_assert(offsetof(DeactDataCallInd, sim_id) == 8);

// A row of the AT command table.
struct DatiAtcEntry;
typedef int32_t (*dati_atc_hdl_t)(const DatiAtcEntry *row, char *params, evfw_event_t **held);
struct DatiAtcEntry {
    DM_PTR_SLOT(const char *, command);  // with the "AT" prefix
    int32_t param_count;
    DM_PTR_SLOT(const char *const *, param_names);
    DM_PTR_SLOT(dati_atc_hdl_t, assign_hdl);  // "=" form, or none
    DM_PTR_SLOT(dati_atc_hdl_t, query_hdl);   // "?" form, or none
};
static_assert(sizeof(DatiAtcEntry) == 40);
static_assert(offsetof(DatiAtcEntry, param_names) == 16);
static_assert(offsetof(DatiAtcEntry, query_hdl) == 32);

constexpr int kDatiAtcRows = 7;

// The URC table that the main task subscribes to at start.
typedef int32_t (*dm_urc_hdl_t)(char *text, uint32_t kind, uint32_t sim, evfw_event_t *event);

extern "C" {

DM_EXPORT extern const DatiAtcEntry dati_atc_tbl[kDatiAtcRows];

// ---- AT command interface task ----
DM_EXPORT int datamngr_dati_task_hdl(evfw_context_t *context, evfw_event_t *event,
                                     void *entity_priv);
DM_EXPORT char *atctok(char *text, char **save);

// ---- handlers ----
DM_EXPORT int32_t dati_vzwact_assign_hdl(const DatiAtcEntry *row, char *params,
                                         evfw_event_t **held);
DM_EXPORT int32_t dati_vzwact_query_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dati_cfun_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dati_efun_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dati_egtype_assign_hdl(const DatiAtcEntry *row, char *params,
                                         evfw_event_t **held);
DM_EXPORT int32_t dati_cgdcont_assign_hdl(const DatiAtcEntry *row, char *params,
                                          evfw_event_t **held);
DM_EXPORT int32_t dati_cgact_assign_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dati_cgact_query_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dati_forge_urc_assign_hdl(const DatiAtcEntry *row, char *params,
                                            evfw_event_t **held);
DM_EXPORT int32_t dati_bypass_query_hdl(const DatiAtcEntry *row, char *params, evfw_event_t **held);
DM_EXPORT int32_t dm_forge_urc_hdl(char *content, evfw_event_t *event);

// 1 at start; AT+CFUN clears its lowest byte so that one of its two answers
// stays silent.
DM_EXPORT extern uint32_t data_allow_reply_armed;

// ---- replies to AT clients ----
DM_EXPORT int32_t dati_dummy_resp(void *reserved, evfw_event_t *template_event, int32_t ok);
DM_EXPORT int32_t dati_dummy_urc(void *reserved, const char *text, int32_t kind);
// Each takes the answer (or indication) record of the request of the same
// name, with the AT request's event as template.
DM_EXPORT int32_t dati_setup_data_call_resp(const SetupDataCallResp *resp,
                                            evfw_event_t *template_event);
DM_EXPORT int32_t dati_deactivate_data_call_resp(const WordPair *resp,
                                                 evfw_event_t *template_event);
DM_EXPORT int32_t dati_deactivate_data_call_if_resp(const WordPair *resp,
                                                    evfw_event_t *template_event);
DM_EXPORT int32_t dati_radio_power_resp(const WordPair *resp, evfw_event_t *template_event);
DM_EXPORT int32_t dati_fail_resp(const WordPair *resp, evfw_event_t *template_event);
DM_EXPORT int32_t dati_allow_data_resp(const WordPair *resp, evfw_event_t *template_event);
DM_EXPORT int32_t dati_setup_dedicate_data_call_resp(const DedicateSetupResp *resp,
                                                     evfw_event_t *template_event);
DM_EXPORT int32_t dati_modify_data_call_resp(const ModifyDataCallResp *resp,
                                             evfw_event_t *template_event);
DM_EXPORT int32_t dati_deactivate_dedicate_data_call_resp(const WordPair *resp,
                                                          evfw_event_t *template_event);
DM_EXPORT int32_t dati_abort_setup_data_call_resp(const WordPair *resp,
                                                  evfw_event_t *template_event);
DM_EXPORT int32_t dati_pcscf_discovery_pco_resp(const PcscfDiscoveryPcoResp *resp,
                                                evfw_event_t *template_event);
DM_EXPORT int32_t dati_last_data_call_fail_cause_resp(const LastFailCauseResp *resp,
                                                      evfw_event_t *template_event);
DM_EXPORT int32_t dati_data_call_list_resp(const DataCallListInd *resp,
                                           evfw_event_t *template_event);
DM_EXPORT int32_t dati_data_call_list_changed_urc(const DataCallListInd *ind,
                                                  evfw_event_t *template_event);
DM_EXPORT int32_t dati_dedicate_bearer_activated_urc(const DedicateBearerInd *ind,
                                                     evfw_event_t *template_event);
DM_EXPORT int32_t dati_dedicate_bearer_modified_urc(const DedicateBearerInd *ind,
                                                    evfw_event_t *template_event);
DM_EXPORT int32_t dati_dedicate_bearer_deactivated_urc(const DedicateBearerDeactInd *ind,
                                                       evfw_event_t *template_event);

// ---- modem AT commands and URCs ----
DM_EXPORT int32_t dm_atcmd_req(const AtCmdReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_atcmd_c2k_req(const AtCmdReq *req, evfw_event_t *event);
DM_EXPORT void self_trigger_atcmd_req(const char *command);
DM_EXPORT void self_trigger_c2k_atcmd_req(const char *command);
DM_EXPORT int32_t dm_atcmd_resp(const AtCmdResp *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_atcmd_urc(const AtUrc *urc, evfw_event_t *event);
DM_EXPORT int32_t dm_handle_default_urc(char *text, uint32_t kind, uint32_t sim,
                                        evfw_event_t *event);
DM_EXPORT int32_t default_urc_cgev(char *text, uint32_t kind, uint32_t sim, evfw_event_t *event);
DM_EXPORT int32_t default_urc_cgev_nw_deact(char *text, uint32_t kind, uint32_t sim,
                                            evfw_event_t *event);
DM_EXPORT int32_t default_urc_cgev_me_deact(char *text, uint32_t kind, uint32_t sim,
                                            evfw_event_t *event);

}  // extern "C"

// Self-triggered AT commands posted and not yet answered.
extern int32_t atcmd_pending;

// Test support: contexts of self-triggered AT commands still allocated.
size_t dati_atcmd_contexts_alive();

// Test support: returns the module's process-wide state to its start value
// (reply flag armed, no self-triggered command pending, no entity seen yet,
// tokeniser idle).  Contexts of self-triggered commands still waiting are
// released.
void dati_state_reset();

#endif  // DATI_H

// The IMS PDNs: the IMS PDN on data interface 4 and the emergency IMS PDN on
// interface 5, each with an ImsParaSlot that lives through its set-up:
//   1. the IMS manager passes the IMS parameters and APN (4045);
//   2. the RIL fetches them while it sets the call up (4049);
//   3. the set-up answer is stored in the slot (4004, data-call setup);
//   4. the IMS manager asks for the finished PDN (4047) and gets the stored
//      answer, completed with the interface's global IPv6 address.
// All of it runs on the data manager's main task thread.
#ifndef IMS_PDN_H
#define IMS_PDN_H

#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"
#include "pdn/pdn_records.h"

// Query of an IMS manager for its PDN (4047).
struct ImsPdnReq {
    char ifname[128];  // "pdnet<N>", NUL-terminated
    uint32_t req_token;
    uint32_t sim_id;
};
static_assert(sizeof(ImsPdnReq) == 136);
static_assert(offsetof(ImsPdnReq, req_token) == 128);
static_assert(offsetof(ImsPdnReq, sim_id) == 132);

// Answer to the pass request (4046).
struct ImsPdnPassResp {
    int32_t result;
    uint32_t sim_id;
};
static_assert(sizeof(ImsPdnPassResp) == 8);
static_assert(offsetof(ImsPdnPassResp, sim_id) == 4);

// The RIL's request for the IMS parameters (4049).
struct ImsParaReq {
    uint32_t interface_id;
    uint32_t sim_id;
};
static_assert(sizeof(ImsParaReq) == 8);
static_assert(offsetof(ImsParaReq, sim_id) == 4);

// Answer to it (4050).
struct ImsParaResp {
    uint32_t valid;
    uint8_t ims_para[kImsParaBlockLen];
    uint32_t emergency_ind;
    uint32_t ims_word_684;
    uint32_t ims_word_688;
    uint32_t zero;
    uint32_t assigned_rate_type;
};
static_assert(sizeof(ImsParaResp) == 44);
static_assert(offsetof(ImsParaResp, ims_para) == 4);
static_assert(offsetof(ImsParaResp, emergency_ind) == 24);
static_assert(offsetof(ImsParaResp, ims_word_684) == 28);
static_assert(offsetof(ImsParaResp, ims_word_688) == 32);
static_assert(offsetof(ImsParaResp, zero) == 36);
static_assert(offsetof(ImsParaResp, assigned_rate_type) == 40);

enum ImsSlotState : uint32_t {
    kImsSlotEmpty = 0,
    kImsSlotParamsPassed = 1,
    kImsSlotResponseStored = 2,
    kImsSlotQueryParked = 3,  // a query waits for the set-up answer
};

struct ImsParaSlot {
    uint32_t state;  // ImsSlotState
    SetupDataCallReq params;
    SetupDataCallResp response;
    struct {
        ImsPdnReq req;
        evfw_event_t *event;
    } parked_req;
    uint8_t saved_global_addr[16];
};

// The slot of interface 4 or 5; nullptr for any other interface.
ImsParaSlot *ims_para_slot(uint32_t interface_id);

// Zeroes both slots (test support; the slots otherwise live for the process).
void ims_para_slots_reset();

extern "C" {

DM_EXPORT int32_t dm_pass_ims_pdn_req(const SetupDataCallReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_get_ims_para_req(const ImsParaReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_get_ims_pdn_req(const ImsPdnReq *req, evfw_event_t *event);
DM_EXPORT int32_t get_interface_id(const char *ifname);

// ---- network indications ----
// The data-call list change has its IPv6 address completed in place before
// it is forwarded.
DM_EXPORT int32_t dm_data_call_list_changed_urc(DataCallListInd *ind, evfw_event_t *event);
DM_EXPORT int32_t dm_dedicate_bearer_activated_urc(const DedicateBearerInd *ind,
                                                   evfw_event_t *event);
DM_EXPORT int32_t dm_dedicate_bearer_modified_urc(const DedicateBearerInd *ind,
                                                  evfw_event_t *event);
DM_EXPORT int32_t dm_dedicate_bearer_deactivated_urc(const DedicateBearerDeactInd *ind,
                                                     evfw_event_t *event);
// One routine under three names (noexcept, as everything of the library:
// the names of one routine carry the same attributes).  They read no
// payload.
DM_EXPORT int32_t dm_if_status_req(void *req, evfw_event_t *event) noexcept;
DM_EXPORT int32_t dm_if_rat_cell_info_req(void *req, evfw_event_t *event) noexcept;
DM_EXPORT int32_t dm_default_bearer_modified_urc(void *ind, evfw_event_t *event) noexcept;

}  // extern "C"

#endif  // IMS_PDN_H

// Network indications: the RIL proxy reports changes of data calls and of
// dedicated bearers unasked.  The PDN table is brought up to date and the
// indications about the IMS interfaces (4 and 5) go on to the IMS manager of
// the SIM; a data-call list change first gets its IPv6 address completed.
#include <string.h>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "evfw_ids.h"
#include "ims/ims_pdn.h"
#include "ims/ipv6_addr.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Ims;

namespace {

bool is_ims_interface(uint32_t interface_id) {
    return interface_id == kImsInterface || interface_id == kEmergencyImsInterface;
}

// The owner of the default PDN on the bearer's interface, for the dedicated
// bearer's row: null when that PDN is unknown.
TaskInfo *default_pdn_owner(const char *fn, uint32_t interface_id) {
    const PdnInfo *row = find_pdn_info_by_interface(static_cast<int32_t>(interface_id));
    if (row == nullptr) {
        DM_LOGW_AS(fn, "%s default PDN not found interface %d\n", fn, interface_id);
        return nullptr;
    }
    dm::FieldText apn(row->apn);
    DM_LOGI_AS(fn, "%s default PDN %s found interface %d\n", fn, apn.c_str(), interface_id);
    return row->owner;
}

}  // namespace

int32_t dm_data_call_list_changed_urc(DataCallListInd *ind, evfw_event_t *) {
    SetupDataCallResp &resp = ind->resp;
    if (!is_ims_interface(resp.interface_id)) return 0;

    if (resp.has_extra_call != 0) update_pdn_info(&resp.extra_call, nullptr);

    if (resp.pdp_type == kPdpIpv6 || resp.pdp_type == kPdpIpv4v6) {
        ImsParaSlot *slot = ims_para_slot(resp.interface_id);
        // An IPv6-only call without its address is not reported at all.
        if (dm_ipv6_complete_for_indication(__func__, &resp, slot) != 0) return 0;
    }
    return dm_notify_to_imsm(ind, sizeof(*ind), EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,
                             static_cast<int32_t>(resp.sim_id));
}

int32_t dm_dedicate_bearer_activated_urc(const DedicateBearerInd *ind, evfw_event_t *) {
    uint32_t interface_id = ind->entry.interface_id;
    // The dedicated bearer's row belongs to whoever owns its default PDN.
    TaskInfo *owner = default_pdn_owner(__func__, interface_id);
    update_pdn_info(&ind->entry, owner);

    if (!is_ims_interface(interface_id)) {
        DM_LOGD("%s skip non-IMS %d\n", __func__, interface_id);
        return 0;
    }
    return dm_notify_to_imsm(ind, sizeof(*ind), EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC,
                             static_cast<int32_t>(ind->sim_id));
}

int32_t dm_dedicate_bearer_modified_urc(const DedicateBearerInd *ind, evfw_event_t *) {
    uint32_t interface_id = ind->entry.interface_id;
    // Looked up for the log only: a modification leaves the table alone.
    (void)default_pdn_owner(__func__, interface_id);

    if (!is_ims_interface(interface_id)) {
        DM_LOGD("%s skip non-IMS %d\n", __func__, interface_id);
        return 0;
    }
    return dm_notify_to_imsm(ind, sizeof(*ind), EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC,
                             static_cast<int32_t>(ind->sim_id));
}

int32_t dm_dedicate_bearer_deactivated_urc(const DedicateBearerDeactInd *ind, evfw_event_t *) {
    const PdnInfo *row = find_pdn_info_by_cid(ind->cid);
    if (row == nullptr) {
        DM_LOGW("%s unknown PDN cid %d\n", __func__, ind->cid);
        return 0;
    }

    int32_t ret = 0;
    // The IMS manager hears of it while the row is still there.
    if (is_ims_interface(row->interface_id)) {
        ret = dm_notify_to_imsm(ind, sizeof(*ind), EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC,
                                static_cast<int32_t>(ind->sim_id));
    } else {
        DM_LOGD("%s skip non-IMS %d\n", __func__, row->interface_id);
    }
    clear_pdn_info_by_cid(static_cast<uint32_t>(ind->cid));
    return ret;
}

// Entry points kept for the daemon's other modules; nothing routes an event
// to them.
int32_t dm_if_status_req(void *, evfw_event_t *) noexcept {
    return 0;
}

extern "C" {
// The same code under two more names.
int32_t dm_if_rat_cell_info_req(void *, evfw_event_t *) noexcept
        __attribute__((alias("dm_if_status_req")));
int32_t dm_default_bearer_modified_urc(void *, evfw_event_t *) noexcept
        __attribute__((alias("dm_if_status_req")));
}

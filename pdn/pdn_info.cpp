// The cellular and ePDG PDN tables.
#include "pdn/pdn_info.h"

#include <string.h>

#include <array>

#include "entity/dm_log.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

namespace {

std::array<PdnInfo, kPdnRows> g_cellular = {};
std::array<PdnInfo, kPdnRows> g_epdg = {};

// Calls `fn` on every row in search order: cellular rows 0..15, then ePDG
// rows 0..15.  Stops at the first row for which `fn` returns true.
template <class Fn>
PdnInfo *search(Fn &&fn) {
    for (PdnInfo &row : g_cellular) {
        if (fn(row)) return &row;
    }
    for (PdnInfo &row : g_epdg) {
        if (fn(row)) return &row;
    }
    return nullptr;
}

PdnInfo *find_active_cid(int32_t cid) {
    return search([cid](const PdnInfo &row) { return row.active != 0 && row.cid == cid; });
}

void clear_row(PdnInfo &row) {
    memset(&row, 0, sizeof(row));
}

}  // namespace

PdnInfo *find_pdn_info_by_index(int32_t index) {
    if (index >= kEpdgCidBase && index < kEpdgCidBase + kPdnRows) {
        return &g_epdg[index - kEpdgCidBase];
    }
    // Unsigned, so that negative indexes fall out too.
    if (static_cast<uint32_t>(index) < kPdnRows) return &g_cellular[index];
    DM_LOGW("%s fail index %d\n", __func__, index);
    return nullptr;
}

PdnInfo *find_pdn_info_by_apn(const char *apn) {
    if (apn == nullptr) return nullptr;
    return search([apn](const PdnInfo &row) {
        // Compared within the 128-byte APN field of both records.
        return row.active != 0 && strncmp(row.apn, apn, sizeof(row.apn)) == 0;
    });
}

PdnInfo *find_pdn_info_by_cid(int32_t cid) {
    PdnInfo *row = find_active_cid(cid);
    if (row == nullptr) DM_LOGW("%s fail cid %d\n", __func__, cid);
    return row;
}

PdnInfo *find_pdn_info_by_interface(int32_t interface_id) {
    PdnInfo *row = search([interface_id](const PdnInfo &r) {
        // Only the default bearer of an interface stands for it.
        return r.active != 0 && r.interface_id == static_cast<uint32_t>(interface_id) &&
               static_cast<uint32_t>(r.cid) == r.primary_cid;
    });
    if (row == nullptr) DM_LOGW("%s fail interface id %d\n", __func__, interface_id);
    return row;
}

uint32_t get_interface_by_cid(int32_t cid) {
    const PdnInfo *row = find_active_cid(cid);
    return row != nullptr ? row->interface_id : UINT32_MAX;
}

PdnInfo *update_pdn_info(const DataCallEntry *entry, TaskInfo *owner) {
    PdnInfo *row = find_pdn_info_by_index(entry->cid);
    if (row == nullptr) {
        DM_LOGE("%s find pdn by index %d fail\n", __func__, entry->cid);
        return nullptr;
    }
    row->active = 1;
    row->cid = entry->cid;
    row->status = entry->status;
    row->interface_id = entry->interface_id;
    row->primary_cid = entry->primary_cid;
    row->owner = owner;
    memcpy(&row->call, entry, sizeof(row->call));
    DM_LOGI("%s cid %d, pimary cid %d, interface %d\n", __func__, row->cid, row->primary_cid,
            row->interface_id);
    return row;
}

int32_t clear_pdn_info_by_if_type(int32_t interface_id, int32_t if_type) {
    std::array<PdnInfo, kPdnRows> *table = nullptr;
    if (if_type == kIfTypeCellular) {
        table = &g_cellular;
    } else if (if_type == kIfTypeEpdg) {
        table = &g_epdg;
    } else {
        return 0;
    }
    for (PdnInfo &row : *table) {
        if (row.active != 0 && row.interface_id == static_cast<uint32_t>(interface_id)) {
            clear_row(row);
        }
    }
    return 0;
}

int32_t clear_pdn_info_by_cid(uint32_t cid) {
    for (auto *table : {&g_cellular, &g_epdg}) {
        for (PdnInfo &row : *table) {
            if (row.active != 0 && static_cast<uint32_t>(row.cid) == cid) {
                DM_LOGI("%s %d\n", __func__, cid);
                clear_row(row);
            }
        }
    }
    return 0;
}

int32_t reset_pdn_info(void) {
    // In place: a row embeds a whole DataCallEntry, a table is 68 KB.
    memset(g_cellular.data(), 0, sizeof(g_cellular));
    memset(g_epdg.data(), 0, sizeof(g_epdg));
    return 0;
}

void dump_pdn_info(void) {
    for (int i = 0; i < kPdnRows; ++i) {
        const PdnInfo &row = g_cellular[i];
        // Whoever filled the APN may have left it without a NUL.
        char apn[sizeof(row.apn) + 1];
        size_t len = strnlen(row.apn, sizeof(row.apn));
        memcpy(apn, row.apn, len);
        apn[len] = '\0';
        DM_LOGI("PDN info %d active %d %s interface id %u cid %d\n", i, row.active, apn,
                row.interface_id, row.cid);
    }
}

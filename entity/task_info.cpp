#include "entity/task_info.h"

#include <string.h>

#include <array>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "pdn/pdn_records.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

namespace {

constexpr std::array<TaskInfo, kTaskInfoRows> kInitialRows = {{
        // "imsm_0" stands twice: searches stop at the first match, so row 1
        // is never filled nor found.
        {{"imsm_0"}, {nullptr}, kDestExternal, 0, 1},
        {{"imsm_0"}, {nullptr}, kDestExternal, 0, 1},
        {{"imsm_1"}, {nullptr}, kDestExternal, 0, 1},
        {{"imsm_2"}, {nullptr}, kDestExternal, 0, 1},
        {{"imsm_3"}, {nullptr}, kDestExternal, 0, 1},
        {{"lanmngr"}, {nullptr}, kDestExternal, 0, 0},
        {{"ati"}, {nullptr}, kDestLegacy, 0, 1},
        {{"ati1"}, {nullptr}, kDestLegacy, 0, 1},
        {{"ati2"}, {nullptr}, kDestLegacy, 0, 1},
        {{"ati3"}, {nullptr}, kDestLegacy, 0, 1},
        {{"ati4"}, {nullptr}, kDestLegacy, 0, 1},
        {{"rildproxy"}, {nullptr}, kDestTask, kRildTaskId, 0},
}};

constexpr const char *kRildName = "rildproxy";

std::array<TaskInfo, kTaskInfoRows> g_task_info = kInitialRows;
int32_t g_rild_ready = 0;
int32_t g_first_flush = 1;
std::array<evfw_event_t *, kPendingMax> g_pending = {};
int32_t g_pending_count = 0;

TaskInfo *find_row(const char *name) {
    for (TaskInfo &row : g_task_info) {
        if (strcmp(row.name, name) == 0) return &row;
    }
    return nullptr;
}

}  // namespace

void task_info_reset() {
    for (TaskInfo &row : g_task_info) evfw_event_free(row.event);
    for (int i = 0; i < g_pending_count; ++i) evfw_event_free(g_pending[i]);
    g_task_info = kInitialRows;
    g_rild_ready = 0;
    g_first_flush = 1;
    g_pending.fill(nullptr);
    g_pending_count = 0;
}

const TaskInfo *task_info_row(int index) {
    return index >= 0 && index < kTaskInfoRows ? &g_task_info[index] : nullptr;
}

int dm_pending_count() {
    return g_pending_count;
}

bool dm_rild_ready() {
    return g_rild_ready != 0;
}

const char *dm_imsm_name(int32_t sim_id) {
    switch (sim_id) {
        case 1:
            return "imsm_1";
        case 2:
            return "imsm_2";
        case 3:
            return "imsm_3";
        default:
            return "imsm_0";
    }
}

int32_t dm_notification(void *data, evfw_event_t *event) {
    // The name arrives in a 132-byte field; one without its NUL is read only
    // up to the end of the field.
    char name[kNotificationLen + 1];
    size_t len = strnlen(static_cast<const char *>(data), kNotificationLen);
    memcpy(name, data, len);
    name[len] = '\0';

    evfw_event_t *copy = evfw_event_alloc(event);
    if (copy == nullptr) {
        DM_LOGE("%s no event to keep the announcement of %s", __func__, name);
        return -1;
    }
    record_task_info(name, copy);
    if (g_rild_ready && g_first_flush) {
        dm_flush_event();
        g_first_flush = 0;
    }
    return 0;
}

void record_task_info(const char *name, evfw_event_t *event) {
    TaskInfo *row = find_row(name);
    if (row == nullptr) {
        // The announcement copy is neither stored nor released.
        DM_LOGE("%s for %s fail", __func__, name);
        return;
    }
    if (row->event != nullptr) evfw_event_free(row->event);
    DM_LOGI("%s add %s", __func__, name);
    row->event = event;
    if (strcmp(name, kRildName) == 0) g_rild_ready = 1;
}

evfw_event_t *query_task_info_by_name(const char *name) {
    TaskInfo *row = find_row(name);
    if (row == nullptr) {
        DM_LOGE("%s for %s fail", __func__, name);
        return nullptr;
    }
    return row->event;
}

TaskInfo *query_task_info(const evfw_event_t *event) {
    for (TaskInfo &row : g_task_info) {
        if (row.event != nullptr && (evfw_event_cmp_chnl(event, row.event) & 1)) return &row;
    }
    DM_LOGE("%s fail", __func__);
    return nullptr;
}

int32_t is_event_from_imsm(const void *request, const evfw_event_t *event) {
    int32_t sim_id;
    memcpy(&sim_id, request, sizeof(sim_id));
    const evfw_event_t *stored = find_row(dm_imsm_name(sim_id))->event;
    if (stored == nullptr) {
        DM_LOGD("%s cannot find IMSM name for sim %d", __func__, sim_id);
        return 0;
    }
    return evfw_event_cmp_chnl(event, stored) & 1;
}

void output_task_info(const TaskInfo *row) {
    DM_LOGI("%s, event %p, dest %d, task id %d", row->name, static_cast<void *>(row->event),
            row->dest, row->task_id);
}

void dump_task_info(void) {
    for (const TaskInfo &row : g_task_info) output_task_info(&row);
}

int32_t dm_queue_event_if_not_ready(const void *data, uint32_t len, evfw_event_t *source_event,
                                    uint32_t event_id) {
    if (g_rild_ready) return -1;

    // The id goes onto the source, not the queued copy: the copy keeps the id
    // it was allocated with, and the flush sends it under that id.
    evfw_event_t *queued = evfw_event_alloc(source_event);
    if (queued == nullptr) {
        DM_LOGE("pending event %u dropped: no event to hold it", event_id);
        return 0;
    }
    event_set_id(source_event, event_id);
    event_set_data(queued, 0, data, len);

    if (g_pending_count >= kPendingMax) {
        DM_LOGE("pending event over %d >= %d", g_pending_count, kPendingMax);
        evfw_event_free(queued);
        return 0;
    }
    DM_LOGI("pending event %u before rild proxy ready", event_id);
    g_pending[g_pending_count++] = queued;
    return 0;
}

int32_t dm_flush_event(void) {
    if (g_pending_count != 0) DM_LOGI("%s total pending event %d", __func__, g_pending_count);
    for (int i = 0; i < g_pending_count; ++i) {
        evfw_event_t *queued = g_pending[i];
        size_t len = 0;
        void *data = event_get_data(queued, 0, &len);
        dm_req_to_rild(data, static_cast<uint32_t>(len), queued, event_get_id(queued));
        evfw_event_free(queued);
        g_pending[i] = nullptr;
    }
    g_pending_count = 0;
    return 0;
}

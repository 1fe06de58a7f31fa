#include "testkit/testkit.h"

#include <cstdio>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/operator_hooks.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"

namespace dm::testkit {

void reset_library_state() {
    task_info_reset();
    reset_pdn_info();
    pdn_state_reset();
    pdn_setup_state_reset();
    ims_para_slots_reset();
    dati_state_reset();
    datamngr_state_reset();
    dm_set_operator_hooks(nullptr);
    dm::log::unbind_tags();
    dm_debug_lv = 15;
}

Harness::Harness(evfw_host::Mode mode) : rt_(Runtime::instance()) {
    // The library's state first: it frees events into the runtime it had.
    reset_library_state();
    rt_.reset(mode);
    evfw_host::EntityAbi abi;
    abi.init = datamngr_entity_init;
    abi.exit = datamngr_entity_exit;
    abi.ctx_handlers = {{TASK_DATAMNGR_DATI_HDL, datamngr_dati_task_hdl}};
    entity_record_ = rt_.load("datamngr", abi);
    rt_.run_threads();
}

Harness::~Harness() {
    rt_.unload();
    reset_library_state();
    rt_.reset();
}

DatamngrEntity *Harness::entity() const { return dm_entity(); }

Peer &Harness::task(uint32_t task_id) {
    Peer *p = rt_.peer(task_id);
    return p != nullptr ? *p : rt_.add_task(task_id);
}

Peer &Harness::client(const std::string &name) {
    for (uint32_t id = EVFW_EXT_ID_BASE; id < EVFW_EXT_ID_BASE + 64; ++id) {
        Peer *p = rt_.peer(id);
        if (p == nullptr) break;
        if (p->name() == name) return *p;
    }
    return rt_.add_client(name);
}

void Harness::announce(Peer &peer, const std::string &name) {
    std::vector<uint8_t> payload = announcement(name);
    peer.send(TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION, payload.data(), payload.size());
    pump();
}

int Harness::send_zeros(Peer &from, uint32_t event_id, size_t len) {
    std::vector<uint8_t> zeros(len);
    return from.send(TASK_DATAMNGR, event_id, zeros.data(), zeros.size());
}

std::vector<TraceEntry> Harness::sent_to(uint32_t to, uint32_t event_id) const {
    std::vector<TraceEntry> out;
    for (TraceEntry &e : rt_.trace()) {
        if (e.to == to && (event_id == 0 || e.event_id == event_id)) out.push_back(std::move(e));
    }
    return out;
}

std::vector<TraceEntry> Harness::sent_with_id(uint32_t event_id) const {
    std::vector<TraceEntry> out;
    for (TraceEntry &e : rt_.trace()) {
        if (e.event_id == event_id) out.push_back(std::move(e));
    }
    return out;
}

std::vector<std::string> Harness::logs_containing(std::string_view needle) const {
    std::vector<std::string> out;
    for (LogLine &line : rt_.logs()) {
        if (line.text.find(needle) != std::string::npos) out.push_back(std::move(line.text));
    }
    return out;
}

long Harness::held_by_library() const {
    long held = dm_pending_count();
    for (int i = 0; i < kTaskInfoRows; ++i) {
        if (task_info_row(i)->event != nullptr) ++held;
    }
    return held;
}

std::string log_text(std::string_view function, int line, std::string_view level_word,
                     std::string_view text) {
    char header[64];
    std::snprintf(header, sizeof(header), " (%24.24s, %4d) [", std::string(function).c_str(),
                  line);
    return std::string(header) + std::string(level_word) + "] " + std::string(text);
}

std::string dati_log_text(std::string_view function, int line, std::string_view text) {
    char header[64];
    std::snprintf(header, sizeof(header), " (%24.24s, %4d) ", std::string(function).c_str(),
                  line);
    return std::string(header) + std::string(text);
}

std::string_view log_body(std::string_view text) {
    // " (" + 24 + ", " + 4 + ") " = 34 characters of header.
    constexpr size_t kHeader = 34;
    if (text.size() < kHeader || text.substr(0, 2) != " (") return {};
    std::string_view rest = text.substr(kHeader);
    if (rest.size() >= 11 && rest.substr(0, 6) == "[DMGR-") return rest.substr(11);
    return rest;
}

std::vector<uint8_t> announcement(const std::string &name) {
    std::vector<uint8_t> payload(kNotificationLen, 0);
    std::memcpy(payload.data(), name.data(), std::min(name.size(), payload.size()));
    return payload;
}

}  // namespace dm::testkit

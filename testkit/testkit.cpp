#include "testkit/testkit.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/operator_hooks.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"

namespace dm::testkit {

namespace {

// Every process-wide state of the library but the entity pointer.
void reset_library_tables() {
    task_info_reset();
    reset_pdn_info();
    pdn_state_reset();
    pdn_setup_state_reset();
    ims_para_slots_reset();
    dati_state_reset();
    dm_set_operator_hooks(nullptr);
    dm::log::unbind_tags();
    dm_debug_lv = 15;
}

}  // namespace

void reset_library_state() {
    reset_library_tables();
    datamngr_state_reset();
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
    rt_.wait_threads(std::chrono::seconds(10));  // the init thread, which clears the PDN tables
}

Harness::~Harness() {
    rt_.unload();
    reset_library_state();
    rt_.reset();
}

void Harness::restart() {
    pump();
    reset_library_tables();
    if (DatamngrEntity *e = dm_entity(); e != nullptr) {
        // The entity's own state as its init leaves it.  A lock left held
        // (AT+VZWACT's ERROR path) is let go: unlocked until it refuses.
        if (e->lock.unlock != nullptr) {
            while (e->lock.unlock(&e->lock) == 0) {
            }
        }
        reset_at_pdp_contexts(e);
        e->cur_event = nullptr;
        e->cur_atcmd_event = nullptr;  // a prescribed leak: the new round reclaims it
        dm::log::bind_tags();
    }
    rt_.new_round();
    leaks_before_clear_ = 0;
}

DatamngrEntity *Harness::entity() const {
    return dm_entity();
}

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

long held_by_library() {
    long held = dm_pending_count();
    for (int i = 0; i < kTaskInfoRows; ++i) {
        if (task_info_row(i)->event != nullptr) ++held;
    }
    return held;
}

namespace {

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(text[i])) !=
            std::toupper(static_cast<unsigned char>(prefix[i]))) {
            return false;
        }
    }
    return true;
}

// How the AT command interface logs each command line on arrival.
constexpr std::string_view kAtCmdArrival = "datamngr_entity_dati_task_hdl(): AT Cmd = \"";
// The command lines whose handler ends by keeping its held reply.
constexpr std::string_view kVzwactAssign = "AT+VZWACT=";
// Ends of an AT+VZWACT= handling that release the held reply after all, or
// never had one.
constexpr std::string_view kVzwactReleased[] = {
        "dati_vzwact_assign_hdl(): atctok() error!!",
        "dati_vzwact_assign_hdl(): dm_entity_priv = NULL!!",
        "datamngr_dati_task_hdl(): dm_entity_priv = NULL!!",
        "datamngr_dati_task_hdl(): no event for AT Cmd = \"",
};
// Sends attempted before the entity's init: the new event is not released.
constexpr std::string_view kSendBeforeInit[] = {
        "dm_send_to_task NULL entity pointer",
        "dm_send_to_task_wait_for_event NULL entity pointer",
        "dm_resp_to_external_channel before entity init",
};
// An announcement from a name in no registry row: its copy is not released.
constexpr std::string_view kUnknownAnnouncement = "record_task_info for ";
// A send-and-wait that failed other than by the wait giving up (-110): the
// framework did not take the event, and the library does not release it.
constexpr std::string_view kSendRecvFailed = "dm_send_to_task_wait_for_event send event task id ";

}  // namespace

namespace {

// Counts the prescribed leaks line by line.  The AT interface task handles
// one line at a time, so its lines stay in order among themselves whatever
// the other threads log.
class LeakCounter {
  public:
    void see(const LogLine &line);
    long total() const { return leaks_ + (vzwact_holding_ ? 1 : 0); }

  private:
    long leaks_ = 0;
    bool vzwact_holding_ = false;
};

// A prefix test without memcmp: most lines differ in their first bytes, and
// this runs for every line of every fuzz input.
bool begins(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (text[i] != prefix[i]) return false;
    }
    return true;
}

void LeakCounter::see(const LogLine &line) {
    const std::string_view body = log_body(line.text);
    // Every marker starts with a function name in "d" or "r".
    if (body.empty() || (body[0] != 'd' && body[0] != 'r')) return;
    if (begins(body, kAtCmdArrival)) {
        if (vzwact_holding_) ++leaks_;
        vzwact_holding_ = starts_with_nocase(body.substr(kAtCmdArrival.size()), kVzwactAssign);
    } else if (begins(body, kSendRecvFailed)) {
        leaks_ += body.ends_with(" fail -110") ? 0 : 1;
    } else if (begins(body, kUnknownAnnouncement) ||
               std::any_of(std::begin(kSendBeforeInit), std::end(kSendBeforeInit),
                           [body](std::string_view m) {
                               return body.size() == m.size() && begins(body, m);
                           })) {
        ++leaks_;
    } else if (std::any_of(std::begin(kVzwactReleased), std::end(kVzwactReleased),
                           [body](std::string_view end) { return begins(body, end); })) {
        vzwact_holding_ = false;
    }
}

}  // namespace

long prescribed_leaks(const std::vector<LogLine> &logs) {
    LeakCounter counter;
    for (const LogLine &line : logs) counter.see(line);
    return counter.total();
}

std::string accounting_problems(const Runtime &rt) {
    const long live = rt.live_events();
    const long held = held_by_library();
    LeakCounter counter;
    rt.for_each_log([&counter](const LogLine &line) { counter.see(line); });
    const long leaks = counter.total();
    const DatamngrEntity *entity = dm_entity();
    std::string out;
    if (live - held - leaks != 0) {
        out += "events alive " + std::to_string(live) + ", held by the library " +
               std::to_string(held) + ", prescribed leaks " + std::to_string(leaks) + "; ";
    }
    if (rt.bad_frees() != 0) out += std::to_string(rt.bad_frees()) + " events freed twice; ";
    if (entity != nullptr && entity->cur_event != nullptr) {
        out += "the dispatcher still holds its current event; ";
    }
    return out;
}

std::string log_text(std::string_view function, int line, std::string_view level_word,
                     std::string_view text) {
    char header[64];
    std::snprintf(header, sizeof(header), " (%24.24s, %4d) [", std::string(function).c_str(), line);
    return std::string(header) + std::string(level_word) + "] " + std::string(text);
}

std::string dati_log_text(std::string_view function, int line, std::string_view text) {
    char header[64];
    std::snprintf(header, sizeof(header), " (%24.24s, %4d) ", std::string(function).c_str(), line);
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

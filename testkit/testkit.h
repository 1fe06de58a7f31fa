// Test kit: the data manager loaded into the host runtime with its peers, for
// tests, tools, benchmarks and fuzzers.
//
// A Harness resets the runtime and every process-wide state of the library,
// loads the entity (linked into the program, as the daemon would call it),
// runs its init thread, and offers the peers by name or task id.  Sends from
// peers go to the data manager's main task (402) unless said otherwise; the
// deterministic runtime delivers them when pump() is called.
#ifndef TESTKIT_H
#define TESTKIT_H

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "evfw_host/runtime.h"
#include "evfw_ids.h"

struct DatamngrEntity;

namespace dm::testkit {

using evfw_host::LogLine;
using evfw_host::Peer;
using evfw_host::Received;
using evfw_host::Runtime;
using evfw_host::TraceEntry;

// Returns every process-wide state of the library to its start value and
// frees the events it holds (registry rows, pending queue).
void reset_library_state();

// Events the library holds by design: announcements in the registry and
// requests in the pending queue.
long held_by_library();
// Events the behaviour leaves unreleased on purpose, counted from the log
// lines that mark them (see Harness::prescribed_leaks).
long prescribed_leaks(const std::vector<LogLine> &logs);
// "" when every event of the runtime is freed, held by the library or a
// prescribed leak, none was freed twice and the dispatcher holds no current
// event; otherwise the figures.  Meaningful once the runtime is idle.
std::string accounting_problems(const Runtime &rt);

class Harness {
  public:
    explicit Harness(evfw_host::Mode mode = evfw_host::Mode::Deterministic);
    ~Harness();
    Harness(const Harness &) = delete;
    Harness &operator=(const Harness &) = delete;

    // Back to the state of a fresh load without loading anew: the library's
    // tables reset (their events freed), the entity's own state as its init
    // leaves it, and a new round of the runtime (Runtime::new_round), which
    // reclaims every event still live.  Peers and their handlers stay.  For
    // fuzzers, where a load per input would be the cost.
    void restart();

    Runtime &rt() { return rt_; }
    const Runtime &rt() const { return rt_; }
    DatamngrEntity *entity() const;

    // ---- peers (created on first use) ----
    Peer &ril() { return task(TASK_RILDPROXY); }
    Peer &task(uint32_t task_id);
    Peer &client(const std::string &name);  // external client: "imsm_0", "lanmngr", ...

    // Announces `peer` to the data manager under `name` (4002, 132 bytes)
    // and pumps.
    void announce(Peer &peer, const std::string &name);
    void announce(Peer &peer) { announce(peer, peer.name()); }
    // The RIL proxy announces itself as "rildproxy": pending requests flush.
    void announce_ril() { announce(ril(), "rildproxy"); }

    // Sends a record from `from` to the main task (not pumped).
    template <class T>
    int send(Peer &from, uint32_t event_id, const T &record) {
        return from.send(TASK_DATAMNGR, event_id, &record, sizeof(record));
    }
    int send_bytes(Peer &from, uint32_t event_id, std::span<const uint8_t> bytes) {
        return from.send(TASK_DATAMNGR, event_id, bytes.data(), bytes.size());
    }
    // A zeroed payload of `len` bytes.
    int send_zeros(Peer &from, uint32_t event_id, size_t len);

    size_t pump() { return rt_.pump(); }

    // ---- observation ----
    // Entries of the trace sent to context `to` (task id or external id),
    // optionally only with event id `event_id` (0: any).
    std::vector<TraceEntry> sent_to(uint32_t to, uint32_t event_id = 0) const;
    // All trace entries with event id `event_id`.
    std::vector<TraceEntry> sent_with_id(uint32_t event_id) const;
    std::vector<LogLine> logs() const { return rt_.logs(); }
    // Log texts that contain `needle`.
    std::vector<std::string> logs_containing(std::string_view needle) const;
    bool logged(std::string_view needle) const { return !logs_containing(needle).empty(); }
    void clear() {
        leaks_before_clear_ = prescribed_leaks();
        rt_.clear_trace();
        rt_.clear_logs();
    }

    long held_by_library() const { return testkit::held_by_library(); }
    // Events alive beyond those the library holds: 0 unless something leaked.
    long stray_events() const { return rt_.live_events() - held_by_library(); }
    // Events the behaviour leaves unreleased on purpose, counted one by one
    // from the log lines that mark them (error level must be on):
    //  - the copy of an announcement from a name in no registry row
    //    ("record_task_info for <name> fail");
    //  - an event allocated by a send attempted before the entity's init
    //    ("... NULL entity pointer", "... before entity init");
    //  - the held reply of each AT+VZWACT=<state>,<APN> that reaches its
    //    lock-and-ERROR path (it stays in the held-event slot until the next
    //    command overwrites it).
    // Logs dropped by clear() are counted before they go.
    long prescribed_leaks() const {
        return leaks_before_clear_ + testkit::prescribed_leaks(rt_.logs());
    }
    // Events alive that neither a documented holder keeps nor a prescribed
    // leak explains.  0 after every flow; negative when an event that should
    // be held was freed.  Meaningful once the runtime is idle.
    long unaccounted_events() const {
        return rt_.live_events() - held_by_library() - prescribed_leaks();
    }

  private:
    Runtime &rt_;
    evfw_entity_t *entity_record_ = nullptr;
    long leaks_before_clear_ = 0;
};

// The exact text of a log line of the data manager's levelled form.
// level_word: "DMGR-ERR", "DMGR-WAR", "DMGR-INF", "DMGR-DBG".
std::string log_text(std::string_view function, int line, std::string_view level_word,
                     std::string_view text);
// The AT command interface's form (no level word).
std::string dati_log_text(std::string_view function, int line, std::string_view text);
// The text after the " (function, line) [LEVEL] " header; empty when the
// line has no such header.
std::string_view log_body(std::string_view text);

// A payload as a record, when the sizes match (else a test failure to come:
// the returned record is zeroed).
template <class T>
T record_of(const TraceEntry &entry) {
    T record{};
    if (entry.data.size() == sizeof(T)) std::memcpy(&record, entry.data.data(), sizeof(T));
    return record;
}

// Fills a fixed text field from `text`: zero-padded, and without a NUL when
// the text fills the whole field.
template <size_t N>
void copy_field(char (&field)[N], const char *text) {
    std::memset(field, 0, N);
    std::memcpy(field, text, strnlen(text, N));
}

// A name padded with zeros to the 132 bytes of an announcement.
std::vector<uint8_t> announcement(const std::string &name);

}  // namespace dm::testkit

#endif  // TESTKIT_H

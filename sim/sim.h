// The simulator: the data manager loaded by path into the threaded host
// runtime, with its peers around it (the RIL proxy, the IMS managers, the
// AT interface, the modem's AT manager, RB), driven step by step.
#ifndef DM_SIM_SIM_H
#define DM_SIM_SIM_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "evfw_host/runtime.h"
#include "sim/scenario.h"

struct PdnInfo;
struct SetupDataCallResp;
struct WordPair;

namespace dm::sim {

// Exit statuses of dmsim.
enum Exit : int {
    kExitPass = 0,   // every expectation held
    kExitFail = 1,   // an expectation failed
    kExitUsage = 2,  // bad command line or scenario
    kExitEnv = 3,    // the environment: library not loadable, no network namespace, ...
};

// The library's entry points that the simulator calls.  dmsim resolves them
// in the shared object it loads; a test program links them in.
struct EntityLinks {
    using SetupResp = int32_t (*)(const SetupDataCallResp *, evfw_event_t *);
    using WordResp = int32_t (*)(const WordPair *, evfw_event_t *);
    evfw_entity_t *(*init)(evfw_entity_t *) = nullptr;
    evfw_entity_t *(*exit)(evfw_entity_t *) = nullptr;
    evfw_ctx_hdl_t dati_hdl = nullptr;
    // The AT client reply entry points (see Sim::deliver_to_at_client).
    SetupResp dati_setup = nullptr;
    WordResp dati_fail = nullptr;
    WordResp dati_radio_power = nullptr;
    WordResp dati_allow_data = nullptr;
    // find_pdn_info_by_index: the PDN row of a cid, for expect-pdn.
    PdnInfo *(*pdn_row)(int32_t index) = nullptr;
};

struct Options {
    std::string lib;
    // The library linked into the program instead of loaded by path: it then
    // runs in the deterministic runtime, every step delivered to the end on
    // the calling thread, unless `threaded` asks for a thread per task.
    const EntityLinks *linked = nullptr;
    bool threaded = false;
    // The runtime's limit of the framework's waits (0: its default).
    std::chrono::milliseconds wait_limit{0};
    bool log = false;                  // print the library's log lines (logcat style)
    std::string trace_path;            // write the event trace there
    std::string diagram_path;          // write a Mermaid sequence diagram there
    bool netns = false;                // run inside a private network namespace
    int unprivileged_exit = kExitEnv;  // status when --netns lacks the privileges
    std::chrono::milliseconds settle{30000};
    // Threads the library starts stay this much longer before they return
    // (Runtime::set_thread_linger): the init thread of a busy device.
    std::chrono::milliseconds thread_linger{0};
    // Fault plans (Runtime::add_fault specs), armed as the library is loaded.
    std::vector<std::string> faults;
    // A last check of a run, after its steps and before the library is
    // unloaded: a non-empty answer fails the run and is printed.
    std::function<std::string(class Sim &)> final_check;
};

// The scripted RIL proxy: which requests it answers and how.
struct RilScript {
    bool enabled = false;
    struct Rule {
        bool ignore = false;
        uint32_t reply_id = 0;
        Payload payload;
    };
    std::map<uint32_t, Rule> rules;  // by request id; overrides the built-in answers
    std::vector<std::pair<int32_t, Payload>> answers;  // setup answer fields, by interface
};

class Sim {
  public:
    Sim(const Options &options, FILE *out);
    ~Sim();
    Sim(const Sim &) = delete;
    Sim &operator=(const Sim &) = delete;

    // Loads the library and creates the peers; false with the reason.
    bool start(const std::vector<std::string> &clients, std::string &error);
    // Waits until every task and peer is idle; false on time-out (reported).
    bool settle();
    // Unloads the library and writes the trace and the diagram files.
    // False when a file cannot be written (reported).
    bool finish();

    evfw_host::Runtime &rt() { return rt_; }
    evfw_host::Peer &task(uint32_t task_id);
    evfw_host::Peer &client(const std::string &name);
    evfw_host::Peer &peer(const PeerRef &ref);

    // ---- actions ----
    void announce(evfw_host::Peer &from, const std::string &name);
    void at_line(const std::string &line);  // a carriage return is added
    void at_register(const std::string &name);
    // Plays a modem URC line to every task subscribed to it; the number of
    // subscribers.
    size_t urc(const std::string &line);
    void script(const std::function<void(RilScript &)> &change);

    // ---- observation ----
    // Trace entries and log lines not printed yet.
    std::vector<evfw_host::TraceEntry> new_trace();
    std::vector<evfw_host::LogLine> new_logs();
    void print_entry(const evfw_host::TraceEntry &e, FILE *out) const;
    void print_logs(FILE *out);
    // The runtime's diagnostics not printed yet, as "!! evfw_host: ..." lines.
    // They are kept off the console (a person typing AT commands would take
    // them for failures) and shown with the trace or with --log.
    void print_diagnostics(FILE *out);

    // ---- expectations: each consumes what it matched ----
    // An empty `why` means it held.
    std::string expect(const Step &s);
    std::string expect_none(const Step &s);
    std::string expect_at_text(uint32_t task_id, std::initializer_list<uint32_t> ids,
                               const std::string &text);
    std::string expect_log(const std::string &text, int count);
    std::string expect_pdn(const Step &s);
    // Takes every event sent so far as seen: later expectations match only
    // what is sent after this.
    void consume_all();

  private:
    void on_ril(evfw_host::Peer &self, const evfw_host::Received &in);
    std::vector<uint8_t> setup_answer(const evfw_host::Received &in);
    void deliver_to_at_client(uint32_t answer_id, std::vector<uint8_t> &answer,
                              evfw_event_t *request);
    bool load(std::string &error);
    bool deterministic() const { return opt_.linked != nullptr && !opt_.threaded; }
    std::string check_fields(const Payload &want, const uint8_t *data, size_t len) const;
    std::vector<evfw_host::TraceEntry> unconsumed(uint32_t to, uint32_t event_id);
    std::string describe(const evfw_host::TraceEntry &e) const;

    Options opt_;
    FILE *out_;
    evfw_host::Runtime &rt_;
    bool loaded_ = false;
    std::map<uint32_t, evfw_host::Peer *> tasks_;
    evfw_host::Peer *ril_ = nullptr;  // set at start, read by the RIL proxy's thread
    std::map<std::string, evfw_host::Peer *> clients_;

    std::mutex script_mu_;
    RilScript script_;
    std::atomic<uint32_t> at_chnl_{0};

    EntityLinks links_;

    uint64_t printed_seq_ = 0;
    size_t printed_logs_ = 0;
    size_t printed_diags_ = 0;
    std::set<uint64_t> consumed_;
};

// Runs one parsed scenario; the exit status.
int run_scenario(const Scenario &sc, const Options &options, FILE *out);

// Runs the steps of a scenario on a started simulator, printing each with
// the events it caused and each expectation's PASS or FAIL line.
struct StepResult {
    int expectations = 0;
    int failed = 0;
};
StepResult run_steps(Sim &sim, const Scenario &sc, bool log, FILE *out);

// The trace as text, one send a line, with the diagnostics in their places.
void print_trace(FILE *out, const std::vector<evfw_host::TraceEntry> &trace,
                 const std::vector<evfw_host::Diagnostic> &diags);
// A log line as logcat prints it, stamped now.
std::string logcat(const evfw_host::LogLine &line);
// Writes the run's message flow as a Mermaid sequence diagram.
bool write_diagram(const std::vector<evfw_host::TraceEntry> &trace, const std::string &title,
                   const std::string &path, std::string &error);

}  // namespace dm::sim

#endif  // DM_SIM_SIM_H

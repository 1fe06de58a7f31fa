// The data manager's event paths, each run through the real library in the
// deterministic host runtime (testkit Harness), next to its floor: the same
// process doing only the copies the path requires, with memcpy.
//
// One iteration is one event into the library: the peer's send (event from
// the pool, payload copied in), the dispatch, the handler with its copies and
// its sends, and the runtime's delivery of what the handler sent to the
// receiving peer.  Tracing is off and log lines are formatted, then
// discarded (the runtime's capture off), with dm_debug_lv 15 (log_on) or 0
// (log_off).  Before timing, one run with trace and capture on proves that
// the path did what it must (else the case is skipped with the reason) and
// counts its log lines.
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/alloc_hook.h"
#include "bench/bench.h"
#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "pdn/pdn_records.h"
#include "testkit/testkit.h"

namespace bench {
namespace {

using dm::testkit::Harness;
using dm::testkit::Peer;
using dm::testkit::Received;

constexpr int kWarmup = 64;              // fills the event pool's buffers
constexpr int kHandlerCountRuns = 1000;  // untimed runs that count the handler's allocations

// The floor of a path: its buffers (the peer's record, the received event's
// data, the PDN rows, the IMS slot, the records the path builds, the sent
// event's data) and the copies between them, in the path's order, each read
// from where the path reads it.
struct Floor {
    struct Op {
        enum Kind { kCopy, kZero } kind;
        int to;
        size_t to_offset;
        int from;  // unused for kZero
        size_t from_offset;
        size_t bytes;
    };
    std::vector<size_t> buffers;  // sizes; buffer 0 is the peer's record
    std::vector<Op> ops;

    int buffer(size_t size) {
        buffers.push_back(size);
        return static_cast<int>(buffers.size() - 1);
    }
    void copy(int to, size_t to_offset, int from, size_t from_offset, size_t bytes) {
        ops.push_back({Op::kCopy, to, to_offset, from, from_offset, bytes});
    }
    void zero(int to, size_t bytes) { ops.push_back({Op::kZero, to, 0, 0, 0, bytes}); }
};

// Received and passed on: the record into the received event, that event's
// data into the sent event.
Floor relayed(size_t len) {
    Floor f;
    const int record = f.buffer(len);
    const int in = f.buffer(len);
    const int out = f.buffer(len);
    f.copy(in, 0, record, 0, len);
    f.copy(out, 0, in, 0, len);
    return f;
}

// A path through the library.  setup() prepares peers and records; send()
// makes the peer send the iteration's event (the benchmark pumps); check()
// looks at the traced result of one run.
class Flow {
  public:
    virtual ~Flow() = default;
    virtual void setup(Harness &h) = 0;
    virtual void send(Harness &h) = 0;
    virtual bool check(Harness &h, std::string &why) = 0;
    virtual void teardown(Harness &) {}
};

struct EventPath {
    const char *name;
    size_t bytes_in;  // payload bytes of the event the library receives
    Floor floor;
    std::function<std::unique_ptr<Flow>()> make;
};

bool expect_one(Harness &h, uint32_t to, uint32_t event_id, size_t len, std::string &why) {
    auto sent = h.sent_to(to, event_id);
    if (sent.size() != 1 || sent[0].len != len) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "expected one event %u of %zu bytes to %u, got %zu",
                      event_id, len, to, sent.size());
        why = buf;
        return false;
    }
    return true;
}

// The IMS manager of SIM 0 and the RIL proxy, both announced.
class PeersFlow : public Flow {
  protected:
    Peer *imsm_ = nullptr;
    Peer *ril_ = nullptr;

    void announce_peers(Harness &h) {
        imsm_ = &h.client("imsm_0");
        ril_ = &h.ril();
        h.announce(*imsm_);
        h.announce_ril();
    }
};

// A RIL answer derived from a request of the IMS manager travels back on the
// IMS manager's route: the flow keeps one such request as the template of
// every answer it sends.
class AnswerFlow : public PeersFlow {
  protected:
    evfw_event_t *request_ = nullptr;

    void capture_request(Harness &h, uint32_t request_id, const void *record, size_t len) {
        ril_->on_receive([this](Peer &, const Received &in) {
            if (request_ == nullptr) request_ = evfw_event_alloc(in.event);
        });
        imsm_->send(TASK_DATAMNGR, request_id, record, len);
        h.pump();
        ril_->on_receive(nullptr);
    }

  public:
    void teardown(Harness &) override {
        if (request_ != nullptr) evfw_event_free(request_);
        request_ = nullptr;
    }
};

// 1a. The 8-byte data-call list request (4019) relayed to the RIL proxy.
class RelayRequest : public PeersFlow {
    WordPair req_{};

  public:
    void setup(Harness &h) override { announce_peers(h); }
    void send(Harness &) override {
        imsm_->send(TASK_DATAMNGR, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, &req_, sizeof(req_));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, TASK_RILDPROXY, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, sizeof(req_), why);
    }
};

// 1b. Its 47,880-byte answer (4020) back to the requester.
class RelayAnswer : public AnswerFlow {
    std::unique_ptr<DataCallListInd> answer_ = std::make_unique<DataCallListInd>();

  public:
    void setup(Harness &h) override {
        announce_peers(h);
        WordPair req{};
        capture_request(h, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, &req, sizeof(req));
        std::memset(answer_.get(), 0x5a, sizeof(*answer_));
    }
    void send(Harness &) override {
        ril_->reply(request_, TASK_DATAMNGR, EVENT_DATAMNGR_DATA_CALL_LIST_RESP, answer_.get(),
                    sizeof(*answer_));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, imsm_->id(), EVENT_DATAMNGR_DATA_CALL_LIST_RESP, sizeof(*answer_),
                          why);
    }
};

// 2. A 704-byte setup request (4003) relayed to the RIL proxy.
class SetupRequest : public PeersFlow {
    SetupDataCallReq req_{};

  public:
    void setup(Harness &h) override {
        announce_peers(h);
        std::snprintf(req_.apn, sizeof(req_.apn), "internet");
        req_.interface_id = 1;
    }
    void send(Harness &) override {
        imsm_->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req_, sizeof(req_));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, sizeof(req_), why);
    }
};

// 3. A 47,876-byte setup answer (4004) with 11 entries and an extra call, for
// interface 1 (PDN table only) or 4 (PDN table and the IMS slot).
class SetupAnswer : public AnswerFlow {
    uint32_t interface_id_;
    std::unique_ptr<SetupDataCallResp> resp_ = std::make_unique<SetupDataCallResp>();

  public:
    explicit SetupAnswer(uint32_t interface_id) : interface_id_(interface_id) {}

    void setup(Harness &h) override {
        announce_peers(h);
        SetupDataCallReq req{};
        req.interface_id = interface_id_;
        capture_request(h, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req, sizeof(req));

        SetupDataCallResp &r = *resp_;
        std::memset(&r, 0, sizeof(r));
        r.active = 1;
        r.interface_id = interface_id_;
        r.pdp_type = kPdpIpv4;
        std::snprintf(r.ifname, sizeof(r.ifname), "pdnet%u", interface_id_);
        r.num_calls = static_cast<int32_t>(kMaxDataCalls);
        for (size_t i = 0; i < kMaxDataCalls; ++i) {
            DataCallEntry &e = r.calls[i];
            std::memset(e.rest, static_cast<int>(i), sizeof(e.rest));
            e.interface_id = interface_id_;
            e.cid = static_cast<int32_t>(i);
            e.primary_cid = 0;
        }
        r.has_extra_call = 1;
        r.extra_call.interface_id = interface_id_;
        r.extra_call.cid = static_cast<int32_t>(kMaxDataCalls);
        r.extra_call.primary_cid = static_cast<uint32_t>(kMaxDataCalls);
    }
    void send(Harness &) override {
        ril_->reply(request_, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, resp_.get(),
                    sizeof(*resp_));
    }
    bool check(Harness &, std::string &why) override {
        for (int32_t cid = 0; cid <= static_cast<int32_t>(kMaxDataCalls); ++cid) {
            const PdnInfo *row = find_pdn_info_by_cid(cid);
            if (row == nullptr || row->interface_id != interface_id_) {
                why = "cid " + std::to_string(cid) + " not in the PDN table";
                return false;
            }
        }
        const PdnInfo *extra = find_pdn_info_by_cid(static_cast<int32_t>(kMaxDataCalls));
        if (std::strcmp(extra->ifname, resp_->ifname) != 0) {
            why = "the extra call's row has no interface name";
            return false;
        }
        const ImsParaSlot *slot = ims_para_slot(interface_id_);
        if (slot != nullptr && (slot->state != kImsSlotResponseStored ||
                                slot->response.interface_id != interface_id_)) {
            why = "the answer is not stored in the IMS slot";
            return false;
        }
        return true;
    }
};

// 4. A 47,880-byte data-call-list change (4021) for the IPv4 IMS PDN,
// forwarded to the IMS manager.
class DataCallListChanged : public PeersFlow {
    std::unique_ptr<DataCallListInd> ind_ = std::make_unique<DataCallListInd>();

  public:
    void setup(Harness &h) override {
        announce_peers(h);
        h.rt().set_property("ro.qpx_multiple_ims_support", "0");
        std::memset(ind_.get(), 0, sizeof(*ind_));
        SetupDataCallResp &r = ind_->resp;
        r.active = 1;
        r.interface_id = kImsInterface;
        r.pdp_type = kPdpIpv4;
        std::snprintf(r.ifname, sizeof(r.ifname), "pdnet4");
    }
    void send(Harness &) override {
        ril_->send(TASK_DATAMNGR, EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, ind_.get(),
                   sizeof(*ind_));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, imsm_->id(), EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, sizeof(*ind_),
                          why);
    }
};

constexpr char kCgactQuery[] = "AT+CGACT?\r";

// 5. An AT line through the AT command interface task: AT+CGACT? from the
// AT interface (task 7) to task 403 (4065), answered with 4066.
class AtQuery : public Flow {
    Peer *atc_ = nullptr;

  public:
    void setup(Harness &h) override { atc_ = &h.task(TASK_ATI_ATC); }
    void send(Harness &) override {
        atc_->send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REQ, kCgactQuery,
                   sizeof(kCgactQuery));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, TASK_ATI_ATC, EVENT_DATAMNGR_ATCMD_RESP, sizeof(AtCmdResp), why);
    }
};

// 6. A +CGEV URC (3006) from the modem's AT manager, passed on to the AT
// clients (event 21 to task 8).
class CgevUrc : public Flow {
    Peer *atmngr_ = nullptr;
    std::unique_ptr<AtUrc> urc_ = std::make_unique<AtUrc>();

  public:
    void setup(Harness &h) override {
        atmngr_ = &h.task(TASK_ATMNGR);
        h.task(TASK_ATI_URC);
        // The AT command interface learns its entity from its first event;
        // the URCs it passes on are sent from its task.
        h.task(TASK_ATI_ATC)
                .send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REQ, kCgactQuery,
                      sizeof(kCgactQuery));
        h.pump();
        std::memset(urc_.get(), 0, sizeof(*urc_));
        std::snprintf(urc_->text, sizeof(urc_->text), "+CGEV: ME PDN ACT 1");
    }
    void send(Harness &) override {
        atmngr_->send(TASK_DATAMNGR, EVENT_ATMNGR_URC, urc_.get(), sizeof(*urc_));
    }
    bool check(Harness &h, std::string &why) override {
        return expect_one(h, TASK_ATI_URC, EVENT_ATI_URC, sizeof(AtUrc), why);
    }
};

constexpr size_t kEntry = sizeof(DataCallEntry);
constexpr size_t kResp = sizeof(SetupDataCallResp);
constexpr size_t kList = sizeof(DataCallListInd);
constexpr size_t kCgactAnswerLen = 163;  // the canned +CGACT answer, without its NUL
constexpr size_t kUrcTextLen = 19;       // "+CGEV: ME PDN ACT 1"

// The copies each path requires: the payload into the received event, the
// PDN rows and the IMS slot the behaviour writes, the records it builds
// cleared, and the payload into each event it sends.
Floor setup_answer_floor(bool ims_slot) {
    Floor f;
    const int record = f.buffer(kResp);
    const int in = f.buffer(kResp);
    f.copy(in, 0, record, 0, kResp);
    // Each entry into its row of the PDN table (rows are sizeof(PdnInfo) apart).
    const int rows = f.buffer((kMaxDataCalls + 1) * sizeof(PdnInfo));
    for (size_t i = 0; i < kMaxDataCalls; ++i) {
        f.copy(rows, i * sizeof(PdnInfo) + offsetof(PdnInfo, call), in,
               offsetof(SetupDataCallResp, calls) + i * kEntry, kEntry);
    }
    f.copy(rows, kMaxDataCalls * sizeof(PdnInfo) + offsetof(PdnInfo, call), in,
           offsetof(SetupDataCallResp, extra_call), kEntry);
    if (ims_slot) {
        const int slot = f.buffer(kResp);
        f.copy(slot, 0, in, 0, kResp);
    }
    return f;
}

Floor at_query_floor() {
    Floor f;
    const int line = f.buffer(sizeof(kCgactQuery));
    const int in = f.buffer(sizeof(kCgactQuery));
    const int canned = f.buffer(kCgactAnswerLen);
    const int resp = f.buffer(sizeof(AtCmdResp));
    const int out = f.buffer(sizeof(AtCmdResp));
    f.copy(in, 0, line, 0, sizeof(kCgactQuery));
    f.zero(resp, sizeof(AtCmdResp));
    f.copy(resp, offsetof(AtCmdResp, text), canned, 0, kCgactAnswerLen);
    f.copy(out, 0, resp, 0, sizeof(AtCmdResp));
    return f;
}

Floor urc_floor() {
    Floor f;
    const int record = f.buffer(sizeof(AtUrc));
    const int in = f.buffer(sizeof(AtUrc));
    const int text = f.buffer(kAtTextLen + 1);
    const int urc = f.buffer(sizeof(AtUrc));
    const int out = f.buffer(sizeof(AtUrc));
    f.copy(in, 0, record, 0, sizeof(AtUrc));
    f.copy(text, 0, in, offsetof(AtUrc, text), kUrcTextLen);  // the handler's copy of the line
    f.zero(urc, sizeof(AtUrc));
    f.copy(urc, offsetof(AtUrc, text), text, 0, kUrcTextLen);
    f.copy(out, 0, urc, 0, sizeof(AtUrc));
    return f;
}

std::vector<EventPath> event_paths() {
    return {
            {"relay_req_4019", sizeof(WordPair), relayed(sizeof(WordPair)),
             [] { return std::make_unique<RelayRequest>(); }},
            {"relay_answer_4020", kList, relayed(kList),
             [] { return std::make_unique<RelayAnswer>(); }},
            {"setup_req_4003", sizeof(SetupDataCallReq), relayed(sizeof(SetupDataCallReq)),
             [] { return std::make_unique<SetupRequest>(); }},
            {"setup_answer_4004_if1", kResp, setup_answer_floor(false),
             [] { return std::make_unique<SetupAnswer>(1); }},
            {"setup_answer_4004_if4", kResp, setup_answer_floor(true),
             [] { return std::make_unique<SetupAnswer>(kImsInterface); }},
            {"dcl_changed_4021_ipv4", kList, relayed(kList),
             [] { return std::make_unique<DataCallListChanged>(); }},
            {"at_cgact_query_4065", sizeof(kCgactQuery), at_query_floor(),
             [] { return std::make_unique<AtQuery>(); }},
            {"cgev_urc_3006", sizeof(AtUrc), urc_floor(),
             [] { return std::make_unique<CgevUrc>(); }},
    };
}

void *counted_main_hdl(evfw_task_t *task, evfw_event_t *event, void *entity) {
    HandlerScope scope;
    return datamngr_main_hdl(task, event, entity);
}

void one_event(Harness &h, Flow &flow) {
    flow.send(h);
    h.pump();
}

// Sets the flow up and proves it: one traced run with every line captured
// (its log lines counted into `lines`).  Then the trace and the capture go
// off and the event pool warms up.  false, with the reason, when the path
// did not do what it must.
bool prepare(Harness &h, Flow &flow, bool log_on, size_t &lines, std::string &why) {
    dm::testkit::Runtime &rt = h.rt();
    flow.setup(h);
    dm_debug_lv = log_on ? 15 : 0;
    h.clear();
    one_event(h, flow);
    if (!flow.check(h, why)) {
        flow.teardown(h);
        return false;
    }
    lines = rt.logs().size();
    rt.set_trace(false);
    rt.set_log_capture(false);
    h.clear();
    for (int i = 0; i < kWarmup; ++i) one_event(h, flow);
    return true;
}

void run_case(benchmark::State &state, const EventPath &path, bool log_on) {
    Harness h;
    std::unique_ptr<Flow> flow = path.make();
    size_t lines = 0;
    std::string why;
    if (!prepare(h, *flow, log_on, lines, why)) {
        state.SkipWithError(why.c_str());
        return;
    }

    const uint64_t allocs_before = allocations();
    for (auto _ : state) one_event(h, *flow);
    const uint64_t allocs = allocations() - allocs_before;

    // Untimed: the main handler's own allocations (the AT command interface's
    // handler is installed by the runtime and counted with the rest).
    DatamngrEntity *entity = h.entity();
    entity->main_task.set_hdl(&entity->main_task, counted_main_hdl, entity);
    const uint64_t in_handler_before = allocations_in_handlers();
    for (int i = 0; i < kHandlerCountRuns; ++i) one_event(h, *flow);
    const uint64_t in_handler = allocations_in_handlers() - in_handler_before;

    flow->teardown(h);
    const double iterations = static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(path.bytes_in));
    state.counters["per_event"] = benchmark::Counter(
            1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["allocs_per_ev"] = static_cast<double>(allocs) / iterations;
    state.counters["main_hdl_allocs"] = static_cast<double>(in_handler) / kHandlerCountRuns;
    state.counters["log_lines"] = static_cast<double>(lines);
}

// The copies of the path's floor, once.
void floor_ops(const EventPath &path, std::vector<std::vector<uint8_t>> &bufs) {
    for (const Floor::Op &op : path.floor.ops) {
        uint8_t *to = bufs[op.to].data() + op.to_offset;
        if (op.kind == Floor::Op::kCopy) {
            std::memcpy(to, bufs[op.from].data() + op.from_offset, op.bytes);
        } else {
            std::memset(to, 0, op.bytes);
        }
        benchmark::DoNotOptimize(to);
    }
}

void run_floor(benchmark::State &state, const EventPath &path) {
    std::vector<std::vector<uint8_t>> bufs;
    for (size_t size : path.floor.buffers) bufs.emplace_back(size, 0x5a);
    for (auto _ : state) {
        floor_ops(path, bufs);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(path.bytes_in));
    state.counters["per_event"] = benchmark::Counter(
            1, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// One callgrind collection window: `one` run `iterations` times, the counts
// dumped under `name` (outside valgrind these requests do nothing).
template <class Fn>
void count_window(const std::string &name, int iterations, Fn one) {
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < iterations; ++i) one();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_DUMP_STATS_AT(name.c_str());
}

void count_case(const EventPath &path, bool log_on, int iterations) {
    Harness h;
    std::unique_ptr<Flow> flow = path.make();
    size_t lines = 0;
    std::string why;
    if (!prepare(h, *flow, log_on, lines, why)) {
        std::fprintf(stderr, "%s: not counted: %s\n", path.name, why.c_str());
        return;
    }
    // The window's name carries the event's log lines, for the report.
    count_window(std::string(path.name) + (log_on ? "/log_on" : "/log_off") +
                         " lines=" + std::to_string(lines),
                 iterations, [&] { one_event(h, *flow); });
    flow->teardown(h);
}

}  // namespace

void count_library_cases(int iterations) {
    for (const EventPath &path : event_paths()) {
        std::vector<std::vector<uint8_t>> bufs;
        for (size_t size : path.floor.buffers) bufs.emplace_back(size, 0x5a);
        count_window(std::string("floor/") + path.name, iterations, [&] { floor_ops(path, bufs); });
        count_case(path, false, iterations);
        count_case(path, true, iterations);
    }
}

void register_library_cases() {
    static const std::vector<EventPath> paths = event_paths();
    for (const EventPath &path : paths) {
        const std::string off = std::string(path.name) + "/log_off";
        const std::string on = std::string(path.name) + "/log_on";
        const std::string floor = std::string("floor/") + path.name;
        benchmark::RegisterBenchmark(floor.c_str(), [&path](benchmark::State &s) {
            run_floor(s, path);
        })->Unit(benchmark::kNanosecond);
        benchmark::RegisterBenchmark(off.c_str(), [&path](benchmark::State &s) {
            run_case(s, path, false);
        })->Unit(benchmark::kNanosecond);
        benchmark::RegisterBenchmark(on.c_str(), [&path](benchmark::State &s) {
            run_case(s, path, true);
        })->Unit(benchmark::kNanosecond);
        comparisons().push_back({path.name, off, on, floor});
    }
}

}  // namespace bench

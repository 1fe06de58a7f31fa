// The fault sweep, as SQLite tests its allocation failures: each scenario
// given is run again and again, each run with one call the library imports
// failing: its 1st call, then its 2nd, and so on until a run no longer
// reaches it.  Every run must close as a healthy run does: the failure
// logged at error level by the routine that saw it (the first line after
// it), every event freed, held by the library or a prescribed leak, no
// getifaddrs list kept, and then, with the plan cleared, a fresh setup
// request relayed and its answer written into the PDN table by the same
// entity, or, when the failure hit the entity's init, by one loaded anew.
// The scenario's own expectations may fail: a request refused for want of
// an event is the point.  A run that does not reach the failure must pass
// the scenario whole.
#include <cstring>

#include "common/seams.h"
#include "common/tables.h"
#include "testkit/testkit.h"

namespace dm_test {
namespace {

using evfw_host::FaultCall;
using evfw_host::Runtime;

// Every call the runtime can fail.
constexpr size_t kCalls = static_cast<size_t>(FaultCall::Count);
// Only the entity's init makes it.
bool at_init(FaultCall c) {
    return c == FaultCall::MutexInit || c == FaultCall::ThrdInit || c == FaultCall::TaskInit;
}

// The fresh request, relayed to the RIL proxy and its answer written, once
// the RIL proxy is ready (which flushes what the run left queued).
constexpr const char *kPeersReady = "ril auto\nannounce rildproxy\nannounce lanmngr\n";
constexpr const char *kFreshRequest = R"(send lanmngr 4003 apn=sweep interface_id=3 ip_type=0
expect rildproxy 4003 apn=sweep interface_id=3
expect-pdn 3 active=1 cid=3 interface_id=3
)";

struct Outcome {
    bool reached = false, held = false;  // the planned call failed; the expectations held
    std::string problems;
};

struct Fresh {
    dm::sim::Scenario ready, request, both;
};

std::string serve_fresh(dm::sim::Sim &sim, const Fresh &fresh, FILE *sink) {
    sim.script([](dm::sim::RilScript &r) { r = dm::sim::RilScript{}; });
    dm::sim::run_steps(sim, fresh.ready, false, sink);
    sim.consume_all();
    if (dm::sim::run_steps(sim, fresh.request, false, sink).failed != 0)
        return "the entity no longer serves a fresh setup; ";
    return closing_problems();
}

Outcome run_once(const dm::sim::Scenario &sc, FaultCall call, uint64_t nth, const Fresh &fresh,
                 FILE *sink) {
    Outcome o;
    dm::sim::Options opt;
    opt.linked = &linked_library();
    opt.faults = {Runtime::fault_call_name(call) + (":" + std::to_string(nth))};
    opt.final_check = [&](dm::sim::Sim &sim) {
        Runtime &rt = sim.rt();
        o.reached = rt.faults(call) != 0;
        if (o.reached) o.problems += unlogged_refusals(rt);
        o.problems += closing_problems();
        rt.clear_faults();
        if (o.reached && !at_init(call)) o.problems += serve_fresh(sim, fresh, sink);
        return std::string();
    };
    dm::testkit::reset_library_state();
    fake_clock::reset();
    o.held = dm::sim::run_scenario(sc, opt, sink) == dm::sim::kExitPass;
    if (o.reached && at_init(call)) {
        dm::sim::Options again;
        again.linked = &linked_library();
        again.final_check = [](dm::sim::Sim &) { return closing_problems(); };
        dm::testkit::reset_library_state();
        if (dm::sim::run_scenario(fresh.both, again, sink) != dm::sim::kExitPass)
            o.problems += "a fresh load does not serve a setup; ";
    }
    if (!o.reached && !o.held) o.problems += "the scenario fails without a failed call; ";
    dm::testkit::reset_library_state();
    return o;
}

// Runs, calls failed, of those the runs whose expectations still all held,
// and runs with problems.
struct Tally {
    long runs = 0, failed_calls = 0, held = 0, problems = 0;
};

}  // namespace

int run_sweep(int argc, char **argv) {
    FILE *sink = std::fopen("/dev/null", "w");
    std::string error;
    Fresh fresh;
    const std::string both = std::string(kPeersReady) + kFreshRequest;
    if (sink == nullptr ||
        !dm::sim::parse_scenario("peers ready", kPeersReady, fresh.ready, error) ||
        !dm::sim::parse_scenario("fresh request", kFreshRequest, fresh.request, error) ||
        !dm::sim::parse_scenario("fresh load", both, fresh.both, error)) {
        std::fprintf(stderr, "fault sweep: %s\n", error.c_str());
        return dm::sim::kExitEnv;
    }
    Tally per_call[kCalls];
    int scenarios = 0, skipped = 0;
    for (int i = 2; i < argc; ++i) {
        dm::sim::Scenario sc;
        if (!dm::sim::parse_scenario_file(argv[i], sc, error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return dm::sim::kExitUsage;
        }
        if (const int rc = isolate(sc); rc == kSkipped) {
            ++skipped;
            continue;
        } else if (rc != 0) {
            return rc;
        }
        ++scenarios;
        for (size_t k = 0; k < kCalls; ++k) {
            const auto call = static_cast<FaultCall>(k);
            for (uint64_t nth = 1;; ++nth) {
                const Outcome o = run_once(sc, call, nth, fresh, sink);
                Tally &t = per_call[k];
                ++t.runs;
                t.failed_calls += o.reached;
                t.held += o.reached && o.held;
                if (!o.problems.empty()) {
                    ++t.problems;
                    run_once(sc, call, nth, fresh, stdout);  // shown, for the diagnosis
                    std::printf("PROBLEM %s with %s:%llu: %s\n", argv[i],
                                Runtime::fault_call_name(call),
                                static_cast<unsigned long long>(nth), o.problems.c_str());
                }
                if (!o.reached) break;
            }
        }
    }
    Tally all;
    std::string unreached;
    std::printf("%-26s %6s %7s %8s %7s %8s\n", "call", "runs", "failed", "refused", "served",
                "problems");
    for (size_t k = 0; k < kCalls; ++k) {
        const Tally &t = per_call[k];
        const char *name = Runtime::fault_call_name(static_cast<FaultCall>(k));
        std::printf("%-26s %6ld %7ld %8ld %7ld %8ld\n", name, t.runs, t.failed_calls,
                    t.failed_calls - t.held, t.held, t.problems);
        all = {all.runs + t.runs, all.failed_calls + t.failed_calls, all.held + t.held,
               all.problems + t.problems};
        if (t.failed_calls == 0) unreached += std::string(" ") + name;
    }
    if (!unreached.empty()) {
        std::printf("not reached by these scenarios:%s\n", unreached.c_str());
    }
    std::printf(
            "fault sweep: %d scenarios (%d skipped), %zu calls, %ld runs, %ld calls failed: "
            "%ld runs with a request refused, %ld with every expectation still met, "
            "%ld with problems\n",
            scenarios, skipped, kCalls, all.runs, all.failed_calls, all.failed_calls - all.held,
            all.held, all.problems);
    std::fclose(sink);
    return all.problems == 0 && scenarios > 0 ? 0 : 1;
}

}  // namespace dm_test

// The chaos campaign: the scenarios played in the threaded runtime, a thread
// per task as on the device, with several imported calls failing at once at
// random (seeded fault plans, "call:pP/seed").  Each run is a process of its
// own, so that a crash, a hang or a sanitizer's report ends that run only and
// names its seed.  A run passes when it ends as a healthy run does: every
// event freed, held by the library or a prescribed leak, none freed twice,
// no getifaddrs list kept, and every failed call followed, on the thread
// that made it, by an error line of the routine that saw it.  The
// scenario's own expectations may fail: refused requests are the point.
//
//     dm_test --chaos [--seed S] [--runs N | --minutes M] FILE...
//
// Run r plays FILE[r mod count] with plans drawn from the seed S + r alone:
// `dm_test --chaos --seed <that seed> --runs 1 <that file>` replays it
// (the same scenario and plans; how the threads interleave is theirs).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>

#include "common/seams.h"
#include "common/tables.h"
#include "testkit/testkit.h"

namespace dm_test {
namespace {

using evfw_host::FaultCall;
using evfw_host::Runtime;

constexpr unsigned kRunSeconds = 120;  // a run still going after this hangs

// One to three calls, each failing with one of a few probabilities.
std::vector<std::string> plans_of(uint64_t seed) {
    std::mt19937_64 rng(seed);
    const size_t n = 1 + rng() % 3;
    static constexpr const char *kChances[] = {"0.02", "0.1", "0.25", "0.5"};
    std::vector<std::string> plans;
    for (size_t i = 0; i < n; ++i) {
        const auto call = static_cast<FaultCall>(rng() % static_cast<size_t>(FaultCall::Count));
        plans.push_back(std::string(Runtime::fault_call_name(call)) + ":p" + kChances[rng() % 4] +
                        "/" + std::to_string(rng() % 100000));
    }
    return plans;
}

// The child's side of one run: 0 healthy, 1 problems (printed), 77 skipped.
int play(dm::sim::Scenario sc, const std::vector<std::string> &plans, uint64_t *failed) {
    if (isolate(sc) != 0) return kSkipped;  // the machine's failure, not the library's
    std::string problems;
    dm::sim::Options opt;
    opt.linked = &linked_library();
    opt.threaded = true;
    opt.wait_limit = std::chrono::milliseconds(200);  // a lock left held costs a moment only
    opt.faults = plans;
    opt.final_check = [&](dm::sim::Sim &sim) {
        for (size_t k = 0; k < static_cast<size_t>(FaultCall::Count); ++k)
            *failed += sim.rt().faults(static_cast<FaultCall>(k));
        problems = closing_problems() + unlogged_refusals(sim.rt());
        return problems;
    };
    dm::testkit::reset_library_state();
    fake_clock::reset();
    FILE *sink = std::fopen("/dev/null", "w");
    dm::sim::run_scenario(sc, opt, sink != nullptr ? sink : stdout);
    if (sink != nullptr) std::fclose(sink);
    dm::testkit::reset_library_state();  // its held events back before the runtime's reset
    Runtime::instance().reset();
    if (!problems.empty()) std::printf("problems: %s\n", problems.c_str());
    return problems.empty() ? 0 : 1;
}

struct Tally {
    long runs = 0, skipped = 0, failed = 0;
    uint64_t calls_failed = 0;
};

// One run in a process of its own.
void run_one(const dm::sim::Scenario &sc, uint64_t seed, Tally &tally) {
    const std::vector<std::string> plans = plans_of(seed);
    int pipe_fd[2] = {-1, -1};
    std::fflush(nullptr);
    const pid_t pid = pipe(pipe_fd) == 0 ? fork() : -1;
    if (pid == 0) {
        close(pipe_fd[0]);
        alarm(kRunSeconds);
        uint64_t failed = 0;
        int rc = play(sc, plans, &failed);
        // A normal exit, so that a sanitizer reports at its end; the run's
        // threads are stopped by now.
        if (write(pipe_fd[1], &failed, sizeof failed) != sizeof failed) rc = 1;
        std::exit(rc);  // NOLINT(concurrency-mt-unsafe)
    }
    close(pipe_fd[1]);
    uint64_t failed = 0;
    const bool got = pid > 0 && read(pipe_fd[0], &failed, sizeof failed) == sizeof failed;
    close(pipe_fd[0]);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ++tally.runs;
    tally.calls_failed += got ? failed : 0;
    const int code = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    tally.skipped += code == kSkipped;
    if (code == 0 || code == kSkipped) return;
    const std::string what =
            code == 1           ? "problems in the end state"
            : pid <= 0          ? "no process for the run"
            : WIFEXITED(status) ? "exit " + std::to_string(code) + " (a sanitizer's report above)"
            : WTERMSIG(status) == SIGALRM
                    ? "hung"
                    : "crashed: " + std::string(sigdescr_np(WTERMSIG(status)));
    std::string plan_text;
    for (const std::string &p : plans) plan_text += " --fail " + p;
    std::printf(
            "CHAOS FAIL seed %llu %s:%s: %s\n  replay: dm_test --chaos --seed %llu --runs 1 %s\n",
            static_cast<unsigned long long>(seed), sc.file.c_str(), plan_text.c_str(), what.c_str(),
            static_cast<unsigned long long>(seed), sc.file.c_str());
    ++tally.failed;
}

}  // namespace

int run_chaos(int argc, char **argv) {
    unsigned long long seed = 1, runs = 0, minutes = 0;
    std::vector<dm::sim::Scenario> scenarios;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        unsigned long long *value = arg == "--seed"      ? &seed
                                    : arg == "--runs"    ? &runs
                                    : arg == "--minutes" ? &minutes
                                                         : nullptr;
        std::string error;
        if (value != nullptr && i + 1 < argc) {
            *value = std::strtoull(argv[++i], nullptr, 10);
        } else if (!dm::sim::parse_scenario_file(arg, scenarios.emplace_back(), error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return dm::sim::kExitUsage;
        }
    }
    if (scenarios.empty() || (runs == 0) == (minutes == 0)) {
        std::fprintf(stderr,
                     "usage: dm_test --chaos [--seed S] (--runs N | --minutes M) SCENARIO...\n");
        return dm::sim::kExitUsage;
    }
    const auto until =
            std::chrono::steady_clock::now() + std::chrono::minutes(static_cast<long>(minutes));
    Tally tally;
    for (unsigned long long r = 0; runs > 0 ? r < runs : std::chrono::steady_clock::now() < until;
         ++r) {
        run_one(scenarios[r % scenarios.size()], seed + r, tally);
    }
    std::printf(
            "chaos: seeds %llu..%llu, %zu scenarios, %ld runs (%ld skipped), %llu calls "
            "failed, %ld runs not healthy\n",
            seed, seed + tally.runs - 1, scenarios.size(), tally.runs, tally.skipped,
            static_cast<unsigned long long>(tally.calls_failed), tally.failed);
    return tally.failed == 0 ? 0 : 1;
}

}  // namespace dm_test

// dm_bench: the data manager's event paths against their copy floors.
//
//   dm_bench [Google Benchmark flags]          times, then a table of them
//   dm_bench --instructions N                  callgrind's windows (under valgrind)
//   dm_bench --instructions-report N PREFIX    the table of instructions from them
//
// Each path runs as floor/<path> (its copies alone), <path>/log_off
// (dm_debug_lv 0) and <path>/log_on (15).  The table gives per event the
// median real time of the repetitions when there are some, else the one run.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench/bench.h"

namespace bench {
namespace {

void run_floor(benchmark::State &state, const Path *path) {
    Floor floor = path->floor;
    for ([[maybe_unused]] auto _ : state) {
        floor.once();
        benchmark::ClobberMemory();
    }
}

void run_path(benchmark::State &state, const Path *path, bool log_on) {
    Harness h;
    Event event;
    size_t lines = 0;
    const std::string why = prepare(h, *path, log_on, event, lines);
    if (why.empty()) {
        for ([[maybe_unused]] auto _ : state) one_event(h, event);
    } else {
        state.SkipWithError(why.c_str());
    }
    state.counters["lines"] = static_cast<double>(lines);
    finish(event);
}

struct Result {
    double ns = 0;
    double lines = 0;
    bool median = false;
};

// The console's report, with each benchmark's result kept for the table.
class TableReporter : public benchmark::ConsoleReporter {
  public:
    using ConsoleReporter::ConsoleReporter;

    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (run.run_type == Run::RT_Aggregate && !median)) continue;
            Result &r = results_[run.run_name.str()];
            if (r.median && !median) continue;
            r.ns = run.GetAdjustedRealTime();  // in ns, the default unit
            r.lines = run.counters.count("lines") != 0 ? run.counters.at("lines").value : 0;
            r.median = median;
        }
    }

    void print_table() {
        std::printf(
                "\n| path | floor ns | log off ns | off / floor | log on ns | lines on/off "
                "| ns per line |\n|---|---:|---:|---:|---:|---:|---:|\n");
        for (const Path &p : paths()) {
            const Result floor = results_[std::string("floor/") + p.name];
            const Result off = results_[std::string(p.name) + "/log_off"];
            const Result on = results_[std::string(p.name) + "/log_on"];
            if (floor.ns == 0 || off.ns == 0 || on.ns == 0) continue;
            std::printf("| %s | %.1f | %.1f | %.2f | %.1f | %.0f/%.0f |", p.label, floor.ns, off.ns,
                        off.ns / floor.ns, on.ns, on.lines, off.lines);
            if (on.lines > off.lines) {
                std::printf(" %.0f |\n", (on.ns - off.ns) / (on.lines - off.lines));
            } else {
                std::printf(" – |\n");
            }
        }
    }

  private:
    std::map<std::string, Result> results_;
};

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    if (argc == 3 && std::string(argv[1]) == "--instructions") {
        bench::count_windows(static_cast<int>(std::strtol(argv[2], nullptr, 10)));
        return 0;
    }
    if (argc == 4 && std::string(argv[1]) == "--instructions-report") {
        return bench::report_instructions(argv[3],
                                          static_cast<int>(std::strtol(argv[2], nullptr, 10)))
                       ? 0
                       : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (const bench::Path &p : bench::paths()) {
        const std::string name = p.name;
        benchmark::RegisterBenchmark(("floor/" + name).c_str(), bench::run_floor, &p);
        benchmark::RegisterBenchmark((name + "/log_off").c_str(), bench::run_path, &p, false);
        benchmark::RegisterBenchmark((name + "/log_on").c_str(), bench::run_path, &p, true);
    }
    bench::TableReporter reporter(isatty(STDOUT_FILENO) != 0
                                          ? benchmark::ConsoleReporter::OO_ColorTabular
                                          : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fflush(stdout);
    reporter.print_table();
    benchmark::Shutdown();
    return 0;
}

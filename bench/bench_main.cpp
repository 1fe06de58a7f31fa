// dm_bench: the data manager's event paths against their memory-copy floors,
// and the host runtime's throughput.  Google Benchmark's own flags apply
// (--benchmark_filter, --benchmark_repetitions, ...).  After the run a
// summary gives, per path, the time per event with logging off and on, the
// floor, the ratio path/floor, the heap allocations per event and the cost
// of a log line; with repetitions the medians are used.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "bench/alloc_hook.h"
#include "bench/bench.h"

namespace bench {

std::vector<Comparison> &comparisons() {
    static std::vector<Comparison> list;
    return list;
}

std::vector<std::string> &runtime_benchmarks() {
    static std::vector<std::string> list;
    return list;
}

namespace {

struct Result {
    double ns = 0;  // real time per iteration
    std::map<std::string, double> counters;
    bool from_median = false;
};

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

// Prints as the console reporter does and keeps each benchmark's result
// (the median when repetitions are asked for) for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
  public:
    using ConsoleReporter::ConsoleReporter;

    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) continue;
            Result &r = results_[run.run_name.str()];
            if (r.from_median && !median) continue;
            r.from_median = median;
            r.ns = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) *
                   1e9;
            r.counters.clear();
            for (const auto &[name, counter] : run.counters) r.counters[name] = counter.value;
        }
    }

    void print_summary(FILE *out) const {
        std::fprintf(out, "\nSummary (%s; load average now %s)\n",
                     any_median() ? "medians of the repetitions" : "single runs",
                     load_average().c_str());
        std::fprintf(out, "%-24s %10s %10s %7s %10s %7s %7s %9s %6s %6s %10s\n", "path", "floor ns",
                     "off ns", "off/fl", "on ns", "on/fl", "allocs", "main_hdl", "lines", "(off)",
                     "ns/line");
        for (const Comparison &c : comparisons()) {
            const Result *off = find(c.off);
            const Result *on = find(c.on);
            const Result *floor = find(c.floor);
            if (off == nullptr && on == nullptr) continue;
            std::string line = cell("%-24s", c.label.c_str());
            line += floor != nullptr ? cell(" %10.1f", floor->ns) : cell(" %10s", "-");
            line += off != nullptr ? cell(" %10.1f", off->ns) : cell(" %10s", "-");
            line += off != nullptr && floor != nullptr ? cell(" %7.2f", off->ns / floor->ns)
                                                       : cell(" %7s", "-");
            line += on != nullptr ? cell(" %10.1f", on->ns) : cell(" %10s", "-");
            line += on != nullptr && floor != nullptr ? cell(" %7.2f", on->ns / floor->ns)
                                                      : cell(" %7s", "-");
            const Result *any = off != nullptr ? off : on;
            line += cell(" %7.3f", counter(*any, "allocs_per_ev"));
            line += cell(" %9.3f", counter(*any, "main_hdl_allocs"));
            line += on != nullptr ? cell(" %6.0f", counter(*on, "log_lines")) : cell(" %6s", "-");
            line += off != nullptr ? cell(" %6.0f", counter(*off, "log_lines")) : cell(" %6s", "-");
            const double extra = on != nullptr && off != nullptr
                                         ? counter(*on, "log_lines") - counter(*off, "log_lines")
                                         : 0;
            line += extra > 0 ? cell(" %10.1f", (on->ns - off->ns) / extra) : cell(" %10s", "-");
            std::fprintf(out, "%s\n", line.c_str());
        }
        std::fprintf(
                out,
                "  floor: the path's copies alone (memcpy/memset); off/on: dm_debug_lv 0/15,\n"
                "  lines formatted and discarded; allocs: heap allocations per event of the\n"
                "  whole process (log off when run); main_hdl: of them inside the main handler;\n"
                "  lines: log lines per event (on, off); ns/line: (on - off) / extra lines\n");
        for (const std::string &name : runtime_benchmarks()) {
            const Result *r = find(name);
            if (r == nullptr) continue;
            double allocs = counter(*r, "allocs_per_ev");
            if (r->counters.count("allocs_per_rt") != 0) allocs = counter(*r, "allocs_per_rt");
            std::fprintf(out, "%-40s %10.1f ns  %12.0f per second  %5.2f allocs each\n",
                         name.c_str(), r->ns, 1e9 / r->ns, allocs);
        }
    }

  private:
    bool any_median() const {
        for (const auto &[name, r] : results_) {
            if (r.from_median) return true;
        }
        return false;
    }
    const Result *find(const std::string &name) const {
        auto it = results_.find(name);
        return it != results_.end() ? &it->second : nullptr;
    }
    template <class T>
    static std::string cell(const char *fmt, T value) {
        char buf[64];
        std::snprintf(buf, sizeof buf, fmt, value);
        return buf;
    }
    static double counter(const Result &r, const std::string &name) {
        auto it = r.counters.find(name);
        return it != r.counters.end() ? it->second : 0;
    }

    std::map<std::string, Result> results_;
};

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    // dm_bench --instructions N: the collection windows for callgrind;
    // dm_bench --instructions-report N DIR: the table from their dumps.
    if (argc == 3 && std::string(argv[1]) == "--instructions") {
        bench::count_library_cases(std::atoi(argv[2]));
        return 0;
    }
    if (argc == 4 && std::string(argv[1]) == "--instructions-report") {
        return bench::report_instructions(argv[3], std::atoi(argv[2])) ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    bench::register_library_cases();
    bench::register_runtime_cases();
    bench::SummaryReporter reporter(isatty(STDOUT_FILENO) != 0
                                            ? benchmark::ConsoleReporter::OO_ColorTabular
                                            : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fflush(stdout);
    reporter.print_summary(stdout);
    benchmark::Shutdown();
    return 0;
}

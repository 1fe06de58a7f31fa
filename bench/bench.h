// Shared declarations of the benchmark program: the registry of comparisons
// printed in the summary after the run, and the registration of each group.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <string>
#include <vector>

namespace bench {

// One line of the summary: a library case with logging off and on, and the
// memcpy floor of the same copies.
struct Comparison {
    std::string label;
    std::string off;    // benchmark name, dm_debug_lv 0
    std::string on;     // benchmark name, dm_debug_lv 15
    std::string floor;  // benchmark name of the copies alone
};

std::vector<Comparison> &comparisons();

// Names of the host runtime's benchmarks, for their own summary lines.
std::vector<std::string> &runtime_benchmarks();

void register_library_cases();
void register_runtime_cases();

// Instruction counts (dm_bench --instructions N, run under valgrind's
// callgrind with --collect-atstart=no): each library case, log off and on,
// and its floor, N events each, in a collection window of its own dumped
// under the benchmark's name.
void count_library_cases(int iterations);
// Reads those dumps (callgrind.out.* in `dir`) and prints, per event, the
// instructions inside the library, inside the host runtime and of the
// floor.  False when no dump is found.
bool report_instructions(const std::string &dir, int iterations);

}  // namespace bench

#endif  // BENCH_BENCH_H

// Heap allocation counter of the benchmark programs.
//
// The programs define malloc and its relatives (operator new of the C++
// library reaches malloc), so every allocation of the process is counted,
// the library's, the runtime's and the C library's alike.  A scope marks the
// allocations made while a data manager handler runs.
#ifndef BENCH_ALLOC_HOOK_H
#define BENCH_ALLOC_HOOK_H

#include <cstdint>

namespace bench {

// Allocations of the whole process since it started.
uint64_t allocations();
// Allocations made while a HandlerScope was open.
uint64_t allocations_in_handlers();

// Open while a handler of the data manager runs (not nested across threads:
// the deterministic runtime runs every handler on the benchmark's thread).
class HandlerScope {
  public:
    HandlerScope();
    ~HandlerScope();
    HandlerScope(const HandlerScope &) = delete;
    HandlerScope &operator=(const HandlerScope &) = delete;
};

}  // namespace bench

#endif  // BENCH_ALLOC_HOOK_H

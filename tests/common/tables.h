// The modes of the test program besides its GoogleTest tables: a scenario
// table run in-process, and the fault sweep over the shipped scenarios.
#ifndef TESTS_COMMON_TABLES_H
#define TESTS_COMMON_TABLES_H

#include "sim/sim.h"

namespace dm_test {

constexpr int kSkipped = 77;  // CTest's SKIP_RETURN_CODE

// Puts the scenario in a network namespace of its own when it declares
// interfaces or this process may make one (root), so that no run sees the
// interfaces of another.  Prints why not and returns kSkipped (not allowed
// on this machine) or kExitEnv (failed); 0 once inside.
int isolate(dm::sim::Scenario &sc);
// The library's entry points as linked into this program.
const dm::sim::EntityLinks &linked_library();
// What a run leaves wrong: events unaccounted for, events freed twice, the
// dispatcher's event kept, getifaddrs lists not freed.  Empty when nothing.
std::string closing_problems();
// A call failed by a fault plan whose thread does not log next at error
// level: the routine that saw the failure must say so.  An absent property
// is a state the library has defaults for, not an error.
std::string unlogged_refusals(const evfw_host::Runtime &rt);
// Fails each covered call of each scenario in turn (main.cpp: --sweep).
int run_sweep(int argc, char **argv);
// Plays the scenarios threaded with random calls failing (main.cpp: --chaos).
int run_chaos(int argc, char **argv);

}  // namespace dm_test

#endif  // TESTS_COMMON_TABLES_H

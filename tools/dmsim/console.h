// dmsim at: an interactive AT console on the data manager's AT command
// interface, with the scripted RIL proxy behind it.
#ifndef DMSIM_CONSOLE_H
#define DMSIM_CONSOLE_H

#include <cstdio>
#include <istream>

#include "sim/sim.h"

namespace dmsim {

// Reads AT lines from `in` until its end or "!quit"; the exit status.
int run_console(const dm::sim::Options &options, std::istream &in, bool interactive, FILE *out);

}  // namespace dmsim

#endif  // DMSIM_CONSOLE_H

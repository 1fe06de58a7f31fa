// dmsim at: an interactive AT console on the data manager's AT command
// interface, with the scripted RIL proxy behind it, and optionally served on
// a pseudo-terminal as a modem's AT port.
#ifndef DMSIM_CONSOLE_H
#define DMSIM_CONSOLE_H

#include <cstdio>
#include <istream>
#include <string>

#include "sim/sim.h"

namespace dmsim {

// Reads AT lines from `in` until its end or "!quit"; the exit status.
int run_console(const dm::sim::Options &options, std::istream &in, bool interactive, FILE *out);

// The same console, standard input included, while the AT port linked at
// `path` serves its client: the client's lines are answered on the port,
// URCs go to the port between answers.  Runs until "!quit" or SIGINT,
// SIGTERM or SIGHUP; the end of standard input does not end it.
int run_port_console(const dm::sim::Options &options, const std::string &path, bool interactive,
                     FILE *out);

}  // namespace dmsim

#endif  // DMSIM_CONSOLE_H

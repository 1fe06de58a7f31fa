// The platform calls plugged in beside the framework: Android logging
// (log.cpp), system properties (properties.cpp) and the fault plans that
// make imported calls fail (faults.cpp).
#ifndef EVFW_HOST_PLUGS_H
#define EVFW_HOST_PLUGS_H

#include <cstddef>

#include "evfw_host/runtime.h"
#include "lock.h"

namespace evfw_host {

// The number of log lines captured so far.
size_t log_count(const Guard &);
// Forgets the lines; with `settings`, capture goes back on and echo off.
void reset_logs(const Guard &, bool settings);

void reset_properties(const Guard &);

// Counts a call to `call` while a plan is armed, and tells whether a plan
// makes it fail (a diagnostic says so).  `status`: what a failing system()
// returns.
bool fault(FaultCall call, int *status = nullptr);
void reset_faults(const Guard &);

}  // namespace evfw_host

#endif  // EVFW_HOST_PLUGS_H

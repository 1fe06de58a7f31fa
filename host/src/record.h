// What the runtime records of a run: the trace of sends, the framework calls
// the entities made at their start, and the runtime's own diagnostics
// ("evfw_host: ..."), each placed among the sends and the log lines.
#ifndef EVFW_HOST_RECORD_H
#define EVFW_HOST_RECORD_H

#include <string>

#include "events.h"
#include "evfw_host/runtime.h"

namespace evfw_host {

// Records a send while the trace is on; `dropped`: no context serves `to`.
void trace_send(const Guard &, uint32_t from, uint32_t to, const evfw_event *ev, bool dropped);
void record_call(const Guard &, std::string call);
void record_subscription(const Subscription &s);
void record_urc_subscription(const UrcSubscription &s);

// A diagnostic, recorded in its place.
void diag(const Guard &, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Counts a foreign unlock of a framework mutex, and a wait (send-and-wait,
// mutex, init) that gave up.
void note_bad_unlock(const Guard &);
void note_timeout(const Guard &);

// Forgets what was recorded, counts included; with `settings`, also the
// calls and subscriptions, and the trace is back on.
void reset_record(const Guard &, bool settings);

}  // namespace evfw_host

#endif  // EVFW_HOST_RECORD_H

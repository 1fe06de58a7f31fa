// The trace, the record of framework calls, and the diagnostics.
#include "record.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "plugs.h"

namespace evfw_host {

namespace {

struct Record {
    std::vector<TraceEntry> trace;
    uint64_t last_seq = 0;
    bool trace_on = true;
    std::vector<std::string> calls;
    std::vector<Subscription> subscriptions;
    std::vector<UrcSubscription> urc_subscriptions;
    std::vector<Diagnostic> diagnostics;
    long bad_unlocks = 0;
    long timeouts = 0;
};

Record &record() {
    static Record *r = new Record;
    return *r;
}

}  // namespace

void trace_send(const Guard &, uint32_t from, uint32_t to, const evfw_event *ev, bool dropped) {
    Record &r = record();
    if (!r.trace_on) return;
    r.trace.push_back(TraceEntry{++r.last_seq, from, to, ev->id, ev->ext_id, ev->chnl,
                                 ev->data.size(), ev->data, dropped});
}

void record_call(const Guard &, std::string call) {
    record().calls.push_back(std::move(call));
}

void record_subscription(const Subscription &s) {
    Guard g = lock();
    record().subscriptions.push_back(s);
    record_call(g, "evfw_connmngr_common_subscribe(" + std::to_string(s.task_id) + "," +
                           std::to_string(s.event_id) + "," + std::to_string(s.mode) + ")");
}

void record_urc_subscription(const UrcSubscription &s) {
    Guard g = lock();
    record().urc_subscriptions.push_back(s);
    record_call(g, "evfw_atmngr_subscribe_urc(" + std::to_string(s.task_id) + "," + s.prefix + "," +
                           std::to_string(s.event_id) + "," + std::to_string(s.mode) + ")");
}

// printf-style, as the log lines beside them; the format attribute checks
// every call.
void diag(const Guard &g, const char *fmt, ...) {  // NOLINT(cert-dcl50-cpp)
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    Record &r = record();
    r.diagnostics.push_back(Diagnostic{r.last_seq, log_count(g), text, syscall(SYS_gettid)});
}

void note_bad_unlock(const Guard &) {
    ++record().bad_unlocks;
}

void note_timeout(const Guard &) {
    ++record().timeouts;
}

void reset_record(const Guard &, bool settings) {
    Record &r = record();
    r.bad_unlocks = r.timeouts = 0;
    r.trace.clear();
    r.last_seq = 0;
    r.diagnostics.clear();
    if (!settings) return;
    r.trace_on = true;
    r.calls.clear();
    r.subscriptions.clear();
    r.urc_subscriptions.clear();
}

std::vector<TraceEntry> Runtime::trace() const {
    Guard g = lock();
    return record().trace;
}

void Runtime::clear_trace() {
    Guard g = lock();
    record().trace.clear();
}

void Runtime::set_trace(bool on) {
    Guard g = lock();
    record().trace_on = on;
}

std::vector<Subscription> Runtime::subscriptions() const {
    Guard g = lock();
    return record().subscriptions;
}

std::vector<UrcSubscription> Runtime::urc_subscriptions() const {
    Guard g = lock();
    return record().urc_subscriptions;
}

std::vector<std::string> Runtime::calls() const {
    Guard g = lock();
    return record().calls;
}

std::vector<Diagnostic> Runtime::diagnostics() const {
    Guard g = lock();
    return record().diagnostics;
}

long Runtime::bad_unlocks() const {
    Guard g = lock();
    return record().bad_unlocks;
}

long Runtime::timeouts() const {
    Guard g = lock();
    return record().timeouts;
}

}  // namespace evfw_host

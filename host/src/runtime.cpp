// Runtime: the control API of tests and tools, and the peers.
#include "evfw_host/runtime.h"

#include <cinttypes>

#include "internal.h"

namespace evfw_host {

struct Runtime::Impl {
    Core &core;
};

Runtime::Runtime() : impl_(std::make_unique<Impl>(Impl{evfw_host::core()})) {}

Runtime &Runtime::instance() {
    static Runtime rt;
    return rt;
}

void Runtime::reset(Mode mode) {
    impl_->core.reset(mode);
}
void Runtime::new_round() {
    impl_->core.new_round();
}
Mode Runtime::mode() const {
    return impl_->core.mode.load();
}

evfw_entity_t *Runtime::load(const std::string &name, const EntityAbi &abi) {
    return impl_->core.load(name, abi, nullptr);
}

evfw_entity_t *Runtime::load_library(
        const std::string &path, const std::string &name, const std::string &init_sym,
        const std::string &exit_sym,
        const std::vector<std::pair<uint32_t, std::string>> &ctx_syms) {
    return impl_->core.load_library(path, name, init_sym, exit_sym, ctx_syms);
}

void Runtime::unload() {
    impl_->core.unload();
}
const std::string &Runtime::last_error() const {
    return impl_->core.last_error;
}

Peer &Runtime::add_task(uint32_t task_id) {
    return impl_->core.add_task(task_id);
}
Peer &Runtime::add_client(const std::string &name) {
    return impl_->core.add_client(name);
}
Peer *Runtime::peer(uint32_t id) {
    return impl_->core.peer(id);
}

size_t Runtime::pump() {
    return impl_->core.pump();
}
size_t Runtime::run_threads() {
    return impl_->core.run_threads();
}
bool Runtime::wait_idle(std::chrono::milliseconds timeout) {
    return impl_->core.wait_idle(timeout);
}
void Runtime::set_wait_limit(std::chrono::milliseconds limit) {
    impl_->core.wait_ms = limit.count();
}

std::vector<Subscription> Runtime::subscriptions() const {
    return impl_->core.subscriptions();
}
std::vector<UrcSubscription> Runtime::urc_subscriptions() const {
    return impl_->core.urc_subscriptions();
}
std::vector<std::string> Runtime::calls() const {
    return impl_->core.calls();
}

std::vector<UrcSubscription> Runtime::urc_subscribers(std::string_view line) const {
    std::string_view skipped = line;
    while (!skipped.empty() && (skipped.front() == '\r' || skipped.front() == '\n')) {
        skipped.remove_prefix(1);
    }
    std::vector<UrcSubscription> out;
    for (UrcSubscription &s : impl_->core.urc_subscriptions()) {
        bool match = false;
        if (s.mode & EVFW_URC_MODE_SKIP_CRLF) {
            match = skipped.starts_with(s.prefix);
        } else if (s.mode & EVFW_URC_MODE_LINE_START) {
            match = line.starts_with(s.prefix);
        }
        if (match) out.push_back(std::move(s));
    }
    return out;
}

void Runtime::set_property(const std::string &key, const std::string &value) {
    impl_->core.set_property(key, value);
}
void Runtime::clear_property(const std::string &key) {
    impl_->core.clear_property(key);
}
bool Runtime::load_properties(const std::string &path) {
    return impl_->core.load_properties(path);
}

std::vector<TraceEntry> Runtime::trace() const {
    return impl_->core.trace();
}
void Runtime::clear_trace() {
    impl_->core.clear_trace();
}
void Runtime::set_trace(bool on) {
    impl_->core.set_trace(on);
}
void Runtime::set_trace_data(bool keep_bytes) {
    impl_->core.trace_data = keep_bytes;
}

void Runtime::print_trace(FILE *out) const {
    constexpr size_t kShownBytes = 32;
    const std::vector<Diagnostic> diags = diagnostics();
    size_t next_diag = 0;
    auto diags_until = [&](uint64_t seq) {
        for (; next_diag < diags.size() && diags[next_diag].after_seq < seq; ++next_diag) {
            fprintf(out, "     !! evfw_host: %s\n", diags[next_diag].text.c_str());
        }
    };
    for (const TraceEntry &e : trace()) {
        diags_until(e.seq);
        std::string line;
        char head[256];
        snprintf(head, sizeof head, "%4" PRIu64 " %s(%u) -> %s(%u) %s(%u) len=%zu", e.seq,
                 context_get_name(e.from), e.from, context_get_name(e.to), e.to,
                 event_get_name(e.event_id), e.event_id, e.len);
        line = head;
        if (!e.data.empty()) {
            line += " data=";
            const size_t n = e.data.size() < kShownBytes ? e.data.size() : kShownBytes;
            for (size_t i = 0; i < n; ++i) {
                char hex[3];
                snprintf(hex, sizeof hex, "%02x", e.data[i]);
                line += hex;
            }
            if (e.data.size() > n) line += "...";
        }
        if (e.dropped) line += " (dropped)";
        line += '\n';
        fputs(line.c_str(), out);
    }
    diags_until(UINT64_MAX);
}

std::vector<Diagnostic> Runtime::diagnostics() const {
    return evfw_host::diagnostics();
}
long Runtime::diagnostic_count() const {
    return evfw_host::diagnostic_count();
}
void Runtime::set_diag_echo(FILE *out) {
    evfw_host::set_diag_echo(out);
}

std::vector<LogLine> Runtime::logs() const {
    return impl_->core.logs();
}
void Runtime::for_each_log(const std::function<void(const LogLine &)> &visit) const {
    impl_->core.for_each_log(visit);
}
void Runtime::clear_logs() {
    impl_->core.clear_logs();
}
void Runtime::set_log_capture(bool capture) {
    impl_->core.set_log_capture(capture);
}
void Runtime::set_log_echo(FILE *out) {
    impl_->core.set_log_echo(out);
}

long Runtime::live_events() const {
    return event_store().live();
}
uint64_t Runtime::events_allocated() const {
    return event_store().allocated();
}
uint64_t Runtime::events_freed() const {
    return event_store().freed();
}
long Runtime::bad_frees() const {
    return event_store().bad_frees();
}
long Runtime::bad_unlocks() const {
    return impl_->core.bad_unlocks();
}
long Runtime::timeouts() const {
    return impl_->core.timeouts();
}

// ---- peers ------------------------------------------------------------------------

void PeerImpl::on_receive(PeerHandler handler) {
    core().set_peer_handler(ctx_, std::move(handler));
}

inline int PeerImpl::send_event(evfw_event_t *ev, uint32_t to, uint32_t event_id, const void *data,
                                size_t len) {
    if (ev == nullptr) return -1;
    event_set_id(ev, event_id);
    if (event_set_data(ev, 0, data, len) == nullptr) {
        evfw_event_free(ev);
        return -1;
    }
    // The runtime's own calls: no fault plan applies to a peer.
    core().send_new(ctx_, ev, to);
    return 0;
}

int PeerImpl::send(uint32_t to, uint32_t event_id, const void *data, size_t len) {
    return send_event(alloc_event(nullptr), to, event_id, data, len);
}

int PeerImpl::reply(const evfw_event_t *request, uint32_t to, uint32_t event_id, const void *data,
                    size_t len) {
    return send_event(alloc_event(request), to, event_id, data, len);
}

std::vector<TraceEntry> PeerImpl::received() const {
    return core().trace_to(ctx_->id);
}

}  // namespace evfw_host

// Fault plans, counted from the first plan armed; and the C library's calls
// that plans can fail, wrapped in front of the C library's own.
#include "plugs.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <vector>

#include "record.h"

namespace evfw_host {

namespace {

constexpr size_t kCalls = static_cast<size_t>(FaultCall::Count);

// clang-format off
constexpr std::array<const char *, kCalls> kNames = {
        "evfw_event_alloc", "evfw_task_send_event", "evfw_context_common_send",
        "evfw_task_bcast_ext_event", "evfw_task_send_recv_event", "evfw_mutex_init",
        "evfw_thrd_init", "evfw_task_init", "property_get", "getifaddrs", "if_indextoname",
        "socket", "bind", "send", "recv", "system"};
// clang-format on

struct Plan {
    FaultCall call;
    uint64_t nth = 0;        // the first call to fail, from 1
    bool onward = false;     // and every later one
    double probability = 0;  // instead: each call with this probability
    uint64_t rng = 0;        // the plan's random state (splitmix64), from its seed
    int status = 256;        // what a failing system() returns
};

struct Faults {
    std::vector<Plan> plans;
    std::array<uint64_t, kCalls> calls{};
    std::array<uint64_t, kCalls> failed{};
};

Faults &faults_store() {
    static Faults *f = new Faults;
    return *f;
}

uint64_t next_random(uint64_t &state) {
    uint64_t z = (state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

template <class T>
bool parse_number(std::string_view text, T &out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool fault(FaultCall call, int *status) {
    Guard g = lock();
    Faults &f = faults_store();
    if (f.plans.empty()) return false;
    const size_t i = static_cast<size_t>(call);
    const uint64_t n = ++f.calls[i];
    for (Plan &p : f.plans) {
        if (p.call != call) continue;
        const bool fail =
                p.probability > 0
                        ? static_cast<double>(next_random(p.rng) >> 11) * 0x1.0p-53 < p.probability
                        : n == p.nth || (p.onward && n > p.nth);
        if (!fail) continue;
        if (status != nullptr) *status = p.status;
        ++f.failed[i];
        diag(g, "fault plan: %s call %llu fails", kNames[i], static_cast<unsigned long long>(n));
        return true;
    }
    return false;
}

void reset_faults(const Guard &) {
    Faults &f = faults_store();
    f.plans.clear();
    f.calls.fill(0);
    f.failed.fill(0);
}

bool Runtime::add_fault(std::string_view plan, std::string &error) {
    const size_t colon = plan.find(':');
    const std::string_view name = plan.substr(0, colon);
    size_t i = 0;
    while (i < kCalls && name != kNames[i]) ++i;
    if (i == kCalls || colon == std::string_view::npos) {
        error = "fault plan '" + std::string(plan) + "': expected <call>:<when>, the call one of";
        for (const char *n : kNames) error += std::string(" ") + n;
        return false;
    }
    Plan p;
    p.call = static_cast<FaultCall>(i);
    std::string_view when = plan.substr(colon + 1);
    if (const size_t eq = when.find('='); eq != std::string_view::npos) {
        if (p.call != FaultCall::System || !parse_number(when.substr(eq + 1), p.status)) {
            error = "fault plan '" + std::string(plan) + "': only system takes =<status>";
            return false;
        }
        when = when.substr(0, eq);
    }
    bool ok;
    if (when.starts_with("p")) {
        const size_t slash = when.find('/');
        ok = parse_number(when.substr(1, slash - 1), p.probability) && p.probability > 0 &&
             p.probability <= 1 &&
             (slash == std::string_view::npos || parse_number(when.substr(slash + 1), p.rng));
    } else {
        p.onward = when.ends_with("-");
        ok = parse_number(when.substr(0, when.size() - (p.onward ? 1 : 0)), p.nth) && p.nth > 0;
    }
    if (!ok) {
        error = "fault plan '" + std::string(plan) +
                "': expected <n>, <n>- or p<probability>[/<seed>] after the call";
        return false;
    }
    Guard g = lock();
    Faults &f = faults_store();
    if (f.plans.empty()) {  // the first plan starts the count
        f.calls.fill(0);
        f.failed.fill(0);
    }
    f.plans.push_back(p);
    return true;
}

void Runtime::clear_faults() {
    Guard g = lock();
    faults_store().plans.clear();
}

uint64_t Runtime::calls(FaultCall call) const {
    Guard g = lock();
    return faults_store().calls[static_cast<size_t>(call)];
}

uint64_t Runtime::faults(FaultCall call) const {
    Guard g = lock();
    return faults_store().failed[static_cast<size_t>(call)];
}

const char *Runtime::fault_call_name(FaultCall call) {
    return kNames[static_cast<size_t>(call)];
}

}  // namespace evfw_host

// ---- the C library's calls, in front of the C library's own ----------------------

namespace {

// Calls the C library's `name` unless a plan fails `call`: then errno is
// `err` and the result `failed`.
template <auto failed, int err, class Fn, class... Args>
auto unless_failed(evfw_host::FaultCall call, const char *name, Args... args) {
    static const auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    if (!evfw_host::fault(call)) return real(args...);
    errno = err;
    return static_cast<decltype(real(args...))>(failed);
}

using evfw_host::FaultCall;

}  // namespace

extern "C" {

int getifaddrs(struct ifaddrs **list) {
    return unless_failed<-1, ENOMEM, int (*)(ifaddrs **)>(FaultCall::Getifaddrs, "getifaddrs",
                                                          list);
}

char *if_indextoname(unsigned index, char *name) {
    return unless_failed<nullptr, ENXIO, char *(*)(unsigned, char *)>(
            FaultCall::IfIndexToName, "if_indextoname", index, name);
}

int socket(int domain, int type, int protocol) {
    return unless_failed<-1, EMFILE, int (*)(int, int, int)>(FaultCall::Socket, "socket", domain,
                                                             type, protocol);
}

int bind(int sock, const struct sockaddr *addr, socklen_t len) {
    return unless_failed<-1, EADDRINUSE, int (*)(int, const sockaddr *, socklen_t)>(
            FaultCall::Bind, "bind", sock, addr, len);
}

ssize_t send(int sock, const void *buf, size_t len, int flags) {
    return unless_failed<-1, ENOBUFS, ssize_t (*)(int, const void *, size_t, int)>(
            FaultCall::Send, "send", sock, buf, len, flags);
}

ssize_t recv(int sock, void *buf, size_t len, int flags) {
    return unless_failed<-1, EAGAIN, ssize_t (*)(int, void *, size_t, int)>(FaultCall::Recv, "recv",
                                                                            sock, buf, len, flags);
}

int system(const char *command) {
    static const auto real = reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"));
    int status = 0;
    return evfw_host::fault(FaultCall::System, &status) ? status : real(command);
}

}  // extern "C"

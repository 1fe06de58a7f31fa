// Fault plans: the calls an entity imports made to fail on purpose, counted
// from the last reset.  The framework's and property calls check their plan
// where they are implemented; the C library's calls are wrapped here, in the
// hosting process, in front of the C library's own.
#include <dlfcn.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "internal.h"

namespace evfw_host {

namespace {

constexpr size_t kCalls = static_cast<size_t>(FaultCall::Count);

constexpr std::array<const char *, kCalls> kNames = {"evfw_event_alloc",
                                                     "evfw_task_send_event",
                                                     "evfw_context_common_send",
                                                     "evfw_task_bcast_ext_event",
                                                     "evfw_task_send_recv_event",
                                                     "evfw_mutex_init",
                                                     "evfw_thrd_init",
                                                     "evfw_task_init",
                                                     "property_get",
                                                     "getifaddrs",
                                                     "if_indextoname",
                                                     "socket",
                                                     "bind",
                                                     "send",
                                                     "recv",
                                                     "system"};

struct Plan {
    FaultCall call;
    uint64_t nth = 0;        // the first call to fail, from 1
    bool onward = false;     // and every later one
    double probability = 0;  // instead: each call with this probability
    uint64_t rng = 0;        // the plan's random state (splitmix64)
    int status = 256;        // what a failing system() returns
};

// Constant-initialised and never destroyed: wrapped C library calls may come
// from any static object's constructor or destructor.
struct Faults {
    std::array<std::atomic<uint64_t>, kCalls> calls{};
    std::array<std::atomic<uint64_t>, kCalls> failed{};
    std::mutex mu;
    std::vector<Plan> *plans = nullptr;
};
constinit Faults g_faults;

}  // namespace

constinit std::atomic<bool> g_faults_armed{false};

namespace {

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

bool fault_armed(FaultCall call, int *status) {
    const size_t i = static_cast<size_t>(call);
    const uint64_t n = g_faults.calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
    bool fail = false;
    {
        std::lock_guard lk(g_faults.mu);
        for (Plan &p : *g_faults.plans) {
            if (p.call != call) continue;
            if (p.probability > 0) {
                fail = static_cast<double>(next_random(p.rng) >> 11) * 0x1.0p-53 < p.probability;
            } else {
                fail = n == p.nth || (p.onward && n > p.nth);
            }
            if (fail) {
                if (status != nullptr) *status = p.status;
                break;
            }
        }
    }
    if (!fail) return false;
    g_faults.failed[i].fetch_add(1, std::memory_order_relaxed);
    diag("fault plan: %s call %llu fails", kNames[i], static_cast<unsigned long long>(n));
    return true;
}

void reset_faults() {
    std::lock_guard lk(g_faults.mu);
    if (g_faults.plans != nullptr) g_faults.plans->clear();
    g_faults_armed = false;
    for (auto &c : g_faults.calls) c = 0;
    for (auto &c : g_faults.failed) c = 0;
}

bool Runtime::add_fault(std::string_view plan, std::string &error) {
    const size_t colon = plan.find(':');
    const std::string_view name = plan.substr(0, colon);
    Plan p;
    size_t i = 0;
    while (i < kCalls && name != kNames[i]) ++i;
    if (i == kCalls || colon == std::string_view::npos) {
        error = "fault plan '" + std::string(plan) + "': expected <call>:<when>, the call one of";
        for (const char *n : kNames) error += std::string(" ") + n;
        return false;
    }
    p.call = static_cast<FaultCall>(i);
    std::string_view when = plan.substr(colon + 1);
    if (size_t eq = when.find('='); eq != std::string_view::npos) {
        if (p.call != FaultCall::System || !parse_number(when.substr(eq + 1), p.status)) {
            error = "fault plan '" + std::string(plan) + "': only system takes =<status>";
            return false;
        }
        when = when.substr(0, eq);
    }
    bool ok;
    if (when.starts_with("p")) {
        const size_t slash = when.find('/');
        const std::string probability(when.substr(1, slash - 1));
        char *end = nullptr;
        p.probability = std::strtod(probability.c_str(), &end);
        ok = !probability.empty() && *end == '\0' && p.probability > 0 && p.probability <= 1 &&
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
    std::lock_guard lk(g_faults.mu);
    if (g_faults.plans == nullptr) g_faults.plans = new std::vector<Plan>;
    if (!g_faults_armed) {
        // The first plan starts the count.
        for (auto &c : g_faults.calls) c = 0;
        for (auto &c : g_faults.failed) c = 0;
    }
    g_faults.plans->push_back(p);
    g_faults_armed = true;
    return true;
}

void Runtime::clear_faults() {
    std::lock_guard lk(g_faults.mu);
    if (g_faults.plans != nullptr) g_faults.plans->clear();
    g_faults_armed = false;
}

uint64_t Runtime::calls(FaultCall call) const {
    return g_faults.calls[static_cast<size_t>(call)].load();
}

uint64_t Runtime::faults(FaultCall call) const {
    return g_faults.failed[static_cast<size_t>(call)].load();
}

const char *Runtime::fault_call_name(FaultCall call) {
    return kNames[static_cast<size_t>(call)];
}

}  // namespace evfw_host

// ---- the C library's calls, in front of the C library's own ----------------------

namespace {

template <class Fn>
Fn libc(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using evfw_host::fault;
using evfw_host::FaultCall;

}  // namespace

extern "C" {

int getifaddrs(struct ifaddrs **list) {
    static const auto real = libc<int (*)(struct ifaddrs **)>("getifaddrs");
    if (fault(FaultCall::Getifaddrs)) return errno = ENOMEM, -1;
    return real(list);
}

char *if_indextoname(unsigned index, char *name) {
    static const auto real = libc<char *(*)(unsigned, char *)>("if_indextoname");
    if (fault(FaultCall::IfIndexToName)) return errno = ENXIO, nullptr;
    return real(index, name);
}

int socket(int domain, int type, int protocol) {
    static const auto real = libc<int (*)(int, int, int)>("socket");
    if (fault(FaultCall::Socket)) return errno = EMFILE, -1;
    return real(domain, type, protocol);
}

int bind(int sock, const struct sockaddr *addr, socklen_t len) {
    static const auto real = libc<int (*)(int, const struct sockaddr *, socklen_t)>("bind");
    if (fault(FaultCall::Bind)) return errno = EADDRINUSE, -1;
    return real(sock, addr, len);
}

ssize_t send(int sock, const void *buf, size_t len, int flags) {
    static const auto real = libc<ssize_t (*)(int, const void *, size_t, int)>("send");
    if (fault(FaultCall::Send)) return errno = ENOBUFS, -1;
    return real(sock, buf, len, flags);
}

ssize_t recv(int sock, void *buf, size_t len, int flags) {
    static const auto real = libc<ssize_t (*)(int, void *, size_t, int)>("recv");
    if (fault(FaultCall::Recv)) return errno = EAGAIN, -1;
    return real(sock, buf, len, flags);
}

int system(const char *command) {
    static const auto real = libc<int (*)(const char *)>("system");
    int status = 0;
    if (fault(FaultCall::System, &status)) return status;
    return real(command);
}

}  // extern "C"

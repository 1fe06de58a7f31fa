#include "seams.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <unistd.h>

#include <atomic>

#include "evfw_host/runtime.h"

namespace {

long g_sleeps = 0;
uint64_t g_now_us = 0;
bool g_scheduled = false;
uint64_t g_at_us = 0;
std::string g_key;
std::string g_value;
std::atomic<long> g_ifaddrs{0};

template <class Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace dm_test {

void fake_clock::reset() {
    g_sleeps = 0;
    g_now_us = 0;
    g_scheduled = false;
}

long fake_clock::sleeps() {
    return g_sleeps;
}

void fake_clock::set_property_at(uint64_t at_us, const std::string &key, const std::string &value) {
    g_scheduled = true;
    g_at_us = at_us;
    g_key = key;
    g_value = value;
}

long ifaddrs_outstanding() {
    return g_ifaddrs.load();
}

}  // namespace dm_test

extern "C" int usleep(useconds_t us) {
    ++g_sleeps;
    g_now_us += us;
    if (g_scheduled && g_now_us >= g_at_us) {
        g_scheduled = false;
        evfw_host::Runtime::instance().set_property(g_key, g_value);
    }
    return 0;
}

extern "C" int getifaddrs(struct ifaddrs **list) {
    static const auto real = next<int (*)(struct ifaddrs **)>("getifaddrs");
    const int ret = real(list);
    if (ret == 0) ++g_ifaddrs;
    return ret;
}

extern "C" void freeifaddrs(struct ifaddrs *list) {
    static const auto real = next<void (*)(struct ifaddrs *)>("freeifaddrs");
    if (list != nullptr) --g_ifaddrs;
    real(list);
}

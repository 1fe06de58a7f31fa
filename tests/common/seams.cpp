#include "seams.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <unistd.h>

#include "evfw_host/runtime.h"

using dm_test::fake_clock;

extern "C" int usleep(useconds_t us) {
    ++fake_clock::sleeps_;
    fake_clock::now_us += us;
    if (fake_clock::scheduled && fake_clock::now_us >= fake_clock::at) {
        fake_clock::scheduled = false;
        evfw_host::Runtime::instance().set_property(fake_clock::key_, fake_clock::value_);
    }
    return 0;
}

extern "C" int getifaddrs(struct ifaddrs **list) {
    static const auto real = reinterpret_cast<int (*)(ifaddrs **)>(dlsym(RTLD_NEXT, "getifaddrs"));
    const int ret = real(list);
    if (ret == 0) ++dm_test::g_ifaddrs;
    return ret;
}

extern "C" void freeifaddrs(struct ifaddrs *list) {
    static const auto real = reinterpret_cast<void (*)(ifaddrs *)>(dlsym(RTLD_NEXT, "freeifaddrs"));
    if (list != nullptr) --dm_test::g_ifaddrs;
    real(list);
}

// Interposes libc's usleep for the whole test program, the library objects
// linked into it included.
#include "fake_clock.h"

#include <unistd.h>

#include "evfw_host/runtime.h"

namespace {

long g_sleeps = 0;
uint64_t g_now_us = 0;
bool g_scheduled = false;
uint64_t g_at_us = 0;
std::string g_key;
std::string g_value;

}  // namespace

namespace dm_test::fake_clock {

void reset() {
    g_sleeps = 0;
    g_now_us = 0;
    g_scheduled = false;
}

long sleeps() {
    return g_sleeps;
}

void set_property_at(uint64_t at_us, const std::string &key, const std::string &value) {
    g_scheduled = true;
    g_at_us = at_us;
    g_key = key;
    g_value = value;
}

}  // namespace dm_test::fake_clock

extern "C" int usleep(useconds_t us) {
    ++g_sleeps;
    g_now_us += us;
    if (g_scheduled && g_now_us >= g_at_us) {
        g_scheduled = false;
        evfw_host::Runtime::instance().set_property(g_key, g_value);
    }
    return 0;
}

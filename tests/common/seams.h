// Seams between the library and the C library for the tests, interposed for
// the whole test program (the library's objects included):
//  - a fake clock behind usleep: the prefix lookup's 160 x 100 ms wait
//    costs nothing, and a property can be made to appear "after 3 seconds"
//    of the library's sleeping;
//  - getifaddrs and freeifaddrs counted, so that a list never freed fails a
//    plain test run, not only the sanitizer stages.
#ifndef TESTS_COMMON_SEAMS_H
#define TESTS_COMMON_SEAMS_H

#include <atomic>
#include <cstdint>
#include <string>

namespace dm_test {

struct fake_clock {
    // Time 0, no sleeps counted, nothing scheduled.
    static void reset() { now_us = 0, sleeps_ = 0, scheduled = false; }
    static long sleeps() { return sleeps_; }
    // Sets the runtime property `key` when the fake clock reaches `at_us`.
    static void set_property_at(uint64_t at_us, const std::string &key, const std::string &value) {
        scheduled = true, at = at_us, key_ = key, value_ = value;
    }

    static inline long sleeps_ = 0;
    static inline uint64_t now_us = 0, at = 0;
    static inline bool scheduled = false;
    static inline std::string key_, value_;
};

// Lists getifaddrs handed out and freeifaddrs has not taken back.
inline std::atomic<long> g_ifaddrs{0};
inline long ifaddrs_outstanding() {
    return g_ifaddrs.load();
}

}  // namespace dm_test

#endif  // TESTS_COMMON_SEAMS_H

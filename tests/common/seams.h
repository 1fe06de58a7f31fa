// Seams between the library and the C library for the tests, interposed for
// the whole test program (the library's objects included):
//  - a fake clock behind usleep: the prefix lookup's 160 x 100 ms wait
//    costs nothing, and a property can be made to appear "after 3 seconds"
//    of the library's sleeping;
//  - getifaddrs and freeifaddrs counted, so that a list never freed fails a
//    plain test run, not only the sanitizer stages.
#ifndef TESTS_COMMON_SEAMS_H
#define TESTS_COMMON_SEAMS_H

#include <cstdint>
#include <string>

namespace dm_test {

namespace fake_clock {
// Time 0, no sleeps counted, nothing scheduled.
void reset();
long sleeps();
// Sets the runtime property `key` when the fake clock reaches `at_us`.
void set_property_at(uint64_t at_us, const std::string &key, const std::string &value);
}  // namespace fake_clock

// Lists getifaddrs handed out and freeifaddrs has not taken back.
long ifaddrs_outstanding();

}  // namespace dm_test

#endif  // TESTS_COMMON_SEAMS_H

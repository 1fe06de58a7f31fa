// A fake clock behind usleep for the tests: the prefix lookup's 160 x
// 100 ms wait costs nothing, and a property can be made to appear "after 3
// seconds" of the library's sleeping.
#ifndef TESTS_COMMON_FAKE_CLOCK_H
#define TESTS_COMMON_FAKE_CLOCK_H

#include <cstdint>
#include <string>

namespace dm_test::fake_clock {

// Time 0, no sleeps counted, nothing scheduled.
void reset();
long sleeps();
// Sets the runtime property `key` when the fake clock reaches `at_us`.
void set_property_at(uint64_t at_us, const std::string &key, const std::string &value);

}  // namespace dm_test::fake_clock

#endif  // TESTS_COMMON_FAKE_CLOCK_H

// The C library's text for an errno value, for the simulator's and dmsim's
// messages.
#ifndef DM_SIM_ERRNO_TEXT_H
#define DM_SIM_ERRNO_TEXT_H

#include <string.h>

#include <string>

namespace dm::sim {

// strerror's text, from strerror_r: POSIX lets strerror hand every caller
// the same buffer, and these messages are built while the runtime's task
// threads run.  The C++ compilers define _GNU_SOURCE, so this is GNU's
// strerror_r, which returns the text (in `buf` or a constant of its own).
inline std::string errno_text(int err) {
    char buf[256] = {};
    return strerror_r(err, buf, sizeof(buf));
}

}  // namespace dm::sim

#endif  // DM_SIM_ERRNO_TEXT_H

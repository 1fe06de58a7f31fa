// What the fuzz targets share: the peers that answer the data manager, and
// the event accounting that every input must leave balanced.
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <cstdint>
#include <vector>

#include "testkit/testkit.h"

namespace dm::fuzz {

// The ids of the main dispatcher's event table, in ascending order, as the
// library itself reports them.
const std::vector<uint32_t> &table_ids();

// Makes the RIL proxy (202) answer every request it receives with the
// answer's id and a zeroed record of the answer's size, on the request's
// route, as the real proxy does.
void answer_as_ril(testkit::Harness &h);

// Makes the modem's AT manager (302) answer every AT command with 3004,
// echoing the request's cookie.
void answer_as_at_manager(testkit::Harness &h);

// The invariant of every input, checked once the runtime is idle: each event
// the runtime allocated is freed, held by the registry or the pending queue,
// or one of the prescribed leaks; nothing was freed twice; the dispatcher
// has no current event left.  Prints what is off and aborts.
void check_accounting(testkit::Harness &h, const char *target);

}  // namespace dm::fuzz

#endif  // FUZZ_SUPPORT_H

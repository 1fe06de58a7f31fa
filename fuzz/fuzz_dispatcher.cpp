// Fuzzes the main task's dispatcher: the entity in the deterministic host
// runtime receives a sequence of events (an id from the event table or any
// id, a length equal or close to the expected one, a payload) from the RIL
// proxy, the IMS managers, the LAN manager, RB and the modem's AT manager.
// After each input the event accounting must balance.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "entity/datamngr.h"
#include "fuzz/fuzz.h"

// The IPv6 prefix wait polls up to 160 times, 100 ms apart: not here.
extern "C" int usleep(useconds_t) {
    return 0;
}

namespace {

const std::vector<uint32_t> &table_ids() {
    static const std::vector<uint32_t> ids = [] {
        std::vector<uint32_t> out;
        for (uint32_t id = 3000; id < 9400; ++id) {
            bool known = false;
            dm_expected_length(id, &known);
            if (known) out.push_back(id);
        }
        return out;
    }();
    return ids;
}

uint32_t length_of(dm::fuzz::Reader &in, uint32_t expected) {
    // By LenMode: kExpected, kMinus1, kPlus1, kZero, kEight, kOne; kRawLen reads one.
    const uint32_t lengths[] = {expected, expected != 0 ? expected - 1 : 0, expected + 1, 0, 8, 1};
    const uint8_t mode = in.u8() % dm::fuzz::kLenModes;
    return mode == dm::fuzz::kRawLen ? in.u16() : lengths[mode];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    dm::fuzz::Reader in({data, size});
    dm::testkit::Harness &h = dm::fuzz::fresh();
    dm::fuzz::setup(h, in.u8());
    static std::vector<uint8_t> payload;  // its capacity kept from input to input
    while (!in.done()) {
        auto &from = dm::fuzz::sender(h, in.u8());
        const uint8_t sel = in.u8();
        const uint32_t id =
                sel == dm::fuzz::kRawId ? in.u16() : table_ids()[sel % table_ids().size()];
        payload.assign(length_of(in, dm_expected_length(id, nullptr)), in.u8());
        for (uint8_t p = in.u8() % dm::fuzz::kMaxPatches; p > 0; --p) {
            const uint16_t offset = in.u16();
            auto bytes = in.bytes(in.u8());
            if (payload.empty()) continue;
            const size_t at = offset % payload.size();
            std::memcpy(payload.data() + at, bytes.data(),
                        std::min(bytes.size(), payload.size() - at));
        }
        from.send(TASK_DATAMNGR, id, payload.data(), payload.size());
        h.pump();
    }
    dm::fuzz::end_input(h, "fuzz_dispatcher");
    return 0;
}

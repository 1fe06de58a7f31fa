// Fuzzes the main task's dispatcher: a freshly initialised entity in the
// deterministic host runtime receives a sequence of events (an id from the
// event table or any id, a length equal or close to the expected one, a
// payload) from the RIL proxy, the IMS managers, the LAN manager, RB and the
// modem's AT manager, with the peers announced or not and the RIL proxy
// answering or not.  After each input the event accounting must balance.
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "entity/datamngr.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/inputs.h"

// The IPv6 prefix wait polls the network daemon's property up to 160 times,
// 100 ms apart: an input must not sleep 16 seconds.
extern "C" int usleep(useconds_t) {
    return 0;
}

namespace {

using dm::fuzz::Reader;
using dm::testkit::Harness;
using dm::testkit::Peer;

Peer &sender(Harness &h, uint8_t index) {
    switch (index % dm::fuzz::kSenders) {
        case dm::fuzz::kFromRil:
            return h.ril();
        case dm::fuzz::kFromImsm0:
            return h.client("imsm_0");
        case dm::fuzz::kFromImsm1:
            return h.client("imsm_1");
        case dm::fuzz::kFromLan:
            return h.client("lanmngr");
        case dm::fuzz::kFromRb:
            return h.task(TASK_RB_SIM0);
        default:
            return h.task(TASK_ATMNGR);
    }
}

void setup(Harness &h, uint8_t flags) {
    using namespace dm::fuzz;
    h.rt().set_property("persist.qpx_epdg_support", flags & kDispatchEpdg ? "1" : "0");
    h.rt().set_property("ro.qpx_multiple_ims_support", flags & kDispatchMultiIms ? "1" : "0");
    h.rt().set_property("persist.radio.simswitch", "2");
    if (flags & kDispatchPrefixProps) {
        h.rt().set_property("net.ipv6.pdnet4.prefix", "2001:db8:4::");
        h.rt().set_property("net.ipv6.pdnet5.prefix", "2001:db8:5::");
    }
    answer_as_at_manager(h);
    if (flags & kDispatchRilAnswers) answer_as_ril(h);
    if (flags & kDispatchAnnounceImsm0) h.announce(h.client("imsm_0"));
    if (flags & kDispatchAnnounceImsm1) h.announce(h.client("imsm_1"));
    if (flags & kDispatchAnnounceLan) h.announce(h.client("lanmngr"));
    if (flags & kDispatchAnnounceRil) h.announce_ril();
}

uint32_t length_of(Reader &in, uint32_t expected) {
    using namespace dm::fuzz;
    switch (in.u8() % kLenModes) {
        case kExpectedMinus1:
            return expected != 0 ? expected - 1 : 0;
        case kExpectedPlus1:
            return expected + 1;
        case kZeroLen:
            return 0;
        case kEightLen:
            return 8;
        case kOneLen:
            return 1;
        case kRawLen:
            return in.u16();
        default:
            return expected;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader in({data, size});
    Harness h;
    setup(h, in.u8());

    const std::vector<uint32_t> &ids = dm::fuzz::table_ids();
    std::vector<uint8_t> payload;
    while (!in.done()) {
        Peer &from = sender(h, in.u8());
        uint8_t selector = in.u8();
        uint32_t id = selector == dm::fuzz::kRawId ? in.u16() : ids[selector % ids.size()];
        uint32_t len = length_of(in, dm_expected_length(id, nullptr));
        payload.assign(len, in.u8());
        uint8_t patches = in.u8() % dm::fuzz::kMaxPatches;
        for (uint8_t p = 0; p < patches; ++p) {
            uint16_t offset = in.u16();
            auto bytes = in.bytes(in.u8());
            if (len == 0) continue;
            size_t at = offset % len;
            size_t n = bytes.size() < len - at ? bytes.size() : len - at;
            if (n != 0) std::memcpy(payload.data() + at, bytes.data(), n);
        }
        from.send(TASK_DATAMNGR, id, payload.data(), payload.size());
        h.pump();
    }
    dm::fuzz::check_accounting(h, "fuzz_dispatcher");
    return 0;
}

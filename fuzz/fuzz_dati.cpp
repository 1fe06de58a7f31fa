// Fuzzes the AT command interface task: raw AT command lines (any bytes,
// with or without "\r" and the NUL), registration names and other events
// reach datamngr_dati_task_hdl through the deterministic host runtime, as
// event 4065 (4067, ...) from the AT interface (task 7) to task 403.  The
// requests the handlers make run on through the main task, to a RIL proxy
// that answers or not.  After each input the event accounting must balance.
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "fuzz/inputs.h"

// A setup answer for an IMS interface may wait for the network daemon's
// IPv6 prefix: an input must not sleep.
extern "C" int usleep(useconds_t) {
    return 0;
}

namespace {

using dm::fuzz::Reader;
using dm::testkit::Harness;

void setup(Harness &h, uint8_t flags) {
    using namespace dm::fuzz;
    h.rt().set_property("persist.qpx_epdg_support", flags & kAtEpdg ? "1" : "0");
    if (flags & kAtRilAnswers) answer_as_ril(h);
    if (flags & kAtAnnounceRil) h.announce_ril();
    if (flags & kAtRegisterAti) {
        static constexpr char kAti[] = "ati";
        h.task(TASK_ATI_ATC)
                .send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REGISTER, kAti, sizeof(kAti));
        h.pump();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader in({data, size});
    Harness h;
    setup(h, in.u8());

    std::vector<uint8_t> line;
    while (!in.done()) {
        uint8_t control = in.u8();
        uint32_t id = EVENT_DATAMNGR_ATCMD_REQ;
        switch (control & 3) {
            case dm::fuzz::kAtRegistration:
                id = EVENT_DATAMNGR_ATCMD_REGISTER;
                break;
            case dm::fuzz::kAtOtherId:
                id = in.u16();
                break;
            default:
                break;
        }
        auto text = in.bytes(in.u16());
        line.assign(text.begin(), text.end());
        if (control & dm::fuzz::kAtAppendCr) line.push_back('\r');
        if (control & dm::fuzz::kAtAppendNul) line.push_back('\0');
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, id, line.data(), line.size());
        h.pump();
    }
    dm::fuzz::check_accounting(h, "fuzz_dati");
    return 0;
}

// Fuzzes the AT command interface task: raw AT command lines (any bytes,
// with or without "\r" and the NUL), registration names and other events
// reach datamngr_dati_task_hdl through the deterministic host runtime from
// the AT interface (task 7).  The requests the handlers make run on through
// the main task.  After each input the event accounting must balance.
#include <unistd.h>

#include "fuzz/fuzz.h"

// A setup answer for an IMS interface may wait for the IPv6 prefix: not here.
extern "C" int usleep(useconds_t) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    dm::fuzz::Reader in({data, size});
    dm::testkit::Harness &h = dm::fuzz::fresh();
    dm::fuzz::setup(h, in.u8());
    while (!in.done()) {
        const uint16_t id = in.u16();
        auto text = in.bytes(in.u16());
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, id, text.data(), text.size());
        h.pump();
    }
    dm::fuzz::end_input(h, "fuzz_dati");
    return 0;
}

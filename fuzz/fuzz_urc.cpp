// Fuzzes the modem URC path: a URC text reaches the +CGEV handling as event
// 3006 from the modem's AT manager through the dispatcher (dm_atcmd_urc),
// filling its 4096-byte field with or without a NUL, over PDN rows set up
// first so that the deactivation forms have something to clear and report.
// After each input the event accounting must balance.
#include <cstring>

#include "dati/dati.h"
#include "fuzz/fuzz.h"
#include "pdn/pdn_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    dm::fuzz::Reader in({data, size});
    dm::testkit::Harness &h = dm::fuzz::fresh();
    const uint8_t flags = in.u8();
    h.rt().set_property("persist.qpx_epdg_support", flags & 1 ? "1" : "0");
    if (flags & 2) {
        // Passed-on URCs leave from the AT interface task, known to its
        // module once that task has had an event.
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, 0, nullptr, 0);
        h.pump();
    }
    for (uint8_t rows = in.u8() % 8; rows > 0; --rows) {
        DataCallEntry entry = {};
        entry.cid = static_cast<int8_t>(in.u8()) + 100 * (flags >> 7);
        entry.primary_cid = static_cast<uint32_t>(entry.cid);
        entry.interface_id = in.u8();
        update_pdn_info(&entry, nullptr);
    }
    AtUrc urc = {0, in.u32(), in.u32(), {}};  // kind, then sim
    auto text = in.bytes(sizeof(urc.text));
    if (!text.empty()) memcpy(urc.text, text.data(), text.size());
    h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, urc);
    h.pump();
    dm::fuzz::end_input(h, "fuzz_urc");
    return 0;
}

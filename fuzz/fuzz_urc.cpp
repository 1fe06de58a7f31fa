// Fuzzes the modem URC path: a URC text reaches the +CGEV handling as event
// 3006 from the modem's AT manager through the dispatcher (dm_atcmd_urc),
// filling its 4096-byte field with or without a NUL, and, as a C string,
// dm_handle_default_urc directly.  PDN rows set up first give the
// deactivation forms something to clear and report to RB.  After each input
// the event accounting must balance.
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "dati/dati.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/inputs.h"
#include "pdn/pdn_info.h"

namespace {

using dm::fuzz::Reader;
using dm::testkit::Harness;

void add_rows(Harness &, Reader &in) {
    uint8_t rows = in.u8() % 8;
    for (uint8_t i = 0; i < rows; ++i) {
        uint8_t pick = in.u8();
        int32_t cid = pick < std::size(dm::fuzz::kUrcCids) ? dm::fuzz::kUrcCids[pick] : pick;
        DataCallEntry entry = {};
        entry.cid = cid;
        entry.primary_cid = static_cast<uint32_t>(cid);
        entry.interface_id = in.u8();
        update_pdn_info(&entry, nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader in({data, size});
    Harness h;
    uint8_t flags = in.u8();
    h.rt().set_property("persist.qpx_epdg_support", flags & dm::fuzz::kUrcEpdg ? "1" : "0");
    if (flags & dm::fuzz::kUrcAtClientSeen) {
        // Passed-on URCs leave from the AT interface task, known to the
        // module once that task has had an event.
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, 0, nullptr, 0);
        h.pump();
    }
    add_rows(h, in);

    AtUrc urc = {};
    urc.kind = in.u32();
    urc.sim = in.u32();
    auto text = in.rest();
    size_t n = text.size() < sizeof(urc.text) ? text.size() : sizeof(urc.text);
    if (n != 0) std::memcpy(urc.text, text.data(), n);
    h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, urc);
    h.pump();

    if (flags & dm::fuzz::kUrcDirect) {
        std::vector<char> line(text.begin(), text.end());
        line.push_back('\0');
        evfw_event_t *event = evfw_event_alloc(nullptr);
        dm_handle_default_urc(line.data(), urc.kind, urc.sim, event);
        evfw_event_free(event);
        h.pump();
    }
    dm::fuzz::check_accounting(h, "fuzz_urc");
    return 0;
}

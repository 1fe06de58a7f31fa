// dmdemo: loads the data manager by path into the host runtime, as the daemon
// does, and plays a short start-up: an IMS manager announces itself and asks
// for a data call before the RIL proxy is up; the RIL proxy then announces
// itself, receives the held request and answers it.  Prints the event trace
// and the library's log.
//
// usage: dmdemo path/to/librvn_datamngr.so
#include <cstdio>
#include <cstring>
#include <vector>

#include "evfw_host/runtime.h"
#include "evfw_ids.h"
#include "pdn/pdn_records.h"

namespace {

std::vector<uint8_t> name_payload(const char *name) {
    std::vector<uint8_t> payload(132, 0);
    std::memcpy(payload.data(), name, std::strlen(name));
    return payload;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 || std::strcmp(argv[1], "--help") == 0) {
        std::fprintf(stderr, "usage: %s path/to/librvn_datamngr.so\n", argv[0]);
        return 2;
    }
    auto &rt = evfw_host::Runtime::instance();
    rt.reset(evfw_host::Mode::Deterministic);
    rt.set_log_echo(nullptr);
    rt.set_property("ro.qpx_multiple_ims_support", "0");

    evfw_entity_t *entity = rt.load_library(argv[1], "datamngr", "datamngr_entity_init",
                                            "datamngr_entity_exit",
                                            {{TASK_DATAMNGR_DATI_HDL, "datamngr_dati_task_hdl"}});
    if (entity == nullptr) {
        std::fprintf(stderr, "dmdemo: %s\n", rt.last_error().c_str());
        return 1;
    }
    rt.run_threads();

    // The RIL proxy answers every setup request with a successful call on the
    // request's interface, derived from the request so that it finds its way.
    auto &ril = rt.add_task(TASK_RILDPROXY);
    ril.on_receive([](evfw_host::Peer &self, const evfw_host::Received &in) {
        const auto *req = in.as<SetupDataCallReq>();
        if (in.event_id != EVENT_DATAMNGR_SETUP_DATA_CALL_REQ || req == nullptr) return;
        static SetupDataCallResp resp;
        std::memset(&resp, 0, sizeof(resp));
        resp.interface_id = req->interface_id;
        resp.active = 1;
        resp.num_calls = 1;
        resp.calls[0].interface_id = req->interface_id;
        resp.calls[0].cid = 1;
        resp.calls[0].primary_cid = 1;
        std::snprintf(resp.ifname, sizeof(resp.ifname), "pdnet%u", req->interface_id);
        self.reply(in.event, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &resp,
                   sizeof(resp));
    });

    auto &imsm = rt.add_client("imsm_0");
    auto announce = name_payload("imsm_0");
    imsm.send(TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION, announce.data(), announce.size());
    static SetupDataCallReq req;
    std::memset(&req, 0, sizeof(req));
    std::strcpy(req.apn, "ims");
    req.interface_id = 1;
    imsm.send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &req, sizeof(req));
    rt.pump();

    auto ril_name = name_payload("rildproxy");
    ril.send(TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION, ril_name.data(), ril_name.size());
    rt.pump();

    std::printf("== event trace ==\n");
    rt.print_trace(stdout);
    std::printf("\n== data manager log ==\n");
    for (const auto &line : rt.logs()) std::printf("%s\n", evfw_host::Runtime::logcat(line).c_str());
    rt.unload();
    return 0;
}

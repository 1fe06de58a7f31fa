// dm_footprint [REPEATS]: the resident size and the heap in use of a process
// that runs the IMS PDN bring-up REPEATS times (default 10,000), each time
// with a fresh threaded runtime (as dmsim runs it) and the entity loaded
// anew, so that a leak of the library or of the runtime shows as growth.
// Prints both after every thousand and fails (exit 1) when either grew by
// 16 KiB or more from the first thousand to the last; exit 2 when a
// bring-up went wrong.
//
// The flow is that of scenarios/ims_bringup.scn: the IMS manager passes its
// parameters and asks for the IMS data call before the RIL proxy is up, the
// request waits in the pending queue, the RIL proxy announces itself,
// fetches the IMS parameters and answers, and the IMS manager asks for the
// finished PDN.  Without the scenario's network namespace the interface
// pdnet4 does not exist, so the last answer carries the IPv6 failure status.
//
// The process runs with glibc's cache of thread stacks off and one malloc
// arena (it starts itself again with GLIBC_TUNABLES set): with glibc's
// defaults, how many pages of a cached stack stay resident depends on how
// deep its thread last ran, and a new task thread may be handed an arena not
// used before.  Both move the resident size by tens of KiB while the heap in
// use stays flat: memory that glibc keeps for reuse, which nobody leaked.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ims/ims_pdn.h"
#include "pdn/pdn_records.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;
using dm::testkit::Peer;

constexpr long kLimitKib = 16;  // growth that fails the run
constexpr const char *kTunables = "glibc.pthread.stack_cache_size=0:glibc.malloc.arena_max=1";
constexpr int32_t kIpv6Failure = -7;  // the IMS PDN answer's status without pdnet4

// "VmRSS" or "VmHWM" of this process in KiB, read with read(2): C++ streams
// would page in more of libstdc++ as the run goes on.
long status_kib(const char *field) {
    char buf[4096];
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? read(fd, buf, sizeof buf - 1) : -1;
    if (fd >= 0) close(fd);
    if (n <= 0) return -1;
    buf[n] = '\0';
    char key[16];
    std::snprintf(key, sizeof key, "\n%s:", field);
    const char *at = std::strstr(buf, key);
    return at != nullptr ? std::strtol(at + std::strlen(key), nullptr, 10) : -1;
}

// What malloc has handed out and not got back, in KiB: a leak shows here
// even when freed pages around it keep the resident size flat.
long heap_kib() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

// "" when the IMS manager got its answers.
std::string bring_up(const SetupDataCallResp &answer) {
    Harness h(evfw_host::Mode::Threaded);
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    Peer &imsm = h.client("imsm_0");
    h.ril().on_receive([&answer](Peer &self, const dm::testkit::Received &in) {
        const auto *req = in.as<SetupDataCallReq>();
        if (in.event_id != EVENT_DATAMNGR_SETUP_DATA_CALL_REQ || req == nullptr) return;
        // As the RIL does for an IMS interface: the IMS parameters first,
        // then the answer on the requester's route.
        ImsParaReq para{req->interface_id, req->sim_id};
        self.send(TASK_DATAMNGR, EVENT_DATAMNGR_GET_IMS_PARA_REQ, &para, sizeof para);
        self.reply(in.event, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &answer,
                   sizeof answer);
    });
    h.announce(imsm);

    SetupDataCallReq req{};
    std::snprintf(req.apn, sizeof req.apn, "ims");
    req.interface_id = kImsInterface;
    req.ip_type = kPdpIpv6;
    req.ims_para_valid = 1;
    req.ims_word_684 = 7;
    req.assigned_rate_type = 3;
    h.send(imsm, EVENT_DATAMNGR_PASS_IMS_PDN_REQ, req);
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    h.announce_ril();
    ImsPdnReq query{};
    std::snprintf(query.ifname, sizeof query.ifname, "pdnet4");
    query.req_token = 77;
    h.send(imsm, EVENT_DATAMNGR_GET_IMS_PDN_REQ, query);
    h.pump();

    if (h.sent_to(imsm.id(), EVENT_DATAMNGR_PASS_IMS_PDN_RESP).size() != 1 ||
        h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PARA_RESP).size() != 1) {
        return "the IMS parameters were not taken or not fetched";
    }
    // The stored setup answer, with the IPv6 failure status (no pdnet4) or 0.
    const auto pdn = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PDN_RESP);
    const auto r = pdn.size() == 1 ? dm::testkit::record_of<SetupDataCallResp>(pdn[0])
                                   : SetupDataCallResp{};
    if (r.interface_id != kImsInterface || r.req_token != 77 ||
        (static_cast<int32_t>(r.status) != kIpv6Failure && r.status != 0)) {
        return "no IMS PDN answer carrying the stored setup answer";
    }
    if (h.stray_events() != 0) return std::to_string(h.stray_events()) + " events leaked";
    return "";
}

}  // namespace

int main(int argc, char **argv) {
    const char *tunables = std::getenv("GLIBC_TUNABLES");
    if (tunables == nullptr || std::strcmp(tunables, kTunables) != 0) {
        // One thread yet, and glibc reads it at the new image's start.
        setenv("GLIBC_TUNABLES", kTunables, 1);  // NOLINT(concurrency-mt-unsafe)
        execv("/proc/self/exe", argv);
        std::perror("dm_footprint: execv /proc/self/exe");
        return 2;
    }
    const long repeats = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 10000;
    if (repeats < 1000) {
        std::fprintf(stderr, "usage: dm_footprint [REPEATS >= 1000]\n");
        return 2;
    }
    auto answer = std::make_unique<SetupDataCallResp>();
    std::memset(answer.get(), 0, sizeof *answer);
    answer->active = 1;
    answer->interface_id = kImsInterface;
    answer->pdp_type = kPdpIpv6;
    std::snprintf(answer->ifname, sizeof answer->ifname, "pdnet4");
    const uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::memcpy(answer->ipv6_addr, v6, sizeof v6);  // 2001:db8:4::1
    answer->num_calls = 1;
    answer->calls[0].interface_id = kImsInterface;
    answer->calls[0].cid = 4;
    answer->calls[0].primary_cid = 4;

    std::printf("IMS PDN bring-up, %ld times, threaded runtime, entity loaded each time, %s\n",
                repeats, kTunables);
    std::printf("%8s %10s %16s\n", "after", "VmRSS KiB", "heap in use KiB");
    long rss_first = -1, rss_last = -1, heap_first = -1, heap_last = -1;
    for (long i = 1; i <= repeats; ++i) {
        const std::string why = bring_up(*answer);
        if (!why.empty()) {
            std::fprintf(stderr, "bring-up %ld: %s\n", i, why.c_str());
            return 2;
        }
        if (i % 1000 != 0) continue;
        rss_last = status_kib("VmRSS");
        heap_last = heap_kib();
        if (rss_first < 0) {
            rss_first = rss_last;
            heap_first = heap_last;
        }
        std::printf("%8ld %10ld %16ld\n", i, rss_last, heap_last);
        std::fflush(stdout);
    }
    const long rss_growth = rss_last - rss_first, heap_growth = heap_last - heap_first;
    const bool ok = rss_growth < kLimitKib && heap_growth < kLimitKib;
    std::printf(
            "Over %ld IMS PDN bring-ups the resident size grew by %ld KiB and the heap in use "
            "by %ld KiB, from the first thousand to the last (peak %ld KiB): %s.\n",
            repeats, rss_growth, heap_growth, status_kib("VmHWM"),
            ok ? "under 16 KiB" : "16 KiB or more, FAILED");
    return ok ? 0 : 1;
}

// dm_footprint: the resident size of a process that runs the IMS PDN
// bring-up again and again, each time with a fresh runtime and a freshly
// loaded entity (threaded mode, as dmsim runs it), so that a leak of the
// library or of the runtime shows as growth.  The flow is that of
// scenarios/ims_bringup.scn: the IMS manager passes its parameters and asks
// for the IMS data call before the RIL proxy is up, the request waits in the
// pending queue, the RIL proxy announces itself, fetches the IMS parameters
// and answers, and the IMS manager asks for the finished PDN.  Without the
// scenario's private network namespace the interface pdnet4 does not exist,
// so the last answer carries the IPv6 failure status (-7): the same flow up
// to the interface address lookup.
//
// usage: dm_footprint [--deterministic | --glibc-defaults] [REPEATS]
// (default 10000).  --deterministic runs the same flow in the deterministic
// runtime (no task threads), which tells the library's and runtime's memory
// from what the threaded mode adds.
//
// The process runs with glibc's cache of thread stacks off and one malloc
// arena (it starts itself again with GLIBC_TUNABLES set).  With glibc's
// defaults, the stacks of joined task threads are kept for the next threads,
// and how many of their pages stay resident depends on how deep each thread
// last ran; and each new task thread is handed one of up to eight arenas per
// core, whose first pages appear when a thread first uses it.  Both make
// the resident size wander by 16 to 64 KiB from one thousand bring-ups to
// the next while the heap in use stays flat: that is memory no one holds,
// which the allocator keeps for reuse.  --glibc-defaults shows it.
// Prints the resident size and the heap in use after every thousand
// repetitions, and the peak; exits 1 when either after the last thousand
// exceeds its value after the first by more than the tolerance, 2 when a
// bring-up went wrong.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "ims/ims_pdn.h"
#include "pdn/pdn_records.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;
using dm::testkit::Peer;
using dm::testkit::Received;

// Growth allowed from the first thousand bring-ups to the last.
constexpr long kToleranceKib = 16;
// No cache of thread stacks, one malloc arena (see above).
constexpr const char *kTunables = "glibc.pthread.stack_cache_size=0:glibc.malloc.arena_max=1";
// Status of an IMS PDN answer whose IPv6 address could not be completed.
constexpr int32_t kIpv6Failure = -7;

// "VmRSS" or "VmHWM" of this process, in KiB.  Read with plain read(2):
// the C++ streams would page in more of libstdc++ at each reading, which
// showed as growth of the process.
long status_kib(const char *field) {
    char buf[4096];
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    const ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0) return -1;
    buf[n] = '\0';
    char key[16];
    std::snprintf(key, sizeof(key), "\n%s:", field);
    const char *at = std::strstr(buf, key);
    return at != nullptr ? std::strtol(at + std::strlen(key), nullptr, 10) : -1;
}

// Bytes the C library's allocator has handed out and not got back, in KiB:
// what a leak makes grow even while freed pages keep the resident size flat.
long heap_in_use_kib() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

SetupDataCallResp *g_answer = nullptr;

// One bring-up; false (and the reason) when the IMS manager did not get its
// answers.
bool bring_up(evfw_host::Mode mode, std::string &why) {
    Harness h(mode);
    // The init thread clears the PDN table once every entity is up; the flow
    // starts after it, as the scenario's first step does.
    for (int i = 0; i < 2000 && !h.logged("datamngr_init"); ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    Peer &imsm = h.client("imsm_0");
    Peer &ril = h.ril();
    ril.on_receive([](Peer &self, const Received &in) {
        const auto *req = in.as<SetupDataCallReq>();
        if (in.event_id != EVENT_DATAMNGR_SETUP_DATA_CALL_REQ || req == nullptr) return;
        // As the RIL does for the IMS interfaces: fetch the IMS parameters
        // first, then answer on the requester's route.
        ImsParaReq para{req->interface_id, req->sim_id};
        self.send(TASK_DATAMNGR, EVENT_DATAMNGR_GET_IMS_PARA_REQ, &para, sizeof(para));
        self.reply(in.event, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, g_answer,
                   sizeof(*g_answer));
    });
    h.announce(imsm);

    SetupDataCallReq req{};
    std::snprintf(req.apn, sizeof(req.apn), "ims");
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
    std::snprintf(query.ifname, sizeof(query.ifname), "pdnet4");
    query.req_token = 77;
    h.send(imsm, EVENT_DATAMNGR_GET_IMS_PDN_REQ, query);
    h.pump();

    if (h.sent_to(imsm.id(), EVENT_DATAMNGR_PASS_IMS_PDN_RESP).size() != 1) {
        why = "no answer to the IMS parameters";
    } else if (h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PARA_RESP).size() != 1) {
        why = "the RIL's parameter query was not answered";
    } else if (auto pdn = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PDN_RESP); pdn.size() != 1) {
        why = "no answer to the IMS PDN query";
    } else if (auto r = dm::testkit::record_of<SetupDataCallResp>(pdn[0]);
               r.interface_id != kImsInterface || r.req_token != 77) {
        why = "the IMS PDN answer is not the stored setup answer";
    } else if (static_cast<int32_t>(r.status) != kIpv6Failure && r.status != 0) {
        // 1 would mean the query found the slot in the wrong state or no PDN
        // row: the bring-up did not complete.
        why = "the IMS PDN answer has status " + std::to_string(static_cast<int32_t>(r.status));
    } else if (h.stray_events() != 0) {
        why = std::to_string(h.stray_events()) + " events leaked";
    }
    return why.empty();
}

}  // namespace

int main(int argc, char **argv) {
    evfw_host::Mode mode = evfw_host::Mode::Threaded;
    bool glibc_defaults = false;
    int arg = 1;
    if (arg < argc && std::strcmp(argv[arg], "--deterministic") == 0) {
        mode = evfw_host::Mode::Deterministic;
        ++arg;
    } else if (arg < argc && std::strcmp(argv[arg], "--glibc-defaults") == 0) {
        glibc_defaults = true;
        ++arg;
    }
    const char *tunables = std::getenv("GLIBC_TUNABLES");
    if (!glibc_defaults && (tunables == nullptr || std::strcmp(tunables, kTunables) != 0)) {
        // Read by glibc when the process starts, so set for a fresh start.
        setenv("GLIBC_TUNABLES", kTunables, 1);
        execv("/proc/self/exe", argv);
        std::perror("dm_footprint: execv /proc/self/exe");
        return 2;
    }
    const long repeats = arg < argc ? std::strtol(argv[arg], nullptr, 10) : 10000;
    if (repeats < 1000) {
        std::fprintf(
                stderr,
                "usage: dm_footprint [--deterministic | --glibc-defaults] [REPEATS >= 1000]\n");
        return 2;
    }
    auto answer = std::make_unique<SetupDataCallResp>();
    std::memset(answer.get(), 0, sizeof(*answer));
    answer->active = 1;
    answer->interface_id = kImsInterface;
    answer->pdp_type = kPdpIpv6;
    std::snprintf(answer->ifname, sizeof(answer->ifname), "pdnet4");
    // 2001:db8:4::1, the address the RIL reports.
    const uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::memcpy(answer->ipv6_addr, v6, sizeof(v6));
    answer->num_calls = 1;
    answer->calls[0].interface_id = kImsInterface;
    answer->calls[0].cid = 4;
    answer->calls[0].primary_cid = 4;
    g_answer = answer.get();

    std::printf("IMS PDN bring-up, %ld times, %s runtime, %s, entity loaded each time\n", repeats,
                mode == evfw_host::Mode::Threaded ? "threaded" : "deterministic",
                glibc_defaults ? "glibc's defaults" : kTunables);
    std::printf("%10s %12s %14s\n", "after", "VmRSS KiB", "heap in use KiB");
    long first = -1;
    long last = -1;
    long heap_first = -1;
    long heap_last = -1;
    for (long i = 1; i <= repeats; ++i) {
        std::string why;
        if (!bring_up(mode, why)) {
            std::fprintf(stderr, "bring-up %ld: %s\n", i, why.c_str());
            return 2;
        }
        if (i % 1000 == 0) {
            last = status_kib("VmRSS");
            heap_last = heap_in_use_kib();
            if (first < 0) {
                first = last;
                heap_first = heap_last;
            }
            std::printf("%10ld %12ld %14ld\n", i, last, heap_last);
            std::fflush(stdout);
        }
    }
    const long peak = status_kib("VmHWM");
    std::printf(
            "resident after the first thousand %ld KiB, after the last %ld KiB "
            "(growth %ld KiB), peak %ld KiB; heap in use grew by %ld KiB\n",
            first, last, last - first, peak, heap_last - heap_first);
    // A leak the freed pages around it hide from the resident size still
    // shows in the heap in use.
    return last - first > kToleranceKib || heap_last - heap_first > kToleranceKib ? 1 : 0;
}

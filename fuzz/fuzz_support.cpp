#include "fuzz/fuzz.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "pdn/pdn_records.h"

namespace dm::fuzz {

namespace {

// What the RIL proxy answers to each request the data manager relays: a
// zeroed record of the answer's size, on the request's route.
struct RilAnswer {
    uint32_t request, answer, len;
};
constexpr RilAnswer kAnswers[] = {
        {4003, 4004, sizeof(SetupDataCallResp)},
        {4005, 4006, 8},
        {4007, 4008, sizeof(DedicateSetupResp)},
        {4009, 4010, kModifyRespLen},
        {4011, 4012, 8},
        {4013, 4014, 8},
        {4015, 4016, kPcscfRespLen},
        {4017, 4018, kFailCauseRespLen},
        {4019, 4020, sizeof(DataCallListInd)},
        {4030, 4031, 8},
        {4032, 4034, 8},
        {4037, 4038, 8},
        {9318, 4053, 8},
};
constexpr uint32_t kLongestAnswer =
        std::max_element(std::begin(kAnswers), std::end(kAnswers),
                         [](const RilAnswer &a, const RilAnswer &b) { return a.len < b.len; })
                ->len;
bool g_ril_answers = false;  // this input's kRilAnswers

}  // namespace

testkit::Peer &sender(testkit::Harness &h, uint8_t index) {
    static const char *const kClients[] = {"imsm_0", "imsm_1", "lanmngr"};
    const size_t i = index % kSenders;
    if (i == 0) return h.ril();
    return i <= 3 ? h.client(kClients[i - 1]) : h.task(i == 4 ? TASK_RB_SIM0 : TASK_ATMNGR);
}

testkit::Harness &fresh() {
    static testkit::Harness *h = [] {
        auto *made = new testkit::Harness;  // kept to the end: the entity stays loaded
        made->rt().set_trace(false);
        // The modem's AT manager answers every AT command, echoing its cookie.
        made->task(TASK_ATMNGR).on_receive([](testkit::Peer &self, const testkit::Received &in) {
            AtCmdResp resp = {};
            if (in.data.size() >= sizeof(resp.cookie)) memcpy(&resp.cookie, in.data.data(), 8);
            self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, &resp, sizeof(resp));
        });
        made->ril().on_receive([](testkit::Peer &self, const testkit::Received &in) {
            static const std::vector<uint8_t> zeros(kLongestAnswer, 0);
            for (const RilAnswer &a : kAnswers) {
                if (g_ril_answers && a.request == in.event_id)
                    self.reply(in.event, TASK_DATAMNGR, a.answer, zeros.data(), a.len);
            }
        });
        return made;
    }();
    return *h;
}

void setup(testkit::Harness &h, uint8_t flags) {
    h.rt().set_property("persist.qpx_epdg_support", flags & kEpdg ? "1" : "0");
    h.rt().set_property("ro.qpx_multiple_ims_support", flags & kMultiIms ? "1" : "0");
    h.rt().set_property("persist.radio.simswitch", "2");
    if (flags & kPrefixes) {
        h.rt().set_property("net.ipv6.pdnet4.prefix", "2001:db8:4::");
        h.rt().set_property("net.ipv6.pdnet5.prefix", "2001:db8:5::");
    }
    g_ril_answers = (flags & kRilAnswers) != 0;
    if (flags & kAnnounceClients)
        for (const char *name : {"imsm_0", "imsm_1", "lanmngr"}) h.announce(h.client(name));
    if (flags & kAnnounceRil) h.announce_ril();
}

void end_input(testkit::Harness &h, const char *target) {
    h.pump();
    const std::string problems = testkit::accounting_problems(h.rt());
    if (problems.empty()) {
        h.restart();
        return;
    }
    std::fprintf(stderr, "%s: event accounting broken: %s\n", target, problems.c_str());
    for (const testkit::LogLine &line : h.logs()) std::fprintf(stderr, "  %s\n", line.text.c_str());
    std::abort();
}

}  // namespace dm::fuzz

#include "fuzz/fuzz_support.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "evfw_ids.h"
#include "pdn/pdn_records.h"

namespace dm::fuzz {

namespace {

struct RilAnswer {
    uint32_t request;
    uint32_t answer;
    uint32_t len;
};

// What the RIL proxy answers to each request the data manager relays.
constexpr std::array kRilAnswers = std::to_array<RilAnswer>({
        {EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP,
         sizeof(SetupDataCallResp)},
        {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP, 8},
        {EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ, EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP,
         sizeof(DedicateSetupResp)},
        {EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ, EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP, kModifyRespLen},
        {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,
         EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP, 8},
        {EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ, EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP, 8},
        {EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ, EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP,
         kPcscfRespLen},
        {EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ,
         EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP, kFailCauseRespLen},
        {EVENT_DATAMNGR_DATA_CALL_LIST_REQ, EVENT_DATAMNGR_DATA_CALL_LIST_RESP,
         sizeof(DataCallListInd)},
        {EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ, EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP, 8},
        {EVENT_DATAMNGR_RADIO_POWER_REQ, EVENT_DATAMNGR_RADIO_POWER_RESP, 8},
        {EVENT_DATAMNGR_ALLOW_DATA_REQ, EVENT_DATAMNGR_ALLOW_DATA_RESP, 8},
        {EVENT_RB_HANDOVER_REQ, EVENT_DATAMNGR_HANDOVER_RESP, 8},
});

// Where the dispatcher's table lives in the id space.
constexpr std::array<std::pair<uint32_t, uint32_t>, 3> kIdRanges = {{
        {3000, 3010},
        {4000, 4070},
        {9300, 9330},
}};

}  // namespace

const std::vector<uint32_t> &table_ids() {
    static const std::vector<uint32_t> ids = [] {
        std::vector<uint32_t> out;
        for (auto [first, last] : kIdRanges) {
            for (uint32_t id = first; id <= last; ++id) {
                bool known = false;
                dm_expected_length(id, &known);
                if (known) out.push_back(id);
            }
        }
        return out;
    }();
    return ids;
}

void answer_as_ril(testkit::Harness &h) {
    h.ril().on_receive([](testkit::Peer &self, const testkit::Received &in) {
        for (const RilAnswer &a : kRilAnswers) {
            if (a.request != in.event_id) continue;
            std::vector<uint8_t> answer(a.len, 0);
            self.reply(in.event, TASK_DATAMNGR, a.answer, answer.data(), answer.size());
            return;
        }
    });
}

void answer_as_at_manager(testkit::Harness &h) {
    h.task(TASK_ATMNGR).on_receive([](testkit::Peer &self, const testkit::Received &in) {
        if (in.event_id != EVENT_ATMNGR_ATCMD_REQ) return;
        AtCmdResp resp = {};
        if (in.data.size() >= sizeof(resp.cookie)) {
            std::memcpy(&resp.cookie, in.data.data(), sizeof(resp.cookie));
        }
        std::memcpy(resp.text, "OK", 3);
        self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, &resp, sizeof(resp));
    });
}

void check_accounting(testkit::Harness &h, const char *target) {
    const long live = h.rt().live_events();
    const long held = h.held_by_library();
    const long prescribed = h.prescribed_leaks();
    const long bad_frees = h.rt().bad_frees();
    const DatamngrEntity *entity = h.entity();
    const bool current_left = entity != nullptr && entity->cur_event != nullptr;
    if (live - held - prescribed == 0 && bad_frees == 0 && !current_left) return;
    std::fprintf(stderr,
                 "%s: event accounting broken: %ld live = %ld held + %ld prescribed + %ld "
                 "unaccounted; %ld bad frees; current event %s\n",
                 target, live, held, prescribed, live - held - prescribed, bad_frees,
                 current_left ? "left set" : "clear");
    for (const testkit::LogLine &line : h.logs()) std::fprintf(stderr, "  %s\n", line.text.c_str());
    std::abort();
}

}  // namespace dm::fuzz

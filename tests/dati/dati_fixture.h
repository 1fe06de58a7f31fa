// The data manager loaded with its AT client (task 7), the AT interface's URC
// task (8), the RIL proxy and the modem's AT manager (302), and helpers that
// render what it sent as short comparable strings.
#ifndef TESTS_DATI_FIXTURE_H
#define TESTS_DATI_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "testkit/testkit.h"

namespace dati_test {

using dm::testkit::record_of;
using dm::testkit::TraceEntry;

class DatiFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        h.task(TASK_ATI_ATC);
        h.task(TASK_ATI_URC);
        h.task(TASK_ATMNGR);
        h.announce_ril();
        h.clear();
    }
    // Every flow ends with each event freed or held by its documented holder.
    void TearDown() override { EXPECT_EQ(h.stray_events(), 0); }

    // An AT client types `line` (sent with its NUL).
    void at(const std::string &line) {
        to_dati(EVENT_DATAMNGR_ATCMD_REQ, line.c_str(), line.size() + 1);
    }
    void to_dati(uint32_t event_id, const void *data, size_t len) {
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, event_id, data, len);
        h.pump();
    }
    // Any event to task 403 gives the DATI module its view of the entity.
    void prime_dati() { to_dati(EVENT_DATAMNGR_ATCMD_RESP, nullptr, 0); }

    // The modem's AT manager reports a URC line to the main task.
    void urc(const std::string &text, uint32_t sim = 0) {
        AtUrc record = {};
        record.sim = sim;
        std::memcpy(record.text, text.data(), std::min(text.size(), sizeof(record.text)));
        h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, record);
        h.pump();
    }

    // What the data manager sent since the last clear(): "<to> <id> <payload>".
    std::vector<std::string> sent() {
        std::vector<std::string> out;
        for (const TraceEntry &e : h.rt().trace()) {
            if (e.from == TASK_DATAMNGR || e.from == TASK_DATAMNGR_DATI_HDL)
                out.push_back(render(e));
        }
        return out;
    }
    std::vector<std::string> results() {
        std::vector<std::string> out;
        for (const TraceEntry &e : h.sent_to(TASK_ATI_ATC, EVENT_DATAMNGR_ATCMD_RESP)) {
            out.push_back(record_of<AtCmdResp>(e).text);
        }
        return out;
    }
    bool logged_exactly(const std::string &body) const {
        for (const auto &line : h.logs()) {
            if (dm::testkit::log_body(line.text) == body) return true;
        }
        return false;
    }

    static std::string render(const TraceEntry &e) {
        std::string out = std::to_string(e.to) + " " + std::to_string(e.event_id) + " ";
        auto n = [](auto v) { return std::to_string(v); };
        switch (e.event_id) {
            case EVENT_DATAMNGR_ATCMD_RESP:
                return out + record_of<AtCmdResp>(e).text;
            case EVENT_ATI_URC:
            case EVENT_ATI_URC_FORGED:
                return out + record_of<AtUrc>(e).text;
            case EVENT_ATI_ATCMD_FWD: {  // the whole line and exactly its NUL
                const char *line = reinterpret_cast<const char *>(e.data.data());
                if (e.len == 0 || strnlen(line, e.len) + 1 != e.len) return out + "len=" + n(e.len);
                return out + line;
            }
            case EVENT_DATAMNGR_SETUP_DATA_CALL_REQ: {
                auto r = record_of<SetupDataCallReq>(e);
                return out + "apn=" + r.apn + " ip=" + n(r.ip_type) + " if=" + n(r.interface_id);
            }
            case EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ: {
                auto r = record_of<DeactivateReq>(e);
                return out + "id=" + n(r.id) + " cause=" + n(r.cause);
            }
            case EVENT_RB_DEACT_DATA_CALL_IND: {
                auto r = record_of<DeactDataCallInd>(e);
                return out + "if=" + n(r.interface_id) + " " + n(r.reserved) +
                       " sim=" + n(r.sim_id);
            }
            default: {
                auto r = record_of<WordPair>(e);
                return out +
                       (e.len == sizeof(r) ? n(r.word0) + "," + n(r.word1) : "len=" + n(e.len));
            }
        }
    }

    dm::testkit::Harness h;
};

}  // namespace dati_test

#endif  // TESTS_DATI_FIXTURE_H

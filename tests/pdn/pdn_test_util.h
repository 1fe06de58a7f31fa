// Builders of the data-call records for the PDN tests, and a fixture that
// checks the event accounting of every flow.
#ifndef TESTS_PDN_PDN_TEST_UTIL_H
#define TESTS_PDN_PDN_TEST_UTIL_H

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>

#include "pdn/pdn_info.h"
#include "testkit/testkit.h"

namespace pdn_test {

inline DataCallEntry entry(int32_t cid, uint32_t interface_id, uint32_t primary_cid,
                           uint32_t status = 0) {
    DataCallEntry e;
    memset(&e, 0, sizeof(e));
    e.status = status;
    e.interface_id = interface_id;
    e.primary_cid = primary_cid;
    e.cid = cid;
    // A recognisable tail, to prove the whole entry is carried.
    for (size_t i = 0; i < sizeof(e.rest); ++i) e.rest[i] = static_cast<uint8_t>(cid + i);
    return e;
}

// A default bearer: its own primary.
inline DataCallEntry default_bearer(int32_t cid, uint32_t interface_id) {
    return entry(cid, interface_id, static_cast<uint32_t>(cid));
}

// Writes a row as a setup answer would, with an APN.
inline PdnInfo *put_row(const DataCallEntry &e, const char *apn = nullptr) {
    PdnInfo *row = update_pdn_info(&e, nullptr);
    if (row != nullptr && apn != nullptr) dm::testkit::copy_field(row->apn, apn);
    return row;
}

inline SetupDataCallReq setup_req(const char *apn, uint32_t interface_id, uint8_t sim = 0) {
    SetupDataCallReq r;
    memset(&r, 0, sizeof(r));
    for (size_t i = 0; i < sizeof(r.requester); ++i) r.requester[i] = static_cast<uint8_t>(i);
    dm::testkit::copy_field(r.apn, apn);
    r.interface_id = interface_id;
    r.assigned_rate_type = 3;
    r.sim_id = sim;
    return r;
}

// A setup answer is 47876 bytes: kept off the test's stack.
inline std::unique_ptr<SetupDataCallResp> setup_resp(uint32_t interface_id, uint32_t sim = 0) {
    auto r = std::make_unique<SetupDataCallResp>();
    memset(r.get(), 0, sizeof(*r));
    r->interface_id = interface_id;
    r->active = 1;
    r->pdp_type = kPdpIpv4v6;
    snprintf(r->ifname, sizeof(r->ifname), "pdnet%u", interface_id);
    r->rate_type = 7;
    r->sim_id = sim;
    r->sim_byte = static_cast<uint8_t>(sim);
    return r;
}

// Lines of the data manager's levelled form reported by `function` at
// `level_word` ("DMGR-ERR", ...) whose text after the header is exactly `text`.
inline size_t count_lines(const dm::testkit::Harness &h, std::string_view function,
                          std::string_view level_word, std::string_view text) {
    char head[40];
    snprintf(head, sizeof(head), " (%24.24s, ", std::string(function).c_str());
    std::string word = "[" + std::string(level_word) + "] ";
    size_t n = 0;
    for (const auto &line : h.logs()) {
        std::string_view t = line.text;
        if (t.size() >= 34 && t.substr(0, strlen(head)) == head &&
            t.substr(34, word.size()) == word && dm::testkit::log_body(t) == text) {
            ++n;
        }
    }
    return n;
}

class PdnTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(h.rt().bad_frees(), 0); }

    size_t lines(std::string_view function, std::string_view level_word,
                 std::string_view text) const {
        return count_lines(h, function, level_word, text);
    }

    dm::testkit::Harness h;
};

}  // namespace pdn_test

#endif  // TESTS_PDN_PDN_TEST_UTIL_H

// Bad input through the whole entity: every id of the event table (and ids
// outside it) at lengths around the expected one, with payloads of zeros, of
// text without a NUL and of all-ones words; cids and interface ids at the
// edges of the PDN tables.  Whatever comes in is refused or handled, and
// every event is freed, held by the library or a prescribed leak (the
// fixture's accounting).
#include <climits>
#include <set>

#include "common/dm_test.h"
#include "entity/datamngr.h"
#include "pdn/pdn_records.h"

namespace {

using namespace dm_test;

std::vector<uint32_t> matrix_ids() {
    std::vector<uint32_t> ids;
    for (uint32_t id = 3000; id <= 9400; ++id) {
        bool known = false;
        dm_expected_length(id, &known);
        if (known) ids.push_back(id);
    }
    // Unknown ids, among them the ends of the range the bisection works in
    // (0, UINT32_MAX) and ids in the gaps between known ones.
    for (uint32_t id : {0u, 3999u, 4027u, 4064u, 4070u, 5000u, UINT32_MAX}) ids.push_back(id);
    return ids;
}

class EventMatrix : public ::testing::TestWithParam<uint32_t> {};

TEST_P(EventMatrix, EveryLengthAndFillIsRefusedOrHandledAndAccounted) {
    const uint32_t id = GetParam();
    const uint32_t expected = dm_expected_length(id, nullptr);
    std::set<uint32_t> lengths = {0, 1, 7, 8, 9, expected, expected + 1};
    if (expected > 0) lengths.insert(expected - 1);
    for (uint8_t fill : {uint8_t{0x00}, uint8_t{'A'}, uint8_t{0xff}}) {
        for (uint32_t len : lengths) {
            SCOPED_TRACE(::testing::Message() << "len " << len << " fill " << int{fill});
            dm::testkit::Harness h;
            auto &imsm = h.client("imsm_0");
            h.announce(imsm);
            h.announce_ril();
            h.clear();
            const Bytes payload(len, fill);
            h.send_bytes(imsm, id, payload);
            h.pump();
            const bool refused = len != expected && len != 8;
            EXPECT_EQ(h.logged("[DMGR-ERR] event id " + std::to_string(id) +
                               " invalid message length " + std::to_string(len) +
                               " != " + std::to_string(expected)),
                      refused);
            EXPECT_TRUE(!refused || h.rt().trace().size() == 1u) << "only the request itself";
            if (len != expected && len == 8) {
                // The peer's failure goes back to it under the id it failed.
                auto answers = h.sent_to(imsm.id());
                ASSERT_EQ(answers.size(), 1u);
                EXPECT_EQ(std::tuple(answers[0].event_id, answers[0].data),
                          std::tuple(id, payload));
            }
            EXPECT_EQ(dm::testkit::accounting_problems(h.rt()), "");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllIds, EventMatrix, ::testing::ValuesIn(matrix_ids()),
                         [](const auto &info) { return "Id" + std::to_string(info.param); });

// ---- the edges of the PDN tables ------------------------------------------------

class PdnEdges : public DmTest, public ::testing::WithParamInterface<int32_t> {
  protected:
    void SetUp() override {
        h.announce(imsm);
        h.announce_ril();
    }
    void from(evfw_host::Peer &peer, uint32_t id, const Bytes &record) {
        h.send_bytes(peer, id, record);
        h.pump();
    }
    evfw_host::Peer &imsm = h.client("imsm_0");
};

// A cid names a row in 0..15 (cellular) and 100..115 (ePDG) only.
bool has_row(int32_t cid) {
    return (cid >= 0 && cid <= 15) || (cid >= 100 && cid <= 115);
}

TEST_P(PdnEdges, ABearerIsKeptAndTornDownOnlyUnderACidThatNamesARow) {
    const auto cid = static_cast<uint32_t>(GetParam());
    from(h.ril(), 4024, words(3964, {{8, 3}, {12, cid}, {16, cid}}));
    EXPECT_EQ(logged("update_pdn_info find pdn by index " + std::to_string(GetParam()) + " fail"),
              has_row(GetParam()) ? 0u : 1u);
    from(imsm, EVENT_DATAMNGR_BEAR_REQ, words(8, {{0, cid}}));
    from(imsm, EVENT_DATAMNGR_GET_CID_REQ, words(8, {{0, 3}}));
    from(imsm, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, words(12, {{0, cid}}));
    auto bearer = h.sent_to(imsm.id(), EVENT_DATAMNGR_BEAR_RESP);
    ASSERT_EQ(bearer.size(), 1u);
    EXPECT_EQ(bearer[0].len, has_row(GetParam()) ? 3964u : 8u);
    auto answer = record_of<CidResp>(h.sent_to(imsm.id(), 4044).at(0));
    EXPECT_EQ(answer.result, has_row(GetParam()) ? 0 : -1);
    EXPECT_EQ(answer.cid, has_row(GetParam()) ? cid : 0u);
    auto relayed = payloads(TASK_RILDPROXY, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
    EXPECT_EQ(relayed, has_row(GetParam()) ? std::vector<Bytes>{words(12, {{0, 3}, {4, 1}})}
                                           : std::vector<Bytes>{});
}

TEST_P(PdnEdges, RbDeactivationIsRelayedForEveryInterfaceButTheNoneValue) {
    const auto id = static_cast<uint32_t>(GetParam());
    from(h.task(TASK_RB_SIM0), EVENT_RB_DEACTIVATE_DATA_CALL_REQ, words(12, {{0, id}}));
    EXPECT_EQ(payloads(TASK_RILDPROXY, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ),
              GetParam() == -1 ? std::vector<Bytes>{}
                               : std::vector<Bytes>{words(12, {{0, id}, {4, 100}})});
}

INSTANTIATE_TEST_SUITE_P(Cids, PdnEdges,
                         ::testing::Values(-1, 0, 15, 16, 99, 100, 115, 116, INT_MAX));

}  // namespace

// The bearer and cid queries, answered from the PDN table on the channel the
// query came in on.
#include <gtest/gtest.h>

#include "pdn/pdn_info.h"
#include "pdn_test_util.h"

namespace {

using dm::testkit::Peer;
using dm::testkit::record_of;
using pdn_test::default_bearer;
using pdn_test::entry;
using pdn_test::PdnTest;
using pdn_test::put_row;

class PdnQueryTest : public PdnTest {
  protected:
    void SetUp() override { h.announce(imsm); }

    std::vector<dm::testkit::TraceEntry> ask(uint32_t id, uint32_t key) {
        h.clear();
        WordPair query = {key, 0xdeadbeef};
        h.send(imsm, id, query);
        h.pump();
        return h.sent_to(imsm.id());
    }

    Peer &imsm = h.client("imsm_0");
};

TEST_F(PdnQueryTest, BearerQueryAnswersTheStoredEntryOf3964Bytes) {
    auto dedicated = entry(8, 3, 7);
    put_row(dedicated);
    auto answers = ask(EVENT_DATAMNGR_BEAR_REQ, 8);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].event_id, EVENT_DATAMNGR_BEAR_RESP);
    ASSERT_EQ(answers[0].data.size(), 3964u);
    auto answer = record_of<BearResp>(answers[0]);
    EXPECT_EQ(answer.result, 0);
    // A dedicated bearer is found by its cid.
    EXPECT_EQ(memcmp(&answer.entry, &dedicated, sizeof(dedicated)), 0);
    EXPECT_EQ(lines("dm_bear_req", "DMGR-INF", "dm_bear_req query for cid 8\n"), 1u);
    EXPECT_EQ(lines("dm_bear_req", "DMGR-INF", "dm_bear_req primary cid 7\n"), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnQueryTest, BearerQueryMissIsAnswered8BytesMinusOne) {
    put_row(default_bearer(2, 1))->active = 0;
    for (uint32_t cid : {2u, 200u, UINT32_MAX}) {
        auto answers = ask(EVENT_DATAMNGR_BEAR_REQ, cid);
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(answers[0].event_id, EVENT_DATAMNGR_BEAR_RESP);
        EXPECT_EQ(answers[0].data, (std::vector<uint8_t>{0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0}));
        std::string n = std::to_string(cid);
        EXPECT_EQ(lines("dm_bear_req", "DMGR-ERR", "dm_bear_req cid " + n + " not found\n"), 1u);
        EXPECT_EQ(lines("find_pdn_info_by_cid", "DMGR-WAR",
                        "find_pdn_info_by_cid fail cid " + std::to_string(int32_t(cid)) + "\n"),
                  1u);
    }
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnQueryTest, CidQueryAnswersTheDefaultBearerOfTheInterface) {
    put_row(entry(8, 3, 7));
    auto answers = ask(EVENT_DATAMNGR_GET_CID_REQ, 3);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].event_id, EVENT_DATAMNGR_GET_CID_RESP);
    auto miss = record_of<CidResp>(answers[0]);
    EXPECT_EQ(miss.result, -1);
    EXPECT_EQ(miss.cid, 0u);
    EXPECT_EQ(lines("dm_get_cid_req", "DMGR-ERR", "dm_get_cid_req interface 3 not found\n"), 1u);

    put_row(default_bearer(7, 3));
    answers = ask(EVENT_DATAMNGR_GET_CID_REQ, 3);
    ASSERT_EQ(answers.size(), 1u);
    auto found = record_of<CidResp>(answers[0]);
    EXPECT_EQ(found.result, 0);
    EXPECT_EQ(found.cid, 7u);
    EXPECT_EQ(lines("dm_get_cid_req", "DMGR-INF", "dm_get_cid_req query for interface 3\n"), 1u);
    EXPECT_EQ(lines("dm_get_cid_req", "DMGR-INF", "dm_get_cid_req cid 7\n"), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

}  // namespace

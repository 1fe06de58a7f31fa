// The relayed request family: every request reaches the RIL proxy unchanged
// and every answer reaches the requester the way its registry row says.
#include <gtest/gtest.h>

#include "entity/task_info.h"
#include "pdn/pdn_info.h"
#include "pdn/relay.h"
#include "pdn_test_util.h"

namespace {

using dm::testkit::Peer;
using dm::testkit::Received;
using dm::testkit::record_of;
using pdn_test::default_bearer;
using pdn_test::PdnTest;
using pdn_test::put_row;

std::vector<uint8_t> pattern(size_t len, uint8_t seed) {
    std::vector<uint8_t> bytes(len);
    for (size_t i = 0; i < len; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13);
    return bytes;
}

class PdnRelayTest : public PdnTest {
  protected:
    // The RIL answers requests of id `req_id` with `answer` under `answer_id`,
    // on the request's route.
    void ril_answers(uint32_t req_id, uint32_t answer_id, std::vector<uint8_t> answer) {
        answer_ = std::move(answer);
        h.ril().on_receive([this, req_id, answer_id](Peer &self, const Received &in) {
            if (in.event_id == req_id) {
                self.reply(in.event, TASK_DATAMNGR, answer_id, answer_.data(), answer_.size());
            }
        });
    }

    std::vector<uint8_t> answer_;
};

// ---- every pair, answered to a requester on the external channel ----

struct Pair {
    const char *answer_op;
    uint32_t req_id;
    size_t req_len;
    uint32_t answer_id;
    size_t answer_len;
};

void PrintTo(const Pair &p, std::ostream *os) {
    *os << p.req_id << " -> " << p.answer_id;
}

class PdnRelayPairTest : public PdnRelayTest, public ::testing::WithParamInterface<Pair> {};

TEST_P(PdnRelayPairTest, RequestReachesTheRilUnchangedAndTheAnswerTheRequester) {
    const Pair &p = GetParam();
    Peer &lan = h.client("lanmngr");
    h.announce(lan);
    h.announce_ril();
    std::vector<uint8_t> req = pattern(p.req_len, 1);
    // Word 0 zero: radio power goes straight to the RIL.
    std::fill_n(req.begin(), 4, 0);
    std::vector<uint8_t> answer = pattern(p.answer_len, 5);
    ril_answers(p.req_id, p.answer_id, answer);

    h.send_bytes(lan, p.req_id, req);
    h.pump();

    auto to_ril = h.sent_to(TASK_RILDPROXY);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(to_ril[0].event_id, p.req_id);
    EXPECT_EQ(to_ril[0].data, req);
    auto to_lan = h.sent_to(lan.id());
    ASSERT_EQ(to_lan.size(), 1u);
    EXPECT_EQ(to_lan[0].event_id, p.answer_id);
    EXPECT_EQ(to_lan[0].data, answer);
    std::string op = p.answer_op;
    EXPECT_EQ(lines(op, "DMGR-INF", op + " reply external to lanmngr\n"), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(
        PdnPairs, PdnRelayPairTest,
        ::testing::Values(Pair{"dm_setup_dedicate_data_call_resp", 4007, 3956, 4008, 3968},
                          Pair{"dm_modify_data_call_resp", 4009, 3956, 4010, 3964},
                          Pair{"dm_deactivate_dedicate_data_call_resp", 4011, 12, 4012, 8},
                          Pair{"dm_abort_setup_data_call_resp", 4013, 12, 4014, 8},
                          Pair{"dm_pcscf_discovery_pco_resp", 4015, 12, 4016, 268},
                          Pair{"dm_last_data_call_fail_cause_resp", 4017, 8, 4018, 12},
                          Pair{"dm_data_call_list_resp", 4019, 8, 4020, 47880},
                          Pair{"dm_radio_power_resp", 4032, 8, 4034, 8},
                          Pair{"dm_allow_data_resp", 4037, 8, 4038, 8}),
        [](const auto &info) { return std::to_string(info.param.req_id); });

// ---- delivery modes ----

TEST_F(PdnRelayTest, LegacyRequesterGetsNothingAndTheAnswerIsReleasedOnce) {
    Peer &ati = h.client("ati");
    h.announce(ati);
    h.announce_ril();
    ril_answers(EVENT_DATAMNGR_DATA_CALL_LIST_REQ, EVENT_DATAMNGR_DATA_CALL_LIST_RESP,
                std::vector<uint8_t>(sizeof(DataCallListInd)));
    WordPair req = {0, 0};
    h.send(ati, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, req);
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY).size(), 1u);
    EXPECT_TRUE(h.sent_to(ati.id()).empty());
    EXPECT_EQ(lines("dm_data_call_list_resp", "DMGR-WAR",
                    "[LEGACY] dm_data_call_list_resp reply func to ati is NOT supported\n"),
              1u);
    EXPECT_EQ(h.rt().bad_frees(), 0);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnRelayTest, TaskRequesterGetsTheAnswerAsAnEventToItsTask) {
    h.announce_ril();
    ril_answers(EVENT_DATAMNGR_ALLOW_DATA_REQ, EVENT_DATAMNGR_ALLOW_DATA_RESP,
                {1, 0, 0, 0, 2, 0, 0, 0});
    WordPair req = {1, 0};
    h.send(h.ril(), EVENT_DATAMNGR_ALLOW_DATA_REQ, req);
    h.pump();
    auto answers = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_ALLOW_DATA_RESP);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].from, static_cast<uint32_t>(TASK_DATAMNGR));
    EXPECT_EQ(record_of<WordPair>(answers[0]).word1, 2u);
    EXPECT_EQ(lines("dm_allow_data_resp", "DMGR-INF",
                    "dm_allow_data_resp reply event to rildproxy\n"),
              1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnRelayTest, AnswerOnAChannelNoPeerAnnouncedIsRefused) {
    Peer &stranger = h.client("stranger");
    h.announce_ril();
    ril_answers(EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ, EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP,
                std::vector<uint8_t>(8));
    DeactivateReq req = {1, 0, {}};
    h.send(stranger, EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_TRUE(h.sent_to(stranger.id()).empty());
    EXPECT_EQ(lines("dm_abort_setup_data_call_resp", "DMGR-ERR",
                    "dm_abort_setup_data_call_resp query task fail\n"),
              1u);
    EXPECT_EQ(h.logs_containing(", dest ").size(), static_cast<size_t>(kTaskInfoRows));
    EXPECT_EQ(h.stray_events(), 0);

    // Called directly, the refusal is -1.
    evfw_event_t *event = evfw_event_alloc(nullptr);
    WordPair answer = {};
    EXPECT_EQ(dm_abort_setup_data_call_resp(&answer, event), -1);
    evfw_event_free(event);
}

TEST_F(PdnRelayTest, FailureAnswerCarriesTheIdOfTheRequestItFails) {
    Peer &lan = h.client("lanmngr");
    h.announce(lan);
    h.announce_ril();
    // An 8-byte answer where the data-call list was expected.
    ril_answers(EVENT_DATAMNGR_DATA_CALL_LIST_REQ, EVENT_DATAMNGR_DATA_CALL_LIST_RESP,
                {0xff, 0xff, 0xff, 0xff, 7, 0, 0, 0});
    WordPair req = {0, 0};
    h.send(lan, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, req);
    h.pump();
    auto to_lan = h.sent_to(lan.id());
    ASSERT_EQ(to_lan.size(), 1u);
    EXPECT_EQ(to_lan[0].event_id, EVENT_DATAMNGR_DATA_CALL_LIST_RESP);
    EXPECT_EQ(to_lan[0].data, (std::vector<uint8_t>{0xff, 0xff, 0xff, 0xff, 7, 0, 0, 0}));
    EXPECT_EQ(lines("dm_fail_resp", "DMGR-INF", "dm_fail_resp reply external to lanmngr\n"), 1u);
    EXPECT_EQ(h.stray_events(), 0);

    // Called for a request event itself, the answer takes that id.
    h.clear();
    evfw_event_t *request = evfw_event_alloc(task_info_row(5)->event);
    event_set_id(request, EVENT_DATAMNGR_DATA_CALL_LIST_REQ);
    EXPECT_EQ(dm_fail_resp(&req, request), 0);
    evfw_event_free(request);
    h.pump();
    ASSERT_EQ(h.sent_to(lan.id()).size(), 1u);
    EXPECT_EQ(h.sent_to(lan.id())[0].event_id, EVENT_DATAMNGR_DATA_CALL_LIST_REQ);
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- the members that touch the PDN table ----

class PdnDedicatedBearerTest : public PdnRelayTest {
  protected:
    void SetUp() override {
        h.announce(lan);
        h.announce_ril();
    }
    Peer &lan = h.client("lanmngr");
};

TEST_F(PdnDedicatedBearerTest, SetupAnswerEntersTheBearerWithTheRequesterAsOwner) {
    DedicateSetupResp answer;
    memset(&answer, 0, sizeof(answer));
    answer.entry = pdn_test::entry(9, 3, 2);
    std::vector<uint8_t> bytes(sizeof(answer));
    memcpy(bytes.data(), &answer, sizeof(answer));
    ril_answers(EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,
                EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP, bytes);
    h.send_zeros(lan, EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ, sizeof(DataCallEntry));
    h.pump();
    PdnInfo *row = find_pdn_info_by_cid(9);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->owner, task_info_row(5));
    EXPECT_EQ(row->primary_cid, 2u);
    EXPECT_EQ(h.sent_to(lan.id(), EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP).size(), 1u);
}

TEST_F(PdnDedicatedBearerTest, SetupAnswerWithACidOutOfRangeStillReachesTheRequester) {
    DedicateSetupResp answer;
    memset(&answer, 0, sizeof(answer));
    answer.entry = pdn_test::entry(200, 3, 2);
    std::vector<uint8_t> bytes(sizeof(answer));
    memcpy(bytes.data(), &answer, sizeof(answer));
    ril_answers(EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,
                EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP, bytes);
    h.send_zeros(lan, EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ, sizeof(DataCallEntry));
    h.pump();
    EXPECT_EQ(lines("update_pdn_info", "DMGR-ERR", "update_pdn_info find pdn by index 200 fail\n"),
              1u);
    auto to_lan = h.sent_to(lan.id(), EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP);
    ASSERT_EQ(to_lan.size(), 1u);
    EXPECT_EQ(to_lan[0].data, bytes);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnDedicatedBearerTest, DeactivationClearsTheBearerBeforeTheRilSeesIt) {
    PdnInfo *cell = put_row(pdn_test::entry(8, 3, 2));
    PdnInfo *epdg = put_row(default_bearer(108, 3));
    epdg->cid = 8;
    PdnInfo *primary = put_row(default_bearer(2, 3));
    bool cleared_when_relayed = false;
    h.ril().on_receive([&](Peer &, const Received &in) {
        if (in.event_id == EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ) {
            cleared_when_relayed = cell->active == 0 && epdg->active == 0;
        }
    });
    DeactivateReq req = {8, 0, {}};
    h.send(lan, EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_TRUE(cleared_when_relayed);
    EXPECT_EQ(primary->active, 1u);
    EXPECT_EQ(lines("clear_pdn_info_by_cid", "DMGR-INF", "clear_pdn_info_by_cid 8\n"), 2u);
}

// ---- radio power ----

TEST_F(PdnRelayTest, RadioPowerWithWordZeroSetPassesTheOwnQueueFirst) {
    Peer &lan = h.client("lanmngr");
    h.announce(lan);
    h.announce_ril();
    ril_answers(EVENT_DATAMNGR_RADIO_POWER_REQ, EVENT_DATAMNGR_RADIO_POWER_RESP,
                std::vector<uint8_t>(8, 1));
    WordPair req = {1, 4};
    h.send(lan, EVENT_DATAMNGR_RADIO_POWER_REQ, req);
    h.pump();

    auto to_self = h.sent_to(TASK_DATAMNGR, EVENT_DATAMNGR_RADIO_POWER_DO_REQ);
    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_RADIO_POWER_REQ);
    ASSERT_EQ(to_self.size(), 1u);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_LT(to_self[0].seq, to_ril[0].seq);
    EXPECT_EQ(record_of<WordPair>(to_ril[0]).word1, 4u);
    EXPECT_EQ(h.sent_to(lan.id(), EVENT_DATAMNGR_RADIO_POWER_RESP).size(), 1u);

    h.clear();
    req.word0 = 0;
    h.send(lan, EVENT_DATAMNGR_RADIO_POWER_REQ, req);
    h.pump();
    EXPECT_TRUE(h.sent_to(TASK_DATAMNGR, EVENT_DATAMNGR_RADIO_POWER_DO_REQ).empty());
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_RADIO_POWER_REQ).size(), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

}  // namespace

// The main dispatcher: exact length check, routing, the 8-byte failure path,
// the same-event answers of 4058/4060, and that every event is freed once.
#include <gtest/gtest.h>

#include "entity/datamngr.h"
#include "entity/pdn_state.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;

class DispatcherTest : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(h.stray_events(), expected_strays);
        EXPECT_EQ(h.rt().bad_frees(), 0);
    }
    Harness h;
    long expected_strays = 0;
};

struct LengthCase {
    uint32_t id;
    size_t len;
    const char *error;  // the length error, or nullptr
    bool fail_resp;     // given to dm_fail_resp
};

// Named field by field: printed as raw bytes, the padding would be read
// uninitialised.
void PrintTo(const LengthCase &c, std::ostream *os) {
    *os << "id " << c.id << " len " << c.len;
}

class DispatcherLengthTest : public DispatcherTest,
                             public ::testing::WithParamInterface<LengthCase> {};

TEST_P(DispatcherLengthTest, WrongLengthsAreRefusedOrReadAsFailureAnswers) {
    const LengthCase &c = GetParam();
    h.send_zeros(h.client("lanmngr"), c.id, c.len);
    h.pump();
    if (c.error != nullptr) {
        EXPECT_TRUE(h.logged(c.error)) << c.error;
    }
    // dm_fail_resp finds no announced requester for this channel.
    EXPECT_EQ(h.logged("dm_fail_resp query task fail"), c.fail_resp);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    EXPECT_EQ(h.held_by_library(), 0);
}

INSTANTIATE_TEST_SUITE_P(
        Lengths, DispatcherLengthTest,
        ::testing::Values(
                LengthCase{4003, 703, "event id 4003 invalid message length 703 != 704", false},
                LengthCase{4003, 705, "event id 4003 invalid message length 705 != 704", false},
                LengthCase{4003, 8, nullptr, true},
                LengthCase{4006, 12, "event id 4006 invalid message length 12 != 8", false},
                LengthCase{4027, 4, "event id 4027 invalid message length 4 != 0", false},
                LengthCase{5000, 8, nullptr, true}));

TEST_F(DispatcherTest, UnknownIdWithoutDataIsAnInvalidRequestCode) {
    h.send_zeros(h.client("lanmngr"), 5000, 0);
    h.pump();
    auto unknown = h.logs_containing("an unknown event");
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_NE(unknown[0].find("[DMGR-ERR] datamngr_main_hdl an unknown event"), std::string::npos);
    EXPECT_TRUE(
            h.logged("[DMGR-WAR] datamngr_main_hdl(): Invalid request code UNKNOWN_EVENT(5000)!!"));
}

struct QuietCase {
    uint32_t id;
    size_t len;
    bool warns;
};

class DispatcherQuietTest : public DispatcherTest,
                            public ::testing::WithParamInterface<QuietCase> {};

TEST_P(DispatcherQuietTest, IgnoredIdsAreSilentAndOwnAnswersWarn) {
    const QuietCase &c = GetParam();
    h.send_zeros(h.client("lanmngr"), c.id, c.len);
    h.pump();
    EXPECT_EQ(h.logged("Invalid request code"), c.warns);
    EXPECT_FALSE(h.logged("[DMGR-ERR]"));
    EXPECT_EQ(h.sent_to(h.client("lanmngr").id()).size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ids, DispatcherQuietTest,
                         ::testing::Values(QuietCase{3008, 4, false}, QuietCase{4035, 8, false},
                                           QuietCase{4039, 8, false}, QuietCase{4059, 8, true},
                                           QuietCase{4061, 12, true}));

TEST_F(DispatcherTest, SetPdnStateIsAnsweredOnTheSameEventWithEightBytes) {
    auto &imsm = h.client("imsm_0");
    PdnStateSetReq set = {0, 5, 0};
    h.send(imsm, EVENT_DATAMNGR_SET_PDN_STATE_REQ, set);
    h.pump();
    auto answers = h.sent_to(imsm.id());
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].event_id, 4059u);
    EXPECT_EQ(answers[0].data, std::vector<uint8_t>(8, 0));

    PdnStateGetReq get = {};
    get.pdn_id = 5;
    h.send(imsm, EVENT_DATAMNGR_GET_PDN_STATE_REQ, get);
    get.pdn_id = 4;
    h.send(imsm, EVENT_DATAMNGR_GET_PDN_STATE_REQ, get);
    h.pump();
    answers = h.sent_to(imsm.id(), 4061);
    ASSERT_EQ(answers.size(), 2u);
    auto emergency = dm::testkit::record_of<PdnStateReply>(answers[0]);
    auto ims = dm::testkit::record_of<PdnStateReply>(answers[1]);
    EXPECT_EQ(emergency.pdn_id, 5u);
    EXPECT_EQ(emergency.state, 0u);
    EXPECT_EQ(ims.pdn_id, 4u);
    EXPECT_EQ(ims.state, kPdnStateInitial);
}

TEST_F(DispatcherTest, UnknownPdnIdIsLoggedAndStillAnswered) {
    auto &imsm = h.client("imsm_0");
    PdnStateSetReq set = {0, 3, 9};
    h.send(imsm, EVENT_DATAMNGR_SET_PDN_STATE_REQ, set);
    PdnStateGetReq get = {};
    get.pdn_id = 3;
    h.send(imsm, EVENT_DATAMNGR_GET_PDN_STATE_REQ, get);
    h.pump();
    EXPECT_TRUE(h.logged("datamngr_set_pdn_state(): Invalid request code!!"));
    EXPECT_TRUE(h.logged("datamngr_get_pdn_state(): Invalid request code!!"));
    ASSERT_EQ(h.sent_to(imsm.id()).size(), 2u);
    auto reply = dm::testkit::record_of<PdnStateReply>(h.sent_to(imsm.id(), 4061)[0]);
    EXPECT_EQ(reply.pdn_id, 0u);
    EXPECT_EQ(reply.state, 0u);
}

TEST_F(DispatcherTest, HandlerThatKeepsTheEventMakesTheDispatcherReturnTheTask) {
    DatamngrEntity *entity = h.entity();
    PdnStateSetReq set = {0, 4, 1};
    evfw_event_t *event = evfw_event_alloc(nullptr);
    event_set_id(event, EVENT_DATAMNGR_SET_PDN_STATE_REQ);
    event_set_data(event, 0, &set, sizeof(set));
    EXPECT_EQ(datamngr_main_hdl(&entity->main_task, event, entity), &entity->main_task);
    EXPECT_EQ(entity->cur_event, nullptr);

    event = evfw_event_alloc(nullptr);
    event_set_id(event, EVENT_ATMNGR_NOTIFY);
    event_set_data(event, 0, "abcd", 4);
    EXPECT_EQ(datamngr_main_hdl(&entity->main_task, event, entity), nullptr);
    h.pump();
}

TEST_F(DispatcherTest, NullArgumentsAreRefusedWithoutTouchingTheEvent) {
    DatamngrEntity *entity = h.entity();
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(datamngr_main_hdl(nullptr, event, entity), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&entity->main_task, event, nullptr), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&entity->main_task, nullptr, entity), nullptr);
    EXPECT_EQ(h.logs_containing("datamngr_main_hdl(): Invalid argument!!").size(), 3u);
    EXPECT_EQ(h.rt().live_events(), 1);
    evfw_event_free(event);
}

TEST(DispatcherTable, KnowsTheLengthOfEveryServedId) {
    struct Row {
        uint32_t id, len;
    } rows[] = {{3002, 552},   {3004, 4120}, {3006, 4108},  {4002, 132},   {4004, 47876},
                {4020, 47880}, {4030, 528},  {4047, 136},   {4051, 47876}, {9318, 6},
                {9316, 12},    {4060, 136},  {4062, 47876}, {4016, 268}};
    for (const Row &r : rows) {
        bool known = false;
        EXPECT_EQ(dm_expected_length(r.id, &known), r.len) << r.id;
        EXPECT_TRUE(known) << r.id;
    }
    bool known = true;
    EXPECT_EQ(dm_expected_length(4027, &known), 0u);
    EXPECT_FALSE(known);
}

}  // namespace

// The send routines: routes, refusals before init, replies on the current
// event and the choice of IMS manager.
#include <gtest/gtest.h>

#include "entity/datamngr.h"
#include "entity/dm_send.h"
#include "entity/task_info.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;

class SendTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(h.rt().bad_frees(), 0); }
    Harness h;
};

TEST_F(SendTest, SendToTaskDerivesFromTheSourceAndLogsBothIds) {
    auto &lan = h.client("lanmngr");
    h.announce(lan);
    evfw_event_t *source = evfw_event_alloc(task_info_row(5)->event);
    event_set_id(source, EVENT_DATAMNGR_BEAR_REQ);
    uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(dm_send_to_task(TASK_RB_SIM1, data, sizeof(data), source, EVENT_RB_HANDOVER_REQ), 0);
    h.pump();
    auto sent = h.sent_to(TASK_RB_SIM1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].event_id, 9318u);
    EXPECT_EQ(sent[0].data, std::vector<uint8_t>({1, 2, 3}));
    EXPECT_EQ(sent[0].ext_id, lan.id());
    EXPECT_TRUE(h.logged("dm_send_to_task task TASK_RB_SIM1(903) "));
    EXPECT_TRUE(
            h.logged(", len 3, event prev id EVENT_DATAMNGR_BEAR_REQ(4041), event id "
                     "EVENT_RB_HANDOVER_REQ(9318)"));
    evfw_event_free(source);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(SendTest, ExternalReplyGoesToTheRequesterOrIsBroadcastWithoutOne) {
    auto &imsm = h.client("imsm_0");
    auto &lan = h.client("lanmngr");
    h.announce(imsm);
    uint32_t word = 7;
    EXPECT_EQ(dm_resp_to_external_channel(&word, 4, task_info_row(0)->event, 4042), 0);
    evfw_event_t *no_route = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_resp_to_external_channel(&word, 4, no_route, 4044), 0);
    evfw_event_free(no_route);
    h.pump();
    EXPECT_EQ(h.sent_to(imsm.id(), 4042).size(), 1u);
    EXPECT_EQ(h.sent_to(lan.id(), 4042).size(), 0u);
    EXPECT_EQ(h.sent_to(imsm.id(), 4044).size(), 1u);
    EXPECT_EQ(h.sent_to(lan.id(), 4044).size(), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(SendTest, EverySendIsRefusedBeforeInitAndLeavesItsEventUnreleased) {
    h.rt().unload();
    datamngr_state_reset();
    uint32_t word = 0;
    EXPECT_EQ(dm_send_to_task(TASK_RILDPROXY, &word, 4, nullptr, 4003), -1);
    EXPECT_EQ(dm_resp_to_external_channel(&word, 4, nullptr, 4042), -1);
    EXPECT_TRUE(h.logged("[DMGR-ERR] dm_send_to_task NULL entity pointer"));
    EXPECT_TRUE(h.logged("[DMGR-ERR] dm_resp_to_external_channel before entity init"));
    EXPECT_EQ(h.rt().live_events(), 2);
}

TEST_F(SendTest, RequestsForTheRilProxyWaitUntilItIsReady) {
    uint32_t word = 0;
    evfw_event_t *source = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_req_to_rild(&word, 4, source, 4019), 0);
    h.pump();
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    evfw_event_free(source);
}

TEST_F(SendTest, RequestToSelfComesBackThroughTheDispatcher) {
    uint8_t zeros[4] = {};
    evfw_event_t *source = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_req_to_self(zeros, sizeof(zeros), source, EVENT_ATMNGR_NOTIFY), 0);
    evfw_event_free(source);
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_DATAMNGR, 3008).size(), 1u);
    EXPECT_TRUE(h.logged("received event ID EVENT_ATMNGR_NOTIFY(3008) data len 4"));
    EXPECT_EQ(h.stray_events(), 0);
}

class ExtSendTest : public SendTest {
  protected:
    // An event of the LAN manager's, made the one being dispatched, as the
    // dispatcher would.
    evfw_event_t *dispatching() {
        evfw_event_t *event = evfw_event_alloc(task_info_row(5)->event);
        h.entity()->cur_event = event;
        return event;
    }
};

TEST_F(ExtSendTest, EmptyReplyIsValidAndTakesTheEventFromTheDispatcher) {
    auto &lan = h.client("lanmngr");
    h.announce(lan);
    dispatching();
    EXPECT_EQ(datamngr_ext_send(h.entity(), 4059, nullptr, 0), 0);
    EXPECT_EQ(h.entity()->cur_event, nullptr);
    h.pump();
    auto sent = h.sent_to(lan.id());
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].event_id, 4059u);
    EXPECT_EQ(sent[0].len, 0u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ExtSendTest, InvalidArgumentsAreRefused) {
    auto &lan = h.client("lanmngr");
    h.announce(lan);
    uint32_t word = 0;
    EXPECT_EQ(datamngr_ext_send(h.entity(), 4059, &word, 4), -1);  // nothing being dispatched
    evfw_event_t *event = dispatching();
    EXPECT_EQ(datamngr_ext_send(nullptr, 4059, &word, 4), -1);
    EXPECT_EQ(datamngr_ext_send(h.entity(), 0, &word, 4), -1);
    EXPECT_EQ(datamngr_ext_send(h.entity(), 4059, nullptr, 4), -1);
    EXPECT_EQ(h.logs_containing("datamngr_ext_send(): Invalid argument!!").size(), 4u);
    EXPECT_EQ(h.entity()->cur_event, event);
    h.entity()->cur_event = nullptr;
    evfw_event_free(event);
}

// Which IMS manager an indication reaches, by the multiple-IMS properties.
struct ImsmCase {
    const char *multiple_ims;  // nullptr: unset
    const char *simswitch;     // nullptr: unset
    int32_t sim;
    const char *receiver;  // nullptr: refused
    const char *error;     // expected error text, or nullptr
};

class NotifyImsmTest : public SendTest, public ::testing::WithParamInterface<ImsmCase> {};

TEST_P(NotifyImsmTest, IndicationReachesTheManagerOfTheSim) {
    const ImsmCase &c = GetParam();
    if (c.multiple_ims) h.rt().set_property("ro.qpx_multiple_ims_support", c.multiple_ims);
    if (c.simswitch) h.rt().set_property("persist.radio.simswitch", c.simswitch);
    for (const char *name : {"imsm_0", "imsm_1", "imsm_2", "imsm_3"}) h.announce(h.client(name));

    uint8_t payload[6] = {1, 0, 0, 4, 0, 0};
    int32_t ret = dm_notify_to_imsm(payload, sizeof(payload), EVENT_RB_HANDOVER_REQ, c.sim);
    h.pump();
    auto sent = h.sent_with_id(EVENT_RB_HANDOVER_REQ);
    if (c.receiver != nullptr) {
        EXPECT_EQ(ret, 0);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].to, h.client(c.receiver).id());
    } else {
        EXPECT_EQ(ret, -1);
        EXPECT_TRUE(sent.empty());
    }
    if (c.error != nullptr) {
        EXPECT_TRUE(h.logged(c.error)) << c.error;
    }
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(
        Properties, NotifyImsmTest,
        ::testing::Values(
                ImsmCase{"1", "2", 1, "imsm_1", nullptr},
                ImsmCase{"1", "2", 0, nullptr,
                         "rvn_datamngr_set_hdr(): Invalid SIM ID 0 to IMSM with the main SIM 1!!"},
                ImsmCase{"0", nullptr, 5, "imsm_0", nullptr},
                ImsmCase{"0", nullptr, 3, "imsm_3", nullptr},
                ImsmCase{nullptr, nullptr, 0, nullptr,
                         "rvn_datamngr_set_hdr(): property_get(qpx_multiple_ims_support) error!!"},
                ImsmCase{"1", nullptr, 0, nullptr,
                         "rvn_datamngr_set_hdr(): property_get(simswitch) error!!"}));

TEST_F(SendTest, IndicationForAnUnannouncedManagerIsRefused) {
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    uint32_t word = 0;
    EXPECT_EQ(dm_notify_to_imsm(&word, 4, 4021, 2), -1);
    EXPECT_TRUE(
            h.logged("dm_notify_to_imsm can't find IMSM record for event id 4021 and sim id 2"));
}

}  // namespace

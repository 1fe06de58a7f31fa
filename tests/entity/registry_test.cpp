// Peer announcements, the registry's lookups, and the queue of requests held
// until the RIL proxy is ready.
#include <gtest/gtest.h>

#include "entity/dm_send.h"
#include "entity/task_info.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;
using dm::testkit::log_body;

class RegistryTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(h.rt().bad_frees(), 0); }
    Harness h;
};

TEST_F(RegistryTest, ImsManagerZeroFillsOnlyTheFirstOfItsTwoRows) {
    h.announce(h.client("imsm_0"));
    EXPECT_NE(task_info_row(0)->event, nullptr);
    EXPECT_EQ(task_info_row(1)->event, nullptr);
    EXPECT_EQ(query_task_info_by_name("imsm_0"), task_info_row(0)->event);
    EXPECT_TRUE(h.logged("[DMGR-INF] record_task_info add imsm_0"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(RegistryTest, ReannouncementReplacesAndReleasesTheOldCopy) {
    auto &lan = h.client("lanmngr");
    h.announce(lan);
    evfw_event_t *first = task_info_row(5)->event;
    h.announce(lan);
    EXPECT_NE(task_info_row(5)->event, nullptr);
    EXPECT_EQ(h.rt().live_events(), 1);
    EXPECT_EQ(h.stray_events(), 0);
    (void)first;
}

TEST_F(RegistryTest, UnknownNameIsRefusedAndItsCopyIsLeftUnreleased) {
    h.announce(h.client("stranger"), "stranger");
    auto refused = h.logs_containing("record_task_info for stranger fail");
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_NE(refused[0].find("[DMGR-ERR]"), std::string::npos);
    EXPECT_EQ(h.held_by_library(), 0);
    // The copy made for the registry is neither stored nor freed.
    EXPECT_EQ(h.stray_events(), 1);
}

TEST_F(RegistryTest, NameFillingItsWholeFieldIsReadWithinTheField) {
    std::string name(kNotificationLen, 'x');
    h.announce(h.client("long"), name);
    EXPECT_TRUE(h.logged("record_task_info for " + name + " fail"));
    EXPECT_EQ(h.stray_events(), 1);
}

TEST_F(RegistryTest, AnswerFromAnUnannouncedChannelMatchesNoRow) {
    h.announce(h.client("imsm_1"));
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(query_task_info(event), nullptr);
    EXPECT_TRUE(h.logged("[DMGR-ERR] query_task_info fail"));
    evfw_event_free(event);
}

TEST_F(RegistryTest, ImsManagerOfTheRequestSimIsRecognisedByItsChannel) {
    auto &imsm2 = h.client("imsm_2");
    h.announce(imsm2);
    evfw_event_t *from_imsm2 = evfw_event_alloc(task_info_row(3)->event);
    uint32_t sim = 2;
    EXPECT_EQ(is_event_from_imsm(&sim, from_imsm2), 1);
    sim = 1;
    EXPECT_EQ(is_event_from_imsm(&sim, from_imsm2), 0);
    EXPECT_TRUE(h.logged("is_event_from_imsm cannot find IMSM name for sim 1"));
    evfw_event_free(from_imsm2);
}

TEST_F(RegistryTest, DumpListsEveryRowInOrder) {
    dump_task_info();
    auto lines = h.logs_containing(", dest ");
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(log_body(lines[0]).substr(0, 12), "imsm_0, even");
    EXPECT_NE(lines[11].find("rildproxy, event (nil), dest 2, task id 202"), std::string::npos);
}

// Requests for the RIL proxy before it has announced itself.
class PendingQueueTest : public RegistryTest {};

TEST_F(PendingQueueTest, EightAreHeldTheNinthIsDroppedAndTheFlushKeepsTheirOrder) {
    evfw_event_t *source = evfw_event_alloc(nullptr);
    event_set_id(source, EVENT_DATAMNGR_DATA_CALL_LIST_REQ);
    for (uint32_t i = 0; i < 9; ++i) {
        EXPECT_EQ(dm_req_to_rild(&i, sizeof(i), source, EVENT_DATAMNGR_DATA_CALL_LIST_REQ), 0);
    }
    evfw_event_free(source);
    EXPECT_EQ(dm_pending_count(), 8);
    EXPECT_TRUE(h.logged("[DMGR-ERR] pending event over 8 >= 8"));
    EXPECT_EQ(h.logs_containing("pending event 4019 before rild proxy ready").size(), 8u);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());

    h.announce_ril();
    auto sent = h.sent_to(TASK_RILDPROXY);
    ASSERT_EQ(sent.size(), 8u);
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(sent[i].event_id, 4019u);
        EXPECT_EQ(dm::testkit::record_of<uint32_t>(sent[i]), i);
    }
    EXPECT_EQ(dm_pending_count(), 0);
    EXPECT_TRUE(h.logged("dm_flush_event total pending event 8"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PendingQueueTest, QueueIsFlushedOnlyOnceAndThenRequestsGoStraightThrough) {
    h.announce_ril();
    EXPECT_TRUE(dm_rild_ready());
    evfw_event_t *source = evfw_event_alloc(nullptr);
    uint32_t record[2] = {1, 2};
    EXPECT_EQ(dm_queue_event_if_not_ready(record, sizeof(record), source, 4019), -1);
    EXPECT_EQ(dm_pending_count(), 0);
    EXPECT_EQ(dm_req_to_rild(record, sizeof(record), source, 4019), 0);
    evfw_event_free(source);
    h.announce_ril();
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY).size(), 1u);
    EXPECT_EQ(h.logs_containing("total pending event").size(), 0u);
    EXPECT_EQ(h.stray_events(), 0);
}

// The queued copy keeps the id it was allocated with: the source's id before
// it was overwritten.
TEST_F(PendingQueueTest, QueuedRequestKeepsTheIdItArrivedWith) {
    evfw_event_t *source = evfw_event_alloc(nullptr);
    event_set_id(source, EVENT_RB_SETUP_DATA_CALL_REQ);
    uint32_t record[2] = {};
    dm_req_to_rild(record, sizeof(record), source, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    EXPECT_EQ(event_get_id(source), 4003u);
    evfw_event_free(source);
    h.announce_ril();
    auto sent = h.sent_to(TASK_RILDPROXY);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].event_id, 9314u);
}

}  // namespace

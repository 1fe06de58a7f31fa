// Deterministic routing: channels, order, ownership, drops, broadcast,
// send-and-wait, the printed trace.
#include <cerrno>
#include <cstdio>

#include "host_test_util.h"

namespace host_test {
namespace {

using evfw_host::Peer;
using evfw_host::Received;

class RuntimeRouting : public EntityFixture {
  protected:
    void SetUp() override {
        EntityFixture::SetUp();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
        ims = &rt.add_client("imsm_0");
    }
    Peer *ril = nullptr, *at = nullptr, *ims = nullptr;
};

TEST_F(RuntimeRouting, AnswerDerivedFromRequestTravelsBackToTheClient) {
    // The main task answers with an event derived from the request and tells
    // the RIL proxy with a fresh one.
    fake.on_main = [](evfw_task_t *task, evfw_event_t *req) {
        evfw_event_t *answer = evfw_event_alloc(req);
        event_set_id(answer, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP);
        EXPECT_EQ(evfw_context_common_send(task->ctx, answer, evfw_event_get_ext_id(req)), 0);
        EXPECT_EQ(
                evfw_task_send_event(task, make_event(EVENT_DATAMNGR_NOTIFICATION), TASK_RILDPROXY),
                0);
        evfw_event_free(req);
    };
    ASSERT_EQ(ims->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, "ab", 2), 0);
    EXPECT_EQ(rt.pump(), 3u);
    const auto tr = rt.trace();
    ASSERT_EQ(tr.size(), 3u);
    EXPECT_EQ(tr[0].ext_id, ims->id()) << "a fresh event takes the client's external id";
    EXPECT_NE(tr[0].chnl, 0u);
    EXPECT_EQ(tr[0].data, (std::vector<uint8_t>{'a', 'b'}));

    const auto back = ims->received();
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].from, TASK_DATAMNGR);
    EXPECT_EQ(back[0].chnl, tr[0].chnl) << "the answer keeps the request's channel";
    EXPECT_EQ(back[0].ext_id, ims->id());
    const auto note = ril->received();
    ASSERT_EQ(note.size(), 1u);
    EXPECT_EQ(note[0].ext_id, 0u) << "a task's fresh event carries no external id";
    EXPECT_NE(note[0].chnl, tr[0].chnl) << "but the task's own channel";
    EXPECT_NE(note[0].chnl, 0u);
    EXPECT_EQ(rt.live_events(), 0);
}

TEST_F(RuntimeRouting, SendsOnlyQueueAndPumpDeliversInOrderToTheirOwners) {
    std::vector<uint32_t> at_got;
    at->on_receive([&](Peer &, const Received &in) { at_got.push_back(in.event_id); });
    std::vector<evfw_event_t *> kept;
    fake.on_main = [&](evfw_task_t *, evfw_event_t *ev) { kept.push_back(ev); };
    ril->send(TASK_ATMNGR, 2, nullptr, 0);
    ril->send(TASK_DATAMNGR, 1, nullptr, 0);
    ril->send(TASK_ATMNGR, 3, nullptr, 0);
    EXPECT_TRUE(at_got.empty()) << "no delivery before pump";
    EXPECT_EQ(rt.pump(), 3u);
    EXPECT_EQ(at_got, (std::vector<uint32_t>{2, 3}));
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(rt.live_events(), 1) << "a task handler owns its event, a peer's is freed";
    evfw_event_free(kept[0]);
    EXPECT_EQ(rt.bad_frees(), 0);
}

TEST_F(RuntimeRouting, UnknownDestinationIsTakenAndDropped) {
    EXPECT_EQ(evfw_task_send_event(&fake.main, make_event(5, {1}), 999), 0);
    const auto tr = rt.trace();
    ASSERT_EQ(tr.size(), 1u);
    EXPECT_TRUE(tr[0].dropped);
    EXPECT_EQ(tr[0].to, 999u);
    EXPECT_EQ(rt.live_events(), 0) << "the runtime frees a dropped event";
}

TEST_F(RuntimeRouting, FailedSendLeavesTheEventWithTheCaller) {
    evfw_event_t *ev = make_event(1);
    evfw_task_t stranger{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(evfw_task_send_event(nullptr, ev, TASK_ATMNGR), -1);
    EXPECT_EQ(evfw_context_common_send(nullptr, ev, TASK_ATMNGR), -1);
    EXPECT_EQ(evfw_task_send_event(&stranger, ev, TASK_ATMNGR), -1) << "task never initialised";
    EXPECT_EQ(evfw_task_bcast_ext_event(nullptr, ev), -1);
    EXPECT_EQ(evfw_task_send_recv_event(nullptr, ev, TASK_ATMNGR, nullptr, nullptr, 0), -1);
    EXPECT_EQ(evfw_task_send_event(&fake.main, nullptr, TASK_ATMNGR), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rt.live_events(), 1);
    EXPECT_TRUE(rt.trace().empty());
    evfw_event_free(ev);
    EXPECT_EQ(rt.bad_frees(), 0);
}

TEST_F(RuntimeRouting, BroadcastSendsOneCopyPerClientAndConsumesTheOriginal) {
    auto &lan = rt.add_client("lanmngr");
    std::vector<std::vector<uint8_t>> payloads;
    auto keep = [&](Peer &, const Received &in) {
        payloads.emplace_back(in.data.begin(), in.data.end());
    };
    ims->on_receive(keep);
    lan.on_receive(keep);
    EXPECT_EQ(evfw_task_bcast_ext_event(&fake.main, make_event(4021, {4, 5, 6})), 0);
    rt.pump();
    EXPECT_EQ(payloads, (std::vector<std::vector<uint8_t>>{{4, 5, 6}, {4, 5, 6}}));
    const auto tr = rt.trace();
    ASSERT_EQ(tr.size(), 2u);
    EXPECT_EQ(tr[0].to, ims->id());
    EXPECT_EQ(tr[1].to, lan.id());
    EXPECT_EQ(tr[1].event_id, 4021u);
    EXPECT_EQ(tr[0].chnl, tr[1].chnl) << "copies keep the route of the original";
    EXPECT_EQ(rt.live_events(), 0);
    EXPECT_EQ(rt.events_allocated(), 3u);
}

TEST(RuntimeBroadcast, WithoutClientsIsTracedAsDropped) {
    Runtime &rt = Runtime::instance();
    rt.reset();
    evfw_task_t task{};
    ASSERT_EQ(evfw_task_init(&task, 1, TASK_DATAMNGR_AUX), 0);
    EXPECT_EQ(evfw_task_bcast_ext_event(&task, make_event(5)), 0);
    ASSERT_EQ(rt.trace().size(), 1u);
    EXPECT_TRUE(rt.trace()[0].dropped);
    EXPECT_EQ(rt.live_events(), 0);
    rt.reset();
}

// The main task, on a request, asks the AT manager and waits for the answer.
class RuntimeSendRecv : public RuntimeRouting {
  protected:
    void SetUp() override {
        RuntimeRouting::SetUp();
        fake.on_main = [this](evfw_task_t *task, evfw_event_t *ev) {
            max_depth = std::max(max_depth, ++depth);
            if (event_get_id(ev) == EVENT_DATAMNGR_SETUP_DATA_CALL_REQ) {
                const uint32_t want = EVENT_ATMNGR_ATCMD_RESP;
                result = evfw_task_send_recv_event(task, make_event(EVENT_ATMNGR_ATCMD_REQ),
                                                   TASK_ATMNGR, rx_cond_event_id, &want, 4);
                ril_during_wait = ril_got;
            }
            evfw_event_free(ev);
            --depth;
        };
    }
    int depth = 0, max_depth = 0, result = 1, ril_got = 0, ril_during_wait = 0;
};

TEST_F(RuntimeSendRecv, ReturnsOnTheAwaitedEventWhichIsDeliveredAfterwards) {
    // The AT manager sends the waiting task something unrelated and passes
    // the request on to the RIL proxy, which answers.
    at->on_receive([](Peer &self, const Received &in) {
        self.send(TASK_DATAMNGR, EVENT_ATMNGR_NOTIFY, nullptr, 0);
        self.reply(in.event, TASK_RILDPROXY, 1, nullptr, 0);
    });
    ril->on_receive([this](Peer &self, const Received &in) {
        ++ril_got;
        self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, nullptr, 0);
    });
    ril->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, nullptr, 0);
    rt.pump();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(max_depth, 1) << "the waiting handler must not be re-entered";
    EXPECT_EQ(ril_during_wait, 1) << "events for others are delivered during the wait";
    EXPECT_EQ(fake.main_got, (std::vector<uint32_t>{EVENT_DATAMNGR_SETUP_DATA_CALL_REQ,
                                                    EVENT_ATMNGR_NOTIFY, EVENT_ATMNGR_ATCMD_RESP}))
            << "held events arrive afterwards, in order";
    EXPECT_EQ(rt.timeouts(), 0);
    EXPECT_EQ(rt.live_events(), 0);
}

TEST_F(RuntimeSendRecv, TimesOutWhenTheQueueRunsDry) {
    at->on_receive([](Peer &self, const Received &) {
        self.send(TASK_DATAMNGR, EVENT_ATMNGR_NOTIFY, nullptr, 0);  // not the awaited id
    });
    ril->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, nullptr, 0);
    testing::internal::CaptureStderr();
    rt.pump();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_EQ(err.rfind("evfw_host: ", 0), 0u) << err;
    EXPECT_NE(err.find("EVENT_ATMNGR_ATCMD_RESP"), std::string::npos) << err;
    EXPECT_EQ(fake.main_got.back(), EVENT_ATMNGR_NOTIFY) << "the held event still arrives";
    EXPECT_EQ(rt.live_events(), 0);
    const uint64_t wide = EVENT_ATMNGR_NOTIFY;
    evfw_event_t *notify = make_event(EVENT_ATMNGR_NOTIFY);
    EXPECT_EQ(rx_cond_event_id(notify, &wide, sizeof wide), 0) << "the id is exactly 4 bytes";
    evfw_event_free(notify);
}

TEST_F(RuntimeRouting, PrintedTraceShowsRouteNamesBytesAndDrops) {
    evfw_task_send_event(&fake.main, make_event(EVENT_ATMNGR_ATCMD_REQ, {1, 2, 0xff}), TASK_ATMNGR);
    evfw_task_send_event(&fake.main, make_event(3002, std::vector<uint8_t>(40, 0xab)), TASK_ATMNGR);
    evfw_task_send_event(&fake.main, make_event(9), 999);
    rt.set_trace_data(false);
    ims->send(TASK_ATMNGR, EVENT_DATAMNGR_NOTIFICATION, "xyz", 3);
    char *buf = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&buf, &size);
    rt.print_trace(out);
    fclose(out);
    const std::string text(buf, size);
    free(buf);
    std::string shown;
    for (int i = 0; i < 32; ++i) shown += "ab";
    for (const std::string &line : std::vector<std::string>{
                 "1 TASK_DATAMNGR(402) -> TASK_ATMNGR(302) EVENT_ATMNGR_ATCMD_REQ(3002) len=3 "
                 "data=0102ff\n",
                 "len=40 data=" + shown + "...\n",
                 "UNKNOWN_CONTEXT(999) UNKNOWN_EVENT(9) len=0 (dropped)\n",
                 "imsm_0(65536) -> TASK_ATMNGR(302) EVENT_DATAMNGR_NOTIFICATION(4002) len=3\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line << " in:\n" << text;
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
}

}  // namespace
}  // namespace host_test

// Entities and deterministic routing: load and exit, channels, order,
// ownership, drops, broadcast, send-and-wait, the printed trace.
#include <cerrno>

#include "host_test_util.h"

namespace host_test {

namespace {

class Routing : public EntityFixture {
  protected:
    void SetUp() override {
        EntityFixture::SetUp();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
        ims = &rt.add_client("imsm_0");
    }
    Peer *ril = nullptr, *at = nullptr, *ims = nullptr;
};

TEST_F(Routing, FailedSendsLeaveTheEventWithTheCallerAndUnknownDestinationsDrop) {
    evfw_event_t *ev = make_event(1);
    evfw_task_t stranger{};
    EXPECT_EQ(evfw_task_send_event(nullptr, ev, TASK_ATMNGR), -1);
    EXPECT_EQ(evfw_context_common_send(nullptr, ev, TASK_ATMNGR), -1);
    EXPECT_EQ(evfw_task_send_event(&stranger, ev, TASK_ATMNGR), -1);
    EXPECT_EQ(evfw_task_bcast_ext_event(nullptr, ev), -1);
    EXPECT_EQ(evfw_task_bcast_ext_event(&stranger, ev), -1);
    EXPECT_EQ(evfw_task_send_recv_event(nullptr, ev, TASK_ATMNGR, nullptr, nullptr, 0), -1);
    EXPECT_EQ(evfw_task_send_event(&fake.main, nullptr, TASK_ATMNGR), -1);
    EXPECT_EQ(std::tuple(rt.live_events(), rt.trace().size()), std::tuple(1L, 0ul));
    EXPECT_EQ(evfw_task_send_event(&fake.main, ev, 999), 0);
    ASSERT_EQ(rt.trace().size(), 1u);
    EXPECT_TRUE(rt.trace()[0].dropped);
    EXPECT_EQ(rt.live_events(), 0) << "the runtime frees a dropped event";
    EXPECT_EQ(rt.diagnostics().size(), 2u);
}

TEST_F(EntityFixture, BroadcastWithoutClientsIsTracedAsDropped) {
    EXPECT_EQ(evfw_task_bcast_ext_event(&fake.dati, make_event(4021)), 0);
    ASSERT_EQ(rt.trace().size(), 1u);
    EXPECT_TRUE(rt.trace()[0].dropped);
    EXPECT_EQ(rt.live_events(), 0);
}

TEST_F(Routing, UnloadExitsNewestFirstAndRemovesTheirTasks) {
    static evfw_task_t second_task;
    static std::vector<uint32_t> aux_got;
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) { return evfw_task_init(&second_task, 42, TASK_RB_SIM0), e; };
    abi.exit = [](evfw_entity_t *e) { return g_exit_order.push_back(e->name), e; };
    abi.ctx_handlers = {{TASK_DATAMNGR_AUX, [](evfw_context_t *, evfw_event_t *ev, void *) {
                             aux_got.push_back(event_get_id(ev));
                             evfw_event_free(ev);
                             return 0;
                         }}};
    ASSERT_NE(rt.load("second", abi), nullptr);
    ril->send(TASK_DATAMNGR_AUX, 7, nullptr, 0);
    rt.pump();
    EXPECT_EQ(aux_got, std::vector<uint32_t>{7}) << "the framework made the handler's task";
    ril->send(TASK_DATAMNGR, 1, nullptr, 0);  // still queued at unload
    rt.unload();
    EXPECT_EQ(g_exit_order, (std::vector<std::string>{"second", "fake"}));
    EXPECT_EQ(rt.live_events(), 0) << "events queued for removed tasks are freed";
    rt.clear_trace();
    for (uint32_t id : {TASK_DATAMNGR, TASK_RB_SIM0, TASK_DATAMNGR_AUX})
        ril->send(id, 2, nullptr, 0);
    for (const auto &e : rt.trace()) EXPECT_TRUE(e.dropped) << e.to;
}

TEST_F(Routing, TaskIdsAreUniqueAndExitOnce) {
    evfw_task_t dup{};
    EXPECT_EQ(evfw_task_init(&dup, 1, TASK_DATAMNGR), -1);
    EXPECT_EQ(evfw_task_init(&dup, 1, EVFW_EXT_ID_BASE), -1);
    EXPECT_THROW(rt.add_task(TASK_DATAMNGR), std::logic_error);
    EXPECT_THROW(rt.add_task(EVFW_EXT_ID_BASE), std::invalid_argument);
    EXPECT_EQ(evfw_task_exit(&fake.dati), 0);
    EXPECT_EQ(evfw_task_exit(&fake.dati), -1);
    Peer *reused = &rt.add_task(TASK_DATAMNGR_DATI_HDL);  // an exited task's id is free again
    EXPECT_EQ(reused, rt.peer(TASK_DATAMNGR_DATI_HDL));
    EXPECT_EQ(rt.peer(TASK_DATAMNGR), nullptr) << "an entity task is no peer";
}

TEST(Loading, FailuresLeaveNothingBehindAndGiveAReason) {
    Runtime &rt = Runtime::instance();
    rt.reset();
    rt.set_diag_echo(nullptr);
    FakeEntity fake;
    fake.fail_init = true;
    g_fake = &fake;
    EXPECT_EQ(rt.load("fake", fake_abi()), nullptr);
    EXPECT_NE(rt.last_error().find("fake"), std::string::npos) << rt.last_error();
    evfw_task_t again{};
    EXPECT_EQ(evfw_task_init(&again, 1, TASK_DATAMNGR), 0) << "the failed entity's task is gone";
    EXPECT_TRUE(rt.wait_threads(std::chrono::seconds(2)));
    EXPECT_FALSE(fake.saw_init_done) << "and so is the thread routine it started";
    g_fake = nullptr;
    const struct {
        const char *path, *init, *missing;
        std::vector<std::pair<uint32_t, std::string>> ctx;
    } cases[] = {{"/nonexistent/librvn_x.so", "init", "/nonexistent/librvn_x.so", {}},
                 {"libm.so.6", "no_such_init", "no_such_init", {}},
                 {"libm.so.6", "cos", "no_such_hdl", {{403, "no_such_hdl"}}}};
    for (const auto &c : cases) {
        EXPECT_EQ(rt.load_library(c.path, "x", c.init, "sin", c.ctx), nullptr);
        EXPECT_NE(rt.last_error().find(c.missing), std::string::npos) << rt.last_error();
    }
    EXPECT_EQ(rt.load("empty", evfw_host::EntityAbi{}), nullptr);
    rt.reset();
    EXPECT_FALSE(fake.exited) << "no exit for an entity that did not load";
}

// The main task, on a request, asks the AT manager and waits for the answer;
// what comes is another event.
TEST_F(Routing, SendAndWaitTimesOutWhenTheQueueRunsDry) {
    int result = 1;
    fake.on_main = [&](evfw_task_t *task, evfw_event_t *ev) {
        if (event_get_id(ev) == 4003) result = ask_at_manager(task);
        evfw_event_free(ev);
    };
    at->on_receive(
            [](Peer &self, const Received &) { self.send(TASK_DATAMNGR, 3008, nullptr, 0); });
    ril->send(TASK_DATAMNGR, 4003, nullptr, 0);
    rt.pump();
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_NE(diags().find("waited for EVENT_ATMNGR_ATCMD_RESP(3004)"), std::string::npos)
            << diags();
    EXPECT_EQ(fake.main_got.back(), 3008u) << "the held event still arrives";
    const uint64_t wide = 3008;
    evfw_event_t *notify = make_event(3008);
    EXPECT_EQ(rx_cond_event_id(notify, &wide, sizeof wide), 0) << "the id is exactly 4 bytes";
    evfw_event_free(notify);
}

// The trace may be switched off and on again; routing stays the same and
// nothing is recorded while it is off.
TEST_F(Routing, TraceSwitchedOffAndOnAgainKeepsRoutingAndRecordsOnlyWhileOn) {
    std::vector<uint32_t> got;
    at->on_receive([&](Peer &, const Received &in) { got.push_back(in.event_id); });
    for (bool on : {false, true}) {
        rt.set_trace(on);
        ims->send(TASK_ATMNGR, 1, nullptr, 0);
        ims->send(TASK_RILDPROXY, 2, "x", 1);  // a peer without handler: nothing sees it
        evfw_task_send_event(&fake.main, make_event(3), TASK_ATMNGR);
        evfw_task_send_event(&fake.main, make_event(4), 999);
        EXPECT_EQ(rt.live_events(), 3) << "trace " << on;
        rt.pump();
        EXPECT_EQ(rt.live_events(), 0) << "trace " << on;
        EXPECT_EQ(rt.trace().size(), on ? 4u : 0u);
    }
    EXPECT_EQ(got, (std::vector<uint32_t>{1, 3, 1, 3}));
    ASSERT_EQ(rt.trace().size(), 4u);
    EXPECT_TRUE(rt.trace()[3].dropped);
}

TEST_F(Routing, PrintedTraceShowsRoutesBytesDropsAndDiagnosticsInPlace) {
    evfw_task_send_event(&fake.main, make_event(3002, {1, 2, 0xff}), TASK_ATMNGR);
    evfw_task_send_event(&fake.main, make_event(3002, Bytes(40, 0xaa)), TASK_ATMNGR);
    fake.lock.unlock(&fake.lock);  // a diagnostic between the second and third send
    evfw_task_send_event(&fake.main, make_event(9), 999);
    ims->send(TASK_ATMNGR, 4002, nullptr, 0);
    const std::string text = printed([&](FILE *out) { rt.print_trace(out); });
    EXPECT_EQ(text,
              "   1 TASK_DATAMNGR(402) -> TASK_ATMNGR(302) EVENT_ATMNGR_ATCMD_REQ(3002) len=3 "
              "data=0102ff\n"
              "   2 TASK_DATAMNGR(402) -> TASK_ATMNGR(302) EVENT_ATMNGR_ATCMD_REQ(3002) len=40 "
              "data=" +
                      std::string(64, 'a') +
                      "...\n     !! evfw_host: " + rt.diagnostics().at(0).text +
                      "\n   3 TASK_DATAMNGR(402) -> UNKNOWN_CONTEXT(999) UNKNOWN_EVENT(9) len=0 "
                      "(dropped)\n"
                      "   4 imsm_0(65536) -> TASK_ATMNGR(302) EVENT_DATAMNGR_NOTIFICATION(4002) "
                      "len=0\n");
    EXPECT_EQ(rt.bad_unlocks(), 1);
}

}  // namespace
}  // namespace host_test

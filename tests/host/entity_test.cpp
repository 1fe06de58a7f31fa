// Loading and unloading entities: start-up record, handlers, exit order,
// failures.
#include "host_test_util.h"

namespace host_test {
namespace {

using RuntimeEntity = EntityFixture;

TEST_F(RuntimeEntity, LoadRunsInitAndRecordsItsFrameworkCalls) {
    EXPECT_STREQ(entity->name, "fake");
    EXPECT_EQ(entity->priv, &fake);
    EXPECT_EQ(rt.calls(), (std::vector<std::string>{
                                  "evfw_mutex_init",
                                  "evfw_task_init(41,402)",
                                  "evfw_task_init(41,403)",
                                  "evfw_connmngr_common_subscribe(402,4003,1)",
                                  "evfw_atmngr_subscribe_urc(402,+CGEV,3006,4)",
                                  "set_hdl(402)",
                                  "evfw_thrd_init",
                                  "evfw_thrd_start",
                          }));
    ASSERT_EQ(rt.subscriptions().size(), 1u);
    EXPECT_EQ(rt.subscriptions()[0].event_id, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    ASSERT_EQ(rt.urc_subscriptions().size(), 1u);
    EXPECT_EQ(rt.urc_subscriptions()[0].prefix, "+CGEV");
    EXPECT_EQ(fake.main.task_id, TASK_DATAMNGR);
    EXPECT_NE(fake.main.ctx, fake.dati.ctx);
}

TEST_F(RuntimeEntity, MainHandlerGetsItsTaskAndContextHandlerTheCurrentPriv) {
    auto &ril = rt.add_task(TASK_RILDPROXY);
    evfw_task_t *seen_task = nullptr;
    fake.on_main = [&](evfw_task_t *task, evfw_event_t *ev) {
        seen_task = task;
        evfw_event_free(ev);
    };
    ril.send(TASK_DATAMNGR, 1, nullptr, 0);
    ril.send(TASK_DATAMNGR_DATI_HDL, 2, nullptr, 0);
    int later_priv = 0;
    entity->priv = &later_priv;  // the handler argument is read at delivery
    rt.pump();
    EXPECT_EQ(seen_task, &fake.main);
    EXPECT_EQ(fake.dati_got, std::vector<uint32_t>{2});
    EXPECT_EQ(fake.dati_priv, std::vector<void *>{&later_priv});
}

// A second entity with task 902; it leaves the task to the framework at exit
// and has a handler for 404, which it never creates.
std::vector<uint32_t> g_aux_got;
evfw_task_t g_second_task;
evfw_entity_t *second_init(evfw_entity_t *e) {
    evfw_task_init(&g_second_task, 42, TASK_RB_SIM0);
    return e;
}
evfw_entity_t *second_exit(evfw_entity_t *e) {
    g_exit_order.push_back(e->name);
    return e;
}
int aux_hdl(evfw_context_t *, evfw_event_t *ev, void *) {
    g_aux_got.push_back(event_get_id(ev));
    evfw_event_free(ev);
    return 0;
}

TEST_F(RuntimeEntity, UnloadExitsNewestFirstAndRemovesTheirTasks) {
    g_aux_got.clear();
    evfw_host::EntityAbi abi{second_init, second_exit, {{TASK_DATAMNGR_AUX, aux_hdl}}};
    ASSERT_NE(rt.load("second", abi), nullptr);
    auto &ril = rt.add_task(TASK_RILDPROXY);
    ril.send(TASK_DATAMNGR_AUX, 7, nullptr, 0);
    rt.pump();
    EXPECT_EQ(g_aux_got, std::vector<uint32_t>{7}) << "the framework made the handler's task";

    ril.send(TASK_DATAMNGR, 1, nullptr, 0);  // still queued at unload
    rt.unload();
    EXPECT_EQ(g_exit_order, (std::vector<std::string>{"second", "fake"}));
    EXPECT_EQ(rt.live_events(), 0) << "events queued for removed tasks are freed";
    rt.clear_trace();
    for (uint32_t id : {TASK_DATAMNGR, TASK_RB_SIM0, TASK_DATAMNGR_AUX})
        ril.send(id, 2, nullptr, 0);
    for (const auto &e : rt.trace()) EXPECT_TRUE(e.dropped) << e.to;
}

TEST_F(RuntimeEntity, TaskIdsAreUniqueAndExitOnce) {
    evfw_task_t dup{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(evfw_task_init(&dup, 1, TASK_DATAMNGR), -1);
    EXPECT_EQ(evfw_task_init(&dup, 1, EVFW_EXT_ID_BASE), -1);
    EXPECT_THROW(rt.add_task(TASK_DATAMNGR), std::logic_error);
    EXPECT_EQ(evfw_task_exit(&fake.dati), 0);
    EXPECT_EQ(evfw_task_exit(&fake.dati), -1);
    testing::internal::GetCapturedStderr();
    evfw_host::Peer *reused = &rt.add_task(TASK_DATAMNGR_DATI_HDL);
    EXPECT_EQ(reused, rt.peer(TASK_DATAMNGR_DATI_HDL)) << "an exited task's id is free again";
    EXPECT_EQ(rt.peer(TASK_DATAMNGR), nullptr) << "an entity task is no peer";
}

TEST(RuntimeEntityLoad, FailedInitLeavesNothingBehind) {
    Runtime &rt = Runtime::instance();
    rt.reset();
    FakeEntity fake;
    fake.fail_init = true;
    g_fake = &fake;
    EXPECT_EQ(rt.load("fake", fake_abi()), nullptr);
    EXPECT_NE(rt.last_error().find("fake"), std::string::npos) << rt.last_error();
    evfw_task_t again{};
    EXPECT_EQ(evfw_task_init(&again, 1, TASK_DATAMNGR), 0) << "the failed entity's task is gone";
    EXPECT_EQ(rt.run_threads(), 0u) << "and so is the thread routine it started";
    rt.reset();
    EXPECT_FALSE(fake.exited) << "no exit for an entity that did not load";
    g_fake = nullptr;
}

TEST(RuntimeEntityLoad, LibraryFailuresGiveNullAndAReason) {
    Runtime &rt = Runtime::instance();
    rt.reset();
    struct {
        const char *path, *init, *missing;
        std::vector<std::pair<uint32_t, std::string>> ctx;
    } cases[] = {
            {"/nonexistent/librvn_x.so", "init", "/nonexistent/librvn_x.so", {}},
            {"libm.so.6", "no_such_init", "no_such_init", {}},  // a real object, wrong symbols
            {"libm.so.6", "cos", "no_such_hdl", {{403, "no_such_hdl"}}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(rt.load_library(c.path, "x", c.init, "sin", c.ctx), nullptr);
        EXPECT_NE(rt.last_error().find(c.missing), std::string::npos) << rt.last_error();
    }
    EXPECT_TRUE(rt.calls().empty()) << "nothing was initialised";
    EXPECT_EQ(rt.load("empty", evfw_host::EntityAbi{}), nullptr);
    EXPECT_FALSE(rt.last_error().empty());
}

}  // namespace
}  // namespace host_test

// The runtime in deterministic mode: events and their accounting, routes,
// sends and drops, entities' load and unload, fault plans, and the platform
// around the framework (logging, properties, the trace).
#include <unistd.h>

#include "android/log.h"
#include "cutils/properties.h"
#include "host_test_util.h"
#include "rvn_log.h"

namespace host_test {
namespace {

using Runtime_ = EntityFixture;

TEST_F(Runtime_, EventDataIsCopiedAndEachEventIsCountedUntilFreedOnce) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    EXPECT_EQ(bytes_of(ev), Bytes{});
    uint8_t stack[4] = {1, 2, 3, 4};
    ASSERT_EQ(event_set_data(ev, 0, stack, sizeof stack), ev);
    stack[0] = 9;  // the caller's buffer is not referenced
    const uint8_t tail[2] = {7, 8};
    ASSERT_EQ(event_set_data(ev, 6, tail, 2), ev);
    EXPECT_EQ(bytes_of(ev), (Bytes{1, 2, 3, 4, 0, 0, 7, 8})) << "a gap reads as zeros";
    ASSERT_EQ(event_set_data(ev, 1, tail, 1), ev);
    // The block ends at offset + len; a read from an offset starts there.
    EXPECT_EQ(std::tuple(bytes_of(ev), bytes_of(ev, 1), bytes_of(ev, 2)),
              std::tuple(Bytes{1, 7}, Bytes{7}, Bytes{}));
    EXPECT_EQ(event_set_data(ev, 0, nullptr, 4), nullptr);
    EXPECT_EQ(event_set_data(nullptr, 0, tail, 1), nullptr);
    EXPECT_EQ(std::tuple(event_set_id(nullptr, 5), event_set_id(ev, 4003)), std::tuple(0, 1));
    // Doubling the data from its own block, which has to grow meanwhile.
    Bytes twice(200);
    for (size_t i = 0; i < twice.size(); ++i) twice[i] = static_cast<uint8_t>(i % 100);
    event_set_data(ev, 0, twice.data(), 100);
    ASSERT_NE(event_set_data(ev, 100, event_get_data(ev, 0, nullptr), 100), nullptr);
    EXPECT_EQ(bytes_of(ev), twice);
    // The id that send-and-wait waits for is exactly 4 bytes.
    const uint32_t id = 4003;
    const uint64_t wide = 4003;
    EXPECT_EQ(std::tuple(rx_cond_event_id(ev, &id, 4), rx_cond_event_id(ev, &wide, 8)),
              std::tuple(1, 0));
    // Each event is counted until freed once; a second free is caught.
    evfw_event_t *derived = evfw_event_alloc(ev);
    EXPECT_EQ(std::tuple(event_get_id(derived), rt.live_events()), std::tuple(4003u, 2L))
            << "the id is inherited until set";
    evfw_event_free(ev);
    evfw_event_free(nullptr);
    evfw_event_free(ev);
    EXPECT_EQ(std::tuple(rt.bad_frees(), rt.live_events()), std::tuple(1L, 1L));
    EXPECT_EQ(diags().rfind("evfw_event_free(", 0), 0u) << diags();
    evfw_event_free(derived);
    EXPECT_EQ(rt.live_events(), 0);
    // What a run left is reclaimed when the next starts, as a new round too:
    // freeing it afterwards is a bad free of the new round.  A reset keeps
    // it while shared objects stay mapped for the leak checkers.
    const char *keep = std::getenv("EVFW_HOST_KEEP_LOADED");
    const bool kept = keep != nullptr && std::string(keep) == "1";
    for (const bool reset : {true, false}) {
        evfw_event_t *old = evfw_event_alloc(nullptr);
        reset ? rt.reset() : rt.new_round();
        EXPECT_EQ(std::tuple(rt.live_events(), rt.bad_frees()), std::tuple(0L, 0L));
        evfw_event_free(old);
        const long reclaimed = reset && kept ? 0 : 1;
        EXPECT_EQ(std::tuple(rt.live_events(), rt.bad_frees()), std::tuple(0L, reclaimed));
    }
}

TEST_F(Runtime_, RoutesTellChannelAndClientAndAnswersTakeTheirRequestsRoute) {
    std::vector<evfw_event_t *> kept;  // derived copies of what the AT manager got
    at->on_receive([&](Peer &, const Received &in) { kept.push_back(evfw_event_alloc(in.event)); });
    auto routed = [&](Peer &from) {
        from.send(TASK_ATMNGR, 1, nullptr, 0);
        rt.pump();
        return kept.back();
    };
    Peer *ims = &rt.add_client("imsm_0"), &b = rt.add_client("b");
    evfw_event_t *a1 = routed(*ims), *a2 = routed(*ims), *b1 = routed(b), *t1 = routed(*ril),
                 *t2 = routed(*ril), *unsent = kept.emplace_back(evfw_event_alloc(nullptr));
    const std::tuple<evfw_event_t *, evfw_event_t *, int> cases[] = {
            {a1, a2, 3}, {a1, b1, 0},         {t1, t2, 1},
            {t1, a1, 0}, {unsent, unsent, 0}, {unsent, a1, 0}};
    for (const auto &[x, y, bits] : cases)
        EXPECT_EQ(std::tuple(evfw_event_cmp_chnl(x, y), evfw_event_cmp_chnl(y, x)),
                  std::tuple(bits, bits));
    // A reply derived from a1 travels on imsm_0's route, whoever sends it.
    ASSERT_EQ(ril->reply(a1, TASK_ATMNGR, 2, nullptr, 0), 0);
    rt.pump();
    EXPECT_EQ(evfw_event_cmp_chnl(kept.back(), a2), 3);
    for (evfw_event_t *ev : kept) evfw_event_free(ev);
}

TEST_F(Runtime_, FailedSendsLeaveTheEventWithTheCallerAndClientlessBroadcastsDrop) {
    evfw_event_t *ev = make_event(1);
    evfw_task_t stranger{};
    const int refused[] = {evfw_task_send_event(nullptr, ev, TASK_ATMNGR),
                           evfw_context_common_send(nullptr, ev, TASK_ATMNGR),
                           evfw_task_send_event(&stranger, ev, TASK_ATMNGR),
                           evfw_task_bcast_ext_event(nullptr, ev),
                           evfw_task_bcast_ext_event(&stranger, ev),
                           evfw_task_send_recv_event(nullptr, ev, TASK_ATMNGR, nullptr, nullptr, 0),
                           evfw_task_send_event(&fake.main, nullptr, TASK_ATMNGR)};
    for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i], -1) << i;
    EXPECT_EQ(std::tuple(rt.live_events(), rt.trace().size(), rt.diagnostics().size()),
              std::tuple(1L, 0ul, 2ul));
    // A broadcast without clients (the fixture has none) is dropped, and
    // freed by the runtime, as a send to no context is (see the trace test).
    EXPECT_EQ(evfw_task_bcast_ext_event(&fake.dati, ev), 0);
    ASSERT_EQ(rt.trace().size(), 1u);
    EXPECT_EQ(std::tuple(rt.trace()[0].dropped, rt.live_events()), std::tuple(true, 0L));
}

TEST_F(Runtime_, UnloadExitsNewestFirstAndRemovesTheirTasks) {
    static evfw_task_t second_task;
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) { return evfw_task_init(&second_task, 42, TASK_RB_SIM0), e; };
    abi.exit = [](evfw_entity_t *e) { return g_exit_order.push_back(e->name), e; };
    ASSERT_NE(rt.load("second", abi), nullptr);
    EXPECT_EQ(evfw_task_init(&second_task, 1, TASK_DATAMNGR), -1) << "ids are unique";
    EXPECT_EQ(evfw_task_init(&second_task, 1, EVFW_EXT_ID_BASE), -1);
    EXPECT_THROW(rt.add_task(TASK_DATAMNGR), std::logic_error);
    EXPECT_THROW(rt.add_task(EVFW_EXT_ID_BASE), std::invalid_argument);
    ril->send(TASK_DATAMNGR_DATI_HDL, 7, nullptr, 0);  // for the task, not for whoever takes its id
    EXPECT_EQ(evfw_task_exit(&fake.dati), 0);
    EXPECT_EQ(evfw_task_exit(&fake.dati), -1);
    Peer *reused = &rt.add_task(TASK_DATAMNGR_DATI_HDL);
    EXPECT_EQ(reused, rt.peer(TASK_DATAMNGR_DATI_HDL)) << "an exited task's id is free again";
    reused->on_receive([](Peer &, const Received &in) { ADD_FAILURE() << in.event_id; });
    EXPECT_EQ(std::tuple(rt.pump(), rt.live_events()), std::tuple(0u, 0L));
    ril->send(TASK_DATAMNGR, 1, nullptr, 0);  // still queued at unload
    rt.unload();
    EXPECT_EQ(g_exit_order, (std::vector<std::string>{"second", "fake"}));
    EXPECT_EQ(rt.live_events(), 0) << "events queued for removed tasks are freed";
    rt.clear_trace();
    for (uint32_t id : {TASK_DATAMNGR, TASK_RB_SIM0}) ril->send(id, 2, nullptr, 0);
    for (const auto &e : rt.trace()) EXPECT_TRUE(e.dropped) << e.to;
}

TEST_F(Runtime_, FailedLoadsLeaveNothingBehindAndGiveAReason) {
    rt.unload();
    FakeEntity failing;
    failing.fail_init = true;
    g_fake = &failing;
    EXPECT_EQ(rt.load("fake", fake_abi()), nullptr);
    EXPECT_PRED_FORMAT2(IsSubstring, "fake", rt.last_error());
    evfw_task_t again{};
    EXPECT_EQ(evfw_task_init(&again, 1, TASK_DATAMNGR), 0) << "the failed entity's task is gone";
    EXPECT_TRUE(rt.wait_threads(std::chrono::seconds(2)));
    EXPECT_FALSE(failing.saw_init_done) << "and so is the thread routine it started";
    for (const char *init : {"no_such_init", "cos"}) {
        EXPECT_EQ(rt.load_library("libm.so.6", "x", init, "sin", {{403, "no_such_hdl"}}), nullptr);
        EXPECT_PRED_FORMAT2(IsSubstring, init == std::string("cos") ? "no_such_hdl" : init,
                            rt.last_error());
    }
    EXPECT_EQ(rt.load_library("/nonexistent/x.so", "x", "init", "", {}), nullptr);
    EXPECT_PRED_FORMAT2(IsSubstring, "/nonexistent/x.so", rt.last_error());
    rt.reset();
    EXPECT_FALSE(failing.exited) << "no exit for an entity that did not load";
}

// Off, the trace records nothing and the routing stays the same.
TEST_F(Runtime_, TraceRecordsOnlyWhileOnAndPlacesDiagnosticsAmongTheSends) {
    Peer *ims = &rt.add_client("imsm_0");
    std::vector<uint32_t> got;
    at->on_receive([&](Peer &, const Received &in) { got.push_back(in.event_id); });
    for (bool on : {false, true}) {
        rt.set_trace(on);
        ims->send(TASK_ATMNGR, 4002, nullptr, 0);
        evfw_task_send_event(&fake.main, make_event(3002, Bytes(40, 0xaa)), TASK_ATMNGR);
        if (on) fake.lock.unlock(&fake.lock);  // a diagnostic between two sends
        evfw_task_send_event(&fake.main, make_event(9, {1, 2, 0xff}), 999);
        rt.pump();
        EXPECT_EQ(std::tuple(rt.live_events(), rt.trace().size()), std::tuple(0L, on ? 3u : 0u));
    }
    EXPECT_EQ(got, (std::vector<uint32_t>{4002, 3002, 4002, 3002}));
    auto seen = [](const evfw_host::TraceEntry &e) {
        return std::tuple(e.seq, e.from, e.to, e.event_id, e.ext_id, e.len, e.data, e.dropped);
    };
    const evfw_host::TraceEntry want[] = {{1, ims->id(), 302, 4002, ims->id(), 0, 0, {}, false},
                                          {2, 402, 302, 3002, 0, 0, 40, Bytes(40, 0xaa), false},
                                          {3, 402, 999, 9, 0, 0, 3, {1, 2, 0xff}, true}};
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(seen(rt.trace().at(i)), seen(want[i])) << i;
    ASSERT_EQ(rt.diagnostics().size(), 1u);
    EXPECT_EQ(std::tuple(rt.diagnostics()[0].after_seq, rt.bad_unlocks()), std::tuple(2u, 1L));
    EXPECT_STREQ(context_get_name(ims->id()), "imsm_0");
}

// Which of ten allocations a fault plan fails, as a string of '.' and 'x'.
std::string failures(Runtime &rt, const std::vector<std::string> &plans) {
    rt.new_round();
    std::string error, out;
    for (const std::string &p : plans) EXPECT_TRUE(rt.add_fault(p, error)) << error;
    for (int i = 0; i < 10; ++i) {
        evfw_event_t *ev = evfw_event_alloc(nullptr);
        out += ev == nullptr ? 'x' : '.';
        evfw_event_free(ev);
    }
    return out;
}

TEST_F(Runtime_, FaultPlansFailTheNthCallOnwardOrByChanceAndSayWhere) {
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:3"}), "..x.......");
    EXPECT_EQ(rt.diagnostics().back().text, "fault plan: evfw_event_alloc call 3 fails");
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:2", "evfw_event_alloc:8-"}), ".x.....xxx");
    const auto alloc = evfw_host::FaultCall::EventAlloc;
    EXPECT_EQ(std::tuple(rt.calls(alloc), rt.faults(alloc)), std::tuple(10u, 4u));
    const std::string chance = failures(rt, {"evfw_event_alloc:p0.5/7"});
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:p0.5/7"}), chance) << "the same seed, the same calls";
    EXPECT_NE(failures(rt, {"evfw_event_alloc:p0.5/8"}), chance);
    EXPECT_EQ(failures(rt, {"send:1-"}), "..........") << "another call's plan";
    ASSERT_EQ(failures(rt, {"evfw_event_alloc:p1"}), "xxxxxxxxxx");
    rt.clear_faults();
    evfw_event_free(evfw_event_alloc(nullptr));
    EXPECT_EQ(rt.faults(alloc), 10u) << "cleared: nothing fails";
    std::string error;
    for (const char *bad :
         {"nope:1", "evfw_event_alloc", "evfw_event_alloc:0", "send:1=5", "recv:p2", "recv:p0.5/x"})
        EXPECT_FALSE(rt.add_fault(bad, error)) << bad;
}

TEST_F(Runtime_, LogTablesAndCapture) {
    const int prio[RVN_LOG_PRIO_COUNT] = {0, 6, 5, 0, 4, 0, 0, 0, 3};
    for (int i = 0; i < RVN_LOG_PRIO_COUNT; ++i) EXPECT_EQ(android_log_prio[i], prio[i]) << i;
    EXPECT_EQ(std::string(android_log_tag[2]) + android_log_tag[10], "RVN_DATAMNGRDATAMNGR_EXT");
    EXPECT_EQ(rvn_pid, getpid());
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "RVN_DATAMNGR", "cid=%d %s\n", 3, "up"), 9);
    const std::string long_text(5000, 'x');
    EXPECT_EQ(__android_log_print(ANDROID_LOG_ERROR, "T", "%s!", long_text.c_str()), 5001);
    rt.set_log_capture(false);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "T", "dropped"), 7);
    const auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(std::tuple(logs[0].prio, logs[0].tag, logs[0].text, logs[1].text),
              std::tuple(int{ANDROID_LOG_INFO}, std::string("RVN_DATAMNGR"),
                         std::string("cid=3 up\n"), long_text + "!"));
    EXPECT_EQ(logs[0].tid, static_cast<long>(gettid())) << "the thread that logged it";
}

TEST_F(Runtime_, PropertiesFollowAndroid) {
    auto get = [](const char *key, const char *def) {
        std::string value(PROPERTY_VALUE_MAX, '?');
        const int n = property_get(key, value.data(), def);
        EXPECT_EQ(n, static_cast<int>(strlen(value.c_str())));
        return std::string(value.c_str());
    };
    rt.set_property("persist.x", "1");
    rt.set_property("ro.long", std::string(100, 'v'));
    rt.set_property("ro.empty", "");
    // Values and defaults are cut to 91 characters; empty reads as unset.
    EXPECT_EQ(get("persist.x", "0") + "|" + get("ro.long", nullptr) + "|" + get("unset", "dflt") +
                      "|" + get("unset", nullptr) + "|" +
                      get("unset", std::string(100, 'd').c_str()) + "|" + get("ro.empty", "dflt"),
              "1|" + std::string(91, 'v') + "|dflt||" + std::string(91, 'd') + "|dflt");
}

}  // namespace
}  // namespace host_test

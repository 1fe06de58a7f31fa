// Events: the data block, ownership accounting, routes and their comparison;
// fault plans.
#include "host_test_util.h"

namespace host_test {
namespace {

using Events = EntityFixture;

TEST_F(Events, DataIsCopiedAndEndsWhereTheLastWriteEnds) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    size_t len = 99;
    EXPECT_EQ(event_get_data(ev, 0, &len), nullptr);
    EXPECT_EQ(len, 0u);
    uint8_t stack[4] = {1, 2, 3, 4};
    ASSERT_EQ(event_set_data(ev, 0, stack, sizeof stack), ev);
    stack[0] = 9;  // the caller's buffer is not referenced
    const uint8_t tail[2] = {7, 8};
    ASSERT_EQ(event_set_data(ev, 6, tail, 2), ev);
    EXPECT_EQ(bytes_of(ev), (Bytes{1, 2, 3, 4, 0, 0, 7, 8})) << "a gap reads as zeros";
    ASSERT_EQ(event_set_data(ev, 1, tail, 1), ev);
    EXPECT_EQ(bytes_of(ev), (Bytes{1, 7})) << "the block ends at offset + len";
    EXPECT_EQ(*static_cast<uint8_t *>(event_get_data(ev, 1, &len)), 7);
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(event_get_data(ev, 5, &len), nullptr);
    EXPECT_EQ(event_set_data(ev, 0, nullptr, 4), nullptr);
    EXPECT_EQ(event_set_data(nullptr, 0, tail, 1), nullptr);
    EXPECT_EQ(event_set_id(nullptr, 5), 0);
    EXPECT_EQ(event_set_id(ev, 4003), 1);
    // Doubling the data from its own block, which has to grow meanwhile.
    Bytes twice(200);
    for (size_t i = 0; i < twice.size(); ++i) twice[i] = static_cast<uint8_t>(i % 100);
    event_set_data(ev, 0, twice.data(), 100);
    ASSERT_NE(event_set_data(ev, 100, event_get_data(ev, 0, nullptr), 100), nullptr);
    EXPECT_EQ(bytes_of(ev), twice);
    evfw_event_t *derived = evfw_event_alloc(ev);
    EXPECT_EQ(event_get_id(derived), 4003u) << "the id is inherited until set";
    evfw_event_free(derived);
    evfw_event_free(ev);
}

TEST_F(Events, EachEventIsCountedUntilFreedOnceAndASecondFreeIsCaught) {
    evfw_event_t *a = evfw_event_alloc(nullptr);
    evfw_event_t *b = evfw_event_alloc(a);
    EXPECT_EQ(rt.live_events(), 2);
    evfw_event_free(a);
    evfw_event_free(nullptr);
    evfw_event_free(a);
    EXPECT_EQ(std::tuple(rt.bad_frees(), rt.live_events()), std::tuple(1L, 1L))
            << "a second free must not count";
    EXPECT_EQ(diags().rfind("evfw_event_free(", 0), 0u) << diags();
    evfw_event_free(b);
    EXPECT_EQ(rt.live_events(), 0);
    // What a run left is reclaimed when the next starts, as a new round too:
    // freeing it afterwards is a bad free, counted in the new round.
    for (auto next : {+[](Runtime &r) { r.reset(); }, +[](Runtime &r) { r.new_round(); }}) {
        evfw_event_t *old = evfw_event_alloc(nullptr);
        next(rt);
        rt.set_diag_echo(nullptr);
        EXPECT_EQ(std::tuple(rt.live_events(), rt.bad_frees()), std::tuple(0L, 0L));
        evfw_event_free(old);
        EXPECT_EQ(std::tuple(rt.live_events(), rt.bad_frees()), std::tuple(0L, 1L));
    }
}

TEST_F(Events, ChannelBitsTellSameChannelAndSameClient) {
    std::vector<evfw_event_t *> kept;  // derived copies of what the RIL proxy got
    rt.add_task(TASK_RILDPROXY).on_receive([&](Peer &, const Received &in) {
        kept.push_back(evfw_event_alloc(in.event));
    });
    auto routed = [&](Peer &from) {
        from.send(TASK_RILDPROXY, 1, nullptr, 0);
        rt.pump();
        return kept.back();
    };
    auto &a = rt.add_client("a"), &b = rt.add_client("b");
    auto &t = rt.add_task(TASK_ATMNGR);
    evfw_event_t *a1 = routed(a), *a2 = routed(a), *b1 = routed(b), *t1 = routed(t),
                 *t2 = routed(t);
    evfw_event_t *unsent = kept.emplace_back(evfw_event_alloc(nullptr));
    const struct {
        evfw_event_t *x, *y;
        int bits;
    } cases[] = {{a1, a2, 3}, {a1, b1, 0},         {t1, t2, 1},
                 {t1, a1, 0}, {unsent, unsent, 0}, {unsent, a1, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(std::tuple(evfw_event_cmp_chnl(c.x, c.y), evfw_event_cmp_chnl(c.y, c.x)),
                  std::tuple(c.bits, c.bits));
    EXPECT_EQ(std::tuple(evfw_event_get_ext_id(a1), evfw_event_get_ext_id(t1)),
              std::tuple(a.id(), 0u));
    for (evfw_event_t *ev : kept) evfw_event_free(ev);
}

// Which of ten allocations a fault plan fails, as a string of '.' and 'x'.
std::string failures(Runtime &rt, const std::vector<std::string> &plans) {
    rt.reset();
    std::string error;
    for (const std::string &p : plans) EXPECT_TRUE(rt.add_fault(p, error)) << error;
    std::string out;
    for (int i = 0; i < 10; ++i) {
        evfw_event_t *ev = evfw_event_alloc(nullptr);
        out += ev == nullptr ? 'x' : '.';
        evfw_event_free(ev);
    }
    return out;
}

TEST_F(Events, FaultPlansFailTheNthCallOnwardOrByChanceAndSayWhere) {
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:3"}), "..x.......");
    EXPECT_EQ(rt.diagnostics().back().text, "fault plan: evfw_event_alloc call 3 fails");
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:2", "evfw_event_alloc:8-"}), ".x.....xxx");
    EXPECT_EQ(std::tuple(rt.calls(evfw_host::FaultCall::EventAlloc),
                         rt.faults(evfw_host::FaultCall::EventAlloc)),
              std::tuple(10u, 4u));
    // The same seed, the same calls; another seed, others.
    const std::string chance = failures(rt, {"evfw_event_alloc:p0.5/7"});
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:p0.5/7"}), chance);
    EXPECT_NE(failures(rt, {"evfw_event_alloc:p0.5/8"}), chance);
    EXPECT_EQ(failures(rt, {"evfw_event_alloc:p1"}), "xxxxxxxxxx");
    // Cleared, or another call's plan: nothing fails.
    EXPECT_EQ(failures(rt, {"send:1-"}), "..........");
    ASSERT_EQ(failures(rt, {"evfw_event_alloc:1-"}), "xxxxxxxxxx");
    rt.clear_faults();
    evfw_event_free(evfw_event_alloc(nullptr));
    EXPECT_EQ(rt.faults(evfw_host::FaultCall::EventAlloc), 10u);
}

}  // namespace
}  // namespace host_test

// Events: the data block, ownership accounting, routes and their comparison,
// names.
#include <cstdlib>

#include "host/src/internal.h"
#include "host_test_util.h"

namespace host_test {
namespace {

using RuntimeEvents = RuntimeFixture;

TEST_F(RuntimeEvents, DataIsCopiedAndEndsWhereTheLastWriteEnds) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    size_t len = 99;
    EXPECT_EQ(event_get_data(ev, 0, &len), nullptr) << "an event without data has no block";
    EXPECT_EQ(len, 0u);
    uint8_t stack[4] = {1, 2, 3, 4};
    ASSERT_EQ(event_set_data(ev, 0, stack, sizeof stack), ev);
    stack[0] = 9;  // the caller's buffer is not referenced
    const uint8_t tail[2] = {7, 8};
    ASSERT_EQ(event_set_data(ev, 6, tail, 2), ev);
    EXPECT_EQ(bytes_of(ev), (std::vector<uint8_t>{1, 2, 3, 4, 0, 0, 7, 8})) << "gap reads as zeros";
    ASSERT_EQ(event_set_data(ev, 1, tail, 1), ev);
    EXPECT_EQ(bytes_of(ev), (std::vector<uint8_t>{1, 7})) << "the block ends at offset + len";
    EXPECT_EQ(*static_cast<uint8_t *>(event_get_data(ev, 1, &len)), 7);
    EXPECT_EQ(len, 1u);
    EXPECT_EQ(event_get_data(ev, 5, &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(event_set_data(ev, 0, nullptr, 4), nullptr) << "NULL data needs len 0";
    EXPECT_EQ(event_set_data(nullptr, 0, tail, 1), nullptr);
    EXPECT_EQ(event_set_id(nullptr, 5), 0);
    EXPECT_EQ(event_set_id(ev, 4003), 1);
    evfw_event_t *derived = evfw_event_alloc(ev);
    EXPECT_EQ(event_get_id(derived), 4003u) << "the id is inherited until set";
    evfw_event_free(derived);
    evfw_event_free(ev);
}

TEST_F(RuntimeEvents, SetDataReusesTheBlockAndAcceptsItsOwnBytes) {
    std::vector<uint8_t> big(100);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
    evfw_event_t *ev = make_event(1, big);
    void *block = event_get_data(ev, 0, nullptr);
    event_set_data(ev, 0, "abc", 3);
    EXPECT_EQ(event_get_data(ev, 0, nullptr), block) << "a smaller write must not reallocate";
    // Doubling the data from its own block, which has to grow meanwhile.
    event_set_data(ev, 0, big.data(), big.size());
    ASSERT_NE(event_set_data(ev, big.size(), event_get_data(ev, 0, nullptr), big.size()), nullptr);
    std::vector<uint8_t> twice = big;
    twice.insert(twice.end(), big.begin(), big.end());
    EXPECT_EQ(bytes_of(ev), twice);
    evfw_event_free(ev);
}

bool pool_disabled() {
    const char *env = getenv("EVFW_HOST_POOL");
    return env != nullptr && strcmp(env, "0") == 0;
}

// A recycled event comes without the buffer of its last use: an event that
// never gets data, such as a kept announcement, pins no large block, while a
// later event of the same size class reuses that block.
TEST_F(RuntimeEvents, RecycledEventsLeaveTheirBuffersToLaterData) {
    if (pool_disabled()) GTEST_SKIP() << "without the pool nothing is recycled";
    std::vector<uint8_t> big(47876, 0x5a);
    evfw_event_t *first = evfw_event_alloc(nullptr);
    ASSERT_EQ(event_set_data(first, 0, big.data(), big.size()), first);
    const uint8_t *block = first->buf;
    evfw_event_free(first);

    evfw_event_t *bare = evfw_event_alloc(nullptr);
    EXPECT_EQ(bare->buf, nullptr);
    EXPECT_EQ(bare->cap, 0u);
    evfw_event_t *sized = evfw_event_alloc(nullptr);
    ASSERT_EQ(event_set_data(sized, 0, big.data(), 40000), sized);
    EXPECT_EQ(sized->buf, block) << "the stashed block of the same size class is reused";
    evfw_event_free(bare);
    evfw_event_free(sized);
}

TEST_F(RuntimeEvents, EachEventIsCountedUntilFreedOnceAndASecondFreeIsCaught) {
    if (pool_disabled()) GTEST_SKIP() << "without the pool a second free is left to ASan";
    evfw_event_t *a = evfw_event_alloc(nullptr);
    evfw_event_t *b = evfw_event_alloc(a);
    EXPECT_EQ(rt.live_events(), 2);
    evfw_event_free(a);
    evfw_event_free(nullptr);
    EXPECT_EQ(rt.live_events(), 1);
    testing::internal::CaptureStderr();
    evfw_event_free(a);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rt.bad_frees(), 1);
    EXPECT_EQ(err.rfind("evfw_host: ", 0), 0u) << err;
    EXPECT_EQ(rt.live_events(), 1) << "a second free must not count";
    evfw_event_free(b);
    EXPECT_EQ(rt.live_events(), 0);
    EXPECT_EQ(rt.events_allocated(), 2u);
    EXPECT_EQ(rt.events_freed(), 2u);

    evfw_event_t *old = evfw_event_alloc(nullptr);
    rt.reset();
    evfw_event_free(old);  // from before the reset: neither counted nor a bad free
    EXPECT_EQ(rt.live_events(), 0);
    EXPECT_EQ(rt.events_freed(), 0u);
    EXPECT_EQ(rt.bad_frees(), 0);
}

TEST_F(RuntimeEvents, NamesComeFromTheRegistryAndTheClients) {
    EXPECT_STREQ(event_get_name(EVENT_DATAMNGR_SETUP_DATA_CALL_REQ),
                 "EVENT_DATAMNGR_SETUP_DATA_CALL_REQ");
    EXPECT_STREQ(event_get_name(1), "UNKNOWN_EVENT");
    EXPECT_STREQ(context_get_name(TASK_ATI_ATC), "TASK_ATI_ATC");
    EXPECT_STREQ(context_get_name(12345), "UNKNOWN_CONTEXT");
    EXPECT_EQ(rt.add_task(TASK_ATMNGR).name(), "TASK_ATMNGR");
    EXPECT_EQ(rt.add_client("imsm_0").id(), EVFW_EXT_ID_BASE);
    EXPECT_EQ(rt.add_client("lanmngr").id(), EVFW_EXT_ID_BASE + 1);
    const char *name = context_get_name(EVFW_EXT_ID_BASE + 1);
    EXPECT_STREQ(name, "lanmngr");
    rt.reset();
    EXPECT_STREQ(context_get_name(EVFW_EXT_ID_BASE + 1), "UNKNOWN_CONTEXT");
    EXPECT_STREQ(name, "lanmngr") << "a name handed out stays valid";
}

// Routed events, kept as derived copies (same route) by a capturing peer.
class RuntimeCmpChnl : public RuntimeFixture {
  protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        rt.add_task(TASK_RILDPROXY).on_receive([this](evfw_host::Peer &, const auto &in) {
            kept.push_back(evfw_event_alloc(in.event));
        });
    }
    void TearDown() override {
        for (evfw_event_t *ev : kept) evfw_event_free(ev);
        RuntimeFixture::TearDown();
    }
    evfw_event_t *routed(evfw_host::Peer &from) {
        from.send(TASK_RILDPROXY, 1, nullptr, 0);
        rt.pump();
        return kept.back();
    }
    std::vector<evfw_event_t *> kept;
};

TEST_F(RuntimeCmpChnl, BitsTellSameChannelAndSameClient) {
    auto &a = rt.add_client("a"), &b = rt.add_client("b");
    auto &t = rt.add_task(TASK_ATMNGR);
    evfw_event_t *a1 = routed(a), *a2 = routed(a), *b1 = routed(b), *t1 = routed(t),
                 *t2 = routed(t);
    evfw_event_t *unsent = evfw_event_alloc(nullptr);
    kept.push_back(unsent);
    kept.push_back(evfw_event_alloc(a1));
    evfw_event_t *from_a = kept.back();
    const struct {
        const char *what;
        evfw_event_t *x, *y;
        int bits;
    } cases[] = {
            {"same client", a1, a2, 3},
            {"derived from a request", from_a, a1, 3},
            {"two clients", a1, b1, 0},
            {"same task, no client", t1, t2, 1},
            {"task and client", t1, a1, 0},
            {"no channel", unsent, unsent, 0},
            {"no channel vs routed", unsent, a1, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(evfw_event_cmp_chnl(c.x, c.y), c.bits) << c.what;
        EXPECT_EQ(evfw_event_cmp_chnl(c.y, c.x), c.bits) << c.what << " (swapped)";
    }
    EXPECT_EQ(evfw_event_get_ext_id(a1), a.id());
    EXPECT_EQ(evfw_event_get_ext_id(t1), 0u);
}

}  // namespace
}  // namespace host_test

// Threaded mode (each task and peer on its own thread), the framework's
// mutex, started threads in both modes, and a warm runtime that moves events
// without touching the heap.
#include <cutils/properties.h>

#include <cerrno>
#include <future>
#include <new>
#include <thread>

#include "host_test_util.h"

namespace {
std::atomic<long> g_news{0};
}  // namespace

// The program's own operator new counts allocations (containers, event
// records); the sanitizers bring theirs, so the counting cases skip there.
#ifndef HOST_TEST_SANITIZED
__attribute__((noinline)) void *operator new(size_t size) {
    ++g_news;
    if (void *p = std::malloc(size != 0 ? size : 1)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void *operator new(size_t size, const std::nothrow_t &) noexcept {
    ++g_news;
    return std::malloc(size != 0 ? size : 1);
}
// Out of line, so that the compiler does not pair new and delete across them.
__attribute__((noinline)) void operator delete(void *p) noexcept {
    std::free(p);
}
__attribute__((noinline)) void operator delete(void *p, size_t) noexcept {
    std::free(p);
}
#endif

namespace host_test {
namespace {

using namespace std::chrono_literals;

template <class Pred>
bool eventually(Pred pred) {
    for (int i = 0; i < 2000 && !pred(); ++i) std::this_thread::sleep_for(1ms);
    return pred();
}

// On a request, the main task asks the AT manager and waits for the answer.
class Threaded : public EntityFixture {
  protected:
    Threaded() : EntityFixture(Mode::Threaded) {}
    void SetUp() override {
        EntityFixture::SetUp();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
        fake.on_main = [this](evfw_task_t *task, evfw_event_t *ev) {
            main_thread = std::this_thread::get_id();
            if (event_get_id(ev) == 4003) result = ask_at_manager(task);
            evfw_event_free(ev);
        };
    }
    Peer *ril = nullptr, *at = nullptr;
    std::atomic<int> result{1};
    std::thread::id main_thread, at_thread;
};

TEST_F(Threaded, PeerAnswersWhileTheTaskWaitsOnItsOwnThread) {
    at->on_receive([this](Peer &self, const Received &in) {
        at_thread = std::this_thread::get_id();
        self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, nullptr, 0);
    });
    ril->send(TASK_DATAMNGR, 4003, nullptr, 0);
    ASSERT_TRUE(rt.wait_idle(2000ms));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fake.main_ids(), (std::vector<uint32_t>{4003, 3004}));
    EXPECT_NE(main_thread, std::this_thread::get_id());
    EXPECT_NE(at_thread, main_thread);
    EXPECT_TRUE(eventually([&] { return fake.wait_result != 1; }));
    EXPECT_EQ(fake.wait_result, 0);
    EXPECT_TRUE(fake.saw_init_done) << "the init thread's wait ended after the load";
}

TEST_F(Threaded, SendAndWaitGivesUpAfterTheWaitLimit) {
    rt.set_wait_limit(50ms);
    const auto start = std::chrono::steady_clock::now();
    ril->send(TASK_DATAMNGR, 4003, nullptr, 0);
    ASSERT_TRUE(eventually([&] { return result != 1; }));
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_F(Threaded, WaitIdleWaitsForARunningHandlerAndUnloadStopsTasksBeforeExit) {
    std::promise<void> release;
    std::shared_future<void> go = release.get_future().share();
    at->on_receive([go](Peer &, const Received &) { go.wait(); });
    ril->send(TASK_ATMNGR, 1, nullptr, 0);
    EXPECT_FALSE(rt.wait_idle(30ms)) << "the queue is empty but the handler runs";
    release.set_value();
    EXPECT_TRUE(rt.wait_idle(2000ms));
    std::atomic<bool> ran_during_exit{false};
    fake.on_main = [&](evfw_task_t *, evfw_event_t *ev) {
        std::this_thread::sleep_for(2ms);
        if (fake.exiting) ran_during_exit = true;
        evfw_event_free(ev);
    };
    for (int i = 0; i < 20; ++i) ril->send(TASK_DATAMNGR, 1, nullptr, 0);
    rt.unload();
    EXPECT_TRUE(fake.exited);
    EXPECT_FALSE(ran_during_exit);
    EXPECT_EQ(rt.live_events(), 0) << "queued events of stopped tasks are freed";
}

// ---- the mutex: recursive, owner-checked, with bounded waits -------------------

TEST_F(EntityFixture, MutexIsRecursiveOwnerCheckedAndBounded) {
    rt.set_wait_limit(30ms);
    evfw_mutex_t &m = fake.lock;
    auto elsewhere = [&m](bool unlock_only) {
        int r = 99;
        std::thread([&] {
            r = unlock_only ? m.unlock(&m) : m.lock(&m);
            if (!unlock_only && r == 0) m.unlock(&m);
        }).join();
        return r;
    };
    EXPECT_EQ(m.unlock(&m), -1) << "not held";
    EXPECT_EQ(m.lock(&m), 0);
    EXPECT_EQ(m.lock(&m), 0);
    EXPECT_EQ(m.unlock(&m), 0);
    EXPECT_EQ(elsewhere(true), -1) << "held by another";
    EXPECT_EQ(elsewhere(false), -1) << "still held once: the wait gives up";
    EXPECT_EQ(std::tuple(rt.bad_unlocks(), rt.timeouts()), std::tuple(2L, 1L));
    EXPECT_NE(diags().find("unlock by a thread that does not hold it (held by another)"),
              std::string::npos);
    EXPECT_EQ(m.unlock(&m), 0);
    EXPECT_EQ(elsewhere(false), 0) << "free after as many unlocks as locks";
    // A waiter gets it when it is released.
    rt.set_wait_limit(2000ms);
    ASSERT_EQ(m.lock(&m), 0);
    std::atomic<int> got{99};
    std::thread t([&] { got = elsewhere(false); });
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(got, 99);
    m.unlock(&m);
    t.join();
    EXPECT_EQ(got, 0);
    // Exit destroys it even when held.
    ASSERT_EQ(m.lock(&m), 0);
    EXPECT_EQ(evfw_mutex_exit(&m), 0);
    EXPECT_EQ(m.lock(&m), -1);
    ASSERT_EQ(evfw_mutex_init(&m), 0);  // for the entity's exit
}

// ---- started threads and waiting for init, in both modes ------------------------

class Threads : public ::testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        rt.reset(GetParam());
        rt.set_diag_echo(nullptr);
    }
    void TearDown() override { rt.reset(); }
    Runtime &rt = Runtime::instance();
};

struct Note {
    std::thread::id id;
    std::atomic<int> runs{0};
};

TEST_P(Threads, StartRunsTheRoutineAsTheModeSaysAndInitDoesNotWaitForItself) {
    Note a, b;
    evfw_thrd_t thrd{};
    ASSERT_EQ(evfw_thrd_init(&thrd), 0);
    auto note = [](void *arg) {
        static_cast<Note *>(arg)->id = std::this_thread::get_id();
        ++static_cast<Note *>(arg)->runs;
        return 0;
    };
    ASSERT_EQ(thrd.start(&thrd, note, &a), 0);
    ASSERT_EQ(thrd.start(&thrd, note, &b), 0);
    EXPECT_EQ(thrd.start(&thrd, nullptr, &b), -1);
    if (GetParam() == Mode::Deterministic) {
        EXPECT_EQ(a.runs, 0) << "nothing runs before run_threads";
        EXPECT_EQ(rt.run_threads(), 2u);
        EXPECT_EQ(a.id, std::this_thread::get_id());
    } else {
        ASSERT_TRUE(eventually([&] { return a.runs == 1 && b.runs == 1; }));
        EXPECT_EQ(rt.run_threads(), 0u);
        EXPECT_NE(a.id, b.id);
    }
    EXPECT_EQ(evfw_wait_all_entity_init(), 0) << "no load in progress";
    static std::atomic<int> in_init{1};
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) {
        in_init = evfw_wait_all_entity_init();
        return e;
    };
    const auto start = std::chrono::steady_clock::now();
    ASSERT_NE(rt.load("waiter", abi), nullptr);
    EXPECT_EQ(in_init, -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms) << "refused at once";
    EXPECT_EQ(rt.diagnostics().at(0).text.rfind("evfw_wait_all_entity_init", 0), 0u);
}

std::string mode_name(const testing::TestParamInfo<Mode> &info) {
    return info.param == Mode::Deterministic ? "Deterministic" : "Threaded";
}
INSTANTIATE_TEST_SUITE_P(Modes, Threads, testing::Values(Mode::Deterministic, Mode::Threaded),
                         mode_name);

// ---- a warm runtime: no allocation per event with the trace off -------------------

class SteadyState : public Threads {
  protected:
    void SetUp() override {
#ifdef HOST_TEST_SANITIZED
        GTEST_SKIP() << "the sanitizer's allocator cannot be counted";
#endif
        if (pool_off()) GTEST_SKIP() << "every event is new without the pool";
        Threads::SetUp();
        from = &rt.add_task(TASK_RB_SIM0);
        rt.add_task(TASK_RB_SIM1).on_receive([this](Peer &, const Received &) { ++delivered; });
    }
    // operator new calls made by 1000 sends and their deliveries, once warm.
    long news_per_1000() {
        const uint8_t payload[16] = {};
        long before = 0;
        for (int i = 0; i < 1300; ++i) {
            if (i == 300) before = g_news.load();
            from->send(TASK_RB_SIM1, 9318, payload, sizeof(payload));
            if (GetParam() == Mode::Deterministic) {
                rt.pump();
            } else {
                ++sent;  // until the runtime has taken the event back
                while (delivered.load() < sent || rt.live_events() != 0) std::this_thread::yield();
            }
        }
        return g_news.load() - before;
    }
    Peer *from = nullptr;
    std::atomic<long> delivered{0};
    long sent = 0;
};

TEST_P(SteadyState, SendsAndPropertyReadsAllocateNothingOnceWarmWithTheTraceOff) {
    EXPECT_GT(news_per_1000(), 0) << "the trace keeps an entry per send";
    const size_t traced = rt.trace().size();
    rt.set_trace(false);
    // The best of three rounds: a rare one-off allocation of the threaded
    // runtime may fall into a round; one per event would show in all.
    long fewest = news_per_1000();
    for (int round = 1; round < 3 && fewest != 0; ++round)
        fewest = std::min(fewest, news_per_1000());
    EXPECT_EQ(fewest, 0);
    EXPECT_EQ(rt.trace().size(), traced) << "nothing recorded while off";
    rt.set_property("ro.qpx_multiple_ims_support", "a value longer than fifteen");
    char value[PROPERTY_VALUE_MAX];
    const long before = g_news.load();
    for (int i = 0; i < 1000; ++i) property_get("ro.qpx_multiple_ims_support", value, "NaN");
    EXPECT_EQ(g_news.load() - before, 0);
    EXPECT_STREQ(value, "a value longer than fifteen");
}

INSTANTIATE_TEST_SUITE_P(Modes, SteadyState, testing::Values(Mode::Deterministic, Mode::Threaded),
                         mode_name);

}  // namespace
}  // namespace host_test

// Send-and-wait and started threads in both modes, threaded mode's idle
// wait and unload (each task and peer on its own thread), and the
// framework's mutex.  Every wait here is bounded and fails the test when it
// runs out; nothing sleeps.
#include <cerrno>
#include <future>
#include <thread>

#include "host_test_util.h"

namespace host_test {
namespace {

using namespace std::chrono_literals;

// The runtime in each mode, with the fake entity loaded.
struct Modes : EntityFixture, testing::WithParamInterface<Mode> {
    Modes() : EntityFixture(GetParam()) {}
};

// On 4003 the main task asks the AT manager and waits for 3004: the answer
// ends the wait; another event does not, and arrives after the wait.
TEST_P(Modes, SendAndWaitTakesTheAnswerOrGivesUpAndTheOtherEventArrivesAfter) {
    const bool threaded = GetParam() == Mode::Threaded;
    uint32_t answer = 0;
    std::thread::id at_thread;
    at->on_receive([&](Peer &self, const Received &in) {
        at_thread = std::this_thread::get_id();
        self.reply(in.event, TASK_DATAMNGR, answer, nullptr, 0);
    });
    for (const uint32_t a : {3004u, 3008u}) {
        answer = a;
        rt.set_wait_limit(a == 3004 ? 2000ms : 20ms);
        ril->send(TASK_DATAMNGR, 4003, nullptr, 0);
        rt.pump();
        ASSERT_TRUE(rt.wait_idle(2000ms));
        EXPECT_EQ(fake.asked, a == 3004 ? 0 : -ETIMEDOUT) << a;
    }
    EXPECT_EQ(fake.main_got, (std::vector<uint32_t>{4003, 3004, 4003, 3008}));
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_PRED_FORMAT2(IsSubstring,
                        std::string("waited for EVENT_ATMNGR_ATCMD_RESP(3004); ") +
                                (threaded ? "gave up after the wait limit" : "the queue ran dry"),
                        diags());
    // Threaded, each task and peer runs on its own thread; else all on this one.
    EXPECT_EQ(fake.main_thread == std::this_thread::get_id(), !threaded);
    EXPECT_EQ(at_thread == fake.main_thread, !threaded);
}

struct Threaded : EntityFixture {
    Threaded() : EntityFixture(Mode::Threaded) {}
};

TEST_F(Threaded, WaitIdleWaitsForARunningHandlerAndUnloadStopsTasksBeforeExit) {
    std::promise<void> started, release;
    std::shared_future<void> go = release.get_future().share();
    at->on_receive([&started, go](Peer &, const Received &) {
        started.set_value();
        go.wait();
    });
    ril->send(TASK_ATMNGR, 1, nullptr, 0);
    ASSERT_EQ(started.get_future().wait_for(2000ms), std::future_status::ready);
    EXPECT_FALSE(rt.wait_idle(0ms)) << "the queue is empty but the handler runs";
    release.set_value();
    EXPECT_TRUE(rt.wait_idle(2000ms));
    for (int i = 0; i < 20; ++i) ril->send(TASK_DATAMNGR, 1, nullptr, 0);
    rt.unload();
    // Exited, with no handler run meanwhile and the queued events freed.
    EXPECT_EQ(std::tuple(fake.exited.load(), fake.ran_while_exiting.load(), rt.live_events()),
              std::tuple(true, false, 0L));
}

// ---- the mutex: recursive, owner-checked, with bounded waits -------------------

TEST_F(EntityFixture, MutexIsRecursiveOwnerCheckedAndBounded) {
    rt.set_wait_limit(20ms);
    evfw_mutex_t &m = fake.lock;
    auto elsewhere = [&m](bool unlock_only) {
        int r = 99;
        std::thread([&] {
            r = unlock_only ? m.unlock(&m) : m.lock(&m);
            if (!unlock_only && r == 0) m.unlock(&m);
        }).join();
        return r;
    };
    // Not held; taken twice and given once, then still held: another thread's
    // unlock fails and its lock gives up; free after as many unlocks as locks.
    const int steps[] = {m.unlock(&m),    m.lock(&m),       m.lock(&m),   m.unlock(&m),
                         elsewhere(true), elsewhere(false), m.unlock(&m), elsewhere(false)};
    EXPECT_EQ(std::vector(std::begin(steps), std::end(steps)),
              (std::vector{-1, 0, 0, 0, -1, -1, 0, 0}));
    EXPECT_EQ(std::tuple(rt.bad_unlocks(), rt.timeouts()), std::tuple(2L, 1L));
    EXPECT_PRED_FORMAT2(IsSubstring, "unlock by a thread that does not hold it (held by another)",
                        diags());
    // A waiter gets it once it is released.
    rt.set_wait_limit(2000ms);
    ASSERT_EQ(m.lock(&m), 0);
    std::future<int> got = std::async(std::launch::async, elsewhere, false);
    m.unlock(&m);
    EXPECT_EQ(got.get(), 0);
    // Exit destroys it even when held.
    ASSERT_EQ(m.lock(&m), 0);
    EXPECT_EQ(evfw_mutex_exit(&m), 0);
    EXPECT_EQ(m.lock(&m), -1);
    ASSERT_EQ(evfw_mutex_init(&m), 0);  // for the entity's exit
}

// ---- started threads and waiting for init, in both modes ------------------------

TEST_P(Modes, StartRunsTheRoutineAsTheModeSaysAndWaitThreadsSeesItReturned) {
    const bool deterministic = GetParam() == Mode::Deterministic;
    // Where each routine ran, once a run; wait_threads orders the writes before the reads.
    std::vector<std::thread::id> a, b;
    evfw_thrd_t thrd{};
    ASSERT_EQ(evfw_thrd_init(&thrd), 0);
    auto note = [](void *arg) {
        static_cast<std::vector<std::thread::id> *>(arg)->push_back(std::this_thread::get_id());
        return 0;
    };
    rt.set_thread_linger(5ms);  // returned late: wait_threads must wait for it
    ASSERT_EQ(thrd.start(&thrd, note, &a), 0);
    ASSERT_EQ(thrd.start(&thrd, note, &b), 0);
    EXPECT_EQ(thrd.start(&thrd, nullptr, &b), -1);
    EXPECT_TRUE(!deterministic || a.empty()) << "deterministic: nothing runs before";
    ASSERT_TRUE(rt.wait_threads(2000ms));
    ASSERT_EQ(std::tuple(a.size(), b.size()), std::tuple(1u, 1u));
    // Deterministic, both on this thread; threaded, each on its own.
    EXPECT_EQ(std::tuple(a[0] == std::this_thread::get_id(), a[0] == b[0]),
              std::tuple(deterministic, deterministic));
    ASSERT_TRUE(rt.wait_threads(2000ms));
    // Each routine ran once; the entity's init thread waited until its load was done.
    EXPECT_EQ(std::tuple(a.size(), b.size(), fake.wait_result.load(), fake.saw_init_done.load()),
              std::tuple(1u, 1u, 0, true));
    EXPECT_EQ(evfw_wait_all_entity_init(), 0) << "no load in progress";
    static std::atomic<int> in_init{1};
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) { return in_init = evfw_wait_all_entity_init(), e; };
    ASSERT_NE(rt.load("waiter", abi), nullptr);
    EXPECT_EQ(in_init, -1) << "an init that waits for all inits would wait for itself";
    EXPECT_EQ(rt.diagnostics().at(0).text.rfind("evfw_wait_all_entity_init", 0), 0u);
}

std::string mode_name(const testing::TestParamInfo<Mode> &info) {
    return info.param == Mode::Deterministic ? "Deterministic" : "Threaded";
}
INSTANTIATE_TEST_SUITE_P(Both, Modes, testing::Values(Mode::Deterministic, Mode::Threaded),
                         mode_name);

}  // namespace
}  // namespace host_test

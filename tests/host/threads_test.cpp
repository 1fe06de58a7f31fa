// Threaded mode (each task and peer on its own thread), the framework's
// mutex, and started threads in both modes.  Every wait here is bounded and
// fails the test when it runs out; nothing sleeps.
#include <cerrno>
#include <future>
#include <thread>

#include "host_test_util.h"

namespace host_test {
namespace {

using namespace std::chrono_literals;

// On a request, the main task asks the AT manager and waits for the answer.
class Threaded : public EntityFixture {
  protected:
    Threaded() : EntityFixture(Mode::Threaded) {}
    void SetUp() override {
        EntityFixture::SetUp();
        fake.on_main = [this](evfw_task_t *task, evfw_event_t *ev) {
            main_thread = std::this_thread::get_id();
            if (event_get_id(ev) == 4003) result = ask_at_manager(task);
            evfw_event_free(ev);
        };
    }
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
    ASSERT_TRUE(rt.wait_threads(2000ms));
    EXPECT_EQ(fake.wait_result, 0);
    EXPECT_TRUE(fake.saw_init_done) << "the init thread's wait ended after the load";
}

TEST_F(Threaded, SendAndWaitGivesUpAfterTheWaitLimit) {
    rt.set_wait_limit(20ms);
    ril->send(TASK_DATAMNGR, 4003, nullptr, 0);
    ASSERT_TRUE(rt.wait_idle(2000ms));
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_NE(diags().find("gave up after the wait limit"), std::string::npos) << diags();
}

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
    EXPECT_TRUE(fake.exited);
    EXPECT_FALSE(fake.ran_while_exiting);
    EXPECT_EQ(rt.live_events(), 0) << "queued events of stopped tasks are freed";
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
    // A waiter gets it once it is released.
    rt.set_wait_limit(2000ms);
    ASSERT_EQ(m.lock(&m), 0);
    std::promise<int> got;
    std::thread t([&] { got.set_value(elsewhere(false)); });
    m.unlock(&m);
    EXPECT_EQ(got.get_future().get(), 0);
    t.join();
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
    int runs = 0;  // plain: wait_threads orders the routine's write before the read
};

TEST_P(Threads, StartRunsTheRoutineAsTheModeSaysAndWaitThreadsSeesItReturned) {
    Note a, b;
    evfw_thrd_t thrd{};
    ASSERT_EQ(evfw_thrd_init(&thrd), 0);
    auto note = [](void *arg) {
        static_cast<Note *>(arg)->id = std::this_thread::get_id();
        ++static_cast<Note *>(arg)->runs;
        return 0;
    };
    rt.set_thread_linger(5ms);  // returned late: wait_threads must wait for it
    ASSERT_EQ(thrd.start(&thrd, note, &a), 0);
    ASSERT_EQ(thrd.start(&thrd, note, &b), 0);
    EXPECT_EQ(thrd.start(&thrd, nullptr, &b), -1);
    if (GetParam() == Mode::Deterministic) {
        EXPECT_EQ(a.runs, 0) << "nothing runs before";
    }
    ASSERT_TRUE(rt.wait_threads(2000ms));
    EXPECT_EQ(std::tuple(a.runs, b.runs), std::tuple(1, 1));
    if (GetParam() == Mode::Deterministic) {
        EXPECT_EQ(a.id, std::this_thread::get_id());
    } else {
        EXPECT_NE(a.id, b.id);
    }
    ASSERT_TRUE(rt.wait_threads(2000ms));
    EXPECT_EQ(std::tuple(a.runs, b.runs), std::tuple(1, 1)) << "each routine runs once";
    EXPECT_EQ(evfw_wait_all_entity_init(), 0) << "no load in progress";
    static std::atomic<int> in_init{1};
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) {
        in_init = evfw_wait_all_entity_init();
        return e;
    };
    ASSERT_NE(rt.load("waiter", abi), nullptr);
    EXPECT_EQ(in_init, -1) << "an init that waits for all inits would wait for itself";
    EXPECT_EQ(rt.diagnostics().at(0).text.rfind("evfw_wait_all_entity_init", 0), 0u);
}

std::string mode_name(const testing::TestParamInfo<Mode> &info) {
    return info.param == Mode::Deterministic ? "Deterministic" : "Threaded";
}
INSTANTIATE_TEST_SUITE_P(Modes, Threads, testing::Values(Mode::Deterministic, Mode::Threaded),
                         mode_name);

}  // namespace
}  // namespace host_test

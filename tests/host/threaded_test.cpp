// Threaded mode (each task and peer on its own thread), started threads in
// both modes, waiting for the entities' init.
#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "host_test_util.h"

namespace host_test {
namespace {

using evfw_host::Peer;
using evfw_host::Received;
using namespace std::chrono_literals;

template <class Pred>
bool eventually(Pred pred) {
    for (int i = 0; i < 2000 && !pred(); ++i) std::this_thread::sleep_for(1ms);
    return pred();
}

// On a request, the main task asks the AT manager and waits for the answer.
class RuntimeThreaded : public EntityFixture {
  protected:
    RuntimeThreaded() : EntityFixture(Mode::Threaded) {}
    void SetUp() override {
        EntityFixture::SetUp();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
        fake.on_main = [this](evfw_task_t *task, evfw_event_t *ev) {
            main_thread = std::this_thread::get_id();
            if (event_get_id(ev) == EVENT_DATAMNGR_SETUP_DATA_CALL_REQ) {
                const uint32_t want = EVENT_ATMNGR_ATCMD_RESP;
                result = evfw_task_send_recv_event(task, make_event(EVENT_ATMNGR_ATCMD_REQ),
                                                   TASK_ATMNGR, rx_cond_event_id, &want, 4);
            }
            evfw_event_free(ev);
        };
    }

    Peer *ril = nullptr, *at = nullptr;
    std::atomic<int> result{1};
    std::thread::id main_thread, at_thread;
};

TEST_F(RuntimeThreaded, PeerAnswersWhileTheTaskWaitsOnItsOwnThread) {
    at->on_receive([this](Peer &self, const Received &in) {
        at_thread = std::this_thread::get_id();
        self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, nullptr, 0);
    });
    ASSERT_EQ(ril->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, nullptr, 0), 0);
    ASSERT_TRUE(rt.wait_idle(2000ms));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fake.main_ids(),
              (std::vector<uint32_t>{EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, EVENT_ATMNGR_ATCMD_RESP}));
    EXPECT_NE(main_thread, std::this_thread::get_id());
    EXPECT_NE(at_thread, std::this_thread::get_id());
    EXPECT_NE(at_thread, main_thread);
    EXPECT_EQ(rt.live_events(), 0);
}

TEST_F(RuntimeThreaded, SendAndWaitGivesUpAfterTheWaitLimit) {
    rt.set_wait_limit(50ms);
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    ril->send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, nullptr, 0);
    ASSERT_TRUE(eventually([&] { return result != 1; }));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("evfw_host: ", 0), 0u);
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_GE(took, 50ms);
    EXPECT_LT(took, 1000ms);
}

TEST_F(RuntimeThreaded, WaitIdleWaitsForARunningHandler) {
    std::promise<void> release;
    std::shared_future<void> go = release.get_future().share();
    std::atomic<int> done{0};
    at->on_receive([go, &done](Peer &, const Received &) {
        go.wait();
        ++done;
    });
    ril->send(TASK_ATMNGR, 1, nullptr, 0);
    EXPECT_FALSE(rt.wait_idle(30ms)) << "the queue is empty but the handler runs";
    release.set_value();
    EXPECT_TRUE(rt.wait_idle(2000ms));
    EXPECT_EQ(done, 1);
}

TEST_F(RuntimeThreaded, InitThreadRunsAtOnceButAfterTheLoad) {
    ASSERT_TRUE(eventually([&] { return fake.thread_wait_result != 1; }));
    EXPECT_EQ(fake.thread_wait_result, 0);
    EXPECT_TRUE(fake.thread_saw_init_done) << "evfw_wait_all_entity_init returned during init";
}

TEST_F(RuntimeThreaded, UnloadStopsTheTasksBeforeExit) {
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

// ---- started threads, waiting for init, in both modes --------------------------------

struct Note {
    std::thread::id id;
    std::atomic<int> runs{0};
};

int note_thread(void *arg) {
    auto *n = static_cast<Note *>(arg);
    n->id = std::this_thread::get_id();
    ++n->runs;
    return 0;
}

std::atomic<int> g_wait_in_init{1};
evfw_entity_t *waiting_init(evfw_entity_t *e) {
    g_wait_in_init = evfw_wait_all_entity_init();
    return e;
}

class RuntimeThreads : public RuntimeFixture, public testing::WithParamInterface<Mode> {
  protected:
    RuntimeThreads() : RuntimeFixture(GetParam()) {}
};

TEST_P(RuntimeThreads, StartRunsTheRoutineAsTheModeSays) {
    Note a, b;
    evfw_thrd_t thrd{};
    ASSERT_EQ(evfw_thrd_init(&thrd), 0);
    ASSERT_EQ(thrd.start(&thrd, note_thread, &a), 0);
    ASSERT_EQ(thrd.start(&thrd, note_thread, &b), 0);
    EXPECT_EQ(thrd.start(&thrd, nullptr, &b), -1);
    if (GetParam() == Mode::Deterministic) {
        EXPECT_EQ(a.runs, 0) << "nothing runs before run_threads";
        EXPECT_EQ(rt.run_threads(), 2u);
        EXPECT_EQ(rt.run_threads(), 0u);
        EXPECT_EQ(a.id, std::this_thread::get_id());
    } else {
        ASSERT_TRUE(eventually([&] { return a.runs == 1 && b.runs == 1; }));
        EXPECT_EQ(rt.run_threads(), 0u);
        EXPECT_NE(a.id, std::this_thread::get_id());
        EXPECT_NE(a.id, b.id);
    }
    EXPECT_EQ(a.runs + b.runs, 2);
}

TEST_P(RuntimeThreads, WaitAllEntityInitRefusesToWaitForItself) {
    EXPECT_EQ(evfw_wait_all_entity_init(), 0) << "no load in progress";
    evfw_host::EntityAbi abi;
    abi.init = waiting_init;
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_NE(rt.load("waiter", abi), nullptr);
    const auto took = std::chrono::steady_clock::now() - start;
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(g_wait_in_init, -1);
    EXPECT_LT(took, 500ms) << "refused at once, not after the wait limit";
    EXPECT_EQ(err.rfind("evfw_host: evfw_wait_all_entity_init", 0), 0u) << err;
}

INSTANTIATE_TEST_SUITE_P(RuntimeModes, RuntimeThreads,
                         testing::Values(Mode::Deterministic, Mode::Threaded),
                         [](const auto &info) {
                             return info.param == Mode::Deterministic ? "Deterministic"
                                                                      : "Threaded";
                         });

}  // namespace
}  // namespace host_test

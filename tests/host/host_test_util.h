// Helpers of the runtime's own tests: a tiny entity with the shape of a real
// one's start-up (a mutex, a main task 402 whose handler records what it
// gets, a task 403 with a framework-installed handler, subscriptions, and a
// thread that waits for every entity's init), and a fixture that loads it
// into a fresh runtime.
#ifndef HOST_TEST_UTIL_H
#define HOST_TEST_UTIL_H

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "evfw.h"
#include "evfw_host/runtime.h"
#include "evfw_ids.h"

namespace host_test {

using Bytes = std::vector<uint8_t>;
using evfw_host::Mode;
using evfw_host::Peer;
using evfw_host::Received;
using evfw_host::Runtime;

// A fresh event with id and bytes, owned by the caller.
inline evfw_event_t *make_event(uint32_t id, const Bytes &bytes = {}) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    event_set_id(ev, id);
    if (!bytes.empty()) event_set_data(ev, 0, bytes.data(), bytes.size());
    return ev;
}

inline Bytes bytes_of(evfw_event_t *ev) {
    size_t len = 0;
    auto *p = static_cast<uint8_t *>(event_get_data(ev, 0, &len));
    return p != nullptr ? Bytes(p, p + len) : Bytes{};
}

// The main task's way with a request: it asks the AT manager (3002) and
// waits for the answer (3004).
inline int ask_at_manager(evfw_task_t *task) {
    const uint32_t want = EVENT_ATMNGR_ATCMD_RESP;
    return evfw_task_send_recv_event(task, make_event(3002), TASK_ATMNGR, rx_cond_event_id, &want,
                                     4);
}

struct FakeEntity {
    evfw_task_t main{}, dati{};
    evfw_mutex_t lock{};
    evfw_thrd_t thrd{};
    std::mutex mu;
    std::vector<uint32_t> main_got;  // ids the main handler got
    // Takes the event once it is recorded; by default it is freed.
    std::function<void(evfw_task_t *, evfw_event_t *)> on_main;
    bool fail_init = false;
    std::atomic<bool> init_done{false}, saw_init_done{false}, exiting{false}, exited{false};
    std::atomic<bool> ran_while_exiting{false};
    std::atomic<int> wait_result{1};

    std::vector<uint32_t> main_ids() {
        std::lock_guard lk(mu);
        return main_got;
    }
};

inline FakeEntity *g_fake = nullptr;
inline std::vector<std::string> g_exit_order;

inline evfw_host::EntityAbi fake_abi() {
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) -> evfw_entity_t * {
        FakeEntity *f = g_fake;
        e->id = 41;
        e->priv = f;
        evfw_mutex_init(&f->lock);
        evfw_task_init(&f->main, 41, TASK_DATAMNGR);
        evfw_task_init(&f->dati, 41, TASK_DATAMNGR_DATI_HDL);
        evfw_connmngr_common_subscribe(&f->main, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, 1);
        evfw_atmngr_subscribe_urc(&f->main, "+CGEV", EVENT_ATMNGR_URC, EVFW_URC_MODE_SKIP_CRLF);
        f->main.set_hdl(
                &f->main,
                [](evfw_task_t *task, evfw_event_t *event, void *arg) -> void * {
                    auto *fe = static_cast<FakeEntity *>(arg);
                    if (fe->exiting) fe->ran_while_exiting = true;
                    std::unique_lock lk(fe->mu);
                    fe->main_got.push_back(event_get_id(event));
                    lk.unlock();
                    fe->on_main ? fe->on_main(task, event) : evfw_event_free(event);
                    return nullptr;
                },
                f);
        evfw_thrd_init(&f->thrd);
        f->thrd.start(
                &f->thrd,
                [](void *arg) {
                    auto *fe = static_cast<FakeEntity *>(arg);
                    fe->wait_result = evfw_wait_all_entity_init();
                    fe->saw_init_done = fe->init_done.load();
                    return 0;
                },
                f);
        f->init_done = true;
        if (!f->fail_init) return e;
        evfw_mutex_exit(&f->lock);
        return nullptr;
    };
    abi.exit = [](evfw_entity_t *e) {
        FakeEntity *f = g_fake;
        f->exiting = true;
        if (f->main.fw != nullptr) evfw_task_exit(&f->main);  // a test may have exited it
        if (f->dati.fw != nullptr) evfw_task_exit(&f->dati);
        evfw_mutex_exit(&f->lock);
        f->exited = true;
        g_exit_order.push_back(e->name);
        return e;
    };
    abi.ctx_handlers = {{TASK_DATAMNGR_DATI_HDL, [](evfw_context_t *, evfw_event_t *ev, void *) {
                             evfw_event_free(ev);
                             return 0;
                         }}};
    return abi;
}

// The runtime reset to `mode`, with the fake entity loaded and three peers.
class EntityFixture : public ::testing::Test {
  protected:
    explicit EntityFixture(Mode mode = Mode::Deterministic) : mode_(mode) {}
    void SetUp() override {
        rt.reset(mode_);
        rt.set_diag_echo(nullptr);
        g_fake = &fake;
        g_exit_order.clear();
        ASSERT_NE(rt.load("fake", fake_abi()), nullptr) << rt.last_error();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
        ims = &rt.add_client("imsm_0");
    }
    void TearDown() override {
        rt.reset();
        g_fake = nullptr;
    }
    // The runtime's diagnostics since the fixture began, one per line.
    std::string diags() const {
        std::string out;
        for (const auto &d : rt.diagnostics()) out += d.text + "\n";
        return out;
    }

    Runtime &rt = Runtime::instance();
    Mode mode_;
    FakeEntity fake;
    Peer *ril = nullptr, *at = nullptr, *ims = nullptr;
};

}  // namespace host_test

#endif  // HOST_TEST_UTIL_H

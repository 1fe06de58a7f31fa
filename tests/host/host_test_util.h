// Helpers of the runtime's own tests: events, a fake entity, and a fixture
// that loads it into a fresh runtime.
#ifndef HOST_TEST_UTIL_H
#define HOST_TEST_UTIL_H

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "evfw.h"
#include "evfw_host/runtime.h"
#include "evfw_ids.h"

namespace host_test {

using Bytes = std::vector<uint8_t>;
using evfw_host::Mode;
using evfw_host::Peer;
using evfw_host::Received;
using evfw_host::Runtime;
using testing::IsSubstring;

// A fresh event with id and bytes, owned by the caller.
inline evfw_event_t *make_event(uint32_t id, const Bytes &bytes = {}) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    event_set_id(ev, id);
    if (!bytes.empty()) event_set_data(ev, 0, bytes.data(), bytes.size());
    return ev;
}

// The event's data from `offset` on; no data is a null block of length 0.
inline Bytes bytes_of(evfw_event_t *ev, size_t offset = 0) {
    size_t len = 99;
    auto *p = static_cast<uint8_t *>(event_get_data(ev, offset, &len));
    EXPECT_EQ(p == nullptr, len == 0) << len;
    return p != nullptr ? Bytes(p, p + len) : Bytes{};
}

// A tiny entity: its init makes the mutex, tasks 402 and 403, the main
// handler and a thread that waits for every entity's init.  Its plain
// fields are written by handlers and read by tests after pump() or
// wait_idle(), which the runtime's lock orders.
struct FakeEntity {
    evfw_task_t main{}, dati{};
    evfw_mutex_t lock{};
    evfw_thrd_t thrd{};
    std::vector<uint32_t> main_got;  // ids the main handler got
    std::thread::id main_thread;     // where it ran last
    bool fail_init = false;
    std::atomic<bool> init_done{false}, saw_init_done{false}, exiting{false}, exited{false};
    std::atomic<bool> ran_while_exiting{false};
    std::atomic<int> wait_result{1}, asked{1};  // of evfw_wait_all_entity_init, the ask on 4003

    // The main task's handler: on 4003 it asks the AT manager (3002) and
    // waits for the answer (3004); the handler is not re-entered meanwhile.
    static void *on_main(evfw_task_t *task, evfw_event_t *event, void *arg) {
        auto *f = static_cast<FakeEntity *>(arg);
        if (f->exiting) f->ran_while_exiting = true;
        f->main_thread = std::this_thread::get_id();
        const uint32_t want = EVENT_ATMNGR_ATCMD_RESP;
        if (event_get_id(event) == 4003) {
            f->asked = evfw_task_send_recv_event(task, make_event(3002), TASK_ATMNGR,
                                                 rx_cond_event_id, &want, sizeof want);
        }
        // Recorded last, so that an event delivered during the wait shows first.
        f->main_got.push_back(event_get_id(event));
        evfw_event_free(event);
        return nullptr;
    }
    static int init_thread(void *arg) {
        auto *f = static_cast<FakeEntity *>(arg);
        f->wait_result = evfw_wait_all_entity_init();
        f->saw_init_done = f->init_done.load();
        return 0;
    }
};

inline FakeEntity *g_fake = nullptr;
inline std::vector<std::string> g_exit_order;

inline evfw_host::EntityAbi fake_abi() {
    evfw_host::EntityAbi abi;
    abi.init = [](evfw_entity_t *e) -> evfw_entity_t * {
        FakeEntity *f = g_fake;
        e->id = 41;
        evfw_mutex_init(&f->lock);
        evfw_task_init(&f->main, 41, TASK_DATAMNGR);
        evfw_task_init(&f->dati, 41, TASK_DATAMNGR_DATI_HDL);
        f->main.set_hdl(&f->main, FakeEntity::on_main, f);
        evfw_thrd_init(&f->thrd);
        f->thrd.start(&f->thrd, FakeEntity::init_thread, f);
        f->init_done = true;
        if (!f->fail_init) return e;
        evfw_mutex_exit(&f->lock);
        return nullptr;
    };
    abi.exit = [](evfw_entity_t *e) {
        FakeEntity *f = g_fake;
        f->exiting = true;
        evfw_task_exit(&f->main);
        if (f->dati.fw != nullptr) evfw_task_exit(&f->dati);  // a test may have exited it
        evfw_mutex_exit(&f->lock);
        f->exited = true;
        g_exit_order.push_back(e->name);
        return e;
    };
    return abi;
}

// The runtime reset to `mode`, with the fake entity loaded and two peers.
class EntityFixture : public ::testing::Test {
  protected:
    explicit EntityFixture(Mode mode = Mode::Deterministic) : mode_(mode) {}
    void SetUp() override {
        rt.reset(mode_);
        g_fake = &fake;
        g_exit_order.clear();
        ASSERT_NE(rt.load("fake", fake_abi()), nullptr) << rt.last_error();
        ril = &rt.add_task(TASK_RILDPROXY);
        at = &rt.add_task(TASK_ATMNGR);
    }
    void TearDown() override { rt.reset(); }
    // The runtime's diagnostics since the fixture began, one per line.
    std::string diags() const {
        std::string out;
        for (const auto &d : rt.diagnostics()) out += d.text + "\n";
        return out;
    }

    Runtime &rt = Runtime::instance();
    Mode mode_;
    FakeEntity fake;
    Peer *ril = nullptr, *at = nullptr;
};

}  // namespace host_test

#endif  // HOST_TEST_UTIL_H

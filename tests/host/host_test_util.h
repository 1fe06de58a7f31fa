// Helpers of the runtime's own tests: a fixture that resets the runtime and
// a tiny entity with a main task (402) and a framework-installed handler
// (403), the shape of a real entity's start-up.
#ifndef HOST_TEST_UTIL_H
#define HOST_TEST_UTIL_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "evfw.h"
#include "evfw_host/runtime.h"
#include "evfw_ids.h"

namespace host_test {

using evfw_host::Mode;
using evfw_host::Runtime;

class RuntimeFixture : public ::testing::Test {
  protected:
    explicit RuntimeFixture(Mode mode = Mode::Deterministic) : mode_(mode) {}
    void SetUp() override { rt.reset(mode_); }
    void TearDown() override { rt.reset(); }

    Runtime &rt = Runtime::instance();
    Mode mode_;
};

// A fresh event with id and bytes, owned by the caller.
inline evfw_event_t *make_event(uint32_t id, const std::vector<uint8_t> &bytes = {}) {
    evfw_event_t *ev = evfw_event_alloc(nullptr);
    event_set_id(ev, id);
    if (!bytes.empty()) event_set_data(ev, 0, bytes.data(), bytes.size());
    return ev;
}

inline std::vector<uint8_t> bytes_of(evfw_event_t *ev) {
    size_t len = 0;
    auto *p = static_cast<uint8_t *>(event_get_data(ev, 0, &len));
    return p != nullptr ? std::vector<uint8_t>(p, p + len) : std::vector<uint8_t>{};
}

// ---- the fake entity ----------------------------------------------------------------

struct FakeEntity {
    static constexpr uint32_t kEntityId = 41;

    evfw_task_t main{}, dati{};
    evfw_mutex_t lock{};
    evfw_thrd_t thrd{};

    std::mutex mu;
    std::vector<uint32_t> main_got;  // ids of events the main handler got
    std::vector<uint32_t> dati_got;  // ids of events the 403 handler got
    std::vector<void *> dati_priv;   // the entity argument the 403 handler got
    // Takes the event after it is recorded; by default it is freed.
    std::function<void(evfw_task_t *, evfw_event_t *)> on_main;

    bool fail_init = false;
    std::atomic<bool> init_done{false}, thread_saw_init_done{false}, exiting{false}, exited{false};
    std::atomic<int> thread_wait_result{1};

    std::vector<uint32_t> main_ids() {
        std::lock_guard lk(mu);
        return main_got;
    }
};

inline FakeEntity *g_fake = nullptr;
inline std::vector<std::string> g_exit_order;

inline void *fake_main_hdl(evfw_task_t *task, evfw_event_t *event, void *arg) {
    auto *f = static_cast<FakeEntity *>(arg);
    {
        std::lock_guard lk(f->mu);
        f->main_got.push_back(event_get_id(event));
    }
    if (f->on_main) {
        f->on_main(task, event);
    } else {
        evfw_event_free(event);
    }
    return nullptr;
}

inline int fake_dati_hdl(evfw_context_t *, evfw_event_t *event, void *priv) {
    std::lock_guard lk(g_fake->mu);
    g_fake->dati_got.push_back(event_get_id(event));
    g_fake->dati_priv.push_back(priv);
    evfw_event_free(event);
    return 0;
}

inline int fake_thread(void *arg) {
    auto *f = static_cast<FakeEntity *>(arg);
    f->thread_wait_result = evfw_wait_all_entity_init();
    f->thread_saw_init_done = f->init_done.load();
    return 0;
}

inline evfw_entity_t *fake_init(evfw_entity_t *entity) {
    FakeEntity *f = g_fake;
    entity->id = FakeEntity::kEntityId;
    entity->priv = f;
    evfw_mutex_init(&f->lock);
    evfw_task_init(&f->main, FakeEntity::kEntityId, TASK_DATAMNGR);
    evfw_task_init(&f->dati, FakeEntity::kEntityId, TASK_DATAMNGR_DATI_HDL);
    evfw_connmngr_common_subscribe(&f->main, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, 1);
    evfw_atmngr_subscribe_urc(&f->main, "+CGEV", EVENT_ATMNGR_URC, EVFW_URC_MODE_SKIP_CRLF);
    f->main.set_hdl(&f->main, fake_main_hdl, f);
    evfw_thrd_init(&f->thrd);
    f->thrd.start(&f->thrd, fake_thread, f);
    f->init_done = true;
    if (f->fail_init) {
        evfw_mutex_exit(&f->lock);
        return nullptr;
    }
    return entity;
}

inline evfw_entity_t *fake_exit(evfw_entity_t *entity) {
    FakeEntity *f = g_fake;
    f->exiting = true;
    // A test may have exited a task already.
    if (f->main.fw != nullptr) evfw_task_exit(&f->main);
    if (f->dati.fw != nullptr) evfw_task_exit(&f->dati);
    evfw_mutex_exit(&f->lock);
    f->exited = true;
    g_exit_order.push_back(entity->name);
    return entity;
}

inline evfw_host::EntityAbi fake_abi() {
    return {fake_init, fake_exit, {{TASK_DATAMNGR_DATI_HDL, fake_dati_hdl}}};
}

// Fixture with the fake entity loaded.
class EntityFixture : public RuntimeFixture {
  protected:
    explicit EntityFixture(Mode mode = Mode::Deterministic) : RuntimeFixture(mode) {}
    void SetUp() override {
        RuntimeFixture::SetUp();
        g_fake = &fake;
        g_exit_order.clear();
        entity = rt.load("fake", fake_abi());
        ASSERT_NE(entity, nullptr) << rt.last_error();
    }
    void TearDown() override {
        RuntimeFixture::TearDown();
        g_fake = nullptr;
    }

    FakeEntity fake;
    evfw_entity_t *entity = nullptr;
};

}  // namespace host_test

#endif  // HOST_TEST_UTIL_H

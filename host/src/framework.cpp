// The framework's C API (evfw.h) on top of the runtime's core: tasks, sends,
// subscriptions, mutexes, threads.
#include <cerrno>
#include <new>

#include "internal.h"

using evfw_host::core;
using evfw_host::FaultCall;

namespace {

// Recursive mutex that knows its owner, so that a foreign unlock is refused,
// and whose waits are bounded, so that a lock-order bug shows up as a
// diagnostic instead of a hang.
struct HostMutex {
    std::mutex m;
    std::condition_variable cv;
    std::thread::id owner;
    unsigned count = 0;
};

int host_mutex_lock(evfw_mutex_t *mutex) {
    if (mutex == nullptr || mutex->fw == nullptr) return -1;
    auto *h = static_cast<HostMutex *>(mutex->fw);
    const auto me = std::this_thread::get_id();
    std::unique_lock lk(h->m);
    if (h->count != 0 && h->owner == me) {
        ++h->count;
        return 0;
    }
    const auto limit = core().wait_limit();
    if (!h->cv.wait_for(lk, limit, [h] { return h->count == 0; })) {
        lk.unlock();
        core().count_timeout();
        evfw_host::diag("mutex %p: still held by another thread after %lld ms; lock gives up",
                        static_cast<void *>(mutex), static_cast<long long>(limit.count()));
        return -1;
    }
    h->owner = me;
    h->count = 1;
    return 0;
}

int host_mutex_unlock(evfw_mutex_t *mutex) {
    if (mutex == nullptr || mutex->fw == nullptr) return -1;
    auto *h = static_cast<HostMutex *>(mutex->fw);
    std::unique_lock lk(h->m);
    if (h->count == 0 || h->owner != std::this_thread::get_id()) {
        const bool held = h->count != 0;
        lk.unlock();
        core().count_bad_unlock();
        evfw_host::diag("mutex %p: unlock by a thread that does not hold it (%s); ignored",
                        static_cast<void *>(mutex), held ? "held by another" : "not held");
        return -1;
    }
    if (--h->count == 0) {
        h->owner = std::thread::id();
        h->cv.notify_one();
    }
    return 0;
}

int host_thrd_start(evfw_thrd_t *thrd, evfw_thrd_fn_t fn, void *arg) {
    if (thrd == nullptr) return -1;
    core().record_call("evfw_thrd_start");
    return core().thread_start(fn, arg);
}

}  // namespace

extern "C" {

int evfw_task_init(evfw_task_t *task, uint32_t entity_id, uint32_t task_id) {
    if (evfw_host::fault(FaultCall::TaskInit)) return -1;
    return core().task_init(task, entity_id, task_id);
}

int evfw_task_exit(evfw_task_t *task) {
    return core().task_exit(task);
}

int evfw_connmngr_common_subscribe(evfw_task_t *task, uint32_t event_id, int mode) {
    if (task == nullptr) return -1;
    core().record_subscription(evfw_host::Subscription{task->task_id, event_id, mode});
    return 0;
}

int evfw_atmngr_subscribe_urc(evfw_task_t *task, const char *prefix, uint32_t event_id, int mode) {
    if (task == nullptr || prefix == nullptr) return -1;
    core().record_urc_subscription(
            evfw_host::UrcSubscription{task->task_id, prefix, event_id, mode});
    return 0;
}

int evfw_task_send_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id) {
    if (evfw_host::fault(FaultCall::TaskSendEvent)) return -1;
    return core().send_from_task(from, event, task_id, "evfw_task_send_event");
}

int evfw_task_send_recv_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id,
                              evfw_rx_cond_t cond, const void *arg, size_t arg_len) {
    if (evfw_host::fault(FaultCall::TaskSendRecvEvent)) {
        // Sent, but the answer does not come in time.
        const int r = core().send_from_task(from, event, task_id, "evfw_task_send_recv_event");
        return r < 0 ? r : -ETIMEDOUT;
    }
    return core().send_recv(from, event, task_id, cond, arg, arg_len);
}

int evfw_context_common_send(evfw_context_t *from, evfw_event_t *event, uint32_t to_id) {
    if (evfw_host::fault(FaultCall::ContextCommonSend)) return -1;
    return core().send(from, event, to_id);
}

int evfw_task_bcast_ext_event(evfw_task_t *from, evfw_event_t *event) {
    if (evfw_host::fault(FaultCall::TaskBcastExtEvent)) return -1;
    return core().bcast(from, event);
}

int evfw_mutex_init(evfw_mutex_t *mutex) {
    if (mutex == nullptr) return -1;
    core().record_call("evfw_mutex_init");
    if (evfw_host::fault(FaultCall::MutexInit)) return -ENOMEM;
    auto *h = new (std::nothrow) HostMutex;
    if (h == nullptr) return -ENOMEM;
    mutex->lock = host_mutex_lock;
    mutex->unlock = host_mutex_unlock;
    mutex->fw = h;
    return 0;
}

int evfw_mutex_exit(evfw_mutex_t *mutex) {
    if (mutex == nullptr) return -1;
    core().record_call("evfw_mutex_exit");
    delete static_cast<HostMutex *>(mutex->fw);
    mutex->fw = nullptr;
    return 0;
}

int evfw_thrd_init(evfw_thrd_t *thrd) {
    if (thrd == nullptr) return -1;
    core().record_call("evfw_thrd_init");
    if (evfw_host::fault(FaultCall::ThrdInit)) {
        thrd->start = nullptr;  // not prepared
        return -1;
    }
    thrd->start = host_thrd_start;
    thrd->fw = nullptr;
    return 0;
}

int evfw_wait_all_entity_init(void) {
    return core().wait_all_entity_init();
}

}  // extern "C"

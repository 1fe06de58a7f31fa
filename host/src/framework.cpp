// The framework's C API: each call checks its fault plan, then does what
// the framework does, through the router and the entities.

#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <new>
#include <thread>

#include "entities.h"
#include "plugs.h"
#include "record.h"
#include "router.h"

pid_t rvn_pid = getpid();

namespace evfw_host {

namespace {

// A recursive mutex that knows its owner, so that a foreign unlock is
// refused, and whose waits are bounded, so that a lock-order bug shows up as
// a diagnostic instead of a hang.  Its state is guarded by the runtime's
// lock, which a waiter gives up while it waits.
struct HostMutex {
    std::condition_variable released;
    std::thread::id owner;
    unsigned count = 0;
};

int mutex_lock(evfw_mutex_t *mutex) {
    if (mutex == nullptr || mutex->fw == nullptr) return -1;
    auto *m = static_cast<HostMutex *>(mutex->fw);
    const auto me = std::this_thread::get_id();
    Guard g = lock();
    if (m->count != 0 && m->owner == me) {
        ++m->count;
        return 0;
    }
    if (!m->released.wait_for(g, wait_limit(g), [m] { return m->count == 0; })) {
        note_timeout(g);
        diag(g, "mutex %p: still held by another thread after %lld ms; lock gives up",
             static_cast<void *>(mutex), static_cast<long long>(wait_limit(g).count()));
        return -1;
    }
    m->owner = me;
    m->count = 1;
    return 0;
}

int mutex_unlock(evfw_mutex_t *mutex) {
    if (mutex == nullptr || mutex->fw == nullptr) return -1;
    auto *m = static_cast<HostMutex *>(mutex->fw);
    Guard g = lock();
    if (m->count == 0 || m->owner != std::this_thread::get_id()) {
        note_bad_unlock(g);
        diag(g, "mutex %p: unlock by a thread that does not hold it (%s); ignored",
             static_cast<void *>(mutex), m->count != 0 ? "held by another" : "not held");
        return -1;
    }
    if (--m->count == 0) {
        m->owner = std::thread::id();
        m->released.notify_one();
    }
    return 0;
}

int thread_start(evfw_thrd_t *thrd, evfw_thrd_fn_t fn, void *arg) {
    return thrd != nullptr ? start_thread(fn, arg) : -1;
}

}  // namespace

}  // namespace evfw_host

// The C API below is written over the runtime's own names.
using namespace evfw_host;

extern "C" {

int evfw_task_init(evfw_task_t *task, uint32_t entity_id, uint32_t task_id) {
    if (fault(FaultCall::TaskInit)) return -1;
    return init_task(task, entity_id, task_id);
}

int evfw_task_exit(evfw_task_t *task) {
    return exit_task(task);
}

int evfw_connmngr_common_subscribe(evfw_task_t *task, uint32_t event_id, int mode) {
    if (task == nullptr) return -1;
    record_subscription(Subscription{task->task_id, event_id, mode});
    return 0;
}

int evfw_atmngr_subscribe_urc(evfw_task_t *task, const char *prefix, uint32_t event_id, int mode) {
    if (task == nullptr || prefix == nullptr) return -1;
    record_urc_subscription(UrcSubscription{task->task_id, prefix, event_id, mode});
    return 0;
}

int evfw_task_send_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id) {
    if (fault(FaultCall::TaskSendEvent) || from == nullptr || event == nullptr) return -1;
    Guard g = lock();
    evfw_context *c = task_context(g, from, "evfw_task_send_event");
    return c != nullptr ? send(g, c, event, task_id) : -1;
}

int evfw_task_send_recv_event(evfw_task_t *from, evfw_event_t *event, uint32_t task_id,
                              evfw_rx_cond_t cond, const void *arg, size_t arg_len) {
    if (fault(FaultCall::TaskSendRecvEvent)) {
        // Sent, but the answer does not come in time.
        const int r = evfw_task_send_event(from, event, task_id);
        return r < 0 ? r : -ETIMEDOUT;
    }
    if (from == nullptr || event == nullptr) return -1;
    Guard g = lock();
    evfw_context *c = task_context(g, from, "evfw_task_send_recv_event");
    return c != nullptr ? send_and_wait(g, c, event, task_id, cond, arg, arg_len) : -1;
}

int evfw_context_common_send(evfw_context_t *from, evfw_event_t *event, uint32_t to_id) {
    if (fault(FaultCall::ContextCommonSend) || from == nullptr || event == nullptr) return -1;
    return send(lock(), from, event, to_id);
}

int evfw_task_bcast_ext_event(evfw_task_t *from, evfw_event_t *event) {
    if (fault(FaultCall::TaskBcastExtEvent) || from == nullptr || event == nullptr) return -1;
    Guard g = lock();
    evfw_context *c = task_context(g, from, "evfw_task_bcast_ext_event");
    return c != nullptr ? broadcast(g, c, event) : -1;
}

int evfw_mutex_init(evfw_mutex_t *mutex) {
    if (mutex == nullptr) return -1;
    record_call(lock(), "evfw_mutex_init");
    if (fault(FaultCall::MutexInit)) return -ENOMEM;
    auto *m = new (std::nothrow) HostMutex;
    if (m == nullptr) return -ENOMEM;
    mutex->lock = mutex_lock;
    mutex->unlock = mutex_unlock;
    mutex->fw = m;
    return 0;
}

int evfw_mutex_exit(evfw_mutex_t *mutex) {
    if (mutex == nullptr) return -1;
    record_call(lock(), "evfw_mutex_exit");
    delete static_cast<HostMutex *>(mutex->fw);
    mutex->fw = nullptr;
    return 0;
}

int evfw_thrd_init(evfw_thrd_t *thrd) {
    if (thrd == nullptr) return -1;
    record_call(lock(), "evfw_thrd_init");
    if (fault(FaultCall::ThrdInit)) {
        thrd->start = nullptr;  // not prepared
        return -1;
    }
    thrd->start = thread_start;
    thrd->fw = nullptr;
    return 0;
}

int evfw_wait_all_entity_init(void) {
    return wait_all_entity_init();
}

}  // extern "C"

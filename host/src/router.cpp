// Contexts, the send path, delivery in both modes, send-and-wait.
#include "router.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>

#include "entities.h"
#include "record.h"

namespace evfw_host {

namespace {

// One send on its way to its receiver.  The receiver is held by its
// context, not its id: a context that took the id over later gets none of it.
struct Item {
    uint32_t from = 0;
    evfw_context *to = nullptr;
    evfw_event *ev = nullptr;
};

// A task blocked in send-and-wait.
struct Waiter {
    const evfw_context *task = nullptr;
    evfw_rx_cond_t cond = nullptr;
    const void *arg = nullptr;
    size_t arg_len = 0;
    bool matched = false;

    bool accepts(const Item &i) const {
        return i.to == task && (cond == nullptr || cond(i.ev, arg, arg_len) != 0);
    }
};

struct Router {
    Mode mode = Mode::Deterministic;
    std::chrono::milliseconds wait_limit{2000};
    std::map<uint32_t, std::unique_ptr<evfw_context>> contexts;
    std::vector<std::unique_ptr<evfw_context>> removed;  // kept until the reset
    std::deque<Item> queue;
    std::vector<Waiter *> waiters;    // innermost last
    std::condition_variable changed;  // queued, delivered, stopped
    uint32_t next_chnl = 1;
    uint32_t next_ext = EVFW_EXT_ID_BASE;
    uint64_t deliveries = 0;
};

Router &router() {
    static Router *r = new Router;
    return *r;
}

// Traces the send and queues the event for its receiver, or frees it when
// nothing will deliver it.  A waiter it answers sees it at once: in
// threaded mode the waiting task's own thread may take it meanwhile.
void post(const Guard &g, uint32_t from, evfw_event *ev, uint32_t to) {
    Router &r = router();
    evfw_context *c = find_context(g, to);
    trace_send(g, from, to, ev, c == nullptr);
    if (c == nullptr || c->stop) return free_event(g, ev);
    const Item item{from, c, ev};
    for (Waiter *w : r.waiters) w->matched = w->matched || w->accepts(item);
    r.queue.push_back(item);
    r.changed.notify_all();
}

// Takes the queued item `it` and runs its receiver's handler for it, without
// the lock; a receiver that takes nothing more frees it.
void deliver(Guard &g, const std::deque<Item>::iterator &it) {
    Router &r = router();
    const Item item = *it;
    r.queue.erase(it);
    evfw_context *c = item.to;
    const std::shared_ptr<const Handler> handler = c->stop ? nullptr : c->handler;
    c->busy = true;
    g.unlock();
    if (handler != nullptr) {
        (*handler)(c, item.ev, item.from);
    } else {
        free_event(lock(), item.ev);
    }
    g.lock();
    c->busy = false;
    ++r.deliveries;
    r.changed.notify_all();
}

// Deterministic mode: delivers the first queued item that is not addressed
// to a task blocked in send-and-wait; false when there is none.
bool deliver_next(Guard &g) {
    Router &r = router();
    auto it = std::find_if(r.queue.begin(), r.queue.end(), [&r](const Item &i) {
        return std::none_of(r.waiters.begin(), r.waiters.end(),
                            [&i](const Waiter *w) { return w->task == i.to; });
    });
    if (it == r.queue.end()) return false;
    deliver(g, it);
    return true;
}

// Threaded mode: the context's thread.
void work(evfw_context *c) {
    Router &r = router();
    Guard g = lock();
    for (;;) {
        auto mine = r.queue.end();
        r.changed.wait(g, [&] {
            mine = std::find_if(r.queue.begin(), r.queue.end(),
                                [c](const Item &i) { return i.to == c; });
            return c->stop || mine != r.queue.end();
        });
        if (c->stop) return;
        deliver(g, mine);
    }
}

bool idle(const Guard &) {
    Router &r = router();
    return r.queue.empty() && std::none_of(r.contexts.begin(), r.contexts.end(),
                                           [](const auto &c) { return c.second->busy; });
}

// -1, with a diagnostic, unless `from` may send `ev`; then the event takes
// its route: a fresh event the sender's, a derived one keeps its source's.
int prepare(const Guard &g, evfw_context *from, evfw_event *ev, const char *what) {
    if (!is_live(g, ev) || from->gone) {
        diag(g, "%s of event %p from %s(%u): %s; refused", what, static_cast<void *>(ev),
             from->name.c_str(), from->id,
             from->gone ? "the sender is gone" : "the event is not live");
        return -1;
    }
    if (ev->chnl == 0) {
        ev->chnl = from->chnl;
        ev->ext_id = from->ext_id;
    }
    return 0;
}

int gave_up(const Guard &g, const Waiter &w, const char *why) {
    note_timeout(g);
    char awaited[96] = "an event its condition accepts";
    if (w.cond == rx_cond_event_id && w.arg != nullptr && w.arg_len == sizeof(uint32_t)) {
        uint32_t id;
        memcpy(&id, w.arg, sizeof id);
        snprintf(awaited, sizeof awaited, "%s(%u)", event_get_name(id), id);
    }
    diag(g, "evfw_task_send_recv_event: task %s(%u) waited for %s; %s (-ETIMEDOUT)",
         w.task->name.c_str(), w.task->id, awaited, why);
    return -ETIMEDOUT;
}

}  // namespace

Mode routing_mode(const Guard &) {
    return router().mode;
}

std::chrono::milliseconds wait_limit(const Guard &) {
    return router().wait_limit;
}

evfw_context *find_context(const Guard &, uint32_t id) {
    auto it = router().contexts.find(id);
    return it != router().contexts.end() ? it->second.get() : nullptr;
}

std::vector<evfw_context *> contexts(const Guard &) {
    std::vector<evfw_context *> all;
    for (const auto &[id, c] : router().contexts) all.push_back(c.get());
    return all;
}

evfw_context *add_context(const Guard &, uint32_t id, std::string name, Entity *owner) {
    Router &r = router();
    if (id == 0) id = r.next_ext++;
    auto &c = r.contexts[id] = std::make_unique<evfw_context>();
    c->id = id;
    c->ext_id = id >= EVFW_EXT_ID_BASE ? id : 0;
    c->chnl = r.next_chnl++;
    c->name = std::move(name);
    c->owner = owner;
    if (r.mode == Mode::Threaded) c->worker = std::thread(work, c.get());
    return c.get();
}

void stop_context(evfw_context *c) {
    {
        Guard g = lock();
        std::erase_if(router().queue, [&g, c](const Item &i) {
            if (i.to == c) free_event(g, i.ev);
            return i.to == c;
        });
        c->stop = true;
        router().changed.notify_all();
    }
    if (c->worker.joinable() && c->worker.get_id() != std::this_thread::get_id()) c->worker.join();
}

void remove_context(evfw_context *c) {
    {
        Guard g = lock();
        Router &r = router();
        if (auto it = r.contexts.find(c->id); it != r.contexts.end() && it->second.get() == c) {
            r.removed.push_back(std::move(it->second));
            r.contexts.erase(it);
        }
        c->gone = true;
    }
    stop_context(c);
}

evfw_context *task_context(const Guard &g, const evfw_task_t *task, const char *what) {
    auto *c = static_cast<evfw_context *>(task->fw);
    if (c != nullptr && !c->gone && c->task == task) return c;
    diag(g, "%s from task %u, which is not initialised (or has exited); refused", what,
         task->task_id);
    return nullptr;
}

int send(const Guard &g, evfw_context *from, evfw_event *ev, uint32_t to) {
    if (prepare(g, from, ev, "send") < 0) return -1;
    post(g, from->id, ev, to);
    return 0;
}

int broadcast(const Guard &g, evfw_context *from, evfw_event *ev) {
    if (prepare(g, from, ev, "broadcast") < 0) return -1;
    bool clients = false;
    for (const auto &[to, c] : router().contexts) {
        if (to < EVFW_EXT_ID_BASE) continue;
        clients = true;
        evfw_event *copy = new_event(g, ev);
        if (copy == nullptr) {
            diag(g, "broadcast of event %u: no memory for the copy to %u", ev->id, to);
            continue;
        }
        copy->data = ev->data;
        post(g, from->id, copy, to);
    }
    if (!clients) trace_send(g, from->id, 0, ev, true);
    free_event(g, ev);  // the copies went out; the event itself is consumed
    return 0;
}

int send_and_wait(Guard &g, evfw_context *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                  const void *arg, size_t arg_len) {
    Router &r = router();
    Waiter w{from, cond, arg, arg_len, false};
    // Registered before the send, so that a fast answer is not missed; an
    // accepted event already queued counts as well.
    w.matched = std::any_of(r.queue.begin(), r.queue.end(),
                            [&w](const Item &i) { return w.accepts(i); });
    r.waiters.push_back(&w);
    const int sent = send(g, from, ev, to);
    if (sent == 0 && r.mode == Mode::Threaded) {
        r.changed.wait_for(g, r.wait_limit, [&w] { return w.matched; });
    }
    // Deterministic: the queue runs on this thread until the answer comes.
    // Events for waiting tasks are held back, in order, so that their
    // handlers are not re-entered; they arrive after the wait.
    while (sent == 0 && r.mode == Mode::Deterministic && !w.matched && deliver_next(g)) {
    }
    std::erase(r.waiters, &w);
    if (sent < 0 || w.matched) return sent;
    return gave_up(g, w,
                   r.mode == Mode::Threaded ? "gave up after the wait limit"
                                            : "the queue ran dry without it");
}

void drop_queued() {
    Guard g = lock();
    Router &r = router();
    for (const Item &i : r.queue) free_event(g, i.ev);
    r.queue.clear();
    r.deliveries = 0;
}

void reset_routing(Mode mode) {
    Router &r = router();
    std::vector<std::unique_ptr<evfw_context>> dead;
    {
        Guard g = lock();
        for (auto &[id, c] : r.contexts) c->stop = true;  // no handler starts any more
        r.changed.notify_all();
    }
    unload_entities();
    {
        Guard g = lock();
        for (auto &[id, c] : r.contexts) dead.push_back(std::move(c));
        r.contexts.clear();
        std::move(r.removed.begin(), r.removed.end(), std::back_inserter(dead));
        r.removed.clear();
    }
    // A thread that removed its own context ends once its handler returns.
    for (auto &c : dead) stop_context(c.get());
    drop_queued();
    Guard g = lock();
    r.mode = mode;
    r.wait_limit = std::chrono::milliseconds(2000);
    r.next_chnl = 1;
    r.next_ext = EVFW_EXT_ID_BASE;
}

size_t Runtime::pump() {
    Router &r = router();
    Guard g = lock();
    const uint64_t before = r.deliveries;
    if (r.mode == Mode::Threaded) r.changed.wait_for(g, r.wait_limit, [&g] { return idle(g); });
    while (r.mode == Mode::Deterministic && deliver_next(g)) {
    }
    return r.deliveries - before;
}

bool Runtime::wait_idle(std::chrono::milliseconds timeout) {
    Guard g = lock();
    if (router().mode == Mode::Deterministic) return idle(g);
    return router().changed.wait_for(g, timeout, [&g] { return idle(g); });
}

void Runtime::set_wait_limit(std::chrono::milliseconds limit) {
    Guard g = lock();
    router().wait_limit = limit;
}

}  // namespace evfw_host

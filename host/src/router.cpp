// Contexts, the send path, delivery in both modes, send-and-wait.
#include "router.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "entities.h"
#include "record.h"

namespace evfw_host {

namespace {

// A task blocked in send-and-wait, threaded mode.
struct Waiter {
    uint32_t task = 0;
    evfw_rx_cond_t cond = nullptr;
    const void *arg = nullptr;
    size_t arg_len = 0;
    bool matched = false;

    bool accepts(const evfw_event *ev) const { return cond == nullptr || cond(ev, arg, arg_len); }
};

struct Router {
    Mode mode = Mode::Deterministic;
    std::chrono::milliseconds wait_limit{2000};
    std::map<uint32_t, std::unique_ptr<evfw_context>> contexts;
    std::vector<std::unique_ptr<evfw_context>> removed;  // kept until the reset
    std::deque<Item> queue;                              // deterministic mode
    std::vector<uint32_t> waiting;    // deterministic send-and-wait, innermost last
    std::vector<Waiter *> waiters;    // threaded send-and-wait
    std::condition_variable changed;  // a delivery done, a wait matched
    uint32_t next_chnl = 1;
    uint64_t deliveries = 0;
};

Router &router() {
    static Router *r = new Router;
    return *r;
}

// Runs the receiver of one delivery, without the lock.
void run(const Handlers &h, evfw_context *ctx, const Item &item) {
    if (h.ctx_hdl != nullptr) {
        // The entity's private state is read now: the entity sets it in its init.
        h.ctx_hdl(ctx, item.ev, h.entity != nullptr ? h.entity->priv : nullptr);
        return;
    }
    if (h.task_hdl != nullptr) {
        h.task_hdl(h.task, item.ev, h.task_arg);
        return;
    }
    if (h.peer_hdl != nullptr) {
        const Received in{item.ev, item.ev->id, item.from, item.ev->chnl, item.ev->data};
        try {
            (*h.peer_hdl)(*h.peer, in);
        } catch (const std::exception &e) {
            diag("handler of peer %s threw: %s", h.peer->name().c_str(), e.what());
        }
    }
    free_event(item.ev);  // after a peer, or when nothing serves the id any more
}

// Traces the send and queues the event for its receiver, or frees it when
// nothing will deliver it.
void post(const Guard &g, uint32_t from, evfw_event *ev, uint32_t to) {
    Router &r = router();
    evfw_context *c = find_context(g, to);
    trace_send(g, from, to, ev, c == nullptr);
    if (c == nullptr || c->stop) {
        free_event(g, ev);
    } else if (r.mode == Mode::Deterministic) {
        r.queue.push_back(Item{from, to, ev});
    } else {
        for (Waiter *w : r.waiters) {
            if (w->task == to && !w->matched && w->accepts(ev)) w->matched = true;
        }
        c->inbox.push_back(Item{from, to, ev});
        c->wake.notify_one();
        r.changed.notify_all();
    }
}

// A fresh event takes the sender's route; a derived one keeps its source's.
void take_route(evfw_event *ev, const evfw_context *from) {
    if (ev->chnl == 0) {
        ev->chnl = from->chnl;
        ev->ext_id = from->ext_id;
    }
}

// Deterministic mode: delivers the first queued item that is not addressed
// to a task blocked in send-and-wait, on this thread; false when there is
// none.
bool deliver_next(Guard &g) {
    Router &r = router();
    auto it = std::find_if(r.queue.begin(), r.queue.end(), [&r](const Item &i) {
        return std::find(r.waiting.begin(), r.waiting.end(), i.to) == r.waiting.end();
    });
    if (it == r.queue.end()) return false;
    const Item item = *it;
    r.queue.erase(it);
    evfw_context *c = find_context(g, item.to);
    const Handlers h = c != nullptr ? c->handlers : Handlers{};
    ++r.deliveries;
    g.unlock();
    run(h, c, item);
    g.lock();
    return true;
}

// Threaded mode: the context's thread.
void work(evfw_context *c) {
    Router &r = router();
    Guard g = lock();
    for (;;) {
        c->wake.wait(g, [c] { return c->stop || !c->inbox.empty(); });
        if (c->stop) return;
        const Item item = c->inbox.front();
        c->inbox.pop_front();
        c->busy = true;
        const Handlers h = c->handlers;
        g.unlock();
        run(h, c, item);
        g.lock();
        c->busy = false;
        ++r.deliveries;
        r.changed.notify_all();
    }
}

bool idle(const Guard &) {
    Router &r = router();
    return r.queue.empty() && std::all_of(r.contexts.begin(), r.contexts.end(), [](auto &c) {
               return !c.second->busy && c.second->inbox.empty();
           });
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
         task_name(w.task), w.task, awaited, why);
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

std::vector<uint32_t> context_ids(const Guard &) {
    std::vector<uint32_t> ids;
    for (const auto &[id, c] : router().contexts) ids.push_back(id);
    return ids;
}

evfw_context *add_context(const Guard &, evfw_context::Kind kind, uint32_t id, uint32_t ext_id,
                          std::string name, Entity *owner) {
    Router &r = router();
    auto &c = r.contexts[id] = std::make_unique<evfw_context>();
    c->kind = kind;
    c->id = id;
    c->ext_id = ext_id;
    c->chnl = r.next_chnl++;
    c->name = std::move(name);
    c->owner = owner;
    if (r.mode == Mode::Threaded) c->worker = std::thread(work, c.get());
    return c.get();
}

void stop_worker(evfw_context *c) {
    Router &r = router();
    {
        Guard g = lock();
        c->stop = true;
        c->wake.notify_all();
    }
    if (c->worker.joinable() && c->worker.get_id() != std::this_thread::get_id()) c->worker.join();
    Guard g = lock();
    for (const Item &i : c->inbox) free_event(g, i.ev);
    c->inbox.clear();
    std::erase_if(r.queue, [&g, c](const Item &i) {
        if (i.to == c->id) free_event(g, i.ev);
        return i.to == c->id;
    });
    r.changed.notify_all();
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
    stop_worker(c);
}

evfw_context *task_context(const Guard &g, const evfw_task_t *task, const char *what) {
    auto *c = static_cast<evfw_context *>(task->fw);
    if (c != nullptr && !c->gone && c->handlers.task == task) return c;
    diag(g, "%s from task %u, which is not initialised (or has exited); refused", what,
         task->task_id);
    return nullptr;
}

int send(const Guard &g, evfw_context *from, evfw_event *ev, uint32_t to) {
    if (!is_live(g, ev)) {
        diag(g, "send of event %p to %u: the event is not live; refused", static_cast<void *>(ev),
             to);
        return -1;
    }
    if (from->gone) {
        diag(g, "send of event %u to %u from a context that is gone; refused", ev->id, to);
        return -1;
    }
    take_route(ev, from);
    post(g, from->id, ev, to);
    return 0;
}

int send(evfw_context *from, evfw_event *ev, uint32_t to) {
    if (from == nullptr || ev == nullptr) return -1;
    Guard g = lock();
    return send(g, from, ev, to);
}

int broadcast(evfw_task_t *from, evfw_event *ev) {
    if (from == nullptr || ev == nullptr) return -1;
    Guard g = lock();
    evfw_context *c = task_context(g, from, "evfw_task_bcast_ext_event");
    if (c == nullptr) return -1;
    if (!is_live(g, ev)) {
        diag(g, "broadcast of event %p: the event is not live; refused", static_cast<void *>(ev));
        return -1;
    }
    take_route(ev, c);
    std::vector<uint32_t> clients = context_ids(g);
    std::erase_if(clients, [](uint32_t id) { return id < EVFW_EXT_ID_BASE; });
    if (clients.empty()) trace_send(g, c->id, 0, ev, true);
    for (uint32_t to : clients) {
        evfw_event *copy = new_event(g, ev);
        if (copy == nullptr) {
            diag(g, "broadcast of event %u: no memory for the copy to %u", ev->id, to);
            continue;
        }
        copy->data = ev->data;
        post(g, c->id, copy, to);
    }
    free_event(g, ev);  // the copies went out; the event itself is consumed
    return 0;
}

int send_and_wait(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                  const void *arg, size_t arg_len) {
    if (from == nullptr || ev == nullptr) return -1;
    Router &r = router();
    Guard g = lock();
    evfw_context *self = task_context(g, from, "evfw_task_send_recv_event");
    if (self == nullptr) return -1;
    Waiter w{self->id, cond, arg, arg_len, false};
    if (r.mode == Mode::Threaded) {
        // Registered before the send, so that a fast answer is not missed;
        // an accepted event already queued counts as well.
        w.matched = std::any_of(self->inbox.begin(), self->inbox.end(),
                                [&w](const Item &i) { return w.accepts(i.ev); });
        r.waiters.push_back(&w);
        const int sent = send(g, self, ev, to);
        if (sent == 0) r.changed.wait_for(g, r.wait_limit, [&w] { return w.matched; });
        std::erase(r.waiters, &w);
        if (sent < 0 || w.matched) return sent;
        return gave_up(g, w, "gave up after the wait limit");
    }
    // Deterministic: the queue runs on this thread until an event for this
    // task is accepted.  Events for waiting tasks are held back, in order,
    // so that their handlers are not re-entered; they arrive after the wait.
    const int sent = send(g, self, ev, to);
    if (sent < 0) return sent;
    r.waiting.push_back(w.task);
    auto accepted = [&w](const Item &i) { return i.to == w.task && w.accepts(i.ev); };
    while (!(w.matched = std::any_of(r.queue.begin(), r.queue.end(), accepted)) &&
           deliver_next(g)) {
    }
    r.waiting.erase(std::find(r.waiting.rbegin(), r.waiting.rend(), w.task).base() - 1);
    return w.matched ? 0 : gave_up(g, w, "the queue ran dry without it");
}

void drop_queued() {
    Guard g = lock();
    Router &r = router();
    for (const Item &i : r.queue) free_event(g, i.ev);
    r.queue.clear();
    for (auto &[id, c] : r.contexts) {
        for (const Item &i : c->inbox) free_event(g, i.ev);
        c->inbox.clear();
    }
    r.deliveries = 0;
}

void reset_routing(Mode mode) {
    Router &r = router();
    std::vector<std::unique_ptr<evfw_context>> dead;
    {
        Guard g = lock();
        for (auto &[id, c] : r.contexts) c->stop = true;  // no handler starts any more
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
    for (auto &c : dead) stop_worker(c.get());
    drop_queued();
    Guard g = lock();
    r.waiting.clear();
    r.mode = mode;
    r.wait_limit = std::chrono::milliseconds(2000);
    r.next_chnl = 1;
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

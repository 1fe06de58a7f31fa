// The runtime's core: contexts, routing, queues, delivery in both modes.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "internal.h"

pid_t rvn_pid = getpid();

namespace evfw_host {

constinit std::atomic<Core *> g_core{nullptr};

Core &make_core() {
    static Core instance;
    g_core.store(&instance, std::memory_order_release);
    return instance;
}

namespace {

bool accepts(evfw_rx_cond_t cond, const evfw_event *ev, const void *arg, size_t arg_len) {
    return cond == nullptr || cond(ev, arg, arg_len) != 0;
}

}  // namespace

Core::Core() {
    rvn_pid = getpid();
}

Core::~Core() {
    teardown();
}

const char *Core::intern(const std::string &s) {
    std::lock_guard lk(names_mu);
    return interned.insert(s).first->c_str();
}

const char *Core::client_name(uint32_t ext_id) {
    std::lock_guard lk(names_mu);
    auto it = client_names.find(ext_id);
    return it != client_names.end() ? it->second : nullptr;
}

// ---- contexts ------------------------------------------------------------------

evfw_context *Core::make_context_locked(evfw_context::Kind kind, uint32_t id, uint32_t ext_id,
                                        const char *name) {
    auto c = std::make_unique<evfw_context>();
    c->kind = kind;
    c->id = id;
    c->ext_id = ext_id;
    c->chnl = next_chnl++;
    c->name = name;
    evfw_context *p = c.get();
    contexts[id] = std::move(c);
    if (id < kDirectIds) direct_[id] = p;
    live_ctx.insert(p);
    return p;
}

void Core::start_worker_locked(evfw_context *c) {
    if (c->has_worker || c->stop) return;
    c->has_worker = true;
    c->worker = std::thread(&Core::worker_loop, this, c);
}

void Core::worker_loop(evfw_context *c) {
    std::unique_lock lk(mu);
    for (;;) {
        c->cv.wait(lk, [c] { return c->stop || !c->q.empty(); });
        if (c->stop) break;
        Item item = c->q.front();
        c->q.pop_front();
        c->busy = true;
        Delivery d = prepare_locked(item);
        lk.unlock();
        run(d);
        lk.lock();
        c->busy = false;
        changed_cv.notify_all();
    }
}

// Stops and joins the context's thread; events still queued for it are
// freed.  Afterwards sends to it are discarded at once.
void Core::stop_worker(evfw_context *c) {
    ItemQueue left;
    {
        std::lock_guard lk(mu);
        c->stop = true;
        c->cv.notify_all();
    }
    if (c->worker.joinable() && c->worker.get_id() != std::this_thread::get_id()) {
        c->worker.join();
    }
    {
        std::lock_guard lk(mu);
        if (!c->worker.joinable()) c->has_worker = false;
        left.swap(c->q);
        changed_cv.notify_all();
    }
    for (const Item &i : left) evfw_event_free(i.ev);
}

std::unique_ptr<evfw_context> Core::remove_context_locked(uint32_t id) {
    auto it = contexts.find(id);
    if (it == contexts.end()) return nullptr;
    std::unique_ptr<evfw_context> c = std::move(it->second);
    contexts.erase(it);
    if (id < kDirectIds) direct_[id] = nullptr;
    live_ctx.erase(c.get());
    live_hint_[0] = live_hint_[1] = nullptr;
    // Deterministic mode: what is still queued for it can no longer arrive.
    fifo.remove_if([id](const Item &item) {
        if (item.to != id) return false;
        evfw_event_free(item.ev);
        return true;
    });
    return c;
}

void Core::retire(std::unique_ptr<evfw_context> c) {
    if (c == nullptr) return;
    if (c->worker.joinable() && c->worker.get_id() == std::this_thread::get_id()) {
        // A task that exits from its own handler: its thread ends after the
        // handler returns and is joined later.
        std::lock_guard lk(mu);
        c->stop = true;
        graveyard.push_back(std::move(c));
        return;
    }
    stop_worker(c.get());
}

void Core::reap_graveyard() {
    std::vector<std::unique_ptr<evfw_context>> dead;
    {
        std::lock_guard lk(mu);
        dead.swap(graveyard);
    }
    for (auto &c : dead) stop_worker(c.get());
}

void Core::join_threads() {
    std::vector<StartedThread> ts;
    {
        std::lock_guard lk(mu);
        ts.swap(threads);
    }
    for (StartedThread &t : ts) {
        {
            std::unique_lock lk(mu);
            if (!changed_cv.wait_for(lk, wait_limit(), [&] { return t.done->load(); })) {
                diag("a thread started with evfw_thrd_start is still running after %lld ms; "
                     "waiting for it to return",
                     static_cast<long long>(wait_limit().count()));
            }
        }
        t.th.join();
    }
}

Peer &Core::add_task(uint32_t task_id) {
    std::lock_guard lk(mu);
    if (task_id >= EVFW_EXT_ID_BASE) {
        throw std::invalid_argument("add_task: " + std::to_string(task_id) +
                                    " is an external id, not a task id");
    }
    auto it = contexts.find(task_id);
    if (it != contexts.end()) {
        if (it->second->peer != nullptr) return *it->second->peer;
        throw std::logic_error("add_task: task " + std::to_string(task_id) +
                               " is served by an entity");
    }
    evfw_context *c = make_context_locked(evfw_context::Kind::Peer, task_id, 0, task_name(task_id));
    peers.push_back(std::make_unique<PeerImpl>(c, c->name));
    c->peer = peers.back().get();
    return *c->peer;
}

Peer &Core::add_client(const std::string &name) {
    std::lock_guard lk(mu);
    const uint32_t id = next_ext++;
    const char *n = intern(name);
    {
        std::lock_guard nl(names_mu);
        client_names[id] = n;
    }
    evfw_context *c = make_context_locked(evfw_context::Kind::Peer, id, id, n);
    peers.push_back(std::make_unique<PeerImpl>(c, name));
    c->peer = peers.back().get();
    return *c->peer;
}

Peer *Core::peer(uint32_t id) {
    std::lock_guard lk(mu);
    auto it = contexts.find(id);
    return it != contexts.end() ? it->second->peer : nullptr;
}

void Core::set_peer_handler(evfw_context *c, PeerHandler handler) {
    std::lock_guard lk(mu);
    c->peer_hdl = handler ? std::make_shared<PeerHandler>(std::move(handler)) : nullptr;
    if (threaded() && c->peer_hdl != nullptr && live_ctx.count(c) != 0) start_worker_locked(c);
}

// ---- sending ----------------------------------------------------------------------

void Core::trace_send_locked(uint32_t from, uint32_t to, const evfw_event *ev, bool dropped) {
    if (!trace_on.load(std::memory_order_relaxed)) return;
    TraceEntry e;
    e.from = from;
    e.to = to;
    e.event_id = ev->id;
    e.ext_id = ev->ext_id;
    e.chnl = ev->chnl;
    e.len = ev->len;
    if (trace_data && ev->len != 0) e.data.assign(ev->buf, ev->buf + ev->len);
    e.dropped = dropped;
    std::lock_guard lk(trace_mu);
    e.seq = next_seq++;
    note_trace_seq(e.seq);
    trace_.push_back(std::move(e));
}

void Core::post_traced_locked(evfw_context *c, uint32_t from, evfw_event *ev, uint32_t to) {
    if (c == nullptr) {
        trace_send_locked(from, to, ev, true);
        evfw_event_free(ev);
        return;
    }
    trace_send_locked(from, to, ev, false);
    if (!threaded()) {
        fifo.push_back(Item{from, to, ev});
        return;
    }
    if (!c->has_worker || c->stop) {
        // A peer without handler (or a task being stopped): nothing runs.
        evfw_event_free(ev);
        return;
    }
    for (Waiter *w : waiters) {
        if (w->task == to && !w->matched && accepts(w->cond, ev, w->arg, w->arg_len)) {
            w->matched = true;
            changed_cv.notify_all();
        }
    }
    c->q.push_back(Item{from, to, ev});
    c->cv.notify_one();
}

namespace {

// The refusals of a send, apart from its common path.
__attribute__((noinline, cold)) int refuse_send(const char *why, const evfw_event *ev,
                                                uint32_t to) {
    if (event_is_live(ev)) {
        diag("send of event %u to %u %s; refused", ev->id, to, why);
    } else {
        diag("send of event %p to %u: the event is not live; refused",
             static_cast<const void *>(ev), to);
    }
    return -1;
}

}  // namespace

int Core::send(evfw_context *from, evfw_event *ev, uint32_t to) {
    if (from == nullptr || ev == nullptr) return -1;
    HotLock lk(*this);
    if (!known_live_locked(from)) return refuse_send("from a context that does not exist", ev, to);
    return send_locked(from, ev, to);
}

void Core::send_new_slow(evfw_context *from, evfw_event *ev, uint32_t to) {
    HotLock lk(*this);
    route_locked(from, ev);
    post_locked(from->id, ev, to);
}

int Core::send_locked(evfw_context *from, evfw_event *ev, uint32_t to) {
    if (!event_is_live(ev)) return refuse_send("", ev, to);
    route_locked(from, ev);
    post_locked(from->id, ev, to);
    return 0;
}

int Core::send_from_task_slow(evfw_task_t *from, evfw_event *ev, uint32_t to, const char *what) {
    if (from == nullptr || ev == nullptr) return -1;
    HotLock lk(*this);
    evfw_context *c = task_ctx_locked(from);
    if (c == nullptr) {
        diag("%s from task %u, which is not initialised (or has exited); refused", what,
             from->task_id);
        return -1;
    }
    return send_locked(c, ev, to);
}

int Core::bcast(evfw_task_t *from, evfw_event *ev) {
    if (from == nullptr || ev == nullptr) return -1;
    if (!event_is_live(ev)) {
        diag("broadcast of event %p: the event is not live; refused", static_cast<void *>(ev));
        return -1;
    }
    std::lock_guard lk(mu);
    evfw_context *c = task_ctx_locked(from);
    if (c == nullptr) {
        diag("evfw_task_bcast_ext_event from task %u, which is not initialised; refused",
             from->task_id);
        return -1;
    }
    route_locked(c, ev);
    std::vector<uint32_t> clients;
    for (auto &[id, ctx] : contexts) {
        if (ctx->ext_id != 0) clients.push_back(id);
    }
    if (clients.empty()) trace_send_locked(c->id, 0, ev, true);
    for (uint32_t to : clients) {
        evfw_event *copy = event_clone(ev);
        if (copy == nullptr) {
            diag("broadcast of event %u: out of memory for the copy to %u", ev->id, to);
            continue;
        }
        post_locked(c->id, copy, to);
    }
    evfw_event_free(ev);
    return 0;
}

// ---- delivery -------------------------------------------------------------------------

Delivery Core::prepare_locked(const Item &item) {
    Delivery d;
    d.item = item;
    evfw_context *c = find_ctx_locked(item.to);
    if (c == nullptr) return d;
    if (c->ctx_hdl != nullptr) {
        d.kind = Delivery::Kind::CtxHdl;
        d.ctx_hdl = c->ctx_hdl;
        d.ctx = c;
        d.entity = c->ctx_entity;
    } else if (c->hdl != nullptr) {
        d.kind = Delivery::Kind::TaskHdl;
        d.hdl = c->hdl;
        d.task = c->task;
        d.arg = c->hdl_arg;
    } else if (c->peer_hdl != nullptr) {
        d.kind = Delivery::Kind::Peer;
        d.peer_hdl = c->peer_hdl;
        d.peer = c->peer;
    }
    return d;
}

void Core::run(Delivery &d) {
    evfw_event *ev = d.item.ev;
    switch (d.kind) {
        case Delivery::Kind::TaskHdl:
            d.hdl(d.task, ev, d.arg);
            break;
        case Delivery::Kind::CtxHdl:
            // The entity's private state is read now: it is set during init.
            d.ctx_hdl(d.ctx, ev, d.entity != nullptr ? d.entity->priv : nullptr);
            break;
        case Delivery::Kind::Peer: {
            Received in;
            in.event = ev;
            in.event_id = ev->id;
            in.from = d.item.from;
            in.data = std::span<const uint8_t>(ev->buf, ev->len);
            try {
                (*d.peer_hdl)(*d.peer, in);
            } catch (const std::exception &e) {
                diag("handler of peer %s threw: %s", d.peer->name().c_str(), e.what());
            } catch (...) {
                diag("handler of peer %s threw", d.peer->name().c_str());
            }
            evfw_event_free(ev);
            break;
        }
        case Delivery::Kind::Discard:
            evfw_event_free(ev);
            break;
    }
    add_to(deliveries_, uint64_t{1}, !threaded());
}

bool Core::waiting_locked(uint32_t task_id) const {
    return std::find(waiting.begin(), waiting.end(), task_id) != waiting.end();
}

bool Core::pop_past_waiting_locked(Item &out) {
    for (size_t i = 0; i < fifo.size(); ++i) {
        if (!waiting_locked(fifo[i].to)) {
            out = fifo[i];
            fifo.erase(i);
            return true;
        }
    }
    return false;
}

size_t Core::pump() {
    if (threaded()) {
        const uint64_t before = deliveries_.load();
        wait_idle(wait_limit());
        return deliveries_.load() - before;
    }
    // One thread, no lock: each item goes straight to its receiver.
    size_t n = 0;
    for (Item item; pop_deliverable_locked(item); ++n) deliver_now(item);
    return n;
}

void Core::deliver_now(const Item &item) {
    evfw_event *ev = item.ev;
    evfw_context *c = find_ctx_locked(item.to);
    if (c == nullptr) {
        evfw_event_free(ev);
    } else if (c->ctx_hdl != nullptr) {
        c->ctx_hdl(c, ev, c->ctx_entity != nullptr ? c->ctx_entity->priv : nullptr);
    } else if (c->hdl != nullptr) {
        c->hdl(c->task, ev, c->hdl_arg);
    } else if (c->peer_hdl != nullptr) {
        deliver_to_peer(c, item);
        return;
    } else {
        evfw_event_free(ev);
    }
    add_to(deliveries_, uint64_t{1}, true);
}

void Core::deliver_to_peer(evfw_context *c, const Item &item) {
    Delivery d;  // holds the handler while it runs: it may replace itself
    d.kind = Delivery::Kind::Peer;
    d.item = item;
    d.peer_hdl = c->peer_hdl;
    d.peer = c->peer;
    run(d);
}

bool Core::wait_idle(std::chrono::milliseconds timeout) {
    std::unique_lock lk(mu);
    if (!threaded()) return fifo.empty();
    return changed_cv.wait_for(lk, timeout, [this] {
        for (auto &[id, c] : contexts) {
            if (c->busy || !c->q.empty()) return false;
        }
        return true;
    });
}

// ---- send and wait ----------------------------------------------------------------------

void Core::send_recv_timeout(uint32_t task_id, evfw_rx_cond_t cond, const void *arg, size_t arg_len,
                             const char *why) {
    ++timeouts_;
    char awaited[96] = "an event its condition accepts";
    if (cond == rx_cond_event_id && arg != nullptr && arg_len == sizeof(uint32_t)) {
        uint32_t id;
        memcpy(&id, arg, sizeof id);
        snprintf(awaited, sizeof awaited, "%s(%u)", event_get_name(id), id);
    }
    diag("evfw_task_send_recv_event: task %s(%u) waited for %s; %s (-ETIMEDOUT)",
         task_name(task_id), task_id, awaited, why);
}

int Core::send_recv(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                    const void *arg, size_t arg_len) {
    if (from == nullptr || ev == nullptr) return -1;
    return threaded() ? send_recv_threaded(from, ev, to, cond, arg, arg_len)
                      : send_recv_deterministic(from, ev, to, cond, arg, arg_len);
}

// Runs the queue on this thread until an event for the waiting task is
// accepted; events for waiting tasks are held back, in order, so that their
// handlers are not re-entered and receive them after the wait.
int Core::send_recv_deterministic(evfw_task_t *from, evfw_event *ev, uint32_t to,
                                  evfw_rx_cond_t cond, const void *arg, size_t arg_len) {
    const uint32_t self = from->task_id;
    int r = send_from_task(from, ev, to, "evfw_task_send_recv_event");
    if (r < 0) return r;
    {
        std::lock_guard lk(mu);
        waiting.push_back(self);
    }
    auto unwait = [this, self] {
        auto it = std::find(waiting.rbegin(), waiting.rend(), self);
        if (it != waiting.rend()) waiting.erase(std::next(it).base());
    };
    for (;;) {
        Delivery d;
        {
            std::lock_guard lk(mu);
            for (const Item &i : fifo) {
                if (i.to == self && accepts(cond, i.ev, arg, arg_len)) {
                    unwait();
                    return 0;
                }
            }
            Item item;
            if (!pop_deliverable_locked(item)) {
                unwait();
                break;
            }
            d = prepare_locked(item);
        }
        run(d);
    }
    send_recv_timeout(self, cond, arg, arg_len, "the queue ran dry without it");
    return -ETIMEDOUT;
}

int Core::send_recv_threaded(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                             const void *arg, size_t arg_len) {
    Waiter w;
    w.task = from->task_id;
    w.cond = cond;
    w.arg = arg;
    w.arg_len = arg_len;
    {
        // Registered before the send, so that a fast answer is not missed;
        // an accepted event already queued counts as well.
        std::lock_guard lk(mu);
        auto it = contexts.find(w.task);
        if (it != contexts.end()) {
            for (const Item &i : it->second->q) {
                if (accepts(cond, i.ev, arg, arg_len)) w.matched = true;
            }
        }
        waiters.push_back(&w);
    }
    int r = send_from_task(from, ev, to, "evfw_task_send_recv_event");
    std::unique_lock lk(mu);
    if (r >= 0) changed_cv.wait_for(lk, wait_limit(), [&w] { return w.matched; });
    waiters.erase(std::find(waiters.begin(), waiters.end(), &w));
    if (r < 0) return r;
    if (!w.matched) {
        lk.unlock();
        send_recv_timeout(w.task, cond, arg, arg_len, "gave up after the wait limit");
        return -ETIMEDOUT;
    }
    return 0;
}

// ---- threads and entity init ---------------------------------------------------------

int Core::thread_start(evfw_thrd_fn_t fn, void *arg) {
    if (fn == nullptr) return -1;
    std::lock_guard lk(mu);
    if (!threaded()) {
        pending_threads.push_back(PendingThread{fn, arg, tl_loading});
        return 0;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    StartedThread t;
    t.done = done;
    t.th = std::thread([this, fn, arg, done] {
        fn(arg);
        std::lock_guard l(mu);
        done->store(true);
        changed_cv.notify_all();
    });
    threads.push_back(std::move(t));
    return 0;
}

size_t Core::run_threads() {
    if (threaded()) {
        std::vector<StartedThread> finished;
        {
            std::lock_guard lk(mu);
            auto split =
                    std::stable_partition(threads.begin(), threads.end(),
                                          [](const StartedThread &t) { return !t.done->load(); });
            std::move(split, threads.end(), std::back_inserter(finished));
            threads.erase(split, threads.end());
        }
        for (StartedThread &t : finished) t.th.join();
        return 0;
    }
    std::vector<PendingThread> batch;
    {
        std::lock_guard lk(mu);
        batch.swap(pending_threads);
    }
    for (const PendingThread &t : batch) t.fn(t.arg);
    return batch.size();
}

int Core::wait_all_entity_init() {
    std::unique_lock lk(mu);
    if (loads_in_progress == 0) return 0;
    if (!threaded()) {
        diag("evfw_wait_all_entity_init called while an entity is in init, in deterministic "
             "mode: it would never return; returning -1");
        return -1;
    }
    if (tl_loading != nullptr) {
        diag("evfw_wait_all_entity_init called from inside the init of entity %s: it would "
             "wait for itself; returning -1",
             tl_loading->name.c_str());
        return -1;
    }
    if (!changed_cv.wait_for(lk, wait_limit(), [this] { return loads_in_progress == 0; })) {
        ++timeouts_;
        lk.unlock();
        diag("evfw_wait_all_entity_init: an entity is still in init after %lld ms; giving up",
             static_cast<long long>(wait_limit().count()));
        return -ETIMEDOUT;
    }
    return 0;
}

// ---- reset -------------------------------------------------------------------------------

// Stops every thread of the runtime, unloads the entities (their sends are
// discarded, no handler runs any more) and drops all contexts and queues.
void Core::teardown() {
    std::vector<evfw_context *> all;
    {
        std::lock_guard lk(mu);
        for (auto &[id, c] : contexts) all.push_back(c.get());
    }
    for (evfw_context *c : all) stop_worker(c);
    unload();
    std::vector<std::unique_ptr<evfw_context>> rest;
    ItemQueue queued;
    {
        std::lock_guard lk(mu);
        for (auto &[id, c] : contexts) rest.push_back(std::move(c));
        contexts.clear();
        direct_.fill(nullptr);
        live_ctx.clear();
        live_hint_[0] = live_hint_[1] = nullptr;
        queued.swap(fifo);
        waiting.clear();
        pending_threads.clear();
    }
    for (auto &c : rest) retire(std::move(c));
    reap_graveyard();
    join_threads();
    for (const Item &i : queued) evfw_event_free(i.ev);
    std::lock_guard lk(mu);
    peers.clear();
}

void Core::reset(Mode m) {
    teardown();
    {
        std::lock_guard lk(mu);
        mode = m;
        next_chnl = 1;
        next_ext = EVFW_EXT_ID_BASE;
        loads_in_progress = 0;
    }
    {
        std::lock_guard lk(names_mu);
        client_names.clear();
    }
    {
        std::lock_guard lk(rec_mu);
        calls_.clear();
        subs_.clear();
        urc_subs_.clear();
    }
    {
        std::lock_guard lk(trace_mu);
        trace_.clear();
        next_seq = 1;
    }
    {
        std::lock_guard lk(log_mu);
        logs_.clear();
        log_capture = true;
        log_echo = nullptr;
    }
    {
        std::lock_guard lk(prop_mu);
        props_.clear();
    }
    reset_diagnostics(true);
    reset_faults();
    wait_ms = 2000;
    set_trace(true);
    trace_data = true;
    deliveries_ = 0;
    bad_unlocks_ = 0;
    timeouts_ = 0;
    last_error.clear();
    event_store().set_single_threaded(m == Mode::Deterministic);
    event_store().new_generation(!keep_loaded());
    rvn_pid = getpid();
}

void Core::new_round() {
    ItemQueue dropped;
    {
        std::lock_guard lk(mu);
        std::swap(dropped, fifo);
        for (auto &[id, c] : contexts) {
            while (!c->q.empty()) {
                dropped.push_back(c->q.front());
                c->q.pop_front();
            }
        }
    }
    while (!dropped.empty()) {
        evfw_event_free(dropped.front().ev);
        dropped.pop_front();
    }
    clear_trace();
    clear_logs();
    {
        std::lock_guard lk(prop_mu);
        props_.clear();
    }
    reset_diagnostics(false);
    reset_faults();
    deliveries_ = 0;
    bad_unlocks_ = 0;
    timeouts_ = 0;
    event_store().new_generation(true);
}

// ---- records and trace -------------------------------------------------------------------

void Core::record_call(std::string call) {
    std::lock_guard lk(rec_mu);
    calls_.push_back(std::move(call));
}

void Core::record_subscription(const Subscription &s) {
    std::lock_guard lk(rec_mu);
    subs_.push_back(s);
    calls_.push_back("evfw_connmngr_common_subscribe(" + std::to_string(s.task_id) + "," +
                     std::to_string(s.event_id) + "," + std::to_string(s.mode) + ")");
}

void Core::record_urc_subscription(UrcSubscription s) {
    std::lock_guard lk(rec_mu);
    calls_.push_back("evfw_atmngr_subscribe_urc(" + std::to_string(s.task_id) + "," + s.prefix +
                     "," + std::to_string(s.event_id) + "," + std::to_string(s.mode) + ")");
    urc_subs_.push_back(std::move(s));
}

std::vector<Subscription> Core::subscriptions() const {
    std::lock_guard lk(rec_mu);
    return subs_;
}

std::vector<UrcSubscription> Core::urc_subscriptions() const {
    std::lock_guard lk(rec_mu);
    return urc_subs_;
}

std::vector<std::string> Core::calls() const {
    std::lock_guard lk(rec_mu);
    return calls_;
}

std::vector<TraceEntry> Core::trace() const {
    std::lock_guard lk(trace_mu);
    return trace_;
}

std::vector<TraceEntry> Core::trace_to(uint32_t to) const {
    std::vector<TraceEntry> out;
    std::lock_guard lk(trace_mu);
    for (const TraceEntry &e : trace_) {
        if (e.to == to && !e.dropped) out.push_back(e);
    }
    return out;
}

void Core::clear_trace() {
    std::lock_guard lk(trace_mu);
    trace_.clear();
}

}  // namespace evfw_host

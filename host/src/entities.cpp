// Entities and what they set up: tasks and handlers, and the threads they
// start.
#include "entities.h"

#include <dlfcn.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "record.h"
#include "router.h"

namespace evfw_host {

struct Entity {
    evfw_entity_t rec{};
    std::string name;
    EntityAbi abi;
    void *dl = nullptr;  // dlopen handle when loaded from a shared object
};

namespace {

// A routine started with evfw_thrd_start.
struct Started {
    evfw_thrd_fn_t fn = nullptr;
    void *arg = nullptr;
    Entity *starter = nullptr;  // the entity in whose init it was started
    std::thread th;             // threaded mode
    bool done = false;          // it has returned
};

struct Entities {
    std::vector<std::unique_ptr<Entity>> loaded;
    int loads_in_progress = 0;
    std::vector<std::unique_ptr<Started>> started;
    std::chrono::milliseconds linger{0};
    std::condition_variable changed;  // a load done, a routine returned
};

Entities &entities() {
    static Entities *e = new Entities;
    return *e;
}

// The entity whose init runs on this thread, if any.
thread_local Entity *tl_loading = nullptr;

bool keep_loaded() {
    const char *env = getenv("EVFW_HOST_KEEP_LOADED");
    return env != nullptr && strcmp(env, "1") == 0;
}

std::vector<evfw_context *> contexts_of(const Guard &g, const Entity *owner) {
    std::vector<evfw_context *> out = contexts(g);
    std::erase_if(out, [owner](const evfw_context *c) { return c->owner != owner; });
    return out;
}

int set_handler(evfw_task_t *task, evfw_task_hdl_t hdl, void *arg) {
    if (task == nullptr) return -1;
    Guard g = lock();
    record_call(g, "set_hdl(" + std::to_string(task->task_id) + ")");
    evfw_context *c = task_context(g, task, "set_hdl");
    if (c == nullptr) return -1;
    c->handler = std::make_shared<const Handler>(
            [task, hdl, arg](evfw_context *, evfw_event *ev, uint32_t) { hdl(task, ev, arg); });
    return 0;
}

// Drops the routines that deterministic mode has not run yet, of `starter`
// or of everyone.
void drop_unrun(const Guard &, const Entity *starter) {
    std::erase_if(entities().started, [starter](const auto &t) {
        return !t->done && !t->th.joinable() && (starter == nullptr || t->starter == starter);
    });
}

}  // namespace

int init_task(evfw_task_t *task, uint32_t entity_id, uint32_t task_id) {
    Guard g = lock();
    record_call(
            g, "evfw_task_init(" + std::to_string(entity_id) + "," + std::to_string(task_id) + ")");
    if (task == nullptr) return -1;
    if (task_id >= EVFW_EXT_ID_BASE || find_context(g, task_id) != nullptr) {
        diag(g, "evfw_task_init(%u,%u): the task id is %s; refused", entity_id, task_id,
             task_id >= EVFW_EXT_ID_BASE ? "in the external id range" : "already in use");
        return -1;
    }
    // The task belongs to the entity whose init runs on this thread: its
    // unload exits it.
    evfw_context *c = add_context(g, task_id, task_name(task_id), tl_loading);
    c->task = task;
    task->ctx = c;
    task->task_id = task_id;
    task->set_hdl = set_handler;
    task->fw = c;
    return 0;
}

int exit_task(evfw_task_t *task) {
    if (task == nullptr) return -1;
    evfw_context *c = nullptr;
    {
        Guard g = lock();
        record_call(g, "evfw_task_exit(" + std::to_string(task->task_id) + ")");
        if ((c = task_context(g, task, "evfw_task_exit")) == nullptr) return -1;
    }
    remove_context(c);
    task->ctx = nullptr;
    task->fw = nullptr;
    return 0;
}

int start_thread(evfw_thrd_fn_t fn, void *arg) {
    if (fn == nullptr) return -1;
    Guard g = lock();
    record_call(g, "evfw_thrd_start");
    Entities &e = entities();
    Started &t = *e.started.emplace_back(new Started{fn, arg, tl_loading, {}, false});
    if (routing_mode(g) == Mode::Threaded) {
        t.th = std::thread([&t, linger = e.linger] {
            t.fn(t.arg);
            std::this_thread::sleep_for(linger);
            Guard returned = lock();
            t.done = true;
            entities().changed.notify_all();
        });
    }
    return 0;
}

int wait_all_entity_init() {
    Guard g = lock();
    Entities &e = entities();
    if (e.loads_in_progress == 0) return 0;
    if (routing_mode(g) == Mode::Deterministic || tl_loading != nullptr) {
        diag(g, "evfw_wait_all_entity_init called %s: it would never return; returning -1",
             tl_loading != nullptr ? "from inside an entity's init"
                                   : "while an entity is in init, in deterministic mode");
        return -1;
    }
    if (!e.changed.wait_for(g, wait_limit(g), [&e] { return e.loads_in_progress == 0; })) {
        note_timeout(g);
        diag(g, "evfw_wait_all_entity_init: an entity is still in init after %lld ms; giving up",
             static_cast<long long>(wait_limit(g).count()));
        return -ETIMEDOUT;
    }
    return 0;
}

void unload_entities() {
    std::vector<std::unique_ptr<Entity>> ents;
    std::vector<evfw_context *> tasks;
    {
        Guard g = lock();
        ents.swap(entities().loaded);
        drop_unrun(g, nullptr);
        tasks = contexts(g);
        std::erase_if(tasks, [](const evfw_context *c) { return c->owner == nullptr; });
    }
    // No handler of an entity runs while an entity tears its state down;
    // what the exits send to peers is still delivered.
    for (evfw_context *c : tasks) stop_context(c);
    for (auto e = ents.rbegin(); e != ents.rend(); ++e) {
        if ((*e)->abi.exit != nullptr) (*e)->abi.exit(&(*e)->rec);
    }
    for (evfw_context *c : tasks) remove_context(c);
    // Threads the entities started end with their exit; their code lives in
    // the shared objects, which close only after.
    const std::chrono::milliseconds limit = wait_limit(lock());
    while (!Runtime::instance().wait_threads(limit)) {
    }
    for (auto e = ents.rbegin(); e != ents.rend(); ++e) {
        if ((*e)->dl != nullptr) dlclose((*e)->dl);
    }
}

void reset_entities(const Guard &) {
    entities().loads_in_progress = 0;
    entities().linger = std::chrono::milliseconds(0);
}

bool reclaim_on_reset() {
    return !keep_loaded();
}

evfw_entity_t *Runtime::load(const std::string &name, const EntityAbi &abi) {
    return load_entity(name, abi, nullptr);
}

evfw_entity_t *Runtime::load_entity(const std::string &name, const EntityAbi &abi, void *dl) {
    if (abi.init == nullptr) {
        last_error_ = "entity " + name + " has no init function";
        return nullptr;
    }
    Entities &all = entities();
    Entity *e = nullptr;
    {
        Guard g = lock();
        e = all.loaded.emplace_back(std::make_unique<Entity>(Entity{{}, name, abi, dl})).get();
        e->rec.name = e->name.c_str();
        ++all.loads_in_progress;
    }
    Entity *outer = std::exchange(tl_loading, e);
    const bool ok = abi.init(&e->rec) != nullptr;
    tl_loading = outer;

    Guard g = lock();
    // The framework's handlers are in place before the load counts as done,
    // so that a thread released by evfw_wait_all_entity_init finds them.
    for (const auto &[task_id, ctx_hdl] : abi.ctx_handlers) {
        if (!ok) break;
        evfw_context *c = find_context(g, task_id);
        if (c == nullptr) {  // the framework makes the task the entity did not
            c = add_context(g, task_id, task_name(task_id), e);
        }
        if (c->peer != nullptr) {
            diag(g, "entity %s: handler for task %u not installed: a peer serves that id",
                 name.c_str(), task_id);
            continue;
        }
        c->handler = std::make_shared<const Handler>(
                // The entity's private state is read at delivery: its init sets it.
                [hdl = ctx_hdl, rec = &e->rec](evfw_context *self, evfw_event *ev, uint32_t) {
                    hdl(self, ev, rec->priv);
                });
    }
    --all.loads_in_progress;
    all.changed.notify_all();
    if (ok) return &e->rec;

    // The entity gave up: its tasks and routines go with it.
    drop_unrun(g, e);
    const std::vector<evfw_context *> dropped = contexts_of(g, e);
    auto it = std::find_if(all.loaded.begin(), all.loaded.end(),
                           [e](const auto &p) { return p.get() == e; });
    const std::unique_ptr<Entity> failed = std::move(*it);
    all.loaded.erase(it);
    g.unlock();
    for (evfw_context *c : dropped) remove_context(c);
    last_error_ = "init of entity " + name + " failed (returned NULL)";
    return nullptr;
}

evfw_entity_t *Runtime::load_library(
        const std::string &path, const std::string &name, const std::string &init_sym,
        const std::string &exit_sym,
        const std::vector<std::pair<uint32_t, std::string>> &ctx_syms) {
    dlerror();
    void *dl = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | (keep_loaded() ? RTLD_NODELETE : 0));
    if (dl == nullptr) {
        const char *why = dlerror();
        last_error_ = "dlopen " + path + ": " + (why != nullptr ? why : "failed");
        return nullptr;
    }
    bool ok = true;
    auto resolve = [&](const std::string &sym) {
        void *p = ok ? dlsym(dl, sym.c_str()) : nullptr;
        if (ok && p == nullptr) last_error_ = path + ": symbol " + sym + " not found";
        ok = ok && p != nullptr;
        return p;
    };
    EntityAbi abi;
    abi.init = reinterpret_cast<evfw_entity_t *(*)(evfw_entity_t *)>(resolve(init_sym));
    if (!exit_sym.empty()) {
        abi.exit = reinterpret_cast<evfw_entity_t *(*)(evfw_entity_t *)>(resolve(exit_sym));
    }
    for (const auto &[task_id, sym] : ctx_syms) {
        abi.ctx_handlers.emplace_back(task_id, reinterpret_cast<evfw_ctx_hdl_t>(resolve(sym)));
    }
    evfw_entity_t *e = ok ? load_entity(name, abi, dl) : nullptr;
    if (e == nullptr) dlclose(dl);
    return e;
}

void Runtime::unload() {
    unload_entities();
}

bool Runtime::wait_threads(std::chrono::milliseconds timeout) {
    Guard g = lock();
    Entities &e = entities();
    // Deterministic mode runs each routine here, in start order, and those
    // they start.
    for (size_t i = 0; i < e.started.size(); ++i) {
        Started &t = *e.started[i];
        if (t.done || t.th.joinable()) continue;
        t.done = true;
        g.unlock();
        t.fn(t.arg);
        g.lock();
    }
    if (!e.changed.wait_for(g, timeout, [&e] {
            return std::all_of(e.started.begin(), e.started.end(),
                               [](const auto &t) { return t->done; });
        })) {
        diag(g, "a thread started with evfw_thrd_start is still running after %lld ms",
             static_cast<long long>(timeout.count()));
        return false;
    }
    std::vector<std::unique_ptr<Started>> returned;
    returned.swap(e.started);
    g.unlock();
    for (auto &t : returned) {
        if (t->th.joinable()) t->th.join();
    }
    return true;
}

void Runtime::set_thread_linger(std::chrono::milliseconds linger) {
    Guard g = lock();
    entities().linger = linger;
}

}  // namespace evfw_host

// Entities and their tasks: loading (linked or from a shared object), task
// contexts, handlers, unloading.
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace evfw_host {

thread_local Entity *tl_loading = nullptr;

namespace {

int host_set_hdl(evfw_task_t *task, evfw_task_hdl_t hdl, void *arg) {
    return core().set_hdl(task, hdl, arg);
}

}  // namespace

bool keep_loaded() {
    const char *env = getenv("EVFW_HOST_KEEP_LOADED");
    return env != nullptr && strcmp(env, "1") == 0;
}

// The entity a new task belongs to: the one whose init runs on this thread,
// else the loaded entity that calls itself entity_id.
Entity *Core::owner_for_locked(uint32_t entity_id) {
    if (tl_loading != nullptr) return tl_loading;
    for (auto it = entities.rbegin(); it != entities.rend(); ++it) {
        if ((*it)->rec.id == entity_id) return it->get();
    }
    return nullptr;
}

int Core::task_init(evfw_task_t *task, uint32_t entity_id, uint32_t task_id) {
    record_call("evfw_task_init(" + std::to_string(entity_id) + "," + std::to_string(task_id) +
                ")");
    if (task == nullptr) return -1;
    std::lock_guard lk(mu);
    if (task_id >= EVFW_EXT_ID_BASE || contexts.count(task_id) != 0) {
        diag("evfw_task_init(%u,%u): the task id is %s; refused", entity_id, task_id,
             task_id >= EVFW_EXT_ID_BASE ? "in the external id range" : "already in use");
        return -1;
    }
    evfw_context *c = make_context_locked(evfw_context::Kind::Task, task_id, 0, task_name(task_id));
    c->task = task;
    c->owner = owner_for_locked(entity_id);
    task->ctx = c;
    task->task_id = task_id;
    task->set_hdl = host_set_hdl;
    task->fw = c;
    // In threaded mode every entity task runs on its own thread from the
    // start, so a send-and-wait of the task always has a queue to watch.
    if (threaded()) start_worker_locked(c);
    return 0;
}

int Core::task_exit(evfw_task_t *task) {
    if (task == nullptr) return -1;
    record_call("evfw_task_exit(" + std::to_string(task->task_id) + ")");
    std::unique_ptr<evfw_context> c;
    {
        std::lock_guard lk(mu);
        evfw_context *ctx = task_ctx_locked(task);
        if (ctx == nullptr) {
            diag("evfw_task_exit(%u): the task is not initialised (exited before?); ignored",
                 task->task_id);
            return -1;
        }
        c = remove_context_locked(ctx->id);
    }
    retire(std::move(c));
    task->ctx = nullptr;
    task->fw = nullptr;
    return 0;
}

int Core::set_hdl(evfw_task_t *task, evfw_task_hdl_t hdl, void *arg) {
    if (task == nullptr) return -1;
    record_call("set_hdl(" + std::to_string(task->task_id) + ")");
    std::lock_guard lk(mu);
    evfw_context *c = task_ctx_locked(task);
    if (c == nullptr) {
        diag("set_hdl on task %u, which is not initialised; refused", task->task_id);
        return -1;
    }
    c->hdl = hdl;
    c->hdl_arg = arg;
    return 0;
}

evfw_entity_t *Core::load(const std::string &name, const EntityAbi &abi, void *dl) {
    if (abi.init == nullptr) {
        last_error = "entity " + name + " has no init function";
        return nullptr;
    }
    auto owned = std::make_unique<Entity>();
    Entity *e = owned.get();
    e->name = name;
    e->rec.name = e->name.c_str();
    e->abi = abi;
    e->dl = dl;
    {
        std::lock_guard lk(mu);
        entities.push_back(std::move(owned));
        ++loads_in_progress;
    }
    Entity *outer = tl_loading;
    tl_loading = e;
    evfw_entity_t *res = abi.init(&e->rec);
    tl_loading = outer;

    // The framework's handlers are in place before the load counts as done,
    // so that a thread released by evfw_wait_all_entity_init finds them.
    std::vector<std::unique_ptr<evfw_context>> dropped;
    std::unique_ptr<Entity> failed;
    {
        std::lock_guard lk(mu);
        --loads_in_progress;
        changed_cv.notify_all();
        if (res == nullptr) {
            // The entity gave up; whatever tasks and pending thread routines
            // it created go with it.
            for (auto it = contexts.begin(); it != contexts.end();) {
                auto next = std::next(it);
                if (it->second->owner == e) dropped.push_back(remove_context_locked(it->first));
                it = next;
            }
            std::erase_if(pending_threads, [e](const PendingThread &t) { return t.starter == e; });
            for (auto it = entities.begin(); it != entities.end(); ++it) {
                if (it->get() == e) {
                    failed = std::move(*it);
                    entities.erase(it);
                    break;
                }
            }
        } else {
            for (const auto &[task_id, hdl] : abi.ctx_handlers) {
                auto it = contexts.find(task_id);
                evfw_context *c = nullptr;
                if (it == contexts.end()) {
                    // The framework creates the auxiliary task the entity did not.
                    c = make_context_locked(evfw_context::Kind::Aux, task_id, 0,
                                            task_name(task_id));
                    c->owner = e;
                    if (threaded()) start_worker_locked(c);
                } else if (it->second->peer != nullptr) {
                    diag("entity %s: handler for task %u not installed: a peer serves that id",
                         name.c_str(), task_id);
                    continue;
                } else {
                    c = it->second.get();
                }
                c->ctx_hdl = hdl;
                c->ctx_entity = &e->rec;
            }
        }
    }
    for (auto &c : dropped) retire(std::move(c));
    if (res == nullptr) {
        last_error = "init of entity " + name + " failed (returned NULL)";
        return nullptr;
    }
    return &e->rec;
}

evfw_entity_t *Core::load_library(const std::string &path, const std::string &name,
                                  const std::string &init_sym, const std::string &exit_sym,
                                  const std::vector<std::pair<uint32_t, std::string>> &ctx_syms) {
    dlerror();
    void *dl = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | (keep_loaded() ? RTLD_NODELETE : 0));
    if (dl == nullptr) {
        const char *why = dlerror();
        last_error = "dlopen " + path + ": " + (why != nullptr ? why : "failed");
        return nullptr;
    }
    auto resolve = [&](const std::string &sym) -> void * {
        void *p = dlsym(dl, sym.c_str());
        if (p == nullptr) last_error = path + ": symbol " + sym + " not found";
        return p;
    };
    EntityAbi abi;
    bool ok = true;
    if (void *p = resolve(init_sym)) {
        abi.init = reinterpret_cast<evfw_entity_t *(*)(evfw_entity_t *)>(p);
    } else {
        ok = false;
    }
    if (ok && !exit_sym.empty()) {
        if (void *p = resolve(exit_sym)) {
            abi.exit = reinterpret_cast<evfw_entity_t *(*)(evfw_entity_t *)>(p);
        } else {
            ok = false;
        }
    }
    for (size_t i = 0; ok && i < ctx_syms.size(); ++i) {
        if (void *p = resolve(ctx_syms[i].second)) {
            abi.ctx_handlers.emplace_back(ctx_syms[i].first, reinterpret_cast<evfw_ctx_hdl_t>(p));
        } else {
            ok = false;
        }
    }
    evfw_entity_t *e = ok ? load(name, abi, dl) : nullptr;
    if (e == nullptr) dlclose(dl);
    return e;
}

// Exits every entity, newest first.  The entities' task threads are stopped
// before the first exit, so that no handler runs while an entity tears its
// state down; what the exits send to peers is still delivered.
void Core::unload() {
    std::vector<std::unique_ptr<Entity>> ents;
    std::vector<evfw_context *> owned;
    {
        std::lock_guard lk(mu);
        ents.swap(entities);
        pending_threads.clear();
        for (auto &[id, c] : contexts) {
            if (c->owner != nullptr) owned.push_back(c.get());
        }
    }
    for (evfw_context *c : owned) stop_worker(c);
    for (auto e = ents.rbegin(); e != ents.rend(); ++e) {
        if ((*e)->abi.exit != nullptr) (*e)->abi.exit(&(*e)->rec);
        std::vector<std::unique_ptr<evfw_context>> rest;
        {
            std::lock_guard lk(mu);
            for (auto it = contexts.begin(); it != contexts.end();) {
                auto next = std::next(it);
                if (it->second->owner == e->get()) rest.push_back(remove_context_locked(it->first));
                it = next;
            }
        }
        for (auto &c : rest) retire(std::move(c));
    }
    // Threads the entities started end with their exit; their code lives in
    // the shared objects, which close only after.
    join_threads();
    reap_graveyard();
    for (auto e = ents.rbegin(); e != ents.rend(); ++e) {
        if ((*e)->dl != nullptr) dlclose((*e)->dl);
    }
}

}  // namespace evfw_host

// Peers: the simulated tasks and external clients that tests and tools play
// around an entity.  A peer's sends take the same path as an entity's.
#include <stdexcept>

#include "record.h"
#include "router.h"

namespace evfw_host {

namespace {

Peer &add_peer(const Guard &g, uint32_t id, std::string name) {
    evfw_context *c = add_context(g, id, std::move(name));
    c->peer = std::make_unique<Peer>(c);
    return *c->peer;
}

int send_new(evfw_context *from, const evfw_event *source, uint32_t to, uint32_t event_id,
             const void *data, size_t len) {
    Guard g = lock();
    evfw_event *ev = new_event(g, source);
    if (ev == nullptr) return -1;
    ev->id = event_id;
    if (event_set_data(ev, 0, data, len) == nullptr || send(g, from, ev, to) < 0) {
        free_event(g, ev);
        return -1;
    }
    return 0;
}

}  // namespace

uint32_t Peer::id() const {
    return ctx_->id;
}

const std::string &Peer::name() const {
    return ctx_->name;
}

void Peer::on_receive(PeerHandler handler) {
    Guard g = lock();
    ctx_->handler = nullptr;
    if (!handler) return;
    // The runtime frees the event once the peer's handler returns.
    ctx_->handler = std::make_shared<const Handler>(
            [this, fn = std::move(handler)](evfw_context *, evfw_event *ev, uint32_t from) {
                try {
                    fn(*this, Received{ev, ev->id, from, ev->chnl, ev->data});
                } catch (const std::exception &e) {
                    diag(lock(), "handler of peer %s threw: %s", name().c_str(), e.what());
                }
                free_event(lock(), ev);
            });
}

int Peer::send(uint32_t to, uint32_t event_id, const void *data, size_t len) {
    return send_new(ctx_, nullptr, to, event_id, data, len);
}

int Peer::reply(const evfw_event_t *request, uint32_t to, uint32_t event_id, const void *data,
                size_t len) {
    return send_new(ctx_, request, to, event_id, data, len);
}

Peer &Runtime::add_task(uint32_t task_id) {
    if (task_id >= EVFW_EXT_ID_BASE) {
        throw std::invalid_argument("add_task: " + std::to_string(task_id) +
                                    " is an external id, not a task id");
    }
    Guard g = lock();
    if (evfw_context *c = find_context(g, task_id); c != nullptr) {
        if (c->peer != nullptr) return *c->peer;
        throw std::logic_error("add_task: task " + std::to_string(task_id) +
                               " is served by an entity");
    }
    return add_peer(g, task_id, task_name(task_id));
}

Peer &Runtime::add_client(const std::string &name) {
    return add_peer(lock(), 0, name);
}

Peer *Runtime::peer(uint32_t id) {
    Guard g = lock();
    evfw_context *c = find_context(g, id);
    return c != nullptr ? c->peer.get() : nullptr;
}

}  // namespace evfw_host

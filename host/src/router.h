// Contexts and routing: who serves which id, how a send reaches its
// receiver, and how the receiver's handler runs.
//
// A context serves one id: an entity's task (evfw_task_init), a task the
// framework made for a handler it installs (EntityAbi::ctx_handlers), or a
// peer.  Every send ends in one routine, which traces it and appends it to
// the one queue.  Deterministic mode works the queue off in pump(), on the
// caller's thread; threaded mode gives each context a thread that takes
// what is addressed to it, in order.  A handler always runs without the lock.
#ifndef EVFW_HOST_ROUTER_H
#define EVFW_HOST_ROUTER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "events.h"
#include "evfw_host/runtime.h"

namespace evfw_host {

struct Entity;

// What runs for an event delivered to a context; it owns the event.
using Handler = std::function<void(evfw_context *self, evfw_event *ev, uint32_t from)>;

}  // namespace evfw_host

struct evfw_context {
    uint32_t id = 0;
    uint32_t chnl = 0;
    uint32_t ext_id = 0;  // its own id for an external client, else 0
    std::string name;
    evfw_host::Entity *owner = nullptr;     // the entity whose task this is
    evfw_task_t *task = nullptr;            // the entity's task object, when it is one
    std::unique_ptr<evfw_host::Peer> peer;  // the peer, when it is one
    // Copied under the lock and run without it, so that a handler may
    // replace itself meanwhile.  None: what the context gets is freed.
    std::shared_ptr<const evfw_host::Handler> handler;
    bool stop = false;   // it takes nothing more: what is sent to it is freed
    bool gone = false;   // out of service: sends from it are refused
    bool busy = false;   // its handler runs
    std::thread worker;  // threaded mode
};

namespace evfw_host {

// The framework's name of a task id; never nullptr.
const char *task_name(uint32_t task_id);

Mode routing_mode(const Guard &);
std::chrono::milliseconds wait_limit(const Guard &);
evfw_context *find_context(const Guard &, uint32_t id);  // nullptr: no context serves `id`
std::vector<evfw_context *> contexts(const Guard &);     // every one in service
// A new context for `id`, or for the next external id when `id` is 0;
// threaded, its thread starts at once.
evfw_context *add_context(const Guard &, uint32_t id, std::string name, Entity *owner = nullptr);
// It takes nothing more: what is queued for it is freed and its thread
// stops (unless this is that thread: then it ends once its handler returns).
void stop_context(evfw_context *c);
// Also takes `c` out of service: sends from it are refused.  Its memory
// stays until the reset, so that a stale pointer still reads as a context
// that is gone.
void remove_context(evfw_context *c);
// The context of an entity's live task, or nullptr after a diagnostic that
// names `what`, the framework call.
evfw_context *task_context(const Guard &, const evfw_task_t *task, const char *what);

// The sends: -1, with a diagnostic, for an event that is not live or a
// sender that is gone (the event stays the caller's); an event for an id
// that no context serves is taken and freed.
int send(const Guard &, evfw_context *from, evfw_event *ev, uint32_t to);
int broadcast(const Guard &, evfw_context *from, evfw_event *ev);  // a copy to each client
int send_and_wait(Guard &, evfw_context *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                  const void *arg, size_t arg_len);

// Stops every thread, unloads the entities, drops every context and queued
// event; then `mode` applies.
void reset_routing(Mode mode);
// Frees the queued events; contexts and peers stay.
void drop_queued();

}  // namespace evfw_host

#endif  // EVFW_HOST_ROUTER_H

// Contexts and routing: who serves which id, how a send reaches its
// receiver, and how the receiver's handler runs.
//
// A context serves one id: an entity's task (evfw_task_init), a task the
// framework made for a handler it installs (EntityAbi::ctx_handlers), or a
// peer.  Every send ends in one routine, which traces it and queues it for
// its receiver: in the one queue pump() works off (deterministic mode), or
// in the receiver's own queue, which the receiver's thread works off
// (threaded mode).  A handler always runs without the lock.
#ifndef EVFW_HOST_ROUTER_H
#define EVFW_HOST_ROUTER_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "events.h"
#include "evfw_host/runtime.h"

namespace evfw_host {

struct Entity;

// One send on its way to its receiver.
struct Item {
    uint32_t from = 0;
    uint32_t to = 0;
    evfw_event *ev = nullptr;
};

// What runs for an event delivered to a context: copied out under the lock
// and run without it, so that a handler may replace itself meanwhile.
struct Handlers {
    evfw_task_hdl_t task_hdl = nullptr;  // an entity's task: it owns the event
    evfw_task_t *task = nullptr;
    void *task_arg = nullptr;
    evfw_ctx_hdl_t ctx_hdl = nullptr;  // installed by the framework: it owns the event
    evfw_entity_t *entity = nullptr;
    std::shared_ptr<PeerHandler> peer_hdl;  // a peer: the runtime frees the event after it
    Peer *peer = nullptr;
};

}  // namespace evfw_host

struct evfw_context {
    enum class Kind { Task, Aux, Peer };

    Kind kind = Kind::Task;
    uint32_t id = 0;
    uint32_t chnl = 0;
    uint32_t ext_id = 0;  // its own id for an external client, else 0
    std::string name;
    evfw_host::Entity *owner = nullptr;  // the entity whose task this is
    bool gone = false;                   // out of service: sends from it are refused
    evfw_host::Handlers handlers;
    // Threaded mode: the context's own queue and thread.
    std::deque<evfw_host::Item> inbox;
    std::thread worker;
    std::condition_variable wake;
    bool stop = false;  // what is sent to it is freed at once
    bool busy = false;  // its handler runs
};

namespace evfw_host {

// The framework's name of a task id; never nullptr.
const char *task_name(uint32_t task_id);

Mode routing_mode(const Guard &);
std::chrono::milliseconds wait_limit(const Guard &);
evfw_context *find_context(const Guard &, uint32_t id);  // nullptr: no context serves `id`
std::vector<uint32_t> context_ids(const Guard &);
// A new context for `id`; threaded, its thread starts at once.
evfw_context *add_context(const Guard &, evfw_context::Kind kind, uint32_t id, uint32_t ext_id,
                          std::string name, Entity *owner = nullptr);
// Takes `c` out of service: its thread stops (unless this is that thread:
// then it ends once its handler returns), what is queued for it is freed,
// and sends from it are refused.  Its memory stays until the reset, so that
// a stale pointer still reads as a context that is gone.
void remove_context(evfw_context *c);
// Stops the context's thread; what is queued for it, or sent to it from
// now on, is freed.
void stop_worker(evfw_context *c);
// The context of an entity's live task, or nullptr after a diagnostic that
// names `what`, the framework call.
evfw_context *task_context(const Guard &, const evfw_task_t *task, const char *what);

// The send of every sender: -1, with a diagnostic, for an event that is not
// live or a sender that is gone; an event for an id that no context serves
// is taken and freed.
int send(evfw_context *from, evfw_event *ev, uint32_t to);
int send(const Guard &, evfw_context *from, evfw_event *ev, uint32_t to);
int broadcast(evfw_task_t *from, evfw_event *ev);
int send_and_wait(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                  const void *arg, size_t arg_len);

// Stops every thread, unloads the entities, drops every context, peer and
// queued event and the counters; then `mode` applies.
void reset_routing(Mode mode);
// Frees the queued events; contexts and peers stay.
void drop_queued();

}  // namespace evfw_host

#endif  // EVFW_HOST_ROUTER_H

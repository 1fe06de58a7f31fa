// The Linux host runtime: a working implementation of the event framework
// (evfw.h), Android logging (__android_log_print and the daemon's log tables),
// property_get and rvn_pid, so that entities built for the device run, are
// tested and are demonstrated on an ordinary Linux machine.
//
// One Runtime per process (Runtime::instance()).  It hosts entities (loaded
// from a shared object by path, as the daemon does, or linked into the
// program), their tasks, and peers: simulated tasks by task id (the RIL
// proxy 202, the AT managers 302 and 307, the AT interface 7 and 8, RB
// 902..905) and external clients by name, with external ids from
// EVFW_EXT_ID_BASE up (the IMS managers, the LAN manager).
//
// Two modes, one send path: every send is traced and queued in one queue.
//  - Deterministic: pump() works the queue off on the calling thread;
//    threads that entities start run only in wait_threads().  Tests use
//    this mode.
//  - Threaded: each context (task or peer) has its own thread, which takes
//    what is queued for it, as on the device; wait_idle() waits until the
//    queue is drained and no handler runs.
//
// Every send is traced while the trace is on; every log line is captured;
// the runtime's own diagnostics are recorded in their places.  Events are
// counted, so that a test can prove that each event was freed
// exactly once or is held by its documented holder; a second free is
// caught, counted in bad_frees() and ignored.
#ifndef EVFW_HOST_RUNTIME_H
#define EVFW_HOST_RUNTIME_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "evfw.h"

namespace evfw_host {

enum class Mode { Deterministic, Threaded };

// The calls an entity imports that a fault plan can make fail, and how each
// fails.
enum class FaultCall : uint8_t {
    EventAlloc,         // evfw_event_alloc: no event (null)
    TaskSendEvent,      // evfw_task_send_event: refused (-1)
    ContextCommonSend,  // evfw_context_common_send: refused (-1)
    TaskBcastExtEvent,  // evfw_task_bcast_ext_event: refused (-1)
    TaskSendRecvEvent,  // evfw_task_send_recv_event: sent, the wait times out
    MutexInit,          // evfw_mutex_init: -ENOMEM, the mutex not made
    ThrdInit,           // evfw_thrd_init: -1, the thread object not prepared
    TaskInit,           // evfw_task_init: -1, the task not made
    PropertyGet,        // property_get: the property reads as absent
    Getifaddrs,         // getifaddrs: -1 (ENOMEM)
    IfIndexToName,      // if_indextoname: null (ENXIO)
    Socket,             // socket: -1 (EMFILE)
    Bind,               // bind: -1 (EADDRINUSE)
    Send,               // send: -1 (ENOBUFS)
    Recv,               // recv: -1 (EAGAIN)
    System,             // system: status 256 (the command exited 1), or -1
    Count,
};

// One send, as the framework routed it; a broadcast gives one per client.
struct TraceEntry {
    uint64_t seq = 0;
    uint32_t from = 0;  // sending context id (task id or external id)
    uint32_t to = 0;    // receiving context id
    uint32_t event_id = 0;
    uint32_t ext_id = 0;  // route carried by the event
    uint32_t chnl = 0;
    size_t len = 0;
    std::vector<uint8_t> data;
    bool dropped = false;  // no context serves `to`
};

struct LogLine {
    int prio = 0;
    std::string tag;
    std::string text;
    long tid = 0;  // the thread that logged it
};

// A diagnostic of the runtime itself ("evfw_host: ..."), placed after trace
// entry `after_seq` and after the first `after_log` log lines.
struct Diagnostic {
    uint64_t after_seq = 0;
    size_t after_log = 0;
    std::string text;  // without the "evfw_host: " prefix
    long tid = 0;      // the thread whose call it concerns
};

struct Subscription {
    uint32_t task_id;
    uint32_t event_id;
    int mode;
};

struct UrcSubscription {
    uint32_t task_id;
    std::string prefix;
    uint32_t event_id;
    int mode;
};

// An event as a peer receives it.  `event` is valid during the handler only:
// the runtime frees it when the handler returns.
struct Received {
    evfw_event_t *event = nullptr;
    uint32_t event_id = 0;
    uint32_t from = 0;
    uint32_t chnl = 0;  // the channel of the route the event travels on
    std::span<const uint8_t> data;

    // The payload as a record when its size matches exactly, else nullptr.
    template <class T>
    const T *as() const {
        return data.size() == sizeof(T) ? reinterpret_cast<const T *>(data.data()) : nullptr;
    }
};

class Peer;
using PeerHandler = std::function<void(Peer &self, const Received &in)>;

// A simulated task or external client, owned by the runtime until its reset.
class Peer {
  public:
    explicit Peer(evfw_context_t *ctx) : ctx_(ctx) {}

    uint32_t id() const;  // task id or external id
    const std::string &name() const;
    evfw_context_t *ctx() const { return ctx_; }

    // Runs for every event delivered to this peer (on the peer's thread in
    // threaded mode).  Without a handler, received events are only traced.
    void on_receive(PeerHandler handler);
    // Sends a fresh event from this peer (it takes the peer's route), or one
    // derived from `request` (it takes the request's route).  No fault plan
    // applies to a peer.
    int send(uint32_t to, uint32_t event_id, const void *data, size_t len);
    int reply(const evfw_event_t *request, uint32_t to, uint32_t event_id, const void *data,
              size_t len);

  private:
    evfw_context_t *ctx_;
};

// The functions through which the runtime drives an entity.
struct EntityAbi {
    evfw_entity_t *(*init)(evfw_entity_t *) = nullptr;
    evfw_entity_t *(*exit)(evfw_entity_t *) = nullptr;
    // Handlers the framework installs itself, by task id.
    std::vector<std::pair<uint32_t, evfw_ctx_hdl_t>> ctx_handlers;
};

class Runtime {
  public:
    static Runtime &instance();

    // Unloads every entity, drops peers, queued events, trace, logs,
    // properties and fault plans, and restarts in `mode` with counters at
    // zero.  The events a finished run left are freed, unless
    // EVFW_HOST_KEEP_LOADED=1 keeps shared objects mapped for leak checkers.
    void reset(Mode mode = Mode::Deterministic);
    // A new round with the entities, their tasks and the peers kept: queued
    // and live events are freed; trace, logs, diagnostics, properties, fault
    // plans and counters start again; the settings stay.  For a long series
    // of short cases against one loaded entity (a fuzzer); the entity's own
    // state is the caller's to reset.
    void new_round();

    // ---- entities ----
    // Calls abi.init with a fresh entity record named `name`; returns it.
    evfw_entity_t *load(const std::string &name, const EntityAbi &abi);
    // dlopen()s the shared object and resolves init, exit and the context
    // handlers by symbol, as the daemon does.  nullptr (and last_error())
    // when the object or a symbol is missing.
    evfw_entity_t *load_library(const std::string &path, const std::string &name,
                                const std::string &init_sym, const std::string &exit_sym,
                                const std::vector<std::pair<uint32_t, std::string>> &ctx_syms);
    // Stops the entities' tasks, calls each exit, newest first, removes their
    // tasks, joins their threads and closes the shared objects.
    void unload();
    const std::string &last_error() const;

    // ---- peers ----
    Peer &add_task(uint32_t task_id);           // name from the registry
    Peer &add_client(const std::string &name);  // the next external id
    Peer *peer(uint32_t id);                    // nullptr when absent

    // ---- running ----
    // Deterministic: delivers until idle; the number of deliveries.
    // Threaded: waits until idle, within the wait limit.
    size_t pump();
    bool wait_idle(std::chrono::milliseconds timeout);
    // Until every thread started so far has returned, and joins them:
    // deterministic mode runs their routines here, in start order, and those
    // they start; false, with a diagnostic, when one still runs after
    // `timeout`.  An entity is ready for its first event once its init
    // thread has returned.
    bool wait_threads(std::chrono::milliseconds timeout);
    // A seam for tests: threads started from now on stay this much longer
    // before they count as returned, as a thread preempted at its very end.
    void set_thread_linger(std::chrono::milliseconds linger);
    // Limit of send-and-wait, mutex and init waits (default 2 s).
    void set_wait_limit(std::chrono::milliseconds limit);

    // ---- the framework calls an entity made at its start ----
    std::vector<Subscription> subscriptions() const;
    std::vector<UrcSubscription> urc_subscriptions() const;
    // "evfw_task_init(41,402)", "evfw_connmngr_common_subscribe(402,4002,1)", ...
    std::vector<std::string> calls() const;

    // ---- properties (property_get reads them) ----
    void set_property(const std::string &key, const std::string &value);

    // ---- observation ----
    std::vector<TraceEntry> trace() const;
    void clear_trace();
    // Off: nothing is recorded, so that a long run keeps no state per send.
    void set_trace(bool on);

    std::vector<LogLine> logs() const;
    // Visits the captured lines in order without copying them; under the
    // runtime's lock, so `visit` must not log.
    void for_each_log(const std::function<void(const LogLine &)> &visit) const;
    void clear_logs();
    void set_log_capture(bool capture);  // off: lines are formatted, then discarded

    std::vector<Diagnostic> diagnostics() const;

    // ---- fault plans ----
    // Makes an imported call fail, each failure a diagnostic ("fault plan:
    // <call> call <n> fails").  Calls are counted from the first plan armed
    // since the last reset or clear_faults(), and only while one is armed:
    //   "evfw_event_alloc:3"  the third call
    //   "send:2-"             the second call and every later one
    //   "recv:p0.25/7"        each call with probability 0.25, seed 7
    //   "system:1=-1"         system() fails with -1 instead of 256
    // false, with the reason in `error`, for a plan that does not parse.
    bool add_fault(std::string_view plan, std::string &error);
    void clear_faults();
    uint64_t calls(FaultCall call) const;   // calls counted
    uint64_t faults(FaultCall call) const;  // of them, the ones made to fail
    static const char *fault_call_name(FaultCall call);

    // ---- accounting ----
    long live_events() const;  // allocated in this round and not yet freed
    long bad_frees() const;    // frees of something that was not a live event
    long bad_unlocks() const;  // unlocks of a mutex the thread did not hold
    long timeouts() const;     // send-and-wait, mutex and init waits that gave up

  private:
    Runtime() = default;
    evfw_entity_t *load_entity(const std::string &name, const EntityAbi &abi, void *dl);

    std::string last_error_;  // read and written by the controlling thread
};

}  // namespace evfw_host

#endif  // EVFW_HOST_RUNTIME_H

// The Linux host runtime: a working implementation of the event framework
// (evfw.h), Android logging (__android_log_print and the daemon's log tables),
// property_get and rvn_pid, so that entities built for the device run, are
// tested and are demonstrated on an ordinary Linux machine.
//
// One Runtime per process (Runtime::instance()).  It hosts:
//  - entities, loaded from a shared object by path (as the daemon does) or
//    from functions linked into the program;
//  - the entities' tasks (created by evfw_task_init), each with its handler;
//  - peers: simulated tasks (by task id: the RIL proxy 202, AT managers 302 and
//    307, the AT interface 7 and 8, RB 902..905) and external clients (by
//    name, with an external id from EVFW_EXT_ID_BASE up: the IMS managers, the
//    LAN manager).  A peer records what it receives and may answer from a
//    handler.
//
// Two modes:
//  - Deterministic: every send appends to one FIFO; pump() delivers on the
//    calling thread until nothing is left; threads that entities start run
//    only when run_threads() is called.  Tests use this mode.
//  - Threaded: each task or peer with a handler has its own thread and queue,
//    as on the device; wait_idle() waits until all queues are drained.
//
// Every event sent is traced (sender, receiver, id, bytes); every log line is
// captured (priority, tag, text).  Event allocations are counted, so a test
// can prove that each event was freed exactly once or is held by its
// documented holder; a second free of the same event is caught, counted in
// bad_frees() and otherwise ignored.
#ifndef EVFW_HOST_RUNTIME_H
#define EVFW_HOST_RUNTIME_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "evfw.h"

namespace evfw_host {

enum class Mode { Deterministic, Threaded };

// The calls an entity imports that a fault plan can make fail, and how each
// fails: the event calls and the sends of the framework, its init calls,
// property_get, and the C library calls of IPv6 discovery, the netlink
// listener and the DNS command.
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

// One send, as the framework routed it.  A broadcast gives one entry per
// receiving client.
struct TraceEntry {
    uint64_t seq = 0;
    uint32_t from = 0;  // sending context id (task id or external id)
    uint32_t to = 0;    // receiving context id
    uint32_t event_id = 0;
    uint32_t ext_id = 0;  // route carried by the event
    uint32_t chnl = 0;
    size_t len = 0;
    std::vector<uint8_t> data;  // empty when data tracing is off
    bool dropped = false;       // no context serves `to`

    std::string event_name() const;
};

struct LogLine {
    int prio = 0;
    std::string tag;
    std::string text;
};

// A diagnostic of the runtime itself ("evfw_host: ..."): a refused send, a
// foreign unlock, a wait that gave up, a call failed by a fault plan.
// `after_seq` is the sequence number of the last trace entry before it, so
// that it can be shown in its place; `after_log` the number of log lines
// captured before it, so that the lines it caused can be told.
struct Diagnostic {
    uint64_t after_seq = 0;
    size_t after_log = 0;
    std::string text;  // without the "evfw_host: " prefix
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

// An event as a peer receives it.  `event` is valid only during the handler;
// the runtime frees it when the handler returns.
struct Received {
    evfw_event_t *event = nullptr;
    uint32_t event_id = 0;
    uint32_t from = 0;
    std::span<const uint8_t> data;

    // The payload as a record when its size matches exactly, else nullptr.
    template <class T>
    const T *as() const {
        return data.size() == sizeof(T) ? reinterpret_cast<const T *>(data.data()) : nullptr;
    }
};

class Peer;
using PeerHandler = std::function<void(Peer &self, const Received &in)>;

// A simulated task or external client.  Owned by the Runtime.
class Peer {
  public:
    virtual ~Peer() = default;

    virtual uint32_t id() const = 0;  // task id or external id
    virtual const std::string &name() const = 0;
    virtual bool external() const = 0;
    virtual evfw_context_t *ctx() = 0;

    // Called for every event delivered to this peer (on the peer's thread in
    // threaded mode).  Without a handler, received events are only traced.
    virtual void on_receive(PeerHandler handler) = 0;

    // Sends a fresh event from this peer (it takes the peer's route).
    virtual int send(uint32_t to, uint32_t event_id, const void *data, size_t len) = 0;
    // Sends an event derived from `request` (it takes the request's route).
    virtual int reply(const evfw_event_t *request, uint32_t to, uint32_t event_id, const void *data,
                      size_t len) = 0;

    // What was delivered to this peer, in order (from the trace).
    virtual std::vector<TraceEntry> received() const = 0;
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

    // Unloads every entity, drops peers, queued events, trace, logs and
    // properties, and restarts in `mode`.  Counters start again from zero.
    void reset(Mode mode = Mode::Deterministic);
    // A new round with the loaded entities, their tasks and subscriptions and
    // the peers (with their handlers) kept: queued events are dropped, every
    // event still live is reclaimed, and the trace, logs, diagnostics,
    // properties, fault plans and counters start again; the settings (trace
    // on or off, log capture and echo, diagnostics echo) stay.  For a long series
    // of short cases against one loaded entity (a fuzzer), where loading it
    // anew for each case would be the cost; the entity's own state is the
    // caller's to reset.  Unless EVFW_HOST_KEEP_LOADED=1, reset() reclaims the
    // events a finished run left as well.
    void new_round();
    Mode mode() const;

    // ---- entities ----
    // Calls abi.init with a fresh entity record named `name`; returns it.
    evfw_entity_t *load(const std::string &name, const EntityAbi &abi);
    // dlopen()s the shared object and resolves init, exit and the named
    // context handlers by symbol, as the daemon does.  nullptr (and a reason
    // in last_error()) when the object or a symbol is missing.  With
    // EVFW_HOST_KEEP_LOADED=1 in the environment the object stays mapped
    // until the process ends (for leak checkers; a second load then finds
    // its static state as the first left it).
    evfw_entity_t *load_library(const std::string &path, const std::string &name,
                                const std::string &init_sym, const std::string &exit_sym,
                                const std::vector<std::pair<uint32_t, std::string>> &ctx_syms);
    // Calls exit of every loaded entity, in reverse load order, then closes
    // the shared objects.
    void unload();
    const std::string &last_error() const;

    // ---- peers ----
    Peer &add_task(uint32_t task_id);           // name from the registry
    Peer &add_client(const std::string &name);  // next external id
    Peer *peer(uint32_t id);                    // nullptr when absent

    // ---- running ----
    // Deterministic: deliver until idle; returns the number of deliveries.
    // Threaded: same as wait_idle() with the wait limit.
    size_t pump();
    // Deterministic: runs the routines of the threads started so far, in
    // start order, on the calling thread; returns how many ran.
    // Threaded: joins the started threads that have finished; returns 0.
    size_t run_threads();
    bool wait_idle(std::chrono::milliseconds timeout);
    // Limit of send-and-wait and of entity mutex waits (default 2 s).
    void set_wait_limit(std::chrono::milliseconds limit);

    // ---- framework call record, for checking an entity's start-up ----
    std::vector<Subscription> subscriptions() const;
    std::vector<UrcSubscription> urc_subscriptions() const;
    // "evfw_task_init(41,402)", "evfw_connmngr_common_subscribe(402,4002,1)", ...
    std::vector<std::string> calls() const;
    // Tasks subscribed to a URC line, with their event ids, by the modes'
    // rules (see EVFW_URC_MODE_*).
    std::vector<UrcSubscription> urc_subscribers(std::string_view line) const;

    // ---- properties ----
    void set_property(const std::string &key, const std::string &value);
    void clear_property(const std::string &key);
    // key=value lines; '#' starts a comment.  false (and last_error()) on a
    // file that cannot be read or a line without '='.
    bool load_properties(const std::string &path);

    // ---- observation ----
    std::vector<TraceEntry> trace() const;
    void clear_trace();
    // Off: sends are not recorded at all (no entry, no bytes), so that a long
    // run (a benchmark, a soak) keeps no state per event.  trace(), sent_to()
    // and Peer::received() then miss what is sent meanwhile, and an event for
    // a peer without a handler is freed as it is sent, as in threaded mode.
    // reset() turns it back on.
    void set_trace(bool on);
    void set_trace_data(bool keep_bytes);
    void print_trace(FILE *out) const;

    std::vector<LogLine> logs() const;
    // Visits the captured lines in order without copying them; `visit` must
    // not log.
    void for_each_log(const std::function<void(const LogLine &)> &visit) const;
    void clear_logs();
    void set_log_capture(bool capture);  // off: lines are formatted, then discarded
    void set_log_echo(FILE *out);        // logcat-style copy of each line, or nullptr
    static std::string logcat(const LogLine &line);

    // Every diagnostic since the last reset, in order, and how many.  Each is
    // also written to the echo stream (stderr by default; nullptr: none), and
    // print_trace() shows it in its place among the sends.
    std::vector<Diagnostic> diagnostics() const;
    long diagnostic_count() const;
    void set_diag_echo(FILE *out);

    // ---- fault plans ----
    // Makes an imported call fail: its Nth call, every call from the Nth on,
    // or each call with a probability (from a seed).  Calls are counted from
    // the first plan armed since the last reset or clear_faults(), and only
    // while a plan is armed: unarmed, the calls cost nothing more.
    // Each failure is a diagnostic ("fault plan: <call> call <n> fails"), so
    // that the trace shows it in its place.  Specs, by the call's name:
    //   "evfw_event_alloc:3"      the third call
    //   "send:2-"                 the second call and every later one
    //   "recv:p0.25/7"            each call with probability 0.25, seed 7
    //   "system:1=-1"             system() fails with -1 instead of 256
    // false, with the reason in `error`, for a plan that does not parse.
    bool add_fault(std::string_view plan, std::string &error);
    void clear_faults();
    uint64_t calls(FaultCall call) const;   // calls counted (see above)
    uint64_t faults(FaultCall call) const;  // of them, the ones made to fail
    static const char *fault_call_name(FaultCall call);

    // ---- accounting ----
    long live_events() const;  // allocated and not yet freed
    uint64_t events_allocated() const;
    uint64_t events_freed() const;
    long bad_frees() const;    // frees of an event that was not live
    long bad_unlocks() const;  // unlocks of a mutex the thread did not hold
    long timeouts() const;     // send-and-wait and mutex waits that gave up

  private:
    Runtime();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace evfw_host

#endif  // EVFW_HOST_RUNTIME_H

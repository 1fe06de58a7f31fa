// Internals of the host runtime shared by its translation units.
//
// Locking: Core::mu guards contexts, queues, entities, threads and waiters.
// Handlers (entity, context and peer) never run with mu held.  The trace,
// log, property and record stores have their own mutexes, which are leaves:
// nothing else is locked while one of them is held, except that the trace
// lock is taken inside mu when a send is recorded.
#ifndef EVFW_HOST_INTERNAL_H
#define EVFW_HOST_INTERNAL_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "evfw.h"
#include "evfw_host/runtime.h"

// ---- events -----------------------------------------------------------------

// State word of an event: an event handed out by evfw_event_alloc is LIVE
// until evfw_event_free makes it FREE.  Freed events stay in the recycle pool
// (their memory is never returned while the process runs), so a second free
// can read the word without undefined behaviour and be recognised.
inline constexpr uint32_t kEventLive = 0x4556'4c56u;  // "EVLV"
inline constexpr uint32_t kEventFree = 0x4556'4652u;  // "EVFR"

struct evfw_event {
    // Data up to this size stays in the event itself: the small events (a
    // relayed request, an answer word pair) take no block of their own.
    static constexpr size_t kInlineData = 64;

    std::atomic<uint32_t> state{kEventFree};
    uint32_t gen = 0;  // accounting generation (see EventStore)
    uint32_t id = 0;
    uint32_t chnl = 0;
    uint32_t ext_id = 0;
    uint8_t *buf = inline_data;  // inline_data, or a block of its own
    size_t len = 0;
    size_t cap = kInlineData;
    alignas(8) uint8_t inline_data[kInlineData];
    evfw_event *next = nullptr;  // recycle pool link
    // An event of the pool lives in one of its chunks for the life of the
    // process; any other is on the live list (EventStore), so that the
    // events of a finished run can be reclaimed either way.
    bool pooled = false;
    evfw_event *live_prev = nullptr;
    evfw_event *live_next = nullptr;
};

namespace evfw_host {

// Whether a fault plan is armed.  Hidden: read inside the runtime only,
// without the indirection of an exported variable.
extern std::atomic<bool> g_faults_armed __attribute__((visibility("hidden")));
bool fault_armed(FaultCall call, int *status);
// Counts a call of the entity's to `call` and tells whether a fault plan
// makes it fail (recorded as a diagnostic).  `status` receives the status a
// failing system() returns.  Unarmed, a call costs one load: the hot paths
// stay as they are.
inline bool fault(FaultCall call, int *status = nullptr) {
    return g_faults_armed.load(std::memory_order_acquire) && fault_armed(call, status);
}
void reset_faults();

// EVFW_HOST_KEEP_LOADED=1: shared objects stay mapped until the process ends
// (closing them only drops the reference), so that leak checkers run at exit
// can still name their frames and see what their globals hold.  Their
// globals then outlive a reset, and with them their pointers to events: the
// events a run left are not reclaimed either.
bool keep_loaded();

// Runtime diagnostic: recorded (Runtime::diagnostics()) and echoed, by
// default on stderr, prefixed "evfw_host: ".
void diag(const char *fmt, ...) __attribute__((__format__(printf, 1, 2)));
std::vector<Diagnostic> diagnostics();
long diagnostic_count();
void set_diag_echo(FILE *out);
// Forgets the recorded diagnostics; with `echo_to_stderr`, sets the echo
// back to stderr, else keeps it.
void reset_diagnostics(bool echo_to_stderr);
// Sequence number of the last trace entry recorded, kept apart from the
// trace so that a diagnostic raised while the runtime is torn down can still
// be placed.
uint64_t last_trace_seq();
void note_trace_seq(uint64_t seq);
// The number of log lines captured so far, for Diagnostic::after_log.
void note_log_count(size_t count);

// Adds to a counter: with a plain load and store where one thread owns it,
// else atomically.
template <class T>
void add_to(std::atomic<T> &counter, T delta, bool one_thread) {
    if (one_thread) {
        counter.store(counter.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
    } else {
        counter.fetch_add(delta, std::memory_order_relaxed);
    }
}

// Allocation, recycling and accounting of events.  Constant-initialised, so
// it exists before any other static object and outlives all of them.
// A mutex taken only where more than one thread can be on the path; no
// mutex (nullptr) means the caller runs on the one thread that pumps.
class OptionalLock {
  public:
    explicit OptionalLock(std::mutex *mu) : mu_(mu) {
        if (mu_ != nullptr) mu_->lock();
    }
    ~OptionalLock() {
        if (mu_ != nullptr) mu_->unlock();
    }
    OptionalLock(const OptionalLock &) = delete;
    OptionalLock &operator=(const OptionalLock &) = delete;

  private:
    std::mutex *mu_;
};

class EventStore {
  public:
    constexpr EventStore() noexcept {}
    ~EventStore();
    EventStore(const EventStore &) = delete;
    EventStore &operator=(const EventStore &) = delete;

    evfw_event *alloc();
    void release(evfw_event *ev);
    // Starts a new accounting generation: counters restart from zero and
    // events allocated before no longer count as live (freeing them later
    // is not counted either).  With `reclaim`, the events still live are
    // freed first: whatever a finished run left behind (the leaks its
    // behaviour prescribes) does not pile up over many runs.  Re-reads
    // EVFW_HOST_POOL.
    void new_generation(bool reclaim);

    // The deterministic runtime uses the store from one thread: it then
    // takes no lock and counts with plain loads and stores.
    void set_single_threaded(bool single) {
        single_.store(single);
        update_fast();
    }

    // Allocated in this generation and not yet freed.
    long live() const { return static_cast<long>(allocated_.load() - freed_.load()); }
    uint64_t allocated() const { return allocated_.load(); }
    uint64_t freed() const { return freed_.load(); }
    long bad_frees() const { return bad_frees_.load(); }

    // Buffers of freed events wait here by size class (powers of two up to
    // kPoolKeepBuffer), apart from the events, so that an event that never
    // gets data holds none: one kept past its run pins only its own struct.
    // A buffer of at least `need` bytes, or false when none is stashed.
    bool take_buffer(size_t need, uint8_t **buf, size_t *cap);
    // Stashes a buffer, or frees it when its class is full or pooling is off.
    void give_buffer(uint8_t *buf, size_t cap);

  private:
    bool pooling() {
        const int p = pooling_.load(std::memory_order_relaxed);
        return p >= 0 ? p != 0 : read_pooling();
    }
    // One thread and the pool on: alloc() and release() of an event with
    // its data inline are a list operation and a counter, with no lock.
    bool fast() const { return fast_.load(std::memory_order_relaxed); }
    void update_fast() {
        fast_.store(single() && pooling_.load(std::memory_order_relaxed) == 1,
                    std::memory_order_relaxed);
    }
    bool read_pooling();
    // alloc() beyond one thread taking a pooled event at hand.
    __attribute__((noinline)) evfw_event *take_slow();
    // release() beyond one thread giving back a pooled event without a block.
    __attribute__((noinline)) void release_slow(evfw_event *ev);
    void drain_pool();
    // A new chunk of pooled events onto the free list; false without memory.
    bool grow_locked();
    void push_free_locked(evfw_event *ev);
    // The oldest event of the free list, which is not empty.
    evfw_event *pop_free_locked();

    // Pooled events come in chunks, kept to the end of the process: the
    // free list runs through them, and a reclaim walks them.
    static constexpr size_t kChunkEvents = 16;
    struct Chunk {
        evfw_event events[kChunkEvents];
        Chunk *next = nullptr;
    };
    Chunk *chunks_ = nullptr;

    static constexpr size_t kMinBuffer = 64;
    static constexpr int kBufferClasses = 11;  // 64 B .. 64 KiB
    static constexpr int kBuffersPerClass = 512;
    struct BufferClass {
        uint8_t *bufs[kBuffersPerClass] = {};
        int count = 0;
    };
    BufferClass classes_[kBufferClasses] = {};

    void link_live_locked(evfw_event *ev);
    void unlink_live_locked(evfw_event *ev);
    bool single() const { return single_.load(std::memory_order_relaxed); }
    friend struct StoreLock;

    std::atomic<bool> single_{false};
    std::atomic<bool> fast_{false};
    std::mutex mu_;
    evfw_event *live_ = nullptr;    // the live list (events not from the pool)
    evfw_event *head_ = nullptr;    // oldest freed event: reused first, so a
    evfw_event *tail_ = nullptr;    // recently freed one stays recognisable
    std::atomic<int> pooling_{-1};  // -1: not read yet
    std::atomic<uint32_t> gen_{1};
    std::atomic<uint64_t> allocated_{0};
    std::atomic<uint64_t> freed_{0};
    std::atomic<long> bad_frees_{0};
};

EventStore &event_store();

inline bool event_is_live(const evfw_event *ev) {
    return ev != nullptr && ev->state.load(std::memory_order_acquire) == kEventLive;
}

// A new event with the same id, data and route as `ev`; nullptr on failure.
evfw_event *event_clone(const evfw_event *ev);
// event_set_data beyond the common case (the whole data, where it fits).
evfw_event *set_data_slow(evfw_event *event, size_t offset, const void *data, size_t len);
// evfw_event_alloc without a fault plan: the runtime's own events (peers).
evfw_event *alloc_event(const evfw_event *source);

// Name of a context id: the registry's task names, the external clients'
// names; never nullptr.
const char *task_name(uint32_t task_id);

struct Entity;
class PeerImpl;

// One queued delivery.
struct Item {
    uint32_t from = 0;
    uint32_t to = 0;
    evfw_event *ev = nullptr;
};

// FIFO of deliveries in a ring that grows to the longest backlog seen and is
// then reused, so that queueing and delivering an event allocate nothing once
// the queue has warmed up (a std::deque takes and returns a block every few
// dozen items).
class ItemQueue {
  public:
    class const_iterator {
      public:
        const_iterator(const ItemQueue *q, size_t i) : q_(q), i_(i) {}
        const Item &operator*() const { return (*q_)[i_]; }
        const_iterator &operator++() {
            ++i_;
            return *this;
        }
        bool operator!=(const const_iterator &o) const { return i_ != o.i_; }

      private:
        const ItemQueue *q_;
        size_t i_;
    };

    bool empty() const { return size_ == 0; }
    size_t size() const { return size_; }
    size_t capacity() const { return ring_.size(); }
    // The i-th item from the front.
    Item &operator[](size_t i) { return ring_[(head_ + i) & (ring_.size() - 1)]; }
    const Item &operator[](size_t i) const { return ring_[(head_ + i) & (ring_.size() - 1)]; }
    Item &front() { return (*this)[0]; }
    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, size_}; }

    __attribute__((always_inline)) void push_back(const Item &item) {
        if (size_ == ring_.size()) grow();
        ++size_;
        (*this)[size_ - 1] = item;
    }
    void pop_front() {
        head_ = (head_ + 1) & (ring_.size() - 1);
        --size_;
    }
    // Removes the i-th item; the others keep their order.
    void erase(size_t i) {
        if (i == 0) {
            pop_front();
            return;
        }
        for (size_t k = i; k + 1 < size_; ++k) (*this)[k] = (*this)[k + 1];
        --size_;
    }
    // Removes the items `drop` accepts, after handing each to it; the others
    // keep their order.
    template <class Drop>
    void remove_if(Drop drop) {
        size_t kept = 0;
        for (size_t i = 0; i < size_; ++i) {
            Item item = (*this)[i];
            if (!drop(item)) (*this)[kept++] = item;
        }
        size_ = kept;
    }
    void swap(ItemQueue &other) noexcept {
        ring_.swap(other.ring_);
        std::swap(head_, other.head_);
        std::swap(size_, other.size_);
    }

  private:
    static constexpr size_t kFirstCapacity = 64;  // a power of two, as every later size

    __attribute__((noinline)) void grow() {
        std::vector<Item> bigger(ring_.empty() ? kFirstCapacity : ring_.size() * 2);
        for (size_t i = 0; i < size_; ++i) bigger[i] = (*this)[i];
        ring_.swap(bigger);
        head_ = 0;
    }

    std::vector<Item> ring_;
    size_t head_ = 0;
    size_t size_ = 0;
};

}  // namespace evfw_host

// ---- contexts -----------------------------------------------------------------

struct evfw_context {
    enum class Kind { Task, Aux, Peer };

    Kind kind = Kind::Task;
    uint32_t id = 0;
    uint32_t chnl = 0;
    uint32_t ext_id = 0;  // its own id for an external client, else 0
    const char *name = "";
    evfw_host::Entity *owner = nullptr;  // the entity whose task this is

    // Entity task: the entity's task object and the handler it installed.
    evfw_task_t *task = nullptr;
    evfw_task_hdl_t hdl = nullptr;
    void *hdl_arg = nullptr;
    // Handler installed by the framework at load (EntityAbi::ctx_handlers).
    evfw_ctx_hdl_t ctx_hdl = nullptr;
    evfw_entity_t *ctx_entity = nullptr;
    // Peer.
    evfw_host::PeerImpl *peer = nullptr;
    std::shared_ptr<evfw_host::PeerHandler> peer_hdl;

    // Threaded mode: the context's own thread and queue.
    std::thread worker;
    std::condition_variable cv;
    evfw_host::ItemQueue q;
    bool has_worker = false;
    bool stop = false;
    bool busy = false;
};

namespace evfw_host {

struct Entity {
    evfw_entity_t rec{};
    std::string name;
    EntityAbi abi;
    void *dl = nullptr;  // dlopen handle when loaded from a shared object
};

// A thread routine deterministic mode runs only in run_threads().
struct PendingThread {
    evfw_thrd_fn_t fn = nullptr;
    void *arg = nullptr;
    Entity *starter = nullptr;  // the entity in whose init it was started
};

struct StartedThread {
    std::thread th;
    std::shared_ptr<std::atomic<bool>> done;
};

// A thread blocked in send-and-wait (threaded mode).
struct Waiter {
    uint32_t task = 0;
    evfw_rx_cond_t cond = nullptr;
    const void *arg = nullptr;
    size_t arg_len = 0;
    bool matched = false;
};

// What one delivery runs, collected under Core::mu and run without it.
struct Delivery {
    enum class Kind { Discard, TaskHdl, CtxHdl, Peer };
    Kind kind = Kind::Discard;
    Item item;
    evfw_task_hdl_t hdl = nullptr;
    evfw_task_t *task = nullptr;
    void *arg = nullptr;
    evfw_ctx_hdl_t ctx_hdl = nullptr;
    evfw_context *ctx = nullptr;
    evfw_entity_t *entity = nullptr;
    std::shared_ptr<PeerHandler> peer_hdl;
    PeerImpl *peer = nullptr;
};

class PeerImpl final : public Peer {
  public:
    PeerImpl(evfw_context *ctx, std::string name) : ctx_(ctx), name_(std::move(name)) {}

    uint32_t id() const override { return ctx_->id; }
    const std::string &name() const override { return name_; }
    bool external() const override { return ctx_->ext_id != 0; }
    evfw_context_t *ctx() override { return ctx_; }
    void on_receive(PeerHandler handler) override;
    int send(uint32_t to, uint32_t event_id, const void *data, size_t len) override;
    int reply(const evfw_event_t *request, uint32_t to, uint32_t event_id, const void *data,
              size_t len) override;
    std::vector<TraceEntry> received() const override;

  private:
    __attribute__((always_inline)) int send_event(evfw_event_t *ev, uint32_t to, uint32_t event_id,
                                                  const void *data, size_t len);

    evfw_context *ctx_;
    std::string name_;
};

// The runtime's state and behaviour; Runtime is its public face.
class Core {
  public:
    Core();
    ~Core();
    Core(const Core &) = delete;
    Core &operator=(const Core &) = delete;

    // ---- configuration ----
    std::atomic<Mode> mode{Mode::Deterministic};
    std::atomic<int64_t> wait_ms{2000};
    std::atomic<bool> trace_on{true};
    std::atomic<bool> trace_data{true};
    std::chrono::milliseconds wait_limit() const { return std::chrono::milliseconds(wait_ms); }
    bool threaded() const { return mode.load() == Mode::Threaded; }
    void set_trace(bool on) {
        trace_on = on;
        update_lane();
    }

    void reset(Mode m);
    void new_round();

    // ---- contexts ----
    int task_init(evfw_task_t *task, uint32_t entity_id, uint32_t task_id);
    int task_exit(evfw_task_t *task);
    int set_hdl(evfw_task_t *task, evfw_task_hdl_t hdl, void *arg);
    Peer &add_task(uint32_t task_id);
    Peer &add_client(const std::string &name);
    Peer *peer(uint32_t id);
    void set_peer_handler(evfw_context *ctx, PeerHandler handler);
    const char *client_name(uint32_t ext_id);
    // The live context behind an entity's task object, or nullptr.
    evfw_context *task_ctx_locked(const evfw_task_t *task) {
        if (task == nullptr || task->fw == nullptr) return nullptr;
        auto *c = static_cast<evfw_context *>(task->fw);
        return known_live_locked(c) && c->task == task ? c : nullptr;
    }

    // ---- sending and delivery ----
    int send(evfw_context *from, evfw_event *ev, uint32_t to);
    // A peer's send of an event it has just allocated and filled: its
    // context and the event are known live.
    __attribute__((always_inline)) void send_new(evfw_context *from, evfw_event *ev, uint32_t to) {
        if (!lane()) return send_new_slow(from, ev, to);
        route_locked(from, ev);
        post_locked(from->id, ev, to);
    }
    __attribute__((noinline)) void send_new_slow(evfw_context *from, evfw_event *ev, uint32_t to);
    // The send once `from` is known live, under the hot lock.
    int send_locked(evfw_context *from, evfw_event *ev, uint32_t to);
    // A task's send; `what` names the framework call in refusals.
    __attribute__((always_inline)) int send_from_task(evfw_task_t *from, evfw_event *ev,
                                                      uint32_t to, const char *what) {
        evfw_context *c = nullptr;
        if (lane() && (c = task_ctx_locked(from)) != nullptr && event_is_live(ev)) {
            route_locked(c, ev);
            post_locked(c->id, ev, to);
            return 0;
        }
        return send_from_task_slow(from, ev, to, what);
    }
    // send_from_task beyond a live task's send of a live event in the lane.
    __attribute__((noinline)) int send_from_task_slow(evfw_task_t *from, evfw_event *ev,
                                                      uint32_t to, const char *what);
    int bcast(evfw_task_t *from, evfw_event *ev);
    int send_recv(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                  const void *arg, size_t arg_len);
    size_t pump();
    bool wait_idle(std::chrono::milliseconds timeout);

    // ---- threads, mutexes, init ----
    int thread_start(evfw_thrd_fn_t fn, void *arg);
    size_t run_threads();
    int wait_all_entity_init();
    void count_timeout() { ++timeouts_; }
    void count_bad_unlock() { ++bad_unlocks_; }

    // ---- entities ----
    evfw_entity_t *load(const std::string &name, const EntityAbi &abi, void *dl);
    evfw_entity_t *load_library(const std::string &path, const std::string &name,
                                const std::string &init_sym, const std::string &exit_sym,
                                const std::vector<std::pair<uint32_t, std::string>> &ctx_syms);
    void unload();
    std::string last_error;  // read and written by the controlling thread

    // ---- records ----
    void record_call(std::string call);
    void record_subscription(const Subscription &s);
    void record_urc_subscription(UrcSubscription s);
    std::vector<Subscription> subscriptions() const;
    std::vector<UrcSubscription> urc_subscriptions() const;
    std::vector<std::string> calls() const;

    // ---- trace ----
    std::vector<TraceEntry> trace() const;
    std::vector<TraceEntry> trace_to(uint32_t to) const;
    void clear_trace();

    // ---- logs ----
    void log(int prio, const char *tag, const char *text);
    std::vector<LogLine> logs() const;
    void for_each_log(const std::function<void(const LogLine &)> &visit) const;
    void clear_logs();
    void set_log_capture(bool capture);
    void set_log_echo(FILE *out);

    // ---- properties ----
    void set_property(const std::string &key, const std::string &value);
    void clear_property(const std::string &key);
    // Copies the value of `key` into `out` (at most out_len - 1 bytes and a
    // NUL) without allocating; false when the key is not set.
    bool get_property(std::string_view key, char *out, size_t out_len) const;
    bool load_properties(const std::string &path);

    long bad_unlocks() const { return bad_unlocks_.load(); }
    long timeouts() const { return timeouts_.load(); }

  private:
    evfw_context *make_context_locked(evfw_context::Kind kind, uint32_t id, uint32_t ext_id,
                                      const char *name);
    void start_worker_locked(evfw_context *c);
    void worker_loop(evfw_context *c);
    void stop_worker(evfw_context *c);
    std::unique_ptr<evfw_context> remove_context_locked(uint32_t id);
    void retire(std::unique_ptr<evfw_context> c);
    void reap_graveyard();
    void join_threads();
    void teardown();

    // The untraced deterministic lane: one thread and no trace, so that a
    // send only appends to the queue and a delivery only calls the receiver.
    // Follows the mode and the trace switch.
    bool lane() const { return lane_.load(std::memory_order_relaxed); }
    void update_lane() { lane_.store(!threaded() && !trace_on.load(), std::memory_order_relaxed); }
    std::atomic<bool> lane_{false};

    // Records a send while the trace is on.
    void trace_send_locked(uint32_t from, uint32_t to, const evfw_event *ev, bool dropped);
    // An event without a route takes the sender's.
    static void route_locked(const evfw_context *from, evfw_event *ev) {
        if (ev->chnl == 0) {
            ev->chnl = from->chnl;
            ev->ext_id = from->ext_id;
        }
    }
    // Records the send and hands the event to the destination's queue, or
    // frees it when nothing will deliver it.  The event's route is set.
    __attribute__((always_inline)) void post_locked(uint32_t from, evfw_event *ev, uint32_t to) {
        evfw_context *c = find_ctx_locked(to);
        if (c != nullptr && lane()) {
            if (c->kind == evfw_context::Kind::Peer && c->peer_hdl == nullptr) {
                // Untraced, and no handler to run: nothing would ever see it
                // (as in threaded mode).
                event_store().release(ev);
                return;
            }
            fifo.push_back(Item{from, to, ev});
            return;
        }
        post_traced_locked(c, from, ev, to);
    }
    Delivery prepare_locked(const Item &item);
    void run(Delivery &d);
    // Deterministic mode: delivers `item` on this thread, now.
    void deliver_now(const Item &item);
    __attribute__((noinline)) void deliver_to_peer(evfw_context *c, const Item &item);
    // post_locked beyond the untraced deterministic queue.
    __attribute__((noinline)) void post_traced_locked(evfw_context *c, uint32_t from,
                                                      evfw_event *ev, uint32_t to);
    // The first queued item not addressed to a task blocked in send-and-wait.
    bool pop_deliverable_locked(Item &out) {
        if (!waiting.empty()) return pop_past_waiting_locked(out);
        if (fifo.empty()) return false;
        out = fifo.front();
        fifo.pop_front();
        return true;
    }
    bool pop_past_waiting_locked(Item &out);
    bool waiting_locked(uint32_t task_id) const;
    int send_recv_deterministic(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                                const void *arg, size_t arg_len);
    int send_recv_threaded(evfw_task_t *from, evfw_event *ev, uint32_t to, evfw_rx_cond_t cond,
                           const void *arg, size_t arg_len);
    void send_recv_timeout(uint32_t task_id, evfw_rx_cond_t cond, const void *arg, size_t arg_len,
                           const char *why);
    Entity *owner_for_locked(uint32_t entity_id);

    // The lock of the sending and delivery paths: `mu`, taken in threaded
    // mode only.  The deterministic mode runs every send and delivery on the
    // one thread that pumps, so these paths take no lock there.
    struct HotLock : OptionalLock {
        explicit HotLock(Core &core) : OptionalLock(core.threaded() ? &core.mu : nullptr) {}
    };
    // The context of a task id or an external id, or nullptr; task ids below
    // kDirectIds are looked up in a table.
    evfw_context *find_ctx_locked(uint32_t id) const {
        if (id < kDirectIds) return direct_[id];
        auto it = contexts.find(id);
        return it != contexts.end() ? it->second.get() : nullptr;
    }
    static constexpr uint32_t kDirectIds = 1024;
    // Whether `c` is a context of this runtime.  The two contexts the last
    // sends came from are remembered, so that a stream of sends does not
    // look each one up; forgotten whenever a context goes.
    bool known_live_locked(const evfw_context *c) {
        if (c != nullptr && (c == live_hint_[0] || c == live_hint_[1])) return true;
        if (live_ctx.count(c) == 0) return false;
        live_hint_[1] = live_hint_[0];
        live_hint_[0] = c;
        return true;
    }
    const evfw_context *live_hint_[2] = {};

    // Guarded by mu.
    std::mutex mu;
    std::array<evfw_context *, kDirectIds> direct_{};  // the contexts of ids < kDirectIds
    std::condition_variable changed_cv;  // queues drained, matches, threads ended, loads done
    std::map<uint32_t, std::unique_ptr<evfw_context>> contexts;
    std::unordered_set<const evfw_context *> live_ctx;
    std::vector<std::unique_ptr<evfw_context>> graveyard;  // retired from their own thread
    std::vector<std::unique_ptr<PeerImpl>> peers;
    std::vector<std::unique_ptr<Entity>> entities;
    ItemQueue fifo;                              // deterministic mode
    std::vector<uint32_t> waiting;               // deterministic send-and-wait, innermost last
    std::vector<Waiter *> waiters;               // threaded send-and-wait
    std::vector<PendingThread> pending_threads;  // deterministic
    std::vector<StartedThread> threads;          // threaded
    int loads_in_progress = 0;
    uint32_t next_chnl = 1;
    uint32_t next_ext = EVFW_EXT_ID_BASE;

    std::atomic<uint64_t> deliveries_{0};
    std::atomic<long> bad_unlocks_{0};
    std::atomic<long> timeouts_{0};

    mutable std::mutex names_mu;
    std::unordered_set<std::string> interned;  // never shrinks: names handed out stay valid
    std::map<uint32_t, const char *> client_names;
    const char *intern(const std::string &s);

    mutable std::mutex rec_mu;
    std::vector<std::string> calls_;
    std::vector<Subscription> subs_;
    std::vector<UrcSubscription> urc_subs_;

    mutable std::mutex trace_mu;
    std::vector<TraceEntry> trace_;
    uint64_t next_seq = 1;

    mutable std::mutex log_mu;
    std::vector<LogLine> logs_;
    bool log_capture = true;
    FILE *log_echo = nullptr;

    mutable std::mutex prop_mu;
    std::map<std::string, std::string, std::less<>> props_;
};

// The runtime's one core, made on first use.  Once made it is reached
// through a plain pointer: every framework call starts here.
extern std::atomic<Core *> g_core __attribute__((visibility("hidden")));
Core &make_core();
__attribute__((always_inline)) inline Core &core() {
    Core *c = g_core.load(std::memory_order_acquire);
    return c != nullptr ? *c : make_core();
}

// The entity whose init runs on this thread, if any.
extern thread_local Entity *tl_loading;

}  // namespace evfw_host

#endif  // EVFW_HOST_INTERNAL_H

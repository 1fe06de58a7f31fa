// Events: allocation with a recycle pool, the data block, routes, accounting.
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sanitizer/asan_interface.h>

#include "internal.h"

namespace evfw_host {

namespace {

// Buffers larger than this are not kept on pooled events, so that one huge
// event does not pin its memory for the rest of the process.
constexpr size_t kPoolKeepBuffer = 64 * 1024;

constinit EventStore g_store;

}  // namespace

EventStore &event_store() {
    return g_store;
}

namespace {

// Diagnostics outlive the runtime's core: a free after the core's end may
// still raise one.  So their store is never destroyed.
struct DiagStore {
    std::mutex mu;
    std::vector<Diagnostic> list;
    FILE *echo = stderr;
};
DiagStore &diag_store() {
    static DiagStore *store = new DiagStore;
    return *store;
}

constinit std::atomic<uint64_t> g_last_trace_seq{0};
constinit std::atomic<size_t> g_log_count{0};
constinit std::atomic<long> g_diag_count{0};

}  // namespace

uint64_t last_trace_seq() {
    return g_last_trace_seq.load(std::memory_order_relaxed);
}

void note_trace_seq(uint64_t seq) {
    g_last_trace_seq.store(seq, std::memory_order_relaxed);
}

void note_log_count(size_t count) {
    g_log_count.store(count, std::memory_order_relaxed);
}

void diag(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    ++g_diag_count;
    DiagStore &d = diag_store();
    std::lock_guard lk(d.mu);
    d.list.push_back(
            Diagnostic{last_trace_seq(), g_log_count.load(std::memory_order_relaxed), buf});
    // One write per line so that lines of concurrent threads do not mix.
    if (d.echo != nullptr) fprintf(d.echo, "evfw_host: %s\n", buf);
}

std::vector<Diagnostic> diagnostics() {
    DiagStore &d = diag_store();
    std::lock_guard lk(d.mu);
    return d.list;
}

long diagnostic_count() {
    return g_diag_count.load();
}

void set_diag_echo(FILE *out) {
    DiagStore &d = diag_store();
    std::lock_guard lk(d.mu);
    d.echo = out;
}

void reset_diagnostics(bool echo_to_stderr) {
    DiagStore &d = diag_store();
    std::lock_guard lk(d.mu);
    d.list.clear();
    if (echo_to_stderr) d.echo = stderr;
    g_diag_count = 0;
    g_last_trace_seq = 0;
    g_log_count = 0;
}

namespace {

// Under AddressSanitizer a pooled event's fields and a stashed buffer are
// poisoned until handed out again, so that a use after free is reported
// although the memory is kept (without it these do nothing).  The state
// word, which tells a second free, and the pool links stay readable.
constexpr size_t kPoisonFrom = offsetof(evfw_event, id);
constexpr size_t kPoisonLen = offsetof(evfw_event, next) - kPoisonFrom;

void poison_pooled(evfw_event *ev) {
    ASAN_POISON_MEMORY_REGION(reinterpret_cast<char *>(ev) + kPoisonFrom, kPoisonLen);
}
void unpoison_pooled(evfw_event *ev) {
    ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<char *>(ev) + kPoisonFrom, kPoisonLen);
}

}  // namespace

// The store's lock, taken unless the store is used from one thread only.
struct StoreLock : OptionalLock {
    explicit StoreLock(EventStore &store) : OptionalLock(store.single() ? nullptr : &store.mu_) {}
};

namespace {

bool has_block(const evfw_event *ev) {
    return ev->buf != ev->inline_data;
}

}  // namespace

bool EventStore::read_pooling() {
    const char *env = getenv("EVFW_HOST_POOL");
    const int p = (env != nullptr && strcmp(env, "0") == 0) ? 0 : 1;
    pooling_.store(p, std::memory_order_relaxed);
    update_fast();
    return p != 0;
}

// The free list and the stashed buffers are dropped; the chunks stay, with
// whatever events of theirs are still live.
void EventStore::drain_pool() {
    StoreLock lk(*this);
    head_ = tail_ = nullptr;
    for (BufferClass &c : classes_) {
        while (c.count > 0) free(c.bufs[--c.count]);
    }
}

EventStore::~EventStore() {
    drain_pool();
    while (chunks_ != nullptr) {
        Chunk *next = chunks_->next;
        ASAN_UNPOISON_MEMORY_REGION(chunks_, sizeof(Chunk));
        for (evfw_event &ev : chunks_->events) {
            if (has_block(&ev) && ev.state.load(std::memory_order_relaxed) == kEventLive) {
                free(ev.buf);
            }
        }
        delete chunks_;
        chunks_ = next;
    }
}

bool EventStore::grow_locked() {
    auto *chunk = new (std::nothrow) Chunk;
    if (chunk == nullptr) return false;
    chunk->next = chunks_;
    chunks_ = chunk;
    for (evfw_event &ev : chunk->events) {
        ev.pooled = true;
        push_free_locked(&ev);
    }
    return true;
}

void EventStore::push_free_locked(evfw_event *ev) {
    ev->next = nullptr;
    poison_pooled(ev);
    if (tail_ != nullptr) {
        tail_->next = ev;
    } else {
        head_ = ev;
    }
    tail_ = ev;
}

evfw_event *EventStore::pop_free_locked() {
    evfw_event *ev = head_;
    head_ = ev->next;
    if (head_ == nullptr) tail_ = nullptr;
    unpoison_pooled(ev);
    return ev;
}

namespace {

// Size class of a buffer capacity (a power of two from 64 B); -1 when the
// capacity is not one the stash keeps.
int buffer_class(size_t cap) {
    int k = 0;
    for (size_t size = 64; size <= kPoolKeepBuffer; size *= 2, ++k) {
        if (size == cap) return k;
    }
    return -1;
}

}  // namespace

bool EventStore::take_buffer(size_t need, uint8_t **buf, size_t *cap) {
    if (!pooling()) return false;
    size_t size = kMinBuffer;
    int k = 0;
    while (size < need && size <= kPoolKeepBuffer) {
        size *= 2;
        ++k;
    }
    if (size > kPoolKeepBuffer) return false;
    StoreLock lk(*this);
    BufferClass &c = classes_[k];
    if (c.count == 0) return false;
    *buf = c.bufs[--c.count];
    *cap = size;
    ASAN_UNPOISON_MEMORY_REGION(*buf, size);
    return true;
}

void EventStore::give_buffer(uint8_t *buf, size_t cap) {
    if (buf == nullptr) return;
    int k = pooling() ? buffer_class(cap) : -1;
    if (k >= 0) {
        StoreLock lk(*this);
        BufferClass &c = classes_[k];
        if (c.count < kBuffersPerClass) {
            c.bufs[c.count++] = buf;
            ASAN_POISON_MEMORY_REGION(buf, cap);
            return;
        }
    }
    free(buf);
}

void EventStore::link_live_locked(evfw_event *ev) {
    ev->live_prev = nullptr;
    ev->live_next = live_;
    if (live_ != nullptr) live_->live_prev = ev;
    live_ = ev;
}

void EventStore::unlink_live_locked(evfw_event *ev) {
    if (ev->live_prev != nullptr) {
        ev->live_prev->live_next = ev->live_next;
    } else {
        live_ = ev->live_next;
    }
    if (ev->live_next != nullptr) ev->live_next->live_prev = ev->live_prev;
    ev->live_prev = ev->live_next = nullptr;
}

evfw_event *EventStore::alloc() {
    evfw_event *ev = nullptr;
    if (fast() && head_ != nullptr) {  // one thread, a pooled event at hand
        ev = pop_free_locked();
    } else {
        ev = take_slow();
        if (ev == nullptr) return nullptr;
    }
    add_to(allocated_, uint64_t{1}, single());
    ev->gen = gen_.load(std::memory_order_relaxed);
    ev->id = 0;
    ev->chnl = 0;
    ev->ext_id = 0;
    ev->len = 0;
    ev->next = nullptr;
    ev->state.store(kEventLive, std::memory_order_release);
    return ev;
}

evfw_event *EventStore::take_slow() {
    evfw_event *ev = nullptr;
    if (pooling()) {
        StoreLock lk(*this);
        if (head_ == nullptr && !grow_locked()) return nullptr;
        ev = pop_free_locked();
    } else {
        ev = new (std::nothrow) evfw_event;
        if (ev == nullptr) return nullptr;
        StoreLock lk(*this);
        link_live_locked(ev);
    }
    return ev;
}

void EventStore::release(evfw_event *ev) {
    // One thread, a pooled event of this run with its data inline: straight
    // back to the free list.
    if (fast() && ev->pooled && !has_block(ev) &&
        ev->state.load(std::memory_order_relaxed) == kEventLive &&
        ev->gen == gen_.load(std::memory_order_relaxed)) {
        ev->state.store(kEventFree, std::memory_order_relaxed);
        add_to(freed_, uint64_t{1}, true);
        ev->len = 0;
        push_free_locked(ev);
        return;
    }
    release_slow(ev);
}

void EventStore::release_slow(evfw_event *ev) {
    bool was_live;
    if (single()) {
        was_live = ev->state.load(std::memory_order_relaxed) == kEventLive;
        if (was_live) ev->state.store(kEventFree, std::memory_order_relaxed);
    } else {
        uint32_t expected = kEventLive;
        was_live =
                ev->state.compare_exchange_strong(expected, kEventFree, std::memory_order_acq_rel);
    }
    if (!was_live) {
        ++bad_frees_;
        diag("evfw_event_free(%p): the event is not live (freed before?); ignored",
             static_cast<void *>(ev));
        return;
    }
    if (ev->gen == gen_.load(std::memory_order_relaxed)) {
        add_to(freed_, uint64_t{1}, single());
    }
    if (!ev->pooled) {
        {
            StoreLock lk(*this);
            unlink_live_locked(ev);
        }
        if (has_block(ev)) free(ev->buf);
        delete ev;
        return;
    }
    if (has_block(ev)) give_buffer(ev->buf, ev->cap);
    ev->buf = ev->inline_data;
    ev->cap = evfw_event::kInlineData;
    ev->len = 0;
    // Back at the tail: the oldest freed event is reused first, so that a
    // recently freed one stays recognisable.  Not while the pool is off.
    if (!pooling()) {
        poison_pooled(ev);
        return;
    }
    StoreLock lk(*this);
    push_free_locked(ev);
}

void EventStore::new_generation(bool reclaim) {
    ++gen_;
    if (reclaim) {
        for (Chunk *c = chunks_; c != nullptr; c = c->next) {
            for (evfw_event &ev : c->events) {
                if (ev.state.load(std::memory_order_relaxed) == kEventLive) release(&ev);
            }
        }
        for (;;) {
            evfw_event *ev;
            {
                StoreLock lk(*this);
                ev = live_;
            }
            if (ev == nullptr) break;
            release(ev);
        }
    }
    allocated_ = 0;
    freed_ = 0;
    bad_frees_ = 0;
    pooling_.store(-1);
    if (!pooling()) drain_pool();  // re-reads the setting, and with it fast()
}

evfw_event *event_clone(const evfw_event *src) {
    evfw_event *ev = g_store.alloc();
    if (ev == nullptr) return nullptr;
    ev->id = src->id;
    ev->chnl = src->chnl;
    ev->ext_id = src->ext_id;
    if (src->len != 0 && event_set_data(ev, 0, src->buf, src->len) == nullptr) {
        g_store.release(ev);
        return nullptr;
    }
    return ev;
}

}  // namespace evfw_host

using evfw_host::g_store;

extern "C" {

evfw_event_t *evfw_event_alloc(const evfw_event_t *source) {
    if (evfw_host::fault(evfw_host::FaultCall::EventAlloc)) return nullptr;
    return evfw_host::alloc_event(source);
}

}  // extern "C"

namespace evfw_host {

evfw_event *alloc_event(const evfw_event *source) {
    evfw_event *ev = g_store.alloc();
    if (ev != nullptr && source != nullptr) {
        ev->id = source->id;
        ev->chnl = source->chnl;
        ev->ext_id = source->ext_id;
    }
    return ev;
}

}  // namespace evfw_host

extern "C" {

void evfw_event_free(evfw_event_t *event) {
    if (event != nullptr) g_store.release(event);
}

uint32_t event_get_id(const evfw_event_t *event) {
    return event != nullptr ? event->id : 0;
}

int event_set_id(evfw_event_t *event, uint32_t id) {
    if (event == nullptr) return 0;
    event->id = id;
    return 1;
}

void *event_get_data(evfw_event_t *event, size_t offset, size_t *len) {
    size_t rest = 0;
    void *p = nullptr;
    if (event != nullptr && offset < event->len) {
        rest = event->len - offset;
        p = event->buf + offset;
    }
    if (len != nullptr) *len = rest;
    return p;
}

evfw_event_t *event_set_data(evfw_event_t *event, size_t offset, const void *data, size_t len) {
    if (event == nullptr || (data == nullptr && len != 0)) return nullptr;
    if (offset == 0 && len <= event->cap) {  // the whole data, where it fits
        if (len != 0) memmove(event->buf, data, len);
        event->len = len;
        return event;
    }
    return evfw_host::set_data_slow(event, offset, data, len);
}

}  // extern "C"

namespace evfw_host {

namespace {

// A new data block of `cap` bytes.  One of a page or more is allocated half
// a page longer, the slack poisoned under AddressSanitizer: blocks allocated
// one after the other then start half a page apart within their pages.
// glibc copies such sizes with `rep movsb`, which some x86 processors run
// several times slower when source and destination sit at nearly the same
// offset in their pages, as blocks of one size otherwise do: a 47 KB answer
// relayed from one block into the next took 19 us instead of 2.3 us.
uint8_t *new_block(size_t cap) {
    constexpr size_t kPage = 4096;
    const size_t slack = cap >= kPage && cap <= SIZE_MAX - kPage ? kPage / 2 : 0;
    auto *buf = static_cast<uint8_t *>(malloc(cap + slack));
    if (buf != nullptr) ASAN_POISON_MEMORY_REGION(buf + cap, slack);
    return buf;
}

}  // namespace

// Apart from the common case, so that the common case stays a leaf.
__attribute__((noinline)) evfw_event *set_data_slow(evfw_event *event, size_t offset,
                                                    const void *data, size_t len) {
    if (offset > SIZE_MAX - len) return nullptr;
    const size_t end = offset + len;
    if (end > event->cap) {
        // A fresh block rather than realloc: `data` may point into the old one.
        uint8_t *buf = nullptr;
        size_t cap = 0;
        if (!g_store.take_buffer(end, &buf, &cap)) {
            cap = event->cap;
            while (cap < end) cap = cap > SIZE_MAX / 2 ? end : cap * 2;
            buf = new_block(cap);
            if (buf == nullptr) return nullptr;
        }
        const size_t keep = offset < event->len ? offset : event->len;
        if (keep != 0) memcpy(buf, event->buf, keep);
        if (len != 0) memcpy(buf + offset, data, len);
        if (has_block(event)) g_store.give_buffer(event->buf, event->cap);
        event->buf = buf;
        event->cap = cap;
    } else if (len != 0) {
        memmove(event->buf + offset, data, len);
    }
    // A gap between the old end and offset reads as zeros.
    if (offset > event->len) memset(event->buf + event->len, 0, offset - event->len);
    event->len = end;
    return event;
}

}  // namespace evfw_host

extern "C" {

uint32_t evfw_event_get_ext_id(const evfw_event_t *event) {
    return event != nullptr ? event->ext_id : 0;
}

int evfw_event_cmp_chnl(const evfw_event_t *a, const evfw_event_t *b) {
    if (a == nullptr || b == nullptr || a->chnl == 0 || b->chnl == 0) return 0;
    int r = 0;
    if (a->chnl == b->chnl) r |= 1;
    if (a->ext_id != 0 && a->ext_id == b->ext_id) r |= 2;
    return r;
}

int rx_cond_event_id(const evfw_event_t *event, const void *arg, size_t arg_len) {
    if (event == nullptr || arg == nullptr || arg_len != sizeof(uint32_t)) return 0;
    uint32_t want;
    memcpy(&want, arg, sizeof want);
    return event->id == want ? 1 : 0;
}

}  // extern "C"

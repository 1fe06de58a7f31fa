// Events: allocation and accounting, the data block, routes.
#include "events.h"

#include <cstring>
#include <new>
#include <unordered_set>

#include "evfw_host/runtime.h"
#include "plugs.h"
#include "record.h"

namespace evfw_host {

namespace {

struct Store {
    std::unordered_set<evfw_event *> live;   // handed out in this round, not freed
    std::unordered_set<evfw_event *> older;  // of earlier rounds, not reclaimed
    long bad_frees = 0;
};

Store &store() {
    static Store *s = new Store;
    return *s;
}

}  // namespace

evfw_event *new_event(const Guard &, const evfw_event *source) {
    auto *ev = new (std::nothrow) evfw_event;
    if (ev == nullptr) return nullptr;
    if (source != nullptr) {
        ev->id = source->id;
        ev->chnl = source->chnl;
        ev->ext_id = source->ext_id;
    }
    store().live.insert(ev);
    return ev;
}

void free_event(const Guard &g, evfw_event *ev) {
    Store &s = store();
    if (s.live.erase(ev) == 0 && s.older.erase(ev) == 0) {
        ++s.bad_frees;
        diag(g, "evfw_event_free(%p): the event is not live (freed before?); ignored",
             static_cast<void *>(ev));
        return;
    }
    delete ev;
}

bool is_live(const Guard &, const evfw_event *ev) {
    auto *key = const_cast<evfw_event *>(ev);
    return store().live.count(key) != 0 || store().older.count(key) != 0;
}

void new_event_round(bool reclaim) {
    std::unordered_set<evfw_event *> left;
    {
        Guard g = lock();
        Store &s = store();
        s.bad_frees = 0;
        s.older.merge(s.live);
        if (reclaim) left.swap(s.older);
    }
    for (evfw_event *ev : left) delete ev;
}

long Runtime::live_events() const {
    Guard g = lock();
    return static_cast<long>(store().live.size());
}

long Runtime::bad_frees() const {
    Guard g = lock();
    return store().bad_frees;
}

}  // namespace evfw_host

using evfw_host::FaultCall;

extern "C" {

evfw_event_t *evfw_event_alloc(const evfw_event_t *source) {
    if (evfw_host::fault(FaultCall::EventAlloc)) return nullptr;
    return evfw_host::new_event(evfw_host::lock(), source);
}

void evfw_event_free(evfw_event_t *event) {
    if (event != nullptr) evfw_host::free_event(evfw_host::lock(), event);
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
    const bool inside = event != nullptr && offset < event->data.size();
    if (len != nullptr) *len = inside ? event->data.size() - offset : 0;
    return inside ? event->data.data() + offset : nullptr;
}

evfw_event_t *event_set_data(evfw_event_t *event, size_t offset, const void *data, size_t len) {
    if (event == nullptr || (data == nullptr && len != 0) || offset > SIZE_MAX - len) {
        return nullptr;
    }
    std::vector<uint8_t> &block = event->data;
    const auto *src = static_cast<const uint8_t *>(data);
    try {
        // Data from the event's own block is copied first: resizing the
        // block may move it.
        std::vector<uint8_t> own;
        if (len != 0 && src >= block.data() && src < block.data() + block.size()) {
            own.assign(src, src + len);
            src = own.data();
        }
        block.resize(offset);  // a gap between the old end and offset reads as zeros
        block.insert(block.end(), src, src + len);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    return event;
}

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

// Events: what one is, and the store that hands them out and accounts for
// them.  Every event comes from new_event and goes back through free_event;
// the store keeps the set of live events, so that a second free, or a free
// of something that is no event, is caught without reading its memory.
#ifndef EVFW_HOST_EVENTS_H
#define EVFW_HOST_EVENTS_H

#include <cstdint>
#include <vector>

#include "evfw.h"
#include "lock.h"

struct evfw_event {
    uint32_t id = 0;
    uint32_t chnl = 0;    // route: the channel of the context it came from
    uint32_t ext_id = 0;  // route: that context's external id, 0 for a task
    std::vector<uint8_t> data;
};

namespace evfw_host {

// A new event; with `source`, it takes the source's id and route.  Not
// subject to fault plans: the runtime's own events (peers, copies) use it.
evfw_event *new_event(const Guard &, const evfw_event *source);
// Frees a live event; anything else is counted as a bad free and reported.
void free_event(const Guard &, evfw_event *ev);
bool is_live(const Guard &, const evfw_event *ev);

// Starts a new accounting round: the events still live no longer count.
// With `reclaim` they are freed, so that what a finished run left behind
// does not pile up over many runs; else they stay valid to free.
void new_event_round(bool reclaim);

}  // namespace evfw_host

#endif  // EVFW_HOST_EVENTS_H

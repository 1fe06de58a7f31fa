// Symbolic names of event and context ids, from the framework's registry and
// the external clients' own names.
#include "evfw_ids.h"
#include "router.h"

namespace evfw_host {

const char *task_name(uint32_t task_id) {
    switch (task_id) {
#define EVFW_HOST_TASK_NAME(name, value) \
    case value:                          \
        return #name;
        EVFW_TASK_LIST(EVFW_HOST_TASK_NAME)
#undef EVFW_HOST_TASK_NAME
        default:
            return "UNKNOWN_CONTEXT";
    }
}

}  // namespace evfw_host

extern "C" {

const char *event_get_name(uint32_t event_id) {
    switch (event_id) {
#define EVFW_HOST_EVENT_NAME(name, value) \
    case value:                           \
        return #name;
        EVFW_EVENT_LIST(EVFW_HOST_EVENT_NAME)
#undef EVFW_HOST_EVENT_NAME
        default:
            return "UNKNOWN_EVENT";
    }
}

// A client's name lives as long as its context: until the runtime's reset.
const char *context_get_name(uint32_t context_id) {
    if (context_id < EVFW_EXT_ID_BASE) return evfw_host::task_name(context_id);
    evfw_host::Guard g = evfw_host::lock();
    const evfw_context *c = evfw_host::find_context(g, context_id);
    return c != nullptr ? c->name.c_str() : "UNKNOWN_CONTEXT";
}

}  // extern "C"

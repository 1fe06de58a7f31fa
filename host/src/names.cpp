// Symbolic names of event and context ids, from the framework's registry.
#include "evfw_ids.h"
#include "internal.h"

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

std::string TraceEntry::event_name() const {
    return event_get_name(event_id);
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

const char *context_get_name(uint32_t context_id) {
    if (context_id < EVFW_EXT_ID_BASE) return evfw_host::task_name(context_id);
    const char *name = evfw_host::core().client_name(context_id);
    return name != nullptr ? name : "UNKNOWN_CONTEXT";
}

}  // extern "C"

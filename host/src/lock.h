// The runtime's one lock.
//
// It guards all of the runtime's state: contexts and queues, the events'
// accounting, the trace, logs, properties, fault plans, records and
// diagnostics.  It is a leaf towards the code the runtime hosts: no entity
// handler, peer handler or thread routine ever runs while it is held.
// Functions that expect it held take the guard as their first parameter;
// the others take it themselves.
#ifndef EVFW_HOST_LOCK_H
#define EVFW_HOST_LOCK_H

#include <mutex>

namespace evfw_host {

using Guard = std::unique_lock<std::mutex>;

// Never destroyed: a thread still running while the process exits, or a
// static object's destructor, may still call the framework.
inline std::mutex &runtime_mutex() {
    static std::mutex *mu = new std::mutex;
    return *mu;
}

inline Guard lock() {
    return Guard(runtime_mutex());
}

}  // namespace evfw_host

#endif  // EVFW_HOST_LOCK_H

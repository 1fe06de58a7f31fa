// The runtime as tests and tools hold it: its instance, reset and new rounds.
// Its other members live with the state they read.
#include <unistd.h>

#include "entities.h"
#include "plugs.h"
#include "record.h"
#include "router.h"

namespace evfw_host {

Runtime &Runtime::instance() {
    static Runtime *rt = new Runtime;
    return *rt;
}

void Runtime::reset(Mode mode) {
    reset_routing(mode);
    {
        Guard g = lock();
        reset_entities(g);
        reset_record(g, true);
        reset_logs(g, true);
        reset_properties(g);
        reset_faults(g);
    }
    last_error_.clear();
    new_event_round(reclaim_on_reset());
    rvn_pid = getpid();
}

void Runtime::new_round() {
    drop_queued();
    {
        Guard g = lock();
        reset_record(g, false);
        reset_logs(g, false);
        reset_properties(g);
        reset_faults(g);
    }
    new_event_round(true);
}

const std::string &Runtime::last_error() const {
    return last_error_;
}

}  // namespace evfw_host

// A private network namespace for a run, with the data interfaces that the
// scenario declares (veth pdnetN with its IPv6 addresses), so that the data
// manager's IPv6 completion finds real addresses on them.
#ifndef DM_SIM_NETNS_H
#define DM_SIM_NETNS_H

#include <string>
#include <vector>

#include "sim/scenario.h"

namespace dm::sim {

enum class NetnsResult { kOk, kUnprivileged, kFailed };

// Moves the calling process (it must not have started threads) into a new
// network namespace and creates the interfaces there.
NetnsResult enter_netns(const std::vector<IfaceDecl> &ifaces, std::string &error);

}  // namespace dm::sim

#endif  // DM_SIM_NETNS_H

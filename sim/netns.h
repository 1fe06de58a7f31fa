// A private network namespace for a run, with the data interfaces that the
// scenario declares (veth pdnetN), so that the data manager's IPv6
// completion finds real addresses on them: addresses given by the scenario,
// or configured by the kernel itself (SLAAC) from the router advertisement
// that a router on the veth's far end sends.
#ifndef DM_SIM_NETNS_H
#define DM_SIM_NETNS_H

#include <chrono>
#include <string>
#include <vector>

#include "sim/scenario.h"

namespace dm::sim {

// kUnprivileged: no namespace can be made here (not root, no capability, or
// a kernel without network namespaces); the tests skip.
enum class NetnsResult { kOk, kUnprivileged, kFailed };

// Moves the calling process (it must not have started threads) into a new
// network namespace and creates the interfaces there, duplicate address
// detection off.  An RA-configured interface (iface-ra) accepts router
// advertisements and its far end does not; it has no global address until
// advertise() runs its router.
NetnsResult enter_netns(const std::vector<IfaceDecl> &ifaces, std::string &error);

// What the kernel made of the advertisement on an RA-configured interface.
struct Slaac {
    std::string ifname;
    std::string prefix;   // the prefix it learned, as an address: "2001:db8:4::"
    std::string address;  // the address it configured from it
};

// How long advertise() waits for the kernel.
constexpr std::chrono::seconds kAdvertiseWait{30};

// Runs a router (radvd) on the far end of each RA-configured interface and
// waits, on route-netlink, until the kernel has configured an address from
// each advertised prefix; then stops the routers.  false with the reason
// when a router cannot run or the kernel has configured nothing in time.
bool advertise(const std::vector<IfaceDecl> &ifaces, std::vector<Slaac> &learned,
               std::string &error);

// The namespace of a scenario: enter_netns(), advertise(), and then what the
// network daemon does on the device with what the kernel learned: each
// interface's prefix property ("net.ipv6.<name>.prefix") is published, as a
// property step before the first; and the values slaac:<name> of the steps
// become the kernel's address.
NetnsResult enter_scenario_netns(Scenario &sc, std::string &error);

}  // namespace dm::sim

#endif  // DM_SIM_NETNS_H

// A private network namespace for the tests that read the kernel's interface
// addresses or talk route netlink: each such test enters a fresh, empty
// namespace of its own, brings up lo and creates the data interfaces it needs
// as veth pairs ("pdnet4" with peer "pdnet40").  Needs CAP_SYS_ADMIN; without
// it the test is skipped with the reason, never passed silently.
#ifndef TESTS_IMS_NETNS_H
#define TESTS_IMS_NETNS_H

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace ims_test {

// Runs a shell command line; true when it exits 0.
inline bool sh(const std::string &command) {
    std::string quiet = command + " >/dev/null 2>&1";
    return system(quiet.c_str()) == 0;
}

// Enters a new network namespace with lo up.  Empty on success, else why not.
inline std::string enter_private_netns() {
    if (unshare(CLONE_NEWNET) != 0) {
        return std::string("cannot enter a private network namespace (unshare(CLONE_NEWNET): ") +
               strerror(errno) + "); this test needs root or CAP_SYS_ADMIN";
    }
    if (!sh("ip link set lo up")) return "the 'ip' tool is missing or failed to bring up lo";
    return {};
}

// A data interface "pdnet<n>" (veth, peer "pdnet<n>0"), both ends up.
inline bool add_data_interface(int n) {
    std::string name = "pdnet" + std::to_string(n);
    return sh("ip link add " + name + " type veth peer name " + name + "0") &&
           sh("ip link set " + name + " up") && sh("ip link set " + name + "0 up");
}

// Adds or removes an IPv6 address ("2001:db8:1:2::5/64"), without duplicate
// address detection so that it is usable at once.
inline bool add_ipv6(const std::string &ifname, const std::string &cidr) {
    return sh("ip -6 addr add " + cidr + " dev " + ifname + " nodad");
}
inline bool del_ipv6(const std::string &ifname, const std::string &cidr) {
    return sh("ip -6 addr del " + cidr + " dev " + ifname);
}

}  // namespace ims_test

// Enters the namespace or skips the test (use in a test body or SetUp).
#define IMS_ENTER_PRIVATE_NETNS()                                 \
    do {                                                          \
        std::string why_not_ = ::ims_test::enter_private_netns(); \
        if (!why_not_.empty()) GTEST_SKIP() << why_not_;          \
    } while (0)

#endif  // TESTS_IMS_NETNS_H

// Fuzzes the route-netlink receive walk: the bytes of one receive, whose
// message and attribute lengths may lie, go to parse_netlink_msg, to
// recv_netlink_msg through a datagram socket (so the count it walks is the
// kernel's), and, when they hold one whole message, to nl_no_ra_handle.  The
// bytes sit in a buffer of exactly their size, so any read past them is
// caught.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "evfw_host/runtime.h"
#include "fuzz/fuzz.h"
#include "ims/netlink_listener.h"

namespace {

int g_socks[2] = {-1, -1};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Nothing here reads the log back: lines are formatted and dropped.
    evfw_host::Runtime::instance().set_log_capture(false);
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, g_socks) != 0) std::abort();
    // Room for the largest receive the listener makes, and more.
    int size = 1 << 20;
    setsockopt(g_socks[0], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    setsockopt(g_socks[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    dm::fuzz::Reader in({data, size});
    const uint8_t mode = in.u8();
    auto received = in.rest();

    // Exactly the received bytes, aligned as a receive buffer is.
    std::unique_ptr<uint8_t[]> buf(new uint8_t[received.empty() ? 1 : received.size()]);
    if (!received.empty()) std::memcpy(buf.get(), received.data(), received.size());

    if (mode & dm::fuzz::kNlParse) parse_netlink_msg(buf.get(), received.size());

    // nl_no_ra_handle's caller hands over one whole message: nlmsg_len bytes are there.
    const auto *hdr = reinterpret_cast<const struct nlmsghdr *>(buf.get());
    if ((mode & dm::fuzz::kNlNoRa) && received.size() >= sizeof(*hdr) &&
        hdr->nlmsg_len <= received.size())
        nl_no_ra_handle(hdr);

    if ((mode & dm::fuzz::kNlReceive) && received.size() <= kNetlinkRecvBufLen &&
        send(g_socks[1], received.data(), received.size(), 0) ==
                static_cast<ssize_t>(received.size()))
        recv_netlink_msg(g_socks[0]);
    return 0;
}

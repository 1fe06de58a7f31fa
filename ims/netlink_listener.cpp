// The route-netlink listener: asks the kernel for every IPv6 address, then
// reads and logs what arrives, one receive at a time, for good.
#include "ims/netlink_listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "entity/dm_log.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Ims;

const int32_t RTM_NORA = 110;

namespace {

// The walk of a received buffer reports as part of the receive.
constexpr const char *kRecvFn = "recv_netlink_msg";

constexpr size_t kIpv6Len = 16;
constexpr size_t kAddrTextLen = 128;
constexpr size_t kIfaMsgLen = NLMSG_LENGTH(sizeof(struct ifaddrmsg));

// The dump request for every IPv6 address.
struct DumpReq {
    struct nlmsghdr hdr;
    struct ifaddrmsg ifa;
};
static_assert(sizeof(DumpReq) == 24);

size_t align4(size_t len) {
    return (len + 3) & ~size_t{3};
}

// First bytes of an address that carry no usable prefix: all-zero,
// loopback and v4-embedded (0x00..), link and site local (0xfe..); and any
// address whose second byte is 0x80 or 0xc0, whatever its first.  The test
// goes by those two bytes alone: 2001:8000::1 has 0x01 as its second byte
// (0x80 is its third), so its prefix 2001:8000:: is logged like any other.
bool has_usable_prefix(const uint8_t *addr) {
    return addr[0] != 0x00 && addr[0] != 0xfe && addr[1] != 0x80 && addr[1] != 0xc0;
}

// Walks the route attributes of one address message (`space` bytes).  true
// when a usable prefix was found and logged: the walk of the buffer stops.
bool walk_attributes(const uint8_t *attrs, size_t space, unsigned prefix_len) {
    while (space >= sizeof(struct rtattr)) {
        struct rtattr rta;
        memcpy(&rta, attrs, sizeof(rta));
        if (rta.rta_len < sizeof(struct rtattr) || rta.rta_len > space) break;
        DM_LOGI_AS(kRecvFn, "data = %2x, type = %d, IFA_ADDRESS = %d\n", rta.rta_len & 0xffu,
                   rta.rta_type, IFA_ADDRESS);
        if (rta.rta_type == IFA_ADDRESS) {
            if (rta.rta_len < RTA_LENGTH(kIpv6Len)) {
                // A link message's hardware address, or a broken attribute:
                // it holds no IPv6 address to read.
                DM_LOGW_AS(kRecvFn, "%s address attribute len %d too short\n", kRecvFn,
                           rta.rta_len);
            } else {
                uint8_t addr[kIpv6Len];
                memcpy(addr, attrs + RTA_LENGTH(0), sizeof(addr));
                char text[kAddrTextLen] = {};
                inet_ntop(AF_INET6, addr, text, sizeof(text));
                DM_LOGI_AS(kRecvFn, "address = %s, prefix len = %d\n", text, prefix_len);
                if (has_usable_prefix(addr)) {
                    DM_LOGI_AS(kRecvFn, "prefix : %2x%2x:%2x%2x:%2x%2x:%2x%2x::\n", addr[0],
                               addr[1], addr[2], addr[3], addr[4], addr[5], addr[6], addr[7]);
                    return true;
                }
            }
        }
        size_t step = align4(rta.rta_len);
        if (step >= space) break;
        space -= step;
        attrs += step;
    }
    return false;
}

}  // namespace

int32_t parse_netlink_msg(const void *buf, size_t len) {
    const auto *bytes = static_cast<const uint8_t *>(buf);
    size_t remaining = bytes != nullptr ? len : 0;

    // Every message is read as an address message, whatever its type.
    while (remaining >= NLMSG_HDRLEN) {
        struct nlmsghdr hdr;
        memcpy(&hdr, bytes, sizeof(hdr));
        if (hdr.nlmsg_len < NLMSG_HDRLEN || hdr.nlmsg_len > remaining) break;
        DM_LOGI_AS(kRecvFn, "netlink message len = %d\n", static_cast<int>(remaining));

        if (hdr.nlmsg_len < kIfaMsgLen) {
            DM_LOGW_AS(kRecvFn, "%s message len %u type %u holds no address\n", kRecvFn,
                       hdr.nlmsg_len, hdr.nlmsg_type);
        } else {
            struct ifaddrmsg ifa;
            memcpy(&ifa, bytes + NLMSG_HDRLEN, sizeof(ifa));
            char name[IF_NAMESIZE] = {};
            if_indextoname(ifa.ifa_index, name);
            DM_LOGI_AS(kRecvFn, "if name = %s, if index = %d\n", name,
                       static_cast<int>(ifa.ifa_index));
            if (walk_attributes(bytes + kIfaMsgLen, hdr.nlmsg_len - kIfaMsgLen,
                                ifa.ifa_prefixlen)) {
                return 0;
            }
        }

        size_t step = align4(hdr.nlmsg_len);
        if (step >= remaining) break;
        remaining -= step;
        bytes += step;
    }
    return -1;
}

int32_t nl_no_ra_handle(const struct nlmsghdr *msg) {
    if (msg == nullptr) {
        DM_LOGE("%s: no message\n", __func__);
        return -1;
    }
    if (msg->nlmsg_type != RTM_NORA) {
        DM_LOGE("%s: incorrect message type %d\n", __func__, msg->nlmsg_type);
        return -1;
    }
    if (msg->nlmsg_len < kIfaMsgLen) {
        DM_LOGE("%s: message len %u too short\n", __func__, msg->nlmsg_len);
        return -1;
    }
    struct ifaddrmsg ifa;
    memcpy(&ifa, reinterpret_cast<const uint8_t *>(msg) + NLMSG_HDRLEN, sizeof(ifa));
    if (ifa.ifa_family != AF_INET6) {
        DM_LOGE("%s wrong family %d\n", __func__, ifa.ifa_family);
        return -1;
    }
    char name[IF_NAMESIZE] = {};
    if_indextoname(ifa.ifa_index, name);
    DM_LOGI("%s no RA message for %s", __func__, name);
    return 0;
}

int32_t init_netlink_conn(void) {
    // Close-on-exec: the network daemon's tool is run from this process.
    int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (sock < 0) {
        DM_LOGE("%s open netlink socket error\n", __func__);
        return -1;
    }
    struct sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = 0;  // the kernel assigns the port
    addr.nl_groups = kNetlinkListenGroups;
    if (bind(sock, reinterpret_cast<const struct sockaddr *>(&addr), sizeof(addr)) < 0) {
        DM_LOGE("%s bind netlink socket error\n", __func__);
        close(sock);
        return -1;
    }
    return sock;
}

int32_t send_netlink_msg(int32_t sock) {
    DumpReq req = {};
    req.hdr.nlmsg_len = sizeof(req);
    req.hdr.nlmsg_type = RTM_GETADDR;
    req.hdr.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
    req.ifa.ifa_family = AF_INET6;
    if (send(sock, &req, sizeof(req), 0) < 0) {
        DM_LOGE("send netlink message error\n");
        return -1;
    }
    DM_LOGI("Send the netlink message\n");
    return 0;
}

int32_t recv_netlink_msg(int32_t sock) {
    DM_LOGI("%s %d\n", __func__, sock);
    alignas(struct nlmsghdr) uint8_t buf[kNetlinkRecvBufLen];
    ssize_t count = recv(sock, buf, sizeof(buf), 0);
    if (count < 0) {
        // Nothing arrived: there is nothing to walk.  The listener reads on.
        DM_LOGE("%s recv fail errno %d\n", __func__, errno);
        return 0;
    }
    DM_LOGI("Parsing reply message\n");
    parse_netlink_msg(buf, static_cast<size_t>(count));
    return 0;
}

int32_t dm_run_netlink_listener(void) {
    DM_LOGI("%s\n", __func__);
    int32_t sock = init_netlink_conn();
    if (sock < 0) {
        DM_LOGE("%s init netlink socket fail\n", __func__);
        return -1;
    }
    if (send_netlink_msg(sock) != 0) {
        close(sock);
        return -1;
    }
    // The receive reports no failure, so this loop is the listener's life.
    while (recv_netlink_msg(sock) != -1) {
    }
    close(sock);
    return 0;
}

int32_t dm_netlink_listen_req(const NetlinkListenReq *req, evfw_event_t *) {
    if (req == nullptr) {
        DM_LOGE("%s no request\n", __func__);
        return -1;
    }
    DM_LOGI("%s type %d\n", __func__, req->type);
    dm_run_netlink_listener();
    return 0;
}

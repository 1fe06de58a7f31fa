// A diagnostic listener on the kernel's routing netlink.  On request it opens
// a route-netlink socket subscribed to link and IPv6 address, route and
// prefix events, asks the kernel for all IPv6 addresses and then reads and
// logs what arrives for good: interface names, addresses and the first usable
// /64 prefix of each batch.  Nothing else in the data manager uses what it
// finds.  nl_no_ra_handle recognises the kernel's report that no router
// advertisement was received (RTM_NORA).
//
// The listener runs on the thread that starts it and never gives it back; it
// touches no shared state.
#ifndef IMS_NETLINK_LISTENER_H
#define IMS_NETLINK_LISTENER_H

#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"

// Route-netlink groups of the listener: RTMGRP_LINK | RTMGRP_IPV6_IFADDR |
// RTMGRP_IPV6_ROUTE | RTMGRP_IPV6_PREFIX.
constexpr uint32_t kNetlinkListenGroups = 0x20501;
constexpr size_t kNetlinkRecvBufLen = 16384;

// The listen request (4070): its type is only logged.
struct NetlinkListenReq {
    uint32_t type;
};
static_assert(sizeof(NetlinkListenReq) == 4);

extern "C" {

// Netlink message type of the platform kernel's "no router advertisement".
DM_EXPORT extern const int32_t RTM_NORA;

// Handler form (payload, event): runs the listener on the calling thread.
DM_EXPORT int32_t dm_netlink_listen_req(const NetlinkListenReq *req, evfw_event_t *event);
// -1 when the socket cannot be set up or the dump request not sent;
// otherwise it does not return.
DM_EXPORT int32_t dm_run_netlink_listener(void);
// The bound socket, or -1.
DM_EXPORT int32_t init_netlink_conn(void);
// Sends the dump request for every IPv6 address.  0 / -1.
DM_EXPORT int32_t send_netlink_msg(int32_t sock);
// Reads once and walks what arrived.  Always 0.
DM_EXPORT int32_t recv_netlink_msg(int32_t sock);
// Walks `len` received bytes as address messages, logging each address and
// the first usable /64 prefix.  0 when a prefix was found, -1 otherwise.
int32_t parse_netlink_msg(const void *buf, size_t len);
// 0 for a valid no-RA message (its nlmsg_len bytes are read), else -1.
DM_EXPORT int32_t nl_no_ra_handle(const struct nlmsghdr *msg);

}  // extern "C"

#endif  // IMS_NETLINK_LISTENER_H

// IPv6 address discovery: classification, the /64 prefix of a PDN, the
// global address on its data interface, and the completion of IMS data-call
// records with that address.
#include "ims/ipv6_addr.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <cutils/properties.h>

#include "entity/dm_log.h"
#include "ims/ims_pdn.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Ims;

// The 16 bytes of an address as printf arguments.
#define DM_IPV6_BYTES(a)                                                                     \
    (a)[0], (a)[1], (a)[2], (a)[3], (a)[4], (a)[5], (a)[6], (a)[7], (a)[8], (a)[9], (a)[10], \
            (a)[11], (a)[12], (a)[13], (a)[14], (a)[15]
#define DM_IPV6_FMT "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x"

namespace {

constexpr size_t kPropBufLen = 128;
constexpr uint32_t kIpv6FailStatus = static_cast<uint32_t>(-7);

bool all_zero(const uint8_t *bytes, size_t from, size_t to) {
    return std::all_of(bytes + from, bytes + to, [](uint8_t b) { return b == 0; });
}

// Reads the network daemon's prefix property of `ifname` into `prefix`:
// once, or polled up to kPrefixPollAttempts times with a warning and a sleep
// after each empty read.  Logs for `fn`.
int32_t prefix_from_property(const char *fn, const char *ifname, uint8_t *prefix, bool poll) {
    char key[kPropBufLen];
    snprintf(key, sizeof(key), "net.ipv6.%s.prefix", ifname);
    char value[kPropBufLen] = {};

    if (poll) {
        for (int attempt = 0; attempt < kPrefixPollAttempts; ++attempt) {
            if (property_get(key, value, nullptr) != 0) break;
            DM_LOGW_AS(fn, "%s get prefix fail retry %d\n", fn, attempt + 1);
            usleep(kPrefixPollDelayUs);
        }
    } else {
        property_get(key, value, nullptr);
    }

    if (value[0] == '\0') {
        DM_LOGE_AS(fn, "%s get property fail\n", fn);
        return -1;
    }
    DM_LOGD_AS(fn, "%s prefix_value : %s\n", fn, value);
    // The whole text must be an address: "2001:db8::/64" does not parse.
    if (inet_pton(AF_INET6, value, prefix) != 1) return -1;
    DM_LOGD_AS(fn, "%s get prefix %s for %s \n", fn, value, ifname);
    return 0;
}

// An IPv6-only record whose address cannot be completed fails with status
// -7; it must not go out as a working PDN.
int32_t fail_ipv6_only(const char *op, SetupDataCallResp *resp) {
    resp->status = kIpv6FailStatus;
    DM_LOGE_AS(op, "ipv6 fail\n");
    return -1;
}

}  // namespace

int32_t dm_ipv6_is_global(const uint8_t a[kIpv6AddrLen]) {
    DM_LOGI("%s ipv6 %02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x."
            "%02x is\n",
            __func__, DM_IPV6_BYTES(a));

    if (a[0] == 0xff) {
        if ((a[1] & 0x0f) == 0x0e) {
            DM_LOGI("global multicast address\n");
        } else {
            DM_LOGI("local multicast address\n");
        }
        return 0;
    }
    if (a[0] == 0xfe && (a[1] & 0xc0) == 0x80) {
        DM_LOGI("link local address\n");
        return 0;
    }
    if (a[0] == 0xfe && (a[1] & 0xc0) == 0xc0) {
        DM_LOGI("site local address\n");
        return 0;
    }
    if (all_zero(a, 0, 10) && a[10] == 0xff && a[11] == 0xff) {
        DM_LOGI("v4 mapped address\n");
        return 0;
    }
    if (all_zero(a, 0, 12) && !all_zero(a, 12, 16) &&
        !(a[12] == 0 && a[13] == 0 && a[14] == 0 && a[15] == 1)) {
        DM_LOGI("v4 compat address\n");
        return 0;
    }
    if (all_zero(a, 0, 15) && a[15] == 1) {
        DM_LOGI("loop back address\n");
        return 0;
    }
    if (all_zero(a, 0, 16)) {
        DM_LOGI("unspecified address\n");
        return 0;
    }
    // Unique local addresses count as global, and so does anything starting
    // 0xfe that is neither link nor site local.
    if (a[0] == 0xfc || a[0] == 0xfd) {
        DM_LOGI("uni-local address\n");
    } else {
        DM_LOGI("glocal unicast address\n");
    }
    return 1;
}

int32_t dm_get_ipv6_prefix(const SetupDataCallResp *resp, int once, uint8_t prefix[kIpv6AddrLen]) {
    if (dm_ipv6_is_global(resp->ipv6_addr) != 0) {
        memcpy(prefix, resp->ipv6_addr, kIpv6PrefixLen);
        DM_LOGD("get ipv6 prefix %02x%02x:%02x%02x:%02x%02x:%02x%02x from global address\n",
                prefix[0], prefix[1], prefix[2], prefix[3], prefix[4], prefix[5], prefix[6],
                prefix[7]);
        // A global address can begin with eight zero bytes: ::2:0:0:1 is none
        // of the special classes, so it counts as global unicast.  Its prefix
        // would be all zero, which no interface carries: refused.
        return all_zero(prefix, 0, kIpv6PrefixLen) ? -1 : 0;
    }

    dm::FieldText ifname(resp->ifname);
    if (once != 0) {
        if (dm_get_ipv6_prefix_once_from_netd(ifname.c_str(), prefix) != 0) {
            DM_LOGE("get ipv6 prefix once fail for %s\n", ifname.c_str());
            return -1;
        }
        return 0;
    }
    if (dm_get_ipv6_prefix_from_netd(ifname.c_str(), prefix) != 0) {
        DM_LOGE("get ipv6 prefix fail for %s\n", ifname.c_str());
        return -1;
    }
    return 0;
}

int32_t dm_get_ipv6_prefix_from_netd(const char *ifname, uint8_t prefix[kIpv6AddrLen]) {
    return prefix_from_property(__func__, ifname, prefix, true);
}

int32_t dm_get_ipv6_prefix_once_from_netd(const char *ifname, uint8_t prefix[kIpv6AddrLen]) {
    return prefix_from_property(__func__, ifname, prefix, false);
}

int32_t dm_get_global_ipv6_addr(const SetupDataCallResp *resp, const uint8_t prefix[kIpv6AddrLen],
                                uint8_t addr[kIpv6AddrLen]) {
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        DM_LOGE("getifaddrs failed");
        return -1;
    }

    // The address the RIL reported, under the interface's prefix.
    uint8_t expected[kIpv6AddrLen];
    memcpy(expected, resp->ipv6_addr, kIpv6AddrLen);
    memcpy(expected, prefix, kIpv6PrefixLen);
    memcpy(addr, expected, kIpv6AddrLen);

    dm::FieldText ifname(resp->ifname);
    auto ipv6_of = [](const struct ifaddrs *entry) -> const uint8_t * {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) return nullptr;
        return reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr)->sin6_addr.s6_addr;
    };
    auto on_interface = [&ifname](const struct ifaddrs *entry) {
        return entry->ifa_name != nullptr && strcmp(entry->ifa_name, ifname.c_str()) == 0;
    };

    int32_t ret = -1;
    // An address that differs from the modem's choice is the one the kernel
    // formed from the router advertisement: it wins.
    for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        const uint8_t *a = ipv6_of(entry);
        if (a == nullptr) continue;
        DM_LOGD("ipv6 " DM_IPV6_FMT "\n", DM_IPV6_BYTES(a));
        if (on_interface(entry) && memcmp(a, prefix, kIpv6PrefixLen) == 0 &&
            memcmp(a, expected, kIpv6AddrLen) != 0) {
            memcpy(addr, a, kIpv6AddrLen);
            DM_LOGI("found ipv6 addrss not equal to the address reported by rild\n");
            ret = 0;
            break;
        }
    }
    if (ret != 0) {
        for (const struct ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
            const uint8_t *a = ipv6_of(entry);
            if (a != nullptr && on_interface(entry) && memcmp(a, expected, kIpv6AddrLen) == 0) {
                DM_LOGI("found ipv6 addrss equal to the address reported by rild\n");
                ret = 0;
                break;
            }
        }
        if (ret != 0) DM_LOGE("not found global ipv6 addrss\n");
    }

    freeifaddrs(list);
    return ret;
}

void dm_ipv6_complete_for_query(const char *op, SetupDataCallResp *resp, ImsParaSlot *slot) {
    uint8_t prefix[kIpv6AddrLen] = {};
    uint8_t addr[kIpv6AddrLen] = {};
    dm::FieldText ifname(resp->ifname);

    if (dm_get_ipv6_prefix(resp, 0, prefix) != 0) {
        DM_LOGE_AS(op, "get ipv6 prefix fail for %s\n", ifname.c_str());
        if (resp->pdp_type == kPdpIpv6) {
            fail_ipv6_only(op, resp);
        } else {
            resp->pdp_type = kPdpIpv4;
            DM_LOGE_AS(op, "%s fallback to IPv4\n", ifname.c_str());
        }
        return;
    }
    if (dm_get_global_ipv6_addr(resp, prefix, addr) != 0) {
        DM_LOGE_AS(op, "get ipv6 global address for %s fail\n", ifname.c_str());
        if (resp->pdp_type == kPdpIpv6) {
            fail_ipv6_only(op, resp);
        } else {
            resp->pdp_type = kPdpIpv4;
            DM_LOGE_AS(op, "fallback to IPv4\n");
        }
        return;
    }

    DM_LOGI_AS(op, "get ipv6 global address for %s success\n", ifname.c_str());
    memcpy(resp->ipv6_addr, addr, kIpv6AddrLen);
    DM_LOGD_AS(op, "ipv6 global address = " DM_IPV6_FMT "\n", DM_IPV6_BYTES(resp->ipv6_addr));
    memcpy(slot->saved_global_addr, addr, kIpv6AddrLen);
    DM_LOGD_AS(op, "saved ipv6 global address = " DM_IPV6_FMT "\n",
               DM_IPV6_BYTES(slot->saved_global_addr));
}

int32_t dm_ipv6_complete_for_indication(const char *op, SetupDataCallResp *resp,
                                        ImsParaSlot *slot) {
    uint8_t prefix[kIpv6AddrLen] = {};
    uint8_t addr[kIpv6AddrLen] = {};
    dm::FieldText ifname(resp->ifname);

    if (dm_get_ipv6_prefix(resp, 0, prefix) != 0) {
        DM_LOGE_AS(op, "get ipv6 prefix fail for %s\n", ifname.c_str());
        if (resp->pdp_type == kPdpIpv6) return fail_ipv6_only(op, resp);
        resp->pdp_type = kPdpIpv4;
        DM_LOGE_AS(op, "fallback to ipv4\n");
        return 0;
    }

    // Same prefix as the address last given to the IMS manager: the
    // interface still carries that address, no need to read it again.
    if (memcmp(prefix, slot->saved_global_addr, kIpv6PrefixLen) == 0) {
        memcpy(resp->ipv6_addr, slot->saved_global_addr, kIpv6AddrLen);
        DM_LOGD_AS(op, "prefix not changed, use precious ipv6 address:");
        DM_LOGD_AS(op, DM_IPV6_FMT "\n", DM_IPV6_BYTES(resp->ipv6_addr));
        return 0;
    }

    DM_LOGI_AS(op, "prefix changed, need get ipv6 address from interface\n");
    if (dm_get_global_ipv6_addr(resp, prefix, addr) != 0) {
        DM_LOGE_AS(op, "get ipv6 global address for %s fail\n", ifname.c_str());
        if (resp->pdp_type == kPdpIpv6) return fail_ipv6_only(op, resp);
        resp->pdp_type = kPdpIpv4;
        DM_LOGE_AS(op, "fallback to ipv4\n");
        return 0;
    }
    DM_LOGI_AS(op, "get ipv6 global address for %s success\n", ifname.c_str());
    memcpy(resp->ipv6_addr, addr, kIpv6AddrLen);
    DM_LOGD_AS(op, "ipv6 global address = " DM_IPV6_FMT "\n", DM_IPV6_BYTES(resp->ipv6_addr));
    memcpy(slot->saved_global_addr, addr, kIpv6AddrLen);
    return 0;
}

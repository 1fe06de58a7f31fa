// DNS servers of a network for the Android network daemon: one
// "ndc resolver setnetdns" command line, run through the shell.  Exported for
// other modules of the daemon; nothing in the data manager calls it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "entity/dm_log.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

namespace {

constexpr size_t kAddrTextLen = 64;
constexpr size_t kIpv4Len = 4;
constexpr size_t kIpv6Len = 16;

// Appends `text` within the command buffer.
void append(char *cmd, const char *text) {
    size_t used = strnlen(cmd, kDnsCmdLen - 1);
    snprintf(cmd + used, kDnsCmdLen - used, "%s", text);
}

// Writes `count` into its slot of the record (unaligned: as bytes) and gives
// the slot's count back, by which the servers are stored.
uint32_t stored_count(uint8_t (&slot)[sizeof(uint32_t)], uint32_t count) {
    memcpy(slot, &count, sizeof(count));
    memcpy(&count, slot, sizeof(count));
    return count;
}

}  // namespace

int32_t append_ipv4_addr(char *cmd, const uint8_t *addr) {
    if (addr == nullptr) {
        DM_LOGE("%s no address\n", __func__);
        return -1;
    }
    char text[kAddrTextLen] = {};
    snprintf(text, sizeof(text), " %d.%d.%d.%d", addr[0], addr[1], addr[2], addr[3]);
    append(cmd, text);
    return 0;
}

int32_t append_ipv6_addr(char *cmd, const uint8_t *addr) {
    if (addr == nullptr) {
        DM_LOGE("%s no address\n", __func__);
        return -1;
    }
    // Every group in full, with its leading zeros: the daemon gets no "::".
    char text[kAddrTextLen] = {};
    snprintf(text, sizeof(text),
             " %02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", addr[0],
             addr[1], addr[2], addr[3], addr[4], addr[5], addr[6], addr[7], addr[8], addr[9],
             addr[10], addr[11], addr[12], addr[13], addr[14], addr[15]);
    append(cmd, text);
    return 0;
}

int32_t dm_network_config(const char *ifname, uint32_t is_ipv6, const uint8_t *addr,
                          const uint8_t *dns1, uint32_t dns_count, const uint8_t *dns2,
                          const uint8_t *dns3, int32_t net_id, DnsRecord *record) {
    char cmd[kDnsCmdLen] = {};
    DM_LOGI("%s interface %s network id : %d", __func__, ifname != nullptr ? ifname : "", net_id);
    snprintf(cmd, sizeof(cmd), "ndc resolver setnetdns %d", net_id);

    if (is_ipv6 != 0) {
        append_ipv6_addr(cmd, dns1);
        if (dns_count == 0) {
            DM_LOGE("%s no IPv6 dns addr %u", __func__, dns_count);
        } else {
            append_ipv6_addr(cmd, dns2);
        }
        if (dns_count > 1) append_ipv6_addr(cmd, dns3);

        if (record != nullptr) {
            if (addr != nullptr) memcpy(record->ipv6_addr, addr, kIpv6Len);
            uint32_t stored = stored_count(record->ipv6_dns_count, dns_count);
            if (stored != 0 && dns2 != nullptr) memcpy(record->ipv6_dns2, dns2, kIpv6Len);
            if (stored > 1 && dns3 != nullptr) memcpy(record->ipv6_dns3, dns3, kIpv6Len);
        } else {
            DM_LOGE("%s NULL PDN info\n", __func__);
        }
    } else {
        // No zero-count test on this path: the second server always goes on
        // the command line.
        append_ipv4_addr(cmd, dns1);
        append_ipv4_addr(cmd, dns2);
        if (dns_count > 1) append_ipv4_addr(cmd, dns3);

        if (record != nullptr) {
            if (addr != nullptr) memcpy(record->ipv4_addr, addr, kIpv4Len);
            uint32_t stored = stored_count(record->ipv4_dns_count, dns_count);
            if (stored != 0 && dns2 != nullptr) memcpy(record->ipv4_dns2, dns2, kIpv4Len);
            if (stored > 1 && dns3 != nullptr) memcpy(record->ipv4_dns3, dns3, kIpv4Len);
        } else {
            DM_LOGE("%s NULL PDN info\n", __func__);
        }
    }

    DM_LOGI("cmd = (%s)", cmd);
    // The network daemon's client (ndc) takes the servers on its command line;
    // the line holds only the numbers and addresses formatted above.
    int ret = system(cmd);  // NOLINT(cert-env33-c)
    DM_LOGI("add dns server & dns, ret = (%d)", ret);
    return 0;
}

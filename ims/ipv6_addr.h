// IPv6 address discovery for the data interfaces ("pdnet<N>").
//
// The address the RIL reports for an IPv6 PDN carries an interface identifier
// of the modem's choosing; the kernel configures the data interface from the
// router advertisement's prefix.  The IMS manager must be given the address
// that is really on the interface, so the data manager finds the /64 prefix
// of the PDN (from the reported address when that is global, else from the
// network daemon's "net.ipv6.<ifname>.prefix" property) and looks the global
// address up on the interface.
//
// Main task thread only.  The prefix lookup through the property may block
// that thread for up to 160 x 100 ms.
#ifndef IMS_IPV6_ADDR_H
#define IMS_IPV6_ADDR_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "entity/dm_export.h"
#include "pdn/pdn_records.h"

struct ImsParaSlot;

constexpr size_t kIpv6AddrLen = 16;
constexpr size_t kIpv6PrefixLen = 8;  // a /64 prefix
// The network daemon's prefix property is polled this often, this far apart.
constexpr int kPrefixPollAttempts = 160;
constexpr unsigned kPrefixPollDelayUs = 100000;

namespace dm {

// A text field of a wire record as a C string: the bytes up to its NUL or
// to the end of the field, whichever comes first.
template <size_t N>
struct FieldText {
    char text[N + 1];
    explicit FieldText(const char (&field)[N]) {
        size_t len = strnlen(field, N);
        memcpy(text, field, len);
        text[len] = '\0';
    }
    const char *c_str() const { return text; }
};

}  // namespace dm

extern "C" {

// 1 for a global unicast or unique local address, 0 for every other class.
// Logs the address and its class.
DM_EXPORT int32_t dm_ipv6_is_global(const uint8_t addr[kIpv6AddrLen]);

// The /64 prefix of the PDN into `prefix` (16 bytes, zeroed by the caller):
// from the reported address when it is global, else from the network
// daemon's property, polled (once == 0) or read once (once != 0).
DM_EXPORT int32_t dm_get_ipv6_prefix(const SetupDataCallResp *resp, int once,
                                     uint8_t prefix[kIpv6AddrLen]);
DM_EXPORT int32_t dm_get_ipv6_prefix_from_netd(const char *ifname, uint8_t prefix[kIpv6AddrLen]);
DM_EXPORT int32_t dm_get_ipv6_prefix_once_from_netd(const char *ifname,
                                                    uint8_t prefix[kIpv6AddrLen]);

// The global address with `prefix` on the PDN's interface into `addr`.  An
// address that differs from the one the RIL reported (with the prefix put in
// front) wins over the one equal to it.
DM_EXPORT int32_t dm_get_global_ipv6_addr(const SetupDataCallResp *resp,
                                          const uint8_t prefix[kIpv6AddrLen],
                                          uint8_t addr[kIpv6AddrLen]);

}  // extern "C"

// IPv6 completion of an IMS data-call record whose pdp_type is 1 or 2, with
// the ImsParaSlot of its interface.  Both write the found address into the
// record's ipv6_addr and remember it in the slot's saved_global_addr; when
// IPv6 cannot be completed an IPv4v6 record is downgraded to IPv4 (pdp_type
// 0) and an IPv6-only record gets status -7.  `op` is the operation the lines
// are logged for.
//
// Query mode (the IMS manager asks for its PDN): always looks the address up
// on the interface; the record goes out whatever the outcome.
void dm_ipv6_complete_for_query(const char *op, SetupDataCallResp *resp, ImsParaSlot *slot);
// Indication mode (a data-call list change): reuses the saved address while
// the prefix has not changed, and reads the interface only when it has.
// -1 for an IPv6-only record that failed: the indication is not forwarded.
int32_t dm_ipv6_complete_for_indication(const char *op, SetupDataCallResp *resp, ImsParaSlot *slot);

#endif  // IMS_IPV6_ADDR_H

// The PDN tables and the data-call control of the data manager.
//
// Two tables of 16 rows live for the life of the library: the cellular table
// (cid 0..15, row = cid) and the ePDG table (cid 100..115, row = cid - 100).
// Searches go cellular first, lowest row first.  They run on the data
// manager's main task thread only; nothing here locks.
#ifndef PDN_INFO_H
#define PDN_INFO_H

#include <stddef.h>
#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"
#include "pdn/pdn_records.h"

struct TaskInfo;

// One PDN connection or bearer that the modem reported up.
struct PdnInfo {
    uint32_t interface_id;  // N of "pdnet<N>"
    uint32_t primary_cid;   // == cid for a default bearer
    int32_t cid;
    uint32_t status;
    uint32_t active;  // 0: free row, skipped by every search
    char ifname[128];
    char apn[128];
    uint32_t addr_type;
    uint32_t prefix_len;
    uint32_t preferred_lifetime;
    uint32_t valid_lifetime;
    // registry row of the requester; null from a network indication
    DM_PTR_SLOT(TaskInfo *, owner);
    DataCallEntry call;
};
static_assert(sizeof(PdnInfo) == 4264);
static_assert(offsetof(PdnInfo, ifname) == 20);
static_assert(offsetof(PdnInfo, apn) == 148);
static_assert(offsetof(PdnInfo, addr_type) == 276);
static_assert(offsetof(PdnInfo, valid_lifetime) == 288);
static_assert(offsetof(PdnInfo, owner) == 296);
static_assert(offsetof(PdnInfo, call) == 304);

constexpr int kPdnRows = 16;
constexpr int kEpdgCidBase = 100;

// The DNS command line of dm_network_config.
constexpr size_t kDnsCmdLen = 512;

// The caller's record of dm_network_config: the slots it writes, for IPv4 or
// IPv6 servers; the other bytes are the caller's, whose owner is outside the
// data manager.  The slots are not all aligned: every field is bytes, the
// counts unsigned 32-bit little-endian.
struct DnsRecord {
    uint8_t caller_0[296];
    uint8_t ipv4_addr[4];
    uint8_t caller_300[13];
    uint8_t ipv6_addr[16];
    uint8_t caller_329[51];
    uint8_t ipv4_dns_count[4];
    uint8_t ipv6_dns_count[4];
    uint8_t ipv4_dns2[4];
    uint8_t caller_392[13];
    uint8_t ipv4_dns3[4];
    uint8_t caller_409[13];
    uint8_t ipv6_dns2[16];
    uint8_t caller_438[49];
    uint8_t ipv6_dns3[16];
};
static_assert(sizeof(DnsRecord) == 503);
static_assert(offsetof(DnsRecord, ipv4_addr) == 296);
static_assert(offsetof(DnsRecord, ipv6_addr) == 313);
static_assert(offsetof(DnsRecord, ipv4_dns_count) == 380);
static_assert(offsetof(DnsRecord, ipv6_dns_count) == 384);
static_assert(offsetof(DnsRecord, ipv4_dns2) == 388);
static_assert(offsetof(DnsRecord, ipv4_dns3) == 405);
static_assert(offsetof(DnsRecord, ipv6_dns2) == 422);
static_assert(offsetof(DnsRecord, ipv6_dns3) == 487);
constexpr size_t kDnsRecordLen = sizeof(DnsRecord);

// Interface types of clear_pdn_info_by_if_type.
constexpr int32_t kIfTypeCellular = 1;
constexpr int32_t kIfTypeEpdg = 2;

// Interface id of the setup request the RIL proxy is working on: set when the
// RIL fetches the IMS parameters (4049), compared with and cleared by the next
// setup answer or failure indication.  -1: none.
constexpr int32_t kNoRildReq = -1;
extern int32_t rild_req_interface_id;

// Test support: the data-call setup state back to its start values
// (rild_req_interface_id -1, the ePDG support setting not yet read).
void pdn_setup_state_reset();

extern "C" {

DM_EXPORT PdnInfo *find_pdn_info_by_index(int32_t index);
DM_EXPORT PdnInfo *find_pdn_info_by_apn(const char *apn);
DM_EXPORT PdnInfo *find_pdn_info_by_cid(int32_t cid);
DM_EXPORT PdnInfo *find_pdn_info_by_interface(int32_t interface_id);
DM_EXPORT uint32_t get_interface_by_cid(int32_t cid);
DM_EXPORT PdnInfo *update_pdn_info(const DataCallEntry *entry, TaskInfo *owner);
DM_EXPORT int32_t clear_pdn_info_by_if_type(int32_t interface_id, int32_t if_type);
DM_EXPORT int32_t clear_pdn_info_by_cid(uint32_t cid);
DM_EXPORT int32_t reset_pdn_info(void);
DM_EXPORT void dump_pdn_info(void);

// ---- data-call setup ----
// The request and the answer are written in place (the IMS parameters of a
// handover setup, an inactive answer's status, the rate type).
DM_EXPORT int32_t dm_setup_data_call_req(SetupDataCallReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_add_ims_para(SetupDataCallReq *req);
DM_EXPORT int32_t dm_setup_data_call_resp(SetupDataCallResp *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_setup_data_call_resp_notify(SetupDataCallResp *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_setup_data_call_fail_ind(const SetupFailInd *ind, evfw_event_t *event);
DM_EXPORT int32_t dm_setup_data_call_resp_fail_notify(const SetupFailInd *ind, evfw_event_t *event);
DM_EXPORT int32_t dm_send_to_rb(void *data, uint32_t len, evfw_event_t *event, uint32_t event_id,
                                uint32_t sim);
DM_EXPORT int32_t dm_is_epdg_support(void);

// ---- teardown and handover ----
// Word 0 of a deactivation is translated (cid to interface) and its cause
// replaced in place.
DM_EXPORT int32_t dm_deactivate_data_call_req(DeactivateReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_data_call_if_req(DeactivateReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_data_call_if_with_cause_req(DeactivateReq *req, evfw_event_t *event,
                                                            int32_t cause);
DM_EXPORT int32_t dm_notify_epdg_deactivate(const DeactivateReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_handover_req(const HandoverReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_handover_resp(const WordPair *resp, evfw_event_t *event) noexcept;
DM_EXPORT int32_t dm_set_initial_attach_apn_req(const InitialAttachApnReq *req,
                                                evfw_event_t *event);
DM_EXPORT int32_t dm_set_initial_attach_apn_resp(const WordPair *resp,
                                                 evfw_event_t *event) noexcept;

// ---- relayed requests and their answers ----
DM_EXPORT int32_t dm_setup_dedicate_data_call_req(const DedicateSetupReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_setup_dedicate_data_call_resp(const DedicateSetupResp *resp,
                                                   evfw_event_t *event);
DM_EXPORT int32_t dm_modify_data_call_req(const ModifyDataCallReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_modify_data_call_resp(const ModifyDataCallResp *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_dedicate_data_call_req(const DedicateDeactReq *req,
                                                       evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_dedicate_data_call_resp(const WordPair *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_abort_setup_data_call_req(const AbortSetupReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_abort_setup_data_call_resp(const WordPair *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_pcscf_discovery_pco_req(const PcscfDiscoveryPcoReq *req, evfw_event_t *event);
DM_EXPORT int32_t dm_pcscf_discovery_pco_resp(const PcscfDiscoveryPcoResp *resp,
                                              evfw_event_t *event);
DM_EXPORT int32_t dm_last_data_call_fail_cause_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_last_data_call_fail_cause_resp(const LastFailCauseResp *resp,
                                                    evfw_event_t *event);
DM_EXPORT int32_t dm_data_call_list_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_data_call_list_resp(const DataCallListInd *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_radio_power_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_radio_power_do_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_radio_power_resp(const WordPair *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_allow_data_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_allow_data_resp(const WordPair *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_data_call_resp(const WordPair *resp, evfw_event_t *event);
DM_EXPORT int32_t dm_deactivate_data_call_if_resp(const WordPair *resp, evfw_event_t *event);
// The 8-byte failure answer to a request of any id (the dispatcher's length check).
DM_EXPORT int32_t dm_fail_resp(const WordPair *resp, evfw_event_t *event);

// ---- bearer and cid queries ----
DM_EXPORT int32_t dm_bear_req(const WordPair *req, evfw_event_t *event);
DM_EXPORT int32_t dm_get_cid_req(const WordPair *req, evfw_event_t *event);

// ---- DNS ----
// Runs "ndc resolver setnetdns <net_id> <dns1> [<dns2> [<dns3>]]" through the
// shell and records the addresses in the caller's record (may be null).
// Addresses are 16 bytes when is_ipv6, else 4.  Always 0.
DM_EXPORT int32_t dm_network_config(const char *ifname, uint32_t is_ipv6, const uint8_t *addr,
                                    const uint8_t *dns1, uint32_t dns_count, const uint8_t *dns2,
                                    const uint8_t *dns3, int32_t net_id, DnsRecord *record);
// Append " <address>" to a command of kDnsCmdLen bytes, NUL-terminated.
DM_EXPORT int32_t append_ipv4_addr(char *cmd, const uint8_t *addr);
DM_EXPORT int32_t append_ipv6_addr(char *cmd, const uint8_t *addr);

}  // extern "C"

#endif  // PDN_INFO_H

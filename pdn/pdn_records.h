// Records exchanged with the RIL proxy, the IMS managers and RB about data
// calls.  They travel as event payloads between processes built separately,
// so each layout is pinned here, once, by size and offset.  Integers are
// little-endian as in memory.  Bytes the data manager does not interpret are
// kept as opaque arrays and relayed unchanged.
#ifndef PDN_RECORDS_H
#define PDN_RECORDS_H

#include <stddef.h>
#include <stdint.h>

// The RIL's per-connection record (default or dedicated bearer).  The data
// manager reads its first four words; the rest is carried along.
struct DataCallEntry {
    uint32_t status;
    uint32_t interface_id;
    uint32_t primary_cid;
    int32_t cid;
    uint8_t rest[3940];
};
static_assert(sizeof(DataCallEntry) == 3956);
static_assert(offsetof(DataCallEntry, status) == 0);
static_assert(offsetof(DataCallEntry, interface_id) == 4);
static_assert(offsetof(DataCallEntry, primary_cid) == 8);
static_assert(offsetof(DataCallEntry, cid) == 12);

// pdp_type / ip_type values.
enum PdpType : uint32_t { kPdpIpv4 = 0, kPdpIpv6 = 1, kPdpIpv4v6 = 2 };

// The IMS interfaces.
constexpr uint32_t kImsInterface = 4;
constexpr uint32_t kEmergencyImsInterface = 5;

constexpr size_t kImsParaBlockLen = 20;

// Setup request: 4003 to the RIL, 9314 from RB, 4045 from an IMS manager.
struct SetupDataCallReq {
    uint8_t requester[256];  // the requester's own fields, relayed unchanged
    char apn[128];           // NUL-terminated
    uint8_t opaque_384[260];
    uint32_t ip_type;       // PdpType, written by AT+CGDCONT
    uint32_t interface_id;  // 4 IMS, 5 emergency IMS
    uint8_t opaque_652[4];
    uint32_t ims_para_valid;
    uint8_t ims_para[kImsParaBlockLen];
    uint32_t emergency_ind;  // first IMS parameter word
    uint32_t ims_word_684;
    uint32_t ims_word_688;
    uint8_t opaque_692[4];
    uint32_t assigned_rate_type;
    uint8_t sim_id;
    uint8_t opaque_701[3];
};
static_assert(sizeof(SetupDataCallReq) == 704);
static_assert(offsetof(SetupDataCallReq, apn) == 256);
static_assert(offsetof(SetupDataCallReq, ip_type) == 644);
static_assert(offsetof(SetupDataCallReq, interface_id) == 648);
static_assert(offsetof(SetupDataCallReq, ims_para_valid) == 656);
static_assert(offsetof(SetupDataCallReq, ims_para) == 660);
static_assert(offsetof(SetupDataCallReq, emergency_ind) == 680);
static_assert(offsetof(SetupDataCallReq, ims_word_684) == 684);
static_assert(offsetof(SetupDataCallReq, ims_word_688) == 688);
static_assert(offsetof(SetupDataCallReq, assigned_rate_type) == 696);
static_assert(offsetof(SetupDataCallReq, sim_id) == 700);

constexpr size_t kMaxDataCalls = 11;
constexpr uint32_t kRateTypeLte = 1;

// Setup answer: 4004 from the RIL, 4051/4062 about RB, 4048 to an IMS manager.
struct SetupDataCallResp {
    uint32_t word_0;
    uint32_t status;  // fail cause, 0 success; -7 when IPv6 cannot be completed
    uint32_t word_8;
    uint32_t interface_id;
    uint32_t active;
    uint32_t word_20;
    uint32_t pdp_type;  // PdpType
    char ifname[128];   // "pdnet<N>", NUL-terminated
    uint8_t ipv4_addr[4];
    uint8_t ipv6_addr[16];  // network byte order
    uint8_t opaque_176[68];
    uint32_t req_token;  // echo of the IMS manager's query token
    int32_t num_calls;
    DataCallEntry calls[kMaxDataCalls];
    uint32_t has_extra_call;
    DataCallEntry extra_call;
    uint32_t rate_type;  // 1 LTE
    uint8_t opaque_47732[136];
    uint8_t sim_byte;
    uint8_t opaque_47869[3];
    uint32_t sim_id;
};
static_assert(sizeof(SetupDataCallResp) == 47876);
static_assert(offsetof(SetupDataCallResp, status) == 4);
static_assert(offsetof(SetupDataCallResp, interface_id) == 12);
static_assert(offsetof(SetupDataCallResp, active) == 16);
static_assert(offsetof(SetupDataCallResp, pdp_type) == 24);
static_assert(offsetof(SetupDataCallResp, ifname) == 28);
static_assert(offsetof(SetupDataCallResp, ipv4_addr) == 156);
static_assert(offsetof(SetupDataCallResp, ipv6_addr) == 160);
static_assert(offsetof(SetupDataCallResp, opaque_176) == 176);
static_assert(offsetof(SetupDataCallResp, req_token) == 244);
static_assert(offsetof(SetupDataCallResp, num_calls) == 248);
static_assert(offsetof(SetupDataCallResp, calls) == 252);
static_assert(offsetof(SetupDataCallResp, has_extra_call) == 43768);
static_assert(offsetof(SetupDataCallResp, extra_call) == 43772);
static_assert(offsetof(SetupDataCallResp, rate_type) == 47728);
static_assert(offsetof(SetupDataCallResp, sim_byte) == 47868);
static_assert(offsetof(SetupDataCallResp, sim_id) == 47872);

// Setup failure indication from the RIL (4052, 4063).
struct SetupFailInd {
    uint32_t status;
    uint32_t sim_id;
};
static_assert(sizeof(SetupFailInd) == 8);
static_assert(offsetof(SetupFailInd, sim_id) == 4);

// Acknowledgement of a notify (4064).
struct SetupAck {
    uint32_t result;
    uint32_t sim_id;
};
static_assert(sizeof(SetupAck) == 8);
static_assert(offsetof(SetupAck, sim_id) == 4);

// Deactivation (4005, 9316, 9322): word 0 a cid or, after translation, an
// interface id.
struct DeactivateReq {
    uint32_t id;
    int32_t cause;
    uint8_t relayed[4];
};
static_assert(sizeof(DeactivateReq) == 12);
static_assert(offsetof(DeactivateReq, cause) == 4);
static_assert(offsetof(DeactivateReq, relayed) == 8);

// Handover request (9318).
struct HandoverReq {
    uint8_t sim_id;
    uint8_t relayed_1[2];
    uint8_t interface_id;
    uint8_t relayed_4[2];
};
static_assert(sizeof(HandoverReq) == 6);
static_assert(offsetof(HandoverReq, relayed_1) == 1);
static_assert(offsetof(HandoverReq, interface_id) == 3);
static_assert(offsetof(HandoverReq, relayed_4) == 4);

// Two-word records: radio power (4032, 4033; word 0 nonzero sends it through
// the data manager's own queue first) and allow-data (4037) requests, the
// last-fail-cause (4017) and data-call list (4019) requests, bearer (4041)
// and cid (4043) queries (word 0 the key), the 8-byte answers (4006, 4012,
// 4014, 4034 and 4038 relayed back, 4031 and 4053 taken and dropped) and
// failure answers.
struct WordPair {
    uint32_t word0;
    uint32_t word1;
};
static_assert(sizeof(WordPair) == 8);
static_assert(offsetof(WordPair, word1) == 4);

// Dedicated-bearer setup answer (4008).
struct DedicateSetupResp {
    uint32_t word0;
    uint32_t word1;
    DataCallEntry entry;
    uint8_t relayed[4];
};
static_assert(sizeof(DedicateSetupResp) == 3968);
static_assert(offsetof(DedicateSetupResp, word1) == 4);
static_assert(offsetof(DedicateSetupResp, entry) == 8);
static_assert(offsetof(DedicateSetupResp, relayed) == 3964);

// Bearer query answer when found (4042); 8 bytes (result, unset) otherwise.
struct BearResp {
    int32_t result;
    DataCallEntry entry;
    uint8_t unset[4];
};
static_assert(sizeof(BearResp) == 3964);
static_assert(offsetof(BearResp, entry) == 4);
static_assert(offsetof(BearResp, unset) == 3960);

// Cid query answer (4044).
struct CidResp {
    int32_t result;
    uint32_t cid;
};
static_assert(sizeof(CidResp) == 8);
static_assert(offsetof(CidResp, cid) == 4);

// Dedicated-bearer activated/modified indication (4024, 4025).
struct DedicateBearerInd {
    uint32_t word0;
    DataCallEntry entry;
    uint32_t sim_id;
};
static_assert(sizeof(DedicateBearerInd) == 3964);
static_assert(offsetof(DedicateBearerInd, entry) == 4);
static_assert(offsetof(DedicateBearerInd, sim_id) == 3960);

// Dedicated-bearer deactivated indication (4026).
struct DedicateBearerDeactInd {
    uint32_t word0;
    int32_t cid;
    uint32_t sim_id;
};
static_assert(sizeof(DedicateBearerDeactInd) == 12);
static_assert(offsetof(DedicateBearerDeactInd, cid) == 4);
static_assert(offsetof(DedicateBearerDeactInd, sim_id) == 8);

// Data-call list answer (4020) and changed indication (4021).
struct DataCallListInd {
    uint32_t word0;
    SetupDataCallResp resp;
};
static_assert(sizeof(DataCallListInd) == 47880);
static_assert(offsetof(DataCallListInd, resp) == 4);

// ---- relayed unchanged ----
// Records of the relayed requests and answers whose bytes the data manager
// passes between the requester and the RIL without reading them: only their
// sizes are pinned.

// Dedicated-bearer setup request (4007).
struct DedicateSetupReq {
    uint8_t relayed[3956];
};
static_assert(sizeof(DedicateSetupReq) == 3956);

// Modify request (4009).
struct ModifyDataCallReq {
    uint8_t relayed[3956];
};
static_assert(sizeof(ModifyDataCallReq) == 3956);

// Modify answer (4010).
struct ModifyDataCallResp {
    uint8_t relayed[3964];
};
static_assert(sizeof(ModifyDataCallResp) == 3964);

// Dedicated-bearer deactivation (4011): word 0 the bearer's cid, which the
// PDN table forgets before the request is relayed.
struct DedicateDeactReq {
    uint32_t cid;
    uint8_t relayed[8];
};
static_assert(sizeof(DedicateDeactReq) == 12);
static_assert(offsetof(DedicateDeactReq, relayed) == 4);

// Setup abort request (4013).
struct AbortSetupReq {
    uint8_t relayed[12];
};
static_assert(sizeof(AbortSetupReq) == 12);

// P-CSCF discovery request (4015) and its answer (4016).
struct PcscfDiscoveryPcoReq {
    uint8_t relayed[12];
};
static_assert(sizeof(PcscfDiscoveryPcoReq) == 12);

struct PcscfDiscoveryPcoResp {
    uint8_t relayed[268];
};
static_assert(sizeof(PcscfDiscoveryPcoResp) == 268);

// Last data-call fail cause answer (4018); the request (4017) is a WordPair.
struct LastFailCauseResp {
    uint8_t relayed[12];
};
static_assert(sizeof(LastFailCauseResp) == 12);

// Initial-attach APN setting (4030).
struct InitialAttachApnReq {
    uint8_t relayed[528];
};
static_assert(sizeof(InitialAttachApnReq) == 528);

// The same sizes by name, for peers that build the records as bytes.
constexpr size_t kInitialAttachApnLen = sizeof(InitialAttachApnReq);
constexpr size_t kModifyRespLen = sizeof(ModifyDataCallResp);
constexpr size_t kPcscfRespLen = sizeof(PcscfDiscoveryPcoResp);
constexpr size_t kFailCauseRespLen = sizeof(LastFailCauseResp);

#endif  // PDN_RECORDS_H

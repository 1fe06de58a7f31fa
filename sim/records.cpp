#include "sim/records.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

#include "dati/dati.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "evfw_ids.h"
#include "ims/ims_pdn.h"
#include "ims/netlink_listener.h"
#include "pdn/pdn_info.h"
#include "pdn/pdn_records.h"

namespace dm::sim {

namespace {

// The announcement (4002): the peer's name in a fixed buffer.
struct Announcement {
    char name[kNotificationLen];
};

template <class M>
constexpr Kind kind_of() {
    using T = std::remove_cvref_t<M>;
    if constexpr (std::is_same_v<T, uint8_t>) {
        return Kind::U8;
    } else if constexpr (std::is_same_v<T, uint32_t>) {
        return Kind::U32;
    } else if constexpr (std::is_same_v<T, int32_t>) {
        return Kind::I32;
    } else if constexpr (std::is_same_v<T, uint64_t>) {
        return Kind::U64;
    } else if constexpr (std::is_array_v<T> && std::is_same_v<std::remove_extent_t<T>, char>) {
        return Kind::Text;
    } else if constexpr (std::is_array_v<T> && std::is_same_v<std::remove_extent_t<T>, uint8_t>) {
        return Kind::Bytes;
    } else if constexpr (std::is_pointer_v<T>) {
        return Kind::Ptr;
    } else {
        static_assert(std::is_void_v<T>, "no scenario form for this member type");
    }
}

// How many records a member holds: one, or every element of an array of them.
template <class M>
constexpr size_t count_of() {
    if constexpr (std::is_array_v<M>) {
        return std::extent_v<M> * count_of<std::remove_extent_t<M>>();
    } else {
        return 1;
    }
}

// A member whose kind follows from its type.
#define DMSIM_F(T, m)                                                 \
    FieldDesc {                                                       \
#m, offsetof(T, m), sizeof(T::m), kind_of < decltype(T::m)>() \
    }
// A member written in another form than its type suggests (addresses).
#define DMSIM_FK(T, m, k)                   \
    FieldDesc {                             \
#m, offsetof(T, m), sizeof(T::m), k \
    }
// A nested record or array of records.
#define DMSIM_R(T, m, desc)                                                                   \
    FieldDesc {                                                                               \
#m, offsetof(T, m), sizeof(T::m), Kind::Record, &(desc), count_of < decltype(T::m)>() \
    }
#define DMSIM_REC(T, fields)  \
    RecordDesc {              \
#T, sizeof(T), fields \
    }

const FieldDesc kDataCallEntryFields[] = {
        DMSIM_F(DataCallEntry, status),      DMSIM_F(DataCallEntry, interface_id),
        DMSIM_F(DataCallEntry, primary_cid), DMSIM_F(DataCallEntry, cid),
        DMSIM_F(DataCallEntry, rest),
};
const RecordDesc kDataCallEntry = DMSIM_REC(DataCallEntry, kDataCallEntryFields);

const FieldDesc kSetupDataCallReqFields[] = {
        DMSIM_F(SetupDataCallReq, requester),          DMSIM_F(SetupDataCallReq, apn),
        DMSIM_F(SetupDataCallReq, opaque_384),         DMSIM_F(SetupDataCallReq, ip_type),
        DMSIM_F(SetupDataCallReq, interface_id),       DMSIM_F(SetupDataCallReq, opaque_652),
        DMSIM_F(SetupDataCallReq, ims_para_valid),     DMSIM_F(SetupDataCallReq, ims_para),
        DMSIM_F(SetupDataCallReq, emergency_ind),      DMSIM_F(SetupDataCallReq, ims_word_684),
        DMSIM_F(SetupDataCallReq, ims_word_688),       DMSIM_F(SetupDataCallReq, opaque_692),
        DMSIM_F(SetupDataCallReq, assigned_rate_type), DMSIM_F(SetupDataCallReq, sim_id),
        DMSIM_F(SetupDataCallReq, opaque_701),
};
const RecordDesc kSetupDataCallReq = DMSIM_REC(SetupDataCallReq, kSetupDataCallReqFields);

const FieldDesc kSetupDataCallRespFields[] = {
        DMSIM_F(SetupDataCallResp, word_0),
        DMSIM_F(SetupDataCallResp, status),
        DMSIM_F(SetupDataCallResp, word_8),
        DMSIM_F(SetupDataCallResp, interface_id),
        DMSIM_F(SetupDataCallResp, active),
        DMSIM_F(SetupDataCallResp, word_20),
        DMSIM_F(SetupDataCallResp, pdp_type),
        DMSIM_F(SetupDataCallResp, ifname),
        DMSIM_FK(SetupDataCallResp, ipv4_addr, Kind::Ipv4),
        DMSIM_FK(SetupDataCallResp, ipv6_addr, Kind::Ipv6),
        DMSIM_F(SetupDataCallResp, opaque_176),
        DMSIM_F(SetupDataCallResp, req_token),
        DMSIM_F(SetupDataCallResp, num_calls),
        DMSIM_R(SetupDataCallResp, calls, kDataCallEntry),
        DMSIM_F(SetupDataCallResp, has_extra_call),
        DMSIM_R(SetupDataCallResp, extra_call, kDataCallEntry),
        DMSIM_F(SetupDataCallResp, rate_type),
        DMSIM_F(SetupDataCallResp, opaque_47732),
        DMSIM_F(SetupDataCallResp, sim_byte),
        DMSIM_F(SetupDataCallResp, opaque_47869),
        DMSIM_F(SetupDataCallResp, sim_id),
};
const RecordDesc kSetupDataCallResp = DMSIM_REC(SetupDataCallResp, kSetupDataCallRespFields);

const FieldDesc kSetupFailIndFields[] = {DMSIM_F(SetupFailInd, status),
                                         DMSIM_F(SetupFailInd, sim_id)};
const RecordDesc kSetupFailInd = DMSIM_REC(SetupFailInd, kSetupFailIndFields);

const FieldDesc kSetupAckFields[] = {DMSIM_F(SetupAck, result), DMSIM_F(SetupAck, sim_id)};
const RecordDesc kSetupAck = DMSIM_REC(SetupAck, kSetupAckFields);

const FieldDesc kDeactivateReqFields[] = {DMSIM_F(DeactivateReq, id), DMSIM_F(DeactivateReq, cause),
                                          DMSIM_F(DeactivateReq, relayed)};
const RecordDesc kDeactivateReq = DMSIM_REC(DeactivateReq, kDeactivateReqFields);

const FieldDesc kHandoverReqFields[] = {
        DMSIM_F(HandoverReq, sim_id), DMSIM_F(HandoverReq, relayed_1),
        DMSIM_F(HandoverReq, interface_id), DMSIM_F(HandoverReq, relayed_4)};
const RecordDesc kHandoverReq = DMSIM_REC(HandoverReq, kHandoverReqFields);

const FieldDesc kWordPairFields[] = {DMSIM_F(WordPair, word0), DMSIM_F(WordPair, word1)};
const RecordDesc kWordPair = DMSIM_REC(WordPair, kWordPairFields);

const FieldDesc kDedicateSetupRespFields[] = {
        DMSIM_F(DedicateSetupResp, word0), DMSIM_F(DedicateSetupResp, word1),
        DMSIM_R(DedicateSetupResp, entry, kDataCallEntry), DMSIM_F(DedicateSetupResp, relayed)};
const RecordDesc kDedicateSetupResp = DMSIM_REC(DedicateSetupResp, kDedicateSetupRespFields);

const FieldDesc kBearRespFields[] = {DMSIM_F(BearResp, result),
                                     DMSIM_R(BearResp, entry, kDataCallEntry),
                                     DMSIM_F(BearResp, unset)};
const RecordDesc kBearResp = DMSIM_REC(BearResp, kBearRespFields);

const FieldDesc kCidRespFields[] = {DMSIM_F(CidResp, result), DMSIM_F(CidResp, cid)};
const RecordDesc kCidResp = DMSIM_REC(CidResp, kCidRespFields);

const FieldDesc kDedicateBearerIndFields[] = {DMSIM_F(DedicateBearerInd, word0),
                                              DMSIM_R(DedicateBearerInd, entry, kDataCallEntry),
                                              DMSIM_F(DedicateBearerInd, sim_id)};
const RecordDesc kDedicateBearerInd = DMSIM_REC(DedicateBearerInd, kDedicateBearerIndFields);

const FieldDesc kDedicateBearerDeactIndFields[] = {DMSIM_F(DedicateBearerDeactInd, word0),
                                                   DMSIM_F(DedicateBearerDeactInd, cid),
                                                   DMSIM_F(DedicateBearerDeactInd, sim_id)};
const RecordDesc kDedicateBearerDeactInd =
        DMSIM_REC(DedicateBearerDeactInd, kDedicateBearerDeactIndFields);

const FieldDesc kDataCallListIndFields[] = {DMSIM_F(DataCallListInd, word0),
                                            DMSIM_R(DataCallListInd, resp, kSetupDataCallResp)};
const RecordDesc kDataCallListInd = DMSIM_REC(DataCallListInd, kDataCallListIndFields);

const FieldDesc kImsPdnReqFields[] = {DMSIM_F(ImsPdnReq, ifname), DMSIM_F(ImsPdnReq, req_token),
                                      DMSIM_F(ImsPdnReq, sim_id)};
const RecordDesc kImsPdnReq = DMSIM_REC(ImsPdnReq, kImsPdnReqFields);

const FieldDesc kImsPdnPassRespFields[] = {DMSIM_F(ImsPdnPassResp, result),
                                           DMSIM_F(ImsPdnPassResp, sim_id)};
const RecordDesc kImsPdnPassResp = DMSIM_REC(ImsPdnPassResp, kImsPdnPassRespFields);

const FieldDesc kImsParaReqFields[] = {DMSIM_F(ImsParaReq, interface_id),
                                       DMSIM_F(ImsParaReq, sim_id)};
const RecordDesc kImsParaReq = DMSIM_REC(ImsParaReq, kImsParaReqFields);

const FieldDesc kImsParaRespFields[] = {DMSIM_F(ImsParaResp, valid),
                                        DMSIM_F(ImsParaResp, ims_para),
                                        DMSIM_F(ImsParaResp, emergency_ind),
                                        DMSIM_F(ImsParaResp, ims_word_684),
                                        DMSIM_F(ImsParaResp, ims_word_688),
                                        DMSIM_F(ImsParaResp, zero),
                                        DMSIM_F(ImsParaResp, assigned_rate_type)};
const RecordDesc kImsParaResp = DMSIM_REC(ImsParaResp, kImsParaRespFields);

const FieldDesc kAtCmdReqFields[] = {DMSIM_F(AtCmdReq, cookie), DMSIM_F(AtCmdReq, kind),
                                     DMSIM_F(AtCmdReq, zero), DMSIM_F(AtCmdReq, text)};
const RecordDesc kAtCmdReq = DMSIM_REC(AtCmdReq, kAtCmdReqFields);

const FieldDesc kAtCmdRespFields[] = {DMSIM_F(AtCmdResp, cookie), DMSIM_F(AtCmdResp, unused),
                                      DMSIM_F(AtCmdResp, result), DMSIM_F(AtCmdResp, text),
                                      DMSIM_F(AtCmdResp, pad)};
const RecordDesc kAtCmdResp = DMSIM_REC(AtCmdResp, kAtCmdRespFields);

const FieldDesc kAtUrcFields[] = {DMSIM_F(AtUrc, word0), DMSIM_F(AtUrc, kind), DMSIM_F(AtUrc, sim),
                                  DMSIM_F(AtUrc, text)};
const RecordDesc kAtUrc = DMSIM_REC(AtUrc, kAtUrcFields);

const FieldDesc kDeactDataCallIndFields[] = {
        DMSIM_F(DeactDataCallInd, interface_id), DMSIM_F(DeactDataCallInd, reserved),
        DMSIM_F(DeactDataCallInd, sim_id), DMSIM_F(DeactDataCallInd, zero)};
const RecordDesc kDeactDataCallInd = DMSIM_REC(DeactDataCallInd, kDeactDataCallIndFields);

const FieldDesc kPdnStateSetReqFields[] = {DMSIM_F(PdnStateSetReq, word0),
                                           DMSIM_F(PdnStateSetReq, pdn_id),
                                           DMSIM_F(PdnStateSetReq, state)};
const RecordDesc kPdnStateSetReq = DMSIM_REC(PdnStateSetReq, kPdnStateSetReqFields);

const FieldDesc kPdnStateGetReqFields[] = {DMSIM_F(PdnStateGetReq, unread),
                                           DMSIM_F(PdnStateGetReq, pdn_id),
                                           DMSIM_F(PdnStateGetReq, word_132)};
const RecordDesc kPdnStateGetReq = DMSIM_REC(PdnStateGetReq, kPdnStateGetReqFields);

const FieldDesc kPdnStateReplyFields[] = {DMSIM_F(PdnStateReply, word0),
                                          DMSIM_F(PdnStateReply, pdn_id),
                                          DMSIM_F(PdnStateReply, state)};
const RecordDesc kPdnStateReply = DMSIM_REC(PdnStateReply, kPdnStateReplyFields);

const FieldDesc kNetlinkListenReqFields[] = {DMSIM_F(NetlinkListenReq, type)};
const RecordDesc kNetlinkListenReq = DMSIM_REC(NetlinkListenReq, kNetlinkListenReqFields);

const FieldDesc kAnnouncementFields[] = {DMSIM_F(Announcement, name)};
const RecordDesc kAnnouncement = DMSIM_REC(Announcement, kAnnouncementFields);

const FieldDesc kPdnInfoFields[] = {
        DMSIM_F(PdnInfo, interface_id),
        DMSIM_F(PdnInfo, primary_cid),
        DMSIM_F(PdnInfo, cid),
        DMSIM_F(PdnInfo, status),
        DMSIM_F(PdnInfo, active),
        DMSIM_F(PdnInfo, ifname),
        DMSIM_F(PdnInfo, apn),
        DMSIM_F(PdnInfo, addr_type),
        DMSIM_F(PdnInfo, prefix_len),
        DMSIM_F(PdnInfo, preferred_lifetime),
        DMSIM_F(PdnInfo, valid_lifetime),
        // The field is the pointer itself: its size is the pointer's.
        DMSIM_F(PdnInfo, owner),  // NOLINT(bugprone-sizeof-expression)
        DMSIM_R(PdnInfo, call, kDataCallEntry),
};
const RecordDesc kPdnInfo = DMSIM_REC(PdnInfo, kPdnInfoFields);

const FieldDesc kTextFields[] = {FieldDesc{"text", 0, 0, Kind::Text}};
const RecordDesc kText = {"Text", 0, kTextFields};

#undef DMSIM_F
#undef DMSIM_FK
#undef DMSIM_R
#undef DMSIM_REC

const RecordDesc *const kAll[] = {
        &kAnnouncement,
        &kSetupDataCallReq,
        &kSetupDataCallResp,
        &kDataCallEntry,
        &kSetupFailInd,
        &kSetupAck,
        &kDeactivateReq,
        &kHandoverReq,
        &kWordPair,
        &kDedicateSetupResp,
        &kBearResp,
        &kCidResp,
        &kDedicateBearerInd,
        &kDedicateBearerDeactInd,
        &kDataCallListInd,
        &kImsPdnReq,
        &kImsPdnPassResp,
        &kImsParaReq,
        &kImsParaResp,
        &kAtCmdReq,
        &kAtCmdResp,
        &kAtUrc,
        &kDeactDataCallInd,
        &kPdnStateSetReq,
        &kPdnStateGetReq,
        &kPdnStateReply,
        &kNetlinkListenReq,
        &kPdnInfo,
        &kText,
};

struct EventRecord {
    uint32_t event_id;
    const RecordDesc *record;
};

// The record each event id carries.  Ids whose payload the data manager
// relays without reading (abort, P-CSCF discovery, modify, the dedicated
// bearer setup request, the initial attach APN) have none.
const EventRecord kEventRecords[] = {
        {EVENT_ATI_ATCMD_FWD, &kText},
        {EVENT_ATI_URC_FORGED, &kAtUrc},
        {EVENT_ATI_URC, &kAtUrc},
        {EVENT_ATMNGR_ATCMD_REQ, &kAtCmdReq},
        {EVENT_ATMNGR_ATCMD_RESP, &kAtCmdResp},
        {EVENT_ATMNGR_URC, &kAtUrc},
        {EVENT_DATAMNGR_NOTIFICATION, &kAnnouncement},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, &kSetupDataCallReq},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &kSetupDataCallResp},
        {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, &kDeactivateReq},
        {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP, &kWordPair},
        {EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP, &kDedicateSetupResp},
        {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ, &kDeactivateReq},
        {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP, &kWordPair},
        {EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP, &kWordPair},
        {EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ, &kWordPair},
        {EVENT_DATAMNGR_DATA_CALL_LIST_REQ, &kWordPair},
        {EVENT_DATAMNGR_DATA_CALL_LIST_RESP, &kDataCallListInd},
        {EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, &kDataCallListInd},
        {EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, &kDedicateBearerInd},
        {EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC, &kDedicateBearerInd},
        {EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, &kDedicateBearerDeactInd},
        {EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP, &kWordPair},
        {EVENT_DATAMNGR_RADIO_POWER_REQ, &kWordPair},
        {EVENT_DATAMNGR_RADIO_POWER_DO_REQ, &kWordPair},
        {EVENT_DATAMNGR_RADIO_POWER_RESP, &kWordPair},
        {EVENT_DATAMNGR_ALLOW_DATA_REQ, &kWordPair},
        {EVENT_DATAMNGR_ALLOW_DATA_RESP, &kWordPair},
        {EVENT_DATAMNGR_BEAR_REQ, &kWordPair},
        {EVENT_DATAMNGR_BEAR_RESP, &kBearResp},
        {EVENT_DATAMNGR_GET_CID_REQ, &kWordPair},
        {EVENT_DATAMNGR_GET_CID_RESP, &kCidResp},
        {EVENT_DATAMNGR_PASS_IMS_PDN_REQ, &kSetupDataCallReq},
        {EVENT_DATAMNGR_PASS_IMS_PDN_RESP, &kImsPdnPassResp},
        {EVENT_DATAMNGR_GET_IMS_PDN_REQ, &kImsPdnReq},
        {EVENT_DATAMNGR_GET_IMS_PDN_RESP, &kSetupDataCallResp},
        {EVENT_DATAMNGR_GET_IMS_PARA_REQ, &kImsParaReq},
        {EVENT_DATAMNGR_GET_IMS_PARA_RESP, &kImsParaResp},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND, &kSetupDataCallResp},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND, &kSetupFailInd},
        {EVENT_DATAMNGR_HANDOVER_RESP, &kWordPair},
        {EVENT_DATAMNGR_SET_PDN_STATE_REQ, &kPdnStateSetReq},
        {EVENT_DATAMNGR_GET_PDN_STATE_REQ, &kPdnStateGetReq},
        {EVENT_DATAMNGR_GET_PDN_STATE_RESP, &kPdnStateReply},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY, &kSetupDataCallResp},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY, &kSetupFailInd},
        {EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK, &kSetupAck},
        {EVENT_DATAMNGR_ATCMD_REQ, &kText},
        {EVENT_DATAMNGR_ATCMD_RESP, &kAtCmdResp},
        {EVENT_DATAMNGR_ATCMD_REGISTER, &kText},
        {EVENT_DATAMNGR_NETLINK_LISTEN_REQ, &kNetlinkListenReq},
        {EVENT_RB_SETUP_DATA_CALL_IND, &kSetupDataCallResp},
        {EVENT_RB_SETUP_DATA_CALL_REQ, &kSetupDataCallReq},
        {EVENT_RB_SETUP_DATA_CALL_CNF, &kSetupDataCallResp},
        {EVENT_RB_DEACTIVATE_DATA_CALL_REQ, &kDeactivateReq},
        {EVENT_RB_DEACT_DATA_CALL_IND, &kDeactDataCallInd},
        {EVENT_RB_HANDOVER_REQ, &kHandoverReq},
        {EVENT_RB_EPDG_DEACTIVATE_NOTIFY, &kDeactivateReq},
};

const FieldDesc *find_field(const RecordDesc &record, std::string_view name) {
    for (const FieldDesc &f : record.fields) {
        if (f.name == name) return &f;
    }
    return nullptr;
}

std::string field_names(const RecordDesc &record) {
    std::string out;
    for (const FieldDesc &f : record.fields) {
        if (!out.empty()) out += ", ";
        out += f.name;
    }
    return out;
}

bool parse_index(std::string_view s, size_t &out) {
    if (s.empty() || s.size() > 6) return false;
    out = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        out = out * 10 + static_cast<size_t>(c - '0');
    }
    return true;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool parse_hex(std::string_view text, std::vector<uint8_t> &out, std::string &error) {
    if (text.empty() || text.size() % 2 != 0) {
        error = "expected an even number of hex digits after hex:";
        return false;
    }
    out.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = hex_digit(text[i]);
        int lo = hex_digit(text[i + 1]);
        if (hi < 0 || lo < 0) {
            error = "expected hex digits after hex:, found '" + std::string(text.substr(i, 2)) +
                    "'";
            return false;
        }
        out.push_back(static_cast<uint8_t>(hi * 16 + lo));
    }
    return true;
}

// A decimal or 0x-hex integer with an optional minus sign.
bool parse_integer(std::string_view text, bool &negative, uint64_t &magnitude) {
    negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return false;
    magnitude = 0;
    for (char c : text) {
        int d = hex_digit(c);
        if (d < 0 || static_cast<unsigned>(d) >= base) return false;
        if (magnitude > (UINT64_MAX - static_cast<uint64_t>(d)) / base) return false;
        magnitude = magnitude * base + static_cast<uint64_t>(d);
    }
    return true;
}

}  // namespace

std::span<const RecordDesc *const> all_records() {
    return kAll;
}

const RecordDesc *find_record(std::string_view name) {
    for (const RecordDesc *r : kAll) {
        if (r->name == name) return r;
    }
    return nullptr;
}

const RecordDesc *default_record(uint32_t event_id) {
    for (const EventRecord &e : kEventRecords) {
        if (e.event_id == event_id) return e.record;
    }
    return nullptr;
}

const RecordDesc &text_record() {
    return kText;
}

const RecordDesc &pdn_row_record() {
    return kPdnInfo;
}

bool resolve_field(const RecordDesc &record, std::string_view path, FieldRef &out,
                   std::string &error) {
    const RecordDesc *rec = &record;
    size_t base = 0;
    std::string_view rest = path;
    out.path = std::string(path);
    while (true) {
        size_t dot = rest.find('.');
        std::string_view name = rest.substr(0, dot);
        rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
        const FieldDesc *f = find_field(*rec, name);
        if (f == nullptr) {
            error = std::string(rec->name) + " has no field '" + std::string(name) +
                    "' (fields: " + field_names(*rec) + ")";
            return false;
        }
        if (f->kind != Kind::Record) {
            if (dot != std::string_view::npos) {
                error = "'" + std::string(path.substr(0, path.size() - rest.size() - 1)) +
                        "' is a " + kind_name(f->kind) + ", not a record";
                return false;
            }
            out.offset = base + f->offset;
            out.size = f->size;
            out.kind = f->kind;
            return true;
        }
        base += f->offset;
        if (f->count > 1) {
            size_t dot2 = rest.find('.');
            std::string_view index = rest.substr(0, dot2);
            size_t i = 0;
            if (dot == std::string_view::npos || !parse_index(index, i) || i >= f->count) {
                error = "'" + std::string(f->name) + "' is an array of " +
                        std::to_string(f->count) + " " + std::string(f->record->name) +
                        ": expected " + std::string(f->name) + ".<0.." +
                        std::to_string(f->count - 1) + ">.<field>";
                return false;
            }
            base += i * f->record->size;
            rest = dot2 == std::string_view::npos ? std::string_view() : rest.substr(dot2 + 1);
            dot = dot2;
        }
        if (dot == std::string_view::npos) {
            error = "'" + std::string(path) + "' is a " + std::string(f->record->name) +
                    " record: name one of its fields (" + field_names(*f->record) + ")";
            return false;
        }
        rec = f->record;
    }
}

bool encode_value(Kind kind, size_t size, std::string_view text, bool quoted,
                  std::vector<uint8_t> &out, std::string &error) {
    out.clear();
    if (!quoted && text.starts_with("hex:")) {
        if (!parse_hex(text.substr(4), out, error)) return false;
        bool exact = kind != Kind::Text && kind != Kind::Bytes;
        if (exact ? out.size() != size : out.size() > size) {
            error = "hex value of " + std::to_string(out.size()) + " bytes for a field of " +
                    std::to_string(size) + " bytes";
            return false;
        }
        return true;
    }
    switch (kind) {
        case Kind::U8:
        case Kind::U32:
        case Kind::I32:
        case Kind::U64: {
            bool negative = false;
            uint64_t mag = 0;
            if (quoted || !parse_integer(text, negative, mag)) {
                error = "expected an integer (decimal or 0x hex), found '" + std::string(text) +
                        "'";
                return false;
            }
            // A field takes any value of its width, signed or unsigned.
            const unsigned bits = static_cast<unsigned>(size * 8);
            const uint64_t max_pos = bits == 64 ? UINT64_MAX : (uint64_t{1} << bits) - 1;
            const uint64_t max_neg = uint64_t{1} << (bits - 1);
            if ((negative && mag > max_neg) || (!negative && mag > max_pos)) {
                error = "value " + std::string(text) + " does not fit " + std::to_string(size) +
                        " byte(s)";
                return false;
            }
            uint64_t v = negative ? ~mag + 1 : mag;
            out.resize(size);
            std::memcpy(out.data(), &v, size);  // little-endian, as in memory
            return true;
        }
        case Kind::Text:
            if (size != 0 && text.size() > size) {
                error = "text of " + std::to_string(text.size()) + " bytes for a field of " +
                        std::to_string(size) + " bytes";
                return false;
            }
            out.assign(text.begin(), text.end());
            return true;
        case Kind::Bytes:
            if (!quoted) {
                error = "expected hex:<bytes> or a quoted text for opaque bytes, found '" +
                        std::string(text) + "'";
                return false;
            }
            if (text.size() > size) {
                error = "text of " + std::to_string(text.size()) + " bytes for a field of " +
                        std::to_string(size) + " bytes";
                return false;
            }
            out.assign(text.begin(), text.end());
            return true;
        case Kind::Ipv4:
        case Kind::Ipv6: {
            const int family = kind == Kind::Ipv4 ? AF_INET : AF_INET6;
            std::string s(text);
            out.resize(kind == Kind::Ipv4 ? 4 : 16);
            if (inet_pton(family, s.c_str(), out.data()) != 1) {
                error = std::string("expected an ") + (kind == Kind::Ipv4 ? "IPv4" : "IPv6") +
                        " address, found '" + s + "'";
                return false;
            }
            return true;
        }
        case Kind::Ptr:
            if (quoted || (text != "null" && text != "set")) {
                error = "expected null or set for a pointer, found '" + std::string(text) + "'";
                return false;
            }
            out.assign(1, text == "set" ? 1 : 0);
            return true;
        case Kind::Record:
            break;
    }
    error = "a record is not given a value: name one of its fields";
    return false;
}

std::string format_value(Kind kind, const uint8_t *bytes, size_t size) {
    switch (kind) {
        case Kind::U8:
        case Kind::U32:
        case Kind::I32:
        case Kind::U64: {
            uint64_t v = 0;
            std::memcpy(&v, bytes, size);
            if (kind == Kind::I32 || (kind == Kind::U32 && (v & 0x80000000u) != 0)) {
                return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(v)));
            }
            return std::to_string(v);
        }
        case Kind::Text:
            return "\"" +
                   escape(std::string_view(reinterpret_cast<const char *>(bytes),
                                           strnlen(reinterpret_cast<const char *>(bytes), size))) +
                   "\"";
        case Kind::Ipv4:
        case Kind::Ipv6: {
            char buf[INET6_ADDRSTRLEN] = {};
            inet_ntop(kind == Kind::Ipv4 ? AF_INET : AF_INET6, bytes, buf, sizeof(buf));
            return buf;
        }
        case Kind::Ptr:
            return std::all_of(bytes, bytes + size, [](uint8_t b) { return b == 0; }) ? "null"
                                                                                      : "set";
        case Kind::Bytes:
        case Kind::Record:
            break;
    }
    size_t n = size;
    while (n > 1 && bytes[n - 1] == 0) --n;
    std::string out = "hex:";
    static constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        out += kHex[bytes[i] >> 4];
        out += kHex[bytes[i] & 15];
    }
    return out;
}

bool value_matches(Kind kind, const uint8_t *bytes, size_t size,
                   const std::vector<uint8_t> &value) {
    if (kind == Kind::Text) {
        const size_t n = strnlen(reinterpret_cast<const char *>(bytes), size);
        return n == value.size() && (n == 0 || std::memcmp(bytes, value.data(), n) == 0);
    }
    if (kind == Kind::Ptr) {
        const bool set = std::any_of(bytes, bytes + size, [](uint8_t b) { return b != 0; });
        return value.size() == 1 && set == (value[0] != 0);
    }
    if (value.size() > size ||
        (!value.empty() && std::memcmp(bytes, value.data(), value.size()) != 0)) {
        return false;
    }
    for (size_t i = value.size(); i < size; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

const char *kind_name(Kind kind) {
    switch (kind) {
        case Kind::U8:
            return "u8";
        case Kind::U32:
            return "u32";
        case Kind::I32:
            return "i32";
        case Kind::U64:
            return "u64";
        case Kind::Text:
            return "text";
        case Kind::Bytes:
            return "bytes";
        case Kind::Ipv4:
            return "ipv4";
        case Kind::Ipv6:
            return "ipv6";
        case Kind::Ptr:
            return "pointer";
        case Kind::Record:
            return "record";
    }
    return "?";
}

std::string escape(std::string_view text) {
    std::string out;
    for (unsigned char c : text) {
        switch (c) {
            case '\r':
                out += "\\r";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    char hex[8];
                    std::snprintf(hex, sizeof(hex), "\\x%02x", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out;
}

}  // namespace dm::sim

// Writes the seed corpora of the fuzz targets, one file per seed, under
// <corpus dir>/<target>/.  The seeds are the flows and records the tests
// use: an IMS bring-up, relayed requests answered by the RIL proxy, the
// pending queue, AT sessions, +CGEV deactivations, netlink dump replies, and
// the bad inputs the tests aim at (lengths one off, fields without their
// NUL, out-of-range cids and counts).
//
//     make_seeds fuzz/corpus
#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dati/dati.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "evfw_ids.h"
#include "fuzz/inputs.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_records.h"

namespace {

using namespace dm::fuzz;
namespace fs = std::filesystem;

fs::path g_root;

void save(const char *target, const char *name, const Writer &w) {
    fs::path dir = g_root / target;
    fs::create_directories(dir);
    fs::path file = dir / name;
    FILE *f = std::fopen(file.c_str(), "wb");
    if (f == nullptr) {
        std::perror(file.c_str());
        std::exit(1);
    }
    std::fwrite(w.data().data(), 1, w.data().size(), f);
    std::fclose(f);
}

std::span<const uint8_t> text_bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t *>(s.data()), s.size()};
}

template <size_t N>
void set_text(char (&field)[N], std::string_view text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

void set_ipv6(uint8_t *out, const char *text) {
    inet_pton(AF_INET6, text, out);
}

// ---- records as the tests build them -----------------------------------------

SetupDataCallReq ims_setup_req(uint32_t interface_id, uint32_t emergency) {
    SetupDataCallReq req = {};
    set_text(req.apn, interface_id == 5 ? "sos" : "ims");
    req.interface_id = interface_id;
    req.ims_para_valid = 1;
    req.ims_para[0] = 7;
    req.emergency_ind = emergency;
    req.ims_word_684 = 3;
    req.assigned_rate_type = 1;
    return req;
}

SetupDataCallResp setup_resp(uint32_t interface_id, uint32_t pdp_type, int32_t cid) {
    SetupDataCallResp resp = {};
    resp.interface_id = interface_id;
    resp.active = 1;
    resp.pdp_type = pdp_type;
    set_text(resp.ifname, "pdnet" + std::to_string(interface_id));
    set_ipv6(resp.ipv6_addr, "2001:db8:4::1");
    resp.num_calls = 1;
    resp.calls[0].interface_id = interface_id;
    resp.calls[0].primary_cid = static_cast<uint32_t>(cid);
    resp.calls[0].cid = cid;
    resp.has_extra_call = 1;
    resp.extra_call = resp.calls[0];
    return resp;
}

// ---- the main dispatcher ---------------------------------------------------------

void dispatcher_seeds() {
    const char *t = "dispatcher";
    {
        // The IMS bring-up: parameters passed, fetched by the RIL, answer
        // stored, PDN asked for.
        Writer w;
        w.u8(kDispatchAnnounceImsm0 | kDispatchAnnounceRil | kDispatchPrefixProps);
        SetupDataCallReq req = ims_setup_req(4, 0);
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_PASS_IMS_PDN_REQ, kExpected,
                          as_bytes_of(req));
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, kExpected,
                          as_bytes_of(req));
        ImsParaReq para = {4, 0};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_GET_IMS_PARA_REQ, kExpected,
                          as_bytes_of(para));
        SetupDataCallResp resp = setup_resp(4, kPdpIpv6, 1);
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, kExpected,
                          as_bytes_of(resp));
        ImsPdnReq query = {};
        set_text(query.ifname, "pdnet4");
        query.req_token = 9;
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_GET_IMS_PDN_REQ, kExpected,
                          as_bytes_of(query));
        DataCallListInd changed = {};
        changed.resp = setup_resp(4, kPdpIpv4v6, 1);
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, kExpected,
                          as_bytes_of(changed));
        save(t, "ims_bringup", w);
    }
    {
        // Requests before the RIL proxy is ready fill the pending queue past
        // its 8 places; the announcement flushes it; the answers go back.
        Writer w;
        w.u8(kDispatchAnnounceImsm0 | kDispatchAnnounceLan | kDispatchRilAnswers);
        WordPair pair = {1, 0};
        for (int i = 0; i < 9; ++i) {
            put_dispatch_step(w, i % 2 ? kFromImsm0 : kFromLan,
                              EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ, kExpected,
                              as_bytes_of(pair));
        }
        uint8_t name[kNotificationLen] = "rildproxy";
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_NOTIFICATION, kExpected, name);
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_RADIO_POWER_REQ, kExpected,
                          as_bytes_of(pair));
        DeactivateReq deact = {4, 0, {}};
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,
                          kExpected, as_bytes_of(deact));
        save(t, "pending_queue", w);
    }
    {
        // Announcements: a name in no row, a name filling its whole field.
        Writer w;
        w.u8(0);
        uint8_t unknown[kNotificationLen] = "imsm_9";
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_NOTIFICATION, kExpected, unknown);
        uint8_t full[kNotificationLen];
        std::memset(full, 'x', sizeof(full));
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_NOTIFICATION, kExpected, full);
        uint8_t ati[kNotificationLen] = "ati";
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_NOTIFICATION, kExpected, ati);
        WordPair pair = {};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_ALLOW_DATA_RESP, kExpected,
                          as_bytes_of(pair));
        save(t, "announcements", w);
    }
    {
        // A peer registered as an AT client ("ati": the legacy reply path):
        // its answers are dropped and their events released, its failure
        // answers too.
        Writer w;
        w.u8(kDispatchAnnounceRil | kDispatchRilAnswers);
        uint8_t ati[kNotificationLen] = "ati";
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_NOTIFICATION, kExpected, ati);
        WordPair allow = {1, 0};
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_ALLOW_DATA_REQ, kExpected,
                          as_bytes_of(allow));
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_RADIO_POWER_REQ, kExpected,
                          as_bytes_of(allow));
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, kEightLen, {});
        save(t, "legacy_reply", w);
    }
    {
        // A setup answer fills the table; teardown by cid and interface,
        // handover, the ePDG notice and RB's deactivation follow.
        Writer w;
        w.u8(kDispatchAnnounceRil | kDispatchAnnounceImsm0 | kDispatchEpdg | kDispatchRilAnswers);
        SetupDataCallResp resp = setup_resp(3, kPdpIpv4, 7);
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, kExpected,
                          as_bytes_of(resp));
        WordPair query = {7, 0};
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_BEAR_REQ, kExpected, as_bytes_of(query));
        query.word0 = 3;
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_GET_CID_REQ, kExpected, as_bytes_of(query));
        DeactivateReq deact = {7, 0, {}};
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, kExpected,
                          as_bytes_of(deact));
        deact.id = 2;
        put_dispatch_step(w, kFromRb, EVENT_RB_DEACTIVATE_DATA_CALL_REQ, kExpected,
                          as_bytes_of(deact));
        put_dispatch_step(w, kFromRb, EVENT_RB_EPDG_DEACTIVATE_NOTIFY, kExpected,
                          as_bytes_of(deact));
        HandoverReq ho = {0, {}, 4, {}};
        put_dispatch_step(w, kFromRb, EVENT_RB_HANDOVER_REQ, kExpected, as_bytes_of(ho));
        SetupDataCallReq req = ims_setup_req(5, 1);
        put_dispatch_step(w, kFromRb, EVENT_RB_SETUP_DATA_CALL_REQ, kExpected, as_bytes_of(req));
        save(t, "teardown_handover", w);
    }
    {
        // Dedicated bearers on the IMS interface.
        Writer w;
        w.u8(kDispatchAnnounceRil | kDispatchAnnounceImsm0 | kDispatchAnnounceImsm1 |
             kDispatchMultiIms);
        SetupDataCallResp resp = setup_resp(4, kPdpIpv4, 1);
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, kExpected,
                          as_bytes_of(resp));
        DedicateBearerInd ind = {};
        ind.entry.interface_id = 4;
        ind.entry.primary_cid = 1;
        ind.entry.cid = 2;
        ind.sim_id = 1;
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, kExpected,
                          as_bytes_of(ind));
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC, kExpected,
                          as_bytes_of(ind));
        DedicateBearerDeactInd gone = {0, 2, 1};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, kExpected,
                          as_bytes_of(gone));
        DedicateSetupResp dedicated = {};
        dedicated.entry.cid = 3;
        dedicated.entry.primary_cid = 1;
        dedicated.entry.interface_id = 4;
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP, kExpected,
                          as_bytes_of(dedicated));
        save(t, "dedicated_bearers", w);
    }
    {
        // Counts and cids out of range.
        Writer w;
        w.u8(kDispatchAnnounceRil);
        SetupDataCallResp resp = setup_resp(1, kPdpIpv4, 16);
        resp.num_calls = 12;
        resp.calls[1].cid = 99;
        resp.calls[2].cid = 116;
        resp.calls[3].cid = -1;
        resp.calls[4].cid = INT_MAX;
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, kExpected,
                          as_bytes_of(resp));
        resp.num_calls = -1;
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND, kExpected,
                          as_bytes_of(resp));
        DeactivateReq deact = {UINT32_MAX, 0, {}};
        put_dispatch_step(w, kFromRb, EVENT_RB_DEACTIVATE_DATA_CALL_REQ, kExpected,
                          as_bytes_of(deact));
        WordPair query = {115, 0};
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_BEAR_REQ, kExpected, as_bytes_of(query));
        DedicateBearerDeactInd gone = {0, 100, 0};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, kExpected,
                          as_bytes_of(gone));
        save(t, "out_of_range", w);
    }
    {
        // Lengths one off, the failure answer, unknown ids, the RIL's
        // failure indication, the PDN states and the notify variants.
        Writer w;
        w.u8(kDispatchAnnounceRil | kDispatchAnnounceLan);
        SetupDataCallReq req = {};
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, kExpectedMinus1,
                          as_bytes_of(req));
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, kEightLen, {});
        put_dispatch_step(w, kFromLan, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP, kExpectedPlus1,
                          {});
        put_dispatch_step(w, kFromLan, 5000, kEightLen, {});
        put_dispatch_step(w, kFromLan, 4027, kZeroLen, {});
        ImsParaReq para = {5, 0};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_GET_IMS_PARA_REQ, kExpected,
                          as_bytes_of(para));
        SetupFailInd fail = {3, 0};
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY, kExpected,
                          as_bytes_of(fail));
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND, kExpected,
                          as_bytes_of(fail));
        PdnStateSetReq set = {0, 5, 0};
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_SET_PDN_STATE_REQ, kExpected,
                          as_bytes_of(set));
        PdnStateGetReq get = {};
        get.pdn_id = 5;
        put_dispatch_step(w, kFromImsm0, EVENT_DATAMNGR_GET_PDN_STATE_REQ, kExpected,
                          as_bytes_of(get));
        SetupDataCallResp resp = setup_resp(5, kPdpIpv4, 2);
        put_dispatch_step(w, kFromRb, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY, kExpected,
                          as_bytes_of(resp));
        save(t, "lengths_and_states", w);
    }
    {
        // The modem's AT manager: a command sent and answered, a URC.
        Writer w;
        w.u8(kDispatchAnnounceRil | kDispatchEpdg);
        SetupDataCallResp resp = setup_resp(2, kPdpIpv4, 1);
        put_dispatch_step(w, kFromRil, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, kExpected,
                          as_bytes_of(resp));
        AtCmdReq cmd = {};
        cmd.kind = kAtCmdKindSelfTriggered;
        set_text(cmd.text, "AT+CGACT?\r\n");
        put_dispatch_step(w, kFromAtMngr, EVENT_ATMNGR_ATCMD_REQ, kExpected, as_bytes_of(cmd));
        AtUrc urc = {};
        set_text(urc.text, "+CGEV: NW PDN DEACT 1");
        put_dispatch_step(w, kFromAtMngr, EVENT_ATMNGR_URC, kExpected, as_bytes_of(urc));
        AtCmdResp answer = {};
        set_text(answer.text, "OK");
        put_dispatch_step(w, kFromAtMngr, EVENT_ATMNGR_ATCMD_RESP, kExpected, as_bytes_of(answer));
        save(t, "modem_at", w);
    }
}

// ---- the AT command interface task ------------------------------------------------

void at_seeds() {
    const char *t = "dati";
    struct Line {
        std::string_view text;
        bool cr;
        bool nul;
    };
    auto session = [&](const char *name, uint8_t flags, std::initializer_list<Line> lines) {
        Writer w;
        w.u8(flags);
        for (const Line &l : lines) put_at_step(w, kAtLine, text_bytes(l.text), l.cr, l.nul);
        save(t, name, w);
    };
    session("cgdcont_cgact", kAtAnnounceRil | kAtRilAnswers | kAtRegisterAti,
            {{"AT+CGDCONT=1,\"IP\",\"internet\"", true, true},
             {"AT+CGACT=1,1", true, true},
             {"AT+CGACT=1,2", true, true},
             {"AT+CGACT?", true, true},
             {"AT+CGACT=0,0", true, true},
             {"AT+CGACT=2,1", true, true}});
    session("cfun", kAtAnnounceRil | kAtRilAnswers | kAtRegisterAti,
            {{"AT+CFUN=1", true, true},
             {"at+cfun=4", true, true},
             {"AT+EFUN=0", true, true},
             {"AT+EGTYPE=1", true, true},
             {"AT+CFUN?", true, true},
             {"AT+CFUN", true, true}});
    session("vzwact", kAtRegisterAti,
            {{"AT+VZWACT=1,\"vzwinternet\"", true, true},
             {"AT+VZWACT?", true, true},
             {"AT+VZWACT=", false, true},
             {"AT+CGACT=0,0", true, true}});
    session("forge_urc", 0,
            {{"AT@URC=\"+CGEV: ME PDN ACT 1\"", true, true},
             {"AT+COPS?", true, true},
             {"AT+CGDCONT=1,IP,\"internet\"", true, true},
             {"AT+CGDCONT=1,,2", true, true}});
    session("unterminated", 0,
            {{"AT+CGACT=1,1", true, false}, {"AT+CFUN=1", false, false}, {"", false, false}});
    {
        Writer w;
        w.u8(kAtAnnounceRil);
        std::string long_line = "AT+CGDCONT=1,\"IP\",\"" + std::string(5000, 'a') + "\"";
        put_at_step(w, kAtLine, text_bytes(long_line), true, true);
        std::string long_urc = "AT@URC=" + std::string(5000, 'u');
        put_at_step(w, kAtLine, text_bytes(long_urc), true, true);
        save(t, "long_lines", w);
    }
    {
        Writer w;
        w.u8(kAtAnnounceRil | kAtRilAnswers);
        put_at_step(w, kAtRegistration, text_bytes("ati1"), false, true);
        put_at_step(w, kAtRegistration, text_bytes(std::string(140, 'n')), false, false);
        put_at_step(w, kAtRegistration, {}, false, false);
        put_at_step(w, kAtOtherId, text_bytes("AT+CFUN=1"), true, true, 4002);
        put_at_step(w, kAtLine, text_bytes("AT+CFUN=1"), true, true);
        save(t, "registrations", w);
    }
}

// ---- the modem URC path ---------------------------------------------------------

void urc_seeds() {
    const char *t = "urc";
    struct Seed {
        const char *name;
        uint8_t flags;
        uint8_t cid_pick;
        uint8_t interface_id;
        std::string_view text;
    };
    const Seed seeds[] = {
            {"nw_deact", kUrcEpdg | kUrcAtClientSeen, 1, 2, "+CGEV: NW PDN DEACT 1"},
            {"nw_deact_ims", kUrcEpdg | kUrcDirect, 1, 4, "+CGEV: NW PDN DEACT 1"},
            {"me_deact", kUrcEpdg | kUrcDirect, 2, 3, "\r\n+CGEV: ME PDN DEACT 2"},
            {"me_act", kUrcAtClientSeen | kUrcDirect, 1, 1, "+CGEV: ME PDN ACT 1"},
            {"nw_deact_no_pdn", kUrcAtClientSeen, 1, 1, "+CGEV: NW DEACT IP, 10.0.0.1, 1"},
            {"unknown", kUrcDirect, 0, 0, "+EAPNMOD: \"VZWINTERNET\""},
            {"no_plus", kUrcDirect, 0, 0, "CGEV: NW PDN DEACT 1"},
            {"epdg_cid", kUrcEpdg, 7, 6, "+CGEV: NW PDN DEACT 100"},
            {"huge_cid", kUrcEpdg | kUrcDirect, 12, 6, "+CGEV: NW PDN DEACT 99999999999999"},
    };
    for (const Seed &s : seeds) {
        Writer w;
        w.u8(s.flags).u8(1).u8(s.cid_pick).u8(s.interface_id).u32(0).u32(1);
        w.bytes(text_bytes(s.text));
        save(t, s.name, w);
    }
    Writer full;
    full.u8(kUrcAtClientSeen | kUrcDirect).u8(0).u32(0).u32(0);
    full.bytes(text_bytes("+CGEV: ME PDN ACT " + std::string(kAtTextLen, '1')));
    save(t, "field_full", full);
}

// ---- the netlink receive walk ----------------------------------------------------

void put_address_message(Writer &w, uint16_t type, uint8_t family, const char *address) {
    struct {
        struct nlmsghdr hdr;
        struct ifaddrmsg ifa;
        struct rtattr rta;
        uint8_t addr[16];
    } msg = {};
    msg.hdr.nlmsg_len = sizeof(msg);
    msg.hdr.nlmsg_type = type;
    msg.ifa.ifa_family = family;
    msg.ifa.ifa_prefixlen = 64;
    msg.ifa.ifa_index = 1;
    msg.rta.rta_len = sizeof(msg.rta) + sizeof(msg.addr);
    msg.rta.rta_type = IFA_ADDRESS;
    set_ipv6(msg.addr, address);
    w.bytes(as_bytes_of(msg));
}

void netlink_seeds() {
    const char *t = "netlink";
    const uint8_t all = kNlParse | kNlNoRa | kNlReceive;
    {
        Writer w;
        w.u8(all);
        put_address_message(w, RTM_NEWADDR, AF_INET6, "fe80::1");
        put_address_message(w, RTM_NEWADDR, AF_INET6, "::1");
        save(t, "no_prefix", w);
    }
    {
        Writer w;
        w.u8(all);
        put_address_message(w, RTM_NEWADDR, AF_INET6, "fe80::1");
        put_address_message(w, RTM_NEWADDR, AF_INET6, "2001:db8:1:2::5");
        save(t, "prefix", w);
    }
    {
        Writer w;
        w.u8(all);
        put_address_message(w, 110, AF_INET6, "::");
        save(t, "no_ra", w);
    }
    {
        Writer w;
        w.u8(all);
        put_address_message(w, 110, AF_INET, "::");
        save(t, "no_ra_wrong_family", w);
    }
    {
        Writer w;
        w.u8(all);
        put_address_message(w, 20, AF_INET6, "2001:db8::1");
        save(t, "other_type", w);
    }
    {
        // Lengths that lie: a message longer than the receive, an attribute
        // longer than its message, a header alone.
        Writer w;
        w.u8(kNlParse | kNlReceive);
        w.u32(4096).u16(RTM_NEWADDR).u16(0).u32(0).u32(0);
        w.u8(AF_INET6).u8(64).u8(0).u8(0).u32(1);
        w.u16(200).u16(IFA_ADDRESS);
        save(t, "lying_lengths", w);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    dispatcher_seeds();
    at_seeds();
    urc_seeds();
    netlink_seeds();
    return 0;
}

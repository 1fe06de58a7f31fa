// The eight event paths of dm_bench, their checks and their floors.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "dati/dati.h"
#include "entity/dm_log.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "pdn/pdn_records.h"

namespace bench {
namespace {

constexpr int kBindingEvents = 16;  // run before measuring: imports bound, first touches done
constexpr char kCgactQuery[] = "AT+CGACT?\r";
constexpr size_t kCgactAnswerLen = 163;  // the canned +CGACT answer, without its NUL
constexpr size_t kUrcTextLen = 19;       // "+CGEV: ME PDN ACT 1"
constexpr size_t kResp = sizeof(SetupDataCallResp);
constexpr size_t kList = sizeof(DataCallListInd);

template <class T>
std::vector<uint8_t> bytes_of(const T &record) {
    const auto *p = reinterpret_cast<const uint8_t *>(&record);
    return {p, p + sizeof(T)};
}

// The IMS manager of SIM 0 and the RIL proxy announce themselves.
void announce_peers(Harness &h) {
    h.announce(h.client("imsm_0"));
    h.announce_ril();
}

// An event of the IMS manager of SIM 0 to the main task.
Event from_imsm(Harness &h, uint32_t id, std::vector<uint8_t> payload) {
    announce_peers(h);
    return {&h.client("imsm_0"), nullptr, TASK_DATAMNGR, id, std::move(payload)};
}

// A RIL answer derived from a request of the IMS manager travels back on the
// IMS manager's route: one such request, kept, is the source of every answer.
Event ril_answer(Harness &h, uint32_t request_id, std::vector<uint8_t> request, uint32_t id,
                 std::vector<uint8_t> payload) {
    Event e = from_imsm(h, request_id, std::move(request));
    evfw_event_t *kept = nullptr;
    h.ril().on_receive([&kept](Peer &, const dm::testkit::Received &in) {
        if (kept == nullptr) kept = evfw_event_alloc(in.event);
    });
    e.from->send(TASK_DATAMNGR, e.id, e.payload.data(), e.payload.size());
    h.pump();
    h.ril().on_receive(nullptr);
    return {&h.ril(), kept, TASK_DATAMNGR, id, std::move(payload)};
}

std::vector<uint8_t> setup_request_record(uint32_t interface_id, const char *apn) {
    SetupDataCallReq req{};
    std::snprintf(req.apn, sizeof req.apn, "%s", apn);
    req.interface_id = interface_id;
    return bytes_of(req);
}

// A setup answer with 11 entries and an extra call, cids 0..11.
std::vector<uint8_t> setup_answer_record(uint32_t interface_id) {
    auto r = std::make_unique<SetupDataCallResp>();
    std::memset(r.get(), 0, kResp);
    r->active = 1;
    r->interface_id = interface_id;
    r->pdp_type = kPdpIpv4;
    std::snprintf(r->ifname, sizeof r->ifname, "pdnet%u", interface_id);
    r->num_calls = static_cast<int32_t>(kMaxDataCalls);
    for (size_t i = 0; i < kMaxDataCalls; ++i) {
        std::memset(r->calls[i].rest, static_cast<int>(i), sizeof r->calls[i].rest);
        r->calls[i].interface_id = interface_id;
        r->calls[i].cid = static_cast<int32_t>(i);
    }
    r->has_extra_call = 1;
    r->extra_call.interface_id = interface_id;
    r->extra_call.cid = static_cast<int32_t>(kMaxDataCalls);
    r->extra_call.primary_cid = static_cast<uint32_t>(kMaxDataCalls);
    return bytes_of(*r);
}

// Every call of the answer, the extra call too, has its PDN row, and an IMS
// interface's answer is stored in its slot.
std::string setup_answer_applied(Harness &, const Event &e) {
    uint32_t interface_id;
    std::memcpy(&interface_id, e.payload.data() + offsetof(SetupDataCallResp, interface_id),
                sizeof interface_id);
    for (int32_t cid = 0; cid <= static_cast<int32_t>(kMaxDataCalls); ++cid) {
        const PdnInfo *row = find_pdn_info_by_cid(cid);
        if (row == nullptr || row->interface_id != interface_id) {
            return "cid " + std::to_string(cid) + " not in the PDN table";
        }
    }
    const ImsParaSlot *slot = ims_para_slot(interface_id);
    if (slot != nullptr &&
        (slot->state != kImsSlotResponseStored || slot->response.interface_id != interface_id)) {
        return "the answer is not stored in the IMS slot";
    }
    return "";
}

// Received and passed on: the record into the received event, its data into
// the sent event.
Floor relayed(size_t len) {
    Floor f;
    const int record = f.buffer(len), in = f.buffer(len), out = f.buffer(len);
    f.copy(in, 0, record, 0, len);
    f.copy(out, 0, in, 0, len);
    return f;
}

// The answer into the received event, each call into its PDN row, and for an
// IMS interface the whole answer into its slot.
Floor setup_answer_floor(bool ims_slot) {
    constexpr size_t kEntry = sizeof(DataCallEntry);
    Floor f;
    const int record = f.buffer(kResp), in = f.buffer(kResp);
    const int rows = f.buffer((kMaxDataCalls + 1) * sizeof(PdnInfo));
    f.copy(in, 0, record, 0, kResp);
    for (size_t i = 0; i < kMaxDataCalls; ++i) {
        f.copy(rows, i * sizeof(PdnInfo) + offsetof(PdnInfo, call), in,
               offsetof(SetupDataCallResp, calls) + i * kEntry, kEntry);
    }
    f.copy(rows, kMaxDataCalls * sizeof(PdnInfo) + offsetof(PdnInfo, call), in,
           offsetof(SetupDataCallResp, extra_call), kEntry);
    if (ims_slot) f.copy(f.buffer(kResp), 0, in, 0, kResp);
    return f;
}

// The line into the received event; the answer cleared, the canned text
// into it, the answer into the sent event.
Floor at_query_floor() {
    Floor f;
    const int line = f.buffer(sizeof kCgactQuery), in = f.buffer(sizeof kCgactQuery);
    const int canned = f.buffer(kCgactAnswerLen), resp = f.buffer(sizeof(AtCmdResp));
    const int out = f.buffer(sizeof(AtCmdResp));
    f.copy(in, 0, line, 0, sizeof kCgactQuery);
    f.clear(resp, sizeof(AtCmdResp));
    f.copy(resp, offsetof(AtCmdResp, text), canned, 0, kCgactAnswerLen);
    f.copy(out, 0, resp, 0, sizeof(AtCmdResp));
    return f;
}

// The URC into the received event, its text into the handler's copy; the
// passed-on URC cleared, the text into it, the URC into the sent event.
Floor urc_floor() {
    Floor f;
    const int record = f.buffer(sizeof(AtUrc)), in = f.buffer(sizeof(AtUrc));
    const int text = f.buffer(kAtTextLen + 1), urc = f.buffer(sizeof(AtUrc));
    const int out = f.buffer(sizeof(AtUrc));
    f.copy(in, 0, record, 0, sizeof(AtUrc));
    f.copy(text, 0, in, offsetof(AtUrc, text), kUrcTextLen);
    f.clear(urc, sizeof(AtUrc));
    f.copy(urc, offsetof(AtUrc, text), text, 0, kUrcTextLen);
    f.copy(out, 0, urc, 0, sizeof(AtUrc));
    return f;
}

// The event, with what the library must send for it.
Event expecting(Event e, uint32_t out_to, uint32_t out_id, size_t out_len) {
    e.out_to = out_to;
    e.out_id = out_id;
    e.out_len = out_len;
    return e;
}

Event relay_request(Harness &h) {
    return expecting(from_imsm(h, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, bytes_of(WordPair{})),
                     TASK_RILDPROXY, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, sizeof(WordPair));
}

Event relay_answer(Harness &h) {
    return expecting(
            ril_answer(h, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, bytes_of(WordPair{}),
                       EVENT_DATAMNGR_DATA_CALL_LIST_RESP, std::vector<uint8_t>(kList, 0x5a)),
            h.client("imsm_0").id(), EVENT_DATAMNGR_DATA_CALL_LIST_RESP, kList);
}

Event setup_request(Harness &h) {
    return expecting(
            from_imsm(h, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_request_record(1, "internet")),
            TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, sizeof(SetupDataCallReq));
}

// Checked by setup_answer_applied.
template <uint32_t kInterface>
Event setup_answer(Harness &h) {
    return ril_answer(h, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_request_record(kInterface, ""),
                      EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, setup_answer_record(kInterface));
}

// The IPv4 IMS PDN's interface in a data-call list change from the RIL
// proxy, passed on to the IMS manager.
Event list_changed(Harness &h) {
    announce_peers(h);
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    auto ind = std::make_unique<DataCallListInd>();
    std::memset(ind.get(), 0, kList);
    ind->resp.active = 1;
    ind->resp.interface_id = kImsInterface;
    ind->resp.pdp_type = kPdpIpv4;
    std::snprintf(ind->resp.ifname, sizeof ind->resp.ifname, "pdnet4");
    const Event e{&h.ril(), nullptr, TASK_DATAMNGR, EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,
                  bytes_of(*ind)};
    return expecting(e, h.client("imsm_0").id(), EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC, kList);
}

// AT+CGACT? from the AT interface (task 7) to the AT task, answered with 4066.
Event at_query(Harness &h) {
    const Event e{&h.task(TASK_ATI_ATC), nullptr, TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REQ,
                  std::vector<uint8_t>(kCgactQuery, kCgactQuery + sizeof kCgactQuery)};
    return expecting(e, TASK_ATI_ATC, EVENT_DATAMNGR_ATCMD_RESP, sizeof(AtCmdResp));
}

// A +CGEV URC from the modem's AT manager, passed on to the AT clients
// (event 21 to task 8).
Event cgev_urc(Harness &h) {
    h.task(TASK_ATI_URC);
    // The AT task learns its entity from its first event; the URCs it
    // passes on leave from that task.
    one_event(h, at_query(h));
    auto urc = std::make_unique<AtUrc>();
    std::memset(urc.get(), 0, sizeof(AtUrc));
    std::snprintf(urc->text, sizeof urc->text, "+CGEV: ME PDN ACT 1");
    const Event e{&h.task(TASK_ATMNGR), nullptr, TASK_DATAMNGR, EVENT_ATMNGR_URC, bytes_of(*urc)};
    return expecting(e, TASK_ATI_URC, EVENT_ATI_URC, sizeof(AtUrc));
}

}  // namespace

const std::vector<Path> &paths() {
    static const std::vector<Path> all = {
            {"relay_req_4019", "4019 relay request, 8 B, to the RIL proxy",
             relayed(sizeof(WordPair)), relay_request},
            {"relay_answer_4020", "4020 its answer, 47,880 B, back to the requester",
             relayed(kList), relay_answer},
            {"setup_req_4003", "4003 setup request, 704 B, to the RIL proxy",
             relayed(sizeof(SetupDataCallReq)), setup_request},
            {"setup_answer_4004_if1", "4004 setup answer, 47,876 B, interface 1",
             setup_answer_floor(false), setup_answer<1>, setup_answer_applied},
            {"setup_answer_4004_if4", "4004 the same for interface 4 (IMS slot too)",
             setup_answer_floor(true), setup_answer<kImsInterface>, setup_answer_applied},
            {"dcl_changed_4021_ipv4", "4021 data-call list change, 47,880 B", relayed(kList),
             list_changed},
            {"at_cgact_query_4065", "4065 `AT+CGACT?` through the AT task", at_query_floor(),
             at_query},
            {"cgev_urc_3006", "3006 `+CGEV: ME PDN ACT 1` to the AT clients", urc_floor(),
             cgev_urc},
    };
    return all;
}

std::string sent_one(Harness &h, const Event &e) {
    const auto sent = h.sent_to(e.out_to, e.out_id);
    if (sent.size() == 1 && sent[0].len == e.out_len) return "";
    char why[128];
    std::snprintf(why, sizeof why, "expected one event %u of %zu bytes to %u, got %zu", e.out_id,
                  e.out_len, e.out_to, sent.size());
    return why;
}

void Floor::once() {
    for (const Op &op : ops) {
        uint8_t *to = buffers[op.to].data() + op.to_offset;
        if (op.from < 0) {
            std::memset(to, 0, op.bytes);
        } else {
            std::memcpy(to, buffers[op.from].data() + op.from_offset, op.bytes);
        }
        benchmark::DoNotOptimize(to);
    }
}

void one_event(Harness &h, const Event &e) {
    if (e.request != nullptr) {
        e.from->reply(e.request, e.to, e.id, e.payload.data(), e.payload.size());
    } else {
        e.from->send(e.to, e.id, e.payload.data(), e.payload.size());
    }
    h.pump();
}

std::string prepare(Harness &h, const Path &path, bool log_on, Event &event, size_t &lines) {
    event = path.setup(h);
    dm_debug_lv = log_on ? 15 : 0;
    h.clear();
    one_event(h, event);
    std::string why = path.check(h, event);
    lines = h.logs().size();
    h.rt().set_trace(false);
    h.rt().set_log_capture(false);
    for (int i = 0; i < kBindingEvents && why.empty(); ++i) one_event(h, event);
    return why;
}

void finish(Event &event) {
    if (event.request != nullptr) evfw_event_free(event.request);
    event.request = nullptr;
}

}  // namespace bench

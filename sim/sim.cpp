#include "sim/sim.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>

#include "dati/dati.h"
#include "evfw_ids.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_records.h"
#include "sim/errno_text.h"

namespace dm::sim {

using evfw_host::LogLine;
using evfw_host::Peer;
using evfw_host::Received;
using evfw_host::TraceEntry;

namespace {

// What the scripted RIL proxy answers by default: a zeroed answer of the
// answer's length.  The setup request (4003) gets a built answer instead;
// the dedicated bearer setup (4007) is answered only by a scenario's rule,
// since a zeroed bearer would enter a row for cid 0 in the PDN table.
struct DefaultReply {
    uint32_t request;
    uint32_t answer;
    size_t len;
};
constexpr DefaultReply kDefaultReplies[] = {
        {EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP,
         sizeof(WordPair)},
        {EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ, EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP, kModifyRespLen},
        {EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,
         EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP, sizeof(WordPair)},
        {EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ, EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP,
         sizeof(WordPair)},
        {EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ, EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP,
         kPcscfRespLen},
        {EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ,
         EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP, kFailCauseRespLen},
        {EVENT_DATAMNGR_DATA_CALL_LIST_REQ, EVENT_DATAMNGR_DATA_CALL_LIST_RESP,
         sizeof(DataCallListInd)},
        {EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ, EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP,
         sizeof(WordPair)},
        {EVENT_DATAMNGR_RADIO_POWER_REQ, EVENT_DATAMNGR_RADIO_POWER_RESP, sizeof(WordPair)},
        {EVENT_DATAMNGR_ALLOW_DATA_REQ, EVENT_DATAMNGR_ALLOW_DATA_RESP, sizeof(WordPair)},
        {EVENT_RB_HANDOVER_REQ, EVENT_DATAMNGR_HANDOVER_RESP, sizeof(WordPair)},
};

// The simulated tasks that exist from the start, as in the daemon.
constexpr uint32_t kStandardTasks[] = {TASK_ATI_ATC, TASK_ATI_URC,    TASK_RILDPROXY,
                                       TASK_ATMNGR,  TASK_ATMNGR_C2K, TASK_RB_SIM0,
                                       TASK_RB_SIM1, TASK_RB_SIM2,    TASK_RB_SIM3};

// Fields shown in the trace for the large records.
struct Shown {
    std::string_view record;
    std::initializer_list<std::string_view> fields;
};
const Shown kShown[] = {
        {"SetupDataCallReq",
         {"apn", "ip_type", "interface_id", "ims_para_valid", "emergency_ind", "sim_id"}},
        {"SetupDataCallResp",
         {"status", "interface_id", "active", "pdp_type", "ifname", "ipv6_addr", "num_calls",
          "calls.0.cid", "sim_id"}},
        {"DataCallListInd",
         {"resp.status", "resp.interface_id", "resp.pdp_type", "resp.ifname", "resp.ipv6_addr"}},
        {"DedicateBearerInd",
         {"entry.status", "entry.interface_id", "entry.primary_cid", "entry.cid", "sim_id"}},
        {"DedicateSetupResp", {"entry.interface_id", "entry.primary_cid", "entry.cid"}},
        {"BearResp", {"result", "entry.interface_id", "entry.primary_cid", "entry.cid"}},
        {"AtCmdResp", {"text"}},
        {"AtUrc", {"text"}},
        {"AtCmdReq", {"kind", "text"}},
        {"Announcement", {"name"}},
        {"ImsPdnReq", {"ifname", "req_token", "sim_id"}},
        {"PdnStateGetReq", {"pdn_id"}},
};

void apply(const Payload &p, std::vector<uint8_t> &buf) {
    for (const Assign &a : p.assigns) {
        if (a.field.offset >= buf.size()) continue;
        size_t n = std::min(a.value.size(), buf.size() - a.field.offset);
        std::copy_n(a.value.begin(), n, buf.begin() + static_cast<long>(a.field.offset));
    }
}

std::string text_of(const uint8_t *p, size_t max) {
    return std::string(reinterpret_cast<const char *>(p),
                       strnlen(reinterpret_cast<const char *>(p), max));
}

}  // namespace

Sim::Sim(const Options &options, FILE *out)
    : opt_(options), out_(out), rt_(evfw_host::Runtime::instance()) {}

Sim::~Sim() {
    if (loaded_) finish();
}

bool Sim::load(std::string &error) {
    evfw_host::EntityAbi abi;
    if (opt_.linked != nullptr) {
        links_ = *opt_.linked;
        abi.init = links_.init;
        abi.exit = links_.exit;
        abi.ctx_handlers = {{TASK_DATAMNGR_DATI_HDL, links_.dati_hdl}};
    }
    if (opt_.linked != nullptr
                ? rt_.load("datamngr", abi) == nullptr
                : rt_.load_library(
                          opt_.lib, "datamngr", "datamngr_entity_init", "datamngr_entity_exit",
                          {{TASK_DATAMNGR_DATI_HDL, "datamngr_dati_task_hdl"}}) == nullptr) {
        error = rt_.last_error();
        return false;
    }
    loaded_ = true;
    // The init thread clears the PDN tables: nothing may reach the data
    // manager before it has returned.
    if (!rt_.wait_threads(opt_.settle)) {
        error = "the data manager's init thread did not return";
        return false;
    }
    // The entry points of the very library the runtime loaded: a second
    // dlopen of the same path yields the same object.
    if (void *dl = opt_.linked != nullptr ? nullptr
                                          : dlopen(opt_.lib.c_str(), RTLD_NOW | RTLD_NOLOAD)) {
        auto sym = [dl](const char *name) { return dlsym(dl, name); };
        links_.dati_setup =
                reinterpret_cast<EntityLinks::SetupResp>(sym("dati_setup_data_call_resp"));
        links_.dati_fail = reinterpret_cast<EntityLinks::WordResp>(sym("dati_fail_resp"));
        links_.dati_radio_power =
                reinterpret_cast<EntityLinks::WordResp>(sym("dati_radio_power_resp"));
        links_.dati_allow_data =
                reinterpret_cast<EntityLinks::WordResp>(sym("dati_allow_data_resp"));
        links_.pdn_row = reinterpret_cast<PdnInfo *(*)(int32_t)>(sym("find_pdn_info_by_index"));
        dlclose(dl);  // the runtime's reference keeps it loaded
    }
    return true;
}

bool Sim::start(const std::vector<std::string> &clients, std::string &error) {
    rt_.reset(deterministic() ? evfw_host::Mode::Deterministic : evfw_host::Mode::Threaded);
    rt_.set_thread_linger(opt_.thread_linger);
    if (opt_.wait_limit.count() != 0) rt_.set_wait_limit(opt_.wait_limit);
    for (const std::string &plan : opt_.faults) {
        if (!rt_.add_fault(plan, error)) return false;
    }
    if (!load(error)) return false;

    for (uint32_t id : kStandardTasks) {
        Peer &p = rt_.add_task(id);
        tasks_[id] = &p;
        if (id == TASK_RILDPROXY) {
            ril_ = &p;
            p.on_receive([this](Peer &self, const Received &in) { on_ril(self, in); });
        } else {
            // Received events are recorded by the trace; the peer only takes them.
            p.on_receive([](Peer &, const Received &) {});
        }
    }
    for (const std::string &name : clients) client(name);
    settle();
    return true;
}

bool Sim::settle() {
    if (deterministic()) {
        rt_.pump();
        return true;
    }
    if (rt_.wait_idle(opt_.settle)) return true;
    std::fprintf(out_, "   !! the data manager is still busy after %lld ms; going on\n",
                 static_cast<long long>(opt_.settle.count()));
    return false;
}

bool Sim::finish() {
    if (!loaded_) return true;
    script([](RilScript &s) { s.enabled = false; });
    settle();
    rt_.unload();
    loaded_ = false;
    bool ok = true;
    if (!opt_.trace_path.empty()) {
        FILE *f = std::fopen(opt_.trace_path.c_str(), "w");
        if (f == nullptr) {
            std::fprintf(stderr, "dmsim: cannot write the trace to %s: %s\n",
                         opt_.trace_path.c_str(), errno_text(errno).c_str());
            ok = false;
        } else {
            print_trace(f, rt_.trace(), rt_.diagnostics());
            std::fclose(f);
        }
    }
    return ok;
}

Peer &Sim::task(uint32_t task_id) {
    auto it = tasks_.find(task_id);
    if (it != tasks_.end()) return *it->second;
    Peer &p = rt_.add_task(task_id);
    p.on_receive([](Peer &, const Received &) {});
    tasks_[task_id] = &p;
    return p;
}

Peer &Sim::client(const std::string &name) {
    auto it = clients_.find(name);
    if (it != clients_.end()) return *it->second;
    Peer &p = rt_.add_client(name);
    p.on_receive([](Peer &, const Received &) {});
    clients_[name] = &p;
    return p;
}

Peer &Sim::peer(const PeerRef &ref) {
    return ref.is_client() ? client(ref.client) : task(ref.task_id);
}

void Sim::announce(Peer &from, const std::string &name) {
    std::vector<uint8_t> payload(132, 0);
    std::memcpy(payload.data(), name.data(), std::min<size_t>(name.size(), 131));
    from.send(TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION, payload.data(), payload.size());
}

void Sim::at_line(const std::string &line) {
    std::string text = line + "\r";
    Peer &at = task(TASK_ATI_ATC);
    at.send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REQ, text.c_str(), text.size() + 1);
    if (at_chnl_ == 0) {
        // The AT interface's channel: requests made on behalf of its clients
        // travel on it (see on_ril).
        for (const TraceEntry &e : rt_.trace()) {
            if (e.from == TASK_ATI_ATC) {
                at_chnl_ = e.chnl;
                break;
            }
        }
    }
}

void Sim::at_register(const std::string &name) {
    Peer &at = task(TASK_ATI_ATC);
    at.send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REGISTER, name.c_str(), name.size() + 1);
    if (at_chnl_ == 0) {
        for (const TraceEntry &e : rt_.trace()) {
            if (e.from == TASK_ATI_ATC) {
                at_chnl_ = e.chnl;
                break;
            }
        }
    }
}

size_t Sim::urc(const std::string &line) {
    AtUrc rec;
    std::memset(&rec, 0, sizeof(rec));
    std::memcpy(rec.text, line.data(), std::min(line.size(), sizeof(rec.text) - 1));
    // The AT manager's rule: a subscription matches at the line's start, or
    // after its leading CR and LF with EVFW_URC_MODE_SKIP_CRLF.
    std::string_view skipped = line;
    while (!skipped.empty() && (skipped.front() == '\r' || skipped.front() == '\n')) {
        skipped.remove_prefix(1);
    }
    Peer &atmngr = task(TASK_ATMNGR);
    size_t subscribers = 0;
    for (const evfw_host::UrcSubscription &s : rt_.urc_subscriptions()) {
        const bool match = (s.mode & EVFW_URC_MODE_SKIP_CRLF) != 0
                                   ? skipped.starts_with(s.prefix)
                                   : (s.mode & EVFW_URC_MODE_LINE_START) != 0 &&
                                             std::string_view(line).starts_with(s.prefix);
        if (!match) continue;
        atmngr.send(s.task_id, s.event_id, &rec, sizeof(rec));
        ++subscribers;
    }
    return subscribers;
}

void Sim::script(const std::function<void(RilScript &)> &change) {
    std::lock_guard lk(script_mu_);
    change(script_);
}

// ---- the scripted RIL proxy --------------------------------------------------------

std::vector<uint8_t> Sim::setup_answer(const Received &in) {
    SetupDataCallReq req;
    std::memcpy(&req, in.data.data(), sizeof(req));
    auto resp = std::make_unique<SetupDataCallResp>();  // zeroed
    const uint32_t iface = req.interface_id;
    resp->interface_id = iface;
    resp->active = 1;
    resp->pdp_type = req.ip_type;
    std::snprintf(resp->ifname, sizeof(resp->ifname), "pdnet%u", iface);
    // One default bearer whose cid is the interface number.
    resp->num_calls = 1;
    resp->calls[0].interface_id = iface;
    resp->calls[0].cid = static_cast<int32_t>(iface);
    resp->calls[0].primary_cid = iface;
    resp->sim_id = req.sim_id;
    resp->sim_byte = req.sim_id;
    std::vector<uint8_t> out(sizeof(SetupDataCallResp));
    std::memcpy(out.data(), resp.get(), out.size());
    for (const auto &[which, fields] : script_.answers) {
        if (which < 0 || static_cast<uint32_t>(which) == iface) apply(fields, out);
    }
    return out;
}

void Sim::on_ril(Peer &self, const Received &in) {
    std::lock_guard lk(script_mu_);
    if (!script_.enabled) return;
    std::vector<uint8_t> answer;
    uint32_t answer_id = 0;
    auto rule = script_.rules.find(in.event_id);
    if (rule != script_.rules.end()) {
        if (rule->second.ignore) return;
        answer = rule->second.payload.build();
        answer_id = rule->second.reply_id;
    } else if (in.event_id == EVENT_DATAMNGR_SETUP_DATA_CALL_REQ &&
               in.as<SetupDataCallReq>() != nullptr) {
        const auto *req = in.as<SetupDataCallReq>();
        if (req->interface_id == kImsInterface || req->interface_id == kEmergencyImsInterface) {
            // The RIL fetches the IMS parameters of an IMS PDN while it sets it up.
            ImsParaReq para = {req->interface_id, req->sim_id};
            self.send(TASK_DATAMNGR, EVENT_DATAMNGR_GET_IMS_PARA_REQ, &para, sizeof(para));
        }
        answer = setup_answer(in);
        answer_id = EVENT_DATAMNGR_SETUP_DATA_CALL_RESP;
    } else {
        auto d = std::find_if(std::begin(kDefaultReplies), std::end(kDefaultReplies),
                              [&](const DefaultReply &r) { return r.request == in.event_id; });
        if (d == std::end(kDefaultReplies)) return;
        answer.assign(d->len, 0);
        answer_id = d->answer;
    }
    // Derived from the request, so that the answer finds its requester.
    self.reply(in.event, TASK_DATAMNGR, answer_id, answer.data(), answer.size());
    // A request on the AT interface's channel was made for an AT client.
    if (at_chnl_ != 0 && in.chnl == at_chnl_) deliver_to_at_client(answer_id, answer, in.event);
}

// The data manager's answer delivery refuses AT clients (their reply path is
// the legacy one), so the host side gives the AT client its result through
// the library's dati_*_resp entry points, with the request as template: the
// result then travels back to the AT client.  A deactivation (+CGACT=0) was
// answered at once by the AT command interface, so its answer gives nothing.
void Sim::deliver_to_at_client(uint32_t answer_id, std::vector<uint8_t> &answer,
                               evfw_event_t *request) {
    if (answer_id == EVENT_DATAMNGR_SETUP_DATA_CALL_RESP) {
        if (links_.dati_setup == nullptr || answer.size() != sizeof(SetupDataCallResp)) return;
        auto resp = std::make_unique<SetupDataCallResp>();
        std::memcpy(resp.get(), answer.data(), sizeof(SetupDataCallResp));
        links_.dati_setup(resp.get(), request);
        return;
    }
    EntityLinks::WordResp fn =
            answer_id == EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND ? links_.dati_fail
            : answer_id == EVENT_DATAMNGR_RADIO_POWER_RESP       ? links_.dati_radio_power
            : answer_id == EVENT_DATAMNGR_ALLOW_DATA_RESP        ? links_.dati_allow_data
                                                                 : nullptr;
    WordPair words{};
    if (fn == nullptr || answer.size() != sizeof(words)) return;
    std::memcpy(&words, answer.data(), sizeof(words));
    fn(&words, request);
}

// ---- observation -------------------------------------------------------------------

std::vector<TraceEntry> Sim::new_trace() {
    std::vector<TraceEntry> out;
    for (TraceEntry &e : rt_.trace()) {
        if (e.seq > printed_seq_) {
            printed_seq_ = e.seq;
            out.push_back(std::move(e));
        }
    }
    return out;
}

std::vector<LogLine> Sim::new_logs() {
    std::vector<LogLine> all = rt_.logs();
    std::vector<LogLine> out;
    for (size_t i = printed_logs_; i < all.size(); ++i) out.push_back(std::move(all[i]));
    printed_logs_ = all.size();
    return out;
}

void Sim::print_logs(FILE *out) {
    for (const LogLine &l : new_logs()) {
        std::fprintf(out, "      %s\n", logcat(l).c_str());
    }
}

void Sim::print_diagnostics(FILE *out) {
    const std::vector<evfw_host::Diagnostic> all = rt_.diagnostics();
    for (size_t i = printed_diags_; i < all.size(); ++i) {
        std::fprintf(out, "   !! evfw_host: %s\n", all[i].text.c_str());
    }
    printed_diags_ = all.size();
}

std::string Sim::describe(const TraceEntry &e) const {
    const RecordDesc *rec = default_record(e.event_id);
    if (rec == nullptr || e.data.empty()) return "";
    if (rec->size == 0) return "\"" + escape(text_of(e.data.data(), e.data.size())) + "\"";
    if (rec->size != e.data.size()) return "";
    std::string out;
    auto add = [&](std::string_view path) {
        FieldRef f;
        std::string err;
        if (!resolve_field(*rec, path, f, err)) return;
        if (!out.empty()) out += ' ';
        out += f.path + "=" + format_value(f.kind, e.data.data() + f.offset, f.size);
    };
    for (const Shown &s : kShown) {
        if (s.record == rec->name) {
            for (std::string_view f : s.fields) add(f);
            return out;
        }
    }
    for (const FieldDesc &f : rec->fields) {
        if (f.kind != Kind::Bytes && f.kind != Kind::Record) add(f.name);
    }
    return out;
}

void Sim::print_entry(const TraceEntry &e, FILE *out) const {
    std::string what = describe(e);
    std::fprintf(out, "   %4llu %s(%u) -> %s(%u) %s(%u) %zu B%s%s%s\n",
                 static_cast<unsigned long long>(e.seq), context_get_name(e.from), e.from,
                 e.to == 0 ? "(nobody)" : context_get_name(e.to), e.to, event_get_name(e.event_id),
                 e.event_id, e.len, what.empty() ? "" : "  ", what.c_str(),
                 e.dropped ? "  (dropped: no such task)" : "");
}

// ---- expectations ------------------------------------------------------------------

std::vector<TraceEntry> Sim::unconsumed(uint32_t to, uint32_t event_id) {
    std::vector<TraceEntry> out;
    for (TraceEntry &e : rt_.trace()) {
        if (e.to == to && !e.dropped && (event_id == 0 || e.event_id == event_id) &&
            consumed_.count(e.seq) == 0) {
            out.push_back(std::move(e));
        }
    }
    return out;
}

std::string Sim::expect(const Step &s) {
    Peer &p = peer(s.peer);
    auto got = unconsumed(p.id(), s.event_id);
    if (got.empty()) {
        std::string others;
        for (const TraceEntry &e : unconsumed(p.id(), 0)) {
            others += std::string(others.empty() ? "" : ", ") + event_get_name(e.event_id) + "(" +
                      std::to_string(e.event_id) + ")";
        }
        return s.peer.label() + " received no " + event_get_name(s.event_id) + "(" +
               std::to_string(s.event_id) + ")" +
               (others.empty() ? " (nothing else either)" : " (it received " + others + ")");
    }
    const TraceEntry &e = got.front();
    consumed_.insert(e.seq);
    const Payload &want = s.payload;
    if (want.len_given && e.len != want.len) {
        return "received " + std::to_string(e.len) + " bytes; expected " + std::to_string(want.len);
    }
    const RecordDesc *rec = want.record;
    if (rec != nullptr && rec->size != 0 && (want.record_given || !want.assigns.empty()) &&
        e.len != rec->size) {
        return "received " + std::to_string(e.len) + " bytes; expected a " +
               std::string(rec->name) + " of " + std::to_string(rec->size) + " bytes";
    }
    return check_fields(want, e.data.data(), e.len);
}

std::string Sim::check_fields(const Payload &want, const uint8_t *data, size_t len) const {
    std::string why;
    for (const Assign &a : want.assigns) {
        size_t size = a.field.size;
        if (size == 0) size = a.field.offset <= len ? len - a.field.offset : 0;  // text
        if (a.field.offset + size > len || (size == 0 && a.field.kind != Kind::Text)) {
            why += (why.empty() ? "" : "; ") + a.field.path + " lies beyond the " +
                   std::to_string(len) + " bytes received";
            continue;
        }
        const uint8_t *at = data + a.field.offset;
        if (!value_matches(a.field.kind, at, size, a.value)) {
            why += (why.empty() ? "" : "; ") + a.field.path + " is " +
                   format_value(a.field.kind, at, size) + ", expected " +
                   format_value(a.field.kind, a.value.data(), a.value.size());
        }
    }
    return why;
}

std::string Sim::expect_pdn(const Step &s) {
    if (links_.pdn_row == nullptr) return "the library offers no find_pdn_info_by_index";
    const PdnInfo *row = links_.pdn_row(s.cid);
    if (row == nullptr) return "cid " + std::to_string(s.cid) + " has no row in the PDN tables";
    return check_fields(s.payload, reinterpret_cast<const uint8_t *>(row), pdn_row_record().size);
}

void Sim::consume_all() {
    for (const TraceEntry &e : rt_.trace()) consumed_.insert(e.seq);
}

std::string Sim::expect_none(const Step &s) {
    Peer &p = peer(s.peer);
    auto got = unconsumed(p.id(), s.event_id);
    if (got.empty()) return "";
    std::string what;
    for (const TraceEntry &e : got) {
        what += std::string(what.empty() ? "" : ", ") + event_get_name(e.event_id) + "(" +
                std::to_string(e.event_id) + ")";
    }
    return s.peer.label() + " received " + what;
}

std::string Sim::expect_at_text(uint32_t task_id, std::initializer_list<uint32_t> ids,
                                const std::string &text) {
    std::vector<TraceEntry> got;
    for (TraceEntry &e : unconsumed(task_id, 0)) {
        if (std::find(ids.begin(), ids.end(), e.event_id) != ids.end()) got.push_back(std::move(e));
    }
    if (got.empty()) return std::string(context_get_name(task_id)) + " received no text";
    const TraceEntry &e = got.front();
    consumed_.insert(e.seq);
    const size_t off = e.event_id == EVENT_DATAMNGR_ATCMD_RESP ? offsetof(AtCmdResp, text)
                                                               : offsetof(AtUrc, text);
    if (e.len <= off) return "received " + std::to_string(e.len) + " bytes without a text";
    std::string have = text_of(e.data.data() + off, e.len - off);
    if (have == text) return "";
    return "received \"" + escape(have) + "\"; expected \"" + escape(text) + "\"";
}

std::string Sim::expect_log(const std::string &text, int count) {
    int n = 0;
    for (const LogLine &l : rt_.logs()) {
        if (l.text.find(text) != std::string::npos) ++n;
    }
    if (count < 0 ? n > 0 : n == count) return "";
    if (count < 0) return "no log line contains \"" + escape(text) + "\"";
    return std::to_string(n) + " log lines contain \"" + escape(text) + "\"; expected " +
           std::to_string(count);
}

// ---- a scenario --------------------------------------------------------------------

StepResult run_steps(Sim &sim, const Scenario &sc, bool log, FILE *out) {
    StepResult result;
    for (const Step &s : sc.steps) {
        if (sc.is_expectation(s)) {
            std::string why;
            switch (s.op) {
                case Op::Expect:
                    why = sim.expect(s);
                    break;
                case Op::ExpectNone:
                    why = sim.expect_none(s);
                    break;
                case Op::ExpectAt:
                    why = sim.expect_at_text(TASK_ATI_ATC, {EVENT_DATAMNGR_ATCMD_RESP}, s.text);
                    break;
                case Op::ExpectUrc:
                    why = sim.expect_at_text(TASK_ATI_URC, {EVENT_ATI_URC_FORGED, EVENT_ATI_URC},
                                             s.text);
                    break;
                case Op::ExpectLog:
                    why = sim.expect_log(s.text, s.count);
                    break;
                case Op::ExpectNoLog:
                    why = sim.expect_log(s.text, 0);
                    break;
                case Op::ExpectPdn:
                    why = sim.expect_pdn(s);
                    break;
                default:
                    break;
            }
            ++result.expectations;
            if (why.empty()) {
                std::fprintf(out, "   PASS %s:%d  %s\n", sc.file.c_str(), s.line, s.source.c_str());
            } else {
                ++result.failed;
                std::fprintf(out, "   FAIL %s:%d  %s\n        %s\n", sc.file.c_str(), s.line,
                             s.source.c_str(), why.c_str());
            }
            continue;
        }
        std::fprintf(out, "-- %d: %s\n", s.line, s.source.c_str());
        switch (s.op) {
            case Op::Property:
                sim.rt().set_property(s.text, s.value);
                break;
            case Op::Announce:
                sim.announce(sim.peer(s.peer), s.text);
                break;
            case Op::Send: {
                std::vector<uint8_t> bytes = s.payload.build();
                sim.peer(s.peer).send(s.target, s.event_id, bytes.data(), bytes.size());
                break;
            }
            case Op::RilAuto:
                sim.script([](RilScript &r) { r.enabled = true; });
                break;
            case Op::RilOff:
                sim.script([](RilScript &r) { r.enabled = false; });
                break;
            case Op::RilAnswer:
                sim.script([&](RilScript &r) { r.answers.emplace_back(s.iface, s.payload); });
                break;
            case Op::RilReply:
                sim.script([&](RilScript &r) {
                    r.rules[s.event_id] = RilScript::Rule{false, s.reply_id, s.payload};
                });
                break;
            case Op::RilIgnore:
                sim.script([&](RilScript &r) {
                    r.rules[s.event_id] = RilScript::Rule{true, 0, {}};
                });
                break;
            case Op::At:
                sim.at_line(s.text);
                break;
            case Op::AtRegister:
                sim.at_register(s.text);
                break;
            case Op::Urc:
                if (sim.urc(s.text) == 0) {
                    std::fprintf(out, "   (no task subscribes to this URC line: nothing sent)\n");
                }
                break;
            default:
                break;
        }
        sim.settle();
        for (const TraceEntry &e : sim.new_trace()) sim.print_entry(e, out);
        sim.print_diagnostics(out);
        if (log) sim.print_logs(out);
    }
    return result;
}

int run_scenario(const Scenario &sc, const Options &options, FILE *out) {
    std::fprintf(out, "== %s%s%s\n", sc.file.c_str(), sc.title.empty() ? "" : ": ",
                 sc.title.c_str());
    Sim sim(options, out);
    std::string error;
    if (!sim.start(sc.clients, error)) {
        std::fprintf(stderr, "dmsim: %s: %s\n", sc.file.c_str(), error.c_str());
        return kExitEnv;
    }
    sim.new_trace();  // the start-up is not part of the scenario's output
    sim.print_diagnostics(out);
    if (options.log) sim.print_logs(out);
    auto [expectations, failed] = run_steps(sim, sc, options.log, out);
    if (options.final_check) {
        ++expectations;
        if (std::string why = options.final_check(sim); !why.empty()) {
            ++failed;
            std::fprintf(out, "   FAIL %s: at the end: %s\n", sc.file.c_str(), why.c_str());
        }
    }
    const std::vector<TraceEntry> trace = sim.rt().trace();
    const bool files_ok = sim.finish();
    bool diagram_ok = true;
    if (!options.diagram_path.empty()) {
        std::string err;
        diagram_ok = write_diagram(trace, sc.title.empty() ? sc.file : sc.title,
                                   options.diagram_path, err);
        if (!diagram_ok) std::fprintf(stderr, "dmsim: %s\n", err.c_str());
    }
    if (!options.trace_path.empty())
        std::fprintf(out, "   trace: %s\n", options.trace_path.c_str());
    if (!options.diagram_path.empty()) {
        std::fprintf(out, "   diagram: %s\n", options.diagram_path.c_str());
    }
    if (failed != 0) {
        std::fprintf(out, "== %s: FAIL (%d of %d expectations failed)\n", sc.file.c_str(), failed,
                     expectations);
        return kExitFail;
    }
    std::fprintf(out, "== %s: PASS (%d expectations)\n", sc.file.c_str(), expectations);
    return files_ok && diagram_ok ? kExitPass : kExitEnv;
}

}  // namespace dm::sim

// The AT command interface where another module calls it, or where what it
// does shows only in the runtime's counters: the handlers and the reply entry
// points called directly (their results, the entity lock, the held reply),
// the tokeniser's remembered position, lines that do not end inside their
// event, the exported command table, the self-triggered AT commands matched
// by cookie, the URC routines' results and effects and the operator hooks.
#include <map>

#include "common/dm_test.h"
#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/operator_hooks.h"
#include "pdn/pdn_info.h"

namespace {

using namespace dm_test;
using Routine = int32_t (*)(char *, uint32_t, uint32_t, evfw_event_t *);

// Read as the library comes loaded, before any reset of its state.
TEST(DatiAtLoad, AllowDataRepliesAreArmed) {
    EXPECT_EQ(data_allow_reply_armed, 1u);
}

class Dati : public DmTest {
  protected:
    void SetUp() override {
        h.announce_ril();
        h.task(TASK_ATI_ATC);
        h.task(TASK_ATI_URC);
    }
    void at(const std::string &line) {
        to_dati(EVENT_DATAMNGR_ATCMD_REQ, line.c_str(), line.size() + 1);
    }
    void to_dati(uint32_t event_id, const void *data, size_t len) {
        h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, event_id, data, len);
        h.pump();
    }
    // What the AT interface (7, 8) and the RIL proxy received since the last
    // look: "|4066:" a result's text, "|15:" a forwarded line and its length,
    // "|18:"/"|21:" a URC's text, "|202:" a request's id and its first byte.
    std::string sent() {
        std::string out;
        for (const auto &e : h.rt().trace()) {
            const size_t at = e.to == TASK_ATI_URC                      ? 12
                              : e.event_id == EVENT_DATAMNGR_ATCMD_RESP ? 20
                                                                        : 0;
            const char *text = reinterpret_cast<const char *>(e.data.data()) + at;
            if (e.to == TASK_RILDPROXY)
                out += "|202:" + std::to_string(e.event_id) + "=" + std::to_string(e.data[0]);
            if (e.to != TASK_ATI_ATC && e.to != TASK_ATI_URC) continue;
            out += "|" + std::to_string(e.event_id) + ":" +
                   std::string(text, strnlen(text, e.len - at));
            if (e.event_id == EVENT_ATI_ATCMD_FWD) out += "/" + std::to_string(e.len);
        }
        h.rt().clear_trace();
        return out;
    }
};

// ---- the handlers, called as the AT command interface calls them ---------------------

struct HandlerCase {
    const char *name;
    dati_atc_hdl_t hdl;
    // What goes out; stray releases of the entity lock, lock kept, reply kept, row 1's state.
    const char *params, *sent, *lock;
};

const HandlerCase kHandlers[] = {
        // Allow data for 1 and 4 only; the value as given for radio power.
        {"CfunOn", dati_cfun_assign_hdl, "4\r", "|202:4037=1|202:4032=4", "0 0 0 -1"},
        {"CfunOff", dati_cfun_assign_hdl, "0\r", "|202:4037=0|202:4032=0", "0 0 0 -1"},
        {"Efun", dati_efun_assign_hdl, "12\r", "|202:4032=12", "0 0 0 -1"},
        {"EgtypeOn", dati_egtype_assign_hdl, "4\r", "|202:4037=1", "0 0 0 -1"},
        {"EgtypeOff", dati_egtype_assign_hdl, "2\r", "|202:4037=0", "0 0 0 -1"},
        {"Cgdcont", dati_cgdcont_assign_hdl, "2,\"IP\",\"a\"\r", "|4066:\r\nOK\r\n", "0 0 0 -1"},
        {"CgdcontType", dati_cgdcont_assign_hdl, "2,IP,\"a\"\r", "|4066:\r\nERROR\r\n", "0 0 0 -1"},
        // Activation and deactivation release the lock once more than they took it.
        {"CgactActivates", dati_cgact_assign_hdl, "1,1\r", "|202:4003=0", "1 0 0 1"},
        {"CgactDeactivates", dati_cgact_assign_hdl, "0,0\r",
         "|202:4005=0|4066:\r\n+CGEV: ME PDN DEACT 0\r\n\r\nOK\r\n", "1 0 0 0"},
        {"CgactNoRow", dati_cgact_assign_hdl, "1,7\r", "|4066:\r\nERROR\r\n", "0 0 0 -1"},
        {"CgactWrongState", dati_cgact_assign_hdl, "2,1\r", "|4066:\r\nERROR\r\n", "0 0 0 -1"},
        {"CgactQuery", dati_cgact_query_hdl, "\r",
         "|4066:\r\n+CGACT: 0, 0\r\n+CGACT: 1, 0\r\n+CGACT: 2, 0\r\n+CGACT: 3, 0\r\n"
         "+CGACT: 4, 0\r\n+CGACT: 5, 0\r\n+CGACT: 6, 0\r\n+CGACT: 7, 0\r\n+CGACT: 8, 0\r\n"
         "+CGACT: 9, 0\r\n+CGACT: 10, 0\r\n\r\nOK\r\n",
         "0 0 0 -1"},
        // The lock stays taken and the reply stays held: the next command overwrites it.
        {"Vzwact", dati_vzwact_assign_hdl, "1,x\r", "|4066:\r\nERROR\r\n", "0 1 1 -1"},
        {"VzwactQuery", dati_vzwact_query_hdl, "\r", "|15:AT+CGACT?\r\n/12", "0 0 0 -1"},
        {"ForgeUrc", dati_forge_urc_assign_hdl, "\"a\"\"b\",c\r",
         "|4066:\r\nOK\r\n|18:\r\nab,c\r\r\n", "0 0 0 -1"},
        {"BypassQuery", dati_bypass_query_hdl, "AT+X?\r", "|15:AT+X?\r/7", "0 0 0 -1"}};

class Handlers : public Dati, public ::testing::WithParamInterface<HandlerCase> {};

TEST_P(Handlers, ResultLockAndHeldReply) {
    const HandlerCase &c = GetParam();
    at("AT+CGDCONT=1,\"IP\",\"internet\"\r");  // row 1, CID 1; the task sees its entity
    sent();
    std::string params = c.params;
    evfw_event_t *held = evfw_event_alloc(nullptr);
    const long unlocks = h.rt().bad_unlocks();
    EXPECT_EQ(c.hdl(&dati_atc_tbl[0], params.data(), &held), 0);
    h.pump();
    // Whether this thread still holds the entity lock: a release succeeds.
    const bool kept_lock = h.entity()->lock.unlock(&h.entity()->lock) == 0;
    EXPECT_EQ(sent(), c.sent);
    EXPECT_EQ(values({h.rt().bad_unlocks() - unlocks - !kept_lock, kept_lock, held != nullptr,
                      h.entity()->at_pdp_ctx[1].state}),
              c.lock);
    evfw_event_free(held);
}

INSTANTIATE_TEST_SUITE_P(Each, Handlers, ::testing::ValuesIn(kHandlers),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- the reply entry points -------------------------------------------------------

// Called before the task has seen its entity, the handlers that send from
// the task free their reply and send nothing (the three that only ask the
// RIL proxy ask all the same), and so do the reply entry points; without a
// reply to hold, every handler does nothing.
TEST_F(Dati, HandlersAndReplyEntryPointsAnswerOrOnlyLog) {
    for (auto hdl : {dati_cgdcont_assign_hdl, dati_cgact_assign_hdl, dati_cgact_query_hdl,
                     dati_vzwact_assign_hdl, dati_vzwact_query_hdl, dati_bypass_query_hdl,
                     dati_cfun_assign_hdl, dati_efun_assign_hdl, dati_egtype_assign_hdl,
                     dati_forge_urc_assign_hdl}) {
        std::string params = "1,\"IP\",\"a\"\r";
        evfw_event_t *held = evfw_event_alloc(nullptr), *none = nullptr;
        EXPECT_EQ(values({hdl(dati_atc_tbl, params.data(), &held), held != nullptr,
                          hdl(dati_atc_tbl, params.data(), &none),
                          hdl(dati_atc_tbl, params.data(), nullptr)}),
                  "0 0 0 0");
    }
    SetupDataCallResp setup = {};
    std::string error;
    setup.interface_id = 3;
    setup.status = 27;  // not looked at
    auto answers = [&](auto... fns) {
        evfw_event_t *tmpl = evfw_event_alloc(nullptr);
        std::string results;
        ((results += std::to_string(fns(nullptr, tmpl))), ...);
        evfw_event_free(tmpl);
        h.pump();
        return results + sent();
    };
    // A query without a line to pass on frees its reply.
    evfw_event_t *held = evfw_event_alloc(nullptr);
    const std::string before = values(
            {dati_bypass_query_hdl(dati_atc_tbl, nullptr, &held), held != nullptr,
             count("(): dm_entity_priv = NULL!!"), dati_setup_data_call_resp(&setup, nullptr),
             dati_dummy_urc(nullptr, "x", 1), dati_dummy_resp(nullptr, nullptr, 1)});
    EXPECT_EQ(before + answers(dati_radio_power_resp),
              "0 0 8 -1 0 00|202:4037=1|202:4037=1|202:4032=1|202:4032=1");
    to_dati(EVENT_DATAMNGR_ATCMD_RESP, nullptr, 0);  // the task sees its entity
    const std::string after = values({dati_setup_data_call_resp(&setup, nullptr),
                                      dati_setup_data_call_resp(nullptr, nullptr)});
    EXPECT_EQ(after + answers(dati_fail_resp, dati_deactivate_data_call_resp,
                              dati_deactivate_data_call_if_resp),
              "0 -1000|4066:\r\n+CGEV: ME PDN ACT "
              "3\r\n\r\nOK\r\n|4066:\r\nERROR\r\n|4066:\r\nOK\r\n|4066:\r\nOK\r\n");
    // +CFUN's allow-data answer only re-arms the flag (its lowest byte); its
    // radio-power answer gives the one result.
    data_allow_reply_armed = 0x201;
    at("AT+CFUN=1\r");
    const long cleared = data_allow_reply_armed;
    const std::string rearms = answers(dati_allow_data_resp);
    const long rearmed = data_allow_reply_armed;
    const std::string answered = answers(dati_allow_data_resp);
    EXPECT_EQ(values({cleared, rearmed, data_allow_reply_armed}) + " " + rearms + " " + answered,
              "512 513 513 0|202:4037=1|202:4032=1 0|4066:\r\nOK\r\n");
    // Without an event for the answer, nothing goes out.
    ASSERT_TRUE(h.rt().add_fault("evfw_event_alloc:1-", error)) << error;
    EXPECT_EQ(values({dati_dummy_resp(nullptr, nullptr, 1), dati_dummy_urc(nullptr, "x", 0),
                      dati_setup_data_call_resp(&setup, nullptr),
                      dm_forge_urc_hdl(nullptr, nullptr)}),
              "-1 -1 -1 0");
    h.rt().clear_faults();
    // The rest only log that they were called.
    EXPECT_EQ(answers(dati_setup_dedicate_data_call_resp, dati_modify_data_call_resp,
                      dati_deactivate_dedicate_data_call_resp, dati_abort_setup_data_call_resp,
                      dati_pcscf_discovery_pco_resp, dati_last_data_call_fail_cause_resp,
                      dati_data_call_list_resp, dati_data_call_list_changed_urc,
                      dati_dedicate_bearer_activated_urc, dati_dedicate_bearer_modified_urc,
                      dati_dedicate_bearer_deactivated_urc),
              "00000000000");
    // A URC's text is cut to what its record holds.
    EXPECT_EQ(dati_dummy_urc(nullptr, std::string(4096, 'z').c_str(), 0), 0);
    h.pump();
    EXPECT_EQ(sent(), "|18:" + std::string(4095, 'z'));
    // A reset of the library's state arms the flag again and forgets the task's entity.
    dm::testkit::reset_library_state();
    EXPECT_EQ(values({count("(): in and out!!"), data_allow_reply_armed,
                      dati_dummy_resp(nullptr, nullptr, 1), long(h.rt().trace().size())}),
              "11 1 0 0");
}

// ---- the task and its tokeniser -----------------------------------------------------

// The tokeniser remembers how far into the line it got, from one call to the
// next and from one line to the next, and shows it when a part is missing.
TEST_F(Dati, TokeniserSplitsOnCommaAndCarriageReturnInPlace) {
    char *save = nullptr, a[] = "1,,2\r", b[] = "\"IP\",x\r\n", c[] = "a,b\rc", d[] = "ab,,\r";
    std::string tokens, parts;
    tokens += atctok(nullptr, &save) == nullptr ? "-" : "?";  // nothing parsed yet
    for (char *line : {a, b, c, d}) {
        for (char *t = atctok(line, &save); t != nullptr; t = atctok(nullptr, &save))
            tokens += "[" + std::string(t) + "]";
    }
    save = nullptr;
    tokens += atctok(nullptr, &save) == nullptr ? "-" : "?";
    dm::testkit::reset_library_state();  // forgets the position
    tokens += atctok(nullptr, nullptr) == nullptr ? "-" : "?";
    const char want[] = "-[1][2][\"IP\"][x][\n][a][b][c][ab]--a\0b\0c\0";
    EXPECT_EQ(tokens + std::string(c, sizeof(c)), std::string(want, sizeof(want) - 1));
    for (const auto &l : h.logs()) {
        const std::string body(log_body(l.text));
        parts += body.starts_with("Incorrect AT command format with an unexpected part ")
                         ? body.substr(52) + "|"
                         : "";
    }
    EXPECT_EQ(parts, "!!|!!|\n!!|!!|,\r!!|,\r!!|!!|");
}

TEST_F(Dati, LinesThatDoNotEndInsideTheirEventAreRefusedLongOnesCut) {
    const char unterminated[] = {'A', 'T', '+', 'C', 'F', 'U', 'N', '=', '1'};
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, unterminated, sizeof(unterminated));
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, nullptr, 0);
    at("AT+CGDCONT=1,\"IP\",\"" + std::string(5000, 'a') + "\"\r");
    at("AT@URC=" + std::string(5000, 'u') + "\r");
    EXPECT_EQ(sent(),
              "|4066:\r\nERROR\r\n|4066:\r\nERROR\r\n|4066:\r\nOK\r\n|4066:\r\nOK\r\n|18:\r\n" +
                      std::string(253, 'u'));
    EXPECT_EQ(h.entity()->at_pdp_ctx[1].setup_req.apn, std::string(127, 'a'));
    EXPECT_EQ(count(") datamngr_entity_dati_task_hdl(): AT Cmd = \"INVAL_AT_VAL\""), 2);
    // Called directly: without an event there is nothing to do; a registration
    // with no context to send it from goes nowhere.
    evfw_event_t *reg = evfw_event_alloc(nullptr);
    event_set_id(reg, EVENT_DATAMNGR_ATCMD_REGISTER);
    event_set_data(reg, 0, "ati9", 5);
    const std::string results = values({datamngr_dati_task_hdl(nullptr, nullptr, h.entity()),
                                        datamngr_dati_task_hdl(nullptr, reg, h.entity())});
    EXPECT_EQ(results + sent(), "0 0");
}

// The exported command table: the parameters each row counts and names are
// the ones its command's handler reads and logs (AT@URC takes its content
// whole and logs nothing of it).
TEST_F(Dati, TableCountsTheParametersEachCommandReads) {
    const char *lines[] = {
            "AT+VZWACT=1,\"x\"\r",         "AT+CFUN=1\r",    "AT+EFUN=1\r", "AT+EGTYPE=1\r",
            "AT+CGDCONT=1,\"IP\",\"x\"\r", "AT+CGACT=1,1\r", "AT@URC=x\r"};
    std::string table, read;
    for (const DatiAtcEntry &row : dati_atc_tbl) {
        const size_t before = h.logs().size(), i = &row - dati_atc_tbl;
        at(lines[i]);
        table += std::string(" ") + row.command + ":";
        read += std::string(" ") + row.command + ":" + (i == 6 ? "Content," : "");
        for (int p = 0; p < row.param_count; ++p) table += std::string(row.param_names[p]) + ",";
        const auto logs = h.logs();
        for (auto l = logs.begin() + static_cast<long>(before); l != logs.end(); ++l) {
            const std::string body(log_body(l->text)), name = body.substr(body.find("(): ") + 4);
            if (body.starts_with("dati_") && name.find(" = ") != std::string::npos)
                read += name.substr(0, name.find(" = ")) + ",";
        }
    }
    EXPECT_EQ(table, read);
}

// ---- the modem's AT manager -------------------------------------------------------

// Self-triggered AT commands go to the modem's AT manager through the main
// task; its answer is matched to the command by the cookie it echoes.
TEST_F(Dati, SelfTriggeredCommandsAreMatchedByCookie) {
    self_trigger_atcmd_req("AT+EAPN?\r\n");
    self_trigger_atcmd_req(std::string(600, 'c').c_str());
    h.pump();
    const auto to_modem = h.sent_to(TASK_ATMNGR, EVENT_ATMNGR_ATCMD_REQ);
    ASSERT_EQ(to_modem.size(), 2u);
    const AtCmdReq first = record_of<AtCmdReq>(to_modem[0]);
    EXPECT_EQ(values({first.kind, atcmd_pending, long(dati_atcmd_contexts_alive())}), "5 2 2");
    EXPECT_EQ(first.text + std::string(record_of<AtCmdReq>(to_modem[1]).text),
              "AT+EAPN?\r\n" + std::string(510, 'c'));
    // An unknown cookie (its text shown whole), the right one, the same again.
    const auto resp = std::make_unique<AtCmdResp>(AtCmdResp{first.cookie + 8, {}, 7, {}, {}});
    memset(resp->text, 'r', sizeof(resp->text));
    const int32_t unknown = dm_atcmd_resp(resp.get(), nullptr);
    resp->cookie = first.cookie;
    strcpy(resp->text, "\r\nOK\r\n");
    EXPECT_EQ(values({unknown, dm_atcmd_resp(resp.get(), nullptr),
                      dm_atcmd_resp(resp.get(), nullptr), dm_atcmd_resp(nullptr, nullptr),
                      atcmd_pending, long(dati_atcmd_contexts_alive())}),
              "-1 0 -1 -1 1 1");
    // The C2K one has no row in the dispatcher: its context stays for good.  A
    // command that cannot be posted is forgotten at once.
    self_trigger_c2k_atcmd_req("AT+C2K\r\n");
    h.pump();
    std::string error;
    ASSERT_TRUE(h.rt().add_fault("evfw_task_send_event:1", error)) << error;
    self_trigger_atcmd_req("AT+LOST\r\n");
    EXPECT_EQ(values({atcmd_pending, long(dati_atcmd_contexts_alive()),
                      count(" data " + std::string(4096, 'r')),
                      count("[DMGR-INF] dm_atcmd_resp res:7 \r\nOK\r\n\b\b from AT+EAPN?\r\n\b\b "
                            "priv "),
                      count("[DMGR-ERR] event id 3003 invalid message length 552 != 0"),
                      count("self_trigger_atcmd_req post failed, priv ")}),
              "2 2 1 1 1 1");
    // A request straight to an AT manager waits for its answer (none comes here).
    AtCmdReq c2k = {};
    strcpy(c2k.text, "AT+C2K?");
    EXPECT_EQ(values({dm_atcmd_c2k_req(&c2k, nullptr), dm_atcmd_req(nullptr, nullptr),
                      long(h.sent_to(TASK_ATMNGR_C2K).size())}),
              "-110 -1 1");
    dm::testkit::reset_library_state();
    EXPECT_EQ(values({count("[DMGR-INF] dm_atcmd_c2k_req AT+C2K?"), atcmd_pending,
                      long(dati_atcmd_contexts_alive())}),
              "1 0 0");
}

// The URC routines are exported: their results are the callers' to read.  A
// deactivation tells RB (with ePDG support) and clears the PDN row; nothing
// else does.  The operator's hooks, when there are any, see each URC and each
// network deactivation.
std::string g_hook_calls;

TEST_F(Dati, UrcRoutinesTellWhatTheyDidAndHooksSeeThem) {
    h.rt().set_property("persist.qpx_epdg_support", "1");
    for (int32_t cid : {0, 4, 5, 6, 7}) {
        DataCallEntry entry = {0, cid == 6 ? 4u : 2u, 0, cid, {}};
        update_pdn_info(&entry, nullptr);
    }
    // Each routine, by its number, on a text: its results in order.
    const Routine routines[] = {dm_handle_default_urc, default_urc_cgev, default_urc_cgev_nw_deact,
                                default_urc_cgev_me_deact};
    std::string results, rb;
    for (std::string c :
         {"0 no plus", "0 +EAPNMOD: 1", "0 x+CGEV: ME PDN ACT 1",
          "1 +CGEV: NW DEACT \"IP\", \"10.0.0.7\", 7", "1 +CGEV: ME DEACT 7",
          "1 +CGEV: NW PDN DEACT 6", "2 +CGEV: NW PDN ACT 1", "2 +CGEV: NW PDN DEACT",
          "2 +CGEV: NW PDN DEACT 9", "2 +CGEV: NW PDN DEACT 5", "3 +CGEV: ME PDN ACT",
          "3 +CGEV: ME PDN DEACT", "3 +CGEV: ME PDN DEACT 9", "1 +CGEV: ME PDN DEACT 4"})
        results += std::to_string(routines[c[0] - '0'](c.data() + 2, 0, 0, nullptr)) + " ";
    EXPECT_EQ(results, "-1 -1 0 0 0 0 -1 -1 0 0 -1 -1 0 0 ");
    // RB heard of the deactivations of known rows, by interface.
    for (const auto &e : h.sent_with_id(EVENT_RB_DEACT_DATA_CALL_IND))
        rb += std::to_string(record_of<DeactDataCallInd>(e).interface_id);
    EXPECT_EQ(rb, "422");
    // A URC as the AT manager delivers it: the whole text is looked at.
    const auto urc = std::make_unique<AtUrc>();
    memset(urc->text, 'u', sizeof(urc->text));
    auto active = [](int32_t cid) { return long(find_pdn_info_by_index(cid)->active); };
    EXPECT_EQ(values({default_urc_cgev(nullptr, 0, 0, nullptr),
                      dm_handle_default_urc(nullptr, 0, 0, nullptr),
                      dm_atcmd_urc(urc.get(), nullptr), dm_atcmd_urc(nullptr, nullptr), active(0),
                      active(4), active(5), active(6), active(7), count("IMS cid"),
                      count("cid 6 skip default bearer NW disconn notify "),
                      count("[DMGR-INF] dm_atcmd_urc " + std::string(4096, 'u') + " sim 0")}),
              "-1 -1 0 0 1 0 0 0 1 1 1 1");
    OperatorHooks hooks = {};
    hooks.urc = [](const char *text, uint32_t kind, uint32_t sim, evfw_event_t *) {
        return g_hook_calls += std::string(text) + " " + values({kind, sim}) + "|", 0;
    };
    hooks.nw_deactivate = [](int32_t cid, uint32_t interface_id, int32_t zero) {
        return g_hook_calls += values({cid, interface_id, zero}) + "|", 0;
    };
    dm_set_operator_hooks(&hooks);
    *urc = {0, 2, 1, "+CGEV: NW PDN DEACT 7"};
    h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, *urc);
    h.pump();
    EXPECT_EQ(g_hook_calls, "+CGEV: NW PDN DEACT 7 2 1|7 2 0|");
}

}  // namespace

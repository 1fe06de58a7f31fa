// The AT command interface where it is called directly or needs what no
// scenario can send: the reply entry points, the tokeniser, malformed and
// overlong lines, the entity lock that +CGACT and +VZWACT leave behind, the
// self-triggered AT commands matched by cookie, and the URC hooks.
#include <thread>

#include "common/dm_test.h"
#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/operator_hooks.h"
#include "pdn/pdn_info.h"

namespace {

using namespace dm_test;

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
    // The texts the AT client (7) and the URC task (8) received, in order.
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const auto &e : h.rt().trace()) {
            if (e.to == TASK_ATI_ATC && e.event_id == EVENT_DATAMNGR_ATCMD_RESP) {
                EXPECT_EQ(e.len, sizeof(AtCmdResp));
                out.push_back(std::string("7 ") + record_of<AtCmdResp>(e).text);
            } else if (e.to == TASK_ATI_URC) {
                out.push_back(std::to_string(e.event_id) + " " + record_of<AtUrc>(e).text);
            } else if (e.to == TASK_ATI_ATC) {
                out.push_back("15 " + std::string(reinterpret_cast<const char *>(e.data.data())));
            }
        }
        return out;
    }
    // A reply entry point called as the host side does, with a template.
    template <typename Record>
    void answer(int32_t (*fn)(const Record *, evfw_event_t *), const Record *record = nullptr,
                int32_t ret = 0) {
        evfw_event_t *tmpl = evfw_event_alloc(nullptr);
        EXPECT_EQ(fn(record, tmpl), ret);
        evfw_event_free(tmpl);
        h.pump();
    }
    template <typename... Record>
    void answer_each(int32_t (*...fns)(const Record *, evfw_event_t *)) {
        (answer(fns), ...);
    }
};

TEST_F(Dati, RepliesBeforeTheTaskHasSeenItsEntitySendNothing) {
    answer(dati_radio_power_resp);
    EXPECT_EQ(dati_setup_data_call_resp(nullptr, nullptr), -1);
    EXPECT_EQ(dati_dummy_urc(nullptr, "+CGEV: ME PDN ACT 1", 1), 0);
    evfw_event_t *held = evfw_event_alloc(nullptr);
    char query[] = "AT+EGTYPE?\r";
    EXPECT_EQ(dati_bypass_query_hdl(nullptr, query, &held), 0);
    EXPECT_EQ(held, nullptr);
    EXPECT_TRUE(texts().empty());
    for (const char *fn : {"dati_dummy_resp", "dati_dummy_urc", "dati_setup_data_call_resp",
                           "dati_bypass_query_hdl"}) {
        EXPECT_EQ(logged(std::string(fn) + "(): dm_entity_priv = NULL!!"), 1u) << fn;
    }
}

TEST_F(Dati, ReplyEntryPointsGiveTheirTexts) {
    to_dati(EVENT_DATAMNGR_ATCMD_RESP, nullptr, 0);  // the task sees its entity
    SetupDataCallResp setup = {};
    setup.interface_id = 3;
    setup.status = 27;  // not looked at
    answer(dati_setup_data_call_resp, &setup);
    answer(dati_fail_resp);
    answer(dati_deactivate_data_call_resp);
    answer(dati_deactivate_data_call_if_resp);
    answer(dati_radio_power_resp);
    answer_each(dati_setup_dedicate_data_call_resp, dati_modify_data_call_resp,
                dati_deactivate_dedicate_data_call_resp, dati_abort_setup_data_call_resp,
                dati_pcscf_discovery_pco_resp, dati_last_data_call_fail_cause_resp,
                dati_data_call_list_resp, dati_data_call_list_changed_urc,
                dati_dedicate_bearer_activated_urc, dati_dedicate_bearer_modified_urc,
                dati_dedicate_bearer_deactivated_urc);
    evfw_event_t *held = evfw_event_alloc(nullptr);
    char query[] = "AT+EGTYPE?\r";
    EXPECT_EQ(dati_bypass_query_hdl(nullptr, query, &held), 0);
    EXPECT_EQ(held, nullptr);
    dati_dummy_urc(nullptr, std::string(5000, 'z').c_str(), 1);
    h.pump();
    EXPECT_EQ(texts(), (std::vector<std::string>{"7 \r\n+CGEV: ME PDN ACT 3\r\n\r\nOK\r\n",
                                                 "7 \r\nERROR\r\n", "7 \r\nOK\r\n", "7 \r\nOK\r\n",
                                                 "7 \r\nOK\r\n", "15 AT+EGTYPE?\r",
                                                 "21 " + std::string(4095, 'z')}));
    for (const char *line : {") dati_setup_data_call_resp(): call dati_dummy_resp()!!",
                             ") dati_deactivate_data_call_resp(): call dati_dummy_resp()!!",
                             ") dati_deactivate_data_call_if_resp(): call dati_dummy_resp()!!",
                             ") dati_radio_power_resp(): call dati_dummy_resp()!!",
                             ") dati_setup_data_call_resp() sent event "
                             "EVENT_DATAMNGR_ATCMD_RESP(4066) to TASK_ATI_ATC(7)",
                             ") dati_modify_data_call_resp(): in and out!!",
                             ") dati_dedicate_bearer_deactivated_urc(): in and out!!",
                             ") dati_bypass_query_hdl(): redirecting AT Cmd = \"AT+EGTYPE?\r\" to "
                             "Modem Manager through ATI"}) {
        EXPECT_EQ(logged(line), 1u) << line;
    }
    EXPECT_EQ(logged(") dati_dummy_resp() sent event EVENT_DATAMNGR_ATCMD_RESP(4066) to "
                     "TASK_ATI_ATC(7)"),
              4u);
    EXPECT_EQ(logged("in and out!!"), 11u);
}

TEST_F(Dati, CfunGivesOneResultOverItsTwoAnswersAndEgtypeSpeaks) {
    data_allow_reply_armed = 0x201;
    at("AT+CFUN=1\r");
    EXPECT_EQ(data_allow_reply_armed, 0x200u);  // only the lowest byte is cleared
    answer(dati_allow_data_resp);
    EXPECT_TRUE(texts().empty());
    EXPECT_EQ(data_allow_reply_armed, 0x201u);
    answer(dati_radio_power_resp);
    at("AT+EGTYPE=1\r");
    answer(dati_allow_data_resp);
    EXPECT_EQ(texts(), (std::vector<std::string>{"7 \r\nOK\r\n", "7 \r\nOK\r\n"}));
    EXPECT_EQ(logged(") dati_allow_data_resp(): call dati_dummy_resp()!!"), 2u);
}

TEST_F(Dati, TokeniserSplitsOnCommaAndCarriageReturnInPlace) {
    auto split = [](char *line) {
        std::vector<std::string> out;
        char *save = nullptr;
        for (char *t = atctok(line, &save); t != nullptr; t = atctok(nullptr, &save))
            out.emplace_back(t);
        return out;
    };
    char a[] = "1,,2\r";
    EXPECT_EQ(split(a), (std::vector<std::string>{"1", "2"}));
    char b[] = "\"IP\",x\r\n";
    EXPECT_EQ(split(b), (std::vector<std::string>{"\"IP\"", "x", "\n"}));
    char c[] = "a,b\rc";
    EXPECT_EQ(split(c).size(), 3u);
    EXPECT_EQ(std::string(c, sizeof(c)), std::string("a\0b\0c\0", 6));
    // Each end of a line shows what was left of it; never past its end.
    EXPECT_EQ(logged(") Incorrect AT command format with an unexpected part \n!!"), 1u);
    EXPECT_EQ(logged(") Incorrect AT command format with an unexpected part !!"), 2u);
    EXPECT_EQ(atctok(nullptr, nullptr), nullptr);
}

TEST_F(Dati, MalformedAndOverlongLinesStayInsideTheirEvents) {
    const char unterminated[] = {'A', 'T', '+', 'C', 'F', 'U', 'N', '=', '1'};
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, unterminated, sizeof(unterminated));
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, nullptr, 0);
    EXPECT_EQ(logged(") datamngr_entity_dati_task_hdl(): AT Cmd = \"INVAL_AT_VAL\""), 2u);
    EXPECT_EQ(logged(") datamngr_dati_task_hdl(): AT Cmd of 9 bytes without its end is refused!!"),
              1u);
    at("AT+CGDCONT=1,\"IP\",\"" + std::string(5000, 'a') + "\"\r");
    EXPECT_EQ(std::string(h.entity()->at_pdp_ctx[1].setup_req.apn), std::string(127, 'a'));
    at("AT@URC=" + std::string(5000, 'u') + "\r");
    at("AT+COPS=" + std::string(5000, '9'));
    EXPECT_EQ(texts(), (std::vector<std::string>{
                               "7 \r\nERROR\r\n", "7 \r\nERROR\r\n", "7 \r\nOK\r\n", "7 \r\nOK\r\n",
                               "18 \r\n" + std::string(253, 'u'), "7 \r\nERROR\r\n"}));
    // Handlers called without a held reply do nothing.
    evfw_event_t *none = nullptr;
    char params[] = "1\r";
    for (auto hdl : {dati_cfun_assign_hdl, dati_efun_assign_hdl, dati_egtype_assign_hdl,
                     dati_cgdcont_assign_hdl, dati_cgact_assign_hdl, dati_cgact_query_hdl,
                     dati_vzwact_assign_hdl, dati_vzwact_query_hdl, dati_forge_urc_assign_hdl,
                     dati_bypass_query_hdl}) {
        EXPECT_EQ(hdl(&dati_atc_tbl[0], params, &none), 0);
        EXPECT_EQ(hdl(&dati_atc_tbl[0], params, nullptr), 0);
    }
    EXPECT_EQ(texts().size(), 6u);
}

// The exported command table as other modules read it: names, parameter
// counts and the parameter names the log lines use, in order.
TEST(DatiTable, RowsNameTheirCommandsAndParameters) {
    const std::vector<std::vector<std::string>> want = {{"AT+VZWACT", "State", "APN"},
                                                        {"AT+CFUN", "Fun"},
                                                        {"AT+EFUN", "Fun"},
                                                        {"AT+EGTYPE", "Type"},
                                                        {"AT+CGDCONT", "CID", "PDP Type", "APN"},
                                                        {"AT+CGACT", "State", "CID"},
                                                        {"AT@URC", "Content"}};
    std::vector<std::vector<std::string>> got;
    for (const DatiAtcEntry &row : dati_atc_tbl) {
        got.push_back({row.command});
        for (int32_t i = 0; i < row.param_count; ++i) got.back().push_back(row.param_names[i]);
    }
    EXPECT_EQ(got, want);
}

// Each handler, called straight with a held reply, ends with 0 whatever it
// did with the reply.
TEST_F(Dati, HandlersReturnZero) {
    const std::pair<dati_atc_hdl_t, std::vector<const char *>> cases[] = {
            {dati_cfun_assign_hdl, {"1\r", "\r"}},
            {dati_efun_assign_hdl, {"1\r", "\r"}},
            {dati_egtype_assign_hdl, {"1\r", "\r"}},
            {dati_cgdcont_assign_hdl, {"1,x,\"a\"\r", "1,\"IP\",\"a\"\r"}},
            {dati_vzwact_assign_hdl, {"1,x\r"}},
            {dati_cgact_assign_hdl, {"1,1\r", "0,0\r", "3,1\r", "1,9\r"}},
            {dati_cgact_query_hdl, {"\r"}},
            {dati_vzwact_query_hdl, {"\r"}},
            {dati_vzwact_assign_hdl, {"\r"}},
            {dati_forge_urc_assign_hdl, {"x\r"}},
            {dati_bypass_query_hdl, {"AT+X?\r"}}};
    // First before the task has seen its entity, then after.
    for (int round = 0; round < 2; ++round) {
        for (const auto &[hdl, all_params] : cases) {
            for (std::string params : all_params) {
                evfw_event_t *held = evfw_event_alloc(nullptr);
                EXPECT_EQ(hdl(&dati_atc_tbl[5], params.data(), &held), 0) << params;
                evfw_event_free(held);  // whatever a handler left in the slot
            }
        }
        to_dati(EVENT_DATAMNGR_ATCMD_RESP, nullptr, 0);
    }
    // The vzwact lines above hold the entity lock once each (deliberately).
    h.entity()->lock.unlock(&h.entity()->lock);
}

TEST_F(Dati, CgdcontAndCgactKeepTheirRowsAndCgactReleasesTheLockOnceMore) {
    at("AT+CGDCONT=9,\"IPV6\",\"internet\"\r");
    const AtPdpContext &row = h.entity()->at_pdp_ctx[1];
    EXPECT_EQ(std::tuple(row.cid, row.state, row.setup_req.ip_type, row.setup_req.interface_id,
                         row.deact_req.id),
              std::tuple(9, -1, 1u, 1u, 0u));
    EXPECT_EQ(h.entity()->at_pdp_ctx[9].cid, -1);
    at("AT+CGACT=1,9\r");
    EXPECT_EQ(std::tuple(row.state, h.rt().bad_unlocks()), std::tuple(1, 1L));
    at("AT+CGACT=0,0\r");
    EXPECT_EQ(std::tuple(row.state, h.rt().bad_unlocks()), std::tuple(0, 2L));
}

TEST_F(Dati, VzwactKeepsTheLockAndItsReply) {
    at("AT+VZWACT=1,\"x\"\r");
    EXPECT_EQ(texts(), std::vector<std::string>{"7 \r\nERROR\r\n"});
    ASSERT_NE(h.entity()->cur_atcmd_event, nullptr);
    h.rt().set_wait_limit(std::chrono::milliseconds(20));
    evfw_mutex_t *lock = &h.entity()->lock;
    int other = 0;
    std::thread([&] { other = lock->lock(lock); }).join();
    EXPECT_EQ(other, -1);
}

// ---- self-triggered AT commands ----------------------------------------------------

class SelfTrigger : public Dati {
  protected:
    // The modem's AT manager answers each command `answers` times, with the
    // cookie moved by `shift`.
    void modem_answers(uint64_t shift, int answers) {
        h.task(TASK_ATMNGR).on_receive([=](evfw_host::Peer &self, const evfw_host::Received &in) {
            const AtCmdReq *req = in.as<AtCmdReq>();
            if (req == nullptr) return;
            AtCmdResp resp = {};
            resp.cookie = req->cookie + shift;
            resp.result = 7;
            strcpy(resp.text, "\r\nOK\r\n");
            for (int i = 0; i < answers; ++i)
                self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, &resp, sizeof(resp));
        });
    }
};

TEST_F(SelfTrigger, AnswersAreMatchedByCookie) {
    const struct {
        uint64_t shift;
        int answers;
        int32_t pending;
        size_t alive, unknown;
    } cases[] = {{0, 1, 0, 0, 0}, {8, 1, 1, 1, 1}, {0, 2, 1, 1, 2}};
    for (const auto &c : cases) {
        modem_answers(c.shift, c.answers);
        self_trigger_atcmd_req("AT+X\r\n");
        h.pump();
        EXPECT_EQ(std::tuple(atcmd_pending, dati_atcmd_contexts_alive(),
                             logged("[DMGR-ERR] dm_atcmd_resp unknown cookie 0x")),
                  std::tuple(c.pending, c.alive, c.unknown));
    }
    EXPECT_EQ(h.rt().timeouts(), 0);
    EXPECT_EQ(logged("[DMGR-INF] dm_atcmd_resp res:7 \r\nOK\r\n\b\b from AT+X\r\n\b\b priv "), 2u);
    EXPECT_EQ(logged(" pending 0"), 1u);
}

TEST_F(SelfTrigger, RequestCarriesTheCommandAndTheC2kOneIsDropped) {
    modem_answers(0, 1);
    self_trigger_atcmd_req("AT+EAPN?\r\n");
    self_trigger_atcmd_req(std::string(600, 'c').c_str());
    h.pump();
    auto to_modem = h.sent_to(TASK_ATMNGR, EVENT_ATMNGR_ATCMD_REQ);
    ASSERT_EQ(to_modem.size(), 2u);
    auto req = record_of<AtCmdReq>(to_modem[0]);
    EXPECT_EQ(std::tuple(req.kind, std::string(req.text)),
              std::tuple(5u, std::string("AT+EAPN?\r\n")));
    EXPECT_EQ(std::string(record_of<AtCmdReq>(to_modem[1]).text), std::string(510, 'c'));
    EXPECT_EQ(logged("[DMGR-INF] self_trigger_atcmd_req AT+EAPN?\r\n\b\b priv "), 1u);
    EXPECT_EQ(logged("[DMGR-INF] dm_atcmd_req AT+EAPN?\r\n"), 1u);
    // 3003 has no row in the dispatcher: its context and count stay for good.
    self_trigger_c2k_atcmd_req("AT+C2K\r\n");
    h.pump();
    EXPECT_EQ(logged("[DMGR-ERR] event id 3003 invalid message length 552 != 0"), 1u);
    EXPECT_EQ(std::tuple(atcmd_pending, dati_atcmd_contexts_alive()), std::tuple(1, 1u));
    // A request straight to the C2K AT manager waits for its answer.
    h.task(TASK_ATMNGR_C2K).on_receive([](evfw_host::Peer &self, const evfw_host::Received &in) {
        AtCmdResp resp = {};
        self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, &resp, sizeof(resp));
    });
    AtCmdReq c2k = {};
    strcpy(c2k.text, "AT+C2K?");
    evfw_event_t *source = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_atcmd_c2k_req(&c2k, source), 0);
    evfw_event_free(source);
    h.pump();
    EXPECT_EQ(logged("[DMGR-INF] dm_atcmd_c2k_req AT+C2K?"), 1u);
    EXPECT_EQ(logged("dm_atcmd_resp unknown cookie 0x0"), 1u);
    EXPECT_EQ(dm_atcmd_resp(nullptr, nullptr), -1);
    // The library's state reset (between harnesses) releases what is left.
    dm::testkit::reset_library_state();
    EXPECT_EQ(std::tuple(atcmd_pending, dati_atcmd_contexts_alive()), std::tuple(0, 0u));
}

// The URC routines are exported; their results are the callers' to read.
TEST_F(Dati, UrcRoutinesTellWhatTheyDid) {
    DataCallEntry entry = {0, 2, 4, 4, {}};
    update_pdn_info(&entry, nullptr);
    entry.cid = 5;
    update_pdn_info(&entry, nullptr);
    const struct {
        int32_t (*fn)(char *, uint32_t, uint32_t, evfw_event_t *);
        const char *text;
        int32_t result;
    } cases[] = {
            {dm_handle_default_urc, "no plus", -1},
            {dm_handle_default_urc, "+EAPNMOD: 1", -1},
            {dm_handle_default_urc, "x+CGEV: NW DEACT", 0},
            {default_urc_cgev, "+CGEV: ME PDN ACT 1", 0},
            {default_urc_cgev, "+CGEV: DEACT", 0},
            {default_urc_cgev_nw_deact, "+CGEV: NW PDN ACT 1", -1},
            {default_urc_cgev_nw_deact, "+CGEV: NW PDN DEACT", -1},
            {default_urc_cgev_nw_deact, "+CGEV: NW PDN DEACT 9", 0},
            {default_urc_cgev_nw_deact, "+CGEV: NW PDN DEACT 5", 0},
            {default_urc_cgev_me_deact, "+CGEV: ME PDN DEACT", -1},
            {default_urc_cgev_me_deact, "+CGEV: ME PDN DEACT 9", 0},
            {default_urc_cgev_me_deact, "+CGEV: ME PDN DEACT 4", 0},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(c.fn(text.data(), 0, 0, nullptr), c.result) << c.text;
    }
    EXPECT_EQ(default_urc_cgev(nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(dm_handle_default_urc(nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(find_pdn_info_by_index(4)->active, 0u);
}

std::vector<std::string> g_hook_calls;

TEST_F(Dati, OperatorHooksSeeUrcsAndNetworkDeactivations) {
    OperatorHooks hooks = {};
    hooks.urc = [](const char *text, uint32_t kind, uint32_t sim, evfw_event_t *) {
        g_hook_calls.push_back(std::string(text) + " " + std::to_string(kind) + " " +
                               std::to_string(sim));
        return 0;
    };
    hooks.nw_deactivate = [](int32_t cid, uint32_t interface_id, int32_t zero) {
        g_hook_calls.push_back(std::to_string(cid) + " " + std::to_string(interface_id) + " " +
                               std::to_string(zero));
        return 0;
    };
    dm_set_operator_hooks(&hooks);
    DataCallEntry entry = {0, 1, 3, 3, {}};
    update_pdn_info(&entry, nullptr);
    AtUrc urc = {0, 2, 1, "+CGEV: NW PDN DEACT 3"};
    h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, urc);
    h.pump();
    EXPECT_EQ(g_hook_calls, (std::vector<std::string>{"+CGEV: NW PDN DEACT 3 2 1", "3 1 0"}));
}

}  // namespace

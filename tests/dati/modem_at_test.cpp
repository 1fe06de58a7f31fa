// Modem URCs reaching the main task as event 3006, and AT commands sent to
// the modem's AT manager (302) through the self-trigger path.
#include "dati_fixture.h"
#include "entity/operator_hooks.h"
#include "pdn/pdn_info.h"

namespace dati_test {
namespace {

constexpr int kNoRow = -1;

struct UrcCase {
    const char *name;
    std::string text;
    uint32_t sim;
    bool epdg;
    int row_cid;  // a PDN row made up first, or kNoRow
    uint32_t row_if;
    std::vector<std::string> out;
    bool row_cleared;
    const char *log;  // body of a log line that must appear, or null
};

void PrintTo(const UrcCase &c, std::ostream *os) {
    *os << c.name;
}

class DatiUrc : public DatiFixture, public ::testing::WithParamInterface<UrcCase> {
  protected:
    void add_row(int cid, uint32_t interface_id) {
        DataCallEntry entry = {};
        entry.cid = cid;
        entry.primary_cid = static_cast<uint32_t>(cid);
        entry.interface_id = interface_id;
        ASSERT_NE(update_pdn_info(&entry, nullptr), nullptr);
    }
};

TEST_P(DatiUrc, FiltersAndDeactivates) {
    const UrcCase &c = GetParam();
    if (c.epdg) h.rt().set_property("persist.qpx_epdg_support", "1");
    if (c.row_cid != kNoRow) add_row(c.row_cid, c.row_if);
    prime_dati();
    h.clear();
    urc(c.text, c.sim);
    EXPECT_EQ(sent(), c.out);
    if (c.row_cid != kNoRow) {
        EXPECT_EQ(find_pdn_info_by_cid(c.row_cid) == nullptr, c.row_cleared);
    }
    if (c.log != nullptr) {
        EXPECT_TRUE(logged_exactly(c.log)) << c.log;
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(DatiCgev, DatiUrc, ::testing::Values(
    UrcCase{"ActPassedOn", "+CGEV: ME PDN ACT 1", 0, true, kNoRow, 0,
            {"8 21 +CGEV: ME PDN ACT 1"}, false, "default_urc_cgev bypass URC +CGEV: ME PDN ACT 1"},
    UrcCase{"ActFromItsPlus", "\r\n+CGEV: NW PDN ACT 3\r\n", 0, false, kNoRow, 0,
            {"8 21 +CGEV: NW PDN ACT 3\r\n"}, false, nullptr},
    UrcCase{"NwDeactToRb", "+CGEV: NW PDN DEACT 1", 0, true, 1, 2, {"902 9317 if=2 0 sim=0"}, true,
            "default_urc_cgev_nw_deact DEACT DATA CALL IND to RB 9317 for interface id 2"},
    UrcCase{"NwDeactWithoutEpdg", "+CGEV: NW PDN DEACT 1", 0, false, 1, 2, {}, true, nullptr},
    UrcCase{"NwDeactImsOnlyNoted", "+CGEV: NW PDN DEACT 5", 2, true, 5, 4, {"904 9317 if=4 0 sim=2"},
            true, "default_urc_cgev_nw_deact IMS cid 5 skip default bearer NW disconn notify "},
    UrcCase{"MeDeactFromItsPlus", "\r\n+CGEV: ME PDN DEACT 2", 1, true, 2, 2,
            {"903 9317 if=2 0 sim=1"}, true, nullptr},
    UrcCase{"NwDeactUnknownCid", "+CGEV: NW PDN DEACT 9", 0, true, 1, 2, {}, false,
            "default_urc_cgev_nw_deact cid 9 pdn not found"},
    UrcCase{"DeactWithoutPdnSwallowed", "+CGEV: NW DEACT \"IP\", \"10.0.0.1\", 1", 0, true, 1, 2,
            {}, false, "default_urc_cgev filter URC +CGEV: NW DEACT \"IP\", \"10.0.0.1\", 1"},
    UrcCase{"DeactWithoutCid", "+CGEV: NW PDN DEACT", 0, true, 0, 2, {}, false,
            "default_urc_cgev_nw_deact no cid in URC +CGEV: NW PDN DEACT"},
    UrcCase{"UnknownPrefix", "+EAPNMOD: \"VZWINTERNET\"", 0, true, kNoRow, 0, {}, false,
            "dm_handle_default_urc unknown urc +EAPNMOD: \"VZWINTERNET\""},
    UrcCase{"NoPlus", "CGEV: ME PDN ACT 1", 0, true, kNoRow, 0, {}, false,
            "dm_handle_default_urc starting point not found CGEV: ME PDN ACT 1"}
), [](const auto &info) { return std::string(info.param.name); });
// clang-format on

TEST_F(DatiFixture, UrcTextWithoutItsNulIsCut) {
    prime_dati();
    h.clear();
    std::string text = "+CGEV: ME PDN ACT 1";
    text.resize(kAtTextLen, 'x');
    urc(text);
    EXPECT_EQ(sent(), std::vector<std::string>{"8 21 " + text.substr(0, kAtTextLen - 1)});
}

TEST_F(DatiFixture, ActUrcNeedsTheDatiTaskToHaveRun) {
    urc("+CGEV: ME PDN ACT 1");
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(logged_exactly("dati_dummy_urc(): dm_entity_priv = NULL!!"));
}

std::vector<std::string> g_hook_calls;

TEST_F(DatiFixture, OperatorHooksSeeUrcsAndNetworkDeactivations) {
    g_hook_calls.clear();
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
    DataCallEntry entry = {};
    entry.cid = 3;
    entry.primary_cid = 3;
    entry.interface_id = 1;
    update_pdn_info(&entry, nullptr);
    urc("+CGEV: NW PDN DEACT 3", 1);
    dm_set_operator_hooks(nullptr);
    EXPECT_EQ(g_hook_calls, (std::vector<std::string>{"+CGEV: NW PDN DEACT 3 0 1", "3 1 0"}));
}

// ---- self-triggered AT commands ----

struct AnswerCase {
    const char *name;
    uint64_t cookie_shift;  // the AT manager answers with the cookie moved by this
    int answers;
    int32_t pending;  // atcmd_pending afterwards
    size_t alive;     // contexts still allocated
    size_t unknown;   // answers refused for their cookie
};

void PrintTo(const AnswerCase &c, std::ostream *os) {
    *os << c.name;
}

class DatiSelfTrigger : public DatiFixture, public ::testing::WithParamInterface<AnswerCase> {
  protected:
    void answer_commands(uint64_t cookie_shift, int answers) {
        h.task(TASK_ATMNGR).on_receive([=](evfw_host::Peer &self, const evfw_host::Received &in) {
            const AtCmdReq *req = in.as<AtCmdReq>();
            if (in.event_id != EVENT_ATMNGR_ATCMD_REQ || req == nullptr) return;
            AtCmdResp resp = {};
            resp.cookie = req->cookie + cookie_shift;
            std::snprintf(resp.text, sizeof(resp.text), "\r\nOK\r\n");
            for (int i = 0; i < answers; ++i) {
                self.reply(in.event, TASK_DATAMNGR, EVENT_ATMNGR_ATCMD_RESP, &resp, sizeof(resp));
            }
        });
    }
};

TEST_P(DatiSelfTrigger, AnswersAreMatchedByCookie) {
    const AnswerCase &c = GetParam();
    answer_commands(c.cookie_shift, c.answers);
    self_trigger_atcmd_req("AT+X\r\n");
    EXPECT_EQ(atcmd_pending, 1);
    h.pump();
    EXPECT_EQ(atcmd_pending, c.pending);
    EXPECT_EQ(dati_atcmd_contexts_alive(), c.alive);
    EXPECT_EQ(h.logs_containing("dm_atcmd_resp unknown cookie").size(), c.unknown);
    EXPECT_EQ(h.rt().timeouts(), 0);
}

INSTANTIATE_TEST_SUITE_P(DatiAtcmd, DatiSelfTrigger,
                         ::testing::Values(AnswerCase{"RoundTrip", 0, 1, 0, 0, 0},
                                           AnswerCase{"ForeignCookie", 8, 1, 1, 1, 1},
                                           AnswerCase{"SecondAnswer", 0, 2, 0, 0, 1}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(DatiSelfTrigger, RequestCarriesTheCommand) {
    answer_commands(0, 1);
    self_trigger_atcmd_req("AT+EAPN?\r\n");
    self_trigger_atcmd_req(std::string(600, 'c').c_str());
    h.pump();
    auto to_modem = h.sent_to(TASK_ATMNGR, EVENT_ATMNGR_ATCMD_REQ);
    ASSERT_EQ(to_modem.size(), 2u);
    AtCmdReq req = record_of<AtCmdReq>(to_modem[0]);
    EXPECT_EQ(req.kind, kAtCmdKindSelfTriggered);
    EXPECT_STREQ(req.text, "AT+EAPN?\r\n");
    EXPECT_EQ(std::string(record_of<AtCmdReq>(to_modem[1]).text), std::string(510, 'c'));
    EXPECT_TRUE(h.logged("dm_atcmd_resp res:0 \r\nOK\r\n\b\b from AT+EAPN?\r\n\b\b priv "));
}

TEST_F(DatiFixture, C2kCommandIsDroppedAndItsContextKept) {
    self_trigger_c2k_atcmd_req("AT+C2K\r\n");
    h.pump();
    EXPECT_TRUE(h.sent_to(TASK_ATMNGR_C2K).empty());
    EXPECT_TRUE(h.logged("event id 3003 invalid message length 552 != 0"));
    // The context and its count stay for good; the event itself was freed.
    EXPECT_EQ(atcmd_pending, 1);
    EXPECT_EQ(dati_atcmd_contexts_alive(), 1u);
}

}  // namespace
}  // namespace dati_test

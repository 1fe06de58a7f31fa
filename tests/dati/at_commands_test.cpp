// AT command lines from an AT client through the DATI task: what goes out
// (to the client, to the modem, to the RIL proxy) and what is kept.
#include <thread>

#include "dati_fixture.h"
#include "pdn/pdn_records.h"

namespace dati_test {
namespace {

const std::string kCgdcont = "AT+CGDCONT=1,\"IP\",\"internet\"\r";
const std::string kOk = "7 4066 \r\nOK\r\n";
const std::string kError = "7 4066 \r\nERROR\r\n";

struct AtCase {
    const char *name;
    std::vector<std::string> before;  // lines typed first, their output ignored
    std::string line;
    std::vector<std::string> out;  // everything the data manager sent for `line`
    const char *log = nullptr;     // body of a log line that must appear
};

void PrintTo(const AtCase &c, std::ostream *os) {
    *os << c.name;
}

class DatiAtLines : public DatiFixture, public ::testing::WithParamInterface<AtCase> {};

TEST_P(DatiAtLines, SendsExactly) {
    const AtCase &c = GetParam();
    for (const std::string &line : c.before) at(line);
    h.clear();
    at(c.line);
    EXPECT_EQ(sent(), c.out);
    if (c.log != nullptr) {
        EXPECT_TRUE(logged_exactly(c.log)) << c.log;
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(DatiAt, DatiAtLines, ::testing::Values(
    AtCase{"CgdcontIp", {}, kCgdcont, {kOk}},
    AtCase{"CgdcontUnquotedType", {}, "AT+CGDCONT=1,IP,\"internet\"\r", {kError},
           "dati_cgdcont_assign_hdl(): Unsupported IP version IP!!"},
    AtCase{"CgdcontEmptyFieldsVanish", {}, "AT+CGDCONT=1,,,\"IPV6\",,\"ims\"\r", {kOk}},
    AtCase{"CgactActivate", {kCgdcont}, "AT+CGACT=1,1\r",
           {"202 4003 apn=internet\" ip=0 if=1"}},
    AtCase{"CgactActivateKeepsPdpType", {"AT+CGDCONT=1,\"ipv4v6\",\"x\"\r"}, "AT+CGACT=1,1\r",
           {"202 4003 apn=x\" ip=2 if=1"}},
    AtCase{"CgactActivateUnknownCid", {kCgdcont}, "AT+CGACT=1,2\r", {kError}},
    AtCase{"CgactDeactivateRowAfterCid", {kCgdcont}, "AT+CGACT=0,0\r",
           {"202 4005 id=0 cause=1", "7 4066 \r\n+CGEV: ME PDN DEACT 0\r\n\r\nOK\r\n"}},
    AtCase{"CgactDeactivateByCidItself", {kCgdcont}, "AT+CGACT=0,1\r", {kError}},
    AtCase{"CgactDeactivateNegativeCid", {kCgdcont}, "AT+CGACT=0,-7\r", {kError}},
    AtCase{"CgactWrongState", {kCgdcont}, "AT+CGACT=2,1\r", {kError},
           "dati_cgact_assign_hdl(): A wrong state!!"},
    AtCase{"CgactTestForm", {kCgdcont}, "AT+CGACT=?\r", {kError}},
    AtCase{"CgactCidIsLineFeed", {kCgdcont}, "AT+CGACT=1\r\n", {kError}},
    AtCase{"CgactQueryCanned", {}, "AT+CGACT?\r",
           {"7 4066 \r\n+CGACT: 0, 0\r\n+CGACT: 1, 0\r\n+CGACT: 2, 0\r\n+CGACT: 3, 0\r\n"
            "+CGACT: 4, 0\r\n+CGACT: 5, 0\r\n+CGACT: 6, 0\r\n+CGACT: 7, 0\r\n+CGACT: 8, 0\r\n"
            "+CGACT: 9, 0\r\n+CGACT: 10, 0\r\n\r\nOK\r\n"}},
    AtCase{"CfunFlightMode", {}, "AT+CFUN=4\r",
           {"202 4037 1,0", "402 4033 4,0", "202 4032 4,0"}},
    AtCase{"CfunOff", {}, "AT+CFUN=0\r", {"202 4037 0,0", "202 4032 0,0"}},
    AtCase{"CfunLowerCase", {}, "at+cfun=1\r", {"202 4037 1,0", "402 4033 1,0", "202 4032 1,0"}},
    AtCase{"CfunLineFeedReadsZero", {}, "AT+CFUN=\r\n", {"202 4037 0,0", "202 4032 0,0"}},
    AtCase{"CfunNoValue", {}, "AT+CFUN=", {kError}, "dati_cfun_assign_hdl(): atctok() error!!"},
    AtCase{"CfunQueryForwarded", {}, "AT+CFUN?\r", {"7 15 AT+CFUN?\r"}},
    AtCase{"CfunBareSilent", {}, "AT+CFUN", {}},
    AtCase{"CommandPrefixOnlyCompared", {}, "AT+CGACTX=1\r", {}},
    AtCase{"EfunRadioOnly", {}, "AT+EFUN=1\r", {"402 4033 1,0", "202 4032 1,0"}},
    AtCase{"EgtypeAllowOnly", {}, "AT+EGTYPE=4\r", {"202 4037 1,0"}},
    AtCase{"UnsupportedCommand", {}, "AT+COPS?\r", {kError},
           "The AT command AT+COPS?\r is unsupported!!"},
    AtCase{"VzwactQueryAsksModem", {}, "AT+VZWACT?\r", {"7 15 AT+CGACT?\r\n"}},
    AtCase{"VzwactNoParameters", {}, "AT+VZWACT=", {kError}},
    AtCase{"ForgedUrcKeepsCarriageReturn", {}, "AT@URC=\"+CGEV: ME PDN ACT 1\"\r",
           {kOk, "8 18 \r\n+CGEV: ME PDN ACT 1\r\r\n"}},
    AtCase{"ForgedUrcOddQuotes", {}, "AT@URC=a\"\"b\",c\r", {kOk, "8 18 \r\nab,c\r\r\n"}}
), [](const auto &info) { return std::string(info.param.name); });
// clang-format on

TEST_F(DatiFixture, CgdcontFillsRowOneWhateverTheCid) {
    at("AT+CGDCONT=9,\"IPV6\",\"internet\"\r");
    const AtPdpContext &row = h.entity()->at_pdp_ctx[1];
    EXPECT_EQ(row.cid, 9);
    EXPECT_EQ(row.setup_req.ip_type, kPdpIpv6);
    EXPECT_EQ(row.setup_req.interface_id, 1u);
    EXPECT_STREQ(row.setup_req.apn, "internet\"");
    EXPECT_EQ(row.deact_req.id, 0u);
    EXPECT_EQ(h.entity()->at_pdp_ctx[9].cid, -1);
    EXPECT_TRUE(
            logged_exactly("dati_cgdcont_assign_hdl(): registered at interface ID 1 with CID 9"));
}

TEST_F(DatiFixture, CgactActivationMarksRowAndReleasesOnceMore) {
    at(kCgdcont);
    h.clear();
    long before = h.rt().bad_unlocks();
    at("AT+CGACT=1,1\r");
    EXPECT_EQ(h.entity()->at_pdp_ctx[1].state, 1);
    EXPECT_TRUE(results().empty());
    EXPECT_EQ(h.rt().bad_unlocks() - before, 1);
    at("AT+CGACT=0,0\r");
    EXPECT_EQ(h.entity()->at_pdp_ctx[1].state, 0);
}

TEST_F(DatiFixture, LongLinesStayInsideTheirFields) {
    std::string apn(5000, 'a');
    at("AT+CGDCONT=1,\"IP\",\"" + apn + "\"\r");
    EXPECT_EQ(results(), std::vector<std::string>{"\r\nOK\r\n"});
    EXPECT_EQ(std::string(h.entity()->at_pdp_ctx[1].setup_req.apn), apn.substr(0, 127));

    h.clear();
    at("AT@URC=" + std::string(5000, 'u') + "\r");
    auto forged = h.sent_to(TASK_ATI_URC, EVENT_ATI_URC_FORGED);
    ASSERT_EQ(forged.size(), 1u);
    EXPECT_EQ(std::string(record_of<AtUrc>(forged[0]).text), "\r\n" + std::string(253, 'u'));

    h.clear();
    at("AT+COPS=" + std::string(5000, '9'));
    EXPECT_EQ(results(), std::vector<std::string>{"\r\nERROR\r\n"});
}

TEST_F(DatiFixture, MalformedPayloadsAreRefused) {
    const char unterminated[] = {'A', 'T', '+', 'C', 'F', 'U', 'N', '=', '1'};
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, unterminated, sizeof(unterminated));
    to_dati(EVENT_DATAMNGR_ATCMD_REQ, nullptr, 0);
    EXPECT_EQ(sent(), (std::vector<std::string>{kError, kError}));
    EXPECT_TRUE(logged_exactly("datamngr_entity_dati_task_hdl(): AT Cmd = \"INVAL_AT_VAL\""));
}

TEST_F(DatiFixture, VzwactAnswersErrorAndKeepsTheLock) {
    at("AT+VZWACT=1,\"x\"\r");
    EXPECT_EQ(sent(), std::vector<std::string>{kError});
    // The held reply event stays in its slot, unreleased.
    EXPECT_EQ(h.stray_events(), 1);
    EXPECT_NE(h.entity()->cur_atcmd_event, nullptr);

    h.rt().set_wait_limit(std::chrono::milliseconds(50));
    evfw_mutex_t *lock = &h.entity()->lock;
    int other = 0;
    std::thread([&] { other = lock->lock(lock); }).join();
    EXPECT_EQ(other, -1);

    // The test, not the library, ends the leak so that the process stays
    // clean.
    evfw_event_free(h.entity()->cur_atcmd_event);
    h.entity()->cur_atcmd_event = nullptr;
}

TEST_F(DatiFixture, RegistrationNameGoesToTheMainTask) {
    const std::string name = "ati";
    const std::string too_long(140, 'n');
    to_dati(EVENT_DATAMNGR_ATCMD_REGISTER, name.c_str(), name.size() + 1);
    to_dati(EVENT_DATAMNGR_ATCMD_REGISTER, too_long.c_str(), too_long.size() + 1);
    to_dati(EVENT_DATAMNGR_ATCMD_REGISTER, nullptr, 0);
    auto notices = h.sent_to(TASK_DATAMNGR, EVENT_DATAMNGR_NOTIFICATION);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].data, dm::testkit::announcement(name));
    EXPECT_TRUE(logged_exactly(
            "datamngr_dati_task_hdl(): the registration name for Data Manager is invalid!!"));
}

// ---- replies ----

class DatiReplies : public DatiFixture {
  protected:
    // A response entry point called as the host side would, with a template
    // derived from an AT client's event.
    template <class Fn>
    void answer(Fn fn, void *record = nullptr) {
        evfw_event_t *tmpl = evfw_event_alloc(nullptr);
        fn(record, tmpl);
        evfw_event_free(tmpl);
        h.pump();
    }
};

TEST_F(DatiReplies, CfunGivesOneResultOverItsTwoAnswers) {
    data_allow_reply_armed = 0x201;
    at("AT+CFUN=1\r");
    EXPECT_EQ(data_allow_reply_armed, 0x200u);  // only the lowest byte is cleared
    answer(dati_allow_data_resp);
    EXPECT_TRUE(results().empty());
    EXPECT_EQ(data_allow_reply_armed, 0x201u);
    answer(dati_radio_power_resp);
    EXPECT_EQ(results(), std::vector<std::string>{"\r\nOK\r\n"});
    // Re-armed: a later allow-data answer speaks again.
    answer(dati_allow_data_resp);
    EXPECT_EQ(results().size(), 2u);
}

TEST_F(DatiReplies, EgtypeAllowDataAnswerSpeaks) {
    at("AT+EGTYPE=1\r");
    answer(dati_allow_data_resp);
    EXPECT_EQ(results(), std::vector<std::string>{"\r\nOK\r\n"});
}

TEST_F(DatiReplies, Texts) {
    prime_dati();  // an unknown event for task 403: logged, nothing sent
    EXPECT_TRUE(logged_exactly("An unknown event 4066 is ignored!!"));
    SetupDataCallResp setup = {};
    setup.interface_id = 3;
    setup.status = 27;  // not looked at
    answer(dati_setup_data_call_resp, &setup);
    answer(dati_fail_resp);
    answer(dati_deactivate_data_call_resp);
    answer(dati_modify_data_call_resp);
    evfw_event_t *held = evfw_event_alloc(nullptr);
    char query[] = "AT+EGTYPE?\r";
    dati_bypass_query_hdl(nullptr, query, &held);
    EXPECT_EQ(held, nullptr);  // sent
    EXPECT_EQ(sent(), (std::vector<std::string>{"7 4066 \r\n+CGEV: ME PDN ACT 3\r\n\r\nOK\r\n",
                                                kError, kOk, "7 15 AT+EGTYPE?\r"}));
    for (const auto &e : h.sent_to(TASK_ATI_ATC, EVENT_DATAMNGR_ATCMD_RESP))
        EXPECT_EQ(e.len, sizeof(AtCmdResp));
    EXPECT_TRUE(logged_exactly("dati_setup_data_call_resp(): call dati_dummy_resp()!!"));
    EXPECT_TRUE(logged_exactly("dati_modify_data_call_resp(): in and out!!"));

    h.clear();
    dati_dummy_urc(nullptr, std::string(5000, 'z').c_str(), 1);
    h.pump();
    EXPECT_EQ(sent(), std::vector<std::string>{"8 21 " + std::string(4095, 'z')});
}

TEST_F(DatiReplies, NothingSentBeforeTheDatiTaskRan) {
    answer(dati_radio_power_resp);
    EXPECT_EQ(dati_setup_data_call_resp(nullptr, nullptr), -1);
    dati_dummy_urc(nullptr, "+CGEV: ME PDN ACT 1", 1);
    h.pump();
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(logged_exactly("dati_dummy_resp(): dm_entity_priv = NULL!!"));
    EXPECT_TRUE(logged_exactly("dati_dummy_urc(): dm_entity_priv = NULL!!"));
}

// ---- tokeniser ----

class DatiTokeniser : public DatiFixture {
  protected:
    std::vector<std::string> split(char *line) {
        std::vector<std::string> out;
        char *save = nullptr;
        for (char *t = atctok(line, &save); t != nullptr; t = atctok(nullptr, &save)) {
            out.emplace_back(t);
        }
        return out;
    }
};

TEST_F(DatiTokeniser, SplitsOnCommaAndCarriageReturn) {
    char a[] = "1,,2\r";
    EXPECT_EQ(split(a), (std::vector<std::string>{"1", "2"}));
    char b[] = "\"IP\",x\r\n";
    EXPECT_EQ(split(b), (std::vector<std::string>{"\"IP\"", "x", "\n"}));
    char c[] = "\r,\r";
    EXPECT_TRUE(split(c).empty());
    // The separators of the line itself become NULs.
    char d[] = "a,b\rc";
    split(d);
    EXPECT_EQ(std::string(d, sizeof(d)), std::string("a\0b\0c\0", 6));
}

TEST_F(DatiTokeniser, ErrorShowsTheRemainingPart) {
    char line[] = "1\r\n";
    split(line);
    EXPECT_TRUE(logged_exactly("Incorrect AT command format with an unexpected part \n!!"));
    // The position never passes the end of a line without a final separator.
    h.clear();
    char bare[] = "1,2";
    split(bare);
    EXPECT_TRUE(logged_exactly("Incorrect AT command format with an unexpected part !!"));
}

}  // namespace
}  // namespace dati_test

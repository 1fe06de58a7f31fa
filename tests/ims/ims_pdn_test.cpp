// The IMS PDN queries through the runtime: the IMS manager passes its
// parameters (4045), the RIL fetches them (4049) and answers the set-up
// (4004), the IMS manager asks for its PDN (4047).
#include <gtest/gtest.h>

#include "entity/task_info.h"
#include "ims_test_util.h"
#include "netns.h"

namespace {

using ims_test::ims_params;
using ims_test::ims_pdn_req;
using ims_test::ipv6;
using ims_test::setup_answer;

class ImsPdnTest : public ims_test::ImsFixture {
  protected:
    // The IMS PDN up on interface 4: parameters passed, the set-up answered.
    void bring_up(const SetupDataCallResp &answer) {
        from_imsm(EVENT_DATAMNGR_PASS_IMS_PDN_REQ, ims_params("ims"));
        from_ril(EVENT_DATAMNGR_GET_IMS_PARA_REQ, ImsParaReq{answer.interface_id, 0});
        from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, answer);
    }
    std::unique_ptr<SetupDataCallResp> query(const char *ifname, uint32_t token = 0x7701) {
        size_t before = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PDN_RESP).size();
        from_imsm(EVENT_DATAMNGR_GET_IMS_PDN_REQ, ims_pdn_req(ifname, token));
        auto answers = to_imsm<SetupDataCallResp>(EVENT_DATAMNGR_GET_IMS_PDN_RESP);
        EXPECT_EQ(answers.size(), before + 1);
        if (answers.empty()) return std::make_unique<SetupDataCallResp>();
        return std::move(answers.back());
    }
    ImsPdnPassResp pass(const SetupDataCallReq &params) {
        from_imsm(EVENT_DATAMNGR_PASS_IMS_PDN_REQ, params);
        auto answers = to_imsm<ImsPdnPassResp>(EVENT_DATAMNGR_PASS_IMS_PDN_RESP);
        EXPECT_FALSE(answers.empty());
        return answers.empty() ? ImsPdnPassResp{} : *answers.back();
    }
};

bool all_zero(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return std::all_of(b, b + n, [](uint8_t x) { return x == 0; });
}

// ---- the whole set-up, against a real interface ---------------------------

class ImsPdnNetnsTest : public ImsPdnTest {
  protected:
    void SetUp() override {
        IMS_ENTER_PRIVATE_NETNS();
        ASSERT_TRUE(ims_test::add_data_interface(4));
        ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:1:2::5/64"));
    }
};

TEST_F(ImsPdnNetnsTest, ImsManagerGetsTheAddressThatIsOnTheInterface) {
    EXPECT_EQ(pass(ims_params("ims")).result, 0);

    from_ril(EVENT_DATAMNGR_GET_IMS_PARA_REQ, ImsParaReq{4, 0});
    EXPECT_EQ(rild_req_interface_id, 4);
    auto para = h.sent_with_id(EVENT_DATAMNGR_GET_IMS_PARA_RESP);
    ASSERT_EQ(para.size(), 1u);
    auto p = dm::testkit::record_of<ImsParaResp>(para[0]);
    EXPECT_EQ(p.valid, 1u);
    EXPECT_EQ(p.ims_para[0], 0xa0);
    EXPECT_EQ(p.ims_para[19], 0xa0 + 19);
    EXPECT_EQ(p.ims_word_684, 0x684u);
    EXPECT_EQ(p.ims_word_688, 0x688u);
    EXPECT_EQ(p.zero, 0u);
    EXPECT_EQ(p.assigned_rate_type, 3u);
    EXPECT_TRUE(h.logged("RILD dm_get_ims_para_req for interface id 4, SIM 0\n"));

    auto answer = setup_answer(4, kPdpIpv6, "2001:db8:1:2::aaaa");
    from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    ASSERT_EQ(ims_para_slot(4)->state, kImsSlotResponseStored);

    auto pdn = query("pdnet4", 0xbeef);
    EXPECT_EQ(pdn->status, 0u);
    EXPECT_EQ(pdn->interface_id, 4u);
    EXPECT_EQ(pdn->pdp_type, kPdpIpv6);
    EXPECT_EQ(pdn->req_token, 0xbeefu);
    EXPECT_EQ(ims_test::addr_of(pdn->ipv6_addr), ipv6("2001:db8:1:2::5"));
    EXPECT_EQ(ims_test::addr_of(ims_para_slot(4)->saved_global_addr), ipv6("2001:db8:1:2::5"));
    // The slot keeps the modem's own answer.
    EXPECT_EQ(ims_test::addr_of(ims_para_slot(4)->response.ipv6_addr), ipv6("2001:db8:1:2::aaaa"));
    EXPECT_TRUE(h.logged("IMSM dm_get_ims_pdn_req interface pdnet4 id 4 for IMS 4\n"));
    EXPECT_TRUE(ims_test::logged_by(h, "dm_get_ims_pdn_req",
                                    "get ipv6 global address for pdnet4 success\n"));
    EXPECT_TRUE(
            h.logged("[DMGR-DBG] saved ipv6 global address = "
                     "2001:0db8:0001:0002:0000:0000:0000:0005\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- pass ------------------------------------------------------------------

TEST_F(ImsPdnTest, PassWithoutValidParametersIsRefused) {
    SetupDataCallReq params = ims_params("ims", 0, 2);
    params.ims_para_valid = 0;
    ImsPdnPassResp resp = pass(params);
    EXPECT_EQ(resp.result, -1);
    EXPECT_EQ(resp.sim_id, 2u);
    EXPECT_EQ(ims_para_slot(4)->state, kImsSlotEmpty);
    EXPECT_TRUE(h.logged("[DMGR-ERR] dm_pass_ims_pdn_req invalid APN ims for IMS\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(ImsPdnTest, PassingAgainClearsTheStoredAnswer) {
    bring_up(*setup_answer(4, kPdpIpv4, "::"));
    memset(ims_para_slot(4)->saved_global_addr, 0x5a, 16);
    ASSERT_EQ(ims_para_slot(4)->state, kImsSlotResponseStored);

    EXPECT_EQ(pass(ims_params("ims")).result, 0);
    EXPECT_EQ(ims_para_slot(4)->state, kImsSlotParamsPassed);
    EXPECT_TRUE(all_zero(ims_para_slot(4)->saved_global_addr, 16));

    auto pdn = query("pdnet4");
    EXPECT_EQ(pdn->status, 1u);
    EXPECT_EQ(pdn->interface_id, 0u);  // the cleared answer went out
    EXPECT_TRUE(
            h.logged("[DMGR-ERR] dm_get_ims_pdn_req interface id 4 for IMS in wrong state 1\n"));
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- parameters for the RIL -------------------------------------------------

TEST_F(ImsPdnTest, ParameterQueryForAnotherInterfaceIsAnsweredWithZeros) {
    pass(ims_params("ims"));
    from_ril(EVENT_DATAMNGR_GET_IMS_PARA_REQ, ImsParaReq{7, 1});
    EXPECT_EQ(rild_req_interface_id, 7);
    auto para = h.sent_with_id(EVENT_DATAMNGR_GET_IMS_PARA_RESP);
    ASSERT_EQ(para.size(), 1u);
    ASSERT_EQ(para[0].data.size(), 44u);
    EXPECT_TRUE(all_zero(para[0].data.data(), 44));
    EXPECT_TRUE(h.logged("dm_get_ims_para_req invalid interface id 7 for IMS\n"));
    EXPECT_FALSE(h.logged("emergency ind"));
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- the query's failures -----------------------------------------------------

TEST_F(ImsPdnTest, QueryForANonImsInterfaceFails) {
    bring_up(*setup_answer(4, kPdpIpv4, "::"));
    auto pdn = query("pdnet3");
    EXPECT_EQ(pdn->status, 1u);
    pdn->status = 0;
    EXPECT_TRUE(all_zero(pdn.get(), sizeof(*pdn)));
    EXPECT_TRUE(h.logged("[DMGR-ERR] dm_get_ims_pdn_req invalid interface pdnet3 id 3 for IMS\n"));
}

TEST_F(ImsPdnTest, EmergencyPdnUsesTheEmergencySlot) {
    EXPECT_EQ(pass(ims_params("sos", 1)).result, 0);
    EXPECT_EQ(ims_para_slot(5)->state, kImsSlotParamsPassed);
    EXPECT_EQ(ims_para_slot(4)->state, kImsSlotEmpty);
    EXPECT_TRUE(h.logged("dm_pass_ims_pdn_req APN sos for EMERGENCY PDN\n"));

    from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *setup_answer(5, kPdpIpv4, "::"));
    auto pdn = query("pdnet5", 9);
    EXPECT_EQ(pdn->status, 0u);
    EXPECT_EQ(pdn->interface_id, 5u);
    EXPECT_EQ(pdn->req_token, 9u);
    EXPECT_TRUE(h.logged("dm_get_ims_pdn_req interface pdnet5 id 5 for emergency 0\n"));
}

// IPv6 completion fails when the prefix never comes: an IPv6-only PDN fails
// with -7, an IPv4v6 PDN falls back to IPv4.
struct NoPrefixCase {
    uint32_t pdp_type;
    int32_t status;
    uint32_t answered_pdp_type;
    const char *last_line;
};
void PrintTo(const NoPrefixCase &c, std::ostream *os) {
    *os << "pdp_type " << c.pdp_type;
}

class ImsNoPrefixTest : public ImsPdnTest, public ::testing::WithParamInterface<NoPrefixCase> {};

TEST_P(ImsNoPrefixTest, CompletionGivesUpAfter160Attempts) {
    const NoPrefixCase &c = GetParam();
    bring_up(*setup_answer(4, c.pdp_type, "fe80::aaaa"));
    auto pdn = query("pdnet4");
    EXPECT_EQ(ims_test::fake_clock::sleeps(), 160);
    EXPECT_EQ(static_cast<int32_t>(pdn->status), c.status);
    EXPECT_EQ(pdn->pdp_type, c.answered_pdp_type);
    EXPECT_TRUE(ims_test::logged_by(h, "dm_get_ipv6_prefix", "get ipv6 prefix fail for pdnet4\n"));
    EXPECT_TRUE(ims_test::logged_by(h, "dm_get_ims_pdn_req", "get ipv6 prefix fail for pdnet4\n"));
    EXPECT_TRUE(ims_test::logged_by(h, "dm_get_ims_pdn_req", c.last_line));
    EXPECT_FALSE(h.logged("get ipv6 global address"));
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(PdpTypes, ImsNoPrefixTest,
                         ::testing::Values(NoPrefixCase{kPdpIpv6, -7, kPdpIpv6, "ipv6 fail\n"},
                                           NoPrefixCase{kPdpIpv4v6, 0, kPdpIpv4,
                                                        "pdnet4 fallback to IPv4\n"}));

// ---- a query parked until the set-up answer ----------------------------------

class ImsParkedQueryTest : public ImsPdnTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ImsParkedQueryTest, SetupAnswerReplaysTheParkedQuery) {
    const bool row_already_up = GetParam();
    from_imsm(EVENT_DATAMNGR_PASS_IMS_PDN_REQ, ims_params("ims"));
    // The replay runs before the answer's connections reach the table.
    if (row_already_up) {
        DataCallEntry e = ims_test::bearer(4, 4, 4);
        update_pdn_info(&e, nullptr);
    }
    ImsParaSlot *slot = ims_para_slot(4);
    slot->state = kImsSlotQueryParked;
    slot->parked_req.req = ims_pdn_req("pdnet4", 0x3030);
    slot->parked_req.event = evfw_event_alloc(query_task_info_by_name("imsm_0"));
    h.clear();

    from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *setup_answer(4, kPdpIpv4, "::"));
    auto answers = to_imsm<SetupDataCallResp>(EVENT_DATAMNGR_GET_IMS_PDN_RESP);
    ASSERT_EQ(answers.size(), 1u);
    if (row_already_up) {
        EXPECT_EQ(answers[0]->status, 0u);
        EXPECT_EQ(answers[0]->req_token, 0x3030u);
        EXPECT_EQ(answers[0]->interface_id, 4u);
    } else {
        // Nothing of a PDN that is not in the table goes out.
        EXPECT_EQ(answers[0]->status, 1u);
        answers[0]->status = 0;
        EXPECT_TRUE(all_zero(answers[0].get(), sizeof(SetupDataCallResp)));
        EXPECT_TRUE(h.logged("[DMGR-ERR] dm_get_ims_pdn_req  null PDN\n"));
    }
    EXPECT_EQ(slot->state, kImsSlotResponseStored);
    EXPECT_EQ(h.stray_events(), 0);  // the parked event was freed
}

INSTANTIATE_TEST_SUITE_P(RowState, ImsParkedQueryTest, ::testing::Bool());

// ---- interface names -----------------------------------------------------

struct IfIdCase {
    const char *name;
    int32_t id;
};
void PrintTo(const IfIdCase &c, std::ostream *os) {
    *os << '"' << c.name << '"';
}
class ImsInterfaceIdTest : public ::testing::TestWithParam<IfIdCase> {};

TEST_P(ImsInterfaceIdTest, NumberAfterTheFirstFiveCharacters) {
    EXPECT_EQ(get_interface_id(GetParam().name), GetParam().id);
}

INSTANTIATE_TEST_SUITE_P(Names, ImsInterfaceIdTest,
                         ::testing::Values(IfIdCase{"pdnet4", 4}, IfIdCase{"pdnet12", 12},
                                           IfIdCase{"pdnet", 0}, IfIdCase{"rmnet4", -1},
                                           // read at position 5 wherever "pdnet" stands
                                           IfIdCase{"xpdnet4", 0}, IfIdCase{"ab3pdnet", 0},
                                           IfIdCase{"abcde7pdnet", 7}));

}  // namespace
